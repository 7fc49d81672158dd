// Counts and listings of properties, one row for each kind.
#include "treli/enumeration.h"

#include "trel/property.h"
#include "treli/rows.h"

using namespace trel;

// clang-format off
#define COUNTS(K)                                                                          \
  OPERATION(trelReturn##K##PropertyCount,                                                  \
            (SNodeCB_t* node, uint64_t tag, uint64_t* number, uint64_t inCriticalSection), \
            returnCount<kind::K>(node, tag, number, inCriticalSection))                    \
  OPERATION(trelGet##K##PropertiesNoForGivenTag,                                           \
            (SNodeCB_t* node, uint64_t tag, uint64_t* number, uint64_t inCriticalSection), \
            getNumberForTag<kind::K>(node, tag, number, inCriticalSection))                \
  OPERATION(                                                                               \
      trelGetNumberOf##K##Properties,                                                      \
      (SNodeCB_t* node, uint64_t* current, uint64_t* maximum, uint64_t inCriticalSection), \
      getNumber<kind::K>(node, current, maximum, inCriticalSection))
// clang-format on

COUNTS(R)
COUNTS(V)
COUNTS(IR)
COUNTS(IV)

OPERATION(trelReturnRProperties,
          (SNodeCB_t * node, uint64_t* tags, uint64_t tag, uint64_t count,
           uint64_t inCriticalSection),
          returnProperties<kind::R>(node, {tags, nullptr, nullptr, nullptr, tag, count, 0},
                                    inCriticalSection))

OPERATION(trelReturnVProperties,
          (SNodeCB_t * node, uint64_t* tags, uint64_t* sizes, uint64_t tag, uint64_t count,
           uint64_t inCriticalSection),
          returnProperties<kind::V>(node, {tags, nullptr, nullptr, sizes, tag, count, 0},
                                    inCriticalSection))

OPERATION(trelReturnIRProperties,
          (SNodeCB_t * node, uint64_t* tags, uint64_t* idSizes, uint8_t* ids, uint64_t tag,
           uint64_t count, uint64_t idStride, uint64_t inCriticalSection),
          returnProperties<kind::IR>(node, {tags, idSizes, ids, nullptr, tag, count, idStride},
                                     inCriticalSection))

OPERATION(trelReturnIVProperties,
          (SNodeCB_t * node, uint64_t* tags, uint64_t* idSizes, uint8_t* ids, uint64_t* sizes,
           uint64_t tag, uint64_t count, uint64_t idStride, uint64_t inCriticalSection),
          returnProperties<kind::IV>(node, {tags, idSizes, ids, sizes, tag, count, idStride},
                                     inCriticalSection))
