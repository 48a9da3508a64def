// End-to-end: talvor-inspect on databases made by talvor-mkdb, each with one
// damage put in by hand where a real fault would leave it, and on the files a
// real daemon wrote. Each damage must come out as its own finding line,
// naming the file and the byte offset; a sound database must give none; and
// the inspector must not change a byte of what it looks at.
#include "DatabaseLoadKit.h"

#include <csignal>
#include <cstring>
#include <gtest/gtest.h>

using namespace talvortest;

namespace {

std::string InspectPath() { return std::string(TALVOR_BIN_DIR) + "/talvor-inspect"; }

template <class T>
T ReadRecord(const std::string& strPath, long long nOffset)
{
    T st;
    memset(&st, 0, sizeof(st));
    std::string s = ReadFileAt(strPath, nOffset, sizeof(T));
    if (s.size() == sizeof(T)) memcpy(&st, s.data(), sizeof(T));
    return st;
}

template <class T>
bool WriteValue(const std::string& strPath, long long nOffset, T v)
{
    return WriteFileAt(strPath, nOffset, std::string((const char*)&v, sizeof(v)));
}

std::vector<std::string> DamageLines(const std::string& strOut)
{
    std::vector<std::string> v;
    std::istringstream in(strOut);
    std::string strLine;
    while (std::getline(in, strLine))
        if (strLine.rfind("damage: ", 0) == 0) v.push_back(strLine);
    return v;
}

class InspectTool : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_box.Ok());
        ASSERT_EQ(0, MakeDb(m_box, m_box.DataDir(),
                            {"--data-file", "4", "--btree-file", "2", "--table-file", "4", "--index-file", "4"}));
    }

    std::string Path(const std::string& strName) const { return m_box.DataDir() + strName; }

    int Check(std::string* pOut, const std::string& strMode = "--check")
    {
        return m_box.Run({InspectPath(), strMode, m_box.DataDir()}, 60000, pOut);
    }

    // The one damage line of a check that must find exactly one.
    std::string OnlyFinding()
    {
        std::string strOut;
        EXPECT_EQ(1, Check(&strOut)) << strOut;
        std::vector<std::string> v = DamageLines(strOut);
        EXPECT_EQ(1u, v.size()) << strOut;
        return v.empty() ? std::string() : v[0];
    }

    // Where block 1 of a memory-mode file lies, and its map entry.
    long long FirstEntryOffset(const std::string& strFile)
    {
        BASEFILEHEAD h = ReadRecord<BASEFILEHEAD>(strFile, 0);
        return DbMapEntryOffset(h.m_nBlockMapStartOffset, 0);
    }

    DaemonSandbox m_box;
};

bool Names(const std::string& strLine, const std::string& strKind, int nFileNo, long long nOffset)
{
    std::string strHead = "damage: " + strKind + ": file " + std::to_string(nFileNo) + " ";
    return strLine.rfind(strHead, 0) == 0 &&
           (nOffset < 0 || strLine.find(" at offset " + std::to_string(nOffset) + ":") != std::string::npos);
}

} // namespace

TEST_F(InspectTool, ASoundDatabaseHasNoFindingAndNothingIsWritten)
{
    std::vector<std::string> vFiles = ListFiles(m_box.DataDir(), "");
    std::map<std::string, std::string> mapBefore;
    for (const std::string& f : vFiles) mapBefore[f] = ReadWholeFile(f);
    std::string strOut;
    EXPECT_EQ(0, Check(&strOut)) << strOut;
    EXPECT_TRUE(DamageLines(strOut).empty()) << strOut;
    EXPECT_NE(std::string::npos, strOut.find("result: clean")) << strOut;
    // The walk reached every file and the blocks the maker laid out.
    EXPECT_NE(std::string::npos, strOut.find("file 4: table ")) << strOut;
    EXPECT_NE(std::string::npos, strOut.find("walked: 1 map blocks, 1 map entries, 1 blocks, 1 objects in use")) << strOut;
    for (const auto& kv : mapBefore) EXPECT_TRUE(ReadWholeFile(kv.first) == kv.second) << kv.first << " changed";
}

