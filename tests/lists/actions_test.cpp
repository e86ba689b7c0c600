// Subscribing and leaving, from the request to the account store, the list's state and the mail in the spool.
#include "brenthaven/lists/listtexts.h"
#include "brenthaven/lists/slistkey.h"
#include "brenthaven/platform/sys.h"
#include "tests/lists/list_fixture.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

constexpr char kAnn[] = "<ann@example.org>";
constexpr char kRita[] = "<rita@far.example>";  // nobody's address here

class ActionsTest : public ListTest {
protected:
  struct Counts {
    int in, out, forced;
    bool operator==(Counts const &) const = default;
  };
  static Counts StateCounts() {
    SListState state("news-list");
    EXPECT_TRUE(state.Read());
    return {state.GetSubscriptions(), state.GetUnsubscriptions(), state.GetForcedUnsubscriptions()};
  }
  static bool Waits(std::string const &address, unsigned digest = 0) {
    SListState state("news-list");
    EXPECT_TRUE(state.Read());
    return state.GetSubscribeRequests(digest).Contains(SString(address));
  }
  static Strings Accounts() { return Strs(SAccountDB().AccountUIDList()); }
};

}  // namespace

TEST_F(ActionsTest, KeyFromTheMailConfirmsARequest) {
  EXPECT_EQ(Subscribe(kRita), kListAuthenticationRequired);
  EXPECT_EQ(Str(SListDB().GetSubscriberUID(S821Address(kRita))), "") << "a request alone makes no account";
  Mail const mail = TakeMail();
  EXPECT_TRUE(mail.Has("Channel-To: SMTP <rita@far.example>"));
  EXPECT_TRUE(mail.Has("User-From: SMTP<>")) << "nobody bounces a key";
  EXPECT_TRUE(mail.Has("From: news-request@example.org"));
  EXPECT_TRUE(mail.Has("Reply-To: news-request@example.org"));
  std::string const key = KeyIn(mail);
  std::string const command = "confirm " + key + " subscribe News rita@far.example";
  EXPECT_TRUE(mail.Has("Subject: " + command));
  EXPECT_THAT(mail.body, HasSubstr("\r\n" + command + "\r\n"));
  EXPECT_THAT(mail.body, Not(HasSubstr("Subject:")));
  EXPECT_THAT(mail.body, HasSubstr("owner-news@example.org"));

  EXPECT_EQ(Subscribe(kRita, 0, {.key = key + "0"}), kListBadAuthKey);
  EXPECT_EQ(Subscribe(kAnn, 0, {.key = key}), kListBadAuthKey) << "somebody else's key";
  EXPECT_EQ(Unsubscribe(kAnn, 0, {.key = key}), kListBadAuthKey) << "another request's key";
  EXPECT_EQ(Subscribe(kRita, 0, {.key = key}), kListSuccess);
  EXPECT_TRUE(IsSubscribed(kRita));
  EXPECT_EQ(StateCounts(), (Counts{1, 0, 0}));
  EXPECT_THAT(TakeMails(), IsEmpty());

  EXPECT_EQ(Unsubscribe(kRita), kListAuthenticationRequired);
  Mail const leaving = TakeMail();
  EXPECT_TRUE(leaving.Has("Subject: confirm " + KeyIn(leaving) + " unsubscribe News rita@far.example"));
  EXPECT_EQ(Unsubscribe(kRita, 0, {.key = KeyIn(leaving)}), kListSuccess);
  EXPECT_EQ(Str(SListDB().GetSubscriberUID(S821Address(kRita))), "") << "the account went with the subscription";
  EXPECT_EQ(StateCounts(), (Counts{1, 1, 0}));
}

