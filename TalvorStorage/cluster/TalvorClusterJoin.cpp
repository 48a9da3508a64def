// TalvorClusterJoin.cpp — the copy of a join: each file as its information
// and its used bytes in pieces of the buffer, the steps of a slave's and of
// a standby's join, and the progress the engine watches meanwhile.
#include "TalvorClusterFiletransfer.h"

#include "TalvorTrace.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const int FILE_SLOTS = 256;
const int READ_ALIGN = 512;
// m_nPos of the steps before the copy, and how far before the end the
// steps after it stand.
const int POS_CONNECT = 0, POS_CLEAR_SENT = 10, POS_CLEAR_DONE = 15, POS_COPY = 50;
const int POS_RELOAD_BEFORE_END = 40, POS_RESTORE_BEFORE_END = 30;
const long long MIB = 1048576;

// What differs between the join of a slave and of a standby.
struct JoinKind {
    BOOL m_bStandby;
    const char* m_lpConnecting;
    const char* m_lpResetting;
    const char* m_lpTransferred;
    const char* m_lpDone;
    BYTE m_bClear, m_bReload;
    LONG m_nClearFailed, m_nCleared, m_nNoBuffer, m_nFileCopied, m_nAllCopied, m_nReloadFailed, m_nReloaded;
    const char* m_lpFunction;
};

const JoinKind SLAVE = {FALSE, "Connecting slave node...", "Slave node system reset...",
                        "The slave node files have been transferred...", "Slave node has been restored...",
                        NODEMSG_SLAVE_CLEAR, NODEMSG_SLAVE_RELOAD, 90001002, 90001001, 90001009, 90001010, 90001011,
                        90001021, 90001020, "ClusterAddNewNode"};
const JoinKind STANDBY = {TRUE, "Connecting Standby node...", "Standby node system reset...",
                          "Standby node files have been transferred...", "Standby node has been established",
                          NODEMSG_STANDBY_CLEAR, NODEMSG_STANDBY_RELOAD, 90007002, 90007001, 90007009, 90007010,
                          90007011, 90007021, 90007020, "ClusterAddStandbyNodeCore"};

void SetPos(LPTALVORPROGRESS lpProgress, long long nPos)
{
    // The engine shows the position while the transfer goes on.
    if (lpProgress != nullptr)
        TalvorStoreShared(&lpProgress->m_nPos, nPos > JOIN_PROGRESS_CAP ? JOIN_PROGRESS_CAP : nPos);
}

void Step(LPTALVORPROGRESS lpProgress, const char* lpTitle, long long nPos)
{
    if (lpTitle != nullptr) JoinSetTitle(lpProgress, lpTitle);
    SetPos(lpProgress, nPos);
}

// The used bytes of a file as the storage object gives them, held to the
// file: an image that claims more than the file has sends the whole file.
long long UsedBytes(LPFILEINFO p)
{
    long long nFree = p->m_pStorageFile->GetFreeMemoryOffset(p);
    if (nFree < 0) return 0;
    return nFree > p->m_liFileSize ? p->m_liFileSize : nFree;
}

// How much to read for a piece of nPiece bytes at nPos: whole sectors for a
// file opened for direct reads, but never past the file's end.
int ReadSize(LPFILEINFO p, long long nPos, int nPiece)
{
    long long nRound = ((long long)nPiece + READ_ALIGN - 1) / READ_ALIGN * READ_ALIGN;
    return nPos + nRound <= p->m_liFileSize ? (int)nRound : nPiece;
}

const char* PathOf(LPFILEINFO p) { return p->m_lpszFilePath; }

} // namespace

