#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "brenthaven/net/dns.h"
#include "brenthaven/net/dottedquad.h"
#include "tests/support/nameserver.h"
#include "tests/support/texts.h"

class HostNamesTest : public ::testing::Test {
protected:
  HostNamesTest() {
    setenv("HostName", "mail.example.org", 1);
    setenv("DomainName", "Example.org", 1);
    setenv("SubDomains", "sales.example.org,Lab.example.org,lab.other.org", 1);
    for (char const *name : {"DefaultDomain", "DefaultBlockListZone"}) unsetenv(name);
  }
};

TEST_F(HostNamesTest, QuadsInATextAreFoundLeftmostAndLongest) {
  struct Case {
    char const *text, *quad;
  };
  for (Case const &c :
       {Case{"10.0.0.1", "10.0.0.1"}, Case{"x[1.2.3.456]y", "1.2.3.456"}, Case{"1234.5.6.7", "234.5.6.7"},
        Case{"1.2.3.4567", "1.2.3.456"}, Case{"1.2.3", ""}, Case{"1..2.3.4.5", "2.3.4.5"}, Case{"1.2.3.", ""},
        Case{"", ""}, Case{"999.999.999.999", "999.999.999.999"}})
    EXPECT_EQ(FindDottedQuad(c.text), c.quad) << c.text;
  EXPECT_FALSE(IsDottedQuad("1.2.3.4567"));
  EXPECT_FALSE(IsDottedQuad(""));
}

TEST_F(HostNamesTest, CanonicalNames) {
  struct Case {
    char const *name, *canonical;
  };
  for (Case const &c :
       {Case{"LocalHost", "mail.example.org"}, Case{"localhost.EXAMPLE.org", "mail.example.org"},
        Case{"localhost.other.org", "localhost.other.org"}, Case{"a.b", "a.b"}, Case{"LAB", "Lab.example.org"},
        Case{"sales", "sales.example.org"}, Case{"sale", "sale.Example.org"}, Case{"", ".Example.org"}}) {
    EXPECT_EQ(Text(CanonicalizeHostName(c.name)), c.canonical) << c.name;
    EXPECT_EQ(Text(CanonicalizeHost(c.name, 0)), c.canonical) << c.name;
  }
}

TEST_F(HostNamesTest, BracketedQuadStaysWithoutAName) {
  EXPECT_EQ(Text(CanonicalizeHost("[10.0.0.1]", 0)), "[10.0.0.1]");
  EXPECT_EQ(Text(CanonicalizeHost("[999.0.0.1]", 1)), "[999.0.0.1]") << "nobody has that address";
  EXPECT_EQ(Text(CanonicalizeHost("[10.0.1]", 0)), "[10.0.1]") << "no quad, but a name with a dot";
}

TEST_F(HostNamesTest, DomainOfAnAddress) {
  EXPECT_EQ(Text(GetHostAddrPart(S821Address("<a@sales>"), 0)), "sales.example.org");
  EXPECT_EQ(Text(GetHostAddrPart(S821Address("<a>"), 0)), "mail.example.org");
  setenv("DefaultDomain", "default", 1);
  EXPECT_EQ(Text(GetHostAddrPart(S821Address("<a>"), 0)), "default") << "is not made canonical";
}

TEST_F(HostNamesTest, AddressesOfAName) {
  struct Case {
    char const *name;
    int code;
    char const *first;
  };
  for (Case const &c : {Case{"[10.0.0.1]", kHostFound, "10.0.0.1"}, Case{"10.0.0.1]", kHostFound, "10.0.0.1"},
                        Case{"", kHostNotFound, ""}, Case{"localhost", kHostFound, "127.0.0.1"}}) {
    SStringList addresses = "old";
    EXPECT_EQ(GetHostByName(c.name, &addresses), c.code) << c.name;
    EXPECT_EQ(Text(addresses.Get(0)), c.first) << c.name;
  }
  SStringList addresses;
  EXPECT_EQ(GetHostByName(SString("localhost\0x", 11), &addresses), kHostNotFound);
  EXPECT_EQ(Text(GetHostByName("[1.2.3.4]").Join(" ")), "1.2.3.4");
}

TEST_F(HostNamesTest, NamesOfAnAddress) {
  SStringList names;
  for (char const *text : {"", "1.2.3", "localhost", "1.2.3.4.5", "a1.2.3.4", "[[1.2.3.4]]"})
    EXPECT_EQ(GetHostByAddr(text, &names), kNameNotAnAddress) << text;
  EXPECT_EQ(GetHostByAddr("999.2.3.4", &names), kNameNotFound);
  ASSERT_EQ(GetHostByAddr(" [127.0. 0.1] ", &names), kNameFound) << "white space counts for nothing";
  EXPECT_EQ(Text(names.Get(0)), "mail.example.org") << "localhost of this site";
  EXPECT_EQ(Text(GetHostByAddr("127.0.0.1").Get(1)), "localhost");
}

TEST_F(HostNamesTest, BlockListIsAskedUnderTheReversedAddress) {
  struct Case {
    char const *text, *reversed;
  };
  for (Case const &c : {Case{"10.0.0.254", "254.0.0.10"}, Case{"x1.2.3.4567", "x456.3.2.17"}, Case{"none", "none"}})
    EXPECT_EQ(Text(WithQuadReversed(c.text)), c.reversed) << c.text;
  SString answer = "old";
  EXPECT_EQ(PortableRBLCheck("host [ 4.3.2.1 ]", SString(), answer), 0U) << "no zone, nothing listed";
  EXPECT_FALSE(answer.Defined());
  EXPECT_EQ(PortableRBLCheck("", "zone.example"), 0U) << "a host without an address";
}

TEST_F(HostNamesTest, BlockListThatAnswersListsTheHost) {
  START_SERVER(server, "127.0.0.29", Zone().Address("4.3.2.1.list.example", "127.0.0.2"));
  PointResolverAt("127.0.0.29");
  SString answer;
  EXPECT_EQ(PortableRBLCheck("[ 1.2.3.4 ]", "list.example", answer), 1U);
  EXPECT_EQ(Text(answer), "127.0.0.2");
  EXPECT_EQ(PortableRBLCheck("1.2.3.4", ".list.example"), 1U);
  EXPECT_EQ(PortableRBLCheck("1.2.3.5", "list.example", answer), 0U) << "not listed";
  EXPECT_FALSE(answer.Defined());
  setenv("DefaultBlockListZone", "list.example", 1);
  EXPECT_EQ(PortableRBLCheck("1.2.3.4", SString()), 1U);
  server.Stop();
  EXPECT_EQ(server.queries.size(), 4U);
  EXPECT_EQ(PortableRBLCheck("1.2.3.4", "list.example"), 0U) << "a list that is dead lists nobody";
}

TEST_F(HostNamesTest, HostNameInADomain) {
  char name[256] = {};
  ASSERT_EQ(gethostname(name, sizeof name - 1), 0);
  std::string const host = name;
  EXPECT_EQ(Text(GetLocalHostName(SString())), host.substr(0, 108));
  EXPECT_EQ(Text(GetLocalHostName("unheard.of.example")), host + ".unheard.of.example");
}
