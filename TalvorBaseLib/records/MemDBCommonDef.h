// MemDBCommonDef.h — every record that lies on disk or in shared memory, and
// the marks, keys and names by which the two processes find and trust them.
//
// These records are the contract with TalvorService and with files written by
// earlier runs: byte-packed, little-endian, no padding. Each one is pinned by
// static_assert on its size and on every field offset, so that a careless
// edit fails the build instead of corrupting a database. Keep them
// standard-layout (no constructors, no virtuals, no base classes with data):
// they are only ever overlaid on raw bytes. Fields are unaligned: read and
// write them by value, never bind one to a reference or take its address as
// a plain pointer (std::min, gtest's EXPECT_EQ and the like would).
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "TypeDef.h"

// ---------------------------------------------------------------------------
// Shared memory keys. Read from the high byte down, each key spells ASCII
// letters; TalvorService uses the same numbers.
// ---------------------------------------------------------------------------
inline constexpr int SHMKEY_FILEIMAGE_BASE = 0x514E4600;  // "QNF" + file number
inline constexpr int SHMKEY_STORAGEMEM = 0x514E534D;      // "QNSM" command channel
inline constexpr int SHMKEY_ROLLBACK = 0x514E524D;        // "QNRM" rollback area
inline constexpr int SHMKEY_CACHEBUFFER = 0x514E4342;     // "QNCB" shared block cache
inline constexpr int SHMKEY_TRACERING = 0x514E5452;       // "QNTR" trace ring
inline constexpr int SHMKEY_REDORING = 0x514E4C4F;        // "QNLO" redo ring
inline constexpr int SHMKEY_CONFIGUPDATE = 0x5201CCDD;    // configuration update list

// Key of the memory image of database file bFileNo.
inline constexpr int FileImageShmKey(BYTE bFileNo) { return SHMKEY_FILEIMAGE_BASE + bFileNo; }

// Sizes of the fixed shared segments.
inline constexpr int STORAGEMEM_SEGMENT_SIZE = 0x40400;
inline constexpr int TRACERING_SEGMENT_SIZE = 0x100000;
inline constexpr int REDORING_SEGMENT_SIZE_SMALL = 0x400000;
inline constexpr int REDORING_SEGMENT_SIZE_LARGE = 0x2000000;
// A buffer cache of at most this many MiB gets the small redo ring.
inline constexpr int REDORING_SMALL_CACHE_MAX_MB = 256;
inline constexpr int CONFIGUPDATE_SEGMENT_SIZE = 16384;

// Names of shared segments. They appear in messages only; the kernel sees
// the keys above.
inline constexpr char SHMNAME_SYSTEMFILE[] = "Global\\TalvorSysFile";
inline constexpr char SHMNAME_STORAGEMEM[] = "Global\\StorageMemFile";
inline constexpr char SHMNAME_ROLLBACK[] = "Global\\TalvorSysRollback";
inline constexpr char SHMNAME_CACHEBUFFER[] = "Global\\CacheBuffer";
inline constexpr char SHMNAME_TRACERING[] = "Global\\TalvorSysTraceFile";
inline constexpr char SHMNAME_REDORING[] = "Global\\TalvorSysLogFile";

// Named semaphores shared with TalvorService. The backslash is part of the
// name, exactly as the peer opens it.
inline constexpr char SEMNAME_SERVICE[] = "Global\\TalvorSvc";
inline constexpr char SEMNAME_STORAGEEVENT[] = "Global\\TalvorSysStorageEvent";
inline constexpr char SEMNAME_TRACEEVENT[] = "Global\\TalvorSysTraceEvent";
inline constexpr char SEMNAME_LOGEVENT[] = "Global\\TalvorSysLogEvent";
inline constexpr char SEMNAME_LOGEMPTYEVENT[] = "Global\\TalvorSysLogEmptyEvent";
inline constexpr char SEMNAME_FLASHBACKEVENT[] = "Global\\TalvorSysFlashBackEvent";
inline constexpr char SEMNAME_FLASHBACKEND[] = "Global\\TalvorSysFlashBackEnd";
inline constexpr char SEMNAME_STORAGEFLUSHEVENT[] = "Global\\StorageFlushEvent";
inline constexpr char SEMNAME_STORAGEINDEXFLUSHEVENT[] = "Global\\StorageIndexFlushEvent";
inline constexpr char SEMNAME_CACHEFLUSHEVENT[] = "Global\\CacheFlushEvent";
inline constexpr char SEMNAME_CACHEINDEXFLUSHEVENT[] = "Global\\CacheIndexFlushEvent";
// Load semaphores: the prefix followed by two upper-case hex digits of the
// load thread's index.
inline constexpr char SEMNAME_CACHELOADEVENT_PREFIX[] = "Global\\CacheLoadEvent";
inline constexpr char SEMNAME_STORAGELOADEVENT_PREFIX[] = "Global\\StorageLoadEvent";
inline constexpr char SEMNAME_LOADEVENT_SUFFIX_FORMAT[] = "%02X";
inline constexpr char SEMNAME_CONFIGHELPER[] = "CONFIGHELPER";

// ---------------------------------------------------------------------------
// Marks. Each is the first four bytes of its record, little-endian, so the
// letters stand in the file in the order of the comment.
// ---------------------------------------------------------------------------
inline constexpr int SYSTEMFILE_DATAFLAG = 0x46534E51;       // "QNSF" system file head
inline constexpr int DATAFILE_DATAFLAG = 0x46444E51;         // "QNDF" data file head
inline constexpr int BTREEINDEXFILE_DATAFLAG = 0x46424E51;   // "QNBF" B-tree index file head
inline constexpr int KVINDEXFILE_DATAFLAG = 0x46484E51;      // "QNHF" KV index file head
inline constexpr int BLOCKMAP_DATAFLAG = 0x424D4E51;         // "QNMB" map block, memory mode
inline constexpr int BLOCK_DATAFLAG = 0x42444E51;            // "QNDB" any block, both modes
inline constexpr int VARDATA_DATAFLAG = 0x56424E51;          // "QNBV" var data piece, rollback record
inline constexpr int TABLEFILE_DATAFLAG = 0x46444243;        // "CBDF" table file head
inline constexpr int INDEXFILE_DATAFLAG = 0x46424243;        // "CBBF" index file head
inline constexpr int TABLEFILEEX_DATAFLAG = 0x45444243;      // "CBDE" extended table head page
inline constexpr int INDEXFILEEX_DATAFLAG = 0x45424243;      // "CBBE" extended index head page
inline constexpr int BLOCKMAP_CACHE_DATAFLAG = 0x4D444E51;   // "QNDM" map block, cache mode
inline constexpr int TRACEMEMFILE_DATAFLAG = 0x544D4E51;     // "QNMT" trace ring and redo ring head
inline constexpr int EXECUTEPLAN_DATAFLAG = 0x10024D13;      // head of a redo record
inline constexpr UINT REDORECORD_TRAILER = 0x100A1114;       // last four bytes of most redo records

// ---------------------------------------------------------------------------
// File types (m_bFileType of heads, of FILE_MEMDBFILEINFO and descriptors).
// ---------------------------------------------------------------------------
inline constexpr BYTE FILETYPE_SYSTEM = 1;
inline constexpr BYTE FILETYPE_DATA = 2;
inline constexpr BYTE FILETYPE_BTREEINDEX = 3;
inline constexpr BYTE FILETYPE_KVINDEX = 4;
inline constexpr BYTE FILETYPE_TABLE = 10;  // cache mode
inline constexpr BYTE FILETYPE_INDEX = 11;  // cache mode

inline constexpr bool IsCacheFileType(BYTE bFileType)
{
    return bFileType == FILETYPE_TABLE || bFileType == FILETYPE_INDEX;
}

// Head mark a file of this type must carry; 0 for a type that has none.
inline constexpr int FileHeadDataFlag(BYTE bFileType)
{
    switch (bFileType) {
    case FILETYPE_SYSTEM: return SYSTEMFILE_DATAFLAG;
    case FILETYPE_DATA: return DATAFILE_DATAFLAG;
    case FILETYPE_BTREEINDEX: return BTREEINDEXFILE_DATAFLAG;
    case FILETYPE_KVINDEX: return KVINDEXFILE_DATAFLAG;
    case FILETYPE_TABLE: return TABLEFILE_DATAFLAG;
    case FILETYPE_INDEX: return INDEXFILE_DATAFLAG;
    default: return 0;
    }
}

// ---------------------------------------------------------------------------
// Format constants of database files.
// ---------------------------------------------------------------------------
inline constexpr int MAX_FILE_NUM = 256;             // file numbers are one byte
inline constexpr BYTE SYSTEMFILE_FILENO = 1;
inline constexpr int SYSTEMFILE_OBJECT_NUM = 100;    // objects in the system head
inline constexpr int SYSTEMFILE_FILELIST_OBJECTID = 1;
inline constexpr int SYSTEMFILE_BLOCKMAP_SIZE = 262144;
inline constexpr int SYSTEMFILE_TIMESTAMP_NUM = 512; // entries of each cache timestamp array
// The dynamic part of the system head that one commit writes.
inline constexpr int SYSTEMFILE_DYNAMIC_OFFSET = 66;
inline constexpr int SYSTEMFILE_DYNAMIC_SIZE = 80;
// The cache flush timestamps and their counts, as written back.
inline constexpr int SYSTEMFILE_CACHETABLETS_OFFSET = 150;
inline constexpr int SYSTEMFILE_CACHEINDEXTS_OFFSET = 158;
inline constexpr int SYSTEMFILE_TABLETSARRAY_OFFSET = 6822;
inline constexpr int SYSTEMFILE_INDEXTSARRAY_OFFSET = 10922;
inline constexpr int SYSTEMFILE_TSARRAY_WRITE_SIZE = 4100;  // count, 2 bytes, 512 stamps

