// Reports of failures and findings, and the flow trace: one line each, handed to a sink.

#include "platsvc/report.h"

#include <stdarg.h>
#include <stdio.h>

uint32_t platFlowlogState = 0;

namespace {

// Bytes of data that a report shows.
constexpr uint32_t kShownBytes = 64;

void toStandardError(const char* line) { fprintf(stderr, "%s\n", line); }

PLATReportSink reportSink = toStandardError;
PLATReportSink flowSink = nullptr;

// Data in hex, with dots behind it if there is more.
class Hex {
 public:
  Hex(const void* data, uint32_t size) {
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    char* end = text_;
    for (uint32_t i = 0; bytes && i < size && i < kShownBytes; ++i) {
      *end++ = "0123456789abcdef"[bytes[i] >> 4];
      *end++ = "0123456789abcdef"[bytes[i] & 15];
    }
    const char* rest = bytes && size > kShownBytes ? "..." : "";
    while (*rest) *end++ = *rest++;
    *end = 0;
  }
  const char* text() const { return text_; }

 private:
  char text_[2 * kShownBytes + 4];
};

__attribute__((format(printf, 2, 3))) void report(const PLATReportSink* sink, const char* format,
                                                  ...) {
  const PLATReportSink show = __atomic_load_n(sink, __ATOMIC_ACQUIRE);
  if (!show) return;
  char line[768];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  show(line);
}

void setFlowState(uint32_t bit, bool on) {
  if (on) {
    __atomic_or_fetch(&platFlowlogState, bit, __ATOMIC_RELEASE);
  } else {
    __atomic_and_fetch(&platFlowlogState, ~bit, __ATOMIC_RELEASE);
  }
}

const char* nameOf(uint32_t function) {
  const char* name = rcdGetFunctionName(function);
  return name ? name : "unknown function";
}

}  // namespace

void platSetReportSink(PLATReportSink sink) {
  __atomic_store_n(&reportSink, sink ? sink : toStandardError, __ATOMIC_RELEASE);
}

void platLog(uint32_t, uint32_t function, uint32_t code, uint32_t probe, uint32_t, uint32_t,
             const void* data, uint32_t size, uint32_t) {
  report(&reportSink, "platsvc: %s failed: 0x%08x %s, probe %u, data %s", nameOf(function), code,
         rcdErrorGetDescription(code), probe, Hex(data, size).text());
}

void platAssertFailed(const char* message, const char* file, uint32_t line) {
  report(&reportSink, "platsvc: %s %s:%u", message ? message : "", file ? file : "", line);
}

void flowlogAttach(PLATReportSink sink) {
  __atomic_store_n(&flowSink, sink, __ATOMIC_RELEASE);
  setFlowState(PLAT_FLOWLOG_ATTACHED, sink != nullptr);
}

void flowlogEnable(uint32_t on) { setFlowState(PLAT_FLOWLOG_ENABLED, on != 0); }

void _flowlogEntry(uint32_t thread, uint32_t function) {
  report(&flowSink, "%u %s entry", thread, nameOf(function));
}

void _flowlogExit(uint32_t thread, uint32_t function, uint32_t code) {
  report(&flowSink, "%u %s exit 0x%08x %s", thread, nameOf(function), code,
         rcdErrorGetDescription(code));
}

void _flowlogErrorVar(uint32_t thread, uint32_t function, uint32_t code, uint32_t probe,
                      const void* data, uint32_t size) {
  report(&flowSink, "%u %s failure 0x%08x %s, probe %u, data %s", thread, nameOf(function), code,
         rcdErrorGetDescription(code), probe, Hex(data, size).text());
}
