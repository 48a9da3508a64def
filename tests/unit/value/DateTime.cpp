// Dates against Python's datetime and the C library's strptime, on generated
// dates across years 1 to 9999, and the checks of their parts.

#include "PythonReference.h"
#include "TalvorDate.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace {

const long long MIN_DAY = -693593;  // 0001-01-01
const long long MAX_DAY = 2958465;  // 9999-12-31
const long long MICROS_PER_DAY = 86400000000LL;

// For each "day micros" line: the fields, the day of the week and of the
// year, then the fixed text with six places. Week numbers and the named
// tokens are held against the server by the SQL functions that use them.
const char* g_szReference = R"PY(
import sys, datetime
BASE = datetime.datetime(1899, 12, 30)
for line in sys.stdin:
    day, us = map(int, line.split())
    dt = BASE + datetime.timedelta(days=day, microseconds=us)
    print("%d %d %d %d %d %d %d %d %d|%s" % (dt.year, dt.month, dt.day, dt.hour, dt.minute, dt.second,
          dt.microsecond, (dt.weekday() + 1) % 7, dt.timetuple().tm_yday, dt.isoformat(" ", "microseconds")))
)PY";

TEST(DateReference, DayNumbersFieldsAndFixedText)
{
    // Day numbers (0 is 1899-12-30) and microseconds of the day.
    std::mt19937_64 rng(1899);
    std::vector<std::pair<long long, long long>> vSamples = {{0, 0}, {-1, 0}, {25569, MICROS_PER_DAY / 2},
        {MIN_DAY, 0}, {MAX_DAY, MICROS_PER_DAY - 1}, {65535, MICROS_PER_DAY - 1}, {-65535, 1}, {36584, 0}, {36585, 0}};
    for (int i = 0; i < 4000; ++i) {
        long long nDay = MIN_DAY + (long long)(rng() % (unsigned long long)(MAX_DAY - MIN_DAY + 1));
        if (i % 4 == 0) nDay = (long long)(rng() % 131072) - 65536;
        vSamples.push_back({nDay, (long long)(rng() % (unsigned long long)MICROS_PER_DAY)});
    }
    std::vector<std::string> vLines;
    for (const auto& s : vSamples) vLines.push_back(std::to_string(s.first) + " " + std::to_string(s.second));
    std::vector<std::string> vRef = talvortest::RunPythonReference(g_szReference, vLines);
    ASSERT_EQ(vRef.size(), vLines.size());
    for (size_t i = 0; i < vSamples.size(); ++i) {
        const long long nDay = vSamples[i].first, nMicros = vSamples[i].second;
        TALVORDATEPARTS p;
        int y, mo, d, h, mi, sec, us, dow, doy;
        ASSERT_EQ(sscanf(vRef[i].c_str(), "%d %d %d %d %d %d %d %d %d", &y, &mo, &d, &h, &mi, &sec, &us, &dow, &doy), 9);
        TALVORDATEPARTS ref = {y, mo, d, h, mi, sec, us, 0, 0};
        DATE date = 0;
        ASSERT_EQ(CTalvorDate::ConvertParts(date, ref), 0) << vRef[i];
        EXPECT_EQ((long long)std::floor(date), nDay) << vRef[i];
        ASSERT_EQ(CTalvorDate::ConvertDateTime(date, p), 0);
        EXPECT_EQ(std::make_tuple(p.m_nYear, p.m_nMonth, p.m_nDay, p.m_nDayOfWeek, p.m_nDayOfYear),
                  std::make_tuple(y, mo, d, dow, doy)) << vRef[i];
        long long nBack = ((p.m_nHour * 60LL + p.m_nMinute) * 60 + p.m_nSecond) * 1000000 + p.m_nMicrosecond;
        // Inside 1720 to 2079 exactly, with the text on the value at its
        // exact microsecond; past them the parts come in the power-of-ten
        // unit wider than the spacing of doubles: near the original.
        double dUnit = std::pow(10.0, std::floor(std::log10((std::nextafter(date, 1e300) - date) * 86400e6)) + 1);
        EXPECT_LE(std::llabs(nBack - nMicros), std::llabs(nDay) < 65536 ? 0.0 : dUnit) << vRef[i];
        char szFixed[40];
        if (std::llabs(nDay) >= 65536) continue;
        EXPECT_EQ(CTalvorDate::FormatDateTime(date, szFixed, 6), 26);
        EXPECT_EQ(std::string(szFixed), vRef[i].substr(vRef[i].find('|') + 1));
    }
}

