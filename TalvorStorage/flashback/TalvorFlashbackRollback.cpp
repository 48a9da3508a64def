// TalvorFlashbackRollback.cpp — taking a private copy of a block back to an
// earlier timestamp from the old row versions in the rollback area.
//
// The area is the engine's and is read without a lock while the engine keeps
// writing it: every record is copied to a local before it is looked at, and
// every offset or length found in the area or in the block is checked against
// the bytes really there. A record that fails a check is a place the engine
// has reused (the row keeps its newest value); a piece of the block that
// fails one is a row caught in mid-write (the caller copies the block anew).
#include "TalvorFlashback.h"

#include "ShareMemory.h"

#include <climits>
#include <cstring>

namespace {

// Results of the search for the version of a row valid at a timestamp.
const int VERSION_FOUND = 0;
const int VERSION_NONE = -1;          // the row did not exist at that time
const int VERSION_NODATA = -3;        // a version, but no value to restore
const int VERSION_REUSED_FLAG = 1154; // flag or token of a reused place
const int VERSION_OUT_OF_RANGE = 1155;

const int PIECE_TORN = -3;
const int FLASHBACK_RETRIES = 10;
const int ROW_RECORD_SIZE = (int)sizeof(BLOCKDATASTRUCT);
const int PIECE_HEAD_SIZE = (int)sizeof(BLOCKVARDATASTRUCT);
const UINT RECORD_HEAD_SIZE = (UINT)sizeof(ROLLBACKBLOCKVARDATASTRUCT);

// The part of the area where version records may stand, as far as both the
// head and the mapped bytes agree.
struct RollbackBounds {
    const BYTE* m_lpArea;
    UINT m_nLow;  // first byte of the data region
    UINT m_nHigh; // one past the last usable byte
    long long m_nMaxSteps;
};

BOOL GetBounds(LPBYTE lpArea, UINT nAreaSize, RollbackBounds& stBounds)
{
    if (lpArea == nullptr || nAreaSize < sizeof(ROLLBACKBLOCKHEAD)) return FALSE;
    ROLLBACKBLOCKHEAD stHead;
    memcpy(&stHead, lpArea, sizeof(stHead));
    UINT nHigh = stHead.m_nRollbackTotalSize < nAreaSize ? stHead.m_nRollbackTotalSize : nAreaSize;
    // A head size below the head itself would let records overlay it.
    UINT nLow = stHead.m_nRollbackHeadSize > sizeof(ROLLBACKBLOCKHEAD) ? stHead.m_nRollbackHeadSize
                                                                       : (UINT)sizeof(ROLLBACKBLOCKHEAD);
    if (nLow >= nHigh) return FALSE;
    stBounds.m_lpArea = lpArea;
    stBounds.m_nLow = nLow;
    stBounds.m_nHigh = nHigh;
    // No chain can hold more distinct records than the region has room for;
    // a longer walk has met a loop.
    stBounds.m_nMaxSteps = (long long)((nHigh - nLow) / RECORD_HEAD_SIZE) + 1;
    return TRUE;
}

// Copies the record at data id nID into stRecord after the range, flag and
// token checks: VERSION_FOUND or the code of the failed check.
int ReadRecord(const RollbackBounds& stBounds, long long nID, short sToken, ROLLBACKBLOCKVARDATASTRUCT& stRecord)
{
    UINT nOffset = (UINT)((unsigned long long)nID & 0xFFFFFFFFu);
    if (nOffset < stBounds.m_nLow || nOffset >= stBounds.m_nHigh) return VERSION_OUT_OF_RANGE;
    if (stBounds.m_nHigh - nOffset < RECORD_HEAD_SIZE) return VERSION_OUT_OF_RANGE;
    memcpy(&stRecord, stBounds.m_lpArea + nOffset, RECORD_HEAD_SIZE);
    if (stRecord.m_nDataFlag != VARDATA_DATAFLAG || stRecord.m_sDataToken != sToken) return VERSION_REUSED_FLAG;
    return VERSION_FOUND;
}

// The value image of the record at nID: its content must lie wholly inside
// the region, else the place is taken as reused.
int CheckImage(const RollbackBounds& stBounds, long long nID, const BYTE*& lpImage, int& nLength)
{
    UINT nOffset = (UINT)((unsigned long long)nID & 0xFFFFFFFFu);
    UINT nImage = nOffset + RECORD_HEAD_SIZE;
    if (stBounds.m_nHigh - nImage < (UINT)PIECE_HEAD_SIZE) return VERSION_OUT_OF_RANGE;
    BLOCKVARDATASTRUCT stImage;
    memcpy(&stImage, stBounds.m_lpArea + nImage, PIECE_HEAD_SIZE);
    int n = stImage.m_nActualLength;
    if (n < 0 || (UINT)n > stBounds.m_nHigh - nImage - PIECE_HEAD_SIZE) return VERSION_OUT_OF_RANGE;
    lpImage = stBounds.m_lpArea + nImage;
    nLength = n;
    return VERSION_FOUND;
}

// The version of a row valid at nTimestamp, from the newest version nID.
// Walks older while the target lies before a version's valid-from time,
// keeping the last version with a value of its own in case the one reached
// has none. Along a sound chain the valid-from times never grow: a record
// newer than the one before it belongs to a reused place.
int FindVersion(const RollbackBounds& stBounds, long long nID, short sToken, long long nTimestamp,
                const BYTE*& lpImage, int& nLength)
{
    if (nID == 0) return VERSION_NONE;
    ROLLBACKBLOCKVARDATASTRUCT stRecord;
    int rc = ReadRecord(stBounds, nID, sToken, stRecord);
    if (rc != VERSION_FOUND) return rc;
    long long nRemembered = 0;
    for (long long nStep = 0; nTimestamp < stRecord.m_nTimestamp; nStep++) {
        if (nStep >= stBounds.m_nMaxSteps) return VERSION_REUSED_FLAG;
        if (stRecord.m_nActualLength != 0) nRemembered = nID;
        long long nNewer = stRecord.m_nTimestamp;
        nID = stRecord.m_nPreRollbackDataID;
        if (nID == 0) return VERSION_NONE;
        rc = ReadRecord(stBounds, nID, sToken, stRecord);
        if (rc != VERSION_FOUND) return rc;
        if (stRecord.m_nTimestamp > nNewer) return VERSION_REUSED_FLAG;
    }
    long long nChosen = stRecord.m_nActualLength != 0 ? nID : nRemembered;
    if (nChosen == 0) return VERSION_NODATA;
    return CheckImage(stBounds, nChosen, lpImage, nLength);
}

// Writes a value of nLength bytes into the row's pieces, from nFirst along
// their chain. A value longer than the pieces is cut at the last one; pieces
// beyond a shorter value are left empty. PIECE_TORN when a piece is not
// wholly inside the block, bears a wrong flag, or the chain does not end.
int WritePieces(LPBYTE lpBlock, int nBlockSize, int nFirst, const BYTE* lpValue, int nLength)
{
    int nOffset = nFirst;
    int nMaxPieces = nBlockSize / PIECE_HEAD_SIZE + 1;
    for (int nPiece = 0; nOffset != 0; nPiece++) {
        if (nPiece >= nMaxPieces) return PIECE_TORN;
        if (nOffset < 0 || nOffset > nBlockSize - PIECE_HEAD_SIZE) return PIECE_TORN;
        LPBLOCKVARDATASTRUCT lpPiece = (LPBLOCKVARDATASTRUCT)(lpBlock + nOffset);
        BLOCKVARDATASTRUCT stPiece;
        memcpy(&stPiece, lpPiece, PIECE_HEAD_SIZE);
        if (stPiece.m_nDataFlag != VARDATA_DATAFLAG) return PIECE_TORN;
        int nCapacity = stPiece.m_nDataLength;
        if (nCapacity < 0 || nCapacity > nBlockSize - nOffset - PIECE_HEAD_SIZE) return PIECE_TORN;
        int nCopy = nLength < nCapacity ? nLength : nCapacity;
        if (nCopy > 0) memcpy(lpBlock + nOffset + PIECE_HEAD_SIZE, lpValue, (size_t)nCopy);
        lpPiece->m_nActualLength = nCopy;
        lpValue += nCopy;
        nLength -= nCopy;
        nOffset = stPiece.m_nNextOffset;
    }
    return 0;
}

// The row did not exist at the target time: its room can be recycled.
void MarkRowAbsent(LPBLOCKHEAD lpHead, LPBLOCKDATASTRUCT lpRow)
{
    lpRow->m_bDataStatus = 2;
    lpRow->m_nNextDataID = 0;
    lpRow->m_nTimestamp = 0;
    // Saturates rather than wraps on a damaged length.
    long long nSpace = (long long)lpHead->m_nRecyclableSpaceSize + lpRow->m_nVarDataLength + 17;
    if (nSpace > INT_MAX) nSpace = INT_MAX;
    if (nSpace < INT_MIN) nSpace = INT_MIN;
    lpHead->m_nRecyclableSpaceSize = (int)nSpace;
}

// One row of the copy: 0, or PIECE_TORN.
int RollbackRow(const RollbackBounds* pBounds, LPBYTE lpBlock, int nBlockSize, LPBLOCKDATASTRUCT lpRow,
                long long nTimestamp)
{
    if (lpRow->m_nTimestamp <= nTimestamp) return 0;
    if (lpRow->m_bDataStatus != 0 && lpRow->m_bDataStatus != 2) return 0;
    const BYTE* lpImage = nullptr;
    int nLength = 0;
    int rc = VERSION_NONE;
    if (lpRow->m_nNextDataID != 0)
        rc = pBounds != nullptr ? FindVersion(*pBounds, lpRow->m_nNextDataID, lpRow->m_sToken, nTimestamp, lpImage, nLength)
                                : VERSION_OUT_OF_RANGE;
    switch (rc) {
    case VERSION_NONE:
        MarkRowAbsent((LPBLOCKHEAD)lpBlock, lpRow);
        return 0;
    case VERSION_NODATA:
        lpRow->m_bDataStatus = 0;
        return 0;
    case VERSION_FOUND:
        break;
    default:
        // Overwritten: the newest value is all there is.
        return 0;
    }
    lpRow->m_nVarDataLength = nLength;
    lpRow->m_bDataStatus = 0;
    int nFirst = lpRow->m_nVarDataOffset;
    if (nFirst == 0) return 0;
    return WritePieces(lpBlock, nBlockSize, nFirst, lpImage + PIECE_HEAD_SIZE, nLength);
}

// Marks the copy as a clean block of the target time.
void StampCopy(LPBYTE lpBuf, long long nTimestamp)
{
    LPBLOCKHEAD lpHead = (LPBLOCKHEAD)lpBuf;
    lpHead->m_bStatus = 0;
    lpHead->m_bSaveFlag = 0;
    lpHead->m_nTimestamp = nTimestamp;
}

} // namespace

