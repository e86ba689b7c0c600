// Whole messages: the tests in front of routing, errors, settings, the queue.
#include <cerrno>
#include <cstring>

#include "brenthaven/platform/sys.h"
#include "tests/router/router_fixture.h"

namespace {

class MessageTest : public RouterTest {
protected:
  MessageTest() { AddAccount("ann", {"ann@example.org"}); }
  ~MessageTest() override { sys::SetHook(nullptr, nullptr); }
};

TEST_F(MessageTest, MessageThatCannotBeRoutedBecomesItsErrorRecord) {
  Texts const good = {"SMTP <ann@example.org>"};
  struct {
    char const *why;
    Texts entries;
    Texts more;
    char const *error;  // null: routed
    char const *text;
  } const cases[] = {
      {"hops at the limit", good, {"MTA-Hops: 35"}, nullptr, ""},
      {"hops above the limit",
       good,
       {"MTA-Hops: 36"},
       "SMTP-Router:ProcessMail (MaxMTAHopCountExceeded)",
       "Maximum Hops: 35"},
      {"hops that are no number", good, {"MTA-Hops: x"}, nullptr, ""},
      {"no entry at all", {}, {}, "SMTP-Router:ProcessAddresses (MissingChannelTo)", ""},
      {"entries of other channels only", {"FAX +49"}, {}, "SMTP-Router:ProcessAddresses (MissingChannelTo)", ""},
  };
  for (auto const &c : cases) {
    Route(c.entries, c.more);
    if (c.error == nullptr) {
      EXPECT_FALSE(Exists("control/m-Control")) << c.why;
      continue;
    }
    SControl const record = ReadControl("control/m-Control");
    EXPECT_EQ(record.Get("Function:").Join(), "Error-Handler") << c.why;
    EXPECT_EQ(record.Get("Error:").Join(), c.error) << c.why;
    EXPECT_EQ(record.Get("Error-Text:").Join(), c.text) << c.why;
    EXPECT_EQ(List(record.Get("Channel-To:")), c.entries) << c.why;
    EXPECT_TRUE(Exists("messages/m-Body")) << c.why;
  }
}

TEST_F(MessageTest, SenderAndSubmittingHostAreTestedBeforeTheRecipients) {
  struct {
    char const *why;
    char const *hostFrom;
    char const *userFrom;
    Texts more;
    char const *error;  // "": routed
    char const *userAfter;
  } const cases[] = {
      {"no host", "Host-From: ", "User-From: SMTP <x@far.example>", {}, "(MissingHostFrom)", "SMTP <x@far.example>"},
      {"null sender", "Host-From: h", "User-From: SMTP<>", {}, "", "SMTP<>"},
      {"null sender with a blank is broken", "Host-From: h", "User-From: SMTP <>", {}, "(InvalidUserFrom)", "SMTP <>"},
      {"broken sender", "Host-From: h", "User-From: SMTP <a@b@c>", {}, "(InvalidUserFrom)", "SMTP <a@b@c>"},
      {"sender without domain", "Host-From: h", "User-From: SMTP <x>", {}, "", "SMTP<x@mail.example.org>"},
      {"sender's bare host", "Host-From: h", "User-From: SMTP <x@host>", {}, "", "SMTP<x@host.example.org>"},
      {"relayed before: as it came", "Host-From: h", "User-From: SMTP <x@host>", {"MTA-Hops: 2"}, "", "SMTP <x@host>"},
      {"routed before: as it came",
       "Host-From: h",
       "User-From: SMTP <x@host>",
       {"Trace: SMTP-Router"},
       "",
       "SMTP <x@host>"},
      {"another module's trace",
       "Host-From: h",
       "User-From: SMTP <x@host>",
       {"Trace: SMTP-Accept"},
       "",
       "SMTP<x@host.example.org>"},
  };
  for (auto const &c : cases) {
    ClearSpool();
    Texts lines = {"Function: SMTP-Router", "Control-Type: Mail", c.hostFrom, c.userFrom,
                   "Channel-To: SMTP <to@far.example>"};
    lines.insert(lines.end(), c.more.begin(), c.more.end());
    PutFile("control/m-Control", Joined(lines, "\r\n") + "\r\n");
    PutFile("messages/m-Header", "Subject: test\r\n");
    PutFile("messages/m-Body", "");
    SSMTPRouterModule router;
    ASSERT_EQ(router.LoadEnv(), 1u);
    EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone) << c.why;
    Texts const left = PathsOf(c.error[0] != '\0' ? "Error-Handler" : "SMTP-Deliver");
    ASSERT_EQ(left.size(), 1u) << c.why;
    SControl const control = ReadControl(left[0]);
    EXPECT_NE(control.Get("Error:").Join().Index(c.error), c.error[0] != '\0' ? -1 : 0) << c.why;
    EXPECT_EQ(control.Get("User-From:").Join(), c.userAfter) << c.why;
  }
  Config("Canonicalize", "no");
  PutMessage("m", {"SMTP <to@far.example>"});
  ClearSpool();
  Route({"SMTP <to@far.example>"});
  EXPECT_EQ(ReadControl(PathsOf("SMTP-Deliver").at(0)).Get("User-From:").Join(), "SMTP <sender@far.example>");
}

