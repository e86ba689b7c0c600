#include "brenthaven/platform/files.h"

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include "brenthaven/platform/descriptor.h"
#include "brenthaven/platform/logtext.h"
#include "brenthaven/text/base.h"
#include "tests/platform/callhook.h"
#include "tests/support/scratch.h"
#include "tests/support/texts.h"

namespace {

mode_t ModeOf(std::string const &path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? info.st_mode & 0777 : 0;
}

}  // namespace

class FilesTest : public ScratchSpool {
protected:
  SString P(std::string const &relative) const { return Path(relative).c_str(); }
};

TEST_F(FilesTest, KindsOfPath) {
  PutFile("file", "four");
  ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0660), 0);
  ASSERT_EQ(symlink("nowhere", Path("dangling").c_str()), 0);
  struct Case {
    SString path;
    int exists, regular, directory, readable;
    long size;
  };
  Case const cases[] = {
      {P("file"), 1, 1, 0, 1, 4},
      {P("messages"), 1, 0, 1, 0, -1},
      {P("messages/"), 1, 0, 1, 0, -1},
      {P("messages\\"), 1, 0, 1, 0, -1},
      {P("messages\\..\\file"), 1, 1, 0, 1, 4},
      {P("fifo"), 1, 1, 0, 1, 0},
      {P("dangling"), 0, 0, 0, 0, -1},
      {P("none"), 0, 0, 0, 0, -1},
      {SString((Path("file") + '\0' + "x").data(), static_cast<int>(Path("file").size()) + 2), 0, 0, 0, 0, -1},
      {SString("/"), 1, 0, 1, 0, -1},
      {SString(), 0, 0, 0, 0, -1},
  };
  for (Case const &c : cases) {
    EXPECT_EQ(FileExists(c.path), c.exists) << c.path;
    EXPECT_EQ(IsRegular(c.path), c.regular) << c.path;
    EXPECT_EQ(IsDirectory(c.path), c.directory) << c.path;
    EXPECT_EQ(IsReadable(c.path), c.readable) << c.path;
    EXPECT_EQ(IsExecutable(c.path), c.readable) << c.path;
    EXPECT_EQ(FileSize(c.path), c.size) << c.path;
  }
  EXPECT_EQ(IsWriteable(P("file")), 1);
  EXPECT_EQ(FileBytes("file"), "four") << "the test must not cut the file";
  EXPECT_EQ(IsWriteable(P("messages")), 0);
}

TEST_F(FilesTest, AgeIsInDays) {
  PutFile("file", "");
  struct timespec now;
  ASSERT_EQ(clock_gettime(CLOCK_REALTIME, &now), 0);
  struct timespec const times[] = {now, {now.tv_sec - 36 * 3600, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, Path("file").c_str(), times, 0), 0);
  EXPECT_NEAR(FileAge(P("file")), 1.5, 0.01);
  EXPECT_EQ(FileAge(P("none")), -1.0);
  EXPECT_EQ(FileAge(P("messages")), -1.0);
}

TEST_F(FilesTest, FreeSpaceIsWhatAnOrdinaryUserMayTake) {
  EXPECT_GT(FreeDiskSpace(root.c_str()), 0);
  EXPECT_GT(FreeDiskSpace(""), 0);
  EXPECT_EQ(FreeDiskSpace(P("none")), -1.0);
}

TEST_F(FilesTest, LinkFileMakesACopyOfItsOwn) {
  umask(077);
  PutFile("from", "old");
  ASSERT_EQ(chmod(Path("from").c_str(), 0666), 0);
  PutFile("to", "was here");
  SDescriptor const reader(sys::Open(Path("to").c_str(), O_RDONLY));
  ASSERT_EQ(LinkFile(P("from"), P("to")), 1);
  ASSERT_EQ(LinkFile(P("from"), P("fresh")), 1);
  PutFile("from", "changed");
  EXPECT_EQ(FileBytes("to"), "old");
  EXPECT_EQ(FileBytes("fresh"), "old");
  EXPECT_EQ(ModeOf(Path("fresh")), 0660U) << "never for the world, whatever the umask";
  char bytes[16];
  EXPECT_EQ(read(reader.Get(), bytes, sizeof bytes), 8) << "who had the old target open still reads it";
}

TEST_F(FilesTest, LinkFileRefusals) {
  PutFile("from", "text");
  EXPECT_EQ(LinkFile(P("messages"), P("to")), 0) << "a directory";
  EXPECT_EQ(LinkFile(P("none"), P("to")), 0);
  EXPECT_EQ(LinkFile(P("from"), P("messages")), 0) << "onto a directory";
  EXPECT_EQ(LinkFile(P("from"), P("none/to")), 0);
  ASSERT_EQ(link(Path("from").c_str(), Path("hard").c_str()), 0);
  EXPECT_EQ(LinkFile(P("from"), P("hard")), 1) << "the same file already";
  EXPECT_EQ(FileBytes("hard"), "text");
}

