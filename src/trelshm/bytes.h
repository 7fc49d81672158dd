// Arithmetic on offsets and sizes. No shift, mask or pointer arithmetic outside such helpers.
#pragma once

#include <string.h>

#include "trel/layout.h"

namespace trel {

// Up to the next multiple of 8; a multiple stays. For values near 2^64 the caller tests first.
constexpr uint64_t round8(uint64_t value) { return (value + 7) & ~uint64_t{7}; }
constexpr bool isAligned8(uint64_t value) { return (value & 7) == 0; }

constexpr uint64_t lessOr0(uint64_t a, uint64_t b) { return a > b ? a - b : 0; }

// The address of what lies at an offset from a base. Base 0 is legal, for nodes in process memory,
// so the sum is formed in integers.
template <class T = void>
inline T* at(const void* base, uint64_t offset) {
  return reinterpret_cast<T*>(reinterpret_cast<uintptr_t>(base) + static_cast<uintptr_t>(offset));
}

// The distance from a base up to an address.
inline uint64_t offsetOf(const void* address, const void* base) {
  return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(address) -
                               reinterpret_cast<uintptr_t>(base));
}

// A word that others may change at any time, loaded by one load that no compiler repeats: what has
// been tested is what is used.
inline uint64_t once(const TrelU64& word) { return *const_cast<const volatile TrelU64*>(&word); }
inline uint32_t once(const TrelU32& word) { return *const_cast<const volatile TrelU32*>(&word); }

// The same for a record: no compiler knows that the copy has come from there, so none reads it
// again.
template <class Record>
Record copyOnce(const Record* record) {
  Record copy;
  memcpy(static_cast<void*>(&copy), record, sizeof copy);
  __asm__("" : "+m"(copy));
  return copy;
}

}  // namespace trel
