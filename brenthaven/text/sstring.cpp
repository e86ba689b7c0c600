#include "brenthaven/text/sstring.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <istream>
#include <new>
#include <ostream>
#include <string>
#include <utility>

#include "brenthaven/text/sstringlist.h"

namespace {

// Shared by all undefined and empty strings; never written, since their count says that they are shared.
char g_noBytes[8] = "";

constexpr int kNotFound = -1;

// Bytes to allocate for a text of so many: 8, or twice the highest power of two not above it. Always more than length,
// so that the NUL has room.
int CapacityFor(int length) {
  return length < 8 ? 8 : static_cast<int>(std::bit_floor(static_cast<unsigned>(length)) * 2);
}

void *AllocateOrEnd(void *block, size_t bytes) {
  for (;;) {
    void *grown = realloc(block, bytes);
    if (grown != nullptr) return grown;
    std::new_handler handler = std::get_new_handler();
    if (handler == nullptr) abort();
    handler();
  }
}

char *InlineBytes(SStringRep *rep) { return reinterpret_cast<char *>(rep + 1); }

constexpr char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }
constexpr char Upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - ('a' - 'A')) : c; }

template <typename Number>
SString Formatted(char const *format, Number number) {
  char text[40];
  int const length = snprintf(text, sizeof text, format, number);
  return {text, length};
}

}  // namespace

constinit SStringRep SString::_undefined{g_noBytes, 0, SStringRep::kImmortal, 0};
constinit SStringRep SString::_empty{g_noBytes, 0, SStringRep::kImmortal, sizeof g_noBytes};

// Reps.

SStringRep *SString::_NewRep(int length) {
  int const capacity = CapacityFor(length);
  auto *rep = static_cast<SStringRep *>(AllocateOrEnd(nullptr, sizeof(SStringRep) + static_cast<size_t>(capacity)));
  rep->data = InlineBytes(rep);
  rep->length = length;
  rep->references = 1;
  rep->capacity = capacity;
  rep->data[length] = '\0';
  return rep;
}

SStringRep *SString::_RepOf(std::string_view bytes) {
  if (bytes.empty()) return &_empty;
  if (bytes.size() > static_cast<size_t>(kMaxLength)) return &_undefined;
  SStringRep *rep = _NewRep(static_cast<int>(bytes.size()));
  memcpy(rep->data, bytes.data(), bytes.size());
  return rep;
}

// A string that takes over the first reference of a new rep.
SString SString::_Adopt(SStringRep *rep) {
  SString text;
  text._rep = rep;
  return text;
}

void SString::_Free(SStringRep *rep) {
  if (rep->data != InlineBytes(rep)) free(rep->data);
  free(rep);
}

// Makes the rep private, with room for length bytes and a NUL behind them; bytes past the old length are unset, and the
// length becomes the new one. A text that would be too long becomes undefined, and the result is false.
bool SString::_Realloc(int length) {
  if (length < 0 || length > kMaxLength) {
    Undef();
    return false;
  }
  SStringRep *old = _rep;
  int const kept = std::min(old->length, length);
  if (old->references != 1) {
    SStringRep *rep = _NewRep(length);
    memcpy(rep->data, old->data, static_cast<size_t>(kept));
    _Release();
    _rep = rep;
  } else if (length >= old->capacity) {
    size_t const bytes = sizeof(SStringRep) + static_cast<size_t>(CapacityFor(length));
    bool const isInline = old->data == InlineBytes(old);
    auto *rep = static_cast<SStringRep *>(AllocateOrEnd(old, bytes));
    if (!isInline) {  // a buffer that was handed over; its bytes move behind the rep
      memcpy(InlineBytes(rep), rep->data, static_cast<size_t>(kept));
      free(rep->data);
    }
    rep->data = InlineBytes(rep);
    rep->capacity = CapacityFor(length);
    _rep = rep;
  }
  _rep->length = length;
  _rep->data[length] = '\0';
  return true;
}

// Construction and assignment.

SString::SString(char const *text) : _rep(_RepOf(_Bytes(text))) {}

SString::SString(char const *bytes, int length) {
  if (length <= 0) {
    _rep = &_empty;
  } else if (bytes != nullptr) {
    _rep = _RepOf({bytes, static_cast<size_t>(length)});
  } else if (length > kMaxLength) {
    _rep = &_undefined;
  } else {
    _rep = _NewRep(length);
    memset(_rep->data, 0, static_cast<size_t>(length));
  }
}

