// The whole way round: a mail to an address that nobody has, from the router to the report in its sender's mailbox; and
// a message that was held, on its way again.
#include <gmock/gmock.h>

#include "brenthaven/errorhandler/errorhandler.h"
#include "brenthaven/mailbox/mailboxpath.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/returned.h"
#include "tests/router/router_fixture.h"
#include "tests/support/masked.h"

namespace {

class ReturnRoadTest : public RouterTest {
protected:
  ReturnRoadTest() {
    setenv("TZ", "UTC", 1);
    for (char const *name : {"ReturnMaxKbytes", "SuppressPM", "ReplyToNoHost", "UseContentDisposition"}) unsetenv(name);
    AddAccount("ann", {"ann@example.org"}, {{"Local-Delivery", {"Mailbox"}}});
    sender = "SMTP <ann@example.org>";
  }
  // A message with a header that is complete as it came.
  void PutComplete(Texts const &entries) const {
    PutMessage("m", entries);
    PutFile("messages/m-Header", kHeader);
  }
  static constexpr char kHeader[] =
      "From: ann@example.org\r\nMessage-ID: <m@example.org>\r\nDate: Tue, 4 Mar 2003 09:05:00 +0100\r\nSubject: "
      "test\r\n";
  template <class Module>
  static void Run(std::string const &name) {
    Module module;
    EXPECT_EQ(module.LoadEnv(), 1u);
    EXPECT_EQ(module.ProcessMessageName(Bytes(name)), kModuleDone);
  }
  // The name of the one message that waits for a module.
  std::string Waiting(std::string const &module) const {
    Texts const paths = PathsOf(module);
    EXPECT_EQ(paths.size(), 1u) << module;
    if (paths.size() != 1) return "";
    return std::filesystem::path(paths[0]).filename().string().substr(0,
                                                                      paths[0].size() - sizeof "control/-Control" + 1);
  }
  Texts Stored(char const *uid) const {
    Texts stored;
    std::string const inbox = "mailboxes/" + Text(GetMailboxSubpath(uid)) + "/in";
    if (!Exists(inbox)) return stored;
    for (auto const &file : std::filesystem::directory_iterator(Path(inbox)))
      if (isdigit(static_cast<unsigned char>(file.path().filename().string()[0])) != 0)
        stored.push_back(Masked(FileBytes(inbox + "/" + file.path().filename().string())));
    return stored;
  }
};

}  // namespace

TEST_F(ReturnRoadTest, SenderFindsTheReportInItsMailbox) {
  PutComplete({"SMTP <nobody@example.org>", "SMTP <no.one@example.org>"});
  Run<SSMTPRouterModule>("m");
  EXPECT_EQ(Waiting("Error-Handler"), "m-Unknown");
  Run<SErrorHandlerModule>("m-Unknown");
  Run<SAccountHandlerModule>(Waiting("Account-Handler"));
  Texts const stored = Stored("ann");
  ASSERT_EQ(stored.size(), 1u);
  EXPECT_EQ(stored[0],
            "Return-Path: <>\r\n"
            "To: ann@example.org\r\nFrom: Mail Administrator<Postmaster@example.org>\r\n"
            "Reply-To: Mail Administrator<Postmaster@mail.example.org>\r\n"
            "Subject: Mail System Error - Returned Mail\r\nDate: DATE\r\nMessage-ID: <NAME>\r\nMIME-Version: 1.0\r\n"
            "Content-Type: multipart/report; report-type=delivery-status;\r\n\t\tBoundary=\"BOUNDARY\"\r\n"
            "Content-Transfer-Encoding: 7bit\r\nAuto-Submitted: auto-replied\r\nPrecedence: bulk\r\n\r\n"
            "\r\n--BOUNDARY\r\nContent-Type: text/plain; charset=iso-2022-jp\r\nContent-Transfer-Encoding: 7bit\r\n\r\n"
            "This Message was undeliverable due to the following reason:\r\n\r\n"
            "There is no such address here.\r\n\r\n    nobody@example.org\r\n    no.one@example.org\r\n\r\n"
            "Subject: test\r\n\r\n"
            "Please reply to Postmaster@example.org\r\nif you feel this message to be in error.\r\n"
            "\r\n--BOUNDARY\r\nContent-Type: message/delivery-status\r\nContent-Transfer-Encoding: 7bit\r\n\r\n"
            "Reporting-MTA: dns; mail.example.org\r\n\r\n"
            "Final-Recipient: rfc822; nobody@example.org\r\nAction: failed\r\nStatus: 5.1.1\r\n"
            "Diagnostic-Code: x-brenthaven; There is no such address here.\r\n\r\n"
            "Final-Recipient: rfc822; no.one@example.org\r\nAction: failed\r\nStatus: 5.1.1\r\n"
            "Diagnostic-Code: x-brenthaven; There is no such address here.\r\n"
            "\r\n--BOUNDARY\r\nContent-Type: message/rfc822\r\nContent-Transfer-Encoding: 7bit\r\n\r\n"
            "From: ann@example.org\r\nMessage-ID: <m@example.org>\r\nDate: DATE\r\nSubject: test\r\n\r\nHello.\r\n"
            "\r\n--BOUNDARY--\r\n\r\n");
  EXPECT_EQ(CountIn("control"), 0);
  EXPECT_EQ(CountIn("messages"), 0);
}

