// PeerData.cpp — the jobs "data" and "verify" of the engine stand-in.
//
// "data" changes rows of every memory-mode database file as the engine
// does, one row per transaction, writes each change to a journal before the
// row changes (so before the transaction's m_nEndTimestamp is raised), and
// may ask for passes (m_bStorageCMD 2, waiting for 32). As a live engine
// (--live) it sets m_bService to 1 and answers the daemon's channel commands
// between transactions; killed, it plays a lost engine.
//
// In a data file the rows are the engine's records (a slot array and one
// piece per row), and before a row changes its value so far is kept as an
// old version in the daemon's rollback area, as the engine keeps it: the
// daemon takes block copies back to its save point from those versions.
// Index files keep plain slots; their blocks are never taken back.
//
// "verify" reads the database files from disk and checks them against the
// journal: every row whose last change is covered by the committed
// timestamp must hold that change (or a later journalled one) whole. With
// --exact, a data-file row must hold exactly the change current at the
// committed timestamp, and a row born after it must be absent. The data job
// runs that exact check itself after each pass it asked for (--check-exact),
// while it keeps changing rows during the passes.
#include "PeerArgs.h"
#include "PeerClock.h"
#include "PeerData.h"
#include "PeerFileCommand.h"
#include "PeerJobs.h"
#include "PeerRollback.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <random>
#include <tuple>
#include <sstream>
#include <sys/shm.h>
#include <unistd.h>

