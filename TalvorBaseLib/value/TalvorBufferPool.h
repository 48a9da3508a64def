// TalvorBufferPool.h — the allocators of one statement's work.
//
// A statement makes very many small objects (strings, decimals, intermediate
// results) that all die together when it ends. CTalvorBufferPool and its two
// variants serve that: a bump allocator over a list of pages, with no head per
// object and no free per object, so the common request costs one comparison
// and one addition. CTalvorMemoryPool serves the other pattern: fewer buffers
// of 16 KiB and up, freed one by one and reused by size class, under an
// optional limit on the total.
//
// Thread safety, for every class here: none locks. A pool belongs to one
// thread's work at a time; the caller holds no latch for it and none is taken.
// Failure is reported by a null result only; a failed call leaves the pool as
// it was.
#pragma once

#include "TypeDef.h"

#include <cstddef>

class CBaseBson;

// Every request is rounded up to this, and every page's payload starts on it,
// so each result can hold a long long, a double or a pointer without an
// unaligned access.
#define TALVOR_POOL_ALIGN 8
// Head in front of every page's payload.
#define TALVOR_POOL_HEAD_SIZE 24
// SetPoolPageSize adds this to the payload asked for, room for the head and
// the slack that the strict fit test leaves unused.
#define TALVOR_POOL_PAGE_EXTRA 40
// A page with this little room left or less is retired from the search.
#define TALVOR_POOL_RETIRE_ROOM 1024
// Page size of a pool whose owner never set one: a 16 KiB payload.
#define TALVOR_POOL_DEFAULT_PAGE (16384 + TALVOR_POOL_PAGE_EXTRA)
// Storage inside a CTalvorBufferPoolEx, used before any page exists.
#define TALVOR_POOL_INNER_SIZE 512
// Largest request a page pool takes: its page size must fit 32 bits.
#define TALVOR_POOL_MAX_REQUEST (0xFFFFFFFFu - TALVOR_POOL_HEAD_SIZE - TALVOR_POOL_ALIGN)

// Where a pool's pages come from when they don't come from malloc: the plan
// buffer lends its own memory so that a whole plan can be dropped at once.
class ITalvorPageSource {
public:
    // Result: 0 and a buffer of at least nSize bytes in lpBuffer, with nSize
    // possibly raised to what was really given and pCookie the source's
    // handle of it; any other result is a failure and nothing was taken.
    // bBufferPool is true when a page pool asks.
    virtual int AllocMemoryBufferPool(LPBYTE& lpBuffer, UINT& nSize, void*& pCookie, BOOL bBufferPool) = 0;
    // Takes back a buffer with the cookie it was given with.
    virtual void FreeMemoryBufferPool(LPBYTE lpBuffer, void* pCookie) = 0;

protected:
    virtual ~ITalvorPageSource() {}
};

class CTalvorBufferPool {
public:
    // The head of every page, in front of its payload.
    struct stu_BufferPool {
        UINT m_nSize;             // bytes of the page, head included
        UINT m_nPos;              // next free byte from the page's start
        void* m_pPtr;             // the source's cookie, null for malloc
        stu_BufferPool* m_pNext;
    };
    typedef stu_BufferPool* LPBUFFERPOOL;

    CTalvorBufferPool();
    // Gives every page back.
    virtual ~CTalvorBufferPool();

    // Result: storage of nSize bytes, rounded up to TALVOR_POOL_ALIGN, not
    // cleared, valid until ResetBuffer or Free; null when memory is out or
    // nSize is above TALVOR_POOL_MAX_REQUEST. nSize 0 gives a valid pointer
    // and takes no room.
    virtual LPBYTE AllocBuffer(UINT nSize);
    // Result: as AllocBuffer, with the nSize bytes zeroed.
    virtual LPBYTE AllocBufferEx(UINT nSize);
    // Ordinary pages become nPayload + TALVOR_POOL_PAGE_EXTRA bytes; a
    // negative value counts as 0. Takes effect for pages made from now on.
    virtual void SetPoolPageSize(int nPayload);
    // Gives every page back to its source; the pool stays usable.
    virtual void Free();
    // Keeps every page and makes it empty; all earlier results are invalid.
    virtual void ResetBuffer();

    // Result: the payload of a new page of nSize bytes (or more, if the
    // source raised it), linked at the front of pHead with its position at
    // the payload; null when the source has none and pHead is unchanged.
    LPBYTE AllocBufferPool(LPBUFFERPOOL& pHead, UINT nSize);

    UINT GetPoolPageSize() const { return m_nPoolPageSize; }

protected:
    // A page of at least nSize bytes, head filled, not linked; null if none.
    virtual LPBUFFERPOOL TakePage(UINT nSize);
    // Gives one page back to where TakePage got it.
    virtual void GivePage(LPBUFFERPOOL pPage);
    // Free through the dynamic type's GivePage; derived destructors call it
    // while their own GivePage is still the one dispatched.
    void ReleaseAllPages();

    UINT m_nPoolPageSize;
    LPBUFFERPOOL m_lpBufferPool;   // retired: full pages and dedicated blocks
    LPBUFFERPOOL m_lpCurrentPool;  // in use; the head is tried first

private:
    LPBYTE AllocFirstPage(UINT n);
    LPBYTE AllocDedicated(UINT n);
    LPBYTE AllocFromLaterPages(UINT n);
    LPBYTE AllocNewPage(UINT n);
    void RetireAfter(LPBUFFERPOOL pPrev, LPBUFFERPOOL pPage);
    void RetireHeadIfFull();

