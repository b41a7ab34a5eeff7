#include "platform/crypto/pkcs12.h"

#include <openssl/err.h>
#include <openssl/pkcs12.h>
#include <openssl/provider.h>

#include <memory>
#include <utility>
#include <vector>

#include "platform/crypto/x509.h"
#include "tessarel/errors.h"

namespace tessarel::crypto {

Bytes write_pkcs12(const Certificate& cert, const PrivateKey& key, const std::string& password,
                   const std::string& friendly_name) {
  if (!key.matches(cert)) throw Exception("The private key does not belong to the certificate");
  PKCS12* p12 =
      PKCS12_create(password.c_str(), friendly_name.empty() ? nullptr : friendly_name.c_str(),
                    key.get(), x509_of(cert), nullptr, 0, 0, 0, 0, 0);
  if (!p12) throw_openssl("Cannot create PKCS#12");
  Pkcs12Ptr holder(p12);
  int len = i2d_PKCS12(p12, nullptr);
  if (len <= 0) throw_openssl("Cannot encode PKCS#12");
  Bytes out(static_cast<std::size_t>(len));
  unsigned char* p = out.data();
  i2d_PKCS12(p12, &p);
  return out;
}

namespace {
// PFX files from older systems use RC2 or 3DES under SHA-1 PBE, which live in OpenSSL's
// legacy provider. It is loaded into a library context of our own, used only to read such
// files, so the host's default context (and its algorithm policy) stays as it was.
OSSL_LIB_CTX* legacy_context() {
  static OSSL_LIB_CTX* const ctx = [] {
    OSSL_LIB_CTX* c = OSSL_LIB_CTX_new();
    if (c && (!OSSL_PROVIDER_load(c, "default") || !OSSL_PROVIDER_load(c, "legacy"))) {
      OSSL_LIB_CTX_free(c);
      c = nullptr;
    }
    ERR_clear_error();
    return c;
  }();
  return ctx;
}

bool parse(PKCS12* p12, const std::string& password, EVP_PKEY** key, X509** cert,
           STACK_OF(X509) * *ca) {
  return PKCS12_parse(p12, password.c_str(), key, cert, ca) == 1;
}

using SafeBags = std::unique_ptr<STACK_OF(PKCS12_SAFEBAG), void (*)(STACK_OF(PKCS12_SAFEBAG)*)>;
void free_bags(STACK_OF(PKCS12_SAFEBAG) * b) {
  sk_PKCS12_SAFEBAG_pop_free(b, PKCS12_SAFEBAG_free);
}

// The bags of one authenticated safe, decrypted in ctx when they are encrypted.
SafeBags bags_of(PKCS7* p7, const char* pass, OSSL_LIB_CTX* ctx) {
  STACK_OF(PKCS12_SAFEBAG)* bags = nullptr;
  switch (OBJ_obj2nid(p7->type)) {
    case NID_pkcs7_data:
      bags = PKCS12_unpack_p7data(p7);
      break;
    case NID_pkcs7_encrypted:
      if (p7->d.encrypted && p7->d.encrypted->enc_data)
        bags = static_cast<STACK_OF(PKCS12_SAFEBAG)*>(PKCS12_item_decrypt_d2i_ex(
            p7->d.encrypted->enc_data->algorithm, ASN1_ITEM_rptr(PKCS12_SAFEBAGS), pass, -1,
            p7->d.encrypted->enc_data->enc_data, 1, ctx, nullptr));
      break;
    default:
      break;
  }
  return SafeBags(bags, free_bags);
}

// PKCS12_parse with the decryption done in ctx: the key and the certificates of the file
// (the certificate that matches the key first).
bool parse_in(OSSL_LIB_CTX* ctx, PKCS12* p12, const char* pass, EVP_PKEY** key, X509** cert,
              STACK_OF(X509) * *ca) {
  STACK_OF(PKCS7)* safes = PKCS12_unpack_authsafes(p12);
  if (!safes) return false;
  std::vector<X509*> certs;
  for (int i = 0; i < sk_PKCS7_num(safes); ++i) {
    SafeBags bags = bags_of(sk_PKCS7_value(safes, i), pass, ctx);
    for (int k = 0; bags && k < sk_PKCS12_SAFEBAG_num(bags.get()); ++k) {
      const PKCS12_SAFEBAG* bag = sk_PKCS12_SAFEBAG_value(bags.get(), k);
      PKCS8_PRIV_KEY_INFO* p8 = nullptr;
      switch (PKCS12_SAFEBAG_get_nid(bag)) {
        case NID_keyBag:
          if (!*key) *key = EVP_PKCS82PKEY(PKCS12_SAFEBAG_get0_p8inf(bag));
          break;
        case NID_pkcs8ShroudedKeyBag:
          p8 = PKCS12_decrypt_skey_ex(bag, pass, -1, ctx, nullptr);
          if (p8 && !*key) *key = EVP_PKCS82PKEY(p8);
          PKCS8_PRIV_KEY_INFO_free(p8);
          break;
        case NID_certBag:
          if (X509* x = PKCS12_SAFEBAG_get1_cert(bag)) certs.push_back(x);
          break;
        default:
          break;
      }
    }
  }
  sk_PKCS7_pop_free(safes, PKCS7_free);
  for (X509*& x : certs)
    if (!*cert && *key && X509_check_private_key(x, *key) == 1) std::swap(x, certs.front());
  if (!certs.empty()) *cert = certs.front();
  *ca = sk_X509_new_null();
  for (std::size_t i = 1; i < certs.size(); ++i)
    sk_X509_push(*ca, certs[i]);
  return *key != nullptr || *cert != nullptr;
}
}  // namespace

Pkcs12Contents read_pkcs12(const Bytes& pfx, const std::string& password) {
  const unsigned char* p = pfx.data();
  PKCS12* p12 = d2i_PKCS12(nullptr, &p, static_cast<long>(pfx.size()));
  if (!p12) {
    openssl_errors();
    throw Exception("Not a PKCS#12 (PFX) file");
  }
  Pkcs12Ptr holder(p12);
  // The MAC check tells a wrong password from an unreadable file.
  if (PKCS12_mac_present(p12) && !PKCS12_verify_mac(p12, password.c_str(), -1) &&
      !(password.empty() && PKCS12_verify_mac(p12, nullptr, 0))) {
    openssl_errors();
    throw Exception("Wrong password for the PKCS#12 (PFX) file");
  }
  EVP_PKEY* key = nullptr;
  X509* cert = nullptr;
  STACK_OF(X509)* ca = nullptr;
  if (!parse(p12, password, &key, &cert, &ca)) {
    openssl_errors();
    OSSL_LIB_CTX* ctx = legacy_context();
    bool ok = ctx && parse_in(ctx, p12, password.c_str(), &key, &cert, &ca);
    // An empty password may also be stored as no password at all.
    if (!ok && ctx && password.empty()) {
      EVP_PKEY_free(std::exchange(key, nullptr));
      X509_free(std::exchange(cert, nullptr));
      sk_X509_pop_free(std::exchange(ca, nullptr), X509_free);
      ok = parse_in(ctx, p12, nullptr, &key, &cert, &ca);
    }
    if (!ok) {
      EVP_PKEY_free(key);
      X509_free(cert);
      sk_X509_pop_free(ca, X509_free);
      throw_openssl("Cannot read the PKCS#12 (PFX) file");
    }
  }
  EvpPkeyPtr key_holder(key);
  X509Ptr cert_holder(cert);
  std::vector<Certificate> chain;
  for (int i = 0; ca && i < sk_X509_num(ca); ++i)
    chain.push_back(certificate_from_x509(sk_X509_value(ca, i)));
  sk_X509_pop_free(ca, X509_free);
  if (!cert) throw Exception("The PKCS#12 (PFX) file holds no certificate");
  if (!key) throw Exception("The PKCS#12 (PFX) file holds no private key");
  Pkcs12Contents out{certificate_from_x509(cert), PrivateKey(std::move(key_holder)),
                     std::move(chain)};
  if (!out.key.matches(out.certificate))
    throw Exception("The private key in the PKCS#12 (PFX) file does not belong to its certificate");
  return out;
}

}  // namespace tessarel::crypto
