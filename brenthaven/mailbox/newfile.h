// brenthaven/mailbox/newfile.h - a file that appears in a mail folder whole or not at all.
#pragma once
#include "brenthaven/platform/descriptor.h"
#include "brenthaven/text/sstring.h"

// A file without a name in the directory of its path to be, mode 0660; it vanishes with this object unless it was given
// its name. Where the file system has no nameless files it has a name that is no message's ("__new__" + the last part
// of the path) until then.
class SNewFile {
public:
  explicit SNewFile(SString const &path);
  SNewFile(SNewFile const &) = delete;
  SNewFile &operator=(SNewFile const &) = delete;
  ~SNewFile();

  bool IsOpen() const { return _file.IsOpen(); }  // false: errno says why
  int Fd() const { return _file.Get(); }
  // Gives the file its name. False with errno when it did not get it: EEXIST where one stands already.
  bool Publish();
  // The same, in place of what stands there.
  bool PublishOver();

private:
  bool _Name(SString const &path);
  SString _TemporaryName() const;

  SString _path;
  SDescriptor _file;
  bool _hasTemporaryName = false;
};
