// All live nodes of a heap, copied to process memory in order of offset, to be entered anew. What
// can fail comes first: commit() cannot. The caller holds heapLatch.
#pragma once

#include "platsvc/memory.h"
#include "trelshm/skip_list.h"

namespace trel {

// A block of process memory for count records.
template <class T>
class Records {
 public:
  Records() = default;
  Records(const Records&) = delete;
  Records& operator=(const Records&) = delete;
  ~Records() {
    if (block_) _platMemFree(&block_, 0, 0, __FILE__, __LINE__);
  }
  bool allocate(uint64_t count) {
    return count == 0 || (count <= UINT32_MAX / sizeof(T) &&
                          _platMemAlloc(&block_, 0, static_cast<uint32_t>(count * sizeof(T)), 1,
                                        __FILE__, __LINE__) == 0);
  }
  T& operator[](uint64_t i) const {
    if (!block_) __builtin_unreachable();  // no records, no index
    return static_cast<T*>(block_)[i];
  }
  explicit operator bool() const { return block_ != nullptr; }

 private:
  void* block_ = nullptr;
};

struct FreeBlock {
  uint64_t offset, size, level;
};

class LiveNodes {
 public:
  // From lists that are whole. The heap is open.
  uint32_t gather(const Heap& heap);
  // What the owner of the latch left that died: the allocated blocks, from the records of its
  // rebuild or else from the allocated list at level 0. Opens the heap.
  uint32_t recover(Heap* heap);

  // The allocated block with that offset, null if there is none.
  const AllocNode_t* find(uint64_t offset, TrelU64 AllocNode_t::*which) const;
  void drop(uint64_t blockOffset);
  // The free blocks are what lies between the allocated.
  uint32_t findGaps(const Heap& heap);

  FreeBlock* freeAt(uint64_t offset);
  // Whether all nodes fit a space of that size with the levels that they have.
  bool fit(const Heap& heap, uint64_t space) const;
  // From here on all nodes have level 0.
  void flatten();

  // Writes the lists anew, in place. A death in the middle can be repaired if a free block, or the
  // heap's spare one, has room for a record of each allocated block.
  void commit(Heap* heap, uint64_t space);

 private:
  uint32_t gatherAllocated(const Heap& heap);
  uint32_t gatherFree(const Heap& heap);
  uint32_t recall(Heap* heap);
  uint64_t findRoom(const Heap& heap, uint64_t space, uint64_t bytes) const;
  void writeRecords(const Heap& heap, uint64_t space, uint64_t offset) const;
  bool enter(const Heap& heap, Placement::Rule rule);
  void writePadOffsets(const Heap& heap);

  Records<AllocNode_t> allocated_;
  Records<FreeBlock> free_;
  uint64_t allocatedCount_ = 0, freeCount_ = 0, bytes_ = 0;
};

}  // namespace trel
