// VBufferQueueSet: up to 32 VBufferQueues read as one stream, in the order in
// which their blocks were committed across all of them (the blocks' serial,
// shared by the whole process). A cursor holds one block index per queue, so a
// reader's place survives evictions in each queue: a block evicted before the
// reader came to it is skipped.
//
// Every operation that compares blocks of several queues holds all their locks
// at once, taken in the set's order and let go in reverse, so no queue loses a
// block between the comparison and the hold. Two sets that list the same
// queues in another order can deadlock.
//
// Blocks committed at a head carry no serial and take no meaningful place in
// the order.
#pragma once

#include <cstdint>

#include "VBufferQueue.h"

constexpr int32_t VBUF_SET_MAX_QUEUES = 32;

// What ReadAt gives: the block's data (or null) and the index it was read at.
struct VBufReadResult {
  uint8_t* data;
  VBufSeq index;
};

// A reference to a queue; every operation is safe on a null reference and on
// one that holds null.
struct VBufferQueueRef {
  VBufferQueue* queue;

  // The queue's values under its lock; 0 without a queue.
  VBufSeq GetFirstIndex() const;
  VBufSeq GetLastIndex() const;
  // Under the queue's lock: { null, 0 } without a block at or after
  // *position. A position older than the first index moves up to it. With
  // `peekOnly` gives { null, *position }; otherwise takes a read (mode 1) or
  // write (mode 0) hold on that block and returns { data, old *position },
  // raising *position by 1 even when the hold was refused.
  VBufReadResult ReadAt(int32_t mode, VBufSeq* position, int32_t* size, uint32_t* user,
                        int32_t peekOnly) const;
  // The queue's GetBufferByIndex.
  uint8_t* GetByIndex(VBufSeq index, int32_t* size, uint32_t* user) const;
  // Gives back a read (mode 1) or write (mode 0) hold; 0 without a queue.
  int32_t Release(int32_t mode, uint8_t* data, uint32_t reader) const;
  // Blocks from *position to the last, after moving *position up to the first
  // if it is older; 0 if it lies beyond the last.
  int32_t CountFrom(VBufSeq* position) const;

  // The queue's lock, for operations across a set; nothing without one.
  void Lock() const;
  void Unlock() const;
  // The serial of the block at `index`; false when there is none.
  bool SerialAt(VBufSeq index, uint32_t* serial) const;
  int32_t IsInBuffer(const uint8_t* p, int32_t length) const;
};

class VBufferQueueSet;

// A reader's place: one block index per queue of the set. A plain value.
struct VBufferQueueSetCursor {
  struct Entry {
    VBufSeq position;
    VBufferQueueRef* queue;
  };
  VBufferQueueSet* set;
  Entry entries[VBUF_SET_MAX_QUEUES];
  int32_t entryCount;

  // Moves past the next block in commit order; a cursor with no next block
  // stays as it is.
  VBufferQueueSetCursor& operator++();
  VBufferQueueSetCursor operator++(int);
  // Same entryCount, and each entry's position and queue alike; `set` is not
  // compared.
  bool operator==(const VBufferQueueSetCursor& other) const;
};

struct VBufferQueueSetItem {
  uint8_t* data;
  VBufferQueueSetCursor cursor;  // the cursor as it stood when the block was chosen
};

class VBufferQueueSet {
 public:
  // Takes source[i] for each bit i of `mask`, in ascending order. An empty
  // mask is reported, and the set stays empty.
  VBufferQueueSet(VBufferQueueRef* const source[VBUF_SET_MAX_QUEUES], uint32_t mask);

  // A cursor at each queue's first (Begin) or last (End) block index. An empty
  // set is reported.
  VBufferQueueSetCursor Begin();
  VBufferQueueSetCursor End();

  // On each queue in turn, stopping at the first failure (0), with the queues
  // before it left as changed.
  int32_t AddReader(uint32_t reader, int32_t markExisting);
  int32_t SetReaderSizeLimited(uint32_t reader, int32_t type, int32_t value);
  // On every queue, whatever happens on the others; 1 only if all succeeded.
  int32_t RemoveReader(uint32_t reader);
  int32_t CleanReaderSizeLimited(uint32_t reader);
  // From the first queue alone.
  int32_t GetReaderSizeLimited(int32_t* type, int32_t* value);

  // The oldest block, in commit order, at or after the cursor: a read hold on
  // it, and the cursor advanced past it. The item holds the data (null when
  // there is none, with a cursor of entryCount 0) and the cursor as it stood.
  VBufferQueueSetItem GetNext(VBufferQueueSetCursor* cursor, int32_t* size, uint32_t* user);
  // The same on a copy of the cursor: a read hold, nothing advanced.
  uint8_t* GetAt(VBufferQueueSetCursor cursor, int32_t* size, uint32_t* user);
  // Gives back a read hold on `data` in the first queue whose buffer holds it;
  // 1 if there is such a queue.
  int32_t Release(uint8_t* data, uint32_t reader);
  // Blocks left from the cursor over all queues; positions fallen behind are
  // moved up in the caller's cursor.
  int32_t CountFrom(VBufferQueueSetCursor* cursor);

  uint32_t GetUserWord(int32_t i);
  void SetUserWord(int32_t i, uint32_t value);
  VBufferQueueRef* GetQueue(int32_t i);
  int32_t GetValidCount() const { return m_validCount; }

 private:
  friend struct VBufferQueueSetCursor;
  VBufferQueueSetCursor MakeCursor(bool first);
  void LockAll();
  void UnlockAll();
  VBufferQueueRef* queues[VBUF_SET_MAX_QUEUES];
  int32_t m_validCount;
};
