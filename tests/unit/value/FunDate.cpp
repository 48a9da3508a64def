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

FunCall Part(int nFunction)
{
    return [nFunction](Pool* p, Args& a, VARDATA& r) { return F::DateFuntion(p, a[0], r, nFunction); };
}

// A member that takes the unit (an interval type or keyword id) first.
FunCall ByUnit(int (*fn)(Pool*, int, VARDATA&, VARDATA&), int nUnit)
{
    return [fn, nUnit](Pool* p, Args& a, VARDATA& r) { return fn(p, nUnit, a[0], r); };
}
FunCall ByUnit2(int (*fn)(Pool*, int, VARDATA&, VARDATA&, VARDATA&), int nUnit)
{
    return [fn, nUnit](Pool* p, Args& a, VARDATA& r) { return fn(p, nUnit, a[0], a[1], r); };
}

}  // namespace

TEST(FunDate, PartsWeeksAndFormatsOfGeneratedDatesMatchTheServer)
{
    CTalvorBufferPool pool;
    using Named = std::pair<const char*, FunCall>;
    // Time functions on a date without a time read it differently by design (above).
    auto IsClock = [](const Named& n) {
        return strstr("HOUR MINUTE SECOND TIME TIME_TO_SEC", n.first) != nullptr && strcmp(n.first, "TIMESTAMP") != 0;
    };
    const std::vector<Named> vParts = {
        {"YEAR", Part(146)},         {"MONTH", Part(422)},       {"DAY", Part(420)},
        {"DAYOFMONTH", Part(540)},   {"HOUR", Part(419)},        {"MINUTE", Part(418)},
        {"SECOND", Part(417)},       {"QUARTER", Part(423)},     {"WEEK", Part(421)},
        {"WEEKOFYEAR", Part(628)},   {"DAYOFYEAR", Part(539)},   {"DAYOFWEEK", Part(541)},
        {"WEEKDAY", Part(627)},      {"MONTHNAME", Part(537)},   {"DAYNAME", Part(538)},
        {"TO_DAYS", Part(623)},      {"TO_SECONDS", Of1(&F::To_Seconds)}, {"DATE", Of1(&F::Date)},
        {"TIME", Of1(&F::Time)},     {"LAST_DAY", Of1(&F::Last_Day)},     {"TIMESTAMP", Of1(&F::TalvorTimeStamp)},
        {"TIME_TO_SEC", Of1(&F::Time_To_Sec)}};
    const char* arFormats[] = {"%Y-%m-%d %H:%i:%s", "%a %b %e %D %j %c %k", "%W %M %y %p %I %h %S %f",
                               "%r %T %U %u %V %v %X %x %w %%"};
    FunBatch v;
    for (const std::string& s : Dates(160, 11)) {
        bool bFull = s.size() > 10;
        std::string strFull = bFull ? s : s + " 00:00:00";
        for (int nForm = 0; nForm < (bFull ? 2 : 3); ++nForm) {
            // As text, as a typed date and time, and a date alone as a stored date.
            VARDATA a = nForm == 2 ? StoredDate(pool, s) : nForm ? DateTime(pool, strFull) : Text(pool, s);
            std::string strArg = nForm == 2 ? "DATE" + Quote(s) : nForm ? "TIMESTAMP" + Quote(strFull) : Quote(s);
            for (const Named& n : vParts)
                if (bFull || nForm || !IsClock(n))
                    v.Add(n.first + ("(" + strArg + ")"), n.second, {a});
            for (int m = 0; m < 8; ++m)
                v.Add("YEARWEEK(" + strArg + "," + std::to_string(m) + ")", Of2(&F::YearWeek), {a, Int(m)});
            for (const IntervalUnit& unit : kIntervalUnits)
                v.Add("EXTRACT(" + std::string(unit.lpszName) + " FROM " + strArg + ")",
                      ByUnit(&F::Extract, unit.nType), {a});
            for (const char* f : arFormats)
                v.Add("DATE_FORMAT(" + strArg + "," + Quote(f) + ")", Of2(&F::DateFuntion), {a, Text(pool, f)});
            if (s >= "1970-01-02" && s < "2038")
                v.Add("UNIX_TIMESTAMP(" + strArg + ")", Of1(&F::Unix_TimeStamp), {a});
        }
    }
    // The first and last days of years, where the week modes differ.
    for (int y = 1995; y <= 2030; ++y)
        for (int d = 1; d <= 14; ++d) {
            std::string s = std::to_string(y) + (d <= 7 ? "-01-0" : "-12-") + std::to_string(d <= 7 ? d : 17 + d);
            for (int m = 0; m < 8; ++m)
                v.Add("YEARWEEK(" + Quote(s) + "," + std::to_string(m) + ")", Of2(&F::YearWeek), {Text(pool, s), Int(m)});
            v.Add("DATE_FORMAT(" + Quote(s) + ",'%U %u %V %v %X %x')", Of2(&F::DateFuntion),
                  {Text(pool, s), Text(pool, "%U %u %V %v %X %x")});
        }
    // Numbers stand for dates as YYYYMMDD, YYMMDD and YYYYMMDDhhmmss.
    for (long long n : {20210315LL, 210315LL, 991231LL, 20210315103000LL, 19991231235959LL, 20210230LL, 5LL})
        for (const Named& p : vParts)
            if (n != 20210230LL || !IsClock(p))
                v.Add(p.first + ("(" + std::to_string(n) + ")"), p.second, {Int(n)});
    v.Check();
}

