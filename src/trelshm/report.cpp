// Reports on a heap for a maintainer: checks on demand, what is still allocated, the skip lists.
//
// Nobody need hold the latch of the heap, or have the right to write: lists are walked in a copy of
// one instant. Pads are looked at where they lie. The heap may be damaged: every offset is tested
// before it is followed, and no walk takes more steps than the node space has nodes.
#include "trel/report.h"

#include <stdio.h>
#include <string.h>

#include "trelshm/alloc_list.h"
#include "trelshm/allocator.h"
#include "trelshm/free_lists.h"
#include "trelshm/handle.h"
#include "trelshm/process_memory.h"

namespace trel {
namespace {

using Wide = unsigned long long;

struct Words {
  const char *upper, *plural, *singular, *title;
};

constexpr Words kPoolWords = {"POOLS", "pools", "pool",
                              "\nList of unfreed shared memory pools:"
                              "\n~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~\n"};
constexpr Words kBlockWords = {"BLOCKS", "blocks", "block",
                               "\nList of unfreed shared memory blocks:"
                               "\n~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~\n"};

constexpr const Words& wordsOf(const HeapKind& kind) {
  return kind.kind == TREL_HEAP_DOMAIN ? kPoolWords : kBlockWords;
}

// The count that a list claims, or as many nodes as the space can hold.
uint64_t capped(const Heap& heap, uint64_t count, uint64_t smallestNode) {
  const uint64_t most = heap.space() / smallestNode;
  return count < most ? count : most;
}

// Header and lists of a heap as they were at one instant, in process memory.
class ListCopy {
 public:
  uint32_t take(Heap* heap) {
    const uint32_t rc = lookAtHeap(heap, [&] { return copy(heap); });
    if (rc) return rc;
    view_ = Heap(at<void>(bytes_, 0 - heap->offset()), heap->offset(), heap->kind());
    const uint32_t opened = view_.openHeader();
    return opened ? opened : view_.openLists();
  }
  ~ListCopy() { release(&bytes_); }
  const Heap& view() const { return view_; }

 private:
  uint32_t copy(Heap* heap) {
    if (const uint32_t rc = heap->openLists()) return rc;
    const uint64_t size = heap->spaceEnd() - heap->offset();
    if (size > size_) {
      release(&bytes_);
      size_ = 0;
      if (obtain(&bytes_, size)) return TREL_RC_REBUILD_NO_MEMORY;
      size_ = size;
    }
    memcpy(bytes_, heap->header(), size);
    return 0;
  }

  uint8_t* bytes_ = nullptr;
  uint64_t size_ = 0;
  Heap view_{nullptr, 0, kPoolKind};
};

// ---- what is still allocated ----

uint32_t printEntry(const Heap& heap, const AllocNode_t& node, const char* file) {
  const char* function = rcdGetFunctionName(node.callerFunction);
  if (!function) function = "";
  const uint32_t mode = loadOnce(&frontTail(heap, node.dataOffset)->mode);
  const bool named = mode == TREL_PAD_FILE || mode == TREL_PAD_FILE_GUARD;
  if (!named && mode != TREL_PAD_FREED && !padModeOf(mode)) return TREL_RC_PAD_MODE;
  printf("Address: %p, Size: %llx, ", heap.at<void>(node.dataOffset), Wide{node.requestedSize});
  const int line = static_cast<int>(node.callerLine);
  if (named)
    printf("Location: %s:%s:%d\n", file, function, line);
  else
    printf("Location: %s:%d\n", function, line);
  return 0;
}

uint32_t printAllocated(const Heap& heap, const Heap& lists, uint32_t function, uint32_t line,
                        const char* file) {
  const uint64_t count = lists.list()->allocNodeCount;
  if (count == 0) return 0;
  fputs(wordsOf(heap.kind()).title, stdout);
  uint64_t at = lists.allocHead();
  for (uint64_t left = capped(lists, count, allocNodeSize(0)); left > 0; --left) {
    AllocRef next;
    if (const uint32_t rc = nextAlloc(lists, at, &next)) return rc;
    at = next.node;
    if (at == 0) break;
    const AllocNode_t& node = next.fields;
    if (!heap.containsBlock(node.dataOffset, 0)) return heap.kind().rcCheckRange;
    char name[TREL_PAD_FILE_FIELD] = {};
    const uint32_t rc =
        _trelCheckAllocShmChunk(const_cast<void*>(heap.base()), heap.kind().kind, heap.offset(),
                                node.dataOffset, name, function, line, file);
    if (rc) return rc;
    name[TREL_PAD_FILE_FIELD - 1] = 0;
    if (const uint32_t failure = printEntry(heap, node, name)) return failure;
  }
  return 0;
}

// ---- skip lists ----

// The four runs of links in a free node.
enum Run : uint32_t { forwardO, backwardO, forwardS, backwardS };
constexpr const char* kRunNames[] = {"Forward (O)", "Backward(O)", "Forward (S)", "Backward(S)"};

class ListPrinter {
 public:
  ListPrinter(const Heap& heap, uint64_t detail)
      : heap_(heap),
        words_(wordsOf(heap.kind())),
        detail_(detail),
        allocCount_(heap.list()->allocNodeCount),
        freeCount_(heap.list()->freeNodeCount) {}

