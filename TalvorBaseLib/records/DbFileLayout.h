// DbFileLayout.h — where things lie in a database file, in one place for
// every program that reads or makes one: the daemon, the database maker and
// the engine stand-in.
//
// Two kinds of knowledge live here:
//  * Reading. Accessors that find an object entry, a map entry or a row, and
//    a walk over a chain of map entries. A chain comes from a file or from a
//    shared image the engine writes, so it is untrusted: every entry is
//    bounds-checked against the image and a chain that loops is refused
//    before any entry of it is handed out.
//  * Making. The layout this system gives a new database (sizes, offsets,
//    first block) and the builders of the used part of each file. The daemon
//    never relies on these values: it reads whatever a file records.
//
// Entries count from 0 throughout the format: entry 1 of the system head's
// object table is m_stFileObject[1], the object whose m_nID is 1.
#pragma once

#include "MemDBCommonDef.h"
#include "TypeDef.h"

#include <cstddef>

// ---------------------------------------------------------------------------
// Alignment. Every transfer to a database file is a multiple of this in
// address, offset and size (direct I/O).
// ---------------------------------------------------------------------------
inline constexpr int DB_IO_ALIGN = 512;
inline constexpr long long DB_MIB = 1048576;

inline constexpr long long DbAlignUp(long long n, long long nAlign = DB_IO_ALIGN)
{
    return (n + nAlign - 1) / nAlign * nAlign;
}
inline constexpr bool DbIsAligned(long long n, long long nAlign = DB_IO_ALIGN) { return n % nAlign == 0; }

// Files of types 1 to 4 are mirrored whole in a segment of their own.
inline constexpr bool IsMemoryFileType(BYTE bFileType)
{
    return bFileType >= FILETYPE_SYSTEM && bFileType <= FILETYPE_KVINDEX;
}

// ---------------------------------------------------------------------------
// Object tables.
// ---------------------------------------------------------------------------

// Entry nEntry of the system head's object table; null outside 0..99.
LPBASEFILEOBJECTDEF DbSystemFileObject(LPSYSTEMFILEHEAD lpHead, int nEntry);
// The object that holds the file list: entry 1.
inline LPBASEFILEOBJECTDEF DbFileListObject(LPSYSTEMFILEHEAD lpHead)
{
    return DbSystemFileObject(lpHead, SYSTEMFILE_FILELIST_OBJECTID);
}
// Entry nEntry of a memory-mode file's object table (at m_nObjectInfoOffset),
// or null when the entry is beyond m_nMaxObjectNum or the image.
LPBASEFILEOBJECTDEF DbMemoryFileObject(LPBYTE lpImage, long long nImageSize, int nEntry);

// ---------------------------------------------------------------------------
// Memory-mode maps: a map block is a BASEFILEBLOCKMAPHEAD and its entries;
// the slave copy lies m_nBlockMapSize behind the master.
// ---------------------------------------------------------------------------
inline constexpr long long DbMapEntryOffset(long long nMapBlockOffset, int nEntry)
{
    return nMapBlockOffset + (long long)sizeof(BASEFILEBLOCKMAPHEAD) + (long long)nEntry * sizeof(BASEFILEBLOCKMAP);
}
inline constexpr int DbMaxBlockMapNum(int nBlockMapSize)
{
    return (nBlockMapSize - (int)sizeof(BASEFILEBLOCKMAPHEAD)) / (int)sizeof(BASEFILEBLOCKMAP);
}
inline constexpr long long DbSlaveMapOffset(long long nMasterOffset, int nBlockMapSize)
{
    return nMasterOffset + nBlockMapSize;
}

// What a chain check found.
enum : int {
    DBCHAIN_OK = 0,
    DBCHAIN_OUTSIDE = 1,  // an entry lies (partly) outside the image
    DBCHAIN_LOOP = 2,     // the chain comes back to an entry it passed
    DBCHAIN_STOPPED = 3,  // the visitor asked to stop
};

// Whether nLength bytes from nOffset lie inside an image of nImageSize
// bytes. Offsets read from an image may be anything up to LLONG_MAX: the
// bound is taken by subtraction, so that no sum can wrap. Pure.
inline bool DbSpanFits(long long nOffset, long long nLength, long long nImageSize)
{
    return nOffset >= 0 && nLength >= 0 && nLength <= nImageSize && nOffset <= nImageSize - nLength;
}

// Checks a chain of BASEFILEBLOCKMAP entries that starts at nFirstOffset (0:
// empty chain). Each entry is read at its offset + nReadDelta (0 for the
// master map, m_nBlockMapSize for the slave). Linear time, no memory: a loop
// of any length is found. pnBadOffset receives the offending entry's offset,
// pnLength the number of entries of a good chain. Either may be null.
int DbCheckMapChain(const BYTE* lpImage, long long nImageSize, long long nFirstOffset, long long nReadDelta,
                    long long* pnBadOffset, long long* pnLength);

