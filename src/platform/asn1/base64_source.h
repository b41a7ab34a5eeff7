// Base64 text read as the bytes it encodes, without decoding it whole: a gigabyte of text
// costs one pass that checks it (and, for text with irregular line breaks, a small index),
// and every read decodes only what it asks for. Sources stack, so Base64 of Base64 reads
// the same way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/asn1/ber.h"
#include "tessarel/errors.h"

namespace tessarel::asn1 {

// The text is not Base64; offset is where in the text the problem lies.
class Base64Error : public Exception {
 public:
  Base64Error(std::uint64_t offset, const std::string& what)
      : Exception(what + " (at offset " + std::to_string(offset) + ")"), offset_(offset) {}
  std::uint64_t offset() const { return offset_; }

 private:
  std::uint64_t offset_;
};

class Base64Source : public ByteSource {
 public:
  // The text lies in [begin, end) of text; a UTF-8 byte-order mark and white space before
  // it, white space after it and around its lines, and line breaks (LF or CR LF, any line
  // length) are allowed, padding may be left out. Raises
  // Base64Error when the text is not Base64 or holds no data.
  Base64Source(std::shared_ptr<const ByteSource> text, std::uint64_t begin, std::uint64_t end);
  ~Base64Source() override;

  std::uint64_t size() const override { return size_; }
  void read(std::uint64_t offset, void* buffer, std::size_t n) const override;

  // Characters per line when every line but the last has the same length (the whole text
  // for one line); 0 when the line breaks are irregular.
  std::uint64_t line_length() const { return regular_ ? line_ : 0; }
  bool crlf() const { return eol_ == 2; }

 private:
  struct Checkpoint {
    std::uint64_t chars;  // data characters before this point (a multiple of the stride)
    std::uint64_t text;   // offset of the next data character in the text
  };
  bool scan_regular();
  void scan_general();
  void decode_range(std::uint64_t offset, std::size_t n, std::uint8_t* out) const;
  // Decode from data character first_char on; each returns the bytes written.
  std::size_t decode_quads(std::uint64_t quad, std::uint64_t quads, std::uint8_t* out) const;
  std::size_t decode_regular(std::uint64_t first_char, std::uint64_t chars,
                             std::uint8_t* out) const;
  std::size_t decode_general(std::uint64_t first_char, std::uint64_t chars,
                             std::uint8_t* out) const;
  std::uint64_t text_offset(std::uint64_t data_char) const;

  std::shared_ptr<const ByteSource> text_;
  std::uint64_t start_ = 0, stop_ = 0;  // the text without surrounding white space
  std::uint64_t chars_ = 0;             // data characters, padding excluded
  std::uint64_t size_ = 0;
  // Regular layout: lines of line_ characters followed by eol_ bytes; the last may be shorter.
  bool regular_ = false;
  std::uint64_t line_ = 0;
  unsigned eol_ = 0;
  std::vector<Checkpoint> checkpoints_;
  mutable Checkpoint cursor_{0, 0};  // where the last general decode stopped
  // A buffer that grows without clearing what it will overwrite anyway.
  class Scratch {
   public:
    std::uint8_t* get(std::size_t n) {
      if (n > capacity_) {
        data_.reset(new std::uint8_t[n]);
        capacity_ = n;
      }
      return data_.get();
    }

   private:
    std::unique_ptr<std::uint8_t[]> data_;
    std::size_t capacity_ = 0;
  };
  mutable Scratch text_buffer_;
  mutable Bytes window_;
  mutable std::uint64_t window_offset_ = 0;
};

// PEM armour: the Base64 body between "-----BEGIN label-----" and "-----END label-----".
struct PemBody {
  std::string label;
  std::uint64_t begin = 0, end = 0;  // the body's range in the text
};
// Finds the armour at the start of text (white space before it allowed). Returns false when
// the text does not start with a BEGIN line; raises Base64Error when the END line is missing.
bool FindPemBody(const ByteSource& text, PemBody& body);

// Decodes the complete quads at the start of a text prefix, skipping white space, up to
// max_out bytes or the first character that is not Base64: enough to see what a large text
// holds without reading it all.
Bytes DecodeBase64Prefix(const std::uint8_t* text, std::size_t n, std::size_t max_out);
// Base64 alphabet, padding or white space.
bool IsBase64TextByte(std::uint8_t b);

}  // namespace tessarel::asn1
