// MemDBCacheDef.h — the records of the shared block cache (segment
// SHMKEY_CACHEBUFFER): its head, load slots, flush entries and pool images,
// byte-packed and pinned. Included by MemDBCommonDef.h, which defines the
// pinning macros; include that header, not this one.
#pragma once

// ---------------------------------------------------------------------------
// Shared block cache (segment SHMKEY_CACHEBUFFER). Where each area lies for a
// given size is computed in CacheLayout.h.
// ---------------------------------------------------------------------------
inline constexpr int CACHEBUFFER_DATAFLAG = 0x44444343;  // "CCDD" head of the cache segment
inline constexpr int CACHE_BLOCK_SIZE = 16384;           // one cache block
inline constexpr int CACHE_HEAD_BLOCKS = 2;              // blocks 0 and 1: head, rings, pools, load slots
inline constexpr int CACHE_MAP_LINKS = 4096;             // 32-bit links per cache map block
inline constexpr int CACHE_FLUSH_RING_SIZE = 128;        // entries of each flush ring
inline constexpr int CACHE_FLUSHFILE_NUM = 16;           // head and map images
inline constexpr int CACHE_FLUSHTSFILE_NUM = 32;         // timestamp array images
inline constexpr int CACHE_FLASHBACK_SIZE = 393216;      // 16 x 16384 + 32 x 4096
inline constexpr int CACHE_LOADGROUP_SLOTS = 64;         // slots of one load group
inline constexpr int CACHE_LOADGROUP_MAX_SLOTS = 127;    // the most one group may take

// m_bStatus of CacheBufferHead.
enum : BYTE {
    CACHESTATUS_READY = 0,      // built and loaded: taken over as it stands at a restart
    CACHESTATUS_BUILDING = 1,   // being built or preloaded
    CACHESTATUS_FAILED = 255,   // the load failed
};

// m_bStatus of a load slot.
enum : BYTE {
    CACHELOAD_FREE = 0,
    CACHELOAD_POSTED = 1,
    CACHELOAD_DONE = 2,
};

// m_bSuccess of a load slot: the daemon's answer to the peer.
enum : BYTE {
    CACHELOAD_OK = 0,
    CACHELOAD_FAILED = 252,
    CACHELOAD_NOBACKEND = 254,
    CACHELOAD_NOFILE = 255,
};

// m_bBlockType of a flush entry.
enum : BYTE {
    CACHEFLUSH_HEAD = 1,
    CACHEFLUSH_MAP = 2,
    CACHEFLUSH_DATA = 3,
    CACHEFLUSH_TIMESTAMPS = 4,
    CACHEFLUSH_EXHEAD = 5,
};

#pragma pack(push, 1)

// ---------------------------------------------------------------------------
// Shared block cache. Each shared position has one writer: the peer writes
// the posting side of every queue, the daemon the reading side.
// ---------------------------------------------------------------------------

// By file number: where its load slots lie.
typedef struct _stu_FileCacheLoadInfo {
    BYTE m_bStatus;                     // 0 usable; non-zero: the load thread refuses the group
    BYTE m_bReserved[3];
    BYTE m_bNextRecycleFileNo;          // next entry of the recycle list
    volatile BYTE m_bCacheLoadPos;      // the peer's posting position
    volatile BYTE m_bStorageLoadPos;    // the daemon's reading position
    BYTE m_bLoadSlotNum;                // slots in the group
    long long m_nCacheLoadHeadOffset;   // cache offset of the first slot; 0 none
} stu_FileCacheLoadInfo, *LPstu_FileCacheLoadInfo;

