/* A minimal host: loads the library at run time, as a surveillance client
 * would, and shows what it says about itself before any media is opened. */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "TQFPlay.h"

typedef int32_t (*InitialFn)(void);
typedef int32_t (*DecoderInfFn)(char*, uint32_t);
typedef int32_t (*MediaInfoFn)(int32_t, MediaInfoRecord*);

int main(int argc, char** argv) {
  /* By default the library beside this program, as the build lays them out. */
  char beside[4096] = "libTQFPlay.so";
  ssize_t n = readlink("/proc/self/exe", beside, sizeof beside - 32);
  if (n > 0) {
    beside[n] = '\0';
    char* slash = strrchr(beside, '/');
    strcpy(slash ? slash + 1 : beside, "libTQFPlay.so");
  }
  const char* path = argc > 1 ? argv[1] : beside;
  void* library = dlopen(path, RTLD_NOW);
  if (!library) {
    fprintf(stderr, "tqf_demo: cannot load %s: %s\n", path, dlerror());
    return 1;
  }
  InitialFn initial = (InitialFn)dlsym(library, "TQ_Initial");
  InitialFn release = (InitialFn)dlsym(library, "TQ_Free");
  DecoderInfFn decoderInf = (DecoderInfFn)dlsym(library, "TQ_GetDecoderInf");
  MediaInfoFn mediaInfo = (MediaInfoFn)dlsym(library, "TQ_GetMediaInfo");
  if (!initial || !release || !decoderInf || !mediaInfo) {
    fprintf(stderr, "tqf_demo: %s lacks the TQ_ exports\n", path);
    return 1;
  }
  char text[256];
  MediaInfoRecord info;
  printf("TQ_Initial: %d\n", initial());
  decoderInf(text, sizeof text);
  printf("decoder: %s\n", text);
  mediaInfo(0, &info);
  printf("media record: lines %u, flags %u, rate %u\n", info.videoLines, info.flags,
         info.frameRate);
  printf("TQ_Free: %d\n", release());
  return 0;
}