TEST_F(MessageTest, HopLimitIsTakenBetweenTwoAndFifty) {
  struct {
    char const *limit;
    int good;
  } const cases[] = {{"1", 35}, {"2", 2}, {"50", 50}, {"51", 35}, {"many", 35}, {"12.9", 12}};
  for (auto const &c : cases) {
    Config("MaximumMTAHops", c.limit);
    for (int more : {0, 1}) {
      Route({"SMTP <ann@example.org>"}, {"MTA-Hops: " + std::to_string(c.good + more)});
      EXPECT_EQ(Exists("control/m-Control"), more == 1) << c.limit << " + " << more;
    }
  }
}

TEST_F(MessageTest, RefusedRecipientsAreReportedOnACopy) {
  Dispatcher dispatcher;
  PutMessage("m", {"SMTP <nobody@example.org>", "SMTP <x%far.example@example.org>"}, {"Deliver-To! Mailbox old"});
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone);
  EXPECT_EQ(CountIn("control"), 2);
  EXPECT_EQ(FileBytes("control/m-Unknown-Control"),
            "Function: Error-Handler\r\nControl-Type: Mail\r\nPriority: 1\r\nUser-From: SMTP<sender@far.example>\r\n"
            "Host-From: far.example [192.0.2.7]\r\nMessage-Size: 1\r\n"
            "Channel-To: SMTP <x%far.example@example.org>\r\n"
            "Error: SMTP-Router:WriteUnknownAcct (Unallowed%Addr)\r\n"
            "Error-Text: SMTP <x%far.example@example.org>\r\nTrace: SMTP-Router\r\n");
  SControl const second = ReadControl("control/m-Unknown1-Control");
  EXPECT_EQ(second.Get("Error:").Join(), "SMTP-Router:WriteUnknownAcct (UnknownAccounts)");
  EXPECT_EQ(second.Get("Error-Text:").Join(), "SMTP <nobody@example.org>");
  EXPECT_EQ(second.Get("Channel-To:").Join(), "SMTP <nobody@example.org>");
  EXPECT_EQ(second.Get("Channel-To!").Join(), "SMTP <x%far.example@example.org>");
  for (char const *name : {"m-Unknown", "m-Unknown1"})
    EXPECT_EQ(FileBytes("messages/" + std::string(name) + "-Body"), "Hello.\r\n");
  EXPECT_FALSE(Exists("messages/m-Body"));
  EXPECT_EQ(dispatcher.Heard(), (Texts{"m-Unknown Error-Handler", "m-Unknown1 Error-Handler"}));
}

int RefuseUnknownCopies(sys::CallInfo const &call, void *name) {
  return strcmp(call.name, static_cast<char const *>(name)) == 0 && strstr(call.path, "-Unknown") != nullptr ? ENOSPC
                                                                                                             : 0;
}

TEST_F(MessageTest, ReportThatCannotBeWrittenKeepsTheRefusedRecipientsAlone) {
  PutMessage("m", {"SMTP <nobody@example.org>", "SMTP <x@far.example>"});
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  char call[] = "rename";
  sys::SetHook(RefuseUnknownCopies, call);
  EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone);
  sys::SetHook(nullptr, nullptr);
  EXPECT_EQ(ReadControl("deferred/SMTP-Router/m-Control").Get("Channel-To:").Join(), "SMTP <nobody@example.org>");
  EXPECT_EQ(CountIn("messages"), 4) << "no files of a report that is not there";
  router.ProcessQueue();
  EXPECT_EQ(ReadControl("control/m-Unknown-Control").Get("Channel-To:").Join(), "SMTP <nobody@example.org>");
  EXPECT_EQ(PathsOf("SMTP-Deliver").size(), 1u);
}

