// Mailing lists, from the command line.
#include "brenthaven/lists/slistactions.h"
#include "brenthaven/lists/sliststate.h"
#include "tests/command/command_fixture.h"

namespace {

class Holder : public SModule {
public:
  Holder() : SModule("Holder") {}
  unsigned int ProcessMail() override { return 1; }
};

class ListCommandTest : public CommandTest {
protected:
  ListCommandTest() {
    Init();
    for (std::string const uid : {"ann", "bob"}) Good({"account", "add", uid, "--address", uid + "@example.org"});
    Good({"list", "create", "news", "--owner", "ann"});
    setenv("ModuleName", "Holder", 1);
  }
  // Runs a call that must fail, and gives "CODE text".
  std::string Bad(Words const &args, std::string const &input = "") const {
    ProgramRun const run = Brenthaven(args, input);
    return std::to_string(run.code) + " " + run.err;
  }
  static std::string Failure(int code, std::string const &text) {
    return std::to_string(code) + " brenthaven: " + text + "\n";
  }
  std::string Json(Words args) const {
    args.push_back("--json");
    return Good(args);
  }
  // A posting that waits for the owners of news.
  void Hold(std::string const &id) const {
    PutFile("control/" + id + "-Control", "Function: List-Exploder\r\nControl-Type: Mail\r\nPriority: 1\r\n");
    PutFile("messages/" + id + "-Header", "From: eve@far.example\r\nSubject: a\tword\r\n");
    PutFile("messages/" + id + "-Body", "Hello\r\nall\r\n");
    Holder module;
    SControl control(SString(id.c_str()));
    ASSERT_TRUE(control.Read());
    ASSERT_EQ(SListActions(&module, "news", S821Address()).Hold(SString(id.c_str()), control), kListSuccess);
  }
};

TEST_F(ListCommandTest, CreateMakesAListThatTheModulesKnow) {
  EXPECT_EQ(Good({"list", "create", "Old.news", "--owner", "bob@example.org", "--owner", "ann", "--info", "All of it"}),
            "Old.news@example.org\n");
  struct {
    Words get;
    std::string want;
  } const attributes[] = {
      {{"Old.news", "List-Owners"}, "bob\nann\n"},
      {{"Old.news", "List-Short-Info"}, "All of it\n"},
      {{"Old.news", "Handler-Delivery"}, "List-Exploder\n"},
      {{"Old.news", "List-Moderation-Method"}, "queue-notify\n"},  // of the template
      {{"Old.news-Manager-Account", "Handler-Delivery"}, "List-Manager\n"},
      {{"Old.news-Manager-Account", "Manager-List-Name"}, "Old.news\n"},
      {{"Old.news-Owner-Account", "Handler-Delivery"}, "List-Exploder\n"},
  };
  for (auto const &a : attributes) EXPECT_EQ(Good({"account", "get", a.get[0], a.get[1]}), a.want) << a.get[1];
  EXPECT_TRUE(Good({"list", "show", "old.news"})
                  .starts_with("Old.news: Old.news@example.org\nrequests to: Old.news-request@example.org\n"
                               "owners at: owner-Old.news@example.org\nsubscribers: 0\n"));
  EXPECT_EQ(Good({"list", "show"}),
            "All-Mailboxes  All-Mailboxes@example.org  0 subscribers  locked\n"
            "news  news@example.org  0 subscribers\n"
            "Old.news  Old.news@example.org  0 subscribers\n");
  EXPECT_NE(Json({"list", "show", "news"}).find("\"request_address\": \"news-request@example.org\""),
            std::string::npos);
}

TEST_F(ListCommandTest, CreateRefusesWhatCannotWork) {
  Good({"account", "add", "carl", "--address", "tea-request@example.org"});
  struct {
    Words args;
    int code;
    std::string text;
  } const cases[] = {
      {{"news"}, EX_CANTCREAT, "the list exists already: news"},
      {{"NEWS"}, EX_CANTCREAT, "the list exists already: NEWS"},
      {{"bob"}, EX_CANTCREAT, "an account has the name already: bob"},
      {{"a b"}, EX_DATAERR, "no name for a list: a b"},
      {{"../x"}, EX_DATAERR, "no name for a list: ../x"},
      {{"x.lock"}, EX_DATAERR, "no name for a list: x.lock"},
      {{"Default-x"}, EX_DATAERR, "no name for a list: Default-x"},
      {{"tea", "--domain", "far.example"}, EX_DATAERR, "not a mail domain of this instance: far.example"},
      {{"tea", "--owner", "nobody"}, EX_NOUSER, "not the account of an owner: nobody"},
      {{"tea", "--owner", "nobody@example.org"}, EX_NOUSER, "not the account of an owner: nobody@example.org"},
      {{"tea", "--owner", "news"}, EX_DATAERR, "this account can't own a list: news"},
      {{"tea"},
       EX_CANTCREAT,
       "cannot make the list tea: one of its addresses belongs to another account, or the files cannot be written"},
  };
  std::string const before = Good({"account", "list"});
  for (auto const &c : cases) {
    Words args = {"list", "create", "--owner", "ann"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    EXPECT_EQ(Bad(args), Failure(c.code, c.text));
  }
  EXPECT_EQ(Good({"account", "list"}), before);
  Good({"config", "set", "MTA-Accounts//ListLimit", "1"});
  EXPECT_EQ(Bad({"list", "create", "more", "--owner", "ann"}),
            Failure(EX_NOPERM, "the limit of 1 lists is reached (MTA-Accounts//ListLimit)"));
}

TEST_F(ListCommandTest, SetTakesOnlyWhatTheModulesUnderstand) {
  struct {
    Words args;
    int code;
  } const cases[] = {
      {{"List-Owners", "bob@example.org", "ann"}, 0},
      {{"List-Owners", "nobody"}, EX_NOUSER},
      {{"List-Digest-Schedule", "mon 6pm"}, 0},
      {{"List-Digest-Schedule", "someday"}, EX_DATAERR},
      {{"List-Digest-Schedule", "13pm"}, EX_DATAERR},
      {{"List-Max-Subscribers", "0"}, 0},
      {{"List-Max-Subscribers", "-1"}, EX_DATAERR},
      {{"List-Remote-Subscriber-Policy", "closed-notify"}, 0},
      {{"List-Remote-Subscriber-Policy", "shut"}, EX_DATAERR},
      {{"List-Name", "gazette"}, EX_NOPERM},
      {{"List-Prologue", "one", "two"}, 0},
      {{"List-Nonsense", "x"}, EX_DATAERR},
      {{"Password", "x"}, EX_DATAERR},
  };
  for (auto const &c : cases) {
    Words args = {"list", "set", "news"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    EXPECT_EQ(Brenthaven(args).code, c.code) << c.args[0] << " " << c.args[1];
  }
  EXPECT_EQ(Brenthaven({"list", "set", "news", "List-Owners"}).code, EX_DATAERR);
  EXPECT_EQ(Good({"account", "get", "news", "List-Owners"}), "bob\nann\n");
  EXPECT_EQ(Good({"account", "get", "news", "List-Prologue"}), "one\ntwo\n");
  Good({"list", "set", "news", "List-Prologue"});
  Good({"list", "set", "news", "List-Prologue"});
  EXPECT_EQ(Good({"account", "get", "news", "List-Prologue"}), "");
}

TEST_F(ListCommandTest, MembersComeAndGoInBulkWithEachRefusalReported) {
  PutFile("in.txt",
          "# friends\r\n jo@far.example \n\n<eve@far.example>\nnobody@example.org\nno address\nnews@example.org\n"
          "bob@example.org\njo@far.example\n");
  ProgramRun run = Brenthaven({"list", "import-members", "news", Path("in.txt")});
  EXPECT_EQ(run.code, EX_NOUSER);
  EXPECT_EQ(run.out, "3 subscribed, 1 on the list already, 3 of 7 refused\n");
  EXPECT_EQ(run.err, "brenthaven: " + Path("in.txt:5: nobody@example.org: no account here has the address\n") +
                         "brenthaven: " + Path("in.txt:6: no address: not an address that could be on a list\n") +
                         "brenthaven: " + Path("in.txt:7: news@example.org: a list can't be on itself\n"));
  EXPECT_EQ(Good({"list", "subscribe", "news", "bob@example.org", "--digest"}), "0 subscribed, 1 changed\n");
  Words members;
  std::istringstream lines(Good({"list", "members", "news"}));
  for (std::string line; std::getline(lines, line);) members.push_back(line);
  std::sort(members.begin(), members.end());
  EXPECT_EQ(members, (Words{"bob@example.org  digest", "eve@far.example  immediate", "jo@far.example  immediate"}));
  EXPECT_NE(Json({"list", "members", "news"}).find("\"delivery\": \"digest\",\n    \"remote\": false"),
            std::string::npos);

  EXPECT_EQ(Good({"list", "unsubscribe", "news", "--file", "-"}, "jo@far.example\nbob@example.org"),
            "2 unsubscribed\n");
  EXPECT_EQ(Bad({"list", "unsubscribe", "news", "jo@far.example"}),
            Failure(EX_NOUSER, "jo@far.example: is not on the list"));
  EXPECT_EQ(Brenthaven({"account", "show", "jo_far_example"}).code, EX_NOUSER);  // was there for the list alone
  EXPECT_EQ(Bad({"list", "subscribe", "news"}), Failure(EX_USAGE, "no address: give ADDRESS or --file FILE"));
  EXPECT_EQ(Bad({"list", "subscribe", "news", "--file", "/no/such"}), Failure(EX_NOINPUT, "cannot read /no/such"));
  EXPECT_TRUE(SpoolIsEmpty());
  Good({"list", "set", "news", "List-Welcome-Info", "Hello!"});
  Good({"list", "subscribe", "news", "jo@far.example", "--notify"});
  EXPECT_NE(TakeWaiting().header.find("Subject: Welcome to news\r\n"), std::string::npos);
}

TEST_F(ListCommandTest, WhatWaitsIsShownEditedAndDecided) {
  for (char const *id : {"p1", "p2"}) Hold(id);
  {
    SListState state("news");
    ASSERT_TRUE(state.Read());
    state.AddSubscribeRequest(S821Address("<jo@far.example>"), 1);
    state.AddUnsubscribeRequest(S821Address("<eve@far.example>"));
    ASSERT_TRUE(state.Commit());
  }
  EXPECT_EQ(Good({"list", "held", "news"}),
            "p1  eve@far.example  a?word\np2  eve@far.example  a?word\n"
            "jo@far.example  subscribe digest\neve@far.example  unsubscribe\n");
  EXPECT_NE(Json({"list", "held", "news"}).find("\"wants\": \"subscribe digest\""), std::string::npos);
  Good({"list", "edit", "news", "p1"}, "One\nTwo");
  EXPECT_EQ(Good({"list", "held", "news", "p1"}), "From: eve@far.example\r\nSubject: a\tword\r\n\r\nOne\r\nTwo\r\n");
  EXPECT_EQ(Bad({"list", "edit", "news", "p1"}), Failure(EX_DATAERR, "no text on standard input"));
  EXPECT_EQ(Bad({"list", "edit", "news", "p3"}, "x"), Failure(EX_NOINPUT, "p3: nothing like that waits"));

  Good({"list", "approve", "news", "p1", "jo@far.example"});
  EXPECT_EQ(Bad({"list", "reject", "news", "p2", "p3"}), Failure(EX_NOINPUT, "p3: nothing like that waits"));
  EXPECT_EQ(NamesIn("control"), Words{"p1-Control"});
  EXPECT_NE(FileBytes("control/p1-Control").find("Approved: yes\r\n"), std::string::npos);
  EXPECT_FALSE(Exists("messages/p2-Body"));
  EXPECT_EQ(Good({"list", "members", "news"}), "jo@far.example  digest\n");
  EXPECT_EQ(Good({"list", "held", "news"}), "eve@far.example  unsubscribe\n");
}

TEST_F(ListCommandTest, CountsAreShownAndCleared) {
  {
    SListState state("news");
    ASSERT_TRUE(state.Read());
    int const jo = state.GetUserNum("jo@far.example"), eve = state.GetUserNum("eve@far.example");
    state.IncrTotalMessages();
    state.IncrTotalKbytes(7);
    state.IncrUserTotalMessages(jo);
    state.IncrUserTotalKbytes(jo, 7);
    state.IncrBounceCount(eve);
    state.IncrBounceCount(eve);
    ASSERT_TRUE(state.Commit());
  }
  Good({"list", "subscribe", "news", "bob@example.org"});
  EXPECT_EQ(Good({"list", "bounces", "news"}), "eve@far.example  2\n");
  EXPECT_NE(Json({"list", "bounces", "news"}).find("\"bounces\": 2"), std::string::npos);
  EXPECT_EQ(Good({"list", "stats", "news", "--clear"}),
            "subscribers: 1\nmessages: 1\nkbytes: 7\ndigest_volume: 1\ndigest_number: 0\nsubscriptions: 1\n"
            "unsubscriptions: 0\nforced_unsubscriptions: 0\njo@far.example  1 messages, 7 kbytes\n");
  EXPECT_NE(Json({"list", "stats", "news"}).find("\"messages\": 0"), std::string::npos);
  Good({"list", "bounces", "news", "--reset", "Eve@far.example"});
  EXPECT_EQ(Good({"list", "bounces", "news"}), "");
  EXPECT_EQ(Brenthaven({"list", "bounces", "news", "--reset", "eve@far.example"}).code, EX_NOUSER);
}

TEST_F(ListCommandTest, DeleteTakesAllThatIsTheListsAndNoMore) {
  std::string const before = Good({"account", "list"});
  Good({"list", "create", "tea", "--owner", "ann"});
  Good({"list", "subscribe", "tea", "jo@far.example", "bob@example.org"});
  Good({"list", "subscribe", "news", "bob@example.org"});
  Hold("p1");
  Good({"list", "delete", "tea"});
  EXPECT_EQ(Good({"account", "list"}), before);
  EXPECT_FALSE(Exists("listdata/tea"));
  EXPECT_EQ(Good({"list", "members", "news"}), "bob@example.org  immediate\n");
  EXPECT_TRUE(Exists("messages/p1-Body"));
  Good({"list", "delete", "news"});
  EXPECT_TRUE(SpoolIsEmpty());
  EXPECT_EQ(Bad({"list", "delete", "All-Mailboxes"}),
            Failure(EX_NOPERM, "every instance has this list: All-Mailboxes"));
}

TEST_F(ListCommandTest, UnknownListAndTornStateAreToldApart) {
  for (Words const &rest :
       {Words{"show", "x"}, Words{"set", "x", "List-Locked", "yes"}, Words{"delete", "x"}, Words{"members", "x"},
        Words{"subscribe", "x", "a@b.c"}, Words{"held", "x"}, Words{"approve", "x", "id"}, Words{"edit", "x", "id"},
        Words{"stats", "x"}, Words{"bounces", "x"}, Words{"import-members", "x", "-"}}) {
    Words args = {"list"};
    args.insert(args.end(), rest.begin(), rest.end());
    EXPECT_EQ(Bad(args), Failure(EX_NOUSER, "no such list: x")) << rest[0];
  }
  PutFile("listdata/news", "12");
  EXPECT_EQ(Brenthaven({"list", "stats", "news"}).code, EX_TEMPFAIL);
  ProgramRun const run = Brenthaven({"list", "subscribe", "news", "jo@far.example"});
  EXPECT_EQ(run.code, EX_TEMPFAIL);
  EXPECT_EQ(run.out, "0 subscribed, 1 of 1 refused\n");
  EXPECT_EQ(Good({"list", "members", "news"}), "");
  EXPECT_EQ(FileBytes("listdata/news"), "12");
}

}  // namespace
