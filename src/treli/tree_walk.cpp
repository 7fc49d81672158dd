// Walks over whole trees, children before their parent: status operations and sums.
//
// A sum is of lists that stood still while they were read. A status operation changes what it walks
// over, so it goes on from where it stands, whatever others do. What went meanwhile is passed over.
//
// A node is given back so: in its write section, if its entry names it and its list holds nothing
// but what stays, it becomes abandoned, so that it gets no dependents any more. That section is
// left before the parent's is entered. Who takes the entry off the list there frees the node; who
// finds it gone touches nothing more.
#include "treli/tree_walk.h"

#include "trel/node.h"
#include "trel/tree.h"
#include "treli/heartbeat.h"
#include "treli/node_return.h"
#include "treli/recreation.h"
#include "treli/stable_walk.h"

namespace trel {
namespace {

// How often a walk begins again at what others keep changing.
constexpr uint32_t kRounds = 32;

// trelGetNodeCondition.
uint32_t readCondition(const SNodeCB_t* node, uint32_t* condition) {
  *condition = once(node->condition);
  const bool isOne =
      *condition >= TREL_CONDITION_CREATED && *condition <= TREL_CONDITION_DISASSOCIATED;
  return isOne ? 0 : uint32_t{TREL_RC_CONDITION};
}

// Runs work() in the write section of the node that was met.
template <class Work>
uint32_t changing(const MetNode& met, Work&& work) {
  return within<Access::write>(
      met.node, 0, [&]() -> uint32_t { return met.isAlive() ? work() : uint32_t{TREL_RC_LATCH}; });
}

// Reaches the node behind an entry, whatever its condition; *refusal gets the code of a condition
// other than active. *inside: the walk may go there. What it passes over is left.
uint32_t reachWalked(const ListReading& list, const ReadEntry& entry, ShmSegInfo_t* walkSegment,
                     uint32_t options, bool passesAbandoned, Reached* child, bool* inside,
                     uint32_t* refusal) {
  uint32_t otherSegment = 0;
  *refusal = reachNode(entry.stored, child, walkSegment, &otherSegment, options);
  if (*refusal == TREL_RC_DISASSOCIATED && isMarkedForRecreation(child->node) &&
      endDeadRecreation(child->node) == 0)
    *refusal = lookAtCondition(child->node, accept::active);
  if (*refusal && !isRefusedCondition(*refusal)) return *refusal;
  *inside = otherSegment == 0 && !(passesAbandoned && *refusal == TREL_RC_ABANDONED);
  if (*inside) {
    list.fetchAhead(entry, child->node);
    return keepReached(child);
  }
  leaveReached(child);
  return 0;
}

// ---- Giving nodes back -------------------------------------------------------------------------

// A node that is to go, and the entry that leads to it; without a parent there is none.
struct Goner {
  MetNode met;
  ShmSegInfo_t* segment = nullptr;
  MetNode parent = {};
  SeenEntry seen = {};
};

uint32_t poolOf(const ShmSegInfo_t* segment, ShmPoolHandle_t** pool) {
  if (!segment) return TREL_RC_SEGMENT_NULL;
  *pool = segment->shmPoolHandle;
  if (!*pool) return TREL_RC_POOL_HANDLE_NULL;
  return segment->identity.handleVersion == TREL_STRUCTURE_VERSION
             ? 0
             : uint32_t{TREL_RC_HANDLE_VERSION};
}

// Whether the entry names the node, seen from outside the parent's section. *moved: a writer is
// inside, so that cannot be told.
bool isNamed(const Goner& goner, bool* moved) {
  const ListReading list(goner.parent, 0, false);
  const bool stands = goner.seen.stands();
  *moved = list.hasMoved();
  return stands;
}

enum class Fate { goes, isGone, again };

// Abandons a node whose turn has come. Nothing but what `left` has seen may be on its list; null:
// anything may.
uint32_t abandon(const Goner& goner, const ListReading* left, uint32_t* before, Fate* turn) {
  bool moved = false;
  const uint32_t rc = changing(goner.met, [&]() -> uint32_t {
    SNodeCB_t* node = goner.met.node;
    if (isBeingRecreated(node)) return TREL_RC_BEING_RECREATED;
    *turn = goner.parent.node && !isNamed(goner, &moved) ? Fate::isGone : Fate::goes;
    if (moved || (left && !left->stoodTogether())) *turn = Fate::again;
    if (*turn != Fate::goes) return 0;
    *before = node->condition;
    node->condition = TREL_CONDITION_ABANDONED;
    return 0;
  });
  // Waits outside for the writer of the parent.
  return moved ? reading(goner.parent.node, 0, accept::any, [] { return 0u; }) : rc;
}

uint32_t unlink(const Goner& goner, Fate* turn) {
  return changing(goner.parent, [&]() -> uint32_t {
    DependentList list;
    if (const uint32_t rc = locateDependents(goner.parent.node, &list)) return rc;
    *turn = goner.seen.stands() && goner.met.isAlive() ? Fate::goes : Fate::isGone;
    if (*turn == Fate::isGone) return 0;
    if (goner.met.node->condition != TREL_CONDITION_ABANDONED) {  // somebody has revived it
      *turn = Fate::again;
      return 0;
    }
    return removeDependent(list, goner.seen.entry);
  });
}

uint32_t giveBack(const Goner& goner, const ListReading* left, Fate* turn) {
  uint32_t before = 0;
  ShmPoolHandle_t* pool = nullptr;
  if (const uint32_t rc = poolOf(goner.segment, &pool)) return rc;
  const uint32_t failed = abandon(goner, left, &before, turn);
  if (failed || *turn != Fate::goes) return failed;
  if (goner.parent.node) {
    if (const uint32_t rc = unlink(goner, turn)) {
      changing(goner.met, [&] {
        goner.met.node->condition = before;
        return 0u;
      });
      return rc;
    }
  }
  SNodeCB_t* node = goner.met.node;
  return *turn == Fate::goes ? giveNodeBack(&node, pool) : 0;
}

// The entry of a node in its parent's list.
uint32_t findInParent(SNodeCB_t* node, Goner* goner) {
  SNodeInfo_t* record = nullptr;
  if (const uint32_t rc = parentRecordOf(node, &record)) return rc;
  SoughtName name = {node->tag, nullptr, 0, true};
  uint8_t* id = nullptr;
  if (const uint32_t rc = findNodeId(node, 0, &id, &name.idSize)) return rc;
  name.id = id;
  SNodeCB_t* parent = nullptr;
  if (const uint32_t rc = nodeBehind(record, &parent)) return rc;
  goner->parent = MetNode(parent);
  DependentList list;
  if (const uint32_t rc = locateDependents(parent, &list)) return rc;
  return reading(parent, 0, accept::any, [&]() -> uint32_t {
    if (locateDependents(parent, &list) || list.live == 0) return TREL_RC_DEPENDENT_ABSENT;
    if (list.live > TREL_MAX_DEPENDENTS) return TREL_RC_DEPENDENT_COUNT;
    FoundDependent found;
    if (const uint32_t rc = findDependent(list, name, &found)) return rc;
    if (!found.entry) return TREL_RC_DEPENDENT_ABSENT;
    goner->seen = SeenEntry(found.entry);
    return 0;
  });
}

// ---- Status walks ------------------------------------------------------------------------------

// A node whose children are being walked.
struct WalkLevel {
  Goner self;
  SNodeCB_t* node;
  ShmSegInfo_t* walkSegment;  // the one that TREL_WALK_ONE_SEGMENT means
  uint64_t depth;
  uint32_t options;
  bool goes;  // to be given back
  uint32_t rounds;
  ListReading reading;  // its confirmed entries are those that stay

