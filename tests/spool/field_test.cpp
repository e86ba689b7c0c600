#include <gmock/gmock.h>

#include <cerrno>

#include "brenthaven/spool/field.h"
#include "brenthaven/spool/header.h"
#include "tests/spool/spooltest.h"

using ::testing::ElementsAre;

namespace {

class FieldFileTest : public SpoolTest {
protected:
  SString FilePath() const { return SString(Path("control/f").c_str()); }
};

struct ParseCase {
  char const *why;
  std::string bytes;
  std::vector<std::pair<std::string, std::vector<std::string>>> want;
};

}  // namespace

TEST_F(FieldFileTest, LinesBecomeKeysAndValues) {
  ParseCase const cases[] = {
      {"a repeated key is one key with two values", "Trace: A\r\nTrace: B\r\n", {{"Trace:", {"A", "B"}}}},
      {"a folded line belongs to the value, CR LF included",
       "Subject: a\r\n  b\r\n\tc\r\nTo: d\r\n",
       {{"Subject:", {"a\r\n  b\r\n\tc"}}, {"To:", {"d"}}}},
      {"a line without a blank is one more value of the key before it",
       "To: a\r\nFunction:\r\n",
       {{"To:", {"a", "Function:"}}}},
      {"the last line needs no end", "To: a", {{"To:", {"a"}}}},
      {"an empty value is a value", "To: \r\n", {{"To:", {""}}}},
      {"values are not trimmed", "To:  a \r\n", {{"To:", {" a "}}}},
      {"a bare LF or CR is a byte of the value", "To: a\nb\rc\r\n", {{"To:", {"a\nb\rc"}}}},
      {"NUL is a byte", std::string("To: a\0b\r\n", 9), {{"To:", {std::string("a\0b", 3)}}}},
      {"a blank in front of the first line opens a key without a name",
       " x\r\nTo: a\r\n",
       {{"", {"x"}}, {"To:", {"a"}}}},
      {"keys of a control differ by case", "To: a\r\nTO: b\r\n", {{"To:", {"a"}}, {"TO:", {"b"}}}},
  };
  for (auto const &[why, bytes, want] : cases) {
    SCOPED_TRACE(why);
    PutFile("control/f", bytes);
    SField field(1, 0);
    ASSERT_EQ(field.Read(FilePath()), 1);
    std::vector<std::pair<std::string, std::vector<std::string>>> got;
    for (SString const &key : field.Keys()) got.emplace_back(Str(key), Strs(field.Get(key)));
    EXPECT_EQ(got, want);
  }
}

TEST_F(FieldFileTest, HeaderComesBackOutByteForByteUnderItsFirstSpelling) {
  std::string const bytes = "Received: from a\r\n\tby b\r\nsubject: x\r\n y\r\nX-Empty: \r\n";
  PutFile("messages/m-Header", bytes);
  SHeader header("m");
  ASSERT_EQ(header.Read(), 1);
  EXPECT_EQ(Str(header.Get("SUBJECT:").Get(0)), "x\r\n y");
  ASSERT_EQ(header.Write("n"), 1);
  EXPECT_EQ(FileBytes("messages/n-Header"), bytes);
  EXPECT_EQ(Str(header.GetFilename()), "n");
}

TEST_F(FieldFileTest, MissingOrEmptyFileLeavesTableAndFlag) {
  PutFile("control/empty", "");
  for (char const *name : {"empty", "missing"}) {
    SCOPED_TRACE(name);
    SField field(1, 0);
    field["To:"] = "a";
    EXPECT_EQ(field.Read(SString(Path(std::string("control/") + name).c_str())), 0);
    EXPECT_EQ(field.IsLoaded(), 0U);
    EXPECT_EQ(Strs(field.Get("To:")), std::vector<std::string>{"a"});
  }
}

TEST_F(FieldFileTest, WriteWithoutPathIsToldByTheErrorNumber) {
  SField field(1, 0);
  EXPECT_EQ(field.Write(), 0);
  EXPECT_EQ(field.GetError(), -11);
}

