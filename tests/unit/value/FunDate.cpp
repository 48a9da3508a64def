// The date and time family against Debian's MariaDB on generated dates
// (day numbers and ISO weeks among the parts). A part read from
// the wrong field, a week counted by the wrong mode, a month that does not
// clamp, a day lost across a leap year, or a distance rounded instead of
// cut shows up as a differing row.
//
// Deliberate differences from the server (ours first, then why):
// - DATE_FORMAT(d, '%l') is 01-12 as %I and %h; picture tokens ('day') are read too;
// - SEC_TO_TIME and MAKETIME are NULL past 3071:59:59: a time's days are a signed byte;
// - FROM_DAYS(100), UNIX_TIMESTAMP('1960-01-01'), YEAR(0) are NULL: dates start at 0001;
// - a stored time has no fraction; a date without a time is at its midnight;
// - TIME(20210230) is NULL: a number of 8 digits is a date or nothing;
// - ROUND(d, 'MM'), TO_CHAR, TO_DATE are Oracle's forms, beside MySQL's.
#include "FunReference.h"

using namespace talvortest;
using talvortest::Val;
using F = CBaseFunManager;

namespace {

Fn Part(int nFunction)
{
    return [nFunction](CTalvorBufferPool* p, VARDATA* a, VARDATA& r) {
        return CBaseFunManager::DateFuntion(p, a[0], r, nFunction);
    };
}

}  // namespace

TEST(FunDate, PartsWeeksAndFormatsOfGeneratedDatesMatchTheServer)
{
    CTalvorBufferPool pool;
    struct Named {
        const char* m_lpszSql;
        Fn m_fn;
    };
    // Time functions on a date without a time read it differently by design (above).
    auto IsClock = [](const Named& n) {
        return strstr("HOUR MINUTE SECOND TIME TIME_TO_SEC", n.m_lpszSql) != nullptr &&
               strcmp(n.m_lpszSql, "TIMESTAMP") != 0;
    };
    const std::vector<Named> vParts = {
        {"YEAR", Part(146)},         {"MONTH", Part(422)},       {"DAY", Part(420)},
        {"DAYOFMONTH", Part(540)},   {"HOUR", Part(419)},        {"MINUTE", Part(418)},
        {"SECOND", Part(417)},       {"QUARTER", Part(423)},     {"WEEK", Part(421)},
        {"WEEKOFYEAR", Part(628)},   {"DAYOFYEAR", Part(539)},   {"DAYOFWEEK", Part(541)},
        {"WEEKDAY", Part(627)},      {"MONTHNAME", Part(537)},   {"DAYNAME", Part(538)},
        {"TO_DAYS", Part(623)},      {"TO_SECONDS", Of1(&CBaseFunManager::To_Seconds)},
        {"DATE", Of1(&CBaseFunManager::Date)},        {"TIME", Of1(&CBaseFunManager::Time)},
        {"LAST_DAY", Of1(&CBaseFunManager::Last_Day)}, {"TIMESTAMP", Of1(&CBaseFunManager::TalvorTimeStamp)},
        {"TIME_TO_SEC", Of1(&CBaseFunManager::Time_To_Sec)}};
    const char* arFormats[] = {"%Y-%m-%d %H:%i:%s", "%a %b %e %D %j %c %k", "%W %M %y %p %I %h %S %f",
                               "%r %T %U %u %V %v %X %x %w %%"};
    std::vector<FunCase> v;
    for (const std::string& s : Dates(160, 11)) {
        bool bFull = s.size() > 10;
        for (int nForm = 0; nForm < (bFull ? 2 : 3); ++nForm) {
            // As text, as a typed date and time, and a date alone as a stored date.
            VARDATA a = nForm == 2 ? StoredDate(pool, s)
                        : nForm    ? DateTime(pool, bFull ? s : s + " 00:00:00")
                                   : Text(pool, s);
            std::string strArg = nForm == 2 ? "DATE" + Quote(s)
                                 : nForm    ? "TIMESTAMP" + Quote(bFull ? s : s + " 00:00:00")
                                            : Quote(s);
            for (const Named& n : vParts)
                if (bFull || nForm || !IsClock(n))
                    v.push_back(Call(pool, std::string(n.m_lpszSql) + "(" + strArg + ")", n.m_fn, {a}));
            for (int m = 0; m < 8; ++m)
                v.push_back(Call(pool, "YEARWEEK(" + strArg + "," + std::to_string(m) + ")",
                                 Of2(&CBaseFunManager::YearWeek),
                                 {a, Int(m)}));
            for (const IntervalUnit& unit : kIntervalUnits) {
                int nType = unit.nType;
                v.push_back(Call(pool, "EXTRACT(" + std::string(unit.lpszName) + " FROM " + strArg + ")",
                                 [nType](CTalvorBufferPool* p, VARDATA* x, VARDATA& r) {
                                     return CBaseFunManager::Extract(p, nType, x[0], r);
                                 },
                                 {a}));
            }
            for (const char* f : arFormats)
                v.push_back(Call(pool, "DATE_FORMAT(" + strArg + "," + Quote(f) + ")",
                                 Of2(&CBaseFunManager::DateFuntion),
                                 {a, Text(pool, f)}));
            if (s >= "1970-01-02" && s < "2038")
                v.push_back(Call(pool, "UNIX_TIMESTAMP(" + strArg + ")", Of1(&CBaseFunManager::Unix_TimeStamp), {a}));
        }
    }
    // Numbers stand for dates as YYYYMMDD, YYMMDD and YYYYMMDDhhmmss.
    for (long long n : {20210315LL, 210315LL, 991231LL, 20210315103000LL, 19991231235959LL, 20210230LL, 5LL})
        for (const Named& p : vParts)
            if (n != 20210230LL || !IsClock(p))
                v.push_back(Call(pool, std::string(p.m_lpszSql) + "(" + std::to_string(n) + ")", p.m_fn, {Int(n)}));
    CompareWithServer(v);
}

