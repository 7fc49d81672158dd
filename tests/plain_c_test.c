/* The public headers are C, and a C program publishes a node and finds it again. */
#include <stdio.h>
#include <unistd.h>

#include "platsvc/platsvc.h"
#include "trel/trel.h"

static int failures = 0;

static void check(uint32_t code, const char* what) {
  if (code == 0) return;
  fprintf(stderr, "%s: %s (0x%x)\n", what, trelPrintrc(code), code);
  ++failures;
}
#define CHECK(call) check((call), #call)

int main(void) {
  const PLATIPCResID key = {PLAT_STRUCTURE_TAG, 0x50000000u | (uint32_t)getpid()};
  ShmSegInfo_t *segment = NULL, *reader = NULL;
  SNodeCB_t *node = NULL, *found = NULL;
  TopNodeInfo_t top;
  uint64_t sizes[64] = {32}, size = 0, offset = 0;

  if (trelVersion() != TREL_VERSION) check(1, "the version");
  PLATVAtomicSigned32 cell;
  platVAtomicStore(&cell, -7);
  if (platVAtomicLoad(&cell) != -7) check(1, "an atomic cell");

  CHECK(TRELOneTimeOnlyInitialization(TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION));
  CHECK(trelGetProtectedStatusSegment(&segment, 0x40000, &key, 0, 0, NULL, NULL));
  if (failures) return 1;
  CHECK(trelCreateNode(segment, &node, TREL_EXPORT_ID, sizes, &size, &offset));
  CHECK(trelInitNode(&node, offset, 5, (const uint8_t*)"plain", NULL, NULL, 16, NULL, NULL, NULL));
  CHECK(trelSetNodeTag(node, 42, 0));
  CHECK(trelActivateNode(&node));
  CHECK(trelPutTopNodeInfoIntoDomainHeader(segment->shmDomainHandle, 42, offset,
                                           (uint32_t)segment->shmPoolHandle->poolOffset));
  CHECK(trelConnectToATree(&reader, &found, &top, &key, 0, NULL, NULL));
  if (found != node || top.tag != 42) check(1, "the node found");
  CHECK(trelDetachFromTopNode(&reader, 1));
  CHECK(trelDeleteStatusSegment(&segment, 4, 2, 2));
  CHECK(TRELCleanup(1));
  return failures != 0;
}
