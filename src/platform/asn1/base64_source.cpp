#include "platform/asn1/base64_source.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace tessarel::asn1 {

namespace {

constexpr std::uint32_t kBad = 0x01000000;
constexpr std::int8_t kInvalid = -1, kWhite = -2, kPad = -3;
constexpr std::uint64_t kStride = 1 << 16;  // data characters between two checkpoints
constexpr std::uint64_t kTextBlock = 1 << 20;
constexpr std::size_t kWindow = 48 * 1024;  // a multiple of 3: windows start on whole quads
constexpr std::size_t kHead = 64 * 1024;

// Each character's value pre-shifted to its place in a quad, so that a quad decodes with
// four look-ups and a test of one bit.
struct Tables {
  std::array<std::uint32_t, 256> d0{}, d1{}, d2{}, d3{};
  std::array<std::int8_t, 256> cls{};
  Tables() {
    cls.fill(kInvalid);
    d0.fill(kBad);
    d1.fill(kBad);
    d2.fill(kBad);
    d3.fill(kBad);
    const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (std::uint32_t i = 0; i < 64; ++i) {
      auto c = static_cast<std::uint8_t>(alphabet[i]);
      cls[c] = static_cast<std::int8_t>(i);
      d0[c] = i << 18;
      d1[c] = i << 12;
      d2[c] = i << 6;
      d3[c] = i;
    }
    for (char w : {' ', '\t', '\r', '\n', '\f', '\v'})
      cls[static_cast<std::uint8_t>(w)] = kWhite;
    cls['='] = kPad;
  }
};

const Tables& tables() {
  static const Tables t;
  return t;
}

// What a block of text holds, counted sixteen bytes at a time: anything that is neither
// Base64 nor a line break, and the line breaks and padding characters.
struct Counts {
  std::uint64_t lf = 0, cr = 0, eq = 0;
  bool bad = false;
};

void count_bytes(const std::uint8_t* p, std::size_t n, Counts& c) {
  using V = std::uint8_t __attribute__((vector_size(16)));
  std::size_t i = 0;
  V bad = {};
  while (n - i >= 16) {
    V lf = {}, cr = {}, eq = {};
    // Lane counters hold at most 255.
    std::size_t rounds = std::min<std::size_t>((n - i) / 16, 255);
    for (std::size_t r = 0; r < rounds; ++r, i += 16) {
      V x;
      std::memcpy(&x, p + i, 16);
      V is_lf = std::bit_cast<V>(x == 10), is_cr = std::bit_cast<V>(x == 13),
        is_eq = std::bit_cast<V>(x == 61);
      V ok = std::bit_cast<V>((x - 65) < 26) |
             std::bit_cast<V>((x - 97) < 26) |
             std::bit_cast<V>((x - 48) < 10) | std::bit_cast<V>(x == 43) |
             std::bit_cast<V>(x == 47) | is_lf | is_cr | is_eq;
      bad |= ~ok;
      lf -= is_lf;
      cr -= is_cr;
      eq -= is_eq;
    }
    for (int k = 0; k < 16; ++k) {
      c.lf += lf[k];
      c.cr += cr[k];
      c.eq += eq[k];
    }
  }
  for (int k = 0; k < 16; ++k)
    if (bad[k]) c.bad = true;
  for (; i < n; ++i) {
    std::uint8_t b = p[i];
    if (b == '\n')
      ++c.lf;
    else if (b == '\r')
      ++c.cr;
    else if (b == '=')
      ++c.eq;
    else if (tables().cls[b] < 0)
      c.bad = true;
  }
}

std::string byte_text(std::uint8_t b) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "0x%02X", b);
  return buf;
}

