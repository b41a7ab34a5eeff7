// Selection of the personal store for the process.
#include <cstdlib>
#include <mutex>

#include "boundary/cert_lookup.h"
#include "platform/crypto/pkcs12.h"
#include "platform/store/file_store.h"
#include "platform/store/token_store.h"
#include "tessarel/errors.h"
#include "tessarel/store.h"

namespace tessarel {

namespace {
std::mutex& location_mutex() {
  static std::mutex m;
  return m;
}
std::string& selected_location() {
  static std::string s;
  return s;
}
}  // namespace

std::string default_store_location() {
  if (const char* s = std::getenv("TESSAREL_STORE"); s && *s) return s;
  if (const char* x = std::getenv("XDG_DATA_HOME"); x && *x) return std::string(x) + "/tessarel/MY";
  const char* home = std::getenv("HOME");
  return std::string(home && *home ? home : ".") + "/.local/share/tessarel/MY";
}

void set_store_location(const std::string& location) {
  {
    std::lock_guard lock(location_mutex());
    selected_location() = location;
  }
  ResetSharedCertStorage();
}

std::string store_location() {
  std::lock_guard lock(location_mutex());
  return selected_location().empty() ? default_store_location() : selected_location();
}

std::shared_ptr<CertStore> open_store(const std::string& location) {
  if (p11::Pkcs11Uri::is_uri(location)) return std::make_shared<TokenCertStore>(location);
  return std::make_shared<FileCertStore>(location);
}

std::shared_ptr<CertStore> personal_store() {
  return open_store(store_location());
}

Certificate import_pkcs12(CertStore& store, const Bytes& pfx, const std::string& password) {
  crypto::Pkcs12Contents contents = crypto::read_pkcs12(pfx, password);
  Bytes key = contents.key.to_pkcs8_der();
  try {
    store.add(contents.certificate, key);
  } catch (...) {
    wipe(key);
    throw;
  }
  wipe(key);
  return contents.certificate;
}

}  // namespace tessarel
