// DER encoding (the writer) and a strict reader of single definite-length elements.
// The general BER reader for foreign input lives beside this file.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tessarel/types.h"

namespace tessarel::asn1 {

// Universal tags (identifier octets, constructed bit included where it always is).
enum : std::uint8_t {
  kBoolean = 0x01,
  kInteger = 0x02,
  kBitString = 0x03,
  kOctetString = 0x04,
  kNull = 0x05,
  kObjectIdentifier = 0x06,
  kUtf8String = 0x0C,
  kPrintableString = 0x13,
  kT61String = 0x14,
  kIa5String = 0x16,
  kUtcTime = 0x17,
  kGeneralizedTime = 0x18,
  kBmpString = 0x1E,
  kSequence = 0x30,
  kSet = 0x31,
};

// Context-specific tags: [n] IMPLICIT primitive, [n] constructed (EXPLICIT or IMPLICIT SET/SEQ).
constexpr std::uint8_t context(unsigned n) {
  return static_cast<std::uint8_t>(0x80 | n);
}
constexpr std::uint8_t context_constructed(unsigned n) {
  return static_cast<std::uint8_t>(0xA0 | n);
}

// The length octets of a definite length.
void append_length(Bytes& out, std::uint64_t length);
std::size_t length_of_length(std::uint64_t length);
// Tag + length + content.
Bytes tlv(std::uint8_t tag, const Bytes& content);
Bytes tlv(std::uint8_t tag, const std::uint8_t* content, std::size_t n);
// The header (tag + length octets) of an element whose content is n bytes long.
Bytes header(std::uint8_t tag, std::uint64_t n);

// OBJECT IDENTIFIER content octets for a dotted text, and back.
Bytes encode_oid(std::string_view dotted);
std::string decode_oid(const std::uint8_t* content, std::size_t n);
inline std::string decode_oid(const Bytes& content) {
  return decode_oid(content.data(), content.size());
}

// INTEGER content octets of a non-negative number (minimal, with a 00 when the top bit is set).
Bytes integer_content(std::uint64_t value);
// INTEGER content octets of a big-endian unsigned magnitude.
Bytes unsigned_integer_content(const Bytes& magnitude);

// Time values: "YYMMDDHHMMSSZ" and "YYYYMMDDHHMMSSZ".
std::string utc_time_text(std::chrono::sys_seconds t);
std::string generalized_time_text(std::chrono::sys_seconds t);

// Builds nested DER. Constructed elements are opened with begin() and closed with end();
// the length is filled in when the element closes.
class DerWriter {
 public:
  DerWriter& begin(std::uint8_t tag);
  DerWriter& end();
  DerWriter& primitive(std::uint8_t tag, const std::uint8_t* content, std::size_t n);
  DerWriter& primitive(std::uint8_t tag, const Bytes& content) {
    return primitive(tag, content.data(), content.size());
  }
  DerWriter& primitive(std::uint8_t tag, std::string_view content) {
    return primitive(tag, reinterpret_cast<const std::uint8_t*>(content.data()), content.size());
  }
  DerWriter& integer(std::uint64_t value) { return primitive(kInteger, integer_content(value)); }
  // INTEGER with the given content octets, written unchanged.
  DerWriter& integer_bytes(const Bytes& content) { return primitive(kInteger, content); }
  DerWriter& oid(std::string_view dotted) {
    return primitive(kObjectIdentifier, encode_oid(dotted));
  }
  DerWriter& null() { return primitive(kNull, nullptr, 0); }
  DerWriter& boolean(bool v);
  DerWriter& octet_string(const Bytes& content) { return primitive(kOctetString, content); }
  // BIT STRING with no unused bits.
  DerWriter& bit_string(const Bytes& content, std::uint8_t unused_bits = 0);
  DerWriter& utc_time(std::chrono::sys_seconds t) { return primitive(kUtcTime, utc_time_text(t)); }
  DerWriter& generalized_time(std::chrono::sys_seconds t) {
    return primitive(kGeneralizedTime, generalized_time_text(t));
  }
  // An element that is already encoded.
  DerWriter& raw(const Bytes& der);
  DerWriter& raw(const std::uint8_t* der, std::size_t n);

  // The encoding; every begin() must have been closed.
  Bytes finish();
  std::size_t size() const { return out_.size(); }

 private:
  Bytes out_;
  std::vector<std::size_t> open_;
};

// SET OF: sorts the encoded elements as X.690 requires for DER and wraps them.
Bytes der_set_of(std::vector<Bytes> elements, std::uint8_t tag = kSet);

// One element read from DER: identifier (single octet tags only), header size, content.
struct Tlv {
  std::uint8_t tag = 0;
  std::size_t header_length = 0;
  std::size_t length = 0;
  const std::uint8_t* content = nullptr;
  std::size_t total() const { return header_length + length; }
};

// Reads the element at data. Throws tessarel::Exception when the bytes are not a complete
// definite-length element (indefinite lengths, high tag numbers, lengths past the end).
Tlv read_tlv(const std::uint8_t* data, std::size_t size);

}  // namespace tessarel::asn1
