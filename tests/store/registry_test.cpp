#include "brenthaven/platform/registry.h"

#include <sqlite3.h>

#include <algorithm>
#include <vector>

#include "tests/store/process.h"
#include "tests/support/scratch.h"

namespace {

class RegistryTest : public ScratchSpool {
protected:
  RegistryTest() { RegClearReadFailed(); }
  ~RegistryTest() override {
    for (HKEY key : opened) RegCloseKey(key);
  }

  HKEY Create(char const *path, HKEY parent = HKEY_LOCAL_MACHINE, REGSAM access = KEY_ALL_ACCESS) {
    HKEY key = nullptr;
    EXPECT_EQ(RegCreateKeyExA(parent, path, 0, nullptr, 0, access, nullptr, &key, nullptr), ERROR_SUCCESS) << path;
    opened.push_back(key);
    return key;
  }
  LONG Open(char const *path, HKEY &key, HKEY parent = HKEY_LOCAL_MACHINE) {
    LONG const status = RegOpenKeyExA(parent, path, 0, KEY_READ, &key);
    if (status == ERROR_SUCCESS) opened.push_back(key);
    return status;
  }
  LONG OpenStatus(char const *path) {
    HKEY key = nullptr;
    return Open(path, key);
  }
  static LONG Set(HKEY key, char const *name, std::string const &bytes, DWORD type = REG_BINARY) {
    return RegSetValueExA(key, name, 0, type, reinterpret_cast<BYTE const *>(bytes.data()),
                          static_cast<DWORD>(bytes.size()));
  }
  // The bytes, or "status N".
  static std::string Get(HKEY key, char const *name) {
    std::string bytes(2000, '?');
    DWORD length = 2000;
    LONG const status = RegQueryValueExA(key, name, nullptr, nullptr, reinterpret_cast<BYTE *>(bytes.data()), &length);
    return status == ERROR_SUCCESS ? bytes.substr(0, length) : "status " + std::to_string(status);
  }
  template <class Next>
  static std::string List(HKEY key, Next next) {
    std::string names;
    char name[100];
    DWORD length = sizeof name;
    for (DWORD index = 0; next(key, index, name, &length) == ERROR_SUCCESS; ++index, length = sizeof name)
      names += std::string(name, length) + " ";
    return names;
  }
  static std::string Keys(HKEY key) {
    return List(key, [](HKEY k, DWORD index, char *name, DWORD *length) {
      return RegEnumKeyExA(k, index, name, length, nullptr, nullptr, nullptr, nullptr);
    });
  }
  static std::string Values(HKEY key) {
    return List(key, [](HKEY k, DWORD index, char *name, DWORD *length) {
      return RegEnumValueA(k, index, name, length, nullptr, nullptr, nullptr, nullptr);
    });
  }

