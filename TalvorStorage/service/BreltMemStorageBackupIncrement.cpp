// BreltMemStorageBackupIncrement.cpp — the incremental backup: for each file
// that changed since the reference timestamp, its head, its map blocks and
// the blocks stamped at or after the reference, each as an item of a chain
// of pages that says where the piece belongs.
//
// The file is written in order: the head area as a placeholder, then per
// file a placeholder page, the pieces, and the page rewritten with its
// items once it is full or the file ends; the head area with its records
// comes last. A backup cut anywhere before that carries zero records. The
// placeholder page and the pieces behind it go out together, gathered in
// a stage, before their page is rewritten.
//
// Most blocks of a memory-mode file are passed over on what its image
// shows, without a read; every block that goes in is judged on its bytes
// on disk.
//
// Every offset, count and size read from a database file is held to that
// file before it is used: a map or block that lies outside it, or a map
// that claims more entries than it holds, stops the backup.
#include "BreltMemStorage.h"

#include "DbFileLayout.h"
#include "TalvorBackupFile.h"
#include "TalvorCacheStorage.h"
#include "TalvorDirectFile.h"
#include "TalvorFileIO.h"
#include "TalvorFlashback.h"
#include "TalvorTrace.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace {

const int SECTOR = 512;
// Reads from database files go through this window, in whole sectors.
const int READ_WINDOW = 1 << 20;
const int BLOCK_PROBE = 512;
// Pieces are gathered into one write of up to this many bytes.
const int STAGE_SIZE = 4 << 20;
// Map heads and entries of the two modes.
const int MEMMAP_HEAD = 32;
const int MEMMAP_ENTRY = 20;
const int CACHEMAP_HEAD = 40;
const int CACHEMAP_ENTRY = 24;
const int CACHEMAP_ENTRY_OFFSET_AT = 16;

bool IsIncrementFileType(BYTE bType)
{
    return (bType >= FILETYPE_SYSTEM && bType <= FILETYPE_KVINDEX) || bType == FILETYPE_TABLE ||
           bType == FILETYPE_INDEX;
}

void TraceAllocFailure(LONG nCode, long long nSize)
{
    Trace("BackupIncrementalCore", 1, nCode, TALVOR_TEXT("分配内存失败(%d)，错误码：%d！", "Failed to allocate memory (%d), error code: %d!"),
          (int)nSize, ENOMEM);
}

void TraceReadFailure(LONG nCode, const char* lpszPath, long long nPos, int nSize, int nRet)
{
    Trace("BackupIncrementalCore", 1, nCode,
          TALVOR_TEXT("读取数据库文件失败[%s,位置:%lld,大小:%d],返回值:%d!",
                      "Failed to read database file [%s, Pos: %lld, Size: %d], return value: %d!"),
          lpszPath, nPos, nSize, nRet);
}

void TraceWriteFailure(LONG nCode, int nSize, int nRet)
{
    Trace("BackupIncrementalCore", 1, nCode,
          TALVOR_TEXT("向备份文件写入数据失败,写入大小[%d],返回值:%d", "Failed to write data to backup file, write size [%d], return value: %d"),
          nSize, nRet);
}

// One file of the database as the backup reads it: whole sectors through
// ReadBlock (its descriptor may be open for direct I/O), any range out.
struct SourceFile {
    LPTALVORCRITICALSECTION lpCrit;
    stu_FILEINFO* p;
    LPBYTE lpWindow;

    // nSize bytes at nPos, held to the file; 0, or the failure of ReadBlock
    // (1 for a range outside the file).
    int Read(long long nPos, LPBYTE lpOut, long long nSize)
    {
        if (nPos < 0 || nSize < 0 || nPos > p->m_liFileSize - nSize) return 1;
        while (nSize > 0) {
            long long nStart = nPos / SECTOR * SECTOR;
            long long nEnd = (nPos + nSize + SECTOR - 1) / SECTOR * SECTOR;
            if (nEnd - nStart > READ_WINDOW) nEnd = nStart + READ_WINDOW;
            if (nEnd > p->m_liFileSize) nEnd = p->m_liFileSize;
            int nRet = p->m_pStorageFile->ReadBlock(lpCrit, nStart, lpWindow, (int)(nEnd - nStart));
            if (nRet != 0) return nRet;
            long long nTake = nEnd - nPos < nSize ? nEnd - nPos : nSize;
            memcpy(lpOut, lpWindow + (nPos - nStart), (size_t)nTake);
            lpOut += nTake;
            nPos += nTake;
            nSize -= nTake;
        }
        return 0;
    }
};

