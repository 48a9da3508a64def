// PeerFileCommand.cpp — see PeerFileCommand.h.
#include "PeerFileCommand.h"

#include "DbFileLayout.h"
#include "PeerArgs.h"
#include "PeerImage.h"
#include "PeerJobs.h"

#include <cstdio>
#include <cstring>
#include <sys/shm.h>
#include <unistd.h>
#include <vector>

namespace talvorpeer {

namespace {

const long long POLL_US = 500;
const long long RESIZE_STEP = 4 * DB_MIB;
const long long ASKER_TIMEOUT_MS = 30000;

struct RowAt {
    LPSYSTEMBLOCKHEAD m_lpBlock = nullptr;
    LPFILE_MEMDBFILEINFO m_lpRow = nullptr;
};

// The live row of bFileNo; with bDropped, a dropped one instead.
RowAt FindRow(CPeerEngine& engine, BYTE bFileNo, bool bDropped)
{
    RowAt at;
    DbForEachFileListRow(engine.m_lpSystem, engine.m_nSystemSize, [&](LPSYSTEMBLOCKHEAD lpBlock, LPFILE_MEMDBFILEINFO lpRow) {
        if (lpRow->m_bFileNo != bFileNo || (lpRow->m_bDropFlag == 1) != bDropped) return true;
        at.m_lpBlock = lpBlock;
        at.m_lpRow = lpRow;
        return false;
    });
    return at;
}

bool HasRoom(LPSYSTEMBLOCKHEAD lpBlock)
{
    long long nEnd = (long long)lpBlock->m_nBlockHeadSize + (long long)(lpBlock->m_nDataNum + 1) * sizeof(FILE_MEMDBFILEINFO);
    return lpBlock->m_nDataNum >= 0 && nEnd <= lpBlock->m_nBlockSize;
}

// A new row at the end of a list block with room (the block of the free
// chain first, as the engine fills it), zeroed and not yet counted.
RowAt AppendRow(CPeerEngine& engine)
{
    RowAt at;
    LPBYTE lpImage = engine.m_lpSystem;
    long long nSize = engine.m_nSystemSize;
    LPBASEFILEOBJECTDEF lpObject = DbFileListObject(engine.Head());
    long long arFirst[2] = {lpObject->m_nFreeBlockMapOffset, lpObject->m_nFullBlockMapOffset};
    for (long long nFirst : arFirst) {
        if (at.m_lpBlock != nullptr) break;
        DbWalkMapChain(lpImage, nSize, nFirst, 0, nullptr, [&](long long, LPBASEFILEBLOCKMAP lpEntry) {
            long long nBlock = lpEntry->m_nBlockOffset;
            if (!DbSystemBlockFits(lpImage, nSize, nBlock)) return false;
            LPSYSTEMBLOCKHEAD lpBlock = (LPSYSTEMBLOCKHEAD)(lpImage + nBlock);
            if (lpBlock->m_nBlockDataStructSize != (int)sizeof(FILE_MEMDBFILEINFO) || !HasRoom(lpBlock)) return true;
            at.m_lpBlock = lpBlock;
            return false;
        });
    }
    if (at.m_lpBlock == nullptr) return at;
    at.m_lpRow = (LPFILE_MEMDBFILEINFO)((LPBYTE)at.m_lpBlock + at.m_lpBlock->m_nBlockHeadSize +
                                        (long long)at.m_lpBlock->m_nDataNum * sizeof(FILE_MEMDBFILEINFO));
    memset(at.m_lpRow, 0, sizeof(FILE_MEMDBFILEINFO));
    return at;
}

// One transaction that marks the list block and the list object changed,
// so that the next pass writes the list as it stands.
void MarkListChanged(CPeerEngine& engine, LPSYSTEMBLOCKHEAD lpBlock)
{
    LPSYSTEMFILEHEAD lpHead = engine.Head();
    long long ts = TalvorLoadShared(&lpHead->m_nEndTimestamp) + 1;
    TalvorStoreShared(&lpBlock->m_nTimestamp, ts);
    TalvorStoreShared(&lpBlock->m_bSaveFlag, 1);
    LPBASEFILEOBJECTDEF lpObject = DbFileListObject(lpHead);
    TalvorStoreShared(&lpObject->m_nFinishedTimestamp, ts);
    TalvorStoreShared(&lpObject->m_bSaveFlag, 1);
    PeerFence();
    TalvorStoreShared(&lpHead->m_nTimestamp, ts);
    TalvorStoreShared(&lpHead->m_nEndTimestamp, ts);
}

void SetText(char* lpField, size_t nField, const std::string& str)
{
    memset(lpField, 0, nField);
    memcpy(lpField, str.data(), str.size() < nField ? str.size() : nField);
}

// Posts storage command 1 and waits for 32; false when it did not come.
bool RunFileCommands(CPeerEngine& engine, bool bLive, long long nTimeoutMs)
{
    LPSYSTEMFILEHEAD lpHead = engine.Head();
    PeerFence();
    TalvorStoreShared(&lpHead->m_bStorageCMD, STORAGECMD_FILECMD);
    SetEvent(engine.m_hStorage);
    for (long long nWaited = 0; nWaited < nTimeoutMs * 1000; nWaited += POLL_US) {
        if (TalvorLoadShared(&lpHead->m_bStorageCMD) == STORAGECMD_FINISHED) return true;
        if (bLive) engine.ServeChannel();
        usleep((useconds_t)POLL_US);
    }
    return TalvorLoadShared(&lpHead->m_bStorageCMD) == STORAGECMD_FINISHED;
}

// The engine completes the head of a memory-mode file the daemon made: the
// head, its objects, the maps and the first block, as a new file is laid
// out, all of it marked to be saved at nTimestamp. False when the image
// cannot be had or the layout does not fit.
bool FormatNewMemoryFile(CPeerEngine& engine, const PeerFileRequest& request, long long nTimestamp)
{
    int nId = shmget(FileImageShmKey(request.m_bFileNo), 0, 0);
    struct shmid_ds ds;
    if (nId < 0 || shmctl(nId, IPC_STAT, &ds) != 0) return false;
    long long nSize = (long long)ds.shm_segsz;
    DBMEMFILEPLAN stPlan;
    if (!DbPlanMemoryFile(request.m_bFileType, nSize, request.m_nMaxObjectNum, DbDefaultBlockSize(request.m_bFileType),
                          &stPlan))
        return false;
    std::vector<BYTE> vLayout((size_t)stPlan.m_nFreeOffset);
    if (!DbBuildMemoryFile(stPlan, request.m_bFileNo, engine.Head()->m_usDatabaseGuid, vLayout.data(),
                           stPlan.m_nFreeOffset))
        return false;
    void* p = shmat(nId, nullptr, 0);
    if (p == (void*)-1) return false;
    LPBYTE lpImage = (LPBYTE)p;
    // The body first, the head that points into it last.
    memcpy(lpImage + stPlan.m_nHeaderSize, vLayout.data() + stPlan.m_nHeaderSize,
           (size_t)(stPlan.m_nFreeOffset - stPlan.m_nHeaderSize));
    PeerForEachMapEntry(vLayout.data(), stPlan.m_nFreeOffset, [&](int, const BASEFILEBLOCKMAP* lpEntry) {
        LPBLOCKHEAD lpBlock = (LPBLOCKHEAD)(lpImage + lpEntry->m_nBlockOffset);
        TalvorStoreShared(&lpBlock->m_nTimestamp, nTimestamp);
        TalvorStoreShared(&lpBlock->m_bSaveFlag, 1);
    });
    PeerFence();
    memcpy(lpImage, vLayout.data(), (size_t)stPlan.m_nHeaderSize);
    LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)lpImage;
    for (int i = 0; i < lpHead->m_nMaxObjectNum; i++) {
        LPBASEFILEOBJECTDEF lpObject = DbMemoryFileObject(lpImage, nSize, i);
        if (lpObject == nullptr || lpObject->m_nID == 0) continue;
        TalvorStoreShared(&lpObject->m_nFinishedTimestamp, nTimestamp);
        TalvorStoreShared(&lpObject->m_bSaveFlag, 1);
    }
    TalvorStoreShared(&lpHead->m_nTimestamp, nTimestamp);
    TalvorStoreShared(&lpHead->m_bSaveFlag, 1);
    PeerFence();
    shmdt(p);
    return true;
}

} // namespace

