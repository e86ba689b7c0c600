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
