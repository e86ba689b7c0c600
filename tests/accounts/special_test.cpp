#include "brenthaven/accounts/special.h"

#include <map>

#include "brenthaven/accounts/safeuid.h"
#include "tests/accounts/support.h"

namespace {

class SpecialAccountsTest : public AccountFixture {
protected:
  // Every attribute of every account.
  static std::map<std::string, std::map<std::string, Texts>> Everything() {
    std::map<std::string, std::map<std::string, Texts>> all;
    for (SString const &uid : SAccountDB().AccountUIDList()) {
      SAccount account;
      EXPECT_EQ(SAccountDB().GetAccountInfo(uid, &account), 1);
      for (SString const &name : account.Values()) all[Text(uid)][Text(name)] = List(account.Get(name));
    }
    return all;
  }
};

TEST_F(SpecialAccountsTest, MakesWhatAnInstallationNeeds) {
  EXPECT_EQ(CreateSpecialAccounts("example.org", "mail.example.org"), 1u);
  auto const all = Everything();
  EXPECT_EQ(all.at("Account-Manager"),
            (std::map<std::string, Texts>{
                {"Name", {"Account Manager"}},
                {"Manager-Delivery", {"Account-Manager"}},
                {"SMTP-Address", {"Accounts@mail.example.org", "Accounts@example.org", "Account@example.org"}},
                {"SMTP-RewriteStyle", {"comment"}},
                {"Finger-Access", {"none"}},
                {"Access-Domains", {"none"}},
                {"Locked", {"yes"}}}));
  EXPECT_EQ(all.at("List-Manager").at("SMTP-Address"), (Texts{"List.Manager@example.org", "Majordomo@example.org"}));
  EXPECT_EQ(all.at("List-Manager").at("Handler-Delivery"), Texts{"List-Manager"});
  EXPECT_EQ(all.at("Default"), (std::map<std::string, Texts>{{"SMTP-RewriteStyle", {"comment"}}}));
  EXPECT_EQ(all.at("Default-List").size(), 20u);
  EXPECT_EQ(all.at("All-Mailboxes").size(), 31u);
  EXPECT_EQ(all.at("All-Mailboxes").at("List-Approved-Posters"), Texts{"Postmaster@example.org"});
  EXPECT_EQ(Owner("owner-all-mailboxes@example.org"), "All-Mailboxes-Owner-Account");
  EXPECT_EQ(Owner("all-mailboxes-request@example.org"), "All-Mailboxes-Manager-Account");
  EXPECT_EQ(Owner("configuration@mail.example.org"), "Configuration-Manager");
  EXPECT_EQ(SAccountDB().ListCount(), 0);
  EXPECT_FALSE(all.contains("Postmaster"));
}

TEST_F(SpecialAccountsTest, SecondRunChangesNothing) {
  CreateSpecialAccounts("example.org", "mail.example.org");
  Put("Account-Manager", kAttrFingerAccess, "all");
  Put("Error-Handler", kAttrSmtpAddress, {"errors@[10.0.0.1]", "errors@example.org"});
  auto const before = Everything();
  CreateSpecialAccounts("other.example", "mail.other.example");
  EXPECT_EQ(Everything(), before);
}

TEST_F(SpecialAccountsTest, EmptyAndRepeatedDomainsArePassedOver) {
  struct Case {
    char const *primary;
    char const *secondary;
    Texts error, accounts, approved;
  } const cases[] = {
      {"a.example",
       "",
       {"Error-Handler@a.example"},
       {"Accounts@a.example", "Account@a.example"},
       {"Postmaster@a.example"}},
      {"a.example",
       "A.example",
       {"Error-Handler@a.example"},
       {"Accounts@a.example", "Account@a.example"},
       {"Postmaster@a.example"}},
      {"", "b.example", {"Error-Handler@b.example"}, {"Accounts@b.example"}, {}},
      {"", "", {}, {}, {}},
  };
  for (Case const &c : cases) {
    for (SString const &uid : SAccountDB().AccountUIDList()) SAccountDBMod().DeleteAccount(uid);
    EXPECT_EQ(CreateSpecialAccounts(c.primary, c.secondary), 1u);
    EXPECT_EQ(Values("Error-Handler", kAttrSmtpAddress), c.error);
    EXPECT_EQ(Values("Account-Manager", kAttrSmtpAddress), c.accounts);
    EXPECT_EQ(Values("All-Mailboxes", kAttrListApprovedPosters), c.approved);
  }
}

TEST_F(SpecialAccountsTest, MendsWhatAnOldInstallationLacks) {
  Put("Error-Handler", kAttrSmtpAddress, "errors@[10.0.0.1]");
  Put("Default-List", kAttrListPriority, "1");
  CreateSpecialAccounts("example.org", "mail.example.org");
  EXPECT_EQ(Values("Error-Handler", kAttrSmtpAddress),
            (Texts{"Error-Handler@mail.example.org", "Error-Handler@example.org"}));
  EXPECT_EQ(Values("Error-Handler", kAttrLocked), Texts{}) << "otherwise left alone";
  EXPECT_EQ(Values("Default-List", kAttrAccessDomains), Texts{"none"});
  EXPECT_EQ(Values("Default-List", kAttrListPriority), Texts{"1"});
}

TEST_F(SpecialAccountsTest, AddressThatSomebodyHasIsLeftToThem) {
  Put("ann", kAttrSmtpAddress, "majordomo@example.org");
  EXPECT_EQ(CreateSpecialAccounts("example.org", ""), 1u);
  EXPECT_EQ(Owner("majordomo@example.org"), "ann");
  EXPECT_EQ(Values("List-Manager", kAttrAccessDomains), Texts{"none"}) << "the run went on";
}

TEST_F(SpecialAccountsTest, ListsOfReservedNames) {
  EXPECT_EQ(List(GetReservedAccountList()),
            (Texts{"List-Manager", "Account-Manager", "Configuration-Manager", "Error-Handler"}));
  EXPECT_EQ(List(GetSpecialAccountList()), (Texts{"List-Manager", "Account-Manager", "Configuration-Manager",
                                                  "Error-Handler", "Postmaster", "Default", "Default-List"}));
}

TEST_F(SpecialAccountsTest, GeneratedUIDsAreFreeAndSafe) {
  struct Case {
    char const *name;
    char const *want;
  } const cases[] = {
      {"John Q. Public", "John_Q_Public"},
      {"", "_"},
      {"...", "_"},
      {"../../etc", "_etc"},
      {"con", "_con"},
      {"LPT1", "_LPT1"},
      {"lpt0", "lpt0"},
      {"com10", "com10"},
      {"Postmaster", "Postmaster1"},
      {"postmaster", "postmaster"},
      {"a_ b", "a__b"},
      {"J\xc3\xbcrgen", "J_rgen"},
      {"x", "x2"},
  };
  Put("x", kAttrName, "x");
  Put("x1", kAttrName, "x");
  for (Case const &c : cases) EXPECT_EQ(Text(GenerateAccountUID(c.name)), c.want);
  SString const longest = GenerateAccountUID(SString('n', 1000));
  ASSERT_EQ(Put(longest, kAttrName, "n"), 1);
  EXPECT_EQ(IsSafeUID(GenerateAccountUID(SString('n', 1000))), 1u);
}

TEST_F(SpecialAccountsTest, PostmastersMailGoesToWhomItIsDelivered) {
  EXPECT_EQ(IsPostmasterForwardee("Postmaster"), 1u) << "with no store at all";
  EXPECT_EQ(IsPostmasterForwardee("ann"), 0u);
  Put("Postmaster", kAttrAccountDelivery, {"bob", "ann"});
  EXPECT_EQ(IsPostmasterForwardee("ann"), 1u);
  EXPECT_EQ(IsPostmasterForwardee("carol"), 0u);
}

}  // namespace
