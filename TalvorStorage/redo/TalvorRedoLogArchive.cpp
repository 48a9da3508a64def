// TalvorRedoLogArchive.cpp — the archiver: sealed groups are copied to every
// archive destination and then made reusable; a finished backup is copied
// to the other destinations on the side.
//
// The group's head is marked archived only after the copies: a crash in
// between leaves the group sealed, and it is archived again at the next
// start instead of being reused with no complete copy anywhere. The copies
// carry the archived mark in their head all the same.
//
// A copy is written under a temporary name, synced, moved to its final name
// and its directory synced, all before the group may be reused: a power loss
// at any point leaves either the whole copy under its name or none (and the
// group still sealed), never a torn file that reads as a whole log.
#include "TalvorRedoLog.h"

#include "TalvorTrace.h"
#include "TalvorFileIO.h"
#include "TalvorFlashback.h"

#include <cassert>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

const int DES_BUFFER_SIZE = 1100;   // room for the "/" inserted into 512 bytes of paths
const int FAST_RETRIES = 100;       // a failing pass is first retried every 1 ms ...
const int SLOW_RETRY_US = 100000;   // ... then every 100 ms
const UINT REDO_HEAD_READ_TRIES = 5; // reads of a group head before the group is set aside

void CloseArchiveHandle(void*& hFile)
{
    if (hFile == nullptr) return;
    int fd = Talvor_FileDescriptor(hFile);
    if (fd >= 0) CTalvorFileIO::Current()->Close(fd);
    free(hFile);
    hFile = nullptr;
}

int OpenArchiveTarget(const char* lpPath, int nFlags)
{
    int fd = CTalvorFileIO::Current()->Open(lpPath, nFlags, 0666);
    if (fd >= 0) CTalvorFileIO::Current()->Chmod(lpPath, 0666);
    return fd;
}

} // namespace

void CTalvorRedoLog::MakeArchiveDir(const char* lpPath)
{
    int nErr = 0;
    MakeDir(lpPath, &nErr);
    if (nErr == 0) return;
    Trace("ArchiveFile", 1, 30004056,
          TALVOR_TEXT("归档目录[%s]已创建,但无法同步到其上级目录,断电后其中归档的文件可能丢失！错误：(%d)%s",
                      "The archive directory of [%s] was made but could not be synced into its parent: a power loss may take it with what is archived in it! Error: (%d)%s"),
          lpPath, nErr, strerror(nErr));
}

// Every destination gets a trailing "/", the list is split at ";" (the sixth
// path keeps whatever stands behind it), empty entries are dropped, and each
// destination's "ArchiveLog/" is made.
int CTalvorRedoLog::PrepareDestinations(char* lpPaths, char** arDes)
{
    int nLen = (int)strnlen(lpPaths, DES_BUFFER_SIZE - 1);
    for (int i = 1; i <= nLen && nLen < DES_BUFFER_SIZE - 2; i++) {
        if (lpPaths[i] != ';' && lpPaths[i] != '\0') continue;
        // An empty entry gets no "/": it would name the root directory.
        if (lpPaths[i - 1] == '/' || lpPaths[i - 1] == ';') continue;
        memmove(lpPaths + i + 1, lpPaths + i, (size_t)(nLen - i + 1));
        lpPaths[i] = '/';
        nLen++;
        i++;
    }
    char* arRaw[REDO_MAX_DESTINATIONS];
    int nRaw = 0;
    char* p = lpPaths;
    arRaw[nRaw++] = p;
    while (nRaw < REDO_MAX_DESTINATIONS && (p = strchr(p, ';')) != nullptr) {
        *p++ = '\0';
        arRaw[nRaw++] = p;
    }
    int nDes = 0;
    for (int i = 0; i < nRaw; i++) {
        if (arRaw[i][0] == '\0') continue;
        char szDir[MAX_PATH + 32];
        snprintf(szDir, sizeof(szDir), "%sArchiveLog/", arRaw[i]);
        MakeArchiveDir(szDir);
        arDes[nDes++] = arRaw[i];
    }
    return nDes;
}

