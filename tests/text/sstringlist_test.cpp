#include "brenthaven/text/sstringlist.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <deque>
#include <random>
#include <sstream>
#include <string>

namespace {

SString Shape(SStringList const &list) { return list.Defined() ? list.Join("|") : SString("undefined"); }

#define EXPECT_LIST(list, want) EXPECT_TRUE(Shape(list) == (want)) << Shape(list)

TEST(SStringListTest, FormsOfMakingOne) {
  char const *texts[] = {"a", "b", nullptr};
  EXPECT_LIST(SStringList(), "undefined");
  EXPECT_LIST(SStringList("x"), "x");
  EXPECT_LIST(SStringList(texts), "a|b");
  EXPECT_LIST(SStringList(static_cast<char const **>(nullptr)), "undefined");
  SStringList list;
  list.Define();
  EXPECT_LIST(list, "");
  list = "x";
  list.Define();
  EXPECT_LIST(list, "x");
  list.Reset();
  EXPECT_LIST(list, "");
  list.Undef();
  EXPECT_LIST(list, "undefined");
}

TEST(SStringListTest, GetIsHarmlessAndSubscriptExtends) {
  SStringList list;
  list[2] = "x";
  EXPECT_EQ(list.Length(), 3);
  EXPECT_TRUE(list.Defined());
  EXPECT_FALSE(list.Get(0).Defined());
  EXPECT_TRUE(list.Get(-1) == "x");
  EXPECT_FALSE(list.Get(3).Defined());
  EXPECT_FALSE(list.Get(-4).Defined());
  list[-3] = "first";
  EXPECT_LIST(list, "first||x");
  list[-9] = "nowhere";
  EXPECT_LIST(list, "first||x");
}

TEST(SStringListTest, CopiesAreApartOnceOneChanges) {
  SStringList const original{"a", "b", "c"};
  SStringList copy = original;
  copy.Push("d");
  copy[0] = "A";
  EXPECT_LIST(original, "a|b|c");
  EXPECT_LIST(copy, "A|b|c|d");
  EXPECT_EQ(copy.Get(1).AsPtr(), original.Get(1).AsPtr()) << "unchanged strings keep sharing their bytes";
  EXPECT_NE(original.Clone().Get(1).AsPtr(), original.Get(1).AsPtr());
}

TEST(SStringListTest, PushOfListsFollowsTheirState) {
  SStringList list;
  SStringList empty;
  EXPECT_EQ(list.Push(empty), 0);
  EXPECT_LIST(list, "undefined");
  empty.Define();
  EXPECT_EQ(list.Push(empty), 0);
  EXPECT_LIST(list, "");
  list.Push("a");
  list += list;
  EXPECT_EQ(list.Push(list), 4);
  EXPECT_LIST(list, "a|a|a|a");
}

TEST(SStringListTest, EndsWorkLikeAQueue) {
  SStringList list{"b"};
  EXPECT_EQ(list.Unshift("a"), 2);
  EXPECT_EQ(list.Push("c"), 3);
  EXPECT_TRUE(list.Shift() == "a" && list.Pop() == "c" && list.Pop() == "b");
  EXPECT_FALSE(list.Pop().Defined());
  EXPECT_FALSE(list.Shift().Defined());
  EXPECT_LIST(list, "");
}

TEST(SStringListTest, InsertMindsItsBounds) {
  SStringList const two{"x", "y"};
  struct {
    int index;
    char const *want;
  } const cases[] = {{0, "x|y|a|b"}, {1, "a|x|y|b"}, {2, "a|b|x|y"}, {3, "a|b"}, {-1, "a|b"}};
  for (auto const &row : cases) {
    SStringList list{"a", "b"};
    list.Insert(two, row.index);
    EXPECT_LIST(list, row.want) << row.index;
  }
  SStringList list;
  list.Insert(two, 2);
  EXPECT_LIST(list, "||x|y");
  list.Insert(list, 1);
  EXPECT_LIST(list, "|||x|y||x|y");
}

TEST(SStringListTest, DeleteDoesNotCountFromTheEnd) {
  SStringList list{"a", "b", "a"};
  EXPECT_EQ(list.Delete(-1), 0);
  EXPECT_EQ(list.Delete(3), 0);
  EXPECT_EQ(list.Delete("z"), 0);
  EXPECT_EQ(list.Delete("a"), 1);
  EXPECT_LIST(list, "b|a");
  EXPECT_EQ(list.Delete(1), 1);
  EXPECT_EQ(list.Index("a"), -1);
  EXPECT_TRUE(list.Contains("b"));
}

TEST(SStringListTest, SliceAndSpliceRefuseBadBounds) {
  SStringList const list{"a", "b", "c", "d"};
  EXPECT_LIST(list.Slice(1, 2), "b|c");
  for (auto [first, last] : {std::pair{-1, 2}, {2, 1}, {1, 4}}) EXPECT_LIST(list.Slice(first, last), "undefined");
  SStringList cut = list;
  EXPECT_LIST(cut.Splice(1, 2), "b|c");
  EXPECT_LIST(cut, "a|d");
  EXPECT_LIST(cut.Splice(1, 2), "undefined");
  EXPECT_LIST(cut.Splice(1, 0, list), "undefined");
  EXPECT_LIST(cut, "a|a|b|c|d|d");
  EXPECT_LIST(cut.Splice(0, 6, SStringList{"n"}), "a|a|b|c|d|d");
  EXPECT_LIST(cut, "n");
  EXPECT_LIST(cut.Splice(-1, 1, list), "undefined");
  EXPECT_LIST(cut, "n");
  cut = list;
  EXPECT_LIST(cut.Splice(2), "c|d");
  EXPECT_LIST(cut, "a|b");
}

TEST(SStringListTest, SortAndUniqueWorkOnAnyInput) {
  std::mt19937 random(1);
  for (int const count : {0, 1, 2, 3, 100, 5000}) {
    SStringList list;
    list.Define();
    for (int i = 0; i < count; ++i) list.Push(MakeSString(static_cast<int>(random() % 97)));
    SStringList const before = list;
    list.Sort(SString::StrCmp);
    EXPECT_EQ(list.Length(), count);
    EXPECT_TRUE(std::is_sorted(list.begin(), list.end())) << count;
    list.Unique();
    EXPECT_LE(list.Length(), 97);
    EXPECT_EQ(before.Length(), count);
  }
  SStringList list{"a", "a", "b", "a"};
  list.Unique();
  EXPECT_LIST(list, "a|b|a");
  list.Reverse();
  EXPECT_LIST(list, "a|b|a");
  SStringList four{"a", "b", "c", "d"};
  four.Reverse();
  EXPECT_LIST(four, "d|c|b|a");
}

TEST(SStringListTest, JoinTellsUndefinedFromEmpty) {
  SStringList list;
  EXPECT_FALSE(list.Join(",").Defined());
  list.Define();
  EXPECT_TRUE(list.Join(",").Defined());
  EXPECT_EQ(list.Join(",").Length(), 0);
  list.Push(SString());
  EXPECT_TRUE(list.Join(",").Defined());
  list.Push("a");
  EXPECT_TRUE(list.Join(", ") == ", a" && list.Join() == "a");
}

TEST(SStringListTest, EqualityIsItemByItem) {
  SStringList empty;
  empty.Define();
  EXPECT_TRUE(empty == SStringList());
  EXPECT_TRUE((SStringList{"a", ""} == SStringList{"a", SString()}));
  EXPECT_TRUE((SStringList{"a"} != SStringList{"a", "b"}));
}

TEST(SStringListTest, VectorForSystemCallsEndsInNull) {
  char **vector = SStringList{"one", "", "three"};
  EXPECT_STREQ(vector[0], "one");
  EXPECT_STREQ(vector[1], "");
  EXPECT_STREQ(vector[2], "three");
  EXPECT_EQ(vector[3], nullptr);
  free(vector[0]);
  free(vector);
  EXPECT_EQ(static_cast<char **>(SStringList()), nullptr);
}

TEST(SStringListTest, LinesComeAndGoThroughStreams) {
  std::istringstream in("a\nb\n\nlast");
  SStringList list{"old"};
  in >> list;
  EXPECT_EQ(list.Length(), 4);
  EXPECT_EQ(list.Chop(), 't');
  std::ostringstream out;
  out << list;
  EXPECT_EQ(out.str(), "a\nb\n\nlas");
}

// Look-ups remember where the last one ended; every change must make them forget in time.
TEST(SStringListTest, LookUpsStayRightBetweenChanges) {
  std::mt19937 random(7);
  SStringList list;
  std::deque<std::string> model;
  auto const pick = [&random](size_t limit) { return static_cast<int>(random() % limit); };
  for (int step = 0; step < 20000; ++step) {
    SString const text = MakeSString(step);
    switch (pick(9)) {
      case 0:
        list.Push(text);
        model.emplace_back(text.View());
        break;
      case 1:
        list.Unshift(text);
        model.emplace_front(text.View());
        break;
      case 2:
        if (!model.empty()) {
          int const at = pick(model.size());
          list.Delete(at);
          model.erase(model.begin() + at);
        }
        break;
      case 3: {
        int const at = pick(model.size() + 1);
        list.Insert(SStringList(text), at);
        if (list.Length() > static_cast<int>(model.size())) model.insert(model.begin() + at, std::string(text.View()));
        break;
      }
      case 4:
        list.Shift();
        if (!model.empty()) model.pop_front();
        break;
      default:
        if (!model.empty()) {
          int const at = pick(model.size());
          ASSERT_EQ(list.Get(at).View(), model[static_cast<size_t>(at)]) << "step " << step;
        }
    }
    ASSERT_EQ(list.Length(), static_cast<int>(model.size())) << "step " << step;
    if (model.empty()) list.Reset();
  }
}

}  // namespace
