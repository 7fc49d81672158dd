// Walks over whole trees, children before their parent: status operations and sums.
//
// A sum is of lists that stood still while they were read. A status operation changes what it walks
// over, so it goes on from where it stands, whatever others do; a list that has changed meanwhile
// may end early.
#include "treli/tree_walk.h"

#include "trel/node.h"
#include "trel/tree.h"
#include "treli/stable_walk.h"

namespace trel {
namespace {

// The entry of a node in its parent's list, found before the node goes.
struct ParentEntry {
  SNodeCB_t* parent = nullptr;
  SeenEntry seen;

  uint32_t find(SNodeCB_t* node);
  uint32_t remove() const;
};

// A node whose children are being walked.
struct WalkLevel {
  SNodeCB_t* node;
  uint64_t size;              // of the node, as tested
  ShmSegInfo_t* segment;      // the node's
  ShmSegInfo_t* walkSegment;  // the one that TREL_WALK_ONE_SEGMENT means
  uint64_t depth;
  uint32_t options;
  const ParentEntry* parent = nullptr;  // that goes with the node
  int32_t stamp = 0;
  DependentWalk walk = {};
};

// Begins at the children of a node, if they lie within the limit.
uint32_t openDependents(SNodeCB_t* node, uint64_t nodeSize, uint64_t depth, uint64_t limit,
                        DependentWalk* walk) {
  if (!(node->exports & TREL_EXPORT_DEPENDENT) || (limit && depth >= limit)) return 0;
  DependentList list;
  if (const uint32_t rc = locateDependents(node, nodeSize, &list)) return rc;
  *walk = DependentWalk(list);
  return 0;
}

// trelGetNodeCondition.
uint32_t readCondition(const SNodeCB_t* node, uint32_t* condition) {
  *condition = node->condition;
  const bool isOne =
      *condition >= TREL_CONDITION_CREATED && *condition <= TREL_CONDITION_DISASSOCIATED;
  return isOne ? 0 : uint32_t{TREL_RC_CONDITION};
}

// Reaches the node behind an entry, whatever its condition; *refusal gets the code of a condition
// other than active. *inside: the walk may go there. What it passes over is left.
uint32_t reachWalked(const DependentWalk& walk, const SNodeInfo_t* entry, ShmSegInfo_t* walkSegment,
                     uint32_t options, bool passesAbandoned, Reached* child, bool* inside,
                     uint32_t* refusal) {
  uint32_t otherSegment = 0;
  *refusal = reachNode(entry, child, walkSegment, &otherSegment, options);
  if (*refusal && !isRefusedCondition(*refusal)) return *refusal;
  *inside = otherSegment == 0 && !(passesAbandoned && *refusal == TREL_RC_ABANDONED);
  if (*inside) {
    walk.fetchAhead(entry, child->node);
    keepReached(child);
  } else {
    leaveReached(child);
  }
  return 0;
}

class StatusWalk {
 public:
  StatusWalk(uint32_t operation, uint64_t limit) : operation_(operation), limit_(limit) {}

  uint32_t run(SNodeCB_t** node, ShmSegInfo_t* segment, ShmSegInfo_t* walkSegment, uint64_t depth,
               uint32_t options, const ParentEntry* parent) {
    WalkLevel top = {*node, (*node)->nodeSize, segment, walkSegment, depth, options, parent};
    uint32_t rc = enter(&top);
    while (rc == 0 && !levels_.empty()) {
      WalkLevel& level = levels_.top();
      SNodeInfo_t* entry = nullptr;
      rc = level.walk.next(&entry);
      if (rc && (hasBeenEmptied(level.node, level.size) || mayHaveChanged(level.node, level.stamp)))
        rc = 0;
      if (rc == 0 && entry) {
        WalkLevel below = {};
        rc = treat(level, entry, &below);
        if (rc == 0 && below.node) rc = enter(&below);
      } else if (rc == 0) {
        rc = apply(&level);
        if (levels_.count() == 1) top = level;  // without its node, if that was given back
        levels_.pop();
      }
    }
    *node = top.node;
    return rc;
  }

