#include "brenthaven/exploder/bounces.h"

#include "brenthaven/exploder/returnpath.h"
#include "tests/exploder/exploder_fixture.h"

namespace {

class BouncesTest : public ExploderTest {
protected:
  BouncesTest() {
    setenv("MaxBounceCount", "3", 1);
    Config("List-Exploder", "Config", "List-VERP", "yes");
    Config("List-Exploder", "Config", "List-VERP-Domain", "bounces.example.org");
    Sdbfile settings("MTA-Accounts", 1, kProductWord);
    EXPECT_TRUE(settings.Open("/", 1) &&
                settings.Set("LocalMailDomains", ListOf({"example.org", "bounces.example.org"})));
    AddAccount("bounces", {{"SMTP-Address", {"*@bounces.example.org"}}, {"Handler-Delivery", {"List-Exploder"}}});
    JoinRemote("jo@far.example");
  }
  static bool IsReader(char const *address) {
    SString const uid = SListDB().GetSubscriberUID(S821Address(address));
    return SListDB().GetSubscribedListUIDs(uid).Contains("news");
  }
  static int CountOf(char const *address) {
    SListState state("news");
    EXPECT_TRUE(state.Read());
    return state.GetBounceCount(state.GetUserNum(address));
  }
  // The return path of a posting to the only reader, in angle brackets.
  std::string ReturnPathOfPosting() const {
    PutPosting("m");
    EXPECT_EQ(Explode("m"), kModuleDone);
    std::string const from = Mails().at(0).Field(*this, "User-From:").at(0);
    std::filesystem::remove(Path("control/" + Mails().at(0).name + "-Control"));
    return from.substr(from.find('<'));
  }
  void Return(std::string const &path, std::string const &header = "Subject: failed\r\n",
              std::string const &sender = "", std::string const &body = "x\r\n") const {
    PutIncoming(sender, {path}, header, body);
    Drain();
  }
};

TEST_F(BouncesTest, ReturnPathNamesItsReaderWhoIsTakenOffAtTheLimit) {
  std::string const path = ReturnPathOfPosting();
  EXPECT_THAT(path, ::testing::EndsWith("+news+jo=far.example@bounces.example.org>"));
  std::string upper = path;
  std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
  for (std::string const &way : {path, upper}) Return(way);
  EXPECT_EQ(CountOf("jo@far.example"), 2);
  EXPECT_TRUE(IsReader("<jo@far.example>"));
  Return(path);
  EXPECT_FALSE(IsReader("<jo@far.example>"));
  EXPECT_EQ(Outcome(), "");
}

TEST_F(BouncesTest, OnlyBouncesCount) {
  std::string const path = ReturnPathOfPosting();
  std::string const report = "Content-Type: multipart/report; report-type=delivery-status\r\n";
  Return(path, "Auto-Submitted: auto-replied (vacation)\r\n");
  Return(path, report, "", "--x\r\n\r\nFinal-Recipient: rfc822; jo\r\nAction: Delayed\r\n");
  std::string forged = path;
  forged[1] = forged[1] == '0' ? '1' : '0';
  Return(forged);
  Return("<news+jo=far.example@bounces.example.org>");
  EXPECT_EQ(CountOf("jo@far.example"), 0);
  EXPECT_EQ(Outcome(), "");
  Return(path, "Subject: who are you?\r\n", "jo@far.example");  // a person
  EXPECT_EQ(CountOf("jo@far.example"), 0);
  EXPECT_EQ(Stored("olga").size(), 1u);
  Return(path, report, "", "--x\r\n\r\nAction: delayed\r\n\r\nAction: failed\r\n");
  EXPECT_EQ(CountOf("jo@far.example"), 1);
  Return("<stranger@bounces.example.org>", "Subject: x\r\n", "eve@far.example");
  EXPECT_EQ(Reports(), Texts{"List-Exploder:ProcessMail (UnknownAccounts)"});
}

TEST_F(BouncesTest, ReturnPathsAreMadeForPlainAddressesAndReadBack) {
  struct {
    char const *name, *subscriber;
    bool isMade;
  } const kCases[] = {
      {"news", "Jo.Doe+x=y@Far.Example", true},
      {"News", "jo@far.example", true},
      {"big news", "jo@far.example", false},
      {"news", "\"j o\"@far.example", false},
      {"news", "jo", false},
      {"news", "jo@[192.0.2.1]", false},
      {"news", "j%x@far.example", false},
      {"news", "a.very.long.local.part.of.an.address.that.will.not.fit@far.example", false},
  };
  for (auto const &c : kCases) {
    S821Address const path = MakeReturnPath("news", c.name, c.subscriber, "b.example", kSecret);
    ASSERT_EQ(path.IsValid(), c.isMade) << c.subscriber;
    SReturnPath read;
    if (!c.isMade) continue;
    ASSERT_TRUE(ReadReturnPath(S821Address(path.Get()), kSecret, read)) << path.Get();
    EXPECT_EQ(read.listUID, "news");
    EXPECT_EQ(read.subscriber, LowerCase(c.subscriber));
    EXPECT_FALSE(ReadReturnPath(path, "other", read));
  }
}

TEST_F(BouncesTest, ReaderWithoutAReturnPathGetsTheOwners) {
  JoinRemote("an.address.that.is.long.enough.to.have.no.return.path@far.example");
  PutPosting("m");
  ASSERT_EQ(Explode("m"), kModuleDone);
  ASSERT_EQ(Mails().size(), 2u);
  Texts from;
  for (Mail const &mail : Mails()) {
    EXPECT_EQ(mail.to.size(), 1u);
    from.push_back(mail.Field(*this, "User-From:").at(0));
  }
  EXPECT_THAT(from, ::testing::Contains("SMTP <owner-news@example.org>"));
}

TEST_F(BouncesTest, OwnersAccountCountsWhatNamesASubscriberAndPassesOnTheRest) {
  Sdbfile settings("List-Exploder", 1, kProductWord);
  ASSERT_TRUE(settings.Open("/Config", 1));
  ASSERT_TRUE(settings.Set("BounceRewrites", ListOf({"m .*([a-z][a-z]@far[.]example).*", "r $1", "end"})));
  Return("<owner-news@example.org>", "From: daemon@far.example\r\n", "", "No such user: jo@far.example\r\n");
  EXPECT_EQ(CountOf("jo@far.example"), 1);
  EXPECT_EQ(Stored("olga").size(), 0u);
  Return("<owner-news@example.org>", "From: daemon@far.example\r\n", "", "Something went wrong.\r\n");
  EXPECT_EQ(Stored("olga").size(), 1u);
  Return("<owner-news@example.org>", "From: eve@far.example\r\n", "eve@far.example");
  EXPECT_EQ(Stored("olga").size(), 2u);
  Set("owner-news", "Expanded-Delivery", {"Accounts List-Owners news"});  // reaches them without us
  Return("<owner-news@example.org>", "From: eve@far.example\r\n", "eve@far.example");
  EXPECT_EQ(Stored("olga").size(), 3u);
  EXPECT_EQ(Outcome(), "");
}

}  // namespace
