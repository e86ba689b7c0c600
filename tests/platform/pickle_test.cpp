#include "brenthaven/platform/pickle.h"

#include <sys/wait.h>
#include <unistd.h>

#include "brenthaven/platform/files.h"
#include "tests/platform/callhook.h"
#include "tests/support/scratch.h"

class PickleTest : public ScratchSpool {
protected:
  SString P(std::string const &relative) const { return Path(relative).c_str(); }
  bool IsLocked() const {
    void *const lock = LockFile(P("state.lock"), 0, 0, 1);
    if (lock == HandleOf(-1)) return true;
    (void)CloseFile(lock);
    return false;
  }
  static void Put(SPickleFile &file, char const *text) {
    file.Clear();
    file.PutString(text);
  }
};

TEST_F(PickleTest, ItemsAsBytes) {
  SPickleFile file(P("state"));
  ASSERT_EQ(file.Read(), 1U) << "a missing file is empty";
  EXPECT_EQ(file.GetInt(), 0);
  file.PutInt(-2);
  file.PutInt(0x01020304);
  file.PutString("ab");
  file.PutList({"", "c"});
  ASSERT_EQ(file.Write(), 1U);
  EXPECT_EQ(FileBytes("state"),
            std::string("\xFE\xFF\xFF\xFF\x04\x03\x02\x01\x02\0\0\0ab\x02\0\0\0\0\0\0\0\x01\0\0\0c", 27));
  EXPECT_FALSE(IsLocked());
  EXPECT_TRUE(Exists("state.lock"));
  EXPECT_FALSE(Exists("state.new"));

  SPickleFile again(P("state"));
  ASSERT_EQ(again.Read(), 1U);
  EXPECT_EQ(again.GetInt(), -2);
  EXPECT_EQ(again.GetInt(), 0x01020304);
  EXPECT_TRUE(again.GetString() == "ab");
  EXPECT_TRUE(again.GetList() == (SStringList{"", "c"}));
  EXPECT_EQ(again.GetInt(), 0);
}

TEST_F(PickleTest, BrokenTextIsCutToWhatIsLeft) {
  struct Case {
    char const *what;
    std::string bytes;
    char const *text;  // of GetString
    int items;         // of GetList
  };
  Case const cases[] = {
      {"length past the end", std::string("\x09\0\0\0ab", 6), "ab", 0},
      {"negative length",
       std::string("\xFF\xFF\xFF\xFF"
                   "ab",
                   6),
       "", 0},
      {"largest length", std::string("\xFF\xFF\xFF\x7F", 4), "", 0},
      {"largest count", std::string("\xFF\xFF\xFF\x7F\x01\0\0\0x\0\0", 11), "\x01", 1},
      {"three bytes", "abc", "", 0},
  };
  for (Case const &c : cases) {
    PutFile("state", c.bytes);
    SPickleFile file(P("state"));
    ASSERT_EQ(file.Read(), 1U);
    EXPECT_EQ(file.GetList().Length(), c.items) << c.what;
    file.Clear();
    SPickleFile strings(P("other"));
    PutFile("other", c.bytes);
    ASSERT_EQ(strings.Read(), 1U);
    EXPECT_STREQ(strings.GetString(), c.text) << c.what;
  }
}

TEST_F(PickleTest, IntegerAtTheEndDoesNotMoveThePosition) {
  PutFile("state", std::string("\x02\0\0\0ab\x07", 7));
  SPickleFile file(P("state"));
  ASSERT_EQ(file.Read(), 1U);
  EXPECT_TRUE(file.GetString() == "ab");
  EXPECT_EQ(file.GetInt(), 0);
  EXPECT_EQ(file.GetInt(), 0);
  file.PutInt(0x01);  // behind the lone byte: 07 01 00 00 00
  EXPECT_EQ(file.GetInt(), 0x0107);
}

TEST_F(PickleTest, LockIsHeldFromReadToTheEnd) {
  {
    SPickleFile file(P("state"));
    EXPECT_EQ(file.Lock(), 1U);
    EXPECT_EQ(file.Lock(), 1U);
    EXPECT_TRUE(IsLocked());
  }
  EXPECT_FALSE(IsLocked());
}

