// PictureCounter: what a run that feeds a player waits on, the count of
// pictures delivered so far. PictureSink (play, stream, snapshot) and
// PictureSlot (a tile of view) both count.
#pragma once

#include <chrono>
#include <cstdint>

class PictureCounter {
 public:
  virtual ~PictureCounter() = default;
  // Pictures delivered so far.
  virtual uint32_t Pictures() const = 0;
  // Waits until at least `count` pictures have arrived, or for `timeout`
  // after the last picture (or the call) if none comes. True if they did.
  virtual bool WaitForPictures(uint32_t count, std::chrono::milliseconds timeout) = 0;
};