inline constexpr int BLOCKMAP_STRUCT_SIZE_MEMORY = 20;
inline constexpr int BLOCKMAP_STRUCT_SIZE_CACHE = 24;
inline constexpr int CACHE_PAGE_SIZE = 16384;       // head, extended head and map page
inline constexpr int CACHE_MAX_BLOCKMAP_NUM = 680;  // entries used per cache map page
inline constexpr int TABLEFILEHEAD_OBJECT_NUM = 506;
inline constexpr int INDEXFILEHEAD_OBJECT_NUM = 677;
inline constexpr int TABLEFILEHEADEX_OBJECT_NUM = 511;
inline constexpr int INDEXFILEHEADEX_OBJECT_NUM = 681;

// m_bSaveFlag everywhere: 0 clean, non-zero must be saved.
inline constexpr BYTE SAVEFLAG_CLEAN = 0;
inline constexpr BYTE SAVEFLAG_DIRTY = 1;

// ---------------------------------------------------------------------------
// Command channel codes.
// ---------------------------------------------------------------------------
// m_bStorageCMD of the system head, written by the peer process.
enum : BYTE {
    STORAGECMD_NONE = 0,
    STORAGECMD_FILECMD = 1,     // run the file commands of the system file
    STORAGECMD_SAVE = 2,        // run a persistence pass now
    STORAGECMD_FLUSHCACHE = 3,  // drain the buffers of all table and index files
    STORAGECMD_FINISHED = 32,   // written by the daemon
};

// m_bFileCMD of a file list row: the peer process's command, then the
// daemon's result in the same byte (0 is success).
enum : BYTE {
    FILECMD_NONE = 0,
    FILECMD_ADD = 1,
    FILECMD_MOVE = 2,
    FILECMD_RESIZE = 3,
    FILECMD_DELETE = 4,
    FILECMD_ADD_OUTOFMEMORY = 247,
    FILECMD_ADD_SYSTEMFILE = 248,
    FILECMD_RESIZE_FAILED = 249,
    FILECMD_MOVE_FAILED = 250,
    FILECMD_NO_SUCH_FILE = 251,
    FILECMD_ADD_FAILED = 252,
    FILECMD_ADD_NAMETAKEN = 253,
    FILECMD_PATHTAKEN = 254,
    FILECMD_ADD_NUMBERTAKEN = 255,
};

// m_bCommandType of m_ClusterCommand.
enum : BYTE {
    CLUSTERCMD_NONE = 0,
    CLUSTERCMD_FINISHED = 1,          // written by the daemon; see m_bResult
    CLUSTERCMD_ADDNODE_FROMLOG = 10,  // add a node continuing from a log position
    CLUSTERCMD_ADDNODE = 11,
    CLUSTERCMD_RUNNING = 12,          // written by the daemon during 10, 11, 40, 41
    CLUSTERCMD_CLEARRESOURCE = 16,
    CLUSTERCMD_REBUILDRESOURCE = 17,
    CLUSTERCMD_ADDSTANDBY = 18,
    CLUSTERCMD_REMOVESTANDBY = 19,
    CLUSTERCMD_FULLBACKUP = 40,
    CLUSTERCMD_INCREMENTBACKUP = 41,
    CLUSTERCMD_RESTORE = 46,
    CLUSTERCMD_WRITEUNDOCACHE = 47,
    CLUSTERCMD_TESTSPEED = 250,
};

// m_bResult of m_ClusterCommand.
enum : BYTE {
    CLUSTERRESULT_OK = 0,
    CLUSTERRESULT_FAILED = 1,              // backups
    CLUSTERRESULT_NOSTANDBYSLOT = 10,      // add standby
    CLUSTERRESULT_STANDBYSETUPFAILED = 11,
    CLUSTERRESULT_OUTOFMEMORY = 12,
};

// m_bCommandType of the channel head, daemon to peer process.
enum : BYTE {
    PEERCMD_NONE = 0,
    PEERCMD_FLASHBACKHEAD = 3,  // consistent copy of a file head, please
    PEERCMD_HEARTBEAT = 32,     // sign of life
};

// m_nResult of the channel head.
inline constexpr int PEERRESULT_OK = 0;
inline constexpr int PEERRESULT_NOTHINGTOSAVE = -2;
inline constexpr int PEERRESULT_TIMEOUT = 1610;  // the daemon's mark: no answer in time

// m_bService of the channel head.
enum : BYTE {
    SERVICESTATE_STOPPED = 0,
    SERVICESTATE_RUNNING = 1,
    SERVICESTATE_LOST = 2,
};

// m_nStatus of TALVORPROGRESS.
inline constexpr int PROGRESS_IDLE = 0;
inline constexpr int PROGRESS_RUNNING = 1;
inline constexpr int PROGRESS_SERVICEREADY = 2;

inline constexpr int STORAGEMEM_CYCLETIME_MS = 100;

// ---------------------------------------------------------------------------
// Redo ring and group files.
// ---------------------------------------------------------------------------
inline constexpr BYTE TRACEMEM_FILETYPE_TRACE = 1;
inline constexpr BYTE TRACEMEM_FILETYPE_REDO = 2;

// m_bFlushFlag of the redo ring head: requests of the engine to the writer.
enum : BYTE {
    REDOFLUSH_NONE = 0,     // nothing asked
    REDOFLUSH_PUBLISH = 1,  // make the bytes written so far visible to readers
    REDOFLUSH_SEAL = 2,     // seal the open log after its last whole record
};

// m_bStatus of the redo ring head: the writer's report to the engine.
enum : BYTE {
    REDORING_NEXTFREE = 0,   // the group after the current one is free to take the next log
    REDORING_NEXTBUSY = 1,   // that group still waits for its archive copy
    REDORING_WAITGROUP = 2,  // the writer waits for a group to be archived before it goes on
};

// m_bReadException of the redo ring head: set by the writer, cleared by the
// engine once it has reset the ring.
enum : BYTE {
    REDOREAD_OK = 0,         // the ring's records are trusted
    REDOREAD_EXCEPTION = 1,  // the writer found bytes that are no record and stopped draining
};

// Group states, in MF_REDOLOGFILEHEAD and in the group table.
enum : BYTE {
    REDOGROUP_EMPTY = 0,     // never written, or free again
    REDOGROUP_WRITING = 1,   // the open log: records are appended
    REDOGROUP_SEALED = 2,    // complete, not yet copied to every archive
    REDOGROUP_ARCHIVED = 3,  // complete and archived: may be written over
};

inline constexpr char REDOLOGFILE_FLAG[] = "TalvorLog";
inline constexpr int REDOLOGFILE_VERSION = 0x5000000;
inline constexpr int REDOLOGFILE_HEAD_SIZE = 50;  // first record of a group file
inline constexpr int REDOGROUP_MIN = 3;
inline constexpr int REDOGROUP_MAX = 64;
inline constexpr int EXECUTEPLANHEAD_SIZE = 24;

// Records of types 10 to 14 end without the trailer; all others carry it.
inline constexpr bool RedoRecordHasTrailer(BYTE nType) { return nType < 10 || nType > 14; }

// Configuration update list.
inline constexpr int CONFIGUPDATE_MAX_ITEMS = 80;


#pragma pack(push, 1)

// ---------------------------------------------------------------------------
// Database file records, memory mode.
// ---------------------------------------------------------------------------

// One object of a memory-mode file's object table.
typedef struct _BASEFILEOBJECTDEF {
    int m_nID;                           // 0 is a free entry
    long long m_nFullBlockMapOffset;     // map entry that starts the full-block chain
    long long m_nFreeBlockMapOffset;     // map entry that starts the free-room chain
    long long m_nFinishedTimestamp;
    long long m_nPersistentTimestamp;
    long long m_nRecordNum;
    unsigned long long m_nAutoIncrement;
    BYTE m_bObjectType;
    BYTE m_bSaveFlag;
    BYTE m_bReserved[2];
} BASEFILEOBJECTDEF, *LPBASEFILEOBJECTDEF;

// Head of a memory-mode file; also the common beginning of SYSTEMFILEHEAD.
typedef struct _BASEFILEHEAD {
    int m_nDataFlag;
    volatile long long m_nTimestamp;
    BYTE m_bFileNo;
    BYTE m_bStatus;
    BYTE m_bFileType;
    BYTE m_bSaveFlag;
    USHORT m_usDatabaseGuid;
    UINT m_nBlockNum;
    int m_nMaxObjectNum;
    int m_nCurrentObjectNum;
    long long m_nFileTotalSize;
    int m_nFileHeaderSize;
    int m_nBlockMapStructSize;
    int m_nBlockMapSize;
    int m_nBlockMapStartOffset;
    int m_nObjectInfoOffset;
    long long m_nBlockStartOffset;
    volatile UINT m_nInnerMaxNo;
    long long m_nReserved2;
    volatile long long m_nFileFreeMemoryOffset;  // bytes from here on are zero
    int m_nMaxBlockMapNum;
    int m_nReserved[4];
} BASEFILEHEAD, *LPBASEFILEHEAD;

