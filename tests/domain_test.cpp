// Domains and pools: over real segments, between processes, and hostile content.
#include <fcntl.h>
#include <sys/mman.h>

#include <cstring>
#include <random>
#include <thread>

#include "heap_fixture.h"

namespace {

// A domain in a segment, and a second handle of it.
struct Domain : testing::Test {
  const Reports reports;
  const Key key;
  ShmDomainHandle_t *domain = nullptr, *other = nullptr;

  uint32_t create(uint32_t size, const ShmDomainParam_t* param = nullptr) {
    return trelCreateShmDomain(key, 0, size, param, &domain);
  }
  uint32_t connect(uint64_t heapOffset = 0) {
    ShmDomainParam_t param{};
    param.heapOffset = heapOffset;
    return trelConnectToShmDomain(key, 0, &param, &other);
  }
  HeapHeader_t* header() const { return static_cast<HeapHeader_t*>(domain->base); }
};

TEST_F(Domain, LivesInASegmentUnderTwoHandles) {
  ASSERT_EQ(0u, create(0x100000));
  EXPECT_EQ(TREL_RC_SEGMENT_EXISTS, trelCreateShmDomain(key, 0, 0x100000, nullptr, &other));
  ShmDomainInfo_t info{};
  ASSERT_EQ(0u, trelGetShmDomainInfo(domain, &info));
  const uint64_t want[] = {0x1317d17, 0x1317d17, 0x1317d17, 0, 0, 1,     0x100000,      983312,
                           0,         350,       4096,      0, 7, 64776, 720 + 48 + 32, 0,
                           1,         0,         0,         0, 0, 0};
  ShmDomainInfo_t fresh;
  memcpy(&fresh, want, sizeof fresh);
  fresh.freeListLevel = info.freeListLevel;  // a draw
  fresh.slUsedBytes += 32 * info.freeListLevel;
  EXPECT_EQ(0, memcmp(&fresh, &info, sizeof info));
  ASSERT_EQ(0u, connect());
  EXPECT_NE(domain->base, other->base);
  ShmDomainHandle_t* const second = other;
  EXPECT_EQ(TREL_RC_DOMAIN_CONNECTED, trelFreeShmDomain(&domain, 1));
  EXPECT_EQ(0u, trelMarkShmDomainForDeletion(domain));
  EXPECT_EQ(TREL_RC_DOMAIN_MARKED, connect());
  EXPECT_EQ(second, other);
  EXPECT_EQ(2u, header()->connectionCount);
  EXPECT_EQ(0u, trelDisconnectFromShmDomain(&other));
  EXPECT_EQ(1u, header()->connectionCount);
  EXPECT_EQ(0u, trelFreeShmDomain(&domain, 1));
  EXPECT_FALSE(key.exists());
}

TEST_F(Domain, ForcedEndIsSeenByThoseStillConnected) {
  ASSERT_EQ(0u, create(0x20000));
  ASSERT_EQ(0u, connect());
  ASSERT_EQ(0u, trelLatchShmDomain(other));
  EXPECT_EQ(TREL_RC_DOMAIN_FREE_MODE, trelFreeShmDomain(&domain, 5)) << "and takes no latch";
  header()->heapState = 0;
  EXPECT_EQ(TREL_RC_DOMAIN_STATE, trelUnlatchShmDomain(other));
  header()->heapState = TREL_DOMAIN_STATE;
  EXPECT_EQ(0u, trelLatchShmDomain(domain)) << "it was released all the same";
  EXPECT_EQ(0u, trelUnlatchShmDomain(domain));
  EXPECT_EQ(0u, trelFreeShmDomain(&domain, 2));
  EXPECT_FALSE(key.exists());
  ShmPoolHandle_t* pool = nullptr;
  EXPECT_EQ(TREL_RC_DOMAIN_STATE, _trelCreateShmPool(&pool, other, 0x4000, nullptr, 1, 1, ""));
  EXPECT_EQ(TREL_RC_DOMAIN_STATE, trelDisconnectFromShmDomain(&other));
  ASSERT_NE(nullptr, other);
  PLATHIPCMemory* const segment = other->ipcMemory;
  EXPECT_EQ(0u, trelDestroyShmDomainHandle(&other));
  EXPECT_EQ(0u, segment->detach());
  delete segment;
}

TEST_F(Domain, HeaderOfASegmentIsNotTrusted) {
  ASSERT_EQ(0u, create(0x10000));
  for (const auto& [wanted, size, offset, code] : Rows<uint64_t, uint64_t, uint64_t, uint32_t>{
           {0xfff8, 0x10000, 0, TREL_RC_DOMAIN_STATE},  // at the very end of the segment
           {0x10000000, 0x10000, 0, TREL_RC_DOMAIN_STATE},
           {0, 0x10008, 0, TREL_RC_DOMAIN_STATE},
           {0, 0x10000, 8, TREL_RC_DOMAIN_OFFSET},
           {0, 0x10000, 0, 0}}) {
    header()->heapSize = size;
    header()->heapOffset = offset;
    EXPECT_EQ(1u, header()->connectionCount);
    EXPECT_EQ(code, connect(wanted));
  }
  EXPECT_EQ(0u, trelDisconnectFromShmDomain(&other));
  EXPECT_EQ(0u, trelFreeShmDomain(&domain, 1));
}

TEST(Pool, ConnectFreeAndTheTopPool) {
  const Reports reports;
  constexpr uint32_t kStart = 0x1000, kEnd = 0x81000;  // another domain could lie around it
  ShmDomainParam_t param{};
  param.userAreaSize = 12;
  param.heapOffset = kStart;
  Heap heap(kEnd - kStart, 0x10000, param);
  HeapHeader_t* const header = heap.header(kStart);
  TrelU64* const words = reinterpret_cast<HeapHeaderTail_t*>(heap.memory + kStart + 264)->words;
  ShmPoolHandle_t *second = nullptr, *same = nullptr;
  const auto create = [&](uint32_t size) {
    return _trelCreateShmPool(&second, heap.domain, size, nullptr, 1, 1, "");
  };
  ASSERT_EQ(0u, create(0x8000));
  const uint32_t offset = static_cast<uint32_t>(second->poolOffset);
  const auto connect = [&](uint32_t at) {
    return trelConnectToShmPool(&same, heap.domain, at, nullptr);
  };
  for (const uint32_t at : {offset + 8, kStart, kEnd - 8})
    EXPECT_EQ(TREL_RC_POOL_STATE, connect(at)) << at;
  for (const uint32_t at : {0u, kStart - 8, kEnd, 0xfffffff8u})
    EXPECT_EQ(TREL_RC_DOMAIN_OFFSET, connect(at)) << at;
  HeapHeader_t* const poolHeader = heap.header(offset);
  poolHeader->topPool = 8;
  EXPECT_EQ(TREL_RC_DOMAIN_OFFSET, connect(offset));
  poolHeader->topPool = kStart;
  poolHeader->heapFlags = TREL_HEAP_MARKED;
  EXPECT_EQ(TREL_RC_POOL_MARKED, connect(offset));
  poolHeader->heapFlags = 0;
  PadTail_t* const pad = reinterpret_cast<PadTail_t*>(heap.memory + offset - 16);
  pad->mode = 5;
  EXPECT_EQ(TREL_RC_PAD_MODE, connect(offset));
  pad->mode = TREL_PAD_DEFAULT;
  EXPECT_EQ(1u, poolHeader->connectionCount) << "a late failure is undone";
  ASSERT_EQ(0u, connect(offset));
  EXPECT_EQ(0, memcmp(second, same, sizeof *same));
  EXPECT_EQ(2u, poolHeader->connectionCount);

  words[0] = words[1] = words[2] = words[3] = 0x1111;
  header->topPool = heap.pool->poolOffset;
  EXPECT_EQ(TREL_RC_POOL_CONNECTED, _trelFreeShmPool(&second, 3, 1, 1, ""));
  EXPECT_EQ(0u, _trelFreeShmPool(&second, 4, 1, 1, ""));
  void* block = nullptr;
  EXPECT_EQ(TREL_RC_POOL_STATE, _trelAllocateShmBlock(&block, same, 8, 0, 1, 1, ""));
  EXPECT_EQ(TREL_RC_POOL_STATE, trelDisconnectFromShmPool(&same));
  EXPECT_EQ(0u, trelDestroyShmPoolHandle(&same));
  EXPECT_EQ(heap.pool->poolOffset, header->topPool);
  EXPECT_EQ(0u, _trelFreeShmPool(&heap.pool, 3, 1, 1, ""));
  EXPECT_EQ(0u, header->topPool | words[2] | words[3]);
  const HeapWalk walk(heap.memory, TREL_HEAP_DOMAIN, kStart);
  EXPECT_EQ("", walk.fault);
  EXPECT_EQ(1u, walk.free.size());
  // Two wait to free one pool, and the second comes too late.
  ASSERT_EQ(0u, create(0x8000));
  const uint32_t contested = static_cast<uint32_t>(second->poolOffset);
  ASSERT_EQ(0u, connect(contested));
  ASSERT_EQ(0u, trelLatchShmDomain(heap.domain));
  uint32_t first = 0, late = 0;
  std::thread a([&] { first = _trelFreeShmPool(&second, 4, 1, 1, ""); });
  std::thread b([&] { late = _trelFreeShmPool(&same, 4, 1, 1, ""); });
  usleep(20000);
  EXPECT_EQ(0u, trelUnlatchShmDomain(heap.domain));
  a.join();
  b.join();
  EXPECT_EQ(TREL_RC_POOL_STATE, first + late);
  EXPECT_NE(TREL_POOL_STATE, heap.header(contested)->heapState);
  EXPECT_EQ(0u, trelDestroyShmPoolHandle(second ? &second : &same));

  EXPECT_EQ(TREL_RC_DOMAIN_ABOVE_HEAP, create(0x80000));
  EXPECT_EQ(TREL_RC_DOMAIN_ABOVE_FREE, create(0x7c000));
  EXPECT_EQ("", heap.fault());
}

TEST_F(Domain, CountsOfTheDeadDoNotCount) {
  ShmPoolHandle_t *pool = nullptr, *second = nullptr;
  ASSERT_EQ(0u, create(0x20000));
  ASSERT_EQ(0u, _trelCreateShmPool(&pool, domain, 0x4000, nullptr, 1, 1, ""));
  const uint32_t offset = static_cast<uint32_t>(pool->poolOffset);
  for (int dead = 0; dead < 3; ++dead)
    EXPECT_EQ(0, inOtherProcess([&] {
                ShmPoolHandle_t* theirs = nullptr;
                EXPECT_EQ(0u, connect());
                EXPECT_EQ(0u, trelConnectToShmPool(&theirs, other, offset, nullptr));
              }));
  EXPECT_EQ(4u, header()->connectionCount);
  ASSERT_EQ(0u, connect());
  EXPECT_EQ(TREL_RC_POOL_CONNECTED, _trelFreeShmPool(&pool, 3, 1, 1, "")) << "mapped twice";
  EXPECT_EQ(TREL_RC_DOMAIN_CONNECTED, trelFreeShmDomain(&domain, 1));
  EXPECT_EQ(0u, trelDisconnectFromShmDomain(&other));
  ASSERT_EQ(0u, trelConnectToShmPool(&second, domain, offset, nullptr));
  EXPECT_EQ(TREL_RC_POOL_CONNECTED, _trelFreeShmPool(&pool, 3, 1, 1, "")) << "two handles";
  EXPECT_EQ(0u, trelDisconnectFromShmPool(&second));
  EXPECT_EQ(0u, _trelFreeShmPool(&pool, 3, 1, 1, ""));
  EXPECT_EQ(0u, trelFreeShmDomain(&domain, 1));
}

TEST(Pool, EntriesInOtherPoolsOutliveIt) {
  const Reports reports;
  Heap heap(0x40000, 0x8000);
  ShmPoolHandle_t* second = nullptr;
  ASSERT_EQ(0u, _trelCreateShmPool(&second, heap.domain, 0x4000, nullptr, 1, 1, ""));
  const auto at = [](uint32_t key) {
    SegIdentity_t record{};
    record.segmentKey.key = key;
    return record;
  };
  SegIdentity_t* entry = nullptr;
  for (const uint32_t key : {1u, 2u, 3u, 4u, 5u, 6u}) {
    const SegIdentity_t record = at(key);
    EXPECT_EQ(0u,
              trelInsertAttachSegInfoNodeIntoLList(key % 3 ? second : heap.pool, &record, &entry));
  }
  heap.header()->topPool = second->poolOffset;
  second->chunkOffset += 8;
  EXPECT_EQ(TREL_RC_DOMAIN_NOT_FOUND, _trelFreeShmPool(&second, 4, 1, 1, ""));
  second->chunkOffset -= 8;
  const auto keys = [&] { return printed([&] { trelPrintAttachSegInfoNodeLList(heap.pool); }); };
  EXPECT_NE(std::string::npos, keys().find("#6")) << "a failure changes nothing";
  EXPECT_EQ(0u, _trelFreeShmPool(&second, 4, 1, 1, ""));
  EXPECT_EQ(
      "Linked list node #1 stores segment key = \"6\"\n"
      "Linked list node #2 stores segment key = \"3\"\n",
      keys());
  EXPECT_EQ(0u, heap.header()->topPool);
  EXPECT_EQ("", heap.fault());
}

TEST(Hostile, SlackBeyondTheBlockIsNotRead) {
  const Reports reports;
  Heap heap(0x20000, 0x8000);
  void *block = nullptr, *behind = nullptr;
  ASSERT_EQ(0u, heap.allocate(&behind, 1000));
  ASSERT_EQ(0u, heap.allocate(&block, 1000));
  const PadTail_t* front = static_cast<const PadTail_t*>(block) - 1;
  AllocNode_t* node = reinterpret_cast<AllocNode_t*>(heap.memory + front->nodeOffset);
  node->dataOffset = node->blockOffset + node->blockSize;
  node->requestedSize = 0;
  EXPECT_EQ(0u, heap.check(block));
  EXPECT_EQ(0u, reports.count("aligned size"));
}

constexpr int kRefused = 10;  // the exit code of a process that met refusals; sanitizers use 1

// Damages a busy heap in every place but its latches, and goes on using it: codes, and no more.
void useADamagedHeap(uint8_t* memory, uint32_t size, uint32_t seed) {
  std::mt19937 random(seed);
  const auto upTo = [&](uint64_t limit) { return random() % (limit + 1); };
  const auto upTo32 = [&](uint32_t limit) { return static_cast<uint32_t>(upTo(limit)); };
  dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
  platSetReportSink([](const char*) {});
  ShmPoolParam_t param{};
  param.nodeCount = 30;
  Heap heap(size, 0x10000, {}, param, memory);
  const uint64_t h = heap.pool->poolOffset;
  trelSetShmDebug(memory, TREL_HEAP_POOL, h, 3, upTo(1) ? TREL_PAD_DEFAULT : TREL_PAD_FILE_GUARD, 2,
                  2);
  std::vector<void*> blocks(40);
  for (void*& block : blocks) EXPECT_EQ(0u, heap.allocate(&block, 1 + upTo32(300)));
  for (size_t i = 0; i < blocks.size(); i += 3) heap.release(&blocks[i]);
  if (testing::Test::HasFailure()) return;

  for (uint64_t damages = 1 + upTo(3); damages > 0; --damages) {
    const uint64_t start = upTo(3) ? h : 0;
    const uint64_t range[] = {96, 488, 2500, 12000};
    uint64_t at = upTo(range[upTo(3)] - 9);
    if (upTo(1)) at &= ~uint64_t{7};
    const auto latch = [&](uint64_t from) { return at + 8 > from && at < from + 136; };
    if (latch(96) || latch(352)) at = upTo(47);
    if (start == 0 && at < 64 && at + 8 > 56) at = 0;  // the domain's size: tested at attach only
    const uint64_t values[] = {0,
                               8,
                               ~uint64_t{0},
                               ~uint64_t{7},
                               h,
                               h + 488,
                               upTo(size),
                               upTo(30),
                               h + upTo(12000),
                               random(),
                               uint64_t{random()} << 32};
    memcpy(memory + start + at, &values[upTo(std::size(values) - 1)], upTo(1) ? 8 : 1);
  }

  uint32_t failures = 0;
  const auto tally = [&](uint32_t rc) { failures += rc != 0; };
  // A process that comes to the damaged heap finds out before it touches more than its header.
  ShmPoolHandle_t* other = nullptr;
  trelConnectToShmPool(&other, heap.domain, static_cast<uint32_t>(h), nullptr);
  if (!other) _exit(kRefused);
  for (int i = 0; i < 60; ++i) {
    void*& block = blocks[upTo(blocks.size() - 1)];
    tally(block ? heap.release(&block) : heap.allocate(&block, 1 + upTo32(300)));
    if (block) tally(heap.check(block));
  }
  uint64_t a = 0, b = 0;
  for (const uint32_t kind : {TREL_HEAP_POOL, TREL_HEAP_DOMAIN}) {
    const uint64_t at = kind == TREL_HEAP_POOL ? h : 0;
    tally(_trelShmAllocSList(memory, kind, at, 1, 1, ""));
    tally(trelPrintOutSkipLists(heap.pool, kind, 5));
    a = b = 0;
    tally(trelDefragmentSList(memory, kind, at, &a, &b));
    tally(trelChangeSlistSpace(memory, kind, at, upTo(9000), 1 + upTo32(1), &a, &b));
    tally(trelDefragmentSLInPlace(memory, kind, at));
    tally(trelFindFreeBlockInSList(memory, kind, at, upTo(size), &a, &b));
    tally(trelSetShmDebug(memory, kind, at, 3, TREL_PAD_GUARD, 1, 1));
  }
  ShmPoolInfo_t info;
  ShmDomainInfo_t domainInfo;
  std::vector<uint8_t> data(size);
  tally(trelGetShmPoolInfo(heap.pool, &info));
  tally(trelGetShmDomainInfo(heap.domain, &domainInfo));
  a = 0;
  tally(trelGetPoolUserAppData(heap.pool, &a, data.data()));
  tally(trelSetDomainUserAppData(heap.domain, 0, data.data()));
  tally(_trelCheckAllocShmPool(heap.domain, h, 1, 1, ""));
  for (void*& block : blocks)
    if (block) tally(heap.release(&block));
  tally(_trelFreeShmPool(&heap.pool, 4, 1, 1, ""));
  tally(_trelCreateShmPool(&heap.pool, heap.domain, 0x4000, nullptr, 1, 1, ""));
  tally(trelFreeShmDomain(&heap.domain, 2));
  _exit(failures ? kRefused : 0);
}

TEST(Hostile, DamagedHeapsAnswerWithCodes) {
  constexpr uint32_t size = 0x20000, wall = 0x10000, rounds = 1500;
  uint8_t* const area = static_cast<uint8_t*>(
      mmap(nullptr, size + 2 * wall, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_EQ(0, mprotect(area + wall, size, PROT_READ | PROT_WRITE));
  std::random_device seeds;
  uint32_t refused = 0;
  for (uint32_t round = 0; round < rounds; ++round) {
    const uint32_t seed = seeds();
    const int status = inOtherProcess([&] {
      alarm(20);
      useADamagedHeap(area + wall, size, seed);
    });
    ASSERT_TRUE(status == 0 || status == kRefused << 8) << "seed " << seed << ": " << status;
    refused += status != 0;
  }
  EXPECT_GT(refused, rounds / 5);
  munmap(area, size + 2 * wall);
}

}  // namespace
