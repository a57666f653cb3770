// VBufferQueueRef and VBufferQueueSet: several queues read as one stream in
// commit order.
#include "VBufferQueueSet.h"

#include "Diagnostics.h"
#include "VBufferQueueImpl.h"

namespace {

// The null argument of the set's reports, passed to "%s" as it is.
const char* const kNoText = nullptr;

}  // namespace

// ---------------------------------------------------------------------------
// VBufferQueueRef

void VBufferQueueRef::Lock() const {
  if (queue != nullptr) queue->m_impl->Lock();
}

void VBufferQueueRef::Unlock() const {
  if (queue != nullptr) queue->m_impl->Unlock();
}

VBufSeq VBufferQueueRef::GetFirstIndex() const {
  if (queue == nullptr) return 0;
  VBufLockScope lock(queue->m_impl);
  return queue->m_impl->m_firstIndex;
}

VBufSeq VBufferQueueRef::GetLastIndex() const {
  return queue == nullptr ? VBufSeq(0) : queue->GetLastIndex();
}

VBufReadResult VBufferQueueRef::ReadAt(int32_t mode, VBufSeq* position, int32_t* size,
                                       uint32_t* user, int32_t peekOnly) const {
  if (size != nullptr) *size = 0;
  if (user != nullptr) *user = 0;
  if (queue == nullptr || position == nullptr) return {nullptr, 0};
  VBufferQueueImpl* q = queue->m_impl;
  VBufLockScope lock(q);
  if (q->m_base == nullptr || q->m_index.count == 0) return {nullptr, 0};
  const VBufSeq last = q->m_firstIndex + (q->m_index.count - 1);
  if (*position > last) return {nullptr, 0};
  if (*position < q->m_firstIndex) *position = q->m_firstIndex;  // the blocks skipped are lost
  if (peekOnly) return {nullptr, *position};
  const VBufSeq at = *position;
  uint8_t* data = q->HoldByIndexLocked(at, mode, size, user);
  ++*position;
  return {data, at};
}

uint8_t* VBufferQueueRef::GetByIndex(VBufSeq index, int32_t* size, uint32_t* user) const {
  return queue == nullptr ? nullptr : queue->GetBufferByIndex(index, size, user);
}

int32_t VBufferQueueRef::Release(int32_t mode, uint8_t* data, uint32_t reader) const {
  return queue == nullptr ? 0 : queue->m_impl->Release(data, mode, reader);
}

int32_t VBufferQueueRef::CountFrom(VBufSeq* position) const {
  if (queue == nullptr || position == nullptr) return 0;
  VBufferQueueImpl* q = queue->m_impl;
  VBufLockScope lock(q);
  if (*position < q->m_firstIndex) *position = q->m_firstIndex;
  const int32_t n = (q->m_firstIndex + q->m_index.count) - *position;
  return n > 0 ? n : 0;
}

bool VBufferQueueRef::SerialAt(VBufSeq index, uint32_t* serial) const {
  if (queue == nullptr) return false;
  VBufferQueueImpl* q = queue->m_impl;
  VBufLockScope lock(q);
  const VBufHeader* h = q->BlockAt(index);
  if (h == nullptr) return false;
  *serial = h->serial;
  return true;
}

int32_t VBufferQueueRef::IsInBuffer(const uint8_t* p, int32_t length) const {
  return queue == nullptr ? 0 : queue->IsInBuffer(p, length);
}

// ---------------------------------------------------------------------------
// Cursors

