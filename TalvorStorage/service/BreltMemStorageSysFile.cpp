// BreltMemStorageSysFile.cpp — finding and opening the system file, and
// building the start-up environment around it: the system image, the
// parameters, the descriptors of all database files, and their images.
//
// The system image is shared with the engine, which also writes it. Every
// offset and count taken from it is held to the image before it is used.
#include "BreltMemStorage.h"

#include "ConfigHelper.h"
#include "DbFileLayout.h"
#include "TalvorTrace.h"
#include "TalvorFileIO.h"
#include "TalvorFlashback.h"
#include "TalvorMemoryStorage.h"
#include "TalvorRestoreMark.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <unistd.h>

namespace {

const int PROGRESS_TOTAL_CAP = 0x40000000;


// lpDir, with a "/" added if it lacks one, and lpName behind it. A path past
// MAX_PATH is cut and then fails to open, with its message.
void JoinPath(char* lpOut, const char* lpDir, const char* lpName)
{
    size_t nLen = strlen(lpDir);
    const char* lpSep = (nLen > 0 && lpDir[nLen - 1] == '/') ? "" : "/";
    char szFull[2 * MAX_PATH + 2];
    snprintf(szFull, sizeof(szFull), "%s%s%s", lpDir, lpSep, lpName);
    snprintf(lpOut, MAX_PATH, "%.*s", MAX_PATH - 1, szFull);
}

// A text field of a shared record may lack its terminator.
void CopyField(char* lpDst, size_t nDstSize, const char* lpSrc, size_t nSrcSize)
{
    size_t nLen = strnlen(lpSrc, nSrcSize);
    if (nLen > nDstSize - 1) nLen = nDstSize - 1;
    memset(lpDst, 0, nDstSize);
    memcpy(lpDst, lpSrc, nLen);
}

} // namespace

BOOL CBreltMemStorageModule::GetSystemFilePath(LPTALVORCRITICALSECTION, char* lpFilePath, char* lpMemFileName)
{
    char szDefaultDir[MAX_PATH];
    TalvorDefaultDatabaseDir(szDefaultDir, sizeof(szDefaultDir));
    TalvorConfigGetValueString("System", "databasepath", szDefaultDir, lpFilePath, MAX_PATH);
    char szSystemFile[MAX_PATH] = {0};
    TalvorConfigGetValueString("System", "systemfile", DB_SYSTEMFILE_NAME, szSystemFile, sizeof(szSystemFile));
    if (strchr(szSystemFile, '/') != nullptr) {
        snprintf(lpFilePath, MAX_PATH, "%s", szSystemFile);
    } else {
        char szDir[MAX_PATH];
        snprintf(szDir, sizeof(szDir), "%s", lpFilePath);
        JoinPath(lpFilePath, szDir, szSystemFile);
    }
    strcpy(lpMemFileName, SHMNAME_SYSTEMFILE);
    return TRUE;
}

BOOL CBreltMemStorageModule::GetSystemFilePath(LPTALVORCRITICALSECTION, char* lpFilePath, char* lpMemFileName,
                                               char* lpDir, char*)
{
    char szDefaultDir[MAX_PATH];
    TalvorDefaultDatabaseDir(szDefaultDir, sizeof(szDefaultDir));
    TalvorConfigGetValueString("System", "databasepath", szDefaultDir, lpFilePath, MAX_PATH);
    char szSystemFile[MAX_PATH] = {0};
    TalvorConfigGetValueString("System", "systemfile", DB_SYSTEMFILE_NAME, szSystemFile, sizeof(szSystemFile));
    strcpy(lpMemFileName, SHMNAME_SYSTEMFILE);
    if (strchr(szSystemFile, '/') != nullptr) {
        snprintf(lpFilePath, MAX_PATH, "%s", szSystemFile);
        return TRUE;
    }
    char szConfigured[MAX_PATH];
    snprintf(szConfigured, sizeof(szConfigured), "%s", lpFilePath);
    char szInDefault[MAX_PATH];
    JoinPath(szInDefault, szDefaultDir, szSystemFile);
    // An installer puts the database beside the program: that copy wins over
    // whatever directory the copied ini still names.
    if (TalvorPathExists(szInDefault)) {
        snprintf(lpFilePath, MAX_PATH, "%s", szInDefault);
        if (strcmp(szConfigured, szDefaultDir) != 0) {
            TalvorConfigSetValueString("System", "databasepath", szDefaultDir);
            CopyField(lpDir, 256, szDefaultDir, sizeof(szDefaultDir));
        }
        return TRUE;
    }
    JoinPath(lpFilePath, szConfigured, szSystemFile);
    return TRUE;
}

