#include "trelshm/heap.h"

#include <string.h>

#include "trel/storage.h"
#include "trelshm/alloc_list.h"
#include "trelshm/heap_latch.h"
#include "trelshm/space.h"
#include "trelshm/store.h"

namespace trel {
namespace {

// How many nodes a heap below a size is to have room for: the larger of size / divisor / 8, size /
// divisor or a floor, and a share of the size's 183 bytes units.
struct SizeRow {
  uint64_t below;
  uint64_t divisor, second;  // size / divisor / second
  uint64_t floor;
  double factor;
};

constexpr uint64_t kNodeCost = 183;  // assumed mean bytes of a list node
constexpr uint64_t kAny = ~uint64_t{0};

constexpr SizeRow kDomainRows[] = {{0x100000, 32768, 1, 25, 0.01},
                                   {0x4000000, 10240, 8, 350, 0.005},
                                   {0x20000000, 24576, 8, 1000, 0.00125},
                                   {0x40000000, 524288, 1, 1750, 0.00085},
                                   {kAny, 1048576, 1, 2250, 0.0008}};

constexpr SizeRow kPoolRows[] = {
    {0x80000, 8192, 1, 50, 0.02},         {0x100000, 1100, 8, 75, 0.0215},
    {0x800000, 1225, 8, 125, 0.021},      {0x4000000, 16384, 1, 850, 0.0135},
    {0x20000000, 10240, 8, 4000, 0.0025}, {0x40000000, 12288, 8, 7500, 0.002},
    {kAny, 14336, 8, 11000, 0.00195}};

constexpr uint64_t kDomainNodeCap = 10000, kPoolNodeCap = 250000;

uint64_t nodeCountOf(uint64_t size, const SizeRow* row) {
  while (size >= row->below && row->below != kAny) ++row;
  const uint64_t divided = size / row->divisor / row->second;
  const uint64_t a = divided > row->floor ? divided : row->floor;
  const uint64_t nodes = size / kNodeCost;
  const uint64_t b = static_cast<uint64_t>(static_cast<double>(nodes) * row->factor);
  return a > b ? a : b;
}

uint32_t initialiseLatch(ExclusiveLatch_t* record, uint64_t version) {
  if (version != TREL_STRUCTURE_VERSION) return TREL_RC_LATCH_VERSION;
  platVLatchInit(record->latch, 1);
  memset(record->latch + PLAT_LATCH_BYTES, 0, sizeof record->latch - PLAT_LATCH_BYTES);
  record->version = static_cast<uint32_t>(version);
  return 0;
}

void writeHeader(const Heap& heap, const HeapPlan& plan) {
  HeapHeader_t* h = heap.header();
  h->heapVersion = plan.heapVersion;
  h->handleVersion = plan.handleVersion;
  h->latchVersion = plan.latchVersion;
  h->heapFlags = plan.flags;
  h->heapOffset = heap.offset();
  h->connectionCount = 1;
  h->heapSize = plan.size;
  h->freeBytes = 0;
  h->allocatedBytes = 0;
  h->requestedNodeCount = plan.sizes.nodeCount;
  h->granularity = plan.granularity;
  h->topPool = heap.kind().kind == TREL_HEAP_DOMAIN ? 0 : plan.ownerOffset;
  h->userAreaSize = plan.userAreaSize;
  if (plan.userAreaSize && plan.userData) memcpy(heap.userArea(), plan.userData, plan.userAreaSize);
}

uint32_t writeDebug(const Heap& heap, uint64_t latchVersion) {
  if (const uint32_t rc = initialiseLatch(&heap.tail()->debugLatch, latchVersion)) return rc;
  return insideDebug(heap, [&]() -> uint32_t {
    DebugRecord_t* debug = &heap.tail()->debug;
    *debug = DebugRecord_t{};
    debug->debugFlags = 0xb;
    debug->debugMode = TREL_PAD_DEFAULT;
    debug->frontPadWords = 2;
    debug->backPadWords = 2;
    return 0;
  });
}

}  // namespace

uint32_t initHeap(Heap* heap, const HeapPlan& plan) {
  writeHeader(*heap, plan);
  if (const uint32_t rc = heap->openHeader()) return rc;
  memset(heap->tail()->words, 0, sizeof heap->tail()->words);
  memset(heap->tail()->reserved, 0, sizeof heap->tail()->reserved);
  if (const uint32_t rc = writeDebug(*heap, plan.latchVersion)) return rc;
  if (heapHeaderSizeOf(plan.userAreaSize) != plan.sizes.headerSize) return heap->kind().rcHeader;
  heap->setMaxLevel(plan.sizes.maxLevel);
  heap->setSpace(plan.sizes.space);
  heap->setNextNode(heap->listHeaderSize());
  if (plan.sizes.space <= plan.sizes.listHeaderSize || plan.sizes.space <= heap->listHeaderSize())
    return TREL_RC_SPACE_FULL;
  heap->list()->rebuildCount = 0;
  heap->list()->slUsedBytes = heap->listHeaderSize();
  resetAllocList(*heap);
  resetFreeLists(*heap);
  forgetHoles(*heap);
  InFlight first = {heap->spaceEnd(), heap->blocksEnd() - heap->spaceEnd()};
  return insertFreeGuarded(heap, &first, true);
}

void HeapSizes::compute(uint64_t heapSize, uint32_t kind, uint64_t userAreaSize) {
  const bool domain = kind == TREL_HEAP_DOMAIN;
  const uint64_t cap = domain ? kDomainNodeCap : kPoolNodeCap;
  if (nodeCount == 0) nodeCount = nodeCountOf(heapSize, domain ? kDomainRows : kPoolRows);
  if (nodeCount > cap) nodeCount = cap;
  if (maxLevel > TREL_HEAP_MAX_LEVEL) maxLevel = TREL_HEAP_MAX_LEVEL;
  headerSize = heapHeaderSizeOf(userAreaSize);
  listHeaderSize = slHeaderSizeOf(maxLevel);
  space = round8(kNodeCost * nodeCount + listHeaderSize);
}

uint64_t defaultMaxLevel(uint32_t kind, uint64_t nodeCount) {
  if (nodeCount <= 1024) return kind == TREL_HEAP_DOMAIN ? 7 : 10;
  uint64_t level = 11;
  while (level < TREL_HEAP_MAX_LEVEL && uint64_t{1} << level < nodeCount) ++level;
  return level;
}

uint32_t checkPlan(const HeapKind& kind, const HeapPlan& plan) {
  const bool fits =
      plan.userAreaSize <= plan.size && plan.sizes.maxLevel != 0 &&
      plan.sizes.maxLevel <= TREL_HEAP_MAX_LEVEL && plan.sizes.headerSize <= plan.size &&
      plan.sizes.space <= plan.size && plan.size >= plan.sizes.headerSize + plan.sizes.space + 8 &&
      heapHeaderSizeOf(plan.userAreaSize) + slHeaderSizeOf(plan.sizes.maxLevel) <= plan.size;
  return fits ? 0 : kind.rcHeader;
}

uint32_t takeFreshHeap(Heap* heap, uint64_t latchVersion) {
  // Memory that is used again may hold an old signature.
  heap->header()->heapState = 0;
  if (const uint32_t rc = initialiseLatch(&heap->header()->heapLatch, latchVersion)) return rc;
  uint32_t ownerDied = 0;
  return enterLatch(&heap->header()->heapLatch, &ownerDied);
}

uint32_t createHeap(void* base, uint64_t offset, const HeapKind& kind, const HeapPlan& plan) {
  Heap heap(base, offset, kind);
  if (isReadOnly(heap.header())) return TREL_RC_READING_ONLY;
  if (const uint32_t rc = checkPlan(kind, plan)) return rc;
  if (const uint32_t rc = takeFreshHeap(&heap, plan.latchVersion)) return rc;
  const uint32_t rc = initHeap(&heap, plan);
  if (rc == 0) storeLast(&heap.header()->heapState, kind.state);
  return firstOf(rc, leaveHeap(heap));
}

// Who may only read is not counted.
uint32_t connectHeap(Heap* heap) {
  if (const uint32_t rc = checkHeap(*heap)) return rc;
  if (const uint32_t rc = heap->openHeader()) return rc;
  if (isReadOnly(heap->header()))
    return heap->header()->heapFlags & TREL_HEAP_MARKED ? heap->kind().rcMarked : 0;
  return insideHeap(heap, [&]() -> uint32_t {
    HeapHeader_t* h = heap->header();
    if (h->heapFlags & TREL_HEAP_MARKED) return heap->kind().rcMarked;
    h->connectionCount += 1;
    return 0;
  });
}

uint32_t disconnectHeap(Heap* heap) {
  if (isReadOnly(heap->header())) return 0;
  if (const uint32_t rc = checkHeap(*heap)) return rc;
  if (const uint32_t rc = heap->openHeader()) return rc;
  return insideHeap(heap, [&]() -> uint32_t {
    HeapHeader_t* h = heap->header();
    if (h->connectionCount != 0) h->connectionCount -= 1;
    return 0;
  });
}

}  // namespace trel

