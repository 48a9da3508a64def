// PeerRollback.h — the engine's side of flashback: old row versions kept in
// the rollback area, and blocks of records whose rows point at them.
//
// A library, not a job: it works on any buffer (a private one in a test, the
// attached "Global\TalvorSysRollback" segment in the stand-in), and lays out
// versions, rows and pieces the way the engine does, so that the daemon's
// rollback can be checked against a known history of each row.
#pragma once

#include "MemDBCommonDef.h"
#include "TypeDef.h"

#include <string>

namespace talvorpeer {

// The rollback area, used by the engine as a ring of version records.
class CPeerRollbackArea {
public:
    CPeerRollbackArea(LPBYTE lpArea, UINT nSize) : m_lpArea(lpArea), m_nSize(nSize) {}

    // A new area's head, as the daemon lays it out when it creates the area.
    void Format();
    // Appends one old version of a row, valid from nValidFrom, in front of
    // the older version nPrevID. bOwnData false writes a version with no
    // value of its own. Its data id, or 0 when it cannot fit the area at all.
    // A version that does not fit before the end of the area goes to the
    // start of the data region, over whatever stood there.
    long long AddVersion(short sToken, long long nValidFrom, long long nPrevID, const BYTE* lpValue, int nLength,
                         bool bOwnData = true);
    // Tells the mirror that a stretch waits (m_bSaveStatus).
    void Publish();
    // The mirror has what was published: m_nUnsafePos moves up to the
    // allocation position.
    void MarkMirrored();
    // A new generation mark of the content; the old one becomes the previous.
    void NewGeneration(UINT nMark);
    // High 32 bits of the data ids handed out from now on.
    void SetIdTag(UINT nTag) { m_nIdTag = nTag; }

    LPROLLBACKBLOCKHEAD Head() const { return (LPROLLBACKBLOCKHEAD)m_lpArea; }
    LPROLLBACKBLOCKVARDATASTRUCT Record(long long nID) const
    {
        return (LPROLLBACKBLOCKVARDATASTRUCT)(m_lpArea + (UINT)((unsigned long long)nID & 0xFFFFFFFFu));
    }
    // Bytes a version of nLength bytes takes in the area.
    static UINT VersionSize(int nLength);

private:
    LPBYTE m_lpArea;
    UINT m_nSize;
    UINT m_nIdTag = 0;
};

// A block of records in a buffer: the head, a fixed array of row slots, and
// the rows' values in chains of pieces behind the slots.
class CPeerBlock {
public:
    CPeerBlock(LPBYTE lpBlock, int nBlockSize) : m_lpBlock(lpBlock), m_nBlockSize(nBlockSize) {}

    // An empty block with room for nMaxRows row slots.
    void Format(UINT nBlockNo, BYTE bFileNo, int nMaxRows);
    // A new row of the value, in pieces of at most nPieceSize bytes (at
    // least one piece, even for an empty value). Its index, or -1 when the
    // block is full.
    int AddRow(short sToken, long long nTimestamp, const BYTE* lpValue, int nLength, int nPieceSize);
    // A change as the engine makes it: the row's value so far becomes a
    // version valid from the row's timestamp, the new value goes into the
    // row's pieces (more pieces where it does not fit). The version's data
    // id, or 0 when the area or the block had no room.
    long long UpdateRow(CPeerRollbackArea& area, int nRow, long long nTimestamp, const BYTE* lpValue, int nLength);
    // A delete: the value so far is kept as a version, the row gets status 2.
    long long DeleteRow(CPeerRollbackArea& area, int nRow, long long nTimestamp);

    // The value in the row's pieces, as the pieces' used lengths give it.
    std::string RowValue(int nRow) const;
    LPBLOCKDATASTRUCT Row(int nRow) const
    {
        return (LPBLOCKDATASTRUCT)(m_lpBlock + sizeof(BLOCKHEAD) + (size_t)nRow * sizeof(BLOCKDATASTRUCT));
    }
    LPBLOCKHEAD Head() const { return (LPBLOCKHEAD)m_lpBlock; }
    int RowCount() const { return (int)(Head()->m_nInnerMaxNo & 0xFFFF) - 1; }

private:
    // A piece of nCapacity bytes at the block's allocation offset; 0 when
    // there is no room.
    int AllocPiece(int nCapacity);
    // Writes the value into the chain from nFirst, adding pieces of
    // nPieceSize for what does not fit. FALSE when the block is full.
    BOOL WriteValue(int nFirst, const BYTE* lpValue, int nLength, int nPieceSize);
    long long KeepOldValue(CPeerRollbackArea& area, int nRow);

    LPBYTE m_lpBlock;
    int m_nBlockSize;
};

} // namespace talvorpeer
