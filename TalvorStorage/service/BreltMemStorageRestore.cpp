// BreltMemStorageRestore.cpp — rebuilding the files of a database from a
// chain of backups: a level 0 full backup, then each incremental above it.
//
// A restore writes only files, through direct synchronous I/O, at the
// paths the backups name. Before it writes a byte it has read and checked
// the whole chain (BackupChainCheck.h), and each backup is checked again
// as it is opened for use, so that nothing a backup says is used unchecked
// even by a caller that skipped the chain.
#include "BreltMemStorage.h"

#include "BackupChainCheck.h"
#include "TalvorDirectFile.h"
#include "TalvorFileIO.h"
#include "TalvorOverlapCopy.h"
#include "TalvorRestoreMark.h"
#include "TalvorTrace.h"

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>

namespace {

const int RESTORE_WORK_BUFFER_SIZE = 0x800000;
const int PROGRESS_TOTAL_CAP = 0x40000000;
const long long RESTORE_MIB = 1LL << 20;
// A level 0 title shows at most the last 97 characters of the path; an
// incremental one the last 90 of a path of 90 or more.
const size_t FULL_TITLE_TAIL = 97;
const size_t INCREMENT_TITLE_TAIL = 90;

CTalvorDirectFile* AsFile(const void* h) { return (CTalvorDirectFile*)h; }

int ProgressMiB(long long nBytes)
{
    long long nMiB = nBytes / RESTORE_MIB;
    return (int)(nMiB > PROGRESS_TOTAL_CAP ? PROGRESS_TOTAL_CAP : nMiB);
}

void SetProgressPos(LPTALVORPROGRESS lpProgress, long long nBytes)
{
    if (lpProgress != nullptr) lpProgress->m_nPos = ProgressMiB(nBytes);
}

void SetRecoverTitle(LPTALVORPROGRESS lpProgress, int nLevel, const char* lpszPath, size_t nTail, BOOL bTailAtLength)
{
    if (lpProgress == nullptr) return;
    size_t nLen = strnlen(lpszPath, MAX_PATH);
    BOOL bCut = bTailAtLength ? nLen >= nTail : nLen > nTail;
    const char* lpShown = bCut ? lpszPath + nLen - nTail : lpszPath;
    memset(lpProgress->m_lpTitle, 0, sizeof(lpProgress->m_lpTitle));
    snprintf(lpProgress->m_lpTitle, sizeof(lpProgress->m_lpTitle), "Level %d DataBase Recover %s", nLevel, lpShown);
}

void TraceNoMemory(const char* lpFunction, int nSize)
{
    Trace(lpFunction, 1, 10022030, TALVOR_TEXT("备份文件时分配内存失败(%d)，错误码：%d", "Failed to allocate memory for the backup file (%d), error code: %d"),
          nSize, ENOMEM);
}

// The head area of an open backup, read and checked with every record
// (and page) it lists; lpHeadArea is the caller's to free.
BOOL LoadCheckedHead(CTalvorDirectFile* pBackup, long long nTimestamp, LPBYTE& lpHeadArea)
{
    if (!TalvorReadBackupHead(pBackup, nTimestamp, lpHeadArea)) return FALSE;
    LPBYTE lpPage = (LPBYTE)get_aligned_buffer(BACKUP_INCREMENT_PAGE_SIZE);
    if (lpPage == nullptr) {
        TraceNoMemory("CheckBackupChain", BACKUP_INCREMENT_PAGE_SIZE);
        return FALSE;
    }
    BOOL bGood = TalvorCheckBackupRecords(pBackup, (const BACKUPFILEHEAD*)lpHeadArea, lpPage);
    free(lpPage);
    return bGood;
}

// Creates the file of a record anew (an older one removed first).
BOOL CreateTarget(CTalvorDirectFile& target, const char* lpszPath)
{
    // A directory whose name could not be synced would lose the file with
    // it at a power loss after the restore counts as done.
    int nDirErr = 0;
    MakeDir(lpszPath, &nDirErr);
    CTalvorFileIO* pIO = CTalvorFileIO::Current();
    if (nDirErr != 0 || (TalvorPathExists(lpszPath) && pIO->Unlink(lpszPath) != 0) ||
        !target.Open(lpszPath, O_RDWR | O_CREAT | O_EXCL, FALSE)) {
        Trace("Recover", 1, 10016001,
              TALVOR_TEXT("打开数据库文件[%s]失败,错误码:%d!", "Failed to open database file [%s], error code: %d!"), lpszPath,
              nDirErr != 0 ? nDirErr : errno);
        return FALSE;
    }
    pIO->FChmod(target.Fd(), 0666);
    return TRUE;
}

struct RESTOREPROGRESS {
    LPTALVORPROGRESS m_lpProgress;
    long long m_nFinished;
};

void OnPieceRestored(void* lpContext, long long nCopied)
{
    const RESTOREPROGRESS* pCtx = (const RESTOREPROGRESS*)lpContext;
    SetProgressPos(pCtx->m_lpProgress, pCtx->m_nFinished + nCopied);
}

// The used part from the backup, at the start of the file. The work buffer
// is used as two halves, so that the next piece is read while one is written.
BOOL CopyUsedPart(CTalvorDirectFile* pBackup, CTalvorDirectFile& target, const STRUCT_BACKUP_FILEINFO& r,
                  LPBYTE lpBuffer, int nBufSize, LPTALVORPROGRESS lpProgress, long long nFinished)
{
    const int nHalf = nBufSize / 2;
    assert(nHalf > 0 && nHalf % DIRECTFILE_SECTOR == 0);
    LPBYTE arHalves[2] = {lpBuffer, lpBuffer + nHalf};
    RESTOREPROGRESS stCtx = {lpProgress, nFinished};
    OVERLAPCOPYFAULT stFault;
    if (TalvorOverlapCopy(pBackup, r.m_nDataStartOffset, &target, 0, r.m_nDataEndOffset - r.m_nDataStartOffset,
                          arHalves, nHalf, OnPieceRestored, &stCtx, &stFault))
        return TRUE;
    errno = stFault.m_nErrno;
    if (stFault.m_eStage == OVERLAPCOPY_READ)
        Trace("Recover", 1, 10016002,
              TALVOR_TEXT("读取备份文件失败[位置:%lld,大小:%d/%d],错误码:%d!",
                          "Failed to read the backup file [Pos: %lld, Size: %d/%d], error code: %d!"),
              stFault.m_nPos, stFault.m_nSize, stFault.m_nSize, stFault.m_nErrno);
    else
        Trace("Recover", 1, 10016003,
              TALVOR_TEXT("写入数据库文件失败[%s,位置:%lld,大小:%d/%d],错误码:%d!",
                          "Failed to write database file [%s, Pos: %lld, Size: %d/%d], error code: %d!"),
              r.m_lpszFilePath, stFault.m_nPos, stFault.m_nSize, stFault.m_nSize, stFault.m_nErrno);
    return FALSE;
}

// Zeros from the end of the used part up to the file's full size. Most of
// a database file is often that tail: it is reserved on the medium, which
// reads as zero, instead of written, where the file system can do that.
BOOL ZeroFillToSize(CTalvorDirectFile& target, const STRUCT_BACKUP_FILEINFO& r, LPBYTE lpBuffer, int nBufSize)
{
    if (target.ExtendZeroed(r.m_nFileSize)) return TRUE;
    if (errno != EOPNOTSUPP && errno != ENOSYS) {
        Trace("Recover", 1, 10016010,
              TALVOR_TEXT("写入数据库文件失败[%s,位置:%lld,大小:%d/%d],错误码:%d!",
                          "Failed to write database file [%s, Pos: %lld, Size: %d/%d], error code: %d!"),
              r.m_lpszFilePath, target.Size(), 0, 0, errno);
        return FALSE;
    }
    memset(lpBuffer, 0, (size_t)nBufSize);
    for (long long nPos = r.m_nDataEndOffset - r.m_nDataStartOffset; nPos < r.m_nFileSize;) {
        int nPiece = (int)(r.m_nFileSize - nPos < nBufSize ? r.m_nFileSize - nPos : nBufSize);
        if (!target.WriteAt(nPos, lpBuffer, nPiece)) {
            Trace("Recover", 1, 10016010,
                  TALVOR_TEXT("写入数据库文件失败[%s,位置:%lld,大小:%d/%d],错误码:%d!",
                              "Failed to write database file [%s, Pos: %lld, Size: %d/%d], error code: %d!"),
                  r.m_lpszFilePath, nPos, nPiece, nPiece, errno);
            return FALSE;
        }
        nPos += nPiece;
    }
    return TRUE;
}

// The file's length and name reach the medium before it counts as restored:
// its writes go unsynced (the restore mark covers them until then) and are
// all synced here at once.
BOOL FinishTarget(CTalvorDirectFile& target, const char* lpszPath, LONG nCode)
{
    if (!target.Finish()) {
        Trace("Recover", 1, nCode,
              TALVOR_TEXT("同步数据库文件[%s]失败,错误码:%d!", "Failed to sync database file [%s], error code: %d!"),
              lpszPath, errno);
        return FALSE;
    }
    target.Close();
    if (TalvorSyncParentDirectory(lpszPath) != 0) {
        Trace("Recover", 1, nCode,
              TALVOR_TEXT("同步数据库文件[%s]失败,错误码:%d!", "Failed to sync database file [%s], error code: %d!"),
              lpszPath, errno);
        return FALSE;
    }
    return TRUE;
}

BOOL RestoreFullFile(CTalvorDirectFile* pBackup, const STRUCT_BACKUP_FILEINFO& r, LPBYTE lpBuffer, int nBufSize,
                     LPTALVORPROGRESS lpProgress, long long nFinished)
{
    SetRecoverTitle(lpProgress, BACKUPLEVEL_FULL, r.m_lpszFilePath, FULL_TITLE_TAIL, FALSE);
    CTalvorDirectFile target;
    if (!CreateTarget(target, r.m_lpszFilePath)) return FALSE;
    if (!CopyUsedPart(pBackup, target, r, lpBuffer, nBufSize, lpProgress, nFinished)) return FALSE;
    if (!ZeroFillToSize(target, r, lpBuffer, nBufSize)) return FALSE;
    if (!FinishTarget(target, r.m_lpszFilePath, 10016011)) return FALSE;
    Trace("Recover", 3, 10016020, TALVOR_TEXT("成功恢复数据文件[%s]!", "Successfully restored data file [%s]!"),
          r.m_lpszFilePath);
    return TRUE;
}

// The work buffer of an incremental restore grows to its largest piece.
BOOL GrowBlockBuffer(LPBYTE& lpBlockBuf, int& nBlockBufSize, int nWant)
{
    if (nWant <= nBlockBufSize) return TRUE;
    LPBYTE lpNew = (LPBYTE)get_aligned_buffer((size_t)nWant);
    if (lpNew == nullptr) {
        TraceNoMemory("RecoverIncrementCore", nWant);
        return FALSE;
    }
    free(lpBlockBuf);
    lpBlockBuf = lpNew;
    nBlockBufSize = nWant;
    return TRUE;
}

BOOL ApplyItem(CTalvorDirectFile* pBackup, CTalvorDirectFile* pDest, const BACKUPINCREMENTITEM& item,
               LPBYTE& lpBlockBuf, int& nBlockBufSize, LPTALVORPROGRESS lpProgress)
{
    if (!GrowBlockBuffer(lpBlockBuf, nBlockBufSize, item.m_nBlockSize)) return FALSE;
    if (!pBackup->ReadAt(item.m_nBlockDataPos, lpBlockBuf, item.m_nBlockSize)) {
        Trace("RecoverIncrementCore", 1, 10022023,
              TALVOR_TEXT("从备份文件[%lld]读取数据失败,大小[%d],位置[%lld],返回值:%d",
                          "Failed to read data from backup file [%lld], size [%d], location [%lld], return value: %d"),
              (long long)item.m_nBlockDataPos, item.m_nBlockSize, (long long)item.m_nBlockFilePos, errno);
        return FALSE;
    }
    if (!pDest->WriteAt(item.m_nBlockFilePos, lpBlockBuf, item.m_nBlockSize)) {
        Trace("RecoverIncrementCore", 1, 10022024,
              TALVOR_TEXT("写数据文件失败,写入大小[%d],位置[%lld],返回值:%d",
                          "Failed to write data file , write size [%d], location [%lld], return value: %d"),
              item.m_nBlockSize, (long long)item.m_nBlockFilePos, errno);
        return FALSE;
    }
    SetProgressPos(lpProgress, item.m_nBlockDataPos);
    return TRUE;
}

// Every page of record nRecord, each checked again as it is read, and its
// pieces written where the file keeps them.
BOOL ApplyPages(CTalvorDirectFile* pBackup, CTalvorDirectFile* pDest, const BACKUPFILEHEAD* lpHead, int nRecord,
                LPBYTE lpPage, LPBYTE& lpBlockBuf, int& nBlockBufSize, LPTALVORPROGRESS lpProgress)
{
    const BACKUPINCREMENTHEAD* lpPageHead = (const BACKUPINCREMENTHEAD*)lpPage;
    for (long long nPagePos = lpHead->m_stBackupFileInfo[nRecord].m_nDataStartOffset; nPagePos != 0;
         nPagePos = lpPageHead->m_nNextPos) {
        if (!pBackup->ReadAt(nPagePos, lpPage, BACKUP_INCREMENT_PAGE_SIZE)) {
            Trace("RecoverIncrementCore", 1, 10022012,
                  TALVOR_TEXT("从备份文件读取数据失败,大小[%d],位置[%lld],返回值:%d",
                              "Failed to read data from backup file, size [%d], location [%lld], return value: %d"),
                  BACKUP_INCREMENT_PAGE_SIZE, nPagePos, errno);
            return FALSE;
        }
        if (!TalvorCheckIncrementPage(lpHead, nRecord, nPagePos, lpPageHead)) return FALSE;
        for (int i = 0; i < lpPageHead->m_nIncrementBlockNum; i++) {
            BACKUPINCREMENTITEM item;
            memcpy(&item, &lpPageHead->m_pBlockItem[i], sizeof(item));
            if (!ApplyItem(pBackup, pDest, item, lpBlockBuf, nBlockBufSize, lpProgress)) return FALSE;
        }
    }
    return TRUE;
}

} // namespace

