// OutputFile: how every file the tool writes comes to be, so that no run
// destroys a user's file or leaves a part of one behind.
//   - An output that is the same file as one of the run's inputs (the same
//     device and inode, through links too) is refused.
//   - An existing output is refused unless overwriting was asked for (-y).
//   - The output is written to a temporary file in the same folder, with the
//     same extension; Commit renames it into place. A run that fails or is
//     interrupted leaves nothing behind: the destructor removes the
//     temporary file.
//   - "-" is standard output; it and an existing device or FIFO are written
//     directly, except that a writer that seeks back (TQF, WAV, MP4) writes
//     to a temporary file that Commit copies to standard output when that is
//     a pipe.
//
//   OutputFile out;
//   if (!out.Prepare(path, {input}, WriteAccess::SEEKING, &error)) return CommandError(...);
//   Write(out.WritePath());
//   if (!written || !out.Commit(&error)) ...
#pragma once

#include <initializer_list>
#include <string>

// How a writer uses its file: straight through (Y4M), or seeking back to
// finish what it wrote first (TQF, WAV, MP4).
enum class WriteAccess { SEQUENTIAL, SEEKING };

class OutputFile {
 public:
  OutputFile() = default;
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Checks `path` against `inputs` and the overwrite rule (OverwriteAllowed
  // of Options.h) and makes the temporary file. False with a message.
  bool Prepare(const char* path, std::initializer_list<const char*> inputs, WriteAccess access,
               std::string* error);
  // Where to write: the temporary file, or /dev/stdout for "-" (when it is
  // not a pipe, or the writer does not seek).
  const char* WritePath() const { return writePath_.c_str(); }
  bool IsStandardOutput() const { return path_ == "-"; }
  // Puts the written file in place (renamed, or copied to standard output).
  // False with a message.
  bool Commit(std::string* error);

 private:
  bool MakeTemporary(const std::string& pathTemplate, size_t suffixLength, std::string* error);
  bool CopyToStandardOutput(std::string* error);

  std::string path_;
  std::string writePath_;
  bool pending_ = false;  // a temporary file exists that Commit has not moved
  bool spooled_ = false;  // ...and Commit copies it to standard output
};
