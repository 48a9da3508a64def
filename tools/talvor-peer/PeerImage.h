// PeerImage.h — how the engine stand-in changes a memory-mode file image,
// in the engine's order, and how a row it wrote is read back. Header-only:
// the stand-in and the tests use the same code, so what a test checks is
// what the stand-in does.
//
// Rows. The stand-in keeps no real records: a block holds fixed slots of
// PEERROW from its head size on, each carrying the timestamp and value of
// its last change and a check word, so that a row read from disk tells
// whether it is whole and which change it is.
//
// Order of one change (what the save pass relies on): block m_nTimestamp,
// block m_bSaveFlag, the row's bytes; then the object's finished timestamp
// and flag, the file head's timestamp; m_nEndTimestamp of the system head is
// raised by the caller last, when the whole transaction is in.
#pragma once

#include "DbFileLayout.h"
#include "LinuxCommonAPI.h"
#include "MemDBCommonDef.h"

#include <cstring>
#include <vector>

namespace talvorpeer {

#pragma pack(push, 1)
typedef struct _PEERROW {
    long long m_nTimestamp;
    long long m_nValue;
    long long m_nRowKey;
    long long m_nCheck;
} PEERROW, *LPPEERROW;
#pragma pack(pop)
static_assert(sizeof(PEERROW) == 32, "PEERROW is 32 bytes");

inline constexpr int PEER_MAX_SLOTS = 64;

inline void PeerFence() { __atomic_thread_fence(__ATOMIC_SEQ_CST); }

inline long long PeerRowKey(int nFileNo, long long nBlockOffset, int nSlot)
{
    return ((long long)nFileNo << 56) ^ (nBlockOffset << 8) ^ nSlot;
}

inline long long PeerRowCheck(long long nTimestamp, long long nValue, long long nRowKey)
{
    unsigned long long x = (unsigned long long)nTimestamp * 0x9E3779B97F4A7C15ULL;
    x ^= (unsigned long long)nValue + 0x632BE59BD9B4E019ULL + (x << 6) + (x >> 2);
    x ^= (unsigned long long)nRowKey * 0xC2B2AE3D27D4EB4FULL;
    return (long long)(x ^ (x >> 29));
}

inline int PeerSlotCount(int nBlockSize)
{
    int n = (nBlockSize - (int)sizeof(BLOCKHEAD)) / (int)sizeof(PEERROW);
    return n < PEER_MAX_SLOTS ? n : PEER_MAX_SLOTS;
}

inline long long PeerRowOffset(long long nBlockOffset, int nSlot)
{
    return nBlockOffset + (long long)sizeof(BLOCKHEAD) + (long long)nSlot * sizeof(PEERROW);
}

// Calls fnEntry(nIndex, lpEntry) for every entry of the map chain of a
// memory-mode file (types 2 to 4), in chain order, nIndex counting from 0
// over all map blocks. The chain is held to the image.
template <typename Entry>
inline void PeerForEachMapEntry(const BYTE* lpImage, long long nSize, Entry fnEntry)
{
    const BASEFILEHEAD* lpHead = (const BASEFILEHEAD*)lpImage;
    long long nMapSize = lpHead->m_nBlockMapSize;
    if (nMapSize < (long long)sizeof(BASEFILEBLOCKMAPHEAD)) return;
    long long nMap = lpHead->m_nBlockMapStartOffset;
    int nIndex = 0;
    for (long long nStep = 0; nMap > 0 && nMap + nMapSize <= nSize && nStep <= nSize / nMapSize; nStep++) {
        const BASEFILEBLOCKMAPHEAD* lpMap = (const BASEFILEBLOCKMAPHEAD*)(lpImage + nMap);
        int nNum = lpMap->m_nBlockMapNum;
        if (nNum < 0 || nNum > DbMaxBlockMapNum((int)nMapSize)) return;
        for (int i = 0; i < nNum; i++) fnEntry(nIndex++, (const BASEFILEBLOCKMAP*)(lpImage + DbMapEntryOffset(nMap, i)));
        nMap = lpMap->m_nNextBlockMapOffset;
    }
}

// The blocks of a memory-mode file (types 2 to 4) as its map blocks list
// them, each checked to lie inside the image.
inline std::vector<long long> PeerFileBlocks(const BYTE* lpImage, long long nSize)
{
    std::vector<long long> v;
    PeerForEachMapEntry(lpImage, nSize, [&](int, const BASEFILEBLOCKMAP* lpEntry) {
        long long nOffset = lpEntry->m_nBlockOffset;
        if (nOffset <= 0 || nOffset > nSize - (long long)sizeof(BLOCKHEAD)) return;
        const BLOCKHEAD* lpBlock = (const BLOCKHEAD*)(lpImage + nOffset);
        if (lpBlock->m_nBlockSize < (int)sizeof(BLOCKHEAD) || nOffset + lpBlock->m_nBlockSize > nSize) return;
        v.push_back(nOffset);
    });
    return v;
}

// Grows a new file's first map block to nBlocks blocks (the maker gives it
// one) and, in a data file, puts them all in the chain of object 1. One
// transaction at nTimestamp. False when the file has no room.
inline bool PeerPrepareFile(LPBYTE lpImage, long long nSize, int nBlocks, long long nTimestamp)
{
    LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)lpImage;
    long long nMap = lpHead->m_nBlockMapStartOffset;
    LPBASEFILEBLOCKMAPHEAD lpMap = (LPBASEFILEBLOCKMAPHEAD)(lpImage + nMap);
    if (lpMap->m_nBlockMapNum < 1 || nBlocks > DbMaxBlockMapNum(lpHead->m_nBlockMapSize)) return false;
    LPBASEFILEBLOCKMAP lpFirst = (LPBASEFILEBLOCKMAP)(lpImage + DbMapEntryOffset(nMap, 0));
    const BLOCKHEAD stModel = *(const BLOCKHEAD*)(lpImage + lpFirst->m_nBlockOffset);
    int nBlockSize = stModel.m_nBlockSize;
    for (int i = lpMap->m_nBlockMapNum; i < nBlocks; i++) {
        long long nOffset = DbAlignUp(lpHead->m_nFileFreeMemoryOffset);
        if (nOffset + nBlockSize > nSize) return false;
        LPBLOCKHEAD lpBlock = (LPBLOCKHEAD)(lpImage + nOffset);
        *lpBlock = stModel;
        lpBlock->m_nBlockNo = (UINT)(i + 1);
        TalvorStoreShared(&lpBlock->m_nTimestamp, nTimestamp);
        TalvorStoreShared(&lpBlock->m_bSaveFlag, 1);
        LPBASEFILEBLOCKMAP lpEntry = (LPBASEFILEBLOCKMAP)(lpImage + DbMapEntryOffset(nMap, i));
        lpEntry->m_nBlockNo = (UINT)(i + 1);
        lpEntry->m_nBlockOffset = nOffset;
        lpEntry->m_nNextOffset = 0;
        PeerFence();
        lpMap->m_nBlockMapNum = i + 1;
        lpHead->m_nBlockNum = (UINT)(i + 1);
        lpHead->m_nFileFreeMemoryOffset = nOffset + nBlockSize;
    }
    LPBLOCKHEAD lpBlock1 = (LPBLOCKHEAD)(lpImage + lpFirst->m_nBlockOffset);
    TalvorStoreShared(&lpBlock1->m_nTimestamp, nTimestamp);
    TalvorStoreShared(&lpBlock1->m_bSaveFlag, 1);
    if (lpHead->m_bFileType == FILETYPE_DATA) {
        for (int i = 0; i + 1 < lpMap->m_nBlockMapNum; i++)
            ((LPBASEFILEBLOCKMAP)(lpImage + DbMapEntryOffset(nMap, i)))->m_nNextOffset = DbMapEntryOffset(nMap, i + 1);
        LPBASEFILEOBJECTDEF lpObject = DbMemoryFileObject(lpImage, nSize, 0);
        if (lpObject == nullptr) return false;
        lpObject->m_nFullBlockMapOffset = DbMapEntryOffset(nMap, 0);
        // Block 1 came on the free chain; all blocks are on the full one now.
        lpObject->m_nFreeBlockMapOffset = 0;
        TalvorStoreShared(&lpObject->m_nFinishedTimestamp, nTimestamp);
        PeerFence();
        lpObject->m_nID = 1;
        TalvorStoreShared(&lpObject->m_bSaveFlag, 1);
        if (lpHead->m_nCurrentObjectNum < 1) lpHead->m_nCurrentObjectNum = 1;
    }
    PeerFence();
    TalvorStoreShared(&lpHead->m_nTimestamp, nTimestamp);
    TalvorStoreShared(&lpHead->m_bSaveFlag, 1);
    return true;
}

