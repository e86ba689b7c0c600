#include "brenthaven/spool/control.h"

#include <algorithm>
#include <cerrno>
#include <string>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/address/parser822.h"
#include "brenthaven/platform/barrier.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/platform/nativepath.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/log.h"
#include "brenthaven/spool/module.h"
#include "brenthaven/spool/notice.h"
#include "brenthaven/text/base.h"

namespace {

constexpr unsigned long kDirectoryMode = 0770;
constexpr int kDeferTries = 5;  // a walk drops the directories that it has emptied, and may do so between our two steps
constexpr size_t kMostHostBytes = 200;  // leaves room for a count in the name of a directory
constexpr char kLogMarker[] = "#JJ#";

// A writer that still has text that no file shows.
bool IsHeld(SMappedFileWrite const *writer) { return writer != nullptr && writer->IsOpen(); }
// One whose whole text is in memory. A writer that has outgrown its limit is held, but its text is in its file.
bool IsInMemory(SMappedFileWrite const *writer) { return IsHeld(writer) && writer->IsCached(); }

// Flushes, closes and forgets one held writer; 1 also when there is none.
unsigned FlushWriter(SMappedFileWrite *&writer) {
  if (!IsHeld(writer)) return 1;
  writer->FlushCache();
  writer->Close(1);
  unsigned const ok = writer->IsOK();
  writer = nullptr;
  return ok;
}

unsigned CloseWriter(SMappedFileWrite *writer) {
  if (writer == nullptr) return 1;
  writer->Close(0);
  return writer->IsOK();
}

bool LinkOrCopy(SString const &from, SString const &to) {
  int const error = errno;
  if (sys::Link(SNativePath(from), SNativePath(to)) == 0) return true;
  if (!LinkFile(from, to)) return false;  // an independent copy, over whatever has the name
  errno = error;                          // the refused link is no failure
  return true;
}

// The first value of Host-To: as the name of a directory; empty without one.
SString HostName(SControl const &control) {
  SString const host = control.Get(kKeyHostTo).Get(0);
  std::string name(host.View().substr(0, kMostHostBytes));
  std::replace_if(
      name.begin(), name.end(), [](char c) { return c == '/' || c == '\\' || c == '\0'; }, '_');
  if (name.starts_with('.')) name.front() = '_';
  return SString(name);
}

// Makes a directory below top, which exists, and flushes the names of what was made.
int MakeLastingDirectory(SString const &top, SString const &directory) {
  int const error = errno;
  if (IsDirectory(directory)) return 1;
  errno = error;
  if (!MakeDir(directory, kDirectoryMode)) return 0;
  SSyncBarrier barrier;
  std::string path(directory.View());
  while (path.size() > static_cast<size_t>(top.Length())) {
    while (path.back() == '/') path.pop_back();
    barrier.AddParentOf(path.c_str());
    path.resize(path.rfind('/') + 1);
  }
  return barrier.Commit();
}

}  // namespace

SMessageContent::SMessageContent() = default;
SMessageContent::~SMessageContent() = default;

SString SMessageContent::GetText() const { return _file != nullptr ? _file->GetString() : _text; }

void SMessageContent::_Set(SString const &text) {
  _file.reset();
  _text = text;
}

unsigned int SMessageContent::_Map(SString const &path) {
  _file = std::make_unique<SMappedFile>(path);
  return _file->IsOK();
}

SControl::SControl() : SField(1, 0), _moduleName(GetEnv("ModuleName")), _headerData(nullptr), _bodyData(nullptr) {
  SString const root = GetEnv("Brenthaven");
  _controlDir = root + "/control/";
  _deferredDir = root + "/deferred/";
}

SControl::SControl(SString const &name) : SControl() { SControl::PutFilename(name); }

SControl::~SControl() = default;

SControl &SControl::operator=(SControl const &from) {
  SField::operator=(from);
  _moduleName = from._moduleName;
  _controlDir = from._controlDir;
  _deferredDir = from._deferredDir;
  _headerData = from._headerData;
  _bodyData = from._bodyData;
  return *this;
}

SString SControl::GetFilename() const { return BaseName(_path, kControlSuffix); }

void SControl::PutFilename(SString const &name) {
  _path = name.Index('/') >= 0 ? name : _controlDir + name + kControlSuffix;
}

void SControl::PutFreeFilename(SString const &name) {
  int const error = errno;
  auto const isTaken = [this] {
    return FileExists(_path) || FileExists(GetHeaderFilename()) || FileExists(GetBodyFilename());
  };
  PutFilename(name);
  for (int number = 1; isTaken(); ++number) PutFilename(name + SString(number));
  errno = error;  // a name that is free is no failure
}

SString SControl::GetHeaderFilename() const { return _messageDir + GetFilename() + kHeaderSuffix; }
SString SControl::GetBodyFilename() const { return _messageDir + GetFilename() + kBodySuffix; }

int SControl::Read(SString const &name) {
  PutFilename(name);
  return SField::Read();
}

int SControl::Write(SString const &name) {
  PutFilename(name);
  return SControl::Write();
}

int SControl::Write() { return PrepareWrite() && SField::Write(); }

int SControl::WriteUnflushed() { return PrepareWrite() && _WriteFile(SFlush::kNever); }

unsigned int SControl::PrepareWrite() {
  AddTrace();
  for (SString const &key : Keys())
    if (key.Length() > 0 && !IsFieldKey(key)) {
      errno = EINVAL;
      return 0;
    }
  return FlushHeaderBody();
}

