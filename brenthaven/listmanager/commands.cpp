#include "brenthaven/listmanager/commands.h"

#include <algorithm>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "brenthaven/lists/slistkey.h"

namespace {

enum Argument : unsigned {
  kDigest = 1,
  kList = 2,
  kAddress = 4,
  kWhat = 8,         // needed, and the first one
  kAnything = 16,    // and nobody reads it
  kByKey = 32,       // may stand behind "confirm KEY"
  kByOwner = 64,     // may stand behind "approve PASSWORD"
  kOwnerOnly = 128,  // means nothing elsewhere
};

struct VerbRow {
  std::string_view word;
  SListVerb verb;
  char const *name;
  unsigned arguments;
};

constexpr VerbRow kVerbs[] = {
    {"subscribe", SListVerb::kSubscribe, "Subscribe", kDigest | kList | kAddress | kByKey | kByOwner},
    {"unsubscribe", SListVerb::kUnsubscribe, "Unsubscribe", kDigest | kList | kAddress | kByKey | kByOwner},
    {"accept", SListVerb::kAccept, "Accept", kWhat | kList | kByOwner | kOwnerOnly},
    {"reject", SListVerb::kReject, "Reject", kWhat | kList | kByOwner | kOwnerOnly},
    {"which", SListVerb::kWhich, "Which", 0},
    {"lists", SListVerb::kLists, "Lists", 0},
    {"info", SListVerb::kInfo, "Info", kList},
    {"who", SListVerb::kWho, "Who", kList | kByOwner},
    {"help", SListVerb::kHelp, "Help", kAnything},
    {"end", SListVerb::kEnd, "End", kAnything},
};

// Words that stand in front of a command.
constexpr std::string_view kConfirm = "confirm";
constexpr std::string_view kApprove = "approve";
constexpr std::string_view kDigestWord = "digest";

constexpr std::string_view kBlanks = " \t";
constexpr size_t kNone = std::string_view::npos;

using Words = std::span<std::string_view const>;

bool IsPrintable(char c) { return c >= ' ' && c <= '~'; }
bool IsControl(char c) { return (static_cast<unsigned char>(c) < ' ' && c != '\t') || c == '\x7f'; }

// In one walk. A double quote at the start of a word opens a quoted one, if a quote followed by a blank closes it.
std::vector<std::string_view> SplitWords(std::string_view line) {
  std::vector<std::string_view> words;
  for (size_t at = line.find_first_not_of(kBlanks); at != kNone; at = line.find_first_not_of(kBlanks, at)) {
    if (line[at] == '"') {
      size_t const close = line.find('"', at + 1);
      if (close != kNone && (close + 1 == line.size() || kBlanks.find(line[close + 1]) != kNone)) {
        words.push_back(line.substr(at + 1, close - at - 1));
        at = close + 1;
        continue;
      }
    }
    size_t const end = std::min(line.find_first_of(kBlanks, at), line.size());
    words.push_back(line.substr(at, end - at));
    at = end;
  }
  return words;
}

bool IsWord(std::string_view given, std::string_view word) {
  return std::equal(given.begin(), given.end(), word.begin(), word.end(),
                    [](char a, char b) { return (a >= 'A' && a <= 'Z' ? static_cast<char>(a | 0x20) : a) == b; });
}

VerbRow const *FindVerb(std::string_view word) {
  for (VerbRow const &row : kVerbs)
    if (IsWord(word, row.word)) return &row;
  return nullptr;
}

VerbRow const &RowOf(SListVerb verb) {
  return *std::find_if(std::begin(kVerbs), std::end(kVerbs), [verb](VerbRow const &row) { return row.verb == verb; });
}

// The arguments behind a command's word; false when one has no place there.
bool TakeArguments(unsigned takes, Words words, SListCommand &command) {
  if (takes & kAnything) return true;
  if (takes & kWhat) {
    if (words.empty()) return false;
    command.what = SString(words[0]);
    words = words.subspan(1);
  }
  for (std::string_view const word : words) {
    if ((takes & kDigest) && !command.digest && IsWord(word, kDigestWord))
      command.digest = true;
    else if ((takes & kAddress) && command.address.Length() == 0 && word.find('@') != kNone)
      command.address = SString(word);
    else if ((takes & kList) && command.list.Length() == 0 && word.find('@') == kNone && !word.empty())
      command.list = SString(word);
    else
      return false;
  }
  return true;
}

bool TakeCommand(Words words, unsigned needs, SListCommand &command) {
  VerbRow const *const row = words.empty() ? nullptr : FindVerb(words[0]);
  if (row == nullptr || (row->arguments & needs) != needs) return false;
  if ((row->arguments & kOwnerOnly) && command.password.Length() == 0) return false;
  command.verb = row->verb;
  return TakeArguments(row->arguments, words.subspan(1), command);
}

// Behind "confirm": the key, and the command unless the key itself says what it is for.
bool TakeConfirmation(Words words, SListCommand &command) {
  if (words.empty()) return false;
  command.key = SString(words[0]);
  words = words.subspan(1);
  SListIntent intent;
  if ((!words.empty() && FindVerb(words[0]) != nullptr) || !ReadListKeyIntent(command.key, intent))
    return TakeCommand(words, kByKey, command);
  command.verb = intent == SListIntent::kUnsubscribe ? SListVerb::kUnsubscribe : SListVerb::kSubscribe;
  command.digest = intent == SListIntent::kSubscribeDigest;
  return TakeArguments(RowOf(command.verb).arguments & ~static_cast<unsigned>(kDigest), words, command);
}

bool TakeApproval(Words words, SListCommand &command) {
  if (words.size() < 2 || words[0].empty()) return false;
  command.password = SString(words[0]);
  return TakeCommand(words.subspan(1), kByOwner, command);
}

// A password must not come back in an answer, which others may get to read.
SString ShownLine(std::string_view line, Words words) {
  if (words.size() < 2 || !IsWord(words[0], kApprove)) return ShownText(SString(line));
  std::string text(words[0]);
  text += " ******";
  for (std::string_view const word : words.subspan(2)) text.append(" ").append(word);
  return ShownText(SString(text));
}

}  // namespace

