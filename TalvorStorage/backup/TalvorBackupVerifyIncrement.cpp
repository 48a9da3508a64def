// TalvorBackupVerifyIncrement.cpp — the walk of a changed file's pages in an
// incremental backup.
//
// The writer lays a changed file out as one run: a page, the pieces its
// items name in item order, the next page where the last piece ended, and
// so on, the first piece being the file's head. Each page is first written
// as a place-holder (no items, no next page) and rewritten when it is full
// or the file ends, so the walk demands exactly that run: a page or a piece
// anywhere else, a chain that ends before the record's data end or runs
// past it, is a backup whose writer did not finish or whose bytes moved.
#include "TalvorBackupVerify.h"
#include "TalvorBackupVerifyCore.h"

#include <cstddef>
#include <cstring>
#include <new>

namespace {

// Where the walk of one file stands.
struct IncrementWalk {
    long long m_nPos; // where the next page or piece must start
    long long m_nEnd; // the record's data end
    int m_nPageNum;   // pages read so far
    int m_nItemNum;   // items checked so far, over all pages
};

// A page that is no page, or one that holds no item or more than fit.
int CheckPageHead(const BACKUPINCREMENTHEAD& stPage, const STRUCT_BACKUP_FILEINFO& stRecord, long long nPagePos,
                  LPBACKUPVERIFYREPORT pReport)
{
    if (stPage.m_nDataFlag != BACKUP_INCREMENT_FLAG)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADPAGE, "file %d: page at %lld has mark 0x%08X, not 0x%08X",
                                  (int)stRecord.m_bFileNo, nPagePos, (unsigned)stPage.m_nDataFlag,
                                  (unsigned)BACKUP_INCREMENT_FLAG);
    if (stPage.m_nBlockSize != BACKUP_INCREMENT_PAGE_SIZE)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADPAGE, "file %d: page at %lld gives a size of %d, not %d",
                                  (int)stRecord.m_bFileNo, nPagePos, stPage.m_nBlockSize, BACKUP_INCREMENT_PAGE_SIZE);
    // A place-holder never rewritten holds no item: every page the writer
    // finishes holds at least one.
    if (stPage.m_nIncrementBlockNum < 1 || stPage.m_nIncrementBlockNum > BACKUP_INCREMENT_MAX_ITEMS)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADPAGE, "file %d: page at %lld holds %d items, not 1..%d",
                                  (int)stRecord.m_bFileNo, nPagePos, stPage.m_nIncrementBlockNum,
                                  BACKUP_INCREMENT_MAX_ITEMS);
    return BACKUPVERIFY_WHOLE;
}

// The item lies where the run has come to and names a place in the file;
// the file's head comes first and only first.
int CheckItemPlace(const BACKUPINCREMENTITEM& stItem, const STRUCT_BACKUP_FILEINFO& stRecord,
                   const IncrementWalk& stWalk, LPBACKUPVERIFYREPORT pReport)
{
    int nFileNo = stRecord.m_bFileNo;
    int nItem = stWalk.m_nItemNum + 1;
    long long nDataPos = stItem.m_nBlockDataPos;
    long long nFilePos = stItem.m_nBlockFilePos;
    if (stItem.m_nBlockType < BACKUPITEM_FILEHEAD || stItem.m_nBlockType > BACKUPITEM_DATABLOCK)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADPAGE, "file %d, item %d: unknown type %d", nFileNo, nItem,
                                  (int)stItem.m_nBlockType);
    if ((stWalk.m_nItemNum == 0) != (stItem.m_nBlockType == BACKUPITEM_FILEHEAD))
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADPAGE, "file %d, item %d: type %d, the head comes first only",
                                  nFileNo, nItem, (int)stItem.m_nBlockType);
    if (stItem.m_nBlockType == BACKUPITEM_FILEHEAD &&
        (nFilePos != 0 || stItem.m_nBlockSize != stRecord.m_nFileHeaderSize))
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADPAGE,
                                  "file %d: the head item is %d bytes at %lld, not the head of %d bytes at 0", nFileNo,
                                  stItem.m_nBlockSize, nFilePos, stRecord.m_nFileHeaderSize);
    if (stItem.m_nBlockSize <= 0 || nDataPos != stWalk.m_nPos || stItem.m_nBlockSize > stWalk.m_nEnd - nDataPos)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADPAGE,
                                  "file %d, item %d: %d bytes at %lld, where the data runs from %lld to %lld", nFileNo,
                                  nItem, stItem.m_nBlockSize, nDataPos, stWalk.m_nPos, stWalk.m_nEnd);
    if (nFilePos < 0 || nFilePos > stRecord.m_nFileSize - stItem.m_nBlockSize)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADPAGE,
                                  "file %d, item %d: %d bytes for offset %lld of a file of %lld", nFileNo, nItem,
                                  stItem.m_nBlockSize, nFilePos, stRecord.m_nFileSize);
    return BACKUPVERIFY_WHOLE;
}

