// The memory of a segment that is bound to a key: how it is found, made and removed.
//
// Fresh memory is zero, and for a maker, for him alone, the heapLatch of such memory can be taken
// although nothing marks it as a latch. Who has it and finds no whole domain is the maker: he says
// so by heapVersion and the latch's mark, lays everything out, and stores heapState last. So at
// every instant others see one of the states below, and a maker that dies leaves a latch of which
// everybody knows that its owner is dead: the next maker goes on in its place. Nothing depends on a
// clock: a maker that was stopped for an hour finds, when it gets the latch or at its end, that
// another has made the segment, and leaves it alone.
//
// Only the holder of the latch removes an id, or who removes the segment by force.
#pragma once

#include "platsvc/ipc.h"
#include "trel/layout.h"

namespace trel {

enum class SegmentState {
  whole,        // a domain
  halfMade,     // its maker, or what ended it, got no further
  unversioned,  // half made, but with nothing but a latch in it at most: it may be a stranger's
  foreign,      // none of this library, or of another version
};

// What the memory holds; the first page tells.
SegmentState stateOf(const void* base);

// The code that tells why a segment could not be attached.
uint32_t attachFailure(uint32_t platformCode);

class SegmentMemory {
 public:
  SegmentMemory() = default;
  SegmentMemory(const SegmentMemory&) = delete;
  SegmentMemory& operator=(const SegmentMemory&) = delete;
  // Gives up what was not kept: a segment that the caller is the maker of is removed.
  ~SegmentMemory();

  uint32_t attach(const PLATIPCResID* id, uintptr_t address, bool forReading = false);
  // Makes the caller the maker of the segment of that key: of a new one, or of one that a dead
  // maker has left half made. He holds its heapLatch, its header says what is being made, and all
  // but these is to be laid out by him. TREL_RC_SEGMENT_EXISTS: it is whole, or nothing that the
  // caller may take; then no byte of it was touched.
  uint32_t begin(const PLATIPCResID* id, uintptr_t address, uint32_t size, uint32_t permissions);
  // The maker's end: the segment is whole, and the latch free. TREL_RC_SEGMENT_EXISTS: somebody has
  // put another segment under the key meanwhile. kMakeAgain: somebody has removed it.
  uint32_t finish();

  // Unless it is kept, the memory goes with this object.
  PLATHIPCMemory* object() const { return object_; }
  void keep() { object_ = nullptr; }
  void* base = nullptr;

 private:
  uint32_t tryToBegin(const PLATIPCMemoryCreateParam& param);
  uint32_t takeUp(const PLATIPCMemoryCreateParam& param);
  uint32_t takeLatch();
  uint32_t takeOver(const PLATIPCMemoryCreateParam& param, bool inPlace);
  bool isAlone(int tries) const;
  void mark();
  void leaveLatch();
  void drop();
  HeapHeader_t* header() const { return static_cast<HeapHeader_t*>(base); }

  PLATHIPCMemory* object_ = nullptr;
  PLATIPCResID id_ = {};
  bool isMaker_ = false;
};

// Not a code of the interface: what was begun is to be begun once more.
constexpr uint32_t kMakeAgain = ~uint32_t{0};

// Removes the segment of that key, which this process need not have attached. Mode 1: only if
// nobody has; mode 2: whoever has.
uint32_t removeSegment(const PLATIPCResID* id, uint32_t mode);

}  // namespace trel
