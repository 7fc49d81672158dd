// Copies of nodes and trees against pictures of their sources; limits, recreation.
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "copy_fixture.h"
#include "tree_walker.h"

namespace {

using namespace copies;

constexpr uint32_t kRoom = 0x400000;
constexpr uint32_t kMethods[] = {TREL_TREE_COPY_DIRECT, TREL_TREE_COPY_VIA_PM,
                                 TREL_TREE_COPY_VIA_SEGMENT};

// ---- Nodes -----------------------------------------------------------------------------------

class Copy : public Library {
 protected:
  void SetUp() override { alarm(200); }
  void TearDown() override { alarm(0); }

  // Copies a node, in direction 1 to process memory. What the record said: tag 5, "id".
  uint32_t copyNode(SNodeCB_t* source, uint32_t direction = TREL_COPY_SHM_TO_SHM,
                    uint32_t limits = TREL_COPY_LIMITS_KEEP, uint64_t maxIdSize = kIdRoom) {
    const HdmModuleRecord_t served = module("/served");
    const uint64_t tag = 5, idSize = 2;
    uint64_t idSizeOut = 0, maxIdSizeOut = 0, nodeSize = 0;
    uint8_t idOut[4] = {};
    copied = nullptr;
    SNodeInfo_t info = {};
    const uint32_t rc = trelCopyNode(
        direction == TREL_COPY_PM_TO_SHM ? nullptr : source_.info,
        direction == TREL_COPY_SHM_TO_PM ? nullptr : target.info, source, &copied, 91, 92, 93, 94,
        &served, &tag, &idSize, &maxIdSize, bytes("id"), &info, idOut, &idSizeOut, &maxIdSizeOut,
        &nodeSize, direction, limits, TREL_COPY_DEPENDENTS_EMPTY);
    if (rc == 0) {
      EXPECT_EQ(nodeSize, copied->nodeSize);
      EXPECT_EQ("id", Text(idOut, idOut + idSizeOut));
      EXPECT_EQ(maxIdSize, maxIdSizeOut);
      EXPECT_EQ(copied->nodeOffset, info.nodeOffset);
      const uint64_t base = direction == TREL_COPY_SHM_TO_PM ? 0 : info.segBase;
      EXPECT_STREQ("/served",
                   (reinterpret_cast<HdmModuleRecord_t*>(base + info.hdmInfoOffset))->modulePath);
    }
    return rc;
  }
  Segment source_{kRoom}, target{kRoom};
  SNodeCB_t* copied = nullptr;
};

TEST_F(Copy, NodeInEveryDirection) {
  for (unsigned seed = 1; seed <= 150; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Random random(seed);
    NodePlan plan = anySpec(random);
    Made made = makeNode(source_, plan, 9, "me", nullptr);
    fillProperties(made.node, plan, random);
    if (seed % 5 == 0) trelSetConcurrencyModel(made.node, seed % 6);
    for (auto* counter : {&made.node->updateCounter, &made.node->spareCounter2})
      *PLATVAtomicSigned32::word(counter) = static_cast<int32_t>(random());
    const Text picture = pictureOf(made.node);
    int32_t adds = !!(plan.exports & TREL_EXPORT_BASE_R) + !!(plan.exports & TREL_EXPORT_BASE_V);
    for (uint32_t bit : kKinds)
      if (plan.exports & bit) adds += Section(made.node, bit).properties.size();

    ASSERT_EQ(0u, copyNode(made.node, TREL_COPY_SHM_TO_PM));
    SNodeCB_t* inMemory = copied;
    EXPECT_EQ(picture, pictureOf(inMemory, true));
    ASSERT_EQ(0u, copyNode(inMemory, TREL_COPY_PM_TO_SHM));
    EXPECT_EQ(picture, pictureOf(copied, true));
    EXPECT_EQ(0u, trelDisclaimNode(&copied, target.pool(), TREL_STRUCTURE_VERSION));
    ASSERT_EQ(0u, copyNode(made.node));
    EXPECT_EQ(picture, pictureOf(copied, true));
    EXPECT_EQ(adds, *PLATVAtomicSigned32::word(&copied->reconfigCounter));
    EXPECT_EQ(0, *PLATVAtomicSigned32::word(&copied->nodeLatchArea.writeFlag));
    const auto* up = sectionOf<ParentSection_t>(copied, TREL_EXPORT_PARENT);
    EXPECT_EQ(target.offsetOf(&up->parent), +up->parent.selfOffset);
    EXPECT_EQ(91u + 92 + 93 + 94, up->parent.nodeOffset + up->parent.segInfoOffset +
                                      up->parent.hdmInfoOffset + up->parent.segBase);
    EXPECT_EQ(picture, pictureOf(made.node));
    EXPECT_EQ(0u, trelDisclaimNode(&copied, target.pool(), TREL_STRUCTURE_VERSION));
    EXPECT_EQ(0u, trelDisclaimNode(&made.node, source_.pool(), TREL_STRUCTURE_VERSION));
    void* block = inMemory;
    _platMemFree(&block, 0, 0, __FILE__, __LINE__);
  }
  trelDeleteHDMPMLList();
}

TEST_F(Copy, LimitsFromTheChangeList) {
  NodePlan plan{kBare | TREL_EXPORT_CHANGE_LIST | TREL_EXPORT_R, 4, {{TREL_EXPORT_R, {20}}}};
  SNodeCB_t* node = makeNode(source_, plan, 9, "n", nullptr).node;
  EXPECT_EQ(0u, (Api{node, TREL_EXPORT_R}.create(plan.lists[TREL_EXPORT_R])));
  const auto maximumOfCopy = [&](uint32_t limits) {
    uint64_t current = 0, maximum = 0;
    EXPECT_EQ(0u, copyNode(node, TREL_COPY_SHM_TO_SHM, limits));
    EXPECT_EQ(0u, trelGetNumberOfRProperties(copied, &current, &maximum, 0));
    return maximum;
  };
  const auto wish = [&](uint32_t wished) {
    const uint32_t words[58] = {wished};
    EXPECT_EQ(0u, trelExportListOfChangedProperties(node, 0, words));
    return maximumOfCopy(TREL_COPY_LIMITS_CHANGE_LIST);
  };
  EXPECT_EQ(0u, wish(0));  // no wish so far, and nothing to hold
  for (uint64_t tag = 1; tag <= 10; ++tag) EXPECT_EQ(0u, trelAddRProperty(node, tag, 1, 0));
  for (auto [wished, maximum] :
       std::vector<std::pair<uint32_t, uint32_t>>{{0, 20}, {5, 20}, {40, 40}, {10, 10}})
    EXPECT_EQ(maximum, wish(wished));
  EXPECT_EQ(20u, maximumOfCopy(TREL_COPY_LIMITS_KEEP));
  EXPECT_EQ(4u, dependentsOf(copied).second);

  EXPECT_EQ(4u, dependentsOf(node).second);  // is not left latched
}

TEST_F(Copy, SectionsThatWereNeverFilled) {
  SNodeCB_t* node = nullptr;
  uint64_t sizes[64] = {}, size = 0, offset = 0;
  for (int slot = 0; slot < 12; ++slot) sizes[slot] = 1200 + 8 * slot;
  EXPECT_EQ(0u, trelCreateNode(source_.info, &node, kAllExports, sizes, &size, &offset));
  memset(node + 1, 0xa5, size - sizeof *node);  // as freed memory may be
  node->nodeOffset = offset;
  EXPECT_EQ(0u, copyNode(node));
  for (int slot = 0; slot < 12; ++slot) {
    EXPECT_EQ(sizes[slot], +copied->exportTable[slot].size);
    EXPECT_EQ(0u, +copied->exportTable[slot].used);
  }
  EXPECT_EQ(TREL_CONDITION_CREATED, copied->condition);
}

// ---- Trees -----------------------------------------------------------------------------------

// A source of up to three segments; the tree's top lies in the first.
struct Source {
  std::vector<std::unique_ptr<Segment>> segments;
  SNodeCB_t* top = nullptr;

