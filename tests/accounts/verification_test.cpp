// Whether a password is right, by each of the methods, asked of real directories and of the real system.
#include <gmock/gmock.h>

#include <fstream>

#include "brenthaven/accounts/auxpassword.h"
#include "brenthaven/accounts/logonplan.h"
#include "brenthaven/accounts/passwords.h"
#include "brenthaven/accounts/storedpassword.h"
#include "brenthaven/accounts/systemlogon.h"
#include "brenthaven/store/sdbfile.h"
#include "tests/accounts/support.h"
#include "tests/platform/callhook.h"
#include "tests/support/slapd.h"

namespace {

constexpr char kApple[] = "an apple";
constexpr int kExternal = 1;

SString Bytes(std::string const &text) { return SString(std::string_view(text)); }

class VerificationTest : public AccountFixture {
protected:
  using Attributes = std::vector<std::pair<char const *, std::string>>;

  VerificationTest() {
    unsetenv("PamDirectory");
    unsetenv("LDAPNOINIT");
  }

  static void Setting(char const *module, char const *section, char const *key, std::string const &value) {
    Sdbfile settings(module, 1, kProductWord);
    ASSERT_EQ(settings.Open(section, 1), 1);
    ASSERT_EQ(settings.Set(key, SStringList(Bytes(value))), 1) << key;
  }
  static void Accounts(char const *key, std::string const &value) { Setting("MTA-Accounts", "/", key, value); }
  static void Reference(char const *key, std::string const &value) {
    Setting("LDAP-Reference", "/Config", (std::string("LDAP-Reference-") + key).c_str(), value);
  }

  // The account with these attributes and no others.
  static void Make(SString const &uid, Attributes const &attributes) {
    SAccountDBMod store;
    (void)store.DeleteAccount(uid);
    SAccountMod account;
    ASSERT_EQ(store.ModifyAccount(uid, &account), 1);
    for (auto const &[name, value] : attributes) ASSERT_EQ(account.Set(name, SStringList(Bytes(value))), 1) << name;
  }
  static std::string Verify(SString const &uid, SString const &password, int external = kExternal) {
    constexpr int kUntouched = 77;
    int error = kUntouched;
    SAccount account;
    EXPECT_EQ(SAccountDB().GetAccountInfo(uid, &account), 1);
    unsigned const right = account.VerifyPassword(password, &error, external);
    return (right != 0 ? "right " : "wrong ") + std::to_string(error);
  }
  static std::string VerifyWith(Attributes const &attributes, SString const &password, int external = kExternal) {
    Make("ann", attributes);
    return Verify("ann", password, external);
  }

