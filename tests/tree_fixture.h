// Nodes that can stand in a tree, and the records that make them one.
#pragma once

#include "section_walker.h"
#include "segment_fixture.h"

using walker::bytes;

constexpr uint64_t kIdRoom = 24;  // for the names of nodes, in all of a tree

// A node with identifier, parent, list of dependents and wishes; active.
inline SNodeCB_t* makeNode(const Segment& in, uint64_t tag, const std::string& id,
                           uint64_t places) {
  SNodeCB_t* node = in.makeActive(
      TREL_EXPORT_ID | TREL_EXPORT_PARENT | TREL_EXPORT_CHANGE_LIST,
      {16 + kIdRoom, 0, 0, 64 + kIdRoom, 0, 0, 0, 0, 0, 0, 8 + places * (56 + kIdRoom) + 3, 240},
      tag, id);
  if (places) {
    EXPECT_EQ(0u, trelCreateDependentNodeList(node, nullptr, nullptr, nullptr, kIdRoom, 0, 0));
  }
  return node;
}

template <class Header>
Header* sectionOf(SNodeCB_t* node, uint32_t bit) {
  return reinterpret_cast<Header*>(reinterpret_cast<uint8_t*>(node) +
                                   node->exportTable[walker::slotOf(bit)].offset);
}

inline std::string idOf(SNodeCB_t* node) {
  const auto* section = sectionOf<IdSection_t>(node, TREL_EXPORT_ID);
  return std::string(reinterpret_cast<const char*>(section + 1), section->idSize);
}

// Live dependents and room for them.
using Count = std::pair<uint64_t, uint64_t>;
inline Count dependentsOf(SNodeCB_t* node) {
  Count count;
  EXPECT_EQ(0u, trelReturnNumberOfDependentNodes(node, &count.first, &count.second, 0));
  return count;
}

// A record of a node, to be stored in another node of `where`.
inline SNodeInfo_t recordOf(const Segment& where, SNodeCB_t* node, const Segment& of,
                            const HdmModuleRecord_t* served = nullptr) {
  SNodeInfo_t record;
  EXPECT_EQ(0u, trelAddStatusNodeInfo(&record, where.info, of.info, node->nodeOffset, node->tag,
                                      idOf(node).size(), nullptr, served));
  return record;
}

// Makes the child a dependent of the parent, and tells the child.
inline uint32_t adopt(const Segment& home, SNodeCB_t* parent, const Segment& of, SNodeCB_t* child,
                      const HdmModuleRecord_t* served = nullptr) {
  SNodeInfo_t down = recordOf(home, child, of, served), up = recordOf(of, parent, home, served);
  const std::string id = idOf(child), parentId = idOf(parent);
  if (const uint32_t rc = trelAddDependentNode(parent, &down, bytes(id), id.size(), 0, 0))
    return rc;
  const uint32_t condition = child->condition;
  child->condition = TREL_CONDITION_ACTIVE;
  EXPECT_EQ(0u, trelAddParentNode(child, &up, parentId.size(), bytes(parentId)));
  child->condition = condition;
  return 0;
}

inline uint64_t reconfigurations(SNodeCB_t* node) {
  uint64_t count = 0;
  EXPECT_EQ(0u, trelGetNodeReconfigCounter(node, &count));
  return count;
}
