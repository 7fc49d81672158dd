// Reaching a property by its key or its record, and reading or writing it.
//
// All that an operation learns of a list it learns inside, and so does whatever it answers. What it
// finds goes to locals first: a look may be repeated, and a failure writes nothing.
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

// The whole record of a key.
template <class K>
TREL_INLINE uint32_t findKey(const List<K>& list, const Key& key, typename K::Record** record) {
  if constexpr (K::base) {
    if (const uint32_t rc = baseRecord(list, record)) return rc;
    if (list.used == 0) return Codes<K>::keyAbsent;
    if ((K::hasBytes && list.maxValueSize == 0) ||
        list.maxValueSize > list.size ||  // it is as stored; the sum must not wrap
        !list.holds(list.offset + Form<K>::flatHeader, list.recordBytes()))
      return Codes<K>::bounds;
    return once((*record)->tag) == key.tag ? 0 : Codes<K>::keyAbsent;
  } else {
    if (TREL_LIKELY(list.hashed()))
      return findHashed(list, bucketOf(list, 0, key), key, Codes<K>::keyAbsent, record);
    // Nobody takes the address of the list on the usual way, so that it stays in registers.
    const List<K> flat = list;
    return findFlat(flat, key, record);
  }
}

// Work on the property of a key, for a caller who is inside: work(list, record). `refusal` is the
// code of an argument whose turn comes behind the key's, or 0.
template <class K, class Work>
TREL_INLINE uint32_t onKey(SNodeCB_t* node, const Key& key, uint64_t valueSize, uint32_t refusal,
                           Work&& work) {
  List<K> list;
  if (const uint32_t rc = openForKey(node, key, valueSize, &list)) return rc;
  if (TREL_UNLIKELY(refusal)) return refusal;
  if (const uint32_t rc = checkCondition(node, accept::usable)) return rc;
  if constexpr (K::base) {
    if (list.fault) return list.fault;
  } else {
    if (const uint32_t rc = openTables(&list)) return rc;
  }
  typename K::Record* record = nullptr;
  if (const uint32_t rc = findKey(list, key, &record)) return rc;
  if (!record) __builtin_unreachable();  // success comes with a record
  return work(list, record);
}

template <class K, class Work>
TREL_INLINE uint32_t readKey(SNodeCB_t* node, const Key& key, uint32_t refusal,
                             uint64_t inCriticalSection, Work&& work) {
  if (!node) return TREL_RC_NODE_NULL;
  return looking(node, inCriticalSection,
                 [&]() TREL_INLINED { return onKey<K>(node, key, 1, refusal, work); });
}

template <class K, class Work>
TREL_INLINE uint32_t writeKey(SNodeCB_t* node, const Key& key, uint64_t valueSize, uint32_t refusal,
                              uint64_t inCriticalSection, Work&& work) {
  if (!node) return TREL_RC_NODE_NULL;
  return within<Access::write>(node, inCriticalSection, [&]() TREL_INLINED {
    return onKey<K>(node, key, valueSize, refusal, work);
  });
}

inline int32_t loadRegister(PLATVAtomicSigned32* cell) {
  return __atomic_load_n(PLATVAtomicSigned32::word(cell), __ATOMIC_ACQUIRE);
}

// A swap whose old value nobody wants, and so without a locked instruction.
inline void storeRegister(PLATVAtomicSigned32* cell, int32_t value) {
  __atomic_store_n(PLATVAtomicSigned32::word(cell), value, __ATOMIC_RELEASE);
}

template <class K>
TREL_INLINE uint32_t getRegister(SNodeCB_t* node, const Key& key, int32_t* value,
                                 uint64_t inCriticalSection) {
  int32_t found = 0;
  const uint32_t rc = readKey<K>(node, key, value ? 0 : K::valueNull, inCriticalSection,
                                 [&](const List<K>&, auto* record) TREL_INLINED -> uint32_t {
                                   found = loadRegister(&record->value);
                                   return 0;
                                 });
  if (TREL_LIKELY(rc == 0)) *value = found;
  return rc;
}

