// The skip lists of free memory: one set of nodes in two orders, by offset and by size. The caller
// holds heapLatch, and the heap is open.
//
// Nothing here must be whole after a death: free blocks are what lies between allocated ones.
#pragma once

#include "trelshm/node_room.h"

namespace trel {

enum Order : uint64_t { byOffset = 0, bySize = 1 };

// A free node whose links can be reached: its offset, and the number of its levels, from which the
// places of its links follow. Only loadFree() makes one from an offset that the heap names. Head
// and tail are nodes too.
struct FreeRef {
  uint64_t node, levels;
};

// Proves an offset good for the links up to the node's own level, and for this level.
bool loadFree(const Heap& heap, uint64_t node, uint64_t level, FreeRef* ref);

// A node with its fields, loaded once. No node: 0.
struct FreeNode {
  FreeRef ref;
  uint64_t offset, size;
  uint64_t sought;  // the size for which it was found, if for one

  uint64_t end() const { return offset + size; }
};

// The smallest block of at least that size, of equal ones the newest; or the kind's rcNoBlock.
uint32_t findFit(const Heap& heap, uint64_t size, FreeNode* found);
// The nodes in front of an offset, and at it or behind.
uint32_t findAround(const Heap& heap, uint64_t offset, FreeNode* before, FreeNode* after);
// The block at exactly that offset, or the kind's rcNotFound.
uint32_t findFree(const Heap& heap, uint64_t offset, FreeNode* found);
// The first node by offset; none if there is none.
uint32_t firstFree(const Heap& heap, FreeNode* first);
// The node behind by offset; none at the end.
uint32_t nextFree(const Heap& heap, const FreeNode& node, FreeNode* next);
// The node in front of one by offset, or the head.
bool previousFree(const Heap& heap, const FreeRef& node, FreeRef* previous);
// The free block that ends there, from the tail in its last bytes. False where that tells nothing.
bool findFreeByTail(const Heap& heap, uint64_t end, FreeNode* found);

// One change of the lists. It is put together first, and then done: what is wrong shows before the
// first store. The order is remove(), then one of the others.
class FreeChange {
 public:
  explicit FreeChange(Heap* heap) : heap_(heap) {}

  // Takes a node off.
  uint32_t remove(const FreeNode& node);
  // Gives a node another block, which stands at the same place in the order of offsets.
  uint32_t resize(const FreeNode& node, uint64_t offset, uint64_t size);
  // A new node. `before` is the node in front of it by offset, or one without a node.
  uint32_t insert(uint64_t offset, uint64_t size, bool tight, const FreeRef& before);
  // A failure means that the heap was changed by somebody who does not hold the latch.
  uint32_t apply();

 private:
  // Predecessors of a node by level.
  struct Path {
    FreeRef before[TREL_HEAP_MAX_LEVEL];
  };
  enum class What { nothing, resized, inserted };

  uint32_t findPredecessors(Order order, FreeRef last, Path* path) const;
  uint32_t findPlaceBySize(uint64_t size);
  void passHintsOn(const FreeNode& node) const;
  bool isLeaving(const FreeRef& ref) const {
    return ref.node == removed_.ref.node || ref.node == changed_.ref.node;
  }

  Heap* heap_;
  FreeNode removed_ = {};
  FreeNode changed_ = {};  // resized: as it was; inserted: as it will be
  What what_ = What::nothing;
  bool moves_ = false;  // in the order of sizes
  uint64_t offset_ = 0, size_ = 0;
  NodeRoom room_ = {};
  Path paths_[2];
};

// Empties both lists: head and tail lead to each other.
void resetFreeLists(const Heap& heap);
// Rebuilding: links a filled node behind `last` of each level, in one order; the tail comes last.
struct FreeEnds {
  FreeRef last[2][TREL_HEAP_MAX_LEVEL];
  explicit FreeEnds(const Heap& heap);
  void append(const Heap& heap, Order order, const FreeRef& node);
  void close(const Heap& heap);
};

}  // namespace trel
