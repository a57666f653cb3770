#include "SameSizeMemPool.h"

#include <cstdlib>

#include "PerformanceSite.h"

namespace {

constexpr size_t kChunkHeader = sizeof(SameSizeChunk);
static_assert(sizeof(SameSizeSlot) == 16 && sizeof(SameSizeChunk) == 16,
              "objects must stay 8-byte aligned behind the slot and chunk headers");

void* ObjectOf(SameSizeSlot* slot) { return reinterpret_cast<char*>(slot) + sizeof(SameSizeSlot); }

SameSizeSlot* SlotOf(void* object) {
  return reinterpret_cast<SameSizeSlot*>(static_cast<char*>(object) - sizeof(SameSizeSlot));
}

SameSizeSlot* SlotAt(SameSizeChunk* chunk, int32_t stride, int32_t i) {
  return reinterpret_cast<SameSizeSlot*>(reinterpret_cast<char*>(chunk) + kChunkHeader +
                                         static_cast<size_t>(stride) * static_cast<size_t>(i));
}

}  // namespace

SameSizeMemPoolBase::SameSizeMemPoolBase(SameSizeElementOps ops, int32_t objectSize,
                                         int32_t perChunk, int32_t maxChunks,
                                         int32_t destructOnFree)
    : ops_(ops),
      stride_(StrideFor(objectSize > 0 ? objectSize : 0)),
      perChunk_(perChunk),
      maxChunks_(objectSize > 0 && perChunk > 0 ? maxChunks : 0),
      destructOnFree_(destructOnFree) {
  header_.chunks = nullptr;
  header_.freeList.store(nullptr);
  header_.freeCount.store(0);
  header_.chunkCount.store(0);
  header_.usedCount.store(0);
}

SameSizeMemPoolBase::~SameSizeMemPoolBase() {
  SameSizeChunk* chunk = header_.chunks;
  while (chunk != nullptr) {
    SameSizeChunk* next = chunk->nextChunk;
    for (int32_t i = 0; !destructOnFree_ && i < perChunk_; ++i) {
      SameSizeSlot* slot = SlotAt(chunk, stride_, i);
      if (slot->constructed) ops_.destruct(ObjectOf(slot));
    }
    free(chunk);
    chunk = next;
  }
}

SameSizeSlot* SameSizeMemPoolBase::Pop() {
  CLockGuard guard(&popLock_);
  SameSizeSlot* head = header_.freeList.load(std::memory_order_acquire);
  while (head != nullptr && !header_.freeList.compare_exchange_weak(
                                head, head->next, std::memory_order_acquire,
                                std::memory_order_acquire)) {
  }
  return head;
}

bool SameSizeMemPoolBase::AddChunk() {
  void* memory = malloc(kChunkHeader + static_cast<size_t>(stride_) * static_cast<size_t>(perChunk_));
  if (memory == nullptr) return false;
  SameSizeChunk* chunk = static_cast<SameSizeChunk*>(memory);
  chunk->nextChunk = header_.chunks;
  chunk->marker = 0xFFFFFFFFu;
  chunk->reserved = 0;
  header_.chunks = chunk;
  header_.chunkCount.fetch_add(1);
  for (int32_t i = perChunk_ - 1; i >= 0; --i) {
    SameSizeSlot* slot = SlotAt(chunk, stride_, i);
    slot->constructed = 0;
    slot->reserved = 0;
    Free(ObjectOf(slot), 1);
  }
  return true;
}

void* SameSizeMemPoolBase::Alloc() {
  PERFORMANCE_SITE("SameSizeMemPoolBase::Alloc()");
  SameSizeSlot* slot = Pop();
  if (slot == nullptr) {
    CLockGuard grow(&growLock_);
    slot = Pop();  // another thread may have grown the pool meanwhile
    while (slot == nullptr && header_.chunkCount.load() < maxChunks_) {
      if (!AddChunk()) return nullptr;
      slot = Pop();
    }
    if (slot == nullptr) return nullptr;
  }
  void* object = ObjectOf(slot);
  if (!slot->constructed) {
    ops_.construct(object);
    slot->constructed = 1;
  }
  header_.freeCount.fetch_sub(1);
  header_.usedCount.fetch_add(1);
  return object;
}

void SameSizeMemPoolBase::Free(void* object, int32_t rawSlot) {
  PERFORMANCE_SITE("SameSizeMemPoolBase::Free()");
  if (object == nullptr) return;
  SameSizeSlot* slot = SlotOf(object);
  if (!rawSlot) {
    header_.usedCount.fetch_sub(1);
    if (destructOnFree_) {
      slot->constructed = 0;
      ops_.destruct(object);
    }
  }
  header_.freeCount.fetch_add(1);
  SameSizeSlot* head = header_.freeList.load(std::memory_order_relaxed);
  do {
    slot->next = head;
  } while (!header_.freeList.compare_exchange_weak(head, slot, std::memory_order_release,
                                                   std::memory_order_relaxed));
}
