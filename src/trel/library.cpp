// The library's state in a process: initialisation, cleanup, forks.
#include "platsvc/fork.h"
#include "platsvc/ipc.h"
#include "trel/segment.h"
#include "trel/version.h"
#include "treli/attach_latch.h"
#include "treli/attachment.h"
#include "trelll/attach_list.h"
#include "trelshm/byte_latch.h"
#include "trelshm/handle.h"
#include "trelshm/process_memory.h"

uint32_t trelAPIInitRefCount = 0;
uint8_t trelAPIInitLatch = 0;

namespace trel {
namespace {

using InitLatch = ByteLatchHold<trelAPIInitLatch>;

uint32_t initialiseFirst(uint32_t handleVersion) {
  trelSegAttachLatch = 0;
  const AttachLatch latch;
  if (handleVersion != TREL_STRUCTURE_VERSION) return TREL_RC_HANDLE_VERSION;
  if (obtain(&pSegAttachList)) return TREL_RC_LIST_NO_MEMORY;
  beginAttachList();
  trelSegLLHeader.next = nullptr;
  trelHDMLLHeader.next = nullptr;
  trelSegLLHeader.identity.handleVersion = handleVersion;
  trelSegLLHeader.identity.latchVersion = TREL_STRUCTURE_VERSION;
  trelAPIIsInitialized = TREL_API_INITIALISED;
  trelAPIInitRefCount = 1;
  return 0;
}

// Frees both handles without disconnecting: the segment stays mapped.
uint32_t forgetHandles(ShmSegInfo_t* segInfo) {
  if (const uint32_t rc = freeHandle(&segInfo->shmPoolHandle)) return rc;
  if (ShmDomainHandle_t* domain = segInfo->shmDomainHandle) {
    delete domain->ipcMemory;
    domain->ipcMemory = nullptr;
  }
  return freeHandle(&segInfo->shmDomainHandle);
}

uint32_t forgetAttachments() {
  if (trelGASegInfo.state == TREL_GA_SLOT_IN_USE) {
    trelGASegInfo.state = TREL_GA_SLOT_EMPTY;
    ShmSegInfo_t* segInfo = &trelGASegInfo.segInfo;
    if (segInfo->identity.handleVersion == TREL_STRUCTURE_VERSION)
      if (const uint32_t rc = forgetHandles(segInfo)) return rc;
  }
  SegAttachNode_t* next = *pSegAttachList;
  *pSegAttachList = nullptr;
  while (SegAttachNode_t* node = next) {
    next = node->next;
    if (node->segInfo->identity.handleVersion != TREL_STRUCTURE_VERSION) continue;
    uint32_t rc = forgetHandles(node->segInfo);
    if (rc == 0) rc = release(&node->segInfo);
    if (rc == 0) rc = release(&node);
    if (rc) return rc;
  }
  return release(&pSegAttachList);
}

// Forks. Whoever forks holds the two process-wide latches meanwhile, so that no other thread is in
// the middle of what they guard. If they cannot be had in time, the child may find that half done:
// it starts not initialised.

constexpr uint32_t kLongestForkMs = 1000;

// What prepare() took. Several threads can fork at a time.
__thread __attribute__((tls_model("initial-exec"))) bool tookInit, tookAttach;

void prepare() {
  tookInit = platByteLatchGetWithin(&trelAPIInitLatch, kLongestForkMs / 2) == 0;
  tookAttach = tookInit && !AttachLatch::isMine() &&
               platByteLatchGetWithin(&trelSegAttachLatch, kLongestForkMs / 2) == 0;
}

void giveBack() {
  if (tookAttach) giveByteLatch(&trelSegAttachLatch);
  if (tookInit) giveByteLatch(&trelAPIInitLatch);
}

void beginChild() {
  // A thread that forks inside an operation goes on inside it, in the child as well.
  if (tookAttach || AttachLatch::isMine()) return giveBack();
  trelAPIInitLatch = trelSegAttachLatch = 0;
  trelAPIInitRefCount = 0;
  trelAPIIsInitialized = TREL_API_UNINITIALISED;
}

__attribute__((constructor)) void watchForks() { platAtFork(prepare, giveBack, beginChild); }

}  // namespace
}  // namespace trel

using namespace trel;

uint32_t TRELOneTimeOnlyInitialization(uint32_t handleVersion, uint32_t latchVersion) {
  return traced(FID_TRELOneTimeOnlyInitialization, [&](const Flow& flow) -> uint32_t {
    const InitLatch initLatch;
    if (trelAPIInitRefCount != 0) {
      const AttachLatch latch;
      if (!isInitialised()) return flow.fail(TREL_RC_NOT_INITIALISED);
      if (trelAPIInitRefCount == UINT32_MAX) return flow.fail(TREL_RC_ATTACH_COUNT_FULL);
      ++trelAPIInitRefCount;
      return 0;
    }
    trelGASegInfo.state = TREL_GA_SLOT_EMPTY;
    if (latchVersion != TREL_STRUCTURE_VERSION) return flow.fail(TREL_RC_LATCH_VERSION);
    return initialiseFirst(handleVersion);
  });
}

uint32_t TRELCleanup(uint32_t cleanupMode) {
  return traced(FID_TRELCleanup, [&](const Flow& flow) -> uint32_t {
    const InitLatch initLatch;
    if (!isInitialised()) return flow.fail(TREL_RC_NOT_INITIALISED);
    const AttachLatch latch;
    if (cleanupMode != 1 && cleanupMode != 2) return flow.fail(TREL_RC_CLEANUP_MODE);
    if (cleanupMode == 1 && trelAPIInitRefCount > 1) {
      --trelAPIInitRefCount;
      return 0;
    }
    if (const uint32_t rc = forgetAttachments()) return flow.fail(rc);
    trelAPIInitRefCount = 0;
    trelAPIIsInitialized = TREL_API_UNINITIALISED;
    return 0;
  });
}

uint32_t trelVersion() { return TREL_VERSION; }

const char* trelPrintrc(uint32_t code) { return rcdErrorGetDescription(code); }
