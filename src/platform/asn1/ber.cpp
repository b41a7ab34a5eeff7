#include "platform/asn1/ber.h"

#include <algorithm>
#include <cstring>

#include "platform/asn1/der.h"

namespace tessarel::asn1 {

void MemorySource::read(std::uint64_t offset, void* buffer, std::size_t n) const {
  if (offset > size_ || n > size_ - offset) throw EInOutError("read past the end of the data");
  // An empty read may come with null pointers (an empty buffer or empty data).
  if (n) std::memcpy(buffer, data_ + offset, n);
}

FileSource::FileSource(const std::string& path)
    : file_(path, InputFile::Streams::Spool), size_(file_.size()) {}

void FileSource::read(std::uint64_t offset, void* buffer, std::size_t n) const {
  if (offset > size_ || n > size_ - offset)
    throw EInOutError("I/O error reading \"" + file_.path() + "\": unexpected end of file");
  constexpr std::size_t kWindow = 64 * 1024;
  if (n > kWindow / 2) {
    file_.pread_exact(buffer, n, offset);
    return;
  }
  if (window_.empty() || offset < window_offset_ || offset + n > window_offset_ + window_.size()) {
    std::size_t len = static_cast<std::size_t>(std::min<std::uint64_t>(kWindow, size_ - offset));
    window_.resize(len);
    file_.pread_exact(window_.data(), len, offset);
    window_offset_ = offset;
  }
  std::memcpy(buffer, window_.data() + (offset - window_offset_), n);
}

namespace {

class Parser {
 public:
  Parser(const ByteSource& src, const BerLimits& limits, BerEncodingInfo* info)
      : src_(src), limits_(limits), info_(info) {}

  // Parses one element starting at offset that must end by limit.
  BerNode element(std::uint64_t offset, std::uint64_t limit, unsigned depth) {
    if (depth > limits_.max_depth)
      throw BerError(kBerTooDeep, offset,
                     "nesting deeper than " + std::to_string(limits_.max_depth) + " levels");
    if (++count_ > limits_.max_elements)
      throw BerError(kBerTooManyElements, offset, "too many elements");
    BerNode n;
    n.offset = offset;
    std::uint64_t pos = offset;
    std::uint8_t id = byte(pos++, limit);
    n.tag_class = static_cast<std::uint8_t>(id >> 6);
    n.constructed = (id & 0x20) != 0;
    n.tag_number = id & 0x1F;
    if (n.tag_number == 0x1F) {
      std::uint32_t number = 0;
      for (int i = 0;; ++i) {
        std::uint8_t b = byte(pos++, limit);
        if (i == 0 && b == 0x80)
          throw BerError(kBerBadTag, offset, "tag number with a leading zero");
        if (i >= 4) throw BerError(kBerBadTag, offset, "tag number too large");
        number = (number << 7) | (b & 0x7F);
        if (!(b & 0x80)) break;
      }
      n.tag_number = number;
    }
    std::uint8_t first = byte(pos++, limit);
    if (first < 0x80) {
      n.content_length = first;
    } else if (first == 0x80) {
      if (!n.constructed)
        throw BerError(kBerBadLength, offset, "indefinite length on a primitive element");
      n.indefinite = true;
    } else {
      unsigned octets = first & 0x7F;
      if (octets > 8 || first == 0xFF)
        throw BerError(kBerBadLength, offset, "length of " + std::to_string(octets) + " octets");
      std::uint64_t len = 0;
      for (unsigned i = 0; i < octets; ++i)
        len = (len << 8) | byte(pos++, limit);
      n.content_length = len;
      if (info_ && (len < 0x80 || len >> (8 * (octets - 1)) == 0)) info_->long_lengths = true;
    }
    if (info_) {
      if (n.indefinite) info_->indefinite_lengths = true;
      bool string_type = n.tag_number == 3 || n.tag_number == 4 ||
                         (n.tag_number >= 12 && n.tag_number <= 30 &&
                          n.tag_number != kTagSequence && n.tag_number != kTagSet);
      if (n.constructed && n.tag_class == 0 && string_type) info_->constructed_strings = true;
    }
    n.content_offset = pos;
    if (!n.indefinite) {
      if (n.content_length > limit - pos)
        throw BerError(
            kBerLengthBeyondData, offset,
            "length " + std::to_string(n.content_length) + " beyond the end of the data");
      if (n.constructed) {
        std::uint64_t end = pos + n.content_length;
        while (pos < end) {
          n.children.push_back(element(pos, end, depth + 1));
          pos = n.children.back().end();
        }
      }
    } else {
      while (true) {
        if (pos + 2 <= limit && peek(pos) == 0 && peek(pos + 1) == 0) {
          n.content_length = pos - n.content_offset;
          break;
        }
        if (pos >= limit)
          throw BerError(kBerMissingEnd, offset, "indefinite length without end-of-contents");
        n.children.push_back(element(pos, limit, depth + 1));
        pos = n.children.back().end();
      }
    }
    return n;
  }

 private:
  std::uint8_t byte(std::uint64_t pos, std::uint64_t limit) {
    if (pos >= limit) throw BerError(kBerTruncated, pos, "data ends inside an element");
    return peek(pos);
  }
  std::uint8_t peek(std::uint64_t pos) {
    std::uint8_t b;
    src_.read(pos, &b, 1);
    return b;
  }