  // A PAM service of these lines, for this process.
  void PutService(std::string const &lines) const {
    PutFile("pam/brenthaven", lines);
    setenv("PamDirectory", Path("pam").c_str(), 1);
  }
  // A service that takes a user with a password of its own, each as the program that it asks sees them.
  void PutService(std::string const &user, std::string const &password) const {
    PutFile("check", "#!/bin/sh\nread -r password\n[ \"$PAM_USER\" = '" + user + "' ] && [ \"$password\" = '" +
                         password + "' ]\n");
    std::filesystem::permissions(Path("check"), std::filesystem::perms::owner_all);
    PutService("auth required pam_exec.so expose_authtok quiet " + Path("check") +
               "\naccount required pam_permit.so\n");
  }
};

TEST_F(VerificationTest, StoredFormsOfEveryKind) {
  // Made by another implementation of SHA-512 crypt.
  EXPECT_TRUE(IsStoredPassword(
      "Hello world!",
      "$6$saltstring$svn8UoSVapNtMuq1ukKS4tPQd8iKwSMHWjl/O817G3uBnIFNjnQJuesI68u4OTLiBFdcbYEdFCoEOfaS35inz1"));
  for (char const *scheme : {"", "md5", "yescrypt", "sha512"}) {
    SString const stored = MakeStoredPassword(kApple, scheme);
    EXPECT_TRUE(IsStoredPassword(kApple, stored)) << scheme;
    EXPECT_EQ(Text(SchemeOfStored(stored)), *scheme != '\0' ? scheme : "md5");
    EXPECT_NE(Text(stored), Text(MakeStoredPassword(kApple, scheme))) << scheme << ": salted";
    for (char const *wrong : {"", "an apple ", "An apple", "orange"})
      EXPECT_FALSE(IsStoredPassword(wrong, stored)) << scheme;
    EXPECT_FALSE(IsStoredPassword(SString("an apple\0x", 10), stored)) << scheme << ": a NUL ends no password";
    for (int cut : {1, stored.Length() / 2, stored.Length() - 1})
      EXPECT_FALSE(IsStoredPassword(kApple, stored.Segment(0, cut))) << scheme << " cut to " << cut;
    EXPECT_FALSE(IsStoredPassword(SString('x', 1 << 20), stored)) << scheme;
  }
  EXPECT_TRUE(MakeStoredPassword(kApple, "yescrypt").HasPrefix("$y$"));
  for (char const *none : {"plain", "MD5", "$y$"}) EXPECT_FALSE(MakeStoredPassword(kApple, none).Defined()) << none;
  EXPECT_FALSE(MakeStoredPassword(SString("a\0b", 3), "yescrypt").Defined());
  EXPECT_FALSE(MakeStoredPassword(SString('x', 512), "sha512").Defined());
  for (char const *broken : {"$y$", "$6$", "$y$j9T$", "$6$a$b$c", "$1$abc$def", "*", "$y$\xff", "$6$rounds=x$a"})
    EXPECT_FALSE(IsStoredPassword(kApple, broken)) << broken;
}

TEST_F(VerificationTest, SchemeAndCopyFollowTheSettings) {
  Make("ann", {{"Password", kApple}});
  EXPECT_EQ(Values("ann", kAttrPassword)[0].size(), 64u);
  EXPECT_EQ(Text(SAuxPassword().GetPassword("ann")), kApple);
  Accounts("PasswordScheme", "yescrypt");
  Accounts("AuxPasswordStore", "no");
  EXPECT_EQ(Put("ann", kAttrPassword, SStringList("an orange")), 1);
  EXPECT_EQ(Values("ann", kAttrPassword)[0].substr(0, 3), "$y$");
  EXPECT_FALSE(SAuxPassword().GetPassword("ann").Defined()) << "the copy of the old password goes as well";
  EXPECT_EQ(Verify("ann", "an orange"), "right 0");
  EXPECT_EQ(Verify("ann", kApple), "wrong 0");
  EXPECT_EQ(Put("ann", kAttrPassword, SStringList("")), 0);
  EXPECT_EQ(Put("ann", kAttrPassword, SStringList(SString('x', 600))), 0);
  EXPECT_EQ(Put("Default", kAttrPassword, SStringList("")), 1) << "a template may have the empty password";
  Accounts("PasswordScheme", "yescript");
  EXPECT_EQ(Put("ann", kAttrPassword, SStringList(kApple)), 0) << "a slip must not store something weaker";
  EXPECT_EQ(Verify("ann", "an orange"), "right 0");
}

TEST_F(VerificationTest, RawPasswordReplacesTheReadableCopy) {
  Make("ann", {{"Password", kApple}});
  EXPECT_EQ(Put("ann", kAttrRawPassword, SStringList(MakeStoredPassword("an orange", "sha512"))), 1);
  EXPECT_EQ(Verify("ann", "an orange"), "right 0");
  EXPECT_FALSE(SAuxPassword().GetPassword("ann").Defined());
}

TEST_F(VerificationTest, PasswordTooLongToBeReadBackIsRefused) {
  EXPECT_EQ(SAuxPassword().SetPassword("ann", SString('x', 1 << 20)), 0u);
  EXPECT_EQ(SAuxPassword().SetPassword("ann", SString('x', 100000)), 1u);
  EXPECT_EQ(SAuxPassword().GetPassword("ann").Length(), 100000);
  EXPECT_EQ(Put("ann", kAttrPassword, SStringList(SString('x', 1 << 20))), 0);
}

TEST_F(VerificationTest, OneMethodDecides) {
  PutService("me", "an orange");
  std::string const hash = Text(StringCopy(kApple));
  struct {
    Attributes attributes;
    int external;
    char const *apple, *orange, *why;
  } const rows[] = {
      {{}, 1, "right 0", "wrong 0", "nothing said: the store"},
      {{{"Use-Logon-PW", "yes"}, {"Logon-Id", "me"}}, 1, "wrong 0", "right 0", "the system"},
      {{{"Use-Logon-PW", "Yes"}, {"Logon-Id", "me"}}, 1, "right 0", "wrong 0", "no \"yes\""},
      {{{"Logon-Auth-Method", "AccountDB"}, {"Use-Logon-PW", "yes"}, {"Logon-Id", "me"}},
       1,
       "right 0",
       "wrong 0",
       "the method wins"},
      {{{"Logon-Auth-Method", "NTLM"}, {"Logon-Id", "me"}}, 0, "wrong 0", "right 0", "the system"},
      {{{"Logon-Auth-Method", "NTLM"}}, 1, "wrong 0", "wrong 0", "no logon id"},
      {{{"Logon-Auth-Method", "LDAP"}}, 0, "right 0", "wrong 0", "no directory allowed: the store"},
      {{{"Logon-Auth-Method", "LDAP"}, {"Use-Logon-PW", "yes"}}, 0, "right 0", "wrong 0", "no logon id"},
      {{{"Logon-Auth-Method", "LDAP"}, {"Use-Logon-PW", "yes"}, {"Logon-Id", "me"}},
       0,
       "wrong 0",
       "right 0",
       "no directory allowed: the system"},
      {{{"Logon-Auth-Method", "ldap"}}, 1, "right 0", "wrong 0", "no such method: the store"},
      {{{"Logon-Auth-Method", "LDAP"}}, 1, "wrong 0", "wrong 0", "no server"},
      {{{"Logon-Auth-Method", "ActiveDirectory"}}, 0, "right 0", "wrong 0", "no directory allowed: the store"},
  };
  for (auto const &row : rows) {
    Attributes attributes = row.attributes;
    attributes.emplace_back("Raw-Password", hash);
    EXPECT_EQ(VerifyWith(attributes, kApple, row.external), row.apple) << row.why;
    EXPECT_EQ(Verify("ann", "an orange", row.external), row.orange) << row.why;
    EXPECT_EQ(Verify("ann", "", row.external), "wrong 77") << row.why << ": empty, and error left alone";
  }
  Make("ann", {{"Raw-Password", hash}, {"Locked", "no"}});
  EXPECT_EQ(Verify("ann", kApple), "wrong 77") << "locked, whatever the value says";
  SAccount account;
  ASSERT_EQ(SAccountDB().GetAccountInfo("ann", &account), 1);
  EXPECT_EQ(account.VerifyPassword(kApple, 1), 0u);
  EXPECT_EQ(SAccount().VerifyPassword(kApple, 1), 0u) << "an account that was never found";
}

TEST_F(VerificationTest, LockThatCannotBeReadKeepsTheAccountShut) {
  Make("ann", {{"Password", kApple}, {"Locked", "yes"}});
  for (int call = 1, total = call; total >= call; ++call) {
    SAccountDB().DBReOpen();
    SAccountBase::ClearReadFailed();
    SCallHook const hook("", call, EMFILE);
    SAccount account;
    EXPECT_EQ(SAccountDB().GetAccountInfo("ann", &account) != 0 && account.VerifyPassword(kApple, 1) != 0, false)
        << "call " << call;
    total = hook.Total();
  }
}

TEST_F(VerificationTest, SystemAsksForUserAndPasswordOnce) {
  struct {
    char const *id, *user;
  } const rows[] = {{"me", "me"}, {".\\me", "me"}, {"DOM\\me", "DOM\\me"}, {"a\\b\\c", "a\\b\\c"}};
  for (auto const &row : rows) {
    PutService(row.user, kApple);
    EXPECT_TRUE(SystemLogon(row.id, kApple)) << row.id;
    EXPECT_FALSE(SystemLogon(row.id, "an orange")) << row.id;
  }
  EXPECT_FALSE(SystemLogon("me", kApple)) << "another user";
  PutService("me", kApple);
  EXPECT_FALSE(SystemLogon(SString("me\0x", 4), kApple));
  EXPECT_FALSE(SystemLogon("me", SString("an apple\0x", 10)));
  EXPECT_FALSE(SystemLogon("me", SString('x', 1 << 20)));
  EXPECT_FALSE(SystemLogon("", kApple));
  EXPECT_FALSE(SystemLogon(".\\", kApple));
  PutService("auth required pam_permit.so\naccount required pam_deny.so\n");
  EXPECT_FALSE(SystemLogon("me", kApple)) << "an account that may not be used";
#ifndef __SANITIZE_ADDRESS__  // PAM itself loses 96 bytes there
  setenv("PamDirectory", Path("none").c_str(), 1);
  EXPECT_FALSE(SystemLogon("me", kApple)) << "no service";
#endif
}

// A user of this machine, without a home, for the life of this object.
class LocalUser {
public:
  explicit LocalUser(std::string const &hash) : name("bht" + std::to_string(getpid())) {
    run = RunProgram("/usr/sbin/useradd", {"useradd", "-M", "-N", "-p", hash, name});
  }
  ~LocalUser() {
    if (run.code == 0) RunProgram("/usr/sbin/userdel", {"userdel", name});
  }
  std::string name;
  ProgramRun run;  // how it was made
};

TEST_F(VerificationTest, UserOfThisMachine) {
  if (getuid() != 0) GTEST_SKIP() << "only root can make a user";
  LocalUser const user(Text(MakeStoredPassword(kApple, "yescrypt")));
  if (user.run.code != 0) GTEST_SKIP() << "no user can be made here: " << user.run.err;
  PutService("auth required pam_unix.so nodelay\naccount required pam_unix.so\n");
  EXPECT_EQ(VerifyWith({{"Logon-Auth-Method", "NTLM"}, {"Logon-Id", user.name}}, kApple), "right 0");
  EXPECT_EQ(Verify("ann", "an orange"), "wrong 0");
  ASSERT_EQ(RunProgram("/usr/bin/chage", {"chage", "-E", "1", user.name}).code, 0);
  EXPECT_EQ(Verify("ann", kApple), "wrong 0") << "the system's account has ended";
}

// Directories. Every account has the POP address "ann" and the name "Ann Quill", unless a test says otherwise.
class DirectoryTest : public VerificationTest {
protected:
  static constexpr char kTemplate[] = "uid=%s,ou=people,dc=example,dc=org";

