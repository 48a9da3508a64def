// TalvorCacheSegment.cpp — making the cache segment, or taking over the one a
// previous run left behind.
//
// A survivor is only ever trusted after every number of its head has been
// compared with the layout computed from the size asked for, and every chain
// and load group in it has been walked inside the block area: the engine
// writes this memory, and a stray offset taken on faith would send the
// daemon's writes anywhere in the segment.
#include "TalvorCacheStorage.h"

#include "ShareMemory.h"
#include "TalvorTrace.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <sys/shm.h>

namespace {

// Processes attached to segment nId; -1 when it cannot be asked.
long long AttachedCount(MFID nId)
{
    struct shmid_ds ds;
    if (shmctl(nId, IPC_STAT, &ds) != 0) return -1;
    return (long long)ds.shm_nattch;
}

}  // namespace

int CTalvorCacheStorage::Initialize(LPCTSTR lpszMemFileName, int nCacheBufferSize, int nLRUPercent,
                                    CBreltMemStorageModule* pStorage, BOOL bFileCache)
{
    m_bFileCache = bFileCache;
    m_pStorage = pStorage;
    m_bExists = FALSE;
    if (lpszMemFileName == nullptr) lpszMemFileName = SHMNAME_CACHEBUFFER;
    if (nCacheBufferSize < CACHE_MIN_SIZE_MB) {
        Trace("Initialize", 1, 60001001,
              TALVOR_TEXT("缓存大小(%d)不支持小于32MB，系统启动失败！",
                          "Cache size (%d) does not support less than 32MB, system boot failure!"),
              nCacheBufferSize);
        return E_FAIL;
    }
    if (pStorage == nullptr) {
        Trace0("Initialize", 1, 60001002, TALVOR_TEXT("缓存没有所属的模块对象，系统启动失败！",
                                                      "The cache has no module object, system boot failure!"));
        return E_FAIL;
    }
    if (!CacheComputeLayoutMB(nCacheBufferSize, nLRUPercent, m_layout)) {
        Trace("Initialize", 1, 60001003,
              TALVOR_TEXT("缓存大小(%dMB)和LRU比例(%d)容不下缓存块，系统启动失败！",
                          "A cache of %dMB with LRU percent %d holds no cache block, system boot failure!"),
              nCacheBufferSize, nLRUPercent);
        return E_FAIL;
    }
    m_llCacheBufferSize = m_layout.m_llTotalSize;
    m_nFIFOSize = m_layout.m_llFIFOSize;
    m_nCacheFlashBackSize = m_layout.m_nFlashBackSize;
    BOOL bFound = FALSE;
    int nResult = FindOrCreateSegment(lpszMemFileName, bFound);
    if (nResult != 0) return nResult;
    m_pCacheBufferAddr = (LPBYTE)CShareMemory::ShMemAttach(m_hCacheBufferFile, nullptr, 0);
    if (m_pCacheBufferAddr == nullptr) {
        Trace("Initialize", 1, 60001006,
              TALVOR_TEXT("内存文件映射内存失败，错误代码：%d，内存文件：%s",
                          "Memory file mapping memory failure, error code: %d, memory file: %s"),
              errno, lpszMemFileName);
        if (bFound) LetGoOfSurvivor();
        return E_FAIL;
    }
    m_pCacheBufferHead = (LPCacheBufferHead)m_pCacheBufferAddr;
    if (bFound) {
        nResult = TakeOverOrRebuild(lpszMemFileName);
        if (nResult != 0) {
            LetGoOfSurvivor();
            return nResult;
        }
    } else {
        BuildHead(FALSE);
        Trace("Initialize", 3, 60001000,
              TALVOR_TEXT("初始化缓存头信息，FIFO起始偏移：%lld，结束偏移：%lld",
                          "Initializing cache header information, FIFO start offset: %lld, end offset: %lld"),
              m_layout.m_llFIFOOffset, m_layout.m_llFlashBackOffset);
    }
    SetPointers();
    // A survivor keeps its pools: an entry still posted in a ring names its
    // image there, and the flush thread gives the image back once the entry
    // is written. Freeing it now would let the engine refill an image that a
    // pending write has yet to read.
    if (!m_bExists) ResetPools();
    return S_OK;
}

