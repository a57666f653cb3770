// VBufferQueueImpl: lifecycle, notifications, the index ring, and writing and
// removal at both ends. Reading, readers and limits are in VBufferQueueRead.cpp.
#include "VBufferQueueImpl.h"

#include <cstdlib>
#include <cstring>

#include "OSTime.h"
#include "PerformanceSite.h"

// ---------------------------------------------------------------------------
// Index ring

bool VBufIndexRing::Resize(int32_t newCapacity) {
  if (newCapacity < count) return false;
  VBufIndexEntry* fresh = nullptr;
  if (newCapacity > 0) {
    fresh = static_cast<VBufIndexEntry*>(
        std::malloc(sizeof(VBufIndexEntry) * static_cast<size_t>(newCapacity)));
    if (fresh == nullptr) return false;
    for (int32_t i = 0; i < count; ++i) fresh[i] = At(i);
  }
  std::free(storage);
  storage = fresh;
  capacity = newCapacity;
  start = 0;
  return true;
}

int32_t VBufIndexRing::GrowthAfter(int32_t cap) {
  if (static_cast<int64_t>(cap) * 8 >= 0x8000000) return cap + 0x1000000;
  int32_t c = 1;
  while (c < cap + 1) c <<= 1;
  return c;
}

bool VBufIndexRing::PushBack(const VBufIndexEntry& entry) {
  if (count == capacity && !Resize(GrowthAfter(capacity))) return false;
  Publish(count, count + 1);
  At(count - 1) = entry;
  return true;
}

bool VBufIndexRing::PushFront(const VBufIndexEntry& entry) {
  if (count == capacity && !Resize(GrowthAfter(capacity))) return false;
  start = start == 0 ? capacity - 1 : start - 1;
  Publish(count, count + 1);
  --firstNumber;
  storage[start] = entry;
  return true;
}

void VBufIndexRing::PopFront() {
  if (count == 0) return;
  Publish(count, count - 1);
  ++firstNumber;
  if (++start == capacity) start = 0;
}

void VBufIndexRing::PopBack() {
  if (count > 0) Publish(count, count - 1);
}

void VBufIndexRing::Reset() {
  Publish(count, 0);
  start = 0;
  Resize(0);
}

// ---------------------------------------------------------------------------
// Lifecycle

VBufferQueueImpl::VBufferQueueImpl(VBufferQueue* owner, int32_t useLock, int32_t trackReaders)
    : m_owner(owner),
      m_lockEnabled(useLock != 0),
      m_lock(useLock != 0 ? new CRecursiveLock : nullptr),
      m_align(0),
      m_name(nullptr),
      m_externalBuffer(nullptr),
      m_rawBuffer(nullptr),
      m_base(nullptr),
      m_capacity(0),
      m_headPreparing(0),
      m_tailPreparing(0),
      m_head(nullptr),
      m_tail(nullptr),
      m_dataSize(0),
      m_trackReaders(trackReaders != 0),
      m_readers{},
      m_userWord(0),
      m_generation(0) {}

VBufferQueueImpl::~VBufferQueueImpl() {
  Clear();
  if (m_base != nullptr) CloseSteps();
  delete m_lock;
}

int32_t VBufferQueueImpl::Open(int32_t size, const char* name, uint8_t* buffer, int32_t align) {
  VBufLockScope lock(this);
  if (m_base != nullptr || align <= 0 || align % 4 != 0 || VBUF_HEADER_SIZE % align != 0 ||
      size <= 0) {
    return 0;
  }
  m_align = align;
  if (buffer == nullptr) {
    const int64_t capacity = Round(size);
    if (capacity + align > INT32_MAX) return 0;
    m_capacity = static_cast<int32_t>(capacity);
    m_rawBuffer = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(m_capacity + align)));
    if (m_rawBuffer == nullptr) {
      CloseSteps();
      return 0;
    }
    const uintptr_t raw = reinterpret_cast<uintptr_t>(m_rawBuffer);
    m_base = m_rawBuffer + (align - raw % static_cast<uintptr_t>(align)) % static_cast<uintptr_t>(align);
  } else {
    m_capacity = size;
    m_externalBuffer = m_rawBuffer = m_base = buffer;
  }
  if (name != nullptr) m_name = strdup(name);
  Notify(VBUF_EVT_OPEN, nullptr, 0, 0);
  return 1;
}

