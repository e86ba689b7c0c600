// One account: attributes, limits, templates, and what a Set does beyond storing.
#include "brenthaven/accounts/account.h"

#include "brenthaven/accounts/auxpassword.h"
#include "brenthaven/accounts/passwords.h"
#include "tests/accounts/support.h"

namespace {

class AccountTest : public AccountFixture {};

struct Names : SAccountBase {
  using SAccountBase::_MapAttrib;
};

TEST_F(AccountTest, AttributeNamesAreExact) {
  Names names;
  EXPECT_EQ(names._MapAttrib("SMTP-Address"), 17);
  EXPECT_EQ(names._MapAttrib("LDAP-Server2"), 95);
  EXPECT_EQ(names._MapAttrib("smtp-address"), -1);
  EXPECT_EQ(names._MapAttrib("no-such"), -1);
  EXPECT_EQ(names._MapAttrib(""), -1);
  EXPECT_EQ(Text(names._MapAttrib(45)), "Raw-Password");
  EXPECT_EQ(Text(names._MapAttrib(96)), "Invalid-Attribute");
  EXPECT_EQ(Text(names._MapAttrib(-1)), "Invalid-Attribute");
}

TEST_F(AccountTest, UnknownAttributesFailGently) {
  SAccountDBMod store;
  SAccountMod account;
  EXPECT_EQ(account.Set(kAttrName, "nobody"), 0) << "an account that was never found";
  ASSERT_EQ(store.ModifyAccount("ann", &account), 1);
  EXPECT_EQ(account.Set("no-such", "x"), 0);
  EXPECT_EQ(account.Set(kAttrCount, "x"), 0);
  EXPECT_EQ(account.Delete("no-such"), 0);
  EXPECT_EQ(account.Get("no-such").Length(), 0);
  EXPECT_EQ(account.Get(kAttrCount).Length(), 0);
  EXPECT_FALSE(account.GetString(-1).Defined());
  EXPECT_EQ(List(account.Values()), Texts{});
}

TEST_F(AccountTest, ValuesNamesWhatTheAccountHas) {
  ASSERT_EQ(Put("ann", kAttrName, "Ann"), 1);
  ASSERT_EQ(Put("ann", kAttrRawPassword, SString('x', 64)), 1);
  ASSERT_EQ(Put("ann", kAttrListMailCount, SStringList()), 1);
  SAccount account;
  ASSERT_EQ(SAccountDB().GetAccountInfo("ann", &account), 1);
  // A finished hash is a Password; an attribute without values stands all the same.
  EXPECT_EQ(List(account.Values()), (Texts{"Name", "Password", "List-MailCount"}));
  EXPECT_EQ(Text(account.GetString(kAttrPassword)), std::string(64, 'x'));
  EXPECT_EQ(account.Get(kAttrRawPassword).Length(), 0);
}

TEST_F(AccountTest, KindsOfAccount) {
  struct Case {
    int attribute;
    unsigned remote, list, locked;
  } const cases[] = {
      {kAttrRemoteSmtpAddress, 1, 0, 0}, {kAttrListName, 0, 1, 0}, {kAttrExpandedDelivery, 0, 1, 0},
      {kAttrManagerListName, 0, 1, 0},   {kAttrLocked, 0, 0, 1},   {kAttrPopAddress, 0, 0, 0},
  };
  for (Case const &c : cases) {
    SString const uid = SString("a") + MakeSString(c.attribute);
    ASSERT_EQ(Put(uid, c.attribute, "x@y.example"), 1);
    SAccount account;
    ASSERT_EQ(SAccountDB().GetAccountInfo(uid, &account), 1);
    EXPECT_EQ(account.IsRemoteAcct(), c.remote) << c.attribute;
    EXPECT_EQ(account.IsListAcct(), c.list) << c.attribute;
    EXPECT_EQ(account.IsLocked(), c.locked) << c.attribute;
  }
}

TEST_F(AccountTest, LocalAddressGoesBeforeRemoteOne) {
  Put("ann", kAttrRemoteSmtpAddress, "ann@far.example");
  SAccount account;
  ASSERT_EQ(SAccountDB().GetAccountInfo("ann", &account), 1);
  EXPECT_EQ(Text(account.GetPrimaryAddress()), "ann@far.example");
  EXPECT_EQ(List(SAccount::GetAddress_s("ann")), Texts{"ann@far.example"});
  Put("ann", kAttrSmtpAddress, {"ann@here.example", "a@here.example"});
  EXPECT_EQ(Text(account.GetPrimaryAddress()), "ann@here.example");
  EXPECT_EQ(List(SAccount::GetAddress_s("ann")), (Texts{"ann@here.example", "a@here.example"}));
}

TEST_F(AccountTest, TemplatesAreNotFoundAndHoldNothingUnique) {
  for (char const *uid : {"Default", "Default-List", "Default-"}) {
    EXPECT_EQ(Put(uid, kAttrSmtpAddress, "one@example.org"), 1) << uid;
    EXPECT_EQ(Put(uid, kAttrPassword, "secret"), 1) << uid;
    EXPECT_EQ(StringComp("secret", Values(uid, kAttrPassword)[0].c_str()), 1) << uid;
    EXPECT_FALSE(SAuxPassword().GetPassword(uid).Defined()) << uid;
  }
  EXPECT_EQ(Owner("one@example.org"), "");
  EXPECT_EQ(Put("Default", kAttrPassword, SStringList()), 1) << "the hash of an empty password";
  EXPECT_EQ(Put("Defaulter", kAttrSmtpAddress, "one@example.org"), 1) << "no template, in spite of its name";
  EXPECT_EQ(Owner("one@example.org"), "Defaulter");
}

TEST_F(AccountTest, PasswordIsStoredAsHashAndReadably) {
  ASSERT_EQ(Put("ann", kAttrPassword, {"Tr0ub4dor", "ignored"}), 1);
  Texts const stored = Values("ann", kAttrPassword);
  ASSERT_EQ(stored.size(), 1u);
  EXPECT_EQ(StringComp("Tr0ub4dor", stored[0].c_str()), 1);
  EXPECT_EQ(Text(SAuxPassword().GetPassword("ann")), "Tr0ub4dor");
  EXPECT_EQ(FileBytes("config/BTAccounts.a").find("Tr0ub4dor"), std::string::npos);
  EXPECT_EQ(FileBytes("config/registry.sqlite").find("Tr0ub4dor"), std::string::npos);
  EXPECT_EQ(Put("ann", kAttrPassword, ""), 0);
  EXPECT_EQ(Values("ann", kAttrPassword), stored);
}

TEST_F(AccountTest, ProgramPasswordIsCoveredOnDisk) {
  ASSERT_EQ(Put("ann", kAttrProgDelPassword, "letmein"), 1);
  EXPECT_EQ(Values("ann", kAttrProgDelPassword), Texts{"letmein"});
  EXPECT_EQ(FileBytes("config/BTAccounts.a").find("letmein"), std::string::npos);
  EXPECT_EQ(Put("ann", kAttrProgDelPassword, ""), 1);
  EXPECT_EQ(Values("ann", kAttrProgDelPassword), Texts{});
}

TEST_F(AccountTest, RemoteSubscriberGoesWithItsLastSubscription) {
  Put("far", kAttrRemoteSmtpAddress, "far@else.example");
  Put("near", kAttrSmtpAddress, "near@example.org");
  for (char const *uid : {"far", "near"}) Put(uid, kAttrSubscribedLists, {"l1", "l2"});
  for (char const *uid : {"far", "near"}) EXPECT_EQ(Put(uid, kAttrSubscribedLists, "l2"), 1);
  EXPECT_TRUE(Exists("far"));
  {
    SAccountDBMod store;
    SAccountMod account;
    ASSERT_EQ(store.ModifyAccount("far", &account), 1);
    EXPECT_EQ(account.Set(kAttrSubscribedLists, SStringList()), 1);
    EXPECT_EQ(account.Set(kAttrSubscribedLists, "l3"), 1);
  }
  EXPECT_EQ(Values("far", kAttrSubscribedLists), Texts{"l3"}) << "filled again before the end";
  for (char const *uid : {"far", "near"}) EXPECT_EQ(Put(uid, kAttrSubscribedLists, SStringList()), 1);
  EXPECT_FALSE(Exists("far"));
  EXPECT_TRUE(Exists("near"));
  EXPECT_EQ(List(SAccountDB().IndexLookup(kAttrRemoteSmtpAddress, "far@else.example")), Texts{});
}

TEST_F(AccountTest, OneWriterObjectMovesOnWithoutDeletingTheWrongAccount) {
  Put("far", kAttrRemoteSmtpAddress, "far@else.example");
  {
    SAccountDBMod store;
    SAccountMod account;
    ASSERT_EQ(store.ModifyAccount("far", &account), 1);
    account.Set(kAttrSubscribedLists, SStringList());
    ASSERT_EQ(store.ModifyAccount("ann", &account), 1);
  }
  EXPECT_FALSE(Exists("far"));
  EXPECT_TRUE(Exists("ann"));
}

TEST_F(AccountTest, QuotaComesFromAccountThenEnvironment) {
  struct Case {
    char const *own;
    char const *general;
    int want;
    char const *why;
  } const cases[] = {
      {nullptr, nullptr, -1, "no limit anywhere"},
      {nullptr, "500", 500, "the general one"},
      {"100", "500", 100, "the account's own"},
      {"0", "500", 500, "0 falls back"},
      {"-5", "500", 500, "negative falls back"},
      {"12.9", nullptr, 12, "cut to an integer"},
      {"many", "x", -1, "no numbers"},
      {nullptr, "nan", -1, "no number either"},
      {"1e30", nullptr, 2147483647, "the largest"},
  };
  int number = 0;
  for (Case const &c : cases) {
    SString const uid = SString("q") + MakeSString(number++);
    ASSERT_EQ(Put(uid, kAttrMailboxQuota, c.own != nullptr ? SStringList(c.own) : SStringList()), 1);
    c.general != nullptr ? setenv("DefaultMailboxQuota", c.general, 1) : unsetenv("DefaultMailboxQuota");
    EXPECT_EQ(SAccount::GetMailboxQuota(uid), c.want) << c.why;
  }
  setenv("DefaultMailboxQuota", "7", 1);
  EXPECT_EQ(SAccount::GetMailboxQuota("nobody"), 7);
}

TEST_F(AccountTest, DomainsAreContainedByWholeLabels) {
  struct Case {
    char const *domain;
    SStringList containers;
    unsigned want;
  } const cases[] = {
      {"a.example.org", {"example.org"}, 1},
      {"example.org", {"example.org"}, 1},
      {"a.example.org", {"ample.org"}, 0},
      {"org", {"example.org"}, 0},
      {"a.b", {"x", "b"}, 1},
      {"a.b", SStringList(), 0},
  };
  SAccount account;
  for (Case const &c : cases)
    EXPECT_EQ(account._DomainContainedIn(c.domain, c.containers), c.want) << c.domain << " in " << c.containers;
  EXPECT_EQ(account._DomainsContainedIn({"a.b", "c.b"}, "b"), 1u);
  EXPECT_EQ(account._DomainsContainedIn({"a.b", "c.d"}, "b"), 0u);
  EXPECT_EQ(account._DomainsContainedIn(SStringList(), "b"), 1u);
  EXPECT_EQ(account._DomainsContainedIn(SStringList(), SStringList()), 0u);
}

TEST_F(AccountTest, ManagersMustManageEveryDomain) {
  Put("boss", kAttrManagedDomains, {"example.org", "example.net"});
  Put("ann", kAttrParentDomains, "boss");
  Put("bob", kAttrParentDomains, {"nobody", "Postmaster"});
  SAccount ann, bob;
  ASSERT_EQ(SAccountDB().GetAccountInfo("ann", &ann), 1);
  ASSERT_EQ(SAccountDB().GetAccountInfo("bob", &bob), 1);
  EXPECT_EQ(ann.IsManagedBy({"example.org", "lists.example.net"}), 1u);
  EXPECT_EQ(ann.IsManagedBy({"example.org", "example.com"}), 0u);
  EXPECT_EQ(bob.IsManagedBy({"any.where"}), 1u);
}

TEST_F(AccountTest, FilterSwitchIsOnUnlessSwitchedOff) {
  EXPECT_EQ(SAccount::GetPufSwitch("nobody"), 1);
  Put("ann", kAttrPufEnabled, "no");
  Put("bob", kAttrPufEnabled, "No");
  EXPECT_EQ(SAccount::GetPufSwitch("ann"), 0);
  EXPECT_EQ(SAccount::GetPufSwitch("bob"), 1);
}

}  // namespace
