#include "brenthaven/address/identifiers.h"

#include <gtest/gtest.h>

#include "brenthaven/address/address821.h"

namespace {

// The store overloads its look-ups on the kind of name, so no kind may turn into another.
int Kind(SAccountName const &) { return 1; }
int Kind(SGroupName const &) { return 2; }
int Kind(SPopName const &) { return 3; }
int Kind(S821Address const &) { return 4; }

TEST(Identifiers, TextIsNeitherFoldedNorChecked) {
  SString const odd("  Jo\r\nDoe <JO@> ", 16);
  SIdentifier *names[] = {new SAccountName(odd), new SGroupName(odd), new SPopName(odd)};
  for (SIdentifier *name : names) {
    EXPECT_EQ(name->Get(), odd);
    name->Set("MiXed");
    EXPECT_EQ(name->Get(), "MiXed");
    delete name;
  }
  EXPECT_FALSE(SAccountName().Get().Defined());
}

TEST(Identifiers, KindsAreTypesOfTheirOwn) {
  SString const text("jo");
  EXPECT_EQ(Kind(SAccountName(text)), 1);
  EXPECT_EQ(Kind(SGroupName(text)), 2);
  EXPECT_EQ(Kind(SPopName(text)), 3);
  EXPECT_EQ(Kind(S821Address(text)), 4);
}

}  // namespace
