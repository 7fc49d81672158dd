// From a record to the node that it names, across segments.
#pragma once

#include "treli/attachment.h"
#include "treli/bounds.h"
#include "treli/slot.h"

namespace trel {

constexpr uint32_t kStayInSegment = 64;  // bit of the options of walks

// What one call looks at: all that it resolves stays mapped until the outermost such object of the
// thread ends, and with it what it has brought and nobody uses.
class Look {
 public:
  Look() = default;
  ~Look();
  Pins& pins() { return pins_; }

 private:
  Pins pins_;
};

// Whether `size` bytes at an offset from the base lie in the domain, and in what is mapped of it.
bool liesInDomain(const ShmDomainHandle_t* domain, uint64_t offset, uint64_t size);
// The size of a node that can be touched, since its header and all that it says to own lie in the
// domain; else 0.
uint64_t nodeSizeInDomain(const ShmDomainHandle_t* domain, uint64_t nodeOffset);

// How many nodes could lie in the segments that this process has attached.
inline uint64_t nodesThatFit() { return bytesMapped() / sizeof(SNodeCB_t); }

// What a record names, read once: others may change a stored record at any time.
struct Target {
  SegIdentity_t identity;
  uint64_t nodeOffset, nodeTag;
  bool forReading;  // the record lies in memory that may only be read
};

uint32_t targetOf(const SNodeInfo_t* record, Target* target);
// Whether two records name the same segment. Its key can stand on a shared list twice.
bool nameOneSegment(const SNodeInfo_t* a, const SNodeInfo_t* b);

// The refusals of a node that was reached all the same: it is not active.
constexpr bool isRefusedCondition(uint32_t code) {
  return code == TREL_RC_CREATED || code == TREL_RC_INITIALISED || code == TREL_RC_ABANDONED ||
         code == TREL_RC_DISASSOCIATED;
}

// What a record led to. A field keeps what it held until it is known.
struct Reached {
  SNodeCB_t* node = nullptr;
  ShmSegInfo_t* segInfo = nullptr;
  bool isUndecided = false;  // a look has brought the segment, and nobody uses it yet
  uint64_t size = 0;         // of the node, all of which lies in its segment
  uint64_t born = 0;         // its birth stamp, from before it was looked at
};

// Finds the node, without attaching. With kStayInSegment *otherSegment tells whether it lies in
// another segment than `current`.
uint32_t locateNode(const SNodeInfo_t* record, Reached* reached,
                    const ShmSegInfo_t* current = nullptr, uint32_t* otherSegment = nullptr,
                    uint32_t options = 0);

// Finds the node, attaching its segment if it is not held: then a walk counts one attach of it.
// Success means an active node of the record's tag. Where the code is a refused condition, the node
// was reached, and is good until the look ends; keepReached() makes it stay. After any other
// failure nothing is left attached by this call, and the node and segment are null if it had
// attached.
//
// With kStayInSegment, *otherSegment 1 and a segment that is not held, nothing is attached: success
// with the segment `current` and no node. The tag is tested only where *otherSegment is 0.
uint32_t reachNode(const SNodeInfo_t* record, Reached* reached, ShmSegInfo_t* current,
                   uint32_t* otherSegment, uint32_t options);

inline uint32_t reachNode(const SNodeInfo_t* record, Reached* reached) {
  uint32_t otherSegment = 0;
  return reachNode(record, reached, nullptr, &otherSegment, 0);
}

// The node behind a record, whose segment must be attached.
inline uint32_t nodeBehind(const SNodeInfo_t* record, SNodeCB_t** node) {
  Reached reached;
  const uint32_t rc = locateNode(record, &reached);
  if (rc == 0) *node = reached.node;
  return rc;
}

// The place of the node's parent record in its section, if that was ever filled.
uint32_t parentOf(SNodeCB_t* node, Section* section, SNodeInfo_t** parent);
// The node's parent record, if it holds one: a writer may have died while it changed.
uint32_t parentRecordOf(SNodeCB_t* node, SNodeInfo_t** record);

// While an object lives, this thread's reachNode() attaches nothing and keeps nothing, and so takes
// no AttachLatch: a segment that is not held gives TREL_RC_NOT_ATTACHED. For those who hold the
// latch of a heap, and a Look.
class AttachNothing {
 public:
  AttachNothing();
  ~AttachNothing();
  AttachNothing(const AttachNothing&) = delete;
  AttachNothing& operator=(const AttachNothing&) = delete;
};

// The segment of a reached node stays when the look ends. Success of reachNode() does so itself.
// TREL_RC_NOT_ATTACHED: it has ended meanwhile.
uint32_t keepReached(Reached* reached);
// Forgets a node whose segment does not stay.
inline void leaveReached(Reached* reached) {
  if (reached->isUndecided) *reached = {};
}

}  // namespace trel
