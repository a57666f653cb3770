// Paths and files: existence tests, moves, blank files, recursive removal,
// and the checked save.
//
// Paths are zero-terminated `char` strings; a path that cannot be read up to
// its terminating zero counts as naming nothing. Every function reports by its
// result alone (1 success, 0 failure) and is a performance site of its own.
//
// The checked file of IntegralitySave/IntegralityLoad is the payload followed
// by an 8-byte trailer: the unsigned 64-bit sum of the payload bytes, each 0
// to 255, little-endian. Its companions are "<path>.tmp" while it is written
// and "<path>.bak" for the version before; at every moment of a save a valid
// version exists under one of the three names.
#pragma once

#include <cstdint>
#include <vector>

// 1 if `path` names something that is not a directory, else 0.
int32_t IsFileExist(const char* path);
// 1 if `path` names a directory, else 0.
int32_t IsDirExist(const char* path);

// Moves `from` to `to` if IsFileExist(from). Like MoveFileA, the move fails
// when `to` exists. 1 if moved, else 0.
int32_t MoveFileIfExist(const char* from, const char* to);

// Makes `path` a file of exactly `size` bytes (zeros where it grows). With
// `overwrite` 0 an existing file is left alone and the result is 0.
int32_t CreateBlankFile(const char* path, uint32_t size, int32_t overwrite);

// Saves `size` bytes of `data` as a checked file at `path`, keeping the
// version it replaces as "<path>.bak". `data` may be null only if `size` is 0.
int32_t IntegralitySave(const void* data, uint32_t size, const char* path);

// Loads the payload of the checked file at `path` into `out`. If that file is
// damaged (shorter than 9 bytes or a wrong sum) and "<path>.bak" is valid, the
// ".bak" file replaces it and is loaded. 0 with `out` unchanged if neither is
// valid.
int32_t IntegralityLoad(std::vector<uint8_t>& out, const char* path);

// Deletes a file, or a directory with everything below it. Symbolic links
// are removed, never followed. 1 if all of it is gone.
int32_t YCRemoveFileOrDir(const char* path);
