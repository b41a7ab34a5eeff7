#include "cms/cms_verify.h"

#include <algorithm>
#include <cstring>
#include <map>

#include "cms/cades.h"
#include "platform/asn1/der.h"
#include "platform/crypto/digest.h"
#include "platform/crypto/pkey.h"
#include "platform/crypto/trust.h"
#include "platform/runtime/datetime.h"

namespace tessarel {

namespace {

using asn1::BerNode;

// Countersignatures of countersignatures and timestamps inside timestamps stop here.
constexpr int kMaxDepth = 4;
// Pure EdDSA without signed attributes signs the content itself, which must then be held
// in memory; beyond this it is not attempted.
constexpr std::uint64_t kMaxWholeContent = 64u << 20;

struct ParsedValue {
  Bytes bytes;
  asn1::MemorySource src;
  BerNode root;
  explicit ParsedValue(Bytes b) : bytes(std::move(b)), src(bytes), root(asn1::ParseBer(src)) {}
};

// A source that owns its bytes (a timestamp token taken from an attribute).
class OwnedBytesSource : public asn1::ByteSource {
 public:
  explicit OwnedBytesSource(Bytes b) : bytes_(std::move(b)) {}
  std::uint64_t size() const override { return bytes_.size(); }
  void read(std::uint64_t offset, void* buffer, std::size_t n) const override {
    asn1::MemorySource(bytes_).read(offset, buffer, n);
  }
  const std::uint8_t* data() const override { return bytes_.data(); }

