// Exception classes. Every failure of the library is one of these; the message is the
// exact text meant for the user (for the archive engine, an Italian sentence).
#ifndef TESSAREL_ERRORS_H
#define TESSAREL_ERRORS_H

#include <stdexcept>
#include <string>

#include "tessarel/export.h"

namespace tessarel {

class TESSAREL_API Exception : public std::runtime_error {
 public:
  explicit Exception(const std::string& message) : std::runtime_error(message) {}
  ~Exception() override;
};

#define TESSAREL_DECLARE_ERROR(Name)                                  \
  class TESSAREL_API Name : public Exception {                        \
   public:                                                            \
    explicit Name(const std::string& message) : Exception(message) {} \
    ~Name() override;                                                 \
  };

// Errors of the CMS engine (English messages).
TESSAREL_DECLARE_ERROR(EElCMSError)
// Errors of the CAdES level check.
TESSAREL_DECLARE_ERROR(EElCAdESSignatureProcessorError)
// Errors of the XML signature engine and of XML parsing.
TESSAREL_DECLARE_ERROR(EElXMLSecurityError)
// Input/output failures on an open file (short read, write error, full disk).
TESSAREL_DECLARE_ERROR(EInOutError)
// A file that exists could not be opened.
TESSAREL_DECLARE_ERROR(EFOpenError)
// A file could not be created.
TESSAREL_DECLARE_ERROR(EFCreateError)
// A string list was read past its end.
TESSAREL_DECLARE_ERROR(EStringListError)
// Dataset and field errors (unknown field, field of the wrong kind, failed post).
TESSAREL_DECLARE_ERROR(EDatabaseError)
// A text that should be a number is not one.
TESSAREL_DECLARE_ERROR(EConvertError)

// Certificate handling errors that carry a numeric code (for example 20483: the issuing
// certificate has no private key).
class TESSAREL_API EElCertificateError : public Exception {
 public:
  EElCertificateError(int code, const std::string& message) : Exception(message), code_(code) {}
  ~EElCertificateError() override;
  int code() const noexcept { return code_; }

 private:
  int code_;
};

#undef TESSAREL_DECLARE_ERROR

}  // namespace tessarel

#endif
