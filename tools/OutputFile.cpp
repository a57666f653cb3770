#include "OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Options.h"

namespace {

constexpr const char STANDARD_OUTPUT[] = "-";

bool SameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The temporary file beside `path`: ".NAME.XXXXXX.EXT", keeping the
// extension that writers choose their format by.
std::string TemporaryTemplate(const std::string& path, size_t* suffixLength) {
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash + 1);
  const std::string name = path.substr(folder.size());
  const size_t dot = name.rfind('.');
  const std::string extension = dot == std::string::npos || dot == 0 ? "" : name.substr(dot);
  *suffixLength = extension.size();
  return folder + "." + name.substr(0, name.size() - extension.size()) + ".XXXXXX" + extension;
}

// The file an input names; "-" is standard input.
bool StatInput(const char* input, struct stat* info) {
  if (std::strcmp(input, "-") == 0) return fstat(STDIN_FILENO, info) == 0;
  return stat(input, info) == 0;
}

}  // namespace

OutputFile::~OutputFile() {
  if (pending_) unlink(writePath_.c_str());
}

bool OutputFile::Prepare(const char* path, std::initializer_list<const char*> inputs,
                         WriteAccess access, std::string* error) {
  path_ = path;
  if (path_ == STANDARD_OUTPUT) {
    writePath_ = "/dev/stdout";
    if (access == WriteAccess::SEQUENTIAL || lseek(STDOUT_FILENO, 0, SEEK_CUR) >= 0) return true;
    const char* folder = std::getenv("TMPDIR");
    spooled_ = true;
    return MakeTemporary(std::string(folder != nullptr && *folder != '\0' ? folder : "/tmp") +
                             "/tqfplay.XXXXXX", 0, error);
  }
  struct stat output;
  if (stat(path, &output) == 0 && !S_ISREG(output.st_mode) && !S_ISDIR(output.st_mode)) {
    writePath_ = path_;  // a device or a FIFO is written as it is
    return true;
  }
  if (stat(path, &output) == 0) {
    for (const char* input : inputs) {
      struct stat in;
      if (input != nullptr && StatInput(input, &in) && SameFile(in, output)) {
        *error = path_ + " is also an input: refusing to write over it";
        return false;
      }
    }
    if (!OverwriteAllowed()) {
      *error = path_ + " already exists (-y overwrites it)";
      return false;
    }
    if (S_ISDIR(output.st_mode)) {
      *error = path_ + ": " + std::strerror(EISDIR);
      return false;
    }
  }
  size_t suffixLength = 0;
  const std::string pathTemplate = TemporaryTemplate(path_, &suffixLength);
  return MakeTemporary(pathTemplate, suffixLength, error);
}

bool OutputFile::MakeTemporary(const std::string& pathTemplate, size_t suffixLength,
                               std::string* error) {
  writePath_ = pathTemplate;
  const int fd = mkstemps(writePath_.data(), static_cast<int>(suffixLength));
  if (fd < 0) {
    *error = "cannot write " + path_ + ": " + std::strerror(errno);
    return false;
  }
  close(fd);
  pending_ = true;
  return true;
}

bool OutputFile::CopyToStandardOutput(std::string* error) {
  const int fd = open(writePath_.c_str(), O_RDONLY | O_CLOEXEC);
  bool copied = fd >= 0;
  char chunk[65536];
  ssize_t got = 0;
  while (copied && (got = read(fd, chunk, sizeof chunk)) != 0) {
    if (got < 0 && errno == EINTR) continue;
    copied = got > 0 && fwrite(chunk, 1, static_cast<size_t>(got), stdout) == static_cast<size_t>(got);
  }
  if (fd >= 0) close(fd);
  copied = fflush(stdout) == 0 && copied;
  if (!copied) *error = "writing to standard output failed: " + std::string(std::strerror(errno));
  unlink(writePath_.c_str());
  pending_ = false;
  return copied;
}

bool OutputFile::Commit(std::string* error) {
  if (!pending_) return true;
  if (spooled_) return CopyToStandardOutput(error);
  // The new file gets the usual permissions of a created file, not mkstemp's 0600.
  const mode_t mask = umask(0);
  umask(mask);
  chmod(writePath_.c_str(), 0666 & ~mask);
  if (rename(writePath_.c_str(), path_.c_str()) != 0) {
    *error = "cannot write " + path_ + ": " + std::strerror(errno);
    return false;
  }
  pending_ = false;
  return true;
}