// One map entry, memory mode.
typedef struct _BASEFILEBLOCKMAP {
    UINT m_nBlockNo;
    long long m_nBlockOffset;
    long long m_nNextOffset;  // next entry of the same object chain; 0 ends
} BASEFILEBLOCKMAP, *LPBASEFILEBLOCKMAP;

// Head of a map block, memory mode; its entries follow directly.
typedef struct _BASEFILEBLOCKMAPHEAD {
    int m_nDataFlag;
    int m_nBlockMapNum;
    volatile long long m_nTimestamp;
    volatile BYTE m_bSaveFlag;
    BYTE m_bReserved[3];
    int m_nMapNo;
    long long m_nNextBlockMapOffset;
    BASEFILEBLOCKMAP m_pBlockMap[];
} BASEFILEBLOCKMAPHEAD, *LPBASEFILEBLOCKMAPHEAD;

// Fields of BASEBLOCKHEAD. BLOCKHEAD repeats them rather than deriving, so
// that both stay standard-layout and overlay the same bytes.
#define TALVOR_BASEBLOCKHEAD_FIELDS \
    volatile int m_nDataFlag; /* 0 while the peer has not filled the head in */ \
    volatile UINT m_nBlockNo;                                                   \
    volatile long long m_nTimestamp;                                            \
    volatile long long m_nLockTimestamp;                                        \
    int m_nBlockSize;                                                           \
    int m_nBlockHeadSize;                                                       \
    volatile BYTE m_bStatus;                                                    \
    volatile BYTE m_bFileNo;                                                    \
    volatile BYTE m_bSaveFlag;                                                  \
    volatile BYTE m_bThreadNum;                                                 \
    BYTE m_bLinkType;                                                           \
    BYTE m_bNodeType; /* index files: 1 leaf, 2 to 5 upper node */              \
    volatile BYTE m_bFlushCode;                                                 \
    volatile BYTE m_bFlushFlag;                                                 \
    int m_nObjectID;

// Beginning of every block, both modes.
typedef struct _BASEBLOCKHEAD {
    TALVOR_BASEBLOCKHEAD_FIELDS
} BASEBLOCKHEAD, *LPBASEBLOCKHEAD;

// Full head of a block of records: BASEBLOCKHEAD and what follows it.
typedef struct _BLOCKHEAD {
    TALVOR_BASEBLOCKHEAD_FIELDS
    BYTE m_nBlockDataStructSize;
    BYTE m_bReserved;
    volatile USHORT m_usRemoveDataSize;
    volatile UINT m_nInnerMaxNo;    // low 16 bits less 1: number of record slots
    volatile int m_nDataInsertOffset;
    volatile int m_nVarDataInsertOffset;
    volatile int m_nFreeDataOffset;
    volatile int m_nRecyclableSpaceSize;
    volatile int m_nVarDataAllocOffset;
    int m_nReserved;
} BLOCKHEAD, *LPBLOCKHEAD;

// One record slot of a block.
typedef struct _BLOCKDATASTRUCT {
    volatile int m_nInnerNo;
    volatile BYTE m_bLockStatus;
    volatile BYTE m_bDataStatus;
    volatile short m_sToken;
    volatile int m_nVarDataOffset;   // first BLOCKVARDATASTRUCT in the block; 0 none
    volatile int m_nVarDataLength;
    volatile long long m_nNextDataID;
    volatile long long m_nTimestamp;
} BLOCKDATASTRUCT, *LPBLOCKDATASTRUCT;

// A piece of a record's variable data inside the block.
typedef struct _BLOCKVARDATASTRUCT {
    volatile int m_nDataFlag;
    volatile int m_nDataLength;
    volatile int m_nActualLength;
    volatile int m_nNextOffset;      // next piece in the block; 0 ends
    BYTE m_lpDataContent[];
} BLOCKVARDATASTRUCT, *LPBLOCKVARDATASTRUCT;

// ---------------------------------------------------------------------------
// Database file records, cache mode.
// ---------------------------------------------------------------------------

// An object of a table file; chains by block number.
typedef struct _CACHEFILETABLEDEF {
    volatile int m_nID;
    volatile UINT m_nFullBlockNo;
    volatile UINT m_nFreeBlockNo;
    long long m_nRecordNum;
    unsigned long long m_nAutoIncrement;
    BYTE m_bObjectType;
    BYTE m_bReserved[3];
} CACHEFILETABLEDEF, *LPCACHEFILETABLEDEF;

// An index of an index file.
typedef struct _INDEXROOTSTRUCT {
    int m_nIndexID;
    volatile UINT m_nBlockNo;        // root block
    volatile int m_nRecycleMapNo;
    BYTE m_bFieldNum;
    BYTE m_bFieldType[9];
    BYTE m_bSaveFlag;
    BYTE m_bReserved;
} INDEXROOTSTRUCT, *LPINDEXROOTSTRUCT;

// The first 122 bytes of both cache-mode file heads.
#define TALVOR_CACHEFILEHEAD_FIELDS \
    int m_nDataFlag;                                                                         \
    volatile long long m_nTimestamp;                                                         \
    BYTE m_bFileNo;                                                                          \
    BYTE m_bStatus;                                                                          \
    BYTE m_bFileType;                                                                        \
    BYTE m_bSaveFlag;                                                                        \
    USHORT m_usDatabaseGuid;                                                                 \
    volatile UINT m_nBlockNum;                                                               \
    volatile UINT m_nMaxObjectNum;                                                           \
    volatile UINT m_nCurrentObjectNum;                                                       \
    volatile long long m_nFileTotalSize;                                                     \
    int m_nFileHeaderSize;                                                                   \
    int m_nBlockMapStructSize;                                                               \
    int m_nBlockMapSize;                                                                     \
    int m_nBlockMapStartOffset;                                                              \
    int m_nObjectInfoOffset;                                                                 \
    long long m_nBlockStartOffset;                                                           \
    volatile UINT m_nInnerMaxNo;                                                             \
    long long m_nReserved2;                                                                  \
    volatile long long m_nFileFreeMemoryOffset;                                              \
    int m_nMaxBlockMapNum;                                                                   \
    long long m_nNextFileHeadOffset; /* first extended head page; 0 none */                  \
    USHORT m_nHeadMaxObjectNum; /* a stored 0 reads as the page capacity */                  \
    USHORT m_usReserved;                                                                     \
    int m_nReserved;                                                                         \
    volatile long long m_nCacheStartOffset; /* cache offset of the next page in the chain */ \
    volatile long long m_nPersistentTimestamp;

// First page of a table file; a stored m_nHeadMaxObjectNum of 0 reads as
// 506. The tail bytes after the object table are unused but belong to the
// page.
typedef struct _TABLEFILEHEAD {
    TALVOR_CACHEFILEHEAD_FIELDS
    UINT m_nFreeBlockMapNo[10];
    CACHEFILETABLEDEF m_stFileObject[TABLEFILEHEAD_OBJECT_NUM];
    BYTE m_bTailReserved[30];
} TABLEFILEHEAD, *LPTABLEFILEHEAD;

// First page of an index file; a stored m_nHeadMaxObjectNum of 0 reads as
// 677.
typedef struct _INDEXFILEHEAD {
    TALVOR_CACHEFILEHEAD_FIELDS
    volatile UINT m_nFreeBlockNo;
    INDEXROOTSTRUCT m_stRootMap[INDEXFILEHEAD_OBJECT_NUM];
    BYTE m_bTailReserved[10];
} INDEXFILEHEAD, *LPINDEXFILEHEAD;

// Extended head page of a table file.
typedef struct _TABLEFILEHEADEX {
    int m_nDataFlag;
    BYTE m_bFileNo;
    BYTE m_bFileType;
    BYTE m_bExHeadNo;                      // from 1
    BYTE m_bReserved;
    USHORT m_nExHeadMaxObjectNum;
    long long m_nNextFileHeadOffset;       // 0 ends
    long long m_nNextFileHeadCacheOffset;
    CACHEFILETABLEDEF m_stFileObject[TABLEFILEHEADEX_OBJECT_NUM];
    BYTE m_bTailReserved[6];
} TABLEFILEHEADEX, *LPTABLEFILEHEADEX;

// Extended head page of an index file.
typedef struct _INDEXFILEHEADEX {
    int m_nDataFlag;
    BYTE m_bFileNo;
    BYTE m_bFileType;
    BYTE m_bExHeadNo;
    BYTE m_bReserved;
    USHORT m_nExHeadMaxObjectNum;
    long long m_nNextFileHeadOffset;
    long long m_nNextFileHeadCacheOffset;
    INDEXROOTSTRUCT m_stRootMap[INDEXFILEHEADEX_OBJECT_NUM];
    BYTE m_bTailReserved[14];
} INDEXFILEHEADEX, *LPINDEXFILEHEADEX;

// One map entry, cache mode. Entry i of map block m stands for block
// (m - 1) * m_nMaxBlockMapNum + i + 1.
typedef struct _BASEFILEBLOCKMAP_CACHE {
    volatile UINT m_nBlockNo;
    volatile int m_nBlockSize;
    volatile UINT m_nNextBlockNo;    // next block of the same object chain; 0 ends
    volatile int m_nID;              // 0: the block is free
    volatile long long m_nBlockOffset;
} BASEFILEBLOCKMAP_CACHE, *LPBASEFILEBLOCKMAP_CACHE;

