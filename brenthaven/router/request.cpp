// Requests: where would mail for an address go?
#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/alias.h"
#include "brenthaven/accounts/safeuid.h"
#include "brenthaven/router/directorylookup.h"
#include "brenthaven/router/pass.h"
#include "brenthaven/spool/keys.h"

namespace {

// Each step may ask the name service and two directories; mail that takes more is not sent by anybody.
constexpr int kMostPercentSteps = 8;

// "user%host" at a domain of ours becomes "user@host". False when there is no "%".
bool TakePercent(S821Address &address) {
  SString const local = address.LocalPart();
  int const percent = local.RIndex('%');
  if (percent < 0) return false;
  address.Domain() = local.Segment(percent + 1, local.Length() - percent - 1);
  address.LocalPart() = local.Segment(0, percent);
  return true;
}

}  // namespace

// How a request wants accounts found.
struct SSMTPRouterModule::Question {
  bool useDirectory;
  SString primaryHost;
  SString secondaryHost;
  SString port;
  SString base;
};

void SSMTPRouterModule::ProcessRequest(SRequest &request, int useDirectory, SString primaryHost, SString secondaryHost,
                                       SString port, SString base) {
  Question const question{useDirectory != 0, primaryHost, secondaryHost, port, base};
  S821Address address(request.Get(kKeyAddress).Get(0));
  SString understood = "";
  ClearReadFlags();
  if (address.Get().Length() >= kShortestAddress) {
    address.Domain() = GetHostAddrPart(address, 0);
    for (int steps = 0; !_AnswerAddress(question, address, request) && TakePercent(address);)
      if (++steps == kMostPercentSteps) break;
    understood = address.Get();
  }
  request.Delete(kKeyAddress);
  request[kKeyAddressDone].Push(understood);
  if (SomeReadFailed()) request[kKeyError] = "AccountReadFail";  // not "unknown": it may be there
  (void)request.Answer();                                        // an asker who has gone needs no answer
}

// True when this was the last word on the address, false when its "%" form is worth a try. A domain literal becomes the
// name that the name service has for it where no account has the address as it stands.
bool SSMTPRouterModule::_AnswerAddress(Question const &question, S821Address &address, SRequest &request) {
  bool directory = IsLdapAuth(address.Domain());
  SString uid = _RequestedUid(question, directory, address);
  if (uid.Length() == 0 && address.Domain()[0] == '[') {
    address.Domain() = GetHostAddrPart(address, 1);
    directory = IsLdapAuth(address.Domain());
    uid = _RequestedUid(question, directory, address);
  }
  bool local = false;
  if (uid.Length() == 0) {
    SStringList const targets = SAliasDB().GetChannelAliases(address);
    if (targets.Length() > 0) {
      request[kKeyChannelTo].Push(targets);
      return true;
    }
    local = IsLocalDelivery(address.Domain());
    if (local && !question.useDirectory) uid = _CatchAllUid(address);
  }
  if (uid.Length() > 0) request[kKeyAccountTo].Push(uid);
  return uid.Length() > 0 || !(question.useDirectory ? directory : local);
}

SString SSMTPRouterModule::_RequestedUid(Question const &question, bool directory, S821Address const &address) {
  if (!question.useDirectory) return SAccountDB().GetAccountUID(address);
  return directory ? _DirectoryUid(question, address) : SString();
}

// The UID that the directory has for an address; undefined when it has none. A directory is other people's: what it
// answers counts only when it is the name of an account here, and safe where names of accounts become names of files.
SString SSMTPRouterModule::_DirectoryUid(Question const &question, S821Address const &address) {
  SString const uid =
      LookupDirectoryUid(address.Get(), question.primaryHost, question.secondaryHost, question.port, question.base);
  return IsSafeUID(uid) != 0 && SAccountDB().GetAccountInfo(uid, nullptr) != 0 ? uid : SString();
}

// The account "*" of the address's domain, which takes what nobody else does.
SString SSMTPRouterModule::_CatchAllUid(S821Address const &address) {
  S821Address catchAll = address;
  catchAll.LocalPart() = "*";
  return SAccountDB().GetAccountUID(catchAll);
}
