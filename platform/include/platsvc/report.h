/* Reports: log, assertions, flow trace, names and texts.
 *
 * Reports go to standard error until a program sets a sink of its own. The flow trace has no sink
 * until one is attached, and costs its callers one test while it is off. */
#ifndef PLATSVC_REPORT_H
#define PLATSVC_REPORT_H

#include "platsvc/base.h"

PLAT_BEGIN_C

/* Records a failure: the operation, the code, a probe number, and `size` bytes at data. context,
 * two, one and last are 0, 2, 1 and 0. */
PLAT_API void platLog(uint32_t context, uint32_t function, uint32_t code, uint32_t probe,
                      uint32_t two, uint32_t one, const void* data, uint32_t size, uint32_t last);

/* Reports a finding of the library's own checks, and returns. */
PLAT_API void platAssertFailed(const char* message, const char* file, uint32_t line);

/* A sink gets one finished line without a line end, and must not call back into the library. Null
 * restores standard error. */
typedef void (*PLATReportSink)(const char* line);
PLAT_API void platSetReportSink(PLATReportSink sink);

/* The text of a return code; for an unknown code a text that says so. Never null. */
PLAT_API const char* rcdErrorGetDescription(uint32_t code);
/* The name of the operation with this function identifier, or null. */
PLAT_API const char* rcdGetFunctionName(uint32_t function);

/* Flow trace. flowlogAttach gives it a sink; flowlogEnable switches it on (1) or off (0). Both may
 * be called at any time. A sink of null detaches. */
PLAT_API void flowlogAttach(PLATReportSink sink);
PLAT_API void flowlogEnable(uint32_t on);

/* Bit 0: a sink is attached. Bit 1: the trace is enabled. */
extern PLAT_API uint32_t platFlowlogState;
#define PLAT_FLOWLOG_ATTACHED 1u
#define PLAT_FLOWLOG_ENABLED 2u

static inline uint32_t flowlogIsAttached(void) {
  return __atomic_load_n(&platFlowlogState, __ATOMIC_RELAXED) & PLAT_FLOWLOG_ATTACHED;
}
static inline uint32_t flowlogIsEnabled(void) {
  return __atomic_load_n(&platFlowlogState, __ATOMIC_RELAXED) & PLAT_FLOWLOG_ENABLED;
}

/* The three reports of the trace, each with the caller's platThreadID. */
PLAT_API void _flowlogEntry(uint32_t thread, uint32_t function);
PLAT_API void _flowlogExit(uint32_t thread, uint32_t function, uint32_t code);
PLAT_API void _flowlogErrorVar(uint32_t thread, uint32_t function, uint32_t code, uint32_t probe,
                               const void* data, uint32_t size);

/* The kernel's id of the calling thread; right also in a forked child. */
PLAT_API uint32_t platThreadID(void);

PLAT_END_C
#endif
