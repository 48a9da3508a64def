// The chains of the cache map and the load groups; a broken chain, a stray
// offset or an empty free chain is refused without a byte changed.
#include "CacheFixture.h"

#include <atomic>
#include <set>
#include <thread>

using namespace cachetest;

namespace {

const int CACHE_MB = 32;

class CacheChains : public CacheFixture {
protected:
    void SetUp() override
    {
        CacheFixture::SetUp();
        ASSERT_EQ(S_OK, Open(CACHE_MB));
        m_l = m_pCache->GetLayout();
    }
    long long Take(BYTE bFileNo)
    {
        long long llOffset = -1;
        EXPECT_EQ(0, m_pCache->LoadFile2Cache(nullptr, bFileNo, llOffset));
        return llOffset;
    }
    stu_FileCacheLoadInfo Group(BYTE bFileNo) { return Head()->m_stFileCacheLoadInfo[bFileNo]; }
    void ExpectRefused(BYTE bFileNo, int nWant = CACHE_RESULT_BADCHAIN)
    {
        std::vector<BYTE> vBefore = Snapshot();
        long long llOffset = 77;
        EXPECT_EQ(nWant, m_pCache->LoadFile2Cache(nullptr, bFileNo, llOffset));
        EXPECT_EQ(77, llOffset);
        EXPECT_EQ(-1, FirstDiff(vBefore, Snapshot()));
    }
    // Pages of a new file: head, nEx extended heads, first map block.
    std::vector<BYTE> NewFilePages(BYTE bFileNo, BYTE bFileType, int nEx)
    {
        std::vector<BYTE> v((size_t)(nEx + 2) * CACHE_PAGE_SIZE);
        for (size_t i = 0; i < v.size(); i++) v[i] = (BYTE)(i * 7 + bFileNo);
        LPTABLEFILEHEAD h = (LPTABLEFILEHEAD)v.data();
        h->m_nDataFlag = FileHeadDataFlag(bFileType);
        h->m_bFileNo = bFileNo;
        h->m_bFileType = bFileType;
        h->m_nNextFileHeadOffset = nEx > 0 ? CACHE_PAGE_SIZE : 0;
        h->m_nCacheStartOffset = 0;
        int nExMark = bFileType == FILETYPE_TABLE ? TABLEFILEEX_DATAFLAG : INDEXFILEEX_DATAFLAG;
        for (int i = 1; i <= nEx; i++) {
            LPTABLEFILEHEADEX x = (LPTABLEFILEHEADEX)(v.data() + (size_t)i * CACHE_PAGE_SIZE);
            x->m_nDataFlag = nExMark;
            x->m_bExHeadNo = (BYTE)i;
            x->m_nNextFileHeadCacheOffset = 0;
        }
        LPBASEFILEBLOCKMAPHEAD_CACHE m = (LPBASEFILEBLOCKMAPHEAD_CACHE)(v.data() + (size_t)(nEx + 1) * CACHE_PAGE_SIZE);
        m->m_nDataFlag = BLOCKMAP_CACHE_DATAFLAG;
        m->m_nMapNo = 1;
        return v;
    }
    CACHELAYOUT m_l;
};

} // namespace

// What cannot be had is refused with not a byte of the segment changed: a
// new file's pages without a block each; a load group placed by a wild
// count of slots left (the daemon's, but it lies in shared memory); a block
// once the free chain is empty.
TEST_F(CacheChains, AShortNewChainAWildSlotCountAndAnEmptyFreeChainAreRefusedUnchanged)
{
    Take(40);
    Take(40);
    std::vector<BYTE> vPages = NewFilePages(40, FILETYPE_TABLE, 1);
    std::vector<BYTE> vBefore = Snapshot();
    EXPECT_EQ(CACHE_RESULT_NOFREEBLOCK, m_pCache->NewFile2Cache(nullptr, 40, FILETYPE_TABLE, vPages.data(), 1));
    EXPECT_EQ(CACHE_RESULT_NOFREEBLOCK, m_pCache->NewFile2Cache(nullptr, 41, FILETYPE_TABLE, vPages.data(), 0));
    EXPECT_EQ(-1, FirstDiff(vBefore, Snapshot()));
    const int nValid = Head()->m_nValidLoadSlotNum;
    for (int nWild : {-1, 474}) {
        SCOPED_TRACE(nWild);
        Head()->m_nValidLoadSlotNum = nWild;
        ExpectRefused(60);
    }
    Head()->m_nValidLoadSlotNum = nValid;
    size_t nFree = Chain((UINT)Head()->m_nFreeNo).size();
    for (size_t i = 0; i < nFree; i++) ASSERT_GE(Take(1), 0) << i;
    EXPECT_EQ(0, Val(Head()->m_nFreeNo));
    EXPECT_EQ(nFree, Chain(Head()->m_nFileInfoNo[1]).size());
    ExpectRefused(2, CACHE_RESULT_NOFREEBLOCK);
}

