#include "brenthaven/mime/linebreak.h"
#include "tests/support/texts.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(LineBreaker, EndsOfLines) {
  struct Row {
    std::string text;
    std::vector<std::string> whole;
    std::vector<std::string> chopped;
    char const *why;
  };
  Row const table[] = {
      {"", {}, {}, "no text, no line"},
      {"a", {"a"}, {"a"}, "the last line needs no end"},
      {"a\r\nb\nc", {"a\r\n", "b\n", "c"}, {"a", "b", "c"}, "both line ends"},
      {"a\r\n", {"a\r\n"}, {"a"}, "nothing behind the last end"},
      {"\r\n\n", {"\r\n", "\n"}, {"", ""}, "empty lines"},
      {"a\rb\n", {"a\rb\n"}, {"a\rb"}, "CR alone is a byte"},
      {"a\r\r\nb\r", {"a\r\r\n", "b\r"}, {"a\r", "b\r"}, "CR in front of CR LF, and at the end"},
      {"\n\r", {"\n", "\r"}, {"", "\r"}, "LF CR is no pair"},
      {std::string("a\0b\nc", 5), {std::string("a\0b\n", 4), "c"}, {std::string("a\0b", 3), "c"}, "NUL"},
  };
  for (Row const &row : table)
    for (unsigned int chop : {0U, 1U}) {
      SCOPED_TRACE(row.why);
      SLineBreaker breaker(Bytes(row.text), chop);
      SString line;
      for (std::string const &want : chop ? row.chopped : row.whole) {
        ASSERT_EQ(breaker.ReadLine(line), 1U);
        EXPECT_EQ(line, Bytes(want));
      }
      line = "left over";
      EXPECT_EQ(breaker.ReadLine(line), 0U);
      EXPECT_FALSE(line.Defined());
      EXPECT_EQ(breaker.GetCurrentOffset(), breaker.GetNextOffset());
    }
}

TEST(LineBreaker, OffsetsAndRemainderFollowTheLines) {
  SLineBreaker breaker("a\r\nb", 1);
  SString line;
  EXPECT_EQ(breaker.GetRemainder(), "a\r\nb");
  breaker.ReadLine(line);
  EXPECT_EQ(breaker.GetCurrentOffset(), 0);
  EXPECT_EQ(breaker.GetNextOffset(), 3);
  EXPECT_EQ(breaker.GetOffset(), 3);
  EXPECT_EQ(breaker.GetRemainder(), "b");
  breaker.SetAutoChop(0);
  breaker.ReadLine(line);
  EXPECT_EQ(breaker.GetCurrentOffset(), 3);
  EXPECT_EQ(breaker.GetRemainder(), "");
}

TEST(LineBreaker, LinesAndRemainderOutliveIt) {
  SString line;
  SString rest;
  {
    SLineBreaker breaker(SString("first\n") + "second", 1);
    breaker.ReadLine(line);
    rest = breaker.GetRemainder();
  }
  EXPECT_EQ(line, "first");
  EXPECT_EQ(rest, "second");
}

}  // namespace
