// PeerChannel.cpp — the engine's side of the channel area and of the file
// images: attaching them, waiting for the daemon's readiness, and answering
// the daemon's requests (command 3: a consistent head and fresh slave maps;
// command 32: a sign of life).
#include "PeerData.h"

#include "DbFileLayout.h"

#include "ShareMemory.h"

#include <cstring>
#include <sys/shm.h>
#include <unistd.h>

namespace talvorpeer {

namespace {

LPBYTE AttachKey(key_t nKey, long long* pnSize)
{
    int nId = shmget(nKey, 0, 0);
    if (nId < 0) return nullptr;
    struct shmid_ds ds;
    if (shmctl(nId, IPC_STAT, &ds) != 0) return nullptr;
    void* p = shmat(nId, nullptr, 0);
    if (p == (void*)-1) return nullptr;
    if (pnSize != nullptr) *pnSize = (long long)ds.shm_segsz;
    return (LPBYTE)p;
}

// What the daemon does without an engine, done by the engine: between two
// of its transactions the master maps are the state as of its last commit.
void RefreshSlaveMaps(LPBYTE lpImage, long long nSize, bool bSystem)
{
    LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)lpImage;
    long long nMapSize = lpHead->m_nBlockMapSize;
    long long nOffset = lpHead->m_nBlockMapStartOffset;
    long long nCopy = bSystem ? 0x40000 : nMapSize;
    for (int nStep = 0; nOffset > 0 && nMapSize > 0 && nStep < 4096; nStep++) {
        long long nDistance = (bSystem && nStep > 0) ? 0x40000 : nMapSize;
        if (!DbSpanFits(nOffset, nDistance + nCopy, nSize)) return;
        memcpy(lpImage + nOffset + nDistance, lpImage + nOffset, (size_t)nCopy);
        long long nNext = ((LPBASEFILEBLOCKMAPHEAD)(lpImage + nOffset))->m_nNextBlockMapOffset;
        if (!bSystem && nNext < lpHead->m_nFileHeaderSize) return;
        nOffset = nNext;
    }
}

} // namespace

bool CPeerEngine::Attach(int nWaitMs)
{
    for (int i = 0; i <= nWaitMs; i += 10) {
        if (m_lpChannel == nullptr) m_lpChannel = (LPSTORAGEMEMHEAD)AttachKey(SHMKEY_STORAGEMEM, nullptr);
        if (m_lpSystem == nullptr) m_lpSystem = AttachKey(FileImageShmKey(SYSTEMFILE_FILENO), &m_nSystemSize);
        if (m_lpChannel != nullptr && m_lpSystem != nullptr && StatusReady() && TalvorLoadShared(&Head()->m_bStatus) == 0) break;
        usleep(10000);
    }
    if (m_lpChannel == nullptr || m_lpSystem == nullptr || !StatusReady()) return false;
    m_hRequest = CreateEventSem(nullptr, SEMNAME_FLASHBACKEVENT);
    m_hDone = CreateEventSem(nullptr, SEMNAME_FLASHBACKEND);
    m_hStorage = CreateEventSem(nullptr, SEMNAME_STORAGEEVENT);
    m_arImages[SYSTEMFILE_FILENO] = m_lpSystem;
    m_arSizes[SYSTEMFILE_FILENO] = m_nSystemSize;
    DbForEachFileListRow(m_lpSystem, m_nSystemSize, [&](LPSYSTEMBLOCKHEAD, LPFILE_MEMDBFILEINFO lpRow) {
        BYTE bType = lpRow->m_bFileType;
        if (lpRow->m_bDropFlag == 1 || bType < FILETYPE_DATA || bType > FILETYPE_KVINDEX) return true;
        long long nSize = 0;
        LPBYTE lpImage = AttachKey(FileImageShmKey(lpRow->m_bFileNo), &nSize);
        if (lpImage == nullptr) return true;
        m_arImages[lpRow->m_bFileNo] = lpImage;
        m_arSizes[lpRow->m_bFileNo] = nSize;
        m_vFiles.push_back(lpRow->m_bFileNo);
        return true;
    });
    return true;
}

bool CPeerEngine::StatusReady()
{
    int nStatus = TalvorLoadShared(&m_lpChannel->m_TalvorProgress.m_nStatus);
    return nStatus == 2 || (m_bHeadReady && TalvorLoadShared(&Head()->m_bStatus) == 0);
}

void CPeerEngine::SetLive(bool bLive)
{
    if (m_lpChannel == nullptr) return;
    TalvorStoreShared(&m_lpChannel->m_bService, bLive ? SERVICESTATE_RUNNING : SERVICESTATE_STOPPED);
}

void CPeerEngine::Answer(int nResult)
{
    m_lpChannel->m_nResult = nResult;
    TalvorStoreShared(&m_lpChannel->m_bCommandType, PEERCMD_NONE);
    SetEvent(m_hDone);
    m_nAnswers++;
}

void CPeerEngine::ServeChannel()
{
    if (m_lpChannel == nullptr) return;
    BYTE bCommand = TalvorLoadShared(&m_lpChannel->m_bCommandType);
    if (bCommand == PEERCMD_HEARTBEAT) {
        Answer(0);
        return;
    }
    if (bCommand != PEERCMD_FLASHBACKHEAD) return;
    if (m_nNothingToSavePct > 0) {
        m_nRandom = m_nRandom * 6364136223846793005ULL + 1442695040888963407ULL;
        if ((int)((m_nRandom >> 33) % 100) < m_nNothingToSavePct) {
            m_nNothingToSave++;
            Answer(PEERRESULT_NOTHINGTOSAVE);
            return;
        }
    }
    BYTE bFileNo = m_lpChannel->m_bFileNo;
    LPBYTE lpImage = m_arImages[bFileNo];
    if (lpImage == nullptr) {
        Answer(5);  // not a file of ours: the daemon falls back to the image
        return;
    }
    LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)lpImage;
    long long nArea = (long long)m_lpChannel->m_nFileTotalSize - m_lpChannel->m_nFileDataOffset;
    int nHeadSize = lpHead->m_nFileHeaderSize;
    if (nHeadSize <= 0 || nHeadSize > nArea || nHeadSize > m_arSizes[bFileNo]) {
        Answer(6);
        return;
    }
    TalvorStoreShared(&lpHead->m_bSaveFlag, 0);
    RefreshSlaveMaps(lpImage, m_arSizes[bFileNo], bFileNo == SYSTEMFILE_FILENO);
    LPBYTE lpData = (LPBYTE)m_lpChannel + m_lpChannel->m_nFileDataOffset;
    memcpy(lpData, lpImage, (size_t)nHeadSize);
    ((LPBASEFILEHEAD)lpData)->m_bSaveFlag = 0;
    Answer(0);
}

} // namespace talvorpeer
