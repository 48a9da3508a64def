// TalvorNodeLink.cpp — token, bounded connect and hello shared by the
// standby threads and the join of a new node.
#include "TalvorNodeLink.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <uuid/uuid.h>

namespace {

const int CONNECT_SLICE_MS = 100;

} // namespace

BYTE NodeNewToken(BYTE bLast)
{
    BYTE bToken = 0;
    do {
        uuid_t id;
        uuid_generate(id);
        bToken = id[0];
    } while (bToken == 0 || bToken == bLast);
    return bToken;
}

int NodeConnect(UINT ulIP, USHORT usPort, int nTimeoutMs, PFNNODESTOP pfnStop, void* lpContext)
{
    int sk = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (sk < 0) return NODECONNECT_NOSOCKET;
    struct sockaddr_in stAddr = {};
    stAddr.sin_family = AF_INET;
    stAddr.sin_port = htons(usPort);
    stAddr.sin_addr.s_addr = htonl(ulIP);
    int nFlags = fcntl(sk, F_GETFL, 0);
    fcntl(sk, F_SETFL, nFlags | O_NONBLOCK);
    int rc = connect(sk, (struct sockaddr*)&stAddr, sizeof(stAddr));
    if (rc != 0 && errno == EINPROGRESS) {
        // In slices, so that a stop asked meanwhile is seen.
        rc = -1;
        for (int nWaited = 0; nWaited < nTimeoutMs; nWaited += CONNECT_SLICE_MS) {
            if (pfnStop != nullptr && pfnStop(lpContext)) break;
            struct pollfd stPoll = {sk, POLLOUT, 0};
            int nReady = poll(&stPoll, 1, CONNECT_SLICE_MS);
            if (nReady == 0) continue;
            rc = nReady == 1 ? 0 : -1;
            break;
        }
        int nError = 0;
        socklen_t nLen = sizeof(nError);
        if (rc == 0 && (getsockopt(sk, SOL_SOCKET, SO_ERROR, &nError, &nLen) != 0 || nError != 0)) rc = -1;
    }
    fcntl(sk, F_SETFL, nFlags);
    if (rc != 0) {
        close(sk);
        return -1;
    }
    int nOn = 1;
    setsockopt(sk, IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof(nOn));
    return sk;
}

void NodeBuildHello(MF_SERVICE_TCP_COMMAND& stHello, BYTE bCmdType, USHORT usDatabaseGuid, UINT ulIP, USHORT usPort)
{
    memset(&stHello, 0, sizeof(stHello));
    stHello.m_bVersion = NODEMSG_VERSION;
    stHello.m_bType = NODEMSG_HELLO;
    stHello.m_lDigitalData = (int)usDatabaseGuid;
    MF_CLIENTINFO stInfo;
    memset(&stInfo, 0, sizeof(stInfo));
    stInfo.m_bCmdType = bCmdType;
    char szExe[4096] = {0};
    ssize_t nExe = readlink("/proc/self/exe", szExe, sizeof(szExe) - 1);
    if (nExe > 0) {
        const char* lpName = strrchr(szExe, '/');
        lpName = lpName != nullptr ? lpName + 1 : szExe;
        memcpy(stInfo.m_lpszProgramName, lpName, strnlen(lpName, sizeof(stInfo.m_lpszProgramName) - 1));
    }
    stInfo.m_dwProcessID = (UINT)getpid();
    stInfo.m_dwThreadID = (UINT)syscall(SYS_gettid);
    stInfo.m_ulIP = ulIP;
    stInfo.m_usPort = usPort;
    memcpy(stHello.m_lpszParam, &stInfo, sizeof(stInfo));
}
