#include "brenthaven/regex/sregex.h"

#include <gtest/gtest.h>
#include <locale.h>

#include <string>

namespace {

using std::literals::operator""sv;

// The groups of the match, "start-end" each, or "none".
std::string Groups(std::string_view expression, std::string_view text, char const *flags = "", int start = 0) {
  SRegex const regex(SString(expression), flags);
  if (!regex.OK()) return "broken";
  SStringList const list = regex.Match(SString(text), start);
  if (list.Length() == 0) return "none";
  std::string groups;
  for (int i = 0; i < list.Length(); ++i)
    groups += std::to_string(regex.MatchInfo(i).start) + "-" + std::to_string(regex.MatchInfo(i).end) + " ";
  groups.pop_back();
  return groups;
}

TEST(RegexTest, MatchesAreLeftmostAndLongest) {
  struct {
    std::string_view expression;
    std::string_view text;
    char const *want;
    char const *why;
  } const cases[] = {
      {"abcd|bc", "xabcd", "1-5", "the earlier start wins over the earlier end"},
      {"a|ab|abc", "abcd", "0-3", "the longest alternative, not the first"},
      {"b?.(bb?)", "cbbb", "0-3 1-3", "a later start with a longer match loses"},
      {"a*", "baa", "0-0", "an empty match in front of a longer one"},
      {"(a*)(ab)*(b*)", "abb", "0-3 0-1 -1--1 1-3", "groups are eager from the left"},
      {"(a(b)?)+", "aba", "0-3 2-3 1-2", "groups report the last time they were passed"},
      {"([^a](a?b{2}|.+a)?|(a+|b.?)bc)?", "acbacbc", "0-0 -1--1 -1--1 -1--1", "nothing fits at the front"},
      {"x{0}y", "xy", "1-2", "a bound of nothing"},
      {"(ab){2,3}", "ababababab", "0-6 4-6", "a bound takes its most"},
      {"(ab){2,}", "ababababab", "0-10 8-10", "an open bound takes all"},
      {"a{1,2}{", "aa{", "0-3", "a brace without a digit is a byte"},
      {"()", "x", "0-0 0-0", "an empty group"},
      {"a||b", "xb", "0-0", "an empty alternative"},
      {"(|a)+b", "aab", "0-3 1-2", "a repeated part that can be empty"},
      {"^b|c$", "abc", "2-3", "anchors of alternatives"},
      {"^^b$$", "b", "0-1", "doubled anchors"},
      {"(^|,)b(,|$)", "a,b", "1-3 1-2 3-3", "anchors in groups"},
      {"a$", "ba\n", "none", "a newline is no end"},
      {"a.c", "a\0c"sv, "0-3", "a dot takes NUL"},
      {"\0+"sv, "a\0\0"sv, "1-3", "NUL in the expression"},
      {"\xe9", "x\xe9", "1-2", "bytes above ASCII"},
      {"[\xe0-\xff]+", "\xdf\xe0\xff", "1-3", "a range of them"},
      {"\\(\\1\\x\\<\\*", "(1x<*", "0-5", "a backslash makes any byte plain"},
      {"[]a]+", "b]a]", "1-4", "a bracket that begins with its end"},
      {"[^]a]", "]ab", "2-3", "the same, negated"},
      {"[a\\]+]", "\\a]", "0-3", "a backslash is a byte of the bracket"},
      {"[a-]+[-a]+", "-a-", "0-3", "hyphens at the edges"},
      {"[[:digit:][:upper:]_]+", "a1B_c", "1-4", "classes"},
      {"[[.-.]-/]+", "a-./b", "1-4", "a byte as a collating element"},
      {"[[:<:]]cat[[:>:]]", "concat cat's", "7-10", "words"},
      {"[[:>:]]", "ab", "2-2", "the end of a word at the end of the text"},
  };
  for (auto const &row : cases)
    EXPECT_EQ(Groups(row.expression, row.text), row.want) << row.expression << ": " << row.why;
}

TEST(RegexTest, CaseIsIgnoredForAsciiAlone) {
  EXPECT_EQ(Groups("sub[J-K]ect", "SUBJECT", "i"), "0-7");
  EXPECT_EQ(Groups("[^a]", "A", "i"), "none");
  EXPECT_EQ(Groups("\xe9", "\xc9", "i"), "none");
  EXPECT_EQ(Groups("abc", "ABC", "xg"), "none");
}

TEST(RegexTest, TheLocaleOfTheProcessPlaysNoPart) {
  if (setlocale(LC_ALL, "C.UTF-8") == nullptr) GTEST_SKIP() << "no UTF-8 locale here";
  EXPECT_EQ(Groups("^.$", "\xc3\xa9"), "none") << "two bytes";
  EXPECT_EQ(Groups("[^a]", "\xff"), "0-1");
  EXPECT_EQ(Groups("\xc3[\x80-\xbf]", "\xc3\xa9"), "0-2");
}

TEST(RegexTest, SearchesFromAPlaceSeeWhatIsBeforeIt) {
  EXPECT_EQ(Groups("^b", "ab", "", 1), "none");
  EXPECT_EQ(Groups("^", "ab", "", 0), "0-0");
  EXPECT_EQ(Groups("[[:<:]]a", "aaa", "", 1), "none");
  EXPECT_EQ(Groups("[[:<:]]a", "-a", "", 1), "1-2");
  EXPECT_EQ(Groups("(b)(c)?", "bab", "", 1), "2-3 2-3 -1--1");
  EXPECT_EQ(Groups("b$", "ab", "", 2), "none");
  EXPECT_EQ(Groups("$", "ab", "", 2), "2-2");
  EXPECT_EQ(Groups("a", "a", "", 2), "none");
  EXPECT_EQ(Groups("a", "a", "", -1), "none");
}

TEST(RegexTest, BrokenExpressionsAreRefused) {
  for (std::string_view expression :
       {""sv,   "*a"sv, "a**"sv, "a*?"sv,   "(?i)a"sv,      "a|*"sv,       "^*"sv,
        "(a"sv, "a)"sv, "a{1"sv, "a{1,2"sv, "a{2,1}"sv,     "a{256}"sv,    "a{1,999999999999}"sv,
        "[a"sv, "[]"sv, "[^]"sv, "[z-a]"sv, "[[:word:]]"sv, "[[:alpha]"sv, "[[.ab.]]"sv,
        "a\\"sv})
    EXPECT_EQ(Groups(expression, "a"), "broken") << expression;
  SRegex const never;
  EXPECT_FALSE(never.OK());
  EXPECT_EQ(never.HasMatch("a"), 0u);
  EXPECT_EQ(never.Match("a").Length(), 0);
  EXPECT_EQ(never.MatchInfo(0).start, -1);
  SString text("a");
  EXPECT_EQ(SRegex("(").Subst(text, "b").Length(), 0);
  EXPECT_TRUE(text == "a");
}

TEST(RegexTest, SizeAndWorkAreBounded) {
  EXPECT_EQ(Groups("((a{255}){255}){255}", "a"), "broken");
  EXPECT_EQ(Groups("(.{0,90}){90}", "a"), "broken");
  EXPECT_EQ(Groups(std::string(300, '(') + "a" + std::string(300, ')'), "a"), "broken");
  EXPECT_EQ(Groups(std::string(25000, 'a') + "*", "a"), "broken");
  std::string const text(2000, 'a');
  for (char const *expression : {"(a*)*b", "(a|a)*b", "(a|aa)+b", "(.*)(.*)(.*)(.*)b", "(a?){60}a{60}b"})
    EXPECT_EQ(Groups(expression, text), "none") << expression;
  std::string words;
  for (int i = 0; i < 900; ++i) words += "word" + std::to_string(i) + "|";
  EXPECT_EQ(Groups(words + "x", "a word899"), "2-9") << "a long list of words is no trouble";
}

TEST(RegexTest, OffsetsAreThoseOfTheLastRun) {
  SRegex const regex("(b)|c");
  EXPECT_NE(regex.HasMatch("abc"), 0u);
  EXPECT_EQ(regex.MatchPos(), 1);
  EXPECT_EQ(regex.MatchLen(), 1);
  EXPECT_EQ(regex.MatchInfo(1).end, 2);
  EXPECT_EQ(regex.MatchInfo(2).start, -1);
  EXPECT_EQ(regex.MatchInfo(-1).start, -1);
  EXPECT_NE(regex.HasMatch("abc", 2), 0u);
  EXPECT_EQ(regex.MatchInfo(1).start, -1);
  EXPECT_EQ(regex.HasMatch("x"), 0u);
  EXPECT_EQ(regex.MatchPos(), -1);
}

TEST(RegexTest, TheTenthGroupIsAlwaysEmpty) {
  SStringList const list = SRegex("(a)(b)(c)(d)(e)(f)(g)(h)(i)(j)").Match("abcdefghij");
  EXPECT_EQ(list.Length(), 11);
  EXPECT_TRUE(list.Get(9) == "i");
  EXPECT_TRUE(list.Get(10).Defined() && list.Get(10) == "");
}

TEST(RegexTest, DebugTellsTheState) {
  auto const told = [](SRegex const &regex) {
    ::testing::internal::CaptureStderr();
    regex.Debug();
    return ::testing::internal::GetCapturedStderr();
  };
  SRegex regex;
  EXPECT_EQ(told(regex), "SRegex was never compiled\n");
  regex.Set("a");
  EXPECT_EQ(told(regex), "SRegex is OK\n");
  regex.Set("(");
  EXPECT_EQ(told(regex), "SRegex didn't compile because of the following reason:parentheses not balanced\n");
}

TEST(SubstTest, ReplacementsAreExpanded) {
  struct {
    char const *expression;
    SString text;
    SString replacement;
    char const *flags;
    SString want;
  } const cases[] = {
      {"b", "abab", "x", "", "axab"},
      {"b", "abab", "x", "g", "axax"},
      {"(a)(b)", "ab", "$2\\1[$&]", "", "ba[ab]"},
      {"(a)(c)?", "ab", "[$2$9]", "", "[]b"},
      {"a", "ab", "\\n\\0\\$\\\\\\q", "", SString("\n\0$\\qb", 6)},
      {"x*", "abc", "-", "g", "-abc"},
      {"a", "abc", "$0x", "", "$xbc"},
      {"a", "aba", "x$", "g", "b"},
      {"a", "a", "x\\", "", ""},
      {"^a", "aaa", "b", "g", "baa"},
      {"z", "abc", "y", "g", "abc"},
      {"a+", "aabaa", "$&$&", "g", "aaaabaaaa"},
  };
  ::testing::internal::CaptureStderr();
  for (auto const &row : cases) {
    SString text = row.text;
    SRegex(row.expression).Subst(text, row.replacement, row.flags);
    EXPECT_TRUE(text == row.want) << row.expression << " on " << row.text << " gave " << text;
  }
  std::string const told = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(told.find("Unescaped '$' in regular expression replacement string"), std::string::npos);
  EXPECT_NE(told.find("Invalid replacement string in regular expression"), std::string::npos);
}

TEST(SubstTest, ResultIsTheLastMatch) {
  SString text("a1b2");
  EXPECT_TRUE(SRegex("([a-z])([0-9])").Subst(text, "-", "g") == (SStringList{"b2", "b", "2"}));
  EXPECT_TRUE(text == "--");
  EXPECT_EQ(SRegex("z").Subst(text, "-", "g").Length(), 0);
}

}  // namespace