BOOL CBreltMemStorageModule::CheckBackupChain(char* lpArchiveDesPath, int nPathSize, long long nTimestamp,
                                              struct _BACKUPCHAIN* lpChain)
{
    void* hFile = OpenBackupFullFile(lpArchiveDesPath, nPathSize, nTimestamp, TRUE);
    if (hFile == nullptr) return FALSE;
    LPBYTE lpUpper = nullptr;
    BOOL bGood = LoadCheckedHead(AsFile(hFile), nTimestamp, lpUpper);
    CloseBackupFile(hFile);
    if (!bGood) {
        free(lpUpper);
        return FALSE;
    }
    int nTop = ((const BACKUPFILEHEAD*)lpUpper)->m_bLevel;
    lpChain->m_nTopLevel = nTop;
    lpChain->m_arTimestamp[nTop] = nTimestamp;
    for (int nLevel = nTop; nLevel > 0 && bGood; nLevel--) {
        long long nRefer = ((const BACKUPFILEHEAD*)lpUpper)->m_nReferTimestamp;
        hFile = OpenBackupFullFile(lpArchiveDesPath, nPathSize, nRefer, TRUE);
        if (hFile == nullptr) {
            Trace("RecoverIncrement", 1, 10023001,
                  TALVOR_TEXT("打开备份文件[%d, %lld]失败!", "Failed to open [%d, %lld] backup file!"), nLevel - 1, nRefer);
            bGood = FALSE;
            break;
        }
        LPBYTE lpLower = nullptr;
        bGood = LoadCheckedHead(AsFile(hFile), nRefer, lpLower) &&
                TalvorCheckBackupLinkOrder((const BACKUPFILEHEAD*)lpUpper, (const BACKUPFILEHEAD*)lpLower);
        CloseBackupFile(hFile);
        free(lpUpper);
        lpUpper = lpLower;
        lpChain->m_arTimestamp[nLevel - 1] = nRefer;
    }
    // The link in hand is now the full backup, whose first record was
    // checked to be the system file.
    if (bGood) {
        const char* lpSystem = ((const BACKUPFILEHEAD*)lpUpper)->m_stBackupFileInfo[0].m_lpszFilePath;
        memcpy(lpChain->m_szSystemFile, lpSystem, sizeof(lpChain->m_szSystemFile));
    }
    free(lpUpper);
    return bGood;
}

