#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "brenthaven/net/dns.h"
#include "brenthaven/net/nameservers.h"
#include "brenthaven/platform/registry.h"
#include "tests/support/dnsbytes.h"
#include "tests/support/nameserver.h"
#include "tests/support/scratch.h"
#include "tests/support/texts.h"

namespace {

std::string WrongAnswer(std::string const &query, std::string reply) {
  reply = Answer(query, std::move(reply));
  reply[1] = static_cast<char>(reply[1] ^ 0x55);
  return reply;
}

std::string Quad(char last) { return {10, 0, 0, last}; }

std::string OneExchange() {
  return DnsHeader({1, 1, 0, 1}) + DnsQuestion("example.org") + DnsMx("\xC0\x0C", 10, DnsName("mx.example.org")) +
         DnsRecord(DnsName("mx.example.org"), 1, Quad(1));
}

}  // namespace

class MxQueryTest : public ScratchSpool {
protected:
  MxQueryTest() {
    for (char const *name : {"InternalMxServerIP", "ExternalMxServerIP", "DnsStrict"}) unsetenv(name);
  }
  void SetNameServers(char const *servers) const {
    HKEY key;
    ASSERT_EQ(
        RegCreateKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\tqx", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
        ERROR_SUCCESS);
    ASSERT_EQ(RegSetValueExA(key, "NameServer", 0, REG_SZ, reinterpret_cast<BYTE const *>(servers),
                             static_cast<DWORD>(strlen(servers) + 1)),
              ERROR_SUCCESS);
    ASSERT_EQ(RegCloseKey(key), ERROR_SUCCESS);
  }
  // Code and lines of one query.
  std::string Ask(char const *server, std::string const &name = "example.org") const {
    SStringList lines;
    int const code = _DoMxQuery(server, SString(std::string_view(name)), &lines);
    std::string text = std::to_string(code);
    for (SString const &line : lines) text += "|" + Text(line);
    return text;
  }
};

TEST_F(MxQueryTest, ExchangesBySortedPreferenceWithAllTheirAddresses) {
  START_SERVER(server, "127.0.0.21", [](std::string const &query, int) {
    return std::vector{Answer(
        query,
        DnsHeader({1, 4, 1, 4}) + DnsQuestion("example.org") + DnsMx("\xC0\x0C", 100, DnsName("late.example.org")) +
            DnsMx("\xC0\x0C", 9, "\2mz\xC0\x0C") + DnsMx("\xC0\x0C", 9, "\2ma\xC0\x0C") +
            DnsMx("\xC0\x0C", 65535, DnsName("localhost")) + DnsRecord("\xC0\x0C", 2, DnsName("ns.example.org")) +
            DnsRecord(DnsName("ma.example.org"), 1, Quad(3)) + DnsRecord(DnsName("late.example.org"), 1, Quad(4)) +
            DnsRecord(DnsName("mz.example.org"), 1, Quad(1)) + DnsRecord(DnsName("mz.example.org"), 1, Quad(2)))};
  });
  EXPECT_EQ(Ask("127.0.0.21"),
            "1|00009 mz.example.org [10.0.0.1]|00009 mz.example.org [10.0.0.2]|00009 ma.example.org [10.0.0.3]|"
            "00100 late.example.org [10.0.0.4]|65535 localhost [127.0.0.1]");
  server.Stop();
  ASSERT_EQ(server.queries.size(), 1U);
  EXPECT_EQ(server.queries[0].substr(2), std::string("\1\0\0\1\0\0\0\0\0\0", 10) + DnsQuestion("example.org"));
  EXPECT_LT(static_cast<unsigned char>(server.queries[0][1]), 0x80) << "IDs are below 0x8000, low byte first";
}

TEST_F(MxQueryTest, CodesOfReplies) {
  std::string const question = DnsQuestion("example.org");
  std::string reply;
  START_SERVER(server, "127.0.0.22", [&](std::string const &query, int) { return std::vector{Answer(query, reply)}; });
  struct Case {
    char const *what;
    std::string reply;
    char const *result;
  };
  for (Case const &c :
       {Case{"no such name", DnsHeader({1, 0, 0, 0}, 3) + question, "2"},
        Case{"server failure", DnsHeader({1, 0, 0, 0}, 2) + question, "0"},
        Case{"refused", DnsHeader({1, 1, 0, 0}, 5) + question, "0"},
        Case{"no answer", DnsHeader({1, 0, 0, 0}) + question, "4"}, Case{"header alone", DnsHeader({0, 0, 0, 0}), "4"},
        Case{"no MX among the answers",
             DnsHeader({1, 1, 0, 0}) + question + DnsRecord("\xC0\x0C", 5, DnsName("other.org")), "4"},
        Case{"exchange that could forge a line",
             DnsHeader({1, 1, 0, 1}) + question + DnsMx("\xC0\x0C", 1, DnsName("a [6")) +
                 DnsRecord(DnsName("a [6"), 1, Quad(1)),
             "1"},
        Case{"no exchange at all", DnsHeader({1, 1, 0, 0}) + question + DnsMx("\xC0\x0C", 0, DnsName("")), "1"}}) {
    reply = c.reply;
    EXPECT_EQ(Ask("127.0.0.22"), c.result) << c.what;
  }
}

