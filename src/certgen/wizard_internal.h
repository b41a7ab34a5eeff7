#pragma once

#include <string>

#include "tessarel/certificate.h"

namespace tessarel {

// The name the wizard gives a certificate: its common names joined by " / ", else its
// organization names, else its e-mail addresses.
std::string CertificateDisplayName(const Certificate& c);

}  // namespace tessarel
