// TalvorBufferPool.cpp — page pools and the size-class pool.
#include "TalvorBufferPool.h"

#include <cstdlib>
#include <cstring>

static_assert(sizeof(CTalvorBufferPool::stu_BufferPool) == TALVOR_POOL_HEAD_SIZE, "page head is 24 bytes");
static_assert(TALVOR_POOL_HEAD_SIZE % TALVOR_POOL_ALIGN == 0, "payloads keep the alignment of their page");
static_assert(sizeof(CTalvorMemoryPool::stu_BufferPool) == TALVOR_MEMPOOL_HEAD_SIZE, "block head is 16 bytes");
static_assert(sizeof(CTalvorMemoryPool::stu_MemoryPool) == TALVOR_MEMPOOL_HEAD_SIZE, "chunk head is 16 bytes");

namespace {

UINT RoundToAlign(UINT nSize)
{
    return (nSize + (TALVOR_POOL_ALIGN - 1)) & ~(UINT)(TALVOR_POOL_ALIGN - 1);
}

LPBYTE PayloadOf(LPBUFFERPOOL pPage, UINT nAt)
{
    return reinterpret_cast<LPBYTE>(pPage) + nAt;
}

// Strict, so a page is never filled to its last byte: that byte is what tells
// a full page from one that merely fits.
bool FitsIn(LPBUFFERPOOL pPage, UINT n)
{
    return (unsigned long long)pPage->m_nPos + n < pPage->m_nSize;
}

bool NearlyFull(LPBUFFERPOOL pPage)
{
    return pPage->m_nSize - pPage->m_nPos <= TALVOR_POOL_RETIRE_ROOM;
}

LPBUFFERPOOL InitPage(LPBYTE lpMemory, UINT nSize, void* pCookie)
{
    LPBUFFERPOOL pPage = reinterpret_cast<LPBUFFERPOOL>(lpMemory);
    pPage->m_nSize = nSize;
    pPage->m_nPos = TALVOR_POOL_HEAD_SIZE;
    pPage->m_pPtr = pCookie;
    pPage->m_pNext = nullptr;
    return pPage;
}

LPBUFFERPOOL TakeMallocPage(UINT nSize)
{
    LPBYTE lpMemory = static_cast<LPBYTE>(malloc(nSize));
    return lpMemory == nullptr ? nullptr : InitPage(lpMemory, nSize, nullptr);
}

// A source may hand out less than asked only by failing; a smaller buffer
// would be overrun, so it counts as a failure and goes straight back.
LPBUFFERPOOL TakeSourcePage(ITalvorPageSource* pSource, UINT nSize)
{
    if (pSource == nullptr) return TakeMallocPage(nSize);
    LPBYTE lpMemory = nullptr;
    UINT nGiven = nSize;
    void* pCookie = nullptr;
    if (pSource->AllocMemoryBufferPool(lpMemory, nGiven, pCookie, TRUE) != 0 || lpMemory == nullptr) return nullptr;
    if (nGiven < nSize) {
        pSource->FreeMemoryBufferPool(lpMemory, pCookie);
        return nullptr;
    }
    return InitPage(lpMemory, nGiven, pCookie);
}

void GiveSourcePage(ITalvorPageSource* pSource, LPBUFFERPOOL pPage)
{
    if (pSource == nullptr) {
        free(pPage);
        return;
    }
    pSource->FreeMemoryBufferPool(reinterpret_cast<LPBYTE>(pPage), pPage->m_pPtr);
}

}  // namespace

// ---------------------------------------------------------------------------
// CTalvorBufferPool

CTalvorBufferPool::CTalvorBufferPool()
    : m_nPoolPageSize(TALVOR_POOL_DEFAULT_PAGE), m_lpBufferPool(nullptr), m_lpCurrentPool(nullptr)
{
}

CTalvorBufferPool::~CTalvorBufferPool()
{
    ReleaseAllPages();
}

CTalvorBufferPool::LPBUFFERPOOL CTalvorBufferPool::TakePage(UINT nSize)
{
    return TakeMallocPage(nSize);
}

void CTalvorBufferPool::GivePage(LPBUFFERPOOL pPage)
{
    free(pPage);
}

