// End-to-end: the first start after an installation ("install"=1). The
// database was made in one directory and moved beside the program (its
// default directory, <root>/Data/Talvor/); the ini still names the old
// place. The daemon must take the copy beside it, move every row of the file
// list to the new directory, point the ini there and clear "install", and
// serve; the next start, in the usual mode, must find the same database.
#include "DatabaseLoadKit.h"

#include <csignal>
#include <cstdio>
#include <gtest/gtest.h>

using namespace talvortest;

namespace {

// The paths of the file list rows in a system file on disk.
std::vector<std::string> ListedPaths(const std::string& strSystem)
{
    std::vector<std::string> v;
    std::string s = ReadWholeFile(strSystem);
    if (s.size() < sizeof(SYSTEMFILEHEAD)) return v;
    DbForEachFileListRow((LPBYTE)&s[0], (long long)s.size(), [&](LPSYSTEMBLOCKHEAD, LPFILE_MEMDBFILEINFO lpRow) {
        if (lpRow->m_bFileNo != SYSTEMFILE_FILENO)
            v.push_back(std::string(lpRow->m_lpszFilePath, strnlen(lpRow->m_lpszFilePath, sizeof(lpRow->m_lpszFilePath))));
        return true;
    });
    return v;
}

std::string IniValue(const std::string& strIni, const std::string& strKey)
{
    size_t n = strIni.find("\n" + strKey + "=");
    if (n == std::string::npos) return "<missing>";
    n += strKey.size() + 2;
    return strIni.substr(n, strIni.find_first_of("\r\n", n) - n);
}

} // namespace

TEST(InstallTree, AMovedDatabaseIsTakenFromBesideTheProgramAndItsPathsFollow)
{
    ASSERT_TRUE(MkdbBuilt());
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    std::string strOld = box.Root() + "/Old/Talvor/";
    ASSERT_EQ(0, MakeDb(box, strOld, {"--data-file", "4", "--btree-file", "2"}));
    std::vector<std::string> vOldPaths = ListedPaths(strOld + "System.dbf");
    ASSERT_EQ(2u, vOldPaths.size());
    // The installer moved the files; the ini still names where they were.
    for (const std::string& strPath : ListFiles(strOld, "")) {
        std::string strName = strPath.substr(strPath.rfind('/') + 1);
        ASSERT_EQ(0, rename(strPath.c_str(), (box.DataDir() + strName).c_str())) << strPath;
    }
    WriteDbIni(box, strOld, "install=1\r\n");

    pid_t pid = box.StartDaemon();
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(WaitUntil([&] { return ListedPaths(box.DataDir() + "System.dbf").size() == 2 &&
                                       ListedPaths(box.DataDir() + "System.dbf")[0].find(box.DataDir()) == 0; },
                          DAEMON_START_TIMEOUT_MS))
        << "the file list still names the old directory";
    ASSERT_TRUE(box.WaitForTrace("Talvor storage service started!", DAEMON_START_TIMEOUT_MS)) << box.ReadDaemonTrace();
    std::string strIni = ReadWholeFile(box.IniPath());
    EXPECT_EQ(box.DataDir(), IniValue(strIni, "databasepath") + (IniValue(strIni, "databasepath").back() == '/' ? "" : "/"));
    EXPECT_EQ("0", IniValue(strIni, "install"));
    for (size_t i = 0; i < vOldPaths.size(); i++)
        EXPECT_EQ(box.DataDir() + vOldPaths[i].substr(strOld.size()), ListedPaths(box.DataDir() + "System.dbf")[i]);
    box.Signal(pid, SIGTERM);
    EXPECT_EQ(0, box.WaitExit(pid, DAEMON_STOP_TIMEOUT_MS));

    // The usual start finds the same database where the ini now points.
    std::string strFirst = box.ReadDaemonTrace();
    pid = box.StartDaemon();
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(WaitUntil([&] {
        std::string s = box.ReadDaemonTrace();
        return s.size() > strFirst.size() && s.find("Talvor storage service started!", strFirst.size()) != std::string::npos;
    }, DAEMON_START_TIMEOUT_MS)) << box.ReadDaemonTrace();
    box.Signal(pid, SIGTERM);
    EXPECT_EQ(0, box.WaitExit(pid, DAEMON_STOP_TIMEOUT_MS));
}
