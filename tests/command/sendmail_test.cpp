// The command under the names "sendmail", "mailq" and "newaliases".
#include "tests/command/command_fixture.h"

namespace {

class SendmailTest : public CommandTest {
protected:
  SendmailTest() { Init(); }
  // Recipients of a control file, in order, a blank between them.
  static std::string Recipients(std::string const &control) {
    std::string all;
    std::string const key = "\nChannel-To: SMTP ";
    for (size_t at = control.find(key); at != std::string::npos; at = control.find(key, at + 1)) {
      size_t const start = at + key.size();
      all += (all.empty() ? "" : " ") + control.substr(start, control.find('\r', start) - start);
    }
    return all;
  }
};

TEST_F(SendmailTest, RecipientsOfTheHeaderTable) {
  struct {
    char const *header, *to, *kept;
  } const rows[] = {
      {"To: ann@example.org\nBcc: x@y.example\n", "<ann@example.org> <x@y.example>", "To: ann@example.org\r\n"},
      {"To: ann\nbCC: a@y.example,\n b@y.example\n", "<ann@example.org> <a@y.example> <b@y.example>", "To: ann\r\n"},
      {"To: \"Lee, Ann\" <ann@example.org>,\r\n\tJo (home) <jo@y.example>\r\nCc: z@y.example\r\n",
       "<ann@example.org> <jo@y.example> <z@y.example>",
       "To: \"Lee, Ann\" <ann@example.org>,\r\n\tJo (home) <jo@y.example>\r\nCc: z@y.example\r\n"},
      {"To: list: a@y.example, b@y.example;, c@y.example\n", "<a@y.example> <b@y.example> <c@y.example>",
       "To: list: a@y.example, b@y.example;, c@y.example\r\n"},
      {"To: old@y.example\nBcc: oldhid@y.example\nResent-To: new@y.example\nResent-Bcc: hid@y.example\n",
       "<new@y.example> <hid@y.example>", "To: old@y.example\r\nResent-To: new@y.example\r\n"},
      {"Bcc:\nCc: a@y.example\nBcc: b@y.example\n", "<a@y.example> <b@y.example>", "Cc: a@y.example\r\n"},
  };
  for (auto const &row : rows) {
    ProgramRun const run = Sendmail({"-t", "-f", "me@example.org"}, row.header + std::string("\nbody\n"));
    ASSERT_EQ(run.code, 0) << row.header << run.err;
    Waiting const waiting = TakeWaiting();
    EXPECT_EQ(Recipients(waiting.control), row.to) << row.header;
    EXPECT_EQ(waiting.header.substr(0, waiting.header.find("From: ")), row.kept) << row.header;
    EXPECT_EQ(waiting.body, "body\n");
  }
  for (char const *header : {"Subject: nobody\n", "To: \n", "To: a@y.example, b@@c, d@y.example\n"}) {
    EXPECT_NE(Sendmail({"-t"}, header + std::string("\nbody\n")).code, 0) << header;
    EXPECT_TRUE(SpoolIsEmpty()) << header;
  }
}

TEST_F(SendmailTest, OptionTable) {
  struct {
    Words args;
    int code;
    char const *why;
  } const rows[] = {
      {{"-bd"}, EX_USAGE, "no daemon"},
      {{"-bx"}, EX_USAGE, "unknown mode"},
      {{"-Z", "a@b.c"}, EX_USAGE, "unknown option"},
      {{"-f"}, EX_USAGE, "sender without a value"},
      {{}, EX_USAGE, "no recipient"},
      {{"a@@b"}, EX_DATAERR, "bad address"},
      {{"-f", "a@@b", "a@b.c"}, EX_DATAERR, "bad sender"},
      {{"-bv", "nobody@example.org"}, EX_NOUSER, "unknown user"},
      {{"-bv", "Postmaster@example.org"}, 0, "explained"},
      {{"-bi"}, 0, "nothing to do"},
      {{"-q"}, 0, "queue run"},
      {{"-q30m"}, 0, "queue run, with an interval"},
  };
  for (auto const &row : rows) {
    ProgramRun const run = Sendmail(row.args, "Subject: x\n\nbody\n");
    EXPECT_EQ(run.code, row.code) << row.why << ": " << run.err;
    EXPECT_TRUE(SpoolIsEmpty()) << row.why;
  }
  EXPECT_EQ(Sendmail({}, "", "newaliases").code, 0);
  EXPECT_NE(Sendmail({"-bd"}).err.find("Dispatcher"), std::string::npos);
  ASSERT_EQ(
      Sendmail({"-bm", "-i", "-oem", "-oi", "-N", "never", "-R", "hdrs", "-V", "id", "-B",  "8BITMIME", "-O",   "a=b",
                "-Ac", "-G", "-h",   "3",   "-L", "tag",   "-m", "-n",   "-U", "-X", "log", "--",       "a@b.c"},
               "Subject: x\n\nbody\n")
          .code,
      0);
  EXPECT_EQ(Recipients(TakeWaiting().control), "<a@b.c>");
}

TEST_F(SendmailTest, DotEndsTheMessageUnlessToldOtherwise) {
  struct {
    Words args;
    char const *input, *body;
  } const rows[] = {
      {{"a@b.c"}, "A: b\n\none\n.\ntwo\n", "one\n"},
      {{"a@b.c"}, "A: b\r\n\r\none\r\n.\r\ntwo\r\n", "one\r\n"},
      {{"a@b.c"}, "A: b\n.\ntwo\n", ""},
      {{"a@b.c"}, "A: b\n\n..\n. \none.", "..\n. \none."},
      {{"-i", "a@b.c"}, "A: b\n\none\n.\ntwo\n", "one\n.\ntwo\n"},
      {{"-oi", "a@b.c"}, "A: b\n\n.\n..\n", ".\n..\n"},
      {{"a@b.c"}, "no header\nat all\n", "no header\nat all\n"},
      {{"a@b.c"}, "From ann Tue Mar  4 09:05:00 2003\nA: b\n\nx\n", "x\n"},
  };
  for (auto const &row : rows) {
    ASSERT_EQ(Sendmail(row.args, row.input).code, 0) << row.input;
    EXPECT_EQ(TakeWaiting().body, row.body) << row.input;
  }
}

TEST_F(SendmailTest, SenderAndMissingFields) {
  struct {
    Words args;
    char const *header, *sender, *from;  // from: the field that was added, or none
  } const rows[] = {
      {{"-f", "<>", "a@b.c"}, "", "SMTP<>", nullptr},
      {{"-r", "x@y.z", "a@b.c"}, "", "SMTP <x@y.z>", "From: <x@y.z>\r\n"},
      {{"-fx@y.z", "-F", "Lee, \"Ann\"\r\nBcc: e@v.il", "a@b.c"},
       "",
       "SMTP <x@y.z>",
       "From: \"Lee, \\\"Ann\\\"Bcc: e@v.il\" <x@y.z>\r\n"},
      {{"-f", "x@y.z", "-F", "Ann", "a@b.c"}, "from: me\n", "SMTP <x@y.z>", nullptr},
  };
  for (auto const &row : rows) {
    ASSERT_EQ(Sendmail(row.args, row.header + std::string("Subject: x\n\nbody\n")).code, 0);
    Waiting const waiting = TakeWaiting();
    EXPECT_TRUE(HasLine(waiting.control, std::string("User-From: ") + row.sender + "\r")) << waiting.control;
    EXPECT_EQ(waiting.header.find("From: ") != std::string::npos, row.from != nullptr) << waiting.header;
    EXPECT_NE(waiting.header.find(row.from != nullptr ? row.from : "Subject: x"), std::string::npos) << waiting.header;
    EXPECT_NE(waiting.header.find("\r\nDate: "), std::string::npos);
    EXPECT_NE(waiting.header.find("\r\nMessage-ID: <"), std::string::npos);
  }
}

TEST_F(SendmailTest, SmtpSessionTable) {
  struct {
    std::string commands, answers;
  } const rows[] = {
      {"EHLO client\r\n", "250-mail.example.org\r\n250-PIPELINING\r\n250-8BITMIME\r\n250 ENHANCEDSTATUSCODES\r\n"},
      {"helo client\n", "250 mail.example.org\r\n"},
      {"RCPT TO:<a@b.c>\r\n", "503 5.5.1 no sender yet\r\n"},
      {"DATA\r\n", "503 5.5.1 no recipient yet\r\n"},
      {"MAIL FROM:<>\r\nMAIL FROM:<>\r\nDATA\r\nRSET\r\nRCPT TO:<a@b.c>\r\n",
       "250 2.1.0 sender taken\r\n503 5.5.1 a sender is named already\r\n503 5.5.1 no recipient yet\r\n"
       "250 2.0.0 forgotten\r\n503 5.5.1 no sender yet\r\n"},
      {"mail from: <a@b.c> BODY=8BITMIME\r\nRCPT TO:<\"x>y\"@b.c>\r\nRCPT TO:<a@@b>\r\nRCPT TO:a@b.c\r\n",
       "250 2.1.0 sender taken\r\n250 2.1.5 recipient taken\r\n553 5.1.3 bad address\r\n"
       "501 5.1.3 no address in angle brackets\r\n"},
      {"MAIL FROM:<a@@b>\r\nMAIL FROM:<a\r\n", "553 5.1.3 bad address\r\n501 5.1.7 no address in angle brackets\r\n"},
      {"MAIL FROM:<>\r\nRCPT TO:<a@b.c>\r\nDATA\r\nno header\r\nat all\r\n.\r\nNOOP\r\n",
       "250 2.1.0 sender taken\r\n250 2.1.5 recipient taken\r\n354 end with a line of one dot\r\n"
       "554 5.6.0 no header, or a header line that is none\r\n250 2.0.0 ok\r\n"},
      {"MAIL FROM:<>\r\nRCPT TO:<a@b.c>\r\nDATA\r\nA: b\r\n\r\ncut off",
       "250 2.1.0 sender taken\r\n250 2.1.5 recipient taken\r\n354 end with a line of one dot\r\n"},
      {"DATAX\r\n\r\nVRFY ann\r\nHELP\r\n",
       "500 5.5.2 command not known\r\n500 5.5.2 command not known\r\n252 2.5.2 send some mail and see\r\n"
       "214 2.0.0 RFC 5321\r\n"},
      {std::string(5000, 'x') + "\r\nNOOP\r\n", "500 5.5.2 line too long\r\n250 2.0.0 ok\r\n"},
      {"QUIT\r\nNOOP\r\n", "221 2.0.0 goodbye\r\n"},
  };
  for (auto const &row : rows) {
    ProgramRun const run = Sendmail({"-bs"}, row.commands);
    EXPECT_EQ(run.code, 0) << row.commands;
    EXPECT_EQ(run.out, "220 mail.example.org ESMTP\r\n" + row.answers) << row.commands;
    EXPECT_TRUE(SpoolIsEmpty()) << row.commands;
  }
}

TEST_F(SendmailTest, SmtpTakesTheDotsOffAndSeveralMessagesInASession) {
  ProgramRun const run = Sendmail({"-bs"},
                                  "EHLO x\r\nMAIL FROM:<a@b.c>\r\nRCPT TO:<one@b.c>\r\nDATA\r\nA: b\r\n\r\n"
                                  "..\r\n...two\r\n.x\r\nmid.\r\n\xff\r\n.\r\n"
                                  "RCPT TO:<late@b.c>\r\nQUIT\r\n");
  EXPECT_NE(run.out.find("\r\n250 2.0.0 accepted as "), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("\r\n503 5.5.1 no sender yet\r\n"), std::string::npos) << run.out;
  Waiting const waiting = TakeWaiting();
  EXPECT_EQ(waiting.header, "A: b\r\n");
  EXPECT_EQ(waiting.body, ".\r\n..two\r\nx\r\nmid.\r\n\xff\r\n");
  EXPECT_TRUE(HasLine(waiting.control, "User-From: SMTP <a@b.c>\r")) << waiting.control;
  EXPECT_EQ(Recipients(waiting.control), "<one@b.c>");

  std::string const message = "MAIL FROM:<>\r\nRCPT TO:<a@@b>\r\nRCPT TO:<one@b.c>\r\nDATA\r\nA: b\r\n\r\n.\r\n";
  std::string all;
  for (int i = 0; i < 30; ++i) all += message;  // more refusals than a session may have in a row
  EXPECT_EQ(Sendmail({"-bs"}, all).code, 0);
  EXPECT_EQ(NamesIn("control").size(), 30u);
  EXPECT_EQ(Sendmail({"-bs"}, std::string(3 * 30, '\n')).code, EX_PROTOCOL);
}

// Line ends that are none for SMTP. A second message behind a false end of the first would be mail of somebody's that
// nobody has looked at.
TEST_F(SendmailTest, OnlyALineOfADotBetweenCrLfEndsAMessage) {
  std::string const hello = "MAIL FROM:<a@b.c>\r\nRCPT TO:<one@b.c>\r\nDATA\r\nA: b\r\n\r\n";
  std::string const smuggled = "MAIL FROM:<evil@b.c>\r\nRCPT TO:<two@b.c>\r\nDATA\r\nA: b\r\n\r\nevil\r\n.\r\n";
  std::string const refused = "554 5.6.0 a line of the message does not end with CR LF\r\n";
  struct {
    std::string end;
    bool endsSession;  // both sides would no longer agree on what is a command
  } const ends[] = {
      {"\n.\n", true},       {"\n.\r\n", true},      {"\r\n.\n", true}, {"\r.\r", false},       {"\r\n.\r", false},
      {"\r.\r\n", false},    {"\r.\n", false},       {"\n.\r", false},  {"\r\n.\r\r\n", false}, {"\n\n.\r\n", true},
      {"\r\n\n.\r\n", true}, {"\r\n\r.\r\n", false}, {"\n", false},     {"\r", false},
  };
  for (auto const &[end, endsSession] : ends) {
    SCOPED_TRACE(testing::PrintToString(end));
    ProgramRun const run = Sendmail({"-bs"}, hello + "text" + end + smuggled + "NOOP\r\n");
    EXPECT_TRUE(run.out.ends_with("\r\n" + refused + (endsSession ? "" : "250 2.0.0 ok\r\n"))) << run.out;
    EXPECT_TRUE(SpoolIsEmpty());
  }
  std::string const header = "MAIL FROM:<a@b.c>\r\nRCPT TO:<one@b.c>\r\nDATA\r\nA: b\rBcc: c\r\n\r\n.\r\nNOOP\r\n";
  EXPECT_TRUE(Sendmail({"-bs"}, header).out.ends_with(refused + "250 2.0.0 ok\r\n"));
  // A line that is read in pieces, cut between its CR and LF, is as whole as any other.
  for (size_t length : {65535u, 65536u, 65537u}) {
    std::string const body = std::string(length, 'x') + "\r\n";
    std::string const out = Sendmail({"-bs"}, hello + body + ".\r\n").out;
    EXPECT_NE(out.find("250 2.0.0 accepted as "), std::string::npos) << length << out;
    EXPECT_TRUE(TakeWaiting().body == body) << length;
  }
}

TEST_F(SendmailTest, LimitsOfASessionHaveTheirCodes) {
  std::string all = "MAIL FROM:<>\r\n";
  for (int i = 0; i < 10030; ++i) all += "RCPT TO:<a@b.c>\r\n";  // the last are refused, more than a session has errors
  ProgramRun run = Sendmail({"-bs"}, all + "DATA\r\nA: b\r\n\r\nx\r\n.\r\n");
  EXPECT_NE(run.out.find("\r\n452 4.5.3 too many recipients\r\n354 "), std::string::npos);
  EXPECT_NE(run.out.find("\r\n250 2.0.0 accepted as "), std::string::npos) << "for those that were taken";
  std::string const control = TakeWaiting().control;
  size_t recipients = 0;
  for (size_t at = 0; (at = control.find("\r\nChannel-To: ", at)) != std::string::npos; ++at) ++recipients;
  EXPECT_EQ(recipients, 10000u);

  std::string many, large = "A: b\r\n";
  for (int i = 0; i < 5001; ++i) many += "A: b\r\n";
  for (int i = 0; i < 1025; ++i) large += " " + std::string(1022, 'x') + "\r\n";
  for (auto const &[header, text] : {std::pair(many, "too many header fields"), std::pair(large, "header too large")}) {
    run = Sendmail({"-bs"}, "MAIL FROM:<>\r\nRCPT TO:<a@b.c>\r\nDATA\r\n" + header + "\r\nx\r\n.\r\nNOOP\r\n");
    EXPECT_TRUE(run.out.ends_with("\r\n552 5.3.4 " + std::string(text) + "\r\n250 2.0.0 ok\r\n")) << run.out;
    EXPECT_TRUE(SpoolIsEmpty());
  }
}

TEST_F(SendmailTest, MailqListsWhatWaits) {
  EXPECT_EQ(Sendmail({"-bp"}).out, "Mail queue is empty\n");
  PutFile("control/held/m1-Control",
          "Function: SMTP-Router\r\nControl-Type: Mail\r\nUser-From: SMTP <a@b.c>\r\nChannel-To: SMTP <x@y.z>\r\n");
  PutFile("deferred/SMTP-Deliver/y.z/m2-Control",
          "Function: SMTP-Deliver\r\nControl-Type: Mail\r\nUser-From: SMTP<>\r\nDefer-Reason: no answer\r\n"
          "Channel-To: SMTP <u@y.z>\r\nChannel-To: SMTP <v@y.z>\r\n");
  PutFile("messages/m2-Body", std::string(1500, 'x'));
  ProgramRun const run = Sendmail({}, "", "mailq");
  EXPECT_EQ(run.out.rfind("-Queue ID-", 0), 0u) << run.out;
  EXPECT_NE(run.out.find("m1!       0 "), std::string::npos) << run.out;
  EXPECT_NE(run.out.find(" <a@b.c>\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("m2     1500 "), std::string::npos) << run.out;
  EXPECT_TRUE(HasLine(run.out, "  (no answer)")) << run.out;
  for (char const *to : {"<x@y.z>", "<u@y.z>", "<v@y.z>"})
    EXPECT_TRUE(HasLine(run.out, std::string(41, ' ') + to)) << run.out;
  EXPECT_TRUE(HasLine(run.out, "-- 2 Kbytes in 2 Requests.")) << run.out;
}

}  // namespace
