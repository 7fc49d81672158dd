// Searches, walks and deletion: against a model, over damaged memory, and with a publisher that
// changes its tree under its readers.
#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <random>
#include <thread>

#include "tree_fixture.h"
#include "tree_walker.h"

namespace {

struct Model {
  SNodeCB_t* node;
  const Segment* home;
  uint64_t tag;
  std::string id;
  Model* parent;
  uint64_t capacity;
  std::vector<Model*> places;  // as in the list, vacant ones null, none at the end
  bool recreated = false;

  std::vector<Model*> children() const {
    std::vector<Model*> all;
    for (Model* m : places)
      if (m) all.push_back(m);
    return all;
  }
  // This and all below it, down to a depth; 0 has no limit.
  std::vector<Model*> subtree(uint64_t depth = 0) {
    std::vector<Model*> all{this};
    if (depth == 1) return all;
    for (Model* child : children())
      for (Model* m : child->subtree(depth ? depth - 1 : 0)) all.push_back(m);
    return all;
  }
  uint32_t condition() const { return node->condition; }
  bool isNamed(uint64_t t, const std::string& i) const {
    return tag == t && (i.empty() || id == i);
  }
};

// What a search does with a node: 0 uses it, -1 passes over it, else the code that ends it.
int64_t searched(const Model* m) {
  if (m->condition() == TREL_CONDITION_ACTIVE) return 0;
  if (m->condition() != TREL_CONDITION_DISASSOCIATED) return -1;
  return m->recreated ? int64_t{TREL_RC_BEING_RECREATED} : 0;
}

class Forest : public Library {
 protected:
  Forest() {
    for (int i = 0; i < 3; ++i) segments_.push_back(std::make_unique<Segment>(0x80000));
    top_ = make(nullptr, 1, "top", 6);
  }

  Model* make(Model* parent, uint64_t tag, const std::string& id, uint64_t capacity) {
    const Segment& home = parent && pick(4) ? *parent->home : *segments_[pick(3)];
    auto m = std::make_unique<Model>();
    *m = {makeNode(home, tag, id, capacity), &home, tag, id, parent, capacity, {}};
    all_.push_back(std::move(m));
    return all_.back().get();
  }
  uint64_t pick(uint64_t below) { return random_() % below; }
  Model* any() { return all_[pick(all_.size())].get(); }
  std::string anyId() { return std::string(pick(3) * 5, static_cast<char>('a' + pick(3))); }
  uint64_t anyTag() { return 1 + pick(5); }

  void addChild() {
    Model* parent = any();
    const uint64_t tag = anyTag();
    const std::string id = anyId();
    const std::vector<Model*> present = parent->children();
    // Given without an identifier, a name is taken as soon as its tag is.
    const bool taken =
        std::any_of(present.begin(), present.end(), [&](Model* m) { return m->isNamed(tag, id); });
    Model* child = make(parent, tag, id, 1 + pick(4));
    uint32_t expected = 0;
    if (parent->condition() == TREL_CONDITION_ABANDONED)
      expected = TREL_RC_ABANDONED;
    else if (taken)
      expected = TREL_RC_DEPENDENT_PRESENT;
    else if (present.size() == parent->capacity)
      expected = TREL_RC_DEPENDENTS_FULL;
    const uint32_t rc = adopt(*parent->home, parent->node, *child->home, child->node);
    ASSERT_EQ(expected, rc);
    if (rc) {
      EXPECT_EQ(0u, trelDisclaimNode(&child->node, child->home->pool(), TREL_STRUCTURE_VERSION));
      all_.pop_back();
      return;
    }
    auto& places = parent->places;
    const auto hole = std::find(places.begin(), places.end(), nullptr);
    if (hole == places.end()) {
      places.push_back(child);
    } else {
      *hole = child;
    }
  }

  // By options 1 the whole subtree goes, whatever condition its nodes are in.
  void deleteSubtree() {
    Model* m = any();
    if (m == top_) return;
    const std::vector<Model*> gone = m->subtree();
    if (gone.size() > all_.size() / 8) return;  // keep the tree alive
    SNodeInfo_t record = recordOf(*m->parent->home, m->node, *m->home);
    ASSERT_EQ(0u, trelDeleteDependentNodeAndSubtree(m->parent->node, &record, m->home->info, 0, 1));
    auto& places = m->parent->places;
    *std::find(places.begin(), places.end(), m) = nullptr;
    while (!places.empty() && !places.back()) places.pop_back();
    all_.erase(
        std::remove_if(all_.begin(), all_.end(),
                       [&](auto& p) { return std::count(gone.begin(), gone.end(), p.get()); }),
        all_.end());
  }

  void changeCondition() {
    Model* m = any();
    if (m == top_) return;
    switch (pick(9)) {
      case 0:
        EXPECT_EQ(0u, trelAbandonNode(&m->node));
        break;
      case 1:
        EXPECT_EQ(0u, trelDisassociateNode(&m->node));
        m->recreated = pick(6) == 0;
        m->node->optionWord0 = m->recreated;
        break;
      case 2:
        m->node->condition = TREL_CONDITION_INITIALISED;
        break;
      default:
        EXPECT_EQ(0u, trelActivateNode(&m->node));
    }
  }

