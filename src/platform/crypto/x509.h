// Internal access to the OpenSSL object behind a tessarel::Certificate.
#pragma once

#include "platform/crypto/openssl.h"
#include "tessarel/certificate.h"

namespace tessarel {

struct Certificate::Impl {
  crypto::X509Ptr x509;
  Bytes der;
  Bytes serial;       // INTEGER content octets as encoded
  Bytes issuer_der;   // Name, byte for byte
  Bytes subject_der;  // Name, byte for byte
};

// The library's access to a certificate's parsed form.
struct CertificateAccess {
  using Impl = Certificate::Impl;
  static const Impl& of(const Certificate& cert) { return *cert.impl_; }
};

namespace crypto {
// The certificate's X509 (owned by the certificate; valid while it lives).
X509* x509_of(const Certificate& cert);
// A Certificate sharing (up-referencing) an X509.
Certificate certificate_from_x509(X509* x509);
}  // namespace crypto

}  // namespace tessarel
