// Where in the order of sizes this process last met free blocks of about a size: node offsets from
// S, by size, one table for heaps whose addresses fall together. Heaps and threads overwrite each
// other's entries, and other processes change the lists: what comes from here is only where to
// look first.
#pragma once

#include "trelshm/heap_view.h"

namespace trel {

constexpr uint64_t kHintTables = 16, kHintClasses = 320;
extern uint32_t sizeHints[kHintTables][kHintClasses];

// One class for each 8 bytes below 1024, then 8 classes for each power of two.
constexpr uint64_t hintClassOf(uint64_t size) {
  if (size < 1024) return size / 8;
  const uint64_t bits = 63 - static_cast<uint64_t>(__builtin_clzll(size));
  const uint64_t kind = 128 + 8 * (bits - 10) + ((size >> (bits - 3)) & 7);
  return kind < kHintClasses ? kind : kHintClasses - 1;
}

inline uint32_t* hintOf(const Heap& heap, uint64_t size) {
  const uint64_t address = reinterpret_cast<uintptr_t>(heap.header());
  const uint64_t table = (address * 0x9e3779b97f4a7c15u) >> 60;
  return &sizeHints[table][hintClassOf(size)];
}

inline uint64_t loadHint(const Heap& heap, uint64_t size) {
  return __atomic_load_n(hintOf(heap, size), __ATOMIC_RELAXED);
}
inline void storeHint(const Heap& heap, uint64_t size, uint64_t nodeFromS) {
  __atomic_store_n(hintOf(heap, size), static_cast<uint32_t>(nodeFromS), __ATOMIC_RELAXED);
}

}  // namespace trel
