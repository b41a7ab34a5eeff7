#include "certgen/algorithm_identifier.h"

#include <array>

#include "platform/asn1/der.h"
#include "platform/crypto/digest.h"
#include "tessarel/errors.h"

namespace tessarel {

namespace {

struct Info {
  CertAlgorithm alg;
  const char* oid;
  const char* name;
  DigestAlgorithm hash;
  bool signature;
  bool null_params;  // parameters written as NULL (else absent, or algorithm-specific)
};

const std::array<Info, 24> kInfo{{
    {CertAlgorithm::Rsa, "1.2.840.113549.1.1.1", "rsaEncryption", DigestAlgorithm::Unknown, false,
     true},
    {CertAlgorithm::RsaPss, "1.2.840.113549.1.1.10", "id-RSASSA-PSS", DigestAlgorithm::Unknown,
     false, false},
    {CertAlgorithm::RsaOaep, "1.2.840.113549.1.1.7", "id-RSAES-OAEP", DigestAlgorithm::Unknown,
     false, false},
    {CertAlgorithm::Dsa, "1.2.840.10040.4.1", "id-dsa", DigestAlgorithm::Unknown, false, false},
    {CertAlgorithm::Dh, "1.2.840.10046.2.1", "dhpublicnumber", DigestAlgorithm::Unknown, false,
     false},
    {CertAlgorithm::Ec, "1.2.840.10045.2.1", "id-ecPublicKey", DigestAlgorithm::Unknown, false,
     false},
    {CertAlgorithm::Gost94, "1.2.643.2.2.20", "GOST R 34.10-94", DigestAlgorithm::Unknown, false,
     false},
    {CertAlgorithm::Gost2001, "1.2.643.2.2.19", "GOST R 34.10-2001", DigestAlgorithm::Unknown,
     false, false},
    {CertAlgorithm::Md2WithRsa, "1.2.840.113549.1.1.2", "md2WithRSAEncryption",
     DigestAlgorithm::Unknown, true, true},
    {CertAlgorithm::Md5WithRsa, "1.2.840.113549.1.1.4", "md5WithRSAEncryption",
     DigestAlgorithm::MD5, true, true},
    {CertAlgorithm::Sha1WithRsa, "1.2.840.113549.1.1.5", "sha1WithRSAEncryption",
     DigestAlgorithm::SHA1, true, true},
    {CertAlgorithm::Sha224WithRsa, "1.2.840.113549.1.1.14", "sha224WithRSAEncryption",
     DigestAlgorithm::SHA224, true, true},
    {CertAlgorithm::Sha256WithRsa, "1.2.840.113549.1.1.11", "sha256WithRSAEncryption",
     DigestAlgorithm::SHA256, true, true},
    {CertAlgorithm::Sha384WithRsa, "1.2.840.113549.1.1.12", "sha384WithRSAEncryption",
     DigestAlgorithm::SHA384, true, true},
    {CertAlgorithm::Sha512WithRsa, "1.2.840.113549.1.1.13", "sha512WithRSAEncryption",
     DigestAlgorithm::SHA512, true, true},
    {CertAlgorithm::Ripemd160WithRsa, "1.3.36.3.3.1.2", "rsaSignatureWithripemd160",
     DigestAlgorithm::RIPEMD160, true, true},
    {CertAlgorithm::DsaWithSha1, "1.2.840.10040.4.3", "dsa-with-sha1", DigestAlgorithm::SHA1, true,
     false},
    {CertAlgorithm::EcdsaWithSha1, "1.2.840.10045.4.1", "ecdsa-with-SHA1", DigestAlgorithm::SHA1,
     true, false},
    {CertAlgorithm::EcdsaWithSha224, "1.2.840.10045.4.3.1", "ecdsa-with-SHA224",
     DigestAlgorithm::SHA224, true, false},
    {CertAlgorithm::EcdsaWithSha256, "1.2.840.10045.4.3.2", "ecdsa-with-SHA256",
     DigestAlgorithm::SHA256, true, false},
    {CertAlgorithm::EcdsaWithSha384, "1.2.840.10045.4.3.3", "ecdsa-with-SHA384",
     DigestAlgorithm::SHA384, true, false},
    {CertAlgorithm::EcdsaWithSha512, "1.2.840.10045.4.3.4", "ecdsa-with-SHA512",
     DigestAlgorithm::SHA512, true, false},
    {CertAlgorithm::Gost3411With3410_94, "1.2.643.2.2.4", "GOST R 34.11 with GOST R 34.10-94",
     DigestAlgorithm::Unknown, true, false},
    {CertAlgorithm::Gost3411With3410_2001, "1.2.643.2.2.3", "GOST R 34.11 with GOST R 34.10-2001",
     DigestAlgorithm::Unknown, true, false},
}};

const Info& info(CertAlgorithm alg) {
  for (const auto& i : kInfo)
    if (i.alg == alg) return i;
  throw Exception("Unknown algorithm");
}

struct Curve {
  const char* oid;
  const char* group;
};
constexpr std::array<Curve, 5> kCurves{{
    {"1.2.840.10045.3.1.1", "prime192v1"},
    {"1.3.132.0.33", "secp224r1"},
    {"1.2.840.10045.3.1.7", "prime256v1"},
    {"1.3.132.0.34", "secp384r1"},
    {"1.3.132.0.35", "secp521r1"},
}};

void write_hash_algorithm(asn1::DerWriter& w, DigestAlgorithm h) {
  w.begin(asn1::kSequence).oid(crypto::digest_oid(h)).null().end();
}

}  // namespace

TElAlgorithmIdentifier TElAlgorithmIdentifier::CreateByAlgorithm(CertAlgorithm alg) {
  info(alg);
  return TElAlgorithmIdentifier(alg);
}

std::string TElAlgorithmIdentifier::oid() const {
  return info(alg_).oid;
}

bool TElAlgorithmIdentifier::is_signature() const {
  return info(alg_).signature;
}

DigestAlgorithm TElAlgorithmIdentifier::hash() const {
  if (alg_ == CertAlgorithm::RsaPss) return pss.hash;
  return info(alg_).hash;
}

Bytes TElAlgorithmIdentifier::WriteToDER() const {
  const Info& i = info(alg_);
  asn1::DerWriter w;
  w.begin(asn1::kSequence).oid(i.oid);
  if (i.null_params) {
    w.null();
  } else if (alg_ == CertAlgorithm::RsaPss) {
    // RSASSA-PSS-params; fields equal to their defaults are left out (DER).
    w.begin(asn1::kSequence);
    if (pss.hash != DigestAlgorithm::SHA1) {
      w.begin(asn1::context_constructed(0));
      write_hash_algorithm(w, pss.hash);
      w.end();
    }
    if (pss.mgf1_hash != DigestAlgorithm::SHA1) {
      w.begin(asn1::context_constructed(1)).begin(asn1::kSequence).oid("1.2.840.113549.1.1.8");
      write_hash_algorithm(w, pss.mgf1_hash);
      w.end().end();
    }
    if (pss.salt_length != 20) {
      w.begin(asn1::context_constructed(2))
          .integer(static_cast<std::uint64_t>(pss.salt_length))
          .end();
    }
    if (pss.trailer_field != 1) {
      w.begin(asn1::context_constructed(3))
          .integer(static_cast<std::uint64_t>(pss.trailer_field))
          .end();
    }
    w.end();
  } else if (alg_ == CertAlgorithm::Ec) {
    if (!curve_oid.empty()) w.oid(curve_oid);
  } else if (alg_ == CertAlgorithm::Dsa && !dsa_p.empty()) {
    w.begin(asn1::kSequence)
        .integer_bytes(asn1::unsigned_integer_content(dsa_p))
        .integer_bytes(asn1::unsigned_integer_content(dsa_q))
        .integer_bytes(asn1::unsigned_integer_content(dsa_g))
        .end();
  } else if ((alg_ == CertAlgorithm::Gost94 || alg_ == CertAlgorithm::Gost2001) &&
             !gost_paramset.empty()) {
    w.begin(asn1::kSequence).oid(gost_paramset).end();
  }
  w.end();
  return w.finish();
}

CertAlgorithm GetKeyAlgorithmBySigAlgorithm(CertAlgorithm sig) {
  switch (sig) {
    case CertAlgorithm::Md2WithRsa:
    case CertAlgorithm::Md5WithRsa:
    case CertAlgorithm::Sha1WithRsa:
    case CertAlgorithm::Sha224WithRsa:
    case CertAlgorithm::Sha256WithRsa:
    case CertAlgorithm::Sha384WithRsa:
    case CertAlgorithm::Sha512WithRsa:
    case CertAlgorithm::Ripemd160WithRsa:
      return CertAlgorithm::Rsa;
    case CertAlgorithm::DsaWithSha1:
      return CertAlgorithm::Dsa;
    case CertAlgorithm::EcdsaWithSha1:
    case CertAlgorithm::EcdsaWithSha224:
    case CertAlgorithm::EcdsaWithSha256:
    case CertAlgorithm::EcdsaWithSha384:
    case CertAlgorithm::EcdsaWithSha512:
      return CertAlgorithm::Ec;
    case CertAlgorithm::Gost3411With3410_94:
      return CertAlgorithm::Gost94;
    case CertAlgorithm::Gost3411With3410_2001:
      return CertAlgorithm::Gost2001;
    default:
      return sig;  // RSA-PSS and RSA-OAEP name their key kind themselves
  }
}

std::string AlgorithmName(CertAlgorithm alg) {
  return info(alg).name;
}

std::string CurveOidForBits(int bits) {
  if (bits <= 192) return kCurves[0].oid;
  if (bits <= 224) return kCurves[1].oid;
  if (bits <= 256) return kCurves[2].oid;
  if (bits <= 384) return kCurves[3].oid;
  return kCurves[4].oid;
}

std::string CurveGroupName(const std::string& oid) {
  for (const auto& c : kCurves)
    if (oid == c.oid) return c.group;
  return "";
}

}  // namespace tessarel
