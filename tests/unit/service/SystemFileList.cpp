// The file list of the system file, read at start.
#include "BreltMemStorage.h"
#include "ModuleTestKit.h"
#include "DatabaseKit.h"

#include <gtest/gtest.h>

#include <functional>
#include <cstring>
#include <memory>
#include <vector>

using namespace talvortest;

namespace {

const long long MIB = 1048576;

struct RowPlan {
    BYTE m_bFileNo;
    BYTE m_bFileType;
    long long m_nSize;
    BYTE m_bDrop = 0;
};

class SystemFileList : public ::testing::Test {
protected:
    SystemFileList() : m_tree("buffercachesize=0\r\nundoareasize=8\r\n") {}

    // Writes the system file (list blocks of nListBlockSize) and a good file
    // for every row but the system's; returns the system file's bytes.
    std::string MakeDatabase(const std::vector<RowPlan>& vPlans, int nListBlockSize)
    {
        std::vector<FILE_MEMDBFILEINFO> vRows;
        for (const RowPlan& s : vPlans) {
            FILE_MEMDBFILEINFO stRow;
            memset(&stRow, 0, sizeof(stRow));
            stRow.m_bFileNo = s.m_bFileNo;
            stRow.m_bFileType = s.m_bFileType;
            stRow.m_bDropFlag = s.m_bDrop;
            snprintf(stRow.m_lpszFilePath, sizeof(stRow.m_lpszFilePath), "%s", PathOf(s).c_str());
            snprintf(stRow.m_lpszTablespaceName, sizeof(stRow.m_lpszTablespaceName), "F%d", s.m_bFileNo);
            stRow.m_nFileSize = s.m_nSize;
            stRow.m_nLoadSize = -7;
            vRows.push_back(stRow);
            if (s.m_bFileNo != 1 && s.m_bDrop == 0) {
                EXPECT_TRUE(WriteWholeFile(PathOf(s), MakeFileBytes(s.m_bFileType, s.m_bFileNo, s.m_nSize, 0)));
            }
        }
        DBSYSFILEPLAN stPlan;
        EXPECT_TRUE(DbPlanSystemFile((int)vRows.size(), nListBlockSize, DB_SYSTEMFILE_SIZE, &stPlan));
        std::string strSystem((size_t)DB_SYSTEMFILE_SIZE, '\0');
        EXPECT_TRUE(DbBuildSystemFile(stPlan, vRows.data(), 0x77, "Db", m_tree.Dir().c_str(), (LPBYTE)&strSystem[0],
                                      DB_SYSTEMFILE_SIZE));
        m_nFirstBlock = stPlan.m_nBlockStartOffset;
        m_nListBlockSize = nListBlockSize;
        EXPECT_TRUE(WriteWholeFile(SystemPath(), strSystem));
        return strSystem;
    }
    std::string PathOf(const RowPlan& s)
    {
        if (s.m_bFileNo == 1) return SystemPath();
        return m_tree.Dir() + "F" + std::to_string(s.m_bFileNo) + ".dbf";
    }
    std::string SystemPath() { return m_tree.Dir() + "System.dbf"; }
    LPSYSTEMBLOCKHEAD BlockOf(std::string& strSystem, int nBlock)
    {
        return (LPSYSTEMBLOCKHEAD)&strSystem[(size_t)(m_nFirstBlock + (long long)nBlock * m_nListBlockSize)];
    }
    static LPFILE_MEMDBFILEINFO RowsOf(LPSYSTEMBLOCKHEAD lpBlock)
    {
        return (LPFILE_MEMDBFILEINFO)((LPBYTE)lpBlock + lpBlock->m_nBlockHeadSize);
    }

    // The system file read and the files loaded by a new module.
    HRESULT Start()
    {
        m_pModule.reset(new CBreltMemStorageModule());
        InitThreadCritSection(&m_stCrit);
        HRESULT hr = m_pModule->InitSysEnvironment(&m_stCrit, TRUE, FALSE);
        if (hr == S_OK) hr = m_pModule->LoadFile(&m_stCrit);
        return hr;
    }
    std::vector<int> ListedFileNos()
    {
        std::vector<int> v;
        for (stu_FILEINFO* p = m_pModule->m_pStorageInfo; p != nullptr; p = p->m_pNext) v.push_back(p->m_bFileNo);
        return v;
    }
    void Stop()
    {
        if (m_pModule) ReleaseModuleFiles(*m_pModule);
        m_pModule.reset();
    }
    void TearDown() override { Stop(); }

    DatabaseDir m_tree;
    std::unique_ptr<CBreltMemStorageModule> m_pModule;
    TALVORCRITICALSECTION m_stCrit;
    long long m_nFirstBlock = 0;
    int m_nListBlockSize = 0;
};

} // namespace

