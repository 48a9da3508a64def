// Tests of the language switch, the two error tables, character conversion,
// the /proc readers (fed with malformed files), the stack helpers and the
// small functions.
#include "ConfigHelper.h"
#include "TalvorError.h"
#include "TempTree.h"
#include "TestClock.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <regex>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

using namespace talvortest;

namespace {

// The published code runs, kept here as text on purpose: the table must match
// them exactly, and a table built from the same list could not show a fault.
const char kCodeRuns[] =
    "0-127, 130-133, 140, 150-156, 200-203, 300-340, 345-346, 350-351, 360-363, 380, 500-524, 526, 529-542, "
    "545-546, 551-574, 580-583, 585, 590-595, 607-616, 650-657, 660-664, 670-671, 700-702, 710, 800-801, "
    "804-845, 870-872, 874, 900-912, 1000-1010, 1016-1038, 1040-1041, 1050-1080, 1085-1096, 1100-1105, "
    "1110-1112, 1150-1164, 1170-1172, 1200-1203, 1300, 1305-1310, 1313, 1315, 1500-1506, 1508-1551, "
    "1555-1558, 1560-1565, 1610, 1612, 1700-1703, 1800-1802, 2500-2501, 2600-2602, 3000-3009, 3500-3503, "
    "3550, 4000-4002, 4500-4503, 5000-5028, 5030-5038, 5100-5102, 5104-5107, 6000-6002, 6500-6501, "
    "8000-8002, 8010-8014, 8020-8021, 8030, 8050-8052, 8054-8055, 8100-8102, 8500-8506, 8510-8526, "
    "8600-8609, 9000-9037, 9500-9503, 10001-10045, 10050-10054, 10060-10064, 10070-10074";

std::vector<int> ExpandRuns(const std::string& strRuns)
{
    std::vector<int> codes;
    size_t nPos = 0;
    while (nPos < strRuns.size()) {
        size_t nComma = strRuns.find(',', nPos);
        std::string strPart = strRuns.substr(nPos, nComma == std::string::npos ? std::string::npos : nComma - nPos);
        int nLow = 0;
        int nHigh = 0;
        if (sscanf(strPart.c_str(), " %d-%d", &nLow, &nHigh) == 2) {
            for (int n = nLow; n <= nHigh; ++n) codes.push_back(n);
        } else if (sscanf(strPart.c_str(), " %d", &nLow) == 1) {
            codes.push_back(nLow);
        }
        if (nComma == std::string::npos) break;
        nPos = nComma + 1;
    }
    return codes;
}

// The conversions of a format text in order ("%%" is not one).
std::vector<std::string> Conversions(const char* lpsz)
{
    static const std::regex re("%%|%[-+ #0]*[0-9]*(\\.[0-9]+)?[hlLqjzt]*[diouxXeEfgGcsp]");
    std::vector<std::string> result;
    std::string str(lpsz);
    for (auto it = std::sregex_iterator(str.begin(), str.end(), re); it != std::sregex_iterator(); ++it) {
        if (it->str() != "%%") result.push_back(it->str());
    }
    return result;
}

bool IsValidUtf8(const char* lpsz)
{
    const unsigned char* p = reinterpret_cast<const unsigned char*>(lpsz);
    while (*p) {
        int nMore = 0;
        if (*p < 0x80) nMore = 0;
        else if ((*p & 0xE0) == 0xC0 && *p >= 0xC2) nMore = 1;
        else if ((*p & 0xF0) == 0xE0) nMore = 2;
        else if ((*p & 0xF8) == 0xF0 && *p <= 0xF4) nMore = 3;
        else return false;
        ++p;
        for (int i = 0; i < nMore; ++i, ++p) {
            if ((*p & 0xC0) != 0x80) return false;
        }
    }
    return true;
}


} // namespace

// ---------------------------------------------------------------------------
// Error tables.
// ---------------------------------------------------------------------------

TEST(ErrorTable, BothTablesHoldExactlyThePublishedRunsAscending)
{
    std::vector<int> expected = ExpandRuns(kCodeRuns);
    ASSERT_EQ(expected.size(), 782u);
    ASSERT_EQ(sizeof(g_pTalvorErrorDef) / sizeof(g_pTalvorErrorDef[0]), 782u);
    ASSERT_EQ(sizeof(g_pTalvorErrorDefE) / sizeof(g_pTalvorErrorDefE[0]), 782u);
    for (int i = 0; i < TALVOR_ERROR_COUNT; ++i) {
        ASSERT_EQ(g_pTalvorErrorDef[i].nErrorNO, expected[i]) << "Chinese row " << i;
        ASSERT_EQ(g_pTalvorErrorDefE[i].nErrorNO, expected[i]) << "English row " << i;
        if (i > 0) {
            ASSERT_LT(g_pTalvorErrorDef[i - 1].nErrorNO, g_pTalvorErrorDef[i].nErrorNO);
        }
    }
    EXPECT_EQ(g_pTalvorErrorDefE[781].nErrorNO, 10074);
}

