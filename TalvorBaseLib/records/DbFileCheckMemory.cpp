// DbFileCheckMemory.cpp — a memory-mode file (the system file too): its
// head, then the map blocks, every block a map names, and the object chains.
//
// On disk the master position of each map holds the map as of the last
// save, so chains are followed there (read delta 0). A block whose head is
// still all zero on an object's chain is one the engine had not finished:
// not damage.
#include "DbFileCheck.h"

#include "DbFileLayout.h"
#include "TalvorFileIO.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

struct MemoryWalk {
    CDbChecker* m_pChecker;
    LPDBFILESUMMARY m_pFile;
    const BYTE* m_lpImage;
    long long m_nSize;
    const BASEFILEHEAD* Head() const { return (const BASEFILEHEAD*)m_lpImage; }
};

void CheckBlock(MemoryWalk& w, long long nEntryOffset, const BASEFILEBLOCKMAP& stEntry)
{
    long long nAt = stEntry.m_nBlockOffset;
    if (stEntry.m_nBlockNo == 0 && nAt == 0) return;
    // A head's block start may itself be damage: the file's bounds come first.
    if (nAt <= 0 || nAt < w.Head()->m_nBlockStartOffset || nAt > w.m_nSize - (long long)sizeof(BASEBLOCKHEAD)) {
        w.m_pChecker->Report(DBCHECK_BOUND, w.m_pFile, nEntryOffset,
                             "the map entry of block %u points at %lld, outside the block area [%lld, %lld)",
                             stEntry.m_nBlockNo, nAt, (long long)w.Head()->m_nBlockStartOffset, w.m_nSize);
        return;
    }
    BASEBLOCKHEAD stBlock;
    memcpy(&stBlock, w.m_lpImage + nAt, sizeof(stBlock));
    if (stBlock.m_nDataFlag == 0 && stBlock.m_nBlockNo == 0) return;
    w.m_pFile->m_nBlocksChecked++;
    if (stBlock.m_nDataFlag != BLOCK_DATAFLAG) {
        w.m_pChecker->Report(DBCHECK_MARK, w.m_pFile, nAt, "block %u has the mark 0x%08X, not 0x%08X (QNDB)",
                             stEntry.m_nBlockNo, (UINT)stBlock.m_nDataFlag, (UINT)BLOCK_DATAFLAG);
        return;
    }
    if (stBlock.m_nBlockSize <= 0 || stBlock.m_nBlockSize > w.m_nSize - nAt)
        w.m_pChecker->Report(DBCHECK_BOUND, w.m_pFile, nAt, "block %u of %d bytes runs past the end of the file",
                             stEntry.m_nBlockNo, stBlock.m_nBlockSize);
    if (stBlock.m_nBlockNo != stEntry.m_nBlockNo)
        w.m_pChecker->Report(DBCHECK_HEAD, w.m_pFile, nAt, "the block says it is number %u, its map entry says %u",
                             (UINT)stBlock.m_nBlockNo, stEntry.m_nBlockNo);
    if (stBlock.m_bFileNo != w.m_pFile->m_bFileNo)
        w.m_pChecker->Report(DBCHECK_HEAD, w.m_pFile, nAt, "block %u says it belongs to file %d", stEntry.m_nBlockNo,
                             (int)stBlock.m_bFileNo);
}

// TRUE when the map block at nOffset lies whole in the image and has its mark.
BOOL CheckMapBlock(MemoryWalk& w, long long nOffset, int nMapSize)
{
    if (nOffset <= 0 || nOffset > w.m_nSize - nMapSize) {
        w.m_pChecker->Report(DBCHECK_BOUND, w.m_pFile, nOffset, "a map block of %d bytes at %lld lies outside the file",
                             nMapSize, nOffset);
        return FALSE;
    }
    BASEFILEBLOCKMAPHEAD stMap;
    memcpy(&stMap, w.m_lpImage + nOffset, sizeof(stMap));
    if (stMap.m_nDataFlag != BLOCKMAP_DATAFLAG) {
        w.m_pChecker->Report(DBCHECK_MARK, w.m_pFile, nOffset, "the map block has the mark 0x%08X, not 0x%08X (QNMB)",
                             (UINT)stMap.m_nDataFlag, (UINT)BLOCKMAP_DATAFLAG);
        return FALSE;
    }
    int nMax = DbMaxBlockMapNum(nMapSize);
    if (stMap.m_nBlockMapNum < 0 || stMap.m_nBlockMapNum > nMax) {
        w.m_pChecker->Report(DBCHECK_BOUND, w.m_pFile, nOffset + 4, "the map block claims %d entries; it holds %d",
                             stMap.m_nBlockMapNum, nMax);
        return FALSE;
    }
    return TRUE;
}