TEST_F(MxQueryTest, WrongIDCostsATryAndANewSend) {
  START_SERVER(server, "127.0.0.23", [](std::string const &query, int number) {
    return std::vector{number < 9 ? WrongAnswer(query, OneExchange()) : Answer(query, OneExchange())};
  });
  EXPECT_EQ(Ask("127.0.0.23"), "1|00010 mx.example.org [10.0.0.1]");
  server.Stop();
  ASSERT_EQ(server.queries.size(), 9U);
  EXPECT_EQ(server.queries[0], server.queries[8]) << "the query is built once";
}

// Whoever can guess both answers in the server's place. Chance alone repeats a few of either.
TEST_F(MxQueryTest, EachQueryHasAPortAndAnIDThatNobodyCanTell) {
  START_SERVER(server, "127.0.0.29",
               [](std::string const &query, int) { return std::vector{Answer(query, OneExchange())}; });
  constexpr size_t kQueries = 32;
  for (size_t i = 0; i < kQueries; ++i) EXPECT_EQ(Ask("127.0.0.29"), "1|00010 mx.example.org [10.0.0.1]");
  server.Stop();
  std::set<int> const ports(server.ports.begin(), server.ports.end());
  std::set<std::string> ids;
  for (std::string const &query : server.queries) ids.insert(query.substr(0, 2));
  EXPECT_GT(ports.size(), kQueries / 2);
  EXPECT_GT(ids.size(), kQueries / 2);
}

TEST_F(MxQueryTest, ReplyToTheTenthTryCountsAsNone) {
  START_SERVER(server, "127.0.0.24", [](std::string const &query, int number) {
    return std::vector{number < 10 ? std::string("short") : Answer(query, OneExchange())};
  });
  EXPECT_EQ(Ask("127.0.0.24"), "3");
  server.Stop();
  EXPECT_EQ(server.queries.size(), 10U);
}

TEST_F(MxQueryTest, StrictTakesOnlyRepliesThatRepeatTheQuestion) {
  auto const handler = [](std::string const &query, int number) {
    std::string const good = Answer(query, OneExchange());
    if (number == 1) return std::vector{std::string(good).replace(2, 1, "\1")};  // not marked as a reply
    if (number == 2) return std::vector{std::string(good).replace(13, 1, "X")};  // another name
    return std::vector{good};
  };
  START_SERVER(server, "127.0.0.25", handler);
  setenv("DnsStrict", "yes", 1);
  EXPECT_EQ(Ask("127.0.0.25"), "1|00010 mx.example.org [10.0.0.1]");
  EXPECT_EQ(Ask("127.0.0.25", std::string(64, 'a') + ".org"), "0") << "a name that cannot be sent";
  server.Stop();
  EXPECT_EQ(server.queries.size(), 3U);
}