  static Attributes Own(std::string const &port, Attributes const &more = {}) {
    Attributes attributes = {{"Logon-Auth-Method", "LDAP"}, {"POP-Address", "ann"}, {"Name", "Ann Quill"},
                             {"LDAP-Server", "127.0.0.1"},  {"LDAP-Port", port},    {"LDAP-DN", kTemplate}};
    return Joined(attributes, more);
  }
  static Attributes Active(std::string const &user, std::string const &domain, Attributes const &more = {}) {
    return Joined({{"Logon-Auth-Method", "ActiveDirectory"},
                   {"ActiveDirectory-Domain-User-Name", user},
                   {"ActiveDirectory-Domain", domain}},
                  more);
  }
  static Attributes Joined(Attributes attributes, Attributes const &more) {
    attributes.insert(attributes.end(), more.begin(), more.end());  // the last value of a name stands
    return attributes;
  }
};

TEST_F(DirectoryTest, OwnServer) {
  Slapd::Options options;
  options.more =
      "dn: cn=\\,\\+,ou=people,dc=example,dc=org\nobjectClass: person\ncn: ,+\nsn: x\nuserPassword: an apple\n\n"
      "dn: cn=Ann Quill,ou=people,dc=example,dc=org\nobjectClass: person\ncn: Ann Quill\nsn: x\n"
      "userPassword: an apple\n\n"
      "dn: cn=ann,ou=people,dc=example,dc=org\nobjectClass: person\ncn: ann\nsn: x\nuserPassword: an apple\n\n"
      "dn: cn=ann %s,ou=people,dc=example,dc=org\nobjectClass: person\ncn: ann %s\nsn: x\nuserPassword: an apple\n\n";
  Slapd const server(root, options);
  struct {
    Attributes more;
    char const *password, *want, *why;
  } const rows[] = {
      {{}, kApple, "right 0", "the POP address in the DN"},
      {{}, "an orange", "wrong -3", "refused"},
      {{}, "an appl\xff", "wrong -1", "no UTF-8"},
      {{{"LDAP-DN", "cn=%sn,ou=people,dc=example,dc=org"}}, kApple, "right 0", "the name"},
      {{{"LDAP-DN", "cn=%cn,ou=people,dc=example,dc=org"}}, kApple, "right 0", "the POP address"},
      {{{"LDAP-DN", "cn=%s %s,ou=people,dc=example,dc=org"}}, kApple, "right 0", "the first of two alone"},
      {{{"LDAP-DN", "uid=ann,ou=people,dc=example,dc=org"}}, kApple, "right 0", "no placeholder"},
      {{{"LDAP-DN", "cn=%s,ou=people,dc=example,dc=org"}, {"POP-Address", ",+"}}, kApple, "right 0", "escaped"},
      {{{"POP-Address", "ann,ou=people,dc=example,dc=org,uid=x"}}, kApple, "wrong -3", "no DN of its own"},
      {{{"POP-Address", "\xff"}}, kApple, "wrong -1", "no UTF-8"},
      {{{"LDAP-DN", "%s"}, {"POP-Address", "x"}}, kApple, "wrong -3", "no DN"},
      {{{"LDAP-Auth-Method", "SASL"}, {"LDAP-DN", "%s"}}, kApple, "right 0", "a challenge"},
      {{{"LDAP-Auth-Method", "SASL"}, {"LDAP-DN", "%s"}}, "an orange", "wrong -3", "a challenge, failed"},
      {{{"LDAP-Secure-Transport", "yes"}}, kApple, "wrong -3", "TLS, where there is none: never in clear text"},
      {{{"LDAP-Port", "ldap"}}, kApple, "wrong -3", "a port that is no number"},
      {{{"LDAP-Port", "65536"}}, kApple, "wrong -3", "nor one so high"},
      {{{"LDAP-Server", "no host"}}, kApple, "wrong -3", "no name of a host"},
      {{{"LDAP-Server", ""}}, kApple, "wrong 0", "no server"},
      {{{"LDAP-DN", ""}}, kApple, "wrong 0", "no template"},
  };
  for (auto const &row : rows) EXPECT_EQ(VerifyWith(Own(server.Port(), row.more), row.password), row.want) << row.why;
  Make("ann", Own(server.Port()));
  EXPECT_EQ(Verify("ann", SString("an apple\0", 9)), "wrong -1") << "a NUL";
  EXPECT_EQ(Verify("ann", SString('x', 1 << 20)), "wrong -3") << "1 MiB";
}

// Two servers have the same port, so they stand at two addresses of the loopback net.
TEST_F(DirectoryTest, SecondServerOnlyForOneThatIsOutOfReach) {
  Slapd server(root);
  auto const at = [&](char const *first, char const *second) {
    return Own(server.Port(), {{"LDAP-Server", first}, {"LDAP-Server2", second}});
  };
  EXPECT_EQ(VerifyWith(at("127.0.0.2", "127.0.0.1"), kApple), "right 0") << "nothing listens at the first";
  EXPECT_EQ(Verify("ann", "an orange"), "wrong -3");
  EXPECT_EQ(VerifyWith(at("127.0.0.2", ""), kApple), "wrong -3") << "no second";
  HangingServer const other("127.0.0.2", server.Port());
  EXPECT_EQ(VerifyWith(at("127.0.0.1", "127.0.0.2"), "an orange"), "wrong -3");
  EXPECT_FALSE(other.WasCalled()) << "a refusal is final";
  Accounts("DirectoryTimeout", "2");
  EXPECT_EQ(VerifyWith(at("127.0.0.2", "127.0.0.1"), kApple), "right 0") << "the first hangs";
  server.Stop();
  Accounts("DirectoryTimeout", "0.3");
  EXPECT_EQ(VerifyWith(at("127.0.0.1", "127.0.0.2"), kApple), "wrong -3") << "the first is gone, the second hangs";
}

TEST_F(DirectoryTest, OwnServerWithinTls) {
  Certificate const right(root), other(root, "DNS:other.example.org");
  Slapd::Options options;
  options.certificate = &right;
  Slapd const server(root, options);
  Attributes const secure = Own(server.TlsPort(), {{"LDAP-Secure-Transport", "yes"}});
  Accounts("DirectoryAuthorities", right.file);
  EXPECT_EQ(VerifyWith(secure, kApple), "right 0");
  EXPECT_EQ(VerifyWith(secure, "an orange"), "wrong -3");
  EXPECT_EQ(VerifyWith(Joined(secure, {{"LDAP-Auth-Method", "SASL"}, {"LDAP-DN", "%s"}}), kApple), "right 0");
  Accounts("DirectoryAuthorities", other.file);
  EXPECT_EQ(VerifyWith(secure, kApple), "wrong -3") << "nobody to trust";
  Accounts("DirectoryAuthorities", Path("none"));
  EXPECT_EQ(VerifyWith(secure, kApple), "wrong -3") << "no authorities";
}

TEST_F(DirectoryTest, ActiveDirectoryNames) {
  std::string const dead = "127.0.0.1:" + DeadPort();
  struct {
    char const *user;
    std::string domain;
    char const *want;
  } const rows[] = {
      {"", dead, "wrong -1"},
      {"ann", dead, "wrong -4"},
      {"ann@", dead, "wrong -4"},
      {"ann@ ", "", "wrong -4"},
      {"ann@example.org", dead, "wrong -2"},
      {"ann@x\xff", dead, "wrong -1"},
  };
  for (auto const &row : rows) EXPECT_EQ(VerifyWith(Active(row.user, row.domain), kApple), row.want) << row.user;
  Make("ann", Active("ann@example.org tail", ""));
  SAccount account;
  ASSERT_EQ(SAccountDB().GetAccountInfo("ann", &account), 1);
  EXPECT_EQ(Text(PlanLogon(account, 1).url), "LDAP://example.org") << "the first word behind the @";
}

// A person whose name in the directory holds an "@", so that it can pass for a user principal.
constexpr char kPrincipal[] = "cn=eve@example.org,ou=people,dc=example,dc=org";

TEST_F(DirectoryTest, ActiveDirectoryKeepsThePasswordHidden) {
  Certificate const certificate(root);
  Slapd::Options plain, withTls, bare;
  plain.more = withTls.more = bare.more =
      std::string("dn: ") + kPrincipal +
      "\nobjectClass: person\ncn: eve@example.org\nsn: x\nuserPassword: an apple\n\n"
      "dn: uid=eve@example.org,ou=people,dc=example,dc=org\nobjectClass: inetOrgPerson\nuid: eve@example.org\n"
      "cn: e\nsn: x\nuserPassword: an apple\n\n";
  withTls.certificate = &certificate;
  bare.sasl = false;
  Slapd const server(root, withTls), offersChallenges(root, plain), offersNothing(root, bare);
  auto const at = [](std::string const &port) { return "127.0.0.1:" + port; };
  Attributes const upgraded = Active(kPrincipal, at(server.Port()));
  Attributes const secure = Active(kPrincipal, at(server.TlsPort()), {{"ActiveDirectory-Secure-Transport", "yes"}});
  Attributes const challenged = Active("eve@example.org", at(offersChallenges.Port()));
  Attributes const clear = Active(kPrincipal, at(offersNothing.Port()));
  Accounts("DirectoryAuthorities", certificate.file);
  EXPECT_EQ(VerifyWith(upgraded, kApple), "right 0") << "StartTLS";
  EXPECT_EQ(VerifyWith(upgraded, "an orange"), "wrong -2");
  EXPECT_EQ(VerifyWith(secure, kApple), "right 0");
  EXPECT_EQ(VerifyWith(secure, "an orange"), "wrong -2");
  EXPECT_EQ(VerifyWith(challenged, kApple), "right 0") << "no TLS: a challenge";
  EXPECT_EQ(VerifyWith(challenged, "an orange"), "wrong -2");
  EXPECT_EQ(VerifyWith(clear, kApple), "wrong -2") << "neither: not in clear text";
  Accounts("AllowClearTextBind", "yes");
  EXPECT_EQ(VerifyWith(clear, kApple), "right 0") << "neither, and it is allowed";
  Make("ann", Active(kPrincipal, at(offersChallenges.Port())));
  EXPECT_EQ(Verify("ann", kApple), "wrong -2") << "a challenge that fails is not followed by clear text";
  Accounts("DirectoryAuthorities", Path("none"));
  EXPECT_EQ(VerifyWith(upgraded, kApple), "wrong -2") << "TLS that can't be trusted is the end";
}

TEST_F(DirectoryTest, ReferenceDirectory) {
  Slapd::Options hidden;
  hidden.hidden = true;
  hidden.more =
      "dn: cn=twin1,ou=people,dc=example,dc=org\nobjectClass: person\nobjectClass: mailPerson\ncn: twin1\nsn: x\n"
      "mailLogin: twin\nuserPassword: an apple\n\n"
      "dn: cn=twin/2,ou=people,dc=example,dc=org\nobjectClass: person\nobjectClass: mailPerson\ncn: twin/2\nsn: x\n"
      "mailLogin: slash\nuserPassword: an apple\n\n";
  Slapd const server(root, hidden);
  HangingServer const hanging;
  std::string const dead = DeadPort();
  Attributes const account = {{"Logon-Auth-Method", "LDAP"}, {"LDAP-UseDefault", "yes"}, {"POP-Address", "ann"}};
  EXPECT_EQ(VerifyWith(account, kApple), "wrong -1") << "no settings";
  std::pair<char const *, std::string> const settings[] = {{"Host", "127.0.0.1"},
                                                           {"Host2", ""},
                                                           {"Port", server.Port()},
                                                           {"DN", "dc=example,dc=org"},
                                                           {"Admin-DN", "cn=reader,dc=example,dc=org"},
                                                           {"Admin-Passwd", "reader"},
                                                           {"Auth-Attribute", "mailLogin"}};
  auto const reset = [&] {
    for (auto const &[key, value] : settings) Reference(key, value);
    Accounts("DirectoryTimeout", "10");
  };
  struct {
    char const *key;
    std::string value;
    char const *login;
    SString password;
    char const *want, *why;
  } const rows[] = {
      {"Host2", "", "ann", kApple, "right 0", "found, and bound"},
      {"Host2", "", "ann", "an orange", "wrong -3", "found, and refused"},
      {"Host2", "", "nobody", kApple, "wrong -5", "not found"},
      {"Host2", "", "*", kApple, "wrong -5", "escaped"},
      {"Host2", "", "twin", kApple, "right 0", "another person"},
      {"Host2", "", "slash", kApple, "right 0", "a slash in the DN"},
      {"Host2", "", "ann", SString("an apple\0", 9), "wrong -1", "a NUL"},
      {"Admin-Passwd", "wrong", "ann", kApple, "wrong -3", "the reader is refused"},
      {"Admin-Passwd", "", "ann", kApple, "wrong -3", "a reader without a password is not asked for"},
      {"Admin-DN", "\xff", "ann", kApple, "wrong -1", "no UTF-8"},
      {"DN", "dc=elsewhere", "ann", kApple, "wrong -3", "the search is refused"},
      {"Auth-Attribute", "no such(", "ann", kApple, "wrong -3", "no filter"},
      {"Host", "", "ann", kApple, "wrong -1", "no host"},
      {"Port", "", "ann", kApple, "wrong -1", "no port"},
      {"DN", "", "ann", kApple, "wrong -1", "no base"},
      {"Auth-Attribute", "", "ann", kApple, "wrong -1", "no attribute"},
      {"Port", "many", "ann", kApple, "wrong -3", "a port that is no number"},
      {"Port", dead, "ann", kApple, "wrong -6", "nobody there"},
      {"Host", "127.0.0.2", "ann", kApple, "wrong -6", "nobody there, and no second"},
  };
  for (auto const &row : rows) {
    reset();
    Reference(row.key, row.value);
    EXPECT_EQ(VerifyWith(Joined(account, {{"POP-Address", row.login}}), row.password), row.want) << row.why;
  }
  reset();
  Reference("Host", "127.0.0.2");
  Reference("Host2", "127.0.0.1");
  EXPECT_EQ(VerifyWith(account, kApple), "right 0") << "the second host";
  EXPECT_EQ(VerifyWith(account, "an orange"), "wrong -3");
  reset();
  Reference("Admin-DN", "");
  Reference("Admin-Passwd", "");
  EXPECT_EQ(VerifyWith(account, kApple), "wrong -3") << "anonymous, where nobody may look";
  reset();
  Reference("Port", hanging.Port());
  Accounts("DirectoryTimeout", "0.3");
  EXPECT_EQ(VerifyWith(account, kApple), "wrong -6") << "hangs";
}

TEST_F(DirectoryTest, ReferenceDirectoryForEverybodyAndWithinTls) {
  Certificate const certificate(root);
  Slapd::Options options;
  options.certificate = &certificate;
  Slapd const server(root, options);
  Accounts("DirectoryAuthorities", certificate.file);
  Reference("Host", "127.0.0.1");
  Reference("Port", server.Port());
  Reference("DN", "ou=people,dc=example,dc=org");
  Reference("Auth-Attribute", "mailLogin");
  Attributes const account = {{"Logon-Auth-Method", "LDAP"}, {"LDAP-UseDefault", "yes"}, {"POP-Address", "ann"}};
  EXPECT_EQ(VerifyWith(account, kApple), "right 0") << "searched anonymously";
  SAccount read;
  ASSERT_EQ(SAccountDB().GetAccountInfo("ann", &read), 1);
  EXPECT_EQ(read.VerifyPassword(kApple, nullptr, 1), 1u);
  EXPECT_EQ(read.VerifyPassword("an orange", nullptr, 1), 0u);
  Reference("Port", server.TlsPort());
  EXPECT_EQ(VerifyWith(account, kApple), "wrong -6") << "clear text to a port of TLS";
  Reference("Secure-Transport", "yes");
  EXPECT_EQ(VerifyWith(account, kApple), "right 0");
}

}  // namespace
