#include "brenthaven/store/journal.h"

#include <algorithm>
#include <random>
#include <set>

#include "brenthaven/store/sobjectdb.h"
#include "tests/platform/callhook.h"
#include "tests/store/process.h"
#include "tests/support/scratch.h"

namespace {

enum { kType, kVersion, kName };
constexpr _Attribute kTable[] = {
    {"Type", kAttributeIndexed}, {"Version", kAttributeIndexed}, {"Name", kAttributeIndexed}, {nullptr, 0}};

// Enough objects for several pages in both trees, and for splits when all of them change.
constexpr int kObjects = 150;
constexpr int kVersionLength = 90;

SString VersionText(char version) { return SString(version, kVersionLength); }

class JournalTest : public ScratchSpool {
protected:
  static constexpr char const *kAttributesFile = "config/T.a";
  static constexpr char const *kIndexFile = "config/T.i";
  static constexpr char const *kJournalFile = "config/T.j";

  // One write section: every object gets the version, and as many more objects as are there come with it.
  static unsigned Change(SObjectDB &store, char version, int objects = kObjects) {
    store.LockWrite();
    for (int i = 0; i < objects; ++i) {
      SString const name = "object " + MakeSString(i);
      if (store.GetType(name) == 0) store.Create(name, 1);
      store.SetAttrib(kVersion, name, {VersionText(version)}, 0);
      store.SetAttrib(kName, name, {name + " of " + VersionText(version)}, 0);
    }
    store.UnlockWrite();
    return !store.WriteFailed();
  }

  // The version that all objects have, in the attributes and in the index alike, at one moment; '?' when they differ.
  static char VersionIn(SObjectDB &store) {
    store.LockRead();
    char const version = WholeVersion(store);
    store.UnlockRead();
    return version;
  }
  static char WholeVersion(SObjectDB &store) {
    char const version = store.GetStringAttrib(kVersion, "object 0")[0];
    SStringList const names = store.ListByType(1);
    if (names.Length() == 0 || store.ReadFailed()) return '?';
    for (SString const &name : names)
      if (store.GetStringAttrib(kVersion, name) != VersionText(version) ||
          store.ListByAttrib(kName, name + " of " + VersionText(version)).Length() != 1)
        return '?';
    bool const isWhole = store.CountByAttrib(kVersion, VersionText(version)) == names.Length() &&
                         store.CountValues(kVersion) == 1 && store.CountValues(kName) == names.Length();
    return isWhole ? version : '?';
  }
  static char VersionNow() {
    SObjectDB store("T.", 0, kTable);
    return VersionIn(store);
  }

  // A process reads for one message after another, with the flag cleared in between.
  static void ExpectReadsFail(SObjectDB &store) {
    for (int read = 0; read < 3; ++read) {
      store.ClearReadFailed();
      (void)store.GetStringAttrib(kVersion, "object 0");
      (void)store.ListByType(1);
      EXPECT_TRUE(store.ReadFailed()) << read;
    }
  }

  // Runs the change to version b in a child that ends, without any clean-up, at its n-th call of the file layer.
  static int CrashAt(std::string const &call, int number, int objects = 2 * kObjects) {
    Peer child([&](Peer &) {
      SCallHook hook(call, number, SCallHook::kCrash);
      SObjectDB store("T.", 0, kTable);
      Change(store, 'b', objects);
      return 0;
    });
    return child.Result();
  }

  void Start() {
    SObjectDB store("T.", 0, kTable);
    ASSERT_TRUE(Change(store, 'a'));
    for (char const *file : {kAttributesFile, kIndexFile, kJournalFile}) start[file] = FileBytes(file);
  }
  void Restore() {
    for (auto const &[file, bytes] : start) PutFile(file, bytes);
  }

