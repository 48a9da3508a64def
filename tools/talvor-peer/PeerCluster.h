// PeerCluster.h — the engine's side of the cluster command record of the
// channel head (m_ClusterCommand): writing a command's arguments and then its
// command byte, as the engine does, and waiting (bounded) for the final value
// the daemon writes. Shared by the jobs "cluster" and "backup".
//
// The system image is attached only for a look and detached again at once:
// command 16 takes it away and command 17 makes a new one, and a stand-in
// holding the old one would keep a dead segment alive.
#pragma once

#include "LinuxCommonAPI.h"
#include "MemDBCommonDef.h"

#include <functional>
#include <string>

namespace talvorpeer {

// m_bResult as the stand-in leaves it before a command: a value the daemon
// never writes, so that a result it did not write shows.
inline constexpr BYTE CLUSTER_RESULT_UNSET = 0xEE;
// What a report gives for a flag of a head that does not exist.
inline constexpr int CLUSTER_NO_HEAD = -1;
// The final value a code has no final value of.
inline constexpr int CLUSTER_NO_FINAL = -1;

// Arguments of one command record.
struct ClusterArgs {
    BYTE m_bCode = 0;
    UINT m_ulIP = 0;          // or m_nMethod
    UINT m_ulLocalIP = 0;     // or m_nBufferSize
    long long m_nTimestamp = 0;
    long long m_nTimestamp2 = 0;
    UINT m_nLogNo = 0;
    UINT m_nLogPos = 0;
    USHORT m_usPort = 0;
    BYTE m_bLevel = 0;        // or m_bFileNo
    bool m_bForbid = false;   // the command's m_bForbidSaveFlag
    bool m_bHeadForbid = false;  // the system head's m_bForbidSaveFlag
};

// What the channel says after a command, in one look.
struct ClusterState {
    int m_nCode = 0;
    int m_nResult = 0;
    int m_nCmdForbid = 0;
    int m_nHeadForbid = CLUSTER_NO_HEAD;
    int m_nStatus = 0;
    int m_nStandby = 0;
    long long m_nBackupTimestamp = 0;
};

class CPeerClusterLink {
public:
    ~CPeerClusterLink();
    // Attaches the channel area, waiting up to nWaitMs for it to exist.
    // False when it does not. Main thread of the job.
    bool Attach(int nWaitMs);
    LPTALVORCOMMAND Command() { return &m_lpChannel->m_ClusterCommand; }
    LPTALVORPROGRESS Progress() { return &m_lpChannel->m_TalvorProgress; }
    LPSTORAGEMEMHEAD Channel() { return m_lpChannel; }
    // True when a command the daemon has not finished is in the record: any
    // code but 0 and the daemon's finished mark 1.
    bool Busy();
    // Runs fnLook on the system head (attached for the call only). False,
    // fnLook not called, when there is no system image.
    bool WithHead(const std::function<void(LPSYSTEMFILEHEAD)>& fnLook);
    // Writes the arguments, the result mark and the flags asked for (a flag
    // not asked for is left as it stands), then the command byte last, and
    // posts the storage event.
    void Send(const ClusterArgs& args);
    // Polls fnDone every millisecond until it gives true (then true) or
    // nWaitMs have passed (then false).
    bool WaitUntil(const std::function<bool()>& fnDone, int nWaitMs);
    // Polls every millisecond until the command byte is bFinal or nWaitMs
    // have passed, calling fnTick (if any) at each poll. True when bFinal
    // came. Never waits longer than nWaitMs.
    bool WaitFor(BYTE bFinal, int nWaitMs, const std::function<void()>& fnTick);
    ClusterState Look();
    // The engine taking the answer: the command byte back to 0.
    void TakeAnswer();

private:
    LPSTORAGEMEMHEAD m_lpChannel = nullptr;
    HEVENTTYPE m_hStorage = nullptr;
};

// "key=value" fields of a state, one line's worth.
std::string DescribeClusterState(const ClusterState& st);
// The final value of the command byte for a code, or CLUSTER_NO_FINAL for a
// code the daemon does not know.
int ClusterFinalOf(BYTE bCode);
// Dotted IPv4 to host order (m_ulIP >> 24 is the first octet). False when
// the text is not an address.
bool ParseHostOrderIP(const std::string& strText, UINT& ulIP);

} // namespace talvorpeer
