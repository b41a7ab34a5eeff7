// Selection of the personal store for the process; import and export of PKCS#12 files.
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "boundary/cert_lookup.h"
#include "platform/crypto/pkcs12.h"
#include "platform/runtime/files.h"
#include "platform/runtime/scope.h"
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

namespace {
// What an export may not be written over: the store's own files (the certificate's own
// entry among them) and whatever the caller reads.
std::vector<GuardedInput> export_inputs(CertStore& store, const std::vector<GuardedInput>& inputs) {
  std::vector<GuardedInput> out = inputs;
  for (auto& f : store.files())
    out.push_back({f, "a file of the certificate store " + store.location()});
  return out;
}
}  // namespace

void export_pkcs12_file(CertStore& store, const Certificate& cert, const std::string& password,
                        const std::string& output, const std::vector<GuardedInput>& inputs) {
  // Refused before the key is read, so a refusal costs no PIN and touches nothing.
  std::vector<GuardedInput> guarded = export_inputs(store, inputs);
  RefuseOutputOntoInputs(output, guarded);
  Bytes pfx = store.export_pkcs12(cert, password);
  ScopeExit wipe_pfx([&] { wipe(pfx); });
  OutputReplacement writer(output, guarded, 0600);
  writer.write(pfx.data(), pfx.size());
  writer.commit(true);
}

void export_pkcs12_fd(CertStore& store, const Certificate& cert, const std::string& password,
                      int fd, const std::vector<GuardedInput>& inputs) {
  RefuseOutputOntoInputs(fd, "the output", export_inputs(store, inputs));
  Bytes pfx = store.export_pkcs12(cert, password);
  ScopeExit wipe_pfx([&] { wipe(pfx); });
  const std::uint8_t* p = pfx.data();
  for (std::size_t left = pfx.size(); left;) {
    ssize_t w = ::write(fd, p, left);
    if (w < 0 && errno == EINTR) continue;
    if (w < 0)
      throw EInOutError(std::string("I/O error writing the output: ") + std::strerror(errno));
    p += w;
    left -= static_cast<std::size_t>(w);
  }
}

}  // namespace tessarel
