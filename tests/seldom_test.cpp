// Operations that nothing else uses, each with what it must have done.
#include <functional>

#include "heap_fixture.h"

namespace {

// Blocks leave and enter the lists of a pool by hand; both halves of a way there and back.
TEST(Seldom, RawListsOfAHeap) {
  const Heap heap(0x20000, 0x4000);
  void* const base = heap.memory;
  const uint64_t h = heap.pool->poolOffset;
  uint64_t block = 0, size = 0, data = 0, node = 0;
  const auto find = [&] {
    return trelFindFreeBlockInSList(base, TREL_HEAP_POOL, h, block, &node, &size);
  };
  const Rows<const char*, std::function<uint32_t()>, uint64_t, uint64_t, bool> steps = {
      {"GetFreeBlock",
       [&] { return trelGetFreeBlockFromSList(base, TREL_HEAP_POOL, h, 256, &block, &size); }, 0, 1,
       false},
      {"InsertAllocMemChunk",
       [&] {
         return trelInsertAllocMemChunk(base, TREL_HEAP_POOL, h, block, size, block + 16, 200, 1, 2,
                                        &node);
       },
       1, 1, false},
      {"DeleteAllocMemBlock",
       [&] { return trelDeleteAllocMemBlock(base, TREL_HEAP_POOL, h, block, &size); }, 0, 1, false},
      {"InsertAllocMemBlock",
       [&] {
         data = block + 16;
         return trelInsertAllocMemBlock(base, TREL_HEAP_POOL, h, &block, &size, &data, 200, 1, 2,
                                        16, &node);
       },
       1, 1, false},
      {"DeleteAllocMemBlock again",
       [&] { return trelDeleteAllocMemBlock(base, TREL_HEAP_POOL, h, block, &size); }, 0, 1, false},
      {"ReturnFreeBlock",
       [&] { return trelReturnFreeBlockToSList(base, TREL_HEAP_POOL, h, block, size); }, 0, 1,
       true},
      {"Find", [&] { return block = heap.walk().free[0].offset, find(); }, 0, 1, true},
      {"DeleteFreeMemBlock", [&] { return trelDeleteFreeMemBlock(base, h, node); }, 0, 0, false},
      {"InsertFreeMemChunk", [&] { return trelInsertFreeMemChunk(base, h, block, size); }, 0, 1,
       true},
      {"DeleteFreeMemBlock again",
       [&] { return find() ? 1 : trelDeleteFreeMemBlock(base, h, node); }, 0, 0, false},
      {"InsertFreeMemBlock",
       [&] { return trelInsertFreeMemBlock(base, TREL_HEAP_POOL, h, &block, &size); }, 0, 1, true},
  };
  for (const auto& [name, call, allocated, free, isSound] : steps) {
    SCOPED_TRACE(name);
    EXPECT_EQ(0u, call());
    EXPECT_EQ(allocated, heap.walk().allocated.size());
    EXPECT_EQ(free, heap.walk().free.size());
    EXPECT_EQ(isSound, heap.fault().empty()) << heap.fault();
  }
}

using SeldomInTree = Library;

TEST_F(SeldomInTree, NodesAndHandles) {
  const Segment segment;
  SNodeCB_t *const made = segment.makeNode(5), *const copy = segment.makeNode(6);
  segment.publish(made);
  SNodeCB_t* top = nullptr;
  EXPECT_EQ(0u, trelGetTopNodeCBPtrFromShmSegInfo(segment.info, &top));
  EXPECT_EQ(made, top);

  NodeCopyLimits_t limits = {};
  limits.maxNodeIdSize = 64;
  copy->condition = TREL_CONDITION_CREATED;
  copy->exportTable[0].used = 0;
  limits.copyDependents = TREL_COPY_DEPENDENTS_SAME;
  const uint64_t maxIdSize = 64;
  SNodeInfo_t named = {};
  EXPECT_EQ(0u, trelCopyNodeData(made, copy, 0, 0, 0, 0, copy->nodeOffset, &limits, nullptr,
                                 nullptr, nullptr, &maxIdSize, nullptr, &named, nullptr, nullptr,
                                 nullptr, segment.info));
  EXPECT_EQ(copy->nodeOffset, +named.nodeOffset);
  EXPECT_EQ(5u, +copy->tag);
  EXPECT_EQ(TREL_CONDITION_ACTIVE, +copy->condition);
  EXPECT_EQ(0, memcmp(made->exportTable, copy->exportTable, sizeof made->exportTable));

  void* block = nullptr;
  ASSERT_EQ(0u, _platMemAlloc(&block, 0, sizeof(ShmSegInfo_t), 1, "", 0));
  auto* record = new (block) ShmSegInfo_t{};
  record->identity.handleVersion = TREL_STRUCTURE_VERSION;
  ASSERT_EQ(0u, trelConnectToShmDomain(segment.key, 0, nullptr, &record->shmDomainHandle));
  ASSERT_EQ(0u, trelConnectToShmPool(&record->shmPoolHandle, record->shmDomainHandle,
                                     static_cast<uint32_t>(segment.pool()->poolOffset), nullptr));
  PLATHIPCMemory* const memory = record->shmDomainHandle->ipcMemory;
  EXPECT_EQ(0u, memory->detach());
  delete memory;
  EXPECT_EQ(0u, trelDestroySegInfoAndHandles(&record));
  EXPECT_EQ(nullptr, record);

  ASSERT_EQ(0u, _platMemAlloc(&block, 0, 64, 1, "", 0));
  EXPECT_EQ(0u, trelDeleteDependentNodesArray(&block));
  EXPECT_EQ(nullptr, block);
}

}  // namespace
