// Nodes and trees with random content, and pictures of them to compare copies by.
#pragma once

#include <random>
#include <sstream>

#include "section_walker.h"
#include "segment_fixture.h"

namespace copies {

using Random = std::mt19937;
using Bytes = std::string;

constexpr uint64_t kIdRoom = 24;  // for the names of nodes, in all of a tree
constexpr uint32_t kLists[] = {TREL_EXPORT_R, TREL_EXPORT_V, TREL_EXPORT_IR, TREL_EXPORT_IV};

inline bool hasId(uint32_t bit) { return bit & (TREL_EXPORT_IR | TREL_EXPORT_IV); }
inline bool hasBytes(uint32_t bit) { return bit & (TREL_EXPORT_V | TREL_EXPORT_IV); }
inline const uint8_t* bytesOf(const Bytes& s) { return reinterpret_cast<const uint8_t*>(s.data()); }
inline int slotOf(uint32_t bit) { return __builtin_ctz(bit) - 1; }

inline uint64_t pick(Random& random, uint64_t least, uint64_t most) {
  return std::uniform_int_distribution<uint64_t>(least, most)(random);
}
inline Bytes anyBytes(Random& random, uint64_t size) {
  Bytes bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}
inline HdmModuleRecord_t module(const Bytes& path) {
  HdmModuleRecord_t record = {};
  memcpy(record.modulePath, path.data(), path.size());
  record.rest[31] = 7;
  return record;
}

// ---- What a node is made with ----------------------------------------------------------------

struct ListSpec {
  uint64_t maximum = 0, hashed = 0, maxId = 0, maxValue = 8, tagTable = 3, idTable = 5;
};

struct NodeSpec {
  uint64_t exports = 0;
  std::map<uint32_t, ListSpec> lists = {};
  uint64_t baseValueMax = 8, dependents = 0, idRoom = kIdRoom;
  std::map<int, uint64_t> more = {};  // bytes added to a slot
};

// The sections that the library works out for such a node.
inline uint64_t sizesOf(const NodeSpec& spec, std::array<uint64_t, 64>* sizes) {
  auto list = [&](uint32_t bit) {
    const auto found = spec.lists.find(bit);
    return found == spec.lists.end() ? ListSpec{} : found->second;
  };
  const ListSpec r = list(TREL_EXPORT_R), v = list(TREL_EXPORT_V), ir = list(TREL_EXPORT_IR),
                 iv = list(TREL_EXPORT_IV);
  uint64_t total = 0;
  EXPECT_EQ(0u, trelCreateMaxSpaceArray(
                    spec.exports, r.maximum, r.hashed, v.maximum,
                    std::max(v.maxValue, spec.baseValueMax), v.hashed, ir.maximum, ir.tagTable,
                    ir.idTable, ir.maxId, ir.hashed, iv.maximum, iv.tagTable, iv.idTable, iv.maxId,
                    iv.maxValue, iv.hashed, spec.idRoom, spec.dependents, sizes->data(), &total));
  for (const auto& [slot, bytes] : spec.more) (*sizes)[slot] += bytes;
  return total;
}

inline uint32_t createList(SNodeCB_t* node, uint32_t bit, const ListSpec& s) {
  switch (bit) {
    case TREL_EXPORT_R:
      return trelCreateRPropertyList(node, nullptr, nullptr, 0, s.maximum, s.hashed, 0);
    case TREL_EXPORT_V:
      return trelCreateVPropertyList(node, nullptr, nullptr, nullptr, s.maxValue, 0, s.maximum,
                                     s.hashed, 0);
    case TREL_EXPORT_IR:
      return trelCreateIRPropertyList(node, nullptr, nullptr, nullptr, nullptr, s.maxId, 0,
                                      s.tagTable, s.idTable, s.maximum, s.hashed, 0);
    default:
      return trelCreateIVPropertyList(node, nullptr, nullptr, nullptr, s.maxId, nullptr, nullptr,
                                      s.maxValue, 0, s.tagTable, s.idTable, s.maximum, s.hashed, 0);
  }
}

inline uint32_t addProperty(SNodeCB_t* node, uint32_t bit, uint64_t tag, const Bytes& id,
                            const Bytes& value) {
  int32_t number = 0;
  memcpy(&number, value.data(), std::min<size_t>(4, value.size()));
  switch (bit) {
    case TREL_EXPORT_R:
      return trelAddRProperty(node, tag, number, 0);
    case TREL_EXPORT_V:
      return trelAddVProperty(node, tag, value.size(), bytesOf(value), 0);
    case TREL_EXPORT_IR:
      return trelAddIRProperty(node, tag, id.size(), bytesOf(id), number, 0);
    default:
      return trelAddIVProperty(node, tag, id.size(), bytesOf(id), value.size(), bytesOf(value), 0);
  }
}

inline uint32_t deleteProperty(SNodeCB_t* node, uint32_t bit, uint64_t tag, const Bytes& id) {
  switch (bit) {
    case TREL_EXPORT_R:
      return trelDeleteRProperty(node, tag, 0);
    case TREL_EXPORT_V:
      return trelDeleteVProperty(node, tag, 0);
    case TREL_EXPORT_IR:
      return trelDeleteIRProperty(node, tag, id.size(), bytesOf(id), 0);
    default:
      return trelDeleteIVProperty(node, tag, id.size(), bytesOf(id), 0);
  }
}

inline NodeSpec anySpec(Random& random) {
  NodeSpec spec;
  spec.exports = TREL_EXPORT_ID | TREL_EXPORT_PARENT | TREL_EXPORT_DEPENDENT |
                 (random() & (TREL_EXPORT_RECORD24 | TREL_EXPORT_HDM_MODULE | TREL_EXPORT_BASE_R |
                              TREL_EXPORT_BASE_V | TREL_EXPORT_CHANGE_LIST | TREL_EXPORT_R |
                              TREL_EXPORT_V | TREL_EXPORT_IR | TREL_EXPORT_IV));
  for (uint32_t bit : kLists)
    spec.lists[bit] = {pick(random, 0, 12), pick(random, 0, 1), pick(random, 0, 20),
                       pick(random, 1, 50), pick(random, 0, 9), pick(random, 0, 9)};
  auto& ir = spec.lists[TREL_EXPORT_IR];  // one bucket does not fit the size worked out for it
  ir.maximum = std::max<uint64_t>(ir.maximum, 2 * ir.hashed);
  spec.baseValueMax = pick(random, 1, 60);
  spec.dependents = pick(random, 6, 9);
  for (int slot : {1, 4, 6, 8}) spec.more[slot] = pick(random, 0, 9);  // odd places behind them
  return spec;
}

// Fills an active node's properties, adding more than will stay.
inline void fillProperties(SNodeCB_t* node, const NodeSpec& spec, Random& random) {
  for (const auto& [bit, list] : spec.lists) {
    if (!(spec.exports & bit)) continue;
    EXPECT_EQ(0u, createList(node, bit, list));
    for (int round = 0; round < 20; ++round) {
      const uint64_t tag = pick(random, 1, 15);
      const Bytes id =
          hasId(bit) ? anyBytes(random, pick(random, 0, (list.maxId + 7) / 8 * 8)) : "";
      const Bytes value = anyBytes(random, hasBytes(bit) ? pick(random, 1, list.maxValue) : 4);
      // A delete may be refused, for want of room on the stack or of an identifier.
      if (addProperty(node, bit, tag, id, value) == 0 && random() % 3 == 0) {
        deleteProperty(node, bit, tag, id);
      }
    }
  }
  if (spec.exports & TREL_EXPORT_BASE_R) {
    EXPECT_EQ(0u, trelCreateBaseRProperty(node, 77, static_cast<int32_t>(random()), 0));
  }
  if (spec.exports & TREL_EXPORT_BASE_V) {
    const Bytes value = anyBytes(random, pick(random, 1, spec.baseValueMax));
    EXPECT_EQ(
        0u, trelCreateBaseVProperty(node, 78, bytesOf(value), value.size(), spec.baseValueMax, 0));
  }
}

// ---- Trees -----------------------------------------------------------------------------------

// A node of a tree, with the segment in which it lies, null for process memory.
struct Made {
  SNodeCB_t* node = nullptr;
  const Segment* segment = nullptr;
};

// Makes a node and hangs it below a parent of the same or another segment.
inline Made makeNode(const Segment& segment, const NodeSpec& spec, uint64_t tag, const Bytes& id,
                     const Made* parent, const HdmModuleRecord_t* served = nullptr) {
  Made made{nullptr, &segment};
  std::array<uint64_t, 64> sizes{};
  sizesOf(spec, &sizes);
  uint64_t size = 0, offset = 0;
  EXPECT_EQ(0u,
            trelCreateNode(segment.info, &made.node, spec.exports, sizes.data(), &size, &offset));
  SNodeInfo_t up = {};
  Bytes parentId;
  if (parent) {
    uint8_t* bytes = nullptr;
    uint64_t idSize = 0;
    EXPECT_EQ(0u, trelGetNodeID(parent->node, &bytes, &idSize, 0));
    parentId.assign(reinterpret_cast<char*>(bytes), idSize);
    EXPECT_EQ(0u, trelAddStatusNodeInfo(&up, segment.info, parent->segment->info,
                                        parent->node->nodeOffset, parent->node->tag, idSize,
                                        nullptr, served));
  }
  const uint8_t record24[24] = {1, 2, 3};
  const HdmModuleRecord_t own = module("/own");
  NodeOptions_t options = {};
  options.optionWord1 = 11, options.optionWord2 = 12, options.optionWord5 = 15;
  options.updateInterval = 345;
  EXPECT_EQ(0u, trelInitNode(&made.node, offset, id.size(), bytesOf(id), &up, bytesOf(parentId),
                             spec.idRoom, record24, &own, &options));
  EXPECT_EQ(0u, trelSetNodeTag(made.node, tag, 0));
  EXPECT_EQ(0u, trelActivateNode(&made.node));
  if (spec.exports & TREL_EXPORT_DEPENDENT) {
    EXPECT_EQ(0u,
              trelCreateDependentNodeList(made.node, nullptr, nullptr, nullptr, spec.idRoom, 0, 0));
  }
  if (parent) {
    SNodeInfo_t down = {};
    EXPECT_EQ(0u, trelAddStatusNodeInfo(&down, parent->segment->info, segment.info, offset, tag,
                                        id.size(), nullptr, served));
    EXPECT_EQ(0u, trelAddDependentNode(parent->node, &down, bytesOf(id), id.size(), 0, 0));
  }
  return made;
}

// A random tree over the segments, with entries deleted on the way; its top lies in the first.
inline Made makeTree(const std::vector<const Segment*>& segments, unsigned nodes, Random& random) {
  static const HdmModuleRecord_t modules[] = {module("/a"), module("/bb"), module("/ccc")};
  std::vector<Made> made;
  uint64_t tags = 1;
  NodeSpec spec = anySpec(random);
  made.push_back(makeNode(*segments[0], spec, 1, "top", nullptr));
  fillProperties(made[0].node, spec, random);
  while (made.size() < nodes) {
    const Made& parent = made[pick(random, 0, made.size() - 1)];
    const ExportSlot_t& list = parent.node->exportTable[slotOf(TREL_EXPORT_DEPENDENT)];
    if (list.used + kIdRoom + sizeof(SNodeInfo_t) > list.size) continue;  // full
    spec = anySpec(random);
    const uint64_t tag = ++tags;
    const Bytes id = "n" + std::to_string(tag) + Bytes(pick(random, 0, 9), 'x');
    const Segment& segment = *segments[pick(random, 0, segments.size() - 1)];
    const Made child =
        makeNode(segment, spec, tag, id, &parent, random() % 4 ? &modules[random() % 3] : nullptr);
    fillProperties(child.node, spec, random);
    for (unsigned beats = random() % 4; beats; --beats)
      EXPECT_EQ(0u, trelUpdateNodeStatus(child.node));
    if (random() % 6 == 0) {
      EXPECT_EQ(0u, trelDisassociateNode(const_cast<SNodeCB_t**>(&child.node)));
    }
    if (random() % 6 == 0) {
      const SNodeInfo_t name = {0, tag, id.size(), 0, 0, 0, 0};
      EXPECT_EQ(0u, trelDeleteDependentNode(parent.node, &name, bytesOf(id), 0));
      continue;  // what hangs below nothing
    }
    made.push_back(child);
  }
  return made[0];
}

// A call of the tree copy, and what came of it. The new segment is deleted at the end.
struct TreeCopy {
  SNodeCB_t* top = nullptr;
  ShmSegInfo_t** source = nullptr;
  const PLATIPCResID* key = nullptr;
  uint32_t method = TREL_TREE_COPY_DIRECT;
  uint32_t flags = TREL_TREE_COPY_ALL, limits = TREL_COPY_LIMITS_KEEP, size = 0x1000000;
  uint64_t maxDepth = 0;
  SNodeCB_t* newTop = nullptr;
  ShmSegInfo_t* dst = nullptr;
  uint64_t bytes = 0;

