// Reaching a property by its key or its record, and reading or writing it.
#pragma once

#include "treli/flat_list.h"
#include "treli/hash_list.h"

namespace trel {

// The record of a Base property: the section's only one. Nothing tells whether it exists but
// `used`.
template <class K>
uint32_t baseRecord(const List<K>& list, typename K::Record** record) {
  const uint64_t start = list.offset + Form<K>::flatHeader;
  *record = list.recordAt(start);
  return list.holds(start, 0) ? 0 : Codes<K>::bounds;
}

// The bucket of a key; 0 in flat form.
template <class K>
TREL_INLINE uint64_t keyBucket(const List<K>& list, const Key& key) {
  if constexpr (K::base) {
    return 0;
  } else {
    return TREL_LIKELY(list.hashed()) ? bucketOf(list, 0, key) : 0;
  }
}

// The whole record of a key. The caller is inside the section.
template <class K>
TREL_INLINE uint32_t findKey(const List<K>& list, uint64_t bucket, const Key& key,
                             typename K::Record** record) {
  if constexpr (K::base) {
    if (const uint32_t rc = baseRecord(list, record)) return rc;
    if (list.slot->used == 0) return Codes<K>::keyAbsent;
    if ((K::hasBytes && list.maxValueSize == 0) ||
        list.maxValueSize > list.size ||  // it is as stored; the sum must not wrap
        !list.holds(list.offset + Form<K>::flatHeader, list.recordBytes()))
      return Codes<K>::bounds;
    return (*record)->tag == key.tag ? 0 : Codes<K>::keyAbsent;
  } else {
    return TREL_LIKELY(bucket) ? findHashed(list, bucket, key, Codes<K>::keyAbsent, record)
                               : findFlat(list, key, record);
  }
}

// The same in a list that was made anew while the caller waited for the section.
template <class K>
__attribute__((noinline)) uint32_t findKeyAgain(SNodeCB_t* node, const Key& key, uint64_t valueSize,
                                                List<K>* fresh, typename K::Record** record) {
  if (const uint32_t rc = openAgain(node, fresh)) return rc;
  if (const uint32_t rc = checkSizes(*fresh, key, valueSize)) return rc;
  return findKey(*fresh, keyBucket(*fresh, key), key, record);
}

// Where a key leads. What needs no section is done in front of it, while the latch is on its way.
template <class K>
class Road {
 public:
  TREL_INLINE Road(List<K>* list, const Key& key) : list_(list), key_(key) {
    if constexpr (K::base) {
      opened_ = openSection(list);
    } else {
      opened_ = openList(list);
    }
    if (TREL_LIKELY(opened_ == 0)) bucket_ = keyBucket(*list, key);
  }

  // The caller is inside the section. On the usual way nobody takes the list's address, so that it
  // stays in registers.
  TREL_INLINE uint32_t follow(uint64_t valueSize, typename K::Record** record) const {
    if (TREL_UNLIKELY(opened_)) return opened_;
    if (TREL_LIKELY(isAsRead(*list_))) return findKey(*list_, bucket_, key_, record);
    List<K> fresh;
    typename K::Record* found = nullptr;
    const Key key = key_;
    const uint32_t rc = findKeyAgain(list_->node, key, valueSize, &fresh, &found);
    *list_ = fresh;
    *record = found;
    return rc;
  }

