// Public and private keys over OpenSSL's EVP_PKEY.
#pragma once

#include <string>

#include "platform/crypto/openssl.h"
#include "tessarel/certificate.h"
#include "tessarel/types.h"

namespace tessarel::crypto {

KeyKind key_kind(const EVP_PKEY* key);

class PublicKey {
 public:
  static PublicKey from_certificate(const Certificate& cert);
  explicit PublicKey(EvpPkeyPtr key) : key_(std::move(key)) {}
  PublicKey(PublicKey&&) noexcept = default;
  PublicKey& operator=(PublicKey&&) noexcept = default;

  EVP_PKEY* get() const { return key_.get(); }
  KeyKind kind() const { return key_kind(key_.get()); }
  int bits() const;
  Bytes spki_der() const;

  // Verifies a signature over a ready digest. RSA: PKCS#1 v1.5; DSA/ECDSA: DER signature.
  bool verify_digest(DigestAlgorithm alg, const Bytes& digest, const Bytes& signature) const;
  // Ed25519 or Ed448 (pure EdDSA) over the whole message.
  bool verify_eddsa(const Bytes& message, const Bytes& signature) const;
  // RSA-PSS over a ready digest, MGF1 with mgf_alg; salt_len -1 means "as long as the digest".
  bool verify_digest_pss(DigestAlgorithm alg, const Bytes& digest, const Bytes& signature,
                         DigestAlgorithm mgf_alg, int salt_len) const;

  // Big-endian magnitudes of the RSA modulus and public exponent.
  Bytes rsa_modulus() const;
  Bytes rsa_exponent() const;
  // Bytes of r and of s in a DSA or ECDSA signature by this key written as r || s: the
  // size of the group order (32 for P-256, 66 for P-521; that of q for DSA).
  std::size_t dss_half_size() const;
  // DSA domain parameters and public value.
  Bytes dsa_p() const;
  Bytes dsa_q() const;
  Bytes dsa_g() const;
  Bytes dsa_y() const;

 private:
  Bytes bn_param(const char* name) const;
  EvpPkeyPtr key_;
};

class PrivateKey {
 public:
  // Parses an unencrypted PKCS#8 PrivateKeyInfo; throws when it is not one.
  static PrivateKey from_pkcs8_der(const Bytes& der);
  explicit PrivateKey(EvpPkeyPtr key) : key_(std::move(key)) {}
  PrivateKey(PrivateKey&&) noexcept = default;
  PrivateKey& operator=(PrivateKey&&) noexcept = default;

  EVP_PKEY* get() const { return key_.get(); }
  KeyKind kind() const { return key_kind(key_.get()); }
  int bits() const;
  // Unencrypted PKCS#8 DER. The caller wipes it when done.
  Bytes to_pkcs8_der() const;
  // True when this key is the private half of the certificate's public key.
  bool matches(const Certificate& cert) const;

  // Signs a ready digest. RSA: PKCS#1 v1.5 DigestInfo; DSA/ECDSA: DER signature.
  Bytes sign_digest(DigestAlgorithm alg, const Bytes& digest) const;
  // Ed25519 or Ed448 (pure EdDSA) over the whole message.
  Bytes sign_eddsa(const Bytes& message) const;
  // RSA-PSS over a ready digest.
  Bytes sign_digest_pss(DigestAlgorithm alg, const Bytes& digest, DigestAlgorithm mgf_alg,
                        int salt_len) const;

 private:
  EvpPkeyPtr key_;
};

// The numbers of an RSA or EC private key, big-endian, for handing the key to a token.
// Everything here is secret: the caller wipes it (wipe()).
struct PrivateKeyParts {
  KeyKind kind = KeyKind::Unknown;
  Bytes n, e, d, p, q, dp, dq, qinv;  // RSA and RSA-PSS
  Bytes ec_private;                   // EC: the private scalar
  void wipe() noexcept;
};
PrivateKeyParts private_key_parts(const PrivateKey& key);

// DSA and ECDSA signatures come in two forms: DER (Dss-Sig-Value: a SEQUENCE of the INTEGERs
// r and s), as CMS and X.509 carry them, and r || s with both numbers as wide as the group
// order, as XML signatures and PKCS#11 tokens carry them. Both throw on a malformed value.
Bytes dss_signature_to_plain(const Bytes& der, std::size_t half);
Bytes dss_signature_from_plain(const Bytes& plain);

}  // namespace tessarel::crypto
