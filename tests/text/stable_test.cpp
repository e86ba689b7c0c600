#include "brenthaven/text/stable.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct Item : STableItem {
  explicit Item(int number) : value(number) { ++alive; }
  ~Item() override { --alive; }
  int value;
  inline static int alive = 0;
};

int ValueOf(STable const &table, SString const &key) {
  STableItem const *item = table.Lookup(key);
  return item != nullptr ? static_cast<Item const *>(item)->value : -1;
}

TEST(STableTest, AReplacedItemKeepsItsPlace) {
  STable table(0, 1);
  table.Add("a", new Item(1));
  table.Add("b", new Item(2));
  table.Add("a", new Item(3));
  EXPECT_TRUE(table.Keys() == (SStringList{"a", "b"}));
  EXPECT_EQ(ValueOf(table, "a"), 3);
  EXPECT_EQ(table.Count(), 2);
  EXPECT_EQ(Item::alive, 2) << "the old item is deleted";
  EXPECT_EQ(table.Remove("a"), 1);
  EXPECT_EQ(table.Remove("a"), 0);
  table.Add("a", new Item(4));
  EXPECT_TRUE(table.Keys() == (SStringList{"b", "a"}));
}

TEST(STableTest, CaseDecidesOnlyWhereItIsAskedFor) {
  STable exact(0, 1);
  STable loose(0, 0);
  for (STable *table : {&exact, &loose}) {
    table->Add("Subject:", new Item(1));
    table->Add("SUBJECT:", new Item(2));
  }
  EXPECT_EQ(exact.Count(), 2);
  EXPECT_EQ(ValueOf(exact, "subject:"), -1);
  EXPECT_EQ(loose.Count(), 1);
  EXPECT_EQ(ValueOf(loose, "subject:"), 2);
  EXPECT_TRUE(loose.Keys() == SStringList("SUBJECT:")) << "the spelling of the last one added";
}

TEST(STableTest, GrowsAlongItsLadderAndKeepsTheOrder) {
  STable table(0, 1);
  EXPECT_EQ(table.BucketCount(), 7);
  int lastCount = 7;
  std::string ladder = "7";
  for (int i = 0; i < 60000; ++i) {
    table.Add(MakeSString(i), new Item(i));
    ASSERT_EQ(table.BucketCount() > 7, i > 14) << "the item that comes when 15 are there has more buckets made";
    if (table.BucketCount() != lastCount) ladder += " " + std::to_string(lastCount = table.BucketCount());
  }
  EXPECT_EQ(ladder, "7 17 37 79 163 331 673 1361 2729 5471 10949 21898 43796");
  int next = 0;
  for (SString const &key : table.Keys()) ASSERT_EQ(key.AsLong(), next++);
  for (int i = 0; i < 60000; i += 997) ASSERT_EQ(ValueOf(table, MakeSString(i)), i);
  table.Reset();
  EXPECT_EQ(table.Count(), 0);
  EXPECT_EQ(table.BucketCount(), 43796);
  EXPECT_EQ(Item::alive, 0);
  EXPECT_TRUE(table.Keys().Defined());
}

}  // namespace
