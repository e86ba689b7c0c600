#include <sys/stat.h>

#include <string>

#include "brenthaven/regex/sperlregex.h"
#include "brenthaven/text/sstringlist.h"
#include "tests/support/scratch.h"

namespace {

struct Outcome {
  SString selected;
  SString rest;
  SString list;
  std::string told;
};

Outcome GrepOn(SStringList list, char const *expression) {
  SStringList rest{"old"};
  ::testing::internal::CaptureStderr();
  SStringList const selected = list.Grep(expression, &rest);
  return {selected.Join(","), rest.Join(","), list.Join(","), ::testing::internal::GetCapturedStderr()};
}

TEST(GrepTest, TestsSelectItems) {
  struct {
    char const *expression;
    char const *selected;
    char const *rest;
    char const *list;
  } const cases[] = {
      {"/x/", "x,xX", "y,X", "x,y,X,xX"},     {"!/x/", "y,X", "x,xX", "x,y,X,xX"},
      {" ! !/x/", "x,xX", "y,X", "x,y,X,xX"}, {"/x/i", "x,X,xX", "y", "x,y,X,xX"},
      {"m,^x$,", "x", "y,X,xX", "x,y,X,xX"},  {"/^x$", "x", "y,X,xX", "x,y,X,xX"},
      {"s/x/b/", "b,bX", "y,X", "b,y,X,bX"},  {"s/x/<$&>/gi", "<x>,<X>,<x><X>", "y", "<x>,y,<X>,<x><X>"},
      {"!s/x/b/", "y,X", "b,bX", "b,y,X,bX"}, {"s#x", ",X", "y,X", ",y,X,X"},
  };
  for (auto const &row : cases) {
    Outcome const got = GrepOn({"x", "y", "X", "xX"}, row.expression);
    EXPECT_TRUE(got.selected == row.selected) << row.expression << ": " << got.selected;
    EXPECT_TRUE(got.rest == row.rest) << row.expression << ": " << got.rest;
    EXPECT_TRUE(got.list == row.list) << row.expression << ": " << got.list;
    EXPECT_EQ(got.told, "") << row.expression;
  }
}

TEST(GrepTest, DelimitersMayStandInAPatternBehindABackslash) {
  EXPECT_TRUE(GrepOn({"a/b", "ab"}, "/a\\/b/").selected == "a/b");
}

TEST(GrepTest, ChangedItemsDoNotReachSharers) {
  SStringList list{"aa", "c"};
  SStringList const kept = list;
  EXPECT_TRUE(list.Grep("s/a/b/g", nullptr) == SStringList("bb"));
  EXPECT_TRUE(list == (SStringList{"bb", "c"}));
  EXPECT_TRUE(kept == (SStringList{"aa", "c"}));
}

TEST(GrepTest, WhatMakesNoSenseIsTold) {
  struct {
    char const *expression;
    char const *told;
  } const cases[] = {
      {"", "Grep called without a valid test field."},      {" !", "Grep called without a valid test field."},
      {"-", "Grep called without a valid test field."},     {"/a\\", "Incomplete expression in Grep function call"},
      {"m", "Incomplete expression in Grep function call"},
  };
  for (auto const &row : cases) {
    Outcome const got = GrepOn({"a"}, row.expression);
    EXPECT_EQ(got.told, std::string(row.told) + "\nThe test field for Grep was '" + row.expression + "'\n");
    EXPECT_FALSE(got.selected.Defined());
    EXPECT_FALSE(got.rest.Defined());
  }
  Outcome const got = GrepOn({"a", "b"}, "q/a/");
  EXPECT_EQ(got.told, "Unknown test type for Grep function\nThe test field for Grep was 'q/a/'\n");
  EXPECT_TRUE(got.selected == "a") << "the scan goes on behind what it does not know";
  EXPECT_EQ(GrepOn({"a"}, "-q").told, "Grep: invalid file test\n");
}

TEST(GrepTest, TheFormForAnExpressionTakesBothSides) {
  SStringList const list{"a", "b", "ab"};
  EXPECT_TRUE(list.Grep(SPerlRegex("a")) == (SStringList{"a", "ab"}));
  EXPECT_TRUE(list.Grep(SPerlRegex("a"), 0) == SStringList("b"));
  EXPECT_EQ(list.Grep(SRegex(), 0).Length(), 0);
  EXPECT_EQ(SStringList().Grep("/a/").Length(), 0);
}

class GrepFileTest : public ScratchSpool {};

TEST_F(GrepFileTest, ItemsAreTakenAsPaths) {
  PutFile("file", "text");
  SString const file = Path("file").c_str();
  SString const directory = Path("messages").c_str();
  SString const missing = Path("missing").c_str();
  struct {
    char const *test;
    SString selected;
  } const cases[] = {{"-d", directory}, {"-e", file + "," + directory}, {"-f", file}, {"-r", file}, {"-w", file},
                     {"!-e", missing}};
  for (auto const &row : cases) {
    SString const got = GrepOn({file, directory, missing}, row.test).selected;
    EXPECT_TRUE(got == row.selected) << row.test << ": " << got;
  }
}

}  // namespace