void CTalvorFlashback::SetRollbackArea(LPBYTE lpArea, UINT nAreaSize)
{
    m_pRollbackFileAddr = lpArea;
    __atomic_store_n(&m_hRollbackSizedFile, m_hRollbackFile, __ATOMIC_RELAXED);
    __atomic_store_n(&m_nRollbackAreaSize, lpArea != nullptr ? nAreaSize : 0u, __ATOMIC_RELEASE);
}

UINT CTalvorFlashback::RollbackAreaSize()
{
    if (m_pRollbackFileAddr == nullptr) return 0;
    UINT nSize = __atomic_load_n(&m_nRollbackAreaSize, __ATOMIC_ACQUIRE);
    MFID hSized = __atomic_load_n(&m_hRollbackSizedFile, __ATOMIC_RELAXED);
    if (hSized == m_hRollbackFile && (nSize != 0 || m_hRollbackFile <= 0)) return nSize;
    if (m_hRollbackFile <= 0) return 0;
    // Attached without being told its size: the segment knows it.
    size_t nSegment = CShareMemory::ShareMemorySize(m_hRollbackFile);
    nSize = nSegment > UINT_MAX ? UINT_MAX : (UINT)nSegment;
    __atomic_store_n(&m_hRollbackSizedFile, m_hRollbackFile, __ATOMIC_RELAXED);
    __atomic_store_n(&m_nRollbackAreaSize, nSize, __ATOMIC_RELEASE);
    return nSize;
}

