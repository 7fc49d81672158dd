// The list of a node's dependents, and the record of its parent.
#include "trel/tree.h"
#include "treli/dependent_list.h"
#include "treli/node_record.h"
#include "trelshm/process_memory.h"
#include "trelshm/store.h"

namespace trel {
namespace {

// Turns the node's list on, if its section has room for one entry.
uint32_t exportList(SNodeCB_t* node, const ExportSlot_t* slot, uint64_t maxIdSize) {
  if (node->exports & TREL_EXPORT_DEPENDENT) return 0;
  if (slot->size < kDependentHeader + sizeof(SNodeInfo_t) + maxIdSize)
    return TREL_RC_DEPENDENT_SECTION_SMALL;
  exportDependents(node, true);
  return 0;
}

uint32_t createEmpty(SNodeCB_t* node, ExportSlot_t* slot, uint64_t maxIdSize) {
  if (const uint32_t rc = exportList(node, slot, maxIdSize)) return rc;
  if (slot->size < kDependentHeader) return TREL_RC_DEPENDENT_SECTION_SMALL;
  clearDependents(node, slot, maxIdSize);
  return 0;
}

// What a new list is to hold: records, and their identifiers back to back.
struct NewEntries {
  SNodeInfo_t* records;
  const uint64_t* sizes;
  const uint8_t* ids;
  uint64_t count;
};

uint32_t checkPair(const NewEntries& given, uint64_t i, const uint8_t* idI, uint64_t j,
                   const uint8_t* idJ, uint64_t maxIdSize) {
  const uint64_t tag = given.records[i].nodeTag;
  if (given.records[j].nodeTag > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
  if (given.sizes[j] > TREL_MAX_ID_SIZE) return TREL_RC_COMPARE_ID_SIZE;
  if (given.sizes[j] > maxIdSize) return TREL_RC_NODE_ID_SIZE;
  const bool same =
      tag == given.records[j].nodeTag && compareIds(idI, given.sizes[i], idJ, given.sizes[j]) == 0;
  return same && tag != 0 ? uint32_t{TREL_RC_DEPENDENT_PRESENT} : 0;
}

uint32_t checkEntries(const NewEntries& given, uint64_t maxIdSize) {
  const uint8_t* id = given.ids;
  for (uint64_t i = 0; i < given.count; ++i) {
    if (given.records[i].nodeTag > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
    if (given.sizes[i] > maxIdSize) return TREL_RC_NODE_ID_SIZE;
    const uint8_t* later = id + given.sizes[i];
    for (uint64_t j = i + 1; j < given.count; ++j) {
      if (const uint32_t rc = checkPair(given, i, id, j, later, maxIdSize)) return rc;
      later += given.sizes[j];
    }
    id += given.sizes[i];
  }
  return 0;
}

void fillList(SNodeCB_t* node, ExportSlot_t* slot, const NewEntries& given, uint64_t maxIdSize) {
  exportDependents(node, true);  // another writer may have emptied the list before this section
  clearDependents(node, slot, maxIdSize);
  const uint64_t stride = maxIdSize + sizeof(SNodeInfo_t);
  const uint8_t* id = given.ids;
  for (uint64_t i = 0; i < given.count; ++i) {
    storeDependent(node, inSection<SNodeInfo_t>(node, slot, slot->used), &given.records[i], id,
                   given.sizes[i]);
    slot->used = slot->used + stride;
    id += given.sizes[i];
  }
}

// The room for identifiers; 0 where the list is off.
uint32_t readMaxIdSize(SNodeCB_t* node, uint64_t* maxIdSize) {
  DependentList list = {};
  if (node->exports & TREL_EXPORT_DEPENDENT) {
    if (const uint32_t rc = locateDependents(node, &list)) return rc;
  }
  *maxIdSize = list.maxIdSize;
  return 0;
}

// Copies one entry out, with its identifier.
uint32_t copyOut(const SNodeInfo_t* entry, uint32_t maxIdSize, SNodeInfo_t* record, uint8_t* id) {
  *record = *entry;
  record->segBase = offsetOf(entry, nullptr) - record->selfOffset;
  record->selfOffset = 0;
  const uint64_t idSize = record->idSize;
  if (idSize > maxIdSize) return TREL_RC_ID_BOUNDS;
  if (idSize) memcpy(id, idOf(entry), idSize);
  return 0;
}

// For operations that read a list: located, with a count that a list can have, and not empty.
uint32_t locateFilled(SNodeCB_t* node, DependentList* list, uint32_t empty) {
  if (locateDependents(node, list)) return TREL_RC_DEPENDENT_ABSENT;
  if (list->live == 0) return empty;
  return list->live > TREL_MAX_DEPENDENTS ? uint32_t{TREL_RC_DEPENDENT_COUNT} : 0;
}

}  // namespace
}  // namespace trel

using namespace trel;

uint32_t trelCreateDependentNodeList(SNodeCB_t* node, SNodeInfo_t* records, const uint64_t* sizes,
                                     const uint8_t* ids, uint64_t maxIdSize, uint64_t count,
                                     uint64_t inCriticalSection) {
  return traced(FID_trelCreateDependentNodeList, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (count > TREL_MAX_DEPENDENTS) return flow.fail(TREL_RC_DEPENDENT_COUNT);
    if (maxIdSize > TREL_MAX_ID_SIZE) return flow.fail(TREL_RC_NODE_ID_MAX);
    const uint64_t maximum = round8(maxIdSize);
    if (count && !records) return flow.fail(TREL_RC_NODE_INFOS_NULL);
    if (count && !ids) return flow.fail(TREL_RC_ID_NULL);
    if (count && !sizes) return flow.fail(TREL_RC_ID_SIZES_NULL);
    ExportSlot_t* slot = nullptr;
    if (const uint32_t rc = sectionOf(node, TREL_EXPORT_DEPENDENT, &slot)) return flow.fail(rc);
    if (count == 0) {
      return writing(node, inCriticalSection, accept::settled,
                     [&] { return createEmpty(node, slot, maximum); });
    }
    if (const uint32_t rc = exportList(node, slot, maximum)) return flow.fail(rc);
    if (kDependentHeader + (maximum + sizeof(SNodeInfo_t)) * count > slot->size)
      return flow.fail(TREL_RC_DEPENDENTS_FULL);
    const NewEntries given = {records, sizes, ids, count};
    if (const uint32_t rc = checkEntries(given, maximum)) return flow.fail(rc);
    return writing(node, inCriticalSection, accept::settled, [&]() -> uint32_t {
      fillList(node, slot, given, maximum);
      return countReconfiguration(node);
    });
  });
}

uint32_t trelAddStatusNodeInfo(SNodeInfo_t* record, ShmSegInfo_t* parentSegment,
                               ShmSegInfo_t* nodeSegment, uint64_t nodeOffset, uint64_t tag,
                               uint64_t idSize, void*, const HdmModuleRecord_t* module) {
  return traced(FID_trelAddStatusNodeInfo, [&](const Flow& flow) -> uint32_t {
    if (!parentSegment || !nodeSegment) return flow.fail(TREL_RC_SEGMENT_NULL);
    if (!record) return flow.fail(TREL_RC_NODE_INFO_NULL);
    if (tag > TREL_MAX_TAG) return flow.fail(TREL_RC_TAG_RANGE);
    if (idSize > TREL_MAX_ID_SIZE) return flow.fail(TREL_RC_NODE_ID_SIZE);
    if (!parentSegment->shmPoolHandle) return flow.logged(TREL_RC_POOL_HANDLE_NULL, nullptr);
    const uint32_t rc =
        recordNode(record, parentSegment, nodeSegment, nodeOffset, tag, idSize, module);
    return rc ? flow.fail(rc) : 0;
  });
}

uint32_t trelAddDependentNode(SNodeCB_t* node, SNodeInfo_t* record, const uint8_t* id,
                              uint64_t idSize, uint64_t addMode, uint64_t inCriticalSection) {
  return traced(FID_trelAddDependentNode, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!record) return flow.fail(TREL_RC_NODE_INFO_NULL);
    if (idSize == 0 && id) idSize = record->idSize;
    if (idSize != 0 && !id) return flow.fail(TREL_RC_ID_NULL);
    const uint64_t tag = record->nodeTag;
    if (tag == 0 || tag > TREL_MAX_TAG) return flow.fail(TREL_RC_TAG_RANGE, &tag, sizeof tag);
    const SoughtName name = {tag, id, idSize};
    DependentList list;
    if (const uint32_t rc = locateForAdd(node, name, &list)) return flow.fail(rc);
    return within<Access::write>(node, inCriticalSection, [&] {
      return addDependent(node, record, name, addMode == TREL_ADD_REPLACE);
    });
  });
}