LPBYTE CTalvorBufferPool::AllocBufferPool(LPBUFFERPOOL& pHead, UINT nSize)
{
    LPBUFFERPOOL pPage = TakePage(nSize);
    if (pPage == nullptr) return nullptr;
    pPage->m_pNext = pHead;
    pHead = pPage;
    return PayloadOf(pPage, TALVOR_POOL_HEAD_SIZE);
}

void CTalvorBufferPool::SetPoolPageSize(int nPayload)
{
    if (nPayload < 0) nPayload = 0;
    m_nPoolPageSize = (UINT)nPayload + TALVOR_POOL_PAGE_EXTRA;
}

LPBYTE CTalvorBufferPool::AllocFirstPage(UINT n)
{
    UINT nNeed = n + TALVOR_POOL_HEAD_SIZE;
    UINT nPage = nNeed > m_nPoolPageSize ? nNeed : m_nPoolPageSize;
    if (AllocBufferPool(m_lpCurrentPool, nPage) == nullptr) return nullptr;
    m_lpCurrentPool->m_nPos = nNeed;
    return PayloadOf(m_lpCurrentPool, TALVOR_POOL_HEAD_SIZE);
}

// A request bigger than a page gets a block of its own, retired at once, so
// the head page stays current for the small requests that follow.
LPBYTE CTalvorBufferPool::AllocDedicated(UINT n)
{
    UINT nNeed = n + TALVOR_POOL_HEAD_SIZE;
    if (AllocBufferPool(m_lpBufferPool, nNeed) == nullptr) return nullptr;
    m_lpBufferPool->m_nPos = m_lpBufferPool->m_nSize;
    return PayloadOf(m_lpBufferPool, TALVOR_POOL_HEAD_SIZE);
}

void CTalvorBufferPool::RetireAfter(LPBUFFERPOOL pPrev, LPBUFFERPOOL pPage)
{
    pPrev->m_pNext = pPage->m_pNext;
    pPage->m_pNext = m_lpBufferPool;
    m_lpBufferPool = pPage;
}

// Pages behind the head: nearly full ones are retired on the way so that the
// walk stays short, and the first that fits serves.
LPBYTE CTalvorBufferPool::AllocFromLaterPages(UINT n)
{
    LPBUFFERPOOL pPrev = m_lpCurrentPool;
    LPBUFFERPOOL pPage = pPrev->m_pNext;
    while (pPage != nullptr) {
        LPBUFFERPOOL pNext = pPage->m_pNext;
        if (NearlyFull(pPage)) {
            RetireAfter(pPrev, pPage);
        } else if (FitsIn(pPage, n)) {
            LPBYTE lpResult = PayloadOf(pPage, pPage->m_nPos);
            pPage->m_nPos += n;
            return lpResult;
        } else {
            pPrev = pPage;
        }
        pPage = pNext;
    }
    return nullptr;
}

void CTalvorBufferPool::RetireHeadIfFull()
{
    LPBUFFERPOOL pHead = m_lpCurrentPool;
    if (pHead == nullptr || !NearlyFull(pHead)) return;
    m_lpCurrentPool = pHead->m_pNext;
    pHead->m_pNext = m_lpBufferPool;
    m_lpBufferPool = pHead;
}

LPBYTE CTalvorBufferPool::AllocNewPage(UINT n)
{
    if (AllocBufferPool(m_lpCurrentPool, m_nPoolPageSize) == nullptr) return nullptr;
    m_lpCurrentPool->m_nPos = n + TALVOR_POOL_HEAD_SIZE;
    return PayloadOf(m_lpCurrentPool, TALVOR_POOL_HEAD_SIZE);
}

LPBYTE CTalvorBufferPool::AllocBuffer(UINT nSize)
{
    if (nSize > TALVOR_POOL_MAX_REQUEST) return nullptr;
    UINT n = RoundToAlign(nSize);
    if (m_lpCurrentPool == nullptr) return AllocFirstPage(n);
    LPBUFFERPOOL pHead = m_lpCurrentPool;
    if (FitsIn(pHead, n)) {
        LPBYTE lpResult = PayloadOf(pHead, pHead->m_nPos);
        pHead->m_nPos += n;
        return lpResult;
    }
    if ((unsigned long long)n + TALVOR_POOL_HEAD_SIZE > m_nPoolPageSize) return AllocDedicated(n);
    LPBYTE lpResult = AllocFromLaterPages(n);
    RetireHeadIfFull();
    return lpResult != nullptr ? lpResult : AllocNewPage(n);
}

