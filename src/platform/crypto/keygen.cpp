#include "platform/crypto/keygen.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/rsa.h>

#include "platform/asn1/der.h"
#include "platform/crypto/digest.h"

namespace tessarel::crypto {

namespace {

// OpenSSL calls this during prime search; answering 0 aborts the generation.
int keep_going(EVP_PKEY_CTX* ctx) {
  auto* cancel = static_cast<const std::atomic<bool>*>(EVP_PKEY_CTX_get_app_data(ctx));
  return cancel && cancel->load() ? 0 : 1;
}

void watch(EVP_PKEY_CTX* ctx, const std::atomic<bool>* cancel) {
  if (!cancel) return;
  EVP_PKEY_CTX_set_app_data(ctx, const_cast<std::atomic<bool>*>(cancel));
  EVP_PKEY_CTX_set_cb(ctx, keep_going);
}

[[noreturn]] void fail(const std::string& what, const std::atomic<bool>* cancel) {
  if (cancel && cancel->load()) {
    ERR_clear_error();
    throw GenerationCancelled();
  }
  throw_openssl(what);
}

PrivateKey keygen(EvpPkeyCtxPtr ctx, const std::atomic<bool>* cancel, const std::string& what) {
  EVP_PKEY* key = nullptr;
  watch(ctx.get(), cancel);
  if (EVP_PKEY_keygen(ctx.get(), &key) <= 0 || !key) fail(what, cancel);
  return PrivateKey(EvpPkeyPtr(key));
}

EvpPkeyCtxPtr ctx_by_name(const char* name) {
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, name, nullptr));
  if (!ctx) throw_openssl(std::string("Key type not available: ") + name);
  return ctx;
}

void check_cancel(const std::atomic<bool>* cancel) {
  if (cancel && cancel->load()) throw GenerationCancelled();
}

}  // namespace

PrivateKey generate_rsa(int bits, const std::atomic<bool>* cancel) {
  check_cancel(cancel);
  auto ctx = ctx_by_name("RSA");
  if (EVP_PKEY_keygen_init(ctx.get()) <= 0 ||
      EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), bits) <= 0)
    throw_openssl("Cannot generate an RSA key of " + std::to_string(bits) + " bits");
  return keygen(std::move(ctx), cancel, "RSA key generation failed");
}

PrivateKey generate_rsa_pss(int bits, const PssParams& params, const std::atomic<bool>* cancel) {
  check_cancel(cancel);
  auto ctx = ctx_by_name("RSA-PSS");
  if (EVP_PKEY_keygen_init(ctx.get()) <= 0 ||
      EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), bits) <= 0 ||
      EVP_PKEY_CTX_set_rsa_pss_keygen_md(ctx.get(), evp_md(params.hash)) <= 0 ||
      EVP_PKEY_CTX_set_rsa_pss_keygen_mgf1_md(ctx.get(), evp_md(params.mgf1_hash)) <= 0 ||
      EVP_PKEY_CTX_set_rsa_pss_keygen_saltlen(ctx.get(), params.salt_length) <= 0)
    throw_openssl("Cannot generate an RSA-PSS key of " + std::to_string(bits) + " bits");
  return keygen(std::move(ctx), cancel, "RSA-PSS key generation failed");
}

PrivateKey generate_dsa(int bits, const std::atomic<bool>* cancel) {
  check_cancel(cancel);
  auto pctx = ctx_by_name("DSA");
  EVP_PKEY* params = nullptr;
  watch(pctx.get(), cancel);
  if (EVP_PKEY_paramgen_init(pctx.get()) <= 0 ||
      EVP_PKEY_CTX_set_dsa_paramgen_bits(pctx.get(), bits) <= 0 ||
      EVP_PKEY_paramgen(pctx.get(), &params) <= 0 || !params)
    fail("Cannot generate DSA parameters of " + std::to_string(bits) + " bits", cancel);
  EvpPkeyPtr holder(params);
  EvpPkeyCtxPtr kctx(EVP_PKEY_CTX_new_from_pkey(nullptr, params, nullptr));
  if (!kctx || EVP_PKEY_keygen_init(kctx.get()) <= 0) throw_openssl("DSA key generation failed");
  return keygen(std::move(kctx), cancel, "DSA key generation failed");
}

PrivateKey generate_ec(const std::string& curve, const std::atomic<bool>* cancel) {
  check_cancel(cancel);
  auto ctx = ctx_by_name("EC");
  if (EVP_PKEY_keygen_init(ctx.get()) <= 0 ||
      EVP_PKEY_CTX_set_group_name(ctx.get(), curve.c_str()) <= 0)
    throw_openssl("Cannot generate an EC key on " + curve);
  return keygen(std::move(ctx), cancel, "EC key generation failed");
}