  // What a search below a node sees, in its order, and the code that it ends in.
  uint32_t seen(Model* below, uint64_t depth, uint64_t limit, std::vector<Model*>* nodes) {
    if (limit && depth >= limit) return 0;
    for (Model* m : below->children()) {
      const int64_t use = searched(m);
      if (use > 0) return static_cast<uint32_t>(use);
      if (use < 0) continue;
      nodes->push_back(m);
      if (const uint32_t rc = seen(m, depth + 1, limit, nodes)) return rc;
    }
    return 0;
  }
  using Path = std::vector<std::pair<uint64_t, std::string>>;
  uint32_t hard(Model* from, const Path& path, Model** hit) {
    for (const auto& [tag, id] : path) {
      Model* next = nullptr;
      for (Model* m : from->children()) {
        const int64_t use = searched(m);
        if (use > 0) return static_cast<uint32_t>(use);
        if (use < 0) continue;
        if (m->isNamed(tag, id)) {
          next = m;
          break;
        }
      }
      if (!next) return TREL_RC_NOT_FOUND;
      from = next;
    }
    *hit = from;
    return path.empty() ? uint32_t{TREL_RC_NOT_FOUND} : 0;
  }

  void checkEntry(const SNodeInfo_t* entry, const Model* hit) {
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(+hit->node->nodeOffset, +entry->nodeOffset);
    EXPECT_EQ(hit->tag, +entry->nodeTag);
    EXPECT_EQ(hit->id, std::string(reinterpret_cast<const char*>(entry + 1), entry->idSize));
    SNodeCB_t* node = nullptr;
    EXPECT_EQ(0u, trelGetControlBlockPtrFromSNodeInfo(entry, &node));
    EXPECT_EQ(hit->node, node);
  }

  void compareSearches() {
    Model* from = pick(2) ? top_ : any();
    const Model* sought = any();
    const uint64_t tag = pick(2) ? sought->tag : anyTag(), limit = pick(5);
    const std::string id = pick(2) ? sought->id : anyId();
    const bool isAbandoned = from->condition() == TREL_CONDITION_ABANDONED;
    std::vector<Model*> nodes, hits;
    const uint32_t end = seen(from, 0, limit, &nodes);
    SNodeInfo_t* entry = nullptr;
    Model* hit = nullptr;
    for (Model* m : nodes) {
      if (!hit && m->isNamed(tag, id)) hit = m;
      if (m->tag == tag) hits.push_back(m);
    }
    uint32_t expected = hit ? 0 : end ? end : uint32_t{TREL_RC_NOT_FOUND};
    ASSERT_EQ(expected, trelFindNodeSoft(&entry, from->node, tag, id.size(), bytes(id), limit));
    if (expected == 0) checkEntry(entry, hit);

    expected = isAbandoned ? uint32_t{TREL_RC_ABANDONED} : end;
    if (expected == 0 && hits.empty()) expected = TREL_RC_NOT_FOUND;
    SNodeInfo_t* found[3];
    uint64_t returned = 0, total = 0;
    ASSERT_EQ(expected, trelFindNodesByTag(from->node, tag, limit, 3, found, &returned, &total));
    if (expected == 0) {
      ASSERT_EQ(hits.size(), total);
      ASSERT_EQ(std::min<uint64_t>(3, total), returned);
      for (uint64_t i = 0; i < returned; ++i) checkEntry(found[i], hits[i]);
    }

    // The names of a real path, with a change here and there.
    Path path;
    Model* to = any();
    for (Model* m = to; m && m != from; m = m->parent) path.insert(path.begin(), {m->tag, m->id});
    if (!path.empty() && pick(4) == 0) path[pick(path.size())] = {anyTag(), anyId()};
    std::vector<TraverseInfo_t> names;
    for (auto& [t, i] : path)
      names.push_back({static_cast<uint32_t>(t), static_cast<uint32_t>(i.size()),
                       reinterpret_cast<uint8_t*>(&i[0])});
    names.resize(names.size() + 1);
    hit = nullptr;
    expected = isAbandoned ? uint32_t{TREL_RC_ABANDONED} : hard(from, path, &hit);
    ASSERT_EQ(expected,
              trelFindNodeHard(&entry, from->node, path.size(), names.data(), path.size() + 1));
    if (expected == 0) checkEntry(entry, hit);
  }

  void compareInfo() {
    Model* from = pick(2) ? top_ : any();
    const uint64_t tag = anyTag(), limit = pick(4);
    TreeInfo_t expected{}, info;
    for (const Model* m : from->subtree(limit)) {
      const int places[] = {0, 3, 2, 1, 5, 4};  // of conditions, behind the total
      for (int place : {0, places[m->condition()]}) {
        (&expected.totalBytes)[place] += m->node->nodeSize;
        ++(&expected.totalNodes)[place];
      }
      expected.taggedNodes += m->tag == tag;
    }
    ASSERT_EQ(0u, trelGetTreeInfo(from->node, from->home->info, 0, tag, limit, &info));
    EXPECT_EQ(0, memcmp(&expected, &info, offsetof(TreeInfo_t, taggedNodes) + 4));
  }

  void recheckMemory() {
    std::vector<ShmSegInfo_t*> infos;
    for (auto& s : segments_) infos.push_back(s->info);
    EXPECT_EQ(all_.size(), TreeWalker(infos).walk(top_->node));
  }

