// Copies for remote hosts.
#include <cerrno>
#include <cstring>
#include <functional>

#include "brenthaven/mailbox/mailboxpath.h"
#include "brenthaven/platform/sys.h"
#include "tests/router/router_fixture.h"

namespace {

// Fails one call of a name, on a path that holds a text, behind so many that pass.
struct Fault {
  char const *call;
  char const *path;
  int passes;
  int error = ENOSPC;
};
int FailCall(sys::CallInfo const &call, void *context) {
  Fault &fault = *static_cast<Fault *>(context);
  if (strcmp(call.name, fault.call) != 0 || strstr(call.path, fault.path) == nullptr) return 0;
  return fault.passes-- == 0 ? fault.error : 0;
}

class FanOutTest : public RouterTest {
protected:
  ~FanOutTest() override { sys::SetHook(nullptr, nullptr); }
  static Texts Hosts(int count) {
    Texts entries;
    for (int i = 0; i < count; ++i) entries.push_back("SMTP <x@h" + std::to_string(i) + ".example>");
    return entries;
  }
  // Runs message "m", which the router can't finish, and gives its deferred control.
  SControl RunAndDefer(Fault fault) {
    SSMTPRouterModule router;
    EXPECT_EQ(router.LoadEnv(), 1u);
    sys::SetHook(FailCall, &fault);
    EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone);
    sys::SetHook(nullptr, nullptr);
    return ReadControl("deferred/SMTP-Router/m-Control");
  }
  void WalkQueue() {
    SSMTPRouterModule router;
    EXPECT_EQ(router.LoadEnv(), 1u);
    router.ProcessQueue();
  }
};

TEST_F(FanOutTest, CopyHasTheMessagesFilesAndNothingOfTheOthers) {
  PutMessage("m", {"SMTP <x@one.example>", "SMTP <y@two.example>"},
             {"Channel-To! SMTP <old@one.example>", "Account-To! ann", "Deliver-To! Mailbox ann"});
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone);
  Texts const copies = PathsOf("SMTP-Deliver");
  ASSERT_EQ(copies.size(), 2u);
  for (std::string const &path : copies) {
    bool const one = FileBytes(path).find("one.example") != std::string::npos;
    EXPECT_EQ(FileBytes(path),
              "Function: SMTP-Deliver\r\nControl-Type: Mail\r\nPriority: 1\r\nUser-From: SMTP<sender@far.example>\r\n"
              "Host-From: far.example [192.0.2.7]\r\nMessage-Size: 1\r\n" +
                  std::string(one ? "Host-To: one.example\r\nChannel-To: SMTP <x@one.example>\r\n"
                                  : "Host-To: two.example\r\nChannel-To: SMTP <y@two.example>\r\n") +
                  "Trace: SMTP-Router\r\n");
    std::string const name = path.substr(8, path.rfind("-Control") - 8);
    EXPECT_EQ(FileBytes("messages/" + name + "-Header"), "Subject: test\r\n");
    EXPECT_EQ(FileBytes("messages/" + name + "-Body"), "Hello.\r\n");
  }
  EXPECT_EQ(CountIn("control"), 2);  // the incoming control is gone, and its files with it
  EXPECT_EQ(CountIn("messages"), 4);
}

TEST_F(FanOutTest, TwentyOneHostsAreTwoBatchesEachAnnouncedOnce) {
  Dispatcher dispatcher;
  PutMessage("m", Hosts(21));
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  struct Commits {
    std::vector<int> copiesAtCommit;
    std::function<int()> copies;
  } commits{{}, [this] { return CountIn("messages") / 2 - 1; }};
  sys::SetHook(
      [](sys::CallInfo const &call, void *context) {
        Commits &seen = *static_cast<Commits *>(context);
        if (strcmp(call.name, "rename") == 0 && strstr(call.path, "/m-Control") != nullptr)
          seen.copiesAtCommit.push_back(seen.copies());
        return 0;
      },
      &commits);
  EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone);
  sys::SetHook(nullptr, nullptr);
  EXPECT_EQ(commits.copiesAtCommit, (std::vector<int>{20, 21}));
  EXPECT_EQ(PathsOf("SMTP-Deliver").size(), 21u);
  EXPECT_EQ(dispatcher.Heard().size(), 21u);
  EXPECT_EQ(CountIn("messages"), 42);
}

