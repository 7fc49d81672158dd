// Values that describe themselves, and the publisher of a tree.
#include "trel/describe.h"

#include <string.h>

#include "platsvc/life.h"
#include "platsvc/time.h"
#include "treli/description.h"
#include "trelshm/mapping.h"

namespace trel {
namespace {

constexpr uint32_t kDescribable = TREL_EXPORT_BASE_R | TREL_EXPORT_BASE_V | TREL_EXPORT_R |
                                  TREL_EXPORT_V | TREL_EXPORT_IR | TREL_EXPORT_IV;
constexpr uint32_t kRegisters = TREL_EXPORT_BASE_R | TREL_EXPORT_R | TREL_EXPORT_IR;

bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// A type of node can have any name that prints; a value's must do as a name elsewhere.
bool isName(const char (&name)[TREL_NAME_SIZE], bool isType) {
  if (!memchr(name, 0, sizeof name) || name[0] == 0) return false;
  for (const char* c = name; *c; ++c) {
    if (isType ? *c < ' ' || *c > '~' : !isLetter(*c) && !(isDigit(*c) && c != name)) return false;
  }
  return true;
}

template <class Text>
bool isText(const Text& text) {
  return memchr(text, 0, sizeof text) != nullptr;
}

// Bytes of a type whose values are all of one size, else 0.
uint32_t sizeOfType(uint32_t type) {
  switch (type) {
    case TREL_VALUE_I32:
      return 4;
    case TREL_VALUE_U64:
    case TREL_VALUE_I64:
    case TREL_VALUE_F64:
    case TREL_VALUE_TIME:
      return 8;
    case TREL_VALUE_BOOL:
      return 1;
    default:
      return 0;
  }
}

uint32_t checkItem(const TrelDescription_t& d, bool isType) {
  if (!isName(d.name, isType)) return TREL_RC_DESCRIPTION_NAME;
  if (!isText(d.unit) || !isText(d.help)) return TREL_RC_DESCRIPTION_NAME;
  if (d.valueType > TREL_VALUE_RECORD || d.valueKind > TREL_KIND_INFO)
    return TREL_RC_DESCRIPTION_FIELD;
  const uint32_t fixed = sizeOfType(d.valueType);
  return fixed != 0 && d.size != 0 && d.size != fixed ? uint32_t{TREL_RC_DESCRIPTION_FIELD} : 0;
}

uint32_t checkFields(const TrelDescription_t& d, const TrelDescription_t* fields) {
  if (d.fieldCount > TREL_MAX_FIELDS || (d.fieldCount != 0) != (d.valueType == TREL_VALUE_RECORD))
    return TREL_RC_DESCRIPTION_FIELD;
  if (d.fieldCount != 0 && !fields) return TREL_RC_DESCRIPTION_NULL;
  for (uint32_t i = 0; i < d.fieldCount; ++i) {
    const TrelDescription_t& field = fields[i];
    if (const uint32_t rc = checkItem(field, false)) return rc;
    if (field.valueType == TREL_VALUE_RECORD || field.size == 0 || field.size > d.size ||
        field.offset > d.size - field.size)
      return TREL_RC_DESCRIPTION_FIELD;
    for (uint32_t k = 0; k < i; ++k)
      if (strcmp(fields[k].name, field.name) == 0) return TREL_RC_DESCRIPTION_CLASH;
  }
  return 0;
}

uint32_t checkDescription(const TrelDescription_t& d, const TrelDescription_t* fields) {
  if (d.nodeTag > TREL_MAX_TAG || d.propertyTag > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
  if (d.exportBit == 0)
    return d.fieldCount ? uint32_t{TREL_RC_DESCRIPTION_FIELD} : checkItem(d, true);
  if ((d.exportBit & (d.exportBit - 1)) != 0 || !(d.exportBit & kDescribable))
    return TREL_RC_EXPORT_BIT;
  const bool isRegister = (d.exportBit & kRegisters) != 0;
  if (isRegister && (d.valueType != TREL_VALUE_I32 || d.offset != 0))
    return TREL_RC_DESCRIPTION_FIELD;
  if (const uint32_t rc = checkItem(d, false)) return rc;
  return checkFields(d, fields);
}

uint32_t checkSegment(const ShmSegInfo_t* segment) {
  if (!segment) return TREL_RC_SEGMENT_NULL;
  if (!segment->shmDomainHandle || !segment->shmDomainHandle->base)
    return TREL_RC_DOMAIN_HANDLE_NULL;
  return 0;
}

uint32_t checkWritable(const ShmSegInfo_t* segment) {
  if (const uint32_t rc = checkSegment(segment)) return rc;
  if (isReadOnly(segment->shmDomainHandle->base)) return TREL_RC_READING_ONLY;
  return segment->shmPoolHandle ? 0 : uint32_t{TREL_RC_POOL_HANDLE_NULL};
}

// Runs work(view, position) on the entry of a key.
template <class Work>
uint32_t onEntry(const ShmSegInfo_t* segment, const DescriptionKey& key, Work&& work) {
  return readDescription(segment, [&](const DescriptionView& view) -> uint32_t {
    const uint32_t position = view.find(key);
    return position ? work(view, position) : uint32_t{TREL_RC_NOT_DESCRIBED};
  });
}

uint32_t decode(const DescriptionView& view, uint32_t position, TrelDescription_t* description) {
  return view.decode(position, description) ? 0 : uint32_t{TREL_RC_DESCRIPTION_DAMAGED};
}

// The first entry for which isSought(description) holds.
template <class IsSought>
uint32_t findEntry(const DescriptionView& view, TrelDescription_t* description,
                   IsSought&& isSought) {
  uint32_t rc = TREL_RC_NOT_DESCRIBED;
  view.forEach([&](uint32_t position, uint32_t) {
    if (!view.decode(position, description) || !isSought(*description)) return true;
    rc = 0;
    return false;
  });
  return rc;
}

template <class Text>
void cutText(const char* from, Text* to) {
  memset(*to, 0, sizeof *to);
  if (from) memcpy(*to, from, strnlen(from, sizeof *to - 1));
}

uint32_t stateOf(const PublisherRecord_t& record) {
  if (record.endTime) return TREL_PUBLISHER_ENDED;
  return platLifeTokenLives(record.token) ? TREL_PUBLISHER_ALIVE : TREL_PUBLISHER_DEAD;
}

}  // namespace
}  // namespace trel

using namespace trel;

uint32_t trelDescribe(ShmSegInfo_t* segment, const TrelDescription_t* description,
                      const TrelDescription_t* fields) {
  return traced(FID_trelDescribe, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkWritable(segment)) return flow.fail(rc);
    if (!description) return flow.fail(TREL_RC_DESCRIPTION_NULL);
    if (const uint32_t rc = checkDescription(*description, fields)) return flow.fail(rc);
    return addDescription(segment, *description, fields);
  });
}