    CTalvorBufferPool(const CTalvorBufferPool&) = delete;
    CTalvorBufferPool& operator=(const CTalvorBufferPool&) = delete;
};
typedef CTalvorBufferPool::LPBUFFERPOOL LPBUFFERPOOL;

// A pool with its first 512 bytes inside the object, for the many statements
// that never need a page, and pages from a source when one is set.
class CTalvorBufferPoolEx : public CTalvorBufferPool {
public:
    CTalvorBufferPoolEx();
    ~CTalvorBufferPoolEx() override;

    // Result: as the base; while no page exists and the inner storage has
    // room, from the inner storage. Once a page exists the inner storage is
    // not tried again before Free.
    // AllocBufferEx of the base zeroes what this gives.
    LPBYTE AllocBuffer(UINT nSize) override;
    // Gives the pages back; the inner storage keeps its position.
    void Free() override;
    // As the base, and the inner storage is empty again.
    void ResetBuffer() override;
    // Pages come from pSource from now on, or from malloc when null. Set it
    // while the pool holds no page: a page goes back where it came from.
    void SetBson(ITalvorPageSource* pSource) { m_pBson = pSource; }
    // Pages from the plan's AllocMemoryBufferPool (BaseBson.h), or from
    // malloc when null; the same rule on when to set it.
    void SetBson(CBaseBson* pBson);

protected:
    LPBUFFERPOOL TakePage(UINT nSize) override;
    void GivePage(LPBUFFERPOOL pPage) override;

private:
    alignas(TALVOR_POOL_ALIGN) unsigned char m_lpBuffer[TALVOR_POOL_INNER_SIZE];
    int m_nBufferPos;
    ITalvorPageSource* m_pBson;
};

// A pool whose pages come from a source when one is set.
class CTalvorBufferPoolEx2 : public CTalvorBufferPool {
public:
    CTalvorBufferPoolEx2();
    ~CTalvorBufferPoolEx2() override;

    // See CTalvorBufferPoolEx::SetBson.
    void SetBson(ITalvorPageSource* pSource) { m_pBson = pSource; }
    void SetBson(CBaseBson* pBson);

protected:
    LPBUFFERPOOL TakePage(UINT nSize) override;
    void GivePage(LPBUFFERPOOL pPage) override;

private:
    ITalvorPageSource* m_pBson;
};

// Size classes of CTalvorMemoryPool, smallest first.
#define TALVOR_MEMPOOL_CLASSES 8
#define TALVOR_MEMPOOL_SMALL_CLASS_MAX 262144u
#define TALVOR_MEMPOOL_LARGEST_CLASS 4194304u
#define TALVOR_MEMPOOL_HEAD_SIZE 16
// Chunks carved into blocks of the small classes, and of the large ones.
#define TALVOR_MEMPOOL_SMALL_CHUNK 0x100800u
#define TALVOR_MEMPOOL_LARGE_CHUNK 0x400200u
// A chunk with this little room left or less is not carved any more.
#define TALVOR_MEMPOOL_FULL_ROOM 16415u
// A block above the largest class gets this much beyond its size.
#define TALVOR_MEMPOOL_BIG_EXTRA 64u

class CTalvorMemoryPool {
public:
    struct stu_MemoryPool {       // head of a chunk
        UINT m_nSize;
        UINT m_nPos;
        stu_MemoryPool* m_pNext;
    };
    struct stu_BufferPool {       // head of a block, just before the caller's pointer
        UINT m_nSize;             // the class size, or the size of a big block
        BOOL m_bStatus;           // 1 in use, 0 free
        stu_BufferPool* m_pNext;
    };

    CTalvorMemoryPool();
    // Frees everything.
    ~CTalvorMemoryPool();

    // Result: a block of nSize bytes, with nSize raised to its class
    // (16 KiB to 4 MiB; a larger size stays as it is); a block freed earlier
    // of the same class is reused first. Null when memory is out, when the
    // limit would be passed, or when nSize is above UINT's range less the
    // block overhead; nSize is raised even then.
    LPBYTE Alloc(UINT& nSize);
    // Gives a block back: one of a class waits for reuse, a bigger one is
    // released at once. Null, and a block already free, are ignored.
    void Free(LPBYTE lpBuffer);
    // Releases every chunk and block; every counter is 0 again.
    void FreeAll();
    // Result: bytes taken from malloc since the last FreeAll; a big block's
    // release doesn't lower it.
    long long GetTotalSize() const { return m_nTotalSize; }
    // Result: bytes of chunks and live big blocks, what the limit holds.
    long long GetAllocedSize() const { return m_nAllocedSize; }
    // 0 means no limit; a chunk or big block that would reach it is refused.
    void SetMaxTotalSize(UINT nMax) { m_nMaxTotalSize = nMax; }

private:
    LPBYTE TakeFromClassList(int nClass);
    LPBYTE CarveFromFreeChunk(UINT nSize);
    LPBYTE NewChunk(UINT nSize);
    LPBYTE NewBigBlock(UINT nSize);
    BOOL LimitRefuses(long long nMore, BOOL bReachIsEnough) const;
    static void FreeChunkList(stu_MemoryPool*& pHead);

    stu_MemoryPool* m_lpFullPool;
    stu_MemoryPool* m_lpFreePool;
    stu_MemoryPool* m_lpBigPool;
    stu_BufferPool* m_lpBufferPool[TALVOR_MEMPOOL_CLASSES];
    long long m_nTotalSize;
    long long m_nMaxTotalSize;
    long long m_nAllocedSize;

    CTalvorMemoryPool(const CTalvorMemoryPool&) = delete;
    CTalvorMemoryPool& operator=(const CTalvorMemoryPool&) = delete;
};