namespace {

int32_t EntryCount(const VBufferQueueSetCursor& c) {
  return c.entryCount < 0 ? 0 : (c.entryCount > VBUF_SET_MAX_QUEUES ? VBUF_SET_MAX_QUEUES : c.entryCount);
}

void LockEntries(const VBufferQueueSetCursor& c) {
  for (int32_t i = 0; i < EntryCount(c); ++i) {
    if (c.entries[i].queue != nullptr) c.entries[i].queue->Lock();
  }
}

void UnlockEntries(const VBufferQueueSetCursor& c) {
  for (int32_t i = EntryCount(c) - 1; i >= 0; --i) {
    if (c.entries[i].queue != nullptr) c.entries[i].queue->Unlock();
  }
}

// Moves every position that has fallen behind up to its queue's first block.
void BringUpToDate(VBufferQueueSetCursor* c) {
  for (int32_t i = 0; i < EntryCount(*c); ++i) {
    VBufferQueueSetCursor::Entry& e = c->entries[i];
    if (e.queue != nullptr) e.queue->ReadAt(VBUF_HOLD_READ, &e.position, nullptr, nullptr, 1);
  }
}

// The entry whose block at its position is the oldest by serial (ties keep
// the earlier entry), or -1 when no position lies within its queue's blocks.
int32_t ChooseEntry(const VBufferQueueSetCursor& c) {
  int32_t best = -1;
  uint32_t bestSerial = 0;
  for (int32_t i = 0; i < EntryCount(c); ++i) {
    uint32_t serial;
    if (c.entries[i].queue == nullptr || !c.entries[i].queue->SerialAt(c.entries[i].position, &serial)) {
      continue;
    }
    if (best < 0 || static_cast<int32_t>(serial - bestSerial) < 0) {
      best = i;
      bestSerial = serial;
    }
  }
  return best;
}

}  // namespace

VBufferQueueSetCursor& VBufferQueueSetCursor::operator++() {
  LockEntries(*this);
  BringUpToDate(this);
  const int32_t chosen = ChooseEntry(*this);
  if (chosen >= 0) ++entries[chosen].position;
  UnlockEntries(*this);
  return *this;
}

VBufferQueueSetCursor VBufferQueueSetCursor::operator++(int) {
  VBufferQueueSetCursor before = *this;
  ++*this;
  return before;
}

bool VBufferQueueSetCursor::operator==(const VBufferQueueSetCursor& other) const {
  if (entryCount != other.entryCount) return false;
  for (int32_t i = 0; i < EntryCount(*this); ++i) {
    if (entries[i].position != other.entries[i].position || entries[i].queue != other.entries[i].queue) {
      return false;
    }
  }
  return true;
}

// ---------------------------------------------------------------------------
// VBufferQueueSet

VBufferQueueSet::VBufferQueueSet(VBufferQueueRef* const source[VBUF_SET_MAX_QUEUES], uint32_t mask)
    : queues{}, m_validCount(0) {
  for (int32_t i = 0; i < VBUF_SET_MAX_QUEUES && source != nullptr; ++i) {
    if ((mask >> i) & 1u) queues[m_validCount++] = source[i];
  }
  if (mask == 0) BRISK_REPORT_AT(VBUF_SOURCE_FILE, 2529, "%s", kNoText);
}

void VBufferQueueSet::LockAll() {
  for (int32_t i = 0; i < m_validCount; ++i) {
    if (queues[i] != nullptr) queues[i]->Lock();
  }
}

void VBufferQueueSet::UnlockAll() {
  for (int32_t i = m_validCount - 1; i >= 0; --i) {
    if (queues[i] != nullptr) queues[i]->Unlock();
  }
}

VBufferQueueSetCursor VBufferQueueSet::MakeCursor(bool first) {
  VBufferQueueSetCursor c{};
  c.set = this;
  c.entryCount = m_validCount;
  for (int32_t i = 0; i < m_validCount; ++i) {
    c.entries[i].queue = queues[i];
    if (queues[i] != nullptr) {
      c.entries[i].position = first ? queues[i]->GetFirstIndex() : queues[i]->GetLastIndex();
    }
  }
  return c;
}

VBufferQueueSetCursor VBufferQueueSet::Begin() {
  BRISK_ASSERT_AT(VBUF_SOURCE_FILE, 2560, m_validCount > 0, "%s", kNoText);
  return MakeCursor(true);
}

VBufferQueueSetCursor VBufferQueueSet::End() {
  BRISK_ASSERT_AT(VBUF_SOURCE_FILE, 2575, m_validCount > 0, "%s", kNoText);
  return MakeCursor(false);
}

