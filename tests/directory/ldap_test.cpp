// The LDAP client against real servers, and against those that misbehave.
#include "brenthaven/directory/ldap.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <thread>

#include "brenthaven/directory/escape.h"
#include "tests/support/scratch.h"
#include "tests/support/slapd.h"
#include "tests/support/texts.h"

// Found by the test framework, which looks where the type is declared.
void PrintTo(SLdapResult result, std::ostream *out) {
  constexpr char const *kNames[] = {"done", "refused", "unreachable", "unusable"};
  *out << kNames[static_cast<int>(result)];
}

namespace {

constexpr auto kDone = SLdapResult::kDone;
constexpr auto kRefused = SLdapResult::kRefused;
constexpr auto kUnreachable = SLdapResult::kUnreachable;
constexpr auto kUnusable = SLdapResult::kUnusable;
constexpr auto kClear = SLdapTransport::kClear;
constexpr auto kTls = SLdapTransport::kTls;

constexpr char kAnn[] = "uid=ann,ou=people,dc=example,dc=org";
constexpr char kBase[] = "dc=example,dc=org";

class LdapTest : public ScratchSpool {
protected:
  static SLdapOptions Quick() {
    SLdapOptions options;
    options.timeout = 0.3;
    return options;
  }
  static SLdapOptions Trusting(std::string const &file) {
    SLdapOptions options;
    options.authorities = Bytes(file);
    return options;
  }
};

TEST_F(LdapTest, AddressesOfServers) {
  struct {
    char const *text, *want;
  } const rows[] = {
      {"LDAP://host:389/dc=a,dc=b", "clear host 389 dc=a,dc=b"},
      {"ldaps://host", "tls host - "},
      {"LDAP://[::1]:3389", "clear [::1] 3389 "},
      {"LDAP://[fe80::1]/o=a/b c", "clear [fe80::1] - o=a/b c"},
      {"LDAP://a.b-c_d.example:1/", "clear a.b-c_d.example 1 "},
      {"host", "bad"},
      {"http://host", "bad"},
      {"LDAP://", "bad"},
      {"LDAP://:389", "bad"},
      {"LDAP://host:", "bad"},
      {"LDAP://host:0", "bad"},
      {"LDAP://host:65536", "bad"},
      {"LDAP://host:ldap", "bad"},
      {"LDAP://host:-1", "bad"},
      {"LDAP://host:1 ldap://other", "bad"},  // would be two servers to the protocol library
      {"LDAP://user@host", "bad"},
      {"LDAP://host%00", "bad"},
      {"LDAP://::1", "bad"},
      {"LDAP://[]", "bad"},
      {"LDAP://[::1", "bad"},
      {"LDAP://[::1]x:1", "bad"},
      {"LDAP://h\xc3\xb6st", "bad"},
  };
  for (auto const &row : rows) {
    SLdapUrl url;
    std::string const got = !url.Parse(row.text)
                                ? "bad"
                                : std::string(url.transport == kTls ? "tls " : "clear ") + Text(url.host) + " " +
                                      (url.port.Defined() ? Text(url.port) : "-") + " " + Text(url.base);
    EXPECT_EQ(got, row.want) << row.text;
  }
}

TEST_F(LdapTest, TextIsEscaped) {
  EXPECT_EQ(Text(EscapeFilter("a*(b)\\c")), "a\\2a\\28b\\29\\5cc");
  EXPECT_EQ(Text(EscapeFilter(SString("\0x", 2))), "\\00x");
  EXPECT_EQ(Text(EscapeFilter("J\xc3\xbcrgen")), "J\xc3\xbcrgen");
  EXPECT_EQ(Text(EscapeDN("#a,b+c\"d\\e<f>g;h=i ")), "\\#a\\,b\\+c\\\"d\\\\e\\<f\\>g\\;h\\=i\\ ");
  EXPECT_EQ(Text(EscapeDN(" a b#c")), "\\ a b#c");
  EXPECT_EQ(Text(EscapeDN(SString("a\0", 2))), "a\\00");
  EXPECT_EQ(Text(EscapeDN(" ")), "\\ ");
}

TEST_F(LdapTest, TextIsUtf8WithoutNul) {
  for (char const *good : {"", "plain", "\xc3\xbc", "\xe2\x82\xac", "\xf0\x9f\x93\xa7", "\xef\xbf\xbd"})
    EXPECT_TRUE(IsDirectoryText(good)) << good;
  for (char const *bad : {"\xff", "\x80", "\xc3", "\xc0\x80", "\xe0\x80\x80", "\xed\xa0\x80", "\xf0\x80\x80\x80",
                          "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xe2\x82", "a\xe4z"})
    EXPECT_FALSE(IsDirectoryText(bad)) << bad;
  EXPECT_FALSE(IsDirectoryText(SString("a\0b", 3)));
}

TEST_F(LdapTest, SimpleBinds) {
  Slapd const server(root);
  struct {
    char const *name, *password;
    SLdapResult want;
    char const *why;
  } const rows[] = {
      {kAnn, "an apple", kDone, "right"},
      {kAnn, "an orange", kRefused, "wrong"},
      {"uid=nobody,dc=example,dc=org", "an apple", kRefused, "nobody of that name"},
      {"not a name", "an apple", kRefused, "no DN"},
      {"", "", kDone, "anonymous"},
      {kAnn, "", kRefused, "would be taken for anonymous"},
      {"", "an apple", kRefused, "may be taken for anonymous"},
  };
  for (auto const &row : rows) {
    SLdap ldap({});
    ASSERT_EQ(ldap.Open(Bytes(server.Url()), kClear), kDone);
    EXPECT_EQ(ldap.BindSimple(row.name, row.password), row.want) << row.why << ": " << ldap.ErrorText();
  }
  SLdap ldap({});
  ASSERT_EQ(ldap.Open(Bytes(server.Url()), kClear), kDone);
  EXPECT_EQ(ldap.BindSimple(kAnn, SString('x', 1 << 20)), kRefused);
  EXPECT_EQ(ldap.BindSimple(SString("uid=ann\0", 8), "x"), kRefused) << "a name must not end at a NUL";
}

TEST_F(LdapTest, ChallengesThatHideThePassword) {
  Slapd const server(root);
  for (auto const &[password, want] : {std::pair("an apple", kDone), std::pair("an orange", kRefused)}) {
    SLdap ldap({});
    ASSERT_EQ(ldap.Open(Bytes(server.Url()), kClear), kDone);
    EXPECT_EQ(ldap.BindSasl("ann", password), want) << ldap.ErrorText();
  }
  SLdap ldap({});
  ASSERT_EQ(ldap.Open(Bytes(server.Url()), kClear), kDone);
  EXPECT_EQ(ldap.BindSasl("nobody", "an apple"), kRefused);
}

TEST_F(LdapTest, NothingWeakerThanAChallenge) {
  Slapd::Options options;
  options.sasl = false;
  Slapd const server(root, options);
  SLdap ldap({});
  ASSERT_EQ(ldap.Open(Bytes(server.Url()), kClear), kDone);
  EXPECT_EQ(ldap.BindSasl("ann", "an apple"), kUnusable);
}

TEST_F(LdapTest, FirstEntryOfASearch) {
  Slapd::Options options;
  options.more =
      "dn: uid=star*,ou=people,dc=example,dc=org\nobjectClass: inetOrgPerson\nuid: star*\ncn: s\nsn: s\n"
      "mail: shared@example.org\n\n"
      "dn: uid=bob,ou=people,dc=example,dc=org\nobjectClass: inetOrgPerson\nuid: bob\ncn: b\nsn: b\n"
      "mail: shared@example.org\n\n"
      "dn: cn=silent,ou=people,dc=example,dc=org\nobjectClass: inetOrgPerson\ncn: silent\nsn: b\n"
      "mail: silent@example.org\n\n";
  Slapd const server(root, options);
  struct {
    char const *base, *filter, *dn, *uid;
    SLdapResult want;
  } const rows[] = {
      {kBase, "(mail=ann@example.org)", kAnn, "ann", kDone},
      {kBase, "mailLogin=ANN", kAnn, "ann", kDone},
      {kBase, "(uid=star\\2a)", "uid=star*,ou=people,dc=example,dc=org", "star*", kDone},
      {kBase, "(mail=shared@example.org)", "uid=star*,ou=people,dc=example,dc=org", "star*", kDone},
      {kBase, "(mail=silent@example.org)", "cn=silent,ou=people,dc=example,dc=org", "", kDone},
      {kBase, "(mail=nobody@example.org)", "", "", kDone},
      {"dc=elsewhere", "(mail=ann@example.org)", "", "", kRefused},
      {"no base", "(mail=ann@example.org)", "", "", kRefused},
      {kBase, "(mail=", "", "", kRefused},
      {kBase, "\xff", "", "", kRefused},
  };
  SLdap ldap({});
  ASSERT_EQ(ldap.Open(Bytes(server.Url()), kClear), kDone);
  for (auto const &row : rows) {
    SLdapEntry entry;
    EXPECT_EQ(ldap.FindFirst(row.base, row.filter, "uid", entry), row.want) << row.base << row.filter;
    EXPECT_EQ(Text(entry.dn), row.dn) << row.filter;
    EXPECT_EQ(Text(entry.value), row.uid) << row.filter;
  }
}

TEST_F(LdapTest, TlsTrustsOnlyTheNamedAuthoritiesAndHost) {
  Certificate const right(root), other(root, "DNS:other.example.org");
  Slapd::Options options;
  options.certificate = &right;
  Slapd const server(root, options);
  options.certificate = &other;
  Slapd const stranger(root, options);
  // What a user may have set to turn the checks off must not count.
  setenv("LDAPTLS_REQCERT", "never", 1);
  setenv("LDAPTLS_CACERT", right.file.c_str(), 1);
  PutFile("ldaprc", "TLS_REQCERT never\nURI ldap://127.0.0.1:1\n");
  setenv("LDAPCONF", Path("ldaprc").c_str(), 1);
  struct {
    Slapd const *server;
    std::string authorities;
    SLdapResult want;
    char const *why;
  } const rows[] = {
      {&server, right.file, kDone, "trusted"},
      {&server, other.file, kUnreachable, "signed by another authority"},
      {&server, "", kUnreachable, "not signed by an authority of the system"},
      {&stranger, other.file, kUnreachable, "made out to another host"},
      {&server, Path("none.pem"), kUnusable, "no such file"},
  };
  for (auto const &row : rows) {
    if (row.authorities.empty() && access("/etc/ssl/certs/ca-certificates.crt", R_OK) != 0) continue;
    SLdap direct(Trusting(row.authorities)), upgraded(Trusting(row.authorities));
    SString const url = Bytes("LDAP://127.0.0.1:" + row.server->TlsPort());
    EXPECT_EQ(direct.Open(url, kTls), row.want) << row.why;
    EXPECT_EQ(direct.BindSimple(kAnn, "an apple"), row.want == kDone ? kDone : kUnreachable) << row.why;
    EXPECT_EQ(upgraded.Open(Bytes(row.server->Url()), kClear), kDone);
    EXPECT_EQ(upgraded.StartTls(), row.want) << row.why;
    EXPECT_EQ(upgraded.BindSimple(kAnn, "an apple"), row.want == kDone ? kDone : kUnreachable)
        << row.why << ": nothing more goes over that connection";
  }
  SLdap byScheme(Trusting(right.file));
  EXPECT_EQ(byScheme.Open(Bytes("LDAPS://127.0.0.1:" + server.TlsPort()), kClear), kDone);
  EXPECT_EQ(byScheme.BindSasl("ann", "an apple"), kDone) << byScheme.ErrorText();
  EXPECT_EQ(getenv("LDAPNOINIT"), nullptr) << "children see the environment as it was";
}

TEST_F(LdapTest, ServerWithoutTlsStaysUsable) {
  Slapd const server(root);
  Certificate const certificate(root);
  SLdap ldap(Trusting(certificate.file));
  ASSERT_EQ(ldap.Open(Bytes(server.Url()), kClear), kDone);
  EXPECT_EQ(ldap.StartTls(), kRefused);
  EXPECT_EQ(ldap.BindSasl("ann", "an apple"), kDone) << ldap.ErrorText();
}

TEST_F(LdapTest, DeadAndHangingServersAreUnreachable) {
  HangingServer const hanging;
  Certificate const certificate(root);
  SString const dead = Bytes("LDAP://127.0.0.1:" + DeadPort()), silent = Bytes("LDAP://127.0.0.1:" + hanging.Port());
  EXPECT_EQ(SLdap(Quick()).Open(dead, kClear), kUnreachable);
  EXPECT_EQ(SLdap(Quick()).Open("LDAP://no-such-host.invalid", kClear), kUnreachable);
  for (char const *step : {"bind", "challenge", "search", "tls"}) {
    SLdapOptions options = Quick();
    options.authorities = Bytes(certificate.file);
    SLdap ldap(options);
    SLdapEntry entry;
    ASSERT_EQ(ldap.Open(silent, kClear), kDone);
    SLdapResult const result = *step == 'b'   ? ldap.BindSimple(kAnn, "an apple")
                               : *step == 'c' ? ldap.BindSasl("ann", "an apple")
                               : *step == 's' ? ldap.FindFirst(kBase, "(uid=*)", "uid", entry)
                                              : ldap.StartTls();
    EXPECT_EQ(result, kUnreachable) << step;
    EXPECT_EQ(ldap.BindSimple(kAnn, "an apple"), kUnreachable) << step << ": the time is up for all steps";
  }
  SLdapOptions options = Quick();
  options.authorities = Bytes(certificate.file);
  EXPECT_EQ(SLdap(options).Open(silent, kTls), kUnreachable) << "no handshake";
}

TEST_F(LdapTest, NothingIsAskedWithoutAnAddress) {
  SLdap ldap({});
  EXPECT_EQ(ldap.Open("LDAP://host:port", kClear), kUnusable);
  EXPECT_EQ(ldap.BindSimple(kAnn, "an apple"), kUnreachable);
  EXPECT_EQ(ldap.BindSasl("ann", "an apple"), kUnreachable);
  EXPECT_EQ(ldap.StartTls(), kUnreachable);
}

// A server that answers the first request with some bytes, and then hangs up, or hangs until its end.
class BadServer : public HangingServer {
public:
  BadServer(std::string const &answer, bool hangsUp) {
    _peer = std::thread([this, answer, hangsUp] {
      _fd = accept(Socket(), nullptr, nullptr);
      char request[512];
      (void)!read(_fd, request, sizeof request);
      (void)!send(_fd, answer.data(), answer.size(), MSG_NOSIGNAL);
      if (hangsUp) (void)shutdown(_fd, SHUT_RDWR);
    });
  }
  ~BadServer() {
    _peer.join();
    close(_fd);
  }
  SString Url() const { return Bytes("LDAP://127.0.0.1:" + Port()); }

private:
  std::thread _peer;
  int _fd = -1;
};

SLdapResult BindAgainst(std::string const &answer) {
  BadServer const server(answer, true);
  SLdap ldap({});
  SLdapResult const result = ldap.Open(server.Url(), kClear);
  return result == kDone ? ldap.BindSimple(kAnn, "an apple") : result;
}

TEST_F(LdapTest, SilenceInTheMiddleOfAnAnswerEndsWithTheTime) {
  Certificate const certificate(root);
  SLdapOptions options = Quick();
  options.authorities = Bytes(certificate.file);
  {
    BadServer const server("\x30\x0c\x02", false);
    SLdap ldap(options);
    ASSERT_EQ(ldap.Open(server.Url(), kClear), kDone);
    EXPECT_EQ(ldap.BindSimple(kAnn, "an apple"), kUnreachable);
  }
  BadServer const server(std::string("\x30\x0c\x02\x01\x01\x78\x07\x0a\x01\x00\x04\x00\x04\x00", 14), false);
  SLdap ldap(options);
  ASSERT_EQ(ldap.Open(server.Url(), kClear), kDone);
  EXPECT_EQ(ldap.StartTls(), kUnreachable) << "agrees to TLS, and says nothing more";
}

TEST_F(LdapTest, AnswersAreSortedIntoRefusedAndUnreachable) {
  auto const answer = [](char code) {
    return std::string("\x30\x0c\x02\x01\x01\x61\x07\x0a\x01", 9) + code + std::string("\x04\x00\x04\x00", 4);
  };
  auto const talk = [](std::string text) {  // success, with a message of so many bytes
    auto const part = [](std::string const &tag, std::string const &bytes) {
      std::uint32_t const length = htonl(static_cast<std::uint32_t>(bytes.size()));
      return tag + "\x84" + std::string(reinterpret_cast<char const *>(&length), sizeof length) + bytes;
    };
    return part("\x30", "\x02\x01\x01" + part("\x61", std::string("\x0a\x01\x00\x04\x00", 5) + part("\x04", text)));
  };
  struct {
    std::string bytes;
    SLdapResult want;
    char const *why;
  } const rows[] = {
      {answer(0), kDone, "success"},
      {talk(std::string(100000, 'x')), kDone, "a long message"},
      {talk(std::string(5 << 20, 'x')), kUnreachable, "more than a directory has to say"},
      {answer(49), kRefused, "invalid credentials"},
      {answer(51), kRefused, "busy"},
      {answer(52), kUnreachable, "unavailable"},
      {answer(53), kRefused, "unwilling"},
      {answer(10), kRefused, "a referral is not followed"},
      {"", kUnreachable, "hangs up"},
      {"HTTP/1.0 400 Bad Request\r\n\r\n", kUnreachable, "another protocol"},
      {"\x30\x84\xff\xff\xff\xff", kUnreachable, "a length of 4 GB"},
  };
  for (auto const &row : rows) EXPECT_EQ(BindAgainst(row.bytes), row.want) << row.why;
}

}  // namespace
