// Records in process memory.
#pragma once

#include "platsvc/memory.h"

namespace trel {

constexpr char kModuleName[] = "trel";  // names the library in the records of allocations

template <class T>
uint32_t obtain(T** record, uint32_t line = __builtin_LINE()) {
  void* block = nullptr;
  const uint32_t rc = _platMemAlloc(&block, 0, sizeof(T), 1, kModuleName, line);
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
