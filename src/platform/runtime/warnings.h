// Non-fatal warnings (a skipped store file, a fallback front end). They go to the handler
// set with tessarel::set_warning_handler, by default to stderr.
#pragma once

#include <string>

namespace tessarel {
void warn(const std::string& message);
}