// A copied map block carries its mode's mark and the number its item gives.
int CheckMapPiece(int fd, const BACKUPINCREMENTITEM& stItem, const STRUCT_BACKUP_FILEINFO& stRecord,
                  LPBACKUPVERIFYREPORT pReport)
{
    // The mark and the number lie at the same places in both modes; the
    // head of the memory mode is the shorter one.
    BASEFILEBLOCKMAPHEAD stMap;
    if (stItem.m_nBlockSize < (int)sizeof(stMap))
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADPAGE, "file %d: a map block of %d bytes",
                                  (int)stRecord.m_bFileNo, stItem.m_nBlockSize);
    if (BackupVerifyRead(fd, &stMap, sizeof(stMap), stItem.m_nBlockDataPos, "a map block", pReport) !=
        BACKUPVERIFY_WHOLE)
        return pReport->m_nStatus;
    int nMark = IsCacheFileType(stRecord.m_bFileType) ? BLOCKMAP_CACHE_DATAFLAG : BLOCKMAP_DATAFLAG;
    if (stMap.m_nDataFlag != nMark || stMap.m_nMapNo != stItem.m_nBlockNo)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADMARK,
                                  "file %d: map block %d at %lld has mark 0x%08X and number %d",
                                  (int)stRecord.m_bFileNo, stItem.m_nBlockNo, stItem.m_nBlockDataPos,
                                  (unsigned)stMap.m_nDataFlag, stMap.m_nMapNo);
    return BACKUPVERIFY_WHOLE;
}

// A copied block carries the block mark, its item's number and its size.
int CheckBlockPiece(int fd, const BACKUPINCREMENTITEM& stItem, const STRUCT_BACKUP_FILEINFO& stRecord,
                    LPBACKUPVERIFYREPORT pReport)
{
    BASEBLOCKHEAD stBlock;
    if (stItem.m_nBlockSize < (int)sizeof(stBlock))
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADPAGE, "file %d: a block of %d bytes",
                                  (int)stRecord.m_bFileNo, stItem.m_nBlockSize);
    if (BackupVerifyRead(fd, &stBlock, sizeof(stBlock), stItem.m_nBlockDataPos, "a block", pReport) !=
        BACKUPVERIFY_WHOLE)
        return pReport->m_nStatus;
    if (stBlock.m_nDataFlag != BLOCK_DATAFLAG || stBlock.m_nBlockNo != (UINT)stItem.m_nBlockNo ||
        stBlock.m_nBlockSize != stItem.m_nBlockSize)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADMARK,
                                  "file %d: block %d at %lld has mark 0x%08X, number %u and size %d (item: %d bytes)",
                                  (int)stRecord.m_bFileNo, stItem.m_nBlockNo, stItem.m_nBlockDataPos,
                                  (unsigned)stBlock.m_nDataFlag, (unsigned)stBlock.m_nBlockNo, stBlock.m_nBlockSize,
                                  stItem.m_nBlockSize);
    return BACKUPVERIFY_WHOLE;
}

int CheckItem(int fd, const BACKUPINCREMENTITEM& stItem, const STRUCT_BACKUP_FILEINFO& stRecord, IncrementWalk* pWalk,
              LPBACKUPRESTOREITEM pItem, LPBACKUPVERIFYREPORT pReport)
{
    if (CheckItemPlace(stItem, stRecord, *pWalk, pReport) != BACKUPVERIFY_WHOLE) return pReport->m_nStatus;
    int nResult = BACKUPVERIFY_WHOLE;
    if (stItem.m_nBlockType == BACKUPITEM_FILEHEAD)
        nResult = BackupVerifyCopiedHead(fd, stRecord, stItem.m_nBlockDataPos, pItem, pReport);
    else if (stItem.m_nBlockType == BACKUPITEM_MAPBLOCK)
        nResult = CheckMapPiece(fd, stItem, stRecord, pReport);
    else
        nResult = CheckBlockPiece(fd, stItem, stRecord, pReport);
    if (nResult != BACKUPVERIFY_WHOLE) return nResult;
    pWalk->m_nPos += stItem.m_nBlockSize;
    pWalk->m_nItemNum++;
    pItem->m_nCopiedSize += stItem.m_nBlockSize;
    pItem->m_nPieceNum++;
    return BACKUPVERIFY_WHOLE;
}

