// TalvorFlashbackUndoCache.cpp — the mirror of the rollback area in the file
// "TalvorUndo.cache", and loading it back after a restart.
//
// The file is an image of the area: same size, same offsets. The flush
// thread copies only the stretch the engine has published since the last
// round (m_nUnsafePos up to m_nDataAllocPos, in two pieces when it wraps),
// and only when the engine says there is one (m_bSaveStatus).
#include "TalvorFlashback.h"

#include "ConfigHelper.h"
#include "TalvorTrace.h"
#include "TalvorFileIO.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char UNDO_CACHE_DEFAULT_NAME[] = "TalvorUndo.cache";
const size_t ZERO_FILL_PIECE = 0x800000;
const size_t ZERO_FILL_BUFFER = 0x800020;
const UINT FLUSH_THREAD_STOP_WAIT = 60000;


// The stretch [nFrom, nTo) of the region [nLow, nHigh) that the engine
// published, as one or two pieces. FALSE when a position lies outside the
// region: the head was caught in a state no stretch can be read from.
struct UndoStretch {
    UINT m_arStart[2];
    UINT m_arEnd[2];
    int m_nPieces;
};

BOOL PlanStretch(UINT nFrom, UINT nTo, UINT nLow, UINT nHigh, UndoStretch& stPlan)
{
    if (nFrom < nLow || nFrom > nHigh || nTo < nLow || nTo > nHigh) return FALSE;
    stPlan.m_nPieces = 0;
    if (nFrom <= nTo) {
        stPlan.m_arStart[0] = nFrom;
        stPlan.m_arEnd[0] = nTo;
        stPlan.m_nPieces = 1;
        return TRUE;
    }
    stPlan.m_arStart[0] = nFrom;
    stPlan.m_arEnd[0] = nHigh;
    stPlan.m_arStart[1] = nLow;
    stPlan.m_arEnd[1] = nTo;
    stPlan.m_nPieces = 2;
    return TRUE;
}

// A cache file's head may be loaded into the area only when it describes an
// area of the same shape with positions inside it.
BOOL FileHeadFits(const ROLLBACKBLOCKHEAD& stFile, const ROLLBACKBLOCKHEAD& stArea)
{
    if (stFile.m_nDataFlag != BLOCK_DATAFLAG) return FALSE;
    if (stFile.m_nRollbackTotalSize != stArea.m_nRollbackTotalSize) return FALSE;
    if (stFile.m_nRollbackHeadSize != stArea.m_nRollbackHeadSize) return FALSE;
    UINT nLow = stArea.m_nRollbackHeadSize, nHigh = stArea.m_nRollbackTotalSize;
    UINT arPos[] = {stFile.m_nDataAllocPos, stFile.m_nLastAllocPos, stFile.m_nFirstDataPos, stFile.m_nUnsafePos};
    for (UINT n : arPos)
        if (n < nLow || n > nHigh) return FALSE;
    return TRUE;
}

// The generations that make a file the area's own content: the current or
// the previous mark of either side meeting.
BOOL SameGeneration(const ROLLBACKBLOCKHEAD& stFile, LPSYSTEMFILEHEAD lpSystem)
{
    return stFile.m_nTimestamp == lpSystem->m_nUndoTimestamp || lpSystem->m_nUndoPreTimestamp == stFile.m_nTimestamp ||
           lpSystem->m_nUndoTimestamp == stFile.m_nPrevTimestamp ||
           lpSystem->m_nUndoPreTimestamp == stFile.m_nPrevTimestamp;
}

} // namespace

BOOL CTalvorFlashback::GetFilePath(LPTALVORCRITICALSECTION lpCritSection, char* lpFilePath)
{
    char szDefaultDir[MAX_PATH];
    TalvorDefaultDatabaseDir(szDefaultDir, sizeof(szDefaultDir));
    char szDir[MAX_PATH] = {0};
    TalvorConfigGetValueString("System", "databasepath", szDefaultDir, szDir, sizeof(szDir), lpCritSection);
    char szName[MAX_PATH] = {0};
    TalvorConfigGetValueString("System", "UndoCacheFile", UNDO_CACHE_DEFAULT_NAME, szName, sizeof(szName),
                               lpCritSection);
    if (strchr(szName, '/') != nullptr) {
        snprintf(lpFilePath, MAX_PATH, "%s", szName);
        return TRUE;
    }
    size_t nLen = strlen(szDir);
    const char* lpSep = (nLen > 0 && szDir[nLen - 1] == '/') ? "" : "/";
    char szFull[2 * MAX_PATH + 2];
    snprintf(szFull, sizeof(szFull), "%s%s%s", szDir, lpSep, szName);
    snprintf(lpFilePath, MAX_PATH, "%.*s", MAX_PATH - 1, szFull);
    return TRUE;
}

