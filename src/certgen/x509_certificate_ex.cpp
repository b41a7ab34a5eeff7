#include "certgen/x509_certificate_ex.h"

#include <algorithm>

#include "platform/asn1/der.h"
#include "platform/crypto/digest.h"
#include "platform/crypto/keygen.h"
#include "tessarel/errors.h"

namespace tessarel {

namespace {

constexpr const char* kSubjectKeyIdentifier = "2.5.29.14";
constexpr const char* kAuthorityKeyIdentifier = "2.5.29.35";

[[noreturn]] void cert_error(int code, const std::string& message) {
  throw EElCertificateError(code, message);
}

// The key kind a signature algorithm pairs with decides which signatures are allowed.
bool is_rsa_signature(CertAlgorithm a) {
  return a != CertAlgorithm::Rsa && GetKeyAlgorithmBySigAlgorithm(a) == CertAlgorithm::Rsa;
}

bool is_ecdsa_signature(CertAlgorithm a) {
  return a != CertAlgorithm::Ec && GetKeyAlgorithmBySigAlgorithm(a) == CertAlgorithm::Ec;
}

bool same_pss(const crypto::PssParams& a, const crypto::PssParams& b) {
  return a.hash == b.hash && a.mgf1_hash == b.mgf1_hash && a.salt_length == b.salt_length &&
         a.trailer_field == b.trailer_field;
}

// Whether a key of the signing-key algorithm can make the signature algorithm.
void check_pairing(const TElAlgorithmIdentifier& key, const TElAlgorithmIdentifier& sig) {
  CertAlgorithm k = key.algorithm(), s = sig.algorithm();
  bool ok = false;
  switch (k) {
    case CertAlgorithm::Rsa:
      ok = is_rsa_signature(s) || s == CertAlgorithm::RsaPss || s == CertAlgorithm::RsaOaep;
      break;
    case CertAlgorithm::RsaPss:
      ok = s == CertAlgorithm::RsaPss && same_pss(key.pss, sig.pss);
      break;
    case CertAlgorithm::RsaOaep:
      ok = s == CertAlgorithm::RsaOaep && same_pss(key.pss, sig.pss);
      break;
    case CertAlgorithm::Dsa:
      ok = s == CertAlgorithm::DsaWithSha1;
      break;
    case CertAlgorithm::Ec:
      ok = is_ecdsa_signature(s);
      break;
    case CertAlgorithm::Gost94:
      ok = s == CertAlgorithm::Gost3411With3410_94;
      break;
    case CertAlgorithm::Gost2001:
      ok = s == CertAlgorithm::Gost3411With3410_2001;
      break;
    default:
      break;
  }
  if (!ok)
    cert_error(kCertErrorCannotPair,
               "A " + AlgorithmName(k) + " key cannot make a " + AlgorithmName(s) + " signature");
}

const char* gost_key_type(CertAlgorithm a) {
  return a == CertAlgorithm::Gost94 ? "gost94" : "gost2001";
}

crypto::PrivateKey generate_key(TElAlgorithmIdentifier& alg, int bits,
                                const std::atomic<bool>* cancel) {
  switch (alg.algorithm()) {
    case CertAlgorithm::Rsa:
    case CertAlgorithm::RsaOaep:
      return crypto::generate_rsa(bits, cancel);
    case CertAlgorithm::RsaPss:
      return crypto::generate_rsa_pss(bits, alg.pss, cancel);
    case CertAlgorithm::Dsa:
      return crypto::generate_dsa(bits, cancel);
    case CertAlgorithm::Ec: {
      if (alg.curve_oid.empty()) alg.curve_oid = CurveOidForBits(bits);
      std::string group = CurveGroupName(alg.curve_oid);
      if (group.empty())
        cert_error(kCertErrorUnsupported, "Unsupported elliptic curve " + alg.curve_oid);
      return crypto::generate_ec(group, cancel);
    }
    case CertAlgorithm::Gost94:
    case CertAlgorithm::Gost2001:
      if (!crypto::key_type_available(gost_key_type(alg.algorithm())))
        cert_error(kCertErrorUnsupported, AlgorithmName(alg.algorithm()) +
                                              " keys are not supported by the installed OpenSSL");
      cert_error(kCertErrorUnsupported, AlgorithmName(alg.algorithm()) + " keys are not supported");
    default:
      cert_error(kCertErrorUnsupported, AlgorithmName(alg.algorithm()) + " keys are not supported");
  }
}

// The BIT STRING contents of SubjectPublicKeyInfo for the identifier's kind; empty when
// key and identifier are of different kinds.
Bytes public_key_bits(const TElAlgorithmIdentifier& alg, const crypto::PrivateKey& key) {
  KeyKind kind = key.kind();
  switch (alg.algorithm()) {
    case CertAlgorithm::Rsa:
    case CertAlgorithm::RsaPss:
    case CertAlgorithm::RsaOaep:
      if (kind != KeyKind::Rsa && kind != KeyKind::RsaPss) return {};
      return crypto::rsa_public_key_pkcs1(key);
    case CertAlgorithm::Dsa:
    case CertAlgorithm::Dh:
      if (kind != KeyKind::Dsa) return {};
      return asn1::tlv(asn1::kInteger, asn1::unsigned_integer_content(crypto::dsa_numbers(key).y));
    case CertAlgorithm::Ec:
      if (kind != KeyKind::Ec) return {};
      return crypto::ec_public_point(key);
    default:
      return {};
  }
}

Bytes encode_validity(std::chrono::sys_seconds from, std::chrono::sys_seconds to) {
  using namespace std::chrono;
  const sys_seconds y2050 = sys_days{year{2050} / 1 / 1};
  asn1::DerWriter w;
  w.begin(asn1::kSequence);
  for (auto t : {from, to}) {
    if (t >= y2050)
      w.generalized_time(t);
    else
      w.utc_time(t);
  }
  w.end();
  return w.finish();
}

Bytes encode_extensions(const std::vector<CertExtension>& extensions) {
  asn1::DerWriter w;
  w.begin(asn1::context_constructed(3)).begin(asn1::kSequence);
  for (const auto& e : extensions) {
    w.begin(asn1::kSequence).oid(e.oid);
    if (e.critical) w.boolean(true);
    w.octet_string(e.value).end();
  }
  w.end().end();
  return w.finish();
}

Bytes sign_tbs(const TElAlgorithmIdentifier& sig, const crypto::PrivateKey& key, const Bytes& tbs) {
  CertAlgorithm s = sig.algorithm();
  if (s == CertAlgorithm::Md2WithRsa)
    cert_error(kCertErrorUnsupported, "MD2 is not available for signing in the installed OpenSSL");
  if (is_rsa_signature(s) || s == CertAlgorithm::DsaWithSha1 || is_ecdsa_signature(s))
    return crypto::sign_message(key, sig.hash(), tbs);
  if (s == CertAlgorithm::RsaPss) return crypto::sign_message(key, sig.pss.hash, tbs, &sig.pss);
  cert_error(kCertErrorUnsupported, "No signer for " + AlgorithmName(s));
}

TElAlgorithmIdentifier identifier_of_key(const crypto::PrivateKey& key) {
  switch (key.kind()) {
    case KeyKind::Rsa:
      return TElAlgorithmIdentifier::CreateByAlgorithm(CertAlgorithm::Rsa);
    case KeyKind::RsaPss:
      return TElAlgorithmIdentifier::CreateByAlgorithm(CertAlgorithm::RsaPss);
    case KeyKind::Dsa:
      return TElAlgorithmIdentifier::CreateByAlgorithm(CertAlgorithm::Dsa);
    case KeyKind::Ec: {
      auto id = TElAlgorithmIdentifier::CreateByAlgorithm(CertAlgorithm::Ec);
      std::string group = crypto::ec_curve_name(key);
      for (const char* oid : {"1.2.840.10045.3.1.1", "1.3.132.0.33", "1.2.840.10045.3.1.7",
                              "1.3.132.0.34", "1.3.132.0.35"})
        if (CurveGroupName(oid) == group) id.curve_oid = oid;
      return id;
    }
    default:
      cert_error(kCertErrorUnsupported, "Unsupported key kind for certificate generation");
  }
}

// The signing key can make the signature, and the signature algorithm is one.
void check_algorithms(const TElAlgorithmIdentifier& signing, const TElAlgorithmIdentifier& sig) {
  check_pairing(signing, sig);
  if (!sig.is_signature() && sig.algorithm() != CertAlgorithm::RsaPss &&
      sig.algorithm() != CertAlgorithm::RsaOaep)
    cert_error(kCertErrorCannotPair,
               AlgorithmName(sig.algorithm()) + " is not a signature algorithm");
}

// A copy of the key already held, for a certificate that keeps it.
crypto::PrivateKey copy_of_kept_key(const std::optional<crypto::PrivateKey>& held) {
  if (!held) cert_error(kCertErrorNoKeyToPreserve, "There is no private key to keep");
  return crypto::PrivateKey::from_pkcs8_der(held->to_pkcs8_der());
}

// The identifier takes from the key what it left open.
void complete_identifier(TElAlgorithmIdentifier& pub, const crypto::PrivateKey& key) {
  // A kept EC key names its own curve.
  if (pub.algorithm() == CertAlgorithm::Ec && pub.curve_oid.empty() && key.kind() == KeyKind::Ec)
    pub.curve_oid = identifier_of_key(key).curve_oid;
  // Key and identifier agree on the DSA domain parameters.
  if (pub.algorithm() == CertAlgorithm::Dsa) {
    crypto::DsaNumbers numbers = crypto::dsa_numbers(key);
    pub.dsa_p = std::move(numbers.p);
    pub.dsa_q = std::move(numbers.q);
    pub.dsa_g = std::move(numbers.g);
  }
}

// Key identifier extensions left empty are given the subject's and the issuer's key.
std::vector<CertExtension> with_key_identifiers(std::vector<CertExtension> extensions,
                                                const Bytes& subject_key_id,
                                                const Bytes& authority_key_id) {
  for (auto& e : extensions) {
    if (!e.value.empty()) continue;
    if (e.oid == kSubjectKeyIdentifier) e.value = asn1::tlv(asn1::kOctetString, subject_key_id);
    if (e.oid == kAuthorityKeyIdentifier)
      e.value = asn1::tlv(asn1::kSequence, asn1::tlv(asn1::context(0), authority_key_id));
  }
  return extensions;
}

// Version 1 when unset, at least 3 with extensions, at most 4.
int certificate_version(int version, bool has_extensions) {
  int v = version == 0 ? 1 : version;
  if (has_extensions && v < 3) v = 3;
  return std::min(v, 4);
}

// The serial given, or 16 random bytes made a positive INTEGER with a non-zero first byte.
Bytes serial_or_random(const Bytes& given) {
  if (!given.empty()) return given;
  Bytes serial = crypto::random_bytes(16);
  serial[0] = static_cast<std::uint8_t>((serial[0] & 0x7F) | 0x01);
  return serial;
}

// The issuer's name as given, else the issuing certificate's subject.
TElRelativeDistinguishedName issuer_name_of(const TElRelativeDistinguishedName& given,
                                            const TElX509CertificateEx* issuer) {
  TElRelativeDistinguishedName name = given;
  if (issuer && name.attributes.empty()) {
    for (const auto& a : issuer->certificate().subject())
      name.attributes.push_back({a.oid, a.tag, a.value});
  }
  return name;
}

Bytes signed_certificate(const Bytes& tbs_der, const Bytes& sig_alg, const Bytes& signature) {
  asn1::DerWriter cert;
  cert.begin(asn1::kSequence).raw(tbs_der).raw(sig_alg).bit_string(signature).end();
  return cert.finish();
}

void check_fits_buffer(const Bytes& der, const crypto::PrivateKey& key) {
  Bytes key_der = key.to_pkcs8_der();
  std::size_t key_size = key_der.size();
  wipe(key_der);
  if (der.size() > TElX509CertificateEx::kBufferSize ||
      key_size > TElX509CertificateEx::kBufferSize)
    cert_error(kCertErrorTooLarge, "The certificate or its key does not fit " +
                                       std::to_string(TElX509CertificateEx::kBufferSize) +
                                       " bytes");
}

}  // namespace

namespace {
bool printable_string_char(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
         std::string_view(" '()+,-./:=?").find(static_cast<char>(c)) != std::string_view::npos;
}
}  // namespace

void TElRelativeDistinguishedName::AddText(const std::string& oid, const std::string& utf8_value) {
  if (utf8_value.empty()) return;
  bool ascii = std::all_of(utf8_value.begin(), utf8_value.end(),
                           [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (oid == oid::kEmailAddress) {
    Add(oid, utf8_value, ascii ? asn1::kIa5String : asn1::kUtf8String);
    return;
  }
  bool printable = std::all_of(utf8_value.begin(), utf8_value.end(), [](char c) {
    return printable_string_char(static_cast<unsigned char>(c));
  });
  Add(oid, utf8_value, printable ? asn1::kPrintableString : asn1::kUtf8String);
}

Bytes TElRelativeDistinguishedName::Encode(bool utf8_strings) const {
  asn1::DerWriter w;
  w.begin(asn1::kSequence);
  for (const auto& a : attributes) {
    std::uint8_t tag = static_cast<std::uint8_t>(a.tag);
    if (a.tag == 0) {
      if (a.oid == oid::kEmailAddress)
        tag = asn1::kIa5String;
      else
        tag = utf8_strings ? asn1::kUtf8String : asn1::kPrintableString;
    }
    w.begin(asn1::kSet).begin(asn1::kSequence).oid(a.oid).primitive(tag, a.value).end().end();
  }
  w.end();
  return w.finish();
}

TElX509CertificateEx::TElX509CertificateEx(const Certificate& cert,
                                           std::optional<crypto::PrivateKey> key)
    : cert_(cert), key_(std::move(key)) {
  Bytes spki = cert.public_key_der();
  asn1::Tlv outer = asn1::read_tlv(spki.data(), spki.size());
  asn1::Tlv alg = asn1::read_tlv(outer.content, outer.length);
  asn1::Tlv bits = asn1::read_tlv(alg.content + alg.length, outer.length - alg.total());
  Bytes key_bits(bits.content + 1, bits.content + bits.length);
  key_identifier_ = crypto::sha1(key_bits);
  if (key_) public_key_algorithm_ = identifier_of_key(*key_);
}

const Certificate& TElX509CertificateEx::certificate() const {
  if (!cert_) throw Exception("No certificate has been generated");
  return *cert_;
}

const crypto::PrivateKey& TElX509CertificateEx::private_key() const {
  if (!key_) throw Exception("The certificate has no private key");
  return *key_;
}

TElAlgorithmIdentifier TElX509CertificateEx::PublicKeyAlgorithm() const {
  if (public_key_algorithm_) return *public_key_algorithm_;
  if (key_) return identifier_of_key(*key_);
  cert_error(kCertErrorUnsupported, "The certificate's key algorithm is not known");
}

void TElX509CertificateEx::Generate(const TElAlgorithmIdentifier& public_key_algorithm,
                                    const TElAlgorithmIdentifier& signature_algorithm, int bits,
                                    const std::atomic<bool>* cancel) {
  DoGenerate(nullptr, public_key_algorithm, signature_algorithm, bits, cancel);
}

void TElX509CertificateEx::Generate(const TElX509CertificateEx& issuer,
                                    const TElAlgorithmIdentifier& public_key_algorithm,
                                    const TElAlgorithmIdentifier& signature_algorithm, int bits,
                                    const std::atomic<bool>* cancel) {
  if (!issuer.HasPrivateKey())
    cert_error(kCertErrorNoIssuerKey, "The issuing certificate has no private key");
  DoGenerate(&issuer, public_key_algorithm, signature_algorithm, bits, cancel);
}

void TElX509CertificateEx::DoGenerate(const TElX509CertificateEx* issuer,
                                      TElAlgorithmIdentifier pub, const TElAlgorithmIdentifier& sig,
                                      int bits, const std::atomic<bool>* cancel) {
  struct Mark {
    bool& flag;
    explicit Mark(bool& f) : flag(f) { flag = true; }
    ~Mark() { flag = false; }
  } mark(FGenerate);

  // The signing key is the issuer's when there is one.
  check_algorithms(issuer ? issuer->PublicKeyAlgorithm() : pub, sig);
  crypto::PrivateKey key =
      FPreserveKeyMaterial ? copy_of_kept_key(key_) : generate_key(pub, bits, cancel);
  complete_identifier(pub, key);
  const crypto::PrivateKey& signing_key = issuer ? issuer->private_key() : key;

  Bytes key_bits = public_key_bits(pub, key);
  Bytes own_key_id = crypto::sha1(key_bits);
  std::vector<CertExtension> extensions =
      with_key_identifiers(Extensions, own_key_id, issuer ? issuer->KeyIdentifier() : own_key_id);
  Bytes sig_alg = sig.WriteToDER();
  Bytes tbs_der = encode_tbs(issuer, sig_alg, pub, key_bits, extensions);
  Bytes der = signed_certificate(tbs_der, sig_alg, sign_tbs(sig, signing_key, tbs_der));
  check_fits_buffer(der, key);

  cert_ = Certificate::from_der(der);
  key_ = std::move(key);
  public_key_algorithm_ = pub;
  key_identifier_ = FAltKeyID.empty() ? own_key_id : FAltKeyID;
}

Bytes TElX509CertificateEx::encode_tbs(const TElX509CertificateEx* issuer, const Bytes& sig_alg,
                                       const TElAlgorithmIdentifier& pub, const Bytes& key_bits,
                                       const std::vector<CertExtension>& extensions) const {
  int version = certificate_version(Version, !extensions.empty());
  asn1::DerWriter tbs;
  tbs.begin(asn1::kSequence);
  tbs.begin(asn1::context_constructed(0)).integer(static_cast<std::uint64_t>(version - 1)).end();
  tbs.integer_bytes(serial_or_random(SerialNumber));
  tbs.raw(sig_alg);
  tbs.raw(issuer_name_of(IssuerRDN, issuer).Encode(UseUTF8Strings));
  tbs.raw(encode_validity(ValidFrom, ValidTo));
  tbs.raw(SubjectRDN.Encode(UseUTF8Strings));
  tbs.begin(asn1::kSequence).raw(pub.WriteToDER()).bit_string(key_bits).end();
  if (!extensions.empty()) tbs.raw(encode_extensions(extensions));
  tbs.end();
  return tbs.finish();
}

Bytes NewSerialNumber(CertStore& store) {
  std::vector<Certificate> existing = store.certificates();
  while (true) {
    Bytes serial = crypto::random_bytes(16);
    serial[0] &= 0x7F;
    // A zero first byte would make the INTEGER encoding non-minimal.
    if (serial[0] == 0) continue;
    bool used = std::any_of(existing.begin(), existing.end(),
                            [&](const Certificate& c) { return c.serial() == serial; });
    if (!used) return serial;
  }
}

}  // namespace tessarel