BOOL CBreltMemStorageModule::RemoveChainFiles(char* lpArchiveDesPath, int nPathSize, long long nTimestamp)
{
    BACKUPCHAIN stChain;
    return CheckBackupChain(lpArchiveDesPath, nPathSize, nTimestamp, &stChain) &&
           RemoveFilesOfChain(lpArchiveDesPath, nPathSize, stChain);
}

BOOL CBreltMemStorageModule::RemoveFilesOfChain(char* lpArchiveDesPath, int nPathSize, const BACKUPCHAIN& stChain)
{
    for (int nLevel = 0; nLevel <= stChain.m_nTopLevel; nLevel++) {
        if (!RemoveFilesOfBackup(lpArchiveDesPath, nPathSize, stChain.m_arTimestamp[nLevel])) return FALSE;
    }
    return TRUE;
}

BOOL CBreltMemStorageModule::RemoveFilesOfBackup(char* lpArchiveDesPath, int nPathSize, long long nTimestamp)
{
    void* hFile = OpenBackupFullFile(lpArchiveDesPath, nPathSize, nTimestamp, TRUE);
    if (hFile == nullptr) return FALSE;
    LPBYTE lpHeadArea = nullptr;
    BOOL bGood = LoadCheckedHead(AsFile(hFile), nTimestamp, lpHeadArea);
    CloseBackupFile(hFile);
    const BACKUPFILEHEAD* lpHead = (const BACKUPFILEHEAD*)lpHeadArea;
    for (int i = 0; bGood && i < lpHead->m_nFileNum; i++) {
        char szPath[sizeof(lpHead->m_stBackupFileInfo[i].m_lpszFilePath) + 1] = {0};
        memcpy(szPath, lpHead->m_stBackupFileInfo[i].m_lpszFilePath, sizeof(szPath) - 1);
        if (!TalvorPathExists(szPath)) continue;
        if (CTalvorFileIO::Current()->Unlink(szPath) != 0) {
            Trace("RecoverIncrement", 1, 10023009,
                  TALVOR_TEXT("无法删除恢复将重写的文件[%s],错误码:%d",
                              "Failed to remove the file [%s] that the restore is to write anew, error code: %d"),
                  szPath, errno);
            bGood = FALSE;
        }
    }
    free(lpHeadArea);
    return bGood;
}

