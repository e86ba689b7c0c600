// brenthaven/spool/submitter.h - new messages of a module's own: welcome texts, quota warnings, notices to owners.
#pragma once
#include "brenthaven/mime/smime.h"
#include "brenthaven/spool/control.h"
#include "brenthaven/spool/module.h"

// Collects envelope, header and body, then writes the three spool files and tells the dispatcher. The message enters at
// the account handler, and is marked as bulk mail. Its spool name is also its Message-ID. One object, one message.
class SSubmitter {
public:
  // The module gives the name and is borrowed. With a null module there is no name and nothing can be written.
  explicit SSubmitter(SModule *module);

  // Recipients by account; To: gets each account's address attribute, or the text given. Sets the recipient flag.
  void SetRecipientUIDs(SStringList uids);
  void SetRecipientUIDs(SStringList uids, SString const &to);
  // Recipients by address, added to those there are, on the channel and in To:.
  void SetRecipientAddresses(SStringList addresses);
  // The envelope sender alone: without SetSender the message is still sent as from the postmaster.
  void SetEnvelopeFrom(S821Address const &address);
  // From: and the envelope sender; Reply-To: too when replyTo is not 0.
  void SetSender(SString const &from, unsigned int replyTo);
  void SetSubject(SString const &subject);
  void SetAutomatedFlag();
  void AddHeader(SString const &key, SString const &value);         // key with its ":"
  void AddControlHeader(SString const &key, SString const &value);  // key with its ":" or "!"
  void SetMimeBody(SMIME const &body);

  SString GetMessageID() const;  // "<name>", once submitted
  int GetHeaderSize() const;     // bytes of the header as it would be written

  // 1 when the message is durably in the spool, whether or not the dispatcher could be told. 0 when a file could not be
  // written: nothing is left, and error (never null) holds location, error name and "File: " + path for ProcessError. 0
  // also when the message is larger than one that is taken from outside (the limits of SAcceptance); then the error is
  // "TooManyRecipients", "HeaderTooLarge" or "TooManyFields" and its text the number.
  unsigned int Submit(SStringList *error);

private:
  void _CompleteHeader();
  bool _IsTooLarge(SStringList &error) const;
  SString _ContentType() const;

  unsigned int _recipientSet;
  unsigned int _mimeSet;
  unsigned int _senderSet;
  SControl _control;
  SHeader _header;
  SModule *_module;
  SMIME _body;
};
