// TalvorCacheStorage.cpp — the cache's entry points. The cache itself is not
// built yet; a module never creates this object, so these are never reached.
#include "TalvorCacheStorage.h"

HRESULT CTalvorCacheStorage::CreateEventAndThread() { return E_FAIL; }

HRESULT CTalvorCacheStorage::InitCacheHead(LPTALVORCRITICALSECTION) { return E_FAIL; }

int CTalvorCacheStorage::FlushFileBlock(LPTALVORCRITICALSECTION) { return 1; }

void CTalvorCacheStorage::Free() {}