BOOL CTalvorRedoLog::HeadIsArchivable(const MF_REDOLOGFILEHEAD& stHead, UINT nLogNo)
{
    return stHead.m_nSequenceNO == nLogNo && stHead.m_bState == REDOGROUP_SEALED &&
           stHead.m_nEffectiveSize >= (UINT)REDOLOGFILE_HEAD_SIZE;
}

int CTalvorRedoLog::OldestSealedGroup()
{
    int nFound = -1;
    for (int i = 0; i < m_nWriteRedoOnlineGroups; i++) {
        if (TalvorLoadShared(&m_pRedoLog[i].m_bState) != REDOGROUP_SEALED || SetAside(i)) continue;
        if (nFound < 0 ||
            TalvorLoadShared(&m_pRedoLog[i].m_nSequenceNO) < TalvorLoadShared(&m_pRedoLog[nFound].m_nSequenceNO))
            nFound = i;
    }
    return nFound;
}

BOOL CTalvorRedoLog::PublishCopy(const char* lpTemp, const char* lpPath, int fd)
{
    const char* lpStep = "fsync";
    BOOL bOk = CTalvorFileIO::Current()->FSync(fd) == 0;
    int nErr = errno;
    if (bOk) {
        lpStep = "rename";
        bOk = CTalvorFileIO::Current()->Rename(lpTemp, lpPath) == 0;
        nErr = errno;
    }
    if (bOk) {
        lpStep = "directory sync";
        bOk = TalvorSyncParentDirectory(lpPath) == 0;
        nErr = errno;
    }
    if (bOk) return TRUE;
    Trace("ArchiveFile", 1, 30004055,
          TALVOR_TEXT("归档日志文件[%s]未能持久化(%s)！错误：(%d)%s",
                      "The archive log file [%s] could not be made durable (%s)! Error: (%d)%s"),
          lpPath, lpStep, nErr, strerror(nErr));
    return FALSE;
}

BOOL CTalvorRedoLog::CopyLogTo(const char* lpDes, int nGroup, const MF_REDOLOGFILEHEAD& stHead, LPBYTE lpBuffer,
                               BOOL bFirstPass, void*& hFile)
{
    char szPath[MAX_PATH + 64];
    char szTemp[MAX_PATH + 64];
    snprintf(szPath, sizeof(szPath), "%sArchiveLog/Log%d.log", lpDes, (int)stHead.m_nSequenceNO);
    // Hidden, and not of the "Log<n>.log" shape: never taken for a log.
    snprintf(szTemp, sizeof(szTemp), "%sArchiveLog/.Log%d.log.tmp", lpDes, (int)stHead.m_nSequenceNO);
    if (TalvorPathExists(szTemp)) CTalvorFileIO::Current()->Unlink(szTemp);
    int fd = OpenArchiveTarget(szTemp, O_RDWR | O_CREAT | O_TRUNC);
    if (fd < 0) {
        int nErr = errno;
        if (nErr != ENOENT && bFirstPass)
            Trace("ArchiveFile", 1, 30004050,
                  TALVOR_TEXT("创建新的归档日志文件失败！路径：%s，错误：(%d)%s",
                              "Failed to create new archive log file! Path: %s, error: (%d)%s"),
                  szPath, nErr, strerror(nErr));
        MakeArchiveDir(szTemp);
        fd = OpenArchiveTarget(szTemp, O_RDWR | O_CREAT | O_TRUNC);
    }
    if (fd < 0) {
        int nErr = errno;
        if (bFirstPass)
            Trace("ArchiveFile", 1, 30004050,
                  TALVOR_TEXT("创建新的归档日志文件失败！路径：%s，错误：(%d)%s",
                              "Failed to create new archive log file! Path: %s, error: (%d)%s"),
                  szPath, nErr, strerror(nErr));
        return FALSE;
    }
    hFile = Talvor_MakeFileHandle(fd);
    if (hFile == nullptr) {
        CTalvorFileIO::Current()->Close(fd);
        CTalvorFileIO::Current()->Unlink(szTemp);
        return FALSE;
    }
    const int fdSrc = Talvor_FileDescriptor(m_pRedoLog[nGroup].m_pOnlineFile);
    const long long nSize = stHead.m_nEffectiveSize;
    BOOL bOk = TRUE;
    for (long long nPos = 0; nPos < nSize && bOk;) {
        int nPiece = (int)(nSize - nPos < REDO_ARCHIVE_BUFFER_SIZE ? nSize - nPos : REDO_ARCHIVE_BUFFER_SIZE);
        BOOL bRead = TalvorReadFull(fdSrc, lpBuffer, (size_t)nPiece, (off_t)nPos);
        // The copy's head carries the archived mark.
        if (bRead && nPos == 0) memcpy(lpBuffer, &stHead, sizeof(stHead));
        ssize_t nWritten = bRead ? CTalvorFileIO::Current()->PWrite(fd, lpBuffer, (size_t)nPiece, (off_t)nPos) : -1;
        if (nWritten != nPiece) {
            int nErr = errno;
            Trace("ArchiveFile", 1, 30004052,
                  TALVOR_TEXT("写入归档日志文件[%s]失败！位置：%d，写入[%d，%d]，错误：(%d)%s",
                              "Failed to write to archive log file [%s]! Location: %d, write [%d,%d], error : (%d)%s"),
                  szPath, (int)nPos, nPiece, (int)nWritten, nErr, strerror(nErr));
            bOk = FALSE;
        }
        nPos += nPiece;
    }
    if (bOk) bOk = PublishCopy(szTemp, szPath, fd);
    CloseArchiveHandle(hFile);
    if (bOk) return TRUE;
    usleep(1000);
    if (TalvorPathExists(szTemp) && CTalvorFileIO::Current()->Unlink(szTemp) != 0)
        Trace("ArchiveFile", 1, 30004053,
              TALVOR_TEXT("删除错误的归档日志文件[%s]失败！", "Failed to delete error archive log file [%s]!"), szTemp);
    return FALSE;
}

