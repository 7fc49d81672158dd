// Names of nodes and properties.
#include "treli/identifier.h"

#include "trel/tree.h"
#include "trelshm/flow.h"

namespace trel {
namespace {

constexpr uint32_t kOrderedNames =
    TREL_EXPORT_ID | TREL_EXPORT_IR | TREL_EXPORT_IV | TREL_EXPORT_DEPENDENT;

// The tests on which both comparisons agree.
uint32_t checkIds(uint32_t accepted, uint32_t exportBit, const uint8_t* a, const uint8_t* b) {
  if (!(nameKind(exportBit) & accepted)) return TREL_RC_EXPORT_BIT;
  return a && b ? 0 : uint32_t{TREL_RC_ID_NULL};
}

uint32_t checkSizes(uint64_t sizeA, uint64_t sizeB) {
  return sizeA > TREL_MAX_ID_SIZE || sizeB > TREL_MAX_ID_SIZE ? uint32_t{TREL_RC_COMPARE_ID_SIZE}
                                                              : 0;
}

}  // namespace
}  // namespace trel

using namespace trel;

uint32_t trelCompareID(const uint8_t* a, uint64_t sizeA, const uint8_t* b, uint64_t sizeB,
                       uint32_t exportBit, int32_t* result) {
  return traced(FID_trelCompareID, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkIds(kOrderedNames | TREL_EXPORT_PARENT, exportBit, a, b))
      return flow.fail(rc);
    if (const uint32_t rc = checkSizes(sizeA, sizeB)) return flow.fail(rc);
    if (!result) return flow.fail(TREL_RC_OUT_COMPARISON);
    *result = compareIds(a, sizeA, b, sizeB);
    return 0;
  });
}

uint32_t trelCompareTagID(uint64_t tagA, const uint8_t* a, uint64_t sizeA, uint64_t tagB,
                          const uint8_t* b, uint64_t sizeB, uint32_t exportBit, int32_t* result) {
  return traced(FID_trelCompareTagID, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkIds(kOrderedNames, exportBit, a, b)) return flow.fail(rc);
    if (!result) return flow.fail(TREL_RC_OUT_COMPARISON);
    if (tagA > TREL_MAX_TAG || tagB > TREL_MAX_TAG) return flow.fail(TREL_RC_TAG_RANGE);
    if (const uint32_t rc = checkSizes(sizeA, sizeB)) return flow.fail(rc);
    *result = compareNames(tagA, a, sizeA, tagB, b, sizeB);
    return 0;
  });
}
