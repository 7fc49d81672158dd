// The lock of a node: ways in and out, looks by version, and the condition test.
//
// Under concurrency model 1 the lock is the node's latch; under the others nothing is taken. The
// model can change while it is held, so the way out follows what the way in found, never the field.
//
// The version. A writer raises writeFlag, then counts writeCounter, then writes, then lowers the
// flag. So who changes nothing needs no latch: he reads counter, flag, birth stamp, then the data,
// each word by one load, then counter, flag and stamp again. If the flag was down and nothing has
// moved, all that he read stood still meanwhile, and his answer is final, a refusal too. The order
// matters: the counter first, for whoever has read a newer count sees the flag that was raised
// before it, or all that was written until it fell.
#pragma once

#include "platsvc/latch.h"
#include "treli/birth_stamp.h"
#include "treli/slot.h"
#include "trelshm/latch_failure.h"

namespace trel {

enum class Access { read, write };

// What a way in found.
struct NodeHold {
  bool latched = false;
};

// Condition masks: bit 1 << condition for each condition that an operation accepts. An active node
// passes every mask.
namespace accept {
constexpr uint32_t active = 8;
constexpr uint32_t usable = 40;     // active, disassociated
constexpr uint32_t settled = 44;    // and initialised
constexpr uint32_t living = 46;     // and created
constexpr uint32_t published = 56;  // active, abandoned, disassociated
constexpr uint32_t any = 62;
}  // namespace accept

// Reads the model; refuses one above 5.
inline uint32_t readModel(const SNodeCB_t* node, uint32_t* model) {
  *model = once(node->concurrencyModel);
  return *model > 5 ? uint32_t{TREL_RC_MODEL_RANGE} : 0;
}

// The owner of a node's latch died, and the caller holds the latch now: puts the node in order.
void onNodeOwnerDied(SNodeCB_t* node, LatchArea_t* area);
// Makes the lists of a node agree with themselves. False if one of them is not sound.
bool repairNode(SNodeCB_t* node);

// Adds 1 to a cell that changes only under a latch that the caller holds.
inline void countLatched(PLATVAtomicSigned32* cell) {
  int32_t* word = PLATVAtomicSigned32::word(cell);
  const uint32_t count = static_cast<uint32_t>(__atomic_load_n(word, __ATOMIC_RELAXED));
  __atomic_store_n(word, static_cast<int32_t>(count + 1), __ATOMIC_RELEASE);
}

// Flag and count need no locked instruction, since they happen under the latch. A death of the
// writer shows from the first store on.
inline void markWriting(LatchArea_t* area) {
  __atomic_store_n(PLATVAtomicSigned32::word(&area->writeFlag), 1, __ATOMIC_RELAXED);
  countLatched(&area->writeCounter);
  __atomic_thread_fence(__ATOMIC_RELEASE);
}

inline void markWritten(LatchArea_t* area) {
  __atomic_store_n(PLATVAtomicSigned32::word(&area->writeFlag), 0, __ATOMIC_RELEASE);
}

inline bool isMarkedWriting(LatchArea_t* area) {
  return __atomic_load_n(PLATVAtomicSigned32::word(&area->writeFlag), __ATOMIC_ACQUIRE) != 0;
}

template <Access access>
TREL_INLINE uint32_t lockNode(SNodeCB_t* node, LatchArea_t* area, NodeHold* hold) {
  uint32_t model = 0;
  if (const uint32_t rc = readModel(node, &model)) return rc;
  if (model != 1) return 0;
  if (TREL_UNLIKELY(once(area->latchVersion) != TREL_STRUCTURE_VERSION))
    return TREL_RC_LATCH_VERSION;
  // Another birth stamp: the memory holds another node now, not the one that was meant.
  const PLATLatchWait wait = {birthStampAt(node), birthStamp(node), PLAT_LATCH_NO_LIMIT};
  uint32_t ownerDied = 0;
  const uint32_t rc = plat::latchGet(area->primaryLatch, &ownerDied, wait);
  if (TREL_UNLIKELY(rc != 0)) return latchFailure(rc);
  if (TREL_UNLIKELY(ownerDied)) onNodeOwnerDied(node, area);
  if (TREL_UNLIKELY(once(node->concurrencyModel) != 1)) {  // changed while this thread waited
    if (plat::latchRelease(area->primaryLatch) != 0) return TREL_RC_LATCH;
    return readModel(node, &model);
  }
  if (access == Access::write) markWriting(area);
  hold->latched = true;
  return 0;
}

template <Access access>
TREL_INLINE uint32_t unlockNode(LatchArea_t* area, const NodeHold& hold) {
  if (!hold.latched) return 0;
  if (access == Access::write) markWritten(area);
  return TREL_UNLIKELY(plat::latchRelease(area->primaryLatch) != 0) ? uint32_t{TREL_RC_LATCH} : 0;
}

// Runs work() while the node is locked, unless the caller has locked it already. The way out is
// taken after a failure too, and its own failure counts only if nothing failed before. Nobody locks
// or changes what he may only read.
template <Access access, class Work>
TREL_INLINE uint32_t within(SNodeCB_t* node, uint64_t inCriticalSection, Work&& work) {
  if (TREL_UNLIKELY(isReadOnly(node))) return TREL_RC_READING_ONLY;
  NodeHold hold;
  if (!inCriticalSection)
    if (const uint32_t rc = lockNode<access>(node, &node->nodeLatchArea, &hold)) return rc;
  const uint32_t rc = work();
  return firstOf(rc, unlockNode<access>(&node->nodeLatchArea, hold));
}

// What a look compares: it was taken while no writer was inside, and stands as long as none comes.
struct Version {
  int32_t count = 0;
  uint64_t born = 0;

