// Finding certificates of the personal store by identifier.
//
// idCert is the certificate's serial number as upper-case hexadecimal (Certificate::id()),
// compared exactly: an identifier in lower case matches nothing.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tessarel/certificate.h"
#include "tessarel/store.h"

namespace tessarel {

// The process-wide snapshot of the personal store used by the signing routines. It is read
// on first use and read again while it holds no certificate, when the store changed since
// it was read (a certificate added by the wizard, an import, another process), and when
// another store is selected with set_store_location.
class SharedCertStorage {
 public:
  SharedCertStorage();
  int Count() const { return static_cast<int>(certificates_.size()); }
  const Certificate& Certificates(int i) const {
    return certificates_.at(static_cast<std::size_t>(i));
  }
  CertStore& store() const { return *store_; }
  // The store's change stamp when the snapshot was read.
  const std::string& stamp() const { return stamp_; }
  // The signing key of one of its certificates, read from the store once and kept.
  std::shared_ptr<SigningKey> key(const Certificate& cert);

 private:
  std::shared_ptr<CertStore> store_;
  std::string stamp_;
  std::vector<Certificate> certificates_;
  std::vector<std::pair<Bytes, std::shared_ptr<SigningKey>>> keys_;
};

// The current shared snapshot, or null when none exists (before the first lookup).
SharedCertStorage* CurrentSharedCertStorage();
// Forgets the snapshot; the next lookup reads the store again.
void ResetSharedCertStorage();

// The certificate with that identifier (an empty identifier: the first of the store), or
// null. The certificate belongs to the shared snapshot; use it until the next call.
const Certificate* TrovaCertificato(const std::string& idCert);
// True only when the certificate exists and its key is present, readable and matching.
bool ChiaveValida(const std::string& idCert);
// The signing key of a certificate found by TrovaCertificato (null when unusable).
std::shared_ptr<SigningKey> ChiaveDiFirma(const Certificate& cert);

}  // namespace tessarel
