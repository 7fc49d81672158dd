/* Records in process memory: parameters, handles, figures. Nothing here is shared between
 * processes, so widths follow the platform. */
#ifndef TREL_RECORDS_H
#define TREL_RECORDS_H

#include "trel/layout.h"

#define TREL_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define TREL_BEGIN_C extern "C" {
#define TREL_END_C }
class PLATHIPCMemory;
#else
#define TREL_BEGIN_C
#define TREL_END_C
typedef struct PLATHIPCMemory PLATHIPCMemory;
#endif

/* Options of a node. A null record selects all defaults, a word of 0 that word's default. */
typedef struct NodeOptions_t {
  uint32_t optionWord0;       /* stored; bit 0 is the recreation mark */
  uint32_t optionWord1;       /* stored */
  uint32_t optionWord2;       /* stored */
  uint32_t initialCondition;  /* 2 or 0; 4, 8, 16 and 32 are stored too and refused by readers */
  uint32_t updateMode;        /* TREL_UPDATE_BY_..., default by counter */
  uint32_t optionWord5;       /* stored, default 200 */
  uint32_t updateInterval;    /* tenths of a second, default 200 */
  uint32_t concurrencyModel;  /* 1 to 5, default 1 */
  uint32_t lastUpdateTime[2]; /* low word, high word; 0: the current tick */
} NodeOptions_t;

/* An observer's memory of a heartbeat: at least the first 288 bytes of what SNodeCB_t holds from
 * eyeCatcher1 on. The observer sets updateMode and initialises seenCounter. One record watches one
 * node. The spare bytes are the observer's; those of seenCounter's cell are the library's, which
 * keeps a WatchMemory_t in the last of them. */
typedef struct WatchRecord_t {
  TrelU32 spare0[2];
  TrelU32 updateMode; /* TREL_UPDATE_BY_...: what to watch */
  TrelU32 spare1[3];
  TrelU64 seenTick; /* by time: tick of the last successful look */
  uint8_t spare2[128];
  PLATVAtomicSigned32 seenCounter; /* by counter: value at the last successful look */
} WatchRecord_t;

TREL_SIZE(WatchRecord_t, 288);
TREL_OFFSET(WatchRecord_t, updateMode, 8);
TREL_OFFSET(WatchRecord_t, seenTick, 24);
TREL_OFFSET(WatchRecord_t, seenCounter, 160);

/* By time: since when, by the observer's own clock, the node's lastUpdateTime has stood still. */
typedef struct WatchMemory_t {
  TrelU64 mark;         /* TREL_WATCH_MARK once the two others count */
  TrelU64 updateTime;   /* the node's lastUpdateTime at the last look, */
  TrelU64 milliseconds; /* and platTimeGetMonotonic when it was first seen */
} WatchMemory_t;

#define TREL_WATCH_MARK 0x5ee2b47b1f0c6a3dull
TREL_SIZE(WatchMemory_t, 24);

/* Parameters of domain creation and connection. A null record means that every field is 0, and a
 * field of 0 takes its default. Connection reads the versions, heapOffset and accessMode alone. */
typedef struct ShmDomainParam_t {
  uint64_t heapVersion;   /* default and only value TREL_STRUCTURE_VERSION */
  uint64_t handleVersion; /* the same */
  uint64_t latchVersion;  /* the same */
  uint64_t heapFlags;     /* default 0 */
  uint64_t heapOffset;    /* H, a multiple of 8, default 0 */
  uint64_t nodeCount;     /* skip-list nodes to make room for; 0: by the size */
  uint64_t maxLevel;      /* default 7, above 1,024 nodes the least L with 2^L nodes; at most 25 */
  uint64_t granularity;   /* default 4096; 8, or a multiple of 8 up to the domain's size */
  uint64_t userAreaSize;  /* bytes, at most the domain's size, default 0 */
  uint32_t accessMode;    /* 1, 2: a segment by key; 3: memory at a given address */
  uint32_t permissions;   /* default 432 (octal 660) */
  const void* userData;   /* userAreaSize bytes, or null */
} ShmDomainParam_t;

typedef struct ShmPoolParam_t {
  uint64_t heapVersion;
  uint64_t handleVersion;
  uint64_t latchVersion;
  uint64_t heapFlags;
  uint64_t nodeCount;
  uint64_t maxLevel;     /* default 10, above 1,024 nodes as for a domain; at most 25 */
  uint64_t granularity;  /* default 8; 8, or a multiple of 8 up to the pool's size */
  uint64_t userAreaSize; /* bytes, at most the pool's size, default 0 */
  const void* userData;
} ShmPoolParam_t;

