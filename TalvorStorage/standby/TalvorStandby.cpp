// TalvorStandby.cpp — a standby connection and the thread that holds it.
#include "TalvorStandby.h"

#include "TalvorTrace.h"

#include <arpa/inet.h>
#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// How often the thread looks at its stop flags while the connection is
// quiet.
const int STANDBY_POLL_MS = 100;
// Reset waits this long for the thread to take note.
const int RESET_POLLS = 200;
const int RESET_POLL_US = 16000;
const int PUBLISH_WAITS = 10000;

} // namespace

CTalvorStandby::CTalvorStandby()
    : m_pMemoryFileHead(nullptr), m_skSocket(-1), m_ulIP(0), m_ulLocalIP(0), m_nRedoLogNo(0), m_nResetRedoLogNo(1),
      m_usPort(0), m_bRandomFactor(0), m_bExit(FALSE), m_bPublished(FALSE), m_hWorkThread(0), m_pStorageModule(nullptr)
{
}

CTalvorStandby::~CTalvorStandby()
{
    if (m_skSocket >= 0) close(m_skSocket);
    m_skSocket = -1;
}

int CTalvorStandby::ConnectNode(UINT ulIP, USHORT usPort, int nTimeOut)
{
    int sk = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (sk < 0) return -1;
    struct sockaddr_in stAddr = {};
    stAddr.sin_family = AF_INET;
    stAddr.sin_port = htons(usPort);
    stAddr.sin_addr.s_addr = htonl(ulIP);
    int nFlags = fcntl(sk, F_GETFL, 0);
    fcntl(sk, F_SETFL, nFlags | O_NONBLOCK);
    int rc = connect(sk, (struct sockaddr*)&stAddr, sizeof(stAddr));
    if (rc != 0 && errno == EINPROGRESS) {
        struct pollfd stPoll = {sk, POLLOUT, 0};
        rc = poll(&stPoll, 1, nTimeOut * 1000) == 1 ? 0 : -1;
        int nError = 0;
        socklen_t nLen = sizeof(nError);
        if (rc == 0 && (getsockopt(sk, SOL_SOCKET, SO_ERROR, &nError, &nLen) != 0 || nError != 0)) rc = -1;
    }
    if (rc != 0) {
        close(sk);
        return -1;
    }
    fcntl(sk, F_SETFL, nFlags);
    int nOn = 1;
    setsockopt(sk, IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof(nOn));
    return sk;
}

int CTalvorStandby::Initialize(ITalvorStandbyOwner* pOwner, LPSYSTEMFILEHEAD pMemoryFileHead, UINT ulIP,
                               USHORT usPort, UINT ulLocalIP, UINT)
{
    m_pStorageModule = pOwner;
    m_pMemoryFileHead = pMemoryFileHead;
    m_ulIP = ulIP;
    m_usPort = usPort;
    m_ulLocalIP = ulLocalIP;
    m_skSocket = ConnectNode(ulIP, usPort, STANDBY_CONNECT_TIMEOUT_S);
    if (m_skSocket < 0) {
        Trace("Initialize", 1, 70001001,
              TALVOR_TEXT("连接备用节点失败,地址:%u.%u.%u.%u,端口:%d", "Failed to connect to the standby node, address: %u.%u.%u.%u, port: %d"),
              ulIP >> 24, (ulIP >> 16) & 0xFF, (ulIP >> 8) & 0xFF, ulIP & 0xFF, (int)usPort);
        return STANDBYINIT_CONNECTFAILED;
    }
    // Detached: the thread destroys the object itself, through its owner.
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) return STANDBYINIT_THREADFAILED;
    pthread_attr_setstacksize(&attr, (size_t)g_nThreadStackSize);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    int rc = pthread_create(&m_hWorkThread, &attr, WorkThread, this);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        m_hWorkThread = 0;
        return STANDBYINIT_THREADFAILED;
    }
    return STANDBYINIT_OK;
}

void CTalvorStandby::Publish() { TalvorStoreShared(&m_bPublished, TRUE); }

int CTalvorStandby::Uninitialize()
{
    TalvorStoreShared(&m_bExit, TRUE);
    return 0;
}

int CTalvorStandby::Reset()
{
    if (TalvorLoadShared(&m_bExit)) return 1;
    TalvorStoreShared(&m_nResetRedoLogNo, 0U);
    for (int i = 0; i < RESET_POLLS; i++) {
        if (TalvorLoadShared(&m_nResetRedoLogNo) != 0) return 0;
        usleep(RESET_POLL_US);
    }
    TalvorStoreShared(&m_bExit, TRUE);
    return 1;
}

int CTalvorStandby::GetServerInfo(UINT& ulIP, USHORT& usPort)
{
    ulIP = m_ulIP;
    usPort = m_usPort;
    return 0;
}

BOOL CTalvorStandby::StopAsked()
{
    return TalvorLoadShared(&m_bExit) || (m_pStorageModule != nullptr && m_pStorageModule->GetExitFlag());
}

void CTalvorStandby::Work()
{
    char szDiscard[4096];
    // The owner publishes right after a successful Initialize; the bound
    // only keeps a lost publication from holding the thread for ever.
    for (int i = 0; i < PUBLISH_WAITS && !TalvorLoadShared(&m_bPublished); i++) usleep(1000);
    while (!StopAsked()) {
        // A reset finds a live connection: take note.
        if (TalvorLoadShared(&m_nResetRedoLogNo) == 0) TalvorStoreShared(&m_nResetRedoLogNo, 1U);
        struct pollfd stPoll = {m_skSocket, POLLIN, 0};
        int rc = poll(&stPoll, 1, STANDBY_POLL_MS);
        if (rc < 0 && errno != EINTR) break;
        if (rc <= 0) continue;
        ssize_t nRead = recv(m_skSocket, szDiscard, sizeof(szDiscard), MSG_DONTWAIT);
        if (nRead == 0 || (nRead < 0 && errno != EAGAIN && errno != EINTR)) break;
    }
    close(m_skSocket);
    m_skSocket = -1;
}

void* CTalvorStandby::WorkThread(void* lpParam)
{
    CTalvorStandby* pStandby = (CTalvorStandby*)lpParam;
    pStandby->Work();
    ITalvorStandbyOwner* pOwner = pStandby->m_pStorageModule;
    if (pOwner != nullptr)
        pOwner->ReleaseStandby(pStandby);
    else
        delete pStandby;
    return nullptr;
}
