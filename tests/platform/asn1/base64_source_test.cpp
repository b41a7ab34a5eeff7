// Base64 text read as bytes: every layout encoders produce, text stacked on text, random
// access, and text that is not Base64.
#include <gtest/gtest.h>

#include <random>

#include "platform/asn1/base64_source.h"
#include "platform/crypto/digest.h"
#include "test_support.h"

namespace tessarel::asn1 {
namespace {

struct Text {
  Bytes bytes;
  std::shared_ptr<MemorySource> source;
  explicit Text(const std::string& s) : bytes(s.begin(), s.end()) {
    source = std::make_shared<MemorySource>(bytes);
  }
};

// Base64 of data laid out in lines of width characters (0: one line) ended by eol.
std::string encode(const Bytes& data, std::size_t width, const std::string& eol,
                   bool padding = true) {
  std::string flat = crypto::base64_encode(data);
  if (!padding)
    while (!flat.empty() && flat.back() == '=')
      flat.pop_back();
  if (width == 0) return flat;
  std::string out;
  for (std::size_t i = 0; i < flat.size(); i += width)
    out += flat.substr(i, width) + eol;
  return out;
}

Bytes random_bytes(std::size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  Bytes b(n);
  for (auto& c : b)
    c = static_cast<std::uint8_t>(rng());
  return b;
}

// Reads the whole source back, in pieces of assorted sizes and from assorted places.
void expect_same(const ByteSource& s, const Bytes& data, const std::string& what) {
  ASSERT_EQ(s.size(), data.size()) << what;
  Bytes whole(data.size());
  s.read(0, whole.data(), whole.size());
  EXPECT_EQ(whole, data) << what;
  std::mt19937 rng(7);
  for (int i = 0; i < 300; ++i) {
    std::size_t at = rng() % data.size();
    std::size_t n = std::min<std::size_t>(data.size() - at, rng() % 3 ? rng() % 40 : rng() % 90000);
    Bytes part(n);
    s.read(at, part.data(), n);
    ASSERT_TRUE(std::equal(part.begin(), part.end(), data.begin() + static_cast<long>(at)))
        << what << " at " << at << " for " << n;
  }
}

TEST(Base64Source, EveryLayoutReadsBackTheSameBytes) {
  for (std::size_t size : {1u, 2u, 3u, 4u, 47u, 48u, 49u, 200000u}) {
    Bytes data = random_bytes(size, static_cast<unsigned>(size));
    struct Layout {
      std::size_t width;
      std::string eol, before, after;
      bool padding;
      bool regular;
    } layouts[] = {
        {0, "", "", "", true, true},                // one line
        {64, "\n", "", "", true, true},             // openssl base64
        {76, "\r\n", "", "", true, true},           // mail and Windows tools
        {76, "\n", "\n  ", " \r\n\t", true, true},  // white space around the text
        {64, "\n", "", "", false, true},            // padding left out
        {60, "\n", "", "", true, true},
        {0, "", "", "\n", true, true},
        {76, "\n", "\xEF\xBB\xBF", "", true, true},        // an editor's byte-order mark
        {64, "\r\n", "\xEF\xBB\xBF\r\n", "", true, true},  // the mark on a line of its own
        {64, " \n", "", "", true, false},                  // lines ending in a space
        {76, "\t\r\n", "\xEF\xBB\xBF", "", true, false},   // ... in a tab, after the mark
    };
    for (const auto& l : layouts) {
      std::string what = std::to_string(size) + " bytes, width " + std::to_string(l.width);
      Text t(l.before + encode(data, l.width, l.eol, l.padding) + l.after);
      Base64Source s(t.source, 0, t.bytes.size());
      expect_same(s, data, what);
      if (size > 100) {
        EXPECT_EQ(s.line_length() != 0, l.regular) << what;
      }
    }
    // Irregular: lines of changing length, spaces and tabs inside, mixed line ends.
    std::string flat = crypto::base64_encode(data), odd;
    for (std::size_t i = 0, w = 5; i < flat.size(); i += w, w = w % 70 + 3)
      odd += flat.substr(i, w) + (w % 3 ? "\n" : " \t\r\n");
    Text t(odd);
    Base64Source s(t.source, 0, t.bytes.size());
    expect_same(s, data, "irregular, " + std::to_string(size));
    if (size > 100) {
      EXPECT_EQ(s.line_length(), 0u);
    }
  }
}

TEST(Base64Source, TextOnTextAndPemArmour) {
  Bytes data = random_bytes(100000, 3);
  std::string once = encode(data, 64, "\n");
  Text twice(encode(Bytes(once.begin(), once.end()), 76, "\r\n"));
  auto outer = std::make_shared<Base64Source>(twice.source, 0, twice.bytes.size());
  Base64Source inner(outer, 0, outer->size());
  expect_same(inner, data, "Base64 of Base64");

  Text pem("\xEF\xBB\xBF-----BEGIN CMS-----\r\n" + encode(data, 64, "\r\n") +
           "-----END CMS-----\r\n");
  PemBody body;
  ASSERT_TRUE(FindPemBody(*pem.source, body));
  EXPECT_EQ(body.label, "CMS");
  Base64Source s(pem.source, body.begin, body.end);
  expect_same(s, data, "PEM");

  Text plain("MIIB");
  EXPECT_FALSE(FindPemBody(*plain.source, body));
  Text unended("-----BEGIN PKCS7-----\nMIIB\n");
  EXPECT_THROW(FindPemBody(*unended.source, body), Base64Error);
}

TEST(Base64Source, TextThatIsNotBase64IsRefusedWithItsPlace) {
  auto error_at = [](const std::string& text) -> long {
    Text t(text);
    try {
      Base64Source s(t.source, 0, t.bytes.size());
    } catch (const Base64Error& e) {
      return static_cast<long>(e.offset());
    }
    return -1;
  };
  EXPECT_EQ(error_at("QUJD\nRE%G\n"), 7);  // not in the alphabet
  EXPECT_EQ(error_at("QUJDRA==QUJD"), 8);  // data after the padding
  EXPECT_EQ(error_at("QUJDR"), 5);         // ends inside a byte
  EXPECT_EQ(error_at("QUJDRA="), 7);       // padding that does not fill the quad
  EXPECT_GE(error_at("   \n\t "), 0);      // nothing but white space
  EXPECT_GE(error_at(""), 0);
  EXPECT_EQ(error_at("QUJDRA=="), -1);
  // Decoding a prefix stops at the first character that is not Base64.
  std::string t = "QUJD RE\nVG-xx";
  EXPECT_EQ(DecodeBase64Prefix(reinterpret_cast<const std::uint8_t*>(t.data()), t.size(), 100),
            (Bytes{'A', 'B', 'C', 'D', 'E', 'F'}));
}

}  // namespace
}  // namespace tessarel::asn1
