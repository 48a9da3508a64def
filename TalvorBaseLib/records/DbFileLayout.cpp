// DbFileLayout.cpp — accessors, the chain check and the builders of new
// database files.
#include "DbFileLayout.h"

#include <cstring>

LPBASEFILEOBJECTDEF DbSystemFileObject(LPSYSTEMFILEHEAD lpHead, int nEntry)
{
    if (lpHead == nullptr || nEntry < 0 || nEntry >= SYSTEMFILE_OBJECT_NUM) return nullptr;
    return &lpHead->m_stFileObject[nEntry];
}

LPBASEFILEOBJECTDEF DbMemoryFileObject(LPBYTE lpImage, long long nImageSize, int nEntry)
{
    if (lpImage == nullptr || nImageSize < (long long)sizeof(BASEFILEHEAD) || nEntry < 0) return nullptr;
    LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)lpImage;
    if (nEntry >= lpHead->m_nMaxObjectNum || lpHead->m_nObjectInfoOffset < 0) return nullptr;
    long long nAt = lpHead->m_nObjectInfoOffset + (long long)nEntry * sizeof(BASEFILEOBJECTDEF);
    if (nAt > nImageSize - (long long)sizeof(BASEFILEOBJECTDEF)) return nullptr;
    return (LPBASEFILEOBJECTDEF)(lpImage + nAt);
}

namespace {

// The entry at nOffset, or null when it does not lie wholly inside.
const BASEFILEBLOCKMAP* EntryAt(const BYTE* lpImage, long long nImageSize, long long nOffset, long long nReadDelta)
{
    if (nOffset <= 0) return nullptr;
    // The offset is read from the image and may be near LLONG_MAX.
    long long nAt;
    if (__builtin_add_overflow(nOffset, nReadDelta, &nAt)) return nullptr;
    if (nAt < 0 || nAt > nImageSize - (long long)sizeof(BASEFILEBLOCKMAP)) return nullptr;
    return (const BASEFILEBLOCKMAP*)(lpImage + nAt);
}

void Report(long long* pnOut, long long nValue)
{
    if (pnOut != nullptr) *pnOut = nValue;
}

} // namespace

// Brent's cycle search over the sequence of entry offsets: the tortoise
// jumps to the hare at each power of two, so a loop of length L entered
// after M entries is found within about 2(M + L) steps, with no memory.
int DbCheckMapChain(const BYTE* lpImage, long long nImageSize, long long nFirstOffset, long long nReadDelta,
                    long long* pnBadOffset, long long* pnLength)
{
    Report(pnLength, 0);
    if (nFirstOffset == 0) return DBCHAIN_OK;
    if (lpImage == nullptr) {
        Report(pnBadOffset, nFirstOffset);
        return DBCHAIN_OUTSIDE;
    }
    const BASEFILEBLOCKMAP* lpEntry = EntryAt(lpImage, nImageSize, nFirstOffset, nReadDelta);
    if (lpEntry == nullptr) {
        Report(pnBadOffset, nFirstOffset);
        return DBCHAIN_OUTSIDE;
    }
    long long nTortoise = nFirstOffset;
    long long nHare = lpEntry->m_nNextOffset;
    long long nPower = 1, nLam = 1, nLength = 1;
    while (nHare != 0) {
        if (nHare == nTortoise) {
            Report(pnBadOffset, nHare);
            return DBCHAIN_LOOP;
        }
        lpEntry = EntryAt(lpImage, nImageSize, nHare, nReadDelta);
        if (lpEntry == nullptr) {
            Report(pnBadOffset, nHare);
            return DBCHAIN_OUTSIDE;
        }
        nLength++;
        if (nPower == nLam) {
            nTortoise = nHare;
            nPower *= 2;
            nLam = 0;
        }
        nHare = lpEntry->m_nNextOffset;
        nLam++;
    }
    Report(pnLength, nLength);
    return DBCHAIN_OK;
}