// TRUE on the first failure of this group's log (the one to trace). The
// last allowed failure sets the group aside, with a line of its own.
BOOL CTalvorRedoLog::HeadReadFailed(int nGroup)
{
    UINT nLogNo = TalvorLoadShared(&m_pRedoLog[nGroup].m_nSequenceNO);
    if (m_arFailedLogNo[nGroup] != nLogNo) {
        m_arFailedLogNo[nGroup] = nLogNo;
        m_arHeadFailures[nGroup] = 0;
    }
    if (++m_arHeadFailures[nGroup] == REDO_HEAD_READ_TRIES)
        Trace("ArchiveFile", 1, 30004016,
              TALVOR_TEXT("日志组[%d、%d]的头信息读取%d次失败，本次运行不再归档该组，继续归档其余日志！",
                          "The head of log group [%d, %d] failed to read %d times: the group is left sealed for the next start, and the other logs are archived"),
              nGroup, (int)nLogNo, (int)REDO_HEAD_READ_TRIES);
    return m_arHeadFailures[nGroup] == 1;
}

void CTalvorRedoLog::SetAsideForThisRun(int nGroup)
{
    m_arFailedLogNo[nGroup] = TalvorLoadShared(&m_pRedoLog[nGroup].m_nSequenceNO);
    m_arHeadFailures[nGroup] = REDO_HEAD_READ_TRIES;
}

// The stop gives the archiver a bounded time for the sealed groups.
BOOL CTalvorRedoLog::StopLimitPassed()
{
    if (m_nArchiveExitSinceMs == 0) m_nArchiveExitSinceMs = TalvorMonotonicMs();
    return TalvorMonotonicMs() - m_nArchiveExitSinceMs > m_nArchiveStopLimitMs;
}

BOOL CTalvorRedoLog::SetAside(int nGroup) const
{
    return m_arFailedLogNo[nGroup] == TalvorLoadShared(&m_pRedoLog[nGroup].m_nSequenceNO) &&
           m_arHeadFailures[nGroup] >= REDO_HEAD_READ_TRIES;
}

