/* Properties of a node: registers and byte values, found by tag or by tag and identifier.
 *
 * Kinds                    named by             value                  section (export bit)
 *   R                      tag                  register, 32 bits      0x80
 *   V                      tag                  1 to M bytes           0x100
 *   IR                     tag and identifier   register               0x200
 *   IV                     tag and identifier   1 to M bytes           0x400
 *   Base R, Base V         tag, one property    register, bytes        0x20, 0x40
 *
 * Besides its value a property has an RC field of 64 bits that starts at 0 and is the owner's. Tags
 * go from 0 to 0x100000. M, the maximum value size of a section, is 1 to 0x3000000; D, its maximum
 * identifier size, 0 to 4096; both are rounded up to a multiple of 8. A count is at most 32768.
 * An identifier pointer must not be null, whatever the size.
 *
 * A list is made by its create operation, in one of two forms:
 *   flat form   an array of records that is searched from the start. A record of tag 0 is free, so
 *               no property has tag 0. Suits a few properties.
 *   hash form   table size H = the prime from the maximum count on, chains of about one record.
 *               A deleted record's place is used again; deleting needs 8 bytes of room in the
 *               section for each place not yet used again, beyond what the records take.
 * What a section needs, in bytes, where n counts the records that fit:
 *            flat form                   hash form
 *   R        8 + 144 n                   24 + 8 H + 152 n
 *   V        16 + (420 + M) n            32 + 8 H + (428 + M) n
 *   IR       16 + (548 + D) n            48 + 8 (H + H2 + H3) + (588 + D) n
 *   IV       24 + (436 + D + M) n        56 + 8 (H + H2 + H3) + (476 + D + M) n
 *   Base R   144                         Base V: 428 + M
 * In hash form n is at least H. IR and IV have two further tables, by tag and by identifier, whose
 * sizes the caller gives; they become the primes H2 and H3.
 * A list can be made anew at any time, in another form and with other limits: one step for all who
 * use it. Records and addresses that somebody holds then lead to whatever the new list has there.
 * A flat create clears the tag of every place in the section, which takes time in a large one.
 * A list that was never created behaves as an empty flat list without room. Operations for the hash
 * form alone refuse flat lists with TREL_RC_TABLE_SIZE.
 *
 * All but the operations told otherwise run inside the node's critical section: they enter unless
 * inCriticalSection is not 0, and then the caller is inside. Those that change take the write
 * section; the others look at the node without its latch, as node.h tells, and what they give stood
 * together at one moment. Creates work on initialised, active and disassociated nodes, the others
 * on active and disassociated ones. Each property created, added or deleted counts as one change of
 * structure.
 *
 * Operations return 0 or a TREL_RC_ code. A failure writes to no out pointer, unless told
 * otherwise; arrays and buffers may then hold anything within their sizes. The codes that depend on
 * the kind: R      IR     V      IV     Base R  Base V no such section (create)          0b7    0b8
 * 0b9    0ba    0bb     0bc too large for the section, flat   0c0    0c1    0c2    0c3    0c4 0c5
 *   flat list full                    0c6    0c7    0c8    0c9
 *   count out of range                0ca    0cb    0cc    0cd
 *   record outside the section        0fb    0fc    0fd    0fe    0ff     100
 *   absent, from find and listings    10a    10b    10c    10d
 *   absent, from access by key        116    117    118    119    11a     11b
 *   too large for the section, hash   11e    11f    120    121
 *   present already                   126    127    128    129
 *   record pointer null               13c    13d    13e    13f    140     141
 *   value pointer null                4bb    4bc    142    143    4bd     144
 *   count pointer null                4c4    4c6    4c8    4ca
 *   capacity pointer null             4c5    4c7    4c9    4cb
 * Flat walks of V give 0fb for a record outside the section. */
#ifndef TREL_PROPERTY_H
#define TREL_PROPERTY_H

#include "trel/records.h"

TREL_BEGIN_C

/* Create a list in a section: useHashTable 0 for flat form, 1 for hash form. count entries of the
 * arrays become properties; none of the arrays is looked at if count is 0. Identifiers are packed
 * one behind the other in ids, the value of entry i lies at values + i * M (M rounded up). No two
 * entries may be of one name, but entries of tag 0 in a flat list, which become free records.
 * maxCount: in hash form it sizes the table, and count must not be above H. In flat form records up
 * to maxCount are made ready and left free; if count is 0 it plays no part. An entry that is
 * refused in hash form leaves those before it in place. Write section. */
