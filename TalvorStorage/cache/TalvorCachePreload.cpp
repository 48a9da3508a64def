// TalvorCachePreload.cpp — the warm-up of the cache at start: index files
// first, then table files when the whole index fitted, each read in one
// sequential sweep of 8 MiB pieces while its map chain in the cache is
// walked alongside. Blocks land on the free chain at the object's cursor;
// the head's own free number is left alone, so the engine finds them there.
//
// With a second buffer the next piece is read by a reader thread while the
// blocks of the current one are copied (TalvorCachePreloadReader.h); the
// pieces, the blocks taken, their order, the progress and the failures are
// those of the sweep on its own, which is what runs without that buffer.
//
// The map and the file are another process's work and may be damaged:
// every map block is bounded to the block area and checked for its mark,
// every entry count to the map's capacity, every size to a cache block,
// and every sweep moves forward, so that no bad value can make it loop or
// write outside a cache block.
#include "TalvorCacheStorage.h"

#include "TalvorCacheFlush.h"
#include "TalvorCachePreloadReader.h"

#include "TalvorFileStorage.h"
#include "TalvorTrace.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>


namespace {

const int MAP_HEAD_SIZE = (int)sizeof(BASEFILEBLOCKMAPHEAD_CACHE);
const int MAP_CAPACITY = (CACHE_BLOCK_SIZE - MAP_HEAD_SIZE) / (int)sizeof(BASEFILEBLOCKMAP_CACHE);
const BYTE NODE_LEAF = 1;
const BYTE NODE_UPPER_FIRST = 2;
const BYTE NODE_UPPER_LAST = 5;
const BYTE NODE_LIMIT = 6;
const int FULL_INDEX_DIVISOR = 100;
const char LOAD_FAILED_TITLE[] = "Load failed!";
// Room in front of each read buffer: the part of a page that ran over the
// end of a piece is carried there, before the next piece read ahead. Such a
// part is shorter than a page (a larger block would run over a cache block).
const int PIECE_SLACK = CACHE_BLOCK_SIZE;
const long long DIRECT_ALIGN = 512;

enum : int { LOADTYPE_UPPER = 0, LOADTYPE_SOME_LEAVES = 1, LOADTYPE_ALL = 2 };
// Results of one file's sweep.
enum : int { SWEEP_DONE = 0, SWEEP_FULL = 1, SWEEP_FAILED = 2 };

// The walk of a file's map chain in the cache, one entry at a time.
struct MapCursor {
    CTalvorCacheStorage* m_pCache;
    LPBASEFILEBLOCKMAPHEAD_CACHE m_lpMap;
    int m_nEntry;
    int m_nMax;
    BYTE m_bFileNo;
    BOOL m_bTable;
    BOOL m_bEnd;
    BOOL m_bBroken;
};

BOOL IsBlockAreaPage(CTalvorCacheStorage* pCache, long long llOffset)
{
    const CACHELAYOUT& l = pCache->GetLayout();
    if (llOffset <= 0 || llOffset % CACHE_BLOCK_SIZE != 0) return FALSE;
    long long llBlock = llOffset / CACHE_BLOCK_SIZE;
    return llBlock >= (long long)l.m_nFirstFreeNo && llBlock <= (long long)l.m_nBlockBufNum ? TRUE : FALSE;
}

int UsedEntries(const MapCursor& c)
{
    int n = c.m_lpMap->m_nBlockMapNum;
    return n < 0 ? 0 : (n > c.m_nMax ? c.m_nMax : n);
}

// The map chain goes on to the next map block; FALSE with m_bBroken traced.
BOOL NextMapBlock(MapCursor& c, UINT nBlockNum)
{
    long long llNext = c.m_lpMap->m_nNextBlockMapOffset_Cache;
    if (!IsBlockAreaPage(c.m_pCache, llNext)) {
        Trace("InitCacheHead", 1, c.m_bTable ? 60010021 : 60010002,
              c.m_bTable ? TALVOR_TEXT("加载数据时MAP丢失,文件号:%d,文件总数据块%d,MAP块中最大数据块%d,MAP块号:%d",
                                       "When loading the data, the MAP is lost, the file number is: %d, the total data block of the file is %d, the largest data block in the MAP block is %d, the MAP block number is: %d")
                         : TALVOR_TEXT("加载索引时MAP丢失,文件号:%d,文件总数据块%d,MAP块中最大数据块%d,MAP块号:%d",
                                       "When loading the index, the MAP is lost, the file number is: %d, the total data block of the file is %d, the largest data block in the MAP block is %d, the MAP block number is: %d"),
              (int)c.m_bFileNo, (int)nBlockNum, c.m_nMax, (int)c.m_lpMap->m_nMapNo);
        c.m_bBroken = TRUE;
        return FALSE;
    }
    LPBASEFILEBLOCKMAPHEAD_CACHE lpNext = (LPBASEFILEBLOCKMAPHEAD_CACHE)(c.m_pCache->m_pCacheBufferAddr + llNext);
    if (lpNext->m_nDataFlag != BLOCKMAP_CACHE_DATAFLAG) {
        Trace("InitCacheHead", 1, c.m_bTable ? 60010020 : 60010001,
              c.m_bTable ? TALVOR_TEXT("加载数据时文件MAP块校验失败,文件号:%d,校验值:%d",
                                       "The file MAP block fails the check when loading data. The file number is: %d and the check value is: %d")
                         : TALVOR_TEXT("加载索引时文件MAP块校验失败,文件号:%d,校验值:%d",
                                       "The file MAP block fails the check when loading the index. The file number is: %d and the check value is: %d"),
              (int)c.m_bFileNo, (int)lpNext->m_nDataFlag);
        c.m_bBroken = TRUE;
        return FALSE;
    }
    c.m_lpMap = lpNext;
    c.m_nEntry = 0;
    return TRUE;
}

// Settles the cursor on a used entry, or at the end of the chain: a map
// block not full ends the file, a full one leads to the next. The number of
// map blocks visited is bounded by the cache's block count.
void Settle(MapCursor& c, UINT nBlockNum)
{
    UINT nHops = 0;
    while (!c.m_bEnd && !c.m_bBroken && c.m_nEntry >= UsedEntries(c)) {
        if (c.m_lpMap->m_nBlockMapNum < c.m_nMax || ++nHops > c.m_pCache->GetLayout().m_nBlockBufNum) {
            c.m_bEnd = TRUE;
            return;
        }
        NextMapBlock(c, nBlockNum);
    }
}

void Advance(MapCursor& c, UINT nBlockNum)
{
    c.m_nEntry++;
    Settle(c, nBlockNum);
}

const BASEFILEBLOCKMAP_CACHE* Entry(const MapCursor& c) { return &c.m_lpMap->m_pBlockMap[c.m_nEntry]; }

// One file's sweep: what it loads and where its progress goes.
struct Sweep {
    CTalvorCacheStorage* m_pCache;
    LPFILEINFO m_pFileInfo;
    LPTABLEFILEHEAD m_lpHead;
    LPBYTE m_lpBuffer;
    BOOL m_bTable;
    int m_nLoadType;
    long long m_llLeavesBudget;
    long long m_llLeavesLoaded;
    BOOL m_bLastDecision;
};

// Under the load type, does this index block go into the cache?
BOOL DecideIndex(Sweep& s, const BASEBLOCKHEAD* lpBlock, int nSize)
{
    BYTE bNode = lpBlock->m_bNodeType;
    BOOL bLoad = s.m_bLastDecision;
    if (s.m_nLoadType == LOADTYPE_ALL) {
        bLoad = bNode < NODE_LIMIT;
    } else if (bNode >= NODE_UPPER_FIRST && bNode <= NODE_UPPER_LAST) {
        bLoad = TRUE;
    } else if (bNode == NODE_LEAF) {
        bLoad = s.m_nLoadType == LOADTYPE_SOME_LEAVES && s.m_llLeavesLoaded + nSize <= s.m_llLeavesBudget;
        if (bLoad) s.m_llLeavesLoaded += nSize;
    }
    s.m_bLastDecision = bLoad;
    return bLoad;
}

// The entry's block lies at lpBlock: loads it if the rules say so. SWEEP_FULL
// when the cache is full.
int TakeBlock(Sweep& s, const BASEFILEBLOCKMAP_CACHE* e, LPBYTE lpBlock)
{
    int nSize = e->m_nBlockSize;
    LPBASEBLOCKHEAD h = (LPBASEBLOCKHEAD)lpBlock;
    // A block larger than a cache block would run over it; one of another
    // file is not the entry's block whatever its number says.
    if (e->m_nID == 0 || nSize <= 0 || nSize > CACHE_BLOCK_SIZE || h->m_bFileNo != s.m_pFileInfo->m_bFileNo)
        return SWEEP_DONE;
    if (s.m_bTable) {
        if (nSize != CACHE_BLOCK_SIZE) return SWEEP_DONE;
        return s.m_pCache->LoadTableBlock(lpBlock, nSize) == 0 ? SWEEP_DONE : SWEEP_FULL;
    }
    if (!DecideIndex(s, h, nSize)) return SWEEP_DONE;
    return s.m_pCache->LoadIndexBlock(lpBlock, nSize) == 0 ? SWEEP_DONE : SWEEP_FULL;
}

// A table block behind the current entry: its entry is searched for among
// the earlier entries of the same map block.
const BASEFILEBLOCKMAP_CACHE* SearchBack(const MapCursor& c, UINT nBlockNo)
{
    for (int i = c.m_nEntry - 1; i >= 0; i--)
        if (c.m_lpMap->m_pBlockMap[i].m_nBlockNo == nBlockNo) return &c.m_lpMap->m_pBlockMap[i];
    return nullptr;
}

// Scans one piece [llFrom, llFrom + nLen) held in the buffer. llNext: where
// the next piece starts. SWEEP_DONE, or SWEEP_FULL.
int ScanPiece(Sweep& s, MapCursor& c, long long llFrom, int nLen, long long& llNext)
{
    long long llEnd = llFrom + nLen;
    long long p = llFrom;
    UINT nBlockNum = s.m_lpHead->m_nBlockNum;
    if (s.m_bTable) {
        while (!c.m_bEnd && !c.m_bBroken && Entry(c)->m_nBlockOffset != 0 && Entry(c)->m_nBlockOffset < llFrom)
            Advance(c, nBlockNum);
    }
    while (!c.m_bEnd && !c.m_bBroken && p + CACHE_BLOCK_SIZE <= llEnd) {
        const BASEFILEBLOCKMAP_CACHE* e = Entry(c);
        LPBYTE lpPage = s.m_lpBuffer + (p - llFrom);
        int nMark = *(const int*)lpPage;
        if (s.m_bTable && e->m_nBlockOffset == 0) {
            // A block never placed: nothing on disk stands for it.
            Advance(c, nBlockNum);
            continue;
        }
        if (nMark == BLOCK_DATAFLAG) {
            LPBASEBLOCKHEAD h = (LPBASEBLOCKHEAD)lpPage;
            UINT nNo = h->m_nBlockNo;
            const int nHeadSize = h->m_nBlockSize;  // packed fields, read once
            int nOwn = nHeadSize > 0 ? nHeadSize : CACHE_BLOCK_SIZE;
            if (nNo == e->m_nBlockNo) {
                const int nEntrySize = e->m_nBlockSize;
                int nSize = nEntrySize > 0 ? nEntrySize : CACHE_BLOCK_SIZE;
                if (p + nSize > llEnd) {
                    // Runs over the piece: the next piece starts at it.
                    Advance(c, nBlockNum);
                    break;
                }
                if (TakeBlock(s, e, lpPage) == SWEEP_FULL) return SWEEP_FULL;
                Advance(c, nBlockNum);
                p += nSize;
            } else if (nNo < e->m_nBlockNo) {
                const BASEFILEBLOCKMAP_CACHE* b = s.m_bTable ? SearchBack(c, nNo) : nullptr;
                if (b != nullptr && b->m_nBlockOffset == p && p + nOwn <= llEnd &&
                    TakeBlock(s, b, lpPage) == SWEEP_FULL)
                    return SWEEP_FULL;
                p += nOwn;
            } else {
                Advance(c, nBlockNum);
            }
        } else if (nMark == TABLEFILEEX_DATAFLAG || nMark == BLOCKMAP_CACHE_DATAFLAG) {
            p += CACHE_BLOCK_SIZE;
        } else if (e->m_nBlockOffset == p && e->m_nBlockSize > 0) {
            p += e->m_nBlockSize;
            Advance(c, nBlockNum);
        } else {
            p += CACHE_BLOCK_SIZE;
        }
    }
    // Forward always: a piece that could not be scanned at all is passed.
    llNext = p > llFrom ? (p < llEnd ? p : llEnd) : llFrom + CACHE_BLOCK_SIZE;
    return SWEEP_DONE;
}

// The load size lives in the file's row of the system image, which a
// growing flush thread writes too: the module writes it under its latch.
void ShowLoad(CTalvorCacheStorage* pCache, LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo,
              long long llSize)
{
    if (pCache->m_pCacheModule != nullptr)
        pCache->m_pCacheModule->ShowLoadSize(lpCritSection, pFileInfo, llSize);
    else
        TalvorSetLoadSize(pFileInfo, llSize);
}

// One file from 32768 up to its free offset (bounded by its size), each
// piece read on this thread.
int SweepFileAlone(LPTALVORCRITICALSECTION lpCritSection, Sweep& s, MapCursor& c)
{
    long long llStop = s.m_lpHead->m_nFileFreeMemoryOffset;
    // The flush thread may grow the file meanwhile: its size read once.
    const long long llFileSize = TalvorLoadShared(&s.m_pFileInfo->m_liFileSize);
    if (llStop > llFileSize) llStop = llFileSize;
    long long llPos = CACHE_PRELOAD_FROM;
    Settle(c, s.m_lpHead->m_nBlockNum);
    while (llPos < llStop && !c.m_bEnd && !c.m_bBroken) {
        long long llLeft = llStop - llPos;
        int nLen = llLeft < CACHE_PRELOAD_PIECE ? (int)llLeft : CACHE_PRELOAD_PIECE;
        if (s.m_pFileInfo->m_pStorageFile->ReadBlock(lpCritSection, llPos, s.m_lpBuffer, nLen) != 0)
            return SWEEP_FAILED;
        long long llNext = llPos;
        if (ScanPiece(s, c, llPos, nLen, llNext) == SWEEP_FULL) return SWEEP_FULL;
        llPos = llNext;
        ShowLoad(s.m_pCache, lpCritSection, s.m_pFileInfo, llPos);
    }
    return c.m_bBroken ? SWEEP_FAILED : SWEEP_DONE;
}

// The two buffers of a sweep with a reader: the piece being scanned lies in
// one of them, the read ahead goes into the other. Each pointer stands
// PIECE_SLACK bytes into its allocation.
struct Ahead {
    CPreloadReader* m_pReader;
    LPBYTE m_arBuf[2];
    int m_nCur;  // the buffer of the piece being scanned
};

// The piece just scanned, whose last bytes the next piece may start with.
struct Previous {
    LPBYTE m_lpPiece;
    long long m_llFrom;
    long long m_llEnd;
};

// The read ahead began where the previous piece ended; the next piece
// starts a little before that, in bytes the previous piece holds. The read
// is used with those bytes put in front of it when nothing about its place
// can make it differ from the read of the whole piece: the carried part
// fits the room in front and keeps the 512-byte grid a direct read needs.
BOOL CanCarry(const CPreloadReader* r, const Previous& prev, long long llPos, int nLen)
{
    long long llTail = r->AskedPos() - llPos;
    return prev.m_lpPiece != nullptr && r->AskedPos() == prev.m_llEnd && llTail > 0 && llTail <= PIECE_SLACK &&
                   llTail % DIRECT_ALIGN == 0 && llPos >= prev.m_llFrom &&
                   r->AskedPos() + r->AskedLen() >= llPos + nLen
               ? TRUE
               : FALSE;
}

// Brings the piece [llPos, llPos + nLen) into a buffer: the read ahead when
// it is this very read, or carries on from the previous piece; else the
// read of the whole piece, made now. 0 with lpPiece; 1 when the read failed,
// its lines written here, where the sweep alone would have written them.
int TakePiece(LPTALVORCRITICALSECTION lpCritSection, Ahead& a, const Previous& prev, long long llPos, int nLen,
              LPBYTE& lpPiece)
{
    CPreloadReader* r = a.m_pReader;
    int nFree = 1 - a.m_nCur;
    a.m_nCur = nFree;
    if (r->State() != PRELOADREAD_NONE) {
        if (r->AskedPos() == llPos && r->AskedLen() == nLen) {
            int nResult = r->Wait(lpCritSection);
            r->Surface();
            lpPiece = a.m_arBuf[nFree];
            return nResult;
        }
        if (CanCarry(r, prev, llPos, nLen)) {
            // The read covers every byte of the piece past the carried part,
            // which the previous read brought whole: its failure is the
            // failure the read of the whole piece would have met.
            int nTail = (int)(r->AskedPos() - llPos);
            int nResult = r->Wait(lpCritSection);
            r->Surface();
            if (nResult != 0) return nResult;
            lpPiece = a.m_arBuf[nFree] - nTail;
            memcpy(lpPiece, prev.m_lpPiece + (llPos - prev.m_llFrom), (size_t)nTail);
            return 0;
        }
        // Not the read the piece needs: forgotten with its lines.
        r->Forget();
    }
    r->Ask(llPos, a.m_arBuf[nFree], nLen);
    int nResult = r->Wait(lpCritSection);
    r->Surface();
    lpPiece = a.m_arBuf[nFree];
    return nResult;
}

// The same sweep as SweepFileAlone, the next piece read while this one is
// scanned. The read ahead is not waited for on any way out; the caller
// stops the reader, which forgets it.
int SweepFileAhead(LPTALVORCRITICALSECTION lpCritSection, Sweep& s, MapCursor& c, Ahead& a)
{
    long long llStop = s.m_lpHead->m_nFileFreeMemoryOffset;
    // The flush thread may grow the file meanwhile: its size read once.
    const long long llFileSize = TalvorLoadShared(&s.m_pFileInfo->m_liFileSize);
    if (llStop > llFileSize) llStop = llFileSize;
    long long llPos = CACHE_PRELOAD_FROM;
    Previous prev = {nullptr, 0, 0};
    Settle(c, s.m_lpHead->m_nBlockNum);
    while (llPos < llStop && !c.m_bEnd && !c.m_bBroken) {
        long long llLeft = llStop - llPos;
        int nLen = llLeft < CACHE_PRELOAD_PIECE ? (int)llLeft : CACHE_PRELOAD_PIECE;
        LPBYTE lpPiece = nullptr;
        if (TakePiece(lpCritSection, a, prev, llPos, nLen, lpPiece) != 0) return SWEEP_FAILED;
        long long llEnd = llPos + nLen;
        if (llEnd < llStop) {
            long long llAhead = llStop - llEnd;
            int nAhead = llAhead < CACHE_PRELOAD_PIECE ? (int)llAhead : CACHE_PRELOAD_PIECE;
            a.m_pReader->Ask(llEnd, a.m_arBuf[1 - a.m_nCur], nAhead);
        }
        s.m_lpBuffer = lpPiece;
        long long llNext = llPos;
        if (ScanPiece(s, c, llPos, nLen, llNext) == SWEEP_FULL) return SWEEP_FULL;
        prev = {lpPiece, llPos, llEnd};
        llPos = llNext;
        ShowLoad(s.m_pCache, lpCritSection, s.m_pFileInfo, llPos);
    }
    return c.m_bBroken ? SWEEP_FAILED : SWEEP_DONE;
}

// One file's sweep: with a reader when there is a second buffer and the
// reader starts, else alone. The reader ends and is joined before this
// returns, whatever the sweep gave.
int SweepFile(LPTALVORCRITICALSECTION lpCritSection, Sweep& s, MapCursor& c, LPBYTE lpSecond,
              volatile BYTE* pExit)
{
    LPBYTE lpFirst = s.m_lpBuffer;
    CPreloadReader* pReader =
        lpSecond != nullptr ? CPreloadReader::Start(s.m_pFileInfo->m_pStorageFile, pExit) : nullptr;
    if (pReader == nullptr) return SweepFileAlone(lpCritSection, s, c);
    Ahead a = {pReader, {lpFirst, lpSecond + PIECE_SLACK}, 1};
    int nResult = SweepFileAhead(lpCritSection, s, c, a);
    CPreloadReader::Stop(pReader);
    s.m_lpBuffer = lpFirst;
    return nResult;
}

} // namespace

