// The two kinds of storage heap: one format, two sets of codes.
#pragma once

#include "trel/codes.h"
#include "trel/layout.h"

namespace trel {

struct HeapKind {
  uint32_t kind;
  uint32_t state;    // heapState of a valid heap
  uint64_t minimum;  // of an allocation, in bytes

  uint32_t rcState;      // heapState wrong, or the heap is damaged
  uint32_t rcOffset;     // heapOffset wrong
  uint32_t rcMarked;     // marked for deletion
  uint32_t rcHeader;     // header size does not fit the layout
  uint32_t rcListEnd;    // allocated list ends before the offset
  uint32_t rcNotFound;   // no block at exactly that offset
  uint32_t rcNoBlock;    // no free block fits
  uint32_t rcNodeSmall;  // free node smaller than sought
  uint32_t rcOptions;
  uint32_t rcSizeSmall;
  uint32_t rcAboveFree;
  uint32_t rcAboveHeap;
  uint32_t rcCheckRange;  // offset of an allocation under check out of range
};

inline constexpr HeapKind kDomainKind = {
    TREL_HEAP_DOMAIN,           TREL_DOMAIN_STATE,         4096,
    TREL_RC_DOMAIN_STATE,       TREL_RC_DOMAIN_OFFSET,     TREL_RC_DOMAIN_MARKED,
    TREL_RC_DOMAIN_HEADER_SIZE, TREL_RC_DOMAIN_LIST_END,   TREL_RC_DOMAIN_NOT_FOUND,
    TREL_RC_DOMAIN_NO_BLOCK,    TREL_RC_DOMAIN_NODE_SMALL, TREL_RC_DOMAIN_OPTIONS,
    TREL_RC_DOMAIN_SIZE_SMALL,  TREL_RC_DOMAIN_ABOVE_FREE, TREL_RC_DOMAIN_ABOVE_HEAP,
    TREL_RC_DOMAIN_LIST_END};

inline constexpr HeapKind kPoolKind = {
    TREL_HEAP_POOL,           TREL_POOL_STATE,         1,
    TREL_RC_POOL_STATE,       TREL_RC_POOL_OFFSET,     TREL_RC_POOL_MARKED,
    TREL_RC_POOL_HEADER_SIZE, TREL_RC_POOL_LIST_END,   TREL_RC_POOL_NOT_FOUND,
    TREL_RC_POOL_NO_BLOCK,    TREL_RC_POOL_NODE_SMALL, TREL_RC_POOL_OPTIONS,
    TREL_RC_POOL_SIZE_SMALL,  TREL_RC_POOL_ABOVE_FREE, TREL_RC_POOL_ABOVE_HEAP,
    TREL_RC_POOL_NO_BLOCK};

// Null for any other number.
constexpr const HeapKind* heapKindOf(uint32_t kind) {
  return kind == TREL_HEAP_DOMAIN ? &kDomainKind : kind == TREL_HEAP_POOL ? &kPoolKind : nullptr;
}

}  // namespace trel