BOOL CTalvorRedoLog::ArchiveGroup(int nGroup, char** arDes, int nDesCount, LPBYTE lpBuffer, void*& hFile)
{
    LPTALVORREDOGROUP pGroup = &m_pRedoLog[nGroup];
    const int nLogNo = (int)TalvorLoadShared(&pGroup->m_nSequenceNO);
    MF_REDOLOGFILEHEAD stHead;
    // A head of another log (or a torn one, or one whose seal never reached
    // the file) must never go out as this log's, nor be called archived.
    if (!ReadGroupHead(nGroup, &stHead) || !HeadIsArchivable(stHead, TalvorLoadShared(&pGroup->m_nSequenceNO))) {
        int nErr = errno;
        if (HeadReadFailed(nGroup))
            Trace("ArchiveFile", 1, 30004013,
                  TALVOR_TEXT("读取归档文件[%d、%d]的头信息失败！错误：(%d)", "Failed to read the head of archive file [%d, %d]! Error: (%d)"),
                  nGroup, nLogNo, nErr);
        return FALSE;
    }
    stHead.m_bState = REDOGROUP_ARCHIVED;
    BOOL bCopy = m_pMemoryFileHead->m_nTalvorArchiveType != 0 && m_nClusterNodeType != 3 &&
                 stHead.m_nEffectiveSize > (UINT)REDOLOGFILE_HEAD_SIZE;
    if (bCopy && nDesCount == 0) {
        Trace("ArchiveFile", 1, 30004060,
              TALVOR_TEXT("成功归档日志文件组[%d]！", "Successfully Archive log filegroup [%d]!"), nLogNo);
        bCopy = FALSE;
    }
    for (int nPass = 0; bCopy; nPass++) {
        int nSuccess = 0;
        for (int i = 0; i < nDesCount; i++)
            if (CopyLogTo(arDes[i], nGroup, stHead, lpBuffer, nPass == 0, hFile)) nSuccess++;
        if (nSuccess == nDesCount) {
            Trace("ArchiveFile", 1, 30004060,
                  TALVOR_TEXT("成功归档日志文件组[%d]！", "Successfully Archive log filegroup [%d]!"), nLogNo);
            break;
        }
        if (nSuccess != 0 && nSuccess >= nDesCount / 2) {
            Trace("ArchiveFile", 1, 30004061,
                  TALVOR_TEXT("归档日志文件组[%d]失败，但成功的文件数[%d]满足要求，按归档成功处理！",
                              "The archived log filegroup [%d] failed, but the number of successful files [%d] meets "
                              "the requirement, it will be treated as the archived success!"),
                  nLogNo, nSuccess);
            break;
        }
        if (TalvorLoadShared(&m_bArchiveExit) && StopLimitPassed()) {
            // No copy is complete: the log is not called archived. It stays
            // sealed, and the next start archives it.
            Trace("ArchiveFile", 1, 30004063,
                  TALVOR_TEXT("停止时日志[%d]仍未归档成功，该日志组保持封存状态，下次启动时归档",
                              "Log [%d] is still not archived at the stop: its group stays sealed and the next start "
                              "archives it"),
                  nLogNo);
            SetAsideForThisRun(nGroup);
            return FALSE;
        }
        if (nPass == 0)
            Trace("ArchiveFile", 1, 30004062,
                  TALVOR_TEXT("归档日志[%d]文件失败，请稍后重试！", "Failed to archive log [%d] file. Please try again later!"),
                  nLogNo);
        usleep(nPass < FAST_RETRIES ? 1000 : SLOW_RETRY_US);
    }
    if (!WriteGroupHead(nGroup, &stHead)) {
        Trace("ArchiveFile", 1, 30004015,
              TALVOR_TEXT("写入归档文件[%d、%d]的头信息失败！错误：(%d)", "Failed to write the head of archive file [%d, %d]! Error: (%d)"),
              nGroup, nLogNo, errno);
        return FALSE;
    }
    TalvorStoreShared(&pGroup->m_bState, REDOGROUP_ARCHIVED);
    LPFILE_TRACEMEMFILEHEAD pRing = RingHead();
    // A log set aside below this one keeps the number from passing it.
    if (pRing != nullptr) TalvorStoreShared(&pRing->m_nLogArchiveNo, ArchivedUpTo());
    SetEvent(m_hArchivedEvent);
    return TRUE;
}

