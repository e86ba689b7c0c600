// Conversion goes by way of UTF-8: whatever a line is in is decoded, with a mark for what cannot be, and the result is
// encoded. So all that comes out was made by the encoder, character by character, and none of it is a byte that came
// in.
#include "brenthaven/mime/japanese.h"

#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <optional>
#include <string>

#include "brenthaven/mime/smime.h"

namespace {

using std::string_view;

constexpr char kJapanese[] = "ISO-2022-JP";
constexpr char kUtf8[] = "UTF-8";
constexpr char kEucJp[] = "EUC-JP";
constexpr char kLatin1[] = "ISO-8859-1";
// Charsets of encoded words. The sender names the charset, and the C library has some that are best left alone.
constexpr char const *kWordCharsets[] = {kJapanese, kUtf8, kEucJp, kLatin1, "US-ASCII", "Shift_JIS", "ISO-8859-15"};
constexpr char kEscape = '\x1b';
constexpr string_view kWhite = " \t\r\n";
constexpr size_t kMostLineBytes = 998;  // RFC 5322 section 2.1.1
// Characters of a piece of a line that is too long. Each is at most 5 bytes: an escape sequence and itself.
constexpr size_t kPieceCharacters = 190;

bool IsPrintable(char c) { return c > ' ' && c < 0x7f; }  // a byte above ASCII is a negative char

// One conversion by the C library. Where it lacks the charsets, ASCII stays and the rest is marked.
class Converter {
public:
  Converter(char const *to, char const *from)
      : _handle(iconv_open(to, from)), _hasStates(string_view(to) == kJapanese) {}
  Converter(Converter const &) = delete;
  Converter &operator=(Converter const &) = delete;
  ~Converter() {
    if (_IsOpen()) iconv_close(_handle);
  }

  // The text, from and to the charsets' first states, with a "?" for each character that cannot be converted. good, if
  // not null, tells whether there was none.
  std::string Convert(string_view text, bool *good = nullptr) {
    std::string out;
    if (good != nullptr) *good = true;
    if (_IsOpen()) (void)iconv(_handle, nullptr, nullptr, nullptr, nullptr);
    while (!text.empty()) {
      if (_Step(out, text)) continue;
      if (good != nullptr) *good = false;
      _Close(out);  // the mark stands in ASCII
      out += '?';
      text.remove_prefix(_BadLength(text));
    }
    _Close(out);
    return out;
  }

private:
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the handle of a failed open, as its manual page has it
  bool _IsOpen() const { return _handle != reinterpret_cast<iconv_t>(-1); }

  // Converts what it can of the text's start. False at a place that cannot be converted.
  bool _Step(std::string &out, string_view &text) {
    if (!_IsOpen()) {
      if (!IsPrintable(text.front()) && text.front() != ' ') return false;
      out += text.front();
      text.remove_prefix(1);
      return true;
    }
    char block[4096];
    char *in = const_cast<char *>(text.data());  // the interface takes it so, and leaves it alone
    size_t left = text.size();
    char *to = block;
    size_t room = sizeof block;
    size_t const done = iconv(_handle, &in, &left, &to, &room);
    int const error = errno;
    out.append(block, sizeof block - room);
    text.remove_prefix(text.size() - left);
    return done != static_cast<size_t>(-1) || error == E2BIG;
  }

  // Bytes of the bad character that the text begins with. A printable one is only bad as half of a pair.
  static size_t _BadLength(string_view text) {
    if (IsPrintable(text.front())) return text.size() > 1 && IsPrintable(text[1]) ? 2 : 1;
    size_t length = 1;
    while (length < text.size() && (text[length] & 0xc0) == 0x80) ++length;  // the rest of a character of UTF-8
    return length;
  }

  // Ends two-byte text, if the target has such a state and is in it.
  void _Close(std::string &out) {
    if (!_IsOpen() || !_hasStates) return;
    char block[16];  // more than any escape sequence
    char *to = block;
    size_t room = sizeof block;
    (void)iconv(_handle, nullptr, nullptr, &to, &room);
    out.append(block, sizeof block - room);
  }

  iconv_t _handle;
  bool _hasStates;
};

bool IsPlain(string_view line) {
  return std::ranges::all_of(line, [](char c) { return (c >= ' ' && c < '\x7f') || c == '\t'; });
}

// Turns lines into ISO-2022-JP. The encoder is opened when a line needs it.
class LineConverter {
public:
  // One line, without its end, as lines of ISO-2022-JP with an end each.
  void Append(std::string &out, string_view line) {
    if (IsPlain(line) && line.size() <= kMostLineBytes) {
      out.append(line).append("\r\n");
      return;
    }
    std::string const text = _WithoutControls(_ToUtf8(line));
    if (!_encoder) _encoder.emplace(kJapanese, kUtf8);
    std::string const whole = _encoder->Convert(text);
    if (whole.size() <= kMostLineBytes) {
      out.append(whole).append("\r\n");
      return;
    }
    for (string_view rest = text; !rest.empty();) out.append(_encoder->Convert(_TakePiece(rest))).append("\r\n");
  }

private:
  std::string _ToUtf8(string_view line) {
    if (HasJapaneseText(line)) return Converter(kUtf8, kJapanese).Convert(line);
    for (char const *charset : {kUtf8, kEucJp}) {
      bool good = false;
      std::string text = Converter(kUtf8, charset).Convert(line, &good);
      if (good) return text;
    }
    return Converter(kUtf8, kLatin1).Convert(line);
  }

