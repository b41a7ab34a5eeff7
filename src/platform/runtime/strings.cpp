#include "platform/runtime/strings.h"

#include <algorithm>
#include <cctype>
#include <charconv>

#include "tessarel/errors.h"

namespace tessarel {

void StringList::SetText(std::string_view text) {
  items_.clear();
  std::size_t i = 0, start = 0;
  while (i < text.size()) {
    char c = text[i];
    if (c == '\r' || c == '\n') {
      items_.emplace_back(text.substr(start, i - start));
      if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
      start = ++i;
    } else {
      ++i;
    }
  }
  if (start < text.size()) items_.emplace_back(text.substr(start));
}

std::string StringList::Text() const {
  std::string out;
  for (const auto& s : items_) {
    out += s;
    out += "\r\n";
  }
  return out;
}

const std::string& StringList::operator[](int i) const {
  if (i < 0 || i >= Count())
    throw EStringListError("List index out of bounds (" + std::to_string(i) + ")");
  return items_[static_cast<std::size_t>(i)];
}

std::string& StringList::at(int i) {
  if (i < 0 || i >= Count())
    throw EStringListError("List index out of bounds (" + std::to_string(i) + ")");
  return items_[static_cast<std::size_t>(i)];
}

std::string lower_ascii(std::string_view s) {
  std::string out(s);
  for (auto& c : out)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::string upper_ascii(std::string_view s) {
  std::string out(s);
  for (auto& c : out)
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

bool iequals_ascii(std::string_view a, std::string_view b) {
  return a.size() == b.size() && lower_ascii(a) == lower_ascii(b);
}

std::string replace_all(std::string_view s, std::string_view from, std::string_view to) {
  std::string out;
  if (from.empty()) return std::string(s);
  std::size_t pos = 0;
  while (true) {
    std::size_t hit = s.find(from, pos);
    if (hit == std::string_view::npos) break;
    out.append(s.substr(pos, hit - pos));
    out.append(to);
    pos = hit + from.size();
  }
  out.append(s.substr(pos));
  return out;
}

std::string trim(std::string_view s) {
  std::size_t b = 0, e = s.size();
  while (b < e && static_cast<unsigned char>(s[b]) <= ' ')
    ++b;
  while (e > b && static_cast<unsigned char>(s[e - 1]) <= ' ')
    --e;
  return std::string(s.substr(b, e - b));
}

bool starts_with(std::string_view s, std::string_view prefix) {
  return s.starts_with(prefix);
}
bool ends_with(std::string_view s, std::string_view suffix) {
  return s.ends_with(suffix);
}

std::string join(const std::vector<std::string>& parts, std::string_view sep) {
  std::string out;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i) out.append(sep);
    out.append(parts[i]);
  }
  return out;
}

std::int64_t StrToInt(std::string_view s) {
  std::string_view t = s;
  if (!t.empty() && t.front() == '+') t.remove_prefix(1);
  std::int64_t value = 0;
  auto [ptr, ec] = std::from_chars(t.data(), t.data() + t.size(), value);
  if (t.empty() || ec != std::errc() || ptr != t.data() + t.size() ||
      (s.size() > 1 && s[0] == '+' && s[1] == '-'))
    throw EConvertError("'" + std::string(s) + "' is not a valid integer value");
  return value;
}

bool decode_utf8(std::string_view s, std::u32string& out) {
  out.clear();
  for (std::size_t i = 0; i < s.size();) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    int extra = c < 0x80             ? 0
                : (c & 0xE0) == 0xC0 ? 1
                : (c & 0xF0) == 0xE0 ? 2
                : (c & 0xF8) == 0xF0 ? 3
                                     : -1;
    if (extra < 0 || s.size() - i <= static_cast<std::size_t>(extra)) return false;
    char32_t cp = extra == 0 ? c : c & (0x3Fu >> extra);
    for (int k = 1; k <= extra; ++k) {
      unsigned char t = static_cast<unsigned char>(s[i + static_cast<std::size_t>(k)]);
      if ((t & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (t & 0x3F);
    }
    static const char32_t kMin[] = {0, 0x80, 0x800, 0x10000};
    if (cp < kMin[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    out.push_back(cp);
    i += static_cast<std::size_t>(extra) + 1;
  }
  return true;
}

bool is_utf8(std::string_view s) {
  std::u32string ignored;
  return decode_utf8(s, ignored);
}

void append_utf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

std::string latin1_to_utf8(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (unsigned char c : s)
    append_utf8(out, c);
  return out;
}

bool is_xml_char(char32_t cp) {
  return cp == 0x9 || cp == 0xA || cp == 0xD || (cp >= 0x20 && cp <= 0xD7FF) ||
         (cp >= 0xE000 && cp <= 0xFFFD) || (cp >= 0x10000 && cp <= 0x10FFFF);
}

}  // namespace tessarel
