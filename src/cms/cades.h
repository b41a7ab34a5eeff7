// The CAdES level check of a signature.
#pragma once

#include <cstdint>

#include "cms/cms.h"

namespace tessarel {

enum TSBCAdESCompatibilityError : unsigned {
  cerrUnknown = 0,
  cerrNoMessageDigest = 1,
  cerrNoContentType = 2,
  cerrNoSigningCertificate = 3,
  cerrNoSignaturePolicy = 4,
  cerrNoSignatureTimestamp = 5,
  cerrNoCertificateReferences = 6,
  cerrNoRevocationReferences = 7,
  cerrNoCertificateValues = 8,
  cerrNoRevocationValues = 9,
  cerrNoTimestampedValidationData = 10,
  cerrNoArchivalTimestamp = 11,
};

class TElCAdESSignatureProcessor {
 public:
  explicit TElCAdESSignatureProcessor(TElCMSSignature* sig)
      : FSignature(sig), FCMS(sig ? sig->FSubject : nullptr) {}

  // CAdES-BES: a content-type OBJECT IDENTIFIER, a non-empty message digest and a decoded
  // ESS signing-certificate (v1 or v2) attribute. Raises "No signature object found"
  // (EElCAdESSignatureProcessorError) without a signature.
  bool IsBES();
  std::uint16_t CompatibilityErrors() const { return FCompatibilityErrors; }

  TElCMSSignature* FSignature;
  std::uint16_t FCompatibilityErrors = 0;
  bool FForceSigningCertificateV2 = true;
  TElSignedCMSMessage* FCMS;
};

}  // namespace tessarel