LPBYTE CTalvorBufferPool::AllocBufferEx(UINT nSize)
{
    LPBYTE lpResult = AllocBuffer(nSize);
    if (lpResult != nullptr) memset(lpResult, 0, nSize);
    return lpResult;
}

void CTalvorBufferPool::ResetBuffer()
{
    for (LPBUFFERPOOL pPage = m_lpCurrentPool; pPage != nullptr; pPage = pPage->m_pNext) {
        if (pPage->m_nPos == TALVOR_POOL_HEAD_SIZE) break;
        pPage->m_nPos = TALVOR_POOL_HEAD_SIZE;
    }
    while (m_lpBufferPool != nullptr) {
        LPBUFFERPOOL pPage = m_lpBufferPool;
        m_lpBufferPool = pPage->m_pNext;
        pPage->m_nPos = TALVOR_POOL_HEAD_SIZE;
        pPage->m_pNext = m_lpCurrentPool;
        m_lpCurrentPool = pPage;
    }
}

void CTalvorBufferPool::ReleaseAllPages()
{
    LPBUFFERPOOL* arLists[] = {&m_lpBufferPool, &m_lpCurrentPool};
    for (LPBUFFERPOOL* pList : arLists) {
        while (*pList != nullptr) {
            LPBUFFERPOOL pPage = *pList;
            *pList = pPage->m_pNext;
            GivePage(pPage);
        }
    }
}

void CTalvorBufferPool::Free()
{
    ReleaseAllPages();
}

// ---------------------------------------------------------------------------
// CTalvorBufferPoolEx

CTalvorBufferPoolEx::CTalvorBufferPoolEx() : m_nBufferPos(0), m_pBson(nullptr)
{
}

CTalvorBufferPoolEx::~CTalvorBufferPoolEx()
{
    ReleaseAllPages();
}

CTalvorBufferPool::LPBUFFERPOOL CTalvorBufferPoolEx::TakePage(UINT nSize)
{
    return TakeSourcePage(m_pBson, nSize);
}

void CTalvorBufferPoolEx::GivePage(LPBUFFERPOOL pPage)
{
    GiveSourcePage(m_pBson, pPage);
}

LPBYTE CTalvorBufferPoolEx::AllocBuffer(UINT nSize)
{
    if (m_lpCurrentPool == nullptr && nSize <= TALVOR_POOL_INNER_SIZE) {
        UINT n = RoundToAlign(nSize);
        if (m_nBufferPos + n <= TALVOR_POOL_INNER_SIZE - 1) {
            LPBYTE lpResult = m_lpBuffer + m_nBufferPos;
            m_nBufferPos += (int)n;
            return lpResult;
        }
    }
    return CTalvorBufferPool::AllocBuffer(nSize);
}

void CTalvorBufferPoolEx::Free()
{
    ReleaseAllPages();
}

void CTalvorBufferPoolEx::ResetBuffer()
{
    CTalvorBufferPool::ResetBuffer();
    m_nBufferPos = 0;
}

// ---------------------------------------------------------------------------
// CTalvorBufferPoolEx2

CTalvorBufferPoolEx2::CTalvorBufferPoolEx2() : m_pBson(nullptr)
{
}

CTalvorBufferPoolEx2::~CTalvorBufferPoolEx2()
{
    ReleaseAllPages();
}

CTalvorBufferPool::LPBUFFERPOOL CTalvorBufferPoolEx2::TakePage(UINT nSize)
{
    return TakeSourcePage(m_pBson, nSize);
}

void CTalvorBufferPoolEx2::GivePage(LPBUFFERPOOL pPage)
{
    GiveSourcePage(m_pBson, pPage);
}

// ---------------------------------------------------------------------------
// CTalvorMemoryPool