// The page in hand and where the backup file stands.
struct PageCursor {
    CTalvorDirectFile* pFile;
    LPBYTE lpPage;
    int nItemIndex;
    long long nPagePos;
    long long nWritePos;
};

void StartPage(LPBYTE lpPage)
{
    memset(lpPage, 0, BACKUP_INCREMENT_PAGE_SIZE);
    LPBACKUPINCREMENTHEAD lpHead = (LPBACKUPINCREMENTHEAD)lpPage;
    lpHead->m_nDataFlag = BACKUP_INCREMENT_FLAG;
    lpHead->m_nBlockSize = BACKUP_INCREMENT_PAGE_SIZE;
}

} // namespace

BOOL CBreltMemStorageModule::BackupIncremental(LPTALVORCRITICALSECTION lpCritSection, LPTALVORPROGRESS lpTalvorProgress,
                                               char* lpArchiveDesPath, int nPathSize, BYTE bLevel, long long nTimestamp,
                                               long long nRefTimestamp, int nLogNo, int nLogPos, UINT ulLocalIP,
                                               const volatile BYTE& bAbort)
{
    // A level below 1 is a full backup's, and a reference not older than
    // the backup names the backup itself (or one of its own future): either
    // makes a file no chain can restore, and would take the name of the
    // backup it should stand on.
    if (bLevel < 1 || nRefTimestamp >= nTimestamp) {
        Trace("BackupIncremental", 1, 10021020,
              TALVOR_TEXT("增量备份级别%d,时间戳%lld,参照%lld不成链,拒绝备份",
                          "An incremental backup of level %d at %lld on %lld makes no chain and is refused"),
              (int)bLevel, nTimestamp, nRefTimestamp);
        return FALSE;
    }
    if (!BackupMayTakeName(lpArchiveDesPath, nPathSize, nTimestamp, bLevel, nRefTimestamp)) return FALSE;
    void* hFile = OpenBackupFullFile(lpArchiveDesPath, nPathSize, nTimestamp, FALSE);
    if (hFile == nullptr) return FALSE;
    if (lpTalvorProgress != nullptr) lpTalvorProgress->m_nStatus = PROGRESS_RUNNING;
    LPBYTE lpHeadBuf = nullptr, lpIncrementHeadBuf = nullptr, lpFileHeadBuf = nullptr, lpBlockMapBuf = nullptr,
           lpBlockBuf = nullptr;
    BOOL bDone = BackupIncrementalCore(lpCritSection, lpTalvorProgress, hFile, bLevel, nTimestamp, nRefTimestamp,
                                       nLogNo, nLogPos, ulLocalIP, lpHeadBuf, lpIncrementHeadBuf, lpFileHeadBuf,
                                       lpBlockMapBuf, lpBlockBuf, bAbort);
    CloseBackupFile(hFile);
    free(lpHeadBuf);
    free(lpIncrementHeadBuf);
    free(lpFileHeadBuf);
    free(lpBlockMapBuf);
    free(lpBlockBuf);
    if (bDone) bDone = PublishBackupFile(lpArchiveDesPath, nPathSize, nTimestamp);
    if (bDone) {
        if (m_pFlashback != nullptr) m_pFlashback->SetBackupTimestamp(nTimestamp);
    } else {
        DeleteBackupFile(lpArchiveDesPath, nPathSize, nTimestamp);
    }
    if (lpTalvorProgress != nullptr) lpTalvorProgress->m_nStatus = PROGRESS_IDLE;
    return bDone;
}

