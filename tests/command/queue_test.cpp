// The queue, mailboxes and traces.
#include "tests/command/command_fixture.h"

namespace {

class QueueCommandTest : public CommandTest {
protected:
  QueueCommandTest() {
    Init();
    Good({"account", "add", "ann", "--name", "Ann Lee", "--address", "ann@example.org"});
  }
  void PutMessage(std::string const &directory, std::string const &name, std::string const &more = "") const {
    PutFile(directory + "/" + name + "-Control",
            "Function: SMTP-Router\r\nControl-Type: Mail\r\nPriority: 1\r\nUser-From: SMTP <a@b.c>\r\n"
            "Host-From: b.c [192.0.2.7]\r\nChannel-To: SMTP <ann@example.org>\r\n" +
                more);
    PutFile("messages/" + name + "-Header", "From: Bob\r\nSubject: a\r\n b\r\n");
    PutFile("messages/" + name + "-Body", "hello\r\n");
  }
  std::string Inbox() const {
    for (auto const &bucket : std::filesystem::directory_iterator(Path("mailboxes")))
      if (std::filesystem::exists(bucket.path() / "ann/in")) return bucket.path() / "ann/in";
    return "";
  }
};

TEST_F(QueueCommandTest, ListTellsPlaceModuleAndReason) {
  PutMessage("control", "m1");
  PutMessage("control/held", "m2");
  PutMessage("control/failed", "m3", "Error: SMTP-Router:x (y)\r\nError-Text: why\r\nError-Text: more\r\n");
  PutMessage("deferred/SMTP-Router", "m4");
  PutMessage("deferred/SMTP-Deliver/far.example", "m5", "Defer-Reason: no answer\r\n");
  PutFile("control/torn-Control", "no field");
  PutFile("control/m6-Control.temp", "half");
  std::string const out = Good({"queue", "list"});
  struct {
    char const *start, *end;
  } const rows[] = {
      {"m1  waiting  SMTP-Router  ", "  SMTP <a@b.c> -> SMTP <ann@example.org>"},
      {"m2  held  ", ""},
      {"m3  failed  ", "  (SMTP-Router:x (y): why)"},
      {"m4  deferred:SMTP-Router  ", ""},
      {"m5  deferred:SMTP-Deliver/far.example  ", "  (no answer)"},
      {"torn  waiting  ", "(cannot be read)"},
  };
  for (auto const &row : rows) {
    size_t const at = ("\n" + out).find(std::string("\n") + row.start);
    ASSERT_NE(at, std::string::npos) << row.start << "\n" << out;
    std::string const line = out.substr(at, out.find('\n', at) - at);
    EXPECT_NE(line.find(row.end), std::string::npos) << line;
  }
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 6) << out;
  std::string const json = Good({"queue", "list", "--json"});
  EXPECT_NE(json.find("\"place\": \"deferred:SMTP-Deliver/far.example\""), std::string::npos) << json;
  EXPECT_NE(json.find("\"readable\": false"), std::string::npos) << json;
}

TEST_F(QueueCommandTest, ListingIsSafeForATerminal) {
  PutFile("control/m1-Control",
          "Function: SMTP-Router\r\nControl-Type: Mail\r\nUser-From: SMTP <\"\x1b]0;x\x07\"@b.c>\r\n"
          "Channel-To: SMTP <a@b.c>\r\n\tm2  held\r\nDefer-Reason: one\r\n two\x7f\r\n");
  for (std::string const &out : {Good({"queue", "list"}), Sendmail({}, "", "mailq").out}) {
    EXPECT_NE(out.find("?]0;x?"), std::string::npos) << out;
    EXPECT_EQ(out.find_first_of("\x1b\x07\x7f\r\t"), std::string::npos) << out;
  }
}

