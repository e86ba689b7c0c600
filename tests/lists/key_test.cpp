#include "brenthaven/lists/slistkey.h"

#include "brenthaven/accounts/passwords.h"
#include "tests/lists/list_fixture.h"

namespace {

constexpr long kToday = 20000;
constexpr time_t kNow = 1700000000;
SListKeySubject const kSubject = {"ann@example.org", "news-list"};

bool IsGood(SString const &key, bool unsubscribes = false, int validDays = 14,
            SListKeySubject const &subject = kSubject) {
  return IsListKey(key, subject, unsubscribes, kToday, validDays, "secret");
}

}  // namespace

TEST(ListKeyTest, ShortKeyIsTheDigestsStart) {
  SString const key = MD5(SString("ann@example.org\0news-list\0secret", 32)).Segment(0, 8);
  EXPECT_EQ(Str(MakeListKey(kSubject, "secret")), Str(key));
  for (int days : {0, 14}) {
    EXPECT_TRUE(IsGood(key, false, days));
    EXPECT_TRUE(IsGood(key, true, days));
  }
  for (SString const &wrong : {SString(""), key.Segment(0, 7), key + "0", SString("00000000")})
    EXPECT_FALSE(IsGood(wrong));
  EXPECT_FALSE(IsGood(key, false, 14, {"bob@example.org", "news-list"}));
  EXPECT_FALSE(IsGood(key, false, 14, {"ann@example.org", "other"}));
}

TEST(ListKeyTest, DatedKeyHoldsForItsRequestAndItsDays) {
  SString const key = MakeDatedListKey(kSubject, SListIntent::kSubscribe, kToday, "secret");
  EXPECT_TRUE(Str(key).starts_with("s20000-")) << Str(key);
  EXPECT_TRUE(IsGood(key));
  EXPECT_TRUE(IsGood(key, false, 14, {"Ann@Example.ORG", "news-list"}));
  EXPECT_FALSE(IsGood(key, true)) << "a key to subscribe does not end a subscription";
  EXPECT_FALSE(IsGood(key, false, 0)) << "dated keys are off";
  EXPECT_FALSE(IsGood(key, false, 14, {"bob@example.org", "news-list"}));
  EXPECT_FALSE(IsGood(key, false, 14, {"ann@example.org", "other"}));
  EXPECT_FALSE(IsGood("d" + key.Segment(1, 100))) << "the letter is covered";
  EXPECT_FALSE(IsGood("s20001" + key.Segment(6, 100))) << "the day is covered";
  EXPECT_FALSE(IsGood(MakeDatedListKey(kSubject, SListIntent::kSubscribe, kToday, "other secret")));
  struct {
    long age;
    bool good;
  } const rows[] = {{14, true}, {15, false}, {-1, true}, {-2, false}};
  for (auto const &row : rows)
    EXPECT_EQ(IsGood(MakeDatedListKey(kSubject, SListIntent::kSubscribe, kToday - row.age, "secret")), row.good)
        << row.age << " days old";
}

TEST(ListKeyTest, IntentStandsInTheKey) {
  SListIntent intent = SListIntent::kSubscribe;
  EXPECT_TRUE(ReadListKeyIntent(MakeDatedListKey(kSubject, SListIntent::kUnsubscribe, kToday, "x"), intent));
  EXPECT_EQ(intent, SListIntent::kUnsubscribe);
  EXPECT_TRUE(ReadListKeyIntent(MakeDatedListKey(kSubject, SListIntent::kSubscribeDigest, kToday, "x"), intent));
  EXPECT_EQ(intent, SListIntent::kSubscribeDigest);
  for (char const *text :
       {"", "s", "s-", "12345678", "s99999999-000000000000000000000000", "s2x-000000000000000000000000"})
    EXPECT_FALSE(ReadListKeyIntent(text, intent)) << text;
}

TEST_F(ListTest, AddressIsMailedTenTimesInAnyHour) {
  SString const address = "ann@example.org";
  for (int i = 0; i < 10; ++i)
    EXPECT_EQ(RecordKeyMail(i % 2 ? address : UpperCase(address), kNow + i * 60), SKeyMailAnswer::kMail);
  EXPECT_EQ(RecordKeyMail(address, kNow + 600), SKeyMailAnswer::kTooMany);
  EXPECT_EQ(RecordKeyMail("bob@example.org", kNow + 600), SKeyMailAnswer::kMail) << "an hour for each";
  EXPECT_EQ(RecordKeyMail(address, kNow + 3599), SKeyMailAnswer::kTooMany);
  EXPECT_EQ(RecordKeyMail(address, kNow + 3600), SKeyMailAnswer::kMail) << "the first is an hour old";
  EXPECT_EQ(RecordKeyMail(address, kNow + 3601), SKeyMailAnswer::kTooMany);
}

// Whoever asks in thousands of names must not make an attacked address forgotten.
TEST_F(ListTest, RecordOfKeysStaysSmallAndKeepsTheAttacked) {
  SString const address = "ann@example.org";
  for (int i = 0; i < 10; ++i) (void)RecordKeyMail(address, kNow);
  for (int i = 0; i < kKeyMailAddresses + 20; ++i)
    ASSERT_EQ(RecordKeyMail("user" + SString(i) + "@far.example", kNow + 1), SKeyMailAnswer::kMail);
  EXPECT_EQ(RecordKeyMail(address, kNow + 2), SKeyMailAnswer::kTooMany);
  EXPECT_LT(FileBytes("List-Manager/keymails").size(), 200u * 1024);
}

TEST_F(ListTest, RecordOfKeysThatIsBrokenStartsAnew) {
  (void)RecordKeyMail("ann@example.org", kNow);
  std::string const whole = FileBytes("List-Manager/keymails");
  EXPECT_EQ(whole.find("ann"), std::string::npos) << "no address is told";
  PutFile("List-Manager/keymails", whole.substr(0, whole.size() - 1));
  PutFile("List-Manager/keymails.new", "left by a crash");
  EXPECT_EQ(RecordKeyMail("ann@example.org", kNow), SKeyMailAnswer::kMail);
  EXPECT_EQ(FileBytes("List-Manager/keymails"), whole);
  CallWatch watch;
  watch.FailNth(1, ENOSPC, "rename");
  EXPECT_EQ(RecordKeyMail("ann@example.org", kNow), SKeyMailAnswer::kFailed);
}
