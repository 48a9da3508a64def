// Retention of the files of both series, by count and by total size over one
// series at a time. Names that clash within one second must neither empty an
// earlier file nor break the order of opening: the some 35 files of
// TraceLog.ManyThreadsGiveExactlyAllLinesIntactAcrossFileSwitches are opened
// within a fraction of a second.
#include "TraceLogFixture.h"

#include <unistd.h>
#include <thread>
#include <sys/stat.h>

using namespace talvortest;

namespace {

class TraceLogFiles : public TraceLogFixture {
protected:
    // Names with distinct stamps, in the order of their stamps.
    static std::string ServiceName(int i)
    {
        char sz[64];
        snprintf(sz, sizeof(sz), "TalvorService2024%02d%02d120000.log", 1 + i / 28, 1 + i % 28);
        return sz;
    }
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
            // A file of the given size is sparse: no blocks written.
            const std::string strPath = LogDir() + f.m_strName;
            if (f.m_nSize < 0) ASSERT_EQ(0, mkdir(strPath.c_str(), 0755));
            else ASSERT_TRUE(WriteWholeFile(strPath, "") && truncate(strPath.c_str(), f.m_nSize) == 0) << strPath;
            if (f.m_strName.rfind(c.m_lpSeries, 0) != 0) nOther++;
            // Change times of a few files, or of the first, must differ.
            if (i == 0 || c.m_vFiles.size() <= 3) std::this_thread::sleep_for(std::chrono::milliseconds(15));
        }
        ASSERT_TRUE(CLogManager::instance().LogFileManage((std::string(c.m_lpSeries) + "*").c_str()));
        EXPECT_EQ(c.m_nLeft, Series(c.m_lpSeries).size());
        for (const std::string& strGone : c.m_vGone) EXPECT_FALSE(PathExists(LogDir() + strGone)) << strGone;
        EXPECT_EQ(nOther, ListFiles(LogDir(), "").size() - Series(c.m_lpSeries).size()) << "the other series does not count";
        for (const File& f : c.m_vFiles) {
            std::string strPath = LogDir() + f.m_strName;
            if (f.m_nSize < 0) rmdir(strPath.c_str());
            else unlink(strPath.c_str());
        }
    }
}

} // namespace