TEST(ErrorTable, QuotedEnglishTextsAreVerbatim)
{
    const std::map<int, std::string> quoted = {
        {0, "OK"},
        {1, "Failed"},
        {2, "Exception"},
        {3, "Failed to allocate memory"},
        {27, "Lock wait timeout exceeded; try restarting transaction"},
        {73, "Socket communication congestion"},
        {74, "Socket communication timeout"},
        {97, "Failure: deadlock"},
        {119, "Data files less than 4MB are not supported"},
        {121, "The number of data files has reached the maximum"},
        {124, "System files are not allowed to be deleted"},
        {126, "The data files do not support reducing disk space"},
        {131, "The given save point was not found "},
        {153, "Unknown database '%s'"},
        {202, "Sequence values have reached their maximum"},
        {302, "Table '%s' doesn't exist"},
        {380, "Execution plan does not exist"},
        {523, "You have an error in your SQL syntax"},
        {526, "Field[%s] name exceeded the limit(32 byte)"},
        {1041, "Data truncated for column '%s' at row 1"},
        {1064, "Duplicate entry %s"},
        {1154, "Snapshot logs are out of date"},
        {1155, "Snapshot data is out of bounds"},
        {1560, "Access denied for user %s"},
        {1610, "Calling flashback is timeout"},
        {1802, "Overflow when converting Decimal to INT"},
        {4000, "MySQL client disconnected"},
        {5013, "Group network reception failed"},
        {9007, "Failed to delete FIFO"},
        {9500, "Storage does not have enough space to create new files"},
        {9501, "When initial loading index trunk and metadata, the cache is full"},
        {9503, "Failed to create storage thread"},
    };
    for (const auto& kv : quoted) EXPECT_EQ(std::string(GetErrorDescriptionE(kv.first)), kv.second) << kv.first;
}

TEST(ErrorTable, TwinsAgreeOnConversionsAndAreWellFormed)
{
    int nWithString = 0;
    for (int i = 0; i < TALVOR_ERROR_COUNT; ++i) {
        const TALVORERROR_DEF& zh = g_pTalvorErrorDef[i];
        const TALVORERROR_DEF& en = g_pTalvorErrorDefE[i];
        ASSERT_NE(memchr(zh.lpszDescription, 0, sizeof zh.lpszDescription), nullptr) << zh.nErrorNO;
        ASSERT_NE(memchr(en.lpszDescription, 0, sizeof en.lpszDescription), nullptr) << en.nErrorNO;
        EXPECT_NE(zh.lpszDescription[0], '\0') << zh.nErrorNO;
        EXPECT_NE(en.lpszDescription[0], '\0') << en.nErrorNO;
        EXPECT_TRUE(IsValidUtf8(zh.lpszDescription)) << zh.nErrorNO;
        // A Chinese row of plain ASCII would be an English text in the wrong table.
        bool bWide = false;
        for (const char* p = zh.lpszDescription; *p; ++p) bWide |= (unsigned char)*p >= 0x80;
        EXPECT_TRUE(bWide) << "Chinese row " << zh.nErrorNO << " has no Chinese text";
        for (const char* p = en.lpszDescription; *p; ++p) ASSERT_LT((unsigned char)*p, 0x80) << en.nErrorNO;

        std::vector<std::string> convZh = Conversions(zh.lpszDescription);
        std::vector<std::string> convEn = Conversions(en.lpszDescription);
        EXPECT_EQ(convZh, convEn) << "code " << en.nErrorNO;
        for (const std::string& c : convEn) EXPECT_EQ(c, "%s") << "code " << en.nErrorNO;
        if (!convEn.empty()) ++nWithString;
    }
    // About twenty rows are formats with one "%s".
    EXPECT_GE(nWithString, 15);
    EXPECT_LE(nWithString, 30);
}

