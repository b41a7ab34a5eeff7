// Out-of-line destructors anchor the exception classes' type information in the library,
// so a host catches them by type across the shared-object boundary.
#include "tessarel/errors.h"

#include <openssl/crypto.h>

#include "tessarel/types.h"
#include "tessarel/version.h"

namespace tessarel {

Exception::~Exception() = default;
EElCMSError::~EElCMSError() = default;
EElCAdESSignatureProcessorError::~EElCAdESSignatureProcessorError() = default;
EElXMLSecurityError::~EElXMLSecurityError() = default;
EInOutError::~EInOutError() = default;
EFOpenError::~EFOpenError() = default;
EFCreateError::~EFCreateError() = default;
EStringListError::~EStringListError() = default;
EDatabaseError::~EDatabaseError() = default;
EConvertError::~EConvertError() = default;
EElCertificateError::~EElCertificateError() = default;

void wipe(std::string& secret) noexcept {
  if (!secret.empty()) OPENSSL_cleanse(secret.data(), secret.size());
  secret.clear();
}

void wipe(Bytes& secret) noexcept {
  if (!secret.empty()) OPENSSL_cleanse(secret.data(), secret.size());
  secret.clear();
}

const char* version() {
  return "0.1.0";
}

}  // namespace tessarel
