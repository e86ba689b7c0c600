// Returned mail: what a report says, to whom it goes, that a failure leaves nothing of it, and what becomes of a
// message that is held and let go on.
#include "brenthaven/spool/returned.h"

#include <gmock/gmock.h>

#include <cerrno>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/spool/keys.h"
#include "tests/spool/spooltest.h"
#include "tests/support/masked.h"
#include "tests/support/texts.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

class ReturnedTest : public SpoolTest {
protected:
  ReturnedTest() {
    for (char const *name : {"ReturnMaxKbytes", "SuppressPM", "ReplyToNoHost", "UseContentDisposition"}) unsetenv(name);
    setenv("TZ", "UTC", 1);
    Put("m", "SMTP <ann@far.example>");
    reasons.lines = ListOf({"Nobody wants it."});
  }
  void Put(std::string const &name, std::string const &sender, std::string const &lines = "") {
    PutControl(name, "Probe", "User-From: " + sender + "\r\n" + lines + "Trace: Submit\r\n");
    PutMessage(name);
    EXPECT_EQ(module.GetControl().Read(name.c_str()), 1);
  }
  SReturned Return() { return ReturnMessage(module, module.GetControl(), reasons, &error); }
  // The new message's file of a kind, less what differs from run to run.
  std::string New(std::string const &kind) const {
    std::string found;
    for (std::string const &file : Files())
      if (file.ends_with(kind) && !file.ends_with("/m" + kind)) found = FileBytes(file);
    return Masked(found);
  }
  // The new message's parts, each from its Content-Type: on.
  Texts Parts() const {
    Texts parts;
    std::string const body = New("-Body"), mark = "\r\n--BOUNDARY\r\n";
    for (size_t at = body.find(mark), next = 0; at != std::string::npos; at = next) {
      next = body.find(mark, at + 1);
      size_t const end = next != std::string::npos ? next : body.find("\r\n--BOUNDARY--");
      parts.push_back(body.substr(at + mark.size(), end - at - mark.size()));
    }
    return parts;
  }
  void Clear() {
    for (std::string const &file : Files())
      if (file.find("/m-") == std::string::npos && !file.starts_with("config/")) std::filesystem::remove(Path(file));
  }

  ProbeModule module;
  SReturnReasons reasons;
  SStringList error;
};

}  // namespace

TEST_F(ReturnedTest, MessageGoesBackAsTwoParts) {
  DispatcherEar ear;
  Put("m", "SMTP <ann@far.example>", "MIME-Encoding: 8bit\r\n");
  reasons.lines = {"One\nTwo\r\r\nThree", "caf\xc3\xa9 \xe6\xbc\xa2\xe5\xad\x97"};
  Texts const before = Files();
  ASSERT_EQ(Return(), SReturned::kSent);
  EXPECT_EQ(New("-Control"),
            "Function: Account-Handler\r\nControl-Type: Mail\r\nPriority: 1\r\nError-Msg-Type: ReturnMessage\r\n"
            "MIME-Encoding: 8bit\r\nHost-From: mail.example.org [127.0.0.1]\r\nSubmitted-Date: DATE\r\n"
            "Submitted-Via: Probe ReturnMessage\r\nUser-From: SMTP <Postmaster@example.org>\r\nMTA-Hops: 0\r\n"
            "Channel-To: SMTP <ann@far.example>\r\nTrace: Probe\r\n");
  EXPECT_EQ(New("-Header"),
            "To: ann@far.example\r\nFrom: Mail Administrator<Postmaster@example.org>\r\n"
            "Reply-To: Mail Administrator<Postmaster@mail.example.org>\r\n"
            "Subject: Mail System Error - Returned Mail\r\nDate: DATE\r\nMessage-ID: <NAME>\r\nMIME-Version: 1.0\r\n"
            "Content-Type: multipart/mixed;\r\n\t\tBoundary=\"BOUNDARY\"\r\nContent-Transfer-Encoding: 7bit\r\n"
            "Auto-Submitted: auto-replied\r\nPrecedence: bulk\r\n");
  EXPECT_EQ(New("-Body"),
            "\r\n--BOUNDARY\r\nContent-Type: text/plain; charset=iso-2022-jp\r\nContent-Transfer-Encoding: 7bit\r\n\r\n"
            "This Message was undeliverable due to the following reason:\r\n\r\n"
            "One\r\nTwo\r\nThree\r\ncaf? \x1b$B4A;z\x1b(B\r\n\r\n"
            "Please reply to Postmaster@example.org\r\nif you feel this message to be in error.\r\n"
            "\r\n--BOUNDARY\r\nContent-Type: message/rfc822\r\nContent-Transfer-Encoding: 7bit\r\n\r\n"
            "Subject: hello\r\n\r\nbody of m\r\n"
            "\r\n--BOUNDARY--\r\n\r\n");
  EXPECT_EQ(Masked(ear.Next()), "NAME\nkey\nAccount-Handler\nMail\n1");
  for (std::string const &file : before) EXPECT_TRUE(Exists(file)) << file;
}