TEST_F(QueueCommandTest, HoldReleaseShowAndRemove) {
  PutMessage("control", "m1");
  Good({"queue", "hold", "m1"});
  Good({"queue", "hold", "m1"});
  EXPECT_TRUE(Exists("control/held/m1-Control"));
  EXPECT_FALSE(Exists("control/m1-Control"));
  std::string const shown = Good({"queue", "show", "m1"});
  for (char const *part :
       {"/control/held/m1-Control\n", "User-From: SMTP <a@b.c>\r\n", "Subject: a\r\n b\r\n", "body: 7 bytes\n"})
    EXPECT_NE(shown.find(part), std::string::npos) << part << shown;
  EXPECT_EQ(Brenthaven({"queue", "release", "m1"}).code, 0);  // with a word on the dispatcher that does not run
  EXPECT_TRUE(Exists("control/m1-Control"));
  Good({"queue", "remove", "m1"});
  EXPECT_TRUE(SpoolIsEmpty());
  for (char const *call : {"show", "hold", "release", "remove"})
    EXPECT_EQ(Brenthaven({"queue", call, "m1"}).code, EX_NOINPUT) << call;
  for (char const *name : {"../config/environment", "", "."})
    EXPECT_EQ(Brenthaven({"queue", "remove", name}).code, EX_NOINPUT) << name;
}

// What the judge or the error handler held lies outside of every queue. Released it is mail for the module that failed,
// and what is no mail goes back to the error handler with a mark.
TEST_F(QueueCommandTest, MessagesHeldByModulesAreReleasedToWhereTheyFailed) {
  auto const put = [this](std::string const &place, std::string const &name, std::string const &type,
                          std::string const &more) {
    PutFile("deferred/" + place + "/" + name + "-Control",
            "Function: Error-Handler\r\nControl-Type: " + type + "\r\nUser-From: SMTP <a@b.c>\r\n" + more);
  };
  PutMessage("deferred/Sideline", "m1");
  put("Sideline", "m1", "Mail",
      "Channel-To: SMTP <ann@example.org>\r\nError: SMTP-Router:ProcessMailAllError (SideLined)\r\n"
      "Error-Text: RBL true, Sidelining\r\nError-Number: 2\r\nTrace: Submit\r\nTrace: Sideline\r\n");
  put("Held", "m2", "Mail",
      "Deliver-To: Mailbox ann\r\nError: Mailbox-Deliver:DeliverMessage (OverQuota)\r\nTrace: Held\r\n");
  put("Held", "m3", "Error", "Error: Dispatch:DiskLimits (LowDiskSpaceWarning)\r\nTrace: Held\r\n");
  PutMessage("deferred/SMTP-Router", "m4");
  std::string const list = Good({"queue", "list"});
  for (char const *part : {"m1  deferred:Sideline  Error-Handler  ", "(SideLined): RBL true, Sidelining)\n",
                           "m2  deferred:Held  Error-Handler  "})
    EXPECT_NE(list.find(part), std::string::npos) << part << list;
  for (char const *name : {"m1", "m2"}) Good({"queue", "hold", name});
  EXPECT_TRUE(Exists("deferred/Sideline/m1-Control")) << "is held already";
  for (char const *name : {"m1", "m2", "m3", "m4"}) EXPECT_EQ(Brenthaven({"queue", "release", name}).code, 0) << name;
  EXPECT_EQ(FileBytes("control/m1-Control"),
            "Function: SMTP-Router\r\nControl-Type: Mail\r\nUser-From: SMTP <a@b.c>\r\n"
            "Channel-To: SMTP <ann@example.org>\r\nTrace: Submit\r\nTrace: Sideline\r\nTrace: Queue\r\n");
  EXPECT_EQ(FileBytes("control/m2-Control"),
            "Function: Mailbox-Deliver\r\nControl-Type: Mail\r\nUser-From: SMTP <a@b.c>\r\n"
            "Deliver-To: Mailbox ann\r\nTrace: Held\r\nTrace: Queue\r\n");
  EXPECT_NE(FileBytes("control/m3-Control").find("Function: Error-Handler\r\n"), std::string::npos);
  EXPECT_NE(FileBytes("control/m3-Control").find("Trace: Held\r\nTrace: Queue\r\n"), std::string::npos);
  EXPECT_EQ(FileBytes("control/m4-Control").find("Trace:"), std::string::npos) << "a deferred one just goes on";
  PutMessage("deferred/Sideline", "m5");
  EXPECT_EQ(Brenthaven({"queue", "run"}).code, 0) << "walks no place of held messages";
  EXPECT_TRUE(Exists("deferred/Sideline/m5-Control"));
  Good({"queue", "remove", "m5"});
  EXPECT_FALSE(Exists("deferred/Sideline/m5-Control") || Exists("messages/m5-Header") || Exists("messages/m5-Body"));
}

