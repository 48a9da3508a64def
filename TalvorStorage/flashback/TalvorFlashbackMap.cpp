// TalvorFlashbackMap.cpp — the consistent view of a file's head and maps that
// the save pass works from: asked of the engine over the channel, or taken
// from the live image when no engine answers.
#include "TalvorFlashback.h"

#include "DbFileLayout.h"
#include "TalvorTrace.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

// m_nCycleTime waits for the engine's answer to command 3.
const int FILEHEAD_ANSWER_WAITS = 100;
// The system file's maps are refreshed in pieces of this size.
const int SYSTEMFILE_MAP_COPY = 0x40000;

} // namespace

void CTalvorFlashback::ChangeStandbyThread(BOOL bAdd)
{
    LPSTORAGEMEMHEAD lpHead = m_pStorageMemFileHead;
    if (lpHead == nullptr) return;
    if (bAdd)
        lpHead->m_bStandbyThreads = (BYTE)(lpHead->m_bStandbyThreads + 1);
    else if (lpHead->m_bStandbyThreads > 0)
        lpHead->m_bStandbyThreads = (BYTE)(lpHead->m_bStandbyThreads - 1);
}

long long CTalvorFlashback::FileHeadAnswerMs(int nCycleTime)
{
    int nCycle = nCycleTime > 0 ? nCycleTime : STORAGEMEM_CYCLETIME_MS;
    if (nCycle > FLASHBACK_CYCLE_MAX_MS) nCycle = FLASHBACK_CYCLE_MAX_MS;
    return (long long)FILEHEAD_ANSWER_WAITS * nCycle;
}

int CTalvorFlashback::RequestFileHead(LPTALVORCRITICALSECTION, BYTE bFileNo, long long nTimestamp)
{
    LPSTORAGEMEMHEAD lpHead = m_pStorageMemFileHead;
    lpHead->m_nResult = 0;
    lpHead->m_bFileNo = bFileNo;
    lpHead->m_nTimestamp = nTimestamp;
    // The command byte last: the engine reads the request once it sees it.
    TalvorStoreShared(&lpHead->m_bCommandType, PEERCMD_FLASHBACKHEAD);
    SetEvent(m_hFlashBackEvent);
    // A wait may end on a stale post: the command byte alone tells, and the
    // clock, not the number of waits, ends the wait.
    const long long nAnswerMs = FileHeadAnswerMs(lpHead->m_nCycleTime);
    // The engine writes its result and copy before it clears the byte.
    if (WaitEventUntil(m_hFlashBackFinishedEvent, nAnswerMs, (UINT)(nAnswerMs / FILEHEAD_ANSWER_WAITS),
                       [&] { return TalvorLoadShared(&lpHead->m_bCommandType) == PEERCMD_NONE; }))
        return lpHead->m_nResult;
    lpHead->m_nResult = PEERRESULT_TIMEOUT;
    TalvorStoreShared(&lpHead->m_bCommandType, PEERCMD_NONE);
    if (TalvorLoadShared(&lpHead->m_bService) == SERVICESTATE_RUNNING)
        TalvorStoreShared(&lpHead->m_bService, SERVICESTATE_LOST);
    return PEERRESULT_TIMEOUT;
}

