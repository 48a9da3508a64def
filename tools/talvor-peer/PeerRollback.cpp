// PeerRollback.cpp — old row versions in the rollback area and blocks of
// records, laid out as the engine lays them out.
//
// A version is written whole before its flag, so that a reader that sees the
// flag sees the rest; the head's positions move only after that.
#include "PeerRollback.h"

#include "LinuxCommonAPI.h"

#include <cstring>

namespace talvorpeer {

namespace {

const int PIECE_HEAD = (int)sizeof(BLOCKVARDATASTRUCT);

} // namespace

UINT CPeerRollbackArea::VersionSize(int nLength)
{
    return (UINT)sizeof(ROLLBACKBLOCKVARDATASTRUCT) + (UINT)PIECE_HEAD + (UINT)(nLength > 0 ? nLength : 0);
}

void CPeerRollbackArea::Format()
{
    LPROLLBACKBLOCKHEAD lpHead = Head();
    memset(lpHead, 0, sizeof(ROLLBACKBLOCKHEAD));
    lpHead->m_nDataFlag = BLOCK_DATAFLAG;
    lpHead->m_nRollbackTotalSize = m_nSize;
    lpHead->m_nRollbackHeadSize = sizeof(ROLLBACKBLOCKHEAD);
    lpHead->m_nDataAllocPos = sizeof(ROLLBACKBLOCKHEAD);
    lpHead->m_nFirstDataPos = sizeof(ROLLBACKBLOCKHEAD);
    lpHead->m_nUnsafePos = sizeof(ROLLBACKBLOCKHEAD);
}

long long CPeerRollbackArea::AddVersion(short sToken, long long nValidFrom, long long nPrevID, const BYTE* lpValue,
                                        int nLength, bool bOwnData)
{
    LPROLLBACKBLOCKHEAD lpHead = Head();
    UINT nNeed = VersionSize(nLength);
    UINT nLow = lpHead->m_nRollbackHeadSize;
    if (nNeed > m_nSize - nLow) return 0;
    UINT nPos = lpHead->m_nDataAllocPos;
    if (nPos < nLow || nPos > m_nSize || nNeed > m_nSize - nPos) {
        nPos = nLow;
        lpHead->m_nFirstDataPos = nPos + nNeed;
    }
    LPROLLBACKBLOCKVARDATASTRUCT lpRec = (LPROLLBACKBLOCKVARDATASTRUCT)(m_lpArea + nPos);
    // The flag goes last: until then the place reads as reused.
    lpRec->m_nDataFlag = 0;
    __atomic_thread_fence(__ATOMIC_RELEASE);
    lpRec->m_nNextOffset = 0;
    lpRec->m_nActualLength = bOwnData ? (int)(nNeed - sizeof(ROLLBACKBLOCKVARDATASTRUCT)) : 0;
    lpRec->m_nOriginDataID = 0;
    lpRec->m_nPreRollbackDataID = nPrevID;
    lpRec->m_nTimestamp = nValidFrom;
    lpRec->m_llBackupTimestamp = 0;
    lpRec->m_sDataToken = sToken;
    lpRec->m_bReserved = 0;
    LPBLOCKVARDATASTRUCT lpImage = (LPBLOCKVARDATASTRUCT)lpRec->m_pDataContent;
    lpImage->m_nDataFlag = VARDATA_DATAFLAG;
    lpImage->m_nDataLength = nLength > 0 ? nLength : 0;
    lpImage->m_nActualLength = nLength > 0 ? nLength : 0;
    lpImage->m_nNextOffset = 0;
    if (nLength > 0) memcpy(lpImage->m_lpDataContent, lpValue, (size_t)nLength);
    __atomic_thread_fence(__ATOMIC_RELEASE);
    lpRec->m_nDataFlag = VARDATA_DATAFLAG;
    lpHead->m_nLastAllocPos = nPos;
    lpHead->m_nDataAllocPos = nPos + nNeed;
    return ((long long)m_nIdTag << 32) | nPos;
}

void CPeerRollbackArea::Publish()
{
    __atomic_thread_fence(__ATOMIC_RELEASE);
    __atomic_store_n(&Head()->m_bSaveStatus, (BYTE)1, __ATOMIC_RELEASE);
}

void CPeerRollbackArea::MarkMirrored() { Head()->m_nUnsafePos = Head()->m_nDataAllocPos; }

void CPeerRollbackArea::NewGeneration(UINT nMark)
{
    Head()->m_nPrevTimestamp = TalvorLoadShared(&Head()->m_nTimestamp);
    TalvorStoreShared(&Head()->m_nTimestamp, nMark);
}

void CPeerBlock::Format(UINT nBlockNo, BYTE bFileNo, int nMaxRows)
{
    memset(m_lpBlock, 0, (size_t)m_nBlockSize);
    LPBLOCKHEAD lpHead = Head();
    lpHead->m_nDataFlag = BLOCK_DATAFLAG;
    lpHead->m_nBlockNo = nBlockNo;
    lpHead->m_nBlockSize = m_nBlockSize;
    lpHead->m_nBlockHeadSize = (int)sizeof(BLOCKHEAD);
    lpHead->m_bFileNo = bFileNo;
    lpHead->m_nBlockDataStructSize = (BYTE)sizeof(BLOCKDATASTRUCT);
    lpHead->m_nInnerMaxNo = 1;
    int nRowsEnd = (int)sizeof(BLOCKHEAD) + nMaxRows * (int)sizeof(BLOCKDATASTRUCT);
    lpHead->m_nDataInsertOffset = (int)sizeof(BLOCKHEAD);
    lpHead->m_nFreeDataOffset = nRowsEnd;
    lpHead->m_nVarDataInsertOffset = nRowsEnd;
    lpHead->m_nVarDataAllocOffset = nRowsEnd;
}

int CPeerBlock::AllocPiece(int nCapacity)
{
    LPBLOCKHEAD lpHead = Head();
    int nOffset = lpHead->m_nVarDataAllocOffset;
    if (nCapacity < 0 || nOffset <= 0 || nOffset > m_nBlockSize - PIECE_HEAD - nCapacity) return 0;
    LPBLOCKVARDATASTRUCT lpPiece = (LPBLOCKVARDATASTRUCT)(m_lpBlock + nOffset);
    lpPiece->m_nDataFlag = VARDATA_DATAFLAG;
    lpPiece->m_nDataLength = nCapacity;
    lpPiece->m_nActualLength = 0;
    lpPiece->m_nNextOffset = 0;
    lpHead->m_nVarDataAllocOffset = nOffset + PIECE_HEAD + nCapacity;
    return nOffset;
}

BOOL CPeerBlock::WriteValue(int nFirst, const BYTE* lpValue, int nLength, int nPieceSize)
{
    int nOffset = nFirst;
    LPBLOCKVARDATASTRUCT lpLast = nullptr;
    while (nOffset != 0) {
        LPBLOCKVARDATASTRUCT lpPiece = (LPBLOCKVARDATASTRUCT)(m_lpBlock + nOffset);
        int nCopy = nLength < lpPiece->m_nDataLength ? nLength : lpPiece->m_nDataLength;
        if (nCopy > 0) memcpy(lpPiece->m_lpDataContent, lpValue, (size_t)nCopy);
        lpPiece->m_nActualLength = nCopy;
        lpValue += nCopy;
        nLength -= nCopy;
        lpLast = lpPiece;
        nOffset = lpPiece->m_nNextOffset;
    }
    while (nLength > 0) {
        int nCapacity = nLength < nPieceSize ? nLength : nPieceSize;
        int nNew = AllocPiece(nCapacity);
        if (nNew == 0) return FALSE;
        LPBLOCKVARDATASTRUCT lpPiece = (LPBLOCKVARDATASTRUCT)(m_lpBlock + nNew);
        memcpy(lpPiece->m_lpDataContent, lpValue, (size_t)nCapacity);
        lpPiece->m_nActualLength = nCapacity;
        if (lpLast != nullptr) lpLast->m_nNextOffset = nNew;
        lpLast = lpPiece;
        lpValue += nCapacity;
        nLength -= nCapacity;
    }
    return TRUE;
}

int CPeerBlock::AddRow(short sToken, long long nTimestamp, const BYTE* lpValue, int nLength, int nPieceSize)
{
    LPBLOCKHEAD lpHead = Head();
    int nRow = RowCount();
    int nSlotEnd = (int)sizeof(BLOCKHEAD) + (nRow + 1) * (int)sizeof(BLOCKDATASTRUCT);
    if (nSlotEnd > lpHead->m_nFreeDataOffset || nSlotEnd > m_nBlockSize || nPieceSize <= 0) return -1;
    int nFirst = AllocPiece(nLength < nPieceSize ? nLength : nPieceSize);
    if (nFirst == 0) return -1;
    if (!WriteValue(nFirst, lpValue, nLength, nPieceSize)) return -1;
    LPBLOCKDATASTRUCT lpRow = Row(nRow);
    memset(lpRow, 0, sizeof(BLOCKDATASTRUCT));
    lpRow->m_nInnerNo = nRow + 1;
    lpRow->m_sToken = sToken;
    lpRow->m_nVarDataOffset = nFirst;
    lpRow->m_nVarDataLength = nLength;
    lpRow->m_nTimestamp = nTimestamp;
    lpHead->m_nInnerMaxNo = (UINT)(nRow + 2);
    lpHead->m_nDataInsertOffset = nSlotEnd;
    if (TalvorLoadShared(&lpHead->m_nTimestamp) < nTimestamp) TalvorStoreShared(&lpHead->m_nTimestamp, nTimestamp);
    return nRow;
}

long long CPeerBlock::KeepOldValue(CPeerRollbackArea& area, int nRow)
{
    LPBLOCKDATASTRUCT lpRow = Row(nRow);
    std::string strOld = RowValue(nRow);
    return area.AddVersion(lpRow->m_sToken, lpRow->m_nTimestamp, lpRow->m_nNextDataID, (const BYTE*)strOld.data(),
                           (int)strOld.size());
}

long long CPeerBlock::UpdateRow(CPeerRollbackArea& area, int nRow, long long nTimestamp, const BYTE* lpValue,
                                int nLength)
{
    LPBLOCKDATASTRUCT lpRow = Row(nRow);
    long long nID = KeepOldValue(area, nRow);
    if (nID == 0) return 0;
    // Pieces grow by what the old chain lacks, in pieces of its first size.
    int nPieceSize = ((LPBLOCKVARDATASTRUCT)(m_lpBlock + lpRow->m_nVarDataOffset))->m_nDataLength;
    if (!WriteValue(lpRow->m_nVarDataOffset, lpValue, nLength, nPieceSize > 0 ? nPieceSize : 64)) return 0;
    lpRow->m_nVarDataLength = nLength;
    lpRow->m_nNextDataID = nID;
    lpRow->m_nTimestamp = nTimestamp;
    lpRow->m_bDataStatus = 0;
    if (TalvorLoadShared(&Head()->m_nTimestamp) < nTimestamp) TalvorStoreShared(&Head()->m_nTimestamp, nTimestamp);
    return nID;
}

long long CPeerBlock::DeleteRow(CPeerRollbackArea& area, int nRow, long long nTimestamp)
{
    LPBLOCKDATASTRUCT lpRow = Row(nRow);
    long long nID = KeepOldValue(area, nRow);
    if (nID == 0) return 0;
    lpRow->m_nNextDataID = nID;
    lpRow->m_nTimestamp = nTimestamp;
    lpRow->m_bDataStatus = 2;
    if (TalvorLoadShared(&Head()->m_nTimestamp) < nTimestamp) TalvorStoreShared(&Head()->m_nTimestamp, nTimestamp);
    return nID;
}

std::string CPeerBlock::RowValue(int nRow) const
{
    std::string strValue;
    int nOffset = Row(nRow)->m_nVarDataOffset;
    // A chain can't hold more pieces than the block has room for.
    for (int n = 0; nOffset > 0 && nOffset <= m_nBlockSize - PIECE_HEAD && n < m_nBlockSize / PIECE_HEAD; n++) {
        LPBLOCKVARDATASTRUCT lpPiece = (LPBLOCKVARDATASTRUCT)(m_lpBlock + nOffset);
        int nUsed = lpPiece->m_nActualLength;
        if (nUsed < 0 || nUsed > m_nBlockSize - nOffset - PIECE_HEAD) break;
        strValue.append((const char*)lpPiece->m_lpDataContent, (size_t)nUsed);
        nOffset = lpPiece->m_nNextOffset;
    }
    return strValue;
}

} // namespace talvorpeer
