// SHA-256 digests of files, streamed: a file is never held whole in memory.
#pragma once

#include <cstdint>
#include <string>

namespace tessarel {

// The exact message for a file that is not there (two lines, CR LF between them).
std::string MissingSourceFileMessage(const std::string& fname);

// Digest text (64 upper-case hexadecimal digits) and size of a file. Both outputs are reset
// first. A missing file raises tessarel::Exception with MissingSourceFileMessage; a file
// that cannot be opened or read raises EFOpenError / EInOutError naming it.
void HashFile(const std::string& fname, std::string& digest, std::int64_t& size);
// The digest text alone.
std::string HashFileSHA256(const std::string& fname);

}  // namespace tessarel
