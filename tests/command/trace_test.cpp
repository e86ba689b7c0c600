// brenthaven trace: what decides, from the router itself, on an instance that it leaves as it was.
#include <map>

#include "tests/command/command_fixture.h"

namespace {

class TraceTest : public CommandTest {
protected:
  TraceTest() {
    Init();
    Good({"account", "set", "ann", "SMTP-Address", "ann@example.org"});
    Good({"account", "set", "ann", "Name", "Ann Lee"});
    Good({"account", "set", "ann", "SMTP-RewriteStyle", "quoted"});
    Good({"account", "set", "rest", "SMTP-Address", "*@example.org"});
    Good({"alias", "set", "team@example.org", "ann@example.org", "x@old.example"});
  }
  std::string Trace(Words words) const {
    words.insert(words.begin(), "trace");
    return Good(words);
  }
  // Every file below the root with its content and time.
  std::map<std::string, std::string> Everything() const {
    std::map<std::string, std::string> files;
    for (auto const &entry : std::filesystem::recursive_directory_iterator(root))
      files[entry.path()] = entry.is_regular_file()
                                ? FileBytes(entry.path().lexically_relative(root)) +
                                      std::to_string(entry.last_write_time().time_since_epoch().count())
                                : "";
    return files;
  }
};

TEST_F(TraceTest, EachStepNamesWhatDecidedIt) {
  Good({"config", "set", "SMTP-Router//RewriteDomains", "old.example:new.example"});
  Good({"config", "set", "SMTP-Router//RoutingTable", "x.example:y", "new.*:hub.example"});
  Good({"config", "set", "SMTP-Router/Header/Delete", "X-Mailer"});
  Good({"config", "set", "SMTP-Router/Header/Add/Organization", "Example"});
  Good({"config", "set", "SMTP-Router/Config/Archive-Enabled", "yes"});
  Good({"config", "set", "SMTP-Router/Config/Archive-Rule", "<ann@*><team@*><vault><all@vault.example>"});
  auto const before = Everything();
  EXPECT_EQ(Trace({"team@example.org", "anybody@example.org", "--from", "ann@example.org"}),
            "SMTP <ann@example.org>\n"
            "    sender's account ann\n"
            "    header loses     X-Mailer:\n"
            "    header gets      Organization: Example\n"
            "    header says      From: \"Ann Lee\" <ann@example.org>\n"
            "SMTP <team@example.org>\n"
            "    alias            SMTP <ann@example.org>\n"
            "    alias            SMTP <x@old.example>\n"
            "SMTP <anybody@example.org>\n"
            "    local domain     example.org\n"
            "    setting          LocalMailDomains\n"
            "    catch-all        rest\n"
            "    account          rest\n"
            "SMTP <ann@example.org>\n"
            "    account          ann\n"
            "SMTP <x@old.example>\n"
            "    setting          RewriteDomains old.example:new.example\n"
            "    host             new.example\n"
            "    remote domain    new.example\n"
            "    routing line     new.*:hub.example\n"
            "    sent to          hub.example\n"
            "SMTP <all@vault.example>\n"
            "    archive copy     vault#25\n");
  EXPECT_EQ(Trace({"ann@example.org", "--from", "x@far.example"}),
            "SMTP <x@far.example>\n"
            "    no account's     <x@far.example>\n"
            "SMTP <ann@example.org>\n"
            "    account          ann\n");
  EXPECT_TRUE(Everything() == before) << "no file made, changed or gone";
}

// An installation as `init` makes it passes nothing on for strangers: not by "%", and there is no account for all that
// nobody has.
TEST_F(TraceTest, FreshInstanceRelaysNothing) {
  Good({"account", "delete", "rest"});
  for (char const *to :
       {"x%far.example@example.org", "x%far.example%example.org@example.org", "\"x%far.example\"@example.org",
        "x%y%far.example@example.org", "@far.example@example.org", "far.example!x@example.org", "nobody@example.org"})
    for (char const *from : {"a@spam.example", "<>", "", "ann@example.org.spam.example"}) {
      ProgramRun const run = Brenthaven({"trace", to, "--from", from});
      EXPECT_TRUE(run.code == EX_NOUSER || run.code == EX_DATAERR) << to << " from " << from << ": " << run.code;
      EXPECT_EQ(run.out.find("sent to"), std::string::npos) << run.out;
    }
  EXPECT_NE(Trace({"x%far.example@example.org", "--from", "ann@example.org"}).find("sent to          far.example"),
            std::string::npos)
      << "its own senders may";
}

TEST_F(TraceTest, ForcedRoutingIsToldOf) {
  Good({"config", "set", "SMTP-Router//RoutingTable", "example.org:scanner.example"});
  PutFile("config/environment", FileBytes("config/environment") + "ForceRouting=yes\n");
  EXPECT_EQ(Trace({"ann@example.org"}),
            "SMTP <ann@example.org>\n"
            "    setting          ForceRouting\n"
            "    routing line     example.org:scanner.example\n"
            "    sent to          scanner.example\n");
}

TEST_F(TraceTest, SubmissionsKeepTheirEnvelopeForArchiveRules) {
  std::string const mail = "Subject: s\r\n\r\nHello.\r\n";
  Good({"submit", "-f", "ann@example.org", "x@far.example"}, mail);
  EXPECT_EQ(TakeWaiting().control.find("Raw-"), std::string::npos) << "no rules, no use";
  Good({"config", "set", "SMTP-Router/Config/Archive-Enabled", "yes"});
  Good({"submit", "-f", "ann@example.org", "x@far.example", "y@far.example"}, mail);
  std::string const control = TakeWaiting().control;
  for (char const *line :
       {"Raw-Mail-From: <ann@example.org>\r", "Raw-Rcpt-To: <x@far.example>\r", "Raw-Rcpt-To: <y@far.example>\r"})
    EXPECT_TRUE(HasLine(control, line)) << line << "\n" << control;
}

}  // namespace
