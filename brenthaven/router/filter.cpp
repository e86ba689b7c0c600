#include "brenthaven/router/filter.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr std::string_view kEnterJapanese = "\x1b$B";
constexpr std::string_view kLeaveJapanese[] = {"\x1b(B", "\x1b(J"};
constexpr std::string_view kWhiteSpace = " \f\n\r\t\v";
constexpr std::string_view kSpecial = "\\^$.[]|()*+?{}";  // bytes that mean something in an expression

// Where the Japanese text that begins at a place is over, its closing escape sequence included; the end of the text
// where that is missing.
size_t EndOfJapanese(std::string_view text, size_t at) {
  size_t end = text.size();
  for (std::string_view const leave : kLeaveJapanese)
    if (size_t const found = text.find(leave, at); found != text.npos) end = std::min(end, found + leave.size());
  return end;
}

// Takes the next piece off a text: Japanese text as a whole, a backslash with the byte behind it, or one byte.
std::string_view TakePiece(std::string_view &text) {
  size_t length = 1;
  if (text.starts_with(kEnterJapanese)) length = EndOfJapanese(text, kEnterJapanese.size());
  if (text.starts_with('\\')) length = std::min<size_t>(2, text.size());
  std::string_view const piece = text.substr(0, length);
  text.remove_prefix(length);
  return piece;
}

// The words between blanks and tabs, of which those within parentheses do not split. A parenthesis counts where it is
// a piece by itself.
std::vector<std::string> Words(std::string_view text) {
  std::vector<std::string> words;
  int depth = 0;
  bool inWord = false;
  while (!text.empty()) {
    std::string_view const piece = TakePiece(text);
    bool const splits = depth == 0 && (piece == " " || piece == "\t");
    if (piece == "(") ++depth;
    if (piece == ")" && depth > 0) --depth;
    if (!splits && !inWord) words.emplace_back();
    if (!splits) words.back() += piece;
    inWord = !splits;
  }
  return words;
}

// The expression of a pattern. A star can't be escaped: "\*" becomes "\.*", any number of dots. Stars at the ends say
// nothing, since a match may stand anywhere, and without them many a pattern is plain bytes, which are found far
// faster.
SString ExpressionOf(std::string_view pattern) {
  constexpr std::string_view kBindLeft = "?+{|";   // behind a star these need it
  constexpr std::string_view kBindRight = "\\|(";  // and these in front of one
  bool const isJapanese = pattern.find(kEnterJapanese) != pattern.npos;
  while (!isJapanese && pattern.size() > 1 && pattern.front() == '*' && kBindLeft.find(pattern[1]) == kBindLeft.npos)
    pattern.remove_prefix(1);
  while (!isJapanese && pattern.size() > 1 && pattern.back() == '*' &&
         kBindRight.find(pattern[pattern.size() - 2]) == kBindRight.npos)
    pattern.remove_suffix(1);
  SString expression;
  while (!pattern.empty()) {
    std::string_view const piece = TakePiece(pattern);
    bool const isLiteral = piece.starts_with(kEnterJapanese);
    for (char const c : piece) {
      if (isLiteral && kSpecial.find(c) != kSpecial.npos) expression += '\\';
      if (!isLiteral && c == '*') expression += '.';
      expression += c;
    }
  }
  return expression;
}

}  // namespace

std::shared_ptr<SHeaderFilter const> SHeaderFilter::Of(SStringList const &lines, SString *badLine) {
  static SStringList lastLines;
  static std::shared_ptr<SHeaderFilter const> last;
  if (last != nullptr && lines == lastLines) return last;
  auto filter = std::make_shared<SHeaderFilter>();
  for (SString const &line : lines)
    if (!filter->_Add(line)) {
      *badLine = line;
      return nullptr;
    }
  lastLines = lines;
  return last = filter;
}

bool SHeaderFilter::_ReadOperator(SString const &word, Operator *op) {
  constexpr std::string_view kWords[] = {"and", "not", "or", "notand", "notor"};  // in the order of their names
  auto const *const found = std::find(std::begin(kWords), std::end(kWords), word.View());
  *op = static_cast<Operator>(found - kWords);
  return found != std::end(kWords);
}

// False for what is neither blank nor a filter line.
bool SHeaderFilter::_Add(SString const &line) {
  std::string_view text = line.View();
  if (text.ends_with("\r\n")) text.remove_suffix(2);
  if (text.find_first_not_of(kWhiteSpace) == text.npos) return true;
  std::vector<std::string> const words = Words(text);
  if (words.size() != 3) return false;
  std::string_view const pattern = words[1];
  if (pattern.size() < 2 || pattern.front() != '(' || pattern.back() != ')') return false;
  Line &added = _lines.emplace_back();
  added.key = LowerCase(SString(words[0] + (words[0].back() == ':' ? "" : ":")));
  added.pattern.Set(ExpressionOf(pattern.substr(1, pattern.size() - 2)));
  return added.pattern.OK() && _ReadOperator(LowerCase(SString(words[2])), &added.op);
}

bool SHeaderFilter::Line::Hits(SStringList const &values) const {
  return std::any_of(values.begin(), values.end(), [this](SString const &value) { return pattern.HasMatch(value); });
}

// The answer so far, joined by this line's operator with the next line, whose field has these values. They are only
// looked at where the answer depends on them.
bool SHeaderFilter::Line::Join(bool result, Line const &next, SStringList const &values) const {
  switch (op) {
    case kAnd:
      return result && next.Hits(values);
    case kOr:
      return result || next.Hits(values);
    case kNotAnd:
      return result && !next.Hits(values);
    case kNotOr:
      return result || !next.Hits(values);
    case kNot:
      break;
  }
  return result;
}

bool SHeaderFilter::Hits(SHeader const &header) const {
  bool result = false;
  for (size_t i = 0; i < _lines.size(); ++i) {
    Line const &line = _lines[i];
    SStringList const values = header.Get(line.key);
    if (values.Length() == 0) continue;
    result = i == 0 ? line.Hits(values) != (line.op == kNot) : _lines[i - 1].Join(result, line, values);
  }
  return result;
}
