// Tests of the language switch, the error lookup, character conversion,
// the /proc readers (fed with malformed files), the stack helpers and the
// small functions.
#include "ConfigHelper.h"
#include "TalvorError.h"
#include "TempTree.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

using namespace talvortest;

// The rows themselves are checked where they are generated; what only a
// test can show is that the search finds each of them.
TEST(ErrorTable, LookupFindsEveryRowAndRefusesCodesBetweenRuns)
{
    // Every row through the search, so that a wrong midpoint or bound shows.
    for (int i = 0; i < TALVOR_ERROR_COUNT; ++i) {
        EXPECT_EQ(GetErrorDescription(g_pTalvorErrorDef[i].nErrorNO), g_pTalvorErrorDef[i].lpszDescription) << i;
        EXPECT_EQ(GetErrorDescriptionE(g_pTalvorErrorDefE[i].nErrorNO), g_pTalvorErrorDefE[i].lpszDescription) << i;
    }
    // Between two runs of codes, before the first and past the last.
    for (int nCode : {128, 10000, 10075, -1, INT_MAX}) {
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
    // In +8:00 an unset language is Chinese (1), elsewhere English (0); a
    // language set is taken, from the file and through the service alike.
    for (int nZoneLanguage : {1, 0}) {
        Zone(nZoneLanguage == 1 ? "Asia/Shanghai" : "UTC");
        EXPECT_EQ(nZoneLanguage == 1, (bool)IsLocalZoneUtcPlus8());
        const std::string strSet = "[System]\nLanguage=" + std::to_string(1 - nZoneLanguage) + "\n";
        for (const std::string* pIni : {&strNoKey, &strUnset, &strSet}) {
            int nWant = pIni == &strSet ? 1 - nZoneLanguage : nZoneLanguage;
            FromFile(*pIni);
            EXPECT_EQ(g_nLanguage_Chinese, nWant) << "file: " << *pIni;
            FromService(*pIni);
            EXPECT_EQ(g_nLanguage_Chinese, nWant) << "service: " << *pIni;
        }
    }

    // Only +8:00 counts: not +9:00, and not 8 hours west of UTC.
    Zone("Asia/Tokyo");
    EXPECT_FALSE(IsLocalZoneUtcPlus8());
    Zone("XXX+8");
    EXPECT_FALSE(IsLocalZoneUtcPlus8());
}

TEST_F(LanguageSetting, ThreadStackSizeIsBoundedMiB)
{
    const struct {
        const char* lpszValue;
        int nBytes;
    } cases[] = {
        {"0", 0x100000}, {"3", 0x300000}, {"11", 0xA00000},
    };
    for (const auto& c : cases) {
        std::string strIni = std::string("[System]\nLanguage=0\nthreadstacksize=") + c.lpszValue + "\n";
        FromFile(strIni);
        EXPECT_EQ(g_nThreadStackSize, c.nBytes) << "file, value " << c.lpszValue;
        FromService(strIni);
        EXPECT_EQ(g_nThreadStackSize, c.nBytes) << "service, value " << c.lpszValue;
    }
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
}

// ---------------------------------------------------------------------------
// /proc readers.
// ---------------------------------------------------------------------------

// Each value comes only from the line in its own position (MemTotal, MemFree,
// MemAvailable); a line that is missing, misordered, mislabelled, too long
// for any buffer or binary gives 0 and shifts no other; no file gives zeros.
TEST(MemInfo, EachValueComesOnlyFromItsOwnLineOfAnyShape)
{
    const struct {
        const char* m_lpWhat;
        std::string m_strText;
        long long m_nTotal, m_nFree, m_nAvail;
    } arCases[] = {
        {"whole", "MemTotal:       16000 kB\nMemFree:  3000 kB\nMemAvailable:   9000 kB\nBuffers: 5 kB\n", 16000, 3000, 9000},
        {"MemFree missing", "MemTotal: 16000 kB\nMemAvailable: 9000 kB\nBuffers: 5 kB\n", 16000, 0, 0},
        {"misordered", "MemFree: 3000 kB\nMemTotal: 16000 kB\nMemAvailable: 9000 kB\n", 0, 0, 9000},
        {"overlong first line", "MemTotal: " + std::string(100000, '7') + " kB\nMemFree: 3000 kB\nMemAvailable: 9000 kB\n",
         0, 3000, 9000},
    };
    TempTree dir;
    for (const auto& c : arCases) {
        long long nTotal = -1, nFree = -1, nAvail = -1;
        get_mem_info_from(dir.File("meminfo", c.m_strText).c_str(), nTotal, nFree, nAvail);
        EXPECT_EQ(c.m_nTotal, nTotal) << c.m_lpWhat;
        EXPECT_EQ(c.m_nFree, nFree) << c.m_lpWhat;
        EXPECT_EQ(c.m_nAvail, nAvail) << c.m_lpWhat;
    }
    long long nTotal = -1, nFree = -1, nAvail = -1;
    get_mem_info_from((dir.Root() + "/absent").c_str(), nTotal, nFree, nAvail);
    EXPECT_TRUE(nTotal == 0 && nFree == 0 && nAvail == 0) << nTotal << " " << nFree << " " << nAvail;
    get_mem_info(nTotal, nFree, nAvail);
    EXPECT_GT(nAvail, 0);
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
    EXPECT_FALSE(read_cpu_sample_from(
        dir.File("huge", "cpu 99999999999999999999999 1 1 1 1 1 1\n").c_str(), &s));
    EXPECT_FALSE(read_cpu_sample_from(
        dir.File("sum", "cpu 18446744073709551615 1 0 0 0 0 0\n").c_str(), &s));
    EXPECT_FALSE(read_cpu_sample_from(dir.File("none", "intr 1 2 3\nctxt 5\n").c_str(), &s));
    // A cut overlong line cannot reach past its buffer either.
    EXPECT_FALSE(read_cpu_sample_from(dir.File("long", "cpu " + std::string(100000, '1') + "\n").c_str(), &s));
}

TEST(CpuInfo, RateIsBoundedAndRounded)
{
    EXPECT_EQ(cpu_rate_between({1000, 500}, {1200, 550}), 75);
    EXPECT_EQ(cpu_rate_between({0, 0}, {8, 1}), 88);   // 87.5 rounds up
    EXPECT_EQ(cpu_rate_between({100, 50}, {100, 50}), 0); // no time passed
    EXPECT_EQ(cpu_rate_between({200, 50}, {100, 60}), 0); // counters went back
    EXPECT_EQ(cpu_rate_between({0, 0}, {10, 20}), 0);  // idle beyond total stays in range
    int nRate = -1;
    get_cpu_info(nRate);
    EXPECT_GE(nRate, 0);
    EXPECT_LE(nRate, 100);
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
    EXPECT_GE(d, c);
}

// ---------------------------------------------------------------------------
// Character conversion.
// ---------------------------------------------------------------------------

TEST(CodeConvert, Utf8AndGb2312RoundTrip)
{
    char szUtf8[] = "中文测试abc";
    char szGb[64];
    ASSERT_EQ(CodeConvert("utf-8", "gb2312", szUtf8, strlen(szUtf8), szGb, sizeof szGb), 0);
    // Two bytes a character in GB2312.
    EXPECT_STREQ(szGb, "\xD6\xD0\xCE\xC4\xB2\xE2\xCA\xD4" "abc");

    char szBack[64];
    ASSERT_EQ(CodeConvert("gb2312", "utf-8", szGb, strlen(szGb), szBack, sizeof szBack), 0);
    EXPECT_STREQ(szBack, szUtf8);

    char* pAnsi = UTF8ConvertAnsi(szUtf8);
    ASSERT_NE(pAnsi, nullptr);
    EXPECT_STREQ(pAnsi, szGb);
    delete[] pAnsi;

    // Room for the 8 converted bytes but not the terminator: refused, and the
    // byte past the given length is untouched.
    char szDest[10];
    memset(szDest, 'Z', sizeof szDest);
    EXPECT_EQ(CodeConvert("utf-8", "gb2312", szUtf8, 12, szDest, 8), 1);
    EXPECT_EQ(szDest[7], '\0');
    EXPECT_EQ(szDest[8], 'Z');
    EXPECT_EQ(CodeConvert("utf-8", "gb2312", szUtf8, 12, szDest, 9), 0);

    char szOut[32];
    EXPECT_EQ(CodeConvert("no-such-set", "gb2312", szUtf8, 12, szOut, sizeof szOut), 1);
    EXPECT_EQ(szOut[0], '\0');
    char szBad[] = "\xff\xfe bad";
    EXPECT_EQ(CodeConvert("utf-8", "gb2312", szBad, strlen(szBad), szOut, sizeof szOut), 1);
    // A character GB2312 lacks, and no input at all.
    char szEmoji[] = "\xF0\x9F\x98\x80";
    EXPECT_EQ(UTF8ConvertAnsi(szEmoji), nullptr);
    EXPECT_EQ(UTF8ConvertAnsi(nullptr), nullptr);
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
    EXPECT_EQ(run_script_into_buffer("echo x", buf.data(), 1), 0);
    EXPECT_EQ(buf[0], '\0');
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
    EXPECT_EQ(_abs64(-5), 5);
    EXPECT_EQ(_abs64(LLONG_MIN), LLONG_MAX); // never a negative absolute value

    for (char c : std::string("azAZ./0123456789_")) EXPECT_TRUE(IsCharacter(c)) << c;
    for (char c : std::string("-:@[`{ \t,$")) EXPECT_FALSE(IsCharacter(c)) << c;
    EXPECT_FALSE(IsCharacter((char)0xC3));
}
