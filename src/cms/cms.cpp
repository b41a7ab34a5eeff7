#include "cms/cms.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "platform/asn1/ber_reader.h"
#include "platform/asn1/der.h"
#include "platform/crypto/digest.h"
#include "platform/runtime/datetime.h"

namespace tessarel {

namespace {

using asn1::BerNode;
using asn1::ByteSource;

constexpr std::size_t kHashBlock = 256 * 1024;

Bytes oid_content(const char* dotted) {
  return asn1::encode_oid(dotted);
}
Bytes oid_der(const std::string& dotted) {
  return asn1::tlv(asn1::kObjectIdentifier, asn1::encode_oid(dotted));
}

void append(Bytes& out, const Bytes& b) {
  out.insert(out.end(), b.begin(), b.end());
}

Bytes algorithm_identifier(const std::string& oid, const Bytes& params_der) {
  Bytes content = oid_der(oid);
  append(content, params_der);
  return asn1::tlv(asn1::kSequence, content);
}

Bytes encode_attribute(const TElPKCS7Attribute& a) {
  Bytes content = oid_der(a.oid);
  append(content, asn1::der_set_of(a.values));
  return asn1::tlv(asn1::kSequence, content);
}

std::string time_digits(const CivilTime& c, bool four_digit_year) {
  char buf[32];
  if (four_digit_year)
    std::snprintf(buf, sizeof buf, "%04d%02d%02d%02d%02d%02dZ", c.year, c.month, c.day, c.hour,
                  c.minute, c.second);
  else
    std::snprintf(buf, sizeof buf, "%02d%02d%02d%02d%02d%02dZ", c.year % 100, c.month, c.day,
                  c.hour, c.minute, c.second);
  return buf;
}

// The signing time as the signer settings ask: GeneralizedTime when the option is set or
// outside 1950-2049 (where UTCTime cannot say the year), else UTCTime. No fractions.
Bytes encode_signing_time(DateTime t, bool generalized) {
  CivilTime c = DecodeDateTime(t);
  c.millisecond = 0;
  bool use_generalized = generalized || t < 18264.0 || t >= 54789.0;
  std::string text = time_digits(c, use_generalized);
  return asn1::tlv(use_generalized ? asn1::kGeneralizedTime : asn1::kUtcTime,
                   reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

// Attribute ::= SEQUENCE { attrType OBJECT IDENTIFIER, attrValues SET OF ANY }
TElPKCS7Attribute read_attribute(const ByteSource& src, const BerNode& n) {
  asn1::BerReader attribute(src, n, asn1::kSequence, "an Attribute SEQUENCE");
  TElPKCS7Attribute a;
  a.oid = attribute.read_oid("attribute type");
  asn1::BerReader values = attribute.start_set("attribute values", "a SET of attribute values");
  for (const auto& v : values.node().children) {
    if (v.total_length() > (16u << 20))
      throw asn1::BerError(asn1::kBerUnexpected, v.offset, "attribute value too large");
    a.values.push_back(asn1::ElementBytes(src, v));
  }
  return a;
}

std::vector<TElPKCS7Attribute> read_attributes(const ByteSource& src, const BerNode& n) {
  std::vector<TElPKCS7Attribute> out;
  for (const auto& c : n.children)
    out.push_back(read_attribute(src, c));
  return out;
}

// A DER value (already read into memory) parsed as a tree.
struct Parsed {
  Bytes bytes;
  asn1::MemorySource src;
  BerNode root;
  explicit Parsed(Bytes b) : bytes(std::move(b)), src(bytes), root(asn1::ParseBer(src)) {}
};

DateTime parse_time(const BerNode& n, const Bytes& content) {
  std::string s(content.begin(), content.end());
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, sec = 0;
  auto digits = [&](std::size_t pos, std::size_t count) {
    if (pos + count > s.size()) throw Exception("short time");
    int v = 0;
    for (std::size_t i = 0; i < count; ++i) {
      if (s[pos + i] < '0' || s[pos + i] > '9') throw Exception("bad time");
      v = v * 10 + (s[pos + i] - '0');
    }
    return v;
  };
  std::size_t p = 0;
  if (n.tag_number == asn1::kUtcTime) {
    y = digits(0, 2);
    y += y >= 50 ? 1900 : 2000;  // the two-digit year rule of RFC 5280
    p = 2;
  } else {
    y = digits(0, 4);
    p = 4;
  }
  mo = digits(p, 2);
  d = digits(p + 2, 2);
  h = digits(p + 4, 2);
  mi = digits(p + 6, 2);
  if (p + 8 < s.size() && s[p + 8] >= '0' && s[p + 8] <= '9') sec = digits(p + 8, 2);
  return EncodeDateTime({y, mo, d, h, mi, sec, 0});
}

}  // namespace

DigestAlgorithm DigestAlgorithmOfOid(const std::string& oid) {
  DigestAlgorithm d = crypto::digest_from_oid(oid);
  if (d != DigestAlgorithm::Unknown) return d;
  static const std::pair<const char*, DigestAlgorithm> kSignatureOids[] = {
      {"1.2.840.113549.1.1.4", DigestAlgorithm::MD5},
      {"1.2.840.113549.1.1.5", DigestAlgorithm::SHA1},
      {"1.2.840.113549.1.1.14", DigestAlgorithm::SHA224},
      {"1.2.840.113549.1.1.11", DigestAlgorithm::SHA256},
      {"1.2.840.113549.1.1.12", DigestAlgorithm::SHA384},
      {"1.2.840.113549.1.1.13", DigestAlgorithm::SHA512},
      {"1.2.840.10045.4.1", DigestAlgorithm::SHA1},
      {"1.2.840.10045.4.3.1", DigestAlgorithm::SHA224},
      {"1.2.840.10045.4.3.2", DigestAlgorithm::SHA256},
      {"1.2.840.10045.4.3.3", DigestAlgorithm::SHA384},
      {"1.2.840.10045.4.3.4", DigestAlgorithm::SHA512},
      {"1.2.840.10040.4.3", DigestAlgorithm::SHA1},
      {"2.16.840.1.101.3.4.3.1", DigestAlgorithm::SHA224},
      {"2.16.840.1.101.3.4.3.2", DigestAlgorithm::SHA256},
      {"1.3.14.3.2.29", DigestAlgorithm::SHA1},
      {"1.3.36.3.3.1.2", DigestAlgorithm::RIPEMD160},
      {"2.16.840.1.101.3.4.3.3", DigestAlgorithm::SHA384},
      {"2.16.840.1.101.3.4.3.4", DigestAlgorithm::SHA512},
      {"2.16.840.1.101.3.4.3.10", DigestAlgorithm::SHA3_256},
      {"2.16.840.1.101.3.4.3.11", DigestAlgorithm::SHA3_384},
      {"2.16.840.1.101.3.4.3.12", DigestAlgorithm::SHA3_512},
      {"2.16.840.1.101.3.4.3.14", DigestAlgorithm::SHA3_256},
      {"2.16.840.1.101.3.4.3.15", DigestAlgorithm::SHA3_384},
      {"2.16.840.1.101.3.4.3.16", DigestAlgorithm::SHA3_512},
  };
  for (const auto& [o, alg] : kSignatureOids)
    if (oid == o) return alg;
  return DigestAlgorithm::Unknown;
}

// ---- TElPKCS7Signer ----

void TElPKCS7Signer::RecalculateAuthenticatedAttributes() {
  std::vector<Bytes> encoded;
  for (const auto& a : AuthenticatedAttributes)
    encoded.push_back(encode_attribute(a));
  AuthenticatedAttributesPlain = asn1::der_set_of(std::move(encoded), asn1::kSet);
}

Bytes TElPKCS7Signer::Encode() const {
  Bytes c = asn1::tlv(asn1::kInteger, asn1::integer_content(static_cast<std::uint64_t>(Version)));
  if (!SubjectKeyIdentifier.empty()) {
    append(c, asn1::tlv(asn1::context(0), SubjectKeyIdentifier));
  } else {
    Bytes ias = Issuer;
    append(ias, asn1::tlv(asn1::kInteger, SerialNumber));
    append(c, asn1::tlv(asn1::kSequence, ias));
  }
  append(c, algorithm_identifier(DigestAlgorithm, DigestAlgorithmParams));
  if (!AuthenticatedAttributesPlain.empty()) {
    Bytes implicit = AuthenticatedAttributesPlain;
    implicit[0] = asn1::context_constructed(0);
    append(c, implicit);
  }
  append(c, algorithm_identifier(DigestEncryptionAlgorithm, DigestEncryptionAlgorithmParams));
  append(c, asn1::tlv(asn1::kOctetString, EncryptedDigest));
  if (!UnauthenticatedAttributes.empty()) {
    std::vector<Bytes> encoded;
    for (const auto& a : UnauthenticatedAttributes)
      encoded.push_back(encode_attribute(a));
    append(c, asn1::der_set_of(std::move(encoded), asn1::context_constructed(1)));
  }
  return asn1::tlv(asn1::kSequence, c);
}

// ---- TElCMSContent ----

void TElCMSContent::Init(const std::uint8_t* buffer, std::uint64_t size) {
  FSources.clear();
  FSources.push_back({buffer, nullptr, 0, size});
}

void TElCMSContent::Init(std::shared_ptr<const ByteSource> stream, std::uint64_t offset,
                         std::uint64_t size) {
  FSources.clear();
  Add(std::move(stream), offset, size);
}

void TElCMSContent::Add(std::shared_ptr<const ByteSource> stream, std::uint64_t offset,
                        std::uint64_t size) {
  FSources.push_back({nullptr, std::move(stream), offset, size});
}

std::uint64_t TElCMSContent::Size() const {
  std::uint64_t n = 0;
  for (const auto& s : FSources)
    n += s.size;
  return n;
}

std::size_t TElCMSContent::Read(std::uint8_t* buffer, std::size_t size,
                                std::uint64_t offset) const {
  std::size_t copied = 0;
  std::uint64_t base = 0;
  for (const auto& s : FSources) {
    if (copied == size) break;
    std::uint64_t at = offset + copied;
    if (at < base + s.size) {
      std::uint64_t within = at - base;
      std::size_t n =
          static_cast<std::size_t>(std::min<std::uint64_t>(size - copied, s.size - within));
      if (!s.stream)
        std::memcpy(buffer + copied, s.memory + within, n);
      else
        s.stream->read(s.offset + within, buffer + copied, n);
      copied += n;
    }
    base += s.size;
  }
  return copied;
}

Bytes DigestContent(const TElCMSContent* content, DigestAlgorithm alg,
                    const std::function<bool(std::uint64_t, std::uint64_t)>& progress) {
  crypto::Hasher hasher(alg);
  std::uint64_t total = content ? content->Size() : 0;
  if (progress && !progress(0, total)) throw EElCMSError("Cancelled by user");
  std::uint64_t done = 0;
  if (content) {
    // Memory sources are hashed in place; streams through one buffer.
    Bytes buffer;
    for (const auto& s : content->sources()) {
      for (std::uint64_t at = 0; at < s.size;) {
        std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(kHashBlock, s.size - at));
        if (!s.stream) {
          hasher.update(s.memory + at, n);
        } else {
          buffer.resize(kHashBlock);
          try {
            s.stream->read(s.offset + at, buffer.data(), n);
          } catch (const EInOutError&) {
            throw EElCMSError("Unexpected end of data");
          }
          hasher.update(buffer.data(), n);
        }
        at += n;
        done += n;
        if (progress && !progress(done, total)) throw EElCMSError("Cancelled by user");
      }
    }
  }
  if (progress && !progress(total, total)) throw EElCMSError("Cancelled by user");
  return hasher.finish();
}

bool ReadPssParams(const Bytes& params, DigestAlgorithm& hash, DigestAlgorithm& mgf, int& salt) {
  hash = mgf = DigestAlgorithm::SHA1;
  salt = 20;
  if (params.empty()) return true;
  try {
    Parsed p(params);
    if (!p.root.is_universal(asn1::kTagSequence)) return p.root.is_universal(asn1::kNull);
    for (const auto& f : p.root.children) {
      if (!f.is_context(0) && !f.is_context(1) && !f.is_context(2) && !f.is_context(3))
        return false;
      if (f.children.empty()) return false;
      const BerNode& inner = f.children[0];
      if (f.tag_number == 0) {
        hash = crypto::digest_from_oid(asn1::ReadOid(p.src, inner.children.at(0)));
      } else if (f.tag_number == 1) {
        const BerNode& mgf_alg = inner.children.at(1);
        mgf = crypto::digest_from_oid(asn1::ReadOid(p.src, mgf_alg.children.at(0)));
      } else if (f.tag_number == 2) {
        salt = static_cast<int>(asn1::ReadSmallInteger(p.src, inner));
      }
    }
    return hash != DigestAlgorithm::Unknown && mgf != DigestAlgorithm::Unknown && salt >= 0;
  } catch (const std::exception&) {
    return false;
  }
}

Bytes EncodePssParams(DigestAlgorithm hash, DigestAlgorithm mgf, int salt) {
  // DER leaves out the fields that equal their defaults (SHA-1, MGF1 with SHA-1, 20, 1).
  asn1::DerWriter w;
  w.begin(asn1::kSequence);
  if (hash != DigestAlgorithm::SHA1)
    w.begin(asn1::context_constructed(0))
        .begin(asn1::kSequence)
        .oid(crypto::digest_oid(hash))
        .null()
        .end()
        .end();
  if (mgf != DigestAlgorithm::SHA1)
    w.begin(asn1::context_constructed(1))
        .begin(asn1::kSequence)
        .oid(cms_oid::kMgf1)
        .begin(asn1::kSequence)
        .oid(crypto::digest_oid(mgf))
        .null()
        .end()
        .end()
        .end();
  if (salt != 20)
    w.begin(asn1::context_constructed(2)).integer(static_cast<std::uint64_t>(salt)).end();
  w.end();
  return w.finish();
}

// ---- TElCMSSignature ----

void TElCMSSignature::SetDigestAlgorithm(DigestAlgorithm alg) {
  FPKCS7Signer.DigestAlgorithm = crypto::digest_oid(alg);
  FPKCS7Signer.DigestAlgorithmParams.clear();
}

DigestAlgorithm TElCMSSignature::GetDigestAlgorithm() const {
  return DigestAlgorithmOfOid(FPKCS7Signer.DigestAlgorithm);
}

namespace {

// The algorithm code an error names when the digest OID maps to no hash.
constexpr int kUnknownAlgorithm = 0x7FFF;

// The signer's certificate and its chain join the message's certificates, each once.
void include_certificates(std::vector<Bytes>& certificates, const Certificate& cert,
                          const std::vector<Certificate>& chain) {
  auto add = [&](const Certificate& c) {
    if (std::find(certificates.begin(), certificates.end(), c.der()) == certificates.end())
      certificates.push_back(c.der());
  };
  add(cert);
  for (const auto& c : chain)
    add(c);
}

// The signing-certificate property naming cert: ESS for a SHA-1 fingerprint, ESS v2 when
// the options force it, the other-signing-certificate form otherwise.
void set_signing_certificate(TElCMSSigningCertificate& sc, const Certificate& cert,
                             DigestAlgorithm fingerprint, std::uint16_t options) {
  sc.Clear();
  TElCMSSignerIdentifier id;
  id.FSerialNumber = cert.serial();
  id.FHash.FHashAlgorithm = fingerprint;
  if (fingerprint == DigestAlgorithm::SHA1) {
    id.FSignerIdentifierType = TSBCMSSignerIdentifierType::sitESSCertID;
    sc.FSigningCertificateType = TSBCMSSigningCertificateType::sctESSSigningCertificate;
  } else if (options & csoForceSigningCertificateV2Usage) {
    id.FSignerIdentifierType = TSBCMSSignerIdentifierType::sitESSCertIDV2;
    sc.FSigningCertificateType = TSBCMSSigningCertificateType::sctESSSigningCertificateV2;
  } else {
    id.FSignerIdentifierType = TSBCMSSignerIdentifierType::sitOtherCertID;
    sc.FSigningCertificateType = TSBCMSSigningCertificateType::sctOtherSigningCertificate;
  }
  id.FHash.FHashValue = cert.fingerprint(fingerprint);
  // GeneralNames holding one directoryName: [4] EXPLICIT Name.
  id.FIssuer =
      asn1::tlv(asn1::kSequence, asn1::tlv(asn1::context_constructed(4), cert.issuer_der()));
  sc.FCertIDs.push_back(id);
  sc.FIncluded = true;
  sc.FSigned = true;
}

// SigningCertificate(V2) ::= SEQUENCE { certs SEQUENCE OF ESSCertID(v2) }; an ESSCertIDv2
// leaves out its hash algorithm when it is SHA-256, the default.
Bytes encode_signing_certificate(const TElCMSSigningCertificate& sc) {
  Bytes ids;
  for (const auto& id : sc.FCertIDs) {
    Bytes c;
    bool v2 = id.FSignerIdentifierType == TSBCMSSignerIdentifierType::sitESSCertIDV2;
    if (!v2 && id.FHash.FHashValue.size() != 20) throw EElCMSError("Invalid hash value");
    if (v2 && id.FHash.FHashAlgorithm != DigestAlgorithm::SHA256)
      append(c, algorithm_identifier(crypto::digest_oid(id.FHash.FHashAlgorithm), {}));
    append(c, asn1::tlv(asn1::kOctetString, id.FHash.FHashValue));
    Bytes issuer_serial = id.FIssuer;
    append(issuer_serial, asn1::tlv(asn1::kInteger, id.FSerialNumber));
    append(c, asn1::tlv(asn1::kSequence, issuer_serial));
    append(ids, asn1::tlv(asn1::kSequence, c));
  }
  return asn1::tlv(asn1::kSequence, asn1::tlv(asn1::kSequence, ids));
}

// The signed attributes the options ask for, replacing whatever the signer held: signing
// time, content type, signing certificate, then the signer's own (DER sorts them).
void build_signed_attributes(TElCMSSignature& s) {
  auto& attrs = s.FPKCS7Signer.AuthenticatedAttributes;
  attrs.clear();
  const std::uint16_t options = s.FSigningOptions;
  if (options & csoInsertSigningTime)
    attrs.push_back(
        {cms_oid::kSigningTime,
         {encode_signing_time(s.FSigningTime, (options & csoUseGeneralizedTimeFormat) != 0)}});
  if (options & csoInsertContentType)
    attrs.push_back(
        {cms_oid::kContentType,
         {asn1::tlv(asn1::kObjectIdentifier,
                    s.FContentType.empty() ? oid_content(cms_oid::kData) : s.FContentType)}});
  TElCMSSigningCertificate& sc = s.FSigningCertificate;
  if (sc.FIncluded &&
      sc.FSigningCertificateType != TSBCMSSigningCertificateType::sctOtherSigningCertificate) {
    sc.FValue = encode_signing_certificate(sc);
    bool v2 =
        sc.FSigningCertificateType == TSBCMSSigningCertificateType::sctESSSigningCertificateV2;
    attrs.push_back(
        {v2 ? cms_oid::kSigningCertificateV2 : cms_oid::kSigningCertificate, {sc.FValue}});
  }
  for (const auto& a : s.FCustomSignedAttributes)
    attrs.push_back(a);
  s.FPKCS7Signer.RecalculateAuthenticatedAttributes();
}

// What the key signs: with signed attributes, the digest of their DER encoding, the
// content's digest among them (replacing a messageDigest the signer brought); without,
// the content's digest itself.
Bytes encode_signed_attributes(TElCMSSignature& s, const Bytes& content_digest,
                               DigestAlgorithm digest_alg) {
  auto& attrs = s.FPKCS7Signer.AuthenticatedAttributes;
  if (attrs.empty() && !(s.FSigningOptions & csoInsertMessageDigests)) return content_digest;
  TElPKCS7Attribute md{cms_oid::kMessageDigest, {asn1::tlv(asn1::kOctetString, content_digest)}};
  auto existing = std::find_if(attrs.begin(), attrs.end(),
                               [](const auto& a) { return a.oid == cms_oid::kMessageDigest; });
  if (existing != attrs.end())
    *existing = md;
  else
    attrs.push_back(md);
  s.FPKCS7Signer.RecalculateAuthenticatedAttributes();
  return crypto::digest(digest_alg, s.FPKCS7Signer.AuthenticatedAttributesPlain);
}

// Keys of kinds this signer does not write, and DSA keys with another hash than their size
// calls for, are refused.
void check_key(const SigningKey& key, DigestAlgorithm digest_alg) {
  KeyKind kind = key.kind();
  if (kind == KeyKind::Dsa) {
    DigestAlgorithm dsa_hash = key.bits() <= 1024 ? DigestAlgorithm::SHA1 : DigestAlgorithm::SHA256;
    if (digest_alg != dsa_hash) throw EElCMSError("Invalid hash algorithm");
  }
  if (kind != KeyKind::Rsa && kind != KeyKind::RsaPss && kind != KeyKind::Ec &&
      kind != KeyKind::Dsa)
    throw EElCMSError("Unsupported algorithm: " + std::to_string(static_cast<int>(kind)));
}

// An RSA-PSS key (its certificate says id-RSASSA-PSS) signs only with PSS, with the
// parameters its certificate fixes; an RSA key does when asked to. Without parameters:
// MGF1 with the digest algorithm and a salt as long as the digest.
void sign_pss(TElPKCS7Signer& signer, const Certificate& cert, const SigningKey& key, KeyKind kind,
              DigestAlgorithm digest_alg, const Bytes& to_sign) {
  DigestAlgorithm hash = digest_alg, mgf = digest_alg;
  int salt = static_cast<int>(crypto::digest_size(digest_alg));
  if (kind == KeyKind::RsaPss) {
    Parsed spki(cert.public_key_der());
    const BerNode& alg = spki.root.children.at(0);
    if (alg.children.size() > 1 && !alg.children[1].is_universal(asn1::kNull)) {
      if (!ReadPssParams(asn1::ElementBytes(spki.src, alg.children[1]), hash, mgf, salt))
        throw EElCMSError("Invalid RSASSA-PSS parameters in the certificate");
      if (hash != digest_alg) throw EElCMSError("Invalid hash algorithm");
    }
  }
  signer.EncryptedDigest = key.sign_digest_pss(digest_alg, to_sign, mgf, salt);
  signer.DigestEncryptionAlgorithm = cms_oid::kRsaPss;
  signer.DigestEncryptionAlgorithmParams = EncodePssParams(hash, mgf, salt);
}

// ecdsa-with-SHA* of the digest algorithm; empty when there is none.
std::string ecdsa_signature_oid(DigestAlgorithm digest_alg) {
  static const std::pair<DigestAlgorithm, const char*> kEcdsa[] = {
      {DigestAlgorithm::SHA1, "1.2.840.10045.4.1"},
      {DigestAlgorithm::SHA224, "1.2.840.10045.4.3.1"},
      {DigestAlgorithm::SHA256, "1.2.840.10045.4.3.2"},
      {DigestAlgorithm::SHA384, "1.2.840.10045.4.3.3"},
      {DigestAlgorithm::SHA512, "1.2.840.10045.4.3.4"}};
  for (const auto& [d, o] : kEcdsa)
    if (d == digest_alg) return o;
  return "";
}

// PKCS#1 v1.5 for RSA keys, a DER Dss-Sig-Value for DSA and ECDSA keys.
void sign_without_pss(TElPKCS7Signer& signer, const SigningKey& key, KeyKind kind,
                      DigestAlgorithm digest_alg, const Bytes& to_sign) {
  if (kind == KeyKind::Rsa) {
    signer.EncryptedDigest = key.sign_digest(digest_alg, to_sign);
    signer.DigestEncryptionAlgorithm = cms_oid::kRsaEncryption;
    signer.DigestEncryptionAlgorithmParams = {asn1::kNull, 0x00};
  } else if (kind == KeyKind::Dsa) {
    signer.EncryptedDigest = key.sign_digest(digest_alg, to_sign);
    signer.DigestEncryptionAlgorithm = cms_oid::kDsa;
    signer.DigestEncryptionAlgorithmParams.clear();
  } else {
    signer.DigestEncryptionAlgorithm = ecdsa_signature_oid(digest_alg);
    if (signer.DigestEncryptionAlgorithm.empty()) throw EElCMSError("Invalid hash algorithm");
    signer.DigestEncryptionAlgorithmParams.clear();
    signer.EncryptedDigest = key.sign_digest(digest_alg, to_sign);
  }
}

// The signer named by issuer and serial number (SignerInfo version 1).
void set_signer_identifier(TElPKCS7Signer& signer, const Certificate& cert) {
  signer.Version = 1;
  signer.SubjectKeyIdentifier.clear();
  signer.SerialNumber = cert.serial();
  signer.Issuer = cert.issuer_der();
}

}  // namespace

void TElCMSSignature::Sign(const Certificate& cert, const SigningKey* key,
                           const std::vector<Certificate>& chain) {
  Bytes to_sign = PrepareSign(cert, key, chain);
  CompleteSign(cert, key, to_sign);
}

Bytes TElCMSSignature::PrepareSign(const Certificate& cert, const SigningKey* key,
                                   const std::vector<Certificate>& chain) {
  if (!key) throw EElCMSError("Private key not found");
  TElSignedCMSMessage* message = FSubject;
  if (!message) throw EElCMSError("The signature belongs to no message");
  if (FSigningOptions & csoIncludeCertToMessage)
    include_certificates(message->FCertificates, cert, chain);
  if (FSigningOptions & csoIncludeCertToAttributes)
    set_signing_certificate(FSigningCertificate, cert, FFingerprintAlgorithm, FSigningOptions);
  build_signed_attributes(*this);

  DigestAlgorithm digest_alg = GetDigestAlgorithm();
  if (digest_alg == DigestAlgorithm::Unknown)
    throw EElCMSError("Unsupported algorithm: " + std::to_string(kUnknownAlgorithm));
  Bytes content_digest = DigestContent(message->FContent.get(), digest_alg, OnProgress);
  Bytes to_sign = encode_signed_attributes(*this, content_digest, digest_alg);
  FMessageDigest = content_digest;
  check_key(*key, digest_alg);
  return to_sign;
}

void TElCMSSignature::CompleteSign(const Certificate& cert, const SigningKey* key,
                                   const Bytes& to_sign) {
  if (!key) throw EElCMSError("Private key not found");
  DigestAlgorithm digest_alg = GetDigestAlgorithm();
  KeyKind kind = key->kind();
  if (kind == KeyKind::RsaPss || (FUsePSS && kind == KeyKind::Rsa))
    sign_pss(FPKCS7Signer, cert, *key, kind, digest_alg, to_sign);
  else
    sign_without_pss(FPKCS7Signer, *key, kind, digest_alg, to_sign);
  set_signer_identifier(FPKCS7Signer, cert);
  FState = TSBCMSSignatureState::cssSigned;
}

namespace {

// ESSCertID ::= SEQUENCE { certHash OCTET STRING, issuerSerial IssuerSerial OPTIONAL };
// ESSCertIDv2 starts with an optional hashAlgorithm (SHA-256 when absent).
TElCMSSignerIdentifier read_ess_cert_id(const ByteSource& src, const BerNode& n, bool v2) {
  asn1::BerReader cert_id(src, n, asn1::kSequence, "ESSCertID");
  TElCMSSignerIdentifier id;
  id.FSignerIdentifierType =
      v2 ? TSBCMSSignerIdentifierType::sitESSCertIDV2 : TSBCMSSignerIdentifierType::sitESSCertID;
  id.FHash.FHashAlgorithm = v2 ? DigestAlgorithm::SHA256 : DigestAlgorithm::SHA1;
  if (v2) {
    if (const BerNode* alg = cert_id.read_optional(asn1::kSequence))
      id.FHash.FHashAlgorithm =
          crypto::digest_from_oid(asn1::BerReader(src, *alg).read_oid("hash algorithm"));
  }
  id.FHash.FHashValue =
      asn1::ContentBytes(src, cert_id.next(asn1::kOctetString, "certHash", "certHash"));
  if (cert_id.more()) {
    asn1::BerReader issuer_serial = cert_id.start_sequence("IssuerSerial", "IssuerSerial");
    id.FIssuer = asn1::ElementBytes(src, issuer_serial.next("issuer"));
    id.FSerialNumber = asn1::ReadIntegerBytes(src, issuer_serial.next("serial"));
  }
  return id;
}

// SigningCertificate(V2) ::= SEQUENCE { certs SEQUENCE OF ESSCertID(v2), policies OPTIONAL }
bool decode_signing_certificate(const Bytes& value, bool v2, TElCMSSigningCertificate& out) {
  try {
    Parsed p(value);
    asn1::BerReader signing_certificate(p.src, p.root, asn1::kSequence, "SigningCertificate");
    asn1::BerReader certs = signing_certificate.start_sequence("certs", "certs");
    for (const auto& c : certs.node().children)
      out.FCertIDs.push_back(read_ess_cert_id(p.src, c, v2));
    if (out.FCertIDs.empty()) return false;
    out.FValue = value;
    out.FSigningCertificateType = v2 ? TSBCMSSigningCertificateType::sctESSSigningCertificateV2
                                     : TSBCMSSigningCertificateType::sctESSSigningCertificate;
    out.FIncluded = true;
    out.FSigned = true;
    return true;
  } catch (const Exception&) {
    out.Clear();
    return false;
  }
}

}  // namespace

void TElCMSSignature::FillProperties() {
  FCustomUnsignedAttributes.clear();
  static const char* kKnownUnsigned[] = {cms_oid::kCounterSignature, cms_oid::kSignatureTimestamp};
  for (const auto& a : FPKCS7Signer.UnauthenticatedAttributes) {
    bool known = std::any_of(std::begin(kKnownUnsigned), std::end(kKnownUnsigned),
                             [&](const char* o) { return a.oid == o; });
    if (!known) FCustomUnsignedAttributes.push_back(a);
  }
  FSigningCertificate.Clear();
  FSigningTime = 0;
  FContentType.clear();
  FMessageDigest.clear();
  FCustomSignedAttributes.clear();
  for (const auto& a : FPKCS7Signer.AuthenticatedAttributes) {
    if (a.values.empty()) continue;
    const Bytes& v = a.values.front();
    try {
      if (a.oid == cms_oid::kContentType) {
        Parsed p(v);
        if (p.root.is_universal(asn1::kObjectIdentifier) && !p.root.constructed)
          FContentType = asn1::ContentBytes(p.src, p.root);
      } else if (a.oid == cms_oid::kSigningTime) {
        Parsed p(v);
        if ((p.root.is_universal(asn1::kUtcTime) || p.root.is_universal(asn1::kGeneralizedTime)) &&
            !p.root.constructed)
          FSigningTime = parse_time(p.root, asn1::ContentBytes(p.src, p.root));
      } else if (a.oid == cms_oid::kSigningCertificate) {
        decode_signing_certificate(v, false, FSigningCertificate);
      } else if (a.oid == cms_oid::kSigningCertificateV2) {
        decode_signing_certificate(v, true, FSigningCertificate);
      } else if (a.oid == cms_oid::kMessageDigest) {
        Parsed p(v);
        if (p.root.is_universal(asn1::kOctetString))
          FMessageDigest = asn1::ContentBytes(p.src, p.root);
      } else if (a.oid == cms_oid::kContentHints || a.oid == cms_oid::kContentIdentifier ||
                 a.oid == cms_oid::kSignaturePolicy || a.oid == cms_oid::kCommitmentType ||
                 a.oid == cms_oid::kSignerLocation) {
        // Recognised CAdES properties that this system only carries.
      } else {
        FCustomSignedAttributes.push_back(a);
      }
    } catch (const Exception&) {
      // A value that cannot be decoded counts as absent.
    }
  }
}

// ---- TElSignedCMSMessage ----

TElSignedCMSMessage::TElSignedCMSMessage() {
  Clear();
}
TElSignedCMSMessage::~TElSignedCMSMessage() = default;

void TElSignedCMSMessage::Clear() {
  FSignatures.clear();
  FContent.reset();
  FStream.reset();
  FCertificates.clear();
  FDigestAlgorithms.clear();
  FContentVersion = 0;
  FEContentPresent = false;
}

void TElSignedCMSMessage::CreateNew(const std::uint8_t* buffer, std::uint64_t size) {
  Clear();
  FContent = std::make_unique<TElCMSContent>();
  FContent->Init(buffer, size);
}

void TElSignedCMSMessage::CreateNew(std::shared_ptr<const ByteSource> stream, std::uint64_t offset,
                                    std::uint64_t size) {
  Clear();
  FContent = std::make_unique<TElCMSContent>();
  FContent->Init(std::move(stream), offset, size);
}

int TElSignedCMSMessage::AddSignature() {
  FSignatures.push_back(std::make_unique<TElCMSSignature>(this));
  return static_cast<int>(FSignatures.size()) - 1;
}

TElCMSSignature* TElSignedCMSMessage::GetSignature(int index) {
  if (index < 0 || index >= static_cast<int>(FSignatures.size())) return nullptr;
  return FSignatures[static_cast<std::size_t>(index)].get();
}

std::vector<Certificate> TElSignedCMSMessage::Certificates() const {
  std::vector<Certificate> out;
  for (const auto& der : FCertificates) {
    try {
      out.push_back(Certificate::from_der(der));
    } catch (const Exception&) {
      // Attribute certificates and damaged entries are not X.509 certificates.
    }
  }
  return out;
}

void TElSignedCMSMessage::Save(const std::function<void(const std::uint8_t*, std::size_t)>& sink) {
  SaveParts(sink, nullptr);
}

void TElSignedCMSMessage::SaveToFile(int out_fd, const std::string& out_name) {
  auto write_all = [&](const std::uint8_t* p, std::size_t n) {
    while (n) {
      ssize_t w = ::write(out_fd, p, n);
      if (w < 0) {
        if (errno == EINTR) continue;
        throw EInOutError("I/O error writing \"" + out_name + "\": " + std::strerror(errno));
      }
      p += w;
      n -= static_cast<std::size_t>(w);
    }
  };
  // Returns false when the kernel cannot copy between these files (the caller falls back).
  auto copy_range = [&](int in_fd, std::uint64_t offset, std::uint64_t length) {
    loff_t in_off = static_cast<loff_t>(offset);
    std::uint64_t left = length;
    while (left) {
      ssize_t n =
          ::copy_file_range(in_fd, &in_off, out_fd, nullptr,
                            static_cast<std::size_t>(std::min<std::uint64_t>(left, 1u << 30)), 0);
      if (n < 0) {
        if (errno == EINTR) continue;
        if (left == length &&
            (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP))
          return false;
        throw EInOutError("I/O error writing \"" + out_name + "\": " + std::strerror(errno));
      }
      if (n == 0) throw EElCMSError("Unexpected end of data");
      left -= static_cast<std::uint64_t>(n);
    }
    return true;
  };
  SaveParts(write_all, copy_range);
}

namespace {

// The content's pieces in order: memory as it is, streams copied inside the kernel when
// copy_range can, otherwise read through one buffer.
void write_content(const TElCMSContent& content,
                   const std::function<void(const std::uint8_t*, std::size_t)>& sink,
                   const std::function<bool(int, std::uint64_t, std::uint64_t)>& copy_range) {
  Bytes buffer;
  for (const auto& s : content.sources()) {
    if (!s.stream) {
      if (s.size) sink(s.memory, static_cast<std::size_t>(s.size));
      continue;
    }
    if (copy_range && s.stream->fd() >= 0 && copy_range(s.stream->fd(), s.offset, s.size)) continue;
    buffer.resize(1 << 20);
    for (std::uint64_t at = 0; at < s.size;) {
      std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), s.size - at));
      s.stream->read(s.offset + at, buffer.data(), n);
      sink(buffer.data(), n);
      at += n;
    }
  }
}

}  // namespace

