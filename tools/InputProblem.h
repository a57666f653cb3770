// InputProblem: why a TQF input cannot be played, in the words a user of the
// ffmpeg tools knows ("No such file or directory", "Permission denied",
// "Invalid data found ..."). The library answers only -1; the tool looks at
// the file itself to name the cause.
#pragma once

#include <string>

class TQFReader;

// The cause for `path`, as "<path>: <cause>"; for a file that looks playable
// (the library refused it for another reason), "<path>: refused by the library".
std::string DescribeInputProblem(const char* path);

// Where a player takes its video codec from: a file player from the type of
// record 0, a stream player from the compression field of its descriptor.
enum class CodecField { RECORD_TYPE, DESCRIPTOR_COMPRESSION };

// Why a file the library opens would still give no picture, known before it
// plays: no decoder for its video codec, no video frame (a header block
// alone, or cut before its first frame ends), or no key frame to begin at.
// As "<path>: <cause>", or empty when none of these holds.
std::string DescribeNothingToPlay(TQFReader& reader, const char* path, CodecField field);
// The same for the file at `path`, opened here; a file that does not open
// is described as DescribeInputProblem does.
std::string DescribeNothingToPlay(const char* path, CodecField field);
