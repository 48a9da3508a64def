// Page pools and the size-class pool: every result aligned, inside storage
// the pool owns and apart from every other (each filled with a pattern of
// its own, all checked, so an overlap shows even where the bookkeeping
// agrees); a reset reuses all pages; an exhausted source or limit is
// reported and leaves the pool whole.
#include "TalvorBufferPool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <random>
#include <vector>

namespace {

// Lets a test see the page lists and count the pages taken.
template <typename Base>
class CProbe : public Base {
public:
    int m_nTaken = 0;

    std::vector<LPBUFFERPOOL> Pages() const
    {
        std::vector<LPBUFFERPOOL> pages;
        for (LPBUFFERPOOL p = this->m_lpCurrentPool; p != nullptr; p = p->m_pNext) pages.push_back(p);
        for (LPBUFFERPOOL p = this->m_lpBufferPool; p != nullptr; p = p->m_pNext) pages.push_back(p);
        return pages;
    }
    LPBUFFERPOOL Head() const { return this->m_lpCurrentPool; }

protected:
    LPBUFFERPOOL TakePage(UINT nSize) override
    {
        ++m_nTaken;
        return Base::TakePage(nSize);
    }
};

// A page source that can run dry, raises sizes, and checks that every page
// comes back once with its own cookie.
class CTestSource : public ITalvorPageSource {
public:
    int m_nLeft = 1 << 30;
    UINT m_nRaise = 0;
    UINT m_nShrink = 0;
    std::map<LPBYTE, void*> m_live;
    int m_nBadReturns = 0;

    int AllocMemoryBufferPool(LPBYTE& lpBuffer, UINT& nSize, void*& pCookie, BOOL bBufferPool) override
    {
        if (!bBufferPool || m_nLeft <= 0) return 1;
        --m_nLeft;
        nSize = nSize + m_nRaise - m_nShrink;
        lpBuffer = static_cast<LPBYTE>(malloc(nSize));
        pCookie = reinterpret_cast<void*>(static_cast<uintptr_t>(m_live.size() + 1000));
        m_live[lpBuffer] = pCookie;
        return 0;
    }
    void FreeMemoryBufferPool(LPBYTE lpBuffer, void* pCookie) override
    {
        auto it = m_live.find(lpBuffer);
        if (it == m_live.end() || it->second != pCookie) {
            ++m_nBadReturns;
            return;
        }
        m_live.erase(it);
        free(lpBuffer);
    }
};

struct Grant { LPBYTE p; UINT n; BYTE bMark; };

bool InsidePoolStorage(const Grant& g, const std::vector<LPBUFFERPOOL>& pages, const void* pObject, size_t nObject)
{
    const BYTE* pObj = static_cast<const BYTE*>(pObject);
    if (g.p >= pObj && g.p + g.n <= pObj + nObject) return true;
    for (LPBUFFERPOOL page : pages) {
        LPBYTE lpStart = reinterpret_cast<LPBYTE>(page) + TALVOR_POOL_HEAD_SIZE;
        LPBYTE lpEnd = reinterpret_cast<LPBYTE>(page) + page->m_nSize;
        if (g.p >= lpStart && g.p + g.n <= lpEnd) return true;
    }
    return false;
}

// Random sizes, some above a page; checks every rule on every result.
template <typename Pool>
void DriveRandom(CProbe<Pool>& pool, unsigned nSeed)
{
    std::mt19937 rng(nSeed);
    std::vector<Grant> grants;
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 3000; ++i) {
            UINT n = rng() % 8 == 0 ? rng() % 40000 : rng() % 300;
            LPBYTE p = pool.AllocBuffer(n);
            ASSERT_NE(p, nullptr);
            ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % TALVOR_POOL_ALIGN, 0u) << n;
            Grant g{p, n, static_cast<BYTE>(rng())};
            memset(p, g.bMark, n);
            grants.push_back(g);
        }
        std::vector<LPBUFFERPOOL> pages = pool.Pages();
        std::map<LPBYTE, UINT> byStart;
        for (const Grant& g : grants) {
            ASSERT_TRUE(InsidePoolStorage(g, pages, &pool, sizeof(pool)));
            for (UINT k = 0; k < g.n; ++k) ASSERT_EQ(g.p[k], g.bMark);
            if (g.n > 0) byStart[g.p] = g.n;
        }
        LPBYTE lpEnd = nullptr;
        for (const auto& kv : byStart) {
            ASSERT_TRUE(lpEnd == nullptr || kv.first >= lpEnd) << "two results overlap";
            lpEnd = kv.first + kv.second;
        }
        pool.ResetBuffer();
        grants.clear();
    }
}