  // False if a writer is inside, or the lock is not what it should be.
  TREL_INLINE bool take(SNodeCB_t* node) {
    LatchArea_t* area = &node->nodeLatchArea;
    count = __atomic_load_n(PLATVAtomicSigned32::word(&area->writeCounter), __ATOMIC_ACQUIRE);
    if (isMarkedWriting(area)) return false;
    born = birthStamp(node);
    const bool sound = once(node->concurrencyModel) == 1 &&
                       once(area->latchVersion) == TREL_STRUCTURE_VERSION &&
                       plat::isLatch(area->primaryLatch);
    if (sound) ignoreRaces(true);
    return sound;
  }

  TREL_INLINE bool stands(SNodeCB_t* node) const {
    LatchArea_t* area = &node->nodeLatchArea;
    ignoreRaces(false);
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    return __atomic_load_n(PLATVAtomicSigned32::word(&area->writeCounter), __ATOMIC_RELAXED) ==
               count &&
           !isMarkedWriting(area) && birthStamp(node) == born && once(node->concurrencyModel) == 1;
  }

 private:
  // The thread sanitizer cannot know that what was read beside a writer is thrown away.
  static void ignoreRaces(bool begin);
};

// How the next look is done. Small, and handed on by value, so that all of a look that needs no
// waiting stays in registers.
struct Turn {
  enum class Way : uint32_t { version, latch, free } way;
  uint32_t failure;
  uint32_t tries;  // that did not count
  uint32_t until;  // when waiting ends, in milliseconds; 0: it has not begun
};

// After a look that could not be, or did not count. A writer gets some microseconds, and a few more
// looks are tried; then it is done by the latch, where that may be taken, or by waiting for a
// version.
Turn nextTurn(SNodeCB_t* node, Turn turn);

// Runs work(), which changes nothing but what the caller's pointers lead to, on a node that stands
// still; it does not know whether by version, by the latch, or inside the caller's own hold. It may
// run several times, and only what the last run finds counts. It loads each word once, tests what
// it loaded, and writes to the caller's memory within bounds that are the caller's own. missed() is
// called before anything is waited for.
template <class Work, class Missed>
TREL_INLINE uint32_t looking(SNodeCB_t* node, uint64_t inCriticalSection, Work&& work,
                             Missed&& missed) {
  using Way = Turn::Way;
  for (Turn turn = {inCriticalSection ? Way::free : Way::version, 0, 0, 0};;) {
    Version version;
    if (TREL_LIKELY(turn.way == Way::free || turn.way == Way::latch || version.take(node))) {
      const uint32_t rc = work();
      if (turn.way == Way::free) return rc;
      if (turn.way == Way::latch)
        return firstOf(rc, unlockNode<Access::read>(&node->nodeLatchArea, NodeHold{true}));
      if (TREL_LIKELY(version.stands(node))) return rc;
    }
    missed();
    turn = nextTurn(node, turn);
    if (turn.failure) return turn.failure;
  }
}

template <class Work>
TREL_INLINE uint32_t looking(SNodeCB_t* node, uint64_t inCriticalSection, Work&& work) {
  return looking(node, inCriticalSection, work, [] {});
}

// Runs work() on a node that stands still: locked, or where it may only be read, by looks. Then it
// may run several times, and takes back itself what its run before has made.
template <class Work>
uint32_t standing(SNodeCB_t* node, Work&& work) {
  return isReadOnly(node) ? looking(node, 0, work) : within<Access::read>(node, 0, work);
}

// The code by which a condition is refused.
uint32_t refusalOf(uint32_t condition);

// Tests the node's condition against a mask. The caller holds the lock, where it matters.
TREL_INLINE uint32_t checkCondition(const SNodeCB_t* node, uint32_t mask) {
  const uint32_t condition = once(node->condition);
  if (TREL_LIKELY(condition == TREL_CONDITION_ACTIVE)) return 0;
  if (condition < 1 || condition > 5) return TREL_RC_CONDITION;
  return (mask >> condition & 1) ? 0 : refusalOf(condition);
}

// The same by one look from outside: the condition is one word, so nobody is waited for who is
// inside. What is no node has no latch.
TREL_INLINE uint32_t lookAtCondition(SNodeCB_t* node, uint32_t mask) {
  uint32_t model = 0;
  if (const uint32_t rc = readModel(node, &model)) return rc;
  if (model == 1) {
    LatchArea_t& area = node->nodeLatchArea;
    if (once(area.latchVersion) != TREL_STRUCTURE_VERSION) return TREL_RC_LATCH_VERSION;
    if (!plat::isLatch(area.primaryLatch)) return TREL_RC_LATCH;
  }
  return checkCondition(node, mask);
}

// Looks at a node whose condition the mask accepts.
template <class Work>
TREL_INLINE uint32_t reading(SNodeCB_t* node, uint64_t inCriticalSection, uint32_t mask,
                             Work&& work) {
  return looking(node, inCriticalSection, [&]() TREL_INLINED -> uint32_t {
    const uint32_t rc = checkCondition(node, mask);
    return rc ? rc : work();
  });
}

// Where the node's identifier is, and its size. A failure leaves the outs.
uint32_t findNodeId(SNodeCB_t* node, uint64_t inCriticalSection, uint8_t** id, uint64_t* idSize);

// Runs work() in a write section of such a node.
template <class Work>
TREL_INLINE uint32_t writing(SNodeCB_t* node, uint64_t inCriticalSection, uint32_t mask,
                             Work&& work) {
  return within<Access::write>(node, inCriticalSection, [&]() TREL_INLINED -> uint32_t {
    const uint32_t rc = checkCondition(node, mask);
    return rc ? rc : work();
  });
}

// A change of the node's structure, told to those who watch reconfigCounter.
inline uint32_t countReconfiguration(SNodeCB_t* node) {
  int32_t counter = 0;
  return PLATVAtomicSigned32::increment(&node->reconfigCounter, &counter) ? uint32_t{TREL_RC_ATOMIC}
                                                                          : 0;
}

// Makes a latch area ready under the node's model. The area may be that of a property.
uint32_t initialiseLatches(SNodeCB_t* node, LatchArea_t* area, uint32_t latchVersion);

#ifdef __SANITIZE_THREAD__
extern "C" void AnnotateIgnoreReadsBegin(const char* file, int line);
extern "C" void AnnotateIgnoreReadsEnd(const char* file, int line);
inline void Version::ignoreRaces(bool begin) {
  (begin ? AnnotateIgnoreReadsBegin : AnnotateIgnoreReadsEnd)(__FILE__, __LINE__);
}
#else
inline void Version::ignoreRaces(bool) {}
#endif

}  // namespace trel
