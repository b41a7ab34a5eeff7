// The country table of the certificate wizard.
#pragma once

#include <array>
#include <string>
#include <vector>

namespace tessarel {

struct Country {
  const char* name;
  const char* code;
};

extern const std::array<Country, 244> kCountries;
// The drop-down's last entry, which has no row (its code is "ZZ").
extern const char* const kUnknownCountry;

// The 245 drop-down entries: the table's names in order, then kUnknownCountry.
std::vector<std::string> CountryListItems();
// Clears and fills a drop-down's items; returns the index to select ("Italia"), -1 if absent.
int FillCountryList(std::vector<std::string>& items);
// The two-letter code of a name, "ZZ" when no row has exactly that name.
std::string CountryCode(const std::string& name);

}  // namespace tessarel
