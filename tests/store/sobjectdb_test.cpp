#include "brenthaven/store/sobjectdb.h"

#include <map>
#include <random>
#include <set>
#include <utility>

#include "tests/platform/callhook.h"
#include "tests/store/plainfile.h"
#include "tests/store/process.h"
#include "tests/support/scratch.h"

namespace {

enum { kType, kNote, kName, kAddress, kDelivery, kDomain, kPlain, kAttributes };
constexpr _Attribute kTable[] = {
    {"Type", kAttributeIndexed},
    {"Note", 0},
    {"Name", kAttributeIndexed | kAttributeLowerCase},
    {"Address", kAttributeLowerCase | kAttributeAddress | kAttributeUnique},
    {"Delivery", kAttributeLowerCase | kAttributeAddress | kAttributeSecondWord},
    {"Domain", kAttributeDomain | kAttributeLowerCase},
    {"Plain", kAttributeIndexed},
    {nullptr, 0},
};

class ObjectStoreTest : public ScratchSpool {
protected:
  SObjectDB store{"T.", 0, kTable};
  std::string attributes = "config/T.a";
  std::string index = "config/T.i";

  unsigned Put(char const *object, int attribute, SStringList const &values, int flags = 0) {
    store.LockWrite();
    unsigned const result = store.SetAttrib(attribute, object, values, flags);
    store.UnlockWrite();
    return result;
  }
};

std::string Joined(SStringList const &list) { return std::string(list.Join("|").View()); }

// A string literal with its NUL bytes.
template <size_t kSize>
std::string Raw(char const (&text)[kSize]) {
  return std::string(text, kSize - 1);
}

TEST_F(ObjectStoreTest, BothFilesHoldTheirRecordsByteForByte) {
  store.LockWrite();
  EXPECT_TRUE(store.Create("joe", 1));
  EXPECT_TRUE(store.SetAttrib(kNote, "joe", {"one", "", "two"}, 0));
  EXPECT_TRUE(store.SetAttrib(kAddress, "joe", {"<Joe@Example.org>"}, 0));
  EXPECT_TRUE(store.SetAttrib(kDomain, "joe", {"sub.Example.org"}, 0));
  EXPECT_TRUE(store.SetAttrib(kName, "joe", SStringList(), 0));
  EXPECT_TRUE(store.SetAttrib(kPlain, "joe", {"not in the index"}, 1));
  store.UnlockWrite();
  ExpectRecords(Path(attributes), {{Raw("joe\0\0"), Raw("\0\1")},
                                   {Raw("joe\0\1"), Raw("\0one\0\0two")},
                                   {Raw("joe\0\2"), ""},
                                   {Raw("joe\0\3"), Raw("\0<Joe@Example.org>")},
                                   {Raw("joe\0\5"), Raw("\0sub.Example.org")},
                                   {Raw("joe\0\6"), Raw("\0not in the index")}});
  ExpectRecords(Path(index),
                {{Raw("\0\1\0joe"), ""}, {Raw("\3joe@example.org\0joe"), ""}, {Raw("\5gro.elpmaxe.bus.\0joe"), ""}});
  EXPECT_EQ(Joined(store.ListAttribs("joe")), "\1|\2|\3|\5|\6");
  EXPECT_TRUE(Put("joe", kName, {"Joe"}));

  store.LockWrite();
  EXPECT_TRUE(store.Delete("joe"));
  EXPECT_FALSE(store.Delete("joe"));
  store.UnlockWrite();
  ExpectRecords(Path(attributes), {});
  ExpectRecords(Path(index), {});
}

TEST_F(ObjectStoreTest, ValuesComeBackAsTheyCanBeStored) {
  struct {
    SStringList in;
    char const *out, *first;
  } const cases[] = {
      {{"a"}, "a", "a"},         {{"a", "b"}, "a|b", "a"}, {{"a", "", "b"}, "a||b", "a"}, {{"", "b"}, "|b", ""},
      {{"a", "", ""}, "a", "a"},  // trailing empty items are lost
      {SStringList(), "", ""},   {{""}, "", ""},
  };
  for (auto const &c : cases) {
    EXPECT_TRUE(Put("o", kNote, c.in));
    EXPECT_EQ(Joined(store.GetAttrib(kNote, "o")), c.out) << Joined(c.in);
    EXPECT_EQ(store.GetStringAttrib(kNote, "o"), c.first) << Joined(c.in);
    EXPECT_EQ(Joined(store.ListAttribs("o")), "\1") << Joined(c.in);
  }
  EXPECT_EQ(store.GetAttrib(kNote, "o").Length(), 0);
  EXPECT_FALSE(Put("o", kNote, {SString("a\0b", 3)}));  // would be two items
  EXPECT_FALSE(Put("o", -1, {"x"}));
  EXPECT_FALSE(Put("o", kAttributes, {"x"}));
  EXPECT_EQ(store.GetAttrib(kAttributes, "o").Length() + store.GetAttrib(-1, "o").Length(), 0);
  EXPECT_EQ(store.ListByAttrib(kAttributes, "x").Length() + store.ListValues(-1).Length(), 0);
}

TEST_F(ObjectStoreTest, LookupsUseTheCanonicalForm) {
  Put("a", kDelivery, {"SMTP <A@Example.org>"});
  Put("b", kDelivery, {"<b@example.org>"});
  Put("c", kDelivery, {" <c@example.org>"});  // a blank in front does not separate words, so the brackets stay
  Put("d", kName, {"Dora Doe"});
  Put("e", kName, {"Dora"});
  Put("f", kPlain, {"Dora"});
  Put("g", kPlain, {""});  // nothing to find it by
  struct {
    int attribute;
    char const *value, *names;
  } const cases[] = {
      {kDelivery, "a@EXAMPLE.org", "a"},
      {kDelivery, "X <a@example.org>", "a"},
      {kDelivery, "b@example.org", "b"},
      {kDelivery, "c@example.org", ""},
      {kDelivery, " <C@example.org>", "c"},
      {kName, "DORA", "e"},
      {kName, "dora doe", "d"},
      {kName, "dor", ""},
      {kPlain, "Dora", "f"},
      {kPlain, "dora", ""},
      {kPlain, "", ""},
  };
  for (auto const &c : cases) {
    EXPECT_EQ(Joined(store.ListByAttrib(c.attribute, c.value)), c.names) << c.value;
    EXPECT_EQ(store.CountByAttrib(c.attribute, c.value), c.names[0] != 0 ? 1 : 0) << c.value;
  }
}

TEST_F(ObjectStoreTest, DomainsAreFoundByEachOfTheirSuffixes) {
  Put("b", kDomain, {"sub.example.org", "example.org"});
  Put("a", kDomain, {"example.org"});
  Put("c", kDomain, {"notexample.org"});
  EXPECT_EQ(Joined(store.ListByAttrib(kDomain, "example.org")), "a|b");  // sorted, and each once
  EXPECT_EQ(Joined(store.ListByAttrib(kDomain, "sub.Example.org")), "b");
  EXPECT_EQ(Joined(store.ListByAttrib(kDomain, "org")), "a|b|c");
  EXPECT_EQ(Joined(store.ListByAttrib(kDomain, "ample.org")), "");
  EXPECT_EQ(store.CountByAttrib(kDomain, "org"), 3);
}

TEST_F(ObjectStoreTest, UniqueValueOfAnotherObjectIsRefusedAndChangesNothing) {
  ASSERT_TRUE(Put("a", kAddress, {"<a@x.org>"}));
  ASSERT_TRUE(Put("b", kAddress, {"<b@x.org>"}));
  std::string const before = FileBytes(attributes) + FileBytes(index);
  EXPECT_FALSE(Put("b", kAddress, {"<bb@x.org>", "<A@X.org>"}));
  EXPECT_EQ(FileBytes(attributes) + FileBytes(index), before);
  EXPECT_TRUE(Put("a", kAddress, {"<a@x.org>"}));
  EXPECT_TRUE(Put("a", kAddress, {"<A@x.org>", "<a2@x.org>"}));
  EXPECT_EQ(Joined(store.ListByAttrib(kAddress, "a@x.org")), "a");
  EXPECT_TRUE(Put("Default", kAddress, {"<a@x.org>"}, 1));  // outside the index nothing is unique
}

TEST_F(ObjectStoreTest, IndexEntryStaysWhileAnyValueHasItsForm) {
  struct {
    SStringList before, after;
    char const *values;
  } const cases[] = {
      {{"A", "a"}, {"a"}, "a"},        {{"A"}, {"a"}, "a"}, {{"a", "a"}, {"a"}, "a"}, {{"a", "b"}, {"c"}, "c"},
      {{"a", "b"}, SStringList(), ""},
  };
  for (auto const &c : cases) {
    Put("o", kName, c.before);
    Put("o", kName, c.after);
    EXPECT_EQ(Joined(store.ListValues(kName)), c.values) << Joined(c.before);
  }
}

TEST_F(ObjectStoreTest, RangesAndValueLists) {
  Put("1", kName, {"Ann", "Bob"});
  Put("2", kName, {"ann"});
  Put("3", kName, {"anna"});
  Put("4", kName, {"an\x7f"});
  Put("5", kPlain, {"zoe"});
  SStringList values("stale"), names("stale");
  store.ListByAttrib(kName, "an", &values, &names);
  EXPECT_EQ(Joined(values), "ann|ann|anna");
  EXPECT_EQ(Joined(names), "1|2|3");
  store.ListByAttribRange(kName, "ann", "anna", &values, &names);
  EXPECT_EQ(Joined(names), "1|2");
  EXPECT_EQ(Joined(store.ListValues(kName)), "ann|anna|an\x7f|bob");
  EXPECT_EQ(store.CountValues(kName), 4);
  EXPECT_EQ(store.CountValues(kDomain), 0);
  store.LockWrite();
  store.Create("1", 1);
  store.Create("2", 7);
  store.UnlockWrite();
  EXPECT_EQ(store.GetType("2"), 7);
  EXPECT_EQ(store.GetType("9"), 0);
  EXPECT_EQ(Joined(store.ListByType(7)), "2");
  EXPECT_EQ(store.CountByType(1), 1);
}

TEST_F(ObjectStoreTest, BackupTakesWhatIsNotYetWrittenAndKeepsTheOneBefore) {
  store.LockWrite();
  store.SetAttrib(kName, "a", {"Ann"}, 0);
  EXPECT_EQ(store.Backup("", ""), 1u);  // inside the section: its pages are still in memory
  store.SetAttrib(kName, "b", {"Bob"}, 0);
  store.UnlockWrite();
  ExpectRecords(Path(attributes + ".backup"), {{Raw("a\0\2"), Raw("\0Ann")}});
  store.Backup("", "");
  ExpectRecords(Path(index + ".backup"), {{Raw("\2ann\0a"), ""}, {Raw("\2bob\0b"), ""}});
  ExpectRecords(Path(index + ".backup.previous"), {{Raw("\2ann\0a"), ""}});
  store.Backup(".one", ".two");
  EXPECT_TRUE(Exists(attributes + ".one") && Exists(index + ".two"));

  std::filesystem::create_directories(Path(attributes + ".taken/x"));
  std::filesystem::create_directories(Path(attributes + ".taken.previous/x"));
  testing::internal::CaptureStderr();
  EXPECT_EQ(store.Backup(".taken", ".free"), 1u);
  std::string const said = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(said.starts_with("Couldn't write to destination file T.a.taken: error ")) << said;
  EXPECT_TRUE(Exists(index + ".free"));
  EXPECT_FALSE(Exists(attributes + ".taken.temp"));
}

TEST_F(ObjectStoreTest, BackupThatEndsAnywhereLeavesAWholeCopy) {
  Put("a", kName, {"Ann"});
  store.Backup("", "");
  Put("b", kName, {"Bob"});
  std::map<std::string, std::set<std::string>> whole;  // what a copy of each file may be
  for (std::string const &file : {attributes, index}) whole[file] = {FileBytes(file + ".backup"), FileBytes(file)};
  for (int number = 1, ended = -1; ended != 0; ++number) {
    Peer child([number](Peer &) {
      SCallHook const hook("", number, SCallHook::kCrash);
      SObjectDB("T.", 0, kTable).Backup("", "");
      return 0;
    });
    ended = child.Result();
    for (auto const &[file, copies] : whole) {
      std::string const copy = Exists(file + ".backup") ? file + ".backup" : file + ".backup.previous";
      EXPECT_TRUE(copies.contains(FileBytes(copy))) << copy << " after call " << number;
    }
  }
  for (auto const &[file, copies] : whole) EXPECT_EQ(FileBytes(file + ".backup"), FileBytes(file));
}

TEST_F(ObjectStoreTest, OtherFilesTakeEffectAtTheEndOfTheSection) {
  store.LockWrite();
  EXPECT_TRUE(store.SetAttrib(kNote, "a", {"1"}, 0));
  store.Init("U.", 0, kTable);
  EXPECT_TRUE(store.SetAttrib(kNote, "a", {"2"}, 0));
  store.UnlockWrite();
  EXPECT_EQ(store.GetAttrib(kNote, "a").Length(), 0);
  EXPECT_EQ(SObjectDB("T.", 0, kTable).GetStringAttrib(kNote, "a"), "2");
}

TEST_F(ObjectStoreTest, DamageIsToldApartFromAbsence) {
  EXPECT_EQ(store.ListByAttrib(kName, "ann").Length(), 0);
  EXPECT_EQ(store.GetAttrib(kName, "a").Length(), 0);
  EXPECT_FALSE(store.ReadFailed());  // no files
  Put("a", kName, {"Ann"});
  EXPECT_EQ(store.GetAttrib(kName, "nobody").Length(), 0);
  EXPECT_FALSE(store.ReadFailed());
  std::string const sound[] = {FileBytes(attributes), FileBytes(index)};
  struct {
    std::string const &file;
    std::function<void()> ask;
  } const cases[] = {
      {attributes, [this] { EXPECT_EQ(store.GetAttrib(kName, "a").Length(), 0); }},
      {index, [this] { EXPECT_EQ(store.ListByAttrib(kName, "ann").Length(), 0); }},
      {index, [this] { EXPECT_FALSE(Put("b", kName, {"Bob"})); }},
      {index, [this] { EXPECT_FALSE(Put("b", kAddress, {"<b@x.org>"})); }},
  };
  for (auto const &c : cases) {
    PutFile(attributes, sound[0]);
    PutFile(index, sound[1]);
    PutFile(c.file, std::string(sound[0]).replace(16384, 64, std::string(64, '\0')));
    store.ClearReadFailed();
    c.ask();
    EXPECT_TRUE(store.ReadFailed() | store.WriteFailed());
    store.ReOpen();
  }
}

// Long values in the index come and go until an inner page is given back; it still names the children that it had.
TEST_F(ObjectStoreTest, ReuseOfAnInnerPageIsNoDamage) {
  std::mt19937 random(8);  // with these numbers it happens in section 730
  auto const pick = [&](unsigned long below) { return static_cast<int>(random() % below); };
  for (int section = 0; section < 800; ++section) {
    SString const name = "counter " + MakeSString(pick(4));
    int const longest = pick(50) == 0 ? 40000 : 1500;
    SString const padding('x', pick(static_cast<unsigned long>(longest)));
    SString const filler = name + " filler " + MakeSString(pick(30));
    store.LockWrite();
    for (int counter = 0; section == 0 && counter < 4; ++counter)
      ASSERT_TRUE(store.Create("counter " + MakeSString(counter), 1));
    ASSERT_TRUE(store.SetAttrib(kName, name, {name + " at " + MakeSString(section)}, 0));
    bool const isKept = pick(3) != 0;
    if (!isKept) (void)store.Delete(filler);
    ASSERT_TRUE(!isKept || (store.Create(filler, 2) &&
                            store.SetAttrib(kPlain, filler, {std::as_const(padding).Segment(0, 5000), "end"}, 0)))
        << section;
    store.UnlockWrite();
    ASSERT_FALSE(store.WriteFailed()) << section;
  }
}

TEST_F(ObjectStoreTest, WritersWaitForTheEndOfAReadSectionHoweverManyReadsItHas) {
  Put("o", kName, {"1"});
  Peer writer([](Peer &parent) {
    SObjectDB other("T.", 0, kTable);
    if (!parent.Hear()) return 1;
    parent.Tell();
    other.LockWrite();
    unsigned const result = other.SetAttrib(kName, "o", {"2"}, 0);
    other.UnlockWrite();
    return result ? 0 : 2;
  });
  store.LockRead();
  store.LockRead();
  EXPECT_EQ(store.GetStringAttrib(kName, "o"), "1");
  store.UnlockRead();
  writer.Tell();
  ASSERT_TRUE(writer.Hear());
  writer.WaitUntilBlocked();
  EXPECT_EQ(store.GetStringAttrib(kName, "o"), "1");
  EXPECT_EQ(Joined(store.ListValues(kName)), "1");
  store.UnlockRead();
  EXPECT_EQ(writer.Result(), 0);
  EXPECT_EQ(store.GetStringAttrib(kName, "o"), "2");
  EXPECT_EQ(Joined(store.ListValues(kName)), "2");
}

TEST_F(ObjectStoreTest, ReadersSeeIndexAndAttributesOfOneMoment) {
  Put("o", kName, {"0"});
  constexpr int kRounds = 100;
  auto read = [](Peer &) {
    SObjectDB reader("T.", 0, kTable);
    long seen = 0;
    for (int i = 0; i < 300; ++i) {
      SString const value = reader.GetStringAttrib(kName, "o");
      // The writer may have gone on since, never back.
      SStringList const values = reader.ListValues(kName);
      if (reader.ReadFailed() || values.Length() != 1 || values.Get(0).AsLong() < value.AsLong()) return 1;
      if (value.AsLong() < seen) return 2;
      seen = value.AsLong();
    }
    return 0;
  };
  Peer readers[] = {Peer(read), Peer(read), Peer(read), Peer(read)};
  for (int i = 1; i <= kRounds; ++i) ASSERT_TRUE(Put("o", kName, {SString(i)}));
  for (Peer &reader : readers) EXPECT_EQ(reader.Result(), 0);
}

}  // namespace
