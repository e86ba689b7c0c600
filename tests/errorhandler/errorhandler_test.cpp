// What the error handler makes of each kind of record: a report to the sender, a note to the postmaster, a line on the
// log, or nothing yet; and that no failure on the way loses a message or tells of it twice.
#include "brenthaven/errorhandler/errorhandler.h"

#include <gmock/gmock.h>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/returned.h"
#include "brenthaven/store/sdbfile.h"
#include "tests/spool/spooltest.h"
#include "tests/support/masked.h"
#include "tests/support/texts.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

class ErrorHandlerTest : public SpoolTest {
protected:
  ErrorHandlerTest() {
    for (char const *name : {"ReturnMaxKbytes", "SuppressPM", "ReplyToNoHost", "UseContentDisposition"}) unsetenv(name);
    setenv("TZ", "UTC", 1);
    setenv("ModuleName", "Error-Handler", 1);
    SAccountDBMod accounts;
    SAccountMod account;
    EXPECT_TRUE(accounts.ModifyAccount("Postmaster", &account));
    EXPECT_TRUE(account.Set("Local-Delivery", SStringList("Mailbox")));
    EXPECT_TRUE(accounts.ModifyAccount("full", &account));
    EXPECT_TRUE(account.Set("SMTP-Address", SStringList("fred.full@example.org")));
  }
  static void Setting(char const *error, char const *action) {
    Sdbfile settings("Error-Handler", 1, kProductWord);
    ASSERT_TRUE(settings.Open("/Error-Actions", 1) && settings.Set(error, SStringList(action)));
  }
  // A message that a module could not go on with.
  void PutRecord(std::string const &error, std::string const &lines, std::string const &trace = "SMTP-Router") const {
    PutControl("m", "Error-Handler",
               "User-From: SMTP <ann@far.example>\r\n" + lines + "Error: " + error + "\r\nTrace: " + trace + "\r\n");
    PutFile("messages/m-Header", "Subject: =?utf-8?Q?Caf=C3=A9?= =?iso-2022-jp?B?GyRCNEE7ehsoQg==?=\r\n");
    PutFile("messages/m-Body", "body\r\n");
  }
  // An error without a message.
  void PutError(std::string const &error, std::string const &lines) const {
    PutFile("control/m-Control", "Control-Type: Error\r\nPriority: 1\r\nFunction: Error-Handler\r\nError: " + error +
                                     "\r\n" + lines + "Trace: Dispatch\r\n");
  }
  // A pass, with what it wrote to the log.
  std::string Pass(std::string const &name = "m") {
    SErrorHandlerModule module;
    testing::internal::CaptureStderr();
    EXPECT_EQ(module.LoadEnv(), 1u);
    EXPECT_EQ(module.ProcessMessageName(SString(std::string_view(name))), kModuleDone);
    return testing::internal::GetCapturedStderr();
  }
  // A new message's file of a kind, masked; "" when there is none.
  std::string New(std::string const &kind) const {
    for (std::string const &file : Files())
      if (file.ends_with(kind) && file.find("/m-") == std::string::npos) return Masked(FileBytes(file));
    return "";
  }
  // What is left in the spool, messages of our own making by NAME.
  Texts Left() const {
    Texts left;
    for (std::string const &file : Files())
      if (!file.starts_with("config/")) left.push_back(Masked(file));
    std::sort(left.begin(), left.end());
    return left;
  }
  void ClearSpool() const {
    for (std::string const &file : Files())
      if (!file.starts_with("config/")) std::filesystem::remove(Path(file));
  }
};

Texts const kOneReport = {"control/NAME-Control", "messages/NAME-Body", "messages/NAME-Header"};

}  // namespace

