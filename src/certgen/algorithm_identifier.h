// Algorithm identifiers of public keys and signatures, as certificates encode them.
#pragma once

#include <optional>
#include <string>

#include "platform/crypto/keygen.h"
#include "tessarel/types.h"

namespace tessarel {

enum class CertAlgorithm {
  // public-key algorithms
  Rsa,
  RsaPss,
  RsaOaep,
  Dsa,
  Dh,
  Ec,
  Gost94,
  Gost2001,
  // signature algorithms
  Md2WithRsa,
  Md5WithRsa,
  Sha1WithRsa,
  Sha224WithRsa,
  Sha256WithRsa,
  Sha384WithRsa,
  Sha512WithRsa,
  Ripemd160WithRsa,
  DsaWithSha1,
  EcdsaWithSha1,
  EcdsaWithSha224,
  EcdsaWithSha256,
  EcdsaWithSha384,
  EcdsaWithSha512,
  Gost3411With3410_94,
  Gost3411With3410_2001,
};

class TElAlgorithmIdentifier {
 public:
  static TElAlgorithmIdentifier CreateByAlgorithm(CertAlgorithm alg);

  CertAlgorithm algorithm() const { return alg_; }
  std::string oid() const;
  bool is_signature() const;
  // Digest of a signature algorithm (RSA-PSS: its hash parameter); Unknown otherwise.
  DigestAlgorithm hash() const;

  // RSA-PSS parameters (for the RSA-PSS key and signature identifiers).
  crypto::PssParams pss;
  // EC: the curve's OID (dotted); empty when the identifier names no curve.
  std::string curve_oid;
  // DSA domain parameters, filled from the key after generation (big-endian magnitudes).
  Bytes dsa_p, dsa_q, dsa_g;
  // GOST parameter set OID.
  std::string gost_paramset;

  // AlgorithmIdentifier SEQUENCE as this identifier writes itself.
  Bytes WriteToDER() const;

 private:
  explicit TElAlgorithmIdentifier(CertAlgorithm alg) : alg_(alg) {}
  CertAlgorithm alg_;
};

// The key algorithm a signature algorithm needs (sha512WithRSAEncryption -> RSA).
CertAlgorithm GetKeyAlgorithmBySigAlgorithm(CertAlgorithm sig);
std::string AlgorithmName(CertAlgorithm alg);

// EC curves by key size when the identifier names none.
std::string CurveOidForBits(int bits);
// OpenSSL group name of a curve OID; empty when unknown.
std::string CurveGroupName(const std::string& oid);

}  // namespace tessarel
