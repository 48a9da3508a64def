// TalvorCacheFlush.cpp — the loop of the two flush pipelines: the ring of
// entries the engine posts, open requests, file growth, and the write
// buffers pushed out when the ring is idle. What one entry does is in
// TalvorCacheFlushEntry.cpp; the threads in TalvorCacheFlushThread.cpp.
#include "TalvorCacheFlush.h"

#include "TalvorCacheStorage.h"
#include "TalvorFileIO.h"
#include "TalvorFileStorage.h"
#include "TalvorTrace.h"

#include <cassert>
#include <cstdlib>
#include <cstring>
#include <new>
#include <unistd.h>

const CacheFlushKind g_stTableFlushKind = {
    FILETYPE_TABLE, FALSE, 1048576, TABLEFILE_DATAFLAG, TABLEFILEEX_DATAFLAG,
    60006001, 60006002, 60006004, 60006005, 60006011, 60002000, 60002001, 60002002, "StorageFlushThread"};
const CacheFlushKind g_stIndexFlushKind = {
    FILETYPE_INDEX, TRUE, 16384, INDEXFILE_DATAFLAG, INDEXFILEEX_DATAFLAG,
    60005001, 60005002, 60005004, 60005005, 60005011, 6000300, 6000301, 6000302, "StorageIndexFlushThread"};

namespace {

// What ServeRing found when it stopped.
enum {
    FLUSHRING_EMPTY = 0,
    FLUSHRING_PAUSED = 1,
};

// A drain ends within this many FlushBuffer calls: each good call cleans
// one of the 64 buffers and nothing else writes into them meanwhile.
const int FLUSHRING_DRAIN_CALLS = 2 * FILESTORE_BUFFER_NUM + 1;

// How often PauseFile looks whether the loops have come round.
const useconds_t PAUSE_POLL_US = 1000;

int LoopOf(const CacheFlushKind& kind) { return kind.bIndex ? 1 : 0; }

} // namespace

HRESULT CTalvorCacheStorage::StorageFlush(LPTALVORCRITICALSECTION lpCritSection)
{
    return RunFlushLoop(lpCritSection, g_stTableFlushKind);
}

HRESULT CTalvorCacheStorage::StorageIndexFlush(LPTALVORCRITICALSECTION lpCritSection)
{
    return RunFlushLoop(lpCritSection, g_stIndexFlushKind);
}

BYTE CTalvorCacheStorage::OpenFileUseBuffer() const
{
    return m_pCacheModule != nullptr ? m_pCacheModule->OpenFileUseBuffer() : 0;
}

LPFILEINFO CTalvorCacheStorage::FileOfKind(BYTE bFileNo, BYTE bFileType) const
{
    if (m_pCacheModule == nullptr) return nullptr;
    LPFILEINFO pFile = m_pCacheModule->FileOf(bFileNo);
    if (pFile == nullptr || (BYTE)pFile->m_bFileType != bFileType) return nullptr;
    return pFile;
}

BOOL CTalvorCacheStorage::IsPausedFile(BYTE bFileNo) const
{
    return bFileNo != 0 && bFileNo == TalvorLoadShared(&m_bPauseFileNo);
}

LPFILEINFO CTalvorCacheStorage::SweptFileOfKind(BYTE bFileNo, BYTE bFileType) const
{
    // A paused file is the command thread's until the pause ends.
    return IsPausedFile(bFileNo) ? nullptr : FileOfKind(bFileNo, bFileType);
}

HRESULT CTalvorCacheStorage::RunFlushLoop(LPTALVORCRITICALSECTION lpCritSection, const CacheFlushKind& kind)
{
    if (m_pCacheModule == nullptr || m_pCacheBufferHead == nullptr) return E_FAIL;
    CacheFlushRun run;
    memset(&run, 0, sizeof(run));
    run.pKind = &kind;
    run.lpWork = (LPBYTE)get_aligned_buffer((size_t)kind.nWorkSize);
    if (run.lpWork == nullptr) return E_FAIL;
    HEVENTTYPE hWait = kind.bIndex ? m_hCacheIndexFlush : m_hCacheFlush;
    // Marked running before the first look at the pause: see AnswerPause.
    TalvorStoreSharedFull(&m_arFlushLoopUp[LoopOf(kind)], 1);
    for (;;) {
        AnswerPause(kind);
        if (TalvorLoadShared(&m_bExit)) run.bExit = TRUE;
        ServeOpenRequest(lpCritSection, kind);
        int nRing = ServeRing(lpCritSection, run);
        if (nRing == FLUSHRING_PAUSED) {
            // The entry waits for the pause to end. At a stop it stays
            // posted for the next daemon instead of holding the stop up.
            if (run.bExit) break;
            usleep(1000);
            continue;
        }
        if (run.bExit) break;
        FileSpaceManage(lpCritSection, kind.bFileType);
        PushBuffersOnce(lpCritSection, kind.bFileType);
        if (hWait != nullptr)
            WaitForSingleObject(hWait, (UINT)m_nWaitTime);
        else
            usleep((useconds_t)m_nWaitTime * 1000);
    }
    DrainBuffers(lpCritSection, kind.bFileType, FALSE);
    free(run.lpWork);
    TalvorStoreShared(&m_arFlushLoopUp[LoopOf(kind)], 0);
    return S_OK;
}

