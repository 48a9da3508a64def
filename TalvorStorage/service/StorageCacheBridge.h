// StorageCacheBridge.h — what the cache's flush pipelines need of the
// storage module, handed to them without the cache library depending on the
// module: the file descriptors, the open mode, the flashback object and the
// two writers of the flushed-up-to timestamps.
#pragma once

#include "BreltMemStorage.h"
#include "TalvorCacheFlush.h"

class CStorageCacheBridge : public ITalvorCacheFlushModule {
public:
    explicit CStorageCacheBridge(CBreltMemStorageModule* pModule) : m_pModule(pModule) {}

    // Any thread; reads the module's table unlocked, as the pipelines did
    // before they were split from it.
    LPFILEINFO FileOf(BYTE bFileNo) override;
    BYTE OpenFileUseBuffer() override;
    CTalvorFlashback* Flashback() override;
    // A flush thread; the module's writers take their own latches.
    HRESULT WriteCacheTableTimestamp(LPTALVORCRITICALSECTION lpCritSection, long long llTimestamp,
                                     LPBYTE lpTimestampBuf, int nTimestampNum) override;
    HRESULT WriteCacheIndexTimestamp(LPTALVORCRITICALSECTION lpCritSection, long long llTimestamp,
                                     LPBYTE lpTimestampBuf, int nTimestampNum) override;

private:
    CBreltMemStorageModule* m_pModule;
};
