// InputProblem: why a TQF input cannot be played, in the words a user of the
// ffmpeg tools knows ("No such file or directory", "Permission denied",
// "Invalid data found ..."). The library answers only -1; the tool looks at
// the file itself to name the cause.
#pragma once

#include <string>

// The cause for `path`, as "<path>: <cause>"; for a file that looks playable
// (the library refused it for another reason), "<path>: refused by the library".
std::string DescribeInputProblem(const char* path);