TEST_F(MxQueryTest, StrictHearsOnlyTheServerThatWasAsked) {
  int const stranger = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  struct sockaddr_in local = {};
  local.sin_family = AF_INET;
  local.sin_port = htons(53);
  local.sin_addr.s_addr = inet_addr("127.0.0.27");
  if (bind(stranger, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0) GTEST_SKIP() << "port 53 is not for us";
  // The asker's port is found in the kernel's table, where a connected socket shows its peer, 127.0.0.26:53.
  auto const asker = [] {
    std::ifstream table("/proc/net/udp");
    for (std::string line; std::getline(table, line);)
      if (size_t const at = line.find(" 1A00007F:0035"); at != std::string::npos)
        return static_cast<uint16_t>(std::stoi(line.substr(at - 4, 4), nullptr, 16));
    return uint16_t{0};
  };
  START_SERVER(server, "127.0.0.26", [&](std::string const &query, int) {
    struct sockaddr_in peer = {};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(asker());
    peer.sin_addr.s_addr = inet_addr("127.0.0.1");
    std::string const forged = Answer(query, DnsHeader({1, 0, 0, 0}, 3) + DnsQuestion("example.org"));
    EXPECT_NE(peer.sin_port, 0);
    (void)sendto(stranger, forged.data(), forged.size(), 0, reinterpret_cast<sockaddr *>(&peer), sizeof peer);
    return std::vector{Answer(query, OneExchange())};
  });
  setenv("DnsStrict", "yes", 1);
  EXPECT_EQ(Ask("127.0.0.26"), "1|00010 mx.example.org [10.0.0.1]");
  server.Stop();
  EXPECT_EQ(server.queries.size(), 1U);
  ASSERT_EQ(close(stranger), 0);
}

TEST_F(MxQueryTest, NobodyAtTheServerIsNoReplyAtOnceWhenStrict) {
  setenv("DnsStrict", "yes", 1);
  EXPECT_EQ(Ask("127.0.0.28"), "3");
  EXPECT_EQ(Ask("no quad"), "0");
}

TEST_F(MxQueryTest, ServersOfTheEnvironmentExcludeAllOthers) {
  START_SERVER(refusing, "127.0.0.31", [](std::string const &query, int) {
    return std::vector{Answer(query, DnsHeader({1, 0, 0, 0}, 3) + DnsQuestion("example.org"))};
  });
  START_SERVER(knowing, "127.0.0.32",
               [](std::string const &query, int) { return std::vector{Answer(query, OneExchange())}; });
  SetNameServers("127.0.0.32");
  SStringList lines = "old";
  EXPECT_EQ(MxQuery("", &lines), kMxFailed);
  setenv("InternalMxServerIP", "127.0.0.31", 1);
  EXPECT_EQ(MxQuery("example.org", &lines), kMxNoName) << "no other server is tried";
  EXPECT_FALSE(lines.Defined());
  setenv("ExternalMxServerIP", "127.0.0.32", 1);
  EXPECT_EQ(MxQuery("example.org", &lines), kMxFound) << "the second of the two is asked after any failure";
  EXPECT_EQ(lines.Length(), 1);
  setenv("ExternalMxServerIP", "no quad", 1);
  EXPECT_EQ(MxQuery("example.org", &lines), kMxFailed) << "the last code stands";
}

TEST_F(MxQueryTest, ServersAreAskedInTurnUntilOneKnows) {
  START_SERVER(broken, "127.0.0.33", [](std::string const &query, int) {
    return std::vector{Answer(query, DnsHeader({1, 0, 0, 0}, 2) + DnsQuestion("example.org"))};
  });
  START_SERVER(denying, "127.0.0.34", [](std::string const &query, int) {
    return std::vector{Answer(query, DnsHeader({1, 0, 0, 0}, 3) + DnsQuestion("example.org"))};
  });
  START_SERVER(knowing, "127.0.0.35",
               [](std::string const &query, int) { return std::vector{Answer(query, OneExchange())}; });
  SetNameServers("127.0.0.33 127.0.0.34 127.0.0.35");
  SStringList lines;
  EXPECT_EQ(MxQuery("example.org", &lines), kMxNoName);
  broken.Stop();
  denying.Stop();
  knowing.Stop();
  EXPECT_EQ(broken.queries.size() * 100 + denying.queries.size() * 10 + knowing.queries.size(), 110U);
}

TEST_F(MxQueryTest, AddressOfAHost) {
  START_SERVER(server, "127.0.0.36",
               [](std::string const &query, int) { return std::vector{Answer(query, OneExchange())}; });
  setenv("InternalMxServerIP", "127.0.0.36", 1);
  EXPECT_EQ(Text(GetRecord("example.org", 1)), "10.0.0.1");
  EXPECT_EQ(Text(GetRecord("host [10.9.8.7]", 1)), "host [10.9.8.7]") << "holds an address already";
  setenv("InternalMxServerIP", "no quad", 1);
  EXPECT_FALSE(GetRecord("localhost", 1).Defined());
  EXPECT_EQ(Text(GetRecord("localhost", 0)), "127.0.0.1");
}

TEST_F(MxQueryTest, RegistryComesBeforeTheResolver) {
  SStringList const without = GetNameServers();
  EXPECT_GE(without.Length(), 1);
  SetNameServers("10.1.1.1  10.1.1.2 10.1.1.1");
  SStringList const with = GetNameServers();
  EXPECT_EQ(Text(with.Slice(0, 1).Join(" ")), "10.1.1.1 10.1.1.2");
  EXPECT_EQ(with.Slice(2, with.Length() - 1).Contains("10.1.1.1"), false) << "nobody is asked twice";
  std::string const many = [] {  // a value longer than the first buffer
    std::string list;
    for (int i = 0; i < 250; ++i) list += "10.2.0." + std::to_string(i) + " ";
    return list;
  }();
  SetNameServers(many.c_str());
  EXPECT_TRUE(GetNameServers().Contains("10.2.0.249"));
}

TEST_F(MxQueryTest, ResolverConfiguration) {
  SStringList const servers = ParseResolverConfiguration(
      "# nameserver 1.1.1.1\nnameserver 10.0.0.1\n nameserver\t10.0.0.2 # inside\nnameserver ::1\nnameservers 1.2.3.4\n"
      "nameserver\nsearch example.org\nnameserver 10.0.0.3");
  EXPECT_EQ(Text(servers.Join(" ")), "10.0.0.1 10.0.0.2 10.0.0.3");
  EXPECT_EQ(ParseResolverConfiguration(SString()).Length(), 0);
}