  uint32_t run() {
    return trelCopyTreeIntoSingleShmSegment(top, &newTop, source, &dst, size, key, 0, 0, nullptr,
                                            nullptr, flags, method, limits, maxDepth, &bytes);
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
inline Bytes pictureOf(SNodeCB_t* node, bool freshCopy = false) {
  std::ostringstream out;
  const auto section = [&](uint32_t bit, uint64_t position) {
    return reinterpret_cast<uint8_t*>(node) + node->exportTable[slotOf(bit)].offset + position;
  };
  const auto word = [&](uint32_t bit, uint64_t position) {
    uint64_t value;
    memcpy(&value, section(bit, position), 8);
    return value;
  };
  const auto used = [&](uint32_t bit) { return uint64_t{node->exportTable[slotOf(bit)].used}; };
  const auto bytes = [&](uint32_t bit, uint64_t position, uint64_t size) {
    return Bytes(reinterpret_cast<char*>(section(bit, position)), size);
  };
  out << "exports " << node->exports << " options " << node->optionWord0 << ' ' << node->optionWord1
      << ' ' << node->optionWord2 << ' ' << node->optionWord5 << " tag " << node->tag << " eyes "
      << node->eyeCatcher1 << ' ' << node->eyeCatcher2 << " beat " << node->updateMode << ' '
      << node->updateInterval << ' ' << node->lastUpdateTime << " condition " << node->condition
      << " model " << node->concurrencyModel;
  for (auto* counter : {&node->updateCounter, &node->spareCounter1, &node->spareCounter2})
    out << ' ' << *PLATVAtomicSigned32::word(counter);
  for (uint32_t bit = 2; bit <= TREL_EXPORT_CHANGE_LIST; bit *= 2) {
    if (!(node->exports & bit)) continue;
    out << "\n" << bit << ": ";
    if (used(bit) == 0) {
      out << "empty " << node->exportTable[slotOf(bit)].size;
      continue;
    }
    switch (bit) {
      case TREL_EXPORT_ID:
        out << word(bit, 0) << ' ' << bytes(bit, 16, word(bit, 8)) << ' ' << used(bit);
        break;
      case TREL_EXPORT_PARENT:
        out << word(bit, 0) << ' ' << word(bit, 16) << ' ' << bytes(bit, 64, word(bit, 24)) << ' '
            << used(bit);
        break;
      case TREL_EXPORT_BASE_R:
      case TREL_EXPORT_BASE_V: {
        uint64_t tag = 0, size = 4;
        int32_t value = 0;
        uint8_t* place = reinterpret_cast<uint8_t*>(&value);
        if (bit == TREL_EXPORT_BASE_R) {
          EXPECT_EQ(0u, trelReturnBaseRProperty(node, &tag, 0));
          EXPECT_EQ(0u, trelGetValueForBaseRProperty(node, tag, &value, 0));
        } else {
          EXPECT_EQ(0u, trelReturnBaseVProperty(node, &tag, &size, 0));
          EXPECT_EQ(0u, trelGetValueForBaseVProperty(node, tag, &size, &place, nullptr, 0));
          out << word(bit, 0) << ' ';
        }
        out << tag << ' ' << Bytes(reinterpret_cast<char*>(place), size);
        break;
      }
      case TREL_EXPORT_R:
      case TREL_EXPORT_V:
      case TREL_EXPORT_IR:
      case TREL_EXPORT_IV: {
        const walker::Section list(node, bit);
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
        break;
      }
      case TREL_EXPORT_DEPENDENT:
        out << word(bit, 0);
        break;
      case TREL_EXPORT_CHANGE_LIST:
        out << bytes(bit, 8, 232);
        break;
      default:
        out << bytes(bit, 0, used(bit));
    }
  }
  return out.str();
}

struct TreePicture {
  Bytes text;
  uint64_t nodes = 0, bytes = 0;
};

// A node and all below it, in the order of their entries, with the modules that serve them.
inline void drawTree(SNodeCB_t* node, bool freshCopy, const Bytes& indent, TreePicture* picture) {
  picture->text += indent + pictureOf(node, freshCopy) + "\n";
  ++picture->nodes;
  picture->bytes += node->nodeSize;
  SNodeInfo_t* entry = nullptr;
  uint64_t live = 0, room = 0;
  ExportSlot_t* slot = &node->exportTable[slotOf(TREL_EXPORT_DEPENDENT)];
  if (node->exports & TREL_EXPORT_DEPENDENT) {
    EXPECT_EQ(0u, trelGetDependentNodesLocation(node, &entry, &live, &room));
  }
  for (uint64_t i = 0; i < live; ++i) {
    while (entry->nodeTag == 0) ASSERT_EQ(0u, trelGetNextDependentNodeLocation(node, slot, &entry));
    const auto* served = reinterpret_cast<HdmModuleRecord_t*>(
        reinterpret_cast<uintptr_t>(entry) - static_cast<uintptr_t>(entry->selfOffset) +
        static_cast<uintptr_t>(entry->hdmInfoOffset));
    picture->text += indent + "-> " + std::to_string(entry->nodeTag) + ' ' +
                     Bytes(reinterpret_cast<char*>(entry + 1), entry->idSize) + ' ' +
                     served->modulePath + std::to_string(served->rest[31]) + "\n";
    SNodeCB_t* child = nullptr;
    const uint32_t rc = trelAttachToNode(entry, &child);
    ASSERT_TRUE(child) << rc;
    drawTree(child, freshCopy, indent + "  ", picture);
    if (i + 1 < live) {
      ASSERT_EQ(0u, trelGetNextDependentNodeLocation(node, slot, &entry));
    }
  }
}
inline TreePicture pictureOfTree(SNodeCB_t* top, bool freshCopy = false) {
  TreePicture picture;
  drawTree(top, freshCopy, "", &picture);
  return picture;
}

}  // namespace copies
