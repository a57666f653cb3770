// VBufferQueue: a sequence of variable-sized blocks inside one flat buffer of
// fixed size. The oldest data sits at the head, the newest at the tail, and
// blocks can be added and removed at both ends.
//
// A block is first reserved (Prepare...), filled in place by the writer with
// no lock held, then committed (NewBufferAt...). Committed blocks are reached
// by walking (GetBuffer), by a stable block index, or as one byte stream by
// byte offset (ScanBytes, ReadBytes). Indexes and offsets are VBufSeq values
// that run on across the 32-bit wrap and stay with a block for its whole life.
// Registered readers (AddReader, on a queue made with reader tracking) keep
// every block until each of them has finished it; size limits cap the queue
// below its buffer.
//
// Blocks never wrap: a block that does not fit before the end of the buffer
// goes to the other end, and the gap left behind stays unused until the blocks
// around it are gone. A block takes VBUF_HEADER_SIZE plus its size rounded up
// to the alignment.
//
// Results: an int32_t result is 1 for success and 0 for failure unless told
// otherwise; pointers are null on failure. Nothing raises an exception.
//
// Locking: a queue made with useLock guards itself with one recursive lock,
// taken by every operation that reads or changes more than one field; without
// it the queue belongs to one thread. Notifications run on the calling thread
// with that lock held.
//
// ---------------------------------------------------------------------------
// The live stream's cycle (one writer thread, one reader thread)
//
//   VBufferQueue queue(1, 0);                    // locked, no reader tracking
//   queue.Open(0x2000000, /*name=*/nullptr, /*buffer=*/nullptr, VBUF_ALIGN_WORD);
//
// Producer, per frame of `size` bytes:
//
//   uint8_t* block = queue.PrepareNewBufferAtTail(size, VBUF_EVICT_OLDEST, nullptr);
//   if (block == nullptr) { /* no room even after eviction: drop the frame */ }
//   else {
//     memcpy(block, frame, size);                // no lock held while copying
//     queue.NewBufferAtTail(block, VBUF_RESERVED_SIZE, /*user=*/0, /*allowEmpty=*/0,
//                           /*skip=*/0);
//   }
//
//   With VBUF_EVICT_OLDEST the reservation drops the oldest idle blocks until the new
//   one fits; it stops at a block that is held, so the reader's block is safe.
//   A frame that turns out shorter commits a smaller size instead of -1 (the
//   end is reused at once); size 0 cancels the reservation.
//
// Consumer (the worker), per step:
//
//   int32_t size;
//   uint8_t* block = queue.GetBuffer(nullptr, &size, nullptr);  // oldest, held
//   if (block != nullptr) {
//     Decode(block, size);                        // in place, no lock held
//     queue.ReleaseAndRemoveAtHead(block, 0, nullptr);
//   }
//
//   ReleaseAndRemoveAtHead gives the hold back and removes the block in one
//   step under the lock. The two calls ReleaseBuffer(block, 0) then
//   RemoveBufferAtHead(nullptr) do the same only while the writer does not
//   evict: between them an evicting writer may drop the released block, and
//   the removal then takes the next, unread, block (or even the writer's
//   standing reservation, which stops all further commits until Clear).
//
// Waking the consumer instead of polling GetBufferCount(): give the queue a
// notification that sets an event at each commit, and wait on that event.
//
//   HANDLE ready = CreateEventA(nullptr, 0, 0, nullptr);      // auto-reset
//   queue.AddNotify(reinterpret_cast<VBufNotifyKey>(ready), VBufSignalEventOnCommit);
//   ...
//   while (!stop) {
//     if (queue.GetBufferCount() == 0) { WaitForSingleObject(ready, 10); continue; }
//     ... consumer step above ...
//   }
//   queue.RemoveNotify(reinterpret_cast<VBufNotifyKey>(ready));  // before CloseHandle
//
//   Test the count before waiting, and wait with a bound: an auto-reset event
//   stands for "at least one commit since the last wait", not for a number of
//   blocks. The event write is one system call per commit, made with the
//   queue's lock held.
// ---------------------------------------------------------------------------
#pragma once

