// A list in shared memory. Nodes are blocks of a pool, links are offsets from the segment base, and
// the head lies in the header of the pool's domain. The caller holds the domain's heapLatch.
//
// Links come from shared memory: each is tested before it is followed, and a walk ends after as
// many steps as nodes could lie in the domain.
//
// The domain's intent names a node from its allocation until it is linked, and from before it is
// unlinked until it is freed, so that a death in between loses no memory.
#pragma once

#include "trel/storage.h"
#include "trelll/list.h"
#include "trelshm/allocator.h"
#include "trelshm/heap_look.h"
#include "trelshm/process_memory.h"
#include "trelshm/store.h"

namespace trel {

template <class EntryType>
class SharedList {
 public:
  using Entry = EntryType;
  using Node = typename Entry::SharedNode;
  using Link = TrelU64;
  static constexpr bool kEmptyKeepsOut = true;

  SharedList(ShmPoolHandle_t* pool, const Heap& domain, Link* head, uint32_t function)
      : pool_(pool), domain_(domain), head_(head), function_(function) {}

  Link* head() const { return head_; }
  static Link* linkOf(Node* node) { return &node->nextOffset; }
  uint32_t version() const { return static_cast<uint32_t>(domain_.header()->handleVersion); }

  uint32_t follow(const Link* link, uint64_t steps, Node** node) const {
    const uint64_t offset = loadOnce(link);
    *node = nullptr;
    if (offset == 0) return 0;
    if (offset < domain_.listOffset() || offset > domain_.end() - sizeof(Node) ||
        domain_.size() < sizeof(Node) || steps > domain_.size() / sizeof(Node))
      return TREL_RC_BLOCK_OUTSIDE_POOL;
    *node = domain_.at<Node>(offset);
    return 0;
  }

  uint32_t make(Node** node) const {
    void* block = nullptr;
    HeapIntent_t* intent = domain_.intent();
    intent->listPool = pool_->poolOffset;
    const uint32_t rc = allocateBlock(&block, pool_, sizeof(Node), 0,
                                      {function_, __LINE__, kModuleName}, &intent->listNode);
    *node = static_cast<Node*>(block);
    return rc;
  }

  void link(Link* from, Node* node) const {
    storeLast(from, offsetOf(node, pool_->base));
    storeLast(&domain_.intent()->listNode, 0);
  }

  uint32_t drop(Link* from, Node* node) const {
    void* block = node;
    HeapIntent_t* intent = domain_.intent();
    intent->listPool = pool_->poolOffset;
    storeLast(&intent->listNode, offsetOf(node, pool_->base));
    storeLast(from, node->nextOffset);
    const uint32_t rc =
        freeBlock(&block, pool_, {function_, __LINE__, kModuleName}, &intent->listNode);
    storeLast(&intent->listNode, 0);
    return rc;
  }

 private:
  ShmPoolHandle_t* pool_;
  const Heap& domain_;
  Link* head_;
  uint32_t function_;
};

inline TrelU64* headOf(const Heap& domain, const SegmentEntry*) {
  return &domain.segmentListHead();
}
inline TrelU64* headOf(const Heap& domain, const ModuleEntry*) { return &domain.hdmListHead(); }

// Work on a shared list, under the latch of its domain. The function is noted beside allocations.
template <class Entry, class Work>
uint32_t withSharedList(uint32_t function, ShmPoolHandle_t* pool, Work&& work) {
  Heap domain(pool->base, pool->domainOffset, kDomainKind);
  if (const uint32_t rc = domain.openHeader()) return rc;
  return insideHeap(&domain, [&]() -> uint32_t {
    TrelU64* head = headOf(domain, static_cast<const Entry*>(nullptr));
    return work(SharedList<Entry>(pool, domain, head, function));
  });
}

// Work that only reads. Where the latch cannot be taken, it looks, and may run several times.
template <class Entry, class Work>
uint32_t readSharedList(uint32_t function, ShmPoolHandle_t* pool, Work&& work) {
  Heap domain(pool->base, pool->domainOffset, kDomainKind);
  if (!isReadOnly(domain.header())) return withSharedList<Entry>(function, pool, work);
  return lookAtHeap(&domain, [&]() -> uint32_t {
    TrelU64* head = headOf(domain, static_cast<const Entry*>(nullptr));
    return work(SharedList<Entry>(pool, domain, head, function));
  });
}

// The frame of an exported operation on a shared list.
template <class Entry, bool reads = false, class Work>
uint32_t onSharedList(uint32_t function, ShmPoolHandle_t* pool, bool argumentsGiven, Work&& work) {
  return traced(function, [&](const Flow& flow) -> uint32_t {
    if (!pool) return flow.logged(TREL_RC_POOL_HANDLE_NULL, pool);
    if (!pool->base) return flow.logged(TREL_RC_BASE_NULL, pool);
    if (!argumentsGiven) return flow.fail(TREL_RC_LIST_RECORD_NULL);
    return reads ? readSharedList<Entry>(function, pool, work)
                 : withSharedList<Entry>(function, pool, work);
  });
}

}  // namespace trel