template <class K>
TREL_INLINE uint32_t setRegister(SNodeCB_t* node, const Key& key, int32_t value,
                                 uint64_t inCriticalSection) {
  return writeKey<K>(node, key, 1, 0, inCriticalSection,
                     [&](const List<K>&, auto* record) TREL_INLINED -> uint32_t {
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
  int32_t found = 0;
  uint64_t foundRc = 0;
  const uint32_t rc =
      reading(node, inCriticalSection, accept::usable, [&]() TREL_INLINED -> uint32_t {
        found = loadRegister(&record->value);
        foundRc = once(record->rc);
        return 0;
      });
  if (TREL_UNLIKELY(rc)) return rc;
  *value = found;
  *rcField = foundRc;
  return 0;
}

template <class K>
TREL_INLINE uint32_t setHeldRegister(SNodeCB_t* node, typename K::Record* record, int32_t value,
                                     uint64_t rcField, uint64_t inCriticalSection) {
  if (!node) return TREL_RC_NODE_NULL;
  if (!record) return Codes<K>::recordNull;
  return writing(node, inCriticalSection, accept::usable, [&]() TREL_INLINED -> uint32_t {
    storeRegister(&record->value, value);
    record->rc = rcField;
    return 0;
  });
}

// M as it stands in the section, whether it counts or not. A caller who gives a buffer without its
// size has sized it by the M that the operation finds first; who makes the list anew with a larger
// one while it waits must not make it overflow. The first look learns it, or where that did not
// count and had not come so far, this does before the wait.
template <class K>
uint64_t maxValueSizeNow(SNodeCB_t* node) {
  Section section;
  constexpr uint64_t position = 8 * uint64_t{K::hasId};
  if (openSection(node, K::bit, &section) || !section.holds(section.offset + position, 8)) return 0;
  const uint64_t size = once(*wordAt(node, section.offset + position));
  return size > TREL_MAX_VALUE_SIZE ? 0 : size;
}

template <class K>
TREL_INLINE uint32_t getBytes(SNodeCB_t* node, const Key& key, uint64_t* size, uint8_t** address,
                              uint8_t* buffer, uint64_t inCriticalSection) {
  const uint32_t refusal = !size ? TREL_RC_VALUE_SIZES_NULL : !address ? K::valueNull : 0;
  if (!node) return TREL_RC_NODE_NULL;
  constexpr uint64_t unknown = UINT64_MAX;
  uint64_t room = buffer ? unknown : TREL_MAX_VALUE_SIZE;
  uint64_t stored = 0;
  uint8_t* bytes = nullptr;
  const auto work = [&](const List<K>& list, auto* record) TREL_INLINED -> uint32_t {
    if (room == unknown)
      room = K::base && list.maxValueSize > TREL_MAX_VALUE_SIZE ? 0 : list.maxValueSize;
    stored = once(record->valueSize);
    if (stored > list.maxValueSize || stored > room) return TREL_RC_VALUE_SIZE;
    bytes = list.valueOf(record);
    if (buffer) copyBytes(buffer, bytes, stored);
    return 0;
  };
  const uint32_t rc = looking(
      node, inCriticalSection, [&]() TREL_INLINED { return onKey<K>(node, key, 1, refusal, work); },
      [&] {
        if (room == unknown) room = maxValueSizeNow<K>(node);
      });
  if (TREL_UNLIKELY(rc)) return rc;
  *address = bytes;
  *size = stored;
  return 0;
}

template <class K>
TREL_INLINE uint32_t setBytes(SNodeCB_t* node, const Key& key, uint64_t size, const uint8_t* value,
                              uint64_t inCriticalSection) {
  return writeKey<K>(node, key, size, value ? 0 : K::valueNull, inCriticalSection,
                     [&](const List<K>& list, auto* record) TREL_INLINED -> uint32_t {
                       copyBytes(list.valueOf(record), value, size);
                       record->valueSize = size;
                       return 0;
                     });
}

// Whether `bytes` bytes of a held record's value lie in the section. Only the bytes are tested: the
// record is the caller's word.
template <class K>
TREL_INLINE bool holdsValue(const List<K>& list, typename K::Record* record, uint64_t bytes) {
  return list.fault == 0 && list.holds(offsetOf(list.valueOf(record), list.node), bytes);
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
  const uint64_t wanted = *size;
  uint64_t stored = 0, foundRc = 0;
  uint8_t* bytes = nullptr;
  const uint32_t rc = looking(node, inCriticalSection, [&]() TREL_INLINED -> uint32_t {
    List<K> list;
    if (K::hasId || buffer)
      if (const uint32_t failure = openLimits(node, &list)) return failure;
    if (buffer && wanted > list.maxValueSize) return TREL_RC_VALUE_SIZE;
    if (const uint32_t failure = checkCondition(node, accept::usable)) return failure;
    bytes = list.valueOf(record);
    if (buffer && wanted) {
      if (!holdsValue(list, record, wanted)) return Codes<K>::bounds;
      copyBytes(buffer, bytes, wanted);
    }
    stored = once(record->valueSize);
    foundRc = once(record->rc);
    return 0;
  });
  if (TREL_UNLIKELY(rc)) return rc;
  *address = bytes;
  *size = stored;
  *rcField = foundRc;
  return 0;
}

template <class K>
TREL_INLINE uint32_t setHeldBytes(SNodeCB_t* node, typename K::Record* record, uint64_t size,
                                  const uint8_t* value, uint64_t rcField,
                                  uint64_t inCriticalSection) {
  if (!node) return TREL_RC_NODE_NULL;
  if (!record) return Codes<K>::recordNull;
  if (!value) return K::valueNull;
  return within<Access::write>(node, inCriticalSection, [&]() TREL_INLINED -> uint32_t {
    List<K> list;
    if (const uint32_t rc = openLimits(node, &list)) return rc;
    if (!isValueSize(size, list.maxValueSize)) return TREL_RC_VALUE_SIZE;
    if (const uint32_t rc = checkCondition(node, accept::usable)) return rc;
    if (!holdsValue(list, record, size)) return Codes<K>::bounds;
    copyBytes(list.valueOf(record), value, size);
    record->valueSize = size;
    record->rc = rcField;
    return 0;
  });
}

template <class K>
uint32_t getRc(SNodeCB_t* node, const Key& key, uint64_t* rcField, uint64_t inCriticalSection) {
  uint64_t found = 0;
  const uint32_t rc = readKey<K>(node, key, rcField ? 0u : TREL_RC_OUT_RC, inCriticalSection,
                                 [&](const List<K>&, auto* record) TREL_INLINED -> uint32_t {
                                   found = once(record->rc);
                                   return 0;
                                 });
  if (rc == 0) *rcField = found;
  return rc;
}

template <class K>
uint32_t setRc(SNodeCB_t* node, const Key& key, uint64_t rcField, uint64_t inCriticalSection) {
  return writeKey<K>(node, key, 1, 0, inCriticalSection,
                     [&](const List<K>&, auto* record) TREL_INLINED -> uint32_t {
                       record->rc = rcField;
                       return 0;
                     });
}

// The address forms enter nothing: their callers are inside.
template <class K>
uint32_t getAddress(SNodeCB_t* node, const Key& key, typename K::Record** address) {
  return readKey<K>(node, key, address ? 0 : Codes<K>::recordNull, 1,
                    [&](const List<K>&, auto* record) TREL_INLINED -> uint32_t {
                      *address = record;
                      return 0;
                    });
}

// Value: PLATVAtomicSigned32 or uint8_t.
template <class K, class Value>
uint32_t getValueAddress(SNodeCB_t* node, const Key& key, Value** address) {
  return readKey<K>(node, key, address ? 0 : K::valueNull, 1,
                    [&](const List<K>& list, auto* record) TREL_INLINED -> uint32_t {
                      if constexpr (K::hasBytes)
                        *address = list.valueOf(record);
                      else
                        *address = &record->value;
                      return 0;
                    });
}

}  // namespace trel
