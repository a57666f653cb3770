#include <gtest/gtest.h>

#include "PlayerTable.h"

namespace {

PlayerHolder* Holder(int n) { return reinterpret_cast<PlayerHolder*>(static_cast<uintptr_t>(0x1000 + n)); }

// Handles are kept in order whatever the order of insertion; a lookup finds
// the first of equal keys; entries survive the storage growing and
// shrinking, and an empty table holds no storage.
TEST(PlayerTable, KeepsHandlesInOrderThroughGrowthAndShrinking) {
  PlayerTable table;
  EXPECT_EQ(table.Find(0), -1);
  for (int h : {5, 1, 9, 3}) ASSERT_TRUE(table.Insert(h, Holder(h)));
  EXPECT_FALSE(table.Insert(9, Holder(99)));
  ASSERT_EQ(table.end - table.data, 4);
  const int order[] = {1, 3, 5, 9};
  for (int i = 0; i < 4; ++i)
    EXPECT_TRUE(table.data[i].handle == order[i] && table.data[i].holder == Holder(order[i]) && table.Find(order[i]) == i) << i;
  EXPECT_EQ(table.Find(4), -1);
  for (int h = 10; h < 1500; ++h) ASSERT_TRUE(table.Insert(h, Holder(h)));
  for (int i = 2; i < 7; ++i) table.data[i].handle = 4;  // 1 3 4 4 4 4 4 12 13 ...
  EXPECT_TRUE(table.Find(4) == 2 && table.Find(13) == 7 && table.capacity >= 1494u);
  while (table.count > 1) table.RemoveAt(0);
  EXPECT_TRUE(table.capacity < 1494u && table.data[0].holder == Holder(1499));
  table.RemoveAt(0);
  EXPECT_TRUE(table.capacity == 0 && table.data == nullptr);
  ASSERT_TRUE(table.Insert(600, Holder(600)));
  EXPECT_EQ(table.Find(600), 0);
}

}  // namespace
