#include "treli/tree_walk_copy.h"

#include "trel/copy.h"
#include "treli/node_return.h"
#include "treli/reach.h"

namespace trel {
namespace {

// A node whose dependents are being gone through, by the list that it had when it was copied.
struct Level {
  SNodeCB_t* node;
  ShmSegInfo_t* segInfo;
  uint64_t depth;
  SNodeCB_t* copy = nullptr;
  ParentPlace place = {};  // of the copy, for the parent records of its children
  ListImage list = {};
  uint32_t next = 0;     // entry of the list
  bool leftOut = false;  // a dependent was found abandoned or unselected
};

// What an entry leads to. A child that is passed over is not counted as left out.
struct Child {
  Reached reached;
  HdmModuleRecord_t module;
  bool hasModule = false, passedOver = false;
};

class Walk {
 public:
  explicit Walk(const TreePass& pass) : pass_(pass) {
    if (fromProcessMemory()) levels_.budget().lift();
  }
  ~Walk() {
    while (!levels_.empty()) pop();
  }
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;

  uint32_t run(const NodeCopy& name, TreeTop* top) {
    Level level = {top->node, top->segInfo, top->depth};
    const uint32_t rc = visit(name, &level, &top->leftOut);
    top->copy = level.copy;
    if (const uint32_t failure = rc ? rc : descend(level)) return failure;
    while (!levels_.empty()) {
      if (levels_.top().next < levels_.top().list.count) {
        if (const uint32_t failure = visitChild(levels_.top())) return failure;
      } else {
        finish(levels_.top());
        pop();
      }
    }
    return 0;
  }

 private:
  bool copies() const { return pass_.totalSize != nullptr; }
  bool fromProcessMemory() const { return pass_.copyDirection == TREL_COPY_PM_TO_SHM; }
  bool toProcessMemory() const { return pass_.copyDirection == TREL_COPY_SHM_TO_PM; }

  bool selects(uint32_t condition) const {
    return (pass_.copyFlags & TREL_TREE_COPY_ALL) || (pass_.copyFlags >> condition & 1);
  }

  // Judges a node, copies it and reads its list. A failure leaves nothing of the copy.
  uint32_t visit(const NodeCopy& name, Level* level, bool* leftOut) {
    const uint32_t condition = level->node->condition;
    if (condition < TREL_CONDITION_CREATED || condition > TREL_CONDITION_DISASSOCIATED)
      return TREL_RC_CONDITION;
    *leftOut = condition == TREL_CONDITION_ABANDONED || (copies() && !selects(condition));
    if (*leftOut) return 0;
    ListImage* list = pass_.maxDepth == 0 || level->depth < pass_.maxDepth ? &level->list : nullptr;
    if (!copies()) return list ? readList(level->node, list) : 0;
    uint64_t size = 0;
    if (const uint32_t rc = copyNode(name, TREL_COPY_DEPENDENTS_EMPTY, &level->copy, &size, list)) {
      drop(level);
      return rc;
    }
    *pass_.totalSize += size;
    // Only a rehearsal has no record to fill. NOLINTNEXTLINE(clang-analyzer-core.NullDereference)
    level->place = {name.info->nodeOffset, name.info->segInfoOffset, name.info->hdmInfoOffset,
                    name.info->segBase};
    return 0;
  }

  static uint32_t readList(SNodeCB_t* node, ListImage* list) {
    return standing(node, [&] { return takeImage(node, list); });
  }

  uint32_t descend(Level& level) {
    if (level.list.count == 0) return 0;
    const uint32_t rc = levels_.push(level);
    if (rc) release(&level.list.bytes);
    return rc;
  }

  void pop() {
    release(&levels_.top().list.bytes);
    levels_.pop();
  }

  // Undoes a visit. What hangs below a copy is not reached any more, either.
  void drop(Level* level) {
    release(&level->list.bytes);
    dropCopy(&level->copy, pass_.dstSegInfo);
  }

