#include "test_support.h"

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

#include "boundary/cert_lookup.h"
#include "platform/crypto/openssl.h"
#include "platform/crypto/x509.h"
#include "tessarel/store.h"
#include "tessarel/ui.h"

namespace tessarel::test {

Bytes without_signing_time(Bytes b) {
  const Bytes time_attr = {0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D,
                           0x01, 0x09, 0x05, 0x31, 0x11, 0x18, 0x0F};
  auto at = std::search(b.begin(), b.end(), time_attr.begin(), time_attr.end());
  EXPECT_NE(at, b.end()) << "no generalized signing time";
  if (at != b.end() && b.end() - at >= static_cast<long>(time_attr.size()) + 15)
    std::fill_n(at + static_cast<long>(time_attr.size()), 15, 0);
  if (b.size() > 256) std::fill(b.end() - 256, b.end(), 0);
  return b;
}

namespace {
crypto::EvpPkeyPtr generate_key(const CertParams& params) {
  EVP_PKEY* key = nullptr;
  switch (params.kind) {
    case KeyKind::Rsa:
      key = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(params.bits));
      break;
    case KeyKind::Ec:
      key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC",
                              !params.curve.empty() ? params.curve.c_str()
                              : params.bits > 256   ? "P-384"
                                                    : "P-256");
      break;
    case KeyKind::Ed25519:
      key = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
      break;
    case KeyKind::Ed448:
      key = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED448");
      break;
    case KeyKind::Dsa: {
      crypto::EvpPkeyCtxPtr pctx(EVP_PKEY_CTX_new_from_name(nullptr, "DSA", nullptr));
      EVP_PKEY* domain = nullptr;
      EVP_PKEY_paramgen_init(pctx.get());
      EVP_PKEY_CTX_set_dsa_paramgen_bits(pctx.get(), params.bits);
      EVP_PKEY_paramgen(pctx.get(), &domain);
      crypto::EvpPkeyPtr p(domain);
      crypto::EvpPkeyCtxPtr kctx(EVP_PKEY_CTX_new_from_pkey(nullptr, domain, nullptr));
      EVP_PKEY_keygen_init(kctx.get());
      EVP_PKEY_keygen(kctx.get(), &key);
      break;
    }
    default:
      throw std::runtime_error("make_cert: unsupported key kind");
  }
  if (!key) throw std::runtime_error("make_cert: key generation failed");
  return crypto::EvpPkeyPtr(key);
}

void add_ext(X509* cert, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str());
  if (!ext) throw std::runtime_error("make_cert: bad extension " + value);
  X509_add_ext(cert, ext, -1);
  X509_EXTENSION_free(ext);
}
}  // namespace

