// Dates against Python's datetime and the C library (timegm, localtime_r,
// strptime), on generated dates across years 1 to 9999, and the checks of
// their parts.

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
    CTalvorBufferPool pool;
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
        if (std::llabs(nDay) < 65536) {
            EXPECT_EQ(nBack, nMicros) << vRef[i];
            // The text, on the value at its exact microsecond, fixed and by format.
            char szFixed[40];
            EXPECT_EQ(CTalvorDate::FormatDateTime(date, szFixed, 6), 26);
            EXPECT_EQ(std::string(szFixed), vRef[i].substr(vRef[i].find('|') + 1));
            VARDATA v;
            ASSERT_EQ(CTalvorDate::Format(&pool, date, "%Y-%m-%d %H:%i:%s.%f", v), 0);
            EXPECT_EQ(std::string(v.m_lpszValue, v.m_nStrLen), szFixed);
            continue;
        }
        // Past 2079 the parts come in the power-of-ten unit wider than the
        // spacing of doubles: near the original, and exact for a value in
        // whole units.
        double dSpacing = (std::nextafter(date, 1e300) - date) * 86400e6;
        long long nUnit = 1;
        while ((double)nUnit <= dSpacing) nUnit *= 10;
        EXPECT_LE(std::llabs(nBack - nMicros), nUnit) << vRef[i];
        TALVORDATEPARTS unitParts = ref, back;
        unitParts.m_nMicrosecond = (int)(ref.m_nMicrosecond / nUnit * nUnit);
        DATE dUnit, dMillis;
        ASSERT_EQ(CTalvorDate::ConvertParts(dUnit, unitParts), 0);
        ASSERT_EQ(CTalvorDate::ConvertDateTime(dUnit, back), 0);
        EXPECT_EQ(std::make_pair(back.m_nSecond, back.m_nMicrosecond),
                  std::make_pair(unitParts.m_nSecond, unitParts.m_nMicrosecond)) << vRef[i];
        int nMillis = (int)(nMicros / 1000 % 1000), y2, mo2, d2, h2, mi2, s2, ms2;
        ASSERT_EQ(CTalvorDate::ConvertVariantTime(dMillis, y, mo, d, h, mi, sec, nMillis), 0);
        ASSERT_EQ(CTalvorDate::ConvertDateTime(dMillis, y2, mo2, d2, h2, mi2, s2, ms2), 0);
        EXPECT_EQ(std::make_pair(s2, ms2), std::make_pair(sec, nMillis)) << "milliseconds are kept " << vRef[i];
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

// Year to second of our parts and of the C library's, to compare at once.
using Fields = std::tuple<int, int, int, int, int, int>;
Fields FieldsOf(const TALVORDATEPARTS& p)
{
    return Fields(p.m_nYear, p.m_nMonth, p.m_nDay, p.m_nHour, p.m_nMinute, p.m_nSecond);
}
Fields FieldsOf(const struct tm& t)
{
    return Fields(t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
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
        EXPECT_EQ(FieldsOf(p), FieldsOf(t)) << c.m_lpszText;
    }
    // A fraction, two-digit years (70 is 2070, 71 is 1971), a time alone
    // (year 0); -1 is not checked.
    TALVORDATEPARTS p;
    struct { const char* m_lpszText; int m_nYear; int m_nHms; int m_nMicros; } arParts[] = {
        {"2021-03-04 05:06:07.123", 2021, 50607, 123000}, {"210304050607", 2021, 50607, -1}, {"10:11:12", 0, 101112, -1},
        {"70-1-1", 2070, -1, -1}, {"71-1-1", 1971, -1, -1}, {"00-1-1", 2000, -1, -1}};
    for (const auto& c : arParts) {
        ASSERT_EQ(parser.ParseDate(c.m_lpszText, (int)strlen(c.m_lpszText), p), 0) << c.m_lpszText;
        int nHms = p.m_nHour * 10000 + p.m_nMinute * 100 + p.m_nSecond;
        EXPECT_EQ(std::make_tuple(p.m_nYear, c.m_nHms < 0 ? -1 : nHms, c.m_nMicros < 0 ? -1 : p.m_nMicrosecond),
                  std::make_tuple(c.m_nYear, c.m_nHms, c.m_nMicros)) << c.m_lpszText;
    }
    struct { const char* m_lpszText; int m_nResult; } arBad[] = {{"1900-02-29", 49}, {"2021-13-01", 49},
        {"-2021-01-01", 1504}, {"2021-01-01x", 1504}, {"2021-01", 1504}, {"123456789-1-1", 1504},
        {"1-2-3-4-5-6-7-8-9", 1504}, {"", 1504},
        {"2021-01-01 10:11:12.5 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22", 1504}};
    for (const auto& c : arBad) EXPECT_EQ(parser.ParseDate(c.m_lpszText, (int)strlen(c.m_lpszText), p), c.m_nResult) << c.m_lpszText;
}