TEST(ErrorTable, LookupFindsEveryRowAndRefusesCodesBetweenRuns)
{
    // Every row through the search, so that a wrong midpoint or bound shows.
    for (int i = 0; i < TALVOR_ERROR_COUNT; ++i) {
        EXPECT_EQ(GetErrorDescription(g_pTalvorErrorDef[i].nErrorNO), g_pTalvorErrorDef[i].lpszDescription) << i;
        EXPECT_EQ(GetErrorDescriptionE(g_pTalvorErrorDefE[i].nErrorNO), g_pTalvorErrorDefE[i].lpszDescription) << i;
    }
    EXPECT_STREQ(GetErrorDescriptionE(0), "OK");
    EXPECT_STREQ(GetErrorDescription(0), g_pTalvorErrorDef[0].lpszDescription);
    EXPECT_EQ(GetErrorDescriptionE(10074), g_pTalvorErrorDefE[781].lpszDescription);

    for (int nCode : {128, 129, 134, 139, 141, 525, 1039, 1611, 10000, 10046, 10075, -1, INT_MIN, INT_MAX}) {
        EXPECT_STREQ(GetErrorDescription(nCode), "未知错误码") << nCode;
        EXPECT_STREQ(GetErrorDescriptionE(nCode), "Unknown error!") << nCode;
    }
}

// ---------------------------------------------------------------------------
// Language and thread stack.
// ---------------------------------------------------------------------------

class LanguageSetting : public ::testing::Test {
protected:
    void SetUp() override
    {
        const char* p = getenv("TZ");
        m_bHadTz = p != nullptr;
        if (p) m_strTz = p;
        m_nLanguage = g_nLanguage_Chinese;
        m_nStack = g_nThreadStackSize;
    }
    void TearDown() override
    {
        if (m_bHadTz) setenv("TZ", m_strTz.c_str(), 1);
        else unsetenv("TZ");
        tzset();
        g_nLanguage_Chinese = m_nLanguage;
        g_nThreadStackSize = m_nStack;
    }
    static void Zone(const char* lpszZone)
    {
        setenv("TZ", lpszZone, 1);
        tzset();
    }
    // Reads the ini straight from the file.
    void FromFile(const std::string& strIni)
    {
        g_nLanguage_Chinese = -5;
        g_nThreadStackSize = -5;
        InitLanguageSettingFromFile(m_dir.File("TalvorConfig.ini", strIni).c_str());
    }
    // Reads the ini through the configuration singleton.
    void FromService(const std::string& strIni)
    {
        g_nLanguage_Chinese = -5;
        g_nThreadStackSize = -5;
        ASSERT_TRUE(TalvorConfigInit(m_dir.File("TalvorConfig.ini", strIni).c_str()));
        InitLanguageSetting(TRUE);
        TalvorConfigClose();
    }

    TempTree m_dir;
    bool m_bHadTz = false;
    std::string m_strTz;
    int m_nLanguage = 1;
    int m_nStack = 0;
};

TEST_F(LanguageSetting, ZoneDecidesWhenLanguageIsUnsetOnBothRoads)
{
    const std::string strNoKey = "[System]\ndatabasename=Talvor\n";
    const std::string strUnset = "[System]\nLanguage=77\n";
    const std::string strEnglish = "[System]\nLanguage=0\n";
    const std::string strChinese = "[System]\nLanguage=1\n";

    Zone("Asia/Shanghai");
    EXPECT_TRUE(IsLocalZoneUtcPlus8());
    FromFile(strNoKey);
    EXPECT_EQ(g_nLanguage_Chinese, 1);
    FromFile(strUnset);
    EXPECT_EQ(g_nLanguage_Chinese, 1);
    FromFile(strEnglish);
    EXPECT_EQ(g_nLanguage_Chinese, 0);
    FromService(strNoKey);
    EXPECT_EQ(g_nLanguage_Chinese, 1);
    FromService(strUnset);
    EXPECT_EQ(g_nLanguage_Chinese, 1);
    FromService(strEnglish);
    EXPECT_EQ(g_nLanguage_Chinese, 0);

    Zone("UTC");
    EXPECT_FALSE(IsLocalZoneUtcPlus8());
    FromFile(strNoKey);
    EXPECT_EQ(g_nLanguage_Chinese, 0);
    FromFile(strUnset);
    EXPECT_EQ(g_nLanguage_Chinese, 0);
    FromFile(strChinese);
    EXPECT_EQ(g_nLanguage_Chinese, 1);
    FromService(strNoKey);
    EXPECT_EQ(g_nLanguage_Chinese, 0);
    FromService(strUnset);
    EXPECT_EQ(g_nLanguage_Chinese, 0);
    FromService(strChinese);
    EXPECT_EQ(g_nLanguage_Chinese, 1);

    // Only +8:00 counts: not +9:00, and not 8 hours west of UTC.
    Zone("Asia/Tokyo");
    EXPECT_FALSE(IsLocalZoneUtcPlus8());
    Zone("XXX+8");
    EXPECT_FALSE(IsLocalZoneUtcPlus8());
    Zone("CST-8");
    EXPECT_TRUE(IsLocalZoneUtcPlus8());
}