TREL_API uint32_t trelCreateRPropertyList(SNodeCB_t* node, const uint64_t* tags,
                                          const int32_t* values, uint64_t count, uint64_t maxCount,
                                          uint64_t useHashTable, uint64_t inCriticalSection);
TREL_API uint32_t trelCreateVPropertyList(SNodeCB_t* node, const uint64_t* tags,
                                          const uint8_t* values, const uint64_t* sizes,
                                          uint64_t maxValueSize, uint64_t count, uint64_t maxCount,
                                          uint64_t useHashTable, uint64_t inCriticalSection);
TREL_API uint32_t trelCreateIRPropertyList(SNodeCB_t* node, const uint64_t* tags,
                                           const int32_t* values, const uint64_t* idSizes,
                                           const uint8_t* ids, uint64_t maxIdSize, uint64_t count,
                                           uint64_t tagTableSize, uint64_t idTableSize,
                                           uint64_t maxCount, uint64_t useHashTable,
                                           uint64_t inCriticalSection);
TREL_API uint32_t trelCreateIVPropertyList(SNodeCB_t* node, const uint64_t* tags,
                                           const uint64_t* idSizes, const uint8_t* ids,
                                           uint64_t maxIdSize, const uint8_t* values,
                                           const uint64_t* sizes, uint64_t maxValueSize,
                                           uint64_t count, uint64_t tagTableSize,
                                           uint64_t idTableSize, uint64_t maxCount,
                                           uint64_t useHashTable, uint64_t inCriticalSection);

/* Add a property. A name that is there already is refused, with nothing changed. The forms
 * ...ToHashTable serve hash form alone, and test no condition. Write section. */
TREL_API uint32_t trelAddRProperty(SNodeCB_t* node, uint64_t tag, int32_t value,
                                   uint64_t inCriticalSection);
TREL_API uint32_t trelAddVProperty(SNodeCB_t* node, uint64_t tag, uint64_t size,
                                   const uint8_t* value, uint64_t inCriticalSection);
TREL_API uint32_t trelAddIRProperty(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                    const uint8_t* id, int32_t value, uint64_t inCriticalSection);
TREL_API uint32_t trelAddIVProperty(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                    const uint8_t* id, uint64_t size, const uint8_t* value,
                                    uint64_t inCriticalSection);

TREL_API uint32_t trelAddRPropertyToHashTable(SNodeCB_t* node, uint64_t tag, int32_t value,
                                              uint64_t inCriticalSection);
TREL_API uint32_t trelAddVPropertyToHashTable(SNodeCB_t* node, uint64_t tag, uint64_t size,
                                              const uint8_t* value, uint64_t inCriticalSection);
TREL_API uint32_t trelAddIRPropertyToHashTable(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                               const uint8_t* id, int32_t value,
                                               uint64_t inCriticalSection);
TREL_API uint32_t trelAddIVPropertyToHashTable(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                               const uint8_t* id, uint64_t size,
                                               const uint8_t* value, uint64_t inCriticalSection);

/* Delete a property. Absent is told by the code of access in flat form, of find in hash form. Hash
 * form: TREL_RC_STACK_FULL if the section has no room to remember the freed place. The forms
 * ...FromHashTable serve hash form alone, test no condition, and always enter by themselves. Write
 * section. */
TREL_API uint32_t trelDeleteRProperty(SNodeCB_t* node, uint64_t tag, uint64_t inCriticalSection);
TREL_API uint32_t trelDeleteVProperty(SNodeCB_t* node, uint64_t tag, uint64_t inCriticalSection);
TREL_API uint32_t trelDeleteIRProperty(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                       const uint8_t* id, uint64_t inCriticalSection);
TREL_API uint32_t trelDeleteIVProperty(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                       const uint8_t* id, uint64_t inCriticalSection);

