// A writer dies at every store of every operation on the lists of a node, on a shared list and on
// the fields of the top node.
#include <array>
#include <set>

#include "deaths.h"
#include "heap_walker.h"
#include "section_walker.h"
#include "segment_fixture.h"

namespace {

using walker::Name;
using walker::Section;

constexpr uint32_t kKinds[] = {TREL_EXPORT_R, TREL_EXPORT_V, TREL_EXPORT_IR, TREL_EXPORT_IV};
const char* const kNames[] = {"R", "V", "IR", "IV"};

const uint8_t* bytes(const char* text) { return reinterpret_cast<const uint8_t*>(text); }

// An active node with all lists, in a segment.
struct Deaths : Library {
  Segment segment{0x20000};
  Memory memory{segment.domain()->base, 0x20000};
  SNodeCB_t* node = nullptr;
  uint64_t points = 0;

  Deaths() {
    std::array<uint64_t, 64> sizes{};
    sizes[0] = 16 + 64;
    for (const uint32_t bit : kKinds) sizes[__builtin_ctz(bit) - 1] = 0x2000;
    sizes[10] = 8 + 8 * 72;
    uint64_t size = 0, offset = 0;
    EXPECT_EQ(0u, trelCreateNode(segment.info, &node, 0x2 | 0x80 | 0x100 | 0x200 | 0x400 | 0x800,
                                 sizes.data(), &size, &offset));
    EXPECT_EQ(0u, trelInitNode(&node, offset, 4, bytes("node"), nullptr, nullptr, 64, nullptr,
                               nullptr, nullptr));
    EXPECT_EQ(0u, trelActivateNode(&node));
  }
  ~Deaths() override {
    printf("%llu kill points tried\n", static_cast<unsigned long long>(points));
  }

  uint32_t create(uint32_t bit, uint64_t hashed) {
    const uint64_t h = hashed ? 5 : 0, n = hashed ? 12 : 0;
    switch (bit) {
      case TREL_EXPORT_R:
        return trelCreateRPropertyList(node, nullptr, nullptr, 0, n, hashed, 0);
      case TREL_EXPORT_V:
        return trelCreateVPropertyList(node, nullptr, nullptr, nullptr, 16, 0, n, hashed, 0);
      case TREL_EXPORT_IR:
        return trelCreateIRPropertyList(node, nullptr, nullptr, nullptr, nullptr, 16, 0, h, h, n,
                                        hashed, 0);
      default:
        return trelCreateIVPropertyList(node, nullptr, nullptr, nullptr, 16, nullptr, nullptr, 16,
                                        0, h, h, n, hashed, 0);
    }
  }
  uint32_t add(uint32_t bit, uint64_t tag, const char* id) {
    switch (bit) {
      case TREL_EXPORT_R:
        return trelAddRProperty(node, tag, 3, 0);
      case TREL_EXPORT_V:
        return trelAddVProperty(node, tag, 5, bytes("value"), 0);
      case TREL_EXPORT_IR:
        return trelAddIRProperty(node, tag, strlen(id), bytes(id), 3, 0);
      default:
        return trelAddIVProperty(node, tag, strlen(id), bytes(id), 5, bytes("value"), 0);
    }
  }
  uint32_t remove(uint32_t bit, uint64_t tag, const char* id) {
    switch (bit) {
      case TREL_EXPORT_R:
        return trelDeleteRProperty(node, tag, 0);
      case TREL_EXPORT_V:
        return trelDeleteVProperty(node, tag, 0);
      case TREL_EXPORT_IR:
        return trelDeleteIRProperty(node, tag, strlen(id), bytes(id), 0);
      default:
        return trelDeleteIVProperty(node, tag, strlen(id), bytes(id), 0);
    }
  }
  uint32_t set(uint32_t bit, uint64_t tag, const char* id) {
    switch (bit) {
      case TREL_EXPORT_R:
        return trelSetValueForRProperty(node, tag, 9, 0);
      case TREL_EXPORT_V:
        return trelSetValueForVProperty(node, tag, 11, bytes("other value"), 0);
      case TREL_EXPORT_IR:
        return trelSetValueForIRProperty(node, tag, strlen(id), bytes(id), 9, 0);
      default:
        return trelSetValueForIVProperty(node, tag, strlen(id), bytes(id), 11, bytes("other value"),
                                         0);
    }
  }

  std::set<Name> namesOf(uint32_t bit) {
    const Section section(node, bit);
    EXPECT_EQ("", section.error);
    std::set<Name> names;
    for (const auto& property : section.properties) names.insert(property.first);
    return names;
  }

