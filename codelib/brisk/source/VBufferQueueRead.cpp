// VBufferQueueImpl: holds, the byte stream, readers and limits.
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstring>

#include "Diagnostics.h"
#include "VBufferQueueImpl.h"

// ---------------------------------------------------------------------------
// Holds

uint8_t* VBufferQueueImpl::TakeHold(VBufHeader* h, int32_t mode, int32_t* size, uint32_t* user) {
  if (size != nullptr) *size = h->size;
  if (user != nullptr) *user = h->user;
  if (mode == VBUF_HOLD_READ) {
    ++h->readCount;
  } else {
    h->writeHeld = 1;
  }
  return Data(h);
}

uint8_t* VBufferQueueImpl::GetBuffer(uint8_t* prev, int32_t* size, uint32_t* user) {
  VBufLockScope lock(this);
  if (size == nullptr) return nullptr;
  *size = 0;
  if (user != nullptr) *user = 0;
  if (m_base == nullptr) return nullptr;
  if (prev == nullptr) {
    if (m_index.count == 0) return nullptr;
    VBufHeader* first = m_index.At(0).block;
    if (first->writeHeld) return nullptr;
    // The user word comes from the list's head, which is a head reservation's
    // (0) while one stands.
    const uint32_t headUser = m_head->user;
    uint8_t* data = TakeHold(first, VBUF_HOLD_READ, size, nullptr);
    if (user != nullptr) *user = headUser;
    return data;
  }
  if (!IsInRange(prev, 0)) return nullptr;
  const VBufHeader* before = HeaderOf(prev);
  if (!IsValidHeader(before)) return nullptr;
  VBufHeader* h = Next(before);
  if (h == nullptr || h->writeHeld || (h == m_tail && m_tailPreparing)) return nullptr;
  return TakeHold(h, VBUF_HOLD_READ, size, user);
}

int32_t VBufferQueueImpl::ReleaseLocked(uint8_t* data, int32_t mode, uint32_t reader) {
  if (m_base == nullptr || data == nullptr || !IsInRange(data, 0)) return 0;
  VBufHeader* h = HeaderOf(data);
  if (!IsValidHeader(h)) return 0;
  if (mode == VBUF_HOLD_WRITE) {
    if (!h->writeHeld) return 0;
    h->writeHeld = 0;
    return 1;
  }
  if (h->readCount == 0) return 0;
  --h->readCount;
  if (m_trackReaders && reader != 0) FinishForReader(h, reader);
  return 1;
}

int32_t VBufferQueueImpl::Release(uint8_t* data, int32_t mode, uint32_t reader) {
  VBufLockScope lock(this);
  return ReleaseLocked(data, mode, reader);
}

// The block of `index`, or null when it is not in the ring.
VBufHeader* VBufferQueueImpl::BlockAt(VBufSeq index) {
  const int32_t i = index - m_firstIndex;
  if (m_base == nullptr || i < 0 || i >= m_index.count) return nullptr;
  return m_index.At(i).block;
}

uint8_t* VBufferQueueImpl::HoldByIndexLocked(VBufSeq index, int32_t mode, int32_t* size,
                                             uint32_t* user) {
  if (size != nullptr) *size = 0;
  if (user != nullptr) *user = 0;
  VBufHeader* h = BlockAt(index);
  if (h == nullptr || h->writeHeld || (mode == VBUF_HOLD_WRITE && h->readCount > 0)) {
    return nullptr;
  }
  return TakeHold(h, mode, size, user);
}

uint8_t* VBufferQueueImpl::HoldByIndex(VBufSeq index, int32_t mode, int32_t* size,
                                       uint32_t* user) {
  VBufLockScope lock(this);
  return HoldByIndexLocked(index, mode, size, user);
}

int32_t VBufferQueueImpl::ReleaseByIndex(VBufSeq index, int32_t mode, uint32_t reader) {
  VBufLockScope lock(this);
  VBufHeader* h = BlockAt(index);
  return h == nullptr ? 0 : ReleaseLocked(Data(h), mode, reader);
}

