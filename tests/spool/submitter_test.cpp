#include "brenthaven/spool/submitter.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <functional>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/spool/accept.h"
#include "brenthaven/spool/keys.h"
#include "tests/spool/spooltest.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

namespace {

class SubmitterTest : public SpoolTest {
protected:
  SubmitterTest() : submitter(&module) {
    SMIME body;
    body.AddPart("text", "plain", "7bit", "Hello.\r\n");
    submitter.SetMimeBody(body);
  }
  // The three files of the message, by their suffix.
  std::string Bytes(std::string const &kind) const {
    std::string found;
    for (std::string const &file : Files())
      if (file.ends_with(kind)) found = FileBytes(file);
    return found;
  }

  ProbeModule module;
  SSubmitter submitter;
  SStringList error;
};

constexpr char kDate[] = "[A-Z][a-z]{2}, [0-9]{1,2} [A-Z][a-z]{2} [0-9]{4} [0-9:]{8} [-+][0-9]{4}";
constexpr char kName[] = "[0-9]{17}\\.AAA[0-9]+@mail\\.example\\.org";

}  // namespace

TEST_F(SubmitterTest, ThreeFilesAndANotice) {
  DispatcherEar ear;
  submitter.SetRecipientAddresses({"<a@example.org>", "b@example.org"});
  submitter.SetSender("List Owner <owner@example.org>", 0);
  submitter.SetEnvelopeFrom(S821Address());
  submitter.SetSubject("Welcome");
  submitter.AddHeader("X-One:", "1");
  submitter.AddControlHeader("Submitted-Via:", "Test");
  ASSERT_EQ(submitter.Submit(&error), 1U);

  std::string const date = kDate;
  EXPECT_THAT(Bytes("-Header"),
              MatchesRegex("To: a@example.org\r\nTo: b@example.org\r\nFrom: List Owner <owner@example.org>\r\n"
                           "Subject: Welcome\r\nX-One: 1\r\nPrecedence: bulk\r\nDate: " +
                           date + "\r\nMessage-ID: <" + kName +
                           ">\r\nMIME-Version: 1.0\r\nContent-Type: text/plain\r\n"
                           "Content-Transfer-Encoding: 7bit\r\n"));
  EXPECT_EQ(Bytes("-Body"), "Hello.\r\n");
  EXPECT_THAT(Bytes("-Control"), MatchesRegex("Function: Account-Handler\r\nControl-Type: Mail\r\nPriority: 1\r\n"
                                              "Channel-To: SMTP <a@example.org>\r\nChannel-To: SMTP <b@example.org>\r\n"
                                              "User-From: SMTP<>\r\nSubmitted-Via: Test\r\n"
                                              "Host-From: mail.example.org \\[127.0.0.1\\]\r\nSubmitted-Date: " +
                                              date + "\r\nMTA-Hops: 0\r\nTrace: Probe\r\n"));
  EXPECT_THAT(ear.Next(), MatchesRegex(std::string(kName) + "\nkey\nAccount-Handler\nMail\n1"));
  EXPECT_EQ(submitter.GetHeaderSize(), static_cast<int>(Bytes("-Header").size()));
}

TEST_F(SubmitterTest, WithoutASenderItIsThePostmastersWhateverTheEnvelopeSaid) {
  submitter.SetRecipientAddresses(SStringList("a@example.org"));
  submitter.SetEnvelopeFrom(S821Address("<x@example.org>"));
  ASSERT_EQ(submitter.Submit(&error), 1U);
  SHeader header;
  ASSERT_EQ(header.Read(submitter.GetMessageID().Segment(1, submitter.GetMessageID().Length() - 2)), 1);
  EXPECT_EQ(Str(header.Get("From:").Get(0)), "Postmaster@mail.example.org");
  EXPECT_EQ(Str(header.Get("Reply-To:").Get(0)), "Postmaster@mail.example.org");
  EXPECT_THAT(Bytes("-Control"), ::testing::HasSubstr("User-From: SMTP <Postmaster@mail.example.org>\r\n"));
}

