#include "test_support.h"

#include <fcntl.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include "boundary/cert_lookup.h"
#include "platform/crypto/openssl.h"
#include "platform/crypto/x509.h"
#include "tessarel/store.h"
#include "tessarel/ui.h"

extern char** environ;

namespace tessarel::test {

TempDir::TempDir() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "tessarel-test-XXXXXX").string();
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (!mkdtemp(buf.data())) throw std::runtime_error("mkdtemp failed");
  path_ = buf.data();
}

TempDir::~TempDir() {
  std::error_code ec;
  // Folders a test made read-only must become writable again to be removed.
  for (auto it = std::filesystem::recursive_directory_iterator(path_, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    if (it->is_directory(ec))
      std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                   std::filesystem::perm_options::add, ec);
  }
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::add, ec);
  std::filesystem::remove_all(path_, ec);
}

void write_file(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary);
  out << content;
  if (!out) throw std::runtime_error("cannot write " + path);
}

void write_file(const std::string& path, const Bytes& content) {
  write_file(path, std::string(content.begin(), content.end()));
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream out;
  out << in.rdbuf();
  return std::move(out).str();
}

Bytes read_bytes(const std::string& path) {
  std::string s = read_file(path);
  return Bytes(s.begin(), s.end());
}

namespace {
crypto::EvpPkeyPtr generate_key(const CertParams& params) {
  EVP_PKEY* key = nullptr;
  switch (params.kind) {
    case KeyKind::Rsa:
      key = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(params.bits));
      break;
    case KeyKind::Ec:
      key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC",
                              !params.curve.empty() ? params.curve.c_str()
                              : params.bits > 256   ? "P-384"
                                                    : "P-256");
      break;
    case KeyKind::Ed25519:
      key = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
      break;
    case KeyKind::Ed448:
      key = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED448");
      break;
    case KeyKind::Dsa: {
      crypto::EvpPkeyCtxPtr pctx(EVP_PKEY_CTX_new_from_name(nullptr, "DSA", nullptr));
      EVP_PKEY* domain = nullptr;
      EVP_PKEY_paramgen_init(pctx.get());
      EVP_PKEY_CTX_set_dsa_paramgen_bits(pctx.get(), params.bits);
      EVP_PKEY_paramgen(pctx.get(), &domain);
      crypto::EvpPkeyPtr p(domain);
      crypto::EvpPkeyCtxPtr kctx(EVP_PKEY_CTX_new_from_pkey(nullptr, domain, nullptr));
      EVP_PKEY_keygen_init(kctx.get());
      EVP_PKEY_keygen(kctx.get(), &key);
      break;
    }
    default:
      throw std::runtime_error("make_cert: unsupported key kind");
  }
  if (!key) throw std::runtime_error("make_cert: key generation failed");
  return crypto::EvpPkeyPtr(key);
}

void add_ext(X509* cert, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str());
  if (!ext) throw std::runtime_error("make_cert: bad extension " + value);
  X509_add_ext(cert, ext, -1);
  X509_EXTENSION_free(ext);
}
}  // namespace