 private:
  uint32_t enter(WalkLevel* level) {
    if (levels_.isFull()) return TREL_RC_DEPTH_LIMIT;
    level->stamp = stampOf(level->node);
    if (const uint32_t rc =
            openDependents(level->node, level->size, level->depth, limit_, &level->walk))
      return rc;
    return level->walk.isDone() ? apply(level) : levels_.push(*level);
  }

  static bool selects(uint32_t options, uint32_t condition) {
    return options & (TREL_WALK_ALL | 1u << condition);
  }

  uint32_t treat(WalkLevel& level, SNodeInfo_t* entry, WalkLevel* below) {
    Reached child;
    bool inside = false;
    uint32_t refusal = 0;
    const SeenEntry seen(entry);
    if (const uint32_t rc =
            reachWalked(level.walk, entry, level.walkSegment, level.options,
                        operation_ != TREL_STATUS_DISCLAIM, &child, &inside, &refusal))
      return seen.stands() ? rc : 0;  // else taken off the list meanwhile
    if (!inside) return 0;
    if (operation_ == TREL_STATUS_DISCLAIM) {
      if (refusal == TREL_RC_ABANDONED) return remove(entry, child, TREL_WALK_ALL, below);
      uint32_t condition = 0;
      if (const uint32_t rc = readCondition(child.node, &condition)) return rc;
      if (selects(level.options, condition)) return remove(entry, child, 0, below);
      if (isOnPath(child.node)) return TREL_RC_DEPTH_LIMIT;
    }
    *below = {child.node,        child.size,      child.segInfo,
              level.walkSegment, level.depth + 1, level.options};
    return 0;
  }

  // Takes the child off the list, then begins with it as the top of a tree of its own.
  // What could hinder that is found out before.
  uint32_t remove(SNodeInfo_t* entry, const Reached& child, uint32_t added, WalkLevel* below) {
    if (limit_ > kMaxDepth || isOnPath(child.node)) return TREL_RC_DEPTH_LIMIT;
    if (levels_.isFull()) return TREL_RC_DEPTH_LIMIT;
    WalkLevel& level = levels_.top();
    const uint32_t options = (level.options | added) & ~TREL_WALK_REMOVE_TOP;
    if (const uint32_t rc = reading(level.node, 0, accept::any, [] { return 0u; })) return rc;
    if (const uint32_t rc = unlinkChild(level.node, entry, child.node)) return rc;
    level.stamp = static_cast<int32_t>(static_cast<uint32_t>(level.stamp) + 1);  // this change
    if (const uint32_t rc = reading(child.node, 0, accept::any, [] { return 0u; })) return rc;
    *below = {child.node, child.size, child.segInfo, child.segInfo, 1, options};
    return 0;
  }

  // In a cycle a node would be given back while its own children are walked.
  bool isOnPath(const SNodeCB_t* node) {
    for (uint32_t i = 0; i < levels_.count(); ++i)
      if (levels_[i].node == node) return true;
    return false;
  }

  uint32_t apply(WalkLevel* level) const {
    uint32_t condition = 0;
    if (const uint32_t rc = readCondition(level->node, &condition)) return rc;
    if (operation_ < TREL_STATUS_ACTIVATE || operation_ > TREL_STATUS_UPDATE)
      return TREL_RC_STATUS_OPERATION;
    if (operation_ == TREL_STATUS_UPDATE) {
      const bool selected = level->options & (1u << TREL_CONDITION_ACTIVE | 1u << condition);
      return selected ? trelUpdateNodeStatus(level->node) : 0;
    }
    if (!selects(level->options, condition)) return 0;
    switch (operation_) {
      case TREL_STATUS_ACTIVATE:
        return trelActivateNode(&level->node);
      case TREL_STATUS_ABANDON:
        return trelAbandonNode(&level->node);
      case TREL_STATUS_DISASSOCIATE:
        return trelDisassociateNode(&level->node);
      default:
        if (!level->segment) return TREL_RC_SEGMENT_NULL;
        if (level->parent) {
          if (const uint32_t rc = level->parent->remove()) return rc;
        }
        return trelDisclaimNode(&level->node, level->segment->shmPoolHandle,
                                level->segment->identity.handleVersion);
    }
  }