TEST_F(ActionsTest, OldKeysFailAndShortOnesHold) {
  SListKeySubject const rita = {"rita@far.example", "news-list"};
  long const today = KeyDay(time(nullptr));
  auto const Dated = [&](long age) {
    return Str(MakeDatedListKey(rita, SListIntent::kSubscribe, today - age, kSecret));
  };
  EXPECT_EQ(Subscribe(kRita, 0, {.key = Dated(16)}), kListBadAuthKey);
  EXPECT_EQ(Subscribe(kRita, 0, {.key = Dated(13)}), kListSuccess);
  EXPECT_EQ(
      Subscribe("<shorty@far.example>", 0, {.key = Str(MakeListKey({"shorty@far.example", "news-list"}, kSecret))}),
      kListSuccess);
  Set("List-Manager", "/Config", "KeyDays", {"0"});
  EXPECT_EQ(Subscribe("<kim@far.example>"), kListAuthenticationRequired);
  std::string const key = KeyIn(TakeMail());
  EXPECT_EQ(key, Str(MakeListKey({"kim@far.example", "news-list"}, kSecret)));
  setenv("FormSigKey", "another", 1);
  EXPECT_EQ(Subscribe("<kim@far.example>", 0, {.key = key}), kListBadAuthKey) << "keys end with the secret";
  setenv("FormSigKey", kSecret, 1);
  EXPECT_EQ(Subscribe("<kim@far.example>", 0, {.key = key}), kListSuccess);
}

TEST_F(ActionsTest, RequestIsRefusedForWhatItIs) {
  TrustEverybody();
  Put("locked", {{"List-Name", {"locked"}}, {"List-Locked", {"yes"}}});
  struct {
    char const *list, *address;
    int in, out;
    char const *why;
  } const rows[] = {
      {"nowhere", kAnn, kListNoSuchList, kListNoSuchList, "unknown list"},
      {"nowhere", "<>", kListNoSuchList, kListNoSuchList, "the list comes before the address"},
      {"news", "<>", kListInvalidAddress, kListInvalidAddress, "null address"},
      {"news", "<a@b@c>", kListInvalidAddress, kListInvalidAddress, "bad address"},
      {"news", "<localpart>", kListInvalidAddress, kListInvalidAddress, "no domain"},
      {"news", "<\"a\r\nX: y\"@far.example>", kListInvalidAddress, kListInvalidAddress, "would open a line"},
      {"news", "<ghost@Example.org>", kListNoLocalAccount, kListNoLocalAccount, "our domain, nobody's address"},
      {"news", kRita, kListSuccess, kListSuccess, "a stranger may come, and then leave"},
      {"news", "<paul@far.example>", 0, kListNotSubscribed, "a stranger can't leave"},
      {"news", "<bob@example.org>", 0, kListNotSubscribed, "an account that is no subscriber"},
      {"news", "<news@example.org>", kListCircularSubscription, 0, "a list as its own subscriber"},
      {"locked", kAnn, kListLocked, kListLocked, "locked"},
  };
  for (auto const &row : rows) {
    S821Address const address{SString(row.address)};
    if (row.in) {
      EXPECT_EQ(SListActions(&module, row.list, address).Subscribe(0), row.in) << row.why;
    }
    if (row.out) {
      EXPECT_EQ(SListActions(&module, row.list, address).Unsubscribe(0), row.out) << row.why;
    }
  }
  EXPECT_THAT(TakeMails(), IsEmpty());
  EXPECT_THAT(Accounts(), Not(testing::Contains(HasSubstr("paul"))));
}

TEST_F(ActionsTest, AddressTooLongForAnEnvelopeIsInvalid) {
  TrustEverybody();
  std::string const tail = "@far.example";
  EXPECT_EQ(Subscribe("<" + std::string(255 - tail.size(), 'a') + tail + ">"), kListInvalidAddress);
  EXPECT_EQ(Subscribe("<" + std::string(100, 'a') + tail + ">"), kListSuccess);
}

