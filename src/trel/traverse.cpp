// Packed identifiers and paths, made from strings in process memory.
#include <stdio.h>
#include <string.h>

#include "trel/tree.h"
#include "treli/identifier.h"
#include "trelshm/flow.h"
#include "trelshm/process_memory.h"

namespace trel {
namespace {

constexpr uint64_t kMaxStrings = 0x8000;
constexpr uint64_t kMaxPath = 0x100000;

uint32_t checkMemoryRecord(const void* record) {
  return record && *static_cast<const TrelU32*>(record) == TREL_STRUCTURE_VERSION
             ? 0
             : uint32_t{TREL_RC_HANDLE_VERSION};
}

// Measures a string; stops counting behind the maximum.
uint32_t measure(const char* string, uint64_t maxSize, uint32_t tooLong, uint64_t* size) {
  if (!string) return TREL_RC_STRING_NULL;
  *size = strnlen(string, static_cast<size_t>(maxSize) + 1);
  return *size > maxSize ? tooLong : 0;
}

uint32_t fillPath(TraverseInfo_t* path, const uint64_t* tags, const char* const* strings,
                  uint64_t count) {
  for (uint64_t i = 0; i < count; ++i) {
    uint64_t size = 0;
    if (const uint32_t rc = measure(strings[i], TREL_MAX_ID_SIZE, TREL_RC_NODE_ID_SIZE, &size))
      return rc;
    path[i].traverseTag = static_cast<uint32_t>(tags[i]);
    path[i].traverseIdSize = static_cast<uint32_t>(size);
    if (obtain(&path[i].traverseId, size ? size : 1) != 0) return TREL_RC_ID_NO_MEMORY;
    memcpy(path[i].traverseId, strings[i], size);
  }
  return 0;
}

uint32_t deletePath(TraverseInfo_t** path, uint64_t count) {
  if (!*path) return 0;
  for (uint64_t i = 0; i < count; ++i) {
    if (const uint32_t rc = release(&(*path)[i].traverseId)) return rc;
  }
  return release(path);
}

}  // namespace
}  // namespace trel

using namespace trel;

uint32_t trelCreateID(uint8_t** bytes, uint64_t** sizes, const char* const* strings,
                      uint64_t maxSize, uint64_t count, uint32_t exportBit,
                      const void* memoryRecord) {
  return traced(FID_trelCreateID, [&](const Flow& flow) -> uint32_t {
    uint32_t tooLong = 0, maximumTooLarge = 0;
    switch (nameKind(exportBit)) {
      case TREL_EXPORT_ID:
      case TREL_EXPORT_DEPENDENT:
        tooLong = TREL_RC_NODE_ID_SIZE;
        maximumTooLarge = TREL_RC_NODE_ID_MAX;
        break;
      case TREL_EXPORT_IR:
      case TREL_EXPORT_IV:
        tooLong = TREL_RC_PROPERTY_ID_SIZE;
        maximumTooLarge = TREL_RC_PROPERTY_ID_MAX;
        break;
      default:
        return flow.fail(TREL_RC_EXPORT_BIT, &exportBit, sizeof exportBit);
    }
    if (count == 0 || count > kMaxStrings) return flow.fail(TREL_RC_ID_COUNT);
    if (maxSize > TREL_MAX_ID_SIZE) return flow.fail(maximumTooLarge);
    if (!bytes) return flow.fail(TREL_RC_ID_NULL);
    if (!sizes) return flow.fail(TREL_RC_ID_SIZES_NULL);
    if (!strings) return flow.fail(TREL_RC_STRING_NULL);
    uint64_t total = 0;
    for (uint64_t i = 0; i < count; ++i) {
      uint64_t size = 0;
      if (const uint32_t rc = measure(strings[i], maxSize, tooLong, &size)) return flow.fail(rc);
      total += size;
    }
    if (const uint32_t rc = checkMemoryRecord(memoryRecord)) return flow.fail(rc);
    uint64_t* madeSizes = nullptr;
    if (obtain(&madeSizes, count) != 0) return flow.fail(TREL_RC_ID_NO_MEMORY);
    uint8_t* madeBytes = nullptr;
    if (obtain(&madeBytes, total ? total : 1) != 0) {
      release(&madeSizes);
      return flow.fail(TREL_RC_ID_NO_MEMORY);
    }
    *bytes = madeBytes;
    *sizes = madeSizes;
    for (uint64_t i = 0; i < count; ++i) {
      madeSizes[i] = strlen(strings[i]);
      memcpy(madeBytes, strings[i], static_cast<size_t>(madeSizes[i]));
      madeBytes += madeSizes[i];
    }
    return 0;
  });
}

