// Key-pair generation and message signing for certificate generation. Generation can be
// cancelled from another thread: OpenSSL's generation callback looks at the flag.
#pragma once

#include <atomic>
#include <string>

#include "platform/crypto/openssl.h"
#include "platform/crypto/pkey.h"
#include "tessarel/errors.h"
#include "tessarel/types.h"

namespace tessarel::crypto {

// Raised when a generation was stopped through its cancellation flag.
class GenerationCancelled : public Exception {
 public:
  GenerationCancelled() : Exception("Key generation cancelled") {}
};

struct PssParams {
  DigestAlgorithm hash = DigestAlgorithm::SHA1;
  DigestAlgorithm mgf1_hash = DigestAlgorithm::SHA1;
  int salt_length = 20;
  int trailer_field = 1;
};

PrivateKey generate_rsa(int bits, const std::atomic<bool>* cancel = nullptr);
// An RSA key restricted to RSASSA-PSS with the given parameters.
PrivateKey generate_rsa_pss(int bits, const PssParams& params,
                            const std::atomic<bool>* cancel = nullptr);
PrivateKey generate_dsa(int bits, const std::atomic<bool>* cancel = nullptr);
// curve: an OpenSSL group name ("prime256v1", "secp384r1", ...).
PrivateKey generate_ec(const std::string& curve, const std::atomic<bool>* cancel = nullptr);
// True when the installed OpenSSL offers an algorithm by that name (e.g. a GOST key type).
bool key_type_available(const std::string& name);

// Signs a whole message (the digest is computed here). RSA: PKCS#1 v1.5, or RSASSA-PSS when
// pss is given; DSA/ECDSA: DER signature.
Bytes sign_message(const PrivateKey& key, DigestAlgorithm alg, const Bytes& message,
                   const PssParams* pss = nullptr);
// Verifies a whole message the same way.
bool verify_message(EVP_PKEY* key, DigestAlgorithm alg, const Bytes& message,
                    const Bytes& signature, const PssParams* pss = nullptr);

// Raw public parts for encoding a SubjectPublicKeyInfo of our own.
Bytes rsa_public_key_pkcs1(const PrivateKey& key);  // RSAPublicKey DER
Bytes ec_public_point(const PrivateKey& key);       // uncompressed point
std::string ec_curve_name(const PrivateKey& key);
Bytes bn_of(const PrivateKey& key, const char* param);  // big-endian magnitude
// A DSA key's public value and domain parameters, big-endian magnitudes.
struct DsaNumbers {
  Bytes y, p, q, g;
};
DsaNumbers dsa_numbers(const PrivateKey& key);

}  // namespace tessarel::crypto