HRESULT CBreltMemStorageModule::InitSysEnvironment(LPTALVORCRITICALSECTION lpCritSection, BOOL bInit, BOOL bRecover)
{
    int nInstall = 0;
    if (bInit) {
        m_pFlashback = new (std::nothrow) CTalvorFlashback();
        if (m_pFlashback == nullptr || m_pFlashback->Initialize() != 0) return E_FAIL;
        nInstall = TalvorConfigGetValueInt("System", "install", 0);
    }
    if (m_pFlashback == nullptr) return E_FAIL;
    LPTALVORPROGRESS lpTalvorProgress = m_pFlashback->GetProgress();
    if (lpTalvorProgress != nullptr) {
        lpTalvorProgress->m_nStatus = PROGRESS_RUNNING;
        lpTalvorProgress->m_nPos = 0;
    }

    m_lpSystemFileInfo = (stu_FILEINFO*)calloc(1, sizeof(stu_FILEINFO));
    if (m_lpSystemFileInfo == nullptr) return E_FAIL;
    char szDirPath[256] = {0};
    if (nInstall == 1) {
        char szDatabaseName[33] = {0};
        TalvorConfigGetValueString("System", "databasename", "Talvor", szDatabaseName, sizeof(szDatabaseName));
        GetSystemFilePath(lpCritSection, m_lpSystemFileInfo->m_lpszFilePath, m_lpSystemFileInfo->m_lpszTablespaceName,
                          szDirPath, szDatabaseName);
    } else {
        GetSystemFilePath(lpCritSection, m_lpSystemFileInfo->m_lpszFilePath, m_lpSystemFileInfo->m_lpszTablespaceName);
    }
    m_lpSystemFileInfo->m_bFileType = FILETYPE_SYSTEM;
    m_lpSystemFileInfo->m_bFileNo = SYSTEMFILE_FILENO;
    m_lpSystemFileInfo->m_pLoadSize = &m_nSysFileLoadSize;
    // Files a restore left half rewritten are no database to start on.
    if (TalvorRestoreMarkPresent(m_lpSystemFileInfo->m_lpszFilePath)) {
        Trace("InitSysEnvironment", 1, 10020040,
              TALVOR_TEXT("数据库的恢复未完成,文件可能新旧混杂,请重新执行恢复,系统文件:%s",
                          "A restore into this database did not finish, so its files may be a mixture of old and restored ones: run the restore again, system file: %s"),
              m_lpSystemFileInfo->m_lpszFilePath);
        return E_RESTORE_UNFINISHED;
    }

    CTalvorMemoryStorage* pStorage = new (std::nothrow) CTalvorMemoryStorage();
    if (pStorage == nullptr) {
        Trace("InitSysEnvironment", 1, 10020001,
              TALVOR_TEXT("初始化文件操作实例失败,错误码:%d", "Failed to initialize file operation instance, error code:%d"),
              ENOMEM);
        return E_FAIL;
    }
    // Held by the descriptor from here on, so that FreeData releases it.
    m_lpSystemFileInfo->m_pStorageFile = pStorage;
    pStorage->SetFileListHolder(this);
    if (pStorage->Initialize(lpCritSection, m_lpSystemFileInfo, 0, m_pFlashback, lpTalvorProgress, 0, 0) != 0)
        return E_FAIL;

    m_arFileInfo[SYSTEMFILE_FILENO] = m_lpSystemFileInfo;
    LPSYSTEMFILEHEAD lpHead = (LPSYSTEMFILEHEAD)m_lpSystemFileInfo->m_pFileAddr;
    m_pMemoryFileHead = lpHead;
    // The undo cache checks its file against the system file's generation.
    m_pFlashback->m_pMemoryFileHead = lpHead;
    lpHead->m_bStatus = 1;
    m_lpSystemFileInfo->m_nTimestamp = lpHead->m_nBeginTimestamp;
    lpHead->m_bForbidSaveFlag = 0;
    lpHead->m_bTableFileStatus = 0;
    lpHead->m_bIndexFileStatus = 0;

    if (nInstall == 1)
        ReadInstallConfigParam(lpHead);
    else if (bInit)
        ReadSysConfigParam(lpCritSection, lpHead);
    else
        WriteSysConfigParam(lpCritSection, lpHead, bRecover, FALSE);
    if (lpHead->m_nLockWaitTimeout <= 0) lpHead->m_nLockWaitTimeout = 180;

    if (CreateCache(lpHead, lpTalvorProgress) != S_OK) return E_FAIL;

    if (nInstall == 1 && CorrectMovedDatabase(lpHead, szDirPath) != S_OK) return E_FAIL;
    if (WalkFileList(lpHead, FALSE, nullptr, nullptr) != S_OK) return E_FAIL;
    SetLoadProgressTotal(lpTalvorProgress);
    return S_OK;
}