TEST(BufferPool, RandomRequestsStayAlignedInsideAndApart)
{
    CProbe<CTalvorBufferPool> base;
    base.SetPoolPageSize(8192);
    DriveRandom(base, 1);

    CProbe<CTalvorBufferPoolEx> inner;
    inner.SetPoolPageSize(4096);
    DriveRandom(inner, 2);

    CTestSource source;
    {
        CProbe<CTalvorBufferPoolEx2> sourced;
        sourced.SetBson(&source);
        sourced.SetPoolPageSize(16384);
        DriveRandom(sourced, 3);
        EXPECT_FALSE(source.m_live.empty());
    }
    EXPECT_TRUE(source.m_live.empty()) << "the destructor gives every page back to its source";
    EXPECT_EQ(source.m_nBadReturns, 0);
}

TEST(BufferPool, ResetReusesEveryPageAndBlockWithoutNewPages)
{
    CProbe<CTalvorBufferPool> pool;
    pool.SetPoolPageSize(4000);
    for (int i = 0; i < 3; ++i) ASSERT_NE(pool.AllocBuffer(3500), nullptr);
    ASSERT_NE(pool.AllocBuffer(20000), nullptr);
    ASSERT_EQ(pool.m_nTaken, 4);

    pool.ResetBuffer();
    // One request each in the three pages, five in the old dedicated block.
    for (int i = 0; i < 8; ++i) ASSERT_NE(pool.AllocBuffer(3500), nullptr) << i;
    EXPECT_EQ(pool.m_nTaken, 4);
    ASSERT_NE(pool.AllocBuffer(3500), nullptr);
    EXPECT_EQ(pool.m_nTaken, 5) << "all reused storage is used up";
}

TEST(BufferPool, ExhaustedSourcesAndImpossibleSizesGiveNullAndKeepThePool)
{
    CTestSource source;
    CProbe<CTalvorBufferPoolEx2> pool;
    pool.SetBson(&source);
    pool.SetPoolPageSize(4000);
    source.m_nLeft = 1;
    LPBYTE a = pool.AllocBuffer(2000);
    ASSERT_NE(a, nullptr);
    memset(a, 0x11, 2000);
    LPBUFFERPOOL head = pool.Head();
    UINT nPos = head->m_nPos;
    EXPECT_EQ(pool.AllocBuffer(2500), nullptr);
    EXPECT_EQ(pool.AllocBuffer(50000), nullptr);
    EXPECT_EQ(pool.Head(), head);
    EXPECT_EQ(head->m_nPos, nPos);
    EXPECT_EQ(a[1999], 0x11);
    EXPECT_EQ(pool.AllocBuffer(8), a + 2000) << "what still fits is still served";

    source.m_nLeft = 10;
    source.m_nShrink = 1;
    EXPECT_EQ(pool.AllocBuffer(2500), nullptr) << "a page smaller than asked is refused";
    EXPECT_EQ(source.m_live.size(), 1u);
    source.m_nShrink = 0;
    source.m_nRaise = 4096;
    ASSERT_NE(pool.AllocBuffer(2500), nullptr);
    EXPECT_EQ(pool.Head()->m_nSize, 4040u + 4096) << "the page records the raised size";
    pool.Free();
    EXPECT_TRUE(source.m_live.empty());
    EXPECT_EQ(source.m_nBadReturns, 0);

    CTalvorBufferPool plain;
    EXPECT_EQ(plain.AllocBuffer(0xFFFFFFFFu), nullptr) << "the page size would wrap";
    EXPECT_EQ(plain.AllocBuffer(TALVOR_POOL_MAX_REQUEST + 1), nullptr);
    plain.SetPoolPageSize(-100000);  // no room for a page head: the request must still fit
    LPBYTE p = plain.AllocBuffer(100);
    ASSERT_NE(p, nullptr);
    memset(p, 0, 100);
}

