// Entering on the shared lists of a segment, for records that name things by their place there.
#pragma once

#include "trel/lists.h"
#include "trelshm/bytes.h"

namespace trel {

// Finds a record's payload on a shared list, entering it if it is not there. Another process may
// enter it in between; then it stands there twice, or is found by the second look. *offset: of the
// payload.
template <class Record, class Find, class Insert>
uint32_t enterShared(ShmPoolHandle_t* pool, const Record* record, uint64_t* offset, Find&& find,
                     Insert&& insert) {
  for (;;) {
    Record* payload = nullptr;
    uint32_t rc = find(pool, record, &payload);
    if (rc == 0 && !payload) rc = insert(pool, record, &payload);
    if (rc == TREL_RC_LIST_PRESENT) continue;
    if (rc == 0) *offset = offsetOf(payload, pool->base);
    return rc;
  }
}

inline uint32_t enterIdentity(ShmPoolHandle_t* pool, const SegIdentity_t* identity,
                              uint64_t* offset) {
  return enterShared(pool, identity, offset, trelFindAttachSegInfoNodeInLList,
                     trelInsertAttachSegInfoNodeIntoLList);
}

constexpr HdmModuleRecord_t kNoModule = {};

// No module counts as one with an empty path.
inline uint32_t enterModule(ShmPoolHandle_t* pool, const HdmModuleRecord_t* module,
                            uint64_t* offset) {
  return enterShared(pool, module ? module : &kNoModule, offset, trelFindHDMNodeInLList,
                     trelInsertHDMNodeIntoLList);
}

}  // namespace trel
