// The members of SString that take expressions.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "brenthaven/regex/cache.h"
#include "brenthaven/regex/sperlregex.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

namespace {

std::string Pieces(SStringList const &list) {
  if (!list.Defined()) return "undefined";
  std::string text;
  for (SString const &piece : list) text += "<" + std::string(piece.View()) + ">";
  return text;
}

TEST(MatchFormsTest, EachFormGivesTheGroups) {
  SString const text("To: someone@example.org");
  EXPECT_TRUE(text.M("^(\\S+):\\s*(.*)") == (SStringList{"To: someone@example.org", "To", "someone@example.org"}));
  EXPECT_EQ(text.M(SString("^to:"), "i").Length(), 1);
  EXPECT_EQ(text.M("^to:").Length(), 0);
  EXPECT_TRUE(text.HasMatch("@") && !text.HasMatch("#") && text.HasMatch(SPerlRegex("org$")));
}

TEST(SubstituteFormsTest, TheEmptyExpressionFillsTheGaps) {
  struct {
    SString text;
    char const *flags;
    char const *want;
  } const cases[] = {{"abc", "g", "-a-b-c-"}, {"abc", "", "-abc"}, {"", "g", "-"}, {SString(), "", "-"}};
  for (auto const &row : cases) {
    SString text = row.text;
    EXPECT_EQ(Pieces(text.S("", "-", row.flags)), "<>");
    EXPECT_TRUE(text == row.want) << text;
    text = row.text;
    EXPECT_EQ(Pieces(text.S(SString(), "-", row.flags)), "<>");
    EXPECT_TRUE(text == row.want) << text;
  }
}

TEST(SubstituteFormsTest, JapaneseReplacementsKeepTheirDollars) {
  struct {
    SString replacement;
    SString want;
  } const cases[] = {
      {"\x1b$B$3$s\x1b(B", "[\x1b$B$3$s\x1b(B]"},
      {"$1\x1b$B$1\x1b(B$1", "[x\x1b$B$1\x1b(Bx]"},
      {"\x1b$B$1\x1b(B and \x1b$B$2\x1b(B", "[\x1b$B$1\x1b(B and \x1b$B$2\x1b(B]"},
  };
  for (auto const &row : cases) {
    SString text("[x]");
    text.S("(x)", row.replacement);
    EXPECT_TRUE(text == row.want) << text;
  }
}

TEST(SplitTest, PiecesFollowTheSeparators) {
  struct {
    char const *text;
    char const *expression;
    int limit;
    char const *want;
    char const *why;
  } const cases[] = {
      {"a, b,c", ",\\s*", 0, "<a><b><c>", "plain"},
      {",a", ",", 0, "<><a>", "an empty piece in front is kept"},
      {"a,", ",", 0, "<a>", "none at the end"},
      {"a,,b", ",", 0, "<a><><b>", "one in between"},
      {",,", ",", 0, "<><>", "only separators"},
      {"a,b,c", ",", 2, "<a><b,c>", "a limit"},
      {",a,b", ",", 2, "<><a><b>", "the empty piece in front does not count"},
      {"a,b", ",", 1, "<a,b>", "a limit of one"},
      {"abc", "x*", 0, "<a><b><c>", "empty matches"},
      {"axxb", "x*", 0, "<a><b>", "empty matches and others"},
      {"abc", "", 0, "<a><b><c>", "single characters"},
      {"abc", "", 2, "<a><bc>", "single characters and the rest"},
      {"abc", "", 3, "<a><b><c>", "as many as there are"},
      {"", ",", 0, "", "nothing"},
      {"abc", "$", 0, "<abc>", "a match at the very end"},
      {"abc", "^", 0, "<bc>", "an empty match with no other behind it costs a byte"},
      {"abc", "(", 0, "undefined", "a broken expression"},
  };
  ::testing::internal::CaptureStderr();
  for (auto const &row : cases) {
    EXPECT_EQ(Pieces(SString(row.text).Split(row.expression, row.limit)), row.want) << row.why;
    EXPECT_EQ(Pieces(SString(row.text).Split(SString(row.expression), row.limit)), row.want) << row.why;
  }
  ::testing::internal::GetCapturedStderr();
  EXPECT_FALSE(SString().Split("").Defined());
}

TEST(SplitTest, OneCharacterIsTakenAsItIsAndABlankAsWhiteSpace) {
  EXPECT_EQ(Pieces(SString("  a b").Split(' ')), "<a><b>");
  EXPECT_EQ(Pieces(SString("a \t\r\n b ").Split(' ')), "<a><b>");
  EXPECT_EQ(Pieces(SString("  ").Split(' ')), "<>");
  EXPECT_EQ(Pieces(SString(" a b c").Split(' ', 2)), "<a><b c>");
  EXPECT_EQ(Pieces(SString(",a").Split(',')), "<><a>");
  EXPECT_EQ(Pieces(SString("a,").Split(',')), "<a>");
  for (char const c : std::string("$()*+.?[\\]^{|}/-d")) {
    SString const text = (SString("x") + c) + "y";
    EXPECT_EQ(Pieces(text.Split(c)), "<x><y>") << c;
    EXPECT_EQ(Pieces(SString("xyz").Split(c)), "<xyz>") << c;
  }
}

// The form for one character works without an engine; it must split as an expression would.
TEST(SplitTest, OneCharacterSplitsAsItsExpressionDoes) {
  for (int bits = 0; bits < 729; ++bits) {
    SString text("");
    for (int left = bits; left > 0; left /= 3) text += ",a "[left % 3];
    for (int limit = 0; limit < 4; ++limit) {
      EXPECT_EQ(Pieces(text.Split(',', limit)), Pieces(text.Split(SPerlRegex(","), limit))) << text;
      SStringList words = text.Split(SRegex("[ \t\r\n]+"), limit);
      if (words.Length() > 1 && words.Get(0).Length() == 0) words.Shift();
      EXPECT_EQ(Pieces(text.Split(' ', limit)), Pieces(words)) << text << "|" << limit;
    }
  }
}

TEST(CacheTest, TheSameTextIsCompiledOnce) {
  SRegex const *first = &CachedRegex("a+b", "");
  EXPECT_EQ(&CachedRegex("a+b", "g"), first) << "g plays no part in compiling";
  EXPECT_NE(&CachedRegex("a+b", "i"), first);
  for (int i = 0; i < 1000; ++i) {
    EXPECT_NE(CachedRegex("x" + MakeSString(i) + "y?", "").HasMatch("x" + MakeSString(i)), 0u);
    (void)CachedRegex("a+b", "");
  }
  EXPECT_EQ(&CachedRegex("a+b", ""), first) << "what is used stays";
}

}  // namespace
