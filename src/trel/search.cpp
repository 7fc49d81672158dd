// Searches below a node: by name, by path, by tag.
//
// Lists are read without a latch, so an answer counts only if the lists that it rests on stood
// still: a public search starts again when they did not, kAttempts times at most.
#include "trel/tree.h"
#include "treli/dependent_list.h"
#include "treli/levels.h"
#include "treli/reach.h"

namespace trel {
namespace {

constexpr int kAttempts = 16;

// Reaches the node behind an entry, if it counts for searches. TREL_RC_ENTRY_DIFFERS: it does not.
uint32_t reachSearched(const SNodeInfo_t* entry, SNodeCB_t** child) {
  Reached reached;
  uint32_t rc = reachNode(entry, &reached);
  *child = reached.node;
  switch (rc) {
    case TREL_RC_DISASSOCIATED:
      if (!(reached.node->optionWord0 & TREL_OPTION_RECREATION)) return 0;
      rc = TREL_RC_BEING_RECREATED;
      break;
    case TREL_RC_INITIALISED:
    case TREL_RC_CREATED:
    case TREL_RC_ABANDONED:
      rc = TREL_RC_ENTRY_DIFFERS;
      break;
    default:
      return rc;
  }
  leaveReached(&reached);
  *child = reached.node;
  return rc;
}

// Repeats attempt(&disturbed) until it was not disturbed.
template <class Attempt>
uint32_t undisturbed(Attempt&& attempt) {
  for (int i = 1;; ++i) {
    bool disturbed = false;
    const uint32_t rc = attempt(&disturbed);
    if (!disturbed || i == kAttempts) return rc;
  }
}

struct SearchLevel {
  SNodeCB_t* node;
  DependentWalk walk;
  int32_t stamp;
};

class Search {
 public:
  Search(uint64_t depth, uint64_t limit) : depth_(depth), limit_(limit) {}

  // Calls use(entry, maxIdSize, &done) for each entry below the node, depth first, until it is done
  // or fails. *disturbed: the outcome is not to be relied on.
  template <class Use>
  uint32_t run(SNodeCB_t* node, bool* disturbed, Use&& use) {
    if (const uint32_t rc = enter(node)) return rc;
    bool done = false;
    while (!levels_.empty() && !done) {
      SearchLevel& level = levels_.top();
      SNodeInfo_t* entry = nullptr;
      uint32_t rc = level.walk.next(&entry);
      if (rc == 0 && !entry) {
        *disturbed |= mayHaveChanged(level.node, level.stamp);
        levels_.pop();
        continue;
      }
      SNodeCB_t* child = nullptr;
      if (rc == 0) rc = reachSearched(entry, &child);
      if (rc == TREL_RC_ENTRY_DIFFERS) continue;
      if (rc == 0) level.walk.fetchAhead(entry, child);
      if (rc == 0) rc = use(entry, level.walk.maxIdSize(), &done);
      if (done) *disturbed = mayHaveChanged(level.node, level.stamp);
      if (rc == 0 && !done) rc = enter(child);
      if (rc) {
        for (uint32_t i = 0; i < levels_.count(); ++i)
          *disturbed |= mayHaveChanged(levels_[i].node, levels_[i].stamp);
        return rc;
      }
    }
    return 0;
  }

 private:
  uint32_t enter(SNodeCB_t* node) {
    const SearchLevel fresh = {node, {}, stampOf(node)};
    ExportSlot_t* slot = nullptr;
    if (limit_ && depth_ + levels_.count() >= limit_)
      return sectionOf(node, TREL_EXPORT_DEPENDENT, &slot);
    DependentList list;
    if (const uint32_t rc = locateDependents(node, &list)) return rc;
    if (list.live == 0) return 0;
    if (const uint32_t rc = levels_.push(fresh)) return rc;
    levels_.top().walk = DependentWalk(list);
    return 0;
  }

