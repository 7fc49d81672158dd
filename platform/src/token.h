// Who a thread is, and whether the owner of a latch lives.
#pragma once

#include "platsvc/latch.h"

namespace plat {

// The parts of a latch word.
constexpr uint64_t kThreadMask = 0x3fffff;
constexpr int kCountShift = 22;
constexpr uint64_t kCountMask = 0x1ff;
constexpr uint64_t kWaiters = uint64_t{1} << 31;
constexpr uint64_t kUrgent = uint64_t{1} << 63;

constexpr uint64_t ownerOf(uint64_t word) { return word & ~(kWaiters | kUrgent); }
constexpr uint32_t threadOf(uint64_t word) { return static_cast<uint32_t>(word & kThreadMask); }
constexpr uint32_t tokenOf(uint64_t word) { return static_cast<uint32_t>(ownerOf(word) >> 32); }

// The namespace of a process that cannot find out its own.
constexpr uint32_t kUnknownSpace = 1;

// The IPC namespace of the calling thread.
uint32_t currentSpace();

// Fills platThreadIdentity, and makes the process's token, at need. 0 or PLAT_RC_NO_TOKEN,
// which is reported once.
uint32_t enrol();

// Whether platThreadIdentity holds what this process wrote.
inline bool isEnrolled() { return __atomic_load_n(platThreadIdentity.key, __ATOMIC_RELAXED) != 0; }

// The namespace in which the process's token was made. The calling thread is enrolled.
uint32_t tokenSpace();

// Whether the calling thread, which is enrolled, sees its own token, and so can judge others.
bool seesItsToken();

// Whether an owner has surely ended: its process, or it alone as far as can be seen. A thorough
// look reads procfs. The caller's namespace is that of the latch. *process gets the owner's process
// id where it can be seen, else 0; it may be null.
bool ownerHasEnded(uint64_t owner, bool thorough, uint32_t* process);

}  // namespace plat