// The reference arguments are the caller's variables, which the page
// bookkeeping moves on.
BOOL CBreltMemStorageModule::WriteIncrementHeadData(void* hBkUpFile, LPBYTE lpIncrementHeadBuf, int nIncrementHeadSize,
                                                    const int& nItemIndex, const long long& nIncrementHeadPos,
                                                    const long long& nWritePos, BOOL bEnd)
{
    CTalvorDirectFile* pFile = (CTalvorDirectFile*)hBkUpFile;
    int& nItems = const_cast<int&>(nItemIndex);
    long long& nPagePos = const_cast<long long&>(nIncrementHeadPos);
    long long& nPos = const_cast<long long&>(nWritePos);
    LPBACKUPINCREMENTHEAD lpPage = (LPBACKUPINCREMENTHEAD)lpIncrementHeadBuf;
    lpPage->m_nIncrementBlockNum = nItems;
    lpPage->m_nNextPos = bEnd ? 0 : nPos;
    if (!pFile->WriteAt(nPagePos, lpIncrementHeadBuf, nIncrementHeadSize)) {
        Trace("WriteIncrementHeadData", 1, bEnd ? 10021002 : 10021012,
              TALVOR_TEXT("向备份文件写入数据失败,写入大小[%d],返回值:%d", "Failed to write data to backup file, write size [%d], return value: %d"),
              nIncrementHeadSize, errno);
        return FALSE;
    }
    nItems = 0;
    if (bEnd) {
        nPagePos = 0;
        return TRUE;
    }
    // The next page starts where the data stands; its placeholder goes
    // out at once, so that the pieces after it never overlap it.
    nPagePos = nPos;
    StartPage(lpIncrementHeadBuf);
    if (!pFile->WriteAt(nPagePos, lpIncrementHeadBuf, nIncrementHeadSize)) {
        Trace("WriteIncrementHeadData", 1, 10021014,
              TALVOR_TEXT("向备份文件写入数据失败,写入大小[%d],返回值:%d", "Failed to write data to backup file, write size [%d], return value: %d"),
              nIncrementHeadSize, errno);
        return FALSE;
    }
    nPos += nIncrementHeadSize;
    return TRUE;
}

namespace {

// Where one incremental backup stands while it walks a file.
struct IncrementRun {
    CBreltMemStorageModule* pModule;
    CTalvorDirectFile* pFile;
    LPBYTE lpPage;
    int nItemIndex;
    long long nPagePos;
    long long nWritePos;
    long long nRefTimestamp;
    const volatile BYTE* pAbort;
    SourceFile src;
    BOOL bCache;
    LPBYTE lpMap;
    int nMapSize;
    LPBYTE lpBlock;
    int nBlockBufSize;
    // The file's image while it may pass over unchanged blocks, else null.
    const BYTE* lpImage;
    long long nImageSize;
    // The bytes from nStagePos up to nWritePos wait here (STAGE_SIZE bytes)
    // to go to the file in one write. Anything written to the file directly
    // (a page rewritten, the head area) comes after Unstage, so that no
    // write of the stage lands over it later.
    LPBYTE lpStage;
    long long nStagePos;

    BOOL Aborted() const { return TalvorLoadShared(pAbort) != 0; }

    // Writes what the stage holds; nWriteCode names a failure.
    BOOL Unstage(LONG nWriteCode)
    {
        long long nHeld = nWritePos - nStagePos;
        if (nHeld > 0 && !pFile->WriteAt(nStagePos, lpStage, nHeld)) {
            TraceWriteFailure(nWriteCode, (int)nHeld, errno);
            return FALSE;
        }
        nStagePos = nWritePos;
        return TRUE;
    }

    // nSize bytes appended at nWritePos, staged, or written at once when
    // they are larger than the stage.
    BOOL Append(const BYTE* lpData, int nSize, LONG nWriteCode)
    {
        if (nWritePos - nStagePos + nSize > STAGE_SIZE && !Unstage(nWriteCode)) return FALSE;
        if (nSize > STAGE_SIZE) {
            if (!pFile->WriteAt(nWritePos, lpData, nSize)) {
                TraceWriteFailure(nWriteCode, nSize, errno);
                return FALSE;
            }
            nWritePos += nSize;
            nStagePos = nWritePos;
            return TRUE;
        }
        memcpy(lpStage + (nWritePos - nStagePos), lpData, (size_t)nSize);
        nWritePos += nSize;
        return TRUE;
    }

    // The page in hand written with its items; with bEnd the file's chain
    // ends there, else the next page begins at the write position.
    BOOL EndPage(BOOL bEnd)
    {
        if (!Unstage(bEnd ? 10021002 : 10021012)) return FALSE;
        BOOL bDone = pModule->WriteIncrementHeadData(pFile, lpPage, BACKUP_INCREMENT_PAGE_SIZE, nItemIndex, nPagePos,
                                                     nWritePos, bEnd);
        nStagePos = nWritePos;
        return bDone;
    }

