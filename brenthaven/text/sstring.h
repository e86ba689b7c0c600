// brenthaven/text/sstring.h - the byte string of the whole system, and the two windows on one.
//
// Strings share their bytes and copy them on the first write, so they are passed by value freely. Reference counts are
// plain integers: a string and all its copies belong to one thread.
#pragma once
#include <concepts>
#include <iosfwd>
#include <string_view>

class SRegex;
class SStringList;
class SSubString;

// The shared body of a string. The bytes follow the struct in the same block, except for a buffer that was handed over
// (UseBuffer) or is not owned (SFixedString).
struct SStringRep {
  char *data;      // the bytes; a NUL stands behind them unless capacity equals length
  int length;      // bytes, NUL bytes among them
  int references;  // strings that share this rep; kImmortal for the static ones, which are never counted or written
  int capacity;    // bytes at data, the NUL included; 0 means undefined
  static constexpr int kImmortal = 1 << 30;
};

// A counted byte string that may hold any byte, NUL included, up to 1 GiB less one byte; what would be longer becomes
// undefined. Undefined (no value) and empty are told apart by Defined() alone: they compare equal.
//
// Indexes are of type int, and an argument of type char is a number where a constructor or assignment takes it: only
// the members that name char treat it as a byte. Members that use regular expressions take Perl syntax; the letters of
// flags are "i", ignore case, and "g", replace all.
class SString {
public:
  static constexpr int kMaxLength = (1 << 30) - 1;

  SString() : _rep(&_undefined) {}
  SString(char const *text);               // a null pointer gives an empty string
  SString(char const *bytes, int length);  // negative length: 0; a null pointer: that many zero bytes
  SString(char c, int count);              // c, count times
  SString(int number);                     // "%d"
  SString(long number);                    // "%ld"
  SString(float number);                   // "%.16g"
  SString(double number);                  // "%.16g"
  explicit SString(std::string_view bytes);
  SString(SString const &other) : _rep(other._rep) { _Retain(); }
  SString(SString &&other) noexcept : _rep(other._rep) { other._rep = &_undefined; }
  ~SString() { _Release(); }

  SString &operator=(SString const &other);
  SString &operator=(SString &&other) noexcept;
  SString &operator=(char const *text);
  SString &operator=(int number);
  SString &operator=(long number);
  SString &operator=(float number);
  SString &operator=(double number);

  // State.
  bool Defined() const { return _rep->capacity > 0; }
  void Undef();
  int Length() const { return _rep->length; }
  SString Clone() const;  // a deep copy; undefined if this is
  void Debug(int) const;  // prints the rep on the error stream

  // Bytes. Pointers and views hold until this string changes or ends. A string over an SFixedString has no NUL behind
  // its bytes: use View() where that may be.
  operator char const *() const { return _rep->data; }                    // never null
  char const *AsPtr() const { return Defined() ? _rep->data : nullptr; }  // null when undefined
  std::string_view View() const { return {_rep->data, static_cast<size_t>(_rep->length)}; }
  char operator[](int index) const {  // negative: from the end; 0 out of range
    if (index < 0) index += _rep->length;
    return index >= 0 && index < _rep->length ? _rep->data[index] : '\0';
  }
  char *GetBuf() const;                      // a NUL-terminated copy, to be released with free()
  void UseBuffer(char *buffer, int length);  // takes over a block from malloc that holds length bytes

  // Numbers, read as strtod does from the start: text without digits gives 0.
  double AsDouble() const;
  float AsReal() const;
  long AsLong() const;  // truncated toward zero, and held within the range of long

  // Comparison is bytewise and unsigned; on a tie the shorter is less. A null pointer equals any string of length 0 and
  // has nothing below it.
  bool operator==(SString const &other) const { return View() == other.View(); }
  bool operator==(char const *other) const { return View() == _Bytes(other); }
  bool operator==(char c) const { return _rep->length == 1 && _rep->data[0] == c; }
  bool operator<(SString const &other) const { return View() < other.View(); }
  bool operator<(char const *other) const { return View() < _Bytes(other); }
  bool operator<=(SString const &other) const { return View() <= other.View(); }
  bool operator<=(char const *other) const { return View() <= _Bytes(other); }
  bool operator>(SString const &other) const { return View() > other.View(); }
  bool operator>(char const *other) const { return View() > _Bytes(other); }
  bool operator>=(SString const &other) const { return View() >= other.View(); }
  bool operator>=(char const *other) const { return View() >= _Bytes(other); }
  // Order against one byte looks at the first byte, as a signed char: an empty string is below every byte, and a
  // longer string that begins with c is above c.
  bool operator<(char c) const;
  bool operator>(char c) const;
  bool operator<=(char c) const { return !(*this > c); }
  bool operator>=(char c) const { return !(*this < c); }
  static int StrCmp(SString const &a, SString const &b);      // for SStringList::Sort
  static int StrCaseCmp(SString const &a, SString const &b);  // the same without regard to ASCII case
  int CompareNoCase(SString const &other) const;  // 1 when equal, 0 when not: an equality test in spite of its name