// Day numbers inside the years are held against datetime above; here the
// clamping of days past the years, the fixed forms with a fraction of three
// places, a date alone and a time alone.
TEST(DateRules, DayNumbersAndFixedForms)
{
    EXPECT_EQ(Text(1e9), "9999-12-31 23:59:59");
    EXPECT_EQ(Text(-1e9), "0000-00-00 00:00:00");
    char a[40], b[40], c[40];
    auto lens = std::make_tuple(CTalvorDate::FormatDateTime(25569.5, a, 3), CTalvorDate::FormatDate(25569.5, b),
                                CTalvorDate::FormatTime(25569.5, c));
    EXPECT_EQ(lens, std::make_tuple(23, 10, 8));
    EXPECT_EQ(std::string(a) + "|" + b + "|" + c, "1970-01-01 12:00:00.000|1970-01-01|12:00:00");
}

// Month ends of every kind are held against the server through the same
// month walk; here these members' own keeping of the time and their limits.
TEST(DateRules, MonthArithmeticClampsTheDay)
{
    DATE r;
    ASSERT_EQ(CTalvorDate::AddMonths(Make(2020, 1, 31, 10, 0, 0), 1, r), 0);
    EXPECT_EQ(Text(r), "2020-02-29 10:00:00");
    EXPECT_EQ(CTalvorDate::AddMonths(Make(9999, 12, 1), 1, r), TALVOR_DATE_INVALID_DATA);
    ASSERT_EQ(CTalvorDate::DataAddSub(Make(2020, 2, 29, 23, 59, 59), 1, 0, 1, 0, 0, 1, 0, r), 0);
    EXPECT_EQ(Text(r), "2021-03-02 00:00:00");
    EXPECT_EQ(CTalvorDate::DataAddSub(Make(9999, 12, 31), 0, 0, 1, 0, 0, 0, 0, r), TALVOR_DATE_INVALID_DATA);
    EXPECT_EQ(CTalvorDate::DataAddSub(Make(2000, 1, 1), 0x7fffffff, 0x7fffffff, 0, 0, 0, 0, 0, r), TALVOR_DATE_INVALID_DATA);
}

