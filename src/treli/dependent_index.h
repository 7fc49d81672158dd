// Where the names and the vacant places of a long list are, as this process saw it last. So that a
// list of thousands is not walked for each change of it.
//
// An index says nothing any more once somebody else has changed the list: the node's birth stamp,
// its reconfigCounter and what the slot says tell. And no answer is believed that the entry itself
// does not confirm. All callers are inside the node's write section.
#pragma once

#include "treli/dependent_list.h"

namespace trel {

// As findDependent(). False: the index does not know; the list is to be walked.
bool findByIndex(const DependentList& list, const SoughtName& name, FoundDependent* found);

// The caller has filled a place or made it vacant, and has counted that.
void noteInIndex(const DependentList& list, SNodeInfo_t* place);

}  // namespace trel
