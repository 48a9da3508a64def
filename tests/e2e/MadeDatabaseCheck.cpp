// End-to-end: a database made by talvor-mkdb, checked offline by a reader of
// its own (plain offsets of the records, no walker of the daemon's): every
// block the map lists is reachable by the save pass — in a data file on
// exactly one object chain — every chain entry is a listed block, and the
// system head numbers the first redo log from 1. Any finding is a warning,
// and a made database has none.
#include "DatabaseLoadKit.h"

#include <gtest/gtest.h>
#include <set>

using namespace talvortest;

namespace {

template <class T>
T At(const std::string& s, long long nOffset)
{
    T v;
    memset(&v, 0, sizeof(v));
    if (nOffset >= 0 && nOffset + (long long)sizeof(T) <= (long long)s.size()) memcpy(&v, &s[(size_t)nOffset], sizeof(T));
    return v;
}

// The warnings of one memory-mode file (types 2 to 4).
std::vector<std::string> CheckMemoryFile(const std::string& strFile, BYTE bType, const std::string& strName)
{
    std::vector<std::string> vWarn;
    auto warn = [&](const std::string& s) { vWarn.push_back(strName + ": " + s); };
    BASEFILEHEAD stHead = At<BASEFILEHEAD>(strFile, 0);
    if (stHead.m_nDataFlag != FileHeadDataFlag(bType)) warn("head mark");
    if (stHead.m_nFileTotalSize != (long long)strFile.size()) warn("size in the head");
    long long nFree = stHead.m_nFileFreeMemoryOffset;
    // Map blocks: the first at m_nBlockMapStartOffset, each with its entries.
    std::set<long long> setEntries;  // offsets of the listed entries
    long long nMap = stHead.m_nBlockMapStartOffset;
    for (int nStep = 0; nMap != 0 && nStep < 1000; nStep++) {
        BASEFILEBLOCKMAPHEAD stMap = At<BASEFILEBLOCKMAPHEAD>(strFile, nMap);
        if (stMap.m_nDataFlag != BLOCKMAP_DATAFLAG) {
            warn("map block mark at " + std::to_string(nMap));
            break;
        }
        for (int i = 0; i < stMap.m_nBlockMapNum; i++) {
            long long nEntry = nMap + (long long)sizeof(BASEFILEBLOCKMAPHEAD) + (long long)i * sizeof(BASEFILEBLOCKMAP);
            BASEFILEBLOCKMAP stEntry = At<BASEFILEBLOCKMAP>(strFile, nEntry);
            BLOCKHEAD stBlock = At<BLOCKHEAD>(strFile, stEntry.m_nBlockOffset);
            if (stBlock.m_nDataFlag != BLOCK_DATAFLAG || stBlock.m_nBlockNo != stEntry.m_nBlockNo)
                warn("block " + std::to_string(stEntry.m_nBlockNo) + " is not where its entry says");
            if (stEntry.m_nBlockOffset + stBlock.m_nBlockSize > nFree) warn("a block beyond the free offset");
            setEntries.insert(nEntry);
        }
        // The slave copy is the same bytes.
        if (strFile.compare((size_t)nMap, (size_t)stHead.m_nBlockMapSize, strFile, (size_t)(nMap + stHead.m_nBlockMapSize),
                            (size_t)stHead.m_nBlockMapSize) != 0)
            warn("slave map differs from the master");
        nMap = stMap.m_nNextBlockMapOffset;
    }
    if (setEntries.empty()) warn("no block");
    if (bType != FILETYPE_DATA) return vWarn;  // index files are saved along their maps
    // A data file is saved along its objects' chains.
    std::map<long long, int> mapOnChains;
    int nObjects = 0;
    for (int n = 0; n < stHead.m_nMaxObjectNum; n++) {
        BASEFILEOBJECTDEF stObject =
            At<BASEFILEOBJECTDEF>(strFile, stHead.m_nObjectInfoOffset + (long long)n * sizeof(BASEFILEOBJECTDEF));
        if (stObject.m_nID == 0) continue;
        nObjects++;
        for (long long nFirst : {stObject.m_nFullBlockMapOffset, stObject.m_nFreeBlockMapOffset}) {
            int nSteps = 0;
            for (long long nAt = nFirst; nAt != 0 && nSteps < 100000; nSteps++) {
                if (setEntries.count(nAt) == 0) {
                    warn("object " + std::to_string(stObject.m_nID) + " chains an entry the map does not list");
                    break;
                }
                mapOnChains[nAt]++;
                nAt = At<BASEFILEBLOCKMAP>(strFile, nAt).m_nNextOffset;
            }
        }
    }
    if (nObjects != stHead.m_nCurrentObjectNum) warn("objects in use differ from the head");
    for (long long nEntry : setEntries) {
        int nChains = mapOnChains.count(nEntry) ? mapOnChains[nEntry] : 0;
        if (nChains != 1)
            warn("block " + std::to_string(At<BASEFILEBLOCKMAP>(strFile, nEntry).m_nBlockNo) + " is on " +
                 std::to_string(nChains) + " object chains");
    }
    return vWarn;
}

std::vector<std::string> CheckDatabase(const std::string& strDir)
{
    std::vector<std::string> vWarn;
    std::string strSystem = ReadWholeFile(strDir + "System.dbf");
    SYSTEMFILEHEAD stHead = At<SYSTEMFILEHEAD>(strSystem, 0);
    if (stHead.m_nDataFlag != SYSTEMFILE_DATAFLAG) vWarn.push_back("system head mark");
    if (stHead.m_nRedoLogMaxID == 0) vWarn.push_back("the first redo log would be numbered 0");
    if (stHead.m_nBeginTimestamp > stHead.m_nEndTimestamp) vWarn.push_back("persisted past the newest commit");
    // The rows, block by block of object 1's two chains.
    BASEFILEOBJECTDEF stList = stHead.m_stFileObject[SYSTEMFILE_FILELIST_OBJECTID];
    int nRows = 0;
    for (long long nFirst : {stList.m_nFullBlockMapOffset, stList.m_nFreeBlockMapOffset}) {
        for (long long nAt = nFirst; nAt != 0;) {
            BASEFILEBLOCKMAP stEntry = At<BASEFILEBLOCKMAP>(strSystem, nAt);
            SYSTEMBLOCKHEAD stBlock = At<SYSTEMBLOCKHEAD>(strSystem, stEntry.m_nBlockOffset);
            for (int i = 0; i < stBlock.m_nDataNum; i++) {
                FILE_MEMDBFILEINFO stRow = At<FILE_MEMDBFILEINFO>(
                    strSystem, stEntry.m_nBlockOffset + stBlock.m_nBlockHeadSize + (long long)i * sizeof(FILE_MEMDBFILEINFO));
                nRows++;
                if (stRow.m_bFileCMD != 0) vWarn.push_back("a row carries a file command");
                if (stRow.m_bFileNo == SYSTEMFILE_FILENO) continue;
                std::string strPath(stRow.m_lpszFilePath, strnlen(stRow.m_lpszFilePath, sizeof(stRow.m_lpszFilePath)));
                std::string strFile = ReadWholeFile(strPath);
                if ((long long)strFile.size() != stRow.m_nFileSize) {
                    vWarn.push_back(strPath + ": size differs from its row");
                    continue;
                }
                std::vector<std::string> v = CheckMemoryFile(strFile, stRow.m_bFileType, strPath);
                vWarn.insert(vWarn.end(), v.begin(), v.end());
            }
            nAt = stEntry.m_nNextOffset;
        }
    }
    if (nRows == 0) vWarn.push_back("an empty file list");
    return vWarn;
}

std::string Join(const std::vector<std::string>& v)
{
    std::string s;
    for (const std::string& x : v) s += x + "\n";
    return s;
}

} // namespace