void CBreltMemStorageModule::SetLoadProgressTotal(LPTALVORPROGRESS lpTalvorProgress)
{
    if (lpTalvorProgress == nullptr || m_pMemoryFileHead == nullptr) return;
    long long nSystemSize = m_pMemoryFileHead->m_nFileTotalSize;
    // The sizes are the list's, not yet held to any file: a sum past the
    // largest integer is past the cap as well.
    long long nTotal = nSystemSize;
    for (stu_FILEINFO* p = m_pStorageInfo; p != nullptr && nTotal != LLONG_MAX; p = p->m_pNext)
        if (__builtin_add_overflow(nTotal, p->m_liFileSize, &nTotal)) nTotal = LLONG_MAX;
    nTotal /= DB_MIB;
    memset(lpTalvorProgress->m_lpTitle, 0, sizeof(lpTalvorProgress->m_lpTitle));
    strcpy(lpTalvorProgress->m_lpTitle, "Loading...");
    lpTalvorProgress->m_nPos = (int)(nSystemSize / DB_MIB);
    lpTalvorProgress->m_nTotal = (int)(nTotal > PROGRESS_TOTAL_CAP ? PROGRESS_TOTAL_CAP : nTotal);
}

// A database copied to another directory still names its files under the
// old one. The rows that do are moved under the new directory, and the head
// and the ini follow.
HRESULT CBreltMemStorageModule::CorrectMovedDatabase(LPSYSTEMFILEHEAD lpHead, char* lpszDirPath)
{
    char szSrcPath[sizeof(lpHead->m_cDatabasePath) + 1] = {0};
    memcpy(szSrcPath, lpHead->m_cDatabasePath, sizeof(lpHead->m_cDatabasePath));
    bool bMoved = true;
    if (lpszDirPath[0] == '\0') {
        if (strncmp(m_lpSystemFileInfo->m_lpszFilePath, szSrcPath, strlen(szSrcPath)) == 0) {
            bMoved = false;
        } else {
            CopyField(lpszDirPath, 256, szSrcPath, sizeof(szSrcPath));
            bMoved = lpszDirPath[0] != '\0';
        }
    }
    if (bMoved) {
        if (WalkFileList(lpHead, TRUE, lpszDirPath, szSrcPath) != S_OK) return E_FAIL;
        memset(lpHead->m_cDatabasePath, 0, sizeof(lpHead->m_cDatabasePath));
        memcpy(lpHead->m_cDatabasePath, lpszDirPath, strnlen(lpszDirPath, 255));

        int fd = Talvor_FileDescriptor(m_lpSystemFileInfo->m_hFile);
        int nHeadSize = lpHead->m_nFileHeaderSize;
        if (fd < 0 || nHeadSize <= 0 || nHeadSize > m_lpSystemFileInfo->m_liFileSize) {
            Trace("InitSysEnvironment", 1, 10020012,
                  TALVOR_TEXT("设置物理文件位置失败,错误码:%d,路径:%s,位置:0",
                              "Failed to set physical file location, error code: %d, path: %s, location: 0"),
                  EINVAL, m_lpSystemFileInfo->m_lpszFilePath);
            return E_FAIL;
        }
        // The moved rows and the head reach the medium before the ini points
        // at the new place: an ini that does, over a file list that still
        // names the old one, would refuse every later start.
        if (!TalvorWriteFull(fd, lpHead, (size_t)nHeadSize, 0) || CTalvorFileIO::Current()->FSync(fd) != 0) {
            Trace("InitSysEnvironment", 1, 10020013,
                  TALVOR_TEXT("写入物理文件失败,错误码:%d,路径:%s,写入位置:0,写入大小:%d",
                              "Failed to write to physical file, error code: %d, path: %s, write location: 0, write size: %d"),
                  errno, m_lpSystemFileInfo->m_lpszFilePath, nHeadSize);
            return E_FAIL;
        }
        TalvorConfigSetValueString("System", "databasepath", lpszDirPath);
    }
    TalvorConfigSetValueString("System", "install", "0");
    return S_OK;
}