// Head of the cache segment, at offset 0.
typedef struct _CacheBufferHead {
    int m_nDataFlag;                    // CACHEBUFFER_DATAFLAG
    BYTE m_bStatus;                     // CACHESTATUS_*
    BYTE m_bCacheHeadNum;               // CACHE_HEAD_BLOCKS
    volatile BYTE m_bCacheFlushPos;
    volatile BYTE m_bStorageFlushPos;
    volatile BYTE m_bCacheIndexFlushPos;
    volatile BYTE m_bStorageIndexFlushPos;
    volatile BYTE m_bFlushCachePos;     // the peer's alone
    volatile BYTE m_bFlushStoragePos;   // the peer's alone
    BYTE m_bRecycleFileNo;              // first file of the recycle list of load groups; 0 none
    volatile BYTE m_bFlushCacheFilePos;       // the peer's alone
    volatile BYTE m_bFlushCacheIndexFilePos;  // the peer's alone
    BYTE m_bReserved;
    UINT m_nFileInfoNo[MAX_FILE_NUM];   // cache block of each file's head page; 0 none
    stu_FileCacheLoadInfo m_stFileCacheLoadInfo[MAX_FILE_NUM];
    int m_nLoadSlotNum;
    int m_nValidLoadSlotNum;            // of these, not yet given to a file
    UINT m_nLoadCacheNo;                // cache block of further load groups; 0 none
    UINT m_nLoadCacheOffset;            // next free offset inside it
    volatile int m_nFreeNo;             // first block of the free chain; 0 none
    UINT m_nBlockBufNum;                // highest cache block number
    int m_nMapBlockNum;                 // CACHE_MAP_LINKS
    int m_nCacheFlashBackSize;
    int m_nCacheLoadOffset;
    int m_nCacheFlushOffset;
    int m_nCacheIndexFlushOffset;
    int m_nCacheFlushFileOffset;
    int m_nCacheFlushTableFileOffset;
    UINT m_nReserved;
    long long m_nFIFOSize;
    long long m_llCacheTotalSize;
    long long m_llCacheFIFOOffset;
    long long m_llCacheFlashBackOffset;
} CacheBufferHead, *LPCacheBufferHead;

// One load slot: a block the peer asks the daemon to read into the cache.
typedef struct _CacheBufferBlockOperate {
    volatile BYTE m_bStatus;            // CACHELOAD_FREE/POSTED/DONE
    volatile BYTE m_bSuccess;           // CACHELOAD_OK etc.
    volatile BYTE m_bFileNo;
    volatile BYTE m_bVerification;      // (m_llCacheBlockOffset / 16384) mod 255 + 1
    volatile UINT m_nBlockNo;
    volatile long long m_llCacheBlockOffset;
    volatile long long m_llFileBlockOffset;
    volatile int m_nBlockSize;
    UINT m_nReserved;
} CacheBufferBlockOperate, *LPCacheBufferBlockOperate;

// One entry of a flush ring.
typedef struct stu_CacheFlush {
    volatile BYTE m_bStatus;            // 0 free, 1 posted
    volatile BYTE m_bBlockType;         // CACHEFLUSH_*
    volatile BYTE m_bReserved;          // in: index of the image in its pool; out: result
    volatile BYTE m_bFileNo;
    volatile BYTE m_bFlushCode;
    BYTE m_bReserved2[3];
    volatile UINT m_nBlockNo;           // or m_nMapNo of a map block
    union {
        volatile int m_nBlockSize;
        volatile int m_nTimestampNum;   // type CACHEFLUSH_TIMESTAMPS
    };
    volatile long long m_llTimestamp;   // 0 cancels a data block request
    volatile long long m_llTransTimestamp;
    volatile long long m_llCacheBlockOffset;
    volatile long long m_llFileBlockOffset;
} stu_CacheFlush, *LPstu_CacheFlush;

// One image of a flush pool.
typedef struct _stu_CacheFlushFile {
    volatile BYTE m_bStatus;            // non-zero: busy
    volatile BYTE m_bCacheBlockNo;      // index of the image in its pool
} stu_CacheFlushFile, *LPstu_CacheFlushFile;

#pragma pack(pop)

// ---------------------------------------------------------------------------
// Layout pins.
// ---------------------------------------------------------------------------
// Shared block cache.
TALVOR_PIN_SIZE(stu_FileCacheLoadInfo, 16);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(stu_FileCacheLoadInfo, f, off)
TALVOR_PIN(m_bStatus, 0); TALVOR_PIN(m_bReserved, 1); TALVOR_PIN(m_bNextRecycleFileNo, 4);
TALVOR_PIN(m_bCacheLoadPos, 5); TALVOR_PIN(m_bStorageLoadPos, 6); TALVOR_PIN(m_bLoadSlotNum, 7);
TALVOR_PIN(m_nCacheLoadHeadOffset, 8);
#undef TALVOR_PIN