int PeerAskFileCommand(CPeerEngine& engine, const PeerFileRequest& request, bool bLive, long long nTimeoutMs)
{
    bool bAdd = request.m_bCommand == FILECMD_ADD;
    RowAt at = FindRow(engine, request.m_bFileNo, bAdd);
    bool bAppended = false;
    if (bAdd && at.m_lpRow == nullptr) {
        at = AppendRow(engine);
        bAppended = true;
    }
    if (at.m_lpRow == nullptr) return PEERFILE_NO_ROW;
    LPFILE_MEMDBFILEINFO lpRow = at.m_lpRow;
    FILE_MEMDBFILEINFO stBefore;
    memcpy(&stBefore, lpRow, sizeof(stBefore));
    if (bAdd) {
        memset(lpRow, 0, sizeof(*lpRow));
        lpRow->m_bFileNo = request.m_bFileNo;
        lpRow->m_bFileType = request.m_bFileType;
        lpRow->m_nMaxObjectNum = request.m_nMaxObjectNum;
        SetText(lpRow->m_lpszTablespaceName, sizeof(lpRow->m_lpszTablespaceName), request.m_strName);
    }
    if (bAdd || request.m_bCommand == FILECMD_MOVE)
        SetText(lpRow->m_lpszFilePath, sizeof(lpRow->m_lpszFilePath), request.m_strPath);
    if (bAdd || request.m_bCommand == FILECMD_RESIZE) lpRow->m_nFileSize = request.m_nFileSize;
    PeerFence();
    lpRow->m_bFileCMD = request.m_bCommand;
    if (bAppended) {
        PeerFence();
        at.m_lpBlock->m_nDataNum = at.m_lpBlock->m_nDataNum + 1;
    }
    MarkListChanged(engine, at.m_lpBlock);
    if (!RunFileCommands(engine, bLive, nTimeoutMs)) return PEERFILE_UNANSWERED;
    int nResult = lpRow->m_bFileCMD;
    // The engine settles the row: a success stands; a refused add is no
    // file, a refused move or resize keeps what the file had. A refused move
    // of a file the daemon holds (failed, path taken) comes back naming the
    // file's present path, which the row before the request need not: it may
    // itself be a request a killed daemon never answered.
    if (nResult != FILECMD_NONE) {
        if (bAdd) {
            lpRow->m_bDropFlag = 1;
        } else {
            const bool bDaemonNamed = request.m_bCommand == FILECMD_MOVE &&
                                      (nResult == FILECMD_MOVE_FAILED || nResult == FILECMD_PATHTAKEN);
            if (!bDaemonNamed)
                memcpy(lpRow->m_lpszFilePath, stBefore.m_lpszFilePath, sizeof(lpRow->m_lpszFilePath));
            lpRow->m_nFileSize = stBefore.m_nFileSize;
        }
        PeerFence();
        lpRow->m_bFileCMD = FILECMD_NONE;
    } else if (request.m_bCommand == FILECMD_DELETE) {
        lpRow->m_bDropFlag = 1;
    } else if (bAdd && IsMemoryFileType(request.m_bFileType) &&
               !FormatNewMemoryFile(engine, request, TalvorLoadShared(&engine.Head()->m_nEndTimestamp) + 1)) {
        nResult = PEERFILE_NOT_FORMATTED;
    }
    MarkListChanged(engine, at.m_lpBlock);
    return nResult;
}