  std::mt19937 random_{testing::UnitTest::GetInstance()->random_seed() + 4711u};
  std::vector<std::unique_ptr<Segment>> segments_;
  std::vector<std::unique_ptr<Model>> all_;
  Model* top_;
};

TEST_F(Forest, DoesWhatItsModelDoes) {
  SCOPED_TRACE(testing::UnitTest::GetInstance()->random_seed());
  for (int step = 0; step < 20000 && !HasFailure(); ++step) {
    SCOPED_TRACE(step);
    const uint64_t what = pick(16);
    if (what < 5 && all_.size() < 90) {
      addChild();
    } else if (what < 7) {
      deleteSubtree();
    } else if (what < 9) {
      changeCondition();
    } else if (what < 14) {
      compareSearches();
    } else {
      compareInfo();
    }
    if (step % 100 == 99) recheckMemory();
  }
  EXPECT_EQ(0u, trelDeleteDependentNodeAndSubtree(top_->node, nullptr, top_->home->info, 0, 1));
  for (auto& s : segments_)
    EXPECT_LT(s->poolInfo().allocNodeCount, 6u) << "only entries of the shared lists are left";
}

// ---- Across segments ----------------------------------------------------------------------------

class Reach : public Library {
 protected:
  // top -> near (same segment) and far (the other one) -> leaf (the other one)
  Reach() {
    EXPECT_EQ(0u, adopt(home, top, home, near));
    EXPECT_EQ(0u, adopt(home, top, other, far));
    EXPECT_EQ(0u, adopt(other, far, other, leaf));
    home.publish(top);
    other.publish(far);
  }
  uint32_t soft(SNodeCB_t* from, uint64_t tag, uint64_t limit = 0) {
    return trelFindNodeSoft(&entry_, from, tag, 0, nullptr, limit);
  }
  uint32_t addUp(SNodeCB_t* from, ShmSegInfo_t* info, uint32_t options = 0) {
    return trelGetTreeInfo(from, info, options, 4, 0, &sum_);
  }
  // On a busy machine a writer may stand still inside.
  template <class Work>
  static uint32_t patiently(Work&& work) {
    uint32_t rc = 0;
    do {
      rc = work();
    } while (rc == TREL_RC_WRITER_INSIDE);
    return rc;
  }
  // In a process that holds the first segment alone.
  void inReader(const std::function<void(SNodeCB_t*, ShmSegInfo_t*)>& work) {
    const int status = inOtherProcess([&] {
      Tree tree;
      EXPECT_EQ(0u, tree.connect(home.key));
      if (tree.node) work(tree.node, tree.info);
      uint32_t count = 0;
      EXPECT_EQ(0u, trelGetShmAttachRefCount(tree.info, &count));
      EXPECT_EQ(1u, count);
      EXPECT_EQ(0u, trelDetachStatusSegment(&tree.info, 1));
    });
    EXPECT_EQ(0, status);
  }
  // Attaches of the other segment in this process.
  uint32_t otherCount() const {
    SegAttachNode_t* node = nullptr;
    EXPECT_EQ(0u, trelFindAttachInfoNodeInLList(other.key, &node));
    return node ? node->refCount : 0;
  }