TEST_F(ErrorHandlerTest, SenderIsToldWhatFailedForWhomAndWhy) {
  struct {
    char const *error, *lines, *status, *recipients;
    char const *text;
  } const rows[] = {
      {"SMTP-Router:WriteUnknownAcct (UnknownAccounts)",
       "Channel-To: SMTP <no@example.org>\r\nChannel-To: SMTP <body@example.org>\r\n"
       "Error-Text: SMTP <no@example.org>\r\nError-Text: SMTP <body@example.org>\r\n",
       "5.1.1", "no@example.org body@example.org",
       "There is no such address here.\r\n\r\n    no@example.org\r\n    body@example.org\r\n"},
      {"Account-Handler:WriteUnknownAcct (UnknownAccounts)",
       "Account-To: ghost\r\nAccount-To! full\r\nError-Text: ghost\r\n", "5.1.1", "ghost@example.org",
       "There is no such address here.\r\n\r\n    ghost@example.org\r\n"},
      {"Mailbox-Deliver:DeliverMessage (OverQuota)",
       "Deliver-To: Mailbox full\r\nError-Text: No room for fred.full@example.org\r\n", "5.2.2",
       "fred.full@example.org",
       "The mailbox is full.\r\n\r\n    fred.full@example.org\r\nNo room for fred.full@example.org\r\n"},
      {"SMTP-Router:ProcessMail (MaxMTAHopCountExceeded)",
       "Channel-To: SMTP <x@y.example>\r\nError-Text: Maximum Hops: 35\r\n", "5.4.6", "x@y.example",
       "The message went in a circle.\r\n\r\n    x@y.example\r\nMaximum Hops: 35\r\n"},
      {"Account-Handler:ProcessMail (InvalidHandlerDelivery)", "Account-To! full\r\n", "5.4.6", "fred.full@example.org",
       "The message went in a circle.\r\n\r\n    fred.full@example.org\r\n"},
      {"SMTP-Router:WriteUnknownAcct (Unallowed%Addr)",
       "Channel-To: SMTP <a%b@example.org>\r\nError-Text: SMTP <a%b@example.org>\r\n", "5.7.1", "a%b@example.org",
       "Mail to this address is not passed on by this host.\r\n\r\n    a%b@example.org\r\n"},
      {"SMTP-Router:ProcessMail (MissingHostFrom)", "Channel-To: SMTP <x@y.example>\r\nError-Text: \r\n", "5.0.0",
       "x@y.example", "The message could not be delivered.\r\n\r\n    x@y.example\r\n"},
      {"Strange", "Channel-To: SMTP <@far.example:x@y.example>\r\n", "5.0.0", "x@y.example",
       "The message could not be delivered.\r\n\r\n    x@y.example\r\n"},
  };
  for (auto const &row : rows) {
    PutRecord(row.error, row.lines);
    (void)Pass();
    EXPECT_EQ(Left(), kOneReport) << row.error;
    std::string const body = New("-Body");
    EXPECT_THAT(body, HasSubstr(std::string("reason:\r\n\r\n") + row.text +
                                "\r\nSubject: Caf?\x1b$B4A;z\x1b(B\r\n\r\nPlease reply"))
        << row.error;
    for (SString const &address : SString(row.recipients).SplitExact(" "))
      EXPECT_THAT(body, HasSubstr("\r\n\r\nFinal-Recipient: rfc822; " + Str(address) +
                                  "\r\nAction: failed\r\nStatus: " + row.status + "\r\nDiagnostic-Code: "))
          << row.error;
    EXPECT_THAT(New("-Control"), HasSubstr("\r\nUser-From: SMTP<>\r\n"));
    EXPECT_THAT(New("-Control"), HasSubstr("\r\nChannel-To: SMTP <ann@far.example>\r\nTrace: Error-Handler\r\n"));
    ClearSpool();
  }
}

TEST_F(ErrorHandlerTest, RecordThatNamesNobodyIsReturnedWithoutAPartForMachines) {
  PutRecord("SMTP-Router:ProcessAddresses (MissingChannelTo)", "");
  (void)Pass();
  EXPECT_EQ(Left(), kOneReport);
  EXPECT_THAT(New("-Header"), HasSubstr("Content-Type: multipart/mixed;"));
}