#include <atomic>
#include <cstdint>

constexpr uint32_t VBUF_MAGIC = 0x56424651;  // "QFBV" in memory
constexpr int32_t VBUF_HEADER_SIZE = 68;
constexpr int32_t MAX_READER_COUNT = 256;

// Size limit types (SetReaderSizeLimited).
constexpr int32_t VBUF_LIMIT_BYTES = 1;    // payload bytes
constexpr int32_t VBUF_LIMIT_COUNT = 2;    // blocks
constexpr int32_t VBUF_LIMIT_PERCENT = 3;  // per cent of the buffer, headers included

// Notification events, with (data, size, user) of the block where there is one.
constexpr int32_t VBUF_EVT_OPEN = 0;
constexpr int32_t VBUF_EVT_CLOSE = 1;            // before the memory goes
constexpr int32_t VBUF_EVT_CLEAR = 2;            // before the blocks go
constexpr int32_t VBUF_EVT_NEW_AT_HEAD = 3;
constexpr int32_t VBUF_EVT_NEW_AT_TAIL = 4;
constexpr int32_t VBUF_EVT_REMOVE_AT_HEAD = 5;
constexpr int32_t VBUF_EVT_REMOVE_AT_TAIL = 6;
constexpr int32_t VBUF_EVT_FREE = 7;             // each block that goes, for any cause

// A 32-bit block index or byte offset that may wrap. Two values are compared by
// the sign of their difference, never directly, so order holds across the wrap
// as long as they lie less than 2^31 apart.
class VBufSeq {
 public:
  constexpr VBufSeq() = default;
  constexpr VBufSeq(int32_t value) : value_(value) {}  // NOLINT: plain numbers convert

  constexpr int32_t Value() const { return value_; }

  // The signed distance this - other, taken modulo 2^32.
  constexpr int32_t operator-(VBufSeq other) const {
    return static_cast<int32_t>(static_cast<uint32_t>(value_) - static_cast<uint32_t>(other.value_));
  }
  constexpr VBufSeq operator+(int32_t n) const {
    return VBufSeq(static_cast<int32_t>(static_cast<uint32_t>(value_) + static_cast<uint32_t>(n)));
  }
  constexpr VBufSeq operator-(int32_t n) const {
    return VBufSeq(static_cast<int32_t>(static_cast<uint32_t>(value_) - static_cast<uint32_t>(n)));
  }
  VBufSeq& operator+=(int32_t n) { return *this = *this + n; }
  VBufSeq& operator-=(int32_t n) { return *this = *this - n; }
  VBufSeq& operator++() { return *this += 1; }

  constexpr bool operator==(const VBufSeq&) const = default;
  constexpr bool operator<(VBufSeq o) const { return (*this - o) < 0; }
  constexpr bool operator>(VBufSeq o) const { return (*this - o) > 0; }
  constexpr bool operator<=(VBufSeq o) const { return (*this - o) <= 0; }
  constexpr bool operator>=(VBufSeq o) const { return (*this - o) >= 0; }

 private:
  int32_t value_ = 0;
};

// The null value of VBufHeader::prev and next.
constexpr uint32_t VBUF_NULL_LINK = 0xFFFFFFFFu;

// The header at the front of every block; the data follows at once. Packed,
// because a commit with `skip` moves a header by any number of bytes.
struct __attribute__((packed)) VBufHeader {
  uint32_t magic;              // VBUF_MAGIC while the block exists
  uint32_t serial;             // commit order across queues; set at the tail only
  int32_t readCount;           // holders reading the block
  int32_t writeHeld;           // 1 while one holder has it for writing
  uint32_t prev;               // offset from the buffer's base toward the head, or VBUF_NULL_LINK
  uint32_t next;               // offset toward the tail, or VBUF_NULL_LINK
  int32_t size;                // bytes of data: reserved size, then committed size
  uint32_t pendingReaders[8];  // bit n: reader slot n has not finished the block
  uint32_t user;               // the writer's word from the commit
  uint32_t magicEnd;           // VBUF_MAGIC again
};
static_assert(sizeof(VBufHeader) == VBUF_HEADER_SIZE, "the header layout is fixed");

