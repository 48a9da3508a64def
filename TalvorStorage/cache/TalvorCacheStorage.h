// TalvorCacheStorage.h — the shared block cache of cache-mode files.
//
// Until the cache is built, no object of this class is created: a database
// whose files are all memory-mode never needs one.
#pragma once

#include "LinuxCommonAPI.h"
#include "TypeDef.h"

class CTalvorCacheStorage {
public:
    virtual ~CTalvorCacheStorage() {}
    // Every buffer of a direct transfer: 512-aligned, released with free().
    static void* get_aligned_buffer(size_t nSize) { return ::get_aligned_buffer(nSize); }

    HRESULT CreateEventAndThread();
    HRESULT InitCacheHead(LPTALVORCRITICALSECTION lpCritSection);
    int FlushFileBlock(LPTALVORCRITICALSECTION lpCritSection);
    void Free();
};
