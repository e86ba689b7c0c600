// SStringList::Grep: selection by an expression, by a small language of tests, and by what files are.
#include <cstdio>
#include <string>

#include "brenthaven/platform/files.h"
#include "brenthaven/platform/logtext.h"
#include "brenthaven/regex/cache.h"
#include "brenthaven/text/sstringlist.h"

namespace {

enum GrepError { kNone, kNoTest, kUnknownTest, kIncomplete };

constexpr char const *kErrorTexts[] = {
    "",
    "Grep called without a valid test field.",
    "Unknown test type for Grep function",
    "Incomplete expression in Grep function call",
};

struct FileTest {
  char letter;
  int (*holds)(SString const &path);
};

constexpr FileTest kFileTests[] = {{'d', IsDirectory}, {'e', FileExists},  {'f', IsRegular},
                                   {'r', IsReadable},  {'w', IsWriteable}, {'x', IsExecutable}};

FileTest const *FileTestFor(char letter) {
  for (FileTest const &test : kFileTests)
    if (test.letter == letter) return &test;
  return nullptr;
}

// A test read: what to do with each item, and with which words.
class GrepTest {
public:
  enum Kind { kBroken, kMatch, kSubstitute, kFile };

  explicit GrepTest(SString const &field) : _field(field), _text(field.View()) {
    GrepError const error = _Read();
    if (error == kNone) return;
    _Report(error);
    kind = kBroken;
  }

  Kind kind = kBroken;
  bool isNegated = false;
  char fileTest = '\0';
  SString pattern;
  SString replacement;
  SString flags;

private:
  void _Report(GrepError error) const {
    fprintf(stderr, "%s\nThe test field for Grep was '%s'\n", kErrorTexts[error], LogText(_field.View()).c_str());
  }

  GrepError _Read() {
    while (_at < _text.size()) {
      char const c = _text[_at++];
      switch (c) {
        case ' ':
        case '\t':
          break;
        case '!':
          isNegated = !isNegated;
          break;
        case '-':
          if (_at == _text.size()) return kNoTest;
          fileTest = _text[_at];
          kind = kFile;
          return kNone;
        case '/':
          return _ReadExpression(kMatch, c);
        case 'm':
        case 's':
          if (_at == _text.size() || _text[_at] == '\0') return kIncomplete;
          return _ReadExpression(c == 'm' ? kMatch : kSubstitute, _text[_at++]);
        default:
          _Report(kUnknownTest);
      }
    }
    return kNoTest;
  }

  GrepError _ReadExpression(Kind read, char delimiter) {
    kind = read;
    if (!_ReadTo(delimiter, pattern)) return kIncomplete;
    if (kind == kSubstitute && !_ReadTo(delimiter, replacement)) return kIncomplete;
    flags = SString(_text.substr(_at));
    return kNone;
  }

  // What stands before the delimiter, or the end of the text; a backslash and the byte behind it are both kept. False
  // when the text ends behind a backslash.
  bool _ReadTo(char delimiter, SString &out) {
    size_t const start = _at;
    while (_at < _text.size() && _text[_at] != delimiter) {
      if (_text[_at] == '\\' && ++_at == _text.size()) return false;
      ++_at;
    }
    out = SString(_text.substr(start, _at - start));
    if (_at < _text.size()) ++_at;
    return true;
  }

  SString const _field;
  std::string_view _text;
  size_t _at = 0;
};

}  // namespace

SStringList SStringList::Grep(SRegex const &regex, int keep) const {
  SStringList kept;
  if (!regex.OK()) return kept;
  for (SString const &text : *this)
    if ((regex.HasMatch(text) != 0) == (keep != 0)) kept.Push(text);
  return kept;
}

SStringList SStringList::Grep(SString const &expression, SStringList *rest) {
  if (rest != nullptr) rest->Undef();
  if (!Defined()) return {};
  GrepTest const test(expression);
  if (test.kind == GrepTest::kBroken) return {};
  SStringList selected;
  SStringList others;
  if (test.kind == GrepTest::kFile) {
    FileTest const *file = FileTestFor(test.fileTest);
    if (file == nullptr) fputs("Grep: invalid file test\n", stderr);
    if (file != nullptr)
      for (SString const &path : *this) (file->holds(path) != 0 ? selected : others).Push(path);
  } else {
    SRegex const &regex = CachedRegex(test.pattern, test.flags);
    if (!regex.OK()) return {};
    bool const isMatch = test.kind == GrepTest::kMatch;
    if (!isMatch) _MakeUnique();
    SStringItem *item = _rep->head;
    for (int left = Length(); left > 0; --left, item = item->next) {
      bool const isSelected = isMatch ? regex.HasMatch(item->value) != 0
                                      : regex.Subst(item->value, test.replacement, test.flags).Length() > 0;
      (isSelected ? selected : others).Push(item->value);
    }
  }
  if (rest != nullptr) *rest = test.isNegated ? selected : others;
  return test.isNegated ? others : selected;
}