int CTalvorClusterFiletransfer::SendFileDataToNewNode(LPTALVORCRITICALSECTION lpCritSection,
                                                      LPTALVORPROGRESS lpTalvorProgress, LPFILEINFO lpFileInfo,
                                                      char* lpBuffer, int nBufferSize, int& sk, UINT ulIP,
                                                      USHORT usPort, UINT ulLocalIP, long long& nTotalSize)
{
    char szPath[sizeof(lpFileInfo->m_lpszFilePath) + 1] = {0};
    memcpy(szPath, lpFileInfo->m_lpszFilePath, sizeof(lpFileInfo->m_lpszFilePath));
    JoinSetTitle(lpTalvorProgress, szPath);
    MF_MASTERSLAVE_FILEINFO stInfo;
    memset(&stInfo, 0, sizeof(stInfo));
    stInfo.m_bFileType = (BYTE)lpFileInfo->m_bFileType;
    stInfo.m_bFileNo = lpFileInfo->m_bFileNo;
    stInfo.m_nFileSize = m_pStorage != nullptr ? m_pStorage->JoinFileSize(lpFileInfo) : lpFileInfo->m_liFileSize;
    stInfo.m_nFileFreeMemoryOffset = UsedBytes(lpFileInfo);
    memcpy(stInfo.m_lpszTablespaceName, lpFileInfo->m_lpszTablespaceName, sizeof(stInfo.m_lpszTablespaceName) - 1);
    memcpy(stInfo.m_lpszFilePath, lpFileInfo->m_lpszFilePath, sizeof(stInfo.m_lpszFilePath) - 1);
    long long nLeft = stInfo.m_nFileFreeMemoryOffset;

    BYTE bToken = CreateRandomFactor();
    MF_SERVICE_TCP_COMMAND stHead;
    BuildHead(stHead, NODEMSG_FILETRANSFER, bToken, (UINT)sizeof(stInfo));
    MF_CLUSTER_FILETRANSFER stParam;
    memset(&stParam, 0, sizeof(stParam));
    stParam.m_bFileNo = lpFileInfo->m_bFileNo;
    stParam.m_bDataType = FILETRANSFER_INFO;
    stParam.m_ulIP = ulLocalIP;
    memcpy(stHead.m_lpszParam, &stParam, sizeof(stParam));
    int nSent = SendData(sk, (char*)&stHead, (int)sizeof(stHead), ulIP, usPort, TRUE);
    if (nSent != (int)sizeof(stHead)) {
        Trace("SendFileDataToNewNode", 1, 90002002,
              TALVOR_TEXT("文件复制命令失败,错误码:%d,路径:%s", "File copy command failed, error code: %d, path: %s"), nSent,
              szPath);
        return JOINFILE_FAILED;
    }
    nSent = SendData(sk, (char*)&stInfo, (int)sizeof(stInfo), ulIP, usPort, FALSE);
    if (nSent == JOINSEND_RECONNECTED) return JOINFILE_REPEAT;
    if (nSent != (int)sizeof(stInfo)) return JOINFILE_FAILED;

    MF_SERVICE_TCP_COMMAND stReply;
    if (RecvTcpCmd(sk, ulIP, usPort, bToken, stReply) != 0) {
        Trace("SendFileDataToNewNode", 1, 90002003,
              TALVOR_TEXT("与节点[%d.%d.%d.%d:%u]接收复制文件结果失败,错误码:%d,路径:%s",
                          "With node [%d.%d.%d.%d:%u] failed to accept copy file result, error code: %d, path: %s"),
              JOIN_ADDR(ulIP, usPort), errno, szPath);
        return RepeatOnNewConnection(sk, ulIP, usPort);
    }
    if (stReply.m_bType != NODEMSG_SUCCESS) {
        Trace("SendFileDataToNewNode", 1, 90002004,
              TALVOR_TEXT("节点[%d.%d.%d.%d:%u]执行复制文件失败,错误码:%d,路径:%s",
                          "The node [%d.%d.%d.%d:%u] failed to execute the copy file, the error code: %d, the path: %s"),
              JOIN_ADDR(ulIP, usPort), stReply.m_lDigitalData, szPath);
        return JOINFILE_FAILED;
    }

    for (long long nPos = 0; nLeft > 0;) {
        if (StopAsked()) return JOINFILE_FAILED;
        BOOL bLast = nLeft <= nBufferSize;
        int nPiece = bLast ? (int)nLeft : nBufferSize;
        stParam.m_bDataType = bLast ? FILETRANSFER_LAST : FILETRANSFER_DATA;
        stParam.m_llFileOffset = nPos;
        stHead.m_lDataLength = (UINT)nPiece;
        memcpy(stHead.m_lpszParam, &stParam, sizeof(stParam));
        int nRead = lpFileInfo->m_pStorageFile->ReadBlock(lpCritSection, nPos, (LPBYTE)lpBuffer,
                                                          ReadSize(lpFileInfo, nPos, nPiece));
        if (nRead != 0) {
            Trace("SendFileDataToNewNode", 1, 90002010,
                  TALVOR_TEXT("从物理文件读取数据失败,错误码:%d,路径:%s,设置位置:%lld,返回值:%d",
                              "Failed to read data from physical file, error code: %d, path: %s, set location: %lld, return value: %d"),
                  errno, szPath, nPos, nRead);
            return JOINFILE_FAILED;
        }
        // Either send failing leaves the peer with part of a piece: the
        // file starts over on a new connection, or the join ends.
        for (int nPart = 0; nPart < 2; nPart++) {
            char* lpPart = nPart == 0 ? (char*)&stHead : lpBuffer;
            int nPartSize = nPart == 0 ? (int)sizeof(stHead) : nPiece;
            nSent = SendData(sk, lpPart, nPartSize, ulIP, usPort, FALSE);
            if (nSent == JOINSEND_RECONNECTED) return JOINFILE_REPEAT;
            if (nSent == nPartSize) continue;
            Trace("SendFileDataToNewNode", 1, nPart == 0 ? 90002011 : 90002012,
                  TALVOR_TEXT("与节点[%d.%d.%d.%d:%u]发送复制文件命令失败,错误码:%d,路径:%s",
                              "With node [%d.%d.%d.%d:%u] failed to send copy file command , error code: %d, path: %s"),
                  JOIN_ADDR(ulIP, usPort), nSent, szPath);
            return JOINFILE_FAILED;
        }
        nPos += nPiece;
        nLeft -= nPiece;
        nTotalSize += nPiece;
        SetPos(lpTalvorProgress, nTotalSize >> 20);
    }

    if (RecvTcpCmd(sk, ulIP, usPort, bToken, stReply) != 0) {
        Trace("SendFileDataToNewNode", 1, 90002020,
              TALVOR_TEXT("节点[%d.%d.%d.%d:%u]接收复制文件结果失败,错误码:%d,路径:%s",
                          "node [%d.%d.%d.%d:%u] failed to accept copy file result, error code: %d, path: %s"),
              JOIN_ADDR(ulIP, usPort), errno, szPath);
        return RepeatOnNewConnection(sk, ulIP, usPort);
    }
    nTotalSize += stInfo.m_nFileSize - stInfo.m_nFileFreeMemoryOffset;
    SetPos(lpTalvorProgress, nTotalSize >> 20);
    if (stReply.m_bType == NODEMSG_SUCCESS) return JOINFILE_DONE;
    Trace("SendFileDataToNewNode", 1, 90002021,
          TALVOR_TEXT("节点[%d.%d.%d.%d:%u]执行复制文件失败,错误码:%d,路径:%s",
                      "Node [%d.%d.%d.%d:%u] failed to execute copy file, error code: %d, path: %s"),
          JOIN_ADDR(ulIP, usPort), stReply.m_lDigitalData, szPath);
    return JOINFILE_FAILED;
}

