// Accounts and aliases.
#include "brenthaven/store/sbtree.h"
#include "tests/command/command_fixture.h"

namespace {

class AccountCommandTest : public CommandTest {
protected:
  AccountCommandTest() {
    Init();
    Good({"account", "add", "ann", "--name", "Ann Lee", "--address", "ann@example.org", "a.lee@example.org"});
  }
};

TEST_F(AccountCommandTest, CallAndAnswerTable) {
  struct {
    Words args;
    int code;
    std::string out;
  } const rows[] = {
      {{"account", "show", "ann"},
       0,
       "Local-Delivery: Mailbox\nName: Ann Lee\nPOP-Address: ann\nSMTP-Address: ann@example.org\n"
       "SMTP-Address: a.lee@example.org\nSMTP-RewriteStyle: comment\n"},
      {{"account", "add", "ann", "--address", "other@example.org"}, EX_CANTCREAT, ""},
      {{"account", "add", "bob", "--address", "ann@example.org"}, EX_CANTCREAT, ""},
      {{"account", "show", "bob"}, EX_NOUSER, ""},  // half an account would take mail that it cannot deliver
      {{"account", "add", "bob", "--address", "no address"}, EX_DATAERR, ""},
      {{"account", "add", "../bob", "--address", "bob@example.org"}, EX_DATAERR, ""},
      {{"account", "add", "--name", "Bob Ray", "--address", "bob@example.org"}, 0, "Bob_Ray\n"},
      {{"account", "set", "Bob_Ray", "SMTP-Address", "bob@example.org", "ray@example.org"}, 0, ""},
      {{"account", "get", "Bob_Ray", "SMTP-Address"}, 0, "bob@example.org\nray@example.org\n"},
      {{"account", "set", "Bob_Ray", "SMTP-Address", "ann@example.org"}, EX_CANTCREAT, ""},
      {{"account", "get", "Bob_Ray", "SMTP-Address"}, 0, "bob@example.org\nray@example.org\n"},
      {{"account", "set", "made/up", "Name", "x"}, EX_DATAERR, ""},
      {{"account", "set", "ann", "No-Such", "x"}, EX_DATAERR, ""},
      {{"account", "find", "SMTP-Address", "RAY@example.org"}, 0, "Bob_Ray\n"},
      {{"account", "find", "SMTP-Address", "nobody@example.org"}, EX_NOUSER, ""},
      {{"account", "find", "Password", "secret"}, EX_DATAERR, ""},
      {{"account", "lock", "ann"}, 0, ""},
      {{"account", "get", "ann", "Locked"}, 0, "yes\n"},
      {{"account", "unlock", "ann"}, 0, ""},
      {{"account", "unlock", "ann"}, 0, ""},
      {{"account", "get", "ann", "Locked"}, 0, ""},
      {{"account", "lock", "nobody"}, EX_NOUSER, ""},
      {{"account", "show", "nobody"}, EX_NOUSER, ""},
      {{"account", "delete", "Bob_Ray"}, 0, ""},
      {{"account", "delete", "Bob_Ray"}, EX_NOUSER, ""},
      {{"account", "find", "SMTP-Address", "ray@example.org"}, EX_NOUSER, ""},
      {{"alias", "set", "team@example.org", "ann@example.org", "<x@far.example>"}, 0, ""},
      {{"alias", "set", "bad@", "ann@example.org"}, EX_DATAERR, ""},
      {{"alias", "set", "team@example.org", "ann@example.org", "b@@x"}, EX_DATAERR, ""},
      {{"alias", "list"}, 0, "<team@example.org>:\n    SMTP <ann@example.org>\n    SMTP <x@far.example>\n"},
      {{"alias", "delete", "team@example.org"}, 0, ""},
      {{"alias", "delete", "team@example.org"}, EX_NOUSER, ""},
      {{"alias", "list"}, 0, ""},
  };
  for (auto const &row : rows) {
    ProgramRun const run = Brenthaven(row.args);
    std::string const call = row.args[0] + " " + row.args[1] + " " + (row.args.size() > 2 ? row.args[2] : "");
    EXPECT_EQ(run.code, row.code) << call << ": " << run.err;
    EXPECT_EQ(run.out, row.out) << call;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), row.code == 0 ? 0 : 1) << call << ": " << run.err;
  }
}

TEST_F(AccountCommandTest, PasswordIsSetAndNowherePrinted) {
  Good({"account", "password", "ann"}, "s3cret word\nsecond line\n");
  Good({"account", "set", "ann", "Raw-Password", "r4w"});
  for (Words const &args : {Words{"account", "show", "ann"}, Words{"account", "show", "--json", "ann"}}) {
    std::string const out = Good(args);
    EXPECT_NE(out.find("(hidden)"), std::string::npos) << out;
    EXPECT_EQ(out.find("r4w"), std::string::npos) << out;
    EXPECT_EQ(out.find("s3cret"), std::string::npos) << out;
  }
  EXPECT_EQ(Brenthaven({"account", "get", "ann", "Password"}).code, EX_NOPERM);
  EXPECT_EQ(Brenthaven({"account", "password", "ann"}, "\n").code, EX_DATAERR);
  EXPECT_EQ(Brenthaven({"account", "password", "nobody"}, "x\n").code, EX_NOUSER);
}

TEST_F(AccountCommandTest, UserLimitHoldsForAdd) {
  Good({"config", "set", "MTA-Accounts//UserLimit", "1"});
  EXPECT_EQ(Brenthaven({"account", "add", "bob", "--address", "bob@example.org"}).code, EX_NOPERM);
}

TEST_F(AccountCommandTest, CheckFindsEachFileOutOfStep) {
  EXPECT_NE(Good({"account", "check"}).find(" 0 faults\n"), std::string::npos);
  std::string const address(
      "\x11"
      "ann@example.org\0ann",
      20),
      stray(
          "\x11"
          "ghost@example.org\0ann",
          22);
  {
    SBTree index("BTAccounts.i", 0);
    index.LockWrite();
    ASSERT_TRUE(index.Delete(SString(std::string_view(address))));
    ASSERT_TRUE(index.Set(SString(std::string_view(stray)), ""));
    index.UnlockWrite();
  }
  ProgramRun const run = Brenthaven({"account", "check"});
  EXPECT_EQ(run.code, EX_DATAERR);
  EXPECT_NE(run.out.find(" 2 faults\n"), std::string::npos) << run.out;
  EXPECT_TRUE(HasLine(run.out, "ann: SMTP-Address: a value is missing in the index")) << run.out;
  EXPECT_TRUE(HasLine(run.out, "ann: SMTP-Address: the index has a value that the account lacks")) << run.out;
}

TEST_F(AccountCommandTest, BackupIsAWholeCopy) {
  Good({"account", "backup"});
  for (char const *file : {"config/BTAccounts.a", "config/BTAccounts.i"})
    EXPECT_EQ(FileBytes(std::string(file) + ".backup"), FileBytes(file)) << file;
}

}  // namespace