TEST_F(ActionsTest, PoliciesDecide) {
  struct {
    Attributes policy;
    char const *address;
    Options options;
    int result;
    size_t mails;
    char const *why;
  } const rows[] = {
      {{{"List-Local-Subscriber-Policy", {"closed"}}}, kAnn, {.trusted = 1}, kListRequestDenied, 0, "closed to us"},
      {{{"List-Local-Subscriber-Policy", {"closed"}}}, kRita, {.trusted = 1}, kListSuccess, 0, "open to others"},
      {{{"List-Remote-Subscriber-Policy", {"closed-notify"}}},
       "<x@far.example>",
       {.trusted = 1},
       kListRequestDenied,
       1,
       "owners are told"},
      {{{"List-Local-Domains", {"far.example"}}, {"List-Local-Subscriber-Policy", {"closed"}}},
       "<y@far.example>",
       {.trusted = 1},
       kListRequestDenied,
       0,
       "the list's own idea of what is local"},
      {{{"List-Remote-Subscriber-Policy", {"closed"}}},
       "<z@far.example>",
       {},
       kListAuthenticationRequired,
       1,
       "a key comes first, so that nobody learns the policy of others"},
      {{{"List-Remote-Subscriber-Policy", {"closed"}}},
       "<z@far.example>",
       {.password = "wrong"},
       kListBadPassword,
       0,
       "a wrong password is told before any policy"},
      {{{"List-Remote-Subscriber-Policy", {"closed"}}},
       "<z@far.example>",
       {.password = "pa55word"},
       kListSuccess,
       0,
       "an owner's password stands above the policy"},
      {{{"List-Subscription-Policy", {"sender-addr-in", "[bob@example.org]", "allow", "always", "deny"}}},
       "<bob@example.org>",
       {},
       kListSuccess,
       0,
       "a pattern replaces the older attributes"},
      {{{"List-Subscription-Policy", {"not", "[subscribing-self]", "deny"}}},
       "<cleo@example.org>",
       {.requester = "<bob@example.org>"},
       kListRequestDenied,
       0,
       "asked for by another"},
      {{{"List-Subscription-Policy", {"not", "[subscribing-self]", "deny"}}},
       "<cleo@example.org>",
       {.requester = "<Cleo@Example.org>"},
       kListSuccess,
       0,
       "no rule holds: let in"},
      {{{"List-Remote-Subscriber-Policy", {"closed"}}},
       "<q@far.example>",
       {.key = "12345678"},
       kListBadAuthKey,
       0,
       "a wrong key is told before any policy"},
  };
  Attributes none;
  for (char const *name : {"List-Local-Subscriber-Policy", "List-Remote-Subscriber-Policy", "List-Local-Domains",
                           "List-Subscription-Policy"})
    none[name] = {};
  for (auto const &row : rows) {
    Put("news-list", none);
    Put("news-list", row.policy);
    EXPECT_EQ(Subscribe(row.address, 0, row.options), row.result) << row.why;
    EXPECT_EQ(IsSubscribed(row.address), row.result == kListSuccess) << row.why;
    EXPECT_EQ(TakeMails().size(), row.mails) << row.why;
  }
}

TEST_F(ActionsTest, WrongKeyIsToldEvenToWhomThePolicyLetsIn) {
  TrustEverybody();
  EXPECT_EQ(Subscribe(kAnn, 0, {.key = "00000000"}), kListBadAuthKey);
  EXPECT_FALSE(IsSubscribed(kAnn));
}

