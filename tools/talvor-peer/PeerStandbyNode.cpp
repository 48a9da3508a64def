// PeerStandbyNode.cpp — the receiving side of log shipping, as a standby
// node's listener meets it: it answers a position request with where its
// copy of the log stands, takes each run of records that continues that
// copy exactly, and answers every request with the request's token. On
// command it misbehaves: it closes the connection, stalls, answers with a
// wrong token, answers failure, or says it is leaving.
//
// The copy of log N is DIR/LogN.log with the records at the offsets they
// have in the sender's file (the 50 bytes of the sender's head stay zero):
// a test compares it byte for byte with the sender's group or archive file.
#include "PeerArgs.h"
#include "PeerJobs.h"
#include "PeerNode.h"

#include "MemDBCommonDef.h"
#include "MemDBNodeDef.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace talvorpeer {

namespace {

const std::vector<OptionSpec> g_vNodeOptions = {
    {"port", true, "port to listen on at 127.0.0.1 (0: any; the port is printed)"},
    {"dir", true, "directory of the copies of the logs (default: the working directory)"},
    {"seconds", true, "how long to serve (default 60)"},
    {"start-log", true, "log an empty standby asks for (default 1)"},
    {"misbehave", true, "close | stall | wrong-token | fail | leave | bad-version | payload"},
    {"after", true, "misbehave after this many accepted shipments (default 1)"},
    {"times", true, "misbehave this many times, at every --after shipments (default 1)"},
    {"receive-times", true, "write \"timestamp microseconds\" (wall clock) of the last record of every shipment taken"},
};
const UINT MAX_PAYLOAD = 64u << 20;
const int STALL_MS = 8000;

} // namespace

volatile sig_atomic_t g_bStop = 0;
void OnNodeTerm(int) { g_bStop = 1; }

// Whole reads with a deadline; false when the peer closed or time ran out.
bool RecvAll(int sk, void* lpBuf, size_t nSize, long long nDeadlineMs)
{
    size_t nGot = 0;
    while (nGot < nSize) {
        if (g_bStop || NowMs() > nDeadlineMs) return false;
        struct pollfd stPoll = {sk, POLLIN, 0};
        int rc = poll(&stPoll, 1, 100);
        if (rc < 0 && errno == EINTR) continue;
        if (rc <= 0) continue;
        ssize_t n = recv(sk, (char*)lpBuf + nGot, nSize - nGot, 0);
        if (n <= 0) {
            if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
            return false;
        }
        nGot += (size_t)n;
    }
    return true;
}

bool SendAll(int sk, const void* lpBuf, size_t nSize)
{
    return send(sk, lpBuf, nSize, MSG_NOSIGNAL) == (ssize_t)nSize;
}

int PeerListenLoopback(long long nPort, int& nBound)
{
    int skListen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int nOn = 1;
    setsockopt(skListen, SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof(nOn));
    struct sockaddr_in stAddr = {};
    stAddr.sin_family = AF_INET;
    stAddr.sin_port = htons((USHORT)nPort);
    stAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t nLen = sizeof(stAddr);
    if (skListen < 0 || bind(skListen, (struct sockaddr*)&stAddr, sizeof(stAddr)) != 0 || listen(skListen, 16) != 0 ||
        getsockname(skListen, (struct sockaddr*)&stAddr, &nLen) != 0) {
        if (skListen >= 0) close(skListen);
        return -1;
    }
    nBound = ntohs(stAddr.sin_port);
    return skListen;
}

MF_SERVICE_TCP_COMMAND Reply(const MF_SERVICE_TCP_COMMAND& stAsk, BYTE bType, int nCode)
{
    MF_SERVICE_TCP_COMMAND stReply;
    memset(&stReply, 0, sizeof(stReply));
    stReply.m_bVersion = NODEMSG_VERSION;
    stReply.m_bType = bType;
    stReply.m_bToken = stAsk.m_bToken;
    stReply.m_lDigitalData = nCode;
    return stReply;
}

