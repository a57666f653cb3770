// VBufferQueue: the public face of the queue. Every operation forwards to the
// body (VBufferQueueImpl); the four reserving and committing operations are
// performance sites.
#include "VBufferQueue.h"

#include "PerformanceSite.h"
#include "VBufferQueueImpl.h"
#include "WaitableObject.h"

std::atomic<uint32_t> g_nextSerial{0};

void VBufSignalEventOnCommit(VBufferQueue*, VBufNotifyKey key, int32_t event, uint8_t*, int32_t,
                             uint32_t) {
  if (event == VBUF_EVT_NEW_AT_TAIL || event == VBUF_EVT_NEW_AT_HEAD) {
    SetEvent(reinterpret_cast<HANDLE>(key));
  }
}

VBufferQueue::VBufferQueue(int32_t useLock, int32_t trackReaders)
    : m_impl(new VBufferQueueImpl(this, useLock, trackReaders)) {}

VBufferQueue::~VBufferQueue() {
  Close();
  delete m_impl;
}

int32_t VBufferQueue::Open(int32_t size, const char* name, uint8_t* buffer, int32_t align) {
  return m_impl->Open(size, name, buffer, align);
}
int32_t VBufferQueue::IsOpen() { return m_impl->m_base != nullptr ? 1 : 0; }
void VBufferQueue::Close() { m_impl->Close(); }
void VBufferQueue::Clear() { m_impl->Clear(); }

int32_t VBufferQueue::AddNotify(VBufNotifyKey key, VBufNotifyFn fn) {
  return m_impl->AddNotify(key, fn);
}
int32_t VBufferQueue::RemoveNotify(VBufNotifyKey key) { return m_impl->RemoveNotify(key); }

const char* VBufferQueue::GetName() { return m_impl->m_name; }
int32_t VBufferQueue::IsReaderTracking() { return m_impl->m_trackReaders; }
int32_t VBufferQueue::IsBusy() {
  VBufLockScope lock(m_impl);
  return m_impl->IsBusyLocked();
}
int32_t VBufferQueue::HasPending(uint32_t reader) { return m_impl->HasPending(reader); }

uint8_t* VBufferQueue::PrepareNewBufferAtTail(int32_t size, int32_t evict, int32_t* evictedBytes) {
  PERFORMANCE_SITE("VBufQ_PrepareNewBufferAtTail()");
  return m_impl->Prepare(true, size, evict, evictedBytes);
}
int32_t VBufferQueue::NewBufferAtTail(uint8_t* data, int32_t size, uint32_t user,
                                      int32_t allowEmpty, int32_t skip) {
  PERFORMANCE_SITE("VBufQ_NewBufferAtTail()");
  return m_impl->Commit(true, data, size, user, allowEmpty, skip);
}
int32_t VBufferQueue::RemoveBufferAtHead(int32_t* removedSize) {
  return m_impl->Remove(true, removedSize);
}
uint8_t* VBufferQueue::PrepareNewBufferAtHead(int32_t size, int32_t evict, int32_t* evictedBytes) {
  PERFORMANCE_SITE("VBufQ_PrepareNewBufferAtHead()");
  return m_impl->Prepare(false, size, evict, evictedBytes);
}
int32_t VBufferQueue::NewBufferAtHead(uint8_t* data, int32_t size, uint32_t user,
                                      int32_t allowEmpty, int32_t skip) {
  PERFORMANCE_SITE("VBufQ_NewBufferAtHead()");
  return m_impl->Commit(false, data, size, user, allowEmpty, skip);
}
int32_t VBufferQueue::RemoveBufferAtTail(int32_t* removedSize) {
  return m_impl->Remove(false, removedSize);
}
int32_t VBufferQueue::ReleaseAndRemoveAtHead(uint8_t* data, uint32_t reader, int32_t* removedSize) {
  return m_impl->ReleaseAndRemoveAtHead(data, reader, removedSize);
}

uint8_t* VBufferQueue::GetBuffer(uint8_t* prev, int32_t* size, uint32_t* user) {
  return m_impl->GetBuffer(prev, size, user);
}
int32_t VBufferQueue::ReleaseBuffer(uint8_t* data, uint32_t reader) {
  return m_impl->Release(data, VBUF_HOLD_READ, reader);
}
int32_t VBufferQueue::GetBufferInfo(VBufSeq index, int32_t* size, uint32_t* user,
                                    int32_t* readCount, int32_t* pendingCount, VBufSeq* offset) {
  return m_impl->GetBufferInfo(index, size, user, readCount, pendingCount, offset);
}
int32_t VBufferQueue::GetHeadUser(uint32_t* user) { return m_impl->GetHeadUser(user); }
int32_t VBufferQueue::IsInBuffer(const uint8_t* p, int32_t length) {
  return m_impl->IsInRange(p, length) ? 1 : 0;
}
uint8_t* VBufferQueue::FindBuffer(const uint8_t* p, int32_t* state) {
  return m_impl->FindBuffer(p, state);
}

