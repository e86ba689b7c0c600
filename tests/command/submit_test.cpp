// brenthaven submit.
#include "tests/command/command_fixture.h"

namespace {

class SubmitTest : public CommandTest {
protected:
  SubmitTest() { Init(); }
};

std::string Repeated(int count, std::string const &text) {
  std::string all;
  for (int i = 0; i < count; ++i) all += text;
  return all;
}

TEST_F(SubmitTest, EnvelopeIsWhatTheCallSaysAndBytesAreKept) {
  std::string const body = std::string("a\0b\r", 4) + "\n.\n\xff no line end";
  std::string const name = Good({"submit", "-f", "<Bob@far.example>", "--print-name", "ann", "<c@d.example>"},
                                "Subject:  x\n\tfolded\n" + ("\n" + body));
  EXPECT_TRUE(Exists("control/" + name.substr(0, name.size() - 1) + "-Control")) << name;
  Waiting const waiting = TakeWaiting();
  EXPECT_EQ(waiting.header, "Subject:  x\r\n\tfolded\r\n");
  EXPECT_EQ(waiting.body, body);
  for (char const *line : {"Function: SMTP-Router\r", "User-From: SMTP <Bob@far.example>\r",
                           "Channel-To: SMTP <ann@example.org>\r", "Channel-To: SMTP <c@d.example>\r"})
    EXPECT_TRUE(HasLine(waiting.control, line)) << line;
  for (char const *sender : {"", "<>"}) {
    Good({"submit", "-f", sender, "ann"}, "Subject: x\n");
    EXPECT_TRUE(HasLine(TakeWaiting().control, "User-From: SMTP<>\r")) << sender;
  }
}

TEST_F(SubmitTest, RefusedMessageLeavesNothing) {
  std::string const good = "Subject: x\n\nbody\n";
  struct {
    Words args;
    std::string input;
    int code;
    char const *why;
  } const rows[] = {
      {{"a@@b"}, good, EX_DATAERR, "bad address"},
      {{"<a@b"}, good, EX_DATAERR, "bracket without its end"},
      {{"a@b>\r\nChannel-To: SMTP <x@y"}, good, EX_DATAERR, "address that would open a line of the control file"},
      {{"a b@c.d"}, good, EX_DATAERR, "two words, which would join"},
      {{"<a@b.c> d@e.f"}, good, EX_DATAERR, "something behind the address"},
      {{""}, good, EX_DATAERR, "empty address"},
      {{"<>"}, good, EX_DATAERR, "no one to send to"},
      {{"ok@example.org", "a@@b"}, good, EX_DATAERR, "one bad address among good ones"},
      {{"-f", "x@@y", "ok@example.org"}, good, EX_DATAERR, "bad sender"},
      {{}, good, EX_USAGE, "no recipient"},
      {{"ok@example.org"}, "", EX_DATAERR, "no header"},
      {{"ok@example.org"}, "\nbody\n", EX_DATAERR, "blank first line"},
      {{"ok@example.org"}, " folded\n\nbody\n", EX_DATAERR, "continuation of nothing"},
      {{"ok@example.org"}, Repeated(5001, "A: b\n"), EX_DATAERR, "too many fields"},
      {{"ok@example.org"}, "A: b\n" + Repeated(17000, " " + std::string(62, 'x') + "\n"), EX_DATAERR, "long header"},
      {{"ok@example.org"}, "A: " + std::string(1 << 20, 'x'), EX_DATAERR, "long line"},
      {Words(10001, "a@b.c"), good, EX_DATAERR, "too many recipients"},
  };
  for (auto const &row : rows) {
    Words args = row.args;
    args.insert(args.begin(), "submit");
    ProgramRun const run = Brenthaven(args, row.input);
    EXPECT_EQ(run.code, row.code) << row.why << ": " << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << row.why << ": " << run.err;
    EXPECT_TRUE(SpoolIsEmpty()) << row.why;
  }
  Good({"submit", "a@b.c"}, Repeated(5000, "A: b\n"));
  EXPECT_EQ(TakeWaiting().header.size(), 5000 * sizeof "A: b\r");
}

TEST_F(SubmitTest, FullDiskIsAFailureForNowAndLeavesNothing) {
  setenv("LD_PRELOAD", FULL_DISK, 1);
  setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
  for (std::string const &body : {std::string("short\n"), std::string(300000, 'x')}) {
    ProgramRun const run = Brenthaven({"submit", "a@b.c"}, "Subject: x\n\n" + body);
    EXPECT_EQ(run.code, EX_TEMPFAIL) << run.err;
    EXPECT_NE(run.err.find("disk full"), std::string::npos) << run.err;
    EXPECT_TRUE(SpoolIsEmpty());
  }
  EXPECT_EQ(Sendmail({"a@b.c"}, "Subject: x\n\nb\n").code, EX_TEMPFAIL);
  ProgramRun const session =
      Sendmail({"-bs"}, "MAIL FROM:<>\r\nRCPT TO:<a@b.c>\r\nDATA\r\nA: b\r\n\r\nx\r\n.\r\nNOOP\r\n");
  EXPECT_NE(session.out.find("\r\n452 4.3.1 disk full\r\n250 2.0.0 ok\r\n"), std::string::npos) << session.out;
  EXPECT_TRUE(SpoolIsEmpty());
}

}  // namespace