bool DbSystemBlockFits(const BYTE* lpImage, long long nImageSize, long long nBlockOffset)
{
    if (lpImage == nullptr || nBlockOffset <= 0 || nBlockOffset > nImageSize - (long long)sizeof(SYSTEMBLOCKHEAD))
        return false;
    const SYSTEMBLOCKHEAD* lpBlock = (const SYSTEMBLOCKHEAD*)(lpImage + nBlockOffset);
    long long nBlockSize = lpBlock->m_nBlockSize;
    long long nHeadSize = lpBlock->m_nBlockHeadSize;
    long long nRecord = lpBlock->m_nBlockDataStructSize;
    long long nRows = lpBlock->m_nDataNum;
    if (nBlockSize < (long long)sizeof(SYSTEMBLOCKHEAD) || nBlockSize > nImageSize - nBlockOffset) return false;
    if (nHeadSize < (long long)sizeof(SYSTEMBLOCKHEAD) || nRecord <= 0 || nRows < 0) return false;
    return nHeadSize + nRows * nRecord <= nBlockSize;
}

LPFILE_MEMDBFILEINFO DbFindFileListRow(LPBYTE lpImage, long long nImageSize, BYTE bFileNo)
{
    LPFILE_MEMDBFILEINFO lpFound = nullptr;
    DbForEachFileListRow(lpImage, nImageSize, [&](LPSYSTEMBLOCKHEAD, LPFILE_MEMDBFILEINFO lpRow) {
        if (lpRow->m_bFileNo != bFileNo || lpRow->m_bDropFlag == 1) return true;
        lpFound = lpRow;
        return false;
    });
    return lpFound;
}

bool DbCacheMapLocation(UINT nBlockNo, int nMaxBlockMapNum, int* pnMapNo, int* pnEntry)
{
    if (nBlockNo == 0 || nMaxBlockMapNum < 1) return false;
    UINT nIndex = nBlockNo - 1;
    if (pnMapNo != nullptr) *pnMapNo = (int)(nIndex / (UINT)nMaxBlockMapNum) + 1;
    if (pnEntry != nullptr) *pnEntry = (int)(nIndex % (UINT)nMaxBlockMapNum);
    return true;
}

int DbCacheExtendedHeadCount(BYTE bFileType, int nMaxObjectNum)
{
    int nFirst, nPerPage;
    if (bFileType == FILETYPE_TABLE) {
        nFirst = TABLEFILEHEAD_OBJECT_NUM;
        nPerPage = TABLEFILEHEADEX_OBJECT_NUM;
    } else if (bFileType == FILETYPE_INDEX) {
        nFirst = INDEXFILEHEAD_OBJECT_NUM;
        nPerPage = INDEXFILEHEADEX_OBJECT_NUM;
    } else {
        return -1;
    }
    if (nMaxObjectNum <= nFirst) return 0;
    return (nMaxObjectNum - nFirst + nPerPage - 1) / nPerPage;
}

int DbDefaultBlockSize(BYTE bFileType)
{
    switch (bFileType) {
    case FILETYPE_SYSTEM: return DB_SYSTEMFILE_LISTBLOCK_SIZE;
    case FILETYPE_DATA: return 65536;
    case FILETYPE_BTREEINDEX: return 16384;
    case FILETYPE_KVINDEX: return 65536;
    default: return 0;
    }
}

bool DbPlanMemoryFile(BYTE bFileType, long long nFileSize, int nMaxObjectNum, int nBlockSize, LPDBMEMFILEPLAN lpPlan)
{
    if (lpPlan == nullptr || bFileType < FILETYPE_DATA || bFileType > FILETYPE_KVINDEX) return false;
    if (nMaxObjectNum < 1 || nMaxObjectNum > 1000000) return false;
    if (nBlockSize < (int)sizeof(BLOCKHEAD) || !DbIsAligned(nBlockSize) || !DbIsAligned(nFileSize)) return false;
    memset(lpPlan, 0, sizeof(*lpPlan));
    lpPlan->m_bFileType = bFileType;
    lpPlan->m_nFileSize = nFileSize;
    lpPlan->m_nMaxObjectNum = nMaxObjectNum;
    lpPlan->m_nObjectInfoOffset = DB_MEMFILE_OBJECTINFO_OFFSET;
    lpPlan->m_nHeaderSize =
        (int)DbAlignUp(DB_MEMFILE_OBJECTINFO_OFFSET + (long long)nMaxObjectNum * sizeof(BASEFILEOBJECTDEF));
    lpPlan->m_nBlockMapSize = DB_MEMFILE_BLOCKMAP_SIZE;
    lpPlan->m_nMaxBlockMapNum = DbMaxBlockMapNum(DB_MEMFILE_BLOCKMAP_SIZE);
    lpPlan->m_nBlockMapStartOffset = lpPlan->m_nHeaderSize;
    lpPlan->m_nBlockStartOffset = lpPlan->m_nBlockMapStartOffset + 2LL * DB_MEMFILE_BLOCKMAP_SIZE;
    lpPlan->m_nFirstBlockSize = nBlockSize;
    lpPlan->m_nFreeOffset = lpPlan->m_nBlockStartOffset + nBlockSize;
    return lpPlan->m_nFreeOffset <= nFileSize;
}

