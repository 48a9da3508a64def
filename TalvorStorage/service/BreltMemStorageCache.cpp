// BreltMemStorageCache.cpp — the module's hold on the shared block cache:
// making it at start and letting it go at the end.
#include "BreltMemStorage.h"

#include "StorageCacheBridge.h"
#include "TalvorCacheStorage.h"
#include "TalvorTrace.h"

#include <cassert>
#include <cerrno>
#include <new>
#include <unistd.h>

namespace {

// At or below this size (MiB) no cache-mode file keeps write buffers.
const int CACHE_BUFFERED_ABOVE_MB = 256;

}  // namespace

HRESULT CBreltMemStorageModule::CreateCache(LPSYSTEMFILEHEAD lpHead, LPTALVORPROGRESS lpTalvorProgress)
{
    assert(lpHead != nullptr);
    if (lpHead->m_nTalvorBufferCacheSize == 0 || m_pTalvorCacheStorage != nullptr) return S_OK;
    // Buffered writes only pay in a large cache, and never when every open
    // is asked to go through the page cache anyway.
    BOOL bFileCache = m_nFileCache != 0 ? TRUE : FALSE;
    if (lpHead->m_bOpenFileUseBuffer == 1 || lpHead->m_nTalvorBufferCacheSize <= CACHE_BUFFERED_ABOVE_MB)
        bFileCache = FALSE;
    m_pTalvorCacheStorage = new (std::nothrow) CTalvorCacheStorage();
    m_pCacheBridge = new (std::nothrow) CStorageCacheBridge(this);
    if (m_pTalvorCacheStorage == nullptr || m_pCacheBridge == nullptr) {
        Trace("InitSysEnvironment", 1, 10020002,
              TALVOR_TEXT("创建共享缓存失败,错误码:%d", "Failed to create the shared cache, error code: %d"), ENOMEM);
        return E_FAIL;
    }
    m_pTalvorCacheStorage->SetCacheModule(m_pCacheBridge);
    m_pTalvorCacheStorage->m_pLoadProgress = lpTalvorProgress;
    if (m_pTalvorCacheStorage->Initialize(SHMNAME_CACHEBUFFER, lpHead->m_nTalvorBufferCacheSize, m_nLRUPercent, this,
                                          bFileCache) != 0)
        return E_FAIL;
    return S_OK;
}

void CBreltMemStorageModule::ReleaseCache()
{
    if (m_pTalvorCacheStorage != nullptr) {
        m_pTalvorCacheStorage->Free();
        usleep(1000);
        // A cache taken over whole holds the engine's changed blocks that
        // are not on disk yet; a start that failed hands it on unchanged.
        if (!m_bServing && m_pTalvorCacheStorage->m_bExists) {
            m_pTalvorCacheStorage->KeepSegmentOnRelease();
            Trace0("FreeData", 2, 10010008,
                   TALVOR_TEXT("启动失败,保留上次运行留下的共享缓存", "The start failed: the shared cache an earlier run left is kept for the next start"));
        }
        delete m_pTalvorCacheStorage;
        m_pTalvorCacheStorage = nullptr;
    }
    delete m_pCacheBridge;
    m_pCacheBridge = nullptr;
}
