// Places for skip-list nodes: those that nodes of the same kind have left, and then new ones behind
// slNextNode. The caller holds heapLatch, and the heap is open.
//
// A node takes over the level that its place was made for, so the mix of levels stays. A place that
// was left is marked in itself: a chain that a process without knowledge of it has made worthless
// ends at the first place that is no hole any more.
#pragma once

#include "trelshm/heap_view.h"

namespace trel {

enum class NodeKind : uint32_t { allocated = 0, free = 1 };

constexpr uint64_t nodeSize(NodeKind kind, uint64_t level) {
  return kind == NodeKind::allocated ? allocNodeSize(level) : freeNodeSize(level);
}

// What every ordinary new node leaves free behind it, so that blocks can still come back.
constexpr uint64_t reserveAt(uint64_t maxLevel) { return 40 * maxLevel + 96; }
inline uint64_t reserveOf(const Heap& heap) { return reserveAt(heap.maxLevel()); }

// The space in which the first block of a new heap is named, whatever it leaves of the memory.
constexpr uint64_t spaceForFirst(uint64_t maxLevel) {
  constexpr uint64_t kNodes = freeNodeSize(1) + allocNodeSize(0);
  constexpr uint64_t kReturns = round8(3 * (allocNodeSize(0) + freeNodeSize(0)) / 2);
  const uint64_t nodes = kNodes + reserveAt(maxLevel);
  return slHeaderSizeOf(maxLevel) + (nodes > kReturns ? nodes : kReturns);
}

struct NodeRoom {
  uint64_t node, level;
  NodeKind hole;      // whose place it was,
  uint64_t nextHole;  // and the next of these; kNoHole for a new place
};
constexpr uint64_t kNoHole = ~uint64_t{0};

// Looks for a place; nothing is taken yet. False if there is none. With `tight` the reserve may be
// used. `key` is what a new level is drawn from, `inUse` the highest level of the list; the level
// falls as far as it must.
bool findRoom(const Heap& heap, NodeKind kind, uint64_t key, uint64_t inUse, bool tight,
              NodeRoom* room);
void takeRoom(Heap* heap, NodeKind kind, const NodeRoom& room);
// The place of a node that is off its list.
void leaveRoom(const Heap& heap, NodeKind kind, uint64_t node, uint64_t level);
// A place that no node has.
void addHole(const Heap& heap, NodeKind kind, uint64_t node, uint64_t level);
// When nodes have moved.
void forgetHoles(const Heap& heap);

}  // namespace trel
