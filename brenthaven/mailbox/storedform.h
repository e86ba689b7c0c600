// brenthaven/mailbox/storedform.h - the bytes of a message as a mailbox holds them; mailboxdeliver.h says which.
#pragma once
#include <string>

#include "brenthaven/spool/control.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// The sender in angle brackets from a "User-From:" value, "SMTP <a@b>" or "SMTP<a@b>"; "<>" for the null sender; empty
// when the value has none.
SString ReturnPathOf(SString const &userFrom);

// The stored form of one message. A small message is all in memory, so that each copy is one write; a large body stays
// in its file, from where the kernel copies it.
class SStoredForm {
public:
  static constexpr long long kSmallBody = 64 * 1024;  // bytes

  // Reads the control's message, in place of what was read before. False with the reason pushed on errors.
  bool Read(SControl &control, SStringList *errors);
  // The whole form, from the present offset of an empty file. False with errno.
  bool WriteTo(int fd) const;

  bool IsInMemory() const { return _bodyPath.Length() == 0; }
  long long Length() const { return static_cast<long long>(_head.size()) + _bodyLength; }
  // Header and body as they are queued, without what storing adds and drops.
  long long QueuedLength() const { return _queuedLength; }

private:
  bool _ReadBody(SControl &control);

  std::string _head;          // up to the body, and a small body behind it
  SString _bodyText;          // a larger body that its writer still holds
  SString _bodyPath;          // a larger body in its file
  long long _bodyLength = 0;  // of these two, in bytes
  long long _queuedLength = 0;
};