 private:
  List<K>* list_;
  const Key& key_;
  uint64_t bucket_ = 0;
  uint32_t opened_;
};

// work(record) inside a section, on the property of a key, of which checkInput approved with that
// size of a value.
template <class K, Access access, class Work>
TREL_INLINE uint32_t withKey(List<K>* list, const Key& key, uint64_t valueSize,
                             uint64_t inCriticalSection, Work&& work) {
  const Road<K> road(list, key);
  return within<access>(list->node, inCriticalSection, [&]() -> uint32_t {
    if (const uint32_t rc = checkCondition(list->node, accept::usable)) return rc;
    typename K::Record* record = nullptr;
    if (const uint32_t rc = road.follow(valueSize, &record)) return rc;
    if (!record) __builtin_unreachable();  // success comes with a record
    return work(record);
  });
}

inline uint32_t loadRegister(PLATVAtomicSigned32* cell, int32_t* value) {
  return PLATVAtomicSigned32::add(cell, 0, value) ? uint32_t{TREL_RC_ATOMIC} : 0;
}

// A swap whose old value nobody wants, and so without a locked instruction.
inline void storeRegister(PLATVAtomicSigned32* cell, int32_t value) {
  __atomic_store_n(PLATVAtomicSigned32::word(cell), value, __ATOMIC_RELEASE);
}

template <class K>
TREL_INLINE uint32_t getRegister(SNodeCB_t* node, const Key& key, int32_t* value,
                                 uint64_t inCriticalSection) {
  List<K> list;
  if (const uint32_t rc = checkInput(node, key, 1, &list)) return rc;
  if (!value) return K::valueNull;
  return withKey<K, Access::read>(&list, key, 1, inCriticalSection, [&](auto* record) {
    return loadRegister(&record->value, value);
  });
}

template <class K>
TREL_INLINE uint32_t setRegister(SNodeCB_t* node, const Key& key, int32_t value,
                                 uint64_t inCriticalSection) {
  List<K> list;
  if (const uint32_t rc = checkInput(node, key, 1, &list)) return rc;
  return withKey<K, Access::write>(&list, key, 1, inCriticalSection, [&](auto* record) -> uint32_t {
    storeRegister(&record->value, value);
    return 0;
  });
}

template <class K>
TREL_INLINE uint32_t getHeldRegister(SNodeCB_t* node, typename K::Record* record, int32_t* value,
                                     uint64_t* rcField, uint64_t inCriticalSection) {
  if (!node) return TREL_RC_NODE_NULL;
  if (!record) return Codes<K>::recordNull;
  if (!value) return K::valueNull;
  if (!rcField) return TREL_RC_OUT_RC;
  return reading(node, inCriticalSection, accept::usable, [&]() -> uint32_t {
    if (const uint32_t rc = loadRegister(&record->value, value)) return rc;
    *rcField = record->rc;
    return 0;
  });
}

template <class K>
TREL_INLINE uint32_t setHeldRegister(SNodeCB_t* node, typename K::Record* record, int32_t value,
                                     uint64_t rcField, uint64_t inCriticalSection) {
  if (!node) return TREL_RC_NODE_NULL;
  if (!record) return Codes<K>::recordNull;
  return writing(node, inCriticalSection, accept::usable, [&]() -> uint32_t {
    storeRegister(&record->value, value);
    record->rc = rcField;
    return 0;
  });
}

template <class K>
TREL_INLINE uint32_t getBytes(SNodeCB_t* node, const Key& key, uint64_t* size, uint8_t** address,
                              uint8_t* buffer, uint64_t inCriticalSection) {
  List<K> list;
  if (const uint32_t rc = checkInput(node, key, 1, &list)) return rc;
  if (!size) return TREL_RC_VALUE_SIZES_NULL;
  if (!address) return K::valueNull;
  return withKey<K, Access::read>(&list, key, 1, inCriticalSection, [&](auto* record) -> uint32_t {
    const uint64_t stored = record->valueSize;
    if (stored > list.maxValueSize) return TREL_RC_VALUE_SIZE;
    *address = list.valueOf(record);
    *size = stored;
    if (buffer) copyBytes(buffer, *address, stored);
    return 0;
  });
}

template <class K>
TREL_INLINE uint32_t setBytes(SNodeCB_t* node, const Key& key, uint64_t size, const uint8_t* value,
                              uint64_t inCriticalSection) {
  List<K> list;
  if (const uint32_t rc = checkInput(node, key, size, &list)) return rc;
  if (!value) return K::valueNull;
  return withKey<K, Access::write>(&list, key, size, inCriticalSection,
                                   [&](auto* record) -> uint32_t {
                                     copyBytes(list.valueOf(record), value, size);
                                     record->valueSize = size;
                                     return 0;
                                   });
}

// Whether `bytes` bytes of a held record's value lie in the section. Only the bytes are tested: the
// record is the caller's word.
template <class K>
TREL_INLINE bool holdsValue(List<K>* list, typename K::Record* record, uint64_t bytes) {
  return openSection(list) == 0 && list->holds(offsetOf(list->valueOf(record), list->node), bytes);
}

template <class K>
TREL_INLINE uint32_t getHeldBytes(SNodeCB_t* node, typename K::Record* record, uint64_t* size,
                                  uint8_t** address, uint8_t* buffer, uint64_t* rcField,
                                  uint64_t inCriticalSection) {
  if (!node) return TREL_RC_NODE_NULL;
  if (!record) return Codes<K>::recordNull;
  if (!rcField) return TREL_RC_OUT_RC;
  if (!size) return TREL_RC_VALUE_SIZES_NULL;
  if (!address) return K::valueNull;
  List<K> list;
  list.node = node;
  if (K::hasId || buffer)
    if (const uint32_t rc = readLimits(&list)) return rc;
  if (buffer && *size > list.maxValueSize) return TREL_RC_VALUE_SIZE;
  return reading(node, inCriticalSection, accept::usable, [&]() -> uint32_t {
    if (buffer && *size) {
      if (!holdsValue(&list, record, *size)) return Codes<K>::bounds;
      copyBytes(buffer, list.valueOf(record), *size);
    }
    *address = list.valueOf(record);
    *size = record->valueSize;
    *rcField = record->rc;
    return 0;
  });
}

template <class K>
TREL_INLINE uint32_t setHeldBytes(SNodeCB_t* node, typename K::Record* record, uint64_t size,
                                  const uint8_t* value, uint64_t rcField,
                                  uint64_t inCriticalSection) {
  if (!node) return TREL_RC_NODE_NULL;
  if (!record) return Codes<K>::recordNull;
  if (!value) return K::valueNull;
  List<K> list;
  list.node = node;
  if (const uint32_t rc = readLimits(&list)) return rc;
  if (!isValueSize(size, list.maxValueSize)) return TREL_RC_VALUE_SIZE;
  return writing(node, inCriticalSection, accept::usable, [&]() -> uint32_t {
    if (!holdsValue(&list, record, size)) return Codes<K>::bounds;
    copyBytes(list.valueOf(record), value, size);
    record->valueSize = size;
    record->rc = rcField;
    return 0;
  });
}

template <class K>
uint32_t getRc(SNodeCB_t* node, const Key& key, uint64_t* rcField, uint64_t inCriticalSection) {
  List<K> list;
  if (const uint32_t rc = checkInput(node, key, 1, &list)) return rc;
  if (!rcField) return TREL_RC_OUT_RC;
  return withKey<K, Access::read>(&list, key, 1, inCriticalSection, [&](auto* record) -> uint32_t {
    *rcField = record->rc;
    return 0;
  });
}

template <class K>
uint32_t setRc(SNodeCB_t* node, const Key& key, uint64_t rcField, uint64_t inCriticalSection) {
  List<K> list;
  if (const uint32_t rc = checkInput(node, key, 1, &list)) return rc;
  return withKey<K, Access::write>(&list, key, 1, inCriticalSection, [&](auto* record) -> uint32_t {
    record->rc = rcField;
    return 0;
  });
}

// The address forms enter nothing: their callers are inside.
template <class K>
uint32_t getAddress(SNodeCB_t* node, const Key& key, typename K::Record** address) {
  List<K> list;
  if (const uint32_t rc = checkInput(node, key, 1, &list)) return rc;
  if (!address) return Codes<K>::recordNull;
  return withKey<K, Access::read>(&list, key, 1, 1, [&](auto* record) -> uint32_t {
    *address = record;
    return 0;
  });
}

// Value: PLATVAtomicSigned32 or uint8_t.
template <class K, class Value>
uint32_t getValueAddress(SNodeCB_t* node, const Key& key, Value** address) {
  List<K> list;
  if (const uint32_t rc = checkInput(node, key, 1, &list)) return rc;
  if (!address) return K::valueNull;
  return withKey<K, Access::read>(&list, key, 1, 1, [&](auto* record) -> uint32_t {
    if constexpr (K::hasBytes)
      *address = list.valueOf(record);
    else
      *address = &record->value;
    return 0;
  });
}

}  // namespace trel