SString::SString(char c, int count) : SString(nullptr, count) {
  if (_rep->references == 1) memset(_rep->data, c, static_cast<size_t>(_rep->length));
}

SString::SString(std::string_view bytes) : _rep(_RepOf(bytes)) {}
SString::SString(int number) : SString(MakeSString(number)) {}
SString::SString(long number) : SString(MakeSString(number)) {}
SString::SString(float number) : SString(MakeSString(number)) {}
SString::SString(double number) : SString(MakeSString(number)) {}

SString &SString::operator=(char const *text) { return *this = SString(text); }
SString &SString::operator=(int number) { return *this = MakeSString(number); }
SString &SString::operator=(long number) { return *this = MakeSString(number); }
SString &SString::operator=(float number) { return *this = MakeSString(number); }
SString &SString::operator=(double number) { return *this = MakeSString(number); }

SString MakeSString(int number) { return Formatted("%d", number); }
SString MakeSString(long number) { return Formatted("%ld", number); }
SString MakeSString(float number) { return Formatted("%.16g", static_cast<double>(number)); }
SString MakeSString(double number) { return Formatted("%.16g", number); }

SString SString::Clone() const { return Defined() ? SString(View()) : SString(); }

void SString::Debug(int) const {
  fprintf(stderr, "SString %s, length %d, capacity %d, references %d: '%.*s'\n", Defined() ? "defined" : "undefined",
          _rep->length, _rep->capacity, _rep->references, _rep->length, _rep->data);
}

char *SString::GetBuf() const {
  size_t const length = static_cast<size_t>(_rep->length);
  char *copy = static_cast<char *>(AllocateOrEnd(nullptr, length + 1));
  memcpy(copy, _rep->data, length);
  copy[length] = '\0';
  return copy;
}

void SString::UseBuffer(char *buffer, int length) {
  if (buffer == nullptr || length < 0 || length > kMaxLength) return Undef();
  auto *rep = static_cast<SStringRep *>(AllocateOrEnd(nullptr, sizeof(SStringRep)));
  rep->data = static_cast<char *>(AllocateOrEnd(buffer, static_cast<size_t>(length) + 1));  // room for the NUL
  rep->data[length] = '\0';
  rep->length = length;
  rep->references = 1;
  rep->capacity = length;
  _Release();
  _rep = rep;
}

// Numbers.

double SString::AsDouble() const {
  if (_rep->capacity != _rep->length) return strtod(_rep->data, nullptr);
  return strtod(std::string(View()).c_str(), nullptr);  // no NUL stands behind the bytes of a fixed string
}

float SString::AsReal() const { return static_cast<float>(AsDouble()); }

long SString::AsLong() const {
  double const value = AsDouble();
  if (value != value) return 0;
  if (value >= static_cast<double>(LONG_MAX)) return LONG_MAX;
  if (value <= static_cast<double>(LONG_MIN)) return LONG_MIN;
  return static_cast<long>(value);
}

// Comparison.

bool SString::operator<(char c) const {
  return _rep->length == 0 || static_cast<signed char>(_rep->data[0]) < static_cast<signed char>(c);
}

bool SString::operator>(char c) const {
  if (_rep->length == 0) return false;
  auto const first = static_cast<signed char>(_rep->data[0]);
  auto const other = static_cast<signed char>(c);
  return first > other || (_rep->length > 1 && first == other);
}

int SString::StrCmp(SString const &a, SString const &b) { return a.View().compare(b.View()); }

int SString::StrCaseCmp(SString const &a, SString const &b) {
  int const common = std::min(a.Length(), b.Length());
  for (int i = 0; i < common; ++i) {
    auto const left = static_cast<unsigned char>(Lower(a._rep->data[i]));
    auto const right = static_cast<unsigned char>(Lower(b._rep->data[i]));
    if (left != right) return left < right ? -1 : 1;
  }
  return a.Length() - b.Length();
}

int SString::CompareNoCase(SString const &other) const {
  int const length = _rep->length;
  if (length != other._rep->length) return 0;
  char const *left = _rep->data;
  char const *right = other._rep->data;
  for (int i = 0; i < length; ++i)
    if (left[i] != right[i] && Lower(left[i]) != Lower(right[i])) return 0;
  return 1;
}

// Search.

int SString::Index(char c, int from) const {
  if (from < 0 || from >= _rep->length) return kNotFound;
  void const *found = memchr(_rep->data + from, c, static_cast<size_t>(_rep->length - from));
  return found == nullptr ? kNotFound : static_cast<int>(static_cast<char const *>(found) - _rep->data);
}