void TElSignedCMSMessage::SaveParts(
    const std::function<void(const std::uint8_t*, std::size_t)>& sink,
    const std::function<bool(int, std::uint64_t, std::uint64_t)>& copy_range) {
  if (!sink) return;
  // SignerInfos, digest algorithms and version from the signatures.
  std::vector<Bytes> signer_infos;
  std::vector<Bytes> digest_algs;
  bool uses_ski = false;
  for (const auto& s : FSignatures) {
    signer_infos.push_back(s->FPKCS7Signer.Encode());
    Bytes alg = algorithm_identifier(s->FPKCS7Signer.DigestAlgorithm,
                                     s->FPKCS7Signer.DigestAlgorithmParams);
    if (std::find(digest_algs.begin(), digest_algs.end(), alg) == digest_algs.end())
      digest_algs.push_back(alg);
    uses_ski = uses_ski || !s->FPKCS7Signer.SubjectKeyIdentifier.empty();
  }
  Bytes content_type = FContentType.empty() ? oid_content(cms_oid::kData) : FContentType;
  std::int32_t version = FContentVersion;
  if (version == 0) version = (!uses_ski && content_type == oid_content(cms_oid::kData)) ? 1 : 3;

  Bytes version_der =
      asn1::tlv(asn1::kInteger, asn1::integer_content(static_cast<std::uint64_t>(version)));
  Bytes digest_algs_der = asn1::der_set_of(digest_algs);
  Bytes ctype_der = asn1::tlv(asn1::kObjectIdentifier, content_type);
  std::uint64_t content_size = (!FDetached && FContent) ? FContent->Size() : 0;
  bool with_content = !FDetached && FContent;
  Bytes octet_header = asn1::header(asn1::kOctetString, content_size);
  Bytes explicit_header =
      asn1::header(asn1::context_constructed(0), octet_header.size() + content_size);
  std::uint64_t encap_len =
      ctype_der.size() +
      (with_content ? explicit_header.size() + octet_header.size() + content_size : 0);
  Bytes encap_header = asn1::header(asn1::kSequence, encap_len);
  Bytes certs_der;
  if (!FCertificates.empty()) {
    Bytes certs;
    for (const auto& c : FCertificates)
      append(certs, c);
    certs_der = asn1::tlv(asn1::context_constructed(0), certs);
  }
  Bytes signers_der = asn1::der_set_of(signer_infos);
  std::uint64_t sd_len = version_der.size() + digest_algs_der.size() + encap_header.size() +
                         encap_len + certs_der.size() + signers_der.size();
  Bytes sd_header = asn1::header(asn1::kSequence, sd_len);
  Bytes explicit0 = asn1::header(asn1::context_constructed(0), sd_header.size() + sd_len);
  Bytes signed_data_oid = oid_der(cms_oid::kSignedData);
  Bytes ci_header = asn1::header(
      asn1::kSequence, signed_data_oid.size() + explicit0.size() + sd_header.size() + sd_len);

  Bytes prefix;
  for (const Bytes* b : {&ci_header, &signed_data_oid, &explicit0, &sd_header, &version_der,
                         &digest_algs_der, &encap_header, &ctype_der})
    append(prefix, *b);
  if (with_content) {
    append(prefix, explicit_header);
    append(prefix, octet_header);
  }
  sink(prefix.data(), prefix.size());
  if (with_content) write_content(*FContent, sink, copy_range);
  Bytes suffix = certs_der;
  append(suffix, signers_der);
  sink(suffix.data(), suffix.size());
}

