#include "brenthaven/platform/barrier.h"

#include <cerrno>

#include "tests/platform/callhook.h"
#include "tests/support/scratch.h"

class BarrierTest : public ScratchSpool {
protected:
  // Adds count files and, with them, their one directory.
  void AddFiles(SSyncBarrier &barrier, int count) {
    for (int i = 0; i < count; ++i) {
      std::string const name = "messages/" + std::to_string(i);
      PutFile(name, "x");
      barrier.AddFile(Path(name).c_str());
      barrier.AddParentOf(Path(name).c_str());
    }
  }
};

TEST_F(BarrierTest, SettingDecidesHowManyCallsAreMade) {
  struct Case {
    char const *setting;
    int files;
    int fsyncs;
    int syncfs;
  };
  for (Case const &c : {Case{"auto", 3, 4, 0}, Case{"auto", 4, 0, 1}, Case{"auto", 0, 0, 0}, Case{"fsync", 20, 21, 0},
                        Case{"syncfs", 1, 0, 1}, Case{"syncfs", 0, 0, 0}, Case{"no", 20, 0, 0}, Case{"No", 3, 4, 0},
                        Case{nullptr, 20, 0, 1}}) {
    if (c.setting != nullptr)
      setenv("SpoolSync", c.setting, 1);
    else
      unsetenv("SpoolSync");
    SCallHook hook;
    unsigned long const before = SSyncBarrier::SyncCount();
    SSyncBarrier barrier;
    AddFiles(barrier, c.files);
    AddFiles(barrier, c.files);  // a path counts once
    EXPECT_EQ(barrier.Commit(), 1);
    EXPECT_EQ(hook.Count("fsync"), c.fsyncs) << (c.setting ? c.setting : "unset") << " " << c.files;
    EXPECT_EQ(hook.Count("syncfs"), c.syncfs) << (c.setting ? c.setting : "unset") << " " << c.files;
    EXPECT_EQ(SSyncBarrier::SyncCount() - before, static_cast<unsigned long>(c.fsyncs + c.syncfs));
    EXPECT_EQ(barrier.Size(), 0U);
  }
}

TEST_F(BarrierTest, ArmedFileSystemIsNotOpenedAgain) {
  setenv("SpoolSync", "auto", 1);
  SSyncBarrier barrier;
  barrier.Arm(Path("messages").c_str());
  barrier.Arm(Path("control").c_str());
  AddFiles(barrier, 20);
  SCallHook hook;
  EXPECT_EQ(barrier.Commit(), 1);
  EXPECT_EQ(hook.Count("open"), 0);
  EXPECT_EQ(hook.Count("syncfs"), 1);
  EXPECT_EQ(barrier.Commit(), 1);
  EXPECT_EQ(hook.Count("syncfs"), 1) << "nothing was written since";
}

TEST_F(BarrierTest, FirstFailureIsReportedWithItsError) {
  struct Case {
    char const *setting;
    char const *call;
  };
  for (Case const &c : {Case{"fsync", "fsync"}, Case{"fsync", "open"}, Case{"syncfs", "syncfs"}, Case{"syncfs", "open"},
                        Case{"syncfs", "stat"}}) {
    setenv("SpoolSync", c.setting, 1);
    SSyncBarrier barrier;
    AddFiles(barrier, 2);
    SCallHook hook(c.call, 1, EIO);
    EXPECT_EQ(barrier.Commit(), 0) << c.call;
    EXPECT_EQ(errno, EIO) << c.call;
    EXPECT_EQ(hook.Count(c.call), 1) << "a failed flush is not repeated";
  }
}

TEST_F(BarrierTest, MissingFileIsAFailure) {
  for (char const *setting : {"fsync", "syncfs"}) {
    setenv("SpoolSync", setting, 1);
    SSyncBarrier barrier;
    barrier.AddFile(Path("messages/none").c_str());
    EXPECT_EQ(barrier.Commit(), 0) << setting;
    EXPECT_EQ(errno, ENOENT) << setting;
  }
}