TEST_F(ActionsTest, SecondRequestChangesTheModeAlone) {
  TrustEverybody();
  Put("news-list", {{"List-Max-Subscribers", {"1"}}});
  EXPECT_EQ(Subscribe(kAnn), kListSuccess);
  Put("news-list", {{"List-Local-Subscriber-Policy", {"closed"}}});
  EXPECT_EQ(Subscribe(kAnn), kListAlreadySubscribed);
  EXPECT_EQ(Subscribe(kAnn, 0, {.digest = 1}), kListSubscriptionChanged);
  EXPECT_THAT(Values("Ann", "Subscribed-Lists-Digest"), ElementsAre("news-list"));
  EXPECT_THAT(Values("Ann", "Subscribed-Lists-Immediate"), IsEmpty());
  EXPECT_EQ(Subscribe(kAnn, 0, {.digest = 1}), kListAlreadySubscribed);
  Put("news-list", {{"List-Digest-Restriction", {"immediate-only"}}});
  EXPECT_EQ(Subscribe(kAnn, 0, {.digest = 1}), kListSubscriptionChanged);
  EXPECT_THAT(Values("Ann", "Subscribed-Lists-Immediate"), ElementsAre("news-list"));
  EXPECT_EQ(StateCounts(), (Counts{1, 0, 0}));
  EXPECT_EQ(Unsubscribe(kAnn), kListSuccess);
  for (char const *attribute : {"Subscribed-Lists", "Subscribed-Lists-Immediate", "Subscribed-Lists-Digest"})
    EXPECT_THAT(Values("Ann", attribute), IsEmpty()) << attribute;
}

TEST_F(ActionsTest, FullListTellsItsOwners) {
  TrustEverybody();
  Put("news-list", {{"List-Max-Subscribers", {"2"}}, {"List-Local-Subscriber-Policy", {"closed"}}});
  EXPECT_EQ(Subscribe(kAnn, 1), kListSuccess);
  EXPECT_EQ(Subscribe("<bob@example.org>", 1), kListSuccess);
  EXPECT_EQ(Subscribe("<cleo@example.org>"), kListOverLimit) << "before the policy is asked";
  EXPECT_EQ(Subscribe(kRita, 1), kListOverLimit) << "an owner's word makes no room";
  EXPECT_EQ(Str(SListDB().GetSubscriberUID(S821Address(kRita))), "");
  std::vector<Mail> const mails = TakeMails();
  ASSERT_EQ(mails.size(), 2u);
  EXPECT_TRUE(mails[0].Has("Account-To: Olga"));
  EXPECT_TRUE(mails[0].Has("Subject: News is full"));
  Put("news-list", {{"List-Max-Subscribers", {}}, {"List-Suppress-Notifications", {"OverLimitNotification"}}});
  Set("MTA-Accounts", "/", "ListSubscriberLimit", {"2"});
  EXPECT_EQ(Subscribe(kRita, 1), kListOverLimit);
  EXPECT_THAT(TakeMails(), IsEmpty());
  Set("MTA-Accounts", "/", "ListSubscriberLimit", {"3"});
  EXPECT_EQ(Subscribe(kRita, 1), kListSuccess);
}

TEST_F(ActionsTest, RequestWaitsForTheOwnersAndIsApproved) {
  TrustEverybody();
  Put("news-list", {{"List-Remote-Subscriber-Policy", {"moderated"}}, {"List-Moderation-Method", {"queue-notify"}}});
  EXPECT_EQ(Subscribe(kRita, 0, {.digest = 1}), kListApprovalRequired);
  EXPECT_TRUE(Waits("rita@far.example", 1));
  EXPECT_EQ(Str(SListDB().GetSubscriberUID(S821Address(kRita))), "");
  Mail const mail = TakeMail();
  EXPECT_TRUE(mail.Has("Account-To: Olga"));
  EXPECT_TRUE(mail.Has("Subject: News: subscribe digest rita@far.example waits for you"));
  EXPECT_EQ(Subscribe(kRita, 1, {.digest = 1}), kListSuccess);
  EXPECT_FALSE(Waits("rita@far.example", 1));
  EXPECT_TRUE(IsSubscribed(kRita));
}