void CTalvorFlashback::MapDataFromImage(LPFILEINFO pFileInfo, LPBYTE lpHeadBuf, int nHeadBufSize)
{
    LPBYTE lpImage = pFileInfo->m_pFileAddr;
    long long nImageSize = pFileInfo->m_liFileSize;
    LPBASEFILEHEAD lpLive = (LPBASEFILEHEAD)lpImage;
    TalvorStoreShared(&lpLive->m_bSaveFlag, 0);
    TalvorFlushCPU4Write();
    // The head size comes from the image: the copy is held to both buffers.
    long long nHeadSize = lpLive->m_nFileHeaderSize;
    if (nHeadSize > nHeadBufSize) nHeadSize = nHeadBufSize;
    if (nHeadSize > nImageSize) nHeadSize = nImageSize;
    if (nHeadSize < (long long)sizeof(BASEFILEHEAD)) nHeadSize = sizeof(BASEFILEHEAD);
    memcpy(lpHeadBuf, lpImage, (size_t)nHeadSize);
    ((LPBASEFILEHEAD)lpHeadBuf)->m_bSaveFlag = 0;

    BOOL bSystem = pFileInfo->m_bFileNo == SYSTEMFILE_FILENO;
    long long nMapSize = lpLive->m_nBlockMapSize;
    long long nHeaderSize = lpLive->m_nFileHeaderSize;
    long long nOffset = lpLive->m_nBlockMapStartOffset;
    if (nMapSize <= 0 || (!bSystem && nOffset < nHeaderSize)) return;
    long long nCopy = bSystem ? SYSTEMFILE_MAP_COPY : nMapSize;
    // A chain of map blocks read from the image may loop: no more map blocks
    // than the image can hold are followed.
    long long nMaxSteps = nImageSize / (nCopy > 0 ? nCopy : 1) + 1;
    for (long long nStep = 0; nOffset > 0 && nStep < nMaxSteps; nStep++) {
        long long nDistance = (bSystem && nStep > 0) ? SYSTEMFILE_MAP_COPY : nMapSize;
        // Both lengths come from an int of the head: their sum cannot wrap.
        if (!DbSpanFits(nOffset, nDistance + nCopy, nImageSize)) return;
        // A system head whose map size is below the fixed copy puts the slave
        // inside its own master: the copy would write over the live map the
        // engine works on. Such a head is damaged; its maps stay as they are.
        if (nDistance < nCopy) return;
        memcpy(lpImage + nOffset + nDistance, lpImage + nOffset, (size_t)nCopy);
        long long nNext = ((LPBASEFILEBLOCKMAPHEAD)(lpImage + nOffset))->m_nNextBlockMapOffset;
        if (!bSystem && nNext < nHeaderSize) return;
        nOffset = nNext;
    }
}

int CTalvorFlashback::FlashbackMapData(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo,
                                       long long nTimestamp, LPBYTE lpHeadBuf, int nHeadBufSize)
{
    if (pFileInfo == nullptr || pFileInfo->m_pFileAddr == nullptr || lpHeadBuf == nullptr) return 0;
    CTalvorCriticalSectionPtr guard(&m_crit, lpCritSection);
    LPSTORAGEMEMHEAD lpHead = m_pStorageMemFileHead;
    if (lpHead != nullptr && TalvorLoadShared(&lpHead->m_bService) == SERVICESTATE_RUNNING) {
        int nResult = RequestFileHead(lpCritSection, pFileInfo->m_bFileNo, nTimestamp);
        if (nResult == PEERRESULT_OK) {
            // The engine's copy is untrusted: its length must fit the data
            // area of the channel and the caller's buffer.
            long long nArea = (long long)lpHead->m_nFileTotalSize - lpHead->m_nFileDataOffset;
            if (lpHead->m_nFileDataOffset >= (int)sizeof(STORAGEMEMHEAD) && nArea >= (long long)sizeof(BASEFILEHEAD) &&
                lpHead->m_nFileTotalSize <= STORAGEMEM_SEGMENT_SIZE) {
                LPBYTE lpData = m_pStorageMemFileAddr + lpHead->m_nFileDataOffset;
                int nSize = ((LPBASEFILEHEAD)lpData)->m_nFileHeaderSize;
                if (nSize >= (int)sizeof(BASEFILEHEAD) && nSize <= nArea && nSize <= nHeadBufSize) {
                    memcpy(lpHeadBuf, lpData, (size_t)nSize);
                    return 0;
                }
            }
            nResult = EINVAL;
        }
        if (nResult == PEERRESULT_NOTHINGTOSAVE) return FLASHBACK_NOTHINGTOSAVE;
        if (nResult == PEERRESULT_TIMEOUT)
            Trace("FlashbackMapData", 1, 50002001,
                  TALVOR_TEXT("备份映射表超时,服务可能已关闭,重启前将直接使用主映射表数据持久化,可能保存错误的数据,错误码:%d,文件号:%d",
                              "Backup mapping table was timeout, and the Server may have been closed, the Server will directly use the main mapping table data for persistence before restart, may be saved to the wrong data, error code: %d, file number: %d"),
                  nResult, pFileInfo->m_bFileNo);
        else
            Trace("FlashbackMapData", 1, 50002002,
                  TALVOR_TEXT("备份映射表失败,将直接使用主映射表数据持久化,可能保存错误的数据,错误码:%d,文件号:%d",
                              "Backup mapping table failed, the main mapping table data will be directly used for persistence, which may be saved to the wrong data, error code: %d, file number: %d"),
                  nResult, pFileInfo->m_bFileNo);
    }
    MapDataFromImage(pFileInfo, lpHeadBuf, nHeadBufSize);
    return 0;
}