TEST_F(ReturnedTest, DeliveryReportHasAPartForMachinesAndTheNullSender) {
  Put("m", "SMTP<ann@far.example>", "Submitted-Date: Tue, 4 Mar 2003 09:05:00 +0100\r\n");
  reasons.recipients = {{"nobody@example.org", "failed", "5.1.1", "no such address"},
                        {"caf\xc3\xa9\r\nStatus: 2.0.0@x", "delayed", "4.2.0", ""}};
  ASSERT_EQ(Return(), SReturned::kSent);
  EXPECT_THAT(New("-Control"), HasSubstr("\r\nUser-From: SMTP<>\r\n"));
  EXPECT_THAT(New("-Header"),
              HasSubstr("Content-Type: multipart/report; report-type=delivery-status;\r\n\t\tBoundary="));
  EXPECT_THAT(New("-Header"), HasSubstr("\r\nAuto-Submitted: auto-replied\r\n"));
  ASSERT_EQ(Parts().size(), 3u);
  EXPECT_EQ(Parts()[1],
            "Content-Type: message/delivery-status\r\nContent-Transfer-Encoding: 7bit\r\n\r\n"
            "Reporting-MTA: dns; mail.example.org\r\nArrival-Date: DATE\r\n\r\n"
            "Final-Recipient: rfc822; nobody@example.org\r\nAction: failed\r\nStatus: 5.1.1\r\n"
            "Diagnostic-Code: x-brenthaven; no such address\r\n\r\n"
            "Final-Recipient: rfc822; caf????Status: 2.0.0@x\r\nAction: delayed\r\nStatus: 4.2.0\r\n");
}

TEST_F(ReturnedTest, AddresseeIsTheSenderTheListOwnerOrPostmaster) {
  {
    SAccountDBMod accounts;
    struct {
      char const *uid;
      char const *key;
      char const *value;
    } const rows[] = {{"list", "Linked-Owner-Account", "owner"},
                      {"owner", "SMTP-Address", "owner-list@example.org"},
                      {"orphan", "Linked-Owner-Account", "nobody"},
                      {"mute", "Linked-Owner-Account", "silent"},
                      {"silent", "Name", "No address"}};
    for (auto const &row : rows) {
      SAccountMod account;
      ASSERT_TRUE(accounts.ModifyAccount(row.uid, &account) && account.Set(row.key, SStringList(row.value))) << row.uid;
    }
  }
  struct {
    char const *sender, *lines, *want, *to, *why;
  } const rows[] = {
      {"SMTP <a@b.example>", "", "Channel-To: SMTP <a@b.example>\r\n", "a@b.example", "the sender"},
      {"SMTP<a@b.example>", "", "Channel-To: SMTP <a@b.example>\r\n", "a@b.example", "as the router writes it"},
      {"SMTP<>", "", "Account-To: Postmaster\r\n", "Postmaster@example.org", "null"},
      {"SMTP <a@@b>", "", "Account-To: Postmaster\r\n", "Postmaster@example.org", "broken"},
      {"SMTP <a@b.example>", "Error-List-UID: list\r\n", "Channel-To: SMTP <owner-list@example.org>\r\n",
       "owner-list@example.org", "a list's owner"},
      {"SMTP <a@b.example>", "Error-List-UID: orphan\r\n", "Channel-To: SMTP <Postmaster@example.org>\r\n",
       "Postmaster@example.org", "an owner that is gone"},
      {"SMTP <a@b.example>", "Error-List-UID: mute\r\n", "Channel-To: SMTP <Postmaster@example.org>\r\n",
       "Postmaster@example.org", "an owner without an address"},
      {"SMTP <a@b.example>", "Error-List-UID: gone\r\n", "Channel-To: SMTP <Postmaster@example.org>\r\n",
       "Postmaster@example.org", "a list that is gone"},
  };
  for (auto const &row : rows) {
    Put("m", row.sender, row.lines);
    ASSERT_EQ(Return(), SReturned::kSent) << row.why;
    EXPECT_THAT(New("-Control"), HasSubstr(std::string("\r\nMTA-Hops: 0\r\n") + row.want + "Trace: ")) << row.why;
    EXPECT_TRUE(New("-Header").starts_with(std::string("To: ") + row.to + "\r\n")) << row.why << New("-Header");
    Clear();
  }
  PutFile("config/BTAccounts.i", std::string(65536, '\x5a'));
  PutFile("config/BTAccounts.a", std::string(65536, '\x5a'));
  Put("m", "SMTP <a@b.example>", "Error-List-UID: list\r\n");
  EXPECT_EQ(Return(), SReturned::kFailed) << "unreadable is not absent";
  EXPECT_THAT(Strs(error), ElementsAre("FindAddressee", "AccountReadFail", "Account: list"));
}