int32_t VBufferQueueImpl::IsBusyLocked() {
  if (m_headPreparing || m_tailPreparing) return 1;
  for (VBufHeader* h = m_head; h != nullptr; h = Next(h)) {
    if (h->readCount > 0 || h->writeHeld) return 1;
  }
  return 0;
}

void VBufferQueueImpl::Close() {
  VBufLockScope lock(this);
  while (m_base != nullptr && IsBusyLocked()) {
    // One level only: a caller that already held the lock keeps it.
    Unlock();
    Sleep(1);
    Lock();
  }
  if (m_base != nullptr) CloseSteps();
}

// VBUF_EVT_FREE for each committed block, the last first.
void VBufferQueueImpl::FreeCommitted(int32_t event) {
  Notify(event, nullptr, 0, 0);
  for (int32_t i = m_index.count - 1; i >= 0; --i) NotifyBlock(VBUF_EVT_FREE, m_index.At(i).block);
}

void VBufferQueueImpl::CloseSteps() {
  FreeCommitted(VBUF_EVT_CLOSE);
  if (m_externalBuffer == nullptr) std::free(m_rawBuffer);
  std::free(m_name);
  m_name = nullptr;
  m_externalBuffer = m_rawBuffer = m_base = nullptr;
  m_capacity = 0;
  m_headPreparing = m_tailPreparing = 0;
  m_head = m_tail = nullptr;
  Publish(m_dataSize, 0);
  Publish(m_firstIndex, VBufSeq(0));
  Publish(m_firstOffset, VBufSeq(0));
  std::memset(m_readers, 0, sizeof m_readers);
  m_index.Reset();
  ++m_generation;
}

void VBufferQueueImpl::Clear() {
  VBufLockScope lock(this);
  if (m_base == nullptr) return;
  FreeCommitted(VBUF_EVT_CLEAR);
  m_headPreparing = m_tailPreparing = 0;
  Publish(m_firstIndex, m_firstIndex + m_index.count);
  m_index.Reset();
  m_head = m_tail = nullptr;
  Publish(m_firstOffset, m_firstOffset + m_dataSize);
  Publish(m_dataSize, 0);
  ++m_generation;
}

// ---------------------------------------------------------------------------
// Notifications

int32_t VBufferQueueImpl::AddNotify(VBufNotifyKey key, VBufNotifyFn fn) {
  VBufLockScope lock(this);
  int32_t pos = 0;
  while (pos < m_notifies.Size() && m_notifies[pos].key < key) ++pos;
  if (pos < m_notifies.Size() && m_notifies[pos].key == key) return 0;
  return m_notifies.Insert(pos, VBufNotifyEntry{key, fn}) ? 1 : 0;
}

int32_t VBufferQueueImpl::RemoveNotify(VBufNotifyKey key) {
  VBufLockScope lock(this);
  int32_t lo = 0;
  int32_t hi = m_notifies.Size() - 1;
  while (lo <= hi) {
    const int32_t mid = lo + (hi - lo) / 2;
    if (m_notifies[mid].key == key) {
      m_notifies.Erase(mid);
      return 1;
    }
    if (m_notifies[mid].key < key) {
      lo = mid + 1;
    } else {
      hi = mid - 1;
    }
  }
  return 0;
}

void VBufferQueueImpl::Notify(int32_t event, uint8_t* data, int32_t size, uint32_t user) {
  // The size is read afresh after each call: a function may add or remove.
  for (int32_t i = 0; i < m_notifies.Size(); ++i) {
    const VBufNotifyEntry entry = m_notifies[i];
    if (entry.fn != nullptr) entry.fn(m_owner, entry.key, event, data, size, user);
  }
}

// ---------------------------------------------------------------------------
// Headers

bool VBufferQueueImpl::IsInRange(const void* p, int64_t length) const {
  if (m_base == nullptr || length < 0) return false;
  const uintptr_t a = reinterpret_cast<uintptr_t>(p);
  const uintptr_t base = reinterpret_cast<uintptr_t>(m_base);
  return a >= base && a - base <= static_cast<uintptr_t>(m_capacity) &&
         static_cast<uint64_t>(length) <= static_cast<uint64_t>(m_capacity) - (a - base);
}

