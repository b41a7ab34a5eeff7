// Cryptographic verification of a signed message: which check failed, signer by signer,
// with countersignatures, signature timestamps and, when asked, trust in the certificates.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "cms/cms.h"
#include "tessarel/trust.h"

namespace tessarel {

namespace crypto {
class TrustStore;
}

namespace cms_oid {
inline constexpr const char* kTstInfo = "1.2.840.113549.1.9.16.1.4";
}

struct TimestampVerification {
  std::string time;  // genTime, "YYYY-MM-DDThh:mm:ssZ"
  std::chrono::sys_seconds gen_time{};
  std::string authority;                   // the time-stamping authority's certificate subject
  std::optional<Certificate> certificate;  // that certificate
  bool imprint_matches = false;            // the token names this signature's value
  bool signature_valid = false;            // the token's own signature verifies
  TrustReport trust;                       // checked only when trust was asked for
  std::vector<std::string> problems;
  bool ok() const { return problems.empty(); }
};

struct SignerVerification {
  int index = 0;
  std::optional<Certificate> certificate;  // the certificate the signer identifier names
  DigestAlgorithm digest = DigestAlgorithm::Unknown;
  std::string signature_algorithm;  // OID
  DateTime signing_time = 0;
  bool signed_attributes = false;
  bool signature_valid = false;       // the signature value, under the signer's certificate
  bool digest_checked = false;        // there was content to compare the digest with
  bool digest_matches = false;        // message-digest attribute (or signed digest) vs the content
  bool content_type_matches = false;  // content-type attribute vs eContentType
  bool signing_certificate_present = false;
  bool signing_certificate_matches =
      false;  // ESS certificate hash (and issuer/serial) vs the certificate
  bool cades_bes = false;
  // The digest algorithm when it no longer resists collisions (MD5, SHA-1): the signature
  // may verify, but it proves less than it seems.
  std::string weak_algorithm;
  // The OID of a digest or signature algorithm this system does not have: the signature
  // could not be checked, which is not the same as a signature that fails.
  std::string unsupported_algorithm;
  std::vector<std::string> notes;     // facts that do not spoil the signature
  std::vector<std::string> problems;  // one sentence per failed check
  std::vector<SignerVerification> countersignatures;
  std::vector<TimestampVerification> timestamps;
  TrustReport trust;  // checked only when trust was asked for
  // Everything present verifies: the signature, its countersignatures and timestamps.
  bool ok() const;
  // Intact and, when trust was checked, trusted (countersigners and authorities included).
  bool trusted() const;
};

struct CmsVerification {
  bool detached = false;
  std::uint64_t content_size = 0;
  std::vector<SignerVerification> signers;
  std::vector<std::string> problems;  // message-level problems (no signer, no content)
  bool ok() const;
};

// A signature or key algorithm named for people: "Ed25519 (1.3.101.112)", or the OID.
std::string AlgorithmLabel(const std::string& oid);
std::string KeyKindName(KeyKind kind);

// Verifies every signer of an opened message. external_content supplies the data of a
// detached message; given with an attached one, it must be the same bytes as the content
// the message carries. With a trust store, each signer's certificate (and each
// countersigner's and time-stamping authority's) is checked against it.
CmsVerification VerifySignedMessage(TElSignedCMSMessage& message,
                                    const TElCMSContent* external_content = nullptr,
                                    const crypto::TrustStore* trust = nullptr);

}  // namespace tessarel
