// Texts of return codes, names of operations.

#include "platsvc/report.h"

const char* rcdErrorGetDescription(uint32_t code) {
  switch (code) {
    case 0:
      return "success";
#define PLAT_CODE(number, name, text) \
  case number:                        \
    return text;
#define TREL_CODE PLAT_CODE
#include "platsvc/codes.def"
#include "trel/codes.def"
#undef TREL_CODE
#undef PLAT_CODE
    default:
      return "unknown return code";
  }
}

const char* rcdGetFunctionName(uint32_t function) {
  switch (function) {
#define TREL_FUNCTION(id, name) \
  case id:                      \
    return #name;
#include "trel/functions.def"
#undef TREL_FUNCTION
    default:
      return nullptr;
  }
}