// One page at pWalk->m_nPos and its items; *pnNext := its next page.
int WalkPage(int fd, LPBYTE lpPage, const STRUCT_BACKUP_FILEINFO& stRecord, IncrementWalk* pWalk, long long* pnNext,
             LPBACKUPRESTOREITEM pItem, LPBACKUPVERIFYREPORT pReport)
{
    long long nPagePos = pWalk->m_nPos;
    if (BackupVerifyRead(fd, lpPage, BACKUP_INCREMENT_PAGE_SIZE, nPagePos, "a page", pReport) != BACKUPVERIFY_WHOLE)
        return pReport->m_nStatus;
    BACKUPINCREMENTHEAD stPage;
    memcpy(&stPage, lpPage, offsetof(BACKUPINCREMENTHEAD, m_pBlockItem));
    if (CheckPageHead(stPage, stRecord, nPagePos, pReport) != BACKUPVERIFY_WHOLE) return pReport->m_nStatus;
    pWalk->m_nPos += BACKUP_INCREMENT_PAGE_SIZE;
    pWalk->m_nPageNum++;
    for (int i = 0; i < stPage.m_nIncrementBlockNum; i++) {
        BACKUPINCREMENTITEM stItem;
        memcpy(&stItem, lpPage + offsetof(BACKUPINCREMENTHEAD, m_pBlockItem) + (size_t)i * sizeof(stItem),
               sizeof(stItem));
        if (CheckItem(fd, stItem, stRecord, pWalk, pItem, pReport) != BACKUPVERIFY_WHOLE) return pReport->m_nStatus;
    }
    *pnNext = stPage.m_nNextPos;
    return BACKUPVERIFY_WHOLE;
}

} // namespace

int BackupVerifyIncrementFile(int fd, const STRUCT_BACKUP_FILEINFO& stRecord, int nIndex, LPBACKUPRESTOREITEM pItem,
                              LPBACKUPVERIFYREPORT pReport)
{
    LPBYTE lpPage = new (std::nothrow) BYTE[BACKUP_INCREMENT_PAGE_SIZE];
    if (lpPage == nullptr)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_NOMEMORY, "no memory for a page of %d bytes",
                                  BACKUP_INCREMENT_PAGE_SIZE);
    IncrementWalk stWalk = {stRecord.m_nDataStartOffset, stRecord.m_nDataEndOffset, 0, 0};
    long long nNext = stWalk.m_nPos;
    // Every page moves the walk on by at least its own size, and the walk
    // stops at the data end, so a chain that loops cannot hold it.
    while (nNext != 0 && pReport->m_nStatus == BACKUPVERIFY_WHOLE) {
        if (nNext != stWalk.m_nPos)
            BackupVerifyRefuse(pReport, BACKUPVERIFY_BADPAGE,
                               "record %d: page %d at %lld, where the data before ends at %lld", nIndex + 1,
                               stWalk.m_nPageNum + 1, nNext, stWalk.m_nPos);
        else if (stWalk.m_nPos > stWalk.m_nEnd - BACKUP_INCREMENT_PAGE_SIZE)
            BackupVerifyRefuse(pReport, BACKUPVERIFY_BADPAGE, "record %d: page %d at %lld runs past the data end %lld",
                               nIndex + 1, stWalk.m_nPageNum + 1, nNext, stWalk.m_nEnd);
        else
            WalkPage(fd, lpPage, stRecord, &stWalk, &nNext, pItem, pReport);
    }
    delete[] lpPage;
    if (pReport->m_nStatus == BACKUPVERIFY_WHOLE && stWalk.m_nPos != stWalk.m_nEnd)
        BackupVerifyRefuse(pReport, BACKUPVERIFY_BADPAGE, "record %d: the pages end at %lld, the record at %lld",
                           nIndex + 1, stWalk.m_nPos, stWalk.m_nEnd);
    return pReport->m_nStatus;
}