namespace {

// m_nTotal of a join: the files in MiB and 100 for the steps around them.
int JoinTotal(ITalvorJoinSource* pStorage, BOOL bStandby)
{
    long long nBytes = 0;
    for (int i = 0; i < FILE_SLOTS; i++) {
        LPFILEINFO p = pStorage->JoinFileInfo(i);
        if (p == nullptr || (bStandby && p->m_pStorageFile == nullptr)) continue;
        nBytes += p->m_liFileSize;
    }
    long long nTotal = nBytes / MIB + 100;
    return (int)(nTotal > JOIN_PROGRESS_CAP ? JOIN_PROGRESS_CAP : nTotal);
}

void TraceNode(const char* lpFunction, LONG nCode, LONG nLevel, const char* lpZh, const char* lpEn, UINT ulIP,
               USHORT usPort)
{
    Trace(lpFunction, nLevel, nCode, TALVOR_TEXT(lpZh, lpEn), JOIN_ADDR(ulIP, usPort));
}

// The steps of a join, for a slave or a standby. 0 or 1.
class CJoinRun {
public:
    CJoinRun(CTalvorClusterFiletransfer* pXfer, const JoinKind& kind, LPTALVORCRITICALSECTION lpCrit,
             LPTALVORPROGRESS lpProgress, UINT ulLocalIP, UINT ulIP, USHORT usPort)
        : m_p(pXfer), m_k(kind), m_lpCrit(lpCrit), m_lpProgress(lpProgress), m_ulLocalIP(ulLocalIP), m_ulIP(ulIP),
          m_usPort(usPort)
    {
    }
    ~CJoinRun()
    {
        free(m_lpBuffer);
        if (m_sk >= 0) close(m_sk);
    }

