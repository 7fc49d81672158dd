// Operations on Base properties.
#include "treli/base_property.h"

#include "trel/property.h"

namespace trel {
namespace {

template <class K>
uint32_t deleteBase(SNodeCB_t* node, uint64_t tag, uint64_t inCriticalSection) {
  List<K> list;
  const Key key{tag};
  if (const uint32_t rc = checkInput(node, key, 1, &list)) return rc;
  if (const uint32_t rc = openSection(&list)) return rc;
  return withKey<K, Access::write>(&list, key, 1, inCriticalSection, [&](auto* record) -> uint32_t {
    const uint64_t used = list.slot->used;
    storeLast(&list.slot->used, used > bytesInUse(list) ? used - bytesInUse(list) : 0);
    storeLast(&record->tag, 0);
    return countReconfiguration(node);
  });
}

template <class K>
uint32_t getBaseLocation(SNodeCB_t* node, typename K::Record** record) {
  if (!node) return TREL_RC_NODE_NULL;
  if (!record) return Codes<K>::recordNull;
  List<K> list;
  list.node = node;
  const uint32_t rc = openSection(&list);
  return rc ? rc : baseRecord(list, record);
}

// valueSize: null in Base R.
template <class K>
uint32_t returnBase(SNodeCB_t* node, uint64_t* tag, uint64_t* valueSize,
                    uint64_t inCriticalSection) {
  if (!node) return TREL_RC_NODE_NULL;
  if (!tag) return TREL_RC_OUT_BASE_TAG;
  if (K::hasBytes && !valueSize) return TREL_RC_VALUE_SIZES_NULL;
  List<K> list;
  list.node = node;
  if (const uint32_t rc = openSection(&list)) return rc;
  return reading(node, inCriticalSection, accept::usable, [&]() -> uint32_t {
    typename K::Record* record = nullptr;
    if (const uint32_t rc = baseRecord(list, &record)) return rc;
    if (!list.holds(list.offset + Form<K>::flatHeader, sizeof *record)) return Codes<K>::bounds;
    if constexpr (K::hasBytes) {
      if (!list.holds(record->valueOffset, 0)) return K::valueOffsetBounds;
      *valueSize = record->valueSize;
    }
    const uint64_t stored = record->tag;
    if (stored > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
    *tag = stored;
    return 0;
  });
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
    List<K> list;
    list.node = node;
    if (const uint32_t rc = openSection(&list)) return rc;
    if (list.size < bytesInUse(list)) return flow.fail(Codes<K>::flatFit);
    if (tag > TREL_MAX_TAG) return flow.fail(TREL_RC_TAG_RANGE, &tag, sizeof tag);
    return writeBase(list, Key{tag}, Value{value}, inCriticalSection);
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
    List<K> list;
    list.node = node;
    list.maxValueSize = round8(maxValueSize);
    if (!isValueSize(size, list.maxValueSize))
      return flow.fail(TREL_RC_VALUE_SIZE, &size, sizeof size);
    if (const uint32_t rc = openSection(&list)) return rc;
    if (list.size < bytesInUse(list)) return flow.fail(Codes<K>::flatFit);
    return writeBase(list, Key{tag}, Value{0, size, value}, inCriticalSection);
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
