// A key for a shared segment that no other test has, whose segment is gone when the guard is.
#pragma once

#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include "platsvc/base.h"

struct SegmentGuard {
  explicit SegmentGuard(uint32_t number = 0)
      : id{PLAT_STRUCTURE_TAG,
           0x54000000u | static_cast<uint32_t>(getpid() & 0xfffff) << 4 | number},
        owner(getpid()) {
    remove();
  }
  ~SegmentGuard() {
    if (getpid() == owner) remove();
  }
  SegmentGuard(const SegmentGuard&) = delete;

  int segment() const { return shmget(static_cast<key_t>(id.key), 0, 0); }
  bool exists() const { return segment() >= 0; }
  void remove() const {
    if (exists()) shmctl(segment(), IPC_RMID, nullptr);
  }

  const PLATIPCResID id;
  const pid_t owner;
};
