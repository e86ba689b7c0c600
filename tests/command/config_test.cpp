// init and the settings.
#include <sys/stat.h>

#include "tests/command/command_fixture.h"

namespace {

class ConfigTest : public CommandTest {
protected:
  ConfigTest() { Init(); }
};

TEST_F(ConfigTest, InitTwiceKeepsWhatTheAdministratorChanged) {
  std::string const environment = FileBytes("config/environment") + "MaxDirectDelivery=3\n";
  PutFile("config/environment", environment);
  Good({"config", "set", "Mailbox-Deliver/Messages/OverQuotaMessage", "Full."});
  Good({"account", "set", "Postmaster", "Name", "Ann Lee"});
  Init();
  EXPECT_EQ(FileBytes("config/environment"), environment);
  EXPECT_EQ(Good({"config", "get", "Mailbox-Deliver/Messages/OverQuotaMessage"}), "Full.\n");
  EXPECT_EQ(Good({"config", "get", "MTA-Accounts//LocalMailDomains"}), "example.org\n") << "not named twice";
  EXPECT_EQ(Good({"account", "get", "Postmaster", "Name"}), "Ann Lee\n");
  EXPECT_EQ(Brenthaven({"init", "--domain", "a/../b", "--host", "h"}).code, EX_DATAERR);
}

TEST_F(ConfigTest, InitGivesAnOlderInstanceWhatListsNeed) {
  std::string const environment = FileBytes("config/environment");
  size_t const line = environment.find("\nFormSigKey=");
  ASSERT_NE(line, std::string::npos);
  size_t const secret = line + std::string("\nFormSigKey=").size();
  EXPECT_EQ(environment.find_first_not_of("0123456789abcdef", secret), secret + 32);
  PutFile("config/environment", "HostName=mail.example.org");
  Init();
  std::string const mended = FileBytes("config/environment");
  EXPECT_TRUE(mended.starts_with("HostName=mail.example.org\n#"));
  EXPECT_NE(mended.find("\nFormSigKey="), std::string::npos);
  EXPECT_EQ(mended.find(environment.substr(secret, 32)), std::string::npos) << "a secret of its own";
  EXPECT_NE(Good({"config", "get", "List-Manager/Messages/AuthKeyRequest"}).find("<+++AuthKey+++>"), std::string::npos);
  EXPECT_TRUE(Exists("List-Exploder/approval"));
}

TEST_F(ConfigTest, CallsWithoutAnInstanceSaySo) {
  ProgramRun run = Brenthaven({"--root", Path("nowhere"), "config", "list"});
  EXPECT_EQ(run.code, EX_NOINPUT);
  EXPECT_NE(run.err.find("brenthaven init"), std::string::npos) << run.err;
  unsetenv("Brenthaven");
  EXPECT_EQ(Brenthaven({"account", "list"}).code, EX_USAGE);
  EXPECT_EQ(Brenthaven({"--root", root + "//", "account", "get", "Postmaster", "Name"}).out, "Postmaster\n");
}

TEST_F(ConfigTest, RootThatStrangersCanWriteInIsRefused) {
  ASSERT_EQ(chmod(root.c_str(), 0777), 0);
  for (Words const &call : {Words{"account", "list"}, Words{"init", "--domain", "example.org", "--host", "h"}}) {
    ProgramRun const run = Brenthaven(call);
    EXPECT_EQ(run.code, EX_CONFIG) << call[0];
    EXPECT_EQ(run.err, "brenthaven: others can write in " + root + "; narrow its mode: chmod o-w\n");
  }
  EXPECT_EQ(Sendmail({"a@b.c"}, "A: b\n\nx\n").code, EX_CONFIG);
  ASSERT_EQ(chmod(root.c_str(), 0775), 0);
  Good({"account", "list"});
}

TEST_F(ConfigTest, PathAndAnswerTable) {
  struct {
    Words args;
    int code;
    std::string out;
  } const rows[] = {
      {{"set", "SMTP-Router/Config/Odd", "one", "", "two  words"}, 0, ""},
      {{"get", "SMTP-Router/Config/Odd"}, 0, "one\n\ntwo  words\n"},
      {{"set", "A/b/c/key", "deep"}, 0, ""},
      {{"list", "A"}, 0, "A/b/c/key = \"deep\"\n"},
      {{"list", "A/b/c"}, 0, "A/b/c/key = \"deep\"\n"},
      {{"set", "A//key", "own"}, 0, ""},
      {{"get", "A//key"}, 0, "own\n"},
      {{"unset", "A//key"}, 0, ""},
      {{"get", "A//key"}, EX_NOINPUT, ""},
      {{"unset", "A//key"}, EX_NOINPUT, ""},
      {{"get", "A/none/key"}, EX_NOINPUT, ""},
      {{"set", "A/key", "v"}, EX_USAGE, ""},
      {{"set", "/Config/key", "v"}, EX_USAGE, ""},
      {{"set", "A/Config/", "v"}, EX_USAGE, ""},
      {{"set", "A/Config/key"}, EX_USAGE, ""},
      {{"list", "AuxPassword"}, EX_NOPERM, ""},
      {{"export", "AuxPassword/x"}, EX_NOPERM, ""},
  };
  for (auto const &row : rows) {
    Words args = row.args;
    args.insert(args.begin(), "config");
    ProgramRun const run = Brenthaven(args);
    EXPECT_EQ(run.code, row.code) << row.args[0] << " " << row.args[1] << ": " << run.err;
    EXPECT_EQ(run.out, row.out) << row.args[0] << " " << row.args[1];
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), row.code == 0 ? 0 : 1) << run.err;
  }
}

