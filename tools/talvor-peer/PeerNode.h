// PeerNode.h — what the stand-in's node listeners share: whole receives
// with a deadline, replies that carry the request's token, and the state
// of a standby's copy of the log with the handling of one standby message
// (PeerStandbyNode.cpp). A joined standby (PeerJoinNode.cpp) goes on with
// the same handling from the log position it was given.
#pragma once

#include "MemDBCommonDef.h"
#include "MemDBNodeDef.h"
#include "PeerClock.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace talvorpeer {

// Set by SIGTERM and SIGINT once OnNodeTerm is their handler.
extern volatile sig_atomic_t g_bStop;
void OnNodeTerm(int);
// nSize bytes; false when the peer closed, a stop came or time ran out.
bool RecvAll(int sk, void* lpBuf, size_t nSize, long long nDeadlineMs);
bool SendAll(int sk, const void* lpBuf, size_t nSize);
// A listening socket on 127.0.0.1 at nPort (0: any free port), its port in
// nBound; -1 with errno set when it cannot be had.
int PeerListenLoopback(long long nPort, int& nBound);
// A reply of bType to stAsk, with its token and nCode in m_lDigitalData.
MF_SERVICE_TCP_COMMAND Reply(const MF_SERVICE_TCP_COMMAND& stAsk, BYTE bType, int nCode);

struct NodeState {
    std::string strDir;
    UINT nLogNo;
    long long nEnd;        // end of the copy of nLogNo; 0: nothing yet
    long long nTimestamp;  // of the last record held
    long long nShipments;
    long long nBytes;
    std::string strMisbehave;
    long long nAfter;
    long long nTimes;
    long long nDone;
    // "timestamp microseconds" (wall clock) of the last record of every
    // shipment taken, when set.
    FILE* pTimes = nullptr;

    std::string LogPath(UINT n) const { return strDir + "/Log" + std::to_string(n) + ".log"; }

    // Takes a run of records if it continues the copy; false otherwise.
    bool Apply(UINT nLog, long long nStart, const std::vector<char>& vData)
    {
        bool bContinues = (nLog == nLogNo && nStart == (nEnd != 0 ? nEnd : REDOLOGFILE_HEAD_SIZE)) ||
                          (nLog == nLogNo + 1 && nStart == REDOLOGFILE_HEAD_SIZE);
        if (!bContinues || nStart < REDOLOGFILE_HEAD_SIZE) return false;
        int fd = open(LogPath(nLog).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) return false;
        bool bOk = pwrite(fd, vData.data(), vData.size(), (off_t)nStart) == (ssize_t)vData.size();
        close(fd);
        if (!bOk) return false;
        nLogNo = nLog;
        nEnd = nStart + (long long)vData.size();
        // The last record's timestamp: walk the run.
        size_t nAt = 0;
        while (nAt + EXECUTEPLANHEAD_SIZE <= vData.size()) {
            BASEEXECUTEPLANHEAD stHead;
            memcpy(&stHead, vData.data() + nAt, sizeof(stHead));
            if (stHead.m_nTotalDataSize < (UINT)EXECUTEPLANHEAD_SIZE) break;
            nTimestamp = stHead.m_nTimestamp;
            nAt += stHead.m_nTotalDataSize;
        }
        nShipments++;
        nBytes += (long long)vData.size();
        return true;
    }

    // The misbehaviour due at the shipment now in hand, or empty.
    std::string Due()
    {
        if (strMisbehave.empty() || nDone >= nTimes || nShipments + 1 < nAfter * (nDone + 1)) return "";
        nDone++;
        return strMisbehave;
    }
};


// One message of a standby connection (hello, keep-alive, position, log):
// false when the connection is to be closed.
bool ServeStandbyMessage(int sk, NodeState& st, const MF_SERVICE_TCP_COMMAND& stAsk, long long nDeadlineMs);

} // namespace talvorpeer
