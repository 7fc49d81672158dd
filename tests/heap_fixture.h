// What the tests of storage heaps share: a heap on memory that the test gives, and its reports.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include "heap_walker.h"
#include "segment_fixture.h"

// Keeps the reports of the library while it lives.
class Reports {
 public:
  Reports() {
    lines.clear();
    platSetReportSink([](const char* line) { lines.push_back(line); });
  }
  ~Reports() { platSetReportSink(nullptr); }
  static size_t count(const std::string& text) {
    return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
      return line.find(text) != std::string::npos;
    });
  }
  static inline std::vector<std::string> lines;
};

// A domain with one pool, on memory of exactly the bytes that it is told of, or at a given place.
struct Heap {
  uint8_t* const memory;
  const bool isOwner;
  ShmDomainHandle_t* domain = nullptr;
  ShmPoolHandle_t* pool = nullptr;

  Heap(uint32_t domainSize, uint32_t poolSize, ShmDomainParam_t domainParam = {},
       ShmPoolParam_t poolParam = {}, uint8_t* place = nullptr)
      : memory(place ? place : static_cast<uint8_t*>(malloc(domainParam.heapOffset + domainSize))),
        isOwner(!place) {
    domainParam.accessMode = 3;
    EXPECT_EQ(0u, trelCreateShmDomain(nullptr, reinterpret_cast<uintptr_t>(memory), domainSize,
                                      &domainParam, &domain));
    if (poolSize) {
      EXPECT_EQ(0u, _trelCreateShmPool(&pool, domain, poolSize, &poolParam, 1, 2, "heap_test"));
    }
    EXPECT_EQ("", fault());
  }
  ~Heap() {
    if (pool) trelDestroyShmPoolHandle(&pool);
    if (domain) trelDestroyShmDomainHandle(&domain);
    if (isOwner) free(memory);
  }
  Heap(const Heap&) = delete;

  uint32_t allocate(void** block, uint32_t size, const char* file = "heap_test") {
    return _trelAllocateShmBlock(block, pool, size, 0, 3, 4, file);
  }
  uint32_t allocateRest(void** block) {  // all that is free, where it is one block
    return allocate(block, static_cast<uint32_t>(info().freeBytes - 32));
  }
  uint32_t release(void** block) { return _trelFreeShmBlock(block, pool, 5, 6, "heap_test"); }
  uint32_t check(void* block) { return _trelCheckAllocShmBlock(&block, pool, 7, 8, "heap_test"); }
  HeapHeader_t* header(uint64_t offset = 0) const {
    return reinterpret_cast<HeapHeader_t*>(memory + offset);
  }
  uint64_t offsetOf(const void* block) const {
    return static_cast<uint64_t>(static_cast<const uint8_t*>(block) - memory);
  }
  HeapWalk walk() const { return {memory, TREL_HEAP_POOL, pool->poolOffset}; }
  HeapBlock blockOf(const void* data) const {
    for (const HeapBlock& block : walk().allocated)
      if (block.data == offsetOf(data)) return block;
    ADD_FAILURE() << "no block at " << offsetOf(data);
    return {};
  }
  ShmPoolInfo_t info() const {
    ShmPoolInfo_t info{};
    EXPECT_EQ(0u, trelGetShmPoolInfo(pool, &info));
    return info;
  }
  std::string fault() const {
    const std::string found = heapFault(memory, TREL_HEAP_DOMAIN, domain->heapOffset);
    return found.empty() && pool ? walk().fault : found;
  }
};
