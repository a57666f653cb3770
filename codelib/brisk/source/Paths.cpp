#include "Paths.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "MappedFile.h"
#include "PerformanceSite.h"

namespace {

// Companion names are limited like the paths they extend.
constexpr size_t COMPANION_PATH_SIZE = 260;

// Whether `text` can be read up to its terminating zero. The memory is read
// through process_vm_readv, which reports a bad address instead of faulting.
bool IsReadableString(const char* text) {
  if (text == nullptr) return false;
  const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  auto address = reinterpret_cast<uintptr_t>(text);
  char chunk[256];
  for (;;) {
    size_t toPageEnd = page - (address & (page - 1));
    size_t want = toPageEnd < sizeof chunk ? toPageEnd : sizeof chunk;
    iovec local{chunk, want};
    iovec remote{reinterpret_cast<void*>(address), want};
    ssize_t got = process_vm_readv(getpid(), &local, 1, &remote, 1, 0);
    // Where the call itself is not allowed (a seccomp filter), nothing can
    // be checked beyond the null test.
    if (got < 0 && (errno == ENOSYS || errno == EPERM)) return true;
    if (got <= 0) return false;
    if (std::memchr(chunk, '\0', static_cast<size_t>(got)) != nullptr) return true;
    address += static_cast<uintptr_t>(got);
  }
}

// The attributes of what `path` names; false if it names nothing.
bool StatPath(const char* path, struct stat* info) {
  return IsReadableString(path) && stat(path, info) == 0;
}

// MoveFileA: a rename that never replaces an existing target.
bool MovePath(const char* from, const char* to) {
  if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
  // A file system without the no-replace flag: test, then rename.
  struct stat info;
  if (lstat(to, &info) == 0) return false;
  return rename(from, to) == 0;
}

bool FormCompanion(char (&out)[COMPANION_PATH_SIZE], const char* path, const char* extension) {
  int length = snprintf(out, sizeof out, "%s%s", path, extension);
  return length > 0 && static_cast<size_t>(length) < sizeof out;
}

uint64_t ByteSum(const uint8_t* bytes, size_t size) {
  uint64_t sum = 0;
  for (size_t i = 0; i < size; ++i) sum += bytes[i];
  return sum;
}

// Maps `path` and, if it holds a payload and a matching sum, copies the
// payload to `out` when `out` is not null.
bool CheckSavedFile(const char* path, std::vector<uint8_t>* out) {
  MappedFile file;
  if (!file.Open(path, MAPPED_READ, /*offset=*/0, MAPPED_WHOLE_FILE, MAPPED_PRIVATE,
                 /*mappingName=*/nullptr, /*readOnly=*/0) || file.view == nullptr) return false;
  if (file.fileSize < 9) return false;
  const auto* bytes = static_cast<const uint8_t*>(file.view);
  size_t payloadSize = file.fileSize - 8;
  uint64_t trailer;
  std::memcpy(&trailer, bytes + payloadSize, sizeof trailer);
  if (trailer != ByteSum(bytes, payloadSize)) return false;
  if (out != nullptr) out->assign(bytes, bytes + payloadSize);
  return true;
}

bool WriteSavedFile(const char* path, const void* data, uint32_t size) {
  FILE* file = fopen(path, "rb+");
  if (file == nullptr) return false;
  if (fseek(file, 0, SEEK_SET) != 0) {
    fclose(file);
    return false;
  }
  uint64_t sum = ByteSum(static_cast<const uint8_t*>(data), size);
  bool written = (size == 0 || fwrite(data, size, 1, file) == 1) &&
                 fwrite(&sum, sizeof sum, 1, file) == 1;
  if (fclose(file) != 0) written = false;
  if (!written) unlink(path);
  return written;
}

int RemoveEntry(const char* path, const struct stat* /*info*/, int type, FTW* /*where*/) {
  return (type == FTW_DP ? rmdir(path) : unlink(path)) == 0 ? 0 : -1;
}

}  // namespace

int32_t IsFileExist(const char* path) {
  PERFORMANCE_SITE("IsFileExist()");
  struct stat info;
  return StatPath(path, &info) && !S_ISDIR(info.st_mode) ? 1 : 0;
}

int32_t IsDirExist(const char* path) {
  PERFORMANCE_SITE("IsDirExist()");
  struct stat info;
  return StatPath(path, &info) && S_ISDIR(info.st_mode) ? 1 : 0;
}

int32_t MoveFileIfExist(const char* from, const char* to) {
  PERFORMANCE_SITE("MoveFileIfExist()");
  if (!IsFileExist(from) || !IsReadableString(to)) return 0;
  return MovePath(from, to) ? 1 : 0;
}

int32_t CreateBlankFile(const char* path, uint32_t size, int32_t overwrite) {
  PERFORMANCE_SITE("CreateBlankFile()");
  if (!IsReadableString(path)) return 0;
  if (overwrite == 0 && IsFileExist(path)) return 0;
  int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) return 0;
  bool sized = ftruncate(fd, static_cast<off_t>(size)) == 0;
  return close(fd) == 0 && sized ? 1 : 0;
}

int32_t IntegralitySave(const void* data, uint32_t size, const char* path) {
  PERFORMANCE_SITE("IntegralitySave()");
  char tmpPath[COMPANION_PATH_SIZE];
  char bakPath[COMPANION_PATH_SIZE];
  if (!IsReadableString(path) || (data == nullptr && size != 0) || size > UINT32_MAX - 8 ||
      !FormCompanion(tmpPath, path, ".tmp") || !FormCompanion(bakPath, path, ".bak"))
    return 0;
  if (!CreateBlankFile(tmpPath, size + 8, 1)) return 0;
  if (!WriteSavedFile(tmpPath, data, size)) return 0;
  if (IsFileExist(path)) {
    unlink(bakPath);
    if (!MovePath(path, bakPath)) return 0;  // the ".tmp" stays as the newest copy
  }
  if (!MovePath(tmpPath, path)) {
    unlink(tmpPath);
    return 0;
  }
  return 1;
}

int32_t IntegralityLoad(std::vector<uint8_t>& out, const char* path) {
  PERFORMANCE_SITE("IntegralityLoad()");
  char bakPath[COMPANION_PATH_SIZE];
  if (!IsReadableString(path) || !FormCompanion(bakPath, path, ".bak")) return 0;
  if (CheckSavedFile(path, &out)) return 1;
  if (!CheckSavedFile(bakPath, nullptr)) return 0;
  unlink(path);
  if (!MovePath(bakPath, path)) return 0;
  return CheckSavedFile(path, &out) ? 1 : 0;
}

int32_t YCRemoveFileOrDir(const char* path) {
  PERFORMANCE_SITE("YCRemoveFileOrDir()");
  struct stat info;
  if (!IsReadableString(path) || lstat(path, &info) != 0) return 0;
  if (!S_ISDIR(info.st_mode)) return unlink(path) == 0 ? 1 : 0;
  // Depth first, so that every folder is empty when it is removed.
  return nftw(path, RemoveEntry, 16, FTW_DEPTH | FTW_PHYS) == 0 ? 1 : 0;
}