TEST(FunDate, TimesAndFormatsOfTimesMatchTheServer)
{
    CTalvorBufferPool pool;
    std::mt19937 rng(23);
    std::vector<FunCase> v;
    auto fnMake = Of3(&CBaseFunManager::MakeTime);
    auto fnSecToTime = Of1(&CBaseFunManager::Sec_To_Time);
    auto fnToSec = Of1(&CBaseFunManager::Time_To_Sec);
    auto fnFormat = Of2(&CBaseFunManager::Time_Format);
    for (int i = 0; i < 200; ++i) {
        long long h = (long long)(rng() % 1600) - 800, m = rng() % 62, s = rng() % 62;
        if (i % 3 == 0) h %= 24;
        v.push_back(CallOn(pool, "MAKETIME", fnMake, {ArgInt(h), ArgInt(m), ArgInt(s)}));
        long long n = (long long)(rng() % 5760000) - 2880000;
        v.push_back(CallOn(pool, "SEC_TO_TIME", fnSecToTime, {ArgInt(n)}));
        VARDATA t = Null();
        CBaseFunManager::Sec_To_Time(&pool, *std::vector<VARDATA>{Int(n)}.data(), t);
        std::string strTime = Show(t);
        v.push_back(CallOn(pool, "TIME_TO_SEC", fnToSec, {ArgText(strTime)}));
        v.push_back(Call(pool, "TIME_TO_SEC(TIME" + Quote(strTime) + ")", fnToSec, {t}));
        v.push_back(Call(pool, "SECOND(TIME" + Quote(strTime) + ")", Part(417), {t}));
        v.push_back(CallOn(pool, "HOUR", Part(419), {ArgText(strTime)}));
        v.push_back(CallOn(pool, "MINUTE", Part(418), {ArgText(strTime)}));
        const char* lpszFormat = n >= 0 && n < 86400 ? "%H %k %h %I %i %S %s %p %r %T %%" : "%H:%i:%s";
        v.push_back(CallOn(pool, "TIME_FORMAT", fnFormat, {ArgText(strTime), ArgText(lpszFormat)}));
    }
    for (long long n : {0LL, 1230LL, 101010LL, 1000000LL, -235959LL, 126000LL})
        v.push_back(CallOn(pool, "TIME_TO_SEC", fnToSec, {ArgInt(n)}));
    // Fractions of a second are read apart from the time they follow.
    for (const char* t :
         {"100:20:30.25", "-12:00:00.000001", "12:00:00.5", "10.5", "2021-03-15 10:20:30.123456", "00:00:01.1234567"})
        for (int u = 0; u < 4; ++u) {
            const IntervalUnit& unit = kIntervalUnits[u];  // MICROSECOND to HOUR
            v.push_back(CallOn(pool, unit.lpszName, Part(unit.nKeywordId), {ArgText(t)}));
        }
    const char* arLocales[] = {"USA", "JIS", "ISO", "EUR", "INTERNAL", "XYZ"};
    const char* arKinds[] = {"DATE", "TIME", "DATETIME", "TIMESTAMP"};
    for (int k = 0; k < 4; ++k)
        for (const char* l : arLocales) {
            int nType = 139 + k;
            v.push_back(Call(pool, "GET_FORMAT(" + std::string(arKinds[k]) + "," + Quote(l) + ")",
                             [nType](CTalvorBufferPool* p, VARDATA* x, VARDATA& r) {
                                 return CBaseFunManager::Get_Format(p, nType, x[0], r);
                             },
                             {Text(pool, l)}));
        }
    CompareWithServer(v);
}

