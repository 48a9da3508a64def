// The persistence pass over the memory-mode files and its commit, and the
// engine's answers over the channel.
#include "PeerRollback.h"
#include "PersistenceDb.h"

#include <atomic>
#include <climits>
#include <functional>
#include <thread>

using namespace talvortest;

namespace {

const int DONE = CBreltMemStorageModule::SAVEPASS_DONE, PENDING = CBreltMemStorageModule::SAVEPASS_PENDING,
          FILEFAILED = CBreltMemStorageModule::SAVEPASS_FILEFAILED;

std::string Slice(const std::string& s, long long nOffset, long long nSize) { return s.substr((size_t)nOffset, (size_t)nSize); }
std::string ImageSlice(LPBYTE lpImage, long long nOffset, long long nSize) { return std::string((const char*)lpImage + nOffset, (size_t)nSize); }

class PersistencePass : public ::testing::Test {
protected:
    void SetUp() override { m_db.MakeStartAndSave(); }
    // Answers channel command 3 on a thread of its own, as the engine does.
    void StartEngine(std::function<void(LPSTORAGEMEMHEAD)> fnAnswer)
    {
        LPSTORAGEMEMHEAD lpChannel = m_db.Module().m_pFlashback->GetStorageMemHead();
        TalvorStoreShared(&lpChannel->m_bService, SERVICESTATE_RUNNING);
        m_bEngineStop = false;
        m_engine = std::thread([this, lpChannel, fnAnswer]() {
            while (!m_bEngineStop) {
                if (TalvorLoadShared(&lpChannel->m_bCommandType) == PEERCMD_FLASHBACKHEAD) {
                    fnAnswer(lpChannel);
                    TalvorStoreShared(&lpChannel->m_bCommandType, PEERCMD_NONE);
                    SetEvent(m_db.Module().m_pFlashback->m_hFlashBackFinishedEvent);
                    m_nAnswers++;
                }
                usleep(200);
            }
        });
    }
    void StopEngine() { m_bEngineStop = true; if (m_engine.joinable()) m_engine.join(); }
    void TearDown() override { StopEngine(); }
    // One transaction changing one row; its timestamp.
    long long Commit(int nFileNo, int nBlock, int nRow, int nValue)
    {
        long long ts = m_db.BeginTransaction();
        return m_db.ChangeRow(nFileNo, nBlock, nRow, nValue, ts), m_db.EndTransaction(ts), ts;
    }
    // The pass committed ts and the disk holds every change up to it.
    void ExpectCommitted(long long ts)
    {
        EXPECT_EQ(ts, m_db.CommittedOnDisk());
        EXPECT_EQ(0, m_db.CheckDisk(ts).m_nViolations);
    }

    PersistenceDb m_db;
    std::thread m_engine;
    std::atomic<bool> m_bEngineStop{false};
    std::atomic<int> m_nAnswers{0};
};

} // namespace