uint32_t trelAddParentNode(SNodeCB_t* node, SNodeInfo_t* record, uint64_t idSize,
                           const uint8_t* id) {
  return traced(FID_trelAddParentNode, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!(node->exports & TREL_EXPORT_PARENT)) return flow.fail(TREL_RC_NO_PARENT_SECTION);
    if (!record) return flow.fail(TREL_RC_NODE_INFO_NULL);
    return writing(node, 0, accept::usable, [&]() -> uint32_t {
      ExportSlot_t* slot = nullptr;
      if (const uint32_t rc = sectionOf(node, TREL_EXPORT_PARENT, &slot)) return flow.fail(rc);
      auto* section = inSection<ParentSection_t>(node, slot);
      if (slot->size < sizeof *section) return flow.fail(TREL_RC_SLOT_USED);
      if (section->maxIdSize > TREL_MAX_ID_SIZE) return flow.fail(TREL_RC_NODE_ID_MAX);
      if (idSize > section->maxIdSize) return flow.fail(TREL_RC_NODE_ID_SIZE);
      if (idSize != 0 && !id) return flow.fail(TREL_RC_ID_NULL);
      if (slot->size < sizeof *section + idSize) return flow.fail(TREL_RC_SLOT_USED);
      storeLast(&slot->used, offsetof(ParentSection_t, parent));  // no parent while it changes
      storeDependent(node, &section->parent, record, id, idSize);
      storeLast(&slot->used, sizeof *section + idSize);
      return 0;
    });
  });
}