// A finished backup, named by its timestamp in the first destination, is
// copied to the others.
void CTalvorRedoLog::CopyBackup(char** arDes, int nDesCount, LPBYTE lpBuffer, void*& hFile, void*& hSrcFile)
{
    LPSTORAGEMEMHEAD pMem = m_pFlashback != nullptr ? m_pFlashback->GetStorageMemHead() : nullptr;
    if (pMem == nullptr || TalvorLoadShared(&pMem->m_nBackupTimestamp) == 0) return;
    // Taken and cleared in one step, so that a backup that ends meanwhile
    // is not lost. The field is unaligned but inside one cache line (see the
    // channel head), where a locked exchange is whole.
    assert(((uintptr_t)&pMem->m_nBackupTimestamp & 63) <= 64 - sizeof(long long));
#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Watomic-alignment"
#endif
    long long nTimestamp = __atomic_exchange_n(&pMem->m_nBackupTimestamp, 0LL, __ATOMIC_ACQ_REL);
#if defined(__clang__)
#pragma clang diagnostic pop
#endif
    if (nDesCount < 2 || nTimestamp == 0) return;
    char szSrc[MAX_PATH + 64];
    snprintf(szSrc, sizeof(szSrc), "%sBackup/TalvorBackup%lld.fbk", arDes[0], nTimestamp);
    int fdSrc = TalvorPathExists(szSrc) ? CTalvorFileIO::Current()->Open(szSrc, O_RDONLY | O_DIRECT | O_SYNC, 0) : -1;
    if (fdSrc < 0 || (hSrcFile = Talvor_MakeFileHandle(fdSrc)) == nullptr) {
        int nErr = errno;
        if (fdSrc >= 0) CTalvorFileIO::Current()->Close(fdSrc);
        Trace("ArchiveFile", 1, 30004001,
              TALVOR_TEXT("打开备份文件复制到其他路径失败！路径：%s，错误：(%d)%s",
                          "Failed to open the backup file and copy other paths! Path: %s, error: (%d)%s"),
              szSrc, nErr, strerror(nErr));
        return;
    }
    off_t nSize = CTalvorFileIO::Current()->LSeek(fdSrc, 0, SEEK_END);
    for (int i = 1; i < nDesCount; i++) {
        char szDst[MAX_PATH + 64];
        snprintf(szDst, sizeof(szDst), "%sBackup/TalvorBackup%lld.fbk", arDes[i], nTimestamp);
        MakeArchiveDir(szDst);
        if (TalvorPathExists(szDst)) CTalvorFileIO::Current()->Unlink(szDst);
        int fd = OpenArchiveTarget(szDst, O_RDWR | O_CREAT | O_DIRECT | O_SYNC);
        if (fd < 0 || (hFile = Talvor_MakeFileHandle(fd)) == nullptr) {
            int nErr = errno;
            if (fd >= 0) CTalvorFileIO::Current()->Close(fd);
            Trace("ArchiveFile", 1, 30004002,
                  TALVOR_TEXT("创建备份文件的第%d个副本失败！路径：%s，错误：(%d)%s",
                              "Failed to create %d copy of backup file! Path: %s, error: (%d)%s"),
                  i, szDst, nErr, strerror(nErr));
            continue;
        }
        BOOL bFailed = FALSE;
        for (off_t nPos = 0; nPos < nSize && !bFailed;) {
            ssize_t nRead = CTalvorFileIO::Current()->PRead(fdSrc, lpBuffer, REDO_ARCHIVE_BUFFER_SIZE, nPos);
            if (nRead <= 0) break;
            ssize_t nWritten = CTalvorFileIO::Current()->PWrite(fd, lpBuffer, (size_t)nRead, nPos);
            if (nWritten != nRead) {
                int nErr = errno;
                Trace("ArchiveFile", 1, 30004011,
                      TALVOR_TEXT("写入备份文件[%s]失败！位置：%lld，写入[%d，%d]，错误：(%d)%s",
                                  "Failed to write to backup file [%s]! Location: %lld, write [%d,%d], error: (%d)%s"),
                      szDst, (long long)nPos, (int)nRead, (int)nWritten, nErr, strerror(nErr));
                bFailed = TRUE;
            }
            nPos += nRead;
        }
        CloseArchiveHandle(hFile);
        if (bFailed) {
            usleep(1000);
            CTalvorFileIO::Current()->Unlink(szDst);
        }
    }
    CloseArchiveHandle(hSrcFile);
}