  // Others have taken it off the list on which it was found.
  bool hasGone() const { return !self.met.isAlive() || (self.parent.node && !self.seen.stands()); }
};

class StatusWalk {
 public:
  StatusWalk(uint32_t operation, uint64_t limit) : operation_(operation), limit_(limit) {}

  // *node becomes null if it is given back.
  uint32_t run(SNodeCB_t** node, const Goner& self, ShmSegInfo_t* walkSegment, uint64_t depth,
               uint32_t options) {
    uint32_t rc = enter(self, (*node)->nodeSize, walkSegment, depth, options, false);
    while (!levels_.empty()) {
      if (rc == 0) {
        rc = step();
      } else if (levels_.count() > 1 && levels_.top().hasGone()) {
        levels_.pop();  // a failure at what others have taken away
        rc = 0;
      } else {
        break;
      }
    }
    if (topIsGone_) *node = nullptr;
    return rc;
  }

 private:
  bool deletes() const { return operation_ == TREL_STATUS_DISCLAIM; }
  static bool selects(uint32_t options, uint32_t condition) {
    return options & (TREL_WALK_ALL | 1u << condition);
  }

  uint32_t enter(const Goner& self, uint64_t size, ShmSegInfo_t* walkSegment, uint64_t depth,
                 uint32_t options, bool goes) {
    WalkLevel* level = nullptr;
    if (const uint32_t rc = levels_.prepare(&level)) return rc;
    *level = {self, self.met.node, walkSegment, depth, options, goes, 0, {}};
    level->reading = ListReading(self.met, size, false);
    if (const uint32_t rc = levels_.push()) return rc;
    return open(level);
  }

