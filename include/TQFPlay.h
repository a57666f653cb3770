/*
 * TQFPlay: plays TQF media (recorded files and live streams) for a host.
 *
 * Life of a host:
 *   TQ_Initial();                          once
 *   TQ_OpenFile(path, &h)                  or TQ_OpenStream(header, size, &h)
 *   TQ_Play(h, callback, user)             pictures start to arrive
 *   TQ_InputData(h, bytes, n) ...          live streams only, chunks of any size
 *   TQ_CloseFile(h) / TQ_CloseStream(h)
 *   TQ_Free();                             once at the end
 *
 * Results: every function returns 0 for success and -1 for failure, with no
 * other detail; the exceptions are stated at each function. A rejected call
 * leaves all state as it was.
 *
 * Threads: any host thread may call any function except TQ_Initial and
 * TQ_Free, which must not run at the same time as any other call. Pictures are
 * delivered on a thread of the library, never on a host thread:
 *   - for a file, on the player's own thread, while the library holds the
 *     player table for reading and the player's lock. A file's callback must
 *     not call TQ_OpenFile, TQ_OpenStream, TQ_CloseFile or TQ_CloseStream
 *     (they wait for the table, which the callback itself holds). It may call
 *     TQ_Stop, TQ_Play, TQ_SetPlayTime and the time queries.
 *   - for a stream, on the player's worker thread, with no lock held. A
 *     stream's callback must not call TQ_CloseStream on its own player (the
 *     close waits for that very thread).
 * TQ_CloseFile and TQ_CloseStream wait for a callback in progress to return;
 * no callback of a player runs after its close has returned.
 *
 * Diagnostics never reach the return values: the library writes debug lines
 * to a sink (TQ_SetDebugSink) and reports broken internal assertions to a
 * handler (TQ_SetAssertHandler).
 */
#ifndef TQFPLAY_H
#define TQFPLAY_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define TQ_API __attribute__((visibility("default")))
#else
#define TQ_API
#endif

/*
 * The host's picture function, given to TQ_Play.
 *   handle   the player that delivers
 *   picture  planar I420 (luma, then the two chroma planes, rows packed);
 *            owned by the library and valid only during the call
 *   size     width * height * 3 / 2, the bytes of `picture`
 *   width, height  the player's picture size, from the media's header
 *   stamp    the frame's stamp word, passed on unchanged
 *   format   always 5 (planar 12 bits per pixel)
 *   rate     always 25: every time of the library counts 40 ms a frame
 *   user     the value given to TQ_Play
 * The result is ignored. Frames are delivered as fast as decoding and the
 * callback allow; a host that wants real time paces inside its callback.
 */
typedef int32_t (*PictureCallback)(int32_t handle, uint8_t* picture, int32_t size,
                                   int32_t width, int32_t height, uint32_t stamp,
                                   int32_t format, int32_t rate, uint32_t user);

/* Ten bytes, written whole by TQ_GetMediaInfo. Fixed values for every handle. */
#pragma pack(push, 1)
typedef struct MediaInfoRecord {
  uint16_t videoLines; /* 576 */
  uint16_t flags;      /* 0 */
  uint8_t frameRate;   /* 25 */
  uint8_t reserved[5]; /* 0 */
} MediaInfoRecord;
#pragma pack(pop)

/* Builds the library's player table. 0, or -1 if it is built already (the
 * existing one stays). Writes the debug line "TQ_Initial\n" in every case. */
TQ_API int32_t TQ_Initial(void);

/* Closes every player still open and tears the table down; handles start
 * again at 0 after the next TQ_Initial. Always 0, also without TQ_Initial.
 * A host that forgets it still gets its players closed when the library is
 * unloaded or the process exits. */
TQ_API int32_t TQ_Free(void);

/* Copies the decoder information text and its terminating zero to `buffer`.
 * `size` is not looked at: the buffer must hold the whole text (128 bytes are
 * enough). Needs no TQ_Initial. Always 0. */
TQ_API int32_t TQ_GetDecoderInf(char* buffer, uint32_t size);

/* Opens the TQF file at `path` and writes the new player's handle to
 * `*outHandle` (when not null). -1 for a missing or unreadable file, what is
 * not a regular file (refused at once: a FIFO does not block the call), a
 * file that is not TQF, or a picture size the player refuses; `*outHandle` is
 * then unwritten. A failed open uses up a handle number all the same. Files
 * of any size and paths of any length the system allows open. A file cut
 * short while it plays ends where it was cut. */
TQ_API int32_t TQ_OpenFile(const char* path, int32_t* outHandle);

/* Closes a file's player; waits for its thread, and for a callback in
 * progress. -1 for an unknown handle or a stream's handle. */
TQ_API int32_t TQ_CloseFile(int32_t handle);

/* The file's length in whole seconds (40 ms a frame). -1 for an unknown
 * handle or a stream's handle; 0 and nothing written for a null `seconds`. */