int SString::_Index(std::string_view text, int from) const {
  if (text.size() == 1) return Index(text[0], from);
  if (text.empty() || from < 0 || from >= _rep->length) return kNotFound;
  void const *found = memmem(_rep->data + from, static_cast<size_t>(_rep->length - from), text.data(), text.size());
  return found == nullptr ? kNotFound : static_cast<int>(static_cast<char const *>(found) - _rep->data);
}

int SString::_RIndex(std::string_view text, int from) const {
  if (text.empty()) return kNotFound;
  if (from <= 0) from += _rep->length;
  if (from < 0) return kNotFound;
  size_t const found = View().rfind(text, static_cast<size_t>(from));
  return found == std::string_view::npos ? kNotFound : static_cast<int>(found);
}

int SString::_Count(std::string_view text) const {
  int count = 0;
  for (int at = _Index(text, 0); at != kNotFound; at = _Index(text, at + 1)) ++count;
  return count;
}

// Building.

SString SString::_Joined(std::string_view a, std::string_view b) {
  if (a.size() + b.size() > static_cast<size_t>(kMaxLength)) return {};
  SStringRep *rep = _NewRep(static_cast<int>(a.size() + b.size()));
  memcpy(rep->data, a.data(), a.size());
  memcpy(rep->data + a.size(), b.data(), b.size());
  return _Adopt(rep);
}

SString &SString::Append(std::string_view bytes) {
  if (bytes.empty()) return *this;
  if (bytes.size() > static_cast<size_t>(kMaxLength - _rep->length)) {
    Undef();
    return *this;
  }
  size_t const length = static_cast<size_t>(_rep->length);
  // Bytes of this string itself move along with it.
  bool const isOwn = std::greater_equal<>()(bytes.data(), _rep->data) &&
                     std::less_equal<>()(bytes.data() + bytes.size(), _rep->data + length);
  size_t const offset = isOwn ? static_cast<size_t>(bytes.data() - _rep->data) : 0;
  (void)_Realloc(static_cast<int>(length + bytes.size()));  // the length was tested above
  memcpy(_rep->data + length, isOwn ? _rep->data + offset : bytes.data(), bytes.size());
  return *this;
}

void SString::Reserve(int length) {
  int const before = _rep->length;
  if (length <= before || length > kMaxLength) return;
  if (_rep->references == 1 && length < _rep->capacity) return;
  (void)_Realloc(length);  // the length was tested above
  _rep->length = before;
  _rep->data[before] = '\0';
}

// Cutting.

SSubString SString::Segment(int offset, int length) { return {*this, offset, length}; }

SString SString::Segment(int offset, int length) const {
  if (offset < 0) {
    if (length <= -static_cast<long>(offset)) return _Adopt(&_empty);
    length += offset;
    offset = 0;
  }
  if (length <= 0 || offset >= _rep->length) return _Adopt(&_empty);
  length = std::min(length, _rep->length - offset);
  if (length == _rep->length) return *this;
  return SString(View().substr(static_cast<size_t>(offset), static_cast<size_t>(length)));
}

char SString::Chop() {
  int const length = _rep->length;
  if (length == 0) return '\0';
  char const last = _rep->data[length - 1];
  (void)_Realloc(length - 1);  // shorter than what it was
  return last;
}

SString &SString::Reverse() {
  if (_rep->length > 1 && _Realloc(_rep->length)) std::reverse(_rep->data, _rep->data + _rep->length);
  return *this;
}

SString &SString::LowerCase() {
  char const *end = _rep->data + _rep->length;
  char const *first = std::find_if(_rep->data, _rep->data + _rep->length, [](char c) { return Lower(c) != c; });
  if (first == end) return *this;
  ptrdiff_t const at = first - _rep->data;
  (void)_Realloc(_rep->length);  // makes it private
  std::transform(_rep->data + at, _rep->data + _rep->length, _rep->data + at, Lower);
  return *this;
}

SString &SString::UpperCase() {
  char const *end = _rep->data + _rep->length;
  char const *first = std::find_if(_rep->data, _rep->data + _rep->length, [](char c) { return Upper(c) != c; });
  if (first == end) return *this;
  ptrdiff_t const at = first - _rep->data;
  (void)_Realloc(_rep->length);  // makes it private
  std::transform(_rep->data + at, _rep->data + _rep->length, _rep->data + at, Upper);
  return *this;
}