// Checks the chain, then calls fnVisit(nEntryOffset, LPBASEFILEBLOCKMAP) for
// each entry in order; fnVisit returns false to stop. The image may change
// under the walk (it is shared), so each step is checked again and the walk
// never takes more steps than the check counted.
template <class F>
int DbWalkMapChain(LPBYTE lpImage, long long nImageSize, long long nFirstOffset, long long nReadDelta,
                   long long* pnBadOffset, F&& fnVisit)
{
    long long nLength = 0;
    int nResult = DbCheckMapChain(lpImage, nImageSize, nFirstOffset, nReadDelta, pnBadOffset, &nLength);
    if (nResult != DBCHAIN_OK) return nResult;
    long long nOffset = nFirstOffset;
    for (long long nStep = 0; nOffset != 0; nStep++) {
        if (nStep >= nLength) {
            if (pnBadOffset != nullptr) *pnBadOffset = nOffset;
            return DBCHAIN_LOOP;
        }
        long long nAt = nOffset + nReadDelta;
        if (nOffset < 0 || nAt < 0 || nAt > nImageSize - (long long)sizeof(BASEFILEBLOCKMAP)) {
            if (pnBadOffset != nullptr) *pnBadOffset = nOffset;
            return DBCHAIN_OUTSIDE;
        }
        LPBASEFILEBLOCKMAP lpEntry = (LPBASEFILEBLOCKMAP)(lpImage + nAt);
        long long nNext = lpEntry->m_nNextOffset;
        if (!fnVisit(nOffset, lpEntry)) return DBCHAIN_STOPPED;
        nOffset = nNext;
    }
    return DBCHAIN_OK;
}

// ---------------------------------------------------------------------------
// The file list of the system file: rows of FILE_MEMDBFILEINFO in blocks
// headed by SYSTEMBLOCKHEAD, reached through object 1's two chains.
// ---------------------------------------------------------------------------

// Whether the block at nBlockOffset and its rows lie inside the image:
// the head, m_nBlockSize bytes, and m_nDataNum records of
// m_nBlockDataStructSize from m_nBlockHeadSize on.
bool DbSystemBlockFits(const BYTE* lpImage, long long nImageSize, long long nBlockOffset);

// Calls fnRow(LPSYSTEMBLOCKHEAD, LPFILE_MEMDBFILEINFO) for every row of the
// file list, full chain first, stopping when it returns false. Refuses (and
// returns non-zero) a damaged chain, a block that does not fit, or a record
// size other than sizeof(FILE_MEMDBFILEINFO), before handing out any row of
// that block.
template <class F>
int DbForEachFileListRow(LPBYTE lpImage, long long nImageSize, F&& fnRow)
{
    if (nImageSize < (long long)sizeof(SYSTEMFILEHEAD)) return DBCHAIN_OUTSIDE;
    LPBASEFILEOBJECTDEF lpObject = DbFileListObject((LPSYSTEMFILEHEAD)lpImage);
    if (lpObject->m_nID != SYSTEMFILE_FILELIST_OBJECTID) return DBCHAIN_OK;
    long long arFirst[2] = {lpObject->m_nFullBlockMapOffset, lpObject->m_nFreeBlockMapOffset};
    for (long long nFirst : arFirst) {
        bool bStopped = false;
        int nResult = DbWalkMapChain(lpImage, nImageSize, nFirst, 0, nullptr,
                                     [&](long long, LPBASEFILEBLOCKMAP lpEntry) {
                                         long long nBlock = lpEntry->m_nBlockOffset;
                                         if (!DbSystemBlockFits(lpImage, nImageSize, nBlock)) return false;
                                         LPSYSTEMBLOCKHEAD lpBlock = (LPSYSTEMBLOCKHEAD)(lpImage + nBlock);
                                         if (lpBlock->m_nBlockDataStructSize != (int)sizeof(FILE_MEMDBFILEINFO))
                                             return false;
                                         LPFILE_MEMDBFILEINFO lpRows =
                                             (LPFILE_MEMDBFILEINFO)((LPBYTE)lpBlock + lpBlock->m_nBlockHeadSize);
                                         int nRows = lpBlock->m_nDataNum;
                                         for (int i = 0; i < nRows; i++) {
                                             if (!fnRow(lpBlock, &lpRows[i])) {
                                                 bStopped = true;
                                                 return false;
                                             }
                                         }
                                         return true;
                                     });
        if (bStopped) return DBCHAIN_STOPPED;
        if (nResult != DBCHAIN_OK) return nResult;
    }
    return DBCHAIN_OK;
}

// The live row of file bFileNo that is not dropped, or null.
LPFILE_MEMDBFILEINFO DbFindFileListRow(LPBYTE lpImage, long long nImageSize, BYTE bFileNo);

// ---------------------------------------------------------------------------
// Cache mode: heads of 16384-byte pages, maps found by division.
// ---------------------------------------------------------------------------

