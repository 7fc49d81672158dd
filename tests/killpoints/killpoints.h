// The end of a process at a chosen store to shared memory.
#pragma once

#include <cstdint>

namespace killpoints {

// From now on the store number `stores`, counted from 0, to this memory is not made any more: the
// process is killed in front of it. A run of bytes counts as two stores, one half each.
void arm(const void* memory, uint64_t size, uint64_t stores);
// The same for every System V segment that the process maps, now or later. A call that makes, maps,
// unmaps, changes or removes one counts as a store.
void armSegments(uint64_t stores);
void disarm();

}  // namespace killpoints