TestCert make_cert(const CertParams& params, const TestCert* issuer) {
  crypto::EvpPkeyPtr key = generate_key(params);
  crypto::X509Ptr x(X509_new());
  X509_set_version(x.get(), 2);
  Bytes serial = params.serial;
  if (serial.empty()) {
    serial.resize(16);
    RAND_bytes(serial.data(), 16);
    serial[0] &= 0x7F;
    if (serial[0] == 0) serial[0] = 0x11;
  }
  // Set the INTEGER content octets exactly (a leading 00 stays).
  ASN1_INTEGER* sn = ASN1_INTEGER_new();
  ASN1_STRING_set(sn, serial.data(), static_cast<int>(serial.size()));
  if (!serial.empty() && serial[0] & 0x80) sn->type = V_ASN1_NEG_INTEGER;
  // OpenSSL stores the magnitude; re-encode from the bytes we were given.
  {
    std::vector<unsigned char> der;
    der.push_back(0x02);
    der.push_back(static_cast<unsigned char>(serial.size()));
    der.insert(der.end(), serial.begin(), serial.end());
    const unsigned char* p = der.data();
    ASN1_INTEGER* parsed = d2i_ASN1_INTEGER(nullptr, &p, static_cast<long>(der.size()));
    if (parsed) {
      ASN1_INTEGER_free(sn);
      sn = parsed;
    }
  }
  X509_set_serialNumber(x.get(), sn);
  ASN1_INTEGER_free(sn);
  X509_gmtime_adj(X509_getm_notBefore(x.get()),
                  static_cast<long>(params.not_before_offset_days) * 86400);
  X509_gmtime_adj(X509_getm_notAfter(x.get()), static_cast<long>(params.days) * 86400);
  X509_set_pubkey(x.get(), key.get());
  X509_NAME* name = X509_get_subject_name(x.get());
  if (!params.country.empty())
    X509_NAME_add_entry_by_txt(name, "C", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(params.country.c_str()), -1,
                               -1, 0);
  if (!params.org.empty())
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(params.org.c_str()), -1, -1,
                               0);
  if (!params.cn.empty())
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(params.cn.c_str()), -1, -1,
                               0);
  if (!params.email.empty())
    X509_NAME_add_entry_by_txt(name, "emailAddress", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(params.email.c_str()), -1, -1,
                               0);
  for (const auto& e : params.raw_subject)
    X509_NAME_add_entry_by_txt(name, e.field.c_str(), e.type,
                               reinterpret_cast<const unsigned char*>(e.bytes.data()),
                               static_cast<int>(e.bytes.size()), -1, 0);
  X509* issuer_x = issuer ? crypto::x509_of(issuer->cert) : x.get();
  X509_set_issuer_name(x.get(), X509_get_subject_name(issuer_x));
  if (params.ca) add_ext(x.get(), issuer_x, NID_basic_constraints, "critical,CA:TRUE");
  if (params.key_usage) {
    static const char* names[] = {"digitalSignature", "nonRepudiation", "keyEncipherment",
                                  "dataEncipherment", "keyAgreement",   "keyCertSign",
                                  "cRLSign",          "encipherOnly",   "decipherOnly"};
    std::string v;
    for (int i = 0; i < 9; ++i)
      if (*params.key_usage & (1u << i)) v += std::string(v.empty() ? "" : ",") + names[i];
    if (!v.empty()) add_ext(x.get(), issuer_x, NID_key_usage, "critical," + v);
  }
  EVP_PKEY* signer = issuer ? issuer->key.get() : key.get();
  KeyKind signer_kind = crypto::key_kind(signer);
  const EVP_MD* md =
      signer_kind == KeyKind::Ed25519 || signer_kind == KeyKind::Ed448 ? nullptr : EVP_sha256();
  if (!X509_sign(x.get(), signer, md)) throw std::runtime_error("make_cert: signing failed");
  return TestCert{crypto::certificate_from_x509(x.get()), crypto::PrivateKey(std::move(key))};
}

std::string write_pem(const Certificate& cert, const std::string& path) {
  write_file(path, cert.pem());
  return path;
}

std::string write_key_pem(const crypto::PrivateKey& key, const std::string& path) {
  crypto::BioPtr bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_PrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  char* data = nullptr;
  long n = BIO_get_mem_data(bio.get(), &data);
  write_file(path, std::string(data, static_cast<std::size_t>(n)));
  return path;
}

ScopedStore::ScopedStore() : path_(dir_.path() + "/MY") {
  set_store_location(path_);
}

ScopedStore::~ScopedStore() {
  set_store_location("");
}

void ScopedStore::add(const TestCert& tc, bool with_key) {
  Bytes key = with_key ? tc.pkcs8() : Bytes{};
  open_store(path_)->add(tc.cert, key);
  ResetSharedCertStorage();
}

ScopedUi::ScopedUi(std::shared_ptr<Ui> ui) {
  setUi(std::move(ui));
}
ScopedUi::~ScopedUi() {
  setUi(nullptr);
}

namespace {
std::string drain(int fd) {
  std::string out;
  char buf[65536];
  ssize_t n;
  while ((n = ::read(fd, buf, sizeof buf)) > 0)
    out.append(buf, static_cast<std::size_t>(n));
  return out;
}
}  // namespace

CommandResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
  int out_pipe[2], err_pipe[2];
  if (pipe2(out_pipe, O_CLOEXEC) != 0 || pipe2(err_pipe, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&fa, out_pipe[1], 1);
  posix_spawn_file_actions_adddup2(&fa, err_pipe[1], 2);
  std::vector<char*> args;
  for (const auto& a : argv)
    args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  std::vector<std::string> env_strings;
  for (char** e = environ; *e; ++e)
    env_strings.emplace_back(*e);
  // Programs under test never open windows on the desktop of whoever runs the tests; a
  // test that wants a display passes it in env.
  std::erase_if(env_strings, [](const std::string& s) {
    return s.rfind("DISPLAY=", 0) == 0 || s.rfind("WAYLAND_DISPLAY=", 0) == 0;
  });
  for (const auto& e : env) {
    auto key = e.substr(0, e.find('=') + 1);
    std::erase_if(env_strings, [&](const std::string& s) { return s.rfind(key, 0) == 0; });
    env_strings.push_back(e);
  }
  std::vector<char*> envp;
  for (auto& e : env_strings)
    envp.push_back(e.data());
  envp.push_back(nullptr);
  pid_t pid;
  int rc = posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&fa);
  ::close(out_pipe[1]);
  ::close(err_pipe[1]);
  CommandResult r;
  if (rc != 0) {
    ::close(out_pipe[0]);
    ::close(err_pipe[0]);
    r.err = "cannot start " + argv[0];
    return r;
  }
  std::string err;
  std::thread t([&] { err = drain(err_pipe[0]); });
  r.out = drain(out_pipe[0]);
  t.join();
  ::close(out_pipe[0]);
  ::close(err_pipe[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  r.err = err;
  r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return r;
}

CommandResult run_shell(const std::string& command) {
  return run({"/bin/sh", "-c", command});
}

int with_file_size_limit(std::size_t limit, const std::function<int()>& fn) {
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    signal(SIGXFSZ, SIG_IGN);
    rlimit lim{limit, limit};
    setrlimit(RLIMIT_FSIZE, &lim);
    int rc = 99;
    try {
      rc = fn();
    } catch (...) {
      rc = 98;
    }
    _exit(rc);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

SmallFileSystem::SmallFileSystem(const std::string& folder, std::size_t bytes) : folder_(folder) {
  std::filesystem::create_directories(folder);
  std::string options = "size=" + std::to_string(bytes) + ",mode=0700";
  mounted_ =
      ::mount("tessarel-test", folder.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) == 0;
}

SmallFileSystem::~SmallFileSystem() {
  if (mounted_) ::umount2(folder_.c_str(), MNT_DETACH);
}

bool SmallFileSystem::make_read_only() {
  return mounted_ && ::mount("tessarel-test", folder_.c_str(), "tmpfs",
                             MS_REMOUNT | MS_RDONLY | MS_NOSUID | MS_NODEV, nullptr) == 0;
}

std::string SmallFileSystem::fill() {
  std::string path = folder_ + "/filler";
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (fd < 0) throw std::runtime_error("cannot create " + path);
  std::string block(4096, 'f');
  // Whole blocks, then single bytes: the last partial block is used up too.
  while (::write(fd, block.data(), block.size()) > 0) {
  }
  while (::write(fd, "f", 1) > 0) {
  }
  ::close(fd);
  return path;
}

std::string read_terminal(int master, int quiet_ms) {
  std::string out;
  char buf[8192];
  pollfd p{master, POLLIN, 0};
  while (poll(&p, 1, quiet_ms) > 0) {
    ssize_t n = ::read(master, buf, sizeof buf);
    if (n <= 0) break;
    out.append(buf, static_cast<std::size_t>(n));
  }
  return out;
}

bool have_program(const std::string& name) {
  return run_shell("command -v " + name + " >/dev/null 2>&1").exit_code == 0;
}

std::string cli_path() {
  // Another build of the program can be put under the same tests (an older one, say).
  if (const char* other = std::getenv("TESSAREL_TEST_CLI"); other && *other) return other;
  return TESSAREL_CLI_PATH;
}

PtyRun on_terminal(const std::vector<std::string>& args, const std::string& wait_for,
                   const std::string& keys) {
  int master = -1;
  pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
  if (pid == 0) {
    // The terminal is under test, not the desktop dialogs.
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
    std::vector<char*> argv;
    for (const auto& a : args)
      argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  PtyRun r;
  bool typed = false;
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  char buf[4096];
  while (std::chrono::steady_clock::now() < end) {
    pollfd p{master, POLLIN, 0};
    if (poll(&p, 1, 100) > 0) {
      ssize_t n = ::read(master, buf, sizeof buf);
      if (n <= 0) {  // the terminal closed: the program has ended
        int status = 0;
        waitpid(pid, &status, 0);
        r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        break;
      }
      r.screen.append(buf, static_cast<std::size_t>(n));
    }
    if (!typed && r.screen.find(wait_for) != std::string::npos) {
      (void)!::write(master, keys.data(), keys.size());
      typed = true;
    }
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      while (poll(&p, 1, 50) > 0) {
        ssize_t n = ::read(master, buf, sizeof buf);
        if (n <= 0) break;
        r.screen.append(buf, static_cast<std::size_t>(n));
      }
      r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      break;
    }
  }
  ::close(master);
  if (r.exit_code < 0) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  return r;
}

}  // namespace tessarel::test
