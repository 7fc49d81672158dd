// A node's list of dependents as it was at one moment: its live entries, one behind the other, in
// process memory. Whoever goes through an image keeps nobody waiting, and what it holds has been
// tested and does not change any more.
#pragma once

#include "treli/dependent_list.h"

namespace trel {

struct ListImage {
  uint8_t* bytes = nullptr;
  uint32_t count = 0, maxIdSize = 0;

  // A record with its identifier behind it. Its selfOffset is its position in the section.
  const SNodeInfo_t* entry(uint32_t i) const {
    return at<const SNodeInfo_t>(bytes, uint64_t{i} * (maxIdSize + sizeof(SNodeInfo_t)));
  }
};

// Takes an image of what a list holds, and frees what the image held before. The caller is inside
// the node's section, or looks; he frees the image with `release(&image.bytes)`.
uint32_t takeImage(const DependentList& list, ListImage* image);
// The same of a node's list; of a node without one it is empty.
uint32_t takeImage(SNodeCB_t* node, ListImage* image);

// Whether the node's list still holds an entry of an image.
bool stillHolds(SNodeCB_t* node, const SNodeInfo_t* entry);

}  // namespace trel
