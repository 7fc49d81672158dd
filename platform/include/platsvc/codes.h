/* Return codes of the platform; codes.def has their texts. */
#ifndef PLATSVC_CODES_H
#define PLATSVC_CODES_H

#include <stdint.h>

#ifdef __cplusplus
enum PlatReturnCode : uint32_t {
#else
__extension__ enum PlatReturnCode {
#endif
  PLAT_RC_OK = 0,
#define PLAT_CODE(number, name, text) name = number,
#include "platsvc/codes.def"
#undef PLAT_CODE
};

#endif