TEST_F(ReturnedTest, NoReportIsMadeOfAReport) {
  struct {
    char const *lines;
    bool isReport;
    char const *why;
  } const rows[] = {
      {"Error-Msg-Type: ReturnMessage\r\n", true, "it says so"},
      {"Trace: Error-Handler\r\nTrace: SMTP-Router\r\n", true, "made by the error handler, failed elsewhere"},
      {"Trace: Error-Handler\r\nTrace: Error-Handler\r\nTrace: Held\r\nTrace: Queue\r\n", true, "and let go on"},
      {"Trace: Error-Handler\r\nTrace: Error-Handler\r\n", false, "a record without a history that waited"},
      {"Trace: SMTP-Router\r\nTrace: Error-Handler\r\n", false, "mail of somebody else"},
      {"Error-Msg-Type: Other\r\n", false, "another type"},
      {"", false, "nothing"},
  };
  for (auto const &row : rows) {
    PutControl("m", "Probe", std::string("User-From: SMTP <a@b.example>\r\n") + row.lines);
    ASSERT_EQ(module.GetControl().Read("m"), 1);
    Texts const before = Files();
    EXPECT_EQ(IsReport(module.GetControl()), row.isReport) << row.why;
    testing::internal::CaptureStderr();
    EXPECT_EQ(Return(), row.isReport ? SReturned::kNobody : SReturned::kSent) << row.why;
    std::string const log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(log.find(":Probe:No report about a report:m:Nobody wants it.\n") != std::string::npos, row.isReport);
    EXPECT_EQ(Files() == before, row.isReport) << row.why;
    Clear();
  }
}