bool ServeStandbyMessage(int sk, NodeState& st, const MF_SERVICE_TCP_COMMAND& stAsk, long long nDeadlineMs)
{
    if (stAsk.m_bType == NODEMSG_HELLO) return true;
    if (stAsk.m_bType == NODEMSG_KEEPALIVE) {
        MF_SERVICE_TCP_COMMAND stReply = Reply(stAsk, NODEMSG_KEEPALIVE, 0);
        if (!SendAll(sk, &stReply, sizeof(stReply))) return false;
        return true;
    }
    if (stAsk.m_bType == NODEMSG_POSITION) {
        MF_SERVICE_TCP_COMMAND stReply = Reply(stAsk, NODEMSG_SUCCESS, 0);
        MF_STANDBY_TCP_COMMAND stAt;
        memset(&stAt, 0, sizeof(stAt));
        stAt.m_nTimestamp = st.nTimestamp;
        stAt.m_nLogNo = st.nLogNo;
        // A standby that holds nothing asks for its first log from the
        // first record on (a position of 0 would skip records stamped 0).
        stAt.m_nReadPos = (UINT)(st.nEnd != 0 ? st.nEnd : REDOLOGFILE_HEAD_SIZE);
        memcpy(stReply.m_lpszParam, &stAt, sizeof(stAt));
        if (!SendAll(sk, &stReply, sizeof(stReply))) return false;
        return true;
    }
    if (stAsk.m_bType != NODEMSG_LOG || stAsk.m_lDataLength > MAX_PAYLOAD) {
        MF_SERVICE_TCP_COMMAND stReply = Reply(stAsk, NODEMSG_FAILURE, 1);
        SendAll(sk, &stReply, sizeof(stReply));
        return false;
    }
    std::vector<char> vData(stAsk.m_lDataLength);
    if (!vData.empty() && !RecvAll(sk, vData.data(), vData.size(), nDeadlineMs)) return false;
    MF_STANDBY_TCP_COMMAND stParam;
    memcpy(&stParam, stAsk.m_lpszParam, sizeof(stParam));
    long long nStart = (long long)stParam.m_nReadPos - (long long)vData.size();
    std::string strDue = st.Due();
    // A shipment answered with a failure is not taken.
    bool bTaken = strDue != "fail" && strDue != "leave" && st.Apply(stParam.m_nLogNo, nStart, vData);
    if (bTaken && st.pTimes != nullptr) WriteTimeLine(st.pTimes, st.nTimestamp);
    if (!bTaken && strDue != "fail" && strDue != "leave" && !strDue.empty()) {
        st.nDone--;
        strDue.clear();
    }
    if (strDue == "close") return false;
    if (strDue == "stall") {
        usleep(STALL_MS * 1000);
        return false;
    }
    MF_SERVICE_TCP_COMMAND stReply = Reply(stAsk, bTaken ? NODEMSG_SUCCESS : NODEMSG_FAILURE, bTaken ? 0 : 2);
    if (strDue == "wrong-token") stReply.m_bToken = (BYTE)(stAsk.m_bToken + 1);
    if (strDue == "fail") {
        stReply.m_bType = NODEMSG_FAILURE;
        stReply.m_lDigitalData = 7;
    }
    if (strDue == "leave") {
        stReply.m_bType = NODEMSG_FAILURE;
        stReply.m_lDigitalData = NODEMSG_LEAVING;
    }
    if (strDue == "bad-version") stReply.m_bVersion = NODEMSG_VERSION + 6;
    if (strDue == "payload") {
        // A reply with bytes behind it: a sender that read only the head
        // would take them for the next one.
        char szJunk[100];
        memset(szJunk, 0x5A, sizeof(szJunk));
        stReply.m_lDataLength = sizeof(szJunk);
        if (!SendAll(sk, &stReply, sizeof(stReply)) || !SendAll(sk, szJunk, sizeof(szJunk))) return false;
        return true;
    }
    if (!SendAll(sk, &stReply, sizeof(stReply))) return false;
    return true;
}