TEST_F(FilesTest, LinkFileFailingAtAnyCallKeepsTheTargetAndLeavesNoOtherFile) {
  PutFile("a/from", "text");
  PutFile("a/to", "old");
  int calls;
  {
    SCallHook counter;
    ASSERT_EQ(LinkFile(P("a/from"), P("a/to")), 1);
    calls = counter.Total();
  }
  for (int call = 1; call <= calls; ++call) {
    PutFile("a/to", "old");
    int result;
    {
      SCallHook hook("", call, EIO);
      result = LinkFile(P("a/from"), P("a/to"));
    }
    EXPECT_EQ(FileBytes("a/to"), result ? "text" : "old") << "call " << call;
    EXPECT_EQ(CountIn("a"), 2) << "call " << call;
  }
}

TEST_F(FilesTest, MakeDirMakesAllLevels) {
  ASSERT_EQ(chdir(root.c_str()), 0);
  PutFile("file", "");
  umask(077);
  struct Case {
    char const *path;
    int result;
    char const *made;
  };
  for (Case const &c : {Case{"a//b", 1, "a/b"}, Case{"c/d/", 1, "c/d"}, Case{"e\\f\\", 1, "e/f"}, Case{"a/b", 1, "a/b"},
                        Case{"", 0, ""}, Case{"file", 0, ""}, Case{"file/below", 0, ""}}) {
    EXPECT_EQ(MakeDir(c.path, 0), c.result) << c.path;
    EXPECT_TRUE(std::filesystem::is_directory(Path(c.result ? c.made : "a"))) << c.path;
  }
  EXPECT_EQ(MakeDir(P("x/y/z"), 0700), 1);
  EXPECT_EQ(ModeOf(Path("x/y")), 0770U);
  SCallHook refused("mkdir", 1, EACCES);
  EXPECT_EQ(MakeDir("q/r", 0), 0);
}

TEST_F(FilesTest, MakeDirAcceptsALevelThatAnotherProcessMade) {
  std::filesystem::create_directory(Path("a"));
  struct Race {  // the level seems missing to the first look and is there for mkdir
    static int Call(sys::CallInfo const &call, void *context) {
      std::string const &level = *static_cast<std::string *>(context);
      static bool seen = false;
      if (std::string(call.name) == "stat" && call.path == level && !std::exchange(seen, true)) return ENOENT;
      return 0;
    }
  };
  std::string level = Path("a");
  level.insert(0, "/");  // as the walk writes an absolute path
  sys::SetHook(Race::Call, &level);
  EXPECT_EQ(MakeDir(P("a/b"), 0), 1);
  sys::SetHook(nullptr, nullptr);
}

TEST_F(FilesTest, ChdirIgnoresOneEndingSeparator) {
  EXPECT_EQ(Chdir(P("messages\\")), 1);
  EXPECT_EQ(std::filesystem::current_path(), Path("messages"));
  EXPECT_EQ(Chdir("/"), 1);
  EXPECT_EQ(Chdir(P("none")), 0);
}

TEST_F(FilesTest, PartsOfAPath) {
  struct Case {
    char const *path, *directory, *file;
  };
  for (Case const &c : {Case{"a/b/c", "a/b", "c"}, Case{"c", ".", "c"}, Case{"/c", ".", "c"}, Case{"a/", "a", ""},
                        Case{"a\\b", ".", "a\\b"}, Case{"//c", "/", "c"}, Case{"", ".", ""}}) {
    EXPECT_EQ(Text(PathFromFilename(c.path)), c.directory) << c.path;
    EXPECT_EQ(Text(FileFromFilename(c.path)), c.file) << c.path;
  }
}

TEST_F(FilesTest, AllFilesBelowInPlaceOfTheirDirectory) {
  PutFile("t/a/b/1", "");
  PutFile("t/a/2", "");
  PutFile("t/3", "");
  std::filesystem::create_directory(Path("t/empty"));
  ASSERT_EQ(symlink("..", Path("t/a/up").c_str()), 0);
  std::vector<std::string> found;
  for (SString const &file : ReadDirRecursive(P("t"))) found.push_back(Text(file).substr(root.size()));
  EXPECT_THAT(found, testing::UnorderedElementsAre("/t/a/b/1", "/t/a/2", "/t/3", "/t/a/up"));
  EXPECT_FALSE(ReadDirRecursive(P("none")).Defined());
  EXPECT_TRUE(ReadDirRecursive(P("t/empty")).Defined());
}

