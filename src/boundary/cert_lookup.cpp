#include "boundary/cert_lookup.h"

#include <mutex>

#include "tessarel/exports.h"

namespace tessarel {

namespace {
std::mutex& shared_mutex() {
  static std::mutex m;
  return m;
}
std::unique_ptr<SharedCertStorage>& shared_storage() {
  static std::unique_ptr<SharedCertStorage> s;
  return s;
}
}  // namespace

// The stamp is taken before the certificates are read: a change in between makes the next
// lookup read again rather than miss it.
SharedCertStorage::SharedCertStorage()
    : store_(personal_store()), stamp_(store_->change_stamp()), certificates_(store_->certificates()) {}

SharedCertStorage* CurrentSharedCertStorage() {
  std::lock_guard lock(shared_mutex());
  return shared_storage().get();
}

void ResetSharedCertStorage() {
  std::lock_guard lock(shared_mutex());
  shared_storage().reset();
}

const Certificate* TrovaCertificato(const std::string& idCert) {
  std::lock_guard lock(shared_mutex());
  auto& shared = shared_storage();
  if (shared && (shared->Count() == 0 || shared->store().change_stamp() != shared->stamp()))
    shared.reset();
  if (!shared) {
    shared = std::make_unique<SharedCertStorage>();
    if (shared->Count() == 0) return nullptr;
  }
  if (idCert.empty()) return &shared->Certificates(0);
  for (int i = 0; i < shared->Count(); ++i)
    if (shared->Certificates(i).id() == idCert) return &shared->Certificates(i);
  return nullptr;
}

bool ChiaveValida(const std::string& idCert) {
  const Certificate* cert = TrovaCertificato(idCert);
  if (!cert) return false;
  SharedCertStorage* shared = CurrentSharedCertStorage();
  return shared && shared->store().key_valid(*cert);
}

std::shared_ptr<SigningKey> SharedCertStorage::key(const Certificate& cert) {
  Bytes fingerprint = cert.fingerprint(DigestAlgorithm::SHA256);
  for (const auto& [f, k] : keys_)
    if (f == fingerprint) return k;
  std::shared_ptr<SigningKey> k = store_->signing_key(cert);
  if (k) keys_.emplace_back(fingerprint, k);
  return k;
}

std::shared_ptr<SigningKey> ChiaveDiFirma(const Certificate& cert) {
  std::lock_guard lock(shared_mutex());
  auto& shared = shared_storage();
  if (shared) return shared->key(cert);
  return personal_store()->signing_key(cert);
}

}  // namespace tessarel
