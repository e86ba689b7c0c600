// brenthaven/mailbox/mailboxdeliver.h - the module "Mailbox-Deliver": writes messages into mailboxes.
#pragma once
#include "brenthaven/mailbox/sizefile.h"
#include "brenthaven/mailbox/storedform.h"
#include "brenthaven/spool/module.h"
#include "brenthaven/spool/request.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

class SNewFile;

// Stores the message of a control file in the mailbox of each account under "Deliver-To:", whose entries are
// "Mailbox account", and answers requests about mailboxes. It runs as a queue module of its own, and by value inside
// the account handler, which hands small deliveries to ProcessMailControl. mailboxpath.h draws the mailbox tree.
//
// A stored message is, in this order and with no other framing:
//   "Return-Path: " + return path + CR LF, when "User-From:" has one;
//   the lines of the queued header with their own line ends, less "Status:", "X-Key-Digest:" and "Apparently-To:" lines
//   and their continuations;
//   CR LF;
//   the queued body, byte for byte.
//
// The message is written first for each of two slots (accounts with QJ-Judge-Enabled "yes", all others), for the
// mailbox of the first account that falls into the slot: the substance file. Every other account gets a copy. A file
// appears whole and on disk, under its final name, mode 0660, together with its entry in the folder's size record. One
// pass takes at most kBatch entries.
class SMailboxDeliverModule : public SModule {
public:
  static constexpr int kBatch = 512;
  // Passes of this process take fewer: for tests, to which 512 recipients are many.
  static void SetBatch(int entries);

  SMailboxDeliverModule();
  ~SMailboxDeliverModule() override;

  // Reads "/Config" of the module's settings; 0 when that cannot be opened.
  unsigned int LoadEnv() override;

  // One pass over the current control. Non-zero when the frame has nothing left to do: everything is stored, or the
  // rest is deferred, announced as another pass, or filed as an error. 0 when the control could not be saved;
  // Delivered() then says what was stored all the same.
  unsigned int ProcessMail() override;

  // "DeleteAccount", "DeleteDelivery" (which does nothing) and "ComputeSizes"; any other type is answered as it came.
  void ProcessRequest(SRequest &request) override;

  // Entries "Mailbox account" that the last ProcessMail stored.
  SStringList const &Delivered() const { return _delivered; }

  // Writes the stored form of the current message as a new file. 1 on success. 0 with the reason pushed on errors; with
  // none when the disk is full or refuses the bytes, which is logged. Account and slot do not change the form.
  int CreateMessageFile(SString const &file, SStringList *errors, SString const &account, int slot);
  // Makes target a full copy of element 0 of files, replacing what stands there, and pushes target on files; no link,
  // in spite of the name. 1 on success.
  unsigned int CopyOrLink(SStringList &files, SString const &target);

  // With logging on, one line "date:process:message-Mailbox:account,account" on the standard error stream.
  void LogDelivery(SString const &message, SStringList const &entries);
  // The same prefix with the current message, "ERROR:", ":" and the text, whether logging is on or not.
  void LogError(SString const &text);
  // The primary address of each entry's account; "Bad account: " + account where there is no record.
  SStringList Recipients(SStringList const &entries);
  // Each line with n blanks in front; the lines as they are when n is below 1.
  SStringList Indent(SStringList const &lines, int n);
  // The "Deliver-To:" entries whose agent is "Mailbox".
  SStringList GetAllMailboxDeliveries();

  // Bytes that the current account's mailbox may still take: its quota less what the folder holds, below 0 when that is
  // more; the whole quota when it is unlimited. Counts the folder again when its record has no number or recount is
  // set. The quota in bytes goes to *quota unless that is null. f is locked.
  long long AvailableMailboxStorage(SSizeFile &f, unsigned int recount, long long *quota);
  // Adds to the record of a locked size file.
  void IncreaseMailboxByteCount(SSizeFile &f, long long bytes);
  // Counts every account's folder again.
  void ComputeSizes();

  // Writes the notice of a settings key straight into the folder, as a message without queue or quota test. The number
  // of bytes written; 0 when there is no such text or it could not be written. Sizes are in bytes.
  int SendQuotaMessage(SSizeFile &f, SString const &key, long long spaceLeft, long long messageSize, long long quota);
  // These count the notice and set its flag, so that the next message does not send it again.
  void SendOverQuotaMessage(SSizeFile &f, long long spaceLeft, long long messageSize, long long quota);
  void SendNearQuotaMessage(SSizeFile &f, long long spaceLeft, long long quota);

private:
  struct Entry;  // one "agent account" entry, and what was found out about it
  struct Slot;   // the substance file of a slot, and the files made from it
  struct Pass;   // what one ProcessMail knows
  enum class Room { kEnough, kTooLittle, kUnknown };

  bool _WriteSubstances(Pass &pass);
  bool _WriteSubstance(Pass &pass, Entry &entry, Slot &slot);
  bool _DeliverEntries(Pass &pass);
  void _DeliverEntry(Pass &pass, Entry &entry, Slot &slot);
  bool _WriteForm(SNewFile &stored, SString const &file, SStringList *errors);
  void _WriteCopies(Pass &pass);
  bool _WriteCopy(Slot const &slot, int fd);
  bool _FlushContents(Pass &pass);
  Room _RoomFor(SSizeFile &f, long long messageSize);
  long long _QuotaOf(SString const &uid) const;
  unsigned int _DeferUnwritten(Pass &pass);
  unsigned int _DeferUndefined(Pass &pass);
  unsigned int _EndBatch(Pass &pass);
  unsigned int _EndPass(Pass &pass);
  bool _Record(SStringList const &open);
  unsigned int _SaveAndDefer();
  unsigned int _Finish();

  void _LookUp(Entry &entry);
  bool _MakeFolder(Entry &entry);
  SString _MailFolder(SString const &account) const;
  bool _WasReported(char const *error);
  void _NoteReported(char const *error);

  void _DeleteAccount(SRequest &request);
  int _DeleteMailbox(SString const &account);
  void _LogAccountDeletion(SString const &account);

  SString _account;                // current account
  int _quotaWarningThreshold = 0;  // percent of the quota in use at which the owner is warned; 0 is never
  long long _defaultQuota = 0;     // bytes; 0 is none
  bool _overQuotaNotices = false;  // tell the owner about a refused message
  bool _unlimited = false;         // the current account has no quota
  bool _log = false;               // write delivery and deletion lines
  SStoredForm _form;               // of the current message
  SStringList _delivered;
};