HRESULT CBreltMemStorageModule::WalkFileList(LPSYSTEMFILEHEAD lpHead, BOOL bCorrect, char* lpszDirPath,
                                             char* lpszSrcPath)
{
    LPBASEFILEOBJECTDEF lpObject = DbFileListObject(lpHead);
    if (lpObject->m_nID != SYSTEMFILE_FILELIST_OBJECTID) return S_OK;
    LPBYTE lpImage = m_lpSystemFileInfo->m_pFileAddr;
    long long nImageSize = m_lpSystemFileInfo->m_liFileSize;
    const char* lpszPath = m_lpSystemFileInfo->m_lpszFilePath;
    long long arFirst[2] = {lpObject->m_nFullBlockMapOffset, lpObject->m_nFreeBlockMapOffset};
    for (int nChain = 0; nChain < 2; nChain++) {
        long long nBad = 0;
        int nResult = DbWalkMapChain(lpImage, nImageSize, arFirst[nChain], 0, &nBad,
                                     [&](long long nEntryOffset, LPBASEFILEBLOCKMAP lpEntry) {
                                         long long nBlock = lpEntry->m_nBlockOffset;
                                         if (nBlock <= 0 || nBlock > nImageSize - (long long)sizeof(SYSTEMBLOCKHEAD)) {
                                             Trace("InitSysEnvironment", 1, 10020032,
                                                   TALVOR_TEXT("系统文件中文件列表的数据块位于文件之外,路径:%s,映射项位置:%lld,数据块位置:%lld,文件大小:%lld",
                                                               "A block of the file list lies outside the system file, path: %s, map entry offset: %lld, block offset: %lld, file size: %lld"),
                                                   lpszPath, nEntryOffset, nBlock, nImageSize);
                                             return false;
                                         }
                                         LPSYSTEMBLOCKHEAD lpBlock = (LPSYSTEMBLOCKHEAD)(lpImage + nBlock);
                                         BOOL bDone = bCorrect ? CorrectDBFileData(lpBlock, lpszDirPath, lpszSrcPath)
                                                               : LoadMemDBFileData(lpBlock);
                                         return bDone != FALSE;
                                     });
        if (nResult == DBCHAIN_OUTSIDE)
            Trace("InitSysEnvironment", 1, 10020030,
                  TALVOR_TEXT("系统文件中文件列表的映射项位于文件之外,路径:%s,映射项位置:%lld,文件大小:%lld",
                              "A map entry of the file list lies outside the system file, path: %s, map entry offset: %lld, file size: %lld"),
                  lpszPath, nBad, nImageSize);
        else if (nResult == DBCHAIN_LOOP)
            Trace("InitSysEnvironment", 1, 10020031,
                  TALVOR_TEXT("系统文件中文件列表的数据块链表成环,路径:%s,映射项位置:%lld",
                              "The block chain of the file list in the system file loops, path: %s, map entry offset: %lld"),
                  lpszPath, nBad);
        if (nResult == DBCHAIN_OK) continue;
        if (bCorrect)
            Trace0("InitSysEnvironment", 1, nChain == 0 ? 10020010 : 10020011,
                   TALVOR_TEXT("修复系统文件中的文件数据失败", "Failed to fix file data in system file"));
        else
            Trace0("InitSysEnvironment", 1, nChain == 0 ? 10020020 : 10020021,
                   TALVOR_TEXT("加载系统文件中的内存文件数据失败", "Failed to load memory file data in system file"));
        return E_FAIL;
    }
    return S_OK;
}

