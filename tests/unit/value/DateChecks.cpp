// Date and time checks against Python's datetime (which refuses exactly the
// parts that name no instant), the parsers' agreement with them, numbers of
// the forms YYYYMMDD and HHMMSS, and the year of the RR tokens against an
// injected current year.

#include "PythonReference.h"
#include "TalvorDate.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <vector>

namespace {

const int BAD = TALVOR_DATE_INVALID_DATA;

// Parts around every edge (month 0 and 13, day 0 to 32, hour 24, minute and
// second 60, a fraction of a million, leap days of century years, years 0
// and 10000) against datetime; the conversion to a day number, the
// free-form and the format parser refuse what the check refuses.
TEST(DateChecks, CheckValidDateTimeAndBothParsersAgainstPythonDatetime)
{
    const char* const kReference = R"PY(
import sys, datetime
for line in sys.stdin:
    try:
        datetime.datetime(*map(int, line.split())); print(0)
    except ValueError:
        print(49)
)PY";
    std::mt19937_64 rng(2100);
    const int arYears[] = {0, 1, 100, 1600, 1700, 1900, 2000, 2004, 2024, 2100, 9999, 10000};
    std::vector<TALVORDATEPARTS> vParts;
    std::vector<std::string> vLines;
    for (int i = 0; i < 5000; ++i) {
        // Every tenth a leap day, in a year that has one or not.
        bool bLeapDay = i % 10 == 0;
        TALVORDATEPARTS p = {i % 3 ? 1 + (int)(rng() % 9999) : arYears[rng() % 12], bLeapDay ? 2 : (int)(rng() % 14),
            bLeapDay ? 29 : (int)(rng() % 33), (int)(rng() % 25), (int)(rng() % 61), (int)(rng() % 61),
            i % 8 ? (int)(rng() % 1000000) : 1000000, 0, 0};
        char sz[96];
        snprintf(sz, sizeof(sz), "%d %d %d %d %d %d %d", p.m_nYear, p.m_nMonth, p.m_nDay, p.m_nHour, p.m_nMinute,
                 p.m_nSecond, p.m_nMicrosecond);
        vParts.push_back(p);
        vLines.push_back(sz);
    }
    std::vector<std::string> vRef = talvortest::RunPythonReference(kReference, vLines);
    ASSERT_EQ(vRef.size(), vLines.size());
    for (size_t i = 0; i < vParts.size(); ++i) {
        const TALVORDATEPARTS& p = vParts[i];
        int nExpected = std::stoi(vRef[i]);
        // The check leaves the years to the day number, which ends at 1 and 9999.
        bool bInYears = p.m_nYear >= 1 && p.m_nYear <= 9999;
        if (bInYears) {
            ASSERT_EQ(CTalvorDate::CheckValidDateTime(p, false), nExpected) << vLines[i];
        }
        if (p.m_nMicrosecond > 999999) continue;  // six digits of text can't say it
        DATE date;
        EXPECT_EQ(CTalvorDate::ConvertParts(date, p), nExpected) << vLines[i];
        if (!bInYears) continue;
        char sz[64];
        snprintf(sz, sizeof(sz), "%04d-%02d-%02d %02d:%02d:%02d.%06d", p.m_nYear, p.m_nMonth, p.m_nDay, p.m_nHour,
                 p.m_nMinute, p.m_nSecond, p.m_nMicrosecond);
        CTalvorDate parser;
        TALVORDATEPARTS r;
        EXPECT_EQ(parser.ParseDate(sz, (int)strlen(sz), r), nExpected) << sz;
        EXPECT_EQ(CTalvorDate::ParseDate(sz, "%Y-%m-%d %H:%i:%s.%f", r), nExpected) << sz;
    }
    EXPECT_EQ(CTalvorDate::CheckValidDay(2, 29, true), 0);
    EXPECT_EQ(CTalvorDate::CheckValidDay(2, 29, false), BAD);
}

