#include "tessarel/certificate.h"

#include <openssl/asn1.h>
#include <openssl/bn.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstring>
#include <ctime>

#include "platform/asn1/der.h"
#include "platform/crypto/digest.h"
#include "platform/crypto/pkey.h"
#include "platform/crypto/x509.h"
#include "platform/runtime/hex.h"
#include "platform/runtime/strings.h"
#include "tessarel/errors.h"

namespace tessarel {

namespace {

// Splits the TBSCertificate so that serial, issuer and subject keep their exact bytes.
void split_tbs(const Bytes& der, CertificateAccess::Impl& impl) {
  using asn1::Tlv;
  Tlv cert = asn1::read_tlv(der.data(), der.size());
  if (cert.tag != 0x30) throw Exception("Not a certificate: outer element is not a SEQUENCE");
  Tlv tbs = asn1::read_tlv(cert.content, cert.length);
  if (tbs.tag != 0x30) throw Exception("Not a certificate: TBSCertificate is not a SEQUENCE");
  const std::uint8_t* p = tbs.content;
  std::size_t left = tbs.length;
  auto next = [&](const char* what) {
    Tlv t = asn1::read_tlv(p, left);
    std::size_t used = t.header_length + t.length;
    p += used;
    left -= used;
    if (!t.content) throw Exception(std::string("Not a certificate: missing ") + what);
    return t;
  };
  Tlv first = next("serial number");
  if (first.tag == 0xA0) first = next("serial number");
  if (first.tag != 0x02) throw Exception("Not a certificate: serial number is not an INTEGER");
  impl.serial.assign(first.content, first.content + first.length);
  next("signature algorithm");
  Tlv issuer = next("issuer");
  impl.issuer_der.assign(issuer.content - issuer.header_length, issuer.content + issuer.length);
  next("validity");
  Tlv subject = next("subject");
  impl.subject_der.assign(subject.content - subject.header_length,
                          subject.content + subject.length);
}

std::shared_ptr<CertificateAccess::Impl> make_impl(crypto::X509Ptr x509) {
  auto impl = std::make_shared<CertificateAccess::Impl>();
  int len = i2d_X509(x509.get(), nullptr);
  if (len <= 0) crypto::throw_openssl("Cannot encode certificate");
  impl->der.resize(static_cast<std::size_t>(len));
  unsigned char* p = impl->der.data();
  i2d_X509(x509.get(), &p);
  split_tbs(impl->der, *impl);
  impl->x509 = std::move(x509);
  return impl;
}

std::string obj_text(const ASN1_OBJECT* obj) {
  char buf[128];
  int n = OBJ_obj2txt(buf, sizeof buf, obj, 1);
  return n > 0 ? std::string(buf, static_cast<std::size_t>(std::min<int>(n, sizeof buf - 1))) : "";
}

// A name attribute's value as UTF-8 text, whatever string type holds it. Single-byte
// types (PrintableString, T61String, IA5String...) holding 8-bit bytes are taken as
// Latin-1, unless the bytes already are UTF-8 (as older certificates of ours wrote them).
// Characters that XML cannot carry become U+FFFD, so a name can go into any document.
std::string to_utf8(const ASN1_STRING* s) {
  const unsigned char* p = ASN1_STRING_get0_data(s);
  std::size_t n = static_cast<std::size_t>(ASN1_STRING_length(s));
  std::u32string chars;
  switch (ASN1_STRING_type(s)) {
    case V_ASN1_BMPSTRING:
      for (std::size_t i = 0; i + 1 < n; i += 2) {
        char32_t u = static_cast<char32_t>(p[i] << 8 | p[i + 1]);
        if (u >= 0xD800 && u <= 0xDBFF && i + 3 < n) {
          char32_t low = static_cast<char32_t>(p[i + 2] << 8 | p[i + 3]);
          if (low >= 0xDC00 && low <= 0xDFFF) {
            chars.push_back(0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00));
            i += 2;
            continue;
          }
        }
        chars.push_back(u);
      }
      break;
    case V_ASN1_UNIVERSALSTRING:
      for (std::size_t i = 0; i + 3 < n; i += 4)
        chars.push_back(static_cast<char32_t>(p[i]) << 24 | static_cast<char32_t>(p[i + 1]) << 16 |
                        static_cast<char32_t>(p[i + 2]) << 8 | p[i + 3]);
      break;
    default: {
      std::string_view bytes(reinterpret_cast<const char*>(p), n);
      if (!decode_utf8(bytes, chars)) decode_utf8(latin1_to_utf8(bytes), chars);
    }
  }
  std::string out;
  for (char32_t c : chars)
    append_utf8(out, is_xml_char(c) && (c >= 0x20 || c == 0x9) ? c : 0xFFFD);
  return out;
}

std::string obj_short_name(const ASN1_OBJECT* obj) {
  int nid = OBJ_obj2nid(obj);
  const char* sn = nid == NID_undef ? nullptr : OBJ_nid2sn(nid);
  return sn ? sn : obj_text(obj);
}

std::vector<NameAttribute> attributes(const X509_NAME* name) {
  std::vector<NameAttribute> out;
  int count = X509_NAME_entry_count(name);
  for (int i = 0; i < count; ++i) {
    const X509_NAME_ENTRY* e = X509_NAME_get_entry(name, i);
    const ASN1_STRING* data = X509_NAME_ENTRY_get_data(e);
    NameAttribute a;
    a.oid = obj_text(X509_NAME_ENTRY_get_object(e));
    a.tag = ASN1_STRING_type(data);
    a.value.assign(reinterpret_cast<const char*>(ASN1_STRING_get0_data(data)),
                   static_cast<std::size_t>(ASN1_STRING_length(data)));
    a.text = to_utf8(data);
    a.rdn = X509_NAME_ENTRY_set(e);
    out.push_back(std::move(a));
  }
  return out;
}

std::vector<std::string> values(const X509_NAME* name, const std::string& oid) {
  std::vector<std::string> out;
  int count = X509_NAME_entry_count(name);
  for (int i = 0; i < count; ++i) {
    const X509_NAME_ENTRY* e = X509_NAME_get_entry(name, i);
    if (obj_text(X509_NAME_ENTRY_get_object(e)) == oid)
      out.push_back(to_utf8(X509_NAME_ENTRY_get_data(e)));
  }
  return out;
}

// RFC 2253 escaping of one value, non-ASCII characters left as they are.
std::string escape_value(const std::string& v) {
  std::string out;
  for (std::size_t i = 0; i < v.size(); ++i) {
    char c = v[i];
    bool special = c == ',' || c == '+' || c == '"' || c == '\\' || c == '<' || c == '>' ||
                   c == ';' || (i == 0 && (c == '#' || c == ' ')) ||
                   (i + 1 == v.size() && c == ' ');
    if (special) out.push_back('\\');
    out.push_back(c);
  }
  return out;
}

// Most significant attribute first ("CN=x, O=y, C=IT"), as RFC 2253 orders a name, in
// UTF-8 whatever string types the certificate uses.
std::string name_text(const X509_NAME* name) {
  std::string out;
  int count = X509_NAME_entry_count(name);
  int previous_set = -1;
  for (int i = count - 1; i >= 0; --i) {
    const X509_NAME_ENTRY* e = X509_NAME_get_entry(name, i);
    int set = X509_NAME_ENTRY_set(e);
    if (!out.empty()) out += set == previous_set ? " + " : ", ";
    previous_set = set;
    out += obj_short_name(X509_NAME_ENTRY_get_object(e)) + "=" +
           escape_value(to_utf8(X509_NAME_ENTRY_get_data(e)));
  }
  return out;
}

std::chrono::sys_seconds asn1_time(const ASN1_TIME* t) {
  std::tm tm{};
  if (!t || ASN1_TIME_to_tm(t, &tm) != 1) return std::chrono::sys_seconds{};
  return std::chrono::sys_seconds{std::chrono::seconds{timegm(&tm)}};
}

}  // namespace