// Step 7 of the load: a zero file of the area's size, so that the size test
// holds at the next start.
static int MakeZeroUndoFile(const char* lpPath, UINT nTotalSize, void*& hFile)
{
    CTalvorFileIO* pIO = CTalvorFileIO::Current();
    if (TalvorPathExists(lpPath)) pIO->Unlink(lpPath);
    int fd = pIO->Open(lpPath, O_RDWR | O_CREAT, 0666);
    if (fd < 0) {
        Trace("LoadUndoCache", 0, 118006003,
              TALVOR_TEXT("打开回滚缓存文件失败,错误:%s(%d),路径:%s", "Open undo cache file failed, error: %s(%d), path: %s"),
              strerror(errno), errno, lpPath);
        return 1;
    }
    pIO->Chmod(lpPath, 0666);
    hFile = Talvor_MakeFileHandle(fd);
    if (hFile == nullptr) {
        pIO->Close(fd);
        return 1;
    }
    LPBYTE lpZero = (LPBYTE)calloc(1, ZERO_FILL_BUFFER);
    if (lpZero == nullptr) return 1;
    BOOL bDone = TRUE;
    for (UINT nPos = 0; bDone && nPos < nTotalSize;) {
        size_t nPiece = nTotalSize - nPos < ZERO_FILL_PIECE ? nTotalSize - nPos : ZERO_FILL_PIECE;
        bDone = TalvorWriteFull(fd, lpZero, nPiece, (off_t)nPos);
        nPos += (UINT)nPiece;
    }
    free(lpZero);
    return bDone ? 0 : 1;
}

int CTalvorFlashback::LoadUndoCache(LPTALVORCRITICALSECTION lpCritSection, BOOL bLoad)
{
    if (m_pRollbackFileAddr == nullptr || RollbackAreaSize() < sizeof(ROLLBACKBLOCKHEAD)) return 1;
    LPROLLBACKBLOCKHEAD lpArea = (LPROLLBACKBLOCKHEAD)m_pRollbackFileAddr;
    ROLLBACKBLOCKHEAD stArea;
    memcpy(&stArea, lpArea, sizeof(stArea));
    // The head's size is trusted only as far as the mapped bytes go.
    if (stArea.m_nRollbackTotalSize > RollbackAreaSize() || stArea.m_nRollbackHeadSize < sizeof(ROLLBACKBLOCKHEAD) ||
        stArea.m_nRollbackHeadSize > stArea.m_nRollbackTotalSize)
        return 1;
    char szPath[MAX_PATH] = {0};
    GetFilePath(lpCritSection, szPath);
    CTalvorFileIO* pIO = CTalvorFileIO::Current();
    Talvor_CloseFile(m_hFile);
    if (!TalvorPathExists(szPath)) return MakeZeroUndoFile(szPath, stArea.m_nRollbackTotalSize, m_hFile);
    int fd = pIO->Open(szPath, O_RDWR, 0666);
    if (fd < 0) {
        usleep(1000);
        fd = pIO->Open(szPath, O_RDWR, 0666);
    }
    if (fd < 0) {
        Trace("LoadUndoCache", 0, 118006002,
              TALVOR_TEXT("打开回滚缓存文件失败,错误:%s(%d),路径:%s", "Open undo cache file failed, error: %s(%d), path: %s"),
              strerror(errno), errno, szPath);
        return 1;
    }
    pIO->Chmod(szPath, 0666);
    struct stat st;
    if (pIO->FStat(fd, &st) != 0 || st.st_size != (off_t)stArea.m_nRollbackTotalSize) {
        pIO->Close(fd);
        pIO->Unlink(szPath);
        usleep(1000);
        return MakeZeroUndoFile(szPath, stArea.m_nRollbackTotalSize, m_hFile);
    }
    m_hFile = Talvor_MakeFileHandle(fd);
    if (m_hFile == nullptr) {
        pIO->Close(fd);
        return 1;
    }
    if (!bLoad) return 0;
    ROLLBACKBLOCKHEAD stFile;
    if (!TalvorReadFull(fd, &stFile, sizeof(stFile), 0)) return 0;
    LPSYSTEMFILEHEAD lpSystem = m_pMemoryFileHead;
    if (lpSystem == nullptr) return 0;
    // Another generation, or a head that does not describe this area: the
    // area stays as it is.
    if (!SameGeneration(stFile, lpSystem) || !FileHeadFits(stFile, stArea)) return 0;
    lpArea->m_nTimestamp = stFile.m_nTimestamp;
    lpArea->m_nPrevTimestamp = stFile.m_nPrevTimestamp;
    lpArea->m_nDataAllocPos = stFile.m_nDataAllocPos;
    lpArea->m_nLastAllocPos = stFile.m_nLastAllocPos;
    lpArea->m_nFirstDataPos = stFile.m_nFirstDataPos;
    UndoStretch stPlan;
    if (!PlanStretch(stFile.m_nUnsafePos, stFile.m_nDataAllocPos, stArea.m_nRollbackHeadSize,
                     stArea.m_nRollbackTotalSize, stPlan))
        return 0;
    for (int i = 0; i < stPlan.m_nPieces; i++) {
        UINT nFrom = stPlan.m_arStart[i], nSize = stPlan.m_arEnd[i] - nFrom;
        if (nSize > 0 && !TalvorReadFull(fd, m_pRollbackFileAddr + nFrom, nSize, (off_t)nFrom)) break;
    }
    return 0;
}

