// Small value types shared by the whole public API.
#ifndef TESSAREL_TYPES_H
#define TESSAREL_TYPES_H

#include <cstdint>
#include <string>
#include <vector>

#include "tessarel/export.h"

namespace tessarel {

using Bytes = std::vector<std::uint8_t>;

// Digest algorithm identifiers. SHA-1, SHA-256 and "unknown" keep the numeric values that
// hosts already store; the others only need to be distinct.
enum class DigestAlgorithm : std::int32_t {
  MD5 = 0x7100,
  SHA1 = 0x7101,
  SHA224 = 0x7103,
  SHA256 = 0x7104,
  SHA384 = 0x7105,
  SHA512 = 0x7106,
  RIPEMD160 = 0x7107,
  Unknown = 0x7FFF,
};

// Kinds of public keys the library knows about.
enum class KeyKind { Unknown, Rsa, RsaPss, Dsa, Ec, Ed25519, Gost2001 };

// Wipes a secret held in a string or byte buffer; the compiler may not drop the write.
TESSAREL_API void wipe(std::string& secret) noexcept;
TESSAREL_API void wipe(Bytes& secret) noexcept;

// Date-time at the boundary: days since 1899-12-30, the fraction being the time of day.
// 0.0 means "no date given".
using DateTime = double;

}  // namespace tessarel

#endif