Bytes TElSignedCMSMessage::SaveToBytes() {
  Bytes out;
  Save([&](const std::uint8_t* p, std::size_t n) { out.insert(out.end(), p, p + n); });
  return out;
}

namespace {

std::string load_error_text(int code, const std::string& reason) {
  return "Failed to load CMS message, error " + std::to_string(code) + ": " + reason;
}

// ContentInfo ::= SEQUENCE { contentType OBJECT IDENTIFIER, content [0] EXPLICIT ANY }:
// reads the type into type and leaves the reader at the content.
asn1::BerReader read_content_type(const ByteSource& src, const BerNode& root, std::string& type) {
  asn1::BerReader content_info(src, root, asn1::kSequence, "a ContentInfo SEQUENCE");
  type = content_info.read_oid("content type");
  return content_info;
}

// What the BER reader says about bytes that are no envelope, for the second line of the error.
std::string parse_failure(const ByteSource& src) {
  try {
    if (src.size() == 0) return load_error_text(asn1::kBerTruncated, "the data is empty");
    BerNode root = asn1::ParseBer(src);
    std::string type;
    read_content_type(src, root, type);
  } catch (const asn1::BerError& e) {
    return load_error_text(e.code(), e.what());
  } catch (const EInOutError& e) {
    return load_error_text(asn1::kBerTruncated, e.what());
  }
  return load_error_text(asn1::kBerUnexpected, "not a signed-data ContentInfo");
}

// A byte-range view of content: the logical offset of each piece, for binary search.
class ContentView : public ByteSource {
 public:
  explicit ContentView(const TElCMSContent& content) {
    std::uint64_t at = 0;
    for (const auto& s : content.sources()) {
      if (s.size == 0) continue;
      if (s.stream && (streams_.empty() || streams_.back() != s.stream))
        streams_.push_back(s.stream);
      pieces_.push_back({at, s.offset, s.size, s.memory, s.stream ? s.stream.get() : nullptr});
      at += s.size;
    }
    size_ = at;
  }
  std::uint64_t size() const override { return size_; }
  void read(std::uint64_t offset, void* buffer, std::size_t n) const override {
    if (offset > size_ || n > size_ - offset) throw EInOutError("read past the end of the content");
    auto* out = static_cast<std::uint8_t*>(buffer);
    auto it = std::upper_bound(pieces_.begin(), pieces_.end(), offset,
                               [](std::uint64_t o, const Piece& p) { return o < p.at; });
    for (--it; n > 0; ++it) {
      std::uint64_t within = offset - it->at;
      std::size_t k = static_cast<std::size_t>(std::min<std::uint64_t>(n, it->size - within));
      if (it->stream)
        it->stream->read(it->offset + within, out, k);
      else
        std::memcpy(out, it->memory + within, k);
      out += k;
      offset += k;
      n -= k;
    }
  }