TEST(FunDate, TimesAndFormatsOfTimesMatchTheServer)
{
    CTalvorBufferPool pool;
    std::mt19937 rng(23);
    FunBatch v;
    auto fnToSec = Of1(&F::Time_To_Sec);
    for (int i = 0; i < 200; ++i) {
        long long h = (long long)(rng() % 1600) - 800, m = rng() % 62, s = rng() % 62;
        if (i % 3 == 0) h %= 24;
        v.Add("MAKETIME(?, ?, ?)", {ArgInt(h), ArgInt(m), ArgInt(s)}, Of3(&F::MakeTime));
        long long n = (long long)(rng() % 5760000) - 2880000;
        v.Add("SEC_TO_TIME(?)", {ArgInt(n)}, Of1(&F::Sec_To_Time));
        VARDATA t = Null(), vn = Int(n);
        F::Sec_To_Time(&pool, vn, t);
        std::string strTime = Show(t);
        v.Add("TIME_TO_SEC(?)", {ArgText(strTime)}, fnToSec);
        v.Add("TIME_TO_SEC(TIME" + Quote(strTime) + ")", fnToSec, {t});
        v.Add("SECOND(TIME" + Quote(strTime) + ")", Part(417), {t});
        v.Add("HOUR(?)", {ArgText(strTime)}, Part(419));
        v.Add("MINUTE(?)", {ArgText(strTime)}, Part(418));
        const char* lpszFormat = n >= 0 && n < 86400 ? "%H %k %h %I %i %S %s %p %r %T %%" : "%H:%i:%s";
        v.Add("TIME_FORMAT(?, ?)", {ArgText(strTime), ArgText(lpszFormat)}, Of2(&F::Time_Format));
    }
    for (long long n : {0LL, 1230LL, 101010LL, 1000000LL, -235959LL, 126000LL})
        v.Add("TIME_TO_SEC(?)", {ArgInt(n)}, fnToSec);
    // Fractions of a second are read apart from the time they follow.
    for (const char* t :
         {"100:20:30.25", "-12:00:00.000001", "12:00:00.5", "10.5", "2021-03-15 10:20:30.123456", "00:00:01.1234567"})
        for (int u = 0; u < 4; ++u)  // MICROSECOND to HOUR, by the keywords of their functions
            v.Add(std::string(kIntervalUnits[u].lpszName) + "(?)", {ArgText(t)}, Part(416 + u));
    const char* arKinds[] = {"DATE", "TIME", "DATETIME", "TIMESTAMP"};
    for (int k = 0; k < 4; ++k)
        for (const char* l : {"USA", "JIS", "ISO", "EUR", "INTERNAL", "XYZ"})
            v.Add("GET_FORMAT(" + std::string(arKinds[k]) + "," + Quote(l) + ")",
                  ByUnit(&F::Get_Format, 139 + k), {Text(pool, l)});
    v.Check();
}

