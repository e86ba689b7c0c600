#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "brenthaven/platform/files.h"
#include "tests/platform/callhook.h"
#include "tests/support/scratch.h"

class DeleteAllTest : public ScratchSpool {
protected:
  int Delete(std::string const &relative) { return DeleteAll(Path(relative).c_str()); }

  // Deletes in another process, whose locks are none of ours.
  int DeleteElsewhere(std::string const &relative) {
    pid_t const child = fork();
    if (child == 0) _exit(Delete(relative));
    int status = -1;
    (void)waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
};

TEST_F(DeleteAllTest, RemovesATreeWithItsLockFiles) {
  PutFile("box/in/__lock__", "");
  PutFile("box/in/1", "x");
  PutFile("box/sub/odd\\name/2", "x");
  ASSERT_EQ(mkfifo(Path("box/fifo").c_str(), 0660), 0);
  EXPECT_EQ(Delete("box/"), kDeleteAllDone);
  EXPECT_FALSE(Exists("box"));
}

TEST_F(DeleteAllTest, CodesOfWhatCannotBeDone) {
  PutFile("file", "");
  EXPECT_EQ(DeleteAll(SString()), kDeleteAllEmptyPath);
  EXPECT_EQ(Delete("none"), kDeleteAllUnreadable);
  EXPECT_EQ(Delete("file"), kDeleteAllUnreadable);
  EXPECT_TRUE(Exists("file"));
}

TEST_F(DeleteAllTest, HeldLockKeepsTheDirectoryWhole) {
  PutFile("in/1", "x");
  void *const lock = LockFile(Path("in/__lock__").c_str(), 0, 0, 1);
  EXPECT_EQ(DeleteElsewhere("in"), kDeleteAllLocked);
  EXPECT_EQ(CountIn("in"), 2);
  ASSERT_EQ(CloseFile(lock), 1);
  EXPECT_EQ(DeleteElsewhere("in"), kDeleteAllDone);
  EXPECT_FALSE(Exists("in"));
}

TEST_F(DeleteAllTest, HeldLockBelowStopsTheWalk) {
  PutFile("box/in/1", "x");
  void *const lock = LockFile(Path("box/in/__lock__").c_str(), 0, 0, 1);
  EXPECT_EQ(DeleteElsewhere("box"), kDeleteAllDirectoryFailed);
  EXPECT_EQ(CountIn("box/in"), 2);
  ASSERT_EQ(CloseFile(lock), 1);
}

TEST_F(DeleteAllTest, FailureHasTheCodeOfItsPlaceAndGivesTheLocksUp) {
  struct Case {
    char const *tree;
    char const *call;
    int number;
    int code;
  };
  for (Case const &c :
       {Case{"box/", "unlink", 2, kDeleteAllFileFailed}, Case{"box/sub/", "unlink", 2, kDeleteAllDirectoryFailed},
        Case{"box/", "readdir", 2, kDeleteAllUnreadable}, Case{"box/sub/", "opendir", 2, kDeleteAllDirectoryFailed}}) {
    std::string const tree = c.tree;
    for (char const *name : {"1", "2", "3"}) PutFile(tree + name, "x");
    PutFile(tree + "__lock__", "");
    {
      SCallHook hook(c.call, c.number, EIO);
      EXPECT_EQ(Delete("box"), c.code) << tree << c.call;
    }
    EXPECT_EQ(CountIn(tree), std::string(c.call) == "unlink" ? 3 : 4) << "what came before the failure is gone";
    EXPECT_EQ(DeleteElsewhere("box"), kDeleteAllDone) << tree << c.call;
  }
}

TEST_F(DeleteAllTest, FileThatCameInMeanwhileIsKept) {
  PutFile("box/__lock__", "");
  PutFile("box/1", "x");
  std::string late = Path("box/late");
  sys::SetHook(
      [](sys::CallInfo const &call, void *context) {
        if (std::string(call.name) == "rmdir") std::ofstream(*static_cast<std::string *>(context)) << "mail";
        return 0;
      },
      &late);
  EXPECT_EQ(Delete("box"), kDeleteAllDone);
  sys::SetHook(nullptr, nullptr);
  EXPECT_EQ(FileBytes("box/late"), "mail");
}

TEST_F(DeleteAllTest, SymbolicLinksAreRemovedAndNotFollowed) {
  PutFile("outside/1", "x");
  PutFile("box/2", "x");
  ASSERT_EQ(symlink("../outside", Path("box/link").c_str()), 0);
  ASSERT_EQ(symlink("outside", Path("top").c_str()), 0);
  EXPECT_EQ(Delete("box"), kDeleteAllDone);
  EXPECT_EQ(Delete("top/"), kDeleteAllDone);
  EXPECT_FALSE(Exists("box"));
  EXPECT_FALSE(std::filesystem::is_symlink(Path("top")));
  EXPECT_EQ(FileBytes("outside/1"), "x");
}

TEST_F(DeleteAllTest, DepthCostsNoDescriptors) {
  std::string path = "box";
  while (Path(path).size() < 800) path += "/d";
  ASSERT_EQ(MakeDir(Path(path).c_str(), 0), 1);
  struct rlimit const few = {64, 64};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  EXPECT_EQ(Delete("box"), kDeleteAllDone);
  EXPECT_FALSE(Exists("box"));
}
