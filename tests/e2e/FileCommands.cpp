// End-to-end: the engine stand-in adds, grows, moves and drops cache-mode
// files through the file list while the daemon runs ("talvor-peer file";
// each command on memory-mode files, and a start after it, is checked at unit
// level), and the daemon is stopped and started again after every step: the
// list on disk and the files agree each time, and the start loads them. A
// daemon killed in the middle of a move or a drop starts again on a list
// that agrees with the files.
#include "DatabaseLoadKit.h"
#include "TalvorFileStorage.h"

#include <regex>

using namespace talvortest;

namespace {

const int CACHE_MIB = 64;

class FileCommandsE2E : public RunningDaemon {
protected:
    void SetUp() override { Start({"--data-file", "4", "--table-file", "4"}, "", CACHE_MIB); }
    // One "talvor-peer file" request, expected to be answered nExpect (the
    // row's result); the answer.
    int File(std::vector<std::string> vArgs, int nExpect = FILECMD_NONE)
    {
        vArgs.insert(vArgs.begin(), "file");
        std::string strOut;
        Peer(m_box, vArgs, &strOut, 120000);
        int nResult = (int)NumberAfter(strOut, "result=");
        EXPECT_EQ(nExpect, nResult) << strOut << "\n" << m_box.ReadDaemonTrace();
        return nResult;
    }
    // Empty when every live row of the list on disk names a file that is
    // there, of the row's size, whose head carries the right mark and
    // number, and no row carries a command.
    std::string ListAgreesWithFiles()
    {
        std::string s = ReadWholeFile(m_box.DataDir() + "System.dbf");
        std::string strWhy;
        if (s.empty()) return "no system file";
        int nResult = DbForEachFileListRow((LPBYTE)&s[0], (long long)s.size(), [&](LPSYSTEMBLOCKHEAD, LPFILE_MEMDBFILEINFO lpRow) {
            if (lpRow->m_bFileCMD != 0) strWhy += "row " + std::to_string(lpRow->m_bFileNo) + " carries a command; ";
            if (lpRow->m_bDropFlag == 1 || lpRow->m_bFileNo == 1) return true;
            std::string strPath(lpRow->m_lpszFilePath, strnlen(lpRow->m_lpszFilePath, sizeof(lpRow->m_lpszFilePath)));
            std::string strFile = ReadWholeFile(strPath);
            // A cache-mode file grows by itself, ahead of its row.
            bool bCache = IsCacheFileType(lpRow->m_bFileType);
            if (bCache ? (long long)strFile.size() < Val(lpRow->m_nFileSize)
                       : (long long)strFile.size() != Val(lpRow->m_nFileSize)) {
                strWhy += strPath + " is " + std::to_string(strFile.size()) + " bytes, its row says " +
                          std::to_string(Val(lpRow->m_nFileSize)) + "; ";
                return true;
            }
            int nMark = 0;
            memcpy(&nMark, strFile.data(), sizeof(nMark));
            if (nMark != FileHeadDataFlag(lpRow->m_bFileType)) strWhy += strPath + ": head mark; ";
            return true;
        });
        if (nResult != DBCHAIN_OK) strWhy += "list damaged";
        return strWhy;
    }
    // A new cache-mode file grows in steps, in the background, until its
    // head has the reserve free; its size means something only after that.
    bool WaitForReserve(const std::string& strPath)
    {
        return WaitUntil([&] {
            TABLEFILEHEAD h = RecordOnDisk<TABLEFILEHEAD>(strPath);
            return h.m_nFileTotalSize - h.m_nFileFreeMemoryOffset > FILESTORE_SPACE_RESERVE &&
                   FileSizeOf(strPath) == h.m_nFileTotalSize;
        }, 60000, 50);
    }

    // The live row of bFileNo in the list on disk (zeros when none).
    FILE_MEMDBFILEINFO DiskRow(BYTE bFileNo)
    {
        std::string s = ReadWholeFile(m_box.DataDir() + "System.dbf");
        FILE_MEMDBFILEINFO st;
        memset(&st, 0, sizeof(st));
        LPFILE_MEMDBFILEINFO lpRow = s.empty() ? nullptr : DbFindFileListRow((LPBYTE)&s[0], (long long)s.size(), bFileNo);
        if (lpRow != nullptr) memcpy(&st, lpRow, sizeof(st));
        return st;
    }
    // A file command of the stand-in, the daemon killed nDelayMs into it:
    // the list on disk must name whole files the offline check accepts, and
    // the daemon must start again on them.
    void KillDuring(const std::vector<std::string>& vCommand, int nDelayMs, const std::string& strWhat)
    {
        std::vector<std::string> vArgs = {PeerPath(), "file"};
        vArgs.insert(vArgs.end(), vCommand.begin(), vCommand.end());
        vArgs.insert(vArgs.end(), {"--timeout-ms", "2000"});
        pid_t peer = m_box.Spawn(vArgs, "peer-" + std::to_string(++m_nKills));
        ASSERT_GT(peer, 0);
        usleep((useconds_t)nDelayMs * 1000);
        m_box.Signal(m_pid, SIGKILL);
        m_box.WaitExit(m_pid, DAEMON_STOP_TIMEOUT_MS);
        m_pid = -1;
        m_box.WaitExit(peer, 30000);
        ExpectAgreedAndServe(strWhat + " killed after " + std::to_string(nDelayMs) + " ms");
    }
    int m_nKills = 0;