  void print() const {
    printAllocatedList();
    printHeading("FREE", freeCount_, "OFFSETS");
    if (detail_ >= 3)
      printf("  Head node offset for free %s SLHead = %llu\n", words_.plural,
             Wide{heap_.freeHead()});
    if (detail_ >= 4) printHead();
    printFreeList(forwardO);
    printHeading("FREE", freeCount_, "SIZES");
    printFreeList(forwardS);
    if (detail_ >= 3)
      printf("  Tail node offset for free %s SLTail = %llu\n", words_.plural,
             Wide{heap_.freeTail()});
  }

 private:
  void printHeading(const char* what, uint64_t count, const char* order) const {
    if (detail_ >= 1)
      printf("       SKIP LIST CONSISTING OF %llu %s %s ORDERED BY %s\n", Wide{count}, what,
             words_.upper, order);
  }

  void printBlock(const char* name, int n, uint64_t offset, uint64_t level, uint64_t size) const {
    printf("  %s %s #%d has offset = %llu, max level = %llu, size = %llu\n", name, words_.singular,
           n, Wide{offset}, Wide{level}, Wide{size});
  }

  void printAllocatedList() const {
    if (detail_ >= 1) printf("\n");
    printHeading("ALLOCATED", allocCount_, "OFFSETS");
    uint64_t at = heap_.allocHead();
    const uint64_t most = capped(heap_, allocCount_, allocNodeSize(0));
    for (int n = 1; static_cast<uint64_t>(n) <= most; ++n) {
      AllocRef next;
      if (nextAlloc(heap_, at, &next) || next.node == 0) return;
      at = next.node;
      const AllocNode_t* node = &next.fields;
      const uint64_t level = node->level;
      if (level >= heap_.maxLevel() || !heap_.containsNode(at, allocNodeSize(level))) return;
      if (detail_ >= 1) printBlock("Allocated", n, node->dataOffset, level, node->requestedSize);
      if (detail_ >= 2) printBlock("Actual   ", n, node->blockOffset, level, node->blockSize);
      if (detail_ >= 4)
        printf("  Allocated %s #%d at node offset %llu\n", words_.singular, n, Wide{at});
      for (uint64_t i = 0; detail_ >= 3 && i <= level; ++i)
        printf("     Forward link at level %d points to offset %llu\n", static_cast<int>(i),
               Wide{heap_.load(at + kAllocLinks + 8 * i)});
    }
  }

  // A free node with the level that was tested: no latch is held, and the node's own may change.
  struct Place {
    uint64_t node, level;
  };

  bool openFree(uint64_t node, Place* place) const {
    if (!heap_.containsNode(node, freeNodeSize(0))) return false;
    *place = {node, heap_.free(node)->level};
    return place->level < heap_.maxLevel() && heap_.containsNode(node, freeNodeSize(place->level));
  }

  uint64_t link(const Place& at, Run run, uint64_t level) const {
    return heap_.load(at.node + kFreeLinks + 8 * ((at.level + 1) * run + level));
  }

  void printRun(const Place& at, Run run, const char* format) const {
    for (uint64_t i = 0; i <= at.level; ++i)
      printf(format, kRunNames[run], static_cast<int>(i), Wide{link(at, run, i)});
  }

  void printHead() const {
    Place head;
    if (!openFree(heap_.freeHead(), &head)) return;
    const FreeNode_t* node = heap_.free(head.node);
    printf("  Head %s offset = %llu, size = %llu, max level = %llu\n", words_.singular,
           Wide{node->blockOffset}, Wide{node->blockSize}, Wide{head.level});
    for (uint32_t run = forwardO; run <= backwardS; ++run)
      printRun(head, static_cast<Run>(run), "   %s link at level %d points to offset %llu\n");
  }

