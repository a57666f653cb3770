#include "OSMsgQ.h"

#include <cstdlib>
#include <cstring>

#include "OSTime.h"
#include "PerformanceSite.h"
#include "SpinLock.h"

const MsgWord MSG_DEFAULT_PAYLOAD[MSG_WORDS] = {static_cast<MsgWord>(-100), 0, 0,
                                                static_cast<MsgWord>(-1), 3};

namespace {

// How long Close waits for senders it has let go to give their records back.
constexpr uint32_t kCloseGraceMs = 1000;

// Time left of `timeoutMs` after `spent`, never below 0; INFINITE stays.
uint32_t TimeLeft(uint32_t timeoutMs, uint32_t spent) {
  if (timeoutMs == INFINITE) return INFINITE;
  return spent >= timeoutMs ? 0 : timeoutMs - spent;
}

}  // namespace

ReplyEvent::ReplyEvent() : handle(CreateEventA(nullptr, 0, 0, nullptr)), valid(handle != nullptr) {}

ReplyEvent::~ReplyEvent() {
  if (valid) CloseHandle(handle);
}

MsgRecord::MsgRecord() : reply(nullptr), abandoned(0), eventPool(nullptr), event(nullptr) {
  memcpy(words, MSG_DEFAULT_PAYLOAD, sizeof words);
}

MsgRecord::~MsgRecord() {
  if (event != nullptr && eventPool != nullptr) eventPool->Free(event);
}

int32_t MsgRecord::AttachReplyEvent() {
  if (reply == nullptr || event != nullptr) return 1;
  event = eventPool->Alloc();
  if (event == nullptr) return 0;
  if (!event->valid) {
    eventPool->Free(event);
    event = nullptr;
    return 0;
  }
  return 1;
}

int32_t MsgRecord::WaitReply(uint32_t timeoutMs) {
  if (reply == nullptr || event == nullptr) return 0;
  return WaitForSingleObject(event->handle, timeoutMs) == WAIT_OBJECT_0;
}

int32_t CreateCountSemaphore(HANDLE* out, int32_t initial, int32_t maximum) {
  if (out == nullptr || initial < 0 || maximum <= 0 || initial > maximum) return 0;
  *out = CreateSemaphoreA(nullptr, initial, maximum, nullptr);
  return *out != nullptr;
}

int32_t ReleaseCount(HANDLE* semaphore, int32_t n) { return ReleaseSemaphoreRetry(semaphore, n); }

COSMsgQ::COSMsgQ()
    : eventPoolBuilt_(0),
      ringLock_(0),
      filledSlots_(nullptr),
      freeSlots_(nullptr),
      ring_(nullptr),
      readIndex_(0),
      count_(0),
      capacity_(0),
      open_(0),
      recordsOut_(0) {}

COSMsgQ::~COSMsgQ() { Close(); }

int32_t COSMsgQ::Count() const {
  SpinLockAcquire(const_cast<volatile int32_t*>(&ringLock_), 0);
  const int32_t count = count_;
  SpinLockRelease(const_cast<volatile int32_t*>(&ringLock_));
  return count;
}

int32_t COSMsgQ::Create(int32_t capacity, int32_t chunks, int32_t destructOnFree) {
  CLockGuard guard(&lock_);
  if (open_.load() || capacity <= 0 || chunks <= 0 || capacity % chunks != 0) return 0;
  const int32_t perChunk = capacity / chunks;
  if (!eventPoolBuilt_) {
    eventPool_.emplace(perChunk, chunks, 0);
    eventPoolBuilt_ = 1;
  }
  if (ring_ != nullptr) return 0;
  ring_ = static_cast<MsgRecord**>(calloc(static_cast<size_t>(capacity), sizeof(MsgRecord*)));
  if (ring_ == nullptr) return 0;
  readIndex_ = 0;
  count_ = 0;
  ringLock_ = 0;
  capacity_ = capacity;
  if (!CreateCountSemaphore(&filledSlots_, 0, capacity) ||
      !CreateCountSemaphore(&freeSlots_, capacity, capacity)) {
    if (filledSlots_) CloseHandle(filledSlots_);
    filledSlots_ = nullptr;
    free(ring_);
    ring_ = nullptr;
    capacity_ = 0;
    return 0;
  }
  msgPool_.emplace(perChunk, chunks, destructOnFree);
  open_.store(1);
  return 1;
}

void COSMsgQ::Close() {
  CLockGuard guard(&lock_);
  if (open_.load()) {
    MsgWord scratch[MSG_WORDS];
    memcpy(scratch, MSG_DEFAULT_PAYLOAD, sizeof scratch);
    while (TakeMsg(MsgTake{scratch, 0}, 0, 0)) {
    }
    // Senders just answered free their records; the pool must outlive that.
    const uint32_t start = GetTickCount();
    while (recordsOut_.load() > 0 && GetTickCount() - start < kCloseGraceMs) Sleep(1);
    if (ring_ != nullptr) {
      CloseHandle(freeSlots_);
      CloseHandle(filledSlots_);
      freeSlots_ = filledSlots_ = nullptr;
      free(ring_);
      ring_ = nullptr;
      capacity_ = count_ = readIndex_ = 0;
    }
    open_.store(0);
    msgPool_.reset();
    recordsOut_.store(0);
  }
  // After the records: a record gives its event back when it is destroyed.
  if (eventPoolBuilt_) {
    eventPool_.reset();
    eventPoolBuilt_ = 0;
  }
}