namespace {

const UINT g_arClassSize[TALVOR_MEMPOOL_CLASSES] = {16384, 32768, 65536, 131072, 262144, 1048576, 2097152, 4194304};

// Index of the class a size rounds to, or -1 above the largest class.
int ClassOf(UINT nSize)
{
    for (int i = 0; i < TALVOR_MEMPOOL_CLASSES; ++i) {
        if (nSize <= g_arClassSize[i]) return i;
    }
    return -1;
}

// Exact class sizes only: anything else handed to Free is a big block.
int ClassOfExact(UINT nSize)
{
    int nClass = ClassOf(nSize);
    return nClass >= 0 && g_arClassSize[nClass] == nSize ? nClass : -1;
}

CTalvorMemoryPool::stu_BufferPool* BlockHead(LPBYTE lpBuffer)
{
    return reinterpret_cast<CTalvorMemoryPool::stu_BufferPool*>(lpBuffer - TALVOR_MEMPOOL_HEAD_SIZE);
}

// The first block of a fresh chunk sits right behind the chunk's head.
LPBYTE FirstBlock(CTalvorMemoryPool::stu_MemoryPool* pChunk, UINT nSize)
{
    LPBYTE lpChunk = reinterpret_cast<LPBYTE>(pChunk);
    pChunk->m_nPos = nSize + 2 * TALVOR_MEMPOOL_HEAD_SIZE;
    CTalvorMemoryPool::stu_BufferPool* pBlock =
        reinterpret_cast<CTalvorMemoryPool::stu_BufferPool*>(lpChunk + TALVOR_MEMPOOL_HEAD_SIZE);
    pBlock->m_nSize = nSize;
    pBlock->m_bStatus = TRUE;
    pBlock->m_pNext = nullptr;
    return lpChunk + 2 * TALVOR_MEMPOOL_HEAD_SIZE;
}

CTalvorMemoryPool::stu_MemoryPool* MallocChunk(size_t nBytes)
{
    auto* pChunk = static_cast<CTalvorMemoryPool::stu_MemoryPool*>(malloc(nBytes));
    if (pChunk == nullptr) return nullptr;
    pChunk->m_nSize = (UINT)nBytes;
    pChunk->m_nPos = TALVOR_MEMPOOL_HEAD_SIZE;
    pChunk->m_pNext = nullptr;
    return pChunk;
}

void PushChunk(CTalvorMemoryPool::stu_MemoryPool*& pHead, CTalvorMemoryPool::stu_MemoryPool* pChunk)
{
    pChunk->m_pNext = pHead;
    pHead = pChunk;
}

}  // namespace

CTalvorMemoryPool::CTalvorMemoryPool()
    : m_lpFullPool(nullptr), m_lpFreePool(nullptr), m_lpBigPool(nullptr), m_lpBufferPool{},
      m_nTotalSize(0), m_nMaxTotalSize(0), m_nAllocedSize(0)
{
}

CTalvorMemoryPool::~CTalvorMemoryPool()
{
    FreeAll();
}

LPBYTE CTalvorMemoryPool::TakeFromClassList(int nClass)
{
    stu_BufferPool* pBlock = m_lpBufferPool[nClass];
    if (pBlock == nullptr) return nullptr;
    m_lpBufferPool[nClass] = pBlock->m_pNext;
    pBlock->m_pNext = nullptr;
    pBlock->m_bStatus = TRUE;
    return reinterpret_cast<LPBYTE>(pBlock) + TALVOR_MEMPOOL_HEAD_SIZE;
}

LPBYTE CTalvorMemoryPool::CarveFromFreeChunk(UINT nSize)
{
    stu_MemoryPool* pChunk = m_lpFreePool;
    if (pChunk == nullptr) return nullptr;
    unsigned long long nEnd = (unsigned long long)pChunk->m_nPos + 2 * TALVOR_MEMPOOL_HEAD_SIZE + nSize;
    if (nEnd > pChunk->m_nSize) return nullptr;
    LPBYTE lpAt = reinterpret_cast<LPBYTE>(pChunk) + pChunk->m_nPos;
    stu_BufferPool* pBlock = reinterpret_cast<stu_BufferPool*>(lpAt);
    pBlock->m_nSize = nSize;
    pBlock->m_bStatus = TRUE;
    pBlock->m_pNext = nullptr;
    pChunk->m_nPos += TALVOR_MEMPOOL_HEAD_SIZE + nSize;
    if (pChunk->m_nSize - pChunk->m_nPos <= TALVOR_MEMPOOL_FULL_ROOM) {
        m_lpFreePool = pChunk->m_pNext;
        PushChunk(m_lpFullPool, pChunk);
    }
    return lpAt + TALVOR_MEMPOOL_HEAD_SIZE;
}

