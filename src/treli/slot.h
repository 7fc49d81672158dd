// From an export bit to a section of a node.
#pragma once

#include "trelshm/bytes.h"
#include "trelshm/flow.h"

namespace trel {

constexpr uint32_t kReachableSlots = 12;

// n for export bit 2^n: the lowest bit set, bit 0 passed over; 0 if there is none.
constexpr uint32_t bitNumber(uint32_t exportBit) {
  return (exportBit & ~1u) ? static_cast<uint32_t>(__builtin_ctz(exportBit & ~1u)) : 0;
}

// The place of a section's slot in the export table.
constexpr uint32_t slotNumber(uint32_t exportBit) { return bitNumber(exportBit) - 1; }

// The tests of trelGetPExportPointer. *slot is written as soon as the bit is known to be good.
TREL_INLINE uint32_t slotOf(SNodeCB_t* node, uint32_t exportBit, ExportSlot_t** slot) {
  const uint32_t n = bitNumber(exportBit);
  if (n == 0 || n > kReachableSlots) return TREL_RC_EXPORT_BIT;
  ExportSlot_t* s = &node->exportTable[n - 1];
  *slot = s;
  if (TREL_UNLIKELY(s->offset == 0)) return TREL_RC_SLOT_OFFSET;
  if (TREL_UNLIKELY(s->used > s->size)) return TREL_RC_SLOT_USED;
  if (TREL_UNLIKELY(s->size > TREL_MAX_SECTION_SIZE)) return TREL_RC_SLOT_SIZE;
  return 0;
}

// The same for an operation that is going to touch the section: it must also lie inside the node,
// behind its header. A walk that holds no latch gives the node's size as it has tested it.
TREL_INLINE uint32_t sectionOf(SNodeCB_t* node, uint32_t exportBit, ExportSlot_t** slot,
                               uint64_t nodeSize) {
  if (const uint32_t rc = slotOf(node, exportBit, slot)) return rc;
  const uint64_t size = (*slot)->size, offset = (*slot)->offset;
  if (TREL_UNLIKELY(offset - sizeof(SNodeCB_t) > TREL_MAX_NODE_SIZE || offset + size > nodeSize))
    return TREL_RC_SLOT_SIZE;
  return 0;
}

TREL_INLINE uint32_t sectionOf(SNodeCB_t* node, uint32_t exportBit, ExportSlot_t** slot) {
  return sectionOf(node, exportBit, slot, node->nodeSize);
}

// What lies at a position of the section.
template <class T = uint8_t>
inline T* inSection(SNodeCB_t* node, const ExportSlot_t* slot, uint64_t position = 0) {
  return at<T>(node, slot->offset + position);
}

}  // namespace trel
