// String helpers with the runtime's rules (string lists, case, replacement).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tessarel {

// A list of strings loaded from text: every line is one entry, an empty line is an empty
// entry, a final line break adds no entry. Line breaks are CR LF, CR or LF.
class StringList {
 public:
  StringList() = default;
  explicit StringList(std::string_view text) { SetText(text); }

  void SetText(std::string_view text);
  // Every entry followed by CR LF.
  std::string Text() const;
  int Count() const { return static_cast<int>(items_.size()); }
  // Entry i; EStringListError "List index out of bounds (i)" outside the list.
  const std::string& operator[](int i) const;
  std::string& at(int i);
  void Add(std::string s) { items_.push_back(std::move(s)); }
  void Clear() { items_.clear(); }
  const std::vector<std::string>& items() const { return items_; }

 private:
  std::vector<std::string> items_;
};

std::string lower_ascii(std::string_view s);
std::string upper_ascii(std::string_view s);
bool iequals_ascii(std::string_view a, std::string_view b);
std::string replace_all(std::string_view s, std::string_view from, std::string_view to);
std::string trim(std::string_view s);
bool starts_with(std::string_view s, std::string_view prefix);
bool ends_with(std::string_view s, std::string_view suffix);
std::string join(const std::vector<std::string>& parts, std::string_view sep);
// UTF-8. decode_utf8 gives the code points of well-formed UTF-8 (no overlong forms, no
// surrogates, nothing past U+10FFFF), or false.
bool decode_utf8(std::string_view s, std::u32string& out);
bool is_utf8(std::string_view s);
void append_utf8(std::string& out, char32_t cp);
// Bytes of a single-byte character set taken as Latin-1 (each byte is its code point).
std::string latin1_to_utf8(std::string_view s);
// A character that XML 1.0 allows in a document.
bool is_xml_char(char32_t cp);

// Whole-text integer conversion as the runtime does it (optional sign, decimal digits,
// surrounding blanks refused); EConvertError "'x' is not a valid integer value" otherwise.
std::int64_t StrToInt(std::string_view s);

}  // namespace tessarel
