#include <gtest/gtest.h>

#include "brenthaven/address/address821.h"
#include "brenthaven/address/address822.h"

namespace {

struct Parts {
  char const *route;  // hosts separated by blanks, null for none
  char const *local;
  char const *domain;
  char const *printed;
  char const *kind;  // "bad", "null" or "valid"
  char const *why;
};

TEST(Addresses, PartsDecideWhatPrintsAndWhatIsBad) {
  Parts const table[] = {
      {nullptr, "", "", "<>", "null", "nothing at all is the null address"},
      {nullptr, "jo", "", "<jo>", "valid", "a local part needs no domain"},
      {nullptr, "jo", "example.org", "<jo@example.org>", "valid", "the common form"},
      {nullptr, "", "example.org", "", "bad", "a domain without a local part"},
      {"a.example", "", "", "", "bad", "a route to nobody"},
      {"a.example", "", "example.org", "", "bad", "a route to a host but no mailbox"},
      {"a.example", "jo", "", "", "bad", "a route has to lead to a domain"},
      {"a.example", "jo", "example.org", "<@a.example:jo@example.org>", "valid", "one hop"},
      {"a.example [10.0.0.1]", "jo", "b.example", "<@a.example,@[10.0.0.1]:jo@b.example>", "valid", "hops in order"},
      {"", "jo", "example.org", "<jo@example.org>", "valid", "a defined but empty route is none"},
      {"", "jo", "", "<jo>", "valid", "and does not ask for a domain"},
      {nullptr, "\"a b\"", "[10.0.0.1]", "<\"a b\"@[10.0.0.1]>", "valid", "printing quotes and checks nothing"},
  };
  for (Parts const &row : table) {
    SCOPED_TRACE(row.why);
    S821Address address;
    address.LocalPart() = row.local;
    address.Domain() = row.domain;
    if (row.route != nullptr) {
      address.Route() = SString(row.route).Split(' ');
      address.Route().Define();
    }
    EXPECT_EQ(address.Address(), row.printed);
    EXPECT_EQ(address.Get(), row.printed);
    SString const kind = row.kind;
    EXPECT_EQ(address.IsBad() != 0, kind == "bad");
    EXPECT_EQ(address.IsNull() != 0, kind == "null");
    EXPECT_EQ(address.IsValid() != 0, kind == "valid");
  }
}

TEST(Addresses, SetReplacesEverythingThatWasThere) {
  S821Address address("<@a.example:jo@example.org>");
  address.Set("ann");
  EXPECT_EQ(address.Get(), "<ann>");
  address.Set("<broken@@>");
  EXPECT_TRUE(address.IsBad());
  address.Set("<>");
  EXPECT_TRUE(address.IsNull());
}

TEST(Addresses, TextIsParsedLeniently) {
  EXPECT_EQ(S821Address("jo..doe.@example.org").Get(), "<jo..doe.@example.org>");
}

struct HeaderForm {
  char const *text821;
  char const *phrase;
  char const *comment;
  char const *want;
  char const *why;
};

TEST(Addresses, HeaderFormPutsPhraseInFrontAndCommentBehind) {
  HeaderForm const table[] = {
      {"<jo@example.org>", "", "", "jo@example.org", "bare: no brackets"},
      {"<jo@example.org>", "", "(Jo)", "jo@example.org (Jo)", "comment"},
      {"<jo@example.org>", "Jo Doe", "", "Jo Doe <jo@example.org>", "phrase: brackets stay"},
      {"<jo@example.org>", "Jo Doe", "(home)", "Jo Doe <jo@example.org> (home)", "both"},
      {"<@a.example:jo@example.org>", "", "", "<@a.example:jo@example.org>", "a route cannot stand without brackets"},
      {"<@a.example:jo@example.org>", "Jo", "(x)", "Jo <@a.example:jo@example.org> (x)", "route with both"},
      {"<>", "Mailer", "(x)", "<>", "the null address has no company"},
      {"<jo@>", "Jo", "(x)", "", "a bad address prints nothing"},
  };
  for (HeaderForm const &row : table) {
    SCOPED_TRACE(row.why);
    S822Address address = S821Address(row.text821);
    address.Phrase() = row.phrase;
    address.Comment() = row.comment;
    EXPECT_EQ(address.Address(), row.want);
    SIdentifier const &name = address;
    EXPECT_EQ(name.Get(), row.want) << "Get prints the form of the object's own class";
  }
}

TEST(Addresses, TakingOverAnEnvelopeAddressDropsPhraseAndComment) {
  S822Address address = S821Address("<jo@example.org>");
  address.Phrase() = "Jo";
  address.Comment() = "(x)";
  S822Address set = address;
  S822Address assigned = address;
  set.Set("<ann@example.org>");
  assigned = S821Address("<ann@example.org>");
  EXPECT_EQ(set.Get(), "ann@example.org");
  EXPECT_EQ(assigned.Get(), "ann@example.org");
  EXPECT_EQ(address.Get(), "Jo <jo@example.org> (x)");
}

}  // namespace
