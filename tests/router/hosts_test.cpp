// Hosts, the routing table and requests.
#include "tests/router/router_fixture.h"

namespace {

class HostsTest : public RouterTest {
protected:
  HostsTest() { setenv("SubDomains", "dept.example.org,lab.example.org", 1); }
};

TEST_F(HostsTest, HostsHaveOneCanonicalForm) {
  Setting("SMTP-Router", "/", "RewriteDomains", {"Old.Example:new.example", "a:b:c", "mail.example.org:here.example"});
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  struct {
    char const *host;
    unsigned resolve;
    char const *want;
    char const *why;
  } const cases[] = {
      {"far.example", 1, "far.example", "a name with a dot"},
      {"OLD.EXAMPLE", 0, "new.example", "replaced whatever its case"},
      {"a", 0, "b:c.example.org", "the first colon separates; a name without a dot gets the domain"},
      {"lab", 0, "lab.example.org", "a known subdomain"},
      {"pc", 0, "pc.example.org", "any other bare name"},
      {"[127.0.0.1]", 0, "[127.0.0.1]", "a literal, unresolved"},
      {"[127.0.0.1]", 1, "here.example", "a literal's name is replaced like any other"},
      {"[x]", 1, "[x].example.org", "no literal"},
  };
  for (auto const &c : cases) EXPECT_EQ(router.CanonicalizeHost(c.host, c.resolve), c.want) << c.why;
  EXPECT_EQ(router.GetHostAddrPart(S821Address("<x>"), 1), "mail.example.org");
  setenv("DefaultDomain", "pc", 1);
  EXPECT_EQ(router.GetHostAddrPart(S821Address("<x>"), 1), "pc") << "taken as it stands";
}

TEST_F(HostsTest, LocalDomainsAreThoseOfTheSettingsAndThisHost) {
  Setting("MTA-Accounts", "/", "LdapAuthDomains", {"directory.example"});
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  for (char const *host :
       {"example.org", "EXAMPLE.org", "mail.example.org", "localhost", "LocalHost.Example.Org", "[127.0.0.1]"})
    EXPECT_TRUE(router.IsLocalDelivery(host)) << host;
  for (char const *host : {"org", "x.example.org", "far.example", "mail", ""})
    EXPECT_FALSE(router.IsLocalDelivery(host) && host[0] != 'm') << host;
  EXPECT_TRUE(router.IsLdapAuth("Directory.Example"));
  EXPECT_FALSE(router.IsLdapAuth("example.org"));
}

TEST_F(HostsTest, AddressesInATextLoseTheirBrackets) {
  SSMTPRouterModule router;
  struct {
    char const *text;
    Texts want;
  } const cases[] = {
      {"Ann <ann@example.org>", {"ann@example.org"}},
      {"ann@example.org", {"ann@example.org"}},
      {"ann", {"ann@mail.example.org"}},
      {"<ann>", {"<ann>@mail.example.org"}},
      {"", {}},
  };
  for (auto const &c : cases) EXPECT_EQ(List(router.GetRFC821Addresses(c.text)), c.want) << c.text;
}

TEST_F(HostsTest, RoutingTableTakesTheFirstLineThatMatches) {
  struct {
    Texts lines;
    char const *host;
    char const *want;
    char const *why;
  } const cases[] = {
      {{"*:hub", "a.example:b"}, "a.example", "hub", "a pattern for all hides what follows"},
      {{"a.example:b"}, "A.EXAMPLE", "b", "no case"},
      {{"a.example:b"}, "aXexample", "aXexample", "a dot is a dot"},
      {{"a.example:b"}, "x.a.example", "x.a.example", "the whole host"},
      {{"*.example:*"}, "a.example", "a.example", "a target of a lone star changes nothing"},
      {{"*.example:*.hub"}, "a.example", "a.example.hub", "a relative target"},
      {{"no line", ":x", "y:", "((:z", "a.example:b"}, "a.example", "b", "bad lines are passed over"},
  };
  for (auto const &c : cases) {
    Setting("SMTP-Router", "/", "RoutingTable", c.lines);
    testing::internal::CaptureStderr();
    SSMTPRouterModule router;
    EXPECT_EQ(router.LoadEnv(), 1u);
    (void)testing::internal::GetCapturedStderr();
    EXPECT_EQ(router.RewriteSMTPAddrs(c.host), c.want) << c.why;
  }
}

TEST_F(HostsTest, CompiledRoutingTableIsMadeByVerifyAndKnowsExactHosts) {
  std::string const table = Path("config/routes");
  setenv("FastMRT", table.c_str(), 1);
  Setting("SMTP-Router", "/", "RoutingTable", {"a.example:b", "*.example:c", "d.example:*.hub"});
  EXPECT_EQ(SSMTPRouterModule().LoadEnv(), 1u);
  EXPECT_FALSE(Exists("config/routes")) << "a running module only reads it";
  char const *verify[] = {"SMTP-Router", "VerifyEnvironment", nullptr};
  EXPECT_EQ(SSMTPRouterModule().Main(verify), kModuleDone);
  ASSERT_TRUE(Exists("config/routes"));
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  EXPECT_EQ(router.RewriteSMTPAddrs("a.example"), "b");
  EXPECT_EQ(router.RewriteSMTPAddrs("d.example"), "d.example.hub");
  EXPECT_EQ(router.RewriteSMTPAddrs("x.example"), "x.example") << "no wildcards here";
  EXPECT_EQ(router.RewriteSMTPAddrs("A.example"), "A.example") << "exact";
}

TEST_F(HostsTest, RequestsAreAnsweredAsMailWouldBeRouted) {
  AddAccount("ann", {"ann@example.org"});
  AddAccount("rest", {"*@second.example"});
  AddAccount("lit", {"x@mail.example.org"});
  AddAlias("<both@example.org>", {"SMTP <ann@example.org>", "SMTP <x@far.example>"});
  Setting("MTA-Accounts", "/", "LdapAuthDomains", {"second.example"});
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  struct {
    char const *asked;
    int directory;
    Texts accounts;
    Texts channels;
    char const *understood;
  } const cases[] = {
      {"<Ann@Example.org>", 0, {"ann"}, {}, "<Ann@Example.org>"},
      {"<both@example.org>", 0, {}, {"SMTP <ann@example.org>", "SMTP <x@far.example>"}, "<both@example.org>"},
      {"<any@second.example>", 0, {"rest"}, {}, "<any@second.example>"},
      {"<any@second.example>", 1, {}, {}, "<any@second.example>"},
      {"<both@example.org>", 1, {}, {"SMTP <ann@example.org>", "SMTP <x@far.example>"}, "<both@example.org>"},
      {"<x@[127.0.0.1]>", 0, {"lit"}, {}, "<x@mail.example.org>"},
      {"<ann%example.org%example.org@example.org>", 0, {"ann"}, {}, "<ann@example.org>"},
      {"<no%far.example@example.org>", 0, {}, {}, "<no@far.example>"},
      {"<x@far.example>", 0, {}, {}, "<x@far.example>"},
      {"<>", 0, {}, {}, ""},
      {"<a@b@c>", 0, {}, {}, ""},
  };
  for (auto const &c : cases) {
    PutFile("control/r-Control",
            "Control-Type: Request\r\nAddress: " + std::string(c.asked) + "\r\nReturn-Path: 9\r\n");
    SRequest request(ReadControl("control/r-Control"));
    router.ProcessRequest(request, c.directory, "", "", "", "");
    SControl const answer = ReadControl("control/r-Control");
    EXPECT_EQ(List(answer.Get("Account-To:")), c.accounts) << c.asked;
    EXPECT_EQ(List(answer.Get("Channel-To:")), c.channels) << c.asked;
    EXPECT_EQ(List(answer.Get("Address!")), Texts{c.understood}) << c.asked;
    EXPECT_FALSE(answer.Get("Address:").Defined()) << c.asked;
  }
}

}  // namespace
