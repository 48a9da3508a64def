// BreltMemStorageBackup.cpp — the full backup: every file of the database,
// the system file included, copied into one file named by its timestamp.
//
// The backup file is written with direct, synchronous I/O, so every write
// lies on 512-byte boundaries: the files' bytes are packed into an output
// buffer and written in whole sectors, the last one padded and the file cut
// to its true length before the head is written. The head area goes first
// as a placeholder whose records are all zero, and is rewritten with the
// records only after every byte of data is on the medium: a backup cut
// anywhere before its end carries zero records, which no reader takes for a
// whole backup.
#include "BreltMemStorage.h"

#include "BackupChainCheck.h"

#include "TalvorBackupFile.h"
#include "TalvorBackupStream.h"
#include "TalvorDirectFile.h"
#include "TalvorCacheStorage.h"
#include "TalvorFileIO.h"
#include "TalvorFlashback.h"
#include "TalvorReadAhead.h"
#include "TalvorTrace.h"

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <ctime>
#include <unistd.h>

namespace {

const int BACKUP_WORK_BUFFER_SIZE = 0x800000;
const int BACKUP_SECTOR = 512;

long long RoundUpSector(long long n) { return (n + BACKUP_SECTOR - 1) / BACKUP_SECTOR * BACKUP_SECTOR; }

int WriterFd(void* hFile) { return hFile != nullptr ? ((CTalvorDirectFile*)hFile)->Fd() : -1; }

BOOL WriteAt(int fd, const void* lpBuf, long long nSize, long long nPos, LONG nCode)
{
    assert(nPos % BACKUP_SECTOR == 0 && nSize % BACKUP_SECTOR == 0);
    if (TalvorWriteFull(fd, lpBuf, (size_t)nSize, (off_t)nPos)) return TRUE;
    int nErr = errno;
    if (nCode == 10014012)
        Trace("BackupFullCore", 1, nCode,
              TALVOR_TEXT("写入备份文件失败[位置:%lld,大小:%d/%d],错误码:%d!",
                          "Failed to write to backup file [Pos: %lld, Size: %d/%d], error code: %d!"),
              nPos, (int)nSize, (int)nSize, nErr);
    else
        Trace("BackupFullCore", 1, nCode,
              TALVOR_TEXT("写入备份文件失败[位置:%d,大小:%d/%d],错误码:%d!",
                          "Failed to write to backup file [Pos: %d, Size: %d/%d], error code: %d!"),
              (int)nPos, (int)nSize, (int)nSize, nErr);
    return FALSE;
}

// A failed write of the stream, told as a failed piece.
void TraceStreamFailure(const CTalvorBackupStream& stream)
{
    Trace("BackupFullCore", 1, 10014012,
          TALVOR_TEXT("写入备份文件失败[位置:%lld,大小:%d/%d],错误码:%d!",
                      "Failed to write to backup file [Pos: %lld, Size: %d/%d], error code: %d!"),
          stream.FailedAt(), 0, 0, stream.FailedErrno());
}

// The part files that backups cut short (a kill, a power loss) left in the
// directory of lpBackupPath: nobody's, and each as large as a backup. Only
// the storage thread writes backups, one at a time, so none is in use.
void RemoveStaleBackupParts(const char* lpBackupPath)
{
    char szDir[BACKUP_PATH_MAX];
    snprintf(szDir, sizeof(szDir), "%s", lpBackupPath);
    char* lpSlash = strrchr(szDir, '/');
    if (lpSlash == nullptr) return;
    lpSlash[1] = '\0';
    CTalvorFileIO* pIO = CTalvorFileIO::Current();
    DIR* pDir = pIO->OpenDir(szDir);
    if (pDir == nullptr) return;
    BOOL bRemoved = FALSE;
    while (struct dirent* pEntry = readdir(pDir)) {
        if (!TalvorIsBackupName(pEntry->d_name, BACKUP_PART_NAME_END)) continue;
        char szPart[BACKUP_PATH_MAX];
        if (snprintf(szPart, sizeof(szPart), "%s%s", szDir, pEntry->d_name) >= (int)sizeof(szPart)) continue;
        if (pIO->Unlink(szPart) == 0) bRemoved = TRUE;
    }
    pIO->CloseDir(pDir);
    if (bRemoved) pIO->SyncDirectory(szDir);
}

void TraceBackupOpenFailure(LONG nCode, const char* lpszPath, int nErr)
{
    Trace("OpenBackupFullFile", 1, nCode,
          TALVOR_TEXT("生成数据备份文件[%s]失败,错误码:%d!", "Failed to generate data backup file [%s], error code: %d!"),
          lpszPath, nErr);
}

void FillBackupRecord(LPSTRUCT_BACKUP_FILEINFO lpRecord, stu_FILEINFO* p, long long nFileSize, long long nUsed,
                      long long nPosition)
{
    lpRecord->m_bFileType = (BYTE)p->m_bFileType;
    lpRecord->m_bFileNo = p->m_bFileNo;
    lpRecord->m_nFileSize = nFileSize;
    lpRecord->m_nFileHeaderSize = p->m_pStorageFile->GetHeadSize(p);
    lpRecord->m_nFileFreeMemoryOffset = nUsed;
    memset(lpRecord->m_lpszFilePath, 0, sizeof(lpRecord->m_lpszFilePath));
    memcpy(lpRecord->m_lpszFilePath, p->m_lpszFilePath, strnlen(p->m_lpszFilePath, sizeof(lpRecord->m_lpszFilePath) - 1));
    lpRecord->m_nDataStartOffset = nPosition;
    lpRecord->m_nDataEndOffset = 0;
}

// One piece of a file for the read-ahead: direct reads take whole sectors,
// so the bytes past the piece are read (never past the file) and dropped.
struct FILEPIECEREAD {
    stu_FILEINFO* m_pFile;
};

int ReadFilePiece(void* lpContext, long long nPos, LPBYTE lpBuf, int nSize)
{
    stu_FILEINFO* p = ((FILEPIECEREAD*)lpContext)->m_pFile;
    long long nAligned = RoundUpSector(nSize);
    if (nPos + nAligned > p->m_liFileSize) nAligned = p->m_liFileSize - nPos;
    // A reading thread keeps no latch record of its own: the read takes at
    // most the file's own latch, and only for the copy out of a buffer.
    return p->m_pStorageFile->ReadBlock(nullptr, nPos, lpBuf, (int)nAligned);
}

// The used part of one file, piece by piece, into the stream; nCopied
// tells how many bytes it took. The pieces are read ahead while the
// stream packs and writes the ones before.
BOOL CopyFileIntoBackup(LPTALVORPROGRESS lpTalvorProgress, stu_FILEINFO* p, long long nUsed, CTalvorReadAhead& reader,
                        int nPiece, CTalvorBackupStream& stream, long long nFinished, long long& nCopied,
                        const volatile BYTE& bAbort)
{
    nCopied = 0;
    // The used part never reaches past the file: a head that claims more is
    // read no further than the file goes.
    if (nUsed > p->m_liFileSize) nUsed = p->m_liFileSize;
    FILEPIECEREAD stRead = {p};
    reader.Start(ReadFilePiece, &stRead, nUsed, nPiece);
    // No read may outlive stRead: whatever ends the copy stops the reads.
    struct STOPREADS {
        CTalvorReadAhead& m_reader;
        ~STOPREADS() { m_reader.Stop(); }
    } stStop{reader};
    long long nReadPos = 0;
    int nWant = 0, nRet = 0;
    LPBYTE lpRead = nullptr;
    while (nCopied < nUsed) {
        if (TalvorLoadShared(&bAbort)) return FALSE;
        if (!reader.Next(nReadPos, nWant, lpRead, nRet)) {
            Trace("BackupFullCore", 1, 10014011,
                  TALVOR_TEXT("读取数据库文件失败[%s,位置:%lld,大小:%d],返回值:%d!",
                              "Failed to read database file [%s, Pos: %lld, Size: %d], return value: %d!"),
                  p->m_lpszFilePath, nReadPos, nWant, nRet);
            return FALSE;
        }
        assert(nReadPos == nCopied);
        TalvorBackupShowPos(lpTalvorProgress, nFinished + nReadPos);
        if (!stream.Append(lpRead, nWant)) {
            TraceStreamFailure(stream);
            return FALSE;
        }
        nCopied += nWant;
    }
    return TRUE;
}

} // namespace