TEST_F(ConfigTest, ExportIsReadBackByteForByte) {
  std::string every;
  for (int byte = 0; byte < 256; ++byte)
    if (byte != '\n' && byte != '\r' && byte != '"' && byte != '\\' && (byte >= 0x20 || byte == '\t') && byte != 0x7F)
      every += static_cast<char>(byte);
  std::string const text = "# kept by hand\r\n\r\n  [Odd/a b]c]\r\nplain.key-1 = \"" + every +
                           "\" \"\" \"\\x00\\x1f\\x7F\\n\\r\\t\\\"\\\\\"\r\n\"key = \\\"\\n[/]\" = \"v\"\nempty =\n";
  EXPECT_EQ(Good({"config", "import"}, text), "3 settings stored\n");
  EXPECT_EQ(Good({"config", "get", "Odd/a b]c/plain.key-1"}),
            every + "\n\n" + std::string("\0\x1f\x7f\n\r\t\"\\\n", 9));

  Good({"alias", "set", "team@example.org", "ann@example.org", "bob@far.example"});
  std::string const exported = Good({"config", "export"});
  Good({"--root", Path("second"), "init", "--domain", "example.net", "--host", "mail.example.net"});
  Good({"--root", Path("second"), "config", "import"}, exported);
  EXPECT_EQ(Good({"--root", Path("second"), "config", "export"}), exported);
}

TEST_F(ConfigTest, SlipInAnImportChangesNothing) {
  std::string const before = Good({"config", "export"});
  struct {
    char const *line, *why;
  } const rows[] = {
      {"B = \"open", "quote without its end"},
      {"B = \"bad\\q\"", "escape that is none"},
      {"B = \"cut\\x1\"", "half a hexadecimal escape"},
      {"B = \"v\" = \"w\"", "something behind the value"},
      {"B \"v\"", "no equals sign"},
      {"= \"v\"", "no key"},
      {"B C = \"v\"", "two keys"},
      {"[NoSlash]", "section without a module"},
      {"[/Config]", "no module"},
      {"[Open/Config", "section without its end"},
      {"[AuxPassword/x]", "passwords"},
  };
  for (auto const &row : rows) {
    ProgramRun const run = Brenthaven({"config", "import"}, std::string("[A/Config]\nA = \"1\"\n") + row.line + "\n");
    EXPECT_EQ(run.code, EX_DATAERR) << row.why;
    EXPECT_EQ(run.err.rfind("brenthaven: line 3: ", 0), 0u) << row.why << ": " << run.err;
  }
  EXPECT_EQ(Brenthaven({"config", "import"}, "A = \"1\"\n").code, EX_DATAERR);
  EXPECT_EQ(Good({"config", "export"}), before);
}

}  // namespace