TEST_F(PersistencePass, ChangedBlocksHeadAndMapLandInTheirPlaces)
{
    std::string strSysBefore = ReadWholeFile(m_db.SystemPath());
    std::string strDataBefore = ReadWholeFile(m_db.PathOf(2));
    // Bytes of the system head that only the cache's writers may put on disk.
    for (int i = SYSTEMFILE_TABLETSARRAY_OFFSET; i < 15558; i++) m_db.Image(1)[i] = (BYTE)(i * 7 + 1);
    // Block 3, 5, 7 of files 2, 3, 4.
    long long ts = m_db.BeginTransaction();
    for (int n = 2; n <= 4; n++) m_db.ChangeRow(n, 2 * n - 1, n - 1, 111 * (n - 1), ts);
    m_db.EndTransaction(ts);
    ASSERT_EQ(DONE, m_db.Pass());
    std::string strData = ReadWholeFile(m_db.PathOf(2));
    for (int n = 2; n <= 4; n++) {
        long long nOffset = m_db.BlockOffset(n, 2 * n - 1);
        LPBLOCKHEAD lpBlock = (LPBLOCKHEAD)(m_db.Image(n) + nOffset);
        EXPECT_TRUE(lpBlock->m_bSaveFlag == 0 && ImageSlice(m_db.Image(n), nOffset, lpBlock->m_nBlockSize) ==
                    Slice(ReadWholeFile(m_db.PathOf(n)), nOffset, lpBlock->m_nBlockSize)) << "file " << n;
    }
    LPBASEFILEHEAD lpHead = m_db.FileHead(2);
    // The head is the snapshot: the live head's fields, and the objects as
    // they stood before the pass moved their persisted timestamps.
    EXPECT_TRUE(ImageSlice(m_db.Image(2), 0, sizeof(BASEFILEHEAD)) == Slice(strData, 0, sizeof(BASEFILEHEAD)));
    LPBASEFILEOBJECTDEF lpDiskObject = (LPBASEFILEOBJECTDEF)&strData[(size_t)lpHead->m_nObjectInfoOffset];
    EXPECT_EQ(ts, Val(lpDiskObject->m_nFinishedTimestamp));
    EXPECT_EQ(ts - 1, Val(lpDiskObject->m_nPersistentTimestamp));
    EXPECT_EQ(ts, Val(DbMemoryFileObject(m_db.Image(2), m_db.File(2)->m_liFileSize, 0)->m_nPersistentTimestamp));
    // Master position on disk holds the slave's bytes; the slave position
    // on disk is left as it was.
    long long nMap = lpHead->m_nBlockMapStartOffset, nMapSize = lpHead->m_nBlockMapSize;
    EXPECT_TRUE(ImageSlice(m_db.Image(2), nMap + nMapSize, nMapSize) == Slice(strData, nMap, nMapSize));
    EXPECT_TRUE(Slice(strDataBefore, nMap + nMapSize, nMapSize) == Slice(strData, nMap + nMapSize, nMapSize));
    // The commit: bytes 66 to 145, and the arrays untouched.
    std::string strSys = ReadWholeFile(m_db.SystemPath());
    ExpectCommitted(ts);
    EXPECT_EQ(ImageSlice(m_db.Image(1), SYSTEMFILE_DYNAMIC_OFFSET, SYSTEMFILE_DYNAMIC_SIZE),
              Slice(strSys, SYSTEMFILE_DYNAMIC_OFFSET, SYSTEMFILE_DYNAMIC_SIZE));
    EXPECT_TRUE(Slice(strSysBefore, SYSTEMFILE_TABLETSARRAY_OFFSET, 15558 - SYSTEMFILE_TABLETSARRAY_OFFSET) ==
                Slice(strSys, SYSTEMFILE_TABLETSARRAY_OFFSET, 15558 - SYSTEMFILE_TABLETSARRAY_OFFSET));
}

