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

}  // namespace tessarel