  Source(unsigned count, unsigned nodes, Random& random) {
    std::vector<const Segment*> places;
    while (segments.size() < count) {
      segments.push_back(std::make_unique<Segment>(kRoom));
      places.push_back(segments.back().get());
    }
    top = makeTree(places, nodes, random).node;
    first().publish(top);
  }
  Segment& first() { return *segments[0]; }
};

// A copy of it, to a key of its own.
struct Result : TreeCopy {
  Key ownKey;
  explicit Result(Source& from, uint32_t by = TREL_TREE_COPY_DIRECT) {
    top = from.top;
    source = &from.first().info;
    key = ownKey;
    method = by;
  }
};

TEST_F(Copy, TreesByEveryMethod) {
  for (unsigned seed = 1; seed <= 18; ++seed) {  // there are 64 keys
    SCOPED_TRACE("seed " + std::to_string(seed));
    Random random(seed);
    Source source(1 + seed % 3, 1 + seed * 4, random);
    Result result(source, kMethods[seed % 3]);
    if (seed % 2 == 0) {
      result.limits = TREL_COPY_LIMITS_CHANGE_LIST;
      const uint32_t words[58] = {40, 40, 40, 40, 40};
      for (SNodeCB_t* node : TreePicture(source.top).nodes)
        if (node->exports & TREL_EXPORT_CHANGE_LIST) {
          EXPECT_EQ(0u, trelExportListOfChangedProperties(node, 0, words));
        }
    }
    const TreePicture before(source.top);
    ASSERT_EQ(0u, result.run());
    EXPECT_EQ(nullptr, source.first().info);
    const TreePicture after(result.newTop, true);
    EXPECT_EQ(before.text, after.text);
    if (seed % 2) {
      EXPECT_EQ(before.sizes, after.sizes) << "empty lists and those in hash form keep their room";
    }
    EXPECT_EQ(after.bytes, result.bytes);
    EXPECT_EQ(before.nodes.size(), TreeWalker({result.dst}).walk(result.newTop));
    const bool viaSegment = result.method == TREL_TREE_COPY_VIA_SEGMENT;
    EXPECT_EQ(viaSegment, source.first().key.exists());
    EXPECT_NE(viaSegment, result.ownKey.exists());
    const int reader = inOtherProcess([&] {
      Tree tree;
      ASSERT_EQ(0u, tree.connect(viaSegment ? source.first().key : result.ownKey));
      EXPECT_EQ(before.text, TreePicture(tree.node, true).text);
    });
    EXPECT_EQ(0, reader);
  }
}

TEST_F(Copy, WhatIsLeftOut) {
  for (uint32_t method : kMethods) {
    SCOPED_TRACE(method);
    Random random(method);
    Segment other(kRoom);
    Source source(1, 1, random);
    const NodePlan plan{kBare, 3};
    const Made top{source.top, &source.first()};
    Made first = makeNode(source.first(), plan, 11, "first", &top);
    Made second = makeNode(source.first(), plan, 12, "second", &top);
    Made third = makeNode(other, plan, 13, "third", &top);
    Made below = makeNode(source.first(), plan, 21, "below", &first);
    makeNode(source.first(), plan, 22, "last", &second);
    EXPECT_EQ(0u, trelDisassociateNode(&below.node));
    EXPECT_EQ(0u, trelAbandonNode(&second.node));
    Result result(source, method);
    result.flags = 1u << TREL_CONDITION_ACTIVE | TREL_TREE_COPY_STAY_IN_SEGMENT;
    ASSERT_EQ(0u, result.run());
    const Text text = TreePicture(result.newTop, true).text;
    EXPECT_NE(Text::npos, text.find("-> 11 first"));
    for (const char* name : {"second", "third", "below", "last"})
      EXPECT_EQ(Text::npos, text.find(name)) << name;
    EXPECT_EQ(2u, TreeWalker({result.dst}).walk(result.newTop));
    EXPECT_EQ(TREL_CONDITION_ABANDONED, third.node->condition);
  }
}

TEST_F(Copy, DownToADepth) {
  Random random(5);
  Source source(2, 12, random);
  Result result(source, TREL_TREE_COPY_VIA_PM);
  result.maxDepth = 1;
  ASSERT_EQ(0u, result.run());
  EXPECT_EQ(1u, TreeWalker({result.dst}).walk(result.newTop));
  EXPECT_EQ(result.newTop->nodeSize, result.bytes);
}

// A key that is taken is found out before anything of the source is touched.
TEST_F(Copy, UnderAKeyThatIsTaken) {
  for (const uint32_t method : kMethods) {
    Random random(method);
    Source source(1, 8, random);
    const Segment other;
    Result result(source, method);
    result.key = other.key;
    const Text before = TreePicture(source.top).text;
    EXPECT_EQ(TREL_RC_TREE_NOT_COPIED, result.run());
    EXPECT_EQ(before, TreePicture(source.top).text);
    EXPECT_TRUE(source.first().key.exists());
  }
}

// A source in memory that the caller mapped: who takes its place lies at the same address.
TEST_F(Copy, ASourceAtAnAddress) {
  const std::unique_ptr<void, void (*)(void*)> memory(aligned_alloc(4096, kRoom), free);
  ShmDomainParam_t param = {};
  param.accessMode = 3;
  for (uint32_t method : {TREL_TREE_COPY_VIA_PM, TREL_TREE_COPY_VIA_SEGMENT}) {
    Segment there(kRoom, &param, reinterpret_cast<uintptr_t>(memory.get()));
    Random random(method);
    SNodeCB_t* top = makeTree({&there}, 15, random).node;
    const Text before = TreePicture(top).text;
    Key key;
    TreeCopy copy{top, &there.info, method == TREL_TREE_COPY_VIA_PM ? nullptr : &key.id(), method};
    copy.size = kRoom;
    ASSERT_EQ(0u, copy.run());
    EXPECT_EQ(memory.get(), copy.dst->shmDomainHandle->base);
    EXPECT_EQ(before, TreePicture(copy.newTop, true).text);
    EXPECT_FALSE(key.exists());
  }
}

TEST_F(Copy, CirclesEndInACode) {
  const Made top = makeNode(source_, {kBare, 2}, 1, "top", nullptr);
  const Made below = makeNode(source_, {kBare, 2}, 2, "n", &top);
  SNodeInfo_t back = recordOf(source_, top.node, source_);
  EXPECT_EQ(0u, trelAddDependentNode(below.node, &back, bytes("top"), 3, 0, 0));
  const Key key;
  for (const uint32_t method : kMethods)
    EXPECT_EQ(TREL_RC_TREE_NOT_COPIED, (TreeCopy{top.node, &source_.info, key, method}.run()));
}

// A pass attaches nothing: what it meets has been attached before it, whatever its condition.
TEST_F(Copy, SegmentsThatAreNotAttached) {
  const NodePlan plan{kBare, 2};
  Segment first, second, third, fourth;
  const Made top = makeNode(first, plan, 1, "top", nullptr);
  Made resting = makeNode(second, plan, 2, "resting", &top);
  const Made below = makeNode(third, plan, 3, "below", &resting);
  Made gone = makeNode(fourth, plan, 4, "gone", &top);
  for (const Made& made : {resting, below, gone}) made.segment->publish(made.node);
  EXPECT_EQ(0u, trelDisassociateNode(&resting.node));
  EXPECT_EQ(0u, trelAbandonNode(&gone.node));
  for (Segment* segment : {&second, &third, &fourth})
    EXPECT_EQ(0u, trelDetachStatusSegment(&segment->info, 1));
  const Key key;
  TreeCopy copy{top.node, &first.info, key};
  ASSERT_EQ(0u, copy.run());
  EXPECT_EQ(3u, TreeWalker({copy.dst}).walk(copy.newTop));
}

// A pool filled to the brim goes into one of its size, lists in hash form and empty ones with it.
TEST_F(Copy, NeedsNoMoreThanItsSource) {
  for (unsigned seed = 1; seed <= 12; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Random random(seed);
    Segment full;
    NodePlan wide{kBare, 200};
    const Made top = makeNode(full, wide, 1, "top", nullptr);
    for (uint64_t tag = 2; tag < 200; ++tag) {
      NodePlan plan = anySpec(random);
      if (tag == 2) plan.exports |= TREL_EXPORT_R, plan.lists[TREL_EXPORT_R] = {1000, 1};
      SNodeCB_t* probe = nullptr;
      uint64_t size = 0, offset = 0;
      if (trelCreateNode(full.info, &probe, plan.exports, sizesOf(plan).data(), &size, &offset))
        break;
      EXPECT_EQ(0u, trelDisclaimNode(&probe, full.pool(), TREL_STRUCTURE_VERSION));
      const Made made = makeNode(full, plan, tag, "node", &top);
      if (seed % 2) fillProperties(made.node, plan, random);
    }
    const uint64_t children = dependentsOf(top.node).first;
    Key key;
    TreeCopy copy{top.node, &full.info, key, kMethods[seed % 3], 1, 1 + seed % 2, 0x100000};
    const uint64_t poolSize = full.poolInfo().heapSize;
    if (seed % 4 < 2) copy.poolSize = static_cast<uint32_t>(poolSize);
    ASSERT_EQ(0u, copy.run());
    EXPECT_EQ(children, dependentsOf(copy.newTop).first);
    ShmPoolInfo_t made{};
    EXPECT_EQ(0u, trelGetShmPoolInfo(copy.dst->shmPoolHandle, &made));
    EXPECT_EQ(poolSize, made.heapSize);
  }
}

// ---- Recreation ------------------------------------------------------------------------------

struct Family {
  Made top, node;
  std::vector<Made> children;

