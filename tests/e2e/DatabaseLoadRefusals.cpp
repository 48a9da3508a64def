// End-to-end: a damaged database is refused at start with the message that
// names the damage, the daemon exits with status 0, no segment is left, and
// not one byte of any database file changes.
#include "DatabaseLoadKit.h"

#include <functional>
#include <gtest/gtest.h>

using namespace talvortest;

namespace {

const std::vector<std::string> DB_FILES = {"System.dbf", "Data2.dbf", "BTree3.dbf", "KV4.dbf"};

// Makes the database, damages it, starts the daemon and waits for its end;
// returns the trace. The files must be as they were after the damage.
std::string RefusedStart(DaemonSandbox& box, const std::function<void(const std::string&)>& fnDamage)
{
    EXPECT_EQ(0, MakeDb(box, box.DataDir(), {"--data-file", "8", "--btree-file", "4", "--kv-file", "4"}));
    fnDamage(box.DataDir());
    WriteDbIni(box, box.DataDir());
    std::map<std::string, std::string> mapBefore = Snapshot(box.DataDir(), DB_FILES);
    pid_t pid = box.StartDaemon();
    EXPECT_GT(pid, 0);
    EXPECT_EQ(0, box.WaitExit(pid, DAEMON_START_TIMEOUT_MS));
    std::map<std::string, std::string> mapAfter = Snapshot(box.DataDir(), DB_FILES);
    for (const std::string& strName : DB_FILES) EXPECT_TRUE(mapBefore[strName] == mapAfter[strName]) << strName;
    Inspection st = Inspect(box, box.DataDir());
    EXPECT_FALSE(st.m_bSystemImage) << st.m_strText;
    for (int n = 2; n <= 4; n++) EXPECT_FALSE(st.m_mapFiles[n].m_bImage) << n;
    std::string strTrace = box.ReadDaemonTrace();
    EXPECT_NE(std::string::npos, strTrace.find("Talvor storage service closed!")) << strTrace;
    EXPECT_EQ(std::string::npos, strTrace.find("Talvor storage service started!")) << strTrace;
    return strTrace;
}

void Patch(const std::string& strPath, const std::function<void(std::string&)>& fnChange)
{
    std::string strFile = ReadWholeFile(strPath);
    fnChange(strFile);
    ASSERT_TRUE(WriteWholeFile(strPath, strFile));
}

} // namespace

TEST(DatabaseLoadRefusals, WrongHeadMark)
{
    ASSERT_TRUE(MkdbBuilt()) << "build talvor-mkdb first";
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    std::string strTrace = RefusedStart(box, [](const std::string& strDir) {
        Patch(strDir + "BTree3.dbf", [](std::string& s) { ((LPBASEFILEHEAD)&s[0])->m_nDataFlag = 0x12345678; });
    });
    EXPECT_NE(std::string::npos,
              strTrace.find("40001014 Initialize Header information in data content read from b-tree index file is "
                            "incorrect, file check code: 305419896[1178750545], path: " + box.DataDir() + "BTree3.dbf"))
        << strTrace;
    EXPECT_NE(std::string::npos, strTrace.find("Talvor storage service failed to load files into memory!"));
}

TEST(DatabaseLoadRefusals, FileNumberThatDoesNotMatchItsRow)
{
    ASSERT_TRUE(MkdbBuilt()) << "build talvor-mkdb first";
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    std::string strTrace = RefusedStart(box, [](const std::string& strDir) {
        Patch(strDir + "KV4.dbf", [](std::string& s) { ((LPBASEFILEHEAD)&s[0])->m_bFileNo = 9; });
    });
    EXPECT_NE(std::string::npos,
              strTrace.find("40001016 Initialize The file number recorded in the file header information is "
                            "inconsistent with that in the system file, file number: 9[4], path: " + box.DataDir() +
                            "KV4.dbf"))
        << strTrace;
}

TEST(DatabaseLoadRefusals, FileShorterThanItsRow)
{
    ASSERT_TRUE(MkdbBuilt()) << "build talvor-mkdb first";
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    std::string strTrace = RefusedStart(box, [](const std::string& strDir) {
        Patch(strDir + "Data2.dbf", [](std::string& s) { s.resize((size_t)(4 * E2E_MIB)); });
    });
    EXPECT_NE(std::string::npos, strTrace.find("40001017 Initialize The file is shorter than its head says, path: " +
                                               box.DataDir() + "Data2.dbf, file size: 4194304, size in the head: 8388608"))
        << strTrace;
}

TEST(DatabaseLoadRefusals, FileListRecordOfAnotherSize)
{
    ASSERT_TRUE(MkdbBuilt()) << "build talvor-mkdb first";
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    std::string strTrace = RefusedStart(box, [](const std::string& strDir) {
        Patch(strDir + "System.dbf", [](std::string& s) {
            LPSYSTEMFILEHEAD h = (LPSYSTEMFILEHEAD)&s[0];
            ((LPSYSTEMBLOCKHEAD)&s[(size_t)h->m_nBlockStartOffset])->m_nBlockDataStructSize = 352;
        });
    });
    EXPECT_NE(std::string::npos, strTrace.find("The structure size of data block has changed.  current system value: "
                                               "348, recorded value: 352"))
        << strTrace;
    EXPECT_EQ(std::string::npos, strTrace.find("Read the data file")) << strTrace;
}