TEST_F(FieldFileTest, NoValueOpensALineOfItsOwn) {
  SField field(1, 0);
  field["To:"] = "a\r\nFunction: Evil";
  field["To:"].Push("folded\r\n already");
  field["Empty:"].Reset();
  ASSERT_EQ(field.Write(FilePath()), 1);
  EXPECT_EQ(FileBytes("control/f"), "To: a\r\n Function: Evil\r\nTo: folded\r\n already\r\nEmpty: \r\n");
  SField again(1, 0);
  ASSERT_EQ(again.Read(FilePath()), 1);
  EXPECT_THAT(Strs(again.Get("To:")), ElementsAre("a\r\n Function: Evil", "folded\r\n already"));
  EXPECT_FALSE(again.Get("Function:").Defined());
}

TEST_F(FieldFileTest, TenThousandFieldsRoundTrip) {
  std::string bytes;
  for (int i = 0; i < 10000; ++i) bytes += "K" + std::to_string(i) + ": " + std::to_string(i) + "\r\n folded\r\n";
  PutFile("control/f", bytes);
  SField field(1, 0);
  ASSERT_EQ(field.Read(FilePath()), 1);
  EXPECT_EQ(field.Keys().Length(), 10000);
  ASSERT_EQ(field.Write(), 1);
  EXPECT_EQ(FileBytes("control/f"), bytes);
}

TEST_F(FieldFileTest, AnyFailingCallLeavesTheOldFileAndNoTemporaryOne) {
  setenv("SpoolSync", "fsync", 1);
  PutFile("control/f", "To: old\r\n");
  SField field(1, 0);
  field["To:"] = "new";
  CallWatch watch;
  for (int n = 1; n < 100; ++n) {
    SCOPED_TRACE(n);
    watch.FailNth(n, ENOSPC);
    int const written = field.Write(FilePath());
    if (!watch.Failed()) {
      EXPECT_EQ(written, 1);
      EXPECT_GT(n, 4);  // there were calls to fail: open, write, fsync, rename at the least
      return;
    }
    EXPECT_EQ(FileBytes("control/f"), written ? "To: new\r\n" : "To: old\r\n");
    EXPECT_FALSE(Exists("control/f.temp"));
    PutFile("control/f", "To: old\r\n");
  }
  FAIL() << "never without a failure";
}

TEST_F(FieldFileTest, StaleTemporaryFileFailsOneWriteAndGoes) {
  PutFile("control/f.temp", "half a li");
  SField field(1, 0);
  field["To:"] = "a";
  EXPECT_EQ(field.Write(FilePath()), 0);
  EXPECT_FALSE(Exists("control/f.temp"));
  EXPECT_FALSE(Exists("control/f"));
  EXPECT_EQ(field.Write(FilePath()), 1);
}

TEST_F(FieldFileTest, OnlyAReplacedFileIsFlushedAndBeforeTheRename) {
  setenv("SpoolSync", "fsync", 1);
  SField field(1, 0);
  field["To:"] = "a";
  CallWatch watch;
  ASSERT_EQ(field.Write(FilePath()), 1);
  EXPECT_EQ(watch.Count("fsync"), 0);
  watch.calls.clear();
  ASSERT_EQ(field.Write(FilePath()), 1);
  EXPECT_EQ(watch.Count("fsync"), 1);
  EXPECT_LT(watch.Place("fsync"), watch.Place("rename"));
  setenv("SpoolSync", "no", 1);
  watch.calls.clear();
  ASSERT_EQ(field.Write(FilePath()), 1);
  EXPECT_EQ(watch.Count("fsync"), 0);
}

TEST_F(FieldFileTest, AssignmentKeepsDirectoryAndErrorOfTheTarget) {
  SHeader source("a");
  source["To:"] = "x";
  setenv("Brenthaven", (root + "/elsewhere").c_str(), 1);
  SHeader target("b");
  target = source;
  EXPECT_EQ(Str(target.GetHeaderFilename()), Path("messages/a-Header"));
  EXPECT_EQ(Str(target.Get("to:").Get(0)), "x");
  target.PutFilename("c");
  EXPECT_EQ(Str(target.GetHeaderFilename()), Path("elsewhere/messages/c-Header"));
}