  // The properties must be those before or behind the operation, each with a whole value; the list
  // must go on serving.
  void die(uint32_t bit, const std::function<void()>& work, bool setsBytes) {
    const Image start = memory.save();
    const auto before = Section(node, bit).properties;
    ASSERT_FALSE(memory.dies(~uint64_t{0}, work));
    const auto behind = Section(node, bit).properties;
    const uint64_t tried = memory.dieEverywhere(start, work, [&](uint64_t n) {
      SCOPED_TRACE("killed in front of store " + std::to_string(n));
      uint64_t counter = 0;
      EXPECT_EQ(0u, set(bit, 1, "one"));  // whoever comes next
      EXPECT_EQ(0u, trelGetNodeReconfigCounter(node, &counter));
      EXPECT_EQ(TREL_CONDITION_ACTIVE, node->condition);
      auto is = Section(node, bit).properties;
      for (auto& property : is)
        if (property.first.tag == 1) property.second = before.find(property.first)->second;
      if (setsBytes)
        EXPECT_EQ(namesOf(bit).size(), before.size());
      else
        EXPECT_TRUE(is == before || is == behind);
      EXPECT_EQ(0u, add(bit, 77, "after"));
      EXPECT_EQ(0u, remove(bit, 77, "after"));
      namesOf(bit);
    });
    EXPECT_GT(tried, 2u);
    points += tried;
    memory.restore(start);
  }
};

TEST_F(Deaths, Properties) {
  for (int k = 0; k < 4; ++k)
    for (const uint64_t hashed : {0, 1}) {
      const uint32_t bit = kKinds[k];
      SCOPED_TRACE(std::string(kNames[k]) + (hashed ? " hashed" : " flat"));
      ASSERT_EQ(0u, create(bit, hashed));
      ASSERT_EQ(0u, add(bit, 1, "one"));
      // Tags 1, 6, 11 meet in a bucket of some table; a freed place is there.
      for (const uint64_t tag : {6, 11, 16, 21}) ASSERT_EQ(0u, add(bit, tag, "same"));
      ASSERT_EQ(0u, remove(bit, 16, "same"));
      die(
          bit, [&] { EXPECT_EQ(0u, add(bit, 13, "same")); }, false);
      die(
          bit, [&] { EXPECT_EQ(0u, remove(bit, 6, "same")); }, false);
      die(
          bit, [&] { EXPECT_EQ(0u, set(bit, 11, "same")); },
          bit & (TREL_EXPORT_V | TREL_EXPORT_IV));
      ASSERT_EQ(0u, add(bit, 16, "same"));  // now a place never used is next
      die(
          bit, [&] { EXPECT_EQ(0u, add(bit, 13, "more")); }, false);
      if (HasFailure()) return;
    }
}

TEST_F(Deaths, Dependents) {
  ASSERT_EQ(0u, trelCreateDependentNodeList(node, nullptr, nullptr, nullptr, 16, 0, 0));
  const auto record = [&](uint64_t tag) {
    return SNodeInfo_t{node->nodeOffset, tag, 0, 0, 8, 8, 0};
  };
  const auto add = [&](uint64_t tag) {
    SNodeInfo_t r = record(tag);
    EXPECT_EQ(0u, trelAddDependentNode(node, &r, bytes("child"), 5, 0, 0));
  };
  const auto remove = [&](uint64_t tag) {
    SNodeInfo_t r = record(tag);
    r.idSize = 5;
    EXPECT_EQ(0u, trelDeleteDependentNode(node, &r, bytes("child"), 0));
  };
  const auto tags = [&] {
    std::set<uint64_t> found;
    for (uint64_t i = 0; i < 8; ++i)
      if (const uint64_t tag = *reinterpret_cast<TrelU64*>(
              reinterpret_cast<uint8_t*>(node) + node->exportTable[10].offset + 8 + i * 72 + 8))
        found.insert(tag);
    uint64_t live = 0, capacity = 0;
    EXPECT_EQ(0u, trelReturnNumberOfDependentNodes(node, &live, &capacity, 0));
    EXPECT_EQ(found.size(), live);
    return found;
  };
  for (const uint64_t tag : {1, 2, 3}) add(tag);
  remove(2);
  for (const auto& work :
       {std::function<void()>([&] { add(9); }), std::function<void()>([&] { remove(1); })}) {
    const Image start = memory.save();
    const auto before = tags();
    work();
    const auto behind = tags();
    const uint64_t tried = memory.dieEverywhere(start, work, [&](uint64_t n) {
      SCOPED_TRACE("killed in front of store " + std::to_string(n));
      uint64_t live = 0, capacity = 0;
      EXPECT_EQ(0u, trelReturnNumberOfDependentNodes(node, &live, &capacity, 0));
      const auto is = tags();
      EXPECT_TRUE(is == before || is == behind);
      add(8);
      remove(8);
      EXPECT_EQ(is, tags());
    });
    EXPECT_GT(tried, 2u);
    points += tried;
    memory.restore(start);
  }
}

// Whatever is taken from the pool is on the list, at every death of the operation and of the
// repair.
TEST_F(Deaths, SharedLists) {
  ShmPoolHandle_t* const pool = segment.pool();
  const auto module = [](uint64_t n) {
    return HdmModuleRecord_t{{static_cast<char>('a' + n)}, {}};
  };
  const auto find = [&](uint64_t n) {
    const HdmModuleRecord_t sought = module(n);
    HdmModuleRecord_t* found = nullptr;
    EXPECT_EQ(0u, trelFindHDMNodeInLList(pool, &sought, &found));
    return found != nullptr;
  };
  const auto insert = [&](uint64_t n) {
    const HdmModuleRecord_t record = module(n);
    HdmModuleRecord_t* entry = nullptr;
    EXPECT_EQ(0u, trelInsertHDMNodeIntoLList(pool, &record, &entry));
  };
  const auto remove = [&](uint64_t n) {
    const HdmModuleRecord_t record = module(n);
    EXPECT_EQ(0u, trelDeleteHDMNodeFromLList(pool, &record));
  };
  const auto clear = [&] { EXPECT_EQ(0u, trelDeleteHDMLList(pool)); };
  const auto blocks = [&] {
    EXPECT_EQ(0u, trelLatchShmPool(pool));
    EXPECT_EQ(0u, trelUnlatchShmPool(pool));
    EXPECT_EQ("", heapFault(memory.base(), 1, segment.domain()->heapOffset));
    const HeapWalk walk(memory.base(), 2, pool->poolOffset);
    EXPECT_EQ("", walk.fault);
    return walk.allocated.size();
  };
  const size_t others = blocks();
  const auto survive = [&](uint64_t n) {
    SCOPED_TRACE("killed in front of store " + std::to_string(n));
    // Others may come to the pool before anybody comes to the list, and get what was on its way.
    void* block = nullptr;
    if (n % 2) {
      EXPECT_EQ(0u, _trelAllocateShmBlock(&block, pool, sizeof(HdmListNode_t), 0, 1, 2, "other"));
    }
    size_t listed = 0;
    for (uint64_t i = 0; i < 3; ++i) listed += find(i);
    EXPECT_EQ(others + (block != nullptr) + listed, blocks());
    if (block) {
      EXPECT_EQ(0u, _trelFreeShmBlock(&block, pool, 1, 2, "other"));
    }
    if (!find(1)) insert(1);
    clear();
    EXPECT_EQ(others, blocks());
  };
  const auto takeOver = [&] {
    EXPECT_EQ(0u, trelLatchShmDomain(segment.domain()));
    EXPECT_EQ(0u, trelUnlatchShmDomain(segment.domain()));
  };
  insert(0);
  insert(2);
  const auto die = [&](const std::function<void()>& work) {
    const Image start = memory.save();
    points += memory.dieEverywhere(start, work, survive);
    points += memory.dieTwice(start, work, isFullRun() ? 3 : 41, takeOver, survive);
    memory.restore(start);
  };
  die([&] { insert(1); });
  insert(1);
  die([&] { remove(1); });
  die(clear);
}

TEST_F(Deaths, TopNode) {
  const auto publish = [&](uint64_t tag) {
    const uint32_t pool = static_cast<uint32_t>(segment.pool()->poolOffset);
    EXPECT_EQ(0u, trelPutTopNodeInfoIntoDomainHeader(segment.domain(), tag, node->nodeOffset + tag,
                                                     pool));
  };
  publish(0x10);
  points += memory.dieEverywhere(
      memory.save(), [&] { publish(0x20); },
      [&](uint64_t) {
        uint64_t tag = 0, offset = 0;
        uint32_t pool = 0;
        const uint32_t rc =
            trelGetTopNodeInfoFromDomainHeader(segment.domain(), &tag, &offset, &pool);
        if (rc == 0) {
          EXPECT_EQ(node->nodeOffset + tag, offset);
        } else {
          EXPECT_EQ(TREL_RC_NO_TREE, rc);
        }
      });
}

}  // namespace
