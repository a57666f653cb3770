// MappedFile: one file mapped into memory as one view.
//
// Open maps an existing regular file (never creates one); callers then read
// through Read, or `view`, `viewLength` and `fileSize` directly. A file of zero
// length opens with no mapping and no view (`view` null). Sizes and offsets
// are 64-bit: any file the address space can map opens. A null path maps
// anonymous memory of `length` bytes instead of a file.
//
//   MappedFile file;
//   if (file.Open(path, MAPPED_READ, /*offset=*/0, MAPPED_WHOLE_FILE, MAPPED_PRIVATE,
//                 /*mappingName=*/nullptr, /*readOnly=*/0) && file.view != nullptr)
//     file.Read(offset, buffer, count);
//
// Another process may shorten a mapped file; a load from a page past the new
// end then raises SIGBUS. Read copies under the fault guard, so such a read
// fails instead of killing the process. Code that reads `view` directly must
// run under RunGuarded (FaultGuard.h) for the same reason.
//
// Modes of Open, by (readOnly, writable): readOnly non-zero maps for reading
// whatever `writable` says; otherwise `writable` non-zero maps for reading and
// writing (shared with the file), else for reading. `shared` (others may
// write while we write) is recorded only: Linux has no share modes.
//
// Not thread-safe; one owner at a time.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>

// Named values of Open.
constexpr int32_t MAPPED_READ = 0;        // writable: a read-only mapping
constexpr uint64_t MAPPED_WHOLE_FILE = 0;  // offset and length 0 and 0: the whole file
constexpr int32_t MAPPED_PRIVATE = 0;     // shared: changes stay in this process

class MappedFile {
 public:
  static constexpr size_t MAX_PATH_LENGTH = PATH_MAX;

  MappedFile();
  // Opens at once by Open with the same arguments; check `view`/`fileSize`
  // or call Open again, since a constructor cannot report.
  MappedFile(const char* path, int32_t writable, uint64_t offset, uint64_t length,
             int32_t shared, const char* mappingName, int32_t readOnly);
  ~MappedFile();
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  // Maps `length` bytes from `offset` (0 and 0: the whole file). False if a
  // view exists already, if the file does not exist, is not a regular file (a
  // FIFO, a device or a folder is refused at once, without blocking) or cannot
  // be opened in the asked mode, if `path` does not fit MAX_PATH_LENGTH - 1
  // characters, or if the mapping fails; the object is closed again after a
  // failure.
  // `offset` must be a multiple of the page size. `mappingName` is taken and
  // has no effect. With a null `path`, `length` bytes of zeroed anonymous
  // memory are mapped (a `length` of 0 fails).
  bool Open(const char* path, int32_t writable, uint64_t offset, uint64_t length, int32_t shared,
            const char* mappingName, int32_t readOnly);

  // Sets or moves the view to `length` bytes from `offset` (length clipped to
  // the file, 0: to its end). Mode 1 makes the view read-only, mode 2
  // read-write, others keep the current mode. A view can be moved only on a
  // named file. False if there is no mapping, `offset` is not below
  // `fileSize`, or the map call fails (then there is no view). Out pointers
  // may be null.
  bool MapView(uint64_t offset, uint64_t length, void** outView, uint64_t* outLength,
               int32_t mode);

  // Copies `length` bytes at `offset` of the view into `to`. False, with `to`
  // in an unknown state, if the range is not inside the view or the pages are
  // gone (the file was shortened after Open).
  bool Read(uint64_t offset, void* to, size_t length) const;

  // Unmaps, closes mapping and file, resets every field. Safe when closed.
  void Close();

  // Writes the dirty pages of [address, address + length) back to the file:
  // 1 on success, 0 if there is no view, the object is not writable, the
  // range is not inside the view, or the write-back fails.
  int32_t Flush(void* address, uint32_t length);

  char fileName[MAX_PATH_LENGTH];  // empty when closed or anonymous
  int fileHandle;                  // descriptor of the file; -1 when closed
  int mappingHandle;               // descriptor views are mapped from; -1 when none
  void* view;                      // null when there is no view
  uint64_t viewLength;
  uint64_t fileSize;  // size at open
  int32_t writable;
  int32_t shared;
  int32_t readOnly;

 private:
  void Reset();
};
