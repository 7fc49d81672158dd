#include "treli/tree_walk_copy.h"

#include "trel/copy.h"
#include "trel/node.h"
#include "trel/segment.h"
#include "treli/reach.h"

namespace trel {
namespace {

// A node whose dependents are being gone through.
struct Level {
  SNodeCB_t* node;
  ShmSegInfo_t* segInfo;
  SNodeCB_t* copy;
  ParentPlace place;  // of the copy, for the parent records of its children
  uint64_t depth;
  uint64_t position;  // of the next entry's place in the list
  uint32_t seen;      // live entries so far
  int32_t stamp;      // of the list when its walk began
  bool leftOut;       // a dependent was found abandoned or unselected
};

struct Child {
  Reached reached;
  const HdmModuleRecord_t* module = nullptr;
  bool passedOver = false;
};

class Walk {
 public:
  explicit Walk(const TreePass& pass) : pass_(pass) {
    if (fromProcessMemory()) levels_.budget().lift();
  }

  uint32_t run(const NodeCopy& name, TreeTop* top) {
    Level level = {top->node, top->segInfo, nullptr, {}, top->depth, 0, 0, 0, false};
    if (const uint32_t rc = visit(name, &level, &top->leftOut)) return rc;
    top->copy = level.copy;
    if (top->leftOut) return 0;
    if (const uint32_t rc = descend(level)) return rc;
    while (!levels_.empty()) {
      bool found = false;
      if (const uint32_t rc = takeEntry(&levels_.top(), &found)) return rc;
      if (found) {
        if (const uint32_t rc = visitChild(levels_.top())) return rc;
      } else {
        finish(levels_.top());
        levels_.pop();
      }
    }
    return 0;
  }

 private:
  bool copies() const { return pass_.totalSize != nullptr; }
  bool fromProcessMemory() const { return pass_.copyDirection == TREL_COPY_PM_TO_SHM; }

  bool selects(uint32_t condition) const {
    return (pass_.copyFlags & TREL_TREE_COPY_ALL) || (pass_.copyFlags >> condition & 1);
  }

  // Judges a node, and copies it.
  uint32_t visit(const NodeCopy& name, Level* level, bool* leftOut) {
    uint32_t condition = 0;
    if (const uint32_t rc = trelGetNodeCondition(level->node, &condition)) return rc;
    *leftOut = condition == TREL_CONDITION_ABANDONED || (copies() && !selects(condition));
    if (*leftOut || !copies()) return 0;
    SNodeCB_t* copy = nullptr;
    uint64_t size = 0;
    if (const uint32_t rc = copyNode(name, TREL_COPY_DEPENDENTS_EMPTY, &copy, &size)) {
      if (pass_.copyDirection == TREL_COPY_SHM_TO_PM) release(&copy);
      return rc;
    }
    *pass_.totalSize += size;
    level->copy = copy;
    // Only a rehearsal has no record to fill. NOLINTNEXTLINE(clang-analyzer-core.NullDereference)
    level->place = {name.info->nodeOffset, name.info->segInfoOffset, name.info->hdmInfoOffset,
                    name.info->segBase};
    return 0;
  }

  uint32_t descend(const Level& level) {
    if (!(level.node->exports & TREL_EXPORT_DEPENDENT)) return 0;
    if (pass_.maxDepth && level.depth >= pass_.maxDepth) return 0;
    // A list that the node has got since it was copied comes too late.
    if (copies() && pass_.copyLimits == TREL_COPY_LIMITS_KEEP &&
        !(level.copy->exports & TREL_EXPORT_DEPENDENT))
      return 0;
    Level below = level;
    below.stamp = stampOf(level.node);
    below.position = kDependentHeader;
    return levels_.push(below);
  }

  // Takes the next live entry out. While the list stays as it was when its walk began, it ends with
  // the last live entry; once it has changed, entries are where they are found.
  uint32_t takeEntry(Level* level, bool* found) {
    return within<Access::read>(level->node, 0, [&]() -> uint32_t {
      DependentList list;
      if (const uint32_t rc = locateDependents(level->node, &list)) return rc;
      const bool unchanged = stampOf(level->node) == level->stamp;
      if (list.maxIdSize == 0 || (unchanged && level->seen >= list.live)) return 0;
      for (; list.start + level->position + list.stride() <= list.end;
           level->position += list.stride()) {
        const auto* entry = at<SNodeInfo_t>(nullptr, list.start + level->position);
        entry_ = *entry;
        if (entry_.nodeTag == 0) continue;
        if (entry_.idSize > list.maxIdSize) return TREL_RC_ID_BOUNDS;
        entry_.segBase = offsetOf(entry, nullptr) - entry_.selfOffset;
        entry_.selfOffset = 0;
        memcpy(id_, idOf(entry), static_cast<size_t>(entry_.idSize));
        maxIdSize_ = list.maxIdSize;
        level->position += list.stride();
        ++level->seen;
        *found = true;
        return 0;
      }
      return unchanged ? uint32_t{TREL_RC_DEPENDENT_BOUNDS} : 0;
    });
  }

