// Archive rules and the copies that they make.
#include "brenthaven/router/archive.h"

#include <cerrno>
#include <cstring>

#include "brenthaven/platform/sys.h"
#include "tests/router/router_fixture.h"

namespace {

TEST(RawAddressesTest, EachHasOnePairOfBrackets) {
  struct {
    Texts values;
    char const *want, *why;
  } const cases[] = {
      {{"<a@b>"}, "<a@b>", "as it is"},
      {{"a@b"}, "<a@b>", "without brackets"},
      {{"  <a@b> SIZE=5"}, "<a@b>", "what stands around them"},
      {{"Ann <a@b>", "<<c@d>> "}, "<a@b> <c@d>", "doubled"},
      {{"<a@b>, <c@d>,e@f"}, "<a@b> <c@d> <e@f>", "a list"},
      {{"<a@b>\r\n <c@d>"}, "<a@b> <c@d>", "a folded value"},
      {{"<@r.example:a@b>", "TO:<c@d>", "<e@f>"}, "<e@f>", "lines with a colon are passed over"},
      {{"<>"}, "<>", "the null sender"},
      {{"", " ", ",,"}, "", "nothing"},
  };
  for (auto const &c : cases) EXPECT_EQ(Joined(List(RawAddresses(ListOf(c.values)))), c.want) << c.why;
}

class ArchiveTest : public RouterTest {
protected:
  ArchiveTest() {
    Config("Archive-Enabled", "yes");
    AddAccount("ann", {"ann@example.org"});
  }
  static void Rules(Texts const &rules) { Setting("SMTP-Router", "/Config", "Archive-Rule", rules); }
  // "target: entry entry | target: entry", of a message with this raw envelope.
  static std::string Candidates(std::string const &from, Texts const &to, Texts const &done = {}) {
    SSMTPRouterModule router;
    router.GetControl()["Raw-Mail-From:"].Push(Bytes(from));
    router.GetControl()["Raw-Rcpt-To:"] = ListOf(to);
    router.GetControl()["Host-From:"] = "far.example [192.0.2.7]";
    if (!done.empty()) router.GetControl()["Archive-Transfer!"] = ListOf(done);
    SNamedStringList table(1, 0);
    router.CreateArchiveToCandidate(table);
    Texts targets;
    for (SString const &key : table.Keys()) targets.push_back(Text(key) + ": " + Joined(List(table.Get(key))));
    return Joined(targets, " | ");
  }
  Texts const raw = {"Raw-Mail-From: <s@far.example>", "Raw-Rcpt-To: <ann@example.org>", "Raw-Rcpt-To: x@far.example"};
  void Process(SSMTPRouterModule &router, Texts const &more = {}) const {
    Texts lines = raw;
    lines.insert(lines.end(), more.begin(), more.end());
    PutMessage("m", {"SMTP <ann@example.org>", "SMTP <x@far.example>"}, lines);
    ASSERT_EQ(router.LoadEnv(), 1u);
    EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone);
  }
  Texts ArchiveCopies() const {
    Texts copies;
    for (std::string const &path : PathsOf("SMTP-Deliver"))
      if (ReadControl(path).Get("Host-To:").Join().Index('#') >= 0) copies.push_back(path);
    return copies;
  }
  static std::string HeaderOf(std::string const &path) {
    return "messages/" + path.substr(8, path.rfind("-Control") - 8) + "-Header";
  }
};

