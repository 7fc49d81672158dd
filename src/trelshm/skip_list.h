// Skip lists of free and allocated memory. The caller holds heapLatch, and the heap is open.
//
// Order of stores: a node is filled before it is linked; an insertion links level 0 last and a
// deletion unlinks it first, so that the level 0 allocated list alone tells what is allocated.
#pragma once

#include "trelshm/heap_view.h"

namespace trel {

// How a node gets its level and its place.
struct Placement {
  enum class Rule {
    ordinary,  // a drawn level, behind slNextNode with the reserve kept free
    given,     // a level known from before, no reserve asked
    tight      // level 0, the reserve may be used
  };
  Rule rule = Rule::ordinary;
  uint64_t level = 0;
};

// Nodes passed on the way to a key, by level, as far as levels are in use.
struct Path {
  uint64_t node[TREL_HEAP_MAX_LEVEL];
  uint64_t levels;
};

// Puts the empty heads and tail, counters and levels in place. maxLevel and slSpaceSize stand.
void resetLists(const Heap& heap);

// A free block. TREL_RC_SPACE_FULL: no room, nothing changed. `previous` is the node before by
// offset (or the head) where that is known, and saves a search.
uint32_t insertFree(const Heap& heap, uint64_t blockOffset, uint64_t blockSize,
                    Placement placement = {}, uint64_t* node = nullptr, uint64_t previous = 0);
// Takes a free node off both orders; its bytes stay, so that relinkFree can undo it as long as
// nothing else was done in between but what has been undone itself.
uint32_t deleteFree(const Heap& heap, uint64_t node);
void relinkFree(const Heap& heap, uint64_t node);

// The first free node whose offset is not below, or the tail.
uint32_t searchFreeByOffset(const Heap& heap, uint64_t blockOffset, uint64_t* node);
// The first free node whose size is not below, or the tail.
uint32_t searchFreeBySize(const Heap& heap, uint64_t blockSize, uint64_t* node);
// The node before, by offset: the head if there is none.
uint32_t previousFree(const Heap& heap, uint64_t node, uint64_t* previous);
// The node behind, by offset at level 0: the tail if there is none.
uint32_t nextFree(const Heap& heap, uint64_t node, uint64_t* next);
// The free block at exactly that offset, or the kind's rcNotFound.
uint32_t findFree(const Heap& heap, uint64_t blockOffset, uint64_t* node);

// An allocated block. `record` carries all fields but the level.
uint32_t insertAlloc(const Heap& heap, const AllocNode_t& record, uint64_t* node,
                     Placement placement = {});
// The same for a record behind all others; *path holds the last node of each level, at first the
// head in all.
uint32_t appendAlloc(const Heap& heap, const AllocNode_t& record, Path* path, uint64_t* node,
                     Placement placement = {});
// The allocated node of exactly that block, with the way to it.
uint32_t findAlloc(const Heap& heap, uint64_t blockOffset, Path* path, uint64_t* node);
// Takes the node off; the path is that of findAlloc.
void unlinkAlloc(const Heap& heap, uint64_t node, const Path& path);
void relinkAlloc(const Heap& heap, uint64_t node, const Path& path);
// The node behind at level 0 (of the head: the first), 0 at the end.
uint32_t nextAlloc(const Heap& heap, uint64_t node, uint64_t* next);

}  // namespace trel
