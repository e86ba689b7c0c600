// Inputs of a megabyte that a parser with recursion or with a hidden square would not survive: the time limit of the
// test stands for "linear".
#include <gtest/gtest.h>

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

TEST(HostileAddresses, EnvelopeParserTakesAMegabyte) {
  EXPECT_EQ(S821Address(Repeated("@a,", "<", "@b:jo@c>")).Route().Length(), (kSize + 1) / 3 + 1);
  EXPECT_TRUE(S821Address(Repeated("@a,", "<", ":jo@c>")).IsBad());
  EXPECT_TRUE(S821Address(Repeated("<")).IsNull());
  EXPECT_TRUE(S821Address(Repeated(">")).IsNull());
  EXPECT_TRUE(S821Address(Repeated("a.", "x@", "b")).IsValid());
  EXPECT_TRUE(S821Address(Repeated("a.", "", "b@x")).IsValid());
  EXPECT_TRUE(S821Address(Repeated("\\\"", "\"", "\"@x")).IsValid());
  EXPECT_TRUE(S821Address(Repeated("\\\"", "\"")).IsBad());
  EXPECT_TRUE(S821Address(Repeated(" ", "x@[", "1.2.3.4]")).IsValid());
  EXPECT_TRUE(S821Address(Repeated("1", "x@[", "]")).IsBad());
  EXPECT_TRUE(S821Address(SString('\0', kSize)).IsBad());
}

TEST(HostileAddresses, HeaderParserTakesAMegabyte) {
  EXPECT_EQ(S822Parser(Repeated("a,")).Addresses().Length(), kSize / 2);
  EXPECT_EQ(S822Parser(Repeated("(", "a@b ")).Addresses().Length(), 0) << "an open comment spoils what it follows";
  EXPECT_EQ(S822Parser(Repeated("()", "", "a@b")).Addresses().Length(), 1);
  EXPECT_EQ(S822Parser(Repeated("(", "", std::string(kSize, ')') + "a@b")).Addresses().Length(), 1);
  EXPECT_EQ(S822Parser(Repeated("\r\n ", "", "a@b")).Addresses().Length(), 1);
  EXPECT_EQ(S822Parser(Repeated(" ", "a\r\n", "\r\n @b")).Addresses().Length(), 1);
  EXPECT_EQ(S822Parser(Repeated("a:")).Addresses().Length(), 0);
  EXPECT_EQ(S822Parser(Repeated("g:;", "", "a@b")).Addresses().Length(), 1);
  EXPECT_EQ(S822Parser(Repeated("@r,", "<", "@s:a@b>")).Addresses().Length(), 1);
  EXPECT_EQ(S822Parser(Repeated("word ", "", "<a@b>")).Addresses().Length(), 1);
  EXPECT_EQ(S822Parser(Repeated("\"", "", "<a@b>")).Addresses().Length(), 1);
  EXPECT_EQ(S822Parser(Repeated("<", "", "a@b")).Addresses().Length(), 1);
  EXPECT_EQ(S822Parser(Repeated("a.", "x@", "b")).Addresses().Length(), 1);
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