TEST_F(LanguageSetting, OtherLanguageValuesAreTakenAsTheyAre)
{
    Zone("Asia/Shanghai");
    FromFile("[System]\nLanguage=5\n");
    EXPECT_EQ(g_nLanguage_Chinese, 5);
    // The key is in section "System" only.
    FromFile("[Other]\nLanguage=0\n");
    EXPECT_EQ(g_nLanguage_Chinese, 1);
    FromService("[Other]\nLanguage=0\n");
    EXPECT_EQ(g_nLanguage_Chinese, 1);
}

TEST_F(LanguageSetting, ThreadStackSizeIsBoundedMiB)
{
    const struct {
        const char* lpszValue;
        int nBytes;
    } cases[] = {
        {"0", 0x100000}, {"-1", 0x100000}, {"1", 0x100000}, {"3", 0x300000},
        {"10", 0xA00000}, {"11", 0xA00000}, {"2147483647", 0xA00000},
    };
    for (const auto& c : cases) {
        std::string strIni = std::string("[System]\nLanguage=0\nthreadstacksize=") + c.lpszValue + "\n";
        FromFile(strIni);
        EXPECT_EQ(g_nThreadStackSize, c.nBytes) << "file, value " << c.lpszValue;
        FromService(strIni);
        EXPECT_EQ(g_nThreadStackSize, c.nBytes) << "service, value " << c.lpszValue;
    }
    FromFile("[System]\nLanguage=0\n");
    EXPECT_EQ(g_nThreadStackSize, 0x100000);
    // A file that is not there leaves every key at its default.
    g_nThreadStackSize = -5;
    InitLanguageSettingFromFile((m_dir.Root() + "/absent.ini").c_str());
    EXPECT_EQ(g_nThreadStackSize, 0x100000);
}

