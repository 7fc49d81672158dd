// The frame of an exported operation: flow trace and failure reports.
//
// An operation is traced(FID_..., [&](Flow& flow) -> uint32_t { ... }). Off, the trace costs one
// test of a word on entry; flow.fail(code) is then the code itself.
#pragma once

#include "platsvc/report.h"
#include "trel/codes.h"

namespace trel {

#define TREL_LIKELY(x) __builtin_expect(!!(x), 1)
#define TREL_UNLIKELY(x) __builtin_expect(!!(x), 0)
#define TREL_INLINE inline __attribute__((always_inline))
// For lambdas on the hot paths: inlined early, what they capture stays in registers.
#define TREL_INLINED __attribute__((always_inline))

class Flow {
 public:
  explicit Flow(uint32_t function)
      : function_(function),
        on_(TREL_UNLIKELY(__atomic_load_n(&platFlowlogState, __ATOMIC_RELAXED) ==
                          (PLAT_FLOWLOG_ATTACHED | PLAT_FLOWLOG_ENABLED))) {
    if (TREL_UNLIKELY(on_)) _flowlogEntry(platThreadID(), function_);
  }

  // A failure, traced with the source line as its probe number and, if given, the data concerned.
  uint32_t fail(uint32_t code, const void* data = nullptr, uint32_t size = 0,
                uint32_t probe = __builtin_LINE()) const {
    if (TREL_UNLIKELY(on_)) {
      _flowlogErrorVar(platThreadID(), function_, code, probe, data, size);
      reported_ = true;
    }
    return code;
  }

  // A failure that also goes to the log, with 4 bytes of the offending argument.
  uint32_t logged(uint32_t code, const void* argument, uint32_t probe = __builtin_LINE()) const {
    const uint32_t data = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(argument));
    platLog(0, function_, code, probe, 2, 1, &data, 4, 0);
    return fail(code, &data, 4, probe);
  }

  uint32_t leave(uint32_t code) const {
    if (TREL_UNLIKELY(on_)) {
      if (code && !reported_) fail(code, nullptr, 0, 0);  // probe 0: raised further down
      _flowlogExit(platThreadID(), function_, code);
    }
    return code;
  }

 private:
  uint32_t function_;
  bool on_;
  mutable bool reported_ = false;
};

template <class Work>
TREL_INLINE uint32_t traced(uint32_t function, Work&& work) {
  const Flow flow(function);
  return flow.leave(work(flow));
}

// The first failure wins: keeps `first` if it is one, else gives `second`.
inline uint32_t firstOf(uint32_t first, uint32_t second) { return first ? first : second; }

}  // namespace trel