namespace talvorpeer {

namespace {

const int PEER_VIOLATION = 5;

const std::vector<OptionSpec> g_vDataOptions = {
    {"journal", true, "file the committed changes are appended to (required)"},
    {"count", true, "transactions to commit (default 1000)"},
    {"seconds", true, "stop after this many seconds at most (default 60)"},
    {"pause-us", true, "pause between transactions in microseconds (default 1000)"},
    {"blocks", true, "blocks each database file is grown to first (default 16)"},
    {"slots", true, "rows used in each block (default 8)"},
    {"pass-every", true, "ask for a pass (m_bStorageCMD 2) every N transactions (default 0: never)"},
    {"seed", true, "random seed (default: the pid)"},
    {"wait-ready-ms", true, "how long to wait for the daemon's readiness (default 30000)"},
    {"head-ready", false, "ready once the head says m_bStatus 0, whatever m_nStatus says (a rebuild leaves it at 1, a backup at 0)"},
    {"live", false, "run as a live engine: m_bService 1, answer channel commands"},
    {"check-exact", true, "System.dbf path: ask passes without waiting, keep changing rows meanwhile, and after each "
                          "commit check the data files on disk exactly (needs --pass-every)"},
    {"objects", true, "tables (objects) each data file's blocks are spread over (default 1)"},
    {"map-blocks", true, "map blocks each file's blocks are listed in; each further one lists --blocks new blocks (default 1)"},
    {"nothing-to-save", true, "percent of the daemon's head requests answered \"nothing to save\" (-2) (default 0)"},
    {"forbid-every", true, "hold the daemon off (head m_bForbidSaveFlag 1) every N transactions (default 0: never)"},
    {"forbid-every-ms", true, "hold the daemon off every N ms, however fast transactions go (default 0: never)"},
    {"forbid-ms", true, "how long each hold lasts, rows changing meanwhile (default 300)"},
    {"file-command-every", true, "ask the daemon to grow the system file by 4 MiB every N transactions, "
                                 "success expected (default 0: never)"},
    {"quiet", false, "no summary line"},
};

const std::vector<OptionSpec> g_vVerifyOptions = {
    {"journal", true, "the journal of the data job (required)"},
    {"system", true, "path of System.dbf (required); the file list gives the other files"},
    {"at-least", true, "fail unless the committed timestamp is at least this"},
    {"exact", false, "data-file rows must hold exactly the change current at the committed timestamp"},
};

// --- Rows of data files.

const int ROW_VALUE_SIZE = (int)sizeof(PEERROW);
// A data id no version can stand at: the old value was not kept, and a
// rollback past this change must find the version overwritten.
const long long VERSION_NOT_KEPT = 1;

// Row slots of a data-file block: each takes a record and a piece.
int RowCapacity(int nBlockSize)
{
    int nPerRow = (int)(sizeof(BLOCKDATASTRUCT) + sizeof(BLOCKVARDATASTRUCT)) + ROW_VALUE_SIZE;
    int n = (nBlockSize - (int)sizeof(BLOCKHEAD)) / nPerRow;
    if (n < 0) return 0;
    return n < PEER_MAX_SLOTS ? n : PEER_MAX_SLOTS;
}

int RowsEnd(int nBlockSize) { return (int)sizeof(BLOCKHEAD) + RowCapacity(nBlockSize) * (int)sizeof(BLOCKDATASTRUCT); }

bool IsRowBlock(const BLOCKHEAD* lpBlock)
{
    int nSize = lpBlock->m_nBlockSize;
    return lpBlock->m_nBlockHeadSize == (int)sizeof(BLOCKHEAD) && RowCapacity(nSize) > 0 &&
           lpBlock->m_nFreeDataOffset == RowsEnd(nSize);
}

// Room for the slots in a block as the maker left it (zero behind the
// head); the free offset, set last, tells that it is done.
void MakeRowBlock(LPBLOCKHEAD lpBlock)
{
    int nEnd = RowsEnd(lpBlock->m_nBlockSize);
    lpBlock->m_nBlockDataStructSize = (BYTE)sizeof(BLOCKDATASTRUCT);
    lpBlock->m_nInnerMaxNo = 1;
    lpBlock->m_nDataInsertOffset = (int)sizeof(BLOCKHEAD);
    lpBlock->m_nVarDataInsertOffset = nEnd;
    lpBlock->m_nVarDataAllocOffset = nEnd;
    PeerFence();
    lpBlock->m_nFreeDataOffset = nEnd;
}

// A token per row, so that a place of the area reused by another row reads
// as reused.
short RowToken(long long nRowKey)
{
    unsigned long long x = (unsigned long long)nRowKey * 0x9E3779B97F4A7C15ULL;
    x ^= x >> 29;
    return (short)((x & 0x7FFF) | 1);
}

// Keeps a row's value so far in the rollback area: its data id, or
// VERSION_NOT_KEPT without an area.
long long KeepVersion(CPeerEngine& engine, short sToken, long long nValidFrom, long long nPrevID,
                      const std::string& strOld)
{
    if (engine.m_lpRollback == nullptr) return VERSION_NOT_KEPT;
    LPROLLBACKBLOCKHEAD lpHead = (LPROLLBACKBLOCKHEAD)engine.m_lpRollback;
    UINT nSize = lpHead->m_nRollbackTotalSize;
    if (lpHead->m_nDataFlag != BLOCK_DATAFLAG || nSize > engine.m_nRollbackSize) return VERSION_NOT_KEPT;
    CPeerRollbackArea area(engine.m_lpRollback, nSize);
    // The mirror has taken everything published so far.
    if (__atomic_load_n(&lpHead->m_bSaveStatus, __ATOMIC_ACQUIRE) == 0) area.MarkMirrored();
    long long nID = area.AddVersion(sToken, nValidFrom, nPrevID, (const BYTE*)strOld.data(), (int)strOld.size());
    if (nID == 0) return VERSION_NOT_KEPT;
    area.Publish();
    return nID;
}

// One row change of a data file at nTimestamp, in the engine's order: the
// block's marks, the row's head (newest old version, timestamp), its bytes;
// then object and file head. Rows are born in slot order.
void ChangeDataRow(CPeerEngine& engine, int nFileNo, long long nBlockOffset, int nSlot, long long nValue,
                   long long nTimestamp, int nObject)
{
    LPBYTE lpImage = engine.m_arImages[nFileNo];
    LPBLOCKHEAD lpBlock = (LPBLOCKHEAD)(lpImage + nBlockOffset);
    TalvorStoreShared(&lpBlock->m_nTimestamp, nTimestamp);
    PeerFence();
    TalvorStoreShared(&lpBlock->m_bSaveFlag, 1);
    PeerFence();
    if (!IsRowBlock(lpBlock)) MakeRowBlock(lpBlock);
    long long nKey = PeerRowKey(nFileNo, nBlockOffset, nSlot);
    PEERROW stRow = {nTimestamp, nValue, nKey, PeerRowCheck(nTimestamp, nValue, nKey)};
    CPeerBlock block((LPBYTE)lpBlock, lpBlock->m_nBlockSize);
    if (nSlot >= block.RowCount()) {
        PEERROW stEmpty;
        memset(&stEmpty, 0, sizeof(stEmpty));
        for (int i = block.RowCount(); i < nSlot; i++)
            block.AddRow(RowToken(PeerRowKey(nFileNo, nBlockOffset, i)), nTimestamp, (const BYTE*)&stEmpty,
                         ROW_VALUE_SIZE, ROW_VALUE_SIZE);
        block.AddRow(RowToken(nKey), nTimestamp, (const BYTE*)&stRow, ROW_VALUE_SIZE, ROW_VALUE_SIZE);
    } else {
        LPBLOCKDATASTRUCT lpRow = block.Row(nSlot);
        // A row absent at its last save did not exist before this change.
        long long nPrev = 0;
        if (lpRow->m_bDataStatus != 2)
            nPrev = KeepVersion(engine, lpRow->m_sToken, lpRow->m_nTimestamp, lpRow->m_nNextDataID,
                                block.RowValue(nSlot));
        lpRow->m_nNextDataID = nPrev;
        lpRow->m_nTimestamp = nTimestamp;
        lpRow->m_bDataStatus = 0;
        PeerFence();
        LPBLOCKVARDATASTRUCT lpPiece = (LPBLOCKVARDATASTRUCT)((LPBYTE)lpBlock + lpRow->m_nVarDataOffset);
        memcpy(lpPiece->m_lpDataContent, &stRow, sizeof(stRow));
        lpPiece->m_nActualLength = ROW_VALUE_SIZE;
        lpRow->m_nVarDataLength = ROW_VALUE_SIZE;
    }
    PeerFence();
    LPBASEFILEOBJECTDEF lpObject = DbMemoryFileObject(lpImage, engine.m_arSizes[nFileNo], nObject);
    if (lpObject != nullptr) {
        TalvorStoreShared(&lpObject->m_nFinishedTimestamp, nTimestamp);
        PeerFence();
        TalvorStoreShared(&lpObject->m_bSaveFlag, 1);
    }
    PeerFence();
    TalvorStoreShared(&((LPBASEFILEHEAD)lpImage)->m_nTimestamp, nTimestamp);
}

// The rows of a data file's blocks laid out as plain slots, where the
// journal checks read them: an absent row reads as never written, a row
// whose piece is damaged as torn.
void FlattenRows(std::string& strFile)
{
    const std::string strIn = strFile;
    const BYTE* lpIn = (const BYTE*)strIn.data();
    long long nSize = (long long)strIn.size();
    for (long long nBlock : PeerFileBlocks(lpIn, nSize)) {
        const BLOCKHEAD* lpBlock = (const BLOCKHEAD*)(lpIn + nBlock);
        if (!IsRowBlock(lpBlock)) continue;
        int nBlockSize = lpBlock->m_nBlockSize;
        int nCap = RowCapacity(nBlockSize);
        int nRows = (int)(lpBlock->m_nInnerMaxNo & 0xFFFF) - 1;
        if (nRows > nCap) nRows = nCap;
        memset(&strFile[(size_t)PeerRowOffset(nBlock, 0)], 0, (size_t)nCap * sizeof(PEERROW));
        for (int i = 0; i < nRows; i++) {
            BLOCKDATASTRUCT stRow;
            memcpy(&stRow, lpIn + nBlock + sizeof(BLOCKHEAD) + (size_t)i * sizeof(BLOCKDATASTRUCT), sizeof(stRow));
            if (stRow.m_bDataStatus == 2) continue;
            PEERROW stValue;
            memset(&stValue, 0xFF, sizeof(stValue));
            int nPiece = stRow.m_nVarDataOffset;
            if (nPiece >= RowsEnd(nBlockSize) && nPiece <= nBlockSize - (int)sizeof(BLOCKVARDATASTRUCT) - ROW_VALUE_SIZE) {
                BLOCKVARDATASTRUCT stPiece;
                memcpy(&stPiece, lpIn + nBlock + nPiece, sizeof(stPiece));
                if (stPiece.m_nDataFlag == VARDATA_DATAFLAG && stPiece.m_nActualLength == ROW_VALUE_SIZE)
                    memcpy(&stValue, lpIn + nBlock + nPiece + sizeof(BLOCKVARDATASTRUCT), sizeof(stValue));
            }
            memcpy(&strFile[(size_t)PeerRowOffset(nBlock, i)], &stValue, sizeof(stValue));
        }
    }
}

// The database on disk as the checks see it.
struct DiskImage {
    long long m_nCommitted = -1;
    std::vector<std::string> m_vFiles = std::vector<std::string>(256);
    const BYTE* m_arFiles[256] = {nullptr};
    long long m_arSizes[256] = {0};
    bool m_arRowFiles[256] = {false};
};

bool ReadWhole(const std::string& strPath, std::string& strOut)
{
    std::ifstream in(strPath, std::ios::binary);
    if (!in) return false;
    std::ostringstream ss;
    ss << in.rdbuf();
    strOut = ss.str();
    return true;
}

bool ReadDisk(const std::string& strSystemPath, DiskImage& disk)
{
    std::string strSystem;
    if (!ReadWhole(strSystemPath, strSystem) || strSystem.size() < sizeof(SYSTEMFILEHEAD)) return false;
    LPBYTE lpSystem = (LPBYTE)&strSystem[0];
    disk.m_nCommitted = TalvorLoadShared(&((LPSYSTEMFILEHEAD)lpSystem)->m_nBeginTimestamp);
    DbForEachFileListRow(lpSystem, (long long)strSystem.size(), [&](LPSYSTEMBLOCKHEAD, LPFILE_MEMDBFILEINFO lpRow) {
        int n = lpRow->m_bFileNo;
        std::string& strFile = disk.m_vFiles[(size_t)n];
        if (lpRow->m_bDropFlag == 1 || n < 2 || !ReadWhole(lpRow->m_lpszFilePath, strFile)) return true;
        if (lpRow->m_bFileType == FILETYPE_DATA) {
            FlattenRows(strFile);
            disk.m_arRowFiles[n] = true;
        }
        disk.m_arFiles[n] = (const BYTE*)strFile.data();
        disk.m_arSizes[n] = (long long)strFile.size();
        return true;
    });
    return true;
}

struct ExactResult {
    long long m_nRows = 0;        // data-file rows checked
    long long m_nBehind = 0;      // of those, holding a value older than the row's newest
    long long m_nViolations = 0;
    std::string m_strFirst;
};

// Every data-file row in the journal holds exactly the change current at
// the committed timestamp, or nothing when it was born after it.
ExactResult CheckExact(const std::vector<PeerChange>& vJournal, const DiskImage& disk)
{
    typedef std::tuple<int, long long, int> RowId;
    std::map<RowId, std::map<long long, long long>> mapRows;
    for (const PeerChange& c : vJournal)
        if (c.m_nFileNo > 0 && c.m_nFileNo < 256 && disk.m_arRowFiles[c.m_nFileNo])
            mapRows[RowId(c.m_nFileNo, c.m_nBlockOffset, c.m_nSlot)][c.m_nTimestamp] = c.m_nValue;
    ExactResult r;
    for (const auto& row : mapRows) {
        int nFileNo = std::get<0>(row.first);
        long long nBlock = std::get<1>(row.first);
        int nSlot = std::get<2>(row.first);
        auto itNeed = row.second.upper_bound(disk.m_nCommitted);
        bool bBorn = itNeed != row.second.begin();
        if (bBorn) --itNeed;
        r.m_nRows++;
        long long nTs = 0, nValue = 0;
        int nState = -1;
        if (PeerRowOffset(nBlock, nSlot) + (long long)sizeof(PEERROW) <= disk.m_arSizes[nFileNo])
            nState = PeerReadRow(disk.m_arFiles[nFileNo], nBlock, nSlot, nFileNo, &nTs, &nValue);
        bool bOk = bBorn ? nState == 1 && nTs == itNeed->first && nValue == itNeed->second : nState == 0;
        if (bOk && (!bBorn || itNeed->first != row.second.rbegin()->first)) r.m_nBehind++;
        if (bOk) continue;
        if (r.m_nViolations == 0) {
            char sz[256];
            snprintf(sz, sizeof(sz),
                     "file %d block %lld slot %d at %lld: needs %s ts %lld value %lld, disk has state %d ts %lld value %lld",
                     nFileNo, nBlock, nSlot, disk.m_nCommitted, bBorn ? "" : "absent", bBorn ? itNeed->first : 0,
                     bBorn ? itNeed->second : 0, nState, nTs, nValue);
            r.m_strFirst = sz;
        }
        r.m_nViolations++;
    }
    return r;
}

bool AppendJournal(int fd, const std::string& strLine)
{
    const char* p = strLine.data();
    size_t n = strLine.size();
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        p += w;
        n -= (size_t)w;
    }
    return true;
}

// Asks for a pass and waits (bounded) for 32, answering the channel
// meanwhile: the pass itself asks this engine for heads.
bool AskForPass(CPeerEngine& engine, bool bLive)
{
    LPSYSTEMFILEHEAD lpHead = engine.Head();
    TalvorStoreShared(&lpHead->m_bStorageCMD, 2);
    SetEvent(engine.m_hStorage);
    for (int i = 0; i < 60000; i++) {
        if (TalvorLoadShared(&lpHead->m_bStorageCMD) == 32) return true;
        if (bLive) engine.ServeChannel();
        usleep(500);
    }
    return false;
}

// The daemon's rollback area, if it has one.
void AttachRollback(CPeerEngine& engine)
{
    int nId = shmget(SHMKEY_ROLLBACK, 0, 0);
    struct shmid_ds ds;
    if (nId < 0 || shmctl(nId, IPC_STAT, &ds) != 0 || ds.shm_segsz < sizeof(ROLLBACKBLOCKHEAD)) return;
    void* p = shmat(nId, nullptr, 0);
    if (p == (void*)-1) return;
    engine.m_lpRollback = (LPBYTE)p;
    engine.m_nRollbackSize = ds.shm_segsz > 0xFFFFFFFFu ? 0xFFFFFFFFu : (UINT)ds.shm_segsz;
}

// The daemon held off by the head's forbid flag, rows changing meanwhile,
// with a pass asked at the start of the hold when none is outstanding:
// while the flag stands the daemon may finish the pass it was in, and must
// neither commit nor answer anything else.
struct ForbidWindows {
    long long m_nEvery = 0, m_nEveryMs = 0, m_nMs = 300;
    long long m_nNextMs = 0;      // when the next timed hold is due, 0 before the first step
    bool m_bHeld = false;
    bool m_bAskedHeld = false;    // the pass asked at this hold's start
    long long m_nUntil = 0;
    long long m_nBegin = 0;       // the committed timestamp last seen while held
    long long m_nWindows = 0, m_nCommitsHeld = 0, m_nAnsweredHeld = 0;