TEST(DateChecks, TimeChecksAndTimeOnlyText)
{
    // Date parts 0, as a time alone has them: h, mi, s, us, then the results
    // of CheckValidTime without and with the fraction.
    const int arCases[][6] = {{23, 59, 59, 999999, 0, 0}, {24, 0, 0, 0, BAD, BAD}, {0, 60, 0, 0, BAD, BAD},
        {0, 0, 60, 0, BAD, BAD}, {-1, 0, 0, 0, BAD, BAD}, {0, 0, 0, 1000000, 0, BAD}, {0, 0, 0, -1, 0, BAD}};
    for (const auto& c : arCases) {
        TALVORDATEPARTS p = {0, 0, 0, c[0], c[1], c[2], c[3], 0, 0};
        EXPECT_EQ(CTalvorDate::CheckValidTime(p, false), c[4]) << c[0] << ":" << c[1] << ":" << c[2] << "." << c[3];
        EXPECT_EQ(CTalvorDate::CheckValidTime(p, true), c[5]) << c[3];
        EXPECT_EQ(CTalvorDate::CheckValidDateTime(p, true), c[5]) << c[3];
        EXPECT_EQ(CTalvorDate::CheckValidDateTime(p, false), BAD);  // month 0
    }
    CTalvorDate parser;
    TALVORDATEPARTS r;
    for (const char* t : {"23:59:59", "00:00:00.999999"}) EXPECT_EQ(parser.ParseDate(t, (int)strlen(t), r), 0) << t;
    for (const char* t : {"24:00:00", "12:60:00", "12:00:60"}) EXPECT_EQ(parser.ParseDate(t, (int)strlen(t), r), BAD) << t;
    // A year a day number can't hold is refused after the check passes.
    TALVORDATEPARTS stFar = {10000, 1, 1, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(CTalvorDate::CheckValidDateTime(stFar, false), 0);
    EXPECT_EQ(parser.ParseDate("10000-01-01", 11, r), BAD);
}

// Numbers split by their digit count; validity by Python's datetime.
TEST(DateChecks, NumbersAsDatesAndTimesAgainstPythonDatetime)
{
    const char* const kReference = R"PY(
import sys, datetime
for line in sys.stdin:
    kind, n = line.split(); n = int(n)
    a, b, c = n // 10000, n // 100 % 100, n % 100
    if kind == "d" and n <= 999999: a += 2000 if a < 71 else 1900
    try:
        if n < 0 or n > 99999999: raise ValueError
        datetime.date(a, b, c) if kind == "d" else datetime.time(a, b, c)
        print("0 %d %d %d" % (a, b, c))
    except ValueError:
        print("49 -7 -7 -7")
)PY";
    std::mt19937_64 rng(19830905);
    std::vector<long long> vNumbers = {-1, 0, 229, 700229, 710101, 999999, 1000101, 20000229, 21000229, 99991231,
                                       100000101, 235959, 240000, 6000, 60};
    for (int i = 0; i < 3000; ++i) vNumbers.push_back((long long)(rng() % (i % 2 ? 100000000 : 1000000)));
    std::vector<std::string> vLines;
    for (long long n : vNumbers) {
        vLines.push_back("d " + std::to_string(n));
        vLines.push_back("t " + std::to_string(n % 300000));
    }
    std::vector<std::string> vRef = talvortest::RunPythonReference(kReference, vLines);
    ASSERT_EQ(vRef.size(), vLines.size());
    for (size_t i = 0; i < vLines.size(); ++i) {
        long long n = std::stoll(vLines[i].substr(2));
        int a = -7, b = -7, c = -7;
        int nResult = vLines[i][0] == 'd' ? CTalvorDate::ValidDate(n, a, b, c) : CTalvorDate::ValidTime(n, a, b, c);
        EXPECT_EQ(std::to_string(nResult) + " " + std::to_string(a) + " " + std::to_string(b) + " " + std::to_string(c),
                  vRef[i]) << vLines[i];
    }
}

// RR places a year in the hundred years around the current year rounded to
// its century, from that century less 50 to it plus 49: every current year
// of a long span, every one- and two-digit year.
TEST(DateChecks, RoundedYearAcrossCenturyBoundaries)
{
    for (int nCurrent = 1000; nCurrent <= 3000; ++nCurrent) {
        int nFirst = (nCurrent + 50) / 100 * 100 - 50;
        for (int yy = 0; yy < 100; ++yy) {
            int nExpected = nFirst + ((yy - nFirst) % 100 + 100) % 100;
            ASSERT_EQ(CTalvorDate::RoundedYear(yy, 2, nCurrent), nExpected) << nCurrent << " " << yy;
            ASSERT_EQ(CTalvorDate::RoundedYear(yy, 1, nCurrent), nExpected) << nCurrent << " " << yy;
        }
    }
    EXPECT_EQ(CTalvorDate::RoundedYear(5, 4, 2099), 5);  // three or four digits are the year itself
    EXPECT_EQ(CTalvorDate::RoundedYear(999, 3, 2026), 999);
}

TEST(DateChecks, RrTokensParseAgainstTheInjectedYear)
{
    struct Case {
        const char* m_lpszText;
        const char* m_lpszFormat;
        int m_nCurrentYear;
        int m_nYear;  // -1: 29 February does not exist in the year RR gives
    };
    const Case arCases[] = {{"05-03-01", "RR-MM-DD", 2026, 2005}, {"98-03-01", "RR-MM-DD", 2026, 1998},
        {"05-03-01", "RR-MM-DD", 2075, 2105}, {"98-03-01", "RR-MM-DD", 2075, 2098},
        {"01-MAR-49", "DD-MON-RR", 2050, 2149}, {"01-mar-50", "dd-mon-rr", 2049, 1950},
        {"01-03-05", "DD-MM-RRRR", 1999, 2005}, {"01-03-2005", "DD-MM-RRRR", 2160, 2005},
        {"01-03-0005", "DD-MM-RRRR", 2160, 5}, {"01-03-5", "DD-MM-RR", 2100, 2105},
        {"00-02-29", "RR-MM-DD", 2020, 2000}, {"00-02-29", "RR-MM-DD", 1960, 2000},
        {"00-02-29", "RR-MM-DD", 2060, -1}, {"00-02-29", "RR-MM-DD", 1930, -1}};
    for (const Case& c : arCases) {
        TALVORDATEPARTS s;
        int nResult = CTalvorDate::ParseDate(c.m_lpszText, c.m_lpszFormat, s, c.m_nCurrentYear);
        EXPECT_EQ(nResult, c.m_nYear < 0 ? BAD : 0) << c.m_lpszText << " in " << c.m_nCurrentYear;
        if (c.m_nYear > 0) {
            EXPECT_EQ(s.m_nYear, c.m_nYear) << c.m_lpszText << " in " << c.m_nCurrentYear;
        }
    }
    // The form without a year reads the clock's.
    time_t tNow = time(nullptr);
    struct tm stNow;
    localtime_r(&tNow, &stNow);
    TALVORDATEPARTS s, sClock;
    ASSERT_EQ(CTalvorDate::ParseDate("07-01-01", "RR-MM-DD", sClock), 0);
    ASSERT_EQ(CTalvorDate::ParseDate("07-01-01", "RR-MM-DD", s, stNow.tm_year + 1900), 0);
    EXPECT_EQ(sClock.m_nYear, s.m_nYear);
}

}  // namespace