// The clock is only bounded: the value itself moves.
TEST(FunDate, ClockReadingsLieBetweenTwoReadingsOfTheSystemClock)
{
    CTalvorBufferPool pool;
    time_t tBefore = ::time(nullptr);
    VARDATA vNow = Null(), vUtc = Null(), vDay = Null(), vClock = Null(), vUnix = Null(), vZone = Null();
    ASSERT_EQ(CBaseFunManager::SysDate(&pool, vNow, 344), 0);
    ASSERT_EQ(CBaseFunManager::UTC_DateTime(&pool, vUtc, 626), 0);
    ASSERT_EQ(CBaseFunManager::SysDate(&pool, vDay, 479), 0);
    ASSERT_EQ(CBaseFunManager::UTC_DateTime(&pool, vClock, 625), 0);
    ASSERT_EQ(CBaseFunManager::Unix_TimeStamp(&pool, vUnix), 0);
    ASSERT_EQ(CBaseFunManager::DbTimeZone(&pool, vZone), 0);
    time_t tAfter = ::time(nullptr);
    ASSERT_EQ(Val(vNow.m_vt), TALVOR_VT_DATETIME);
    ASSERT_EQ(Val(vDay.m_vt), TALVOR_VT_DATE);
    ASSERT_EQ(Val(vClock.m_vt), TALVOR_VT_TIME);
    EXPECT_GE(Val(vUnix.m_llValue), (long long)tBefore);
    EXPECT_LE(Val(vUnix.m_llValue), (long long)tAfter);
    // The process runs in UTC: every reading agrees.
    EXPECT_EQ(Show(vZone), "+00:00");
    VARDATA vSeconds = Null();
    ASSERT_EQ(CBaseFunManager::Unix_TimeStamp(&pool, vUtc, vSeconds), 0);
    EXPECT_GE(Val(vSeconds.m_llValue), (long long)tBefore);
    EXPECT_LE(Val(vSeconds.m_llValue), (long long)tAfter);
    EXPECT_EQ(Show(vNow).substr(0, 10), Show(vDay));
}

// Oracle's names: TO_CHAR and TO_DATE read and write the same picture.
TEST(FunDate, ToCharAndToDateRoundTripAndTakeTheirDefaults)
{
    CTalvorBufferPool pool;
    const char* lpszPicture = "YYYY-MM-DD HH24:MI:SS";
    for (const std::string& s : Dates(100, 41)) {
        std::string strFull = s.size() > 10 ? s : s + " 00:00:00";
        VARDATA vText = Text(pool, strFull), vFormat = Text(pool, lpszPicture), vDate = Null(), vBack = Null();
        ASSERT_EQ(CBaseFunManager::ToDate(&pool, vText, vFormat, vDate), 0);
        EXPECT_EQ(Show(vDate), strFull);
        VARDATA vEmpty = Text(pool, "");
        ASSERT_EQ(CBaseFunManager::ToChar(&pool, vDate, vBack, vEmpty), 0);
        EXPECT_EQ(Show(vBack), strFull);
        VARDATA vPicture = Text(pool, "DD/MM/YYYY"), vDay = Null();
        ASSERT_EQ(CBaseFunManager::ToChar(&pool, vText, vDay, vPicture), 0);
        EXPECT_EQ(Show(vDay), strFull.substr(8, 2) + "/" + strFull.substr(5, 2) + "/" + strFull.substr(0, 4));
    }
    VARDATA vDate = Null(), r = Null(), vEmpty = Text(pool, "");
    vDate.m_vt = TALVOR_VT_DATE;
    vDate.m_stDate = TALVORDATE{15, 3, 2021};
    ASSERT_EQ(CBaseFunManager::ToChar(&pool, vDate, r, vEmpty), 0);
    EXPECT_EQ(Show(r), "2021-03-15");
    // A number by a format of digits; a second point has no answer.
    VARDATA vNumber = Dbl(3.14159), vTwo = Text(pool, "999.99"), vBad = Text(pool, "9.9.9");
    ASSERT_EQ(CBaseFunManager::ToChar(&pool, vNumber, r, vTwo), 0);
    EXPECT_EQ(Show(r), "3.14");
    ASSERT_EQ(CBaseFunManager::ToChar(&pool, vNumber, r, vBad), 0);
    EXPECT_EQ(Val(r.m_vt), TALVOR_VT_NULL);
    VARDATA vNoDate = Text(pool, "31-02-2021"), vDmy = Text(pool, "DD-MM-YYYY");
    ASSERT_EQ(CBaseFunManager::ToDate(&pool, vNoDate, vDmy, r), 0);
    EXPECT_EQ(Val(r.m_vt), TALVOR_VT_NULL);
}