TEST_F(FanOutTest, HostsWithAQueueOfTheirOwnAreDeferredThere) {
  Dispatcher dispatcher;
  setenv("QueueDomains", "one.example:4,two.example:0,three.example:x", 1);
  PutMessage("m", {"SMTP <x@one.example>", "SMTP <x@two.example>", "SMTP <x@three.example>", "SMTP <x@four.example>"});
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone);
  for (std::string const host : {"one.example", "two.example", "three.example"}) {
    int copies = 0;
    for (int bucket = 0; bucket < 4; ++bucket) {
      std::string const queue = "deferred/SMTP-Deliver/" + host + "," + std::to_string(bucket);
      for (std::string const &path : PathsOf("SMTP-Deliver", queue)) {
        ++copies;
        SControl const copy = ReadControl(path);
        EXPECT_EQ(BucketHash(copy.GetFilename(), host == "one.example" ? 4 : 1), bucket);
        EXPECT_EQ(copy.Get("Defer-Reason:").Join(), "Channeled Relay");
        EXPECT_EQ(copy.Get("Host-To:").Join(), host.c_str());
      }
    }
    EXPECT_EQ(copies, 1) << host;
  }
  Texts const direct = PathsOf("SMTP-Deliver");
  ASSERT_EQ(direct.size(), 1u);
  EXPECT_FALSE(ReadControl(direct[0]).Get("Defer-Reason:").Defined());
  EXPECT_EQ(dispatcher.Heard().size(), 1u) << "a walk finds the others";
}

TEST_F(FanOutTest, FailedWriteUndoesItsBatchAndOnlyThatIsDoneAgain) {
  struct {
    char const *why;
    Fault fault;
    int sent;
  } const cases[] = {
      {"third copy can't be written", {"open", "@mail.example.org-Control", 2}, 0},
      {"22nd copy can't be renamed into place", {"rename", "@mail.example.org-Control", 21}, 20},
      {"second commit refused", {"rename", "/m-Control.temp", 1}, 20},
  };
  for (auto const &c : cases) {
    ClearSpool();
    PutMessage("m", Hosts(25));
    SControl const left = RunAndDefer(c.fault);
    EXPECT_EQ(static_cast<int>(PathsOf("SMTP-Deliver").size()), c.sent) << c.why;
    EXPECT_EQ(CountIn("messages"), 2 * (c.sent + 1)) << c.why;
    EXPECT_EQ(left.Get("Channel-To:").Length(), 25 - c.sent) << c.why;
    EXPECT_EQ(left.Get("Channel-To!").Length(), c.sent) << c.why;
    EXPECT_EQ(left.Get("Function:").Join(), "SMTP-Router");
    WalkQueue();
    EXPECT_EQ(PathsOf("SMTP-Deliver").size(), 25u) << c.why;
    EXPECT_EQ(CountIn("messages"), 50) << c.why;
    EXPECT_EQ(CountIn("deferred"), 0) << c.why;
  }
}

TEST_F(FanOutTest, FullDiskKeepsTheMessage) {
  PutMessage("m", {"SMTP <x@far.example>"});
  setenv("MinFreeDiskSpaceKB", "1e15", 1);
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone);
  EXPECT_TRUE(PathsOf("SMTP-Deliver").empty());
  EXPECT_EQ(ReadControl("deferred/SMTP-Router/m-Control").Get("Channel-To:").Join(), "SMTP <x@far.example>");
}

// Within the account handler a large fan-out goes to a router process of its own.
TEST_F(FanOutTest, LargeFanOutInLineIsPassedOn) {
  for (int hosts : {20, 21}) {
    ClearSpool();
    PutMessage("m", Hosts(hosts), {"Trace: SMTP-Router"});
    SControl control = ReadControl("control/m-Control");
    SSMTPRouterModule router;
    ASSERT_EQ(router.LoadEnv(), 1u);
    EXPECT_EQ(router.ProcessMailControl(control), 1u);
    EXPECT_EQ(PathsOf("SMTP-Deliver").size(), hosts == 20 ? 20u : 0u);
    Texts const passedOn = PathsOf("SMTP-Router");
    ASSERT_EQ(passedOn.size(), hosts == 20 ? 0u : 1u);
    for (std::string const &path : passedOn) EXPECT_EQ(List(ReadControl(path).Get("Channel-To:")), Hosts(21));
  }
}

TEST_F(FanOutTest, OneBarrierBeforeTheMessageGoes) {
  setenv("SpoolSync", "auto", 1);
  PutMessage("m", Hosts(5));
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  struct Order {
    int barriers = 0;
    int barriersAtRemoval = -1;
  } order;
  sys::SetHook(
      [](sys::CallInfo const &call, void *context) {
        Order &seen = *static_cast<Order *>(context);
        if (strcmp(call.name, "syncfs") == 0) ++seen.barriers;
        if (strcmp(call.name, "unlink") == 0 && strstr(call.path, "/m-Control") != nullptr &&
            strstr(call.path, ".temp") == nullptr)
          seen.barriersAtRemoval = seen.barriers;
        return 0;
      },
      &order);
  EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone);
  EXPECT_EQ(order.barriersAtRemoval, 1);
  EXPECT_EQ(order.barriers, 1);
}

TEST_F(FanOutTest, FailedBarrierKeepsEveryRecipient) {
  Dispatcher dispatcher;
  setenv("SpoolSync", "auto", 1);
  PutMessage("m", Hosts(5));
  SControl const left = RunAndDefer({"syncfs", "", 0, EIO});
  EXPECT_EQ(List(left.Get("Channel-To:")), Hosts(5));
}

}  // namespace
