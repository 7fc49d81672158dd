/* Values that describe themselves: names, units and kinds of the values of a tree, its publisher,
 * and paths.
 *
 * A description belongs to a tree. For each type of node, which is its tag, and each property of
 * it, it holds a name, the type of the value, its unit, its kind and a help text: once, however
 * many nodes of the type there are. It lies in a block of the tree's pool, to which the header of
 * the segment leads, so that it changes no count, shows as no node and no property, and costs
 * those nothing who know nothing of it. Copies of a whole tree carry it along.
 *
 * Reads take no latch and work on a segment that is attached for reading only. Writes take the
 * domain's heapLatch. Operations return 0 or a TREL_RC_ code, the first failure, and write no out
 * argument on failure unless told otherwise. docs/describe.md shows the bytes. */
#ifndef TREL_DESCRIBE_H
#define TREL_DESCRIBE_H

#include "trel/records.h"

TREL_BEGIN_C

/* ---- Descriptions ---- */

/* What a value is. A register holds a TREL_VALUE_I32; bytes hold any, and more than one, at
 * offsets. Numbers are little-endian; a text ends where its property does, or at a byte of 0. */
enum TrelValueType {
  TREL_VALUE_OPAQUE = 0,
  TREL_VALUE_I32 = 1,
  TREL_VALUE_U64 = 2,
  TREL_VALUE_I64 = 3,
  TREL_VALUE_F64 = 4,
  TREL_VALUE_BOOL = 5, /* one byte, 0 or 1 */
  TREL_VALUE_TEXT = 6,
  TREL_VALUE_TIME = 7,  /* u64, nanoseconds since 1970 in UTC */
  TREL_VALUE_RECORD = 8 /* fields of these types at offsets of their own */
};

/* How a value moves. */
enum TrelValueKind {
  TREL_KIND_GAUGE = 0,   /* up and down */
  TREL_KIND_COUNTER = 1, /* only up, and back to 0 when the publisher starts again */
  TREL_KIND_STATE = 2,   /* one of a few values that have a meaning each */
  TREL_KIND_INFO = 3     /* does not change while the publisher lives */
};

#define TREL_NAME_SIZE 64u /* bytes of each text, the 0 at its end included */
#define TREL_UNIT_SIZE 32u
#define TREL_HELP_SIZE 256u
#define TREL_MAX_FIELDS 1024u

/* One description: of a property, or of a field of a record; or, with exportBit 0, of a type of
 * node itself, of which it gives the name. */
typedef struct TrelDescription_t {
  uint64_t nodeTag;          /* of the nodes of the type, 0 to TREL_MAX_TAG */
  uint64_t propertyTag;      /* 0 for Base properties and for the type itself */
  uint32_t exportBit;        /* the property's kind, TREL_EXPORT_R, ..., or 0 */
  uint32_t valueType;        /* enum TrelValueType */
  uint32_t valueKind;        /* enum TrelValueKind */
  uint32_t offset;           /* of the value in its property's bytes, which can hold several; of a
                                field from the start of its record */
  uint32_t size;             /* of the value in bytes, 0 where it varies (text, opaque) */
  uint32_t fieldCount;       /* of a record, else 0 */
  char name[TREL_NAME_SIZE]; /* letters, digits and '_', no digit first */
  char unit[TREL_UNIT_SIZE]; /* seconds, bytes, ratio, ...; "1" or "" for plain numbers */
  char help[TREL_HELP_SIZE];
} TrelDescription_t;

/* Describes a property with its fields (fieldCount of them, null for none), or a type of node. The
 * same description again changes nothing. TREL_RC_DESCRIPTION_CLASH if it is described otherwise
 * already, or the name stands for another property of the type, or another type of node; TREL_RC_
 * DESCRIPTION_NAME and _FIELD for bad names and fields; the codes of an allocation when the pool is
 * full. A failure leaves the description as it was. */
TREL_API uint32_t trelDescribe(ShmSegInfo_t* segment, const TrelDescription_t* description,
                               const TrelDescription_t* fields);

/* The description of one value (exportBit 0: of the type of node), found by its key in constant
 * time. TREL_RC_NOT_DESCRIBED if there is none. */