TEST(FunDate, NullInGivesNullOut)
{
    CTalvorBufferPool pool;
    typedef int (*Unary)(CTalvorBufferPool*, VARDATA&, VARDATA&);
    typedef int (*Binary)(CTalvorBufferPool*, VARDATA&, VARDATA&, VARDATA&);
    const Unary arUnary[] = {F::Date, F::Time, F::From_UnixTime, F::Unix_TimeStamp, F::From_Days, F::To_Days,
                             F::To_Seconds, F::Last_Day, F::Sec_To_Time, F::Time_To_Sec, F::TalvorTimeStamp,
                             F::YearWeek, F::ConvertToDateTime};
    const Binary arBinary[] = {F::ToDate, F::DateFuntion, F::From_UnixTime, F::DateDiff, F::MakeDate, F::TimeDiff,
                               F::TalvorTimeStamp, F::Period_Diff, F::PeriodAdd, F::YearWeek, F::Time_Format};
    for (size_t i = 0; i < sizeof(arUnary) / sizeof(arUnary[0]); ++i) {
        VARDATA a = Null(), r = Int(7);
        EXPECT_EQ(arUnary[i](&pool, a, r), 0) << i;
        EXPECT_EQ(Val(r.m_vt), TALVOR_VT_NULL) << i;
    }
    for (size_t i = 0; i < sizeof(arBinary) / sizeof(arBinary[0]); ++i)
        for (int nSide = 0; nSide < 2; ++nSide) {
            VARDATA a = nSide ? Text(pool, "2021-03-15") : Null(), b = nSide ? Null() : Text(pool, "%Y"), r = Int(7);
            EXPECT_EQ(arBinary[i](&pool, a, b, r), 0) << i;
            EXPECT_EQ(Val(r.m_vt), TALVOR_VT_NULL) << i << " side " << nSide;
        }
    VARDATA a = Null(), b = Text(pool, "2021-03-15");
    ExpectNullResult([&](VARDATA& x) { return F::DateFuntion(&pool, a, x, 146); }, "YEAR");
    ExpectNullResult([&](VARDATA& x) { return F::Extract(&pool, 10, a, x); }, "EXTRACT");
    ExpectNullResult([&](VARDATA& x) { return F::ToChar(&pool, b, x, a); }, "TO_CHAR");
    ExpectNullResult([&](VARDATA& x) { return F::AddSubDate(&pool, a, b, x, TRUE); }, "DATE_ADD");
    ExpectNullResult([&](VARDATA& x) { return F::TimeStampDiff(&pool, 8, a, b, x); }, "TIMESTAMPDIFF");
    ExpectNullResult([&](VARDATA& x) { return F::MakeTime(&pool, b, a, b, x); }, "MAKETIME");
}

