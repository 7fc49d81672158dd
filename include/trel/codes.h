/* Return codes and function identifiers. */
#ifndef TREL_CODES_H
#define TREL_CODES_H

#include <stdint.h>

/* Every operation returns 0 for success or one of these; codes.def has their texts. */
#ifdef __cplusplus
enum TrelReturnCode : uint32_t {
#else
__extension__ enum TrelReturnCode {
#endif
  TREL_RC_OK = 0,
#define TREL_CODE(number, name, text) name = number,
#include "trel/codes.def"
#undef TREL_CODE
};

/* FID_ and the operation's name: what callers of storage operations pass as `function`, and what
 * the flow trace shows. */
enum TrelFunctionId {
#define TREL_FUNCTION(id, name) FID_##name = id,
#include "trel/functions.def"
#undef TREL_FUNCTION
};

#endif
