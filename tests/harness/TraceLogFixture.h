// TraceLogFixture.h — a private database directory for trace-log tests: an
// ini that points there, a fresh log manager, and readers of both series.
#pragma once

#include "BreltMemStorage.h"
#include "ConfigHelper.h"
#include "LogManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace tracetest {

inline long long NowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

template <class Pred> bool WaitUntil(Pred pred, long long nTimeoutMs)
{
    long long nEnd = NowMs() + nTimeoutMs;
    while (!pred()) {
        if (NowMs() > nEnd) return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

inline std::string ReadFile(const std::string& strPath)
{
    std::ifstream in(strPath, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline void WriteFile(const std::string& strPath, const std::string& strData)
{
    std::ofstream out(strPath, std::ios::binary | std::ios::trunc);
    out << strData;
}

inline std::vector<std::string> ListFiles(const std::string& strDir, const std::string& strPrefix)
{
    std::vector<std::string> files;
    DIR* pDir = opendir(strDir.c_str());
    if (pDir == nullptr) return files;
    while (struct dirent* pEntry = readdir(pDir)) {
        std::string strName = pEntry->d_name;
        if (strName.compare(0, strPrefix.size(), strPrefix) == 0) files.push_back(strDir + strName);
    }
    closedir(pDir);
    std::sort(files.begin(), files.end());
    return files;
}

// What follows the column line of a file of either series.
inline std::string BodyOf(const std::string& strFile)
{
    static const std::string arColumns[] = {
        "Timestamp Thread Level Code FuncationName Description",
        "Timestamp               Thread\tLevel    Code     FuncationName\t\tDescription"};
    for (const std::string& strColumns : arColumns) {
        size_t nPos = strFile.find(strColumns);
        if (nPos != std::string::npos) return strFile.substr(nPos + strColumns.size());
    }
    return std::string();
}

struct TraceLine {
    std::string m_strStamp;
    int m_nThread;
    int m_nLevel;
    long long m_nCode;
    std::string m_strFunction;
    std::string m_strText;
};

// Splits a daemon file body ("\r\n" + title + text, ...) into its lines;
// false if one does not have the title's shape.
inline bool ParseLines(const std::string& strBody, std::vector<TraceLine>& lines)
{
    // The title only: a regex over a 20 KiB text would recurse too deep.
    static const std::regex reTitle(
        R"(^(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}) (\d+)\t([ -]\d+)   ( *-?\d+) (\S*) )");
    size_t nPos = 0;
    while (nPos < strBody.size()) {
        if (strBody.compare(nPos, 2, "\r\n") != 0) return false;
        size_t nNext = strBody.find("\r\n", nPos + 2);
        std::string strLine = strBody.substr(nPos + 2, nNext == std::string::npos ? std::string::npos : nNext - nPos - 2);
        std::string strHead = strLine.substr(0, 512);
        std::smatch m;
        if (!std::regex_search(strHead, m, reTitle)) return false;
        lines.push_back({m[1], std::stoi(m[2]), std::stoi(m[3]), std::stoll(m[4]), m[5],
                         strLine.substr((size_t)m.length(0))});
        nPos = nNext == std::string::npos ? strBody.size() : nNext;
    }
    return true;
}

class TraceLogFixture : public ::testing::Test {
protected:
    static void SetUpTestSuite() {}

    void SetUp() override
    {
        ExitLogSystem();
        char szTemplate[] = "/tmp/talvor-trace-XXXXXX";
        ASSERT_NE(mkdtemp(szTemplate), nullptr);
        m_strRoot = szTemplate;
        m_nLanguage = g_nLanguage_Chinese;
        g_nLanguage_Chinese = 0;
        UseIni("[System]\r\ndatabasepath=" + m_strRoot + "/\r\nLanguage=0\r\n");
        ASSERT_TRUE(InitLogSystem());
    }

    void TearDown() override
    {
        ExitLogSystem();
        TalvorConfigClose();
        g_nLanguage_Chinese = m_nLanguage;
        if (getenv("TALVOR_KEEP_SANDBOX") == nullptr && m_strRoot.size() > 10) {
            int rc = system(("rm -rf '" + m_strRoot + "'").c_str());
            (void)rc;
        }
    }

    void UseIni(const std::string& strText)
    {
        WriteFile(m_strRoot + "/TalvorConfig.ini", strText);
        TalvorConfigClose();
        ASSERT_TRUE(TalvorConfigInit((m_strRoot + "/TalvorConfig.ini").c_str()));
    }

    std::string LogDir() const { return m_strRoot + "/Log/"; }
    std::vector<std::string> Series(const std::string& strSeries) const { return ListFiles(LogDir(), strSeries); }

    // The joined bodies of a series, in name order.
    std::string SeriesBody(const std::string& strSeries) const
    {
        std::string strAll;
        for (const std::string& strFile : Series(strSeries)) strAll += BodyOf(ReadFile(strFile));
        return strAll;
    }

    // Writes out what is queued and returns the daemon's lines so far.
    std::vector<TraceLine> DaemonLines()
    {
        CLogManager::instance().WriteAllTrace();
        std::vector<TraceLine> lines;
        EXPECT_TRUE(ParseLines(SeriesBody("TalvorStorage"), lines));
        return lines;
    }

    static bool HasText(const std::vector<TraceLine>& lines, long long nCode, const std::string& strText)
    {
        for (const TraceLine& line : lines) {
            if (line.m_nCode == nCode && line.m_strText.find(strText) != std::string::npos) return true;
        }
        return false;
    }

    std::string m_strRoot;
    int m_nLanguage = 1;
};

} // namespace tracetest