 private:
  Bytes bytes_;
};

enum class Family { Rsa, RsaPss, Ecdsa, Dsa, Ed25519, Ed448 };

struct SignatureAlgorithm {
  const char* oid;
  Family family;
  DigestAlgorithm hash;  // Unknown: the signer's digest algorithm (or the PSS parameters)
};

const SignatureAlgorithm* find_signature_algorithm(const std::string& oid) {
  using D = DigestAlgorithm;
  static const SignatureAlgorithm kAlgorithms[] = {
      {"1.2.840.113549.1.1.1", Family::Rsa, D::Unknown},
      {"1.2.840.113549.1.1.4", Family::Rsa, D::MD5},
      {"1.2.840.113549.1.1.5", Family::Rsa, D::SHA1},
      {"1.3.14.3.2.29", Family::Rsa, D::SHA1},
      {"1.2.840.113549.1.1.14", Family::Rsa, D::SHA224},
      {"1.2.840.113549.1.1.11", Family::Rsa, D::SHA256},
      {"1.2.840.113549.1.1.12", Family::Rsa, D::SHA384},
      {"1.2.840.113549.1.1.13", Family::Rsa, D::SHA512},
      {"2.16.840.1.101.3.4.3.13", Family::Rsa, D::SHA3_224},
      {"2.16.840.1.101.3.4.3.14", Family::Rsa, D::SHA3_256},
      {"2.16.840.1.101.3.4.3.15", Family::Rsa, D::SHA3_384},
      {"2.16.840.1.101.3.4.3.16", Family::Rsa, D::SHA3_512},
      {"1.2.840.113549.1.1.10", Family::RsaPss, D::Unknown},
      {"1.2.840.10045.2.1", Family::Ecdsa, D::Unknown},  // the key OID, as some signers write
      {"1.2.840.10045.4.1", Family::Ecdsa, D::SHA1},
      {"1.2.840.10045.4.3.1", Family::Ecdsa, D::SHA224},
      {"1.2.840.10045.4.3.2", Family::Ecdsa, D::SHA256},
      {"1.2.840.10045.4.3.3", Family::Ecdsa, D::SHA384},
      {"1.2.840.10045.4.3.4", Family::Ecdsa, D::SHA512},
      {"2.16.840.1.101.3.4.3.9", Family::Ecdsa, D::SHA3_224},
      {"2.16.840.1.101.3.4.3.10", Family::Ecdsa, D::SHA3_256},
      {"2.16.840.1.101.3.4.3.11", Family::Ecdsa, D::SHA3_384},
      {"2.16.840.1.101.3.4.3.12", Family::Ecdsa, D::SHA3_512},
      {"1.2.840.10040.4.1", Family::Dsa, D::Unknown},
      {"1.2.840.10040.4.3", Family::Dsa, D::SHA1},
      {"2.16.840.1.101.3.4.3.1", Family::Dsa, D::SHA224},
      {"2.16.840.1.101.3.4.3.2", Family::Dsa, D::SHA256},
      {"2.16.840.1.101.3.4.3.3", Family::Dsa, D::SHA384},
      {"2.16.840.1.101.3.4.3.4", Family::Dsa, D::SHA512},
      {"2.16.840.1.101.3.4.3.5", Family::Dsa, D::SHA3_224},
      {"2.16.840.1.101.3.4.3.6", Family::Dsa, D::SHA3_256},
      {"2.16.840.1.101.3.4.3.7", Family::Dsa, D::SHA3_384},
      {"2.16.840.1.101.3.4.3.8", Family::Dsa, D::SHA3_512},
      {"1.3.101.112", Family::Ed25519, D::Unknown},
      {"1.3.101.113", Family::Ed448, D::Unknown},
  };
  for (const auto& a : kAlgorithms)
    if (oid == a.oid) return &a;
  return nullptr;
}

bool key_fits(Family f, KeyKind k) {
  switch (f) {
    case Family::Rsa:
      return k == KeyKind::Rsa;
    case Family::RsaPss:
      return k == KeyKind::Rsa || k == KeyKind::RsaPss;
    case Family::Ecdsa:
      return k == KeyKind::Ec;
    case Family::Dsa:
      return k == KeyKind::Dsa;
    case Family::Ed25519:
      return k == KeyKind::Ed25519;
    case Family::Ed448:
      return k == KeyKind::Ed448;
  }
  return false;
}

// RSASSA-PSS-params (RFC 4055): hash, MGF1 and its hash, salt length, trailer field; the
// defaults are SHA-1, MGF1 with SHA-1, 20 and 1. unknown receives the OID of a part this
// system does not have.
struct PssParams {
  DigestAlgorithm hash = DigestAlgorithm::SHA1;
  DigestAlgorithm mgf = DigestAlgorithm::SHA1;
  int salt = 20;
};
bool pss_params(const Bytes& params, PssParams& out, std::string& unknown) {
  if (params.empty()) return true;
  try {
    ParsedValue p(params);
    if (!p.root.is_universal(16)) return p.root.is_universal(asn1::kNull);
    for (const auto& f : p.root.children) {
      if (f.tag_class != 2 || f.tag_number > 3 || f.children.empty()) return false;
      const BerNode& inner = f.children[0];
      if (f.tag_number == 0) {
        std::string oid = asn1::ReadOid(p.src, inner.children.at(0));
        out.hash = crypto::digest_from_oid(oid);
        if (out.hash == DigestAlgorithm::Unknown) unknown = oid;
      } else if (f.tag_number == 1) {
        std::string mgf = asn1::ReadOid(p.src, inner.children.at(0));
        if (mgf != cms_oid::kMgf1) {
          unknown = mgf;
          return true;
        }
        std::string oid = asn1::ReadOid(p.src, inner.children.at(1).children.at(0));
        out.mgf = crypto::digest_from_oid(oid);
        if (out.mgf == DigestAlgorithm::Unknown) unknown = oid;
      } else if (f.tag_number == 2) {
        out.salt = static_cast<int>(asn1::ReadSmallInteger(p.src, inner));
      } else if (asn1::ReadSmallInteger(p.src, inner) != 1) {
        return false;  // the only trailer field there is, 0xBC, is 1
      }
    }
    return out.salt >= 0;
  } catch (const std::exception&) {
    return false;
  }
}

// What a signer signed: the envelope's content, or (for a countersignature) the value of
// the signature it countersigns. Digests are computed once per algorithm.
class SignedData {
 public:
  virtual ~SignedData() = default;
  virtual bool present() const = 0;
  virtual Bytes digest(DigestAlgorithm alg) = 0;
  // The whole data, when it is at most max bytes.
  virtual std::optional<Bytes> whole(std::uint64_t max) = 0;
};

class ContentData : public SignedData {
 public:
  explicit ContentData(const TElCMSContent* content) : content_(content) {}
  bool present() const override { return content_ != nullptr; }
  Bytes digest(DigestAlgorithm alg) override {
    auto it = cache_.find(alg);
    if (it == cache_.end()) it = cache_.emplace(alg, DigestContent(content_, alg)).first;
    return it->second;
  }
  std::optional<Bytes> whole(std::uint64_t max) override {
    if (content_->Size() > max) return std::nullopt;
    Bytes b(static_cast<std::size_t>(content_->Size()));
    if (content_->Read(b.data(), b.size(), 0) != b.size()) return std::nullopt;
    return b;
  }

