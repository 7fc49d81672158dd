// Latches, the heartbeat, a register that two processes update, and attachment.
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <boost/interprocess/sync/interprocess_mutex.hpp>
#include <new>

#include "bench.h"

namespace {

struct Cell {
  alignas(64) uint8_t bytes[64];
  alignas(64) uint64_t word;
  alignas(64) uint64_t payload;
};

void LatchBare(benchmark::State& state) {
  static Cell cell;
  for (auto _ : state) {
    uint64_t free = 0;
    __atomic_compare_exchange_n(&cell.word, &free, uint64_t{1}, false, __ATOMIC_ACQUIRE,
                                __ATOMIC_RELAXED);
    benchmark::DoNotOptimize(__atomic_exchange_n(&cell.word, uint64_t{0}, __ATOMIC_RELEASE));
  }
}

void Latch(benchmark::State& state) {
  static Cell cell;
  platVLatchInit(cell.bytes, 1);
  uint32_t died = 0;
  for (auto _ : state) {
    plat::latchGet(cell.bytes, &died);
    plat::latchRelease(cell.bytes);
  }
}

void LatchAndStore(benchmark::State& state) {
  static Cell cell;
  platVLatchInit(cell.bytes, 1);
  uint32_t died = 0;
  for (auto _ : state) {
    plat::latchGet(cell.bytes, &died);
    benchmark::DoNotOptimize(++cell.payload);
    plat::latchRelease(cell.bytes);
  }
}

void Heartbeat(benchmark::State& state) {
  bench::Node node(0, {});
  for (auto _ : state) trelUpdateNodeStatus(node.cb);
}

// Time of an update while another process updates the same page, too. `update` is called with it.
template <class Prepare, class Update>
void twoProcesses(benchmark::State& state, Prepare prepare, Update update) {
  struct Page {
    std::atomic<bool> stop;
    alignas(4096) uint8_t rest[1 << 16];
  };
  void* memory =
      mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  Page* page = new (memory) Page{};
  prepare(page->rest);
  const pid_t child = fork();
  if (child == 0) {
    while (!page->stop.load(std::memory_order_relaxed)) update(page->rest);
    _exit(0);
  }
  usleep(20000);
  for (auto _ : state) update(page->rest);
  page->stop = true;
  waitpid(child, nullptr, 0);
  munmap(memory, sizeof(Page));
}

void TwoOnALatch(benchmark::State& state) {
  twoProcesses(
      state, [](uint8_t* p) { platVLatchInit(p, 1); },
      [](uint8_t* p) {
        uint32_t died = 0;
        plat::latchGet(p, &died);
        benchmark::DoNotOptimize(++*reinterpret_cast<uint64_t*>(p + 64));
        plat::latchRelease(p);
      });
}

void TwoOnABoostMutex(benchmark::State& state) {
  using Mutex = boost::interprocess::interprocess_mutex;
  twoProcesses(
      state, [](uint8_t* p) { new (p) Mutex; },
      [](uint8_t* p) {
        auto* mutex = reinterpret_cast<Mutex*>(p);
        mutex->lock();
        benchmark::DoNotOptimize(++*reinterpret_cast<uint64_t*>(p + 64));
        mutex->unlock();
      });
}

constexpr uint32_t kKey = 0x5be0;

class Segment {
 public:
  Segment() {
    TRELOneTimeOnlyInitialization(TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION);
    const PLATIPCResID key = {PLAT_STRUCTURE_TAG, kKey + static_cast<uint32_t>(getpid())};
    trelGetProtectedStatusSegment(&segment_, 1 << 20, &key, 0, 0, nullptr, nullptr);
    uint64_t sizes[64] = {}, size = 0, offset = 0;
    SNodeCB_t* node = nullptr;
    trelCreateNode(segment_, &node, 0, sizes, &size, &offset);
    trelInitNode(&node, offset, 0, nullptr, nullptr, nullptr, 0, nullptr, nullptr, nullptr);
    trelActivateNode(&node);
    trelPutTopNodeInfoIntoDomainHeader(segment_->shmDomainHandle, 0, offset,
                                       static_cast<uint32_t>(segment_->shmPoolHandle->poolOffset));
    id = key;
    // Kept by key alone, so that every attach below is a real one.
    trelDetachFromTopNode(&segment_, 2);
  }
  ~Segment() {
    trelAttachStatusSegment(&segment_, &id, 0, 0, 0, nullptr, nullptr);
    trelDeleteStatusSegment(&segment_, 4, 2, 2);
    TRELCleanup(1);
  }
  PLATIPCResID id;

 private:
  ShmSegInfo_t* segment_ = nullptr;
};

void Attach(benchmark::State& state) {
  const Segment segment;
  for (auto _ : state) {
    ShmSegInfo_t* attached = nullptr;
    trelAttachStatusSegment(&attached, &segment.id, 0, 0, 0, nullptr, nullptr);
    trelDetachStatusSegment(&attached, 1);
  }
}

void AttachBare(benchmark::State& state) {
  const Segment segment;
  for (auto _ : state) {
    const int id = shmget(static_cast<key_t>(segment.id.key), 0, 0);
    void* address = shmat(id, nullptr, 0);
    benchmark::DoNotOptimize(*static_cast<volatile char*>(address));
    shmdt(address);
  }
}

BENCHMARK(LatchBare);
BENCHMARK(Latch);
BENCHMARK(LatchAndStore);
BENCHMARK(Heartbeat);
BENCHMARK(TwoOnALatch)->UseRealTime();
BENCHMARK(TwoOnABoostMutex)->UseRealTime();
BENCHMARK(Attach);
BENCHMARK(AttachBare);

}  // namespace