// The clock is only bounded: the value itself moves.
TEST(FunDate, ClockReadingsLieBetweenTwoReadingsOfTheSystemClock)
{
    CTalvorBufferPool pool;
    time_t tBefore = ::time(nullptr);
    VARDATA vNow = Null(), vUtc = Null(), vDay = Null(), vClock = Null(), vZone = Null();
    ASSERT_EQ(F::SysDate(&pool, vNow, 344) | F::UTC_DateTime(&pool, vUtc, 626) | F::SysDate(&pool, vDay, 479) |
                  F::UTC_DateTime(&pool, vClock, 625) | F::DbTimeZone(&pool, vZone), 0);
    VARDATA vSeconds[2] = {Null(), Null()};
    ASSERT_EQ(F::Unix_TimeStamp(&pool, vSeconds[0]) | F::Unix_TimeStamp(&pool, vUtc, vSeconds[1]), 0);
    time_t tAfter = ::time(nullptr);
    EXPECT_EQ(std::make_tuple(Val(vNow.m_vt), Val(vDay.m_vt), Val(vClock.m_vt)),
              std::make_tuple(TALVOR_VT_DATETIME, TALVOR_VT_DATE, TALVOR_VT_TIME));
    // The process runs in UTC: every reading agrees.
    EXPECT_EQ(Show(vZone), "+00:00");
    for (const VARDATA& s : vSeconds)
        EXPECT_TRUE(s.m_llValue >= (long long)tBefore && s.m_llValue <= (long long)tAfter) << s.m_llValue;
    EXPECT_EQ(Show(vNow).substr(0, 10), Show(vDay));
}

// Oracle's names: TO_CHAR and TO_DATE read and write the same picture; a
// number goes by a format of digits (whose forms FunNumberText holds).
TEST(FunDate, ToCharAndToDateRoundTrip)
{
    CTalvorBufferPool pool;
    VARDATA vFormat = Text(pool, "YYYY-MM-DD HH24:MI:SS"), vDmy = Text(pool, "DD/MM/YYYY");
    for (const std::string& s : Dates(100, 41)) {
        std::string strFull = s.size() > 10 ? s : s + " 00:00:00";
        VARDATA vText = Text(pool, strFull), vDate = Null(), r = Null();
        EXPECT_SHOWN(F::ToDate(&pool, vText, vFormat, vDate), vDate, strFull);
        EXPECT_SHOWN(F::ToChar(&pool, vText, r, vDmy), r,
                     strFull.substr(8, 2) + "/" + strFull.substr(5, 2) + "/" + strFull.substr(0, 4));
    }
    VARDATA r = Null(), vNumber = Dbl(3.14159), vTwo = Text(pool, "999.99");
    EXPECT_SHOWN(F::ToChar(&pool, vNumber, r, vTwo), r, "3.14");
    VARDATA vNoDate = Text(pool, "31-02-2021"), vDashes = Text(pool, "DD-MM-YYYY");
    EXPECT_SHOWN(F::ToDate(&pool, vNoDate, vDashes, r), r, "NULL");
}

TEST(FunDate, NullInGivesNullOut)
{
    CTalvorBufferPool pool;
    ExpectNullSpreads(pool,
                      {F::Date, F::Time, F::From_UnixTime, F::Unix_TimeStamp, F::From_Days, F::To_Days, F::To_Seconds,
                       F::Last_Day, F::Sec_To_Time, F::Time_To_Sec, F::TalvorTimeStamp, F::YearWeek,
                       F::ConvertToDateTime},
                      {F::ToDate, F::DateFuntion, F::From_UnixTime, F::DateDiff, F::MakeDate, F::TimeDiff,
                       F::TalvorTimeStamp, F::Period_Diff, F::PeriodAdd, F::YearWeek, F::Time_Format},
                      Text(pool, "2021-03-15"), Text(pool, "%Y"));
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
    std::string strSign = rng() % 3 == 0 ? "-" : "";
    static const unsigned kSimple[] = {0, 0, 0, 100000, 100000, 100000, 3000, 3000, 400, 400, 60};
    if (nType == 1) return strSign + std::to_string(1 + rng() % 99999998 * 10 + 1);
    if (nType <= 10) return strSign + std::to_string(rng() % kSimple[nType]);
    // Compound forms by letter: C below 100, H below 24, S below 60, Y below 30, M below 12, u a fraction.
    static const char* kForms[] = {"C.u", "C:S.u", "C:S", "C:S:S.u", "C:S:S", "C:S", "C H:S:S.u", "C H:S:S",
                                   "C H:S", "C H", "Y-M"};
    static const char kLetters[] = "CHSYM";
    static const unsigned kBounds[] = {100, 24, 60, 30, 12};
    std::string s = "'" + strSign;
    for (const char* p = kForms[nType - 11]; *p; ++p) {
        const char* q = strchr(kLetters, *p);
        s += q ? std::to_string(rng() % kBounds[q - kLetters]) : *p == 'u' ? std::to_string(100001 + rng() % 899998)
                                                                         : std::string(1, *p);
    }
    return s + "'";
}