BOOL CBreltMemStorageModule::RecoverIncrement(LPTALVORCRITICALSECTION lpCritSection,
                                              LPTALVORPROGRESS lpTalvorProgress, char* lpArchiveDesPath,
                                              int nPathSize, long long nTimestamp)
{
    return RecoverIncrement(lpCritSection, lpTalvorProgress, lpArchiveDesPath, nPathSize, nTimestamp, 0, 0);
}

BOOL CBreltMemStorageModule::RecoverIncrement(LPTALVORCRITICALSECTION lpCritSection,
                                              LPTALVORPROGRESS lpTalvorProgress, char* lpArchiveDesPath,
                                              int nPathSize, long long nTimestamp, UINT nLogMaxID,
                                              USHORT usDBGuid)
{
    if (lpTalvorProgress != nullptr) lpTalvorProgress->m_nStatus = PROGRESS_RUNNING;
    // The whole chain is read before the first byte of a file is written.
    BACKUPCHAIN stChain;
    if (!CheckBackupChain(lpArchiveDesPath, nPathSize, nTimestamp, &stChain)) return FALSE;
    // From the first byte written until the last level is on the medium the
    // files are a mixture: the mark keeps a start off them, and only a
    // restore run to its end removes it.
    // What running this restore again needs, once the head that named the
    // archive is gone.
    TALVORRESTOREMARK stMark;
    memset(&stMark, 0, sizeof(stMark));
    if (nPathSize > 0)
        memcpy(stMark.m_lpArchiveDesPath, lpArchiveDesPath,
               (size_t)(nPathSize < RESTOREMARK_PATH_SIZE ? nPathSize : RESTOREMARK_PATH_SIZE));
    stMark.m_nTimestamp = nTimestamp;
    stMark.m_nRedoLogMaxID = nLogMaxID;
    stMark.m_usDatabaseGuid = usDBGuid;
    if (!TalvorSetRestoreMark(stChain.m_szSystemFile, stMark)) {
        Trace("RecoverIncrement", 1, 10023007,
              TALVOR_TEXT("无法设置恢复标记,未写入任何文件,系统文件:%s,错误码:%d",
                          "The restore mark cannot be set, so no file was written, system file: %s, error code: %d"),
              stChain.m_szSystemFile, errno);
        return FALSE;
    }
    // A level above the full backup writes only its pieces into a file the
    // levels below did not make: whatever stood at that path before (a file
    // the database no longer lists, a start's growth of an earlier restore)
    // would show through between them. Every file the chain names goes
    // first, under the mark.
    if (!RemoveFilesOfChain(lpArchiveDesPath, nPathSize, stChain)) return FALSE;
    if (!Recover(lpCritSection, lpTalvorProgress, lpArchiveDesPath, nPathSize, stChain.m_arTimestamp[0]))
        return FALSE;
    for (int nLevel = 1; nLevel <= stChain.m_nTopLevel; nLevel++) {
        const void* hDestFile = nullptr;
        const void* hBkUpFile = nullptr;
        LPBYTE lpFileHeadBuf = nullptr;
        LPBYTE lpIncrementHeadBuf = nullptr;
        LPBYTE lpBlockBuf = nullptr;
        BOOL bDone = RecoverIncrementCore(lpCritSection, lpTalvorProgress, lpArchiveDesPath, nPathSize,
                                          stChain.m_arTimestamp[nLevel], nLevel, hDestFile, hBkUpFile, lpFileHeadBuf,
                                          lpIncrementHeadBuf, lpBlockBuf);
        delete AsFile(hDestFile);
        if (hBkUpFile != nullptr) CloseBackupFile(const_cast<void*>(hBkUpFile));
        free(lpFileHeadBuf);
        free(lpIncrementHeadBuf);
        free(lpBlockBuf);
        if (!bDone) return FALSE;
    }
    if (!TalvorClearRestoreMark(stChain.m_szSystemFile)) {
        Trace("RecoverIncrement", 1, 10023008,
              TALVOR_TEXT("恢复已完成,但无法删除恢复标记,系统文件:%s,错误码:%d",
                          "The restore finished but its mark cannot be removed, system file: %s, error code: %d"),
              stChain.m_szSystemFile, errno);
        return FALSE;
    }
    if (lpTalvorProgress != nullptr) lpTalvorProgress->m_nStatus = PROGRESS_IDLE;
    return TRUE;
}

