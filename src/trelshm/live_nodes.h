// All blocks of a heap, gathered in process memory, and the two steps that write its lists anew.
// The caller holds heapLatch, and the heap is open.
//
// compact() moves the allocated nodes down, in the order of their places, each by stores that a
// death cannot tear (HeapIntent_t). The list at level 0 stays whole. relist() writes all else:
// upper levels, both orders of free blocks, counters. What can fail comes before the first store.
#pragma once

#include "platsvc/memory.h"
#include "trelshm/alloc_list.h"
#include "trelshm/free_lists.h"

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

 private:
  void* block_ = nullptr;
};

class LiveNodes {
 public:
  explicit LiveNodes(Heap* heap) : heap_(heap) {}

  // From lists that are whole.
  uint32_t gather();
  // The allocated blocks alone, by what the owner of the latch left that died: a move of a node
  // that it had begun is ended first.
  uint32_t recover();
  // Takes that block off: one store commits it. Only behind recover().
  void drop(const AllocRef& block);
  // The free blocks are what lies between the allocated. Only behind recover().
  uint32_t findGaps();

  // The allocated block around an offset; node 0 if there is none.
  AllocRef blockAround(uint64_t offset) const;
  struct Gap {
    uint64_t offset, size;
    uint64_t node, level;
  };
  // The free block at that offset, if it is the first.
  Gap* firstFreeAt(uint64_t offset);

  // Finds places for the free nodes between the allocated, where these stand or, compacted, behind
  // them; levels by index as far as the space holds them, else lower. False if even level 0 does
  // not fit.
  bool placeBetween();
  bool placeBehind(uint64_t space);
  // From here on all nodes have level 0.
  void flatten() { flat_ = true; }

  void compact();
  void relist();

 private:
  struct Live {
    uint64_t node, offset, size, level;
  };
  uint32_t gatherAllocated(uint64_t most);
  uint32_t gatherFree();
  uint32_t sortPlaces();
  uint32_t endMove();
  void move(uint64_t i, uint64_t target, uint64_t level);
  uint64_t indexAround(uint64_t offset) const;
  uint64_t indexByPlace(uint64_t k) const { return places_[k] & UINT32_MAX; }
  uint64_t levelOf(uint64_t i) const { return flat_ ? 0 : allocated_[i].level; }
  uint64_t linkTo(uint64_t i) const {
    return slotOfNode(i == 0 ? heap_->allocHead() : allocated_[i - 1].node, 0);
  }
  bool gapAt(uint64_t k, uint64_t* from, uint64_t* to) const;
  void makeHoles();
  template <class GapAt>
  bool place(GapAt&& gapAt);
  void relistAllocated();
  void relistFree();

  Heap* heap_;
  Records<Live> allocated_;   // by offset of the block
  Records<uint64_t> places_;  // by place of the node: the place in the upper half, then the index
  Records<Gap> free_;         // by offset
  Records<uint32_t> sizes_;   // indexes by size, of equal ones the last first
  uint64_t allocatedCount_ = 0, freeCount_ = 0;
  bool flat_ = false, isCompact_ = false;
};

}  // namespace trel