  uint64_t depth_, limit_;
  Levels<SearchLevel> levels_;
};

uint32_t searchByName(SNodeInfo_t** found, SNodeCB_t* node, uint64_t* foundCount,
                      const SoughtName& name, uint64_t depth, uint64_t limit, bool* disturbed) {
  Search search(depth, limit);
  return search.run(node, disturbed,
                    [&](SNodeInfo_t* entry, uint32_t maxIdSize, bool* done) -> uint32_t {
                      const uint32_t rc = hasName(entry, maxIdSize, name, done);
                      if (rc || !*done) return rc;
                      *found = entry;
                      ++*foundCount;
                      return 0;
                    });
}

struct TagHits {
  SNodeInfo_t** found;
  uint64_t length, returned, total;
};

uint32_t searchByTag(TagHits* hits, SNodeCB_t* node, uint64_t tag, uint64_t depth, uint64_t limit,
                     bool* disturbed) {
  Search search(depth, limit);
  return search.run(node, disturbed, [&](SNodeInfo_t* entry, uint32_t, bool*) -> uint32_t {
    if (entry->nodeTag != tag) return 0;
    ++hits->total;
    if (hits->returned < hits->length) hits->found[hits->returned++] = entry;
    return 0;
  });
}

// Tests one entry of a list with room for identifiers of maxIdSize. A wanted identifier is also
// refused if the child's own list could not hold it.
uint32_t testEntry(SNodeInfo_t* entry, uint32_t maxIdSize, const SoughtName& name,
                   SNodeCB_t** child, ExportSlot_t** slot, uint64_t* hasList) {
  if (const uint32_t rc = reachSearched(entry, child)) return rc;
  if (const uint32_t rc = sectionOf(*child, TREL_EXPORT_DEPENDENT, slot)) return rc;
  *hasList = ((*child)->exports & TREL_EXPORT_DEPENDENT) != 0;
  uint64_t limit = TREL_MAX_ID_SIZE;
  if (*hasList) {
    DependentList list;
    if (const uint32_t rc = locateDependents(*child, &list)) return rc;
    limit = list.maxIdSize;
  }
  if (entry->nodeTag > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
  if (name.idSize > limit || entry->idSize > limit) return TREL_RC_NODE_ID_SIZE;
  if (name.idSize && !name.id) return TREL_RC_ID_NULL;
  bool same = false;
  if (const uint32_t rc = hasName(entry, maxIdSize, name, &same)) return rc;
  return same ? 0 : uint32_t{TREL_RC_ENTRY_DIFFERS};
}

uint32_t checkPathName(const TraverseInfo_t& name) {
  if (name.traverseTag > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
  if (name.traverseIdSize > TREL_MAX_ID_SIZE) return TREL_RC_NODE_ID_SIZE;
  return name.traverseIdSize && !name.traverseId ? uint32_t{TREL_RC_ID_NULL} : 0;
}

uint32_t followPath(SNodeInfo_t** found, SNodeCB_t* node, uint64_t length,
                    const TraverseInfo_t* path, bool* disturbed) {
  for (uint64_t i = 0; i < length; ++i) {
    const int32_t stamp = stampOf(node);
    DependentList list;
    if (const uint32_t rc = locateDependents(node, &list)) return rc;
    if (const uint32_t rc = checkPathName(path[i])) return rc;
    if (list.live == 0) continue;
    const SoughtName name = {path[i].traverseTag, path[i].traverseId, path[i].traverseIdSize};
    DependentWalk walk(list);
    SNodeInfo_t* entry = nullptr;
    SNodeCB_t* child = nullptr;
    uint64_t hasList = 0;
    uint32_t rc = 0;
    do {
      ExportSlot_t* slot = nullptr;
      rc = walk.next(&entry);
      if (rc == 0 && !entry) rc = TREL_RC_NOT_FOUND;
      if (rc == 0) rc = testEntry(entry, list.maxIdSize, name, &child, &slot, &hasList);
    } while (rc == TREL_RC_ENTRY_DIFFERS);
    *disturbed |= mayHaveChanged(node, stamp);
    if (rc) return rc;
    if (i + 1 == length) {
      *found = entry;
      return 0;
    }
    if (!hasList) return TREL_RC_NOT_FOUND;
    node = child;
  }
  return TREL_RC_NOT_FOUND;
}

}  // namespace
}  // namespace trel

using namespace trel;

uint32_t trelFindNodeSoft(SNodeInfo_t** found, SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                          const uint8_t* id, uint64_t depthLimit) {
  return traced(FID_trelFindNodeSoft, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!found) return flow.fail(TREL_RC_NODE_INFO_NULL);
    if (const uint32_t rc = reading(node, 0, accept::any, [] { return 0u; })) return flow.fail(rc);
    if (tag > TREL_MAX_TAG) return flow.fail(TREL_RC_TAG_RANGE);
    if (idSize > TREL_MAX_ID_SIZE) return flow.fail(TREL_RC_NODE_ID_SIZE);
    if (idSize && !id) return flow.fail(TREL_RC_ID_NULL);
    if (depthLimit > kMaxDepth) return flow.fail(TREL_RC_DEPTH_LIMIT);
    return undisturbed([&](bool* disturbed) -> uint32_t {
      uint64_t count = 0;
      SNodeInfo_t* entry = nullptr;
      const uint32_t rc =
          searchByName(&entry, node, &count, {tag, id, idSize}, 0, depthLimit, disturbed);
      if (rc) return rc;
      if (count == 0) return TREL_RC_NOT_FOUND;
      *found = entry;
      return 0;
    });
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
    bool disturbed = false;
    return searchByName(found, node, foundCount, {tag, id, idSize}, depth, depthLimit, &disturbed);
  });
}