// Date arithmetic against Debian's MariaDB on generated dates and amounts:
// intervals of every unit added and taken away, distances in whole units
// (months by the calendar, cut towards zero), times added to dates and to
// times, seconds since 1970, periods and day counts. A month that does not
// clamp, a carry lost across midnight or a year, a distance rounded instead
// of cut, or a date that turns into a date and time shows up here.
//
// Deliberate differences from the server (more at the top):
// - dates are years 1 to 9999: DATE_ADD('0001-01-01', INTERVAL -1 MONTH) is NULL;
// - a date is a double of days: microseconds are exact only from 1720 to 2079;
// - CONVERT_TZ moves any date by the offsets, not only 1970 to 2038;
// - ADDTIME('2020-12-31', t) adds t to the date's midnight.
namespace {

// An amount of nType: a number for a simple unit, text for a compound one.
// Fractions of a second are never whole, so that both sides show one.
std::string Amount(int nType, std::mt19937& rng)
{
    auto n = [&](int nMax) { return std::to_string((long long)(rng() % (unsigned)nMax)); };
    std::string strSign = rng() % 3 == 0 ? "-" : "";
    std::string strMicros = std::to_string(100001 + rng() % 899998);
    switch (nType) {
    case 1: return strSign + std::to_string(1 + rng() % 99999998 * 10 + 1);
    case 3:
    case 4:
    case 5: return strSign + n(100000);
    case 6:
    case 7: return strSign + n(3000);
    case 8:
    case 9: return strSign + n(400);
    case 10: return strSign + n(60);
    case 11: return "'" + strSign + n(100) + "." + strMicros + "'";
    case 12: return "'" + strSign + n(100) + ":" + n(60) + "." + strMicros + "'";
    case 13: return "'" + strSign + n(100) + ":" + n(60) + "'";
    case 14: return "'" + strSign + n(100) + ":" + n(60) + ":" + n(60) + "." + strMicros + "'";
    case 15: return "'" + strSign + n(100) + ":" + n(60) + ":" + n(60) + "'";
    case 16: return "'" + strSign + n(100) + ":" + n(60) + "'";
    case 17: return "'" + strSign + n(100) + " " + n(24) + ":" + n(60) + ":" + n(60) + "." + strMicros + "'";
    case 18: return "'" + strSign + n(100) + " " + n(24) + ":" + n(60) + ":" + n(60) + "'";
    case 19: return "'" + strSign + n(100) + " " + n(24) + ":" + n(60) + "'";
    case 20: return "'" + strSign + n(100) + " " + n(24) + "'";
    default: return "'" + strSign + n(30) + "-" + n(12) + "'";
    }
}

// A value of the amount as the SQL text gives it: quoted text, or a number.
VARDATA AmountValue(CTalvorBufferPool& pool, const std::string& s)
{
    if (s[0] == '\'') return Text(pool, s.substr(1, s.size() - 2));
    return Int(atoll(s.c_str()));
}

// A member that adds or takes away by its flag, as a call of two arguments.
Fn AddSub(int (*fn)(CTalvorBufferPool*, VARDATA&, VARDATA&, VARDATA&, BOOL), BOOL bAdd)
{
    return [fn, bAdd](CTalvorBufferPool* p, VARDATA* x, VARDATA& r) { return fn(p, x[0], x[1], r, bAdd); };
}

std::string TimeOfDay(std::mt19937& rng, int nMaxHours)
{
    return std::to_string(rng() % (unsigned)nMaxHours) + ":" + Two((int)(rng() % 60)) + ":" + Two((int)(rng() % 60));
}

}  // namespace

