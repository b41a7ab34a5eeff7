// A BER/DER reader for untrusted input. It reads element headers only and records where
// each element's content lies, so a gigabyte OCTET STRING costs nothing until its bytes are
// asked for. Nesting depth and element count are bounded, every length is checked against
// the bytes actually there, and nothing is allocated from a length the input claims.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/runtime/files.h"
#include "tessarel/errors.h"
#include "tessarel/types.h"

namespace tessarel::asn1 {

// Where the encoded bytes come from.
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  virtual std::uint64_t size() const = 0;
  // Copies n bytes at offset; throws EInOutError when they are not all there.
  virtual void read(std::uint64_t offset, void* buffer, std::size_t n) const = 0;
  // The whole input when it is in memory, else null.
  virtual const std::uint8_t* data() const { return nullptr; }
  // A descriptor to copy from inside the kernel, or -1.
  virtual int fd() const { return -1; }
};

class MemorySource : public ByteSource {
 public:
  MemorySource(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  explicit MemorySource(const Bytes& b) : data_(b.data()), size_(b.size()) {}
  std::uint64_t size() const override { return size_; }
  void read(std::uint64_t offset, void* buffer, std::size_t n) const override;
  const std::uint8_t* data() const override { return data_; }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
};

// A file read on demand through a small window, never held whole.
class FileSource : public ByteSource {
 public:
  explicit FileSource(const std::string& path);
  std::uint64_t size() const override { return size_; }
  void read(std::uint64_t offset, void* buffer, std::size_t n) const override;
  const std::string& path() const { return file_.path(); }
  InputFile& file() const { return file_; }
  int fd() const override { return file_.fd(); }

 private:
  mutable InputFile file_;
  std::uint64_t size_;
  mutable Bytes window_;
  mutable std::uint64_t window_offset_ = 0;
};

// Parser failures: a code saying what is wrong and where.
enum BerErrorCode : int {
  kBerTruncated = 1,         // the data ends inside an element
  kBerLengthBeyondData = 2,  // a length points past the end of the data or of its parent
  kBerTooDeep = 3,           // nesting deeper than the limit
  kBerBadLength = 4,         // a length encoding that is not allowed
  kBerTooManyElements = 5,   // more elements than the limit
  kBerBadTag = 6,            // an identifier that cannot be read
  kBerMissingEnd = 7,        // an indefinite length without its end-of-contents
  kBerUnexpected = 8,        // an element of another kind than the structure requires
  kBerTrailingData = 9,      // bytes after the outermost element
  kBerBadText = 10,          // text that does not decode (Base64, PEM armour)
};

class BerError : public Exception {
 public:
  BerError(int code, std::uint64_t offset, const std::string& what)
      : Exception(what + " (at offset " + std::to_string(offset) + ")"),
        code_(code),
        offset_(offset) {}
  int code() const { return code_; }
  std::uint64_t offset() const { return offset_; }

 private:
  int code_;
  std::uint64_t offset_;
};

struct BerLimits {
  unsigned max_depth = 64;
  std::size_t max_elements = std::size_t{1} << 22;
};

// Universal tag numbers of SEQUENCE and SET, for BerNode::is_universal (der.h's kSequence
// and kSet are their identifier octets, with the constructed bit).
inline constexpr std::uint32_t kTagSequence = 16;
inline constexpr std::uint32_t kTagSet = 17;

struct BerNode {
  std::uint8_t tag_class = 0;  // 0 universal, 1 application, 2 context-specific, 3 private
  bool constructed = false;
  std::uint32_t tag_number = 0;
  bool indefinite = false;
  std::uint64_t offset = 0;          // first identifier byte
  std::uint64_t content_offset = 0;  // first content byte
  std::uint64_t content_length = 0;  // without the end-of-contents octets
  std::vector<BerNode> children;     // for constructed elements

  // Offset just past the element (after the end-of-contents octets of an indefinite one).
  std::uint64_t end() const { return content_offset + content_length + (indefinite ? 2 : 0); }
  std::uint64_t total_length() const { return end() - offset; }
  // Single identifier octet for tag numbers below 31 (0 otherwise).
  std::uint8_t identifier() const {
    return tag_number < 31
               ? static_cast<std::uint8_t>(tag_class << 6 | (constructed ? 0x20 : 0) | tag_number)
               : 0;
  }
  bool is(std::uint8_t cls, std::uint32_t number) const {
    return tag_class == cls && tag_number == number;
  }
  bool is_universal(std::uint32_t number) const { return is(0, number); }
  bool is_context(std::uint32_t number) const { return is(2, number); }
};

// What a parse met that DER does not allow.
struct BerEncodingInfo {
  bool indefinite_lengths = false;
  bool constructed_strings = false;  // strings sent in segments
  bool long_lengths = false;         // lengths in more octets than needed
  bool der() const { return !indefinite_lengths && !constructed_strings && !long_lengths; }
};

// Parses the element at offset and everything inside it.
BerNode ParseBer(const ByteSource& source, std::uint64_t offset = 0, const BerLimits& limits = {},
                 BerEncodingInfo* info = nullptr);

// The encoded bytes of an element, header included (for hashing or keeping as DER).
Bytes ElementBytes(const ByteSource& source, const BerNode& node);
// The content bytes of a primitive element; of a constructed string, the concatenation of
// its segments. Refuses more than max bytes (the caller states what it is ready to hold).
Bytes ContentBytes(const ByteSource& source, const BerNode& node, std::uint64_t max = 16u << 20);
// The byte ranges that make up a string element's content, in order.
struct Range {
  std::uint64_t offset;
  std::uint64_t length;
};
void ContentRanges(const BerNode& node, std::vector<Range>& out);

// The DER encoding of a BER element: definite minimal lengths, strings in one piece, the
// elements of every SET in DER order. Refuses elements larger than max bytes.
Bytes ToDer(const ByteSource& source, const BerNode& node, std::uint64_t max = 16u << 20);

// Readers of common primitives; they raise BerError (kBerUnexpected) for the wrong kind.
std::string ReadOid(const ByteSource& source, const BerNode& node);
Bytes ReadIntegerBytes(const ByteSource& source, const BerNode& node);  // content octets as encoded
std::int64_t ReadSmallInteger(const ByteSource& source, const BerNode& node);

}  // namespace tessarel::asn1
