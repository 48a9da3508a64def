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
        for (int nId : {419, 418, 417, 416}) {
            const char* lpszName = nId == 419   ? "HOUR"
                                   : nId == 418 ? "MINUTE"
                                   : nId == 417 ? "SECOND"
                                                : "MICROSECOND";
            v.push_back(CallOn(pool, lpszName, Part(nId), {ArgText(t)}));
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
    const Unary arUnary[] = {CBaseFunManager::Date,
                             CBaseFunManager::Time,
                             CBaseFunManager::From_UnixTime,
                             CBaseFunManager::Unix_TimeStamp,
                             CBaseFunManager::From_Days,
                             CBaseFunManager::To_Days,
                             CBaseFunManager::To_Seconds,
                             CBaseFunManager::Last_Day,
                             CBaseFunManager::Sec_To_Time,
                             CBaseFunManager::Time_To_Sec,
                             CBaseFunManager::TalvorTimeStamp,
                             CBaseFunManager::YearWeek,
                             CBaseFunManager::ConvertToDateTime};
    const Binary arBinary[] = {
        CBaseFunManager::ToDate,          CBaseFunManager::DateFuntion, CBaseFunManager::From_UnixTime,
        CBaseFunManager::DateDiff,        CBaseFunManager::MakeDate,    CBaseFunManager::TimeDiff,
        CBaseFunManager::TalvorTimeStamp, CBaseFunManager::Period_Diff, CBaseFunManager::PeriodAdd,
        CBaseFunManager::YearWeek,        CBaseFunManager::Time_Format};
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
    VARDATA a = Null(), b = Text(pool, "2021-03-15"), r = Null();
    for (int nId : {146, 422, 420, 419, 537, 538, 539, 541, 627, 628, 623, 6, 21})
        ExpectNullResult([&](VARDATA& x) { return F::DateFuntion(&pool, a, x, nId); },
                         "part " + std::to_string(nId));
    ExpectNullResult([&](VARDATA& x) { return F::Extract(&pool, 10, a, x); }, "EXTRACT");
    ExpectNullResult([&](VARDATA& x) { return F::ToChar(&pool, b, x, a); }, "TO_CHAR");
    ExpectNullResult([&](VARDATA& x) { return F::AddSubDate(&pool, a, b, x, TRUE); }, "DATE_ADD");
    ExpectNullResult([&](VARDATA& x) { return F::TimeStampDiff(&pool, 8, a, b, x); }, "TIMESTAMPDIFF");
    ExpectNullResult([&](VARDATA& x) { return F::MakeTime(&pool, b, a, b, x); }, "MAKETIME");
    // Wrong numbers are refused, not guessed.
    EXPECT_EQ(CBaseFunManager::DateFuntion(&pool, b, r, 100), TALVOR_FUN_BAD_FUNCTION);
    EXPECT_EQ(CBaseFunManager::Extract(&pool, 99, b, r), TALVOR_DATE_BAD_INTERVAL);
    EXPECT_EQ(CBaseFunManager::TimeFuntion(&pool, b, r, 146), TALVOR_FUN_BAD_FUNCTION);
}
