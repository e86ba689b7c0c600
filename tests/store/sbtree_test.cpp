#include "brenthaven/store/sbtree.h"

#include <sys/resource.h>

#include <csignal>
#include <cstring>
#include <random>

#include "brenthaven/platform/sys.h"
#include "tests/store/plainfile.h"
#include "tests/store/process.h"
#include "tests/support/scratch.h"

namespace {

class BTreeTest : public ScratchSpool {
protected:
  static constexpr size_t kPage = 16384;
  std::string file = "config/t";

  // Many records, so that the file has an internal page and several leaves.
  void PutMany(int count) const {
    SBTree tree("t", 0);
    tree.LockWrite();
    for (int i = 0; i < count; ++i) ASSERT_TRUE(tree.Set(Key(i), SString(100000 + i))) << i;
    tree.UnlockWrite();
    ASSERT_FALSE(tree.WriteFailed());
  }
  static SString Key(int i) { return SString("key") + SString(100000 + i); }

  static void SetOne(SString const &key, SString const &value) {
    SBTree tree("t", 0);
    tree.LockWrite();
    EXPECT_TRUE(tree.Set(key, value));
    tree.UnlockWrite();
  }
};

std::string Text(SString const &text) { return text.Defined() ? std::string(text.View()) : "(undefined)"; }

TEST_F(BTreeTest, OthersReadTheFileByteForByte) {
  std::string const longKey(5429, 'k'), longValue(100000, 'v');
  Records const records = {{"a", "1"},
                           {"ab", ""},
                           {std::string("a\0\x01", 3), std::string("\0x\0", 3)},
                           {"\xff", "high"},
                           {longKey, longValue}};
  SBTree tree("t", 0);
  tree.LockWrite();
  for (auto const &[key, value] : records) EXPECT_TRUE(tree.Set(SString(key), SString(value)));
  EXPECT_FALSE(tree.Set(SString('k', 5430), "too long to be found again"));
  EXPECT_TRUE(tree.Set("gone", "x"));
  EXPECT_TRUE(tree.Set("a", "0"));
  EXPECT_TRUE(tree.Set("a", "1"));  // replaces
  EXPECT_TRUE(tree.Delete("gone"));
  tree.UnlockWrite();
  ExpectRecords(Path(file), records);
  // Magic, version, page size, free page, record count and the flag for single keys.
  std::uint32_t head[6];
  std::string const bytes = FileBytes(file);
  ASSERT_EQ(bytes.size() % kPage, 0u);
  std::memcpy(head, bytes.data(), sizeof head);
  EXPECT_EQ(head[0], 0x053162u);
  EXPECT_EQ(head[1], 3u);
  EXPECT_EQ(head[2], kPage);
  EXPECT_EQ(head[5], 0x20u);
  for (auto const &[key, value] : records)
    EXPECT_TRUE(Text(tree.Get(SString(key))) == value) << key.size() << " and " << value.size() << " bytes";
}

TEST_F(BTreeTest, NewFileIsForGroupOnlyWhateverTheUmask) {
  for (mode_t mask : {0000, 0077}) {
    umask(mask);
    std::filesystem::remove(Path(file));
    SetOne("a", "b");
    EXPECT_EQ(static_cast<unsigned>(std::filesystem::status(Path(file)).permissions()), 0660u);
  }
}

TEST_F(BTreeTest, AbsentEmptyAndUnwrittenAreToldApart) {
  SBTree tree("t", 0);
  EXPECT_FALSE(tree.Get("a").Defined());  // no file
  EXPECT_EQ(tree.GetStatus(), 1);
  SetOne("empty", "");
  EXPECT_TRUE(tree.Get("empty").Defined());
  EXPECT_EQ(tree.GetStatus(), 0);
  EXPECT_FALSE(tree.Get("a").Defined());
  EXPECT_EQ(tree.GetStatus(), 1);
  EXPECT_FALSE(tree.ReadFailed());
  tree._InitStatus();
  EXPECT_EQ(tree.GetStatus(), 0);
}

TEST_F(BTreeTest, WritesNeedAWriteSection) {
  SBTree tree("t", 0);
  EXPECT_FALSE(tree.Set("a", "1"));
  EXPECT_FALSE(Exists(file));
  SetOne("a", "1");
  std::string const before = FileBytes(file);
  EXPECT_FALSE(tree.Set("a", "2"));
  EXPECT_FALSE(tree.Delete("a"));
  tree.Close();
  EXPECT_EQ(FileBytes(file), before);
  tree.LockWrite();
  EXPECT_FALSE(tree.Delete("absent"));
  tree.UnlockWrite();
  EXPECT_FALSE(tree.WriteFailed());
}

TEST_F(BTreeTest, NestedSectionsCloseAtTheLastEnd) {
  SBTree tree("t", 0);
  void *const closed = reinterpret_cast<void *>(-1);
  tree.LockWrite();
  tree.LockWrite();
  tree.UnlockWrite();
  EXPECT_NE(tree.GetFd(), closed);
  EXPECT_TRUE(tree.Set("a", "1"));
  tree.Close();  // the section goes on: the next call opens for writing again
  EXPECT_TRUE(tree.Set("b", "2"));
  tree.UnlockWrite();
  EXPECT_EQ(tree.GetFd(), closed);
  tree.UnlockWrite();  // one too many does no harm
  EXPECT_FALSE(tree.Set("c", "3"));
  ExpectRecords(Path(file), {{"a", "1"}, {"b", "2"}});
}

TEST_F(BTreeTest, NamesAndExplicitFlags) {
  std::string const elsewhere = Path("elsewhere");
  SBTree absolute(SString(elsewhere), 0);
  absolute.LockWrite();
  EXPECT_TRUE(absolute.Set("a", "1"));
  EXPECT_EQ(absolute.SetPBSflags(O_RDONLY), 0u);
  absolute.UnlockWrite();
  EXPECT_TRUE(std::filesystem::exists(elsewhere));

  auto const home = std::filesystem::current_path();
  std::filesystem::current_path(root);
  SBTree asItStands("elsewhere", 1, O_RDWR);
  EXPECT_TRUE(asItStands.Set("b", "2"));  // the flags count, not the depth
  asItStands.Close();
  EXPECT_EQ(asItStands.SetPBSflags(O_WRONLY), 1u);
  EXPECT_FALSE(asItStands.Open());
  asItStands.SetPBSflags(O_RDWR | O_CREAT | O_TRUNC);
  EXPECT_TRUE(asItStands.Set("c", "3"));
  asItStands.Close();
  std::filesystem::current_path(home);
  ExpectRecords(elsewhere, {{"c", "3"}});
}

TEST_F(BTreeTest, WalksInByteOrderFromAnyKey) {
  for (char const *key : {"b", "a", "\xe4", "ab"}) SetOne(key, SString("v") + key);
  SBTree tree("t", 0);
  struct {
    char const *from, *key, *value;
  } const cases[] = {
      {"", "a", "va"}, {"aa", "ab", "vab"}, {"b", "b", "vb"}, {"c", "\xe4", "v\xe4"}, {"\xe5", "\xe5", "(undefined)"}};
  for (auto const &c : cases) {
    SString key = c.from;
    EXPECT_EQ(Text(tree.SeqFirst(key)), c.value) << c.from;
    EXPECT_EQ(Text(key), c.key) << c.from;
  }
  SString key = "b";
  tree.SeqFirst(key);
  EXPECT_EQ(Text(tree.SeqNext(key)), "v\xe4");
  EXPECT_EQ(Text(tree.SeqNext(key)), "(undefined)");
  EXPECT_EQ(tree.GetMoveStatus(), 1);
  EXPECT_EQ(Text(key), "\xe4");
  EXPECT_EQ(Text(tree.SeqFirstJJ(key)), "va");
  EXPECT_EQ(Text(tree.SeqLastJJ(key)), "v\xe4");
  EXPECT_EQ(Text(tree.SeqPrevJJ(key)), "vb");
}

// File times move in steps of some milliseconds, so most of these changes fall into the same one.
TEST_F(BTreeTest, ReaderSeesEveryChangeAtLockReadHoweverFastTheyFollow) {
  SetOne("n", "first");
  SBTree reader("t", 0);
  for (int i = 0; i < 300; ++i) {
    SetOne("n", SString(1000 + i));
    reader.LockRead();
    ASSERT_EQ(Text(reader.Get("n")), std::to_string(1000 + i));
    reader.UnlockRead();
  }
}

TEST_F(BTreeTest, ReaderKeepsItsPagesBetweenSections) {
  SetOne("n", "1");
  SBTree reader("t", 0);
  reader.LockRead();
  EXPECT_EQ(Text(reader.Get("n")), "1");
  reader.UnlockRead();
  void *const fd = reader.GetFd();
  reader.LockRead();
  reader.UnlockRead();
  EXPECT_EQ(reader.GetFd(), fd);
  SetOne("n", "2");
  EXPECT_EQ(Text(reader.Get("n")), "1");
  reader.Refresh();
  EXPECT_EQ(Text(reader.Get("n")), "2");
}

TEST_F(BTreeTest, ReplacedAndMovedFilesAreNoticed) {
  SetOne("n", "old");
  SBTree reader("t", 0);
  auto read = [&reader] {
    reader.LockRead();
    SString const value = reader.Get("n");
    reader.UnlockRead();
    return Text(value);
  };
  EXPECT_EQ(read(), "old");
  std::filesystem::copy_file(Path(file), Path("config/copy"));
  SetOne("n", "new");
  EXPECT_EQ(read(), "new");
  std::filesystem::rename(Path("config/copy"), Path(file));
  EXPECT_EQ(read(), "old");
  std::filesystem::rename(Path(file), Path("config/aside"));
  EXPECT_EQ(read(), "(undefined)");
  EXPECT_FALSE(reader.ReadFailed());
}

TEST_F(BTreeTest, ReaderOfANewFileWaitsForItsWriter) {
  SBTree writer("t", 0);
  writer.LockWrite();  // the file is there now, and empty
  Peer peer([](Peer &) {
    SBTree reader("t", 0);
    return reader.Get("a") == "1" ? 0 : 1;
  });
  peer.WaitUntilBlocked();
  EXPECT_TRUE(writer.Set("a", "1"));
  writer.UnlockWrite();
  EXPECT_EQ(peer.Result(), 0);
}

TEST_F(BTreeTest, WriterWaitsForTheReadersOfASection) {
  SetOne("a", "1");
  SBTree reader("t", 0);
  reader.LockRead();
  Peer peer([](Peer &) {
    SetOne("a", "2");
    return 0;
  });
  peer.WaitUntilBlocked();
  reader.Close();
  EXPECT_EQ(peer.Result(), 0);
  reader.LockRead();
  EXPECT_EQ(Text(reader.Get("a")), "2");
}

TEST_F(BTreeTest, WritersLoseNothingAndReadersSeeWholeSections) {
  constexpr int kWriters = 3, kRounds = 60;
  SetOne("left", "0");
  SetOne("right", "0");
  auto write = [](Peer &) {
    for (int i = 0; i < kRounds; ++i) {
      SBTree tree("t", 0);
      tree.LockWrite();
      SString const next = SString(tree.Get("left").AsLong() + 1);
      tree.Set("left", next);
      tree.Set("right", next);
      tree.UnlockWrite();
      if (tree.ReadFailed() || tree.WriteFailed()) return 1;
    }
    return 0;
  };
  auto read = [](Peer &) {
    SBTree tree("t", 0);
    long seen = 0;
    for (int i = 0; i < 300; ++i) {
      tree.LockRead();
      SString const left = tree.Get("left"), right = tree.Get("right");
      tree.UnlockRead();
      if (tree.ReadFailed() || left != right || left.AsLong() < seen) return 1;
      seen = left.AsLong();
    }
    return 0;
  };
  Peer writers[kWriters] = {Peer(write), Peer(write), Peer(write)};
  Peer readers[] = {Peer(read), Peer(read)};
  for (Peer &peer : writers) EXPECT_EQ(peer.Result(), 0);
  for (Peer &peer : readers) EXPECT_EQ(peer.Result(), 0);
  EXPECT_EQ(Text(SBTree("t", 0).Get("left")), std::to_string(kWriters * kRounds));
}

TEST_F(BTreeTest, ChildOfAWriterHasNeitherItsLockNorItsPages) {
  SBTree tree("t", 0);
  tree.LockWrite();
  ASSERT_TRUE(tree.Set("a", "1"));
  Peer peer([&tree](Peer &) {
    bool const wrote = tree.Set("b", "2");
    tree.UnlockWrite();
    return wrote ? 1 : 0;
  });
  tree.LockWrite();  // nested; the child's reading waits for the real end
  tree.UnlockWrite();
  tree.UnlockWrite();
  EXPECT_EQ(peer.Result(), 0);
  ExpectRecords(Path(file), {{"a", "1"}});
}

TEST_F(BTreeTest, LockIsFreeAtTheEndOfASectionThoughAChildHoldsTheDescriptor) {
  SBTree tree("t", 0);
  tree.LockWrite();
  Peer peer([](Peer &self) { return self.Hear() ? 0 : 1; });
  tree.UnlockWrite();
  int const fd = sys::Open(Path(file).c_str(), O_RDWR);
  EXPECT_EQ(sys::Lock(fd, F_WRLCK, 0, 1, false), 0);
  sys::Close(fd);
  peer.Tell();
  EXPECT_EQ(peer.Result(), 0);
}

TEST_F(BTreeTest, DamagedFilesReadAsFailuresNotAsAbsence) {
  PutMany(3000);
  std::string const sound = FileBytes(file);
  ASSERT_GT(sound.size(), 5 * kPage);
  std::string const zeros(kPage, '\0'), noise(kPage, '\xa5');
  auto with = [&sound](size_t offset, std::string const &bytes) {
    return std::string(sound).replace(offset, bytes.size(), bytes);
  };
  struct {
    char const *why;
    std::string bytes;
  } const cases[] = {
      {"wrong magic", with(0, "\x01")},
      {"wrong version", with(4, "\x07")},
      {"page size of no page", with(8, std::string("\x07\0\0\0", 4))},
      {"zeroed root", with(kPage, zeros)},
      {"noise for a root", with(kPage, noise)},
      {"all leaves zeroed", sound.substr(0, 2 * kPage) + std::string(sound.size() - 2 * kPage, '\0')},
      {"all leaves noise", sound.substr(0, 2 * kPage) + std::string(sound.size() - 2 * kPage, '\x7f')},
      {"cut behind the root", sound.substr(0, 2 * kPage)},
      {"cut inside the header", sound.substr(0, 10)},
      {"cut inside the root", sound.substr(0, kPage + 100)},
      {"text", std::string("this is no database, though it is long enough to have a header")},
  };
  for (auto const &c : cases) {
    PutFile(file, c.bytes);
    SBTree tree("t", 0);
    tree.LockRead();
    EXPECT_FALSE(tree.Get(Key(1500)).Defined()) << c.why;
    EXPECT_EQ(tree.GetStatus(), -1) << c.why;
    EXPECT_TRUE(tree.ReadFailed()) << c.why;
    tree.ClearReadFailed();
    SString key;
    while (tree.SeqNext(key).Defined()) continue;
    EXPECT_EQ(tree.GetMoveStatus(), -1) << c.why;
    EXPECT_TRUE(tree.ReadFailed()) << c.why;
    tree.UnlockRead();
  }
}

TEST_F(BTreeTest, NothingIsWrittenIntoADamagedFile) {
  PutMany(3000);
  std::string const sound = FileBytes(file);
  for (std::string const &bytes : {std::string(sound).replace(kPage, kPage, std::string(kPage, '\0')),
                                   sound.substr(0, sound.size() - 1), sound.substr(0, kPage - 1)}) {
    PutFile(file, bytes);
    SBTree tree("t", 0);
    tree.LockWrite();
    EXPECT_FALSE(tree.Set(Key(7), "x"));
    EXPECT_FALSE(tree.Set("new", "x"));
    tree.UnlockWrite();
    EXPECT_EQ(FileBytes(file), bytes);
  }
}

TEST_F(BTreeTest, ARandomlyDamagedFileNeverEndsTheProcess) {
  PutMany(2000);
  SetOne("long", SString('x', 70000));
  std::string const sound = FileBytes(file);
  std::mt19937 random(185);
  for (int round = 0; round < 150; ++round) {
    std::string bytes = sound;
    size_t const length = size_t{1} << (random() % 12);
    for (int hits = 1 + static_cast<int>(random() % 4); hits > 0; --hits) {
      size_t const at = kPage + random() % (bytes.size() - kPage - length);
      for (size_t i = 0; i < length; ++i) bytes[at + i] = static_cast<char>(round % 3 == 0 ? 0 : random());
    }
    PutFile(file, bytes);
    Peer peer([](Peer &) {
      SBTree tree("t", 0);
      for (int i = 0; i < 2000; i += 50) tree.Get(Key(i));
      tree.Get("long");
      SString key;
      for (int i = 0; i < 5000 && tree.SeqNext(key).Defined(); ++i) continue;
      tree.LockWrite();
      for (int i = 0; i < 2000; i += 200) tree.Set(Key(i), SString('y', 2000));
      tree.UnlockWrite();
      return 0;
    });
    ASSERT_EQ(peer.Result(), 0) << "round " << round;
  }
}

TEST_F(BTreeTest, PagesThatCannotBeWrittenAreTold) {
  SetOne("a", "1");
  Peer peer([](Peer &) {
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit const limit = {2 * kPage, 2 * kPage};
    setrlimit(RLIMIT_FSIZE, &limit);
    SBTree tree("t", 0);
    tree.LockWrite();
    for (int i = 0; i < 2000; ++i) tree.Set(Key(i), "v");
    tree.UnlockWrite();
    return tree.WriteFailed() ? 0 : 1;
  });
  EXPECT_EQ(peer.Result(), 0);
}

TEST_F(BTreeTest, OpenErrorsOtherThanAbsenceRaiseTheFlag) {
  SetOne("a", "1");
  sys::SetHook([](sys::CallInfo const &call, void *) { return std::string(call.name) == "open" ? EMFILE : 0; },
               nullptr);
  SBTree tree("t", 0);
  EXPECT_FALSE(tree.Get("a").Defined());
  sys::SetHook(nullptr, nullptr);
  EXPECT_EQ(tree.GetStatus(), -1);
  EXPECT_TRUE(tree.ReadFailed());
  tree.ClearReadFailed();
  EXPECT_EQ(Text(tree.Get("a")), "1");
  EXPECT_FALSE(tree.ReadFailed());
}

}  // namespace
