#include "trelshm/pads.h"

#include <string.h>

namespace trel {
namespace {

constexpr PadMode kModes[] = {
    {TREL_PAD_DEFAULT, true, false, false, false}, {TREL_PAD_OFF, false, false, false, false},
    {TREL_PAD_FRONT, false, false, false, false},  {TREL_PAD_GUARD, true, true, false, false},
    {TREL_PAD_RECORD, true, false, true, false},   {TREL_PAD_RECORD_GUARD, true, true, true, false},
    {TREL_PAD_FILE, true, false, true, true},      {TREL_PAD_FILE_GUARD, true, true, true, true}};

// Writes items one behind the other.
class PadWriter {
 public:
  PadWriter(const Heap& heap, uint64_t offset) : heap_(heap), offset_(offset) {}

  void guards(uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) put(uint64_t{TREL_PAD_GUARD_WORD});
  }
  template <class T>
  void put(const T& item) {
    memcpy(heap_.at<void>(offset_), &item, sizeof(T));  // anywhere, in a damaged heap
    offset_ += sizeof(T);
  }
  void fileName(const char* name) {
    char* field = heap_.at<char>(offset_);
    memset(field, 0, TREL_PAD_FILE_FIELD);
    if (name) memcpy(field, name, strnlen(name, TREL_PAD_FILE_FIELD - 1));
    offset_ += TREL_PAD_FILE_FIELD;
  }

 private:
  const Heap& heap_;
  uint64_t offset_;
};

}  // namespace

const PadMode* padModeOf(uint32_t mode) {
  for (const PadMode& m : kModes)
    if (m.mode == mode) return &m;
  return nullptr;
}

void writePads(const Heap& heap, uint64_t node, const AllocNode_t& n, const PadMode& mode,
               uint32_t frontWords, uint32_t backWords, uint64_t extra, const Caller& caller) {
  PadWriter front(heap, n.blockOffset);
  if (mode.record) front.guards(frontWords);
  if (mode.file) front.fileName(caller.file);
  if (mode.record) front.put(PadBlockRecord_t{caller.line, caller.function, frontWords, backWords});
  if (mode.guard) front.guards(1);
  front.put(PadTail_t{node, TREL_PAD_FRONT_MAGIC, mode.mode});
  if (!mode.back) return;

  const uint64_t backSize = mode.backSize(backWords);
  PadWriter back(heap, n.blockOffset + n.blockSize - backSize);
  if (mode.record) back.guards(backWords);
  if (mode.guard) back.guards(1);
  back.put(PadTail_t{node, TREL_PAD_BACK_MAGIC, mode.mode});
  const int64_t slack = static_cast<int64_t>(n.blockSize - n.requestedSize - extra -
                                             mode.frontSize(frontWords) - backSize);
  if (slack > 0)
    memset(heap.at<void>(n.dataOffset + n.requestedSize), 0xcc, static_cast<size_t>(slack));
}

void writeNodeOffset(const Heap& heap, uint64_t node, const AllocNode_t& n) {
  PadTail_t* front = frontTail(heap, n.dataOffset);
  front->nodeOffset = node;
  const PadMode* mode = padModeOf(loadOnce(&front->mode));
  if (mode && mode->back && n.blockSize >= mode->frontSize(1) + mode->backSize(1))
    backTail(heap, n.blockOffset + n.blockSize)->nodeOffset = node;
}

uint32_t blockOffsetOf(const void* base, uint64_t dataOffset, int64_t* blockOffset) {
  const Heap bytes(base, 0, kPoolKind);
  const PadMode* mode = padModeOf(loadOnce(&frontTail(bytes, dataOffset)->mode));
  if (!mode) return TREL_RC_PAD_MODE;
  uint32_t words = 1;
  if (mode->record) {
    words = loadOnce(&padRecord(bytes, dataOffset, *mode)->frontPadWords);
    if (!padWordsInRange(words)) return TREL_RC_FRONT_PAD_WORDS;
  }
  *blockOffset = static_cast<int64_t>(dataOffset - mode->frontSize(words));
  return 0;
}

}  // namespace trel
