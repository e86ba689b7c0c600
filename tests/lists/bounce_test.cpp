#include "brenthaven/lists/sbouncefilter.h"

#include "tests/lists/list_fixture.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

class BounceTest : public ListTest {
protected:
  BounceTest() : control("B"), header("B") {
    TrustEverybody();
    Filter({"Subject: ^undeliver", "X-Failed .", "Broken: (", "nothing"});
    Rewrites({"h From: postmaster@other", "m never", "r $1", "end",  //
              "# a note", "m ^Final-Recipient: rfc822; *(\\S+)\\r\\n", "r $1", "end"});
    control[SString("User-From:")] = "SMTP<>";
    header[SString("From:")] = "MAILER-DAEMON@relay.example";
    setenv("MaxBounceCount", "3", 1);
    EXPECT_EQ(Subscribe("<rita@far.example>", 1), kListSuccess);
  }
  static void Filter(Strings const &values) { Set("List-Exploder", "/Config", "BounceFilter", values); }
  static void Rewrites(Strings const &values) { Set("List-Exploder", "/Config", "BounceRewrites", values); }
  void Body(std::string const &text) const { PutFile("messages/B-Body", text); }
  int Run() {
    SBounceFilter filter(&module);
    SListState state("news-list");
    testing::internal::CaptureStderr();
    int const result = filter.FilterBounce(control, header, state);
    log = testing::internal::GetCapturedStderr();
    found = Str(filter.GetBounceAddress());
    return result;
  }

  SControl control;
  SHeader header;
  std::string log, found;
};

}  // namespace

TEST_F(BounceTest, HeaderTellsABounceFromAPosting) {
  struct {
    char const *sender, *field, *value;
    int result;
  } const rows[] = {
      {"SMTP <a@far.example>", "Subject:", "hello", kBounceNot},
      {"SMTP <a@far.example>", "Subject:", "UNDELIVERABLE: hello", kBounceUncounted},
      {"SMTP <a@far.example>", "X-Failed:", "x", kBounceUncounted},
      {"SMTP <a@far.example>", "Broken:", "(", kBounceNot},
      {"SMTP<>", "Subject:", "hello", kBounceUncounted},
      {"", "Subject:", "hello", kBounceUncounted},
  };
  Body("nothing to see\r\n");
  for (auto const &row : rows) {
    SControl const before = control;
    SHeader const untouched = header;
    control[SString("User-From:")] = row.sender;
    header[SString(row.field)] = row.value;
    EXPECT_EQ(Run(), row.result) << row.sender << " " << row.field << " " << row.value;
    control = before;
    header = untouched;
  }
  Filter({});
  control[SString("User-From:")] = "SMTP <a@far.example>";
  header[SString("Subject:")] = "Undeliverable";
  EXPECT_EQ(Run(), kBounceNot) << "no patterns, no bounces with a sender";
}

TEST_F(BounceTest, AddressIsMadeOfWhatTheBodySays) {
  struct {
    char const *rewrite, *body, *address;
  } const rows[] = {
      {"r $1", "user rita@far.example unknown", "rita@far.example"},
      {"r $1", "user far.example!rita unknown", "rita@far.example"},
      {"r $1", "user a!b!c unknown", "b!c@a"},
      {"r $1", "user rita unknown", "rita@relay.example"},
      {"r x$1", "user rita@far.example unknown", "xrita@far.example"},
      {"r", "user rita@far.example unknown", ""},
      {"r $1", "nothing of the kind", ""},
  };
  for (auto const &row : rows) {
    Rewrites({"m user (\\S+) unknown", row.rewrite, "end"});
    Body(std::string("first line\r\n") + row.body + "\r\nlast line\r\n");
    (void)Run();
    EXPECT_EQ(found, row.address) << row.rewrite << ", " << row.body;
  }
  header[SString("From:")] = "nobody";
  Body("user rita unknown\r\n");
  Rewrites({"m user (\\S+) unknown", "r $1", "end"});
  EXPECT_EQ(Run(), kBounceUncounted) << "no domain to complete it with";
}

TEST_F(BounceTest, GroupsAreTriedInOrderAndNeedAnAddress) {
  Body("a rita@far.example\r\n");
  Rewrites({"h From: ^MAILER", "end",                                         // finds nothing out
            "h X-None: .", "m a (\\S+)", "r one-$1", "end",                   // its field is missing
            "h From: DAEMON@relay example", "m a (\\S+)", "r two-$1", "end",  // a pattern with a blank, without a match
            "m a (\\S+)", "r $1", "end",                                      //
            "m a (\\S+)", "r late-$1", "end"});
  EXPECT_EQ(Run(), kBounceCounted);
  EXPECT_EQ(found, "rita@far.example");
}

