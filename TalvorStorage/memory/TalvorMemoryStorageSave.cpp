// TalvorMemoryStorageSave.cpp — the save pass of a memory-mode file: the
// changed blocks, then the head, then the map, from a view that is
// consistent as of one timestamp while the engine keeps writing the image.
//
// What the pass relies on from the engine's order of writing a change:
// block timestamp, then block save flag, then the row's head (its newest
// old version and its timestamp), then the row's bytes, and m_nEndTimestamp
// of the system head last. A block is copied, its flag cleared, and its live
// timestamp read again. If that is past nTimestamp, a data-file block copy
// is taken back to nTimestamp from the old row versions and written so; the
// live block stays marked for the next pass. Where the copy cannot be shown
// to be as of nTimestamp (a version the engine has overwritten, a row that
// moved while it was copied, content that is not in rows), and for every
// other kind of block, the copy is not written, the block stays marked and
// the file reports SAVECHANGE_PENDING (no commit may cover nTimestamp until
// a later pass has written the block whole).
#include "TalvorMemoryStorage.h"

#include "DbFileLayout.h"
#include "TalvorTrace.h"
#include "TalvorFileIO.h"
#include "TalvorFlashback.h"

#include <cassert>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <new>
#include <unistd.h>

namespace {

const int SAVE_COPY_LIMIT = 0x100000;
// The system head goes to disk in two pieces around the timestamp arrays,
// which have writers of their own.
const int SYSHEAD_FIRST_PIECE = SYSTEMFILE_TABLETSARRAY_OFFSET;
const int SYSHEAD_SECOND_PIECE = 15558;

enum { STEP_OK = 0, STEP_FAIL = 1 };

struct SaveContext {
    LPFILEINFO m_pFileInfo;
    LPBYTE m_lpImage;
    long long m_nImageSize;
    int m_fd;
    long long m_nTimestamp;
    LPBYTE m_lpBuffer;
    CTalvorFlashback* m_pFlashback;  // null: no block is rolled back
    BOOL m_bForce;
    BOOL m_bSystem;
    LPBASEFILEHEAD m_lpBase;   // the head the pass reads and writes out
    LPBASEFILEHEAD m_lpLive;   // the live head in the image
    long long m_nMapDelta;     // 0: master map; m_nBlockMapSize: slave
    BOOL m_bPending;           // a block changed past nTimestamp
    BOOL m_bDamaged;           // a chain was refused: no commit from this file
    long long m_nWrites;       // since the last sync
    CMemoryMapOnDisk* m_pMapOnDisk;
    ITalvorFileListHolder* m_pListHolder;  // system file only; may be null
};

const char* PathOf(const SaveContext& c) { return c.m_pFileInfo->m_lpszFilePath; }

void FullFence() { __atomic_thread_fence(__ATOMIC_SEQ_CST); }

void TraceHeadMark(BYTE bFileType, int nFound, int nExpected, const char* lpszPath)
{
    switch (bFileType) {
    case FILETYPE_SYSTEM:
        Trace("SaveChange2File", 1, 40002002,
              TALVOR_TEXT("保存修改的系统文件时,内存头标识不正确,拒绝写入磁盘,文件路径:%s,校验码:%d[%d]",
                          "When saving and modifying system files, the memory header id was incorrect and was denied to be written to disk, file path: %s, check code: %d[%d]"),
              lpszPath, nFound, nExpected);
        break;
    case FILETYPE_DATA:
        Trace("SaveChange2File", 1, 40002003,
              TALVOR_TEXT("保存修改的数据文件时,内存头标识不正确,拒绝写入磁盘,文件路径:%s,校验码:%d[%d]",
                          "When saving and modifying data files, the memory header id was incorrect and was denied to be written to disk, file path: %s, check code: %d[%d]"),
              lpszPath, nFound, nExpected);
        break;
    case FILETYPE_BTREEINDEX:
        Trace("SaveChange2File", 1, 40002004,
              TALVOR_TEXT("保存修改的B树索引文件时,内存头标识不正确,拒绝写入磁盘,文件路径:%s,校验码:%d[%d]",
                          "When saving and modifying b_tree index files, the memory header id was incorrect and was denied to be written to disk, file path: %s, check code: %d[%d]"),
              lpszPath, nFound, nExpected);
        break;
    default:
        Trace("SaveChange2File", 1, 40002005,
              TALVOR_TEXT("保存修改的KV索引文件时,内存头标识不正确,拒绝写入磁盘,文件路径:%s,校验码:%d[%d]",
                          "When saving and modifying KV index files, the memory header id was incorrect and was denied to be written to disk, file path: %s, check code: %d[%d]"),
              lpszPath, nFound, nExpected);
        break;
    }
}

BOOL WriteAt(SaveContext& c, const void* lpSrc, long long nSize, long long nOffset)
{
    c.m_nWrites++;
    errno = 0;
    return TalvorWriteFull(c.m_fd, lpSrc, (size_t)nSize, (off_t)nOffset);
}

int ErrnoOr(int nFallback) { return errno != 0 ? errno : nFallback; }

// The files of types 2 to 4 are kept open O_SYNC, so that each write is on
// the disk when it returns. A pass writes through a descriptor of its own
// without O_SYNC and syncs at the end of each stage instead (SyncStage):
// the blocks, the head and the map reach the medium in that order, as with
// O_SYNC, without a device flush per block.
class PassDescriptor {
public:
    PassDescriptor(LPFILEINFO pFileInfo) : m_fd(-1)
    {
        int fdMain = Talvor_FileDescriptor(pFileInfo->m_hFile);
        int nFlags = fdMain >= 0 ? fcntl(fdMain, F_GETFL) : 0;
        if (fdMain >= 0 && (nFlags & O_SYNC) == O_SYNC)
            m_fd = CTalvorFileIO::Current()->Open(pFileInfo->m_lpszFilePath, (nFlags & (O_DIRECT | O_RDWR)) | O_CLOEXEC, 0);
        m_fdUse = m_fd >= 0 ? m_fd : fdMain;
    }
    ~PassDescriptor()
    {
        if (m_fd >= 0) CTalvorFileIO::Current()->Close(m_fd);
    }
    int Fd() const { return m_fdUse; }

private:
    int m_fd;
    int m_fdUse;
};

// The head, object table and maps that the pass will follow must lie inside
// the image and the head buffer; anything else is damage and is refused.
BOOL HeadGeometryFits(const SaveContext& c, LPBASEFILEHEAD lpHead)
{
    long long nHeader = lpHead->m_nFileHeaderSize;
    long long nMinHeader = c.m_bSystem ? SYSHEAD_SECOND_PIECE : (long long)sizeof(BASEFILEHEAD);
    if (nHeader < nMinHeader || nHeader > c.m_nImageSize || nHeader > SAVE_COPY_LIMIT) return FALSE;
    long long nObjects = lpHead->m_nMaxObjectNum;
    long long nTable = c.m_bSystem ? (long long)offsetof(SYSTEMFILEHEAD, m_stFileObject) : lpHead->m_nObjectInfoOffset;
    if (c.m_bSystem && nObjects > SYSTEMFILE_OBJECT_NUM) nObjects = SYSTEMFILE_OBJECT_NUM;
    if (nObjects < 0 || nTable < 0 || nTable + nObjects * (long long)sizeof(BASEFILEOBJECTDEF) > nHeader) return FALSE;
    long long nMapSize = lpHead->m_nBlockMapSize;
    long long nMapStart = lpHead->m_nBlockMapStartOffset;
    if (nMapSize < (long long)sizeof(BASEFILEBLOCKMAPHEAD) || nMapStart < 0) return FALSE;
    return nMapStart + 2 * nMapSize <= c.m_nImageSize;
}

void TraceGeometry(const SaveContext& c, LPBASEFILEHEAD lpHead)
{
    Trace("SaveChange2File", 1, 40002012,
          TALVOR_TEXT("文件头记录的头、对象表或映射表超出了文件,拒绝写入磁盘,文件路径:%s,头大小:%d,映射表位置:%d,映射表大小:%d",
                      "The head, object table or map recorded in the file head lies outside the file and was denied to be written to disk, file path: %s, head size: %d, map location: %d, map size: %d"),
          PathOf(c), lpHead->m_nFileHeaderSize, lpHead->m_nBlockMapStartOffset, lpHead->m_nBlockMapSize);
}

// The row records of a block copy that lie wholly inside it.
int RowsInCopy(const BLOCKHEAD* lpCopy, int nBlockSize)
{
    int nRows = (int)(lpCopy->m_nInnerMaxNo & 0xFFFF) - 1;
    int nStart = lpCopy->m_nBlockHeadSize;
    if (nRows <= 0 || nStart < (int)sizeof(BLOCKHEAD) || nStart > nBlockSize) return 0;
    int nFit = (nBlockSize - nStart) / (int)sizeof(BLOCKDATASTRUCT);
    return nRows < nFit ? nRows : nFit;
}

// Every row of the copy that is newer than nTimestamp has been taken back by
// the rollback: the rollback leaves a row whose version the engine has
// overwritten (or whose status it does not handle) with its newest value,
// and such a copy is not as of nTimestamp. lpRows are the rows as copied,
// before the rollback rewrote them.
BOOL VersionsHeld(SaveContext& c, const BLOCKDATASTRUCT* lpRows, int nRows)
{
    for (int i = 0; i < nRows; i++) {
        BLOCKDATASTRUCT stRow;
        memcpy(&stRow, lpRows + i, sizeof(stRow));
        if (stRow.m_nTimestamp <= c.m_nTimestamp) continue;
        if (stRow.m_bDataStatus != 0 && stRow.m_bDataStatus != 2) return FALSE;
        if (stRow.m_nNextDataID == 0) continue;  // born after: absent
        LPBYTE lpImage = nullptr;
        int rc = c.m_pFlashback->GetRollBackData(stRow.m_nNextDataID, stRow.m_sToken, c.m_nTimestamp, lpImage);
        // Asked after the rollback: a version overwritten meanwhile shows here.
        if (rc != 0 && rc != -1 && rc != -3) return FALSE;
    }
    return TRUE;
}

// Takes the copy in c.m_lpBuffer back to nTimestamp. TRUE when the copy is
// now the block as of nTimestamp and may be written.
BOOL RollBackCopy(SaveContext& c, LPBASEBLOCKHEAD lpLive, int nBlockSize)
{
    LPBLOCKHEAD lpCopy = (LPBLOCKHEAD)c.m_lpBuffer;
    // Content that is not in rows cannot be taken back.
    int nRows = RowsInCopy(lpCopy, nBlockSize);
    if (c.m_pFlashback == nullptr || nRows == 0) return FALSE;
    UINT nBlockNo = lpCopy->m_nBlockNo;
    UINT nInnerMaxNo = lpCopy->m_nInnerMaxNo;
    int nRowStart = lpCopy->m_nBlockHeadSize;
    size_t nRowBytes = (size_t)nRows * sizeof(BLOCKDATASTRUCT);
    BYTE* lpRows = new (std::nothrow) BYTE[nRowBytes];
    if (lpRows == nullptr) return FALSE;
    memcpy(lpRows, c.m_lpBuffer + nRowStart, nRowBytes);
    int rc = c.m_pFlashback->FlashbackData(c.m_pFileInfo->m_bFileNo, (int)nBlockNo, nBlockSize, c.m_nTimestamp,
                                           c.m_lpBuffer, (LPBYTE)lpLive);
    BOOL bOk = FALSE;
    if (lpCopy->m_nBlockNo != nBlockNo || lpCopy->m_nBlockSize != nBlockSize) {
        Trace("SaveChange2File", 1, 40002030,
              TALVOR_TEXT("闪回逻辑异常,文件号:%d,块号:%d(%d),块大小:%d(%d)",
                          "Flash back logic exception, file number: %d, block number: %d(%d), block size: %d(%d)"),
              (int)c.m_pFileInfo->m_bFileNo, (int)lpCopy->m_nBlockNo, (int)nBlockNo, (int)lpCopy->m_nBlockSize,
              nBlockSize);
    } else if (rc == 0 && VersionsHeld(c, (const BLOCKDATASTRUCT*)lpRows, nRows)) {
        // The engine writes a row's head before its bytes: rows whose heads
        // are still as copied had no bytes changed under the copy.
        FullFence();
        bOk = ((LPBLOCKHEAD)lpLive)->m_nInnerMaxNo == nInnerMaxNo &&
              memcmp((const void*)((LPBYTE)lpLive + nRowStart), lpRows, nRowBytes) == 0;
    }
    delete[] lpRows;
    return bOk;
}

// Writes lpSrc (a copy of lpLive, or lpLive itself) to its place, saved as
// clean. A failed write marks the live block again, so that the block is not
// lost when the disk recovers; nWriteCode tells which walk found it.
int WriteBlockOut(SaveContext& c, LPBASEBLOCKHEAD lpLive, LPBASEBLOCKHEAD lpSrc, long long nBlockOffset,
                  int nBlockSize, int nWriteCode)
{
    TalvorStoreShared(&lpSrc->m_bSaveFlag, 0);
    FullFence();
    if (WriteAt(c, (const void*)lpSrc, nBlockSize, nBlockOffset)) return STEP_OK;
    int nErr = ErrnoOr(EIO);
    TalvorStoreShared(&lpLive->m_bSaveFlag, 1);
    Trace("SaveChange2File", 1, nWriteCode,
          TALVOR_TEXT("从内存写入物理文件失败,错误:%s(%d),路径:%s,写入位置:%lld,写入大小:%d",
                      "Failed to write from memory to physical file, error: %s(%d), path: %s, write location: %lld, write size: %d"),
          strerror(nErr), nErr, PathOf(c), nBlockOffset, nBlockSize);
    return STEP_FAIL;
}

// An index block, copied: its flag is cleared first, so that a change that
// lands during or after the copy marks it again, and the copy goes to disk as
// it is — index blocks are never rolled back and never hold the commit back.
// A copy newer than nTimestamp asks for another pass (bFlashFlag). The copy,
// not the live block, is written, so that no write shows a half-changed block.
int WriteIndexBlock(SaveContext& c, LPBASEBLOCKHEAD lpLive, long long nBlockOffset, int nBlockSize, BOOL& bFlashFlag)
{
    assert(nBlockOffset >= 0 && nBlockSize >= (int)sizeof(BLOCKHEAD) && nBlockOffset + nBlockSize <= c.m_nImageSize);
    LPBASEBLOCKHEAD lpSrc = lpLive;
    if (!c.m_bForce && nBlockSize <= SAVE_COPY_LIMIT) {
        TalvorStoreShared(&lpLive->m_bSaveFlag, 0);
        FullFence();
        memcpy(c.m_lpBuffer, (const void*)lpLive, (size_t)nBlockSize);
        lpSrc = (LPBASEBLOCKHEAD)c.m_lpBuffer;
        if (TalvorLoadShared(&lpSrc->m_nTimestamp) > c.m_nTimestamp) bFlashFlag = TRUE;
    }
    if (lpSrc->m_nDataFlag != BLOCK_DATAFLAG) {
        TalvorStoreShared(&lpLive->m_bSaveFlag, 1);
        Trace("SaveChange2File", 1, 40002043,
              TALVOR_TEXT("发现块头信息已损坏,校验数据:%d[%d],路径:%s,块号:%d(%d),块偏移位置:%lld",
                          "It is found the header information of the block was damaged, check the data: %d [%d], path: %s, block number: %d(%d), block offset position: %lld"),
              (int)lpSrc->m_nDataFlag, BLOCK_DATAFLAG, PathOf(c), (int)lpSrc->m_nBlockNo, (int)lpSrc->m_nBlockNo,
              nBlockOffset);
        return STEP_FAIL;
    }
    return WriteBlockOut(c, lpLive, lpSrc, nBlockOffset, nBlockSize, 40002045);
}

// What is to be written (lpSrc: a copy of lpLive, or lpLive itself) must
// still bear the block mark; else it is traced with nMarkCode, and a live
// block whose copy was refused stays marked.
BOOL BlockMarkHolds(const SaveContext& c, LPBASEBLOCKHEAD lpLive, LPBASEBLOCKHEAD lpSrc, long long nBlockOffset,
                    int nMarkCode)
{
    if (lpSrc->m_nDataFlag == BLOCK_DATAFLAG) return TRUE;
    if (lpSrc != lpLive) TalvorStoreShared(&lpLive->m_bSaveFlag, 1);
    Trace("SaveChange2File", 1, nMarkCode,
          TALVOR_TEXT("发现块头信息已损坏,校验数据:%d[%d],路径:%s,块号:%d,块偏移位置:%lld",
                      "It is found the header information of the block was damaged, check the data: %d [%d], path: %s, block number: %d, block offset position: %lld"),
          (int)lpSrc->m_nDataFlag, BLOCK_DATAFLAG, PathOf(c), (int)lpSrc->m_nBlockNo, nBlockOffset);
    return FALSE;
}

// Writes one block, either from a private copy or live. nMarkCode and
// nWriteCode are the messages of the walk that found it; bRollback: a block
// of a data file, whose copy may be taken back to nTimestamp.
int WriteBlock(SaveContext& c, LPBASEBLOCKHEAD lpLive, long long nBlockOffset, int nBlockSize, int nMarkCode,
               int nWriteCode, BOOL bRollback, BOOL& bPendingBlock, BOOL& bFlashFlag)
{
    // The walks hand over only blocks that lie whole inside the image.
    assert(nBlockOffset >= 0 && nBlockSize >= (int)sizeof(BLOCKHEAD) && nBlockOffset + nBlockSize <= c.m_nImageSize);
    bPendingBlock = FALSE;
    BOOL bLive = c.m_bForce || c.m_bSystem || nBlockSize > SAVE_COPY_LIMIT;
    LPBASEBLOCKHEAD lpSrc = lpLive;
    if (!bLive) {
        memcpy(c.m_lpBuffer, (const void*)lpLive, (size_t)nBlockSize);
        TalvorStoreShared(&lpLive->m_bSaveFlag, 0);
        FullFence();
        if (TalvorLoadShared(&lpLive->m_nTimestamp) > c.m_nTimestamp) {
            // Changed past the save point: the live block stays marked for
            // the next pass whatever becomes of the copy.
            TalvorStoreShared(&lpLive->m_bSaveFlag, 1);
            if (!bRollback || !RollBackCopy(c, lpLive, nBlockSize)) {
                // A change may have been under way during the copy: write
                // the block at a later pass.
                bPendingBlock = TRUE;
                c.m_bPending = TRUE;
                return STEP_OK;
            }
            bFlashFlag = TRUE;
        }
        lpSrc = (LPBASEBLOCKHEAD)c.m_lpBuffer;
    }
    if (!BlockMarkHolds(c, lpLive, lpSrc, nBlockOffset, nMarkCode)) return STEP_FAIL;
    if (WriteBlockOut(c, lpLive, lpSrc, nBlockOffset, nBlockSize, nWriteCode) != STEP_OK) return STEP_FAIL;
    if (bLive && !c.m_bForce && TalvorLoadShared(&lpLive->m_nTimestamp) > c.m_nTimestamp) {
        TalvorStoreShared(&lpLive->m_bSaveFlag, 1);
        bPendingBlock = TRUE;
        c.m_bPending = TRUE;
    }
    return STEP_OK;
}

BOOL IsFileListBlock(const SaveContext& c, const BASEBLOCKHEAD* lpBlock, int nBlockSize)
{
    if (!c.m_bSystem || nBlockSize < (int)sizeof(SYSTEMBLOCKHEAD)) return FALSE;
    const SYSTEMBLOCKHEAD* lpList = (const SYSTEMBLOCKHEAD*)lpBlock;
    return lpList->m_nObjectID == SYSTEMFILE_FILELIST_OBJECTID &&
           lpList->m_nBlockDataStructSize == (int)sizeof(FILE_MEMDBFILEINFO);
}

// The rows of lpCopy, a private copy of the file list block lpLive, as the
// list on disk is to hold them: FALSE when the block must stay off the disk.
//
// A row that carries a file command, or an answer the engine has not taken
// back yet, is not the database's list: a refused add names a file that was
// never made, a refused move a path with nothing there. Nor is a row whose
// fields the engine is still writing, its command byte to come: the holder
// writes over a file's row what the daemon holds for it (a move's new path
// is no file until the move has run), and refuses a live row that no file
// stands behind — an add half written. Such a row is held back whole rather
// than written dropped: the drop flag is the engine's to set, the add may be
// carried out a moment later, and the list on disk is already one the next
// start can open. The block stays marked until its rows have settled.
BOOL FileListCopySettled(const SaveContext& c, const BYTE* lpLive, LPBYTE lpCopy, int nBlockSize)
{
    // Rebuilt by the engine between the look at the image and the copy:
    // judged again at the next pass.
    if (!IsFileListBlock(c, (const BASEBLOCKHEAD*)lpCopy, nBlockSize)) return FALSE;
    const SYSTEMBLOCKHEAD* lpList = (const SYSTEMBLOCKHEAD*)lpCopy;
    long long nAt = lpList->m_nBlockHeadSize;
    int nRows = lpList->m_nDataNum;
    for (int i = 0; i < nRows && nAt >= (long long)sizeof(SYSTEMBLOCKHEAD) &&
                    nAt + (long long)sizeof(FILE_MEMDBFILEINFO) <= nBlockSize;
         i++, nAt += (long long)sizeof(FILE_MEMDBFILEINFO)) {
        LPFILE_MEMDBFILEINFO lpRow = (LPFILE_MEMDBFILEINFO)(lpCopy + nAt);
        if (lpRow->m_bFileCMD != FILECMD_NONE) return FALSE;
        if (c.m_pListHolder != nullptr &&
            !c.m_pListHolder->SettleFileListRow((const FILE_MEMDBFILEINFO*)(lpLive + nAt), lpRow))
            return FALSE;
    }
    return TRUE;
}

// A block of the file list goes to disk from a private copy whose rows were
// settled, never from the image, whose rows the engine may be half-way
// through. The flag is cleared before the copy, so that an edit that lands
// during or after it marks the block again.
int SaveFileListBlock(SaveContext& c, LPBASEBLOCKHEAD lpLive, long long nBlockOffset, int nBlockSize,
                      BOOL& bFlashFlag)
{
    LPBYTE lpOwn = nBlockSize > SAVE_COPY_LIMIT ? new (std::nothrow) BYTE[nBlockSize] : nullptr;
    LPBYTE lpCopy = nBlockSize > SAVE_COPY_LIMIT ? lpOwn : c.m_lpBuffer;
    // No room for the copy: the block stays marked for the next pass. The
    // object stays marked too, or no later pass would walk to the block
    // unless something else changed.
    if (lpCopy == nullptr) {
        bFlashFlag = TRUE;
        return STEP_OK;
    }
    TalvorStoreShared(&lpLive->m_bSaveFlag, 0);
    FullFence();
    memcpy(lpCopy, (const void*)lpLive, (size_t)nBlockSize);
    int nResult = STEP_OK;
    if (!FileListCopySettled(c, (const BYTE*)lpLive, lpCopy, nBlockSize)) {
        TalvorStoreShared(&lpLive->m_bSaveFlag, 1);
        bFlashFlag = TRUE;
    } else if (!BlockMarkHolds(c, lpLive, (LPBASEBLOCKHEAD)lpCopy, nBlockOffset, 40002030) ||
               WriteBlockOut(c, lpLive, (LPBASEBLOCKHEAD)lpCopy, nBlockOffset, nBlockSize, 40002032) != STEP_OK) {
        nResult = STEP_FAIL;
    } else if (!c.m_bForce && TalvorLoadShared(&lpLive->m_nTimestamp) > c.m_nTimestamp) {
        TalvorStoreShared(&lpLive->m_bSaveFlag, 1);
        c.m_bPending = TRUE;
        bFlashFlag = TRUE;
    }
    delete[] lpOwn;
    return nResult;
}

// Steps 13 to 20 for one entry of an object chain.
int SaveChainEntry(SaveContext& c, LPBASEFILEBLOCKMAP lpEntry, BOOL& bFlashFlag)
{
    long long nBlockOffset = lpEntry->m_nBlockOffset;
    for (int nLook = 0;; nLook++) {
        if (nBlockOffset < 0 || nBlockOffset >= c.m_nImageSize) {
            Trace("SaveChange2File", 1, 40002022,
                  TALVOR_TEXT("发现块偏移超出了文件大小,路径:%s,块号:%d,块偏移位置%lld",
                              "It is found that the block offset exceeded the file size, path: %s, block number: %d, block offset location %lld"),
                  PathOf(c), (int)lpEntry->m_nBlockNo, nBlockOffset);
            return STEP_FAIL;
        }
        if (nBlockOffset > c.m_nImageSize - (long long)sizeof(BLOCKHEAD)) break;
        LPBASEBLOCKHEAD lpBlock = (LPBASEBLOCKHEAD)(c.m_lpImage + nBlockOffset);
        if (lpBlock->m_nBlockNo != 0 && lpBlock->m_nDataFlag != 0) break;
        // The engine is still filling the head in: one short wait.
        if (nLook > 0) return STEP_OK;
        usleep(1000);
        nBlockOffset = lpEntry->m_nBlockOffset;
    }
    LPBASEBLOCKHEAD lpBlock = (LPBASEBLOCKHEAD)(c.m_lpImage + nBlockOffset);
    int nBlockSize = nBlockOffset <= c.m_nImageSize - (long long)sizeof(BLOCKHEAD) ? lpBlock->m_nBlockSize : 0;
    if (nBlockSize < (int)sizeof(BLOCKHEAD) || nBlockOffset + nBlockSize > c.m_nImageSize) {
        Trace("SaveChange2File", 1, 40002023,
              TALVOR_TEXT("发现块偏移超出了文件大小(%lld、%lld),路径:%s,块号:%d,块偏移位置%lld,块大小%d",
                          "It is found that the block offset exceeded the file size(%lld、%lld), path: %s, block number: %d, block offset location %lld, block size %d"),
              c.m_nImageSize, (long long)c.m_lpLive->m_nFileTotalSize, PathOf(c), (int)lpEntry->m_nBlockNo, nBlockOffset,
              nBlockSize);
        return STEP_FAIL;
    }
    if (lpBlock->m_nDataFlag != BLOCK_DATAFLAG) {
        Trace("SaveChange2File", 1, 40002024,
              TALVOR_TEXT("发现块头信息已损坏,校验数据:%d[%d],路径:%s,块号:%d(%d),块偏移位置:%lld,偏移位置:%lld",
                          "It is found the header information of the block was damaged, check the data: %d [%d], path: %s, block number: %d(%d), block offset position: %lld, offset position: %lld"),
              (int)lpBlock->m_nDataFlag, BLOCK_DATAFLAG, PathOf(c), (int)lpBlock->m_nBlockNo, (int)lpEntry->m_nBlockNo,
              nBlockOffset, (long long)((LPBYTE)lpEntry - c.m_lpImage));
        return STEP_FAIL;
    }
    if (TalvorLoadShared(&lpBlock->m_bSaveFlag) == 0) return STEP_OK;
    if (IsFileListBlock(c, lpBlock, nBlockSize))
        return SaveFileListBlock(c, lpBlock, nBlockOffset, nBlockSize, bFlashFlag);
    BOOL bPendingBlock = FALSE;
    BOOL bRollback = c.m_lpBase->m_nDataFlag == DATAFILE_DATAFLAG;
    int nResult = WriteBlock(c, lpBlock, nBlockOffset, nBlockSize, 40002030, 40002032, bRollback, bPendingBlock,
                             bFlashFlag);
    if (bPendingBlock) bFlashFlag = TRUE;
    return nResult;
}

// The entries of a chain up to nStop, an entry that points to itself: the
// chain ends there, and nStop itself is saved only when it begins the chain
// (it was reached once, by the chain's start). Every entry before it lies
// inside the image: the check that found the loop walked them.
int SaveChainBeforeSelfLoop(SaveContext& c, long long nFirst, long long nStop, BOOL& bFlashFlag)
{
    long long nOffset = nFirst;
    const long long nMaxSteps = c.m_nImageSize / (long long)sizeof(BASEFILEBLOCKMAP) + 1;
    for (long long nStep = 0; nStep < nMaxSteps; nStep++) {
        if (nOffset == nStop && nStep > 0) break;
        LPBASEFILEBLOCKMAP lpEntry = (LPBASEFILEBLOCKMAP)(c.m_lpImage + nOffset + c.m_nMapDelta);
        long long nNext = lpEntry->m_nNextOffset;
        if (SaveChainEntry(c, lpEntry, bFlashFlag) != STEP_OK) return STEP_FAIL;
        if (nOffset == nStop) break;
        nOffset = nNext;
    }
    LPBASEFILEBLOCKMAP lpStop = (LPBASEFILEBLOCKMAP)(c.m_lpImage + nStop + c.m_nMapDelta);
    Trace("SaveChange2File", 1, 40002020,
          TALVOR_TEXT("块链表引用了自身(nBlockNo:%d)!", "The block chain list references itself (nBlockNo:%d)!"),
          (int)lpStop->m_nBlockNo);
    // The object stays marked, so that a later pass saves the rest of the
    // chain once the engine has linked it.
    bFlashFlag = TRUE;
    return STEP_OK;
}

// One object chain. A chain that leaves the image stops the pass. An entry
// that points to itself ends the chain there (the engine is linking it in);
// the entries before it are saved and the pass goes on. A longer loop is
// damage: it is reported and not followed, and the file cannot be committed
// until the engine repairs it.
int SaveChain(SaveContext& c, long long nFirst, BOOL& bFlashFlag)
{
    if (nFirst == 0) return STEP_OK;
    long long nBad = 0;
    int nCheck = DbCheckMapChain(c.m_lpImage, c.m_nImageSize, nFirst, c.m_nMapDelta, &nBad, nullptr);
    if (nCheck == DBCHAIN_LOOP) {
        LPBASEFILEBLOCKMAP lpBad = (LPBASEFILEBLOCKMAP)(c.m_lpImage + nBad + c.m_nMapDelta);
        if (lpBad->m_nNextOffset == nBad) return SaveChainBeforeSelfLoop(c, nFirst, nBad, bFlashFlag);
        Trace("SaveChange2File", 1, 40002020,
              TALVOR_TEXT("块链表引用了自身(nBlockNo:%d)!", "The block chain list references itself (nBlockNo:%d)!"),
              (int)lpBad->m_nBlockNo);
        c.m_bDamaged = TRUE;
        bFlashFlag = TRUE;  // the object stays marked until its chain is whole
        return STEP_OK;
    }
    int nFailed = STEP_OK;
    nCheck = DbWalkMapChain(c.m_lpImage, c.m_nImageSize, nFirst, c.m_nMapDelta, &nBad,
                            [&](long long, LPBASEFILEBLOCKMAP lpEntry) {
                                nFailed = SaveChainEntry(c, lpEntry, bFlashFlag);
                                return nFailed == STEP_OK;
                            });
    if (nFailed != STEP_OK) return STEP_FAIL;
    if (nCheck == DBCHAIN_OK) return STEP_OK;
    Trace("SaveChange2File", 1, 40002025,
          TALVOR_TEXT("块链表的映射项超出了文件,拒绝继续,路径:%s,映射项位置:%lld",
                      "An entry of the block chain list lies outside the file and was refused, path: %s, entry location: %lld"),
          PathOf(c), nBad);
    return STEP_FAIL;
}

// Step 21: where the object stands after its chains.
void SettleObject(SaveContext& c, LPBASEFILEOBJECTDEF lpBase, LPBASEFILEOBJECTDEF lpLive, BOOL bFlashFlag,
                  BOOL& bFlashbackFlag)
{
    long long nFinished = TalvorLoadShared(&lpBase->m_nFinishedTimestamp);
    if (c.m_nTimestamp < nFinished) {
        TalvorStoreShared(&lpLive->m_bSaveFlag, 1);
        lpLive->m_nPersistentTimestamp = c.m_nTimestamp;
        bFlashbackFlag = TRUE;
        return;
    }
    if (bFlashFlag) {
        TalvorStoreShared(&lpLive->m_bSaveFlag, 1);
    } else if (TalvorLoadShared(&lpLive->m_bSaveFlag) == 1 && lpBase != lpLive) {
        // The flag was cleared only in the snapshot: clear the live one too,
        // or every later pass would find the object marked and write head
        // and maps again forever. A change that lands meanwhile shows in the
        // finished timestamp (the engine raises it before the flag).
        TalvorStoreShared(&lpLive->m_bSaveFlag, 0);
        FullFence();
        if (TalvorLoadShared(&lpLive->m_nFinishedTimestamp) > c.m_nTimestamp)
            TalvorStoreShared(&lpLive->m_bSaveFlag, 1);
    }
    lpLive->m_nPersistentTimestamp = nFinished;
    if (TalvorLoadShared(&lpLive->m_bSaveFlag) != 0) bFlashbackFlag = TRUE;
}

// Where the object table of a head lies, and how many objects it holds: the
// system file keeps a fixed table of its own.
void ObjectTableOf(const SaveContext& c, LPBASEFILEHEAD lpHead, long long& nTable, int& nObjects)
{
    nTable = c.m_bSystem ? (long long)offsetof(SYSTEMFILEHEAD, m_stFileObject) : lpHead->m_nObjectInfoOffset;
    nObjects = lpHead->m_nMaxObjectNum;
    if (c.m_bSystem && nObjects > SYSTEMFILE_OBJECT_NUM) nObjects = SYSTEMFILE_OBJECT_NUM;
}

// Phase 3a: data files and the system file, object by object.
int WalkByObjects(SaveContext& c, BOOL& bFlashbackFlag)
{
    long long nTable = 0;
    int nObjects = 0;
    ObjectTableOf(c, c.m_lpBase, nTable, nObjects);
    for (int i = 0; i < nObjects; i++) {
        long long nAt = nTable + (long long)i * sizeof(BASEFILEOBJECTDEF);
        LPBASEFILEOBJECTDEF lpBase = (LPBASEFILEOBJECTDEF)((LPBYTE)c.m_lpBase + nAt);
        LPBASEFILEOBJECTDEF lpLive = (LPBASEFILEOBJECTDEF)(c.m_lpImage + nAt);
        if (lpBase->m_nID == 0) continue;
        if (TalvorLoadShared(&lpBase->m_nFinishedTimestamp) == lpBase->m_nPersistentTimestamp &&
            TalvorLoadShared(&lpBase->m_bSaveFlag) != 1 && !c.m_bForce)
            continue;
        TalvorStoreShared(&lpBase->m_bSaveFlag, 0);
        BOOL bFlashFlag = FALSE;
        if (SaveChain(c, lpBase->m_nFullBlockMapOffset, bFlashFlag) != STEP_OK) return STEP_FAIL;
        if (SaveChain(c, lpBase->m_nFreeBlockMapOffset, bFlashFlag) != STEP_OK) return STEP_FAIL;
        SettleObject(c, lpBase, lpLive, bFlashFlag, bFlashbackFlag);
    }
    return STEP_OK;
}

// Steps 22 to 28 for entry n (from 1) of a map block.
int SaveMapEntry(SaveContext& c, const BASEFILEBLOCKMAP& stEntry, int n, BOOL& bFlashbackFlag)
{
    long long nBlockOffset = stEntry.m_nBlockOffset;
    if (nBlockOffset < 0 || nBlockOffset >= c.m_nImageSize) {
        Trace("SaveChange2File", 1, 40002040,
              TALVOR_TEXT("发现块偏移超出了文件大小,路径:%s,块号:%d,块偏移位置%lld",
                          "It is found that the block offset exceeded the file size, path: %s, block number: %d, block offset location %lld"),
              PathOf(c), n, nBlockOffset);
        return STEP_FAIL;
    }
    LPBASEBLOCKHEAD lpBlock = (LPBASEBLOCKHEAD)(c.m_lpImage + nBlockOffset);
    int nBlockSize = nBlockOffset <= c.m_nImageSize - (long long)sizeof(BLOCKHEAD) ? lpBlock->m_nBlockSize : 0;
    if (nBlockSize < (int)sizeof(BLOCKHEAD) || nBlockOffset + nBlockSize > c.m_nImageSize) {
        Trace("SaveChange2File", 1, 40002041,
              TALVOR_TEXT("发现块偏移超出了文件大小(%lld, %lld),路径:%s,块号:%d,块偏移位置%lld,块大小%d",
                          "It is found that the block offset exceeded the file size（%lld, %lld）, path: %s, block number: %d, block offset location %lld, block size %d"),
              c.m_nImageSize, (long long)c.m_lpLive->m_nFileTotalSize, PathOf(c), n, nBlockOffset, nBlockSize);
        return STEP_FAIL;
    }
    if (lpBlock->m_nDataFlag != BLOCK_DATAFLAG) {
        Trace("SaveChange2File", 1, 40002042,
              TALVOR_TEXT("发现块头信息已损坏,校验数据:%d[%d],路径:%s,块号:%d(%d),块偏移位置:%lld",
                          "It is found the header information of the block was damaged, check the data: %d [%d], path: %s, block number: %d(%d), block offset position: %lld"),
              (int)lpBlock->m_nDataFlag, BLOCK_DATAFLAG, PathOf(c), (int)lpBlock->m_nBlockNo, n, nBlockOffset);
        return STEP_FAIL;
    }
    if (TalvorLoadShared(&lpBlock->m_bSaveFlag) == 0 && !c.m_bForce) return STEP_OK;
    BOOL bFlashFlag = FALSE;
    int nResult = WriteIndexBlock(c, lpBlock, nBlockOffset, nBlockSize, bFlashFlag);
    if (bFlashFlag) bFlashbackFlag = TRUE;
    return nResult;
}

void TraceMapBlock(const SaveContext& c, long long nMapOffset, int nMapNum)
{
    Trace("SaveChange2File", 1, 40002046,
          TALVOR_TEXT("映射块超出了文件、链表成环或项数不正确,拒绝继续,路径:%s,映射块位置:%lld,项数:%d",
                      "A map block lies outside the file, its chain loops or its entry count is wrong, and was refused, path: %s, map block location: %lld, entries: %d"),
          PathOf(c), nMapOffset, nMapNum);
}

// Calls fnVisit(nMap, lpMap) for each block of the map chain of lpHead,
// read at nMap + nDelta in the image. The chain comes from the image:
// it is held to the image and to as many map blocks as the image can hold,
// and a block that breaks either stops the walk, traced.
template <typename Visit>
int VisitMapBlocks(const SaveContext& c, LPBASEFILEHEAD lpHead, long long nDelta, Visit fnVisit)
{
    long long nMapSize = lpHead->m_nBlockMapSize;
    long long nMap = lpHead->m_nBlockMapStartOffset;
    if (nMapSize < (long long)sizeof(BASEFILEBLOCKMAPHEAD)) {
        TraceMapBlock(c, nMap, 0);
        return STEP_FAIL;
    }
    long long nMaxSteps = c.m_nImageSize / nMapSize + 1;
    for (long long nStep = 0; nMap != 0; nStep++) {
        // nDelta and nMapSize are the head's map size (an int): their sum
        // cannot wrap; nMap may be anything.
        if (nStep >= nMaxSteps || nDelta < 0 || !DbSpanFits(nMap, nDelta + nMapSize, c.m_nImageSize)) {
            TraceMapBlock(c, nMap, 0);
            return STEP_FAIL;
        }
        long long nAt = nMap + nDelta;
        LPBASEFILEBLOCKMAPHEAD lpMap = (LPBASEFILEBLOCKMAPHEAD)(c.m_lpImage + nAt);
        if (fnVisit(nMap, lpMap) != STEP_OK) return STEP_FAIL;
        nMap = lpMap->m_nNextBlockMapOffset;
    }
    return STEP_OK;
}

// The entries of a map block as the image holds them, or -1 (traced) when
// its count cannot be.
int MapEntriesOf(const SaveContext& c, LPBASEFILEHEAD lpHead, long long nMap, LPBASEFILEBLOCKMAPHEAD lpMap)
{
    int nNum = lpMap->m_nBlockMapNum;
    if (nNum >= 0 && nNum <= DbMaxBlockMapNum((int)lpHead->m_nBlockMapSize)) return nNum;
    TraceMapBlock(c, nMap, nNum);
    return -1;
}

// Phase 3b: index files, map block by map block.
int WalkByMap(SaveContext& c, BOOL& bFlashbackFlag)
{
    return VisitMapBlocks(c, c.m_lpBase, c.m_nMapDelta,
                          [&](long long nMap, LPBASEFILEBLOCKMAPHEAD lpMap) {
                              int nNum = MapEntriesOf(c, c.m_lpBase, nMap, lpMap);
                              if (nNum < 0) return STEP_FAIL;
                              for (int i = 0; i < nNum; i++) {
                                  BASEFILEBLOCKMAP stEntry;
                                  memcpy(&stEntry, lpMap->m_pBlockMap + i, sizeof(stEntry));
                                  if (SaveMapEntry(c, stEntry, i + 1, bFlashbackFlag) != STEP_OK) return STEP_FAIL;
                              }
                              return STEP_OK;
                          });
}

// Phase 4: the head, after the blocks.
int WriteHead(SaveContext& c)
{
    const BYTE* lpHead = (const BYTE*)c.m_lpBase;
    int nHeader = c.m_lpBase->m_nFileHeaderSize;
    if (c.m_bSystem) {
        if (!WriteAt(c, lpHead, SYSHEAD_FIRST_PIECE, 0)) {
            int nErr = ErrnoOr(EIO);
            Trace("SaveChange2File", 1, 40002020,
                  TALVOR_TEXT("从内存写入物理文件失败,错误:%s(%d),路径:%s,写入位置:%d,写入大小:%d",
                              "Failed to write from memory to physical file, error: %s(%d), path: %s, write location: %d, write size: %d"),
                  strerror(nErr), nErr, PathOf(c), 0, SYSHEAD_FIRST_PIECE);
            return STEP_FAIL;
        }
        if (!WriteAt(c, lpHead + SYSHEAD_SECOND_PIECE, nHeader - SYSHEAD_SECOND_PIECE, SYSHEAD_SECOND_PIECE)) {
            int nErr = ErrnoOr(EIO);
            Trace("SaveChange2File", 1, 40002022,
                  TALVOR_TEXT("从内存写入物理文件失败,错误:%s(%d),路径:%s,写入位置:%d,写入大小:%d",
                              "Failed to write from memory to physical file, error: %s(%d), path: %s, write location: %d, write size: %d"),
                  strerror(nErr), nErr, PathOf(c), SYSHEAD_SECOND_PIECE, nHeader - SYSHEAD_SECOND_PIECE);
            return STEP_FAIL;
        }
        return STEP_OK;
    }
    if (!WriteAt(c, lpHead, nHeader, 0)) {
        int nErr = ErrnoOr(EIO);
        Trace("SaveChange2File", 1, 40002009,
              TALVOR_TEXT("从内存写入物理文件失败,错误:%s(%d),路径:%s,写入位置:%d,写入大小:%d",
                          "Failed to write from memory to physical file, error: %s(%d), path: %s, write location: %d, write size: %d"),
              strerror(nErr), nErr, PathOf(c), 0, nHeader);
        return STEP_FAIL;
    }
    return STEP_OK;
}

// Phase 5: the map, last; the slave's bytes go to the master's place. A map
// block whose bytes the file holds already, as this process wrote and
// synced them, is left out.
int WriteMap(SaveContext& c)
{
    long long nMapSize = c.m_lpBase->m_nBlockMapSize;
    long long nIndex = 0;
    return VisitMapBlocks(c, c.m_lpBase, c.m_nMapDelta,
                          [&](long long nMap, LPBASEFILEBLOCKMAPHEAD lpMap) {
                              long long nThis = nIndex++;
                              if (c.m_pMapOnDisk->Holds(nThis, nMap, (const BYTE*)lpMap, nMapSize)) return STEP_OK;
                              if (WriteAt(c, lpMap, nMapSize, nMap)) {
                                  c.m_pMapOnDisk->Written(nThis, nMap, (const BYTE*)lpMap, nMapSize);
                                  return STEP_OK;
                              }
                              int nErr = ErrnoOr(EIO);
                              Trace("SaveChange2File", 1, 40002011,
                                    TALVOR_TEXT("从内存写入物理文件失败,错误:%s(%d),路径:%s,写入位置:%lld,写入大小:%d",
                                                "Failed to write from memory to physical file, error: %s(%d), path: %s, write location: %lld, write size: %d"),
                                    strerror(nErr), nErr, PathOf(c), nMap, (int)nMapSize);
                              return STEP_FAIL;
                          });
}

// What the stage wrote reaches the medium before the next stage writes: a
// disk may write back its cache in any order, and a map on disk that names
// a block whose bytes never arrived makes the file unloadable.
// A pass writes inside the file and never changes its size, so a data sync
// is all the durability it needs.
int SyncStage(SaveContext& c)
{
    if (c.m_nWrites == 0) return STEP_OK;
    if (CTalvorFileIO::Current()->FDataSync(c.m_fd) == 0) {
        c.m_nWrites = 0;
        return STEP_OK;
    }
    int nErr = ErrnoOr(EIO);
    Trace("SaveChange2File", 1, 40002013,
          TALVOR_TEXT("同步物理文件失败,错误:%s(%d),路径:%s", "Failed to synchronize physical file, error: %s(%d), path: %s"),
          strerror(nErr), nErr, PathOf(c));
    return STEP_FAIL;
}

// Marks one live block for saving when it lies whole inside the image.
void MarkBlockAt(SaveContext& c, long long nBlockOffset)
{
    if (nBlockOffset <= 0 || nBlockOffset > c.m_nImageSize - (long long)sizeof(BLOCKHEAD)) return;
    LPBASEBLOCKHEAD lpBlock = (LPBASEBLOCKHEAD)(c.m_lpImage + nBlockOffset);
    if (lpBlock->m_nDataFlag == BLOCK_DATAFLAG) TalvorStoreShared(&lpBlock->m_bSaveFlag, 1);
}

// After a failed sync the kernel may have dropped the pages of every write
// of the pass, and a later sync would succeed without them: every block of
// the file, every object and the head are marked again, so that the next
// pass writes the file whole before anything commits it. Walks the live
// object chains and maps, bounded as the pass is.
void MarkWholeFileAgain(SaveContext& c)
{
    LPBASEFILEHEAD lpLive = c.m_lpLive;
    TalvorStoreShared(&lpLive->m_bSaveFlag, 1);
    int nMark = lpLive->m_nDataFlag;
    if (nMark == KVINDEXFILE_DATAFLAG || nMark == BTREEINDEXFILE_DATAFLAG) {
        VisitMapBlocks(c, lpLive, 0, [&](long long nMap, LPBASEFILEBLOCKMAPHEAD lpMap) {
            int nNum = MapEntriesOf(c, lpLive, nMap, lpMap);
            for (int i = 0; i < nNum; i++) MarkBlockAt(c, lpMap->m_pBlockMap[i].m_nBlockOffset);
            return nNum < 0 ? STEP_FAIL : STEP_OK;
        });
        return;
    }
    long long nTable = 0;
    int nObjects = 0;
    ObjectTableOf(c, lpLive, nTable, nObjects);
    for (int i = 0; i < nObjects; i++) {
        long long nAt = nTable + (long long)i * sizeof(BASEFILEOBJECTDEF);
        if (nAt < 0 || nAt + (long long)sizeof(BASEFILEOBJECTDEF) > c.m_nImageSize) break;
        LPBASEFILEOBJECTDEF lpObject = (LPBASEFILEOBJECTDEF)(c.m_lpImage + nAt);
        if (lpObject->m_nID == 0) continue;
        TalvorStoreShared(&lpObject->m_bSaveFlag, 1);
        for (long long nFirst : {(long long)lpObject->m_nFullBlockMapOffset, (long long)lpObject->m_nFreeBlockMapOffset})
            DbWalkMapChain(c.m_lpImage, c.m_nImageSize, nFirst, 0, nullptr, [&](long long, LPBASEFILEBLOCKMAP lpEntry) {
                MarkBlockAt(c, lpEntry->m_nBlockOffset);
                return true;
            });
    }
}

// Phase 1, steps 3 to 6. 0: go on; 1: refused; -1: nothing to do.
int CheckBeforeSave(LPFILEINFO pFileInfo, BOOL bForce)
{
    LPBASEFILEHEAD lpLive = (LPBASEFILEHEAD)pFileInfo->m_pFileAddr;
    BYTE bFileType = (BYTE)pFileInfo->m_bFileType;
    int nExpected = FileHeadDataFlag(bFileType);
    if (lpLive->m_nDataFlag != nExpected) {
        TraceHeadMark(bFileType, lpLive->m_nDataFlag, nExpected, pFileInfo->m_lpszFilePath);
        return 1;
    }
    if (pFileInfo->m_nTimestamp >= TalvorLoadShared(&lpLive->m_nTimestamp) &&
        TalvorLoadShared(&lpLive->m_bSaveFlag) == 0 && !bForce)
        return -1;
    if (lpLive->m_nBlockMapStructSize != BLOCKMAP_STRUCT_SIZE_MEMORY) {
        Trace("SaveChange2File", 1, 40002006,
              TALVOR_TEXT("m_nBlockMapStructSize值不正确,文件路径:%s,实际记录值:%d,正确值:%d",
                          "m_nBlockMapStructSize value is incorrect, file path: %s, the actual record value: %d, the correct value: %d"),
              pFileInfo->m_lpszFilePath, lpLive->m_nBlockMapStructSize, BLOCKMAP_STRUCT_SIZE_MEMORY);
        return 1;
    }
    if (lpLive->m_nBlockMapStartOffset == 0) {
        Trace("SaveChange2File", 1, 40002007,
              TALVOR_TEXT("m_nBlockMapStartOffset值不正确,文件路径:%s,实际记录值:%d,正确值:%d",
                          "m_nBlockMapStartOffset value incorrect, file path: %s, actual record value: %d, correct value: %d"),
              pFileInfo->m_lpszFilePath, lpLive->m_nBlockMapStartOffset, lpLive->m_nFileHeaderSize);
        return 1;
    }
    return 0;
}

int RunWalk(SaveContext& c, BOOL& bFlashbackFlag)
{
    int nMark = c.m_lpBase->m_nDataFlag;
    if (nMark == DATAFILE_DATAFLAG || nMark == SYSTEMFILE_DATAFLAG) return WalkByObjects(c, bFlashbackFlag);
    if (nMark == KVINDEXFILE_DATAFLAG || nMark == BTREEINDEXFILE_DATAFLAG) return WalkByMap(c, bFlashbackFlag);
    Trace("SaveChange2File", 1, 40002050,
          TALVOR_TEXT("保存的文件头数据(%d)不正确", "The saved file header data (%d) was incorrect"), nMark);
    return STEP_FAIL;
}

enum { WRITTEN_DURABLE = 0, WRITTEN_WRITEFAILED = 1, WRITTEN_SYNCFAILED = 2 };

// Phases 3 to 5, each stage on the medium before the next one begins.
int WriteInDurableOrder(SaveContext& c, BOOL& bFlashbackFlag)
{
    if (RunWalk(c, bFlashbackFlag) != STEP_OK) return WRITTEN_WRITEFAILED;
    if (SyncStage(c) != STEP_OK) return WRITTEN_SYNCFAILED;
    if (WriteHead(c) != STEP_OK) return WRITTEN_WRITEFAILED;
    if (SyncStage(c) != STEP_OK) return WRITTEN_SYNCFAILED;
    if (WriteMap(c) != STEP_OK) return WRITTEN_WRITEFAILED;
    if (SyncStage(c) != STEP_OK) return WRITTEN_SYNCFAILED;
    c.m_pMapOnDisk->Synced();
    return WRITTEN_DURABLE;
}

} // namespace

