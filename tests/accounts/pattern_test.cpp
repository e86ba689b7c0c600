#include "brenthaven/accounts/accountpattern.h"

#include "tests/accounts/support.h"

namespace {

SStringList Tokens(char const *text) { return SString(text).SplitExact(" "); }

}  // namespace

class PatternTest : public AccountFixture {
protected:
  PatternTest() {
    Put("Ann", kAttrSmtpAddress, "ann@example.org");
    Put("Ann", kAttrName, SStringList{"Ann", "Anna B"});
    Put("Remote", kAttrRemoteSmtpAddress, "<bob@elsewhere.example>");
  }

  // The action and its arguments that the pattern gives the sender, joined by blanks; "-" for none.
  static std::string Outcome(char const *pattern, char const *sender = "<ann@example.org>", unsigned flags = 0) {
    SAccountPattern rules(Tokens(pattern));
    SAccountMatchInfo info{S821Address(sender)};
    info.SetAuthProvided(flags & kAuth);
    info.SetSubscribingSelf(flags & kSelf);
    info.SetLocalDomains("Local.Example");
    return rules.Match(info) ? Text(static_cast<SStringList>(rules).Join(" ")) : "-";
  }
  static constexpr unsigned kAuth = 1, kSelf = 2;
};

TEST_F(PatternTest, EveryTestBothWays) {
  struct Case {
    char const *pattern, *outcome;
    char const *sender = "<ann@example.org>";
    unsigned flags = 0;
  };
  for (Case const &c : {
           Case{"acct-attr-has [Name] [Ann] x", "x"},
           Case{"acct-attr-has [Name] [ann] x", "-"},
           Case{"acct-attr-has [Name] [] x", "-", "<nobody@example.org>"},
           Case{"sender-addr-in [ann@example.org] x", "x"},
           Case{"sender-addr-in [a] [<ann@example.org>] x", "x"},
           Case{"sender-addr-in [Ann@example.org] x", "-"},
           Case{"sender-addr-in [ann@example.org] x", "-", "<@relay:ann@example.org>"},
           Case{"sender-addr-in [<>] x", "x", "<>"},
           Case{"acct-uid-in [Bob] [Ann] x", "x"},
           Case{"acct-uid-in [Remote] x", "x", "<Bob@Elsewhere.example>"},
           Case{"acct-uid-in [] x", "-", "<nobody@example.org>"},
           Case{"always x", "x"},
           Case{"subscribing-self x", "-", "<>", kAuth},
           Case{"subscribing-self x", "x", "<>", kSelf},
           Case{"auth-provided x", "-", "<>", kSelf},
           Case{"auth-provided x", "x", "<>", kAuth},
           Case{"remote-user x", "-"},
           Case{"remote-user x", "-", "<nobody@LOCAL.example>"},
           Case{"remote-user x", "x", "<nobody@example.org>"},
           Case{"remote-user x", "x", "<bob@elsewhere.example>"},
           Case{"nonsense x", "-"},
           Case{"not [always] x", "-"},
           Case{"not [nonsense] x", "x"},
           Case{"not x", "x"},
           Case{"not [acct-uid-in] [Ann] x", "-"},
           Case{"not [not] [always] x", "x"},
       }) {
    EXPECT_EQ(Outcome(c.pattern, c.sender, c.flags), c.outcome) << c.pattern << " for " << c.sender;
  }
}

TEST_F(PatternTest, FirstRuleThatHoldsDecides) {
  EXPECT_EQ(Outcome("never a always b [1] [] [xyz always c"), "b 1  xy");
  EXPECT_EQ(Outcome("never [always] [b] a"), "-");
  EXPECT_EQ(Outcome("always"), "") << "a test at the end has an empty action";
  EXPECT_EQ(Outcome("[always] a always b"), "b") << "the first token is a test's name, whatever it looks like";
  EXPECT_EQ(Outcome("always [ ["), "") << "a lone bracket is an empty argument";
  EXPECT_EQ(static_cast<SStringList>(SAccountPattern()).Length(), 0);
}

TEST_F(PatternTest, SetReplacesAndAFailedMatchKeepsTheLast) {
  SAccountMatchInfo info{S821Address("<ann@example.org>")};
  SAccountPattern rules(Tokens("auth-provided a"));
  rules.AddPattern(kPatternAlways, SStringList(), "b", SStringList(), 1);
  rules.AddPattern("not", Tokens("always"), "c", SStringList());
  EXPECT_EQ(rules.Match(info), 0U);
  info.SetAuthProvided(1);
  EXPECT_EQ(rules.Match(info), 1U);
  info.SetAuthProvided(0);
  EXPECT_EQ(rules.Match(info), 0U);
  EXPECT_EQ(List(rules), Texts{"a"});
  rules.Set(Tokens("never d"));
  EXPECT_EQ(List(rules), Texts{}) << "nothing is left of the old rules";
  for (int i = 0; i < 100; ++i) rules.AddPattern("never", SStringList(), "e", SStringList());
  rules.AddPattern("always", SStringList(), "f", "g");
  EXPECT_EQ(rules.Match(info), 1U);
  EXPECT_EQ(List(rules), (Texts{"f", "g"}));
}

TEST_F(PatternTest, AccountIsLookedUpOnceAndOnlyWhenATestNeedsIt) {
  SAccountMatchInfo info{S821Address("<late@example.org>")};
  EXPECT_EQ(SAccountPattern(Tokens("sender-addr-in [x] a always b")).Match(info), 1U);
  Put("Late", kAttrSmtpAddress, "late@example.org");
  EXPECT_EQ(Text(info.GetAccountUID()), "Late") << "not looked up before";
  SAccountDBMod().DeleteAccount("Late");
  EXPECT_EQ(Text(info.GetAccountUID()), "Late") << "one decision sees one state";
}
