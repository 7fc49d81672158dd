// Shared segments over System V shared memory.

#include "platsvc/ipc.h"

#include <errno.h>
#include <linux/capability.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr uint32_t kAccessBits = 0777;

uint32_t codeOf(int error) {
  switch (error) {
    case EEXIST:
      return PLAT_RC_SEGMENT_EXISTS;
    case ENOENT:
    case EIDRM:
      return PLAT_RC_NO_SEGMENT;
    case EACCES:
    case EPERM:
      return PLAT_RC_ACCESS;
    case EINVAL:
      return PLAT_RC_SEGMENT_SIZE;
    case ENOSPC:
    case ENOMEM:
    case ENFILE:
    case EMFILE:
      return PLAT_RC_SEGMENT_LIMIT;
    default:
      return PLAT_RC_SYSTEM;
  }
}

// Maps at the hint, else anywhere. Null with errno. Without SHM_REMAP and SHM_RND the system
// refuses a hint that is occupied or unaligned.
void* map(int id, const void* hint, int flags) {
  void* const failed = reinterpret_cast<void*>(-1);
  void* address = hint ? shmat(id, hint, flags) : failed;
  if (address == failed) address = shmat(id, nullptr, flags);
  return address == failed ? nullptr : address;
}

// Where no hint is given, it is the id that is not valid: the segment went meanwhile.
uint32_t mapCode(int error) { return error == EINVAL ? PLAT_RC_NO_SEGMENT : codeOf(error); }

// Control of a segment by its id, which is no longer valid once the segment is gone.
uint32_t control(int id, int command, shmid_ds* info) {
  if (shmctl(id, command, info) == 0) return 0;
  return errno == EINVAL ? PLAT_RC_NO_SEGMENT : codeOf(errno);
}

// The capability that allows to remove what others own.
bool mayAdminister() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
  static_assert(CAP_SYS_ADMIN < 32, "in the first word");
  return syscall(SYS_capget, &header, sets) == 0 && (sets[0].effective >> CAP_SYS_ADMIN & 1) != 0;
}

}  // namespace

PLATHIPCMemory::PLATHIPCMemory() : width_(0) {}

PLATHIPCMemory::~PLATHIPCMemory() { free(state_); }

void* PLATHIPCMemory::operator new(size_t size) noexcept { return malloc(size); }

void PLATHIPCMemory::operator delete(void* object) noexcept { free(object); }

// Maps a segment and becomes its object. size 0: asks the system.
uint32_t PLATHIPCMemory::adopt(int id, const void* hint, size_t size, int flags) {
  State* state = static_cast<State*>(malloc(sizeof(State)));
  if (!state) return PLAT_RC_NO_MEMORY;
  *state = {id, map(id, hint, flags), size};
  uint32_t code = state->address ? 0 : mapCode(errno);
  shmid_ds info;
  if (code == 0 && size == 0) {
    code = control(id, IPC_STAT, &info);
    if (code == 0) {
      state->size = info.shm_segsz;
    } else {
      shmdt(state->address);
    }
  }
  if (code == 0) {
    state_ = state;
  } else {
    free(state);
  }
  return code;
}

void PLATHIPCMemory::forget() {
  free(state_);
  state_ = nullptr;
}

uint32_t PLATHIPCMemory::create(const PLATIPCMemoryCreateParam* param) {
  if (!param || param->resId.key == 0) return PLAT_RC_ARGUMENT;
  if (isAttached()) return PLAT_RC_ALREADY_ATTACHED;
  const int id = shmget(static_cast<key_t>(param->resId.key), param->size,
                        IPC_CREAT | IPC_EXCL | static_cast<int>(param->permissions & kAccessBits));
  if (id < 0) return codeOf(errno);
  return adopt(id, reinterpret_cast<const void*>(param->address), param->size, 0);
}