// Decodes n data characters (whole quads, then at most one short quad at the very end of
// the data) into out; returns the number of bytes written.
std::size_t decode_chars(const std::uint8_t* p, std::size_t n, std::uint8_t* out) {
  const Tables& t = tables();
  std::size_t quads = n / 4;
  std::uint8_t* o = out;
  for (std::size_t q = 0; q < quads; ++q, p += 4, o += 3) {
    std::uint32_t v = t.d0[p[0]] | t.d1[p[1]] | t.d2[p[2]] | t.d3[p[3]];
    if (v & kBad) throw EInOutError("Base64 text changed while it was read");
    o[0] = static_cast<std::uint8_t>(v >> 16);
    o[1] = static_cast<std::uint8_t>(v >> 8);
    o[2] = static_cast<std::uint8_t>(v);
  }
  if (n % 4) {
    std::uint32_t v = 0;
    for (std::size_t k = 0; k < 4; ++k) {
      std::int8_t s = k < n % 4 ? t.cls[p[k]] : 0;
      if (s < 0) throw EInOutError("Base64 text changed while it was read");
      v = v << 6 | static_cast<std::uint32_t>(s);
    }
    *o++ = static_cast<std::uint8_t>(v >> 16);
    if (n % 4 == 3) *o++ = static_cast<std::uint8_t>(v >> 8);
  }
  return static_cast<std::size_t>(o - out);
}

}  // namespace

bool IsBase64TextByte(std::uint8_t b) {
  return tables().cls[b] != kInvalid;
}

Bytes DecodeBase64Prefix(const std::uint8_t* text, std::size_t n, std::size_t max_out) {
  const Tables& t = tables();
  Bytes out;
  std::uint32_t acc = 0;
  unsigned k = 0;
  for (std::size_t i = 0; i < n && out.size() < max_out; ++i) {
    std::int8_t c = t.cls[text[i]];
    if (c == kWhite) continue;
    if (c < 0) break;
    acc = acc << 6 | static_cast<std::uint32_t>(c);
    if (++k == 4) {
      out.push_back(static_cast<std::uint8_t>(acc >> 16));
      out.push_back(static_cast<std::uint8_t>(acc >> 8));
      out.push_back(static_cast<std::uint8_t>(acc));
      acc = 0;
      k = 0;
    }
  }
  if (out.size() > max_out) out.resize(max_out);
  return out;
}

Base64Source::Base64Source(std::shared_ptr<const ByteSource> text, std::uint64_t begin,
                           std::uint64_t end)
    : text_(std::move(text)) {
  if (end > text_->size() || begin > end) throw Base64Error(begin, "a text range past its end");
  // The text without the white space around it.
  Bytes head(static_cast<std::size_t>(std::min<std::uint64_t>(kHead, end - begin)));
  text_->read(begin, head.data(), head.size());
  // A byte-order mark some editors write, then white space.
  std::size_t lead = std::string_view(reinterpret_cast<const char*>(head.data()), head.size())
                             .starts_with("\xEF\xBB\xBF")
                         ? 3
                         : 0;
  while (lead < head.size() && tables().cls[head[lead]] == kWhite)
    ++lead;
  start_ = begin + lead;
  stop_ = end;
  Bytes tail(static_cast<std::size_t>(std::min<std::uint64_t>(kHead, stop_ - start_)));
  if (!tail.empty()) text_->read(stop_ - tail.size(), tail.data(), tail.size());
  std::size_t trail = tail.size();
  while (trail > 0 && tables().cls[tail[trail - 1]] == kWhite)
    --trail;
  stop_ -= tail.size() - trail;
  if (stop_ <= start_) throw Base64Error(begin, "no Base64 data");
  if (!scan_regular()) scan_general();
  if (chars_ == 0) throw Base64Error(start_, "no Base64 data");
  size_ = chars_ / 4 * 3 + (chars_ % 4 ? chars_ % 4 - 1 : 0);
}

Base64Source::~Base64Source() = default;