TEST(FunDateArith, IntervalsOfEveryUnitAddAndSubtractAsTheServerDoes)
{
    CTalvorBufferPool pool;
    std::mt19937 rng(47);
    std::vector<FunCase> v;
    Fn fnAdd = AddSub(&F::AddSubDate, TRUE), fnSub = AddSub(&F::AddSubDate, FALSE);
    for (const std::string& s : Dates(60, 53)) {
        VARDATA a = Text(pool, s);
        // Microseconds are exact only where the double keeps them (above).
        bool bMicros = s >= "1721" && s < "2079";
        for (const IntervalUnit& unit : kIntervalUnits) {
            int t = unit.nType;
            if (!bMicros && (t == 1 || t == 11 || t == 12 || t == 14 || t == 17)) continue;
            std::string strAmount = Amount(t, rng);
            VARDATA vInterval = Null();
            VARDATA vAmount = AmountValue(pool, strAmount);
            ASSERT_EQ(CBaseFunManager::Interval2(&pool, vAmount, t, vInterval), 0);
            std::string strInterval = "INTERVAL " + strAmount + " " + unit.lpszName;
            bool bAdd = rng() % 2 == 0;
            v.push_back(Call(pool, std::string(bAdd ? "DATE_ADD(" : "DATE_SUB(") + Quote(s) + ", " + strInterval + ")",
                             bAdd ? fnAdd : fnSub, {a, vInterval}));
        }
        long long nDays = (long long)(rng() % 20000) - 10000;
        v.push_back(Call(pool, "ADDDATE(" + Quote(s) + "," + std::to_string(nDays) + ")", fnAdd, {a, Int(nDays)}));
        v.push_back(Call(pool, "SUBDATE(" + Quote(s) + "," + std::to_string(nDays) + ")", fnSub, {a, Int(nDays)}));
        // TIMESTAMPADD takes the simple units only.
        for (int u = bMicros ? 0 : 1; u < kSimpleUnits; ++u) {
            int nType = kIntervalUnits[u].nType;
            std::string strAmount = Amount(nType, rng);
            std::string strUnit = kIntervalUnits[u].lpszName;
            v.push_back(Call(pool, "TIMESTAMPADD(" + strUnit + "," + strAmount + "," + Quote(s) + ")",
                             [nType](CTalvorBufferPool* p, VARDATA* x, VARDATA& r) {
                                 return CBaseFunManager::TimeStampAdd(p, nType, x[0], x[1], r);
                             },
                             {Int(atoll(strAmount.c_str())), a}));
        }
    }
    // Month ends clamp, and a month taken back from March 31 lands on the 28th or 29th;
    // a fraction of fewer than six digits is a fraction, not microseconds.
    for (const char* s : {"2021-01-31", "2020-01-31", "2021-03-31 10:00:00", "2020-02-29", "9999-12-31", "0001-01-01"})
        for (const char* i : {"1 MONTH", "-1 MONTH", "13 MONTH", "1 YEAR", "-1 QUARTER", "'1-1' YEAR_MONTH",
                              "'1.5' SECOND_MICROSECOND", "'-2:3.25' MINUTE_MICROSECOND"}) {
            VARDATA vInterval = Null(), a = Text(pool, s);
            std::string strAmount = i;
            size_t nSpace = strAmount.rfind(' ');
            std::string strUnit = strAmount.substr(nSpace + 1);
            int nType = 0;
            for (const IntervalUnit& unit : kIntervalUnits)
                if (strUnit == unit.lpszName) nType = unit.nType;
            VARDATA vAmount = AmountValue(pool, strAmount.substr(0, nSpace));
            ASSERT_EQ(CBaseFunManager::Interval2(&pool, vAmount, nType, vInterval), 0);
            v.push_back(Call(pool, "DATE_ADD(" + Quote(s) + ", INTERVAL " + i + ")", fnAdd, {a, vInterval}));
        }
    CompareWithServer(v);
}

TEST(FunDateArith, DistancesInWholeUnitsMatchTheServer)
{
    CTalvorBufferPool pool;
    std::vector<std::string> vDates = Dates(120, 59);
    std::vector<std::pair<std::string, std::string>> vPairs;
    for (size_t i = 0; i + 1 < vDates.size(); ++i) vPairs.push_back({vDates[i], vDates[i + 1]});
    // A month is complete only when the day and then the time come round.
    const char* arEdges[][2] = {{"2021-01-31 10:00:00", "2021-02-28 10:00:00"},
                                {"2021-03-15 10:00:00", "2021-04-15 09:59:59"},
                                {"2021-03-15 10:00:00", "2021-04-15 10:00:00"},
                                {"2020-02-29", "2021-02-28"},
                                {"2020-02-29", "2024-02-29"},
                                {"2021-04-15 10:00:00", "2021-03-15 10:00:01"},
                                {"2021-12-31 23:59:59", "2022-01-01 00:00:00"}};
    for (auto& e : arEdges) vPairs.push_back({e[0], e[1]});
    std::vector<FunCase> v;
    for (const auto& p : vPairs) {
        VARDATA a = Text(pool, p.first), b = Text(pool, p.second);
        std::string strArgs = Quote(p.first) + "," + Quote(p.second);
        for (int u = 0; u < kSimpleUnits; ++u) {
            int nType = kIntervalUnits[u].nType;
            v.push_back(Call(pool, "TIMESTAMPDIFF(" + std::string(kIntervalUnits[u].lpszName) + "," + strArgs + ")",
                             [nType](CTalvorBufferPool* pp, VARDATA* x, VARDATA& r) {
                                 return CBaseFunManager::TimeStampDiff(pp, nType, x[0], x[1], r);
                             },
                             {a, b}));
        }
        v.push_back(Call(pool, "DATEDIFF(" + strArgs + ")", Of2(&CBaseFunManager::DateDiff), {a, b}));
    }
    CompareWithServer(v);
}