uint32_t PLATHIPCMemory::attachAs(const PLATIPCResID* resId, const void* address, int flags) {
  if (!resId || resId->key == 0) return PLAT_RC_ARGUMENT;
  if (isAttached()) return PLAT_RC_ALREADY_ATTACHED;
  const int id = shmget(static_cast<key_t>(resId->key), 0, 0);
  return id < 0 ? codeOf(errno) : adopt(id, address, 0, flags);
}

uint32_t PLATHIPCMemory::attach(const PLATIPCResID* resId, const void* address) {
  return attachAs(resId, address, 0);
}

uint32_t PLATHIPCMemory::attachForReading(const PLATIPCResID* resId, const void* address) {
  return attachAs(resId, address, SHM_RDONLY);
}

uint32_t PLATHIPCMemory::getAddress(void** address) const {
  if (!address) return PLAT_RC_ARGUMENT;
  *address = isAttached() ? state_->address : nullptr;
  return isAttached() ? PLAT_RC_OK : PLAT_RC_NOT_ATTACHED;
}

uint32_t PLATHIPCMemory::detach() {
  if (!isAttached()) return PLAT_RC_NOT_ATTACHED;
  if (shmdt(state_->address) != 0 && errno != EINVAL) return codeOf(errno);
  forget();
  return 0;
}

uint32_t PLATHIPCMemory::remove() {
  if (!isAttached()) return PLAT_RC_NOT_ATTACHED;
  const uint32_t code = control(state_->id, IPC_RMID, nullptr);
  return code == PLAT_RC_NO_SEGMENT ? 0 : code;
}

uint32_t PLATHIPCMemory::destroy() {
  const uint32_t code = remove();
  return code ? code : detach();
}

uint32_t PLATHIPCMemory::getInfo(shmid_ds* info) const {
  if (!info) return PLAT_RC_ARGUMENT;
  if (!isAttached()) return PLAT_RC_NOT_ATTACHED;
  return control(state_->id, IPC_STAT, info);
}

uint32_t PLATHIPCMemory::getState(PLATSegmentState* state) const {
  if (!state) return PLAT_RC_ARGUMENT;
  shmid_ds info;
  if (const uint32_t code = getInfo(&info)) return code;
  const uid_t user = geteuid();
  const bool owns = info.shm_perm.uid == user, made = info.shm_perm.cuid == user;
  *state = {info.shm_nattch, owns && made, owns || made || mayAdminister()};
  return 0;
}

uint32_t PLATHIPCMemory::findKey(const PLATIPCResID* resId) const {
  if (!resId || resId->key == 0) return PLAT_RC_ARGUMENT;
  if (!isAttached()) return PLAT_RC_NOT_ATTACHED;
  const int id = shmget(static_cast<key_t>(resId->key), 0, 0);
  if (id < 0) return codeOf(errno);
  return id == state_->id ? PLAT_RC_OK : PLAT_RC_OTHER_SEGMENT;
}

uint32_t PLATHIPCMemory::authorize(const PLATIPCSecurityParam* param) {
  if (!param) return PLAT_RC_ARGUMENT;
  shmid_ds info;
  const uint32_t code = getInfo(&info);
  if (code != 0) return code;
  info.shm_perm.uid = param->ownerId;
  info.shm_perm.gid = param->groupId;
  info.shm_perm.mode = static_cast<decltype(info.shm_perm.mode)>(
      (info.shm_perm.mode & ~kAccessBits) | (param->accessBits & kAccessBits));
  return control(state_->id, IPC_SET, &info);
}

uint32_t platSegmentOwner(const PLATHIPCMemory* memory, PLATOwner* owner) {
  if (!memory || !owner) return PLAT_RC_ARGUMENT;
  shmid_ds info;
  if (const uint32_t code = memory->getInfo(&info)) return code;
  *owner = {info.shm_perm.uid, info.shm_perm.gid, info.shm_perm.mode & 0xffffu};
  return 0;
}

void platProcessOwner(uint32_t accessBits, PLATOwner* owner) {
  *owner = {geteuid(), getegid(), accessBits};
}
