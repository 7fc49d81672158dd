#include "treli/sizing.h"

#include "treli/hash.h"
#include "treli/property_list.h"

namespace trel {
namespace {

constexpr bool isSizedValue(uint64_t maxValueSize) {
  return maxValueSize != 0 && maxValueSize <= TREL_MAX_VALUE_SIZE;
}

// A list in hash form has room for as many list nodes as its first table has buckets, so that there
// is one to a chain. Its stack has room for the maximum, or in IR and IV for the buckets; IR's
// comes 16 bytes short of its anchor.
template <class K>
uint32_t sizeList(NodeCopyLimits_t* limits, uint64_t* size) {
  auto& part = partOf<K>(*limits);
  List<K> list;
  if (part.maximum > TREL_MAX_PROPERTIES) return Codes<K>::count;
  if constexpr (K::hasId) {
    if (part.maxIdSize > TREL_MAX_ID_SIZE) return TREL_RC_PROPERTY_ID_MAX;
    list.maxIdSize = round8(part.maxIdSize);
  }
  if constexpr (K::hasBytes) {
    if (!isSizedValue(part.maxValueSize)) return TREL_RC_SIZING_VALUE_MAX;
    list.maxValueSize = round8(part.maxValueSize);
  }
  uint64_t wanted[3] = {part.maximum};
  if constexpr (K::hasId) {
    if (part.tagTableSize > TREL_MAX_TAG) return TREL_RC_TAG_TABLE;
    if (part.idTableSize > TREL_MAX_TAG) return TREL_RC_ID_TABLE;
    wanted[1] = part.tagTableSize;
    wanted[2] = part.idTableSize;
  }
  if (part.hashFlag > 1) return TREL_RC_HASH_FLAG;
  if (part.hashFlag == 0) {
    *size = Form<K>::flatHeader + part.maximum * list.recordBytes();
    return 0;
  }
  for (uint32_t i = 0; i < Form<K>::tables; ++i) {
    if (wanted[i] > TREL_MAX_TABLE_SIZE) return TREL_RC_TABLE_SIZE;
    list.tables[i] = primeFrom(wanted[i]);
  }
  const uint64_t stack = 8 * (K::hasId ? list.tables[0] : part.maximum);
  const uint64_t anchor = K::hasId && !K::hasBytes ? 0 : sizeof(HashAnchor_t);
  *size =
      Form<K>::hashHeader + list.bucketBytes() + list.tables[0] * list.nodeBytes() + stack + anchor;
  return 0;
}

uint32_t sizeSection(uint64_t exportBit, NodeCopyLimits_t* limits, uint64_t* size) {
  const auto takeNodeIdSize = [&]() -> uint32_t {
    if (limits->maxNodeIdSize > TREL_MAX_ID_SIZE) return TREL_RC_NODE_ID_MAX;
    limits->maxNodeIdSize = round8(limits->maxNodeIdSize);
    return 0;
  };
  uint32_t rc = 0;
  switch (exportBit) {
    case TREL_EXPORT_ID:
      rc = takeNodeIdSize();
      *size = limits->maxNodeIdSize + sizeof(IdSection_t);
      return rc;
    case TREL_EXPORT_RECORD24:
      *size = 24;
      return 0;
    case TREL_EXPORT_HDM_MODULE:
      *size = sizeof(HdmModuleRecord_t);
      return 0;
    case TREL_EXPORT_PARENT:
      rc = takeNodeIdSize();
      *size = limits->maxNodeIdSize + 72;
      return rc;
    case TREL_EXPORT_BASE_R:
      *size = sizeof(RProperty_t);
      return 0;
    case TREL_EXPORT_BASE_V:
      if (!isSizedValue(limits->v.maxValueSize)) return TREL_RC_SIZING_VALUE_MAX;
      *size = Form<kind::BaseV>::flatHeader + sizeof(VProperty_t) + round8(limits->v.maxValueSize);
      return 0;
    case TREL_EXPORT_R:
      return sizeList<kind::R>(limits, size);
    case TREL_EXPORT_V:
      return sizeList<kind::V>(limits, size);
    case TREL_EXPORT_IR:
      return sizeList<kind::IR>(limits, size);
    case TREL_EXPORT_IV:
      return sizeList<kind::IV>(limits, size);
    case TREL_EXPORT_DEPENDENT:
      if (limits->maxDependents > TREL_MAX_DEPENDENTS) return TREL_RC_DEPENDENT_COUNT;
      rc = takeNodeIdSize();
      *size = limits->maxDependents * (limits->maxNodeIdSize + sizeof(SNodeInfo_t)) + 8;
      return rc;
    case TREL_EXPORT_CHANGE_LIST:
      *size = sizeof(ChangeListSection_t);
      return 0;
    default:
      return 0;  // a bit that belongs to no section
  }
}

}  // namespace

uint32_t sizeSections(uint64_t exports, NodeCopyLimits_t limits, uint64_t* sizes, uint64_t* total) {
  *total = TREL_NODE_HEADER_SIZE;
  for (uint32_t i = 0; i < TREL_SLOTS; ++i) {
    uint64_t size = 0;
    const uint64_t bit = i < kReachableSlots ? uint64_t{2} << i : 0;
    if (const uint32_t rc = sizeSection(exports & bit, &limits, &size)) return rc;
    sizes[i] = round8(size);
    *total += sizes[i];
  }
  return 0;
}

}  // namespace trel
