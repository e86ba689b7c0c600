#include "brenthaven/platform/dates.h"

#include <gmock/gmock.h>
#include <time.h>

#include "brenthaven/platform/environment.h"
#include "brenthaven/text/base.h"

TEST(Dates, MailDateHasTheZoneOfTheLog) {
  struct Case {
    char const *zone;
    char const *end;
  };
  for (Case const &c : {Case{"EST5", "-0500"}, Case{"CET-1", "+0100"}, Case{"UTC0", "+0000"}}) {
    setenv("TZ", c.zone, 1);
    tzset();
    std::string const date(RFC822Date().View());
    EXPECT_THAT(date, testing::MatchesRegex("(Sun|Mon|Tue|Wed|Thu|Fri|Sat), [1-9][0-9]? [A-Z][a-z][a-z] [0-9]{4} "
                                            "[0-9]{2}:[0-9]{2}:[0-9]{2} [-+][0-9]{4}"));
    EXPECT_THAT(date, testing::EndsWith(c.end));
  }
}

TEST(Dates, LocaleDoesNotTranslateTheNames) {
  setenv("TZ", "UTC0", 1);
  setenv("LC_ALL", "de_DE.UTF-8", 1);
  tzset();
  time_t const before = time(nullptr);
  std::string const date(RFC822Date().View());
  struct tm parsed = {};
  char const *end = strptime(date.c_str(), "%a, %d %b %Y %H:%M:%S", &parsed);
  ASSERT_NE(end, nullptr) << date;
  EXPECT_GE(timegm(&parsed), before);
  EXPECT_LE(timegm(&parsed), time(nullptr));
  EXPECT_LE(std::abs(static_cast<long>(before / 86400) - DaysSince1970()), 1);
}

TEST(Dates, LogDateIsANumber) {
  struct Case {
    char const *text;
    long long date;
  };
  for (Case const &c :
       {Case{"20030304090500+0100:Dispatch:ERROR", 20030304090500}, Case{"20030304090500-0500", 20030304090500},
        Case{"", 0}, Case{":20030304090500", 0}, Case{"text", 0}, Case{"1e300:", 0}, Case{"nan:", 0}}) {
    SString text = c.text;
    EXPECT_EQ(ParseLogFileDate(text), c.date) << c.text;
  }
}

TEST(Environment, SettingIsReadBack) {
  PutEnv("BrenthavenTest", "a value");
  EXPECT_TRUE(GetEnv("BrenthavenTest") == "a value");
  PutEnv("BrenthavenTest", SString("cut\0off", 7));
  EXPECT_TRUE(GetEnv("BrenthavenTest") == "a value");
  PutEnv("BrenthavenTest", SString());
  EXPECT_TRUE(GetEnv("BrenthavenTest") == "");
}
