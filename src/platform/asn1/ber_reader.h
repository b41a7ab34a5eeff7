// Reading a parsed structure field by field, in the order its ASN.1 definition lists them:
// start_sequence() and start_set() step into the next field, read_optional() takes a field
// only when it is there. Failures are BerError kBerUnexpected in words the caller chooses:
// "missing <name>" at the offset of the element that ends too early, "<expected> expected"
// at the offset of an element of another kind. Fields after the last one read are left
// alone: later versions of a structure may add some.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/asn1/ber.h"
#include "platform/asn1/der.h"

namespace tessarel::asn1 {

// Tags are single identifier octets as der.h writes them (kSequence, kSet, kOctetString,
// context_constructed(0)...): class, form and number in one.

// "<expected> expected" unless node has the tag, in the same form.
void ExpectTag(const BerNode& node, std::uint8_t tag, const char* expected);

class BerReader {
 public:
  // The elements inside node (none when it is primitive).
  BerReader(const ByteSource& source, const BerNode& node) : source_(&source), node_(&node) {}
  // The same after ExpectTag(node, tag, expected).
  BerReader(const ByteSource& source, const BerNode& node, std::uint8_t tag, const char* expected);

  bool more() const { return next_ < node_->children.size(); }
  // The next element, whatever it is.
  const BerNode& next(const char* name);
  // The next element, which must have the tag.
  const BerNode& next(std::uint8_t tag, const char* name, const char* expected);
  // The next element when it has the tag's class and number, in either form (a primitive
  // one holds no elements); otherwise null, and the reader stays where it is.
  const BerNode* read_optional(std::uint8_t tag);

  // A reader of the next element, which must have the tag.
  BerReader start(std::uint8_t tag, const char* name, const char* expected) {
    return BerReader(*source_, next(tag, name, expected));
  }
  BerReader start_sequence(const char* name, const char* expected) {
    return start(kSequence, name, expected);
  }
  BerReader start_set(const char* name, const char* expected) {
    return start(kSet, name, expected);
  }

  // The next element as a primitive (see ReadOid, ReadSmallInteger).
  std::string read_oid(const char* name) { return ReadOid(*source_, next(name)); }
  std::int64_t read_small_integer(const char* name) {
    return ReadSmallInteger(*source_, next(name));
  }

  const ByteSource& source() const { return *source_; }
  const BerNode& node() const { return *node_; }

 private:
  const ByteSource* source_;
  const BerNode* node_;
  std::size_t next_ = 0;
};

}  // namespace tessarel::asn1
