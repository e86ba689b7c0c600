#include "brenthaven/platform/dates.h"

#include <time.h>

#include <cstdio>

#include "brenthaven/text/base.h"
#include "brenthaven/text/sstringlist.h"

namespace {

constexpr char const *kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr char const *kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr time_t kSecondsPerDay = 86400;
constexpr int kZoneStart = 14;  // of the zone in a log date, behind "YYYYMMDDHHMMSS"
constexpr int kZoneLength = 5;
constexpr double kLargestDate = 9e18;  // what a long long holds for sure

template <int count>
char const *NameOf(char const *const (&names)[count], int number) {
  return number >= 0 && number < count ? names[number] : "Err";
}

}  // namespace

SString RFC822Date() {
  time_t const now = time(nullptr);
  struct tm date;
  if (localtime_r(&now, &date) == nullptr) return SString();
  SString const zone = LogFileDate().Segment(kZoneStart, kZoneLength);
  char text[64];
  int const length = snprintf(text, sizeof text, "%s, %d %s %04d %02d:%02d:%02d %s", NameOf(kDays, date.tm_wday),
                              date.tm_mday, NameOf(kMonths, date.tm_mon), date.tm_year + 1900, date.tm_hour,
                              date.tm_min, date.tm_sec, static_cast<char const *>(zone));
  if (length < 0 || length >= static_cast<int>(sizeof text)) return SString();
  return SString(text, length);
}

int DaysSince1970() { return static_cast<int>(time(nullptr) / kSecondsPerDay); }

long long ParseLogFileDate(SString &text) {
  double const number = text.SplitExact(":", 2).Get(0).AsDouble();
  return number > -kLargestDate && number < kLargestDate ? static_cast<long long>(number) : 0;
}
