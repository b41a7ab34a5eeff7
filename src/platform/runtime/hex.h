// Hexadecimal renderings used for identifiers and digest texts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tessarel/types.h"

namespace tessarel {

// Two upper-case hexadecimal digits per byte, no separators. Every identifier and digest
// text of the library uses this one form, since they are compared exactly.
std::string BinaryToString(const std::uint8_t* data, std::size_t size);
inline std::string BinaryToString(const Bytes& data) {
  return BinaryToString(data.data(), data.size());
}
// Inserts separator between byte pairs: "1A2B3C" -> "1A 2B 3C".
std::string BeautifyBinaryString(std::string_view hex, char separator);
// Parses hexadecimal text (either case, even length); throws EConvertError otherwise.
Bytes HexToBinary(std::string_view hex);

}  // namespace tessarel