uint32_t trelGetDescription(const ShmSegInfo_t* segment, uint64_t nodeTag, uint32_t exportBit,
                            uint64_t propertyTag, uint32_t offset, TrelDescription_t* description) {
  return traced(FID_trelGetDescription, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkSegment(segment)) return flow.fail(rc);
    if (!description) return flow.fail(TREL_RC_DESCRIPTION_NULL);
    TrelDescription_t found;
    const uint32_t rc = onEntry(segment, {nodeTag, propertyTag, exportBit, offset},
                                [&](const DescriptionView& view, uint32_t position) {
                                  return decode(view, position, &found);
                                });
    if (rc == 0) *description = found;
    return rc;
  });
}

uint32_t trelGetDescribedFields(const ShmSegInfo_t* segment, uint64_t nodeTag, uint32_t exportBit,
                                uint64_t propertyTag, uint32_t offset, TrelDescription_t* fields,
                                uint32_t length, uint32_t* count) {
  return traced(FID_trelGetDescribedFields, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkSegment(segment)) return flow.fail(rc);
    if (!count || (length && !fields)) return flow.fail(TREL_RC_DESCRIPTION_NULL);
    TrelDescription_t record;
    const uint32_t rc = onEntry(segment, {nodeTag, propertyTag, exportBit, offset},
                                [&](const DescriptionView& view, uint32_t position) -> uint32_t {
                                  return view.decode(position, &record, fields, length)
                                             ? 0
                                             : uint32_t{TREL_RC_DESCRIPTION_DAMAGED};
                                });
    if (rc == 0) *count = record.fieldCount;
    return rc;
  });
}

