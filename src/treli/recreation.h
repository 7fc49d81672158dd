// A node that is being replaced by a copy.
//
// Who does so holds the latch of the node's spare area, and notes behind it how far he is. Whoever
// meets the node's mark looks at the owner of that latch, and never waits: what a dead one has
// begun is undone, unless the parent's entry leads to the copy.
#pragma once

#include "treli/dependent_list.h"
#include "treli/reach.h"

namespace trel {

inline RecreationIntent_t* intentOf(SNodeCB_t* node) {
  return at<RecreationIntent_t>(node, TREL_RECREATION_OFFSET);
}

inline bool isMarkedForRecreation(const SNodeCB_t* node) {
  return node->optionWord0 & TREL_OPTION_RECREATION;
}
void markRecreation(SNodeCB_t* node, bool on);

// Notes where the copy is, as soon as there is a block.
void noteCopy(RecreationIntent_t* intent, uint64_t nodeOffset, uint64_t born);

// The entry of a node in its parent's list, and what it leads to.
struct ParentLink {
  Reached parent;
  const uint8_t* id = nullptr;  // of the node
  uint64_t idSize = 0;
  SeenEntry seen;              // its entry is null if there is none of that name
  SNodeCB_t* named = nullptr;  // null: not to be told
};
uint32_t findParentLink(SNodeCB_t* node, ParentLink* link);

// Makes the entry lead to another node, if it still is what was seen.
uint32_t replaceLink(const ParentLink& link, SNodeInfo_t* record);

// The hold of a node's recreation.
class RecreationHold {
 public:
  RecreationHold() = default;
  ~RecreationHold() { end(); }
  RecreationHold(const RecreationHold&) = delete;
  RecreationHold& operator=(const RecreationHold&) = delete;

  // TREL_RC_BEING_RECREATED if a living one has it. What a dead one has left is ended.
  uint32_t take(SNodeCB_t* node);
  void end();

 private:
  SNodeCB_t* node_ = nullptr;
};

// For whoever meets the mark, outside of all sections. 0: its owner was dead, and the node has been
// put in order: look again. TREL_RC_BEING_RECREATED: the owner lives, or the recreation has ended,
// and the node was replaced or has been left as it is.
uint32_t endDeadRecreation(SNodeCB_t* node);

// Whether somebody who lives is at it.
bool isBeingRecreated(SNodeCB_t* node);

}  // namespace trel