uint32_t trelReturnDependentNodes(SNodeCB_t* node, SNodeInfo_t* records, uint8_t* ids,
                                  uint64_t* returned, uint64_t* live, uint64_t length,
                                  uint64_t idSlotSize, uint64_t inCriticalSection) {
  return traced(FID_trelReturnDependentNodes, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!records) return flow.fail(TREL_RC_NODE_INFOS_NULL);
    if (!returned) return flow.fail(TREL_RC_OUT_RETURNED);
    if (!live) return flow.fail(TREL_RC_OUT_RETURN_LIVE);
    if (!ids) return flow.fail(TREL_RC_ID_NULL);
    if (length == 0 || length > TREL_MAX_DEPENDENTS) return flow.fail(TREL_RC_DEPENDENT_COUNT);
    uint64_t maxIdSize = 0;
    if (const uint32_t rc = readMaxIdSize(node, &maxIdSize)) return flow.fail(rc);
    if (idSlotSize > maxIdSize) return flow.fail(TREL_RC_ID_STRIDE);
    DependentList list;
    if (const uint32_t rc = locateDependents(node, &list)) return flow.fail(rc);
    return reading(node, inCriticalSection, accept::any, [&]() -> uint32_t {
      if (const uint32_t rc = locateFilled(node, &list, TREL_RC_DEPENDENTS_EMPTY))
        return flow.fail(rc);
      const uint64_t count = list.live < length ? list.live : length;
      DependentWalk walk(list);
      for (uint64_t i = 0; i < count; ++i) {
        SNodeInfo_t* entry = nullptr;
        if (const uint32_t rc = walk.next(&entry)) return flow.fail(rc);
        if (const uint32_t rc = copyOut(entry, list.maxIdSize, &records[i], ids + i * idSlotSize))
          return flow.fail(rc);
      }
      *returned = count;
      *live = list.live;
      return 0;
    });
  });
}

uint32_t trelDeleteDependentNodesArray(void** block) {
  return traced(FID_trelDeleteDependentNodesArray, [&](const Flow& flow) -> uint32_t {
    if (!block) return flow.fail(TREL_RC_NODE_INFOS_NULL);
    return _platMemFree(block, 0, 0, kModuleName, __LINE__);
  });
}

