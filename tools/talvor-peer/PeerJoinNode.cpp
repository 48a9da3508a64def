// PeerJoinNode.cpp — a joining node's listener, as the node that copies the
// database to it meets it: a clear drops what it took before, each file
// arrives as its information and its used bytes, a reload ends the copy. A
// slave is then done; a standby learns the log position it goes on from and
// serves the standby messages from there, its copies of the logs in
// DIR/StandbyLog. Every request is answered with its token; a file's
// information is answered once, and its last piece (or, with no used bytes,
// the information a second time) once more.
//
// Files land in DIR under the last part of the sender's path, created at
// their full size; nothing outside DIR is ever opened. At the reload the
// copied system file is made to name DIR, so that a daemon started on DIR
// loads the copy and never the sending node's files. On command it
// misbehaves: closes a connection in the middle of a file, answers a
// file's information with a failure, answers with a payload that no reply
// may have, puts a foreign reply with a payload before each of its own, or
// falls silent at the end of a file.
#include "PeerArgs.h"
#include "PeerJobs.h"
#include "PeerJoinFiles.h"
#include "PeerNode.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <netinet/in.h>
#include <poll.h>
#include <set>
#include <sys/socket.h>
#include <sys/stat.h>

namespace talvorpeer {

namespace {

const std::vector<OptionSpec> g_vJoinOptions = {
    {"port", true, "port to listen on at 127.0.0.1 (0: any; the port is printed)"},
    {"dir", true, "directory the files are taken into (required)"},
    {"seconds", true, "how long to serve (default 60)"},
    {"max-file-size", true, "largest file taken, in bytes (default 16 GiB)"},
    {"max-piece", true, "largest piece of a file taken, in bytes (default 8 MiB)"},
    {"exit-after-join", false, "end once a slave is restored or a standby reloaded"},
    {"misbehave", true, "close | fail | huge-payload | foreign-payload | silent"},
    {"times", true, "misbehave this many times (default 1; foreign-payload: every reply)"},
};
const UINT HUGE_PAYLOAD = 0x7FFFFFF0;
const int JUNK_SIZE = 100;

struct JoinNode {
    std::string strDir;
    JoinLimits stLimits;
    bool bExitAfterJoin = false;
    std::string strMisbehave;
    long long nTimes = 1, nDone = 0;
    // The file in hand and what has been taken.
    JoinFileInHand stFile;
    int fd = -1;
    std::string strName;
    std::string strSystemName;  // the file of type 1 taken
    std::set<std::string> setTaken;
    long long nFiles = 0, nBytes = 0, nRefused = 0, nClears = 0, nRepeats = 0;
    bool bJoined = false, bStandby = false;
    NodeState stLog;

    bool Due(const char* lpWhat)
    {
        if (strMisbehave != lpWhat || nDone >= nTimes) return false;
        nDone++;
        return true;
    }

    void DropFileInHand()
    {
        if (fd >= 0) close(fd);
        fd = -1;
        stFile = JoinFileInHand();
    }