  static std::string _WithoutControls(std::string text) {
    for (char &c : text)
      if ((c >= 0 && c < ' ' && c != '\t') || c == 0x7f) c = '?';
    return text;
  }

  // Cuts the next piece off UTF-8 text, between two characters.
  static string_view _TakePiece(string_view &rest) {
    size_t end = 0;
    for (size_t characters = 0; end < rest.size(); ++end) {
      bool const begins = (rest[end] & 0xc0) != 0x80;
      if (begins && characters++ == kPieceCharacters) break;
    }
    string_view const piece = rest.substr(0, end);
    rest.remove_prefix(end);
    return piece;
  }

  std::optional<Converter> _encoder;
};

// Cuts the next line off, with its end: LF, or CR and what CR and LF follow it.
string_view TakeLine(string_view &text) {
  size_t const end = text.find_first_of("\r\n");
  string_view const line = text.substr(0, end);
  if (end == string_view::npos) {
    text = {};
    return line;
  }
  text.remove_prefix(end);
  while (text.starts_with("\r")) text.remove_prefix(1);
  if (text.starts_with("\n")) text.remove_prefix(1);
  return line;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// The "Q" encoding, RFC 2047 section 4.2. False for a "=" that no two digits follow.
bool DecodeQ(string_view text, std::string &bytes) {
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '_') {
      bytes += ' ';
    } else if (text[i] != '=') {
      bytes += text[i];
    } else {
      if (i + 2 >= text.size() || HexDigit(text[i + 1]) < 0 || HexDigit(text[i + 2]) < 0) return false;
      bytes += static_cast<char>(HexDigit(text[i + 1]) << 4 | HexDigit(text[i + 2]));
      i += 2;
    }
  }
  return true;
}

// The charset by the name that a word gives it; null for one that is not known.
char const *FindCharset(string_view name) {
  name = name.substr(0, name.find('*'));  // a language may stand behind it, RFC 2231 section 5
  auto const found = std::find_if(std::begin(kWordCharsets), std::end(kWordCharsets),
                                  [&](char const *known) { return SString(name).CompareNoCase(SString(known)) != 0; });
  return found != std::end(kWordCharsets) ? *found : nullptr;
}

// The bytes of a word's text; false for a broken one.
bool DecodeWordText(char encoding, string_view text, std::string &bytes) {
  if (text.find_first_of(kWhite) != string_view::npos) return false;
  if (encoding == 'Q' || encoding == 'q') return DecodeQ(text, bytes);
  if (encoding != 'B' && encoding != 'b') return false;
  bytes = DecodeBase64(SString(text)).View();
  return true;
}

// Takes an encoded word off the start of a text, and appends what it says in ISO-2022-JP. False when there is none that
// makes sense, with both as they were.
bool TakeEncodedWord(string_view &text, std::string &out) {
  if (!text.starts_with("=?")) return false;
  size_t const charsetEnd = text.find('?', 2);
  if (charsetEnd == string_view::npos || text.substr(charsetEnd + 2, 1) != "?") return false;
  size_t const begin = charsetEnd + 3;
  size_t const end = text.find('?', begin);
  if (end == string_view::npos || text.substr(end + 1, 1) != "=") return false;
  char const *const charset = FindCharset(text.substr(2, charsetEnd - 2));
  std::string bytes;
  if (charset == nullptr || !DecodeWordText(text[charsetEnd + 1], text.substr(begin, end - begin), bytes)) return false;
  bool good = false;
  std::string const decoded = Converter(kUtf8, charset).Convert(bytes, &good);
  if (!good) return false;
  out += Converter(kJapanese, kUtf8).Convert(decoded);
  text.remove_prefix(end + 2);
  return true;
}

}  // namespace

bool HasJapaneseText(string_view text) {
  for (size_t at = text.find(kEscape); at != string_view::npos; at = text.find(kEscape, at + 1))
    if (text.substr(at + 1, 2) == "$B" || text.substr(at + 1, 2) == "$@") return true;
  return false;
}

SString ToIso2022Jp(SString const &text) {
  std::string out;
  LineConverter lines;
  for (string_view rest = text.View(); !rest.empty();) lines.Append(out, TakeLine(rest));
  return SString(string_view(out));
}

SString DecodeEncodedWords(SString const &value) {
  std::string out;
  string_view rest = value.View();
  for (bool behindWord = false; !rest.empty();) {
    size_t const blanks = std::min(rest.find_first_not_of(kWhite), rest.size());
    string_view behind = rest.substr(blanks);
    std::string word;
    bool const isWord = TakeEncodedWord(behind, word);
    for (char const c : rest.substr(0, isWord && behindWord ? 0 : blanks))
      if (c != '\r' && c != '\n') out += c;
    if (isWord) {
      out += word;
      rest = behind;
    } else {
      size_t next = std::min<size_t>(1, behind.size());
      while (next < behind.size() && kWhite.find(behind[next]) == string_view::npos && behind.substr(next, 2) != "=?")
        ++next;
      out += behind.substr(0, next);
      rest = behind.substr(next);
    }
    behindWord = isWord;
  }
  return SString(string_view(out));
}