void* CBreltMemStorageModule::OpenBackupFullFile(char* lpArchiveDesPath, int nPathSize, long long nTimestamp,
                                                 BOOL bReadOnly)
{
    char szPath[BACKUP_PATH_MAX];
    int nRule = TalvorBackupFilePath(lpArchiveDesPath, nPathSize, nTimestamp, szPath);
    LONG nCode = bReadOnly ? 10015001 : 10015002;
    if (nRule != BACKUPDIR_OK) {
        // No directory the operator named: nothing is written anywhere.
        Trace("OpenBackupFullFile", 1, 10015003,
              TALVOR_TEXT("归档路径的第一项不能作为备份目录(%d):须为不超过%d个字符的绝对路径",
                          "The first archive destination cannot hold backups (%d): it must be an absolute path of at most %d characters"),
              nRule, BACKUP_DIR_MAX);
        return nullptr;
    }
    CTalvorFileIO* pIO = CTalvorFileIO::Current();
    CTalvorDirectFile* pFile = new (std::nothrow) CTalvorDirectFile();
    if (pFile == nullptr) {
        TraceBackupOpenFailure(nCode, szPath, ENOMEM);
        return nullptr;
    }
    if (bReadOnly) {
        if (!TalvorPathExists(szPath) || !pFile->Open(szPath, O_RDONLY)) {
            TraceBackupOpenFailure(nCode, szPath, TalvorPathExists(szPath) ? errno : ENOENT);
            delete pFile;
            return nullptr;
        }
        return pFile;
    }
    // The backup's name is synced into its directory once whole; the
    // directory's own name must be on the medium as well.
    int nDirErr = 0;
    MakeDir(szPath, &nDirErr);
    if (nDirErr != 0) {
        TraceBackupOpenFailure(nCode, szPath, nDirErr);
        delete pFile;
        return nullptr;
    }
    RemoveStaleBackupParts(szPath);
    char szPart[BACKUP_PATH_MAX];
    TalvorBackupPartPath(szPath, szPart);
    // Written without O_SYNC: the data is synced once before the head, and
    // the head once after, which keeps the order that makes a cut backup
    // refusable at a fraction of the cost of a sync per write.
    // Every part file was removed just above: one still there is not ours
    // to take, and O_EXCL refuses it.
    if (!pFile->Open(szPart, O_RDWR | O_CREAT | O_EXCL, FALSE)) {
        TraceBackupOpenFailure(nCode, szPart, errno);
        delete pFile;
        return nullptr;
    }
    pIO->FChmod(pFile->Fd(), 0666);
    return pFile;
}