int CTalvorFlashback::FlashBack(LPBYTE lpBuffer, UINT nBlockNo, int nBlockSize, long long nTimestamp)
{
    if (lpBuffer == nullptr || nBlockSize < (int)sizeof(BLOCKHEAD)) return 1;
    LPBLOCKHEAD lpHead = (LPBLOCKHEAD)lpBuffer;
    if (lpHead->m_nBlockNo != nBlockNo) return 1;
    USHORT usRowNum = (USHORT)(lpHead->m_nInnerMaxNo & 0xFFFF);
    if (usRowNum < 2) return 0;
    int nRowStart = lpHead->m_nBlockHeadSize;
    if (nRowStart < 0 || nRowStart > nBlockSize) return 0;
    // Only the slots that lie wholly inside the copy are rows.
    int nRows = usRowNum - 1;
    int nFit = (nBlockSize - nRowStart) / ROW_RECORD_SIZE;
    if (nRows > nFit) nRows = nFit;
    RollbackBounds stBounds;
    const RollbackBounds* pBounds = GetBounds(m_pRollbackFileAddr, RollbackAreaSize(), stBounds) ? &stBounds : nullptr;
    int nResult = 0;
    for (int i = 0; i < nRows; i++) {
        LPBLOCKDATASTRUCT lpRow = (LPBLOCKDATASTRUCT)(lpBuffer + nRowStart + i * ROW_RECORD_SIZE);
        if (RollbackRow(pBounds, lpBuffer, nBlockSize, lpRow, nTimestamp) == PIECE_TORN) {
            nResult = PIECE_TORN;
            break;
        }
    }
    return nResult;
}