using namespace trel;

void trelGetHHeaderSize(uint64_t userAreaSize, uint64_t* size) {
  if (size) *size = heapHeaderSizeOf(userAreaSize);
}

void trelGetSLHeaderSize(uint64_t maxLevel, uint64_t* size) {
  if (size) *size = slHeaderSizeOf(maxLevel);
}

void trelGetUserAppAreaSize(const void* base, uint64_t heapOffset, uint64_t* size) {
  if (size) *size = base ? uint64_t{Heap(base, heapOffset, kPoolKind).header()->userAreaSize} : 0;
}

uint32_t trelGetHHeaderInfo(uint64_t size, uint32_t heapKind, uint64_t* nodeCount,
                            uint64_t* maxLevel, uint64_t userAreaSize, uint64_t* heapHeaderSize,
                            uint64_t* slHeaderSize, uint64_t* slSpaceSize) {
  return traced(FID_trelGetHHeaderInfo, [&](const Flow& flow) -> uint32_t {
    if (!heapKindOf(heapKind)) return flow.fail(TREL_RC_HEAP_KIND, &heapKind, sizeof heapKind);
    if (!nodeCount || !maxLevel || !heapHeaderSize || !slHeaderSize || !slSpaceSize)
      return flow.fail(TREL_RC_BLOCK_SIZE_NULL);
    HeapSizes sizes{*nodeCount, *maxLevel, 0, 0, 0};
    sizes.compute(size, heapKind, userAreaSize);
    *nodeCount = sizes.nodeCount;
    *maxLevel = sizes.maxLevel;
    *heapHeaderSize = sizes.headerSize;
    *slHeaderSize = sizes.listHeaderSize;
    *slSpaceSize = sizes.space;
    return 0;
  });
}

