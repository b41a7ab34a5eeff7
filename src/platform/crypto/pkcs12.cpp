#include "platform/crypto/pkcs12.h"

#include <openssl/err.h>
#include <openssl/provider.h>

#include <mutex>

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
// PFX files from older systems use RC2 or 3DES under SHA-1 PBE; those live in OpenSSL's
// legacy provider, loaded only when such a file is met.
bool load_legacy_provider() {
  static std::once_flag once;
  static bool loaded = false;
  std::call_once(once, [] {
    if (!OSSL_PROVIDER_available(nullptr, "default")) OSSL_PROVIDER_load(nullptr, "default");
    loaded = OSSL_PROVIDER_load(nullptr, "legacy") != nullptr;
    ERR_clear_error();
  });
  return loaded;
}

bool parse(PKCS12* p12, const std::string& password, EVP_PKEY** key, X509** cert,
           STACK_OF(X509) * *ca) {
  return PKCS12_parse(p12, password.c_str(), key, cert, ca) == 1;
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
    if (!load_legacy_provider() || !parse(p12, password, &key, &cert, &ca))
      throw_openssl("Cannot read the PKCS#12 (PFX) file");
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