  SNodeInfo_t* entry_ = nullptr;  // found
  TreeInfo_t sum_;
  Segment home, other;
  SNodeCB_t* top = makeNode(home, 1, "top", 5);
  SNodeCB_t* near = makeNode(home, 2, "near", 2);
  SNodeCB_t* far = makeNode(other, 3, "far", 4);
  SNodeCB_t* leaf = makeNode(other, 4, "leaf", 0);
};

TEST_F(Reach, AttachesWhatItUsesAndNoMore) {
  for (uint32_t condition :
       {TREL_CONDITION_CREATED, TREL_CONDITION_INITIALISED, TREL_CONDITION_ABANDONED}) {
    far->condition = condition;
    inReader([&](SNodeCB_t* node, ShmSegInfo_t* info) {
      EXPECT_EQ(0u, soft(node, 2));
      EXPECT_EQ(TREL_RC_NOT_FOUND, soft(node, 4));
      EXPECT_EQ(0u, otherCount()) << "a node that was passed over is left";
      EXPECT_EQ(0u, trelSetStatusForEachNodeInATree(node, info, 0, TREL_STATUS_ACTIVATE, 32));
      EXPECT_EQ(condition != TREL_CONDITION_ABANDONED, otherCount());
    });
  }
  trelDisassociateNode(&far);
  far->optionWord0 = TREL_OPTION_RECREATION;
  inReader([&](SNodeCB_t* node, ShmSegInfo_t*) {
    EXPECT_EQ(TREL_RC_BEING_RECREATED, soft(node, 4));
    EXPECT_EQ(0u, otherCount());
  });
  far->optionWord0 = 0;
  inReader([&](SNodeCB_t* node, ShmSegInfo_t* info) {
    EXPECT_EQ(0u, addUp(node, info, TREL_WALK_ONE_SEGMENT));
    EXPECT_EQ(2u, sum_.totalNodes);
    EXPECT_EQ(0u, otherCount());
    EXPECT_EQ(0u, addUp(node, info));
    EXPECT_EQ(4u, sum_.totalNodes);
    EXPECT_EQ(0u, soft(node, 4));
    EXPECT_EQ(1u, otherCount());
  });
  // A segment that is gone for new attaches: a code, and no trace of the attempt.
  EXPECT_EQ(0u, trelMarkStatusSegmentForDeletion(other.info));
  inReader([&](SNodeCB_t* node, ShmSegInfo_t* info) {
    EXPECT_EQ(TREL_RC_DOMAIN_MARKED, soft(node, 4));
    EXPECT_EQ(TREL_RC_DOMAIN_MARKED, addUp(node, info));
    EXPECT_EQ(0u, otherCount());
  });
}

TEST_F(Reach, StatusWalks) {
  const auto status = [&](uint32_t operation, uint32_t options, uint64_t limit = 0) {
    return trelSetStatusForEachNodeInATree(top, home.info, limit, operation, options);
  };
  EXPECT_EQ(TREL_RC_DEPTH_LIMIT, status(3, 1, 32769));
  EXPECT_EQ(0u, status(TREL_STATUS_DISASSOCIATE, TREL_WALK_ALL, 2));
  EXPECT_EQ(TREL_CONDITION_DISASSOCIATED, +far->condition);
  EXPECT_EQ(TREL_CONDITION_ACTIVE, +leaf->condition);
  far->condition = TREL_CONDITION_INITIALISED;
  EXPECT_EQ(0u, status(TREL_STATUS_ACTIVATE, 1u << TREL_CONDITION_INITIALISED));
  EXPECT_EQ(TREL_CONDITION_ACTIVE, +far->condition);
  EXPECT_EQ(TREL_CONDITION_DISASSOCIATED, +near->condition);
  // Nodes that are abandoned go, whatever the options select; those of other segments stay.
  EXPECT_EQ(0u, trelAbandonNode(&near));
  EXPECT_EQ(0u, trelAbandonNode(&far));
  EXPECT_EQ(0u, status(TREL_STATUS_DISCLAIM, 2 | TREL_WALK_ONE_SEGMENT));
  EXPECT_EQ(1u, dependentsOf(top).first);
  EXPECT_EQ(0u, status(TREL_STATUS_DISCLAIM, 2));
  EXPECT_EQ(0u, dependentsOf(top).first);
}

// A sibling of the same tag, with an identifier and in front, is not taken for the top.
TEST_F(Reach, TheTopCanBeTakenOffItsParentsList) {
  SNodeCB_t* twin = makeNode(other, 5, "twin", 0);
  SNodeCB_t* nameless = makeNode(other, 5, "", 2);
  ASSERT_EQ(0u, adopt(other, far, other, nameless));
  SNodeInfo_t record = recordOf(other, leaf, other);
  ASSERT_EQ(0u, trelDeleteDependentNode(far, &record, bytes("leaf"), 0));
  ASSERT_EQ(0u, adopt(other, far, other, twin));  // at the place of the leaf
  EXPECT_EQ(0u, trelSetStatusForEachNodeInATree(nameless, other.info, 0, TREL_STATUS_DISCLAIM,
                                                TREL_WALK_ALL | TREL_WALK_REMOVE_TOP));
  EXPECT_EQ(0u, trelFindDependentNode(&entry_, far, 5, 0, nullptr, 0));
  EXPECT_EQ(+twin->nodeOffset, +entry_->nodeOffset);
}

TEST_F(Reach, Steps) {
  SNodeInfo_t *entries[2], *found[3];
  ASSERT_EQ(0u, trelFindDependentNode(&entries[0], top, 2, 0, nullptr, 0));
  ASSERT_EQ(0u, trelFindDependentNode(&entries[1], top, 3, 0, nullptr, 0));
  SNodeCB_t* node = nullptr;
  ExportSlot_t* slot = nullptr;
  uint64_t hasList = 7, returned = 1, total = 5;
  const auto test = [&](const char* id) {
    return trelSearchForNodeHard(entries[1], &node, &slot, &hasList, 3, 3, bytes(id));
  };
  EXPECT_EQ(0u, test("far"));
  EXPECT_EQ(far, node);
  EXPECT_EQ(&far->exportTable[walker::slotOf(TREL_EXPORT_DEPENDENT)], slot);
  EXPECT_EQ(1u, hasList);
  EXPECT_EQ(TREL_RC_ENTRY_DIFFERS, test("fra"));
  // What is given is added to.
  EXPECT_EQ(0u, trelSearchForNodeByTag(found, top, 3, 3, 0, 0, &returned, &total));
  EXPECT_EQ(entries[1], found[1]);
  EXPECT_EQ(2u, returned);
  EXPECT_EQ(6u, total);
  sum_ = {};
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(0u, trelGetTreeInfoRecursively(top, home.info, home.info, 0, 0, 4, 2, 3, &sum_));
  EXPECT_EQ(6u, sum_.totalNodes) << "the leaf is below the limit";
  node = near;
  EXPECT_EQ(0u, trelSetNodeStatusRecursively(&node, home.info, home.info, 0,
                                             TREL_STATUS_DISASSOCIATE, TREL_WALK_ALL, 1, 0));
  EXPECT_EQ(TREL_CONDITION_DISASSOCIATED, +near->condition);
  ShmSegInfo_t* info = nullptr;
  uint32_t isOther = 7;
  for (uint32_t i = 0; i < 2; ++i) {
    EXPECT_EQ(0u, trelGetShmSegInfoPtrUsingSNodeInfo(entries[i], &node, &info, home.info, &isOther,
                                                     TREL_WALK_ONE_SEGMENT));
    EXPECT_EQ(i, isOther);
    EXPECT_EQ(i ? other.info : home.info, info);
  }
}

// ---- Deep, cyclic and damaged trees -------------------------------------------------------------

TEST_F(Reach, CyclesEndInACode) {
  SNodeInfo_t back = recordOf(other, top, home);
  for (const char* id : {"one", "two"})  // a cycle that forks
    ASSERT_EQ(0u, trelAddDependentNode(far, &back, bytes(id), 3, 0, 0));
  SNodeInfo_t* found[2];
  uint64_t returned = 0, total = 0;
  EXPECT_EQ(TREL_RC_DEPTH_LIMIT, soft(top, 77));
  EXPECT_EQ(TREL_RC_DEPTH_LIMIT, trelFindNodesByTag(top, 77, 0, 2, found, &returned, &total));
  EXPECT_EQ(TREL_RC_DEPTH_LIMIT, addUp(top, home.info));
  EXPECT_EQ(TREL_RC_DEPTH_LIMIT,
            trelSetStatusForEachNodeInATree(top, home.info, 0, TREL_STATUS_UPDATE, 8));
  EXPECT_EQ(TREL_RC_DEPTH_LIMIT,
            trelSetStatusForEachNodeInATree(top, home.info, 0, TREL_STATUS_DISCLAIM, 1));
}

// Two ways from each node to the next, 60 levels down: more than any walk could go.
TEST_F(Reach, ForksThatMeetAgainEndInACode) {
  SNodeCB_t* node = near;
  for (uint64_t level = 0; level < 60; ++level) {
    SNodeCB_t* next = makeNode(home, 100 + level, "", 2);
    SNodeInfo_t record = recordOf(home, next, home);
    for (const char* id : {"one", "two"})
      ASSERT_EQ(0u, trelAddDependentNode(node, &record, bytes(id), 3, 0, 0));
    node = next;
  }
  EXPECT_EQ(TREL_RC_DEPTH_LIMIT, soft(top, 77));
  EXPECT_EQ(TREL_RC_DEPTH_LIMIT, addUp(top, home.info));
}

TEST_F(Reach, ThirtyThousandLevels) {
  constexpr uint64_t kNodes = 32771;
  Segment deep(kNodes * 3800);
  std::vector<SNodeCB_t*> nodes;
  for (uint64_t i = 1; i <= kNodes; ++i) {
    nodes.push_back(makeNode(deep, i, "", 1));
    if (i == 1) continue;
    SNodeInfo_t record = recordOf(deep, nodes.back(), deep);
    ASSERT_EQ(0u, trelAddDependentNode(nodes[i - 2], &record, nullptr, 0, 0, 0));
  }
  EXPECT_EQ(0u, soft(nodes[0], 32768));
  EXPECT_EQ(+nodes[32767]->nodeOffset, +entry_->nodeOffset);
  EXPECT_EQ(TREL_RC_NOT_FOUND, soft(nodes[0], 32768, 32766));
  EXPECT_EQ(TREL_RC_DEPTH_LIMIT, soft(nodes[0], 77777));
  EXPECT_EQ(TREL_RC_DEPTH_LIMIT, addUp(nodes[2], deep.info));
  EXPECT_EQ(TREL_RC_DEPTH_LIMIT, soft(nodes[2], 77777));
  EXPECT_EQ(TREL_RC_NOT_FOUND, soft(nodes[3], 77777));
  EXPECT_EQ(0u, addUp(nodes[3], deep.info));
  EXPECT_EQ(32768u, sum_.totalNodes);
  EXPECT_EQ(TREL_RC_DEPTH_LIMIT,
            trelDeleteDependentNodeAndSubtree(nodes[2], nullptr, deep.info, 0, 1));
  EXPECT_EQ(0u, trelDeleteDependentNodeAndSubtree(nodes[3], nullptr, deep.info, 0, 1));
}

// Random damage to all that is read on the way: every operation ends in a code, and what it may not
// touch it does not touch.
TEST_F(Reach, DamagedTreesGiveCodes) {
  std::mt19937 random(testing::UnitTest::GetInstance()->random_seed() + 99u);
  SCOPED_TRACE(testing::UnitTest::GetInstance()->random_seed());
  const auto base = static_cast<uint8_t*>(home.domain()->base);
  const auto otherBase = static_cast<uint8_t*>(other.domain()->base);
  const std::vector<uint8_t> saved(base, base + 0x100000),
      savedOther(otherBase, otherBase + 0x100000);
  std::vector<uint8_t*> words;
  const auto take = [&](void* from, size_t size) {
    for (size_t i = 0; i + 8 <= size; i += 8) words.push_back(static_cast<uint8_t*>(from) + i);
  };
  for (SNodeCB_t* node : {top, near, far}) {
    take(node, offsetof(SNodeCB_t, reconfigCounter));
    take(&node->concurrencyModel, 4 + 12 * 24);
    take(sectionOf<uint8_t>(node, TREL_EXPORT_DEPENDENT), 8 + 2 * (56 + kIdRoom));
    take(sectionOf<uint8_t>(node, TREL_EXPORT_ID), 16);
    take(sectionOf<uint8_t>(node, TREL_EXPORT_PARENT), 64);
  }
  for (SNodeCB_t* child : {near, far}) {
    ASSERT_EQ(0u, trelFindDependentNode(&entry_, top, child->tag, 0, nullptr, 0));
    take(base + entry_->segInfoOffset, 32);
  }
  int refused = 0;
  for (int round = 0; round < 3000; ++round) {
    for (int n = 1 + random() % 2; n; --n) {
      TrelU64* word = reinterpret_cast<TrelU64*>(words[random() % words.size()]);
      const uint64_t values[] = {
          0,     1,        *word + 8, *word - 1, *word ^ (1ull << random() % 64),
          ~0ull, random(), 0x100000,  8,         4097};
      *word = values[random() % 10];
    }
    SNodeInfo_t* found[4];
    SNodeInfo_t records[8];
    uint8_t ids[8 * 4096];
    uint64_t returned = 0, total = 0;
    uint8_t path0[] = "far", path1[] = "leaf";
    const TraverseInfo_t path[] = {{3, 3, path0}, {4, 4, path1}};
    SNodeInfo_t added = {near->nodeOffset, 9, 1, 0, 0, 0, 0}, removed = {0, 9, 1, 0, 0, 0, 0};
    const uint32_t results[] = {
        trelFindNodeSoft(&entry_, top, 4, 4, path1, 0),
        trelFindNodeHard(&entry_, top, 2, path, 8),
        trelFindNodesByTag(top, 4, 0, 4, found, &returned, &total),
        addUp(top, home.info),
        trelSetStatusForEachNodeInATree(top, home.info, 0, TREL_STATUS_UPDATE, 8),
        trelReturnDependentNodes(top, records, ids, &returned, &total, 8, 0, 0),
        trelAddDependentNode(top, &added, bytes("x"), 1, TREL_ADD_REPLACE, 0),
        trelDeleteDependentNode(top, &removed, bytes("x"), 0),
        trelExportListOfChangedProperties(top, 0, std::vector<uint32_t>(58, 1).data())};
    for (uint32_t rc : results) refused += rc != 0;
    memcpy(base, saved.data(), saved.size());
    memcpy(otherBase, savedOther.data(), savedOther.size());
  }
  EXPECT_GT(refused, 3000);
  EXPECT_EQ(0u, soft(top, 4));
  EXPECT_EQ(1u, otherCount());
  EXPECT_EQ(1u, home.attachCount());
}

// ---- A tree that changes under its readers ------------------------------------------------------

TEST_F(Reach, AWriterReadsItsOwnList) {
  uint64_t count = 0;
  ASSERT_EQ(0u, trelEnterCriticalSectionBeforeWrite(top, &top->nodeLatchArea));
  EXPECT_EQ(0u, trelSearchForNodeSoft(&entry_, top, &count, 4, 0, nullptr, 0, 0));
  EXPECT_EQ(0u, addUp(top, home.info));
  EXPECT_EQ(4u, sum_.totalNodes);
  EXPECT_EQ(0u, trelExitCriticalSectionAfterWrite(top, &top->nodeLatchArea));
}

// While a reader attaches the segment behind an entry, the entry comes to name the reader's own.
TEST_F(Reach, AnEntryChangesBetweenSegments) {
  SNodeCB_t* twin = makeNode(home, 3, "far", 0);
  SNodeInfo_t records[] = {recordOf(home, far, other), recordOf(home, twin, home)};
  EXPECT_EQ(0u, trelAbandonNode(&far));
  EXPECT_EQ(0u, trelAbandonNode(&twin));
  const Shared<std::atomic<bool>> stop;
  Child publisher(
      [&] {
        for (int i = 0; !*stop; ++i)
          ASSERT_EQ(
              0u, trelAddDependentNode(top, &records[i % 2], bytes("far"), 3, TREL_ADD_REPLACE, 0));
      },
      false);
  inReader([&](SNodeCB_t* node, ShmSegInfo_t*) {
    for (int i = 0; i < 5000; ++i) {
      ASSERT_EQ(TREL_RC_NOT_FOUND, patiently([&] { return soft(node, 77); }));
    }
    EXPECT_EQ(0u, otherCount());
  });
  *stop = true;
  EXPECT_EQ(0, publisher.wait());
}

// What one thread attaches only to pass over, another may be reading.
TEST_F(Reach, ThreadsSearchOneTree) {
  EXPECT_EQ(0u, trelAbandonNode(&far));
  inReader([&](SNodeCB_t* node, ShmSegInfo_t*) {
    const auto search = [&] {
      SNodeInfo_t* entry = nullptr;
      for (int i = 0; i < 3000; ++i)
        ASSERT_EQ(TREL_RC_NOT_FOUND, trelFindNodeSoft(&entry, node, 77, 0, nullptr, 0));
    };
    std::thread threads[] = {std::thread(search), std::thread(search), std::thread(search)};
    for (std::thread& thread : threads) thread.join();
    EXPECT_LE(otherCount(), 1u);
  });
}

// A publisher adds and deletes children of two nodes, with what lies below them, moves one that is
// always there from place to place, and makes a third list anew. Readers must always find what is
// always there, or get the code that says why not; they may or may not find the others, but never
// those of the other branch.
TEST_F(Reach, ReadersSeeNoTreeThatNeverWas) {
  std::vector<SNodeCB_t*> fixed;
  for (int i = 0; i < 2; ++i) {
    SNodeCB_t* branch = makeNode(home, 10 + i, "branch", 12);
    ASSERT_EQ(0u, adopt(home, top, home, branch));
    fixed.push_back(branch);
    for (const char* id : {"first", "last"}) {
      SNodeCB_t* node = makeNode(home, 20, std::string(id) + std::to_string(i), 0);
      ASSERT_EQ(0u, adopt(home, branch, home, node));
    }
  }
  SNodeCB_t* emptied = makeNode(home, 12, "emptied", 3);
  ASSERT_EQ(0u, adopt(home, top, home, emptied));
  std::vector<SNodeInfo_t> again;
  for (uint64_t tag : {31, 32, 33})
    again.push_back(recordOf(home, makeNode(home, tag, "", 0), home));
  const Shared<std::atomic<bool>> stop;
  const auto publish = [&] {
    std::mt19937 random(5);
    std::map<std::pair<int, int>, SNodeCB_t*> present;
    while (!*stop) {
      const int branch = random() % 2, which = random() % 8;
      SNodeCB_t*& node = present[{branch, which}];
      const std::string id = "t" + std::to_string(which);
      if (!node) {
        node = makeNode(home, 20, id, 1);
        ASSERT_EQ(0u, adopt(home, node, home, makeNode(home, 21, branch ? "of1" : "of0", 0)));
        ASSERT_EQ(0u, adopt(home, fixed[branch], home, node));
      } else {
        SNodeInfo_t record = recordOf(home, node, home);
        ASSERT_EQ(0u, trelDeleteDependentNodeAndSubtree(fixed[branch], &record, home.info, 0, 1));
        node = nullptr;
      }
      // first0 or first1 goes to another place of its list, in one hold of the latch.
      LatchArea_t* area = &fixed[branch]->nodeLatchArea;
      const std::string moved = "first" + std::to_string(branch);
      SNodeInfo_t* entry = nullptr;
      ASSERT_EQ(0u, trelEnterCriticalSectionBeforeWrite(fixed[branch], area));
      ASSERT_EQ(0u, trelFindDependentNode(&entry, fixed[branch], 20, 6, bytes(moved), 1));
      SNodeInfo_t record = *entry;
      ASSERT_EQ(0u, trelDeleteDependentNode(fixed[branch], &record, bytes(moved), 1));
      ASSERT_EQ(0u, trelAddDependentNode(fixed[branch], &record, bytes(moved), 6, 0, 1));
      ASSERT_EQ(0u, trelExitCriticalSectionAfterWrite(fixed[branch], area));
      ASSERT_EQ(0u, trelCreateDependentNodeList(emptied, nullptr, nullptr, nullptr, 8, 0, 0));
      for (SNodeInfo_t& child : again)
        ASSERT_EQ(0u, trelAddDependentNode(emptied, &child, nullptr, 0, 0, 0));
    }
  };
  const auto read = [&](unsigned seed) {
    std::mt19937 random(seed);
    for (int round = 0; round < 4000; ++round) {
      const int branch = random() % 2;
      const std::string id = (random() % 2 ? "first" : "last") + std::to_string(branch);
      SNodeInfo_t* entry = nullptr;
      ASSERT_EQ(
          0u, patiently([&] { return trelFindNodeSoft(&entry, top, 20, id.size(), bytes(id), 0); }))
          << id;
      const std::string gone = branch ? "of0" : "of1";
      ASSERT_EQ(TREL_RC_NOT_FOUND, patiently([&] {
                  return trelFindNodeSoft(&entry, fixed[branch], 21, 3, bytes(gone), 0);
                }));
      std::vector<SNodeInfo_t*> hits(64);
      uint64_t returned = 0, total = 0;
      ASSERT_EQ(0u, patiently([&] {
                  return trelFindNodesByTag(top, 20, 0, 64, hits.data(), &returned, &total);
                }));
      ASSERT_GE(total, 4u);
      ASSERT_LE(total, 20u);
      TreeInfo_t sum;
      ASSERT_EQ(0u, patiently([&] { return trelGetTreeInfo(top, home.info, 0, 20, 0, &sum); }));
      ASSERT_GE(sum.taggedNodes, 4u);
      ASSERT_LE(sum.taggedNodes, 20u);
    }
  };
  Child publisher(publish, false), reader([&] { read(0); }, false), second([&] { read(1); }, false);
  EXPECT_EQ(0, reader.wait());
  EXPECT_EQ(0, second.wait());
  *stop = true;
  EXPECT_EQ(0, publisher.wait());
}

// A node whose properties change all the time, above a long list.
TEST_F(Reach, ChangesOfPropertiesDisturbNobody) {
  constexpr uint64_t kChildren = 1000;
  Segment wide(0x600000);
  SNodeCB_t* busy = wide.makeActive(TREL_EXPORT_ID | TREL_EXPORT_R,
                                    {40, 0, 0, 0, 0, 0, 0x800, 0, 0, 0, 8 + kChildren * 80}, 1, "");
  ASSERT_EQ(0u, trelCreateRPropertyList(busy, nullptr, nullptr, 0, 4, 0, 0));
  ASSERT_EQ(0u, trelCreateDependentNodeList(busy, nullptr, nullptr, nullptr, kIdRoom, 0, 0));
  for (uint64_t i = 0; i < kChildren; ++i) {
    SNodeInfo_t record = recordOf(wide, makeNode(wide, 2 + i, "", 0), wide);
    ASSERT_EQ(0u, trelAddDependentNode(busy, &record, nullptr, 0, 0, 0));
  }
  const Shared<std::atomic<bool>> stop;
  Child publisher(
      [&] {
        while (!*stop) {
          ASSERT_EQ(0u, trelAddRProperty(busy, 9, 9, 0));
          ASSERT_EQ(0u, trelDeleteRProperty(busy, 9, 0));
        }
      },
      false);
  for (int i = 0; i < 300; ++i) {
    ASSERT_EQ(0u, patiently([&] { return soft(busy, 1 + kChildren); }));
    ASSERT_EQ(0u, patiently([&] { return addUp(busy, wide.info); }));
    ASSERT_EQ(1 + kChildren, sum_.totalNodes);
  }
  *stop = true;
  EXPECT_EQ(0, publisher.wait());
}

// A writer who stays inside: what needs his list gets a code, all else is told.
TEST_F(Reach, NobodyWaitsLongForAWriter) {
  const auto beside = [&](SNodeCB_t* busy, const std::function<void()>& work) {
    LatchArea_t* area = &busy->nodeLatchArea;
    ASSERT_EQ(0u, trelEnterCriticalSectionBeforeWrite(busy, area));
    std::thread(work).join();
    ASSERT_EQ(0u, trelExitCriticalSectionAfterWrite(busy, area));
  };
  beside(leaf, [&] { EXPECT_EQ(0u, addUp(top, home.info)); });
  beside(top, [&] { EXPECT_EQ(TREL_RC_WRITER_INSIDE, addUp(top, home.info)); });
  beside(top, [&] {
    EXPECT_EQ(TREL_RC_WRITER_INSIDE, soft(top, 77));
    EXPECT_EQ(0u, soft(far, 4));
  });
  EXPECT_EQ(0u, addUp(top, home.info));
}

// Several add and delete below one node, by entry and by walk, while others walk over it.
TEST_F(Reach, ManyDeletersOfOneList) {
  constexpr int kRounds = 3000;
  SNodeCB_t* list = makeNode(home, 50, "list", 40);
  ASSERT_EQ(0u, adopt(home, top, home, list));
  ASSERT_EQ(0u, adopt(home, list, home, makeNode(home, 53, "stays", 0)));
  const uint32_t blocks = home.poolInfo().allocNodeCount;
  const auto add = [&](const std::string& id, uint32_t condition) {
    SNodeCB_t* child = makeNode(home, 51, id, 1);
    EXPECT_EQ(0u, adopt(home, child, home, makeNode(home, 52, "", 0)));
    child->condition = condition;
    SNodeInfo_t record = recordOf(home, child, home);
    EXPECT_EQ(0u, trelAddDependentNode(list, &record, bytes(id), id.size(), 0, 0));
    return record;
  };
  const auto byEntry = [&](int who) {
    for (int i = 0; i < kRounds; ++i) {
      const std::string id = std::to_string(who) + '.' + std::to_string(i % 5);
      const SNodeInfo_t record = add(id, TREL_CONDITION_ACTIVE);
      ASSERT_EQ(0u, trelDeleteDependentNodeAndSubtree(list, &record, home.info, 0, 1));
    }
  };
  const auto byWalk = [&](int who) {
    for (int i = 0; i < kRounds; ++i) {
      const std::string id = std::to_string(who) + '.' + std::to_string(i % 5);
      add(id, TREL_CONDITION_ABANDONED);  // the other's walk may take it from now on
      ASSERT_EQ(0u, trelSetStatusForEachNodeInATree(list, home.info, 0, TREL_STATUS_DISCLAIM,
                                                    1u << TREL_CONDITION_ABANDONED));
      ASSERT_EQ(TREL_RC_DEPENDENT_ABSENT,
                trelFindDependentNode(&entry_, list, 51, id.size(), bytes(id), 0));
    }
  };
  const auto look = [&] {
    for (int i = 0; i < kRounds; ++i) {
      ASSERT_EQ(0u, trelSetStatusForEachNodeInATree(top, home.info, 0, TREL_STATUS_UPDATE, 8));
      ASSERT_EQ(0u, patiently([&] { return addUp(top, home.info); }));
      ASSERT_EQ(TREL_RC_NOT_FOUND, patiently([&] { return soft(top, 77); }));
    }
  };
  {
    Child children[] = {Child([&] { byEntry(0); }, false), Child([&] { byEntry(1); }, false),
                        Child([&] { byWalk(2); }, false), Child([&] { byWalk(3); }, false),
                        Child(look, false)};
    for (Child& child : children) EXPECT_EQ(0, child.wait());
  }
  EXPECT_EQ(1u, dependentsOf(list).first);
  EXPECT_EQ(blocks, home.poolInfo().allocNodeCount);
}

}  // namespace