int32_t VBufferQueueSet::AddReader(uint32_t reader, int32_t markExisting) {
  for (int32_t i = 0; i < m_validCount; ++i) {
    if (queues[i] == nullptr || queues[i]->queue == nullptr ||
        !queues[i]->queue->AddReader(reader, markExisting)) {
      return 0;
    }
  }
  return 1;
}

int32_t VBufferQueueSet::SetReaderSizeLimited(uint32_t reader, int32_t type, int32_t value) {
  for (int32_t i = 0; i < m_validCount; ++i) {
    if (queues[i] == nullptr || queues[i]->queue == nullptr ||
        !queues[i]->queue->SetReaderSizeLimited(reader, type, value)) {
      return 0;
    }
  }
  return 1;
}

int32_t VBufferQueueSet::RemoveReader(uint32_t reader) {
  int32_t all = 1;
  for (int32_t i = 0; i < m_validCount; ++i) {
    if (queues[i] == nullptr || queues[i]->queue == nullptr || !queues[i]->queue->RemoveReader(reader)) {
      all = 0;
    }
  }
  return all;
}

int32_t VBufferQueueSet::CleanReaderSizeLimited(uint32_t reader) { return RemoveReader(reader); }

int32_t VBufferQueueSet::GetReaderSizeLimited(int32_t* type, int32_t* value) {
  if (m_validCount == 0 || queues[0] == nullptr || queues[0]->queue == nullptr) {
    if (type != nullptr) *type = 0;
    if (value != nullptr) *value = 0;
    return 0;
  }
  return queues[0]->queue->GetReaderSizeLimited(type, value);
}

VBufferQueueSetItem VBufferQueueSet::GetNext(VBufferQueueSetCursor* cursor, int32_t* size,
                                             uint32_t* user) {
  VBufferQueueSetItem item{};
  item.cursor.set = this;
  if (size != nullptr) *size = 0;
  if (user != nullptr) *user = 0;
  if (cursor == nullptr) return item;
  LockAll();
  BringUpToDate(cursor);
  const int32_t chosen = ChooseEntry(*cursor);
  if (chosen >= 0) {
    item.cursor = *cursor;
    VBufferQueueSetCursor::Entry& e = cursor->entries[chosen];
    item.data = e.queue->ReadAt(VBUF_HOLD_READ, &e.position, size, user, 0).data;
  }
  UnlockAll();
  return item;
}

uint8_t* VBufferQueueSet::GetAt(VBufferQueueSetCursor cursor, int32_t* size, uint32_t* user) {
  return GetNext(&cursor, size, user).data;
}

int32_t VBufferQueueSet::Release(uint8_t* data, uint32_t reader) {
  LockAll();
  int32_t found = 0;
  for (int32_t i = 0; i < m_validCount && !found; ++i) {
    if (queues[i] != nullptr && queues[i]->IsInBuffer(data, 1)) {
      queues[i]->Release(VBUF_HOLD_READ, data, reader);
      found = 1;
    }
  }
  UnlockAll();
  return found;
}

int32_t VBufferQueueSet::CountFrom(VBufferQueueSetCursor* cursor) {
  if (cursor == nullptr) return 0;
  LockAll();
  int32_t total = 0;
  const int32_t n = EntryCount(*cursor) < m_validCount ? EntryCount(*cursor) : m_validCount;
  for (int32_t i = 0; i < n; ++i) {
    VBufferQueueSetCursor::Entry& e = cursor->entries[i];
    if (e.queue != nullptr) total += e.queue->CountFrom(&e.position);
  }
  UnlockAll();
  return total;
}

uint32_t VBufferQueueSet::GetUserWord(int32_t i) {
  VBufferQueueRef* ref = GetQueue(i);
  return ref == nullptr || ref->queue == nullptr ? 0 : ref->queue->GetUserWord();
}

void VBufferQueueSet::SetUserWord(int32_t i, uint32_t value) {
  VBufferQueueRef* ref = GetQueue(i);
  if (ref != nullptr && ref->queue != nullptr) ref->queue->UserWord() = value;
}

VBufferQueueRef* VBufferQueueSet::GetQueue(int32_t i) {
  return i >= 0 && i < m_validCount ? queues[i] : nullptr;
}
