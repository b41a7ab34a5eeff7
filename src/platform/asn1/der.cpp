#include "platform/asn1/der.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

#include "tessarel/errors.h"

namespace tessarel::asn1 {

std::size_t length_of_length(std::uint64_t length) {
  if (length < 0x80) return 1;
  std::size_t n = 0;
  for (std::uint64_t v = length; v; v >>= 8)
    ++n;
  return 1 + n;
}

void append_length(Bytes& out, std::uint64_t length) {
  if (length < 0x80) {
    out.push_back(static_cast<std::uint8_t>(length));
    return;
  }
  std::size_t n = length_of_length(length) - 1;
  out.push_back(static_cast<std::uint8_t>(0x80 | n));
  for (std::size_t i = n; i-- > 0;)
    out.push_back(static_cast<std::uint8_t>(length >> (8 * i)));
}

Bytes header(std::uint8_t tag, std::uint64_t n) {
  Bytes out{tag};
  append_length(out, n);
  return out;
}

Bytes tlv(std::uint8_t tag, const std::uint8_t* content, std::size_t n) {
  Bytes out = header(tag, n);
  out.insert(out.end(), content, content + n);
  return out;
}

Bytes tlv(std::uint8_t tag, const Bytes& content) {
  return tlv(tag, content.data(), content.size());
}

Bytes encode_oid(std::string_view dotted) {
  std::vector<std::uint64_t> arcs;
  std::size_t pos = 0;
  while (pos <= dotted.size()) {
    std::size_t dot = dotted.find('.', pos);
    if (dot == std::string_view::npos) dot = dotted.size();
    std::uint64_t v = 0;
    auto [p, ec] = std::from_chars(dotted.data() + pos, dotted.data() + dot, v);
    if (ec != std::errc() || p != dotted.data() + dot)
      throw Exception("Invalid object identifier: " + std::string(dotted));
    arcs.push_back(v);
    pos = dot + 1;
  }
  if (arcs.size() < 2 || arcs[0] > 2 || (arcs[0] < 2 && arcs[1] > 39))
    throw Exception("Invalid object identifier: " + std::string(dotted));
  Bytes out;
  auto put = [&out](std::uint64_t v) {
    std::uint8_t tmp[10];
    int n = 0;
    do {
      tmp[n++] = static_cast<std::uint8_t>(v & 0x7F);
      v >>= 7;
    } while (v);
    while (n-- > 0)
      out.push_back(static_cast<std::uint8_t>(tmp[n] | (n ? 0x80 : 0)));
  };
  put(arcs[0] * 40 + arcs[1]);
  for (std::size_t i = 2; i < arcs.size(); ++i)
    put(arcs[i]);
  return out;
}

std::string decode_oid(const std::uint8_t* content, std::size_t n) {
  std::string out;
  std::uint64_t v = 0;
  bool first = true;
  for (std::size_t i = 0; i < n; ++i) {
    if (v > (UINT64_MAX >> 7)) throw Exception("Invalid object identifier: arc too large");
    v = (v << 7) | (content[i] & 0x7F);
    if (content[i] & 0x80) {
      if (i + 1 == n) throw Exception("Invalid object identifier: truncated arc");
      continue;
    }
    if (first) {
      std::uint64_t a = v < 80 ? v / 40 : 2;
      out = std::to_string(a) + "." + std::to_string(v - a * 40);
      first = false;
    } else {
      out += "." + std::to_string(v);
    }
    v = 0;
  }
  if (first) throw Exception("Invalid object identifier: empty");
  return out;
}

Bytes integer_content(std::uint64_t value) {
  std::uint8_t buf[9];
  std::size_t n = 0;
  do {
    buf[8 - n++] = static_cast<std::uint8_t>(value & 0xFF);
    value >>= 8;
  } while (value);
  if (buf[9 - n] & 0x80) buf[8 - n++] = 0x00;
  return Bytes(buf + 9 - n, buf + 9);
}

Bytes unsigned_integer_content(const Bytes& magnitude) {
  std::size_t skip = 0;
  while (skip + 1 < magnitude.size() && magnitude[skip] == 0)
    ++skip;
  Bytes out;
  out.reserve(magnitude.size() - skip + 1);
  if (magnitude.size() == skip) {
    out.push_back(0);
    return out;
  }
  if (magnitude[skip] & 0x80) out.push_back(0x00);
  out.insert(out.end(), magnitude.begin() + static_cast<std::ptrdiff_t>(skip), magnitude.end());
  return out;
}

namespace {
std::string time_text(std::chrono::sys_seconds t, bool four_digit_year) {
  using namespace std::chrono;
  auto dp = floor<days>(t);
  year_month_day ymd{dp};
  hh_mm_ss<seconds> hms{t - dp};
  int y = static_cast<int>(ymd.year());
  char buf[32];
  if (four_digit_year)
    std::snprintf(buf, sizeof buf, "%04d", y);
  else
    std::snprintf(buf, sizeof buf, "%02d", y % 100);
  char rest[32];
  std::snprintf(rest, sizeof rest, "%02u%02u%02d%02d%02dZ", static_cast<unsigned>(ymd.month()),
                static_cast<unsigned>(ymd.day()), static_cast<int>(hms.hours().count()),
                static_cast<int>(hms.minutes().count()), static_cast<int>(hms.seconds().count()));
  return std::string(buf) + rest;
}
}  // namespace

std::string utc_time_text(std::chrono::sys_seconds t) {
  return time_text(t, false);
}
std::string generalized_time_text(std::chrono::sys_seconds t) {
  return time_text(t, true);
}

DerWriter& DerWriter::begin(std::uint8_t tag) {
  open_.push_back(out_.size());
  out_.push_back(tag);
  return *this;
}

DerWriter& DerWriter::end() {
  if (open_.empty()) throw Exception("DER writer: end() without begin()");
  std::size_t start = open_.back();
  open_.pop_back();
  std::uint64_t length = out_.size() - start - 1;
  Bytes len;
  append_length(len, length);
  out_.insert(out_.begin() + static_cast<std::ptrdiff_t>(start + 1), len.begin(), len.end());
  return *this;
}

DerWriter& DerWriter::primitive(std::uint8_t tag, const std::uint8_t* content, std::size_t n) {
  out_.push_back(tag);
  append_length(out_, n);
  if (n) out_.insert(out_.end(), content, content + n);
  return *this;
}

DerWriter& DerWriter::boolean(bool v) {
  std::uint8_t b = v ? 0xFF : 0x00;
  return primitive(kBoolean, &b, 1);
}

DerWriter& DerWriter::bit_string(const Bytes& content, std::uint8_t unused_bits) {
  out_.push_back(kBitString);
  append_length(out_, content.size() + 1);
  out_.push_back(unused_bits);
  out_.insert(out_.end(), content.begin(), content.end());
  return *this;
}

DerWriter& DerWriter::raw(const std::uint8_t* der, std::size_t n) {
  out_.insert(out_.end(), der, der + n);
  return *this;
}

DerWriter& DerWriter::raw(const Bytes& der) {
  return raw(der.data(), der.size());
}

Bytes DerWriter::finish() {
  if (!open_.empty()) throw Exception("DER writer: element left open");
  return std::move(out_);
}

Bytes der_set_of(std::vector<Bytes> elements, std::uint8_t tag) {
  // X.690 11.6: compare encodings as octet strings, the shorter padded with zeros.
  std::sort(elements.begin(), elements.end(), [](const Bytes& a, const Bytes& b) {
    std::size_t n = std::max(a.size(), b.size());
    for (std::size_t i = 0; i < n; ++i) {
      std::uint8_t x = i < a.size() ? a[i] : 0, y = i < b.size() ? b[i] : 0;
      if (x != y) return x < y;
    }
    return false;
  });
  Bytes content;
  for (const auto& e : elements)
    content.insert(content.end(), e.begin(), e.end());
  return tlv(tag, content);
}

Tlv read_tlv(const std::uint8_t* data, std::size_t size) {
  if (size < 2) throw Exception("DER: element truncated");
  Tlv t;
  t.tag = data[0];
  if ((t.tag & 0x1F) == 0x1F) throw Exception("DER: high tag numbers are not supported here");
  std::uint8_t first = data[1];
  std::size_t pos = 2;
  if (first < 0x80) {
    t.length = first;
  } else {
    std::size_t n = first & 0x7F;
    if (n == 0) throw Exception("DER: indefinite length");
    if (n > sizeof(std::size_t) || pos + n > size) throw Exception("DER: length octets truncated");
    std::size_t len = 0;
    for (std::size_t i = 0; i < n; ++i)
      len = (len << 8) | data[pos + i];
    pos += n;
    t.length = len;
  }
  t.header_length = pos;
  if (t.length > size - pos) throw Exception("DER: length beyond the end of the data");
  t.content = data + pos;
  return t;
}

}  // namespace tessarel::asn1
