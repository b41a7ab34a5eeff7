#include <gtest/gtest.h>

#include <set>

#include "certgen/countries.h"

namespace tessarel {
namespace {

TEST(Countries, NamesGiveTheirCodesExactly) {
  EXPECT_EQ(CountryCode("Italia"), "IT");
  EXPECT_EQ(CountryCode("Italy"), "ZZ");
  EXPECT_EQ(CountryCode("Moldova, Republic of "), "MD");
  EXPECT_EQ(CountryCode("Moldova, Republic of"), "ZZ");
  EXPECT_EQ(CountryCode(""), "ZZ");
  EXPECT_EQ(CountryCode("italia"), "ZZ");
  EXPECT_EQ(CountryCode("Unknown or unspecified country"), "ZZ");
  EXPECT_EQ(CountryCode("Burma (no longer exists)"), "BU");
  EXPECT_EQ(CountryCode("Cook Iislands"), "CK");
  EXPECT_EQ(CountryCode("Cote D'ivoire (Ivory Coast)"), "CI");
  EXPECT_EQ(CountryCode("Zimbabwe"), "ZW");
}

TEST(Countries, TableIsUniqueAndTheListEndsWithTheUnknownEntry) {
  std::set<std::string> names, codes;
  for (const auto& c : kCountries) {
    names.insert(c.name);
    codes.insert(c.code);
    EXPECT_EQ(std::string(c.code).size(), 2u) << c.name;
  }
  EXPECT_EQ(names.size(), 244u);
  EXPECT_EQ(codes.size(), 244u);
  std::vector<std::string> items{"stale"};
  int selected = FillCountryList(items);
  ASSERT_EQ(items.size(), 245u);
  EXPECT_EQ(items.front(), "Andorra");
  EXPECT_EQ(items.back(), "Unknown or unspecified country");
  ASSERT_GE(selected, 0);
  EXPECT_EQ(items[static_cast<std::size_t>(selected)], "Italia");
}

}  // namespace
}  // namespace tessarel
