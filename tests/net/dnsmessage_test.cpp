#include "brenthaven/net/dnsmessage.h"

#include <gtest/gtest.h>

#include "tests/support/dnsbytes.h"
#include "tests/support/texts.h"

namespace {

// "10 mx1 mx2; 20 mx3" of a reply.
std::string Exchanges(SMxReply const &reply) {
  std::string text;
  for (auto const &[preference, names] : reply.exchanges) {
    if (!text.empty()) text += "; ";
    text += std::to_string(preference);
    for (SString const &name : names) text += " " + Text(name);
  }
  return text;
}

}  // namespace

TEST(DnsMessage, QueryAsBytes) {
  std::string const want(
      "\x34\x12\x01\0\0\x01\0\0\0\0\0\0\x02mx\x07"
      "example\0\0\x0F\0\x01",
      28);
  EXPECT_EQ(Text(MakeMxQuery(0x1234, "mx.example")), want);
  EXPECT_EQ(Text(MakeMxQuery(0x1234, "mx.example.")), want) << "the ending dot is no label";
  EXPECT_EQ(Text(_EncodeName(".")), std::string(1, '\0'));
}

TEST(DnsMessage, SendableNames) {
  std::string const label(63, 'a');
  std::string const longest = label + "." + label + "." + label + "." + std::string(61, 'a');  // 255 encoded
  struct Case {
    std::string name;
    bool sendable;
  };
  for (Case const &c :
       {Case{"example.org", true}, Case{"example.org.", true}, Case{label, true}, Case{label + "a", false},
        Case{longest, true}, Case{longest + "a", false}, Case{"a..b", false}, Case{"a..", false}, Case{".a", false}})
    EXPECT_EQ(IsSendableName(Bytes(c.name)), c.sendable) << c.name;
}

TEST(DnsMessage, NamesAndThePositionBehindThem) {
  std::string const thirty_one = [] {
    std::string labels;
    for (int i = 0; i < 31; ++i) labels += "\1a";
    return labels + '\0';
  }();
  std::string const thirty = [] {
    std::string name = "a";
    for (int i = 1; i < 30; ++i) name += ".a";
    return name;
  }();
  std::string const label63 = '\x3F' + std::string(63, 'x');
  std::string const text63(63, 'x');
  auto const chain = [](int pointers) {  // each leads to the next, and the last to a name
    std::string bytes;
    for (int next = 2; next <= 2 * pointers; next += 2) bytes += DnsNumber(0xC000 | next);
    return bytes + std::string("\1a\0", 3);
  };
  struct Case {
    char const *what;
    std::string message;
    int position;
    std::string name;
    int behind;
  };
  Case const cases[] = {
      {"plain", std::string("\1a\2bc\0z", 7), 0, "a.bc", 6},
      {"root", std::string("\0", 1), 0, "", 1},
      {"pointer", std::string("\1a\0\1b\xC0\0z", 8), 3, "b.a", 7},
      {"pointer with one bit", std::string("\1a\0\x80\0z", 6), 3, "a", 5},
      {"pointer behind a pointer", std::string("\1a\0\xC0\0\xC0\x03", 7), 5, "a", 7},
      {"pointer to itself", std::string("\xC0\0", 2), 0, "", 2},
      {"label and pointer to it", std::string("\1a\xC0\0", 4), 0, thirty, 4},
      {"pointer past the end", std::string("\1a\xC0\x50", 4), 0, "a", 4},
      {"half a pointer", std::string("\1a\xC0", 3), 0, "a", 3},
      {"label past the end", std::string("\1a\5bc", 5), 0, "a", 5},
      {"no end", std::string("\1a", 2), 0, "a", 2},
      {"position at the end", std::string("\1a", 2), 2, "", 2},
      {"position past the end", std::string("\1a", 2), 900, "", 2},
      {"31 labels", thirty_one, 0, thirty, 60},
      {"over 255", label63 + label63 + label63 + label63 + std::string("\1b\0", 3), 0,
       text63 + "." + text63 + "." + text63 + "." + text63, 259},
      {"over 255 by a byte", label63 + label63 + label63 + '\x3F' + std::string(63, 'x') + std::string("\0", 1), 0,
       text63 + "." + text63 + "." + text63 + "." + text63, 257},
      {"128 pointers", chain(128), 0, "a", 2},
      {"129 pointers", chain(129), 0, "", 2},
  };
  for (Case const &c : cases) {
    int position = c.position;
    EXPECT_EQ(Text(_DecodeName(Bytes(c.message), &position)), c.name) << c.what;
    EXPECT_EQ(position, c.behind) << c.what;
  }
}

