// From a record to the node that it names, across segments.
#pragma once

#include "treli/attachment.h"

namespace trel {

constexpr uint32_t kStayInSegment = 64;  // bit of the options of walks

// The size of a node that can be touched, since its header and all that it says to own lie in the
// domain; else 0.
uint64_t nodeSizeInDomain(const ShmDomainHandle_t* domain, uint64_t nodeOffset);

// How many nodes could lie in the segments that this process has attached.
uint64_t nodesThatFit();

// What a record names, read once: others may change a stored record at any time.
struct Target {
  SegIdentity_t identity;
  uint64_t nodeOffset, nodeTag;
};

// The caller holds the AttachLatch.
uint32_t targetOf(const SNodeInfo_t* record, Target* target);

// The refusals of a node that was reached all the same: it is not active.
constexpr bool isRefusedCondition(uint32_t code) {
  return code == TREL_RC_CREATED || code == TREL_RC_INITIALISED || code == TREL_RC_ABANDONED ||
         code == TREL_RC_DISASSOCIATED;
}

// What a record led to. A field keeps what it held until it is known.
struct Reached {
  SNodeCB_t* node = nullptr;
  ShmSegInfo_t* segInfo = nullptr;
  bool attachedHere = false;  // by an attach whose use is not decided
  uint64_t size = 0;          // of the node, all of which lies in its segment
};

// Finds the node, without attaching. With kStayInSegment *otherSegment tells whether it lies in
// another segment than `current`.
uint32_t locateNode(const SNodeInfo_t* record, Reached* reached,
                    const ShmSegInfo_t* current = nullptr, uint32_t* otherSegment = nullptr,
                    uint32_t options = 0);

// Finds the node, attaching its segment if it is not held. Success means an active node of the
// record's tag. Where the code is a refused condition, the node was reached, and stays so: whoever
// asked ends that with keepReached() or leaveReached(). After any other failure nothing is left
// attached by this call, and the node and segment are null if it had attached.
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
uint32_t nodeBehind(const SNodeInfo_t* record, SNodeCB_t** node);

// The place of the node's parent record in its section. *slot and *parent are written when they are
// known.
uint32_t parentOf(SNodeCB_t* node, ExportSlot_t** slot, SNodeInfo_t** parent);
// The node's parent record, if it holds one: a writer may have died while it changed.
uint32_t parentRecordOf(SNodeCB_t* node, SNodeInfo_t** record);

// While an object lives, this thread's reachNode() attaches nothing: a segment that is not held
// gives TREL_RC_NOT_ATTACHED.
class AttachNothing {
 public:
  AttachNothing();
  ~AttachNothing();
  AttachNothing(const AttachNothing&) = delete;
  AttachNothing& operator=(const AttachNothing&) = delete;
};

// Undoes the attach of this reach, if there was one.
void leaveReached(Reached* reached);
// Decides that it stays. Success of reachNode() does so itself.
void keepReached(Reached* reached);

}  // namespace trel
