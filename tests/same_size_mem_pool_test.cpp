// SameSizeMemPool: no player runs the pool directly, so one contract test
// covers its growth, exhaustion, reuse order and object lifetimes.
#include "SameSizeMemPool.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

namespace {

// An element that counts its constructions and destructions and keeps state.
struct Counted {
  static int constructed, destructed;
  int32_t value = 0;
  Counted() { ++constructed; }
  ~Counted() { ++destructed; }
};
int Counted::constructed = 0;
int Counted::destructed = 0;

TEST(SameSizeMemPoolContract, GrowsToItsLimitReusesLastFreedFirstAndEndsObjects) {
  struct Case { int32_t perChunk, maxChunks, destructOnFree; };
  const Case cases[] = {{4, 1, 0}, {2, 3, 0}, {3, 2, 1}, {0, 4, 0}, {4, 0, 0}};  // the last two give nothing
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.perChunk << "x" << c.maxChunks << " destructOnFree " << c.destructOnFree);
    Counted::constructed = Counted::destructed = 0;
    const int32_t capacity = c.perChunk * c.maxChunks;
    {
      SameSizeMemPool<Counted> pool(c.perChunk, c.maxChunks, c.destructOnFree);
      EXPECT_EQ(0, pool.ChunkCount());  // nothing until the first Alloc
      std::vector<Counted*> objects;
      std::set<Counted*> distinct;
      for (Counted* o; (o = pool.Alloc()) != nullptr;) {
        const int32_t i = static_cast<int32_t>(objects.size());
        EXPECT_EQ(i / c.perChunk + 1, pool.ChunkCount()) << i;  // a chunk at a time
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(o) % 8);
        if (i % c.perChunk != 0) {  // a fresh chunk's slots go out in ascending order
          EXPECT_EQ(pool.Stride(), reinterpret_cast<char*>(o) - reinterpret_cast<char*>(objects.back()));
        }
        o->value = 100 + i;
        objects.push_back(o);
        distinct.insert(o);
        ASSERT_LE(i, capacity);
      }
      ASSERT_EQ(capacity, static_cast<int32_t>(objects.size()));
      EXPECT_EQ(capacity, static_cast<int32_t>(distinct.size()));
      EXPECT_EQ(c.maxChunks * (c.perChunk > 0), pool.ChunkCount());
      EXPECT_EQ(capacity, pool.UsedCount());
      EXPECT_EQ(0, pool.FreeCount());
      pool.Free(nullptr);  // does nothing
      EXPECT_EQ(capacity, pool.UsedCount());
      if (capacity < 2) continue;
      // The last freed comes back first; the object survives in its slot
      // unless the pool ends it on Free (and builds it again on Alloc).
      Counted* a = objects[0];
      Counted* b = objects[static_cast<size_t>(capacity) - 1];
      pool.Free(a);
      pool.Free(b);
      EXPECT_EQ(std::vector<int>({capacity - 2, 2, c.destructOnFree ? 2 : 0}),
                std::vector<int>({pool.UsedCount(), pool.FreeCount(), Counted::destructed}));
      EXPECT_EQ(b, pool.Alloc());
      EXPECT_EQ(a, pool.Alloc());
      EXPECT_EQ(c.destructOnFree ? 0 : 100, a->value);
      EXPECT_EQ(capacity + (c.destructOnFree ? 2 : 0), Counted::constructed);
      EXPECT_EQ(nullptr, pool.Alloc());
    }
    // Destruction ends every object still built, handed out or not, unless
    // the pool ends them on Free: then what is still handed out is left alone.
    EXPECT_EQ(c.destructOnFree ? 2 : Counted::constructed, Counted::destructed);
  }
}

}  // namespace