// The interval of SQL's "AMOUNT UNIT" (quoted text, or a number), as
// Interval2 makes it.
VARDATA IntervalOf(CTalvorBufferPool& pool, const std::string& s)
{
    size_t nSpace = s.rfind(' ');
    int nType = 0;
    for (const IntervalUnit& unit : kIntervalUnits)
        if (s.compare(nSpace + 1, std::string::npos, unit.lpszName) == 0) nType = unit.nType;
    VARDATA vAmount = s[0] == '\'' ? Text(pool, s.substr(1, nSpace - 2)) : Int(atoll(s.c_str())), v = Null();
    EXPECT_EQ(F::Interval2(&pool, vAmount, nType, v), 0) << s;
    return v;
}

// A member that adds or takes away by its flag, as a call of two arguments.
FunCall AddSub(int (*fn)(Pool*, VARDATA&, VARDATA&, VARDATA&, BOOL), BOOL bAdd)
{
    return [fn, bAdd](Pool* p, Args& x, VARDATA& r) { return fn(p, x[0], x[1], r, bAdd); };
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
    FunBatch v;
    FunCall fnAdd = AddSub(&F::AddSubDate, TRUE), fnSub = AddSub(&F::AddSubDate, FALSE);
    for (const std::string& s : Dates(60, 53)) {
        VARDATA a = Text(pool, s);
        // Microseconds are exact only where the double keeps them (above).
        bool bMicros = s >= "1721" && s < "2079";
        for (const IntervalUnit& unit : kIntervalUnits) {
            int t = unit.nType;
            if (!bMicros && (t == 1 || t == 11 || t == 12 || t == 14 || t == 17)) continue;
            std::string strInterval = Amount(t, rng) + " " + unit.lpszName;
            bool bAdd = rng() % 2 == 0;
            v.Add((bAdd ? "DATE_ADD(" : "DATE_SUB(") + Quote(s) + ", INTERVAL " + strInterval + ")",
                  bAdd ? fnAdd : fnSub, {a, IntervalOf(pool, strInterval)});
        }
        long long nDays = (long long)(rng() % 20000) - 10000;
        v.Add("ADDDATE(" + Quote(s) + "," + std::to_string(nDays) + ")", fnAdd, {a, Int(nDays)});
        v.Add("SUBDATE(" + Quote(s) + "," + std::to_string(nDays) + ")", fnSub, {a, Int(nDays)});
        // TIMESTAMPADD takes the simple units only.
        for (int u = bMicros ? 0 : 1; u < kSimpleUnits; ++u) {
            std::string strAmount = Amount(kIntervalUnits[u].nType, rng);
            v.Add("TIMESTAMPADD(" + std::string(kIntervalUnits[u].lpszName) + "," + strAmount + "," + Quote(s) + ")",
                  ByUnit2(&F::TimeStampAdd, kIntervalUnits[u].nType), {Int(atoll(strAmount.c_str())), a});
        }
    }
    // Month ends clamp, and a month taken back from March 31 lands on the 28th or 29th;
    // a fraction of fewer than six digits is a fraction, not microseconds.
    for (const char* s : {"2021-01-31", "2020-01-31", "2021-03-31 10:00:00", "2020-02-29", "9999-12-31", "0001-01-01"})
        for (const char* i : {"1 MONTH", "-1 MONTH", "13 MONTH", "1 YEAR", "-1 QUARTER", "'1-1' YEAR_MONTH",
                              "'1.5' SECOND_MICROSECOND", "'-2:3.25' MINUTE_MICROSECOND"})
            v.Add("DATE_ADD(" + Quote(s) + ", INTERVAL " + i + ")", fnAdd, {Text(pool, s), IntervalOf(pool, i)});
    v.Check();
}

