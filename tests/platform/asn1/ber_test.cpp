// The BER reader on well-formed and hostile input.
#include <gtest/gtest.h>

#include "platform/asn1/ber.h"
#include "platform/asn1/der.h"
#include "test_support.h"

namespace tessarel::asn1 {
namespace {

BerNode parse(const Bytes& b, const BerLimits& limits = {}) {
  MemorySource src(b);
  return ParseBer(src, 0, limits);
}

int error_code(const Bytes& b, const BerLimits& limits = {}) {
  try {
    parse(b, limits);
  } catch (const BerError& e) {
    return e.code();
  }
  return 0;
}

TEST(Ber, DefiniteAndIndefiniteGiveTheSameStructure) {
  // SEQUENCE { INTEGER 5, OCTET STRING constructed { "ab", "c" } }
  Bytes definite{0x30, 0x0D, 0x02, 0x01, 0x05, 0x24, 0x08, 0x04,
                 0x02, 'a',  'b',  0x04, 0x02, 'c',  'd'};
  Bytes indefinite{0x30, 0x80, 0x02, 0x01, 0x05, 0x24, 0x80, 0x04, 0x02, 'a',
                   'b',  0x04, 0x02, 'c',  'd',  0x00, 0x00, 0x00, 0x00};
  for (const Bytes* b : {&definite, &indefinite}) {
    MemorySource src(*b);
    BerNode n = ParseBer(src);
    ASSERT_EQ(n.children.size(), 2u);
    EXPECT_EQ(ReadSmallInteger(src, n.children[0]), 5);
    EXPECT_TRUE(n.children[1].constructed);
    EXPECT_EQ(ContentBytes(src, n.children[1]), (Bytes{'a', 'b', 'c', 'd'}));
    EXPECT_EQ(n.end(), b->size());
  }
  EXPECT_TRUE(parse(indefinite).indefinite);
}

TEST(Ber, HighTagNumbersAndLongLengths) {
  Bytes b{0xBF, 0x81, 0x00, 0x03, 0x02, 0x01, 0x07};  // [128] constructed { INTEGER 7 }
  BerNode n = parse(b);
  EXPECT_EQ(n.tag_class, 2);
  EXPECT_EQ(n.tag_number, 128u);
  Bytes content(300, 'x');
  Bytes longer = tlv(kOctetString, content);
  EXPECT_EQ(parse(longer).content_length, 300u);
}

TEST(Ber, HostileInputIsRefusedWithAReason) {
  EXPECT_EQ(error_code({0x30}), kBerTruncated);
  EXPECT_EQ(error_code({0x30, 0x05, 0x02, 0x01}), kBerLengthBeyondData);
  EXPECT_EQ(error_code({0x04, 0x89, 1, 2, 3, 4, 5, 6, 7, 8, 9}), kBerBadLength);
  EXPECT_EQ(error_code({0x04, 0x80, 0x00, 0x00}), kBerBadLength);  // indefinite primitive
  EXPECT_EQ(error_code({0x30, 0x80, 0x02, 0x01, 0x05}), kBerMissingEnd);
  EXPECT_EQ(error_code({0x30, 0x80, 0x02, 0x03, 0x05}), kBerLengthBeyondData);
  EXPECT_EQ(error_code({0x30, 0x80}), kBerMissingEnd);
  EXPECT_EQ(error_code({0x1F, 0x80, 0x01, 0x00}), kBerBadTag);
  // A child that runs past its parent's end.
  EXPECT_EQ(error_code({0x30, 0x03, 0x04, 0x05, 0x00, 0x00, 0x00, 0x00, 0x00}),
            kBerLengthBeyondData);
  // A length of 2^63 claimed by a few bytes is refused without allocating it.
  EXPECT_EQ(error_code({0x04, 0x88, 0x80, 0, 0, 0, 0, 0, 0, 0, 'x'}), kBerLengthBeyondData);
}

TEST(Ber, TenThousandLevelsOfNestingStopAtTheLimit) {
  Bytes deep;
  for (int i = 0; i < 10000; ++i) {
    deep.push_back(0x30);
    deep.push_back(0x80);
  }
  for (int i = 0; i < 10000; ++i) {
    deep.push_back(0);
    deep.push_back(0);
  }
  EXPECT_EQ(error_code(deep), kBerTooDeep);
  BerLimits few;
  few.max_elements = 100;
  Bytes many{0x30, 0x80};
  for (int i = 0; i < 200; ++i)
    many.insert(many.end(), {0x05, 0x00});
  many.insert(many.end(), {0x00, 0x00});
  EXPECT_EQ(error_code(many, few), kBerTooManyElements);
}

TEST(Ber, FileAndMemoryReadTheSame) {
  test::TempDir d;
  Bytes content(200000);
  for (std::size_t i = 0; i < content.size(); ++i)
    content[i] = static_cast<std::uint8_t>(i * 7);
  DerWriter w;
  w.begin(kSequence).integer(42).octet_string(content).end();
  Bytes der = w.finish();
  test::write_file(d / "x.der", der);
  FileSource file(d / "x.der");
  MemorySource mem(der);
  BerNode a = ParseBer(file), b = ParseBer(mem);
  EXPECT_EQ(a.children[1].content_offset, b.children[1].content_offset);
  EXPECT_EQ(ContentBytes(file, a.children[1], 1 << 20), content);
  EXPECT_THROW(ContentBytes(file, a.children[1], 1000),
               BerError);  // more than the caller would hold
}

}  // namespace
}  // namespace tessarel::asn1