BOOL CBreltMemStorageModule::CheckFileListBlock(LPSYSTEMBLOCKHEAD lpBlock, LONG nCode)
{
    LPBYTE lpImage = m_lpSystemFileInfo != nullptr ? m_lpSystemFileInfo->m_pFileAddr : nullptr;
    long long nImageSize = m_lpSystemFileInfo != nullptr ? m_lpSystemFileInfo->m_liFileSize : 0;
    long long nOffset = lpImage != nullptr ? (LPBYTE)lpBlock - lpImage : -1;
    if (lpImage != nullptr && (LPBYTE)lpBlock >= lpImage && DbSystemBlockFits(lpImage, nImageSize, nOffset)) return TRUE;
    bool bHeadInside = lpImage != nullptr && nOffset > 0 && nOffset <= nImageSize - (long long)sizeof(SYSTEMBLOCKHEAD);
    Trace("LoadMemDBFileData", 1, nCode,
          TALVOR_TEXT("数据块的记录超出数据块或系统文件,数据块位置:%lld,数据块大小:%d,头大小:%d,记录数:%d",
                      "The records of the data block do not fit in it or in the system file, block offset: %lld, block size: %d, head size: %d, record count: %d"),
          nOffset, bHeadInside ? lpBlock->m_nBlockSize : 0, bHeadInside ? lpBlock->m_nBlockHeadSize : 0,
          bHeadInside ? lpBlock->m_nDataNum : 0);
    return FALSE;
}

// The system file's own row always tells what this run sees: its path, its
// name, its size, fully loaded.
void CBreltMemStorageModule::RefreshSystemFileRow(LPSYSTEMBLOCKHEAD lpBlock, LPFILE_MEMDBFILEINFO lpRow)
{
    stu_FILEINFO* p = m_lpSystemFileInfo;
    lpRow->m_bFileType = FILETYPE_SYSTEM;
    lpRow->m_nFileSize = p->m_liFileSize;
    lpRow->m_nLoadSize = p->m_liFileSize;
    CopyField(lpRow->m_lpszFilePath, sizeof(lpRow->m_lpszFilePath), p->m_lpszFilePath, sizeof(p->m_lpszFilePath));
    CopyField(lpRow->m_lpszTablespaceName, sizeof(lpRow->m_lpszTablespaceName), p->m_lpszTablespaceName,
              sizeof(p->m_lpszTablespaceName));
    p->m_pSaveFlag = &lpBlock->m_bSaveFlag;
    p->m_pLoadSize = &lpRow->m_nLoadSize;
    p->m_lpFileInfo = lpRow;
}

