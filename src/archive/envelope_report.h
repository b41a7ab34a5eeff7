// Reports of the public API made from the CMS engine's verification results, shared by
// envelope and PDF verification.
#pragma once

#include <string>

#include "cms/cms_verify.h"
#include "tessarel/signing.h"
#include "tessarel/types.h"

namespace tessarel {

// "YYYY-MM-DDThh:mm:ssZ", empty for 0.
std::string IsoTimeOf(DateTime t);
EnvelopeSignerReport SignerReport(const SignerVerification& s);
// One envelope's report (no layers): trusted only when trust was checked and every signer
// passed it.
EnvelopeReport ReportOf(const CmsVerification& v, bool trust_checked);

}  // namespace tessarel
