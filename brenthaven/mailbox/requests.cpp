// Requests about mailboxes.
#include <cstdio>

#include "brenthaven/accounts/safeuid.h"
#include "brenthaven/mailbox/mailboxdeliver.h"
#include "brenthaven/mailbox/mailboxpath.h"
#include "brenthaven/mailbox/maillog.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/spool/keys.h"

namespace {

enum DeleteResult {
  kMailboxInUse = 1,  // never given: a client's lock shows as a directory that could not be removed
  kMailboxNotEmptied = 2,
  kMailboxGone = 3,
};

}  // namespace

void SMailboxDeliverModule::ProcessRequest(SRequest &request) {
  SString const type = request.Get(kKeyRequestType).Get(0);
  if (type == "ComputeSizes") {
    ComputeSizes();
    (void)request.RemoveMessage();  // one that stays is done again by who finds it
    return;
  }
  if (type == "DeleteAccount") _DeleteAccount(request);
  (void)request.Answer();  // an asker that is gone has removed its request, and needs no answer
}

void SMailboxDeliverModule::_DeleteAccount(SRequest &request) {
  SString const account = request.Get(kKeyAccountTo).Get(0);
  if (account.Length() == 0) {
    request[kKeyErrorText] = "Mailbox was already deleted";
    return;
  }
  switch (_DeleteMailbox(account)) {
    case kMailboxGone:
      request[kKeyAccountToDone] = account;
      _LogAccountDeletion(account);
      break;
    case kMailboxInUse:
      request[kKeyErrorText] = "A client is currently reading the mailbox";
      break;
    case kMailboxNotEmptied:
      request[kKeyErrorText] = "One or more message files couldn't be removed";
      break;
  }
}

// A mailbox that was never made is gone as well. The lock of a reading client is honoured by DeleteAll.
int SMailboxDeliverModule::_DeleteMailbox(SString const &account) {
  if (!IsSafeUID(account)) return kMailboxNotEmptied;
  SString const path = GetMailboxDir() + GetMailboxSubpath(account) + "/";
  if (!IsDirectory(path)) return kMailboxGone;
  int const code = DeleteAll(path);
  if (code == kDeleteAllDone) return kMailboxGone;
  (void)fprintf(stderr, "deleteMailbox error : %d\n", code);  // a log that can't be written changes nothing
  return kMailboxNotEmptied;
}

void SMailboxDeliverModule::_LogAccountDeletion(SString const &account) {
  if (_log) WriteMailLog("AccountDeleted:" + account);
}
