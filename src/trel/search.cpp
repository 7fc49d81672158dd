// Searches below a node: by name, by path, by tag.
#include "trel/tree.h"
#include "treli/recreation.h"
#include "treli/stable_walk.h"

namespace trel {
namespace {

// Reaches the node behind an entry, if it counts for searches. TREL_RC_ENTRY_DIFFERS: it does not.
uint32_t reachSearched(const SNodeInfo_t* entry, Reached* child) {
  uint32_t rc = reachNode(entry, child);
  switch (rc) {
    case TREL_RC_DISASSOCIATED:
      if (isMarkedForRecreation(child->node)) {
        rc = endDeadRecreation(child->node);
        if (rc == 0) rc = lookAtCondition(child->node, accept::usable);
        if (rc) break;
      }
      return keepReached(child);
    case TREL_RC_INITIALISED:
    case TREL_RC_CREATED:
    case TREL_RC_ABANDONED:
      rc = TREL_RC_ENTRY_DIFFERS;
      break;
    default:
      return rc;
  }
  leaveReached(child);
  return rc;
}

// How many entries a search has found, and how many of them it has kept.
struct HitCount {
  uint64_t returned, total;
};

// Keeps up to `length` of the entries that isSought(entry, maxIdSize, &isHit) tells, depth first.
template <class IsSought>
struct Search {
  using Gathered = HitCount;

  SNodeInfo_t** found;
  uint64_t length;
  bool firstOnly;
  bool withNames;
  uint64_t depth, limit;
  IsSought isSought;
  Gathered gathered;

  uint32_t open(uint64_t levels, ListReading* list) {
    Section section;
    if (limit && depth + levels >= limit)
      return openSection(list->node(), TREL_EXPORT_DEPENDENT, &section, list->nodeSize());
    return list->open();
  }

  uint32_t visit(uint64_t, const ListReading& list, const ReadEntry& entry, Reached* below,
                 bool* isOver) {
    Reached child;
    if (const uint32_t rc = reachSearched(entry.stored, &child))
      return rc == TREL_RC_ENTRY_DIFFERS ? 0 : rc;
    list.fetchAhead(entry, child.node);
    bool isHit = false;
    if (const uint32_t rc = isSought(&entry.record, list.maxIdSize(), &isHit)) return rc;
    if (isHit) {
      ++gathered.total;
      if (gathered.returned < length) found[gathered.returned++] = entry.stored;
    }
    *isOver = isHit && firstOnly;
    if (!*isOver) *below = child;
    return 0;
  }

