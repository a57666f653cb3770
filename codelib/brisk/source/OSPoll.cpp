#include "OSPoll.h"

#include <cstring>
#include <poll.h>
#include <sys/socket.h>

#include "Diagnostics.h"
#include "PerformanceSite.h"
#include "WaitForMultipleObjectsExpand.h"

namespace {

constexpr const char* kSourceFile = "codelib/brisk/source/OSPoll";

// The write rule: a socket record that wants writability is served again and
// again, so its event is set by hand whenever it may be due.
void KickWritable(int32_t enabled, uint32_t mask, HANDLE handle, int32_t socket) {
  if (enabled && (mask & POLL_WRITE) && socket > 0) SetEvent(handle);
}

// The socket's readiness as event bits, in place of the network events the
// handle was bound to; also clears the handle. False when the descriptor
// cannot be asked.
bool ReadSocketEvents(int32_t socket, HANDLE handle, uint32_t* events) {
  ResetEvent(handle);
  int listening = 0;
  socklen_t size = sizeof listening;
  if (getsockopt(socket, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) != 0) return false;
  pollfd p{socket, POLLIN | POLLOUT, 0};
  if (poll(&p, 1, 0) < 0 || (p.revents & POLLNVAL)) return false;
  uint32_t map = 0;
  if (p.revents & POLLIN) map |= listening ? POLL_ACCEPT : POLL_READ;
  if (p.revents & POLLOUT) map |= POLL_WRITE;
  if (p.revents & (POLLHUP | POLLERR)) map |= POLL_CLOSE;
  *events = map;
  return true;
}

}  // namespace

COSPoll::COSPoll()
    : tableCount_(0), removedInPass_(0), dirty_(1), waitCount_(0),
      waitSet_(std::make_unique<WaitHandleSet>()) {}

COSPoll::~COSPoll() { DelAllHandles(); }

int32_t COSPoll::OnPollError(uint32_t) { return 0; }

int32_t COSPoll::OnPollTimeout() { return 0; }

int32_t COSPoll::OnHandleFailed(HandleObj, HANDLE, int32_t, int32_t) { return 0; }

int32_t COSPoll::Find(HandleObj key, bool* found) const {
  int32_t low = 0;
  int32_t high = tableCount_;
  while (low < high) {
    const int32_t mid = low + (high - low) / 2;
    if (table_[mid].key < key)
      low = mid + 1;
    else
      high = mid;
  }
  *found = low < tableCount_ && table_[low].key == key;
  return low;
}

int32_t COSPoll::AddHandle(HandleObj key, HANDLE handle, int32_t socket, uint32_t mask,
                           int32_t enabled, uintptr_t context) {
  PERFORMANCE_SITE("COSPoll::AddHandle()");
  if (tableCount_ >= POLL_MAX_RECORDS) {
    const char* none = nullptr;
    BRISK_REPORT_AT(kSourceFile, 103, "%s", none);
    return 0;
  }
  bool found;
  const int32_t at = Find(key, &found);
  if (found || mask == 0) return 0;
  if (handle == nullptr && socket == -1) return 0;
  if ((mask & POLL_ACCEPT) && (mask & (POLL_READ | POLL_WRITE))) return 0;
  memmove(&table_[at + 1], &table_[at], static_cast<size_t>(tableCount_ - at) * sizeof(PollRecord));
  table_[at] = PollRecord{key, 1, mask, context, handle, socket, enabled};
  ++tableCount_;
  dirty_ = 1;
  KickWritable(enabled, mask, handle, socket);
  return 1;
}

int32_t COSPoll::DelHandle(HandleObj key) {
  PERFORMANCE_SITE("COSPoll::DelHandle()");
  bool found;
  const int32_t at = Find(key, &found);
  if (!found) return 0;
  memmove(&table_[at], &table_[at + 1], static_cast<size_t>(tableCount_ - at - 1) * sizeof(PollRecord));
  --tableCount_;
  removedInPass_ = 1;
  dirty_ = 1;
  return 1;
}

int32_t COSPoll::EnableHandle(HandleObj key, int32_t enabled) {
  PERFORMANCE_SITE("COSPoll::EnableHandle()");
  bool found;
  const int32_t at = Find(key, &found);
  if (!found) return 0;
  PollRecord& record = table_[at];
  if (record.enabled == enabled) return 1;
  record.enabled = enabled;
  dirty_ = 1;
  KickWritable(enabled, record.mask, record.handle, record.socket);
  return 1;
}