// Spreads the blocks of a data file's first map block over nObjects
// objects: entry i joins the chain of object i % nObjects, as the engine
// keeps one chain per table. One transaction at nTimestamp; the chains are
// linked before the objects that own them are published. False when the
// file holds fewer objects.
inline bool PeerSpreadObjects(LPBYTE lpImage, long long nSize, int nObjects, long long nTimestamp)
{
    LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)lpImage;
    if (lpHead->m_bFileType != FILETYPE_DATA || nObjects < 1 || nObjects > lpHead->m_nMaxObjectNum) return false;
    long long nMap = lpHead->m_nBlockMapStartOffset;
    int nNum = ((LPBASEFILEBLOCKMAPHEAD)(lpImage + nMap))->m_nBlockMapNum;
    for (int i = 0; i < nNum; i++) {
        int nNext = i + nObjects;
        ((LPBASEFILEBLOCKMAP)(lpImage + DbMapEntryOffset(nMap, i)))->m_nNextOffset =
            nNext < nNum ? DbMapEntryOffset(nMap, nNext) : 0;
    }
    PeerFence();
    for (int k = 0; k < nObjects && k < nNum; k++) {
        LPBASEFILEOBJECTDEF lpObject = DbMemoryFileObject(lpImage, nSize, k);
        if (lpObject == nullptr) return false;
        lpObject->m_nFullBlockMapOffset = DbMapEntryOffset(nMap, k);
        lpObject->m_nFreeBlockMapOffset = 0;
        TalvorStoreShared(&lpObject->m_nFinishedTimestamp, nTimestamp);
        PeerFence();
        lpObject->m_nID = (UINT)(k + 1);
        TalvorStoreShared(&lpObject->m_bSaveFlag, 1);
    }
    if (lpHead->m_nCurrentObjectNum < nObjects) lpHead->m_nCurrentObjectNum = nObjects;
    PeerFence();
    TalvorStoreShared(&lpHead->m_nTimestamp, nTimestamp);
    TalvorStoreShared(&lpHead->m_bSaveFlag, 1);
    return true;
}

