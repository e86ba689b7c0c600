// The header of mail that enters here.
#include <cerrno>
#include <cstring>
#include <set>

#include "tests/platform/callhook.h"
#include "tests/router/router_fixture.h"

namespace {

class RewriteTest : public RouterTest {
protected:
  RewriteTest() {
    sender = "SMTP <ann@example.org>";
    AddAccount("ann", {"ann@example.org"}, {{"Name", {"Ann Lee"}}});
  }
  // Header of the copy for far.example of a message from here.
  std::string Sent(std::string const &header, Texts const &more = {}) const {
    ClearSpool();
    PutMessage("m", {"SMTP <x@far.example>"}, more);
    PutFile("messages/m-Header", header);
    SSMTPRouterModule router;
    EXPECT_EQ(router.LoadEnv(), 1u);
    EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone);
    return SentHeader();
  }
  // The header of the copies that went out; when they differ, all of them.
  std::string SentHeader() const {
    std::set<std::string> headers;
    for (std::string const &path : PathsOf("SMTP-Deliver"))
      headers.insert(FileBytes("messages/" + path.substr(8, path.rfind("-Control") - 8) + "-Header"));
    return Joined(Texts(headers.begin(), headers.end()), "|");
  }
};

constexpr char kRest[] = "Date: d\r\nMessage-ID: <i@x>\r\n";

TEST_F(RewriteTest, MissingFieldsAreFilledInFromTheEnvelope) {
  Texts const submitted = {"Submitted-Date: Tue, 4 Mar 2003 09:05:00 +0100"};
  EXPECT_EQ(Sent("Subject: s\r\n", submitted),
            "Subject: s\r\nDate: Tue, 4 Mar 2003 09:05:00 +0100\r\nMessage-ID: <m>\r\nFrom: ann@example.org\r\n");
  std::string const complete = "date: d\r\nMESSAGE-ID: i\r\nfrom: Ann <ann@example.org>\r\n";
  EXPECT_EQ(Sent(complete, submitted), complete);
  EXPECT_EQ(Sent("", submitted).substr(0, 6), "Date: ") << "an empty header is one in which all is missing";
  EXPECT_EQ(Sent("Subject: s\r\n"), "Subject: s\r\nMessage-ID: <m>\r\nFrom: ann@example.org\r\n") << "no date known";
}

TEST_F(RewriteTest, PosterHasTheFormThatTheAccountAsksFor) {
  AddAccount("bea", {"bea@example.org", "b@example.org"},
             {{"Name", {"Bea \"B\" Moe"}}, {"SMTP-RewriteStyle", {"quoted"}}});
  AddAccount("cal", {"cal@example.org"}, {{"Name", {"Cal (Ops)"}}, {"SMTP-RewriteStyle", {"comment"}}});
  AddAccount("dee", {"dee@pc.example.org"});
  struct {
    char const *given, *want, *added, *why;
  } const cases[] = {
      {"From: B@example.org\r\n", "From: \"Bea \\\"B\\\" Moe\" <bea@example.org>\r\n", "", "quoted"},
      {"From: B (boss) <b@example.org>\r\n", "From: \"Bea \\\"B\\\" Moe\" <bea@example.org>\r\n", "",
       "its own name goes"},
      {"From: cal@example.org\r\n", "From: cal@example.org (Cal (Ops))\r\n", "", "comment"},
      {"From: Dee Poe <dee@pc>\r\n", "From: Dee Poe <dee@pc.example.org>\r\n", "", "any other style: the host alone"},
      {"From: Dee\r\n Poe <dee@PC>\r\n", "From: Dee Poe <dee@PC.example.org>\r\n", "", "a folded field"},
      {"From: x@far.example\r\n", "From: x@far.example\r\n", "", "nobody's here"},
      {"From: x@far.example\r\nSender: cal@example.org\r\n",
       "From: x@far.example\r\nSender: cal@example.org (Cal (Ops))\r\n", "", "the sender speaks for the author"},
      {"From: cal@example.org, bea@example.org\r\n", "From: cal@example.org, bea@example.org\r\n",
       "Sender: ann@example.org\r\n", "for several authors the envelope's sender"},
      {"From: cal@example.org\r\nFrom: bea@example.org\r\n", "From: cal@example.org\r\nFrom: bea@example.org\r\n",
       "Sender: ann@example.org\r\n", "in two fields as well"},
      {"From: team: ;\r\n", "From: team: ;\r\n", "Sender: ann@example.org\r\n", "an empty group is no author"},
      {"From: <>\r\n", "From: <>\r\n", "", "the null address is nobody's"},
  };
  for (auto const &c : cases) {
    std::string const rest = kRest;  // a field that was not there stands behind it
    EXPECT_EQ(Sent(c.given + rest), c.want + rest + c.added) << c.why;
  }
  Config("Canonicalize", "no");
  EXPECT_EQ(Sent("From: dee@pc\r\n" + std::string(kRest)), "From: dee@pc\r\n" + std::string(kRest));
}