 private:
  struct Piece {
    std::uint64_t at, offset, size;
    const std::uint8_t* memory;
    const ByteSource* stream;
  };
  std::vector<Piece> pieces_;
  std::vector<std::shared_ptr<const ByteSource>> streams_;  // keeps the sources alive
  std::uint64_t size_ = 0;
};

}  // namespace

std::shared_ptr<const ByteSource> TElSignedCMSMessage::ContentSource() const {
  if (!FContent) return std::make_shared<asn1::MemorySource>(nullptr, 0);
  return std::make_shared<ContentView>(*FContent);
}

namespace {

// The binary envelope under any text layers; input that is no envelope at all says what it
// is, and the BER reader's view of it follows on the second line.
EnvelopeInput unwrap(const std::shared_ptr<const ByteSource>& source) {
  try {
    return UnwrapEnvelopeInput(source);
  } catch (const NotAnEnvelope& e) {
    throw EElCMSError(e.sentence() + "\n" +
                      (e.detail().empty() ? parse_failure(*source)
                                          : load_error_text(asn1::kBerBadText, e.detail())));
  } catch (const EInOutError& e) {
    throw EElCMSError(load_error_text(asn1::kBerTruncated, e.what()));
  }
}

// Text that decoded to something that is no envelope says so before the load error.
std::string text_failure_line(const std::vector<std::string>& wrappings) {
  if (wrappings.empty()) return "";
  return wrappings.front().rfind("PEM", 0) == 0
             ? "PEM text that does not decode to an envelope\n"
             : "Base64 text that does not decode to an envelope\n";
}

[[noreturn]] void raise_load_error(const std::string& first_line, int code,
                                   const std::string& reason) {
  throw EElCMSError(first_line + load_error_text(code, reason));
}

// Runs read; what the BER reader or the source raises becomes the load error.
template <typename Read>
auto as_load_error(const std::string& first_line, Read read) {
  try {
    return read();
  } catch (const asn1::BerError& e) {
    raise_load_error(first_line, e.code(), e.what());
  } catch (const EInOutError& e) {
    raise_load_error(first_line, asn1::kBerTruncated, e.what());
  }
}

// The ContentInfo's reader, after its content type (in type). Data that parses but is no
// ContentInfo is named as ASN.1 data unless it came as text.
asn1::BerReader open_content_info(const ByteSource& src, const BerNode& root,
                                  std::string first_line, std::string& type) {
  try {
    return read_content_type(src, root, type);
  } catch (const asn1::BerError& e) {
    if (first_line.empty()) first_line = "this is ASN.1 data, not a CMS envelope\n";
    raise_load_error(first_line, e.code(), e.what());
  }
}

// EncapsulatedContentInfo ::= SEQUENCE { eContentType OBJECT IDENTIFIER,
//   eContent [0] EXPLICIT OCTET STRING OPTIONAL }
// The content stays in the source: the message keeps the byte ranges of its segments.
void read_encapsulated_content(asn1::BerReader encap, TElSignedCMSMessage& m,
                               const std::shared_ptr<const ByteSource>& binary) {
  const ByteSource& src = encap.source();
  const BerNode& type = encap.next("eContentType");
  asn1::ReadOid(src, type);
  m.FContentType = asn1::ContentBytes(src, type);
  m.FContent = std::make_unique<TElCMSContent>();
  m.FEContentPresent = encap.more();
  if (!m.FEContentPresent) return;
  const BerNode& octets =
      encap.start(asn1::context_constructed(0), "eContent", "[0] eContent").next("eContent");
  if (!octets.is_universal(asn1::kOctetString))
    throw asn1::BerError(asn1::kBerUnexpected, octets.offset, "eContent is not an OCTET STRING");
  std::vector<asn1::Range> ranges;
  asn1::ContentRanges(octets, ranges);
  for (const auto& r : ranges)
    m.FContent->Add(binary, r.offset, r.length);
}

void read_certificates(const ByteSource& src, const BerNode& certificates,
                       std::vector<Bytes>& out) {
  for (const auto& c : certificates.children) {
    if (c.total_length() > (16u << 20))
      throw asn1::BerError(asn1::kBerUnexpected, c.offset, "certificate too large");
    out.push_back(asn1::ElementBytes(src, c));
  }
}

// SignedData ::= SEQUENCE { version, digestAlgorithms SET OF AlgorithmIdentifier,
//   encapContentInfo, certificates [0] IMPLICIT OPTIONAL, crls [1] IMPLICIT OPTIONAL,
//   signerInfos SET OF SignerInfo }
void read_signed_data(asn1::BerReader sd, TElSignedCMSMessage& m,
                      const std::shared_ptr<const ByteSource>& binary) {
  const ByteSource& src = sd.source();
  m.FContentVersion = static_cast<std::int32_t>(sd.read_small_integer("version"));
  asn1::BerReader algs = sd.start_set("digestAlgorithms", "digestAlgorithms SET");
  for (const auto& a : algs.node().children)
    m.FDigestAlgorithms.push_back(asn1::BerReader(src, a).read_oid("digest algorithm"));
  read_encapsulated_content(sd.start_sequence("encapContentInfo", "encapContentInfo SEQUENCE"), m,
                            binary);
  if (const BerNode* certificates = sd.read_optional(asn1::context_constructed(0)))
    read_certificates(src, *certificates, m.FCertificates);
  sd.read_optional(asn1::context_constructed(1));  // CRLs are not used
  asn1::BerReader signers = sd.start_set("signerInfos", "signerInfos SET");
  for (const auto& si : signers.node().children) {
    auto sig = std::make_unique<TElCMSSignature>(&m);
    ReadSignerInfo(src, si, sig->FPKCS7Signer);
    sig->FState = TSBCMSSignatureState::cssSigned;
    sig->FSigningOptions = kReadSignatureOptions;
    sig->FillProperties();
    m.FSignatures.push_back(std::move(sig));
  }
}

}  // namespace

