#include "platform/crypto/digest.h"

#include <openssl/err.h>
#include <openssl/rand.h>

#include <array>
#include <mutex>

#include "tessarel/errors.h"

namespace tessarel::crypto {

namespace {
struct DigestInfo {
  DigestAlgorithm alg;
  const char* fetch_name;
  const char* oid;
  const char* display;
};

constexpr std::array<DigestInfo, 13> kDigests{{
    {DigestAlgorithm::MD5, "MD5", "1.2.840.113549.2.5", "MD5"},
    {DigestAlgorithm::SHA1, "SHA1", "1.3.14.3.2.26", "SHA-1"},
    {DigestAlgorithm::SHA224, "SHA224", "2.16.840.1.101.3.4.2.4", "SHA-224"},
    {DigestAlgorithm::SHA256, "SHA256", "2.16.840.1.101.3.4.2.1", "SHA-256"},
    {DigestAlgorithm::SHA384, "SHA384", "2.16.840.1.101.3.4.2.2", "SHA-384"},
    {DigestAlgorithm::SHA512, "SHA512", "2.16.840.1.101.3.4.2.3", "SHA-512"},
    {DigestAlgorithm::RIPEMD160, "RIPEMD160", "1.3.36.3.2.1", "RIPEMD-160"},
    {DigestAlgorithm::SHA3_224, "SHA3-224", "2.16.840.1.101.3.4.2.7", "SHA3-224"},
    {DigestAlgorithm::SHA3_256, "SHA3-256", "2.16.840.1.101.3.4.2.8", "SHA3-256"},
    {DigestAlgorithm::SHA3_384, "SHA3-384", "2.16.840.1.101.3.4.2.9", "SHA3-384"},
    {DigestAlgorithm::SHA3_512, "SHA3-512", "2.16.840.1.101.3.4.2.10", "SHA3-512"},
    {DigestAlgorithm::SHAKE128, "SHAKE128", "2.16.840.1.101.3.4.2.11", "SHAKE128"},
    {DigestAlgorithm::SHAKE256, "SHAKE256", "2.16.840.1.101.3.4.2.12", "SHAKE256"},
}};

// Output length of the extendable-output functions as CMS fixes it; 0 for ordinary digests.
std::size_t xof_length(DigestAlgorithm alg) {
  if (alg == DigestAlgorithm::SHAKE128) return 32;
  if (alg == DigestAlgorithm::SHAKE256) return 64;
  return 0;
}

const DigestInfo* find(DigestAlgorithm alg) {
  for (const auto& d : kDigests)
    if (d.alg == alg) return &d;
  return nullptr;
}
}  // namespace

const EVP_MD* evp_md(DigestAlgorithm alg) {
  // Fetched once: an explicit fetch avoids OpenSSL's per-call implicit lookup.
  static std::array<EVP_MD*, kDigests.size()> cache{};
  static std::once_flag once;
  std::call_once(once, [] {
    for (std::size_t i = 0; i < kDigests.size(); ++i)
      cache[i] = EVP_MD_fetch(nullptr, kDigests[i].fetch_name, nullptr);
    ERR_clear_error();
  });
  for (std::size_t i = 0; i < kDigests.size(); ++i) {
    if (kDigests[i].alg == alg) {
      if (!cache[i])
        throw Exception(std::string("Digest algorithm not available: ") + kDigests[i].display);
      return cache[i];
    }
  }
  throw Exception("Unsupported digest algorithm: " + std::to_string(static_cast<int>(alg)));
}

std::size_t digest_size(DigestAlgorithm alg) {
  if (std::size_t n = xof_length(alg)) return n;
  return static_cast<std::size_t>(EVP_MD_get_size(evp_md(alg)));
}

std::string digest_oid(DigestAlgorithm alg) {
  const DigestInfo* d = find(alg);
  if (!d) throw Exception("Unsupported digest algorithm: " + std::to_string(static_cast<int>(alg)));
  return d->oid;
}

DigestAlgorithm digest_from_oid(const std::string& dotted) {
  for (const auto& d : kDigests)
    if (dotted == d.oid) return d.alg;
  // id-shake256-len and id-shake128-len (RFC 8419): their length parameter is checked by
  // whoever reads the parameters.
  if (dotted == "2.16.840.1.101.3.4.2.18") return DigestAlgorithm::SHAKE256;
  if (dotted == "2.16.840.1.101.3.4.2.17") return DigestAlgorithm::SHAKE128;
  return DigestAlgorithm::Unknown;
}

std::string digest_name(DigestAlgorithm alg) {
  const DigestInfo* d = find(alg);
  return d ? d->display : "unknown";
}

Hasher::Hasher(DigestAlgorithm alg) : alg_(alg), ctx_(EVP_MD_CTX_new()) {
  if (!ctx_) throw_openssl("Cannot create digest context");
  reset();
}

void Hasher::reset() {
  if (EVP_DigestInit_ex2(ctx_.get(), evp_md(alg_), nullptr) != 1)
    throw_openssl("Cannot start digest");
}

void Hasher::update(const void* data, std::size_t n) {
  if (n && EVP_DigestUpdate(ctx_.get(), data, n) != 1) throw_openssl("Digest update failed");
}

Bytes Hasher::finish() {
  if (std::size_t n = xof_length(alg_)) {
    Bytes out(n);
    if (EVP_DigestFinalXOF(ctx_.get(), out.data(), n) != 1) throw_openssl("Digest failed");
    return out;
  }
  Bytes out(EVP_MAX_MD_SIZE);
  unsigned int len = 0;
  if (EVP_DigestFinal_ex(ctx_.get(), out.data(), &len) != 1) throw_openssl("Digest failed");
  out.resize(len);
  return out;
}

Bytes digest(DigestAlgorithm alg, const void* data, std::size_t n) {
  Hasher h(alg);
  h.update(data, n);
  return h.finish();
}

Bytes random_bytes(std::size_t n) {
  Bytes out(n);
  if (n && RAND_bytes(out.data(), static_cast<int>(n)) != 1)
    throw_openssl("Random generator failed");
  return out;
}

std::string base64_encode(const Bytes& data) {
  std::string out(4 * ((data.size() + 2) / 3), '\0');
  int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), data.data(),
                          static_cast<int>(data.size()));
  out.resize(static_cast<std::size_t>(n));
  return out;
}

Bytes base64_decode(const std::string& text) {
  std::string clean;
  clean.reserve(text.size());
  for (char c : text)
    if (c != ' ' && c != '\n' && c != '\r' && c != '\t') clean.push_back(c);
  if (clean.size() % 4) throw Exception("Invalid Base64 text");
  Bytes out(clean.size() / 4 * 3);
  int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(clean.data()),
                          static_cast<int>(clean.size()));
  if (n < 0) throw Exception("Invalid Base64 text");
  std::size_t pad = 0;
  if (!clean.empty() && clean.back() == '=') ++pad;
  if (clean.size() > 1 && clean[clean.size() - 2] == '=') ++pad;
  out.resize(static_cast<std::size_t>(n) - pad);
  return out;
}

}  // namespace tessarel::crypto