bool FileCommandAsker::Step(CPeerEngine& engine, long long nDone, bool bLive, bool bFree)
{
    if (m_nEvery > 0 && (nDone + 1) % m_nEvery == 0) m_bDue = true;
    if (!m_bDue || !bFree) return true;
    m_bDue = false;
    RowAt at = FindRow(engine, SYSTEMFILE_FILENO, false);
    if (at.m_lpRow == nullptr) return true;
    PeerFileRequest request;
    request.m_bCommand = FILECMD_RESIZE;
    request.m_bFileNo = SYSTEMFILE_FILENO;
    request.m_nFileSize = at.m_lpRow->m_nFileSize + RESIZE_STEP;
    m_nAsked++;
    m_nLastAnswer = PeerAskFileCommand(engine, request, bLive, ASKER_TIMEOUT_MS);
    if (m_nLastAnswer == PEERFILE_UNANSWERED)
        m_nUnanswered++;
    else if (m_nLastAnswer == FILECMD_NONE)
        m_nDone++;
    else
        m_nWrong++;
    return !Broken();
}

// ------------------------------------------------------------ the job

namespace {

const std::vector<OptionSpec> g_vFileOptions = {
    {"no", true, "file number (2 to 255)"},
    {"type", true, "add: file type: 2 data, 3 B-tree, 4 KV (memory mode), 10 table, 11 index (cache mode)"},
    {"path", true, "add, move: the file's path"},
    {"name", true, "add: the memory file name (default F<no>)"},
    {"size-mib", true, "add, resize: the file's size in MiB"},
    {"size", true, "add, resize: the file's size in bytes (instead of --size-mib)"},
    {"max-objects", true, "add: most objects the file holds (default 64)"},
    {"timeout-ms", true, "how long the daemon may take (default 600000)"},
    {"wait-ready-ms", true, "how long to wait for the daemon's readiness (default 30000)"},
    {"live", false, "run as a live engine: m_bService 1 and the channel answered while waiting"},
};

BYTE CommandOf(const std::string& strVerb)
{
    if (strVerb == "add") return FILECMD_ADD;
    if (strVerb == "move") return FILECMD_MOVE;
    if (strVerb == "resize") return FILECMD_RESIZE;
    if (strVerb == "drop") return FILECMD_DELETE;
    return 0;
}

} // namespace