DATE Make(int y, int mo, int d, int h = 0, int mi = 0, int s = 0)
{
    DATE date = 0;
    EXPECT_EQ(CTalvorDate::ConvertParts(date, TALVORDATEPARTS{y, mo, d, h, mi, s, 0, 0, 0}), 0);
    return date;
}

std::string Text(DATE date)
{
    char sz[40];
    CTalvorDate::FormatDateTime(date, sz, 0);
    return sz;
}

// Free-form texts against strptime of the same text by a matching format.
TEST(DateReference, FreeFormParsingAgainstStrptime)
{
    struct { const char* m_lpszText; const char* m_lpszFormat; } arCases[] = {
        {"2021-03-04", "%Y-%m-%d"}, {"2021/3/4 5:06:07", "%Y/%m/%d %H:%M:%S"},
        {"2021-03-04T05:06:07Z", "%Y-%m-%dT%H:%M:%SZ"},
        {"'2021-03-04 05:06:07'", "'%Y-%m-%d %H:%M:%S'"}, {"20210304050607", "%Y%m%d%H%M%S"}};
    CTalvorDate parser;
    for (const auto& c : arCases) {
        struct tm t = {};
        ASSERT_NE(strptime(c.m_lpszText, c.m_lpszFormat, &t), nullptr) << c.m_lpszText;
        TALVORDATEPARTS p;
        ASSERT_EQ(parser.ParseDate(c.m_lpszText, (int)strlen(c.m_lpszText), p), 0) << c.m_lpszText;
        EXPECT_EQ(std::make_tuple(p.m_nYear, p.m_nMonth, p.m_nDay, p.m_nHour, p.m_nMinute, p.m_nSecond),
                  std::make_tuple(t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec)) << c.m_lpszText;
    }
    // A fraction, two-digit years (70 is 2070, 71 is 1971), a time alone
    // (year 0); -1 is not checked.
    TALVORDATEPARTS p;
    struct { const char* m_lpszText; int m_nYear; int m_nHms; int m_nMicros; } arParts[] = {
        {"2021-03-04 05:06:07.123", 2021, 50607, 123000}, {"10:11:12", 0, 101112, -1}, {"70-1-1", 2070, -1, -1},
        {"71-1-1", 1971, -1, -1}};
    for (const auto& c : arParts) {
        ASSERT_EQ(parser.ParseDate(c.m_lpszText, (int)strlen(c.m_lpszText), p), 0) << c.m_lpszText;
        int nHms = p.m_nHour * 10000 + p.m_nMinute * 100 + p.m_nSecond;
        EXPECT_EQ(std::make_tuple(p.m_nYear, c.m_nHms < 0 ? -1 : nHms, c.m_nMicros < 0 ? -1 : p.m_nMicrosecond),
                  std::make_tuple(c.m_nYear, c.m_nHms, c.m_nMicros)) << c.m_lpszText;
    }
    struct { const char* m_lpszText; int m_nResult; } arBad[] = {{"1900-02-29", 49}, {"-2021-01-01", 1504},
        {"2021-01-01x", 1504}, {"2021-01", 1504}, {"123456789-1-1", 1504}, {"", 1504}, {"2021-13-01", 49},
        {"2021-04-31", 49}, {"2021-01-01 24:00:00", 49}, {"2021-01-01 10:60:00", 49}, {"10000-01-01", 49},
        {"2021-01-01 10:11:12.5 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22", 1504}};
    for (const auto& c : arBad) EXPECT_EQ(parser.ParseDate(c.m_lpszText, (int)strlen(c.m_lpszText), p), c.m_nResult) << c.m_lpszText;
}