// Named values of the calls below.
constexpr int32_t VBUF_ALIGN_WORD = 4;      // Open: blocks on 4-byte boundaries (or 68)
constexpr int32_t VBUF_EVICT_OLDEST = 1;    // Prepare: drop idle blocks at the far end to fit
constexpr int32_t VBUF_NO_EVICT = 0;        // Prepare: fail when the block does not fit
constexpr int32_t VBUF_RESERVED_SIZE = -1;  // NewBuffer: commit the size reserved

class VBufferQueue;
struct VBufferQueueImpl;

// A notification key: any value the caller chooses, wide enough to carry a
// pointer or a HANDLE. Keys are ordered as unsigned numbers.
typedef uintptr_t VBufNotifyKey;
typedef void (*VBufNotifyFn)(VBufferQueue* owner, VBufNotifyKey key, int32_t event, uint8_t* data,
                             int32_t size, uint32_t user);

// A notification that takes its key as an event HANDLE and sets it at each
// commit (VBUF_EVT_NEW_AT_TAIL and VBUF_EVT_NEW_AT_HEAD).
void VBufSignalEventOnCommit(VBufferQueue* owner, VBufNotifyKey key, int32_t event, uint8_t* data,
                             int32_t size, uint32_t user);

// Hands `length` bytes of the stream at `position` to the consumer; returns
// how many it took, 0..length. Anything else ends the scan with failure.
typedef int32_t (*VBufScanFn)(void* context, const uint8_t* data, VBufSeq position, int32_t length);

// The serial of the last block committed at a tail, for the whole process.
// The first serial handed out is 1.
extern std::atomic<uint32_t> g_nextSerial;

class VBufferQueue {
 public:
  // The queue starts closed. `useLock`: guard with a recursive lock.
  // `trackReaders` (fixed for life): blocks wait for registered readers.
  VBufferQueue(int32_t useLock, int32_t trackReaders);
  // Closes (waiting for holders, see Close) and frees everything. A hold or
  // reservation that nobody will give back keeps it waiting: Clear first when
  // such may be left.
  ~VBufferQueue();
  VBufferQueue(const VBufferQueue&) = delete;
  VBufferQueue& operator=(const VBufferQueue&) = delete;

  // --- Lifecycle -----------------------------------------------------------
  // Opens on a buffer of `size` bytes: allocated (size rounded up to `align`)
  // when `buffer` is null, else the caller's, used as it stands. `align` is 4
  // or 68; anything else, a size not above 0, or an open queue fail with no
  // change. `name` (may be null) is copied. Raises VBUF_EVT_OPEN.
  int32_t Open(int32_t size, const char* name, uint8_t* buffer, int32_t align);
  int32_t IsOpen();
  // Waits (letting go of one level of the lock, Sleep(1) per try, without end)
  // until no block is held or reserved, then raises VBUF_EVT_CLOSE and
  // VBUF_EVT_FREE per committed block (tail first) and frees the buffer.
  // Notifications, limits, the alignment and the user word survive; readers
  // do not. Indexes and offsets start again at 0.
  void Close();
  // Drops every block, holds and reservations included, as if removed at the
  // head: indexes and offsets go on from where they were. Raises
  // VBUF_EVT_CLEAR, then VBUF_EVT_FREE per committed block (tail first).
  void Clear();