TALVOR_PIN_SIZE(CacheBufferHead, 5224);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(CacheBufferHead, f, off)
TALVOR_PIN(m_nDataFlag, 0); TALVOR_PIN(m_bStatus, 4); TALVOR_PIN(m_bCacheHeadNum, 5); TALVOR_PIN(m_bCacheFlushPos, 6);
TALVOR_PIN(m_bStorageFlushPos, 7); TALVOR_PIN(m_bCacheIndexFlushPos, 8); TALVOR_PIN(m_bStorageIndexFlushPos, 9);
TALVOR_PIN(m_bFlushCachePos, 10); TALVOR_PIN(m_bFlushStoragePos, 11); TALVOR_PIN(m_bRecycleFileNo, 12);
TALVOR_PIN(m_bFlushCacheFilePos, 13); TALVOR_PIN(m_bFlushCacheIndexFilePos, 14); TALVOR_PIN(m_bReserved, 15);
TALVOR_PIN(m_nFileInfoNo, 16); TALVOR_PIN(m_stFileCacheLoadInfo, 1040); TALVOR_PIN(m_nLoadSlotNum, 5136);
TALVOR_PIN(m_nValidLoadSlotNum, 5140); TALVOR_PIN(m_nLoadCacheNo, 5144); TALVOR_PIN(m_nLoadCacheOffset, 5148);
TALVOR_PIN(m_nFreeNo, 5152); TALVOR_PIN(m_nBlockBufNum, 5156); TALVOR_PIN(m_nMapBlockNum, 5160);
TALVOR_PIN(m_nCacheFlashBackSize, 5164); TALVOR_PIN(m_nCacheLoadOffset, 5168); TALVOR_PIN(m_nCacheFlushOffset, 5172);
TALVOR_PIN(m_nCacheIndexFlushOffset, 5176); TALVOR_PIN(m_nCacheFlushFileOffset, 5180);
TALVOR_PIN(m_nCacheFlushTableFileOffset, 5184); TALVOR_PIN(m_nReserved, 5188); TALVOR_PIN(m_nFIFOSize, 5192);
TALVOR_PIN(m_llCacheTotalSize, 5200); TALVOR_PIN(m_llCacheFIFOOffset, 5208); TALVOR_PIN(m_llCacheFlashBackOffset, 5216);
#undef TALVOR_PIN

TALVOR_PIN_SIZE(CacheBufferBlockOperate, 32);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(CacheBufferBlockOperate, f, off)
TALVOR_PIN(m_bStatus, 0); TALVOR_PIN(m_bSuccess, 1); TALVOR_PIN(m_bFileNo, 2); TALVOR_PIN(m_bVerification, 3);
TALVOR_PIN(m_nBlockNo, 4); TALVOR_PIN(m_llCacheBlockOffset, 8); TALVOR_PIN(m_llFileBlockOffset, 16);
TALVOR_PIN(m_nBlockSize, 24); TALVOR_PIN(m_nReserved, 28);
#undef TALVOR_PIN

TALVOR_PIN_SIZE(stu_CacheFlush, 48);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(stu_CacheFlush, f, off)
TALVOR_PIN(m_bStatus, 0); TALVOR_PIN(m_bBlockType, 1); TALVOR_PIN(m_bReserved, 2); TALVOR_PIN(m_bFileNo, 3);
TALVOR_PIN(m_bFlushCode, 4); TALVOR_PIN(m_bReserved2, 5); TALVOR_PIN(m_nBlockNo, 8); TALVOR_PIN(m_nBlockSize, 12);
TALVOR_PIN(m_nTimestampNum, 12); TALVOR_PIN(m_llTimestamp, 16); TALVOR_PIN(m_llTransTimestamp, 24);
TALVOR_PIN(m_llCacheBlockOffset, 32); TALVOR_PIN(m_llFileBlockOffset, 40);
#undef TALVOR_PIN

TALVOR_PIN_SIZE(stu_CacheFlushFile, 2);
TALVOR_PIN_OFFSET(stu_CacheFlushFile, m_bStatus, 0);
TALVOR_PIN_OFFSET(stu_CacheFlushFile, m_bCacheBlockNo, 1);