int32_t COSPoll::GetHandleInfos(HandleObj key, int32_t* outEnabled, OSHandle* outHandle,
                                uint32_t* outMask, uintptr_t* outContext) {
  PERFORMANCE_SITE("COSPoll::GetHandleInfos()");
  if (outEnabled) *outEnabled = 0;
  if (outHandle) *outHandle = OSHandle{nullptr, -1};
  if (outMask) *outMask = 0;
  bool found;
  const int32_t at = Find(key, &found);
  if (!found) return 0;
  const PollRecord& record = table_[at];
  if (outEnabled) *outEnabled = record.enabled;
  if (outHandle) *outHandle = OSHandle{record.handle, record.socket};
  if (outMask) *outMask = record.mask;
  if (outContext) *outContext = record.context;
  return 1;
}

void COSPoll::GetAllHandleObj(HandleObj* outKeys) {
  PERFORMANCE_SITE("COSPoll::GetAllHandleObj()");
  if (outKeys == nullptr) return;
  for (int32_t i = 0; i < tableCount_; ++i) outKeys[i] = table_[i].key;
}

void COSPoll::DelAllHandles() {
  if (tableCount_ == 0) return;
  tableCount_ = 0;
  removedInPass_ = 1;
  dirty_ = 1;
}

void COSPoll::Rebuild() {
  waitCount_ = 0;
  for (int32_t i = 0; i < tableCount_; ++i) {
    PollRecord& record = table_[i];
    if (!record.enabled) continue;
    record.isNew = 0;
    waitHandles_[waitCount_] = record.handle;
    waitRecords_[waitCount_++] = record;
  }
  dirty_ = 0;
}

void COSPoll::ApplyWriteRule(const PollRecord& record) {
  if (!removedInPass_ && !dirty_) {  // the copy is still true
    KickWritable(record.enabled, record.mask, record.handle, record.socket);
    return;
  }
  int32_t enabled;
  OSHandle handle;
  uint32_t mask;
  if (GetHandleInfos(record.key, &enabled, &handle, &mask, nullptr))
    KickWritable(enabled, mask, handle.handle, handle.socket);
}

int32_t COSPoll::Serve(const PollRecord& record) {
  uint32_t events = record.mask;
  if (record.socket > 0) {
    uint32_t network = 0;
    if (!ReadSocketEvents(record.socket, record.handle, &network))
      events = POLL_CLOSE;  // told as closed, whatever the mask asked for
    else if (network != 0)
      events = record.mask & network;
    else  // set by hand, or nothing of interest
      events = record.mask & ~POLL_CLOSE;
  }
  if (events == 0) return 0;
  const int32_t result = OnHandleSignaled(record.key, record.handle, record.socket, events);
  ApplyWriteRule(record);
  if (result >= 0) return result;
  return OnHandleFailed(record.key, record.handle, record.socket, result);
}

int32_t COSPoll::Poll(uint32_t timeoutMs) {
  const bool rebuilt = dirty_ != 0;
  if (rebuilt) Rebuild();
  if (waitCount_ == 0) return 0;

  int32_t signalled[POLL_MAX_RECORDS];
  int32_t count = 0;
  const int32_t wait =
      waitSet_->WaitAnySignaled(waitHandles_, waitCount_, timeoutMs, signalled, &count, rebuilt);
  const uint32_t lastError = GetLastError();
  removedInPass_ = 0;
  bool workDone = false;

  if (wait != WAIT_SET_SATISFIED) {
    const int32_t result = wait == WAIT_SET_TIMEOUT ? OnPollTimeout() : OnPollError(lastError);
    if (result > 1) return result;
    if (result != 0) workDone = true;
    if (removedInPass_) return 1;
    return workDone ? 1 : 0;
  }

  for (int32_t i = 0; i < count; ++i) {
    removedInPass_ = 0;
    const int32_t result = Serve(waitRecords_[signalled[i]]);
    if (result > 1) return result;
    if (result != 0) workDone = true;
    if (!removedInPass_) continue;
    // Drop what was deleted, or deleted and added again, since the rebuild.
    for (int32_t j = count - 1; j > i; --j) {
      bool found;
      const int32_t at = Find(waitRecords_[signalled[j]].key, &found);
      if (found && !table_[at].isNew) continue;
      memmove(&signalled[j], &signalled[j + 1], static_cast<size_t>(count - j - 1) * sizeof(int32_t));
      --count;
    }
  }
  return workDone ? 1 : 0;
}