TEST(FunDateArith, DistancesInWholeUnitsMatchTheServer)
{
    CTalvorBufferPool pool;
    std::vector<std::string> vDates = Dates(120, 59);
    std::vector<std::pair<std::string, std::string>> vPairs;
    for (size_t i = 0; i + 1 < vDates.size(); ++i) vPairs.push_back({vDates[i], vDates[i + 1]});
    // A month is complete only when the day and then the time come round.
    vPairs.insert(vPairs.end(), {{"2021-01-31 10:00:00", "2021-02-28 10:00:00"},
                                 {"2021-03-15 10:00:00", "2021-04-15 09:59:59"},
                                 {"2021-03-15 10:00:00", "2021-04-15 10:00:00"},
                                 {"2020-02-29", "2021-02-28"},
                                 {"2020-02-29", "2024-02-29"},
                                 {"2021-04-15 10:00:00", "2021-03-15 10:00:01"},
                                 {"2021-12-31 23:59:59", "2022-01-01 00:00:00"}});
    FunBatch v;
    for (const auto& p : vPairs) {
        VARDATA a = Text(pool, p.first), b = Text(pool, p.second);
        std::string strArgs = Quote(p.first) + "," + Quote(p.second);
        for (int u = 0; u < kSimpleUnits; ++u)
            v.Add("TIMESTAMPDIFF(" + std::string(kIntervalUnits[u].lpszName) + "," + strArgs + ")",
                  ByUnit2(&F::TimeStampDiff, kIntervalUnits[u].nType), {a, b});
        v.Add("DATEDIFF(" + strArgs + ")", Of2(&F::DateDiff), {a, b});
    }
    v.Check();
}

TEST(FunDateArith, TimesSecondsPeriodsAndDayCountsMatchTheServer)
{
    CTalvorBufferPool pool;
    std::mt19937 rng(61);
    FunBatch v;
    FunCall fnAddTime = AddSub(&F::AddSubTime, TRUE), fnSubTime = AddSub(&F::AddSubTime, FALSE);
    FunCall fnAdd = AddSub(&F::AddSubDate, TRUE);
    auto fnTimeDiff = Of2(&F::TimeDiff);
    for (std::string s : Dates(80, 67)) {
        if (s.size() == 10) s += " 00:00:00";
        std::string t = TimeOfDay(rng, 300), t2 = TimeOfDay(rng, 300), strDay = s.substr(0, 10);
        v.Add("ADDTIME(?, ?)", {ArgText(s), ArgText(t)}, fnAddTime);
        v.Add("SUBTIME(?, ?)", {ArgText(s), ArgText(t)}, fnSubTime);
        v.Add("ADDTIME(?, ?)", {ArgText(t), ArgText(t2)}, fnAddTime);
        v.Add("SUBTIME(?, ?)", {ArgText(t), ArgText(t2)}, fnSubTime);
        v.Add("TIMEDIFF(?, ?)", {ArgText(t), ArgText(t2)}, fnTimeDiff);
        v.Add("TIMESTAMP(?, ?)", {ArgText(s), ArgText(t)}, Of2(&F::TalvorTimeStamp));
        // Stored times keep their kind; a stored date stays a date for whole days.
        VARDATA st = StoredTime(pool, t), st2 = StoredTime(pool, t2), sd = StoredDate(pool, strDay);
        v.Add("ADDTIME(TIME" + Quote(t) + ",TIME" + Quote(t2) + ")", fnAddTime, {st, st2});
        v.Add("TIMEDIFF(TIME" + Quote(t) + ",TIME" + Quote(t2) + ")", fnTimeDiff, {st, st2});
        for (const char* i : {"7 HOUR", "-75 MINUTE", "'1:30' HOUR_MINUTE"}) {
            VARDATA vInterval = IntervalOf(pool, i);
            v.Add("DATE_ADD(TIME" + Quote(t) + ", INTERVAL " + i + ")", fnAdd, {st, vInterval});
            v.Add("DATE_ADD(DATE" + Quote(strDay) + ", INTERVAL " + i + ")", fnAdd, {sd, vInterval});
        }
        v.Add("DATE_ADD(DATE" + Quote(strDay) + ", INTERVAL 2 WEEK)", fnAdd, {sd, IntervalOf(pool, "2 WEEK")});
        // Two dates a few days apart, within the range of a time.
        VARDATA a = Text(pool, s), vLater = Null(), vHours = Int((long long)(rng() % 1400) - 700);
        ASSERT_EQ(F::TimeStampAdd(&pool, 5, vHours, a, vLater), 0);
        if (Val(vLater.m_vt) != TALVOR_VT_NULL)
            v.Add("TIMEDIFF(?, ?)", {ArgText(Show(vLater)), ArgText(s)}, fnTimeDiff);
    }
    for (int i = 0; i < 100; ++i) {
        long long n = i < 3 ? i : (long long)(rng() % 2147483647u);
        v.Add("FROM_UNIXTIME(?)", {ArgInt(n)}, Of1(&F::From_UnixTime));
        v.Add("FROM_UNIXTIME(?, ?)", {ArgInt(n), ArgText("%d.%m.%Y %T")}, Of2(&F::From_UnixTime));
        long long p1 = (1 + rng() % 9998) * 100 + 1 + rng() % 12, p2 = (rng() % 100) * 100 + 1 + rng() % 12;
        long long nMonths = (long long)(rng() % 2000) - 1000;
        v.Add("PERIOD_DIFF(?, ?)", {ArgInt(p1), ArgInt(p2)}, Of2(&F::Period_Diff));
        v.Add("PERIOD_ADD(?, ?)", {ArgInt(p2), ArgInt(nMonths)}, Of2(&F::PeriodAdd));
        long long y = i < 10 ? i * 11 : 1000 + rng() % 9000, d = (long long)(rng() % 800) - 10;
        v.Add("MAKEDATE(?, ?)", {ArgInt(y), ArgInt(d)}, Of2(&F::MakeDate));
        v.Add("FROM_DAYS(?)", {ArgInt(366 + rng() % 3652059)}, Of1(&F::From_Days));
    }
    const char* arZones[] = {"+00:00", "+08:00", "-05:30", "+13:00", "-12:00", "+14:00", "08:00"};
    // Inside the server's range of converted values (above).
    for (const std::string& s : Dates(40, 71))
        for (int i = 0; i < 3 && s > "1970-01-02" && s < "2038"; ++i)
            v.Add("CONVERT_TZ(?, ?, ?)", {ArgText(s), ArgText(arZones[rng() % 7]), ArgText(arZones[rng() % 7])},
                  Of3(&F::Convert_TZ));
    FunCall fnInterval = [](Pool* p, Args& x, VARDATA& r) { return F::TalvorInterval(p, 5, x.data(), r); };
    for (FunArg n : {ArgInt(-5), ArgInt(0), ArgInt(1), ArgInt(3), ArgInt(10), ArgInt(100), ArgNull()})
        v.Add("INTERVAL(?, ?, ?, ?, ?)", {n, ArgInt(1), ArgInt(3), ArgInt(5), ArgInt(10)}, fnInterval);
    v.Check();
}

