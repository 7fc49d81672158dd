// Reports on heaps, byte for byte, and their behaviour on damaged heaps.
#include <map>
#include <sstream>

#include "heap_fixture.h"

namespace {

// One level, so that the shape of the lists follows from what is stored.
class Report : public testing::Test {
 protected:
  uint32_t report(uint32_t kind, uint64_t offset) {
    return _trelShmAllocSList(heap.memory, kind, offset, 9, 10, "asker");
  }
  std::string lists(uint32_t kind, uint64_t detail) {
    return printed([&] { EXPECT_EQ(0u, trelPrintOutSkipLists(heap.pool, kind, detail)); });
  }
  Heap heap{0x40000, 0x10000, {}, {0, 0, 0, 0, 0, /* maxLevel */ 1, 0, 0, nullptr}};
  const uint64_t h = heap.pool->poolOffset;
};

// What is printed of two allocated and two free blocks; first, the detail from which a line shows.
const char* const kLists = R"(1
1       SKIP LIST CONSISTING OF 2 ALLOCATED BLOCKS ORDERED BY OFFSETS
1  Allocated block #1 has offset = $A.data, max level = 0, size = 40
2  Actual    block #1 has offset = $A, max level = 0, size = 72
4  Allocated block #1 at node offset $A.node
3     Forward link at level 0 points to offset $B.slot
1  Allocated block #2 has offset = $B.data, max level = 0, size = 40
2  Actual    block #2 has offset = $B, max level = 0, size = 72
4  Allocated block #2 at node offset $B.node
3     Forward link at level 0 points to offset 0
1       SKIP LIST CONSISTING OF 2 FREE BLOCKS ORDERED BY OFFSETS
3  Head node offset for free blocks SLHead = $head
4  Head block offset = 0, size = 0, max level = 0
4   Forward (O) link at level 0 points to offset $C.node
4   Backward(O) link at level 0 points to offset $tail
4   Forward (S) link at level 0 points to offset $D.node
4   Backward(S) link at level 0 points to offset $tail
3  Free block #1 at node offset $C.node
1  Free block #1 has offset = $C, max level = 0, size = $C.size
3     Forward (O) link at level 0points to offset $D.node
3     Backward(O) link at level 0points to offset $head
5     Forward (S) link at level 0points to offset $tail
5     Backward(S) link at level 0points to offset $D.node
3  Free block #2 at node offset $D.node
1  Free block #2 has offset = $D, max level = 0, size = $D.size
3     Forward (O) link at level 0points to offset $tail
3     Backward(O) link at level 0points to offset $C.node
5     Forward (S) link at level 0points to offset $C.node
5     Backward(S) link at level 0points to offset $head
1       SKIP LIST CONSISTING OF 2 FREE BLOCKS ORDERED BY SIZES
3  Free block #1 at node offset $D.node
1  Free block #1 has offset = $D, max level = 0, size = $D.size
3     Forward (S) link at level 0points to offset $C.node
3     Backward(S) link at level 0points to offset $head
5     Forward (O) link at level 0points to offset $tail
5     Backward(O) link at level 0points to offset $C.node
3  Free block #2 at node offset $C.node
1  Free block #2 has offset = $C, max level = 0, size = $C.size
3     Forward (S) link at level 0points to offset $tail
3     Backward(S) link at level 0points to offset $D.node
5     Forward (O) link at level 0points to offset $D.node
5     Backward(O) link at level 0points to offset $head
3  Tail node offset for free blocks SLTail = $tail
)";

TEST_F(Report, ListsOfAPool) {
  void* blocks[3];
  for (void*& block : blocks) ASSERT_EQ(0u, heap.allocate(&block, 40));
  ASSERT_EQ(0u, heap.release(&blocks[1]));
  const HeapWalk walk = heap.walk();
  ASSERT_EQ(2u, walk.free.size());
  ASSERT_LT(walk.free[1].size, walk.free[0].size);
  std::map<std::string, uint64_t> names = {{"head", h + 616}, {"tail", h + 696}};
  char name = 'A';
  for (const auto* list : {&walk.allocated, &walk.free})
    for (const HeapBlock& block : *list) {
      const std::string id(1, name++);
      names.insert({{id, block.offset},
                    {id + ".data", block.data},
                    {id + ".size", block.size},
                    {id + ".node", block.node},
                    {id + ".slot", block.node + 48}});
    }
  for (uint64_t detail = 0; detail <= 5; ++detail) {
    std::string wanted, line;
    for (std::istringstream table(kLists); std::getline(table, line);) {
      if (static_cast<uint64_t>(line[0] - '0') > detail) continue;
      for (size_t at; (at = line.find('$')) != std::string::npos;) {
        size_t end = at + 1;
        while (end < line.size() && (isalnum(line[end]) || line[end] == '.')) ++end;
        line.replace(at, end - at, std::to_string(names.at(line.substr(at + 1, end - at - 1))));
      }
      wanted += line.substr(1) + "\n";
    }
    EXPECT_EQ(wanted, lists(TREL_HEAP_POOL, detail));
  }
  const std::string domain = lists(TREL_HEAP_DOMAIN, 3);
  EXPECT_NE(std::string::npos,
            domain.find("LIST CONSISTING OF 1 ALLOCATED POOLS ORDERED BY OFFSETS\n"
                        "  Allocated pool #1 has offset = " +
                        std::to_string(h) + ", "));
  EXPECT_NE(std::string::npos, domain.find("for free pools SLHead"));
}

