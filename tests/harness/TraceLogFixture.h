// TraceLogFixture.h — a private database directory for trace-log tests: an
// ini that points there, a fresh log manager, and readers of both series.
#pragma once

#include "BreltMemStorage.h"
#include "DatabaseKit.h"
#include "LogManager.h"
#include "TestClock.h"
#include "TestFiles.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

namespace talvortest {

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
    int m_nThread, m_nLevel;
    long long m_nCode;
    std::string m_strFunction, m_strText;
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
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.Ok());
        m_strRoot = m_dir.Root();
    }

    // The log goes before the test's own members: it may still read a
    // system head they hold while it writes out what is queued.
    void TearDown() override { ExitLogSystem(); }

    void UseIni(const std::string& strText) { ASSERT_TRUE(m_dir.UseIni(strText)); }

    std::string LogDir() const { return m_dir.LogDir(); }
    std::vector<std::string> Series(const std::string& strSeries) const { return ListFiles(LogDir(), strSeries); }

    // The joined bodies of a series, in name order.
    std::string SeriesBody(const std::string& strSeries) const
    {
        std::string strAll;
        for (const std::string& strFile : Series(strSeries)) strAll += BodyOf(ReadWholeFile(strFile));
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

    // Lines of nCode whose text holds strText.
    static int CountText(const std::vector<TraceLine>& lines, long long nCode, const std::string& strText)
    {
        int n = 0;
        for (const TraceLine& line : lines) n += line.m_nCode == nCode && line.m_strText.find(strText) != std::string::npos;
        return n;
    }
    static bool HasText(const std::vector<TraceLine>& lines, long long nCode, const std::string& strText)
    {
        return CountText(lines, nCode, strText) > 0;
    }

    // A system head of which the log manager reads only the file size.
    void UseFileMaxSize(int nBytes)
    {
        m_vHead.assign(sizeof(SYSTEMFILEHEAD), 0);
        ((LPSYSTEMFILEHEAD)m_vHead.data())->m_nWriteTraceMaxSize = nBytes;
        CLogManager::instance().m_pMemoryFileHead = (LPSYSTEMFILEHEAD)m_vHead.data();
    }

    DatabaseDir m_dir;
    std::string m_strRoot;
    std::vector<BYTE> m_vHead;
};

} // namespace talvortest
