// Copies of an account's mail for the archive that it names.
#include <algorithm>
#include <cerrno>
#include <functional>

#include "brenthaven/handler/accounthandler.h"
#include "brenthaven/handler/fanout.h"
#include "tests/mailbox/mail_fixture.h"
#include "tests/platform/callhook.h"

namespace {

class AccountArchiveTest : public MailTest {
protected:
  AccountArchiveTest() {
    setenv("ModuleName", "Account-Handler", 1);
    Config("Account-Handler", "Config", "Archive-Enabled", "yes");
  }
  void PutMail(std::string const &name, Texts const &accounts, Texts const &more = {}) const {
    Texts lines = {"User-From: SMTP <sender@far.example>", "Message-Size: 1"};
    for (std::string const &account : accounts) lines.push_back("Account-To: " + account);
    lines.insert(lines.end(), more.begin(), more.end());
    PutMessage(name, "Account-Handler", lines);
  }
  static void Handle(std::string const &name) {
    SAccountHandlerModule module;
    ASSERT_EQ(module.LoadEnv(), 1u);
    EXPECT_EQ(module.ProcessMessageName(Bytes(name)), kModuleDone);
  }
  // Paths of the controls for a module.
  Texts Of(std::string const &function, std::string const &dir = "control") const {
    Texts paths;
    for (std::string const &file : Files(dir))
      if (Field(dir + "/" + file, "Function:") == Texts{function}) paths.push_back(dir + "/" + file);
    return paths;
  }
  // "host#port: entry", of each copy, sorted.
  Texts Archived() const {
    Texts copies;
    for (std::string const &path : Of("SMTP-Deliver"))
      for (std::string const &entry : Field(path, "Channel-To:"))
        copies.push_back(Field(path, "Host-To:").at(0) + ": " + entry);
    std::sort(copies.begin(), copies.end());
    return copies;
  }
  void ClearSpool() const {
    for (char const *dir : {"mailboxes", "control", "deferred", "messages"}) {
      std::filesystem::remove_all(Path(dir));
      std::filesystem::create_directory(Path(dir));
    }
  }
};

TEST(ArchiveTargetTest, HasAPort) {
  EXPECT_EQ(ArchiveTarget("host"), "host#25");
  EXPECT_EQ(ArchiveTarget("host#2525"), "host#2525");
  for (char const *target : {"", "a b", "a/b", "a\r\nb", "..\\a"}) EXPECT_FALSE(IsArchiveTarget(target)) << target;
}

TEST_F(AccountArchiveTest, AccountsThatNameAnArchiveGetACopyThere) {
  Texts const shelf = {"Shelf"};
  AddAccount("ann", {{"Local-Delivery", shelf}, {"Archive-Rule", {"vault", "other"}}});
  AddAccount("bob", {{"Local-Delivery", shelf}, {"Archive-Rule", {"vault#2525"}}});
  AddAccount("cat", {{"Account-Delivery", {"ann"}}, {"Archive-Rule", {"vault"}}});
  AddAccount("dot", {{"Local-Delivery", shelf}});
  AddAccount("list", {{"Local-Delivery", shelf}, {"List-Name", {"l"}}, {"Archive-Rule", {"vault"}}});
  AddAccount("bad", {{"Local-Delivery", shelf}, {"Archive-Rule", {"../../etc"}}});
  AddAccount("only", {{"Archive-Rule", {"vault"}}});
  struct {
    Texts accounts, want;
    char const *why;
  } const cases[] = {
      {{"ann"}, {"vault#25: SMTP <ann@example.org>"}, "the first rule, with a port"},
      {{"bob", "ann"}, {"vault#2525: SMTP <bob@example.org>", "vault#25: SMTP <ann@example.org>"}, "two archives"},
      {{"cat"}, {"vault#25: SMTP <ann@example.org>", "vault#25: SMTP <cat@example.org>"}, "one copy for both"},
      {{"dot"}, {}, "no rule"},
      {{"list"}, {}, "a list"},
      {{"bad"}, {}, "no host"},
      {{"only"}, {"vault#25: SMTP <only@example.org>"}, "an archive is a delivery"},
      {{"nobody", "ann"}, {"vault#25: SMTP <ann@example.org>"}, "beside an unknown name"},
  };
  for (auto const &c : cases) {
    ClearSpool();
    PutMail("m", c.accounts);
    Handle("m");
    EXPECT_EQ(Archived(), c.want) << c.why;
    EXPECT_EQ(Of("Error-Handler").size(), c.accounts[0] == "nobody" ? 1u : 0u) << c.why;
    for (std::string const &path : Of("SMTP-Deliver")) {
      EXPECT_EQ(Field(path, "User-From:"), Texts{"SMTP <Postmaster@mail.example.org>"});
      for (char const *key : {"Archive-Transfer!", "Archive-To!", "Account-To:"})
        EXPECT_EQ(Field(path, key), Texts{}) << key;
    }
    for (std::string const &path : Of("Shelf-Deliver")) EXPECT_EQ(Field(path, "Archive-To!"), Texts{}) << c.why;
  }
  for (auto const &[key, value] :
       {std::pair("Archive-Header-Enabled", "yes"), {"Archive-Header", "X-Kept"}, {"Mail-From", "<keep@example.org>"}})
    Config("Account-Handler", "Config", key, value);
  ClearSpool();
  PutMail("m", {"ann"});
  Handle("m");
  std::string const copy = Of("SMTP-Deliver").at(0);
  EXPECT_EQ(Field(copy, "User-From:"), Texts{"SMTP <keep@example.org>"});
  EXPECT_EQ(FileBytes("messages/" + copy.substr(8, copy.rfind("-Control") - 8) + "-Header"),
            "Subject: test\r\nX-Kept: mail.example.org\r\n");
  EXPECT_EQ(FileBytes("messages/m-Header"), "Subject: test\r\n");
  Config("Account-Handler", "Config", "Archive-Enabled", "Yes");
  ClearSpool();
  PutMail("m", {"ann"});
  Handle("m");
  EXPECT_EQ(Archived(), Texts{});
}

// On disk the message names its account until the delivery is made: a crash right behind the archive copies must not
// find a message for nobody.
TEST_F(AccountArchiveTest, ArchivingLeavesTheMessageOnDiskAsItWas) {
  AddAccount("ann", {{"Local-Delivery", {"Shelf", "Fax"}}, {"Archive-Rule", {"vault"}}});
  PutMail("m", {"ann"});
  std::string const before = FileBytes("control/m-Control");
  struct Look {
    std::function<std::string()> onDisk;
    std::string atFirstDelivery;
  } look{[this] { return FileBytes("control/m-Control"); }, ""};
  sys::SetHook(
      [](sys::CallInfo const &call, void *context) {
        Look &seen = *static_cast<Look *>(context);
        std::string const name = call.name, path = call.path;
        if (seen.atFirstDelivery.empty() && name == "rename" && path.find("m-Shelf-Control") != std::string::npos)
          seen.atFirstDelivery = seen.onDisk();
        return 0;
      },
      &look);
  Handle("m");
  sys::SetHook(nullptr, nullptr);
  EXPECT_EQ(look.atFirstDelivery, before);
  EXPECT_EQ(Archived().size(), 1u);
}

// Whatever single call fails: once the fault is gone the mailbox and the archive have the message, each once.
TEST_F(AccountArchiveTest, AnySingleFailingCallLosesAndDoublesNothing) {
  AddAccount("ann", {{"Local-Delivery", {"Mailbox"}}, {"Archive-Rule", {"vault"}}});
  Config("Account-Handler", "Config", "Archive-Header-Enabled", "yes");
  int n = 0;
  for (bool reached = true; reached;) {
    ++n;
    ClearSpool();
    PutMail("m", {"ann"});
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
    ASSERT_EQ(Archived(), Texts{"vault#25: SMTP <ann@example.org>"}) << "call " << n;
  }
  EXPECT_GT(n, 40);
}

TEST_F(AccountArchiveTest, FullDiskKeepsTheMessage) {
  AddAccount("ann", {{"Local-Delivery", {"Shelf"}}, {"Archive-Rule", {"vault"}}});
  PutMail("m", {"ann"});
  setenv("MinFreeDiskSpaceKB", "1e15", 1);
  Handle("m");
  EXPECT_EQ(Files("control"), Texts{});
  EXPECT_EQ(Field("deferred/Account-Handler/m-Control", "Account-To:"), Texts{"ann"});
}

// As one message for a router they would go to their accounts again, and from there to the archives again, for ever.
TEST_F(AccountArchiveTest, ManyArchivesInLineAreServedHere) {
  Texts accounts;
  for (int i = 0; i < 21; ++i) {
    std::string const uid = "u" + std::to_string(i);
    AddAccount(uid, {{"Local-Delivery", {"Shelf"}}, {"Archive-Rule", {"v" + std::to_string(i)}}});
    accounts.push_back(uid);
  }
  PutMail("m", accounts);
  SControl control;
  ASSERT_TRUE(control.Read(Bytes(Path("control/m-Control"))));
  SAccountHandlerModule module;
  ASSERT_EQ(module.LoadEnv(), 1u);
  EXPECT_EQ(module.ProcessMailControl(control), 1u);
  EXPECT_EQ(Of("SMTP-Router"), Texts{});
  EXPECT_EQ(Archived().size(), 21u);
}

}  // namespace