int CTalvorFlashback::FlashbackData(BYTE, int nBlockNo, int nBlockSize, long long nTimestamp, LPBYTE lpBuf,
                                    LPBYTE lpSrcBuf)
{
    if (lpBuf == nullptr || nBlockSize < (int)sizeof(BLOCKHEAD)) return 1;
    StampCopy(lpBuf, nTimestamp);
    if (((LPBLOCKHEAD)lpBuf)->m_nBlockNo != (UINT)nBlockNo) return 1;
    int rc = FlashBack(lpBuf, (UINT)nBlockNo, nBlockSize, nTimestamp);
    for (int nTry = 0; rc == PIECE_TORN && nTry < FLASHBACK_RETRIES; nTry++) {
        if (lpSrcBuf == nullptr) return 1;
        // A row was caught half-written: the live block has moved on since.
        memcpy(lpBuf, lpSrcBuf, (size_t)nBlockSize);
        StampCopy(lpBuf, nTimestamp);
        if (((LPBLOCKHEAD)lpBuf)->m_nBlockNo != (UINT)nBlockNo) return 1;
        rc = FlashBack(lpBuf, (UINT)nBlockNo, nBlockSize, nTimestamp);
    }
    return rc == PIECE_TORN ? 1 : rc;
}

int CTalvorFlashback::GetRollBackData(long long nRollBackVarDataID, short sDataToken, long long nTimestamp,
                                      LPBYTE& lpVarDataAddr)
{
    if (nRollBackVarDataID == 0) return VERSION_NONE;
    RollbackBounds stBounds;
    if (!GetBounds(m_pRollbackFileAddr, RollbackAreaSize(), stBounds)) return VERSION_OUT_OF_RANGE;
    const BYTE* lpImage = nullptr;
    int nLength = 0;
    int rc = FindVersion(stBounds, nRollBackVarDataID, sDataToken, nTimestamp, lpImage, nLength);
    if (rc == VERSION_FOUND) lpVarDataAddr = (LPBYTE)lpImage;
    return rc;
}
