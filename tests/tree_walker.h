// Rechecks a whole tree from its bytes alone: sections inside the node, nodes inside their segment,
// lists that agree with their counts, records of parents and children that agree with each other.
#pragma once

#include "tree_fixture.h"

class TreeWalker {
 public:
  // `segments` are all that the tree may reach into.
  explicit TreeWalker(const std::vector<ShmSegInfo_t*>& segments) {
    for (const ShmSegInfo_t* s : segments) {
      const auto base = reinterpret_cast<uintptr_t>(s->shmDomainHandle->base);
      segments_[s->identity.segmentKey.key] = {
          base, at<HeapHeader_t>(base, s->shmDomainHandle->heapOffset)->heapSize};
    }
  }

  // Nodes of the tree. Failures are reported to the running test.
  size_t walk(SNodeCB_t* top) {
    nodes_.clear();
    visit(top);
    return nodes_.size();
  }

 private:
  struct Memory {
    uintptr_t base;
    uint64_t size;
  };

  template <class T>
  static T* at(uintptr_t base, uint64_t offset) {
    return reinterpret_cast<T*>(base + static_cast<uintptr_t>(offset));
  }

  const Memory& around(const void* address) {
    const auto a = reinterpret_cast<uintptr_t>(address);
    for (const auto& [key, memory] : segments_)
      if (a >= memory.base && a < memory.base + memory.size) return memory;
    throw std::runtime_error("address in no segment");
  }

  SNodeCB_t* behind(const SNodeInfo_t& record) {
    const Memory& home = around(&record);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(&record) - home.base, +record.selfOffset);
    const auto* identity = at<SegIdentity_t>(home.base, record.segInfoOffset);
    const auto* module = at<HdmModuleRecord_t>(home.base, record.hdmInfoOffset);
    EXPECT_EQ(&home, &around(identity));
    EXPECT_EQ(&home, &around(module + 1));
    const Memory& target = segments_.at(identity->segmentKey.key);
    EXPECT_LE(record.nodeOffset + sizeof(SNodeCB_t), target.size);
    return at<SNodeCB_t>(target.base, record.nodeOffset);
  }

  void checkNode(SNodeCB_t* node) {
    const Memory& home = around(node);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(node) - home.base, +node->nodeOffset);
    EXPECT_LE(+node->nodeOffset + +node->nodeSize, home.size);
    uint64_t offset = sizeof(SNodeCB_t);
    for (const ExportSlot_t& slot : node->exportTable) {
      EXPECT_EQ(offset, +slot.offset);
      EXPECT_LE(+slot.used, +slot.size);
      offset += slot.size;
    }
    EXPECT_EQ(offset, +node->nodeSize);
  }

  void visit(SNodeCB_t* node) {
    ASSERT_TRUE(nodes_.insert(node).second) << "a node is reached twice";
    checkNode(node);
    const ExportSlot_t& slot = node->exportTable[10];
    if (!(node->exports & TREL_EXPORT_DEPENDENT) || slot.used < 8) return;
    const uintptr_t section = reinterpret_cast<uintptr_t>(node) + slot.offset;
    const uint64_t maxIdSize = at<IdSection_t>(section, 0)->maxIdSize,
                   stride = maxIdSize + sizeof(SNodeInfo_t);
    ASSERT_EQ(0u, maxIdSize % 8);
    std::set<std::pair<uint64_t, std::string>> names;
    for (uint64_t place = 8; maxIdSize && place + stride <= slot.size; place += stride) {
      const auto& entry = *at<SNodeInfo_t>(section, place);
      if (entry.nodeTag == 0) continue;
      ASSERT_LE(+entry.idSize, maxIdSize);
      const std::string id(reinterpret_cast<const char*>(&entry + 1), entry.idSize);
      EXPECT_TRUE(names.emplace(+entry.nodeTag, id).second) << "a name stands twice";
      SNodeCB_t* child = behind(entry);
      EXPECT_EQ(+entry.nodeTag, +child->tag);
      EXPECT_EQ(id, idOf(child));
      checkParent(child, node);
      visit(child);
    }
    EXPECT_EQ(+slot.used, 8 + names.size() * stride);
  }

  void checkParent(SNodeCB_t* child, SNodeCB_t* parent) {
    const ExportSlot_t& slot = child->exportTable[3];
    if (!(child->exports & TREL_EXPORT_PARENT) || slot.used < sizeof(ParentSection_t)) return;
    const auto* section = sectionOf<ParentSection_t>(child, TREL_EXPORT_PARENT);
    EXPECT_EQ(parent, behind(section->parent));
    EXPECT_EQ(+parent->tag, +section->parent.nodeTag);
    const auto* id = reinterpret_cast<const char*>(section + 1);
    EXPECT_EQ(idOf(parent), std::string(id, section->parent.idSize));
  }

  std::map<uint32_t, Memory> segments_;
  std::set<SNodeCB_t*> nodes_;
};