std::string FileJobUsage()
{
    return "usage: talvor-peer file add|move|resize|drop [options]\n"
           "Asks the daemon to add, move, resize or delete a database file through the\n"
           "file list, as the engine does, and settles the row after the answer; prints\n"
           "\"result=N\" (0 done, 247 to 255 the daemon's refusal).\n\n" +
           DescribeOptions(g_vFileOptions);
}

int RunFileJob(const std::vector<std::string>& args)
{
    BYTE bCommand = args.empty() ? 0 : CommandOf(args[0]);
    CPeerArgs opts;
    long long nNo = 0, nType = 0, nSizeMib = 0, nSize = 0, nObjects = 0, nTimeoutMs = 0, nWaitReady = 0;
    std::vector<std::string> vRest(args.size() > 1 ? args.begin() + 1 : args.end(), args.end());
    if (bCommand == 0 || !opts.Parse(vRest, g_vFileOptions) || !opts.Has("no") ||
        !opts.GetInt("no", 0, 1, 255, nNo) || !opts.GetInt("type", 2, 1, 255, nType) ||
        !opts.GetInt("size-mib", 0, 0, 1LL << 20, nSizeMib) || !opts.GetInt("size", nSizeMib * DB_MIB, 0, 1LL << 50, nSize) ||
        !opts.GetInt("max-objects", 64, 1, 1 << 20, nObjects) ||
        !opts.GetInt("timeout-ms", 600000, 1, 3600000, nTimeoutMs) ||
        !opts.GetInt("wait-ready-ms", 30000, 0, 600000, nWaitReady) ||
        ((bCommand == FILECMD_ADD || bCommand == FILECMD_MOVE) && !opts.Has("path")) ||
        ((bCommand == FILECMD_ADD || bCommand == FILECMD_RESIZE) && nSize <= 0)) {
        fprintf(stderr, "talvor-peer file: %s\n%s", opts.Error().empty() ? "bad or missing value" : opts.Error().c_str(),
                FileJobUsage().c_str());
        return PEER_USAGE;
    }
    PeerFileRequest request;
    request.m_bCommand = bCommand;
    request.m_bFileNo = (BYTE)nNo;
    request.m_bFileType = (BYTE)nType;
    request.m_strPath = opts.GetString("path", "");
    request.m_strName = opts.GetString("name", "F" + std::to_string(nNo));
    request.m_nFileSize = nSize;
    request.m_nMaxObjectNum = (int)nObjects;
    CPeerEngine engine;
    engine.m_bHeadReady = true;
    if (!engine.Attach((int)nWaitReady)) {
        fprintf(stderr, "talvor-peer file: the daemon is not ready\n");
        return PEER_IPC;
    }
    bool bLive = opts.Has("live");
    if (bLive) engine.SetLive(true);
    int nResult = PeerAskFileCommand(engine, request, bLive, nTimeoutMs);
    if (bLive) engine.SetLive(false);
    if (nResult == PEERFILE_NO_ROW) {
        fprintf(stderr, "talvor-peer file: no row of file %lld%s\n", nNo,
                bCommand == FILECMD_ADD ? " can be made: the list is full" : "");
        return PEER_INPUT;
    }
    if (nResult == PEERFILE_NOT_FORMATTED) {
        fprintf(stderr, "talvor-peer file: file %lld was added, but its image could not be laid out\n", nNo);
        return PEER_IPC;
    }
    if (nResult == PEERFILE_UNANSWERED) {
        fprintf(stderr, "talvor-peer file: no answer within %lld ms\n", nTimeoutMs);
        return PEER_TIMEOUT;
    }
    printf("result=%d\n", nResult);
    return nResult == FILECMD_NONE ? PEER_OK : PEER_NOT_SERVED;
}

} // namespace talvorpeer