/* A process's hold on a domain and on a pool. base is the address of the segment here. */
typedef struct ShmDomainHandle_t {
  void* base;
  uint32_t accessMode;
  uint64_t heapOffset;       /* H */
  PLATHIPCMemory* ipcMemory; /* null in access mode 3 */
} ShmDomainHandle_t;

typedef struct ShmPoolHandle_t {
  void* base;
  uint64_t domainOffset; /* H of the domain */
  uint64_t poolOffset;   /* H of the pool, the chunk's data */
  uint64_t chunkOffset;  /* the chunk's block in the domain */
} ShmPoolHandle_t;

/* Figures of a domain and of a pool, in bytes and counts. Read without a latch. */
typedef struct ShmDomainInfo_t {
  uint64_t heapVersion, handleVersion, latchVersion, heapFlags, heapOffset, connectionCount,
      heapSize, freeBytes, allocatedBytes, requestedNodeCount, granularity, userAreaSize, maxLevel,
      slSpaceSize, slUsedBytes, allocNodeCount, freeNodeCount, rebuildCount, allocListLevel,
      freeListLevel;
  uint64_t word0; /* topNodeOffset where the user area is a multiple of 8 */
  uint64_t word2; /* head of the shared segment list */
} ShmDomainInfo_t;

typedef struct ShmPoolInfo_t {
  uint64_t heapVersion, handleVersion, latchVersion, heapFlags, heapOffset, ownerDomainOffset,
      connectionCount, heapSize, freeBytes, allocatedBytes, maxLevel, requestedNodeCount,
      granularity, userAreaSize, slSpaceSize, slUsedBytes, allocNodeCount, freeNodeCount,
      rebuildCount, allocListLevel, freeListLevel;
  uint64_t word0;
  uint64_t word2;
} ShmPoolInfo_t;

TREL_SIZE(ShmDomainInfo_t, 22 * sizeof(uint64_t));
TREL_SIZE(ShmPoolInfo_t, 23 * sizeof(uint64_t));

/* A process's attachment to a status segment: what attach gives and detach takes. */
typedef struct ShmSegInfo_t {
  SegIdentity_t identity;
  ShmDomainHandle_t* shmDomainHandle;
  ShmPoolHandle_t* shmPoolHandle;
} ShmSegInfo_t;

/* The top node as the domain header names it. */
typedef struct TopNodeInfo_t {
  uint64_t tag;
  uint64_t nodeOffset;
  uint32_t poolOffset;
} TopNodeInfo_t;

/* Owner, group and access bits of a segment. */
typedef struct SegSecurity_t {
  uint32_t ownerId;
  uint32_t groupId;
  uint32_t accessBits;
} SegSecurity_t;

/* Nodes of the lists in process memory. */
typedef struct SegAttachNode_t {
  struct SegAttachNode_t* next;
  ShmSegInfo_t* segInfo; /* owned by this node */
  uint32_t refCount;     /* attaches of this process that are not yet undone */
} SegAttachNode_t;

typedef struct PMSegListNode_t {
  struct PMSegListNode_t* next;
  SegIdentity_t identity;
} PMSegListNode_t;

typedef struct PMHdmListNode_t {
  struct PMHdmListNode_t* next;
  HdmModuleRecord_t module;
} PMHdmListNode_t;

/* One level of a path. The bytes are the record's own. */
typedef struct TraverseInfo_t {
  uint32_t traverseTag;
  uint32_t traverseIdSize;
  uint8_t* traverseId;
} TraverseInfo_t;

/* Bytes and nodes of a tree, by condition. */
typedef struct TreeInfo_t {
  uint64_t totalBytes, activeBytes, initialisedBytes, createdBytes, disassociatedBytes,
      abandonedBytes;
  uint32_t totalNodes, activeNodes, initialisedNodes, createdNodes, disassociatedNodes,
      abandonedNodes;
  uint32_t taggedNodes;
} TreeInfo_t;

/* What the copy of a node hands from its first half, which makes the block, to its second half,
 * which fills it. Counts and sizes of the source, with the limits that the copy is to have. */
typedef struct NodeCopyLimits_t {
  struct {
    uint64_t maximum, current, hashFlag, hashSize;
  } r;
  struct {
    uint64_t maximum, current, maxValueSize, hashFlag, hashSize;
  } v;
  struct {
    uint64_t maximum, tagTableSize, idTableSize, maxIdSize, current, hashFlag, hashSize;
  } ir;
  struct {
    uint64_t maximum, tagTableSize, idTableSize, maxIdSize, maxValueSize, current, hashFlag,
        hashSize;
  } iv;
  uint64_t maxNodeIdSize, maxDependents, currentDependents;
  uint32_t copyDependents;
} NodeCopyLimits_t;

#endif
