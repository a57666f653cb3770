#include "PlayerManager.h"

#include <new>

#include "FilePlayer.h"
#include "PlayerCore.h"
#include "StreamPlayer.h"

namespace {

// The player kinds, by PlayerKindId.
const PlayerKind* const PLAYER_KINDS[] = {
    &StreamPlayer::KIND,  // PLAYER_KIND_STREAM
    &FilePlayer::KIND,    // PLAYER_KIND_FILE
};

void DestroyHolder(PlayerHolder* holder) {
  if (holder->player) PlayerKindOf(holder->kind)->destroy(holder->player);
  delete holder;
}

}  // namespace

const PlayerKind* PlayerKindOf(int32_t kind) {
  return kind >= 0 && kind < 2 ? PLAYER_KINDS[kind] : nullptr;
}

PlayerManager::~PlayerManager() {
  // Each entry leaves the table before its player is destroyed, under the
  // lock for just that step: a callback still running on a later stream's
  // worker may call an export on this handle, and must find it gone.
  for (;;) {
    tableLock.LockExclusive(0);
    PlayerHolder* holder = table.count != 0 ? table.data[0].holder : nullptr;
    if (holder != nullptr) table.RemoveAt(0);
    tableLock.Unlock();
    if (holder == nullptr) break;
    DestroyHolder(holder);
  }
  table.Clear();
}

PlayerHolder* PlayerManager::Lookup(int32_t handle) {
  int32_t index = table.Find(handle);
  return index < 0 ? nullptr : table.data[index].holder;
}

template <class Work>
int32_t PlayerManager::WithPlayer(int32_t handle, Work work) {
  tableLock.LockShared(0);
  PlayerHolder* holder = Lookup(handle);
  int32_t result = holder ? work(PlayerKindOf(holder->kind), holder->player) : -1;
  tableLock.Unlock();
  return result;
}

int32_t PlayerManager::Open(int32_t kind, const void* source, uint32_t size,
                            int32_t* outHandle) {
  tableLock.LockExclusive(0);
  const int32_t handle = nextHandle++;
  const PlayerKind* ops = PlayerKindOf(kind);
  if ((kind == PLAYER_KIND_STREAM && size < 16) || ops == nullptr) {
    tableLock.Unlock();
    return -1;
  }
  PlayerHolder* holder = new (std::nothrow) PlayerHolder{kind, nullptr};
  int32_t result = -1;
  if (holder) {
    try {
      holder->player = ops->create(this, handle, source, size);
      if (table.Insert(handle, holder)) {
        if (outHandle) *outHandle = handle;
        result = 0;
      }
    } catch (int) {
    } catch (const std::bad_alloc&) {
    }
    if (result != 0) DestroyHolder(holder);
  }
  tableLock.Unlock();
  return result;
}

int32_t PlayerManager::OpenFile(const char* path, int32_t* outHandle) {
  return Open(PLAYER_KIND_FILE, path, 0, outHandle);
}

int32_t PlayerManager::OpenStream(const uint8_t* header, uint32_t size, int32_t* outHandle) {
  return Open(PLAYER_KIND_STREAM, header, size, outHandle);
}

int32_t PlayerManager::Close(int32_t kind, int32_t handle) {
  tableLock.LockExclusive(0);
  int32_t index = table.Find(handle);
  if (index < 0 || table.data[index].holder->kind != kind) {
    tableLock.Unlock();
    return -1;
  }
  PlayerHolder* holder = table.data[index].holder;
  if (kind == PLAYER_KIND_FILE) {
    // A file's thread is kept out by the lock itself: destroy under it.
    DestroyHolder(holder);
    table.RemoveAt(index);
    tableLock.Unlock();
  } else {
    // A stream's worker never touches the table: await its end outside.
    table.RemoveAt(index);
    tableLock.Unlock();
    DestroyHolder(holder);
  }
  return 0;
}

int32_t PlayerManager::CloseFile(int32_t handle) { return Close(PLAYER_KIND_FILE, handle); }

int32_t PlayerManager::CloseStream(int32_t handle) { return Close(PLAYER_KIND_STREAM, handle); }

int32_t PlayerManager::Play(int32_t handle, PictureCallback callback, uint32_t user) {
  return WithPlayer(handle, [&](const PlayerKind* kind, PlayerCore* player) {
    if (kind->play) return kind->play(player, callback, user);
    player->Play(callback, user);
    return 0;
  });
}

int32_t PlayerManager::Stop(int32_t handle) {
  return WithPlayer(handle, [](const PlayerKind*, PlayerCore* player) {
    player->Stop();
    return 0;
  });
}

int32_t PlayerManager::InputData(int32_t handle, const uint8_t* data, int32_t size) {
  return WithPlayer(handle, [&](const PlayerKind* kind, PlayerCore* player) {
    return kind->inputData ? kind->inputData(player, data, size) : -1;
  });
}

int32_t PlayerManager::StartRecord(int32_t handle, const char* path) {
  return WithPlayer(handle, [&](const PlayerKind* kind, PlayerCore* player) {
    return kind->startRecord ? kind->startRecord(player, path) : -1;
  });
}

int32_t PlayerManager::StopRecord(int32_t handle) {
  return WithPlayer(handle, [](const PlayerKind* kind, PlayerCore* player) {
    return kind->stopRecord ? kind->stopRecord(player) : -1;
  });
}

int32_t PlayerManager::GetFileTime(int32_t handle, uint32_t* seconds) {
  return WithPlayer(handle, [&](const PlayerKind* kind, PlayerCore* player) {
    return kind->getFileTime ? kind->getFileTime(player, seconds) : -1;
  });
}

int32_t PlayerManager::GetPlayTime(int32_t handle, uint32_t* seconds) {
  return WithPlayer(handle, [&](const PlayerKind* kind, PlayerCore* player) {
    return kind->getPlayTime ? kind->getPlayTime(player, seconds) : -1;
  });
}

int32_t PlayerManager::SetPlayTime(int32_t handle, int32_t seconds) {
  return WithPlayer(handle, [&](const PlayerKind* kind, PlayerCore* player) {
    return kind->setPlayTime && seconds >= 0 ? kind->setPlayTime(player, seconds) : -1;
  });
}
