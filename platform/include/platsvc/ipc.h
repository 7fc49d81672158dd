/* Shared segments: System V shared memory. C++ alone. */
#ifndef PLATSVC_IPC_H
#define PLATSVC_IPC_H

#include <stddef.h>

#include "platsvc/base.h"
#include "platsvc/codes.h"

#ifdef __cplusplus

struct shmid_ds;

/* create found a segment of that key. */
constexpr uint32_t kPlatSegmentExists = PLAT_RC_SEGMENT_EXISTS;

struct PLATIPCMemoryCreateParam {
  uint32_t structureTag; /* PLAT_STRUCTURE_TAG */
  PLATIPCResID resId;
  uint32_t size;
  uintptr_t address;    /* 0, or where to map */
  uint32_t permissions; /* low 9 bits */
  uint32_t reserved;    /* 0 */
};

struct PLATIPCSecurityParam {
  uint32_t structureTag; /* PLAT_STRUCTURE_TAG */
  uint32_t ownerId;
  uint32_t groupId;
  uint32_t accessBits; /* low 9 bits */
};

/* What the system knows of a segment, for the calling process. */
struct PLATSegmentState {
  uint64_t attachments; /* mappings of all processes */
  uint8_t isOwn;        /* made by the caller's user, and owned by it */
  uint8_t mayRemove;    /* the caller's user or capability is enough to remove it */
};

/* One shared segment. An object is made by `new`, which gives null when there is no memory, and is
 * 8 bytes. Every operation returns 0 or a code of codes.def. A segment is not mapped anew over an
 * occupied address: a hint that cannot be had exactly is passed over. An object is not for several
 * threads at once. */
class PLAT_API PLATHIPCMemory {
 public:
  PLATHIPCMemory();
  /* Leaves a segment that is still attached mapped. */
  ~PLATHIPCMemory();
  PLATHIPCMemory(const PLATHIPCMemory&) = delete;
  PLATHIPCMemory& operator=(const PLATHIPCMemory&) = delete;

  static void* operator new(size_t size) noexcept;
  static void operator delete(void* object) noexcept;

  /* Makes and maps a new segment, its bytes zero. kPlatSegmentExists if the key is taken. A segment
   * that cannot be mapped stays, for others may use it by now. PLAT_RC_NO_SEGMENT: others have
   * removed it before it was mapped. */
  uint32_t create(const PLATIPCMemoryCreateParam* param);
  /* Maps the segment of that key, at the address if it can be had, else anywhere. */
  uint32_t attach(const PLATIPCResID* resId, const void* address);
  /* The same for looking alone, which asks for no right to write: a store into it is a fault. */
  uint32_t attachForReading(const PLATIPCResID* resId, const void* address);
  bool isAttached() const { return state_ != nullptr; }
  uint32_t getAddress(void** address) const;
  /* Bytes of the segment, 0 when not attached. */
  size_t getSize() const { return state_ ? state_->size : 0; }
  /* Unmaps; the segment stays. An address that is no longer mapped counts as detached. */
  uint32_t detach();
  /* Frees the key. The segment goes when the last process unmaps it. */
  uint32_t remove();
  /* Removes the segment and unmaps it. A segment that is gone already is a success. */
  uint32_t destroy();
  uint32_t getInfo(shmid_ds* info) const;
  uint32_t getState(PLATSegmentState* state) const;
  /* 0 if that key leads to this segment, PLAT_RC_NO_SEGMENT if it leads nowhere,
   * PLAT_RC_OTHER_SEGMENT if it leads to another one. */
  uint32_t findKey(const PLATIPCResID* resId) const;
  /* Sets owner, group and access bits. */
  uint32_t authorize(const PLATIPCSecurityParam* param);

 private:
  struct State {
    int id;
    void* address;
    size_t size;
  };
  PLAT_HIDDEN uint32_t adopt(int id, const void* hint, size_t size, int flags);
  PLAT_HIDDEN uint32_t attachAs(const PLATIPCResID* resId, const void* address, int flags);
  PLAT_HIDDEN void forget();
  union {
    State* state_;
    uint64_t width_;
  };
};

static_assert(sizeof(PLATHIPCMemory) == 8, "an object is 8 bytes");

/* Who owns a segment. */
struct PLATOwner {
  uint32_t userId;
  uint32_t groupId;
  uint32_t accessBits; /* low 16 bits of the mode */
};

PLAT_BEGIN_C
/* Owner, group and mode of an attached segment. Returns 0 or a code of codes.def, *owner then
 * untouched. */
PLAT_API uint32_t platSegmentOwner(const PLATHIPCMemory* memory, PLATOwner* owner);
/* The user and the group for whom this process acts. */
PLAT_API void platProcessOwner(uint32_t accessBits, PLATOwner* owner);
PLAT_END_C

#endif
#endif