int CTalvorCacheStorage::CopyToCursor(LPBYTE lpBuf, int nBlockSize)
{
    if (lpBuf == nullptr || nBlockSize <= 0 || nBlockSize > CACHE_BLOCK_SIZE) return 1;
    UINT nBlock = m_nFreeNo;
    if (nBlock < m_layout.m_nFirstFreeNo || nBlock > m_layout.m_nBlockBufNum) {
        m_nFreeNo = 0;
        return CACHE_RESULT_CACHEFULL;
    }
    LPBYTE lpTarget = m_pCacheBufferAddr + CacheBlockOffset(nBlock);
    memcpy(lpTarget, lpBuf, (size_t)nBlockSize);
    if (nBlockSize >= (int)sizeof(BASEBLOCKHEAD)) ((LPBASEBLOCKHEAD)lpTarget)->m_bThreadNum = 0;
    m_nFreeNo = GetLink(nBlock);
    return 0;
}

int CTalvorCacheStorage::LoadIndexBlock(LPBYTE lpBuf, int nBlockSize) { return CopyToCursor(lpBuf, nBlockSize); }

int CTalvorCacheStorage::LoadTableBlock(LPBYTE lpBuf, int nBlockSize) { return CopyToCursor(lpBuf, nBlockSize); }

BOOL CTalvorCacheStorage::WaitForBackends()
{
    for (;;) {
        BOOL bAll = TRUE;
        LPFILEINFO p = m_pCacheModule != nullptr ? m_pCacheModule->FileList() : nullptr;
        for (int n = 0; p != nullptr && n < MAX_FILE_NUM; p = p->m_pNext, n++)
            if (IsCacheFileType((BYTE)p->m_bFileType) && TalvorLoadShared(&p->m_pStorageFile) == nullptr) bAll = FALSE;
        if (bAll) return TRUE;
        if (TalvorLoadShared(&m_bExit)) return FALSE;
        Sleep(1);
    }
}