  // From the entry to the child. Abandoned children, and those in other segments if the walk is to
  // stay in its own, are passed over.
  uint32_t reach(const Level& level, Child* child) {
    if (fromProcessMemory()) {
      child->reached.node = at<SNodeCB_t>(nullptr, entry_.nodeOffset);
      child->module = at<const HdmModuleRecord_t>(nullptr, entry_.hdmInfoOffset);
      return 0;
    }
    const ShmDomainHandle_t* domain = level.segInfo ? level.segInfo->shmDomainHandle : nullptr;
    if (!domain || offsetOf(domain->base, nullptr) != entry_.segBase)
      return TREL_RC_BLOCK_OUTSIDE_POOL;
    if (entry_.hdmInfoOffset) {
      child->module = static_cast<const HdmModuleRecord_t*>(
          inSegment(level.segInfo, entry_.hdmInfoOffset, sizeof *child->module));
      if (!child->module) return TREL_RC_BLOCK_OUTSIDE_POOL;
    }
    uint32_t otherSegment = 0;
    const uint32_t rc = reachNode(&entry_, &child->reached, pass_.topSegInfo, &otherSegment,
                                  pass_.copyFlags & kStayInSegment);
    const bool abandoned = rc == TREL_RC_ABANDONED, known = rc == 0 || isRefusedCondition(rc);
    // A rehearsal keeps the segment: the pass must see for itself that the child is abandoned.
    if (abandoned && copies())
      leaveReached(&child->reached);
    else if (known)
      keepReached(&child->reached);
    child->passedOver = known ? abandoned || otherSegment : !copies();
    return known || child->passedOver ? 0 : rc;
  }

  uint32_t visitChild(Level& level) {
    Child child;
    if (const uint32_t rc = reach(level, &child)) return rc;
    if (child.passedOver) return 0;
    if (levels_.isFull()) return TREL_RC_DEPTH_LIMIT;
    const uint64_t tag = entry_.nodeTag, idSize = entry_.idSize;
    uint64_t idSizeOut = 0, maxIdSizeOut = 0;
    SNodeInfo_t info = {};
    const NodeCopy name{child.reached.segInfo,
                        pass_.dstSegInfo,
                        child.reached.node,
                        level.place,
                        child.module,
                        &tag,
                        &idSize,
                        &maxIdSize_,
                        id_,
                        &info,
                        id_,
                        &idSizeOut,
                        &maxIdSizeOut,
                        pass_.copyDirection,
                        pass_.copyLimits};
    Level below = {
        child.reached.node, child.reached.segInfo, nullptr, {}, level.depth + 1, 0, 0, 0, false};
    bool leftOut = false;
    if (const uint32_t rc = visit(name, &below, &leftOut)) return rc;
    if (leftOut) {
      level.leftOut = true;
      return 0;
    }
    if (copies()) {
      // Nobody else knows the parent's copy.
      if (const uint32_t rc = linkDependent(level.copy, &info, id_, idSize, 1)) {
        if (pass_.copyDirection == TREL_COPY_SHM_TO_PM) release(&below.copy);
        return rc;
      }
    }
    return descend(below);
  }

  // A node that lost all its dependents on the way has no list.
  void finish(const Level& level) {
    DependentList list;
    if (level.leftOut && copies() && locateDependents(level.copy, &list) == 0 && list.live == 0)
      exportDependents(level.copy, false);
  }

  const TreePass& pass_;
  TraversalStack<Level> levels_;
  // The entry last taken out: as it is given to users, with selfOffset 0 and segBase set.
  SNodeInfo_t entry_;
  uint64_t maxIdSize_ = 0;
  uint8_t id_[TREL_MAX_ID_SIZE];
};

}  // namespace

uint32_t copyTree(const TreePass& pass, const NodeCopy& name, TreeTop* top) {
  return Walk(pass).run(name, top);
}

void attachTree(SNodeCB_t* node, ShmSegInfo_t* segInfo, uint64_t maxDepth) {
  const TreePass rehearsal{nullptr, segInfo, 0, TREL_COPY_SHM_TO_SHM, 0, maxDepth, nullptr};
  TreeTop top{node, segInfo, 1};
  Walk(rehearsal).run(NodeCopy{}, &top);
}

// The nodes that are still to be freed are chained through a field that nobody reads any more.
uint32_t freeTree(SNodeCB_t** top) {
  uint32_t rc = 0;
  const auto push = [](SNodeCB_t* node, SNodeCB_t** chain) {
    node->lastUpdateTime = offsetOf(*chain, nullptr);
    *chain = node;
  };
  SNodeCB_t* chain = nullptr;
  if (*top) push(*top, &chain);
  *top = nullptr;
  while (SNodeCB_t* node = chain) {
    chain = at<SNodeCB_t>(nullptr, node->lastUpdateTime);
    DependentList list;
    if (locateDependents(node, &list) == 0) {
      DependentWalk walk(list);
      for (SNodeInfo_t* entry = nullptr; walk.next(&entry) == 0 && entry;)
        push(at<SNodeCB_t>(nullptr, entry->nodeOffset), &chain);
    }
    rc = firstOf(rc, release(&node));
  }
  return rc;
}

}  // namespace trel
