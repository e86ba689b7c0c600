// The header filter language: what is a line, what it matches, how lines join.
#include "brenthaven/router/filter.h"

#include "tests/router/router_fixture.h"

namespace {

// "hit", "miss", or "bad:" and the line at fault. The header's fields are lines.
std::string Verdict(Texts const &lines, std::string const &header) {
  SString badLine;
  auto const filter = SHeaderFilter::Of(ListOf(lines), &badLine);
  if (filter == nullptr) return "bad:" + Text(badLine);
  SHeader fields;
  Bytes(header) >> fields;
  return filter->Hits(fields) ? "hit" : "miss";
}

std::string const kHeader =
    "Subject: buy (now) a*b\r\nReceived: one\r\nReceived: two\r\nX-Folded: far\r\n away\r\nX-Empty: \r\n";

TEST(FilterTest, LineThatIsNoneIsNamed) {
  for (std::string const bad :
       {"\x1b$B", "subject (buy) and now", "subject (buy)", "subject buy and", "subject (buy and", "subject buy) and",
        "subject ( and", "subject (buy) nor", "subject (buy\\) and", "subject () and", "subject (a[) and",
        "subject (a)(b) and", "subject (?) and"}) {
    EXPECT_EQ(Verdict({bad, "x (y) and"}, ""), "bad:" + bad);
    EXPECT_EQ(Verdict({"x (y) and", bad}, ""), "bad:" + bad);
  }
}

TEST(FilterTest, WhatALineMatches) {
  for (char const *line :
       {"subject (buy) and", "\tSUBJECT: \t (buy)  NotAnd \r\n", "subject (buy \\(now\\)) and", "subject (*) and",
        "subject ((buy|sell) (\\(now)) and", "subject (b*now) and", "subject (^bu[xy]\\s) and", "received (two) and",
        "x-folded (far*away) and", "x-empty (^$) and", "subject (**buy**) and", "subject (zz|*) and",
        "subject (*|zz) and", "subject (b*\\*) and"})
    EXPECT_EQ(Verdict({line, " \f\v\r\n", ""}, kHeader), "hit") << line;
  for (char const *line : {"", "subject (^uy) and", "subject (BUY) and", "x-folded (far away) and", "x-empty (.) and",
                           "subject (a\\*b) and" /* an "a", dots, a "b" */})
    EXPECT_EQ(Verdict({line}, kHeader), "miss") << line;
}

TEST(FilterTest, JapaneseTextStandsForItsBytes) {
  std::string const open = "\x1b$B", close = "\x1b(B";
  std::string const text = open + "a(*b)\\[{|$^+?." + close;
  EXPECT_EQ(Verdict({"subject (*" + text + "$) and"}, "Subject: now " + text + "\r\n"), "hit");
  EXPECT_EQ(Verdict({"subject (" + text + ") and"}, "Subject: " + open + "a(zzb)\\[{|$^+?." + close + "\r\n"), "miss");
  EXPECT_EQ(Verdict({"subject (" + open + "(" + "\x1b(J *" + open + ")" + close + ") and"},
                    "Subject: " + open + "(\x1b(J - " + open + ")" + close + "\r\n"),
            "hit");
  std::string const unclosed = "subject (" + open + "ab) and";
  EXPECT_EQ(Verdict({unclosed}, ""), "bad:" + unclosed) << "no end of the pattern";
}

// Lines that hit (y), miss (n) or lack their field (-), each with its operator. Behind a missing line its operator
// joins; one that is not the first is not negated.
TEST(FilterTest, OperatorsJoinTheNextLine) {
  auto const verdict = [](char const *cases) {
    Texts lines;
    for (SString const &word : SString(cases).SplitExact(" "))
      lines.push_back(std::string(word[0] == '-' ? "absent" : "x") + (word[0] == 'n' ? " (no) " : " (yes) ") +
                      Text(word.SplitExact(":").Get(1)));
    return Verdict(lines, "X: yes\r\n");
  };
  for (char const *lines :
       {"y:and", "y:notand", "n:not", "y:and y:and", "n:or y:and", "y:notand n:and", "n:notor n:and", "n:not n:and",
        "n:not n:and y:and", "y:and -:or n:and", "n:and -:or y:and", "-:or y:and", "-:notor n:and"})
    EXPECT_EQ(verdict(lines), "hit") << lines;
  for (char const *lines : {"n:and", "y:not", "-:not", "y:and n:or", "n:or n:or", "y:notand y:and", "n:notor y:and",
                            "y:not y:and", "y:or n:and n:and", "-:and y:and", "y:and n:not"})
    EXPECT_EQ(verdict(lines), "miss") << lines;
}

TEST(FilterTest, EqualLinesAreCompiledOnce) {
  SString badLine;
  auto const first = SHeaderFilter::Of(ListOf({"a (b) and"}), &badLine);
  EXPECT_EQ(SHeaderFilter::Of(ListOf({"a (b) and"}), &badLine), first);
  auto const second = SHeaderFilter::Of(ListOf({"a (c) and"}), &badLine);
  EXPECT_NE(second, first);
  EXPECT_EQ(SHeaderFilter::Of(ListOf({"a ( and"}), &badLine), nullptr);
  EXPECT_EQ(SHeaderFilter::Of(ListOf({"a (c) and"}), &badLine), second) << "a bad one changes nothing";
}

// Each would take longer than the universe lasts where matching goes back.
TEST(FilterTest, HostileHeadersEndSoon) {
  Texts const nested = {"subject ((((a*)*)*)*$x) or", "received (^(([a-z]+)+)+!) or", "subject (*b*b*b*b*c) or"};
  EXPECT_EQ(Verdict(nested, "Subject: " + std::string(1 << 20, 'a') + "b\r\n"), "miss");
  std::string many;
  for (int i = 0; i < 10000; ++i) many += "Received: " + std::string(60, 'z') + "\r\nX" + std::to_string(i) + ": y\r\n";
  EXPECT_EQ(Verdict(nested, many), "miss");
}

}  // namespace
