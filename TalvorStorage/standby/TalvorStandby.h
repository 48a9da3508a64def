// TalvorStandby.h — one standby connection of this node, and its thread.
//
// A standby slot is taken only by a live connection: Initialize connects to
// the standby node's listener (at most STANDBY_CONNECT_TIMEOUT_S seconds) and
// starts the thread that holds the connection. Shipping the redo log over it
// comes with log shipping; until then the thread keeps the connection open
// and ends when the standby node closes it or when it is asked to. A thread
// that ends hands its object back to its owner, which frees the slot and
// destroys the object.
#pragma once

#include "LinuxCommonAPI.h"
#include "MemDBCommonDef.h"
#include "TypeDef.h"

class CTalvorStandby;

// What a standby thread reaches of the module that owns its slot.
class ITalvorStandbyOwner {
public:
    virtual ~ITalvorStandbyOwner() {}
    // The thread of pStandby ends: free its slot and destroy the object.
    // Runs on that thread, which touches nothing of the object afterwards.
    virtual void ReleaseStandby(CTalvorStandby* pStandby) = 0;
    // The owner is stopping: every standby thread ends.
    virtual BOOL GetExitFlag() = 0;
};

inline constexpr int STANDBY_CONNECT_TIMEOUT_S = 3;

// Results of Initialize.
enum {
    STANDBYINIT_OK = 0,
    STANDBYINIT_CONNECTFAILED = 1,
    STANDBYINIT_THREADFAILED = 2,
};

class CTalvorStandby {
public:
    CTalvorStandby();
    // Closes the socket. The thread must have ended (it destroys the object
    // through its owner), or never started.
    ~CTalvorStandby();

    // Connects to ulIP:usPort (host order) and starts the thread. 0 on
    // success; otherwise nothing runs and the object may be destroyed.
    // nLogNo is not kept: the standby says where it stands. Storage thread.
    int Initialize(ITalvorStandbyOwner* pOwner, LPSYSTEMFILEHEAD pMemoryFileHead, UINT ulIP, USHORT usPort,
                   UINT ulLocalIP, UINT nLogNo);
    // The owner has put the object in its slot: from here on the thread may
    // end and hand it back. Storage thread, right after the slot is set.
    void Publish();
    // Asks the thread to end. Any thread. 0.
    int Uninitialize();
    // Asks a running thread to start over with the standby: 0 when its
    // connection is live and took the request, 1 otherwise (the thread is
    // then asked to end). Storage thread.
    int Reset();
    // The standby node's address and port. Any thread. 0.
    int GetServerInfo(UINT& ulIP, USHORT& usPort);

    static void* WorkThread(void* lpParam);

    LPSYSTEMFILEHEAD m_pMemoryFileHead;
    int m_skSocket;
    UINT m_ulIP;
    UINT m_ulLocalIP;
    UINT m_nRedoLogNo;
    volatile UINT m_nResetRedoLogNo;
    USHORT m_usPort;
    BYTE m_bRandomFactor;
    volatile BOOL m_bExit;
    // Set by Publish: a thread that ended before its object reached a slot
    // would have it destroyed while the owner still stores it.
    volatile BOOL m_bPublished;
    HTHREADTYPE m_hWorkThread;
    ITalvorStandbyOwner* m_pStorageModule;

private:
    // Holds the connection until the standby closes it or a stop is asked.
    void Work();
    BOOL StopAsked();
    // A TCP connection to ulIP:usPort within nTimeOut seconds, or -1.
    static int ConnectNode(UINT ulIP, USHORT usPort, int nTimeOut);
};