namespace crypto {
X509* x509_of(const Certificate& cert) {
  return CertificateAccess::of(cert).x509.get();
}

Certificate certificate_from_x509(X509* x509) {
  int len = i2d_X509(x509, nullptr);
  if (len <= 0) throw_openssl("Cannot encode certificate");
  Bytes der(static_cast<std::size_t>(len));
  unsigned char* p = der.data();
  i2d_X509(x509, &p);
  return Certificate::from_der(der);
}
}  // namespace crypto

Certificate::Certificate(std::shared_ptr<const Impl> impl) : impl_(std::move(impl)) {}
Certificate::Certificate(const Certificate&) = default;
Certificate& Certificate::operator=(const Certificate&) = default;
Certificate::Certificate(Certificate&&) noexcept = default;
Certificate& Certificate::operator=(Certificate&&) noexcept = default;
Certificate::~Certificate() = default;

Certificate Certificate::from_der(const Bytes& der) {
  const unsigned char* p = der.data();
  X509* x = d2i_X509(nullptr, &p, static_cast<long>(der.size()));
  if (!x) {
    crypto::openssl_errors();
    throw Exception("Not a valid DER certificate");
  }
  crypto::X509Ptr holder(x);
  if (p != der.data() + der.size()) throw Exception("Not a valid DER certificate: trailing data");
  return Certificate(make_impl(std::move(holder)));
}

Certificate Certificate::from_pem(const std::string& pem) {
  crypto::BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  X509* x = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr);
  if (!x) {
    crypto::openssl_errors();
    throw Exception("Not a valid PEM certificate");
  }
  return Certificate(make_impl(crypto::X509Ptr(x)));
}

const Bytes& Certificate::der() const {
  return impl_->der;
}

std::string Certificate::pem() const {
  crypto::BioPtr bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(bio.get(), impl_->x509.get());
  char* data = nullptr;
  long n = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(n));
}

const Bytes& Certificate::serial() const {
  return impl_->serial;
}
std::string Certificate::id() const {
  return BinaryToString(impl_->serial);
}
std::string Certificate::display_serial() const {
  return BeautifyBinaryString(id(), ' ');
}