MsgRecord* COSMsgQ::DoAllocMsg(uint32_t timeoutMs, uint32_t* elapsedMs) {
  PERFORMANCE_SITE("COSMsgQ::DoAllocMsg()");
  if (!open_.load()) return nullptr;
  const uint32_t start = GetTickCount();
  MsgRecord* record = msgPool_->Alloc();
  while (record == nullptr && timeoutMs != 0) {
    if (timeoutMs != INFINITE && GetTickCount() - start > timeoutMs) return nullptr;
    Sleep(1);  // no event tells of a freed record: poll
    record = msgPool_->Alloc();
  }
  if (record == nullptr) return nullptr;
  if (elapsedMs != nullptr && timeoutMs != 0 && timeoutMs != INFINITE)
    *elapsedMs = GetTickCount() - start;
  record->abandoned.store(0);
  record->eventPool = &*eventPool_;
  recordsOut_.fetch_add(1);
  return record;
}

void COSMsgQ::FreeRecord(MsgRecord* record) {
  msgPool_->Free(record);
  recordsOut_.fetch_sub(1);
}

int32_t COSMsgQ::PutRecord(MsgRecord* record, uint32_t timeoutMs) {
  if (WaitForSingleObject(freeSlots_, timeoutMs) != WAIT_OBJECT_0) {
    FreeRecord(record);
    return 0;
  }
  SpinLockAcquire(&ringLock_, 0);
  int32_t at = readIndex_ + count_;
  if (at >= capacity_) at -= capacity_;
  ring_[at] = record;
  ++count_;
  SpinLockRelease(&ringLock_);
  ReleaseCount(&filledSlots_, 1);
  return 1;
}

int32_t COSMsgQ::SendMsg(const MsgWord* words, uint32_t* reply, uint32_t timeoutMs,
                         int32_t replyForever) {
  if (!open_.load() || words == nullptr) return 0;
  uint32_t elapsed = 0;
  MsgRecord* record = DoAllocMsg(timeoutMs, &elapsed);
  if (record == nullptr) return 0;
  uint32_t left = TimeLeft(timeoutMs, elapsed);
  memcpy(record->words, words, sizeof record->words);
  record->reply = reply;
  if (reply != nullptr && !record->AttachReplyEvent()) {
    FreeRecord(record);
    return 0;
  }
  const bool timed = reply != nullptr && !replyForever && left != 0 && left != INFINITE;
  const uint32_t putStart = timed ? GetTickCount() : 0;
  if (!PutRecord(record, left)) return 0;
  if (reply == nullptr) return 1;  // the record is the receiver's now
  if (timed) left = TimeLeft(left, GetTickCount() - putStart);
  if (replyForever) left = INFINITE;
  if (record->WaitReply(left)) {
    FreeRecord(record);
    return 1;
  }
  if (record->abandoned.exchange(1) == 2) {
    // The receiver is answering right now: take the answer, keep the record.
    record->WaitReply(INFINITE);
    FreeRecord(record);
    return 1;
  }
  return 0;  // the receiver frees the record
}

MsgRecord* COSMsgQ::PopRecord(uint32_t timeoutMs, int32_t alreadyCounted) {
  if (!open_.load()) return nullptr;
  if (!alreadyCounted && WaitForSingleObject(filledSlots_, timeoutMs) != WAIT_OBJECT_0)
    return nullptr;
  SpinLockAcquire(&ringLock_, 0);
  if (count_ == 0) {  // a caller's count that the ring does not back
    SpinLockRelease(&ringLock_);
    return nullptr;
  }
  MsgRecord* record = ring_[readIndex_];
  if (++readIndex_ == capacity_) readIndex_ = 0;
  --count_;
  SpinLockRelease(&ringLock_);
  ReleaseCount(&freeSlots_, 1);
  return record;
}

void COSMsgQ::Answer(MsgRecord* record, uint32_t replyValue) {
  int32_t waiting = 0;
  if (record->reply == nullptr || !record->abandoned.compare_exchange_strong(waiting, 2)) {
    FreeRecord(record);
    return;
  }
  *record->reply = replyValue;
  if (record->event != nullptr) SetEvent(record->event->handle);
  // The record stays with its sender, which frees it.
}

int32_t COSMsgQ::TakeMsg(const MsgTake& take, uint32_t timeoutMs, int32_t alreadyCounted) {
  MsgRecord* record = PopRecord(timeoutMs, alreadyCounted);
  if (record == nullptr) return 0;
  if (take.words != nullptr) memcpy(take.words, record->words, sizeof record->words);
  Answer(record, take.replyValue);
  return 1;
}

int32_t COSMsgQ::ReceiveMsg(MsgWord* words, uint32_t replyValue, uint32_t timeoutMs) {
  return TakeMsg(MsgTake{words, replyValue}, timeoutMs, 0);
}
