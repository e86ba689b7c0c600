// The hand-over of local recipients, in one process, into mailboxes.
#include <cerrno>
#include <cstring>

#include "brenthaven/mailbox/mailboxpath.h"
#include "brenthaven/platform/sys.h"
#include "tests/router/router_fixture.h"

namespace {

class HandOverTest : public RouterTest {
protected:
  HandOverTest() {
    AddAccount("ann", {"ann@example.org"}, {{"Local-Delivery", {"Mailbox"}}});
    AddAccount("bob", {"bob@example.org"}, {{"Local-Delivery", {"Mailbox"}}});
    AddAccount("shelf", {"shelf@example.org"});
    AddAlias("<all@example.org>", {"SMTP <ann@example.org>", "SMTP <bob@example.org>"});
  }
  ~HandOverTest() override { sys::SetHook(nullptr, nullptr); }

  // Stored messages of an account.
  int Stored(char const *uid) const {
    std::string const in = "mailboxes/" + Text(GetMailboxSubpath(uid)) + "/in";
    int stored = 0;
    if (!Exists(in)) return 0;
    for (auto const &file : std::filesystem::directory_iterator(Path(in)))
      stored += isdigit(static_cast<unsigned char>(file.path().filename().string()[0])) ? 1 : 0;
    return stored;
  }
  void Walk() {
    SSMTPRouterModule router;
    ASSERT_EQ(router.LoadEnv(), 1u);
    router.ProcessQueue();
  }
};

TEST_F(HandOverTest, LocalMailEndsInMailboxesWithNothingLeft) {
  Route({"SMTP <all@example.org>", "SMTP <ann@example.org>"});
  EXPECT_EQ(Stored("ann"), 1);
  EXPECT_EQ(Stored("bob"), 1);
  EXPECT_EQ(CountIn("control") + CountIn("messages") + CountIn("deferred"), 0);
}

TEST_F(HandOverTest, HandlerGetsAccountsAndARecordThatKeepsItFromRoutingThemAgain) {
  testing::internal::CaptureStderr();
  PutMessage("m", {"SMTP <ann@example.org>", "FAX +49 1", "SMTP <x@far.example>", "FAX +49 2\n3"});
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone);
  std::string const log = testing::internal::GetCapturedStderr();
  SControl &handed = router.GetControl();
  EXPECT_EQ(List(handed.Get("Account-To:")), Texts{"ann"});
  EXPECT_EQ(List(handed.Get("Channel-To:")), Texts{"SMTP <ann@example.org>"});
  EXPECT_EQ(List(handed.Get("Channel-To!")),
            (Texts{"SMTP <x@far.example>", "FAX +49 1", "FAX +49 2\n3", "SMTP <ann@example.org>"}));
  EXPECT_NE(log.find(":SMTP-Router:No router for this channel:FAX +49 1\n"), std::string::npos) << log;
  EXPECT_NE(log.find(":FAX +49 2\\x0a3\n"), std::string::npos) << log << ": an entry makes no line of its own";
  EXPECT_EQ(Stored("ann"), 1);
  EXPECT_EQ(Controls().size(), 1u) << "the copy for far.example alone";
}

int RefuseMailboxOf(sys::CallInfo const &call, void *part) {
  bool const makes = strcmp(call.name, "mkdir") == 0 || strcmp(call.name, "linkfd") == 0 ||
                     strcmp(call.name, "open") == 0 || strcmp(call.name, "link") == 0;
  return makes && strstr(call.path, static_cast<char const *>(part)) != nullptr ? ENOSPC : 0;
}

// The pass stops in the handler, with the copy for the remote host sent and one of two local recipients served.
// Mail for a postmaster who has no account stays in control/, and is looked at again and again.
TEST_F(HandOverTest, MailThatWaitsForAPostmasterIsNotSentElsewhereAgain) {
  PutMessage("m", {"SMTP <postmaster@example.org>", "SMTP <x@far.example>", "SMTP <nobody@example.org>"});
  for (int run = 0; run < 3; ++run) {
    SSMTPRouterModule router;
    ASSERT_EQ(router.LoadEnv(), 1u);
    EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone);
  }
  EXPECT_EQ(PathsOf("SMTP-Deliver").size(), 1u);
  EXPECT_EQ(PathsOf("Error-Handler").size(), 1u);
  EXPECT_EQ(PathsOf("SMTP-Router"), Texts{"control/m-Control"});
  AddAccount("Postmaster", {"postmaster@example.org"}, {{"Local-Delivery", {"Mailbox"}}});
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone);
  EXPECT_EQ(Stored("Postmaster"), 1);
  EXPECT_EQ(Controls().size(), 2u);
}

