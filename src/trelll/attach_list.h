// The attach list of this process as the library itself keeps it. Callers hold trelSegAttachLatch.
#pragma once

#include "trel/lists.h"

namespace trel {

// Whether every node on the list was linked below, so that the table of what is mapped knows them
// all. Others may put their own onto the exported list, or another list in its place.
bool attachListIsOurs();

void linkAttachment(SegAttachNode_t* node);
// Takes the node of a record off. Null: it is not on the list.
SegAttachNode_t* unlinkAttachment(const ShmSegInfo_t* segInfo);
// The table does not know a node that stands on the list.
void distrustAttachList();
// The list has been made, and nothing is attached yet.
void beginAttachList();

}  // namespace trel
