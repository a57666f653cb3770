// MappedFile: one file mapped into memory as one view.
//
// Open maps an existing file (never creates one); callers then read `view`,
// `viewLength` and `fileSize` directly. A file of zero length opens with no
// mapping and no view (`view` null), and files of 4 GiB or more are refused.
// A null path maps anonymous memory of `length` bytes instead of a file.
//
//   MappedFile file;
//   if (file.Open(path, 0, 0, 0, 0, nullptr, 0) && file.view != nullptr)
//     Use(static_cast<const uint8_t*>(file.view), file.fileSize);
//
// Modes of Open, by (readOnly, writable): readOnly non-zero maps for reading
// whatever `writable` says; otherwise `writable` non-zero maps for reading and
// writing (shared with the file), else for reading. `shared` (others may
// write while we write) is recorded only: Linux has no share modes.
//
// Not thread-safe; one owner at a time.
#pragma once

#include <cstdint>

class MappedFile {
 public:
  static constexpr uint32_t MAX_PATH_LENGTH = 260;

  MappedFile();
  // Opens at once by Open with the same arguments; check `view`/`fileSize`
  // or call Open again, since a constructor cannot report.
  MappedFile(const char* path, int32_t writable, uint32_t offset, uint32_t length,
             int32_t shared, const char* mappingName, int32_t readOnly);
  ~MappedFile();
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  // Maps `length` bytes from `offset` (0 and 0: the whole file). False if a
  // view exists already, if the file does not exist or cannot be opened in the
  // asked mode, if it is 4 GiB or more, if `path` does not fit 259 characters,
  // or if the mapping fails; the object is closed again after a failure.
  // `offset` must be a multiple of the page size. `mappingName` is taken and
  // has no effect. With a null `path`, `length` bytes of zeroed anonymous
  // memory are mapped (a `length` of 0 fails).
  bool Open(const char* path, int32_t writable, uint32_t offset, uint32_t length, int32_t shared,
            const char* mappingName, int32_t readOnly);

  // Sets or moves the view to `length` bytes from `offset` (length clipped to
  // the file, 0: to its end). Mode 1 makes the view read-only, mode 2
  // read-write, others keep the current mode. A view can be moved only on a
  // named file. False if there is no mapping, `offset` is not below
  // `fileSize`, or the map call fails (then there is no view). Out pointers
  // may be null.
  bool MapView(uint32_t offset, uint32_t length, void** outView, uint32_t* outLength,
               int32_t mode);

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
  uint32_t viewLength;
  uint32_t fileSize;  // size at open
  int32_t writable;
  int32_t shared;
  int32_t readOnly;

 private:
  void Reset();
};