  // In the order of `first`, whose links show from level 3; those of the other order from level 5.
  void printFreeList(Run first) const {
    const Run second = first == forwardO ? forwardS : forwardO;
    Place at;
    if (!openFree(heap_.freeHead(), &at)) return;
    const uint64_t most = capped(heap_, freeCount_, freeNodeSize(0));
    for (int n = 1; static_cast<uint64_t>(n) <= most; ++n) {
      if (!openFree(link(at, first, 0), &at)) return;
      const FreeNode_t* node = heap_.free(at.node);
      if (detail_ >= 3)
        printf("  Free %s #%d at node offset %llu\n", words_.singular, n, Wide{at.node});
      if (detail_ >= 1) printBlock("Free", n, node->blockOffset, at.level, node->blockSize);
      // No blank between the level and "points" here.
      const char* const format = "     %s link at level %dpoints to offset %llu\n";
      const Run orders[] = {first, second};
      for (const Run order : orders) {
        if (detail_ < (order == first ? 3 : 5)) continue;
        printRun(at, order, format);
        printRun(at, static_cast<Run>(order + 1), format);
      }
    }
  }

  const Heap& heap_;
  const Words& words_;
  const uint64_t detail_, allocCount_, freeCount_;
};

}  // namespace
}  // namespace trel

using namespace trel;

uint32_t _trelCheckAllocShmPool(ShmDomainHandle_t* domain, uint64_t dataOffset, uint32_t function,
                                uint32_t line, const char* file) {
  return traced(FID__trelCheckAllocShmPool, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkHandle(flow, domain)) return rc;
    if (!isAligned8(dataOffset)) return flow.fail(TREL_RC_POOL_OFFSET_ALIGN);
    const bool latches = !isReadOnly(domain->base);
    if (latches)
      if (const uint32_t rc = trelLatchShmDomain(domain)) return rc;
    const uint32_t rc = _trelCheckAllocShmChunk(domain->base, TREL_HEAP_DOMAIN, domain->heapOffset,
                                                dataOffset, nullptr, function, line, file);
    return firstOf(rc, latches ? trelUnlatchShmDomain(domain) : 0);
  });
}

uint32_t _trelCheckAllocShmBlock(void** block, ShmPoolHandle_t* pool, uint32_t function,
                                 uint32_t line, const char* file) {
  return traced(FID__trelCheckAllocShmBlock, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkHandle(flow, pool)) return rc;
    if (!isAligned8(pool->poolOffset)) return flow.fail(TREL_RC_POOL_OFFSET_ALIGN);
    if (!block) return flow.logged(TREL_RC_BLOCK_ADDRESS_NULL, block);
    if (!*block) return flow.logged(TREL_RC_BLOCK_NULL, *block);
    uint64_t dataOffset = 0, blockOffset = 0;
    if (const uint32_t rc = locateBlock(flow, heapOf(pool), *block, &blockOffset, &dataOffset))
      return rc;
    const bool latches = !isReadOnly(pool->base);
    if (latches)
      if (const uint32_t rc = trelLatchShmPool(pool)) return rc;
    const uint32_t rc = _trelCheckAllocShmChunk(pool->base, TREL_HEAP_POOL, pool->poolOffset,
                                                dataOffset, nullptr, function, line, file);
    return firstOf(rc, latches ? trelUnlatchShmPool(pool) : 0);
  });
}

uint32_t _trelShmAllocSList(void* base, uint32_t heapKind, uint64_t heapOffset, uint32_t function,
                            uint32_t line, const char* file) {
  return onHeap(FID__trelShmAllocSList, base, heapKind, heapOffset,
                [&](const Flow& flow, Heap* heap) -> uint32_t {
                  if (const uint32_t rc = checkHeap(*heap)) return flow.fail(rc);
                  ListCopy lists;
                  if (const uint32_t rc = lists.take(heap)) return flow.fail(rc);
                  return printAllocated(*heap, lists.view(), function, line, file);
                });
}

uint32_t trelPrintOutSkipLists(ShmPoolHandle_t* pool, uint32_t heapKind, uint64_t detailLevel) {
  return traced(FID_trelPrintOutSkipLists, [&](const Flow& flow) -> uint32_t {
    if (!pool) return flow.logged(TREL_RC_POOL_HANDLE_NULL, pool);
    const HeapKind* kind = heapKindOf(heapKind);
    if (!kind) return flow.fail(TREL_RC_HEAP_KIND);
    if (!pool->base) return flow.logged(TREL_RC_BASE_NULL, pool->base);
    Heap heap(pool->base, kind == &kDomainKind ? pool->domainOffset : pool->poolOffset, *kind);
    ListCopy lists;
    if (const uint32_t rc = lists.take(&heap)) return flow.fail(rc);
    ListPrinter(lists.view(), detailLevel).print();
    return 0;
  });
}