bool VBufferQueueImpl::IsValidHeader(const VBufHeader* h) const {
  if (!IsInRange(h, VBUF_HEADER_SIZE)) return false;
  return h->size >= 0 && IsInRange(h, int64_t{VBUF_HEADER_SIZE} + h->size) &&
         h->magic == VBUF_MAGIC && h->magicEnd == VBUF_MAGIC && h->readCount >= 0 &&
         !(h->readCount > 0 && h->writeHeld);
}

VBufHeader* VBufferQueueImpl::SetUpHeader(int64_t offset) {
  VBufHeader* h = reinterpret_cast<VBufHeader*>(m_base + offset);
  const uint32_t serial = h->serial;  // whatever lay there stays
  std::memset(static_cast<void*>(h), 0, sizeof *h);
  h->serial = serial;
  h->magic = h->magicEnd = VBUF_MAGIC;
  h->prev = h->next = VBUF_NULL_LINK;
  return h;
}

// ---------------------------------------------------------------------------
// Writing

bool VBufferQueueImpl::LimitAllows(int32_t size) const {
  if (m_limits.Size() == 0) return true;
  const VBufLimit& limit = m_limits[m_limits.Size() - 1];
  const int64_t count = m_index.count;
  switch (limit.type) {
    case VBUF_LIMIT_BYTES:
      return int64_t{m_dataSize} + size <= limit.value;
    case VBUF_LIMIT_COUNT:
      return count < limit.value;
    case VBUF_LIMIT_PERCENT:
      return (count + 1) * VBUF_HEADER_SIZE + m_dataSize + size <=
             int64_t{m_capacity} * limit.value / 100;
    default:
      return true;
  }
}

// The offset from m_base where a tail block of `size` goes, or -1. Only the
// one candidate after the tail and its wrap to the base are looked at.
int64_t VBufferQueueImpl::FindTailSpace(int32_t size) const {
  if (!LimitAllows(size)) return -1;
  const int64_t need = Round(size) + VBUF_HEADER_SIZE;
  if (m_head == nullptr) return need <= m_capacity ? 0 : -1;
  const int64_t head = OffsetOf(m_head);
  const int64_t tailEnd = EndOf(m_tail);
  if (OffsetOf(m_tail) < head) return tailEnd + need <= head ? tailEnd : -1;
  if (tailEnd + need <= m_capacity) return tailEnd;
  return need <= head ? 0 : -1;
}

// The mirror of FindTailSpace, downward from the head.
int64_t VBufferQueueImpl::FindHeadSpace(int32_t size) const {
  if (!LimitAllows(size)) return -1;
  const int64_t need = Round(size) + VBUF_HEADER_SIZE;
  if (m_tail == nullptr) return need <= m_capacity ? 0 : -1;
  const int64_t head = OffsetOf(m_head);
  const int64_t tailEnd = EndOf(m_tail);
  const int64_t candidate = head - need;
  if (head > OffsetOf(m_tail)) return candidate >= tailEnd ? candidate : -1;
  if (candidate >= 0) return candidate;
  return m_capacity - need >= tailEnd ? m_capacity - need : -1;
}

uint8_t* VBufferQueueImpl::Prepare(bool atTail, int32_t size, int32_t evict,
                                   int32_t* evictedBytes) {
  VBufLockScope lock(this);
  if (evictedBytes != nullptr) *evictedBytes = 0;
  int32_t& preparing = atTail ? m_tailPreparing : m_headPreparing;
  if (m_base == nullptr || size < 0 || preparing) return nullptr;
  int64_t at = atTail ? FindTailSpace(size) : FindHeadSpace(size);
  while (at < 0 && evict) {
    int32_t removed = 0;
    if (!Remove(atTail, &removed)) break;  // evict from the far end
    if (evictedBytes != nullptr) *evictedBytes += removed;
    at = atTail ? FindTailSpace(size) : FindHeadSpace(size);
  }
  if (at < 0) return nullptr;
  VBufHeader* h = SetUpHeader(at);
  if (m_head == nullptr) {
    m_head = m_tail = h;
  } else if (atTail) {
    h->prev = LinkOf(m_tail);
    m_tail->next = LinkOf(h);
    m_tail = h;
  } else {
    h->next = LinkOf(m_head);
    m_head->prev = LinkOf(h);
    m_head = h;
  }
  h->size = size;
  preparing = 1;
  return Data(h);
}

