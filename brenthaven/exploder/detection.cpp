#include "brenthaven/exploder/detection.h"

#include <algorithm>
#include <string>
#include <vector>

#include "brenthaven/spool/keys.h"
#include "brenthaven/text/sstring.h"

namespace {

using Words = std::vector<std::string_view>;

// What may stand behind a command.
enum class Tail {
  kNothing,
  kTarget,  // addresses, fillers and one word more, the list's name
  kKey,     // a key, and then anything: key mails put the whole request behind it
};

struct CommandRow {
  std::string_view word;
  Tail tail;
  bool needsEmptyBody;  // as a subject: an ordinary word, which a posting may have for its subject
};

constexpr CommandRow kCommands[] = {
    {"subscribe", Tail::kTarget, false}, {"unsubscribe", Tail::kTarget, false}, {"signoff", Tail::kTarget, false},
    {"confirm", Tail::kKey, false},      {"help", Tail::kNothing, true},        {"info", Tail::kNothing, true},
    {"lists", Tail::kNothing, true},     {"which", Tail::kNothing, true},       {"who", Tail::kNothing, true},
};

constexpr std::string_view kFillers[] = {"me", "please", "digest", "from", "to", "the", "this", "list"};

constexpr size_t kMostCommandWords = 8;
constexpr size_t kShortestKey = 8;
constexpr int kMostFurtherLines = 5;  // below the command: a greeting, a name

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

Words WordsOf(std::string_view text) {
  Words words;
  for (size_t at = 0; at < text.size() && words.size() <= kMostCommandWords;) {
    while (at < text.size() && IsBlank(text[at])) ++at;
    size_t const begin = at;
    while (at < text.size() && !IsBlank(text[at])) ++at;
    if (at > begin) words.push_back(text.substr(begin, at - begin));
  }
  return words;
}

bool IsKey(std::string_view word) {
  return word.size() >= kShortestKey && word.find_first_of("0123456789") != std::string_view::npos;
}

bool IsTarget(Words const &words) {
  int others = 0;
  for (size_t i = 1; i < words.size(); ++i)
    if (words[i].find('@') == std::string_view::npos &&
        std::find(std::begin(kFillers), std::end(kFillers), words[i]) == std::end(kFillers))
      ++others;
  return others <= 1;
}

// The row of a line that is a command as a whole; null for any other.
CommandRow const *CommandOf(std::string_view line) {
  Words const words = WordsOf(line);
  if (words.empty()) return nullptr;
  for (CommandRow const &row : kCommands) {
    if (words[0] != row.word) continue;
    bool const fits = row.tail == Tail::kKey             ? words.size() > 1 && IsKey(words[1])
                      : words.size() > kMostCommandWords ? false
                      : row.tail == Tail::kNothing       ? words.size() == 1
                                                         : IsTarget(words);
    return fits ? &row : nullptr;
  }
  return nullptr;
}

std::string LowerOf(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; });
  return lower;
}

// Lines with something on them, quoted ones left out, up to a signature; no more than what decides.
std::vector<std::string_view> TextLines(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty() && lines.size() <= kMostFurtherLines + 1) {
    size_t const end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    while (!line.empty() && IsBlank(line.back())) line.remove_suffix(1);
    while (!line.empty() && IsBlank(line.front())) line.remove_prefix(1);
    if (line == "--") break;
    if (!line.empty() && line.front() != '>') lines.push_back(line);
  }
  return lines;
}

bool IsPlainText(SHeader const &header) {
  SString const type = LowerCase(header.Get(kHeaderContentType).Get(0));
  SString const encoding = LowerCase(header.Get(kHeaderContentTransferEncoding).Get(0));
  return (type.Length() == 0 || type.HasPrefix("text/plain")) && !encoding.HasPrefix("base64");
}

std::string_view WithoutReply(std::string_view subject) {
  while (subject.starts_with("re:") || subject.starts_with(" ")) subject.remove_prefix(subject.front() == ' ' ? 1 : 3);
  return subject;
}

}  // namespace

bool IsMisdirectedRequest(SHeader const &header, std::string_view text) {
  std::string const subject = LowerOf(header.Get(kHeaderSubject).Get(0).View());
  CommandRow const *const inSubject = CommandOf(WithoutReply(subject));
  if (!IsPlainText(header)) return inSubject != nullptr && !inSubject->needsEmptyBody;
  std::string const lower = LowerOf(text);
  std::vector<std::string_view> const lines = TextLines(lower);
  if (inSubject != nullptr && (inSubject->needsEmptyBody ? lines.empty() : lines.size() <= kMostFurtherLines))
    return true;
  return !lines.empty() && lines.size() <= kMostFurtherLines + 1 && CommandOf(lines[0]) != nullptr;
}
