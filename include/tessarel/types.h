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
  // Digests the original platform had no identifiers for; numbered after the others.
  SHA3_224 = 0x7110,
  SHA3_256 = 0x7111,
  SHA3_384 = 0x7112,
  SHA3_512 = 0x7113,
  SHAKE128 = 0x7114,  // 256-bit output, as CMS uses it (RFC 8702)
  SHAKE256 = 0x7115,  // 512-bit output (RFC 8702, RFC 8419)
  Unknown = 0x7FFF,
};

// Kinds of public keys the library knows about.
enum class KeyKind { Unknown, Rsa, RsaPss, Dsa, Ec, Ed25519, Gost2001, Ed448 };

// Wipes a secret held in a string or byte buffer; the compiler may not drop the write.
TESSAREL_API void wipe(std::string& secret) noexcept;
TESSAREL_API void wipe(Bytes& secret) noexcept;

// Date-time at the boundary: days since 1899-12-30, the fraction being the time of day.
// 0.0 means "no date given".
using DateTime = double;

// A file that an operation reads: its output must never be written over it (same file by
// device and inode, whatever names or links lead there). what names it in the refusal,
// as "the password file".
struct GuardedInput {
  std::string path;
  std::string what;
};

}  // namespace tessarel

#endif