BOOL CBreltMemStorageModule::Recover(LPTALVORCRITICALSECTION lpCritSection, LPTALVORPROGRESS lpTalvorProgress,
                                     char* lpArchiveDesPath, int nPathSize, long long nTimestamp)
{
    void* hFile = OpenBackupFullFile(lpArchiveDesPath, nPathSize, nTimestamp, TRUE);
    if (hFile == nullptr) return FALSE;
    LPBYTE lpBuffer = (LPBYTE)get_aligned_buffer(RESTORE_WORK_BUFFER_SIZE);
    if (lpTalvorProgress != nullptr) lpTalvorProgress->m_nStatus = PROGRESS_RUNNING;
    LPBYTE lpFileHeadBuf = nullptr;
    BOOL bDone = FALSE;
    if (lpBuffer == nullptr)
        TraceNoMemory("Recover", RESTORE_WORK_BUFFER_SIZE);
    else
        bDone = RecoverCore(lpCritSection, lpTalvorProgress, hFile, lpBuffer, RESTORE_WORK_BUFFER_SIZE,
                            lpFileHeadBuf, nTimestamp);
    CloseBackupFile(hFile);
    free(lpBuffer);
    free(lpFileHeadBuf);
    if (lpTalvorProgress != nullptr) lpTalvorProgress->m_nStatus = PROGRESS_IDLE;
    return bDone;
}

