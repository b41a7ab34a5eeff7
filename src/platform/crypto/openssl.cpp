#include "platform/crypto/openssl.h"

#include <openssl/err.h>

#include "tessarel/errors.h"

namespace tessarel::crypto {

std::string openssl_errors() {
  std::string out;
  unsigned long code;
  while ((code = ERR_get_error()) != 0) {
    char buf[256];
    ERR_error_string_n(code, buf, sizeof buf);
    const char* reason = ERR_reason_error_string(code);
    if (!out.empty()) out += "; ";
    out += reason ? reason : buf;
  }
  return out;
}

void throw_openssl(const std::string& what) {
  std::string reasons = openssl_errors();
  throw Exception(reasons.empty() ? what : what + ": " + reasons);
}

}  // namespace tessarel::crypto
