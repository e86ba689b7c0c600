// The sideline judge: which rule hits, what it costs, what it logs, and what becomes of the message.
#include <cerrno>
#include <cstring>
#include <regex>

#include "brenthaven/platform/sys.h"
#include "brenthaven/spool/returned.h"
#include "tests/router/router_fixture.h"
#include "tests/support/nameserver.h"

namespace {

class JudgeTest : public RouterTest {
protected:
  JudgeTest() {
    AddAccount("ann", {"ann@example.org"});
    for (char const *name : {"InternalMxServerIP", "ExternalMxServerIP", "DefaultBlockListZone"}) unsetenv(name);
    setenv("DnsStrict", "yes", 1);  // a port where nobody listens is known at once
  }
  ~JudgeTest() override { sys::SetHook(nullptr, nullptr); }

  static void Action(Texts const &values) { Setting("SMTP-Router", "/Error-Actions", "SideLine", values); }
  static void Filters(Texts const &lines) {
    Config("SideLineDetail", "yes");
    Setting("SMTP-Router", "/Config", "SideLineDetailFilters", lines);
  }
  static void UseServer(char const *address) {
    setenv("InternalMxServerIP", address, 1);
    PointResolverAt(address);
  }
  static void Run(char const *name) {
    SSMTPRouterModule router;
    ASSERT_EQ(router.LoadEnv(), 1u);
    EXPECT_EQ(router.ProcessMessageName(name), kModuleDone);
  }

  // The reason why a message from a sender is held; empty when it is routed.
  std::string Verdict(std::string const &from, Texts const &more = {}) {
    sender = from;
    Route(entries, more);
    return Exists("deferred/Sideline/m-Control")
               ? Text(ReadControl("deferred/Sideline/m-Control").Get("Error-Text:").Join("|"))
               : "";
  }
  // The same for a message in front of the judge alone, with the rules of these keys on.
  static std::string Judged(Texts const &rules, std::string const &from, Texts const &more = {}) {
    SNamedStringList config;
    for (std::string const &rule : rules) config[Bytes(rule)] = "yes";
    config["SideLineRBLServer"] = "list.example";
    SSidelineSettings settings;
    settings.Load(config);
    SControl control;
    Bytes("User-From: " + from + "\r\n" + Joined(more, "\r\n") + "\r\n") >> control;
    SString reason;
    unsigned int const passes = SSidelineJudge().Judge(control, settings, reason);
    EXPECT_EQ(passes, reason.Length() == 0 ? 1u : 0u);
    return Text(reason);
  }