int CTalvorFlashback::FlushUndoStretch()
{
    LPROLLBACKBLOCKHEAD lpArea = (LPROLLBACKBLOCKHEAD)m_pRollbackFileAddr;
    if (lpArea == nullptr) return 0;
    // The flag is taken before the head is read: a stretch the engine
    // publishes meanwhile leaves the flag set for the next round, so that no
    // publication is lost between the copy and the clear.
    if (__atomic_exchange_n(&lpArea->m_bSaveStatus, (BYTE)0, __ATOMIC_ACQ_REL) == 0) return 0;
    ROLLBACKBLOCKHEAD stCopy;
    memcpy(&stCopy, lpArea, sizeof(stCopy));
    int fd = Talvor_FileDescriptor(m_hFile);
    if (fd < 0) return 1;
    UINT nHigh = stCopy.m_nRollbackTotalSize < RollbackAreaSize() ? stCopy.m_nRollbackTotalSize : RollbackAreaSize();
    UndoStretch stPlan;
    if (!PlanStretch(stCopy.m_nUnsafePos, stCopy.m_nDataAllocPos, stCopy.m_nRollbackHeadSize, nHigh, stPlan) ||
        stCopy.m_nRollbackHeadSize < sizeof(ROLLBACKBLOCKHEAD))
        return 0;
    // The stretch goes first, and is on the medium before the head that
    // names it is written: a disk may keep its writes in any order, and a
    // head on disk must never name bytes that are not. The head itself is
    // made durable by the next round's sync.
    BOOL bWritten = FALSE;
    for (int i = 0; i < stPlan.m_nPieces; i++) {
        UINT nFrom = stPlan.m_arStart[i], nSize = stPlan.m_arEnd[i] - nFrom;
        if (nSize == 0) continue;
        if (!TalvorWriteFull(fd, m_pRollbackFileAddr + nFrom, nSize, (off_t)nFrom)) return 1;
        bWritten = TRUE;
    }
    if (bWritten && CTalvorFileIO::Current()->FDataSync(fd) != 0) return 1;
    return TalvorWriteFull(fd, &stCopy, sizeof(stCopy), 0) ? 0 : 1;
}

int CTalvorFlashback::FlashFlush()
{
    while (__atomic_load_n(&m_bExit, __ATOMIC_ACQUIRE) == 0) {
        if (FlushUndoStretch() != 0) return 1;
        usleep(1000);
    }
    return 0;
}

void* CTalvorFlashback::FlashFlushThread(LPVOID lpParam)
{
    CTalvorFlashback* pThis = (CTalvorFlashback*)lpParam;
    Trace0("FlashFlushThread", 1, 50011001, "FlashFlushThread线程启动");
    pThis->FlashFlush();
    Trace0("FlashFlushThread", 1, 50011003, "FlashFlushThread线程关闭");
    return nullptr;
}

BOOL CTalvorFlashback::StopUndoMirror(UINT nWaitMs, BYTE bDeleteUndoFile)
{
    if (m_hFlushThread != 0) {
        __atomic_store_n(&m_bExit, TRUE, __ATOMIC_RELEASE);
        // A thread still writing keeps its file: closing it under the thread
        // could hand the descriptor to another file.
        if (TalvorWaitForSingleThread(m_hFlushThread, nWaitMs) != WAIT_OBJECT_0) return FALSE;
        m_hFlushThread = 0;
    }
    Talvor_CloseFile(m_hFile);
    if (bDeleteUndoFile) {
        char szPath[MAX_PATH] = {0};
        GetFilePath(nullptr, szPath);
        CTalvorFileIO::Current()->Unlink(szPath);
    }
    return TRUE;
}

void CTalvorFlashback::StartWriteUndoCache(LPTALVORCRITICALSECTION lpCritSection, BOOL bLoad)
{
    if (!StopUndoMirror(FLUSH_THREAD_STOP_WAIT, 0)) {
        printf("StartWriteUndoCache, FlashFlushThread did not stop within %u ms\n", FLUSH_THREAD_STOP_WAIT);
        return;
    }
    __atomic_store_n(&m_bExit, FALSE, __ATOMIC_RELEASE);
    LoadUndoCache(lpCritSection, bLoad);
    int rc = CreateJoinableThread(&m_hFlushThread, FlashFlushThread, this);
    if (rc != 0) {
        m_hFlushThread = 0;
        printf("StartWriteUndoCache, 创建FlashFlushThread线程失败(%d)，错误码：%d\n", rc, errno);
    }
}
