#include "brenthaven/spool/accept.h"

#include <gmock/gmock.h>
#include <sys/mman.h>

#include <cerrno>

#include "brenthaven/spool/keys.h"
#include "tests/spool/spooltest.h"

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

namespace {

class AcceptTest : public SpoolTest {
protected:
  AcceptTest() : module("Submit") {}
  void Fill(SAcceptance &acceptance) {
    EXPECT_EQ(acceptance.SetSender("s@example.org"), SAcceptResult::kOk);
    EXPECT_EQ(acceptance.AddRecipient("<a@example.org>"), SAcceptResult::kOk);
    EXPECT_EQ(acceptance.SetHeader("Subject: x\n"), SAcceptResult::kOk);
    acceptance.AddBody("body\n", 5);
  }
  ProbeModule module;
};

}  // namespace

TEST_F(AcceptTest, MessageStandsInThreeFilesForTheRouter) {
  DispatcherEar ear;
  std::string name;
  {
    SAcceptance acceptance(module);
    name = Str(acceptance.GetName());
    Fill(acceptance);
    EXPECT_EQ(acceptance.AddRecipient("postmaster"), SAcceptResult::kOk);
    acceptance.GetControl()[kKeySubmittedVia] = "Test";
    ASSERT_EQ(acceptance.Commit(), SAcceptResult::kOk);
  }
  EXPECT_EQ(FileBytes("messages/" + name + "-Header"), "Subject: x\r\n");
  EXPECT_EQ(FileBytes("messages/" + name + "-Body"), "body\n");
  EXPECT_THAT(FileBytes("control/" + name + "-Control"),
              MatchesRegex("Function: SMTP-Router\r\nControl-Type: Mail\r\nPriority: 1\r\n"
                           "User-From: SMTP <s@example.org>\r\nChannel-To: SMTP <a@example.org>\r\n"
                           "Channel-To: SMTP <postmaster>\r\nSubmitted-Via: Test\r\n"
                           "Host-From: mail.example.org \\[127.0.0.1\\]\r\nSubmitted-Date: [^\r]*\r\n"
                           "MTA-Hops: 0\r\nMessage-Size: 1\r\nTrace: Submit\r\n"));
  EXPECT_EQ(ear.Next(), name + "\nkey\nSMTP-Router\nMail\n1");
}

TEST_F(AcceptTest, HeaderLinesAreKeptButForWhatAFieldFileNeeds) {
  struct Case {
    char const *why, *text, *want;  // want: null when refused
  };
  Case const cases[] = {
      {"as it is", "Received: a\r\n\tby b\r\nTo: c\r\nReceived: d\r\n",
       "Received: a\r\n\tby b\r\nTo: c\r\nReceived: d\r\n"},
      {"LF line ends, none on the last", "To: a\nCc: b", "To: a\r\nCc: b\r\n"},
      {"a blank behind the colon", "To:a\nCc:\nX:\tb\n", "To: a\r\nCc: \r\nX: \tb\r\n"},
      {"no blank in front of it", "To \t: a\n", "To: a\r\n"},
      {"folded before its first word", "To:\n a\n", "To: \r\n a\r\n"},
      {"a bare CR, which hides a field from those for whom it ends no line", "To: a\rBcc: b\n", nullptr},
      {"a CR too many at the end", "To: a\r\r\n", nullptr},
      {"a line that is no field", "To: a\nhello there\n", nullptr},
      {"a continuation of nothing", " a\nTo: b\n", nullptr},
      {"a blank line", "To: a\n\nbody\n", nullptr},
      {"nothing", "", nullptr},
  };
  for (auto const &[why, text, want] : cases) {
    SCOPED_TRACE(why);
    SAcceptance acceptance(module);
    EXPECT_EQ(acceptance.AddRecipient("a@example.org"), SAcceptResult::kOk);
    EXPECT_EQ(acceptance.SetHeader(text), want != nullptr ? SAcceptResult::kOk : SAcceptResult::kBadHeader);
    EXPECT_EQ(acceptance.Commit(), want != nullptr ? SAcceptResult::kOk : SAcceptResult::kBadHeader);
    if (want == nullptr) continue;
    std::string const name = Str(acceptance.GetName());
    EXPECT_EQ(FileBytes("messages/" + name + "-Header"), want);
    EXPECT_EQ(FileBytes("messages/" + name + "-Body"), "");
    EXPECT_TRUE(Exists("messages/" + name + "-Body"));
  }
}

