// The body of VBufferQueue: the buffer, the block list, the index ring, the
// reader table, the limits and the notifications. The methods named as the
// public operations behave as VBufferQueue.h tells; the *Locked helpers expect
// the queue's lock to be held by the caller.
#pragma once

#include <atomic>
#include <cstdint>

#include "InlineArray.h"
#include "RecursiveLock.h"
#include "VBufferQueue.h"

// The file text of the queue's assertion reports.
#define VBUF_SOURCE_FILE "codelib/brisk/source/VBufferQueue"

// The counters that the plain accessors read without the lock (count, data
// size, first index and offset) are written through Publish, so that such a
// read sees an old or a new value and never a torn one. Writers hold the lock.
template <typename T>
void Publish(T& field, T value) {
  std::atomic_ref<T>(field).store(value, std::memory_order_relaxed);
}
template <typename T>
T Peek(T& field) {
  return std::atomic_ref<T>(field).load(std::memory_order_relaxed);
}

struct VBufIndexEntry {
  VBufHeader* block;
  VBufSeq offset;  // stream offset of the block's first data byte
};

// A growable ring of index entries: entry i stands in slot start + i, less
// capacity once that reaches capacity.
struct VBufIndexRing {
  VBufIndexEntry* storage = nullptr;
  int32_t capacity = 0;
  int32_t count = 0;
  int32_t start = 0;
  int32_t firstNumber = 0;  // running number of entry 0

  ~VBufIndexRing() { Resize(0); }

  VBufIndexEntry& At(int32_t i) {
    int32_t slot = start + i;
    if (slot >= capacity) slot -= capacity;
    return storage[slot];
  }
  // Copies the entries in order to storage of `newCapacity` (start becomes
  // 0). Refuses a size below count and a failed allocation.
  bool Resize(int32_t newCapacity);
  // The capacity after `capacity`: the next power of two while small, then
  // steps of 0x1000000 entries.
  static int32_t GrowthAfter(int32_t capacity);
  // Add an entry at either end, growing when full; false when it cannot grow.
  bool PushBack(const VBufIndexEntry& entry);
  bool PushFront(const VBufIndexEntry& entry);
  void PopFront();
  void PopBack();
  void Reset();  // empty, storage freed
};

struct VBufLimit {
  int32_t slot;  // the m_readers slot of the reader that set it
  int32_t type;  // VBUF_LIMIT_*
  int32_t value;
};

struct VBufNotifyEntry {
  VBufNotifyKey key;
  VBufNotifyFn fn;
};

// A read (mode 1) or write (mode 0) hold.
constexpr int32_t VBUF_HOLD_READ = 1;
constexpr int32_t VBUF_HOLD_WRITE = 0;

struct VBufferQueueImpl {
  VBufferQueue* m_owner;
  int32_t m_lockEnabled;
  CRecursiveLock* m_lock;
  int32_t m_align;
  char* m_name;
  uint8_t* m_externalBuffer;
  uint8_t* m_rawBuffer;
  uint8_t* m_base;
  int32_t m_capacity;
  int32_t m_headPreparing;
  int32_t m_tailPreparing;
  VBufHeader* m_head;
  VBufHeader* m_tail;
  VBufIndexRing m_index;
  VBufSeq m_firstIndex;
  int32_t m_dataSize;
  VBufSeq m_firstOffset;
  int32_t m_trackReaders;
  uint32_t m_readers[MAX_READER_COUNT];
  InlineArray<VBufLimit, 8> m_limits;
  InlineArray<VBufNotifyEntry, 4> m_notifies;
  uint32_t m_userWord;
  // Raised whenever all blocks vanish at once (Clear, close), so that a scan
  // that let go of the lock knows its pinned block is gone.
  uint32_t m_generation;

  VBufferQueueImpl(VBufferQueue* owner, int32_t useLock, int32_t trackReaders);
  ~VBufferQueueImpl();

  void Lock() {
    if (m_lockEnabled) m_lock->Lock();
  }
  void Unlock() {
    if (m_lockEnabled) m_lock->Unlock();
  }

  // Lifecycle and notifications.
  int32_t Open(int32_t size, const char* name, uint8_t* buffer, int32_t align);
  void Close();
  void Clear();
  void CloseSteps();
  void FreeCommitted(int32_t event);
  int32_t AddNotify(VBufNotifyKey key, VBufNotifyFn fn);
  int32_t RemoveNotify(VBufNotifyKey key);
  void Notify(int32_t event, uint8_t* data, int32_t size, uint32_t user);
  void NotifyBlock(int32_t event, VBufHeader* h) { Notify(event, Data(h), h->size, h->user); }
  int32_t IsBusyLocked();