  // --- Notifications -------------------------------------------------------
  // Called in ascending key order on every event. A key already there keeps
  // its function and gives 0. A null function is kept but never called.
  int32_t AddNotify(VBufNotifyKey key, VBufNotifyFn fn);
  int32_t RemoveNotify(VBufNotifyKey key);

  const char* GetName();
  int32_t IsReaderTracking();
  // 1 while a reservation stands or any block is held.
  int32_t IsBusy();
  // 1 if a committed block waits for `reader` (0: for any reader).
  int32_t HasPending(uint32_t reader);

  // --- Writing at the tail and the head ------------------------------------
  // Reserves `size` bytes (0 or more) and returns where to write them, or null
  // when the block does not fit, a limit refuses it, or a reservation already
  // stands at that end. `evict`: remove blocks at the far end, one at a time,
  // until it fits; removal stops at a held, pending or reserved block.
  // `evictedBytes` (may be null) gets the total size of what was removed.
  uint8_t* PrepareNewBufferAtTail(int32_t size, int32_t evict, int32_t* evictedBytes);
  // Ends the reservation `data`. `size` -1 commits the size reserved; a smaller
  // size gives back the end. Size 0 without `allowEmpty` cancels (result 1, no
  // event); more than reserved gives the block up (result 0). `skip` bytes at
  // the front are dropped (0 <= skip < size, or skip == size with allowEmpty);
  // a bad skip gives 0 and leaves the reservation standing. `user` is kept
  // with the block. Raises VBUF_EVT_NEW_AT_TAIL.
  int32_t NewBufferAtTail(uint8_t* data, int32_t size, uint32_t user, int32_t allowEmpty,
                          int32_t skip);
  // Removes the head block unless it is reserved, held or pending.
  // `removedSize` (may be null) gets its size.
  int32_t RemoveBufferAtHead(int32_t* removedSize);
  uint8_t* PrepareNewBufferAtHead(int32_t size, int32_t evict, int32_t* evictedBytes);
  // As NewBufferAtTail; the block gets no serial.
  int32_t NewBufferAtHead(uint8_t* data, int32_t size, uint32_t user, int32_t allowEmpty,
                          int32_t skip);
  int32_t RemoveBufferAtTail(int32_t* removedSize);
  // Gives back the read hold on `data` (as ReleaseBuffer) and, when that was
  // the last hold and `data` is the head block and not pending, removes it,
  // all under one lock. 1 if the block was removed. The consumer's end of the
  // live stream's cycle (see above).
  int32_t ReleaseAndRemoveAtHead(uint8_t* data, uint32_t reader, int32_t* removedSize);

  // --- Holding blocks ------------------------------------------------------
  // With `prev` null the first committed block, else the block after `prev`
  // (a held block of this queue, which stays held). Takes a read hold; null
  // when there is none, it is write-held, or it is the tail reservation.
  // `size` is required; `user` may be null.
  uint8_t* GetBuffer(uint8_t* prev, int32_t* size, uint32_t* user);
  // Gives back a read hold; a non-zero `reader` on a tracking queue also
  // marks that reader finished with the block.
  int32_t ReleaseBuffer(uint8_t* data, uint32_t reader);
  // Fills what is given (any pointer may be null); 0 if `index` is not a block.
  int32_t GetBufferInfo(VBufSeq index, int32_t* size, uint32_t* user, int32_t* readCount,
                        int32_t* pendingCount, VBufSeq* offset);
  int32_t GetHeadUser(uint32_t* user);
  // 1 if `length` >= 0 and [p, p + length] lies within the buffer. No lock.
  int32_t IsInBuffer(const uint8_t* p, int32_t length);
  // The data pointer of the block holding `p`, if it is reserved or held;
  // `state` (may be null): -1 head reservation, 1 tail reservation, 2
  // write-held, 0 read-held, -2 not found or idle (result null).
  uint8_t* FindBuffer(const uint8_t* p, int32_t* state);