void WalkMapBlocks(MemoryWalk& w)
{
    const int nMapSize = w.Head()->m_nBlockMapSize;
    if (nMapSize < (int)sizeof(BASEFILEBLOCKMAPHEAD)) return;  // told with the head
    // Each map block takes two map sizes (master and copy): more steps than
    // fit the file can only be a loop.
    const long long nMaxSteps = w.m_nSize / nMapSize + 1;
    long long* arSeen = (long long*)malloc((size_t)nMaxSteps * sizeof(long long));
    if (arSeen == nullptr) return;
    long long nSeen = 0;
    for (long long nOffset = w.Head()->m_nBlockMapStartOffset; nOffset != 0;) {
        BOOL bLoop = nSeen >= nMaxSteps;
        for (long long i = 0; i < nSeen && !bLoop; i++) bLoop = arSeen[i] == nOffset;
        if (bLoop) {
            w.m_pChecker->Report(DBCHECK_LOOP, w.m_pFile, nOffset, "the chain of map blocks comes back to %lld", nOffset);
            break;
        }
        arSeen[nSeen++] = nOffset;
        if (!CheckMapBlock(w, nOffset, nMapSize)) break;
        BASEFILEBLOCKMAPHEAD stMap;
        memcpy(&stMap, w.m_lpImage + nOffset, sizeof(stMap));
        w.m_pFile->m_nMapBlocks++;
        for (int i = 0; i < stMap.m_nBlockMapNum; i++) {
            long long nEntry = DbMapEntryOffset(nOffset, i);
            BASEFILEBLOCKMAP stEntry;
            memcpy(&stEntry, w.m_lpImage + nEntry, sizeof(stEntry));
            w.m_pFile->m_nMapEntries++;
            CheckBlock(w, nEntry, stEntry);
        }
        nOffset = stMap.m_nNextBlockMapOffset;
    }
    free(arSeen);
}

void CheckChain(MemoryWalk& w, int nEntry, int nID, const char* lpWhich, long long nFirst)
{
    long long nBad = 0;
    int nResult = DbCheckMapChain(w.m_lpImage, w.m_nSize, nFirst, 0, &nBad, nullptr);
    if (nResult == DBCHAIN_LOOP)
        w.m_pChecker->Report(DBCHECK_LOOP, w.m_pFile, nBad, "the %s chain of object %d (entry %d) comes back to %lld",
                             lpWhich, nID, nEntry, nBad);
    else if (nResult == DBCHAIN_OUTSIDE)
        w.m_pChecker->Report(DBCHECK_BOUND, w.m_pFile, nBad,
                             "the %s chain of object %d (entry %d) reaches an entry at %lld outside the file", lpWhich,
                             nID, nEntry, nBad);
}

void WalkObjects(MemoryWalk& w)
{
    const BASEFILEHEAD* h = w.Head();
    int nObjects = w.m_pFile->m_bFileType == FILETYPE_SYSTEM ? SYSTEMFILE_OBJECT_NUM : h->m_nMaxObjectNum;
    long long nTable = h->m_nObjectInfoOffset;
    if (nObjects < 0 || nTable < (long long)sizeof(BASEFILEHEAD) ||
        nTable + (long long)nObjects * (long long)sizeof(BASEFILEOBJECTDEF) > w.m_nSize) {
        w.m_pChecker->Report(DBCHECK_BOUND, w.m_pFile, 54, "the object table (%d entries at %lld) lies outside the file",
                             nObjects, nTable);
        return;
    }
    for (int i = 0; i < nObjects; i++) {
        BASEFILEOBJECTDEF stObject;
        memcpy(&stObject, w.m_lpImage + nTable + (long long)i * sizeof(BASEFILEOBJECTDEF), sizeof(stObject));
        if (stObject.m_nID == 0) continue;
        w.m_pFile->m_nObjectsInUse++;
        CheckChain(w, i, stObject.m_nID, "full-block", stObject.m_nFullBlockMapOffset);
        CheckChain(w, i, stObject.m_nID, "free-room", stObject.m_nFreeBlockMapOffset);
    }
}

