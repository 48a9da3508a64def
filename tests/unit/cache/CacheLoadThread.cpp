// The load thread of a cache-mode file, driven as the engine drives it; a
// refused request must leave its cache block as it was.
#include "FileStorageFixture.h"

#include <algorithm>
#include <semaphore.h>

using namespace cachetest;
using talvortest::FileOp;

namespace {

const UINT BLOCK_NO = 42;
const long long BLOCK_AT = 10LL * CACHE_BLOCK_SIZE;
const BYTE OTHER_FILE = 8;
const BYTE FILLER = 0xAB;

class CacheLoadThread : public FileStorageFixture {
protected:
    void SetUp() override
    {
        FileStorageFixture::SetUp();
        Make(FALSE);
        ASSERT_FALSE(HasFatalFailure());
        m_module.m_arFiles[FS_FILE_NO] = &m_info;
        WriteBlockHead(BLOCK_AT, BLOCK_NO, FS_FILE_NO, CACHE_BLOCK_SIZE);
        m_pCache->m_nWaitTime = 50;
        long long llHead = 0;
        ASSERT_EQ(0, m_pCache->LoadFile2Cache(nullptr, FS_FILE_NO, llHead));
        ASSERT_EQ(0, m_pCache->GetCacheLoadSlot(FS_FILE_NO, m_lpGroup, m_nSlots));
        ASSERT_EQ(0, m_pCache->InitFileLoadThreadAndEvent(FS_FILE_NO));
        char szName[64];
        snprintf(szName, sizeof(szName), "/%s%02X", SEMNAME_CACHELOADEVENT_PREFIX, (unsigned)FS_FILE_NO);
        m_hPost = sem_open(szName, 0);
        ASSERT_NE(SEM_FAILED, m_hPost);
        m_nTarget = m_pCache->GetLayout().m_nFirstFreeNo + 20;
        memset(Target(), FILLER, CACHE_BLOCK_SIZE);
    }
    void TearDown() override
    {
        if (m_pCache) m_pCache->Free();
        if (m_hPost != SEM_FAILED) sem_close(m_hPost);
        FileStorageFixture::TearDown();
    }

    void WriteBlockHead(long long llAt, UINT nBlockNo, BYTE bFileNo, int nSize)
    {
        BASEBLOCKHEAD h = {};
        h.m_nDataFlag = BLOCK_DATAFLAG;
        h.m_nBlockNo = nBlockNo;
        h.m_bFileNo = bFileNo;
        h.m_nBlockSize = nSize;
        h.m_bThreadNum = 5;
        h.m_nTimestamp = 77;
        ASSERT_TRUE(talvortest::WriteFileAt(m_strPath, llAt, AsString(&h, sizeof(h))));
    }
    LPBYTE Target() { return Base() + CacheBlockOffset(m_nTarget); }
    LPstu_FileCacheLoadInfo Group() { return &Head()->m_stFileCacheLoadInfo[FS_FILE_NO]; }

    // Posts a request in the slot at the reading position as the engine
    // does; the slot.
    LPCacheBufferBlockOperate Post(BYTE bFileNo, UINT nBlockNo, long long llFileOffset, int nSize,
                                   long long llCacheOffset)
    {
        LPCacheBufferBlockOperate p = &m_lpGroup[TalvorLoadShared(&Group()->m_bStorageLoadPos)];
        p->m_bFileNo = bFileNo;
        p->m_nBlockNo = nBlockNo;
        p->m_llFileBlockOffset = llFileOffset;
        p->m_nBlockSize = nSize;
        p->m_llCacheBlockOffset = llCacheOffset;
        p->m_bSuccess = 99;
        p->m_bVerification = (BYTE)((llCacheOffset / CACHE_BLOCK_SIZE) % 255 + 1);
        TalvorStoreShared(&p->m_bStatus, CACHELOAD_POSTED);
        sem_post(m_hPost);
        return p;
    }
    // The slot's m_bSuccess once answered (waited for, bounded), or -1.
    int Answer(LPCacheBufferBlockOperate p)
    {
        auto fnDone = [p] { return TalvorLoadShared(&p->m_bStatus) == CACHELOAD_DONE; };
        if (!talvortest::WaitUntil(fnDone, 5000)) return -1;
        int nSuccess = p->m_bSuccess;
        TalvorStoreShared(&p->m_bStatus, CACHELOAD_FREE);  // the engine takes the slot back
        return nSuccess;
    }
    LPCacheBufferBlockOperate PostGood() { return Post(FS_FILE_NO, BLOCK_NO, BLOCK_AT, CACHE_BLOCK_SIZE, CacheBlockOffset(m_nTarget)); }
    int RequestGood() { return Answer(PostGood()); }

