// Any text as the schedule of a list's digest.
#include <algorithm>
#include <cctype>

#include "brenthaven/lists/slist.h"
#include "tests/fuzz/fuzz.h"

namespace {

struct Schedule {
  int hours = -1;
  int day = -1;
  unsigned isSound = 0;
  explicit Schedule(std::string const &text) { isSound = ParseListDeliverySpec(fuzz::Text(text), hours, day); }
  bool operator==(Schedule const &) const = default;
};

// Hours of a day and the halves behind it, when each number is one of a clock and one word at most is for the
// afternoon.
bool HasHoursOfADay(std::string const &text) {
  int halves = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    halves += text[i] == 'p' || text[i] == 'P';
    bool const isDigit = isdigit(static_cast<unsigned char>(text[i])) != 0;
    if (!isDigit && isalpha(static_cast<unsigned char>(text[i])) == 0 && text[i] != ' ') return false;
    bool const isThird = i >= 2 && isdigit(static_cast<unsigned char>(text[i - 1])) != 0 &&
                         isdigit(static_cast<unsigned char>(text[i - 2])) != 0;
    bool const isAbove23 =
        i >= 1 && isDigit && isdigit(static_cast<unsigned char>(text[i - 1])) != 0 && text.substr(i - 1, 2) > "23";
    if ((isDigit && isThird) || isAbove23) return false;
  }
  // "1e9", "0x99" and the like are numbers too.
  bool const hasOtherNumber =
      text.find_first_of("eExXnN") != text.npos && text.find_first_of("0123456789") != text.npos;
  return halves <= 1 && !hasOtherNumber && text.find_first_of("iInN") == text.npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, size_t size) {
  std::string const text(fuzz::View(data, size));
  Schedule const schedule(text);
  fuzz::Expect(schedule.hours >= 0, "hours below none", text);
  fuzz::Expect(schedule.day >= 0 && schedule.day <= 7, "a day that is none", text);
  if (HasHoursOfADay(text)) fuzz::Expect(schedule.hours <= 35, "more hours than anybody wrote", text);

  std::string upper = text;
  std::transform(upper.begin(), upper.end(), upper.begin(), [](char c) { return c >= 'a' && c <= 'z' ? c - 32 : c; });
  fuzz::Expect(Schedule(upper) == schedule, "case made a difference", text);
  fuzz::Expect(Schedule(" \t" + text + "\r\n") == schedule, "blanks made a difference", text);
  std::string spread;
  for (char const c : text) spread += c == ' ' ? std::string("\t ") : std::string(1, c);
  fuzz::Expect(Schedule(spread) == schedule, "the number of blanks made a difference", text);
  if (schedule.isSound)
    fuzz::Expect(!Schedule(text + " never").isSound, "a word that means nothing is a schedule", text);
  return 0;
}