TEST(DateRules, RoundAndTruncByUnit)
{
    struct { int m_arIn[6]; const char* m_lpszUnit; const char* m_lpszRound; const char* m_lpszTrunc; } arCases[] = {
        {{2021, 7, 16, 13, 31, 31}, "HH", "2021-07-16 14:00:00", "2021-07-16 13:00:00"},
        {{2021, 7, 16, 23, 30, 0}, "HH24", "2021-07-17 00:00:00", "2021-07-16 23:00:00"},
        {{2021, 7, 16, 13, 29, 30}, "MI", "2021-07-16 13:30:00", "2021-07-16 13:29:00"},
        {{2021, 7, 16, 12, 0, 0}, "DD", "2021-07-17 00:00:00", "2021-07-16 00:00:00"},
        {{2021, 7, 16, 11, 59, 59}, "dd", "2021-07-16 00:00:00", "2021-07-16 00:00:00"},
        {{2021, 7, 16, 0, 0, 0}, "MM", "2021-08-01 00:00:00", "2021-07-01 00:00:00"},
        {{2021, 7, 15, 23, 0, 0}, "MONTH", "2021-07-01 00:00:00", "2021-07-01 00:00:00"},
        {{2021, 7, 1, 0, 0, 0}, "YYYY", "2022-01-01 00:00:00", "2021-01-01 00:00:00"},
        {{2021, 6, 30, 0, 0, 0}, "YEAR", "2021-01-01 00:00:00", "2021-01-01 00:00:00"},
        {{2021, 8, 16, 0, 0, 0}, "Q", "2021-10-01 00:00:00", "2021-07-01 00:00:00"},
        {{2021, 8, 15, 0, 0, 0}, "Q", "2021-07-01 00:00:00", "2021-07-01 00:00:00"},
        {{2051, 1, 1, 0, 0, 0}, "CC", "2101-01-01 00:00:00", "2001-01-01 00:00:00"},
        {{2021, 7, 16, 0, 0, 0}, "IW", "2021-07-19 00:00:00", "2021-07-12 00:00:00"},
        {{2021, 1, 9, 0, 0, 0}, "WW", "2021-01-08 00:00:00", "2021-01-08 00:00:00"}};
    for (const auto& c : arCases) {
        DATE d = Make(c.m_arIn[0], c.m_arIn[1], c.m_arIn[2], c.m_arIn[3], c.m_arIn[4], c.m_arIn[5]), r;
        ASSERT_EQ(CTalvorDate::Round(d, c.m_lpszUnit, r), 0) << c.m_lpszUnit;
        EXPECT_EQ(Text(r), c.m_lpszRound) << Text(d) << " " << c.m_lpszUnit;
        ASSERT_EQ(CTalvorDate::Trunc(d, c.m_lpszUnit, r), 0);
        EXPECT_EQ(Text(r), c.m_lpszTrunc) << Text(d) << " " << c.m_lpszUnit;
    }
    DATE r;
    EXPECT_EQ(CTalvorDate::Round(Make(2021, 1, 1), "XX", r), TALVOR_DATE_BAD_PARAMETER);
    EXPECT_EQ(CTalvorDate::Round(Make(9999, 12, 31, 12, 0, 0), "DD", r), TALVOR_DATE_INVALID_DATA);
}

// Oracle's picture tokens, and the MySQL tokens the server has no form of
// here. Every part by every unit is
// held against the server through EXTRACT, and times by format against its
// TIME_FORMAT; here what they never ask: an unknown part, the default text,
// a date part in a time.
TEST(DateRules, PictureTokensAndRefusals)
{
    CTalvorBufferPool pool;
    VARDATA v;
    DATE d = Make(2021, 9, 3, 14, 5, 6);
    ASSERT_EQ(CTalvorDate::Format(&pool, d, "yyyy Y,YYY yy MONTH Mon RM DDD DD DY DAY HH24 HH12 MI SS SSSSS AM Q CC J W WW IW", v), 0);
    EXPECT_EQ(std::string(v.m_lpszValue, v.m_nStrLen),
              "2021 2,021 21 September Sep IX 246 03 Fri Friday 14 02 05 06 50706 PM 3 21 2459461 1 36 35");
    ASSERT_EQ(CTalvorDate::Format(&pool, d, "%D %q %x-%v %X-%V", v), 0);
    EXPECT_EQ(std::string(v.m_lpszValue, v.m_nStrLen), "3rd %q 2021-35 2021-35");
    d = Make(2021, 3, 4, 5, 6, 7);
    EXPECT_EQ(CTalvorDate::GetCombinedData(&pool, d, 0, v), TALVOR_DATE_BAD_INTERVAL);
    TALVORTIME t = {5, 4, 13, 1};
    EXPECT_EQ(CTalvorDate::TimeFormat(&pool, t, "%Y", v), TALVOR_DATE_BAD_FORMAT);
}

