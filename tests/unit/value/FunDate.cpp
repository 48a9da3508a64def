// The date and time family against Debian's MariaDB on generated dates
// (day numbers and ISO weeks among the parts). A part read from
// the wrong field, a week counted by the wrong mode, a month that does not
// clamp, a day lost across a leap year, or a distance rounded instead of
// cut shows up as a differing row.
//
// Deliberate differences from the server (ours first, then why):
// - DATE_FORMAT(d, '%l') is 01-12 as %I and %h; picture tokens ('day') are read too;
// - UNIX_TIMESTAMP('1960-01-01'), YEAR(0) are NULL: dates start at 0001;
// - a date without a time is at its midnight;
// - TIME(20210230) is NULL: a number of 8 digits is a date or nothing.
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
        {"YEAR", Part(146)}, {"MONTH", Part(422)}, {"DAY", Part(420)}, {"DAYOFMONTH", Part(540)}, {"HOUR", Part(419)},
        {"MINUTE", Part(418)}, {"SECOND", Part(417)}, {"QUARTER", Part(423)}, {"WEEK", Part(421)}, {"WEEKOFYEAR", Part(628)},
        {"DAYOFYEAR", Part(539)}, {"DAYOFWEEK", Part(541)}, {"WEEKDAY", Part(627)}, {"MONTHNAME", Part(537)},
        {"DAYNAME", Part(538)}, {"TO_DAYS", Part(623)}, {"TO_SECONDS", Of1(&F::To_Seconds)}, {"DATE", Of1(&F::Date)},
        {"TIME", Of1(&F::Time)}, {"LAST_DAY", Of1(&F::Last_Day)}, {"TIMESTAMP", Of1(&F::TalvorTimeStamp)},
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
    // NULL in is NULL out, written over the slot a plan reuses.
    for (const Named& p : vParts) v.Add(p.first + std::string("(NULL)"), p.second, {Null()});
    for (const Named& p : {Named{"SEC_TO_TIME", Of1(&F::Sec_To_Time)}, Named{"FROM_DAYS", Of1(&F::From_Days)}, Named{"FROM_UNIXTIME", Of1(&F::From_UnixTime)}})
        v.Add(p.first + std::string("(NULL)"), p.second, {Null()});
    v.Add("DATE_FORMAT('2021-03-15', NULL)", Of2(&F::DateFuntion), {Text(pool, "2021-03-15"), Null()});
    v.Add("YEARWEEK(NULL, 1)", Of2(&F::YearWeek), {Null(), Int(1)});
    // Numbers stand for dates as YYYYMMDD, YYMMDD and YYYYMMDDhhmmss.
    for (long long n : {20210315LL, 210315LL, 700229LL, 710101LL, 991231LL, 20210315103000LL, 19991231235959LL, 20210230LL, 5LL})
        for (const Named& p : vParts)
            if (n != 20210230LL || !IsClock(p))
                v.Add(p.first + ("(" + std::to_string(n) + ")"), p.second, {Int(n)});
    v.Check();
}

// Date arithmetic against Debian's MariaDB on generated dates and amounts:
// intervals of every unit added and taken away, and distances in whole
// units (months by the calendar, cut towards zero). A month that does not
// clamp, a carry lost across midnight or a year, or a distance rounded
// instead of cut shows up here.
//
// Deliberate differences from the server (more at the top):
// - dates are years 1 to 9999: DATE_ADD('0001-01-01', INTERVAL -1 MONTH) is NULL;
// - a date is a double of days: microseconds are exact only from 1720 to 2079.
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
    static const std::string kLetters = "CHSYM";
    static const unsigned kBounds[] = {100, 24, 60, 30, 12};
    std::string s = "'" + strSign;
    for (const char* p = kForms[nType - 11]; *p; ++p)
        s += kLetters.find(*p) != std::string::npos ? std::to_string(rng() % kBounds[kLetters.find(*p)])
             : *p == 'u'                            ? std::to_string(100001 + rng() % 899998) : std::string(1, *p);
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

}  // namespace

TEST(FunDateArith, IntervalsAndDistancesOfEveryUnitMatchTheServer)
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
    // Distances in whole units: a month is complete only when the day and then the time come round.
    std::vector<std::string> vDates = Dates(120, 59);
    std::vector<std::pair<std::string, std::string>> vPairs = {{"2021-03-15 10:00:00", "2021-04-15 09:59:59"},
        {"2020-02-29", "2021-02-28"}, {"2021-04-15 10:00:00", "2021-03-15 10:00:01"}, {"2021-12-31 23:59:59", "2022-01-01 00:00:00"}};
    for (size_t i = 0; i + 1 < vDates.size(); ++i) vPairs.push_back({vDates[i], vDates[i + 1]});
    for (const auto& p : vPairs) {
        VARDATA a = Text(pool, p.first), b = Text(pool, p.second);
        std::string strArgs = Quote(p.first) + "," + Quote(p.second);
        for (int u = 0; u < kSimpleUnits; ++u)
            v.Add("TIMESTAMPDIFF(" + std::string(kIntervalUnits[u].lpszName) + "," + strArgs + ")",
                  ByUnit2(&F::TimeStampDiff, kIntervalUnits[u].nType), {a, b});
        v.Add("DATEDIFF(" + strArgs + ")", Of2(&F::DateDiff), {a, b});
        v.Add("DATEDIFF(" + Quote(p.first) + ", NULL)", Of2(&F::DateDiff), {a, Null()});
    }
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
