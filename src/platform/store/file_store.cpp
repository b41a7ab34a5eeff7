#include "platform/store/file_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <optional>

#include "platform/crypto/digest.h"
#include "platform/crypto/pkcs12.h"
#include "platform/crypto/pkey.h"
#include "platform/runtime/files.h"
#include "platform/runtime/hex.h"
#include "platform/runtime/strings.h"
#include "platform/runtime/warnings.h"
#include "tessarel/errors.h"

namespace tessarel {

namespace {
constexpr const char* kManifest = "manifest";

// Writes of this process: two in the same clock tick still change the stamp.
std::atomic<std::uint64_t> g_writes{0};

std::string stamp_text(const FileStamp& s) {
  if (!s.exists) return "-";
  return std::to_string(s.device) + ":" + std::to_string(s.inode) + ":" + std::to_string(s.size) +
         ":" + std::to_string(s.mtime_ns) + ":" + std::to_string(s.ctime_ns);
}
constexpr const char* kManifestHeader = "# tessarel certificate store v1";

bool is_entry_name(const std::string& s) {
  return s.size() == 40 && std::all_of(s.begin(), s.end(), [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
         });
}

class FileSigningKey : public SigningKey {
 public:
  explicit FileSigningKey(crypto::PrivateKey key) : key_(std::move(key)) {}
  KeyKind kind() const override { return key_.kind(); }
  int bits() const override { return key_.bits(); }
  Bytes sign_digest(DigestAlgorithm alg, const Bytes& digest) const override {
    return key_.sign_digest(alg, digest);
  }
  Bytes sign_digest_pss(DigestAlgorithm alg, const Bytes& digest, DigestAlgorithm mgf_alg,
                        int salt_len) const override {
    if (key_.kind() != KeyKind::Rsa && key_.kind() != KeyKind::RsaPss)
      return SigningKey::sign_digest_pss(alg, digest, mgf_alg, salt_len);
    return key_.sign_digest_pss(alg, digest, mgf_alg, salt_len);
  }
  // Each signature makes its own key context over the shared, read-only key.
  bool signs_concurrently() const override { return true; }

 private:
  crypto::PrivateKey key_;
};

// Reads and parses a key file; nullopt when it is missing or unreadable.
std::optional<crypto::PrivateKey> load_key(const std::string& path) {
  if (!FileExists(path)) return std::nullopt;
  try {
    Bytes der = ReadFileBytes(path);
    auto key = crypto::PrivateKey::from_pkcs8_der(der);
    wipe(der);
    return key;
  } catch (const Exception& e) {
    warn("store: cannot use key file " + path + ": " + e.what());
    return std::nullopt;
  }
}
}  // namespace

class FileCertStore::Lock {
 public:
  explicit Lock(const std::string& path) {
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0)
      throw EFCreateError("Cannot create file \"" + path + "\". " + std::strerror(errno));
    while (::flock(fd_, LOCK_EX) != 0) {
      if (errno != EINTR) {
        int err = errno;
        ::close(fd_);
        throw EInOutError("Cannot lock the certificate store \"" + path +
                          "\": " + std::strerror(err));
      }
    }
  }
  ~Lock() { ::close(fd_); }  // closing releases the lock
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  int fd_ = -1;
};

FileCertStore::FileCertStore(std::string folder) : folder_(std::move(folder)) {
  while (folder_.size() > 1 && folder_.back() == '/')
    folder_.pop_back();
  if (folder_.empty()) throw Exception("Certificate store location is empty");
}

std::string FileCertStore::entry_name(const Certificate& cert) {
  return BinaryToString(cert.fingerprint(DigestAlgorithm::SHA1));
}

std::vector<std::string> FileCertStore::read_manifest() const {
  std::string manifest = path(kManifest);
  if (!FileExists(manifest)) return {};
  std::vector<std::string> entries;
  StringList lines(ReadFileText(manifest));
  for (const auto& line : lines.items()) {
    std::string name = trim(line);
    if (name.empty() || name[0] == '#') continue;
    if (!is_entry_name(name)) {
      warn("store: ignoring malformed manifest line in " + manifest + ": " + name);
      continue;
    }
    if (std::find(entries.begin(), entries.end(), name) == entries.end()) entries.push_back(name);
  }
  return entries;
}

void FileCertStore::write_manifest(const std::vector<std::string>& entries) {
  ++g_writes;
  std::string text = std::string(kManifestHeader) + "\n";
  for (const auto& e : entries)
    text += e + "\n";
  WriteFileAtomic(path(kManifest), text.data(), text.size(), 0600);
}

void FileCertStore::ensure_folder() {
  if (DirectoryExists(folder_)) return;
  std::string parent = ExtractFileDir(folder_);
  if (!parent.empty() && !ForceDirectories(parent))
    throw EFCreateError("Cannot create the certificate store folder \"" + parent + "\"");
  if (::mkdir(folder_.c_str(), 0700) != 0 && errno != EEXIST)
    throw EFCreateError("Cannot create the certificate store folder \"" + folder_ + "\". " +
                        std::strerror(errno));
  ::chmod(folder_.c_str(), 0700);
}

