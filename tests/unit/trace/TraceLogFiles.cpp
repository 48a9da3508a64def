// The files of both series: names (and their clash within one second), heads,
// and retention by count and by total size over one series at a time.
#include "TraceLogFixture.h"

#include <fcntl.h>
#include <regex>
#include <thread>
#include <sys/stat.h>

using namespace talvortest;

namespace {

class TraceLogFiles : public TraceLogFixture {
protected:
    // A file of the series with the given size (sparse: no blocks written).
    void MakeFile(const std::string& strName, long long nSize)
    {
        std::string strPath = LogDir() + strName;
        int fd = open(strPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0) << strPath;
        ASSERT_EQ(0, ftruncate(fd, nSize));
        close(fd);
    }

    // Names with distinct stamps, in the order of their stamps.
    static std::string ServiceName(int i)
    {
        char sz[64];
        snprintf(sz, sizeof(sz), "TalvorService2024%02d%02d120000.log", 1 + i / 28, 1 + i % 28);
        return sz;
    }

    // The next coarse file-time tick, so that ctimes differ.
    static void NextTick() { std::this_thread::sleep_for(std::chrono::milliseconds(15)); }

    bool Exists(const std::string& strName) const { return PathExists(LogDir() + strName); }
};

// Retention over one series: above 50 files or 1000 MiB the oldest by change
// time go (a name that sorts last may be the oldest); at the limits nothing
// goes; the other series and directories are not counted; and a total past
// 4 GiB is not hidden by a 32-bit sum (4.5 GiB would read as 0.5 GiB).
TEST_F(TraceLogFiles, RetentionByCountAndSizeRemovesTheOldestUntilWithin)
{
    const long long MIB = 1LL << 20;
    struct File {
        std::string m_strName;
        long long m_nSize;  // -1: a directory of the series' name
    };
    struct Case {
        const char* m_lpWhat;
        const char* m_lpSeries;
        std::vector<File> m_vFiles;  // oldest first, a tick apart
        size_t m_nLeft;
        std::vector<std::string> m_vGone;
    };
    std::vector<File> vFifty;
    for (int i = 0; i < 50; i++) vFifty.push_back({ServiceName(i), 10});
    std::vector<File> vOverCount = {{"TalvorService20991231235959.log", 10}};
    vOverCount.insert(vOverCount.end(), vFifty.begin(), vFifty.end());
    for (int i = 0; i < 5; i++) vOverCount.push_back({"TalvorStorage2020010100000" + std::to_string(i) + ".log", 10});
    std::vector<File> vWithDir = {{"TalvorServiceDir", -1}};
    vWithDir.insert(vWithDir.end(), vFifty.begin(), vFifty.end());
    const Case arCases[] = {
        {"count over fifty", "TalvorService", vOverCount, 50, {"TalvorService20991231235959.log"}},
        {"fifty files", "TalvorService", vFifty, 50, {}},
        {"a directory", "TalvorService", vWithDir, 51, {}},
        {"size over 1000 MiB", "TalvorStorage",
         {{"TalvorStorage20240101000000.log", 400 * MIB},
          {"TalvorStorage20240101000001.log", 400 * MIB},
          {"TalvorStorage20240101000002.log", 400 * MIB}},
         2, {"TalvorStorage20240101000000.log"}},
        {"exactly 1000 MiB", "TalvorStorage",
         {{"TalvorStorage20240101000000.log", 500 * MIB}, {"TalvorStorage20240101000001.log", 500 * MIB}}, 2, {}},
        {"past 4 GiB", "TalvorService",
         {{"TalvorService20240101000000.log", 2048 * MIB},
          {"TalvorService20240101000001.log", 2048 * MIB},
          {"TalvorService20240101000002.log", 512 * MIB}},
         1, {"TalvorService20240101000000.log", "TalvorService20240101000001.log"}},
    };
    for (const Case& c : arCases) {
        SCOPED_TRACE(c.m_lpWhat);
        size_t nOther = 0;
        for (size_t i = 0; i < c.m_vFiles.size(); i++) {
            const File& f = c.m_vFiles[i];
            if (f.m_nSize < 0) ASSERT_EQ(0, mkdir((LogDir() + f.m_strName).c_str(), 0755));
            else MakeFile(f.m_strName, f.m_nSize);
            if (f.m_strName.rfind(c.m_lpSeries, 0) != 0) nOther++;
            // Change times of a few files, or of the first, must differ.
            if (i == 0 || c.m_vFiles.size() <= 3) NextTick();
        }
        ASSERT_TRUE(CLogManager::instance().LogFileManage((std::string(c.m_lpSeries) + "*").c_str()));
        EXPECT_EQ(c.m_nLeft, Series(c.m_lpSeries).size());
        for (const std::string& strGone : c.m_vGone) EXPECT_FALSE(Exists(strGone)) << strGone;
        EXPECT_EQ(nOther, ListFiles(LogDir(), "").size() - Series(c.m_lpSeries).size()) << "the other series does not count";
        for (const File& f : c.m_vFiles) {
            std::string strPath = LogDir() + f.m_strName;
            if (f.m_nSize < 0) rmdir(strPath.c_str());
            else unlink(strPath.c_str());
        }
    }
}

TEST_F(TraceLogFiles, NameClashWithinOneSecondTakesTheNextName)
{
    char szFirst[512], szSecond[512], szThird[512];
    // Retry until all three fall into one second.
    for (int nTry = 0; nTry < 5; nTry++) {
        ASSERT_TRUE(TraceBuildFileName(LogDir().c_str(), "TalvorStorage", szFirst, sizeof(szFirst)));
        WriteWholeFile(szFirst, "earlier content");
        ASSERT_TRUE(TraceBuildFileName(LogDir().c_str(), "TalvorStorage", szSecond, sizeof(szSecond)));
        WriteWholeFile(szSecond, "x");
        ASSERT_TRUE(TraceBuildFileName(LogDir().c_str(), "TalvorStorage", szThird, sizeof(szThird)));
        std::string strFirst = szFirst;
        if (std::string(szThird).compare(0, strFirst.size() - 4, strFirst, 0, strFirst.size() - 4) == 0) break;
        unlink(szFirst);
        unlink(szSecond);
    }
    std::string strFirst = szFirst;
    std::regex reName(LogDir() + R"(TalvorStorage\d{14}\.log)");
    EXPECT_TRUE(std::regex_match(strFirst, reName)) << strFirst;
    EXPECT_EQ(strFirst.substr(0, strFirst.size() - 4) + "_01.log", szSecond);
    EXPECT_EQ(strFirst.substr(0, strFirst.size() - 4) + "_02.log", szThird);
    CTalvorAppendFile* pFile = TraceOpenNewFile(szThird);
    ASSERT_NE(nullptr, pFile);
    ASSERT_TRUE(CTalvorAppendFile::Close(pFile));
    EXPECT_EQ("earlier content", ReadWholeFile(szFirst));
    // Name order is the order of opening.
    std::vector<std::string> files = Series("TalvorStorage");
    ASSERT_EQ(3u, files.size());
    EXPECT_EQ(strFirst, files[0]);
    EXPECT_EQ(std::string(szThird), files[2]);
}

// Each head ends in the column line readers look for.
TEST_F(TraceLogFiles, HeadsOfBothSeriesEndInTheirColumnLine)
{
    std::string strPath = LogDir() + "head.txt";
    for (int nService : {1, 0}) {
        CTalvorAppendFile* pFile = CTalvorAppendFile::Create(strPath.c_str());
        ASSERT_NE(nullptr, pFile);
        if (nService) TraceWriteServiceHead(pFile, 4321);
        else TraceWriteStorageHead(pFile);
        ASSERT_TRUE(CTalvorAppendFile::Close(pFile));
        std::string strHead = ReadWholeFile(strPath);
        const char* lpFirst = nService ? "Service processid:4321\r\n" : "Nodename: ";
        EXPECT_EQ(0u, strHead.find(std::string("\xEF\xBB\xBF") + lpFirst));
        EXPECT_EQ("x", BodyOf(strHead + "x")) << strHead;
    }
}

TEST_F(TraceLogFiles, MovedInstallationMakesNoDirectories)
{
    ExitLogSystem();
    std::string strOther = m_strRoot + "/moved/";
    ASSERT_EQ(0, mkdir(strOther.c_str(), 0755));
    UseIni("[System]\r\ninstall=1\r\ndatabasepath=" + strOther + "\r\n");
    ASSERT_TRUE(InitLogSystem());
    EXPECT_NE(0, access((strOther + "Log").c_str(), F_OK));
    EXPECT_NE(0, access((strOther + "Redo").c_str(), F_OK));
}

TEST_F(TraceLogFiles, DatabasePathWithoutSlashGetsOneAndBothDirectoriesAreMade)
{
    ExitLogSystem();
    UseIni("[System]\r\ndatabasepath=" + m_strRoot + "\r\n");
    ASSERT_TRUE(InitLogSystem());
    EXPECT_EQ(LogDir(), CLogManager::instance().GetTraceDir());
    EXPECT_EQ(m_strRoot + "/Redo/", std::string(CLogManager::instance().m_lpRedoDir));
    EXPECT_TRUE(PathExists(LogDir()));
    EXPECT_TRUE(PathExists(m_strRoot + "/Redo"));
}

} // namespace