TEST_F(ArchiveTest, RulesPickCopiesBySenderAndRecipient) {
  struct {
    Texts rules;
    char const *from;
    Texts to;
    char const *want, *why;
  } const cases[] = {
      {{"<*><*><vault><>"}, "<a@b>", {"<c@d>"}, "vault#25: SMTP <c@d>", "everything, with a port"},
      {{"<*><*><vault#2525><>"}, "<a@b>", {"<c@d>"}, "vault#2525: SMTP <c@d>", "a port of its own"},
      {{"<*><*><v><all@v>"}, "<a@b>", {"<c@d>", "<e@f>"}, "v#25: SMTP <all@v>", "one mailbox, once"},
      {{"<*@b><*.org><v><>"}, "<a@b>", {"<c@d.org>", "<e@forg>"}, "v#25: SMTP <c@d.org>", "a dot is a dot"},
      {{"<a@B><*><v><>", "<a@><*><v><>", "<@b><*><v><>"}, "<a@b>", {"<c@d>"}, "", "case, and the whole address"},
      {{"<a@b><*><v><>", "<*><c@*><v><>"}, "<a@b>", {"<c@d>", "<e@f>"}, "v#25: SMTP <c@d> SMTP <e@f>", "each once"},
      {{"<*><*><v><>", "<*><*><w><>"}, "<>", {"<c@d>"}, "v#25: SMTP <c@d> | w#25: SMTP <c@d>", "null sender too"},
      {{"<*><*><v>", "<><*><v><>", "<*><*><><>", "* * v", "<((><*><v><>", "<*><*><v/../w><>"},
       "<a@b>",
       {"<c@d>"},
       "",
       "rules that do not fit"},
      {{"<*><*><v><>"}, "<a@b>", {}, "", "no raw recipients"},
      {{"<*><*><v><>"}, "", {"<c@d>"}, "", "no raw sender"},
  };
  testing::internal::CaptureStderr();  // of the expression that does not compile
  for (auto const &c : cases) {
    Rules(c.rules);
    EXPECT_EQ(Candidates(c.from, c.to), c.want) << c.why;
  }
  (void)testing::internal::GetCapturedStderr();
}

TEST_F(ArchiveTest, MessageIsArchivedOnceAndWhereItIsWanted) {
  Rules({"<*><*><v><>"});
  EXPECT_EQ(Candidates("<a@b>", {"<c@d>"}, {"Other"}), "v#25: SMTP <c@d>");
  EXPECT_EQ(Candidates("<a@b>", {"<c@d>"}, {"Other", "SMTP-Router"}), "");
  setenv("ByPassIPaddr", "192.0.2.7", 1);
  EXPECT_NE(Candidates("<a@b>", {"<c@d>"}), "") << "without ForceRouting the address means nothing";
  setenv("ForceRouting", "yes", 1);
  EXPECT_EQ(Candidates("<a@b>", {"<c@d>"}), "");
  unsetenv("ForceRouting");
  Config("Archive-Enabled", "Yes");
  EXPECT_EQ(Candidates("<a@b>", {"<c@d>"}), "");
}

TEST_F(ArchiveTest, CopiesBearTheArchivesSenderAndMark) {
  Dispatcher dispatcher;
  Rules({"<*><*><vault><all@vault.example>"});
  struct {
    char const *mailFrom, *header, *sender, *mark;
  } const cases[] = {
      {"", "", "SMTP <Postmaster@mail.example.org>", "X-BH-Archived: mail.example.org\r\n"},
      {"keeper@example.org", "X-Kept", "SMTP <keeper@example.org>", "X-Kept: mail.example.org\r\n"},
      {"<keeper@example.org>", "X-Kept:", "SMTP <keeper@example.org>", "X-Kept: mail.example.org\r\n"},
      {"<keeper@example.org>", "Subject", "SMTP <keeper@example.org>", nullptr},
  };
  for (auto const &c : cases) {
    ClearSpool();
    Config("Mail-From", c.mailFrom);
    Config("Archive-Header", c.header);
    Config("Archive-Header-Enabled", "yes");
    SSMTPRouterModule router;
    Process(router);
    EXPECT_EQ(dispatcher.Heard().size(), 3u) << "two hosts and the mailbox agent";
    Texts const copies = ArchiveCopies();
    ASSERT_EQ(copies.size(), 1u);
    SControl const copy = ReadControl(copies[0]);
    EXPECT_EQ(copy.Get("User-From:").Join(), c.sender);
    EXPECT_EQ(copy.Get("Host-To:").Join(), "vault#25");
    EXPECT_EQ(copy.Get("Channel-To:").Join(), "SMTP <all@vault.example>");
    EXPECT_FALSE(copy.Get("Archive-Transfer!").Defined());
    EXPECT_EQ(FileBytes(HeaderOf(copies[0])),
              c.mark != nullptr ? "Subject: test\r\n" + std::string(c.mark) : "Subject: mail.example.org\r\n");
    for (std::string const &path : PathsOf("SMTP-Deliver"))
      if (path != copies[0]) {
        EXPECT_EQ(FileBytes(HeaderOf(path)), "Subject: test\r\n") << "the mail itself is as it was";
      }
    EXPECT_EQ(router.GetControl().Get("Archive-Transfer!").Join(), "SMTP-Router");
    EXPECT_EQ(CountIn("messages"), 6);
  }
  Config("Archive-Header-Enabled", "no");
  ClearSpool();
  SSMTPRouterModule router;
  Process(router);
  EXPECT_EQ(FileBytes(HeaderOf(ArchiveCopies().at(0))), "Subject: test\r\n");
}