    // The target holds the file's block, with the use count cleared.
    ::testing::AssertionResult TargetHoldsBlock()
    {
        std::vector<BYTE> vWant = FileAt(m_strPath, BLOCK_AT, CACHE_BLOCK_SIZE);
        if (vWant.size() != (size_t)CACHE_BLOCK_SIZE) return ::testing::AssertionFailure() << "file unreadable";
        vWant[offsetof(BASEBLOCKHEAD, m_bThreadNum)] = 0;
        for (int i = 0; i < CACHE_BLOCK_SIZE; i++)
            if (Target()[i] != vWant[(size_t)i]) return ::testing::AssertionFailure() << "byte " << i << " differs";
        return ::testing::AssertionSuccess();
    }
    bool TargetUntouched() { return std::all_of(Target(), Target() + CACHE_BLOCK_SIZE, [](BYTE b) { return b == FILLER; }); }

    LPCacheBufferBlockOperate m_lpGroup = nullptr;
    int m_nSlots = 0;
    sem_t* m_hPost = SEM_FAILED;
    UINT m_nTarget = 0;
};

// A request of a wrong file, block, place or size, or into a cache place
// that is not a cache block, is refused without a byte of the segment
// written outside the slots.
TEST_F(CacheLoadThread, WrongRequestsAreRefusedUntouchedAndGoodOnesLoadAroundTheGroup)
{
    // A file the module knows without a backend.
    FILEINFO stNoBackend = {};
    stNoBackend.m_bFileNo = OTHER_FILE;
    m_module.m_arFiles[OTHER_FILE] = &stNoBackend;
    // A block of another file stands where the engine thinks ours is.
    WriteBlockHead(BLOCK_AT + CACHE_BLOCK_SIZE, BLOCK_NO + 1, OTHER_FILE, CACHE_BLOCK_SIZE);
    // A block whose head says it is half as large as asked.
    WriteBlockHead(BLOCK_AT + 2 * CACHE_BLOCK_SIZE, BLOCK_NO + 2, FS_FILE_NO, CACHE_BLOCK_SIZE / 2);
    const long long llTarget = CacheBlockOffset(m_nTarget);
    const CACHELAYOUT& l = m_pCache->GetLayout();
    const int B = CACHE_BLOCK_SIZE, F = CACHELOAD_FAILED;
    struct {  // llCache -1: the target
        const char* lpszCase; UINT nBlockNo; long long llAt; int nSize;
        BYTE bFileNo = FS_FILE_NO; int nAnswer = CACHELOAD_FAILED; long long llCache = -1;
    } arCases[] = {
        {"unknown file", BLOCK_NO, BLOCK_AT, B, 9, CACHELOAD_NOFILE},
        {"file without a backend", BLOCK_NO, BLOCK_AT, B, OTHER_FILE, CACHELOAD_NOBACKEND},
        {"wrong number", BLOCK_NO + 7, BLOCK_AT, B},
        {"another file's block", BLOCK_NO + 1, BLOCK_AT + B, B},
        {"size not the block's", BLOCK_NO + 2, BLOCK_AT + 2 * B, B},
        {"no mark (random bytes)", BLOCK_NO, BLOCK_AT + 5 * B, B},
        {"past the end of the file", BLOCK_NO, FS_FILE_SIZE - B / 2, B},
        {"over the head page", BLOCK_NO, 0, B},
        {"size 0", BLOCK_NO, BLOCK_AT, 0},
        {"last map block", BLOCK_NO, BLOCK_AT, B, FS_FILE_NO, F, CacheBlockOffset(l.m_nFirstFreeNo) - B},
        {"not on a block", BLOCK_NO, BLOCK_AT, B, FS_FILE_NO, F, llTarget + 512},
        {"runs into it", BLOCK_NO, BLOCK_AT, B, FS_FILE_NO, F, l.m_llFIFOOffset - B / 2},
    };
    std::vector<BYTE> vBefore = Snapshot();
    for (const auto& c : arCases) {
        long long llCache = c.llCache == -1 ? llTarget : c.llCache;
        EXPECT_EQ(c.nAnswer, Answer(Post(c.bFileNo, c.nBlockNo, c.llAt, c.nSize, llCache))) << c.lpszCase;
        EXPECT_TRUE(TargetUntouched()) << c.lpszCase;
    }
    // Only the group's slots and its load information may have changed.
    std::vector<BYTE> vAfter = Snapshot();
    ASSERT_EQ(vBefore.size(), vAfter.size());
    auto fnAllow = [&](const void* p, size_t n) { memcpy(&vAfter[(LPBYTE)p - Base()], &vBefore[(LPBYTE)p - Base()], n); };
    fnAllow(m_lpGroup, (size_t)m_nSlots * sizeof(CacheBufferBlockOperate));
    fnAllow(Group(), sizeof(stu_FileCacheLoadInfo));
    EXPECT_EQ(-1, FirstDiff(vBefore, vAfter)) << "a segment byte outside the slots was written";
    // The thread still serves good requests, byte for byte, more of them
    // than slots: the reading position must wrap at the end of the group.
    for (int i = 0; i < m_nSlots + 3; i++) {
        memset(Target(), FILLER, CACHE_BLOCK_SIZE);
        BYTE bPos = TalvorLoadShared(&Group()->m_bStorageLoadPos);
        ASSERT_EQ(CACHELOAD_OK, RequestGood()) << "request " << i;
        ASSERT_TRUE(TargetHoldsBlock()) << "request " << i;
        EXPECT_EQ((bPos + 1) % m_nSlots, TalvorLoadShared(&Group()->m_bStorageLoadPos));
    }
    EXPECT_EQ(0, Val(((LPBASEBLOCKHEAD)Target())->m_bThreadNum));
}

TEST_F(CacheLoadThread, ReadErrorsAreAnsweredFailedNeverAHalfBlock)
{
    m_io.FailNext(FileOp::PRead, EIO, FILESTORE_IO_TRIES);
    EXPECT_EQ(CACHELOAD_FAILED, RequestGood());
    EXPECT_TRUE(TargetUntouched());
    // Each try moves the first 4 KiB, then the disk fails: a half-read
    // block must not reach the cache.
    m_io.ChopTransfers(4096, false);
    long long nFrom = m_io.Calls(FileOp::PRead) + 2;
    m_io.FailCall(FileOp::PRead, nFrom, EIO, talvortest::FAULT_ALWAYS);
    EXPECT_EQ(CACHELOAD_FAILED, RequestGood());
    EXPECT_TRUE(TargetUntouched());
    EXPECT_TRUE(LatchFree());
}

TEST_F(CacheLoadThread, ZerosEndingABlockLoadButAFileCutInsideItGivesNoBlock)
{
    // Zeros at the end of a block look like what a read past the end of
    // the file gives; in a file that holds the block whole they are data.
    ASSERT_TRUE(talvortest::WriteFileAt(m_strPath, BLOCK_AT + CACHE_BLOCK_SIZE - 4096, std::string(4096, '\0')));
    EXPECT_EQ(CACHELOAD_OK, RequestGood());
    EXPECT_TRUE(TargetHoldsBlock());
    // The head of the block is intact, its tail is gone: the read meets the
    // end of the file and would fill zeros. From one byte short to half.
    for (long long llCut : {1LL, 512LL, 4096LL, (long long)CACHE_BLOCK_SIZE / 2}) {
        memset(Target(), FILLER, CACHE_BLOCK_SIZE);
        ASSERT_EQ(0, truncate(m_strPath.c_str(), BLOCK_AT + CACHE_BLOCK_SIZE - llCut));
        EXPECT_EQ(CACHELOAD_FAILED, RequestGood()) << "cut " << llCut << " bytes short";
        EXPECT_TRUE(TargetUntouched()) << "cut " << llCut << " bytes short";
    }
}

// A pause that comes while a slot of the file is being read waits for that
// slot's answer (and is refused while the read hangs); the next slot waits
// for the pause to end, and a stop ends a thread held by a pause.
TEST_F(CacheLoadThread, APauseWaitsForTheServedSlotHoldsTheNextAndAStopEndsThePausedThread)
{
    EXPECT_EQ(1, m_pCache->InitFileLoadThreadAndEvent(FS_FILE_NO)) << "a second thread for the file";
    m_io.Hold(FileOp::PRead);
    LPCacheBufferBlockOperate p = PostGood();
    ASSERT_TRUE(m_io.WaitHeld(20000)) << "the slot was never served";
    ExpectPauseWaitsOutTheHold("a slot of the file was still being read");
    EXPECT_EQ(CACHELOAD_OK, Answer(p));
    EXPECT_TRUE(TargetHoldsBlock());
    memset(Target(), FILLER, CACHE_BLOCK_SIZE);
    LPCacheBufferBlockOperate pNext = PostGood();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(CACHELOAD_POSTED, TalvorLoadShared(&pNext->m_bStatus)) << "a paused file was served";
    m_pCache->ResumeFile();
    EXPECT_EQ(CACHELOAD_OK, Answer(pNext));
    // Stop while the thread waits on a pause: it must end well within the
    // join time, with no latch taken and the request left unanswered.
    memset(Target(), FILLER, CACHE_BLOCK_SIZE);
    ASSERT_TRUE(m_pCache->PauseFile(FS_FILE_NO));
    LPCacheBufferBlockOperate pLast = PostGood();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    auto t0 = std::chrono::steady_clock::now();
    m_pCache->Free();
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(2));
    EXPECT_EQ(CACHELOAD_POSTED, TalvorLoadShared(&pLast->m_bStatus));
    EXPECT_TRUE(TargetUntouched());
    EXPECT_TRUE(LatchFree());
    EXPECT_EQ(0, m_pCache->m_csCache.m_nLockFlag);
}

} // namespace
