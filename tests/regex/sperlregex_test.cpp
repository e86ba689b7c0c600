#include "brenthaven/regex/sperlregex.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string ToldBy(SPerlRegex const &regex) {
  ::testing::internal::CaptureStderr();
  regex.Debug();
  return ::testing::internal::GetCapturedStderr();
}

TEST(PerlRegexTest, ClassesBecomePosix) {
  struct {
    char const *perl;
    char const *posix;
  } const cases[] = {
      {"a\\d\\D", "a[0-9][^0-9]"},
      {"\\s\\S", "[ \f\n\r\t\v][^ \f\n\r\t\v]"},
      {"\\w\\W\\N", "[A-Za-z_0-9][^A-Za-z_0-9][^\n]"},
      {"\\f\\n\\r\\t\\v", "\f\n\r\t\v"},
      {"[\\d\\s\\w\\n]", "[0-9 \f\n\r\t\vA-Za-z_0-9\n]"},
      {"\\(\\)\\.", "\\(\\)\\."},
      {"[]a][^]a][^\\.]", "[]a][^]a][^\\.]"},
      {"[[:<:]]a[[:>:]]", "[[:<:]]a[[:>:]]"},
  };
  for (auto const &row : cases) {
    SPerlRegex const regex(row.perl);
    EXPECT_TRUE(regex.OK()) << row.perl;
    EXPECT_EQ(ToldBy(regex), std::string("Perl Regex:    '") + row.perl + "'\nRegular Regex: '" + row.posix + "'\n");
  }
}

TEST(PerlRegexTest, BrokenExpressionsAreTold) {
  struct {
    char const *perl;
    char const *reason;
  } const cases[] = {
      {"(((((((((((", "Too many parenthesized elements in regular expression (maximum 10)."},
      {"a(", "Unmatched opening parenthesis in regular expression."},
      {"[a", "Unterminated range [...] in regular expression."},
      {")", "Unmatched closing parenthesis in regular expression."},
      {"]", "Unmatched closing bracket in regular expression."},
      {"[[:alpha:]]", "Unmatched closing bracket in regular expression."},
      {"[\\D]", "Special characters not allowed in a range (\\D, \\S, or \\W)"},
      {"a\\", "Regular expression terminated prematurely."},
      {"[a\\", "Regular expression terminated prematurely."},
  };
  for (auto const &row : cases) {
    ::testing::internal::CaptureStderr();
    SPerlRegex const regex(row.perl);
    std::string const told = ::testing::internal::GetCapturedStderr();
    EXPECT_FALSE(regex.OK()) << row.perl;
    EXPECT_EQ(told, std::string("Regular expression error -- compile aborted.  Reason:\n\t") + row.reason +
                        "\n\tThe erroneous expression is '" + row.perl + "'.\n");
  }
}

TEST(PerlRegexTest, EmptyExpressionIsRefusedWithoutAWord) {
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(SPerlRegex("").OK());
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST(PerlRegexTest, AFailedSetLeavesTheOldExpressionInForce) {
  ::testing::internal::CaptureStderr();
  SPerlRegex regex("a+");
  regex.Set("b(");
  EXPECT_TRUE(regex.OK());
  EXPECT_NE(regex.HasMatch("a"), 0u);
  regex.Set("b");
  EXPECT_EQ(regex.HasMatch("a"), 0u);
  regex.Set("b**");
  EXPECT_FALSE(regex.OK()) << "it translates, and then does not compile";
  ::testing::internal::GetCapturedStderr();
}

TEST(PerlRegexTest, TenGroupsAreAllowed) {
  EXPECT_TRUE(SPerlRegex("(a)(a)(a)(a)(a)(a)(a)(a)(a)(a)").OK());
  EXPECT_NE(SPerlRegex("\\((\\d+)\\)").HasMatch("f(12)"), 0u);
}

}  // namespace
