#include "cms/cms.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

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

const BerNode& child(const BerNode& n, std::size_t i, const char* what) {
  if (!n.constructed || i >= n.children.size())
    throw asn1::BerError(asn1::kBerUnexpected, n.offset, std::string("missing ") + what);
  return n.children[i];
}

void expect(const BerNode& n, std::uint8_t cls, std::uint32_t number, bool constructed,
            const char* what) {
  if (n.tag_class != cls || n.tag_number != number || n.constructed != constructed)
    throw asn1::BerError(asn1::kBerUnexpected, n.offset, std::string(what) + " expected");
}

TElPKCS7Attribute read_attribute(const ByteSource& src, const BerNode& n) {
  expect(n, 0, 16, true, "an Attribute SEQUENCE");
  TElPKCS7Attribute a;
  a.oid = asn1::ReadOid(src, child(n, 0, "attribute type"));
  const BerNode& set = child(n, 1, "attribute values");
  expect(set, 0, 17, true, "a SET of attribute values");
  for (const auto& v : set.children) {
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
    if (!p.root.is_universal(16)) return p.root.is_universal(asn1::kNull);
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

  if (FSigningOptions & csoIncludeCertToMessage) {
    auto add = [&](const Certificate& c) {
      if (std::find(message->FCertificates.begin(), message->FCertificates.end(), c.der()) ==
          message->FCertificates.end())
        message->FCertificates.push_back(c.der());
    };
    add(cert);
    for (const auto& c : chain)
      add(c);
  }

  if (FSigningOptions & csoIncludeCertToAttributes) {
    FSigningCertificate.Clear();
    TElCMSSignerIdentifier id;
    id.FSerialNumber = cert.serial();
    id.FHash.FHashAlgorithm = FFingerprintAlgorithm;
    if (FFingerprintAlgorithm == DigestAlgorithm::SHA1) {
      id.FSignerIdentifierType = TSBCMSSignerIdentifierType::sitESSCertID;
      FSigningCertificate.FSigningCertificateType =
          TSBCMSSigningCertificateType::sctESSSigningCertificate;
    } else if (FSigningOptions & csoForceSigningCertificateV2Usage) {
      id.FSignerIdentifierType = TSBCMSSignerIdentifierType::sitESSCertIDV2;
      FSigningCertificate.FSigningCertificateType =
          TSBCMSSigningCertificateType::sctESSSigningCertificateV2;
    } else {
      id.FSignerIdentifierType = TSBCMSSignerIdentifierType::sitOtherCertID;
      FSigningCertificate.FSigningCertificateType =
          TSBCMSSigningCertificateType::sctOtherSigningCertificate;
    }
    id.FHash.FHashValue = cert.fingerprint(FFingerprintAlgorithm);
    // GeneralNames holding one directoryName: [4] EXPLICIT Name.
    id.FIssuer =
        asn1::tlv(asn1::kSequence, asn1::tlv(asn1::context_constructed(4), cert.issuer_der()));
    FSigningCertificate.FCertIDs.push_back(id);
    FSigningCertificate.FIncluded = true;
    FSigningCertificate.FSigned = true;
  }

  // Signed attributes, replacing whatever the signer held.
  auto& attrs = FPKCS7Signer.AuthenticatedAttributes;
  attrs.clear();
  if (FSigningOptions & csoInsertSigningTime)
    attrs.push_back({cms_oid::kSigningTime,
                     {encode_signing_time(FSigningTime,
                                          (FSigningOptions & csoUseGeneralizedTimeFormat) != 0)}});
  if (FSigningOptions & csoInsertContentType)
    attrs.push_back(
        {cms_oid::kContentType,
         {asn1::tlv(asn1::kObjectIdentifier,
                    FContentType.empty() ? oid_content(cms_oid::kData) : FContentType)}});
  if (FSigningCertificate.FIncluded &&
      FSigningCertificate.FSigningCertificateType !=
          TSBCMSSigningCertificateType::sctOtherSigningCertificate) {
    Bytes ids;
    for (const auto& id : FSigningCertificate.FCertIDs) {
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
    FSigningCertificate.FValue = asn1::tlv(asn1::kSequence, asn1::tlv(asn1::kSequence, ids));
    bool v2 = FSigningCertificate.FSigningCertificateType ==
              TSBCMSSigningCertificateType::sctESSSigningCertificateV2;
    attrs.push_back({v2 ? cms_oid::kSigningCertificateV2 : cms_oid::kSigningCertificate,
                     {FSigningCertificate.FValue}});
  }
  for (const auto& a : FCustomSignedAttributes)
    attrs.push_back(a);
  FPKCS7Signer.RecalculateAuthenticatedAttributes();

  DigestAlgorithm digest_alg = GetDigestAlgorithm();
  if (digest_alg == DigestAlgorithm::Unknown)
    throw EElCMSError("Unsupported algorithm: " + std::to_string(0x7FFF));
  Bytes content_digest = DigestContent(message->FContent.get(), digest_alg, OnProgress);

  Bytes to_sign = content_digest;
  if (!attrs.empty() || (FSigningOptions & csoInsertMessageDigests)) {
    TElPKCS7Attribute md{cms_oid::kMessageDigest, {asn1::tlv(asn1::kOctetString, content_digest)}};
    auto existing = std::find_if(attrs.begin(), attrs.end(),
                                 [](const auto& a) { return a.oid == cms_oid::kMessageDigest; });
    if (existing != attrs.end())
      *existing = md;
    else
      attrs.push_back(md);
    FPKCS7Signer.RecalculateAuthenticatedAttributes();
    to_sign = crypto::digest(digest_alg, FPKCS7Signer.AuthenticatedAttributesPlain);
  }
  FMessageDigest = content_digest;

  KeyKind kind = key->kind();
  if (kind == KeyKind::Dsa) {
    DigestAlgorithm dsa_hash =
        key->bits() <= 1024 ? DigestAlgorithm::SHA1 : DigestAlgorithm::SHA256;
    if (digest_alg != dsa_hash) throw EElCMSError("Invalid hash algorithm");
  }
  if (kind != KeyKind::Rsa && kind != KeyKind::RsaPss && kind != KeyKind::Ec &&
      kind != KeyKind::Dsa)
    throw EElCMSError("Unsupported algorithm: " + std::to_string(static_cast<int>(kind)));
  return to_sign;
}

void TElCMSSignature::CompleteSign(const Certificate& cert, const SigningKey* key,
                                   const Bytes& to_sign) {
  if (!key) throw EElCMSError("Private key not found");
  DigestAlgorithm digest_alg = GetDigestAlgorithm();
  KeyKind kind = key->kind();

  // An RSA-PSS key (its certificate says id-RSASSA-PSS) signs only with PSS, with the
  // parameters its certificate fixes; an RSA key does when asked to. Without parameters:
  // MGF1 with the digest algorithm and a salt as long as the digest.
  if (kind == KeyKind::RsaPss || (FUsePSS && kind == KeyKind::Rsa)) {
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
    FPKCS7Signer.EncryptedDigest = key->sign_digest_pss(digest_alg, to_sign, mgf, salt);
    FPKCS7Signer.DigestEncryptionAlgorithm = cms_oid::kRsaPss;
    FPKCS7Signer.DigestEncryptionAlgorithmParams = EncodePssParams(hash, mgf, salt);
  } else if (kind == KeyKind::Rsa) {
    FPKCS7Signer.EncryptedDigest = key->sign_digest(digest_alg, to_sign);
    FPKCS7Signer.DigestEncryptionAlgorithm = cms_oid::kRsaEncryption;
    FPKCS7Signer.DigestEncryptionAlgorithmParams = {asn1::kNull, 0x00};
  } else if (kind == KeyKind::Dsa) {
    FPKCS7Signer.EncryptedDigest = key->sign_digest(digest_alg, to_sign);
    FPKCS7Signer.DigestEncryptionAlgorithm = cms_oid::kDsa;
    FPKCS7Signer.DigestEncryptionAlgorithmParams.clear();
  } else {
    static const std::pair<DigestAlgorithm, const char*> kEcdsa[] = {
        {DigestAlgorithm::SHA1, "1.2.840.10045.4.1"},
        {DigestAlgorithm::SHA224, "1.2.840.10045.4.3.1"},
        {DigestAlgorithm::SHA256, "1.2.840.10045.4.3.2"},
        {DigestAlgorithm::SHA384, "1.2.840.10045.4.3.3"},
        {DigestAlgorithm::SHA512, "1.2.840.10045.4.3.4"}};
    FPKCS7Signer.DigestEncryptionAlgorithm.clear();
    for (const auto& [d, o] : kEcdsa)
      if (d == digest_alg) FPKCS7Signer.DigestEncryptionAlgorithm = o;
    if (FPKCS7Signer.DigestEncryptionAlgorithm.empty()) throw EElCMSError("Invalid hash algorithm");
    FPKCS7Signer.DigestEncryptionAlgorithmParams.clear();
    FPKCS7Signer.EncryptedDigest = key->sign_digest(digest_alg, to_sign);
  }
  FPKCS7Signer.Version = 1;
  FPKCS7Signer.SubjectKeyIdentifier.clear();
  FPKCS7Signer.SerialNumber = cert.serial();
  FPKCS7Signer.Issuer = cert.issuer_der();
  FState = TSBCMSSignatureState::cssSigned;
}

namespace {

bool decode_signing_certificate(const Bytes& value, bool v2, TElCMSSigningCertificate& out) {
  try {
    Parsed p(value);
    const BerNode& root = p.root;
    expect(root, 0, 16, true, "SigningCertificate");
    const BerNode& certs = child(root, 0, "certs");
    expect(certs, 0, 16, true, "certs");
    for (const auto& c : certs.children) {
      expect(c, 0, 16, true, "ESSCertID");
      TElCMSSignerIdentifier id;
      id.FSignerIdentifierType = v2 ? TSBCMSSignerIdentifierType::sitESSCertIDV2
                                    : TSBCMSSignerIdentifierType::sitESSCertID;
      std::size_t i = 0;
      id.FHash.FHashAlgorithm = v2 ? DigestAlgorithm::SHA256 : DigestAlgorithm::SHA1;
      if (v2 && child(c, 0, "certHash").is_universal(16)) {
        id.FHash.FHashAlgorithm = crypto::digest_from_oid(
            asn1::ReadOid(p.src, child(c.children[0], 0, "hash algorithm")));
        i = 1;
      }
      const BerNode& hash = child(c, i, "certHash");
      expect(hash, 0, asn1::kOctetString, false, "certHash");
      id.FHash.FHashValue = asn1::ContentBytes(p.src, hash);
      if (i + 1 < c.children.size()) {
        const BerNode& is = c.children[i + 1];
        expect(is, 0, 16, true, "IssuerSerial");
        id.FIssuer = asn1::ElementBytes(p.src, child(is, 0, "issuer"));
        id.FSerialNumber = asn1::ReadIntegerBytes(p.src, child(is, 1, "serial"));
      }
      out.FCertIDs.push_back(id);
    }
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
  if (with_content) {
    Bytes buffer;
    for (const auto& s : FContent->sources()) {
      if (!s.stream) {
        if (s.size) sink(s.memory, static_cast<std::size_t>(s.size));
        continue;
      }
      if (copy_range && s.stream->fd() >= 0 && copy_range(s.stream->fd(), s.offset, s.size))
        continue;
      buffer.resize(1 << 20);
      for (std::uint64_t at = 0; at < s.size;) {
        std::size_t n =
            static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), s.size - at));
        s.stream->read(s.offset + at, buffer.data(), n);
        sink(buffer.data(), n);
        at += n;
      }
    }
  }
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

// What the BER reader says about bytes that are no envelope, for the second line of the error.
std::string parse_failure(const ByteSource& src) {
  try {
    if (src.size() == 0) return load_error_text(asn1::kBerTruncated, "the data is empty");
    BerNode root = asn1::ParseBer(src);
    expect(root, 0, 16, true, "a ContentInfo SEQUENCE");
    asn1::ReadOid(src, child(root, 0, "content type"));
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

void TElSignedCMSMessage::Open(std::shared_ptr<const ByteSource> source) {
  Clear();
  EnvelopeInput input;
  try {
    input = UnwrapEnvelopeInput(source);
  } catch (const NotAnEnvelope& e) {
    throw EElCMSError(e.sentence() + "\n" +
                      (e.detail().empty() ? parse_failure(*source)
                                          : load_error_text(asn1::kBerBadText, e.detail())));
  } catch (const EInOutError& e) {
    throw EElCMSError(load_error_text(asn1::kBerTruncated, e.what()));
  }
  FInputForm.wrappings = input.wrappings;
  // Text that decoded to something that is no envelope says so first.
  std::string first_line;
  if (!input.wrappings.empty())
    first_line = input.wrappings.front().rfind("PEM", 0) == 0
                     ? "PEM text that does not decode to an envelope\n"
                     : "Base64 text that does not decode to an envelope\n";
  auto fail = [&](int code, const std::string& reason) {
    throw EElCMSError(first_line + load_error_text(code, reason));
  };
  const ByteSource& src = *input.binary;
  asn1::BerEncodingInfo encoding;
  BerNode root;
  try {
    if (src.size() == 0) throw asn1::BerError(asn1::kBerTruncated, 0, "the data is empty");
    root = asn1::ParseBer(src, 0, {}, &encoding);
  } catch (const asn1::BerError& e) {
    fail(e.code(), e.what());
  } catch (const EInOutError& e) {
    fail(asn1::kBerTruncated, e.what());
  }
  FInputForm.ber = !encoding.der();
  std::string content_type;
  try {
    expect(root, 0, 16, true, "a ContentInfo SEQUENCE");
    content_type = asn1::ReadOid(src, child(root, 0, "content type"));
  } catch (const asn1::BerError& e) {
    if (first_line.empty()) first_line = "this is ASN.1 data, not a CMS envelope\n";
    fail(e.code(), e.what());
  }
  if (content_type != cms_oid::kSignedData) throw EElCMSError("No signed data found");
  try {
    const BerNode& explicit0 = child(root, 1, "content");
    expect(explicit0, 2, 0, true, "[0] content");
    const BerNode& sd = child(explicit0, 0, "SignedData");
    expect(sd, 0, 16, true, "a SignedData SEQUENCE");
    FContentVersion =
        static_cast<std::int32_t>(asn1::ReadSmallInteger(src, child(sd, 0, "version")));
    const BerNode& algs = child(sd, 1, "digestAlgorithms");
    expect(algs, 0, 17, true, "digestAlgorithms SET");
    for (const auto& a : algs.children)
      FDigestAlgorithms.push_back(asn1::ReadOid(src, child(a, 0, "digest algorithm")));
    const BerNode& encap = child(sd, 2, "encapContentInfo");
    expect(encap, 0, 16, true, "encapContentInfo SEQUENCE");
    const BerNode& etype = child(encap, 0, "eContentType");
    asn1::ReadOid(src, etype);
    FContentType = asn1::ContentBytes(src, etype);
    FContent = std::make_unique<TElCMSContent>();
    FEContentPresent = encap.children.size() > 1;
    if (FEContentPresent) {
      const BerNode& e0 = encap.children[1];
      expect(e0, 2, 0, true, "[0] eContent");
      const BerNode& octets = child(e0, 0, "eContent");
      if (!octets.is_universal(asn1::kOctetString))
        throw asn1::BerError(asn1::kBerUnexpected, octets.offset,
                             "eContent is not an OCTET STRING");
      std::vector<asn1::Range> ranges;
      asn1::ContentRanges(octets, ranges);
      for (const auto& r : ranges)
        FContent->Add(input.binary, r.offset, r.length);
    }
    std::size_t i = 3;
    if (i < sd.children.size() && sd.children[i].is_context(0)) {
      for (const auto& c : sd.children[i].children) {
        if (c.total_length() > (16u << 20))
          throw asn1::BerError(asn1::kBerUnexpected, c.offset, "certificate too large");
        FCertificates.push_back(asn1::ElementBytes(src, c));
      }
      ++i;
    }
    if (i < sd.children.size() && sd.children[i].is_context(1)) ++i;  // CRLs are not used
    const BerNode& signers = child(sd, i, "signerInfos");
    expect(signers, 0, 17, true, "signerInfos SET");
    for (const auto& si : signers.children) {
      auto sig = std::make_unique<TElCMSSignature>(this);
      ReadSignerInfo(src, si, sig->FPKCS7Signer);
      sig->FState = TSBCMSSignatureState::cssSigned;
      sig->FSigningOptions = kReadSignatureOptions;
      sig->FillProperties();
      FSignatures.push_back(std::move(sig));
    }
  } catch (const asn1::BerError& e) {
    fail(e.code(), e.what());
  } catch (const EInOutError& e) {
    fail(asn1::kBerTruncated, e.what());
  }
  FStream = std::move(input.binary);
  FDetached = FContent->Size() == 0;
}

void ReadSignerInfo(const ByteSource& src, const BerNode& si, TElPKCS7Signer& s) {
  expect(si, 0, 16, true, "a SignerInfo SEQUENCE");
  std::size_t k = 0;
  s.Version = static_cast<int>(asn1::ReadSmallInteger(src, child(si, k++, "version")));
  const BerNode& sid = child(si, k++, "sid");
  if (sid.is_universal(16)) {
    s.Issuer = asn1::ElementBytes(src, child(sid, 0, "issuer"));
    s.SerialNumber = asn1::ReadIntegerBytes(src, child(sid, 1, "serialNumber"));
  } else if (sid.is_context(0)) {
    s.SubjectKeyIdentifier = asn1::ContentBytes(src, sid, 1024);
  } else {
    throw asn1::BerError(asn1::kBerUnexpected, sid.offset, "signer identifier expected");
  }
  const BerNode& dalg = child(si, k++, "digestAlgorithm");
  s.DigestAlgorithm = asn1::ReadOid(src, child(dalg, 0, "digest algorithm"));
  if (dalg.children.size() > 1) s.DigestAlgorithmParams = asn1::ElementBytes(src, dalg.children[1]);
  const BerNode* next = &child(si, k++, "signatureAlgorithm");
  if (next->is_context(0)) {
    if (next->total_length() > (16u << 20))
      throw asn1::BerError(asn1::kBerUnexpected, next->offset, "signed attributes too large");
    s.AuthenticatedAttributes = read_attributes(src, *next);
    std::vector<Bytes> der;
    for (const auto& c : next->children)
      der.push_back(asn1::ToDer(src, c));
    Bytes der_set = asn1::der_set_of(std::move(der), asn1::kSet);
    if (next->indefinite) {
      // No signer hashes an indefinite length: the DER form is the only candidate.
      s.AuthenticatedAttributesPlain = der_set;
    } else {
      s.AuthenticatedAttributesPlain = asn1::ElementBytes(src, *next);
      s.AuthenticatedAttributesPlain[0] = asn1::kSet;
      if (der_set != s.AuthenticatedAttributesPlain) s.AuthenticatedAttributesDer = der_set;
    }
    next = &child(si, k++, "signatureAlgorithm");
  }
  s.DigestEncryptionAlgorithm = asn1::ReadOid(src, child(*next, 0, "signature algorithm"));
  if (next->children.size() > 1)
    s.DigestEncryptionAlgorithmParams = asn1::ElementBytes(src, next->children[1]);
  const BerNode& value = child(si, k++, "signature");
  if (!value.is_universal(asn1::kOctetString))
    throw asn1::BerError(asn1::kBerUnexpected, value.offset, "signature value expected");
  s.EncryptedDigest = asn1::ContentBytes(src, value, 1 << 16);
  if (k < si.children.size() && si.children[k].is_context(1))
    s.UnauthenticatedAttributes = read_attributes(src, si.children[k]);
}

}  // namespace tessarel