TEST(FunDateArith, TimesSecondsPeriodsAndDayCountsMatchTheServer)
{
    CTalvorBufferPool pool;
    std::mt19937 rng(61);
    std::vector<FunCase> v;
    Fn fnAddTime = AddSub(&F::AddSubTime, TRUE), fnSubTime = AddSub(&F::AddSubTime, FALSE);
    auto fnTimeDiff = Of2(&CBaseFunManager::TimeDiff);
    auto fnStamp = Of2(&CBaseFunManager::TalvorTimeStamp);
    Fn fnAdd = AddSub(&F::AddSubDate, TRUE);
    for (std::string s : Dates(80, 67)) {
        if (s.size() == 10) s += " 00:00:00";
        std::string t = TimeOfDay(rng, 300), t2 = TimeOfDay(rng, 300);
        VARDATA a = Text(pool, s);
        v.push_back(CallOn(pool, "ADDTIME", fnAddTime, {ArgText(s), ArgText(t)}));
        v.push_back(CallOn(pool, "SUBTIME", fnSubTime, {ArgText(s), ArgText(t)}));
        v.push_back(CallOn(pool, "ADDTIME", fnAddTime, {ArgText(t), ArgText(t2)}));
        v.push_back(CallOn(pool, "SUBTIME", fnSubTime, {ArgText(t), ArgText(t2)}));
        v.push_back(CallOn(pool, "TIMEDIFF", fnTimeDiff, {ArgText(t), ArgText(t2)}));
        v.push_back(CallOn(pool, "TIMESTAMP", fnStamp, {ArgText(s), ArgText(t)}));
        // Stored times keep their kind; a stored date stays a date for whole days.
        VARDATA st = StoredTime(pool, t), st2 = StoredTime(pool, t2), sd = StoredDate(pool, s.substr(0, 10));
        v.push_back(Call(pool, "ADDTIME(TIME" + Quote(t) + ",TIME" + Quote(t2) + ")", fnAddTime, {st, st2}));
        v.push_back(Call(pool, "TIMEDIFF(TIME" + Quote(t) + ",TIME" + Quote(t2) + ")", fnTimeDiff, {st, st2}));
        for (const char* i : {"7 HOUR", "-75 MINUTE", "'1:30' HOUR_MINUTE"}) {
            std::string strAmount = i;
            size_t nSpace = strAmount.find(' ');
            int nType = strAmount.find("MINUTE") == std::string::npos  ? 5
                        : strAmount.find("HOUR_") == std::string::npos ? 4
                                                                       : 16;
            VARDATA vInterval = Null(), vAmount = AmountValue(pool, strAmount.substr(0, nSpace));
            ASSERT_EQ(CBaseFunManager::Interval2(&pool, vAmount, nType, vInterval), 0);
            v.push_back(Call(pool, "DATE_ADD(TIME" + Quote(t) + ", INTERVAL " + i + ")", fnAdd, {st, vInterval}));
            v.push_back(
                Call(pool, "DATE_ADD(DATE" + Quote(s.substr(0, 10)) + ", INTERVAL " + i + ")", fnAdd, {sd, vInterval}));
        }
        VARDATA vWeek = Null(), vTwo = Int(2);
        ASSERT_EQ(CBaseFunManager::Interval2(&pool, vTwo, 7, vWeek), 0);
        v.push_back(Call(pool, "DATE_ADD(DATE" + Quote(s.substr(0, 10)) + ", INTERVAL 2 WEEK)", fnAdd, {sd, vWeek}));
        // Two dates a few days apart, within the range of a time.
        VARDATA vLater = Null(), vHours = Int((long long)(rng() % 1400) - 700);
        ASSERT_EQ(CBaseFunManager::TimeStampAdd(&pool, 5, vHours, a, vLater), 0);
        if (Val(vLater.m_vt) == TALVOR_VT_NULL) continue;
        v.push_back(CallOn(pool, "TIMEDIFF", fnTimeDiff, {ArgText(Show(vLater)), ArgText(s)}));
    }
    for (int i = 0; i < 100; ++i) {
        long long n = i < 3 ? i : (long long)(rng() % 2147483647u);
        v.push_back(CallOn(pool, "FROM_UNIXTIME", Of1(&F::From_UnixTime), {ArgInt(n)}));
        v.push_back(CallOn(pool, "FROM_UNIXTIME", Of2(&F::From_UnixTime),
                           {ArgInt(n), ArgText("%d.%m.%Y %T")}));
        long long p1 = (1 + rng() % 9998) * 100 + 1 + rng() % 12, p2 = (rng() % 100) * 100 + 1 + rng() % 12;
        long long nMonths = (long long)(rng() % 2000) - 1000;
        v.push_back(CallOn(pool, "PERIOD_DIFF", Of2(&F::Period_Diff), {ArgInt(p1), ArgInt(p2)}));
        v.push_back(CallOn(pool, "PERIOD_ADD", Of2(&F::PeriodAdd), {ArgInt(p2), ArgInt(nMonths)}));
        long long y = i < 10 ? i * 11 : 1000 + rng() % 9000, d = (long long)(rng() % 800) - 10;
        v.push_back(CallOn(pool, "MAKEDATE", Of2(&F::MakeDate), {ArgInt(y), ArgInt(d)}));
        v.push_back(CallOn(pool, "FROM_DAYS", Of1(&F::From_Days), {ArgInt(366 + rng() % 3652059)}));
    }
    const char* arZones[] = {"+00:00", "+08:00", "-05:30", "+13:00", "-12:00", "+14:00", "08:00"};
    // Inside the server's range of converted values (above).
    for (const std::string& s : Dates(40, 71))
        for (int i = 0; i < 3 && s > "1970-01-02" && s < "2038"; ++i) {
            FunArg from = ArgText(arZones[rng() % 7]), to = ArgText(arZones[rng() % 7]);
            v.push_back(CallOn(pool, "CONVERT_TZ", Of3(&F::Convert_TZ), {ArgText(s), from, to}));
        }
    Fn fnInterval = [](CTalvorBufferPool* p, VARDATA* x, VARDATA& r) {
        return CBaseFunManager::TalvorInterval(p, 5, x, r);
    };
    for (FunArg n : {ArgInt(-5), ArgInt(0), ArgInt(1), ArgInt(3), ArgInt(10), ArgInt(100), ArgNull()})
        v.push_back(CallOn(pool, "INTERVAL", fnInterval, {n, ArgInt(1), ArgInt(3), ArgInt(5), ArgInt(10)}));
    CompareWithServer(v);
}