long long CBreltMemStorageModule::FileSizeOnDisk(const stu_FILEINFO* p) const
{
    long long nSize = p->m_liFileSize;
    if (p != m_lpSystemFileInfo || m_pMemoryFileHead == nullptr) return nSize;
    // Only a grown size is taken, and none a restore would refuse to make.
    const long long nHead = TalvorLoadShared(&m_pMemoryFileHead->m_nFileTotalSize);
    return nHead > nSize && nHead <= BACKUP_RESTORE_FILE_MAX ? nHead : nSize;
}

BOOL CBreltMemStorageModule::PublishBackupFile(char* lpArchiveDesPath, int nPathSize, long long nTimestamp)
{
    char szPath[BACKUP_PATH_MAX], szPart[BACKUP_PATH_MAX];
    if (TalvorBackupFilePath(lpArchiveDesPath, nPathSize, nTimestamp, szPath) != BACKUPDIR_OK) return FALSE;
    TalvorBackupPartPath(szPath, szPart);
    // The archiver is told of the backup by its name, over whole, synced
    // bytes.
    if (CTalvorFileIO::Current()->Rename(szPart, szPath) != 0) {
        Trace("PublishBackupFile", 1, 10015004,
              TALVOR_TEXT("备份文件[%s]已完成,但无法命名,错误码:%d", "The finished backup [%s] cannot take its name, error code: %d"),
              szPath, errno);
        return FALSE;
    }
    // Once renamed, the backup under the name is the new one, whole: it is
    // no failure, and the archiver's copies are what make it safe now. Only
    // the name's survival of a power loss is in doubt, which is said.
    if (TalvorSyncParentDirectory(szPath) != 0)
        Trace("PublishBackupFile", 2, 10015006,
              TALVOR_TEXT("备份文件[%s]已命名,但目录同步失败,断电后可能失去该名称,错误码:%d",
                          "The backup [%s] has its name, but its directory could not be synced: a power loss may take the name, error code: %d"),
              szPath, errno);
    return TRUE;
}

