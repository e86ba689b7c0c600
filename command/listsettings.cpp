// brenthaven list create, show, set, delete.
#include <sysexits.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/attributes.h"
#include "brenthaven/accounts/safeuid.h"
#include "brenthaven/accounts/special.h"
#include "brenthaven/lists/slistactions.h"
#include "brenthaven/lists/sliststate.h"
#include "brenthaven/text/base.h"
#include "command/listcommand.h"

namespace {

constexpr char kListExploder[] = "List-Exploder";
constexpr char kListManager[] = "List-Manager";

// What the value of an attribute must be; of those that are not here any text is right.
enum class Kind { kWord, kNumber, kSchedule, kOwners, kFixed };

struct SettingRow {
  int attribute;
  Kind kind;
  char const *words;  // of kWord, by blanks; of the others what an error line says
};

constexpr char kPolicyWords[] = "open closed closed-notify moderated";
constexpr char kYesNo[] = "yes no";
constexpr char kNumber[] = "a number; 0 for no limit";
constexpr SettingRow kSettings[] = {
    {kAttrListName, Kind::kFixed, "a list keeps its name, which its addresses and its subscribers' mail programs know"},
    {kAttrListOwners, Kind::kOwners, "UIDs or addresses of accounts"},
    {kAttrListLocked, Kind::kWord, kYesNo},
    {kAttrListSubscriberPostingPolicy, Kind::kWord, kPolicyWords},
    {kAttrListNonsubscriberPostingPolicy, Kind::kWord, kPolicyWords},
    {kAttrListLocalSubscriberPolicy, Kind::kWord, kPolicyWords},
    {kAttrListRemoteSubscriberPolicy, Kind::kWord, kPolicyWords},
    {kAttrListLimitPolicy, Kind::kWord, kPolicyWords},
    {kAttrListVerifySubscriptions, Kind::kWord, kYesNo},
    {kAttrListVerifyUnsubscriptions, Kind::kWord, kYesNo},
    {kAttrListModerateUnsubscriptions, Kind::kWord, kYesNo},
    {kAttrListRequestDetection, Kind::kWord, kYesNo},
    {kAttrListRemoveXHeaders, Kind::kWord, kYesNo},
    {kAttrListDigestRestriction, Kind::kWord, "none immediate-only digest-only"},
    {kAttrListModerationMethod, Kind::kWord, "queue-notify queue-mail queue-no-mail noqueue-fwd noqueue-fwd-nomime"},
    {kAttrListDigestSchedule, Kind::kSchedule, "such as \"daily 6pm\" or \"mon 8am\""},
    {kAttrListMaxSubscribers, Kind::kNumber, kNumber},
    {kAttrListMaxMessagesPerDay, Kind::kNumber, kNumber},
    {kAttrListMaxKbytesPerDay, Kind::kNumber, kNumber},
    {kAttrListMaxMessageKbytes, Kind::kNumber, kNumber},
};

// Attributes of a list that do not begin with "List-" and may be set here all the same.
constexpr std::array kOtherAttributes = {kAttrSmtpRewriteStyle, kAttrAccessDomains, kAttrFingerAccess};

attributes::Row const *FindAttribute(std::string const &name) {
  for (attributes::Row const &row : attributes::kTable)
    if (row.name == name && (name.starts_with("List-") || std::find(kOtherAttributes.begin(), kOtherAttributes.end(),
                                                                    row.number) != kOtherAttributes.end()))
      return &row;
  return nullptr;
}

bool IsOneOf(SString const &value, char const *words) { return SString(words).SplitExact(" ").Contains(value); }

bool IsNumber(SString const &value) {
  constexpr int kMostDigits = 9;
  return value.Length() > 0 && value.Length() <= kMostDigits &&
         value.View().find_first_not_of("0123456789") == std::string_view::npos;
}

bool IsSchedule(SString const &value) {
  int hours = 0, day = 0;
  return ParseListDeliverySpec(value, hours, day) && hours < 24;
}

// The account that an owner was named by; empty after a Fail.
SString FindOwner(Command &command, std::string const &owner) {
  SListDB accounts;
  SString uid(owner);
  if (uid.Index('@') > 0) uid = accounts.GetAccountUID(S821Address(uid));
  SAccount account;
  if (!accounts.GetAccountInfo(uid, &account))
    Fail(command, EX_NOUSER, "not the account of an owner: " + owner);
  else if (account.IsListAcct() || account.IsRemoteAcct() || IsTemplateUID(uid))
    Fail(command, EX_DATAERR, "this account can't own a list: " + owner);
  else
    return uid;
  return "";
}

bool FindOwners(Command &command, std::vector<std::string> const &names, SStringList &uids) {
  for (std::string const &name : names) {
    SString const uid = FindOwner(command, name);
    if (uid.Length() == 0) return false;
    if (!uids.Contains(uid)) uids.Push(uid);
  }
  return true;
}

// Checks the values, and makes UIDs of owners. False after a Fail.
bool CheckValues(Command &command, int attribute, std::vector<std::string> const &words, SStringList &values) {
  values = ToList(words);
  auto const row = std::find_if(std::begin(kSettings), std::end(kSettings),
                                [attribute](SettingRow const &each) { return each.attribute == attribute; });
  if (row == std::end(kSettings)) return true;
  if (row->kind == Kind::kFixed) {
    Fail(command, EX_NOPERM, row->words);
    return false;
  }
  if (row->kind == Kind::kOwners) {
    if (words.empty()) Fail(command, EX_DATAERR, "a list needs an owner, who decides what its policy leaves to people");
    if (words.empty()) return false;
    values = SStringList();
    return FindOwners(command, words, values);
  }
  for (SString const &value : values) {
    bool const good = row->kind == Kind::kWord     ? IsOneOf(value, row->words)
                      : row->kind == Kind::kNumber ? IsNumber(value)
                                                   : IsSchedule(value);
    if (good) continue;
    Fail(command, EX_DATAERR,
         "not a value of " + std::string(attributes::kTable[attribute].name) + ": " + ToStd(value) +
             "; it takes: " + row->words);
    return false;
  }
  return true;
}

// A name becomes the local parts of three addresses, a UID, and the name of a file.
bool IsListName(std::string const &name) {
  constexpr size_t kLongest = 48;
  constexpr std::string_view kInside = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.";
  constexpr std::string_view kAtEnds = kInside.substr(0, 62);
  SString const uid(name);
  return !name.empty() && name.size() <= kLongest && name.find_first_not_of(kInside) == std::string::npos &&
         kAtEnds.find(name.front()) != std::string::npos && kAtEnds.find(name.back()) != std::string::npos &&
         name.find("..") == std::string::npos && !name.ends_with(".lock") && !name.ends_with(".new") &&
         !(LowerCase(uid) == "digest") && IsSafeUID(uid) && !IsTemplateUID(uid);
}

struct AttributeRow {
  int attribute;
  SStringList values;
};

bool MakeAccount(SAccountDBMod &accounts, SString const &uid, SAccount const &model,
                 std::vector<AttributeRow> const &rows) {
  SAccountMod account;
  if (!accounts.ModifyAccount(uid, &account)) return false;
  for (SString const &name : model.Values())
    if (!account.Set(name, model.Get(name))) return false;
  return std::all_of(rows.begin(), rows.end(), [&account](AttributeRow const &row) {
    return row.values.Length() == 0 || account.Set(row.attribute, row.values);
  });
}

// The list, and two accounts behind it: its manager's, which takes requests, and its owners', where what comes back
// arrives. Bounces are counted there by the module of the list, which hands the owners what is for them.
bool MakeList(SAccountDBMod &accounts, SString const &name, SString const &domain, SStringList const &owners,
              SString const &info) {
  SString const manager = name + "-Manager-Account", owner = name + "-Owner-Account";
  SAccount model, none;
  (void)accounts.GetAccountInfo(kDefaultListUID, &model);  // without the template a list has no more than its names
  bool const made = MakeAccount(accounts, manager, none,
                                {{kAttrName, name + " Manager Account"},
                                 {kAttrHandlerDelivery, kListManager},
                                 {kAttrSmtpAddress, name + "-request@" + domain},
                                 {kAttrManagerListName, name},
                                 {kAttrAccessDomains, "none"},
                                 {kAttrFingerAccess, "none"}}) &&
                    MakeAccount(accounts, owner, none,
                                {{kAttrName, name + " Owner Account"},
                                 {kAttrHandlerDelivery, kListExploder},
                                 {kAttrSmtpAddress, "owner-" + name + "@" + domain},
                                 {kAttrAccessDomains, "none"},
                                 {kAttrFingerAccess, "none"}}) &&
                    MakeAccount(accounts, name, model,
                                {{kAttrListName, name},
                                 {kAttrHandlerDelivery, kListExploder},
                                 {kAttrSmtpAddress, name + "@" + domain},
                                 {kAttrLinkedManagerAccount, manager},
                                 {kAttrLinkedOwnerAccount, owner},
                                 {kAttrListOwners, owners},
                                 {kAttrListShortInfo, info.Length() > 0 ? SStringList(info) : SStringList()},
                                 {kAttrFingerAccess, "none"}});
  if (!made)  // half a list would take mail that it can't serve
    for (SString const &uid : {name, manager, owner}) (void)accounts.DeleteAccount(uid);
  return made;
}

bool IsNameFree(Command &command, SString const &name) {
  SListDB accounts;
  if (accounts.FindList(name).Length() > 0) {
    Fail(command, EX_CANTCREAT, "the list exists already: " + ToStd(name));
    return false;
  }
  for (SString const &uid : {name, name + "-Manager-Account", name + "-Owner-Account"})
    if (accounts.GetAccountInfo(uid, nullptr)) {
      Fail(command, EX_CANTCREAT, "an account has the name already: " + ToStd(uid));
      return false;
    }
  return true;
}

// None for a broken state, which goes with the list.
SStringList HeldPostings(SString const &uid) {
  SStringList ids;
  SListState state(uid);
  if (state.Read())
    for (int i = 0; i < state.GetApproveMsgsCount(); ++i) ids.Push(state.GetApproveMsgId(i));
  return ids;
}

std::string OneLineOf(SStringList const &values) { return ToStd(values.Join(", ")); }

ListJson Brief(SList const &list) {
  return {{"name", ToStd(list.GetName())},
          {"uid", ToStd(list.GetUID())},
          {"address", ToStd(list.GetListAddress())},
          {"subscribers", list.GetSubscriberCount()},
          {"locked", list.IsListLocked() != 0}};
}

void ShowAll(bool json) {
  SListDB lists;
  ListJson all = ListJson::array();
  for (SString const &uid : lists.GetListUIDs()) {
    SList list;
    if (!lists.GetByUID(uid, &list, 0)) continue;  // gone since
    if (json)
      all.push_back(Brief(list));
    else
      printf("%s  %s  %d subscribers%s\n", static_cast<char const *>(list.GetName()),
             static_cast<char const *>(list.GetListAddress()), list.GetSubscriberCount(),
             list.IsListLocked() ? "  locked" : "");
  }
  if (json) PrintJson(all);
}

}  // namespace