TREL_API uint32_t trelGetDescription(const ShmSegInfo_t* segment, uint64_t nodeTag,
                                     uint32_t exportBit, uint64_t propertyTag, uint32_t offset,
                                     TrelDescription_t* description);

/* The fields of a record's description, up to `length` of them. *count gets how many there are. */
TREL_API uint32_t trelGetDescribedFields(const ShmSegInfo_t* segment, uint64_t nodeTag,
                                         uint32_t exportBit, uint64_t propertyTag, uint32_t offset,
                                         TrelDescription_t* fields, uint32_t length,
                                         uint32_t* count);

/* The property, or with an empty propertyName the type of node, of a name. typeName null: any type
 * of node, then the first. */
TREL_API uint32_t trelFindDescription(const ShmSegInfo_t* segment, const char* typeName,
                                      const char* propertyName, TrelDescription_t* description);

/* All descriptions, fields left out, in the order in which they were made, from number `first` on
 * up to `length` of them. *count gets how many were written, *total how many there are. Both may be
 * called with a length of 0. */
TREL_API uint32_t trelListDescriptions(const ShmSegInfo_t* segment, uint32_t first,
                                       TrelDescription_t* descriptions, uint32_t length,
                                       uint32_t* count, uint32_t* total);

/* A number that is another one as soon as anything has been described since. 0: nothing is. */
TREL_API uint64_t trelDescriptionVersion(const ShmSegInfo_t* segment);

/* ---- The publisher of a tree ---- */

enum TrelPublisherState {
  TREL_PUBLISHER_UNKNOWN = 0, /* the tree does not say who publishes it */
  TREL_PUBLISHER_ALIVE = 1,
  TREL_PUBLISHER_ENDED = 2, /* it said so, at endTime */
  TREL_PUBLISHER_DEAD = 3   /* it is gone without a word; lastBeat tells when it last was there */
};

typedef struct TrelPublisher_t {
  uint32_t state;     /* enum TrelPublisherState */
  uint32_t processId; /* as the publisher sees itself */
  uint64_t startTime; /* this and the next two: nanoseconds since 1970 in UTC, 0 for never */
  uint64_t lastBeat;
  uint64_t endTime;
  char program[TREL_NAME_SIZE];
  char version[TREL_UNIT_SIZE];
} TrelPublisher_t;

/* Enters the calling process as the publisher of the tree, with the time of now as its start. Texts
 * that are too long are cut; null is empty. */
TREL_API uint32_t trelSetPublisher(ShmSegInfo_t* segment, const char* program, const char* version);
/* Stores the time of now as the tree's last beat: one store, no latch. TREL_RC_NOT_DESCRIBED
 * without a publisher. */
TREL_API uint32_t trelBeatTree(ShmSegInfo_t* segment);
/* The publisher takes its leave: a reader then does not take it for dead. */
TREL_API uint32_t trelEndPublisher(ShmSegInfo_t* segment);
/* Who publishes the tree, and whether it lives: its life token is asked, so a death shows at once.
 */
TREL_API uint32_t trelGetPublisher(const ShmSegInfo_t* segment, TrelPublisher_t* publisher);

/* ---- Paths ----
 *
 * A path names a node below another as in a file system: identifiers joined by '/'. In it a byte
 * that does not print, '/', '#' and '%' stand as %xx. "#5" is the node of tag 5 without identifier,
 * "#5:name" the one of tag 5 where the identifier alone is not unique. An empty path is the node
 * itself; slashes at the ends and doubled ones say nothing. */

/* One element of a path from a name: writes it with a 0 at its end into `length` bytes of text.
 * withTag 1 puts the tag in front. TREL_RC_PATH_SIZE if it does not fit. */
TREL_API uint32_t trelFormatPathElement(uint64_t tag, const uint8_t* id, uint64_t idSize,
                                        uint32_t withTag, char* text, uint64_t length);

/* The first element of a path: *tag gets the tag or 0 where the element names none, id (4096 bytes)
 * and *idSize the identifier, *rest what stands behind the element; "" at the end. An empty path
 * gives TREL_RC_NOT_FOUND, a bad one TREL_RC_PATH_SYNTAX. */
TREL_API uint32_t trelParsePathElement(const char* path, uint64_t* tag, uint8_t* id,
                                       uint64_t* idSize, const char** rest);

TREL_END_C
#endif