TEST_F(AcceptTest, WhatCanNotBeSentIsRefusedAndLeavesNothing) {
  struct Case {
    char const *why;
    std::function<void(SAcceptance &)> change;
    SAcceptResult want;
  };
  Case const cases[] = {
      {"a recipient that is none", [](SAcceptance &a) { a.AddRecipient("<>"); }, SAcceptResult::kBadAddress},
      {"a recipient with a line of its own", [](SAcceptance &a) { a.AddRecipient("b@x.org\r\nFunction: Evil"); },
       SAcceptResult::kBadAddress},
      {"two words, which the parser would join", [](SAcceptance &a) { a.AddRecipient("<b c@x.org>"); },
       SAcceptResult::kBadAddress},
      {"something behind the address", [](SAcceptance &a) { a.AddRecipient("<b@x.org> c@x.org"); },
       SAcceptResult::kBadAddress},
      {"a broken sender", [](SAcceptance &a) { a.SetSender("@example.org"); }, SAcceptResult::kBadAddress},
      {"one recipient too many",
       [](SAcceptance &a) {
         for (int i = 0; i < SAcceptance::kMaxRecipients; ++i) a.AddRecipient("b@x.org");
       },
       SAcceptResult::kTooManyRecipients},
      {"a header too large",
       [](SAcceptance &a) { a.SetHeader("X: " + SString('x', static_cast<int>(SAcceptance::kMaxHeaderBytes))); },
       SAcceptResult::kHeaderTooLarge},
      {"one field too many",
       [](SAcceptance &a) {
         std::string header;
         for (int i = 0; i <= SAcceptance::kMaxHeaderFields; ++i) header += "X: y\n";
         a.SetHeader(header.c_str());
       },
       SAcceptResult::kTooManyFields},
  };
  for (auto const &[why, change, want] : cases) {
    SCOPED_TRACE(why);
    {
      SAcceptance acceptance(module);
      Fill(acceptance);
      change(acceptance);
      EXPECT_EQ(acceptance.Commit(), want);
    }
    EXPECT_THAT(Files(), IsEmpty());
  }
  SAcceptance nobody(module);
  nobody.SetHeader("To: a\n");
  EXPECT_EQ(nobody.Commit(), SAcceptResult::kNoRecipient);
}

TEST_F(AcceptTest, NullSenderIsWrittenWithoutABlank) {
  for (char const *sender : {"", "<>"}) {
    SAcceptance acceptance(module);
    Fill(acceptance);
    EXPECT_EQ(acceptance.SetSender(sender), SAcceptResult::kOk);
    EXPECT_EQ(Str(acceptance.GetControl().Get(kKeyUserFrom).Get(0)), "SMTP<>");
  }
}

TEST_F(AcceptTest, AbandonedSubmissionLeavesNothing) {
  {
    SAcceptance acceptance(module);
    Fill(acceptance);
    std::string const block(100000, 'x');
    acceptance.AddBody(block.data(), block.size());
    EXPECT_EQ(CountIn("messages"), 1);
  }
  EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(AcceptTest, FailureAtAnyCallLeavesNothingAndFullDiskIsToldApart) {
  setenv("SpoolSync", "fsync", 1);
  CallWatch watch;
  for (int error : {ENOSPC, EDQUOT, EIO}) {
    for (int n = 1; n < 200; ++n) {
      SCOPED_TRACE(n);
      SAcceptResult result;
      {
        SAcceptance acceptance(module);
        Fill(acceptance);
        watch.FailNth(n, error);
        result = acceptance.Commit();
      }
      if (result != SAcceptResult::kOk) {
        EXPECT_EQ(result, error == EIO ? SAcceptResult::kFailed : SAcceptResult::kNoSpace) << watch.calls.back();
        EXPECT_THAT(Files(), IsEmpty());
      }
      for (std::string const &file : Files()) std::filesystem::remove(Path(file));
      if (!watch.Failed()) break;
    }
  }
}

TEST_F(AcceptTest, LargeBodyGoesFromDescriptorToFileInBlocks) {
  int const source = memfd_create("body", MFD_CLOEXEC);
  ASSERT_GE(source, 0);
  std::string bytes(3 << 20, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 131 >> 3);
  ASSERT_EQ(pwrite(source, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  CallWatch watch;
  SAcceptance acceptance(module);
  Fill(acceptance);
  EXPECT_EQ(acceptance.AddBodyFrom(source), SAcceptResult::kOk);
  EXPECT_GT(watch.Count("write"), 10);  // on its way long before the end
  ASSERT_EQ(acceptance.Commit(), SAcceptResult::kOk);
  close(source);
  std::string const name = Str(acceptance.GetName());
  EXPECT_TRUE(FileBytes("messages/" + name + "-Body") == "body\n" + bytes);
  EXPECT_THAT(FileBytes("control/" + name + "-Control"), HasSubstr("Message-Size: 3073\r\n"));
}