TREL_API uint32_t trelDeleteRPropertyFromHashTable(SNodeCB_t* node, uint64_t tag);
TREL_API uint32_t trelDeleteVPropertyFromHashTable(SNodeCB_t* node, uint64_t tag);
TREL_API uint32_t trelDeleteIRPropertyFromHashTable(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                                    const uint8_t* id);
TREL_API uint32_t trelDeleteIVPropertyFromHashTable(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                                    const uint8_t* id);

/* Find a record in hash form. Enters nothing: the caller is inside. *record is the last record
 * looked at, also on failure. */
TREL_API uint32_t trelFindRPropertyInHashTable(SNodeCB_t* node, uint64_t tag, RProperty_t** record);
TREL_API uint32_t trelFindVPropertyInHashTable(SNodeCB_t* node, uint64_t tag, VProperty_t** record);
TREL_API uint32_t trelFindIRPropertyInHashTable(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                                const uint8_t* id, IRProperty_t** record);
TREL_API uint32_t trelFindIVPropertyInHashTable(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                                const uint8_t* id, IVProperty_t** record);

/* Walk a flat list; nothing is entered. *count: occupied records. *capacity: records that fit. A
 * walk takes the first record, steps on by one record each time, skips those of tag 0, and ends
 * when it has seen *count others. A stored maximum of 0 gives counts of 0. An address right behind
 * the section is handed out, and not to be read. */
TREL_API uint32_t trelGetFirstRPropertyLocation(SNodeCB_t* node, RProperty_t** record,
                                                uint64_t* count, uint64_t* capacity);
TREL_API uint32_t trelGetFirstVPropertyLocation(SNodeCB_t* node, VProperty_t** record,
                                                uint64_t* count, uint64_t* capacity);
TREL_API uint32_t trelGetFirstIRPropertyLocation(SNodeCB_t* node, IRProperty_t** record,
                                                 uint64_t* count, uint64_t* capacity);
TREL_API uint32_t trelGetFirstIVPropertyLocation(SNodeCB_t* node, IVProperty_t** record,
                                                 uint64_t* count, uint64_t* capacity);

TREL_API uint32_t trelGetNextRPropertyLocation(SNodeCB_t* node, const ExportSlot_t* slot,
                                               RProperty_t** record);
TREL_API uint32_t trelGetNextVPropertyLocation(SNodeCB_t* node, const ExportSlot_t* slot,
                                               VProperty_t** record);
TREL_API uint32_t trelGetNextIRPropertyLocation(SNodeCB_t* node, const ExportSlot_t* slot,
                                                IRProperty_t** record);
TREL_API uint32_t trelGetNextIVPropertyLocation(SNodeCB_t* node, const ExportSlot_t* slot,
                                                IVProperty_t** record);

/* Base properties: one of each kind in a node. A create writes over an earlier property. To delete
 * or access one its tag must be given; trelReturnBase... tells it, and 0 behind a delete. */
TREL_API uint32_t trelCreateBaseRProperty(SNodeCB_t* node, uint64_t tag, int32_t value,
                                          uint64_t inCriticalSection);
TREL_API uint32_t trelCreateBaseVProperty(SNodeCB_t* node, uint64_t tag, const uint8_t* value,
                                          uint64_t size, uint64_t maxValueSize,
                                          uint64_t inCriticalSection);
TREL_API uint32_t trelDeleteBaseRProperty(SNodeCB_t* node, uint64_t tag,
                                          uint64_t inCriticalSection);
TREL_API uint32_t trelDeleteBaseVProperty(SNodeCB_t* node, uint64_t tag,
                                          uint64_t inCriticalSection);
TREL_API uint32_t trelReturnBaseRProperty(SNodeCB_t* node, uint64_t* tag,
                                          uint64_t inCriticalSection);
TREL_API uint32_t trelReturnBaseVProperty(SNodeCB_t* node, uint64_t* tag, uint64_t* valueSize,
                                          uint64_t inCriticalSection);
/* Where the record is, whether there is a property or not. Enters nothing. */
TREL_API uint32_t trelGetBaseRPropertyLocation(SNodeCB_t* node, RProperty_t** record);
TREL_API uint32_t trelGetBaseVPropertyLocation(SNodeCB_t* node, VProperty_t** record);

/* Access. A change of a value or an RC field is no change of structure.
 *
 * Registers by key. */
