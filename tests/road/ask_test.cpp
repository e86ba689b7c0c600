#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>

#include "tests/road/road_fixture.h"

class AskTest : public RoadTest {
protected:
  void ExpectNoFiles() const {
    EXPECT_TRUE(SpoolIsEmpty());
    EXPECT_EQ(CountIn("deferred"), 0);
  }
};

TEST_F(AskTest, RunningRouterSaysWhoseAnAddressIs) {
  Good({"alias", "set", "team@example.org", "ann@example.org", "x@far.example"});
  StartDispatcher();
  struct {
    char const *address;
    int code;
    char const *out;
  } const rows[] = {
      {"ann@example.org", 0, "ann\n"},
      {"<Bob@Example.ORG>", 0, "bob\n"},
      {"ann", EX_NOUSER, "unknown\n"},  // at the host itself
      {"team@example.org", 0, "SMTP <ann@example.org>\nSMTP <x@far.example>\n"},
      {"x%bob%example.org@example.org", EX_NOUSER, "unknown\n"},
      {"bob%example.org@example.org", 0, "bob\n"},
      {"nobody@example.org", EX_NOUSER, "unknown\n"},
      {"x@far.example", EX_NOUSER, "unknown\n"},
      {"a@@b", EX_DATAERR, ""},
      {"<>", EX_DATAERR, ""},
      {"", EX_DATAERR, ""},
      {"ann@example.org\r\nAccount-To: root", EX_DATAERR, ""},
  };
  for (auto const &row : rows) {
    ProgramRun const run = Brenthaven({"ask", row.address});
    EXPECT_EQ(run.code, row.code) << row.address << ": " << run.err;
    EXPECT_EQ(run.out, row.out) << row.address;
  }
  EXPECT_EQ(Good({"ask", "--json", "ann@example.org"}),
            "{\n  \"address\": \"<ann@example.org>\",\n  \"accounts\": [\n    \"ann\"\n  ],\n  \"channels\": []\n}\n");
  ExpectNoFiles();
}

// Anybody on the host can send the byte that says that the answer is there.
TEST_F(AskTest, WordOfAnAnswerThatNoModuleWroteIsNone) {
  int const ear = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  struct sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto *const plain = reinterpret_cast<struct sockaddr *>(&address);
  ASSERT_EQ(bind(ear, plain, length), 0);
  ASSERT_EQ(getsockname(ear, plain, &length), 0);
  PutFile("run/dispatcher", "DispatchSocket=" + std::to_string(ntohs(address.sin_port)) + "\nDispatchKey=k\n");
  Program asker(COMMAND_PROGRAM, {"brenthaven", "ask", "ann@example.org"});
  char notice[1024];
  ssize_t const heard = recv(ear, notice, sizeof notice, 0);
  ASSERT_GT(heard, 0);
  std::string const name(notice, std::find(notice, notice + heard, '\n'));
  std::string const request = FileBytes("control/" + name + "-Control");
  address.sin_port = htons(static_cast<uint16_t>(std::stoi(request.substr(request.find("Return-Path: ") + 13))));
  EXPECT_EQ(sendto(ear, "0", 1, 0, plain, sizeof address), 1);
  close(ear);
  ProgramRun const run = asker.Wait();
  EXPECT_EQ(run.code, EX_TEMPFAIL);
  EXPECT_EQ(run.err, "brenthaven: SMTP-Router gave no answer; is its dispatcher at work?\n");
  ExpectNoFiles();
}

TEST_F(AskTest, NobodyToAnswerIsATemporaryFailure) {
  ProgramRun run = Brenthaven({"ask", "ann@example.org"});
  EXPECT_EQ(run.code, EX_TEMPFAIL);
  EXPECT_EQ(run.err, "brenthaven: no dispatcher runs for " + root + "\n");

  PutFile("run/dispatcher", "DispatchSocket=9\nDispatchKey=left-by-a-crash\n");
  run = Brenthaven({"ask", "ann@example.org", "--timeout", "0.2"});
  EXPECT_EQ(run.code, EX_TEMPFAIL);
  EXPECT_EQ(run.err, "brenthaven: SMTP-Router gave no answer; is its dispatcher at work?\n");
  EXPECT_EQ(run.out, "");
  ExpectNoFiles();
  EXPECT_EQ(Brenthaven({"ask", "a@b", "--timeout", "-1"}).code, EX_USAGE);
}
