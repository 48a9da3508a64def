// End-to-end: a damaged database is refused at start with the message that
// names the damage, the daemon exits with status 0, no segment is left, and
// not one byte of any database file changes. (A wrong head mark of each file
// type is refused by its own message at unit level.)
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
    EXPECT_EQ(0, box.RunDaemon());
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

// Each damage and the line that must name it (the database directory
// stands for "@").
struct Damage {
    const char* m_lpWhat;
    const char* m_lpFile;
    std::function<void(std::string&)> m_fnPatch;
    std::string m_strLine;
};

std::string InDir(std::string strLine, const std::string& strDir)
{
    size_t n = strLine.find('@');
    return n == std::string::npos ? strLine : strLine.replace(n, 1, strDir);
}

} // namespace

TEST(DatabaseLoadRefusals, EachDamageIsRefusedByTheLineThatNamesIt)
{
    const Damage arDamages[] = {
        {"wrong system file mark", "System.dbf", [](std::string& s) { ((LPSYSTEMFILEHEAD)&s[0])->m_nDataFlag = 0x12345678; },
         "40001012 Initialize Header data for system file is incorrect, check code: 305419896[1179864657]"},
        {"file number of another row", "KV4.dbf", [](std::string& s) { ((LPBASEFILEHEAD)&s[0])->m_bFileNo = 9; },
         "40001016 Initialize The file number recorded in the file header information is inconsistent with that in "
         "the system file, file number: 9[4], path: @KV4.dbf"},
        {"file shorter than its row", "Data2.dbf", [](std::string& s) { s.resize((size_t)(4 * E2E_MIB)); },
         "40001017 Initialize The file is shorter than its head says, path: @Data2.dbf, file size: 4194304, size in "
         "the head: 8388608"},
        {"file list record of another size", "System.dbf",
         [](std::string& s) {
             LPSYSTEMFILEHEAD h = (LPSYSTEMFILEHEAD)&s[0];
             ((LPSYSTEMBLOCKHEAD)&s[(size_t)h->m_nBlockStartOffset])->m_nBlockDataStructSize = 352;
         },
         "The structure size of data block has changed.  current system value: 348, recorded value: 352"},
    };
    std::vector<Damage> vDamages(std::begin(arDamages), std::end(arDamages));
    // A file of a type no pass saves: refused by number, type and path.
    for (int nType : {5, 77})
        vDamages.push_back({"file of a type no pass saves", "System.dbf",
                            [nType](std::string& s) {
                                LPFILE_MEMDBFILEINFO lpRow = DbFindFileListRow((LPBYTE)&s[0], (long long)s.size(), 3);
                                ASSERT_NE(nullptr, lpRow);
                                lpRow->m_bFileType = (BYTE)nType;
                            },
                            "   10040003 LoadFile The database has a file of a type this service cannot save, so the "
                            "start was refused, file number: 3, file type: " + std::to_string(nType) + ", path: @BTree3.dbf"});
    for (const Damage& d : vDamages) {
        SCOPED_TRACE(d.m_lpWhat);
        DaemonSandbox box;
        ASSERT_TRUE(box.Ok());
        std::string strTrace = RefusedStart(box, [&](const std::string& strDir) { Patch(strDir + d.m_lpFile, d.m_fnPatch); });
        EXPECT_NE(std::string::npos, strTrace.find(InDir(d.m_strLine, box.DataDir()))) << strTrace;
    }
}