TREL_API uint32_t trelGetValueForRProperty(SNodeCB_t* node, uint64_t tag, int32_t* value,
                                           uint64_t inCriticalSection);
TREL_API uint32_t trelGetValueForIRProperty(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                            const uint8_t* id, int32_t* value,
                                            uint64_t inCriticalSection);
TREL_API uint32_t trelGetValueForBaseRProperty(SNodeCB_t* node, uint64_t tag, int32_t* value,
                                               uint64_t inCriticalSection);
TREL_API uint32_t trelSetValueForRProperty(SNodeCB_t* node, uint64_t tag, int32_t value,
                                           uint64_t inCriticalSection);
TREL_API uint32_t trelSetValueForIRProperty(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                            const uint8_t* id, int32_t value,
                                            uint64_t inCriticalSection);
TREL_API uint32_t trelSetValueForBaseRProperty(SNodeCB_t* node, uint64_t tag, int32_t value,
                                               uint64_t inCriticalSection);

/* Bytes by key. Get: *size becomes the value's size, *address its place in the node, and the bytes
 * go to buffer unless that is null; M bytes are enough, as M is when the call begins: a larger
 * value in a list that is made anew meanwhile gives TREL_RC_VALUE_SIZE. Set: size is 1 to M; bytes
 * of a longer value before stay behind it. Reading at *address outside the section is at the
 * caller's risk. */
TREL_API uint32_t trelGetValueForVProperty(SNodeCB_t* node, uint64_t tag, uint64_t* size,
                                           uint8_t** address, uint8_t* buffer,
                                           uint64_t inCriticalSection);
TREL_API uint32_t trelGetValueForIVProperty(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                            const uint8_t* id, uint64_t* size, uint8_t** address,
                                            uint8_t* buffer, uint64_t inCriticalSection);
TREL_API uint32_t trelGetValueForBaseVProperty(SNodeCB_t* node, uint64_t tag, uint64_t* size,
                                               uint8_t** address, uint8_t* buffer,
                                               uint64_t inCriticalSection);
TREL_API uint32_t trelSetValueForVProperty(SNodeCB_t* node, uint64_t tag, uint64_t size,
                                           const uint8_t* value, uint64_t inCriticalSection);
TREL_API uint32_t trelSetValueForIVProperty(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                            const uint8_t* id, uint64_t size, const uint8_t* value,
                                            uint64_t inCriticalSection);
TREL_API uint32_t trelSetValueForBaseVProperty(SNodeCB_t* node, uint64_t tag, uint64_t size,
                                               const uint8_t* value, uint64_t inCriticalSection);

/* Value and RC of a record that the caller holds, without a search. The record is the caller's
 * word: nothing tells whether its property has been deleted since. Get of bytes: *size says how
 * many bytes go to buffer, at most M, and becomes the size of the value. */
TREL_API uint32_t trelGetValueAndRCForRProperty(SNodeCB_t* node, RProperty_t* record,
                                                int32_t* value, uint64_t* rc,
                                                uint64_t inCriticalSection);
TREL_API uint32_t trelGetValueAndRCForIRProperty(SNodeCB_t* node, IRProperty_t* record,
                                                 int32_t* value, uint64_t* rc,
                                                 uint64_t inCriticalSection);
TREL_API uint32_t trelGetValueAndRCForBaseRProperty(SNodeCB_t* node, RProperty_t* record,
                                                    int32_t* value, uint64_t* rc,
                                                    uint64_t inCriticalSection);
TREL_API uint32_t trelSetValueAndRCForRProperty(SNodeCB_t* node, RProperty_t* record, int32_t value,
                                                uint64_t rc, uint64_t inCriticalSection);
TREL_API uint32_t trelSetValueAndRCForIRProperty(SNodeCB_t* node, IRProperty_t* record,
                                                 int32_t value, uint64_t rc,
                                                 uint64_t inCriticalSection);
TREL_API uint32_t trelSetValueAndRCForBaseRProperty(SNodeCB_t* node, RProperty_t* record,
                                                    int32_t value, uint64_t rc,
                                                    uint64_t inCriticalSection);
TREL_API uint32_t trelGetValueAndRCForVProperty(SNodeCB_t* node, VProperty_t* record,
                                                uint64_t* size, uint8_t** address, uint8_t* buffer,
                                                uint64_t* rc, uint64_t inCriticalSection);