TEST_F(ActionsTest, ModerationMethodSaysWhoIsAskedAndWhatIsKept) {
  TrustEverybody();
  Put("news-list", {{"List-Remote-Subscriber-Policy", {"moderated"}}});
  struct {
    Strings method;
    size_t mails;
    bool kept;
  } const rows[] = {{{"queue-no-mail"}, 0, true},
                    {{"queue-notify"}, 1, true},
                    {{"queue-fwd-mime"}, 1, true},
                    {{"noqueue-fwd-nomime"}, 1, false},
                    {{}, 1, false}};
  for (auto const &row : rows) {
    std::string const method = row.method.empty() ? "unset" : row.method[0];
    Put("news-list", {{"List-Moderation-Method", row.method}});
    EXPECT_EQ(Subscribe("<" + method + "@far.example>"), kListApprovalRequired) << method;
    EXPECT_EQ(TakeMails().size(), row.mails) << method;
    EXPECT_EQ(Waits(method + "@far.example"), row.kept) << method;
  }
}

TEST_F(ActionsTest, RejectedRequestIsForgottenAndTold) {
  TrustEverybody();
  Put("news-list", {{"List-Remote-Subscriber-Policy", {"moderated"}},
                    {"List-Moderate-Unsubscriptions", {"yes"}},
                    {"List-Moderation-Method", {"queue-no-mail"}}});
  EXPECT_EQ(Subscribe(kRita), kListApprovalRequired);
  EXPECT_TRUE(SListActions(&module, "news", S821Address(kRita)).RejectSubscription());
  EXPECT_FALSE(Waits("rita@far.example"));
  Mail mail = TakeMail();
  EXPECT_TRUE(mail.Has("Channel-To: SMTP <rita@far.example>"));
  EXPECT_TRUE(mail.Has("Subject: Your request to join News"));
  EXPECT_EQ(Subscribe(kRita, 1), kListSuccess);
  EXPECT_EQ(Unsubscribe(kRita), kListApprovalRequired);
  EXPECT_TRUE(IsSubscribed(kRita));
  EXPECT_TRUE(SListActions(&module, "news", S821Address(kRita)).RejectUnsubscription());
  mail = TakeMail();
  EXPECT_TRUE(mail.Has("Subject: Your request to leave News"));
  EXPECT_EQ(Unsubscribe(kRita, 1), kListSuccess);
  EXPECT_EQ(StateCounts(), (Counts{1, 0, 1}));
}

TEST_F(ActionsTest, TextsOfTheListGoOutOnEnteringAndLeaving) {
  TrustEverybody();
  Put("news-list", {{"List-Welcome-Info",
                     {"Hello.",
                      "Gr\xc3\xbc\xc3\x9f"
                      "e."}},
                    {"List-Unsubscribe-Info", {" ", "\t"}}});
  Set("List-Manager", "/Log", "Subscriptions", {"yes"});
  testing::internal::CaptureStderr();
  EXPECT_EQ(Subscribe(kAnn, 0, {.digest = 1, .info = 1}), kListSuccess);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::ContainsRegex("[0-9+-]+:List-Manager:User-Subscribed:news-list:ann@example.org:digest\n"));
  Mail const mail = TakeMail();
  EXPECT_TRUE(mail.Has("Subject: Welcome to News"));
  EXPECT_EQ(mail.body,
            "Hello.\r\nGr\xc3\xbc\xc3\x9f"
            "e.\r\n");
  EXPECT_TRUE(mail.Has("Content-Transfer-Encoding: 8bit"));
  EXPECT_EQ(Unsubscribe(kAnn, 0, {.info = 1}), kListSuccess);
  EXPECT_THAT(TakeMails(), IsEmpty()) << "blanks are no text";
}

