#include "platform/runtime/hex.h"

#include "tessarel/errors.h"

namespace tessarel {

std::string BinaryToString(const std::uint8_t* data, std::size_t size) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out(size * 2, '0');
  for (std::size_t i = 0; i < size; ++i) {
    out[2 * i] = kDigits[data[i] >> 4];
    out[2 * i + 1] = kDigits[data[i] & 0x0F];
  }
  return out;
}

std::string BeautifyBinaryString(std::string_view hex, char separator) {
  std::string out;
  out.reserve(hex.size() + hex.size() / 2);
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    if (i) out.push_back(separator);
    out.append(hex.substr(i, 2));
  }
  return out;
}

namespace {
int nibble(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}
}  // namespace

Bytes HexToBinary(std::string_view hex) {
  if (hex.size() % 2)
    throw EConvertError("'" + std::string(hex) + "' is not a valid hexadecimal text");
  Bytes out(hex.size() / 2);
  for (std::size_t i = 0; i < out.size(); ++i) {
    int hi = nibble(hex[2 * i]), lo = nibble(hex[2 * i + 1]);
    if (hi < 0 || lo < 0)
      throw EConvertError("'" + std::string(hex) + "' is not a valid hexadecimal text");
    out[i] = static_cast<std::uint8_t>(hi << 4 | lo);
  }
  return out;
}

}  // namespace tessarel
