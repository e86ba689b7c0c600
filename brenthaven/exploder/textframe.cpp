#include "brenthaven/exploder/textframe.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>

#include "brenthaven/mime/smime.h"
#include "brenthaven/platform/descriptor.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/platform/nativepath.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/text/base.h"

namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr char kUtf8[] = "utf-8";

// Character sets in which ASCII bytes are ASCII, at least where a text begins and ends. A name that ends in "-" or a
// digit stands for all that begin so.
constexpr char const *kAsciiSets[] = {"us-ascii", kUtf8, "iso-8859-", "iso-2022-", "windows-125", "koi8-",
                                      "gb2312",   "gbk", "gb18030",   "big5",      "euc-",        "shift_jis"};

bool IsAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; });
}

// Valid UTF-8, RFC 3629: no overlong forms, no surrogates, nothing above U+10FFFF.
bool IsUtf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    auto const byte = [&](size_t at) { return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U; };
    unsigned const lead = byte(i);
    int const further = lead < 0x80                   ? 0
                        : lead >= 0xc2 && lead < 0xe0 ? 1
                        : (lead & 0xf0) == 0xe0       ? 2
                        : lead >= 0xf0 && lead < 0xf5 ? 3
                                                      : -1;
    if (further < 0) return false;
    unsigned const second = byte(i + 1);
    if ((lead == 0xe0 && second < 0xa0) || (lead == 0xed && second > 0x9f) || (lead == 0xf0 && second < 0x90) ||
        (lead == 0xf4 && second > 0x8f))
      return false;
    for (int k = 1; k <= further; ++k)
      if ((byte(i + static_cast<size_t>(k)) & 0xc0) != 0x80) return false;
    i += 1 + static_cast<size_t>(further);
  }
  return true;
}

// A list's text lines, whatever line ends stand inside a value, as whole lines; nothing for a text of blanks.
SString WholeLines(SStringList const &values) {
  SString lines;
  bool isBlank = true;
  for (SString const &value : values) {
    std::string_view text = value.View();
    do {
      size_t const end = text.find('\n');
      std::string_view line = text.substr(0, end);
      text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
      while (line.ends_with('\r')) line.remove_suffix(1);
      isBlank = isBlank && line.find_first_not_of(" \t") == std::string_view::npos;
      lines.Append(line).Append(kLineEnd);
    } while (!text.empty());
  }
  return isBlank ? SString("") : lines;
}

template <class Function>
SString ByLine(SString const &lines, Function const &change) {
  SString changed;
  std::string_view text = lines.View();
  while (!text.empty()) {
    size_t const end = text.find(kLineEnd);
    changed.Append(change(text.substr(0, end))).Append(kLineEnd);
    text.remove_prefix(end + kLineEnd.size());
  }
  return changed;
}

// Lines of format=flowed, RFC 3676: a blank at the end would join a line to the next, and some beginnings are stuffed.
SString Flowed(SString const &lines) {
  return ByLine(lines, [](std::string_view line) {
    if (line != "-- ")
      while (line.ends_with(' ')) line.remove_suffix(1);
    bool const isStuffed = line.starts_with(' ') || line.starts_with('>') || line.starts_with("From ");
    return std::string(isStuffed ? 1 : 0, ' ').append(line);
  });
}

// RFC 2045 section 6.7.
std::string QuotedPrintableLine(std::string_view line) {
  constexpr size_t kMostLetters = 75;  // and the "=" of a soft break
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string encoded;
  size_t length = 0;
  for (size_t i = 0; i < line.size(); ++i) {
    unsigned const byte = static_cast<unsigned char>(line[i]);
    bool const isBlankAtEnd = (byte == ' ' || byte == '\t') && i + 1 == line.size();
    bool const isPlain = ((byte >= ' ' && byte < 0x7f && byte != '=') || byte == '\t') && !isBlankAtEnd;
    size_t const width = isPlain ? 1 : 3;
    if (length + width > kMostLetters) {
      encoded += "=\r\n";
      length = 0;
    }
    length += width;
    if (isPlain)
      encoded += line[i];
    else
      encoded.append({'=', kDigits[byte >> 4], kDigits[byte & 15]});
  }
  return encoded;
}

SString QuotedPrintable(SString const &lines) { return ByLine(lines, QuotedPrintableLine); }

// The parameters behind the type of a Content-Type: value that decide here.
struct ContentType {
  std::string type;  // "text/plain"
  std::string charset;
  std::string format;

  explicit ContentType(SString const &value) {
    std::string_view rest = value.View();
    type = Lower(Next(rest));
    while (!rest.empty()) {
      std::string_view const parameter = Next(rest);
      size_t const equals = parameter.find('=');
      if (equals == std::string_view::npos) continue;
      std::string const name = Lower(parameter.substr(0, equals));
      std::string const text = Lower(Unquoted(parameter.substr(equals + 1)));
      if (name == "charset") charset = text;
      if (name == "format") format = text;
    }
  }

  static std::string_view Next(std::string_view &rest) {
    bool isQuoted = false;
    size_t end = 0;
    for (; end < rest.size() && (isQuoted || rest[end] != ';'); ++end)
      if (rest[end] == '"') isQuoted = !isQuoted;
    std::string_view const part = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    return part;
  }
  static std::string_view Trimmed(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r\n";
    size_t const begin = text.find_first_not_of(kBlanks);
    return begin == std::string_view::npos ? "" : text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
  }
  static std::string_view Unquoted(std::string_view text) {
    text = Trimmed(text);
    return text.size() > 1 && text.front() == '"' && text.back() == '"' ? text.substr(1, text.size() - 2) : text;
  }
  static std::string Lower(std::string_view text) { return std::string(LowerCase(SString(Trimmed(text))).View()); }
};