 private:
  const TElCMSContent* content_;
  std::map<DigestAlgorithm, Bytes> cache_;
};

class BytesData : public SignedData {
 public:
  explicit BytesData(const Bytes& b) : bytes_(b) {}
  bool present() const override { return true; }
  Bytes digest(DigestAlgorithm alg) override { return crypto::digest(alg, bytes_); }
  std::optional<Bytes> whole(std::uint64_t) override { return bytes_; }

 private:
  const Bytes& bytes_;
};

std::optional<Certificate> find_certificate(const std::vector<Certificate>& certs,
                                            const TElPKCS7Signer& s) {
  for (const Certificate& c : certs) {
    if (!s.SubjectKeyIdentifier.empty()) {
      if (c.subject_key_identifier() == s.SubjectKeyIdentifier) return c;
    } else if (c.serial() == s.SerialNumber && Certificate::same_name(c.issuer_der(), s.Issuer)) {
      return c;
    }
  }
  return std::nullopt;
}

// Whether two contents hold the same bytes, read in blocks.
bool same_content(const TElCMSContent& a, const TElCMSContent& b) {
  if (a.Size() != b.Size()) return false;
  constexpr std::size_t kBlock = 1 << 20;
  Bytes x(kBlock), y(kBlock);
  for (std::uint64_t at = 0; at < a.Size();) {
    std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(kBlock, a.Size() - at));
    if (a.Read(x.data(), n, at) != n || b.Read(y.data(), n, at) != n) return false;
    if (std::memcmp(x.data(), y.data(), n) != 0) return false;
    at += n;
  }
  return true;
}

// "YYYYMMDDhhmmss[.fff]Z" (GeneralizedTime as RFC 3161 writes genTime).
std::optional<std::chrono::sys_seconds> generalized_time(const Bytes& text) {
  std::string s(text.begin(), text.end());
  if (s.size() < 15 || s.back() != 'Z') return std::nullopt;
  int v[6] = {};
  const int widths[6] = {4, 2, 2, 2, 2, 2};
  std::size_t at = 0;
  for (int i = 0; i < 6; ++i) {
    for (int k = 0; k < widths[i]; ++k, ++at) {
      if (s[at] < '0' || s[at] > '9') return std::nullopt;
      v[i] = v[i] * 10 + (s[at] - '0');
    }
  }
  try {
    return SysFromDateTime(EncodeDateTime({v[0], v[1], v[2], v[3], v[4], v[5], 0}));
  } catch (const Exception&) {
    return std::nullopt;
  }
}

struct Context {
  const std::vector<Certificate>& certs;
  const crypto::TrustStore* trust;
  int depth;
};

CmsVerification verify_message(TElSignedCMSMessage& m, const TElCMSContent* external,
                               const crypto::TrustStore* trust, int depth);

void check_signature(const Certificate& cert, const TElPKCS7Signer& s, SignedData& data,
                     SignerVerification& v) {
  const SignatureAlgorithm* alg = find_signature_algorithm(s.DigestEncryptionAlgorithm);
  if (!alg) {
    v.unsupported_algorithm = s.DigestEncryptionAlgorithm;
    v.problems.push_back("unsupported algorithm " + s.DigestEncryptionAlgorithm);
    return;
  }
  crypto::PublicKey key = crypto::PublicKey::from_certificate(cert);
  if (!key_fits(alg->family, key.kind())) {
    v.problems.push_back("signature algorithm " + AlgorithmLabel(s.DigestEncryptionAlgorithm) +
                         " does not fit the certificate's " + KeyKindName(key.kind()) + " key");
    return;
  }
  DigestAlgorithm hash = alg->hash != DigestAlgorithm::Unknown ? alg->hash : v.digest;
  PssParams pss;
  if (alg->family == Family::RsaPss) {
    std::string unknown;
    if (!pss_params(s.DigestEncryptionAlgorithmParams, pss, unknown)) {
      v.problems.push_back("the signature value does not verify: unreadable RSASSA-PSS parameters");
      return;
    }
    if (!unknown.empty()) {
      v.unsupported_algorithm = unknown;
      v.problems.push_back("unsupported algorithm " + unknown);
      return;
    }
    hash = pss.hash;
  }
  bool eddsa = alg->family == Family::Ed25519 || alg->family == Family::Ed448;
  auto verify_digest = [&](const Bytes& d) {
    return alg->family == Family::RsaPss
               ? key.verify_digest_pss(hash, d, s.EncryptedDigest, pss.mgf, pss.salt)
               : key.verify_digest(hash, d, s.EncryptedDigest);
  };
  auto verify_bytes = [&](const Bytes& message) {
    return eddsa ? key.verify_eddsa(message, s.EncryptedDigest)
                 : verify_digest(crypto::digest(hash, message));
  };
  try {
    if (v.signed_attributes) {
      v.signature_valid = verify_bytes(s.AuthenticatedAttributesPlain);
      // Some signers hash the DER form (as RFC 5652 asks) but store the attributes in
      // another order.
      if (!v.signature_valid && !s.AuthenticatedAttributesDer.empty() &&
          verify_bytes(s.AuthenticatedAttributesDer)) {
        v.signature_valid = true;
        v.notes.push_back("signed attributes were not in DER order");
      }
    } else if (!data.present()) {
      return;  // nothing to check the value against; said where the content is missing
    } else if (eddsa) {
      auto whole = data.whole(kMaxWholeContent);
      if (!whole) {
        v.problems.push_back(
            "the content is too large to check a signature without signed "
            "attributes made with " +
            AlgorithmLabel(s.DigestEncryptionAlgorithm));
        return;
      }
      v.signature_valid = key.verify_eddsa(*whole, s.EncryptedDigest);
    } else {
      v.signature_valid = verify_digest(data.digest(hash));
    }
    if (!v.signature_valid)
      v.problems.push_back("the signature value does not verify with the signer's certificate");
  } catch (const Exception& e) {
    v.problems.push_back(std::string("the signature value does not verify: ") + e.what());
  }
}

void check_signing_certificate(const TElCMSSignature& sig, SignerVerification& v) {
  const TElCMSSigningCertificate& sc = sig.FSigningCertificate;
  v.signing_certificate_present = sc.FIncluded && !sc.FCertIDs.empty();
  if (!v.signing_certificate_present || !v.certificate) return;
  const TElCMSSignerIdentifier& id = sc.FCertIDs.front();
  bool ok = id.FHash.FHashAlgorithm != DigestAlgorithm::Unknown &&
            v.certificate->fingerprint(id.FHash.FHashAlgorithm) == id.FHash.FHashValue;
  if (ok && !id.FSerialNumber.empty()) ok = id.FSerialNumber == v.certificate->serial();
  if (ok && !id.FIssuer.empty()) {
    // GeneralNames: the directoryName [4] holds the issuer Name.
    try {
      ParsedValue p(id.FIssuer);
      bool found = false;
      for (const auto& gn : p.root.children)
        if (gn.is_context(4) && !gn.children.empty() &&
            Certificate::same_name(asn1::ElementBytes(p.src, gn.children[0]),
                                   v.certificate->issuer_der()))
          found = true;
      ok = found;
    } catch (const std::exception&) {
      ok = false;
    }
  }
  v.signing_certificate_matches = ok;
  if (!ok)
    v.problems.push_back(
        "the signing-certificate attribute does not name the signer's certificate");
}

TimestampVerification verify_timestamp(const Context& ctx, const Bytes& token_der,
                                       const Bytes& signature_value) {
  TimestampVerification t;
  TElSignedCMSMessage token;
  try {
    token.Open(std::make_shared<OwnedBytesSource>(token_der));
  } catch (const Exception& e) {
    t.problems.push_back(std::string("the timestamp token cannot be read: ") + e.what());
    return t;
  }
  if (token.FContentType != asn1::encode_oid(cms_oid::kTstInfo) || !token.FContent ||
      token.FContent->Size() == 0 || token.FContent->Size() > (1u << 20)) {
    t.problems.push_back("the timestamp token holds no time-stamp information");
    return t;
  }
  Bytes info(static_cast<std::size_t>(token.FContent->Size()));
  token.FContent->Read(info.data(), info.size(), 0);
  try {
    // TSTInfo: version, policy, messageImprint { hashAlgorithm, hashedMessage }, serial,
    // genTime, ...
    ParsedValue p(info);
    const BerNode& imprint = p.root.children.at(2);
    std::string oid = asn1::ReadOid(p.src, imprint.children.at(0).children.at(0));
    Bytes hashed = asn1::ContentBytes(p.src, imprint.children.at(1), 1024);
    const BerNode& gen = p.root.children.at(4);
    if (!gen.is_universal(asn1::kGeneralizedTime)) throw Exception("genTime");
    auto when = generalized_time(asn1::ContentBytes(p.src, gen, 64));
    if (!when) throw Exception("genTime");
    t.gen_time = *when;
    t.time = crypto::iso_time(*when);
    DigestAlgorithm alg = crypto::digest_from_oid(oid);
    if (alg == DigestAlgorithm::Unknown) {
      t.problems.push_back("unsupported algorithm " + oid + " in the timestamp's imprint");
    } else {
      t.imprint_matches = crypto::digest(alg, signature_value) == hashed;
      if (!t.imprint_matches)
        t.problems.push_back("the timestamp was made for another signature value");
    }
  } catch (const std::exception&) {
    t.problems.push_back("the timestamp token's time-stamp information cannot be read");
    return t;
  }
  CmsVerification tv = verify_message(token, nullptr, nullptr, ctx.depth + 1);
  t.signature_valid = tv.ok();
  if (!tv.signers.empty() && tv.signers.front().certificate) {
    t.certificate = tv.signers.front().certificate;
    t.authority = t.certificate->subject_text();
  }
  for (const auto& p : tv.problems)
    t.problems.push_back("timestamp: " + p);
  for (const auto& s : tv.signers)
    for (const auto& p : s.problems)
      t.problems.push_back("timestamp: " + p);
  if (ctx.trust && t.certificate)
    t.trust = ctx.trust->check(*t.certificate, token.Certificates(), t.gen_time,
                               TrustPurpose::Timestamping);
  return t;
}

SignerVerification verify_signer(const Context& ctx, TElCMSSignature& sig, SignedData& data,
                                 const Bytes* content_type);

// Countersignatures and signature timestamps: both are made over this signature's value.
void verify_unsigned(const Context& ctx, TElCMSSignature& sig, SignerVerification& v) {
  const TElPKCS7Signer& s = sig.FPKCS7Signer;
  for (const auto& a : s.UnauthenticatedAttributes) {
    bool counter = a.oid == cms_oid::kCounterSignature;
    bool stamp = a.oid == cms_oid::kSignatureTimestamp;
    if (!counter && !stamp) continue;
    if (ctx.depth >= kMaxDepth) {
      v.problems.push_back("countersignatures or timestamps nested too deeply");
      return;
    }
    Context inner{ctx.certs, ctx.trust, ctx.depth + 1};
    for (const Bytes& value : a.values) {
      if (stamp) {
        v.timestamps.push_back(verify_timestamp(inner, value, s.EncryptedDigest));
        continue;
      }
      TElCMSSignature counter_sig(sig.FSubject);
      try {
        asn1::MemorySource src(value);
        ReadSignerInfo(src, asn1::ParseBer(src), counter_sig.FPKCS7Signer);
      } catch (const Exception& e) {
        SignerVerification bad;
        bad.index = static_cast<int>(v.countersignatures.size());
        bad.problems.push_back(std::string("the countersignature cannot be read: ") + e.what());
        v.countersignatures.push_back(std::move(bad));
        continue;
      }
      counter_sig.FState = TSBCMSSignatureState::cssSigned;
      counter_sig.FillProperties();
      BytesData signed_value(s.EncryptedDigest);
      SignerVerification cv = verify_signer(inner, counter_sig, signed_value, nullptr);
      cv.index = static_cast<int>(v.countersignatures.size());
      v.countersignatures.push_back(std::move(cv));
    }
  }
}

SignerVerification verify_signer(const Context& ctx, TElCMSSignature& sig, SignedData& data,
                                 const Bytes* content_type) {
  const TElPKCS7Signer& s = sig.FPKCS7Signer;
  SignerVerification v;
  v.digest = sig.GetDigestAlgorithm();
  v.signature_algorithm = s.DigestEncryptionAlgorithm;
  v.signing_time = sig.FSigningTime;
  v.signed_attributes = !s.AuthenticatedAttributes.empty();
  v.cades_bes = TElCAdESSignatureProcessor(&sig).IsBES();
  v.certificate = find_certificate(ctx.certs, s);
  if (!v.certificate) v.problems.push_back("the signer's certificate is not in the envelope");
  if (v.digest == DigestAlgorithm::Unknown) {
    v.unsupported_algorithm = s.DigestAlgorithm;
    v.problems.push_back("unsupported algorithm " + s.DigestAlgorithm);
  } else {
    if (v.digest == DigestAlgorithm::MD5 || v.digest == DigestAlgorithm::SHA1)
      v.weak_algorithm = crypto::digest_name(v.digest);
    v.digest_checked = data.present();
    if (v.signed_attributes) {
      Bytes content_digest = data.present() ? data.digest(v.digest) : Bytes{};
      v.digest_matches =
          data.present() && !sig.FMessageDigest.empty() && sig.FMessageDigest == content_digest;
      if (sig.FMessageDigest.empty())
        v.problems.push_back("no message-digest attribute");
      else if (data.present() && !v.digest_matches)
        v.problems.push_back("the content does not match the signed message digest");
      // A countersignature carries no content type: what it signs is a signature value.
      v.content_type_matches =
          !content_type || (!sig.FContentType.empty() && sig.FContentType == *content_type);
      if (!v.content_type_matches)
        v.problems.push_back("the content-type attribute is missing or differs from the content");
    } else {
      v.digest_matches = data.present();
      v.content_type_matches = true;
    }
    if (v.certificate) check_signature(*v.certificate, s, data, v);
  }
  check_signing_certificate(sig, v);
  verify_unsigned(ctx, sig, v);
  if (ctx.trust && v.certificate) {
    // The certificate must have been valid when the signature was made: a verified
    // timestamp from a trusted authority says when, else the signer's own claim, else now.
    std::optional<std::chrono::sys_seconds> at;
    for (const auto& t : v.timestamps)
      if (t.ok() && (!t.trust.checked || t.trust.trusted) && (!at || t.gen_time < *at))
        at = t.gen_time;
    if (!at && v.signing_time != 0) at = SysFromDateTime(v.signing_time);
    if (!at) at = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
    v.trust = ctx.trust->check(*v.certificate, ctx.certs, *at, TrustPurpose::Signing);
  }
  return v;
}

CmsVerification verify_message(TElSignedCMSMessage& m, const TElCMSContent* external,
                               const crypto::TrustStore* trust, int depth) {
  CmsVerification out;
  const TElCMSContent* content = m.FContent.get();
  // An attached envelope of an empty file carries an empty eContent: it is not detached.
  out.detached = !m.FEContentPresent;
  if (out.detached) {
    if (!external)
      out.problems.push_back("the envelope carries no content and no content file was given");
    content = external;
  } else if (external && !same_content(*content, *external)) {
    out.problems.push_back("the given content differs from the content the envelope carries");
  }
  out.content_size = content ? content->Size() : 0;
  if (m.SignatureCount() == 0) out.problems.push_back("the envelope has no signer");
  std::vector<Certificate> certs = m.Certificates();
  Context ctx{certs, trust, depth};
  ContentData data(content);
  for (int i = 0; i < m.SignatureCount(); ++i) {
    SignerVerification v = verify_signer(ctx, *m.GetSignature(i), data, &m.FContentType);
    v.index = i;
    out.signers.push_back(std::move(v));
  }
  return out;
}

}  // namespace

