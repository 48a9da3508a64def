// TalvorVarDataArith.cpp — arithmetic and bit operators of the typed value.
//
// Each operand is first read as the number it stands for
// (GetCompatibleNumberValue); the pair then picks the result's type: a double
// on either side gives a double, else a decimal on either side a decimal,
// else 64-bit integers, which move to decimals when a result would overflow.
// Dates keep their type in + and -; NULL and the markers spread.

#include "TalvorDate.h"
#include "TalvorDecimal.h"
#include "TalvorVarDataInternal.h"

#include <climits>
#include <cmath>
#include <cstring>

using namespace talvorvar;

namespace {

enum ArithOp { OP_ADD, OP_SUB, OP_MUL, OP_DIV, OP_MOD };

st_VARDATA Empty()
{
    st_VARDATA r;
    memset(&r, 0, sizeof(r));
    return r;
}

// NULL or a marker on either side, left first, decides the result.
bool Spread(const st_VARDATA& a, const st_VARDATA& b, st_VARDATA& r)
{
    const st_VARDATA* p = IsVoid(a.m_vt) ? &a : IsVoid(b.m_vt) ? &b : nullptr;
    if (p == nullptr) return false;
    r = Empty();
    r.m_vt = p->m_vt == TALVOR_VT_EMPTY ? TALVOR_VT_NULL : p->m_vt;
    return true;
}

void ToDecimal(const st_VARDATA& n, st_VARDATA& d)
{
    if (n.m_vt == TALVOR_VT_DECIMAL) {
        memcpy(&d, &n, sizeof(d));
        return;
    }
    MakeNull(d);
    if (n.m_vt == TALVOR_VT_BIGINT) CTalvorDecimal::Convert2Decimal(n.m_llValue, &d);
    else CTalvorDecimal::Convert2Decimal(n.m_dblValue, &d);
}

double ToDouble(const st_VARDATA& n)
{
    if (n.m_vt == TALVOR_VT_BIGINT) return (double)n.m_llValue;
    if (n.m_vt == TALVOR_VT_DECIMAL) return CTalvorDecimal::Convert2Double(&n);
    return n.m_dblValue;
}

bool IsZeroNumber(const st_VARDATA& n)
{
    if (n.m_vt == TALVOR_VT_BIGINT) return n.m_llValue == 0;
    if (n.m_vt == TALVOR_VT_DECIMAL) return CTalvorDecimal::IsZero(&n) != 0;
    return n.m_dblValue == 0.0;
}

st_VARDATA DecimalArith(const st_VARDATA& na, const st_VARDATA& nb, ArithOp op)
{
    st_VARDATA a, b, r;
    ToDecimal(na, a);
    ToDecimal(nb, b);
    MakeNull(r);
    if (a.m_vt != TALVOR_VT_DECIMAL || b.m_vt != TALVOR_VT_DECIMAL) return r;
    int nResult = 0;
    switch (op) {
    case OP_ADD: nResult = CTalvorDecimal::Add(&a, &b, &r); break;
    case OP_SUB: nResult = CTalvorDecimal::Sub(&a, &b, &r); break;
    case OP_MUL: nResult = CTalvorDecimal::Mul(&a, &b, &r); break;
    case OP_DIV: nResult = CTalvorDecimal::Div(&a, &b, &r); break;
    case OP_MOD: nResult = CTalvorDecimal::Mod(&a, &b, &r); break;
    }
    if (nResult != 0 || r.m_vt != TALVOR_VT_DECIMAL) MakeNull(r);
    return r;
}

st_VARDATA DoubleArith(double a, double b, ArithOp op)
{
    st_VARDATA r;
    switch (op) {
    case OP_ADD: MakeDouble(r, a + b); break;
    case OP_SUB: MakeDouble(r, a - b); break;
    case OP_MUL: MakeDouble(r, a * b); break;
    default: MakeDouble(r, a / b); break;
    }
    if (!std::isfinite(r.m_dblValue)) MakeNull(r);
    return r;
}

st_VARDATA IntArith(long long a, long long b, ArithOp op, const st_VARDATA& na, const st_VARDATA& nb)
{
    st_VARDATA r;
    long long ll = 0;
    bool bOverflow = false;
    switch (op) {
    case OP_ADD: bOverflow = __builtin_add_overflow(a, b, &ll); break;
    case OP_SUB: bOverflow = __builtin_sub_overflow(a, b, &ll); break;
    case OP_MUL: bOverflow = __builtin_mul_overflow(a, b, &ll); break;
    case OP_DIV: return DoubleArith((double)a, (double)b, OP_DIV);
    case OP_MOD: ll = b == -1 ? 0 : a % b; break;
    }
    if (bOverflow) return DecimalArith(na, nb, op);
    MakeBigInt(r, ll);
    return r;
}

st_VARDATA NumberArith(const st_VARDATA& na, const st_VARDATA& nb, ArithOp op)
{
    if ((op == OP_DIV || op == OP_MOD) && IsZeroNumber(nb)) {
        st_VARDATA r;
        MakeNull(r);
        return r;
    }
    bool bDouble = na.m_vt == TALVOR_VT_DOUBLE || nb.m_vt == TALVOR_VT_DOUBLE;
    bool bDecimal = na.m_vt == TALVOR_VT_DECIMAL || nb.m_vt == TALVOR_VT_DECIMAL;
    if (op == OP_MOD && !(na.m_vt == TALVOR_VT_BIGINT && nb.m_vt == TALVOR_VT_BIGINT)) {
        // Fractions go through decimals; a double operand brings the
        // remainder back as a double.
        st_VARDATA r = DecimalArith(na, nb, OP_MOD);
        if (bDouble && r.m_vt == TALVOR_VT_DECIMAL) MakeDouble(r, CTalvorDecimal::Convert2Double(&r));
        return r;
    }
    if (bDouble) return DoubleArith(ToDouble(na), ToDouble(nb), op);
    if (bDecimal) return DecimalArith(na, nb, op);
    return IntArith(na.m_llValue, nb.m_llValue, op, na, nb);
}

// A value as a date operand of + and -: a date type as it stands, a text
// the date parser takes as a date and time (4). Result: false for others.
bool AsDateOperand(const st_VARDATA& v, st_VARDATA& vDate)
{
    if (IsDateType(v.m_vt)) {
        memcpy(&vDate, &v, sizeof(vDate));
        return true;
    }
    if (!IsTextType(v.m_vt) || IsHexText(v)) return false;
    int nLen = 0;
    const char* p = TextOf(v, nLen);
    double dDays = 0;
    if (!TextAsDate(p, nLen, dDays)) return false;
    memset(&vDate, 0, sizeof(vDate));
    vDate.m_vt = TALVOR_VT_DATETIME;
    vDate.m_dblValue = dDays;
    return true;
}

// dDays as a value of the date type bType; NULL outside years 1 to 9999.
st_VARDATA DateResult(BYTE bType, double dDays)
{
    st_VARDATA r;
    MakeNull(r);
    TALVORDATEPARTS stParts;
    if (bType == TALVOR_VT_TIME) {
        TALVORTIME stTime;
        if (std::isfinite(dDays) && TimeOfDays(dDays, stTime)) r.SetData(stTime);
        return r;
    }
    if (!std::isfinite(dDays) || CTalvorDate::ConvertDateTime(dDays, stParts) != 0) return r;
    if (bType == TALVOR_VT_DATE) {
        TALVORDATE stDate;
        if (CTalvorDate::ConvertDate(dDays, stDate) == 0) r.SetData(stDate);
        return r;
    }
    r.SetDateTime(dDays);
    return r;
}

// + and - where a date takes part. Result: false when neither side is a
// date, and the operands are plain numbers.
bool DateArith(const st_VARDATA& a, const st_VARDATA& b, ArithOp op, st_VARDATA& r)
{
    st_VARDATA da, db;
    bool bDateA = AsDateOperand(a, da), bDateB = AsDateOperand(b, db);
    if (!bDateA && !bDateB) return false;
    double dA = 0, dB = 0;
    if (bDateA && bDateB) {
        MakeNull(r);
        if (!DaysOf(da, dA) || !DaysOf(db, dB)) return true;
        r = DoubleArith(dA, dB, op);
        return true;
    }
    if (!bDateA && op == OP_SUB) return false;  // number - date: both as numbers
    const st_VARDATA& vDate = bDateA ? da : db;
    const st_VARDATA& vNumber = bDateA ? b : a;
    st_VARDATA n;
    vNumber.GetCompatibleNumberValue(n);
    MakeNull(r);
    if (n.m_vt == TALVOR_VT_NULL || !DaysOf(vDate, dA)) return true;
    dB = ToDouble(n);
    r = DateResult(vDate.m_vt, op == OP_ADD ? dA + dB : dA - dB);
    return true;
}

st_VARDATA Arith(const st_VARDATA& a, const st_VARDATA& b, ArithOp op)
{
    st_VARDATA r;
    if (Spread(a, b, r)) return r;
    if ((op == OP_ADD || op == OP_SUB) && DateArith(a, b, op, r)) return r;
    st_VARDATA na, nb;
    a.GetCompatibleNumberValue(na);
    b.GetCompatibleNumberValue(nb);
    if (Spread(na, nb, r)) return r;
    return NumberArith(na, nb, op);
}

// Moves a computed number into v, keeping v's flag bytes and count.
void StoreResult(st_VARDATA& v, const st_VARDATA& r)
{
    v.Free();
    v.m_vt = r.m_vt;
    memcpy(&v.m_bSign, &r.m_bSign, sizeof(st_VARDATA) - offsetof(st_VARDATA, m_bSign) - sizeof(int));
}

st_VARDATA Bits(const st_VARDATA& a, const st_VARDATA& b, char chOp)
{
    st_VARDATA r;
    if (Spread(a, b, r)) return r;
    const int BITS = 64;
    unsigned long long x = (unsigned long long)a.GetCompatibleBigInt();
    unsigned long long y = (unsigned long long)b.GetCompatibleBigInt();
    unsigned long long z = 0;
    switch (chOp) {
    case '&': z = x & y; break;
    case '|': z = x | y; break;
    case '^': z = x ^ y; break;
    case '>': z = y >= (unsigned long long)BITS ? 0 : x >> y; break;
    default: z = y >= (unsigned long long)BITS ? 0 : x << y; break;
    }
    MakeBigInt(r, (long long)z);
    return r;
}

} // namespace

