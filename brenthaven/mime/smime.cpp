// A multipart body is taken apart level by level: a list of sections for each level waits on a stack, the next section
// of the innermost one is taken off, and is either a part or, with a boundary of its own, a level more.
#include "brenthaven/mime/smime.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "brenthaven/spool/header.h"
#include "brenthaven/text/base.h"

namespace {

constexpr size_t kMaxLevels = 16;
constexpr int kMaxParts = 10000;
constexpr size_t kNone = std::string_view::npos;
constexpr std::string_view kWhite = " \f\n\r\t\v";
constexpr char kMark[] = "MIME/";  // opens a row of a description

constexpr char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; }
constexpr bool EqualNoCase(char a, char b) { return Lower(a) == Lower(b); }

std::string_view WithoutWhite(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(kWhite), text.size()));
  return text;
}

// The text behind a prefix that is given in lower case; a null view when the text does not begin with it.
std::string_view Behind(std::string_view text, std::string_view prefix) {
  bool const fits = text.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), text.begin(), EqualNoCase);
  return fits ? text.substr(prefix.size()) : std::string_view();
}

SString LowerText(std::string_view text) { return LowerCase(SString(text)); }

struct Type {
  SString main = "text";
  SString sub = "plain";
};

// "main/sub" at the start of a field's value. False, and the type stays as it is, when there is none.
bool ReadType(std::string_view value, Type &type) {
  value = WithoutWhite(value);
  size_t const slash = value.find('/');
  if (slash == kNone || slash == 0) return false;
  std::string_view const rest = value.substr(slash + 1);
  auto const end = std::find_if_not(rest.begin(), rest.end(), [](char c) {
    return c == '-' || c == '_' || (c >= '0' && c <= '9') || (Lower(c) >= 'a' && Lower(c) <= 'z');
  });
  if (end == rest.begin()) return false;
  type.main = LowerText(value.substr(0, slash));
  type.sub = LowerText({rest.begin(), end});
  return true;
}

std::string_view FirstWord(std::string_view value) {
  value = WithoutWhite(value);
  return value.substr(0, value.find_first_of(kWhite));
}

// The value of a boundary parameter, whose "=" was just passed. It runs to a quote or the line's end, so an unquoted
// one takes the parameters behind it on its line along and its delimiters are not found.
std::string_view BoundaryValue(std::string_view text) {
  if (text.starts_with('"')) text.remove_prefix(1);
  return text.substr(0, text.find_first_of("\"\r\n"));
}

// The first boundary parameter of a Content-Type: field that has a value.
std::string_view FindBoundary(std::string_view field) {
  constexpr std::string_view kName = "boundary=";
  std::string_view boundary;
  while (boundary.empty()) {
    auto const at = std::search(field.begin(), field.end(), kName.begin(), kName.end(), EqualNoCase);
    if (at == field.end()) break;
    field = {at + kName.size(), field.end()};
    boundary = BoundaryValue(field);
  }
  return boundary;
}

// The head of a part. Fields are read line by line: a type on a folded line is not seen, and a boundary is seen only on
// a line of its own, so a container that names it behind its type is kept whole, as one part.
struct Part {
  Type type;
  bool typed = false;  // the first field that makes sense counts
  std::string_view encoding;
  std::string_view boundary;
  std::string_view content;
};

void ReadHeadLine(std::string_view line, Part &part) {
  if (auto const value = Behind(line, "content-type:"); value.data() != nullptr) {
    part.typed = part.typed || ReadType(value, part.type);
  } else if (auto const value = Behind(line, "content-transfer-encoding:"); !value.empty()) {
    // Without white space behind its colon the field does not count, and the content stays as it is.
    bool const spaced = kWhite.find(value[0]) != kNone;
    if (spaced && part.encoding.empty()) part.encoding = FirstWord(value);
  } else if (auto const value = Behind(WithoutWhite(line), "boundary="); part.boundary.empty()) {
    part.boundary = BoundaryValue(value);
  }
}

Part ReadPart(std::string_view section) {
  Part part;
  while (!section.empty()) {
    size_t const end = std::min(section.find("\r\n"), section.size());
    std::string_view const line = section.substr(0, end);
    section.remove_prefix(std::min(end + 2, section.size()));
    if (line.empty()) break;
    ReadHeadLine(line, part);
  }
  if (part.encoding.empty()) part.encoding = "7bit";
  part.content = section;
  return part;
}

// All places where a pattern occurs in a text, overlapping ones included, in one pass (Knuth, Morris and Pratt): a
// boundary is chosen by the sender, and one like "----" must not make each byte of a body cost its length.
class Occurrences {
public:
  Occurrences(std::string_view text, std::string_view pattern)
      : _text(text), _pattern(pattern), _borders(pattern.size()) {
    for (size_t i = 1; i < pattern.size(); ++i) _borders[i] = _Extend(_borders[i - 1], pattern[i]);
  }