    // One piece into the backup and its item into the page; a full page is
    // written first and the next one begun.
    BOOL AddItem(BYTE bType, int nBlockNo, const BYTE* lpData, int nSize, long long nFilePos, LONG nWriteCode)
    {
        if (nItemIndex >= BACKUP_INCREMENT_MAX_ITEMS && !EndPage(FALSE)) return FALSE;
        const long long nDataPos = nWritePos;
        if (!Append(lpData, nSize, nWriteCode)) return FALSE;
        LPBACKUPINCREMENTITEM lpItem = &((LPBACKUPINCREMENTHEAD)lpPage)->m_pBlockItem[nItemIndex];
        lpItem->m_nBlockSize = nSize;
        lpItem->m_nBlockNo = nBlockNo;
        lpItem->m_nBlockType = bType;
        lpItem->m_nBlockDataPos = nDataPos;
        lpItem->m_nBlockFilePos = nFilePos;
        nItemIndex++;
        return TRUE;
    }

    // TRUE when the image shows the entry's block stamped before the
    // reference. The engine only moves a block's stamp forward and the pass
    // wrote the disk from the image, so the disk holds no newer stamp and
    // the block needs no read. Whatever else the image shows (no mark yet,
    // another number, a head past its end or not aligned for whole loads)
    // leaves the decision to the disk.
    BOOL ImageShowsUnchanged(UINT nEntryBlockNo, long long nBlockOffset) const
    {
        if (lpImage == nullptr || nBlockOffset % (long long)alignof(long long) != 0 ||
            nBlockOffset > nImageSize - (long long)sizeof(BASEBLOCKHEAD))
            return FALSE;
        const BASEBLOCKHEAD* lpLive = (const BASEBLOCKHEAD*)(lpImage + nBlockOffset);
        return TalvorLoadShared(&lpLive->m_nDataFlag) == BLOCK_DATAFLAG &&
               TalvorLoadShared(&lpLive->m_nBlockNo) == nEntryBlockNo &&
               TalvorLoadShared(&lpLive->m_nTimestamp) < nRefTimestamp;
    }

    // How many bytes of the block at nBlockOffset the first read takes:
    // the whole block as the image sizes it, where that fits the buffer and
    // the file (a block that passed the image most likely goes in, and one
    // read then serves both its head and its bytes), else the probe. At
    // most what the file holds from there.
    long long FirstRead(long long nBlockOffset) const
    {
        long long nLeft = src.p->m_liFileSize - nBlockOffset;
        long long nWant = BLOCK_PROBE;
        if (lpImage != nullptr && nBlockOffset <= nImageSize - (long long)sizeof(BASEBLOCKHEAD)) {
            int nImageBlockSize = 0;  // fixed when the block was made
            memcpy(&nImageBlockSize, lpImage + nBlockOffset + offsetof(BASEBLOCKHEAD, m_nBlockSize),
                   sizeof(nImageBlockSize));
            if (nImageBlockSize > nWant && nImageBlockSize <= nBlockBufSize) nWant = nImageBlockSize;
        }
        return nLeft < nWant ? nLeft : nWant;
    }

