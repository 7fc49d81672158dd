// Records in process memory.
#pragma once

#include "platsvc/memory.h"

namespace trel {

constexpr char kModuleName[] = "trel";  // names the library in the records of allocations

// One record, or an array of them.
template <class T>
uint32_t obtain(T** record, uint64_t count = 1, uint32_t line = __builtin_LINE()) {
  void* block = nullptr;
  const uint64_t size =
      count * sizeof(T);  // NOLINT(bugprone-sizeof-expression): T may be a pointer
  const uint32_t rc = size > UINT32_MAX ? 1
                                        : _platMemAlloc(&block, 0, static_cast<uint32_t>(size), 1,
                                                        kModuleName, line);
  *record = static_cast<T*>(block);
  return rc;
}

// Frees the record and sets the pointer to null. A null pointer is a success.
template <class T>
uint32_t release(T** record, uint32_t line = __builtin_LINE()) {
  if (!*record) return 0;
  void* block = *record;
  const uint32_t rc = _platMemFree(&block, 0, 0, kModuleName, line);
  *record = static_cast<T*>(block);
  return rc;
}

}  // namespace trel
