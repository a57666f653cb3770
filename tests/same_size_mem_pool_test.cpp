#include "SameSizeMemPool.h"

#include <gtest/gtest.h>

#include <set>

#include "OSMsgQ.h"
#include "PerformanceSite.h"
#include "WaitableObject.h"

namespace {

// An element that counts its constructions and destructions and keeps state.
struct Counted {
  static int constructed;
  static int destructed;
  int32_t value = 0;
  Counted() { ++constructed; }
  ~Counted() { ++destructed; }
};
int Counted::constructed = 0;
int Counted::destructed = 0;

class SameSizeMemPoolTest : public ::testing::Test {
 protected:
  void SetUp() override { Counted::constructed = Counted::destructed = 0; }
};

TEST_F(SameSizeMemPoolTest, ExhaustionAndReuse) {
  SameSizeMemPool<Counted> pool(4, 1, 0);
  EXPECT_EQ(pool.ChunkCount(), 0);
  Counted* objects[4];
  for (Counted*& o : objects) ASSERT_NE(o = pool.Alloc(), nullptr);
  EXPECT_EQ(pool.ChunkCount(), 1);
  EXPECT_EQ(pool.UsedCount(), 4);
  EXPECT_EQ(pool.Alloc(), nullptr);
  pool.Free(objects[2]);
  EXPECT_EQ(pool.Alloc(), objects[2]);
  // A fresh chunk hands its slots out in ascending order, one stride apart.
  for (int i = 1; i < 4; ++i)
    EXPECT_EQ(reinterpret_cast<char*>(objects[i]) - reinterpret_cast<char*>(objects[i - 1]),
              pool.Stride());
  pool.Free(nullptr);
  EXPECT_EQ(pool.UsedCount(), 4);
}

TEST_F(SameSizeMemPoolTest, LastFreedFirst) {
  SameSizeMemPool<Counted> pool(8, 2, 0);
  Counted* a = pool.Alloc();
  Counted* b = pool.Alloc();
  pool.Free(a);
  pool.Free(b);
  EXPECT_EQ(pool.Alloc(), b);
  EXPECT_EQ(pool.Alloc(), a);
}

TEST_F(SameSizeMemPoolTest, GrowsChunkByChunkUpToTheLimit) {
  SameSizeMemPool<Counted> pool(2, 3, 0);
  std::set<Counted*> seen;
  for (int i = 0; i < 6; ++i) {
    Counted* o = pool.Alloc();
    ASSERT_NE(o, nullptr);
    EXPECT_TRUE(seen.insert(o).second);
    EXPECT_EQ(pool.ChunkCount(), i / 2 + 1);
  }
  EXPECT_EQ(pool.Alloc(), nullptr);
  EXPECT_EQ(pool.FreeCount(), 0);
}

TEST_F(SameSizeMemPoolTest, ConstructOnceWithoutDestructOnFree) {
  {
    SameSizeMemPool<Counted> pool(4, 1, 0);
    Counted* o = pool.Alloc();
    o->value = 42;
    pool.Free(o);
    EXPECT_EQ(Counted::destructed, 0);
    Counted* again = pool.Alloc();
    ASSERT_EQ(again, o);
    EXPECT_EQ(again->value, 42);
    EXPECT_EQ(Counted::constructed, 1);
    pool.Alloc();  // a second, handed out at destruction
  }
  // The destructor ends every constructed object, handed out or not.
  EXPECT_EQ(Counted::constructed, 2);
  EXPECT_EQ(Counted::destructed, 2);
}

TEST_F(SameSizeMemPoolTest, DestructOnFreeEndsAndRebuilds) {
  {
    SameSizeMemPool<Counted> pool(4, 1, 1);
    Counted* o = pool.Alloc();
    o->value = 42;
    pool.Free(o);
    EXPECT_EQ(Counted::destructed, 1);
    Counted* again = pool.Alloc();
    EXPECT_EQ(again->value, 0);
    EXPECT_EQ(Counted::constructed, 2);
  }
  // With destructOnFree set, objects still handed out are not ended.
  EXPECT_EQ(Counted::destructed, 1);
}

TEST_F(SameSizeMemPoolTest, Strides) {
  // The 16-byte slot header keeps 8-byte objects aligned on 64-bit.
  struct Case {
    int32_t objectSize;
    int32_t stride;
  } cases[] = {{8, 24}, {36, 56}, {5, 24}, {1, 24}, {16, 32}};
  for (const Case& c : cases) EXPECT_EQ(SameSizeMemPoolBase::StrideFor(c.objectSize), c.stride) << c.objectSize;
  SameSizeMemPool<MsgRecord> records(1, 1, 0);
  EXPECT_EQ(records.Stride() % 8, 0);
}

TEST_F(SameSizeMemPoolTest, BadSizesGiveNothing) {
  SameSizeMemPool<Counted> none(0, 4, 0);
  EXPECT_EQ(none.Alloc(), nullptr);
  SameSizeMemPool<Counted> noChunks(4, 0, 0);
  EXPECT_EQ(noChunks.Alloc(), nullptr);
}

TEST_F(SameSizeMemPoolTest, ReplyEventElementAndSites) {
  ReplyEventPool pool(2, 1, 0);
  ReplyEvent* e = pool.Alloc();
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->valid, 1);
  EXPECT_TRUE(GetHandleInformation(e->handle, nullptr));
  SetEvent(e->handle);
  EXPECT_EQ(WaitForSingleObject(e->handle, 0), WAIT_OBJECT_0);  // auto-reset
  EXPECT_EQ(WaitForSingleObject(e->handle, 0), WAIT_TIMEOUT);
  pool.Free(e);
  for (const char* name : {"SameSizeMemPoolBase::Alloc()", "SameSizeMemPoolBase::Free()"}) {
    PerformanceSite* site = FindPerformanceSite(name, "codelib");
    ASSERT_NE(site, nullptr) << name;
    EXPECT_GT(site->calls.load(), 0u);
  }
}

}  // namespace