TEST(MadeDatabaseCheck, AMadeDatabaseHasNoWarning)
{
    ASSERT_TRUE(MkdbBuilt()) << "build talvor-mkdb first";
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    ASSERT_EQ(0, MakeDb(box, box.DataDir(),
                        {"--data-file", "8", "--data-file", "4", "--btree-file", "4", "--kv-file", "4"}));
    std::vector<std::string> vWarn = CheckDatabase(box.DataDir());
    EXPECT_TRUE(vWarn.empty()) << Join(vWarn);
}

TEST(MadeDatabaseCheck, TheCheckFindsABlockNoPassWouldWrite)
{
    ASSERT_TRUE(MkdbBuilt()) << "build talvor-mkdb first";
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    ASSERT_EQ(0, MakeDb(box, box.DataDir(), {"--data-file", "8"}));
    // Take block 1 off its chain, and the redo number back to 0.
    std::string strData = ReadWholeFile(box.DataDir() + "Data2.dbf");
    LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)&strData[0];
    for (int n = 0; n < lpHead->m_nMaxObjectNum; n++) {
        LPBASEFILEOBJECTDEF lpObject =
            (LPBASEFILEOBJECTDEF)&strData[(size_t)(lpHead->m_nObjectInfoOffset + (long long)n * sizeof(BASEFILEOBJECTDEF))];
        lpObject->m_nFullBlockMapOffset = 0;
        lpObject->m_nFreeBlockMapOffset = 0;
    }
    ASSERT_TRUE(WriteWholeFile(box.DataDir() + "Data2.dbf", strData));
    std::string strSystem = ReadWholeFile(box.DataDir() + "System.dbf");
    ((LPSYSTEMFILEHEAD)&strSystem[0])->m_nRedoLogMaxID = 0;
    ASSERT_TRUE(WriteWholeFile(box.DataDir() + "System.dbf", strSystem));
    std::string strWarn = Join(CheckDatabase(box.DataDir()));
    EXPECT_NE(std::string::npos, strWarn.find("block 1 is on 0 object chains")) << strWarn;
    EXPECT_NE(std::string::npos, strWarn.find("the first redo log would be numbered 0")) << strWarn;
}