TEST_F(BounceTest, ThirdBounceEndsAllSubscriptions) {
  Put("other", {{"List-Name", {"other"}}, {"List-Locked", {"yes"}}});
  SString const uid = SListDB().GetSubscriberUID(S821Address("<rita@far.example>"));
  Put(Str(uid), {{"Subscribed-Lists", {"news-list", "other"}}});
  Body("Final-Recipient: rfc822; rita@far.example\r\n");
  EXPECT_EQ(Run(), kBounceCounted);
  EXPECT_THAT(log, HasSubstr(":List-Manager:Info: Rejecting bounce message\n"));
  EXPECT_THAT(log, HasSubstr("Info: Bounce address is \"rita@far.example\"\n"));
  EXPECT_THAT(log, HasSubstr("Info: rita@far.example: bounce count = 1\n"));
  EXPECT_EQ(Run(), kBounceCounted);
  EXPECT_TRUE(IsSubscribed("<rita@far.example>"));
  EXPECT_EQ(Run(), kBounceCounted);
  EXPECT_THAT(log, HasSubstr("Info: rita@far.example: unsubscribed\n"));
  EXPECT_EQ(Str(SListDB().GetSubscriberUID(S821Address("<rita@far.example>"))), "") << "gone from both lists";
  SListState state("news-list");
  ASSERT_TRUE(state.Read());
  EXPECT_EQ(state.GetBounceCount(state.GetUserNum("rita@far.example")), 0);
  EXPECT_EQ(state.GetForcedUnsubscriptions(), 1);
}

TEST_F(BounceTest, BounceOfNobodyOrIntoABrokenStateIsNotCounted) {
  Body("Final-Recipient: rfc822; stranger@far.example\r\n");
  EXPECT_EQ(Run(), kBounceUncounted);
  Body("Final-Recipient: rfc822; rita@far.example\r\n");
  unsetenv("MaxBounceCount");
  EXPECT_EQ(Run(), kBounceCounted) << "not counted, for nobody set a limit";
  setenv("MaxBounceCount", "1", 1);
  Put(Str(SListDB().GetSubscriberUID(S821Address("<rita@far.example>"))),
      {{"Subscribed-Lists", {"gone", "news-list"}}});
  EXPECT_EQ(Run(), kBounceUncounted);
  EXPECT_THAT(log, HasSubstr("rita@far.example: can't unsubscribe: NoSuchList\n"));
  PutFile("listdata/news-list", "x");
  EXPECT_EQ(Run(), kBounceUncounted);
  EXPECT_TRUE(IsSubscribed("<rita@far.example>"));
}

// A body of megabytes that almost matches everywhere, as one who wants to keep a list busy would send it.
TEST_F(BounceTest, HostileBodyIsReadInOneWalk) {
  std::string body;
  while (body.size() < (2 << 20)) body += "Final-Recipient: rfc822; ";
  Body(body);
  EXPECT_EQ(Run(), kBounceUncounted);
  Body(std::string(2 << 20, '!'));
  Rewrites({"m ((.*)*)!$", "r $1", "end"});
  EXPECT_EQ(Run(), kBounceUncounted);
}

TEST_F(BounceTest, NoAnswerGoesToAProgram) {
  struct {
    char const *address, *field, *value;
    int result;
  } const rows[] = {
      {"<Mailer-Daemon@x.example>", "", "", 1},
      {"<LIST.MANAGER@x.example>", "", "", 1},
      {"<owner-x@x.example>", "", "", 1},
      {"<x-request@x.example>", "", "", 1},
      {"<x-request-y@x.example>", "", "", 0},
      {"<x-owner-@x.example>", "", "", 0},
      {"<ann@x.example>", "", "", 0},
      {"<servers@x.example>", "", "", 0},
      {"<ann@x.example>", "Precedence:", "BULK", 1},
      {"<ann@x.example>", "precedence:", "junk mail", 1},
      {"<ann@x.example>", "Precedence:", "list", 0},
      {"<ann@x.example>", "Auto-Forwarded:", "no", 1},
  };
  for (auto const &row : rows) {
    SHeader fields("N");
    if (*row.field) fields[SString(row.field)] = row.value;
    EXPECT_EQ(NoReply(S821Address(SString(row.address)), fields), row.result) << row.address << row.field << row.value;
  }
}