TEST_F(LanguageSetting, ConfigPathIsBesideTheExecutable)
{
    char szExe[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", szExe, sizeof szExe - 1);
    ASSERT_GT(n, 0);
    szExe[n] = '\0';
    std::string strExe(szExe);
    std::string strExpected = strExe.substr(0, strExe.rfind('/') + 1) + "TalvorConfig.ini";

    char szPath[PATH_MAX];
    ASSERT_TRUE(GetConfigPathBesideExe(szPath, sizeof szPath));
    EXPECT_EQ(std::string(szPath), strExpected);

    // Exactly enough room, and one byte less.
    std::vector<char> exact(strExpected.size() + 1, 'x');
    EXPECT_TRUE(GetConfigPathBesideExe(exact.data(), exact.size()));
    EXPECT_EQ(std::string(exact.data()), strExpected);
    std::vector<char> shortBuf(strExpected.size(), 'x');
    EXPECT_FALSE(GetConfigPathBesideExe(shortBuf.data(), shortBuf.size()));
    EXPECT_EQ(shortBuf[0], '\0');

    // With no file there, the file-direct road falls back to the defaults.
    struct stat st;
    if (stat(strExpected.c_str(), &st) == 0) GTEST_SKIP() << "an ini lies beside the test binary";
    Zone("UTC");
    g_nThreadStackSize = -5;
    InitLanguageSetting(FALSE);
    EXPECT_EQ(g_nLanguage_Chinese, 0);
    EXPECT_EQ(g_nThreadStackSize, 0x100000);
}

// ---------------------------------------------------------------------------
// /proc readers.
// ---------------------------------------------------------------------------

TEST(MemInfo, EachValueComesOnlyFromItsOwnLine)
{
    TempTree dir;
    long long nTotal = -1, nFree = -1, nAvail = -1;

    get_mem_info_from(dir.File("ok", "MemTotal:       16000 kB\nMemFree:  3000 kB\nMemAvailable:   9000 kB\n"
                                     "Buffers: 5 kB\n")
                          .c_str(),
                      nTotal, nFree, nAvail);
    EXPECT_EQ(nTotal, 16000);
    EXPECT_EQ(nFree, 3000);
    EXPECT_EQ(nAvail, 9000);

    // MemFree missing: MemAvailable stands in the second position.
    get_mem_info_from(dir.File("missing", "MemTotal: 16000 kB\nMemAvailable: 9000 kB\nBuffers: 5 kB\n").c_str(),
                      nTotal, nFree, nAvail);
    EXPECT_EQ(nTotal, 16000);
    EXPECT_EQ(nFree, 0);
    EXPECT_EQ(nAvail, 0);

    // Misordered lines.
    get_mem_info_from(dir.File("order", "MemFree: 3000 kB\nMemTotal: 16000 kB\nMemAvailable: 9000 kB\n").c_str(),
                      nTotal, nFree, nAvail);
    EXPECT_EQ(nTotal, 0);
    EXPECT_EQ(nFree, 0);
    EXPECT_EQ(nAvail, 9000);

    // Labels that only begin like the wanted one, a number that does not fit,
    // a negative one, a missing one.
    get_mem_info_from(dir.File("bad", "MemTotalX: 16000 kB\nMemFree: 99999999999999999999999 kB\nMemAvailable:\n")
                          .c_str(),
                      nTotal, nFree, nAvail);
    EXPECT_EQ(nTotal, 0);
    EXPECT_EQ(nFree, 0);
    EXPECT_EQ(nAvail, 0);
    get_mem_info_from(dir.File("neg", "MemTotal: -7 kB\n").c_str(), nTotal, nFree, nAvail);
    EXPECT_EQ(nTotal, 0);
}

TEST(MemInfo, OverlongAndBinaryLinesNeitherOverrunNorShiftPositions)
{
    TempTree dir;
    long long nTotal = -1, nFree = -1, nAvail = -1;

    // A first line far longer than any buffer: it counts as one line, and the
    // next two are still read in their positions.
    std::string strLong = "MemTotal: " + std::string(100000, '7') + " kB\n";
    get_mem_info_from(dir.File("long", strLong + "MemFree: 3000 kB\nMemAvailable: 9000 kB\n").c_str(), nTotal, nFree,
                      nAvail);
    EXPECT_EQ(nTotal, 0);
    EXPECT_EQ(nFree, 3000);
    EXPECT_EQ(nAvail, 9000);

    // A label longer than a token buffer.
    get_mem_info_from(dir.File("label", std::string(5000, 'M') + ": 1 kB\nMemFree: 3 kB\n").c_str(), nTotal, nFree,
                      nAvail);
    EXPECT_EQ(nTotal, 0);
    EXPECT_EQ(nFree, 3);

    static const char kBinary[] = "MemTotal:\0 16000 kB\n\xff\xfe\x00\x01\nMemAvailable: 9 kB";
    std::string strBinary(kBinary, sizeof kBinary - 1);
    get_mem_info_from(dir.File("binary", strBinary).c_str(), nTotal, nFree, nAvail);
    EXPECT_EQ(nTotal, 0);
    EXPECT_EQ(nFree, 0);
    EXPECT_EQ(nAvail, 9); // last line without a newline still counts

    nTotal = nFree = nAvail = -1;
    get_mem_info_from(dir.File("empty", "").c_str(), nTotal, nFree, nAvail);
    EXPECT_EQ(nTotal + nFree + nAvail, 0);
    nTotal = nFree = nAvail = -1;
    get_mem_info_from((dir.Root() + "/absent").c_str(), nTotal, nFree, nAvail);
    EXPECT_EQ(nTotal, 0);
    EXPECT_EQ(nFree, 0);
    EXPECT_EQ(nAvail, 0);
}

TEST(MemInfo, RealMachineGivesPlausibleValues)
{
    long long nTotal = 0, nFree = 0, nAvail = 0;
    get_mem_info(nTotal, nFree, nAvail);
    EXPECT_GT(nTotal, 0);
    EXPECT_GT(nAvail, 0);
    EXPECT_LE(nFree, nTotal);
    EXPECT_LE(nAvail, nTotal);
}

TEST(CpuInfo, SamplesParseOnlyAWellFormedCpuLine)
{
    TempTree dir;
    TALVORCPUSAMPLE s;
    ASSERT_TRUE(read_cpu_sample_from(
        dir.File("ok", "cpu  10 20 30 400 50 6 7 8 0 0\ncpu0 1 1 1 1 1 1 1\n").c_str(), &s));
    EXPECT_EQ(s.ullTotal, 523u);
    EXPECT_EQ(s.ullIdle, 400u);

    EXPECT_FALSE(read_cpu_sample_from(dir.File("short", "cpu 1 2 3 4 5 6\n").c_str(), &s));
    EXPECT_FALSE(read_cpu_sample_from(dir.File("neg", "cpu 1 2 3 -4 5 6 7\n").c_str(), &s));
    EXPECT_FALSE(read_cpu_sample_from(dir.File("text", "cpu a b c d e f g\n").c_str(), &s));
    EXPECT_FALSE(read_cpu_sample_from(
        dir.File("huge", "cpu 99999999999999999999999 1 1 1 1 1 1\n").c_str(), &s));
    EXPECT_FALSE(read_cpu_sample_from(
        dir.File("sum", "cpu 18446744073709551615 1 0 0 0 0 0\n").c_str(), &s));
    EXPECT_FALSE(read_cpu_sample_from(dir.File("none", "intr 1 2 3\nctxt 5\n").c_str(), &s));
    EXPECT_FALSE(read_cpu_sample_from(dir.File("empty", "").c_str(), &s));
    EXPECT_FALSE(read_cpu_sample_from((dir.Root() + "/absent").c_str(), &s));
    EXPECT_EQ(s.ullTotal, 0u);
    // A cut overlong line cannot reach past its buffer either.
    EXPECT_FALSE(read_cpu_sample_from(dir.File("long", "cpu " + std::string(100000, '1') + "\n").c_str(), &s));
}

TEST(CpuInfo, RateIsBoundedAndRounded)
{
    EXPECT_EQ(cpu_rate_between({1000, 500}, {1200, 550}), 75);
    EXPECT_EQ(cpu_rate_between({0, 0}, {3, 2}), 33);   // 33.3
    EXPECT_EQ(cpu_rate_between({0, 0}, {8, 1}), 88);   // 87.5 rounds up
    EXPECT_EQ(cpu_rate_between({0, 0}, {10, 10}), 0);  // all idle
    EXPECT_EQ(cpu_rate_between({0, 0}, {10, 0}), 100); // all busy
    EXPECT_EQ(cpu_rate_between({100, 50}, {100, 50}), 0); // no time passed
    EXPECT_EQ(cpu_rate_between({200, 50}, {100, 60}), 0); // counters went back
    EXPECT_EQ(cpu_rate_between({100, 60}, {200, 50}), 0);
    EXPECT_EQ(cpu_rate_between({0, 0}, {10, 20}), 0);  // idle beyond total stays in range

    long long nStart = NowMs();
    int nRate = -1;
    get_cpu_info(nRate);
    long long nTookMs = NowMs() - nStart;
    EXPECT_GE(nRate, 0);
    EXPECT_LE(nRate, 100);
    EXPECT_GE(nTookMs, 900);
}

TEST(ProcessMem, StatusAndStatmOfAnyShape)
{
    TempTree dir;
    long long a = -1, b = -1, c = -1, d = -1, e = -1;
    std::string strStatus = "Name:\ttest\nVmPeak:\t  2000 kB\nVmSize:\t  1500 kB\nVmHWM:\t  700 kB\n"
                            "VmRSS:\t  600 kB\nVmSize:\t 9 kB\n";
    get_processmem_info_from(dir.File("status", strStatus).c_str(), dir.File("statm", "1 2 3 4 5 6 42\n").c_str(), a,
                             b, c, d, e);
    EXPECT_EQ(a, 1500); // the first VmSize line counts
    EXPECT_EQ(b, 2000);
    EXPECT_EQ(c, 600);
    EXPECT_EQ(d, 700);
    EXPECT_EQ(e, 42);

    // Missing lines, labels that only begin alike, garbage, a short statm.
    get_processmem_info_from(dir.File("status2", "VmSizeX: 5 kB\nVmRSS: lots\n" + std::string(9000, 'V') +
                                                     "\nVmHWM: 8 kB").c_str(),
                             dir.File("statm2", "1 2 3 4 5 6\n").c_str(), a, b, c, d, e);
    EXPECT_EQ(a, 0);
    EXPECT_EQ(b, 0);
    EXPECT_EQ(c, 0);
    EXPECT_EQ(d, 8);
    EXPECT_EQ(e, 0);

    a = b = c = d = e = -1;
    get_processmem_info_from((dir.Root() + "/none").c_str(), nullptr, a, b, c, d, e);
    EXPECT_EQ(a + b + c + d + e, 0);

    get_processmem_info(a, b, c, d, e);
    EXPECT_GT(a, 0);
    EXPECT_GE(b, a);
    EXPECT_GT(c, 0);
    EXPECT_GE(d, c);
    EXPECT_GE(e, 0);
}

// ---------------------------------------------------------------------------
// Character conversion.
// ---------------------------------------------------------------------------

TEST(CodeConvert, Utf8AndGb2312RoundTrip)
{
    char szUtf8[] = "中文测试abc";
    char szGb[64];
    ASSERT_EQ(CodeConvert("utf-8", "gb2312", szUtf8, strlen(szUtf8), szGb, sizeof szGb), 0);
    // Two bytes a character in GB2312: "中" is D6 D0, "文" is CE C4.
    ASSERT_EQ(strlen(szGb), 11u);
    EXPECT_EQ((unsigned char)szGb[0], 0xD6);
    EXPECT_EQ((unsigned char)szGb[1], 0xD0);
    EXPECT_EQ((unsigned char)szGb[2], 0xCE);
    EXPECT_EQ((unsigned char)szGb[3], 0xC4);
    EXPECT_STREQ(szGb + 8, "abc");

    char szBack[64];
    ASSERT_EQ(CodeConvert("gb2312", "utf-8", szGb, strlen(szGb), szBack, sizeof szBack), 0);
    EXPECT_STREQ(szBack, szUtf8);

    char* pAnsi = UTF8ConvertAnsi(szUtf8);
    ASSERT_NE(pAnsi, nullptr);
    EXPECT_STREQ(pAnsi, szGb);
    delete[] pAnsi;
}

TEST(CodeConvert, FailuresReportOneAndNeverOverrun)
{
    char szUtf8[] = "中文测试";
    // Room for the 8 converted bytes but not the terminator: refused, and the
    // byte past the given length is untouched.
    char szDest[10];
    memset(szDest, 'Z', sizeof szDest);
    EXPECT_EQ(CodeConvert("utf-8", "gb2312", szUtf8, strlen(szUtf8), szDest, 8), 1);
    EXPECT_EQ(szDest[7], '\0');
    EXPECT_EQ(szDest[8], 'Z');
    EXPECT_EQ(CodeConvert("utf-8", "gb2312", szUtf8, strlen(szUtf8), szDest, 9), 0);

    char szOut[32];
    EXPECT_EQ(CodeConvert("no-such-set", "gb2312", szUtf8, strlen(szUtf8), szOut, sizeof szOut), 1);
    EXPECT_EQ(szOut[0], '\0');
    char szBad[] = "\xff\xfe bad";
    EXPECT_EQ(CodeConvert("utf-8", "gb2312", szBad, strlen(szBad), szOut, sizeof szOut), 1);
    EXPECT_EQ(CodeConvert("utf-8", "gb2312", szUtf8, strlen(szUtf8), nullptr, 10), 1);
    EXPECT_EQ(CodeConvert("utf-8", "gb2312", szUtf8, strlen(szUtf8), szOut, 0), 1);
    EXPECT_EQ(CodeConvert("utf-8", "gb2312", szUtf8, 0, szOut, sizeof szOut), 0);
    EXPECT_EQ(szOut[0], '\0');

    // A character GB2312 lacks, and no input at all.
    char szEmoji[] = "\xF0\x9F\x98\x80";
    EXPECT_EQ(UTF8ConvertAnsi(szEmoji), nullptr);
    EXPECT_EQ(UTF8ConvertAnsi(nullptr), nullptr);
    char szEmpty[] = "";
    char* p = UTF8ConvertAnsi(szEmpty);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p[0], '\0');
    delete[] p;
}