  // From an entry to the child. Abandoned children, and those in other segments if the walk is to
  // stay in its own, are passed over.
  uint32_t reach(const Level& level, const SNodeInfo_t& stored, Child* child) {
    if (fromProcessMemory()) {
      child->reached.node = at<SNodeCB_t>(nullptr, stored.nodeOffset);
      child->module = *at<const HdmModuleRecord_t>(nullptr, stored.hdmInfoOffset);
      child->hasModule = true;
      return 0;
    }
    const ShmDomainHandle_t* domain = level.segInfo ? level.segInfo->shmDomainHandle : nullptr;
    if (!domain) return TREL_RC_BLOCK_OUTSIDE_POOL;
    SNodeInfo_t entry = stored;
    entry.selfOffset = 0;
    entry.segBase = offsetOf(domain->base, nullptr);
    if (entry.hdmInfoOffset) {
      const void* module = inSegment(level.segInfo, entry.hdmInfoOffset, sizeof child->module);
      if (!module) return TREL_RC_BLOCK_OUTSIDE_POOL;
      memcpy(&child->module, module, sizeof child->module);
      child->hasModule = true;
    }
    uint32_t otherSegment = 0;
    const uint32_t rc = reachNode(&entry, &child->reached, pass_.topSegInfo, &otherSegment,
                                  pass_.copyFlags & kStayInSegment);
    const bool abandoned = rc == TREL_RC_ABANDONED, known = rc == 0 || isRefusedCondition(rc);
    // A rehearsal keeps the segment: the pass must see for itself that the child is abandoned.
    if (abandoned && copies())
      leaveReached(&child->reached);
    else if (known)
      keepReached(&child->reached);
    child->passedOver = known && (abandoned || otherSegment);
    return known ? 0 : rc;
  }

  // An entry that has gone meanwhile takes all that failed on the way with it; a rehearsal goes as
  // far as it can.
  uint32_t visitChild(Level& level) {
    const SNodeInfo_t& entry = *level.list.entry(level.next++);
    Child child;
    Level below = {nullptr, nullptr, level.depth + 1};
    uint32_t rc = reach(level, entry, &child);
    if (rc == 0 && !child.passedOver) {
      if (levels_.isFull()) return TREL_RC_DEPTH_LIMIT;
      below.node = child.reached.node;
      below.segInfo = child.reached.segInfo;
      rc = copyChild(level, entry, child, &below);
    }
    if (rc) return !copies() || !(fromProcessMemory() || stillHolds(level.node, &entry)) ? 0 : rc;
    return descend(below);
  }

  uint32_t copyChild(Level& level, const SNodeInfo_t& entry, const Child& child, Level* below) {
    const uint64_t tag = entry.nodeTag, idSize = entry.idSize, maxIdSize = level.list.maxIdSize;
    uint64_t idSizeOut = 0, maxIdSizeOut = 0;
    SNodeInfo_t info = {};
    const NodeCopy name{below->segInfo,
                        pass_.dstSegInfo,
                        below->node,
                        level.place,
                        child.hasModule ? &child.module : nullptr,
                        &tag,
                        &idSize,
                        &maxIdSize,
                        idOf(&entry),
                        &info,
                        id_,
                        &idSizeOut,
                        &maxIdSizeOut,
                        pass_.copyDirection,
                        pass_.copyLimits,
                        true};
    bool leftOut = false;
    if (const uint32_t rc = visit(name, below, &leftOut)) return rc;
    level.leftOut |= leftOut;
    if (leftOut || !copies()) return 0;
    const uint32_t rc = appendDependent(level.copy, &info, id_);
    if (rc) drop(below);
    return rc;
  }

  // A node that lost all its dependents on the way has no list.
  void finish(const Level& level) {
    DependentList list;
    if (level.leftOut && copies() && locateDependents(level.copy, &list) == 0 && list.live == 0)
      exportDependents(level.copy, false);
  }

  const TreePass& pass_;
  TraversalStack<Level> levels_;
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
