// From account names to deliveries, by the accounts' attributes.
#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/attributes.h"
#include "brenthaven/accounts/special.h"
#include "brenthaven/handler/fanout.h"
#include "brenthaven/handler/pass.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/store/sdbfile.h"
#include "brenthaven/text/base.h"

namespace {

// Attributes that would put a secret into a control file if they were expanded.
bool IsSecret(SString const &attribute) {
  for (int const number : {kAttrPassword, kAttrRawPassword, kAttrProgDelPassword})
    if (attribute == attributes::NameOf(number)) return true;
  return false;
}

}  // namespace

// Every name is expanded once, so that accounts that lead to one another end there. False when accounts or settings
// could not be read: then nobody may be called unknown, and nobody's archive passed over.
bool SAccountHandlerModule::_Expand(Pass &pass) {
  SAccountDB::ClearReadFailed();
  Sdbfile::ClearReadFailed();
  while (pass.queue.Length() > 0 && !SAccountDB::ReadFailed()) {
    SString const name = pass.queue.Shift();
    if (name.Length() == 0 || !pass.seen.Add(name)) continue;
    SAccountReadScope const scope;
    SAccount account;
    if (SAccountDB().GetAccountInfo(name, &account)) {
      pass.accountFound = true;
      _ExpandAccount(pass, name, account);
    } else if (SAccountDB::ReadFailed()) {
      return false;
    } else if (name == kPostmasterUID) {
      pass.stopped = true;
      return true;
    } else {
      pass.unknown.Push(name);
    }
    pass.taken.Push(name);
  }
  return !SAccountDB::ReadFailed() && !Sdbfile::ReadFailed();
}

void SAccountHandlerModule::_ExpandAccount(Pass &pass, SString const &name, SAccount const &account) {
  pass.queue.Push(account.Get(kAttrAccountDelivery));
  pass.managers.Push(account.Get(kAttrManagerDelivery));
  pass.channels.Push(account.Get(kAttrChannelDelivery));
  _ArchiveAccount(pass, account);
  for (SString const &handler : account.Get(kAttrHandlerDelivery)) pass.modules.Push(handler + " " + name);
  for (SString const &agent : account.Get(kAttrLocalDelivery))
    if (agent.Length() > 0) pass.agents[agent].Push(name);
  for (SString const &entry : account.Get(kAttrExpandedDelivery)) _ExpandIndirectly(pass, name, entry);
}

// "Accounts ATTRIBUTE [UID]" is the names in an attribute of an account, without UID of this one; "Accounts-Index
// ATTRIBUTE VALUE" all accounts that hold a value.
void SAccountHandlerModule::_ExpandIndirectly(Pass &pass, SString const &name, SString const &entry) {
  SStringList const parts = entry.SplitExact(" ", 3);
  SString const attribute = parts.Get(1);
  if (parts.Get(0) == "Accounts-Index") {
    pass.queue.Push(SAccountDB().IndexLookup(attribute, parts.Get(2)));
  } else if (parts.Get(0) == "Accounts" && !IsSecret(attribute)) {
    SAccount source;
    SString const uid = parts.Get(2).Length() > 0 ? parts.Get(2) : name;
    if (SAccountDB().GetAccountInfo(uid, &source)) pass.queue.Push(source.Get(attribute));
  }
}

// An account's mail goes to the archive that it names too. A list has none of its own.
void SAccountHandlerModule::_ArchiveAccount(Pass &pass, SAccount const &account) {
  SString const rule = account.GetString(kAttrArchiveRule);
  if (!IsArchiveTarget(rule) || account.GetString(kAttrListName).Length() > 0 || !_IsArchiving(pass)) return;
  SString const address = account.GetPrimaryAddress();
  if (address.Length() == 0) return;  // the archive would get it for nobody
  pass.archive[ArchiveTarget(rule)].Push(kChannelPrefix + ("<" + address + ">"));
}

bool SAccountHandlerModule::_IsArchiving(Pass &pass) {
  if (!pass.archives.has_value()) {
    Sdbfile settings(GetModuleName(), 0, kProductWord);
    pass.archives = settings.Open("/Config", 0) && settings.Get("Archive-Enabled").Get(0) == "yes";
  }
  return *pass.archives;
}

// The control in memory as it stands behind the expansion. A file holds it when a writer saves it.
void SAccountHandlerModule::_WriteBack(Pass const &pass) {
  SControl &control = GetControl();
  if (pass.modules.Length() > 0) control[kKeyModuleTo] = pass.modules;
  if (pass.channels.Length() > 0) control[kKeyChannelTo] = pass.channels;
  if (pass.managers.Length() > 0) control[kKeyManagerTo] = pass.managers;
  control.Delete(kKeyAccountTo);
  if (pass.taken.Length() > 0) control[kKeyAccountToDone].Push(pass.taken);
}
