#include "brenthaven/platform/mapped.h"

#include "brenthaven/platform/barrier.h"
#include "tests/platform/callhook.h"
#include "tests/support/scratch.h"

namespace {

constexpr size_t kMiB = 1 << 20;

SString Bytes(size_t count) { return SString('x', static_cast<int>(count)); }

}  // namespace

class MappedTest : public ScratchSpool {
protected:
  SString P(std::string const &relative) const { return Path(relative).c_str(); }
  size_t SizeOf(std::string const &relative) const { return std::filesystem::file_size(Path(relative)); }
};

TEST_F(MappedTest, ReadsAWholeFile) {
  PutFile("file", std::string("a\0b", 3));
  SMappedFile file(P("file"));
  EXPECT_TRUE(file.IsOK());
  EXPECT_TRUE(file.GetString() == SString("a\0b", 3));
  EXPECT_EQ(file.View(), std::string_view("a\0b", 3));
  file.Close();
  EXPECT_FALSE(file.IsOK());
  EXPECT_FALSE(file.GetString().Defined());
  EXPECT_EQ(file.View(), "");
}

TEST_F(MappedTest, TextOfAFileMayOutliveIt) {
  PutFile("file", "text");
  SString text;
  {
    SMappedFile file(P("file"));
    text = file.GetString();
    SString const shared = file;
    EXPECT_TRUE(shared == text);
  }
  EXPECT_TRUE(text == "text");
}

TEST_F(MappedTest, EmptyFileIsOKWithoutText) {
  PutFile("empty", "");
  SMappedFile const empty(P("empty"));
  EXPECT_TRUE(empty.IsOK());
  EXPECT_FALSE(empty.GetString().Defined());
}

TEST_F(MappedTest, WhatIsNoFileOrTooLargeIsNotOK) {
  EXPECT_FALSE(SMappedFile(P("none")).IsOK());
  EXPECT_FALSE(SMappedFile(P("messages")).IsOK());
  PutFile("file", "text");
  ASSERT_EQ(symlink("file", Path("link").c_str()), 0);
  EXPECT_FALSE(SMappedFile(P("link")).IsOK());
  PutFile("huge", "");
  ASSERT_EQ(truncate(Path("huge").c_str(), off_t{1} << 30), 0);
  EXPECT_FALSE(SMappedFile(P("huge")).IsOK());
}

TEST_F(MappedTest, ExistingFileIsNeitherReplacedNorWritten) {
  PutFile("file", "old");
  SMappedFileWrite out;
  EXPECT_TRUE(out.IsOK());
  EXPECT_EQ(out.Create(Path("file").c_str()), 0U);
  EXPECT_FALSE(out.IsOK());
  EXPECT_FALSE(out.IsOpen());
  out.Write("more");
  out.Close(0);
  EXPECT_FALSE(out.IsOK());
  EXPECT_EQ(FileBytes("file"), "old");
  EXPECT_EQ(out.Create(Path("other").c_str()), 1U) << "a fresh file clears the failure";
  EXPECT_TRUE(out.IsOK());
}

TEST_F(MappedTest, WindowGrowsWithTheTextAndIsCutBack) {
  SMappedFileWrite out;
  ASSERT_EQ(out.Create(Path("file").c_str()), 1U);
  out.Write(Bytes(kMiB));
  EXPECT_EQ(SizeOf("file"), kMiB) << "just full: no new window before there is more to write";
  out.Write(Bytes(1));
  EXPECT_EQ(SizeOf("file"), 2 * kMiB);
  out.Write(Bytes(4 * kMiB - 1));  // 1 MiB less 1 fits, and 3 MiB need a window of 4
  EXPECT_EQ(SizeOf("file"), 6 * kMiB);
  out.Close(1);
  EXPECT_TRUE(out.IsOK());
  EXPECT_EQ(SizeOf("file"), 5 * kMiB);
  EXPECT_FALSE(out.IsOpen());
}

TEST_F(MappedTest, SmallTextStaysInMemoryUntilFlushed) {
  setenv("MaxMappedFileWriteKbytes", "10", 1);  // bytes
  SMappedFileWrite out;
  out.CreateCached(Path("file").c_str());
  out.Write("123456789");
  out.Close(1);
  EXPECT_TRUE(out.IsCached() && out.IsOpen());
  EXPECT_FALSE(Exists("file")) << "closing does not write the cache out";
  EXPECT_TRUE(out.GetCache() == "123456789");
  out.ReplaceCache("abcdefgh");
  out.Write("i");
  EXPECT_TRUE(out.IsCached());
  out.Write("j");  // the limit itself is too much
  EXPECT_FALSE(out.IsCached());
  EXPECT_TRUE(out.IsOpen());
  out.Close(0);
  EXPECT_TRUE(out.IsOK());
  EXPECT_EQ(FileBytes("file"), "abcdefghij");
}

TEST_F(MappedTest, CacheLimitSettings) {
  struct Case {
    char const *setting;
    size_t cached;  // most bytes that stay in memory
  };
  for (Case const &c : {Case{"0", kMiB - 1}, Case{"", kMiB - 1}, Case{"x", kMiB - 1}, Case{"1024", 1023}}) {
    setenv("MaxMappedFileWriteKbytes", c.setting, 1);
    SMappedFileWrite out;
    out.CreateCached(Path("file").c_str());
    out.Write(Bytes(c.cached));
    EXPECT_TRUE(out.IsCached()) << c.setting;
    out.Write(Bytes(1));
    EXPECT_FALSE(out.IsCached()) << c.setting;
    std::filesystem::remove(Path("file"));
  }
}

TEST_F(MappedTest, AnyFailureIsTold) {
  setenv("SpoolSync", "auto", 1);
  for (char const *call : {"open", "fchmod", "ftruncate", "pwrite", "fsync", "fstat", "close"}) {
    SMappedFileWrite out;
    out.CreateCached(Path(call).c_str());
    out.Write("text");
    SCallHook hook(call, 1, EIO);
    out.FlushCache();
    out.Close(1);
    EXPECT_FALSE(out.IsOK()) << call;
    EXPECT_FALSE(out.IsOpen()) << call;
  }
}

TEST_F(MappedTest, NoWritingAfterAFailure) {
  SMappedFileWrite out;
  ASSERT_EQ(out.Create(Path("file").c_str()), 1U);
  out.Write("good");
  {
    SCallHook full_disk("pwrite", 1, ENOSPC);
    out.Write("lost");
  }
  out.Write("late");
  out.Close(0);
  EXPECT_FALSE(out.IsOK());
  EXPECT_EQ(FileBytes("file"), "good") << "no hole and no tail";
}
