// Typed values: the rules no reference holds (NULL and markers, text
// operands, dates by + and -, powers, roots, cuts and averages, the
// tolerance of doubles, conversions) and ownership of text (under AddressSanitizer a double
// free, a free of borrowed memory or a leak fails).

#include "PackedValue.h"
#include "TalvorBufferPool.h"
#include "TalvorDate.h"
#include "TalvorDecimal.h"
#include "TalvorVarDataOps.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

using talvortest::Val;

namespace {

template <class F>
st_VARDATA New(F f) {
    st_VARDATA v;
    v.Init();
    return f(v), v;
}

template <class T>
st_VARDATA Make(T x) { return New([&](st_VARDATA& v) { v.SetData(x); }); }

st_VARDATA Int(long long ll) { return Make(ll); }
st_VARDATA Dbl(double d) { return Make(d); }
st_VARDATA Date(BYTE bDay, BYTE bMonth, USHORT sYear) { return Make(TALVORDATE{bDay, bMonth, sYear}); }
st_VARDATA DateTime(double d) { return New([&](st_VARDATA& v) { v.SetDateTime(d); }); }
st_VARDATA Dec(const char* sz) { return New([&](st_VARDATA& v) { CTalvorDecimal::Convert2Decimal(sz, &v); }); }
st_VARDATA Of(BYTE vt) { return New([&](st_VARDATA& v) { v.m_vt = vt; }); }

// Text borrowed from a literal: never owned, never freed.
st_VARDATA Txt(const char* sz) {
    return New([&](st_VARDATA& v) { v.AttachString((char*)sz, (int)strlen(sz), TALVOR_VT_TEXT); });
}

std::string Text(const st_VARDATA& v) {
    CTalvorBufferPool pool;
    st_VARDATA t = Of(TALVOR_VT_NULL);
    if (v.GetCompatibleStringValue(&pool, t) != 0 || t.m_vt == TALVOR_VT_NULL) return "NULL";
    int nLen = 0;
    const BYTE* p = t.GetBinaryData(nLen);
    return std::string((const char*)p, (size_t)nLen);
}

// v after f has worked on it in place.
template <class F>
st_VARDATA Fn(st_VARDATA v, F f) { return f(v), v; }

// From a start other than 0, so that a hash which drops the incoming value shows.
long long Hash(const st_VARDATA& v) {
    long long h = 5;
    return v.CalcHashFactor(h), h;
}

// NULL and the markers pass through every operator from either side (the
// left decides when both are void); compare of NULL follows grouping and
// SQL's rules.
TEST(VarDataNull, OperatorsAndCompare) {
    const std::vector<st_VARDATA> vOthers = {Int(7), Dbl(2.5), Dec("1.25"), Txt("12"), Date(15, 3, 2021), Int(0)};
    for (BYTE vt : {(BYTE)TALVOR_VT_NULL, (BYTE)TALVOR_VT_MARK_UNKNOWN, (BYTE)TALVOR_VT_MARK_TRUE}) {
        const st_VARDATA x = Of(vt);
        for (const st_VARDATA& o : vOthers)
            for (const st_VARDATA& r : {x + o, o - x, x / o, o % x, x & o, o << x})
                EXPECT_EQ(Val(r.m_vt), vt) << (int)vt << " " << (int)o.m_vt;
        EXPECT_EQ(Val((~x).m_vt), vt);
    }

    st_VARDATA n = Of(TALVOR_VT_NULL), one = Int(1);
    EXPECT_TRUE(n == Of(TALVOR_VT_NULL) && !(n == Of(TALVOR_VT_MARK_UNKNOWN))) << "grouping puts NULLs together, not with a marker";
    EXPECT_EQ(n.IsEqual(Of(TALVOR_VT_NULL), FALSE), TALVOR_UNKNOWN);
    for (bool b : {n == one, n != one, n < one, n <= one, n > one, n >= one, one == n, one != n, one < n}) EXPECT_FALSE(b);
    // Operator, result: NULL-safe equality of NULLs and of a NULL and a value,
    // the last operator, and one below the first refused.
    const struct { const st_VARDATA *a, *b; int nOp, nResult; } arCases[] = {
        {&n, &one, TALVOR_OP_EQUAL, TALVOR_UNKNOWN}, {&n, &n, TALVOR_OP_SAFE_EQUAL, TALVOR_TRUE},
        {&one, &n, TALVOR_OP_SAFE_EQUAL, TALVOR_FALSE}, {&one, &one, TALVOR_OP_LESS_EQUAL, TALVOR_TRUE}, {&one, &one, 18, 9}};
    for (const auto& c : arCases) {
        int nResult = 9;
        EXPECT_EQ(CompareData(*c.a, *c.b, c.nOp, nResult), c.nOp == 18 ? TALVOR_VARDATA_BAD_OPERATOR : 0) << c.nOp;
        EXPECT_EQ(nResult, c.nResult) << c.nOp;
    }
}

TEST(VarDataArith, RulesOfTheTypedValue) {
    const st_VARDATA d = Date(31, 12, 2020);
    struct Row { const char* m_szWhat; st_VARDATA m_r; BYTE m_vt; const char* m_szText; };
    const Row arRows[] = {
        {"'abc' * 2: hexadecimal digits without 0x are no number", Txt("abc") * Int(2), TALVOR_VT_BIGINT, "0"},
        {"'0xFFFFFFFF' + 1 through decimals", Txt("0xFFFFFFFF") + Int(1), TALVOR_VT_DECIMAL, "4294967296"},
        {"1 << 64", Int(1) << Int(64), TALVOR_VT_BIGINT, "0"},
        // Python holds a date plus days; the operands swapped it does not.
        {"1 + date", Int(1) + d, TALVOR_VT_DATE, "2021-01-01"},
        {"days past the calendar: NULL, not a wrapped date", d + Int(3000000), TALVOR_VT_NULL, "NULL"},
        // Power gives doubles, Trunc keeps the type and cuts, Avg divides a
        // sum by its count.
        {"-8 power 1/3: no real root", Fn(Dbl(-8), [](st_VARDATA& v) { v.Power(Dbl(1.0 / 3)); }), TALVOR_VT_NULL, "NULL"},
        {"trunc -123.4567, 2: cut, not rounded", Fn(Dec("-123.4567"), [](st_VARDATA& v) { v.Trunc(2); }),
         TALVOR_VT_DECIMAL, "-123.45"},
        {"avg of no rows", Fn(Dec("10.0"), [](st_VARDATA& v) { v.m_nDataCount = 0; v.Avg(); }), TALVOR_VT_NULL, "NULL"},
    };
    for (const Row& r : arRows) {
        SCOPED_TRACE(r.m_szWhat);
        EXPECT_EQ(Val(r.m_r.m_vt), r.m_vt);
        EXPECT_EQ(Text(r.m_r), r.m_szText);
    }
}

TEST(VarDataCompare, AcrossTypesAndText) {
    for (short n : {(short)SHRT_MIN, (short)-1, (short)7}) EXPECT_EQ(Hash(Make(n)), Hash(Int(n))) << n;
    st_VARDATA d = Date(15, 3, 2021);
    EXPECT_TRUE(d == Txt("2021-03-15") && d < Txt("2021-03-15 00:00:01"));
    EXPECT_FALSE(d == Txt("not a date") || d != Txt("not a date")) << "neither equal nor unequal";
    EXPECT_TRUE(DateTime(0.0) == Txt("1899-12-30")) << "day 0";
    // A null text on the right is false, on both sides of the operator.
    st_VARDATA z = Of(TALVOR_VT_TEXT);
    EXPECT_FALSE(Txt("a") == z || Txt("a") != z);
    EXPECT_EQ(Txt("").Compare(z), 0) << "but it sorts as the empty text";
    // Text hash follows the compare: case does not count, a trailing NUL neither.
    const char szNul[] = "hello, world 42\0";
    st_VARDATA withNul = New([&](st_VARDATA& v) { v.AttachString((char*)szNul, (int)sizeof(szNul) - 1, TALVOR_VT_TEXT); });
    EXPECT_TRUE(Hash(Txt("Hello, World 42")) == Hash(withNul) && Txt("Hello, World 42") == withNul);
    EXPECT_NE(Hash(Txt("Hello, World 42")), Hash(Txt("Hello, World 43")));
}

// Two doubles are equal within the tolerance, and the tolerance is one
// bound both ways: a pair exactly on it orders the same from either side,
// or a sort would meet a < b and b < a.
TEST(VarDataCompare, TheToleranceOfDoublesIsTheSameEitherWayAndNanIsEqualToNothing) {
    const double EPS = 1e-8;
    for (double a : {0.0, EPS, -EPS, 3.0}) {
        // a + EPS is not exact for every a; the pair's own difference is
        // what DoubleOrder sees, so it is taken as it comes out.
        for (double b : {a + EPS, std::nextafter(a + EPS, HUGE_VAL), std::nextafter(a + EPS, -HUGE_VAL)})
            EXPECT_EQ(Dbl(a).Compare(Dbl(b)), -Dbl(b).Compare(Dbl(a))) << a << " against " << b;
    }
    EXPECT_EQ(0, Dbl(0.0).Compare(Dbl(EPS))) << "exactly on the bound";

    // A NaN is equal to nothing, itself included: a compare that let it be
    // equal would merge it into any group and break a sort.
    const st_VARDATA nan = Dbl(std::nan(""));
    for (double d : {0.0, -0.0, 1e-9, 5e-324, -1e300, 1.7976931348623157e308, std::nan("")}) {
        EXPECT_TRUE(nan.Compare(Dbl(d)) != 0 && Dbl(d).Compare(nan) != 0) << d;
        EXPECT_TRUE(!(nan == Dbl(d)) && !(Dbl(d) == nan)) << d;
    }
}

TEST(VarDataConvert, ChangeTypeByTarget) {
    CTalvorBufferPool pool;
    // A variable text becomes binary without its terminator.
    st_VARDATA v = Of(TALVOR_VT_NULL);
    ASSERT_EQ(v.SetData("ab\0", 3), 0);
    ASSERT_EQ(v.ChangeType(&pool, TALVOR_VT_BINARY), 0);
    EXPECT_EQ(Val(v.m_nStrLen), 2);
    v.Free();
    // A hexadecimal literal is its big-endian bytes; as text it is its bytes,
    // no longer a number.
    ASSERT_EQ(v.SetData("\x01\x02", 2), 0);
    v.m_vt = TALVOR_VT_HEX;
    EXPECT_EQ(Val((v + Int(1)).m_llValue), 0x0103);
    ASSERT_EQ(v.ChangeType(nullptr, TALVOR_VT_TEXT), 0);
    EXPECT_EQ(Text(v), "\x01\x02");
    EXPECT_EQ(Val((v + Int(1)).m_llValue), 1) << "text that is no number counts as 0";
    v.Free();
}

TEST(VarDataOwnership, OwnedTextIsFreedOnceAndBorrowedTextNever) {
    CTalvorBufferPool pool;
    st_VARDATA v = Of(TALVOR_VT_NULL);
    ASSERT_EQ(v.SetData("owned text", 10), 0);
    v.SetData(42);  // the owned copy is given back here, or the leak checker fails

    // Borrowed stack memory: freeing it would abort under AddressSanitizer.
    char szStack[] = "on the stack";
    v.AttachString(szStack, (int)strlen(szStack), TALVOR_VT_VARTEXT);
    v.SetData(1.5);
    v.AttachBuffer(szStack, (int)strlen(szStack), FALSE);
    v.SetNull();
    v.AttachBinaryData(szStack, 4, FALSE);
    v.Free();

    // Taken over: freed by the value, exactly once.
    char* pHeap = new char[8];
    memcpy(pHeap, "heap!!!", 8);
    v.AttachBuffer(pHeap, 7, TRUE);
    st_VARDATA copy = Of(TALVOR_VT_NULL);
    ASSERT_EQ(copy.SetData(nullptr, v), 0);  // deep: its own buffer, still read after v is gone
    v.Free();
    v.Free();  // a second Free finds nothing owned
    EXPECT_EQ(Text(copy), "heap!!!");
    copy.Free();

    // A copy of a value's own text into itself keeps it readable.
    ASSERT_EQ(v.SetData("self", 4), 0);
    ASSERT_EQ(v.SetData(nullptr, v), 0);
    EXPECT_EQ(Text(v), "self");
    st_VARDATA part = Of(TALVOR_VT_NULL);
    part.AttachString(v.m_lpszValue + 2, 2, TALVOR_VT_TEXT);  // borrows from v
    ASSERT_EQ(v.SetData(nullptr, part), 0);                    // v's old buffer goes after the copy
    EXPECT_EQ(Text(v), "lf");

    v.Free();
}

TEST(VarDataOwnership, LengthsAreBoundedBeforeAllocation) {
    st_VARDATA v = Of(TALVOR_VT_NULL);
    char sz[] = "x";
    for (int nLen : {-1, TALVOR_VARDATA_MAX_TEXT + 1}) EXPECT_EQ(v.SetData(sz, nLen), TALVOR_VARDATA_NO_MEMORY) << nLen;
    EXPECT_EQ(v.SetBinaryData(nullptr, 5), TALVOR_VARDATA_NO_MEMORY);
    EXPECT_EQ(Val(v.m_vt), TALVOR_VT_NULL);
    // A value from elsewhere claiming a huge length is refused, not copied.
    st_VARDATA bad = Of(TALVOR_VT_NULL);
    bad.AttachString(sz, 1, TALVOR_VT_TEXT);
    bad.m_nStrLen = 0x7FFFFFFF;
    EXPECT_EQ(v.SetData(nullptr, bad), TALVOR_VARDATA_NO_MEMORY);
    EXPECT_EQ(Val(v.m_vt), TALVOR_VT_NULL);
    bad.m_nStrLen = -5;
    EXPECT_TRUE(v.SetData(nullptr, bad) == 0 && Text(v).empty());
    v.Free();
    st_VARDATA p = Of(TALVOR_VT_NULL);
    std::string s(300, 'a');
    p.AttachString(&s[0], 300, TALVOR_VT_PREFIXTEXT);
    EXPECT_EQ(p.GetDataLen(), 305);
}

} // namespace
