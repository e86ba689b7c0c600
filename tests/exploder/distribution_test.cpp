#include "brenthaven/exploder/distribution.h"

#include <sys/wait.h>
#include <unistd.h>

#include <map>

#include "brenthaven/accounts/special.h"
#include "brenthaven/lists/slistkey.h"
#include "tests/exploder/exploder_fixture.h"
#include "tests/platform/callhook.h"

namespace {

class DistributionTest : public ExploderTest {
protected:
  // Many readers at once: with mailboxes, and elsewhere at hosts of their own.
  static void JoinMany(int mailboxes, int hosts, int atEach = 1) {
    SAccountDBMod store;
    auto const add = [&store](std::string const &uid, char const *attribute, std::string const &value) {
      SAccountMod account;
      ASSERT_TRUE(store.ModifyAccount(Bytes(uid), &account) && account.Set(attribute, ListOf({value})) &&
                  account.Set("Subscribed-Lists", ListOf({"news"})));
    };
    for (int i = 0; i < mailboxes; ++i) add("u" + std::to_string(10000 + i), "Local-Delivery", "Mailbox");
    for (int i = 0; i < hosts * atEach; ++i) {
      std::string const address = "p" + std::to_string(i) + "@h" + std::to_string(100 + i % hosts) + ".example";
      add("r" + std::to_string(i), "Remote-SMTP-Address", address);
    }
  }
  // How many messages of each function there are, and how often each reader is named.
  std::map<std::string, int> Functions() const {
    std::map<std::string, int> functions;
    for (Mail const &mail : Mails()) ++functions[mail.function];
    return functions;
  }
  std::map<std::string, int> Named() const {
    std::map<std::string, int> named;
    for (Mail const &mail : Mails())
      if (mail.function != "List-Exploder")
        for (std::string const &entry : mail.to) ++named[entry];
    return named;
  }
  bool EachIsNamedOnce(size_t readers) const {
    std::map<std::string, int> const named = Named();
    return named.size() == readers &&
           std::all_of(named.begin(), named.end(), [](auto const &reader) { return reader.second == 1; });
  }
};

TEST_F(DistributionTest, EachReaderGetsItByHisOwnWay) {
  AddAccount("carl", {{"Local-Delivery", {"Mailbox"}}, {"Channel-Delivery", {"SMTP <carl@far.example>"}}});
  AddAccount("dora", {{"Local-Delivery", {"Mailbox"}}});
  for (char const *uid : {"ann", "bob", "carl"}) Join(uid);
  JoinDigest("dora");
  JoinRemote("jo@far.example");
  PutPosting("m");
  ASSERT_EQ(Explode("m"), kModuleDone);
  EXPECT_EQ(Outcome(),
            "Account-Handler: carl; Mailbox-Deliver: Mailbox ann,Mailbox bob; SMTP-Router: SMTP <jo@far.example>");
  for (Mail const &mail : Mails()) {
    EXPECT_EQ(mail.Field(*this, "User-From:"), Texts{"SMTP <owner-news@example.org>"});
    EXPECT_EQ(mail.Field(*this, "Error-List-UID:"), Texts{"news"});
    EXPECT_EQ(mail.Field(*this, "MTA-Hops:"), Texts{"1"});
    for (char const *key : {"Account-To!", "Module-To:", "List-Posting!"}) EXPECT_EQ(mail.Field(*this, key), Texts{});
    EXPECT_THAT(mail.header, ::testing::HasSubstr("\r\nList-Id: <news.example.org>\r\n"));
    EXPECT_EQ(mail.body, "Hello.\r\n");
  }
  EXPECT_EQ(CountIn("messages"), 6);  // the posting's own files and the shared names are gone
  Drain();
  for (char const *uid : {"ann", "bob", "carl"}) EXPECT_EQ(Stored(uid).size(), 1u) << uid;
  EXPECT_EQ(Outcome(), "SMTP-Deliver: SMTP <carl@far.example>; SMTP-Deliver: SMTP <jo@far.example>");
}

TEST_F(DistributionTest, BatchesAre512MailboxesAnd20Hosts) {
  JoinMany(1100, 45, 2);
  PutPosting("m");
  ASSERT_EQ(Explode("m"), kModuleDone);
  EXPECT_EQ(Functions(), (std::map<std::string, int>{{"Mailbox-Deliver", 3}, {"SMTP-Router", 3}}));
  EXPECT_TRUE(EachIsNamedOnce(1100 + 90));
}

TEST_F(DistributionTest, NobodyIsServedTwiceAfterAnyFailedCall) {
  JoinMany(3, 430);  // more messages than stand between two records
  for (char const *call : {"open", "link", "rename", "write", "unlink"}) {
    for (int const number : {1, 2, 3, 5, 8, 13, 21, 34, 44, 55, 89}) {
      ClearSpool();
      PutPosting("m");
      {
        SCallHook const hook(call, number, ENOSPC);
        (void)Explode("m");
      }
      if (Exists("control/m-Control")) (void)Explode("m");  // not even deferred: the next look at control/ takes it
      Walk();
      EXPECT_TRUE(EachIsNamedOnce(433)) << call << number << " " << Named().size();
      EXPECT_FALSE(Exists("control/m-Control")) << call << number;
      EXPECT_TRUE(!Exists("messages/m-Header") || std::string(call) == "unlink") << call << number;
    }
  }
}

TEST_F(DistributionTest, EveryReaderHasItAfterACrashAnywhere) {
  JoinMany(3, 430);
  for (int call = 1; call < 260; call += 9) {
    ClearSpool();
    PutPosting("m");
    pid_t const child = fork();
    if (child == 0) {
      SCallHook const hook("", call, SCallHook::kCrash);
      (void)Explode("m");
      _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (Exists("control/m-Control")) (void)Explode("m");
    Walk();  // a crash in the middle of a write of the control has the next write fail, once
    EXPECT_EQ(Named().size(), 433u) << call;
    EXPECT_EQ(Files("deferred"), Texts{}) << call;
  }
}

TEST_F(DistributionTest, RecordInTheControlIsWhereTheNextPassGoesOn) {
  JoinMany(5, 3);
  for (auto const &[record, want] : std::map<std::string, size_t>{{"accepted", 8},
                                                                  {"mailbox u10001", 6},
                                                                  {"mailbox u10004", 3},
                                                                  {"account zed", 3},
                                                                  {"remote p0@h100.example", 2},
                                                                  {"remote p2@h102.example", 0}}) {
    ClearSpool();
    PutPosting("m", kHeader, {"List-Posting! " + record});
    ASSERT_EQ(Explode("m"), kModuleDone);
    EXPECT_TRUE(EachIsNamedOnce(want)) << record;
    EXPECT_FALSE(Exists("control/m-Control"));
  }
}

TEST_F(DistributionTest, MessageForSeveralIsSplitAndNobodyIsForgotten) {
  AddAccount("talk", {{"List-Name", {"talk"}}, {"Handler-Delivery", {"List-Exploder"}}});
  Join("ann");
  Join("bob", "Subscribed-Lists-Immediate", "talk");
  PutIncoming("eve@far.example",
              {"<news@example.org>", "<talk@example.org>", "<olga@example.org>", "<news-request@example.org>"},
              kHeader);
  Drain();
  for (char const *uid : {"ann", "bob", "olga"}) EXPECT_EQ(Stored(uid).size(), 1u) << uid;
  EXPECT_THAT(Stored("bob").at(0), ::testing::HasSubstr("List-Id: <talk.example.org>"));
  ASSERT_EQ(Mails().size(), 1u);
  EXPECT_EQ(Mails()[0].function, "List-Manager");
  EXPECT_EQ(Mails()[0].Field(*this, "Module-To:"), Texts{"List-Manager news-request"});
}

TEST_F(DistributionTest, ForwardingAfterAListIsNotLost) {
  AddAccount("both", {{"Account-Delivery", {"news"}}, {"Channel-Delivery", {"SMTP <both@far.example>"}}});
  Join("ann");
  PutIncoming("eve@far.example", {"<both@example.org>"}, kHeader);
  Drain();
  EXPECT_EQ(Stored("ann").size(), 1u);
  EXPECT_EQ(Outcome(), "SMTP-Deliver: SMTP <both@far.example>");
}

TEST_F(DistributionTest, AllMailboxesTakesThePostmastersMailToEveryMailboxAndNobodyElses) {
  ASSERT_EQ(CreateSpecialAccounts("example.org", ""), 1u);
  AddAccount("forward", {{"Channel-Delivery", {"SMTP <x@far.example>"}}});
  AddAccount("mixed", {{"Local-Delivery", {"Mailbox"}}, {"Account-Delivery", {"ann"}}});
  Set("Postmaster", "SMTP-Address", {"Postmaster@example.org"});
  auto const post = [this](std::string const &from) {
    PutIncoming(from, {"<All-Mailboxes@example.org>"},
                "From: " + from + "\r\nSubject: maintenance\r\nMessage-ID: <" + from + ">\r\n");
    Drain();
  };
  post("postmaster@example.org");
  for (char const *uid : {"ann", "bob", "olga", "mixed", "Postmaster"}) EXPECT_EQ(Stored(uid).size(), 1u) << uid;
  EXPECT_EQ(Outcome(), "");
  post("bob@example.org");
  EXPECT_EQ(Stored("ann").size(), 1u);
  EXPECT_THAT(Stored("bob").at(1), ::testing::HasSubstr("the list is closed at present"));
}

TEST_F(DistributionTest, PersonalUnsubscribeAddressIsEachReadersOwnAndItsKeyWorks) {
  Config("List-Manager", "Config", "List-Unsubscribe-URL",
         "https://lists.example.org/leave?l=<+++ListName+++>&a=<+++Subscriber+++>&k=<+++AuthKey+++>");
  Join("ann");
  JoinRemote("jo+x@far.example");
  PutPosting("m");
  ASSERT_EQ(Explode("m"), kModuleDone);
  ASSERT_EQ(Mails().size(), 2u);
  for (Mail const &mail : Mails()) {
    bool const isAnn = mail.function == "Mailbox-Deliver";
    std::string const begin = std::string("List-Unsubscribe: <https://lists.example.org/leave?l=news&a=") +
                              (isAnn ? "ann%40example.org" : "jo%2Bx%40far.example") + "&k=";
    size_t const at = mail.header.find(begin);
    ASSERT_NE(at, std::string::npos) << mail.header;
    size_t const key = at + begin.size();
    SListKeySubject const subject = {isAnn ? "ann@example.org" : "jo+x@far.example", "news"};
    EXPECT_TRUE(IsListKey(Bytes(mail.header.substr(key, mail.header.find('>', key) - key)), subject, true,
                          KeyDay(time(nullptr)), 1, kSecret));
    EXPECT_THAT(mail.header, ::testing::HasSubstr("\r\nList-Unsubscribe-Post: List-Unsubscribe=One-Click\r\n"));
    EXPECT_EQ(mail.body, "Hello.\r\n");
  }
}

TEST_F(DistributionTest, ListTextsStandInTheSharedBody) {
  Set("news", "List-Prologue", {"Welcome."});
  Set("news", "List-Epilogue", {"-- ", "The list"});
  Join("ann");
  JoinRemote("jo@far.example");
  PutPosting("m");
  ASSERT_EQ(Explode("m"), kModuleDone);
  for (Mail const &mail : Mails()) EXPECT_EQ(mail.body, "Welcome.\r\nHello.\r\n-- \r\nThe list\r\n");
}

TEST_F(DistributionTest, GoneListIsReportedAndAListWithoutReadersEnds) {
  PutPosting("m", kHeader, {"Module-To: List-Exploder gone"});
  EXPECT_EQ(Explode("m"), kModuleDone);
  EXPECT_EQ(Reports(), Texts{"List-Exploder:ProcessMail (UnknownAccounts)"});
  ClearSpool();
  PutPosting("m");
  EXPECT_EQ(Explode("m"), kModuleDone);
  EXPECT_EQ(CountIn("control") + CountIn("messages"), 0);
}

}  // namespace
