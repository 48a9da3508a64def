// End-to-end: talvor-inspect on databases made by talvor-mkdb, each with one
// damage put in by hand where a real fault would leave it, and on the files a
// real daemon wrote. Each damage must come out as a finding line naming the
// file and the byte offset; a sound database must give none; and the
// inspector must not change a byte of what it looks at.
#include "DatabaseLoadKit.h"

#include <functional>

using namespace talvortest;

namespace {

std::string InspectPath() { return ToolPath("talvor-inspect"); }

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
    void SetUp() override { MakeIn(m_box.DataDir()); }

    void MakeIn(const std::string& strDir)
    {
        m_strDir = strDir;
        ASSERT_EQ(0, MakeDb(m_box, m_strDir, {"--data-file", "4", "--btree-file", "2", "--table-file", "4",
                                              "--index-file", "4"}));
    }

    std::string Path(const std::string& strName) const { return m_strDir + strName; }

    int Check(std::string* pOut, const std::string& strMode = "--check")
    {
        return m_box.Run({InspectPath(), strMode, m_strDir}, 60000, pOut);
    }

    // Where the map entry of block 1 of a memory-mode file lies.
    long long FirstEntryOffset(const std::string& strFile)
    {
        return DbMapEntryOffset(RecordOnDisk<BASEFILEHEAD>(strFile, 0).m_nBlockMapStartOffset, 0);
    }

    DaemonSandbox m_box;
    std::string m_strDir;
};

bool Names(const std::string& strLine, const std::string& strKind, int nFileNo, long long nOffset)
{
    std::string strHead = "damage: " + strKind + ": file " + std::to_string(nFileNo) + " ";
    return strLine.rfind(strHead, 0) == 0 &&
           (nOffset < 0 || strLine.find(" at offset " + std::to_string(nOffset) + ":") != std::string::npos);
}

// The finding a damage must give: its kind, file and offset (-1: any), and
// a piece of its text (empty: none asked).
struct Finding {
    std::string m_strKind;
    int m_nFileNo;
    long long m_nOffset;
    std::string m_strText;
};

} // namespace