std::vector<Certificate> FileCertStore::certificates() {
  std::vector<Certificate> out;
  if (!DirectoryExists(folder_)) return out;
  std::vector<std::string> entries = read_manifest();
  for (const auto& name : entries) {
    std::string crt = path(name + ".crt");
    try {
      Certificate cert = Certificate::from_der(ReadFileBytes(crt));
      if (entry_name(cert) != name) {
        warn("store: skipping " + crt + ": its content does not match its name");
        continue;
      }
      out.push_back(std::move(cert));
    } catch (const Exception& e) {
      warn("store: skipping unreadable entry " + crt + ": " + e.what());
    }
  }
  // Anything else in the folder is not ours: say so, never fail because of it.
  if (DIR* dir = ::opendir(folder_.c_str())) {
    while (dirent* d = ::readdir(dir)) {
      std::string f = d->d_name;
      if (f.empty() || f[0] == '.' || f == kManifest) continue;
      std::string stem = f.size() > 4 ? f.substr(0, f.size() - 4) : "";
      std::string ext = f.size() > 4 ? f.substr(f.size() - 4) : "";
      bool listed = (ext == ".crt" || ext == ".key") &&
                    std::find(entries.begin(), entries.end(), stem) != entries.end();
      if (!listed) warn("store: ignoring foreign file " + path(f));
    }
    ::closedir(dir);
  }
  return out;
}

bool FileCertStore::has_private_key(const Certificate& cert) {
  return FileExists(path(entry_name(cert) + ".key"));
}

bool FileCertStore::key_valid(const Certificate& cert) {
  auto key = load_key(path(entry_name(cert) + ".key"));
  return key && key->matches(cert);
}

std::unique_ptr<SigningKey> FileCertStore::signing_key(const Certificate& cert) {
  auto key = load_key(path(entry_name(cert) + ".key"));
  if (!key || !key->matches(cert)) return nullptr;
  return std::make_unique<FileSigningKey>(std::move(*key));
}

void FileCertStore::remove_orphans(const std::vector<std::string>& entries) {
  DIR* dir = ::opendir(folder_.c_str());
  if (!dir) return;
  std::vector<std::string> doomed;
  while (dirent* d = ::readdir(dir)) {
    std::string f = d->d_name;
    // Leftovers of a writer that died before its manifest update: entry files that no
    // manifest line names, and its temporary files.
    if (f.size() == 44 && (f.ends_with(".crt") || f.ends_with(".key")) &&
        is_entry_name(f.substr(0, 40)) &&
        std::find(entries.begin(), entries.end(), f.substr(0, 40)) == entries.end())
      doomed.push_back(f);
    else if (f.size() > 1 && f[0] == '.' && f.find(".tmp-") != std::string::npos)
      doomed.push_back(f);
  }
  ::closedir(dir);
  for (const auto& f : doomed)
    ::unlink(path(f).c_str());
}

void FileCertStore::add(const Certificate& cert, const Bytes& pkcs8_key) {
  if (!pkcs8_key.empty()) {
    auto key = crypto::PrivateKey::from_pkcs8_der(pkcs8_key);
    if (!key.matches(cert)) throw Exception("The private key does not belong to the certificate");
  }
  ensure_folder();
  Lock lock(path(".lock"));
  std::vector<std::string> entries = read_manifest();
  remove_orphans(entries);
  std::string name = entry_name(cert);
  bool present = std::find(entries.begin(), entries.end(), name) != entries.end();
  if (!pkcs8_key.empty() && !(present && FileExists(path(name + ".key")))) {
    ++g_writes;
    WriteFileAtomic(path(name + ".key"), pkcs8_key.data(), pkcs8_key.size(), 0600);
  }
  if (present) return;
  WriteFileAtomic(path(name + ".crt"), cert.der().data(), cert.der().size(), 0600);
  entries.push_back(name);
  write_manifest(entries);
}

std::string FileCertStore::change_stamp() {
  return stamp_text(StampOf(folder_)) + "/" + stamp_text(StampOf(path(kManifest))) + "/" +
         std::to_string(g_writes.load());
}

std::vector<std::string> FileCertStore::files() {
  std::vector<std::string> out = {path(kManifest), path(".lock")};
  // Every entry file there is, listed in the manifest or left by a writer that died.
  if (DIR* dir = ::opendir(folder_.c_str())) {
    while (dirent* d = ::readdir(dir)) {
      std::string f = d->d_name;
      if (f.size() == 44 && (f.ends_with(".crt") || f.ends_with(".key")) &&
          is_entry_name(f.substr(0, 40)))
        out.push_back(path(f));
    }
    ::closedir(dir);
  }
  return out;
}

bool FileCertStore::remove(const Certificate& cert) {
  if (!DirectoryExists(folder_)) return false;
  Lock lock(path(".lock"));
  std::vector<std::string> entries = read_manifest();
  std::string name = entry_name(cert);
  auto it = std::find(entries.begin(), entries.end(), name);
  if (it == entries.end()) return false;
  entries.erase(it);
  write_manifest(entries);
  ::unlink(path(name + ".key").c_str());
  ::unlink(path(name + ".crt").c_str());
  SyncDirectory(folder_);
  return true;
}

Bytes FileCertStore::export_pkcs12(const Certificate& cert, const std::string& password) {
  auto key = load_key(path(entry_name(cert) + ".key"));
  if (!key)
    throw Exception("The certificate " + cert.id() + " has no usable private key in the store");
  return crypto::write_pkcs12(cert, *key, password, cert.subject_cn());
}

}  // namespace tessarel

namespace tessarel {
SigningKey::~SigningKey() = default;
Bytes SigningKey::sign_digest_pss(DigestAlgorithm, const Bytes&, DigestAlgorithm, int) const {
  throw Exception("This key cannot make RSASSA-PSS signatures");
}
bool SigningKey::signs_concurrently() const {
  return false;
}
CertStore::~CertStore() = default;
std::string CertStore::change_stamp() {
  return {};
}
std::vector<std::string> CertStore::files() {
  return {};
}
}  // namespace tessarel