TEST_F(ActionsTest, TemplateKeysInAnAddressStayAsTheyAre) {
  Set("List-Manager", "/Messages", listtexts::kAuthKeyRequest,
      {"Hello <+++Subscriber+++>,", "Subject:   key for <+++ListName+++>", "Subject: no more", "<+++Other+++> <+++",
       "<+++AuthKey+++>"});
  Put("news-list", {{"List-Name", {"<+++AuthKey+++>"}}});
  SListActions actions(&module, "news-list", S821Address("<\"<+++AuthKey+++>\"@far.example>"));
  EXPECT_EQ(actions.Subscribe(0), kListAuthenticationRequired);
  Mail const mail = TakeMail();
  EXPECT_TRUE(mail.Has("Subject: key for <+++AuthKey+++>"));
  EXPECT_EQ(mail.body, "Hello \"<+++AuthKey+++>\"@far.example,\r\nSubject: no more\r\n<+++Other+++> <+++\r\n" +
                           Str(actions.GetAuthKey()) + "\r\n");
}

TEST_F(ActionsTest, AddressUnderAFloodOfRequestsIsNotMailedAnyMore) {
  for (int i = 0; i < 14; ++i) EXPECT_EQ(Subscribe(kRita), kListAuthenticationRequired);
  EXPECT_EQ(TakeMails().size(), 10u);
  EXPECT_EQ(Subscribe("<paul@far.example>"), kListAuthenticationRequired);
  EXPECT_EQ(KeyIn(TakeMail()).substr(0, 1), "s") << "others get theirs";
}

TEST_F(ActionsTest, RequestThatCannotBeMailedFails) {
  EXPECT_EQ(SListActions(nullptr, "news", S821Address(kRita)).Subscribe(0), kListTempFail) << "no module, no name";
  CallWatch watch;
  watch.FailNth(1, ENOSPC, "write");
  EXPECT_EQ(Subscribe(kRita), kListTempFail);
  EXPECT_EQ(CountIn("messages") + CountIn("control"), 0);
}

// An object that mailed a key does not take that key for one that came back.
TEST_F(ActionsTest, MailedKeyIsNotAnOfferedOne) {
  SListActions actions(&module, "news", S821Address(kRita));
  EXPECT_EQ(actions.Subscribe(0), kListAuthenticationRequired);
  EXPECT_EQ(actions.Subscribe(0), kListAuthenticationRequired);
  actions.SetAuthKey(actions.GetAuthKey(), 0);
  EXPECT_EQ(actions.Subscribe(0), kListSuccess);
}

TEST_F(ActionsTest, StateThatCannotBeReadOrWrittenChangesNoSubscription) {
  TrustEverybody();
  EXPECT_EQ(Subscribe(kAnn), kListSuccess);
  std::string const good = FileBytes("listdata/news-list");
  PutFile("listdata/news-list", good.substr(0, 30));
  testing::internal::CaptureStderr();
  EXPECT_EQ(Subscribe(kRita), kListTempFail);
  EXPECT_EQ(Unsubscribe(kAnn), kListTempFail);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr(":List-Manager:ERROR:Couldn't get list state for news-list\n"));
  EXPECT_TRUE(IsSubscribed(kAnn));
  PutFile("listdata/news-list", good);
  std::filesystem::create_directory(Path("listdata/news-list.new"));  // no temporary file can be made under this name
  EXPECT_EQ(Subscribe(kRita), kListTempFail);
  EXPECT_EQ(Unsubscribe(kAnn), kListTempFail);
  std::filesystem::remove(Path("listdata/news-list.new"));
  EXPECT_TRUE(IsSubscribed(kAnn));
  EXPECT_THAT(Values("Ann", "Subscribed-Lists-Immediate"), ElementsAre("news-list"));
  EXPECT_EQ(Str(SListDB().GetSubscriberUID(S821Address(kRita))), "") << "the new account is gone again";
  EXPECT_EQ(FileBytes("listdata/news-list"), good);
  EXPECT_EQ(SListActions(nullptr, "news", S821Address(kRita)).Subscribe(1), kListSuccess) << "all is as it was";
}

