// Large messages, many recipients, many walkers.
#include <set>

#include "tests/road/road_fixture.h"

namespace {

constexpr long kMostKilobytes = 48 << 10;  // for any one program, whatever the size of the message

// No two lines are alike, so that a block that is lost, doubled or moved shows.
std::string Line(int number) {
  return std::to_string(number) + std::string(70, static_cast<char>('a' + number % 26)) + "\r\n";
}
constexpr int kLines = 280000;  // a bit above 20 MiB

TEST_F(RoadTest, LargeBodyArrivesWholeWithoutStandingInMemory) {
  {
    std::ofstream out(Path("message"), std::ios::binary);
    out << "Subject: large\r\n\r\n";
    for (int i = 0; i < kLines; ++i) out << Line(i);
  }
  // This process stays small until both have run: a child's peak begins with its parent's.
  setenv("Program", COMMAND_PROGRAM, 1);
  setenv("Message", Path("message").c_str(), 1);
  ProgramRun const submitted =
      RunProgram("/bin/sh", {"sh", "-c", "exec \"$Program\" submit --print-name -f a@b.c ann bob < \"$Message\""});
  ASSERT_EQ(submitted.code, 0) << submitted.err;
  ProgramRun const routed = RunRouter(submitted.out.substr(0, submitted.out.size() - 1));
  EXPECT_EQ(routed.code, 0) << routed.err;
#ifndef __SANITIZE_ADDRESS__  // whose shadow and quarantine are larger
  EXPECT_LT(submitted.peakKilobytes, kMostKilobytes);
  EXPECT_LT(routed.peakKilobytes, kMostKilobytes);
#endif
  std::string expected = "Return-Path: <a@b.c>\r\nSubject: large\r\n\r\n";
  for (int i = 0; i < kLines; ++i) expected += Line(i);
  ASSERT_GT(expected.size(), 20u << 20);
  for (char const *uid : {"ann", "bob"}) {
    Words const stored = StoredFor(uid);
    ASSERT_EQ(stored.size(), 1u) << uid;
    EXPECT_TRUE(stored[0] == expected) << uid << ": " << stored[0].size() << " bytes of " << expected.size();
  }
  EXPECT_TRUE(SpoolIsEmpty());
}

TEST_F(RoadTest, OneMessageForAllKindsOfRecipientsEndsInFourPlaces) {
  Good({"alias", "set", "team@example.org", "ann@example.org", "bob@example.org"});
  StartDispatcher();
  Good({"submit", "-f", "sender@far.example", "ann@example.org", "bob@example.org", "team@example.org",
        "nobody@example.org", "x@remote.example"},
       "Subject: all\n\nbody\n");
  // Its own control goes before its header and body do.
  EXPECT_TRUE(Eventually([&] {
    return Functions() == Words({"SMTP-Deliver", "SMTP-Deliver"}) && NamesIn("messages").size() == 4;
  })) << "header and body for the remote host and for the report to the sender";
  std::string const stored = "Return-Path: <sender@far.example>\r\nSubject: all\r\n\r\nbody\n";
  EXPECT_EQ(StoredFor("ann"), Words({stored})) << "once, in spite of the alias";
  EXPECT_EQ(StoredFor("bob"), Words({stored}));
  EXPECT_EQ(CountIn("deferred"), 0);
  for (std::string const &name : NamesIn("control")) {
    std::string const control = FileBytes("control/" + name);
    bool const report = control.find("Error-Msg-Type: ReturnMessage\r\n") != std::string::npos;
    for (char const *line :
         report ? std::vector<char const *>{"Host-To: far.example\r", "Channel-To: SMTP <sender@far.example>\r"}
                : std::vector<char const *>{"Host-To: remote.example\r", "Channel-To: SMTP <x@remote.example>\r"})
      EXPECT_TRUE(HasLine(control, line)) << line << "\n" << control;
    EXPECT_EQ(control.find("ann@"), std::string::npos) << control;
    std::string const message = name.substr(0, name.rfind('-'));
    std::string const header = FileBytes("messages/" + message + "-Header");
    std::string const body = FileBytes("messages/" + message + "-Body");
    if (report) {
      EXPECT_TRUE(HasLine(header, "Subject: Mail System Error - Returned Mail\r")) << header;
      EXPECT_TRUE(HasLine(body, "Final-Recipient: rfc822; nobody@example.org\r")) << body;
      EXPECT_NE(body.find("\r\n\r\nSubject: all\r\n\r\nbody\r\n"), std::string::npos) << body;
    } else {
      EXPECT_EQ(header, "Subject: all\r\n") << name;
      EXPECT_EQ(body, "body\n") << name;
    }
  }
}

TEST_F(RoadTest, FourWalkersDeliverAThousandDeferredMessagesOnceEach) {
  constexpr int kMessages = 1000;
  std::set<std::string> expected;
  for (int i = 0; i < kMessages; ++i) {
    std::string const body = "body " + std::to_string(i) + "\r\n";
    PutMessage("deferred/SMTP-Router", "m" + std::to_string(i), i % 2 ? "<ann@example.org>" : "<bob@example.org>",
               body);
    expected.insert("Return-Path: <sender@far.example>\r\nSubject: test\r\n\r\n" + body);
  }
  setenv("ModuleName", "SMTP-Router", 1);
  {
    Program walkers[] = {{MODULES "/SMTP-Router", {"SMTP-Router", "ProcessQueue"}},
                         {MODULES "/SMTP-Router", {"SMTP-Router", "ProcessQueue"}},
                         {MODULES "/SMTP-Router", {"SMTP-Router", "ProcessQueue"}},
                         {MODULES "/SMTP-Router", {"SMTP-Router", "ProcessQueue"}}};
    for (Program &walker : walkers) EXPECT_EQ(walker.Wait().code, 0);
  }
  Words stored = StoredFor("ann");
  Words const more = StoredFor("bob");
  EXPECT_EQ(stored.size(), kMessages / 2u);
  EXPECT_EQ(more.size(), kMessages / 2u);
  stored.insert(stored.end(), more.begin(), more.end());
  EXPECT_EQ(std::set<std::string>(stored.begin(), stored.end()), expected);
  EXPECT_TRUE(SpoolIsEmpty());
  EXPECT_FALSE(Exists("deferred/SMTP-Router"));
}

}  // namespace
