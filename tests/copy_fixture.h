// Nodes and trees with random content, and pictures of them to compare copies by.
#pragma once

#include <random>
#include <sstream>

#include "property_api.h"
#include "tree_fixture.h"

namespace copies {

using namespace walker;
using Random = std::mt19937;

inline uint64_t pick(Random& random, uint64_t least, uint64_t most) {
  return std::uniform_int_distribution<uint64_t>(least, most)(random);
}
inline Text anyBytes(Random& random, uint64_t size) {
  Text text(size, '\0');
  for (char& byte : text) byte = static_cast<char>(random());
  return text;
}
inline HdmModuleRecord_t module(const Text& path) {
  HdmModuleRecord_t record = {};
  memcpy(record.modulePath, path.data(), path.size());
  record.rest[31] = 7;
  return record;
}

// ---- What a node is made with ----------------------------------------------------------------

constexpr uint64_t kBare = TREL_EXPORT_ID | TREL_EXPORT_PARENT | TREL_EXPORT_DEPENDENT;

constexpr uint64_t kAllExports = 0x1ffe;

struct NodePlan {
  uint64_t exports = kBare;
  uint64_t dependents = 0;
  std::map<uint32_t, ListLimits> lists = {};
  uint64_t baseValueMax = 8;
  std::map<uint32_t, uint64_t> more = {};  // bytes added to a section
};

// The sections that the library works out for such a node.
inline std::array<uint64_t, 64> sizesOf(NodePlan plan) {
  std::array<uint64_t, 64> sizes{};
  const ListLimits &r = plan.lists[TREL_EXPORT_R], &v = plan.lists[TREL_EXPORT_V],
                   &ir = plan.lists[TREL_EXPORT_IR], &iv = plan.lists[TREL_EXPORT_IV];
  uint64_t total = 0;
  EXPECT_EQ(0u, trelCreateMaxSpaceArray(plan.exports, r.maximum, r.hashed, v.maximum,
                                        std::max(v.maxValue, plan.baseValueMax), v.hashed,
                                        ir.maximum, ir.tagTable, ir.idTable, ir.maxId, ir.hashed,
                                        iv.maximum, iv.tagTable, iv.idTable, iv.maxId, iv.maxValue,
                                        iv.hashed, kIdRoom, plan.dependents, sizes.data(), &total));
  for (const auto& [bit, bytesMore] : plan.more) sizes[slotOf(bit)] += bytesMore;
  return sizes;
}

inline NodePlan anySpec(Random& random) {
  NodePlan plan;
  plan.exports |= random() & kAllExports;
  for (uint32_t bit : kKinds)
    plan.lists[bit] = {pick(random, 0, 12), pick(random, 0, 1), pick(random, 0, 20),
                       pick(random, 1, 50), pick(random, 0, 9), pick(random, 0, 9)};
  ListLimits& ir = plan.lists[TREL_EXPORT_IR];  // one bucket does not fit the size worked out
  ir.maximum = std::max(ir.maximum, 2 * ir.hashed);
  plan.baseValueMax = pick(random, 1, 60);
  plan.dependents = pick(random, 6, 9);
  for (uint32_t bit : {TREL_EXPORT_RECORD24, TREL_EXPORT_BASE_R, TREL_EXPORT_R, TREL_EXPORT_IR})
    plan.more[bit] = pick(random, 0, 9);  // odd places behind them
  return plan;
}

// Fills an active node's properties, adding more than will stay.
inline void fillProperties(SNodeCB_t* node, const NodePlan& plan, Random& random) {
  for (const auto& [bit, list] : plan.lists) {
    if (!(plan.exports & bit)) continue;
    Api api{node, bit};
    EXPECT_EQ(0u, api.create(list));
    for (int round = 0; round < 20; ++round) {
      const Name name{pick(random, 1, 15),
                      anyBytes(random, hasId(bit) ? pick(random, 0, (list.maxId + 7) / 8 * 8) : 0)};
      const Text value = anyBytes(random, hasBytes(bit) ? pick(random, 1, list.maxValue) : 4);
      // A delete may be refused, for want of room on the stack or of an identifier.
      if (api.add(name, value) == 0 && random() % 3 == 0) api.remove(name);
    }
  }
  if (plan.exports & TREL_EXPORT_BASE_R) {
    EXPECT_EQ(0u, trelCreateBaseRProperty(node, 77, static_cast<int32_t>(random()), 0));
  }
  if (plan.exports & TREL_EXPORT_BASE_V) {
    const Text value = anyBytes(random, pick(random, 1, plan.baseValueMax));
    EXPECT_EQ(0u,
              trelCreateBaseVProperty(node, 78, bytes(value), value.size(), plan.baseValueMax, 0));
  }
}

// ---- Trees -----------------------------------------------------------------------------------

// A node of a tree, with the segment in which it lies.
struct Made {
  SNodeCB_t* node = nullptr;
  const Segment* segment = nullptr;
};

// Makes a node and hangs it below a parent of the same or another segment.
inline Made makeNode(const Segment& segment, const NodePlan& plan, uint64_t tag, const Text& id,
                     const Made* parent, const HdmModuleRecord_t* served = nullptr) {
  const uint8_t record24[24] = {1, 2, 3};
  const HdmModuleRecord_t own = module("/own");
  NodeOptions_t options = {};
  options.optionWord1 = 11, options.optionWord2 = 12, options.optionWord5 = 15;
  options.updateInterval = 345;
  const Made made{
      segment.makeActive(plan.exports, sizesOf(plan), tag, id, record24, &own, &options), &segment};
  if (plan.exports & TREL_EXPORT_DEPENDENT) {
    EXPECT_EQ(0u, trelCreateDependentNodeList(made.node, nullptr, nullptr, nullptr, kIdRoom, 0, 0));
  }
  if (parent) {
    EXPECT_EQ(0u, adopt(*parent->segment, parent->node, segment, made.node, served));
  }
  return made;
}

// A random tree over the segments, with entries deleted on the way; its top lies in the first.
inline Made makeTree(const std::vector<const Segment*>& segments, unsigned nodes, Random& random) {
  static const HdmModuleRecord_t modules[] = {module("/a"), module("/bb"), module("/ccc")};
  std::vector<Made> made;
  for (uint64_t tag = 1; made.size() < nodes; ++tag) {
    const Made* parent = made.empty() ? nullptr : &made[pick(random, 0, made.size() - 1)];
    if (parent) {
      const ExportSlot_t& list = parent->node->exportTable[slotOf(TREL_EXPORT_DEPENDENT)];
      if (list.used + kIdRoom + sizeof(SNodeInfo_t) > list.size) continue;  // full
    }
    const NodePlan plan = anySpec(random);
    const Text id = "n" + std::to_string(tag) + Text(pick(random, 0, 9), 'x');
    Made child = makeNode(*segments[parent ? pick(random, 0, segments.size() - 1) : 0], plan, tag,
                          id, parent, random() % 4 ? &modules[random() % 3] : nullptr);
    fillProperties(child.node, plan, random);
    for (unsigned beats = random() % 4; beats; --beats)
      EXPECT_EQ(0u, trelUpdateNodeStatus(child.node));
    if (parent && random() % 6 == 0) {
      EXPECT_EQ(0u, trelDisassociateNode(&child.node));
    }
    if (parent && random() % 6 == 0) {
      const SNodeInfo_t name = {0, tag, id.size(), 0, 0, 0, 0};
      EXPECT_EQ(0u, trelDeleteDependentNode(parent->node, &name, bytes(id), 0));
      continue;  // what hangs below nothing
    }
    made.push_back(child);
  }
  return made[0];
}

// Two nodes below a top, properties, a module.
inline SNodeCB_t* smallTree(const Segment& segment) {
  const HdmModuleRecord_t served = module("/served");
  const NodePlan plan{kBare | TREL_EXPORT_R, 2, {{TREL_EXPORT_R, {2}}}};
  const Made top = makeNode(segment, plan, 1, "top", nullptr);
  const Made child = makeNode(segment, plan, 2, "child", &top, &served);
  const Made last = makeNode(segment, plan, 3, "last", &child);
  for (const Made& made : {top, child, last}) {
    EXPECT_EQ(0u, (Api{made.node, TREL_EXPORT_R}.create({2})));
    EXPECT_EQ(0u, trelAddRProperty(made.node, 7, 70, 0));
  }
  return top.node;
}

// A call of the tree copy, and what came of it. The new segment is deleted at the end.
struct TreeCopy {
  SNodeCB_t* top = nullptr;
  ShmSegInfo_t** source = nullptr;
  const PLATIPCResID* key = nullptr;
  uint32_t method = TREL_TREE_COPY_DIRECT;
  uint32_t flags = TREL_TREE_COPY_ALL, limits = TREL_COPY_LIMITS_KEEP, size = 0x1000000;
  uint64_t maxDepth = 0;
  uint32_t poolSize = 0;
  SNodeCB_t* newTop = nullptr;
  ShmSegInfo_t* dst = nullptr;
  uint64_t bytes = 0;

