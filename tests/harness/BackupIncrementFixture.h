// BackupIncrementFixture.h — incremental backups made here: for each
// changed file its pieces behind chained pages, a page full at 290 items
// and the next one behind its last piece, as the daemon lays them out.
#pragma once

#include "BackupFixture.h"

namespace backuptest {

const long long INCREMENT_TIMESTAMP = 990077;
const long long INCREMENT_REFER = BACKUP_TIMESTAMP;

// One piece of a changed file: m_strBytes, or when that is empty the copied
// head, a map block or a block made from its number and size.
// m_bType is a BACKUPITEM_*, m_nNo the map or block number (0 for the head).
struct Piece {
    BYTE m_bType;
    int m_nNo, m_nSize;
    long long m_nFilePos;
    std::string m_strBytes;
};

// A file of the database and, when it changed, its pieces (head first).
struct IncFile {
    DbFile m_stFile;
    std::vector<Piece> m_vPieces; // empty: unchanged
};

// The bytes of a piece: the copied head, or a map block or block carrying
// its mark, number and size, the rest a pattern.
inline std::string PieceBytes(const IncFile& f, const Piece& p)
{
    if (!p.m_strBytes.empty()) return p.m_strBytes;
    if (p.m_bType == BACKUPITEM_FILEHEAD) return DbFileBytes(f.m_stFile).substr(0, (size_t)p.m_nSize);
    std::string str((size_t)p.m_nSize, '\0');
    for (size_t i = 0; i < str.size(); i++)
        str[i] = (char)(i * 7 + p.m_nNo);
    if (p.m_bType == BACKUPITEM_MAPBLOCK) {
        BASEFILEBLOCKMAPHEAD stMap;
        memset(&stMap, 0, sizeof(stMap));
        stMap.m_nDataFlag = IsCacheFileType(f.m_stFile.m_bFileType) ? BLOCKMAP_CACHE_DATAFLAG : BLOCKMAP_DATAFLAG;
        stMap.m_nMapNo = p.m_nNo;
        memcpy(&str[0], &stMap, sizeof(stMap));
    } else {
        BASEBLOCKHEAD stBlock;
        memset(&stBlock, 0, sizeof(stBlock));
        stBlock.m_nDataFlag = BLOCK_DATAFLAG;
        stBlock.m_nBlockNo = (UINT)p.m_nNo;
        stBlock.m_nBlockSize = p.m_nSize;
        stBlock.m_nTimestamp = INCREMENT_REFER + p.m_nNo;
        memcpy(&str[0], &stBlock, sizeof(stBlock));
    }
    return str;
}

// The head, then nMaps map blocks of nMapSize, each followed by nBlocksPerMap
// blocks of nBlockSize, laid out in the file behind the head.
inline std::vector<Piece> ChangedPieces(const DbFile& f, int nMaps, int nMapSize, int nBlocksPerMap, int nBlockSize)
{
    std::vector<Piece> v = {{BACKUPITEM_FILEHEAD, 0, f.m_nHeadSize, 0, {}}};
    long long nPos = f.m_nHeadSize;
    int nBlockNo = 1;
    for (int m = 1; m <= nMaps; m++) {
        v.push_back({BACKUPITEM_MAPBLOCK, m, nMapSize, nPos, {}});
        nPos += 2LL * nMapSize;
        for (int b = 0; b < nBlocksPerMap; b++, nBlockNo++) {
            v.push_back({BACKUPITEM_DATABLOCK, nBlockNo, nBlockSize, nPos, {}});
            nPos += nBlockSize;
        }
    }
    return v;
}

// A database with a changed system file, a data file of more than one
// page of items, an unchanged B-tree file, and a changed table file of the
// cache mode.
inline std::vector<IncFile> SampleIncrement(const talvortest::TempTree& tree)
{
    std::vector<DbFile> v = SampleFiles(tree);
    std::vector<IncFile> vInc;
    vInc.push_back({v[0], ChangedPieces(v[0], 1, 4096, 3, 2048)});
    DbFile stData = v[1];
    stData.m_nFileSize = 4LL << 20;
    stData.m_nFree = 3LL << 20;
    vInc.push_back({stData, ChangedPieces(stData, 3, 1024, 110, 512)}); // 1 + 3 x 111 = 334 items
    vInc.push_back({v[2], {}});
    vInc.push_back({v[4], ChangedPieces(v[4], 1, 16384, 1, 16384)});
    return vInc;
}

inline LPBACKUPINCREMENTHEAD PageAt(std::string& s, long long nPos)
{
    return (LPBACKUPINCREMENTHEAD)&s[(size_t)nPos];
}

// An empty page at the end of strOut; its position.
inline long long AppendPage(std::string& strOut)
{
    long long nPos = (long long)strOut.size();
    strOut.append((size_t)BACKUP_INCREMENT_PAGE_SIZE, '\0');
    PageAt(strOut, nPos)->m_nDataFlag = BACKUP_INCREMENT_FLAG;
    PageAt(strOut, nPos)->m_nBlockSize = BACKUP_INCREMENT_PAGE_SIZE;
    return nPos;
}

// The pages and pieces of one changed file appended to strOut; its data
// range into r.
inline void AppendChangedFile(const IncFile& f, std::string& strOut, STRUCT_BACKUP_FILEINFO& r)
{
    long long nPage = AppendPage(strOut);
    r.m_nDataStartOffset = nPage;
    for (const Piece& p : f.m_vPieces) {
        if (PageAt(strOut, nPage)->m_nIncrementBlockNum == BACKUP_INCREMENT_MAX_ITEMS) {
            long long nNext = AppendPage(strOut);
            PageAt(strOut, nPage)->m_nNextPos = nNext;
            nPage = nNext;
        }
        std::string strData = PieceBytes(f, p);
        LPBACKUPINCREMENTHEAD lpPage = PageAt(strOut, nPage);
        LPBACKUPINCREMENTITEM pItem = &lpPage->m_pBlockItem[lpPage->m_nIncrementBlockNum];
        lpPage->m_nIncrementBlockNum = lpPage->m_nIncrementBlockNum + 1;
        pItem->m_nBlockSize = (int)strData.size();
        pItem->m_nBlockNo = p.m_nNo;
        pItem->m_nBlockType = p.m_bType;
        pItem->m_nBlockDataPos = (long long)strOut.size();
        pItem->m_nBlockFilePos = p.m_nFilePos;
        strOut += strData;
    }
    r.m_nDataEndOffset = (long long)strOut.size();
}

// The incremental backup of vFiles.
inline std::string IncrementImage(const std::vector<IncFile>& vFiles,
                                  long long nTimestamp = INCREMENT_TIMESTAMP,
                                  long long nRefer = INCREMENT_REFER, BYTE bLevel = 1)
{
    std::string strOut = PlaceholderHead((int)vFiles.size());
    LPBACKUPFILEHEAD lpHead = (LPBACKUPFILEHEAD)&strOut[0];
    lpHead->m_bLevel = bLevel;
    lpHead->m_nTimestamp = nTimestamp;
    lpHead->m_nReferTimestamp = nRefer;
    for (size_t i = 0; i < vFiles.size(); i++) {
        STRUCT_BACKUP_FILEINFO r;
        memset(&r, 0, sizeof(r));
        FillRecord(vFiles[i].m_stFile, &r);
        if (!vFiles[i].m_vPieces.empty()) AppendChangedFile(vFiles[i], strOut, r);
        memcpy(Record(strOut, (int)i), &r, sizeof(r));
    }
    return strOut;
}

} // namespace backuptest