BOOL CBreltMemStorageModule::BackupMayTakeName(char* lpArchiveDesPath, int nPathSize, long long nTimestamp,
                                               BYTE bLevel, long long nRefTimestamp)
{
    char szPath[BACKUP_PATH_MAX];
    if (TalvorBackupFilePath(lpArchiveDesPath, nPathSize, nTimestamp, szPath) != BACKUPDIR_OK) return TRUE;
    if (!TalvorPathExists(szPath)) return TRUE;
    CTalvorDirectFile file;
    // A file that cannot be read or does not read as a backup restores
    // nothing: a new backup may take its place.
    if (!file.Open(szPath, O_RDONLY)) return TRUE;
    LPBYTE lpHeadArea = nullptr;
    BOOL bMay = TRUE;
    if (TalvorReadBackupHead(&file, nTimestamp, lpHeadArea)) {
        const BACKUPFILEHEAD* lpHead = (const BACKUPFILEHEAD*)lpHeadArea;
        bMay = lpHead->m_bLevel == bLevel && lpHead->m_nReferTimestamp == nRefTimestamp;
        if (!bMay)
            Trace("BackupMayTakeName", 1, 10015005,
                  TALVOR_TEXT("已有时间戳%lld的备份[%s](级别%d,参照%lld),级别%d参照%lld的新备份会切断其上的备份链,拒绝备份",
                              "A backup of timestamp %lld exists already [%s] (level %d on %lld): a new one of level %d on %lld would cut the chains on it and is refused"),
                  nTimestamp, szPath, (int)lpHead->m_bLevel, lpHead->m_nReferTimestamp, (int)bLevel, nRefTimestamp);
    }
    free(lpHeadArea);
    return bMay;
}

void CBreltMemStorageModule::CloseBackupFile(void* hFile) { delete (CTalvorDirectFile*)hFile; }

void CBreltMemStorageModule::DeleteBackupFile(char* lpArchiveDesPath, int nPathSize, long long nTimestamp)
{
    char szPath[BACKUP_PATH_MAX], szPart[BACKUP_PATH_MAX];
    if (TalvorBackupFilePath(lpArchiveDesPath, nPathSize, nTimestamp, szPath) != BACKUPDIR_OK) return;
    // The name itself belongs to the last backup that finished.
    TalvorBackupPartPath(szPath, szPart);
    if (CTalvorFileIO::Current()->Unlink(szPart) == 0) TalvorSyncParentDirectory(szPart);
}

