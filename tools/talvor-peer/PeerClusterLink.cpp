// PeerClusterLink.cpp — the command record of the channel, from the
// engine's side: send, wait for the final value, look, take the answer.
#include "PeerCluster.h"

#include "ShareMemory.h"

#include <arpa/inet.h>
#include <cstdio>
#include <ctime>
#include <sys/shm.h>
#include <unistd.h>

namespace talvorpeer {

namespace {

const UINT POLL_MS = 1;

void* AttachSegment(key_t nKey)
{
    int nId = shmget(nKey, 0, 0);
    if (nId < 0) return nullptr;
    void* p = shmat(nId, nullptr, 0);
    return p == (void*)-1 ? nullptr : p;
}

} // namespace

CPeerClusterLink::~CPeerClusterLink()
{
    if (m_lpChannel != nullptr) shmdt(m_lpChannel);
}

bool CPeerClusterLink::Attach(int nWaitMs)
{
    long long nEnd = TalvorMonotonicMs() + nWaitMs;
    do {
        m_lpChannel = (LPSTORAGEMEMHEAD)AttachSegment(SHMKEY_STORAGEMEM);
        if (m_lpChannel != nullptr) break;
        usleep(10000);
    } while (TalvorMonotonicMs() < nEnd);
    if (m_lpChannel == nullptr) return false;
    HEVENTTYPE hStorage = CreateEventSem(nullptr, SEMNAME_STORAGEEVENT);
    // Without the event the daemon still finds the command at its next poll.
    m_hStorage = CreateEventSemSuccess(hStorage) ? hStorage : nullptr;
    return true;
}

bool CPeerClusterLink::Busy()
{
    BYTE bCode = TalvorLoadShared(&Command()->m_bCommandType);
    return bCode != CLUSTERCMD_NONE && bCode != CLUSTERCMD_FINISHED;
}

bool CPeerClusterLink::WithHead(const std::function<void(LPSYSTEMFILEHEAD)>& fnLook)
{
    void* p = AttachSegment(FileImageShmKey(SYSTEMFILE_FILENO));
    if (p == nullptr) return false;
    fnLook((LPSYSTEMFILEHEAD)p);
    shmdt(p);
    return true;
}

void CPeerClusterLink::Send(const ClusterArgs& args)
{
    LPTALVORCOMMAND lpCmd = Command();
    lpCmd->m_ulIP = args.m_ulIP;
    lpCmd->m_ulLocalIP = args.m_ulLocalIP;
    lpCmd->m_nTimestamp = args.m_nTimestamp;
    lpCmd->m_nTimestamp2 = args.m_nTimestamp2;
    lpCmd->m_nLogNo = args.m_nLogNo;
    lpCmd->m_nLogPos = args.m_nLogPos;
    lpCmd->m_usPort = args.m_usPort;
    lpCmd->m_bLevel = args.m_bLevel;
    lpCmd->m_bAbort = 0;
    lpCmd->m_bResult = CLUSTER_RESULT_UNSET;
    if (args.m_bHeadForbid) WithHead([](LPSYSTEMFILEHEAD lpHead) { TalvorStoreShared(&lpHead->m_bForbidSaveFlag, 1); });
    // The flag is the engine's to raise; a command sent without it leaves
    // the flag as it stands (after 16 it is up until the rebuild clears it).
    if (args.m_bForbid) TalvorStoreShared(&lpCmd->m_bForbidSaveFlag, 1);
    // The arguments are in before the daemon can see the code.
    TalvorStoreShared(&lpCmd->m_bCommandType, args.m_bCode);
    if (m_hStorage != nullptr) SetEvent(m_hStorage);
}

bool CPeerClusterLink::WaitUntil(const std::function<bool()>& fnDone, int nWaitMs)
{
    return WaitEventUntil(nullptr, nWaitMs, POLL_MS, fnDone);
}

bool CPeerClusterLink::WaitFor(BYTE bFinal, int nWaitMs, const std::function<void()>& fnTick)
{
    return WaitUntil(
        [&] {
            if (TalvorLoadShared(&Command()->m_bCommandType) == bFinal) return true;
            if (fnTick) fnTick();
            return false;
        },
        nWaitMs);
}

ClusterState CPeerClusterLink::Look()
{
    ClusterState st;
    LPTALVORCOMMAND lpCmd = Command();
    st.m_nCode = TalvorLoadShared(&lpCmd->m_bCommandType);
    st.m_nResult = TalvorLoadShared(&lpCmd->m_bResult);
    st.m_nCmdForbid = TalvorLoadShared(&lpCmd->m_bForbidSaveFlag);
    st.m_nStatus = TalvorLoadShared(&Progress()->m_nStatus);
    st.m_nStandby = TalvorLoadShared(&m_lpChannel->m_bStandbyThreads);
    st.m_nBackupTimestamp = TalvorLoadShared(&m_lpChannel->m_nBackupTimestamp);
    WithHead([&](LPSYSTEMFILEHEAD lpHead) { st.m_nHeadForbid = TalvorLoadShared(&lpHead->m_bForbidSaveFlag); });
    return st;
}

void CPeerClusterLink::TakeAnswer()
{
    TalvorStoreShared(&Command()->m_bCommandType, CLUSTERCMD_NONE);
}

std::string DescribeClusterState(const ClusterState& st)
{
    char sz[256];
    snprintf(sz, sizeof(sz), "final=%d result=%d cmd_forbid=%d head_forbid=%d status=%d standby=%d backup_ts=%lld",
             st.m_nCode, st.m_nResult, st.m_nCmdForbid, st.m_nHeadForbid, st.m_nStatus, st.m_nStandby,
             st.m_nBackupTimestamp);
    return sz;
}

int ClusterFinalOf(BYTE bCode)
{
    switch (bCode) {
    case CLUSTERCMD_ADDSTANDBY:
    case CLUSTERCMD_REMOVESTANDBY:
    case CLUSTERCMD_FULLBACKUP:
    case CLUSTERCMD_INCREMENTBACKUP:
    case CLUSTERCMD_RESTORE:
        return CLUSTERCMD_FINISHED;
    case CLUSTERCMD_ADDNODE_FROMLOG:
    case CLUSTERCMD_ADDNODE:
    case CLUSTERCMD_CLEARRESOURCE:
    case CLUSTERCMD_REBUILDRESOURCE:
    case CLUSTERCMD_WRITEUNDOCACHE:
    case CLUSTERCMD_TESTSPEED:
        return CLUSTERCMD_NONE;
    default:
        return CLUSTER_NO_FINAL;
    }
}

bool ParseHostOrderIP(const std::string& strText, UINT& ulIP)
{
    struct in_addr stAddr;
    if (inet_pton(AF_INET, strText.c_str(), &stAddr) != 1) return false;
    ulIP = ntohl(stAddr.s_addr);
    return true;
}

} // namespace talvorpeer