uint32_t trelFindNodeHard(SNodeInfo_t** found, SNodeCB_t* node, uint64_t pathLength,
                          const TraverseInfo_t* path, uint64_t depthLimit) {
  return traced(FID_trelFindNodeHard, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!path) return flow.fail(TREL_RC_TRAVERSE_NULL);
    if (!found) return flow.fail(TREL_RC_NODE_INFO_NULL);
    if (const uint32_t rc = reading(node, 0, accept::living, [] { return 0u; }))
      return flow.fail(rc);
    if (depthLimit > kMaxDepth) return flow.fail(TREL_RC_DEPTH_LIMIT);
    if (pathLength > depthLimit) return flow.fail(TREL_RC_PATH_LENGTH);
    ExportSlot_t* slot = nullptr;
    if (const uint32_t rc = sectionOf(node, TREL_EXPORT_DEPENDENT, &slot)) return flow.fail(rc);
    SNodeInfo_t* entry = nullptr;
    const uint32_t rc = undisturbed(
        [&](bool* disturbed) { return followPath(&entry, node, pathLength, path, disturbed); });
    if (rc == 0) *found = entry;
    return rc;
  });
}

uint32_t trelSearchForNodeHard(SNodeInfo_t* entry, SNodeCB_t** child, ExportSlot_t** slot,
                               uint64_t* hasList, uint64_t tag, uint64_t idSize,
                               const uint8_t* id) {
  return traced(FID_trelSearchForNodeHard, [&](const Flow& flow) -> uint32_t {
    if (!entry) return flow.fail(TREL_RC_NODE_INFO_NULL);
    if (!child || !slot) return flow.fail(TREL_RC_NODE_NULL);
    if (!hasList) return flow.fail(TREL_RC_OUT_LIVE_COUNT);
    return testEntry(entry, TREL_MAX_ID_SIZE, {tag, id, idSize}, child, slot, hasList);
  });
}

uint32_t trelFindNodesByTag(SNodeCB_t* node, uint64_t tag, uint64_t depthLimit, uint64_t length,
                            SNodeInfo_t** found, uint64_t* returned, uint64_t* total) {
  return traced(FID_trelFindNodesByTag, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!returned) return flow.fail(TREL_RC_OUT_FOUND_RETURNED);
    if (!total) return flow.fail(TREL_RC_OUT_FOUND_TOTAL);
    if (!found) return flow.fail(TREL_RC_NODE_INFOS_NULL);
    if (const uint32_t rc = reading(node, 0, accept::living, [] { return 0u; }))
      return flow.fail(rc);
    if (tag > TREL_MAX_TAG) return flow.fail(TREL_RC_TAG_RANGE);
    if (depthLimit > kMaxDepth) return flow.fail(TREL_RC_DEPTH_LIMIT);
    if (length == 0 || length > 0x100000) return flow.fail(TREL_RC_ARRAY_LENGTH);
    return undisturbed([&](bool* disturbed) -> uint32_t {
      TagHits hits = {found, length, 0, 0};
      const uint32_t rc = searchByTag(&hits, node, tag, 0, depthLimit, disturbed);
      *returned = hits.returned;
      *total = hits.total;
      return rc || hits.total ? rc : uint32_t{TREL_RC_NOT_FOUND};
    });
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
    TagHits hits = {found, length, *returned, *total};
    bool disturbed = false;
    const uint32_t rc = searchByTag(&hits, node, tag, depth, depthLimit, &disturbed);
    *returned = hits.returned;
    *total = hits.total;
    return rc;
  });
}