std::string Certificate::serial_decimal() const {
  const ASN1_INTEGER* s = X509_get0_serialNumber(impl_->x509.get());
  BIGNUM* bn = ASN1_INTEGER_to_BN(s, nullptr);
  if (!bn) crypto::throw_openssl("Cannot read serial number");
  char* dec = BN_bn2dec(bn);
  std::string out = dec ? dec : "";
  OPENSSL_free(dec);
  BN_free(bn);
  return out;
}

int Certificate::version() const {
  return static_cast<int>(X509_get_version(impl_->x509.get())) + 1;
}

std::vector<NameAttribute> Certificate::subject() const {
  return attributes(X509_get_subject_name(impl_->x509.get()));
}
std::vector<NameAttribute> Certificate::issuer() const {
  return attributes(X509_get_issuer_name(impl_->x509.get()));
}
Bytes Certificate::subject_der() const {
  return impl_->subject_der;
}
Bytes Certificate::issuer_der() const {
  return impl_->issuer_der;
}

std::vector<std::string> Certificate::subject_values(const std::string& oid) const {
  return values(X509_get_subject_name(impl_->x509.get()), oid);
}
std::vector<std::string> Certificate::issuer_values(const std::string& oid) const {
  return values(X509_get_issuer_name(impl_->x509.get()), oid);
}

std::string Certificate::subject_cn() const {
  auto v = subject_values(oid::kCommonName);
  return v.empty() ? std::string() : v.front();
}
std::string Certificate::issuer_cn() const {
  auto v = issuer_values(oid::kCommonName);
  return v.empty() ? std::string() : v.front();
}
std::string Certificate::subject_text() const {
  return name_text(X509_get_subject_name(impl_->x509.get()));
}
std::string Certificate::issuer_text() const {
  return name_text(X509_get_issuer_name(impl_->x509.get()));
}

std::chrono::sys_seconds Certificate::not_before() const {
  return asn1_time(X509_get0_notBefore(impl_->x509.get()));
}
std::chrono::sys_seconds Certificate::not_after() const {
  return asn1_time(X509_get0_notAfter(impl_->x509.get()));
}

std::optional<std::uint16_t> Certificate::key_usage() const {
  int crit = 0;
  auto* bits = static_cast<ASN1_BIT_STRING*>(
      X509_get_ext_d2i(impl_->x509.get(), NID_key_usage, &crit, nullptr));
  if (!bits) {
    crypto::openssl_errors();
    return std::nullopt;
  }
  std::uint16_t out = 0;
  for (int i = 0; i <= 8; ++i)
    if (ASN1_BIT_STRING_get_bit(bits, i)) out = static_cast<std::uint16_t>(out | (1u << i));
  ASN1_BIT_STRING_free(bits);
  return out;
}

bool Certificate::has_key_usage(KeyUsageBit bit) const {
  auto ku = key_usage();
  return ku && (*ku & (1u << bit));
}

bool Certificate::is_ca() const {
  return (X509_get_extension_flags(impl_->x509.get()) & EXFLAG_CA) != 0;
}

bool Certificate::self_signed() const {
  int rc = X509_self_signed(impl_->x509.get(), 1);
  crypto::openssl_errors();
  return rc == 1;
}

KeyKind Certificate::key_kind() const {
  return crypto::key_kind(X509_get0_pubkey(impl_->x509.get()));
}

int Certificate::key_bits() const {
  const EVP_PKEY* k = X509_get0_pubkey(impl_->x509.get());
  return k ? EVP_PKEY_get_bits(k) : 0;
}

Bytes Certificate::public_key_der() const {
  return crypto::PublicKey::from_certificate(*this).spki_der();
}

std::string Certificate::signature_algorithm_oid() const {
  const X509_ALGOR* alg = nullptr;
  X509_get0_signature(nullptr, &alg, impl_->x509.get());
  const ASN1_OBJECT* obj = nullptr;
  X509_ALGOR_get0(&obj, nullptr, nullptr, alg);
  return obj_text(obj);
}

Bytes Certificate::subject_key_identifier() const {
  const ASN1_OCTET_STRING* ski = X509_get0_subject_key_id(impl_->x509.get());
  crypto::openssl_errors();
  if (!ski) return {};
  return Bytes(ASN1_STRING_get0_data(ski), ASN1_STRING_get0_data(ski) + ASN1_STRING_length(ski));
}

bool Certificate::same_name(const Bytes& a, const Bytes& b) {
  if (a == b) return true;
  const unsigned char* pa = a.data();
  const unsigned char* pb = b.data();
  X509_NAME* na = d2i_X509_NAME(nullptr, &pa, static_cast<long>(a.size()));
  X509_NAME* nb = d2i_X509_NAME(nullptr, &pb, static_cast<long>(b.size()));
  bool same = na && nb && X509_NAME_cmp(na, nb) == 0;
  X509_NAME_free(na);
  X509_NAME_free(nb);
  crypto::openssl_errors();
  return same;
}

Bytes Certificate::fingerprint(DigestAlgorithm alg) const {
  return crypto::digest(alg, impl_->der);
}

bool Certificate::operator==(const Certificate& other) const {
  return impl_->der == other.impl_->der;
}

}  // namespace tessarel
