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
  bool digest_matches = false;        // message-digest attribute (or signed digest) vs the content
  bool content_type_matches = false;  // content-type attribute vs eContentType
  bool signing_certificate_present = false;
  bool signing_certificate_matches =
      false;  // ESS certificate hash (and issuer/serial) vs the certificate
  bool cades_bes = false;
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

// Verifies every signer of an opened message. external_content supplies the data of a
// detached message (it is ignored when the message carries its content).
CmsVerification VerifySignedMessage(TElSignedCMSMessage& message,
                                    const TElCMSContent* external_content = nullptr);

}  // namespace tessarel
