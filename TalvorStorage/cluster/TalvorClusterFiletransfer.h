// TalvorClusterFiletransfer.h — the join of a new node, from the side that
// holds the database: the new node's service is told to clear all its data,
// every database file is streamed to it, and it is told to reload. A slave
// then goes on from its local logs; a standby learns the log position to go
// on from, and the standby threads ship it the log from there.
//
// One object lives for one join, on the storage thread, which does nothing
// else meanwhile. Every wait is bounded: a connect, a send, a reply, the
// repeats of a file broken off by a lost connection. A peer that is stuck or
// gone ends the join with a trace, never the daemon. Every length read from
// the network is held to a bound before anything is read behind it.
#pragma once

#include "MemDBCommonDef.h"
#include "MemDBNodeDef.h"
#include "TalvorStorageDef.h"
#include "TypeDef.h"

// What a join reads of the module that holds the database.
class ITalvorJoinSource {
public:
    virtual ~ITalvorJoinSource() {}
    // The descriptor of file number nFileNo (0 to 255), or null. Storage
    // thread.
    virtual LPFILEINFO JoinFileInfo(int nFileNo) = 0;
    // m_usDatabaseGuid of the system head. Storage thread.
    virtual USHORT JoinDatabaseGuid() = 0;
    // The size the joining node's copy of p must have: m_liFileSize unless
    // the source knows the file grew past its image. Storage thread.
    virtual long long JoinFileSize(LPFILEINFO p) { return p->m_liFileSize; }
    // TRUE once the daemon stops: the join ends at its next wait. Any thread.
    virtual BOOL JoinStopAsked() = 0;
};

// Results of SendFileDataToNewNode.
enum { JOINFILE_DONE = 0, JOINFILE_FAILED = 1, JOINFILE_REPEAT = -3 };
// Results of SendData besides the length sent.
enum { JOINSEND_NOCONNECTION = -2, JOINSEND_RECONNECTED = -3 };

// Bounds of a join. A connection made within 3 s; a send that moves nothing
// for 30 s fails; a reply waited for 30 s past the moment our own bytes
// stopped draining; a file broken off by lost connections repeated at most
// 3 times; a reply's payload read off up to 1 MiB, past that the stream is
// given up.
inline constexpr int JOIN_CONNECT_TIMEOUT_MS = 3000;
inline constexpr int JOIN_SEND_TIMEOUT_S = 30;
inline constexpr int JOIN_REPLY_WAIT_S = 30;
inline constexpr int JOIN_FILE_REPEATS = 3;
inline constexpr UINT JOIN_MAX_REPLY_PAYLOAD = 0x100000;
// The buffer of a join: one piece of a file, aligned for direct reads.
inline constexpr int JOIN_BUFFER_SIZE = 0x400000;
// m_nPos the copy starts from: 50 MiB and a little.
inline constexpr long long JOIN_PROGRESS_START = 0x320C800;
inline constexpr int JOIN_PROGRESS_CAP = 0x40000000;

class CTalvorClusterFiletransfer {
public:
    CTalvorClusterFiletransfer() : m_bRandomFactor(0), m_pStorage(nullptr) {}
    // After a failed reply wait in a file: a new connection into sk when
    // the old one broke (JOINFILE_REPEAT), else JOINFILE_FAILED.
    int RepeatOnNewConnection(int& sk, UINT ulIP, USHORT usPort);

    // Joins the node at ulIP:usPort (host order): a standby (bStandby) that
    // goes on from log nLogNo at nLogPos, or a slave that goes on from its
    // local logs after nTimestamp. 0 on success, 1 on failure (traced).
    // Storage thread, no latch held; lpCritSection reaches ReadBlock.
    static int ClusterAddNewNode(LPTALVORCRITICALSECTION lpCritSection, ITalvorJoinSource* pStorage,
                                 LPTALVORPROGRESS lpTalvorProgress, UINT ulLocalIP, UINT ulIP, USHORT usPort,
                                 long long nTimestamp, BOOL bStandby, UINT nLogNo, UINT nLogPos);

