// From an export bit to a section of a node.
#pragma once

#include "trelshm/bytes.h"
#include "trelshm/flow.h"
#include "trelshm/mapping.h"
#include "trelshm/store.h"

namespace trel {

constexpr uint32_t kReachableSlots = 12;

// n for export bit 2^n: the lowest bit set, bit 0 passed over; 0 if there is none.
constexpr uint32_t bitNumber(uint32_t exportBit) {
  return (exportBit & ~1u) ? static_cast<uint32_t>(__builtin_ctz(exportBit & ~1u)) : 0;
}

// The place of a section's slot in the export table.
constexpr uint32_t slotNumber(uint32_t exportBit) { return bitNumber(exportBit) - 1; }

// A section as its slot described it when it was read, once. Whatever is reached by an offset that
// was found in the section is tested against this, start and end, before it is touched; so neither
// damaged bytes nor a slot that others change lead outside.
struct Section {
  SNodeCB_t* node = nullptr;
  uint64_t offset = 0, size = 0;  // from the node's start
  uint64_t used = 0;

  // Whether `bytes` bytes at an offset from the node's start lie in the section.
  bool holds(uint64_t from, uint64_t bytes) const {
    const uint64_t position = from - offset;
    return position <= size && size - position >= bytes;
  }
  // What lies at a position of the section.
  template <class T = uint8_t>
  T* at(uint64_t position = 0) const {
    return trel::at<T>(node, offset + position);
  }
};

// The code by which a slot that failed a test is refused.
inline uint32_t refusalOf(const Section& section) {
  if (section.offset == 0) return TREL_RC_SLOT_OFFSET;
  return section.used > section.size ? TREL_RC_SLOT_USED : TREL_RC_SLOT_SIZE;
}

// The tests of trelGetPExportPointer. *slot is written as soon as the bit is known to be good.
TREL_INLINE uint32_t readSlot(SNodeCB_t* node, uint32_t exportBit, ExportSlot_t** slot,
                              Section* section) {
  const uint32_t n = bitNumber(exportBit);
  if (n == 0 || n > kReachableSlots) return TREL_RC_EXPORT_BIT;
  *slot = &node->exportTable[n - 1];
  *section = {node, once((*slot)->offset), once((*slot)->size), once((*slot)->used)};
  const bool sound = section->offset != 0 && section->used <= section->size &&
                     section->size <= TREL_MAX_SECTION_SIZE;
  return TREL_LIKELY(sound) ? 0 : refusalOf(*section);
}

// For an operation that is going to touch the section: it must also lie behind the node's header,
// in the node, and in what is mapped. A walk that holds no latch gives the node's size as it has
// tested it.
TREL_INLINE uint32_t openSection(SNodeCB_t* node, uint32_t exportBit, Section* section,
                                 uint64_t nodeSize) {
  const uint32_t n = bitNumber(exportBit);
  if (n == 0 || n > kReachableSlots) return TREL_RC_EXPORT_BIT;
  const ExportSlot_t& slot = node->exportTable[n - 1];
  const Section found = {node, once(slot.offset), once(slot.size), once(slot.used)};
  *section = found;
  const uint64_t mapped = bytesMappedFrom(node);
  const uint64_t bound = nodeSize < mapped ? nodeSize : mapped;
  // An offset of 0 lies in front of the header, too: one test for both.
  if (TREL_LIKELY(found.offset - sizeof(SNodeCB_t) <= TREL_MAX_NODE_SIZE &&
                  found.used <= found.size && found.size <= TREL_MAX_SECTION_SIZE &&
                  found.offset + found.size <= bound))
    return 0;
  return refusalOf(found);
}

TREL_INLINE uint32_t openSection(SNodeCB_t* node, uint32_t exportBit, Section* section) {
  return openSection(node, exportBit, section, once(node->nodeSize));
}

// Says how much of the section is in use, by a store that commits. The caller is inside the node's
// write section.
inline void storeUsed(Section* section, uint32_t exportBit, uint64_t used) {
  section->used = used;
  storeLast(&section->node->exportTable[slotNumber(exportBit)].used, used);
}

}  // namespace trel
