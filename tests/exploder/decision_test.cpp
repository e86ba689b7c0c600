#include "brenthaven/exploder/decision.h"

#include "brenthaven/lists/slistactions.h"
#include "tests/exploder/exploder_fixture.h"

namespace {

class DecisionTest : public ExploderTest {
protected:
  DecisionTest() {
    Join("bob");
    Config("List-Exploder", "Config", "Log", "no");
  }

  // One word for what became of a posting.
  std::string Fate() const {
    std::string const outcome = Outcome();
    bool const isHeld = CountIn("List-Exploder/approval") > 0;
    bool const isAsked = outcome.find("Account-Handler: olga") != std::string::npos;
    if (CountIn("deferred/List-Exploder") > 0) return "deferred";
    if (outcome.find("Mailbox-Deliver: Mailbox bob") != std::string::npos) return isHeld ? "?" : "sent";
    if (isHeld) return isAsked ? "held, owners asked" : "held";
    if (outcome.find("SMTP <eve@far.example>") != std::string::npos)
      return isAsked ? "refused, owners told" : "refused";
    if (isAsked) return "forwarded to owners";
    if (outcome == "Account-Handler: news-request") return "to manager";
    return outcome.empty() ? "dropped" : outcome;
  }
  std::string FateOf(std::string const &header, Texts const &lines = {}, std::string const &body = "Hello.\r\n") {
    PutPosting("m", header, lines, body);
    EXPECT_EQ(Explode("m"), kModuleDone);
    std::string const fate = Fate();
    ClearSpool();
    return fate;
  }