// Each damage is refused and holds the commit; repaired, the next pass
// does the work.
TEST_F(PersistencePass, RefusalsWriteNothingAndHoldTheCommit)
{
    // Where a damage lands: the file and the offset in its image.
    auto Map = [this](int n) { return m_db.FileHead(n)->m_nBlockMapStartOffset; };
    const long long nEntry3 = DbMapEntryOffset(Map(2), 3), nEntry5 = DbMapEntryOffset(Map(2), 5);
    const long long nPastImage = m_db.File(2)->m_liFileSize + 4096;
    const size_t HEAD = sizeof(BASEFILEHEAD), ENTRY = sizeof(BASEFILEBLOCKMAP);
    // m_bUnwritten: a loop is found only once blocks on it went out.
    struct Damage { const char* m_lpName; int m_nFileNo; long long m_nAt; size_t m_nSize;
        std::function<void(LPBYTE)> m_fnDamage; const char* m_lpCode; bool m_bUnwritten; } arDamages[] = {
        {"head mark", 2, 0, HEAD, [](LPBYTE p) { ((LPBASEFILEHEAD)p)->m_nDataFlag = 0x12345678; }, "40002003", true},
        {"map entry size", 3, 0, HEAD, [](LPBYTE p) { ((LPBASEFILEHEAD)p)->m_nBlockMapStructSize = 24; }, "40002006", true},
        {"map start", 4, 0, HEAD, [](LPBYTE p) { ((LPBASEFILEHEAD)p)->m_nBlockMapStartOffset = 0; }, "40002007", true},
        {"head size", 2, 0, HEAD, [](LPBYTE p) { ((LPBASEFILEHEAD)p)->m_nFileHeaderSize = 0x7FFFFFF0; }, "40002012", true},
        // Entries 3 -> 4 -> 5 -> 3 in the master; the pass refreshes the slave.
        {"chain loop", 2, nEntry5, ENTRY, [=](LPBYTE p) { ((LPBASEFILEBLOCKMAP)p)->m_nNextOffset = nEntry3; }, "40002020",
         false},
        {"chain out of the image", 2, nEntry5, ENTRY, [=](LPBYTE p) { ((LPBASEFILEBLOCKMAP)p)->m_nNextOffset = nPastImage; },
         "40002025", true},
        {"index map entries", 3, Map(3), sizeof(BASEFILEBLOCKMAPHEAD), [](LPBYTE p) { ((LPBASEFILEBLOCKMAPHEAD)p)->m_nBlockMapNum = 1 << 30; },
         "40002046", true},
        {"index block mark", 3, m_db.BlockOffset(3, 2), sizeof(BLOCKHEAD), [](LPBYTE p) { ((LPBLOCKHEAD)p)->m_nDataFlag = 0x01010101; },
         "40002042", true},
    };
    for (const Damage& d : arDamages) {
        SCOPED_TRACE(d.m_lpName);
        long long nCommitted = m_db.CommittedOnDisk();
        long long ts = Commit(d.m_nFileNo, 2, 0, 77);
        LPBYTE lpAt = m_db.Image(d.m_nFileNo) + d.m_nAt;
        std::vector<BYTE> vSaved(lpAt, lpAt + d.m_nSize);
        d.m_fnDamage(lpAt);
        std::string strBefore = ReadWholeFile(m_db.PathOf(d.m_nFileNo));
        EXPECT_EQ(FILEFAILED, m_db.Pass());
        EXPECT_TRUE(!d.m_bUnwritten || strBefore == ReadWholeFile(m_db.PathOf(d.m_nFileNo)));
        EXPECT_TRUE(nCommitted == m_db.CommittedOnDisk() && m_db.Head()->m_bSaveFlag == 1) << "the commit went ahead";
        EXPECT_TRUE(m_db.m_tree.Traced(d.m_lpCode));
        memcpy(lpAt, vSaved.data(), vSaved.size());
        EXPECT_EQ(DONE, m_db.Pass());
        ExpectCommitted(ts);
    }
}

TEST_F(PersistencePass, EntryPointingToItselfEndsItsChainAndThePassGoesOn)
{
    // The engine is linking entry 5 in: 3 -> 4 -> 5 -> 5. Blocks 3 and 4 are
    // saved, 5 is not, the commit goes ahead and the object stays marked.
    LPBASEFILEHEAD lpHead = m_db.FileHead(2);
    long long nMap = lpHead->m_nBlockMapStartOffset;
    auto Entry = [&](int i) { return (LPBASEFILEBLOCKMAP)(m_db.Image(2) + DbMapEntryOffset(nMap, i)); };
    long long nOldNext = Entry(5)->m_nNextOffset;
    Entry(5)->m_nNextOffset = DbMapEntryOffset(nMap, 5);
    // The block of a map entry, by its place among the prepared blocks.
    auto BlockOf = [&](int i) {
        for (int k = 0; k < m_db.m_nBlocks; k++)
            if (m_db.BlockOffset(2, k) == Entry(i)->m_nBlockOffset) return k;
        ADD_FAILURE() << "entry " << i << " names no prepared block";
        return 0;
    };
    long long ts = m_db.BeginTransaction();
    for (int i = 3; i <= 5; i++) m_db.ChangeRow(2, BlockOf(i), 0, 10 * i, ts);
    m_db.EndTransaction(ts);
    EXPECT_EQ(DONE, m_db.Pass());
    EXPECT_EQ(ts, m_db.CommittedOnDisk());
    auto Flags = [&] {
        std::string s;
        for (int i = 3; i <= 5; i++) s += std::to_string(Val(((LPBLOCKHEAD)(m_db.Image(2) + Entry(i)->m_nBlockOffset))->m_bSaveFlag));
        return s;
    };
    EXPECT_EQ("001", Flags()) << "save flags of blocks 3, 4, 5";
    EXPECT_EQ(1, Val(lpHead->m_bSaveFlag));
    // Linked in: the next pass saves the rest.
    Entry(5)->m_nNextOffset = nOldNext;
    EXPECT_EQ(DONE, m_db.Pass());
    EXPECT_EQ("000", Flags());
    ExpectCommitted(ts);
}

