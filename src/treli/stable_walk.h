// A walk over all that lies below a node, while others change it.
//
// Lists are read without a latch, so what was read of one counts only if it stood still meanwhile.
// A list that did not is read again, with all that lies below it, and what was gathered since it
// was entered is forgotten.
#pragma once

#include "treli/dependent_list.h"
#include "treli/reach.h"
#include "treli/traversal_stack.h"

namespace trel {

// How often one list is read again before the walk gives up.
constexpr uint32_t kRereadings = 32;

// A Task has
//   Gathered gathered;
//   uint32_t open(SNodeCB_t*, uint64_t nodeSize, uint64_t depth, DependentWalk*);  the node's list;
//                                                                       none: leave it
//   uint32_t visit(uint64_t depth, const DependentWalk&, SNodeInfo_t*, Reached* below,
//                  bool* isOver);
//   uint32_t leave(SNodeCB_t*);  all below the node is done
// The top node has depth 0.
template <class Task>
class StableWalk {
 public:
  explicit StableWalk(Task* task) : task_(task) {}

  uint32_t run(SNodeCB_t* top) {
    if (const uint32_t rc = enter(top, top->nodeSize, {})) return rc;
    while (!levels_.empty()) {
      Level* level = &levels_.top();
      SNodeInfo_t* entry = nullptr;
      bool isOver = false, isStale = false;
      uint32_t rc = level->walk.next(&entry);
      if (rc == 0 && entry) {
        Reached below;
        const SeenEntry seen(entry);
        rc = task_->visit(levels_.count() - 1, level->walk, entry, &below, &isOver);
        if (rc == 0 && below.node) rc = enter(below.node, below.size, seen);
        if (rc == 0 && !isOver) continue;
      }
      if (rc == 0) isStale = hasChanged(*level) || (isOver && isCutOff());
      if (rc == 0 && !isStale) {
        if (isOver) return 0;
        rc = task_->leave(level->node);
        if (rc == 0) {
          levels_.pop();
          continue;
        }
      }
      if ((rc = goBack(rc, isStale))) return rc;
    }
    return 0;
  }

 private:
  struct Level {
    SNodeCB_t* node;
    uint64_t size;   // of the node, as tested
    SeenEntry seen;  // before it was followed to the node
    uint32_t rereadings;
    int32_t stamp;
    DependentWalk walk;
    typename Task::Gathered before;
  };

  static bool hasChanged(const Level& level) { return mayHaveChanged(level.node, level.stamp); }

  uint32_t enter(SNodeCB_t* node, uint64_t size, const SeenEntry& seen) {
    if (levels_.isFull()) return TREL_RC_DEPTH_LIMIT;
    Level level;
    level.node = node;
    level.size = size;
    level.seen = seen;
    const uint32_t rc = read(&level, levels_.count());
    if ((rc || level.walk.isDone()) && !hasChanged(level)) return rc ? rc : task_->leave(node);
    level.rereadings = 0;
    level.before = task_->gathered;
    return levels_.push(level);
  }

  uint32_t read(Level* level, uint64_t depth) {
    level->stamp = stampOf(level->node);
    level->walk = DependentWalk();
    return task_->open(level->node, level->size, depth, &level->walk);
  }

  // A node that was taken off its list on the way here may have been freed, and be another node by
  // now: what is found there counts only while the entries stand that led to it. Else the walk is
  // left at the list that has changed.
  bool isCutOff() {
    for (uint32_t i = 1; i < levels_.count(); ++i) {
      if (levels_[i].seen.stands()) continue;
      while (levels_.count() > i) levels_.pop();
      return true;
    }
    return false;
  }

  // Reads the last list again, if it is stale, or goes up to the first that is. A failure counts
  // only if there is none.
  uint32_t goBack(uint32_t rc, bool isStale) {
    for (; !levels_.empty(); isStale = false) {
      Level* level = &levels_.top();
      if (!isStale && !hasBeenEmptied(level->node, level->size) && !hasChanged(*level)) {
        levels_.pop();
        continue;
      }
      if (++level->rereadings > kRereadings) return TREL_RC_BEING_RECREATED;
      task_->gathered = level->before;
      if ((rc = read(level, levels_.count() - 1)) == 0) return 0;
    }
    return rc;
  }

  Task* task_;
  TraversalStack<Level> levels_;
};

}  // namespace trel
