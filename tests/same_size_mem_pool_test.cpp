// SameSizeMemPool: no player runs the pool directly, so one contract test
// covers its growth, exhaustion, reuse order and object lifetimes.
#include "SameSizeMemPool.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

namespace {

struct Counted {
  inline static int constructed = 0, destructed = 0;
  int32_t value = 0;
  Counted() { ++constructed; }
  ~Counted() { ++destructed; }
};

TEST(SameSizeMemPoolContract, GrowsToItsLimitReusesLastFreedFirstAndEndsObjects) {
  struct Case { int32_t perChunk, maxChunks, destructOnFree; };
  const Case cases[] = {{4, 1, 0}, {2, 3, 0}, {3, 2, 1}, {0, 4, 0}, {4, 0, 0}};  // the last two give nothing
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.perChunk << "x" << c.maxChunks << " destructOnFree " << c.destructOnFree);
    Counted::constructed = Counted::destructed = 0;
    const int32_t capacity = c.perChunk * c.maxChunks;
    {
      SameSizeMemPool<Counted> pool(c.perChunk, c.maxChunks, c.destructOnFree);
      std::vector<Counted*> objects;
      for (Counted* o; (o = pool.Alloc()) != nullptr;) {
        const int32_t i = static_cast<int32_t>(objects.size());
        ASSERT_LT(i, capacity);
        EXPECT_EQ(i / c.perChunk + 1, pool.ChunkCount()) << i;  // a chunk at a time
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(o) % 8);
        o->value = 100 + i;
        objects.push_back(o);
      }
      pool.Free(nullptr);  // does nothing
      EXPECT_EQ(static_cast<size_t>(capacity), std::set<Counted*>(objects.begin(), objects.end()).size());
      EXPECT_EQ(std::vector<int>({c.maxChunks * (c.perChunk > 0), capacity, 0}),
                std::vector<int>({pool.ChunkCount(), pool.UsedCount(), pool.FreeCount()}));
      if (capacity < 2) continue;
      // The last freed comes back first; the object survives in its slot
      // unless the pool ends it on Free (and builds it again on Alloc).
      Counted *a = objects.front(), *b = objects.back();
      pool.Free(a);
      pool.Free(b);
      EXPECT_EQ(std::vector<int>({capacity - 2, 2, c.destructOnFree ? 2 : 0}),
                std::vector<int>({pool.UsedCount(), pool.FreeCount(), Counted::destructed}));
      EXPECT_TRUE(pool.Alloc() == b && pool.Alloc() == a);
      EXPECT_EQ(std::vector<int>({c.destructOnFree ? 0 : 100, capacity + (c.destructOnFree ? 2 : 0), 1}),
                std::vector<int>({a->value, Counted::constructed, pool.Alloc() == nullptr}));
    }
    // Destruction ends every object still built, handed out or not, unless
    // the pool ends them on Free: then what is still handed out is left alone.
    EXPECT_EQ(c.destructOnFree ? 2 : Counted::constructed, Counted::destructed);
  }
}

}  // namespace
