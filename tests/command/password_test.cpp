// Passwords by the command: set, made up, verified, explained, and never shown.
#include <gmock/gmock.h>

#include "tests/command/command_fixture.h"
#include "tests/support/slapd.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class PasswordCommandTest : public CommandTest {
protected:
  PasswordCommandTest() {
    Init();
    Good({"account", "add", "ann", "--address", "ann@example.org"});
  }
  void Set(std::vector<std::pair<char const *, std::string>> const &attributes) const {
    for (auto const &[name, value] : attributes) Good({"account", "set", "ann", name, value});
  }
  std::string Method() const { return Good({"account", "method", "ann"}); }
};

TEST_F(PasswordCommandTest, MadeUpPasswordIsPrintedOnceAndVerifies) {
  std::string const password = Good({"account", "password", "ann", "--generate"});
  EXPECT_EQ(password.size(), 21u);
  EXPECT_NE(password, Good({"account", "password", "ann", "--generate"}));
  std::string const second = Good({"account", "password", "ann", "--generate"});
  EXPECT_EQ(Good({"account", "verify", "ann"}, second), "right, says AccountDB\n");
  ProgramRun const wrong = Brenthaven({"account", "verify", "ann"}, password);
  EXPECT_EQ(wrong.code, EX_NOPERM);
  EXPECT_THAT(wrong.err, HasSubstr("not right, says AccountDB: it is wrong"));
  EXPECT_THAT(wrong.err, Not(HasSubstr(password.substr(0, 20))));
}

TEST_F(PasswordCommandTest, InputIsBoundedAndCheckedFirst) {
  EXPECT_EQ(Brenthaven({"account", "password", "ann"}, std::string((1 << 20) + 1, 'x')).code, EX_DATAERR);
  EXPECT_EQ(Brenthaven({"account", "password", "ann"}, std::string(1 << 20, 'x')).code, EX_CANTCREAT);
  EXPECT_EQ(Brenthaven({"account", "verify", "ann"}, std::string(1 << 20, 'x')).code, EX_NOPERM);
  EXPECT_EQ(Brenthaven({"account", "verify", "ann"}, "").code, EX_DATAERR);
  EXPECT_EQ(Brenthaven({"account", "verify", "nobody"}, "x\n").code, EX_NOUSER);
  EXPECT_EQ(Brenthaven({"account", "method", "nobody"}).code, EX_NOUSER);
  Good({"account", "password", "ann"}, "right\n");
  Good({"account", "lock", "ann"});
  ProgramRun const locked = Brenthaven({"account", "verify", "ann"}, "right\n");
  EXPECT_EQ(locked.code, EX_NOPERM);
  EXPECT_THAT(locked.err, HasSubstr("locked"));
  Good({"config", "set", "MTA-Accounts//PasswordScheme", "strong"});
  EXPECT_THAT(Brenthaven({"account", "password", "ann"}, "x\n").err, HasSubstr("PasswordScheme"));
}

TEST_F(PasswordCommandTest, MethodTellsWhatWouldBeAsked) {
  EXPECT_EQ(Method(), "method: AccountDB\nform: no password\n");
  Good({"config", "set", "MTA-Accounts//PasswordScheme", "yescrypt"});
  Good({"account", "password", "ann"}, "right\n");
  EXPECT_EQ(Method(), "method: AccountDB\nform: yescrypt\n");
  Set({{"Use-Logon-PW", "yes"}});
  ProgramRun const unusable = Brenthaven({"account", "method", "ann"});
  EXPECT_EQ(unusable.code, EX_CONFIG);
  EXPECT_EQ(unusable.out, "method: NTLM\n");
  Set({{"Logon-Id", "CORP\\ann"}});
  EXPECT_EQ(Method(), "method: NTLM\nuser: CORP\\ann\n");
  Set({{"Logon-Auth-Method", "LDAP"},
       {"LDAP-Server", "one.example"},
       {"LDAP-Server2", "two.example"},
       {"LDAP-Port", "636"},
       {"LDAP-Secure-Transport", "yes"},
       {"LDAP-DN", "uid=%s,dc=example"},
       {"POP-Address", "ann,quill"}});
  EXPECT_EQ(Method(),
            "method: LDAP\nserver: LDAP://one.example:636\nsecond server: LDAP://two.example:636\ntransport: TLS\n"
            "bind: simple\nname: uid=ann\\,quill,dc=example\n");
  Set({{"LDAP-UseDefault", "yes"}});
  EXPECT_EQ(Brenthaven({"account", "method", "ann"}).code, EX_CONFIG);
  Good({"config", "import"},
       "[LDAP-Reference/Config]\nLDAP-Reference-Host = \"ref.example\"\nLDAP-Reference-Port = \"389\"\n"
       "LDAP-Reference-DN = \"dc=example\"\nLDAP-Reference-Auth-Attribute = \"uid\"\n"
       "LDAP-Reference-Admin-DN = \"cn=reader\"\nLDAP-Reference-Admin-Passwd = \"s3cret\"\n");
  EXPECT_EQ(Method(),
            "method: LDAP\nserver: LDAP://ref.example:389/dc=example\ntransport: clear\nbind: simple\n"
            "searched as: cn=reader\nsearched for: uid=ann,quill\n");
  Set({{"Logon-Auth-Method", "ActiveDirectory"}, {"ActiveDirectory-Domain-User-Name", "ann@corp.example"}});
  EXPECT_EQ(Good({"account", "method", "ann", "--json"}),
            "{\n  \"method\": \"ActiveDirectory\",\n  \"server\": \"LDAP://corp.example\",\n"
            "  \"transport\": \"clear\",\n  \"bind\": \"within TLS, or else by a challenge\",\n"
            "  \"name\": \"ann@corp.example\"\n}\n");
}

TEST_F(PasswordCommandTest, DirectoryIsAsked) {
  Slapd const server(root);
  Set({{"Logon-Auth-Method", "LDAP"},
       {"LDAP-Server", "127.0.0.1"},
       {"LDAP-Port", server.Port()},
       {"LDAP-DN", "uid=%s,ou=people,dc=example,dc=org"}});
  EXPECT_EQ(Good({"account", "verify", "ann"}, "an apple\n"), "right, says LDAP\n");
  EXPECT_THAT(Brenthaven({"account", "verify", "ann"}, "an orange\n").err, HasSubstr("(-3)"));
}

}  // namespace