std::string AlgorithmLabel(const std::string& oid) {
  static const std::pair<const char*, const char*> kNames[] = {
      {"1.3.101.112", "Ed25519"},
      {"1.3.101.113", "Ed448"},
      {"1.2.643.2.2.19", "GOST R 34.10-2001"},
      {"1.2.643.7.1.1.1.1", "GOST R 34.10-2012 (256 bit)"},
      {"1.2.643.7.1.1.1.2", "GOST R 34.10-2012 (512 bit)"},
      {"1.2.840.113549.1.1.1", "RSA"},
      {"1.2.840.113549.1.1.10", "RSASSA-PSS"},
      {"1.2.840.10045.2.1", "ECDSA"},
      {"1.2.840.10040.4.1", "DSA"},
      {"1.2.840.113549.1.1.5", "RSA with SHA-1"},
      {"1.2.840.113549.1.1.14", "RSA with SHA-224"},
      {"1.2.840.113549.1.1.11", "RSA with SHA-256"},
      {"1.2.840.113549.1.1.12", "RSA with SHA-384"},
      {"1.2.840.113549.1.1.13", "RSA with SHA-512"},
      {"2.16.840.1.101.3.4.3.14", "RSA with SHA3-256"},
      {"2.16.840.1.101.3.4.3.15", "RSA with SHA3-384"},
      {"2.16.840.1.101.3.4.3.16", "RSA with SHA3-512"},
      {"1.2.840.10045.4.1", "ECDSA with SHA-1"},
      {"1.2.840.10045.4.3.1", "ECDSA with SHA-224"},
      {"1.2.840.10045.4.3.2", "ECDSA with SHA-256"},
      {"1.2.840.10045.4.3.3", "ECDSA with SHA-384"},
      {"1.2.840.10045.4.3.4", "ECDSA with SHA-512"},
      {"2.16.840.1.101.3.4.3.10", "ECDSA with SHA3-256"},
      {"2.16.840.1.101.3.4.3.11", "ECDSA with SHA3-384"},
      {"2.16.840.1.101.3.4.3.12", "ECDSA with SHA3-512"},
      {"1.2.840.10040.4.3", "DSA with SHA-1"},
      {"2.16.840.1.101.3.4.3.1", "DSA with SHA-224"},
      {"2.16.840.1.101.3.4.3.2", "DSA with SHA-256"},
  };
  for (const auto& [o, name] : kNames)
    if (oid == o) return std::string(name) + " (" + oid + ")";
  return oid;
}

