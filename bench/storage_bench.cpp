// Allocation and free of blocks beside Boost.Interprocess rbtree_best_fit: pairs at a constant
// number of live blocks, sizes 16 to 1024, victims drawn at random.
#include <benchmark/benchmark.h>

#include <boost/interprocess/managed_external_buffer.hpp>
#include <random>
#include <vector>

#include "trel/trel.h"

namespace {

namespace ipc = boost::interprocess;

std::vector<uint32_t> drawSizes() {
  std::mt19937 random(1);
  std::vector<uint32_t> sizes(1 << 16);
  for (uint32_t& size : sizes) size = 16 + random() % 1009;
  return sizes;
}

// The pairs: one block is freed, another one takes its place.
template <class Heap>
void pairs(benchmark::State& state, Heap& heap) {
  const size_t live = static_cast<size_t>(state.range(0));
  const std::vector<uint32_t> sizes = drawSizes();
  std::mt19937 random(2);
  std::vector<void*> blocks;
  for (size_t i = 0; i < live; ++i) blocks.push_back(heap.allocate(sizes[i % sizes.size()]));
  size_t next = 0;
  for (auto _ : state) {
    void*& block = blocks[random() % live];
    heap.free(block);
    block = heap.allocate(sizes[next++ % sizes.size()]);
    if (!block) return state.SkipWithError("out of memory");
  }
  for (void* block : blocks) heap.free(block);
}

constexpr size_t kBytesPerBlock = 1024;

struct TrelHeap {
  // Told how many blocks there will be, a pool has room for their nodes, and levels.
  TrelHeap(size_t live, uint32_t debugFlags, bool told)
      : memory(live * kBytesPerBlock * 2 + (8 << 20)) {
    ShmDomainParam_t param = {};
    ShmPoolParam_t poolParam = {};
    if (told) {
      poolParam.nodeCount = live * 3 / 2;
      while (size_t{1} << poolParam.maxLevel < live) ++poolParam.maxLevel;
      memory.resize(memory.size() + 183 * poolParam.nodeCount);
    }
    param.accessMode = 3;
    trelCreateShmDomain(nullptr, reinterpret_cast<uintptr_t>(memory.data()),
                        static_cast<uint32_t>(memory.size()), &param, &domain);
    _trelCreateShmPool(&pool, domain,
                       static_cast<uint32_t>(memory.size() - (6 << 20) - 183 * poolParam.nodeCount),
                       &poolParam, 0, 0, "");
    trelSetShmDebug(pool->base, TREL_HEAP_POOL, pool->poolOffset, debugFlags, TREL_PAD_DEFAULT, 2,
                    2);
  }
  ~TrelHeap() {
    _trelFreeShmPool(&pool, 4, 0, 0, "");
    trelFreeShmDomain(&domain, 2);
  }
  void* allocate(uint32_t size) {
    void* block = nullptr;
    _trelAllocateShmBlock(&block, pool, size, 0, 0, 0, "");
    return block;
  }
  void free(void* block) { _trelFreeShmBlock(&block, pool, 0, 0, ""); }

  std::vector<char> memory;
  ShmDomainHandle_t* domain = nullptr;
  ShmPoolHandle_t* pool = nullptr;
};

struct BoostHeap {
  explicit BoostHeap(size_t live)
      : memory(live * kBytesPerBlock * 2 + (8 << 20)),
        segment(ipc::create_only, memory.data(), memory.size()) {}
  void* allocate(uint32_t size) { return segment.allocate(size, std::nothrow); }
  void free(void* block) { segment.deallocate(block); }

  std::vector<char> memory;
  ipc::managed_external_buffer segment;
};

void trelBlocks(benchmark::State& state, uint32_t debugFlags, bool told) {
  TrelHeap heap(static_cast<size_t>(state.range(0)), debugFlags, told);
  pairs(state, heap);
}

void boostBlocks(benchmark::State& state) {
  BoostHeap heap(static_cast<size_t>(state.range(0)));
  pairs(state, heap);
}

BENCHMARK_CAPTURE(trelBlocks, told, 0, true)
    ->Name("blocks/trel told the node count")
    ->RangeMultiplier(10)
    ->Range(1000, 100000);
BENCHMARK_CAPTURE(trelBlocks, plain, 0, false)
    ->Name("blocks/trel")
    ->RangeMultiplier(10)
    ->Range(1000, 100000);
BENCHMARK_CAPTURE(trelBlocks, filled, 0xb, false)
    ->Name("blocks/trel filled")
    ->RangeMultiplier(10)
    ->Range(1000, 100000);
BENCHMARK(boostBlocks)->Name("blocks/boost best fit")->RangeMultiplier(10)->Range(1000, 100000);

}  // namespace