void CreateList(Command &command, ListOptions const &options) {
  if (!EnterInstance(command)) return;
  if (!IsListName(options.name)) return Fail(command, EX_DATAERR, "no name for a list: " + options.name);
  SString const domain = LowerCase(options.domain.empty() ? GetEnv("DomainName") : SString(options.domain));
  SAccountDBMod accounts;
  SStringList domains;
  for (SString const &each : accounts.GetLocalMailDomains()) domains.Push(LowerCase(each));
  if (!domains.Contains(domain))
    return Fail(command, EX_DATAERR, "not a mail domain of this instance: " + ToStd(domain));
  SStringList owners;
  if (!FindOwners(command, options.owners, owners) || !IsNameFree(command, SString(options.name))) return;
  int const limit = accounts.GetListLimit();
  if (limit > 0 && accounts.ListCount() >= limit)
    return Fail(command, EX_NOPERM,
                "the limit of " + std::to_string(limit) + " lists is reached (MTA-Accounts//ListLimit)");
  SString const name(options.name);
  if (!MakeList(accounts, name, domain, owners, SString(options.info)))
    return Fail(command, EX_CANTCREAT,
                "cannot make the list " + options.name +
                    ": one of its addresses belongs to another account, or the files cannot be written");
  printf("%s@%s\n", options.name.c_str(), static_cast<char const *>(domain));
}