BOOL CBreltMemStorageModule::LoadMemDBFileData(LPSYSTEMBLOCKHEAD lpBlock)
{
    if (lpBlock->m_nObjectID != SYSTEMFILE_FILELIST_OBJECTID) {
        Trace("LoadMemDBFileData", 1, 10030001,
              TALVOR_TEXT("数据块的对象标识不正确,要求值:%d,实际值:%d",
                          "The object representation of the data block is incorrect, required value: %d, actual value: %d"),
              SYSTEMFILE_FILELIST_OBJECTID, lpBlock->m_nObjectID);
        return FALSE;
    }
    if (lpBlock->m_nBlockDataStructSize != (int)sizeof(FILE_MEMDBFILEINFO)) {
        Trace("LoadMemDBFileData", 1, 10030002,
              TALVOR_TEXT("数据块的结构大小已改变。  当前系统值:%d,记录值:%d",
                          "The structure size of data block has changed.  current system value: %d, recorded value: %d"),
              (int)sizeof(FILE_MEMDBFILEINFO), lpBlock->m_nBlockDataStructSize);
        return FALSE;
    }
    if (!CheckFileListBlock(lpBlock, 10030003)) return FALSE;
    LPFILE_MEMDBFILEINFO lpRows = (LPFILE_MEMDBFILEINFO)((LPBYTE)lpBlock + lpBlock->m_nBlockHeadSize);
    int nRows = lpBlock->m_nDataNum;
    CTalvorMemoryStorage* pSystem = static_cast<CTalvorMemoryStorage*>(m_lpSystemFileInfo->m_pStorageFile);
    const BOOL bTakenOver = pSystem != nullptr && pSystem->TookOverSegment();
    for (int i = 0; i < nRows; i++) {
        LPFILE_MEMDBFILEINFO lpRow = &lpRows[i];
        BYTE bFileNo = lpRow->m_bFileNo;
        if (bFileNo == SYSTEMFILE_FILENO) {
            RefreshSystemFileRow(lpBlock, lpRow);
            continue;
        }
        // A row whose command was under way when the process died speaks
        // of a file that may not be there yet (an add), or no longer there
        // (a move): the row as the list on disk has it tells the truth.
        // A list read from the disk carries no such row: the save pass
        // keeps them off it.
        FILE_MEMDBFILEINFO stSettled;
        if (lpRow->m_bFileCMD != FILECMD_NONE && bTakenOver) {
            if (!SettledRowOnDisk(lpRow, &stSettled)) continue;
            lpRow = &stSettled;
        }
        if (lpRow->m_bDropFlag == 1) continue;
        // Two live rows with one number would share one segment key: the
        // second file would be shown the first one's image.
        if (bFileNo == 0 || m_arFileInfo[bFileNo] != nullptr) {
            char szPath[sizeof(lpRow->m_lpszFilePath) + 1];
            CopyField(szPath, sizeof(szPath), lpRow->m_lpszFilePath, sizeof(lpRow->m_lpszFilePath));
            Trace("LoadMemDBFileData", 1, 10030004,
                  TALVOR_TEXT("数据块中的文件号无效或重复,文件号:%d,路径:%s",
                              "The file number of a row of the data block is invalid or used twice, file number: %d, path: %s"),
                  bFileNo, szPath);
            return FALSE;
        }
        stu_FILEINFO* p = (stu_FILEINFO*)calloc(1, sizeof(stu_FILEINFO));
        if (p == nullptr) {
            Trace("LoadMemDBFileData", 1, 10030005,
                  TALVOR_TEXT("分配文件描述失败,文件号:%d", "Failed to allocate the file descriptor, file number: %d"), bFileNo);
            return FALSE;
        }
        CopyField(p->m_lpszFilePath, sizeof(p->m_lpszFilePath), lpRow->m_lpszFilePath, sizeof(lpRow->m_lpszFilePath));
        CopyField(p->m_lpszTablespaceName, sizeof(p->m_lpszTablespaceName), lpRow->m_lpszTablespaceName,
                  sizeof(lpRow->m_lpszTablespaceName));
        p->m_bFileNo = bFileNo;
        p->m_bFileType = (char)lpRow->m_bFileType;
        p->m_liFileSize = lpRow->m_nFileSize;
        p->m_nMaxObjectNum = lpRow->m_nMaxObjectNum;
        p->m_pSaveFlag = &lpBlock->m_bSaveFlag;
        p->m_pLoadSize = &lpRows[i].m_nLoadSize;
        p->m_lpFileInfo = &lpRows[i];
        lpRows[i].m_nLoadSize = 0;
        p->m_pStorageFile = nullptr;
        p->m_pNext = m_pStorageInfo;
        m_pStorageInfo = p;
        m_arFileInfo[bFileNo] = p;
        Trace("LoadMemDBFileData", 3, 10030010,
              TALVOR_TEXT("读取数据文件,文件路径:%s,文件大小:%lld", "Read the data file, file path: %s, file size: %lld"),
              p->m_lpszFilePath, p->m_liFileSize);
    }
    return TRUE;
}

