#include "brenthaven/mailbox/storedform.h"

#include <errno.h>
#include <strings.h>

#include <algorithm>
#include <string_view>

#include "brenthaven/platform/descriptor.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/spool/keys.h"

namespace {

constexpr std::string_view kLineEnd = "\r\n";

// Fields that are a mailbox client's own, or another system's; a sender has no say in them.
constexpr std::string_view kDropped[] = {"Status:", "X-Key-Digest:", "Apparently-To:"};

bool IsDropped(std::string_view line) {
  return std::any_of(std::begin(kDropped), std::end(kDropped), [&](std::string_view name) {
    return line.size() >= name.size() && strncasecmp(line.data(), name.data(), name.size()) == 0;
  });
}

// Lines end at LF, with a CR before it or not; the last one need not end.
void AppendHeader(std::string &to, std::string_view header) {
  bool dropping = false;
  while (!header.empty()) {
    std::string_view const line = header.substr(0, std::min(header.find('\n'), header.size() - 1) + 1);
    header.remove_prefix(line.size());
    bool const continues = line.front() == ' ' || line.front() == '\t';
    dropping = continues ? dropping : IsDropped(line);
    if (!dropping) to.append(line);
  }
}

// Appends a small body from its file. False when the file is shorter by now, or can't be read.
bool AppendFile(std::string &to, int fd, size_t length) {
  size_t const start = to.size();
  to.resize(start + length);
  size_t read = 0;
  while (read < length) {
    ssize_t const got = sys::Pread(fd, to.data() + start + read, length - read, static_cast<off_t>(read));
    if (got <= 0) return false;
    read += static_cast<size_t>(got);
  }
  return true;
}

}  // namespace

SString ReturnPathOf(SString const &userFrom) {
  std::string_view const text = userFrom.View();
  size_t const last = text.rfind('>');
  if (last == std::string_view::npos) return {};
  for (std::string_view const start : {"SMTP <", "SMTP<"}) {
    size_t const found = text.find(start);
    if (found == std::string_view::npos) continue;
    size_t const open = found + start.size() - 1;
    if (open < last) return SString(text.substr(open, last - open + 1));
  }
  return text.find("<>") != std::string_view::npos ? SString("<>") : SString();
}

bool SStoredForm::Read(SControl &control, SStringList *errors) {
  *this = SStoredForm();
  SMessageContent header;
  if (!control.ReadHeader(header)) {
    errors->Push("Couldn't open header file: " + control.GetHeaderFilename());
    return false;
  }
  SString const headerText = header.GetText();
  SString const returnPath = ReturnPathOf(control.Get(kKeyUserFrom).Get(0));
  if (returnPath.Length() > 0) _head.append("Return-Path: ").append(returnPath.View()).append(kLineEnd);
  AppendHeader(_head, headerText.View());
  _head.append(kLineEnd);
  long long const bodyStart = Length();
  if (!_ReadBody(control)) {
    errors->Push("Couldn't open body file: " + control.GetBodyFilename());
    return false;
  }
  _queuedLength = headerText.Length() + Length() - bodyStart;
  return true;
}

bool SStoredForm::_ReadBody(SControl &control) {
  SString const path = control.GetBodyFilename();
  SDescriptor const file(sys::Open(path, sys::kReadOwn));
  if (file.IsOpen()) {
    struct stat info;
    if (sys::Fstat(file.Get(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
    if (info.st_size <= kSmallBody) return AppendFile(_head, file.Get(), static_cast<size_t>(info.st_size));
    _bodyPath = path;
    _bodyLength = info.st_size;
    return true;
  }
  SMessageContent body;  // no file yet: a writer in this process may hold the text
  if (!control.ReadBody(body)) return false;
  _bodyText = body.GetMappedFile() == nullptr ? body.GetText() : body.GetText().Clone();
  _bodyLength = _bodyText.Length();
  return true;
}

bool SStoredForm::WriteTo(int fd) const {
  if (sys::WriteAll(fd, _head.data(), _head.size()) != 0) return false;
  if (IsInMemory()) return sys::WriteAll(fd, _bodyText, static_cast<size_t>(_bodyText.Length())) == 0;
  SDescriptor const body(sys::Open(_bodyPath, sys::kReadOwn));
  if (!body.IsOpen() || sys::CopyContents(body.Get(), fd) != 0) return false;
  struct stat info;
  if (sys::Fstat(fd, &info) != 0) return false;
  if (info.st_size == Length()) return true;
  errno = EIO;  // the body changed since it was measured
  return false;
}