TEST(DnsMessage, HostileRepliesGiveWhatStandsBeforeTheBreak) {
  std::string const question = DnsQuestion("a.b");
  std::string const good = DnsMx("\xC0\x0C", 10, DnsName("m"));
  std::string const other = DnsRecord(DnsName("a.b"), 16, "text");
  struct Case {
    char const *what;
    std::string reply;
    std::string exchanges;
  };
  Case const cases[] = {
      {"header alone", DnsHeader({0, 0, 0, 0}), ""},
      {"counts without anything behind", DnsHeader({127, 127, 127, 127}), ""},
      {"negative counts are none", DnsHeader({1, 0x80, 0xFF, 0xFF}) + question + good, ""},
      {"only low bytes of counts", DnsHeader({1, 0x101, 0, 0}) + question + good + good, "10 m"},
      {"a count too large", DnsHeader({1, 9, 0, 0}) + question + good, "10 m"},
      {"a count too small", DnsHeader({1, 1, 0, 0}) + question + good + good, "10 m"},
      {"cut in the question", DnsHeader({1, 1, 0, 0}) + question.substr(0, 5), ""},
      {"cut in the record", DnsHeader({1, 2, 0, 0}) + question + good + good.substr(0, 8), "10 m"},
      {"cut in the preference", DnsHeader({1, 2, 0, 0}) + question + good + good.substr(0, 13), "10 m"},
      {"cut in the exchange", DnsHeader({1, 2, 0, 0}) + question + good + good.substr(0, good.size() - 2), "10 m"},
      {"exchange is a loop",
       DnsHeader({1, 2, 0, 0}) + question + DnsMx("\xC0\x0C", 5, std::string("\xC0\x23", 2)) + good, "10 m"},
      {"exchange points outside", DnsHeader({1, 2, 0, 0}) + question + DnsMx("\xC0\x0C", 5, "\xFF\xFF") + good, "10 m"},
      {"other types are skipped", DnsHeader({1, 2, 0, 0}) + question + other + good, "10 m"},
      {"order within a preference",
       DnsHeader({1, 3, 0, 0}) + question + DnsMx("\xC0\x0C", 9, DnsName("z")) + DnsMx("\xC0\x0C", 300, DnsName("y")) +
           DnsMx("\xC0\x0C", 9, DnsName("x")),
       "9 z x; 300 y"},
  };
  for (Case const &c : cases) EXPECT_EQ(Exchanges(ParseMxReply(Bytes(c.reply))), c.exchanges) << c.what;
}

TEST(DnsMessage, AnyCutOrChangeOfAByteIsSafe) {
  std::string const reply = DnsHeader({1, 2, 1, 1}) + DnsQuestion("a.b") + DnsMx("\xC0\x0C", 10, DnsName("m")) +
                            DnsMx("\xC0\x0C", 20, "\1n\xC0\x0C") + DnsRecord("\xC0\x0C", 2, DnsName("ns")) +
                            DnsRecord(DnsName("m"), 1, "\x7F\1\2\3");
  for (size_t length = kDnsHeaderLength; length <= reply.size(); ++length)
    (void)ParseMxReply(Bytes(reply.substr(0, length)));
  for (size_t at = 0; at < reply.size(); ++at)
    for (int value = 0; value < 256; ++value) {
      std::string changed = reply;
      changed[at] = static_cast<char>(value);
      (void)ParseMxReply(Bytes(changed));
    }
  SMxReply const whole = ParseMxReply(Bytes(reply));
  EXPECT_EQ(Exchanges(whole), "10 m; 20 n.a.b");
  ASSERT_EQ(whole.quads.count("m"), 1U);
  EXPECT_EQ(Text(whole.quads.at("m").at(0)), "127.1.2.3");
}

TEST(DnsMessage, WhichRepliesBelongToAQuery) {
  SString const query = MakeMxQuery(0x1234, "Example.org");
  std::string const reply = Text(query).replace(2, 1, "\x80");
  struct Case {
    char const *what;
    std::string reply;
    bool belongs, repeats;
  };
  Case const cases[] = {
      {"the same question", reply, true, true},
      {"other letter case", std::string(reply).replace(13, 1, "e"), true, true},
      {"with records behind", reply + "more", true, true},
      {"11 bytes", reply.substr(0, 11), false, false},
      {"12 bytes", reply.substr(0, 12), true, false},
      {"another ID", std::string(reply).replace(1, 1, "x"), false, true},
      {"a query", Text(query), true, false},
      {"another name", std::string(reply).replace(14, 1, "y"), true, false},
      {"another type", std::string(reply).replace(reply.size() - 3, 1, "\1"), true, false},
      {"two questions", std::string(reply).replace(5, 1, "\2"), true, false},
      {"cut question", reply.substr(0, reply.size() - 1), true, false},
  };
  for (Case const &c : cases) {
    EXPECT_EQ(IsReplyTo(query, Bytes(c.reply)), c.belongs) << c.what;
    if (c.reply.size() >= 12) {
      EXPECT_EQ(RepeatsQuestion(query, Bytes(c.reply)), c.repeats) << c.what;
    }
  }
}
