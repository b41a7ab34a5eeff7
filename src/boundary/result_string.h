// String results of the C entry points: the caller's variable is freed with free() and
// receives a fresh malloc'ed UTF-8 copy.
#pragma once

#include <string>

namespace tessarel {

char** AssignResult(char** result, const std::string& value);
inline const char* TextArg(const char* s) {
  return s ? s : "";
}

}  // namespace tessarel