    // The block an entry names, if it changed since the reference: its
    // mark, number, stamp and size are those on disk.
    BOOL TakeBlock(UINT nEntryBlockNo, long long nBlockOffset)
    {
        const char* lpszPath = src.p->m_lpszFilePath;
        long long nFileSize = src.p->m_liFileSize;
        if (nBlockOffset <= 0) return TRUE;  // an entry with no block yet
        if (ImageShowsUnchanged(nEntryBlockNo, nBlockOffset)) return TRUE;
        long long nProbe = FirstRead(nBlockOffset);
        memset(lpBlock, 0, BLOCK_PROBE);
        int nRet = nProbe < (long long)sizeof(BASEBLOCKHEAD) ? 1 : src.Read(nBlockOffset, lpBlock, nProbe);
        if (nRet != 0) {
            TraceReadFailure(bCache ? 10019033 : 10019023, lpszPath, nBlockOffset, (int)nProbe, nRet);
            return FALSE;
        }
        BASEBLOCKHEAD stHead;
        memcpy(&stHead, lpBlock, sizeof(stHead));
        if (stHead.m_nDataFlag != BLOCK_DATAFLAG || stHead.m_nTimestamp < nRefTimestamp) return TRUE;
        if (stHead.m_nBlockNo != nEntryBlockNo) {
            Trace("BackupIncrementalCore", 1, bCache ? 10019035 : 10014024,
                  TALVOR_TEXT("数据块信息[%d,%d]不正确,数据库文件[%s,位置:%lld]!",
                              "The block information [%d, %d] read from database file [%s, Pos: %lld] is incorrect!"),
                  (int)nEntryBlockNo, (int)stHead.m_nBlockNo, lpszPath, nBlockOffset);
            return FALSE;
        }
        int nSize = stHead.m_nBlockSize;
        if (nSize < (int)sizeof(BASEBLOCKHEAD) || nBlockOffset > nFileSize - nSize) {
            Trace("BackupIncrementalCore", 1, bCache ? 10019035 : 10014024,
                  TALVOR_TEXT("数据块大小[%d,%d]不正确,数据库文件[%s,位置:%lld]!",
                              "The block size [%d, %d] read from database file [%s, Pos: %lld] is incorrect!"),
                  (int)nEntryBlockNo, nSize, lpszPath, nBlockOffset);
            return FALSE;
        }
        if (nSize > nBlockBufSize) {
            LPBYTE lpLarger = (LPBYTE)get_aligned_buffer((size_t)nSize);
            if (lpLarger == nullptr) {
                TraceAllocFailure(10014027, nSize);
                return FALSE;
            }
            free(lpBlock);
            lpBlock = lpLarger;
            nBlockBufSize = nSize;
        }
        // Past what the first read took, the block is read whole.
        nRet = nSize <= nProbe ? 0 : src.Read(nBlockOffset, lpBlock, nSize);
        if (nRet != 0) {
            TraceReadFailure(bCache ? 10019036 : 10014025, lpszPath, nBlockOffset, nSize, nRet);
            return FALSE;
        }
        return AddItem(BACKUPITEM_DATABLOCK, (int)nEntryBlockNo, lpBlock, nSize, nBlockOffset,
                       bCache ? 10019037 : 10014026);
    }

