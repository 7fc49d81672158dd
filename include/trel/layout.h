/* Everything that lies in shared memory. This file is the format.
 *
 * Vocabulary
 *   segment   a piece of memory that several processes map, each at an address of its own
 *   domain    a storage heap that owns a segment, or memory that a caller gave
 *   pool      a storage heap that lies inside one chunk of a domain
 *   chunk     an allocation of a domain;   block: an allocation of a pool
 *   pad       the bytes around an allocation by which overruns and double frees are found
 *   node      one block that holds a status node: a header, 64 slots, and the sections
 *   slot      an entry of the node's export table; it says where a section lies
 *   section   the part of a node that holds one kind of content
 *   record    one property;   list node: a record with the links of its hash chains
 *
 * What an offset counts from
 *   segment base   every offset in a heap, and nodeOffset, selfOffset, segInfoOffset, hdmInfoOffset
 *   node start     every offset inside a node: slots, chains, idOffset, valueOffset
 *   An offset of 0 means none. Nothing in shared memory holds an address.
 *
 * Integers are little-endian and may lie at any byte, since a caller's sizes can put a section
 * anywhere. So they have types of their own, of alignment 1; never take a plain uint64_t* to one.
 *
 * The numbers are frozen: other processes, older and newer, 32 and 64 bits wide, depend on them. */
#ifndef TREL_LAYOUT_H
#define TREL_LAYOUT_H

#include <stddef.h>
#include <stdint.h>

#include "platsvc/atomic.h"
#include "platsvc/base.h"
#include "platsvc/latch.h"

typedef uint32_t TrelU32 __attribute__((aligned(1), may_alias));
typedef uint64_t TrelU64 __attribute__((aligned(1), may_alias));

