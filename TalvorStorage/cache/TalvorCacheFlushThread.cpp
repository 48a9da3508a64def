// TalvorCacheFlushThread.cpp — the two flush threads: their semaphores,
// their start, the backends they make for the files of their type, and
// their end at Free.
#include "TalvorCacheFlush.h"

#include "CrashContainment.h"
#include "TalvorCacheStorage.h"
#include "TalvorFileStorage.h"
#include "TalvorTrace.h"

#include <cstdlib>
#include <new>

namespace {

struct FlushThreadContext {
    CTalvorCacheStorage* pCache;
    const CacheFlushKind* pKind;
};

void FlushThreadBody(void* lpContext, LPTALVORCRITICALSECTION lpCritSection);

void* RunFlushThread(LPTALVORTHREADENTRY pEntry, void* lpParam, const CacheFlushKind& kind)
{
    CTalvorCacheStorage* pCache = (CTalvorCacheStorage*)lpParam;
    if (pCache == nullptr) return nullptr;
    FlushThreadContext stCtx = {pCache, &kind};
    HTHREADTYPE* pHandle = kind.bIndex ? &pCache->m_hStorageIndexFlushThread : &pCache->m_hStorageFlushThread;
    // A fault leaves only the loop's work buffer behind; the thread's
    // restart makes a new one.
    TalvorRunContained(pEntry, lpParam, pHandle, FlushThreadBody, nullptr, &stCtx);
    return nullptr;
}

HEVENTTYPE OpenFlushEvent(const char* lpszName)
{
    HEVENTTYPE h = CreateEventSem(nullptr, lpszName);
    if (!CreateEventSemSuccess(h))
        Trace("CreateEventAndThread", 1, 60001010,
              TALVOR_TEXT("创建信号量失败:%s", "Failed to create semaphore: %s"), lpszName);
    return h;
}

} // namespace

int CTalvorCacheStorage::CreateBackendsFor(LPTALVORCRITICALSECTION lpCritSection, const CacheFlushKind& kind)
{
    CTalvorFlashback* pFlashback = m_pCacheModule->Flashback();
    for (int n = 0; n < MAX_FILE_NUM; n++) {
        LPFILEINFO pFile = FileOfKind((BYTE)n, kind.bFileType);
        if (pFile == nullptr || pFile->m_pStorageFile != nullptr) continue;
        CTalvorFileStorage* pStorage = new (std::nothrow) CTalvorFileStorage(this);
        int nRet = pStorage == nullptr ? -1 : pStorage->Initialize(lpCritSection, pFile, 0, pFlashback, nullptr, 0,
                                                                     OpenFileUseBuffer());
        if (nRet == 0) {
            // Published whole: the main thread that sees it reads the heads
            // and pages Initialize put into the cache.
            TalvorStoreShared(&pFile->m_pStorageFile, pStorage);
            continue;
        }
        Trace(kind.lpszThread, 1, pStorage == nullptr ? kind.nNoObjectCode : kind.nInitFailCode,
              TALVOR_TEXT("初始化文件操作实例失败,错误码:%d", "Failed to initialize file operation instance, error code: %d"),
              nRet);
        delete pStorage;
        // The start gives up on this.
        TalvorStoreShared(&m_bExit, 1);
        return 1;
    }
    return 0;
}

namespace {

void FlushThreadBody(void* lpContext, LPTALVORCRITICALSECTION lpCritSection)
{
    FlushThreadContext* pCtx = (FlushThreadContext*)lpContext;
    const CacheFlushKind& kind = *pCtx->pKind;
    CTalvorCacheStorage* pCache = pCtx->pCache;
    Trace(kind.lpszThread, 3, kind.nThreadCode, "%s thread started!", kind.lpszThread);
    if (pCache->m_pCacheModule == nullptr) return;
    if (pCache->CreateBackendsFor(lpCritSection, kind) != 0) return;
    if (kind.bIndex)
        pCache->StorageIndexFlush(lpCritSection);
    else
        pCache->StorageFlush(lpCritSection);
    Trace(kind.lpszThread, 3, kind.nThreadCode, "%s thread closed!", kind.lpszThread);
}

} // namespace

void* CTalvorCacheStorage::StorageFlushThread(LPVOID lpParam)
{
    return RunFlushThread(StorageFlushThread, lpParam, g_stTableFlushKind);
}

void* CTalvorCacheStorage::StorageIndexFlushThread(LPVOID lpParam)
{
    return RunFlushThread(StorageIndexFlushThread, lpParam, g_stIndexFlushKind);
}

int CTalvorCacheStorage::CreateEventAndThread()
{
    if (m_pCacheModule == nullptr || m_pCacheBufferHead == nullptr) return E_FAIL;
    m_hStorageFlush = OpenFlushEvent(SEMNAME_STORAGEFLUSHEVENT);
    m_hStorageIndexFlush = OpenFlushEvent(SEMNAME_STORAGEINDEXFLUSHEVENT);
    m_hCacheFlush = OpenFlushEvent(SEMNAME_CACHEFLUSHEVENT);
    m_hCacheIndexFlush = OpenFlushEvent(SEMNAME_CACHEINDEXFLUSHEVENT);
    if (m_hStorageFlush == nullptr || m_hStorageIndexFlush == nullptr || m_hCacheFlush == nullptr ||
        m_hCacheIndexFlush == nullptr)
        return E_FAIL;
    TalvorStoreShared(&m_bExit, 0);
    int nRet = CreateJoinableThread(&m_hStorageFlushThread, StorageFlushThread, this);
    if (nRet == 0) nRet = CreateJoinableThread(&m_hStorageIndexFlushThread, StorageIndexFlushThread, this);
    if (nRet == 0) return S_OK;
    Trace("CreateEventAndThread", 1, 60001011,
          TALVOR_TEXT("创建缓存刷新线程失败,错误码:%d", "Failed to create a cache flush thread, error code: %d"), nRet);
    return E_FAIL;
}

int CTalvorCacheStorage::Exit()
{
    TalvorStoreShared(&m_bExit, 1);
    return 0;
}

int CTalvorCacheStorage::Free()
{
    TalvorStoreShared(&m_bExit, 1);
    // The semaphores only shorten the threads' waits.
    if (m_hCacheFlush != nullptr) SetEvent(m_hCacheFlush);
    if (m_hCacheIndexFlush != nullptr) SetEvent(m_hCacheIndexFlush);
    HTHREADTYPE* arThreads[] = {&m_hStorageFlushThread, &m_hStorageIndexFlushThread};
    for (HTHREADTYPE* pThread : arThreads) {
        if (*pThread == 0) continue;
        if (TalvorWaitForSingleThread(*pThread, CACHEFLUSH_JOIN_MS) != WAIT_OBJECT_0)
            Trace("Free", 1, 60001012,
                  TALVOR_TEXT("等待缓存刷新线程结束超时", "Timed out waiting for a cache flush thread to end"));
        *pThread = 0;
    }
    StopLoadThreads();
    HEVENTTYPE* arEvents[] = {&m_hStorageFlush, &m_hStorageIndexFlush, &m_hCacheFlush, &m_hCacheIndexFlush};
    for (HEVENTTYPE* pEvent : arEvents) CloseEvent(*pEvent);
    return 0;
}
