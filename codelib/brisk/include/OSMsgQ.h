// COSMsgQ: a bounded first-in-first-out queue of five-word messages between
// threads, with an optional synchronous reply.
//
// The count of waiting messages is a semaphore (FilledSlots()), so a receiver
// can wait for messages together with other handles and then take the
// message with `alreadyCounted` set. After Create, messages move without heap
// use: records and reply events come from pools, and a record's reply event
// survives its reuse.
//
// Any number of senders and receivers may run at once. Create and Close are
// serialised, but the caller stops its senders and receivers before either;
// the one exception Close allows is a sender waiting for its reply, which it
// lets go with the reply 0.
//
// A sender with a reply and a finite timeout that runs out gets 0: its message
// stays queued and will still be carried out. The record is then handed to
// the receiver for good. Should the receiver have begun to answer just before
// the sender gave up, the sender waits for that answer and returns 1, so a
// reply is never written after its sender has left.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>

#include "RecursiveLock.h"
#include "SameSizeMemPool.h"
#include "WaitableObject.h"

typedef uintptr_t MsgWord;
constexpr int32_t MSG_WORDS = 5;

// What a new record holds: { -100, 0, 0, -1, 3 }; the middle two words are
// the empty OSHandle {0, -1}.
extern const MsgWord MSG_DEFAULT_PAYLOAD[MSG_WORDS];

// An auto-reset event, created when the pool first constructs the element.
struct ReplyEvent {
  HANDLE handle;
  int32_t valid;  // whether the creation worked
  ReplyEvent();
  ~ReplyEvent();
};

typedef SameSizeMemPool<ReplyEvent> ReplyEventPool;

struct MsgRecord {
  MsgWord words[MSG_WORDS];
  uint32_t* reply;                 // where the answer goes; null: no reply wanted
  std::atomic<int32_t> abandoned;  // 0; 1 given up by the sender; 2 being answered
  ReplyEventPool* eventPool;
  ReplyEvent* event;               // the event the sender waits on, or null

  MsgRecord();
  ~MsgRecord();  // gives `event` back to its pool
  // Gets an event when a reply is wanted and there is none yet; 0 when no
  // valid event can be had.
  int32_t AttachReplyEvent();
  // 1 if the reply came within `timeoutMs`.
  int32_t WaitReply(uint32_t timeoutMs);
};

// What TakeMsg fills and answers.
struct MsgTake {
  MsgWord* words;       // room for MSG_WORDS
  uint32_t replyValue;  // handed to a sender that waits
};

// A semaphore of `initial` counts of at most `maximum`; 0 for a null `out`, a
// negative `initial`, a `maximum` not above 0 or `initial` above `maximum`.
int32_t CreateCountSemaphore(HANDLE* out, int32_t initial, int32_t maximum);
// Releases `n` counts, retrying every 1 ms while the semaphore is full.
// Returns 0 on any other failure.
int32_t ReleaseCount(HANDLE* semaphore, int32_t n);

class COSMsgQ {
 public:
  COSMsgQ();
  ~COSMsgQ();  // Close()
  COSMsgQ(const COSMsgQ&) = delete;
  COSMsgQ& operator=(const COSMsgQ&) = delete;

  // Opens a ring of `capacity` messages, its records in `chunks` chunks that
  // are allocated as needed. 0 if open already, if `capacity` or `chunks` is
  // not above 0, or if `capacity` is not a multiple of `chunks`.
  int32_t Create(int32_t capacity, int32_t chunks, int32_t destructOnFree);
  // Drains the ring, answering every waiting sender with 0 and dropping every
  // message, then frees the ring, its semaphores and the pools. A queue can
  // be created again.
  void Close();

  // Queues a copy of `words`. Without `reply` it returns 1 once queued. With
  // `reply` it returns 1 once the receiver has answered into `*reply`.
  // `timeoutMs` (0: one try, INFINITE: no limit) bounds getting a record and a
  // ring slot, and the wait for the reply too unless `replyForever` is set.
  // 0 on a closed queue, a full queue after the timeout, no reply event, or a
  // reply not in time (then `*reply` is undefined).
  int32_t SendMsg(const MsgWord* words, uint32_t* reply, uint32_t timeoutMs, int32_t replyForever);
  // Waits up to `timeoutMs` for a message, copies its words out and answers
  // its sender with `replyValue`. 0 if none came or the queue is closed.
  int32_t ReceiveMsg(MsgWord* words, uint32_t replyValue, uint32_t timeoutMs);
  // The same with the words and the reply value in `take`. With
  // `alreadyCounted` set the caller's own wait on FilledSlots() has taken the
  // count, and a message is taken at once.
  int32_t TakeMsg(const MsgTake& take, uint32_t timeoutMs, int32_t alreadyCounted);

  // The two halves of TakeMsg, for a receiver that acts on a message before it
  // answers: PopRecord takes the oldest record off the ring (null as TakeMsg
  // gives 0); Answer writes the reply and wakes the sender, or frees a record
  // nobody waits for. Every popped record is answered exactly once.
  MsgRecord* PopRecord(uint32_t timeoutMs, int32_t alreadyCounted);
  void Answer(MsgRecord* record, uint32_t replyValue);

  // A record from the pool, waiting for one up to `timeoutMs` (polled every
  // 1 ms); `elapsedMs`, when given and the timeout finite, gets the time
  // spent. Null on failure.
  MsgRecord* DoAllocMsg(uint32_t timeoutMs, uint32_t* elapsedMs);
  // Puts a finished record on the ring, waiting up to `timeoutMs` for a slot.
  // On failure the record is freed and 0 returned.
  int32_t PutRecord(MsgRecord* record, uint32_t timeoutMs);
  // Gives a record back to the pool.
  void FreeRecord(MsgRecord* record);

  HANDLE FilledSlots() const { return filledSlots_; }
  int32_t IsOpen() const { return open_.load(); }
  int32_t Count() const;

 private:
  CRecursiveLock lock_;
  int32_t eventPoolBuilt_;
  std::optional<ReplyEventPool> eventPool_;
  volatile int32_t ringLock_;
  HANDLE filledSlots_;
  HANDLE freeSlots_;
  MsgRecord** ring_;
  int32_t readIndex_;
  int32_t count_;
  int32_t capacity_;
  std::atomic<int32_t> open_;
  std::optional<SameSizeMemPool<MsgRecord>> msgPool_;
  std::atomic<int32_t> recordsOut_;  // records taken from the pool and not yet back
};
