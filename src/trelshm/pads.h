// Pads around allocations: layout by mode, writing, and the way back from the data to the block.
#pragma once

#include "trelshm/heap_view.h"

namespace trel {

constexpr uint32_t kMaxPadWords = 8;
constexpr bool padWordsInRange(uint32_t words) { return words >= 1 && words <= kMaxPadWords; }

// What the pads of a mode consist of. In front: words, file, record, guard, tail; behind: words,
// guard, tail.
struct PadMode {
  uint32_t mode;
  bool back;    // there is a back pad
  bool guard;   // one guard word beside each tail
  bool record;  // runs of guard words, and the record that tells their lengths
  bool file;    // the file name

  constexpr uint64_t frontSize(uint32_t frontWords) const {
    return (record ? uint64_t{8} * frontWords + sizeof(PadBlockRecord_t) : 0) +
           (file ? TREL_PAD_FILE_FIELD : 0) + (guard ? 8 : 0) + sizeof(PadTail_t);
  }
  constexpr uint64_t backSize(uint32_t backWords) const {
    return back ? (record ? uint64_t{8} * backWords : 0) + (guard ? 8 : 0) + sizeof(PadTail_t) : 0;
  }
};

// Null for a word that is no mode, the mark of a freed block included.
const PadMode* padModeOf(uint32_t mode);

// The mode word of the data at that offset. The caller knows that 16 bytes in front of it are
// there.
inline PadTail_t* frontTail(const Heap& heap, uint64_t dataOffset) {
  return heap.at<PadTail_t>(dataOffset - sizeof(PadTail_t));
}
inline PadTail_t* backTail(const Heap& heap, uint64_t blockEnd) {
  return heap.at<PadTail_t>(blockEnd - sizeof(PadTail_t));
}
// The record of a mode that has one.
inline PadBlockRecord_t* padRecord(const Heap& heap, uint64_t dataOffset, const PadMode& mode) {
  return heap.at<PadBlockRecord_t>(dataOffset - sizeof(PadTail_t) - (mode.guard ? 8 : 0) -
                                   sizeof(PadBlockRecord_t));
}

// Whether the data of an allocated node, as it was loaded, leaves room for both tails inside its
// block.
inline bool padsLieInside(const AllocNode_t& node) {
  const uint64_t end = node.blockOffset + node.blockSize;
  return node.dataOffset >= node.blockOffset + sizeof(PadTail_t) && node.dataOffset <= end &&
         node.requestedSize <= end - node.dataOffset;
}

// Who asked for an allocation.
struct Caller {
  uint32_t function;
  uint32_t line;
  const char* file;
};

// Writes the pads of a new allocation, and fills its slack where there is a back pad. `extra` is
// what the data takes beyond the size asked for.
void writePads(const Heap& heap, uint64_t node, const AllocNode_t& fields, const PadMode& mode,
               uint32_t frontWords, uint32_t backWords, uint64_t extra, const Caller& caller);
// Writes the offset of a node that has moved into the tails of its block, which lie inside.
void writeNodeOffset(const Heap& heap, uint64_t node, const AllocNode_t& fields);

// From the data back to its block, by the mode word in front of the data. The result can lie
// outside the heap, and be negative.
uint32_t blockOffsetOf(const void* base, uint64_t dataOffset, int64_t* blockOffset);

}  // namespace trel
