#include "PlayerTable.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

// The thresholds of the rules, in entries of the 8 bytes the rules count.
constexpr uint64_t LARGE_ENTRIES = 134217728 / 8;
constexpr uint32_t MIN_GROWTH = 512;
constexpr uint32_t LARGE_STEP = 16777216;

uint64_t PowerOfTwoAtLeast(uint64_t n) {
  uint64_t p = 1;
  while (p < n) p <<= 1;
  return p;
}

uint32_t Clamp32(uint64_t n) { return n > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(n); }

}  // namespace

PlayerTable::~PlayerTable() { free(data); }

uint32_t PlayerTable::GrowthCapacity(uint32_t count, uint32_t adding) {
  uint64_t want = std::max(adding, MIN_GROWTH);
  if (count < LARGE_ENTRIES) return Clamp32(PowerOfTwoAtLeast(count + want));
  return Clamp32(count + std::max<uint64_t>(want, LARGE_STEP));
}

uint32_t PlayerTable::ShrinkTarget(uint32_t n) {
  if (static_cast<uint64_t>(n) - 1 < LARGE_ENTRIES) return Clamp32(PowerOfTwoAtLeast(n + 511ull));
  return Clamp32(n + static_cast<uint64_t>(LARGE_STEP) - 1);
}

int32_t PlayerTable::Search(int32_t handle) const {
  int32_t low = 0;
  int32_t high = static_cast<int32_t>(count) - 1;
  while (low <= high) {
    int32_t middle = low + (high - low) / 2;
    int32_t key = data[middle].handle;
    if (key > handle) {
      high = middle - 1;
    } else if (key < handle) {
      low = middle + 1;
    } else {
      while (middle > 0 && data[middle - 1].handle == handle) --middle;
      return middle;
    }
  }
  return ~low;
}

int32_t PlayerTable::Find(int32_t handle) const {
  int32_t index = Search(handle);
  return index >= 0 ? index : -1;
}

bool PlayerTable::Reallocate(uint32_t newCapacity) {
  void* moved = realloc(data, static_cast<size_t>(newCapacity) * sizeof(PlayerTableEntry));
  if (moved == nullptr) return false;
  data = static_cast<PlayerTableEntry*>(moved);
  capacity = newCapacity;
  end = data + count;
  return true;
}

bool PlayerTable::Insert(int32_t handle, PlayerHolder* holder) {
  int32_t index = Search(handle);
  if (index >= 0) return false;
  index = ~index;
  if (count + 1 > capacity && !Reallocate(GrowthCapacity(count, 1))) return false;
  memmove(data + index + 1, data + index, (count - index) * sizeof(PlayerTableEntry));
  data[index] = {handle, holder};
  ++count;
  end = data + count;
  return true;
}

void PlayerTable::RemoveAt(int32_t index) {
  memmove(data + index, data + index + 1, (count - index - 1) * sizeof(PlayerTableEntry));
  --count;
  end = data + count;
  if (count == 0) {
    Clear();
    return;
  }
  uint32_t target = ShrinkTarget(count);
  if (target < capacity && target >= count) Reallocate(target);
}

void PlayerTable::Clear() {
  free(data);
  data = end = nullptr;
  capacity = count = 0;
}