TEST_F(InspectTool, AChainThatComesBackOnItselfIsALoop)
{
    std::string strData = Path("Data2.dbf");
    BASEFILEHEAD h = ReadRecord<BASEFILEHEAD>(strData, 0);
    BASEFILEOBJECTDEF o = ReadRecord<BASEFILEOBJECTDEF>(strData, h.m_nObjectInfoOffset);
    ASSERT_NE(0, (int)o.m_nID);
    long long nFirst = o.m_nFreeBlockMapOffset != 0 ? o.m_nFreeBlockMapOffset : o.m_nFullBlockMapOffset;
    ASSERT_GT(nFirst, 0);
    // The entry's next is itself: the save pass would run for ever.
    ASSERT_TRUE(WriteValue<long long>(strData, nFirst + offsetof(BASEFILEBLOCKMAP, m_nNextOffset), nFirst));
    std::string strLine = OnlyFinding();
    EXPECT_TRUE(Names(strLine, "loop", 2, nFirst)) << strLine;
}

// A damaged head may give a block area that starts before the file: a
// negative block offset must still be refused by the file's own bounds.
TEST_F(InspectTool, ANegativeOffsetIsOutOfBoundsWhateverTheHeadSays)
{
    std::string strData = Path("Data2.dbf");
    long long nEntry = FirstEntryOffset(strData);
    ASSERT_TRUE(WriteValue<long long>(strData, offsetof(BASEFILEHEAD, m_nBlockStartOffset), -(1LL << 40)));
    ASSERT_TRUE(WriteValue<long long>(strData, nEntry + offsetof(BASEFILEBLOCKMAP, m_nBlockOffset), -4096));
    std::string strLine = OnlyFinding();
    EXPECT_TRUE(Names(strLine, "bound", 2, nEntry)) << strLine;
}

// The 80 bytes of a commit, cut after 60 by a power loss: the persisted-up-to
// timestamp got its new low half, the newest committed one kept its old value.
TEST_F(InspectTool, ATornCommitIsFoundInTheSystemHead)
{
    std::string strSystem = Path("System.dbf");
    std::string strPart = ReadFileAt(strSystem, SYSTEMFILE_DYNAMIC_OFFSET, SYSTEMFILE_DYNAMIC_SIZE);
    ASSERT_EQ((size_t)SYSTEMFILE_DYNAMIC_SIZE, strPart.size());
    long long nBegin = 5000, nEnd = 5000;
    memcpy(&strPart[offsetof(SYSTEMFILEHEAD, m_nBeginTimestamp) - SYSTEMFILE_DYNAMIC_OFFSET], &nBegin, 8);
    memcpy(&strPart[offsetof(SYSTEMFILEHEAD, m_nEndTimestamp) - SYSTEMFILE_DYNAMIC_OFFSET], &nEnd, 8);
    ASSERT_TRUE(WriteFileAt(strSystem, SYSTEMFILE_DYNAMIC_OFFSET, strPart.substr(0, 60)));
    std::string strLine = OnlyFinding();
    EXPECT_TRUE(Names(strLine, "commit", 1, offsetof(SYSTEMFILEHEAD, m_nBeginTimestamp))) << strLine;
    EXPECT_NE(std::string::npos, strLine.find("5000")) << strLine;
}

TEST_F(InspectTool, CacheModeDamagesAreFoundPageByPage)
{
    std::string strTable = Path("Table4.dbf");
    TABLEFILEHEAD h = ReadRecord<TABLEFILEHEAD>(strTable, 0);
    ASSERT_GT((int)h.m_nBlockMapStartOffset, 0);
    // A map entry in use whose block lies past the end of the file.
    long long nMap = h.m_nBlockMapStartOffset;
    ASSERT_TRUE(WriteValue<int>(strTable, nMap + offsetof(BASEFILEBLOCKMAPHEAD_CACHE, m_nBlockMapNum), 1));
    BASEFILEBLOCKMAP_CACHE e;
    memset(&e, 0, sizeof(e));
    e.m_nBlockNo = 1;
    e.m_nBlockSize = CACHE_PAGE_SIZE;
    e.m_nID = 7;
    e.m_nBlockOffset = FileSizeOf(strTable);
    long long nEntry = nMap + (long long)sizeof(BASEFILEBLOCKMAPHEAD_CACHE);
    ASSERT_TRUE(WriteFileAt(strTable, nEntry, std::string((const char*)&e, sizeof(e))));
    std::string strLine = OnlyFinding();
    EXPECT_TRUE(Names(strLine, "bound", 4, nEntry)) << strLine;

    // And the first map page of the index file with its mark gone.
    INDEXFILEHEAD hi = ReadRecord<INDEXFILEHEAD>(Path("Index5.dbf"), 0);
    ASSERT_TRUE(WriteValue<int>(Path("Index5.dbf"), hi.m_nBlockMapStartOffset, 0));
    std::string strOut;
    EXPECT_EQ(1, Check(&strOut));
    std::vector<std::string> v = DamageLines(strOut);
    ASSERT_EQ(2u, v.size()) << strOut;
    EXPECT_TRUE(Names(v[1], "mark", 5, hi.m_nBlockMapStartOffset)) << v[1];
}

