#include "brenthaven/handler/accounthandler.h"

#include "brenthaven/router/smtprouter.h"

#include <gmock/gmock.h>

#include "tests/mailbox/mail_fixture.h"
#include "tests/platform/callhook.h"

namespace {

std::string Joined(Texts const &texts, char const *separator) {
  std::string joined;
  for (std::string const &text : texts) joined += (joined.empty() ? "" : separator) + text;
  return joined;
}

class HandlerTest : public MailTest {
protected:
  HandlerTest() {
    setenv("ModuleName", "Account-Handler", 1);
    for (char const *section : {"Config", "Error-Actions"}) Config("SMTP-Router", section, "Log", "no");
    Config("MTA-Accounts", "", "LocalMailDomains", "example.org");
  }

  void PutMail(std::string const &name, Texts const &lines) const {
    Texts all = {"User-From: SMTP <sender@far.example>", "Host-From: far.example [192.0.2.7]", "Message-Size: 1"};
    all.insert(all.end(), lines.begin(), lines.end());
    PutMessage(name, "Account-Handler", all);
  }
  static int Handle(std::string const &name) {
    SAccountHandlerModule module;
    EXPECT_EQ(module.LoadEnv(), 1u);
    return module.ProcessMessageName(Bytes(name));
  }
  // Every control in a directory, sorted: its name, its function and what it is for.
  //   "m-Shelf Shelf-Deliver: Shelf ann,Shelf bob"
  std::string Controls(std::string const &dir = "control") const {
    Texts controls;
    for (auto const &file : Files(dir)) {
      std::string const path = dir + "/" + file;
      std::string const function = Field(path, "Function:").at(0);
      std::string const error = Joined(Field(path, "Error:"), "");
      char const *key = function.ends_with("-Deliver") && function != "SMTP-Deliver" ? "Deliver-To:" : "Account-To:";
      if (function.ends_with("-Router") || function == "SMTP-Deliver") key = "Channel-To:";
      std::string name = file.substr(0, file.size() - std::string("-Control").size());
      if (function == "SMTP-Deliver") name = Joined(Field(path, "Host-To:"), "");
      controls.push_back(name + " " + (error.empty() ? function : error) + ": " + Joined(Field(path, key), ","));
    }
    std::sort(controls.begin(), controls.end());
    return Joined(controls, "; ");
  }
  void ClearSpool() const {
    for (char const *dir : {"mailboxes", "control", "deferred", "messages"}) {
      std::filesystem::remove_all(Path(dir));
      std::filesystem::create_directory(Path(dir));
    }
  }
};

TEST_F(HandlerTest, AccountsExpandByTheirAttributes) {
  Texts const shelf = {"Shelf"};
  AddAccount("ann", {{"Local-Delivery", shelf}});
  AddAccount("bob", {{"Local-Delivery", {"Shelf", "Fax"}}});
  AddAccount("empty", {{"Local-Delivery", {""}}});
  AddAccount("alias", {{"Account-Delivery", {"bob", "ann", "alias", ""}}});
  AddAccount("ring1", {{"Account-Delivery", {"ring2"}}});
  AddAccount("ring2", {{"Account-Delivery", {"ring1", "ann"}}});
  AddAccount("list", {{"Expanded-Delivery", {"Accounts Subscribed-Lists"}}, {"Subscribed-Lists", {"ann", "bob"}}});
  AddAccount("other",
             {{"Expanded-Delivery",
               {"Accounts Subscribed-Lists list", "Accounts Subscribed-Lists nobody", "Dances all night", ""}}});
  AddAccount("index", {{"Expanded-Delivery", {"Accounts-Index Subscribed-Lists bob"}}});
  AddAccount("leak",
             {{"Expanded-Delivery", {"Accounts Password", "Accounts Raw-Password", "Accounts ProgDel-Password"}},
              {"Raw-Password", {"secret"}},
              {"ProgDel-Password", {"secret"}}});
  AddAccount("nothing");
  AddAccount("evil", {{"Local-Delivery", {"../../x"}}});
  AddAccount("managed", {{"Manager-Delivery", {"List-Manager"}}});
  AddAccount("handled", {{"Handler-Delivery", {"Virus-Check"}}, {"Local-Delivery", shelf}});
  AddAccount("loop", {{"Handler-Delivery", {"Account-Handler"}}});
  AddAccount("fax", {{"Channel-Delivery", {"FAX <123@fax>"}}});
  struct {
    Texts lines;
    char const *want, *why;
  } const kCases[] = {
      {{"Account-To: ann"}, "m Shelf-Deliver: Shelf ann", "one delivery takes the message's own files"},
      {{"Account-To: bob", "Account-To: ann", "Account-To: bob"},
       "m Fax-Deliver: Fax bob; m-Shelf Shelf-Deliver: Shelf ann,Shelf bob",
       "sorted, each once, last agent in place"},
      {{"Account-To: alias"}, "m Fax-Deliver: Fax bob; m-Shelf Shelf-Deliver: Shelf ann,Shelf bob", "alias"},
      {{"Account-To: ring1"}, "m Shelf-Deliver: Shelf ann", "accounts that name each other"},
      {{"Account-To: list"}, "m Fax-Deliver: Fax bob; m-Shelf Shelf-Deliver: Shelf ann,Shelf bob", "own attribute"},
      {{"Account-To: other"},
       "m Fax-Deliver: Fax bob; m-Shelf Shelf-Deliver: Shelf ann,Shelf bob",
       "other's attribute"},
      {{"Account-To: index"}, "m Fax-Deliver: Fax bob; m-Shelf Shelf-Deliver: Shelf ann,Shelf bob", "by the index"},
      {{"Account-To: leak"}, "m Account-Handler:ProcessMail (MissingDelivery): ", "no password is a recipient"},
      {{"Account-To: nothing"}, "m Account-Handler:ProcessMail (MissingDelivery): ", "no delivery at all"},
      {{"Account-To: empty"}, "m Account-Handler:ProcessMail (MissingDelivery): ", "an agent without a name"},
      {{"Account-To: ann", "Deliver-To: Fax x y", "Deliver-To: Shelf bob"},
       "m Shelf-Deliver: Shelf ann,Shelf bob; m-Fax Fax-Deliver: Fax x y",
       "given deliveries come first"},
      {{"Account-To: ann", "Account-To! ann"}, "", "done by an earlier pass, no report"},
      {{"Account-To: ann", "Deliver-To! Shelf ann"}, "m Shelf-Deliver: ", "all done: a control for nobody"},
      {{"Account-To: nobody"}, "m-Unknown Account-Handler:WriteUnknownAcct (UnknownAccounts): nobody", "unknown alone"},
      {{"Account-To: nobody", "Account-To: ann"},
       "m-Shelf Shelf-Deliver: Shelf ann; m-Unknown Account-Handler:WriteUnknownAcct (UnknownAccounts): nobody",
       "unknown beside a known one"},
      {{}, "m Account-Handler:ProcessMail (MissingAccountOrUserTo): ", "nothing to do"},
      {{"Account-To: ann", "Account-To: Postmaster"}, "m Account-Handler: ann,Postmaster", "left as it came"},
      {{"Account-To: managed"}, "m List-Manager: ", "list manager"},
      {{"Manager-To: A", "Manager-To: B", "Manager-To! A"}, "m B: ", "the first that is not done"},
      {{"Account-To: handled"}, "m Virus-Check: ; m-Shelf Shelf-Deliver: Shelf handled", "handler module"},
      {{"Account-To: loop"}, "m Account-Handler:ProcessMail (InvalidHandlerDelivery): ", "handler that is this one"},
      {{"Account-To: fax"}, "m FAX-Router: FAX <123@fax>", "another channel"},
      {{"Channel-To: X <1>", "Channel-To: X <2>", "Channel-To! X <1>"}, "m X-Router: X <2>", "recorded ones stay away"},
      {{"Module-To: M a", "Module-To! M a", "Channel-To: X <1>", "Manager-To: L"},
       "",
       "modules that are all done end the pass, and the message with what else it is for"},
      {{"Channel-To: X <1>", "Channel-To! X <1>", "Manager-To: L"}, "", "so do channels"},
  };
  for (auto const &test : kCases) {
    ClearSpool();
    PutMail("m", test.lines);
    EXPECT_EQ(Handle("m"), kModuleDone);
    EXPECT_EQ(Controls(), test.want) << test.why;
    EXPECT_EQ(Files("deferred"), Texts{}) << test.why;
    size_t const controls = Files("control").size();
    EXPECT_EQ(Files("messages").size(), 2 * controls) << test.why << ": each control has its own two files";
  }
  ClearSpool();
  PutMail("m", {"Account-To: evil"});
  Handle("m");
  EXPECT_EQ(Controls("deferred"), "Account-Handler/m Account-Handler: evil") << "an agent's name is part of a path";
}

TEST_F(HandlerTest, CopiesAreForTheirAgentAlone) {
  AddAccount("ann", {{"Local-Delivery", {"Shelf"}}, {"Handler-Delivery", {"Check"}}});
  PutMail("m", {"Account-To: ann", "Channel-To: X <1>", "Channel-To! Y <2>", "Manager-To: L", "Manager-To! K",
                "Module-To! N b", "Trace: Account-Handler", "Trace: Other", "Trace: Account-Handler"});
  Handle("m");
  ASSERT_TRUE(Exists("control/m.2-Shelf-Control")) << "named by the number of earlier passes";
  for (char const *key : {"Account-To:", "Account-To!", "Manager-To:", "Manager-To!", "Channel-To:", "Channel-To!",
                          "Module-To:", "Module-To!"})
    EXPECT_EQ(Field("control/m.2-Shelf-Control", key), Texts{}) << key;
  EXPECT_EQ(FileBytes("messages/m.2-Shelf-Body"), "Hello.\r\n");
  EXPECT_EQ(Field("control/m-Control", "Function:"), Texts{"Check"});
  EXPECT_EQ(Field("control/m-Control", "Account-To:"), Texts{});
  EXPECT_EQ(Field("control/m-Control", "Account-To!"), Texts{"ann"});
  EXPECT_EQ(Field("control/m-Control", "Module-To:"), Texts{"Check ann"});
  EXPECT_EQ(Field("control/m-Control", "Deliver-To!"), Texts{"Shelf ann"});
}

TEST_F(HandlerTest, SmallMailboxDeliveriesRunInThisProcess) {
  Texts const uids = {"a", "b", "c", "d"};
  for (std::string const &uid : uids) AddAccount(uid, {{"Local-Delivery", {"Mailbox"}}});
  struct {
    size_t accounts;
    char const *size, *recipients, *kbytes;
    bool here;
    char const *why;
  } const kCases[] = {
      {3, "100", "", "", true, "up to three recipients"},
      {4, "100", "", "", false, "four"},
      {4, "100", "4", "", true, "four where the setting says so"},
      {3, "25599", "0", "0", true, "just below the bound on the size"},
      {3, "25600", "", "", false, "exactly on it"},
      {1, "10", "", "20", false, "exactly on a bound of one's own"},
      {1, "10", "", "21", true, "below it"},
      {1, "no number", "", "1", true, "no size"},
  };
  for (auto const &test : kCases) {
    ClearSpool();
    setenv("MaxDirectDelivery", test.recipients, 1);
    setenv("MaxDirectKbytes", test.kbytes, 1);
    Texts lines;
    for (size_t i = 0; i < test.accounts; ++i) lines.push_back("Account-To: " + uids[i]);
    PutMail("m", lines);
    PutFile("control/m-Control", [&] {
      std::string text = FileBytes("control/m-Control");
      return text.replace(text.find("Size: 1") + 6, 1, test.size);
    }());
    Handle("m");
    EXPECT_EQ(Stored("a").size(), test.here ? 1u : 0u) << test.why;
    EXPECT_EQ(Controls().empty(), test.here) << test.why;
    if (!test.here) Deliver("m");
    for (size_t i = 0; i < test.accounts; ++i) EXPECT_EQ(Stored(uids[i]), Texts{Plain()}) << test.why;
    EXPECT_EQ(Files("messages"), Texts{}) << test.why;
  }
}

TEST_F(HandlerTest, WaitingRecipientKeepsACopyOfItsOwn) {
  AddAccount("ann", {{"Local-Delivery", {"Mailbox", "Shelf"}}});
  PutMail("m", {"Account-To: ann", "Deliver-To: Mailbox late"});
  Handle("m");
  EXPECT_EQ(Field("deferred/Mailbox-Deliver/m-Mailbox-Control", "Deliver-To:"), Texts{"Mailbox late"});
  EXPECT_EQ(Field("control/m-Control", "Deliver-To:"), Texts{"Shelf ann"});
  AddAccount("late");
  SMailboxDeliverModule().ProcessQueue();
  EXPECT_EQ(Stored("late"), Texts{Plain()});
  EXPECT_EQ(Stored("ann"), Texts{Plain()});
}

// A disk without room is found only after the copy was made in memory: it must be in a file before it waits, as the
// message that it came from goes.
TEST_F(HandlerTest, FullDiskInThisProcessKeepsEveryRecipient) {
  for (bool alone : {true, false}) {
    ClearSpool();
    AddAccount("ann", {{"Local-Delivery", alone ? Texts{"Mailbox"} : Texts{"Mailbox", "Shelf"}}});
    PutMail("m", {"Account-To: ann"});
    setenv("MinFreeDiskSpaceKB", "1e15", 1);
    EXPECT_EQ(Handle("m"), kModuleDone);
    std::string const waiting =
        alone ? "deferred/Mailbox-Deliver/m-Control" : "deferred/Mailbox-Deliver/m-Mailbox-Control";
    EXPECT_EQ(Field(waiting, "Deliver-To:"), Texts{"Mailbox ann"}) << alone;
    EXPECT_EQ(Field(waiting, "Function:"), Texts{"Mailbox-Deliver"}) << alone;
    EXPECT_EQ(Controls(), alone ? "" : "m Shelf-Deliver: Shelf ann") << alone;
    unsetenv("MinFreeDiskSpaceKB");
    SMailboxDeliverModule().ProcessQueue();
    EXPECT_EQ(Stored("ann"), Texts{Plain()}) << alone;
  }
}

// Accounts with a judge of their own have a file of their own. One that can't be made ends the delivery, and what was
// stored from the other by then is done, and the rest is not.
TEST_F(HandlerTest, DeliveryThatEndsAmidItsListKeepsTheRest) {
  AddAccount("ann");
  AddAccount("bob", {{"QJ-Judge-Enabled", {"yes"}}});
  AddAccount("carl");
  PutMail("m", {"Deliver-To: Mailbox ann", "Deliver-To: Mailbox bob", "Deliver-To: Mailbox carl"});
  {
    SAccountHandlerModule module;
    ASSERT_EQ(module.LoadEnv(), 1u);
    std::string const target = Folder("bob");
    struct Context {
      std::string folder;
      int refusals;
    } context = {target.substr(0, target.size() - 1), 1};
    sys::SetHook(
        [](sys::CallInfo const &call, void *data) {
          auto *const fault = static_cast<Context *>(data);
          return std::string(call.name) == "mkdir" && std::string_view(call.path).ends_with(fault->folder) &&
                         fault->refusals-- > 0
                     ? EACCES
                     : 0;
        },
        &context);
    EXPECT_EQ(module.ProcessMessageName("m"), kModuleDone);
    sys::SetHook(nullptr, nullptr);
    EXPECT_LT(context.refusals, 1);
  }
  EXPECT_EQ(Reports(), Texts{"Mailbox-Deliver:SubstanceFile (NotDefined)"});
  EXPECT_EQ(Field("deferred/Mailbox-Deliver/m-Control", "Deliver-To:"), (Texts{"Mailbox bob", "Mailbox carl"}));
  EXPECT_EQ(Field("deferred/Mailbox-Deliver/m-Control", "Deliver-To!"), Texts{"Mailbox ann"});
  SMailboxDeliverModule().ProcessQueue();
  for (char const *uid : {"ann", "bob", "carl"}) EXPECT_EQ(Stored(uid), Texts{Plain()}) << uid;
}

// A report on names that nobody has, which can't be written, is no report: the names stay to be looked up.
TEST_F(HandlerTest, ReportThatCannotBeWrittenKeepsTheUnknownName) {
  AddAccount("ann", {{"Local-Delivery", {"Shelf"}}});
  PutMail("m", {"Account-To: ann", "Account-To: nobody"});
  {
    SAccountHandlerModule module;
    ASSERT_EQ(module.LoadEnv(), 1u);
    sys::SetHook(
        [](sys::CallInfo const &call, void *) {
          return std::string(call.name) == "rename" && std::string(call.path).ends_with("m-Unknown-Control.temp")
                     ? ENOSPC
                     : 0;
        },
        nullptr);
    EXPECT_EQ(module.ProcessMessageName("m"), kModuleDone);
    sys::SetHook(nullptr, nullptr);
  }
  EXPECT_THAT(Field("deferred/Account-Handler/m-Control", "Account-To:"), testing::Contains("nobody"));
  EXPECT_FALSE(Exists("control/m-Unknown-Control"));
  EXPECT_FALSE(Exists("messages/m-Unknown-Header"));
}

// It is the end of the message all the same, since a module that has served its entry passes on no others.
TEST_F(HandlerTest, EntriesThatEndWithTheirMessageAreLogged) {
  struct {
    Texts lines;
    std::string left;
  } const rows[] = {
      {{"Module-To: A-Handler x", "Module-To! A-Handler x", "Channel-To: SMTP <a@far.example>",
        "Manager-To: B-Manager"},
       "SMTP <a@far.example>,B-Manager"},
      {{"Channel-To: SMTP <a@b>", "Channel-To! SMTP <a@b>", "Manager-To: B-Manager"}, "B-Manager"},
      {{"Channel-To: SMTP <a@b>", "Channel-To! SMTP <a@b>", "Manager-To: B-Manager", "Manager-To! B-Manager"}, ""},
  };
  for (auto const &[lines, left] : rows) {
    PutMail("m", lines);
    testing::internal::CaptureStderr();
    EXPECT_EQ(Handle("m"), kModuleDone);
    std::string const log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(log.substr(std::min(log.find(':'), log.size())),
              left.empty() ? "" : ":Account-Handler:Not handed on:m:" + left + "\n");
    EXPECT_EQ(Files("control"), Texts{});
  }
}

TEST_F(HandlerTest, CopyOfAnEarlierPassIsNotOverwritten) {
  AddAccount("ann", {{"Local-Delivery", {"Shelf"}}});
  for (int pass = 0; pass < 2; ++pass) {
    PutMail("m", {"Account-To: ann", "Account-To: nobody"});
    Handle("m");
  }
  EXPECT_EQ(Controls(),
            "m-Shelf Shelf-Deliver: Shelf ann; m-Shelf1 Shelf-Deliver: Shelf ann; "
            "m-Unknown Account-Handler:WriteUnknownAcct (UnknownAccounts): nobody; "
            "m-Unknown1 Account-Handler:WriteUnknownAcct (UnknownAccounts): nobody");
}

TEST_F(HandlerTest, UnreadableStoreIsNoUnknownAccount) {
  AddAccount("ann", {{"Local-Delivery", {"Shelf"}}});
  PutMail("m", {"Account-To: ann", "Account-To: bob"});
  {
    SAccountHandlerModule module;
    ASSERT_EQ(module.LoadEnv(), 1u);
    SCallHook const hook("lock", 1, ENOLCK);
    EXPECT_EQ(module.ProcessMessageName("m"), kModuleDone);
  }
  EXPECT_EQ(Controls(), "");
  EXPECT_EQ(Field("deferred/Account-Handler/m-Control", "Account-To:"), (Texts{"ann", "bob"}));
  EXPECT_EQ(Field("deferred/Account-Handler/m-Control", "Account-To!"), Texts{});
}

// Whatever single call fails: once the fault is gone each recipient has the message, the mailbox and the shelf once,
// and the unknown name is reported.
TEST_F(HandlerTest, AnySingleFailingCallLosesAndDoublesNothing) {
  AddAccount("ann", {{"Local-Delivery", {"Mailbox"}}});
  AddAccount("bob", {{"Local-Delivery", {"Shelf"}}});
  AddAccount("both", {{"Account-Delivery", {"ann", "bob", "nobody"}}});
  int n = 0;
  for (bool reached = true; reached;) {
    ++n;
    ClearSpool();
    PutMail("m", {"Account-To: both"});
    testing::internal::CaptureStderr();
    {
      SAccountHandlerModule module;
      ASSERT_EQ(module.LoadEnv(), 1u);
      SCallHook const hook("", n, ENOSPC);
      (void)module.ProcessMessageName("m");
      reached = hook.Total() >= n;
    }
    for (int walk = 0; walk < 3; ++walk) {
      if (Exists("control/m-Control")) Handle("m");
      SAccountHandlerModule().ProcessQueue();
      SMailboxDeliverModule().ProcessQueue();
    }
    (void)testing::internal::GetCapturedStderr();
    ASSERT_EQ(Stored("ann"), Texts{Plain()}) << "call " << n;
    std::string const controls = Controls();
    size_t shelves = 0;
    for (size_t at = 0; (at = controls.find(": Shelf bob", at)) != std::string::npos; ++at) ++shelves;
    ASSERT_EQ(shelves, 1u) << controls << ", call " << n;
    ASSERT_NE(controls.find("(UnknownAccounts): nobody"), std::string::npos) << controls << ", call " << n;
  }
  EXPECT_GT(n, 60);
}

TEST_F(HandlerTest, ForwardToAnAddressGoesBackThroughARouter) {
  AddAccount("ann", {{"Local-Delivery", {"Shelf"}},
                     {"Channel-Delivery", {"SMTP <ann@far.example>", "SMTP <bob@example.org>"}}});
  AddAccount("bob", {{"Local-Delivery", {"Shelf"}}, {"Channel-Delivery", {"SMTP <ann@example.org>"}}});
  PutMail("m", {"Account-To: ann", "Channel-To: SMTP <ann@example.org>", "Channel-To! SMTP <ann@example.org>"});
  Handle("m");
  std::string const controls = Controls();
  EXPECT_NE(controls.find("far.example SMTP-Deliver: SMTP <ann@far.example>"), std::string::npos) << controls;
  EXPECT_NE(controls.find("Shelf-Deliver: Shelf ann"), std::string::npos) << controls;
  EXPECT_NE(controls.find("Shelf-Deliver: Shelf bob"), std::string::npos) << controls;
  EXPECT_EQ(Files("control").size(), 3u) << controls << ": the ring ends";
  EXPECT_EQ(Files("messages").size(), 6u);
}

// The router that the handler runs writes the message's own control, which no longer names the accounts that this pass
// has expanded: the copies for their agents must be on disk by then.
TEST_F(HandlerTest, CopiesAreOnDiskBeforeARouterShortensTheControl) {
  setenv("SpoolSync", "fsync", 1);
  AddAccount("ann", {{"Local-Delivery", {"Shelf"}}, {"Channel-Delivery", {"SMTP <ann@far.example>"}}});
  PutMail("m", {"Account-To: ann"});
  SAccountHandlerModule module;
  ASSERT_EQ(module.LoadEnv(), 1u);
  struct Order {
    std::string opened;  // the file that the next flush is for
    bool flushed = false, flushedAtWrite = false, written = false;
  } order;
  sys::SetHook(
      [](sys::CallInfo const &call, void *context) {
        Order &seen = *static_cast<Order *>(context);
        std::string const name = call.name, path = call.path;
        if (name == "open") seen.opened = path;
        if (name == "fsync" && seen.opened.ends_with("/m-Shelf-Control")) seen.flushed = true;
        if (name == "rename" && path.ends_with("/m-Control.temp") && !seen.written) {
          seen.written = true;
          seen.flushedAtWrite = seen.flushed;
        }
        return 0;
      },
      &order);
  EXPECT_EQ(module.ProcessMessageName("m"), kModuleDone);
  sys::SetHook(nullptr, nullptr);
  EXPECT_TRUE(order.written);
  EXPECT_TRUE(order.flushedAtWrite);
}

TEST_F(HandlerTest, LongChainOfForwardsGoesOnByFile) {
  constexpr int kLinks = 30;
  for (int i = 0; i < kLinks; ++i)
    AddAccount("u" + std::to_string(i), {{"Channel-Delivery", {"SMTP <u" + std::to_string(i + 1) + "@example.org>"}}});
  AddAccount("u" + std::to_string(kLinks), {{"Local-Delivery", {"Shelf"}}});
  PutMail("m", {"Account-To: u0"});
  Handle("m");
  EXPECT_NE(Controls().find("m SMTP-Router: "), std::string::npos) << "not all in one nest of routers";
  for (int run = 0; run < kLinks && Exists("control/m-Control"); ++run) {
    SSMTPRouterModule router;
    ASSERT_EQ(router.LoadEnv(), 1u);
    ASSERT_EQ(router.ProcessMessageName("m"), kModuleDone);
  }
  EXPECT_EQ(Controls(), "m.30-Shelf Shelf-Deliver: Shelf u30");
}

}  // namespace