void SControl::SetModule(SModule *module) {
  _moduleName = module->GetModuleName();
  _controlDir = module->GetControlDir();
  _deferredDir = module->GetDeferredDir();
}

void SControl::AddTrace() {
  SStringList trace = Get(kKeyTrace);
  trace.Push(_moduleName);
  Delete(kKeyTrace);
  (*this)[kKeyTrace] = trace;
}

int SControl::GetTraceCount() {
  int count = 0;
  for (SString const &module : Get(kKeyTrace)) count += module == _moduleName;
  return count;
}

int SControl::Defer(SString const &subdirectory) {
  SString const directory = _deferredDir + _moduleName + "/" + subdirectory;
  SString const target = directory + GetFilename() + kControlSuffix;
  for (int i = 0; i < kDeferTries; ++i) {
    if (!MakeLastingDirectory(_deferredDir, directory)) return 0;
    if (Rename(_path, target)) return 1;
    if (errno != ENOENT || IsDirectory(directory)) return 0;
  }
  return 0;
}

int SControl::Defer() { return Defer(GetHostDirectory()); }
int SControl::Defer(int count) { return Defer(GetHostDirectory(count)); }

SString SControl::GetHostDirectory() const {
  SString const host = HostName(*this);
  return host.Length() > 0 ? host + "/" : host;
}

SString SControl::GetHostDirectory(int count) const {
  SString const host = HostName(*this);
  return host.Length() > 0 ? host + "," + SString(count) + "/" : host;
}

int SControl::LinkMessage(SString const &name) {
  if (!FlushHeaderBody()) return 0;  // there is nothing to link before the text is in the files
  SString const header = _messageDir + name + kHeaderSuffix;
  if (!LinkOrCopy(GetHeaderFilename(), header)) return 0;
  if (LinkOrCopy(GetBodyFilename(), _messageDir + name + kBodySuffix)) return 1;
  int const error = errno;
  (void)RemoveFile(header);  // one name without the other would be no message; the failure told is the body's
  errno = error;
  return 0;
}

int SControl::RemoveMessage() {
  int const controlGone = _loaded ? RemoveFile(_controlDir + GetFilename() + kControlSuffix) : 1;
  bool const headerGone = IsHeld(_headerData) || RemoveFile(GetHeaderFilename());
  bool const bodyGone = IsHeld(_bodyData) || RemoveFile(GetBodyFilename());
  return controlGone && headerGone == bodyGone;
}

void SControl::SetHeaderBodyData(SMappedFileWrite *header, SMappedFileWrite *body) {
  _headerData = header;
  _bodyData = body;
}

unsigned int SControl::FlushHeaderBody() {
  unsigned const header = FlushWriter(_headerData);
  unsigned const body = FlushWriter(_bodyData);
  return header && body;
}

unsigned int SControl::CloseHeaderBody() {
  unsigned const header = CloseWriter(_headerData);
  unsigned const body = CloseWriter(_bodyData);
  return header && body;
}

unsigned int SControl::ReadHeader(SHeader *header) {
  if (IsInMemory(_headerData)) {
    _headerData->GetCache() >> *header;
    return 1;
  }
  return FlushWriter(_headerData) && header->Read(GetFilename());
}

unsigned int SControl::WriteHeader(SHeader *header) {
  if (IsInMemory(_headerData)) {
    _headerData->ReplaceCache(header->Text());
    return 1;
  }
  return FlushWriter(_headerData) && header->Write(GetFilename());
}

unsigned int SControl::ReadHeader(SMessageContent &content) {
  if (IsInMemory(_headerData)) {
    content._Set(_headerData->GetCache());
    return 1;
  }
  return FlushWriter(_headerData) && content._Map(GetHeaderFilename());
}

unsigned int SControl::ReadBody(SMessageContent &content) {
  if (IsInMemory(_bodyData)) {
    content._Set(_bodyData->GetCache());
    return 1;
  }
  return FlushWriter(_bodyData) && content._Map(GetBodyFilename());
}

S821Address SControl::GetPoster(SHeader *header) {
  SHeader unread;  // stands in for a missing header, and gives no From: and no X-Sender:
  if (header == nullptr) header = &unread;
  SAccountDB accounts;
  auto const isKnown = [&accounts](S821Address const &address) {
    return accounts.GetAccountUID(address).Length() > 0 ||
           accounts.IndexLookup("Remote-SMTP-Address", address.Get()).Length() > 0;
  };

  S821Address author;
  if (SString const from = header->Get(kHeaderFrom).Get(0); from.Length() > 0) author = S822Parser(from).NextAddress();
  if (author.IsValid() && isKnown(author)) return author;
  S821Address const sender(Get(kKeyUserFrom).Get(0));
  if (sender.IsValid() && isKnown(sender)) return sender;
  S821Address const client(header->Get(kHeaderXSender).Get(0));
  if (client.IsValid() && isKnown(client)) return client;
  return author.IsValid() ? author : sender;
}

int SControl::Notify() { return SendNotice(ComposeNotice(*this)); }

void LogCMSG(SString const &text, SControl &control) {
  SString dump = LogFileDate() + ":" + kLogMarker + ":" + control.GetFilename() + ":" + text + "\n";
  for (SString const &line : control.Text().SplitExact("\r\n")) ((dump += "\t") += line) += "\n";
  WriteLog(dump);
}
