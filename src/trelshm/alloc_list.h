// The skip list of allocated memory. The caller holds heapLatch, and the heap is open.
//
// Order of stores: a node is filled before it is linked; an insertion links level 0 last and a
// deletion unlinks it first, so that the list at level 0 alone tells what is allocated.
#pragma once

#include "trelshm/node_room.h"

namespace trel {

// A node with its fields, loaded once. `node` is 0 for none, and the head stands for what is in
// front of the first.
struct AllocRef {
  uint64_t node;
  AllocNode_t fields;

  uint64_t end() const { return fields.blockOffset + fields.blockSize; }
};

// Nodes passed on the way to a key, by level, as far as levels are in use. Good until the list
// changes.
struct AllocPath {
  uint64_t node[TREL_HEAP_MAX_LEVEL];
  uint64_t levels;
};

// A link of level i holds the offset of the next node's own link slot of level i.
constexpr uint64_t slotOfNode(uint64_t node, uint64_t level) {
  return node + kAllocLinks + 8 * level;
}
constexpr uint64_t nodeOfSlot(uint64_t slot, uint64_t level) {
  return slot - kAllocLinks - 8 * level;
}

// The way to where a block of that offset stands, or would.
uint32_t findAllocPath(const Heap& heap, uint64_t blockOffset, AllocPath* path);
// The same for a block that is there, with its node.
uint32_t findAlloc(const Heap& heap, uint64_t blockOffset, AllocPath* path, AllocRef* found);
// The node behind at level 0; the first, behind the head.
uint32_t nextAlloc(const Heap& heap, uint64_t node, AllocRef* next);

// An empty list. maxLevel stands.
void resetAllocList(const Heap& heap);
// Fills and links a node; fields.level is not read.
void linkAlloc(Heap* heap, const NodeRoom& room, const AllocNode_t& fields, const AllocPath& path);
// Takes the node off; the path is that of findAlloc. Its place is not yet a hole.
void unlinkAlloc(const Heap& heap, const AllocRef& node, const AllocPath& path);

}  // namespace trel