  // --- Plain accessors (no lock) -------------------------------------------
  // The counters (GetBufferCount, GetDataSize, GetFirstIndex and
  // GetFirstOffset) may be polled from any thread and may already be old; the
  // others change only with Open and Close, or are the owner's.
  int32_t GetBufferCount();  // committed blocks
  int32_t GetDataSize();     // bytes in committed blocks
  int32_t GetCapacity();
  uint32_t& UserWord();
  uint32_t GetUserWord();

  // --- The byte stream -----------------------------------------------------
  VBufSeq GetFirstOffset();
  // Renumbers the stream so that its first byte is at `offset`.
  void SetFirstOffset(VBufSeq offset);
  VBufSeq GetLastOffset();  // one below the first on an empty queue
  // Hands the stream from *position on to `fn`, one run per block, for at most
  // *count bytes; each block is pinned by a read hold while `fn` runs with one
  // level of the lock let go. Bytes already gone are skipped: the request keeps
  // its end. Stops early at a write-held block, or when `fn` takes less than
  // it was given. On return *count holds the bytes taken and *position the
  // offset after them. 0 if *count < 0, the start lies past the data, or `fn`
  // answers out of range. A non-zero `reader` on a tracking queue finishes
  // each block whose last byte `fn` took.
  int32_t ScanBytes(VBufScanFn fn, void* context, VBufSeq* position, int32_t* count,
                    uint32_t reader);
  // One byte, without pinning and without regard to write holds.
  int32_t ReadByte(VBufSeq position, uint8_t* out);
  // ScanBytes copying into `dst`.
  int32_t ReadBytes(VBufSeq* position, void* dst, int32_t* count, uint32_t reader);
  // 2 or 4 bytes as they stand in the stream (no byte order applied); 1 only
  // if all were read.
  int32_t ReadU16(VBufSeq position, void* out);
  int32_t ReadU32(VBufSeq position, void* out);

  // --- Block indexes -------------------------------------------------------
  VBufSeq GetFirstIndex();
  void SetFirstIndex(VBufSeq index);
  VBufSeq GetLastIndex();  // one below the first on an empty queue
  uint8_t* GetBufferByIndex(VBufSeq index, int32_t* size, uint32_t* user);
  int32_t ReleaseBufferByIndex(VBufSeq index, uint32_t reader);
  // `first` non-zero: the first index and offset, else the last ones. Both
  // pointers are required.
  void GetEndInfo(int32_t first, VBufSeq* index, VBufSeq* offset);
  // Write hold: only on an idle block; excludes every other hold.
  uint8_t* LockBufferByIndex(VBufSeq index, int32_t* size, uint32_t* user);
  int32_t UnlockBuffer(uint8_t* data);
  int32_t UnlockBufferByIndex(VBufSeq index);

  // --- Readers and limits --------------------------------------------------
  // Registers a non-zero reader id in one of MAX_READER_COUNT slots.
  // `markExisting`: it must also finish every block already there. A duplicate
  // is reported and refused; a reader beyond MAX_READER_COUNT is reported and
  // ends the process.
  int32_t AddReader(uint32_t reader, int32_t markExisting);
  // Takes the reader's limit away, frees its slot and finishes every block for it.
  int32_t RemoveReader(uint32_t reader);
  int32_t GetReaderCount();
  // The limit in force (the last one set, whoever set it): 1 with its type and
  // value, or 0 with 0 and 0. Either pointer may be null.
  int32_t GetReaderSizeLimited(int32_t* type, int32_t* value);
  // Sets the reader's one limit (type VBUF_LIMIT_*). An unknown reader or a
  // second limit is reported and refused; an unknown type just refused.
  int32_t SetReaderSizeLimited(uint32_t reader, int32_t type, int32_t value);
  // Exactly RemoveReader: the limit goes, and so does the reader.
  int32_t CleanReaderSizeLimited(uint32_t reader);

 private:
  friend struct VBufferQueueRef;
  VBufferQueueImpl* m_impl;
};
