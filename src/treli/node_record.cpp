#include "treli/node_record.h"

#include "trel/codes.h"
#include "trelll/enter.h"
#include "trelshm/bytes.h"

namespace trel {

uint32_t recordNode(SNodeInfo_t* record, const ShmSegInfo_t* holder, const ShmSegInfo_t* segment,
                    uint64_t nodeOffset, uint64_t tag, uint64_t idSize,
                    const HdmModuleRecord_t* module) {
  ShmPoolHandle_t* pool = holder->shmPoolHandle;
  if (!pool) return TREL_RC_POOL_HANDLE_NULL;
  uint64_t identity = 0, entered = 0;
  if (const uint32_t rc = enterIdentity(pool, &segment->identity, &identity)) return rc;
  if (const uint32_t rc = enterModule(pool, module, &entered)) return rc;
  *record = {nodeOffset, tag, idSize, 0, identity, entered, offsetOf(pool->base, nullptr)};
  return 0;
}

uint32_t recordNodeInPM(SNodeInfo_t* record, uint64_t nodeOffset, uint64_t tag, uint64_t idSize,
                        const HdmModuleRecord_t* module) {
  uint64_t entered = 0;
  const uint32_t rc = enterModuleInPM(module, &entered);
  if (rc == 0) *record = {nodeOffset, tag, idSize, 0, 0, entered, 0};
  return rc;
}

}  // namespace trel