  std::string const fromAnn = kHeader;
  std::string const fromBob = "From: bob@example.org\r\nSubject: x\r\nMessage-ID: <2@b>\r\n";
  std::string const fromEve = "From: eve@far.example\r\nSubject: x\r\nMessage-ID: <3@c>\r\n";
};

TEST_F(DecisionTest, PoliciesDecideByWhoPosts) {
  struct {
    char const *attribute;
    Texts values;
    std::string header;
    char const *want;
  } const kCases[] = {
      {"List-Nonsubscriber-Posting-Policy", {"open"}, fromEve, "sent"},
      {"List-Nonsubscriber-Posting-Policy", {"closed"}, fromEve, "refused"},
      {"List-Nonsubscriber-Posting-Policy", {"closed-notify"}, fromEve, "refused, owners told"},
      {"List-Nonsubscriber-Posting-Policy", {"moderated"}, fromEve, "held, owners asked"},
      {"List-Nonsubscriber-Posting-Policy", {"closed"}, fromBob, "sent"},
      {"List-Subscriber-Posting-Policy", {"moderated"}, fromBob, "held, owners asked"},
      {"List-Subscriber-Posting-Policy", {"closed"}, fromEve, "sent"},
      {"List-Posting-Policy",
       {"sender-addr-in", "[eve@far.example]", "deny", "not", "[remote-user]", "approval"},
       fromEve,
       "refused"},
      {"List-Posting-Policy",
       {"sender-addr-in", "[eve@far.example]", "deny", "not", "[remote-user]", "approval"},
       fromAnn,
       "held, owners asked"},
      {"List-Posting-Policy", {"never", "deny"}, fromEve, "sent"},
      {"List-Posting-Policy", {"always", "require-auth"}, fromBob, "held, owners asked"},
      {"List-Locked", {"yes"}, fromBob, "refused"},
      {"List-Max-Message-Kbytes", {"0"}, fromBob, "sent"},
  };
  Set("news", "List-Moderation-Method", {"queue-notify"});
  for (auto const &c : kCases) {
    Set("news", c.attribute, c.values);
    EXPECT_EQ(FateOf(c.header), c.want) << c.attribute << " " << c.values[0] << "\n" << c.header;
    Set("news", c.attribute, {});
  }
}

TEST_F(DecisionTest, ApprovedPostersPassLockAndPolicyByAddressOrAccount) {
  for (char const *attribute : {"List-Subscriber-Posting-Policy", "List-Nonsubscriber-Posting-Policy"})
    Set("news", attribute, {"closed"});
  Set("news", "List-Locked", {"yes"});
  Set("olga", "SMTP-Address", {"olga@example.org", "the.boss@example.org"});
  for (char const *entry : {"Eve@FAR.example", "<eve@far.example>"}) {
    Set("news", "List-Approved-Posters", {entry});
    EXPECT_EQ(FateOf(fromEve), "sent") << entry;
    EXPECT_EQ(FateOf(fromBob), "refused") << entry;
  }
  for (char const *entry : {"olga", "olga@example.org"}) {
    Set("news", "List-Approved-Posters", {entry});
    EXPECT_EQ(FateOf("From: The.Boss@example.org\r\n"), "sent") << entry;
  }
}

TEST_F(DecisionTest, ModerationMethodSaysWhetherAPostingIsKeptAndWhoLearnsOfIt) {
  struct {
    char const *method;
    Texts suppressed;
    char const *want;
  } const kCases[] = {
      {"queue-notify", {}, "held, owners asked"},
      {"queue-mail", {}, "held, owners asked"},
      {"queue-no-mail", {}, "held"},
      {"queue-notify", {"PostApprovalRequest"}, "held"},
      {"noqueue-fwd", {}, "forwarded to owners"},
      {"noqueue-fwd-nomime", {}, "forwarded to owners"},
      {"", {}, "forwarded to owners"},
      {"noqueue-fwd", {"PostApprovalRequest"}, "refused"},  // nobody would ever have seen it
  };
  Set("news", "List-Nonsubscriber-Posting-Policy", {"moderated"});
  for (auto const &c : kCases) {
    Set("news", "List-Moderation-Method", {c.method});
    Set("news", "List-Suppress-Notifications", c.suppressed);
    EXPECT_EQ(FateOf(fromEve), c.want) << c.method;
  }
}

TEST_F(DecisionTest, HeldPostingGoesOutWhenApprovedAndAsksByAnIdThatWorks) {
  Set("news", "List-Nonsubscriber-Posting-Policy", {"moderated"});
  Set("news", "List-Moderation-Method", {"queue-notify"});
  PutPosting("m", fromEve);
  ASSERT_EQ(Explode("m"), kModuleDone);
  ASSERT_EQ(Mails().size(), 1u);
  EXPECT_THAT(Mails()[0].body, ::testing::HasSubstr("\r\napprove PASSWORD accept m news\r\n"));
  std::filesystem::remove(Path("control/" + Mails()[0].name + "-Control"));
  SListExploderModule module;
  EXPECT_NE(SListActions(&module, "news", S821Address()).Moderate("m", 1), kListMsgNotFound);
  EXPECT_EQ(Field("control/m-Control", "Approved:"), Texts{"yes"});
  EXPECT_EQ(Explode("m"), kModuleDone);
  EXPECT_EQ(Fate(), "sent");
  SListState state("news");
  ASSERT_TRUE(state.Read());
  int const eve = state.GetUserNum("eve@far.example");
  EXPECT_EQ(state.GetModeratedPostCount(eve), 1);
  EXPECT_EQ(state.GetUserTotalMessages(eve), 1);
  EXPECT_EQ(state.GetTotalMessages(), 1);
}

TEST_F(DecisionTest, OnlyTheControlSaysApproved) {
  Set("news", "List-Nonsubscriber-Posting-Policy", {"closed"});
  EXPECT_EQ(FateOf(fromEve + "Approved: yes\r\n"), "refused");
  EXPECT_EQ(FateOf(fromEve, {"Approved: no"}), "refused");
  Set("news", "List-Locked", {"yes"});
  EXPECT_EQ(FateOf(fromEve, {"Approved: yes"}), "sent");
}

TEST_F(DecisionTest, LoopsBouncesAndDuplicatesEnd) {
  EXPECT_EQ(FateOf(fromEve + "List-Id: News <NEWS.example.org>\r\n"), "dropped");
  EXPECT_EQ(FateOf(fromEve + "List-Id: <other.example.org>\r\n"), "sent");
  EXPECT_EQ(FateOf(fromEve, {"User-From: SMTP<>"}), "dropped");
  Config("List-Exploder", "Config", "BounceFilter", "Subject: ^undeliverable");
  EXPECT_EQ(FateOf("From: eve@far.example\r\nSubject: Undeliverable: x\r\n"), "dropped");
  for (char const *want : {"sent", "dropped"}) {
    PutPosting("m", fromEve);
    EXPECT_EQ(Explode("m"), kModuleDone);
    EXPECT_EQ(Fate(), want);
    std::filesystem::remove_all(Path("control"));
    std::filesystem::create_directory(Path("control"));
  }
}

TEST_F(DecisionTest, RefusedPostingIsNoDuplicateWhenItComesAgain) {
  Set("news", "List-Nonsubscriber-Posting-Policy", {"closed"});
  PutPosting("m", fromEve);
  ASSERT_EQ(Explode("m"), kModuleDone);
  EXPECT_EQ(Fate(), "refused");
  Set("news", "List-Nonsubscriber-Posting-Policy", {"open"});
  PutPosting("m", fromEve);
  ASSERT_EQ(Explode("m"), kModuleDone);
  EXPECT_EQ(Fate(), "sent");
}

TEST_F(DecisionTest, NoReportGoesToAProgram) {
  Set("news", "List-Nonsubscriber-Posting-Policy", {"closed"});
  EXPECT_EQ(FateOf(fromEve + "Precedence: bulk\r\n"), "dropped");
  EXPECT_EQ(FateOf(fromEve, {"User-From: SMTP <owner-other@far.example>"}), "dropped");
}

TEST_F(DecisionTest, LimitsOfSizeAndDayFollowTheLimitPolicy) {
  struct {
    char const *attribute, *limit, *policy, *want;
  } const kCases[] = {
      {"List-Max-Message-Kbytes", "1", "", "sent"},
      {"List-Max-Message-Kbytes", "2", "", "held, owners asked"},
      {"List-Max-Message-Kbytes", "2", "closed", "refused"},
      {"List-Max-Message-Kbytes", "2", "closed-notify", "refused, owners told"},
      {"List-Max-Message-Kbytes", "2", "open", "sent"},
      {"List-Max-Messages-Per-Day", "1", "closed", "sent"},  // the first of the day
      {"List-Max-Kbytes-Per-Day", "2", "closed", "refused"},
  };
  Set("news", "List-Moderation-Method", {"queue-notify"});
  for (auto const &c : kCases) {
    Set("news", "List-Limit-Policy", {c.policy});
    Set("news", c.attribute, {c.limit});
    std::string const body(std::string(c.limit) == "2" ? 2100 : 10, 'x');
    EXPECT_EQ(FateOf(fromBob, {}, body), c.want) << c.attribute << " " << c.policy;
    Set("news", c.attribute, {});
  }
}

TEST_F(DecisionTest, DayLimitCountsFromTheFirstPostingOfTheDayAndSurvivesAClearing) {
  Set("news", "List-Max-Messages-Per-Day", {"2"});
  Set("news", "List-Limit-Policy", {"closed"});
  int number = 0;
  auto const post = [this, &number] {
    PutPosting("m", "From: bob@example.org\r\nMessage-ID: <" + std::to_string(++number) + "@b>\r\n");
    EXPECT_EQ(Explode("m"), kModuleDone);
    std::string const fate = Outcome().find("Mailbox-Deliver") != std::string::npos ? "sent" : "refused";
    std::filesystem::remove_all(Path("control"));
    std::filesystem::create_directory(Path("control"));
    return fate;
  };
  auto const postThree = [&post] {
    std::string fates;
    for (int i = 0; i < 3; ++i) fates += post() + " ";
    return fates;
  };
  EXPECT_EQ(postThree(), "sent sent refused ");
  // The base of another day: what it counted is yesterday's.
  std::string base = FileBytes("List-Exploder/daily/news");
  ASSERT_EQ(base.size(), 12u);
  base[0] ^= 1;
  PutFile("List-Exploder/daily/news", base);
  EXPECT_EQ(postThree(), "sent sent refused ");
  SListState state("news");
  ASSERT_TRUE(state.Read());
  EXPECT_EQ(state.GetTotalMessages(), 4);
  state.ClearStats();
  ASSERT_TRUE(state.Commit());
  EXPECT_EQ(postThree(), "sent sent refused ");
}

TEST_F(DecisionTest, RequestsSentByMistakeGoToTheManager) {
  struct {
    char const *subject, *type, *body;
    bool isRequest;
  } const kCases[] = {
      {"unsubscribe", "", "", true},
      {"Unsubscribe news", "", "Thanks,\r\nAnn\r\n", true},
      {"Re: confirm s20781-0f3b1c00aa subscribe news ann@example.org", "", "> quoted\r\n> more\r\n", true},
      {"confirm your seats", "", "", false},
      {"", "", "\r\nsubscribe digest news ann@example.org\r\n-- \r\nAnn\r\nwrites\r\nlong\r\nsig\r\nna\r\ntures\r\n",
       true},
      {"hello", "", "Subscribe to the paper, I say.\r\n", false},
      {"Subscribe", "", "a\r\nb\r\nc\r\nd\r\ne\r\nf\r\ng\r\n", false},
      {"help", "", "How do I mend my boat?\r\n", false},
      {"help", "", "\r\n\r\n", true},
      {"lists", "text/html", "<p>", false},
      {"unsubscribe", "multipart/alternative; boundary=x", "--x\r\n", true},
      {"x", "text/html", "unsubscribe\r\n", false},
  };
  for (bool const isOn : {true, false}) {
    Set("news", "List-Request-Detection", {isOn ? "yes" : "no"});
    for (auto const &c : kCases) {
      std::string header = "From: bob@example.org\r\nSubject: " + std::string(c.subject) + "\r\n";
      if (*c.type != '\0') header += "Content-Type: " + std::string(c.type) + "\r\n";
      EXPECT_EQ(FateOf(header, {}, c.body), isOn && c.isRequest ? "to manager" : "sent") << c.subject << "|" << c.body;
    }
  }
}

TEST_F(DecisionTest, PostingWaitsWhileTheListsStateCantBeRead) {
  PutFile("listdata/news", "cut");
  PutPosting("m", fromBob);
  EXPECT_EQ(Explode("m"), kModuleDone);
  EXPECT_EQ(Files("deferred"), Texts{"List-Exploder/m-Control"});
  std::filesystem::remove(Path("listdata/news"));
  Walk();
  EXPECT_EQ(Fate(), "sent");
}

TEST_F(DecisionTest, RecordedPostingIsNoDuplicateOfItself) {
  // As a crash leaves it between the commit of the list's state and the first message sent.
  SListState state("news");
  ASSERT_TRUE(state.Read());
  (void)state.AddMessageID("<2@b>");
  ASSERT_TRUE(state.Commit());
  PutPosting("m", fromBob, {"List-Posting! accepted"});
  EXPECT_EQ(Explode("m"), kModuleDone);
  EXPECT_EQ(Fate(), "sent");
}

TEST_F(DecisionTest, OwnersWhoWereAskedAreNotAskedAgain) {
  Set("news", "List-Moderation-Method", {"queue-notify"});
  PutFile("listdata/news", "cut");  // so that it can't be held
  PutPosting("m", fromEve, {"List-Posting! hold PostApprovalRequest"});
  EXPECT_EQ(Explode("m"), kModuleDone);
  EXPECT_EQ(Mails().size(), 1u);
  std::filesystem::remove(Path("listdata/news"));
  Walk();
  EXPECT_EQ(Mails().size(), 1u);
  EXPECT_EQ(Files("List-Exploder"), Texts{"approval/m-Control"});
}

TEST_F(DecisionTest, ListWithoutOwnersHoldsAndReportsIt) {
  Set("news", "List-Owners", {});
  Set("news", "List-Nonsubscriber-Posting-Policy", {"moderated"});
  Set("news", "List-Moderation-Method", {"queue-notify"});
  PutPosting("m", fromEve);
  EXPECT_EQ(Explode("m"), kModuleDone);
  EXPECT_EQ(CountIn("List-Exploder/approval"), 1);
  EXPECT_EQ(Reports(), Texts{"List-Exploder:NoModerators (NoModerators)"});
}

TEST_F(DecisionTest, DoesNotStartWithoutASecret) {
  setenv("FormSigKey", "", 1);
  EXPECT_EQ(SListExploderModule().LoadEnv(), 0u);
}

}  // namespace