// An engine answering with an error code while a block is marked: the pass
// goes on from the live head and the image, so the block is not skipped by
// this and every later pass, and no head left in the buffer by an earlier
// pass is taken for a snapshot; an answer is a sign of life.
TEST_F(PersistencePass, EngineAnswersWithoutASnapshotStillSaveTheMarkedBlocks)
{
    StartEngine([](LPSTORAGEMEMHEAD c) { c->m_nResult = 5; });
    long long ts = Commit(2, 1, 0, 14);
    EXPECT_EQ(DONE, m_db.Pass());
    StopEngine();
    EXPECT_GE(m_nAnswers.load(), 1);
    ExpectCommitted(ts);
    // A snapshot whose mark is unknown is refused.
    StartEngine([this](LPSTORAGEMEMHEAD c) {
        LPBYTE lpData = (LPBYTE)c + c->m_nFileDataOffset, lpImage = m_db.Image(c->m_bFileNo);
        memcpy(lpData, lpImage, (size_t)((LPBASEFILEHEAD)lpImage)->m_nFileHeaderSize);
        if (c->m_bFileNo == 4) ((LPBASEFILEHEAD)lpData)->m_nDataFlag = 0x0BADF00D;
        c->m_nResult = 0;
    });
    Commit(4, 1, 0, 10);
    EXPECT_EQ(FILEFAILED, m_db.Pass());
}

// The answer semaphore keeps the posts of every answer seen before anyone
// waited on it; a slow answer is still waited for the whole time the engine
// has, and the engine is not taken for lost.
TEST_F(PersistencePass, StalePostsOfTheAnswerSemaphoreDoNotCutTheEnginesTimeShort)
{
    LPSTORAGEMEMHEAD lpChannel = m_db.Module().m_pFlashback->GetStorageMemHead();
    lpChannel->m_nCycleTime = 10; // 100 waits of 10 ms
    for (int i = 0; i < 5000; i++) SetEvent(m_db.Module().m_pFlashback->m_hFlashBackFinishedEvent);
    StartEngine([](LPSTORAGEMEMHEAD c) {
        usleep(300000);
        c->m_nResult = PEERRESULT_NOTHINGTOSAVE;
    });
    long long ts = Commit(2, 1, 0, 21);
    EXPECT_EQ(DONE, m_db.Pass());
    StopEngine();
    EXPECT_GE(m_nAnswers.load(), 1);
    EXPECT_EQ(1, Val(lpChannel->m_bService)) << "a slow engine was taken for lost";
    EXPECT_NE(PEERRESULT_TIMEOUT, Val(lpChannel->m_nResult));
    EXPECT_EQ(ts, m_db.CommittedOnDisk());
}

// The cycle time comes from a channel area that may have survived from any
// process: whatever it holds, the wait for the engine stays bounded.
TEST(FlashbackChannel, TheWaitForTheEngineIsBoundedWhateverCycleTheAreaHolds)
{
    const long long nMax = 100LL * FLASHBACK_CYCLE_MAX_MS;
    for (auto c : std::vector<std::pair<int, long long>>{{0, 10000}, {INT_MIN, 10000}, {1, 100},
             {FLASHBACK_CYCLE_MAX_MS, nMax}, {FLASHBACK_CYCLE_MAX_MS + 1, nMax}, {INT_MAX, nMax}})
        EXPECT_EQ(c.second, CTalvorFlashback::FileHeadAnswerMs(c.first)) << c.first;
}

namespace {

const BYTE* Bytes(const std::string& s) { return (const BYTE*)s.data(); }

// Blocks of the data file holding rows, changed as the engine changes them,
// with old versions in a rollback area of the test's own.
class PersistenceRollback : public PersistencePass {
protected:
    static const UINT AREA_SIZE = 1 << 20;
    static const int FILE_NO = 2;