// One damage per database, put where a real fault would leave it: the
// check fails with exactly the one finding that names it.
TEST_F(InspectTool, EachDamageIsTheOneFindingThatNamesItsFileAndOffset)
{
    const struct {
        const char* m_lpWhat;
        std::function<Finding()> m_fnDamage;
    } arCases[] = {
        {"a memory-mode chain that comes back on itself",
         [&] {
             std::string strData = Path("Data2.dbf");
             BASEFILEHEAD h = RecordOnDisk<BASEFILEHEAD>(strData, 0);
             BASEFILEOBJECTDEF o = RecordOnDisk<BASEFILEOBJECTDEF>(strData, h.m_nObjectInfoOffset);
             EXPECT_NE(0, (int)o.m_nID);
             long long nFirst = o.m_nFreeBlockMapOffset != 0 ? o.m_nFreeBlockMapOffset : o.m_nFullBlockMapOffset;
             EXPECT_TRUE(WriteValue<long long>(strData, nFirst + offsetof(BASEFILEBLOCKMAP, m_nNextOffset), nFirst));
             return Finding{"loop", 2, nFirst, ""};
         }},
        // A damaged head may give a block area that starts before the file:
        // a negative block offset must still be refused by the file's bounds.
        {"a negative block offset",
         [&] {
             std::string strData = Path("Data2.dbf");
             long long nEntry = FirstEntryOffset(strData);
             EXPECT_TRUE(WriteValue<long long>(strData, offsetof(BASEFILEHEAD, m_nBlockStartOffset), -(1LL << 40)));
             EXPECT_TRUE(WriteValue<long long>(strData, nEntry + offsetof(BASEFILEBLOCKMAP, m_nBlockOffset), -4096));
             return Finding{"bound", 2, nEntry, ""};
         }},
        // A block past the end of its file and a block whose mark is gone:
        // EveryDamageHasItsOwnLine.
        // The 80 bytes of a commit, cut after 60 by a power loss: the
        // persisted-up-to timestamp got its new low half, the newest
        // committed one kept its old value.
        {"a torn commit",
         [&] {
             std::string strSystem = Path("System.dbf");
             std::string strPart = ReadFileAt(strSystem, SYSTEMFILE_DYNAMIC_OFFSET, SYSTEMFILE_DYNAMIC_SIZE);
             EXPECT_EQ((size_t)SYSTEMFILE_DYNAMIC_SIZE, strPart.size());
             long long nBegin = 5000, nEnd = 5000;
             memcpy(&strPart[offsetof(SYSTEMFILEHEAD, m_nBeginTimestamp) - SYSTEMFILE_DYNAMIC_OFFSET], &nBegin, 8);
             memcpy(&strPart[offsetof(SYSTEMFILEHEAD, m_nEndTimestamp) - SYSTEMFILE_DYNAMIC_OFFSET], &nEnd, 8);
             EXPECT_TRUE(WriteFileAt(strSystem, SYSTEMFILE_DYNAMIC_OFFSET, strPart.substr(0, 60)));
             return Finding{"commit", 1, (long long)offsetof(SYSTEMFILEHEAD, m_nBeginTimestamp), "5000"};
         }},
        {"a cache-mode map entry whose block lies past the file",
         [&] {
             std::string strTable = Path("Table4.dbf");
             long long nMap = RecordOnDisk<TABLEFILEHEAD>(strTable, 0).m_nBlockMapStartOffset;
             EXPECT_TRUE(WriteValue<int>(strTable, nMap + offsetof(BASEFILEBLOCKMAPHEAD_CACHE, m_nBlockMapNum), 1));
             BASEFILEBLOCKMAP_CACHE e;
             memset(&e, 0, sizeof(e));
             e.m_nBlockNo = 1;
             e.m_nBlockSize = CACHE_PAGE_SIZE;
             e.m_nID = 7;
             e.m_nBlockOffset = FileSizeOf(strTable);
             long long nEntry = nMap + (long long)sizeof(BASEFILEBLOCKMAPHEAD_CACHE);
             EXPECT_TRUE(WriteFileAt(strTable, nEntry, std::string((const char*)&e, sizeof(e))));
             return Finding{"bound", 4, nEntry, ""};
         }},
        {"a cache-mode map page whose mark is gone",
         [&] {
             INDEXFILEHEAD hi = RecordOnDisk<INDEXFILEHEAD>(Path("Index5.dbf"), 0);
             EXPECT_TRUE(WriteValue<int>(Path("Index5.dbf"), hi.m_nBlockMapStartOffset, 0));
             return Finding{"mark", 5, (long long)hi.m_nBlockMapStartOffset, ""};
         }},
        // Cache-mode chains run by block number through the map entries:
        // three blocks whose chain comes back to its first block.
        {"a cache-mode chain that comes back",
         [&] {
             std::string strTable = Path("Table4.dbf");
             TABLEFILEHEAD h = RecordOnDisk<TABLEFILEHEAD>(strTable, 0);
             long long nMap = h.m_nBlockMapStartOffset;
             EXPECT_TRUE(WriteValue<int>(strTable, nMap + offsetof(BASEFILEBLOCKMAPHEAD_CACHE, m_nBlockMapNum), 3));
             for (UINT n = 1; n <= 3; n++) {
                 BASEFILEBLOCKMAP_CACHE e;
                 memset(&e, 0, sizeof(e));
                 e.m_nBlockNo = n;
                 e.m_nBlockSize = CACHE_PAGE_SIZE;
                 e.m_nNextBlockNo = n == 3 ? 1 : n + 1;
                 e.m_nID = 5;
                 e.m_nBlockOffset = h.m_nBlockStartOffset + (long long)(n - 1) * CACHE_PAGE_SIZE;
                 EXPECT_TRUE(WriteFileAt(strTable, nMap + (long long)sizeof(BASEFILEBLOCKMAPHEAD_CACHE) +
                                                       (n - 1) * sizeof(e), std::string((const char*)&e, sizeof(e))));
             }
             CACHEFILETABLEDEF o;
             memset(&o, 0, sizeof(o));
             o.m_nID = 5;
             o.m_nFullBlockNo = 2;
             EXPECT_TRUE(WriteFileAt(strTable, offsetof(TABLEFILEHEAD, m_stFileObject),
                                     std::string((const char*)&o, sizeof(o))));
             return Finding{"loop", 4, -1, "starts at block 2 comes back to block 2"};
         }},
        {"a missing file",
         [&] {
             EXPECT_EQ(0, unlink(Path("BTree3.dbf").c_str()));
             return Finding{"read", 3, -1, ""};
         }},
    };
    int nCase = 0;
    for (const auto& c : arCases) {
        SCOPED_TRACE(c.m_lpWhat);
        ASSERT_NO_FATAL_FAILURE(MakeIn(m_box.Root() + "/case" + std::to_string(nCase++) + "/"));
        Finding f = c.m_fnDamage();
        std::string strOut;
        EXPECT_EQ(1, Check(&strOut)) << strOut;
        std::vector<std::string> v = DamageLines(strOut);
        ASSERT_EQ(1u, v.size()) << strOut;
        EXPECT_TRUE(Names(v[0], f.m_strKind, f.m_nFileNo, f.m_nOffset)) << v[0];
        EXPECT_NE(std::string::npos, v[0].find(f.m_strText)) << v[0];
    }
}

// Damages in three files at once: each is found and told on a line of its
// own, none hides the ones after it.
TEST_F(InspectTool, EveryDamageHasItsOwnLine)
{
    std::string strData = Path("Data2.dbf");
    BASEFILEBLOCKMAP e = RecordOnDisk<BASEFILEBLOCKMAP>(strData, FirstEntryOffset(strData));
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
}

// The files a real daemon wrote, after an engine stand-in committed rows
// into them and the daemon stopped: sound, walked to the last block, and the
// inspector writes nothing.
TEST_F(InspectTool, ReadsWhatARealDaemonWrote)
{
    WriteDbIni(m_box, m_box.DataDir(), "persistenceintervals=1\r\n");
    pid_t pid = m_box.StartServing();
    ASSERT_GT(pid, 0) << m_box.ReadDaemonTrace();
    std::string strOut;
    ASSERT_EQ(0, Peer(m_box, {"data", "--journal", m_box.Root() + "/journal", "--live", "--count", "300", "--pause-us",
                              "500", "--pass-every", "100", "--blocks", "8", "--seed", "5"}, &strOut))
        << strOut;
    ASSERT_TRUE(StopDaemon(m_box, pid));

    std::map<std::string, std::string> mapBefore;
    for (const std::string& f : ListFiles(m_box.DataDir(), "")) mapBefore[f] = ReadWholeFile(f);
    EXPECT_EQ(0, Check(&strOut)) << strOut;
    for (const auto& kv : mapBefore) EXPECT_TRUE(ReadWholeFile(kv.first) == kv.second) << kv.first << " changed";
    EXPECT_TRUE(DamageLines(strOut).empty()) << strOut;
    // The engine grew the data file to 8 blocks; the walk saw them all.
    EXPECT_NE(std::string::npos, strOut.find("walked: 1 map blocks, 8 map entries, 8 blocks")) << strOut;
}