TEST_F(RewriteTest, NameOfAnAccountMakesNoFieldAndNoAddressOfItsOwn) {
  struct {
    std::string name;
    char const *style, *want;
  } const cases[] = {
      {"A\r\nBcc: x@far.example", "quoted", "From: \"A  Bcc: x@far.example\" <ann@example.org>\r\n"},
      {"A\nBcc: x@far.example\r\n\r\nbody", "comment", "From: ann@example.org (A Bcc: x@far.example    body)\r\n"},
      {"A\" <x@far.example>, \"", "quoted", "From: \"A\\\" <x@far.example>, \\\"\" <ann@example.org>\r\n"},
      {"A\\", "quoted", "From: \"A\\\\\" <ann@example.org>\r\n"},
      {"A) <x@far.example> (", "comment", "From: ann@example.org (A\\) <x@far.example> \\()\r\n"},
      {"A\\", "comment", "From: ann@example.org (A\\\\)\r\n"},
  };
  for (auto const &c : cases) {
    AddAccount("ann", {"ann@example.org"}, {{"Name", {c.name}}, {"SMTP-RewriteStyle", {c.style}}});
    std::string const sent = Sent("From: ann@example.org\r\n" + std::string(kRest));
    EXPECT_EQ(sent, c.want + std::string(kRest)) << c.style;
    EXPECT_EQ(Sent(sent), sent) << "a second run changes nothing";
  }
}

TEST_F(RewriteTest, SiteRemovesAndAddsFields) {
  Setting("SMTP-Router", "/Header", "Delete", {"x-mailer", "Message-ID:", ""});
  Setting("SMTP-Router", "/Header/Add", "Organization", {"Example"});
  Setting("SMTP-Router", "/Header/Add", "X-Site:", {"one", "two\r\nBcc: x@far.example"});
  std::string const once = Sent(
      "X-Mailer: m\r\nX-MAILER: n\r\nFrom: ann@example.org\r\nDate: d\r\nMessage-ID: <i>\r\n"
      "organization: other\r\n");
  EXPECT_EQ(once,
            "From: ann@example.org\r\nDate: d\r\norganization: Example\r\nX-Site: one\r\n"
            "X-Site: two\r\n Bcc: x@far.example\r\nMessage-ID: <m>\r\n");
}

TEST_F(RewriteTest, EnvelopeSenderIsTheAccountsFirstAddress) {
  AddAccount("bea", {"bea@example.org", "b@example.org"});
  sender = "SMTP <B@Example.org>";
  Sent("Subject: s\r\n");
  EXPECT_EQ(ReadControl(PathsOf("SMTP-Deliver").at(0)).Get("User-From:").Join(), "SMTP<bea@example.org>");
}

