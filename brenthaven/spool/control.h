// brenthaven/spool/control.h - the control file of a message: what is to be done with it, by which module, for whom.
#pragma once
#include <memory>

#include "brenthaven/address/address821.h"
#include "brenthaven/platform/mapped.h"
#include "brenthaven/spool/field.h"
#include "brenthaven/spool/header.h"

class SModule;

// Raw text of a header or body: a mapped file of its own, or a copy of what a writer still holds in memory.
class SMessageContent {
public:
  SMessageContent();
  SMessageContent(SMessageContent const &) = delete;
  SMessageContent &operator=(SMessageContent const &) = delete;
  ~SMessageContent();
  SString GetText() const;  // undefined for an empty file
  // The mapped file, borrowed until the content ends; null when the text is a copy from memory.
  SMappedFile *GetMappedFile() const { return _file.get(); }

private:
  friend class SControl;
  void _Set(SString const &text);
  unsigned int _Map(SString const &path);  // the file's success flag
  std::unique_ptr<SMappedFile> _file;
  SString _text;
};

// A control file, its message's two other files by name, and the module that speaks through it. Keys are compared
// exactly. Copies share the two writers, which belong to whoever set them and must outlive every use.
class SControl : public SField {
public:
  SControl();  // the module's name comes from the environment
  explicit SControl(SString const &name);
  SControl(SControl const &) = default;
  // Path, loaded flag, table, module name, both directories and both writers; not the message directory, not the error.
  SControl &operator=(SControl const &from);
  ~SControl() override;

  SString GetFilename() const override;  // the message name
  // A name with a "/" is a full path and is kept as it is; any other means control directory + name + "-Control".
  void PutFilename(SString const &name) override;
  // The same for a new message name. Where a control, header or body still stands under it, the first number that is
  // free goes behind it.
  void PutFreeFilename(SString const &name);
  SString GetControlFilename() const { return _path; }
  SString GetHeaderFilename() const;
  SString GetBodyFilename() const;

  using SField::Read;
  int Read(SString const &name) override;
  int Write(SString const &name) override;
  // Commits: adds the module to Trace:, flushes held writers, writes the file. 0 with the file as it was when a writer
  // fails, or when a key holds a blank, CR or LF and would so read back as something else.
  int Write() override;
  // Write without flushing the file: for requests, and for whoever flushes it with other files (accept.h).
  int WriteUnflushed();
  // What Write does in front of the file itself.
  unsigned int PrepareWrite();

  // The module's name and its control and deferred directories become the control's.
  void SetModule(SModule *module);
  void SetModuleName(SString const &name) { _moduleName = name; }
  SString const &GetModuleName() const { return _moduleName; }

  void AddTrace();      // Trace: moves behind all other fields
  int GetTraceCount();  // earlier commits by this module: values of Trace: equal to its name

  // Moves the file, as it was last written, to the module's deferred directory or a subdirectory of it ("" or a name
  // with a trailing "/"). 1 on success. The object keeps its path. A new directory is durable before the file moves in.
  int Defer(SString const &subdirectory);
  int Defer();  // under the first value of Host-To:, if there is one
  // The same with ",count" behind the host; without Host-To: the count is lost and the file goes to the top directory.
  int Defer(int count);
  // The directory below the module's in which these two put the file, with its "/"; "" without Host-To:. A host comes
  // from outside: "/", "\" and NUL in it and a "." in front become "_", and of a long one only the start is taken. So
  // two hosts may share a directory, which harms nothing: the field tells them apart.
  SString GetHostDirectory() const;
  SString GetHostDirectory(int count) const;

  // Gives this message's header and body the new name as well: as hard links, which is safe because message files are
  // replaced and never written in place, or as copies where links are refused. 0 with neither name made on failure.
  int LinkMessage(SString const &name);
  // Removes control directory + name + "-Control" (never a path from PutFilename: a control read from deferred/ keeps
  // its file there), then header and body. 0 when the control's removal failed or exactly one of the two message files
  // went; a request, which has neither, gives 1.
  int RemoveMessage();

  // The writers of a message whose text is still in memory, header first; null for none. Borrowed.
  void SetHeaderBodyData(SMappedFileWrite *header, SMappedFileWrite *body);
  unsigned int FlushHeaderBody();  // to disk, closed and forgotten; true when both succeeded or none was held
  unsigned int CloseHeaderBody();  // closed without flushing, still known; 0 when one reports failure
  // Header and body through a held writer or the file. 1 on success.
  unsigned int ReadHeader(SHeader *header);
  unsigned int WriteHeader(SHeader *header);
  unsigned int ReadHeader(SMessageContent &content);
  unsigned int ReadBody(SMessageContent &content);

  // Whose authority this message has: the first of From:, User-From: and X-Sender: that names an account here, else a
  // valid From:, else User-From:, which may be invalid. With a null header From: and X-Sender: are not looked at, since
  // a header made here is not read.
  S821Address GetPoster(SHeader *header);

  // One datagram to the dispatcher: message name, key, function, type and priority, with LF between. 1 when sent; 0
  // when there is no dispatcher to tell, which is no fault of the mail: a queue walk finds it. 0 also when a field
  // holds an LF.
  int Notify();

protected:
  SString _moduleName;
  SString _controlDir;
  SString _deferredDir;
  SMappedFileWrite *_headerData;
  SMappedFileWrite *_bodyData;
};

// Writes a control to the standard error stream, for whoever hunts a fault: a marked line with the text, then the
// fields, one a line behind a tab.
void LogCMSG(SString const &text, SControl &control);