st_VARDATA st_VARDATA::operator+(const st_VARDATA& b) const { return Arith(*this, b, OP_ADD); }
st_VARDATA st_VARDATA::operator-(const st_VARDATA& b) const { return Arith(*this, b, OP_SUB); }
st_VARDATA st_VARDATA::operator*(const st_VARDATA& b) const { return Arith(*this, b, OP_MUL); }
st_VARDATA st_VARDATA::operator/(const st_VARDATA& b) const { return Arith(*this, b, OP_DIV); }
st_VARDATA st_VARDATA::operator%(const st_VARDATA& b) const { return Arith(*this, b, OP_MOD); }

int st_VARDATA::Add(CTalvorBufferPool*, const st_VARDATA& a, const st_VARDATA& b)
{
    StoreResult(*this, a + b);
    return 0;
}

int st_VARDATA::Sub(CTalvorBufferPool*, const st_VARDATA& a, const st_VARDATA& b)
{
    StoreResult(*this, a - b);
    return 0;
}

int st_VARDATA::Mul(CTalvorBufferPool*, const st_VARDATA& a, const st_VARDATA& b)
{
    StoreResult(*this, a * b);
    return 0;
}

int st_VARDATA::Div(CTalvorBufferPool*, const st_VARDATA& a, const st_VARDATA& b)
{
    StoreResult(*this, a / b);
    return 0;
}