BOOL CBreltMemStorageModule::SettledRowOnDisk(LPFILE_MEMDBFILEINFO lpRow, LPFILE_MEMDBFILEINFO lpSettled)
{
    long long nOffset = (LPBYTE)lpRow - m_lpSystemFileInfo->m_pFileAddr;
    int fd = Talvor_FileDescriptor(m_lpSystemFileInfo->m_hFile);
    BOOL bRead = fd >= 0 && TalvorReadFull(fd, lpSettled, sizeof(*lpSettled), (off_t)nOffset);
    BOOL bSame = bRead && lpSettled->m_bFileNo == lpRow->m_bFileNo && lpSettled->m_bFileCMD == FILECMD_NONE &&
                 lpSettled->m_bDropFlag != 1;
    char szPath[sizeof(lpRow->m_lpszFilePath) + 1];
    CopyField(szPath, sizeof(szPath), lpRow->m_lpszFilePath, sizeof(lpRow->m_lpszFilePath));
    Trace("LoadMemDBFileData", 3, 10030011,
          TALVOR_TEXT("文件列表的记录带有未完成的文件命令,按磁盘上的记录加载,文件号:%d,命令:%d,路径:%s,磁盘上的记录:%s",
                      "A row of the file list carries a file command that did not finish, and is loaded as the list on disk has it, file number: %d, command: %d, path: %s, row on disk: %s"),
          (int)lpRow->m_bFileNo, (int)lpRow->m_bFileCMD, szPath, bSame ? "loaded" : "none");
    return bSame;
}

BOOL CBreltMemStorageModule::CorrectDBFileData(LPSYSTEMBLOCKHEAD lpBlock, char* lpszDirPath, char* lpszSrcPath)
{
    if (lpBlock->m_nObjectID != SYSTEMFILE_FILELIST_OBJECTID) {
        Trace("CorrectDBFileData", 1, 10070001,
              TALVOR_TEXT("数据块的对象标识不正确,要求值:%d,实际值:%d",
                          "The object representation of the data block is incorrect, required value: %d, actual value: %d"),
              SYSTEMFILE_FILELIST_OBJECTID, lpBlock->m_nObjectID);
        return FALSE;
    }
    if (lpBlock->m_nBlockDataStructSize != (int)sizeof(FILE_MEMDBFILEINFO)) {
        Trace("CorrectDBFileData", 1, 10070002,
              TALVOR_TEXT("数据块的结构大小已改变,当前系统值:%d,记录值:%d",
                          "The structure size of data block has changed, current system value: %d, recorded value: %d"),
              (int)sizeof(FILE_MEMDBFILEINFO), lpBlock->m_nBlockDataStructSize);
        return FALSE;
    }
    if (!CheckFileListBlock(lpBlock, 10070003)) return FALSE;
    size_t nDir = strnlen(lpszDirPath, 255);
    size_t nSrc = strlen(lpszSrcPath);
    LPFILE_MEMDBFILEINFO lpRows = (LPFILE_MEMDBFILEINFO)((LPBYTE)lpBlock + lpBlock->m_nBlockHeadSize);
    for (int i = 0; i < lpBlock->m_nDataNum; i++) {
        LPFILE_MEMDBFILEINFO lpRow = &lpRows[i];
        if (lpRow->m_bFileNo == SYSTEMFILE_FILENO) {
            RefreshSystemFileRow(lpBlock, lpRow);
            continue;
        }
        if (lpRow->m_bDropFlag == 1) continue;
        size_t nPathLen = strnlen(lpRow->m_lpszFilePath, sizeof(lpRow->m_lpszFilePath));
        if (nSrc == 0 || nPathLen < nSrc || strncmp(lpRow->m_lpszFilePath, lpszSrcPath, nSrc) != 0) continue;
        char szNew[256] = {0};
        memcpy(szNew, lpszDirPath, nDir);
        long long nKeep = 255 - (long long)(nDir > nSrc ? nDir : nSrc);
        long long nRest = (long long)(nPathLen - nSrc);
        if (nKeep > 0) memcpy(szNew + nDir, lpRow->m_lpszFilePath + nSrc, (size_t)(nRest < nKeep ? nRest : nKeep));
        memcpy(lpRow->m_lpszFilePath, szNew, sizeof(szNew));
    }
    long long nOffset = (LPBYTE)lpBlock - m_lpSystemFileInfo->m_pFileAddr;
    int fd = Talvor_FileDescriptor(m_lpSystemFileInfo->m_hFile);
    if (!TalvorWriteFull(fd, lpBlock, (size_t)lpBlock->m_nBlockSize, (off_t)nOffset)) {
        Trace("CorrectDBFileData", 1, 10070012,
              TALVOR_TEXT("写入物理文件失败,错误码:%d,路径:%s,写入位置:%lld,写入大小:%d",
                          "Failed to write to the physical file, error code: %d, path: %s, write location: %lld, write size: %d"),
              errno, m_lpSystemFileInfo->m_lpszFilePath, nOffset, lpBlock->m_nBlockSize);
        return FALSE;
    }
    return TRUE;
}

