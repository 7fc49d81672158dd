#include "trelll/shared_list.h"

#include <stdlib.h>

#include "trelll/enter.h"

namespace trel {
namespace {

template <class Entry>
uint32_t enter(uint32_t function, ShmPoolHandle_t* pool, const typename Entry::Record& record,
               uint64_t* offset) {
  return withSharedList<Entry>(function, pool, [&](const auto& list) -> uint32_t {
    typename Entry::Record* payload = nullptr;
    const uint32_t rc = findOrInsert(list, record, &payload);
    if (rc == 0) *offset = offsetOf(payload, pool->base);
    return rc;
  });
}

// A look may be repeated, so the text is shown when the last one has ended.
template <class Entry>
uint32_t printShared(uint32_t function, ShmPoolHandle_t* pool) {
  char* text = nullptr;
  size_t size = 0;
  FILE* const out = open_memstream(&text, &size);
  const uint32_t rc = onSharedList<Entry, true>(function, pool, out, [&](const auto& list) {
    rewind(out);
    return print(list, out);
  });
  if (!out) return rc;
  fclose(out);
  fwrite(text, 1, size, stdout);
  free(text);
  return rc;
}

}  // namespace

uint32_t enterIdentity(ShmPoolHandle_t* pool, const SegIdentity_t* identity, uint64_t* offset) {
  return enter<SegmentEntry>(FID_trelInsertAttachSegInfoNodeIntoLList, pool, *identity, offset);
}

uint32_t enterModule(ShmPoolHandle_t* pool, const HdmModuleRecord_t* module, uint64_t* offset) {
  return enter<ModuleEntry>(FID_trelInsertHDMNodeIntoLList, pool, module ? *module : kNoModule,
                            offset);
}

}  // namespace trel

using namespace trel;

uint32_t trelFindAttachSegInfoNodeInLList(ShmPoolHandle_t* pool, const SegIdentity_t* record,
                                          SegIdentity_t** segment) {
  return onSharedList<SegmentEntry, true>(
      FID_trelFindAttachSegInfoNodeInLList, pool, record && segment,
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
  return printShared<SegmentEntry>(FID_trelPrintAttachSegInfoNodeLList, pool);
}

uint32_t trelFindHDMNodeInLList(ShmPoolHandle_t* pool, const HdmModuleRecord_t* record,
                                HdmModuleRecord_t** module) {
  return onSharedList<ModuleEntry, true>(
      FID_trelFindHDMNodeInLList, pool, record && module,
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
  return printShared<ModuleEntry>(FID_trelPrintHDMNodeLList, pool);
}