// Finds the segment at the size asked, or makes it. bFound tells whether it
// was there before.
int CTalvorCacheStorage::FindOrCreateSegment(LPCTSTR lpszMemFileName, BOOL& bFound)
{
    bFound = FALSE;
    MFID nId = CShareMemory::OpenShareMemory(SHMKEY_CACHEBUFFER, lpszMemFileName);
    if (nId > 0) {
        long long llReal = (long long)CShareMemory::ShareMemorySize(nId);
        if (llReal == m_llCacheBufferSize) {
            m_hCacheBufferFile = nId;
            bFound = TRUE;
            return 0;
        }
        int nResult = DropForeignSizedSegment(nId, lpszMemFileName);
        if (nResult != 0) return nResult;
    }
    BOOL bExists = FALSE;
    errno = 0;
    nId = CShareMemory::CreateShareMemory(SHMKEY_CACHEBUFFER, (size_t)m_llCacheBufferSize, lpszMemFileName, bExists);
    if (nId <= 0) {
        int nErr = errno != 0 ? errno : EINVAL;
        Trace("Initialize", 1, 60001005,
              TALVOR_TEXT("打开内存文件失败，错误：%s(%d)，内存文件：%d，文件大小：%lld",
                          "Open memory file failed, error: %s(%d), memory file: %d, file size: %lld"),
              strerror(nErr), nErr, SHMKEY_CACHEBUFFER, (long long)m_llCacheBufferSize);
        return 1;
    }
    m_hCacheBufferFile = nId;
    bFound = bExists;
    return 0;
}

// A cache of another size than asked: the setting changed since it was made.
// Its block numbers mean nothing at the new size, so it is made anew, but
// only when nobody works in it; otherwise the start is refused.
int CTalvorCacheStorage::DropForeignSizedSegment(MFID nId, LPCTSTR lpszMemFileName)
{
    long long llReal = (long long)CShareMemory::ShareMemorySize(nId);
    if (AttachedCount(nId) != 0) {
        Trace("Initialize", 1, 60001009,
              TALVOR_TEXT("内存中的缓存%s大小为%lld字节而不是%lld字节，且正在被使用，请关闭talvorservice和talvorstorage服务后重试！",
                          "The cache %s in memory has %lld bytes instead of %lld and is in use, please close talvorservice and talvorstorage service and try again!"),
              lpszMemFileName, llReal, (long long)m_llCacheBufferSize);
        return E_FAIL;
    }
    Trace("Initialize", 3, 60001010,
          TALVOR_TEXT("内存中的缓存%s大小为%lld字节而不是%lld字节，将重新创建缓存",
                      "The cache %s in memory has %lld bytes instead of %lld, the cache is made anew"),
          lpszMemFileName, llReal, (long long)m_llCacheBufferSize);
    CShareMemory::DestoryShareMemory(nId);
    return 0;
}