    // Every map block of the file, and the changed blocks it lists.
    BOOL WalkMaps(long long nMapOffset)
    {
        const char* lpszPath = src.p->m_lpszFilePath;
        long long nFileSize = src.p->m_liFileSize;
        const int nHead = bCache ? CACHEMAP_HEAD : MEMMAP_HEAD;
        const int nEntry = bCache ? CACHEMAP_ENTRY : MEMMAP_ENTRY;
        const int nMaxEntries = (nMapSize - nHead) / nEntry;
        // A chain can visit each map block once.
        for (long long nStep = 0; nMapOffset != 0; nStep++) {
            if (Aborted()) return FALSE;
            int nRet = nStep > nFileSize / nMapSize || nMapOffset < 0 ? 1 : src.Read(nMapOffset, lpMap, nMapSize);
            if (nRet != 0) {
                TraceReadFailure(bCache ? 10019030 : 10019020, lpszPath, nMapOffset, nMapSize, nRet);
                return FALSE;
            }
            int nFlag = 0, nCount = 0, nMapNo = 0;
            long long nMapTimestamp = 0, nNext = 0;
            memcpy(&nFlag, lpMap, 4);
            memcpy(&nCount, lpMap + 4, 4);
            memcpy(&nMapTimestamp, lpMap + 8, 8);
            memcpy(&nMapNo, lpMap + 20, 4);
            memcpy(&nNext, lpMap + 24, 8);
            int nWanted = bCache ? BLOCKMAP_CACHE_DATAFLAG : BLOCKMAP_DATAFLAG;
            if (nFlag != nWanted || nCount < 0 || nCount > nMaxEntries) {
                Trace("BackupIncrementalCore", 1, bCache ? 10019031 : 10019021,
                      TALVOR_TEXT("映射块标识不正确,校验码:%d[%d]", "Map block id is incorrect, check code: %d[%d]"), nFlag,
                      nCount);
                return FALSE;
            }
            if ((!bCache || nMapTimestamp >= nRefTimestamp) &&
                !AddItem(BACKUPITEM_MAPBLOCK, nMapNo, lpMap, nMapSize, nMapOffset, bCache ? 10019032 : 10019022))
                return FALSE;
            for (int i = 0; i < nCount; i++) {
                if (Aborted()) return FALSE;
                const BYTE* lpEntry = lpMap + nHead + (long long)i * nEntry;
                UINT nBlockNo = 0;
                long long nBlockOffset = 0;
                memcpy(&nBlockNo, lpEntry, 4);
                memcpy(&nBlockOffset, lpEntry + (bCache ? CACHEMAP_ENTRY_OFFSET_AT : 4), 8);
                if (!TakeBlock(nBlockNo, nBlockOffset)) return FALSE;
            }
            nMapOffset = nNext;
        }
        return TRUE;
    }
};

// The image of a memory-mode file, when it may stand in for the disk to
// pass over unchanged blocks: not the system file (its image may be shorter
// than the disk, and it has few blocks), and only when the image's head
// puts the maps where the disk's head does, so that one offset names the
// same block in both. Null otherwise, and always when bEnabled is FALSE.
const BYTE* FilterImage(const stu_FILEINFO* p, const BASEFILEHEAD& stDiskHead, BOOL bEnabled)
{
    const BYTE bType = (BYTE)p->m_bFileType;
    if (!bEnabled || p->m_pFileAddr == nullptr || !IsMemoryFileType(bType) || bType == FILETYPE_SYSTEM ||
        p->m_liFileSize < (long long)sizeof(BASEFILEHEAD))
        return nullptr;
    // Fixed when the file was made; the engine does not write them.
    int nMapStart = 0, nMapSize = 0;
    memcpy(&nMapStart, p->m_pFileAddr + offsetof(BASEFILEHEAD, m_nBlockMapStartOffset), sizeof(nMapStart));
    memcpy(&nMapSize, p->m_pFileAddr + offsetof(BASEFILEHEAD, m_nBlockMapSize), sizeof(nMapSize));
    if (nMapStart != stDiskHead.m_nBlockMapStartOffset || nMapSize != stDiskHead.m_nBlockMapSize) return nullptr;
    return p->m_pFileAddr;
}

// One file into the backup: its record always; its head, maps and changed
// blocks only when it changed since the reference. lpFileHead is the
// caller's buffer of the head (grown here; the caller frees the last).
BOOL BackupOneFile(IncrementRun& run, LPTALVORPROGRESS lpTalvorProgress, stu_FILEINFO* p,
                   LPSTRUCT_BACKUP_FILEINFO lpRecord, LPBYTE& lpFileHead)
{
    IVirtualStorageFile* pStorage = p->m_pStorageFile;
    int nFileHeadSize = pStorage->GetHeadSize(p);
    lpRecord->m_bFileType = (BYTE)p->m_bFileType;
    lpRecord->m_bFileNo = p->m_bFileNo;
    lpRecord->m_nFileSize = run.pModule->FileSizeOnDisk(p);
    lpRecord->m_nFileHeaderSize = nFileHeadSize;
    lpRecord->m_nFileFreeMemoryOffset = pStorage->GetFreeMemoryOffset(p);
    memcpy(lpRecord->m_lpszFilePath, p->m_lpszFilePath, strnlen(p->m_lpszFilePath, sizeof(lpRecord->m_lpszFilePath) - 1));
    lpRecord->m_nDataStartOffset = 0;
    lpRecord->m_nDataEndOffset = 0;
    // The system file goes in whatever its head's stamp says: commits move
    // its persisted-up-to timestamps, not that stamp, and a restore to this
    // level must not come back with the older commit of the level below.
    const BOOL bSystem = (BYTE)p->m_bFileType == FILETYPE_SYSTEM;
    if (!bSystem && pStorage->GetFileTimestamp(p) < run.nRefTimestamp) return TRUE;

    run.src.p = p;
    if (nFileHeadSize < (int)sizeof(BASEFILEHEAD) || nFileHeadSize > p->m_liFileSize) {
        TraceReadFailure(10019010, p->m_lpszFilePath, 0, nFileHeadSize, 1);
        return FALSE;
    }
    free(lpFileHead);
    lpFileHead = (LPBYTE)get_aligned_buffer((size_t)nFileHeadSize);
    if (lpFileHead == nullptr) {
        TraceAllocFailure(10014016, nFileHeadSize);
        return FALSE;
    }
    int nRet = run.src.Read(0, lpFileHead, nFileHeadSize);
    if (nRet != 0) {
        TraceReadFailure(10019010, p->m_lpszFilePath, 0, nFileHeadSize, nRet);
        return FALSE;
    }
    BASEFILEHEAD stHead;
    memcpy(&stHead, lpFileHead, sizeof(stHead));
    if (!bSystem && stHead.m_nTimestamp < run.nRefTimestamp) return TRUE;
    TalvorBackupShowTitle(lpTalvorProgress, p->m_lpszFilePath);

    StartPage(run.lpPage);
    lpRecord->m_nDataStartOffset = run.nWritePos;
    run.nPagePos = run.nWritePos;
    run.nItemIndex = 0;
    if (!run.Append(run.lpPage, BACKUP_INCREMENT_PAGE_SIZE, 10019011)) return FALSE;
    if (!run.AddItem(BACKUPITEM_FILEHEAD, 0, lpFileHead, nFileHeadSize, 0, 10019012)) return FALSE;

    run.bCache = IsCacheFileType((BYTE)p->m_bFileType);
    run.lpImage = FilterImage(p, stHead, run.pModule->m_bIncrementSkipByImage);
    run.nImageSize = p->m_liFileSize;
    if (stHead.m_nBlockMapStartOffset != 0) {
        int nMapSize = stHead.m_nBlockMapSize;
        int nMinMap = run.bCache ? CACHEMAP_HEAD + CACHEMAP_ENTRY : MEMMAP_HEAD + MEMMAP_ENTRY;
        if (nMapSize < nMinMap || nMapSize > p->m_liFileSize || nMapSize > READ_WINDOW * 16) {
            Trace("BackupIncrementalCore", 1, run.bCache ? 10019031 : 10019021,
                  TALVOR_TEXT("映射块标识不正确,校验码:%d[%d]", "Map block id is incorrect, check code: %d[%d]"), 0, nMapSize);
            return FALSE;
        }
        if (nMapSize > run.nMapSize) {
            free(run.lpMap);
            run.lpMap = (LPBYTE)get_aligned_buffer((size_t)nMapSize);
            run.nMapSize = run.lpMap != nullptr ? nMapSize : 0;
        }
        int nBlockWanted = nMapSize > BLOCK_PROBE ? nMapSize : BLOCK_PROBE;
        if (nBlockWanted > run.nBlockBufSize) {
            free(run.lpBlock);
            run.lpBlock = (LPBYTE)get_aligned_buffer((size_t)nBlockWanted);
            run.nBlockBufSize = run.lpBlock != nullptr ? nBlockWanted : 0;
        }
        if (run.lpMap == nullptr || run.lpBlock == nullptr) {
            TraceAllocFailure(run.lpMap == nullptr ? 10014013 : 10014014, nMapSize);
            return FALSE;
        }
        run.nMapSize = nMapSize;
        if (!run.WalkMaps(stHead.m_nBlockMapStartOffset)) return FALSE;
    }
    if (!run.EndPage(TRUE)) return FALSE;
    lpRecord->m_nDataEndOffset = run.nWritePos;
    return TRUE;
}

} // namespace

