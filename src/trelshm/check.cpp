// Debug settings of a heap, and the check of one allocation.
#include <stdio.h>
#include <string.h>

#include "trel/storage.h"
#include "trelshm/allocator.h"
#include "trelshm/heap_latch.h"

namespace trel {
namespace {

// Reports findings in words.
struct Findings {
  const Caller& caller;
  void report(const char* message) const { platAssertFailed(message, caller.file, caller.line); }
  void expect(bool good, const char* message) const {
    if (!good) report(message);
  }
};

// A run of guard words, each of which is reported when wrong.
void checkGuards(const Heap& heap, uint64_t offset, uint64_t count, const Findings& findings,
                 const char* message) {
  for (uint64_t i = 0; i < count; ++i)
    findings.expect(heap.load(offset + 8 * i) == TREL_PAD_GUARD_WORD, message);
}

}  // namespace

uint32_t checkAllocation(const Heap& heap, uint64_t D, char* fileName, const Caller& caller) {
  const uint32_t rcRange = heap.kind().rcCheckRange;
  // The longest front pad lies in the heap, since its header alone is longer.
  if (D < heap.offset() + uint64_t{8} * kMaxPadWords + 64 || D > heap.end()) return rcRange;
  const Findings findings = {caller};
  const PadTail_t* front = frontTail(heap, D);
  const uint32_t M = loadOnce(&front->mode);
  if (M == TREL_PAD_OFF) return 0;
  if (M == TREL_PAD_FREED) {
    findings.report("Freeing freed memory found at:");
    return 0;
  }
  const PadMode* mode = padModeOf(M);
  if (!mode) {
    char message[64];
    snprintf(message, sizeof message,
             "Invalid pad type (0x%X) found at:", static_cast<unsigned>(M));
    findings.report(message);
    return 0;
  }
  findings.expect(front->magic == TREL_PAD_FRONT_MAGIC, "Front memory pad corruption found at:");
  if (!mode->back) return 0;

  uint32_t f = 0, b = 0;
  if (mode->record) {
    const PadBlockRecord_t* record = padRecord(heap, D, *mode);
    f = loadOnce(&record->frontPadWords);
    b = loadOnce(&record->backPadWords);
    if (!padWordsInRange(f)) return TREL_RC_FRONT_PAD_WORDS;
    if (!padWordsInRange(b)) return TREL_RC_BACK_PAD_WORDS;
    findings.expect(f == b,
                    "Allocation size does not match between front and back pad structures found "
                    "at:");
    checkGuards(heap, D - mode->frontSize(f), f, findings, "Front pad corruption found at:");
  }
  const uint64_t N = loadOnce(&front->nodeOffset);
  const uint64_t frontGuard = mode->guard ? heap.load(D - 24) : TREL_PAD_GUARD_WORD;
  findings.expect(frontGuard == TREL_PAD_GUARD_WORD,
                  "Front memory pad checksum corruption found at:");

  if (!heap.containsNode(N, sizeof(AllocNode_t))) return rcRange;
  const AllocNode_t node = heap.loadAlloc(N);
  const auto inHeap = [&](uint64_t offset) {
    return offset >= heap.offset() && offset <= heap.end();
  };
  if (!inHeap(node.blockOffset) || !inHeap(node.dataOffset)) return rcRange;
  // The longest back pad lies in the heap, since a heap's header is longer.
  if (!heap.containsBlock(node.blockOffset, node.blockSize) || node.blockSize < sizeof(PadTail_t))
    return rcRange;
  const uint64_t E = node.blockOffset + node.blockSize;

  if (mode->file && fileName)
    memcpy(fileName, heap.at<char>(D - (mode->guard ? 64 : 56)), TREL_PAD_FILE_FIELD);
  const PadTail_t* back = backTail(heap, E);
  findings.expect(back->magic == TREL_PAD_BACK_MAGIC && back->mode == M,
                  "Back memory pad corruption found at:");
  if (mode->guard) {
    const uint64_t backGuard = heap.load(E - 24);
    findings.expect(backGuard == TREL_PAD_GUARD_WORD && backGuard == frontGuard,
                    "Back memory pad checksum corruption found at:");
  }
  // The slack of a chunk lies inside its pool, so only a pool's blocks can be tested for theirs.
  const uint64_t padSize = mode->frontSize(f) + mode->backSize(b);
  const int64_t slack = static_cast<int64_t>(node.blockSize - node.requestedSize - padSize);
  const uint64_t dataEnd = node.dataOffset + node.requestedSize;
  if (heap.kind().kind == TREL_HEAP_POOL && slack > 0 && padsLieInside(node) &&
      static_cast<uint64_t>(slack) <= E - dataEnd) {
    const uint8_t* byte = heap.at<uint8_t>(dataEnd);
    for (int64_t i = 0; i < slack; ++i)
      findings.expect(byte[i] == 0xcc, "Back memory pad aligned size corruption found at");
  }
  if (mode->record)
    checkGuards(heap, E - mode->backSize(b), b, findings, "back pad corruption found at:");
  findings.expect(back->nodeOffset == N, "Memory pad node offset corruption found at:");
  return 0;
}

}  // namespace trel

using namespace trel;

uint32_t trelSetShmDebug(void* base, uint32_t heapKind, uint64_t heapOffset, uint32_t debugFlags,
                         uint32_t debugMode, uint32_t frontPadWords, uint32_t backPadWords) {
  return onHeap(FID_trelSetShmDebug, base, heapKind, heapOffset,
                [&](const Flow& flow, Heap* heap) -> uint32_t {
                  if (const uint32_t rc = checkHeap(*heap)) return flow.fail(rc);
                  if (!padWordsInRange(frontPadWords)) return flow.fail(TREL_RC_FRONT_PAD_WORDS);
                  if (!padWordsInRange(backPadWords)) return flow.fail(TREL_RC_BACK_PAD_WORDS);
                  if (const uint32_t rc = heap->openHeader()) return flow.fail(rc);
                  return insideDebug(*heap, [&]() -> uint32_t {
                    DebugRecord_t* debug = &heap->tail()->debug;
                    if (debug->debugModeLocked && (debug->debugMode == 0) != (debugMode == 0))
                      return flow.fail(TREL_RC_DEBUG_MODE_LOCKED);
                    // Odd while the record changes, also behind an owner that died in here.
                    TrelU32* version = &heap->aside()->debugVersion;
                    const uint32_t during = loadOnce(version) | 1;
                    storeLast(version, during);
                    debug->debugFlags = debugFlags;
                    debug->debugMode = debugMode;
                    debug->frontPadWords = frontPadWords;
                    debug->backPadWords = backPadWords;
                    storeLast(version, during + 1);
                    return 0;
                  });
                });
}

uint32_t _trelCheckAllocShmChunk(void* base, uint32_t heapKind, uint64_t heapOffset,
                                 uint64_t dataOffset, char* fileName, uint32_t function,
                                 uint32_t line, const char* file) {
  return onHeap(FID__trelCheckAllocShmChunk, base, heapKind, heapOffset,
                [&](const Flow& flow, Heap* heap) -> uint32_t {
                  if (const uint32_t rc = checkHeap(*heap)) return flow.fail(rc);
                  if (const uint32_t rc = heap->openHeader()) return flow.fail(rc);
                  if (const uint32_t rc = heap->openLists()) return flow.fail(rc);
                  return checkAllocation(*heap, dataOffset, fileName, {function, line, file});
                });
}
