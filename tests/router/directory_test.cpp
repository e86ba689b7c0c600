// Requests about addresses whose accounts a directory knows.
#include <gmock/gmock.h>

#include "brenthaven/router/directorylookup.h"
#include "tests/router/router_fixture.h"
#include "tests/support/slapd.h"

namespace {

constexpr char kBase[] = "dc=example,dc=org";

class DirectoryRequestTest : public RouterTest {
protected:
  DirectoryRequestTest() {
    Setting("MTA-Accounts", "/", "LdapAuthDomains", {"example.org", "mail.example.org"});
    AddAccount("ann", {});
    AddAccount("star", {});
    AddAccount("local", {"local@example.org"});
    AddAccount("rest", {"*@example.org"});
  }

  static Slapd::Options People() {
    Slapd::Options options;
    struct {
      char const *name, *uid, *mail;
    } const rows[] = {
        {"bob", "bob", "bob@example.org"},    // no account here
        {"up", "../ann", "up@example.org"},   // no name of a directory
        {"two1", "star", "two@example.org"},  // the first of several
        {"two2", "ann", "two@example.org"},    {"literal", "ann", "x@mail.example.org"},
        {"star", "star", "a*(b)@example.org"},
    };
    for (auto const &row : rows)
      options.more += std::string("dn: cn=") + row.name +
                      ",ou=people,dc=example,dc=org\nobjectClass: inetOrgPerson\ncn: " + row.name +
                      "\nsn: x\nuid: " + row.uid + "\nmail: " + row.mail + "\n\n";
    options.more +=
        "dn: cn=nouid,ou=people,dc=example,dc=org\nobjectClass: inetOrgPerson\ncn: nouid\nsn: x\n"
        "mail: nouid@example.org\n\n";
    return options;
  }

