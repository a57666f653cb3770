// COSPoll: a poll set over waitable objects.
//
// A table of up to 4032 records, each a waitable handle with a caller's key,
// an event mask, a context word and an enabled flag. One Poll() waits for any
// enabled record with a timeout (through WaitHandleSet, so far beyond the 64
// objects of WaitForMultipleObjects) and then serves every signalled record in
// ascending key order through the virtual operations of a subclass. COSPoll
// owns none of the handles in its records and never closes one.
//
// Every operation is for one thread at a time: the one that runs Poll().
// Callbacks run on that thread and may call every operation but Poll() itself.
// Records are served from copies taken at the last rebuild of the wait set, so
// a callback may add, delete, enable or disable records freely: a record it
// deletes (or deletes and adds again) is not served later in the same pass; a
// record it disables is still served in that pass; every change takes effect
// at the next pass.
//
// The object keeps its tables inside itself (about 400 KiB): it belongs on the
// heap or inside its owner, never on a stack.
#pragma once

#include <cstdint>
#include <memory>

#include "WaitableObject.h"

// The wait on more than 64 objects, in the layer above the waitable objects:
// only the source sees its definition.
class WaitHandleSet;

// A waitable handle, and the descriptor of a socket whose readiness the
// handle stands for (-1, or any value not above 0, for none).
struct OSHandle {
  HANDLE handle;
  int32_t socket;
};

// The caller's key of a record: opaque, compared as an unsigned number.
typedef uintptr_t HandleObj;

// Event bits, in a record's mask and in what reaches OnHandleSignaled.
constexpr uint32_t POLL_READ = 1;
constexpr uint32_t POLL_WRITE = 2;
constexpr uint32_t POLL_CLOSE = 4;   // closed or failed
constexpr uint32_t POLL_ACCEPT = 8;  // a listening socket has a connection waiting

constexpr int32_t POLL_MAX_RECORDS = 4032;

struct PollRecord {
  HandleObj key;
  int32_t isNew;  // 1 from AddHandle until a rebuild takes it into the wait set
  uint32_t mask;
  uintptr_t context;
  HANDLE handle;
  int32_t socket;
  int32_t enabled;
};

class COSPoll {
 public:
  COSPoll();
  // Empties the table (DelAllHandles) and ends the helpers of the wait set.
  virtual ~COSPoll();
  COSPoll(const COSPoll&) = delete;
  COSPoll& operator=(const COSPoll&) = delete;

  // The results of the four operations below are read alike: above 1 ends the
  // pass at once and Poll() returns that value; 1 means work was done; 0
  // means nothing was done; a negative result of OnHandleFailed, OnPollTimeout
  // or OnPollError counts as work done.

  // The wait failed; `lastError` is GetLastError(). Default: 0. The table is
  // left alone, so unless the subclass mends it the next wait fails too.
  virtual int32_t OnPollError(uint32_t lastError);
  // The whole timeout passed with nothing signalled. Default: 0.
  virtual int32_t OnPollTimeout();
  // A record was signalled. `events` is the record's mask for a plain handle;
  // for a socket, the mask restricted to the socket's readiness.
  virtual int32_t OnHandleSignaled(HandleObj key, HANDLE handle, int32_t socket,
                                   uint32_t events) = 0;
  // OnHandleSignaled returned the negative `result`; what this returns takes
  // its place. Default: 0.
  virtual int32_t OnHandleFailed(HandleObj key, HANDLE handle, int32_t socket, int32_t result);

  // Adds a record; 1 on success. Refused (0): a full table (with an assertion
  // report), a key already present (nothing changes), a mask of 0, the empty
  // handle {null, -1}, and a mask with POLL_ACCEPT beside POLL_READ or
  // POLL_WRITE. The handle is not checked for life: a closed handle makes
  // every wait fail until it is deleted.
  int32_t AddHandle(HandleObj key, HANDLE handle, int32_t socket, uint32_t mask, int32_t enabled,
                    uintptr_t context);
  // 1 if the record existed and is gone.
  int32_t DelHandle(HandleObj key);
  // 1 if the record exists. A disabled record stays in the table but leaves
  // the wait set at the next pass.
  int32_t EnableHandle(HandleObj key, int32_t enabled);
  // 1 if the record exists. Any out argument may be null. The first three are
  // set to 0, the empty handle and 0 before the look-up; `outContext` is
  // written only when the record is found.
  int32_t GetHandleInfos(HandleObj key, int32_t* outEnabled, OSHandle* outHandle,
                         uint32_t* outMask, uintptr_t* outContext);
  // Writes every key, ascending; `outKeys` has room for HandleCount() keys.
  void GetAllHandleObj(HandleObj* outKeys);
  void DelAllHandles();
  int32_t HandleCount() const { return tableCount_; }

  // One pass: rebuild the wait set if the table changed, wait up to
  // `timeoutMs`, serve every signalled enabled record in key order. Returns 0
  // at once, without waiting, when no record is enabled. Otherwise 1 if work
  // was done, 0 if not, or the first callback result above 1.
  //
  // Writability is level-triggered: a record with POLL_WRITE, a socket and
  // `enabled` has its event set by hand when it is added, enabled, and after
  // each service, so that it is served again and again until disabled.
  int32_t Poll(uint32_t timeoutMs);

 private:
  int32_t Find(HandleObj key, bool* found) const;
  void Rebuild();
  int32_t Serve(const PollRecord& record);
  void ApplyWriteRule(const PollRecord& record);

  PollRecord table_[POLL_MAX_RECORDS];
  int32_t tableCount_;
  int32_t removedInPass_;
  int32_t dirty_;
  HANDLE waitHandles_[POLL_MAX_RECORDS];
  PollRecord waitRecords_[POLL_MAX_RECORDS];
  int32_t waitCount_;
  std::unique_ptr<WaitHandleSet> waitSet_;
};
