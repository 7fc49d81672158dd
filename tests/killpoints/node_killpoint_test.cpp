// A writer dies at every store of every operation on what a node holds, on a shared list and on the
// fields of the top node; whoever repairs the node or the list dies at every store of that.
#include <algorithm>
#include <map>

#include "deaths.h"
#include "heap_walker.h"
#include "property_api.h"
#include "segment_fixture.h"

namespace {

using namespace walker;

// An active node with all lists, in a segment.
struct Deaths : Library {
  Segment segment{0x20000};
  Memory memory{segment.domain()->base, 0x20000};
  SNodeCB_t* const node = segment.makeActive(
      0xfe2, {16 + 64, 0, 0, 0, 0x400, 0x400, 0x2000, 0x2000, 0x2000, 0x2000, 8 + 8 * 72}, 1,
      "node");

  // With the first `count` of two entries.
  uint32_t create(uint32_t bit, uint64_t hashed, uint64_t count) {
    Api::Entries entries{{{1, "one"}, valueOf(bit, 8, "old")},
                         {{6, "same"}, valueOf(bit, 9, "past")}};
    entries.resize(count);
    return Api{node, bit}.create({hashed * 12, hashed, 16, 16, hashed * 5, hashed * 5}, entries);
  }
  uint32_t add(uint32_t bit, uint64_t tag, const char* id) {
    return Api{node, bit}.add({tag, id}, valueOf(bit, 3, "value"));
  }
  uint32_t remove(uint32_t bit, uint64_t tag, const char* id) {
    return Api{node, bit}.remove({tag, id});
  }
  uint32_t set(uint32_t bit, uint64_t tag, const char* id) {
    return Api{node, bit}.set({tag, id}, valueOf(bit, 9, "other value"));
  }
  static Text valueOf(uint32_t bit, int32_t number, const char* text) {
    return hasBytes(bit) ? Text(text) : registerOf(number);
  }

  using Properties = std::multimap<Name, Content>;

  Properties propertiesOf(uint32_t bit) {
    if (node->exportTable[__builtin_ctz(bit) - 1].used == 0) return {};
    const Section section(node, bit);
    EXPECT_EQ("", section.error);
    return section.properties;
  }

  // Of the pool, behind a look at both heaps.
  size_t blocks() {
    EXPECT_EQ(0u, trelLatchShmPool(segment.pool()));
    EXPECT_EQ(0u, trelUnlatchShmPool(segment.pool()));
    EXPECT_EQ("", heapFault(memory.base(), 1, segment.domain()->heapOffset));
    const HeapWalk walk(memory.base(), 2, segment.pool()->poolOffset);
    EXPECT_EQ("", walk.fault);
    return walk.allocated.size();
  }

  void takeOver() {
    uint64_t size = 0;
    EXPECT_EQ(0u, trelGetNodeSize(node, &size, 0));
    EXPECT_EQ(TREL_CONDITION_ACTIVE, node->condition);
  }