namespace {

// One connection until it closes, the node closes it, or time runs out.
void Serve(int sk, NodeState& st, long long nDeadlineMs)
{
    for (;;) {
        MF_SERVICE_TCP_COMMAND stAsk;
        if (!RecvAll(sk, &stAsk, sizeof(stAsk), nDeadlineMs) || !ServeStandbyMessage(sk, st, stAsk, nDeadlineMs)) return;
    }
}

} // namespace

std::string StandbyNodeJobUsage()
{
    return "usage: talvor-peer standby-node [options]\n"
           "A standby node's listener: answers position requests and takes shipped log records into\n"
           "copies of the logs; prints \"listening on port P\" once it listens and a summary at the end.\n" +
           DescribeOptions(g_vNodeOptions);
}

int RunStandbyNodeJob(const std::vector<std::string>& args)
{
    CPeerArgs opts;
    long long nPort = 0, nSeconds = 0, nStartLog = 0, nAfter = 0, nTimes = 0;
    bool bOk = opts.Parse(args, g_vNodeOptions) && opts.GetInt("port", 0, 0, 65535, nPort) &&
               opts.GetInt("seconds", 60, 1, 24 * 3600, nSeconds) && opts.GetInt("start-log", 1, 1, 0xFFFFFFFFLL, nStartLog) &&
               opts.GetInt("after", 1, 1, 1LL << 40, nAfter) && opts.GetInt("times", 1, 1, 1LL << 40, nTimes);
    std::string strMisbehave = opts.GetString("misbehave", "");
    if (bOk && !strMisbehave.empty() && strMisbehave != "close" && strMisbehave != "stall" &&
        strMisbehave != "wrong-token" && strMisbehave != "fail" && strMisbehave != "leave" &&
        strMisbehave != "bad-version" && strMisbehave != "payload")
        bOk = false;
    if (!bOk) {
        fprintf(stderr, "talvor-peer standby-node: %s\n%s", opts.Error().empty() ? "bad value" : opts.Error().c_str(),
                StandbyNodeJobUsage().c_str());
        return PEER_USAGE;
    }
    NodeState st = {opts.GetString("dir", "."), (UINT)nStartLog, 0, 0, 0, 0, strMisbehave, nAfter, nTimes, 0};
    mkdir(st.strDir.c_str(), 0755);
    if (opts.Has("receive-times")) {
        st.pTimes = fopen(opts.GetString("receive-times", "").c_str(), "w");
        if (st.pTimes == nullptr) {
            fprintf(stderr, "talvor-peer standby-node: cannot open the times file: %s\n", strerror(errno));
            return PEER_INPUT;
        }
        setvbuf(st.pTimes, nullptr, _IOLBF, 0);
    }
    signal(SIGTERM, OnNodeTerm);
    signal(SIGINT, OnNodeTerm);
    int nBound = 0;
    int skListen = PeerListenLoopback(nPort, nBound);
    if (skListen < 0) {
        fprintf(stderr, "talvor-peer standby-node: cannot listen on port %lld: %s\n", nPort, strerror(errno));
        return PEER_IPC;
    }
    printf("listening on port %d\n", nBound);
    fflush(stdout);
    long long nDeadline = NowMs() + nSeconds * 1000;
    long long nConnections = 0;
    while (!g_bStop && NowMs() < nDeadline) {
        struct pollfd stPoll = {skListen, POLLIN, 0};
        if (poll(&stPoll, 1, 100) != 1) continue;
        int sk = accept4(skListen, nullptr, nullptr, SOCK_CLOEXEC);
        if (sk < 0) continue;
        nConnections++;
        Serve(sk, st, nDeadline);
        close(sk);
    }
    close(skListen);
    if (st.pTimes != nullptr) fclose(st.pTimes);
    printf("standby: log %u end %lld timestamp %lld shipments %lld bytes %lld connections %lld misbehaved %lld\n",
           st.nLogNo, st.nEnd, st.nTimestamp, st.nShipments, st.nBytes, nConnections, st.nDone);
    return PEER_OK;
}

} // namespace talvorpeer