uint32_t trelInitializeExsLatch(ExclusiveLatch_t* record, uint64_t latchVersion) {
  return traced(FID_trelInitializeExsLatch, [&](const Flow& flow) -> uint32_t {
    if (!record) return flow.fail(TREL_RC_LATCH_RECORD_NULL);
    return isReadOnly(record) ? flow.fail(TREL_RC_READING_ONLY)
                              : initialiseLatch(record, latchVersion);
  });
}

uint32_t trelEnterELCriticalSection(ExclusiveLatch_t* record) {
  return traced(FID_trelEnterELCriticalSection, [&](const Flow& flow) -> uint32_t {
    if (!record) return flow.fail(TREL_RC_LATCH_RECORD_NULL);
    if (isReadOnly(record)) return flow.fail(TREL_RC_READING_ONLY);
    uint32_t ownerDied = 0;
    const uint32_t rc = enterLatch(record, &ownerDied);
    // The heap is not known here, if there is one: whoever enters it next repairs it.
    if (ownerDied)
      reinterpret_cast<HeapIntent_t*>(record->latch + PLAT_LATCH_BYTES)->allocating |=
          TREL_REPAIR_DUE;
    return rc;
  });
}

uint32_t trelExitELCriticalSection(ExclusiveLatch_t* record) {
  return traced(FID_trelExitELCriticalSection, [&](const Flow& flow) -> uint32_t {
    if (!record) return flow.fail(TREL_RC_LATCH_RECORD_NULL);
    return isReadOnly(record) ? flow.fail(TREL_RC_READING_ONLY) : leaveLatch(record);
  });
}

uint32_t trelCreateInitStorageHeap(void* base, uint32_t heapKind, uint64_t size,
                                   uint64_t heapOffset, uint64_t nodeCount, uint64_t maxLevel,
                                   uint64_t heapHeaderSize, uint64_t slHeaderSize,
                                   uint64_t slSpaceSize, uint64_t granularity,
                                   uint64_t userAreaSize, const void* userData,
                                   uint64_t latchVersion, uint64_t heapVersion,
                                   uint64_t handleVersion, uint64_t flags, uint64_t ownerOffset) {
  return onHeap(FID_trelCreateInitStorageHeap, base, heapKind, heapOffset,
                [&](const Flow&, Heap* heap) {
                  const HeapPlan plan = {
                      size,        {nodeCount, maxLevel, heapHeaderSize, slHeaderSize, slSpaceSize},
                      granularity, userAreaSize,
                      userData,    latchVersion,
                      heapVersion, handleVersion,
                      flags,       ownerOffset};
                  return createHeap(base, heapOffset, heap->kind(), plan);
                });
}

uint32_t trelConnectToStorageHeap(void* base, uint32_t heapKind, uint64_t heapOffset) {
  return onHeap(FID_trelConnectToStorageHeap, base, heapKind, heapOffset,
                [](const Flow&, Heap* heap) { return connectHeap(heap); });
}

uint32_t trelDisconnectFromStorageHeap(void* base, uint32_t heapKind, uint64_t heapOffset) {
  return onHeap(FID_trelDisconnectFromStorageHeap, base, heapKind, heapOffset,
                [](const Flow&, Heap* heap) { return disconnectHeap(heap); });
}