// Head of a map page, cache mode; its entries follow directly.
typedef struct _BASEFILEBLOCKMAPHEAD_CACHE {
    int m_nDataFlag;
    volatile int m_nBlockMapNum;
    volatile long long m_nTimestamp;
    volatile BYTE m_bSaveFlag;
    volatile BYTE m_bStatus;
    BYTE m_bReserved[2];
    volatile int m_nMapNo;           // from 1
    volatile long long m_nNextBlockMapOffset;
    volatile long long m_nNextBlockMapOffset_Cache;
    BASEFILEBLOCKMAP_CACHE m_pBlockMap[];
} BASEFILEBLOCKMAPHEAD_CACHE, *LPBASEFILEBLOCKMAPHEAD_CACHE;

// ---------------------------------------------------------------------------
// System file.
// ---------------------------------------------------------------------------

// Head of the system file, shared live with the peer process through the
// file's memory image. Offsets 66 to 145 are the dynamic part that one
// commit writes.
typedef struct _SYSTEMFILEHEAD {
    int m_nDataFlag;
    volatile long long m_nTimestamp;
    BYTE m_bFileNo;
    BYTE m_bStatus;
    BYTE m_bFileType;
    BYTE m_bSaveFlag;
    USHORT m_usDatabaseGuid;
    UINT m_nBlockNum;
    int m_nMaxObjectNum;
    int m_nCurrentObjectNum;
    long long m_nFileTotalSize;
    int m_nFileHeaderSize;
    int m_nBlockMapStructSize;
    int m_nBlockMapSize;
    int m_nBlockMapStartOffset;
    int m_nObjectInfoOffset;
    long long m_nBlockStartOffset;
    UINT m_nInnerMaxNo;
    UINT m_nUndoTimestamp;
    UINT m_nUndoPreTimestamp;
    volatile long long m_nFileFreePos;
    int m_nMaxBlockMapNum;
    USHORT m_usShardNo;
    USHORT m_usReserved;
    int m_nReserved[3];
    int m_nVersion;
    int m_nObjectMaxID;
    BYTE m_bFileMaxNo;
    BYTE m_bSysTimeChange;
    volatile BYTE m_bStorageCMD;
    volatile BYTE m_bCurrentRedoGroup;
    volatile UINT m_nRedoLogMaxID;
    volatile long long m_nBeginTimestamp;   // persisted-up-to
    volatile long long m_nEndTimestamp;     // newest committed, set by the peer
    volatile long long m_nFreeBlockOffset;
    volatile BYTE m_bForbidSaveFlag;
    volatile BYTE m_bTableFileStatus;
    volatile BYTE m_bIndexFileStatus;
    BYTE m_bReservedData;
    volatile long long m_nCacheTableTimestamp;
    volatile long long m_nCacheIndexTimestamp;
    char m_cDatabaseName[32];
    char m_cDatabasePath[260];
    char m_lpArchiveDesPath[512];

    // Parameter block.
    int m_nProcesses, m_nTalvorVirtualPort, m_nTCPListenIP, m_nTCPListenPort;
    int m_nTCPTimeout, m_nServerTraceLevel, m_nServerEfficiencyTrace;
    int m_nTransactionIsolationLevel, m_nServerWriteUndoMode;
    int m_nServerExecuteTimeMonitor, m_nServerCaseSensitive, m_nMemoryTemporarySize;
    int m_nMemoryUndoSize;  // MiB
    int m_nMemoryProcessSize;  // bytes
    int m_nDebugDumpFile, m_nMemorySQLPlanMaxSize, m_nMemoryRecordsetPlanMaxSize;
    int m_nPersistenceIntervals;  // seconds
    int m_nWriteUndoDelayTime, m_nWriteRedoOnlineGroups, m_nWriteRedoMaxSize;
    int m_nWriteTraceMaxSize, m_nBlockDataSize, m_nBlockBTreeIndexSize;
    int m_nBlockBTreeDataSize, m_nBlockHashIndexSize, m_nBlockHashIndexChainMaxSize;
    int m_nBlockHashIndexExpandRatio, m_nBlockUsedRatio, m_nBlockInsertMaxUseRatio;
    int m_nBlockFreeRatio, m_nBlockReorganizeRatio, m_nBlockRecycleRatio;
    int m_nObjectTransactionMaxNum, m_nTransactionLogicSlotCount;
    int m_nTransactionLogicTimeout, m_nTalvorReadWriteMode, m_nTalvorClusterMode;
    int m_nTalvorPGAMaxSize, m_nLockWaitTimeout, m_nRSCTwophaseCommit;
    int m_nTalvorArchiveType, m_nTalvorActiveLogTime;
    int m_nTalvorBufferCacheSize;  // MiB
    int m_nTalvorTimeZone, m_nTalvorVirtualIP, m_nMySQLListenPort, m_nAutoCommit;
    int m_nConnectTimeout, m_nUniqueChecks, m_nWaitTimeout, m_nDefaultPasswordLifetime;
    int m_nMaxPacketSize, m_nSupportNativeJson, m_nMemoryFileWarningSize;
    int m_nDiskFileWarningSize;  // MiB
    int m_nUndoRetention, m_nEventScheduler, m_nTalvorDevelopMode;
    int m_bReservedParameter[4];

    BASEFILEOBJECTDEF m_stFileObject[SYSTEMFILE_OBJECT_NUM];
    USHORT m_usTableTimestampNum;
    BYTE m_bOpenFileUseBuffer;
    BYTE m_bTReserved;
    long long m_arTableTimestamp[SYSTEMFILE_TIMESTAMP_NUM];
    USHORT m_usIndexTimestampNum;
    BYTE m_bIReserved[2];
    long long m_aIndexTimestamp[SYSTEMFILE_TIMESTAMP_NUM];
    long long m_arReserved[66];
    long long m_nLastTimestamp;
    long long m_nSafeTimestamp;
    long long m_nStandbyTimestamp;
    int m_nStandbyLogNo;
    int m_nStandbyLogOffset;

    // Second parameter block.
    int m_nAutoIncrementIncrement, m_nAutoIncrementOffset, m_nBackLog;
    int m_nBulkInsertBufferSize, m_nCharacterSetDatabase, m_nCharacterSetFileSystem;
    int m_nCharacterSetServer, m_nCharacterSetSystem, m_nCheckProxyUsers;
    int m_nCompletionType, m_nConcurrentInsert, m_nInteractiveTimeout, m_nNetReadTimeout;
    int m_nNetWriteTimeout, m_nNetRetryCount, m_nUpdatableViewsWithLimit;
    int m_nSkipNameResolve, m_nTableNamesLower;

    int m_bReserved[10];
    long long m_nClusterToken;
    BYTE m_lpData[16];
} SYSTEMFILEHEAD, *LPSYSTEMFILEHEAD;

// Head of a block of the system file's file list.
typedef struct _SYSTEMBLOCKHEAD {
    int m_nDataFlag;
    UINT m_nBlockNo;
    volatile long long m_nTimestamp;
    volatile long long m_nLockTimestamp;
    int m_nBlockSize;
    int m_nBlockHeadSize;            // where the records start
    volatile BYTE m_bStatus;
    BYTE m_bFileNo;
    volatile BYTE m_bSaveFlag;       // descriptors built from this block point here
    BYTE m_bFullFlag;
    int m_nObjectID;                 // 1 for the file list
    UINT m_nInnerMaxNo;
    int m_nDataInsertOffset;
    int m_nVarDataInsertOffset;
    int m_nBlockDataStructSize;      // must be sizeof(FILE_MEMDBFILEINFO)
    int m_nDataNum;
} SYSTEMBLOCKHEAD, *LPSYSTEMBLOCKHEAD;

// One database file in the system file's file list.
typedef struct _FILE_MEMDBFILEINFO {
    int m_nInnerNo;
    BYTE m_bFileNo;
    BYTE m_bFileType;
    BYTE m_bFileCMD;
    BYTE m_bDropFlag;
    char m_lpszFilePath[256];
    char m_lpszTablespaceName[64];
    long long m_nFileSize;
    long long m_nLoadSize;           // watched by the peer while the file loads
    int m_nMaxObjectNum;
} FILE_MEMDBFILEINFO, *LPFILE_MEMDBFILEINFO;

// ---------------------------------------------------------------------------
// Command channel.
// ---------------------------------------------------------------------------

// Command record of the channel; the peer writes m_bCommandType last.
typedef struct _TALVORCOMMAND {
    union {
        volatile UINT m_ulIP;
        volatile UINT m_nMethod;
    };
    union {
        volatile UINT m_ulLocalIP;
        volatile UINT m_nBufferSize;
    };
    volatile long long m_nTimestamp;
    volatile long long m_nTimestamp2;
    volatile UINT m_nLogNo;
    volatile UINT m_nLogPos;
    volatile USHORT m_usPort;
    volatile BYTE m_bCommandType;
    volatile BYTE m_bResult;
    volatile BYTE m_bForbidSaveFlag;
    volatile BYTE m_bAbort;
    union {
        volatile BYTE m_bLevel;
        volatile BYTE m_bFileNo;
    };
    BYTE m_bReserved[3];
} TALVORCOMMAND, *LPTALVORCOMMAND;

// Progress of a long operation, read by the peer.
typedef struct _TALVORPROGRESS {
    char m_lpTitle[128];
    volatile int m_nTotal;
    volatile int m_nPos;
    volatile int m_nStatus;
} TALVORPROGRESS, *LPTALVORPROGRESS;