  uint32_t operation_;
  uint64_t limit_;
  TraversalStack<WalkLevel> levels_;
};

uint32_t ParentEntry::find(SNodeCB_t* node) {
  SNodeInfo_t* record = nullptr;
  if (const uint32_t rc = parentRecordOf(node, &record)) return rc;
  SoughtName name = {node->tag, nullptr, 0, true};
  uint8_t* id = nullptr;
  if (const uint32_t rc = trelGetNodeID(node, &id, &name.idSize, 0)) return rc;
  name.id = id;
  if (const uint32_t rc = nodeBehind(record, &parent)) return rc;
  DependentList list;
  if (const uint32_t rc = locateDependents(parent, &list)) return rc;
  return writing(parent, 0, accept::any, [&]() -> uint32_t {
    if (locateDependents(parent, &list) || list.live == 0) return TREL_RC_DEPENDENT_ABSENT;
    if (list.live > TREL_MAX_DEPENDENTS) return TREL_RC_DEPENDENT_COUNT;
    FoundDependent found;
    if (const uint32_t rc = findDependent(list, name, &found)) return rc;
    if (!found.entry) return TREL_RC_DEPENDENT_ABSENT;
    seen = SeenEntry(found.entry);
    return 0;
  });
}

uint32_t ParentEntry::remove() const {
  return writing(parent, 0, accept::any, [&]() -> uint32_t {
    DependentList list;
    if (const uint32_t rc = locateDependents(parent, &list)) return rc;
    if (list.live == 0) return TREL_RC_DEPENDENTS_EMPTY;
    if (!seen.stands()) return TREL_RC_DEPENDENT_ABSENT;
    return removeDependent(list, seen.entry);
  });
}

// Adds one node to the sums.
uint32_t count(SNodeCB_t* node, uint64_t tag, TreeInfo_t* info) {
  uint32_t condition = 0;
  if (const uint32_t rc = readCondition(node, &condition)) return rc;
  struct Sums {
    uint64_t TreeInfo_t::*bytes;
    uint32_t TreeInfo_t::*nodes;
  };
  static constexpr Sums kByCondition[] = {
      {&TreeInfo_t::createdBytes, &TreeInfo_t::createdNodes},
      {&TreeInfo_t::initialisedBytes, &TreeInfo_t::initialisedNodes},
      {&TreeInfo_t::activeBytes, &TreeInfo_t::activeNodes},
      {&TreeInfo_t::abandonedBytes, &TreeInfo_t::abandonedNodes},
      {&TreeInfo_t::disassociatedBytes, &TreeInfo_t::disassociatedNodes}};
  const Sums& sums = kByCondition[condition - 1];
  const uint64_t size = node->nodeSize;
  info->totalBytes += size;
  info->*sums.bytes += size;
  ++info->totalNodes;
  ++(info->*sums.nodes);
  if (tag != 0 && node->tag == tag) ++info->taggedNodes;
  return 0;
}

struct TreeSum {
  using Gathered = TreeInfo_t;

  ShmSegInfo_t* walkSegment;
  uint32_t options;
  uint64_t tag, depth, limit;
  Gathered gathered;