// ---------------------------------------------------------------------------
// Stacks by the debugger.
// ---------------------------------------------------------------------------

TEST(StackHelpers, ScriptOutputStopsAtOneByteOfRoom)
{
    const int kSize = 100;
    std::vector<char> buf(kSize + 16, 'G');
    // Far more output than fits: the reader must stop, and the script must
    // not keep pclose waiting.
    int n = run_script_into_buffer("i=0; while [ $i -lt 20000 ]; do echo line$i; i=$((i+1)); done", buf.data(),
                                   kSize);
    EXPECT_EQ(n, kSize - 1);
    EXPECT_EQ(buf[kSize - 1], '\0');
    for (int i = kSize; i < kSize + 16; ++i) ASSERT_EQ(buf[i], 'G') << "byte " << i << " overwritten";
    EXPECT_EQ(std::string(buf.data(), 12), "line0\nline1\n");

    n = run_script_into_buffer("printf 'a\\nbb\\n'", buf.data(), kSize);
    EXPECT_EQ(n, 5);
    EXPECT_STREQ(buf.data(), "a\nbb\n");
    EXPECT_EQ(run_script_into_buffer("true", buf.data(), kSize), 0);
    EXPECT_EQ(buf[0], '\0');
    EXPECT_EQ(run_script_into_buffer("echo x", buf.data(), 1), 0);
    EXPECT_EQ(buf[0], '\0');
    EXPECT_EQ(run_script_into_buffer("echo x", nullptr, 10), 0);
}