    bool Enabled() const { return m_nEvery > 0 || m_nEveryMs > 0; }
    // A hold is due every m_nEvery transactions, or m_nEveryMs after the
    // last hold ended (after the first step for the first one).
    bool Due(long long nDone, long long nNow)
    {
        if (m_nEvery > 0 && (nDone + 1) % m_nEvery == 0) return true;
        if (m_nEveryMs == 0) return false;
        if (m_nNextMs == 0) m_nNextMs = nNow + m_nEveryMs;
        if (nNow < m_nNextMs) return false;
        m_nNextMs = nNow + m_nMs + m_nEveryMs;
        return true;
    }
    // Called after each transaction nDone (from 0). TRUE when a hold begins
    // and the caller has no pass outstanding: the pass is asked here.
    bool Step(CPeerEngine& engine, long long nDone, long long nNow, bool bOutstanding)
    {
        LPSYSTEMFILEHEAD lpHead = engine.Head();
        if (m_bHeld) {
            long long nBegin = TalvorLoadShared(&lpHead->m_nBeginTimestamp);
            if (nBegin != m_nBegin) m_nCommitsHeld++;
            m_nBegin = nBegin;
            if (m_bAskedHeld && TalvorLoadShared(&lpHead->m_bStorageCMD) == 32) {
                m_nAnsweredHeld++;
                m_bAskedHeld = false;
            }
            if (nNow < m_nUntil) return false;
            PeerFence();
            TalvorStoreShared(&lpHead->m_bForbidSaveFlag, 0);
            SetEvent(engine.m_hStorage);
            m_bHeld = false;
            return false;
        }
        if (!Due(nDone, nNow)) return false;
        TalvorStoreShared(&lpHead->m_bForbidSaveFlag, 1);
        PeerFence();
        m_bHeld = true;
        m_nWindows++;
        m_nBegin = TalvorLoadShared(&lpHead->m_nBeginTimestamp);
        m_nUntil = nNow + m_nMs;
        m_bAskedHeld = !bOutstanding;
        if (m_bAskedHeld) {
            TalvorStoreShared(&lpHead->m_bStorageCMD, 2);
            SetEvent(engine.m_hStorage);
        }
        return m_bAskedHeld;
    }
    // More than the pass in flight at a hold's start: the flag did not hold
    // the daemon.
    bool Broken() const { return m_nCommitsHeld > m_nWindows || m_nAnsweredHeld > m_nWindows; }
};

// Passes asked without waiting, and the exact check after each commit.
struct ExactChecker {
    std::string m_strSystem;
    bool m_bAsked = false;
    long long m_nAskedAt = 0;  // m_nEndTimestamp when the pass was asked
    long long m_nLastCommitted = -1;
    long long m_nChecks = 0, m_nRows = 0, m_nBehind = 0, m_nViolations = 0, m_nDuringPasses = 0, m_nIndexRows = 0;
    std::string m_strFirst;

