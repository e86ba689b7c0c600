// Any text where the code expects a number: the size record of a mail folder, the date of a log line, a setting.
#include <algorithm>
#include <cctype>

#include "brenthaven/mailbox/sizefile.h"
#include "brenthaven/platform/dates.h"
#include "tests/fuzz/fuzz.h"

namespace {

constexpr size_t kLongestRecord = 31;

size_t DigitsAtFront(std::string_view text) { return std::min(text.find_first_not_of("0123456789"), text.size()); }

void ExpectSizeRecord(std::string_view text) {
  static std::string const folder = fuzz::SMemoryDirectory::Path("");
  fuzz::PutFile(folder + "__size__", text);
  SSizeFile file{SString(folder)};
  fuzz::Expect(file.Lock() == 1, "can't lock a size file");
  long long const size = file.GetSize();
  std::string_view const record = text.substr(0, kLongestRecord);
  size_t const digits = DigitsAtFront(record);
  if (digits > 0 && digits < 19) fuzz::Expect(size == atoll(std::string(record).c_str()), "another size", text);
  if (record.empty() || (digits > 20 && record[0] != '0')) fuzz::Expect(size == -1, "a size that nobody wrote", text);

  bool const isNear = file.NearNoticeSent();
  bool const isOver = file.OverNoticeSent();
  bool const hasFlags = digits > 0 && digits < 19 && record.size() == digits + 2 && record[digits] == ' ' &&
                        record[digits + 1] >= '0' && record[digits + 1] <= '9';
  if (hasFlags) {
    int const flags = record[digits + 1] - '0';
    fuzz::Expect(isNear == ((flags & 1) != 0) && isOver == ((flags & 2) != 0), "another notice was sent", text);
  }
  for (long long const bytes : {size, 0LL, 123456789012LL, -1LL}) {
    file.SetSize(bytes);
    file.Unlock();
    fuzz::Expect(file.Lock() == 1, "can't lock a size file");
    fuzz::Expect(file.GetSize() == bytes, "a size is not read as it was written", text);
    fuzz::Expect(file.NearNoticeSent() == isNear && file.OverNoticeSent() == isOver, "a notice was forgotten", text);
  }
}

// A date is 14 digits and compares by time.
void ExpectDate(std::string_view text) {
  SString copy(text);
  long long const date = ParseLogFileDate(copy);
  fuzz::Expect(copy == SString(text), "reading a date changed it", text);
  bool const isDate = DigitsAtFront(text) == 14 && (text.size() == 14 || text[14] == '+' || text[14] == ':');
  if (isDate) fuzz::Expect(date == atoll(std::string(text.substr(0, 14)).c_str()), "another date", text);
  if (text.empty() || text[0] == ':') fuzz::Expect(date == 0, "a date out of nothing", text);
}

void ExpectNumber(std::string_view text) {
  SString const number(text);
  long const whole = number.AsLong();
  double const value = number.AsDouble();
  fuzz::Expect(!(value >= 1) || whole >= 1, "a number above 0 counts as none", text);
  fuzz::Expect(!(value <= -1) || whole <= -1, "a number below 0 counts as none", text);
  (void)number.AsReal();
  size_t const digits = DigitsAtFront(text);
  bool const isPlain = digits > 0 && digits <= 15 && digits == text.size();
  if (isPlain) fuzz::Expect(whole == atol(std::string(text).c_str()), "another number", text);
  // Out of a wider text: no byte behind the end is looked at.
  std::string const wide = std::string(text) + "999";
  SFixedString const part(wide.data(), static_cast<int>(text.size()));
  fuzz::Expect(SString(part).AsLong() == whole, "a number went on behind its text", text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, size_t size) {
  std::string_view const text = fuzz::View(data, size);
  ExpectSizeRecord(text);
  ExpectDate(text);
  ExpectNumber(text);
  return 0;
}
