/* Trees of nodes: names. */
#ifndef TREL_TREE_H
#define TREL_TREE_H

#include "trel/records.h"

TREL_BEGIN_C

/* Compare identifiers, and names: the tag decides, then the size of the identifier, then its bytes.
 * *result is negative, 0 or positive. Identifiers must not be null, whatever their size, and have
 * at most 4096 bytes. exportBit says whose names they are: TREL_EXPORT_ID, _IR, _IV, _DEPENDENT,
 * and for identifiers alone _PARENT. */
TREL_API uint32_t trelCompareID(const uint8_t* a, uint64_t sizeA, const uint8_t* b, uint64_t sizeB,
                                uint32_t exportBit, int32_t* result);
TREL_API uint32_t trelCompareTagID(uint64_t tagA, const uint8_t* a, uint64_t sizeA, uint64_t tagB,
                                   const uint8_t* b, uint64_t sizeB, uint32_t exportBit,
                                   int32_t* result);

TREL_END_C
#endif
