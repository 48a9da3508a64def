// TalvorStandby.h — one standby node of this node, and the thread that
// keeps it fed with the redo log.
//
// The thread connects to the standby's listener, asks it where it stands,
// and sends it the log from there: from archive files and sealed groups,
// then from the file of the current log, then, once it has caught up,
// straight from the writer's live feed. Every shipment waits for the reply
// that carries its token. A lost connection always ends in a new position
// exchange, so whatever was in flight is sent again from the standby's own
// position.
//
// The storage thread calls Initialize, Reset, Uninitialize and
// GetServerInfo; the thread reads m_bExit and m_nResetRedoLogNo without a
// latch. A thread that ends hands its object to its owner, which frees the
// slot and destroys it once nobody holds it: whoever reaches the object
// through the owner's slots does so under the owner's slot latch, or holds
// it (m_nSlotHolds) across what may not be done under that latch.
#pragma once

#include "LinuxCommonAPI.h"
#include "MemDBCommonDef.h"
#include "MemDBNodeDef.h"
#include "TalvorRedoLog.h"
#include "TypeDef.h"

class CTalvorStandby;

// What a standby thread reaches of the module that owns its slot.
class ITalvorStandbyOwner {
public:
    virtual ~ITalvorStandbyOwner() {}
    // The thread of pStandby ends: free its slot and destroy the object,
    // at once or, while another thread holds it, when that one lets go.
    // Runs on that thread, which touches nothing of the object afterwards.
    // No latch held.
    virtual void ReleaseStandby(CTalvorStandby* pStandby) = 0;
    // The owner is stopping: every standby thread ends.
    virtual BOOL GetExitFlag() = 0;
};

inline constexpr int STANDBY_CONNECT_TIMEOUT_S = 3;
// Results of Initialize.
enum { STANDBYINIT_OK = 0, STANDBYINIT_THREADFAILED = 1 };
// Results of RecvTcpCmd.
enum { TCPCMD_OK = 0, TCPCMD_GONE = 73, TCPCMD_TIMEOUT = 74, TCPCMD_ERROR = 5013 };
// Sizes of the thread's buffers: a shipment of at most 4 MiB behind room
// for the head, and the live feed.
inline constexpr int STANDBY_SEND_CAPACITY = 0x400000;
inline constexpr int STANDBY_FEED_SIZE = 0x1000000;

class CTalvorStandby {
public:
    CTalvorStandby();
    // Closes the socket. The thread has ended (its owner destroys the
    // object on that thread, or on the thread that held it last), or never
    // started.
    ~CTalvorStandby();

    // Stores the values and starts the thread. 0 on success. nLogNo is not
    // kept: the standby tells its own position. Storage thread.
    int Initialize(ITalvorStandbyOwner* pOwner, LPSYSTEMFILEHEAD pMemoryFileHead, UINT ulIP, USHORT usPort,
                   UINT ulLocalIP, UINT nLogNo);
    // The owner has put the object in its slot: from here on the thread may
    // end and hand it back. Storage thread, right after the slot is set.
    void Publish();
    // Asks the thread to end. Any thread. 0.
    int Uninitialize();
    // Asks a running thread for a fresh position exchange: 0 when it took
    // the request within 3.2 s, 1 when it did not (it is then asked to end
    // and its socket closed). Storage thread.
    int Reset();
    // The standby node's address and port (host order). Any thread. 0.
    int GetServerInfo(UINT& ulIP, USHORT& usPort);

    static void* WorkThread(void* lpParam);

    // --- The wire (TalvorStandby.cpp). The thread's own.
    // A fresh token: neither 0 nor the last one.
    BYTE CreateRandomFactor();
    // A connection to ulIP:usPort that has said hello, or -1.
    int ConnectNode(UINT ulIP, USHORT usPort, int nTimeOut);
    // nSize bytes, or 0 when the peer closed (nErrorNo 104) or a stop is
    // asked, or -1 on an error or a time-out (nErrorNo says which).
    int ReceiveBuffer(char* pBuffer, int nSize, int& nErrorNo, long long nStartTime, int nTimeout);
    // The reply that carries bToken: TCPCMD_OK with it in stTcpCmd, or
    // TCPCMD_GONE, TCPCMD_TIMEOUT (the connection is intact), TCPCMD_ERROR.
    int RecvTcpCmd(MF_SERVICE_TCP_COMMAND& stTcpCmd, BYTE bToken, long long nStartTime, int nTimeout);
    void CloseSocket();

    // --- The state machine (TalvorStandbyWork.cpp). The thread's own.
    void Work(BOOL& bRelease, LPTALVORCRITICALSECTION lpCritSection);
    // After a fault in Work, on the faulted thread: takes the live feed off
    // the writer's list (the writer must never fill a dead thread's feed),
    // closes the file and gives back the group, and frees the run.
    void AbandonRun();

    LPSYSTEMFILEHEAD m_pMemoryFileHead;
    CTalvorRedoLog* m_pTalvorRedoLog;
    volatile int m_skSocket;
    UINT m_ulIP;
    UINT m_ulLocalIP;
    UINT m_nRedoLogNo;
    volatile UINT m_nResetRedoLogNo;
    USHORT m_usPort;
    BYTE m_bRandomFactor;
    volatile BOOL m_bExit;
    HTHREADTYPE m_hWorkThread;
    ITalvorStandbyOwner* m_pStorageModule;
    // Set by Publish: a thread that ended before its object reached a slot
    // would have it destroyed while the owner still stores it.
    volatile BOOL m_bPublished;
    // The run of the thread (its feed, file and buffers), on the heap so
    // that the fault path finds it whole.
    void* volatile m_pRun;
    // Under the owner's slot latch only: the threads that reach the object
    // from its slot outside that latch, and whether its thread has handed
    // it back. The last of them to let go destroys it.
    int m_nSlotHolds;
    BOOL m_bHandedBack;

    BOOL StopAsked();
};

// The standby's address and port as the traces give them: four octets and
// the port.
#define STANDBY_ADDR(p)                                                                                   \
    (int)((p)->m_ulIP >> 24), (int)(((p)->m_ulIP >> 16) & 0xFF), (int)(((p)->m_ulIP >> 8) & 0xFF),       \
        (int)((p)->m_ulIP & 0xFF), (unsigned)(p)->m_usPort
