// Text in PDF files: string syntax, the WinAnsi encoding and the metrics of Helvetica, the
// standard font the signature appearance is drawn in.
#pragma once

#include <cstdint>
#include <string>

namespace tessarel::pdf {

// UTF-8 text as WinAnsi bytes; characters WinAnsi lacks (and broken UTF-8) become '?'.
std::string to_win_ansi(const std::string& utf8);
// Advance width of one WinAnsi code in Helvetica, in thousandths of the font size (0 for codes
// WinAnsi leaves undefined).
int helvetica_width(unsigned char code);
// Width of a WinAnsi string in Helvetica, in thousandths of the font size.
int helvetica_width(const std::string& win_ansi);

// A literal string "(...)" holding the bytes as they are: parentheses, backslashes and
// bytes outside printable ASCII are escaped.
std::string literal_string(const std::string& bytes);
// A hexadecimal string "<...>" of the bytes (upper-case digits).
std::string hex_string(const std::string& bytes);
// A text string: a literal string when the text is printable ASCII, otherwise UTF-16BE with a
// byte-order mark, in hexadecimal.
std::string text_string(const std::string& utf8);

// A date as PDF writes it, in UTC: "D:YYYYMMDDHHmmSS+00'00'" (from seconds since 1970).
std::string pdf_date(std::int64_t unix_seconds);

}  // namespace tessarel::pdf
