#include "brenthaven/exploder/digest.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "brenthaven/mime/smime.h"
#include "tests/exploder/exploder_fixture.h"
#include "tests/platform/callhook.h"

namespace {

constexpr time_t kHour = 3600;

class DigestTest : public ExploderTest {
protected:
  DigestTest() {
    setenv("TZ", "UTC", 1);
    tzset();
    JoinDigest("bob");
    Set("news", "List-Digest-Schedule", {"daily 6am"});
  }
  void Post(std::string const &name, std::string const &subject, std::string const &body) const {
    PutPosting(name,
               "Received: from x\r\nFrom: eve@far.example\r\nSubject: " + subject + "\r\nMessage-ID: <" + name +
                   "@far.example>\r\n",
               {}, body);
    EXPECT_EQ(Explode(name), kModuleDone);
  }
  // Has what waits collected at that time.
  void SetCollected(time_t moment) const {
    for (std::string const &file : Files("List-Exploder/digest")) {
      struct timespec const times[] = {{moment, 0}, {moment, 0}};
      ASSERT_EQ(utimensat(AT_FDCWD, Path("List-Exploder/digest/" + file).c_str(), times, 0), 0);
    }
  }
  static void SendAt(time_t now) {
    SListExploderModule module;
    ASSERT_EQ(module.LoadEnv(), 1u);
    module.SendDueDigests(now);
  }
};

constexpr time_t kMonday = 1774828800;  // Mon, 30 Mar 2026 00:00:00 UTC

TEST_F(DigestTest, ScheduleNamesItsLastMoment) {
  struct {
    time_t now;
    int hours, day;
    time_t want;
  } const kCases[] = {
      {kMonday + 6 * kHour, 6, 7, kMonday + 6 * kHour},
      {kMonday + 6 * kHour - 1, 6, 7, kMonday - 18 * kHour},
      {kMonday + 5 * kHour, 0, 1, kMonday},
      {kMonday + 5 * kHour, 6, 1, kMonday - 162 * kHour},
      {kMonday + 5 * kHour, 12, 0, kMonday - 12 * kHour},
      {kMonday + 5 * kHour, 24, 7, -1},
      {kMonday + 5 * kHour, 25, 1, -1},
  };
  for (auto const &c : kCases) EXPECT_EQ(LastDigestTime(c.now, c.hours, c.day), c.want) << c.now << " " << c.hours;
}

TEST_F(DigestTest, PostingsWaitUntilTheHourAndThenGoOutTogether) {
  Join("ann");
  Post("20260329.A@x", "one", "First.");
  Post("20260329.B@x", "zwei \xc3\xa4", "Second.\r\n");
  EXPECT_EQ(Outcome(), "Mailbox-Deliver: Mailbox ann; Mailbox-Deliver: Mailbox ann");
  EXPECT_TRUE(Exists("deferred/List-Exploder"));  // so that walks come
  for (Mail const &mail : Mails()) std::filesystem::remove(Path("control/" + mail.name + "-Control"));
  SetCollected(kMonday + 5 * kHour);
  SendAt(kMonday + 6 * kHour - 1);
  EXPECT_EQ(Outcome(), "");
  SendAt(kMonday + 6 * kHour + 1);
  EXPECT_EQ(Outcome(), "List-Exploder: List-Exploder news");
  EXPECT_EQ(Files("List-Exploder/digest"), Texts{});
  Drain();
  ASSERT_EQ(Stored("bob").size(), 1u);
  std::string const stored = Stored("bob")[0];
  size_t const gap = stored.find("\r\n\r\n");
  for (char const *field :
       {"Subject: news digest, Vol 1 #1", "From: <news-request@example.org>", "List-Id: <news.example.org>",
        "Content-Type: multipart/digest;", "Content-Transfer-Encoding: 8bit", "Return-Path: <owner-news@example.org>"})
    EXPECT_NE(stored.find(field), std::string::npos) << field;
  size_t const begin = stored.find("boundary=\"") + 10;
  std::string const boundary = stored.substr(begin, stored.find('"', begin) - begin);
  EXPECT_EQ(
      stored.substr(gap + 4),
      "--" + boundary +
          "\r\n\r\nFrom: eve@far.example\r\nMessage-ID: <20260329.A@x@far.example>\r\nSubject: one\r\n\r\nFirst.\r\n" +
          "--" + boundary +
          "\r\n\r\nFrom: eve@far.example\r\nMessage-ID: <20260329.B@x@far.example>\r\nSubject: zwei "
          "\xc3\xa4\r\n\r\nSecond.\r\n\r\n" +
          "--" + boundary + "--\r\n");
  EXPECT_EQ(Stored("ann").size(), 0u);
  Post("20260330.C@x", "three", "x\r\n");
  SetCollected(kMonday);
  SendAt(kMonday + 6 * kHour);
  Drain();
  EXPECT_THAT(Stored("bob").at(1), ::testing::HasSubstr("Vol 1 #2"));
}

TEST_F(DigestTest, NothingIsCollectedForNobodyAndNothingGoesOutWithoutATime) {
  Post("a", "one", "x\r\n");
  for (char const *schedule : {"13 pm", "noon"}) {
    Set("news", "List-Digest-Schedule", {schedule});
    SetCollected(kMonday);
    SendAt(kMonday + 100 * 24 * kHour);
    EXPECT_EQ(CountIn("List-Exploder/digest/news"), 1) << schedule;
  }
  Set("news", "List-Digest-Schedule", {});  // every midnight
  Set("bob", "Subscribed-Lists-Digest", {});
  SendAt(kMonday + 24 * kHour);
  EXPECT_EQ(CountIn("control") + CountIn("List-Exploder/digest"), 0);  // the reader has left
  Post("b", "two", "x\r\n");
  EXPECT_EQ(CountIn("List-Exploder/digest"), 0);
}

TEST_F(DigestTest, HeldPostingsAreNotCollectedAndRepeatedOnesOnce) {
  Set("news", "List-Nonsubscriber-Posting-Policy", {"moderated"});
  Set("news", "List-Moderation-Method", {"queue-no-mail"});
  Post("a", "one", "x\r\n");
  EXPECT_EQ(CountIn("List-Exploder/digest/news"), 0);
  Set("news", "List-Nonsubscriber-Posting-Policy", {});
  Post("b", "two", "x\r\n");
  std::filesystem::remove(Path("listdata/news"));  // its Message-ID is forgotten, as after a crash
  Post("b", "two", "x\r\n");
  EXPECT_EQ(CountIn("List-Exploder/digest/news"), 1);
}

TEST_F(DigestTest, WalkKeepsItsDirectoryWhilePostingsWait) {
  Post("a", "one", "x\r\n");
  Walk();
  EXPECT_TRUE(Exists("deferred/List-Exploder"));
  SetCollected(kMonday);
  Walk();
  EXPECT_EQ(Outcome(), "List-Exploder: List-Exploder news");
  Walk();
  EXPECT_FALSE(Exists("deferred/List-Exploder"));
}

TEST_F(DigestTest, PostingsWaitOrStandInTheDigestWhateverFails) {
  for (char const *call : {"open", "write", "rename"}) {
    for (int number = 1; number < 16; ++number) {
      ClearSpool();
      Post("a", "one", "x\r\n");
      SetCollected(kMonday);
      {
        SCallHook const hook(call, number, ENOSPC);
        SendAt(kMonday + 24 * kHour);
      }
      bool const isMade = Outcome() == "List-Exploder: List-Exploder news";
      EXPECT_NE(isMade, Exists("List-Exploder/digest/news/a")) << call << number;
      EXPECT_EQ(CountIn("messages"), isMade ? 2 : 0) << call << number;
    }
  }
}

}  // namespace
