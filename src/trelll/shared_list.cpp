#include "trelll/shared_list.h"

using namespace trel;

uint32_t trelFindAttachSegInfoNodeInLList(ShmPoolHandle_t* pool, const SegIdentity_t* record,
                                          SegIdentity_t** segment) {
  return onSharedList<SegmentEntry>(FID_trelFindAttachSegInfoNodeInLList, pool, record && segment,
                                    [&](const auto& list) { return find(list, *record, segment); });
}

uint32_t trelInsertAttachSegInfoNodeIntoLList(ShmPoolHandle_t* pool, const SegIdentity_t* record,
                                              SegIdentity_t** segment) {
  return onSharedList<SegmentEntry>(
      FID_trelInsertAttachSegInfoNodeIntoLList, pool, record && segment,
      [&](const auto& list) { return insert(list, *record, segment); });
}

uint32_t trelDeleteAttachSegInfoNodeFromLList(ShmPoolHandle_t* pool, const SegIdentity_t* record) {
  return onSharedList<SegmentEntry>(FID_trelDeleteAttachSegInfoNodeFromLList, pool, record,
                                    [&](const auto& list) { return remove(list, *record); });
}

uint32_t trelDeleteAttachSegInfoLList(ShmPoolHandle_t* pool) {
  return onSharedList<SegmentEntry>(FID_trelDeleteAttachSegInfoLList, pool, true,
                                    [](const auto& list) { return clear(list); });
}

uint32_t trelPrintAttachSegInfoNodeLList(ShmPoolHandle_t* pool) {
  return onSharedList<SegmentEntry>(FID_trelPrintAttachSegInfoNodeLList, pool, true,
                                    [](const auto& list) { return print(list); });
}

uint32_t trelFindHDMNodeInLList(ShmPoolHandle_t* pool, const HdmModuleRecord_t* record,
                                HdmModuleRecord_t** module) {
  return onSharedList<ModuleEntry>(FID_trelFindHDMNodeInLList, pool, record && module,
                                   [&](const auto& list) { return find(list, *record, module); });
}

uint32_t trelInsertHDMNodeIntoLList(ShmPoolHandle_t* pool, const HdmModuleRecord_t* record,
                                    HdmModuleRecord_t** module) {
  return onSharedList<ModuleEntry>(FID_trelInsertHDMNodeIntoLList, pool, record && module,
                                   [&](const auto& list) { return insert(list, *record, module); });
}

uint32_t trelDeleteHDMNodeFromLList(ShmPoolHandle_t* pool, const HdmModuleRecord_t* record) {
  return onSharedList<ModuleEntry>(FID_trelDeleteHDMNodeFromLList, pool, record,
                                   [&](const auto& list) { return remove(list, *record); });
}

uint32_t trelDeleteHDMLList(ShmPoolHandle_t* pool) {
  return onSharedList<ModuleEntry>(FID_trelDeleteHDMLList, pool, true,
                                   [](const auto& list) { return clear(list); });
}

uint32_t trelPrintHDMNodeLList(ShmPoolHandle_t* pool) {
  return onSharedList<ModuleEntry>(FID_trelPrintHDMNodeLList, pool, true,
                                   [](const auto& list) { return print(list); });
}