namespace {

// Map block 1 with nEntries entries: block k at entry k - 1, the blocks laid
// one behind the other from nFirstBlock on.
void BuildMapBlock(LPBYTE lpBuf, long long nMapOffset, long long nFirstBlock, int nBlockSize, int nEntries)
{
    LPBASEFILEBLOCKMAPHEAD lpMap = (LPBASEFILEBLOCKMAPHEAD)(lpBuf + nMapOffset);
    lpMap->m_nDataFlag = BLOCKMAP_DATAFLAG;
    lpMap->m_nBlockMapNum = nEntries;
    lpMap->m_nMapNo = 1;
    lpMap->m_nNextBlockMapOffset = 0;
    for (int i = 0; i < nEntries; i++) {
        LPBASEFILEBLOCKMAP lpEntry = (LPBASEFILEBLOCKMAP)(lpBuf + DbMapEntryOffset(nMapOffset, i));
        lpEntry->m_nBlockNo = (UINT)(i + 1);
        lpEntry->m_nBlockOffset = nFirstBlock + (long long)i * nBlockSize;
        lpEntry->m_nNextOffset = 0;
    }
}

void CopyMasterToSlave(LPBYTE lpBuf, long long nMapOffset, int nMapSize)
{
    memcpy(lpBuf + DbSlaveMapOffset(nMapOffset, nMapSize), lpBuf + nMapOffset, (size_t)nMapSize);
}

void CopyText(char* lpDst, size_t nSize, const char* lpSrc)
{
    memset(lpDst, 0, nSize);
    if (lpSrc != nullptr) strncpy(lpDst, lpSrc, nSize - 1);
}

} // namespace

bool DbBuildMemoryFile(const DBMEMFILEPLAN& stPlan, BYTE bFileNo, USHORT usDatabaseGuid, LPBYTE lpBuf,
                       long long nBufSize)
{
    if (lpBuf == nullptr || nBufSize < stPlan.m_nFreeOffset || bFileNo < 2) return false;
    memset(lpBuf, 0, (size_t)stPlan.m_nFreeOffset);
    LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)lpBuf;
    lpHead->m_nDataFlag = FileHeadDataFlag(stPlan.m_bFileType);
    lpHead->m_bFileNo = bFileNo;
    lpHead->m_bFileType = stPlan.m_bFileType;
    lpHead->m_usDatabaseGuid = usDatabaseGuid;
    lpHead->m_nBlockNum = 1;
    lpHead->m_nMaxObjectNum = stPlan.m_nMaxObjectNum;
    lpHead->m_nFileTotalSize = stPlan.m_nFileSize;
    lpHead->m_nFileHeaderSize = stPlan.m_nHeaderSize;
    lpHead->m_nBlockMapStructSize = BLOCKMAP_STRUCT_SIZE_MEMORY;
    lpHead->m_nBlockMapSize = stPlan.m_nBlockMapSize;
    lpHead->m_nBlockMapStartOffset = (int)stPlan.m_nBlockMapStartOffset;
    lpHead->m_nObjectInfoOffset = stPlan.m_nObjectInfoOffset;
    lpHead->m_nBlockStartOffset = stPlan.m_nBlockStartOffset;
    lpHead->m_nFileFreeMemoryOffset = stPlan.m_nFreeOffset;
    lpHead->m_nMaxBlockMapNum = stPlan.m_nMaxBlockMapNum;

    long long nBlockOffset = stPlan.m_nBlockStartOffset;
    BuildMapBlock(lpBuf, stPlan.m_nBlockMapStartOffset, nBlockOffset, stPlan.m_nFirstBlockSize, 1);
    // The pass saves a data file object by object, along the chains: a block
    // on no chain would never reach the disk. Block 1 starts as the one block
    // with room of the file's first object. Index files are saved along
    // their maps and keep their objects empty.
    if (stPlan.m_bFileType == FILETYPE_DATA) {
        LPBASEFILEOBJECTDEF lpObject = DbMemoryFileObject(lpBuf, stPlan.m_nFreeOffset, DB_MEMFILE_FIRST_OBJECT_ENTRY);
        if (lpObject == nullptr) return false;
        lpObject->m_nID = DB_MEMFILE_FIRST_OBJECT_ID;
        lpObject->m_nFreeBlockMapOffset = DbMapEntryOffset(stPlan.m_nBlockMapStartOffset, 0);
        lpHead->m_nCurrentObjectNum = 1;
    }
    CopyMasterToSlave(lpBuf, stPlan.m_nBlockMapStartOffset, stPlan.m_nBlockMapSize);

    LPBLOCKHEAD lpBlock = (LPBLOCKHEAD)(lpBuf + nBlockOffset);
    lpBlock->m_nDataFlag = BLOCK_DATAFLAG;
    lpBlock->m_nBlockNo = 1;
    lpBlock->m_nBlockSize = stPlan.m_nFirstBlockSize;
    lpBlock->m_nBlockHeadSize = (int)sizeof(BLOCKHEAD);
    lpBlock->m_bFileNo = bFileNo;
    lpBlock->m_nBlockDataStructSize = (BYTE)sizeof(BLOCKDATASTRUCT);
    lpBlock->m_nInnerMaxNo = 1;  // no record slot yet
    lpBlock->m_nDataInsertOffset = (int)sizeof(BLOCKHEAD);
    lpBlock->m_nVarDataInsertOffset = stPlan.m_nFirstBlockSize;
    lpBlock->m_nFreeDataOffset = (int)sizeof(BLOCKHEAD);
    lpBlock->m_nVarDataAllocOffset = stPlan.m_nFirstBlockSize;
    return true;
}