std::string KeyKindName(KeyKind kind) {
  switch (kind) {
    case KeyKind::Rsa:
      return "RSA";
    case KeyKind::RsaPss:
      return "RSA-PSS";
    case KeyKind::Dsa:
      return "DSA";
    case KeyKind::Ec:
      return "EC";
    case KeyKind::Ed25519:
      return "Ed25519";
    case KeyKind::Ed448:
      return "Ed448";
    case KeyKind::Gost2001:
      return "GOST";
    case KeyKind::Unknown:
      break;
  }
  return "unknown";
}

bool SignerVerification::ok() const {
  if (!problems.empty()) return false;
  for (const auto& c : countersignatures)
    if (!c.ok()) return false;
  for (const auto& t : timestamps)
    if (!t.ok()) return false;
  return true;
}

bool SignerVerification::trusted() const {
  if (!ok() || (trust.checked && !trust.trusted)) return false;
  for (const auto& c : countersignatures)
    if (!c.trusted()) return false;
  return true;
}

bool CmsVerification::ok() const {
  if (!problems.empty() || signers.empty()) return false;
  for (const auto& s : signers)
    if (!s.ok()) return false;
  return true;
}

CmsVerification VerifySignedMessage(TElSignedCMSMessage& m, const TElCMSContent* external,
                                    const crypto::TrustStore* trust) {
  return verify_message(m, external, trust, 0);
}

}  // namespace tessarel
