#include "brenthaven/text/sstring.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <climits>
#include <sstream>
#include <string>
#include <vector>

#include "brenthaven/text/sstringlist.h"

namespace {

std::vector<std::string> Texts(SStringList const &list) {
  std::vector<std::string> texts;
  for (SString const &text : list) texts.emplace_back(text.View());
  return texts;
}

using Strings = std::vector<std::string>;

TEST(SStringTest, UndefinedAndEmptyDifferOnlyInBeingDefined) {
  SString const undefined;
  SString const empty("");
  EXPECT_FALSE(undefined.Defined());
  EXPECT_TRUE(empty.Defined());
  EXPECT_TRUE(SString(static_cast<char const *>(nullptr)).Defined());
  EXPECT_TRUE(undefined == "" && empty == static_cast<char const *>(nullptr) && undefined == empty);
  EXPECT_EQ(undefined.AsPtr(), nullptr);
  EXPECT_STREQ(undefined, "");
  EXPECT_FALSE(undefined.Clone().Defined());
}

TEST(SStringTest, ConstructorsTakeCountsAndNumbers) {
  EXPECT_EQ(SString("a\0b", 3).Length(), 3);
  EXPECT_EQ(SString("abc", -1).Length(), 0);
  EXPECT_TRUE(SString("abc", -1).Defined());
  EXPECT_TRUE(SString(nullptr, 2) == SString("\0\0", 2));
  EXPECT_TRUE(SString('x', 3) == "xxx");
  EXPECT_TRUE(SString(-12) == "-12");
  EXPECT_TRUE(SString(1234567890123L) == "1234567890123");
  EXPECT_TRUE(SString(0.1) == "0.1");
  EXPECT_TRUE(SString(0.5f) == "0.5");
  EXPECT_TRUE(MakeSString(1.0 / 3) == "0.3333333333333333");
}

TEST(SStringTest, NumbersAreReadAsFarAsTheyGo) {
  struct {
    char const *text;
    long want;
  } const cases[] = {{"12.9", 12},       {"-12.9", -12},      {"x", 0},  {"", 0}, {" 7 apples", 7}, {"1e3", 1000},
                     {"1e30", LONG_MAX}, {"-1e30", LONG_MIN}, {"nan", 0}};
  for (auto const &row : cases) EXPECT_EQ(SString(row.text).AsLong(), row.want) << row.text;
  EXPECT_EQ(SString().AsLong(), 0);
  EXPECT_FLOAT_EQ(SString("2525").AsReal(), 2525.0f);
  SFixedString const window("12345", 2);
  EXPECT_EQ(SString(window).AsLong(), 12) << "digits behind the window were read";
}

TEST(SStringTest, IndexCountsFromBothEndsAndIsHarmlessOutside) {
  SString const text("abc");
  EXPECT_EQ(text[-1], 'c');
  EXPECT_EQ(text[2], 'c');
  EXPECT_EQ(text[3], '\0');
  EXPECT_EQ(text[-4], '\0');
}

TEST(SStringTest, OrderIsUnsignedAndTheShorterIsLess) {
  EXPECT_TRUE(SString("a") < SString("\xe9"));
  EXPECT_TRUE(SString("ab") < SString("abc"));
  EXPECT_TRUE(SString("") < SString("\0", 1));
  EXPECT_FALSE(SString("a") < static_cast<char const *>(nullptr));
  EXPECT_TRUE(SString("b") >= "abc");
  EXPECT_EQ(SString::StrCaseCmp("ABC", "abc"), 0);
  EXPECT_GT(SString::StrCmp("abc", "ABC"), 0);
}

TEST(SStringTest, OrderAgainstAByteLooksAtTheFirstOne) {
  EXPECT_TRUE(SString() < 'a');
  EXPECT_FALSE(SString() > 'a');
  EXPECT_FALSE(SString("a") > 'a');
  EXPECT_TRUE(SString("ab") > 'a');
  EXPECT_TRUE(SString("\xe9") < 'a') << "the byte is signed here";
  EXPECT_TRUE(SString("a") == 'a');
  EXPECT_FALSE(SString("ab") == 'a');
}

TEST(SStringTest, CompareNoCaseIsAnEqualityTest) {
  EXPECT_EQ(SString("Subject:").CompareNoCase("SUBJECT:"), 1);
  EXPECT_EQ(SString("Subject:").CompareNoCase("Subject"), 0);
  EXPECT_EQ(SString("\xe9").CompareNoCase("\xc9"), 0) << "only ASCII letters have two cases";
}

TEST(SStringTest, SearchesGiveTheFirstAndTheLastPosition) {
  SString const text("abcabc");
  EXPECT_EQ(text.Index("bc"), 1);
  EXPECT_EQ(text.Index("bc", 2), 4);
  EXPECT_EQ(text.Index('a', 1), 3);
  EXPECT_EQ(text.Index("", 0), -1);
  EXPECT_EQ(text.Index("a", -1), -1);
  EXPECT_EQ(text.Index("a", 99), -1);
  EXPECT_EQ(text.RIndex("bc"), 4);
  EXPECT_EQ(text.RIndex("bc", 3), 1) << "from is the last allowed start";
  EXPECT_EQ(text.RIndex('c', -1), 5);
  EXPECT_EQ(text.RIndex('c', -2), 2);
  EXPECT_EQ(text.RIndex('c', -99), -1);
  EXPECT_EQ(text.RIndex(""), -1);
  EXPECT_EQ(SString("aaaa").Count("aa"), 3);
  EXPECT_EQ(SString("aaaa").Count(""), 0);
  EXPECT_EQ(SString("a\0b\0", 4).Count('\0'), 2);
  EXPECT_TRUE(text.HasPrefix("abc") && !text.HasPrefix("abcabcd") && text.HasPrefix(""));
}

TEST(SStringTest, AppendingNothingLeavesUndefinedAlone) {
  SString text;
  text += "";
  text += SString("");
  EXPECT_FALSE(text.Defined());
  text += 'a';
  EXPECT_TRUE(text == "a");
  text += text;
  text.Append(text.View());
  EXPECT_TRUE(text == "aaaa");
  EXPECT_TRUE("x" + text + 'y' == "xaaaay");
}

TEST(SStringTest, AppendOfItsOwnBytesSurvivesGrowth) {
  SString text("0123456789");
  for (int i = 0; i < 12; ++i) text.Append(text.View().substr(1));
  EXPECT_EQ(text.Length(), 9 * (1 << 12) + 1);
  EXPECT_EQ(text[-1], '9');
  SString shared = text;
  shared.Append(text.View().substr(0, 3));
  EXPECT_EQ(shared.Length(), text.Length() + 3);
}

TEST(SStringTest, ChangesNeverReachACopy) {
  SString const original("Hello");
  SString const kept = original;
  SString lower = original;
  lower.LowerCase();
  SString longer = original;
  longer += " there";
  SString shorter = original;
  EXPECT_EQ(shorter.Chop(), 'o');
  SString turned = original;
  turned.Reverse();
  SString cut = original;
  cut.Segment(0, 4) = SString("J");
  EXPECT_TRUE(original == "Hello" && kept == "Hello");
  EXPECT_TRUE(lower == "hello" && longer == "Hello there" && shorter == "Hell" && turned == "olleH" && cut == "Jo");
  EXPECT_TRUE(UpperCase(original) == "HELLO" && LowerCase(original) == "hello");
}

TEST(SStringTest, ChopOfNothingGivesNul) {
  SString text("a");
  EXPECT_EQ(text.Chop(), 'a');
  EXPECT_TRUE(text.Defined());
  EXPECT_EQ(text.Chop(), '\0');
}

TEST(SStringTest, SegmentIsCutToWhatThereIs) {
  SString const text("abcdef");
  struct {
    int offset;
    int length;
    char const *want;
  } const cases[] = {{1, 2, "bc"}, {4, 99, "ef"}, {-2, 4, "ab"},           {-2, 2, ""},     {6, 1, ""},
                     {0, 0, ""},   {2, -1, ""},   {-5, INT_MAX, "abcdef"}, {INT_MIN, 5, ""}};
  for (auto const &row : cases) {
    EXPECT_TRUE(text.Segment(row.offset, row.length) == row.want) << row.offset << "," << row.length;
    EXPECT_TRUE(text.Segment(row.offset, row.length).Defined());
    SString changing = text;
    EXPECT_TRUE(changing.Segment(row.offset, row.length) == row.want) << row.offset << "," << row.length;
  }
}

TEST(SStringTest, WindowReplacesWhatItCovers) {
  SString text("abcdef");
  text.Segment(1, 2) = SString("XY Z");
  EXPECT_TRUE(text == "aXY Zdef");
  text.Segment(99, 5) = text.Segment(0, 1);
  EXPECT_TRUE(text == "aXY Zdefa");
  text.Segment(0, 99) = SString("");
  EXPECT_TRUE(text.Defined() && text == "");
  SString undefined;
  EXPECT_FALSE(SString(undefined.Segment(0, 1)).Defined());
  undefined.Segment(3, 3) = SString("all");
  EXPECT_TRUE(undefined == "all");
}

TEST(SStringTest, SplitExactKeepsEmptyPieces) {
  EXPECT_EQ(Texts(SString("a\r\nb\r\n").SplitExact("\r\n")), (Strings{"a", "b", ""}));
  EXPECT_EQ(Texts(SString(",,").SplitExact(",")), (Strings{"", "", ""}));
  EXPECT_EQ(Texts(SString("a,b,c").SplitExact(",", 2)), (Strings{"a", "b,c"}));
  EXPECT_EQ(Texts(SString("a,b").SplitExact(",", 1)), (Strings{"a,b"}));
  EXPECT_EQ(Texts(SString("abc").SplitExact("")), (Strings{"a", "b", "c"}));
  EXPECT_EQ(Texts(SString("").SplitExact(",")), (Strings{""}));
  EXPECT_FALSE(SString().SplitExact(",").Defined());
}

TEST(SStringTest, BreakToWordsTakesQuotedTextAsOne) {
  EXPECT_EQ(Texts(SString("  one\ttwo \n three ").BreakToWords()), (Strings{"one", "two", "three"}));
  EXPECT_EQ(Texts(SString("a \"b c\" d").BreakToWords()), (Strings{"a", "\"b c", "d"}));
  EXPECT_EQ(Texts(SString("a \"b c").BreakToWords()), (Strings{"a", "\"b c"}));
  EXPECT_EQ(Texts(SString("   ").BreakToWords()), Strings{});
}

TEST(SStringTest, BuffersChangeHandsWithoutLosingTheNul) {
  char *buffer = static_cast<char *>(malloc(3));
  memcpy(buffer, "xyz", 3);
  SString text;
  text.UseBuffer(buffer, 3);
  EXPECT_STREQ(text, "xyz");
  EXPECT_EQ(text.AsPtr()[3], '\0');
  text += "!";
  EXPECT_STREQ(text, "xyz!");
  char *copy = text.GetBuf();
  EXPECT_STREQ(copy, "xyz!");
  free(copy);
}

TEST(SStringTest, FixedStringSharesItsBufferWithoutACopy) {
  char const buffer[] = "From: somebody";
  SFixedString const window(buffer, 5);
  SString shared = window;
  EXPECT_EQ(shared.AsPtr(), buffer);
  EXPECT_TRUE(shared == "From:");
  shared += "x";
  EXPECT_STREQ(buffer, "From: somebody");
  EXPECT_TRUE(shared == "From:x");
}

TEST(SStringDeathTest, FixedStringEndsTheProcessRatherThanDangle) {
  auto const outlive = [] {
    SString survivor;
    {
      SFixedString const window("abc", 3);
      survivor = window;
    }
  };
  EXPECT_EXIT(outlive(), ::testing::ExitedWithCode(110), "");
}

TEST(SStringTest, AGibibyteIsRefused) {
  EXPECT_FALSE(SString('x', 1 << 30).Defined());
  SString text('x', 1 << 29);
  SString const half = text;
  text += half;
  EXPECT_FALSE(text.Defined());
  EXPECT_FALSE((half + half).Defined());
  EXPECT_EQ(half.Length(), 1 << 29);
}

TEST(SStringTest, LinesAreReadWholeWhateverTheirLength) {
  for (int const length : {0, 1, 1021, 1022, 1023, 1024, 1025, 5000}) {
    std::string const line(static_cast<size_t>(length), 'x');
    std::istringstream in(line + "\n" + line + "\0end"[0]);
    SString text;
    EXPECT_TRUE(text.ReadLine(in)) << length;
    EXPECT_EQ(text.View(), line + "\n");
  }
  std::istringstream in(std::string("a\0b\nlast", 8));
  SString text;
  EXPECT_TRUE(text.ReadLine(in));
  EXPECT_EQ(text.Length(), 4);
  in >> text;
  EXPECT_TRUE(text == "last");
  EXPECT_FALSE(text.ReadLine(in));
  std::ostringstream out;
  out << SString("a\0b", 3);
  EXPECT_EQ(out.str().size(), 3u);
}

}  // namespace