void ShowLists(Command &command, ListOptions const &options) {
  SList list;
  if (options.name.empty()) {
    if (EnterInstance(command)) ShowAll(options.json);
    return;
  }
  if (!EnterList(command, options.name, list)) return;
  ListJson all = Brief(list);
  all["request_address"] = ToStd(list.GetRequestAddress());
  all["owner_address"] = ToStd(list.GetOwnerAddress());
  ListJson &settings = all["settings"] = ListJson::object();
  for (SString const &name : list.Values()) {
    if (!name.HasPrefix("List-")) continue;
    ListJson &values = settings[ToStd(name)] = ListJson::array();
    for (SString const &value : list.Get(name)) values.push_back(ToStd(value));
  }
  if (options.json) return PrintJson(all);
  printf("%s: %s\nrequests to: %s\nowners at: %s\nsubscribers: %d\n", static_cast<char const *>(list.GetName()),
         static_cast<char const *>(list.GetListAddress()), static_cast<char const *>(list.GetRequestAddress()),
         static_cast<char const *>(list.GetOwnerAddress()), list.GetSubscriberCount());
  for (SString const &name : list.Values())
    if (name.HasPrefix("List-")) printf("%s: %s\n", static_cast<char const *>(name), OneLineOf(list.Get(name)).c_str());
}

