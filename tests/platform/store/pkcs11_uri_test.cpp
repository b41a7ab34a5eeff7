// PKCS#11 URIs as users write them (RFC 7512 examples, percent-encoding, mistakes).
#include <gtest/gtest.h>

#include "platform/store/pkcs11_uri.h"
#include "tessarel/errors.h"

namespace tessarel::p11 {
namespace {

TEST(Pkcs11Uri, ReadsPathAndQueryAttributesWithPercentEncoding) {
  auto u = Pkcs11Uri::parse(
      "pkcs11:token=Firma%20Qualificata%20%C3%A8;manufacturer=Snake%20Oil,%20Inc.;"
      "serial=DECC0401648;model=P11%2Fv2;object=Mario%20Rossi;type=cert;id=%01%FF;"
      "slot-id=7;library-version=2.6?module-path=/usr/lib/softhsm/libsofthsm2.so&x-vendor=1");
  EXPECT_EQ(u.token, "Firma Qualificata \xC3\xA8");
  EXPECT_EQ(u.manufacturer, "Snake Oil, Inc.");
  EXPECT_EQ(u.serial, "DECC0401648");
  EXPECT_EQ(u.model, "P11/v2");
  EXPECT_EQ(u.object, "Mario Rossi");
  EXPECT_EQ(u.type, "cert");
  EXPECT_EQ(u.id, (Bytes{0x01, 0xFF}));
  EXPECT_EQ(u.slot_id, 7ul);
  EXPECT_EQ(u.module_path, "/usr/lib/softhsm/libsofthsm2.so");
  EXPECT_TRUE(u.library_version_matches(2, 6));
  EXPECT_FALSE(u.library_version_matches(2, 5));
  EXPECT_FALSE(u.library_version_matches(3, 6));

  auto all = Pkcs11Uri::parse("pkcs11:");
  EXPECT_FALSE(all.token);
  EXPECT_TRUE(all.module_path.empty());
  EXPECT_TRUE(all.library_version_matches(1, 0));
  EXPECT_EQ(Pkcs11Uri::parse("pkcs11:library-version=3").library_version_matches(3, 9), true);
  EXPECT_EQ(Pkcs11Uri::parse("pkcs11:?module-name=softhsm2").module_name, "softhsm2");
  // Vendor attributes are allowed and ignored.
  EXPECT_EQ(Pkcs11Uri::parse("pkcs11:x-vendor=a;token=T").token, "T");
}

TEST(Pkcs11Uri, EncodingRoundTripsEveryByte) {
  std::string all;
  for (int c = 1; c < 256; ++c)
    all.push_back(static_cast<char>(c));
  auto u = Pkcs11Uri::parse("pkcs11:token=" + Pkcs11Uri::encode(all) + ";object=a%3Bb%3Dc");
  EXPECT_EQ(u.token, all);
  EXPECT_EQ(u.object, "a;b=c");
  Bytes id{0x00, 0x3B, 0x25};
  EXPECT_EQ(Pkcs11Uri::parse("pkcs11:id=" + Pkcs11Uri::encode(id)).id, id);
}

TEST(Pkcs11Uri, RefusesMistakesAndPinsWithAReason) {
  auto message = [](const std::string& text) -> std::string {
    try {
      Pkcs11Uri::parse(text);
    } catch (const Exception& e) {
      return e.what();
    }
    return "";
  };
  EXPECT_NE(message("/home/user/MY").find("Not a PKCS#11 URI"), std::string::npos);
  EXPECT_NE(message("pkcs11:tokn=A").find("Unknown attribute \"tokn\""), std::string::npos);
  EXPECT_NE(message("pkcs11:token=A;token=B").find("appears twice"), std::string::npos);
  EXPECT_NE(message("pkcs11:token=%4").find("percent-encoding"), std::string::npos);
  EXPECT_NE(message("pkcs11:token=%G1").find("percent-encoding"), std::string::npos);
  EXPECT_NE(message("pkcs11:slot-id=x").find("slot-id"), std::string::npos);
  EXPECT_NE(message("pkcs11:slot-id=-1").find("slot-id"), std::string::npos);
  EXPECT_NE(message("pkcs11:type=key").find("Unknown object type"), std::string::npos);
  EXPECT_NE(message("pkcs11:token").find("Malformed attribute"), std::string::npos);
  EXPECT_NE(message("pkcs11:?module-path=relative.so").find("absolute"), std::string::npos);
  // A PIN in the URI would sit in shell histories and process lists.
  std::string pin = message("pkcs11:token=A?pin-value=1234");
  EXPECT_NE(pin.find("--pin"), std::string::npos) << pin;
  EXPECT_EQ(pin.find("1234"), std::string::npos) << "the refused PIN is not repeated";
  EXPECT_NE(message("pkcs11:token=A?pin-source=file:/tmp/p").find("--pin"), std::string::npos);
}

TEST(Pkcs11Uri, PaddedFieldsLoseOnlyTrailingBlanks) {
  const unsigned char label[8] = {' ', 'A', ' ', 'B', ' ', ' ', ' ', ' '};
  EXPECT_EQ(padded_field(label, sizeof label), " A B");
  const unsigned char blank[4] = {' ', ' ', ' ', ' '};
  EXPECT_EQ(padded_field(blank, sizeof blank), "");
}

}  // namespace
}  // namespace tessarel::p11