void CheckMemoryHead(CDbChecker* pChecker, LPDBFILESUMMARY p, const BASEFILEHEAD* h, long long nSize, USHORT usGuid)
{
    if (h->m_nDataFlag != FileHeadDataFlag(p->m_bFileType))
        pChecker->Report(DBCHECK_MARK, p, 0, "the head's mark is 0x%08X, not 0x%08X for a %s file", (UINT)h->m_nDataFlag,
                         (UINT)FileHeadDataFlag(p->m_bFileType), DbFileTypeName(p->m_bFileType));
    if (h->m_bFileNo != p->m_bFileNo || h->m_bFileType != p->m_bFileType)
        pChecker->Report(DBCHECK_HEAD, p, 12, "the head names file %d of type %d; the list says file %d of type %d",
                         h->m_bFileNo, h->m_bFileType, p->m_bFileNo, p->m_bFileType);
    if (h->m_usDatabaseGuid != usGuid)
        pChecker->Report(DBCHECK_HEAD, p, 16, "the head belongs to database %u, not %u", (UINT)h->m_usDatabaseGuid,
                         (UINT)usGuid);
    if (h->m_nFileTotalSize != nSize)
        pChecker->Report(DBCHECK_BOUND, p, 30, "the head gives a size of %lld bytes, the file has %lld",
                         (long long)h->m_nFileTotalSize, nSize);
    if (h->m_nFileFreeMemoryOffset < h->m_nBlockStartOffset || h->m_nFileFreeMemoryOffset > nSize)
        pChecker->Report(DBCHECK_BOUND, p, 78, "the free offset %lld lies outside the block area [%lld, %lld]",
                         (long long)h->m_nFileFreeMemoryOffset, (long long)h->m_nBlockStartOffset, nSize);
    if (h->m_nBlockMapStartOffset < h->m_nFileHeaderSize ||
        (long long)h->m_nBlockMapStartOffset + 2LL * h->m_nBlockMapSize > nSize)
        pChecker->Report(DBCHECK_BOUND, p, 50, "the first map (%d bytes at %d, and its copy) lies outside the file",
                         h->m_nBlockMapSize, h->m_nBlockMapStartOffset);
}

void FillSummary(LPDBFILESUMMARY p, const BASEFILEHEAD* h)
{
    p->m_bHeadRead = TRUE;
    p->m_nDataFlag = h->m_nDataFlag;
    p->m_bHeadFileNo = h->m_bFileNo;
    p->m_bHeadFileType = h->m_bFileType;
    p->m_usDatabaseGuid = h->m_usDatabaseGuid;
    p->m_nTimestamp = h->m_nTimestamp;
    p->m_nFileTotalSize = h->m_nFileTotalSize;
    p->m_nFreeOffset = h->m_nFileFreeMemoryOffset;
    p->m_nBlockNum = h->m_nBlockNum;
    p->m_nMaxObjectNum = h->m_nMaxObjectNum;
    p->m_nCurrentObjectNum = h->m_nCurrentObjectNum;
    p->m_nHeaderSize = h->m_nFileHeaderSize;
    p->m_nBlockMapSize = h->m_nBlockMapSize;
    p->m_nBlockMapStartOffset = h->m_nBlockMapStartOffset;
    p->m_nBlockStartOffset = h->m_nBlockStartOffset;
}

} // namespace

void DbWalkMemoryImage(CDbChecker* pChecker, LPDBFILESUMMARY pFile, const BYTE* lpImage, long long nSize)
{
    if (nSize < (long long)sizeof(BASEFILEHEAD)) return;
    MemoryWalk w = {pChecker, pFile, lpImage, nSize};
    WalkMapBlocks(w);
    WalkObjects(w);
}

void DbCheckMemoryFile(CDbChecker* pChecker, LPDBFILESUMMARY pFile, int fd, USHORT usGuid, BOOL bWalk)
{
    long long nSize = 0;
    LPBYTE lpImage = DbReadWholeFile(fd, &nSize);
    if (lpImage == nullptr) {
        pChecker->Report(DBCHECK_READ, pFile, -1, "cannot read the file: %s", strerror(errno));
        return;
    }
    if (nSize < (long long)sizeof(BASEFILEHEAD)) {
        pChecker->Report(DBCHECK_HEAD, pFile, 0, "the file has %lld bytes, fewer than a head", nSize);
        free(lpImage);
        return;
    }
    const BASEFILEHEAD* h = (const BASEFILEHEAD*)lpImage;
    FillSummary(pFile, h);
    CheckMemoryHead(pChecker, pFile, h, nSize, usGuid);
    if (bWalk) DbWalkMemoryImage(pChecker, pFile, lpImage, nSize);
    free(lpImage);
}