TEST_F(ActionsTest, UnreadableAccountsAreNeitherAMissingListNorAnOpenOne) {
  Put("news-list", {{"List-Verify-Subscriptions", {"no"}}, {"List-Local-Subscriber-Policy", {"closed"}}});
  EXPECT_EQ(Subscribe(kAnn), kListRequestDenied);
  std::string const index = FileBytes("config/BTAccounts.i");
  PutFile("config/BTAccounts.i", std::string(index.size(), 'x'));
  EXPECT_EQ(Subscribe(kAnn), kListTempFail);
  EXPECT_EQ(Unsubscribe(kAnn), kListTempFail);
  PutFile("config/BTAccounts.i", index);
  // Descriptors are used up for so many opens of the attributes, from the first request for one on.
  for (int failures = 1; failures < 30; ++failures) {
    SAccountBase::ClearReadFailed();
    SListActions actions(&module, "news", S821Address(kAnn));
    int left = failures;
    sys::SetHook(
        [](sys::CallInfo const &call, void *count) {
          bool const isOpen =
              std::string_view(call.name) == "open" && std::string_view(call.path).ends_with("BTAccounts.a");
          return isOpen && (*static_cast<int *>(count))-- > 0 ? EMFILE : 0;
        },
        &left);
    SAccountDB().DBReOpen();
    EXPECT_THAT(actions.Subscribe(0), ::testing::AnyOf(kListTempFail, kListRequestDenied)) << failures;
    sys::SetHook(nullptr, nullptr);
    EXPECT_THAT(TakeMails(), IsEmpty()) << failures << ": no key for what will be refused";
  }
  SAccountBase::ClearReadFailed();
  EXPECT_EQ(Subscribe(kAnn), kListRequestDenied);
}

TEST_F(ActionsTest, BatchKeepsLimitsAndSharesTheState) {
  TrustEverybody();
  Put("news-list", {{"List-Max-Subscribers", {"25"}}, {"List-Moderation-Method", {"queue-no-mail"}}});
  {
    SListBatch batch("news");
    for (int i = 0; i < 30; ++i) {
      SListActions actions(&module, "news", S821Address("<user" + SString(i) + "@far.example>"));
      actions.SetBatch(&batch);
      EXPECT_EQ(actions.Subscribe(1), i < 25 ? kListSuccess : kListOverLimit) << i;
    }
    Put("news-list", {{"List-Remote-Subscriber-Policy", {"moderated"}}, {"List-Max-Subscribers", {"100"}}});
    SListActions asking(&module, "news", S821Address(kRita));
    asking.SetBatch(&batch);
    EXPECT_EQ(asking.Subscribe(0), kListApprovalRequired) << "the batch's state, not another under its lock";
    EXPECT_TRUE(batch.Commit());
    SListActions leaving(&module, "news", S821Address("<user0@far.example>"));
    leaving.SetBatch(&batch);
    EXPECT_EQ(leaving.Unsubscribe(1), kListSuccess);
    EXPECT_TRUE(batch.Commit());
  }
  EXPECT_EQ(StateCounts(), (Counts{25, 0, 1}));
  EXPECT_TRUE(Waits("rita@far.example"));
}

TEST_F(ActionsTest, ResultsHaveTheirKeys) {
  char const *const keys[] = {"Success",
                              "ApprovalRequired",
                              "AuthenticationRequired",
                              "BadAuthKey",
                              "RequestDenied",
                              "BadPassword",
                              "AlreadySubscribed",
                              "NoSuchList",
                              "NotSubscribed",
                              "TempFail",
                              "MsgNotFound",
                              "OverLimit",
                              "InvalidAddress",
                              "NoLocalAccount",
                              "SubscriptionChanged",
                              "Locked",
                              "CircularSubscription"};
  for (int i = 0; i < 17; ++i) EXPECT_EQ(Str(SListActions::GetErrorKey(i + 1)), keys[i]);
  for (int other : {0, -1, 18}) EXPECT_EQ(Str(SListActions::GetErrorKey(other)), "TempFail");
}