void SetListAttribute(Command &command, ListOptions const &options) {
  SList list;
  if (!EnterList(command, options.name, list)) return;
  attributes::Row const *const row = FindAttribute(options.attribute);
  if (row == nullptr) return Fail(command, EX_DATAERR, "no such attribute of lists: " + options.attribute);
  SStringList values;
  if (!CheckValues(command, row->number, options.words, values)) return;
  SAccountDBMod accounts;
  SAccountMod account;
  bool const set = accounts.ModifyAccount(list.GetUID(), &account) &&
                   (values.Length() > 0 ? account.Set(row->number, values)
                                        : list.Get(row->number).Length() == 0 || account.Delete(row->number));
  if (!set) Fail(command, EX_CANTCREAT, "cannot set " + options.attribute + " of " + options.name);
}

void DeleteList(Command &command, ListOptions const &options) {
  SList list;
  if (!EnterList(command, options.name, list)) return;
  SString const uid = list.GetUID();
  if (uid == kAllMailboxesUID) return Fail(command, EX_NOPERM, "every instance has this list: " + options.name);
  ListCommandModule module;
  for (SString const &id : HeldPostings(uid)) (void)SListActions(&module, uid, S821Address()).Moderate(id, 0);
  if (!SAccountDBMod().DeleteAccount(uid)) return Fail(command, EX_CANTCREAT, "cannot delete the list " + options.name);
  if (!SListState(uid).Remove())
    Fail(command, EX_CANTCREAT, "the list is gone, but not its file listdata/" + ToStd(uid));
}
