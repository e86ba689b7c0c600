// The stories that everything is tried on. Together they take each road of a message and each kind of lasting change.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/alias.h"
#include "brenthaven/listmanager/listmanager.h"
#include "brenthaven/lists/slistactions.h"
#include "brenthaven/mailbox/mailboxdeliver.h"
#include "brenthaven/mailbox/mailboxpath.h"
#include "brenthaven/router/smtprouter.h"
#include "brenthaven/spool/accept.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/store/sdbfile.h"
#include "tests/crash/site.h"

namespace {

using Step = SScenario::Step;

SFate Stored(std::string const &uid) { return {SFate::Kind::kStored, uid}; }
SFate Sent(std::string const &address) { return {SFate::Kind::kSent, address}; }
SFate Reported(std::string const &words) { return {SFate::Kind::kReported, words}; }
SFate Held() { return {SFate::Kind::kHeld, "a person"}; }

constexpr char kFar[] = "sender@far.example";

Step Accept(SScenario const &story, size_t number = 0) {
  return [mail = story.mails.at(number), number](Site &) {
    if (Site::Submit(mail)) calls::Note(static_cast<unsigned>(number));
  };
}
void Round(Site &site) { site.Round(); }
// So little room on the disk that no mailbox takes anything.
void FullDisk(bool full) { full ? setenv("MinFreeDiskSpaceKB", "100000000000", 1) : unsetenv("MinFreeDiskSpaceKB"); }

SScenario Local() {
  SScenario story{"local", {{"one-local", kFar, {"ann@example.org"}, {Stored("ann")}, 6000}}};
  story.steps = {Accept(story), Round};
  return story;
}

// A program that accepts mail and delivers it before it answers: header and body need never become files of the spool.
SScenario InLine() {
  SScenario story{"inline", {{"from-memory", kFar, {"ann@example.org"}, {Stored("ann")}}}};
  story.steps = {[mail = story.mails[0]](Site &) {
    setenv("ModuleName", kModuleSmtpRouter, 1);
    SSMTPRouterModule router;
    if (!router.LoadEnv()) return;
    SControl control;
    control.SetModule(&router);
    control.PutFilename(router.NewMessageID());
    control[kKeyFunction] = kModuleSmtpRouter;
    control[kKeyControlType] = kTypeMail;
    control[kKeyPriority] = kPriorityNew;
    control[kKeyUserFrom] = ChannelSender(S821Address(SString(mail.sender)));
    control[kKeyHostFrom] = LocalSubmissionHost();
    control[kKeyChannelTo] = "SMTP <ann@example.org>";
    SMappedFileWrite header, body;
    header.CreateCached(control.GetHeaderFilename());
    body.CreateCached(control.GetBodyFilename());
    header.Write(SString(mail.Header()));
    body.Write(SString(mail.Body()));
    control.SetHeaderBodyData(&header, &body);
    if (router.ProcessMailControl(control)) calls::Note(0);
  }};
  return story;
}

SScenario Slots() {
  SScenario story{"slots",
                  {{"three-local",
                    kFar,
                    {"ann@example.org", "bob@example.org", "cleo@example.org"},
                    {Stored("ann"), Stored("bob"), Stored("cleo")}}}};
  story.prepare = [](Site &) { Site::SetAccount("bob", "QJ-Judge-Enabled", {"yes"}); };
  story.steps = {Accept(story), Round};
  return story;
}

// More recipients than one pass of the mailbox module takes, which is told to take few.
SScenario Batches() {
  constexpr int kUsers = 10, kBatch = 8;
  SScenario story{"batches", {{"ten-local", kFar, {}, {}}}};
  for (int i = 0; i < kUsers; ++i) {
    std::string const uid = "user" + std::to_string(i);
    story.mails[0].recipients.push_back(uid + "@example.org");
    story.mails[0].fates.push_back(Stored(uid));
  }
  story.prepare = [uids = story.mails[0].fates](Site &) {
    for (SFate const &fate : uids) {
      Site::SetAccount(fate.whom.c_str(), "SMTP-Address", {fate.whom + "@example.org"});
      Site::SetAccount(fate.whom.c_str(), "Local-Delivery", {"Mailbox"});
    }
  };
  Step const round = [](Site &site) {
    SMailboxDeliverModule::SetBatch(kBatch);
    site.Round();
  };
  story.steps = {Accept(story), round, round};
  return story;
}

SScenario Remote() {
  SScenario story{"remote", {{"one-remote", kFar, {"x@host.example"}, {Sent("x@host.example")}, 6000}}};
  story.steps = {Accept(story), Round};
  return story;
}

// Copies for more hosts than go between two writes of the own control, and one host with queues of its own.
SScenario FanOut() {
  SScenario story{"fanout", {{"many-hosts", kFar, {}, {}}}};
  for (int i = 0; i < 25; ++i) {
    std::string const address = "x@h" + std::to_string(i) + ".example";
    story.mails[0].recipients.push_back(address);
    story.mails[0].fates.push_back(Sent(address));
  }
  Step const round = [](Site &site) {
    setenv("QueueDomains", "h3.example:4", 1);
    site.Round();
  };
  story.steps = {Accept(story), round};
  return story;
}

SScenario Mixed() {
  SScenario story{"mixed",
                  {{"all-kinds",
                    kFar,
                    {"ann@example.org", "x@host.example", "nobody@example.org", "x%host.example@example.org"},
                    {Stored("ann"), Sent("x@host.example"), Reported("nobody@example.org"),
                     Reported("x%host.example@example.org")}}}};
  story.steps = {Accept(story), Round, Round};
  return story;
}

// An alias, an account that stands for others, and a list, whose members overlap; the first delivery fails.
SScenario Lists() {
  SScenario story{"lists",
                  {{"to-groups",
                    kFar,
                    {"team@example.org", "all@example.org", "ann@example.org"},
                    {Stored("ann"), Stored("bob"), Stored("cleo")}},
                   {"to-list", "ann@example.org", {"news@example.org"}, {Stored("bob"), Sent("r@host.example")}}}};
  story.prepare = [](Site &site) {
    (void)SAliasDBMod().AddChannelAliases(S821Address("team@example.org"),
                                          SStringList{"<ann@example.org>", "<bob@example.org>"});
    Site::SetAccount("all", "SMTP-Address", {"all@example.org"});
    Site::SetAccount("all", "Account-Delivery", {"ann", "cleo"});
    site.Command({"list", "create", "news", "--owner", "ann"});
    site.Command({"list", "subscribe", "news", "bob@example.org", "r@host.example"});
    for (auto const &directory : {"/control", "/messages"})  // what subscribers are told is another story
      if (system(("rm -f " + site.Root() + directory + "/*.*").c_str()) != 0) abort();
  };
  story.steps = {Accept(story, 0),
                 Accept(story, 1),
                 [](Site &site) {
                   FullDisk(true);
                   site.Round();
                 },
                 [](Site &site) {
                   FullDisk(false);
                   site.Walk();
                 },
                 Round,
                 Round};
  story.mend = [](Site &) { FullDisk(false); };
  return story;
}

SScenario Waits() {
  SScenario story{"waits",
                  {{"no-room-now", kFar, {"ann@example.org"}, {Stored("ann")}},
                   {"no-room-ever",
                    kFar,
                    {"bob@example.org", "cleo@example.org"},
                    {Reported("bob@example.org"), Stored("cleo")},
                    4000}}};
  story.prepare = [](Site &) { Site::SetAccount("bob", "Mailbox-Quota", {"1"}); };
  story.steps = {Accept(story, 0),
                 [](Site &site) {
                   FullDisk(true);
                   site.Round();
                 },
                 Accept(story, 1),
                 [](Site &site) {
                   FullDisk(true);
                   site.Walk();
                 },
                 [](Site &site) {
                   FullDisk(false);
                   site.Walk();
                 },
                 Round,
                 Round};
  story.mend = [](Site &) { FullDisk(false); };
  return story;
}

// Mail of a user here: the header is completed, and archives get copies.
SScenario Archive() {
  SScenario story{"archive",
                  {{"from-here",
                    "ann@example.org",
                    {"bob@example.org", "x@host.example"},
                    {Stored("bob"), Sent("x@host.example"), {SFate::Kind::kArchived, "all@vault.example"}}}}};
  story.prepare = [](Site &) {
    Site::Set("SMTP-Router", "/Header", "Delete", {"X-Mailer"});
    Site::Set("SMTP-Router", "/Header/Add", "Organization", {"Example"});
    Site::Set("SMTP-Router", "/Config", "Archive-Enabled", {"yes"});
    Site::Set("SMTP-Router", "/Config", "Archive-Rule", {"<*@example.org><*><vault.example#2525><all@vault.example>"});
    Site::Set("SMTP-Router", "/Config", "Archive-Header-Enabled", {"yes"});
    Site::Set("Account-Handler", "/Config", "Archive-Enabled", {"yes"});
    Site::SetAccount("bob", "Archive-Rule", {"store.example"});
  };
  story.steps = {Accept(story), Round};
  return story;
}

SScenario Sideline() {
  SScenario story{"sideline",
                  {{"is-held", "x@nodot", {"ann@example.org"}, {Held()}},
                   {"is-returned", "y@nodot", {"ann@example.org"}, {Reported("is-returned")}}}};
  story.prepare = [](Site &site) {
    Site::Set("SMTP-Router", "/Config", "SideLineOnlyHostDomain", {"yes"});
    std::string const folder = site.Root() + "/mailboxes/" + std::string(GetMailboxSubpath("cleo").View()) + "/in";
    if (system(("mkdir -p " + folder + " && printf 'A: b\\r\\n\\r\\nc' > " + folder + "/1").c_str()) != 0) abort();
  };
  story.steps = {Accept(story, 0),
                 Round,
                 [](Site &) {
                   Sdbfile settings("SMTP-Router", 1, kProductWord);
                   if (settings.Open("/Error-Actions", 1)) (void)settings.Set("SideLine", SStringList("return"));
                 },
                 Accept(story, 1),
                 Round,
                 Round,
                 [](Site &site) {
                   setenv("ModuleName", "Account-Tool", 1);
                   SRequest request;
                   request.PutFilename("delete-cleo");
                   request[kKeyFunction] = kModuleMailboxDeliver;
                   request[kKeyControlType] = kTypeRequest;
                   request[kKeyReturnPath] = "9";
                   request["Request-Type:"] = "DeleteAccount";
                   request[kKeyAccountTo] = "cleo";
                   if (!request.WriteUnflushed()) return;
                   site.Round();
                 }};
  return story;
}

// Lasting changes that are no mail. Each is reported as a success of its own, and is there as a whole or not at all.
enum StoreNote : unsigned { kMade = 32, kChanged, kAliased, kSubscribed, kConfigured };
constexpr int kPeople = 60;

SString Person(int i) { return "person" + MakeSString(i); }

void MakePeople(Site &) {
  SAccountDBMod store;
  for (int i = 0; i < kPeople; ++i) {
    SAccountMod account;
    if (!store.ModifyAccount(Person(i), &account)) return;
    if (!account.Set("SMTP-Address", {Person(i) + "@example.org"})) return;
    if (!account.Set("Finger-Info", SString('x', 500))) return;
  }
  if (store.Commit()) calls::Note(kMade);
}
void ChangePeople(Site &) {
  SAccountDBMod store;
  for (int i = 0; i < kPeople; ++i) {
    SAccountMod account;
    if (i % 2 == 0) {
      if (!store.DeleteAccount(Person(i))) return;
    } else if (!store.ModifyAccount(Person(i), &account) ||
               !account.Set("SMTP-Address", {"new" + Person(i) + "@example.org"})) {
      return;
    }
  }
  if (store.Commit()) calls::Note(kChanged);
}
void CheckPeople(Site &site, std::uint64_t notes) {
  SAccountReadScope const scope;
  int there = 0, changed = 0;
  for (int i = 0; i < kPeople; ++i) {
    SAccount account;
    if (!SAccountDB().GetAccountInfo(Person(i), &account)) continue;
    ++there;
    changed += account.Get("SMTP-Address").Get(0).HasPrefix("new");
  }
  bool const isMade = there == kPeople && changed == 0, isChanged = there == kPeople / 2 && changed == kPeople / 2;
  bool const isDone = (notes >> kChanged & 1) != 0 ? isChanged
                      : (notes >> kMade & 1) != 0  ? isMade || isChanged
                                                   : (there == 0 || isMade);
  if (!isDone) site.Problem("accounts: " + std::to_string(there) + ", changed: " + std::to_string(changed));
}

SScenario Stores() {
  SScenario story{"stores", {}};
  story.prepare = [](Site &site) { site.Command({"list", "create", "news", "--owner", "ann"}); };
  story.steps = {MakePeople,
                 ChangePeople,
                 [](Site &) { (void)SAccountDB().BackupDB("", ""); },
                 [](Site &) {
                   SAccountBase::ClearWriteFailed();
                   bool const isSet = SAliasDBMod().AddChannelAliases(S821Address("team@example.org"),
                                                                      SStringList("<ann@example.org>")) != 0;
                   if (isSet && !SAccountBase::WriteFailed()) calls::Note(kAliased);
                 },
                 [](Site &) {
                   setenv("ModuleName", kModuleListManager, 1);
                   SListManagerModule module;
                   SListActions actions(&module, "news", S821Address("bob@example.org"));
                   if (actions.Subscribe(1) == kListSuccess) calls::Note(kSubscribed);
                 },
                 [](Site &) {
                   Sdbfile settings("MTA-Accounts", 1, kProductWord);
                   if (settings.Open("/", 1) && settings.Set("UserLimit", SStringList("1000")))
                     calls::Note(kConfigured);
                 }};
  story.check = [](Site &site, std::uint64_t notes) {
    CheckPeople(site, notes);
    for (char const *file : {"/config/BTAccounts.a.backup", "/config/BTAccounts.i.backup"}) {
      struct stat info;
      if (stat((site.Root() + file).c_str(), &info) == 0 && info.st_size == 0) site.Problem("an empty backup");
    }
    if ((notes >> kAliased & 1) != 0 &&
        SAliasDB().GetChannelAliases(S821Address("team@example.org")).Get(0) != "<ann@example.org>")
      site.Problem("an alias is gone");
    bool const isReader =
        SListDB().GetSubscribedListUIDs(SListDB().GetSubscriberUID(S821Address("bob@example.org"))).Length() > 0;
    if ((notes >> kSubscribed & 1) != 0 && !isReader) site.Problem("a subscriber is gone");
    Sdbfile settings("MTA-Accounts", 0, kProductWord);
    SString const limit = settings.Open("/", 0) != 0 ? settings.Get("UserLimit").Get(0) : SString();
    if (limit != "1000" && (limit != "" || (notes >> kConfigured & 1) != 0)) site.Problem("a setting is gone");
    if (!settings.Get("LocalMailDomains").Contains("example.org")) site.Problem("the settings are gone");
  };
  return story;
}

}  // namespace

std::vector<SScenario> const &AllScenarios() {
  static std::vector<SScenario> const all = {Local(), InLine(), Slots(), Batches(), Remote(),   FanOut(),
                                             Mixed(), Lists(),  Waits(), Archive(), Sideline(), Stores()};
  return all;
}
