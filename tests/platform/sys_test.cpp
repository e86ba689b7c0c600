#include "brenthaven/platform/sys.h"

#include <unistd.h>

#include <cstring>

#include "brenthaven/platform/descriptor.h"
#include "brenthaven/text/base.h"
#include "tests/platform/callhook.h"
#include "tests/support/scratch.h"

using SysTest = ScratchSpool;

TEST_F(SysTest, NewFileFailingAtAnyCallLeavesNothing) {
  std::string const path = Path("new");
  int calls = 0;
  {
    SCallHook counter;
    ASSERT_EQ(MapFileWrite(path.c_str(), SString("text")), 1);
    calls = counter.Total();
  }
  ASSERT_GT(calls, 1);
  for (int call = 1; call <= calls; ++call) {
    ASSERT_EQ(unlink(path.c_str()), 0);
    SCallHook full_disk("", call, ENOSPC);
    EXPECT_EQ(MapFileWrite(path.c_str(), SString("text")), 0) << "call " << call;
    EXPECT_EQ(errno, ENOSPC) << "call " << call;
    EXPECT_FALSE(Exists("new")) << "call " << call;
    PutFile("new", "");
  }
}

TEST_F(SysTest, CopyKeepsTheBytesWhateverTheFileSystemCanDo) {
  std::string bytes;
  for (int i = 0; i < 700'000; ++i) bytes += static_cast<char>(i * 7 % 251);
  PutFile("from", bytes);
  struct Case {
    char const *refused;
    int number;  // of the refused call
    int error;
    off_t skip;  // bytes read before
    int result;
  };
  for (Case const &c : {Case{"", 0, 0, 0, 0}, Case{"clone", 1, EOPNOTSUPP, 0, 0}, Case{"clone", 1, EXDEV, 5, 0},
                        Case{"copy_range", 1, EXDEV, 3, 0}, Case{"copy_range", 2, ENOSYS, 3, 0},
                        Case{"copy_range", 1, ENOSPC, 3, -1}}) {
    SDescriptor const from(sys::Open(Path("from").c_str(), O_RDONLY));
    SDescriptor const to(sys::Open(Path("to").c_str(), O_RDWR | O_CREAT | O_TRUNC));
    ASSERT_EQ(lseek(from.Get(), c.skip, SEEK_SET), c.skip);
    SCallHook hook(c.refused, c.number, c.error);
    EXPECT_EQ(sys::CopyContents(from.Get(), to.Get()), c.result) << c.refused;
    if (c.result != 0) continue;
    EXPECT_TRUE(FileBytes("to") == bytes.substr(static_cast<size_t>(c.skip))) << c.refused;
  }
}

TEST_F(SysTest, CopyFailsWhenTheTargetIsFullAfterThePlainCopyBegan) {
  SDescriptor const from(sys::Open("/proc/self/maps", O_RDONLY));  // says size 0, so that no clone or range copy serves
  SDescriptor const to(sys::Open(Path("to").c_str(), O_RDWR | O_CREAT));
  SCallHook hook("write", 1, ENOSPC);
  EXPECT_EQ(sys::CopyContents(from.Get(), to.Get()), -1);
  EXPECT_EQ(errno, ENOSPC);
}

TEST_F(SysTest, MappingOfWholePagesHasAZeroBehindIt) {
  size_t const page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  PutFile("page", std::string(page, 'x'));
  SDescriptor file(sys::Open(Path("page").c_str(), O_RDONLY));
  void const *view = sys::MapRead(file.Get(), page);
  file = SDescriptor();
  ASSERT_NE(view, nullptr);
  EXPECT_EQ(strlen(static_cast<char const *>(view)), page);
  sys::Unmap(view, page);
}

TEST_F(SysTest, LockOfOneOpenFileOutlivesTheCloseOfAnother) {
  PutFile("lock", "");
  SDescriptor const holder(sys::Open(Path("lock").c_str(), O_RDWR));
  SDescriptor const other(sys::Open(Path("lock").c_str(), O_RDWR));
  ASSERT_EQ(sys::Lock(holder.Get(), F_WRLCK, 0, 1, false), 0);
  { SDescriptor const passing(sys::Open(Path("lock").c_str(), O_RDWR)); }
  EXPECT_EQ(sys::Lock(other.Get(), F_WRLCK, 0, 1, false), -1);
  EXPECT_EQ(sys::Lock(other.Get(), F_RDLCK, 0, 1, false), -1);
  ASSERT_EQ(sys::Lock(holder.Get(), F_UNLCK, 0, 1, false), 0);
  EXPECT_EQ(sys::Lock(other.Get(), F_WRLCK, 0, 1, false), 0);
}

TEST_F(SysTest, FailedCloseStillReleasesTheDescriptor) {
  PutFile("file", "");
  int const fd = sys::Open(Path("file").c_str(), O_RDONLY);
  {
    SCallHook hook("close", 1, EIO);
    EXPECT_EQ(sys::Close(fd), -1);
    EXPECT_EQ(errno, EIO);
  }
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(SysTest, UnnamedFileTakesAFreeNameOnly) {
  PutFile("taken", "old");
  SDescriptor const file(sys::Open(root.c_str(), O_TMPFILE | O_WRONLY));
  if (!file.IsOpen()) GTEST_SKIP() << "no unnamed files here";
  ASSERT_EQ(sys::WriteAll(file.Get(), "new", 3), 0);
  EXPECT_EQ(sys::LinkFd(file.Get(), Path("taken").c_str()), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(FileBytes("taken"), "old");
  EXPECT_EQ(sys::LinkFd(file.Get(), Path("free").c_str()), 0);
  EXPECT_EQ(FileBytes("free"), "new");
}