void TElSignedCMSMessage::Open(std::shared_ptr<const ByteSource> source) {
  Clear();
  EnvelopeInput input = unwrap(source);
  FInputForm.wrappings = input.wrappings;
  const std::string first_line = text_failure_line(input.wrappings);
  const ByteSource& src = *input.binary;
  asn1::BerEncodingInfo encoding;
  BerNode root = as_load_error(first_line, [&] {
    if (src.size() == 0) throw asn1::BerError(asn1::kBerTruncated, 0, "the data is empty");
    return asn1::ParseBer(src, 0, {}, &encoding);
  });
  FInputForm.ber = !encoding.der();
  std::string content_type;
  asn1::BerReader content_info = open_content_info(src, root, first_line, content_type);
  if (content_type != cms_oid::kSignedData) throw EElCMSError("No signed data found");
  as_load_error(first_line, [&] {
    read_signed_data(content_info.start(asn1::context_constructed(0), "content", "[0] content")
                         .start_sequence("SignedData", "a SignedData SEQUENCE"),
                     *this, input.binary);
  });
  FStream = std::move(input.binary);
  FDetached = FContent->Size() == 0;
}

namespace {

// SignerIdentifier ::= CHOICE { issuerAndSerialNumber SEQUENCE { issuer Name,
//   serialNumber INTEGER }, subjectKeyIdentifier [0] OCTET STRING }
void read_signer_identifier(const ByteSource& src, const BerNode& sid, TElPKCS7Signer& s) {
  if (sid.is_universal(asn1::kTagSequence)) {
    asn1::BerReader issuer_and_serial(src, sid);
    s.Issuer = asn1::ElementBytes(src, issuer_and_serial.next("issuer"));
    s.SerialNumber = asn1::ReadIntegerBytes(src, issuer_and_serial.next("serialNumber"));
  } else if (sid.is_context(0)) {
    s.SubjectKeyIdentifier = asn1::ContentBytes(src, sid, 1024);
  } else {
    throw asn1::BerError(asn1::kBerUnexpected, sid.offset, "signer identifier expected");
  }
}

// AlgorithmIdentifier ::= SEQUENCE { algorithm OBJECT IDENTIFIER, parameters ANY OPTIONAL }
void read_algorithm(const ByteSource& src, const BerNode& n, const char* name, std::string& oid,
                    Bytes& params) {
  asn1::BerReader algorithm(src, n);
  oid = algorithm.read_oid(name);
  if (algorithm.more()) params = asn1::ElementBytes(src, algorithm.next(name));
}

// The signed attributes as read, and the bytes their signature covers: as stored (with the
// SET tag in place of [0]) and, when that differs, as DER.
void read_signed_attributes(const ByteSource& src, const BerNode& n, TElPKCS7Signer& s) {
  if (n.total_length() > (16u << 20))
    throw asn1::BerError(asn1::kBerUnexpected, n.offset, "signed attributes too large");
  s.AuthenticatedAttributes = read_attributes(src, n);
  std::vector<Bytes> der;
  for (const auto& c : n.children)
    der.push_back(asn1::ToDer(src, c));
  Bytes der_set = asn1::der_set_of(std::move(der), asn1::kSet);
  if (n.indefinite) {
    // No signer hashes an indefinite length: the DER form is the only candidate.
    s.AuthenticatedAttributesPlain = der_set;
  } else {
    s.AuthenticatedAttributesPlain = asn1::ElementBytes(src, n);
    s.AuthenticatedAttributesPlain[0] = asn1::kSet;
    if (der_set != s.AuthenticatedAttributesPlain) s.AuthenticatedAttributesDer = der_set;
  }
}

}  // namespace

