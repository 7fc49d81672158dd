#include "treli/top_node.h"

#include <atomic>

#include "treli/node_lock.h"
#include "treli/reach.h"
#include "trelshm/handle.h"
#include "trelshm/store.h"

namespace trel {
namespace {

constexpr int kTries = 1000;

// The tests that the fields have to pass wherever they are read or written.
uint32_t check(const Heap& domain, const TopNodeInfo_t& top) {
  if (top.tag > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
  if (top.nodeOffset < domain.offset() || top.nodeOffset > domain.size())
    return TREL_RC_TOP_NODE_BOUNDS;
  return top.poolOffset < domain.offset() || top.poolOffset > domain.size()
             ? uint32_t{TREL_RC_TOP_POOL_BOUNDS}
             : 0;
}

uint32_t open(Heap* domain) {
  if (domain->header()->heapState != TREL_DOMAIN_STATE) return TREL_RC_DOMAIN_STATE;
  return domain->openHeader();
}

uint32_t readFields(const Heap& heap, TopNodeInfo_t* top) {
  top->poolOffset = static_cast<uint32_t>(heap.header()->topPool);
  top->nodeOffset = heap.topNodeOffset();
  top->tag = heap.topNodeTag();
  if (top->poolOffset == 0) return TREL_RC_NO_TREE;
  return top->nodeOffset == 0 ? uint32_t{TREL_RC_NO_TOP_NODE} : 0;
}

// Who writes them ends the pool's offset first, and stores it last.
uint32_t readFieldsAlone(const Heap& heap, TopNodeInfo_t* top) {
  TopNodeInfo_t again = {};
  uint32_t rc = readFields(heap, top);
  for (int tries = 0; tries < kTries; ++tries) {
    std::atomic_thread_fence(std::memory_order_acquire);
    const uint32_t next = readFields(heap, &again);
    const bool stands = next == rc && again.poolOffset == top->poolOffset &&
                        again.nodeOffset == top->nodeOffset && again.tag == top->tag;
    if (stands) break;
    *top = again;
    rc = next;
  }
  return rc;
}

}  // namespace

uint32_t readTopNode(const ShmDomainHandle_t* domain, TopNodeInfo_t* top) {
  Heap heap = heapOf(domain);
  if (const uint32_t rc = open(&heap)) return rc;
  TopNodeInfo_t read = {};
  const uint32_t rc = isReadOnly(heap.header())
                          ? readFieldsAlone(heap, &read)
                          : insideHeap(&heap, [&] { return readFields(heap, &read); });
  if (rc) return rc;
  *top = read;
  return check(heap, read);
}

uint32_t writeTopNode(const ShmDomainHandle_t* domain, const TopNodeInfo_t& top) {
  Heap heap = heapOf(domain);
  if (const uint32_t rc = open(&heap)) return rc;
  if (const uint32_t rc = check(heap, top)) return rc;
  return insideHeap(&heap, [&]() -> uint32_t {
    // Without a pool there is no tree, so a writer that dies half way leaves none.
    storeLast(&heap.header()->topPool, 0);
    heap.topNodeOffset() = top.nodeOffset;
    heap.topNodeTag() = top.tag;
    storeLast(&heap.header()->topPool, top.poolOffset);
    return 0;
  });
}

uint32_t findTopNode(const ShmSegInfo_t* segInfo, TopNodeInfo_t* top, SNodeCB_t** node) {
  const ShmDomainHandle_t* domain = segInfo->shmDomainHandle;
  if (const uint32_t rc = readTopNode(domain, top)) return rc;
  if (segInfo->identity.handleVersion != TREL_STRUCTURE_VERSION) return TREL_RC_HANDLE_VERSION;
  if (nodeSizeInDomain(domain, top->nodeOffset) == 0) return TREL_RC_TOP_NODE_BOUNDS;
  *node = at<SNodeCB_t>(domain->base, top->nodeOffset);
  return 0;
}

}  // namespace trel
