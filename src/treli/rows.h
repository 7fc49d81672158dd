// For sources that define an operation for each property kind: one row of a macro for each kind.
// The name of such an operation is spelled out in its header.
#pragma once

#include "treli/property_list.h"

#define OPERATION(name, parameters, work)                                      \
  uint32_t name parameters {                                                   \
    return traced(FID_##name, [&](const Flow&) TREL_INLINED { return work; }); \
  }

// Parameters that name a property or hold its value, and what they become.
#define TAG uint64_t tag
#define TAG_KEY \
  Key { tag }
#define TAG_ID uint64_t tag, uint64_t idSize, const uint8_t *id
#define TAG_ID_KEY \
  Key { tag, idSize, id }
#define REGISTER int32_t value
#define REGISTER_VALUE \
  Value { value }
#define BYTES uint64_t size, const uint8_t *value
#define BYTES_VALUE \
  Value { 0, size, value }