// Takes the block at one end out of the list (for a reservation, its flag is
// the caller's to clear).
void VBufferQueueImpl::Unlink(bool atTail) {
  if (m_head == m_tail) {
    m_head = m_tail = nullptr;
  } else if (atTail) {
    m_tail = Prev(m_tail);
    m_tail->next = VBUF_NULL_LINK;
  } else {
    m_head = Next(m_head);
    m_head->prev = VBUF_NULL_LINK;
  }
}

int32_t VBufferQueueImpl::Commit(bool atTail, uint8_t* data, int32_t size, uint32_t user,
                                 int32_t allowEmpty, int32_t skip) {
  VBufLockScope lock(this);
  int32_t& preparing = atTail ? m_tailPreparing : m_headPreparing;
  VBufHeader*& end = atTail ? m_tail : m_head;
  if (data == nullptr || !preparing || HeaderOf(data) != end) return 0;
  VBufHeader* h = end;
  if (size < -1) size = 0;
  if (size == -1) size = h->size;
  if (size > h->size || (size == 0 && !allowEmpty)) {
    Unlink(atTail);
    preparing = 0;
    return size == 0 ? 1 : 0;  // size 0: a cancellation; too large: given up
  }
  if (!((skip >= 0 && skip < size) || (allowEmpty && skip == size))) return 0;
  if (skip != 0) {
    VBufHeader* moved = reinterpret_cast<VBufHeader*>(reinterpret_cast<uint8_t*>(h) + skip);
    std::memmove(static_cast<void*>(moved), h, VBUF_HEADER_SIZE);
    if (m_head == h) m_head = moved;
    if (m_tail == h) m_tail = moved;
    if (atTail && moved->prev != VBUF_NULL_LINK) Prev(moved)->next = LinkOf(moved);
    if (!atTail && moved->next != VBUF_NULL_LINK) Next(moved)->prev = LinkOf(moved);
    h = moved;
    size -= skip;
  }
  if (atTail) h->serial = g_nextSerial.fetch_add(1, std::memory_order_relaxed) + 1;
  h->size = size;
  if (m_trackReaders) SetPendingBits(h);
  h->user = user;
  if (atTail) {
    m_index.PushBack(VBufIndexEntry{h, m_firstOffset + m_dataSize});
  } else if (m_index.PushFront(VBufIndexEntry{h, m_firstOffset - size})) {
    Publish(m_firstIndex, m_firstIndex - 1);
    Publish(m_firstOffset, m_firstOffset - size);
  }
  // A ring that could not grow leaves the block out of the index; the block
  // is still committed and its bytes still counted.
  Publish(m_dataSize, m_dataSize + size);
  preparing = 0;
  Notify(atTail ? VBUF_EVT_NEW_AT_TAIL : VBUF_EVT_NEW_AT_HEAD, data, size, user);
  return 1;
}

int32_t VBufferQueueImpl::Remove(bool atHead, int32_t* removedSize) {
  VBufLockScope lock(this);
  if (removedSize != nullptr) *removedSize = 0;
  VBufHeader* h = atHead ? m_head : m_tail;
  // The flag of the other end is not looked at: a lone reservation there is
  // removed as if it were committed.
  if (h == nullptr || (atHead ? m_headPreparing : m_tailPreparing) || h->readCount > 0 ||
      h->writeHeld) {
    return 0;
  }
  if (m_trackReaders && IsPending(h)) return 0;
  NotifyBlock(atHead ? VBUF_EVT_REMOVE_AT_HEAD : VBUF_EVT_REMOVE_AT_TAIL, h);
  NotifyBlock(VBUF_EVT_FREE, h);
  if (removedSize != nullptr) *removedSize = h->size;
  if (atHead) {
    m_index.PopFront();
    Publish(m_firstIndex, m_firstIndex + 1);
    Publish(m_firstOffset, m_firstOffset + h->size);
  } else {
    m_index.PopBack();
  }
  Publish(m_dataSize, m_dataSize - h->size);
  h->magic = h->magicEnd = 0;
  Unlink(!atHead);
  return 1;
}

int32_t VBufferQueueImpl::ReleaseAndRemoveAtHead(uint8_t* data, uint32_t reader,
                                                 int32_t* removedSize) {
  VBufLockScope lock(this);
  if (removedSize != nullptr) *removedSize = 0;
  if (!ReleaseLocked(data, VBUF_HOLD_READ, reader)) return 0;
  if (HeaderOf(data) != m_head || m_headPreparing) return 0;
  return Remove(true, removedSize);
}