  std::map<std::string, std::string> start;  // of the files after version a
};

TEST_F(JournalTest, AProcessThatEndsAtAnyCallLeavesAllOfASectionOrNothing) {
  Start();
  std::set<char> seen;
  for (int number = 1;; ++number) {
    Restore();
    SObjectDB open("T.", 0, kTable);  // a reader who was there before
    ASSERT_EQ(VersionIn(open), 'a');
    if (CrashAt("", number) == 0) break;
    char const now = VersionNow();
    ASSERT_TRUE(now == 'a' || now == 'b') << "call " << number;
    ASSERT_EQ(VersionIn(open), now) << "call " << number;
    seen.insert(now);
    SObjectDB next("T.", 0, kTable);
    ASSERT_TRUE(Change(next, 'c'));
    ASSERT_TRUE(now == 'b' || VersionNow() == 'c');
  }
  EXPECT_EQ(seen.size(), 2u);
}

// A change that makes neither file longer leaves no sign on a tree until its own pages come.
TEST_F(JournalTest, AReadSectionHasOneStateThoughAWriterDiedBetweenTheTrees) {
  Start();
  for (int number = 1, ended = -1; ended != 0; ++number) {
    Restore();
    SObjectDB open("T.", 0, kTable);
    ASSERT_EQ(VersionIn(open), 'a');
    ended = CrashAt("", number, kObjects);
    ASSERT_NE(VersionIn(open), '?') << "call " << number;
  }
}

TEST_F(JournalTest, FinishingASectionMayBeCutShortAnywhereAsWell) {
  Start();
  ASSERT_EQ(CrashAt("pwrite", 4), SCallHook::kCrashCode);
  std::map<std::string, std::string> crashed;
  for (auto const &[file, bytes] : start) crashed[file] = FileBytes(file);
  for (int number = 1, ended = -1; ended != 0; ++number) {
    for (auto const &[file, bytes] : crashed) PutFile(file, bytes);
    Peer child([&](Peer &) {
      SCallHook hook("", number, SCallHook::kCrash);
      SObjectDB store("T.", 0, kTable);
      return store.GetType("object 0") == 1 ? 0 : 1;
    });
    ended = child.Result();
    ASSERT_TRUE(ended == 0 || ended == SCallHook::kCrashCode);
    ASSERT_EQ(VersionNow(), 'b') << "call " << number;
  }
}

TEST_F(JournalTest, AnyCallThatFailsIsToldAndLeavesAllOrNothing) {
  setenv("SpoolSync", "fsync", 1);
  Start();
  for (int const error : {EIO, ENOSPC}) {
    for (int number = 1;; ++number) {
      Restore();
      unsigned told = 0;
      bool isPast = false;
      {
        SObjectDB store("T.", 0, kTable);
        SCallHook hook("", number, error);
        told = !Change(store, 'b', 2 * kObjects) || store.ReadFailed();
        isPast = hook.Total() < number;
      }
      char const now = VersionNow();
      ASSERT_TRUE(now == 'b' || (now == 'a' && told)) << "call " << number;
      if (isPast) break;
    }
  }
}

// The disk has the journal, and of the pages that came after it any sectors at all.
TEST_F(JournalTest, ADecidedSectionIsFinishedFromWhateverReachedTheDisk) {
  Start();
  ASSERT_EQ(CrashAt("pwrite", 1 + 1 + 1), SCallHook::kCrashCode);  // the body, the header, the first page
  std::string const journal = FileBytes(kJournalFile);
  ASSERT_EQ(VersionNow(), 'b');
  std::map<std::string, std::string> end;
  for (char const *file : {kAttributesFile, kIndexFile}) end[file] = FileBytes(file);

  std::mt19937 random(1);
  for (int round = 0; round < 30; ++round) {
    Restore();
    for (auto const &[file, bytes] : end) {
      std::string mixed = start[file];
      if (round % 3 == 0) mixed.resize(bytes.size());  // the file has grown, with nothing in it yet
      for (size_t at = 0; at < bytes.size(); at += 512) {
        if (random() % 2 == 0) continue;
        if (mixed.size() < at + 512) mixed.resize(at + 512);
        mixed.replace(at, 512, bytes, at, 512);
      }
      PutFile(file, mixed);
    }
    PutFile(kJournalFile, journal);
    ASSERT_EQ(VersionNow(), 'b') << round;
    for (auto const &[file, bytes] : end) ASSERT_EQ(FileBytes(file), bytes) << file << ' ' << round;
  }
}

TEST_F(JournalTest, AJournalThatIsOnlyPartlyThereCountsForNothing) {
  Start();
  ASSERT_EQ(CrashAt("pwrite", 3), SCallHook::kCrashCode);
  std::string const journal = FileBytes(kJournalFile);
  std::mt19937 random(1);
  for (int round = 0; round < 60; ++round) {
    Restore();
    std::string part = journal;
    if (round % 2 == 0)
      part.resize(random() % part.size());
    else
      part[random() % (round % 4 == 1 ? 64 : part.size())] ^= static_cast<char>(1 + random() % 255);
    PutFile(kJournalFile, part);
    ASSERT_EQ(VersionNow(), 'a') << round;
    ASSERT_EQ(FileBytes(kAttributesFile), start[kAttributesFile]) << round;
    SObjectDB store("T.", 0, kTable);
    ASSERT_TRUE(Change(store, 'c')) << round;
    ASSERT_EQ(VersionNow(), 'c') << round;
  }
}

// A writer who does not know of the journal came after the one that died.
TEST_F(JournalTest, WhatSomebodyElseWroteMeanwhileIsNotOverwritten) {
  Start();
  ASSERT_EQ(CrashAt("pwrite", 4), SCallHook::kCrashCode);
  std::string bytes = FileBytes(kAttributesFile);
  size_t const value = bytes.rfind("aaaa");
  ASSERT_NE(value, bytes.npos);
  bytes.replace(value, 4, "xxxx");
  PutFile(kAttributesFile, bytes);
  SObjectDB store("T.", 0, kTable);
  ExpectReadsFail(store);
  EXPECT_FALSE(Change(store, 'c'));
  EXPECT_EQ(FileBytes(kAttributesFile), bytes);
}

TEST_F(JournalTest, FileThatLostAllItHeldIsNoNewOne) {
  {
    SObjectDB store("T.", 0, kTable);
    ASSERT_TRUE(Change(store, 'a'));
  }
  Start();
  for (char const *gone : {kAttributesFile, kIndexFile})
    for (bool const isEmpty : {true, false}) {
      SCOPED_TRACE(std::string(gone) + (isEmpty ? " is empty" : " is not there"));
      std::filesystem::remove(Path(gone));
      if (isEmpty) PutFile(gone, "");
      SObjectDB store("T.", 0, kTable);
      ExpectReadsFail(store);  // and tell nobody that an object is absent
      EXPECT_FALSE(Change(store, 'c'));
      for (auto const &[file, bytes] : start) EXPECT_EQ(FileBytes(file), file == gone ? "" : bytes);
      Restore();
      EXPECT_EQ(VersionNow(), 'a');
    }
}

TEST_F(JournalTest, WithoutAJournalNoneIsMade) {
  SObjectDB store("T.", 0, kTable);
  store.SetJournaled(false);
  ASSERT_TRUE(Change(store, 'a'));
  EXPECT_EQ(VersionNow(), 'a');
  EXPECT_FALSE(Exists(kJournalFile));
}

TEST_F(JournalTest, AChildProcessTakesNoPartInItsParentsSection) {
  SObjectDB store("T.", 0, kTable);
  store.LockWrite();
  store.Create("object", 1);
  Peer child([&](Peer &peer) {
    if (!peer.Hear()) return 1;
    return VersionIn(store) == '?' && store.GetType("object") == 1 && Change(store, 'b') ? 0 : 2;
  });
  store.UnlockWrite();
  child.Tell();
  EXPECT_EQ(child.Result(), 0);
  EXPECT_EQ(store.GetType("object 0"), 1);
}

}  // namespace