TQ_API int32_t TQ_GetFileTime(int32_t handle, uint32_t* seconds);

/* Opens a live stream on its header block (`size` bytes, at least 16) and
 * writes the handle to `*outHandle` (when not null). -1 for a header that is
 * not a TQF stream header or a picture size the player refuses. A stream whose
 * video format no decoder knows opens, and delivers no pictures. A failed
 * open uses up a handle number. */
TQ_API int32_t TQ_OpenStream(const uint8_t* header, uint32_t size, int32_t* outHandle);

/* Closes a stream's player; waits for its worker, and for a callback in
 * progress. Frames still queued are dropped. -1 for an unknown handle or a
 * file's handle. Must not be called from that player's own callback. */
TQ_API int32_t TQ_CloseStream(int32_t handle);

/* Feeds `size` bytes of a live stream, cut anywhere. The player parses them
 * on the calling thread and queues the frames for its worker; when its queue
 * is full, the oldest frames give way. Bytes fed while the stream is not
 * playing are dropped, and the call returns 0. -1 for an unknown handle, a
 * file's handle, or a negative `size` on a playing stream. */
TQ_API int32_t TQ_InputData(int32_t handle, const uint8_t* data, int32_t size);

/* Does nothing: no lock, no lookup, no buffer cleared. Always 0. */
TQ_API int32_t TQ_ClearBuffer(int32_t handle);

/* Writes the fixed MediaInfoRecord (576, 0, 25, zeros) when `info` is not
 * null. The handle is not looked at. Always 0. */
TQ_API int32_t TQ_GetMediaInfo(int32_t handle, MediaInfoRecord* info);

/* Stores the callback and user value and starts delivery; for a file, the
 * play speed goes back to normal. May be called again at any time: the later
 * callback replaces the earlier. A null callback is legal (frames are decoded
 * and not delivered). A file that had played to its end starts again from
 * its first frame. -1 for an unknown handle. */
TQ_API int32_t TQ_Play(int32_t handle, PictureCallback callback, uint32_t user);

/* Pauses: clears the playing flag and nothing else. A stream's worker still
 * delivers what was queued before; a file stops after the current frame.
 * -1 for an unknown handle. */
TQ_API int32_t TQ_Stop(int32_t handle);

/* Seeks a file to `seconds` (past the end: to its last frame): the frame at
 * that time (25 a second) is decoded silently, from the key frame before it,
 * and the next picture delivered is the frame after it. A player that has not
 * yet met a key frame still walks on to the next key frame before it
 * delivers. May be called from the file's own callback. -1 for an unknown
 * handle, a stream's handle or negative `seconds`. */
TQ_API int32_t TQ_SetPlayTime(int32_t handle, int32_t seconds);

/* The file's play position in whole seconds. -1 for an unknown handle or a
 * stream's handle; 0 and nothing written for a null `seconds`. */
TQ_API int32_t TQ_GetPlayTime(int32_t handle, uint32_t* seconds);

/* Starts copying a playing stream's video frames, as they are fed from now
 * on, to a new TQF file at `path` (created or truncated at the next video
 * frame), from the next key frame on. A thread of the library writes the
 * file, so neither the caller nor a slow callback waits for the disk, and a
 * slow callback costs the recording no frame. A frame the disk cannot take
 * (a failed write, or 16 MiB of frames waiting for the disk) is lost to the
 * file with the debug line "TQF record write failed.\n" or "TQF record queue
 * full, frame lost.\n", and the recording goes on from the next key frame.
 * A recording to another path is written out and closed first. -1 for an
 * unknown handle, a file's handle or a null `path`; 0 and no effect while the
 * stream is not playing. */
TQ_API int32_t TQ_StartRecord(int32_t handle, const char* path);

/* Writes out the frames fed before the call, then closes the recording's
 * file. -1 for an unknown handle or a file's handle; 0 and no effect while
 * the stream is not playing. */
TQ_API int32_t TQ_StopRecord(int32_t handle);

/* Receives every debug line of the library, exactly as written (newline
 * included), on whatever thread writes it. Null restores the default: silent,
 * or stderr when the environment variable TQF_DEBUG is set and non-empty. May
 * be called before TQ_Initial; process-wide. Returns 0. */
typedef void (*TQ_DebugSink)(const char* line, void* context);
TQ_API int32_t TQ_SetDebugSink(TQ_DebugSink sink, void* context);

/* Receives the report of a broken internal assertion and answers 3 (abort:
 * the process ends with exit code 255), 4 (retry: break into an attached
 * debugger, then go on) or 5 (ignore: go on). Null restores the default,
 * which writes the report to stderr and ignores. May be called before
 * TQ_Initial; process-wide. Returns 0. */
typedef int32_t (*TQ_AssertHandler)(const char* report, void* context);
TQ_API int32_t TQ_SetAssertHandler(TQ_AssertHandler handler, void* context);

#ifdef __cplusplus
}
#endif

#endif /* TQFPLAY_H */
