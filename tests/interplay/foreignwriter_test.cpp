// Another program that writes the B-tree files by the engine alone, with no lock and no journal, after one of our
// writers has died with its change decided and only partly in the files.
#include <fcntl.h>

#include <map>

#include "brenthaven/store/db185.h"
#include "brenthaven/store/sobjectdb.h"
#include "tests/platform/callhook.h"
#include "tests/store/plainfile.h"
#include "tests/store/process.h"
#include "tests/support/scratch.h"

namespace {

enum { kType, kName, kNote };
constexpr _Attribute kTable[] = {{"Type", kAttributeIndexed}, {"Name", kAttributeIndexed}, {"Note", 0}, {nullptr, 0}};
constexpr int kObjects = 300;
constexpr int kChanged = 60;  // the first ones, which share a few pages
constexpr int kLongChanged = 3;
constexpr size_t kLong = 40000;

std::string ObjectName(int number) {
  char name[16];
  (void)snprintf(name, sizeof name, "object %03d", number);
  return name;
}

class ForeignWriterTest : public ScratchSpool {
protected:
  static constexpr char const *kFiles[] = {"config/T.a", "config/T.i", "config/T.j"};

  static void Fill(SObjectDB &store, int objects, SString const &note) {
    store.LockWrite();
    for (int i = 0; i < objects; ++i) {
      SString const name = ObjectName(i).c_str();
      store.Create(name, 1);
      store.SetAttrib(kName, name, {name + note[0] + SString('n', 80)}, 0);
      store.SetAttrib(kNote, name, {note}, 0);
    }
    store.UnlockWrite();
  }

  // The change of a writer that dies at its n-th write to a file: 1 and 2 are the journal, 3 the first page. False when
  // it had fewer writes.
  static bool Crash(int number, int objects, SString const &note) {
    Peer child([&](Peer &) {
      SCallHook hook("pwrite", number, SCallHook::kCrash);
      SObjectDB store("T.", 0, kTable);
      Fill(store, objects, note);
      return 0;
    });
    return child.Result() == SCallHook::kCrashCode;
  }

  // What the other program does to a file: a value for a key, or none to delete it.
  void Write(char const *file, std::string key, std::string const *value) const {
    Peer foreign([&](Peer &) {
      SBTreeEngine *engine = dbopen(Path(file).c_str(), O_RDWR, 0, kBTreeType, nullptr);
      if (engine == nullptr) return 1;
      SBTreeItem item = {key.data(), key.size()};
      SBTreeItem const stored = {value != nullptr ? const_cast<char *>(value->data()) : nullptr,
                                 value != nullptr ? value->size() : 0};
      int const result = value != nullptr ? engine->put(engine, &item, &stored, 0) : engine->del(engine, &item, 0);
      return engine->close(engine) == 0 && result == 0 ? 0 : 1;
    });
    ASSERT_EQ(foreign.Result(), 0);
  }
};

TEST_F(ForeignWriterTest, WhatItWroteIsNeverOverwritten) {
  {
    SObjectDB store("T.", 0, kTable);
    Fill(store, kObjects, SString('a', 100));
  }
  std::map<std::string, std::string> start;
  for (char const *file : kFiles) start[file] = FileBytes(file);
  std::string const longValue(kLong, 'f'), shortValue = "foreign";
  std::string const last = ObjectName(kObjects - 1) + std::string("\0\2", 2);
  std::string const first = ObjectName(0) + std::string("\0\2", 2);
  struct {
    char const *why, *file;
    std::string key;
    std::string const *value;
    bool ours;  // our writer needs pages behind the end of the file
  } const cases[] = {
      {"a record that we change", "config/T.a", first, &shortValue, false},
      {"a record on a page that we do not touch", "config/T.a", last, &shortValue, false},
      {"new pages, where we need none", "config/T.a", last, &longValue, false},
      {"new pages, where we have decided on the same", "config/T.a", last, &longValue, true},
      {"a record that goes", "config/T.a", first, nullptr, false},
      {"the index", "config/T.i", std::string("\1zz\0stranger", 12), &shortValue, false},
  };
  for (auto const &c : cases) {
    for (int number = 3;; ++number) {
      for (auto const &[file, bytes] : start) PutFile(file, bytes);
      int const changed = c.ours ? kLongChanged : kChanged;
      if (!Crash(number, changed, SString('b', c.ours ? static_cast<int>(kLong) : 100))) break;
      Records const before = ReadWithEngine(Path(c.file));
      Write(c.file, c.key, c.value);
      std::string const written = FileBytes(c.file);
      SObjectDB store("T.", 0, kTable);
      (void)store.GetType("object 000");
      if (store.ReadFailed()) {
        EXPECT_EQ(FileBytes(c.file) == written, true) << c.why << ", write " << number;
        store.LockWrite();
        EXPECT_FALSE(store.Create("another", 1)) << c.why << ", write " << number;
        store.UnlockWrite();
        continue;
      }
      Records const now = ReadWithEngine(Path(c.file));
      auto const found = now.find(c.key);
      bool const isKept = c.value != nullptr ? found != now.end() && found->second == *c.value : found == now.end();
      EXPECT_TRUE(isKept) << c.why << ", write " << number;
      EXPECT_GE(now.size() + 1, before.size()) << c.why << ", write " << number;
    }
  }
}

}  // namespace
