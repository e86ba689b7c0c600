#include "brenthaven/store/sdbfile.h"

#include "tests/support/scratch.h"

namespace {

std::string Joined(SStringList const &list) { return std::string(list.Join("|").View()); }

class SettingsTest : public ScratchSpool {
protected:
  SettingsTest() { Sdbfile::ClearReadFailed(); }

  // Bytes and type as they lie in the store, or as a hand put them there.
  static std::string Stored(char const *section, char const *name, DWORD &type) {
    HKEY key = nullptr;
    std::string path = std::string("SOFTWARE\\Tarnwick\\Brent.Haven\\M\\") + section, bytes(3000, '?');
    DWORD length = 3000;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return "no key";
    LONG const status = RegQueryValueExA(key, name, nullptr, &type, reinterpret_cast<BYTE *>(bytes.data()), &length);
    RegCloseKey(key);
    return status == ERROR_SUCCESS ? bytes.substr(0, length) : "no value";
  }
  static void Store(char const *name, DWORD type, std::string const &bytes) {
    HKEY key = nullptr;
    RegCreateKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Tarnwick\\Brent.Haven\\M\\Config", 0, nullptr, 0, KEY_ALL_ACCESS,
                    nullptr, &key, nullptr);
    RegSetValueExA(key, name, 0, type, reinterpret_cast<BYTE const *>(bytes.data()), static_cast<DWORD>(bytes.size()));
    RegCloseKey(key);
  }
  static Sdbfile Reader() {
    Sdbfile settings("M", 0, kProductWord);
    settings.Open("/Config", 0);
    return settings;
  }
  static SStringList Get(char const *name) { return Reader().Get(name); }
};

TEST_F(SettingsTest, ListsAreStoredInOneOfTwoForms) {
  SString const holed("x\0y", 3);
  struct {
    SStringList list;
    DWORD type;
    std::string bytes;
    SStringList back;
  } const cases[] = {
      {{"a"}, REG_MULTI_SZ, std::string("a\0\0", 3), {"a"}},
      {{"a", "", "b"}, REG_MULTI_SZ, std::string("a\0\0b\0\0", 6), {"a", "", "b"}},
      {{"", "b"}, REG_MULTI_SZ, std::string("\0b\0\0", 4), {"", "b"}},
      {SStringList(), REG_MULTI_SZ, std::string("\0\0", 2), SStringList()},
      {{""}, REG_MULTI_SZ, std::string("\0\0", 2), SStringList()},
      {{"a", ""}, REG_MULTI_SZ, std::string("a\0\0\0", 4), {"a"}},
      {{"a", holed}, REG_BINARY, std::string("2\0001\0a3\0x\0y", 10), {"a", holed}},
      {{"", holed, ""}, REG_BINARY, std::string("3\0000\0003\0x\0y0\0", 11), {"", holed, ""}},
  };
  Sdbfile settings("M", 1, kProductWord);
  settings.Open("/Config", 1);
  for (auto const &c : cases) {
    EXPECT_EQ(settings.Set("v", c.list), 1);
    DWORD type = 0;
    EXPECT_EQ(Stored("Config", "v", type), c.bytes) << Joined(c.list);
    EXPECT_EQ(type, c.type) << Joined(c.list);
    EXPECT_TRUE(settings.Get("v") == c.back) << Joined(c.list);
  }
}

TEST_F(SettingsTest, StoredBytesAreReadWithoutTrust) {
  struct {
    DWORD type;
    std::string bytes;
    char const *list, *why;
  } const cases[] = {
      {REG_SZ, "text", "", "other types are not seen"},
      {4, std::string("\1\0\0\0", 4), "", "other types are not seen"},
      {REG_MULTI_SZ, "a", "a", "the NUL bytes at the end may be missing"},
      {REG_MULTI_SZ, "", "", "no bytes"},
      {REG_BINARY, std::string("2\0001\0a1\0b", 8), "a|b", "sound"},
      {REG_BINARY, std::string("3\0001\0a1\0b", 8), "a|b", "fewer items than counted"},
      {REG_BINARY, std::string("2\0001\0a9\0b", 8), "a", "stops at the last whole item"},
      {REG_BINARY, std::string("1\0003\0ab", 6), "ab", "short by the digits: cut to what there is"},
      {REG_BINARY, std::string("1\000-1\0a", 6), "", "negative length"},
      {REG_BINARY, std::string("1\000\0a", 4), "", "no length"},
      {REG_BINARY, "", "", "no count"},
      {REG_BINARY, "2", "", "no NUL behind the count"},
      {REG_BINARY, "x", "", "no number"},
      {REG_BINARY, std::string("99999999999999999999\0001\0a", 24), "a", "count out of range"},
      {REG_BINARY, std::string("1\00099999999999999999999\0a", 24), "", "length out of range"},
  };
  for (auto const &c : cases) {
    Store("v", c.type, c.bytes);
    EXPECT_EQ(Joined(Get("v")), c.list) << c.why;
  }
}