// The zone offset and seconds since 1970 against localtime_r in a zone
// without summer time.
TEST(DateReference, ZonesAgainstLocaltime)
{
    setenv("TZ", "<+0530>-5:30", 1);
    tzset();
    EXPECT_DOUBLE_EQ(DbTimeZoneValue(), 5.5);
    std::mt19937_64 rng(3);
    for (int i = 0; i < 1000; ++i) {
        long t = (long)(rng() % 8000000000ULL) - 2000000000L;
        time_t tt = t;
        struct tm lt;
        localtime_r(&tt, &lt);
        TALVORDATEPARTS p;
        ASSERT_EQ(CTalvorDate::ConvertDateTime(ConvertTimetoDate(t), p), 0);
        // Whole seconds come back exactly, past 2079 too.
        EXPECT_EQ(std::make_pair(FieldsOf(p), p.m_nMicrosecond), std::make_pair(FieldsOf(lt), 0)) << t;
        // The same second as 100 ns ticks since 1601.
        unsigned long long ull = ((unsigned long long)(t + 11644473600LL)) * 10000000ULL;
        FILETIME ft = {(DWORD)ull, (DWORD)(ull >> 32)};
        EXPECT_NEAR(ConvertFileTimetoDate(ft), ConvertTimetoDate(t), 1e-9);
    }
    double dDays;
    for (const auto& c : {std::make_pair("+05:30", 5.5 / 24), std::make_pair("-12:00", -0.5),
                          std::make_pair("+13:00", 13.0 / 24)}) {
        EXPECT_EQ(CTalvorDate::TZToValue(c.first, dDays), 0);
        EXPECT_DOUBLE_EQ(dDays, c.second) << c.first;
    }
    for (const char* s : {"05:30", "+13:30", "-13:00", "+05:60", "+5", "+05:30x"})
        EXPECT_EQ(CTalvorDate::TZToValue(s, dDays), TALVOR_DATE_BAD_PARAMETER) << s;
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
// amounts it never sends: rounded ones, short compound ones, bad ones. Times
// of hours past a day are held against the server too; days and fields out
// of range are not sent there. The server adds hours and minutes to stored
// times; a time that goes below zero, takes a day, or leaves the range of a
// time is held here.
TEST(DateRules, IntervalAmountsTimeTextsAndStoredTimes)
{
    struct { INTERVAL_TYPE m_eType; BYTE m_bValueType; const char* m_lpszAmount; int m_nResult; const char* m_lpszText; }
        arCases[] = {{INTERVAL_DAY, 3, "1.5", 0, "2020-01-03 00:00:00"}, {INTERVAL_DAY, 240, "-1.5", 0, "2019-12-30 00:00:00"},
                     {INTERVAL_HOUR_MINUTE, 7, "5", 0, "2020-01-01 00:05:00"},
                     {INTERVAL_DAY, 1, "999999999999999", TALVOR_DATE_INVALID_DATA, nullptr},
                     {(INTERVAL_TYPE)22, 1, "1", TALVOR_DATE_BAD_INTERVAL, nullptr}};
    std::string s;
    VARDATA v;
    for (const auto& c : arCases) {
        VARDATA vInterval = IntervalOf(s, c.m_eType, c.m_bValueType, c.m_lpszAmount);
        EXPECT_EQ(CTalvorDate::DateAddSubInterval(nullptr, Make(2020, 1, 1), vInterval, v, TRUE), c.m_nResult)
            << c.m_lpszAmount;
        if (c.m_lpszText != nullptr) { EXPECT_EQ(Text(v.m_dblValue), c.m_lpszText) << c.m_lpszAmount; }
    }
    struct { const char* m_lpszText; int m_nResult; int m_nDay; int m_nHour; int m_nMinute; } arTimes[] = {
        {"-1:00:00", 0, -1, 23, 0}, {"2 03:04", 0, 2, 3, 4}, {"10:61:00", TALVOR_DATE_INVALID_DATA, 0, 0, 0},
        {"4000:00:00", TALVOR_DATE_INVALID_DATA, 0, 0, 0}};
    for (const auto& c : arTimes) {
        TALVORTIME t = {};
        ASSERT_EQ(CTalvorDate::ParseTime(t, c.m_lpszText, (int)strlen(c.m_lpszText)), c.m_nResult) << c.m_lpszText;
        if (c.m_nResult != 0) continue;
        EXPECT_EQ(std::make_tuple((int)t.m_nDay, (int)t.m_bHour, (int)t.m_bMintue),
                  std::make_tuple(c.m_nDay, c.m_nHour, c.m_nMinute)) << c.m_lpszText;
    }
    TALVORTIME t = {30, 20, 23, 0};
    ASSERT_EQ(CTalvorDate::DateAddSubInterval(nullptr, t, IntervalOf(s, INTERVAL_HOUR, 1, "25"), v, FALSE), 0);
    EXPECT_EQ(std::make_tuple((int)v.m_vt, (int)v.m_stTime.m_nDay, (int)v.m_stTime.m_bHour),
              std::make_tuple(TALVOR_VT_TIME, -1, 22));
    ASSERT_EQ(CTalvorDate::DateAddSubInterval(nullptr, t, IntervalOf(s, INTERVAL_DAY, 1, "1"), v, TRUE), 0);
    EXPECT_EQ(v.m_vt == TALVOR_VT_DATETIME ? Text(v.m_dblValue) : "not a date", "1899-12-31 23:20:30");
    EXPECT_EQ(CTalvorDate::DateAddSubInterval(nullptr, t, IntervalOf(s, INTERVAL_HOUR, 1, "5000"), v, TRUE),
              TALVOR_DATE_INVALID_DATA);
    EXPECT_EQ(v.m_vt, TALVOR_VT_NULL);
}

// Texts written by strftime, read back by strptime and by our format walk.
TEST(DateReference, ParsingByFormatAgainstStrptime)
{
    struct { const char* m_lpszC; const char* m_lpszOurs; } arFormats[] = {
        {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%i:%s"}, {"%d/%b/%Y", "%d/%b/%Y"},
        {"%B %d %Y %I:%M:%S %p", "%M %d %Y %h:%i:%s %p"}, {"%a, %d %b %Y %T", "%a, %d %b %Y %T"},
        {"%Y%j", "%Y%j"}, {"%A   %y.%m.%d", "%W %y.%m.%d"}, {"%d-%m-%Y %r", "DD-MM-YYYY %r"}};
    std::mt19937 rng(77);
    for (int i = 0; i < 3000; ++i) {
        struct tm t = {};
        t.tm_year = 71 + (int)(rng() % 98);
        t.tm_mday = 1;
        time_t tt = timegm(&t) + (time_t)(rng() % (365 * 86400));
        gmtime_r(&tt, &t);
        const auto& fmt = arFormats[i % (sizeof(arFormats) / sizeof(arFormats[0]))];
        char szText[128];
        strftime(szText, sizeof(szText), fmt.m_lpszC, &t);
        struct tm r = {};
        ASSERT_NE(strptime(szText, fmt.m_lpszC, &r), nullptr) << szText;
        TALVORDATEPARTS p;
        ASSERT_EQ(CTalvorDate::ParseDate(szText, fmt.m_lpszOurs, p), 0) << szText << " by " << fmt.m_lpszOurs;
        // strptime leaves the month and day of %j unset; unset parts of
        // ours stay -1.
        if (strstr(fmt.m_lpszC, "%j") != nullptr) {
            r.tm_mon = t.tm_mon;
            r.tm_mday = t.tm_mday;
        }
        if (strpbrk(fmt.m_lpszC, "HITr") == nullptr) r.tm_hour = r.tm_min = r.tm_sec = -1;
        EXPECT_EQ(FieldsOf(p), FieldsOf(r)) << szText;
    }
    TALVORDATEPARTS p;
    EXPECT_EQ(CTalvorDate::ParseDate("2021-02-30", "%Y-%m-%d", p), TALVOR_DATE_INVALID_DATA);
    EXPECT_EQ(CTalvorDate::ParseDate("2021/02/03", "%Y-%m-%d", p), TALVOR_DATE_BAD_FORMAT);
    EXPECT_EQ(CTalvorDate::ParseDate("2021-02-03 junk", "%Y-%m-%d", p), TALVOR_DATE_BAD_FORMAT);
    EXPECT_EQ(CTalvorDate::ParseDate("13:00:00 PM", "%r", p), TALVOR_DATE_INVALID_DATA);
    ASSERT_EQ(CTalvorDate::ParseDate("12:30:00 AM", "%r", p), 0);
    EXPECT_EQ(p.m_nHour, 0);
    ASSERT_EQ(CTalvorDate::ParseDate("5.25 100%", "%s.%f %j%%", p), 0);
    EXPECT_EQ(p.m_nMicrosecond, 250000);
}


// Checks against Python's datetime (which refuses exactly the parts that
// name no instant), the parsers' agreement with them, numbers of the forms
// YYYYMMDD and HHMMSS, and the year of the RR tokens against an injected
// current year.
const int BAD = TALVOR_DATE_INVALID_DATA;

// Parts around every edge (month 0 and 13, day 0 to 32, hour -1 and 24,
// minute and second 60, a fraction of -1 and a million, leap days of
// century years, years 0 and 10000) against datetime; the conversion to a
// day number, the free-form and the format parser refuse what the check
// refuses. The time parts alone, as a time without a date has them, against
// datetime's time, with and without the fraction.
TEST(DateChecks, CheckValidDateTimeAndBothParsersAgainstPythonDatetime)
{
    const char* const kReference = R"PY(
import sys, datetime
def code(make, parts):
    try:
        make(*parts); return 0
    except ValueError:
        return 49
for line in sys.stdin:
    p = list(map(int, line.split()))
    print(code(datetime.datetime, p), code(datetime.time, p[3:]), code(datetime.time, p[3:6]))
)PY";
    std::mt19937_64 rng(2100);
    const int arYears[] = {0, 1, 100, 1600, 1700, 1900, 2000, 2004, 2024, 2100, 9999, 10000};
    std::vector<TALVORDATEPARTS> vParts;
    std::vector<std::string> vLines;
    for (int i = 0; i < 5000; ++i) {
        // Every tenth a leap day, in a year that has one or not.
        bool bLeapDay = i % 10 == 0;
        TALVORDATEPARTS p = {i % 3 ? 1 + (int)(rng() % 9999) : arYears[rng() % 12], bLeapDay ? 2 : (int)(rng() % 14),
            bLeapDay ? 29 : (int)(rng() % 33), i % 40 == 1 ? -1 : (int)(rng() % 25), (int)(rng() % 61),
            (int)(rng() % 61), i % 8 ? (int)(rng() % 1000000) : i % 16 ? 1000000 : -1, 0, 0};
        char sz[96];
        snprintf(sz, sizeof(sz), "%d %d %d %d %d %d %d", p.m_nYear, p.m_nMonth, p.m_nDay, p.m_nHour, p.m_nMinute,
                 p.m_nSecond, p.m_nMicrosecond);
        vParts.push_back(p);
        vLines.push_back(sz);
    }
    std::vector<std::string> vRef = talvortest::RunPythonReference(kReference, vLines);
    ASSERT_EQ(vRef.size(), vLines.size());
    CTalvorDate parser;
    TALVORDATEPARTS r;
    for (size_t i = 0; i < vParts.size(); ++i) {
        const TALVORDATEPARTS& p = vParts[i];
        int nExpected, nTime, nWhole;
        ASSERT_EQ(sscanf(vRef[i].c_str(), "%d %d %d", &nExpected, &nTime, &nWhole), 3);
        TALVORDATEPARTS t = {0, 0, 0, p.m_nHour, p.m_nMinute, p.m_nSecond, p.m_nMicrosecond, 0, 0};
        // A time alone, with and without its fraction; as a date, month 0 is refused.
        EXPECT_EQ(std::make_tuple(CTalvorDate::CheckValidTime(t, false), CTalvorDate::CheckValidTime(t, true),
                                  CTalvorDate::CheckValidDateTime(t, true), CTalvorDate::CheckValidDateTime(t, false)),
                  std::make_tuple(nWhole, nTime, nTime, BAD)) << vLines[i];
        // The check leaves the years to the day number, which ends at 1 and 9999.
        bool bInYears = p.m_nYear >= 1 && p.m_nYear <= 9999;
        if (bInYears) { ASSERT_EQ(CTalvorDate::CheckValidDateTime(p, false), nExpected) << vLines[i]; }
        if (p.m_nMicrosecond > 999999) continue;  // six digits of text can't say it
        DATE date;
        EXPECT_EQ(CTalvorDate::ConvertParts(date, p), nExpected) << vLines[i];
        if (!bInYears || p.m_nMicrosecond < 0 || p.m_nHour < 0) continue;
        char sz[64];
        snprintf(sz, sizeof(sz), "%04d-%02d-%02d %02d:%02d:%02d.%06d", p.m_nYear, p.m_nMonth, p.m_nDay, p.m_nHour,
                 p.m_nMinute, p.m_nSecond, p.m_nMicrosecond);
        EXPECT_EQ(parser.ParseDate(sz, (int)strlen(sz), r), nExpected) << sz;
        EXPECT_EQ(CTalvorDate::ParseDate(sz, "%Y-%m-%d %H:%i:%s.%f", r), nExpected) << sz;
        EXPECT_EQ(parser.ParseDate(sz + 11, (int)strlen(sz + 11), r), nTime) << sz + 11;
    }
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
// its century, from that century less 50 to it plus 49; three or four
// digits are the year itself.
TEST(DateChecks, RrTokensParseAgainstTheInjectedYear)
{
    // Year -1: 29 February does not exist in the year RR gives.
    struct { const char* m_lpszText; const char* m_lpszFormat; int m_nCurrentYear; int m_nYear; } arCases[] = {{"05-03-01", "RR-MM-DD", 2026, 2005}, {"98-03-01", "RR-MM-DD", 2026, 1998},
        {"05-03-01", "RR-MM-DD", 2075, 2105}, {"98-03-01", "RR-MM-DD", 2075, 2098},
        {"01-MAR-49", "DD-MON-RR", 2050, 2149}, {"01-mar-50", "dd-mon-rr", 2049, 1950},
        {"01-03-05", "DD-MM-RRRR", 1999, 2005}, {"01-03-0005", "DD-MM-RRRR", 2160, 5},
        {"01-03-5", "DD-MM-RR", 2100, 2105}, {"00-02-29", "RR-MM-DD", 2020, 2000},
        {"00-02-29", "RR-MM-DD", 2060, -1}, {"01-03-999", "DD-MM-RRRR", 2026, 999}};
    for (const auto& c : arCases) {
        TALVORDATEPARTS s;
        int nResult = CTalvorDate::ParseDate(c.m_lpszText, c.m_lpszFormat, s, c.m_nCurrentYear);
        EXPECT_EQ(std::make_pair(nResult, nResult == 0 ? s.m_nYear : -1),
                  std::make_pair(c.m_nYear < 0 ? BAD : 0, c.m_nYear)) << c.m_lpszText << " in " << c.m_nCurrentYear;
    }
}

}  // namespace