#ifdef __cplusplus
#define TREL_STATIC_ASSERT static_assert
#else
#define TREL_STATIC_ASSERT _Static_assert
#endif
#define TREL_SIZE(type, bytes) TREL_STATIC_ASSERT(sizeof(type) == (bytes), #type)
#define TREL_OFFSET(type, field, bytes) \
  TREL_STATIC_ASSERT(offsetof(type, field) == (bytes), #type "." #field)

/* The format version. It stands in three roles, each with its own return code: the layout of a
 * heap (heapVersion), of handles and records (handleVersion), and of latches (latchVersion). */
#define TREL_STRUCTURE_VERSION 0x1317d17u

/* Limits, inclusive. */
#define TREL_MAX_TAG 0x100000u
#define TREL_MAX_ID_SIZE 4096u
#define TREL_MAX_VALUE_SIZE 0x3000000u
#define TREL_MAX_SECTION_SIZE 0x4000000u
#define TREL_MAX_NODE_SIZE 0x8000000u
#define TREL_MAX_PROPERTIES 32768u
#define TREL_MAX_DEPENDENTS 32768u
#define TREL_MAX_TABLE_SIZE 100003u

/* ---------------------------------------------------------------------------------------------
 * Node
 * ------------------------------------------------------------------------------------------- */

/* A node's condition, or a mask bit 1 << condition. */
#define TREL_CONDITION_CREATED 1u
#define TREL_CONDITION_INITIALISED 2u
#define TREL_CONDITION_ACTIVE 3u
#define TREL_CONDITION_ABANDONED 4u
#define TREL_CONDITION_DISASSOCIATED 5u

/* How a publisher shows that it is alive. */
#define TREL_UPDATE_BY_COUNTER 1u
#define TREL_UPDATE_BY_TIME 2u

/* Export bits. Bit 2^k belongs to slot k - 1. */
#define TREL_EXPORT_ID 0x2u
#define TREL_EXPORT_RECORD24 0x4u
#define TREL_EXPORT_HDM_MODULE 0x8u
#define TREL_EXPORT_PARENT 0x10u
#define TREL_EXPORT_BASE_R 0x20u
#define TREL_EXPORT_BASE_V 0x40u
#define TREL_EXPORT_R 0x80u
#define TREL_EXPORT_V 0x100u
#define TREL_EXPORT_IR 0x200u
#define TREL_EXPORT_IV 0x400u
#define TREL_EXPORT_DEPENDENT 0x800u
#define TREL_EXPORT_CHANGE_LIST 0x1000u

#define TREL_SLOTS 64u
#define TREL_LATCH_CELL 64u
#define TREL_EYE_CATCHER1 0xee15bad8u
#define TREL_EYE_CATCHER2 0xcafec0ffu

/* Bit 0 of optionWord0: the node is being replaced by a larger copy. */
#define TREL_OPTION_RECREATION 1u

/* Guards a node. Readers and writers take primaryLatch alike; the two counters change only under
 * it. A death of a writer shows as a writeFlag of 1 under a latch whose owner is gone.
 *
 * The first 8-aligned address behind the bytes of primaryLatch that the latch uses, node + 624
 * where the node starts at a multiple of 8, holds the node's birth stamp: 8 bytes that are drawn
 * when the node is made. A node that is made anew in the same memory has another one. In the area
 * of a property these bytes are spare. */
#define TREL_BIRTH_STAMP_OFFSET 624u
typedef struct LatchArea_t {
  TrelU32 latchVersion;                  /* tested on each entry */
  uint8_t primaryLatch[TREL_LATCH_CELL]; /* the latch that readers and writers take */
  uint8_t spareLatch[TREL_LATCH_CELL];   /* initialised, never taken */
  PLATVAtomicSigned32 writeCounter;      /* entries before write */
  PLATVAtomicSigned32 writeFlag;         /* 1 while a writer is inside, else 0 */
} LatchArea_t;

TREL_SIZE(LatchArea_t, 388);
TREL_OFFSET(LatchArea_t, primaryLatch, 4);
TREL_OFFSET(LatchArea_t, spareLatch, 68);
TREL_OFFSET(LatchArea_t, writeCounter, 132);
TREL_OFFSET(LatchArea_t, writeFlag, 260);

/* How far the owner of the spare latch area's primaryLatch is with replacing the node by a copy; it
 * lies behind that latch. What a record of the parent's list would say of the copy, so from the
 * base of the parent's segment, stands there once there is a block. */
#define TREL_RECREATION_OFFSET 1008u
#define TREL_RECREATION_COPIED 1u
typedef struct RecreationIntent_t {
  TrelU32 condition;     /* of the node, from before */
  TrelU32 state;         /* TREL_RECREATION_..., 0: no copy */
  TrelU64 segInfoOffset; /* as in SNodeInfo_t */
  TrelU64 nodeOffset;    /* of the copy, */
  TrelU64 born;          /* and its birth stamp */
} RecreationIntent_t;

TREL_SIZE(RecreationIntent_t, 32);
TREL_OFFSET(RecreationIntent_t, state, 4);
TREL_OFFSET(RecreationIntent_t, segInfoOffset, 8);
TREL_OFFSET(RecreationIntent_t, nodeOffset, 16);
TREL_OFFSET(RecreationIntent_t, born, 24);

/* An entry of the node's list of dependents that a writer is making lead to another node of the
 * same name, so that whoever comes after his death finishes it. Behind the spareLatch of the spare
 * latch area. */
#define TREL_LINK_NOTE_OFFSET 1072u
typedef struct LinkNote_t {
  TrelU64 place;      /* of the entry, from the node's start */
  TrelU64 nodeOffset; /* and what it is to say, as in SNodeInfo_t */
  TrelU64 segInfoOffset;
  TrelU64 hdmInfoOffset;
  TrelU64 sum; /* over these and the birth stamp, written last; anything else: no note */
} LinkNote_t;

TREL_SIZE(LinkNote_t, 40);
TREL_OFFSET(LinkNote_t, sum, 32);

/* One section: `size` bytes are reserved at `offset` from the node's start, `used` of them are in
 * use. used is 0 until the owner of the section writes it, and never above size. */
typedef struct ExportSlot_t {
  TrelU64 size;
  TrelU64 used;
  TrelU64 offset;
} ExportSlot_t;

TREL_SIZE(ExportSlot_t, 24);
TREL_OFFSET(ExportSlot_t, used, 8);
TREL_OFFSET(ExportSlot_t, offset, 16);

/* The header of a node. The sections follow it in slot order without gaps, so that
 * nodeSize = 2908 + sum of all slot sizes. Block address - nodeOffset is the segment base. */
typedef struct SNodeCB_t {
  TrelU32 optionWord0; /* bit 0: recreation mark */
  TrelU32 optionWord1; /* the caller's */
  TrelU64 optionWord2; /* the caller's */
  TrelU64 tag;         /* 0 to TREL_MAX_TAG; 0 is no tag */
  TrelU64 nodeOffset;
  TrelU64 nodeSize;
  TrelU64 exports; /* export bits: which sections the node has */
  TrelU32 eyeCatcher1;
  TrelU32 eyeCatcher2;
  TrelU32 updateMode;                  /* TREL_UPDATE_BY_... */
  TrelU32 condition;                   /* TREL_CONDITION_... */
  TrelU32 optionWord5;                 /* the caller's */
  TrelU32 updateInterval;              /* ticks, tenths of a second */
  TrelU64 lastUpdateTime;              /* tick */
  PLATVAtomicSigned32 reconfigCounter; /* changes of structure */
  PLATVAtomicSigned32 updateCounter;   /* heartbeats in TREL_UPDATE_BY_COUNTER */
  PLATVAtomicSigned32 spareCounter1;
  PLATVAtomicSigned32 spareCounter2;
  LatchArea_t nodeLatchArea;  /* the one that every node operation enters */
  LatchArea_t spareLatchArea; /* its primaryLatch: held while the node is replaced by a copy */
  TrelU32 concurrencyModel;   /* 1: latched; 0 and 2 to 5: no latch is used */
  ExportSlot_t exportTable[TREL_SLOTS];
} SNodeCB_t;

#define TREL_NODE_HEADER_SIZE 2908u
TREL_SIZE(SNodeCB_t, 2908);
TREL_OFFSET(SNodeCB_t, optionWord1, 4);
TREL_OFFSET(SNodeCB_t, optionWord2, 8);
TREL_OFFSET(SNodeCB_t, tag, 16);
TREL_OFFSET(SNodeCB_t, nodeOffset, 24);
TREL_OFFSET(SNodeCB_t, nodeSize, 32);
TREL_OFFSET(SNodeCB_t, exports, 40);
TREL_OFFSET(SNodeCB_t, eyeCatcher1, 48);
TREL_OFFSET(SNodeCB_t, eyeCatcher2, 52);
TREL_OFFSET(SNodeCB_t, updateMode, 56);
TREL_OFFSET(SNodeCB_t, condition, 60);
TREL_OFFSET(SNodeCB_t, optionWord5, 64);
TREL_OFFSET(SNodeCB_t, updateInterval, 68);
TREL_OFFSET(SNodeCB_t, lastUpdateTime, 72);
TREL_OFFSET(SNodeCB_t, reconfigCounter, 80);
TREL_OFFSET(SNodeCB_t, updateCounter, 208);
TREL_OFFSET(SNodeCB_t, spareCounter1, 336);
TREL_OFFSET(SNodeCB_t, spareCounter2, 464);
TREL_OFFSET(SNodeCB_t, nodeLatchArea, 592);
TREL_STATIC_ASSERT(((592u + 4u + PLAT_LATCH_BYTES + 7u) & ~7u) == TREL_BIRTH_STAMP_OFFSET &&
                       TREL_BIRTH_STAMP_OFFSET + 8u + 7u <= 592u + 4u + TREL_LATCH_CELL,
                   "birth stamp");
TREL_OFFSET(SNodeCB_t, spareLatchArea, 980);
TREL_STATIC_ASSERT(980u + 4u + PLAT_LATCH_BYTES == TREL_RECREATION_OFFSET &&
                       TREL_RECREATION_OFFSET + 32u <= 980u + 4u + TREL_LATCH_CELL,
                   "recreation intent");
TREL_STATIC_ASSERT(980u + 4u + TREL_LATCH_CELL + PLAT_LATCH_BYTES == TREL_LINK_NOTE_OFFSET &&
                       TREL_LINK_NOTE_OFFSET + 40u <= 980u + 4u + 2u * TREL_LATCH_CELL,
                   "link note");
TREL_OFFSET(SNodeCB_t, concurrencyModel, 1368);
TREL_OFFSET(SNodeCB_t, exportTable, 1372);

/* ---------------------------------------------------------------------------------------------
 * Names of nodes, segments and modules
 * ------------------------------------------------------------------------------------------- */

/* Which segment. Stored as the payload of the shared segment list, and kept by each process. */
typedef struct SegIdentity_t {
  TrelU32 handleVersion;
  TrelU32 heapVersion;
  TrelU32 latchVersion;
  TrelU32 accessMode; /* 1, 2: reached by key; 3: memory at a given address */
  struct {
    TrelU32 structureTag;
    TrelU32 key;     /* the one word that identifies */
  } segmentKey;      /* laid out as PLATIPCResID */
  TrelU32 connected; /* 1 once filled */
  TrelU32 reserved;
} SegIdentity_t;

TREL_SIZE(SegIdentity_t, 32);
TREL_OFFSET(SegIdentity_t, heapVersion, 4);
TREL_OFFSET(SegIdentity_t, latchVersion, 8);
TREL_OFFSET(SegIdentity_t, accessMode, 12);
TREL_OFFSET(SegIdentity_t, segmentKey, 16);
TREL_OFFSET(SegIdentity_t, segmentKey.key, 20);
TREL_OFFSET(SegIdentity_t, connected, 24);
TREL_OFFSET(SegIdentity_t, reserved, 28);

/* One node as named by another, across segments. The base that the last two offsets count from is
 * record address - selfOffset where selfOffset is set, else segBase. */
typedef struct SNodeInfo_t {
  TrelU64 nodeOffset;    /* of the node, from the base of its own segment */
  TrelU64 nodeTag;       /* 0 marks a vacant entry of a dependent list */
  TrelU64 idSize;        /* identifier bytes that follow the stored record */
  TrelU64 selfOffset;    /* stored record: its own offset; in process memory: 0 */
  TrelU64 segInfoOffset; /* of the SegIdentity_t that names the node's segment */
  TrelU64 hdmInfoOffset; /* of the HdmModuleRecord_t */
  TrelU64 segBase;       /* record in process memory: the base address */
} SNodeInfo_t;

TREL_SIZE(SNodeInfo_t, 56);
TREL_OFFSET(SNodeInfo_t, nodeTag, 8);
TREL_OFFSET(SNodeInfo_t, idSize, 16);
TREL_OFFSET(SNodeInfo_t, selfOffset, 24);
TREL_OFFSET(SNodeInfo_t, segInfoOffset, 32);
TREL_OFFSET(SNodeInfo_t, hdmInfoOffset, 40);
TREL_OFFSET(SNodeInfo_t, segBase, 48);

/* The module that serves a node. Compared by the path alone, at most 1024 bytes of it. */
typedef struct HdmModuleRecord_t {
  char modulePath[1024];
  uint8_t rest[32]; /* travels with the record */
} HdmModuleRecord_t;

TREL_SIZE(HdmModuleRecord_t, 1056);
TREL_OFFSET(HdmModuleRecord_t, rest, 1024);

/* Nodes of the shared lists: blocks of a pool. */
typedef struct SegListNode_t {
  TrelU64 nextOffset;
  SegIdentity_t identity;
} SegListNode_t;

typedef struct HdmListNode_t {
  TrelU64 nextOffset;
  HdmModuleRecord_t module;
} HdmListNode_t;

TREL_SIZE(SegListNode_t, 40);
TREL_OFFSET(SegListNode_t, identity, 8);
TREL_SIZE(HdmListNode_t, 1064);
TREL_OFFSET(HdmListNode_t, module, 8);

/* ---------------------------------------------------------------------------------------------
 * Sections
 * ------------------------------------------------------------------------------------------- */

/* TREL_EXPORT_ID: this header, then the identifier. used = 16 + idSize. */
typedef struct IdSection_t {
  TrelU64 maxIdSize;
  TrelU64 idSize;
} IdSection_t;

/* TREL_EXPORT_PARENT: this header, then the parent's identifier. used = 64 + parent.idSize. */
typedef struct ParentSection_t {
  TrelU64 maxIdSize;
  SNodeInfo_t parent;
} ParentSection_t;

/* TREL_EXPORT_CHANGE_LIST: wishes for new limits, read by the next copy of the node. */
#define TREL_CHANGE_WORDS 58u
typedef struct ChangeListSection_t {
  TrelU64 exports;
  TrelU32 words[TREL_CHANGE_WORDS];
} ChangeListSection_t;

TREL_SIZE(IdSection_t, 16);
TREL_OFFSET(IdSection_t, idSize, 8);
TREL_SIZE(ParentSection_t, 64);
TREL_OFFSET(ParentSection_t, parent, 8);
TREL_SIZE(ChangeListSection_t, 240);
TREL_OFFSET(ChangeListSection_t, words, 8);

/* Property records. D is the section's maximum identifier size, M its maximum value size, both
 * multiples of 8. A record of R and Base R is all of it; behind the others follow D identifier
 * bytes (IR, IV), then M value bytes (V, Base V, IV). The latch areas are initialised and never
 * entered: the node's own area guards its properties. */
typedef struct RProperty_t {
  TrelU64 tag; /* 0 marks a free record of a flat list */
  TrelU64 rc;  /* the owner's; 0 in a new property */
  PLATVAtomicSigned32 value;
} RProperty_t;

typedef struct VProperty_t {
  TrelU64 tag;
  TrelU64 rc;
  TrelU64 valueOffset; /* the record's own offset + 420 */
  TrelU64 valueSize;   /* 1 to M */
  LatchArea_t propertyLatchArea;
} VProperty_t;

typedef struct IRProperty_t {
  TrelU64 tag;
  TrelU64 rc;
  TrelU64 idOffset; /* the record's own offset + 548 */
  TrelU64 idSize;   /* 0 to D */
  PLATVAtomicSigned32 value;
  LatchArea_t propertyLatchArea;
} IRProperty_t;

typedef struct IVProperty_t {
  TrelU64 tag;
  TrelU64 rc;
  TrelU64 idOffset;    /* the record's own offset + 436 */
  TrelU64 idSize;      /* 0 to D */
  TrelU64 valueOffset; /* the record's own offset + 436 + D */
  TrelU64 valueSize;   /* 1 to M */
  LatchArea_t propertyLatchArea;
} IVProperty_t;

TREL_SIZE(RProperty_t, 144);
TREL_OFFSET(RProperty_t, rc, 8);
TREL_OFFSET(RProperty_t, value, 16);
TREL_SIZE(VProperty_t, 420);
TREL_OFFSET(VProperty_t, rc, 8);
TREL_OFFSET(VProperty_t, valueOffset, 16);
TREL_OFFSET(VProperty_t, valueSize, 24);
TREL_OFFSET(VProperty_t, propertyLatchArea, 32);
TREL_SIZE(IRProperty_t, 548);
TREL_OFFSET(IRProperty_t, rc, 8);
TREL_OFFSET(IRProperty_t, idOffset, 16);
TREL_OFFSET(IRProperty_t, idSize, 24);
TREL_OFFSET(IRProperty_t, value, 32);
TREL_OFFSET(IRProperty_t, propertyLatchArea, 160);
TREL_SIZE(IVProperty_t, 436);
TREL_OFFSET(IVProperty_t, rc, 8);
TREL_OFFSET(IVProperty_t, idOffset, 16);
TREL_OFFSET(IVProperty_t, idSize, 24);
TREL_OFFSET(IVProperty_t, valueOffset, 32);
TREL_OFFSET(IVProperty_t, valueSize, 40);
TREL_OFFSET(IVProperty_t, propertyLatchArea, 48);

/* Links in front of a record in a hash list, as offsets from the node's start; 0 ends a chain.
 * nextNodeOffset leads to the next list node, in ascending order of key. The other chains run
 * through cells: a next...Cell holds the offset of the next node's own next...Cell, a prev...Cell
 * the offset of the cell that points to this one, bucket or next...Cell. */
typedef struct HashLink_t {
  TrelU64 nextNodeOffset;
} HashLink_t; /* R, V */

typedef struct IdHashLinks_t {
  TrelU64 nextNodeOffset;
  TrelU64 nextTagCell;
  TrelU64 prevTagCell;
  TrelU64 nextIdCell;
  TrelU64 prevIdCell;
} IdHashLinks_t; /* IR, IV */

TREL_SIZE(HashLink_t, 8);
TREL_SIZE(IdHashLinks_t, 40);
TREL_OFFSET(IdHashLinks_t, nextTagCell, 8);
TREL_OFFSET(IdHashLinks_t, prevTagCell, 16);
TREL_OFFSET(IdHashLinks_t, nextIdCell, 24);
TREL_OFFSET(IdHashLinks_t, prevIdCell, 32);

/* The last 16 bytes of a section in hash form. The stack of freed list nodes grows downward from
 * here: the first freed offset lies 8 bytes below this record. */
typedef struct HashAnchor_t {
  TrelU64 nextFreeOffset; /* of the first list node position never used; only grows */
  TrelU64 freedNodeCount; /* entries of the stack, at most 32768 */
} HashAnchor_t;

TREL_SIZE(HashAnchor_t, 16);
TREL_OFFSET(HashAnchor_t, freedNodeCount, 8);

/* ---------------------------------------------------------------------------------------------
 * Storage heap: H is its offset from the segment base, U the user area's size, R is U rounded up
 * to 8, m is maxLevel, S = H + heapHeaderSize.
 *
 *   H                    488 + R        HeapHeader_t, user area, HeapHeaderTail_t
 *   S                    216 + 72 m     SkipListHeader_t, heads and tail
 *   ... to S+slSpaceSize                skip-list nodes, placed upward
 *   ... to H+heapSize                   managed memory
 *
 * Under heapLatch these hold:
 *   freeBytes + allocatedBytes = heapSize - heapHeaderSize - slSpaceSize
 *   slUsedBytes + holes        = slNextNode <= slSpaceSize
 *   free and allocated blocks tile the managed memory, and no two free blocks touch.
 * ------------------------------------------------------------------------------------------- */

#define TREL_HEAP_DOMAIN 1u
#define TREL_HEAP_POOL 2u
#define TREL_DOMAIN_STATE 0xf4eef00du
#define TREL_POOL_STATE 0xf00df4eeu
#define TREL_HEAP_MARKED 1u /* heapFlags: marked for deletion */
#define TREL_HEAP_MAX_LEVEL 25u

/* A latch with the proof that it was initialised. The platform's latch uses the first
 * PLAT_LATCH_BYTES of the cell. Behind them heapLatch keeps a HeapIntent_t, and debugLatch a
 * HeapAside_t. */
typedef struct ExclusiveLatch_t {
  TrelU32 version;
  uint8_t latch[132];
} ExclusiveLatch_t;

/* An allocated block. A link of level i holds the offset of the link slot of level i in the next
 * node, 0 at the end; 48 + 8 i below that slot the node starts. */
typedef struct AllocNode_t {
  TrelU64 blockOffset; /* the key; pads included */
  TrelU64 blockSize;   /* pads included */
  TrelU64 dataOffset;
  TrelU64 requestedSize;
  TrelU64 level;
  TrelU32 callerFunction;
  TrelU32 callerLine;
} AllocNode_t; /* level + 1 links follow */

/* What the owner of heapLatch is in the middle of, for whoever takes the latch over after its
 * death. Everything else that a death leaves can be seen from the allocated list. 0: nothing. */
typedef struct HeapIntent_t {
  TrelU32 allocating; /* distance from H of the block that is being handed out; or bit 0 */
  TrelU32 moving;     /* TREL_NODE_MOVING: an allocated node moves, as the last four fields say */
  TrelU64 freeing;    /* block offset of the chunk whose pool is being freed */
  TrelU64 listPool;   /* domain: a pool, */
  TrelU64 listNode;   /* and its block on the way to a shared list or from one */
  TrelU64 source;     /* where the node stood, */
  TrelU64 target;     /* where it goes, */
  TrelU64 next;       /* its link at level 0, */
  AllocNode_t node;   /* and its fields */
} HeapIntent_t;

#define TREL_REPAIR_DUE 1u /* in allocating: an owner died, nothing was repaired yet */
#define TREL_NODE_MOVING 0x4ec04dedu

/* Behind the latch in the cell of debugLatch: what this library alone keeps of a heap. */
typedef struct HeapAside_t {
  TrelU32 version;      /* counted as a change of the heap begins, to odd, and as it ends */
  TrelU32 debugVersion; /* the same for changes of the debug record */
  TrelU64 magic;        /* TREL_HEAP_ASIDE, if this library has made the chains */
  TrelU64 ownOffset;    /* of this record */
  TrelU64 holes[2];     /* from S: the first place that an allocated, a free node has left, or 0 */
} HeapAside_t;

#define TREL_HEAP_ASIDE 0x6c7265742e736964ull

/* A place that a node has left, in a chain of its kind. What the node said of its level stays. */
typedef struct Hole_t {
  TrelU64 mark; /* TREL_HOLE_MARK, plus its own distance from S */
  TrelU64 next; /* from S, 0 at the end */
  TrelU64 reserved[2];
  TrelU64 level;
  TrelU64 reserved2;
} Hole_t;

#define TREL_HOLE_MARK 0xf4ee407e00000000ull /* no block lies that far */

typedef struct HeapHeader_t {
  TrelU64 heapVersion;
  TrelU64 handleVersion;
  TrelU64 latchVersion;
  TrelU64 heapState; /* TREL_..._STATE; written last in creation, 0 when freed */
  TrelU64 heapFlags;
  TrelU64 heapOffset; /* H itself */
  TrelU64 connectionCount;
  TrelU64 heapSize; /* of the whole heap, header included */
  TrelU64 freeBytes;
  TrelU64 allocatedBytes;
  TrelU64 requestedNodeCount; /* what sized the skip-list space */
  TrelU64 granularity;        /* unit of a pool's block sizes */
  ExclusiveLatch_t heapLatch;
  TrelU64 topPool;      /* domain: topPoolOffset, 0 without a tree; pool: ownerDomainOffset */
  TrelU64 userAreaSize; /* U, unrounded */
} HeapHeader_t;         /* R bytes of user area follow */

typedef struct DebugRecord_t {
  TrelU32 debugFlags;      /* bit 0: fill new blocks, bit 1: fill freed blocks, with 0xff */
  TrelU32 debugMode;       /* kind of pads */
  TrelU32 debugModeLocked; /* 1 from the first allocation on */
  TrelU32 reserved[5];
  TrelU32 frontPadWords;
  TrelU32 backPadWords;
} DebugRecord_t;

/* The part of the header behind the user area. In a domain the four words hold topNodeOffset at
 * 248 + U and topNodeTag at 256 + U, counted with the exact U and so perhaps unaligned, then the
 * heads of the shared segment list and the shared HDM list, counted with R. */
typedef struct HeapHeaderTail_t {
  TrelU64 words[4];
  uint8_t reserved[32];
  DebugRecord_t debug;
  ExclusiveLatch_t debugLatch;
} HeapHeaderTail_t;

TREL_SIZE(ExclusiveLatch_t, 136);
TREL_OFFSET(ExclusiveLatch_t, latch, 4);
TREL_SIZE(HeapIntent_t, 104);
TREL_OFFSET(HeapIntent_t, moving, 4);
TREL_OFFSET(HeapIntent_t, freeing, 8);
TREL_OFFSET(HeapIntent_t, listPool, 16);
TREL_OFFSET(HeapIntent_t, listNode, 24);
TREL_OFFSET(HeapIntent_t, source, 32);
TREL_OFFSET(HeapIntent_t, target, 40);
TREL_OFFSET(HeapIntent_t, next, 48);
TREL_OFFSET(HeapIntent_t, node, 56);
TREL_SIZE(HeapAside_t, 40);
TREL_OFFSET(HeapAside_t, debugVersion, 4);
TREL_OFFSET(HeapAside_t, magic, 8);
TREL_OFFSET(HeapAside_t, ownOffset, 16);
TREL_OFFSET(HeapAside_t, holes, 24);
TREL_SIZE(Hole_t, 48);
TREL_OFFSET(Hole_t, next, 8);
TREL_OFFSET(Hole_t, level, 32);
TREL_SIZE(HeapHeader_t, 248);
TREL_OFFSET(HeapHeader_t, handleVersion, 8);
TREL_OFFSET(HeapHeader_t, latchVersion, 16);
TREL_OFFSET(HeapHeader_t, heapState, 24);
TREL_OFFSET(HeapHeader_t, heapFlags, 32);
TREL_OFFSET(HeapHeader_t, heapOffset, 40);
TREL_OFFSET(HeapHeader_t, connectionCount, 48);
TREL_OFFSET(HeapHeader_t, heapSize, 56);
TREL_OFFSET(HeapHeader_t, freeBytes, 64);
TREL_OFFSET(HeapHeader_t, allocatedBytes, 72);
TREL_OFFSET(HeapHeader_t, requestedNodeCount, 80);
TREL_OFFSET(HeapHeader_t, granularity, 88);
TREL_OFFSET(HeapHeader_t, heapLatch, 96);
TREL_OFFSET(HeapHeader_t, topPool, 232);
TREL_OFFSET(HeapHeader_t, userAreaSize, 240);
TREL_SIZE(DebugRecord_t, 40);
TREL_OFFSET(DebugRecord_t, debugMode, 4);
TREL_OFFSET(DebugRecord_t, debugModeLocked, 8);
TREL_OFFSET(DebugRecord_t, reserved, 12);
TREL_OFFSET(DebugRecord_t, frontPadWords, 32);
TREL_OFFSET(DebugRecord_t, backPadWords, 36);
TREL_SIZE(HeapHeaderTail_t, 240);
TREL_OFFSET(HeapHeaderTail_t, reserved, 32);
TREL_OFFSET(HeapHeaderTail_t, debug, 64);
TREL_OFFSET(HeapHeaderTail_t, debugLatch, 104);
#define TREL_HEAP_HEADER_SIZE 488u /* without the user area */

/* ---------------------------------------------------------------------------------------------
 * Description of a tree: names, units and kinds of its values, and who publishes it. It lies in two
 * blocks of a pool, to which the reserved bytes of a domain's HeapHeaderTail_t lead.
 * ------------------------------------------------------------------------------------------- */

/* In HeapHeaderTail_t.reserved of a domain. All 0 without a description. The block that counts is
 * that of place[generation & 1]; the other place is 0, or names one that a dead writer left. */
typedef struct DescriptionAnchor_t {
  TrelU64 place[2];  /* of a DescriptionBlock_t */
  TrelU64 publisher; /* of a PublisherRecord_t, 0 for none */
  TrelU32 generation;
  TrelU32 reserved;
} DescriptionAnchor_t;

TREL_SIZE(DescriptionAnchor_t, 32);
TREL_OFFSET(DescriptionAnchor_t, publisher, 16);
TREL_OFFSET(DescriptionAnchor_t, generation, 24);

/* Behind it an index of indexSize words, then `used` bytes of entries. An entry is found at the
 * word of its hash or one of those that follow, up to a word of 0. A word holds the entry's
 * distance from the start of the block. */
typedef struct DescriptionBlock_t {
  TrelU32 mark;      /* TREL_DESCRIPTION_MARK */
  TrelU32 size;      /* bytes of the block */
  TrelU32 indexSize; /* a power of two */
  TrelU32 used;      /* bytes of entries; grows by the store that makes one of them count */
} DescriptionBlock_t;

#define TREL_DESCRIPTION_MARK 0x64657363u

TREL_SIZE(DescriptionBlock_t, 16);
TREL_OFFSET(DescriptionBlock_t, size, 4);
TREL_OFFSET(DescriptionBlock_t, indexSize, 8);
TREL_OFFSET(DescriptionBlock_t, used, 12);

/* What is described, and the description of it. Behind it come the fields of a record, items like
 * its own. */
typedef struct DescriptionEntry_t {
  TrelU32 size; /* of all of it, a multiple of 8 */
  TrelU32 nodeTag;
  TrelU32 exportBit;
  TrelU32 propertyTag;
  TrelU32 offset; /* of the value in the property's bytes; a property can hold several */
  TrelU32 fieldCount;
} DescriptionEntry_t;

/* Texts follow: name, unit, help, without an end mark; then up to 7 bytes of 0, to a multiple of
 * 8. */
typedef struct DescriptionItem_t {
  TrelU32 offset; /* of a field, from the start of its record; of an entry's own item as there */
  TrelU32 valueSize;
  uint8_t valueType;
  uint8_t valueKind;
  uint8_t nameSize;
  uint8_t unitSize;
  uint8_t helpSize;
  uint8_t reserved[3];
} DescriptionItem_t;

TREL_SIZE(DescriptionEntry_t, 24);
TREL_OFFSET(DescriptionEntry_t, nodeTag, 4);
TREL_OFFSET(DescriptionEntry_t, exportBit, 8);
TREL_OFFSET(DescriptionEntry_t, propertyTag, 12);
TREL_OFFSET(DescriptionEntry_t, offset, 16);
TREL_OFFSET(DescriptionEntry_t, fieldCount, 20);
TREL_SIZE(DescriptionItem_t, 16);
TREL_OFFSET(DescriptionItem_t, valueSize, 4);
TREL_OFFSET(DescriptionItem_t, valueType, 8);
TREL_OFFSET(DescriptionItem_t, valueKind, 9);
TREL_OFFSET(DescriptionItem_t, nameSize, 10);
TREL_OFFSET(DescriptionItem_t, unitSize, 11);
TREL_OFFSET(DescriptionItem_t, helpSize, 12);

/* Times in nanoseconds since 1970 in UTC; 0 for never. lastBeat changes by one store at any moment,
 * the others while `changing` is odd. */
typedef struct PublisherRecord_t {
  TrelU32 mark;     /* TREL_PUBLISHER_MARK */
  TrelU32 changing; /* odd while the record is written */
  TrelU64 lastBeat;
  TrelU64 startTime;
  TrelU64 endTime;   /* set by a publisher that took its leave */
  TrelU32 processId; /* in the publisher's own pid namespace */
  TrelU32 token;     /* its life token */
  char program[64];
  char version[32];
} PublisherRecord_t;

#define TREL_PUBLISHER_MARK 0x7075626cu

TREL_SIZE(PublisherRecord_t, 136);
TREL_OFFSET(PublisherRecord_t, changing, 4);
TREL_OFFSET(PublisherRecord_t, lastBeat, 8);
TREL_OFFSET(PublisherRecord_t, startTime, 16);
TREL_OFFSET(PublisherRecord_t, endTime, 24);
TREL_OFFSET(PublisherRecord_t, processId, 32);
TREL_OFFSET(PublisherRecord_t, token, 36);
TREL_OFFSET(PublisherRecord_t, program, 40);
TREL_OFFSET(PublisherRecord_t, version, 104);

/* A free block, in two orders at once. With k = level + 1 there follow k forward links by offset,
 * k backward links by offset, k forward and k backward links by size. A link holds the offset of a
 * node; head and tail close both orders at every level. */
typedef struct FreeNode_t {
  TrelU64 blockOffset; /* the key of one order */
  TrelU64 blockSize;   /* the key of the other */
  TrelU64 reserved[2];
  TrelU64 level;
  TrelU64 reserved2;
} FreeNode_t; /* 4 k links follow */

/* At S. Behind it: the allocated list head with m links, freeListLevel (u64), the head and the tail
 * of the free list with 4 m links each, then the node positions. */
typedef struct SkipListHeader_t {
  TrelU64 maxLevel;
  TrelU64 slSpaceSize;
  TrelU64 slUsedBytes;
  TrelU64 slNextNode; /* from S; the high-water mark */
  TrelU64 allocNodeCount;
  TrelU64 freeNodeCount;
  TrelU64 rebuildCount;
  TrelU64 allocListLevel;
  AllocNode_t allocHead;
} SkipListHeader_t;

TREL_SIZE(AllocNode_t, 48);
TREL_OFFSET(AllocNode_t, blockSize, 8);
TREL_OFFSET(AllocNode_t, dataOffset, 16);
TREL_OFFSET(AllocNode_t, requestedSize, 24);
TREL_OFFSET(AllocNode_t, level, 32);
TREL_OFFSET(AllocNode_t, callerFunction, 40);
TREL_OFFSET(AllocNode_t, callerLine, 44);
TREL_SIZE(FreeNode_t, 48);
TREL_OFFSET(FreeNode_t, blockSize, 8);
TREL_OFFSET(FreeNode_t, reserved, 16);
TREL_OFFSET(FreeNode_t, level, 32);
TREL_OFFSET(FreeNode_t, reserved2, 40);
TREL_SIZE(SkipListHeader_t, 112);
TREL_OFFSET(SkipListHeader_t, slSpaceSize, 8);
TREL_OFFSET(SkipListHeader_t, slUsedBytes, 16);
TREL_OFFSET(SkipListHeader_t, slNextNode, 24);
TREL_OFFSET(SkipListHeader_t, allocNodeCount, 32);
TREL_OFFSET(SkipListHeader_t, freeNodeCount, 40);
TREL_OFFSET(SkipListHeader_t, rebuildCount, 48);
TREL_OFFSET(SkipListHeader_t, allocListLevel, 56);
TREL_OFFSET(SkipListHeader_t, allocHead, 64);

/* Pad items. A mode is a fixed sequence of them in front of the data and behind it. */
#define TREL_PAD_OFF 0u
#define TREL_PAD_FRONT 0xc0de1d1eu
#define TREL_PAD_DEFAULT 0xeebc011au
#define TREL_PAD_GUARD 0xdabc011au
#define TREL_PAD_RECORD 0xa110cbeeu
#define TREL_PAD_RECORD_GUARD 0xa110cbadu
#define TREL_PAD_FILE 0xa110ce87u
#define TREL_PAD_FILE_GUARD 0x78ec011au
#define TREL_PAD_FREED 0xf4eeda7au /* stands in place of the mode in a freed block */

#define TREL_PAD_FRONT_MAGIC 0xdeadfaceu
#define TREL_PAD_BACK_MAGIC 0xfacedeadu
#define TREL_PAD_GUARD_WORD 0xfeedface600dbeefull

typedef struct PadTail_t {
  TrelU64 nodeOffset; /* of the AllocNode_t */
  TrelU32 magic;      /* TREL_PAD_FRONT_MAGIC or TREL_PAD_BACK_MAGIC */
  TrelU32 mode;       /* the mode the block was made with */
} PadTail_t;          /* the last 16 bytes before the data, the last 16 of the block */

#define TREL_FREE_TAIL_MAGIC                                             \
  0xf4eefaceu /* in the last 16 bytes of a free block: node and mode are \
               * those of the free node, and TREL_PAD_FREED; a hint */

typedef struct PadBlockRecord_t {
  TrelU32 line;
  TrelU32 function;
  TrelU32 frontPadWords;
  TrelU32 backPadWords;
} PadBlockRecord_t;

#define TREL_PAD_FILE_FIELD 24u /* file name, cut to 23 characters */

TREL_SIZE(PadTail_t, 16);
TREL_OFFSET(PadTail_t, magic, 8);
TREL_OFFSET(PadTail_t, mode, 12);
TREL_SIZE(PadBlockRecord_t, 16);
TREL_OFFSET(PadBlockRecord_t, function, 4);
TREL_OFFSET(PadBlockRecord_t, frontPadWords, 8);
TREL_OFFSET(PadBlockRecord_t, backPadWords, 12);

#endif