  // What is seen after a death must be what is seen before the operation or behind it, or what
  // isGood allows; and use() must work.
  template <class See, class IsGood>
  void die(const std::function<void()>& work, See&& see, const std::function<void()>& use,
           IsGood&& isGood) {
    const Image start = memory.save();
    const auto before = see();
    work();
    const auto behind = see();
    const auto survive = [&](uint64_t n) {
      SCOPED_TRACE("killed in front of store " + std::to_string(n));
      takeOver();
      const auto is = see();
      EXPECT_TRUE(is == before || is == behind || isGood(is, behind));
      use();
      see();
    };
    memory.restore(start);
    const uint64_t tried = memory.dieEverywhere(start, work, survive);
    EXPECT_GT(tried, 2u);
    memory.dieTwice(
        start, work, isFullRun() ? 1 : 17, [&] { takeOver(); }, survive);
    memory.restore(start);
  }
  template <class See>
  void die(const std::function<void()>& work, See&& see, const std::function<void()>& use) {
    die(work, see, use, [](auto&&...) { return false; });
  }
};

TEST_F(Deaths, Properties) {
  for (const uint32_t bit : kKinds)
    for (const uint64_t hashed : {0, 1}) {
      SCOPED_TRACE("kind " + std::to_string(bit) + (hashed ? " hashed" : " flat"));
      const auto see = [&] { return propertiesOf(bit); };
      const auto use = [&] {
        EXPECT_EQ(0u, add(bit, 77, "after"));
        EXPECT_EQ(0u, remove(bit, 77, "after"));
      };
      // Over the list of the round before, if there is one.
      const auto createTwo = [&] { EXPECT_EQ(0u, create(bit, hashed, 2)); };
      die(
          createTwo, see, [&] { EXPECT_EQ(0u, create(bit, hashed, 0)); },
          [](const Properties& is, const Properties& behind) {
            return std::includes(behind.begin(), behind.end(), is.begin(), is.end(),
                                 [](auto& a, auto& b) { return a.first < b.first; });
          });
      ASSERT_EQ(0u, create(bit, hashed, 0));
      ASSERT_EQ(0u, add(bit, 1, "one"));
      // Tags 1, 6, 11 meet in a bucket of some table; a freed place is there.
      for (const uint64_t tag : {6, 11, 16, 21}) ASSERT_EQ(0u, add(bit, tag, "same"));
      ASSERT_EQ(0u, remove(bit, 16, "same"));
      die([&] { EXPECT_EQ(0u, add(bit, 13, "same")); }, see, use);
      die([&] { EXPECT_EQ(0u, remove(bit, 6, "same")); }, see, use);
      die([&] { EXPECT_EQ(0u, set(bit, 11, "same")); }, see, use,
          [&](const Properties& is, const Properties& behind) {  // bytes may be of both
            return bit & (TREL_EXPORT_V | TREL_EXPORT_IV) && is.size() == behind.size();
          });
      ASSERT_EQ(0u, add(bit, 16, "same"));  // now a place never used is next
      die([&] { EXPECT_EQ(0u, add(bit, 13, "more")); }, see, use);
      if (HasFailure()) return;
    }
}

TEST_F(Deaths, IdentifierAndBaseProperties) {
  const auto name = [&] {
    uint8_t* id = nullptr;
    uint64_t size = 0;
    EXPECT_EQ(0u, trelGetNodeID(node, &id, &size, 0));
    EXPECT_EQ(16 + size, node->exportTable[0].used);
    return std::string(reinterpret_cast<char*>(id), size);
  };
  const auto rename = [&](const char* id) {
    EXPECT_EQ(0u, trelSetNodeID(node, bytes(id), strlen(id), 64, 0));
  };
  die([&] { rename("another name"); }, name, [&] { rename("third"); },
      [](const std::string& is, const std::string&) { return is.empty(); });

  // Base properties: the tag and the value, if there is one.
  using Base = std::pair<uint64_t, std::string>;
  for (const bool isV : {false, true}) {
    const auto createBase = [&](uint64_t tag, const char* text) {
      const uint64_t n = strlen(text);
      EXPECT_EQ(0u, isV ? trelCreateBaseVProperty(node, tag, bytes(text), n, n, 0)
                        : trelCreateBaseRProperty(node, tag, text[0], 0));
    };
    const auto removeBase = [&](uint64_t tag) {
      EXPECT_EQ(
          0u, isV ? trelDeleteBaseVProperty(node, tag, 0) : trelDeleteBaseRProperty(node, tag, 0));
    };
    const auto see = [&] {
      Base base;
      uint64_t size = 0;
      int32_t number = 0;
      uint8_t* value = nullptr;
      EXPECT_EQ(0u, isV ? trelReturnBaseVProperty(node, &base.first, &size, 0)
                        : trelReturnBaseRProperty(node, &base.first, 0));
      if (base.first == 0) return base;
      if (isV) {
        EXPECT_EQ(0u, trelGetValueForBaseVProperty(node, base.first, &size, &value, nullptr, 0));
        base.second.assign(reinterpret_cast<char*>(value), size);
      } else {
        EXPECT_EQ(0u, trelGetValueForBaseRProperty(node, base.first, &number, 0));
        base.second = static_cast<char>(number);
      }
      return base;
    };
    const auto use = [&] { createBase(3, "use"); };
    const auto isGone = [](const Base& is, const Base&) { return is.first == 0; };
    createBase(1, "short");
    die([&] { createBase(2, "a longer value than before"); }, see, use, isGone);
    die([&] { removeBase(1); }, see, use);
  }
}

TEST_F(Deaths, Dependents) {
  const auto entry = [&](uint64_t tag, uint64_t offset = 0, uint64_t identity = 8) {
    return SNodeInfo_t{node->nodeOffset + offset, tag, 0, 0, identity, 8, 0};
  };
  const auto add = [&](SNodeInfo_t record) {
    EXPECT_EQ(0u, trelAddDependentNode(node, &record, bytes("child"), 5, TREL_ADD_REPLACE, 0));
  };
  const auto remove = [&](uint64_t tag) {
    SNodeInfo_t record = entry(tag);
    record.idSize = 5;
    EXPECT_EQ(0u, trelDeleteDependentNode(node, &record, bytes("child"), 0));
  };
  const auto create = [&] {
    SNodeInfo_t records[] = {entry(4), entry(5)};
    const uint64_t sizes[] = {5, 5};
    EXPECT_EQ(0u, trelCreateDependentNodeList(node, records, sizes, bytes("childchild"), 16, 2, 0));
  };
  using Entries = std::map<uint64_t, std::pair<uint64_t, uint64_t>>;  // place and segment by tag
  const auto see = [&] {
    Entries found;
    const auto* section = reinterpret_cast<uint8_t*>(node) + node->exportTable[10].offset;
    for (uint64_t i = 0; i < 8; ++i) {
      const auto* e = reinterpret_cast<const SNodeInfo_t*>(section + 8 + i * 72);
      if (node->exportTable[10].used && e->nodeTag) {
        found[e->nodeTag] = {e->nodeOffset, e->segInfoOffset};
        EXPECT_EQ(0, memcmp(e + 1, "child", e->idSize));
      }
    }
    uint64_t live = 0, capacity = 0;
    EXPECT_EQ(0u, trelReturnNumberOfDependentNodes(node, &live, &capacity, 0));
    EXPECT_EQ(found.size(), live);
    return found;
  };
  const auto use = [&] {
    if (node->exportTable[10].used == 0) create();
    add(entry(8));
    remove(8);
  };
  const auto isPart = [](const Entries& is, const Entries& behind) {
    return std::includes(behind.begin(), behind.end(), is.begin(), is.end());
  };
  die(create, see, use, isPart);
  create();
  for (const uint64_t tag : {1, 2, 3}) add(entry(tag));
  remove(2);
  die([&] { add(entry(9)); }, see, use);
  die([&] { remove(1); }, see, use);
  die([&] { add(entry(3, 16)); }, see, use);              // the node has moved
  die([&] { add(entry(3, 16, 24)); }, see, use, isPart);  // to another segment: gone in between
  die(create, see, use, isPart);
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
    memory.dieEverywhere(start, work, survive);
    memory.dieTwice(start, work, isFullRun() ? 3 : 41, takeOver, survive);
    memory.restore(start);
  };
  die([&] { insert(1); });
  insert(1);
  die([&] { remove(1); });
  die(clear);
}