TEST_F(RewriteTest, OnlyTheFirstPassOfAnAccountsMailIsTouched) {
  Setting("SMTP-Router", "/Header", "Delete", {"Subject"});
  struct {
    char const *sender;
    Texts more;
    bool rewritten;
  } const cases[] = {
      {"SMTP <ann@example.org>", {}, true},
      {"SMTP <ann@example.org>", {"MTA-Hops: 1", "Trace: SMTP-Accept"}, true},
      {"SMTP <ann@example.org>", {"MTA-Hops: 2"}, false},
      {"SMTP <ann@example.org>", {"Trace: SMTP-Router"}, false},
      {"SMTP <nobody@example.org>", {}, false},
      {"SMTP <ann@far.example>", {}, false},
      {"SMTP<>", {}, false},
  };
  for (auto const &c : cases) {
    sender = c.sender;
    EXPECT_EQ(Sent("Subject: s\r\n", c.more) != "Subject: s\r\n", c.rewritten) << c.sender << Joined(c.more);
  }
}

TEST_F(RewriteTest, UnreadableHeaderMakesTheMessageAnErrorAndNothingGoesOut) {
  for (bool missing : {true, false}) {
    ClearSpool();
    PutMessage("m", {"SMTP <x@far.example>", "SMTP <ann@example.org>"});
    std::filesystem::remove(Path("messages/m-Header"));
    if (!missing) std::filesystem::create_directory(Path("messages/m-Header"));
    SSMTPRouterModule router;
    ASSERT_EQ(router.LoadEnv(), 1u);
    EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone);
    EXPECT_EQ(CountIn("control"), 1);
    SControl const error = ReadControl("control/m-Control");
    EXPECT_EQ(error.Get("Function:").Join(), "Error-Handler");
    EXPECT_EQ(error.Get("Error:").Join(), "SMTP-Router:RewriteHeader (HeaderReadFail)");
    EXPECT_EQ(error.Get("Channel-To:").Length(), 2);
    EXPECT_EQ(CountIn("deferred"), 0);
  }
}

// Most mail is complete as it comes; each write of a header is a flush, and a file that other names no longer share.
TEST_F(RewriteTest, CompleteHeaderIsNotWritten) {
  auto const headerWrites = [this](std::string const &header) {
    ClearSpool();
    PutMessage("m", {"SMTP <ann@example.org>"});
    PutFile("messages/m-Header", header);
    SSMTPRouterModule router;
    EXPECT_EQ(router.LoadEnv(), 1u);
    int writes = 0;
    sys::SetHook(
        [](sys::CallInfo const &call, void *count) {
          *static_cast<int *>(count) += strstr(call.path, "m-Header.temp") != nullptr && strcmp(call.name, "open") == 0;
          return 0;
        },
        &writes);
    EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone);
    sys::SetHook(nullptr, nullptr);
    return writes;
  };
  EXPECT_EQ(headerWrites("From: ann@example.org\r\n" + std::string(kRest)), 0);
  EXPECT_EQ(headerWrites("From: ann@example.org\r\n"), 1);
}

// Whatever single call fails, the message goes out once the fault is gone, and with its header completed. (Twice where
// the flush failed behind which it would have been dropped.)
TEST_F(RewriteTest, AnySingleFailingCallKeepsTheMessageAndItsHeader) {
  std::string const given = "Subject: s\r\nDate: d\r\n";
  std::string const completed = given + "Message-ID: <m>\r\nFrom: ann@example.org\r\n";
  setenv("SpoolSync", "fsync", 1);
  int n = 0;
  for (bool reached = true; reached;) {
    ++n;
    ClearSpool();
    PutMessage("m", {"SMTP <x@far.example>"});
    PutFile("messages/m-Header", given);
    testing::internal::CaptureStderr();
    {
      SSMTPRouterModule router;
      ASSERT_EQ(router.LoadEnv(), 1u);
      SCallHook const hook("", n, ENOSPC);
      (void)router.ProcessMessageName("m");
      reached = hook.Total() >= n;
    }
    bool const isError = PathsOf("Error-Handler") == Texts{"control/m-Control"};
    SSMTPRouterModule walker;
    ASSERT_EQ(walker.LoadEnv(), 1u);
    walker.ProcessQueue();
    if (Exists("control/m-Control") && !isError) (void)walker.ProcessMessageName("m");
    (void)testing::internal::GetCapturedStderr();
    EXPECT_EQ(isError ? FileBytes("messages/m-Header") : SentHeader(), isError ? given : completed) << "call " << n;
  }
  EXPECT_GT(n, 20);
}

}  // namespace