// Head of the channel area; its data area follows at m_nFileDataOffset.
typedef struct _STORAGEMEMHEAD {
    int m_nFileTotalSize;
    int m_nFileHeaderSize;
    int m_nFileDataOffset;
    volatile UINT m_nBlockNo;
    int m_nCycleTime;                // ms of one wait for the answer to command 3
    volatile int m_nResult;
    volatile long long m_nTimestamp;
    volatile BYTE m_bCommandType;
    volatile BYTE m_bFileNo;
    volatile BYTE m_bService;
    volatile BYTE m_bStorage;
    volatile BYTE m_bStandbyThreads;
    TALVORCOMMAND m_ClusterCommand;
    TALVORPROGRESS m_TalvorProgress;
    volatile long long m_nBackupTimestamp;
    int m_nStorageID;
    char m_lpszFilePath[256];
} STORAGEMEMHEAD, *LPSTORAGEMEMHEAD;

// ---------------------------------------------------------------------------
// Rings and redo log.
// ---------------------------------------------------------------------------

// Head of the trace ring and of the redo ring; m_bFileType tells them apart.
typedef struct _FILE_TRACEMEMFILEHEAD {
    int m_nDataFlag;
    int m_nFileTotalSize;            // the data area ends here, exclusive
    int m_nFileHeaderSize;           // the data area starts here
    int m_nItemSize;
    int m_nWiteLogMinDuration;
    int m_nWiteLogMaxDuration;
    BYTE m_bFileType;
    volatile BYTE m_bFlushFlag;
    volatile BYTE m_bWriting;
    volatile BYTE m_bStatus;
    volatile int m_nWritePos;
    volatile int m_nReadPos;
    long long m_nTimestamp;
    long long m_nStartTime;          // FILETIME ticks
    volatile int m_nLogNo;
    volatile int m_nLogPos;
    union {
        volatile int m_nLogArchiveNo;  // redo ring
        volatile int m_nProcessID;     // trace ring
    };
    volatile BYTE m_bReadException;
    BYTE m_bReserved[3];
} FILE_TRACEMEMFILEHEAD, *LPFILE_TRACEMEMFILEHEAD;

// Head of every redo record.
typedef struct _BASEEXECUTEPLANHEAD {
    UINT m_nTotalDataSize;           // whole record, head included
    int m_nDataFlag;
    BYTE m_nType;
    BYTE m_bVersion;
    BYTE m_bWriteLog;
    BYTE m_bDatabaseNo;
    USHORT m_usTransactionNo;
    BYTE m_bObjectMapNum;
    BYTE m_bImplementClass;
    long long m_nTimestamp;
} BASEEXECUTEPLANHEAD, *LPBASEEXECUTEPLANHEAD;

// Head of a redo group file.
typedef struct _MF_REDOLOGFILEHEAD {
    char m_lpszFileFlag[10];
    UINT m_nEffectiveSize;           // 0 while unsealed
    USHORT m_usDatabaseGuid;
    UINT m_nSequenceNO;
    int m_nVersion;
    BYTE m_bState;
    BYTE m_bReserved;
    FILETIME m_ftCreateTime;
    long long m_nBeginTimestamp;
    long long m_nEndTimestamp;
} MF_REDOLOGFILEHEAD, *LPMF_REDOLOGFILEHEAD;

// ---------------------------------------------------------------------------
// Rollback area (and the undo cache file, its image).
// ---------------------------------------------------------------------------
typedef struct _ROLLBACKBLOCKHEAD {
    int m_nDataFlag;                 // BLOCK_DATAFLAG
    UINT m_nRollbackTotalSize;
    UINT m_nRollbackHeadSize;        // version records start here
    volatile UINT m_nDataAllocPos;
    volatile UINT m_nLastAllocPos;
    volatile UINT m_nFirstDataPos;
    volatile UINT m_nTimestamp;      // generation mark of the content
    volatile UINT m_nPrevTimestamp;
    volatile UINT m_nUnsafePos;      // start of what the file has not got yet
    int m_nMinDuration;
    int m_nMaxDuration;
    int m_nPrevDuration;
    volatile BYTE m_bStatus;
    volatile BYTE m_bSaveStatus;     // non-zero: a stretch waits to be mirrored
    BYTE m_bReserved[2];
    long long m_nSegTimestamp;
    long long m_arTimestamp[8];
} ROLLBACKBLOCKHEAD, *LPROLLBACKBLOCKHEAD;

// One old version of a row, at the offset in the area that is its data id.
typedef struct _ROLLBACKBLOCKVARDATASTRUCT {
    int m_nDataFlag;                 // VARDATA_DATAFLAG
    UINT m_nNextOffset;
    int m_nActualLength;             // 0: no data of its own
    long long m_nOriginDataID;
    long long m_nPreRollbackDataID;  // next older version; 0 ends
    long long m_nTimestamp;          // valid from
    long long m_llBackupTimestamp;
    short m_sDataToken;              // must equal the row's m_sToken
    BYTE m_bReserved;
    BYTE m_pDataContent[];           // a BLOCKVARDATASTRUCT image
} ROLLBACKBLOCKVARDATASTRUCT, *LPROLLBACKBLOCKVARDATASTRUCT;

// ---------------------------------------------------------------------------
// Configuration update list.
// ---------------------------------------------------------------------------
typedef struct _SharedMemoryItem {
    char m_lpModule[50];
    char m_lpKey[50];
    char m_lpValue[100];
} SharedMemoryItem, *LPSharedMemoryItem;

typedef struct _SharedMemoryUpdate {
    UINT m_iLength;                  // items in the list
    bool m_bIsService;               // writer: false this daemon, true TalvorService
    SharedMemoryItem m_smpItems[CONFIGUPDATE_MAX_ITEMS];
} SharedMemoryUpdate, *LPSharedMemoryUpdate;

#pragma pack(pop)