  // Search. Positions are byte offsets, -1 is "not found"; an empty search text is never found.
  int Index(SString const &text, int from = 0) const { return _Index(text.View(), from); }
  int Index(char const *text, int from = 0) const { return _Index(_Bytes(text), from); }
  int Index(char c, int from = 0) const;  // negative from: -1
  // The last position at or before from. 0 means from the end, and a negative value counts from the end, -1 being the
  // last byte.
  int RIndex(SString const &text, int from = 0) const { return _RIndex(text.View(), from); }
  int RIndex(char const *text, int from = 0) const { return _RIndex(_Bytes(text), from); }
  int RIndex(char c, int from = 0) const { return _RIndex({&c, 1}, from); }
  int Count(SString const &text) const { return _Count(text.View()); }  // overlapping ones included
  int Count(char const *text) const { return _Count(_Bytes(text)); }
  int Count(char c) const { return _Count({&c, 1}); }
  bool HasPrefix(SString const &prefix) const { return View().starts_with(prefix.View()); }
  bool HasPrefix(char const *prefix) const { return View().starts_with(_Bytes(prefix)); }

  // Building. Appending nothing leaves the target as it is, undefined or not. Appending costs amortised constant time
  // a byte.
  SString operator+(SString const &other) const { return _Joined(View(), other.View()); }
  SString operator+(char const *other) const { return _Joined(View(), _Bytes(other)); }
  SString operator+(char c) const { return _Joined(View(), {&c, 1}); }
  friend SString operator+(char const *a, SString const &b) { return _Joined(_Bytes(a), b.View()); }
  friend SString operator+(char a, SString const &b) { return _Joined({&a, 1}, b.View()); }
  SString &operator+=(SString const &other);
  SString &operator+=(char const *other) { return Append(_Bytes(other)); }
  SString &operator+=(char c);
  SString &Append(std::string_view bytes);
  void Reserve(int length);  // room for so many bytes without another allocation; the value stays as it is

  // Cutting. A negative offset shortens the length by it and starts at 0; what lies past the end is left out. The
  // const form gives an empty string when nothing remains, or this string itself, shared, when all of it does.
  SSubString Segment(int offset, int length);
  SString Segment(int offset, int length) const;
  char Chop();  // removes the last byte and returns it; 0 on an empty string
  SString &Reverse();
  SString &LowerCase();  // ASCII letters only, whatever the locale
  SString &UpperCase();

  // Splits at each separator, empty pieces included: "a\r\nb\r\n" at CR LF gives "a", "b" and an empty string. A
  // positive limit is the greatest number of pieces, 0 or less means none. An undefined string gives an undefined
  // list, an empty separator single characters.
  SStringList SplitExact(SString const &separator, int limit = 0) const;
  // Splits at runs of space, tab and newline. A word that opens with a double quote runs to the next one and is given
  // with the opening quote and without the closing one.
  SStringList BreakToWords() const;

  // Regular expressions (brenthaven/regex). A match list holds the whole match, then each group.
  SStringList M(SRegex const &regex) const;
  SStringList M(SString const &expression, char const *flags = "") const;
  SStringList M(char const *expression, char const *flags = "") const;
  unsigned HasMatch(SRegex const &regex) const;
  unsigned HasMatch(SString const &expression, char const *flags = "") const;
  unsigned HasMatch(char const *expression, char const *flags = "") const;
  // Substitutes in place and gives the match list of the last match; see SRegex::Subst for the replacement's syntax.
  // An empty expression matches every gap.
  SStringList S(SRegex const &regex, SString const &replacement, char const *flags = "");
  SStringList S(SString const &expression, SString const &replacement, char const *flags = "");
  SStringList S(char const *expression, SString const &replacement, char const *flags = "");
  // Splits at matches: empty pieces in front are kept, those at the end are not. A limit of 0 means none. The form for
  // one character takes it literally, except that a blank means a run of white space, with no piece in front of it.
  SStringList Split(SRegex const &regex, int limit = 0) const;
  SStringList Split(SString const &expression, int limit = 0) const;
  SStringList Split(char const *expression, int limit = 0) const;
  SStringList Split(char c, int limit = 0) const;