TEST_F(ReturnedTest, AttachmentIsWholeUpToALimitAndTruthfullyLabelled) {
  std::string const header = "Subject: hello\r\n";
  std::string const whole(64 * 1024 - header.size() - 2 - 2, 'x');  // but for its line ends
  auto const lines = [](std::string text) {
    for (size_t i = 500; i + 1 < text.size(); i += 500) text.replace(i, 2, "\r\n");
    return text + "\r\n";
  };
  struct {
    char const *limit;
    std::string body;
    char const *type, *encoding;
    std::string attached;
    char const *why;
  } const rows[] = {
      {"", lines(whole), "message/rfc822", "7bit", header + "\r\n" + lines(whole), "just fits"},
      {"", lines(whole + "xxx"), "text/rfc822-headers", "7bit", header, "too large"},
      {"0", "x\r\n", "text/rfc822-headers", "7bit", header, "never"},
      {"none", "x\r\n", "message/rfc822", "7bit", header + "\r\nx\r\n", "no number: the default"},
      {"", "caf\xe9\r\n", "message/rfc822", "8bit", header + "\r\ncaf\xe9\r\n", "8-bit bytes"},
      {"", "a\nb\r\r\nc", "message/rfc822", "7bit", header + "\r\na\r\nb\r\nc", "line ends made uniform"},
      {"", "a\rb\r\n", "message/rfc822", "binary", header + "\r\na\rb\r\n", "a CR by itself"},
      {"", std::string("a\0b\r\n", 5), "message/rfc822", "binary", header + "\r\n" + std::string("a\0b\r\n", 5), "NUL"},
      {"", std::string(999, 'x'), "message/rfc822", "binary", header + "\r\n" + std::string(999, 'x'), "a long line"},
      {"", std::string(998, 'x'), "message/rfc822", "7bit", header + "\r\n" + std::string(998, 'x'), "a longest line"},
      {"", "", "message/rfc822", "7bit", header + "\r\n", "empty body"},
  };
  for (auto const &row : rows) {
    setenv("ReturnMaxKbytes", row.limit, 1);
    PutFile("messages/m-Body", row.body);
    ASSERT_EQ(Return(), SReturned::kSent) << row.why << error.Join(" ");
    ASSERT_EQ(Parts().size(), 2u) << row.why;
    std::string const end = row.attached.ends_with("\n") ? "" : "\r\n";
    EXPECT_TRUE(Parts()[1] == std::string("Content-Type: ") + row.type +
                                  "\r\nContent-Transfer-Encoding: " + row.encoding + "\r\n\r\n" + row.attached + end)
        << row.why << "\n"
        << Parts()[1].substr(0, 200);
    EXPECT_THAT(New("-Header"), HasSubstr(std::string("Content-Transfer-Encoding: ") + row.encoding + "\r\n"))
        << row.why;
    Clear();
  }
}

// The size of a message costs what its bytes cost: doubling line ends, boundaries and labels take one look at each.
TEST_F(ReturnedTest, TenMebibytesAreAttachedWhenAskedFor) {
  setenv("ReturnMaxKbytes", "20000", 1);
  PutFile("messages/m-Body", std::string(10 << 20, '\n'));
  ASSERT_EQ(Return(), SReturned::kSent);
  uintmax_t largest = 0;
  for (std::string const &file : Files()) largest = std::max(largest, std::filesystem::file_size(Path(file)));
  EXPECT_GT(largest, 20u << 20);
}

TEST_F(ReturnedTest, SettingsLeaveOutTheRequestToReplyAndTheHost) {
  setenv("SuppressPM", "yes", 1);
  setenv("ReplyToNoHost", "yes", 1);
  ASSERT_EQ(Return(), SReturned::kSent);
  EXPECT_THAT(New("-Header"), HasSubstr("\r\nReply-To: Mail Administrator<Postmaster@example.org>\r\n"));
  EXPECT_TRUE(Parts()[0].ends_with("reason:\r\n\r\nNobody wants it.\r\n")) << Parts()[0];
  Clear();
  setenv("SuppressPM", "Yes", 1);
  ASSERT_EQ(Return(), SReturned::kSent);
  EXPECT_THAT(Parts()[0], HasSubstr("Please reply to Postmaster@example.org\r\n")) << "that word exactly";
}

TEST_F(ReturnedTest, FailureOfAnyCallLeavesAWholeReportOrNothing) {
  setenv("SpoolSync", "fsync", 1);
  reasons.recipients = {{"nobody@example.org", "failed", "5.1.1", ""}};
  Texts const before = Files();
  CallWatch watch;
  int failures = 0;
  for (int n = 1;; ++n) {
    error.Undef();
    watch.FailNth(n, EIO);
    SReturned const result = Return();
    bool const failed = watch.Failed();
    watch.FailNth(0, 0);
    if (result == SReturned::kSent) {
      EXPECT_EQ(Files().size(), before.size() + 3) << n;
      Clear();
    } else {
      ++failures;
      EXPECT_EQ(result, SReturned::kFailed) << n;
      EXPECT_EQ(error.Length(), 3) << n;
      EXPECT_EQ(Files(), before) << "call " << n << " " << error.Join(" ");
    }
    if (!failed) break;
  }
  EXPECT_GT(failures, 8);
}