// Text whose lines all have the same length (a multiple of four) but the last: positions
// follow from arithmetic, and one pass that counts line breaks and odd bytes proves it.
bool Base64Source::scan_regular() {
  std::uint64_t total = stop_ - start_;
  Bytes head(static_cast<std::size_t>(std::min<std::uint64_t>(kHead, total)));
  text_->read(start_, head.data(), head.size());
  auto nl = std::find(head.begin(), head.end(), std::uint8_t{'\n'});
  std::uint64_t lines = 0, last = total;
  if (nl == head.end()) {
    // One line, unless a break comes after the head: the count below tells.
    eol_ = 0;
    line_ = total;
  } else {
    std::size_t at = static_cast<std::size_t>(nl - head.begin());
    eol_ = (at > 0 && head[at - 1] == '\r') ? 2 : 1;
    line_ = at - (eol_ - 1);
    if (line_ == 0 || line_ % 4) return false;
    lines = total / (line_ + eol_);
    last = total - lines * (line_ + eol_);
    if (last == 0 || last > line_) return false;
  }
  std::uint8_t end2[2] = {0, 0};
  std::size_t tail_n = static_cast<std::size_t>(std::min<std::uint64_t>(2, total));
  text_->read(stop_ - tail_n, end2 + 2 - tail_n, tail_n);
  std::uint64_t pad = end2[1] == '=' ? (end2[0] == '=' ? 2 : 1) : 0;
  if (pad > last) return false;
  std::uint64_t chars = lines * line_ + last - pad;
  if ((pad && last % 4) || chars % 4 == 1) return false;

  Counts counts;
  std::uint64_t line = 0;
  unsigned sub = 0;  // which byte of the current line break is checked next
  for (std::uint64_t at = start_; at < stop_;) {
    std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(kTextBlock, stop_ - at));
    std::uint8_t* text = text_buffer_.get(n);
    text_->read(at, text, n);
    count_bytes(text, n, counts);
    if (counts.bad) return false;
    std::uint64_t rel = at - start_;
    while (line < lines) {
      std::uint64_t pos = line * (line_ + eol_) + line_ + sub;
      if (pos >= rel + n) break;
      std::uint8_t want = (eol_ == 2 && sub == 0) ? '\r' : '\n';
      if (text[static_cast<std::size_t>(pos - rel)] != want) return false;
      if (++sub == eol_) {
        sub = 0;
        ++line;
      }
    }
    at += n;
  }
  if (counts.lf != lines || counts.cr != (eol_ == 2 ? lines : 0) || counts.eq != pad) return false;
  regular_ = true;
  chars_ = chars;
  if (eol_ == 0) line_ = total;
  return true;
}

// Any layout: every character is looked at, and a checkpoint is kept every kStride data
// characters so that a read starts near its place.
void Base64Source::scan_general() {
  regular_ = false;
  checkpoints_.clear();
  checkpoints_.push_back({0, start_});
  const auto& cls = tables().cls;
  std::uint64_t n = 0, pad = 0;
  for (std::uint64_t at = start_; at < stop_;) {
    std::size_t len = static_cast<std::size_t>(std::min<std::uint64_t>(kTextBlock, stop_ - at));
    std::uint8_t* text = text_buffer_.get(len);
    text_->read(at, text, len);
    for (std::size_t i = 0; i < len; ++i) {
      std::int8_t c = cls[text[i]];
      if (c >= 0) {
        if (pad) throw Base64Error(at + i, "Base64 data after the padding");
        if (n && n % kStride == 0) checkpoints_.push_back({n, at + i});
        ++n;
      } else if (c == kPad) {
        if (++pad > 2) throw Base64Error(at + i, "too much Base64 padding");
      } else if (c != kWhite) {
        throw Base64Error(at + i, "a character that is not Base64 (" + byte_text(text[i]) + ")");
      }
    }
    at += len;
  }
  if (n % 4 == 1) throw Base64Error(stop_, "Base64 text that ends inside a byte");
  if (pad && (n + pad) % 4) throw Base64Error(stop_, "wrong Base64 padding");
  chars_ = n;
  cursor_ = checkpoints_.front();
}