    void Check(const std::vector<PeerChange>& vJournal)
    {
        DiskImage disk;
        if (!ReadDisk(m_strSystem, disk)) {
            m_nViolations++;
            if (m_strFirst.empty()) m_strFirst = "cannot read the database from disk";
            return;
        }
        // Only the asked pass, committed, leaves the disk as of one
        // timestamp; one that held a block back leaves it mixed, whatever
        // an earlier pass committed.
        if (disk.m_nCommitted <= m_nLastCommitted || disk.m_nCommitted < m_nAskedAt) return;
        m_nLastCommitted = disk.m_nCommitted;
        ExactResult r = CheckExact(vJournal, disk);
        m_nChecks++;
        m_nRows += r.m_nRows;
        m_nBehind += r.m_nBehind;
        m_nViolations += r.m_nViolations;
        if (m_strFirst.empty()) m_strFirst = r.m_strFirst;
        // Index blocks go out as they stand, never taken back: their rows
        // hold the committed change or a later one.
        PeerCheckResult rAll = PeerCheckFiles(vJournal, disk.m_nCommitted, disk.m_arFiles, disk.m_arSizes);
        m_nIndexRows += rAll.m_nRequired;
        m_nViolations += rAll.m_nViolations;
        if (m_strFirst.empty()) m_strFirst = rAll.m_strFirst;
    }
};

} // namespace