    PersistenceRollback() : m_vArea(AREA_SIZE), m_area(m_vArea.data(), AREA_SIZE) {}
    void SetUp() override
    {
        PersistencePass::SetUp();
        if (HasFatalFailure()) return;
        m_area.Format();
        CTalvorFlashback* pFlashback = m_db.Module().m_pFlashback;
        m_lpOldArea = pFlashback->m_pRollbackFileAddr;
        pFlashback->SetRollbackArea(m_vArea.data(), AREA_SIZE);
        m_nBlock = m_db.BlockOffset(FILE_NO, 4);
    }
    // The segment is measured anew from its id.
    void TearDown() override { PersistencePass::TearDown(); if (m_db.m_pModule) m_db.Module().m_pFlashback->SetRollbackArea(m_lpOldArea, 0); }
    LPBYTE LiveBlock() { return m_db.Image(FILE_NO) + m_nBlock; }
    int BlockSize() { return ((LPBLOCKHEAD)LiveBlock())->m_nBlockSize; }
    talvorpeer::CPeerBlock Live() { return talvorpeer::CPeerBlock(LiveBlock(), BlockSize()); }
    // The engine's marks of a change at ts, block first (the rows between).
    void MarkBlock(long long ts)
    {
        ((LPBLOCKHEAD)LiveBlock())->m_nTimestamp = ts;
        talvorpeer::PeerFence();
        ((LPBLOCKHEAD)LiveBlock())->m_bSaveFlag = 1;
    }
    void MarkFile(long long ts)
    {
        LPBASEFILEOBJECTDEF lpObject = DbMemoryFileObject(m_db.Image(FILE_NO), m_db.File(FILE_NO)->m_liFileSize, 0);
        ASSERT_NE(nullptr, lpObject);
        lpObject->m_nFinishedTimestamp = ts;
        talvorpeer::PeerFence();
        lpObject->m_bSaveFlag = 1;
        m_db.FileHead(FILE_NO)->m_nTimestamp = ts;
    }
    std::string DiskBlock() { return Slice(ReadWholeFile(m_db.PathOf(FILE_NO)), m_nBlock, BlockSize()); }

    std::vector<BYTE> m_vArea;
    talvorpeer::CPeerRollbackArea m_area;
    LPBYTE m_lpOldArea = nullptr;
    long long m_nBlock = 0;
};

} // namespace

TEST_F(PersistenceRollback, BlockWhoseOldVersionIsGoneIsNotWrittenAndHoldsTheCommit)
{
    // Two rows, committed and on disk.
    const long long nCommitted = m_db.BeginTransaction();
    talvorpeer::CPeerBlock live = Live();
    live.Format(((LPBLOCKHEAD)LiveBlock())->m_nBlockNo, FILE_NO, 16);
    EXPECT_EQ(0, live.AddRow(11, nCommitted, Bytes("alpha"), 5, 16));
    EXPECT_EQ(1, live.AddRow(12, nCommitted, Bytes("beta"), 4, 16));
    MarkBlock(nCommitted);
    MarkFile(nCommitted);
    m_db.EndTransaction(nCommitted);
    EXPECT_EQ(DONE, m_db.Pass());
    std::string strDiskBefore = DiskBlock();
    // A transaction elsewhere commits; the next one is under way in the block.
    long long ts2 = Commit(FILE_NO, 1, 0, 7);
    long long ts3 = ts2 + 1;
    MarkBlock(ts3);
    long long nID = Live().UpdateRow(m_area, 0, ts3, Bytes("alpha-2"), 7);
    ASSERT_NE(0, nID);
    MarkFile(ts3);
    // Held: the engine reused the version's place before ts2 committed; no
    // rollback area at all; a row of a status the rollback does not take
    // back, newer than the save point.
    CTalvorFlashback* pFlashback = m_db.Module().m_pFlashback;
    const std::function<void(bool)> arHolds[] = {
        [&](bool b) { m_area.Record(nID)->m_sDataToken = b ? 99 : 11; },
        [&](bool b) { pFlashback->SetRollbackArea(b ? nullptr : m_vArea.data(), b ? 0 : AREA_SIZE); },
        [&](bool b) { Live().Row(0)->m_bDataStatus = b ? 1 : 0; }};
    for (const auto& fnHold : arHolds) {
        SCOPED_TRACE(&fnHold - arHolds);
        fnHold(true);
        EXPECT_EQ(PENDING, m_db.Pass());
        EXPECT_TRUE(nCommitted == m_db.CommittedOnDisk() && strDiskBefore == DiskBlock());
        EXPECT_EQ(1, Val(((LPBLOCKHEAD)LiveBlock())->m_bSaveFlag));
        fnHold(false);
    }

    // With the version back, the block goes to disk rolled back.
    EXPECT_EQ(DONE, m_db.Pass());
    std::string strDisk = DiskBlock();
    EXPECT_EQ("alpha", talvorpeer::CPeerBlock((LPBYTE)&strDisk[0], BlockSize()).RowValue(0));
    ExpectCommitted(ts2);
    // Committed, the block is written as it is.
    m_db.EndTransaction(ts3);
    EXPECT_EQ(DONE, m_db.Pass());
    EXPECT_EQ(ts3, m_db.CommittedOnDisk());
    EXPECT_EQ("alpha-2", talvorpeer::CPeerBlock((LPBYTE)&(strDisk = DiskBlock())[0], BlockSize()).RowValue(0));
}

