/* Atomic 32-bit cells that work between processes. */
#ifndef PLATSVC_ATOMIC_H
#define PLATSVC_ATOMIC_H

#include "platsvc/base.h"

/* A cell of 128 bytes, at any address, in memory that several processes may map at different
 * addresses. The number lies in the first 4-aligned word of the cell; the other bytes are spare.
 * A mapping must keep the cell's alignment, which page-aligned segments do.
 *
 * The operations return 0; they can fail only for a null argument. */
typedef struct PLATVAtomicSigned32 {
  uint8_t cell[128];

#ifdef __cplusplus
  /* Sets the cell. `one` is 1. Not atomic with respect to the other operations. */
  static uint32_t init(PLATVAtomicSigned32* cell, int32_t value, uint32_t one);
  /* Adds delta, and writes the new value to *value. A delta of 0 reads. */
  static uint32_t add(PLATVAtomicSigned32* cell, int32_t delta, int32_t* value);
  /* Stores value, and writes the value before to *old. */
  static uint32_t swap(PLATVAtomicSigned32* cell, int32_t value, int32_t* old);
  /* Adds 1, and writes the new value to *value. */
  static uint32_t increment(PLATVAtomicSigned32* cell, int32_t* value);

  /* The word inside the cell. */
  static int32_t* word(PLATVAtomicSigned32* cell) {
    return reinterpret_cast<int32_t*>((reinterpret_cast<uintptr_t>(cell) + 3) & ~uintptr_t{3});
  }
#endif
} PLATVAtomicSigned32;

/* The number in a cell, and a store of it, for C. Acquire and release. */
static inline int32_t platVAtomicLoad(const PLATVAtomicSigned32* cell) {
  return __atomic_load_n((const int32_t*)(((uintptr_t)cell + 3) & ~(uintptr_t)3), __ATOMIC_ACQUIRE);
}

static inline void platVAtomicStore(PLATVAtomicSigned32* cell, int32_t value) {
  __atomic_store_n((int32_t*)(((uintptr_t)cell + 3) & ~(uintptr_t)3), value, __ATOMIC_RELEASE);
}

#ifdef __cplusplus

inline uint32_t PLATVAtomicSigned32::init(PLATVAtomicSigned32* cell, int32_t value, uint32_t) {
  if (!cell) return 1;
  __atomic_store_n(word(cell), value, __ATOMIC_RELEASE);
  return 0;
}

inline uint32_t PLATVAtomicSigned32::add(PLATVAtomicSigned32* cell, int32_t delta, int32_t* value) {
  if (!cell || !value) return 1;
  *value = delta == 0 ? __atomic_load_n(word(cell), __ATOMIC_ACQUIRE)
                      : __atomic_add_fetch(word(cell), delta, __ATOMIC_ACQ_REL);
  return 0;
}

inline uint32_t PLATVAtomicSigned32::swap(PLATVAtomicSigned32* cell, int32_t value, int32_t* old) {
  if (!cell || !old) return 1;
  *old = __atomic_exchange_n(word(cell), value, __ATOMIC_ACQ_REL);
  return 0;
}

inline uint32_t PLATVAtomicSigned32::increment(PLATVAtomicSigned32* cell, int32_t* value) {
  return add(cell, 1, value);
}

#endif
#endif
