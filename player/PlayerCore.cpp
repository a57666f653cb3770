#include "PlayerCore.h"

#include "Decoder.h"
#include "OSTime.h"
#include "TQFFormat.h"

PlayerCore::PlayerCore(PlayerManager* owner, int32_t playerHandle)
    : handle(playerHandle), manager(owner), openTime(timeGetTime()) {}

void PlayerCore::Play(PictureCallback newCallback, uint32_t user) {
  callback.store(newCallback, std::memory_order_relaxed);
  userValue.store(user, std::memory_order_relaxed);
  playing.store(1, std::memory_order_release);
}

void PlayerCore::Stop() { playing.store(0, std::memory_order_release); }

void PlayerCore::Deliver(uint8_t* picture, uint32_t stamp) {
  PictureCallback target = callback.load(std::memory_order_relaxed);
  if (target == nullptr) return;
  const int32_t size = static_cast<int32_t>(static_cast<int64_t>(width) * height * 3 / 2);
  target(handle, picture, size, width, height, stamp, PICTURE_FORMAT, PICTURE_RATE,
         userValue.load(std::memory_order_relaxed));
}

void PlayerCore::OpenVideoDecoder(uint32_t key, const uint8_t* descriptor) {
  videoDecoder = CreateDecoder(/*video=*/true, key);
  const int32_t w = static_cast<int32_t>(LoadU32(descriptor + 4));
  const int32_t h = static_cast<int32_t>(LoadU32(descriptor + 8));
  if (!IsPlayablePictureSize(w, h)) throw 0;
  if (videoDecoder && !videoDecoder->Open(w, h)) throw 0;
  width = w;
  height = h;
}
