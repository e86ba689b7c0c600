// Any lines as a header filter, held against any header: a line is taken when it has three words of the right kind, and
// the answer is that of the lines one after another.
//
// The input is the filter's lines, a blank line, and the header; lines end at LF.
#include <algorithm>
#include <memory>
#include <vector>

#include "brenthaven/router/filter.h"
#include "tests/fuzz/fuzz.h"

namespace {

constexpr std::string_view kWhite = " \f\n\r\t\v";

struct Line {
  std::string key;
  std::shared_ptr<SPerlRegex> pattern;
  std::string op;
};

enum class Verdict { kBlank, kTaken, kRefused };

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; });
  return text;
}

std::vector<std::string> Words(std::string_view line) {
  std::vector<std::string> words(1);
  int depth = 0;
  for (size_t i = 0; i < line.size(); ++i) {
    if (depth == 0 && (line[i] == ' ' || line[i] == '\t')) {
      if (!words.back().empty()) words.emplace_back();
      continue;
    }
    if (line[i] == '(') ++depth;
    if (line[i] == ')') depth = std::max(depth - 1, 0);
    words.back() += line[i];
    if (line[i] == '\\' && i + 1 < line.size()) words.back() += line[++i];
  }
  if (words.back().empty()) words.pop_back();
  return words;
}

Verdict Read(std::string_view line, Line &read) {
  if (line.ends_with("\r\n")) line.remove_suffix(2);
  if (line.find_first_not_of(kWhite) == line.npos) return Verdict::kBlank;
  std::vector<std::string> const words = Words(line);
  if (words.size() != 3) return Verdict::kRefused;
  std::string const &pattern = words[1];
  if (pattern.size() < 2 || pattern.front() != '(' || pattern.back() != ')') return Verdict::kRefused;
  std::string expression;
  for (char const c : pattern.substr(1, pattern.size() - 2)) expression += c == '*' ? ".*" : std::string(1, c);
  read.key = Lower(words[0]) + (words[0].back() == ':' ? "" : ":");
  read.pattern = std::make_shared<SPerlRegex>(fuzz::Text(expression));
  read.op = Lower(words[2]);
  constexpr std::string_view kOperators[] = {"and", "or", "not", "notand", "notor"};
  bool const isKnown = std::find(std::begin(kOperators), std::end(kOperators), read.op) != std::end(kOperators);
  return isKnown && read.pattern->OK() ? Verdict::kTaken : Verdict::kRefused;
}

bool IsHit(Line const &line, SStringList const &values) {
  return std::any_of(values.begin(), values.end(), [&](SString const &value) { return line.pattern->HasMatch(value); });
}

bool Answer(std::vector<Line> const &lines, SHeader const &header) {
  bool answer = false;
  for (size_t i = 0; i < lines.size(); ++i) {
    SStringList const values = header.Get(fuzz::Text(lines[i].key));
    if (values.Length() == 0) continue;
    bool const hit = IsHit(lines[i], values);
    std::string const op = i == 0 ? "first" : lines[i - 1].op;
    if (op == "first") answer = hit != (lines[0].op == "not");
    if (op == "and") answer = answer && hit;
    if (op == "or") answer = answer || hit;
    if (op == "notand") answer = answer && !hit;
    if (op == "notor") answer = answer || !hit;
  }
  return answer;
}

SStringList TakeLines(std::string_view &text) {
  SStringList lines;
  lines.Define();
  while (!text.empty() && text.front() != '\n') {
    std::string_view const line = text.substr(0, text.find('\n') + 1);  // all that is left when there is none
    std::string_view const taken = line.empty() ? text : line;
    lines.Push(SString(taken.ends_with("\r\n") ? taken : taken.substr(0, taken.size() - (line.empty() ? 0 : 1))));
    text.remove_prefix(taken.size());
  }
  text.remove_prefix(text.empty() ? 0 : 1);
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, size_t size) {
  fuzz::MuteErrorStream();
  std::string_view text = fuzz::View(data, size);
  SStringList const lines = TakeLines(text);
  std::string head;
  for (char const c : text) head += c == '\n' && !head.ends_with('\r') ? std::string("\r\n") : std::string(1, c);
  SHeader header;
  fuzz::Text(head) >> header;

  SString badLine;
  std::shared_ptr<SHeaderFilter const> const filter = SHeaderFilter::Of(lines, &badLine);
  bool const hits = filter != nullptr && filter->Hits(header);
  // Japanese text stands for its bytes, with rules of its own.
  if (lines.Join().Index("\x1b") >= 0) return 0;
  std::vector<Line> wanted;
  SString const *wantedBad = nullptr;
  for (SString const &line : lines) {
    Line read;
    Verdict const verdict = Read(line.View(), read);
    if (verdict == Verdict::kTaken) wanted.push_back(read);
    if (verdict != Verdict::kRefused) continue;
    wantedBad = &line;
    break;
  }
  fuzz::Expect((filter == nullptr) == (wantedBad != nullptr), "a filter is taken or refused wrongly",
               lines.Join("\n").View());
  if (wantedBad != nullptr) {
    fuzz::Expect(badLine == *wantedBad, "another line is told as the bad one", badLine.View());
    return 0;
  }
  fuzz::Expect(filter->IsEmpty() == wanted.empty(), "a filter of blank lines is none", lines.Join("\n").View());
  fuzz::Expect(hits == Answer(wanted, header), "a filter answers otherwise than its lines", lines.Join("\n").View());
  return 0;
}