TEST_F(SubmitterTest, AccountsAreNamedInToWhereTheyHaveAnAddress) {
  {
    SAccountDBMod accounts;
    SAccountMod account;
    ASSERT_EQ(accounts.ModifyAccount("ann", &account), 1);
    ASSERT_EQ(account.Set("SMTP-Address", SStringList("ann@example.org")), 1);
  }
  submitter.SetRecipientUIDs({"ann", "nobody", "Postmaster"});
  ASSERT_EQ(submitter.Submit(&error), 1U);
  SHeader header;
  ASSERT_EQ(header.Read(submitter.GetMessageID().Segment(1, submitter.GetMessageID().Length() - 2)), 1);
  EXPECT_THAT(Strs(header.Get("To:")), ElementsAre("ann@example.org"));
  EXPECT_THAT(Bytes("-Control"), ::testing::HasSubstr("Account-To: ann\r\nAccount-To: nobody\r\nAccount-To: Postmaster"
                                                      "\r\nSubmitted-Via: Probe Postmaster\r\n"));
}

TEST_F(SubmitterTest, MultipartTypeCarriesItsBoundary) {
  SMIME body;
  body.SetType("multipart", "mixed");
  body.SetBoundary("b b");
  body.AddPart("text", "plain", "7bit", "one");
  submitter.SetMimeBody(body);
  submitter.SetRecipientAddresses(SStringList("a@example.org"));
  ASSERT_EQ(submitter.Submit(&error), 1U);
  EXPECT_THAT(Bytes("-Header"), ::testing::HasSubstr("Content-Type: multipart/mixed;\r\n\t\tBoundary=\"b b\"\r\n"));
}

TEST_F(SubmitterTest, FailureAtAnyCallLeavesNothingAndTellsWhere) {
  setenv("SpoolSync", "fsync", 1);
  std::vector<std::string> places;
  CallWatch watch;
  for (int n = 1; n < 200; ++n) {
    SCOPED_TRACE(n);
    SSubmitter message(&module);
    message.SetRecipientAddresses(SStringList("a@example.org"));
    message.SetMimeBody(SMIME(SStringList("text")));
    watch.FailNth(n, ENOSPC);
    unsigned const submitted = message.Submit(&error);
    if (!watch.Failed()) break;
    if (submitted) {
      for (std::string const &file : Files()) std::filesystem::remove(Path(file));
      continue;  // a look whose failure changes nothing
    }
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_THAT(Files(), IsEmpty());
    std::string const place = Str(error.Get(0)) + " " + Str(error.Get(1));
    if (places.empty() || places.back() != place) places.push_back(place);
    EXPECT_THAT(Str(error.Get(2)), ::testing::StartsWith("File: " + root + "/"));
  }
  EXPECT_THAT(places,
              ElementsAre("MakeBody BodyWriteFail", "MakeHeader HeaderWriteFail", "MakeControl ControlWriteFail"));
}

TEST_F(SubmitterTest, WhatNoSubmissionFromOutsideMayBeIsRefused) {
  struct Case {
    char const *want;
    std::function<void(SSubmitter &)> change;
  };
  SStringList many;
  for (int i = 0; i <= SAcceptance::kMaxRecipients; ++i) many.Push("uid");
  Case const cases[] = {
      {"TooManyRecipients", [&many](SSubmitter &s) { s.SetRecipientUIDs(many, "All"); }},
      {"HeaderTooLarge",
       [](SSubmitter &s) { s.SetSubject(SString('x', static_cast<int>(SAcceptance::kMaxHeaderBytes))); }},
      {"TooManyFields",
       [](SSubmitter &s) {
         for (int i = 0; i < SAcceptance::kMaxHeaderFields; ++i) s.AddHeader("X-Field:", "y");
       }},
  };
  for (auto const &[want, change] : cases) {
    SSubmitter message(&module);
    message.SetRecipientUIDs(SStringList("ann"), "Ann");
    change(message);
    EXPECT_EQ(message.Submit(&error), 0U) << want;
    EXPECT_EQ(Str(error.Get(1)), want);
    EXPECT_THAT(Files(), IsEmpty()) << want;
  }
  (void)many.Pop();
  SSubmitter largest(&module);
  largest.SetRecipientUIDs(many, "All");
  EXPECT_EQ(largest.Submit(&error), 1U);
}

TEST_F(SubmitterTest, AcceptedMeansFlushedFilesThenTheControlThenTheDirectories) {
  setenv("SpoolSync", "fsync", 1);
  submitter.SetRecipientAddresses(SStringList("a@example.org"));
  CallWatch watch;
  ASSERT_EQ(submitter.Submit(&error), 1U);
  EXPECT_EQ(watch.Count("fsync"), 5);
  int const appears = watch.Place("rename " + Path("control/"));
  int before = 0;
  for (int i = 0; i < appears; ++i) before += watch.calls[static_cast<size_t>(i)].starts_with("fsync");
  EXPECT_EQ(before, 3);
}