bool DbPlanSystemFile(int nRows, int nListBlockSize, long long nFileSize, LPDBSYSFILEPLAN lpPlan)
{
    if (lpPlan == nullptr || nRows < 0 || !DbIsAligned(nListBlockSize) || !DbIsAligned(nFileSize)) return false;
    int nPerBlock = (nListBlockSize - DB_SYSTEMBLOCK_HEAD_SIZE) / (int)sizeof(FILE_MEMDBFILEINFO);
    if (nPerBlock < 1) return false;
    memset(lpPlan, 0, sizeof(*lpPlan));
    lpPlan->m_nFileSize = nFileSize;
    lpPlan->m_nHeaderSize = DB_SYSTEMFILE_HEADER_SIZE;
    lpPlan->m_nBlockMapSize = SYSTEMFILE_BLOCKMAP_SIZE;
    lpPlan->m_nBlockMapStartOffset = DB_SYSTEMFILE_HEADER_SIZE;
    lpPlan->m_nBlockStartOffset = lpPlan->m_nBlockMapStartOffset + 2LL * SYSTEMFILE_BLOCKMAP_SIZE;
    lpPlan->m_nListBlockSize = nListBlockSize;
    lpPlan->m_nRowsPerBlock = nPerBlock;
    lpPlan->m_nRows = nRows;
    lpPlan->m_nListBlocks = nRows == 0 ? 1 : (nRows + nPerBlock - 1) / nPerBlock;
    if (lpPlan->m_nListBlocks > DbMaxBlockMapNum(SYSTEMFILE_BLOCKMAP_SIZE)) return false;
    lpPlan->m_nFreeOffset = lpPlan->m_nBlockStartOffset + (long long)lpPlan->m_nListBlocks * nListBlockSize;
    static_assert(sizeof(SYSTEMFILEHEAD) <= DB_SYSTEMFILE_HEADER_SIZE, "system head fits its region");
    return lpPlan->m_nFreeOffset <= nFileSize;
}

