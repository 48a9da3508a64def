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
    NODEMSG_SLAVE_CLEAR = 35,     // the joining slave drops all its data
    NODEMSG_SLAVE_RELOAD = 36,    // the joining slave loads the copied files
    NODEMSG_FILETRANSFER = 37,    // a file's information or a piece of its data
    NODEMSG_STANDBY_CLEAR = 38,   // the joining standby drops all its data
    NODEMSG_STANDBY_RELOAD = 39,  // the joining standby loads them and learns its log position
    NODEMSG_SLAVE_RESTORE = 63,   // the joining slave goes on from its local logs
};

// m_bDataType of MF_CLUSTER_FILETRANSFER.
enum : BYTE {
    FILETRANSFER_INFO = 1,  // STRUCT_MASTERSLAVE_FILEINFO follows
    FILETRANSFER_DATA = 2,  // a piece of data follows, more to come
    FILETRANSFER_LAST = 3,  // the last piece of data follows
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

// The parameters of a cluster message: only m_ulIP and m_nTimestamp are
// filled by this node, every other field is 0.
typedef struct _MF_CLUSTER_COMMAND {
    UINT m_ulIP;
    USHORT m_usPort;
    BYTE m_bResult;
    BYTE m_bTXIsolation;
    long long m_nTimestamp;
    long long m_nClusterToken;
    UINT m_nSessionID;
    BYTE m_bForeignKeyChecks;
    BYTE m_bUniqueChecks;
    USHORT m_usTransactionNO;
    BYTE m_bProtocolType;
    BYTE m_bProtocolSeqNo;
    BYTE m_bMoreResults;
    BYTE m_bAutocommit;
    BYTE m_bConnectNet;
    BYTE m_bTransaction;
    BYTE m_bTriggerFlag;
    BYTE m_bTalvorSlave;
    BYTE m_bDatabaseNo;
    BYTE m_bClusterAuto;
    BYTE m_bRSCTwophaseCommit;
    BYTE m_bReserved;
    union {
        long long m_nMinTransactionTimestamp;
        struct {
            int m_nBufferCacheSize;
            int m_nReserved;
        };
    };
    union {
        long long m_nMaxTransactionTimestamp;
        long long m_nTalvorSlaveLastInsertID;
    };
    union {
        long long m_nSafeTimestamp;
        struct {
            UINT m_nUserID;
            UINT m_nClientCapabilities;
        };
    };
    long long m_nClusterTimestampEndVal;
} MF_CLUSTER_COMMAND, *LPMF_CLUSTER_COMMAND;

// The parameters of a file transfer message.
typedef struct _MF_CLUSTER_FILETRANSFER {
    BYTE m_bFileNo;
    BYTE m_bDataType;         // FILETRANSFER_*
    BYTE m_bReserved[2];
    long long m_llFileOffset; // of the piece; 0 with FILETRANSFER_INFO
    UINT m_ulIP;              // the sending node
} MF_CLUSTER_FILETRANSFER, *LPMF_CLUSTER_FILETRANSFER;

// The payload of a file's information message.
typedef struct _STRUCT_MASTERSLAVE_FILEINFO {
    BYTE m_bFileType;
    BYTE m_bFileNo;
    BYTE m_bReserved[2];
    long long m_nFileSize;              // the whole file
    long long m_nFileFreeMemoryOffset;  // the bytes in use: only these are sent
    char m_lpszTablespaceName[64];
    char m_lpszFilePath[256];
} STRUCT_MASTERSLAVE_FILEINFO, MF_MASTERSLAVE_FILEINFO, *LPMF_MASTERSLAVE_FILEINFO;

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
static_assert(sizeof(MF_CLUSTER_COMMAND) == 76, "cluster command is 76 bytes");
static_assert(offsetof(MF_CLUSTER_COMMAND, m_usPort) == 4 && offsetof(MF_CLUSTER_COMMAND, m_nTimestamp) == 8 &&
                  offsetof(MF_CLUSTER_COMMAND, m_nClusterToken) == 16 && offsetof(MF_CLUSTER_COMMAND, m_nSessionID) == 24 &&
                  offsetof(MF_CLUSTER_COMMAND, m_usTransactionNO) == 30 &&
                  offsetof(MF_CLUSTER_COMMAND, m_bProtocolType) == 32 && offsetof(MF_CLUSTER_COMMAND, m_bReserved) == 43 &&
                  offsetof(MF_CLUSTER_COMMAND, m_nMinTransactionTimestamp) == 44 &&
                  offsetof(MF_CLUSTER_COMMAND, m_nMaxTransactionTimestamp) == 52 &&
                  offsetof(MF_CLUSTER_COMMAND, m_nSafeTimestamp) == 60 &&
                  offsetof(MF_CLUSTER_COMMAND, m_nClusterTimestampEndVal) == 68,
              "cluster command layout");
static_assert(sizeof(MF_CLUSTER_FILETRANSFER) == 16, "file transfer parameters are 16 bytes");
static_assert(offsetof(MF_CLUSTER_FILETRANSFER, m_bDataType) == 1 &&
                  offsetof(MF_CLUSTER_FILETRANSFER, m_llFileOffset) == 4 && offsetof(MF_CLUSTER_FILETRANSFER, m_ulIP) == 12,
              "file transfer layout");
static_assert(sizeof(STRUCT_MASTERSLAVE_FILEINFO) == 340, "file information is 340 bytes");
static_assert(offsetof(STRUCT_MASTERSLAVE_FILEINFO, m_bFileNo) == 1 &&
                  offsetof(STRUCT_MASTERSLAVE_FILEINFO, m_nFileSize) == 4 &&
                  offsetof(STRUCT_MASTERSLAVE_FILEINFO, m_nFileFreeMemoryOffset) == 12 &&
                  offsetof(STRUCT_MASTERSLAVE_FILEINFO, m_lpszTablespaceName) == 20 &&
                  offsetof(STRUCT_MASTERSLAVE_FILEINFO, m_lpszFilePath) == 84,
              "file information layout");
static_assert(sizeof(MF_CLUSTER_COMMAND) <= sizeof(((MF_SERVICE_TCP_COMMAND*)nullptr)->m_lpszParam),
              "cluster command fits the head's parameters");