// The segment was there at the size asked. Whole and ready: taken over as
// it stands. Cut short (status 1 or 255): rebuilt. Damaged (a wrong mark, or
// a number out of bounds): rebuilt too, unless the engine is attached, for a
// rebuild under a running engine would pull its blocks away.
int CTalvorCacheStorage::TakeOverOrRebuild(LPCTSTR lpszMemFileName)
{
    LPCacheBufferHead h = m_pCacheBufferHead;
    BOOL bMarked = h->m_nDataFlag == CACHEBUFFER_DATAFLAG;
    BYTE bStatus = h->m_bStatus;
    if (bMarked && bStatus == CACHESTATUS_READY && (IsSurvivorWhole() || IsSurvivorWholeWithItsOwnFIFO())) {
        m_bExists = TRUE;
        Trace0("Initialize", 3, 60001000,
               TALVOR_TEXT("在内存中发现缓存数据，系统自动跳过数据加载过程！",
                           "Cache data was found in memory, system automatically skip data loading process!"));
        return 0;
    }
    if (!bMarked || bStatus == CACHESTATUS_READY) {
        // Our own attach counts one.
        if (AttachedCount(m_hCacheBufferFile) != 1) {
            Trace("Initialize", 1, 60001008,
                  TALVOR_TEXT("缓存加载异常，请关闭talvorservice和talvorstorage服务后重试！(内存文件：%s)",
                              "Abnormal cache load, please close talvorservice and talvorstorage service and try again! (memory file: %s)"),
                  lpszMemFileName);
            return E_FAIL;
        }
        Trace("Initialize", 1, 60001011,
              TALVOR_TEXT("内存中的缓存头已损坏(标志：%08X，状态：%d)，将重新加载缓存",
                          "The cache head in memory is damaged (mark: %08X, status: %d), the cache is reloaded"),
              (UINT)h->m_nDataFlag, (int)bStatus);
    }
    BuildHead(TRUE);
    Trace("Initialize", 3, 60001000,
          TALVOR_TEXT("在内存中发现缓存残留数据，系统将重新加载缓存，FIFO起始偏移：%lld，结束偏移：%lld，",
                      "Cache residual data was found in the memory, the system will reload the cache, FIFO starting offset: %lld, end offset: %lld,"),
          m_layout.m_llFIFOOffset, m_layout.m_llFlashBackOffset);
    return 0;
}

// Every fixed number of a survivor's head must be what this size computes.
BOOL CTalvorCacheStorage::IsSurvivorWhole() const
{
    const CacheBufferHead* h = m_pCacheBufferHead;
    const CACHELAYOUT& l = m_layout;
    if (h->m_llCacheTotalSize != l.m_llTotalSize || h->m_nFIFOSize != l.m_llFIFOSize) return FALSE;
    if (h->m_llCacheFIFOOffset != l.m_llFIFOOffset || h->m_llCacheFlashBackOffset != l.m_llFlashBackOffset) return FALSE;
    if (h->m_nCacheFlashBackSize != l.m_nFlashBackSize || h->m_bCacheHeadNum != CACHE_HEAD_BLOCKS) return FALSE;
    if (h->m_nCacheFlushOffset != CACHE_FLUSH_OFFSET || h->m_nCacheIndexFlushOffset != CACHE_INDEXFLUSH_OFFSET) return FALSE;
    if (h->m_nCacheFlushFileOffset != CACHE_FLUSHFILE_OFFSET) return FALSE;
    if (h->m_nCacheFlushTableFileOffset != CACHE_FLUSHTSFILE_OFFSET) return FALSE;
    if (h->m_nCacheLoadOffset != CACHE_LOAD_OFFSET || h->m_nLoadSlotNum != l.m_nLoadSlotNum) return FALSE;
    if (h->m_nValidLoadSlotNum < 0 || h->m_nValidLoadSlotNum > h->m_nLoadSlotNum) return FALSE;
    if (h->m_nBlockBufNum != l.m_nBlockBufNum || h->m_nMapBlockNum != CACHE_MAP_LINKS) return FALSE;
    // The ring positions index 128 entries each.
    if (h->m_bCacheFlushPos >= CACHE_FLUSH_RING_SIZE || h->m_bStorageFlushPos >= CACHE_FLUSH_RING_SIZE) return FALSE;
    if (h->m_bCacheIndexFlushPos >= CACHE_FLUSH_RING_SIZE || h->m_bStorageIndexFlushPos >= CACHE_FLUSH_RING_SIZE)
        return FALSE;
    if (h->m_nLoadCacheNo != 0 && !IsCacheBlock(h->m_nLoadCacheNo)) return FALSE;
    if (h->m_nLoadCacheOffset >= (UINT)CACHE_BLOCK_SIZE || h->m_nLoadCacheOffset % 32 != 0) return FALSE;
    return AreSurvivorChainsBounded() && AreSurvivorLoadGroupsBounded();
}