// The first, one that fits, and one for which the block grows.
TEST_F(Deaths, Descriptions) {
  const auto describe = [&](uint64_t tag) {
    TrelDescription_t d{};
    d.exportBit = TREL_EXPORT_V;
    d.propertyTag = tag;
    snprintf(d.name, sizeof d.name, "v%u", static_cast<unsigned>(tag));
    memset(d.help, 'x', sizeof d.help - 1);
    EXPECT_EQ(0u, trelDescribe(segment.info, &d, nullptr));
  };
  const auto listed = [&] {
    std::array<TrelDescription_t, 64> all;
    uint32_t count = 0, total = 0;
    EXPECT_EQ(0u, trelListDescriptions(segment.info, 0, all.data(), 64, &count, &total));
    EXPECT_EQ(total, count);
    for (uint32_t i = 0; i < count; ++i) {
      TrelDescription_t d;
      EXPECT_EQ(0u, trelGetDescription(segment.info, 0, TREL_EXPORT_V, all[i].propertyTag, 0, &d));
    }
    return count;
  };
  const size_t others = blocks();
  uint32_t before = 0;
  const auto survive = [&](uint64_t n) {
    SCOPED_TRACE("killed in front of store " + std::to_string(n));
    describe(before + 1);
    describe(99);
    EXPECT_EQ(before + 2, listed());
    EXPECT_EQ(others + 1, blocks());
  };
  const auto takeOver = [&] {
    EXPECT_EQ(0u, trelLatchShmDomain(segment.domain()));
    EXPECT_EQ(0u, trelUnlatchShmDomain(segment.domain()));
  };
  for (const uint32_t first : {0u, 1u, 23u}) {
    while (before < first) describe(++before);
    const Image start = memory.save();
    memory.dieEverywhere(
        start, [&] { describe(before + 1); }, survive);
    memory.dieTwice(
        start, [&] { describe(before + 1); }, isFullRun() ? 3 : 41, takeOver, survive);
    memory.restore(start);
  }
}

TEST_F(Deaths, NodesGivenBack) {
  SNodeCB_t* const other = segment.makeActive(0, {}, 2, "");
  uint64_t whole = 0;
  const auto giveBack = [&] {
    SNodeCB_t* given = other;
    EXPECT_EQ(0u, trelDisclaimNode(&given, segment.pool(), TREL_STRUCTURE_VERSION));
  };
  const uint64_t tried = memory.dieEverywhere(memory.save(), giveBack, [&](uint64_t n) {
    const bool isWhole = trelSetNodeTag(other, 2, 0) == 0;
    EXPECT_TRUE(!isWhole || whole == n) << "once it is no node it stays none";
    whole += isWhole;
  });
  EXPECT_GT(tried, whole);
}

TEST_F(Deaths, TopNode) {
  const auto publish = [&](uint64_t tag) {
    const uint32_t pool = static_cast<uint32_t>(segment.pool()->poolOffset);
    EXPECT_EQ(0u, trelPutTopNodeInfoIntoDomainHeader(segment.domain(), tag, node->nodeOffset + tag,
                                                     pool));
  };
  publish(0x10);
  memory.dieEverywhere(
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