    BOOL Connect()
    {
        if (m_lpProgress != nullptr) m_lpProgress->m_nTotal = JoinTotal(m_p->m_pStorage, m_k.m_bStandby);
        Step(m_lpProgress, m_k.m_lpConnecting, POS_CONNECT);
        m_sk = m_p->ConnectSlaveService(m_ulIP, m_usPort);
        return m_sk >= 0;
    }

    // A message of bType with its parameters and a success reply.
    BOOL Exchange(BYTE bType, const void* lpParam, int nParamSize, LONG nFailCode)
    {
        MF_SERVICE_TCP_COMMAND stHead, stReply;
        BYTE bToken = m_p->CreateRandomFactor();
        m_p->BuildHead(stHead, bType, bToken, 0);
        if (lpParam != nullptr) memcpy(stHead.m_lpszParam, lpParam, (size_t)nParamSize);
        BOOL bDone = m_p->SendData(m_sk, (char*)&stHead, (int)sizeof(stHead), m_ulIP, m_usPort, TRUE) ==
                         (int)sizeof(stHead) &&
                     m_sk >= 0 && m_p->RecvTcpCmd(m_sk, m_ulIP, m_usPort, bToken, stReply) == 0 &&
                     stReply.m_bType == NODEMSG_SUCCESS && stReply.m_lDataLength == 0;
        if (!bDone)
            TraceNode(m_k.m_lpFunction, nFailCode, 4, "连接节点[%d.%d.%d.%d:%u]失败!",
                      "Failed to connect to node [%d.%d.%d.%d:%u]!", m_ulIP, m_usPort);
        return bDone;
    }

    BOOL Clear()
    {
        Step(m_lpProgress, m_k.m_lpResetting, POS_CLEAR_SENT);
        MF_CLUSTER_COMMAND stParam;
        memset(&stParam, 0, sizeof(stParam));
        stParam.m_ulIP = m_ulLocalIP;
        BOOL bDone = m_k.m_bStandby ? Exchange(m_k.m_bClear, nullptr, 0, m_k.m_nClearFailed)
                                    : Exchange(m_k.m_bClear, &stParam, (int)sizeof(stParam), m_k.m_nClearFailed);
        if (!bDone) return FALSE;
        Step(m_lpProgress, nullptr, POS_CLEAR_DONE);
        Trace(m_k.m_lpFunction, 3, m_k.m_nCleared,
              m_k.m_bStandby ? TALVOR_TEXT("备用服务器[%d.%d.%d.%d:%u]已清除所有数据",
                                           "The Standby server[%d.%d.%d.%d:%u] has cleared all data")
                             : TALVOR_TEXT("从节点[%d.%d.%d.%d:%u]已清除所有数据",
                                           "The slave node[%d.%d.%d.%d:%u] has cleared all data"),
              JOIN_ADDR(m_ulIP, m_usPort));
        return TRUE;
    }

    BOOL CopyFiles();
    BOOL Reload(const void* lpParam, int nParamSize)
    {
        if (m_lpProgress != nullptr) Step(m_lpProgress, m_k.m_lpTransferred, m_lpProgress->m_nTotal - POS_RELOAD_BEFORE_END);
        if (!Exchange(m_k.m_bReload, lpParam, nParamSize, m_k.m_nReloadFailed)) return FALSE;
        Trace(m_k.m_lpFunction, 3, m_k.m_nReloaded,
              m_k.m_bStandby ? TALVOR_TEXT("备用服务器[%d.%d.%d.%d:%u]已重新加载所有数据",
                                           "The Standby server[%d.%d.%d.%d:%u] has reloaded all data")
                             : TALVOR_TEXT("从节点[%d.%d.%d.%d:%u]已重新加载所有数据",
                                           "The slave node[%d.%d.%d.%d:%u] has reloaded all data"),
              JOIN_ADDR(m_ulIP, m_usPort));
        return TRUE;
    }

