// SameSizeMemPoolBase: a pool of equal-sized objects, handed out from chunks
// of slots that are allocated as needed, up to a fixed number of chunks, and
// given back only when the pool is destroyed.
//
// An object can stay constructed while it lies in the pool (`destructOnFree`
// 0), so an object that is costly to set up, such as one that owns an event,
// is set up once and reused. Free never takes a lock: it pushes the slot with
// a compare-and-swap. Alloc pops under `popLock`, so that only one thread pops
// at a time; that single popper is what makes the list safe without a version
// counter. A chunk is added under `growLock` (lock order: growLock, then
// popLock; popLock is never held over an allocation). Slots are reused last
// freed first; a fresh chunk gives its slots out in ascending order.
//
// The element type comes as a parameter: SameSizeMemPool<T> runs T's
// constructor and destructor in place.
//
// Slot layout: the free-list link and the `constructed` word stand in the 16
// bytes before the object, and the object is rounded up to 8 bytes, so the
// stride is ((objectSize + 7) / 8) * 8 + 16.
#pragma once

#include <atomic>
#include <cstdint>
#include <new>

#include "RecursiveLock.h"

struct SameSizeSlot {
  SameSizeSlot* next;   // free-list link
  int32_t constructed;  // 1 while the object in this slot is alive
  int32_t reserved;
};

struct SameSizeChunk {
  SameSizeChunk* nextChunk;  // the previous head of the chunk list
  uint32_t marker;           // 0xFFFFFFFF
  uint32_t reserved;
};

struct SameSizePoolHeader {
  SameSizeChunk* chunks;
  std::atomic<SameSizeSlot*> freeList;
  std::atomic<int32_t> freeCount;
  std::atomic<int32_t> chunkCount;
  std::atomic<int32_t> usedCount;
};

// How the pool builds and ends an element in place.
struct SameSizeElementOps {
  void (*construct)(void* object);
  void (*destruct)(void* object);
};

class SameSizeMemPoolBase {
 public:
  // No chunk is allocated yet: the first Alloc adds one. A pool with a
  // `objectSize`, `perChunk` or `maxChunks` not above 0 gives out nothing.
  SameSizeMemPoolBase(SameSizeElementOps ops, int32_t objectSize, int32_t perChunk,
                      int32_t maxChunks, int32_t destructOnFree);
  // With `destructOnFree` 0, ends every object still constructed in its slot
  // (handed out or not); with it set, objects still handed out are not ended.
  // Frees every chunk.
  ~SameSizeMemPoolBase();
  SameSizeMemPoolBase(const SameSizeMemPoolBase&) = delete;
  SameSizeMemPoolBase& operator=(const SameSizeMemPoolBase&) = delete;

  // A live object, or null when `maxChunks` chunks are in use and none is
  // free, or a chunk could not be allocated (the pool is then unchanged).
  void* Alloc();
  // Gives an object back; null does nothing. `rawSlot` is 0 for every caller
  // outside the pool. Safe from any thread, lock-free. The pointer is not
  // checked: it must come from this pool's Alloc and not be freed twice.
  void Free(void* object, int32_t rawSlot = 0);

  static int32_t StrideFor(int32_t objectSize) { return (objectSize + 7) / 8 * 8 + 16; }

  int32_t Stride() const { return stride_; }
  int32_t ChunkCount() const { return header_.chunkCount.load(); }
  int32_t FreeCount() const { return header_.freeCount.load(); }
  int32_t UsedCount() const { return header_.usedCount.load(); }

 private:
  SameSizeSlot* Pop();
  bool AddChunk();

  CRecursiveLock growLock_;
  CRecursiveLock popLock_;
  SameSizeElementOps ops_;
  int32_t stride_;
  int32_t perChunk_;
  int32_t maxChunks_;
  int32_t destructOnFree_;
  SameSizePoolHeader header_;
};

template <class T>
class SameSizeMemPool : public SameSizeMemPoolBase {
 public:
  SameSizeMemPool(int32_t perChunk, int32_t maxChunks, int32_t destructOnFree)
      : SameSizeMemPoolBase(SameSizeElementOps{&Construct, &Destruct}, sizeof(T), perChunk,
                            maxChunks, destructOnFree) {}
  T* Alloc() { return static_cast<T*>(SameSizeMemPoolBase::Alloc()); }

 private:
  static void Construct(void* object) { new (object) T(); }
  static void Destruct(void* object) { static_cast<T*>(object)->~T(); }
};