TestCert make_cert(const CertParams& params, const TestCert* issuer) {
  crypto::EvpPkeyPtr key = generate_key(params);
  crypto::X509Ptr x(X509_new());
  X509_set_version(x.get(), 2);
  Bytes serial = params.serial;
  if (serial.empty()) {
    serial.resize(16);
    RAND_bytes(serial.data(), 16);
    serial[0] &= 0x7F;
    if (serial[0] == 0) serial[0] = 0x11;
  }
  // Set the INTEGER content octets exactly (a leading 00 stays).
  ASN1_INTEGER* sn = ASN1_INTEGER_new();
  ASN1_STRING_set(sn, serial.data(), static_cast<int>(serial.size()));
  if (!serial.empty() && serial[0] & 0x80) sn->type = V_ASN1_NEG_INTEGER;
  // OpenSSL stores the magnitude; re-encode from the bytes we were given.
  {
    std::vector<unsigned char> der;
    der.push_back(0x02);
    der.push_back(static_cast<unsigned char>(serial.size()));
    der.insert(der.end(), serial.begin(), serial.end());
    const unsigned char* p = der.data();
    ASN1_INTEGER* parsed = d2i_ASN1_INTEGER(nullptr, &p, static_cast<long>(der.size()));
    if (parsed) {
      ASN1_INTEGER_free(sn);
      sn = parsed;
    }
  }
  X509_set_serialNumber(x.get(), sn);
  ASN1_INTEGER_free(sn);
  X509_gmtime_adj(X509_getm_notBefore(x.get()),
                  static_cast<long>(params.not_before_offset_days) * 86400);
  X509_gmtime_adj(X509_getm_notAfter(x.get()), static_cast<long>(params.days) * 86400);
  X509_set_pubkey(x.get(), key.get());
  X509_NAME* name = X509_get_subject_name(x.get());
  if (!params.country.empty())
    X509_NAME_add_entry_by_txt(name, "C", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(params.country.c_str()), -1,
                               -1, 0);
  if (!params.org.empty())
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(params.org.c_str()), -1, -1,
                               0);
  if (!params.cn.empty())
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(params.cn.c_str()), -1, -1,
                               0);
  if (!params.email.empty())
    X509_NAME_add_entry_by_txt(name, "emailAddress", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(params.email.c_str()), -1, -1,
                               0);
  for (const auto& e : params.raw_subject)
    X509_NAME_add_entry_by_txt(name, e.field.c_str(), e.type,
                               reinterpret_cast<const unsigned char*>(e.bytes.data()),
                               static_cast<int>(e.bytes.size()), -1, 0);
  X509* issuer_x = issuer ? crypto::x509_of(issuer->cert) : x.get();
  X509_set_issuer_name(x.get(), X509_get_subject_name(issuer_x));
  if (params.ca) add_ext(x.get(), issuer_x, NID_basic_constraints, "critical,CA:TRUE");
  if (params.key_usage) {
    static const char* names[] = {"digitalSignature", "nonRepudiation", "keyEncipherment",
                                  "dataEncipherment", "keyAgreement",   "keyCertSign",
                                  "cRLSign",          "encipherOnly",   "decipherOnly"};
    std::string v;
    for (int i = 0; i < 9; ++i)
      if (*params.key_usage & (1u << i)) v += std::string(v.empty() ? "" : ",") + names[i];
    if (!v.empty()) add_ext(x.get(), issuer_x, NID_key_usage, "critical," + v);
  }
  EVP_PKEY* signer = issuer ? issuer->key.get() : key.get();
  KeyKind signer_kind = crypto::key_kind(signer);
  const EVP_MD* md =
      signer_kind == KeyKind::Ed25519 || signer_kind == KeyKind::Ed448 ? nullptr : EVP_sha256();
  if (!X509_sign(x.get(), signer, md)) throw std::runtime_error("make_cert: signing failed");
  return TestCert{crypto::certificate_from_x509(x.get()), crypto::PrivateKey(std::move(key))};
}

std::string write_pem(const Certificate& cert, const std::string& path) {
  write_file(path, cert.pem());
  return path;
}

std::string write_key_pem(const crypto::PrivateKey& key, const std::string& path) {
  crypto::BioPtr bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_PrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  char* data = nullptr;
  long n = BIO_get_mem_data(bio.get(), &data);
  write_file(path, std::string(data, static_cast<std::size_t>(n)));
  return path;
}

ScopedStore::ScopedStore() : path_(dir_.path() + "/MY") {
  set_store_location(path_);
}

ScopedStore::~ScopedStore() {
  set_store_location("");
}

void ScopedStore::add(const TestCert& tc, bool with_key) {
  Bytes key = with_key ? tc.pkcs8() : Bytes{};
  open_store(path_)->add(tc.cert, key);
  ResetSharedCertStorage();
}

ScopedUi::ScopedUi(std::shared_ptr<Ui> ui) {
  setUi(std::move(ui));
}
ScopedUi::~ScopedUi() {
  setUi(nullptr);
}

std::string cli_path() {
  // Another build of the program can be put under the same tests (an older one, say).
  if (const char* other = std::getenv("TESSAREL_TEST_CLI"); other && *other) return other;
  return TESSAREL_CLI_PATH;
}

}  // namespace tessarel::test
