#include "brenthaven/accounts/access.h"

#include <gtest/gtest.h>

#include "brenthaven/text/sstringlist.h"
#include "tests/support/nameserver.h"

namespace {

struct Case {
  char const *client, *patterns;  // patterns joined by blanks
  int result;
  char const *why;
};

void Check(std::initializer_list<Case> cases) {
  for (Case const &c : cases)
    EXPECT_EQ(AccessOK(c.client, SString(c.patterns).SplitExact(" ")), c.result)
        << c.client << " by \"" << c.patterns << "\": " << c.why;
}

}  // namespace

// Patterns that need no name service: a look-up would take seconds, or find nobody.
TEST(Access, AddressesByNetworks) {
  EXPECT_EQ(AccessOK("10.0.0.1", SStringList()), 1);
  Check({
      {"10.0.0.1", "", 1, "an empty pattern is none"},
      {"10.0.0.1", "NONE", 0, "case does not matter"},
      {"10.0.0.1", "10.0.0.1 none", 0, "none decides wherever it stands"},
      {"10.0.0.1", "none ALL", 1, "all before none"},
      {"10.1.2.3", "10.0.0.0", 1, "trailing zeros are a network"},
      {"10.1.2.3", "10.1.0.0", 1, ""},
      {"10.1.2.3", "10.0.2.0", 0, "a zero in the middle is a byte"},
      {"10.1.2.3", "[10.1.2.3]", 1, "brackets of a pattern"},
      {"[10.1.2.3]", "10.1.2.3", 1, "and of a client"},
      {"10.1.2.3", "0.0.0.0", 1, "everyone"},
      {"10.1.2.3", "10.1.0.0/16", 1, ""},
      {"10.1.2.3", "10.1.0.0/32", 0, "only that one address"},
      {"10.1.0.0", "10.1.0.0/32", 1, ""},
      {"10.1.2.3", "10.1.0.0/22", 1, ""},
      {"10.1.4.3", "10.1.0.0/22", 0, ""},
      {"10.1.2.3", "11.0.0.0/7", 1, "bits behind the mask of the pattern count for nothing"},
      {"10.1.2.3", "192.0.2.1/0", 1, "no bits are everyone"},
      {"10.1.2.3", "10.1.2.0/33", 0, "above 32 is 32"},
      {"10.1.2.3", "10.1.2.0/-8", 0, "below 0 is 32"},
      {"10.1.2.3", "10.1.2.0/", 0, "a number left out opens no door"},
      {"10.1.2.3", "10.1.2.0/99999999999", 0, ""},
      {"10.1.2.3", "10.1.2/8", 0, "three parts are no address"},
      {"10.1.2.3", "10.1.2.300/8", 0, ""},
      {"10.1.2.3", "192.0.2.1 10.1.2.3/8", 1, "the second holds"},
  });
}

TEST(Access, NamesAndAddressesOfTheNameService) {
  START_SERVER(server, "127.0.63.1",
               Zone()
                   .Pointer("1.2.0.192", "mail.example.org")
                   .Address("relay.example.net", "198.51.100.7")
                   .Address("relay.example.net", "203.0.113.9"));
  PointResolverAt("127.0.63.1");
  Check({
      {"192.0.2.1", "example.org", 1, "by the name of the address"},
      {"192.0.2.1", "example.org.", 1, "one dot at the end counts for nothing"},
      {"192.0.2.1", "ample.org", 0, "whole labels only"},
      {"192.0.2.1", ".example.org", 0, "an empty label is none of the name"},
      {"192.0.2.1", "example.com org", 1, "the second holds"},
      {"192.0.2.1", "m.il.example.org", 0, "a dot is a dot"},
      {"192.0.2.2", "example.org", 0, "an address without a name"},
      {"relay.example.net", "198.51.100.0", 1, "by an address of the name"},
      {"relay.example.net", "203.0.113.0/24", 1, "any of them"},
      {"nobody.example.net", "192.0.2.0 10.0.0.0", 0, "a name without an address"},
      {"BAD.Example.Net", "example.net", 1, "a name given needs no look-up"},
      {"", "example.net 10.0.0.0", 0, "no client at all"},
  });
}

TEST(Access, NameServiceIsAskedOnceForAllPatterns) {
  START_SERVER(server, "127.0.63.2", Zone().Pointer("1.2.0.192", "mail.example.org"));
  PointResolverAt("127.0.63.2");
  Check({{"192.0.2.1", "a.example b.example c.example d.example", 0, ""}});
  server.Stop();
  EXPECT_EQ(server.queries.size(), 1U);
}