// The units of Extract, TimeStampAdd and TimeStampDiff are the interval
// types or the keyword ids of their names; both give the same answers.
TEST(FunDateArith, KeywordIdsOfUnitsNameTheIntervalTypes)
{
    CTalvorBufferPool pool;
    VARDATA a = Text(pool, "2021-03-15 10:20:30.123456"), b = Text(pool, "2023-07-01 01:02:03");
    for (int u = 0; u < kIntervalUnitCount; ++u) {
        const IntervalUnit& unit = kIntervalUnits[u];
        VARDATA r1 = Null(), r2 = Null();
        ASSERT_EQ(CBaseFunManager::Extract(&pool, unit.nType, a, r1), 0);
        ASSERT_EQ(CBaseFunManager::Extract(&pool, unit.nKeywordId, a, r2), 0);
        EXPECT_EQ(Show(r1), Show(r2)) << unit.lpszName;
        if (u >= kSimpleUnits) continue;
        ASSERT_EQ(CBaseFunManager::TimeStampDiff(&pool, unit.nKeywordId, a, b, r2), 0);
        ASSERT_EQ(CBaseFunManager::TimeStampDiff(&pool, unit.nType, a, b, r1), 0);
        EXPECT_EQ(Show(r1), Show(r2)) << unit.lpszName;
    }
    VARDATA r = Null(), vOne = Int(1);
    EXPECT_EQ(CBaseFunManager::TimeStampAdd(&pool, 431, vOne, a, r), TALVOR_DATE_BAD_INTERVAL);
    EXPECT_EQ(CBaseFunManager::Interval2(&pool, vOne, 0, r), TALVOR_DATE_BAD_INTERVAL);
    // A bad amount of an interval is the date library's code, not a guess.
    VARDATA vBad = Text(pool, "x:y"), vInterval = Null();
    ASSERT_EQ(CBaseFunManager::Interval2(&pool, vBad, 16, vInterval), 0);
    EXPECT_EQ(CBaseFunManager::AddSubDate(&pool, a, vInterval, r, TRUE), TALVOR_DATE_BAD_PARAMETER);
    EXPECT_EQ(Val(r.m_vt), TALVOR_VT_NULL);
    // An interval is read within its length, whatever stands behind it.
    char arLonger[] = {1, 6, 7, '5', '0', '0'};
    VARDATA vShort = Null(), vDay = Text(pool, "2021-03-15");
    vShort.m_vt = TALVOR_VT_TEXT;
    vShort.m_lpszValue = arLonger;
    vShort.m_nStrLen = 4;
    ASSERT_EQ(CBaseFunManager::AddSubDate(&pool, vDay, vShort, r, TRUE), 0);
    EXPECT_EQ(Show(r), "2021-03-20");
}