int32_t VBufferQueueImpl::GetBufferInfo(VBufSeq index, int32_t* size, uint32_t* user,
                                        int32_t* readCount, int32_t* pendingCount,
                                        VBufSeq* offset) {
  VBufLockScope lock(this);
  VBufHeader* h = BlockAt(index);
  if (h == nullptr) return 0;
  if (size != nullptr) *size = h->size;
  if (user != nullptr) *user = h->user;
  if (readCount != nullptr) *readCount = h->readCount;
  if (pendingCount != nullptr) {
    int32_t n = 0;
    for (int32_t w = 0; w < 8; ++w) n += std::popcount(h->pendingReaders[w]);
    *pendingCount = n;
  }
  if (offset != nullptr) *offset = m_index.At(index - m_firstIndex).offset;
  return 1;
}

int32_t VBufferQueueImpl::GetHeadUser(uint32_t* user) {
  VBufLockScope lock(this);
  VBufHeader* h = BlockAt(m_firstIndex);
  if (h == nullptr || user == nullptr) return 0;
  *user = h->user;
  return 1;
}

uint8_t* VBufferQueueImpl::FindBuffer(const uint8_t* p, int32_t* state) {
  VBufLockScope lock(this);
  if (state != nullptr) *state = -2;
  if (m_base == nullptr || !IsInRange(p, 0) || p == m_base + m_capacity) return nullptr;
  VBufHeader* h = m_head;
  while (h != nullptr && !(p >= Data(h) && p - Data(h) < h->size)) h = Next(h);
  if (h == nullptr) return nullptr;
  int32_t found;
  if (h == m_head && m_headPreparing) {
    found = -1;
  } else if (h == m_tail && m_tailPreparing) {
    found = 1;
  } else if (h->readCount < 1 && !h->writeHeld) {
    return nullptr;
  } else {
    found = h->writeHeld ? 2 : 0;
  }
  if (state != nullptr) *state = found;
  return Data(h);
}

// ---------------------------------------------------------------------------
// The byte stream

void VBufferQueueImpl::SetFirstOffset(VBufSeq offset) {
  VBufLockScope lock(this);
  const int32_t delta = offset - m_firstOffset;
  for (int32_t i = 0; i < m_index.count; ++i) m_index.At(i).offset += delta;
  Publish(m_firstOffset, offset);
}