  std::string file = "config/registry.sqlite";
  std::vector<HKEY> opened;
};

TEST_F(RegistryTest, MissingFileIsAnEmptyStoreAndTheFirstWriteMakesIt) {
  EXPECT_EQ(OpenStatus("A"), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(Keys(HKEY_LOCAL_MACHINE), "");
  EXPECT_EQ(RegDeleteKeyA(HKEY_LOCAL_MACHINE, "A"), ERROR_FILE_NOT_FOUND);
  EXPECT_FALSE(Exists(file));
  EXPECT_FALSE(RegReadFailed());
  umask(0);
  Create("A");
  EXPECT_EQ(static_cast<unsigned>(std::filesystem::status(Path(file)).permissions()), 0660u);
  EXPECT_EQ(OpenStatus("A"), ERROR_SUCCESS);
}

TEST_F(RegistryTest, KeysAreFoundByTheirExactNamesAndEmptyComponentsCountForNothing) {
  DWORD disposition = 0;
  HKEY key = nullptr;
  RegCreateKeyExA(HKEY_LOCAL_MACHINE, "A\\B\\c", 0, nullptr, 0, KEY_READ, nullptr, &key, &disposition);
  EXPECT_EQ(disposition, REG_CREATED_NEW_KEY);
  RegCloseKey(key);
  RegCreateKeyExA(HKEY_LOCAL_MACHINE, "A\\B", 0, nullptr, 0, KEY_READ, nullptr, &key, &disposition);
  EXPECT_EQ(disposition, REG_OPENED_EXISTING_KEY);
  RegCloseKey(key);
  struct {
    char const *path;
    LONG status;
  } const cases[] = {
      {"A", ERROR_SUCCESS},          {"A\\B\\c", ERROR_SUCCESS},     {"\\A\\\\B\\\\\\c\\", ERROR_SUCCESS},
      {"a", ERROR_FILE_NOT_FOUND},   {"A\\b", ERROR_FILE_NOT_FOUND}, {"A\\B\\c\\d", ERROR_FILE_NOT_FOUND},
      {"A/B", ERROR_FILE_NOT_FOUND}, {"A\\B\\", ERROR_SUCCESS},
  };
  for (auto const &c : cases) EXPECT_EQ(OpenStatus(c.path), c.status) << c.path;
  ASSERT_EQ(Open("A", key), ERROR_SUCCESS);
  HKEY below = nullptr;
  EXPECT_EQ(Open("B\\c", below, key), ERROR_SUCCESS);
  EXPECT_EQ(Open("", below, key), ERROR_SUCCESS);  // the key itself
  EXPECT_EQ(Keys(below), "B ");
}

TEST_F(RegistryTest, ValuesKeepTypeAndBytes) {
  HKEY const key = Create("A");
  std::string const bytes("a\0\xff", 3);
  EXPECT_EQ(Set(key, "name", bytes, 42), ERROR_SUCCESS);
  EXPECT_EQ(Set(key, "NAME", "other"), ERROR_SUCCESS);
  EXPECT_EQ(Set(key, "empty", ""), ERROR_SUCCESS);
  DWORD type = 0, length = 2;
  BYTE small[2];
  EXPECT_EQ(RegQueryValueExA(key, "name", nullptr, &type, small, &length), ERROR_MORE_DATA);
  EXPECT_EQ(length, 3u);
  EXPECT_EQ(type, 42u);
  EXPECT_EQ(Get(key, "name"), bytes);
  EXPECT_EQ(Get(key, "NAME"), "other");
  EXPECT_EQ(Get(key, "empty"), "");
  EXPECT_EQ(Get(key, "Name"), "status 2");
  EXPECT_EQ(Values(key), "NAME empty name ");
  EXPECT_EQ(RegDeleteValueA(key, "name"), ERROR_SUCCESS);
  EXPECT_EQ(RegDeleteValueA(key, "name"), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(Get(key, "name"), "status 2");
}

TEST_F(RegistryTest, ReadingHandleMayCreateAndDeleteKeysButNotValues) {
  Set(Create("A"), "v", "1");
  HKEY const reading = Create("A", HKEY_LOCAL_MACHINE, KEY_READ);
  EXPECT_EQ(Set(reading, "v", "2"), ERROR_ACCESS_DENIED);
  EXPECT_EQ(RegDeleteValueA(reading, "v"), ERROR_ACCESS_DENIED);
  EXPECT_EQ(Get(reading, "v"), "1");
  HKEY const child = Create("child", reading);
  EXPECT_EQ(Set(child, "v", "3"), ERROR_SUCCESS);
  EXPECT_EQ(RegDeleteKeyA(HKEY_LOCAL_MACHINE, "A"), ERROR_ACCESS_DENIED);  // has a child
  EXPECT_EQ(RegDeleteKeyA(reading, "child"), ERROR_SUCCESS);
  EXPECT_EQ(Set(child, "v", "4"), ERROR_KEY_DELETED);
  EXPECT_EQ(Get(child, "v"), "status 2");
  EXPECT_EQ(RegDeleteKeyA(HKEY_LOCAL_MACHINE, "A"), ERROR_SUCCESS);
  EXPECT_EQ(RegDeleteKeyA(HKEY_LOCAL_MACHINE, ""), ERROR_ACCESS_DENIED);
  EXPECT_EQ(Set(HKEY_LOCAL_MACHINE, "v", "5"), ERROR_ACCESS_DENIED);
}

TEST_F(RegistryTest, EnumerationStaysAsItWasAtItsStart) {
  HKEY const key = Create("A");
  for (char const *name : {"b", "a", "c"}) Create(name, key);
  char name[10];
  std::string names;
  for (DWORD index = 0, length = 10;
       RegEnumKeyExA(key, index, name, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
       ++index, length = 10) {
    names += name;
    EXPECT_EQ(RegDeleteKeyA(key, name), ERROR_SUCCESS);
  }
  EXPECT_EQ(names, "abc");
  EXPECT_EQ(Keys(key), "");
  Create("long name", key);
  DWORD length = 9;  // no room for the NUL
  EXPECT_EQ(RegEnumKeyExA(key, 0, name, &length, nullptr, nullptr, nullptr, nullptr), ERROR_MORE_DATA);
}

TEST_F(RegistryTest, SectionsAboveTheKeptSizeAreReadInFull) {
  HKEY store = nullptr;
  ASSERT_EQ(RegOpenStoreA(Path("table").c_str(), KEY_ALL_ACCESS, &store), ERROR_SUCCESS);
  HKEY const key = Create("T", store);
  for (int i = 0; i < 1500; ++i)
    ASSERT_EQ(Set(key, ("n" + std::to_string(1000 + i)).c_str(), std::to_string(i)), ERROR_SUCCESS);
  for (int i : {0, 999, 1000, 1001, 1499})
    EXPECT_EQ(Get(key, ("n" + std::to_string(1000 + i)).c_str()), std::to_string(i));
  EXPECT_EQ(Get(key, "n"), "status 2");
  EXPECT_EQ(Values(key).size(), 1500u * 6);
  RegCloseKey(store);
}

TEST_F(RegistryTest, OtherProcessesChangesAreSeenThroughAnOpenHandle) {
  HKEY const key = Create("A");
  Set(key, "v", "0");
  Peer peer([key](Peer &self) {  // the handle goes on working in a child, on a connection of its own
    for (int i = 1; self.Hear(); ++i) {
      if (Set(key, "v", std::to_string(i)) != ERROR_SUCCESS) return 1;
      self.Tell();
    }
    return 0;
  });
  for (int i = 1; i <= 50; ++i) {
    peer.Tell();
    ASSERT_TRUE(peer.Hear());
    ASSERT_EQ(Get(key, "v"), std::to_string(i));
  }
  peer.Kill();
}

TEST_F(RegistryTest, AnotherRootAnotherStoreAndAReplacedFileIsNoticed) {
  HKEY const key = Create("A");
  Set(key, "v", "first");
  std::filesystem::copy_file(Path(file), Path("config/copy"));
  Set(key, "v", "second");
  EXPECT_EQ(Get(key, "v"), "second");
  std::filesystem::rename(Path("config/copy"), Path(file));
  EXPECT_EQ(Get(key, "v"), "first");
  std::filesystem::create_directories(Path("other/config"));
  setenv("Brenthaven", Path("other").c_str(), 1);
  EXPECT_EQ(OpenStatus("A"), ERROR_FILE_NOT_FOUND);
  setenv("Brenthaven", root.c_str(), 1);
  EXPECT_EQ(Get(key, "v"), "first");
  std::filesystem::remove(Path(file));
  EXPECT_EQ(Get(key, "v"), "status 2");
  EXPECT_FALSE(RegReadFailed());
}

TEST_F(RegistryTest, DamageRaisesTheFlagAndIsNotAbsence) {
  Set(Create("A"), "v", "1");
  std::string const sound = FileBytes(file);
  std::string fault = "?";
  EXPECT_EQ(RegCheckStore(fault), ERROR_SUCCESS);
  EXPECT_EQ(fault, "");
  for (std::string const &bytes :
       {std::string(5000, 'x'), std::string(sound).replace(0, 16, 16, '\0'),
        sound.substr(0, 4096) + std::string(sound.size() - 4096, '\x55'),
        sound.substr(0, 4096) + std::string(sound.size() - 4096, '\0'), sound.substr(0, 4096)}) {
    std::filesystem::remove(Path(file));
    PutFile(file, bytes);
    RegClearReadFailed();
    EXPECT_EQ(OpenStatus("A"), ERROR_CANTREAD);
    EXPECT_TRUE(RegReadFailed());
    EXPECT_EQ(RegCheckStore(fault), ERROR_CANTREAD);
    EXPECT_NE(fault, "");
    HKEY key = nullptr;
    EXPECT_NE(RegCreateKeyExA(HKEY_LOCAL_MACHINE, "B", 0, nullptr, 0, KEY_READ, nullptr, &key, nullptr), ERROR_SUCCESS);
    EXPECT_EQ(FileBytes(file), bytes);
  }
}

// Reads of one section pass by a page of another one that is damaged.
TEST_F(RegistryTest, DamageThatNoReadMeetsIsFoundByTheCheck) {
  HKEY const key = Create("A");
  Set(key, "v", "1");
  for (int i = 0; i < 200; ++i) Set(Create("Z"), std::to_string(i).c_str(), std::string(500, 'z'));
  std::string const sound = FileBytes(file);
  std::filesystem::remove(Path(file));
  PutFile(file, sound.substr(0, sound.size() - 4096) + std::string(4096, '\0'));
  EXPECT_EQ(Get(key, "v"), "1");
  EXPECT_FALSE(RegReadFailed());
  std::string fault;
  EXPECT_EQ(RegCheckStore(fault), ERROR_CANTREAD);
  EXPECT_NE(fault, "");
}

TEST_F(RegistryTest, FileThatOthersCanReadIsRefusedUntilItIsClosed) {
  HKEY const key = Create("A");
  Set(key, "v", "1");
  std::string fault;
  for (mode_t const mode : {0664, 0662, 0666}) {
    ASSERT_EQ(chmod(Path(file).c_str(), mode), 0);
    RegClearReadFailed();
    testing::internal::CaptureStderr();
    EXPECT_EQ(OpenStatus("A"), ERROR_CANTREAD);
    EXPECT_EQ(Get(key, "v"), "status 1012") << "nor by a handle that is open";
    EXPECT_EQ(Set(key, "v", "2"), ERROR_CANTWRITE);
    EXPECT_EQ(RegCheckStore(fault), ERROR_CANTREAD);
    EXPECT_TRUE(RegReadFailed());
    std::string const told = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), mode == 0664 ? 1 : 0) << "one line a process\n" << told;
  }
  for (mode_t const mode : {0660, 0600}) {
    ASSERT_EQ(chmod(Path(file).c_str(), mode), 0);
    EXPECT_EQ(Get(key, "v"), "1");
    EXPECT_EQ(Set(key, "v", "1"), ERROR_SUCCESS);
  }
  HKEY routes = nullptr;  // no secrets in there
  ASSERT_EQ(RegOpenStoreA(Path("routes").c_str(), KEY_ALL_ACCESS, &routes), ERROR_SUCCESS);
  ASSERT_EQ(chmod(Path("routes").c_str(), 0644), 0);
  EXPECT_EQ(Set(routes, "v", "1"), ERROR_SUCCESS);
  RegCloseKey(routes);
}

TEST_F(RegistryTest, AKilledWriterLeavesAWholeStore) {
  Create("A");
  for (int round = 0; round < 10; ++round) {
    Peer peer([this](Peer &self) {
      HKEY const key = Create("A");
      for (int i = 0;; ++i) {
        Set(key, "v", std::string(1 + i % 20000, 'v'));
        if (i == 20) self.Tell();
      }
      return 0;
    });
    ASSERT_TRUE(peer.Hear());
    peer.Kill();
    EXPECT_EQ(peer.Result(), -SIGKILL);
    HKEY key = nullptr;
    ASSERT_EQ(Open("A", key), ERROR_SUCCESS);
    EXPECT_TRUE(Get(key, "v").starts_with("v"));
    EXPECT_EQ(Set(Create("A"), "w", std::to_string(round)), ERROR_SUCCESS);
  }
  EXPECT_FALSE(RegReadFailed());
}

TEST_F(RegistryTest, WritersOfSeveralProcessesAllSucceed) {
  auto write = [this](int number) {
    return [this, number](Peer &) {
      HKEY const key = Create("A\\B");  // also the very first one races
      for (int i = 0; i < 30; ++i)
        if (Set(key, (std::to_string(number) + "." + std::to_string(i)).c_str(), "x") != ERROR_SUCCESS) return 1;
      return 0;
    };
  };
  Peer peers[] = {Peer(write(0)), Peer(write(1)), Peer(write(2))};
  for (Peer &peer : peers) EXPECT_EQ(peer.Result(), 0);
  HKEY key = nullptr;
  ASSERT_EQ(Open("A\\B", key), ERROR_SUCCESS);
  std::string const names = Values(key);
  EXPECT_EQ(std::count(names.begin(), names.end(), ' '), 90);
}

TEST_F(RegistryTest, StoreFilesOfTheirOwn) {
  HKEY store = nullptr;
  std::string const path = Path("routes");
  EXPECT_EQ(RegOpenStoreA(path.c_str(), KEY_READ, &store), ERROR_FILE_NOT_FOUND);
  ASSERT_EQ(RegOpenStoreA(path.c_str(), KEY_ALL_ACCESS, &store), ERROR_SUCCESS);
  EXPECT_EQ(Set(store, "at the root", "1"), ERROR_SUCCESS);
  Set(Create("RoutingTable", store), "example.org", "mx.example.net");
  EXPECT_EQ(OpenStatus("RoutingTable"), ERROR_FILE_NOT_FOUND);  // not in the store of the process
  EXPECT_EQ(RegCloseKey(store), ERROR_SUCCESS);
  for (HKEY key : opened) RegCloseKey(key);
  opened.clear();
  std::filesystem::rename(path, path + ".moved");
  ASSERT_EQ(RegOpenStoreA((path + ".moved").c_str(), KEY_READ, &store), ERROR_SUCCESS);
  EXPECT_EQ(Get(store, "at the root"), "1");
  EXPECT_EQ(Set(store, "v", "2"), ERROR_ACCESS_DENIED);
  HKEY table = nullptr;
  ASSERT_EQ(Open("RoutingTable", table, store), ERROR_SUCCESS);
  EXPECT_EQ(RegCloseKey(store), ERROR_SUCCESS);  // the table's handle keeps the store
  EXPECT_EQ(Get(table, "example.org"), "mx.example.net");
}

TEST_F(RegistryTest, FileIsPlainSql) {
  Set(Create("A\\B"), "v", "text", REG_MULTI_SZ);
  sqlite3 *database = nullptr;
  ASSERT_EQ(sqlite3_open_v2(Path(file).c_str(), &database, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
  std::string rows;
  auto collect = [](void *out, int count, char **texts, char **) {
    for (int i = 0; i < count; ++i)
      *static_cast<std::string *>(out) += std::string(texts[i] != nullptr ? texts[i] : "-") + " ";
    return 0;
  };
  EXPECT_EQ(sqlite3_exec(database,
                         "SELECT path, parent FROM section ORDER BY path; SELECT * FROM setting; PRAGMA journal_mode",
                         collect, &rows, nullptr),
            SQLITE_OK);
  sqlite3_close(database);
  EXPECT_EQ(rows, " - A  A\\B A A\\B v 7 text delete ");
}

}  // namespace