SString ShownText(SString const &text) {
  constexpr std::string_view kCut = "...";
  std::string_view const all = text.View();
  bool const isLong = all.size() > kMaxShownCommand;
  std::string shown(all.substr(0, isLong ? kMaxShownCommand - kCut.size() : all.size()));
  std::replace(shown.begin(), shown.end(), '\t', ' ');
  std::replace_if(
      shown.begin(), shown.end(), [](char c) { return !IsPrintable(c); }, '?');
  return SString(isLong ? shown.append(kCut) : shown);
}

char const *ListVerbName(SListVerb verb) { return RowOf(verb).name; }

SListParse ParseListCommand(SString const &line, SListCommand &command) {
  command = SListCommand();
  std::string_view const text = line.View();
  std::vector<std::string_view> const words = SplitWords(text);
  SString const shown = ShownLine(text, words);
  bool const hasControl = std::any_of(text.begin(), text.end(), IsControl);
  SListParse result = SListParse::kUnknown;
  if (!words.empty() && !hasControl) {
    Words const rest = Words(words).subspan(1);
    std::optional<bool> good;
    if (IsWord(words[0], kConfirm))
      good = TakeConfirmation(rest, command);
    else if (IsWord(words[0], kApprove))
      good = TakeApproval(rest, command);
    else if (FindVerb(words[0]) != nullptr)
      good = TakeCommand(words, 0, command);
    if (good) result = *good ? SListParse::kCommand : SListParse::kMalformed;
  }
  if (result != SListParse::kCommand) command = SListCommand();
  command.shown = shown;
  return result;
}