TEST_F(Report, UnfreedMemory) {
  const Reports reports;
  const auto unfreed = [&](uint32_t kind, uint32_t code = 0) {
    return printed([&] { EXPECT_EQ(code, report(kind, kind == TREL_HEAP_POOL ? h : 0)); });
  };
  EXPECT_EQ("", unfreed(TREL_HEAP_POOL));
  void *plain = nullptr, *named = nullptr;
  ASSERT_EQ(0u, _trelAllocateShmBlock(&plain, heap.pool, 26, 0, FID_trelCreateNode, 77, "x.cpp"));
  ASSERT_EQ(0u, trelSetShmDebug(heap.memory, TREL_HEAP_POOL, h, 0, TREL_PAD_FILE, 2, 2));
  ASSERT_EQ(0u, _trelAllocateShmBlock(&named, heap.pool, 17, 0, FID_trelInitNode, 78,
                                      "a_file_name_longer_than_23_bytes.cpp"));
  std::ostringstream first, both, pool;
  first << "\nList of unfreed shared memory blocks:\n~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~\n"
        << "Address: " << named
        << ", Size: 11, Location: a_file_name_longer_than:trelInitNode:78\n";
  both << first.str() << "Address: " << plain << ", Size: 1a, Location: trelCreateNode:77\n";
  pool << "\nList of unfreed shared memory pools:\n~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~\nAddress: "
       << static_cast<void*>(heap.memory + h) << ", Size: 10000, Location: :2\n";
  EXPECT_EQ(both.str(), unfreed(TREL_HEAP_POOL));
  EXPECT_EQ(pool.str(), unfreed(TREL_HEAP_DOMAIN));
  EXPECT_EQ(0u, reports.lines.size());

  static_cast<uint8_t*>(plain)[26] = 0;  // the entry is checked as it is printed
  unfreed(TREL_HEAP_POOL);
  EXPECT_EQ(1u, reports.count("Back memory pad aligned size corruption found at asker:10"));
  static_cast<uint8_t*>(plain)[-1] ^= 1;  // the mode word
  EXPECT_EQ(first.str(), unfreed(TREL_HEAP_POOL, TREL_RC_PAD_MODE));
  EXPECT_EQ(1u, reports.count("Invalid pad type (0xEFBC011A) found at:"));
}

TEST(ReportForReaders, TheSameWithoutTheRightToWrite) {
  constexpr size_t kSize = 0x40000;
  void* const place =
      mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, place);
  Heap heap(kSize, 0x10000, {}, {}, static_cast<uint8_t*>(place));
  void* block = nullptr;
  ASSERT_EQ(0u, heap.allocate(&block, 40));
  const auto look = [&] {
    ShmDomainInfo_t domain{};
    EXPECT_EQ(0u, trelGetShmDomainInfo(heap.domain, &domain));
    const ShmPoolInfo_t pool = heap.info();
    return std::to_string(domain.freeBytes) + " " + std::to_string(pool.freeBytes) + printed([&] {
             EXPECT_EQ(0u, _trelShmAllocSList(place, TREL_HEAP_POOL, pool.heapOffset, 9, 10, "x"));
             EXPECT_EQ(0u, trelPrintOutSkipLists(heap.pool, TREL_HEAP_POOL, 5));
           });
  };
  const std::string before = look();
  ASSERT_EQ(0, mprotect(place, kSize, PROT_READ));
  EXPECT_EQ(before, look());
  ASSERT_EQ(0, mprotect(place, kSize, PROT_READ | PROT_WRITE));
  heap.header(heap.pool->poolOffset)->heapSize = uint64_t{1} << 40;  // beyond the mapping
  ShmPoolInfo_t info{};
  EXPECT_EQ(TREL_RC_POOL_STATE, trelGetShmPoolInfo(heap.pool, &info));
}

}  // namespace