  // Begins at the children of a node, if they lie within the limit.
  uint32_t open(WalkLevel* level) {
    level->reading.begin();
    if (!(level->node->exports & TREL_EXPORT_DEPENDENT) || isAtLimit(*level)) return 0;
    return level->reading.open();
  }
  bool isAtLimit(const WalkLevel& level) const { return limit_ && level.depth >= limit_; }

  uint32_t step() {
    ListReading& list = levels_.top().reading;
    const uint32_t rc = list.next(&entry_);
    if (rc == 0 && entry_.stored) return treat();
    if (rc ? list.explainsFailure() : list.hasMoved() && !list.isReadOn()) return list.readOn();
    return rc ? rc : finish();
  }

  uint32_t treat() {
    WalkLevel& level = levels_.top();
    Reached child;
    bool inside = false;
    uint32_t refusal = 0;
    for (uint32_t looks = 1;; ++looks) {
      const uint32_t rc = reachWalked(level.reading, entry_, level.walkSegment, level.options,
                                      !deletes(), &child, &inside, &refusal);
      if (rc == 0) break;
      if (!entry_.stands()) return pass();
      if (!level.reading.hasMoved() || looks == kRounds) return rc;
    }
    if (!inside) return 0;
    const Goner self = {{child.node, child.born}, child.segInfo, level.self.met, entry_.seen()};
    if (!entry_.stands()) return pass();
    if (!level.self.met.isAlive()) return TREL_RC_LATCH;  // it was no list any more
    uint32_t options = level.options;
    if (!deletes())
      return enter(self, child.size, level.walkSegment, level.depth + 1, options, false);
    uint32_t condition = 0;
    if (const uint32_t rc = readCondition(child.node, &condition))
      return entry_.stands() ? rc : pass();
    if (refusal == TREL_RC_ABANDONED) options |= TREL_WALK_ALL;
    if (!selects(options, condition))
      return enter(self, child.size, level.walkSegment, level.depth + 1, options, false);
    // The top of a tree of its own.
    if (limit_ > kMaxDepth || isOnPath(child.node)) return TREL_RC_DEPTH_LIMIT;
    level.reading.dismiss();
    return enter(self, child.size, child.segInfo, 1, options & ~TREL_WALK_REMOVE_TOP, true);
  }

  // An entry that went.
  uint32_t pass() {
    levels_.top().reading.dismiss();
    return 0;
  }