TEST_F(SystemFileList, RowsPastOneBlockAreAllReadAndDroppedRowsGetNoImage)
{
    // Blocks of 1024 bytes hold two rows: seven rows take four blocks, three
    // on the full chain and one on the free chain. Row 5 is dropped.
    std::vector<RowPlan> vPlans = {{1, FILETYPE_SYSTEM, DB_SYSTEMFILE_SIZE}};
    for (BYTE n = 2; n <= 7; n++) vPlans.push_back({n, FILETYPE_BTREEINDEX, 1 * MIB, (BYTE)(n == 5)});
    MakeDatabase(vPlans, 1024);
    ASSERT_EQ(S_OK, Start());
    EXPECT_EQ((std::vector<int>{7, 6, 4, 3, 2}), ListedFileNos());  // each new row goes in front
    CBreltMemStorageModule& m = *m_pModule;
    EXPECT_EQ(nullptr, m.m_arFileInfo[5]);
    // Rows of different blocks point at their own block's save flag.
    EXPECT_EQ(m.m_arFileInfo[2]->m_pSaveFlag, m.m_lpSystemFileInfo->m_pSaveFlag);
    EXPECT_NE(m.m_arFileInfo[2]->m_pSaveFlag, m.m_arFileInfo[3]->m_pSaveFlag);
    EXPECT_EQ(m.m_arFileInfo[3]->m_pSaveFlag, m.m_arFileInfo[4]->m_pSaveFlag);
    EXPECT_NE(m.m_arFileInfo[7]->m_pSaveFlag, m.m_arFileInfo[6]->m_pSaveFlag);
    for (BYTE n = 2; n <= 7; n++) EXPECT_EQ(n != 5, SegmentExists(n)) << int(n);
}

TEST_F(SystemFileList, DamagedListStopsTheStart)
{
    struct Case {
        int m_nDataRows;
        int m_nListBlockSize;
        std::function<void(std::string&)> m_fnDamage;
        const char* m_lpTraced;  // the code of the refusal
    };
    auto Object = [](std::string& s) { return DbFileListObject((LPSYSTEMFILEHEAD)&s[0]); };
    const int LIST = DB_SYSTEMFILE_LISTBLOCK_SIZE;
    const Case arCases[] = {
        {1, LIST, [this](std::string& s) { BlockOf(s, 0)->m_nObjectID = 9; }, "10030001 "},
        {1, LIST, [this](std::string& s) { BlockOf(s, 0)->m_nBlockDataStructSize = 352; }, "10030002 "},
        // The full chain is entries 0 -> 1 -> 2; the last one now points back.
        {5, 1024,
         [](std::string& s) {
             long long nMap = ((LPSYSTEMFILEHEAD)&s[0])->m_nBlockMapStartOffset;
             ((LPBASEFILEBLOCKMAP)&s[DbMapEntryOffset(nMap, 2)])->m_nNextOffset = DbMapEntryOffset(nMap, 1);
         },
         "10020031 "},
        {1, LIST, [&](std::string& s) { Object(s)->m_nFreeBlockMapOffset = DB_SYSTEMFILE_SIZE - 10; }, "10020030 "},
        {1, LIST,
         [&](std::string& s) {
             ((LPBASEFILEBLOCKMAP)&s[Object(s)->m_nFreeBlockMapOffset])->m_nBlockOffset = DB_SYSTEMFILE_SIZE - 32;
         },
         "10020032 "},
        {1, 1024, [this](std::string& s) { BlockOf(s, 0)->m_nDataNum = 3; }, "10030003 "},  // 64 + 3 * 348 > 1024
        {2, LIST, [this](std::string& s) { RowsOf(BlockOf(s, 0))[2].m_bFileNo = 2; }, "10030004 "},
    };
    for (const Case& c : arCases) {
        SCOPED_TRACE(c.m_lpTraced);
        std::vector<RowPlan> vPlans = {{1, FILETYPE_SYSTEM, DB_SYSTEMFILE_SIZE}};
        for (BYTE n = 2; n <= c.m_nDataRows + 1; n++) vPlans.push_back({n, FILETYPE_DATA, 1 * MIB});
        std::string strSystem = MakeDatabase(vPlans, c.m_nListBlockSize);
        c.m_fnDamage(strSystem);
        ASSERT_TRUE(WriteWholeFile(SystemPath(), strSystem));
        EXPECT_EQ(E_FAIL, Start());
        EXPECT_TRUE(m_tree.Traced(c.m_lpTraced));
        Stop();
    }
}
