#include "brenthaven/text/sindexstring.h"

#include <gtest/gtest.h>

namespace {

TEST(IndexStringTest, KeysWithValuesAreListedInOrder) {
  SIndexString map;
  for (int key = 20; key > 0; --key) map[key] = MakeSString(key);
  (void)map[99];
  map.Delete(10);
  map.Delete(77);
  EXPECT_FALSE(map.Get(10).Defined());
  EXPECT_TRUE(map.Get(9) == "9");
  int *keys = nullptr;
  ASSERT_EQ(map.Keys(&keys), 19);
  EXPECT_EQ(keys[0], 20);
  EXPECT_EQ(keys[10], 9) << "later pairs moved down by one";
  EXPECT_EQ(keys[18], 1);
  delete[] keys;
  SIndexString copy(map);
  copy[9] = "changed";
  EXPECT_TRUE(map.Get(9) == "9");
  EXPECT_EQ(copy.Keys(nullptr), 19);
}

}  // namespace