// A ready cache made with another LRU share ("LRUPercent" changed since):
// whole as it stands, it is taken over with its own FIFO area rather than
// thrown away with the engine's unwritten blocks; the new share takes effect
// when the cache is next made. m_layout becomes the survivor's when it fits.
BOOL CTalvorCacheStorage::IsSurvivorWholeWithItsOwnFIFO()
{
    long long llFIFOSize = m_pCacheBufferHead->m_nFIFOSize;
    if (llFIFOSize == m_layout.m_llFIFOSize || llFIFOSize < 0 || llFIFOSize % 1048576 != 0) return FALSE;
    CACHELAYOUT asked = m_layout;
    if (!CacheComputeLayout(m_layout.m_llTotalSize, llFIFOSize, m_layout) || !IsSurvivorWhole()) {
        m_layout = asked;
        return FALSE;
    }
    m_nFIFOSize = m_layout.m_llFIFOSize;
    Trace("Initialize", 3, 60001012,
          TALVOR_TEXT("内存中的缓存FIFO区为%lldMB而不是%lldMB，按原样接管，新的LRU比例在下次建立缓存时生效",
                      "The cache in memory has a FIFO area of %lldMB instead of %lldMB: it is taken over as it is, the new LRU percent applies when the cache is next made"),
          llFIFOSize / 1048576, asked.m_llFIFOSize / 1048576);
    return TRUE;
}

// The free chain and every file's chain stay in the block area, end, and
// share no block.
BOOL CTalvorCacheStorage::AreSurvivorChainsBounded() const
{
    const CacheBufferHead* h = m_pCacheBufferHead;
    UINT nTop = m_layout.m_nBlockBufNum;
    BYTE* pSeen = new (std::nothrow) BYTE[(size_t)nTop + 1];
    if (pSeen == nullptr) return FALSE;
    memset(pSeen, 0, (size_t)nTop + 1);
    BOOL bGood = TRUE;
    for (int i = -1; i < MAX_FILE_NUM && bGood; i++) {
        UINT nBlock = i < 0 ? (UINT)h->m_nFreeNo : h->m_nFileInfoNo[i];
        while (nBlock != 0) {
            if (!IsCacheBlock(nBlock) || pSeen[nBlock] != 0) {
                bGood = FALSE;
                break;
            }
            pSeen[nBlock] = 1;
            nBlock = GetLink(nBlock);
        }
    }
    if (bGood && h->m_nLoadCacheNo != 0 && pSeen[h->m_nLoadCacheNo] != 0) bGood = FALSE;
    delete[] pSeen;
    return bGood;
}

// Every load group lies in a slot area, its positions inside it, and the
// recycle list ends.
BOOL CTalvorCacheStorage::AreSurvivorLoadGroupsBounded() const
{
    const CacheBufferHead* h = m_pCacheBufferHead;
    for (int i = 0; i < MAX_FILE_NUM; i++) {
        const stu_FileCacheLoadInfo& g = h->m_stFileCacheLoadInfo[i];
        if (g.m_nCacheLoadHeadOffset == 0) continue;
        if (!IsGroupBounded(g.m_nCacheLoadHeadOffset, g.m_bLoadSlotNum)) return FALSE;
        if (g.m_bCacheLoadPos >= g.m_bLoadSlotNum || g.m_bStorageLoadPos >= g.m_bLoadSlotNum) return FALSE;
    }
    int nSteps = 0;
    for (BYTE r = h->m_bRecycleFileNo; r != 0; r = h->m_stFileCacheLoadInfo[r].m_bNextRecycleFileNo) {
        if (++nSteps > MAX_FILE_NUM) return FALSE;
    }
    return TRUE;
}