std::uint64_t Base64Source::text_offset(std::uint64_t c) const {
  return eol_ ? start_ + c / line_ * (line_ + eol_) + c % line_ : start_ + c;
}

std::size_t Base64Source::decode_regular(std::uint64_t first, std::uint64_t count,
                                         std::uint8_t* out) const {
  std::uint64_t c = first, end = first + count;
  std::uint64_t lines_per_block = std::max<std::uint64_t>(1, kTextBlock / (line_ + eol_));
  std::uint8_t* o = out;
  while (c < end) {
    std::uint64_t line = c / line_;
    std::uint64_t c_stop = std::min(end, (line + lines_per_block) * line_);
    std::uint64_t t0 = text_offset(c), t1 = text_offset(c_stop - 1) + 1;
    std::uint8_t* text = text_buffer_.get(static_cast<std::size_t>(t1 - t0));
    text_->read(t0, text, static_cast<std::size_t>(t1 - t0));
    const std::uint8_t* p = text;
    while (c < c_stop) {
      std::uint64_t seg = std::min(line_ - c % line_, c_stop - c);
      o += decode_chars(p, static_cast<std::size_t>(seg), o);
      p += seg;
      c += seg;
      if (c < c_stop) p += eol_;
    }
  }
  return static_cast<std::size_t>(o - out);
}

std::size_t Base64Source::decode_general(std::uint64_t first, std::uint64_t count,
                                         std::uint8_t* out) const {
  const Tables& t = tables();
  Checkpoint from = checkpoints_[std::min<std::size_t>(static_cast<std::size_t>(first / kStride),
                                                       checkpoints_.size() - 1)];
  if (cursor_.chars <= first && cursor_.chars > from.chars) from = cursor_;
  std::uint64_t c = from.chars, at = from.text, end = first + count;
  std::uint32_t acc = 0;
  unsigned k = 0;
  std::uint8_t* o = out;
  while (c < end) {
    if (at >= stop_) throw EInOutError("Base64 text ends early");
    std::size_t len = static_cast<std::size_t>(std::min<std::uint64_t>(kTextBlock, stop_ - at));
    std::uint8_t* p = text_buffer_.get(len);
    text_->read(at, p, len);
    std::size_t i = 0;
    while (i < len && c < end) {
      // Whole quads without white space, the common case, four characters at a time.
      if (k == 0 && c >= first && i + 4 <= len && c + 4 <= end) {
        std::uint32_t v = t.d0[p[i]] | t.d1[p[i + 1]] | t.d2[p[i + 2]] | t.d3[p[i + 3]];
        if (!(v & kBad)) {
          *o++ = static_cast<std::uint8_t>(v >> 16);
          *o++ = static_cast<std::uint8_t>(v >> 8);
          *o++ = static_cast<std::uint8_t>(v);
          i += 4;
          c += 4;
          continue;
        }
      }
      std::int8_t s = t.cls[p[i++]];
      if (s == kWhite) continue;
      if (s < 0) throw EInOutError("Base64 text changed while it was read");
      if (c++ < first) continue;
      acc = acc << 6 | static_cast<std::uint32_t>(s);
      if (++k == 4) {
        *o++ = static_cast<std::uint8_t>(acc >> 16);
        *o++ = static_cast<std::uint8_t>(acc >> 8);
        *o++ = static_cast<std::uint8_t>(acc);
        acc = 0;
        k = 0;
      }
    }
    at += i;
  }
  if (k) {  // the short quad at the end of the data
    acc <<= 6 * (4 - k);
    *o++ = static_cast<std::uint8_t>(acc >> 16);
    if (k == 3) *o++ = static_cast<std::uint8_t>(acc >> 8);
  } else {
    cursor_ = {c, at};
  }
  return static_cast<std::size_t>(o - out);
}

