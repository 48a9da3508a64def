// Page pools and the size-class pool: every result aligned, inside storage
// the pool owns and apart from every other (each filled with a pattern of
// its own, all checked, so an overlap shows even where the bookkeeping
// agrees); an exhausted source or limit is reported and leaves the pool
// whole.
#include "TalvorBufferPool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <random>
#include <vector>

namespace {

// Lets a test see the page lists.
template <typename Base>
class CProbe : public Base {
public:
    std::vector<LPBUFFERPOOL> Pages() const {
        std::vector<LPBUFFERPOOL> pages;
        for (LPBUFFERPOOL p : {this->m_lpCurrentPool, this->m_lpBufferPool})
            for (; p != nullptr; p = p->m_pNext) pages.push_back(p);
        return pages;
    }
};

// A page source that can run dry, raises sizes, and checks that every page
// comes back once with its own cookie.
class CTestSource : public ITalvorPageSource {
public:
    int m_nLeft = 1 << 30, m_nBadReturns = 0;
    UINT m_nShrink = 0;
    std::map<LPBYTE, void*> m_live;

    int AllocMemoryBufferPool(LPBYTE& lpBuffer, UINT& nSize, void*& pCookie, BOOL bBufferPool) override {
        if (!bBufferPool || m_nLeft <= 0) return 1;
        --m_nLeft;
        nSize -= m_nShrink;
        lpBuffer = static_cast<LPBYTE>(malloc(nSize));
        pCookie = reinterpret_cast<void*>(static_cast<uintptr_t>(m_live.size() + 1000));
        m_live[lpBuffer] = pCookie;
        return 0;
    }
    void FreeMemoryBufferPool(LPBYTE lpBuffer, void* pCookie) override {
        auto it = m_live.find(lpBuffer);
        if (it == m_live.end() || it->second != pCookie) return (void)++m_nBadReturns;
        m_live.erase(it);
        free(lpBuffer);
    }
};

// Live blocks by address: size and the pattern each was filled with.
using Blocks = std::map<LPBYTE, std::pair<UINT, BYTE>>;

// Every block still holds its pattern (every nStride-th byte) and ends
// before the next begins.
void ExpectIntactAndApart(const Blocks& live, UINT nStride) {
    LPBYTE lpEnd = nullptr;
    for (const auto& [p, block] : live) {
        ASSERT_TRUE(lpEnd == nullptr || p >= lpEnd) << "two results overlap";
        for (UINT k = 0; k < block.first; k += nStride) ASSERT_EQ(p[k], block.second);
        lpEnd = p + block.first;
    }
}

// Random sizes, some above a page; every result aligned, inside the pool
// object or one of its pages, past the page head.
template <typename Pool>
void DriveRandom(CProbe<Pool>& pool, unsigned nSeed) {
    std::mt19937 rng(nSeed);
    for (int round = 0; round < 3; ++round, pool.ResetBuffer()) {
        Blocks live;
        for (int i = 0; i < 3000; ++i) {
            const UINT n = rng() % 8 == 0 ? rng() % 40000 : rng() % 300;
            LPBYTE p = pool.AllocBuffer(n);
            ASSERT_NE(p, nullptr);
            ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % TALVOR_POOL_ALIGN, 0u) << n;
            auto within = [&](const void* pStart, size_t nSkip, size_t nEnd) {
                return p >= (const BYTE*)pStart + nSkip && p + n <= (const BYTE*)pStart + nEnd;
            };
            bool bInside = within(&pool, 0, sizeof(pool));
            for (LPBUFFERPOOL page : pool.Pages()) bInside = bInside || within(page, TALVOR_POOL_HEAD_SIZE, page->m_nSize);
            ASSERT_TRUE(bInside) << n;
            memset(p, (BYTE)rng(), n);
            if (n > 0) live[p] = {n, p[0]};
        }
        ExpectIntactAndApart(live, 1);
    }
}

TEST(BufferPool, RandomRequestsStayAlignedInsideAndApart) {
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

TEST(BufferPool, ExhaustedSourcesAndImpossibleSizesGiveNullAndKeepThePool) {
    CTestSource source;
    CProbe<CTalvorBufferPoolEx2> pool;
    pool.SetBson(&source);
    pool.SetPoolPageSize(4000);
    source.m_nLeft = 1;
    LPBYTE a = pool.AllocBuffer(2000);
    ASSERT_NE(a, nullptr);
    memset(a, 0x11, 2000);
    EXPECT_EQ(pool.AllocBuffer(2500), nullptr);
    EXPECT_EQ(pool.AllocBuffer(50000), nullptr);
    EXPECT_EQ(a[1999], 0x11);
    EXPECT_EQ(pool.AllocBuffer(8), a + 2000) << "what still fits is still served";

    source.m_nLeft = 10, source.m_nShrink = 1;
    EXPECT_EQ(pool.AllocBuffer(2500), nullptr) << "a page smaller than asked is refused";
    EXPECT_EQ(source.m_live.size(), 1u);
    pool.Free();
    EXPECT_TRUE(source.m_live.empty() && source.m_nBadReturns == 0);

    CTalvorBufferPool plain;
    EXPECT_EQ(plain.AllocBuffer(0xFFFFFFFFu), nullptr) << "the page size would wrap";
    EXPECT_EQ(plain.AllocBuffer(TALVOR_POOL_MAX_REQUEST + 1), nullptr);
    plain.SetPoolPageSize(-100000);  // no room for a page head: the request must still fit
    LPBYTE p = plain.AllocBuffer(100);
    ASSERT_NE(p, nullptr);
    memset(p, 0, 100);
}

TEST(MemoryPool, LimitAndDoubleFreeAndImpossibleSizes) {
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