void DbSetDefaultParameters(LPSYSTEMFILEHEAD lpHead)
{
    // Values the ini also sets: the defaults of its keys.
    lpHead->m_nProcesses = 512;
    lpHead->m_nTCPListenPort = 8000;
    lpHead->m_nTalvorVirtualPort = 8000;
    lpHead->m_nMySQLListenPort = 3306;
    lpHead->m_nAutoCommit = 1;
    lpHead->m_nAutoIncrementIncrement = 1;
    lpHead->m_nAutoIncrementOffset = 1;
    lpHead->m_nWaitTimeout = 28800;
    lpHead->m_nInteractiveTimeout = 28800;
    lpHead->m_nMaxPacketSize = 33554432;
    lpHead->m_nSkipNameResolve = 1;
    lpHead->m_nNetReadTimeout = 300;
    lpHead->m_nNetWriteTimeout = 60;
    lpHead->m_nNetRetryCount = 100;
    lpHead->m_nLockWaitTimeout = 180;
    lpHead->m_nObjectTransactionMaxNum = 1000;
    lpHead->m_nMemoryUndoSize = 256;
    lpHead->m_nMemoryProcessSize = 2 * (int)DB_MIB;
    lpHead->m_nPersistenceIntervals = 3;
    lpHead->m_nTalvorBufferCacheSize = 0;
    lpHead->m_nBackLog = 256;
    lpHead->m_nUndoRetention = 30;
    // Values no ini key sets.
    lpHead->m_nWriteUndoDelayTime = 1;           // seconds
    lpHead->m_nWriteRedoOnlineGroups = 3;
    lpHead->m_nWriteRedoMaxSize = 16 * (int)DB_MIB;
    lpHead->m_nWriteTraceMaxSize = 0x1400000;    // 20 MiB
    lpHead->m_nTalvorActiveLogTime = 60;         // seconds
    lpHead->m_nBlockDataSize = DbDefaultBlockSize(FILETYPE_DATA);
    lpHead->m_nBlockBTreeIndexSize = DbDefaultBlockSize(FILETYPE_BTREEINDEX);
    lpHead->m_nBlockBTreeDataSize = DbDefaultBlockSize(FILETYPE_DATA);
    lpHead->m_nBlockHashIndexSize = DbDefaultBlockSize(FILETYPE_KVINDEX);
    lpHead->m_nBlockUsedRatio = 90;
    lpHead->m_nBlockInsertMaxUseRatio = 90;
    lpHead->m_nBlockFreeRatio = 20;
    lpHead->m_nBlockReorganizeRatio = 50;
    lpHead->m_nBlockRecycleRatio = 50;
    lpHead->m_nMemoryFileWarningSize = 512;      // MiB
    lpHead->m_nDiskFileWarningSize = 512;        // MiB
    lpHead->m_nTransactionLogicTimeout = 30;     // seconds
}