  // The next place; kNone when there is no more.
  size_t Next() {
    while (_position < _text.size()) {
      if (_matched == 0) _position = std::min(_text.find(_pattern[0], _position), _text.size());
      if (_position == _text.size()) break;
      _matched = _Extend(_matched, _text[_position++]);
      if (_matched < _pattern.size()) continue;
      _matched = _borders[_matched - 1];
      return _position - _pattern.size();
    }
    return kNone;
  }

private:
  size_t _Extend(size_t matched, char c) const {
    while (matched > 0 && _pattern[matched] != c) matched = _borders[matched - 1];
    return _pattern[matched] == c ? matched + 1 : 0;
  }

  std::string_view _text;
  std::string_view _pattern;
  std::vector<size_t> _borders;  // for each prefix, the length of the longest shorter prefix that it ends in
  size_t _position = 0;
  size_t _matched = 0;
};

// What follows the boundary on a delimiter's line.
struct DelimiterEnd {
  bool found = false;
  bool closing = false;
  size_t behind = 0;  // where the text after the line begins
};

// Blanks and one "--" may stand between the boundary and the line end, which the closing delimiter may lack at the very
// end of the text.
DelimiterEnd ReadDelimiterEnd(std::string_view text, size_t position) {
  DelimiterEnd end;
  for (; position < text.size(); ++position) {
    if (text[position] == ' ' || text[position] == '\t') continue;
    if (end.closing || text.substr(position, 2) != "--") break;
    end.closing = true;
    ++position;
  }
  bool const lineEnd = text.substr(position, 2) == "\r\n";
  end.found = lineEnd || (end.closing && position == text.size());
  end.behind = position + (lineEnd ? 2 : 0);
  return end;
}

std::string_view WithoutLineEnd(std::string_view text) {
  return text.ends_with("\r\n") ? text.substr(0, text.size() - 2) : text;
}

int Waiting(std::vector<SStringList> const &levels) {
  int waiting = 0;
  for (SStringList const &sections : levels) waiting += sections.Length();
  return waiting;
}

// All sections that wait, innermost first, as one text.
SString JoinWaiting(std::vector<SStringList> const &levels) {
  SStringList all;
  for (auto level = levels.rbegin(); level != levels.rend(); ++level) all.Push(*level);
  return all.Join("\r\n");
}

SString Row(SString const &mainType, SString const &subtype, SString const &encoding) {
  return kMark + mainType + "/" + subtype + "/" + encoding;
}

// The mark's word, main type, subtype and encoding.
SStringList SplitRow(SString const &row) { return row.SplitExact("/", 4); }

}  // namespace

SMIME::SMIME(SHeader const &header, SString const &body) {
  if (header.Get("MIME-Version:").Length() == 0) {
    _mime = 0;
    _contents.Push(body);
    return;
  }
  SString const field = header.Get("Content-Type:").Get(0);
  Type type;
  ReadType(field.View(), type);
  SetType(type.main, type.sub);

  SString const transfer = LowerText(FirstWord(header.Get("Content-Transfer-Encoding:").Get(0).View()));
  if (transfer == "8bit" || transfer == "binary") _encoding = transfer;
  if (_mainType != "multipart") {
    _contents.Push(transfer == "base64" ? DecodeBase64(body) : body);
    return;
  }
  SStringList sections;
  _boundary = SString(FindBoundary(field.View()));
  if (_boundary.Length() > 0) sections = _ParseMIMESections(body, _boundary);
  if (sections.Length() > 0) {
    _ParseParts(sections);
  } else {  // nothing that could be told apart: one text, as it stands
    *this = SMIME();
    _contents.Push(body);
  }
}

SMIME::SMIME(SStringList const &description) {
  SString const first = description.Get(0);
  if (!first.HasPrefix(kMark)) {
    _contents = description;
    return;
  }
  if (first == kMark) {
    _mime = 0;
    _contents.Push(description.Get(1));
    return;
  }
  SStringList const row = SplitRow(first);
  SetType(row.Get(1), row.Get(2));
  _encoding = row.Get(3);
  _boundary = description.Get(1);
  if (_mainType != "multipart") {
    _contents.Push(description.Slice(2, description.Length() - 1));
    return;
  }
  for (int i = 2; i + 2 < description.Length(); i += 3) {
    SStringList const part = SplitRow(description.Get(i));
    AddPart(part.Get(1), part.Get(2), part.Get(3), description.Get(i + 2), description.Get(i + 1));
  }
}

void SMIME::SetType(SString const &mainType, SString const &subtype) {
  _mainType = LowerCase(mainType);
  _subtype = LowerCase(subtype);
}