// Cache-mode chains run by block number through the map entries: three
// blocks whose chain comes back to its first block.
TEST_F(InspectTool, ACacheModeChainThatComesBackIsALoop)
{
    std::string strTable = Path("Table4.dbf");
    TABLEFILEHEAD h = ReadRecord<TABLEFILEHEAD>(strTable, 0);
    long long nMap = h.m_nBlockMapStartOffset;
    ASSERT_TRUE(WriteValue<int>(strTable, nMap + offsetof(BASEFILEBLOCKMAPHEAD_CACHE, m_nBlockMapNum), 3));
    for (UINT n = 1; n <= 3; n++) {
        BASEFILEBLOCKMAP_CACHE e;
        memset(&e, 0, sizeof(e));
        e.m_nBlockNo = n;
        e.m_nBlockSize = CACHE_PAGE_SIZE;
        e.m_nNextBlockNo = n == 3 ? 1 : n + 1;
        e.m_nID = 5;
        e.m_nBlockOffset = h.m_nBlockStartOffset + (long long)(n - 1) * CACHE_PAGE_SIZE;
        ASSERT_TRUE(WriteFileAt(strTable, nMap + (long long)sizeof(BASEFILEBLOCKMAPHEAD_CACHE) + (n - 1) * sizeof(e),
                                std::string((const char*)&e, sizeof(e))));
    }
    CACHEFILETABLEDEF o;
    memset(&o, 0, sizeof(o));
    o.m_nID = 5;
    o.m_nFullBlockNo = 2;
    ASSERT_TRUE(WriteFileAt(strTable, offsetof(TABLEFILEHEAD, m_stFileObject), std::string((const char*)&o, sizeof(o))));
    std::string strLine = OnlyFinding();
    EXPECT_TRUE(Names(strLine, "loop", 4, -1)) << strLine;
    EXPECT_NE(std::string::npos, strLine.find("starts at block 2 comes back to block 2")) << strLine;
}

// A bad block mark is found at the block, a block past its file at the
// entry that names it, each damage on a line of its own.
TEST_F(InspectTool, EveryDamageHasItsOwnLineAndJsonCountsThem)
{
    std::string strData = Path("Data2.dbf");
    BASEFILEBLOCKMAP e = ReadRecord<BASEFILEBLOCKMAP>(strData, FirstEntryOffset(strData));
    ASSERT_GT((long long)e.m_nBlockOffset, 0);
    ASSERT_TRUE(WriteValue<int>(strData, e.m_nBlockOffset, 0x58585858));
    ASSERT_TRUE(WriteValue<UINT>(strData, e.m_nBlockOffset + offsetof(BASEBLOCKHEAD, m_nBlockNo), 9));
    std::string strIndex = Path("BTree3.dbf");
    long long nEntry = FirstEntryOffset(strIndex);
    ASSERT_TRUE(WriteValue<long long>(strIndex, nEntry + offsetof(BASEFILEBLOCKMAP, m_nBlockOffset), 1LL << 40));
    ASSERT_TRUE(WriteValue<long long>(Path("System.dbf"), offsetof(SYSTEMFILEHEAD, m_nBeginTimestamp), 77));
    std::string strOut;
    EXPECT_EQ(1, Check(&strOut));
    std::vector<std::string> v = DamageLines(strOut);
    ASSERT_EQ(3u, v.size()) << strOut;
    EXPECT_TRUE(Names(v[0], "commit", 1, -1)) << v[0];
    EXPECT_TRUE(Names(v[1], "mark", 2, e.m_nBlockOffset)) << v[1];
    EXPECT_NE(std::string::npos, v[1].find("0x58585858")) << v[1];
    EXPECT_TRUE(Names(v[2], "bound", 3, nEntry)) << v[2];

    std::string strJson;
    EXPECT_EQ(1, m_box.Run({InspectPath(), "--check", "--json", m_box.DataDir()}, 60000, &strJson));
    EXPECT_NE(std::string::npos, strJson.find("\"clean\":false")) << strJson;
    size_t nKinds = 0;
    for (size_t p = strJson.find("{\"kind\":"); p != std::string::npos; p = strJson.find("{\"kind\":", p + 1)) nKinds++;
    EXPECT_EQ(3u, nKinds) << strJson;
}

