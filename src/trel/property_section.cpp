// What the property operations stand on: hash indices, limits, table sizes, places in a section.
#include "trel/property.h"
#include "treli/hash_list.h"

namespace trel {
namespace {

template <class K>
struct Of {
  using Kind = K;
};

// work(Of<kind>) for the kind of an export bit that has lists.
template <class Work>
uint32_t withKind(uint32_t bit, Work&& work) {
  switch (bit) {
    case TREL_EXPORT_R:
      return work(Of<kind::R>());
    case TREL_EXPORT_V:
      return work(Of<kind::V>());
    case TREL_EXPORT_IR:
      return work(Of<kind::IR>());
    case TREL_EXPORT_IV:
      return work(Of<kind::IV>());
    default:
      return TREL_RC_EXPORT_BIT;
  }
}

// work(list, stack) on the section of a kind, whatever its form.
template <class Work>
uint32_t withStack(SNodeCB_t* node, uint32_t bit, Work&& work) {
  return withKind(bit, [&](auto of) -> uint32_t {
    using K = typename decltype(of)::Kind;
    List<K> list;
    Stack stack;
    if (const uint32_t rc = openSection(node, K::bit, &list)) return rc;
    const uint32_t rc = openStack(list, &stack);
    return work(list, stack, rc);
  });
}

// use(list, rc) of which the table sizes alone have been read and tested. The first is handed out
// even if it is none.
template <class K, class Use>
uint32_t withTables(SNodeCB_t* node, Use&& use) {
  List<K> list;
  if (const uint32_t rc = openSection(node, K::bit, &list)) return rc;
  const uint32_t rc = readTableSizes(&list);
  use(list, rc);
  return rc;
}

template <class K>
uint32_t readMaxima(SNodeCB_t* node, uint64_t* maxIdSize, uint64_t* maxValueSize) {
  List<K> list;
  const uint32_t rc = openLimits(node, &list);
  if (rc) return rc;
  if (maxIdSize) *maxIdSize = list.maxIdSize;
  if (maxValueSize) *maxValueSize = list.maxValueSize;
  return 0;
}

template <class K>
uint32_t checkWithOuts(SNodeCB_t* node, const Key& key, uint64_t valueSize, uint64_t* maxIdSize,
                       uint64_t* maxValueSize) {
  if (K::hasBytes && !maxValueSize)
    return K::hasId ? TREL_RC_OUT_VALUE_MAX_IV : TREL_RC_OUT_VALUE_MAX_V;
  if (K::hasId && !maxIdSize) return K::hasBytes ? TREL_RC_OUT_ID_MAX_IV : TREL_RC_OUT_ID_MAX_IR;
  List<K> list;
  const uint32_t rc = openForKey(node, key, valueSize, &list);
  if (K::hasId) *maxIdSize = list.maxIdSize;
  if (K::hasBytes) *maxValueSize = list.maxValueSize;
  return rc;
}

}  // namespace
}  // namespace trel

using namespace trel;

void trelConvertNumberToKey(uint64_t number, uint8_t* key, uint64_t* keySize) {
  if (!key || !keySize) return;
  *keySize = 0;
  forEachDigit(number, [&](uint8_t digit) { key[(*keySize)++] = digit; });
}

void trelGetPrimeNumber(uint64_t number, uint64_t* prime) {
  if (prime) *prime = primeFrom(number);
}

uint32_t trelGetHTIndexForTag(uint64_t tag, uint64_t tableSize, uint64_t* index) {
  return traced(FID_trelGetHTIndexForTag, [&](const Flow& flow) -> uint32_t {
    if (!index) return flow.fail(TREL_RC_OUT_TABLE_SIZE);
    if (tableSize == 0) return flow.fail(TREL_RC_TABLE_SIZE);
    *index = hashOfTag(tag) % tableSize;
    return 0;
  });
}

uint32_t trelGetHTIndex(uint64_t tag, const uint8_t* id, uint64_t idSize, uint64_t tableSize1,
                        uint64_t tableSize2, uint64_t tableSize3, uint64_t* index1,
                        uint64_t* index2, uint64_t* index3) {
  return traced(FID_trelGetHTIndex, [&](const Flow& flow) -> uint32_t {
    if (!id && idSize) return flow.fail(TREL_RC_ID_NULL);
    if (!index1 || !index2 || !index3) return flow.fail(TREL_RC_OUT_TABLE_SIZES);
    if (!tableSize1 || !tableSize2 || !tableSize3) return flow.fail(TREL_RC_TABLE_SIZE);
    *index1 = hashOfId(id, idSize, tag) % tableSize1;
    *index2 = hashOfTag(tag) % tableSize2;
    *index3 = hashOfId(id, idSize, 0) % tableSize3;
    return 0;
  });
}

uint32_t trelGetFreeSpaceOffsetForProperty(SNodeCB_t* node, uint32_t kind, uint64_t* offset) {
  return traced(FID_trelGetFreeSpaceOffsetForProperty, [&](const Flow& flow) -> uint32_t {
    if (!node || !offset) return flow.fail(TREL_RC_NODE_NULL);
    if (isReadOnly(node)) return flow.fail(TREL_RC_READING_ONLY);
    return withStack(node, kind, [&](auto& list, Stack& stack, uint32_t failure) -> uint32_t {
      if (failure) return failure;
      // That opens the section again, and the stack is to be of the section as it is then.
      if (const uint32_t rc = openLimits(node, &list)) return rc;
      if (list.fault) return list.fault;
      if (const uint32_t rc = openStack(list, &stack)) return rc;
      if (const uint32_t rc = findPlace(list, stack, offset)) return rc;
      takePlace(list, stack);
      return 0;
    });
  });
}

