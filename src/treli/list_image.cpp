#include "treli/list_image.h"

#include "trelshm/process_memory.h"

namespace trel {

uint32_t takeImage(SNodeCB_t* node, ListImage* image) {
  release(&image->bytes);
  *image = {};
  if (!(once(node->exports) & TREL_EXPORT_DEPENDENT)) return 0;
  DependentList list;
  const uint32_t rc = locateDependents(node, &list);
  return rc ? rc : takeImage(list, image);
}

uint32_t takeImage(const DependentList& list, ListImage* image) {
  release(&image->bytes);
  *image = {};
  if (list.live == 0) return 0;
  const uint64_t stride = list.stride();
  if (const uint32_t rc = obtain(&image->bytes, list.live * stride)) return rc;
  image->maxIdSize = list.maxIdSize;
  DependentWalk walk(list);
  uint32_t rc = 0;
  while (rc == 0 && image->count < list.live) {
    SNodeInfo_t* stored = nullptr;
    if ((rc = walk.next(&stored))) break;
    auto* entry = at<SNodeInfo_t>(image->bytes, image->count * stride);
    memcpy(static_cast<void*>(entry), stored, static_cast<size_t>(stride));
    entry->selfOffset = offsetOf(stored, list.at());
    if (entry->nodeTag == 0 || entry->nodeTag > TREL_MAX_TAG) rc = TREL_RC_TAG_RANGE;
    if (entry->idSize > list.maxIdSize) rc = TREL_RC_ID_BOUNDS;
    ++image->count;
  }
  if (rc) release(&image->bytes);
  return rc;
}

bool stillHolds(SNodeCB_t* node, const SNodeInfo_t* entry) {
  bool holds = false;
  looking(node, 0, [&] {
    holds = false;
    DependentList list;
    if (locateDependents(node, &list) ||
        !list.holds(list.offset + entry->selfOffset, sizeof *entry))
      return 0u;
    const auto* stored = list.at<const SNodeInfo_t>(entry->selfOffset);
    holds =
        once(stored->nodeTag) == entry->nodeTag && once(stored->nodeOffset) == entry->nodeOffset;
    return 0u;
  });
  return holds;
}

}  // namespace trel
