#include "platform/Cookies/CookieDate.h"

#include <gtest/gtest.h>

namespace tallow {
namespace {

constexpr double kMoment = 1623233894;  // 2021-06-09 10:18:14 UTC

TEST(CookieDate, ReadsWhatServersWrite) {
  for (const char* text : {
           "Wed, 09 Jun 2021 10:18:14 GMT", "Wednesday, 09-Jun-21 10:18:14 GMT",
           "Wed Jun  9 10:18:14 2021", "Wed, 09-Jun-2021 10:18:14", "10:18:14 2021 jUNE 9",
           "9th=Jun?2021;10:18:14 -0800",        // the zone does not count
           "Wed, 09 Jun 2021 10:18:14.500 GMT",  // a fraction is what follows the time
           "\t09//Junius 21x 10:18:14z",
           "Mon 09 Jun 2021 10:18:14 11:00:00 5 Jan 1999",  // the first of each kind
       }) {
    const auto date = parseCookieDate(text);
    ASSERT_TRUE(date) << text;
    EXPECT_EQ(date->secondsSince1970, kMoment) << text;
  }
}

TEST(CookieDate, KnowsTheCalendarAndTwoDigitYears) {
  const auto seconds = [](const char* text) {
    return parseCookieDate(text).value().secondsSince1970;
  };
  EXPECT_EQ(seconds("1 Jan 70 0:0:0"), 0);
  EXPECT_EQ(seconds("1 Jan 1970 00:00:01"), 1);
  EXPECT_EQ(seconds("1 Jan 69 00:00:00"), 3124224000);  // 2069
  EXPECT_EQ(seconds("1 Jan 99 00:00:00"), 915148800);   // 1999
  EXPECT_EQ(seconds("29 Feb 2000 00:00:00"), 951782400);
  EXPECT_EQ(seconds("1 Jan 1601 00:00:00"), -11644473600);
  EXPECT_EQ(seconds("31 Dec 9999 23:59:59"), 253402300799);
}

TEST(CookieDate, RefusesTheRest) {
  const char* const kTexts[] = {
      // Something is missing, or is no date.
      "", " ", "GMT", "Wed, 09 Jun 2021", "09 2021 10:18:14", "Jun 2021 10:18:14",
      "09 Jun 10:18:14",
      // A field is out of its bounds.
      "32 Jun 2021 10:18:14", "0 Jun 2021 10:18:14", "31 Jun 2021 10:18:14", "29 Feb 1900 10:18:14",
      "09 Jun 1600 10:18:14", "09 Jun 2021 24:00:00", "09 Jun 2021 10:60:00",
      "09 Jun 2021 10:18:60",
      // A field has another form.
      "09 Jun 2021 10:18", "09 Jun 2021 10:18:014", "09 Jun 20211 10:18:14",
      "009 Jun 2021 10:18:14", "09 Jun 2 10:18:14", "09 Ju 2021 10:18:14", "09 Jun 2021 :18:14",
      "09 Jun 2021 10.18.14", "-1 Jan", "1623233894"};
  for (const char* text : kTexts) EXPECT_FALSE(parseCookieDate(text)) << text;
}

}  // namespace
}  // namespace tallow