BOOL CBreltMemStorageModule::BackupFull(LPTALVORCRITICALSECTION lpCritSection, LPTALVORPROGRESS lpTalvorProgress,
                                        char* lpArchiveDesPath, int nPathSize, long long nTimestamp, int nLogNo,
                                        int nLogPos, UINT ulLocalIP, const volatile BYTE& bAbort)
{
    if (!BackupMayTakeName(lpArchiveDesPath, nPathSize, nTimestamp, 0, 0)) return FALSE;
    void* hFile = OpenBackupFullFile(lpArchiveDesPath, nPathSize, nTimestamp, FALSE);
    if (hFile == nullptr) return FALSE;
    const long long nStartUs = (TalvorMonotonicNs() / 1000);
    Trace("BackupFull", 3, 10014000, TALVOR_TEXT("开始全量备份,时间戳:%lld", "Full backup started, timestamp: %lld"), nTimestamp);
    LPBYTE lpBuffer = (LPBYTE)CTalvorCacheStorage::get_aligned_buffer(BACKUP_WORK_BUFFER_SIZE);
    if (lpTalvorProgress != nullptr) lpTalvorProgress->m_nStatus = PROGRESS_RUNNING;
    LPBYTE lpFileHeadBuf = nullptr;
    BOOL bDone = lpBuffer != nullptr && BackupFullCore(lpCritSection, lpTalvorProgress, hFile, lpBuffer,
                                                       BACKUP_WORK_BUFFER_SIZE, lpFileHeadBuf, nTimestamp, nLogNo,
                                                       nLogPos, ulLocalIP, bAbort);
    if (lpBuffer == nullptr)
        Trace("BackupFull", 1, 10014003,
              TALVOR_TEXT("分配备份工作缓冲区失败(%d字节)", "Failed to allocate the backup work buffer (%d bytes)"),
              BACKUP_WORK_BUFFER_SIZE);
    CloseBackupFile(hFile);
    free(lpBuffer);
    free(lpFileHeadBuf);
    if (bDone) bDone = PublishBackupFile(lpArchiveDesPath, nPathSize, nTimestamp);
    if (bDone) {
        if (m_pFlashback != nullptr) m_pFlashback->SetBackupTimestamp(nTimestamp);
        Trace("BackupFull", 3, 10014090,
              TALVOR_TEXT("全量备份完成,时间戳:%lld,用时:%lld毫秒", "Full backup finished, timestamp: %lld, %lld ms"), nTimestamp,
              ((TalvorMonotonicNs() / 1000) - nStartUs) / 1000);
    } else {
        // No partial backup stays on disk.
        DeleteBackupFile(lpArchiveDesPath, nPathSize, nTimestamp);
    }
    if (lpTalvorProgress != nullptr) lpTalvorProgress->m_nStatus = PROGRESS_IDLE;
    return bDone;
}

int CBreltMemStorageModule::CollectBackupFiles(stu_FILEINFO** arFiles, long long& nTotal)
{
    int nFileNum = 0;
    nTotal = 0;
    for (int i = 0; i < 256; i++) {
        if (m_arFileInfo[i] == nullptr || m_arFileInfo[i]->m_pStorageFile == nullptr) continue;
        arFiles[nFileNum++] = m_arFileInfo[i];
        nTotal += m_arFileInfo[i]->m_liFileSize;
    }
    return nFileNum;
}