int32_t VBufferQueue::GetBufferCount() { return Peek(m_impl->m_index.count); }
int32_t VBufferQueue::GetDataSize() { return Peek(m_impl->m_dataSize); }
int32_t VBufferQueue::GetCapacity() { return m_impl->m_capacity; }
uint32_t& VBufferQueue::UserWord() { return m_impl->m_userWord; }
uint32_t VBufferQueue::GetUserWord() { return m_impl->m_userWord; }

VBufSeq VBufferQueue::GetFirstOffset() { return Peek(m_impl->m_firstOffset); }
void VBufferQueue::SetFirstOffset(VBufSeq offset) { m_impl->SetFirstOffset(offset); }
VBufSeq VBufferQueue::GetLastOffset() {
  VBufLockScope lock(m_impl);
  return m_impl->m_firstOffset + (m_impl->m_dataSize - 1);
}
int32_t VBufferQueue::ScanBytes(VBufScanFn fn, void* context, VBufSeq* position, int32_t* count,
                                uint32_t reader) {
  return m_impl->ScanBytes(fn, context, position, count, reader);
}
int32_t VBufferQueue::ReadByte(VBufSeq position, uint8_t* out) {
  return m_impl->ReadByte(position, out);
}
int32_t VBufferQueue::ReadBytes(VBufSeq* position, void* dst, int32_t* count, uint32_t reader) {
  return m_impl->ReadBytes(position, dst, count, reader);
}

// `n` bytes at `position` through ReadBytes with no reader; 1 only if all came.
static int32_t ReadExactly(VBufferQueueImpl* q, VBufSeq position, void* out, int32_t n) {
  int32_t count = n;
  return q->ReadBytes(&position, out, &count, 0) && count == n ? 1 : 0;
}
int32_t VBufferQueue::ReadU16(VBufSeq position, void* out) {
  return ReadExactly(m_impl, position, out, 2);
}
int32_t VBufferQueue::ReadU32(VBufSeq position, void* out) {
  return ReadExactly(m_impl, position, out, 4);
}

VBufSeq VBufferQueue::GetFirstIndex() { return Peek(m_impl->m_firstIndex); }
void VBufferQueue::SetFirstIndex(VBufSeq index) {
  VBufLockScope lock(m_impl);
  Publish(m_impl->m_firstIndex, index);
}
VBufSeq VBufferQueue::GetLastIndex() {
  VBufLockScope lock(m_impl);
  return m_impl->m_firstIndex + (m_impl->m_index.count - 1);
}
uint8_t* VBufferQueue::GetBufferByIndex(VBufSeq index, int32_t* size, uint32_t* user) {
  return m_impl->HoldByIndex(index, VBUF_HOLD_READ, size, user);
}
int32_t VBufferQueue::ReleaseBufferByIndex(VBufSeq index, uint32_t reader) {
  return m_impl->ReleaseByIndex(index, VBUF_HOLD_READ, reader);
}
void VBufferQueue::GetEndInfo(int32_t first, VBufSeq* index, VBufSeq* offset) {
  if (index == nullptr || offset == nullptr) return;
  VBufLockScope lock(m_impl);
  *index = first ? GetFirstIndex() : GetLastIndex();
  *offset = first ? GetFirstOffset() : GetLastOffset();
}
uint8_t* VBufferQueue::LockBufferByIndex(VBufSeq index, int32_t* size, uint32_t* user) {
  return m_impl->HoldByIndex(index, VBUF_HOLD_WRITE, size, user);
}
int32_t VBufferQueue::UnlockBuffer(uint8_t* data) {
  return m_impl->Release(data, VBUF_HOLD_WRITE, 0);
}
int32_t VBufferQueue::UnlockBufferByIndex(VBufSeq index) {
  return m_impl->ReleaseByIndex(index, VBUF_HOLD_WRITE, 0);
}

int32_t VBufferQueue::AddReader(uint32_t reader, int32_t markExisting) {
  return m_impl->AddReader(reader, markExisting);
}
int32_t VBufferQueue::RemoveReader(uint32_t reader) { return m_impl->RemoveReader(reader); }
int32_t VBufferQueue::GetReaderCount() {
  int32_t n = 0;
  for (uint32_t r : m_impl->m_readers) n += r != 0 ? 1 : 0;
  return n;
}
int32_t VBufferQueue::GetReaderSizeLimited(int32_t* type, int32_t* value) {
  return m_impl->GetReaderSizeLimited(type, value);
}
int32_t VBufferQueue::SetReaderSizeLimited(uint32_t reader, int32_t type, int32_t value) {
  return m_impl->SetReaderSizeLimited(reader, type, value);
}
int32_t VBufferQueue::CleanReaderSizeLimited(uint32_t reader) {
  return m_impl->RemoveReader(reader);
}