  Texts entries = {"SMTP <ann@example.org>"};
};

// Log lines without their dates.
std::string Undated(std::string const &log) {
  return std::regex_replace(log, std::regex("(^|\n)[0-9]{14}[+-][0-9]{4}:"), "$1");
}

constexpr char kNull[] = "MAIL FROM <> Sidelining";
constexpr char kNoDomain[] = "No Domain Name Sidelining";
constexpr char kHostOnly[] = "illegal domain name, Sidelining";
constexpr char kIp[] = "Host name is IP Address, Sidelining";
constexpr char kLookup[] = "Host name lookup fail, Sidelining";
constexpr char kMx[] = "Host name MX lookup fail, Sidelining";
constexpr char kMany[] = "number of recipients, Sidelining";
constexpr char kManyInOne[] = "number of recipients in one tcp connection, Sidelining";
constexpr char kListed[] = "RBL true, Sidelining";

TEST_F(JudgeTest, RulesOnTheSender) {
  struct Case {
    char const *rule, *sender, *reason;
  };
  for (Case const &c :
       {Case{"NullAddress", "SMTP<>", kNull}, Case{"NullAddress", "SMTP < >", kNull}, Case{"NullAddress", "<a@b>", ""},
        Case{"NullAddress", "SMTP <a@b@c>", ""}, Case{"NoDomainAddress", "SMTP<>", ""},
        Case{"NoDomainAddress", "<a>", kNoDomain}, Case{"NoDomainAddress", "<a@b@c>", kNoDomain},
        Case{"NoDomainAddress", "<a@b>", ""}, Case{"NoDomainAddress", "<\"a b\"@c.d>", ""},
        Case{"OnlyHostDomain", "<a@b>", kHostOnly}, Case{"OnlyHostDomain", "<a@b.c>", ""},
        Case{"OnlyHostDomain", "<a@[10.0.0.1]>", ""}, Case{"OnlyHostDomain", "<a>", ""},
        Case{"IPDomain", "<a@[10.0.0.1]>", kIp}, Case{"IPDomain", "<a@10.0.0.1.example>", kIp},
        Case{"IPDomain", "<a@10.0.1.example>", ""}, Case{"IPDomain", "<10.0.0.1@b.c>", ""}})
    EXPECT_EQ(Judged({"SideLine" + std::string(c.rule)}, c.sender), c.reason) << c.rule << " " << c.sender;
}

TEST_F(JudgeTest, CountsUpToTheMostPass) {
  for (char const *key : {"SideLineDestNumExceedMsg", "SideLineTCPDestNumExceedMsg"}) Config(key, "yes");
  Config("SideLineDestNumMax", "6");
  Config("SideLineTCPDestNumMax", "3");
  Texts const five = {"Channel-To! a", "Account-To: b", "Account-To! c", "Deliver-To: d", "Deliver-To! e"};
  EXPECT_EQ(Verdict("SMTP <a@b.c>", five), "");
  EXPECT_EQ(Verdict("SMTP <a@b.c>", {"Accumlated-Rcpt-Num: 3"}), "");
  EXPECT_EQ(Verdict("SMTP <a@b.c>", {"Accumlated-Rcpt-Num: 4"}), kManyInOne);
  EXPECT_EQ(Verdict("SMTP <a@b.c>", {"Accumlated-Rcpt-Num: 99999999999"}), kManyInOne);
  entries.push_back("SMTP <x@far.example>");
  EXPECT_EQ(Verdict("SMTP <a@b.c>", five), kMany);
}

Zone TestZone() {
  return Zone()
      .Address("good.example", "192.0.2.1")
      .Exchange("good.example", "mx.example")
      .Address("mx.example", "192.0.2.9")
      .Address("nomx.example", "192.0.2.2")
      .Exchange("mailonly.example", "mx.example")
      .Pointer("1.2.0.192", "good.example")
      .Address("9.2.0.192.list.example", "127.0.0.2")
      .Address("3.2.0.192.list.example", "127.0.0.4");
}

TEST_F(JudgeTest, RulesThatAskNameServers) {
  START_SERVER(server, "127.0.0.41", TestZone());
  UseServer("127.0.0.41");
  struct Case {
    char const *rule, *domain, *hostFrom, *reason;
    int queries;
  };
  int queries = 0;
  for (Case const &c :
       {Case{"SideLineDomain", "@good.example", "", "", 1}, Case{"SideLineDomain", "@missing.example", "", kLookup, 1},
        Case{"SideLineDomain", "@mailonly.example", "", kLookup, 1}, Case{"SideLineDomain", "@[192.0.2.1]", "", "", 1},
        Case{"SideLineDomain", "@[192.0.2.77]", "", kLookup, 1}, Case{"SideLineDomain", "@[999.0.2.1]", "", kLookup, 0},
        Case{"SideLineDomain", "", "", kLookup, 0},
        Case{"SideLineNoMXDomain", "@good.example", "", "", 2},  // and the exchange's address
        Case{"SideLineNoMXDomain", "@nomx.example", "", kMx, 1},
        Case{"SideLineNoMXDomain", "@missing.example", "", kMx, 1},
        Case{"SideLineNoMXDomain", "@[192.0.2.77]", "", "", 0},
        Case{"SideLineRBL", "@b.c", "x [192.0.2.3]", kListed, 1}, Case{"SideLineRBL", "@b.c", "x [192.0.2.4]", "", 1},
        Case{"SideLineRBL", "@b.c", "192.0.2.3", kListed, 1},
        Case{"SideLineRBL", "@b.c", "192.0.2.4 [192.0.2.3]", kListed, 1},  // a name that lies
        Case{"SideLineRBL", "@good.example", "x", kListed, 3},             // by its exchange
        Case{"SideLineRBL", "@nomx.example", "x", "", 3}}) {               // by its own address
    EXPECT_EQ(Judged({c.rule}, "SMTP <a" + std::string(c.domain) + ">", {"Host-From: " + std::string(c.hostFrom)}),
              c.reason)
        << c.rule << " " << c.domain << " " << c.hostFrom;
    queries += c.queries;
  }
  EXPECT_EQ(Judged({"SideLineDomain", "SideLineNoMXDomain", "SideLineRBL"}, "SMTP<>", {"Host-From: x"}), "")
      << "the null sender has nothing to ask about";
  server.Stop();
  EXPECT_EQ(static_cast<int>(server.queries.size()), queries);
}

TEST_F(JudgeTest, DeadAndSlowServers) {
  Texts const listed = {"Host-From: x [192.0.2.3]"};
  UseServer("127.0.0.42");
  EXPECT_EQ(Judged({"SideLineDomain"}, "SMTP <a@good.example>"), kLookup);
  EXPECT_EQ(Judged({"SideLineNoMXDomain"}, "SMTP <a@good.example>"), kMx);
  EXPECT_EQ(Judged({"SideLineRBL"}, "SMTP <a@b.c>", listed), "") << "not listed";
  std::string last;  // the first packet of each query is lost
  START_SERVER(server, "127.0.0.42", [&last](std::string const &query, int number) {
    return std::exchange(last, query) == query ? TestZone()(query, number) : std::vector<std::string>();
  });
  EXPECT_EQ(Judged({"SideLineDomain"}, "SMTP <a@good.example>"), "");
  EXPECT_EQ(Judged({"SideLineNoMXDomain"}, "SMTP <a@nomx.example>"), kMx);
  EXPECT_EQ(Judged({"SideLineRBL"}, "SMTP <a@b.c>", listed), kListed);
}

// Each hits what rules behind it would hit too, and is logged if its flag says so. Only the three that ask do ask.
TEST_F(JudgeTest, FirstHitDecidesIsLoggedAndSparesTheRest) {
  START_SERVER(server, "127.0.0.43", TestZone());
  UseServer("127.0.0.43");
  struct Case {
    Texts on;
    char const *flag, *sender, *text;
  };
  Texts const byCount = {"SideLineDetail", "SideLineRBL", "SideLineTCPDestNumExceedMsg", "SideLineDestNumExceedMsg"};
  Texts const all = {
      "SideLineIPDomain",         "SideLineOnlyHostDomain", "SideLineNoDomainAddress", "SideLineNullAddress",
      "SideLineDestNumExceedMsg", "SideLineDomain",         "SideLineNoMXDomain",      "SideLineRBL"};
  for (Case const &c : {Case{all, "LogNullFrom", "<>", kNull}, Case{all, "LogNoDomain", "a", kNoDomain},
                        Case{all, "LogOnlyHost", "a@b", kHostOnly}, Case{all, "LogIPDomain", "a@[1.2.3.4]", kIp},
                        Case{all, "LogLookupFail", "a@no.mx", kLookup},
                        Case{{all[6], all[4]}, "LogMxLookupFail", "a@no.mx", "Host name lookup fail(MX), Sidelining"},
                        Case{byCount, "LogNumRecipient", "a@b.c", kMany},
                        Case{{byCount[1], byCount[2]}, "LogNumRecipient_TCP", "a@b.c", kManyInOne},
                        Case{{byCount[0], byCount[1]}, "LogRBLCheck", "a@b.c", kListed}}) {
    Texts const more = {"Channel-To: x", "Accumlated-Rcpt-Num: 1", "Host-From: x [192.0.2.3]"};
    testing::internal::CaptureStderr();
    EXPECT_NE(Judged(c.on, c.sender, more), "");
    Texts logged = c.on;
    logged.push_back(c.flag);
    EXPECT_NE(Judged(logged, c.sender, more), "");
    EXPECT_EQ(Undated(testing::internal::GetCapturedStderr()),
              "SMTP-Router:" + std::string(c.text) + "(  ) " + c.sender + "\n");
  }
  server.Stop();
  EXPECT_EQ(server.queries.size(), 6U);
}

// Nothing of the message is opened, whatever stands in the filter.
TEST_F(JudgeTest, WithEveryRuleOffNoHeaderIsRead) {
  Filters({"subject (test) or"});
  Config("LogDetailFilter", "yes");
  testing::internal::CaptureStderr();
  EXPECT_EQ(Verdict(sender), "detail filter check, Sidelining");
  sys::SetHook(
      [](sys::CallInfo const &call, void *) {
        return strcmp(call.name, "open") == 0 && strstr(call.path, "-Header") != nullptr ? EACCES : 0;
      },
      nullptr);
  EXPECT_EQ(Verdict(sender), "") << "an unreadable header has no fields";
  Config("SideLineDetail", "no");
  EXPECT_EQ(Verdict(sender), "");
  sys::SetHook(nullptr, nullptr);
  EXPECT_EQ(Undated(testing::internal::GetCapturedStderr()),
            "SMTP-Router:detail filter check, Sidelining(  ) sender@far.example\n"
            "SMTP-Router:cmsg read header error(  ) m\n");
}

TEST_F(JudgeTest, BadFilterLineRefusesToStart) {
  Filters({"subject (good) and", "Subject (bad or"});
  char const *verify[] = {"SMTP-Router", "VerifyEnvironment", nullptr};
  testing::internal::CaptureStderr();
  EXPECT_EQ(SSMTPRouterModule().Main(verify), kModuleNoEnvironment);
  EXPECT_EQ(Undated(testing::internal::GetCapturedStderr()),
            "SMTP-Router:sideline judge init filter failed: Subject (bad or\n");
}

TEST_F(JudgeTest, HeldMessageWaitsAsItsRecordUntilAPersonLetsItGo) {
  Dispatcher dispatcher;
  Config("SideLineOnlyHostDomain", "yes");
  for (Texts const &values : {Texts{}, Texts{"Delete", "log", "hold", "mail"}}) {
    Action(values);
    EXPECT_EQ(Verdict("SMTP<a@b>", {"Host-To: h", "Account-To: ann"}), kHostOnly);
    EXPECT_EQ(FileBytes("deferred/Sideline/m-Control"),
              "Function: Error-Handler\r\nControl-Type: Mail\r\nPriority: 1\r\nUser-From: SMTP <a@b>\r\n"
              "Host-From: far.example [192.0.2.7]\r\nMessage-Size: 1\r\nChannel-To: SMTP <ann@example.org>\r\n"
              "Host-To: h\r\nAccount-To: ann\r\nError-Text: illegal domain name, Sidelining\r\n"
              "Error: SMTP-Router:ProcessMailAllError (SideLined)\r\nTrace: Sideline\r\n");
    EXPECT_EQ(CountIn("control"), 0);
    EXPECT_EQ(CountIn("messages"), 2);
  }
  EXPECT_TRUE(dispatcher.Heard().empty());
  SControl released = ReadControl("deferred/Sideline/m-Control");
  ASSERT_TRUE(ResumeMessage(released));
  released.SetModuleName("Queue");
  std::filesystem::remove(Path("deferred/Sideline/m-Control"));
  ASSERT_EQ(released.Write("m"), 1);
  Run("m");
  ASSERT_EQ(PathsOf("Shelf-Deliver").size(), 1u) << "not judged again";
  EXPECT_EQ(Text(ReadControl(PathsOf("Shelf-Deliver")[0]).Get("User-From:").Join()), "SMTP<a@b.example.org>")
      << "still new to the router";
}

TEST_F(JudgeTest, DeletedMessageLeavesALineInTheLog) {
  Config("SideLineNoDomainAddress", "yes");
  Action({"Delete"});
  testing::internal::CaptureStderr();
  EXPECT_EQ(Verdict("SMTP <a>"), "");
  EXPECT_EQ(CountIn("control") + CountIn("messages") + CountIn("deferred"), 0);
  PutMessage("n", entries);
  std::filesystem::remove(Path("messages/n-Body"));
  Run("n");
  EXPECT_EQ(Undated(testing::internal::GetCapturedStderr()),
            "SMTP-Router:Sideline Message Delete(  ) m\nSMTP-Router:Sideline Message Delete(  ) n\n"
            "SMTP-Router:Remove failed for Message file (n)\n");
  EXPECT_EQ(CountIn("control") + CountIn("messages") + CountIn("deferred"), 0);
}

TEST_F(JudgeTest, ReturnedMessageGoesOnceItsSenderIsTold) {
  Config("SideLineOnlyHostDomain", "yes");
  Action({"return"});
  testing::internal::CaptureStderr();
  EXPECT_EQ(Verdict("SMTP <a@b>"), "");
  EXPECT_FALSE(Exists("control/m-Control") || Exists("messages/m-Header") || Exists("messages/m-Body"));
  ASSERT_EQ(PathsOf("Account-Handler").size(), 1u);
  SControl const report = ReadControl(PathsOf("Account-Handler")[0]);
  EXPECT_EQ(Text(report.Get("Channel-To:").Join()), "SMTP <a@b>");
  std::string const body = FileBytes("messages/" + Text(report.GetFilename()) + "-Body");
  EXPECT_NE(body.find("\r\nillegal domain name, Sidelining\r\n"), std::string::npos) << body;
  EXPECT_EQ(Verdict("SMTP <a@b>", {"Error-Msg-Type: ReturnMessage"}), "");
  EXPECT_EQ(PathsOf("Shelf-Deliver").size(), 1u) << "a report is not judged";
  std::string const log = Undated(testing::internal::GetCapturedStderr());
  EXPECT_EQ(log.substr(0, log.find('\n')), "SMTP-Router:Sideline Message Return(  ) m");
}

// No step that fails loses the message or leaves it half sidelined.
TEST_F(JudgeTest, FailedActionKeepsTheMessage) {
  Config("SideLineOnlyHostDomain", "yes");
  Action({"return"});
  sys::SetHook(
      [](sys::CallInfo const &call, void *) {
        bool const isReport = strstr(call.path, "-Body") != nullptr && strstr(call.path, "m-Body") == nullptr;
        return isReport ? ENOSPC : 0;
      },
      nullptr);
  EXPECT_EQ(Verdict("SMTP <a@b>"), kHostOnly) << "held instead";
  EXPECT_EQ(CountIn("messages"), 2);
  sys::SetHook(
      [](sys::CallInfo const &call, void *) {
        return strcmp(call.name, "mkdir") == 0 && strstr(call.path, "Sideline") != nullptr ? EACCES : 0;
      },
      nullptr);
  Action({"hold"});
  EXPECT_EQ(Verdict("SMTP <a@b>"), "");
  sys::SetHook(nullptr, nullptr);
  SControl const waits = ReadControl("deferred/SMTP-Router/m-Control");
  EXPECT_EQ(Text(waits.Get("Function:").Join()), "SMTP-Router");
  EXPECT_FALSE(waits.Get("Error:").Defined());
  SSMTPRouterModule walker;
  ASSERT_EQ(walker.LoadEnv(), 1u);
  walker.ProcessQueue();
  EXPECT_TRUE(Exists("deferred/Sideline/m-Control"));
}

}  // namespace