  void PutRequest(std::string const &address) const {
    PutFile("control/r-Control", "Function: SMTP-Router\r\nControl-Type: Request\r\nPriority: 3\r\nAddress: " +
                                     address + "\r\nReturn-Path: 9\r\n");
  }
  // "account ann", "channel ...", or "unknown", with the address as understood.
  std::string Answer() const {
    SControl const answer = ReadControl("control/r-Control");
    EXPECT_FALSE(answer.Get("Address:").Defined());
    Texts const accounts = List(answer.Get("Account-To:")), channels = List(answer.Get("Channel-To:"));
    return (!accounts.empty()   ? "account " + Joined(accounts)
            : !channels.empty() ? "channel " + Joined(channels)
                                : "unknown") +
           " " + Joined(List(answer.Get("Address!")));
  }
  std::string Ask(std::string const &address, std::string const &host, std::string const &second,
                  std::string const &port) const {
    PutRequest(address);
    SSMTPRouterModule router;
    EXPECT_EQ(router.LoadEnv(), 1u);
    SRequest request(ReadControl("control/r-Control"));
    router.ProcessRequest(request, 1, Bytes(host), Bytes(second), Bytes(port), kBase);
    return Answer();
  }
};

TEST_F(DirectoryRequestTest, DirectoryDecidesForItsDomains) {
  AddAlias("<both@example.org>", {"SMTP <x@far.example>"});
  Slapd const server(root, People());
  struct {
    char const *address, *want, *why;
  } const rows[] = {
      {"<ann@example.org>", "account ann <ann@example.org>", "found"},
      {"<Ann@Example.org>", "account ann <Ann@Example.org>", "in any case"},
      {"<nobody@example.org>", "unknown <nobody@example.org>", "not found, and no catch-all"},
      {"<local@example.org>", "unknown <local@example.org>", "an account that the directory does not know"},
      {"<both@example.org>", "channel SMTP <x@far.example> <both@example.org>", "aliases count"},
      {"<bob@example.org>", "unknown <bob@example.org>", "no account of that uid"},
      {"<up@example.org>", "unknown <up@example.org>", "a uid that is a way out of a directory"},
      {"<nouid@example.org>", "unknown <nouid@example.org>", "no uid"},
      {"<two@example.org>", "account star <two@example.org>", "the first of several"},
      {"<*@example.org>", "unknown <*@example.org>", "no wildcard"},
      {"<\"a*(b)\"@example.org>", "unknown <\"a*(b)\"@example.org>", "the directory has it without quotes"},
      {"<ann%example.org%example.org@example.org>", "account ann <ann@example.org>", "the last % first"},
      {"<ann%far.example@example.org>", "unknown <ann@far.example>", "not the directory's domain"},
      {"<ann@far.example>", "unknown <ann@far.example>", "not the directory's domain"},
      {"<x@[127.0.0.1]>", "account ann <x@mail.example.org>", "the literal's name"},
      {"<>", "unknown ", "nobody"},
  };
  for (auto const &row : rows) EXPECT_EQ(Ask(row.address, "127.0.0.1", "", server.Port()), row.want) << row.why;
}

TEST_F(DirectoryRequestTest, SecondHostForOneOutOfReach) {
  Slapd server(root, People());
  std::string const found = "account ann <ann@example.org>", unknown = "unknown <ann@example.org>";
  EXPECT_EQ(Ask("<ann@example.org>", "127.0.0.2", "127.0.0.1", server.Port()), found) << "nothing listens";
  EXPECT_EQ(Ask("<ann@example.org>", "no host", "127.0.0.1", server.Port()), unknown) << "a wrong setting";
  HangingServer const other("127.0.0.2", server.Port());
  EXPECT_EQ(Ask("<nobody@example.org>", "127.0.0.1", "127.0.0.2", server.Port()), "unknown <nobody@example.org>");
  EXPECT_FALSE(other.WasCalled()) << "not to be found is an answer";
  Setting("MTA-Accounts", "/", "DirectoryTimeout", {"2"});
  EXPECT_EQ(Ask("<ann@example.org>", "127.0.0.2", "127.0.0.1", server.Port()), found) << "the first hangs";
  server.Stop();
  Setting("MTA-Accounts", "/", "DirectoryTimeout", {"0.3"});
  EXPECT_EQ(Ask("<ann@example.org>", "127.0.0.1", "127.0.0.2", server.Port()), unknown) << "gone, and hangs";
}

TEST_F(DirectoryRequestTest, LookupTakesTheTextAsItIs) {
  Slapd const server(root, People());
  SString const port = Bytes(server.Port());
  struct {
    char const *address, *host, *base, *want, *why;
  } const rows[] = {
      {"SMTP <ann@example.org> tail", "127.0.0.1", kBase, "ann", "between the brackets"},
      {"ann@example.org", "127.0.0.1", kBase, "ann", "without brackets"},
      {"a*(b)@example.org", "127.0.0.1", kBase, "star", "escaped"},
      {"*", "127.0.0.1", kBase, "", "no wildcard"},
      {"x)(uid=ann", "127.0.0.1", kBase, "", "no filter of its own"},
      {"ann@example.org\xff", "127.0.0.1", kBase, "", "no UTF-8"},
      {"ann@example.org", "", kBase, "", "no host"},
      {"ann@example.org", "127.0.0.1", "", "", "no base"},
      {"ann@example.org", "127.0.0.1", "dc=elsewhere", "", "no such base"},
      {"ann@example.org", "127.0.0.1", "\xff", "", "no base"},
  };
  for (auto const &row : rows)
    EXPECT_EQ(Text(LookupDirectoryUid(row.address, row.host, "", port, row.base)), row.want) << row.why;
  EXPECT_FALSE(LookupDirectoryUid("ann@example.org", "127.0.0.1", "", "", kBase).Defined()) << "no port";
  EXPECT_FALSE(LookupDirectoryUid("ann@example.org", "127.0.0.1", "", "many", kBase).Defined());
}

TEST_F(DirectoryRequestTest, ProgramTakesTheDirectoryFromItsSettings) {
  Slapd const server(root, People());
  auto const ask = [&](char const *address) {
    PutRequest(address);
    EXPECT_EQ(RunProgram(ROUTER_PROGRAM, {"SMTP-Router", "MessageFile", "r"}).code, 0);
    return Answer();
  };
  EXPECT_EQ(ask("<local@example.org>"), "account local <local@example.org>") << "no section at all";
  for (auto const &[key, value] : {std::pair<char const *, std::string>("Use", "yes"),
                                   {"Host", "127.0.0.2"},
                                   {"Host2", "127.0.0.1"},
                                   {"Port", server.Port()},
                                   {"Base", kBase}})
    Setting("SMTP-Router", "/Directory", key, {value});
  EXPECT_EQ(ask("<ann@example.org>"), "account ann <ann@example.org>");
  EXPECT_EQ(ask("<local@example.org>"), "unknown <local@example.org>");
  Setting("SMTP-Router", "/Directory", "Use", {"no"});
  EXPECT_EQ(ask("<local@example.org>"), "account local <local@example.org>");
}

}  // namespace
