// TalvorCacheStorage.cpp — the cache object's life: construction, the stop
// request, and the entry points whose threads come with the next piece.
#include "TalvorCacheStorage.h"

#include "ShareMemory.h"

#include <cstring>

namespace {
const int CACHE_THREAD_WAIT_MS = 1000;
}

CTalvorCacheStorage::CTalvorCacheStorage()
    : m_hStorageFlush(nullptr), m_hStorageIndexFlush(nullptr), m_hCacheFlush(nullptr), m_hCacheIndexFlush(nullptr),
      m_hCacheBufferFile(0), m_hStorageFlushThread(0), m_hStorageIndexFlushThread(0),
      m_nWaitTime(CACHE_THREAD_WAIT_MS), m_pStorage(nullptr), m_bExists(FALSE), m_bFileCache(FALSE),
      m_llCacheBufferSize(0), m_pCacheBufferAddr(nullptr), m_pCacheBufferHead(nullptr), m_pCacheFlush(nullptr),
      m_pCacheIndexFlush(nullptr), m_pFlushFile(nullptr), m_pFlushTimestampFile(nullptr), m_nFIFOSize(0),
      m_nCacheFlashBackSize(CACHE_FLASHBACK_SIZE), m_lpOpenFileInfo(nullptr), m_nFreeNo(0), m_bTrunkIndex(0),
      m_bLeaveIndex(0), m_bPauseFileNo(0), m_bExit(0), m_nTrunkFreeNo(0), m_nMetaFreeNo(0), m_nLeaveFreeNo(0),
      m_pCacheModule(nullptr)
{
    memset(m_stFileLoadInfo, 0, sizeof(m_stFileLoadInfo));
    memset(&m_layout, 0, sizeof(m_layout));
    InitializeCriticalTalvor(&m_crit);
    TalvorSetLatchRank(&m_crit, LATCHRANK_CACHEOPEN);
    InitializeCriticalTalvor(&m_csCache);
    TalvorSetLatchRank(&m_csCache, LATCHRANK_CACHECHAIN);
}

CTalvorCacheStorage::~CTalvorCacheStorage()
{
    Free();
    Detach();
    if (m_hCacheBufferFile > 0) CShareMemory::DestoryShareMemory(m_hCacheBufferFile);
    DeleteCriticalTalvor(&m_csCache);
    DeleteCriticalTalvor(&m_crit);
}

