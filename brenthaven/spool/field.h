// brenthaven/spool/field.h - a field file: the text form of a table of named lists.
//
//   Function: SMTP-Router<CR><LF>          key, one blank, value, CR LF; the key keeps its ":" or "!"
//   Channel-To: SMTP <a@example.org><CR><LF>
//   Channel-To: SMTP <b@example.org><CR><LF>   a further value of the same key
//   Subject: one<CR><LF>
//     two<CR><LF>                          begins with a blank or tab: belongs to the value before, CR LF included
//
// There is no blank line and no other framing. Keys stand in the order in which they were first added. A line without a
// blank is one more value of the key before it. Only CR LF ends a line; every other byte, NUL too, is part of a value.
#pragma once
#include "brenthaven/spool/message.h"
#include "brenthaven/text/named.h"

// When a write flushes the new text to disk before the rename.
enum class SFlush {
  kReplaced,  // when it replaces an older file, which a crash must not turn into an empty one
  kNever,     // the file is no record of mail, or whoever wrote it flushes it
};

// The table and the file that it is read from and written to. Copying copies all of it; assignment leaves the target's
// message directory and error as they were.
class SField : public SMessage, public SNamedStringList {
public:
  // headerStyle is kept for the table, whose line end is CR LF for both.
  SField(unsigned int caseSensitive, unsigned int headerStyle);
  SField(SField const &) = default;
  SField &operator=(SField const &from);
  ~SField() override;

  // 1 when the file was read and replaced the table. 0 for no path, a missing, empty or unreadable file, and for a
  // symbolic link; then the table and the loaded flag are as before.
  virtual int Read(SString const &path);
  virtual int Read();
  // 1 when the file stands under its path, else 0 with the old file intact and no temporary file left. The text goes to
  // path + ".temp" and is renamed, so a reader sees the old file or the new. A temporary file left by a crash makes one
  // write fail, and goes with that failure. An older file is only replaced by flushed text (unless SpoolSync is "no");
  // a new one is not flushed: whoever drops the record that it came from puts it under a barrier first.
  virtual int Write(SString const &path);
  virtual int Write();
  virtual void UnlockFile();  // does nothing: field files are not locked

  unsigned IsLoaded() const { return _loaded; }  // set by the first successful read or write
  // The table as it would be written.
  SString Text() const;
  // The two halves of Write, for a caller that flushes several files together before they appear: the text goes to
  // TemporaryName(), and from there under the path. After a failure of either no temporary file is left.
  int WriteTemporary();
  int PutInPlace();
  SString TemporaryName() const;

protected:
  int _WriteFile(SFlush flush);

  SString _messageDir;
  int _loaded;
};
