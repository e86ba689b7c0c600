#include "brenthaven/lists/slistkey.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

#include "brenthaven/accounts/constanttime.h"
#include "brenthaven/accounts/passwords.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/platform/pickle.h"
#include "brenthaven/store/sdbfile.h"
#include "brenthaven/text/base.h"

namespace {

constexpr int kShortKeyLength = 8;
constexpr int kDatedDigestLength = 24;
constexpr int kLongestDay = 7;  // digits
constexpr char kDayEnd = '-';
constexpr int kDefaultKeyDays = 14;
constexpr time_t kSecondsADay = 24 * 60 * 60;
constexpr time_t kSecondsAnHour = 60 * 60;
constexpr unsigned long kDirectoryMode = 0770;
constexpr char kIntentLetters[] = "sdu";  // in the order of SListIntent
constexpr char kNul = '\0';

// What a short key covers, and a dated one besides its own letter and day.
SString Covered(SListKeySubject const &subject, SString const &secret) {
  return subject.address + kNul + subject.listUID + kNul + secret;
}

struct DatedKey {
  SListIntent intent;
  long day;
};

bool ReadDatedKey(SString const &key, DatedKey &read) {
  std::string_view text = key.View();
  if (text.empty()) return false;
  size_t const letter = std::string_view(kIntentLetters).find(text.front());
  size_t const end = text.find(kDayEnd);
  if (letter == std::string_view::npos || end == std::string_view::npos || end < 2 || end > kLongestDay + 1)
    return false;
  std::string const digits(text.substr(1, end - 1));
  if (digits.find_first_not_of("0123456789") != std::string::npos) return false;
  read = {static_cast<SListIntent>(letter), strtol(digits.c_str(), nullptr, 10)};
  return text.size() - end - 1 == kDatedDigestLength;
}

bool IsFresh(long day, long today, int validDays) { return day <= today + 1 && today - day <= validDays; }

// Who was mailed keys within the last hour. Addresses stand as digests, so that the file tells nobody's address.
class KeyMailRecord : private SPickleFile {
public:
  KeyMailRecord(SString const &directory, time_t now)
      : SPickleFile(directory + kFile), _path(directory + kFile), _now(now) {}

  bool Open() {
    if (!SPickleFile::Read()) return false;
    SStringList const digests = GetList();
    SStringList const times = GetList();
    if (!WasExact()) return true;  // cut short or of another kind: an hour's memory is all that is lost
    for (int i = 0; i < digests.Length(); ++i) _Take(digests.Get(i), times.Get(i));
    return true;
  }

  // False when the hour's share is used up.
  bool Add(SString const &address) {
    SString const digest = MD5(LowerCase(address));
    auto entry = std::find_if(_entries.begin(), _entries.end(), [&](Entry const &e) { return e.digest == digest; });
    if (entry == _entries.end()) entry = _entries.insert(_entries.end(), {digest, {}});
    if (entry->times.size() >= kKeyMailsPerHour) return false;
    entry->times.push_back(_now);
    if (_entries.size() > kKeyMailAddresses) _DropLeast();
    return true;
  }

  bool Close() {
    SStringList digests;
    SStringList times;
    for (Entry const &entry : _entries) {
      digests.Push(entry.digest);
      SStringList texts;
      for (time_t const time : entry.times) texts.Push(SString(static_cast<long>(time)));
      times.Push(texts.Join(" "));
    }
    Clear();
    PutList(digests);
    PutList(times);
    (void)RemoveFile(_path + ".new");  // left by a crash, if there is one
    return Write() != 0;
  }

private:
  static constexpr char kFile[] = "keymails";

  struct Entry {
    SString digest;
    std::vector<time_t> times;  // oldest first
  };

  void _Take(SString const &digest, SString const &times) {
    Entry entry{digest, {}};
    for (SString const &text : times.Split(' ')) {
      time_t const time = text.AsLong();
      if (time <= _now && time > _now - kSecondsAnHour) entry.times.push_back(time);  // one to come: a clock set back
    }
    if (!entry.times.empty()) _entries.push_back(entry);
  }

  // Not the newest, which stands last: a flood of made-up addresses must not push out one that is under attack.
  void _DropLeast() {
    auto const least = std::min_element(_entries.begin(), _entries.end() - 1, [](Entry const &a, Entry const &b) {
      return a.times.size() != b.times.size() ? a.times.size() < b.times.size() : a.times.back() < b.times.back();
    });
    _entries.erase(least);
  }

  SString _path;
  time_t _now;
  std::vector<Entry> _entries;
};

}  // namespace

SString MakeListKey(SListKeySubject const &subject, SString const &secret) {
  return MD5(Covered(subject, secret)).Segment(0, kShortKeyLength);
}

SString MakeDatedListKey(SListKeySubject const &subject, SListIntent intent, long day, SString const &secret) {
  SString const head = SString(kIntentLetters[static_cast<int>(intent)], 1) + SString(day);
  // The secret stands on both sides of an inner digest, so that no text can be lengthened or swapped for its like.
  SListKeySubject const anyCase = {LowerCase(subject.address), subject.listUID};
  SString const inner = MD5(secret + kNul + head + kNul + Covered(anyCase, secret));
  return head + kDayEnd + MD5(secret + kNul + inner).Segment(0, kDatedDigestLength);
}

bool IsListKey(SString const &key, SListKeySubject const &subject, bool unsubscribes, long today, int validDays,
               SString const &secret) {
  DatedKey dated;
  if (!ReadDatedKey(key, dated)) return SameBytes(key.View(), MakeListKey(subject, secret).View());
  return (dated.intent == SListIntent::kUnsubscribe) == unsubscribes && validDays > 0 &&
         IsFresh(dated.day, today, validDays) &&
         SameBytes(key.View(), MakeDatedListKey(subject, dated.intent, dated.day, secret).View());
}

unsigned ReadListKeyIntent(SString const &key, SListIntent &intent) {
  DatedKey dated;
  if (!ReadDatedKey(key, dated)) return 0;
  intent = dated.intent;
  return 1;
}

long KeyDay(time_t now) { return static_cast<long>(now / kSecondsADay); }

int GetKeyDays() {
  Sdbfile settings("List-Manager", 0, kProductWord);
  if (!settings.Open("Config", 0)) return kDefaultKeyDays;
  SStringList const days = settings.Get("KeyDays");
  return days.Length() > 0 ? static_cast<int>(std::clamp<long>(days.Get(0).AsLong(), 0, INT_MAX)) : kDefaultKeyDays;
}

SKeyMailAnswer RecordKeyMail(SString const &address, time_t now) {
  SString const directory = GetEnv("Brenthaven") + "/List-Manager/";
  KeyMailRecord record(directory, now);
  if (!MakeDir(directory, kDirectoryMode) || !record.Open()) return SKeyMailAnswer::kFailed;
  if (!record.Add(address)) return SKeyMailAnswer::kTooMany;
  return record.Close() ? SKeyMailAnswer::kMail : SKeyMailAnswer::kFailed;
}
