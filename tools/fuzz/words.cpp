#include "words.h"

#include <algorithm>
#include <cstring>

namespace fuzz {
namespace {

struct Field {
  const char* name;
  uint64_t offset;
  uint64_t size;
};
#define FIELD(type, field) \
  { #field, offsetof(type, field), sizeof(type::field) }

const Field kHeapHeader[] = {
    FIELD(HeapHeader_t, heapVersion),        FIELD(HeapHeader_t, handleVersion),
    FIELD(HeapHeader_t, latchVersion),       FIELD(HeapHeader_t, heapState),
    FIELD(HeapHeader_t, heapFlags),          FIELD(HeapHeader_t, heapOffset),
    FIELD(HeapHeader_t, connectionCount),    FIELD(HeapHeader_t, heapSize),
    FIELD(HeapHeader_t, freeBytes),          FIELD(HeapHeader_t, allocatedBytes),
    FIELD(HeapHeader_t, requestedNodeCount), FIELD(HeapHeader_t, granularity),
    FIELD(HeapHeader_t, heapLatch),          FIELD(HeapHeader_t, topPool),
    FIELD(HeapHeader_t, userAreaSize),
};
const Field kHeapTail[] = {FIELD(HeapHeaderTail_t, words), FIELD(HeapHeaderTail_t, reserved),
                           FIELD(HeapHeaderTail_t, debug), FIELD(HeapHeaderTail_t, debugLatch)};
const Field kSkipListHeader[] = {
    FIELD(SkipListHeader_t, maxLevel),       FIELD(SkipListHeader_t, slSpaceSize),
    FIELD(SkipListHeader_t, slUsedBytes),    FIELD(SkipListHeader_t, slNextNode),
    FIELD(SkipListHeader_t, allocNodeCount), FIELD(SkipListHeader_t, freeNodeCount),
    FIELD(SkipListHeader_t, rebuildCount),   FIELD(SkipListHeader_t, allocListLevel),
    FIELD(SkipListHeader_t, allocHead),
};
const Field kAllocNode[] = {
    FIELD(AllocNode_t, blockOffset), FIELD(AllocNode_t, blockSize),
    FIELD(AllocNode_t, dataOffset),  FIELD(AllocNode_t, requestedSize),
    FIELD(AllocNode_t, level),       FIELD(AllocNode_t, callerFunction),
};
const Field kFreeNode[] = {FIELD(FreeNode_t, blockOffset), FIELD(FreeNode_t, blockSize),
                           FIELD(FreeNode_t, reserved), FIELD(FreeNode_t, level)};
const Field kPadTail[] = {FIELD(PadTail_t, nodeOffset), FIELD(PadTail_t, magic),
                          FIELD(PadTail_t, mode)};
const Field kPadRecord[] = {FIELD(PadBlockRecord_t, line), FIELD(PadBlockRecord_t, function),
                            FIELD(PadBlockRecord_t, frontPadWords),
                            FIELD(PadBlockRecord_t, backPadWords)};
const Field kNode[] = {
    FIELD(SNodeCB_t, optionWord0),
    FIELD(SNodeCB_t, optionWord2),
    FIELD(SNodeCB_t, tag),
    FIELD(SNodeCB_t, nodeOffset),
    FIELD(SNodeCB_t, nodeSize),
    FIELD(SNodeCB_t, exports),
    FIELD(SNodeCB_t, eyeCatcher1),
    FIELD(SNodeCB_t, eyeCatcher2),
    FIELD(SNodeCB_t, updateMode),
    FIELD(SNodeCB_t, condition),
    FIELD(SNodeCB_t, updateInterval),
    FIELD(SNodeCB_t, lastUpdateTime),
    FIELD(SNodeCB_t, concurrencyModel),
};
const Field kSlot[] = {FIELD(ExportSlot_t, size), FIELD(ExportSlot_t, used),
                       FIELD(ExportSlot_t, offset)};
const Field kNodeInfo[] = {
    FIELD(SNodeInfo_t, nodeOffset),    FIELD(SNodeInfo_t, nodeTag),
    FIELD(SNodeInfo_t, idSize),        FIELD(SNodeInfo_t, selfOffset),
    FIELD(SNodeInfo_t, segInfoOffset), FIELD(SNodeInfo_t, hdmInfoOffset),
    FIELD(SNodeInfo_t, segBase),
};
const Field kR[] = {FIELD(RProperty_t, tag), FIELD(RProperty_t, rc)};
const Field kV[] = {FIELD(VProperty_t, tag), FIELD(VProperty_t, rc),
                    FIELD(VProperty_t, valueOffset), FIELD(VProperty_t, valueSize)};
const Field kIR[] = {FIELD(IRProperty_t, tag), FIELD(IRProperty_t, rc),
                     FIELD(IRProperty_t, idOffset), FIELD(IRProperty_t, idSize)};
const Field kIV[] = {FIELD(IVProperty_t, tag),         FIELD(IVProperty_t, rc),
                     FIELD(IVProperty_t, idOffset),    FIELD(IVProperty_t, idSize),
                     FIELD(IVProperty_t, valueOffset), FIELD(IVProperty_t, valueSize)};
const Field kSegListNode[] = {
    FIELD(SegListNode_t, nextOffset),
    {"accessMode", offsetof(SegListNode_t, identity.accessMode), 4},
    {"key", offsetof(SegListNode_t, identity.segmentKey.key), 4},
    {"connected", offsetof(SegListNode_t, identity.connected), 4},
};
const Field kHdmListNode[] = {FIELD(HdmListNode_t, nextOffset)};

// A kind of property list: the words of its header, how many of them are table sizes (the last),
// the links of a list node, the record.
struct ListKind {
  uint32_t bit;
  const char* name;
  uint64_t flatHeader, hashHeader, tables, links, record;
  bool hasId, hasValue;
  const Field* fields;
  size_t fieldCount;
};
const ListKind kListKinds[] = {
    {TREL_EXPORT_R, "R", 8, 8, 1, 8, sizeof(RProperty_t), false, false, kR, std::size(kR)},
    {TREL_EXPORT_V, "V", 16, 16, 1, 8, sizeof(VProperty_t), false, true, kV, std::size(kV)},
    {TREL_EXPORT_IR, "IR", 16, 32, 3, 40, sizeof(IRProperty_t), true, false, kIR, std::size(kIR)},
    {TREL_EXPORT_IV, "IV", 24, 40, 3, 40, sizeof(IVProperty_t), true, true, kIV, std::size(kIV)},
};
const char* const kSections[] = {"ID", "record24", "HDM", "parent", "baseR",      "baseV",
                                 "R",  "V",        "IR",  "IV",     "dependents", "changes"};

class Finder {
 public:
  Finder(const Image& image, const ImageMap& map) : image_(image), map_(map) {}

  Words find() {
    heap("domain", 0);
    heap("pool", map_.poolOffset);
    sharedLists();
    description();
    for (uint64_t at : map_.nodes) node(at);
    for (uint64_t at = 0; at + 8 <= image_.size(); at += 8) add("any", at, 8, 0, image_.size());
    return std::move(words_);
  }

 private:
  uint64_t u64(uint64_t at) const { return at + 8 <= image_.size() ? load(&image_[at], 8) : 0; }

  void add(const std::string& name, uint64_t at, uint32_t width, uint64_t origin, uint64_t bound) {
    if (at + width <= image_.size()) words_[name].push_back({at, width, origin, bound});
  }
  // A field of 4 or 8 bytes is a word; a larger one, such as a latch, is several.
  template <class Fields>
  void record(const std::string& name, uint64_t at, const Fields& fields, uint64_t origin,
              uint64_t bound) {
    for (const Field& field : fields) {
      const std::string full = name + "." + field.name;
      if (field.size <= 8)
        add(full, at + field.offset, static_cast<uint32_t>(field.size), origin, bound);
      for (uint64_t i = 0; field.size > 8 && i + 4 <= field.size; i += 4)
        add(full, at + field.offset + i, 4, origin, bound);
    }
  }

  void heap(const std::string& name, uint64_t h) {
    const uint64_t size = u64(h + offsetof(HeapHeader_t, heapSize));
    const uint64_t user = (u64(h + offsetof(HeapHeader_t, userAreaSize)) + 7) & ~uint64_t{7};
    const uint64_t s = h + TREL_HEAP_HEADER_SIZE + user, m = u64(s);
    record(name, h, kHeapHeader, 0, size);
    record(name, h + sizeof(HeapHeader_t) + user, kHeapTail, 0, size);
    record(name + ".lists", s, kSkipListHeader, 0, size);
    add(name + ".lists.freeListLevel", s + 112 + 8 * m, 8, 0, size);
    for (uint64_t i = 0; i < m; ++i) add(name + ".lists.allocHead", s + 112 + 8 * i, 8, 0, size);
    for (uint64_t i = 0; i < 2 * (48 + 32 * m); i += 8)
      add(name + ".lists.freeEnds", s + 120 + 8 * m + i, 8, 0, size);
    for (uint64_t slot = u64(s + 112); slot; slot = u64(slot)) block(name, slot - 48, size);
    const uint64_t tail = s + 168 + 40 * m;
    for (uint64_t at = u64(s + 168 + 8 * m); at != tail && at; at = u64(at + 48)) {
      record(name + ".free", at, kFreeNode, 0, size);
      for (uint64_t i = 0; i < 4 * (u64(at + 32) + 1); ++i)
        add(name + ".free.links", at + 48 + 8 * i, 8, 0, size);
    }
  }
  void block(const std::string& name, uint64_t at, uint64_t bound) {
    record(name + ".alloc", at, kAllocNode, 0, bound);
    for (uint64_t i = 0; i <= u64(at + 32); ++i)
      add(name + ".alloc.links", at + 48 + 8 * i, 8, 0, bound);
    const uint64_t data = u64(at + 16), end = u64(at) + u64(at + 8);
    record(name + ".pad.front", data - 16, kPadTail, 0, bound);
    record(name + ".pad.back", end - 16, kPadTail, 0, bound);
    record(name + ".pad.record", data - 40, kPadRecord, 0, bound);
  }

  void sharedLists() {
    const uint64_t tail = sizeof(HeapHeader_t), bound = image_.size();
    for (uint64_t at = u64(tail + 16); at; at = u64(at))
      record("segList", at, kSegListNode, 0, bound);
    for (uint64_t at = u64(tail + 24); at; at = u64(at))
      record("hdmList", at, kHdmListNode, 0, bound);
  }

  // All of a description's bytes are words.
  void description() {
    const uint64_t anchor = sizeof(HeapHeader_t) + offsetof(HeapHeaderTail_t, reserved);
    const uint64_t bound = image_.size(), publisher = u64(anchor + 16);
    for (uint64_t i = 0; i < sizeof(DescriptionAnchor_t); i += 8)
      add("description.anchor", anchor + i, 8, 0, bound);
    const uint64_t block = u64(anchor + 8 * (u64(anchor + 24) & 1));
    const uint64_t size = u64(block + 4) & UINT32_MAX, index = u64(block + 8) & UINT32_MAX;
    const uint64_t entries = sizeof(DescriptionBlock_t) + 4 * index;
    for (uint64_t i = 0; i < sizeof(DescriptionBlock_t); i += 4)
      add("description.block", block + i, 4, block, size);
    for (uint64_t i = sizeof(DescriptionBlock_t); i < entries; i += 4)
      add("description.index", block + i, 4, block, size);
    for (uint64_t i = entries; i < entries + (u64(block + 8) >> 32); i += 4)
      add("description.entry", block + i, 4, block, size);
    for (uint64_t i = 0; i < sizeof(PublisherRecord_t); i += 4)
      add("description.publisher", publisher + i, 4, 0, bound);
  }

  void latchArea(const std::string& name, uint64_t at, uint64_t origin, uint64_t bound) {
    add(name + ".latchVersion", at, 4, origin, bound);
    for (uint64_t i = 0; i < 2 * TREL_LATCH_CELL; i += 4)
      add(name + (i < TREL_LATCH_CELL ? ".primaryLatch" : ".spareLatch"), at + 4 + i, 4, origin,
          bound);
    counter(name + ".writeCounter", at + offsetof(LatchArea_t, writeCounter), origin, bound);
    counter(name + ".writeFlag", at + offsetof(LatchArea_t, writeFlag), origin, bound);
  }
  void counter(const std::string& name, uint64_t at, uint64_t origin, uint64_t bound) {
    add(name, (at + 3) & ~uint64_t{3}, 4, origin, bound);
  }

  void node(uint64_t at) {
    const uint64_t size = u64(at + offsetof(SNodeCB_t, nodeSize));
    record("node", at, kNode, at, size);
    counter("node.reconfigCounter", at + offsetof(SNodeCB_t, reconfigCounter), at, size);
    counter("node.updateCounter", at + offsetof(SNodeCB_t, updateCounter), at, size);
    latchArea("node.latch", at + offsetof(SNodeCB_t, nodeLatchArea), at, size);
    latchArea("node.spareLatch", at + offsetof(SNodeCB_t, spareLatchArea), at, size);
    const uint64_t table = at + offsetof(SNodeCB_t, exportTable);
    record("slot.unused", table + 20 * sizeof(ExportSlot_t), kSlot, at, size);
    for (size_t i = 0; i < std::size(kSections); ++i) {
      const uint64_t slot = table + i * sizeof(ExportSlot_t);
      record(std::string("slot.") + kSections[i], slot, kSlot, at, size);
      if (u64(slot + 8)) section(i, at, at + u64(slot + 16), u64(slot), u64(slot + 8));
    }
  }

  void section(size_t index, uint64_t node, uint64_t at, uint64_t size, uint64_t used) {
    const std::string name = std::string("section.") + kSections[index];
    const auto bit = static_cast<uint32_t>(2u << index);
    for (const ListKind& kind : kListKinds)
      if (kind.bit == bit) return list(name, kind, node, at, size, used);
    if (bit == TREL_EXPORT_DEPENDENT) return dependents(name, node, at, size);
    add(name + ".header", at, 8, node, size);
    add(name + ".header", at + 8, 8, node, size);
    if (bit == TREL_EXPORT_PARENT) record(name, at + 8, kNodeInfo, 0, image_.size());
    if (bit == TREL_EXPORT_BASE_R) record(name, at, kR, node, size);
    if (bit == TREL_EXPORT_BASE_V) record(name, at + 8, kV, node, size);
  }
  void dependents(const std::string& name, uint64_t node, uint64_t at, uint64_t size) {
    add(name + ".maxIdSize", at, 8, node, size);
    const uint64_t step = sizeof(SNodeInfo_t) + u64(at);
    for (uint64_t entry = at + 8; entry + step <= at + size; entry += step)
      record(name + ".entry", entry, kNodeInfo, 0, image_.size());
  }
  void list(const std::string& name, const ListKind& kind, uint64_t node, uint64_t at,
            uint64_t size, uint64_t used) {
    const uint64_t maxId = kind.hasId ? u64(at) : 0;
    const uint64_t maxValue = kind.hasValue ? u64(at + (kind.hasId ? 8 : 0)) : 0;
    const uint64_t hashed = u64(at + kind.flatHeader - 8);
    const uint64_t header = hashed ? kind.hashHeader : kind.flatHeader;
    const std::string full = name + (hashed ? ".hash" : ".flat");
    uint64_t buckets = 0;
    for (uint64_t i = 0; i < header; i += 8) add(full + ".header", at + i, 8, node, size);
    for (uint64_t i = 0; hashed && i < kind.tables; ++i) buckets += u64(at + header - 8 * (i + 1));
    for (uint64_t i = 0; i < buckets; ++i)
      add(full + ".bucket", at + header + 8 * i, 8, node, size);
    const uint64_t links = hashed ? kind.links : 0, step = links + kind.record + maxId + maxValue;
    const uint64_t end = hashed ? at + size - 16 : at + used;
    for (uint64_t place = at + header + 8 * buckets; place + step <= end; place += step) {
      for (uint64_t i = 0; i < links; i += 8) add(full + ".link", place + i, 8, node, size);
      record(full + ".record", place + links,
             std::vector<Field>(kind.fields, kind.fields + kind.fieldCount), node, size);
    }
    if (!hashed) return;
    for (uint64_t i = 8; i <= 32; i += 8) add(full + ".anchor", at + size - i, 8, node, size);
  }

  const Image& image_;
  const ImageMap& map_;
  Words words_;
};

}  // namespace

uint64_t load(const void* place, uint32_t width) {
  uint64_t value = 0;
  memcpy(&value, place, width);
  return value;
}
void store(void* place, uint32_t width, uint64_t value) { memcpy(place, &value, width); }

Words findWords(const Image& image, const ImageMap& map) { return Finder(image, map).find(); }

}  // namespace fuzz
