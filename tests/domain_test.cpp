// Domains and pools: over real segments, between processes, and hostile content.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <cstring>
#include <random>

#include "heap_fixture.h"
#include "segment_guard.h"

namespace {

// Runs work in a child under a watchdog; its value is the child's exit code, -1 a crash or a hang.
template <class Work>
int inChild(Work&& work) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(20);
    _exit(work());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

uint64_t connections(ShmDomainHandle_t* domain) {
  ShmDomainInfo_t info{};
  EXPECT_EQ(0u, trelGetShmDomainInfo(domain, &info));
  return info.connectionCount;
}

TEST(Domain, LivesInASegmentBetweenProcesses) {
  const SegmentGuard guard;
  ShmDomainHandle_t *domain = nullptr, *again = nullptr;
  ASSERT_EQ(0u, trelCreateShmDomain(&guard.id, 0, 0x100000, nullptr, &domain));
  ASSERT_TRUE(guard.exists());
  EXPECT_EQ(TREL_RC_SEGMENT_EXISTS, trelCreateShmDomain(&guard.id, 0, 0x100000, nullptr, &again));
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
  shmid_ds segment;
  ASSERT_EQ(0, shmctl(guard.segment(), IPC_STAT, &segment));
  EXPECT_EQ(432u, segment.shm_perm.mode & 0777u);
  EXPECT_EQ(0x100000u, segment.shm_segsz);

  ShmPoolHandle_t* pool = nullptr;
  ASSERT_EQ(0u, _trelCreateShmPool(&pool, domain, 0x40000, nullptr, 1, 1, ""));
  void* block = nullptr;
  const int offset = inChild([&] {  // another process allocates and writes
    ShmDomainHandle_t* theirs = nullptr;
    ShmPoolHandle_t* theirPool = nullptr;
    if (trelConnectToShmDomain(&guard.id, 0, nullptr, &theirs) ||
        trelConnectToShmPool(&theirPool, theirs, static_cast<uint32_t>(pool->poolOffset),
                             nullptr) ||
        theirs->base == domain->base || theirPool->chunkOffset != pool->chunkOffset ||
        _trelAllocateShmBlock(&block, theirPool, 6, 0, 1, 1, "") || connections(theirs) != 2)
      return 1;
    strcpy(static_cast<char*>(block), "hello");
    if (trelDisconnectFromShmPool(&theirPool) || trelDisconnectFromShmDomain(&theirs)) return 1;
    return theirs ? 1 : 0;
  });
  EXPECT_EQ(0, offset);
  EXPECT_EQ(1u, connections(domain));
  const HeapWalk walk(pool->base, TREL_HEAP_POOL, pool->poolOffset);
  ASSERT_EQ("", walk.fault);
  ASSERT_EQ(1u, walk.allocated.size());
  EXPECT_STREQ("hello", static_cast<char*>(pool->base) + walk.allocated[0].data);

  ASSERT_EQ(0u, trelConnectToShmDomain(&guard.id, 0, nullptr, &again));
  EXPECT_EQ(TREL_RC_DOMAIN_FREE_MODE, trelFreeShmDomain(&domain, 3));
  EXPECT_EQ(TREL_RC_DOMAIN_CONNECTED, trelFreeShmDomain(&domain, 1));
  EXPECT_EQ(0u, trelMarkShmDomainForDeletion(domain));
  ShmDomainHandle_t* third = nullptr;
  EXPECT_EQ(TREL_RC_DOMAIN_MARKED, trelConnectToShmDomain(&guard.id, 0, nullptr, &third));
  EXPECT_EQ(2u, connections(domain));
  EXPECT_EQ(0u, trelDisconnectFromShmDomain(&again));
  EXPECT_EQ(nullptr, again);
  EXPECT_EQ(0u, trelDestroyShmPoolHandle(&pool));
  EXPECT_EQ(0u, trelFreeShmDomain(&domain, 1));
  EXPECT_EQ(nullptr, domain);
  EXPECT_FALSE(guard.exists());
  EXPECT_EQ(TREL_RC_SEGMENT_ATTACH, trelConnectToShmDomain(&guard.id, 0, nullptr, &third));
  EXPECT_EQ(nullptr, third);
}

TEST(Domain, ForcedEndIsSeenByThoseStillConnected) {
  const Reports reports;
  const SegmentGuard guard;
  ShmDomainHandle_t *domain = nullptr, *other = nullptr;
  ASSERT_EQ(0u, trelCreateShmDomain(&guard.id, 0, 0x20000, nullptr, &domain));
  ASSERT_EQ(0u, trelConnectToShmDomain(&guard.id, 0, nullptr, &other));
  ASSERT_EQ(0u, trelLatchShmDomain(other));
  const int rc = inChild([&] { return trelFreeShmDomain(&domain, 5) != TREL_RC_DOMAIN_FREE_MODE; });
  EXPECT_EQ(0, rc);
  reinterpret_cast<HeapHeader_t*>(other->base)->heapState = 0;
  EXPECT_EQ(TREL_RC_DOMAIN_STATE, trelUnlatchShmDomain(other));
  reinterpret_cast<HeapHeader_t*>(other->base)->heapState = TREL_DOMAIN_STATE;
  EXPECT_EQ(0u, trelLatchShmDomain(domain));  // it was released all the same
  EXPECT_EQ(0u, trelUnlatchShmDomain(domain));
  EXPECT_EQ(0u, trelFreeShmDomain(&domain, 2));
  EXPECT_FALSE(guard.exists());
  ShmPoolHandle_t* pool = nullptr;
  EXPECT_EQ(TREL_RC_DOMAIN_STATE, _trelCreateShmPool(&pool, other, 0x4000, nullptr, 1, 1, ""));
  EXPECT_EQ(TREL_RC_DOMAIN_STATE, trelLatchShmDomain(other));
  EXPECT_EQ(TREL_RC_DOMAIN_STATE, trelMarkShmDomainForDeletion(other));
  EXPECT_EQ(TREL_RC_DOMAIN_STATE, trelDisconnectFromShmDomain(&other));
  EXPECT_EQ(TREL_RC_DOMAIN_STATE, trelFreeShmDomain(&other, 2));
  ASSERT_NE(nullptr, other);
  PLATHIPCMemory* const segment = other->ipcMemory;
  EXPECT_EQ(0u, trelDestroyShmDomainHandle(&other));
  EXPECT_EQ(0u, segment->detach());
  delete segment;
}

TEST(Domain, RefusesInOrder) {
  const Reports reports;
  const SegmentGuard guard;
  ShmDomainHandle_t* domain = nullptr;
  alignas(8) static uint8_t memory[0x20000];
  const uintptr_t address = reinterpret_cast<uintptr_t>(memory);
  ShmDomainParam_t p{};
  const auto create = [&](const PLATIPCResID* id, uintptr_t at) {
    return trelCreateShmDomain(id, at, 0x10000, &p, &domain);
  };
  // Each row breaks one thing more; a break found earlier hides those found later.
  p.accessMode = 2;
  EXPECT_EQ(TREL_RC_ACCESS_MODE, create(nullptr, 0));
  p.accessMode = 1;
  EXPECT_EQ(TREL_RC_SEGMENT_NULL, create(nullptr, 0));
  p.accessMode = 3;
  EXPECT_EQ(TREL_RC_BASE_NULL, create(nullptr, 0));
  p.granularity = 12;
  EXPECT_EQ(TREL_RC_DOMAIN_GRANULARITY_ALIGN, create(nullptr, 0));
  for (const uint64_t granularity : {4u, 0x10008u}) {
    p.granularity = granularity;
    EXPECT_EQ(TREL_RC_DOMAIN_GRANULARITY, create(nullptr, 0));
  }
  p.heapVersion = 1;
  EXPECT_EQ(TREL_RC_HEAP_VERSION, create(nullptr, 0));
  p.latchVersion = 1;
  EXPECT_EQ(TREL_RC_LATCH_VERSION, create(nullptr, 0));
  p.handleVersion = 0x1000000000000 | TREL_STRUCTURE_VERSION;
  EXPECT_EQ(TREL_RC_HANDLE_VERSION, create(nullptr, 0));
  EXPECT_EQ(TREL_RC_HANDLE_VERSION, trelConnectToShmDomain(nullptr, 0, &p, &domain));
  p.userAreaSize = 0x10001;
  EXPECT_EQ(TREL_RC_USER_AREA_SIZE, create(nullptr, 0));
  p.heapOffset = 4;
  EXPECT_EQ(TREL_RC_HEAP_OFFSET_ALIGN, create(nullptr, 0));
  EXPECT_EQ(TREL_RC_HEAP_OFFSET_ALIGN, trelConnectToShmDomain(nullptr, 0, &p, &domain));
  p = {};
  p.heapOffset = 8;  // a segment has no room below a heap
  EXPECT_EQ(TREL_RC_HEAP_OFFSET_ALIGN, create(&guard.id, 0));
  p = {};
  p.accessMode = 3;
  p.nodeCount = 1000;  // more node space than memory
  EXPECT_EQ(TREL_RC_DOMAIN_HEADER_SIZE, create(nullptr, address));
  EXPECT_EQ(TREL_RC_DOMAIN_STATE, trelConnectToShmDomain(nullptr, address, &p, &domain));
  EXPECT_EQ(nullptr, domain);
  EXPECT_FALSE(guard.exists());

  const PLATIPCResID zero = {PLAT_STRUCTURE_TAG, 0};
  EXPECT_NE(0u, trelCreateShmDomain(&zero, 0, 0x10000, nullptr, &domain));
  for (uint32_t mode : {1u, 2u})
    EXPECT_EQ(TREL_RC_DOMAIN_HANDLE_NULL, trelFreeShmDomain(&domain, mode));
  EXPECT_EQ(TREL_RC_DOMAIN_HANDLE_NULL, trelDisconnectFromShmDomain(&domain));
  EXPECT_EQ(TREL_RC_DOMAIN_HANDLE_NULL, trelDestroyShmDomainHandle(&domain));
  EXPECT_EQ(TREL_RC_DOMAIN_HANDLE_NULL, trelLatchShmDomain(nullptr));
  EXPECT_EQ(TREL_RC_DOMAIN_HANDLE_NULL, trelGetShmDomainInfo(nullptr, nullptr));
  EXPECT_EQ(6u, reports.count("failed: 0x90000166"));
}

TEST(Domain, HeaderOfASegmentIsNotTrusted) {
  const SegmentGuard guard;
  ShmDomainHandle_t *domain = nullptr, *other = nullptr;
  ASSERT_EQ(0u, trelCreateShmDomain(&guard.id, 0, 0x10000, nullptr, &domain));
  HeapHeader_t* header = static_cast<HeapHeader_t*>(domain->base);
  const auto connect = [&](uint64_t heapOffset = 0) {
    ShmDomainParam_t p{};
    p.heapOffset = heapOffset;
    return trelConnectToShmDomain(&guard.id, 0, &p, &other);
  };
  EXPECT_EQ(TREL_RC_DOMAIN_STATE, connect(0xfff8));  // at the very end of the segment
  EXPECT_EQ(TREL_RC_DOMAIN_STATE, connect(0x10000000));
  header->heapSize = 0x10008;
  EXPECT_EQ(TREL_RC_DOMAIN_STATE, connect());
  header->heapSize = ~uint64_t{7};
  EXPECT_EQ(TREL_RC_DOMAIN_STATE, connect());
  header->heapSize = 0x10000;
  header->heapOffset = 8;
  EXPECT_EQ(TREL_RC_DOMAIN_OFFSET, connect());
  header->heapOffset = 0;
  EXPECT_EQ(1u, header->connectionCount);
  EXPECT_EQ(0u, connect());
  EXPECT_EQ(0u, trelDisconnectFromShmDomain(&other));
  EXPECT_EQ(0u, trelFreeShmDomain(&domain, 1));
}

TEST(Pool, ConnectFreeAndTheTopPool) {
  const Reports reports;
  ShmDomainParam_t param{};
  param.userAreaSize = 12;
  Heap heap(0x80000, 0x10000, param);
  HeapHeader_t* header = reinterpret_cast<HeapHeader_t*>(heap.memory);
  HeapHeaderTail_t* tail = reinterpret_cast<HeapHeaderTail_t*>(heap.memory + 264);
  ShmPoolHandle_t *second = nullptr, *same = nullptr;
  ASSERT_EQ(0u, _trelCreateShmPool(&second, heap.domain, 0x8000, nullptr, 1, 1, ""));
  const uint32_t offset = static_cast<uint32_t>(second->poolOffset);
  EXPECT_EQ(TREL_RC_POOL_OFFSET_ALIGN,
            trelConnectToShmPool(&same, heap.domain, offset + 4, nullptr));
  EXPECT_EQ(TREL_RC_POOL_STATE, trelConnectToShmPool(&same, heap.domain, offset + 8, nullptr));
  EXPECT_EQ(TREL_RC_POOL_STATE, trelConnectToShmPool(&same, heap.domain, 0, nullptr));
  EXPECT_EQ(TREL_RC_POOL_STATE, trelConnectToShmPool(&same, heap.domain, 0x7fff8, nullptr));
  EXPECT_EQ(TREL_RC_DOMAIN_OFFSET, trelConnectToShmPool(&same, heap.domain, 0x80000, nullptr));
  EXPECT_EQ(TREL_RC_DOMAIN_OFFSET, trelConnectToShmPool(&same, heap.domain, 0xfffffff8, nullptr));
  ShmPoolParam_t wrong{};
  wrong.handleVersion = 5;
  EXPECT_EQ(TREL_RC_HANDLE_VERSION, trelConnectToShmPool(&same, heap.domain, offset, &wrong));
  HeapHeader_t* poolHeader = reinterpret_cast<HeapHeader_t*>(heap.memory + offset);
  poolHeader->topPool = 8;
  EXPECT_EQ(TREL_RC_DOMAIN_OFFSET, trelConnectToShmPool(&same, heap.domain, offset, nullptr));
  poolHeader->topPool = 0;
  poolHeader->heapFlags = TREL_HEAP_MARKED;
  EXPECT_EQ(TREL_RC_POOL_MARKED, trelConnectToShmPool(&same, heap.domain, offset, nullptr));
  poolHeader->heapFlags = 0;
  PadTail_t* pad = reinterpret_cast<PadTail_t*>(heap.memory + offset - 16);
  pad->mode = 5;
  EXPECT_EQ(TREL_RC_PAD_MODE, trelConnectToShmPool(&same, heap.domain, offset, nullptr));
  pad->mode = TREL_PAD_DEFAULT;
  EXPECT_EQ(1u, poolHeader->connectionCount);  // a late failure is undone
  ASSERT_EQ(0u, trelConnectToShmPool(&same, heap.domain, offset, nullptr));
  EXPECT_EQ(0, memcmp(second, same, sizeof *same));

  for (TrelU64& word : tail->words) word = 0x1111;
  header->topPool = heap.pool->poolOffset;
  ShmPoolInfo_t info{};
  EXPECT_EQ(0u, trelGetShmPoolInfo(second, &info));
  EXPECT_EQ(2u, info.connectionCount);
  EXPECT_EQ(TREL_RC_POOL_FREE_MODE, _trelFreeShmPool(&second, 1, 1, 1, ""));
  EXPECT_EQ(TREL_RC_POOL_CONNECTED, _trelFreeShmPool(&second, 3, 1, 1, ""));
  EXPECT_EQ(0u, _trelFreeShmPool(&second, 4, 1, 1, ""));
  EXPECT_EQ(nullptr, second);
  void* block = nullptr;
  EXPECT_EQ(TREL_RC_POOL_STATE, _trelAllocateShmBlock(&block, same, 8, 0, 1, 1, ""));
  EXPECT_EQ(TREL_RC_POOL_STATE, trelDisconnectFromShmPool(&same));
  EXPECT_EQ(TREL_RC_POOL_STATE, _trelFreeShmPool(&same, 4, 1, 1, ""));
  EXPECT_EQ(0u, trelDestroyShmPoolHandle(&same));
  EXPECT_EQ(heap.pool->poolOffset, header->topPool);
  EXPECT_EQ(0u, _trelFreeShmPool(&heap.pool, 3, 1, 1, ""));
  EXPECT_EQ(0u, header->topPool);
  EXPECT_EQ(0u, tail->words[2]);
  EXPECT_EQ(0u, tail->words[3]);
  const HeapWalk walk(heap.memory, TREL_HEAP_DOMAIN, 0);
  EXPECT_EQ("", walk.fault);
  EXPECT_EQ(1u, walk.free.size());
  EXPECT_EQ(0u, walk.allocated.size());

  EXPECT_EQ(TREL_RC_DOMAIN_SIZE_SMALL, _trelCreateShmPool(
                                           &second, heap.domain, 8,
                                           [] {
                                             static ShmPoolParam_t tiny{};
                                             tiny.nodeCount = 1;
                                             return &tiny;
                                           }(),
                                           1, 1, ""));
  EXPECT_EQ(TREL_RC_DOMAIN_ABOVE_HEAP,
            _trelCreateShmPool(&second, heap.domain, 0x80000, nullptr, 1, 1, ""));
  EXPECT_EQ(TREL_RC_DOMAIN_ABOVE_FREE,
            _trelCreateShmPool(&second, heap.domain, 0x7c000, nullptr, 1, 1, ""));
  EXPECT_EQ("", heap.fault());
}

TEST(Pool, OfAnotherDomainInTheSameMemory) {
  std::vector<uint64_t> memory(0x40000 / 8);
  ShmDomainHandle_t* domains[2] = {};
  ShmPoolHandle_t *pool = nullptr, *same = nullptr;
  for (uint32_t i = 0; i < 2; ++i) {
    ShmDomainParam_t param{};
    param.accessMode = 3;
    param.heapOffset = i * 0x20000;
    ASSERT_EQ(0u, trelCreateShmDomain(nullptr, reinterpret_cast<uintptr_t>(memory.data()), 0x20000,
                                      &param, &domains[i]));
  }
  for (uint32_t i = 0; i < 2; ++i) {
    ASSERT_EQ(0u, _trelCreateShmPool(&pool, domains[i], 0x1000, nullptr, 1, 1, ""));
    const uint32_t offset = static_cast<uint32_t>(pool->poolOffset);
    EXPECT_EQ(TREL_RC_DOMAIN_OFFSET, trelConnectToShmPool(&same, domains[1 - i], offset, nullptr));
    EXPECT_EQ(0u, _trelFreeShmPool(&pool, 3, 1, 1, ""));
  }
  for (ShmDomainHandle_t*& domain : domains) EXPECT_EQ(0u, trelFreeShmDomain(&domain, 1));
}

// The node space grows into the block that is being freed, and that part is no more to be filled.
TEST(Pool, FillOfAFreedBlockStopsAtTheNodeSpace) {
  ShmPoolParam_t param{};
  param.nodeCount = 20;
  Heap heap(0x80000, 0x40000, {}, param);
  int grown = 0;
  for (int i = 0; i < 300; ++i) {
    void *kept = nullptr, *lowest = nullptr;
    ASSERT_EQ(0u, heap.allocate(&kept, 8));
    const uint32_t size = static_cast<uint32_t>(heap.info().freeBytes - 32);
    ASSERT_EQ(0u, heap.allocate(&lowest, size));
    memset(lowest, 0x11, size);
    const uint64_t before = heap.info().slSpaceSize;
    const uint8_t* const data = static_cast<const uint8_t*>(lowest);
    ASSERT_EQ(0u, heap.release(&lowest));
    const uint64_t taken = heap.info().slSpaceSize - before;
    if (taken == 0) continue;
    ++grown;
    EXPECT_EQ(0x11, data[taken - 32]);
    EXPECT_EQ(0xff, data[taken - 8]);
    ASSERT_EQ("", heap.fault());
  }
  EXPECT_LT(0, grown);
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

// Damages a busy heap in every place but its latches, and goes on using it: codes, and no more.
TEST(Hostile, DamagedHeapsAnswerWithCodes) {
  constexpr uint32_t size = 0x20000;
  const size_t page = 0x10000;
  uint8_t* const area = static_cast<uint8_t*>(
      mmap(nullptr, size + 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  uint8_t* const memory = area + page;  // walls on both sides
  ASSERT_EQ(0, mprotect(memory, size, PROT_READ | PROT_WRITE));
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const auto upTo = [&](uint64_t limit) { return random() % (limit + 1); };
  constexpr int kRefused = 10;  // sanitizers use 1
  int refused = 0;
  const int rounds = 1500;
  for (int round = 0; round < rounds; ++round) {
    const uint32_t roundSeed = random();
    const int code = inChild([&] {
      random.seed(roundSeed);
      const int nowhere = open("/dev/null", O_WRONLY);
      dup2(nowhere, STDOUT_FILENO);
      platSetReportSink([](const char*) {});
      ShmDomainParam_t domainParam{};
      domainParam.accessMode = 3;
      ShmDomainHandle_t* domain = nullptr;
      ShmPoolHandle_t *pool = nullptr, *other = nullptr;
      ShmPoolParam_t poolParam{};
      poolParam.nodeCount = 30;
      std::vector<void*> blocks(40);
      if (trelCreateShmDomain(nullptr, reinterpret_cast<uintptr_t>(memory), size, &domainParam,
                              &domain) ||
          _trelCreateShmPool(&pool, domain, 0x10000, &poolParam, 1, 1, ""))
        return 2;
      const uint64_t h = pool->poolOffset;
      trelSetShmDebug(memory, TREL_HEAP_POOL, h, 3,
                      upTo(1) ? TREL_PAD_DEFAULT : TREL_PAD_FILE_GUARD, 2, 2);
      for (void*& block : blocks)
        if (_trelAllocateShmBlock(&block, pool, static_cast<uint32_t>(1 + upTo(300)), 0, 1, 1, ""))
          return 3;
      for (size_t i = 0; i < blocks.size(); i += 3) _trelFreeShmBlock(&blocks[i], pool, 1, 1, "");

      for (uint64_t damages = 1 + upTo(3); damages > 0; --damages) {
        const uint64_t heap = upTo(3) ? h : 0;
        const uint64_t range[] = {96, 488, 2500, 12000};
        uint64_t at = upTo(range[upTo(3)] - 9);
        if (upTo(1)) at &= ~uint64_t{7};
        const auto latch = [&](uint64_t from) { return at + 8 > from && at < from + 136; };
        if (latch(96) || latch(352)) at = upTo(47);
        if (heap == 0 && at < 64 && at + 8 > 56)
          at = 0;  // the domain's size: tested at attach only
        const uint64_t values[] = {0,
                                   8,
                                   ~uint64_t{0},
                                   ~uint64_t{7},
                                   h,
                                   h + 488,
                                   h + upTo(12000),
                                   upTo(size),
                                   upTo(30),
                                   random(),
                                   uint64_t{random()} << 32};
        const uint64_t value = values[upTo(std::size(values) - 1)];
        memcpy(memory + heap + at, &value, upTo(1) ? 8 : 1);
      }

      uint32_t failures = 0;
      const auto tally = [&](uint32_t rc) { failures += rc != 0; };
      ShmPoolInfo_t info;
      ShmDomainInfo_t domainInfo;
      uint64_t a = 0, b = 0;
      std::vector<uint8_t> data(size);
      // A process that comes to the damaged heap finds out before it touches more than its header.
      tally(trelConnectToShmPool(&other, domain, static_cast<uint32_t>(h), nullptr));
      if (!other) return kRefused;
      for (int i = 0; i < 60; ++i) {
        void*& block = blocks[upTo(blocks.size() - 1)];
        if (block)
          tally(_trelFreeShmBlock(&block, pool, 1, 1, ""));
        else
          tally(_trelAllocateShmBlock(&block, pool, static_cast<uint32_t>(1 + upTo(300)), 0, 1, 1,
                                      ""));
        if (block) tally(_trelCheckAllocShmBlock(&block, pool, 1, 1, ""));
      }
      for (const uint32_t kind : {TREL_HEAP_POOL, TREL_HEAP_DOMAIN}) {
        const uint64_t at = kind == TREL_HEAP_POOL ? h : 0;
        tally(_trelShmAllocSList(memory, kind, at, 1, 1, ""));
        tally(trelPrintOutSkipLists(pool, kind, 5));
        a = b = 0;
        tally(trelDefragmentSList(memory, kind, at, &a, &b));
        tally(trelChangeSlistSpace(memory, kind, at, upTo(9000), 1 + static_cast<uint32_t>(upTo(1)),
                                   &a, &b));
        tally(trelDefragmentSLInPlace(memory, kind, at));
        tally(trelFindFreeBlockInSList(memory, kind, at, upTo(size), &a, &b));
        tally(trelSetShmDebug(memory, kind, at, 3, TREL_PAD_GUARD, 1, 1));
      }
      tally(trelGetShmPoolInfo(pool, &info));
      tally(trelGetShmDomainInfo(domain, &domainInfo));
      a = 0;
      tally(trelGetPoolUserAppData(pool, &a, data.data()));
      tally(trelSetDomainUserAppData(domain, 0, data.data()));
      tally(_trelCheckAllocShmPool(domain, h, 1, 1, ""));
      for (void*& block : blocks)
        if (block) tally(_trelFreeShmBlock(&block, pool, 1, 1, ""));
      tally(_trelFreeShmPool(&pool, 4, 1, 1, ""));
      tally(_trelCreateShmPool(&pool, domain, 0x4000, nullptr, 1, 1, ""));
      tally(trelFreeShmDomain(&domain, 2));
      return failures != 0 ? kRefused : 0;
    });
    ASSERT_TRUE(code == 0 || code == kRefused)
        << "round " << round << ", its seed " << roundSeed << ": " << code;
    refused += code == kRefused;
  }
  EXPECT_GT(refused, rounds / 5);
  munmap(area, size + 2 * page);
}

}  // namespace