TEST_F(FilesTest, FailedRemovalIsLogged) {
  setenv("ModuleName", "Mailbox-Deliver", 1);
  PutFile("file", "");
  testing::internal::CaptureStderr();
  unsigned result;
  {
    SCallHook hook("unlink", 1, EACCES);
    result = RemoveFileLogged(P("file"));
  }
  std::string const log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(result, 0U);
  EXPECT_THAT(log, testing::MatchesRegex("[0-9]{14}[-+][0-9]{4}:Mailbox-Deliver:ERROR:Couldn't remove file " +
                                         Path("file") + ":Permission denied\n"));
  testing::internal::CaptureStderr();
  EXPECT_EQ(RemoveFileLogged(P("none")), 0U);
  EXPECT_EQ(RemoveFileLogged(P("messages")), 0U);
  EXPECT_EQ(RemoveFileLogged(P("file")), 1U);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(LogTextTest, TextFromOutsideMakesNoLineOfItsOwnAndNoEndlessOne) {
  EXPECT_EQ(LogText("plain: <a\\b@c> caf\xc3\xa9"), "plain: <a\\b@c> caf\xc3\xa9");
  EXPECT_EQ(LogText(std::string_view("a\r\nb\0\x1b[2J\x7f", 10)), "a\\x0d\\x0ab\\x00\\x1b[2J\\x7f");
  EXPECT_EQ(LogText(std::string(1000, 'x')), std::string(1000, 'x'));
  EXPECT_EQ(LogText(std::string(1001, 'x')), std::string(1000, 'x') + "...");
  EXPECT_EQ(LogText(std::string(997, 'x') + "\n"), std::string(997, 'x') + "...") << "no half of an escape";
}

TEST_F(FilesTest, LockIsNotTakenThroughASymbolicLink) {
  PutFile("victim", "");
  ASSERT_EQ(symlink("victim", Path("lock").c_str()), 0);
  ASSERT_EQ(symlink("made", Path("dangling").c_str()), 0);
  for (char const *name : {"lock", "dangling"}) {
    EXPECT_EQ(LockFile(P(name), 0, 0, 1), HandleOf(-1)) << name;
    EXPECT_EQ(errno, ELOOP) << name;
  }
  EXPECT_FALSE(Exists("made"));
}

TEST_F(FilesTest, LockModes) {
  void *const none = HandleOf(-1);
  umask(077);
  void *const exclusive = LockFile(P("lock"), 0, 0, 1);
  ASSERT_NE(exclusive, none);
  EXPECT_EQ(ModeOf(Path("lock")), 0660U);
  EXPECT_EQ(LockFile(P("lock"), 0, 0, 1), none);
  EXPECT_EQ(LockFile(P("lock"), kLockShared, 0, 1), none);
  EXPECT_EQ(UnlockFile(exclusive, 0, 1), 1);
  void *const shared = LockFile(P("lock"), kLockShared, 0, 1);
  ASSERT_NE(shared, none);
  void *const another = LockFile(P("lock"), kLockShared | kLockWait, 0, 1);
  EXPECT_NE(another, none);
  EXPECT_EQ(LockFile(exclusive, 0, 0, 1), none);
  EXPECT_EQ(CloseFile(shared), 1);
  EXPECT_EQ(CloseFile(another), 1);
  EXPECT_EQ(LockFile(exclusive, kLockWait, 0, 1), exclusive) << "closing gave the locks up";
  EXPECT_EQ(CloseFile(exclusive), 1);
  EXPECT_EQ(CloseFile(none), 0);
  EXPECT_EQ(LockFile(P("none/lock"), 0, 0, 1), none);
}

// A waiter that is granted a lock on a file that is gone by then would keep nobody out.
TEST_F(FilesTest, WaiterLocksTheFileThatStandsThereInTheEnd) {
  void *const held = LockFile(P("lock"), 0, 0, 1);
  int asking[2];
  int done[2];
  int release[2];
  for (int *ends : {asking, done, release}) ASSERT_EQ(pipe(ends), 0);
  pid_t const child = fork();
  if (child == 0) {
    (void)CloseFile(held);  // the child's copy would keep the lock alive
    sys::SetHook(
        [](sys::CallInfo const &call, void *context) {
          if (std::string(call.name) == "lock") (void)!write(*static_cast<int *>(context), "x", 1);
          return 0;
        },
        &asking[1]);
    void *const handle = LockFile(P("lock"), kLockWait, 0, 1);
    (void)!write(done[1], "x", 1);
    char byte;
    if (handle != HandleOf(-1)) (void)!read(release[0], &byte, 1);  // the parent looks at the lock meanwhile
    _exit(handle != HandleOf(-1) ? 0 : 1);
  }
  char byte;
  ASSERT_EQ(read(asking[0], &byte, 1), 1);  // the waiter has the old file open
  ASSERT_EQ(unlink(Path("lock").c_str()), 0);
  ASSERT_EQ(CloseFile(held), 1);
  ASSERT_EQ(read(done[0], &byte, 1), 1);
  EXPECT_EQ(LockFile(P("lock"), 0, 0, 1), HandleOf(-1)) << "held by the waiter, on the file with the name";
  ASSERT_EQ(write(release[1], "x", 1), 1);
  int status;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}