  // Where a limit ends the path before a cycle shows, a node would be given back while its own
  // children are walked.
  bool isOnPath(const SNodeCB_t* node) {
    for (uint32_t i = 0; limit_ && i < levels_.count(); ++i)
      if (levels_[i].node == node) return true;
    return false;
  }

  uint32_t finish() {
    WalkLevel& level = levels_.top();
    bool again = false;
    if (const uint32_t rc = apply(&level, &again)) return rc;
    if (!again) {
      levels_.pop();
      return 0;
    }
    if (++level.rounds == kRounds) return TREL_RC_KEEPS_CHANGING;
    return open(&level);
  }

  uint32_t apply(WalkLevel* level, bool* again) {
    uint32_t condition = 0;
    if (const uint32_t rc = readCondition(level->node, &condition)) return rc;
    switch (operation_) {
      case TREL_STATUS_ACTIVATE:
      case TREL_STATUS_ABANDON:
      case TREL_STATUS_DISASSOCIATE:
        return change(*level);
      case TREL_STATUS_UPDATE:
        return update(*level, condition);
      case TREL_STATUS_DISCLAIM:
        return giveBack(level, condition, again);
      default:
        return TREL_RC_STATUS_OPERATION;
    }
  }

  uint32_t change(const WalkLevel& level) const {
    return changing(level.self.met, [&]() -> uint32_t {
      SNodeCB_t* node = level.node;
      if (!selects(level.options, node->condition)) return 0;
      if (operation_ == TREL_STATUS_ACTIVATE && node->condition == TREL_CONDITION_CREATED)
        return TREL_RC_ACTIVATE_CREATED;
      node->condition = operation_;  // the two count alike
      return 0;
    });
  }

  // A node below the top that has been abandoned meanwhile is passed over like others.
  uint32_t update(const WalkLevel& level, uint32_t condition) {
    if (!(level.options & (1u << TREL_CONDITION_ACTIVE | 1u << condition))) return 0;
    const uint32_t rc = changing(level.self.met, [&] { return beat(level.node); });
    return rc == TREL_RC_BEAT_ABANDONED && levels_.count() > 1 ? 0 : rc;
  }

  uint32_t giveBack(WalkLevel* level, uint32_t condition, bool* again) {
    const bool isTop = levels_.count() == 1;
    if (isTop ? !selects(level->options, condition) : !level->goes) return 0;
    Fate turn = Fate::isGone;
    const ListReading* left = isAtLimit(*level) ? nullptr : &level->reading;
    if (const uint32_t rc = trel::giveBack(level->self, left, &turn)) return rc;
    *again = turn == Fate::again;
    topIsGone_ = isTop && turn == Fate::goes;
    return 0;
  }

  uint32_t operation_;
  uint64_t limit_;
  bool topIsGone_ = false;
  TraversalStack<WalkLevel> levels_;
  ReadEntry entry_;
};

// ---- Sums --------------------------------------------------------------------------------------

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
  const uint64_t size = once(node->nodeSize);
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
  const bool withNames = false;