// A map block whose bytes the file already holds is left out of the pass;
// every map block that changed, or whose last write was lost, goes out again.
TEST_F(PersistencePass, MapBlocksAreLeftOutOnlyWhenTheFileHoldsTheirBytes)
{
    const int nFileNo = 3;
    LPBASEFILEHEAD lpHead = m_db.FileHead(nFileNo);
    long long nMap = lpHead->m_nBlockMapStartOffset, nMapSize = lpHead->m_nBlockMapSize;
    // The engine changes the master; the pass writes the snapshot it takes
    // of it into the slave.
    LPBASEFILEBLOCKMAPHEAD lpMaster = (LPBASEFILEBLOCKMAPHEAD)(m_db.Image(nFileNo) + nMap);
    LPBASEFILEBLOCKMAPHEAD lpSlave = (LPBASEFILEBLOCKMAPHEAD)(m_db.Image(nFileNo) + nMap + nMapSize);
    auto fnDiskHoldsTheMap = [&]() {
        return Slice(ReadWholeFile(m_db.PathOf(nFileNo)), nMap, nMapSize) == ImageSlice((LPBYTE)lpSlave, 0, nMapSize);
    };
    // A pass with the file marked. A failing sync loses the page with the power.
    auto fnPass = [&](bool bFailSync = false) {
        lpHead->m_bSaveFlag = m_db.Head()->m_bSaveFlag = 1;
        FaultFileIO io;
        for (FileOp eOp : {FileOp::FSync, FileOp::FDataSync})
            if (bFailSync) io.FailCall(eOp, 1, EIO, FAULT_ALWAYS);
        std::unique_ptr<ScopedFileIO> pScope(new ScopedFileIO(&io));
        int nResult = m_db.Pass();
        pScope.reset();
        if (bFailSync) io.LosePower(NameLoss::Keep);
        return nResult;
    };
    Commit(nFileNo, 5, 2, 222);
    ASSERT_EQ(DONE, fnPass());
    EXPECT_TRUE(fnDiskHoldsTheMap());
    lpMaster->m_bReserved[0] = 1;
    ASSERT_EQ(DONE, fnPass());
    EXPECT_TRUE(fnDiskHoldsTheMap()) << "a changed map block was left out";
    // The map's sync fails and the kernel drops the page: written again.
    lpMaster->m_bReserved[0] = 2;
    EXPECT_NE(DONE, fnPass(true));
    ASSERT_EQ(DONE, fnPass());
    EXPECT_TRUE(fnDiskHoldsTheMap()) << "a map block whose write was lost was left out";
}

// A load learns the map the file holds; it syncs the file before it reads,
// so that a map the last run wrote without a sync is not taken for the
// medium's (and left out of later passes).
TEST_F(PersistencePass, ALoadSyncsTheMapItLearns)
{
    const int nFileNo = 3;
    long long nMap = m_db.FileHead(nFileNo)->m_nBlockMapStartOffset;
    m_db.Stop();
    const long long nChangedByte = nMap + offsetof(BASEFILEBLOCKMAPHEAD, m_bReserved);
    const BYTE bChanged = 0x6B;
    {
        FaultFileIO io;
        ScopedFileIO scope(&io);
        // The last run's change of the map, written and never synced.
        int fd = CTalvorFileIO::Current()->Open(m_db.PathOf(nFileNo).c_str(), O_RDWR, 0);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(1, CTalvorFileIO::Current()->PWrite(fd, &bChanged, 1, nChangedByte));
        CTalvorFileIO::Current()->Close(fd);
        ASSERT_EQ(S_OK, m_db.Start());
        io.LosePower(NameLoss::Keep);
    }
    EXPECT_EQ((char)bChanged, ReadWholeFile(m_db.PathOf(nFileNo))[(size_t)nChangedByte])
        << "the load learned a map block the medium never held";
}
