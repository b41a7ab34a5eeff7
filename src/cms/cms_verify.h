// Cryptographic verification of a signed message: which check failed, signer by signer.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cms/cms.h"

namespace tessarel {

struct SignerVerification {
  int index = 0;
  std::optional<Certificate> certificate;  // the certificate the signer identifier names
  DigestAlgorithm digest = DigestAlgorithm::Unknown;
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
  std::vector<std::string> problems;  // one sentence per failed check
  bool ok() const { return problems.empty(); }
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
// the message carries.
CmsVerification VerifySignedMessage(TElSignedCMSMessage& message,
                                    const TElCMSContent* external_content = nullptr);

}  // namespace tessarel