  uint32_t leave(SNodeCB_t*) { return 0; }
};

// The hits are added to *count, those of a search that fails too.
template <class IsSought>
uint32_t search(SNodeCB_t* node, SNodeInfo_t** found, uint64_t length, bool firstOnly,
                bool withNames, uint64_t depth, uint64_t limit, HitCount* count,
                IsSought&& isSought) {
  Search<IsSought&> task = {found, length, firstOnly, withNames, depth, limit, isSought, *count};
  const uint32_t rc = StableWalk<Search<IsSought&>>(&task).run(node);
  *count = task.gathered;
  return rc;
}

uint32_t searchByName(SNodeInfo_t** found, SNodeCB_t* node, uint64_t* foundCount,
                      const SoughtName& name, uint64_t depth, uint64_t limit) {
  SNodeInfo_t* entry = nullptr;
  HitCount count = {0, 0};
  const uint32_t rc = search(node, &entry, 1, true, name.idSize != 0, depth, limit, &count,
                             [&](const SNodeInfo_t* candidate, uint32_t maxIdSize, bool* isHit) {
                               return hasName(candidate, maxIdSize, name, isHit);
                             });
  if (rc || count.total == 0) return rc;
  *found = entry;
  *foundCount += count.total;
  return 0;
}

uint32_t searchByTag(SNodeInfo_t** found, SNodeCB_t* node, uint64_t tag, uint64_t length,
                     uint64_t depth, uint64_t limit, HitCount* count) {
  return search(node, found, length, false, false, depth, limit, count,
                [&](const SNodeInfo_t* entry, uint32_t, bool* isHit) {
                  *isHit = entry->nodeTag == tag;
                  return 0u;
                });
}

// Tests one entry, `read` from a list with room for identifiers of maxIdSize. A wanted identifier
// is also refused if the child's own list could not hold it.
uint32_t testEntry(const SNodeInfo_t* entry, const SNodeInfo_t* read, uint32_t maxIdSize,
                   const SoughtName& name, Reached* child, ExportSlot_t** slot, uint64_t* hasList) {
  if (const uint32_t rc = reachSearched(entry, child)) return rc;
  DependentList list;
  if (const uint32_t rc = openSection(child->node, TREL_EXPORT_DEPENDENT, &list, child->size))
    return rc;
  *slot = &child->node->exportTable[slotNumber(TREL_EXPORT_DEPENDENT)];
  *hasList = (child->node->exports & TREL_EXPORT_DEPENDENT) != 0;
  uint64_t limit = TREL_MAX_ID_SIZE;
  if (*hasList) {
    if (const uint32_t rc = locateDependents(child->node, child->size, &list)) return rc;
    limit = list.maxIdSize;
  }
  if (read->nodeTag > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
  if (name.idSize > limit || read->idSize > limit) return TREL_RC_NODE_ID_SIZE;
  if (name.idSize && !name.id) return TREL_RC_ID_NULL;
  bool same = false;
  if (const uint32_t rc = hasName(read, maxIdSize, name, &same)) return rc;
  return same ? 0 : uint32_t{TREL_RC_ENTRY_DIFFERS};
}

// How long the identifier of an entry may be whose list is not known.
uint32_t roomForId(const SNodeInfo_t* entry) {
  const uint64_t mapped = bytesMappedFrom(entry), idSize = entry->idSize;
  return mapped >= sizeof *entry && idSize <= mapped - sizeof *entry ? TREL_MAX_ID_SIZE : 0;
}

uint32_t checkPathName(const TraverseInfo_t& name) {
  if (name.traverseTag > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
  if (name.traverseIdSize > TREL_MAX_ID_SIZE) return TREL_RC_NODE_ID_SIZE;
  return name.traverseIdSize && !name.traverseId ? uint32_t{TREL_RC_ID_NULL} : 0;
}

// Follows one name at each level, and comes back from none. An empty list leads nowhere: the path
// stays at its node.
struct PathSearch {
  struct Gathered {};

  const TraverseInfo_t* path;
  uint64_t length;
  SNodeInfo_t* found;
  Gathered gathered;
  const bool withNames = true;

  uint32_t open(uint64_t depth, ListReading* list) {
    if (depth && !(list->node()->exports & TREL_EXPORT_DEPENDENT)) return TREL_RC_NOT_FOUND;
    if (const uint32_t rc = list->open()) return rc;
    do {
      if (const uint32_t rc = checkPathName(path[depth])) return rc;
    } while (list->live() == 0 && ++depth < length);
    return 0;
  }

  uint32_t visit(uint64_t depth, const ListReading& list, const ReadEntry& entry, Reached* below,
                 bool* isOver) {
    const SoughtName name = {path[depth].traverseTag, path[depth].traverseId,
                             path[depth].traverseIdSize};
    Reached child;
    ExportSlot_t* slot = nullptr;
    uint64_t hasList = 0;
    if (const uint32_t rc =
            testEntry(entry.stored, &entry.record, list.maxIdSize(), name, &child, &slot, &hasList))
      return rc == TREL_RC_ENTRY_DIFFERS ? 0 : rc;
    *isOver = depth + 1 == length;
    if (*isOver) {
      found = entry.stored;
    } else {
      *below = child;
    }
    return 0;
  }

  uint32_t leave(SNodeCB_t*) { return TREL_RC_NOT_FOUND; }
};

}  // namespace
}  // namespace trel

using namespace trel;

uint32_t trelFindNodeSoft(SNodeInfo_t** found, SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                          const uint8_t* id, uint64_t depthLimit) {
  return traced(FID_trelFindNodeSoft, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!found) return flow.fail(TREL_RC_NODE_INFO_NULL);
    if (const uint32_t rc = lookAtCondition(node, accept::any)) return flow.fail(rc);
    if (tag > TREL_MAX_TAG) return flow.fail(TREL_RC_TAG_RANGE);
    if (idSize > TREL_MAX_ID_SIZE) return flow.fail(TREL_RC_NODE_ID_SIZE);
    if (idSize && !id) return flow.fail(TREL_RC_ID_NULL);
    if (depthLimit > kMaxDepth) return flow.fail(TREL_RC_DEPTH_LIMIT);
    uint64_t count = 0;
    if (const uint32_t rc = searchByName(found, node, &count, {tag, id, idSize}, 0, depthLimit))
      return rc;
    return count ? 0 : uint32_t{TREL_RC_NOT_FOUND};
  });
}