std::string DataJobUsage()
{
    return "usage: talvor-peer data --journal FILE [options]\n"
           "Changes rows of every memory-mode database file as the engine does and commits them.\n\n" +
           DescribeOptions(g_vDataOptions);
}

int RunDataJob(const std::vector<std::string>& args)
{
    CPeerArgs opts;
    long long nCount, nSeconds, nPauseUs, nBlocks, nSlots, nPassEvery, nSeed, nWaitMs, nObjects, nNothingPct, nMapBlocks;
    ForbidWindows forbid;
    FileCommandAsker files;
    if (!opts.Parse(args, g_vDataOptions) || !opts.Has("journal") || !opts.GetInt("count", 1000, 0, 1LL << 40, nCount) ||
        !opts.GetInt("seconds", 60, 1, 86400, nSeconds) || !opts.GetInt("pause-us", 1000, 0, 10000000, nPauseUs) ||
        !opts.GetInt("blocks", 16, 1, 3000, nBlocks) || !opts.GetInt("slots", 8, 1, PEER_MAX_SLOTS, nSlots) ||
        !opts.GetInt("pass-every", 0, 0, 1LL << 40, nPassEvery) || !opts.GetInt("seed", getpid(), 0, 1LL << 62, nSeed) ||
        !opts.GetInt("wait-ready-ms", 30000, 0, 600000, nWaitMs) || !opts.GetInt("objects", 1, 1, 64, nObjects) ||
        !opts.GetInt("map-blocks", 1, 1, 16, nMapBlocks) ||
        !opts.GetInt("nothing-to-save", 0, 0, 100, nNothingPct) ||
        !opts.GetInt("forbid-every", 0, 0, 1LL << 40, forbid.m_nEvery) ||
        !opts.GetInt("forbid-every-ms", 0, 0, 3600000, forbid.m_nEveryMs) ||
        !opts.GetInt("forbid-ms", 300, 1, 600000, forbid.m_nMs) ||
        !opts.GetInt("file-command-every", 0, 0, 1LL << 40, files.m_nEvery)) {
        fprintf(stderr, "talvor-peer data: %s\n%s", opts.Error().c_str(), DataJobUsage().c_str());
        return PEER_USAGE;
    }
    bool bLive = opts.Has("live");
    ExactChecker checker;
    checker.m_strSystem = opts.GetString("check-exact", "");
    bool bExact = !checker.m_strSystem.empty();
    if (bExact && nPassEvery == 0) {
        fprintf(stderr, "talvor-peer data: --check-exact needs --pass-every\n%s", DataJobUsage().c_str());
        return PEER_USAGE;
    }
    CPeerEngine engine;
    engine.m_bHeadReady = opts.Has("head-ready");
    if (!engine.Attach((int)nWaitMs)) {
        fprintf(stderr, "talvor-peer data: the daemon's segments are not there or not ready\n");
        return PEER_IPC;
    }
    AttachRollback(engine);
    engine.m_nNothingToSavePct = (int)nNothingPct;
    engine.m_nRandom ^= (unsigned long long)nSeed;
    std::vector<PeerChange> vJournal;
    if (bExact) {
        // What stands on disk now may come from a pass that did not commit
        // (a block held back): only a commit after this one is checked.
        DiskImage disk;
        if (ReadDisk(checker.m_strSystem, disk)) checker.m_nLastCommitted = disk.m_nCommitted;
    }
    std::string strJournal = opts.GetString("journal", "");
    int fdJournal = open(strJournal.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (fdJournal < 0) {
        fprintf(stderr, "talvor-peer data: cannot open the journal %s: %s\n", strJournal.c_str(), strerror(errno));
        return PEER_INPUT;
    }
    if (bLive) engine.SetLive(true);
    LPSYSTEMFILEHEAD lpHead = engine.Head();

    // Blocks first, one transaction (a file already grown stays as it is).
    long long ts = TalvorLoadShared(&lpHead->m_nEndTimestamp) + 1;
    for (int n : engine.m_vFiles) {
        if (!PeerPrepareFile(engine.m_arImages[n], engine.m_arSizes[n], (int)nBlocks, ts))
            fprintf(stderr, "talvor-peer data: file %d has no room for %lld blocks; using what it has\n", n, nBlocks);
    }
    for (int n : engine.m_vFiles) {
        if (nObjects > 1 && ((LPBASEFILEHEAD)engine.m_arImages[n])->m_bFileType == FILETYPE_DATA &&
            !PeerSpreadObjects(engine.m_arImages[n], engine.m_arSizes[n], (int)nObjects, ts))
            fprintf(stderr, "talvor-peer data: file %d holds fewer than %lld objects; blocks stay in one\n", n, nObjects);
        // Only a file this job just grew gets more map blocks: a restarted
        // job leaves the chain as the last one left it.
        int nHave = 0;
        PeerForEachMapEntry(engine.m_arImages[n], engine.m_arSizes[n], [&](int, const BASEFILEBLOCKMAP*) { nHave++; });
        for (long long k = 1; k < nMapBlocks && nHave == (int)nBlocks; k++)
            if (!PeerAddMapBlock(engine.m_arImages[n], engine.m_arSizes[n], (int)nBlocks, (int)nObjects, ts))
                fprintf(stderr, "talvor-peer data: file %d has no room for map block %lld\n", n, k + 1);
    }
    PeerFence();
    TalvorStoreShared(&lpHead->m_nEndTimestamp, ts);
    std::vector<std::vector<long long>> vBlocks(256);
    std::map<std::pair<int, long long>, int> mapObjects;  // (file, block) -> object
    for (int n : engine.m_vFiles) {
        vBlocks[(size_t)n] = PeerFileBlocks(engine.m_arImages[n], engine.m_arSizes[n]);
        for (long long nBlock : vBlocks[(size_t)n])
            mapObjects[{n, nBlock}] = PeerBlockObject(engine.m_arImages[n], engine.m_arSizes[n], nBlock, (int)nObjects);
    }

    std::mt19937_64 rng((unsigned long long)nSeed);
    long long nDeadline = NowMs() + nSeconds * 1000;
    long long nDone = 0, nPasses = 0;
    for (; nDone < nCount && NowMs() < nDeadline && !engine.m_vFiles.empty(); nDone++) {
        int nFileNo = engine.m_vFiles[(size_t)(rng() % engine.m_vFiles.size())];
        const std::vector<long long>& v = vBlocks[(size_t)nFileNo];
        if (v.empty()) break;
        long long nBlock = v[(size_t)(rng() % v.size())];
        int nBlockSize = ((LPBLOCKHEAD)(engine.m_arImages[nFileNo] + nBlock))->m_nBlockSize;
        bool bRows = ((LPBASEFILEHEAD)engine.m_arImages[nFileNo])->m_bFileType == FILETYPE_DATA;
        int nSlotMax = bRows ? RowCapacity(nBlockSize) : PeerSlotCount(nBlockSize);
        if (nSlotMax <= 0) continue;
        int nSlot = (int)(rng() % (unsigned long long)(nSlots < nSlotMax ? nSlots : nSlotMax));
        long long nValue = (long long)(rng() >> 1);
        ts = TalvorLoadShared(&lpHead->m_nEndTimestamp) + 1;
        // Journalled before the row changes: killed in between, the engine
        // leaves a journalled change that never happened, which the check
        // allows, rather than a change on disk the journal never saw.
        if (bExact) vJournal.push_back({ts, nFileNo, nBlock, nSlot, nValue});
        if (!AppendJournal(fdJournal, PeerJournalLine({ts, nFileNo, nBlock, nSlot, nValue}))) {
            fprintf(stderr, "talvor-peer data: journal write failed: %s\n", strerror(errno));
            close(fdJournal);
            return PEER_INPUT;
        }
        if (bRows)
            ChangeDataRow(engine, nFileNo, nBlock, nSlot, nValue, ts, mapObjects[{nFileNo, nBlock}]);
        else
            PeerChangeRow(engine.m_arImages[nFileNo], engine.m_arSizes[nFileNo], nFileNo, nBlock, nSlot, nValue, ts);
        PeerFence();
        TalvorStoreShared(&lpHead->m_nEndTimestamp, ts);
        if (bLive) engine.ServeChannel();
        if (forbid.Step(engine, nDone, NowMs(), checker.m_bAsked) && bExact) {
            checker.m_nAskedAt = TalvorLoadShared(&lpHead->m_nEndTimestamp);
            checker.m_bAsked = true;
        }
        if (!files.Step(engine, nDone, bLive, !forbid.m_bHeld && !checker.m_bAsked)) {
            fprintf(stderr, "talvor-peer data: file command %lld was answered %d, not done\n", files.m_nAsked,
                    files.m_nLastAnswer);
            close(fdJournal);
            return PEER_VIOLATION;
        }
        if (forbid.m_bHeld) {
            // No pass is asked while the daemon is held off.
        } else if (bExact) {
            if (checker.m_bAsked && TalvorLoadShared(&lpHead->m_bStorageCMD) == 32) {
                checker.m_bAsked = false;
                nPasses++;
                checker.Check(vJournal);
            } else if (checker.m_bAsked) {
                checker.m_nDuringPasses++;
            } else if ((nDone + 1) % nPassEvery == 0) {
                // The rows go on changing while the pass runs.
                checker.m_nAskedAt = TalvorLoadShared(&lpHead->m_nEndTimestamp);
                TalvorStoreShared(&lpHead->m_bStorageCMD, 2);
                SetEvent(engine.m_hStorage);
                checker.m_bAsked = true;
            }
        } else if (nPassEvery > 0 && (nDone + 1) % nPassEvery == 0) {
            if (!AskForPass(engine, bLive)) {
                fprintf(stderr, "talvor-peer data: no answer 32 to a pass request\n");
                close(fdJournal);
                return PEER_TIMEOUT;
            }
            nPasses++;
        }
        // The pause serves the channel too, so that a pass never waits long.
        for (long long nWaited = 0; nWaited < nPauseUs; nWaited += 200) {
            if (bLive) engine.ServeChannel();
            usleep((useconds_t)(nPauseUs - nWaited < 200 ? nPauseUs - nWaited : 200));
        }
    }
    close(fdJournal);
    if (forbid.m_bHeld) TalvorStoreShared(&lpHead->m_bForbidSaveFlag, 0);
    if (bExact && checker.m_bAsked) {
        // The last pass asked: its commit is checked too.
        for (int i = 0; i < 60000 && TalvorLoadShared(&lpHead->m_bStorageCMD) != 32; i++) {
            if (bLive) engine.ServeChannel();
            usleep(500);
        }
        if (TalvorLoadShared(&lpHead->m_bStorageCMD) == 32) {
            nPasses++;
            checker.Check(vJournal);
        }
    }
    if (bLive) engine.SetLive(false);
    if (!opts.Has("quiet"))
        printf("committed %lld transactions, last timestamp %lld, passes asked %lld, channel answers %lld\n", nDone,
               (long long)TalvorLoadShared(&lpHead->m_nEndTimestamp), nPasses, engine.m_nAnswers);
    if (nNothingPct > 0) printf("answered nothing to save %lld times\n", engine.m_nNothingToSave);
    if (files.m_nEvery > 0) printf("file commands asked %lld, done %lld\n", files.m_nAsked, files.m_nDone);
    if (forbid.Enabled()) {
        printf("held off %lld times, commits while held off %lld, passes answered while held off %lld\n",
               forbid.m_nWindows, forbid.m_nCommitsHeld, forbid.m_nAnsweredHeld);
        if (forbid.Broken()) return PEER_VIOLATION;
    }
    if (bExact) {
        printf("exact checks %lld, rows checked %lld, rows behind the image %lld, changes during passes %lld, "
               "all rows checked %lld, violations %lld\n",
               checker.m_nChecks, checker.m_nRows, checker.m_nBehind, checker.m_nDuringPasses, checker.m_nIndexRows,
               checker.m_nViolations);
        if (checker.m_nViolations > 0) printf("first violation: %s\n", checker.m_strFirst.c_str());
        return checker.m_nViolations == 0 ? PEER_OK : PEER_VIOLATION;
    }
    return PEER_OK;
}

std::string VerifyJobUsage()
{
    return "usage: talvor-peer verify --journal FILE --system PATH\n"
           "Checks the database files on disk against the journal of the data job.\n\n" +
           DescribeOptions(g_vVerifyOptions);
}

int RunVerifyJob(const std::vector<std::string>& args)
{
    CPeerArgs opts;
    long long nAtLeast;
    if (!opts.Parse(args, g_vVerifyOptions) || !opts.Has("journal") || !opts.Has("system") ||
        !opts.GetInt("at-least", 0, 0, 1LL << 62, nAtLeast)) {
        fprintf(stderr, "talvor-peer verify: %s\n%s", opts.Error().c_str(), VerifyJobUsage().c_str());
        return PEER_USAGE;
    }
    std::string strJournal;
    DiskImage disk;
    if (!ReadWhole(opts.GetString("journal", ""), strJournal) || !ReadDisk(opts.GetString("system", ""), disk)) {
        fprintf(stderr, "talvor-peer verify: cannot read the journal or the system file\n");
        return PEER_INPUT;
    }
    long long nCommitted = disk.m_nCommitted;
    std::vector<PeerChange> vJournal = PeerParseJournal(strJournal);
    PeerCheckResult r = PeerCheckFiles(vJournal, nCommitted, disk.m_arFiles, disk.m_arSizes);
    long long nCovered = 0;
    for (const PeerChange& c : vJournal)
        if (c.m_nTimestamp <= nCommitted) nCovered++;
    printf("committed timestamp on disk: %lld\n", nCommitted);
    printf("journal: %zu changes, %lld of them at or before the committed timestamp\n", vJournal.size(), nCovered);
    printf("rows checked: %lld, holding a later change: %lld, violations: %lld\n", r.m_nRequired, r.m_nNewer,
           r.m_nViolations);
    if (r.m_nViolations > 0) printf("first violation: %s\n", r.m_strFirst.c_str());
    if (opts.Has("exact")) {
        ExactResult x = CheckExact(vJournal, disk);
        printf("exact: rows checked %lld, behind the newest %lld, violations %lld\n", x.m_nRows, x.m_nBehind,
               x.m_nViolations);
        if (x.m_nViolations > 0) {
            printf("first exact violation: %s\n", x.m_strFirst.c_str());
            return PEER_VIOLATION;
        }
    }
    if (nCommitted < nAtLeast) {
        printf("the committed timestamp is below %lld\n", nAtLeast);
        return PEER_VIOLATION;
    }
    return r.m_nViolations == 0 ? PEER_OK : PEER_VIOLATION;
}

} // namespace talvorpeer
