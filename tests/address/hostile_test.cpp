// Inputs of a megabyte that a parser with recursion or with a hidden square would not survive: the time limit of the
// test, which each of them has for itself, stands for "linear".
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "brenthaven/address/parser822.h"

namespace {

constexpr int kSize = 1 << 20;

SString Repeated(std::string const &unit, std::string const &front = "", std::string const &back = "") {
  std::string text = front;
  while (text.size() < kSize) text += unit;
  text += back;
  return SString(text.data(), static_cast<int>(text.size()));
}

struct Hostile {
  char const *name;
  char const *front;
  char const *unit;  // repeated to a megabyte
  char const *back;
  int want;  // whether the address is valid; for a list the number of addresses
};

void PrintTo(Hostile const &input, std::ostream *out) { *out << input.name; }
std::string NameOf(testing::TestParamInfo<Hostile> const &info) { return info.param.name; }

class HostileEnvelope : public testing::TestWithParam<Hostile> {};

TEST_P(HostileEnvelope, TakesAMegabyte) {
  Hostile const &input = GetParam();
  EXPECT_EQ(S821Address(Repeated(input.unit, input.front, input.back)).IsValid(), static_cast<unsigned>(input.want));
}

INSTANTIATE_TEST_SUITE_P(
    Inputs, HostileEnvelope,
    testing::Values(Hostile{"Route", "<", "@a,", "@b:jo@c>", 1}, Hostile{"BrokenRoute", "<", "@a,", ":jo@c>", 0},
                    Hostile{"LeftAngles", "", "<", "", 0}, Hostile{"RightAngles", "", ">", "", 0},
                    Hostile{"DottedDomain", "x@", "a.", "b", 1}, Hostile{"DottedLocalPart", "", "a.", "b@x", 1},
                    Hostile{"Escapes", "\"", "\\\"", "\"@x", 1}, Hostile{"OpenQuote", "\"", "\\\"", "", 0},
                    Hostile{"BlanksInLiteral", "x@[", " ", "1.2.3.4]", 1},
                    Hostile{"DigitsInLiteral", "x@[", "1", "]", 0}),
    NameOf);

class HostileList : public testing::TestWithParam<Hostile> {};

TEST_P(HostileList, TakesAMegabyte) {
  Hostile const &input = GetParam();
  EXPECT_EQ(S822Parser(Repeated(input.unit, input.front, input.back)).Addresses().Length(), input.want);
}

INSTANTIATE_TEST_SUITE_P(
    Inputs, HostileList,
    testing::Values(Hostile{"Names", "", "a,", "", kSize / 2},
                    Hostile{"OpenCommentsSpoilWhatTheyFollow", "a@b ", "(", "", 0},
                    Hostile{"Comments", "", "()", "a@b", 1}, Hostile{"Folds", "", "\r\n ", "a@b", 1},
                    Hostile{"LongFold", "a\r\n", " ", "\r\n @b", 1}, Hostile{"Colons", "", "a:", "", 0},
                    Hostile{"Groups", "", "g:;", "a@b", 1}, Hostile{"Route", "<", "@r,", "@s:a@b>", 1},
                    Hostile{"Phrase", "", "word ", "<a@b>", 1}, Hostile{"Quotes", "", "\"", "<a@b>", 1},
                    Hostile{"LeftAngles", "", "<", "a@b", 1}, Hostile{"DottedDomain", "x@", "a.", "b", 1}),
    NameOf);

TEST(HostileAddresses, CommentsNestAMillionDeep) {
  EXPECT_EQ(S822Parser(Repeated("(", "", std::string(kSize, ')') + "a@b")).Addresses().Length(), 1);
  EXPECT_TRUE(S821Address(SString('\0', kSize)).IsBad());
}

TEST(HostileAddresses, ALongRouteIsKeptWhole) {
  EXPECT_EQ(S821Address(Repeated("@a,", "<", "@b:jo@c>")).Route().Length(), (kSize + 1) / 3 + 1);
}

TEST(HostileAddresses, MendingTakesAMegabyte) {
  EXPECT_EQ(FixBogusAddress(Repeated("@")), "<>");
  EXPECT_EQ(FixBogusAddress(Repeated(" ")), "<>");
  EXPECT_EQ(FixBogusAddress(Repeated("<>")), "<>");
  EXPECT_EQ(FixBogusAddress(Repeated(" .", "x@a", "b")), "<x@a.b>");
  EXPECT_EQ(FixBogusAddress(Repeated("@ ", "a", "-")), "<>");
}

TEST(HostileAddresses, EveryPairOfBytesIsRead) {
  for (int a = 0; a < 256; ++a)
    for (int b = 0; b < 256; ++b) {
      char const text[] = {static_cast<char>(a), static_cast<char>(b), 'x', '@', 'y'};
      SString const input(text, sizeof text);
      SString const printed = S821Address(input).Address();
      if (printed.Length() > 2) {
        EXPECT_EQ(S821Address(printed).Address(), printed) << a << ' ' << b;
      }
      EXPECT_LE(S822Parser(input).Addresses().Length(), 3);
      EXPECT_GE(FixBogusAddress(input).Length(), 2);
    }
}

}  // namespace