bool HasAscii(std::string_view charset) {
  return charset.empty() || std::any_of(std::begin(kAsciiSets), std::end(kAsciiSets), [charset](std::string_view name) {
           bool const isFamily = name.back() == '-' || name == "windows-125";
           return isFamily ? charset.starts_with(name) : charset == name;
         });
}

// What has to stand between a text, in an open file, and a line behind it: the end of its last line, which it may lack,
// or which a soft line break at the end of quoted-printable would take away.
std::string_view GapBehind(int fd, bool isQuotedPrintable) {
  struct stat info;
  char bytes[3];
  if (sys::Fstat(fd, &info) != 0) return kLineEnd;
  off_t const length = std::min<off_t>(info.st_size, sizeof bytes);
  ssize_t const got = sys::Pread(fd, bytes, static_cast<size_t>(length), info.st_size - length);
  std::string_view const end(bytes, got > 0 ? static_cast<size_t>(got) : 0);
  if (isQuotedPrintable && end.ends_with('=')) return "\r\n\r\n";
  if (isQuotedPrintable && (end.ends_with("=\r\n") || end.ends_with("=\n"))) return kLineEnd;
  return end.empty() || end.ends_with('\n') ? "" : kLineEnd;
}

bool IsBase64(std::string_view text) {
  size_t letters = 0;
  bool isPadded = false;
  for (char const c : text) {
    if (c == '\r' || c == '\n') continue;
    bool const isLetter =
        (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
    if (c != '=' && (!isLetter || isPadded)) return false;
    isPadded = isPadded || c == '=';
    ++letters;
  }
  return letters % 4 == 0;
}

}  // namespace

struct STextFrame::Fit {
  Form form = Form::kPlain;
  bool isFlowed = false;
};

STextFrame::STextFrame(SStringList const &prologue, SStringList const &epilogue)
    : _prologue(WholeLines(prologue)), _epilogue(WholeLines(epilogue)) {
  for (SString const &text : {_prologue, _epilogue}) {
    _isAscii = _isAscii && IsAscii(text.View());
    _isUtf8 = _isUtf8 && IsUtf8(text.View());
  }
}

bool STextFrame::_FitsInto(SHeader const &header, Fit &fit) const {
  SStringList const types = header.Get(kHeaderContentType);
  SStringList const encodings = header.Get(kHeaderContentTransferEncoding);
  if (types.Length() > 1 || encodings.Length() > 1) return false;
  ContentType const type(types.Get(0));
  if (!(type.type.empty() || type.type == "text/plain") || !HasAscii(type.charset)) return false;
  std::string const disposition = ContentType::Lower(header.Get("Content-Disposition:").Get(0).View());
  if (disposition.starts_with("attachment")) return false;
  std::string const encoding = ContentType::Lower(encodings.Get(0).View());
  if (encoding == "quoted-printable")
    fit.form = Form::kQuotedPrintable;
  else if (encoding == "base64")
    fit.form = Form::kBase64;
  else if (!encoding.empty() && encoding != "7bit" && encoding != "8bit")
    return false;
  fit.isFlowed = type.format == "flowed";
  if (_isAscii) return true;
  bool const carriesBytes = fit.form != Form::kPlain || encoding == "8bit";
  return carriesBytes && _isUtf8 && type.charset == kUtf8;
}

STextFrame::Result STextFrame::Write(SHeader const &header, SString const &from, SString const &to) const {
  Fit fit;
  if (IsEmpty() || !_FitsInto(header, fit)) return Result::kUnfit;
  SString prologue = fit.isFlowed ? Flowed(_prologue) : _prologue;
  SString epilogue = fit.isFlowed ? Flowed(_epilogue) : _epilogue;
  if (fit.form == Form::kBase64) return _WriteBase64(prologue, epilogue, from, to);
  if (fit.form == Form::kQuotedPrintable) {
    prologue = QuotedPrintable(prologue);
    epilogue = QuotedPrintable(epilogue);
  }
  SDescriptor const source(sys::Open(SNativePath(from), sys::kReadOwn));
  if (!source.IsOpen()) return Result::kFailed;
  SDescriptor const target(sys::Open(SNativePath(to), O_WRONLY | O_CREAT | O_EXCL));
  if (!target.IsOpen()) return Result::kFailed;
  (void)sys::Fchmod(target.Get(), 0660);  // refused, the umask's mode is narrower
  SString const tail = SString(GapBehind(source.Get(), fit.form == Form::kQuotedPrintable)) + epilogue;
  if (sys::WriteAll(target.Get(), prologue, static_cast<size_t>(prologue.Length())) == 0 &&
      sys::CopyContents(source.Get(), target.Get()) == 0 &&
      sys::WriteAll(target.Get(), tail, static_cast<size_t>(tail.Length())) == 0)
    return Result::kWritten;
  int const error = errno;
  (void)RemoveFile(to);
  errno = error;
  return Result::kFailed;
}

STextFrame::Result STextFrame::_WriteBase64(SString const &prologue, SString const &epilogue, SString const &from,
                                            SString const &to) {
  long const size = FileSize(from);
  if (size > kMostEncodedBytes) return Result::kUnfit;
  SString const body = MapFileRead(from);
  if (!body.Defined() && size != 0) return Result::kFailed;
  if (!IsBase64(body.View())) return Result::kUnfit;
  SString text = body.Length() > 0 ? DecodeBase64(body) : SString("");
  if (text.Length() > 0 && text[-1] != '\n') text += "\r\n";
  return MapFileWrite(to, EncodeBase64(prologue + text + epilogue)) ? Result::kWritten : Result::kFailed;
}