  uint32_t run() {
    return trelCopyTreeIntoSingleShmSegment(top, &newTop, source, &dst, size, key, 0, poolSize,
                                            nullptr, nullptr, flags, method, limits, maxDepth,
                                            &bytes);
  }
  ~TreeCopy() {
    if (dst) {
      EXPECT_EQ(0u, trelDeleteStatusSegment(&dst, 4, 2, 2));
    }
  }
};

// ---- Pictures --------------------------------------------------------------------------------

// All of a node that a copy is to have, by name and value; where it lies and how it is laid out is
// no part of it.
inline Text pictureOf(SNodeCB_t* node, bool freshCopy = false) {
  std::ostringstream out;
  out << "exports " << node->exports << " options " << node->optionWord0 << ' ' << node->optionWord1
      << ' ' << node->optionWord2 << ' ' << node->optionWord5 << " tag " << node->tag << " eyes "
      << node->eyeCatcher1 << ' ' << node->eyeCatcher2 << " beat " << node->updateMode << ' '
      << node->updateInterval << ' ' << node->lastUpdateTime << " condition " << node->condition
      << " model " << node->concurrencyModel;
  for (auto* counter : {&node->updateCounter, &node->spareCounter1, &node->spareCounter2})
    out << ' ' << *PLATVAtomicSigned32::word(counter);
  for (uint32_t bit = TREL_EXPORT_ID; bit <= TREL_EXPORT_CHANGE_LIST; bit *= 2) {
    if (!(node->exports & bit)) continue;
    const ExportSlot_t& slot = node->exportTable[slotOf(bit)];
    const uint8_t* section = reinterpret_cast<uint8_t*>(node) + slot.offset;
    const TrelU64* words = reinterpret_cast<const TrelU64*>(section);
    out << "\n" << bit << ": ";
    if (slot.used == 0) {
      out << "empty " << slot.size;
    } else if (bit == TREL_EXPORT_PARENT) {
      out << words[0] << ' ' << words[2] << ' ' << Text(section + 64, section + slot.used);
    } else if (bit == TREL_EXPORT_BASE_R) {
      uint64_t tag = 0;
      int32_t value = 0;
      EXPECT_EQ(0u, trelReturnBaseRProperty(node, &tag, 0));
      EXPECT_EQ(0u, trelGetValueForBaseRProperty(node, tag, &value, 0));
      out << tag << ' ' << value;
    } else if (bit == TREL_EXPORT_BASE_V) {
      uint64_t tag = 0, size = 0;
      uint8_t* place = nullptr;
      EXPECT_EQ(0u, trelReturnBaseVProperty(node, &tag, &size, 0));
      EXPECT_EQ(0u, trelGetValueForBaseVProperty(node, tag, &size, &place, nullptr, 0));
      out << words[0] << ' ' << tag << ' ' << Text(place, place + size);
    } else if (std::count(kKinds, kKinds + 4, bit)) {
      const Section list(node, bit);
      // Without a latch the areas of properties are not made ready.
      if (node->concurrencyModel == 1 || list.error != "propertyLatchArea") {
        EXPECT_EQ("", list.error);
      }
      EXPECT_TRUE(!freshCopy || list.freed == 0);
      out << list.idMax << ' ' << list.valueMax << ' ' << (list.tables[0] != 0) << ' '
          << list.tables[1] << ' ' << list.tables[2];
      for (const auto& [name, content] : list.properties) {
        EXPECT_TRUE(!freshCopy || content.rc == 0);
        out << "\n  " << name.tag << ' ' << name.id << " = " << content.value;
      }
    } else if (bit == TREL_EXPORT_DEPENDENT) {
      out << words[0];
    } else {
      out << Text(section + (bit == TREL_EXPORT_CHANGE_LIST ? 8 : 0), section + slot.used);
    }
  }
  return out.str();
}

struct TreePicture {
  Text text;
  std::vector<SNodeCB_t*> nodes;
  std::vector<uint64_t> sizes;  // of all sections in use
  uint64_t bytes = 0;