TEST_F(QueueCommandTest, RunDeliversAndTheMailboxCommandsShowIt) {
  PutMessage("deferred/SMTP-Router", "m1");
  EXPECT_EQ(Brenthaven({"queue", "run"}).code, 0);  // what the module logs goes to standard error
  EXPECT_EQ(Brenthaven({"queue", "run", "No-Such"}).code, EX_UNAVAILABLE);
  EXPECT_EQ(Brenthaven({"queue", "run", "../bin/brenthaven"}).code, EX_UNAVAILABLE);
  EXPECT_TRUE(SpoolIsEmpty());
  std::string const list = Good({"mailbox", "list", "ann"});
  EXPECT_EQ(std::count(list.begin(), list.end(), '\n'), 1) << list;
  EXPECT_NE(list.find("  Bob  a b\n"), std::string::npos) << list;
  std::string const name = list.substr(0, list.find(' '));
  std::string const stored = "Return-Path: <a@b.c>\r\nFrom: Bob\r\nSubject: a\r\n b\r\n\r\nhello\r\n";
  EXPECT_EQ(Good({"mailbox", "show", "ann", name}), stored);
  EXPECT_EQ(Good({"mailbox", "size", "ann"}), "ann: " + std::to_string(stored.size()) + " bytes, no quota\n");

  std::ofstream(Inbox() + "/20030304.planted") << "X: y\r\n\r\n";
  std::filesystem::remove(Inbox() + "/__size__");
  Good({"account", "set", "ann", "Mailbox-Quota", "10"});
  EXPECT_EQ(Good({"mailbox", "recount"}), "1 mailboxes counted\n");
  EXPECT_EQ(Good({"mailbox", "size"}), "ann: " + std::to_string(stored.size() + 8) + " bytes of 10 kbytes\n");

  for (char const *bad : {"../../../../config/environment", "", "__size__", "1/../__size__"})
    EXPECT_EQ(Brenthaven({"mailbox", "show", "ann", bad}).code, EX_DATAERR) << bad;
  EXPECT_EQ(Brenthaven({"mailbox", "show", "ann", "1"}).code, EX_NOINPUT);
  for (char const *call : {"list", "size", "recount"})
    EXPECT_EQ(Brenthaven({"mailbox", call, "../ann"}).code, EX_NOUSER) << call;
}

TEST_F(QueueCommandTest, TraceExplainsAndTouchesNothing) {
  Good({"alias", "set", "team@example.org", "ann@example.org", "x@far.example"});
  struct {
    char const *address;
    int code;
    char const *step;
  } const rows[] = {
      {"ann@example.org", 0, "    account          ann\n"},
      {"<ann@example.org>", 0, "    account          ann\n"},
      {"team@example.org", 0, "    sent to          far.example\n"},
      {"nobody@example.org", EX_NOUSER, "    unknown          <nobody@example.org>\n"},
      {"x@far.example", 0, "    remote domain    far.example\n"},
      {"a@@b", EX_NOUSER, "SMTP <a@@b>\n"},
  };
  for (auto const &row : rows) {
    ProgramRun const run = Brenthaven({"trace", row.address});
    EXPECT_EQ(run.code, row.code) << row.address;
    EXPECT_NE(run.out.find(row.step), std::string::npos) << row.address << "\n" << run.out;
  }
  EXPECT_TRUE(SpoolIsEmpty());
  PutFile("config/BTAccounts.i", std::string(65536, '\x5a'));
  EXPECT_EQ(Brenthaven({"trace", "ann@example.org"}).code, EX_TEMPFAIL) << "unreadable is not unknown";
}

}  // namespace