TEST_F(ReturnedTest, FailuresAreToldInTheWordsOfNewMessages) {
  char const *const rows[] = {"MakeBody BodyWriteFail Unable to Write Body file (messages/NAME-Body)",
                              "MakeHeader HeaderWriteFail File: messages/NAME-Header",
                              "MakeControl ControlWriteFail File: control/NAME-Control"};
  CallWatch watch;
  for (int i = 0; i < 3; ++i) {
    watch.FailNth(i + 1, ENOSPC, "write");
    EXPECT_EQ(Return(), SReturned::kFailed);
    EXPECT_EQ(errno, ENOSPC);
    std::string const told = std::regex_replace(Masked(Str(error.Join(" "))), std::regex(root + "/+"), "");
    EXPECT_EQ(told, rows[i]);
  }
}

TEST_F(ReturnedTest, HeldMessageComesBackWhereItFailed) {
  Put("m", "SMTP <ann@far.example>",
      "Channel-To: SMTP <x@example.org>\r\nChannel-To! SMTP <x@example.org>\r\nChannel-To! SMTP <y@example.org>\r\n");
  SControl &control = module.GetControl();
  errno = ENOENT;
  MarkAsError(module, control, "SideLined", "ProcessMailAllError", "RBL true, Sidelining");
  ASSERT_EQ(HoldMessage(module, control, kSidelinePlace), 1u);
  EXPECT_EQ(FileBytes("deferred/Sideline/m-Control"),
            ControlText("Error-Handler",
                        "User-From: SMTP <ann@far.example>\r\nChannel-To: SMTP <x@example.org>\r\n"
                        "Channel-To! SMTP <x@example.org>\r\nChannel-To! SMTP <y@example.org>\r\n"
                        "Error: Probe:ProcessMailAllError (SideLined)\r\nError-Text: RBL true, Sidelining\r\n"
                        "Error-Number: 2\r\nTrace: Submit\r\nTrace: Sideline\r\n"));
  EXPECT_EQ(control.GetModuleName(), "Probe");
  EXPECT_FALSE(CameBack(control, kSidelinePlace));
  EXPECT_TRUE(ResumeMessage(control));
  EXPECT_EQ(Str(control.Text()),
            ControlText("Probe",
                        "User-From: SMTP <ann@far.example>\r\nChannel-To: SMTP <x@example.org>\r\n"
                        "Trace: Submit\r\nTrace: Sideline\r\nChannel-To! SMTP <y@example.org>\r\n"));
  control.AddTrace();
  EXPECT_TRUE(CameBack(control, kSidelinePlace));
}

TEST_F(ReturnedTest, OnlyMailThatAModuleFailedOnIsResumed) {
  struct {
    char const *function, *type, *error, *lines, *accountTo;
    bool resumed;
  } const rows[] = {
      {"Error-Handler", "Mail", "Account-Handler:ProcessMail (MissingDelivery)", "Account-To! ann\r\n", "ann", true},
      {"Error-Handler", "Mail", "Account-Handler:x (y)", "Account-To: bob\r\nAccount-To! ann\r\n", "bob", true},
      {"Error-Handler", "Error", "Account-Handler:x (y)", "", "", false},
      {"SMTP-Router", "Mail", "Account-Handler:x (y)", "", "", false},
      {"Error-Handler", "Mail", "Error-Handler:x (y)", "", "", false},
      {"Error-Handler", "Mail", "no origin", "", "", false},
      {"Error-Handler", "Mail", "", "", "", false},
  };
  for (auto const &row : rows) {
    PutFile("control/m-Control", std::string("Function: ") + row.function + "\r\nControl-Type: " + row.type +
                                     "\r\nError: " + row.error + "\r\n" + row.lines);
    SControl control("m");
    ASSERT_EQ(control.Read(), 1);
    std::string const before = Str(control.Text());
    EXPECT_EQ(ResumeMessage(control), row.resumed) << row.error;
    if (row.resumed)
      EXPECT_EQ(control.Get("Account-To:").Join(" "), row.accountTo) << row.error;
    else
      EXPECT_EQ(Str(control.Text()), before);
  }
}
