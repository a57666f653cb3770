#include "MappedFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "FaultGuard.h"
#include "PerformanceSite.h"

namespace {

uintptr_t PageSize() {
  static const uintptr_t size = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  return size;
}

// The anonymous mapping of a null path: a memory file, so that views of it
// can be set and moved like those of a named file.
int CreateAnonymousMapping(uint64_t length) {
  int fd = memfd_create("MappedFile", MFD_CLOEXEC);
  if (fd < 0) return -1;
  if (ftruncate(fd, static_cast<off_t>(length)) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

MappedFile::MappedFile() { Reset(); }

MappedFile::MappedFile(const char* path, int32_t writableArg, uint64_t offset, uint64_t length,
                       int32_t sharedArg, const char* mappingName, int32_t readOnlyArg) {
  Reset();
  Open(path, writableArg, offset, length, sharedArg, mappingName, readOnlyArg);
}

MappedFile::~MappedFile() { Close(); }

void MappedFile::Reset() {
  fileName[0] = '\0';
  fileHandle = -1;
  mappingHandle = -1;
  view = nullptr;
  viewLength = 0;
  fileSize = 0;
  writable = 0;
  shared = 0;
  readOnly = 0;
}

bool MappedFile::Open(const char* path, int32_t writableArg, uint64_t offset, uint64_t length,
                      int32_t sharedArg, const char* /*mappingName*/, int32_t readOnlyArg) {
  PERFORMANCE_SITE("MappedFile::Open()");
  if (view != nullptr) return false;
  // An open object without a view (an empty file) is opened over; its
  // descriptors are released rather than lost.
  Close();
  writable = writableArg;
  shared = sharedArg;
  readOnly = readOnlyArg;
  bool forWriting = readOnly == 0 && writable != 0;

  if (path == nullptr) {
    mappingHandle = CreateAnonymousMapping(length);
    fileSize = length;
  } else {
    size_t pathLength = strnlen(path, MAX_PATH_LENGTH);
    if (pathLength >= MAX_PATH_LENGTH) {
      Close();
      return false;
    }
    std::memcpy(fileName, path, pathLength + 1);
    // O_NONBLOCK: opening a FIFO for reading would otherwise wait for a
    // writer. Only regular files go on, and for them the flag means nothing.
    fileHandle = open(path, (forWriting ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    struct stat info;
    if (fileHandle < 0 || fstat(fileHandle, &info) != 0 || !S_ISREG(info.st_mode)) {
      Close();
      return false;
    }
    fileSize = static_cast<uint64_t>(info.st_size);
    if (fileSize == 0) return true;  // open, with no mapping and no view
    mappingHandle = fcntl(fileHandle, F_DUPFD_CLOEXEC, 0);
  }
  if (mappingHandle < 0 || !MapView(offset, length, nullptr, nullptr, 0)) {
    Close();
    return false;
  }
  return true;
}

bool MappedFile::MapView(uint64_t offset, uint64_t length, void** outView, uint64_t* outLength,
                         int32_t mode) {
  PERFORMANCE_SITE("MappedFile::MapView()");
  if (mappingHandle < 0) return false;
  if (view != nullptr && fileName[0] == '\0') return false;
  if (offset >= fileSize) return false;
  void* preferred = view;
  if (view != nullptr) {
    munmap(view, static_cast<size_t>(viewLength));
    view = nullptr;
    viewLength = 0;
  }
  if (length == 0 || length > fileSize - offset) length = fileSize - offset;
  if (mode == 1) {
    readOnly = 0;
    writable = 0;
  } else if (mode == 2) {
    readOnly = 0;
    writable = 1;
  }
  int protection = readOnly == 0 && writable != 0 ? PROT_READ | PROT_WRITE : PROT_READ;
  void* mapped = mmap(preferred, static_cast<size_t>(length), protection, MAP_SHARED, mappingHandle,
                      static_cast<off_t>(offset));
  if (mapped == MAP_FAILED) return false;
  view = mapped;
  viewLength = length;
  if (outView != nullptr) *outView = view;
  if (outLength != nullptr) *outLength = viewLength;
  return true;
}

void MappedFile::Close() {
  PERFORMANCE_SITE("MappedFile::Close()");
  if (view != nullptr) munmap(view, static_cast<size_t>(viewLength));
  if (mappingHandle >= 0) close(mappingHandle);
  if (fileHandle >= 0) close(fileHandle);
  Reset();
}

int32_t MappedFile::Flush(void* address, uint32_t length) {
  PERFORMANCE_SITE("MappedFile::Flush()");
  if (view == nullptr || writable == 0 || readOnly != 0) return 0;
  auto start = reinterpret_cast<uintptr_t>(address);
  auto viewStart = reinterpret_cast<uintptr_t>(view);
  if (start < viewStart || start - viewStart + uint64_t{length} > viewLength) return 0;
  // msync wants a page-aligned start; the view itself begins on a page.
  uintptr_t pageStart = start & ~(PageSize() - 1);
  size_t span = start - pageStart + length;
  return msync(reinterpret_cast<void*>(pageStart), span, MS_SYNC) == 0 ? 1 : 0;
}

bool MappedFile::Read(uint64_t offset, void* to, size_t length) const {
  if (view == nullptr || offset > viewLength || length > viewLength - offset) return false;
  if (length == 0) return true;
  const uint8_t* from = static_cast<const uint8_t*>(view) + offset;
  auto copy = [&] { std::memcpy(to, from, length); };
  return RunGuarded(copy);
}
