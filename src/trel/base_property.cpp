// Operations on Base properties.
#include "treli/base_property.h"

#include "trel/property.h"

namespace trel {
namespace {

template <class K>
uint32_t deleteBase(SNodeCB_t* node, uint64_t tag, uint64_t inCriticalSection) {
  return writeKey<K>(node, Key{tag}, 1, 0, inCriticalSection,
                     [&](List<K>& list, auto* record) -> uint32_t {
                       list.setUsed(lessOr0(list.used, bytesInUse(list)));
                       storeLast(&record->tag, 0);
                       return countReconfiguration(node);
                     });
}

template <class K>
uint32_t getBaseLocation(SNodeCB_t* node, typename K::Record** record) {
  if (!node) return TREL_RC_NODE_NULL;
  if (!record) return Codes<K>::recordNull;
  List<K> list;
  const uint32_t rc = openSection(node, K::bit, &list);
  return rc ? rc : baseRecord(list, record);
}

// valueSize: null in Base R.
template <class K>
uint32_t returnBase(SNodeCB_t* node, uint64_t* tag, uint64_t* valueSize,
                    uint64_t inCriticalSection) {
  if (!node) return TREL_RC_NODE_NULL;
  if (!tag) return TREL_RC_OUT_BASE_TAG;
  if (K::hasBytes && !valueSize) return TREL_RC_VALUE_SIZES_NULL;
  uint64_t foundTag = 0, foundSize = 0;
  const uint32_t rc = looking(node, inCriticalSection, [&]() -> uint32_t {
    List<K> list;
    typename K::Record* record = nullptr;
    if (const uint32_t failure = openSection(node, K::bit, &list)) return failure;
    if (const uint32_t failure = checkCondition(node, accept::usable)) return failure;
    if (const uint32_t failure = baseRecord(list, &record)) return failure;
    if (!list.holds(list.offset + Form<K>::flatHeader, sizeof *record)) return Codes<K>::bounds;
    if constexpr (K::hasBytes) {
      if (!list.holds(once(record->valueOffset), 0)) return K::valueOffsetBounds;
      foundSize = once(record->valueSize);
    }
    foundTag = once(record->tag);
    return foundTag > TREL_MAX_TAG ? uint32_t{TREL_RC_TAG_RANGE} : 0;
  });
  if (rc) return rc;
  *tag = foundTag;
  if (K::hasBytes) *valueSize = foundSize;
  return 0;
}

}  // namespace
}  // namespace trel

using namespace trel;

uint32_t trelCreateBaseRProperty(SNodeCB_t* node, uint64_t tag, int32_t value,
                                 uint64_t inCriticalSection) {
  using K = kind::BaseR;
  return traced(FID_trelCreateBaseRProperty, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!(node->exports & K::bit)) return flow.fail(Codes<K>::noExport);
    if (tag > TREL_MAX_TAG) return flow.fail(TREL_RC_TAG_RANGE, &tag, sizeof tag);
    return writeBase<K>(node, 0, Key{tag}, Value{value}, inCriticalSection);
  });
}

uint32_t trelCreateBaseVProperty(SNodeCB_t* node, uint64_t tag, const uint8_t* value, uint64_t size,
                                 uint64_t maxValueSize, uint64_t inCriticalSection) {
  using K = kind::BaseV;
  return traced(FID_trelCreateBaseVProperty, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!value) return flow.fail(K::valueNull);
    if (!(node->exports & K::bit)) return flow.fail(Codes<K>::noExport);
    if (tag > TREL_MAX_TAG) return flow.fail(TREL_RC_TAG_RANGE, &tag, sizeof tag);
    if (maxValueSize == 0 || maxValueSize > TREL_MAX_VALUE_SIZE)
      return flow.fail(TREL_RC_VALUE_MAX, &maxValueSize, sizeof maxValueSize);
    const uint64_t maximum = round8(maxValueSize);
    if (!isValueSize(size, maximum)) return flow.fail(TREL_RC_VALUE_SIZE, &size, sizeof size);
    return writeBase<K>(node, maximum, Key{tag}, Value{0, size, value}, inCriticalSection);
  });
}

uint32_t trelDeleteBaseRProperty(SNodeCB_t* node, uint64_t tag, uint64_t inCriticalSection) {
  return traced(FID_trelDeleteBaseRProperty,
                [&](const Flow&) { return deleteBase<kind::BaseR>(node, tag, inCriticalSection); });
}

uint32_t trelDeleteBaseVProperty(SNodeCB_t* node, uint64_t tag, uint64_t inCriticalSection) {
  return traced(FID_trelDeleteBaseVProperty,
                [&](const Flow&) { return deleteBase<kind::BaseV>(node, tag, inCriticalSection); });
}

uint32_t trelGetBaseRPropertyLocation(SNodeCB_t* node, RProperty_t** record) {
  return traced(FID_trelGetBaseRPropertyLocation,
                [&](const Flow&) { return getBaseLocation<kind::BaseR>(node, record); });
}

uint32_t trelGetBaseVPropertyLocation(SNodeCB_t* node, VProperty_t** record) {
  return traced(FID_trelGetBaseVPropertyLocation,
                [&](const Flow&) { return getBaseLocation<kind::BaseV>(node, record); });
}

uint32_t trelReturnBaseRProperty(SNodeCB_t* node, uint64_t* tag, uint64_t inCriticalSection) {
  return traced(FID_trelReturnBaseRProperty, [&](const Flow&) {
    return returnBase<kind::BaseR>(node, tag, nullptr, inCriticalSection);
  });
}

uint32_t trelReturnBaseVProperty(SNodeCB_t* node, uint64_t* tag, uint64_t* valueSize,
                                 uint64_t inCriticalSection) {
  return traced(FID_trelReturnBaseVProperty, [&](const Flow&) {
    return returnBase<kind::BaseV>(node, tag, valueSize, inCriticalSection);
  });
}