uint32_t trelSearchForNodeSoft(SNodeInfo_t** found, SNodeCB_t* node, uint64_t* foundCount,
                               uint64_t tag, uint64_t idSize, const uint8_t* id, uint64_t depth,
                               uint64_t depthLimit) {
  return traced(FID_trelSearchForNodeSoft, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!found) return flow.fail(TREL_RC_NODE_INFO_NULL);
    if (!foundCount) return flow.fail(TREL_RC_OUT_FOUND_TOTAL);
    if (idSize && !id) return flow.fail(TREL_RC_ID_NULL);
    return searchByName(found, node, foundCount, {tag, id, idSize}, depth, depthLimit);
  });
}

uint32_t trelFindNodeHard(SNodeInfo_t** found, SNodeCB_t* node, uint64_t pathLength,
                          const TraverseInfo_t* path, uint64_t depthLimit) {
  return traced(FID_trelFindNodeHard, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!path) return flow.fail(TREL_RC_TRAVERSE_NULL);
    if (!found) return flow.fail(TREL_RC_NODE_INFO_NULL);
    if (const uint32_t rc = lookAtCondition(node, accept::living)) return flow.fail(rc);
    if (depthLimit > kMaxDepth) return flow.fail(TREL_RC_DEPTH_LIMIT);
    if (pathLength > depthLimit) return flow.fail(TREL_RC_PATH_LENGTH);
    Section section;
    if (const uint32_t rc = openSection(node, TREL_EXPORT_DEPENDENT, &section))
      return flow.fail(rc);
    if (pathLength == 0) return flow.fail(TREL_RC_NOT_FOUND);
    PathSearch search = {path, pathLength, nullptr, {}};
    if (const uint32_t rc = StableWalk<PathSearch>(&search).run(node)) return rc;
    *found = search.found;
    return 0;
  });
}

uint32_t trelSearchForNodeHard(SNodeInfo_t* entry, SNodeCB_t** child, ExportSlot_t** slot,
                               uint64_t* hasList, uint64_t tag, uint64_t idSize,
                               const uint8_t* id) {
  return traced(FID_trelSearchForNodeHard, [&](const Flow& flow) -> uint32_t {
    if (!entry) return flow.fail(TREL_RC_NODE_INFO_NULL);
    if (!child || !slot) return flow.fail(TREL_RC_NODE_NULL);
    if (!hasList) return flow.fail(TREL_RC_OUT_LIVE_COUNT);
    const Look look;
    Reached reached;
    const uint32_t rc =
        testEntry(entry, entry, roomForId(entry), {tag, id, idSize}, &reached, slot, hasList);
    *child = reached.node;
    return rc;
  });
}

uint32_t trelFindNodesByTag(SNodeCB_t* node, uint64_t tag, uint64_t depthLimit, uint64_t length,
                            SNodeInfo_t** found, uint64_t* returned, uint64_t* total) {
  return traced(FID_trelFindNodesByTag, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!returned) return flow.fail(TREL_RC_OUT_FOUND_RETURNED);
    if (!total) return flow.fail(TREL_RC_OUT_FOUND_TOTAL);
    if (!found) return flow.fail(TREL_RC_NODE_INFOS_NULL);
    if (const uint32_t rc = lookAtCondition(node, accept::living)) return flow.fail(rc);
    if (tag > TREL_MAX_TAG) return flow.fail(TREL_RC_TAG_RANGE);
    if (depthLimit > kMaxDepth) return flow.fail(TREL_RC_DEPTH_LIMIT);
    if (length == 0 || length > 0x100000) return flow.fail(TREL_RC_ARRAY_LENGTH);
    HitCount count = {0, 0};
    const uint32_t rc = searchByTag(found, node, tag, length, 0, depthLimit, &count);
    *returned = count.returned;
    *total = count.total;
    return rc || count.total ? rc : uint32_t{TREL_RC_NOT_FOUND};
  });
}

uint32_t trelSearchForNodeByTag(SNodeInfo_t** found, SNodeCB_t* node, uint64_t tag, uint64_t length,
                                uint64_t depth, uint64_t depthLimit, uint64_t* returned,
                                uint64_t* total) {
  return traced(FID_trelSearchForNodeByTag, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!returned) return flow.fail(TREL_RC_OUT_FOUND_RETURNED);
    if (!total) return flow.fail(TREL_RC_OUT_FOUND_TOTAL);
    if (!found) return flow.fail(TREL_RC_NODE_INFOS_NULL);
    HitCount count = {*returned, *total};
    const uint32_t rc = searchByTag(found, node, tag, length, depth, depthLimit, &count);
    *returned = count.returned;
    *total = count.total;
    return rc;
  });
}
