// Reports on heaps, byte for byte, and their behaviour on damaged heaps.
#include <cstdarg>
#include <cstdio>

#include "heap_fixture.h"

namespace {

template <class Work>
std::string printed(Work&& work) {
  testing::internal::CaptureStdout();
  work();
  fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

std::string text(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string text(const char* format, ...) {
  char line[256];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  return line;
}

using Wide = unsigned long long;

// Two levels at most, so that the shape of the lists follows from what is stored.
class Report : public testing::Test {
 protected:
  Report() : heap(0x40000, 0x10000, {}, param()) {}
  static ShmPoolParam_t param() {
    ShmPoolParam_t param{};
    param.maxLevel = 1;
    return param;
  }
  uint32_t report(uint32_t kind, uint64_t offset) {
    return _trelShmAllocSList(heap.memory, kind, offset, 9, 10, "asker");
  }
  std::string lists(uint32_t kind, uint64_t detail) {
    return printed([&] { EXPECT_EQ(0u, trelPrintOutSkipLists(heap.pool, kind, detail)); });
  }
  uint64_t h() const { return heap.pool->poolOffset; }
  Heap heap;
};

TEST_F(Report, ListsOfAPool) {
  const std::string heads =
      "\n       SKIP LIST CONSISTING OF 0 ALLOCATED BLOCKS ORDERED BY OFFSETS\n"
      "       SKIP LIST CONSISTING OF 0 FREE BLOCKS ORDERED BY OFFSETS\n"
      "       SKIP LIST CONSISTING OF 0 FREE BLOCKS ORDERED BY SIZES\n";
  EXPECT_EQ("", lists(TREL_HEAP_POOL, 0));
  void* all = nullptr;
  ASSERT_EQ(0u, heap.allocate(&all, static_cast<uint32_t>(heap.info().freeBytes - 32)));
  std::string oneAllocated = heads;
  oneAllocated[oneAllocated.find('0')] = '1';
  const HeapBlock a = heap.walk().allocated[0];
  oneAllocated.insert(oneAllocated.find("       SKIP", 20),
                      text("  Allocated block #1 has offset = %llu, max level = 0, size = %llu\n",
                           Wide{a.data}, Wide{a.requested}));
  EXPECT_EQ(oneAllocated, lists(TREL_HEAP_POOL, 1));
  ASSERT_EQ(0u, heap.release(&all));

  void* blocks[3];
  for (void*& block : blocks) ASSERT_EQ(0u, heap.allocate(&block, 40));
  ASSERT_EQ(0u, heap.release(&blocks[1]));
  const HeapWalk walk = heap.walk();
  ASSERT_EQ(2u, walk.free.size());
  ASSERT_LT(walk.free[1].size, walk.free[0].size);
  const uint64_t s = h() + 488, head = s + 128, tail = s + 208;
  const HeapBlock &low = walk.free[0], &high = walk.free[1];
  const HeapBlock &first = walk.allocated[0], &second = walk.allocated[1];

  std::string want = "\n       SKIP LIST CONSISTING OF 2 ALLOCATED BLOCKS ORDERED BY OFFSETS\n";
  int n = 0;
  for (const HeapBlock* block : {&first, &second}) {
    ++n;
    want += text("  Allocated block #%d has offset = %llu, max level = 0, size = 40\n", n,
                 Wide{block->data});
    want += text("  Actual    block #%d has offset = %llu, max level = 0, size = 72\n", n,
                 Wide{block->offset});
    want += text("  Allocated block #%d at node offset %llu\n", n, Wide{block->node});
    want += text("     Forward link at level 0 points to offset %llu\n",
                 Wide{block == &first ? second.node + 48 : 0});
  }
  want += "       SKIP LIST CONSISTING OF 2 FREE BLOCKS ORDERED BY OFFSETS\n";
  want += text("  Head node offset for free blocks SLHead = %llu\n", Wide{head});
  want += "  Head block offset = 0, size = 0, max level = 0\n";
  want += text("   Forward (O) link at level 0 points to offset %llu\n", Wide{low.node});
  want += text("   Backward(O) link at level 0 points to offset %llu\n", Wide{tail});
  want += text("   Forward (S) link at level 0 points to offset %llu\n", Wide{high.node});
  want += text("   Backward(S) link at level 0 points to offset %llu\n", Wide{tail});
  const auto freeNode = [&](int number, const HeapBlock& block) {
    return text(
        "  Free block #%d at node offset %llu\n"
        "  Free block #%d has offset = %llu, max level = 0, size = %llu\n",
        number, Wide{block.node}, number, Wide{block.offset}, Wide{block.size});
  };
  const auto links = [&](char order, uint64_t forward, uint64_t backward) {
    return text(
        "     Forward (%c) link at level 0points to offset %llu\n"
        "     Backward(%c) link at level 0points to offset %llu\n",
        order, Wide{forward}, order, Wide{backward});
  };
  const std::string lowO = links('O', high.node, head), highO = links('O', tail, low.node);
  const std::string lowS = links('S', tail, high.node), highS = links('S', low.node, head);
  const std::string middle = "       SKIP LIST CONSISTING OF 2 FREE BLOCKS ORDERED BY SIZES\n";
  const std::string end = text("  Tail node offset for free blocks SLTail = %llu\n", Wide{tail});
  EXPECT_EQ(want + freeNode(1, low) + lowO + lowS + freeNode(2, high) + highO + highS + middle +
                freeNode(1, high) + highS + highO + freeNode(2, low) + lowS + lowO + end,
            lists(TREL_HEAP_POOL, 5));
  EXPECT_EQ(want + freeNode(1, low) + lowO + freeNode(2, high) + highO + middle +
                freeNode(1, high) + highS + freeNode(2, low) + lowS + end,
            lists(TREL_HEAP_POOL, 4));
  for (const uint64_t detail : {1, 2, 3}) {  // what each level leaves out
    const std::string shown = lists(TREL_HEAP_POOL, detail);
    EXPECT_EQ(detail >= 2, shown.find("  Actual    block #2 has") != shown.npos);
    EXPECT_EQ(detail >= 3, shown.find("SLTail") != shown.npos);
    EXPECT_EQ(detail >= 3, shown.find("  Free block #1 at node") != shown.npos);
    EXPECT_EQ(detail >= 3, shown.find("     Forward link at level 0 points") != shown.npos);
    EXPECT_EQ(std::string::npos, shown.find("Allocated block #1 at node"));
    EXPECT_EQ(std::string::npos, shown.find("Head block"));
  }
  const std::string domain = lists(TREL_HEAP_DOMAIN, 3);
  EXPECT_NE(
      std::string::npos,
      domain.find(text("\n       SKIP LIST CONSISTING OF 1 ALLOCATED POOLS ORDERED BY OFFSETS\n"
                       "  Allocated pool #1 has offset = %llu, ",
                       Wide{h()})));
  EXPECT_NE(std::string::npos, domain.find("for free pools SLHead"));
}

TEST_F(Report, UnfreedMemory) {
  const Reports reports;
  EXPECT_EQ("", printed([&] { EXPECT_EQ(0u, report(TREL_HEAP_POOL, h())); }));
  void *plain = nullptr, *named = nullptr;
  ASSERT_EQ(0u, _trelAllocateShmBlock(&plain, heap.pool, 26, 0, FID_trelCreateNode, 77, "x.cpp"));
  ASSERT_EQ(0u, trelSetShmDebug(heap.memory, TREL_HEAP_POOL, h(), 0, TREL_PAD_FILE, 2, 2));
  ASSERT_EQ(0u, _trelAllocateShmBlock(&named, heap.pool, 17, 0, FID_trelInitNode, 78,
                                      "a_file_name_longer_than_23_bytes.cpp"));
  const std::string blocks =
      "\nList of unfreed shared memory blocks:\n~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~\n";
  const std::string want =
      text("Address: %p, Size: 11, Location: a_file_name_longer_than:trelInitNode:78\n", named) +
      text("Address: %p, Size: 1a, Location: trelCreateNode:77\n", plain);
  EXPECT_EQ(blocks + want, printed([&] { EXPECT_EQ(0u, report(TREL_HEAP_POOL, h())); }));
  EXPECT_EQ("\nList of unfreed shared memory pools:\n~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~\n" +
                text("Address: %p, Size: 10000, Location: %s:2\n",
                     static_cast<void*>(heap.memory + h()), rcdGetFunctionName(1)),
            printed([&] { EXPECT_EQ(0u, report(TREL_HEAP_DOMAIN, 0)); }));
  EXPECT_EQ(0u, reports.lines.size());

  static_cast<uint8_t*>(plain)[26] = 0;  // the entry is checked as it is printed
  printed([&] { EXPECT_EQ(0u, report(TREL_HEAP_POOL, h())); });
  EXPECT_EQ(1u, reports.count("Back memory pad aligned size corruption found at asker:10"));
  static_cast<uint8_t*>(plain)[-1] ^= 1;  // the mode word
  EXPECT_EQ(blocks + want.substr(0, want.find('\n') + 1),
            printed([&] { EXPECT_EQ(TREL_RC_PAD_MODE, report(TREL_HEAP_POOL, h())); }));
  EXPECT_EQ(1u, reports.count("Invalid pad type (0xEFBC011A) found at:"));
}

TEST_F(Report, ChecksRefuseInOrder) {
  const Reports reports;
  void* block = nullptr;
  EXPECT_EQ(TREL_RC_DOMAIN_HANDLE_NULL, _trelCheckAllocShmPool(nullptr, 1, 1, 1, ""));
  EXPECT_EQ(TREL_RC_POOL_OFFSET_ALIGN, _trelCheckAllocShmPool(heap.domain, h() + 1, 1, 1, ""));
  EXPECT_EQ(TREL_RC_DOMAIN_LIST_END, _trelCheckAllocShmPool(heap.domain, 8, 1, 1, ""));
  EXPECT_EQ(0u, _trelCheckAllocShmPool(heap.domain, h(), 1, 1, ""));
  EXPECT_EQ(TREL_RC_POOL_HANDLE_NULL, _trelCheckAllocShmBlock(nullptr, nullptr, 1, 1, ""));
  EXPECT_EQ(TREL_RC_BLOCK_ADDRESS_NULL, _trelCheckAllocShmBlock(nullptr, heap.pool, 1, 1, ""));
  EXPECT_EQ(TREL_RC_BLOCK_NULL, heap.check(block));
  EXPECT_EQ(TREL_RC_BLOCK_BELOW_BASE, heap.check(heap.memory - 16));
  EXPECT_EQ(TREL_RC_BLOCK_OUTSIDE_POOL, heap.check(heap.memory + h()));
  ASSERT_EQ(0u, heap.allocate(&block, 8));
  EXPECT_EQ(TREL_RC_PAD_MODE, heap.check(static_cast<uint8_t*>(block) + 8));
  ShmPoolHandle_t bad = *heap.pool;
  bad.poolOffset += 4;
  EXPECT_EQ(TREL_RC_POOL_OFFSET_ALIGN, _trelCheckAllocShmBlock(nullptr, &bad, 1, 1, ""));
  EXPECT_EQ(TREL_RC_HEAP_KIND, report(0, h()));
  EXPECT_EQ(TREL_RC_POOL_STATE, report(TREL_HEAP_POOL, 0));
  EXPECT_EQ(TREL_RC_POOL_HANDLE_NULL, trelPrintOutSkipLists(nullptr, 9, 5));
  EXPECT_EQ(TREL_RC_HEAP_KIND, trelPrintOutSkipLists(heap.pool, 3, 5));
  EXPECT_EQ("", heap.fault());
}

}  // namespace