  uint32_t open(SNodeCB_t* node, uint64_t nodeSize, uint64_t levels, DependentWalk* walk) {
    return openDependents(node, nodeSize, depth + levels, limit, walk);
  }
  uint32_t visit(uint64_t, const DependentWalk& walk, const SNodeInfo_t* entry, Reached* below,
                 bool*) {
    Reached child;
    bool inside = false;
    uint32_t refusal = 0;
    if (const uint32_t rc =
            reachWalked(walk, entry, walkSegment, options, false, &child, &inside, &refusal))
      return rc;
    if (inside) *below = child;
    return 0;
  }
  uint32_t leave(SNodeCB_t* node) { return count(node, tag, &gathered); }
};

// The stored entry of which the record is a copy, or itself. Both count from the same base, so
// equal offsets mean the same node.
uint32_t findStored(const DependentList& list, const SNodeInfo_t& record, FoundDependent* found) {
  found->walk = DependentWalk(list);
  for (;;) {
    if (const uint32_t rc = found->walk.next(&found->entry)) return rc;
    const SNodeInfo_t* entry = found->entry;
    if (!entry || (entry->nodeOffset == record.nodeOffset && entry->nodeTag == record.nodeTag &&
                   entry->idSize == record.idSize && entry->segInfoOffset == record.segInfoOffset))
      return 0;
  }
}

}  // namespace

uint32_t setStatusOfTree(SNodeCB_t* node, ShmSegInfo_t* segment, uint64_t depthLimit,
                         uint32_t operation, uint32_t options) {
  if (!node) return TREL_RC_NODE_NULL;
  if (!segment) return TREL_RC_SEGMENT_NULL;
  const uint32_t mask = operation == TREL_STATUS_DISCLAIM ? accept::any : accept::living;
  if (const uint32_t rc = reading(node, 0, mask, [] { return 0u; })) return rc;
  if (depthLimit > kMaxDepth) return TREL_RC_DEPTH_LIMIT;
  const bool removeTop = operation == TREL_STATUS_DISCLAIM && (options & TREL_WALK_REMOVE_TOP) &&
                         (node->exports & TREL_EXPORT_PARENT);
  ParentEntry parent;
  if (removeTop) {
    if (const uint32_t rc = parent.find(node)) return rc;
  }
  StatusWalk status(operation, depthLimit);
  return status.run(&node, segment, segment, 1, options, removeTop ? &parent : nullptr);
}

uint32_t setStatusFrom(SNodeCB_t** node, ShmSegInfo_t* segment, ShmSegInfo_t* walkSegment,
                       uint64_t depth, uint64_t depthLimit, uint32_t operation, uint32_t options) {
  StatusWalk status(operation, depthLimit);
  return status.run(node, segment, walkSegment, depth, options, nullptr);
}

uint32_t addUpTree(SNodeCB_t* node, ShmSegInfo_t* walkSegment, uint32_t options, uint64_t tag,
                   uint64_t depth, uint64_t limit, TreeInfo_t* info) {
  TreeSum sum = {walkSegment, options, tag, depth, limit, *info};
  const uint32_t rc = StableWalk<TreeSum>(&sum).run(node);
  *info = sum.gathered;
  return rc;
}

// The name is exact here: without an identifier a sibling of the same tag must not go instead.
uint32_t unlinkChild(SNodeCB_t* parent, const SNodeInfo_t* record, SNodeCB_t* child) {
  const SNodeInfo_t sought = *record;
  uint8_t* id = nullptr;
  uint64_t idSize = 0;
  const uint32_t rc = trelGetNodeID(child, &id, &idSize, 0);
  const bool isUnnamed = rc == TREL_RC_CREATED || rc == TREL_RC_INITIALISED;  // not told yet
  if (rc && !isUnnamed) return rc;
  if (!isUnnamed && idSize != sought.idSize) return TREL_RC_COMPARE_ID_SIZE;
  return writing(parent, 0, accept::any, [&] {
    return removeFound(parent, [&](const DependentList& list, FoundDependent* found) {
      return isUnnamed ? findStored(list, sought, found)
                       : findDependent(list, {sought.nodeTag, id, idSize, true}, found);
    });
  });
}

}  // namespace trel