HRESULT CTalvorCacheStorage::FailPreload(LPBYTE lpBuffer, HRESULT hr)
{
    free(lpBuffer);
    if (m_pLoadProgress != nullptr)
        snprintf(m_pLoadProgress->m_lpTitle, sizeof(m_pLoadProgress->m_lpTitle), "%s", LOAD_FAILED_TITLE);
    m_pCacheBufferHead->m_bStatus = CACHESTATUS_FAILED;
    return hr;
}

namespace {

// The files of the list, at most MAX_FILE_NUM of them (a looped list ends).
int ListFiles(ITalvorCacheModule* pModule, LPFILEINFO* arFiles)
{
    int n = 0;
    LPFILEINFO p = pModule != nullptr ? pModule->FileList() : nullptr;
    for (; p != nullptr && n < MAX_FILE_NUM; p = p->m_pNext)
        if (IsCacheFileType((BYTE)p->m_bFileType) && p->m_pStorageFile != nullptr) arFiles[n++] = p;
    return n;
}

BOOL HeadSizeFits(LPFILEINFO p, LPTABLEFILEHEAD h)
{
    if (h->m_nFileHeaderSize == CACHE_BLOCK_SIZE) return TRUE;
    if (p->m_bFileType == (char)FILETYPE_TABLE)
        Trace("InitCacheHead", 1, 60010011,
              TALVOR_TEXT("表文件[%s]头大小(%d)与当前块大小(%d)不一致,启动失败!",
                          "Table file [%s] header size (%d) is found to be inconsistent with the current block size (%d) at startup. Startup failed!"),
              p->m_lpszFilePath, h->m_nFileHeaderSize, CACHE_BLOCK_SIZE);
    else
        Trace("InitCacheHead", 1, 60010010,
              TALVOR_TEXT("索引文件[%s]头大小(%d)与当前块大小(%d)不一致,启动失败!",
                          "The index file [%s] header size (%d) is not the same as the current block size (%d). Failed to start!"),
              p->m_lpszFilePath, h->m_nFileHeaderSize, CACHE_BLOCK_SIZE);
    return FALSE;
}

MapCursor StartCursor(CTalvorCacheStorage* pCache, LPFILEINFO p, LPTABLEFILEHEAD h, long long llMap)
{
    MapCursor c;
    c.m_pCache = pCache;
    c.m_lpMap = (LPBASEFILEBLOCKMAPHEAD_CACHE)(pCache->m_pCacheBufferAddr + llMap);
    c.m_nEntry = 0;
    const int nMax = h->m_nMaxBlockMapNum;  // a packed field, read once
    c.m_nMax = nMax > 0 && nMax < MAP_CAPACITY ? nMax : MAP_CAPACITY;
    c.m_bFileNo = p->m_bFileNo;
    c.m_bTable = p->m_bFileType == (char)FILETYPE_TABLE;
    c.m_bEnd = FALSE;
    c.m_bBroken = FALSE;
    return c;
}

} // namespace

