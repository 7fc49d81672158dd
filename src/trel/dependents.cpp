// The list of a node's dependents, and the record of its parent.
#include "trel/tree.h"
#include "treli/dependent_list.h"
#include "treli/node_record.h"
#include "trelshm/process_memory.h"
#include "trelshm/store.h"

namespace trel {
namespace {

// Turns the node's list on, if its section has room for one entry. The caller is inside.
uint32_t exportList(const DependentList& list, uint64_t maxIdSize) {
  if (once(list.node->exports) & TREL_EXPORT_DEPENDENT) return 0;
  if (list.size < kDependentHeader + sizeof(SNodeInfo_t) + maxIdSize)
    return TREL_RC_DEPENDENT_SECTION_SMALL;
  exportDependents(list.node, true);
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

void fillList(DependentList* list, const NewEntries& given, uint64_t maxIdSize) {
  clearDependents(list, maxIdSize);
  const uint64_t stride = maxIdSize + sizeof(SNodeInfo_t);
  const uint8_t* id = given.ids;
  for (uint64_t i = 0; i < given.count; ++i) {
    storeDependent(list->node, list->at<SNodeInfo_t>(list->used), &given.records[i], id,
                   given.sizes[i]);
    list->setUsed(list->used + stride);
    id += given.sizes[i];
  }
}

// Copies one entry out, with its identifier, into a slot of the caller's. The base that the record
// counts from is that of the mapping; only in memory of the caller's own the record itself tells.
uint32_t copyOut(const SNodeInfo_t* entry, uint32_t maxIdSize, SNodeInfo_t* record, uint8_t* id,
                 uint64_t idSlotSize) {
  SNodeInfo_t copy = copyOnce(entry);
  const void* start = at<void>(entry, 0 - copy.selfOffset);
  startOfMapping(entry, &start);
  copy.segBase = offsetOf(start, nullptr);
  copy.selfOffset = 0;
  *record = copy;
  if (copy.idSize > maxIdSize) return TREL_RC_ID_BOUNDS;
  if (copy.idSize > idSlotSize) return TREL_RC_PROPERTY_ID_SIZE;
  if (copy.idSize) memcpy(id, idOf(entry), static_cast<size_t>(copy.idSize));
  return 0;
}

// The tests of a list that is read and must hold something.
uint32_t checkFilled(const DependentList& list, uint32_t empty) {
  if (list.live == 0) return empty;
  return list.live > TREL_MAX_DEPENDENTS ? uint32_t{TREL_RC_DEPENDENT_COUNT} : 0;
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
    const NewEntries given = {records, sizes, ids, count};
    return within<Access::write>(node, inCriticalSection, [&]() -> uint32_t {
      DependentList list;
      if (const uint32_t rc = openSection(node, TREL_EXPORT_DEPENDENT, &list)) return flow.fail(rc);
      if (count == 0) {
        if (const uint32_t rc = checkCondition(node, accept::settled)) return flow.fail(rc);
        if (const uint32_t rc = exportList(list, maximum)) return flow.fail(rc);
        if (list.size < kDependentHeader) return flow.fail(TREL_RC_DEPENDENT_SECTION_SMALL);
        clearDependents(&list, maximum);
        return 0;
      }
      if (const uint32_t rc = exportList(list, maximum)) return flow.fail(rc);
      if (kDependentHeader + (maximum + sizeof(SNodeInfo_t)) * count > list.size)
        return flow.fail(TREL_RC_DEPENDENTS_FULL);
      if (const uint32_t rc = checkEntries(given, maximum)) return flow.fail(rc);
      if (const uint32_t rc = checkCondition(node, accept::settled)) return flow.fail(rc);
      fillList(&list, given, maximum);
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
      Section section;
      if (const uint32_t rc = openSection(node, TREL_EXPORT_PARENT, &section)) return flow.fail(rc);
      if (section.size < sizeof(ParentSection_t)) return flow.fail(TREL_RC_SLOT_USED);
      auto* stored = section.at<ParentSection_t>();
      const uint64_t maxIdSize = once(stored->maxIdSize);
      if (maxIdSize > TREL_MAX_ID_SIZE) return flow.fail(TREL_RC_NODE_ID_MAX);
      if (idSize > maxIdSize) return flow.fail(TREL_RC_NODE_ID_SIZE);
      if (idSize != 0 && !id) return flow.fail(TREL_RC_ID_NULL);
      if (section.size < sizeof *stored + idSize) return flow.fail(TREL_RC_SLOT_USED);
      // No parent while it changes.
      storeUsed(&section, TREL_EXPORT_PARENT, offsetof(ParentSection_t, parent));
      storeDependent(node, &stored->parent, record, id, idSize);
      storeUsed(&section, TREL_EXPORT_PARENT, sizeof *stored + idSize);
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
    uint64_t count = 0, total = 0;
    const uint32_t rc = looking(node, inCriticalSection, [&]() -> uint32_t {
      DependentList list;
      if (const uint32_t failure = locateDependents(node, &list)) return flow.fail(failure);
      if (idSlotSize > list.maxIdSize) return flow.fail(TREL_RC_ID_STRIDE);
      if (const uint32_t failure = checkCondition(node, accept::any)) return flow.fail(failure);
      if (const uint32_t failure = checkFilled(list, TREL_RC_DEPENDENTS_EMPTY))
        return flow.fail(failure);
      total = list.live;
      count = total < length ? total : length;
      DependentWalk walk(list);
      for (uint64_t i = 0; i < count; ++i) {
        SNodeInfo_t* entry = nullptr;
        if (const uint32_t failure = walk.next(&entry)) return flow.fail(failure);
        if (const uint32_t failure =
                copyOut(entry, list.maxIdSize, &records[i], ids + i * idSlotSize, idSlotSize))
          return flow.fail(failure);
      }
      return 0;
    });
    if (rc) return rc;
    *returned = count;
    *live = total;
    return 0;
  });
}

uint32_t trelDeleteDependentNodesArray(void** block) {
  return traced(FID_trelDeleteDependentNodesArray, [&](const Flow& flow) -> uint32_t {
    if (!block || !*block) return flow.fail(TREL_RC_NODE_INFOS_NULL);
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
    const uint32_t rc = looking(node, inCriticalSection, [&]() -> uint32_t {
      const uint32_t failure = locateDependents(node, &list);
      return failure ? failure : checkCondition(node, accept::any);
    });
    if (rc) return flow.fail(rc);
    *live = list.live;
    *capacity = list.capacity();
    return 0;
  });
}

uint32_t trelFindDependentNode(SNodeInfo_t** entry, SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                               const uint8_t* id, uint64_t inCriticalSection) {
  return traced(FID_trelFindDependentNode, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!entry) return flow.fail(TREL_RC_NODE_INFO_NULL);
    if (idSize != 0 && !id) return flow.fail(TREL_RC_ID_NULL);
    FoundDependent found;
    const uint32_t rc = looking(node, inCriticalSection, [&]() -> uint32_t {
      DependentList list;
      found = {};
      if (const uint32_t failure = locateDependents(node, &list)) return failure;
      if (const uint32_t failure = checkCondition(node, accept::any)) return failure;
      if (const uint32_t failure = checkFilled(list, TREL_RC_DEPENDENT_ABSENT)) return failure;
      return findDependent(list, {tag, id, idSize}, &found);
    });
    if (rc) return flow.fail(rc);
    if (!found.entry) return flow.fail(TREL_RC_DEPENDENT_ABSENT);
    *entry = found.entry;
    return 0;
  });
}

uint32_t trelGetMaxIDSizeForDependentNode(SNodeCB_t* node, uint32_t exportBit,
                                          uint64_t* maxIdSize) {
  return traced(FID_trelGetMaxIDSizeForDependentNode, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!maxIdSize) return flow.fail(TREL_RC_OUT_DEPENDENT_ID_MAX);
    if (exportBit != TREL_EXPORT_DEPENDENT) return flow.fail(TREL_RC_EXPORT_BIT);
    DependentList list;
    if (once(node->exports) & TREL_EXPORT_DEPENDENT)  // else 0, whatever the slot holds
      if (const uint32_t rc = locateDependents(node, &list)) return flow.fail(rc);
    *maxIdSize = list.maxIdSize;
    return 0;
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
    const uint64_t offset = once(slot->offset);
    if (next < offset || next > offset + once(slot->size))
      return flow.fail(TREL_RC_DEPENDENT_BOUNDS);
    *entry = at<SNodeInfo_t>(node, next);
    return 0;
  });
}