TEST_F(ErrorHandlerTest, ErrorOnNoMessageIsMailForPostmaster) {
  PutError("Dispatch:DiskLimits (LowDiskSpaceWarning)",
           "Error-Text: /mail = 17 KB\r\nError-Text: caf\xc3\xa9\r\nError-Number: 28\r\n");
  EXPECT_EQ(Pass(), "");
  EXPECT_EQ(Left(), kOneReport);
  EXPECT_EQ(
      New("-Control"),
      "Function: Account-Handler\r\nControl-Type: Mail\r\nPriority: 1\r\nAccount-To: Postmaster\r\n"
      "Submitted-Via: Error-Handler Postmaster\r\nUser-From: SMTP<>\r\nError-Msg-Type: ReturnMessage\r\n"
      "Host-From: mail.example.org [127.0.0.1]\r\nSubmitted-Date: DATE\r\nMTA-Hops: 0\r\nTrace: Error-Handler\r\n");
  EXPECT_EQ(New("-Header"),
            "To: Postmaster@example.org\r\nFrom: Mail Administrator<Postmaster@example.org>\r\n"
            "Subject: Mail System Error - LowDiskSpaceWarning\r\nAuto-Submitted: auto-generated\r\n"
            "Precedence: bulk\r\nDate: DATE\r\nMessage-ID: <NAME>\r\nMIME-Version: 1.0\r\n"
            "Content-Type: text/plain; charset=iso-2022-jp\r\nContent-Transfer-Encoding: 7bit\r\n");
  EXPECT_EQ(New("-Body"),
            "Error: Dispatch:DiskLimits (LowDiskSpaceWarning)\r\nRecord: m\r\n"
            "Error-Number: 28 (No space left on device)\r\n\r\n/mail = 17 KB\r\ncaf?\r\n");
}

TEST_F(ErrorHandlerTest, WhatIsLeftOfAMessageIsToldToPostmasterAndGoes) {
  PutRecord("SMTP-Router:ProcessMail (MissingHostFrom)", "Channel-To: SMTP <x@y.example>\r\n");
  std::filesystem::remove(Path("messages/m-Body"));
  (void)Pass();
  EXPECT_EQ(Left(), kOneReport);
  EXPECT_THAT(New("-Body"),
              HasSubstr("\r\nUser-From: SMTP <ann@far.example>\r\n\r\n\r\nRecipients:\r\n\r\n    x@y.example\r\n"));
}

TEST_F(ErrorHandlerTest, WithoutPostmasterHisMailWaitsAndTheLogSaysSo) {
  ASSERT_EQ(SAccountDBMod().DeleteAccount("Postmaster"), 1);
  PutError("Dispatch:DiskLimits (LowDiskSpaceWarning)", "");
  EXPECT_THAT(Pass(), HasSubstr(":Error-Handler:ERROR:no account Postmaster, mail for it waits:<"));
  EXPECT_EQ(Left(), kOneReport) << "the account handler keeps it until there is one";
}

TEST_F(ErrorHandlerTest, ErrorsOnReportsEndOnTheLog) {
  char const *const lines = "Channel-To: SMTP <x@y.example>\r\nError-Text: x@y.example\r\n";
  PutRecord("SMTP-Router:W (UnknownAccounts)", std::string("Error-Msg-Type: ReturnMessage\r\n") + lines);
  EXPECT_THAT(Pass(), HasSubstr(":Error-Handler:No report about a report:m:UnknownAccounts:x@y.example\n"));
  EXPECT_THAT(Left(), IsEmpty());
  PutRecord("SMTP-Router:W (UnknownAccounts)", lines, "Error-Handler\r\nTrace: SMTP-Router");
  EXPECT_THAT(Pass(), HasSubstr("No report about a report:m:"));
  EXPECT_THAT(Left(), IsEmpty());
  PutError("Mailbox-Deliver:DeliverMessage (DeliveryErrors)", "Trace: Error-Handler\r\nTrace: Mailbox-Deliver\r\n");
  EXPECT_THAT(Pass(), HasSubstr("No report about a report:m:"));
  EXPECT_THAT(Left(), IsEmpty());
}