int CTalvorMemoryStorage::SaveChange2File(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo,
                                          long long nTimestamp, long long, LPBYTE lpBuffer, LPBYTE lpHeadBuf,
                                          BOOL bForce, BOOL& bFlashbackFlag)
{
    bFlashbackFlag = FALSE;
    if (pFileInfo == nullptr || pFileInfo->m_pFileAddr == nullptr) {
        Trace("SaveChange2File", 1, 40002001,
              TALVOR_TEXT("保存修改的文件时内存指针为空,文件路径:%s", "Memory pointer was empty when saving modified file, file path: %s"),
              pFileInfo != nullptr ? pFileInfo->m_lpszFilePath : "");
        return 0;
    }
    if (!IsMemoryFileType((BYTE)pFileInfo->m_bFileType)) return 0;
    int nCheck = CheckBeforeSave(pFileInfo, bForce);
    if (nCheck != 0) return nCheck > 0 ? 1 : 0;

    SaveContext c;
    memset(&c, 0, sizeof(c));
    c.m_pFileInfo = pFileInfo;
    c.m_lpImage = pFileInfo->m_pFileAddr;
    c.m_nImageSize = pFileInfo->m_liFileSize;
    PassDescriptor stPassFd(pFileInfo);
    c.m_fd = stPassFd.Fd();
    c.m_nTimestamp = nTimestamp;
    c.m_lpBuffer = lpBuffer;
    c.m_pFlashback = bForce ? nullptr : m_pFlashback;
    c.m_bForce = bForce;
    c.m_bSystem = pFileInfo->m_bFileType == FILETYPE_SYSTEM;
    c.m_lpLive = (LPBASEFILEHEAD)c.m_lpImage;
    c.m_pMapOnDisk = &m_stMapOnDisk;
    c.m_pListHolder = c.m_bSystem ? m_pListHolder : nullptr;

    // Phase 2: the view.
    if (bForce || m_pFlashback == nullptr) {
        TalvorStoreShared(&c.m_lpLive->m_bSaveFlag, 0);
        c.m_lpBase = c.m_lpLive;
    } else {
        // A head left in the buffer by an earlier file or pass must never
        // pass for this file's snapshot.
        memset(lpHeadBuf, 0, sizeof(BASEFILEHEAD));
        int nView = m_pFlashback->FlashbackMapData(lpCritSection, pFileInfo, nTimestamp, lpHeadBuf, SAVE_COPY_LIMIT);
        // "Nothing to save" is the engine's view, not a promise about the
        // marks in the image: a block marked now would be skipped by every
        // later pass. The buffer is left alone and the pass goes on from the
        // live head and the master map.
        LPBASEFILEHEAD lpCopy = (LPBASEFILEHEAD)lpHeadBuf;
        BOOL bSame = nView != FLASHBACK_NOTHINGTOSAVE && lpCopy->m_bFileNo == c.m_lpLive->m_bFileNo &&
                     lpCopy->m_nFileHeaderSize == c.m_lpLive->m_nFileHeaderSize;
        c.m_lpBase = bSame ? lpCopy : c.m_lpLive;
        c.m_nMapDelta = bSame ? lpCopy->m_nBlockMapSize : 0;
    }
    if (!HeadGeometryFits(c, c.m_lpBase) || (c.m_lpBase != c.m_lpLive && !HeadGeometryFits(c, c.m_lpLive))) {
        TraceGeometry(c, c.m_lpBase);
        return 1;
    }
    if (c.m_nMapDelta != 0 && c.m_nMapDelta != c.m_lpLive->m_nBlockMapSize) c.m_nMapDelta = c.m_lpLive->m_nBlockMapSize;

    int nWritten = WriteInDurableOrder(c, bFlashbackFlag);
    if (nWritten == WRITTEN_SYNCFAILED) MarkWholeFileAgain(c);
    if (nWritten != WRITTEN_DURABLE) {
        m_stMapOnDisk.Forget();
        TalvorStoreShared(&c.m_lpLive->m_bSaveFlag, 1);
        return 1;
    }
    if (bFlashbackFlag || c.m_bPending || c.m_bDamaged) TalvorStoreShared(&c.m_lpLive->m_bSaveFlag, 1);
    if (c.m_bDamaged) return 1;
    if (c.m_bPending) return SAVECHANGE_PENDING;
    pFileInfo->m_nTimestamp = nTimestamp;
    return 0;
}