  explicit TreePicture(SNodeCB_t* top, bool freshCopy = false) { draw(top, freshCopy, ""); }

 private:
  // A node and all below it, in the order of their entries, with the modules that serve them.
  void draw(SNodeCB_t* node, bool freshCopy, const Text& indent) {
    text += indent + pictureOf(node, freshCopy) + "\n";
    nodes.push_back(node);
    bytes += node->nodeSize;
    for (uint64_t i = 0; i < 12; ++i)
      if (i == 10 || node->exports >> (i + 1) & 1) sizes.push_back(+node->exportTable[i].size);
    if (!(node->exports & TREL_EXPORT_DEPENDENT)) return;
    SNodeInfo_t* entry = nullptr;
    uint64_t live = 0, room = 0;
    ExportSlot_t* slot = &node->exportTable[slotOf(TREL_EXPORT_DEPENDENT)];
    EXPECT_EQ(0u, trelGetDependentNodesLocation(node, &entry, &live, &room));
    while (live) {
      if (entry->nodeTag) {
        const auto* served = reinterpret_cast<HdmModuleRecord_t*>(
            reinterpret_cast<uintptr_t>(entry) - static_cast<uintptr_t>(entry->selfOffset) +
            static_cast<uintptr_t>(entry->hdmInfoOffset));
        text += indent + "-> " + std::to_string(entry->nodeTag) + ' ' +
                Text(reinterpret_cast<char*>(entry + 1), entry->idSize) + ' ' + served->modulePath +
                std::to_string(served->rest[31]) + "\n";
        SNodeCB_t* child = nullptr;
        const uint32_t rc = trelAttachToNode(entry, &child);
        ASSERT_TRUE(child) << rc;
        draw(child, freshCopy, indent + "  ");
        if (--live == 0) return;
      }
      ASSERT_EQ(0u, trelGetNextDependentNodeLocation(node, slot, &entry));
    }
  }
};

}  // namespace copies