// A backup cut short is told with the verifier's reason; it is no damage of
// the database, so the check still passes.
TEST_F(InspectTool, ABackupThatIsNotWholeIsToldButIsNoDamage)
{
    std::string strArchive = m_box.Root() + "/arch/";
    ASSERT_EQ(0, mkdir(strArchive.c_str(), 0777));
    ASSERT_EQ(0, mkdir((strArchive + "Backup").c_str(), 0777));
    std::string strBackup = strArchive + "Backup/TalvorBackup77.fbk";
    ASSERT_TRUE(WriteWholeFile(strBackup, std::string(4096, '\0')));
    ASSERT_TRUE(WriteFileAt(Path("System.dbf"), offsetof(SYSTEMFILEHEAD, m_lpArchiveDesPath), strArchive + std::string(1, '\0')));
    std::string strOut;
    EXPECT_EQ(0, Check(&strOut)) << strOut;
    EXPECT_NE(std::string::npos, strOut.find("backup: " + strBackup + ": refused (")) << strOut;
    EXPECT_TRUE(DamageLines(strOut).empty()) << strOut;
    // Without --check the backup is only listed.
    EXPECT_EQ(0, Check(&strOut, "--json"));
    EXPECT_NE(std::string::npos, strOut.find("\"verified\":false")) << strOut;
}

TEST_F(InspectTool, WithoutCheckTheHeadsAreReadAndAMissingFileIsSaid)
{
    ASSERT_EQ(0, unlink(Path("BTree3.dbf").c_str()));
    std::string strOut;
    EXPECT_EQ(0, Check(&strOut, "--json"));
    EXPECT_NE(std::string::npos, strOut.find("\"kind\":\"read\",\"file\":3")) << strOut;
    EXPECT_EQ(1, Check(&strOut));
    std::vector<std::string> v = DamageLines(strOut);
    ASSERT_EQ(1u, v.size()) << strOut;
    EXPECT_TRUE(Names(v[0], "read", 3, -1)) << v[0];
    // A directory with no database at all.
    EXPECT_EQ(1, m_box.Run({InspectPath(), m_box.Root() + "/nothing-here"}, 30000, &strOut));
    EXPECT_EQ(2, m_box.Run({InspectPath(), "--bogus", m_box.DataDir()}, 30000, &strOut));
}

// The files a real daemon wrote, after an engine stand-in committed rows
// into them and the daemon stopped: sound, and the head says how far.
TEST_F(InspectTool, ReadsWhatARealDaemonWrote)
{
    std::string strArchive = m_box.Root() + "/arch/";
    WriteDbIni(m_box, m_box.DataDir(), "persistenceintervals=1\r\narchivedespath=" + strArchive + "\r\n");
    pid_t pid = m_box.StartServing();
    ASSERT_GT(pid, 0) << m_box.ReadDaemonTrace();
    std::string strOut;
    ASSERT_EQ(0, m_box.Run({PeerPath(), "data", "--journal", m_box.Root() + "/journal", "--live", "--count", "300",
                            "--pause-us", "500", "--pass-every", "100", "--blocks", "8", "--seed", "5"},
                           120000, &strOut))
        << strOut;
    ASSERT_EQ(0, m_box.Run({PeerPath(), "backup", "--full", "--wait"}, 120000, &strOut)) << strOut;
    ASSERT_TRUE(StopDaemon(m_box, pid));

    EXPECT_EQ(0, Check(&strOut)) << strOut;
    // The groups the daemon made are read, each a redo head of this database.
    EXPECT_NE(std::string::npos, strOut.find("redo group 0: log ")) << strOut;
    EXPECT_EQ(std::string::npos, strOut.find("(made anew at the next start)")) << strOut;
    // The backup the daemon took is found and verified whole.
    EXPECT_NE(std::string::npos, strOut.find("backup: " + strArchive + "Backup/TalvorBackup")) << strOut;
    EXPECT_NE(std::string::npos, strOut.find(".fbk: whole, level 0, timestamp ")) << strOut;
    EXPECT_TRUE(DamageLines(strOut).empty()) << strOut;
    EXPECT_GT(NumberAfter(strOut, "persisted up to timestamp: "), 0) << strOut;
    // The engine grew the data file to 8 blocks; the walk saw them all.
    EXPECT_NE(std::string::npos, strOut.find("walked: 1 map blocks, 8 map entries, 8 blocks")) << strOut;
}