TEST_F(SettingsTest, NamesAndSizesHaveLimits) {
  std::string const longName(256, 'n');
  Store(longName.c_str(), REG_MULTI_SZ, "found");
  Store((longName + "n").c_str(), REG_MULTI_SZ, "never asked for");
  EXPECT_EQ(Joined(Get(longName.c_str())), "found");
  EXPECT_EQ(Get((longName + "n").c_str()).Length(), 0);
  EXPECT_EQ(Get("").Length(), 0);
  for (int size : {1999, 2000, 2001, 1024000, 1024001}) {
    Store("v", REG_MULTI_SZ, std::string(size, 'v'));
    EXPECT_EQ(Get("v").Length(), size <= 1024000 ? 1 : 0) << size;
    EXPECT_EQ(Reader().GetLong("v").Get(0).Length(), size);
  }
  Sdbfile settings("M", 1, kProductWord);
  EXPECT_EQ(settings.Set("", {"x"}), 0);
  EXPECT_EQ(settings.Set(SString("a\0b", 3), {"x"}), 0);
  EXPECT_EQ(settings.Values().Length(), 0);
}

TEST_F(SettingsTest, ManyValuesAreSetTogetherOrNotAtAll) {
  SNamedStringList values(1, 0);
  values["one"] = "1";
  values["two"] = SStringList{"2", SString("with\0NUL", 8)};
  Sdbfile settings("M", 1, kProductWord);
  settings.Open("/Config", 1);
  EXPECT_EQ(settings.Set(values), 1);
  EXPECT_EQ(Joined(Get("one")), "1");
  EXPECT_EQ(Get("two").Length(), 2);
  values["one"] = "3";
  values[SString("a\0b", 3)] = "x";
  EXPECT_EQ(settings.Set(values), 0) << "a name that can't be one";
  EXPECT_EQ(Joined(Get("one")), "1");
  values.Delete(SString("a\0b", 3));
  EXPECT_EQ(Reader().Set(values), 0) << "opened for reading";
  EXPECT_EQ(Joined(Get("one")), "1");
}

TEST_F(SettingsTest, CursorMovesFromRootAndFromWhereItStands) {
  Sdbfile maker("M", 1, kProductWord);
  EXPECT_EQ(maker.Open("/A/B", 1), 1);
  EXPECT_EQ(maker.Set("at", {"/A/B"}), 1);
  EXPECT_EQ(maker.Open("C//D", 1), 1);
  EXPECT_EQ(maker.Set("at", {"/A/B/C/D"}), 1);
  EXPECT_EQ(maker.Open("/", 0), 1);
  EXPECT_EQ(maker.Set("at", {"/"}), 1);

  Sdbfile settings("M", 0, "Default");
  struct {
    char const *path;
    int result;
    char const *at;
  } const steps[] = {
      {"A", 1, ""},  {"B", 1, "/A/B"},    {"X", 0, "/A/B"}, {"C\\D", 1, "/A/B/C/D"},     {"", 0, "/A/B/C/D"},
      {"/", 1, "/"}, {"/A/B", 1, "/A/B"}, {"/X", 0, "/"},   {"/A/B/C/D", 1, "/A/B/C/D"},
  };
  for (auto const &step : steps) {
    EXPECT_EQ(settings.Open(step.path, 0), step.result) << step.path;
    EXPECT_EQ(Joined(settings.Get("at")), step.at) << step.path;
  }
  EXPECT_EQ(settings.Set("at", {"x"}), 0);  // opened for reading
  EXPECT_EQ(settings.Close(), 1);
  EXPECT_EQ(Joined(settings.Get("at")), "/");
  settings.Init("/A/B", 0);
  EXPECT_EQ(settings.Open("/C", 0), 1);  // the first key opened is the root
  settings.CloseDB();
  EXPECT_EQ(settings.Get("at").Length(), 0);
}