  Family(const Segment& segment, const Segment& elsewhere, uint64_t count) {
    const NodePlan plan{kBare | TREL_EXPORT_CHANGE_LIST, count + 2};
    const HdmModuleRecord_t served = module("/served");
    top = makeNode(segment, plan, 1, "top", nullptr);
    node = makeNode(segment, plan, 2, "", &top, &served);
    makeNode(segment, plan, 2, "sibling of the tag", &top);
    for (uint64_t i = 0; i < count; ++i)
      children.push_back(makeNode(i % 2 ? elsewhere : segment, plan, 10 + i,
                                  i ? "child" + std::to_string(i) : "", &node, &served));
  }
  // The node that a search finds below the top, and the codes of searches.
  uint32_t search(const Made& child, SNodeCB_t** found) const {
    const Text id = idOf(child.node);
    SNodeInfo_t* record = nullptr;
    const uint32_t rc =
        trelFindNodeSoft(&record, top.node, child.node->tag, id.size(), bytes(id), 0);
    return rc ? rc : trelAttachToNode(record, found);
  }
};

TEST_F(Copy, RecreationInTheSameAndInAnotherSegment) {
  for (const bool moves : {false, true}) {
    Family family(source_, target, 3);
    SNodeCB_t *old = family.node.node, *made = nullptr;
    Segment third;
    const Segment& to = moves ? third : source_;
    uint64_t size = 0;
    EXPECT_EQ(0u, trelRecreateNodeWithMoreDepNodes(&old, &made, source_.info, to.info,
                                                   moves ? 4 : 50, &size));
    EXPECT_EQ(TREL_CONDITION_ACTIVE, made->condition);
    EXPECT_EQ(0u, made->optionWord0 & TREL_OPTION_RECREATION);
    EXPECT_EQ(TREL_CONDITION_DISASSOCIATED, old->condition);
    EXPECT_EQ(TREL_OPTION_RECREATION, old->optionWord0 & TREL_OPTION_RECREATION);
    EXPECT_EQ((Count{3, moves ? 5 : 50}), dependentsOf(made));
    EXPECT_EQ(2u, dependentsOf(family.top.node).first) << "the sibling of the tag keeps its entry";
    for (const Made& child : family.children) {
      SNodeCB_t* found = nullptr;
      EXPECT_EQ(0u, family.search(child, &found));
      EXPECT_EQ(child.node, found);
      SNodeInfo_t up = recordOf(*child.segment, made, to);  // what the header asks of the caller
      EXPECT_EQ(0u, trelAddParentNode(child.node, &up, 0, nullptr));
    }
    EXPECT_EQ(6u, TreeWalker({source_.info, target.info, third.info}).walk(family.top.node));
  }
}

TEST_F(Copy, RecreationKeepsTheRoomOfEmptyLists) {
  const NodePlan plan{kBare | TREL_EXPORT_CHANGE_LIST | TREL_EXPORT_V, 7, {{TREL_EXPORT_V, {9}}}};
  const Made top = makeNode(source_, plan, 1, "top", nullptr);
  Made node = makeNode(source_, plan, 2, "n", &top), child = makeNode(source_, plan, 3, "c", &node);
  EXPECT_EQ(0u, (Api{node.node, TREL_EXPORT_V}.create({9})));
  const SNodeInfo_t name = {0, 3, 1, 0, 0, 0, 0};
  EXPECT_EQ(0u, trelDeleteDependentNode(node.node, &name, bytes("c"), 0));
  uint64_t size = 0, none = 0, maximum = 0;
  EXPECT_EQ(0u, trelRecreateNodeWithMoreDepNodes(&node.node, &node.node, source_.info, source_.info,
                                                 0, &size));
  EXPECT_EQ(0u, adopt(source_, node.node, source_, child.node));
  EXPECT_EQ((Count{1, 7}), dependentsOf(node.node));
  EXPECT_EQ(0u, trelGetNumberOfVProperties(node.node, &none, &maximum, 0));
  EXPECT_EQ(9u, maximum);
}

TEST_F(Copy, SearchesDuringRecreation) {
  Family family(source_, target, 2);
  std::atomic<bool> done{false};
  std::atomic<uint64_t> answers{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i)
    readers.emplace_back([&] {
      while (!done) {
        SNodeCB_t* found = nullptr;
        const uint32_t rc = family.search(family.children[1], &found);
        EXPECT_TRUE(rc == TREL_RC_BEING_RECREATED || found == family.children[1].node) << rc;
        answers += rc == 0;
      }
    });
  SNodeCB_t* node = family.node.node;
  for (uint64_t round = 0; round < 100; ++round) {
    SNodeCB_t* made = nullptr;
    uint64_t size = 0;
    ASSERT_EQ(0u, trelRecreateNodeWithMoreDepNodes(&node, &made, source_.info, source_.info,
                                                   round % 7 + 1, &size));
    node = made;
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  done = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_GT(answers, 0u);
}

// ---- Others at work --------------------------------------------------------------------------

// Two processes copy trees that reach into each other's segments, while a third writes, attaches
// and detaches. Nobody may wait for ever, and a copied node is one state of its source.
TEST_F(Copy, CopiesOfEntwinedTreesWhileTheyAreUsed) {
  const NodePlan plan{kBare | TREL_EXPORT_R, 30, {{TREL_EXPORT_R, {30, 1}}}};
  const Shared<std::atomic<int>> copiesMade;
  for (int round = 0; round < 12; ++round) {
    Segment a, b;
    Key newA, newB;
    const Segment* sides[] = {&a, &b};
    std::vector<SNodeCB_t*> nodes;
    for (int side = 0; side < 2; ++side) {
      const Made top = makeNode(*sides[side], plan, 1, "top", nullptr);
      for (uint64_t i = 0; i < 20; ++i) {
        nodes.push_back(makeNode(*sides[(side + i) % 2], plan, 10 + i, "n", &top).node);
        EXPECT_EQ(0u, (Api{nodes.back(), TREL_EXPORT_R}.create({30, 1})));
        for (uint64_t tag : {1, 2}) EXPECT_EQ(0u, trelAddRProperty(nodes.back(), tag, 0, 0));
      }
      sides[side]->publish(top.node);
    }
    const auto copier = [&](const Key& from, const Key& to, uint32_t method) {
      alarm(60);
      Tree tree;
      if (tree.connect(from)) return;
      TreeCopy copy{tree.node, &tree.info, to, method};
      if (copy.run()) return;  // the other was faster, and has deleted what this one needs
      ++*copiesMade;
      for (SNodeCB_t* node : TreePicture(copy.newTop).nodes) {
        if (node == copy.newTop) continue;
        int32_t one = 0, two = 1;
        EXPECT_EQ(0u, trelGetValueForRProperty(node, 1, &one, 0));
        EXPECT_EQ(0u, trelGetValueForRProperty(node, 2, &two, 0));
        EXPECT_EQ(one, two);
      }
    };
    const auto attacher = [&] {
      alarm(60);
      for (int i = 0; i < 300; ++i) {
        Tree tree;
        if (tree.connect(i % 2 ? a.key : b.key) == 0) trelDetachStatusSegment(&tree.info, 2);
      }
    };
    Child children[] = {Child([&] { copier(a.key, newA, kMethods[round % 3]); }),
                        Child([&] { copier(b.key, newB, kMethods[round / 3 % 3]); }),
                        Child(attacher)};
    // This process still maps the old segments, whatever becomes of them.
    for (int32_t value = 1; value < 400; ++value) {
      SNodeCB_t* node = nodes[value % nodes.size()];
      if (trelEnterCriticalSectionBeforeWrite(node, &node->nodeLatchArea)) continue;
      if (trelSetValueForRProperty(node, 1, value, 1) == 0) {
        EXPECT_EQ(0u, trelSetValueForRProperty(node, 2, value, 1));
      }
      EXPECT_EQ(0u, trelExitCriticalSectionAfterWrite(node, &node->nodeLatchArea));
    }
    for (Child& child : children) EXPECT_EQ(0, child.wait());
    for (const Segment* side : sides)
      trelDetachStatusSegment(const_cast<ShmSegInfo_t**>(&side->info), 2);
  }
  EXPECT_GE(*copiesMade, 12);
}

}  // namespace
