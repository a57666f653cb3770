// PlayerTable: the sorted array of (handle, holder) entries behind the player
// manager, with its growth and shrink rules.
//
// Lookups are binary searches that walk left over equal keys. Storage grows to
// the smallest power of two that holds count plus max(new, 512) entries while
// the entries take less than 128 MiB (at 8 bytes an entry), and by at least
// 16,777,216 entries beyond; it shrinks after a removal to the smallest power
// of two holding n + 511 (or to n + 16,777,215 beyond 128 MiB) and is released
// when the last entry goes.
#pragma once

#include <cstdint>

struct PlayerHolder;

struct PlayerTableEntry {
  int32_t handle;
  PlayerHolder* holder;
};

struct PlayerTable {
  uint32_t capacity = 0;
  uint32_t count = 0;
  PlayerTableEntry* data = nullptr;
  PlayerTableEntry* end = nullptr;

  PlayerTable() = default;
  ~PlayerTable();
  PlayerTable(const PlayerTable&) = delete;
  PlayerTable& operator=(const PlayerTable&) = delete;

  // The index of the first entry with `handle`, or -1.
  int32_t Find(int32_t handle) const;
  // Inserts in order. False if the handle is present (the table is unchanged)
  // or storage could not be had.
  bool Insert(int32_t handle, PlayerHolder* holder);
  // Removes the entry at `index` and shrinks the storage by the rule above.
  void RemoveAt(int32_t index);
  // Drops every entry and the storage.
  void Clear();

  // The capacity that growth picks for `count` entries and `adding` more.
  static uint32_t GrowthCapacity(uint32_t count, uint32_t adding);
  // The capacity that a removal leaving `n` entries aims for.
  static uint32_t ShrinkTarget(uint32_t n);

 private:
  // The index of `handle`, or of the place it belongs as ~index.
  int32_t Search(int32_t handle) const;
  bool Reallocate(uint32_t newCapacity);
};
