#include "platform/crypto/pkey.h"

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/rsa.h>

#include "platform/crypto/digest.h"
#include "platform/crypto/x509.h"
#include "tessarel/errors.h"

namespace tessarel::crypto {

KeyKind key_kind(const EVP_PKEY* key) {
  if (!key) return KeyKind::Unknown;
  switch (EVP_PKEY_get_base_id(key)) {
    case EVP_PKEY_RSA:
      return KeyKind::Rsa;
    case EVP_PKEY_RSA_PSS:
      return KeyKind::RsaPss;
    case EVP_PKEY_DSA:
      return KeyKind::Dsa;
    case EVP_PKEY_EC:
      return KeyKind::Ec;
    case EVP_PKEY_ED25519:
      return KeyKind::Ed25519;
    case EVP_PKEY_ED448:
      return KeyKind::Ed448;
    default:
      return KeyKind::Unknown;
  }
}

namespace {
EvpPkeyPtr certificate_public_key(const Certificate& cert) {
  EVP_PKEY* key = X509_get_pubkey(x509_of(cert));
  if (!key) throw_openssl("Cannot read the certificate's public key");
  return EvpPkeyPtr(key);
}

Bytes spki_of(EVP_PKEY* key) {
  int len = i2d_PUBKEY(key, nullptr);
  if (len <= 0) throw_openssl("Cannot encode public key");
  Bytes out(static_cast<std::size_t>(len));
  unsigned char* p = out.data();
  i2d_PUBKEY(key, &p);
  return out;
}

EvpPkeyCtxPtr new_ctx(EVP_PKEY* key) {
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
  if (!ctx) throw_openssl("Cannot create key context");
  return ctx;
}

void configure(EVP_PKEY_CTX* ctx, EVP_PKEY* key, DigestAlgorithm alg, bool pss,
               DigestAlgorithm mgf_alg, int salt_len) {
  KeyKind kind = key_kind(key);
  if (kind == KeyKind::Rsa || kind == KeyKind::RsaPss) {
    int padding = (pss || kind == KeyKind::RsaPss) ? RSA_PKCS1_PSS_PADDING : RSA_PKCS1_PADDING;
    if (EVP_PKEY_CTX_set_rsa_padding(ctx, padding) <= 0) throw_openssl("Cannot set RSA padding");
    if (padding == RSA_PKCS1_PSS_PADDING) {
      if (EVP_PKEY_CTX_set_rsa_pss_saltlen(ctx, salt_len < 0 ? RSA_PSS_SALTLEN_DIGEST : salt_len) <=
              0 ||
          EVP_PKEY_CTX_set_rsa_mgf1_md(ctx, evp_md(mgf_alg)) <= 0)
        throw_openssl("Cannot set RSA-PSS parameters");
    }
  }
  if (EVP_PKEY_CTX_set_signature_md(ctx, evp_md(alg)) <= 0)
    throw_openssl("Digest algorithm " + digest_name(alg) + " not usable with this key");
}
}  // namespace

PublicKey PublicKey::from_certificate(const Certificate& cert) {
  return PublicKey(certificate_public_key(cert));
}

int PublicKey::bits() const {
  return EVP_PKEY_get_bits(key_.get());
}

Bytes PublicKey::spki_der() const {
  return spki_of(key_.get());
}

namespace {
bool verify_with(EVP_PKEY* key, DigestAlgorithm alg, const Bytes& digest, const Bytes& signature,
                 bool pss, DigestAlgorithm mgf_alg, int salt_len) {
  auto ctx = new_ctx(key);
  if (EVP_PKEY_verify_init(ctx.get()) <= 0) throw_openssl("Cannot start verification");
  configure(ctx.get(), key, alg, pss, mgf_alg, salt_len);
  int rc =
      EVP_PKEY_verify(ctx.get(), signature.data(), signature.size(), digest.data(), digest.size());
  openssl_errors();  // a failed verification leaves reasons in the queue
  return rc == 1;
}

Bytes sign_with(EVP_PKEY* key, DigestAlgorithm alg, const Bytes& digest, bool pss,
                DigestAlgorithm mgf_alg, int salt_len) {
  auto ctx = new_ctx(key);
  if (EVP_PKEY_sign_init(ctx.get()) <= 0) throw_openssl("Cannot start signing");
  configure(ctx.get(), key, alg, pss, mgf_alg, salt_len);
  std::size_t len = 0;
  if (EVP_PKEY_sign(ctx.get(), nullptr, &len, digest.data(), digest.size()) <= 0)
    throw_openssl("Signing failed");
  Bytes sig(len);
  if (EVP_PKEY_sign(ctx.get(), sig.data(), &len, digest.data(), digest.size()) <= 0)
    throw_openssl("Signing failed");
  sig.resize(len);
  return sig;
}
}  // namespace

bool PublicKey::verify_digest(DigestAlgorithm alg, const Bytes& digest,
                              const Bytes& signature) const {
  return verify_with(key_.get(), alg, digest, signature, false, alg, -1);
}

bool PublicKey::verify_eddsa(const Bytes& message, const Bytes& signature) const {
  EvpMdCtxPtr md(EVP_MD_CTX_new());
  if (!md || EVP_DigestVerifyInit_ex(md.get(), nullptr, nullptr, nullptr, nullptr, key_.get(),
                                     nullptr) <= 0)
    throw_openssl("Cannot verify with this key");
  int rc = EVP_DigestVerify(md.get(), signature.data(), signature.size(), message.data(),
                            message.size());
  openssl_errors();
  return rc == 1;
}

bool PublicKey::verify_digest_pss(DigestAlgorithm alg, const Bytes& digest, const Bytes& signature,
                                  DigestAlgorithm mgf_alg, int salt_len) const {
  return verify_with(key_.get(), alg, digest, signature, true, mgf_alg, salt_len);
}

Bytes PublicKey::bn_param(const char* name) const {
  BIGNUM* bn = nullptr;
  if (EVP_PKEY_get_bn_param(key_.get(), name, &bn) != 1 || !bn) {
    openssl_errors();
    return {};
  }
  Bytes out(static_cast<std::size_t>(BN_num_bytes(bn)));
  BN_bn2bin(bn, out.data());
  BN_free(bn);
  return out;
}

std::size_t PublicKey::dss_half_size() const {
  switch (kind()) {
    case KeyKind::Ec:
      // The bits of an EC key are those of its group order.
      return static_cast<std::size_t>(bits() + 7) / 8;
    case KeyKind::Dsa:
      return dsa_q().size();
    default:
      throw Exception("Not a DSA or ECDSA key");
  }
}

Bytes PublicKey::rsa_modulus() const {
  return bn_param(OSSL_PKEY_PARAM_RSA_N);
}
Bytes PublicKey::rsa_exponent() const {
  return bn_param(OSSL_PKEY_PARAM_RSA_E);
}
Bytes PublicKey::dsa_p() const {
  return bn_param(OSSL_PKEY_PARAM_FFC_P);
}
Bytes PublicKey::dsa_q() const {
  return bn_param(OSSL_PKEY_PARAM_FFC_Q);
}
Bytes PublicKey::dsa_g() const {
  return bn_param(OSSL_PKEY_PARAM_FFC_G);
}
Bytes PublicKey::dsa_y() const {
  return bn_param(OSSL_PKEY_PARAM_PUB_KEY);
}

namespace {
using EcdsaSigPtr = std::unique_ptr<ECDSA_SIG, Deleter<ECDSA_SIG_free>>;
}  // namespace

Bytes dss_signature_to_plain(const Bytes& der, std::size_t half) {
  const unsigned char* p = der.data();
  EcdsaSigPtr sig(d2i_ECDSA_SIG(nullptr, &p, static_cast<long>(der.size())));
  if (!sig || p != der.data() + der.size()) {
    openssl_errors();
    throw Exception("Malformed DSA or ECDSA signature");
  }
  Bytes out(2 * half);
  const BIGNUM *r = nullptr, *s = nullptr;
  ECDSA_SIG_get0(sig.get(), &r, &s);
  if (half == 0 || BN_bn2binpad(r, out.data(), static_cast<int>(half)) < 0 ||
      BN_bn2binpad(s, out.data() + half, static_cast<int>(half)) < 0)
    throw Exception("DSA or ECDSA signature wider than the key's group order");
  return out;
}

Bytes dss_signature_from_plain(const Bytes& plain) {
  if (plain.empty() || plain.size() % 2)
    throw Exception("Malformed DSA or ECDSA signature: " + std::to_string(plain.size()) +
                    " bytes are not two equal halves");
  int half = static_cast<int>(plain.size() / 2);
  EcdsaSigPtr sig(ECDSA_SIG_new());
  BIGNUM* r = BN_bin2bn(plain.data(), half, nullptr);
  BIGNUM* s = BN_bin2bn(plain.data() + half, half, nullptr);
  if (!sig || !r || !s || ECDSA_SIG_set0(sig.get(), r, s) != 1) {
    BN_free(r);
    BN_free(s);
    throw_openssl("Cannot build a DSA or ECDSA signature");
  }
  int len = i2d_ECDSA_SIG(sig.get(), nullptr);
  if (len <= 0) throw_openssl("Cannot encode a DSA or ECDSA signature");
  Bytes out(static_cast<std::size_t>(len));
  unsigned char* p = out.data();
  i2d_ECDSA_SIG(sig.get(), &p);
  return out;
}

PrivateKey PrivateKey::from_pkcs8_der(const Bytes& der) {
  const unsigned char* p = der.data();
  EVP_PKEY* key = d2i_AutoPrivateKey(nullptr, &p, static_cast<long>(der.size()));
  if (!key || p != der.data() + der.size()) {
    EVP_PKEY_free(key);
    throw_openssl("Not a valid private key");
  }
  return PrivateKey(EvpPkeyPtr(key));
}

int PrivateKey::bits() const {
  return EVP_PKEY_get_bits(key_.get());
}

Bytes PrivateKey::to_pkcs8_der() const {
  PKCS8_PRIV_KEY_INFO* info = EVP_PKEY2PKCS8(key_.get());
  if (!info) throw_openssl("Cannot encode private key");
  int len = i2d_PKCS8_PRIV_KEY_INFO(info, nullptr);
  Bytes out(static_cast<std::size_t>(len > 0 ? len : 0));
  unsigned char* p = out.data();
  if (len <= 0 || i2d_PKCS8_PRIV_KEY_INFO(info, &p) != len) {
    PKCS8_PRIV_KEY_INFO_free(info);
    throw_openssl("Cannot encode private key");
  }
  PKCS8_PRIV_KEY_INFO_free(info);
  return out;
}

bool PrivateKey::matches(const Certificate& cert) const {
  auto pub = certificate_public_key(cert);
  int rc = EVP_PKEY_eq(key_.get(), pub.get());
  openssl_errors();
  return rc == 1;
}

Bytes PrivateKey::sign_digest(DigestAlgorithm alg, const Bytes& digest) const {
  return sign_with(key_.get(), alg, digest, false, alg, -1);
}

Bytes PrivateKey::sign_eddsa(const Bytes& message) const {
  EvpMdCtxPtr md(EVP_MD_CTX_new());
  if (!md ||
      EVP_DigestSignInit_ex(md.get(), nullptr, nullptr, nullptr, nullptr, key_.get(), nullptr) <= 0)
    throw_openssl("Cannot sign with this key");
  std::size_t len = 0;
  if (EVP_DigestSign(md.get(), nullptr, &len, message.data(), message.size()) <= 0)
    throw_openssl("Signing failed");
  Bytes sig(len);
  if (EVP_DigestSign(md.get(), sig.data(), &len, message.data(), message.size()) <= 0)
    throw_openssl("Signing failed");
  sig.resize(len);
  return sig;
}

Bytes PrivateKey::sign_digest_pss(DigestAlgorithm alg, const Bytes& digest, DigestAlgorithm mgf_alg,
                                  int salt_len) const {
  return sign_with(key_.get(), alg, digest, true, mgf_alg, salt_len);
}

namespace {
// A secret number: the BIGNUM is cleared as it is freed.
Bytes secret_bn(const PrivateKey& key, const char* name) {
  BIGNUM* bn = nullptr;
  if (EVP_PKEY_get_bn_param(key.get(), name, &bn) != 1 || !bn)
    throw_openssl(std::string("Cannot read the key's ") + name);
  Bytes out(static_cast<std::size_t>(BN_num_bytes(bn)));
  BN_bn2bin(bn, out.data());
  BN_clear_free(bn);
  return out;
}
}  // namespace

void PrivateKeyParts::wipe() noexcept {
  for (Bytes* b : {&n, &e, &d, &p, &q, &dp, &dq, &qinv, &ec_private})
    tessarel::wipe(*b);
}

PrivateKeyParts private_key_parts(const PrivateKey& key) {
  PrivateKeyParts parts;
  parts.kind = key.kind();
  try {
    if (parts.kind == KeyKind::Rsa || parts.kind == KeyKind::RsaPss) {
      parts.n = secret_bn(key, OSSL_PKEY_PARAM_RSA_N);
      parts.e = secret_bn(key, OSSL_PKEY_PARAM_RSA_E);
      parts.d = secret_bn(key, OSSL_PKEY_PARAM_RSA_D);
      parts.p = secret_bn(key, OSSL_PKEY_PARAM_RSA_FACTOR1);
      parts.q = secret_bn(key, OSSL_PKEY_PARAM_RSA_FACTOR2);
      parts.dp = secret_bn(key, OSSL_PKEY_PARAM_RSA_EXPONENT1);
      parts.dq = secret_bn(key, OSSL_PKEY_PARAM_RSA_EXPONENT2);
      parts.qinv = secret_bn(key, OSSL_PKEY_PARAM_RSA_COEFFICIENT1);
    } else if (parts.kind == KeyKind::Ec) {
      parts.ec_private = secret_bn(key, OSSL_PKEY_PARAM_PRIV_KEY);
    } else {
      throw Exception("Only RSA and EC keys can be put on a token");
    }
  } catch (...) {
    parts.wipe();
    throw;
  }
  return parts;
}

}  // namespace tessarel::crypto
