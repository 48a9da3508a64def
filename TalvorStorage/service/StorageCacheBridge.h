// StorageCacheBridge.h — what the shared cache needs of the storage
// module, handed to it without the cache library depending on the module:
// the file descriptors, the open mode, the flashback object, the system
// head, the disk-space warning and the two writers of the flushed-up-to
// timestamps.
#pragma once

#include "BreltMemStorage.h"
#include "TalvorCacheFlush.h"

class CStorageCacheBridge : public ITalvorCacheModule {
public:
    explicit CStorageCacheBridge(CBreltMemStorageModule* pModule) : m_pModule(pModule) {}

    // Any thread; reads the module's table unlocked, as the pipelines did
    // before they were split from it.
    LPFILEINFO FileOf(BYTE bFileNo) override;
    BYTE OpenFileUseBuffer() override;
    CTalvorFlashback* Flashback() override;
    LPFILEINFO FileList() override;
    LPSYSTEMFILEHEAD SystemHead() override;
    // The storage thread's disk-space warning, as for memory-mode files.
    void OnFileSpaceChange(BYTE bFileType, long long nFreeMiB) override;
    // A flush thread or the storage thread (a resize); takes the module's latch.
    void RecordFileSize(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long llSize,
                        BOOL bLoadSize) override;
    // The main thread's preload; takes the module's latch.
    void ShowLoadSize(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long llSize) override;
    // A flush thread; the module's writers take their own latches.
    HRESULT WriteCacheTableTimestamp(LPTALVORCRITICALSECTION lpCritSection, long long llTimestamp,
                                     LPBYTE lpTimestampBuf, int nTimestampNum) override;
    HRESULT WriteCacheIndexTimestamp(LPTALVORCRITICALSECTION lpCritSection, long long llTimestamp,
                                     LPBYTE lpTimestampBuf, int nTimestampNum) override;

private:
    CBreltMemStorageModule* m_pModule;
};
