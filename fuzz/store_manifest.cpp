// Fuzzes what the file store reads from its folder: the manifest, and an entry's certificate
// and key files. The input is three parts separated by a NUL byte: manifest text,
// certificate DER, key PKCS#8 DER. The entry files are named after the certificate bytes'
// SHA-1 (the store's naming rule) and that name is added to the manifest, so the fuzzer
// reaches the entry readers without having to guess fingerprints.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/crypto/digest.h"
#include "platform/runtime/hex.h"
#include "platform/store/file_store.h"
#include "tessarel/errors.h"
#include "tessarel/store.h"

namespace {

std::string folder() {
  static std::string f = [] {
    const char* tmp = std::getenv("TMPDIR");
    std::string t = std::string(tmp && *tmp ? tmp : "/tmp") + "/tessarel-fuzz-store-XXXXXX";
    if (!::mkdtemp(t.data())) std::abort();
    tessarel::set_warning_handler([](const std::string&) {});
    return t;
  }();
  return f;
}

void put(const std::string& path, const std::uint8_t* data, std::size_t size) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) std::abort();
  while (size) {
    ssize_t w = ::write(fd, data, size);
    if (w <= 0) std::abort();
    data += w;
    size -= static_cast<std::size_t>(w);
  }
  ::close(fd);
}

// The next part of the input up to a NUL byte (or its end).
std::pair<const std::uint8_t*, std::size_t> part(const std::uint8_t*& p, const std::uint8_t* end) {
  const std::uint8_t* start = p;
  while (p < end && *p)
    ++p;
  std::pair<const std::uint8_t*, std::size_t> out{start, static_cast<std::size_t>(p - start)};
  if (p < end) ++p;
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tessarel;
  const std::uint8_t* p = data;
  const std::uint8_t* end = data + size;
  auto manifest = part(p, end);
  auto crt = part(p, end);
  auto key = part(p, end);
  std::string dir = folder();
  std::string name = BinaryToString(crypto::sha1(Bytes(crt.first, crt.first + crt.second)));
  std::string text(reinterpret_cast<const char*>(manifest.first), manifest.second);
  text += "\n" + name + "\n";
  put(dir + "/manifest", reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  put(dir + "/" + name + ".crt", crt.first, crt.second);
  put(dir + "/" + name + ".key", key.first, key.second);
  try {
    FileCertStore store(dir);
    for (const auto& c : store.certificates()) {
      store.has_private_key(c);
      store.key_valid(c);
      store.signing_key(c);
    }
    store.change_stamp();
  } catch (const Exception&) {
  }
  ::unlink((dir + "/" + name + ".crt").c_str());
  ::unlink((dir + "/" + name + ".key").c_str());
  return 0;
}