// Whatever the loop did with a file is behind this point: a pause begun
// before it is answered here. The count is read sequentially consistent
// after the loop was marked running, and PauseFile stores it before it
// reads the marks: either PauseFile waits for a loop that has just started,
// or that loop sees the pause.
void CTalvorCacheStorage::AnswerPause(const CacheFlushKind& kind)
{
    TalvorStoreShared(&m_arPauseSeen[LoopOf(kind)], TalvorLoadSharedFull(&m_nPauseSeq));
}

BOOL CTalvorCacheStorage::PauseFile(BYTE bFileNo)
{
    assert(bFileNo != 0);  // 0 is "no pause", and every idle load thread's mark
    // Sequentially consistent, against the load threads' mark (EnterServe).
    TalvorStoreSharedFull(&m_bPauseFileNo, bFileNo);
    // Stored after the number: a loop that sees the count sees the number.
    const UINT nSeq = TalvorLoadShared(&m_nPauseSeq) + 1;
    TalvorStoreSharedFull(&m_nPauseSeq, nSeq);
    // The loops' semaphores only shorten their waits.
    if (m_hCacheFlush != nullptr) SetEvent(m_hCacheFlush);
    if (m_hCacheIndexFlush != nullptr) SetEvent(m_hCacheIndexFlush);
    const long long nDeadline = TalvorMonotonicMs() + (long long)m_nPauseDeadlineMs;
    while (!LoopsSawPause(nSeq) || LoadServing(bFileNo)) {
        if (TalvorMonotonicMs() >= nDeadline) {
            ResumeFile();
            Trace("PauseFile", 1, 60001018,
                  TALVOR_TEXT("缓存线程未能离开文件%d(等待%u毫秒),该文件的命令被拒绝",
                              "The cache's threads did not leave file %d within %u ms, the command on the file is refused"),
                  (int)bFileNo, m_nPauseDeadlineMs);
            return FALSE;
        }
        usleep(PAUSE_POLL_US);
    }
    return TRUE;
}

void CTalvorCacheStorage::ResumeFile()
{
    TalvorStoreSharedFull(&m_bPauseFileNo, 0);
}

BOOL CTalvorCacheStorage::LoopsSawPause(UINT nSeq) const
{
    for (int nLoop = 0; nLoop < 2; nLoop++)
        if (TalvorLoadSharedFull(&m_arFlushLoopUp[nLoop]) &&
            TalvorLoadShared(&m_arPauseSeen[nLoop]) != nSeq)
            return FALSE;
    return TRUE;
}

BOOL CTalvorCacheStorage::LoadServing(BYTE bFileNo) const
{
    for (int i = 0; i < MAX_FILE_NUM; i++)
        if (TalvorLoadSharedFull(&m_arLoadServing[i]) == bFileNo) return TRUE;
    return FALSE;
}

void CTalvorCacheStorage::ServeOpenRequest(LPTALVORCRITICALSECTION lpCritSection, const CacheFlushKind& kind)
{
    LPFILEINFO pFile = m_lpOpenFileInfo;
    if (pFile == nullptr || (BYTE)pFile->m_bFileType != kind.bFileType || pFile->m_pStorageFile == nullptr) return;
    pFile->m_pStorageFile->OpenFile(lpCritSection, pFile, OpenFileUseBuffer());
    // The waiter learns the outcome from the handles once the request is gone.
    TalvorFlushCPU4Write();
    m_lpOpenFileInfo = nullptr;
}