int st_VARDATA::Mod(CTalvorBufferPool*, const st_VARDATA& a, const st_VARDATA& b)
{
    StoreResult(*this, a % b);
    return 0;
}

void st_VARDATA::Abs()
{
    st_VARDATA n;
    GetCompatibleNumberValue(n);
    if (n.m_vt == TALVOR_VT_BIGINT && n.m_llValue < 0) {
        if (n.m_llValue == LLONG_MIN) {
            MakeNull(n);
            CTalvorDecimal::Convert2Decimal((unsigned long long)LLONG_MAX + 1, &n);
        } else n.m_llValue = -n.m_llValue;
    } else if (n.m_vt == TALVOR_VT_DOUBLE) n.m_dblValue = fabs(n.m_dblValue);
    else if (n.m_vt == TALVOR_VT_DECIMAL) n.m_bSign = 0;
    StoreResult(*this, n);
}

void st_VARDATA::Ceil()
{
    st_VARDATA n, r;
    GetCompatibleNumberValue(n);
    memcpy(&r, &n, sizeof(r));
    if (n.m_vt == TALVOR_VT_DOUBLE) r.m_dblValue = ceil(n.m_dblValue);
    else if (n.m_vt == TALVOR_VT_DECIMAL && CTalvorDecimal::Ceil(&n, &r) != 0) MakeNull(r);
    StoreResult(*this, r);
}

void st_VARDATA::Floor()
{
    st_VARDATA n, r;
    GetCompatibleNumberValue(n);
    memcpy(&r, &n, sizeof(r));
    if (n.m_vt == TALVOR_VT_DOUBLE) r.m_dblValue = floor(n.m_dblValue);
    else if (n.m_vt == TALVOR_VT_DECIMAL && CTalvorDecimal::Floor(&n, &r) != 0) MakeNull(r);
    StoreResult(*this, r);
}

st_VARDATA st_VARDATA::operator&(const st_VARDATA& b) const { return Bits(*this, b, '&'); }
st_VARDATA st_VARDATA::operator|(const st_VARDATA& b) const { return Bits(*this, b, '|'); }
st_VARDATA st_VARDATA::operator^(const st_VARDATA& b) const { return Bits(*this, b, '^'); }
st_VARDATA st_VARDATA::operator>>(const st_VARDATA& b) const { return Bits(*this, b, '>'); }
st_VARDATA st_VARDATA::operator<<(const st_VARDATA& b) const { return Bits(*this, b, '<'); }

st_VARDATA st_VARDATA::operator~() const
{
    st_VARDATA r;
    if (Spread(*this, *this, r)) return r;
    MakeBigInt(r, (long long)~(unsigned long long)GetCompatibleBigInt());
    return r;
}