TEST_F(CacheChains, BrokenChainsAreRefusedWithoutTouchingTheFreeChain)
{
    Take(5);
    Take(5);
    UINT nFirst = Head()->m_nFileInfoNo[5];
    UINT nSecond = m_pCache->GetLink(nFirst);
    // A loop in the file's chain, then a link past the last block.
    for (UINT nBad : {nFirst, m_l.m_nBlockBufNum + 1}) {
        SCOPED_TRACE(nBad);
        *(UINT*)(Base() + CacheLinkOffset(nSecond)) = nBad;
        ExpectRefused(5);
    }
    // A free chain whose head or second link leaves the block area.
    *(UINT*)(Base() + CacheLinkOffset(nSecond)) = 0;
    UINT nFree = (UINT)Head()->m_nFreeNo;
    *(UINT*)(Base() + CacheLinkOffset(nFree)) = 1;
    ExpectRefused(5);
    Head()->m_nFreeNo = (int)(m_l.m_nBlockBufNum + 1);
    ExpectRefused(6);
}

// A group given up, refused or placed outside the slots (its place lies in
// shared memory) is not given; a recycled one out of bounds is not handed on.
TEST_F(CacheChains, ARefusedOrStrayGroupIsNotGiven)
{
    Take(3);
    Head()->m_bRecycleFileNo = 3;
    Head()->m_stFileCacheLoadInfo[3].m_bNextRecycleFileNo = 0;
    Take(20);
    LPCacheBufferBlockOperate pSlots = nullptr;
    int nNum = 0;
    EXPECT_EQ(1, m_pCache->GetCacheLoadSlot(3, pSlots, nNum));
    Head()->m_stFileCacheLoadInfo[20].m_bStatus = 1;
    EXPECT_EQ(1, m_pCache->GetCacheLoadSlot(20, pSlots, nNum));
    Head()->m_stFileCacheLoadInfo[20].m_bStatus = 0;
    Head()->m_stFileCacheLoadInfo[20].m_nCacheLoadHeadOffset = CACHE_MAP_OFFSET - 64;
    EXPECT_EQ(1, m_pCache->GetCacheLoadSlot(20, pSlots, nNum));
    Head()->m_stFileCacheLoadInfo[20].m_nCacheLoadHeadOffset = m_l.m_llTotalSize - 32;
    EXPECT_EQ(1, m_pCache->GetCacheLoadSlot(20, pSlots, nNum));

    // A recycled group out of bounds is not handed on, and the new file's
    // block goes back to the free chain.
    Head()->m_bRecycleFileNo = 20;
    ExpectRefused(21);
}