int CTalvorCacheStorage::ServeRing(LPTALVORCRITICALSECTION lpCritSection, CacheFlushRun& run)
{
    const CacheFlushKind& kind = *run.pKind;
    LPstu_CacheFlush pRing = kind.bIndex ? m_pCacheIndexFlush : m_pCacheFlush;
    volatile BYTE* pPos =
        kind.bIndex ? &m_pCacheBufferHead->m_bStorageIndexFlushPos : &m_pCacheBufferHead->m_bStorageFlushPos;
    HEVENTTYPE hPost = kind.bIndex ? m_hStorageIndexFlush : m_hStorageFlush;
    if (pRing == nullptr) return FLUSHRING_EMPTY;
    for (;;) {
        // A position from a cache that survived is the engine's as much as ours.
        int nPos = TalvorLoadShared(pPos) % CACHE_FLUSH_RING_SIZE;
        stu_CacheFlush* p = &pRing[nPos];
        if (TalvorLoadShared(&p->m_bStatus) != 1) return FLUSHRING_EMPTY;
        // An engine that keeps the ring full keeps the loop from its top:
        // between two entries it holds no file either.
        AnswerPause(kind);
        TalvorFlushCPU4Read();
        BYTE bResult = CACHEFLUSH_DONE;
        if (CarryOut(lpCritSection, p, run, bResult) == FLUSHRING_PAUSED) return FLUSHRING_PAUSED;
        p->m_bReserved = bResult;
        TalvorFlushCPU4Write();
        TalvorStoreShared(&p->m_bStatus, 0);
        TalvorStoreShared(pPos, (nPos + 1) % CACHE_FLUSH_RING_SIZE);
        if (hPost != nullptr) SetEvent(hPost);
    }
}

void CTalvorCacheStorage::PushBuffersOnce(LPTALVORCRITICALSECTION lpCritSection, BYTE bFileType)
{
    for (int n = 0; n < MAX_FILE_NUM; n++) {
        LPFILEINFO pFile = SweptFileOfKind((BYTE)n, bFileType);
        if (pFile == nullptr || pFile->m_pStorageFile == nullptr) continue;
        if (pFile->m_pStorageFile->CheckFlush()) pFile->m_pStorageFile->FlushBuffer(lpCritSection);
    }
}

BOOL CTalvorCacheStorage::DrainBuffers(LPTALVORCRITICALSECTION lpCritSection, BYTE bFileType, BOOL bSync)
{
    BOOL bAll = TRUE;
    for (int n = 0; n < MAX_FILE_NUM; n++) {
        LPFILEINFO pFile = SweptFileOfKind((BYTE)n, bFileType);
        if (pFile == nullptr || pFile->m_pStorageFile == nullptr) continue;
        int nRet = 0;
        for (int i = 0; i < FLUSHRING_DRAIN_CALLS && nRet == 0; i++) nRet = pFile->m_pStorageFile->FlushBuffer(lpCritSection);
        if (nRet != -1) bAll = FALSE;
        if (!bSync) continue;
        // A file opened for buffered writes holds them in the page cache.
        int fd = Talvor_FileDescriptor(pFile->m_hFile);
        if (fd < 0 || CTalvorFileIO::Current()->FSync(fd) != 0) bAll = FALSE;
    }
    return bAll;
}

void CTalvorCacheStorage::FileSpaceManage(LPTALVORCRITICALSECTION lpCritSection, BYTE bFileType)
{
    if (m_pCacheModule == nullptr || m_pCacheModule->Flashback() == nullptr) return;
    LPBYTE lpZeros = nullptr;
    for (int n = 0; n < MAX_FILE_NUM; n++) {
        LPFILEINFO pFile = SweptFileOfKind((BYTE)n, bFileType);
        if (pFile == nullptr || pFile->m_pStorageFile == nullptr || pFile->m_pStorageFile->CheckSpace(pFile)) continue;
        if (lpZeros == nullptr) lpZeros = (LPBYTE)get_aligned_buffer(CACHEFLUSH_GROW_BUFFER);
        if (lpZeros == nullptr) return;
        pFile->m_pStorageFile->ChangeFileSize(lpCritSection, pFile, 0, 0, lpZeros, nullptr,
                                              pFile->m_liFileSize + CACHEFLUSH_GROW_SIZE, CACHEFLUSH_GROW_BUFFER,
                                              nullptr);
    }
    free(lpZeros);
}
