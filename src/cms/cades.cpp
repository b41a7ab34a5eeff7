#include "cms/cades.h"

namespace tessarel {

bool TElCAdESSignatureProcessor::IsBES() {
  if (!FSignature) throw EElCAdESSignatureProcessorError("No signature object found");
  FCompatibilityErrors = 0;
  bool result = true;
  auto fail = [&](TSBCAdESCompatibilityError e) {
    FCompatibilityErrors = static_cast<std::uint16_t>(FCompatibilityErrors | (1u << e));
    result = false;
  };
  if (FSignature->FContentType.empty()) fail(cerrNoContentType);
  if (FSignature->FMessageDigest.empty()) fail(cerrNoMessageDigest);
  if (!(FSignature->FSigningCertificate.FIncluded && FSignature->FSigningCertificate.FSigned))
    fail(cerrNoSigningCertificate);
  return result;
}

}  // namespace tessarel