SString LowerCase(SString text) {
  text.LowerCase();
  return text;
}

SString UpperCase(SString text) {
  text.UpperCase();
  return text;
}

SStringList SString::SplitExact(SString const &separator, int limit) const {
  SStringList pieces;
  if (!Defined()) return pieces;
  if (limit == 1) {
    pieces.Push(*this);
    return pieces;
  }
  if (separator.Length() == 0) return Split(separator, limit);
  int from = 0;
  while (limit <= 0 || pieces.Length() < limit - 1) {
    int const at = Index(separator, from);
    if (at == kNotFound) break;
    pieces.Push(Segment(from, at - from));
    from = at + separator.Length();
  }
  pieces.Push(Segment(from, Length() - from));
  return pieces;
}

SStringList SString::BreakToWords() const {
  constexpr std::string_view kBlanks = " \t\n";
  SStringList words;
  if (!Defined()) return words;
  words.Define();
  std::string_view const text = View();
  size_t at = text.find_first_not_of(kBlanks);
  while (at != std::string_view::npos) {
    bool const isQuoted = text[at] == '"';
    size_t const end = std::min(isQuoted ? text.find('"', at + 1) : text.find_first_of(kBlanks, at), text.size());
    words.Push(SString(text.substr(at, end - at)));
    at = text.find_first_not_of(kBlanks, isQuoted ? end + 1 : end);
  }
  return words;
}

// Streams.

bool SString::Write(std::ostream &out) const {
  out.write(_rep->data, _rep->length);
  return out.good();
}

bool SString::ReadLine(std::istream &in) {
  constexpr int kChunk = 1024;
  Undef();
  char chunk[kChunk];
  while (in.good()) {
    // A chunk without its newline comes back with failbit when the buffer was too small for the line.
    in.getline(chunk, kChunk, '\n');
    auto const count = static_cast<size_t>(in.gcount());
    if (in.eof() || (in.fail() && count == kChunk - 1)) {
      Append({chunk, count});
      if (in.eof()) break;
      in.clear(in.rdstate() & ~std::ios::failbit);
      continue;
    }
    if (in.fail()) break;
    Append({chunk, count - 1});  // the count includes the newline, which was taken off
    *this += '\n';
    break;
  }
  return Length() > 0;
}

std::ostream &operator<<(std::ostream &out, SString const &text) {
  (void)text.Write(out);  // the stream keeps its state
  return out;
}

std::istream &operator>>(std::istream &in, SString &text) {
  (void)text.ReadLine(in);  // the stream keeps its state
  return in;
}

// SSubString.

SSubString::SSubString(SString &source, int offset, int length) : _source(source) {
  long const size = source.Length();
  long at = offset;
  long span = length;
  if (at < 0) {
    span += at;
    at = 0;
  }
  at = std::min(at, size);
  _offset = static_cast<int>(at);
  _length = static_cast<int>(std::clamp(span, 0L, size - at));
}

SSubString::operator SString() const {
  if (!_source.Defined()) return {};
  return std::as_const(_source).Segment(_offset, _length);
}

SSubString &SSubString::operator=(SString const &text) {
  if (!_source.Defined()) {
    _source = text;
    return *this;
  }
  std::string_view const whole = _source.View();
  auto const offset = static_cast<size_t>(_offset);
  SString changed("");
  changed.Reserve(_source.Length() - _length + text.Length());
  changed.Append(whole.substr(0, offset)).Append(text.View());
  changed.Append(whole.substr(offset + static_cast<size_t>(_length)));
  _source = changed;
  _length = text.Length();
  return *this;
}

SSubString &SSubString::operator=(SSubString const &other) {
  if (this == &other) return *this;
  return *this = SString(other);
}

// SFixedString.

SFixedString::SFixedString(char const *buffer, int length)
    : SStringRep{const_cast<char *>(buffer != nullptr ? buffer : ""), std::max(buffer != nullptr ? length : 0, 0), 2,
                 std::max(buffer != nullptr ? length : 0, 0)} {}

SFixedString::~SFixedString() {
  constexpr int kOutlived = 110;
  if (references != 2) exit(kOutlived);
}

void SFixedString::SetBuffer(char const *buffer, int length) {
  bool const isNull = buffer == nullptr;
  data = const_cast<char *>(isNull ? "" : buffer);
  this->length = capacity = isNull ? 0 : std::max(length, 0);
}