// A chunk is refused when it would reach the limit; a big block only when it
// would pass it.
BOOL CTalvorMemoryPool::LimitRefuses(long long nMore, BOOL bReachIsEnough) const
{
    if (m_nMaxTotalSize == 0) return FALSE;
    long long nAfter = m_nAllocedSize + nMore;
    return bReachIsEnough ? nAfter >= m_nMaxTotalSize : nAfter > m_nMaxTotalSize;
}

LPBYTE CTalvorMemoryPool::NewChunk(UINT nSize)
{
    UINT nChunk = nSize <= TALVOR_MEMPOOL_SMALL_CLASS_MAX ? TALVOR_MEMPOOL_SMALL_CHUNK : TALVOR_MEMPOOL_LARGE_CHUNK;
    if (LimitRefuses((long long)nChunk - 1, TRUE)) return nullptr;
    stu_MemoryPool* pChunk = MallocChunk(nChunk);
    if (pChunk == nullptr) return nullptr;
    m_nTotalSize += nChunk;
    m_nAllocedSize += nChunk;
    LPBYTE lpResult = FirstBlock(pChunk, nSize);
    if (nSize == TALVOR_MEMPOOL_LARGEST_CLASS) PushChunk(m_lpFullPool, pChunk);
    else PushChunk(m_lpFreePool, pChunk);
    return lpResult;
}

LPBYTE CTalvorMemoryPool::NewBigBlock(UINT nSize)
{
    if (LimitRefuses(nSize, FALSE)) return nullptr;
    size_t nBytes = (size_t)nSize + TALVOR_MEMPOOL_BIG_EXTRA;
    stu_MemoryPool* pChunk = MallocChunk(nBytes);
    if (pChunk == nullptr) return nullptr;
    m_nAllocedSize += nSize;
    m_nTotalSize += (long long)nBytes;
    LPBYTE lpResult = FirstBlock(pChunk, nSize);
    PushChunk(m_lpBigPool, pChunk);
    return lpResult;
}

LPBYTE CTalvorMemoryPool::Alloc(UINT& nSize)
{
    int nClass = ClassOf(nSize);
    if (nClass >= 0) {
        nSize = g_arClassSize[nClass];
        LPBYTE lpResult = TakeFromClassList(nClass);
        if (lpResult == nullptr) lpResult = CarveFromFreeChunk(nSize);
        return lpResult != nullptr ? lpResult : NewChunk(nSize);
    }
    // The chunk head's 32-bit size must hold the block and its extra.
    if (nSize > 0xFFFFFFFFu - TALVOR_MEMPOOL_BIG_EXTRA) return nullptr;
    return NewBigBlock(nSize);
}

void CTalvorMemoryPool::Free(LPBYTE lpBuffer)
{
    if (lpBuffer == nullptr) return;
    stu_BufferPool* pBlock = BlockHead(lpBuffer);
    // A second Free would link the block into its list twice, and two later
    // requests would then share it.
    if (!pBlock->m_bStatus) return;
    pBlock->m_bStatus = FALSE;
    int nClass = ClassOfExact(pBlock->m_nSize);
    if (nClass >= 0) {
        pBlock->m_pNext = m_lpBufferPool[nClass];
        m_lpBufferPool[nClass] = pBlock;
        return;
    }
    stu_MemoryPool* pChunk = reinterpret_cast<stu_MemoryPool*>(lpBuffer - 2 * TALVOR_MEMPOOL_HEAD_SIZE);
    for (stu_MemoryPool** pLink = &m_lpBigPool; *pLink != nullptr; pLink = &(*pLink)->m_pNext) {
        if (*pLink != pChunk) continue;
        *pLink = pChunk->m_pNext;
        m_nAllocedSize -= pBlock->m_nSize;
        free(pChunk);
        return;
    }
}

void CTalvorMemoryPool::FreeChunkList(stu_MemoryPool*& pHead)
{
    while (pHead != nullptr) {
        stu_MemoryPool* pChunk = pHead;
        pHead = pChunk->m_pNext;
        free(pChunk);
    }
}

void CTalvorMemoryPool::FreeAll()
{
    FreeChunkList(m_lpFullPool);
    FreeChunkList(m_lpFreePool);
    FreeChunkList(m_lpBigPool);
    for (stu_BufferPool*& pList : m_lpBufferPool) pList = nullptr;
    m_nTotalSize = 0;
    m_nAllocedSize = 0;
}
