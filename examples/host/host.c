/* A complete host of TQFPlay: plays a TQF file to its end and counts the
 * pictures. Build with pkg-config or CMake (see README.md). */
#define _POSIX_C_SOURCE 200809L /* nanosleep */
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <TQFPlay.h>

static atomic_int g_pictures;
static atomic_int g_ended;
static int g_width, g_height;

/* Runs on the player's thread. The picture is valid during the call only:
 * copy what you keep. Do not open or close players from here. */
static int32_t OnPicture(int32_t handle, uint8_t* picture, int32_t size, int32_t width,
                         int32_t height, uint32_t stamp, int32_t format, int32_t rate,
                         uint32_t user) {
  (void)handle, (void)picture, (void)size, (void)stamp, (void)format, (void)rate, (void)user;
  g_width = width;
  g_height = height;
  atomic_fetch_add(&g_pictures, 1);
  return 0;
}

/* A file player writes this debug line when it has played its last frame. */
static void OnDebugLine(const char* line, void* context) {
  (void)context;
  if (strncmp(line, "PostMessage(): wnd=0, msg=0", 27) == 0) atomic_store(&g_ended, 1);
}

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: host FILE.tqf\n");
    return 2;
  }
  TQ_SetDebugSink(OnDebugLine, NULL);
  TQ_Initial();
  int32_t handle;
  if (TQ_OpenFile(argv[1], &handle) != 0) {
    fprintf(stderr, "cannot open %s\n", argv[1]);
    TQ_Free();
    return 1;
  }
  uint32_t seconds = 0;
  TQ_GetFileTime(handle, &seconds);
  TQ_Play(handle, OnPicture, 0);
  /* The library has no clock and no end callback: wait for the end line, and
   * give up when no picture comes for ten seconds (a file without key frames
   * never ends). */
  int last = -1, idle = 0;
  while (!atomic_load(&g_ended) && idle < 1000) {
    struct timespec tick = {0, 10 * 1000 * 1000};
    nanosleep(&tick, NULL);
    int now = atomic_load(&g_pictures);
    idle = now == last ? idle + 1 : 0;
    last = now;
  }
  TQ_CloseFile(handle); /* no callback runs after this returns */
  TQ_Free();
  printf("%d pictures of %dx%d, %u s\n", atomic_load(&g_pictures), g_width, g_height, seconds);
  return atomic_load(&g_ended) ? 0 : 1;
}
