/* Who owns a shared segment. C++ alone. */
#ifndef PLATSVC_OWNER_H
#define PLATSVC_OWNER_H

#ifdef __cplusplus

#include <sys/shm.h>
#include <unistd.h>

#include "platsvc/ipc.h"

struct PLATOwner {
  uint32_t userId;
  uint32_t groupId;
  uint32_t accessBits; /* low 16 bits of the mode */
};

/* Owner, group and mode of the segment. */
inline uint32_t platSegmentOwner(const PLATHIPCMemory* memory, PLATOwner* owner) {
  shmid_ds info = {};
  if (const uint32_t code = memory->getInfo(&info)) return code;
  *owner = {info.shm_perm.uid, info.shm_perm.gid, info.shm_perm.mode & 0xffffu};
  return 0;
}

/* The user and the group for whom this process acts. */
inline PLATOwner platProcessOwner(uint32_t accessBits) {
  return {geteuid(), getegid(), accessBits};
}

#endif
#endif