TEST(StackHelpers, MissingDebuggerGivesZeroAtOnce)
{
    TempTree dir;
    const char* lpszOld = getenv("PATH");
    std::string strOld = lpszOld ? lpszOld : "";
    setenv("PATH", dir.Root().c_str(), 1);
    char szBuf[4096];
    memset(szBuf, 'Q', sizeof szBuf);
    long long nStart = NowMs();
    EXPECT_FALSE(is_debugger_available());
    int nThread =
        get_specified_thread_stacktrace_of_current_process((int)syscall(SYS_gettid), szBuf, (int)sizeof szBuf);
    EXPECT_EQ(szBuf[0], '\0');
    int nAll = get_all_thread_stacktrace_of_specified_process((char*)"unit_MessagesAndFacts", szBuf,
                                                              (int)sizeof szBuf);
    long long nTookMs = NowMs() - nStart;
    if (lpszOld) setenv("PATH", strOld.c_str(), 1);
    else unsetenv("PATH");
    EXPECT_EQ(nThread, 0);
    EXPECT_EQ(nAll, 0);
    EXPECT_EQ(szBuf[0], '\0');
    EXPECT_LT(nTookMs, 5000);
}

TEST(StackHelpers, ProcessNameIsNeverRunAsShell)
{
    TempTree dir;
    std::string strMark = dir.Root() + "/ran";
    std::string strName = "x;touch " + strMark;
    char szBuf[256];
    EXPECT_EQ(get_all_thread_stacktrace_of_specified_process(&strName[0], szBuf, (int)sizeof szBuf), 0);
    struct stat st;
    EXPECT_NE(stat(strMark.c_str(), &st), 0);
    EXPECT_EQ(get_all_thread_stacktrace_of_specified_process(nullptr, szBuf, (int)sizeof szBuf), 0);
}

