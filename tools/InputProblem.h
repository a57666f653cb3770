// InputProblem: why a TQF input cannot be played, in the words a user of the
// ffmpeg tools knows ("No such file or directory", "Permission denied",
// "Invalid data found ..."). The library answers only -1; the tool looks at
// the file itself to name the cause.
#pragma once

#include <cstdint>
#include <string>

class TQFReader;

// The cause for `path`, as "<path>: <cause>"; for a file that looks playable
// (the library refused it for another reason), "<path>: refused by the library".
std::string DescribeInputProblem(const char* path);

// When the library has no decoder for the video codec `codec`:
// "<name>: no decoder for the video codec 'XV1D'". Empty when it has one.
std::string DescribeMissingDecoder(const char* name, uint32_t codec);

// Why the frames of the file `reader` has open, at `path`, give no picture:
// no complete video frame (a header block alone, or cut short before its
// first frame ends), or no key frame to begin at. Empty when neither holds.
std::string DescribeNoKeyFrame(const TQFReader& reader, const char* path);

// Both of these for a file player on `path`, whose codec is the type of its
// first record; a file that does not open is described as
// DescribeInputProblem does. Empty when the file can give pictures.
std::string DescribeNothingToPlay(const char* path);
