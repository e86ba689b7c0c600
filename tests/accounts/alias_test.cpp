#include "brenthaven/accounts/alias.h"

#include <sys/wait.h>
#include <unistd.h>

#include "brenthaven/store/sdbfile.h"
#include "tests/accounts/support.h"

namespace {

class AliasTest : public AccountFixture {
protected:
  static Texts Targets(char const *address) {
    return List(SAliasDB().GetChannelAliases(S821Address(SString(address))));
  }
};

TEST_F(AliasTest, FoundWhateverTheCase) {
  EXPECT_EQ(SAliasDBMod().AddChannelAliases(S821Address("Sales@Example.ORG"), {"<a@x.example>", "<b@x.example>"}), 1u);
  EXPECT_EQ(Targets("<SALES@example.org>"), (Texts{"<a@x.example>", "<b@x.example>"}));
  EXPECT_EQ(List(SAliasDB().GetAliases()), Texts{"<sales@example.org>"});
  EXPECT_EQ(SAliasDBMod().AddChannelAliases(S821Address("sales@example.org"), "<c@x.example>"), 1u);
  EXPECT_EQ(Targets("sales@example.org"), Texts{"<c@x.example>"}) << "replaced, not added to";
  EXPECT_EQ(SAliasDBMod().DeleteChannelAliases(S821Address("SALES@example.org")), 1u);
  EXPECT_EQ(SAliasDBMod().DeleteChannelAliases(S821Address("sales@example.org")), 0u);
  EXPECT_EQ(Targets("sales@example.org"), Texts{});
}

TEST_F(AliasTest, NoneBeforeTheFirst) {
  EXPECT_EQ(Targets("sales@example.org"), Texts{});
  EXPECT_EQ(SAliasDB().GetAliases().Length(), 0);
  EXPECT_EQ(SAliasDBMod().DeleteChannelAliases(S821Address("sales@example.org")), 0u);
  EXPECT_EQ(SAliasDB::ReadFailed(), 0u);
}

// The cursor of a process that looked before MTA-Accounts was there must not settle on the section it makes.
TEST_F(AliasTest, ProcessReadsBackWhatItAddsToANewInstallation) {
  EXPECT_EQ(Targets("a@example.org"), Texts{});
  EXPECT_EQ(SAliasDBMod().AddChannelAliases(S821Address("a@example.org"), "<b@example.org>"), 1u);
  EXPECT_EQ(Targets("a@example.org"), Texts{"<b@example.org>"});
  Sdbfile("MTA-Accounts", 1, kProductWord).Set("LocalMailDomains", "example.org");
  EXPECT_EQ(List(SAccountDB().GetLocalMailDomains()), Texts{"example.org"}) << "the root is still the module's";
  EXPECT_EQ(Targets("a@example.org"), Texts{"<b@example.org>"});
}

TEST_F(AliasTest, AliasOfAnotherProcessIsSeenAtOnce) {
  EXPECT_EQ(Targets("a@example.org"), Texts{});
  pid_t const child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(SAliasDBMod().AddChannelAliases(S821Address("a@example.org"), "<b@example.org>") == 1 ? 0 : 1);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(Targets("a@example.org"), Texts{"<b@example.org>"});
}

TEST_F(AliasTest, UnreadableTableIsToldFromNoAlias) {
  PutFile("config/registry.sqlite", std::string(8192, 'x'));
  EXPECT_EQ(Targets("a@example.org"), Texts{});
  EXPECT_EQ(SAliasDB::ReadFailed(), 1u);
  EXPECT_EQ(SAccountDB::ReadFailed(), 1u);
  SAliasDB::ClearReadFailed();
  EXPECT_EQ(SAliasDB::ReadFailed(), 0u);
}

}  // namespace