    CTalvorClusterFiletransfer* m_p;
    const JoinKind& m_k;
    LPTALVORCRITICALSECTION m_lpCrit;
    LPTALVORPROGRESS m_lpProgress;
    UINT m_ulLocalIP, m_ulIP;
    USHORT m_usPort;
    int m_sk = -1;
    char* m_lpBuffer = nullptr;

private:
    BOOL CopyOneFile(LPFILEINFO p, long long& nTotalSize);
};

// One file, repeated on a new connection while the connection breaks under
// it, at most JOIN_FILE_REPEATS times: a peer whose connection keeps
// breaking must not hold the storage thread for ever.
BOOL CJoinRun::CopyOneFile(LPFILEINFO p, long long& nTotalSize)
{
    long long nStartTotal = nTotalSize;
    for (int nRepeat = 0;; nRepeat++) {
        int nResult = m_p->SendFileDataToNewNode(m_lpCrit, m_lpProgress, p, m_lpBuffer, JOIN_BUFFER_SIZE, m_sk, m_ulIP,
                                                 m_usPort, m_ulLocalIP, nTotalSize);
        if (nResult == JOINFILE_DONE) return TRUE;
        if (nResult != JOINFILE_REPEAT) return FALSE;
        nTotalSize = nStartTotal;
        if (nRepeat >= JOIN_FILE_REPEATS) {
            Trace(m_k.m_lpFunction, 1, 90002030,
                  TALVOR_TEXT("与节点[%d.%d.%d.%d:%u]的连接在复制文件时断开了%d次,放弃加入,文件号:%d,路径:%s",
                              "The connection to node [%d.%d.%d.%d:%u] broke %d times while a file was copied: the join is given up, file number: %d, path: %s"),
                  JOIN_ADDR(m_ulIP, m_usPort), nRepeat + 1, (int)p->m_bFileNo, PathOf(p));
            return FALSE;
        }
        Trace(m_k.m_lpFunction, 4, 90002031,
              TALVOR_TEXT("与节点[%d.%d.%d.%d:%u]的连接断开,文件重新复制,文件号:%d,路径:%s",
                          "The connection to node [%d.%d.%d.%d:%u] broke: the file is copied again, file number: %d, path: %s"),
              JOIN_ADDR(m_ulIP, m_usPort), (int)p->m_bFileNo, PathOf(p));
    }
}

BOOL CJoinRun::CopyFiles()
{
    Step(m_lpProgress, nullptr, POS_COPY);
    long long nTotalSize = JOIN_PROGRESS_START;
    m_lpBuffer = (char*)memalign(READ_ALIGN, JOIN_BUFFER_SIZE);
    if (m_lpBuffer == nullptr) {
        Trace(m_k.m_lpFunction, 3, m_k.m_nNoBuffer,
              m_k.m_bStandby ? TALVOR_TEXT("备用服务器[%d.%d.%d.%d:%u]复制数据文件时分配内存失败(%d) ",
                                           "The Standby server[%d.%d.%d.%d:%u] failed to allocate memory when copying data files (%d) ")
                             : TALVOR_TEXT("从节点[%d.%d.%d.%d:%u]复制数据文件时分配内存失败(%d) ",
                                           "The slave node[%d.%d.%d.%d:%u] failed to allocate memory when copying data files (%d) "),
              JOIN_ADDR(m_ulIP, m_usPort), JOIN_BUFFER_SIZE);
        return FALSE;
    }
    for (int i = 0; i < FILE_SLOTS; i++) {
        LPFILEINFO p = m_p->m_pStorage->JoinFileInfo(i);
        if (p == nullptr || p->m_pStorageFile == nullptr) continue;
        if (!CopyOneFile(p, nTotalSize)) return FALSE;
        Trace(m_k.m_lpFunction, 3, m_k.m_nFileCopied,
              m_k.m_bStandby ? TALVOR_TEXT("备份服务器[%d.%d.%d.%d:%u]已复制数据文件,文件号:%d,文件路径:%s",
                                           "Backup server [%d.%d.%d.%d:%u] has copied data file, file number: %d, file path: %s")
                             : TALVOR_TEXT("从节点[%d.%d.%d.%d:%u]已复制数据文件,文件号:%d,文件路径:%s",
                                           "The slave node[%d.%d.%d.%d:%u] has copied the data file, file number: %d, file path: %s"),
              JOIN_ADDR(m_ulIP, m_usPort), (int)p->m_bFileNo, PathOf(p));
    }
    free(m_lpBuffer);
    m_lpBuffer = nullptr;
    Trace(m_k.m_lpFunction, 3, m_k.m_nAllCopied,
          m_k.m_bStandby ? TALVOR_TEXT("备用服务器[%d.%d.%d.%d:%u]已复制所有数据", "The Standby server[%d.%d.%d.%d:%u] has copied all data")
                         : TALVOR_TEXT("从节点[%d.%d.%d.%d:%u]已复制所有数据", "The slave node[%d.%d.%d.%d:%u] has copied all data"),
          JOIN_ADDR(m_ulIP, m_usPort));
    return TRUE;
}

} // namespace