uint32_t trelGetNumberOfFreedLListNodes(SNodeCB_t* node, uint32_t kind, uint64_t* count) {
  return traced(FID_trelGetNumberOfFreedLListNodes, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!count) return flow.fail(TREL_RC_OUT_FREED_COUNT);
    return withStack(node, kind, [&](auto&, const Stack& stack, uint32_t failure) -> uint32_t {
      if (stack.anchor) *count = stack.freed;
      return stack.anchor && stack.freed <= TREL_MAX_PROPERTIES ? 0 : failure;
    });
  });
}

uint32_t trelGetMemoryStackSizeForHashTable(SNodeCB_t* node, uint32_t kind, uint64_t* size) {
  return traced(FID_trelGetMemoryStackSizeForHashTable, [&](const Flow& flow) -> uint32_t {
    if (!node || !size) return flow.fail(TREL_RC_NODE_NULL);
    return withStack(node, kind, [&](auto& list, const Stack& stack, uint32_t failure) -> uint32_t {
      if (!stack.anchor) return failure;
      *size = stack.bytes;  // more freed list nodes than properties count elsewhere
      return stack.freed <= (list.size - sizeof(HashAnchor_t)) / 8 ? 0u : TREL_RC_FREED_COUNT;
    });
  });
}

uint32_t trelUpdateListOfFreedLLNodes(SNodeCB_t* node, uint32_t kind, const TrelU64* link) {
  return traced(FID_trelUpdateListOfFreedLLNodes, [&](const Flow& flow) -> uint32_t {
    if (!node || !link) return flow.fail(TREL_RC_NODE_NULL);
    if (isReadOnly(node)) return flow.fail(TREL_RC_READING_ONLY);
    return withStack(node, kind, [&](auto& list, const Stack& stack, uint32_t failure) -> uint32_t {
      if (failure) return failure;
      if (const uint32_t rc = checkPush(list, stack)) return rc;
      push(list, stack, *link);
      return 0;
    });
  });
}

uint32_t trelGetHashTableSizeForRVProperties(SNodeCB_t* node, uint32_t kind, uint64_t* tableSize) {
  return traced(FID_trelGetHashTableSizeForRVProperties, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!tableSize) return flow.fail(TREL_RC_OUT_TABLE_SIZE);
    return withKind(kind, [&](auto of) -> uint32_t {
      using K = typename decltype(of)::Kind;
      if (K::hasId) return TREL_RC_EXPORT_BIT;
      return withTables<K>(node,
                           [&](const List<K>& list, uint32_t) { *tableSize = list.tables[0]; });
    });
  });
}

uint32_t trelGetHashTableSizeForIRVProperties(SNodeCB_t* node, uint32_t kind, uint64_t* tableSize1,
                                              uint64_t* tableSize2, uint64_t* tableSize3) {
  return traced(FID_trelGetHashTableSizeForIRVProperties, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!tableSize1 || !tableSize2 || !tableSize3) return flow.fail(TREL_RC_OUT_TABLE_SIZES);
    return withKind(kind, [&](auto of) -> uint32_t {
      using K = typename decltype(of)::Kind;
      if (!K::hasId) return TREL_RC_EXPORT_BIT;
      return withTables<K>(node, [&](const List<K>& list, uint32_t rc) {
        *tableSize1 = list.tables[0];
        if (rc || !list.hashed()) return;
        *tableSize2 = list.tables[1];
        *tableSize3 = list.tables[2];
      });
    });
  });
}

uint32_t trelGetMaxVSizeForVProperties(SNodeCB_t* node, uint64_t* maxValueSize) {
  return traced(FID_trelGetMaxVSizeForVProperties, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!maxValueSize) return flow.fail(TREL_RC_OUT_VALUE_MAX_V);
    return readMaxima<kind::V>(node, nullptr, maxValueSize);
  });
}

uint32_t trelGetMaxIDSizeForIRProperties(SNodeCB_t* node, uint64_t* maxIdSize) {
  return traced(FID_trelGetMaxIDSizeForIRProperties, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!maxIdSize) return flow.fail(TREL_RC_OUT_ID_MAX_IR);
    return readMaxima<kind::IR>(node, maxIdSize, nullptr);
  });
}

uint32_t trelGetMaxIDVSizeForIVProperties(SNodeCB_t* node, uint64_t* maxIdSize,
                                          uint64_t* maxValueSize) {
  return traced(FID_trelGetMaxIDVSizeForIVProperties, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!maxValueSize) return flow.fail(TREL_RC_OUT_VALUE_MAX_IV);
    if (!maxIdSize) return flow.fail(TREL_RC_OUT_ID_MAX_IV);
    return readMaxima<kind::IV>(node, maxIdSize, maxValueSize);
  });
}

uint32_t trelCheckInputParameters(uint32_t kind, SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                  const uint8_t* id, uint64_t valueSize, uint64_t* maxIdSize,
                                  uint64_t* maxValueSize) {
  return traced(FID_trelCheckInputParameters, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (tag > TREL_MAX_TAG) return flow.fail(TREL_RC_TAG_RANGE, &tag, sizeof tag);
    const Key key{tag, idSize, id};
    if (kind == TREL_EXPORT_BASE_R) return 0;
    if (kind == TREL_EXPORT_BASE_V)
      return checkWithOuts<kind::BaseV>(node, key, valueSize, maxIdSize, maxValueSize);
    return withKind(kind, [&](auto of) {
      return checkWithOuts<typename decltype(of)::Kind>(node, key, valueSize, maxIdSize,
                                                        maxValueSize);
    });
  });
}