TEST_F(PickleTest, SecondReadKeepsTheChanges) {
  PutFile("state", std::string("\x01\0\0\0", 4));
  SPickleFile file(P("state"));
  ASSERT_EQ(file.Lock(), 1U);
  ASSERT_EQ(file.Read(), 1U) << "the lock alone has not read anything";
  EXPECT_EQ(file.GetInt(), 1);
  file.Clear();
  file.PutInt(2);
  ASSERT_EQ(file.Read(), 1U);
  EXPECT_EQ(file.GetInt(), 2);
  ASSERT_EQ(file.Write(), 1U);
  ASSERT_EQ(file.Read(), 1U);
  EXPECT_EQ(file.GetInt(), 2) << "a new cycle reads the file again";
}

TEST_F(PickleTest, UnreadableFileIsNoEmptyOne) {
  PutFile("state", "text");
  for (char const *call : {"stat", "open"}) {
    SPickleFile file(P("state"));
    ASSERT_EQ(file.Lock(), 1U);
    SCallHook hook(call, 1, EMFILE);
    EXPECT_EQ(file.Read(), 0U) << call;
  }
}

TEST_F(PickleTest, LeftoverNewFileStopsTheWriting) {
  PutFile("state.new", "half");
  SPickleFile file(P("state"));
  ASSERT_EQ(file.Read(), 1U);
  EXPECT_EQ(file.Write(), 0U);
  EXPECT_TRUE(IsLocked());
  EXPECT_EQ(FileBytes("state.new"), "half");
}

TEST_F(PickleTest, RefusedRenameOrFlushLeavesOldFileAndNoNewOne) {
  setenv("SpoolSync", "auto", 1);
  PutFile("state", "old");
  for (char const *call : {"rename", "fsync"}) {
    SPickleFile file(P("state"));
    ASSERT_EQ(file.Read(), 1U);
    SCallHook hook(call, 1, EIO);
    EXPECT_EQ(file.Write(), 0U) << call;
    EXPECT_TRUE(IsLocked()) << call;
    EXPECT_EQ(FileBytes("state"), "old") << call;
    EXPECT_FALSE(Exists("state.new")) << call;
  }
}

TEST_F(PickleTest, CrashAtAnyCallLeavesTheOldFileOrTheNew) {
  setenv("SpoolSync", "auto", 1);
  auto write_state = [this](char const *text) {
    SPickleFile file(P("state"));
    if (!file.Read()) return false;
    Put(file, text);
    return file.Write() == 1;
  };
  bool seen_old = false;
  for (int call = 1;; ++call) {
    std::filesystem::remove(Path("state.new"));
    ASSERT_TRUE(write_state("old"));
    std::string const old_bytes = FileBytes("state");
    pid_t const child = fork();
    if (child == 0) {
      SCallHook crash("", call, SCallHook::kCrash);
      _exit(write_state("new") ? 0 : 1);
    }
    int status;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    std::string const bytes = FileBytes("state");
    if (WEXITSTATUS(status) == 0) {
      EXPECT_EQ(bytes.substr(4), "new");
      break;
    }
    ASSERT_EQ(WEXITSTATUS(status), SCallHook::kCrashCode);
    EXPECT_TRUE(bytes == old_bytes || bytes.substr(4) == "new") << "call " << call;
    seen_old |= bytes == old_bytes;
  }
  EXPECT_TRUE(seen_old);
}

TEST_F(PickleTest, RemoveTakesTheLockFileToo) {
  SPickleFile file(P("state"));
  EXPECT_EQ(file.Remove(), 1U) << "no file";
  ASSERT_EQ(file.Read(), 1U);
  ASSERT_EQ(file.Write(), 1U);
  EXPECT_EQ(file.Remove(), 1U);
  EXPECT_FALSE(Exists("state") || Exists("state.lock"));
  PutFile("state", "");
  EXPECT_EQ(file.Remove(), 0U) << "without its lock file";
  EXPECT_FALSE(Exists("state"));
}