TREL_API uint32_t trelGetValueAndRCForIVProperty(SNodeCB_t* node, IVProperty_t* record,
                                                 uint64_t* size, uint8_t** address, uint8_t* buffer,
                                                 uint64_t* rc, uint64_t inCriticalSection);
TREL_API uint32_t trelGetValueAndRCForBaseVProperty(SNodeCB_t* node, VProperty_t* record,
                                                    uint64_t* size, uint8_t** address,
                                                    uint8_t* buffer, uint64_t* rc,
                                                    uint64_t inCriticalSection);
TREL_API uint32_t trelSetValueAndRCForVProperty(SNodeCB_t* node, VProperty_t* record, uint64_t size,
                                                const uint8_t* value, uint64_t rc,
                                                uint64_t inCriticalSection);
TREL_API uint32_t trelSetValueAndRCForIVProperty(SNodeCB_t* node, IVProperty_t* record,
                                                 uint64_t size, const uint8_t* value, uint64_t rc,
                                                 uint64_t inCriticalSection);
TREL_API uint32_t trelSetValueAndRCForBaseVProperty(SNodeCB_t* node, VProperty_t* record,
                                                    uint64_t size, const uint8_t* value,
                                                    uint64_t rc, uint64_t inCriticalSection);

/* RC fields by key. */
TREL_API uint32_t trelGetRCForRProperty(SNodeCB_t* node, uint64_t tag, uint64_t* rc,
                                        uint64_t inCriticalSection);
TREL_API uint32_t trelGetRCForIRProperty(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                         const uint8_t* id, uint64_t* rc,
                                         uint64_t inCriticalSection);
TREL_API uint32_t trelGetRCForBaseRProperty(SNodeCB_t* node, uint64_t tag, uint64_t* rc,
                                            uint64_t inCriticalSection);
TREL_API uint32_t trelGetRCForVProperty(SNodeCB_t* node, uint64_t tag, uint64_t* rc,
                                        uint64_t inCriticalSection);
TREL_API uint32_t trelGetRCForIVProperty(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                         const uint8_t* id, uint64_t* rc,
                                         uint64_t inCriticalSection);
TREL_API uint32_t trelGetRCForBaseVProperty(SNodeCB_t* node, uint64_t tag, uint64_t* rc,
                                            uint64_t inCriticalSection);
TREL_API uint32_t trelSetRCForRProperty(SNodeCB_t* node, uint64_t tag, uint64_t rc,
                                        uint64_t inCriticalSection);
TREL_API uint32_t trelSetRCForIRProperty(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                         const uint8_t* id, uint64_t rc,
                                         uint64_t inCriticalSection);
TREL_API uint32_t trelSetRCForBaseRProperty(SNodeCB_t* node, uint64_t tag, uint64_t rc,
                                            uint64_t inCriticalSection);
TREL_API uint32_t trelSetRCForVProperty(SNodeCB_t* node, uint64_t tag, uint64_t rc,
                                        uint64_t inCriticalSection);
TREL_API uint32_t trelSetRCForIVProperty(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                         const uint8_t* id, uint64_t rc,
                                         uint64_t inCriticalSection);
TREL_API uint32_t trelSetRCForBaseVProperty(SNodeCB_t* node, uint64_t tag, uint64_t rc,
                                            uint64_t inCriticalSection);

/* The address of a record, and of its value, by key. Enter nothing: the caller is inside. The
 * address is good as long as the property lives. */
TREL_API uint32_t trelGetAddressForRProperty(SNodeCB_t* node, uint64_t tag, RProperty_t** record);
TREL_API uint32_t trelGetAddressForIRProperty(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                              const uint8_t* id, IRProperty_t** record);
TREL_API uint32_t trelGetAddressForBaseRProperty(SNodeCB_t* node, uint64_t tag,
                                                 RProperty_t** record);
TREL_API uint32_t trelGetAddressForVProperty(SNodeCB_t* node, uint64_t tag, VProperty_t** record);
TREL_API uint32_t trelGetAddressForIVProperty(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                              const uint8_t* id, IVProperty_t** record);
TREL_API uint32_t trelGetAddressForBaseVProperty(SNodeCB_t* node, uint64_t tag,
                                                 VProperty_t** record);