int CTalvorRedoLog::ArchiveFile(void*& hFile, void*& hSrcFile)
{
    char szPaths[DES_BUFFER_SIZE];
    memset(szPaths, 0, sizeof(szPaths));
    memcpy(szPaths, m_pMemoryFileHead->m_lpArchiveDesPath, sizeof(m_pMemoryFileHead->m_lpArchiveDesPath));
    szPaths[511] = '\0';
    char* arDes[REDO_MAX_DESTINATIONS] = {nullptr};
    int nDesCount = 0;
    if (m_pMemoryFileHead->m_nTalvorArchiveType != 0 && szPaths[0] != '\0')
        nDesCount = PrepareDestinations(szPaths, arDes);
    LPBYTE lpBuffer = nullptr;
    if (nDesCount > 0) {
        lpBuffer = (LPBYTE)get_aligned_buffer(REDO_ARCHIVE_BUFFER_SIZE);
        if (lpBuffer == nullptr) nDesCount = 0;
    }
    if (nDesCount > 0) {
        // The standby threads read it under m_crit (GetWritePos).
        CTalvorCriticalSectionPtr guard(&m_crit, nullptr);
        snprintf(m_szArchiveDir, sizeof(m_szArchiveDir), "%s", arDes[0]);
        m_lpArchiveDir = m_szArchiveDir;
    }
    long long nDelay = (long long)m_pMemoryFileHead->m_nWriteUndoDelayTime * 1000;
    if (nDelay <= 0 || nDelay > 60000) nDelay = 1000;
    BOOL bWait = TRUE;
    for (;;) {
        // After a group was dealt with, the next one is looked for at once.
        if (bWait) WaitForSingleObject(&m_hArchiveEvent, (UINT)nDelay);
        bWait = TRUE;
        if (nDesCount > 0) CopyBackup(arDes, nDesCount, lpBuffer, hFile, hSrcFile);
        int nGroup = OldestSealedGroup();
        if (nGroup >= 0 && TalvorLoadShared(&m_bArchiveExit) && StopLimitPassed()) break;
        if (nGroup >= 0) {
            bWait = !ArchiveGroup(nGroup, arDes, nDesCount, lpBuffer, hFile);
            continue;
        }
        if (!TalvorLoadShared(&m_bArchiveExit)) continue;
        usleep(1000);
        if (OldestSealedGroup() < 0) break;
    }
    int nLeft = 0;
    for (int i = 0; i < m_nWriteRedoOnlineGroups; i++)
        if (TalvorLoadShared(&m_pRedoLog[i].m_bState) == REDOGROUP_SEALED) nLeft++;
    if (nLeft > 0)
        Trace("ArchiveFile", 3, 30004064,
              TALVOR_TEXT("归档线程结束时仍有%d个日志组未归档，它们保持封存状态，下次启动时归档",
                          "The archiver ends with %d log groups not archived: they stay sealed and the next start "
                          "archives them"),
              nLeft);
    {
        CTalvorCriticalSectionPtr guard(&m_crit, nullptr);
        m_lpArchiveDir = nullptr;
    }
    usleep(100000);
    free(lpBuffer);
    return 0;
}