// Block nBlockNo (from 1) is entry *pnEntry (from 0) of map block *pnMapNo
// (from 1). False for block number 0 or a map capacity below 1.
bool DbCacheMapLocation(UINT nBlockNo, int nMaxBlockMapNum, int* pnMapNo, int* pnEntry);
// Extended head pages a new cache-mode file of this type needs for
// nMaxObjectNum objects; -1 for a type other than 10 or 11.
int DbCacheExtendedHeadCount(BYTE bFileType, int nMaxObjectNum);
inline long long DbCacheBlockMapStartOffset(int nExtendedHeads) { return (long long)(nExtendedHeads + 1) * CACHE_PAGE_SIZE; }
inline long long DbCacheBlockStartOffset(int nExtendedHeads) { return (long long)(nExtendedHeads + 2) * CACHE_PAGE_SIZE; }
// The smallest cache-mode file. Its head area: CacheFileHeadArea.h.
inline constexpr long long DB_CACHEFILE_MIN_SIZE = 4 * DB_MIB;

// ---------------------------------------------------------------------------
// Making a new database. These are this system's choices; every size and
// offset is a multiple of DB_IO_ALIGN.
// ---------------------------------------------------------------------------
inline constexpr int DB_FORMAT_VERSION = 1;
inline constexpr int DB_SYSTEMFILE_HEADER_SIZE = 16384;
inline constexpr int DB_SYSTEMFILE_LISTBLOCK_SIZE = 65536;
inline constexpr int DB_SYSTEMBLOCK_HEAD_SIZE = 64;  // rows start here
inline constexpr long long DB_SYSTEMFILE_SIZE = 4 * DB_MIB;
inline constexpr int DB_MEMFILE_OBJECTINFO_OFFSET = 512;
inline constexpr int DB_MEMFILE_BLOCKMAP_SIZE = 65536;
inline constexpr int DB_MEMFILE_DEFAULT_OBJECTS = 1024;
inline constexpr char DB_SYSTEMFILE_NAME[] = "System.dbf";
// File numbers 2 to 255 are free for database files.
inline constexpr int DB_MAX_DATABASE_FILES = 254;
// A new data file's first object: the entry and id that own block 1.
inline constexpr int DB_MEMFILE_FIRST_OBJECT_ENTRY = 0;
inline constexpr int DB_MEMFILE_FIRST_OBJECT_ID = 1;
// m_nRedoLogMaxID of a new system file: the number of its first redo log.
inline constexpr UINT DB_FIRST_REDO_LOG_NO = 1;

// Block size of the first block of a new file of this type.
int DbDefaultBlockSize(BYTE bFileType);

// Where the parts of a new memory-mode file (types 2 to 4) lie.
typedef struct _DBMEMFILEPLAN {
    BYTE m_bFileType;
    long long m_nFileSize;
    int m_nMaxObjectNum;
    int m_nObjectInfoOffset;
    int m_nHeaderSize;         // head and object table
    int m_nBlockMapSize;
    int m_nMaxBlockMapNum;
    long long m_nBlockMapStartOffset;  // master; the slave follows
    long long m_nBlockStartOffset;
    int m_nFirstBlockSize;
    long long m_nFreeOffset;   // end of the used part
} DBMEMFILEPLAN, *LPDBMEMFILEPLAN;

// False when the type is not 2 to 4, a size is not aligned, or the file is
// too small for head, both maps and the first block.
bool DbPlanMemoryFile(BYTE bFileType, long long nFileSize, int nMaxObjectNum, int nBlockSize, LPDBMEMFILEPLAN lpPlan);
// Writes the used part [0, m_nFreeOffset) of a new file into lpBuf: head,
// object table, master and slave map with one entry, and block 1 (in a data
// file on the free chain of its first object).
bool DbBuildMemoryFile(const DBMEMFILEPLAN& stPlan, BYTE bFileNo, USHORT usDatabaseGuid, LPBYTE lpBuf,
                       long long nBufSize);

// Where the parts of a new system file lie.
typedef struct _DBSYSFILEPLAN {
    long long m_nFileSize;
    int m_nHeaderSize;
    int m_nBlockMapSize;
    long long m_nBlockMapStartOffset;
    long long m_nBlockStartOffset;
    int m_nListBlockSize;
    int m_nRowsPerBlock;
    int m_nRows;
    int m_nListBlocks;
    long long m_nFreeOffset;
} DBSYSFILEPLAN, *LPDBSYSFILEPLAN;

// nListBlockSize is the size of each block of the file list (the maker uses
// DB_SYSTEMFILE_LISTBLOCK_SIZE; tests use smaller ones to span blocks).
bool DbPlanSystemFile(int nRows, int nListBlockSize, long long nFileSize, LPDBSYSFILEPLAN lpPlan);
// Fills the engine's parameters of a new system head with the values this
// system starts from; the daemon overwrites those that the ini sets.
void DbSetDefaultParameters(LPSYSTEMFILEHEAD lpHead);
// Writes the used part of a new system file into lpBuf: head with
// parameters, object 1, master and slave map, and the file list. Rows go
// into the blocks in order; full blocks form the full chain, the last block
// with room the free chain.
bool DbBuildSystemFile(const DBSYSFILEPLAN& stPlan, const FILE_MEMDBFILEINFO* arRows, USHORT usDatabaseGuid,
                       const char* lpszDatabaseName, const char* lpszDatabasePath, LPBYTE lpBuf, long long nBufSize);