// Month ends of every kind are held against the server through the same
// month walk; here the limits, and the units, parts and formats the server
// never asks for.
TEST(DateRules, MonthsUnitsAndFormatsRefuseWhatTheyCannotDo)
{
    CTalvorBufferPool pool;
    VARDATA v;
    DATE r, d = Make(2021, 3, 4, 5, 6, 7);
    // Days past the years are clamped to their ends.
    EXPECT_EQ(Text(1e9) + "|" + Text(-1e9), "9999-12-31 23:59:59|0000-00-00 00:00:00");
    EXPECT_EQ(CTalvorDate::AddMonths(Make(9999, 12, 1), 1, r), TALVOR_DATE_INVALID_DATA);
    EXPECT_EQ(CTalvorDate::DataAddSub(Make(9999, 12, 31), 0, 0, 1, 0, 0, 0, 0, r), TALVOR_DATE_INVALID_DATA);
    EXPECT_EQ(CTalvorDate::DataAddSub(Make(2000, 1, 1), 0x7fffffff, 0x7fffffff, 0, 0, 0, 0, 0, r), TALVOR_DATE_INVALID_DATA);
    EXPECT_EQ(CTalvorDate::Round(d, "XX", r), TALVOR_DATE_BAD_PARAMETER);
    EXPECT_EQ(CTalvorDate::Round(Make(9999, 12, 31, 12, 0, 0), "DD", r), TALVOR_DATE_INVALID_DATA);
    EXPECT_EQ(CTalvorDate::GetCombinedData(&pool, d, 0, v), TALVOR_DATE_BAD_INTERVAL);
    TALVORTIME t = {5, 4, 13, 1};
    EXPECT_EQ(CTalvorDate::TimeFormat(&pool, t, "%Y", v), TALVOR_DATE_BAD_FORMAT);
}

// An interval as the planner hands it over: a marker byte, the type, the
// amount's value type, then the amount's text; s keeps the bytes.
VARDATA IntervalOf(std::string& s, INTERVAL_TYPE eType, BYTE bValueType, const std::string& strValue)
{
    s = std::string(1, '\x01') + (char)eType + (char)bValueType + strValue;
    VARDATA v;
    memset(&v, 0, sizeof(v));
    v.AttachString(const_cast<char*>(s.c_str()), (int)s.size(), TALVOR_VT_TEXT);
    return v;
}

// Whole amounts of every unit are held against the server; here the
// amounts it never sends: an amount past any date, an interval of no type,
// times with fields out of range, and a stored time that leaves the range of
// a time.
TEST(DateRules, IntervalAmountsAndTimesOutOfRangeAreRefused)
{
    std::string s;
    VARDATA v;
    EXPECT_EQ(CTalvorDate::DateAddSubInterval(nullptr, Make(2020, 1, 1), IntervalOf(s, INTERVAL_DAY, 1, "999999999999999"), v, TRUE),
              TALVOR_DATE_INVALID_DATA);
    EXPECT_EQ(CTalvorDate::DateAddSubInterval(nullptr, Make(2020, 1, 1), IntervalOf(s, (INTERVAL_TYPE)22, 1, "1"), v, TRUE),
              TALVOR_DATE_BAD_INTERVAL);
    TALVORTIME t = {};
    for (const char* lpsz : {"10:61:00", "4000:00:00"})
        EXPECT_EQ(CTalvorDate::ParseTime(t, lpsz, (int)strlen(lpsz)), TALVOR_DATE_INVALID_DATA) << lpsz;
    t = {30, 20, 23, 0};
    EXPECT_EQ(CTalvorDate::DateAddSubInterval(nullptr, t, IntervalOf(s, INTERVAL_HOUR, 1, "5000"), v, TRUE),
              TALVOR_DATE_INVALID_DATA);
    EXPECT_EQ(v.m_vt, TALVOR_VT_NULL);
}

}  // namespace