int CTalvorClusterFiletransfer::ClusterAddNewNodeCore(LPTALVORCRITICALSECTION lpCritSection,
                                                      LPTALVORPROGRESS lpTalvorProgress, UINT ulLocalIP, UINT ulIP,
                                                      USHORT usPort, long long nTimestamp)
{
    CJoinRun run(this, SLAVE, lpCritSection, lpTalvorProgress, ulLocalIP, ulIP, usPort);
    MF_CLUSTER_COMMAND stParam;
    memset(&stParam, 0, sizeof(stParam));
    stParam.m_ulIP = ulLocalIP;
    if (!run.Connect() || !run.Clear() || !run.CopyFiles() || !run.Reload(&stParam, (int)sizeof(stParam))) return 1;
    if (lpTalvorProgress != nullptr)
        Step(lpTalvorProgress, "Slave node is restoring by using local logs...",
             lpTalvorProgress->m_nTotal - POS_RESTORE_BEFORE_END);
    if (ClusterTcpCommunication(nullptr, 0, NODEMSG_SLAVE_RESTORE, run.m_sk, ulIP, usPort, nTimestamp, ulLocalIP) != 0)
        return 1;
    if (lpTalvorProgress != nullptr) Step(lpTalvorProgress, SLAVE.m_lpDone, lpTalvorProgress->m_nTotal);
    close(run.m_sk);
    run.m_sk = -1;
    Trace("ClusterAddNewNode", 3, 90001030,
          TALVOR_TEXT("从节点[%d.%d.%d.%d:%u]已重建,下一步使用本地日志继续恢复并关闭对应的Socket连接",
                      "The slave node[%d.%d.%d.%d:%u] has been rebuilt, the next step is to continue the recovery using the local logs and close the corresponding Socket connection"),
          JOIN_ADDR(ulIP, usPort));
    return 0;
}

int CTalvorClusterFiletransfer::ClusterAddStandbyNodeCore(LPTALVORCRITICALSECTION lpCritSection,
                                                          LPTALVORPROGRESS lpTalvorProgress, UINT ulLocalIP, UINT ulIP,
                                                          USHORT usPort, long long nTimestamp, UINT nLogNo,
                                                          UINT nLogPos)
{
    CJoinRun run(this, STANDBY, lpCritSection, lpTalvorProgress, ulLocalIP, ulIP, usPort);
    MF_STANDBY_TCP_COMMAND stParam;
    memset(&stParam, 0, sizeof(stParam));
    stParam.m_ulIP = ulLocalIP;
    stParam.m_usPort = usPort;
    stParam.m_nTimestamp = nTimestamp;
    stParam.m_nLogNo = nLogNo;
    stParam.m_nReadPos = nLogPos;
    if (!run.Connect() || !run.Clear() || !run.CopyFiles() || !run.Reload(&stParam, (int)sizeof(stParam))) return 1;
    if (lpTalvorProgress != nullptr) Step(lpTalvorProgress, STANDBY.m_lpDone, lpTalvorProgress->m_nTotal);
    close(run.m_sk);
    run.m_sk = -1;
    Trace("ClusterAddStandbyNodeCore", 3, 90007030,
          TALVOR_TEXT("备用服务器[%d.%d.%d.%d:%u]已建立,对应的Socket连接已关闭",
                      "The Standby server [%d.%d.%d.%d:%u] has established, and the corresponding Socket connection was closed"),
          JOIN_ADDR(ulIP, usPort));
    return 0;
}

int CTalvorClusterFiletransfer::ClusterAddNewNode(LPTALVORCRITICALSECTION lpCritSection, ITalvorJoinSource* pStorage,
                                                  LPTALVORPROGRESS lpTalvorProgress, UINT ulLocalIP, UINT ulIP,
                                                  USHORT usPort, long long nTimestamp, BOOL bStandby, UINT nLogNo,
                                                  UINT nLogPos)
{
    CTalvorClusterFiletransfer stXfer;
    stXfer.m_pStorage = pStorage;
    if (bStandby)
        return stXfer.ClusterAddStandbyNodeCore(lpCritSection, lpTalvorProgress, ulLocalIP, ulIP, usPort, nTimestamp,
                                                nLogNo, nLogPos);
    return stXfer.ClusterAddNewNodeCore(lpCritSection, lpTalvorProgress, ulLocalIP, ulIP, usPort, nTimestamp);
}
