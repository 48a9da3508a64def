// BaseFunChoice.cpp — the functions that pick one of their arguments:
// NVL and IFNULL, NVL2, NULLIF, ISNULL, COALESCE, IF, CASE, GREATEST, LEAST.
// The chosen value is copied into the result, its text into the pool.
#include "BaseFunInternal.h"

#include <cstring>

using namespace talvorfun;

namespace {

// Whether a condition counts as true: NULL and false alike do not. Text
// counts by the number it stands for, as the SQL condition reads it ('abc'
// is 0), not by its length.
bool IsTrueArg(const VARDATA& v)
{
    if (talvorvar::IsTextType(v.m_vt)) return v.GetCompatibleDouble() != 0;
    return v.IsTrue() == TALVOR_TRUE;
}

// The text order of the compare functions.
int CompareAsText(const VARDATA& a, const VARDATA& b)
{
    TextView ta, tb;
    ReadText(a, ta);
    ReadText(b, tb);
    return CompareText(ta, tb, true);
}

// NULLIF's and CASE's equality: two texts in the text order, anything else
// by the value rules.
bool SameValue(const VARDATA& a, const VARDATA& b)
{
    if (talvorvar::IsTextType(a.m_vt) && talvorvar::IsTextType(b.m_vt)) return CompareAsText(a, b) == 0;
    return a.IsEqual(b, FALSE) == TALVOR_TRUE;
}

// -1, 0 or 1 for a against b in type bType: text by bytes, anything else by
// the value order, dates after both became bType.
int CompareIn(CTalvorBufferPool* pool, BYTE bType, const VARDATA& a, const VARDATA& b, int& nRet)
{
    nRet = 0;
    if (talvorvar::IsTextType(bType)) return CompareAsText(a, b);
    if (!talvorvar::IsDateType(bType) || (a.m_vt == bType && b.m_vt == bType)) return a.Compare(b);
    VARDATA ca, cb;
    ca.Init();
    cb.Init();
    nRet = a.GetCompatibleValue(pool, bType, ca);
    if (nRet == 0) nRet = b.GetCompatibleValue(pool, bType, cb);
    int n = nRet == 0 ? ca.Compare(cb) : 0;
    ca.Free();
    cb.Free();
    return n;
}

// GREATEST (nSign 1) and LEAST (nSign -1).
int PickExtreme(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, int nSign, VARDATA& result)
{
    if (nCount < 1 || args == nullptr) return TALVOR_FUN_BAD_TYPE;
    BYTE bType = TALVOR_VT_NULL;
    for (int i = 0; i < nCount; ++i) {
        if (IsNullArg(args[i])) return SetNullResult(result);
        bType = CBaseFunManager::GetWidestType(bType, args[i].m_vt);
    }
    int nBest = 0;
    for (int i = 1; i < nCount; ++i) {
        int nRet = 0;
        int n = CompareIn(pool, bType, args[i], args[nBest], nRet);
        if (nRet != 0) return nRet;
        if (n * nSign > 0) nBest = i;
    }
    if (args[nBest].m_vt == bType || (talvorvar::IsTextType(bType) && talvorvar::IsTextType(args[nBest].m_vt)))
        return CopyResult(pool, args[nBest], result);
    int nRet = args[nBest].GetCompatibleValue(pool, bType, result);
    if (nRet != 0) result.SetNull();
    return nRet;
}

} // namespace

int CBaseFunManager::Nvl(CTalvorBufferPool* pool, VARDATA& a, VARDATA& b, VARDATA& result)
{
    return CopyResult(pool, IsNullArg(a) ? b : a, result);
}

int CBaseFunManager::IfNull(CTalvorBufferPool* pool, VARDATA& a, VARDATA& b, VARDATA& result)
{
    return CopyResult(pool, IsNullArg(a) ? b : a, result);
}

int CBaseFunManager::Nvl2(CTalvorBufferPool* pool, VARDATA& a, VARDATA& b, VARDATA& c, VARDATA& result)
{
    return CopyResult(pool, IsNullArg(a) ? c : b, result);
}

int CBaseFunManager::NullIf(CTalvorBufferPool* pool, VARDATA& a, VARDATA& b, VARDATA& result)
{
    if (IsNullArg(a)) return SetNullResult(result);
    if (!IsNullArg(b) && SameValue(a, b)) return SetNullResult(result);
    return CopyResult(pool, a, result);
}

int CBaseFunManager::IsNull(CTalvorBufferPool*, VARDATA& a, VARDATA& result)
{
    return SetInt(result, IsNullArg(a) ? 1 : 0);
}

int CBaseFunManager::Coalesce(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, VARDATA& result)
{
    for (int i = 0; args != nullptr && i < nCount; ++i) {
        if (!IsNullArg(args[i])) return CopyResult(pool, args[i], result);
    }
    return SetNullResult(result);
}

int CBaseFunManager::If(CTalvorBufferPool* pool, VARDATA& cond, VARDATA& a, VARDATA& b, VARDATA& result)
{
    return CopyResult(pool, IsTrueArg(cond) ? a : b, result);
}

int CBaseFunManager::CaseWhen(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, BOOL bHasValue,
                              VARDATA& result)
{
    int nFirst = bHasValue ? 1 : 0;
    if (args == nullptr || nCount - nFirst < 2) return TALVOR_FUN_BAD_TYPE;
    int i = nFirst;
    for (; i + 1 < nCount; i += 2) {
        bool bHit = bHasValue ? SameValue(args[0], args[i]) : IsTrueArg(args[i]);
        if (bHit) return CopyResult(pool, args[i + 1], result);
    }
    if (i < nCount) return CopyResult(pool, args[i], result);
    return SetNullResult(result);
}

int CBaseFunManager::Greatest(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, VARDATA& result)
{
    return PickExtreme(pool, nCount, args, 1, result);
}

int CBaseFunManager::Least(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, VARDATA& result)
{
    return PickExtreme(pool, nCount, args, -1, result);
}
