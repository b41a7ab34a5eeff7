#include "platform/pdf/pdf_text.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <vector>

namespace tessarel::pdf {

namespace {

// Helvetica advance widths for WinAnsi codes 32-255 (the font's AFM metrics); 0 where
// WinAnsi defines no character.
constexpr std::array<std::uint16_t, 224> kHelvetica = {
    // 32-63: space ! " # $ % & ' ( ) * + , - . / 0-9 : ; < = > ?
    278, 278, 355, 556, 556, 889, 667, 191, 333, 333, 389, 584, 278, 333, 278, 278,  //
    556, 556, 556, 556, 556, 556, 556, 556, 556, 556, 278, 278, 584, 584, 584, 556,  //
    // 64-95: @ A-Z [ \ ] ^ _
    1015, 667, 667, 722, 722, 667, 611, 778, 722, 278, 500, 667, 556, 833, 722, 778,  //
    667, 778, 722, 667, 611, 722, 667, 944, 667, 667, 611, 278, 278, 278, 469, 556,   //
    // 96-127: ` a-z { | } ~ (127 undefined)
    333, 556, 556, 500, 556, 556, 278, 556, 556, 222, 222, 500, 222, 833, 556, 556,  //
    556, 556, 333, 500, 278, 556, 500, 722, 500, 500, 500, 334, 260, 334, 584, 0,    //
    // 128-159: Euro, (129), quotesinglbase, florin, quotedblbase, ellipsis, dagger,
    // daggerdbl, circumflex, perthousand, Scaron, guilsinglleft, OE, (141), Zcaron, (143),
    // (144), quoteleft, quoteright, quotedblleft, quotedblright, bullet, endash, emdash,
    // tilde, trademark, scaron, guilsinglright, oe, (157), zcaron, Ydieresis
    556, 0, 222, 556, 333, 1000, 556, 556, 333, 1000, 667, 333, 1000, 0, 611, 0,   //
    0, 222, 222, 333, 333, 350, 556, 1000, 333, 1000, 500, 333, 944, 0, 500, 667,  //
    // 160-191: nbsp exclamdown cent sterling currency yen brokenbar section dieresis
    // copyright ordfeminine guillemotleft logicalnot hyphen registered macron degree
    // plusminus twosuperior threesuperior acute mu paragraph periodcentered cedilla
    // onesuperior ordmasculine guillemotright onequarter onehalf threequarters questiondown
    278, 333, 556, 556, 556, 556, 260, 556, 333, 737, 370, 556, 584, 333, 737, 333,  //
    400, 584, 333, 333, 333, 556, 537, 278, 333, 333, 365, 556, 834, 834, 834, 611,  //
    // 192-223: Agrave-Aring AE Ccedilla Egrave-Edieresis Igrave-Idieresis Eth Ntilde
    // Ograve-Odieresis multiply Oslash Ugrave-Udieresis Yacute Thorn germandbls
    667, 667, 667, 667, 667, 667, 1000, 722, 667, 667, 667, 667, 278, 278, 278, 278,  //
    722, 722, 778, 778, 778, 778, 778, 584, 778, 722, 722, 722, 722, 667, 667, 611,   //
    // 224-255: the lower-case counterparts, divide, oslash ... ydieresis
    556, 556, 556, 556, 556, 556, 889, 500, 556, 556, 556, 556, 278, 278, 278, 278,  //
    556, 556, 556, 556, 556, 556, 556, 584, 611, 556, 556, 556, 556, 500, 556, 500,  //
};

// Code points of WinAnsi codes 128-159 (0 where the code is undefined).
constexpr std::array<char32_t, 32> kWinAnsiHigh = {
    0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,  //
    0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0,      0x017D, 0,       //
    0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,  //
    0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178,  //
};

constexpr char32_t kReplacement = 0xFFFD;

// Code points of UTF-8 text; malformed sequences give U+FFFD.
std::vector<char32_t> decode_utf8(const std::string& s) {
  std::vector<char32_t> out;
  std::size_t i = 0;
  while (i < s.size()) {
    auto b = static_cast<unsigned char>(s[i]);
    int extra = b < 0x80 ? 0 : (b >> 5) == 6 ? 1 : (b >> 4) == 14 ? 2 : (b >> 3) == 30 ? 3 : -1;
    if (extra < 0 || i + static_cast<std::size_t>(extra) >= s.size()) {
      out.push_back(kReplacement);
      ++i;
      continue;
    }
    char32_t cp = extra == 0 ? b : extra == 1 ? (b & 0x1F) : extra == 2 ? (b & 0x0F) : (b & 0x07);
    bool ok = true;
    for (int k = 1; k <= extra; ++k) {
      auto c = static_cast<unsigned char>(s[i + static_cast<std::size_t>(k)]);
      if ((c & 0xC0) != 0x80) {
        ok = false;
        break;
      }
      cp = (cp << 6) | (c & 0x3F);
    }
    static const char32_t kMin[] = {0, 0x80, 0x800, 0x10000};
    if (!ok || cp < kMin[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
      out.push_back(kReplacement);
      ++i;
      continue;
    }
    out.push_back(cp);
    i += static_cast<std::size_t>(extra) + 1;
  }
  return out;
}

}  // namespace

std::string to_win_ansi(const std::string& utf8) {
  std::string out;
  for (char32_t cp : decode_utf8(utf8)) {
    if ((cp >= 0x20 && cp < 0x7F) || (cp >= 0xA0 && cp <= 0xFF)) {
      out.push_back(static_cast<char>(cp));
      continue;
    }
    char c = '?';
    for (std::size_t k = 0; k < kWinAnsiHigh.size(); ++k)
      if (kWinAnsiHigh[k] != 0 && kWinAnsiHigh[k] == cp) c = static_cast<char>(0x80 + k);
    out.push_back(c);
  }
  return out;
}

int helvetica_width(unsigned char code) {
  return code < 32 ? 0 : kHelvetica[code - 32];
}

int helvetica_width(const std::string& win_ansi) {
  int w = 0;
  for (char c : win_ansi)
    w += helvetica_width(static_cast<unsigned char>(c));
  return w;
}

std::string literal_string(const std::string& bytes) {
  std::string out = "(";
  for (char ch : bytes) {
    auto c = static_cast<unsigned char>(ch);
    if (c == '(' || c == ')' || c == '\\') {
      out.push_back('\\');
      out.push_back(ch);
    } else if (c < 0x20 || c >= 0x7F) {
      char buf[5];
      std::snprintf(buf, sizeof buf, "\\%03o", c);
      out += buf;
    } else {
      out.push_back(ch);
    }
  }
  out.push_back(')');
  return out;
}

std::string hex_string(const std::string& bytes) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out = "<";
  for (char ch : bytes) {
    auto c = static_cast<unsigned char>(ch);
    out.push_back(kHex[c >> 4]);
    out.push_back(kHex[c & 15]);
  }
  out.push_back('>');
  return out;
}

std::string text_string(const std::string& utf8) {
  bool ascii = true;
  for (char ch : utf8) {
    auto c = static_cast<unsigned char>(ch);
    if (c < 0x20 || c >= 0x7F) ascii = false;
  }
  if (ascii) return literal_string(utf8);
  std::string be = "\xFE\xFF";
  auto unit = [&](char32_t u) {
    be.push_back(static_cast<char>(u >> 8));
    be.push_back(static_cast<char>(u & 0xFF));
  };
  for (char32_t cp : decode_utf8(utf8)) {
    if (cp >= 0x10000) {
      cp -= 0x10000;
      unit(0xD800 + (cp >> 10));
      unit(0xDC00 + (cp & 0x3FF));
    } else {
      unit(cp);
    }
  }
  return hex_string(be);
}

std::string pdf_date(std::int64_t unix_seconds) {
  std::chrono::sys_seconds t{std::chrono::seconds(unix_seconds)};
  auto days = std::chrono::floor<std::chrono::days>(t);
  std::chrono::year_month_day ymd{days};
  std::chrono::hh_mm_ss hms{t - days};
  char buf[40];
  std::snprintf(buf, sizeof buf, "D:%04d%02u%02u%02d%02d%02d+00'00'", static_cast<int>(ymd.year()),
                static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                static_cast<int>(hms.hours().count()), static_cast<int>(hms.minutes().count()),
                static_cast<int>(hms.seconds().count()));
  return buf;
}

}  // namespace tessarel::pdf
