// BaseFunTypes.cpp — result types for the planner (by function keyword id),
// the widest of two types, and CAST / CONVERT.
#include "BaseFunInternal.h"

#include <cerrno>
#include <cstring>
#include <iconv.h>

using namespace talvorfun;

namespace {

// Ranks of GetWidestType, lowest first.
enum TypeRank { kRankNone = 0, kRankInteger, kRankDecimal, kRankDouble, kRankDate, kRankText };

int RankOf(BYTE bType)
{
    if (talvorvar::IsTextType(bType)) return kRankText;
    if (talvorvar::IsDateType(bType)) return kRankDate;
    if (bType == TALVOR_VT_DOUBLE) return kRankDouble;
    if (bType == TALVOR_VT_DECIMAL) return kRankDecimal;
    if (talvorvar::IsIntType(bType)) return kRankInteger;
    return kRankNone;
}

// Two types of the same rank: the one that holds both.
BYTE WidestOfRank(int nRank, BYTE a, BYTE b)
{
    if (a == b) return a;
    switch (nRank) {
    case kRankText:
        return a == TALVOR_VT_BINARY && b == TALVOR_VT_BINARY ? TALVOR_VT_BINARY : TALVOR_VT_VARTEXT;
    case kRankDate:
        return TALVOR_VT_DATETIME;
    case kRankInteger:
        return TALVOR_VT_BIGINT;
    default:
        return a;
    }
}

// Keyword ids of the functions (the rows of the keyword table).
enum FunctionId {
    kInsert = 102, kTruncate = 112, kChar = 135, kDate = 139, kTime = 140, kTimestamp = 142, kYear = 146,
    kIf = 173, kLeft = 198, kRight = 199, kCharset = 242, kAscii = 276, kToChar = 337, kToDate = 338,
    kDateFormat = 339, kStrToDate = 340, kSysDate = 341, kCurrentDate = 343, kNow = 344, kDbTimeZone = 345,
    kUser = 346, kAbs = 347, kCeil = 348, kFloor = 349, kLower = 350, kMod = 351, kNullIf = 352, kNvl = 353,
    kNvl2 = 354, kPower = 355, kRound = 356, kSqrt = 357, kTrunc = 358, kUpper = 359, kJsonObject = 360,
    kJsonQuote = 367, kStartNodeId = 368, kEndNodeId = 369, kCurrentUser = 370, kConnectionId = 371,
    kConvert = 378, kVersion = 394, kFoundRows = 395, kMicrosecond = 416, kSecond = 417, kMinute = 418,
    kHour = 419, kDay = 420, kWeek = 421, kMonth = 422, kQuarter = 423, kReplace = 448, kConcat = 449,
    kCase = 450, kCharLength = 452, kLength = 453, kSubstring = 454, kLcase = 457, kUcase = 458,
    kCeiling = 459, kSubstr = 461, kLastInsertId = 470, kGroupConcat = 477, kUuid = 478, kCurDate = 479,
    kBin = 480, kPosition = 481, kDateAdd = 482, kDateSub = 483, kCurrentTime = 484, kCurTime = 485,
    kIsNull = 486, kExp = 487, kGreatest = 512, kLeast = 513, kPi = 514, kRand = 515, kLn = 516, kLog = 517,
    kSign = 525, kBitLength = 526, kConcatWs = 528, kFindInSet = 529, kQuote = 531, kRepeat = 532,
    kReverse = 533, kLTrim = 534, kRTrim = 535, kTrim = 536, kMonthName = 537, kDayName = 538,
    kDayOfYear = 539, kDayOfMonth = 540, kDayOfWeek = 541, kFromUnixTime = 544, kFormat = 545,
    kSubstringIndex = 546, kCast = 548, kCoalesce = 556, kConv = 568, kCharacterLength = 569, kElt = 570,
    kField = 571, kExportSet = 572, kHex = 573, kUnhex = 574, kInstr = 576, kLocate = 577, kLpad = 578,
    kRpad = 579, kMakeSet = 580, kMid = 581, kOct = 582, kOctetLength = 583, kOrd = 584, kSpace = 592,
    kStrcmp = 593, kSin = 594, kAsin = 595, kCos = 596, kAcos = 597, kTan = 598, kCot = 599, kRadians = 600,
    kDegrees = 601, kAtan = 602, kAtan2 = 603, kLog2 = 604, kLog10 = 605, kPow = 606,
    kCurrentTimestamp = 607, kLocalTime = 608, kLocalTimestamp = 609, kDateDiff = 610, kFromDays = 611,
    kUnixTimestamp = 612, kLastDay = 613, kMakeDate = 614, kMakeTime = 615, kSecToTime = 618,
    kAddTime = 619, kSubTime = 620, kTimeDiff = 621, kTimeToSec = 622, kToDays = 623, kUtcDate = 624,
    kUtcTime = 625, kUtcTimestamp = 626, kWeekday = 627, kWeekOfYear = 628, kIfNull = 629, kBitCount = 630,
    kSleep = 631, kInetAton = 632, kInetNtoa = 633, kPeriodDiff = 634, kExtract = 641,
    kJsonMergePreserve = 642, kJsonArrayInsert = 655, kAddDate = 672, kSubDate = 673, kTimestampAdd = 677,
    kTimestampDiff = 678, kYearWeek = 686, kGetFormat = 687, kNameConst = 688, kTimeFormat = 689,
    kConvertTz = 690, kJsonArrayAgg = 699, kJsonObjectAgg = 700, kMd5 = 715, kSha = 735, kSha1 = 736,
    kPeriodAdd = 738, kCrc32 = 746, kToBase64 = 750, kFromBase64 = 751, kToSeconds = 752, kXmlExtract = 753,
    kJsonOverlaps = 754, kJsonSchemaValid = 755, kMember = 756, kJsonValue = 758, kJsonStorageFree = 759,
};

// JSON rows of the keyword table that answer with a number.
enum JsonId {
    kJsonValid = 361, kJsonDepth = 365, kJsonLength = 366, kJsonContains = 648, kJsonContainsPath = 649,
    kJsonStorageSize = 654,
};

bool IsJsonFunction(int n)
{
    return (n >= kJsonObject && n <= kJsonQuote) || (n >= kJsonMergePreserve && n <= kJsonArrayInsert) ||
           n == 288 || n == 289 || n == 290 || n == kJsonArrayAgg || n == kJsonObjectAgg ||
           n == kJsonOverlaps || n == kJsonSchemaValid || n == kMember || n == kJsonValue ||
           n == kJsonStorageFree;
}

// The widest type of arguments [nFrom, nCount).
BYTE WidestOf(const BYTE* lpTypes, int nFrom, int nCount)
{
    BYTE b = TALVOR_VT_NULL;
    for (int i = nFrom; lpTypes != nullptr && i < nCount; ++i) b = CBaseFunManager::GetWidestType(b, lpTypes[i]);
    return b;
}

// The type of ABS, ROUND and the like: an integer, decimal or double as
// it came, a date or text as a double.
BYTE NumberLike(const BYTE* lpTypes, int nCount)
{
    if (lpTypes == nullptr || nCount < 1) return TALVOR_VT_DOUBLE;
    BYTE b = lpTypes[0];
    if (talvorvar::IsIntType(b)) return TALVOR_VT_BIGINT;
    if (b == TALVOR_VT_DECIMAL || b == TALVOR_VT_NULL) return b;
    return TALVOR_VT_DOUBLE;
}

// DATE_ADD and the like: a date type stays, anything else becomes a date
// and time.
BYTE DateLike(const BYTE* lpTypes, int nCount, BYTE bOther)
{
    if (lpTypes != nullptr && nCount > 0 && talvorvar::IsDateType(lpTypes[0])) return lpTypes[0];
    return bOther;
}

// Fixed result types. Result: the type, or 0 for an id this table lacks.
BYTE FixedType(int n)
{
    switch (n) {
    case kInsert: case kChar: case kLeft: case kRight: case kCharset: case kToChar: case kDateFormat:
    case kDbTimeZone: case kUser: case kLower: case kUpper: case kCurrentUser: case kVersion: case kReplace:
    case kConcat: case kSubstring: case kLcase: case kUcase: case kSubstr: case kGroupConcat: case kUuid:
    case kBin: case kConcatWs: case kQuote: case kRepeat: case kReverse: case kLTrim: case kRTrim: case kTrim:
    case kMonthName: case kDayName: case kFormat: case kSubstringIndex: case kConv: case kElt:
    case kExportSet: case kHex: case kUnhex: case kLpad: case kRpad: case kMakeSet: case kMid: case kOct:
    case kSpace: case kInetNtoa: case kGetFormat: case kTimeFormat: case kMd5: case kSha: case kSha1:
    case kToBase64: case kFromBase64: case kXmlExtract:
        return TALVOR_VT_VARTEXT;
    case kStartNodeId: case kEndNodeId: case kConnectionId: case kFoundRows: case kCharLength: case kLength:
    case kLastInsertId: case kPosition: case kIsNull: case kSign: case kBitLength: case kFindInSet:
    case kCharacterLength: case kField: case kInstr: case kLocate: case kOctetLength: case kOrd:
    case kStrcmp: case kAscii: case kBitCount: case kSleep: case kInetAton: case kCrc32: case kToDays:
    case kToSeconds: case kUnixTimestamp: case kDateDiff: case kTimeToSec: case kTimestampDiff:
    case kPeriodDiff: case kPeriodAdd:
        return TALVOR_VT_BIGINT;
    case kYear: case kMicrosecond: case kSecond: case kMinute: case kHour: case kDay: case kWeek: case kMonth:
    case kQuarter: case kDayOfYear: case kDayOfMonth: case kDayOfWeek: case kWeekday: case kWeekOfYear:
    case kYearWeek: case kExtract:
        return TALVOR_VT_INT;
    case kPower: case kSqrt: case kExp: case kPi: case kRand: case kLn: case kLog: case kSin: case kAsin:
    case kCos: case kAcos: case kTan: case kCot: case kRadians: case kDegrees: case kAtan: case kAtan2:
    case kLog2: case kLog10: case kPow:
        return TALVOR_VT_DOUBLE;
    case kTimestamp: case kToDate: case kStrToDate: case kSysDate: case kNow: case kFromUnixTime:
    case kCurrentTimestamp: case kLocalTime: case kLocalTimestamp: case kUtcTimestamp: case kTimestampAdd:
    case kConvertTz:
        return TALVOR_VT_DATETIME;
    case kDate: case kCurrentDate: case kCurDate: case kFromDays: case kLastDay: case kMakeDate: case kUtcDate:
        return TALVOR_VT_DATE;
    case kTime: case kCurrentTime: case kCurTime: case kMakeTime: case kSecToTime: case kTimeDiff:
    case kUtcTime:
        return TALVOR_VT_TIME;
    default:
        return 0;
    }
}

// Types that follow the arguments. Result: the type, or 0 for none.
BYTE ArgumentType(int n, const BYTE* lpTypes, int nCount)
{
    switch (n) {
    case kAbs: case kCeil: case kFloor: case kMod: case kRound: case kTrunc: case kTruncate: case kCeiling:
        return NumberLike(lpTypes, nCount);
    case kDateAdd: case kDateSub: case kAddDate: case kSubDate:
        return DateLike(lpTypes, nCount, TALVOR_VT_DATETIME);
    case kAddTime: case kSubTime:
        return DateLike(lpTypes, nCount, TALVOR_VT_TIME);
    case kNvl: case kIfNull: case kCoalesce: case kGreatest: case kLeast: case kCase:
        return WidestOf(lpTypes, 0, nCount);
    case kNvl2: case kIf:
        return WidestOf(lpTypes, 1, nCount);
    case kNullIf: case kConvert: case kCast:
        return lpTypes != nullptr && nCount > 0 ? lpTypes[0] : TALVOR_VT_NULL;
    case kNameConst:
        return lpTypes != nullptr && nCount > 1 ? lpTypes[1] : TALVOR_VT_NULL;
    default:
        return 0;
    }
}

// Converts nLen bytes of UTF-8 to lpszCharset. Result: 0 with the text in
// result (NULL for bytes that do not convert), TALVOR_FUN_BAD_TYPE for a
// set iconv does not know, TALVOR_VARDATA_NO_MEMORY.
int Reencode(CTalvorBufferPool* pool, const TextView& t, const char* lpszCharset, VARDATA& result)
{
    iconv_t cd = iconv_open(lpszCharset, "UTF-8");
    if (cd == (iconv_t)-1) return TALVOR_FUN_BAD_TYPE;
    // Four bytes out for one in covers every set iconv writes to.
    long long nRoom = 4LL * t.n;
    if (nRoom > TALVOR_FUN_MAX_RESULT) nRoom = TALVOR_FUN_MAX_RESULT;
    char* lpOut = nullptr;
    int nRet = NewText(pool, nRoom, result, lpOut, TALVOR_VT_BINARY);
    if (lpOut != nullptr) {
        char* lpIn = const_cast<char*>(t.p);
        size_t nIn = (size_t)t.n, nOut = (size_t)nRoom;
        char* lpWrite = lpOut;
        if (iconv(cd, &lpIn, &nIn, &lpWrite, &nOut) == (size_t)-1 ||
            iconv(cd, nullptr, nullptr, &lpWrite, &nOut) == (size_t)-1) {
            result.SetNull();
        } else {
            result.m_nStrLen = (int)(lpWrite - lpOut);
            lpOut[result.m_nStrLen] = 0;
        }
    }
    iconv_close(cd);
    return nRet;
}

} // namespace