// SignerInfo ::= SEQUENCE { version, sid, digestAlgorithm, signedAttrs [0] IMPLICIT OPTIONAL,
//   signatureAlgorithm, signature OCTET STRING, unsignedAttrs [1] IMPLICIT OPTIONAL }
void ReadSignerInfo(const ByteSource& src, const BerNode& si, TElPKCS7Signer& s) {
  asn1::BerReader signer_info(src, si, asn1::kSequence, "a SignerInfo SEQUENCE");
  s.Version = static_cast<int>(signer_info.read_small_integer("version"));
  read_signer_identifier(src, signer_info.next("sid"), s);
  read_algorithm(src, signer_info.next("digestAlgorithm"), "digest algorithm", s.DigestAlgorithm,
                 s.DigestAlgorithmParams);
  if (const BerNode* signed_attrs = signer_info.read_optional(asn1::context_constructed(0)))
    read_signed_attributes(src, *signed_attrs, s);
  read_algorithm(src, signer_info.next("signatureAlgorithm"), "signature algorithm",
                 s.DigestEncryptionAlgorithm, s.DigestEncryptionAlgorithmParams);
  const BerNode& value = signer_info.next("signature");
  if (!value.is_universal(asn1::kOctetString))
    throw asn1::BerError(asn1::kBerUnexpected, value.offset, "signature value expected");
  s.EncryptedDigest = asn1::ContentBytes(src, value, 1 << 16);
  if (const BerNode* unsigned_attrs = signer_info.read_optional(asn1::context_constructed(1)))
    s.UnauthenticatedAttributes = read_attributes(src, *unsigned_attrs);
}

}  // namespace tessarel