// Writes a head as good as new. bZeroAll: the segment held an earlier cache,
// so every table (rings, pools, slots, map) and every block is cleared; a new
// segment is zero already and only its head is written, which spares
// committing memory the engine may never touch.
void CTalvorCacheStorage::BuildHead(BOOL bZeroAll)
{
    LPCacheBufferHead h = m_pCacheBufferHead;
    const CACHELAYOUT& l = m_layout;
    h->m_bStatus = CACHESTATUS_BUILDING;
    TalvorFlushCPU4Write();
    const size_t nFrom = offsetof(CacheBufferHead, m_bCacheHeadNum);
    size_t nTo = bZeroAll ? (size_t)l.m_llTotalSize : sizeof(CacheBufferHead);
    CShareMemory::ZeroShareMemory(m_pCacheBufferAddr + nFrom, nTo - nFrom);
    h->m_llCacheTotalSize = l.m_llTotalSize;
    h->m_nCacheFlushOffset = CACHE_FLUSH_OFFSET;
    h->m_nCacheIndexFlushOffset = CACHE_INDEXFLUSH_OFFSET;
    h->m_nCacheFlushTableFileOffset = CACHE_FLUSHTSFILE_OFFSET;
    h->m_nCacheFlushFileOffset = CACHE_FLUSHFILE_OFFSET;
    h->m_nCacheLoadOffset = CACHE_LOAD_OFFSET;
    h->m_nCacheFlashBackSize = l.m_nFlashBackSize;
    h->m_nFIFOSize = l.m_llFIFOSize;
    h->m_llCacheFIFOOffset = l.m_llFIFOOffset;
    h->m_llCacheFlashBackOffset = l.m_llFlashBackOffset;
    h->m_bCacheHeadNum = CACHE_HEAD_BLOCKS;
    h->m_nBlockBufNum = l.m_nBlockBufNum;
    h->m_nMapBlockNum = CACHE_MAP_LINKS;
    h->m_nLoadSlotNum = l.m_nLoadSlotNum;
    h->m_nValidLoadSlotNum = l.m_nLoadSlotNum;
    BuildFreeChain();
    TalvorFlushCPU4Write();
    h->m_nDataFlag = CACHEBUFFER_DATAFLAG;
}

// Every cache block, in order, on the free chain; the last one ends it.
void CTalvorCacheStorage::BuildFreeChain()
{
    UINT nTop = m_layout.m_nBlockBufNum;
    for (UINT i = m_layout.m_nFirstFreeNo; i < nTop; i++) SetLink(i, i + 1);
    SetLink(nTop, 0);
    m_pCacheBufferHead->m_nFreeNo = (int)m_layout.m_nFirstFreeNo;
}

void CTalvorCacheStorage::SetPointers()
{
    m_pCacheFlush = (LPstu_CacheFlush)(m_pCacheBufferAddr + CACHE_FLUSH_OFFSET);
    m_pCacheIndexFlush = (LPstu_CacheFlush)(m_pCacheBufferAddr + CACHE_INDEXFLUSH_OFFSET);
    m_pFlushFile = (LPstu_CacheFlushFile)(m_pCacheBufferAddr + CACHE_FLUSHFILE_OFFSET);
    m_pFlushTimestampFile = (LPstu_CacheFlushFile)(m_pCacheBufferAddr + CACHE_FLUSHTSFILE_OFFSET);
}

void CTalvorCacheStorage::ResetPools()
{
    for (int i = 0; i < CACHE_FLUSHFILE_NUM; i++) {
        m_pFlushFile[i].m_bStatus = 0;
        m_pFlushFile[i].m_bCacheBlockNo = (BYTE)i;
    }
    for (int i = 0; i < CACHE_FLUSHTSFILE_NUM; i++) {
        m_pFlushTimestampFile[i].m_bStatus = 0;
        m_pFlushTimestampFile[i].m_bCacheBlockNo = (BYTE)i;
    }
}

// A survivor this start refused is not ours: the end of this run must not
// remove what the engine still works in.
void CTalvorCacheStorage::LetGoOfSurvivor()
{
    Detach();
    m_hCacheBufferFile = 0;
}

void CTalvorCacheStorage::Detach()
{
    if (m_pCacheBufferAddr != nullptr) CShareMemory::ShMemDetach(m_pCacheBufferAddr);
    m_pCacheBufferHead = nullptr;
    m_pCacheFlush = m_pCacheIndexFlush = nullptr;
    m_pFlushFile = m_pFlushTimestampFile = nullptr;
}
