#include "PlayerCore.h"

#include "OSTime.h"

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