TEST_F(SettingsTest, UnopenedInstanceTriesItsFullPathAgain) {
  Sdbfile early("M", 0, kProductWord);
  EXPECT_EQ(early.Get("v").Length() + early.Keys().Length() + early.Values().Length(), 0);
  EXPECT_EQ(early.Set("v", {"x"}) + early.DeleteValue("v") + early.DeleteKey("Config") + early.Open("/Config", 0), 0);
  EXPECT_FALSE(Exists("config/registry.sqlite"));
  Store("v", REG_MULTI_SZ, "1");
  EXPECT_EQ(early.Open("/Config", 0), 1);
  EXPECT_EQ(Joined(early.Get("v")), "1");
  for (char const *name : {"M/x", "M\\x"}) {
    EXPECT_EQ(Sdbfile(kProductWord, name, 1).Set("v", {"x"}), 0) << name;
    EXPECT_EQ(Sdbfile("M", 1, name).Set("v", {"x"}), 0) << name;
  }
}

TEST_F(SettingsTest, CopiesShareTheOpenKeys) {
  Store("v", REG_MULTI_SZ, "1");
  auto original = std::make_unique<Sdbfile>("M", 0, kProductWord);
  original->Open("/Config", 0);
  Sdbfile copy(*original);
  Sdbfile third(copy);
  original.reset();
  third.CloseDB();
  EXPECT_EQ(Joined(copy.Get("v")), "1");
  EXPECT_EQ(copy.Open("/", 0), 1);
}

TEST_F(SettingsTest, KeysWithContentAreDeletedOnlyOnRequest) {
  Sdbfile settings("M", 1, kProductWord);
  settings.Open("/A/B/C", 1);
  settings.Set("v", {"1"});
  settings.Set("w", {"2"});
  settings.Open("/A/B", 1);
  EXPECT_EQ(settings.DeleteKey("C"), 0);
  EXPECT_EQ(Joined(settings.Values()), "v|w");  // the cursor stays on the child
  settings.Open("/A", 1);
  EXPECT_EQ(settings.DeleteKey("B"), 0);  // has a child, no value
  EXPECT_EQ(Joined(settings.Keys()), "B");
  EXPECT_EQ(settings.DeleteKey("X"), 0);
  EXPECT_EQ(settings.RecursiveDeleteKey("/", "A"), 1);
  EXPECT_EQ(settings.Open("/A", 0), 0);
  EXPECT_EQ(settings.RecursiveDeleteKey("/", "never there"), 1);
  EXPECT_EQ(settings.Keys().Length(), 0);
}

TEST_F(SettingsTest, DirectPathsNeedThreeComponents) {
  Store("v", REG_MULTI_SZ, "1");
  Sdbfile("M", 1, kProductWord).Set("top", {"2"});
  EXPECT_EQ(Joined(Sdbfile::GetDirect("M/Config/v")), "1");
  for (char const *path : {"", "M", "M/top", "M//top/", "X/Config/v", "M/X/v"})
    EXPECT_EQ(Sdbfile::GetDirect(path).Length(), 0) << path;
}

TEST_F(SettingsTest, ProductWithASlashIsAFile) {
  SString const directory(root.c_str());
  {
    Sdbfile table(directory, "routes", 1);
    EXPECT_EQ(table.Open("/RoutingTable", 1), 1);
    EXPECT_EQ(table.Set("example.org", {"mx.example.net"}), 1);
  }
  EXPECT_TRUE(Exists("routes"));
  EXPECT_FALSE(Exists("config/registry.sqlite"));
  Sdbfile table(directory, "routes", 0);
  EXPECT_EQ(table.Open("/RoutingTable", 0), 1);
  EXPECT_EQ(Joined(table.Get("example.org")), "mx.example.net");
  Sdbfile missing(directory, "nothing", 0);
  EXPECT_EQ(missing.Open("/RoutingTable", 0), 0);
  EXPECT_FALSE(Exists("nothing"));
}

TEST_F(SettingsTest, DamageIsToldApartFromAbsence) {
  EXPECT_EQ(Get("v").Length(), 0);
  EXPECT_FALSE(Sdbfile::ReadFailed());
  PutFile("config/registry.sqlite", std::string(8192, 'x'));
  EXPECT_EQ(Get("v").Length(), 0);
  EXPECT_TRUE(Sdbfile::ReadFailed());
  Sdbfile::ClearReadFailed();
  EXPECT_FALSE(Sdbfile::ReadFailed());
}

}  // namespace