// A failed call of a name on an archive copy's file or, for the mail's own control, behind so many that pass.
struct Fault {
  char const *call;
  char const *path;
  int passes;
};

TEST_F(ArchiveTest, ArchiveThatCannotBeWrittenDoesNotHoldTheMailBack) {
  Rules({"<*><*><vault><>"});
  Config("Archive-Header-Enabled", "yes");
  Fault const faults[] = {
      {"open", "@mail.example.org-Header.temp", 0},
      {"rename", "@mail.example.org-Control.temp", 1},  // behind the copy for far.example
      {"rename", "/m-Control.temp", 1},                 // the record of the archive batch
  };
  for (Fault fault : faults) {
    ClearSpool();
    testing::internal::CaptureStderr();
    SSMTPRouterModule router;
    sys::SetHook(
        [](sys::CallInfo const &call, void *context) {
          Fault &now = *static_cast<Fault *>(context);
          if (strcmp(call.name, now.call) != 0 || strstr(call.path, now.path) == nullptr) return 0;
          return now.passes-- == 0 ? ENOSPC : 0;
        },
        &fault);
    Process(router);
    sys::SetHook(nullptr, nullptr);
    EXPECT_NE(testing::internal::GetCapturedStderr().find(":SMTP-Router:Archive Failed"), std::string::npos);
    EXPECT_EQ(ArchiveCopies(), Texts{}) << fault.path;
    EXPECT_EQ(PathsOf("SMTP-Deliver").size(), 1u) << fault.path;
    EXPECT_EQ(PathsOf("Shelf-Deliver").size(), 1u) << fault.path;
    EXPECT_EQ(CountIn("messages"), 4) << fault.path << ": nothing of the copy is left";
    EXPECT_FALSE(router.GetControl().Get("Archive-Transfer!").Defined()) << fault.path;
  }
}

// A message whose remaining recipients wait was archived all the same.
TEST_F(ArchiveTest, NextPassMakesNoSecondCopy) {
  Rules({"<*><*><vault><>"});
  PutMessage("m", {"SMTP <ann@example.org>", "SMTP <nobody@example.org>"}, raw);
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  sys::SetHook(
      [](sys::CallInfo const &call, void *) {
        return strcmp(call.name, "rename") == 0 && strstr(call.path, "-Unknown") != nullptr ? ENOSPC : 0;
      },
      nullptr);
  EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone);
  sys::SetHook(nullptr, nullptr);
  EXPECT_EQ(ArchiveCopies().size(), 1u);
  EXPECT_EQ(ReadControl("deferred/SMTP-Router/m-Control").Get("Archive-Transfer!").Join(), "SMTP-Router");
  router.ProcessQueue();
  EXPECT_EQ(ArchiveCopies().size(), 1u);
  EXPECT_EQ(PathsOf("Shelf-Deliver").size(), 1u);
  EXPECT_EQ(PathsOf("Error-Handler").size(), 1u);
}

// Routed as mail, the copies of a large fan-out would go to the recipients once more.
TEST_F(ArchiveTest, ManyArchivesInLineAreServedHere) {
  Texts rules;
  for (int i = 0; i < 21; ++i) rules.push_back("<*><ann@*><v" + std::to_string(i) + "><>");
  Rules(rules);
  PutMessage("m", {"SMTP <ann@example.org>"}, raw);
  SControl control = ReadControl("control/m-Control");
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  EXPECT_EQ(router.ProcessMailControl(control), 1u);
  EXPECT_EQ(PathsOf("SMTP-Router"), Texts{});
  EXPECT_EQ(ArchiveCopies().size(), 21u);
}

}  // namespace