TREL_API uint32_t trelGetAddressForRPropertyValue(SNodeCB_t* node, uint64_t tag,
                                                  PLATVAtomicSigned32** value);
TREL_API uint32_t trelGetAddressForIRPropertyValue(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                                   const uint8_t* id, PLATVAtomicSigned32** value);
TREL_API uint32_t trelGetAddressForBaseRPropertyValue(SNodeCB_t* node, uint64_t tag,
                                                      PLATVAtomicSigned32** value);
TREL_API uint32_t trelGetAddressForVPropertyValue(SNodeCB_t* node, uint64_t tag, uint8_t** value);
TREL_API uint32_t trelGetAddressForIVPropertyValue(SNodeCB_t* node, uint64_t tag, uint64_t idSize,
                                                   const uint8_t* id, uint8_t** value);
TREL_API uint32_t trelGetAddressForBaseVPropertyValue(SNodeCB_t* node, uint64_t tag,
                                                      uint8_t** value);

/* Counts. They hold as long as the caller is inside.
 *
 * trelReturn...Count: the number with a tag, or for tag 0 of all. */
TREL_API uint32_t trelReturnRPropertyCount(SNodeCB_t* node, uint64_t tag, uint64_t* number,
                                           uint64_t inCriticalSection);
TREL_API uint32_t trelReturnVPropertyCount(SNodeCB_t* node, uint64_t tag, uint64_t* number,
                                           uint64_t inCriticalSection);
TREL_API uint32_t trelReturnIRPropertyCount(SNodeCB_t* node, uint64_t tag, uint64_t* number,
                                            uint64_t inCriticalSection);
TREL_API uint32_t trelReturnIVPropertyCount(SNodeCB_t* node, uint64_t tag, uint64_t* number,
                                            uint64_t inCriticalSection);
/* The number with a tag; absent if there is none, with *number 0. A list with a stored maximum of 0
 * or that was never created gives 0 with success, but in R absent. No test of the condition. */
TREL_API uint32_t trelGetRPropertiesNoForGivenTag(SNodeCB_t* node, uint64_t tag, uint64_t* number,
                                                  uint64_t inCriticalSection);
TREL_API uint32_t trelGetVPropertiesNoForGivenTag(SNodeCB_t* node, uint64_t tag, uint64_t* number,
                                                  uint64_t inCriticalSection);
TREL_API uint32_t trelGetIRPropertiesNoForGivenTag(SNodeCB_t* node, uint64_t tag, uint64_t* number,
                                                   uint64_t inCriticalSection);
TREL_API uint32_t trelGetIVPropertiesNoForGivenTag(SNodeCB_t* node, uint64_t tag, uint64_t* number,
                                                   uint64_t inCriticalSection);
/* How many there are, and how many the section could hold; both 0, with success, if a stored
 * maximum is 0 or the list was never created. In hash form the maximum moves with the number of
 * freed places. In a flat IV list it can read one too high. No test of the condition. */
TREL_API uint32_t trelGetNumberOfRProperties(SNodeCB_t* node, uint64_t* current, uint64_t* maximum,
                                             uint64_t inCriticalSection);
TREL_API uint32_t trelGetNumberOfVProperties(SNodeCB_t* node, uint64_t* current, uint64_t* maximum,
                                             uint64_t inCriticalSection);
TREL_API uint32_t trelGetNumberOfIRProperties(SNodeCB_t* node, uint64_t* current, uint64_t* maximum,
                                              uint64_t inCriticalSection);
TREL_API uint32_t trelGetNumberOfIVProperties(SNodeCB_t* node, uint64_t* current, uint64_t* maximum,
                                              uint64_t inCriticalSection);

/* List properties into arrays of count entries: those with a tag, or all for tag 0. A flat list
 * comes in the order of its records, hash form in the order of buckets, one tag of IR and IV newest
 * first. Entries left over become 0: tags, and the sizes but for idSizes of IR in hash form; a
 * single tag of R or V in hash form leaves them as they are. Nothing there is absent; a tag that a
 * flat list lacks is a success with zeros. The identifier of entry i goes to ids + i * idStride;
 * idStride is at most D, and an identifier above it ends the listing with TREL_RC_PROPERTY_ID_SIZE.
 */