// Units and amounts the server never takes: a compound unit for
// TIMESTAMPADD, no unit, an amount that is no number, and an interval
// read within its length.
TEST(FunDateArith, BadUnitsAndAmountsAreRefused)
{
    CTalvorBufferPool pool;
    VARDATA a = Text(pool, "2021-03-15 10:20:30.123456");
    VARDATA r = Null(), vOne = Int(1);
    EXPECT_EQ(F::TimeStampAdd(&pool, 431, vOne, a, r), TALVOR_DATE_BAD_INTERVAL);
    EXPECT_EQ(F::Interval2(&pool, vOne, 0, r), TALVOR_DATE_BAD_INTERVAL);
    // A bad amount of an interval is the date library's code, not a guess.
    VARDATA vBad = Text(pool, "x:y"), vInterval = Null();
    ASSERT_EQ(F::Interval2(&pool, vBad, 16, vInterval), 0);
    EXPECT_EQ(F::AddSubDate(&pool, a, vInterval, r, TRUE), TALVOR_DATE_BAD_PARAMETER);
    EXPECT_EQ(Val(r.m_vt), TALVOR_VT_NULL);
    // An interval is read within its length, whatever stands behind it.
    char arLonger[] = {1, 6, 7, '5', '0', '0'};
    VARDATA vShort = Null(), vDay = Text(pool, "2021-03-15");
    vShort.AttachString(arLonger, 4, TALVOR_VT_TEXT);
    EXPECT_SHOWN(F::AddSubDate(&pool, vDay, vShort, r, TRUE), r, "2021-03-20");
}
