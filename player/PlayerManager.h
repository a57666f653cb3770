// PlayerManager: the one table that turns a handle into a player, the handle
// counter, and the lock that decides when a player may be made, used and
// destroyed.
//
// Lock modes of `tableLock` (writers first):
//   exclusive  opens (the whole construction), TQ_CloseFile (the whole
//              destruction), TQ_CloseStream (lookup and removal only);
//   shared     every other operation that names a handle, for its whole call;
//   try-shared a file player's tick.
// TQ_Initial takes no lock; TQ_Free and the exit-time teardown take the
// exclusive lock only to take each entry out of the table.
#pragma once

#include <cstdint>

#include "PlayerTable.h"
#include "RWLock.h"
#include "TQFPlay.h"

struct PlayerCore;
struct PlayerManager;

enum PlayerKindId : int32_t { PLAYER_KIND_STREAM = 0, PLAYER_KIND_FILE = 1 };

// What one kind of player offers the manager. An operation a kind does not
// have is null, and the manager answers -1 for it: this is how operations are
// limited to one kind.
struct PlayerKind {
  // Builds a player; raises an int on failure, having released what it built.
  // `source` and `size`: the stream header and its size, or the file path.
  PlayerCore* (*create)(PlayerManager* manager, int32_t handle, const void* source,
                        uint32_t size);
  void (*destroy)(PlayerCore* player);
  // TQ_Play for this kind, when it does more than PlayerCore::Play.
  int32_t (*play)(PlayerCore* player, PictureCallback callback, uint32_t user);
  int32_t (*inputData)(PlayerCore* player, const uint8_t* data, int32_t size);
  int32_t (*startRecord)(PlayerCore* player, const char* path);
  int32_t (*stopRecord)(PlayerCore* player);
  int32_t (*getFileTime)(PlayerCore* player, uint32_t* seconds);
  int32_t (*getPlayTime)(PlayerCore* player, uint32_t* seconds);
  // Seeks, with the table lock held shared for the whole seek, so that a
  // close of the player waits for it. `seconds` is not negative.
  int32_t (*setPlayTime)(PlayerCore* player, int32_t seconds);
};

// The kinds the library offers, by PlayerKindId; null until a kind exists.
const PlayerKind* PlayerKindOf(int32_t kind);

struct PlayerHolder {
  int32_t kind;
  PlayerCore* player;
};

struct PlayerManager {
  // Guards `table` and `nextHandle`, and keeps players alive while used:
  // shared by every call on a handle and by a file player's tick (for the
  // whole call, so a close waits for it), exclusive to open and close
  // (insert and remove). Taken before a player's `lock`. Its release pairs
  // with the next acquire: a player is wholly built before any call can
  // find it.
  CRWLock tableLock;
  PlayerTable table;
  int32_t nextHandle = 0;

  PlayerManager() = default;
  // Destroys every player left, in handle order. Each entry is taken out of
  // the table (under the exclusive lock for that step only) before its player
  // is destroyed outside the lock.
  ~PlayerManager();
  PlayerManager(const PlayerManager&) = delete;
  PlayerManager& operator=(const PlayerManager&) = delete;

  int32_t OpenFile(const char* path, int32_t* outHandle);
  int32_t OpenStream(const uint8_t* header, uint32_t size, int32_t* outHandle);
  int32_t CloseFile(int32_t handle);
  int32_t CloseStream(int32_t handle);
  int32_t Play(int32_t handle, PictureCallback callback, uint32_t user);
  int32_t Stop(int32_t handle);
  int32_t InputData(int32_t handle, const uint8_t* data, int32_t size);
  int32_t StartRecord(int32_t handle, const char* path);
  int32_t StopRecord(int32_t handle);
  int32_t GetFileTime(int32_t handle, uint32_t* seconds);
  int32_t GetPlayTime(int32_t handle, uint32_t* seconds);
  int32_t SetPlayTime(int32_t handle, int32_t seconds);

  // The holder of `handle`; null if absent. The caller holds `tableLock`.
  PlayerHolder* Lookup(int32_t handle);

 private:
  int32_t Open(int32_t kind, const void* source, uint32_t size, int32_t* outHandle);
  int32_t Close(int32_t kind, int32_t handle);
  // Runs `work` on the player of `handle` under the shared lock; -1 if absent.
  template <class Work>
  int32_t WithPlayer(int32_t handle, Work work);
};