TEST_F(ErrorHandlerTest, SettingsHoldAnErrorUntilItIsReleased) {
  Setting("UnknownAccounts", "hold");
  Setting("OverQuota", "Delete");
  Setting("BadDeliveries", "Hold");
  char const *const to = "Channel-To: SMTP <x@example.org>\r\n";
  PutRecord("SMTP-Router:W (UnknownAccounts)", to);
  std::string const log = Pass();
  EXPECT_THAT(log, HasSubstr(":ERROR:Error-Actions/BadDeliveries: no such action: Hold\n"));
  EXPECT_THAT(log, HasSubstr(":HELD:m:SMTP-Router:W (UnknownAccounts)\n"));
  EXPECT_THAT(Left(), ElementsAre("deferred/Held/m-Control", "messages/m-Body", "messages/m-Header"));
  SErrorHandlerModule().ProcessQueue();
  EXPECT_TRUE(Exists("deferred/Held/m-Control")) << "no walk takes it";
  ClearSpool();
  PutRecord("SMTP-Router:W (UnknownAccounts)", to, "SMTP-Router\r\nTrace: Held\r\nTrace: Error-Handler");
  (void)Pass();
  EXPECT_TRUE(Exists("deferred/Held/m-Control")) << "the move failed at first";
  ClearSpool();
  PutRecord("SMTP-Router:W (UnknownAccounts)", to, "SMTP-Router\r\nTrace: Held\r\nTrace: Queue\r\nTrace: SMTP-Router");
  (void)Pass();
  EXPECT_EQ(Left(), kOneReport) << "was released, and failed again";
  ClearSpool();
  PutRecord("Mailbox-Deliver:D (OverQuota)", to);
  (void)Pass();
  EXPECT_THAT(Left(), IsEmpty());
  PutRecord("SMTP-Router:ProcessMailAllError (SideLined)", to);
  (void)Pass();
  EXPECT_TRUE(Exists("deferred/Sideline/m-Control")) << "where the judge would have put it";
  ClearSpool();
  PutRecord("SMTP-Router:Run (ModuleDied)", to);
  (void)Pass();
  EXPECT_TRUE(Exists("deferred/Held/m-Control")) << "no fault of the sender's";
}

TEST_F(ErrorHandlerTest, DelayIsToldOnceAndTheMessageGoesOn) {
  char const *const lines = "Host-To: far.example\r\nChannel-To: SMTP <x@far.example>\r\nError-Text: busy\r\n";
  PutRecord("SMTP-Deliver:Send (DeliveryErrors)", lines, "SMTP-Deliver");
  (void)Pass();
  EXPECT_THAT(New("-Body"), HasSubstr("Action: delayed\r\nStatus: 4.2.0\r\n"));
  EXPECT_EQ(FileBytes("deferred/SMTP-Deliver/far.example/m-Control"),
            ControlText("SMTP-Deliver",
                        "User-From: SMTP <ann@far.example>\r\nHost-To: far.example\r\n"
                        "Channel-To: SMTP <x@far.example>\r\nTrace: SMTP-Deliver\r\nTrace: Error-Handler\r\n"));
  EXPECT_EQ(Left().size(), 6u);
  ClearSpool();
  PutRecord("SMTP-Deliver:Send (DeliveryErrors)", lines, "SMTP-Deliver\r\nTrace: Error-Handler\r\nTrace: SMTP-Deliver");
  (void)Pass();
  EXPECT_THAT(New("-Body"), HasSubstr("Action: failed\r\nStatus: 5.4.7\r\n"));
  EXPECT_THAT(New("-Body"), HasSubstr("though it was tried again."));
  EXPECT_EQ(Left(), kOneReport);
}

TEST_F(ErrorHandlerTest, MailToItsOwnAddressGoesToPostmaster) {
  PutControl("m", "Error-Handler",
             "User-From: SMTP<>\r\nManager-To: Error-Handler\r\nManager-To: Other\r\nAccount-To! Error-Handler\r\n");
  PutMessage("m");
  EXPECT_EQ(Pass(), "");
  EXPECT_EQ(FileBytes("control/m-Control"),
            ControlText("Account-Handler",
                        "User-From: SMTP<>\r\nAccount-To! Error-Handler\r\nManager-To: Other\r\n"
                        "Manager-To! Error-Handler\r\nAccount-To: Postmaster\r\nTrace: Error-Handler\r\n"));
}