uint32_t trelDeleteID(uint8_t** bytes, uint64_t** sizes, const void* memoryRecord) {
  return traced(FID_trelDeleteID, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkMemoryRecord(memoryRecord)) return flow.fail(rc);
    if (!bytes) return flow.fail(TREL_RC_ID_NULL);
    if (!sizes) return flow.fail(TREL_RC_ID_SIZES_NULL);
    const uint32_t rc = release(sizes);
    return firstOf(rc, release(bytes));
  });
}

uint32_t trelPrintID(const uint8_t* id, uint64_t size) {
  return traced(FID_trelPrintID, [&](const Flow& flow) -> uint32_t {
    if (!id) return flow.fail(TREL_RC_ID_NULL);
    if (size > TREL_MAX_ID_SIZE) return flow.fail(TREL_RC_PROPERTY_ID_SIZE);
    for (uint64_t i = 0; i < size; ++i)
      printf("%c", id[i] >= 32 && id[i] <= 126 ? static_cast<char>(id[i]) : '.');
    return 0;
  });
}

uint32_t trelCreateTraverseInfoArray(TraverseInfo_t** path, const uint64_t* tags,
                                     const char* const* strings, uint64_t maxSize, uint64_t count,
                                     const void* memoryRecord) {
  return traced(FID_trelCreateTraverseInfoArray, [&](const Flow& flow) -> uint32_t {
    if (count == 0 || count > kMaxPath) return flow.fail(TREL_RC_TRAVERSE_COUNT);
    if (maxSize > TREL_MAX_ID_SIZE) return flow.fail(TREL_RC_NODE_ID_MAX);
    if (!tags) return flow.fail(TREL_RC_TAGS_NULL);
    if (const uint32_t rc = checkMemoryRecord(memoryRecord)) return flow.fail(rc);
    if (!path) return flow.fail(TREL_RC_TRAVERSE_NULL);
    if (!strings) return flow.fail(TREL_RC_STRING_NULL);
    TraverseInfo_t* made = nullptr;
    if (obtain(&made, count) != 0) return flow.fail(TREL_RC_ID_NO_MEMORY);
    for (uint64_t i = 0; i < count; ++i) made[i].traverseId = nullptr;
    if (const uint32_t rc = fillPath(made, tags, strings, count)) {
      deletePath(&made, count);
      return flow.fail(rc);
    }
    *path = made;
    return 0;
  });
}

uint32_t trelDeleteTraverseInfoArray(TraverseInfo_t** path, uint64_t count,
                                     const void* memoryRecord) {
  return traced(FID_trelDeleteTraverseInfoArray, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkMemoryRecord(memoryRecord)) return flow.fail(rc);
    if (!path) return flow.fail(TREL_RC_TRAVERSE_NULL);
    return deletePath(path, count);
  });
}

void trelReverseByteSequence(uint8_t* bytes, uint32_t size) {
  traced(FID_trelReverseByteSequence, [&](const Flow&) -> uint32_t {
    for (uint32_t i = 0; i < size / 2; ++i) {
      const uint8_t byte = bytes[i];
      bytes[i] = bytes[size - 1 - i];
      bytes[size - 1 - i] = byte;
    }
    return 0;
  });
}