BOOL CBreltMemStorageModule::RecoverCore(LPTALVORCRITICALSECTION, LPTALVORPROGRESS lpTalvorProgress, void* hFile,
                                         LPBYTE lpBuffer, int nBufSize, const LPBYTE& lpFileHeadBuf,
                                         long long nTimestamp)
{
    LPBYTE& lpHeadArea = const_cast<LPBYTE&>(lpFileHeadBuf);
    CTalvorDirectFile* pBackup = AsFile(hFile);
    if (!LoadCheckedHead(pBackup, nTimestamp, lpHeadArea)) return FALSE;
    const BACKUPFILEHEAD* lpHead = (const BACKUPFILEHEAD*)lpHeadArea;
    if (lpHead->m_bLevel != BACKUPLEVEL_FULL) {
        TalvorTraceBackupLevel("Recover", BACKUPLEVEL_FULL, nTimestamp, lpHead->m_bLevel);
        return FALSE;
    }
    long long nTotal = 0;
    for (int i = 0; i < lpHead->m_nFileNum; i++) nTotal += lpHead->m_stBackupFileInfo[i].m_nFileSize;
    if (lpTalvorProgress != nullptr) {
        lpTalvorProgress->m_nPos = 0;
        lpTalvorProgress->m_nTotal = ProgressMiB(nTotal);
    }
    long long nFinished = 0;
    for (int i = 0; i < lpHead->m_nFileNum; i++) {
        const STRUCT_BACKUP_FILEINFO& r = lpHead->m_stBackupFileInfo[i];
        if (!RestoreFullFile(pBackup, r, lpBuffer, nBufSize, lpTalvorProgress, nFinished)) return FALSE;
        nFinished += r.m_nFileSize;
        SetProgressPos(lpTalvorProgress, nFinished);
    }
    return TRUE;
}

