// Message digests by the library's algorithm identifiers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/crypto/openssl.h"
#include "tessarel/types.h"

namespace tessarel::crypto {

// The OpenSSL digest for an identifier; throws for Unknown or an unavailable digest.
const EVP_MD* evp_md(DigestAlgorithm alg);
std::size_t digest_size(DigestAlgorithm alg);
// Dotted OID of the digest ("2.16.840.1.101.3.4.2.1" for SHA-256).
std::string digest_oid(DigestAlgorithm alg);
// Identifier for a dotted OID; Unknown when the OID names no digest this library has.
DigestAlgorithm digest_from_oid(const std::string& dotted);
// Readable name: "SHA-256".
std::string digest_name(DigestAlgorithm alg);

class Hasher {
 public:
  explicit Hasher(DigestAlgorithm alg);
  void update(const void* data, std::size_t n);
  void update(const Bytes& data) { update(data.data(), data.size()); }
  // The digest; the hasher can be reset and reused afterwards.
  Bytes finish();
  void reset();
  DigestAlgorithm algorithm() const { return alg_; }

 private:
  DigestAlgorithm alg_;
  EvpMdCtxPtr ctx_;
};

Bytes digest(DigestAlgorithm alg, const void* data, std::size_t n);
inline Bytes digest(DigestAlgorithm alg, const Bytes& data) {
  return digest(alg, data.data(), data.size());
}
inline Bytes sha256(const Bytes& data) {
  return digest(DigestAlgorithm::SHA256, data);
}
inline Bytes sha1(const Bytes& data) {
  return digest(DigestAlgorithm::SHA1, data);
}

Bytes random_bytes(std::size_t n);

// Base64 without line breaks; decoding skips white space and raises on anything else.
std::string base64_encode(const Bytes& data);
Bytes base64_decode(const std::string& text);

}  // namespace tessarel::crypto