TEST_F(ErrorHandlerTest, RecordThatFailsForeverIsHeldForAPerson) {
  std::string trace = "SMTP-Router";
  for (int i = 0; i < SErrorHandlerModule::kMostPasses; ++i) trace += "\r\nTrace: Error-Handler";
  PutRecord("SMTP-Router:W (UnknownAccounts)", "Channel-To: SMTP <x@example.org>\r\n", trace);
  EXPECT_THAT(Pass(), HasSubstr(":HELD:m:"));
  EXPECT_TRUE(Exists("deferred/Held/m-Control"));
}

TEST_F(ErrorHandlerTest, UnreadableAccountsAreNotAbsentOnes) {
  PutFile("config/BTAccounts.a", std::string(65536, '\x5a'));
  PutFile("config/BTAccounts.i", std::string(65536, '\x5a'));
  PutRecord("Mailbox-Deliver:D (OverQuota)", "Deliver-To: Mailbox full\r\n");
  (void)Pass();
  EXPECT_THAT(Left(), ElementsAre("deferred/Error-Handler/m-Control", "messages/m-Body", "messages/m-Header"));
}

// Each call of a pass fails in turn; then the queue is walked as if nothing had been. In the end the sender was told
// once, and the message is gone; only a header or body file whose removal failed may be left, for `doctor` to find.
TEST_F(ErrorHandlerTest, FailureOfAnyCallLosesNothingAndTellsNothingTwice) {
  setenv("SpoolSync", "fsync", 1);
  Setting("OverQuota", "hold");
  struct {
    char const *error;
    Texts left;
  } const rows[] = {
      {"SMTP-Router:W (UnknownAccounts)", kOneReport},
      {"Mailbox-Deliver:D (OverQuota)", {"deferred/Held/m-Control", "messages/m-Body", "messages/m-Header"}},
      {"SMTP-Deliver:S (DeliveryErrors)",
       {"control/NAME-Control", "deferred/SMTP-Deliver/m-Control", "messages/NAME-Body", "messages/NAME-Header",
        "messages/m-Body", "messages/m-Header"}},
      {"", kOneReport},  // on no message
  };
  for (auto const &row : rows)
    for (int n = 1;; ++n) {
      ClearSpool();
      std::filesystem::remove_all(Path("deferred"));
      std::filesystem::create_directory(Path("deferred"));
      if (row.error[0] != '\0')
        PutRecord(row.error, "Channel-To: SMTP <x@example.org>\r\nDeliver-To: Mailbox full\r\n");
      else
        PutError("Dispatch:DiskLimits (LowDiskSpaceWarning)", "");
      testing::internal::CaptureStderr();
      bool failed = false;
      {
        SErrorHandlerModule module;
        EXPECT_EQ(module.LoadEnv(), 1u);
        CallWatch watch;
        watch.FailNth(n, EIO);
        (void)module.ProcessMessageName("m");
        failed = watch.Failed();
      }
      // What is in control/ is found by the dispatcher's scan, what is deferred by a walk.
      for (int i = 0; i < 3; ++i) {
        SErrorHandlerModule module;
        EXPECT_EQ(module.LoadEnv(), 1u);
        (void)module.ProcessMessageName("m");
        module.ProcessQueue();
      }
      std::string const log = testing::internal::GetCapturedStderr();
      Texts left = Left();
      // Passed on by the walk of the wrong queue: its module takes it up at once.
      std::replace(left.begin(), left.end(), std::string("control/m-Control"),
                   std::string("deferred/SMTP-Deliver/m-Control"));
      std::sort(left.begin(), left.end());
      if (log.find("Remove failed") != std::string::npos && left.size() == row.left.size() + 1) {
        EXPECT_TRUE(std::erase_if(left, [](std::string const &file) { return file.starts_with("messages/m-"); }) == 1);
      }
      EXPECT_EQ(left, row.left) << row.error << " call " << n << "\n" << log;
      if (!failed) {
        EXPECT_GT(n, 10) << row.error;
        break;
      }
    }
}
