// A process dies at every store of the operations that change a tree; another one goes on.
#include <set>

#include "deaths.h"
#include "heap_walker.h"
#include "tree_fixture.h"

namespace {

// top -> list -> a, b -> b1, b2 -> b21; and c, which is abandoned
struct TreeDeaths : Library {
  Segment segment{0x20000};
  Memory memory{segment.domain()->base, 0x20000};
  SNodeCB_t* const top = make(1, "top", 1);
  SNodeCB_t* const list = make(2, "list", 4);
  SNodeCB_t* const a = make(3, "a", 0);
  SNodeCB_t* const b = make(4, "b", 2);
  SNodeCB_t* const b1 = make(5, "b1", 0);
  SNodeCB_t* const b2 = make(6, "b2", 1);
  SNodeCB_t* const b21 = make(7, "b21", 0);
  SNodeCB_t* const c = make(8, "c", 0);

  TreeDeaths() {
    const std::pair<SNodeCB_t*, SNodeCB_t*> links[] = {{top, list}, {list, a}, {list, b}, {b, b1},
                                                       {b, b2},     {b2, b21}, {list, c}};
    for (const auto& [parent, child] : links) EXPECT_EQ(0u, adopt(segment, parent, segment, child));
    c->condition = TREL_CONDITION_ABANDONED;
  }
  SNodeCB_t* make(uint64_t tag, const char* id, uint64_t places) {
    return makeNode(segment, tag, id, places);
  }

  using Tags = std::multiset<uint64_t>;

  // Searches, sums and a heartbeat, as others make them: the tags of the nodes that are found.
  Tags see() {
    Tags tags;
    SNodeInfo_t* found[16];
    TreeInfo_t sum{};
    for (uint64_t tag = 1; tag < 10; ++tag) {
      uint64_t returned = 0, total = 0;
      const uint32_t rc = trelFindNodesByTag(top, tag, 0, 16, found, &returned, &total);
      EXPECT_TRUE(rc == 0 || rc == TREL_RC_NOT_FOUND) << rc;
      for (uint64_t i = 0; i < total; ++i) tags.insert(tag);
    }
    EXPECT_EQ(0u, trelGetTreeInfo(top, segment.info, 0, 0, 0, &sum));
    EXPECT_EQ(sum.totalNodes, 1 + tags.size() + sum.abandonedNodes);
    EXPECT_EQ(0u, trelSetStatusForEachNodeInATree(top, segment.info, 0, TREL_STATUS_UPDATE, 8));
    nodes_ = sum.totalNodes;
    return tags;
  }
  // Blocks beside those of the tree's nodes.
  size_t otherBlocks() {
    EXPECT_EQ(0u, trelLatchShmPool(segment.pool()));
    EXPECT_EQ(0u, trelUnlatchShmPool(segment.pool()));
    const HeapWalk walk(memory.base(), 2, segment.pool()->poolOffset);
    EXPECT_EQ("", walk.fault);
    return walk.allocated.size() - nodes_;
  }

  // After each death the others see nothing that the operation does not explain; it can be
  // repeated, and then all is as if nobody had died, but for `lost` blocks at most.
  void die(const std::function<void()>& work, const std::function<void()>& repeat, size_t lost) {
    const Image start = memory.save();
    const Tags before = see();
    work();
    const Tags behind = see();
    const size_t others = otherBlocks();
    const uint64_t tried = memory.dieEverywhere(start, work, [&](uint64_t n) {
      SCOPED_TRACE("killed in front of store " + std::to_string(n));
      const Tags is = see();
      EXPECT_TRUE(std::includes(before.begin(), before.end(), is.begin(), is.end()));
      EXPECT_TRUE(std::includes(is.begin(), is.end(), behind.begin(), behind.end()));
      repeat();
      EXPECT_EQ(behind, see());
      EXPECT_LE(otherBlocks(), others + lost);
    });
    printf("%u points\n", static_cast<unsigned>(tried));
    memory.restore(start);
  }
  static void isDoneOrGone(uint32_t rc) {
    EXPECT_TRUE(rc == 0 || rc == TREL_RC_DEPENDENT_ABSENT || rc == TREL_RC_DEPENDENTS_EMPTY) << rc;
  }

 private:
  size_t nodes_ = 0;
};

TEST_F(TreeDeaths, Deletions) {
  const SNodeInfo_t entryOfB = recordOf(segment, b, segment);
  const auto deleteEntry = [&] { return trelDeleteDependentNode(list, &entryOfB, bytes("b"), 0); };
  die([&] { EXPECT_EQ(0u, deleteEntry()); }, [&] { isDoneOrGone(deleteEntry()); }, 0);
  const auto deleteSubtree = [&] {
    return trelDeleteDependentNodeAndSubtree(list, &entryOfB, segment.info, 0, TREL_WALK_ALL);
  };
  die([&] { EXPECT_EQ(0u, deleteSubtree()); }, [&] { isDoneOrGone(deleteSubtree()); }, 4);
  // Children first: one block at most is lost.
  const auto deleteAbandoned = [&] {
    EXPECT_EQ(0u, trelSetStatusForEachNodeInATree(list, segment.info, 0, TREL_STATUS_DISCLAIM, 2));
  };
  b2->condition = b21->condition = TREL_CONDITION_ABANDONED;
  die(deleteAbandoned, deleteAbandoned, 1);
  const auto deleteTop = [&] {
    return trelSetStatusForEachNodeInATree(b, segment.info, 0, TREL_STATUS_DISCLAIM,
                                           TREL_WALK_ALL | TREL_WALK_REMOVE_TOP);
  };
  die([&] { EXPECT_EQ(0u, deleteTop()); },
      [&] {
        if (see().count(4)) isDoneOrGone(deleteTop());
        deleteAbandoned();
      },
      1);
}

TEST_F(TreeDeaths, Recreation) {
  Segment other{0x400000};  // for the copies of all deaths
  const auto recreate = [&](const Segment& to) {
    SNodeCB_t *old = b, *copy = nullptr;
    SNodeInfo_t* entry = nullptr;
    uint64_t size = 0;
    EXPECT_EQ(0u, trelFindDependentNode(&entry, list, 4, 1, bytes("b"), 0));
    SegIdentity_t* home = nullptr;
    EXPECT_EQ(0u, trelFindAttachSegInfoNodeInLList(segment.pool(), &segment.info->identity, &home));
    if (entry->nodeOffset != b->nodeOffset || entry->segInfoOffset != segment.offsetOf(home))
      return uint32_t{TREL_RC_DEPENDENT_ABSENT};  // it has its copy
    return trelRecreateNodeWithMoreDepNodes(&old, &copy, segment.info, to.info, 5, &size);
  };
  for (const Segment* to : {&segment, &other})
    die([&] { EXPECT_EQ(0u, recreate(*to)); }, [&] { isDoneOrGone(recreate(*to)); }, 1);
  // Who repairs dies as well.
  const Image start = memory.save();
  const Tags all = see();
  memory.dieTwice(
      start, [&] { recreate(segment); }, isFullRun() ? 1 : 25, [&] { see(); },
      [&](uint64_t) {
        EXPECT_EQ(all, see());
        isDoneOrGone(recreate(segment));
        EXPECT_EQ(all, see());
      });
}

TEST_F(TreeDeaths, ParentOfANode) {
  const auto name = [&] {
    SNodeInfo_t record = recordOf(segment, list, segment);
    EXPECT_EQ(0u, trelAddParentNode(a, &record, 4, bytes("list")));
  };
  die(name, name, 0);
}

}  // namespace
