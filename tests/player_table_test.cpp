#include <gtest/gtest.h>

#include "PlayerTable.h"

namespace {

PlayerHolder* Holder(int n) { return reinterpret_cast<PlayerHolder*>(static_cast<uintptr_t>(0x1000 + n)); }

TEST(PlayerTable, EmptyTableFindsNothing) {
  PlayerTable table;
  EXPECT_EQ(table.Find(0), -1);
  EXPECT_EQ(table.capacity, 0u);
  EXPECT_EQ(table.data, nullptr);
}

TEST(PlayerTable, InsertKeepsOrderAndRefusesADuplicate) {
  PlayerTable table;
  for (int h : {5, 1, 9, 3}) ASSERT_TRUE(table.Insert(h, Holder(h)));
  EXPECT_FALSE(table.Insert(9, Holder(99)));
  ASSERT_EQ(table.count, 4u);
  EXPECT_EQ(table.end - table.data, 4);
  const int order[] = {1, 3, 5, 9};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(table.data[i].handle, order[i]);
    EXPECT_EQ(table.Find(order[i]), i);
  }
  EXPECT_EQ(table.data[3].holder, Holder(9));
  EXPECT_EQ(table.Find(4), -1);
  EXPECT_EQ(table.Find(-1), -1);
}

TEST(PlayerTable, SearchWalksLeftToTheFirstOfEqualKeys) {
  PlayerTable table;
  for (int h = 0; h < 8; ++h) ASSERT_TRUE(table.Insert(h, Holder(h)));
  for (int i = 2; i < 7; ++i) table.data[i].handle = 4;  // 0 1 4 4 4 4 4 7
  EXPECT_EQ(table.Find(4), 2);
  EXPECT_EQ(table.Find(7), 7);
}

TEST(PlayerTable, StorageGrowsByPowersOfTwoFrom512AndIsReleasedWhenEmpty) {
  PlayerTable table;
  ASSERT_TRUE(table.Insert(0, Holder(0)));
  EXPECT_EQ(table.capacity, 512u);
  for (int h = 1; h < 512; ++h) ASSERT_TRUE(table.Insert(h, Holder(h)));
  EXPECT_EQ(table.capacity, 512u);
  ASSERT_TRUE(table.Insert(512, Holder(512)));
  EXPECT_EQ(table.capacity, 1024u);

  // Down to 513 entries the target (1024) is not below the capacity.
  while (table.count > 513) table.RemoveAt(static_cast<int32_t>(table.count) - 1);
  EXPECT_EQ(table.capacity, 1024u);
  // 512 left: the smallest power of two holding 512 + 511 is still 1024.
  table.RemoveAt(0);
  EXPECT_EQ(table.capacity, 1024u);
  // 1 left: 512.
  while (table.count > 1) table.RemoveAt(0);
  EXPECT_EQ(table.capacity, 512u);
  EXPECT_EQ(table.data[0].handle, 512);
  table.RemoveAt(0);
  EXPECT_EQ(table.capacity, 0u);
  EXPECT_EQ(table.data, nullptr);
  ASSERT_TRUE(table.Insert(600, Holder(600)));
  EXPECT_EQ(table.capacity, 512u);
}

TEST(PlayerTable, RulesSwitchAt128MiBOfEntries) {
  const struct {
    uint32_t count, adding, capacity;
  } growth[] = {
      {0, 1, 512},          {0, 700, 1024},          {512, 1, 1024},
      {1000, 1, 2048},      {16777215, 1, 33554432}, {16777216, 1, 33554432},
      {20000000, 1, 36777216},
  };
  for (const auto& g : growth)
    EXPECT_EQ(PlayerTable::GrowthCapacity(g.count, g.adding), g.capacity) << g.count;
  const struct {
    uint32_t n, target;
  } shrink[] = {{1, 512}, {2, 1024}, {513, 1024}, {16777216, 33554432}, {16777217, 33554432}};
  for (const auto& s : shrink) EXPECT_EQ(PlayerTable::ShrinkTarget(s.n), s.target) << s.n;
}

}  // namespace