bool DbBuildSystemFile(const DBSYSFILEPLAN& stPlan, const FILE_MEMDBFILEINFO* arRows, USHORT usDatabaseGuid,
                       const char* lpszDatabaseName, const char* lpszDatabasePath, LPBYTE lpBuf, long long nBufSize)
{
    if (lpBuf == nullptr || nBufSize < stPlan.m_nFreeOffset || (stPlan.m_nRows > 0 && arRows == nullptr)) return false;
    memset(lpBuf, 0, (size_t)stPlan.m_nFreeOffset);
    LPSYSTEMFILEHEAD lpHead = (LPSYSTEMFILEHEAD)lpBuf;
    lpHead->m_nDataFlag = SYSTEMFILE_DATAFLAG;
    lpHead->m_bFileNo = SYSTEMFILE_FILENO;
    lpHead->m_bFileType = FILETYPE_SYSTEM;
    lpHead->m_usDatabaseGuid = usDatabaseGuid;
    lpHead->m_nBlockNum = (UINT)stPlan.m_nListBlocks;
    lpHead->m_nMaxObjectNum = SYSTEMFILE_OBJECT_NUM;
    lpHead->m_nCurrentObjectNum = 1;
    lpHead->m_nFileTotalSize = stPlan.m_nFileSize;
    lpHead->m_nFileHeaderSize = stPlan.m_nHeaderSize;
    lpHead->m_nBlockMapStructSize = BLOCKMAP_STRUCT_SIZE_MEMORY;
    lpHead->m_nBlockMapSize = stPlan.m_nBlockMapSize;
    lpHead->m_nBlockMapStartOffset = (int)stPlan.m_nBlockMapStartOffset;
    lpHead->m_nObjectInfoOffset = (int)offsetof(SYSTEMFILEHEAD, m_stFileObject);
    lpHead->m_nBlockStartOffset = stPlan.m_nBlockStartOffset;
    lpHead->m_nInnerMaxNo = (UINT)stPlan.m_nRows;
    // The number the first redo log gets: 0 would be taken for "no log".
    lpHead->m_nRedoLogMaxID = DB_FIRST_REDO_LOG_NO;
    lpHead->m_nFileFreePos = stPlan.m_nFreeOffset;
    lpHead->m_nMaxBlockMapNum = DbMaxBlockMapNum(stPlan.m_nBlockMapSize);
    lpHead->m_nVersion = DB_FORMAT_VERSION;
    lpHead->m_nObjectMaxID = SYSTEMFILE_FILELIST_OBJECTID;
    CopyText(lpHead->m_cDatabaseName, sizeof(lpHead->m_cDatabaseName), lpszDatabaseName);
    CopyText(lpHead->m_cDatabasePath, sizeof(lpHead->m_cDatabasePath), lpszDatabasePath);
    DbSetDefaultParameters(lpHead);

    BYTE bMaxNo = SYSTEMFILE_FILENO;
    for (int i = 0; i < stPlan.m_nRows; i++)
        if (arRows[i].m_bFileNo > bMaxNo) bMaxNo = arRows[i].m_bFileNo;
    lpHead->m_bFileMaxNo = bMaxNo;

    BuildMapBlock(lpBuf, stPlan.m_nBlockMapStartOffset, stPlan.m_nBlockStartOffset, stPlan.m_nListBlockSize,
                  stPlan.m_nListBlocks);

    int nRow = 0;
    long long nPrevFull = 0;  // entry offset of the last full block, to link the next one
    LPBASEFILEOBJECTDEF lpObject = DbFileListObject(lpHead);
    lpObject->m_nID = SYSTEMFILE_FILELIST_OBJECTID;
    for (int b = 0; b < stPlan.m_nListBlocks; b++) {
        LPSYSTEMBLOCKHEAD lpBlock =
            (LPSYSTEMBLOCKHEAD)(lpBuf + stPlan.m_nBlockStartOffset + (long long)b * stPlan.m_nListBlockSize);
        int nInBlock = stPlan.m_nRows - nRow < stPlan.m_nRowsPerBlock ? stPlan.m_nRows - nRow : stPlan.m_nRowsPerBlock;
        lpBlock->m_nDataFlag = BLOCK_DATAFLAG;
        lpBlock->m_nBlockNo = (UINT)(b + 1);
        lpBlock->m_nBlockSize = stPlan.m_nListBlockSize;
        lpBlock->m_nBlockHeadSize = DB_SYSTEMBLOCK_HEAD_SIZE;
        lpBlock->m_bFileNo = SYSTEMFILE_FILENO;
        lpBlock->m_bFullFlag = nInBlock == stPlan.m_nRowsPerBlock ? 1 : 0;
        lpBlock->m_nObjectID = SYSTEMFILE_FILELIST_OBJECTID;
        lpBlock->m_nDataInsertOffset = DB_SYSTEMBLOCK_HEAD_SIZE + nInBlock * (int)sizeof(FILE_MEMDBFILEINFO);
        lpBlock->m_nVarDataInsertOffset = stPlan.m_nListBlockSize;
        lpBlock->m_nBlockDataStructSize = (int)sizeof(FILE_MEMDBFILEINFO);
        lpBlock->m_nDataNum = nInBlock;
        LPFILE_MEMDBFILEINFO lpRows = (LPFILE_MEMDBFILEINFO)((LPBYTE)lpBlock + DB_SYSTEMBLOCK_HEAD_SIZE);
        for (int i = 0; i < nInBlock; i++, nRow++) {
            lpRows[i] = arRows[nRow];
            lpRows[i].m_nInnerNo = nRow + 1;
        }
        lpBlock->m_nInnerMaxNo = (UINT)nRow;

        long long nEntry = DbMapEntryOffset(stPlan.m_nBlockMapStartOffset, b);
        if (lpBlock->m_bFullFlag) {
            if (nPrevFull == 0)
                lpObject->m_nFullBlockMapOffset = nEntry;
            else
                ((LPBASEFILEBLOCKMAP)(lpBuf + nPrevFull))->m_nNextOffset = nEntry;
            nPrevFull = nEntry;
        } else {
            lpObject->m_nFreeBlockMapOffset = nEntry;  // only the last block can have room
        }
    }
    CopyMasterToSlave(lpBuf, stPlan.m_nBlockMapStartOffset, stPlan.m_nBlockMapSize);
    return true;
}
