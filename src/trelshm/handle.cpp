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

Entry* entries = nullptr;

bool change(Entry* entry, uintptr_t seen, uintptr_t next) {
  return __atomic_compare_exchange_n(&entry->heap, &seen, next, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_RELAXED);
}

Entry* takeFreeEntry() {
  for (Entry* entry = __atomic_load_n(&entries, __ATOMIC_ACQUIRE); entry; entry = entry->next)
    if (change(entry, kFree, kTaken)) return entry;
  Entry* entry = nullptr;
  if (obtain(&entry)) return nullptr;
  entry->heap = kTaken;
  entry->next = __atomic_load_n(&entries, __ATOMIC_RELAXED);
  while (!__atomic_compare_exchange_n(&entries, &entry->next, entry, false, __ATOMIC_RELEASE,
                                      __ATOMIC_RELAXED)) {
  }
  return entry;
}

// Calls visit(entry) for the handles on that heap, until it returns true.
template <class Visit>
Entry* findEntry(const void* heap, Visit&& visit) {
  const auto address = reinterpret_cast<uintptr_t>(heap);
  for (Entry* entry = __atomic_load_n(&entries, __ATOMIC_ACQUIRE); entry; entry = entry->next)
    if (__atomic_load_n(&entry->heap, __ATOMIC_ACQUIRE) == address && visit(entry)) return entry;
  return nullptr;
}

}  // namespace

bool enterHandle(const void* handle, const void* heap) {
  Entry* entry = takeFreeEntry();
  if (!entry) return false;
  entry->handle = handle;
  __atomic_store_n(&entry->heap, reinterpret_cast<uintptr_t>(heap), __ATOMIC_RELEASE);
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