// The reads run on reading threads, each without a latch record of its own
// (see ReadFilePiece): the caller's record is not theirs to use.
BOOL CBreltMemStorageModule::BackupFullCore(LPTALVORCRITICALSECTION, LPTALVORPROGRESS lpTalvorProgress,
                                            void* hFile, LPBYTE lpBuffer, int nBufSize, const LPBYTE& lpFileHeadBuf,
                                            long long nTimestamp, int nLogNo, int nLogPos, UINT ulLocalIP,
                                            const volatile BYTE& bAbort)
{
    stu_FILEINFO* arFiles[256];
    long long nTotal = 0;
    int nFileNum = CollectBackupFiles(arFiles, nTotal);
    TalvorBackupShowTotal(lpTalvorProgress, nTotal);
    // The buffer of the head area belongs to the caller, who frees it.
    const int nHeadSize = BackupHeadSize(nFileNum);
    LPBYTE& lpHeadArea = const_cast<LPBYTE&>(lpFileHeadBuf);
    lpHeadArea = (LPBYTE)CTalvorCacheStorage::get_aligned_buffer(nHeadSize);
    // The work buffer and two more read ahead; the stream packs and writes
    // behind them.
    const int nPiece = nBufSize / BACKUP_SECTOR * BACKUP_SECTOR;
    if (lpHeadArea == nullptr || nFileNum == 0 || nPiece < BACKUP_SECTOR) {
        Trace("BackupFullCore", 1, 10014004,
              TALVOR_TEXT("无法开始备份:文件数:%d,头区大小:%d", "The backup cannot start: files: %d, head area size: %d"),
              nFileNum, nHeadSize);
        return FALSE;
    }
    memset(lpHeadArea, 0, (size_t)nHeadSize);
    TalvorFillBackupHead((LPBACKUPFILEHEAD)lpHeadArea, nHeadSize, nFileNum, nTimestamp, nLogNo, nLogPos, ulLocalIP,
                   GetDatabaseGuid());
    int fd = WriterFd(hFile);
    if (!WriteAt(fd, lpHeadArea, nHeadSize, 0, 10014002)) return FALSE;

    CTalvorBackupStream stream;
    CTalvorReadAhead reader;
    if (!stream.Begin(fd, nHeadSize, nPiece) || !reader.Init(lpBuffer, nPiece)) {
        Trace("BackupFullCore", 1, 10014004,
              TALVOR_TEXT("无法开始备份:文件数:%d,头区大小:%d", "The backup cannot start: files: %d, head area size: %d"),
              nFileNum, nHeadSize);
        return FALSE;
    }
    long long nPosition = nHeadSize;
    long long nFinished = 0;
    LPBACKUPFILEHEAD lpHead = (LPBACKUPFILEHEAD)lpHeadArea;
    for (int nIndex = 0; nIndex < nFileNum; nIndex++) {
        if (TalvorLoadShared(&bAbort)) return FALSE;
        stu_FILEINFO* p = arFiles[nIndex];
        TalvorBackupShowTitle(lpTalvorProgress, p->m_lpszFilePath);
        LPSTRUCT_BACKUP_FILEINFO lpRecord = &lpHead->m_stBackupFileInfo[nIndex];
        long long nUsed = p->m_pStorageFile->GetFreeMemoryOffset(p);
        FillBackupRecord(lpRecord, p, FileSizeOnDisk(p), nUsed, nPosition);
        long long nCopied = 0;
        if (!CopyFileIntoBackup(lpTalvorProgress, p, nUsed, reader, nPiece, stream, nFinished, nCopied, bAbort))
            return FALSE;
        nPosition += nCopied;
        lpRecord->m_nDataEndOffset = nPosition;
        nFinished += p->m_liFileSize;
        TalvorBackupShowPos(lpTalvorProgress, nFinished);
    }
    if (!stream.Finish(nPosition)) {
        Trace("BackupFullCore", 1, 10014014,
              TALVOR_TEXT("完成备份文件数据失败,位置:%lld,错误码:%d", "Failed to finish the data of the backup file, position: %lld, error code: %d"),
              stream.FailedAt(), stream.FailedErrno());
        return FALSE;
    }
    // Until the head is written the backup is not whole: an abort that
    // came during the last piece still counts.
    if (TalvorLoadShared(&bAbort)) return FALSE;
    // The head on the medium before the backup is called done.
    int nErr = TalvorCommitBackupHead(fd, lpHeadArea, nHeadSize);
    if (nErr != 0) {
        Trace("BackupFullCore", 1, 10014015,
              TALVOR_TEXT("写入或同步备份文件头失败,错误码:%d", "Failed to write or sync the head of the backup file, error code: %d"),
              nErr);
        return FALSE;
    }
    return TRUE;
}