    // The damage the offline check finds in the stopped database, one line
    // each. A cache-mode file longer than its row or its head on disk is
    // none of it: the cache grows such a file to its reserve by itself,
    // ahead of both, and a start takes the size on disk.
    std::string OfflineFindings()
    {
        std::string strCheck;
        int rc = m_box.Run({ToolPath("talvor-inspect"), "--check", m_box.DataDir()}, 60000, &strCheck);
        if (rc != 0 && rc != 1) return "talvor-inspect failed: " + strCheck;
        std::string strFindings;
        std::istringstream in(strCheck);
        std::string strLine;
        // "the file list gives A bytes, the file has B" or "the head gives
        // a size of A bytes, the file has B", with B > A.
        static const std::regex reGrown(R"( file (\d+) .*(?:the file list gives|the head gives a size of) (\d+) bytes, the file has (\d+))");
        while (std::getline(in, strLine)) {
            std::smatch m;
            if (strLine.rfind("damage:", 0) != 0) continue;
            if (!std::regex_search(strLine, m, reGrown) || std::stoll(m[3]) <= std::stoll(m[2]) ||
                !IsCacheFileType(DiskRow((BYTE)std::stoi(m[1])).m_bFileType))
                strFindings += strLine + "\n";
        }
        if (rc == 1 && strCheck.find("damage:") == std::string::npos) strFindings += strCheck;
        return strFindings;
    }
    // Stop, check, start again: what every step must survive. (That the
    // start loads each memory-mode file of the list as its file is is
    // checked after every command at unit level.)
    void Restart(const std::string& strStep)
    {
        Stop();
        ExpectAgreedAndServe(strStep);
    }
    void ExpectAgreedAndServe(const std::string& strStep)
    {
        EXPECT_EQ("", ListAgreesWithFiles()) << strStep;
        EXPECT_EQ("", OfflineFindings()) << strStep;
        Serve();
    }
};

} // namespace

TEST_F(FileCommandsE2E, CacheModeFilesAreAddedGrownMovedAndDroppedAcrossRestarts)
{
    ASSERT_EQ(0, File({"add", "--no", "7", "--type", "10", "--path", Path("Table7.dbf"), "--size-mib", "4"}));
    ASSERT_EQ(0, File({"add", "--no", "8", "--type", "11", "--path", Path("Index8.dbf"), "--size-mib", "4"}));
    Restart("add");
    EXPECT_STREQ(Path("Table7.dbf").c_str(), DiskRow(7).m_lpszFilePath);
    EXPECT_STREQ(Path("Index8.dbf").c_str(), DiskRow(8).m_lpszFilePath);

    // The cache grew the file ahead of its row: a size below what it has is
    // refused, a larger one reached.
    ASSERT_TRUE(WaitForReserve(Path("Table7.dbf")));
    long long nSize = FileSizeOf(Path("Table7.dbf"));
    ASSERT_GE(nSize, 4 * DB_MIB);
    File({"resize", "--no", "7", "--size", std::to_string(nSize - 4 * DB_MIB)}, FILECMD_RESIZE_FAILED);
    EXPECT_EQ(nSize, FileSizeOf(Path("Table7.dbf")));
    ASSERT_EQ(0, File({"resize", "--no", "7", "--size", std::to_string(nSize + 8 * DB_MIB)}));
    EXPECT_EQ(nSize + 8 * DB_MIB, FileSizeOf(Path("Table7.dbf")));
    Restart("grow");
    EXPECT_GE(Val(DiskRow(7).m_nFileSize), nSize + 8 * DB_MIB);

    ASSERT_EQ(0, File({"move", "--no", "8", "--path", Path("moved/Index8.dbf")}));
    EXPECT_EQ(-1, FileSizeOf(Path("Index8.dbf")));
    Restart("move");
    EXPECT_STREQ(Path("moved/Index8.dbf").c_str(), DiskRow(8).m_lpszFilePath);

    ASSERT_EQ(0, File({"drop", "--no", "7"}));
    EXPECT_EQ(-1, FileSizeOf(Path("Table7.dbf")));
    Restart("drop");
    EXPECT_EQ(0, DiskRow(7).m_bFileNo);
}

// The daemon killed at moments spread over the moves of a cache-mode file,
// then over its drop: each start (resuming a move the kill left unanswered
// while the next request is written into the same row) loads a list that
// agrees with the files. (A memory-mode file's move and drop cut at each of
// their steps are checked at unit level.)
TEST_F(FileCommandsE2E, ADaemonKilledDuringAMoveOrADropStartsAgain)
{
    ASSERT_EQ(0, File({"add", "--no", "10", "--type", "10", "--path", Path("Table10.dbf"), "--size-mib", "64"}));
    Restart("add");
    int nStep = 0;
    for (int nDelayMs : {5, 20, 50, 150, 300, 500}) {
        std::string strTo = Path("moved" + std::to_string(nStep++) + "/Table10.dbf");
        ASSERT_NO_FATAL_FAILURE(KillDuring({"move", "--no", "10", "--path", strTo}, nDelayMs, "move"));
    }
    ASSERT_NO_FATAL_FAILURE(KillDuring({"drop", "--no", "10"}, 60, "drop"));
}
