// Giving a node back to its pool.
#pragma once

#include "trel/records.h"

namespace trel {

// trelDisclaimNode without its checks: frees the block of a node that the caller owns, and sets
// *node to null. Enters the node's write section, so the caller must not be inside it, and waits
// for whoever is. A failure leaves the node as it was.
uint32_t giveNodeBack(SNodeCB_t** node, ShmPoolHandle_t* pool);

}  // namespace trel