uint32_t trelFindDescription(const ShmSegInfo_t* segment, const char* typeName,
                             const char* propertyName, TrelDescription_t* description) {
  return traced(FID_trelFindDescription, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkSegment(segment)) return flow.fail(rc);
    if (!description || !propertyName) return flow.fail(TREL_RC_DESCRIPTION_NULL);
    TrelDescription_t type = {}, found = {};
    const uint32_t rc = readDescription(segment, [&](const DescriptionView& view) -> uint32_t {
      if (typeName) {
        const uint32_t failure = findEntry(view, &type, [&](const TrelDescription_t& d) {
          return d.exportBit == 0 && strcmp(d.name, typeName) == 0;
        });
        if (failure || !*propertyName) {
          found = type;
          return failure;
        }
      }
      return findEntry(view, &found, [&](const TrelDescription_t& d) {
        return (d.exportBit != 0) == (*propertyName != 0) && strcmp(d.name, propertyName) == 0 &&
               (!typeName || d.nodeTag == type.nodeTag);
      });
    });
    if (rc == 0) *description = found;
    return rc;
  });
}

uint32_t trelListDescriptions(const ShmSegInfo_t* segment, uint32_t first,
                              TrelDescription_t* descriptions, uint32_t length, uint32_t* count,
                              uint32_t* total) {
  return traced(FID_trelListDescriptions, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkSegment(segment)) return flow.fail(rc);
    if (!count || !total || (length && !descriptions)) return flow.fail(TREL_RC_DESCRIPTION_NULL);
    uint32_t seen = 0, written = 0;
    const uint32_t rc = readDescription(segment, [&](const DescriptionView& view) -> uint32_t {
      seen = written = 0;
      bool isSound = true;
      view.forEach([&](uint32_t position, uint32_t) {
        if (seen++ >= first && written < length)
          isSound = view.decode(position, &descriptions[written++]);
        return isSound;
      });
      return isSound ? 0 : uint32_t{TREL_RC_DESCRIPTION_DAMAGED};
    });
    if (rc && rc != TREL_RC_NOT_DESCRIBED) return rc;
    *count = written;
    *total = seen;
    return 0;
  });
}

uint64_t trelDescriptionVersion(const ShmSegInfo_t* segment) {
  if (checkSegment(segment)) return 0;
  uint64_t version = 0;
  readDescription(segment, [&](const DescriptionView& view) -> uint32_t {
    version = uint64_t{view.generation()} << 32 | view.used();
    return 0;
  });
  return version;
}

uint32_t trelSetPublisher(ShmSegInfo_t* segment, const char* program, const char* version) {
  return traced(FID_trelSetPublisher, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkWritable(segment)) return flow.fail(rc);
    PublisherRecord_t record = {};
    record.startTime = platTimeNanoseconds();
    record.lastBeat = record.startTime;
    record.processId = platProcessID();
    if (const uint32_t rc = platLifeToken(&record.token)) return flow.fail(rc);
    cutText(program, &record.program);
    cutText(version, &record.version);
    return changePublisher(segment, record);
  });
}

uint32_t trelBeatTree(ShmSegInfo_t* segment) {
  return traced(FID_trelBeatTree, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkWritable(segment)) return flow.fail(rc);
    PublisherRecord_t* record = publisherOf(segment);
    if (!record) return flow.fail(TREL_RC_NOT_DESCRIBED);
    storeBeat(record, platTimeNanoseconds());
    return 0;
  });
}

uint32_t trelEndPublisher(ShmSegInfo_t* segment) {
  return traced(FID_trelEndPublisher, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkWritable(segment)) return flow.fail(rc);
    PublisherRecord_t record;
    if (const uint32_t rc = readPublisher(segment, &record)) return flow.fail(rc);
    record.endTime = platTimeNanoseconds();
    return changePublisher(segment, record);
  });
}

uint32_t trelGetPublisher(const ShmSegInfo_t* segment, TrelPublisher_t* publisher) {
  return traced(FID_trelGetPublisher, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkSegment(segment)) return flow.fail(rc);
    if (!publisher) return flow.fail(TREL_RC_DESCRIPTION_NULL);
    PublisherRecord_t record;
    const uint32_t rc = readPublisher(segment, &record);
    if (rc && rc != TREL_RC_NOT_DESCRIBED) return flow.fail(rc);
    *publisher = {};
    if (rc) return 0;
    publisher->state = stateOf(record);
    publisher->processId = record.processId;
    publisher->startTime = record.startTime;
    publisher->lastBeat = record.lastBeat;
    publisher->endTime = record.endTime;
    cutText(record.program, &publisher->program);
    cutText(record.version, &publisher->version);
    return 0;
  });
}
