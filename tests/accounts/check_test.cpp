// The check of the two account files against each other, on files with planted disagreements.
#include "brenthaven/accounts/check.h"

#include <string_view>

#include "brenthaven/store/sbtree.h"
#include "tests/accounts/support.h"

namespace {

using namespace std::string_view_literals;

class AccountCheckTest : public AccountFixture {
protected:
  static void Plant(char const *file, std::string_view key, bool isThere, std::string_view value = {}) {
    SBTree tree(file, 0);
    tree.LockWrite();
    EXPECT_EQ(isThere ? tree.Set(SString(key), SString(value)) : tree.Delete(SString(key)), 1u);
    tree.UnlockWrite();
  }
  static Texts Faults() {
    Texts faults;
    SAccountCheck const check = CheckAccountFiles([&](SString const &fault) { faults.push_back(Text(fault)); });
    EXPECT_EQ(check.faults, static_cast<long>(faults.size()));
    EXPECT_FALSE(check.readFailed);
    return faults;
  }
};

TEST_F(AccountCheckTest, EachDisagreementIsToldOnce) {
  ASSERT_EQ(Put("ann", kAttrSmtpAddress, {"<Ann@Example.org>", "a@example.org"}), 1);
  ASSERT_EQ(Put("ann", kAttrAccessDomains, "none"), 1);
  ASSERT_EQ(Put("ann", kAttrParentDomains, "Sub.example.org"), 1);
  ASSERT_EQ(Put("Default", kAttrSmtpAddress, "t@example.org"), 1);
  ASSERT_EQ(Faults(), Texts{});

  constexpr char const *kAttributes = "BTAccounts.a";
  constexpr char const *kIndex = "BTAccounts.i";
  struct {
    char const *file;
    std::string_view key;
    bool isThere;  // the record is added; else it is taken away
    Texts want;
  } const cases[] = {
      {kIndex,
       "\x11"
       "ann@example.org\0ann"sv,
       false,
       {"ann: SMTP-Address: a value is missing in the index"}},
      {kIndex,
       "\x35"
       "gro.elpmaxe.bus.\0ann"sv,
       false,
       {"ann: Parent-Domains: a value is missing in the index"}},
      {kIndex, "\0\x01\0Default"sv, false, {"Default: Type: a value is missing in the index"}},
      {kIndex,
       "\x11"
       "b@example.org\0ann"sv,
       true,
       {"ann: SMTP-Address: the index has a value that the account lacks"}},
      {kIndex,
       "\x11"
       "a@example.org\0bob"sv,
       true,
       {"bob: SMTP-Address: the index has a value that the account lacks"}},
      {kIndex,
       "\x11"
       "t@example.org\0Default"sv,
       true,
       {"Default: SMTP-Address: the index has a value of a template"}},
      {kIndex, "\x01none\0ann"sv, true, {"?: Access-Domains: not an entry of this index"}},
      {kIndex, "\x11\0ann"sv, true, {"?: SMTP-Address: not an entry of this index"}},
      {kIndex, "\xf0x\0ann"sv, true, {"?: attribute 240: not an entry of this index"}},
      {kAttributes, "bob\0\x01"sv, true, {"bob: Access-Domains: belongs to no account"}},
      {kAttributes, "ann\0\xf0"sv, true, {"ann: attribute 240: not a record of this store"}},
      {kAttributes, "ann"sv, true, {"a: attribute 110: not a record of this store"}},
  };
  for (auto const &row : cases) {
    Plant(row.file, row.key, row.isThere);
    EXPECT_EQ(Faults(), row.want);
    Plant(row.file, row.key, !row.isThere);
  }
  EXPECT_EQ(Faults(), Texts{});
}

TEST_F(AccountCheckTest, AccountsOfManyValuesAreCheckedValueByValue) {
  SStringList members;
  for (int i = 0; i < 200; ++i) members.Push("m" + MakeSString(i));
  ASSERT_EQ(Put("all", kAttrAccountDelivery, members), 1);
  ASSERT_EQ(Faults(), Texts{});
  Plant("BTAccounts.i", "\x02m7\0all"sv, false);
  Plant("BTAccounts.i", "\x02x\0all"sv, true);
  EXPECT_EQ(Faults(), (Texts{"all: Account-Delivery: a value is missing in the index",
                             "all: Account-Delivery: the index has a value that the account lacks"}));
}

TEST_F(AccountCheckTest, UnreadableFilesAreToldFromSoundOnes) {
  ASSERT_EQ(Put("ann", kAttrName, "Ann"), 1);
  PutFile("config/BTAccounts.i", "no B-tree");
  EXPECT_TRUE(CheckAccountFiles([](SString const &) {}).readFailed);
}

}  // namespace
