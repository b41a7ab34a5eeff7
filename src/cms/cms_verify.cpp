#include "cms/cms_verify.h"

#include <algorithm>
#include <cstring>
#include <map>

#include "cms/cades.h"
#include "platform/asn1/der.h"
#include "platform/crypto/digest.h"
#include "platform/crypto/pkey.h"

namespace tessarel {

namespace {

using asn1::BerNode;

struct ParsedValue {
  Bytes bytes;
  asn1::MemorySource src;
  BerNode root;
  explicit ParsedValue(Bytes b) : bytes(std::move(b)), src(bytes), root(asn1::ParseBer(src)) {}
};

std::optional<Certificate> find_certificate(const TElSignedCMSMessage& m, const TElPKCS7Signer& s) {
  for (const Certificate& c : m.Certificates()) {
    if (!s.SubjectKeyIdentifier.empty()) {
      if (c.subject_key_identifier() == s.SubjectKeyIdentifier) return c;
    } else if (c.serial() == s.SerialNumber && Certificate::same_name(c.issuer_der(), s.Issuer)) {
      return c;
    }
  }
  return std::nullopt;
}

bool verify_value(const Certificate& cert, const TElPKCS7Signer& s, DigestAlgorithm digest_alg,
                  const Bytes& data_digest, std::string& problem) {
  crypto::PublicKey key = crypto::PublicKey::from_certificate(cert);
  const std::string& alg = s.DigestEncryptionAlgorithm;
  try {
    if (alg == cms_oid::kRsaPss) {
      DigestAlgorithm h, mgf;
      int salt;
      if (!ReadPssParams(s.DigestEncryptionAlgorithmParams, h, mgf, salt)) {
        problem = "unreadable RSASSA-PSS parameters";
        return false;
      }
      if (h != digest_alg) {
        problem = "the RSASSA-PSS hash differs from the digest algorithm";
        return false;
      }
      return key.verify_digest_pss(digest_alg, data_digest, s.EncryptedDigest, mgf, salt);
    }
    KeyKind kind = key.kind();
    bool rsa_alg = alg == cms_oid::kRsaEncryption || alg.rfind("1.2.840.113549.1.1.", 0) == 0;
    bool ec_alg = alg == cms_oid::kEcPublicKey || alg.rfind("1.2.840.10045.4.", 0) == 0;
    bool dsa_alg = alg == cms_oid::kDsa || alg == "1.2.840.10040.4.3" ||
                   alg.rfind("2.16.840.1.101.3.4.3.", 0) == 0;
    if ((rsa_alg && kind == KeyKind::Rsa) || (ec_alg && kind == KeyKind::Ec) ||
        (dsa_alg && kind == KeyKind::Dsa))
      return key.verify_digest(digest_alg, data_digest, s.EncryptedDigest);
    if (!rsa_alg && !ec_alg && !dsa_alg) {
      problem = "unsupported signature algorithm " + AlgorithmLabel(alg);
      return false;
    }
    problem = "signature algorithm " + AlgorithmLabel(alg) + " does not fit the certificate's " +
              KeyKindName(kind) + " key";
    return false;
  } catch (const Exception& e) {
    problem = e.what();
    return false;
  }
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
    case KeyKind::Gost2001:
      return "GOST";
    case KeyKind::Unknown:
      break;
  }
  return "unknown";
}

bool CmsVerification::ok() const {
  if (!problems.empty() || signers.empty()) return false;
  for (const auto& s : signers)
    if (!s.ok()) return false;
  return true;
}

CmsVerification VerifySignedMessage(TElSignedCMSMessage& m, const TElCMSContent* external) {
  CmsVerification out;
  const TElCMSContent* content = m.FContent.get();
  // An attached envelope of an empty file carries an empty eContent: it is not detached.
  out.detached = !m.FEContentPresent;
  if (out.detached) {
    if (!external)
      out.problems.push_back("the envelope carries no content and no content file was given");
    else
      content = external;
  } else if (external && !same_content(*content, *external)) {
    out.problems.push_back("the given content differs from the content the envelope carries");
  }
  out.content_size = content ? content->Size() : 0;
  if (m.SignatureCount() == 0) out.problems.push_back("the envelope has no signer");
  std::map<DigestAlgorithm, Bytes> digests;
  for (int i = 0; i < m.SignatureCount(); ++i) {
    TElCMSSignature& sig = *m.GetSignature(i);
    const TElPKCS7Signer& s = sig.FPKCS7Signer;
    SignerVerification v;
    v.index = i;
    v.digest = sig.GetDigestAlgorithm();
    v.signing_time = sig.FSigningTime;
    v.signed_attributes = !s.AuthenticatedAttributes.empty();
    v.cades_bes = TElCAdESSignatureProcessor(&sig).IsBES();
    v.certificate = find_certificate(m, s);
    if (!v.certificate) v.problems.push_back("the signer's certificate is not in the envelope");
    if (v.digest == DigestAlgorithm::Unknown) {
      v.problems.push_back("unsupported digest algorithm " + s.DigestAlgorithm);
      out.signers.push_back(std::move(v));
      continue;
    }
    Bytes content_digest;
    bool have_content = !out.detached || external != nullptr;
    v.digest_checked = have_content;
    if (v.digest == DigestAlgorithm::MD5 || v.digest == DigestAlgorithm::SHA1)
      v.weak_algorithm = crypto::digest_name(v.digest);
    if (have_content) {
      auto it = digests.find(v.digest);
      if (it == digests.end())
        it = digests.emplace(v.digest, DigestContent(content, v.digest)).first;
      content_digest = it->second;
    }
    Bytes signed_digest;
    if (v.signed_attributes) {
      v.digest_matches =
          have_content && !sig.FMessageDigest.empty() && sig.FMessageDigest == content_digest;
      if (sig.FMessageDigest.empty())
        v.problems.push_back("no message-digest attribute");
      else if (have_content && !v.digest_matches)
        v.problems.push_back("the content does not match the signed message digest");
      v.content_type_matches = !sig.FContentType.empty() && sig.FContentType == m.FContentType;
      if (!v.content_type_matches)
        v.problems.push_back("the content-type attribute is missing or differs from the content");
      signed_digest = crypto::digest(v.digest, s.AuthenticatedAttributesPlain);
    } else {
      v.digest_matches = have_content;
      v.content_type_matches = true;
      signed_digest = content_digest;
    }
    if (v.certificate && !signed_digest.empty()) {
      std::string problem;
      v.signature_valid = verify_value(*v.certificate, s, v.digest, signed_digest, problem);
      if (!v.signature_valid)
        v.problems.push_back(
            problem.empty() ? "the signature value does not verify with the signer's certificate"
                            : "the signature value does not verify: " + problem);
    }
    const TElCMSSigningCertificate& sc = sig.FSigningCertificate;
    v.signing_certificate_present = sc.FIncluded && !sc.FCertIDs.empty();
    if (v.signing_certificate_present && v.certificate) {
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
    out.signers.push_back(std::move(v));
  }
  return out;
}

}  // namespace tessarel
