#include "platform/asn1/ber_reader.h"

namespace tessarel::asn1 {

void ExpectTag(const BerNode& node, std::uint8_t tag, const char* expected) {
  // identifier() is 0 for tag numbers above 30, which no tag here has.
  if (node.identifier() != tag)
    throw BerError(kBerUnexpected, node.offset, std::string(expected) + " expected");
}

BerReader::BerReader(const ByteSource& source, const BerNode& node, std::uint8_t tag,
                     const char* expected)
    : BerReader(source, node) {
  ExpectTag(node, tag, expected);
}

const BerNode& BerReader::next(const char* name) {
  if (!more()) throw BerError(kBerUnexpected, node_->offset, std::string("missing ") + name);
  return node_->children[next_++];
}

const BerNode& BerReader::next(std::uint8_t tag, const char* name, const char* expected) {
  const BerNode& n = next(name);
  ExpectTag(n, tag, expected);
  return n;
}

const BerNode* BerReader::read_optional(std::uint8_t tag) {
  if (!more()) return nullptr;
  const BerNode& n = node_->children[next_];
  if (!n.is(static_cast<std::uint8_t>(tag >> 6), tag & 0x1Fu)) return nullptr;
  ++next_;
  return &n;
}

}  // namespace tessarel::asn1