uint32_t trelReturnNumberOfDependentNodes(SNodeCB_t* node, uint64_t* live, uint64_t* capacity,
                                          uint64_t inCriticalSection) {
  return traced(FID_trelReturnNumberOfDependentNodes, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!live) return flow.fail(TREL_RC_OUT_LIVE_COUNT);
    if (!capacity) return flow.fail(TREL_RC_OUT_CAPACITY);
    DependentList list;
    if (const uint32_t rc = locateDependents(node, &list)) return flow.fail(rc);
    return reading(node, inCriticalSection, accept::any, [&]() -> uint32_t {
      if (const uint32_t rc = locateDependents(node, &list)) return flow.fail(rc);
      *live = list.live;
      *capacity = list.capacity();
      return 0;
    });
  });
}

uint32_t trelFindDependentNode(SNodeInfo_t** entry, SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                               const uint8_t* id, uint64_t inCriticalSection) {
  return traced(FID_trelFindDependentNode, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!entry) return flow.fail(TREL_RC_NODE_INFO_NULL);
    if (idSize != 0 && !id) return flow.fail(TREL_RC_ID_NULL);
    DependentList list;
    if (const uint32_t rc = locateDependents(node, &list)) return flow.fail(rc);
    return writing(node, inCriticalSection, accept::any, [&]() -> uint32_t {
      if (const uint32_t rc = locateFilled(node, &list, TREL_RC_DEPENDENT_ABSENT))
        return flow.fail(rc);
      FoundDependent found;
      if (const uint32_t rc = findDependent(list, {tag, id, idSize}, &found)) return flow.fail(rc);
      if (!found.entry) return flow.fail(TREL_RC_DEPENDENT_ABSENT);
      *entry = found.entry;
      return 0;
    });
  });
}

uint32_t trelGetMaxIDSizeForDependentNode(SNodeCB_t* node, uint32_t exportBit,
                                          uint64_t* maxIdSize) {
  return traced(FID_trelGetMaxIDSizeForDependentNode, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!maxIdSize) return flow.fail(TREL_RC_OUT_DEPENDENT_ID_MAX);
    if (exportBit != TREL_EXPORT_DEPENDENT) return flow.fail(TREL_RC_EXPORT_BIT);
    const uint32_t rc = readMaxIdSize(node, maxIdSize);
    return rc ? flow.fail(rc) : 0;
  });
}

uint32_t trelGetDependentNodesLocation(SNodeCB_t* node, SNodeInfo_t** entry, uint64_t* live,
                                       uint64_t* capacity) {
  return traced(FID_trelGetDependentNodesLocation, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!live) return flow.fail(TREL_RC_OUT_LIVE_COUNT);
    if (!capacity) return flow.fail(TREL_RC_OUT_CAPACITY);
    if (!entry) return flow.fail(TREL_RC_NODE_INFO_NULL);
    DependentList list;
    if (const uint32_t rc = locateDependents(node, &list)) return flow.fail(rc);
    *live = list.live;
    *capacity = list.capacity();
    if (list.maxIdSize) *entry = DependentWalk(list).place();
    return 0;
  });
}

uint32_t trelGetNextDependentNodeLocation(SNodeCB_t* node, ExportSlot_t* slot,
                                          SNodeInfo_t** entry) {
  return traced(FID_trelGetNextDependentNodeLocation, [&](const Flow& flow) -> uint32_t {
    if (!node || !slot) return flow.fail(TREL_RC_NODE_NULL);
    if (!entry || !*entry) return flow.fail(TREL_RC_NODE_INFO_NULL);
    DependentList list;
    if (const uint32_t rc = locateDependents(node, &list)) return flow.fail(rc);
    const uint64_t next = offsetOf(*entry, node) + list.stride();
    if (next < slot->offset || next > slot->offset + slot->size)
      return flow.fail(TREL_RC_DEPENDENT_BOUNDS);
    *entry = at<SNodeInfo_t>(node, next);
    return 0;
  });
}