BOOL CBreltMemStorageModule::RecoverIncrementCore(LPTALVORCRITICALSECTION, LPTALVORPROGRESS lpTalvorProgress,
                                                  char* lpArchiveDesPath, int nPathSize, long long nTimestamp,
                                                  int nLevel, const void*& hDestFile, const void*& hBkUpFile,
                                                  const LPBYTE& lpFileHeadBuf, const LPBYTE& lpIncrementHeadBuf,
                                                  const LPBYTE& lpBlockBuf)
{
    LPBYTE& lpHeadArea = const_cast<LPBYTE&>(lpFileHeadBuf);
    LPBYTE& lpPage = const_cast<LPBYTE&>(lpIncrementHeadBuf);
    LPBYTE& lpBlock = const_cast<LPBYTE&>(lpBlockBuf);
    hBkUpFile = OpenBackupFullFile(lpArchiveDesPath, nPathSize, nTimestamp, TRUE);
    if (hBkUpFile == nullptr) return FALSE;
    CTalvorDirectFile* pBackup = AsFile(hBkUpFile);
    lpPage = (LPBYTE)get_aligned_buffer(BACKUP_INCREMENT_PAGE_SIZE);
    if (lpPage == nullptr) {
        TraceNoMemory("RecoverIncrementCore", BACKUP_INCREMENT_PAGE_SIZE);
        return FALSE;
    }
    if (!TalvorReadBackupHead(pBackup, nTimestamp, lpHeadArea)) return FALSE;
    const BACKUPFILEHEAD* lpHead = (const BACKUPFILEHEAD*)lpHeadArea;
    if (nLevel < 1 || lpHead->m_bLevel != nLevel) {
        TalvorTraceBackupLevel("RecoverIncrementCore", nLevel, nTimestamp, lpHead->m_bLevel);
        return FALSE;
    }
    if (!TalvorCheckBackupRecords(pBackup, lpHead, lpPage)) return FALSE;
    if (lpTalvorProgress != nullptr) {
        lpTalvorProgress->m_nTotal = ProgressMiB(pBackup->Size());
        lpTalvorProgress->m_nPos = 0;
    }
    int nBlockBufSize = 0;
    for (int i = 0; i < lpHead->m_nFileNum; i++) {
        const STRUCT_BACKUP_FILEINFO& r = lpHead->m_stBackupFileInfo[i];
        // An unchanged file keeps what the levels below gave it.
        if (r.m_nDataStartOffset == 0) continue;
        CTalvorDirectFile* pDest = new (std::nothrow) CTalvorDirectFile();
        hDestFile = pDest;
        int nDirErr = 0;
        MakeDir(r.m_lpszFilePath, &nDirErr);
        const BOOL bExisted = TalvorPathExists(r.m_lpszFilePath);
        if (pDest == nullptr || nDirErr != 0 || !pDest->Open(r.m_lpszFilePath, O_RDWR | O_CREAT, FALSE)) {
            Trace("RecoverIncrementCore", 1, 10022006,
                  TALVOR_TEXT("打开文件[%s]失败,错误码:%d!", "Failed to open file [%s], error code: %d!"), r.m_lpszFilePath,
                  pDest == nullptr ? ENOMEM : nDirErr != 0 ? nDirErr : errno);
            return FALSE;
        }
        CTalvorFileIO::Current()->FChmod(pDest->Fd(), 0666);
        SetRecoverTitle(lpTalvorProgress, nLevel, r.m_lpszFilePath, INCREMENT_TITLE_TAIL, TRUE);
        if (!ApplyPages(pBackup, pDest, lpHead, i, lpPage, lpBlock, nBlockBufSize, lpTalvorProgress)) return FALSE;
        // A file of the level below that grew since takes the size its
        // record gives, which is the size its new head names: a start
        // refuses a file shorter than its head. A file the increment makes
        // gets only its pieces.
        if (bExisted && !pDest->ExtendZeroed(r.m_nFileSize)) {
            Trace("RecoverIncrementCore", 1, 10022026,
                  TALVOR_TEXT("数据库文件[%s]无法扩展到%lld字节,错误码:%d!", "The database file [%s] cannot be extended to %lld bytes, error code: %d!"),
                  r.m_lpszFilePath, r.m_nFileSize, errno);
            return FALSE;
        }
        if (!FinishTarget(*pDest, r.m_lpszFilePath, 10022025)) return FALSE;
        delete pDest;
        hDestFile = nullptr;
    }
    CloseBackupFile(const_cast<void*>(hBkUpFile));
    hBkUpFile = nullptr;
    return TRUE;
}
