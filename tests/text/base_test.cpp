#include "brenthaven/text/base.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <set>

#include "brenthaven/platform/sys.h"
#include "tests/support/scratch.h"

namespace {

class BaseTest : public ScratchSpool {
protected:
  SString At(char const *name) const { return Path(name).c_str(); }
};

TEST_F(BaseTest, NewFileHoldsTheDataAndComesBack) {
  umask(077);
  SString const data("line\r\n\0end", 10);
  ASSERT_EQ(MapFileWrite(At("new"), data), 1);
  EXPECT_TRUE(MapFileRead(At("new")) == data);
  struct stat info;
  ASSERT_EQ(stat(Path("new").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0660u);
  ASSERT_EQ(MapFileWrite(At("nothing"), ""), 1);
  EXPECT_TRUE(MapFileRead(At("nothing")).Defined());
  EXPECT_EQ(MapFileRead(At("nothing")).Length(), 0);
}

TEST_F(BaseTest, ExistingFileIsNotWrittenOver) {
  PutFile("old", "kept");
  EXPECT_EQ(MapFileWrite(At("old"), "new"), 0);
  EXPECT_EQ(FileBytes("old"), "kept");
  EXPECT_EQ(MapFileWrite("", "new"), 0);
}

int NoSpace(sys::CallInfo const &call, void *) { return std::string(call.name) == "write" ? ENOSPC : 0; }

TEST_F(BaseTest, FullDiskLeavesNoFileAndTellsWhy) {
  sys::SetHook(NoSpace, nullptr);
  errno = 0;
  EXPECT_EQ(MapFileWrite(At("new"), "data"), 0);
  EXPECT_EQ(GetErrorNo(), ENOSPC);
  sys::SetHook(nullptr, nullptr);
  EXPECT_FALSE(Exists("new"));
}

TEST_F(BaseTest, WhatCannotBeReadIsUndefined) {
  EXPECT_FALSE(MapFileRead(At("missing")).Defined());
  EXPECT_FALSE(MapFileRead(At("messages")).Defined()) << "a directory";
  ASSERT_EQ(mkfifo(Path("pipe").c_str(), 0600), 0);
  EXPECT_FALSE(MapFileRead(At("pipe")).Defined()) << "a pipe, which must not hang either";
  EXPECT_GT(MapFileRead("/proc/self/status").Length(), 0) << "its size is told as 0";
}

TEST_F(BaseTest, PathsTakeBackslashesAndStopAtNoNul) {
  PutFile("messages/a", "text");
  EXPECT_TRUE(MapFileRead((root + "\\messages\\a").c_str()) == "text");
  EXPECT_FALSE(MapFileRead(At("messages/a") + SString("\0x", 2)).Defined());
}

TEST_F(BaseTest, RenameReplacesFilesAndLeavesDirectoriesAlone) {
  PutFile("from", "new");
  PutFile("to", "old");
  EXPECT_EQ(Rename(At("from"), At("to")), 1);
  EXPECT_EQ(FileBytes("to"), "new");
  EXPECT_FALSE(Exists("from"));
  EXPECT_EQ(Rename(At("from"), At("to")), 0);
  EXPECT_EQ(Rename(At("messages"), At("moved")), 0);
  EXPECT_TRUE(Exists("messages"));
}

TEST_F(BaseTest, RemovalsKeepToTheirKind) {
  PutFile("control/file", "");
  EXPECT_EQ(RemoveFile(At("messages")), 0);
  EXPECT_TRUE(Exists("messages"));
  EXPECT_EQ(RemoveDir(At("control")), 0) << "not empty";
  EXPECT_EQ(RemoveDir(At("control/file")), 0) << "no directory";
  EXPECT_EQ(RemoveFile(At("control/file")), 1);
  EXPECT_EQ(RemoveFile(At("control/file")), 0);
  EXPECT_EQ(RemoveDir(At("control") + "/"), 1);
  EXPECT_EQ(RemoveDir((root + "/deferred\\").c_str()), 1);
}

TEST_F(BaseTest, DirectoriesGiveFullPathsWithOneSlash) {
  PutFile("messages/a", "");
  PutFile("messages/b", "");
  for (char const *tail : {"messages", "messages/", "messages//", "/messages", "messages\\"}) {
    SStringList const names = ReadDir((root + "/" + tail).c_str());
    EXPECT_EQ(names.Length(), 2) << tail;
    EXPECT_TRUE(names.Contains(At("messages/a")) || names.Contains((root + "\\messages/a").c_str())) << names.Join(" ");
  }
  EXPECT_FALSE(ReadDir("").Defined());
  EXPECT_FALSE(ReadDir(At("missing")).Defined());
  EXPECT_TRUE(ReadDir(At("control")).Defined()) << "empty, but read";
  EXPECT_TRUE(ReadDir("/").Contains("/proc"));
}

TEST_F(BaseTest, BaseNamesTakeOnlyTheSlash) {
  EXPECT_TRUE(BaseName("/x/y-Control", "-Control") == "y");
  EXPECT_TRUE(BaseName("/x/y", "-Control") == "y");
  EXPECT_TRUE(BaseName("x\\y") == "x\\y");
  EXPECT_TRUE(BaseName("/x/") == "");
  EXPECT_TRUE(BaseName(SStringList{"/a/b.c", "d.c"}, ".c") == (SStringList{"b", "d"}));
}

TEST(DateTest, LogDatesEndInTheZone) {
  struct {
    char const *zone;
    char const *want;
  } const cases[] = {
      {"UTC0", "+0000"}, {"XXX-1", "+0100"}, {"XXX5", "-0500"}, {"XXX-5:30", "+0530"}, {"XXX3:30", "-03-3"}};
  for (auto const &row : cases) {
    setenv("TZ", row.zone, 1);
    tzset();
    SString const date = LogFileDate();
    EXPECT_EQ(date.Length(), 19) << date;
    EXPECT_TRUE(date.Segment(14, 5) == row.want) << row.zone << " gave " << date;
  }
}

TEST(DateTest, MessageDatesAreInUniversalTime) {
  setenv("TZ", "XXX-12", 1);
  tzset();
  time_t const before = time(nullptr);
  SString const date = MessageIdDate();
  time_t const after = time(nullptr);
  ASSERT_EQ(date.Length(), 17);
  struct tm utc = {};
  ASSERT_NE(strptime(date.Segment(0, 14), "%Y%m%d%H%M%S", &utc), nullptr) << date;
  EXPECT_GE(timegm(&utc), before);
  EXPECT_LE(timegm(&utc), after);
}

TEST(ProcessTest, LongValuesOfTheEnvironmentComeWhole) {
  std::string const value(5000, 'v');
  setenv("TEXT_TEST_VALUE", value.c_str(), 1);
  EXPECT_EQ(GetEnv("TEXT_TEST_VALUE").View(), value);
  EXPECT_EQ(GetEnv(SString("TEXT_TEST_VALUE")).Length(), 5000);
  EXPECT_TRUE(GetEnv("TEXT_TEST_UNSET").Defined());
  EXPECT_EQ(GetEnv("TEXT_TEST_UNSET").Length(), 0);
  EXPECT_EQ(ProcessIdString().AsLong(), getpid());
}

TEST(ProcessTest, RandomNumbersCoverTheirRange) {
  std::set<int> seen;
  for (int i = 0; i < 1000; ++i) seen.insert(RandomInt(5));
  EXPECT_EQ(seen, (std::set<int>{0, 1, 2, 3, 4}));
  EXPECT_EQ(RandomInt(0), 0);
  EXPECT_EQ(RandomInt(-3), 0);
}

TEST(ErrorTest, SocketErrorIsApartFromErrno) {
  errno = ENOENT;
  EXPECT_EQ(GetSocketErrorNo(), 0);
  SetSocketErrorNo(ECONNREFUSED);
  EXPECT_EQ(GetErrorNo(), ENOENT);
  EXPECT_TRUE(GetErrorString(-1) == strerror(ENOENT));
  EXPECT_TRUE(GetSocketErrorString(-1) == strerror(ECONNREFUSED));
  EXPECT_TRUE(GetErrorString(EACCES) == strerror(EACCES));
}

TEST(ErrorDeathTest, FailedAllocationEndsTheProcessForAnotherTry) {
  EXPECT_EXIT(
      {
        SetNewHandler();
        NewHandler();
      },
      ::testing::ExitedWithCode(105), "Out of memory");
}

}  // namespace