TREL_API uint32_t trelReturnRProperties(SNodeCB_t* node, uint64_t* tags, uint64_t tag,
                                        uint64_t count, uint64_t inCriticalSection);
TREL_API uint32_t trelReturnVProperties(SNodeCB_t* node, uint64_t* tags, uint64_t* sizes,
                                        uint64_t tag, uint64_t count, uint64_t inCriticalSection);
TREL_API uint32_t trelReturnIRProperties(SNodeCB_t* node, uint64_t* tags, uint64_t* idSizes,
                                         uint8_t* ids, uint64_t tag, uint64_t count,
                                         uint64_t idStride, uint64_t inCriticalSection);
TREL_API uint32_t trelReturnIVProperties(SNodeCB_t* node, uint64_t* tags, uint64_t* idSizes,
                                         uint8_t* ids, uint64_t* sizes, uint64_t tag,
                                         uint64_t count, uint64_t idStride,
                                         uint64_t inCriticalSection);

/* What the lists are made of. None of these enters anything: the caller is inside, or knows that
 * nobody is. kind is an export bit. */
/* The decimal digits of a number, the least significant first, at most 20 bytes; no terminator. */
TREL_API void trelConvertNumberToKey(uint64_t number, uint8_t* key, uint64_t* keySize);
/* The table size for a maximum count: the first odd number from it on that is prime, or 1. */
TREL_API void trelGetPrimeNumber(uint64_t number, uint64_t* prime);
/* The bucket of a tag, and those of an IR or IV name in its three tables. Sizes of 0 are refused.
 */
TREL_API uint32_t trelGetHTIndexForTag(uint64_t tag, uint64_t tableSize, uint64_t* index);
TREL_API uint32_t trelGetHTIndex(uint64_t tag, const uint8_t* id, uint64_t idSize,
                                 uint64_t tableSize1, uint64_t tableSize2, uint64_t tableSize3,
                                 uint64_t* index1, uint64_t* index2, uint64_t* index3);

/* Places of list nodes in a section in hash form. The first takes one and hands it out: the caller
 * adds the list node's size to `used`. The last puts the offset in *link on the stack of freed list
 * nodes. */
TREL_API uint32_t trelGetFreeSpaceOffsetForProperty(SNodeCB_t* node, uint32_t kind,
                                                    uint64_t* offset);
TREL_API uint32_t trelGetNumberOfFreedLListNodes(SNodeCB_t* node, uint32_t kind, uint64_t* count);
TREL_API uint32_t trelGetMemoryStackSizeForHashTable(SNodeCB_t* node, uint32_t kind,
                                                     uint64_t* size);
TREL_API uint32_t trelUpdateListOfFreedLLNodes(SNodeCB_t* node, uint32_t kind, const TrelU64* link);

/* Table sizes, 0 in flat form. In flat form the second and third are left as they were. */
TREL_API uint32_t trelGetHashTableSizeForRVProperties(SNodeCB_t* node, uint32_t kind,
                                                      uint64_t* tableSize);
TREL_API uint32_t trelGetHashTableSizeForIRVProperties(SNodeCB_t* node, uint32_t kind,
                                                       uint64_t* tableSize1, uint64_t* tableSize2,
                                                       uint64_t* tableSize3);
/* M and D of a section; 0 if the node has none. */
TREL_API uint32_t trelGetMaxVSizeForVProperties(SNodeCB_t* node, uint64_t* maxValueSize);
TREL_API uint32_t trelGetMaxIDSizeForIRProperties(SNodeCB_t* node, uint64_t* maxIdSize);
TREL_API uint32_t trelGetMaxIDVSizeForIVProperties(SNodeCB_t* node, uint64_t* maxIdSize,
                                                   uint64_t* maxValueSize);
/* The tests that every operation by key begins with; also reads the maxima that the kind has. A
 * valueSize of 1 always passes. */
TREL_API uint32_t trelCheckInputParameters(uint32_t kind, SNodeCB_t* node, uint64_t tag,
                                           uint64_t idSize, const uint8_t* id, uint64_t valueSize,
                                           uint64_t* maxIdSize, uint64_t* maxValueSize);

TREL_END_C
#endif