HRESULT CBreltMemStorageModule::LoadFile(LPTALVORCRITICALSECTION lpCritSection)
{
    LPTALVORPROGRESS lpTalvorProgress = m_pFlashback != nullptr ? m_pFlashback->GetProgress() : nullptr;
    long long nTotalProgress = lpTalvorProgress != nullptr ? (long long)lpTalvorProgress->m_nPos * DB_MIB : 0;
    long long nBeginTimestamp = m_pMemoryFileHead != nullptr ? m_pMemoryFileHead->m_nBeginTimestamp : 0;
    BYTE bOpenFileUseBuffer = m_pMemoryFileHead != nullptr ? m_pMemoryFileHead->m_bOpenFileUseBuffer : 0;
    // With no cache asked for ("buffercachesize" 0) the engine is told
    // there is none, and cache-mode files stay unserved: each is named once,
    // so that an operator sees why its tables are not there. With a cache
    // they are left to it: the flush threads give them their backends and
    // InitCacheHead loads them.
    const BOOL bNoCache = m_pMemoryFileHead != nullptr && m_pMemoryFileHead->m_nTalvorBufferCacheSize == 0;
    for (stu_FILEINFO* p = m_pStorageInfo; p != nullptr; p = p->m_pNext) {
        // A type no pass saves (5 among them) would be covered by every
        // commit without ever reaching its disk file.
        if (!IsMemoryFileType((BYTE)p->m_bFileType) && !IsCacheFileType((BYTE)p->m_bFileType)) {
            Trace("LoadFile", 1, 10040003,
                  TALVOR_TEXT("数据库含有本服务不能保存的文件类型,拒绝启动,文件号:%d,文件类型:%d,路径:%s",
                              "The database has a file of a type this service cannot save, so the start was refused, file number: %d, file type: %d, path: %s"),
                  (int)p->m_bFileNo, (int)p->m_bFileType, p->m_lpszFilePath);
            return E_FAIL;
        }
        if (!IsCacheFileType((BYTE)p->m_bFileType)) continue;
        if (bNoCache) {
            Trace("LoadFile", 2, 10040004,
                  TALVOR_TEXT("缓存大小(buffercachesize)为0,缓存模式的文件不提供服务,文件号:%d,文件类型:%d,路径:%s",
                              "The cache size (buffercachesize) is 0, so this cache-mode file is not served, file number: %d, file type: %d, path: %s"),
                  (int)p->m_bFileNo, (int)p->m_bFileType, p->m_lpszFilePath);
        }
    }
    for (stu_FILEINFO* p = m_pStorageInfo; p != nullptr; p = p->m_pNext) {
        if (IsCacheFileType((BYTE)p->m_bFileType)) continue;
        CTalvorMemoryStorage* pStorage = new (std::nothrow) CTalvorMemoryStorage();
        if (pStorage == nullptr) {
            Trace("LoadFile", 1, 10040001,
                  TALVOR_TEXT("初始化文件操作实例失败,错误码:%d", "Failed tp initialize file operation instance, error code: %d"),
                  ENOMEM);
            return E_FAIL;
        }
        p->m_pStorageFile = pStorage;
        if (pStorage->Initialize(lpCritSection, p, nBeginTimestamp, m_pFlashback, lpTalvorProgress, nTotalProgress,
                                 bOpenFileUseBuffer) != 0)
            return E_FAIL;
        nTotalProgress += p->m_liFileSize;
        if (lpTalvorProgress != nullptr) lpTalvorProgress->m_nPos = (int)(nTotalProgress / DB_MIB);
    }
    return S_OK;
}