HRESULT CTalvorCacheStorage::InitCacheHead(LPTALVORCRITICALSECTION lpCritSection)
{
    if (m_pCacheBufferHead == nullptr) return E_FAIL;
    if (!WaitForBackends()) return E_FAIL;
    if (m_bExists) {
        m_pCacheBufferHead->m_bStatus = CACHESTATUS_READY;
        return S_OK;
    }
    LPFILEINFO arFiles[MAX_FILE_NUM];
    int nFiles = ListFiles(m_pCacheModule, arFiles);
    long long arMap[MAX_FILE_NUM];
    long long llTotalIndexSize = 0, llMetaSize = 0;
    // Survey: head sizes, first map blocks, and the size of the index.
    for (int i = 0; i < nFiles; i++) {
        LPFILEINFO p = arFiles[i];
        LPTABLEFILEHEAD h = CachedFileHead(p->m_bFileNo);
        if (h == nullptr || !HeadSizeFits(p, h)) return FailPreload(nullptr, E_FAIL);
        int nResult = p->m_bFileType == (char)FILETYPE_TABLE
                          ? GetFirstTableMapCacheAddr(h, m_pCacheBufferAddr, arMap[i])
                          : GetFirstIndexMapCacheAddr((LPINDEXFILEHEAD)h, m_pCacheBufferAddr, arMap[i]);
        if (nResult != 0) {
            BOOL bTable = p->m_bFileType == (char)FILETYPE_TABLE;
            Trace("InitCacheHead", 1, bTable ? 60010019 : 60010012,
                  TALVOR_TEXT("开始加载数据时找不到文件的第一个MAP块,文件号:%d ",
                              "When starting to load data, failed to find the first map block of the file, file number is:%d "),
                  (int)p->m_bFileNo);
            return FailPreload(nullptr, h->m_nCacheStartOffset == 0 ? CACHE_RESULT_NOCHAIN : 1);
        }
        if (p->m_bFileType == (char)FILETYPE_TABLE) continue;
        MapCursor c = StartCursor(this, p, h, arMap[i]);
        for (Settle(c, h->m_nBlockNum); !c.m_bEnd && !c.m_bBroken; Advance(c, h->m_nBlockNum)) {
            const BASEFILEBLOCKMAP_CACHE* e = Entry(c);
            if (e->m_nID == 0) continue;
            llTotalIndexSize += e->m_nBlockSize;
            if (e->m_nBlockSize == CACHE_BLOCK_SIZE) llMetaSize += e->m_nBlockSize;
        }
        if (c.m_bBroken) return FailPreload(nullptr, E_FAIL);
    }
    // The load type by what fits.
    long long nRoom = m_llCacheBufferSize - m_nFIFOSize - m_nCacheFlashBackSize;
    long long nUsed = (long long)(UINT)m_pCacheBufferHead->m_nFreeNo * CACHE_BLOCK_SIZE;
    int nLoadType = LOADTYPE_UPPER;
    if (llTotalIndexSize + nUsed <= nRoom)
        nLoadType = LOADTYPE_ALL;
    else if (llMetaSize + nUsed <= nRoom)
        nLoadType = LOADTYPE_SOME_LEAVES;
    long long llLeaves = nRoom - llMetaSize - nUsed - (llTotalIndexSize - llMetaSize) / FULL_INDEX_DIVISOR;
    m_nFreeNo = (UINT)m_pCacheBufferHead->m_nFreeNo;
    LPBYTE lpBuffer = (LPBYTE)get_aligned_buffer((size_t)PIECE_SLACK + CACHE_PRELOAD_PIECE + 4);
    if (lpBuffer == nullptr) return FailPreload(nullptr, E_FAIL);
    // The reader's buffer; without it every piece is read on this thread.
    LPBYTE lpSecond = (LPBYTE)get_aligned_buffer((size_t)PIECE_SLACK + CACHE_PRELOAD_PIECE + 4);
    for (int i = 0; i < nFiles; i++)
        if (arFiles[i]->m_bFileType == (char)FILETYPE_TABLE) ShowLoad(this, lpCritSection, arFiles[i], TalvorLoadShared(&arFiles[i]->m_liFileSize));
    BOOL bFull = FALSE;
    for (int nPass = 0; nPass < 2 && !bFull; nPass++) {
        BOOL bTable = nPass == 1;
        if (bTable && nLoadType != LOADTYPE_ALL) break;
        for (int i = 0; i < nFiles && !bFull; i++) {
            LPFILEINFO p = arFiles[i];
            if ((p->m_bFileType == (char)FILETYPE_TABLE) != bTable) continue;
            LPTABLEFILEHEAD h = CachedFileHead(p->m_bFileNo);
            Sweep s = {this, p, h, lpBuffer + PIECE_SLACK, bTable, nLoadType, llLeaves, 0, FALSE};
            MapCursor c = StartCursor(this, p, h, arMap[i]);
            int nResult = SweepFile(lpCritSection, s, c, lpSecond, &m_bExit);
            if (nResult == SWEEP_FAILED) {
                free(lpSecond);
                return FailPreload(lpBuffer, E_FAIL);
            }
            bFull = nResult == SWEEP_FULL;
            ShowLoad(this, lpCritSection, p, TalvorLoadShared(&p->m_liFileSize));
        }
    }
    // A full cache shows every index file as loaded: nothing more comes.
    for (int i = 0; i < nFiles && bFull; i++) ShowLoad(this, lpCritSection, arFiles[i], TalvorLoadShared(&arFiles[i]->m_liFileSize));
    free(lpSecond);
    free(lpBuffer);
    m_pCacheBufferHead->m_bStatus = CACHESTATUS_READY;
    return S_OK;
}