    void Clear()
    {
        DropFileInHand();
        for (const std::string& strTaken : setTaken) unlink((strDir + "/" + strTaken).c_str());
        setTaken.clear();
        nFiles = nBytes = 0;
        bJoined = false;
        nClears++;
    }
};

// A reply to stAsk; with foreign-payload, a reply of another token with
// bytes behind it goes first.
bool Answer(int sk, JoinNode& node, const MF_SERVICE_TCP_COMMAND& stAsk, BYTE bType, int nCode)
{
    char szJunk[JUNK_SIZE];
    memset(szJunk, 0x5A, sizeof(szJunk));
    if (node.strMisbehave == "foreign-payload") {
        MF_SERVICE_TCP_COMMAND stForeign = Reply(stAsk, NODEMSG_SUCCESS, 0);
        stForeign.m_bToken = (BYTE)(stAsk.m_bToken + 1);
        stForeign.m_lDataLength = sizeof(szJunk);
        if (!SendAll(sk, &stForeign, sizeof(stForeign)) || !SendAll(sk, szJunk, sizeof(szJunk))) return false;
    }
    MF_SERVICE_TCP_COMMAND stReply = Reply(stAsk, bType, nCode);
    if (node.Due("huge-payload")) {
        // A length no reply may have, with a little behind it.
        stReply.m_lDataLength = HUGE_PAYLOAD;
        return SendAll(sk, &stReply, sizeof(stReply)) && SendAll(sk, szJunk, sizeof(szJunk));
    }
    return SendAll(sk, &stReply, sizeof(stReply));
}

// A refusal: told to the sender, and the connection closed, since what
// follows the refused head can no longer be told apart from a head.
bool Refuse(int sk, JoinNode& node, const MF_SERVICE_TCP_COMMAND& stAsk, const std::string& strWhy)
{
    node.nRefused++;
    printf("refused: %s\n", strWhy.c_str());
    fflush(stdout);
    node.DropFileInHand();
    Answer(sk, node, stAsk, NODEMSG_FAILURE, 3);
    return false;
}

bool FinishFile(int sk, JoinNode& node, const MF_SERVICE_TCP_COMMAND& stAsk)
{
    bool bSynced = fsync(node.fd) == 0;
    node.DropFileInHand();
    if (!bSynced) return Refuse(sk, node, stAsk, "cannot sync " + node.strName);
    node.nFiles++;
    if (node.Due("silent")) return true;
    return Answer(sk, node, stAsk, NODEMSG_SUCCESS, 0);
}

bool TakeInfo(int sk, JoinNode& node, const MF_SERVICE_TCP_COMMAND& stAsk, const MF_CLUSTER_FILETRANSFER& stParam,
              long long nDeadlineMs)
{
    MF_MASTERSLAVE_FILEINFO stInfo;
    if (stAsk.m_lDataLength != sizeof(stInfo)) return Refuse(sk, node, stAsk, "information of a wrong length");
    if (!RecvAll(sk, &stInfo, sizeof(stInfo), nDeadlineMs)) return false;
    std::string strName, strWhy;
    if (!JoinFileName(stInfo.m_lpszFilePath, sizeof(stInfo.m_lpszFilePath), strName, strWhy) ||
        !JoinInfoAllowed(stInfo, stParam, node.stLimits, strWhy))
        return Refuse(sk, node, stAsk, strWhy);
    // A file that comes again (its connection broke) starts over.
    if (node.setTaken.count(strName) != 0 || node.fd >= 0) node.nRepeats++;
    node.DropFileInHand();
    std::string strPath = node.strDir + "/" + strName;
    node.fd = open(strPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0666);
    if (node.fd < 0 || ftruncate(node.fd, (off_t)stInfo.m_nFileSize) != 0)
        return Refuse(sk, node, stAsk, "cannot make " + strPath + ": " + strerror(errno));
    node.setTaken.insert(strName);
    node.strName = strName;
    if (stInfo.m_bFileType == FILETYPE_SYSTEM) node.strSystemName = strName;
    node.stFile.m_bOpen = true;
    node.stFile.m_bFileNo = stInfo.m_bFileNo;
    node.stFile.m_nSize = stInfo.m_nFileSize;
    node.stFile.m_nFree = stInfo.m_nFileFreeMemoryOffset;
    if (node.Due("fail")) return Refuse(sk, node, stAsk, "told to fail " + strName);
    if (!Answer(sk, node, stAsk, NODEMSG_SUCCESS, 0)) return false;
    // No used bytes: the file is whole with its information.
    return stInfo.m_nFileFreeMemoryOffset == 0 ? FinishFile(sk, node, stAsk) : true;
}

bool TakePiece(int sk, JoinNode& node, const MF_SERVICE_TCP_COMMAND& stAsk, const MF_CLUSTER_FILETRANSFER& stParam,
               long long nDeadlineMs, std::vector<char>& vBuf)
{
    std::string strWhy;
    if (!JoinPieceAllowed(node.stFile, stParam, stAsk.m_lDataLength, node.stLimits, strWhy))
        return Refuse(sk, node, stAsk, strWhy);
    vBuf.resize(stAsk.m_lDataLength);
    if (node.Due("close")) {
        // Half the piece, then the connection goes: the middle of a file.
        RecvAll(sk, vBuf.data(), vBuf.size() / 2, nDeadlineMs);
        printf("closing in the middle of %s\n", node.strName.c_str());
        fflush(stdout);
        node.DropFileInHand();
        return false;
    }
    if (!RecvAll(sk, vBuf.data(), vBuf.size(), nDeadlineMs)) return false;
    if (pwrite(node.fd, vBuf.data(), vBuf.size(), (off_t)stParam.m_llFileOffset) != (ssize_t)vBuf.size())
        return Refuse(sk, node, stAsk, "cannot write " + node.strName);
    node.stFile.m_nNext += (long long)vBuf.size();
    node.nBytes += (long long)vBuf.size();
    return stParam.m_bDataType == FILETRANSFER_LAST ? FinishFile(sk, node, stAsk) : true;
}

// The copy is made the node's own database: its system file names the
// node's directory. Without a system file there is nothing to load.
bool Reload(int sk, JoinNode& node, const MF_SERVICE_TCP_COMMAND& stAsk)
{
    if (stAsk.m_lDataLength != 0 || node.fd >= 0) return Refuse(sk, node, stAsk, "a reload in the middle of a file");
    std::string strWhy, strDir = node.strDir;
    if (strDir.empty() || strDir.back() != '/') strDir += "/";
    if (node.strSystemName.empty()) return Refuse(sk, node, stAsk, "a reload without a system file");
    if (!JoinRelocateSystemFile(strDir + node.strSystemName, strDir, strWhy)) return Refuse(sk, node, stAsk, strWhy);
    return true;
}

void ReportJoined(JoinNode& node, const char* lpKind)
{
    printf("joined %s: files %lld bytes %lld log %u pos %lld\n", lpKind, node.nFiles, node.nBytes, node.stLog.nLogNo,
           node.stLog.nEnd);
    fflush(stdout);
}

// One message of the join; false when the connection is to be closed.
bool ServeJoinMessage(int sk, JoinNode& node, const MF_SERVICE_TCP_COMMAND& stAsk, long long nDeadlineMs,
                      std::vector<char>& vBuf)
{
    MF_CLUSTER_FILETRANSFER stParam;
    memcpy(&stParam, stAsk.m_lpszParam, sizeof(stParam));
    switch (stAsk.m_bType) {
    case NODEMSG_HELLO:
        return true;
    case NODEMSG_SLAVE_CLEAR:
    case NODEMSG_STANDBY_CLEAR:
        if (stAsk.m_lDataLength != 0) return Refuse(sk, node, stAsk, "a clear with a payload");
        node.Clear();
        return Answer(sk, node, stAsk, NODEMSG_SUCCESS, 0);
    case NODEMSG_FILETRANSFER:
        if (stParam.m_bDataType == FILETRANSFER_INFO) return TakeInfo(sk, node, stAsk, stParam, nDeadlineMs);
        return TakePiece(sk, node, stAsk, stParam, nDeadlineMs, vBuf);
    case NODEMSG_SLAVE_RELOAD:
        if (!Reload(sk, node, stAsk)) return false;
        return Answer(sk, node, stAsk, NODEMSG_SUCCESS, 0);
    case NODEMSG_SLAVE_RESTORE:
        if (stAsk.m_lDataLength != 0 || node.fd >= 0) return Refuse(sk, node, stAsk, "a restore in the middle of a file");
        node.bJoined = true;
        ReportJoined(node, "slave");
        return Answer(sk, node, stAsk, NODEMSG_SUCCESS, 0);
    case NODEMSG_STANDBY_RELOAD: {
        if (!Reload(sk, node, stAsk)) return false;
        MF_STANDBY_TCP_COMMAND stAt;
        memcpy(&stAt, stAsk.m_lpszParam, sizeof(stAt));
        if (stAt.m_nLogNo == 0 || stAt.m_nReadPos < (UINT)REDOLOGFILE_HEAD_SIZE)
            return Refuse(sk, node, stAsk, "no log position to go on from");
        node.stLog.nLogNo = stAt.m_nLogNo;
        node.stLog.nEnd = stAt.m_nReadPos;
        node.stLog.nTimestamp = stAt.m_nTimestamp;
        node.bJoined = node.bStandby = true;
        ReportJoined(node, "standby");
        return Answer(sk, node, stAsk, NODEMSG_SUCCESS, 0);
    }
    case NODEMSG_KEEPALIVE:
    case NODEMSG_POSITION:
    case NODEMSG_LOG:
        if (node.bStandby) return ServeStandbyMessage(sk, node.stLog, stAsk, nDeadlineMs);
        return Refuse(sk, node, stAsk, "standby traffic before a standby join");
    default:
        return Refuse(sk, node, stAsk, "unknown message type " + std::to_string(stAsk.m_bType));
    }
}

void ServeJoin(int sk, JoinNode& node, long long nDeadlineMs)
{
    std::vector<char> vBuf;
    for (;;) {
        MF_SERVICE_TCP_COMMAND stAsk;
        if (!RecvAll(sk, &stAsk, sizeof(stAsk), nDeadlineMs) || !ServeJoinMessage(sk, node, stAsk, nDeadlineMs, vBuf))
            break;
        if (node.bExitAfterJoin && node.bJoined) break;
    }
    // A file broken off is not kept half-written as if whole.
    node.DropFileInHand();
}

int ListenLoopback(long long nPort, int& nBound)
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

} // namespace

std::string JoinNodeJobUsage()
{
    return "usage: talvor-peer join-node --dir DIR [options]\n"
           "A joining node's listener: takes the copied database files into DIR and, joined as a standby,\n"
           "goes on taking shipped log records from the position it was given (DIR/StandbyLog).\n"
           "Prints \"listening on port P\", a \"joined\" line, and a summary at the end.\n" +
           DescribeOptions(g_vJoinOptions);
}

int RunJoinNodeJob(const std::vector<std::string>& args)
{
    CPeerArgs opts;
    long long nPort = 0, nSeconds = 0, nMaxFile = 0, nMaxPiece = 0, nTimes = 0;
    bool bOk = opts.Parse(args, g_vJoinOptions) && opts.GetInt("port", 0, 0, 65535, nPort) &&
               opts.GetInt("seconds", 60, 1, 24 * 3600, nSeconds) &&
               opts.GetInt("max-file-size", 16LL << 30, 1, 1LL << 40, nMaxFile) &&
               opts.GetInt("max-piece", 8LL << 20, 1, 64LL << 20, nMaxPiece) &&
               opts.GetInt("times", 1, 1, 1LL << 40, nTimes) && opts.Has("dir");
    JoinNode node;
    node.strMisbehave = opts.GetString("misbehave", "");
    const std::set<std::string> setModes = {"", "close", "fail", "huge-payload", "foreign-payload", "silent"};
    if (!bOk || setModes.count(node.strMisbehave) == 0) {
        fprintf(stderr, "talvor-peer join-node: %s\n%s", opts.Error().empty() ? "bad value" : opts.Error().c_str(),
                JoinNodeJobUsage().c_str());
        return PEER_USAGE;
    }
    node.strDir = opts.GetString("dir", ".");
    node.stLimits.m_nMaxFileSize = nMaxFile;
    node.stLimits.m_nMaxPiece = (UINT)nMaxPiece;
    node.bExitAfterJoin = opts.Has("exit-after-join");
    node.nTimes = nTimes;
    node.stLog = {node.strDir + "/StandbyLog", 0, 0, 0, 0, 0, "", 1, 1, 0};
    mkdir(node.strDir.c_str(), 0755);
    mkdir(node.stLog.strDir.c_str(), 0755);
    signal(SIGTERM, OnNodeTerm);
    signal(SIGINT, OnNodeTerm);
    int nBound = 0;
    int skListen = ListenLoopback(nPort, nBound);
    if (skListen < 0) {
        fprintf(stderr, "talvor-peer join-node: cannot listen on port %lld: %s\n", nPort, strerror(errno));
        return PEER_IPC;
    }
    printf("listening on port %d\n", nBound);
    fflush(stdout);
    long long nDeadline = NowMs() + nSeconds * 1000;
    long long nConnections = 0;
    while (!g_bStop && NowMs() < nDeadline && !(node.bExitAfterJoin && node.bJoined)) {
        struct pollfd stPoll = {skListen, POLLIN, 0};
        if (poll(&stPoll, 1, 100) != 1) continue;
        int sk = accept4(skListen, nullptr, nullptr, SOCK_CLOEXEC);
        if (sk < 0) continue;
        nConnections++;
        ServeJoin(sk, node, nDeadline);
        close(sk);
    }
    close(skListen);
    printf("join: files %lld bytes %lld clears %lld repeats %lld refused %lld connections %lld misbehaved %lld "
           "joined %d standby log %u end %lld shipments %lld\n",
           node.nFiles, node.nBytes, node.nClears, node.nRepeats, node.nRefused, nConnections, node.nDone,
           node.bJoined ? 1 : 0, node.stLog.nLogNo, node.stLog.nEnd, node.stLog.nShipments);
    return node.bJoined || !node.bExitAfterJoin ? PEER_OK : PEER_NOT_SERVED;
}

} // namespace talvorpeer