// An account that can't be looked up is not unknown, and a domain that can't be looked up is not remote.
TEST_F(MessageTest, UnreadableStoreDecidesNothing) {
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  std::string const settings = FileBytes("config/registry.sqlite");
  for (bool accounts : {true, false}) {
    ClearSpool();
    PutMessage("m", {"SMTP <ann@example.org>", "SMTP <x@far.example>"});
    if (accounts) {
      sys::SetHook(
          [](sys::CallInfo const &call, void *) { return strstr(call.path, "BTAccounts") != nullptr ? EIO : 0; },
          nullptr);
      SAccountDB().DBReOpen();
    } else {
      PutFile("config/registry.sqlite", std::string(settings.size(), 'x'));
    }
    EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone);
    sys::SetHook(nullptr, nullptr);
    PutFile("config/registry.sqlite", settings);
    SControl const waits = ReadControl("deferred/SMTP-Router/m-Control");
    EXPECT_EQ(List(waits.Get("Channel-To:")), (Texts{"SMTP <ann@example.org>", "SMTP <x@far.example>"}));
    EXPECT_EQ(CountIn("control"), 0);
    SSMTPRouterModule walker;
    ASSERT_EQ(walker.LoadEnv(), 1u);
    walker.ProcessQueue();
    EXPECT_EQ(CountIn("deferred"), 0);
    EXPECT_EQ(PathsOf("SMTP-Deliver").size(), 1u);
    EXPECT_EQ(PathsOf("Shelf-Deliver").size(), 1u);
  }
}

TEST_F(MessageTest, SettingsThatCannotBeOpenedRefuseToStart) {
  char const *verify[] = {"SMTP-Router", "VerifyEnvironment", nullptr};
  EXPECT_EQ(SSMTPRouterModule().Main(verify), kModuleDone);
  EXPECT_EQ(OpenSettings("SMTP-Router", "/").RecursiveDeleteKey("/", "Error-Actions"), 1);
  EXPECT_EQ(SSMTPRouterModule().Main(verify), kModuleNoEnvironment);
  OpenSettings("SMTP-Router", "/Error-Actions");
  EXPECT_EQ(OpenSettings("SMTP-Router", "/").RecursiveDeleteKey("/", "Config"), 1);
  EXPECT_EQ(SSMTPRouterModule().Main(verify), kModuleNoEnvironment);
}

TEST_F(MessageTest, QueueWalkGoesIntoHostDirectoriesAndClearsThem) {
  for (char const *dir : {"", "h.example/", "h.example,3/"}) {
    std::string const name = "q" + std::to_string(strlen(dir));
    PutMessage(name, {"SMTP <ann@example.org>"}, {"Host-To: h.example"});
    std::filesystem::create_directories(Path("deferred/SMTP-Router/" + std::string(dir)));
    std::filesystem::rename(Path("control/" + name + "-Control"),
                            Path("deferred/SMTP-Router/" + std::string(dir) + name + "-Control"));
  }
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  EXPECT_FALSE(router.IsQueuePass());
  router.ProcessQueue();
  EXPECT_TRUE(router.IsQueuePass());
  EXPECT_FALSE(Exists("deferred/SMTP-Router"));
  EXPECT_EQ(PathsOf("Shelf-Deliver").size(), 3u);
}

TEST_F(MessageTest, HalfWrittenControlIsLeftForItsWriter) {
  PutMessage("m", {"SMTP <ann@example.org>"});
  std::string const whole = FileBytes("control/m-Control");
  struct {
    std::string bytes;
    int code;
  } const cases[] = {
      {"", kModuleUnreadable},
      {"Func", kModuleNotMine},
      {"Function: SMTP-Rou", kModuleNotMine},
      {"Function: SMTP-Router\r\nControl-Ty", kModuleUnknownType},
  };
  for (auto const &c : cases) {
    PutFile("control/m-Control", c.bytes);
    SSMTPRouterModule router;
    ASSERT_EQ(router.LoadEnv(), 1u);
    EXPECT_EQ(router.ProcessMessageName("m"), c.code) << c.bytes;
    EXPECT_EQ(FileBytes("control/m-Control"), c.bytes);
    EXPECT_EQ(CountIn("messages"), 2);
  }
}

}  // namespace
