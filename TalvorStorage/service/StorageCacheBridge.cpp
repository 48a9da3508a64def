// StorageCacheBridge.cpp — see StorageCacheBridge.h.
#include "StorageCacheBridge.h"

LPFILEINFO CStorageCacheBridge::FileOf(BYTE bFileNo) { return m_pModule->GetFileInfo(bFileNo); }

BYTE CStorageCacheBridge::OpenFileUseBuffer()
{
    LPSYSTEMFILEHEAD lpHead = m_pModule->GetSystemFileHead();
    return lpHead != nullptr ? lpHead->m_bOpenFileUseBuffer : 0;
}

CTalvorFlashback* CStorageCacheBridge::Flashback() { return m_pModule->GetFlashback(); }

LPFILEINFO CStorageCacheBridge::FileList() { return m_pModule->GetFileInfo(); }

LPSYSTEMFILEHEAD CStorageCacheBridge::SystemHead() { return m_pModule->GetSystemFileHead(); }

void CStorageCacheBridge::OnFileSpaceChange(BYTE bFileType, long long nFreeMiB)
{
    m_pModule->OnFileSpaceChange(bFileType, nFreeMiB);
}

void CStorageCacheBridge::RecordFileSize(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long llSize,
                                         BOOL bLoadSize)
{
    m_pModule->RecordCacheFileSize(lpCritSection, pFileInfo, llSize, bLoadSize);
}

void CStorageCacheBridge::ShowLoadSize(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long llSize)
{
    m_pModule->ShowCacheLoadSize(lpCritSection, pFileInfo, llSize);
}

HRESULT CStorageCacheBridge::WriteCacheTableTimestamp(LPTALVORCRITICALSECTION lpCritSection, long long llTimestamp,
                                                      LPBYTE lpTimestampBuf, int nTimestampNum)
{
    return m_pModule->WriteCacheTableTimestamp(lpCritSection, llTimestamp, lpTimestampBuf, nTimestampNum);
}

HRESULT CStorageCacheBridge::WriteCacheIndexTimestamp(LPTALVORCRITICALSECTION lpCritSection, long long llTimestamp,
                                                      LPBYTE lpTimestampBuf, int nTimestampNum)
{
    return m_pModule->WriteCacheIndexTimestamp(lpCritSection, llTimestamp, lpTimestampBuf, nTimestampNum);
}
