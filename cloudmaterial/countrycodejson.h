#pragma once

#include "cloudmaterial/protocol/ajsonex.h"

#include <string>
#include <vector>

namespace talvor::cloudmaterial {

struct CountryCode
{
    ajson::text code;
    std::string label;
    std::string enLabel;
};
AJSON(CountryCode, code, label, enLabel)

struct CountryLabel
{
    std::string jp;
    std::string cn;
    std::string fr;
    std::string es;
    std::string us;
};
AJSON(CountryLabel, jp, cn, fr, es, us)

struct NewCountryCode
{
    ajson::text code;
    std::string iso;
    ajson::text isoNum;
    CountryLabel label;
    std::string areaCodeKey;
};
AJSON(NewCountryCode, code, iso, isoNum, label, areaCodeKey)

/** The calling codes offered in the login dialog (cloud/config/countrycode.json). */
struct CountryCodeJson
{
    std::vector<CountryCode> country_code;
    std::vector<NewCountryCode> new_country_code;
};
AJSON(CountryCodeJson, country_code, new_country_code)

} // namespace talvor::cloudmaterial