void SMIME::AddPart(SString const &mainType, SString const &subtype, SString const &encoding, SString const &content,
                    SString const &name) {
  _mainTypes.Push(LowerCase(mainType));
  _subtypes.Push(LowerCase(subtype));
  _encodings.Push(LowerCase(encoding));
  _contents.Push(content);
  _names.Push(name);
}

SMIME::operator SString() {
  if (!_mime) return _contents.Get(0);
  bool const plain = _mainType == "text" && _subtype.Index("plain") >= 0;
  if (_mainType != "multipart" && !plain) {
    _encoding = "base64";
    return EncodeBase64(_contents.Get(0));
  }
  if (_encoding != "8bit" && _encoding != "binary") _encoding = "7bit";
  return plain ? _contents.Join() : _MultipartText();
}

SMIME::operator SStringList() {
  SStringList description;
  if (!_mime) {
    description.Push(kMark);
    description.Push(_contents.Get(0));
    return description;
  }
  description.Push(Row(_mainType, _subtype, _encoding));
  description.Push(_boundary);
  if (_mainType != "multipart") {
    description.Push(_contents);
    return description;
  }
  for (int i = 0; i < _contents.Length(); ++i) {
    description.Push(Row(_mainTypes.Get(i), _subtypes.Get(i), _encodings.Get(i)));
    description.Push(_names.Get(i));
    description.Push(_contents.Get(i));
  }
  return description;
}

unsigned int SMIME::IsEmpty() const {
  return _mainType == "text" && _subtype.Index("plain") >= 0 && WithoutWhite(_contents.Get(0).View()).empty();
}

// Any place of the boundary counts, in the middle of a line too: what stands in front of it there ends the part before.
SStringList SMIME::_ParseMIMESections(SString const &text, SString const &boundary) {
  std::string_view const all = text.View();
  SString const delimiter = "--" + boundary;
  Occurrences occurrences(all, delimiter.View());
  SStringList sections;
  bool inside = false;
  size_t begin = 0;  // of the section, or of what is still to be searched
  for (size_t at = occurrences.Next(); at != kNone; at = occurrences.Next()) {
    if (at < begin) continue;
    DelimiterEnd const end = ReadDelimiterEnd(all, at + delimiter.View().size());
    if (!end.found) continue;
    bool const last = inside && !end.closing && sections.Length() == kMaxParts - 1;
    if (last) {
      sections.Push(SString(all.substr(begin)));
      break;
    }
    if (inside) sections.Push(SString(WithoutLineEnd(all.substr(begin, at - begin))));
    if (end.closing) break;
    inside = true;
    begin = end.behind;
  }
  return sections;
}

void SMIME::_ParseParts(SStringList const &sections) {
  std::vector<SStringList> levels{sections};
  while (!levels.empty()) {
    if (levels.back().Length() == 0) {
      levels.pop_back();
      continue;
    }
    if (_contents.Length() == kMaxParts - 1 && Waiting(levels) > 1)
      return AddPart("text", "plain", "7bit", JoinWaiting(levels));

    SString const section = levels.back().Shift();
    Part const part = ReadPart(section.View());
    SString const content(part.content);
    bool const nested = !part.boundary.empty();
    bool const tooDeep = nested && levels.size() == kMaxLevels;
    if (nested && !tooDeep) {
      SStringList inner = _ParseMIMESections(content, SString(part.boundary));
      if (inner.Length() > 0) {
        levels.push_back(inner);
        continue;
      }
    }
    SString const encoding = LowerText(part.encoding);
    if (tooDeep)
      AddPart("text", "plain", "7bit", content);
    else
      AddPart(part.type.main, part.type.sub, encoding, encoding == "base64" ? DecodeBase64(content) : content);
  }
}

SString SMIME::_MultipartText() const {
  int const count = _contents.Length();
  if (_mainTypes.Length() != count || _subtypes.Length() != count || _encodings.Length() != count) return "";
  bool const disposition = GetEnv("UseContentDisposition") == "yes";
  SString text("");
  for (int i = 0; i < count; ++i) {
    SString const encoding = _encodings.Get(i);
    text += "\r\n--" + _boundary + "\r\nContent-Type: " + _mainTypes.Get(i) + "/" + _subtypes.Get(i) +
            "\r\nContent-Transfer-Encoding: " + encoding + "\r\n";
    if (i > 0 && disposition) text += "Content-Disposition: attachment\r\n";
    text += "\r\n";
    SString const content = encoding == "base64" ? EncodeBase64(_contents.Get(i)) : _contents.Get(i);
    text += content;
    if (content[-1] != '\n') text += "\r\n";
  }
  return text += "\r\n--" + _boundary + "--\r\n\r\n";
}

SString CreateMIMEBoundary() {
  return "===========================_ _= " + MakeSString(RandomInt(10000000)) + "(" + ProcessIdString() + ")";
}
