// MemDBNodeDef.h — the messages between nodes: every message begins with a
// 112-byte head, its parameters inside the head, its payload behind it.
// Byte-packed, in the byte order of the machine; the sender and the stand-in
// of a receiving node share this one definition.
#pragma once

#include "TypeDef.h"

#include <cstddef>

inline constexpr BYTE NODEMSG_VERSION = 3;

// m_bType of a node message.
enum : BYTE {
    NODEMSG_KEEPALIVE = 0,
    NODEMSG_SUCCESS = 1,
    NODEMSG_FAILURE = 2,    // code in m_lDigitalData
    NODEMSG_HELLO = 4,      // first message of a connection; not answered
    NODEMSG_POSITION = 30,  // where does the standby stand?
    NODEMSG_LOG = 31,       // a run of whole redo records
};

// m_lDigitalData of a failure: the node is leaving, whatever the token.
inline constexpr int NODEMSG_LEAVING = 250;
// m_bCmdType of MF_CLIENTINFO.
inline constexpr BYTE CLIENTINFO_STANDBY = 10;
inline constexpr BYTE CLIENTINFO_NODEJOIN = 1;

#pragma pack(push, 1)

typedef struct _MF_SERVICE_TCP_COMMAND {
    BYTE m_bVersion;
    BYTE m_bType;
    BYTE m_bToken;       // the reply carries the request's
    BYTE m_bReserved;
    int m_lDigitalData;  // request: the database guid; failure reply: its code
    UINT m_lDataLength;  // payload behind the head
    char m_lpszParam[96];
    UINT m_nSessionID;
} MF_SERVICE_TCP_COMMAND, *LPMF_SERVICE_TCP_COMMAND;

// The parameters of a hello, over m_lpszParam and m_nSessionID.
typedef struct _MF_CLIENTINFO {
    BYTE m_bCmdType;
    BYTE m_bProhibitLoadDrift;
    char m_lpszProgramName[24];
    UINT m_dwProcessID;
    UINT m_dwThreadID;
    UINT m_ulIP;
    USHORT m_usPort;
    BYTE m_pUserName[36];
    char m_pPassword[24];
} MF_CLIENTINFO, *LPMF_CLIENTINFO;

// The parameters of a log shipment and of the reply to a position request.
typedef struct _MF_STANDBY_TCP_COMMAND {
    UINT m_ulIP;
    USHORT m_usPort;
    long long m_nTimestamp;  // reply to 30: of the last record the standby holds
    UINT m_nLogNo;
    UINT m_nReadPos;         // 31: just behind the last record sent; reply: where to go on, or 0
} MF_STANDBY_TCP_COMMAND, *LPMF_STANDBY_TCP_COMMAND;

#pragma pack(pop)

static_assert(sizeof(MF_SERVICE_TCP_COMMAND) == 112, "node message head is 112 bytes");
static_assert(offsetof(MF_SERVICE_TCP_COMMAND, m_lDigitalData) == 4 &&
                  offsetof(MF_SERVICE_TCP_COMMAND, m_lDataLength) == 8 &&
                  offsetof(MF_SERVICE_TCP_COMMAND, m_lpszParam) == 12 &&
                  offsetof(MF_SERVICE_TCP_COMMAND, m_nSessionID) == 108,
              "node message head layout");
static_assert(sizeof(MF_CLIENTINFO) == 100, "client info is 100 bytes");
static_assert(offsetof(MF_CLIENTINFO, m_dwProcessID) == 26 && offsetof(MF_CLIENTINFO, m_ulIP) == 34 &&
                  offsetof(MF_CLIENTINFO, m_usPort) == 38 && offsetof(MF_CLIENTINFO, m_pPassword) == 76,
              "client info layout");
static_assert(sizeof(MF_STANDBY_TCP_COMMAND) == 22, "standby command is 22 bytes");
static_assert(offsetof(MF_STANDBY_TCP_COMMAND, m_nTimestamp) == 6 && offsetof(MF_STANDBY_TCP_COMMAND, m_nLogNo) == 14 &&
                  offsetof(MF_STANDBY_TCP_COMMAND, m_nReadPos) == 18,
              "standby command layout");