// The object whose chain holds the block at nBlockOffset after
// PeerSpreadObjects and PeerAddMapBlock (0 when no entry names it).
inline int PeerBlockObject(const BYTE* lpImage, long long nSize, long long nBlockOffset, int nObjects)
{
    int nObject = 0;
    PeerForEachMapEntry(lpImage, nSize, [&](int nIndex, const BASEFILEBLOCKMAP* lpEntry) {
        if (lpEntry->m_nBlockOffset == nBlockOffset) nObject = nIndex % nObjects;
    });
    return nObject;
}

// Appends a map block of nBlocks new blocks to the file's map chain, as the
// engine does when its first map block is full; in a data file each new
// entry joins the end of the chain of object (its index % nObjects). The
// map block (master and slave), its blocks and the chain links are in place
// before the last map block links it. One transaction at nTimestamp. False
// when the file has no room.
inline bool PeerAddMapBlock(LPBYTE lpImage, long long nSize, int nBlocks, int nObjects, long long nTimestamp)
{
    LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)lpImage;
    long long nMapSize = lpHead->m_nBlockMapSize;
    if (nBlocks < 1 || nBlocks > DbMaxBlockMapNum((int)nMapSize) || nObjects < 1) return false;
    // The last map block, and how many entries come before the new ones.
    long long nLast = 0;
    int nEntries = 0;
    for (long long nMap = lpHead->m_nBlockMapStartOffset, nStep = 0;
         nMap > 0 && nMap + nMapSize <= nSize && nStep <= nSize / nMapSize; nStep++) {
        nLast = nMap;
        nEntries += ((LPBASEFILEBLOCKMAPHEAD)(lpImage + nMap))->m_nBlockMapNum;
        nMap = ((LPBASEFILEBLOCKMAPHEAD)(lpImage + nMap))->m_nNextBlockMapOffset;
    }
    if (nLast == 0) return false;
    LPBASEFILEBLOCKMAPHEAD lpLast = (LPBASEFILEBLOCKMAPHEAD)(lpImage + nLast);
    const BLOCKHEAD stModel = *(const BLOCKHEAD*)(lpImage + ((LPBASEFILEBLOCKMAP)(lpImage + DbMapEntryOffset(nLast, 0)))->m_nBlockOffset);
    int nBlockSize = stModel.m_nBlockSize;
    long long nMapAt = DbAlignUp(lpHead->m_nFileFreeMemoryOffset);
    long long nFirstBlock = DbAlignUp(nMapAt + 2 * nMapSize);
    if (nFirstBlock + (long long)nBlocks * nBlockSize > nSize) return false;
    LPBASEFILEBLOCKMAPHEAD lpMap = (LPBASEFILEBLOCKMAPHEAD)(lpImage + nMapAt);
    memset(lpMap, 0, (size_t)nMapSize);
    lpMap->m_nDataFlag = BLOCKMAP_DATAFLAG;
    lpMap->m_nMapNo = lpLast->m_nMapNo + 1;
    TalvorStoreShared(&lpMap->m_nTimestamp, nTimestamp);
    TalvorStoreShared(&lpMap->m_bSaveFlag, 1);
    UINT nBlockNo = lpHead->m_nBlockNum;
    for (int i = 0; i < nBlocks; i++) {
        long long nOffset = nFirstBlock + (long long)i * nBlockSize;
        LPBLOCKHEAD lpBlock = (LPBLOCKHEAD)(lpImage + nOffset);
        memset(lpBlock, 0, (size_t)nBlockSize);
        *lpBlock = stModel;
        lpBlock->m_nBlockNo = nBlockNo + (UINT)i + 1;
        TalvorStoreShared(&lpBlock->m_nTimestamp, nTimestamp);
        TalvorStoreShared(&lpBlock->m_bSaveFlag, 1);
        LPBASEFILEBLOCKMAP lpEntry = (LPBASEFILEBLOCKMAP)(lpImage + DbMapEntryOffset(nMapAt, i));
        lpEntry->m_nBlockNo = lpBlock->m_nBlockNo;
        lpEntry->m_nBlockOffset = nOffset;
        lpEntry->m_nNextOffset = 0;
    }
    lpMap->m_nBlockMapNum = nBlocks;
    memcpy(lpImage + nMapAt + nMapSize, lpMap, (size_t)nMapSize);
    if (lpHead->m_bFileType == FILETYPE_DATA) {
        // Each new entry goes to the end of its object's chain.
        for (int i = 0; i < nBlocks; i++) {
            LPBASEFILEOBJECTDEF lpObject = DbMemoryFileObject(lpImage, nSize, (nEntries + i) % nObjects);
            if (lpObject == nullptr) return false;
            long long nEntry = DbMapEntryOffset(nMapAt, i);
            long long nTail = lpObject->m_nFullBlockMapOffset;
            for (long long nStep = 0; nTail > 0 && nStep < nEntries + nBlocks; nStep++) {
                long long nNext = ((LPBASEFILEBLOCKMAP)(lpImage + nTail))->m_nNextOffset;
                if (nNext <= 0) break;
                nTail = nNext;
            }
            PeerFence();
            if (nTail > 0)
                ((LPBASEFILEBLOCKMAP)(lpImage + nTail))->m_nNextOffset = nEntry;
            else
                lpObject->m_nFullBlockMapOffset = nEntry;
            TalvorStoreShared(&lpObject->m_nFinishedTimestamp, nTimestamp);
            TalvorStoreShared(&lpObject->m_bSaveFlag, 1);
        }
    }
    PeerFence();
    lpLast->m_nNextBlockMapOffset = nMapAt;
    TalvorStoreShared(&lpLast->m_nTimestamp, nTimestamp);
    TalvorStoreShared(&lpLast->m_bSaveFlag, 1);
    lpHead->m_nBlockNum = nBlockNo + (UINT)nBlocks;
    lpHead->m_nFileFreeMemoryOffset = nFirstBlock + (long long)nBlocks * nBlockSize;
    PeerFence();
    TalvorStoreShared(&lpHead->m_nTimestamp, nTimestamp);
    TalvorStoreShared(&lpHead->m_bSaveFlag, 1);
    return true;
}