TEST_F(ReturnRoadTest, ReportToAnUnknownSenderEndsThere) {
  AddAccount("Postmaster", {"Postmaster@example.org"}, {{"Local-Delivery", {"Mailbox"}}});
  sender = "SMTP <forged@example.org>";
  PutMessage("m", {"SMTP <nobody@example.org>"});
  Run<SSMTPRouterModule>("m");
  Run<SErrorHandlerModule>("m-Unknown");
  Run<SAccountHandlerModule>(Waiting("Account-Handler"));
  testing::internal::CaptureStderr();
  Run<SErrorHandlerModule>(Waiting("Error-Handler"));
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("No report about a report:"));
  EXPECT_EQ(CountIn("control"), 0);
  EXPECT_EQ(CountIn("messages"), 0);
  EXPECT_EQ(Stored("Postmaster"), Texts());
}

TEST_F(ReturnRoadTest, ReportPassesARuleAgainstTheNullSender) {
  Config("SideLineNullAddress", "yes");
  PutMessage("m", {"SMTP <nobody@example.org>"});
  Run<SSMTPRouterModule>("m");
  Run<SErrorHandlerModule>("m-Unknown");
  Run<SAccountHandlerModule>(Waiting("Account-Handler"));
  EXPECT_EQ(Stored("ann").size(), 1u);
}

TEST_F(ReturnRoadTest, HeldMessageIsDeliveredOnceTheAddressExists) {
  Setting("Error-Handler", "/Error-Actions", "UnknownAccounts", {"hold"});
  PutComplete({"SMTP <bob@example.org>"});
  Run<SSMTPRouterModule>("m");
  Run<SErrorHandlerModule>("m-Unknown");
  SControl held = ReadControl("deferred/Held/m-Unknown-Control");
  AddAccount("bob", {"bob@example.org"}, {{"Local-Delivery", {"Mailbox"}}});
  ASSERT_TRUE(ResumeMessage(held));
  held.SetModuleName("Queue");
  ASSERT_EQ(held.Write(Bytes("m-Unknown")), 1);
  std::filesystem::remove(Path("deferred/Held/m-Unknown-Control"));
  Run<SSMTPRouterModule>("m-Unknown");
  EXPECT_EQ(Stored("bob"),
            Texts{Masked("Return-Path: <ann@example.org>\r\n" + std::string(kHeader) + "\r\nHello.\r\n")});
  EXPECT_EQ(CountIn("control"), 0);
}