  // Addresses and links.
  static uint8_t* Data(VBufHeader* h) { return reinterpret_cast<uint8_t*>(h) + VBUF_HEADER_SIZE; }
  static VBufHeader* HeaderOf(const uint8_t* data) {
    return reinterpret_cast<VBufHeader*>(const_cast<uint8_t*>(data) - VBUF_HEADER_SIZE);
  }
  uint32_t LinkOf(const VBufHeader* h) const {
    return h == nullptr ? VBUF_NULL_LINK
                        : static_cast<uint32_t>(reinterpret_cast<const uint8_t*>(h) - m_base);
  }
  VBufHeader* FromLink(uint32_t link) const {
    return link == VBUF_NULL_LINK ? nullptr : reinterpret_cast<VBufHeader*>(m_base + link);
  }
  VBufHeader* Next(const VBufHeader* h) const { return FromLink(h->next); }
  VBufHeader* Prev(const VBufHeader* h) const { return FromLink(h->prev); }
  int64_t Round(int64_t x) const {
    return m_align == 4 ? (x + 3) & ~int64_t{3} : (x + m_align - 1) / m_align * m_align;
  }
  int64_t OffsetOf(const VBufHeader* h) const {
    return reinterpret_cast<const uint8_t*>(h) - m_base;
  }
  int64_t EndOf(const VBufHeader* h) const {
    return OffsetOf(h) + Round(h->size) + VBUF_HEADER_SIZE;
  }
  bool IsInRange(const void* p, int64_t length) const;
  bool IsValidHeader(const VBufHeader* h) const;
  VBufHeader* SetUpHeader(int64_t offset);

  // Writing (VBufferQueueImpl.cpp).
  bool LimitAllows(int32_t size) const;
  int64_t FindTailSpace(int32_t size) const;
  int64_t FindHeadSpace(int32_t size) const;
  uint8_t* Prepare(bool atTail, int32_t size, int32_t evict, int32_t* evictedBytes);
  int32_t Commit(bool atTail, uint8_t* data, int32_t size, uint32_t user, int32_t allowEmpty,
                 int32_t skip);
  void Unlink(bool atTail);
  int32_t Remove(bool atHead, int32_t* removedSize);
  int32_t ReleaseAndRemoveAtHead(uint8_t* data, uint32_t reader, int32_t* removedSize);

  // Reading (VBufferQueueRead.cpp).
  uint8_t* GetBuffer(uint8_t* prev, int32_t* size, uint32_t* user);
  uint8_t* TakeHold(VBufHeader* h, int32_t mode, int32_t* size, uint32_t* user);
  int32_t ReleaseLocked(uint8_t* data, int32_t mode, uint32_t reader);
  int32_t Release(uint8_t* data, int32_t mode, uint32_t reader);
  VBufHeader* BlockAt(VBufSeq index);
  uint8_t* HoldByIndexLocked(VBufSeq index, int32_t mode, int32_t* size, uint32_t* user);
  uint8_t* HoldByIndex(VBufSeq index, int32_t mode, int32_t* size, uint32_t* user);
  int32_t ReleaseByIndex(VBufSeq index, int32_t mode, uint32_t reader);
  int32_t GetBufferInfo(VBufSeq index, int32_t* size, uint32_t* user, int32_t* readCount,
                        int32_t* pendingCount, VBufSeq* offset);
  int32_t GetHeadUser(uint32_t* user);
  uint8_t* FindBuffer(const uint8_t* p, int32_t* state);
  void SetFirstOffset(VBufSeq offset);
  int32_t FindEntry(VBufSeq offset);
  int32_t ScanBytes(VBufScanFn fn, void* context, VBufSeq* position, int32_t* count,
                    uint32_t reader);
  int32_t ReadByte(VBufSeq position, uint8_t* out);
  int32_t ReadBytes(VBufSeq* position, void* dst, int32_t* count, uint32_t reader);

  // Readers and limits (VBufferQueueRead.cpp).
  int32_t FindSlot(uint32_t reader) const;
  void SetPendingBits(VBufHeader* h) const;
  void FinishForReader(VBufHeader* h, uint32_t reader) const;
  bool IsPending(const VBufHeader* h) const;
  int32_t AddReader(uint32_t reader, int32_t markExisting);
  int32_t RemoveReader(uint32_t reader);
  int32_t RemoveLimitOf(uint32_t reader);
  int32_t HasPending(uint32_t reader);
  int32_t SetReaderSizeLimited(uint32_t reader, int32_t type, int32_t value);
  int32_t GetReaderSizeLimited(int32_t* type, int32_t* value);
};

// Takes the queue's lock (when it has one) for a scope.
class VBufLockScope {
 public:
  explicit VBufLockScope(VBufferQueueImpl* q) : q_(q) { q_->Lock(); }
  ~VBufLockScope() { q_->Unlock(); }
  VBufLockScope(const VBufLockScope&) = delete;
  VBufLockScope& operator=(const VBufLockScope&) = delete;

 private:
  VBufferQueueImpl* q_;
};