// One row change at nTimestamp, in the engine's order.
inline void PeerChangeRow(LPBYTE lpImage, long long nSize, int nFileNo, long long nBlockOffset, int nSlot,
                          long long nValue, long long nTimestamp)
{
    LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)lpImage;
    LPBLOCKHEAD lpBlock = (LPBLOCKHEAD)(lpImage + nBlockOffset);
    TalvorStoreShared(&lpBlock->m_nTimestamp, nTimestamp);
    TalvorStoreShared(&lpBlock->m_bSaveFlag, 1);
    PeerFence();
    LPPEERROW lpRow = (LPPEERROW)(lpImage + PeerRowOffset(nBlockOffset, nSlot));
    long long nKey = PeerRowKey(nFileNo, nBlockOffset, nSlot);
    lpRow->m_nTimestamp = nTimestamp;
    lpRow->m_nValue = nValue;
    lpRow->m_nRowKey = nKey;
    lpRow->m_nCheck = PeerRowCheck(nTimestamp, nValue, nKey);
    PeerFence();
    if (lpHead->m_bFileType == FILETYPE_DATA) {
        LPBASEFILEOBJECTDEF lpObject = DbMemoryFileObject(lpImage, nSize, 0);
        if (lpObject != nullptr) {
            TalvorStoreShared(&lpObject->m_nFinishedTimestamp, nTimestamp);
            TalvorStoreShared(&lpObject->m_bSaveFlag, 1);
        }
    }
    TalvorStoreShared(&lpHead->m_nTimestamp, nTimestamp);
}

// What a row holds: 1 whole and matching (ts, value), 0 never written,
// -1 torn or foreign.
inline int PeerReadRow(const BYTE* lpFile, long long nBlockOffset, int nSlot, int nFileNo, long long* pnTimestamp,
                       long long* pnValue)
{
    PEERROW stRow;
    memcpy(&stRow, lpFile + PeerRowOffset(nBlockOffset, nSlot), sizeof(stRow));
    *pnTimestamp = stRow.m_nTimestamp;
    *pnValue = stRow.m_nValue;
    if (stRow.m_nTimestamp == 0 && stRow.m_nValue == 0 && stRow.m_nCheck == 0) return 0;
    long long nKey = PeerRowKey(nFileNo, nBlockOffset, nSlot);
    if (stRow.m_nRowKey != nKey || stRow.m_nCheck != PeerRowCheck(stRow.m_nTimestamp, stRow.m_nValue, nKey)) return -1;
    return 1;
}

} // namespace talvorpeer