// A new file's pages are the caller's (its buffer left as it was) but for
// the links from the head to the first map; the walk along them refuses
// what is not a chain of pages of the file's type.
TEST_F(CacheChains, ANewFilesPagesAreLinkedAndTheWalkToTheFirstMapRefusesWhatIsNotAChain)
{
    // The index form walks the same way with its own mark.
    const BYTE bType = FILETYPE_TABLE, bFileNo = 50;
    std::vector<long long> v;
    for (int i = 0; i < 4; i++) v.push_back(Take(bFileNo));
    std::vector<BYTE> vPages = NewFilePages(bFileNo, bType, 2), vCopy = vPages;
    ASSERT_EQ(0, m_pCache->NewFile2Cache(nullptr, bFileNo, bType, vPages.data(), 2));
    EXPECT_TRUE(vCopy == vPages);
    LPTABLEFILEHEAD pHead = (LPTABLEFILEHEAD)(Base() + v[0]);
    LPTABLEFILEHEADEX pEx2 = (LPTABLEFILEHEADEX)(Base() + v[2]);
    EXPECT_EQ(v[1], Val(pHead->m_nCacheStartOffset));
    for (int i = 1; i <= 2; i++)
        EXPECT_EQ(v[i + 1], Val(((LPTABLEFILEHEADEX)(Base() + v[i]))->m_nNextFileHeadCacheOffset));
    EXPECT_EQ(0, memcmp(Base() + v[3], vPages.data() + 3 * CACHE_PAGE_SIZE, CACHE_PAGE_SIZE));
    EXPECT_EQ(0, memcmp(pHead, vPages.data(), offsetof(TABLEFILEHEAD, m_nCacheStartOffset)));
    EXPECT_EQ(0, memcmp((LPBYTE)pHead + 114, vPages.data() + 114, CACHE_PAGE_SIZE - 114));

    auto Expect = [&](int nWant, const char* lpWhy) {
        SCOPED_TRACE(lpWhy);
        long long llOut = -5;
        EXPECT_EQ(nWant, m_pCache->GetFirstTableMapCacheAddr(pHead, Base(), llOut));
        EXPECT_EQ(nWant == 0 ? v[3] : -5, llOut);
    };
    Expect(0, "as made");
    long long llStart = pHead->m_nCacheStartOffset;
    pHead->m_nCacheStartOffset = 0;
    Expect(CACHE_RESULT_NOCHAIN, "no next page");
    for (long long llBad : {1LL << 40, -16384LL, 16384LL, llStart + 512, m_l.m_llFIFOOffset}) {
        pHead->m_nCacheStartOffset = llBad;
        Expect(CACHE_RESULT_BADCHAIN, "next page outside the blocks");
    }
    pHead->m_nCacheStartOffset = llStart;
    long long llNext = pEx2->m_nNextFileHeadCacheOffset;
    pEx2->m_nNextFileHeadCacheOffset = llStart;
    Expect(CACHE_RESULT_BADCHAIN, "extended pages in a loop");
    pEx2->m_nNextFileHeadCacheOffset = 0;
    Expect(CACHE_RESULT_BADCHAIN, "extended pages end before a map");
    pEx2->m_nNextFileHeadCacheOffset = llNext;
    int nMark = pEx2->m_nDataFlag;
    pEx2->m_nDataFlag = INDEXFILEEX_DATAFLAG;
    Expect(CACHE_RESULT_BADCHAIN, "a page of the other type in the chain");
    pEx2->m_nDataFlag = nMark;
    // Without extended pages the next page itself must be the map.
    pHead->m_nNextFileHeadOffset = 0;
    Expect(CACHE_RESULT_BADCHAIN, "an extended page where the map should be");
}

// At start the flush threads of both kinds may take blocks at once: under
// the chain latch no block is handed out twice and none is lost. Short
// chains over many files keep the threads in the free chain and the load
// groups most of the time, where a missing latch shows.
TEST_F(CacheChains, TwoThreadsTakingBlocksAtOnceNeverShareOrLoseOne)
{
    const int nFiles = 100, nRounds = 7;
    // A race shows in some runs only: two hundred fresh caches, under a
    // second; ten were too few to catch a latch left out.
    for (int nRun = 0; nRun < 200 && !HasFailure(); nRun++) {
        SCOPED_TRACE(nRun);
        m_pCache.reset();
        ASSERT_EQ(S_OK, Open(CACHE_MB));
        std::atomic<int> nReady{0};
        auto Worker = [&](int nFirstFile) {
            TALVORCRITICALSECTION crit;
            InitThreadCritSection(&crit);
            nReady++;
            while (nReady.load() < 2) {
            }
            long long llOffset = 0;
            for (int r = 0; r < nRounds; r++)
                for (int f = nFirstFile; f < nFirstFile + nFiles; f++)
                    ASSERT_EQ(0, m_pCache->LoadFile2Cache(&crit, (BYTE)f, llOffset));
            EXPECT_EQ(0, crit.m_nCritPos);
        };
        std::thread a(Worker, 1), b(Worker, 1 + nFiles);
        a.join();
        b.join();
        std::set<UINT> vAll;
        std::set<long long> vGroups;
        std::vector<UINT> vFree = Chain((UINT)Head()->m_nFreeNo);
        size_t nCount = vFree.size();
        vAll.insert(vFree.begin(), vFree.end());
        for (int f = 1; f <= 2 * nFiles; f++) {
            std::vector<UINT> v = Chain(Head()->m_nFileInfoNo[f]);
            EXPECT_EQ((size_t)nRounds, v.size()) << f;
            nCount += v.size();
            vAll.insert(v.begin(), v.end());
            vGroups.insert(Val(Group((BYTE)f).m_nCacheLoadHeadOffset));
        }
        // Blocks that hold load groups are on no chain.
        EXPECT_EQ(nCount, vAll.size());
        EXPECT_EQ(2u * nFiles, vGroups.size());
        size_t nSlotBlocks = 0;
        for (UINT nBlock = m_l.m_nFirstFreeNo; nBlock <= m_l.m_nBlockBufNum; nBlock++) nSlotBlocks += !vAll.count(nBlock);
        // Seven groups in the head blocks (six of 64 and the 89 left), eight
        // to each further block: a block fills before the next is taken.
        EXPECT_EQ((size_t)((2 * nFiles - 7 + 7) / 8), nSlotBlocks);
    }
}