// The first entry whose last byte is at or after `offset` (binary search on
// offset + size - 1, by the sign of the difference); count if there is none.
// Empty blocks share their last byte with the entry before and lose to it.
int32_t VBufferQueueImpl::FindEntry(VBufSeq offset) {
  int32_t lo = 0;
  int32_t hi = m_index.count;
  while (lo < hi) {
    const int32_t mid = lo + (hi - lo) / 2;
    const VBufIndexEntry& e = m_index.At(mid);
    if ((e.offset + (e.block->size - 1)) - offset < 0) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  return lo;
}

namespace {

// Where a scan stands: the stream offset it started at and the bytes done.
struct ScanState {
  VBufScanFn fn;
  void* context;
  VBufSeq start;
  int32_t* done;
  uint32_t reader;
};

enum class ScanStep { kGoOn, kShort, kFailed, kGone };

}  // namespace

// One run of a block handed to the consumer, with the block pinned and one
// level of the lock let go meanwhile.
static ScanStep ScanCall(VBufferQueueImpl* q, const ScanState& s, VBufHeader* h, int32_t inBlock,
                         int32_t take) {
  const uint32_t generation = q->m_generation;
  ++h->readCount;
  q->Unlock();
  const int32_t took = s.fn(s.context, VBufferQueueImpl::Data(h) + inBlock, s.start + *s.done, take);
  q->Lock();
  if (q->m_generation != generation) return ScanStep::kGone;  // Clear or close dropped the block
  --h->readCount;
  if (took < 0 || took > take) return ScanStep::kFailed;
  if (q->m_trackReaders && s.reader != 0 && took == take && inBlock + take == h->size) {
    q->FinishForReader(h, s.reader);
  }
  *s.done += took;
  return took < take ? ScanStep::kShort : ScanStep::kGoOn;
}

int32_t VBufferQueueImpl::ScanBytes(VBufScanFn fn, void* context, VBufSeq* position,
                                    int32_t* count, uint32_t reader) {
  VBufLockScope lock(this);
  if (fn == nullptr || position == nullptr || count == nullptr || *count < 0) return 0;
  int32_t wanted = *count;
  *count = 0;
  if (m_base == nullptr || m_dataSize <= 0) return 0;
  int32_t rel = *position - m_firstOffset;
  if (rel >= m_dataSize) return 0;
  if (rel < 0) {  // the front is gone: keep the end of the request
    wanted += rel;
    rel = 0;
    if (wanted <= 0) {
      *position = m_firstOffset;
      return 1;
    }
  }
  if (wanted == 0) return 1;
  const ScanState s{fn, context, m_firstOffset + rel, count, reader};
  int32_t i = FindEntry(s.start);
  if (i >= m_index.count) return 1;  // bytes of a block the ring could not take
  VBufHeader* h = m_index.At(i).block;
  if (h->writeHeld) return 1;
  // Later blocks are found by their stable index, since blocks may go while
  // the consumer runs.
  VBufSeq index = m_firstIndex + i;
  const int32_t inBlock = s.start - m_index.At(i).offset;
  int32_t take = std::min(wanted, h->size - inBlock);
  ScanStep step = take > 0 ? ScanCall(this, s, h, inBlock, take) : ScanStep::kGoOn;
  while (step == ScanStep::kGoOn && *count < wanted) {
    ++index;
    h = BlockAt(index);
    if (h == nullptr) break;
    if (h->writeHeld) break;
    take = std::min(wanted - *count, h->size);
    if (take > 0) step = ScanCall(this, s, h, 0, take);
  }
  if (step == ScanStep::kFailed) return 0;
  *position = s.start + *count;
  return 1;
}

int32_t VBufferQueueImpl::ReadByte(VBufSeq position, uint8_t* out) {
  VBufLockScope lock(this);
  const int32_t rel = position - m_firstOffset;
  if (m_base == nullptr || out == nullptr || rel < 0 || rel >= m_dataSize) return 0;
  const int32_t i = FindEntry(position);
  if (i >= m_index.count) return 0;
  const VBufIndexEntry& e = m_index.At(i);
  *out = Data(e.block)[position - e.offset];
  return 1;
}

namespace {

struct CopyContext {
  bool started;
  uint8_t* dst;
  VBufSeq first;
};

int32_t CopyRun(void* context, const uint8_t* data, VBufSeq position, int32_t length) {
  CopyContext* c = static_cast<CopyContext*>(context);
  if (!c->started) {
    c->started = true;
    c->first = position;
  }
  std::memcpy(c->dst + (position - c->first), data, static_cast<size_t>(length));
  return length;
}

}  // namespace

int32_t VBufferQueueImpl::ReadBytes(VBufSeq* position, void* dst, int32_t* count,
                                    uint32_t reader) {
  if (dst == nullptr) return 0;
  CopyContext c{false, static_cast<uint8_t*>(dst), 0};
  return ScanBytes(CopyRun, &c, position, count, reader);
}

// ---------------------------------------------------------------------------
// Readers

int32_t VBufferQueueImpl::FindSlot(uint32_t reader) const {
  if (reader == 0) return -1;
  for (int32_t slot = 0; slot < MAX_READER_COUNT; ++slot) {
    if (m_readers[slot] == reader) return slot;
  }
  return -1;
}

void VBufferQueueImpl::SetPendingBits(VBufHeader* h) const {
  for (int32_t word = 0; word < 8; ++word) {
    uint32_t bits = 0;
    for (int32_t bit = 0; bit < 32; ++bit) {
      if (m_readers[word * 32 + bit] != 0) bits |= 1u << bit;
    }
    h->pendingReaders[word] = bits;
  }
}

void VBufferQueueImpl::FinishForReader(VBufHeader* h, uint32_t reader) const {
  const int32_t slot = FindSlot(reader);
  if (slot >= 0) h->pendingReaders[slot / 32] &= ~(1u << (slot % 32));
}

bool VBufferQueueImpl::IsPending(const VBufHeader* h) const {
  for (int32_t w = 0; w < 8; ++w) {
    if (h->pendingReaders[w] != 0) return true;
  }
  return false;
}

int32_t VBufferQueueImpl::AddReader(uint32_t reader, int32_t markExisting) {
  if (reader == 0) return 0;
  VBufLockScope lock(this);
  int32_t freeSlot = -1;
  for (int32_t slot = 0; slot < MAX_READER_COUNT; ++slot) {
    if (m_readers[slot] == reader) {
      BRISK_REPORT_AT(VBUF_SOURCE_FILE, 2055, "%s", "重复添加reader");
      return 0;
    }
    if (m_readers[slot] == 0 && freeSlot < 0) freeSlot = slot;
  }
  if (freeSlot < 0) {
    BRISK_REPORT_AT(VBUF_SOURCE_FILE, 2061, "reader 太多，超过MAX_READER_COUNT=%d个了",
                    MAX_READER_COUNT);
    // A breach of the reader limit is fatal: nothing may go on past it.
    _exit(255);
  }
  m_readers[freeSlot] = reader;
  if (markExisting) {
    for (int32_t i = 0; i < m_index.count; ++i) {
      m_index.At(i).block->pendingReaders[freeSlot / 32] |= 1u << (freeSlot % 32);
    }
  }
  return 1;
}

int32_t VBufferQueueImpl::RemoveLimitOf(uint32_t reader) {
  for (int32_t i = 0; i < m_limits.Size(); ++i) {
    if (m_readers[m_limits[i].slot] == reader) {
      m_limits.Erase(i);
      return 1;
    }
  }
  return 0;
}

int32_t VBufferQueueImpl::RemoveReader(uint32_t reader) {
  if (reader == 0) return 0;
  VBufLockScope lock(this);
  RemoveLimitOf(reader);
  const int32_t slot = FindSlot(reader);
  if (slot < 0) return 0;
  m_readers[slot] = 0;
  for (int32_t i = 0; i < m_index.count; ++i) {
    m_index.At(i).block->pendingReaders[slot / 32] &= ~(1u << (slot % 32));
  }
  return 1;
}

int32_t VBufferQueueImpl::HasPending(uint32_t reader) {
  VBufLockScope lock(this);
  const int32_t slot = FindSlot(reader);
  if (reader != 0 && (!m_trackReaders || slot < 0)) return 0;
  for (int32_t i = 0; i < m_index.count; ++i) {
    const VBufHeader* h = m_index.At(i).block;
    if (reader == 0 ? IsPending(h) : (h->pendingReaders[slot / 32] >> (slot % 32)) & 1u) return 1;
  }
  return 0;
}

int32_t VBufferQueueImpl::SetReaderSizeLimited(uint32_t reader, int32_t type, int32_t value) {
  if (type != VBUF_LIMIT_BYTES && type != VBUF_LIMIT_COUNT && type != VBUF_LIMIT_PERCENT) return 0;
  VBufLockScope lock(this);
  const int32_t slot = FindSlot(reader);
  if (slot < 0) {
    BRISK_REPORT_AT(VBUF_SOURCE_FILE, 2262, "%s", "reader不存在");
    return 0;
  }
  for (int32_t i = 0; i < m_limits.Size(); ++i) {
    if (m_limits[i].slot == slot) {
      BRISK_REPORT_AT(VBUF_SOURCE_FILE, 2270, "%s",
                      "该reader设置的限制已经存在，请先调用CleanReaderSizeLimited()");
      return 0;
    }
  }
  return m_limits.Append(VBufLimit{slot, type, value}) ? 1 : 0;
}

int32_t VBufferQueueImpl::GetReaderSizeLimited(int32_t* type, int32_t* value) {
  VBufLockScope lock(this);
  const bool any = m_limits.Size() > 0;
  if (type != nullptr) *type = any ? m_limits.Back().type : 0;
  if (value != nullptr) *value = any ? m_limits.Back().value : 0;
  return any ? 1 : 0;
}