BOOL CBreltMemStorageModule::BackupIncrementalCore(LPTALVORCRITICALSECTION lpCritSection,
                                                   LPTALVORPROGRESS lpTalvorProgress, void* hBkUpFile, BYTE bLevel,
                                                   long long nTimestamp, long long nRefTimestamp, int nLogNo,
                                                   int nLogPos, UINT ulLocalIP, const LPBYTE& lpHeadBuf,
                                                   const LPBYTE& lpIncrementHeadBuf, const LPBYTE& lpFileHeadBuf,
                                                   const LPBYTE& lpBlockMapBuf, const LPBYTE& lpBlockBuf,
                                                   const volatile BYTE& bAbort)
{
    // The buffers are the caller's to free, whatever happens here.
    LPBYTE& lpHeadArea = const_cast<LPBYTE&>(lpHeadBuf);
    LPBYTE& lpPage = const_cast<LPBYTE&>(lpIncrementHeadBuf);
    LPBYTE& lpFileHead = const_cast<LPBYTE&>(lpFileHeadBuf);
    LPBYTE& lpMap = const_cast<LPBYTE&>(lpBlockMapBuf);
    LPBYTE& lpBlock = const_cast<LPBYTE&>(lpBlockBuf);
    CTalvorDirectFile* pFile = (CTalvorDirectFile*)hBkUpFile;

    stu_FILEINFO* arFiles[256];
    int nFileNum = 0;
    long long nTotal = 0;
    for (int i = 0; i < 256; i++) {
        stu_FILEINFO* p = m_arFileInfo[i];
        if (p == nullptr || p->m_pStorageFile == nullptr || !IsIncrementFileType((BYTE)p->m_bFileType)) continue;
        arFiles[nFileNum++] = p;
        nTotal += p->m_liFileSize;
    }
    const int nHeadSize = BackupHeadSize(nFileNum);
    lpHeadArea = (LPBYTE)get_aligned_buffer((size_t)nHeadSize);
    lpPage = (LPBYTE)get_aligned_buffer(BACKUP_INCREMENT_PAGE_SIZE);
    LPBYTE lpWindow = (LPBYTE)get_aligned_buffer(READ_WINDOW);
    LPBYTE lpStage = (LPBYTE)get_aligned_buffer(STAGE_SIZE);
    if (lpHeadArea == nullptr || lpPage == nullptr || lpWindow == nullptr || lpStage == nullptr || nFileNum == 0) {
        free(lpWindow);
        free(lpStage);
        TraceAllocFailure(10014015, nHeadSize);
        return FALSE;
    }
    memset(lpHeadArea, 0, (size_t)nHeadSize);
    LPBACKUPFILEHEAD lpHead = (LPBACKUPFILEHEAD)lpHeadArea;
    TalvorFillBackupHead(lpHead, nHeadSize, nFileNum, nTimestamp, nLogNo, nLogPos, ulLocalIP, GetDatabaseGuid());
    lpHead->m_nReferTimestamp = nRefTimestamp;
    lpHead->m_bLevel = bLevel;
    TalvorBackupShowTotal(lpTalvorProgress, nTotal);
    if (!pFile->WriteAt(0, lpHeadArea, nHeadSize)) {
        free(lpWindow);
        free(lpStage);
        Trace("BackupIncrementalCore", 1, 10019002,
              TALVOR_TEXT("写入备份文件头失败(%d,%d)!", "Failed to write to backup file header (%d, %d)!"), nHeadSize, errno);
        return FALSE;
    }

    IncrementRun run = {this, pFile, lpPage, 0, 0, nHeadSize, nRefTimestamp, &bAbort, {lpCritSection, nullptr, lpWindow},
                        FALSE, nullptr, 0, nullptr, 0, nullptr, 0, lpStage, nHeadSize};
    long long nFinished = 0;
    BOOL bDone = TRUE;
    for (int nIndex = 0; nIndex < nFileNum && bDone; nIndex++) {
        if (TalvorLoadShared(&bAbort)) {
            bDone = FALSE;
            break;
        }
        stu_FILEINFO* p = arFiles[nIndex];
        bDone = BackupOneFile(run, lpTalvorProgress, p, &lpHead->m_stBackupFileInfo[nIndex], lpFileHead);
        nFinished += p->m_liFileSize;
        TalvorBackupShowPos(lpTalvorProgress, nFinished);
    }
    // The run owned the map and block buffers: the caller frees the last.
    lpMap = run.lpMap;
    lpBlock = run.lpBlock;
    free(lpWindow);
    free(lpStage);
    if (!bDone || TalvorLoadShared(&bAbort)) return FALSE;
    if (!pFile->Finish()) {
        TraceWriteFailure(10019042, nHeadSize, errno);
        return FALSE;
    }
    // The head after the data is on the medium, and on it before the backup
    // is called done.
    int nErr = TalvorCommitBackupHead(pFile->Fd(), lpHeadArea, nHeadSize);
    if (nErr != 0) {
        TraceWriteFailure(10019042, nHeadSize, nErr);
        return FALSE;
    }
    return TRUE;
}
