// BackupIncrementFixture.h — incremental backups made here: for each
// changed file its head, map blocks and blocks as pieces behind chained
// pages. The writer keeps the daemon's order (place-holder head area; per
// changed file a place-holder page, the pieces, the page rewritten when it
// is full — with the next page's place-holder behind the last piece — or
// when the file ends; the finished head area last), into memory or through
// the file layer.
#pragma once

#include "BackupFixture.h"

#include <functional>

namespace backuptest {

const long long INCREMENT_TIMESTAMP = 990077;
const long long INCREMENT_REFER = BACKUP_TIMESTAMP;

// One piece of a changed file.
struct Piece {
    BYTE m_bType; // BACKUPITEM_*
    int m_nNo;    // map or block number; 0 for the head
    int m_nSize;
    long long m_nFilePos;
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
    std::vector<Piece> v = {{BACKUPITEM_FILEHEAD, 0, f.m_nHeadSize, 0}};
    long long nPos = f.m_nHeadSize;
    int nBlockNo = 1;
    for (int m = 1; m <= nMaps; m++) {
        v.push_back({BACKUPITEM_MAPBLOCK, m, nMapSize, nPos});
        nPos += 2LL * nMapSize;
        for (int b = 0; b < nBlocksPerMap; b++, nBlockNo++) {
            v.push_back({BACKUPITEM_DATABLOCK, nBlockNo, nBlockSize, nPos});
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

// Writes nSize bytes at nOffset: true when all of them went.
typedef std::function<bool(const void* lpData, size_t nSize, long long nOffset)> WriteAt;

inline LPBACKUPINCREMENTHEAD NewPage(std::string& strPage)
{
    strPage.assign((size_t)BACKUP_INCREMENT_PAGE_SIZE, '\0');
    LPBACKUPINCREMENTHEAD lpPage = (LPBACKUPINCREMENTHEAD)&strPage[0];
    lpPage->m_nDataFlag = BACKUP_INCREMENT_FLAG;
    lpPage->m_nBlockSize = BACKUP_INCREMENT_PAGE_SIZE;
    return lpPage;
}

// One changed file from nWritePos on; fills its record's data offsets.
inline bool WriteChangedFile(const IncFile& f, const WriteAt& fnWrite, long long* pnWritePos,
                             LPSTRUCT_BACKUP_FILEINFO pRecord)
{
    std::string strPage;
    LPBACKUPINCREMENTHEAD lpPage = NewPage(strPage);
    long long nPagePos = *pnWritePos;
    pRecord->m_nDataStartOffset = nPagePos;
    if (!fnWrite(strPage.data(), strPage.size(), nPagePos)) return false;
    *pnWritePos += BACKUP_INCREMENT_PAGE_SIZE;
    int nItem = 0;
    for (const Piece& p : f.m_vPieces) {
        if (nItem == BACKUP_INCREMENT_MAX_ITEMS) {
            lpPage->m_nIncrementBlockNum = nItem;
            lpPage->m_nNextPos = *pnWritePos;
            if (!fnWrite(strPage.data(), strPage.size(), nPagePos)) return false;
            lpPage = NewPage(strPage);
            nPagePos = *pnWritePos;
            if (!fnWrite(strPage.data(), strPage.size(), nPagePos)) return false;
            *pnWritePos += BACKUP_INCREMENT_PAGE_SIZE;
            nItem = 0;
        }
        std::string strData = PieceBytes(f, p);
        if (!fnWrite(strData.data(), strData.size(), *pnWritePos)) return false;
        LPBACKUPINCREMENTITEM pItem = &lpPage->m_pBlockItem[nItem++];
        pItem->m_nBlockSize = p.m_nSize;
        pItem->m_nBlockNo = p.m_nNo;
        pItem->m_nBlockType = p.m_bType;
        pItem->m_nBlockDataPos = *pnWritePos;
        pItem->m_nBlockFilePos = p.m_nFilePos;
        *pnWritePos += p.m_nSize;
    }
    lpPage->m_nIncrementBlockNum = nItem;
    lpPage->m_nNextPos = 0;
    if (!fnWrite(strPage.data(), strPage.size(), nPagePos)) return false;
    pRecord->m_nDataEndOffset = *pnWritePos;
    return true;
}

inline void FillIncrementRecord(const DbFile& f, LPSTRUCT_BACKUP_FILEINFO p)
{
    p->m_bFileType = f.m_bFileType;
    p->m_bFileNo = f.m_bFileNo;
    p->m_nFileSize = f.m_nFileSize;
    p->m_nFileHeaderSize = f.m_nHeadSize;
    p->m_nFileFreeMemoryOffset = f.m_nFree;
    snprintf(p->m_lpszFilePath, sizeof(p->m_lpszFilePath), "%s", f.m_strPath.c_str());
}

// The incremental backup of vFiles in the daemon's order through fnWrite.
inline bool WriteIncrement(const std::vector<IncFile>& vFiles, const WriteAt& fnWrite)
{
    int nFileNum = (int)vFiles.size();
    std::string strHead = PlaceholderHead(nFileNum);
    LPBACKUPFILEHEAD lpHead = (LPBACKUPFILEHEAD)&strHead[0];
    lpHead->m_bLevel = 1;
    lpHead->m_nTimestamp = INCREMENT_TIMESTAMP;
    lpHead->m_nReferTimestamp = INCREMENT_REFER;
    if (!fnWrite(strHead.data(), strHead.size(), 0)) return false;
    long long nWritePos = (long long)strHead.size();
    for (int i = 0; i < nFileNum; i++) {
        FillIncrementRecord(vFiles[i].m_stFile, Record(strHead, i));
        if (vFiles[i].m_vPieces.empty()) continue;
        if (!WriteChangedFile(vFiles[i], fnWrite, &nWritePos, Record(strHead, i))) return false;
    }
    return fnWrite(strHead.data(), strHead.size(), 0);
}

inline std::string IncrementImage(const std::vector<IncFile>& vFiles)
{
    std::string strImage;
    WriteIncrement(vFiles, [&](const void* lpData, size_t nSize, long long nOffset) {
        if (strImage.size() < (size_t)nOffset + nSize) strImage.resize((size_t)nOffset + nSize, '\0');
        memcpy(&strImage[(size_t)nOffset], lpData, nSize);
        return true;
    });
    return strImage;
}

// Through the file layer in force, opened for synchronous writes; the
// file removed after a failed write, as the daemon removes it.
inline bool WriteIncrementFile(const std::string& strPath, const std::vector<IncFile>& vFiles)
{
    CTalvorFileIO* pIO = CTalvorFileIO::Current();
    pIO->Unlink(strPath.c_str());
    int fd = pIO->Open(strPath.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_SYNC, 0666);
    if (fd < 0) return false;
    bool bOk = WriteIncrement(vFiles, [&](const void* lpData, size_t nSize, long long nOffset) {
        return TalvorWriteFull(fd, lpData, nSize, (off_t)nOffset) == TRUE;
    });
    pIO->Close(fd);
    if (!bOk) pIO->Unlink(strPath.c_str());
    return bOk;
}

} // namespace backuptest
