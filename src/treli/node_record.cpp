#include "treli/node_record.h"

#include "trel/codes.h"
#include "trelll/enter.h"

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
  const HdmModuleRecord_t* sought = module ? module : &kNoModule;
  HdmModuleRecord_t* listed = nullptr;
  uint32_t rc = trelFindHDMNodeInPMLList(sought, &listed);
  if (rc == 0 && !listed) rc = trelInsertHDMNodeIntoPMLList(sought, &listed);
  if (rc == 0) *record = {nodeOffset, tag, idSize, 0, 0, offsetOf(listed, nullptr), 0};
  return rc;
}

}  // namespace trel