  uint32_t open(uint64_t levels, ListReading* list) {
    if (!(list->node()->exports & TREL_EXPORT_DEPENDENT) || (limit && depth + levels >= limit))
      return 0;
    return list->open();
  }
  uint32_t visit(uint64_t, const ListReading& list, const ReadEntry& entry, Reached* below, bool*) {
    Reached child;
    bool inside = false;
    uint32_t refusal = 0;
    if (const uint32_t rc =
            reachWalked(list, entry, walkSegment, options, false, &child, &inside, &refusal))
      return rc;
    if (inside) *below = child;
    return 0;
  }
  uint32_t leave(SNodeCB_t* node) { return count(node, tag, &gathered); }
};

// Whether an entry names the node that a record names.
bool nameOneNode(const SNodeInfo_t* entry, const SNodeInfo_t& record) {
  return once(entry->nodeOffset) == record.nodeOffset && nameOneSegment(entry, &record);
}

// The stored entry of which the record is a copy.
uint32_t findStored(const DependentList& list, const SNodeInfo_t& record, FoundDependent* found) {
  found->walk = DependentWalk(list);
  for (;;) {
    if (const uint32_t rc = found->walk.next(&found->entry)) return rc;
    const SNodeInfo_t* entry = found->entry;
    if (!entry || (entry->nodeTag == record.nodeTag && entry->idSize == record.idSize &&
                   nameOneNode(entry, record)))
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
  Goner top = {MetNode(node), segment};
  if (operation == TREL_STATUS_DISCLAIM && (options & TREL_WALK_REMOVE_TOP) &&
      (node->exports & TREL_EXPORT_PARENT)) {
    if (const uint32_t rc = findInParent(node, &top)) return rc;
  }
  return StatusWalk(operation, depthLimit).run(&node, top, segment, 1, options);
}

uint32_t setStatusFrom(SNodeCB_t** node, ShmSegInfo_t* segment, ShmSegInfo_t* walkSegment,
                       uint64_t depth, uint64_t depthLimit, uint32_t operation, uint32_t options) {
  StatusWalk status(operation, depthLimit);
  return status.run(node, {MetNode(*node), segment}, walkSegment, depth, options);
}

uint32_t addUpTree(SNodeCB_t* node, ShmSegInfo_t* walkSegment, uint32_t options, uint64_t tag,
                   uint64_t depth, uint64_t limit, TreeInfo_t* info) {
  TreeSum sum = {walkSegment, options, tag, depth, limit, *info};
  const uint32_t rc = StableWalk<TreeSum>(&sum).run(node);
  *info = sum.gathered;
  return rc;
}

// Who comes too late finds a child that was given back, and no entry.
static uint32_t whyNotFound(SNodeCB_t* parent, const SNodeInfo_t& sought, uint32_t failure) {
  return reading(parent, 0, accept::any, [&]() -> uint32_t {
    DependentList list;
    FoundDependent found;
    if (locateDependents(parent, &list) || findStored(list, sought, &found)) return failure;
    if (list.live == 0) return TREL_RC_DEPENDENTS_EMPTY;
    return found.entry ? failure : uint32_t{TREL_RC_DEPENDENT_ABSENT};
  });
}

// The name is exact here: without an identifier a sibling of the same tag must not go instead. And
// the entry must name the child itself.
uint32_t unlinkChild(SNodeCB_t* parent, const SNodeInfo_t* record, SNodeCB_t** child) {
  SNodeInfo_t sought = copyOnce(record);
  if (sought.selfOffset)  // it counts from there, the copy from the base
    sought.segBase = offsetOf(record, nullptr) - sought.selfOffset;
  sought.selfOffset = 0;
  if (const uint32_t rc = nodeBehind(record, child)) return whyNotFound(parent, sought, rc);
  const MetNode met(*child);
  uint8_t* id = nullptr;
  uint64_t idSize = 0;
  const uint32_t rc = findNodeId(met.node, 0, &id, &idSize);
  const bool isUnnamed = rc == TREL_RC_CREATED || rc == TREL_RC_INITIALISED;  // not told yet
  if (rc && !isUnnamed) return whyNotFound(parent, sought, rc);
  if (!isUnnamed && idSize != sought.idSize) return TREL_RC_COMPARE_ID_SIZE;
  if (isBeingRecreated(met.node)) return TREL_RC_BEING_RECREATED;
  return writing(parent, 0, accept::any, [&] {
    return removeFound(parent, [&](const DependentList& list, FoundDependent* found) {
      const uint32_t failure = isUnnamed
                                   ? findStored(list, sought, found)
                                   : findDependent(list, {sought.nodeTag, id, idSize, true}, found);
      const bool isOther = found->entry && !nameOneNode(found->entry, sought);
      if (isOther || !met.isAlive()) found->entry = nullptr;
      return failure;
    });
  });
}

}  // namespace trel