// ---------------------------------------------------------------------------
// Layout pins.
// ---------------------------------------------------------------------------
#define TALVOR_PIN_OFFSET(T, f, off) static_assert(offsetof(T, f) == (off), #T "::" #f " moved")
#define TALVOR_PIN_SIZE(T, n) \
    static_assert(sizeof(T) == (n), #T " changed size"); \
    static_assert(std::is_standard_layout_v<T> && std::is_trivially_copyable_v<T>, #T " must stay plain")


// Memory-mode file records.
TALVOR_PIN_SIZE(BASEFILEOBJECTDEF, 56);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(BASEFILEOBJECTDEF, f, off)
TALVOR_PIN(m_nID, 0); TALVOR_PIN(m_nFullBlockMapOffset, 4); TALVOR_PIN(m_nFreeBlockMapOffset, 12);
TALVOR_PIN(m_nFinishedTimestamp, 20); TALVOR_PIN(m_nPersistentTimestamp, 28); TALVOR_PIN(m_nRecordNum, 36);
TALVOR_PIN(m_nAutoIncrement, 44); TALVOR_PIN(m_bObjectType, 52); TALVOR_PIN(m_bSaveFlag, 53);
TALVOR_PIN(m_bReserved, 54);
#undef TALVOR_PIN

TALVOR_PIN_SIZE(BASEFILEHEAD, 106);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(BASEFILEHEAD, f, off)
TALVOR_PIN(m_nDataFlag, 0); TALVOR_PIN(m_nTimestamp, 4); TALVOR_PIN(m_bFileNo, 12); TALVOR_PIN(m_bStatus, 13);
TALVOR_PIN(m_bFileType, 14); TALVOR_PIN(m_bSaveFlag, 15); TALVOR_PIN(m_usDatabaseGuid, 16); TALVOR_PIN(m_nBlockNum, 18);
TALVOR_PIN(m_nMaxObjectNum, 22); TALVOR_PIN(m_nCurrentObjectNum, 26); TALVOR_PIN(m_nFileTotalSize, 30);
TALVOR_PIN(m_nFileHeaderSize, 38); TALVOR_PIN(m_nBlockMapStructSize, 42); TALVOR_PIN(m_nBlockMapSize, 46);
TALVOR_PIN(m_nBlockMapStartOffset, 50); TALVOR_PIN(m_nObjectInfoOffset, 54); TALVOR_PIN(m_nBlockStartOffset, 58);
TALVOR_PIN(m_nInnerMaxNo, 66); TALVOR_PIN(m_nReserved2, 70); TALVOR_PIN(m_nFileFreeMemoryOffset, 78);
TALVOR_PIN(m_nMaxBlockMapNum, 86); TALVOR_PIN(m_nReserved, 90);
#undef TALVOR_PIN

TALVOR_PIN_SIZE(BASEFILEBLOCKMAP, BLOCKMAP_STRUCT_SIZE_MEMORY);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(BASEFILEBLOCKMAP, f, off)
TALVOR_PIN(m_nBlockNo, 0); TALVOR_PIN(m_nBlockOffset, 4); TALVOR_PIN(m_nNextOffset, 12);
#undef TALVOR_PIN

TALVOR_PIN_SIZE(BASEFILEBLOCKMAPHEAD, 32);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(BASEFILEBLOCKMAPHEAD, f, off)
TALVOR_PIN(m_nDataFlag, 0); TALVOR_PIN(m_nBlockMapNum, 4); TALVOR_PIN(m_nTimestamp, 8); TALVOR_PIN(m_bSaveFlag, 16);
TALVOR_PIN(m_bReserved, 17); TALVOR_PIN(m_nMapNo, 20); TALVOR_PIN(m_nNextBlockMapOffset, 24);
TALVOR_PIN(m_pBlockMap, 32);
#undef TALVOR_PIN

TALVOR_PIN_SIZE(BASEBLOCKHEAD, 44);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(BASEBLOCKHEAD, f, off)
TALVOR_PIN(m_nDataFlag, 0); TALVOR_PIN(m_nBlockNo, 4); TALVOR_PIN(m_nTimestamp, 8); TALVOR_PIN(m_nLockTimestamp, 16);
TALVOR_PIN(m_nBlockSize, 24); TALVOR_PIN(m_nBlockHeadSize, 28); TALVOR_PIN(m_bStatus, 32); TALVOR_PIN(m_bFileNo, 33);
TALVOR_PIN(m_bSaveFlag, 34); TALVOR_PIN(m_bThreadNum, 35); TALVOR_PIN(m_bLinkType, 36); TALVOR_PIN(m_bNodeType, 37);
TALVOR_PIN(m_bFlushCode, 38); TALVOR_PIN(m_bFlushFlag, 39); TALVOR_PIN(m_nObjectID, 40);
#undef TALVOR_PIN

// BLOCKHEAD overlays BASEBLOCKHEAD, then goes on.
TALVOR_PIN_SIZE(BLOCKHEAD, 76);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(BLOCKHEAD, f, off)
TALVOR_PIN(m_nDataFlag, 0); TALVOR_PIN(m_nBlockNo, 4); TALVOR_PIN(m_nTimestamp, 8); TALVOR_PIN(m_nLockTimestamp, 16);
TALVOR_PIN(m_nBlockSize, 24); TALVOR_PIN(m_nBlockHeadSize, 28); TALVOR_PIN(m_bStatus, 32); TALVOR_PIN(m_bFileNo, 33);
TALVOR_PIN(m_bSaveFlag, 34); TALVOR_PIN(m_bThreadNum, 35); TALVOR_PIN(m_bLinkType, 36); TALVOR_PIN(m_bNodeType, 37);
TALVOR_PIN(m_bFlushCode, 38); TALVOR_PIN(m_bFlushFlag, 39); TALVOR_PIN(m_nObjectID, 40);
TALVOR_PIN(m_nBlockDataStructSize, 44); TALVOR_PIN(m_bReserved, 45); TALVOR_PIN(m_usRemoveDataSize, 46);
TALVOR_PIN(m_nInnerMaxNo, 48); TALVOR_PIN(m_nDataInsertOffset, 52); TALVOR_PIN(m_nVarDataInsertOffset, 56);
TALVOR_PIN(m_nFreeDataOffset, 60); TALVOR_PIN(m_nRecyclableSpaceSize, 64); TALVOR_PIN(m_nVarDataAllocOffset, 68);
TALVOR_PIN(m_nReserved, 72);
#undef TALVOR_PIN

TALVOR_PIN_SIZE(BLOCKDATASTRUCT, 32);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(BLOCKDATASTRUCT, f, off)
TALVOR_PIN(m_nInnerNo, 0); TALVOR_PIN(m_bLockStatus, 4); TALVOR_PIN(m_bDataStatus, 5); TALVOR_PIN(m_sToken, 6);
TALVOR_PIN(m_nVarDataOffset, 8); TALVOR_PIN(m_nVarDataLength, 12); TALVOR_PIN(m_nNextDataID, 16);
TALVOR_PIN(m_nTimestamp, 24);
#undef TALVOR_PIN

TALVOR_PIN_SIZE(BLOCKVARDATASTRUCT, 16);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(BLOCKVARDATASTRUCT, f, off)
TALVOR_PIN(m_nDataFlag, 0); TALVOR_PIN(m_nDataLength, 4); TALVOR_PIN(m_nActualLength, 8); TALVOR_PIN(m_nNextOffset, 12);
TALVOR_PIN(m_lpDataContent, 16);
#undef TALVOR_PIN

// Cache-mode file records.
TALVOR_PIN_SIZE(CACHEFILETABLEDEF, 32);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(CACHEFILETABLEDEF, f, off)
TALVOR_PIN(m_nID, 0); TALVOR_PIN(m_nFullBlockNo, 4); TALVOR_PIN(m_nFreeBlockNo, 8); TALVOR_PIN(m_nRecordNum, 12);
TALVOR_PIN(m_nAutoIncrement, 20); TALVOR_PIN(m_bObjectType, 28); TALVOR_PIN(m_bReserved, 29);
#undef TALVOR_PIN

TALVOR_PIN_SIZE(INDEXROOTSTRUCT, 24);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(INDEXROOTSTRUCT, f, off)
TALVOR_PIN(m_nIndexID, 0); TALVOR_PIN(m_nBlockNo, 4); TALVOR_PIN(m_nRecycleMapNo, 8); TALVOR_PIN(m_bFieldNum, 12);
TALVOR_PIN(m_bFieldType, 13); TALVOR_PIN(m_bSaveFlag, 22); TALVOR_PIN(m_bReserved, 23);
#undef TALVOR_PIN

// The three heads share BASEFILEHEAD's first 90 bytes.
#define TALVOR_PIN_FILEHEAD_PREFIX(T) \
    TALVOR_PIN_OFFSET(T, m_nDataFlag, 0); \
    TALVOR_PIN_OFFSET(T, m_nTimestamp, 4); \
    TALVOR_PIN_OFFSET(T, m_bFileNo, 12); \
    TALVOR_PIN_OFFSET(T, m_bStatus, 13); \
    TALVOR_PIN_OFFSET(T, m_bFileType, 14); \
    TALVOR_PIN_OFFSET(T, m_bSaveFlag, 15); \
    TALVOR_PIN_OFFSET(T, m_usDatabaseGuid, 16); \
    TALVOR_PIN_OFFSET(T, m_nBlockNum, 18); \
    TALVOR_PIN_OFFSET(T, m_nMaxObjectNum, 22); \
    TALVOR_PIN_OFFSET(T, m_nCurrentObjectNum, 26); \
    TALVOR_PIN_OFFSET(T, m_nFileTotalSize, 30); \
    TALVOR_PIN_OFFSET(T, m_nFileHeaderSize, 38); \
    TALVOR_PIN_OFFSET(T, m_nBlockMapStructSize, 42); \
    TALVOR_PIN_OFFSET(T, m_nBlockMapSize, 46); \
    TALVOR_PIN_OFFSET(T, m_nBlockMapStartOffset, 50); \
    TALVOR_PIN_OFFSET(T, m_nObjectInfoOffset, 54); \
    TALVOR_PIN_OFFSET(T, m_nBlockStartOffset, 58); \
    TALVOR_PIN_OFFSET(T, m_nInnerMaxNo, 66); \
    TALVOR_PIN_OFFSET(T, m_nMaxBlockMapNum, 86)

TALVOR_PIN_FILEHEAD_PREFIX(TABLEFILEHEAD);
TALVOR_PIN_FILEHEAD_PREFIX(INDEXFILEHEAD);
TALVOR_PIN_FILEHEAD_PREFIX(SYSTEMFILEHEAD);

#define TALVOR_PIN_CACHEHEAD_PREFIX(T) \
    TALVOR_PIN_OFFSET(T, m_nReserved2, 70); \
    TALVOR_PIN_OFFSET(T, m_nFileFreeMemoryOffset, 78); \
    TALVOR_PIN_OFFSET(T, m_nNextFileHeadOffset, 90); \
    TALVOR_PIN_OFFSET(T, m_nHeadMaxObjectNum, 98); \
    TALVOR_PIN_OFFSET(T, m_usReserved, 100); \
    TALVOR_PIN_OFFSET(T, m_nReserved, 102); \
    TALVOR_PIN_OFFSET(T, m_nCacheStartOffset, 106); \
    TALVOR_PIN_OFFSET(T, m_nPersistentTimestamp, 114)

TALVOR_PIN_SIZE(TABLEFILEHEAD, CACHE_PAGE_SIZE);
TALVOR_PIN_CACHEHEAD_PREFIX(TABLEFILEHEAD);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(TABLEFILEHEAD, f, off)
TALVOR_PIN(m_nFreeBlockMapNo, 122); TALVOR_PIN(m_stFileObject, 162);
TALVOR_PIN(m_bTailReserved, 162 + 32 * TABLEFILEHEAD_OBJECT_NUM);
#undef TALVOR_PIN

TALVOR_PIN_SIZE(INDEXFILEHEAD, CACHE_PAGE_SIZE);
TALVOR_PIN_CACHEHEAD_PREFIX(INDEXFILEHEAD);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(INDEXFILEHEAD, f, off)
TALVOR_PIN(m_nFreeBlockNo, 122); TALVOR_PIN(m_stRootMap, 126);
TALVOR_PIN(m_bTailReserved, 126 + 24 * INDEXFILEHEAD_OBJECT_NUM);
#undef TALVOR_PIN

#define TALVOR_PIN_EXHEAD(T) \
    TALVOR_PIN_SIZE(T, CACHE_PAGE_SIZE); \
    TALVOR_PIN_OFFSET(T, m_nDataFlag, 0); \
    TALVOR_PIN_OFFSET(T, m_bFileNo, 4); \
    TALVOR_PIN_OFFSET(T, m_bFileType, 5); \
    TALVOR_PIN_OFFSET(T, m_bExHeadNo, 6); \
    TALVOR_PIN_OFFSET(T, m_bReserved, 7); \
    TALVOR_PIN_OFFSET(T, m_nExHeadMaxObjectNum, 8); \
    TALVOR_PIN_OFFSET(T, m_nNextFileHeadOffset, 10); \
    TALVOR_PIN_OFFSET(T, m_nNextFileHeadCacheOffset, 18)

TALVOR_PIN_EXHEAD(TABLEFILEHEADEX);
TALVOR_PIN_OFFSET(TABLEFILEHEADEX, m_stFileObject, 26);
TALVOR_PIN_OFFSET(TABLEFILEHEADEX, m_bTailReserved, 26 + 32 * TABLEFILEHEADEX_OBJECT_NUM);
TALVOR_PIN_EXHEAD(INDEXFILEHEADEX);
TALVOR_PIN_OFFSET(INDEXFILEHEADEX, m_stRootMap, 26);
TALVOR_PIN_OFFSET(INDEXFILEHEADEX, m_bTailReserved, 26 + 24 * INDEXFILEHEADEX_OBJECT_NUM);

// Object capacities are the most a page holds: one more would not fit.
static_assert(162 + 32 * (TABLEFILEHEAD_OBJECT_NUM + 1) > CACHE_PAGE_SIZE, "table head capacity");
static_assert(126 + 24 * (INDEXFILEHEAD_OBJECT_NUM + 1) > CACHE_PAGE_SIZE, "index head capacity");
static_assert(26 + 32 * (TABLEFILEHEADEX_OBJECT_NUM + 1) > CACHE_PAGE_SIZE, "table ex capacity");
static_assert(26 + 24 * (INDEXFILEHEADEX_OBJECT_NUM + 1) > CACHE_PAGE_SIZE, "index ex capacity");

TALVOR_PIN_SIZE(BASEFILEBLOCKMAP_CACHE, BLOCKMAP_STRUCT_SIZE_CACHE);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(BASEFILEBLOCKMAP_CACHE, f, off)
TALVOR_PIN(m_nBlockNo, 0); TALVOR_PIN(m_nBlockSize, 4); TALVOR_PIN(m_nNextBlockNo, 8); TALVOR_PIN(m_nID, 12);
TALVOR_PIN(m_nBlockOffset, 16);
#undef TALVOR_PIN

TALVOR_PIN_SIZE(BASEFILEBLOCKMAPHEAD_CACHE, 40);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(BASEFILEBLOCKMAPHEAD_CACHE, f, off)
TALVOR_PIN(m_nDataFlag, 0); TALVOR_PIN(m_nBlockMapNum, 4); TALVOR_PIN(m_nTimestamp, 8); TALVOR_PIN(m_bSaveFlag, 16);
TALVOR_PIN(m_bStatus, 17); TALVOR_PIN(m_bReserved, 18); TALVOR_PIN(m_nMapNo, 20); TALVOR_PIN(m_nNextBlockMapOffset, 24);
TALVOR_PIN(m_nNextBlockMapOffset_Cache, 32); TALVOR_PIN(m_pBlockMap, 40);
#undef TALVOR_PIN
static_assert(40 + 24 * CACHE_MAX_BLOCKMAP_NUM <= CACHE_PAGE_SIZE, "cache map page overflow");

// System file.
TALVOR_PIN_SIZE(SYSTEMFILEHEAD, 15718);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(SYSTEMFILEHEAD, f, off)
TALVOR_PIN(m_nUndoTimestamp, 70); TALVOR_PIN(m_nUndoPreTimestamp, 74); TALVOR_PIN(m_nFileFreePos, 78);
TALVOR_PIN(m_usShardNo, 90); TALVOR_PIN(m_usReserved, 92); TALVOR_PIN(m_nReserved, 94); TALVOR_PIN(m_nVersion, 106);
TALVOR_PIN(m_nObjectMaxID, 110); TALVOR_PIN(m_bFileMaxNo, 114); TALVOR_PIN(m_bSysTimeChange, 115);
TALVOR_PIN(m_bStorageCMD, 116); TALVOR_PIN(m_bCurrentRedoGroup, 117); TALVOR_PIN(m_nRedoLogMaxID, 118);
TALVOR_PIN(m_nBeginTimestamp, 122); TALVOR_PIN(m_nEndTimestamp, 130); TALVOR_PIN(m_nFreeBlockOffset, 138);
TALVOR_PIN(m_bForbidSaveFlag, 146); TALVOR_PIN(m_bTableFileStatus, 147); TALVOR_PIN(m_bIndexFileStatus, 148);
TALVOR_PIN(m_bReservedData, 149); TALVOR_PIN(m_nCacheTableTimestamp, SYSTEMFILE_CACHETABLETS_OFFSET);
TALVOR_PIN(m_nCacheIndexTimestamp, SYSTEMFILE_CACHEINDEXTS_OFFSET); TALVOR_PIN(m_cDatabaseName, 166);
TALVOR_PIN(m_cDatabasePath, 198); TALVOR_PIN(m_lpArchiveDesPath, 458); TALVOR_PIN(m_nProcesses, 970);
TALVOR_PIN(m_nMemoryUndoSize, 1018); TALVOR_PIN(m_nPersistenceIntervals, 1038);
TALVOR_PIN(m_nTalvorBufferCacheSize, 1142); TALVOR_PIN(m_nDiskFileWarningSize, 1190);
TALVOR_PIN(m_nTalvorDevelopMode, 1202); TALVOR_PIN(m_bReservedParameter, 1206); TALVOR_PIN(m_stFileObject, 1222);
TALVOR_PIN(m_usTableTimestampNum, SYSTEMFILE_TABLETSARRAY_OFFSET); TALVOR_PIN(m_bOpenFileUseBuffer, 6824);
TALVOR_PIN(m_bTReserved, 6825); TALVOR_PIN(m_arTableTimestamp, 6826);
TALVOR_PIN(m_usIndexTimestampNum, SYSTEMFILE_INDEXTSARRAY_OFFSET); TALVOR_PIN(m_bIReserved, 10924);
TALVOR_PIN(m_aIndexTimestamp, 10926); TALVOR_PIN(m_arReserved, 15022); TALVOR_PIN(m_nLastTimestamp, 15550);
TALVOR_PIN(m_nSafeTimestamp, 15558); TALVOR_PIN(m_nStandbyTimestamp, 15566); TALVOR_PIN(m_nStandbyLogNo, 15574);
TALVOR_PIN(m_nStandbyLogOffset, 15578); TALVOR_PIN(m_nAutoIncrementIncrement, 15582);
TALVOR_PIN(m_nTableNamesLower, 15650); TALVOR_PIN(m_bReserved, 15654); TALVOR_PIN(m_nClusterToken, 15694);
TALVOR_PIN(m_lpData, 15702);
#undef TALVOR_PIN
// A commit writes m_nInnerMaxNo through m_nFreeBlockOffset in one piece.
static_assert(offsetof(SYSTEMFILEHEAD, m_nFreeBlockOffset) + 8 ==
                  SYSTEMFILE_DYNAMIC_OFFSET + SYSTEMFILE_DYNAMIC_SIZE, "dynamic part of the system head");
// The cache timestamp write-back covers count, two bytes and the array.
static_assert(offsetof(SYSTEMFILEHEAD, m_usIndexTimestampNum) - offsetof(SYSTEMFILEHEAD, m_usTableTimestampNum) ==
                  SYSTEMFILE_TSARRAY_WRITE_SIZE, "table timestamp write-back");
static_assert(offsetof(SYSTEMFILEHEAD, m_arReserved) - offsetof(SYSTEMFILEHEAD, m_usIndexTimestampNum) ==
                  SYSTEMFILE_TSARRAY_WRITE_SIZE, "index timestamp write-back");

// The system block head agrees with BASEBLOCKHEAD up to the save flag;
// from offset 35 on the two differ.
TALVOR_PIN_SIZE(SYSTEMBLOCKHEAD, 60);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(SYSTEMBLOCKHEAD, f, off)
TALVOR_PIN(m_nDataFlag, 0); TALVOR_PIN(m_nBlockNo, 4); TALVOR_PIN(m_nTimestamp, 8); TALVOR_PIN(m_nLockTimestamp, 16);
TALVOR_PIN(m_nBlockSize, 24); TALVOR_PIN(m_nBlockHeadSize, 28); TALVOR_PIN(m_bStatus, 32); TALVOR_PIN(m_bFileNo, 33);
TALVOR_PIN(m_bSaveFlag, 34); TALVOR_PIN(m_bFullFlag, 35); TALVOR_PIN(m_nObjectID, 36); TALVOR_PIN(m_nInnerMaxNo, 40);
TALVOR_PIN(m_nDataInsertOffset, 44); TALVOR_PIN(m_nVarDataInsertOffset, 48); TALVOR_PIN(m_nBlockDataStructSize, 52);
TALVOR_PIN(m_nDataNum, 56);
#undef TALVOR_PIN

TALVOR_PIN_SIZE(FILE_MEMDBFILEINFO, 348);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(FILE_MEMDBFILEINFO, f, off)
TALVOR_PIN(m_nInnerNo, 0); TALVOR_PIN(m_bFileNo, 4); TALVOR_PIN(m_bFileType, 5); TALVOR_PIN(m_bFileCMD, 6);
TALVOR_PIN(m_bDropFlag, 7); TALVOR_PIN(m_lpszFilePath, 8); TALVOR_PIN(m_lpszTablespaceName, 264);
TALVOR_PIN(m_nFileSize, 328); TALVOR_PIN(m_nLoadSize, 336); TALVOR_PIN(m_nMaxObjectNum, 344);
#undef TALVOR_PIN

// Command channel.
TALVOR_PIN_SIZE(TALVORCOMMAND, 42);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(TALVORCOMMAND, f, off)
TALVOR_PIN(m_ulIP, 0); TALVOR_PIN(m_nMethod, 0); TALVOR_PIN(m_ulLocalIP, 4); TALVOR_PIN(m_nBufferSize, 4);
TALVOR_PIN(m_nTimestamp, 8); TALVOR_PIN(m_nTimestamp2, 16); TALVOR_PIN(m_nLogNo, 24); TALVOR_PIN(m_nLogPos, 28);
TALVOR_PIN(m_usPort, 32); TALVOR_PIN(m_bCommandType, 34); TALVOR_PIN(m_bResult, 35); TALVOR_PIN(m_bForbidSaveFlag, 36);
TALVOR_PIN(m_bAbort, 37); TALVOR_PIN(m_bLevel, 38); TALVOR_PIN(m_bFileNo, 38); TALVOR_PIN(m_bReserved, 39);
#undef TALVOR_PIN

TALVOR_PIN_SIZE(TALVORPROGRESS, 140);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(TALVORPROGRESS, f, off)
TALVOR_PIN(m_lpTitle, 0); TALVOR_PIN(m_nTotal, 128); TALVOR_PIN(m_nPos, 132); TALVOR_PIN(m_nStatus, 136);
#undef TALVOR_PIN

TALVOR_PIN_SIZE(STORAGEMEMHEAD, 487);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(STORAGEMEMHEAD, f, off)
TALVOR_PIN(m_nFileTotalSize, 0); TALVOR_PIN(m_nFileHeaderSize, 4); TALVOR_PIN(m_nFileDataOffset, 8);
TALVOR_PIN(m_nBlockNo, 12); TALVOR_PIN(m_nCycleTime, 16); TALVOR_PIN(m_nResult, 20); TALVOR_PIN(m_nTimestamp, 24);
TALVOR_PIN(m_bCommandType, 32); TALVOR_PIN(m_bFileNo, 33); TALVOR_PIN(m_bService, 34); TALVOR_PIN(m_bStorage, 35);
TALVOR_PIN(m_bStandbyThreads, 36); TALVOR_PIN(m_ClusterCommand, 37); TALVOR_PIN(m_TalvorProgress, 79);
TALVOR_PIN(m_nBackupTimestamp, 219); TALVOR_PIN(m_nStorageID, 227); TALVOR_PIN(m_lpszFilePath, 231);
#undef TALVOR_PIN
static_assert(sizeof(STORAGEMEMHEAD) < STORAGEMEM_SEGMENT_SIZE, "channel head fits its segment");
// The head starts its page-aligned segment, and the backup timestamp, which
// the archiver takes with one locked exchange, lies unaligned inside it: it
// must not straddle a cache line, or the exchange becomes a split lock.
static_assert(offsetof(STORAGEMEMHEAD, m_nBackupTimestamp) / 64 ==
                  (offsetof(STORAGEMEMHEAD, m_nBackupTimestamp) + sizeof(long long) - 1) / 64,
              "the backup timestamp lies inside one cache line");

// Rings and redo log.
TALVOR_PIN_SIZE(FILE_TRACEMEMFILEHEAD, 68);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(FILE_TRACEMEMFILEHEAD, f, off)
TALVOR_PIN(m_nDataFlag, 0); TALVOR_PIN(m_nFileTotalSize, 4); TALVOR_PIN(m_nFileHeaderSize, 8);
TALVOR_PIN(m_nItemSize, 12); TALVOR_PIN(m_nWiteLogMinDuration, 16); TALVOR_PIN(m_nWiteLogMaxDuration, 20);
TALVOR_PIN(m_bFileType, 24); TALVOR_PIN(m_bFlushFlag, 25); TALVOR_PIN(m_bWriting, 26); TALVOR_PIN(m_bStatus, 27);
TALVOR_PIN(m_nWritePos, 28); TALVOR_PIN(m_nReadPos, 32); TALVOR_PIN(m_nTimestamp, 36); TALVOR_PIN(m_nStartTime, 44);
TALVOR_PIN(m_nLogNo, 52); TALVOR_PIN(m_nLogPos, 56); TALVOR_PIN(m_nLogArchiveNo, 60); TALVOR_PIN(m_nProcessID, 60);
TALVOR_PIN(m_bReadException, 64); TALVOR_PIN(m_bReserved, 65);
#undef TALVOR_PIN

TALVOR_PIN_SIZE(BASEEXECUTEPLANHEAD, EXECUTEPLANHEAD_SIZE);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(BASEEXECUTEPLANHEAD, f, off)
TALVOR_PIN(m_nTotalDataSize, 0); TALVOR_PIN(m_nDataFlag, 4); TALVOR_PIN(m_nType, 8); TALVOR_PIN(m_bVersion, 9);
TALVOR_PIN(m_bWriteLog, 10); TALVOR_PIN(m_bDatabaseNo, 11); TALVOR_PIN(m_usTransactionNo, 12);
TALVOR_PIN(m_bObjectMapNum, 14); TALVOR_PIN(m_bImplementClass, 15); TALVOR_PIN(m_nTimestamp, 16);
#undef TALVOR_PIN

TALVOR_PIN_SIZE(MF_REDOLOGFILEHEAD, REDOLOGFILE_HEAD_SIZE);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(MF_REDOLOGFILEHEAD, f, off)
TALVOR_PIN(m_lpszFileFlag, 0); TALVOR_PIN(m_nEffectiveSize, 10); TALVOR_PIN(m_usDatabaseGuid, 14);
TALVOR_PIN(m_nSequenceNO, 16); TALVOR_PIN(m_nVersion, 20); TALVOR_PIN(m_bState, 24); TALVOR_PIN(m_bReserved, 25);
TALVOR_PIN(m_ftCreateTime, 26); TALVOR_PIN(m_nBeginTimestamp, 34); TALVOR_PIN(m_nEndTimestamp, 42);
#undef TALVOR_PIN
static_assert(sizeof(REDOLOGFILE_FLAG) == sizeof(MF_REDOLOGFILEHEAD::m_lpszFileFlag), "log flag and its zero");

// Rollback area.
TALVOR_PIN_SIZE(ROLLBACKBLOCKHEAD, 124);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(ROLLBACKBLOCKHEAD, f, off)
TALVOR_PIN(m_nDataFlag, 0); TALVOR_PIN(m_nRollbackTotalSize, 4); TALVOR_PIN(m_nRollbackHeadSize, 8);
TALVOR_PIN(m_nDataAllocPos, 12); TALVOR_PIN(m_nLastAllocPos, 16); TALVOR_PIN(m_nFirstDataPos, 20);
TALVOR_PIN(m_nTimestamp, 24); TALVOR_PIN(m_nPrevTimestamp, 28); TALVOR_PIN(m_nUnsafePos, 32);
TALVOR_PIN(m_nMinDuration, 36); TALVOR_PIN(m_nMaxDuration, 40); TALVOR_PIN(m_nPrevDuration, 44);
TALVOR_PIN(m_bStatus, 48); TALVOR_PIN(m_bSaveStatus, 49); TALVOR_PIN(m_bReserved, 50); TALVOR_PIN(m_nSegTimestamp, 52);
TALVOR_PIN(m_arTimestamp, 60);
#undef TALVOR_PIN
TALVOR_PIN_SIZE(ROLLBACKBLOCKVARDATASTRUCT, 47);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(ROLLBACKBLOCKVARDATASTRUCT, f, off)
TALVOR_PIN(m_nDataFlag, 0); TALVOR_PIN(m_nNextOffset, 4); TALVOR_PIN(m_nActualLength, 8);
TALVOR_PIN(m_nOriginDataID, 12); TALVOR_PIN(m_nPreRollbackDataID, 20); TALVOR_PIN(m_nTimestamp, 28);
TALVOR_PIN(m_llBackupTimestamp, 36); TALVOR_PIN(m_sDataToken, 44); TALVOR_PIN(m_bReserved, 46);
TALVOR_PIN(m_pDataContent, 47);
#undef TALVOR_PIN

// Configuration update list.
static_assert(sizeof(bool) == 1, "m_bIsService is one byte");
TALVOR_PIN_SIZE(SharedMemoryItem, 200);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(SharedMemoryItem, f, off)
TALVOR_PIN(m_lpModule, 0); TALVOR_PIN(m_lpKey, 50); TALVOR_PIN(m_lpValue, 100);
#undef TALVOR_PIN
TALVOR_PIN_SIZE(SharedMemoryUpdate, 16005);
#define TALVOR_PIN(f, off) TALVOR_PIN_OFFSET(SharedMemoryUpdate, f, off)
TALVOR_PIN(m_iLength, 0); TALVOR_PIN(m_bIsService, 4); TALVOR_PIN(m_smpItems, 5);
#undef TALVOR_PIN
static_assert(sizeof(SharedMemoryUpdate) <= CONFIGUPDATE_SEGMENT_SIZE, "update list fits its segment");

// The shared block cache's records, pinned with the macros above.
#include "MemDBCacheDef.h"

#undef TALVOR_PIN_EXHEAD
#undef TALVOR_PIN_CACHEHEAD_PREFIX
#undef TALVOR_PIN_FILEHEAD_PREFIX
#undef TALVOR_PIN_SIZE
#undef TALVOR_PIN_OFFSET