TEST_F(HandOverTest, FailedHandOverIsResumedForWhatIsLeft) {
  Dispatcher dispatcher;
  PutMessage("m", {"SMTP <x@far.example>", "SMTP <shelf@example.org>", "SMTP <ann@example.org>",
                   "SMTP <no@example.org>", "FAX +49"});
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  char shelf[] = "-Shelf";
  sys::SetHook(RefuseMailboxOf, shelf);
  EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone);
  sys::SetHook(nullptr, nullptr);
  SControl const waits = ReadControl("deferred/SMTP-Router/m-Control");
  EXPECT_EQ(waits.Get("Function:").Join(), "SMTP-Router");
  EXPECT_EQ(List(waits.Get("Channel-To:")), (Texts{"SMTP <shelf@example.org>", "SMTP <ann@example.org>", "FAX +49"}));
  EXPECT_EQ(List(waits.Get("Channel-To!")), (Texts{"SMTP <x@far.example>", "SMTP <no@example.org>"}));
  EXPECT_FALSE(waits.Get("Account-To:").Defined());
  Walk();
  EXPECT_EQ(Stored("ann"), 1);
  EXPECT_EQ(PathsOf("Shelf-Deliver").size(), 1u);
  EXPECT_EQ(PathsOf("SMTP-Deliver").size(), 1u);
  EXPECT_EQ(PathsOf("Error-Handler").size(), 1u);
  EXPECT_EQ(Controls().size(), 3u);
  EXPECT_EQ(CountIn("deferred"), 0);
  EXPECT_EQ(CountIn("messages"), 6);
}

TEST_F(HandOverTest, MailboxThatCannotBeMadeIsServedByALaterWalk) {
  PutMessage("m", {"SMTP <ann@example.org>", "SMTP <bob@example.org>"});
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  char bob[] = "/bob";
  sys::SetHook(RefuseMailboxOf, bob);
  EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone);
  sys::SetHook(nullptr, nullptr);
  EXPECT_EQ(Stored("ann"), 1);
  EXPECT_EQ(Stored("bob"), 0);
  EXPECT_FALSE(Exists("control/m-Control")) << "the router is done with it";
  SMailboxDeliverModule mailboxes;
  ASSERT_EQ(mailboxes.LoadEnv(), 1u);
  mailboxes.ProcessQueue();
  EXPECT_EQ(Stored("ann"), 1);
  EXPECT_EQ(Stored("bob"), 1);
  EXPECT_EQ(CountIn("deferred") + CountIn("messages"), 0);
}

// Only handlers of other kinds are left: the control stays the account handler's, and the walk tells the dispatcher.
TEST_F(HandOverTest, WhatIsNotTheRoutersIsNotRoutedAgain) {
  Dispatcher dispatcher;
  PutMessage("m", {"SMTP <x@far.example>"}, {"Module-To: Vacation ann"});
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  struct Refuse {
    int renames = 0;
  } refuse;
  sys::SetHook(
      [](sys::CallInfo const &call, void *context) {  // the fan-out's commit passes, the handler's write does not
        if (strcmp(call.name, "rename") != 0 || strstr(call.path, "/m-Control.temp") == nullptr) return 0;
        return ++static_cast<Refuse *>(context)->renames == 2 ? ENOSPC : 0;
      },
      &refuse);
  EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone);
  sys::SetHook(nullptr, nullptr);
  EXPECT_EQ(ReadControl("deferred/SMTP-Router/m-Control").Get("Function:").Join(), "Account-Handler");
  (void)dispatcher.Heard();
  router.ProcessQueue();
  EXPECT_EQ(dispatcher.Heard(), Texts{"m Account-Handler"});
  EXPECT_EQ(PathsOf("SMTP-Deliver").size(), 1u);
}

TEST_F(HandOverTest, OneModuleTakesMessageAfterMessage) {
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  for (int i = 0; i < 3; ++i) {
    PutMessage("m" + std::to_string(i), {"SMTP <ann@example.org>", "SMTP <x@far.example>"});
    EXPECT_EQ(router.ProcessMessageName(Bytes("m" + std::to_string(i))), kModuleDone);
  }
  EXPECT_EQ(Stored("ann"), 3);
  EXPECT_EQ(PathsOf("SMTP-Deliver").size(), 3u);
}

}  // namespace
