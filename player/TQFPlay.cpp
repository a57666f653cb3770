// The library's exported functions. Each forwards to the one PlayerManager;
// only TQ_Initial and TQ_Free, and the three that need no manager, do work of
// their own.
#include "TQFPlay.h"

#include <cstring>
#include <new>

#include "Diagnostics.h"
#include "PerformanceSite.h"
#include "PlayerManager.h"
#include "TQFFormat.h"

namespace {

// The manager lives in static storage, built by TQ_Initial and torn down by
// TQ_Free, so that each TQ_Initial gives a fresh one. `initialised` is a plain
// word: the host must not run TQ_Initial or TQ_Free beside any other call.
alignas(PlayerManager) unsigned char g_managerStorage[sizeof(PlayerManager)];
int32_t g_initialised = 0;
const int32_t g_runtimeInit = YCCRT_API_init();  // kept, never read

PlayerManager& Manager() { return *std::launder(reinterpret_cast<PlayerManager*>(g_managerStorage)); }

void TearDown() {
  Manager().~PlayerManager();
  g_initialised = 0;
}

// A host that forgot TQ_Free still gets its players closed at unload or exit.
__attribute__((destructor)) void TearDownAtUnload() {
  if (g_initialised) TearDown();
}

}  // namespace

extern "C" {

TQ_API int32_t TQ_Initial(void) {
  (void)g_runtimeInit;
  OutputDebugStringA("TQ_Initial\n");
  if (g_initialised) return -1;
  new (g_managerStorage) PlayerManager();
  g_initialised = 1;
  return 0;
}

TQ_API int32_t TQ_Free(void) {
  OutputDebugStringA("TQ_Free\n");
  if (g_initialised) TearDown();
  return 0;
}

TQ_API int32_t TQ_GetDecoderInf(char* buffer, uint32_t) {
  memcpy(buffer, TQF_DECODER_INFO, sizeof TQF_DECODER_INFO);
  return 0;
}

TQ_API int32_t TQ_OpenFile(const char* path, int32_t* outHandle) {
  return Manager().OpenFile(path, outHandle);
}

TQ_API int32_t TQ_CloseFile(int32_t handle) { return Manager().CloseFile(handle); }

TQ_API int32_t TQ_GetFileTime(int32_t handle, uint32_t* seconds) {
  return Manager().GetFileTime(handle, seconds);
}

TQ_API int32_t TQ_OpenStream(const uint8_t* header, uint32_t size, int32_t* outHandle) {
  return Manager().OpenStream(header, size, outHandle);
}

TQ_API int32_t TQ_CloseStream(int32_t handle) { return Manager().CloseStream(handle); }

TQ_API int32_t TQ_InputData(int32_t handle, const uint8_t* data, int32_t size) {
  return Manager().InputData(handle, data, size);
}

TQ_API int32_t TQ_ClearBuffer(int32_t) { return 0; }

TQ_API int32_t TQ_GetMediaInfo(int32_t, MediaInfoRecord* info) {
  if (info) {
    memset(info, 0, sizeof *info);
    info->videoLines = 576;
    info->frameRate = 25;
  }
  return 0;
}

TQ_API int32_t TQ_Play(int32_t handle, PictureCallback callback, uint32_t user) {
  return Manager().Play(handle, callback, user);
}

TQ_API int32_t TQ_Stop(int32_t handle) { return Manager().Stop(handle); }

TQ_API int32_t TQ_SetPlayTime(int32_t handle, int32_t seconds) {
  return Manager().SetPlayTime(handle, seconds);
}

TQ_API int32_t TQ_GetPlayTime(int32_t handle, uint32_t* seconds) {
  return Manager().GetPlayTime(handle, seconds);
}

TQ_API int32_t TQ_StartRecord(int32_t handle, const char* path) {
  return Manager().StartRecord(handle, path);
}

TQ_API int32_t TQ_StopRecord(int32_t handle) { return Manager().StopRecord(handle); }

TQ_API int32_t TQ_SetDebugSink(TQ_DebugSink sink, void* context) {
  SetDebugSink(sink, context);
  return 0;
}

TQ_API int32_t TQ_SetAssertHandler(TQ_AssertHandler handler, void* context) {
  SetAssertHandler(handler, context);
  return 0;
}

}  // extern "C"