    // --- The wire (TalvorClusterFiletransfer.cpp).
    // A connection that has said hello, or -1 (traced when the hello
    // failed).
    int ConnectSlaveService(UINT ulIP, USHORT usPort);
    // All of nTotalLen out on sk: nTotalLen. A failed send closes sk and
    // connects anew into sk: JOINSEND_NOCONNECTION when that fails,
    // JOINSEND_RECONNECTED without bStart, else the result of sending again
    // on the new connection (traced when it fails).
    int SendData(int& sk, char* pSendBuffer, int nTotalLen, UINT ulIP, USHORT usPort, BOOL bStart);
    // The reply that carries bToken into stTcpCmd: 0; 1 when none came in
    // time, the connection broke, or a payload was past its bound (traced).
    int RecvTcpCmd(int sk, UINT ulIP, USHORT usPort, BYTE bToken, MF_SERVICE_TCP_COMMAND& stTcpCmd);
    // nSize bytes into pBuffer before nDeadlineUs (pushed on while our own
    // bytes still drain to the peer): TRUE; FALSE otherwise.
    BOOL ReceiveBuffer(int sk, char* pBuffer, int nSize, UINT ulIP, USHORT usPort, long long& nDeadlineUs);
    // Reads off whatever is waiting on sk, at most 64 MiB.
    void ClearSocket(int sk, UINT ulIP, USHORT usPort);
    // One exchange: the head of bCmdType with MF_CLUSTER_COMMAND (ulLocalIP,
    // llTimestamp), lpBuffer behind it, and a success reply. 0 or 1. A
    // connection made anew on the way is left in sk.
    int ClusterTcpCommunication(char* lpBuffer, int nLength, BYTE bCmdType, int& sk, UINT ulIP, USHORT usPort,
                                long long llTimestamp, UINT ulLocalIP);
    // A fresh token: neither 0 nor the last one.
    BYTE CreateRandomFactor();

    // --- The copy (TalvorClusterJoin.cpp).
    // One file: JOINFILE_DONE; JOINFILE_FAILED (traced); JOINFILE_REPEAT
    // when the connection broke and was made anew into sk.
    int SendFileDataToNewNode(LPTALVORCRITICALSECTION lpCritSection, LPTALVORPROGRESS lpTalvorProgress,
                              LPFILEINFO lpFileInfo, char* lpBuffer, int nBufferSize, int& sk, UINT ulIP,
                              USHORT usPort, UINT ulLocalIP, long long& nTotalSize);
    int ClusterAddNewNodeCore(LPTALVORCRITICALSECTION lpCritSection, LPTALVORPROGRESS lpTalvorProgress,
                              UINT ulLocalIP, UINT ulIP, USHORT usPort, long long nTimestamp);
    int ClusterAddStandbyNodeCore(LPTALVORCRITICALSECTION lpCritSection, LPTALVORPROGRESS lpTalvorProgress,
                                  UINT ulLocalIP, UINT ulIP, USHORT usPort, long long nTimestamp, UINT nLogNo,
                                  UINT nLogPos);

    BYTE m_bRandomFactor;
    ITalvorJoinSource* m_pStorage;
    // Set by a RecvTcpCmd that failed because the connection broke (not
    // because time ran out): the file in hand is repeated on a new one.
    BOOL m_bConnectionBroke = FALSE;

    BOOL StopAsked() { return m_pStorage != nullptr && m_pStorage->JoinStopAsked(); }
    // A head of this node's messages: version 3, bType, bToken, the guid,
    // nLength behind it.
    void BuildHead(MF_SERVICE_TCP_COMMAND& stHead, BYTE bType, BYTE bToken, UINT nLength);
};

// The progress title: the text, its last 120 characters when it is longer
// than 124. Storage thread.
void JoinSetTitle(LPTALVORPROGRESS lpProgress, const char* lpText);

// A node's address and port as the traces give them.
#define JOIN_ADDR(ip, port)                                                                                   \
    (int)((ip) >> 24), (int)(((ip) >> 16) & 0xFF), (int)(((ip) >> 8) & 0xFF), (int)((ip) & 0xFF), (unsigned)(port)