TEST(StackHelpers, DebuggerShowsThisThreadsStack)
{
    if (!is_debugger_available()) GTEST_SKIP() << "no gdb on this machine";
    std::vector<char> buf(65536 + 8, 'G');
    int n = get_specified_thread_stacktrace_of_current_process((int)syscall(SYS_gettid), buf.data(), 65536);
    ASSERT_GT(n, 0);
    EXPECT_EQ((size_t)n, strlen(buf.data()));
    EXPECT_EQ(buf[65536], 'G');
    std::string strTrace(buf.data());
    EXPECT_EQ(strTrace.rfind("#0", 0), 0u) << strTrace;
    EXPECT_NE(strTrace.find("get_specified_thread_stacktrace_of_current_process"), std::string::npos) << strTrace;

    // A small buffer is filled to one byte of room and no further.
    std::vector<char> small(40 + 8, 'G');
    n = get_specified_thread_stacktrace_of_current_process((int)syscall(SYS_gettid), small.data(), 40);
    EXPECT_EQ(n, 39);
    EXPECT_EQ(small[39], '\0');
    EXPECT_EQ(small[40], 'G');
}

// ---------------------------------------------------------------------------
// Small functions.
// ---------------------------------------------------------------------------

TEST(SmallFunctions, StruprAbs64AndIsCharacter)
{
    char sz[] = "abz_AZ09-\xc3\xa4{`";
    EXPECT_EQ(strupr(sz), sz);
    EXPECT_STREQ(sz, "ABZ_AZ09-\xc3\xa4{`");
    EXPECT_EQ(strupr(nullptr), nullptr);

    EXPECT_EQ(_abs64(-5), 5);
    EXPECT_EQ(_abs64(5), 5);
    EXPECT_EQ(_abs64(0), 0);
    EXPECT_EQ(_abs64(-LLONG_MAX), LLONG_MAX);
    EXPECT_EQ(_abs64(LLONG_MIN), LLONG_MAX); // never a negative absolute value

    for (char c : std::string("azAZ./0123456789_")) EXPECT_TRUE(IsCharacter(c)) << c;
    for (char c : std::string("-:@[`{ \t,$")) EXPECT_FALSE(IsCharacter(c)) << c;
    EXPECT_FALSE(IsCharacter('\0'));
    EXPECT_FALSE(IsCharacter((char)0xC3));
}
