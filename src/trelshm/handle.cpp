#include "trelshm/handle.h"

#include "platsvc/ipc.h"

namespace trel {
namespace {

// A handle of this process. Entries are never freed, and those that are free are used again: so
// they are found, taken and given back without a latch, by all threads and in forked children.
struct Entry {
  uintptr_t heap;  // its address; kFree; kTaken while the entry is filled
  const void* handle;
  Entry* next;
};

constexpr uintptr_t kFree = 0, kTaken = 1;

// By a hash of the heap's address, so that a process may have many.
constexpr uint32_t kBuckets = 1024;
Entry* buckets[kBuckets];

Entry** bucketOf(uintptr_t heap) {
  return &buckets[static_cast<uint32_t>(heap >> 3) * 0x9e3779b1u >> 22];
}

bool change(Entry* entry, uintptr_t seen, uintptr_t next) {
  return __atomic_compare_exchange_n(&entry->heap, &seen, next, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_RELAXED);
}

Entry* takeFreeEntry(uintptr_t heap) {
  Entry** const first = bucketOf(heap);
  for (Entry* entry = __atomic_load_n(first, __ATOMIC_ACQUIRE); entry; entry = entry->next)
    if (change(entry, kFree, kTaken)) return entry;
  Entry* entry = nullptr;
  if (obtain(&entry)) return nullptr;
  entry->heap = kTaken;
  entry->next = __atomic_load_n(first, __ATOMIC_RELAXED);
  while (!__atomic_compare_exchange_n(first, &entry->next, entry, false, __ATOMIC_RELEASE,
                                      __ATOMIC_RELAXED)) {
  }
  return entry;
}

// Calls visit(entry) for the handles on that heap, until it returns true.
template <class Visit>
Entry* findEntry(const void* heap, Visit&& visit) {
  const auto address = reinterpret_cast<uintptr_t>(heap);
  for (Entry* entry = __atomic_load_n(bucketOf(address), __ATOMIC_ACQUIRE); entry;
       entry = entry->next)
    if (__atomic_load_n(&entry->heap, __ATOMIC_ACQUIRE) == address && visit(entry)) return entry;
  return nullptr;
}

}  // namespace

bool enterHandle(const void* handle, const void* heap) {
  const auto address = reinterpret_cast<uintptr_t>(heap);
  Entry* entry = takeFreeEntry(address);
  if (!entry) return false;
  entry->handle = handle;
  __atomic_store_n(&entry->heap, address, __ATOMIC_RELEASE);
  return true;
}

void removeHandle(const void* handle, const void* heap) {
  findEntry(heap, [&](Entry* entry) {
    return entry->handle == handle && change(entry, reinterpret_cast<uintptr_t>(heap), kFree);
  });
}

bool isLastConnection(const Heap& heap, const PLATHIPCMemory* memory) {
  if (heap.header()->connectionCount <= 1) return true;
  uint32_t handles = 0;
  findEntry(heap.header(), [&](Entry*) { return ++handles > 1; });
  PLATSegmentState state;
  return memory && handles == 1 && memory->getState(&state) == 0 && state.attachments == 1;
}

}  // namespace trel
