// Creating self-signed certificates with their private keys into a store, without dialogs.
#ifndef TESSAREL_CERTGEN_H
#define TESSAREL_CERTGEN_H

#include <string>

#include "tessarel/certificate.h"
#include "tessarel/export.h"
#include "tessarel/store.h"
#include "tessarel/types.h"

namespace tessarel {

struct NewCertificateOptions {
  std::string common_name;  // required
  std::string organization;
  std::string organizational_unit;
  std::string country;  // two letters, upper case; empty for none
  std::string locality;
  std::string state;
  std::string email;
  KeyKind key = KeyKind::Rsa;                        // Rsa, RsaPss, Ec or Dsa
  int bits = 0;                                      // 0: 2048 for RSA, RSA-PSS and DSA; 256 for EC
  DigestAlgorithm digest = DigestAlgorithm::SHA256;  // DSA always signs with SHA-1
  int days = 0;                                      // 0: 48 months from today
};

// Checks the options; returns an empty string when they are usable, else what is wrong.
TESSAREL_API std::string CheckNewCertificateOptions(const NewCertificateOptions& options);

// Generates the key pair and the self-signed certificate (key usage: digital signature and
// non-repudiation, plus key encipherment for RSA; subject key identifier) and adds both to
// the store, which holds the entry whole or not at all. Throws tessarel::Exception
// (EElCertificateError for generation failures).
TESSAREL_API Certificate CreateSelfSignedCertificate(const NewCertificateOptions& options,
                                                     CertStore& store);

}  // namespace tessarel

#endif