BYTE CBaseFunManager::GetWidestType(BYTE a, BYTE b)
{
    int nA = RankOf(a), nB = RankOf(b);
    if (nA == kRankNone) return nB == kRankNone ? TALVOR_VT_NULL : b;
    if (nB == kRankNone) return a;
    if (nA != nB) return nA > nB ? a : b;
    return WidestOfRank(nA, a, b);
}

int CBaseFunManager::GetJsonFunRetValType(int nFunction, BYTE& bResult)
{
    if (!IsJsonFunction(nFunction) && nFunction != kJsonContains && nFunction != kJsonContainsPath &&
        nFunction != kJsonStorageSize)
        return TALVOR_FUN_BAD_FUNCTION;
    switch (nFunction) {
    case kJsonValid: case kJsonDepth: case kJsonLength: case kJsonContains: case kJsonContainsPath:
    case kJsonStorageSize: case kJsonStorageFree: case kJsonOverlaps: case kJsonSchemaValid: case kMember:
        bResult = TALVOR_VT_BIGINT;
        break;
    default:
        bResult = TALVOR_VT_VARTEXT;
        break;
    }
    return 0;
}

int CBaseFunManager::GetFunRetValType(int nFunction, BYTE bCharset, const BYTE* lpArgTypes, int nArgCount,
                                      BYTE& bResult)
{
    (void)bCharset;
    if (GetJsonFunRetValType(nFunction, bResult) == 0) return 0;
    BYTE b = FixedType(nFunction);
    if (b == 0) b = ArgumentType(nFunction, lpArgTypes, nArgCount);
    if (b == 0) return TALVOR_FUN_BAD_FUNCTION;
    bResult = b;
    return 0;
}

int CBaseFunManager::ConvertOrCast(CTalvorBufferPool* pool, VARDATA& value, BYTE nType, const char* lpszCharset,
                                   VARDATA& result)
{
    if (IsNullArg(value)) return SetNullResult(result);
    if (lpszCharset != nullptr && lpszCharset[0] != 0) {
        TextView t;
        ReadText(value, t);
        return Reencode(pool, t, lpszCharset, result);
    }
    if (&value == &result) return result.ChangeType(pool, nType);
    VARDATA v;
    v.Init();
    int nRet = value.GetCompatibleValue(pool, nType, v);
    if (nRet != 0) {
        v.Free();
        result.SetNull();
        return nRet;
    }
    nRet = CopyResult(pool, v, result);
    v.Free();
    return nRet;
}