  const ByteSource& src_;
  BerLimits limits_;
  BerEncodingInfo* info_;
  std::size_t count_ = 0;
};

}  // namespace

BerNode ParseBer(const ByteSource& source, std::uint64_t offset, const BerLimits& limits,
                 BerEncodingInfo* info) {
  Parser p(source, limits, info);
  return p.element(offset, source.size(), 0);
}

Bytes ElementBytes(const ByteSource& source, const BerNode& node) {
  std::uint64_t n = node.total_length();
  Bytes out(static_cast<std::size_t>(n));
  if (n) source.read(node.offset, out.data(), out.size());
  return out;
}

void ContentRanges(const BerNode& node, std::vector<Range>& out) {
  if (!node.constructed) {
    if (node.content_length) out.push_back({node.content_offset, node.content_length});
    return;
  }
  for (const auto& c : node.children)
    ContentRanges(c, out);
}

namespace {

Bytes identifier_octets(const BerNode& n, bool constructed) {
  std::uint8_t first = static_cast<std::uint8_t>(n.tag_class << 6 | (constructed ? 0x20 : 0));
  if (n.tag_number < 31) return {static_cast<std::uint8_t>(first | n.tag_number)};
  Bytes out{static_cast<std::uint8_t>(first | 0x1F)};
  Bytes rest;
  for (std::uint32_t v = n.tag_number; v; v >>= 7)
    rest.insert(rest.begin(), static_cast<std::uint8_t>((v & 0x7F) | (rest.empty() ? 0 : 0x80)));
  out.insert(out.end(), rest.begin(), rest.end());
  return out;
}

Bytes to_der(const ByteSource& source, const BerNode& n, std::uint64_t max) {
  if (n.total_length() > max)
    throw BerError(kBerUnexpected, n.offset, "element too large to re-encode");
  bool string_type =
      n.tag_class == 0 && (n.tag_number == 3 || n.tag_number == 4 ||
                           (n.tag_number >= 12 && n.tag_number <= 30 &&
                            n.tag_number != kTagSequence && n.tag_number != kTagSet));
  Bytes content;
  bool constructed = n.constructed && !string_type;
  if (!n.constructed || string_type) {
    if (n.tag_number == 3 && n.constructed) {
      // A segmented BIT STRING: each segment starts with its count of unused bits; only
      // the last may have any.
      std::vector<Range> ranges;
      ContentRanges(n, ranges);
      std::uint8_t unused = 0;
      content.push_back(0);
      for (const auto& r : ranges) {
        Bytes seg(static_cast<std::size_t>(r.length));
        source.read(r.offset, seg.data(), seg.size());
        if (seg.empty()) continue;
        unused = seg[0];
        content.insert(content.end(), seg.begin() + 1, seg.end());
      }
      content[0] = unused;
    } else {
      content = ContentBytes(source, n, max);
    }
  } else {
    std::vector<Bytes> children;
    for (const auto& c : n.children)
      children.push_back(to_der(source, c, max));
    if (n.is_universal(kTagSet)) {
      Bytes set = der_set_of(std::move(children));
      return set;
    }
    for (const auto& c : children)
      content.insert(content.end(), c.begin(), c.end());
  }
  Bytes out = identifier_octets(n, constructed);
  append_length(out, content.size());
  out.insert(out.end(), content.begin(), content.end());
  return out;
}

}  // namespace

Bytes ToDer(const ByteSource& source, const BerNode& node, std::uint64_t max) {
  return to_der(source, node, max);
}

Bytes ContentBytes(const ByteSource& source, const BerNode& node, std::uint64_t max) {
  std::vector<Range> ranges;
  ContentRanges(node, ranges);
  std::uint64_t total = 0;
  for (const auto& r : ranges)
    total += r.length;
  if (total > max)
    throw BerError(kBerUnexpected, node.offset,
                   "element of " + std::to_string(total) + " bytes is too large here");
  Bytes out(static_cast<std::size_t>(total));
  std::size_t at = 0;
  for (const auto& r : ranges) {
    source.read(r.offset, out.data() + at, static_cast<std::size_t>(r.length));
    at += static_cast<std::size_t>(r.length);
  }
  return out;
}

std::string ReadOid(const ByteSource& source, const BerNode& node) {
  if (!node.is_universal(kObjectIdentifier) || node.constructed || node.content_length == 0 ||
      node.content_length > 256)
    throw BerError(kBerUnexpected, node.offset, "an OBJECT IDENTIFIER was expected");
  Bytes b = ContentBytes(source, node);
  try {
    return decode_oid(b);
  } catch (const Exception& e) {
    throw BerError(kBerUnexpected, node.offset, e.what());
  }
}

Bytes ReadIntegerBytes(const ByteSource& source, const BerNode& node) {
  if (!node.is_universal(kInteger) || node.constructed || node.content_length == 0 ||
      node.content_length > 1024)
    throw BerError(kBerUnexpected, node.offset, "an INTEGER was expected");
  return ContentBytes(source, node);
}

std::int64_t ReadSmallInteger(const ByteSource& source, const BerNode& node) {
  Bytes b = ReadIntegerBytes(source, node);
  if (b.size() > 8) throw BerError(kBerUnexpected, node.offset, "INTEGER too large");
  std::int64_t v = (b[0] & 0x80) ? -1 : 0;
  for (auto c : b)
    v = static_cast<std::int64_t>(static_cast<std::uint64_t>(v) << 8 | c);
  return v;
}

}  // namespace tessarel::asn1