std::size_t Base64Source::decode_quads(std::uint64_t quad, std::uint64_t quads,
                                       std::uint8_t* out) const {
  std::uint64_t first = quad * 4;
  std::uint64_t chars = std::min<std::uint64_t>(chars_ - first, quads * 4);
  return regular_ ? decode_regular(first, chars, out) : decode_general(first, chars, out);
}

// Whole quads are decoded straight into the caller's buffer; a quad cut by either end of
// the range goes through a small one.
void Base64Source::decode_range(std::uint64_t offset, std::size_t n, std::uint8_t* out) const {
  std::uint64_t quad = offset / 3;
  std::size_t skip = static_cast<std::size_t>(offset % 3);
  std::uint8_t part[3];
  if (skip) {
    std::size_t got = decode_quads(quad++, 1, part);
    if (got <= skip) throw EInOutError("Base64 text ends early");
    std::size_t take = std::min(n, got - skip);
    std::memcpy(out, part + skip, take);
    out += take;
    n -= take;
  }
  if (std::size_t whole = n / 3) {
    if (decode_quads(quad, whole, out) != whole * 3) throw EInOutError("Base64 text ends early");
    quad += whole;
    out += whole * 3;
    n -= whole * 3;
  }
  if (n) {
    if (decode_quads(quad, 1, part) < n) throw EInOutError("Base64 text ends early");
    std::memcpy(out, part, n);
  }
}

void Base64Source::read(std::uint64_t offset, void* buffer, std::size_t n) const {
  if (offset > size_ || n > size_ - offset) throw EInOutError("read past the end of Base64 data");
  if (n == 0) return;
  if (n > 4096) {
    decode_range(offset, n, static_cast<std::uint8_t*>(buffer));
    return;
  }
  // Small reads (the BER reader reads headers a byte at a time) come from a decoded window.
  if (window_.empty() || offset < window_offset_ || offset + n > window_offset_ + window_.size()) {
    window_offset_ = offset - offset % 3;
    std::size_t len =
        static_cast<std::size_t>(std::min<std::uint64_t>(kWindow, size_ - window_offset_));
    window_.resize(len);
    decode_range(window_offset_, len, window_.data());
  }
  std::memcpy(buffer, window_.data() + (offset - window_offset_), n);
}

bool FindPemBody(const ByteSource& text, PemBody& body) {
  std::uint64_t size = text.size();
  Bytes head(static_cast<std::size_t>(std::min<std::uint64_t>(kHead, size)));
  text.read(0, head.data(), head.size());
  std::string_view h(reinterpret_cast<const char*>(head.data()), head.size());
  std::size_t at = 0;
  if (h.substr(0, 3) == "\xEF\xBB\xBF") at = 3;  // a byte-order mark some editors write
  while (at < h.size() && tables().cls[head[at]] == kWhite)
    ++at;
  constexpr std::string_view kBegin = "-----BEGIN ";
  if (h.substr(at, kBegin.size()) != kBegin) return false;
  std::size_t label_at = at + kBegin.size();
  std::size_t dashes = h.find("-----", label_at);
  std::size_t eol = h.find('\n', label_at);
  if (dashes == std::string_view::npos || (eol != std::string_view::npos && eol < dashes))
    return false;
  body.label = std::string(h.substr(label_at, dashes - label_at));
  body.begin = eol == std::string_view::npos ? dashes + 5 : eol + 1;
  // The END line is near the end of the text.
  std::uint64_t tail_at = size > kHead ? size - kHead : 0;
  Bytes tail(static_cast<std::size_t>(size - tail_at));
  text.read(tail_at, tail.data(), tail.size());
  std::string_view t(reinterpret_cast<const char*>(tail.data()), tail.size());
  std::string end_line = "-----END " + body.label + "-----";
  std::size_t end_at = t.rfind(end_line);
  if (end_at == std::string_view::npos || tail_at + end_at < body.begin)
    throw Base64Error(size, "PEM text without its line \"" + end_line + "\"");
  body.end = tail_at + end_at;
  return true;
}

}  // namespace tessarel::asn1