bool key_type_available(const std::string& name) {
  EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_from_name(nullptr, name.c_str(), nullptr);
  ERR_clear_error();
  if (!ctx) return false;
  EVP_PKEY_CTX_free(ctx);
  return true;
}

namespace {
void set_pss(EVP_PKEY_CTX* pctx, const PssParams* pss) {
  if (!pss) return;
  if (EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PSS_PADDING) <= 0 ||
      EVP_PKEY_CTX_set_rsa_mgf1_md(pctx, evp_md(pss->mgf1_hash)) <= 0 ||
      EVP_PKEY_CTX_set_rsa_pss_saltlen(pctx, pss->salt_length) <= 0)
    throw_openssl("Cannot set RSA-PSS parameters");
}
}  // namespace

Bytes sign_message(const PrivateKey& key, DigestAlgorithm alg, const Bytes& message,
                   const PssParams* pss) {
  EvpMdCtxPtr md(EVP_MD_CTX_new());
  EVP_PKEY_CTX* pctx = nullptr;
  if (!md || EVP_DigestSignInit_ex(md.get(), &pctx, EVP_MD_get0_name(evp_md(alg)), nullptr, nullptr,
                                   key.get(), nullptr) <= 0)
    throw_openssl("Cannot sign with " + digest_name(alg) + " and this key");
  set_pss(pctx, pss);
  std::size_t len = 0;
  if (EVP_DigestSign(md.get(), nullptr, &len, message.data(), message.size()) <= 0)
    throw_openssl("Signing failed");
  Bytes sig(len);
  if (EVP_DigestSign(md.get(), sig.data(), &len, message.data(), message.size()) <= 0)
    throw_openssl("Signing failed");
  sig.resize(len);
  return sig;
}

bool verify_message(EVP_PKEY* key, DigestAlgorithm alg, const Bytes& message,
                    const Bytes& signature, const PssParams* pss) {
  EvpMdCtxPtr md(EVP_MD_CTX_new());
  EVP_PKEY_CTX* pctx = nullptr;
  if (!md || EVP_DigestVerifyInit_ex(md.get(), &pctx, EVP_MD_get0_name(evp_md(alg)), nullptr,
                                     nullptr, key, nullptr) <= 0)
    throw_openssl("Cannot verify with " + digest_name(alg) + " and this key");
  set_pss(pctx, pss);
  int rc = EVP_DigestVerify(md.get(), signature.data(), signature.size(), message.data(),
                            message.size());
  ERR_clear_error();
  return rc == 1;
}

Bytes rsa_public_key_pkcs1(const PrivateKey& key) {
  // RSAPublicKey ::= SEQUENCE { modulus INTEGER, publicExponent INTEGER }, for plain and
  // PSS-restricted RSA keys alike.
  asn1::DerWriter w;
  w.begin(asn1::kSequence)
      .integer_bytes(asn1::unsigned_integer_content(bn_of(key, OSSL_PKEY_PARAM_RSA_N)))
      .integer_bytes(asn1::unsigned_integer_content(bn_of(key, OSSL_PKEY_PARAM_RSA_E)))
      .end();
  return w.finish();
}

Bytes ec_public_point(const PrivateKey& key) {
  std::size_t len = 0;
  if (EVP_PKEY_get_octet_string_param(key.get(), OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY, nullptr, 0,
                                      &len) != 1)
    throw_openssl("Cannot read the EC public point");
  Bytes point(len);
  if (EVP_PKEY_get_octet_string_param(key.get(), OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY, point.data(),
                                      len, &len) != 1)
    throw_openssl("Cannot read the EC public point");
  point.resize(len);
  return point;
}

std::string ec_curve_name(const PrivateKey& key) {
  char name[80];
  std::size_t len = 0;
  if (EVP_PKEY_get_utf8_string_param(key.get(), OSSL_PKEY_PARAM_GROUP_NAME, name, sizeof name,
                                     &len) != 1)
    throw_openssl("Cannot read the EC curve");
  return std::string(name, len);
}

Bytes bn_of(const PrivateKey& key, const char* param) {
  BIGNUM* bn = nullptr;
  if (EVP_PKEY_get_bn_param(key.get(), param, &bn) != 1 || !bn)
    throw_openssl(std::string("Cannot read key parameter ") + param);
  Bytes out(static_cast<std::size_t>(BN_num_bytes(bn)));
  BN_bn2bin(bn, out.data());
  BN_free(bn);
  return out;
}

DsaNumbers dsa_numbers(const PrivateKey& key) {
  return {bn_of(key, OSSL_PKEY_PARAM_PUB_KEY), bn_of(key, OSSL_PKEY_PARAM_FFC_P),
          bn_of(key, OSSL_PKEY_PARAM_FFC_Q), bn_of(key, OSSL_PKEY_PARAM_FFC_G)};
}

}  // namespace tessarel::crypto