  // Streams.
  bool Write(std::ostream &out) const;  // whether the stream is still good
  bool ReadLine(std::istream &in);      // the next line, newline included; whether any byte came
  friend std::ostream &operator<<(std::ostream &out, SString const &text);
  friend std::istream &operator>>(std::istream &in, SString &text);

protected:
  // Shares a rep. A template, so that a null pointer constant is never taken for one.
  template <std::same_as<SStringRep> Rep>
  explicit SString(Rep *rep) : _rep(rep) {
    _Retain();
  }

private:
  friend class SFixedString;
  friend class SSubString;
  friend class SStringList;

  static SStringRep _undefined;
  static SStringRep _empty;

  static std::string_view _Bytes(char const *text) { return text != nullptr ? std::string_view(text) : ""; }
  static SStringRep *_NewRep(int length);
  static SStringRep *_RepOf(std::string_view bytes);
  static SString _Adopt(SStringRep *rep);
  static SString _Joined(std::string_view a, std::string_view b);
  [[gnu::noinline]] static void _Free(SStringRep *rep);  // the rare end of the inline paths
  bool _Realloc(int length);
  int _Index(std::string_view text, int from) const;
  int _RIndex(std::string_view text, int from) const;
  int _Count(std::string_view text) const;
  SStringList _SplitCharacters(int limit) const;

  void _Retain() {
    if (_rep->references < SStringRep::kImmortal) ++_rep->references;
  }
  void _Release() {
    if (_rep->references < SStringRep::kImmortal && --_rep->references == 0) _Free(_rep);
  }

  SStringRep *_rep;
};

// A writable window on a string that must outlive it; only the non-const SString::Segment makes one.
class SSubString {
public:
  SSubString(SString &source, int offset, int length);  // clamps the window to the string
  SSubString(SSubString const &) = default;

  operator SString() const;  // a copy of the window; undefined if the source is
  std::string_view View() const;
  // Replace the window in the source; on an undefined source they assign all of it.
  SSubString &operator=(SString const &text);
  SSubString &operator=(SSubString const &other);

  bool operator==(SString const &other) const { return View() == other.View(); }
  bool operator==(char const *other) const { return View() == SString::_Bytes(other); }
  SString operator+(SString const &other) const { return SString::_Joined(View(), other.View()); }
  SString operator+(char const *other) const { return SString::_Joined(View(), SString::_Bytes(other)); }

private:
  SString &_source;
  int _offset;
  int _length;
};

// A string over a buffer that it does not own, with nothing copied: a rep of its own whose count starts at 2, so that
// no string that shares it can free the buffer. The buffer must outlive this object, and this object every string made
// from it: a destructor that finds one left ends the process with code 110 rather than leave it dangling.
class SFixedString : private SStringRep {
public:
  SFixedString() : SFixedString("", 0) {}
  SFixedString(char const *buffer, int length);
  SFixedString(SFixedString const &) = delete;
  SFixedString &operator=(SFixedString const &) = delete;
  ~SFixedString();

  void SetBuffer(char const *buffer, int length);  // no string made from the old buffer may be left
  operator SString() const { return SString(static_cast<SStringRep *>(const_cast<SFixedString *>(this))); }
  std::string_view View() const { return {data, static_cast<size_t>(length)}; }
};

SString LowerCase(SString text);
SString UpperCase(SString text);
SString MakeSString(int number);
SString MakeSString(long number);
SString MakeSString(float number);
SString MakeSString(double number);

// Hot paths.

inline SString &SString::operator=(SString const &other) {
  if (_rep != other._rep) {
    SStringRep *old = _rep;
    _rep = other._rep;
    _Retain();
    if (old->references < SStringRep::kImmortal && --old->references == 0) _Free(old);
  }
  return *this;
}

inline SString &SString::operator=(SString &&other) noexcept {
  if (this != &other) {
    _Release();
    _rep = other._rep;
    other._rep = &_undefined;
  }
  return *this;
}

inline void SString::Undef() {
  _Release();
  _rep = &_undefined;
}

inline SString &SString::operator+=(SString const &other) {
  if (other._rep->length == 0) return *this;
  if (_rep->capacity == 0) return *this = other;
  return Append(other.View());
}

inline SString &SString::operator+=(char c) {
  int const length = _rep->length;
  if (_rep->references != 1 || length + 1 >= _rep->capacity) return Append({&c, 1});
  _rep->data[length] = c;
  _rep->data[length + 1] = '\0';
  _rep->length = length + 1;
  return *this;
}

inline std::string_view SSubString::View() const {
  return _source.View().substr(static_cast<size_t>(_offset), static_cast<size_t>(_length));
}