TEST(MemoryPool, RandomBlocksStayAlignedApartAndIntact)
{
    CTalvorMemoryPool pool;
    std::mt19937 rng(7);
    std::map<LPBYTE, std::pair<UINT, BYTE>> live;
    auto intact = [](const auto& kv) {
        for (UINT k = 0; k < kv.second.first; k += 4093) ASSERT_EQ(kv.first[k], kv.second.second);
    };
    const UINT arSizes[] = {1, 16384, 16385, 40000, 70000, 200000, 262144, 300000, 2000000, 4194304, 5000000};
    for (int i = 0; i < 300; ++i) {
        if (!live.empty() && rng() % 2 == 0) {
            auto it = live.begin();
            std::advance(it, rng() % live.size());
            intact(*it);
            pool.Free(it->first);
            live.erase(it);
            continue;
        }
        UINT n = arSizes[rng() % (sizeof(arSizes) / sizeof(arSizes[0]))];
        UINT nAsked = n;
        LPBYTE p = pool.Alloc(n);
        ASSERT_NE(p, nullptr);
        ASSERT_GE(n, nAsked);
        ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
        auto next = live.lower_bound(p);
        if (next != live.end()) {
            ASSERT_LE(p + n, next->first) << "overlaps the next block";
        }
        if (next != live.begin()) {
            auto prev = std::prev(next);
            ASSERT_LE(prev->first + prev->second.first, p) << "overlaps the previous block";
        }
        BYTE bMark = static_cast<BYTE>(rng());
        memset(p, bMark, n);
        live[p] = {n, bMark};
    }
    for (const auto& kv : live) intact(kv);
}

TEST(MemoryPool, LimitAndDoubleFreeAndImpossibleSizes)
{
    CTalvorMemoryPool pool;
    pool.SetMaxTotalSize(3 * TALVOR_MEMPOOL_SMALL_CHUNK - 1);
    std::vector<LPBYTE> blocks;
    UINT n = TALVOR_MEMPOOL_SMALL_CLASS_MAX;
    for (LPBYTE p; (p = pool.Alloc(n)) != nullptr;) blocks.push_back(p);
    EXPECT_EQ(pool.GetAllocedSize(), 2LL * TALVOR_MEMPOOL_SMALL_CHUNK) << "a chunk that reaches the limit is refused";
    long long nTotal = pool.GetTotalSize();
    n = 5000000;
    EXPECT_EQ(pool.Alloc(n), nullptr);
    EXPECT_EQ(pool.GetTotalSize(), nTotal);

    pool.Free(blocks[0]);
    pool.Free(blocks[0]);
    pool.Free(nullptr);
    n = TALVOR_MEMPOOL_SMALL_CLASS_MAX;
    LPBYTE a = pool.Alloc(n);
    LPBYTE b = pool.Alloc(n);
    EXPECT_EQ(a, blocks[0]);
    EXPECT_EQ(b, nullptr) << "a second Free must not hand the block out twice";

    pool.SetMaxTotalSize(0);
    n = 0xFFFFFFF0u;
    EXPECT_EQ(pool.Alloc(n), nullptr) << "size and extra would wrap the chunk's size";
    EXPECT_EQ(pool.GetTotalSize(), nTotal);
}

}  // namespace
