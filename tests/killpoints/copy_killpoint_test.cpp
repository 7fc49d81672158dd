// A process dies at every store and every call on segments of each copy of a tree, and at every
// store of the copy of a node. Another process goes on without help.
#include "copy_fixture.h"
#include "deaths.h"
#include "heap_walker.h"

namespace {

using namespace copies;

struct CopyDeaths : Library {};

constexpr uint32_t kSegment = 0x10000;

// Blocks in the pool of a segment, which is sound.
size_t blocksOf(const ShmSegInfo_t* info) {
  EXPECT_EQ(0u, trelLatchShmPool(info->shmPoolHandle));
  EXPECT_EQ(0u, trelUnlatchShmPool(info->shmPoolHandle));
  uint8_t* const base = static_cast<uint8_t*>(info->shmDomainHandle->base);
  EXPECT_EQ("", heapFault(base, TREL_HEAP_DOMAIN, info->shmDomainHandle->heapOffset));
  const HeapWalk walk(base, TREL_HEAP_POOL, info->shmPoolHandle->poolOffset);
  EXPECT_EQ("", walk.fault);
  return walk.allocated.size();
}

// Whether the key leads to the whole tree; if so, it is used, and deleted.
bool findsTree(const Key& key, const Text& picture, size_t blocks) {
  Tree tree;
  if (tree.connect(key)) return false;
  if (TreePicture(tree.node).text != picture) {
    EXPECT_EQ(0u, trelDetachStatusSegment(&tree.info, 2));
    return false;
  }
  SNodeInfo_t* found = nullptr;
  EXPECT_EQ(0u, trelFindNodeSoft(&found, tree.node, 3, 4, bytes("last"), 0));
  EXPECT_EQ(0u, trelAddRProperty(tree.node, 8, 80, 0));
  EXPECT_EQ(blocks, blocksOf(tree.info));
  EXPECT_EQ(0u, trelDeleteStatusSegment(&tree.info, 4, 2, 2));
  return true;
}

TEST_F(CopyDeaths, Trees) {
  for (const uint32_t method :
       {TREL_TREE_COPY_DIRECT, TREL_TREE_COPY_VIA_SEGMENT, TREL_TREE_COPY_VIA_PM}) {
    const uint64_t stride = isFullRun() ? 1 : 13;
    uint64_t n = stride / 2, lost = 0;
    for (bool killed = true; killed && !HasFailure(); n += stride) {
      SCOPED_TRACE("method " + std::to_string(method) + ", kill point " + std::to_string(n));
      alarm(60);
      Segment source(kSegment);
      Key other;
      SNodeCB_t* const top = smallTree(source);
      const Text picture = TreePicture(top).text;
      const size_t blocks = blocksOf(source.info);
      source.publish(top);
      EXPECT_EQ(0u, trelDetachStatusSegment(&source.info, 2));
      killed = diesAt([] {},
                      [&] {
                        beginAnew();
                        Tree tree;
                        ASSERT_EQ(0u, tree.connect(source.key));
                        killpoints::armSegments(n);
                        TreeCopy copy{tree.node, &tree.info, other, method};
                        copy.size = kSegment;
                        EXPECT_EQ(0u, copy.run());
                        killpoints::disarm();
                        copy.dst = nullptr;
                      });
      const Shared<std::atomic<int>> trees;
      EXPECT_EQ(0, inOtherProcess([&] {
                  for (const Key* key : {&source.key, &other}) {
                    *trees += findsTree(*key, picture, blocks);
                    const uint32_t rc = trelRemoveStatusSegment(*key, 1);
                    EXPECT_TRUE(rc == 0 || rc == TREL_RC_SEGMENT_ABSENT) << rc;
                    ShmSegInfo_t* again = nullptr;
                    EXPECT_EQ(0u, trelGetProtectedStatusSegment(&again, kSegment, *key, 0, 0,
                                                                nullptr, nullptr));
                    EXPECT_EQ(0u, trelDeleteStatusSegment(&again, 4, 2, 2));
                  }
                }));
      lost += *trees == 0;
    }
    EXPECT_EQ(lost != 0, method == TREL_TREE_COPY_VIA_PM);
    printf("method %u: %llu kill points, every %lluth tried\n", method,
           static_cast<unsigned long long>(n), static_cast<unsigned long long>(stride));
    fflush(stdout);
  }
}

// The source stays as it is, and of the destination no more than what was being made is lost.
TEST_F(CopyDeaths, Nodes) {
  Random random(7);
  Segment segment(kSegment), target(kSegment);
  NodePlan plan = anySpec(random);
  plan.exports = kAllExports;
  const Made top = makeNode(segment, {kBare, 3}, 1, "top", nullptr);
  const Made node = makeNode(segment, plan, 2, "node", &top);
  makeNode(segment, {kBare, 1}, 3, "child", &node);
  fillProperties(node.node, plan, random);
  const Memory memory(target.domain()->base, kSegment);
  const Text picture = pictureOf(node.node);
  const auto copyTo = [&](SNodeCB_t** copied, uint32_t dependents) {
    const uint64_t tag = 2, idSize = 4, maxIdSize = kIdRoom;
    uint64_t idSizeOut = 0, maxIdSizeOut = 0, size = 0;
    SNodeInfo_t info = {};
    uint8_t id[kIdRoom] = {};
    return trelCopyNode(segment.info, target.info, node.node, copied, 1, 2, 3, 4, nullptr, &tag,
                        &idSize, &maxIdSize, bytes("node"), &info, id, &idSizeOut, &maxIdSizeOut,
                        &size, TREL_COPY_SHM_TO_SHM, TREL_COPY_LIMITS_KEEP, dependents);
  };
  const Image start = memory.save();
  for (const uint32_t dependents : {TREL_COPY_DEPENDENTS_EMPTY, TREL_COPY_DEPENDENTS_SAME}) {
    memory.restore(start);
    SNodeCB_t* copied = nullptr;
    EXPECT_EQ(0u, copyTo(&copied, dependents));
    const size_t whole = blocksOf(target.info);
    const uint64_t stride = isFullRun() ? 1 : 17;
    uint64_t tried = 0;
    const auto copy = [&] { EXPECT_EQ(0u, copyTo(&copied, dependents)); };
    for (uint64_t n = 0; memory.restore(start), memory.dies(n, copy) && !HasFailure();
         n += stride, ++tried) {
      SCOPED_TRACE("killed in front of store " + std::to_string(n));
      EXPECT_EQ(0u, copyTo(&copied, dependents));
      EXPECT_EQ(picture, pictureOf(copied, true));
      EXPECT_EQ(picture, pictureOf(node.node));
      EXPECT_LE(blocksOf(target.info), whole + 1);
    }
    EXPECT_GT(tried, 20u);
  }
}

}  // namespace
