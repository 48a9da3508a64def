// BaseFunSystem.cpp — UUID, SLEEP, MD5, CRC32, the IPv4 texts and the node
// ids of a relation.
#include "BaseFunInternal.h"
#include "MD5.h"
#include "TalvorKeywordParse.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <uuid/uuid.h>

using namespace talvorfun;

namespace {

// Bytes of the text uuid_unparse_lower writes, its NUL included, rounded.
const int kUuidBuffer = 40;
const int kUuidChars = 36;
// Longest single usleep: the rest of a long sleep goes in steps of this.
const useconds_t kSleepStep = 500000;
// Bytes of a relation key: the start node id, then the end node id.
const int kRelationKey = 16;
const int kNodeIdBytes = 8;
// Largest IPv4 number.
const long long kMaxIpv4 = 0xFFFFFFFFLL;

int NodeId(const VARDATA& relation, int nOffset, VARDATA& result)
{
    if (IsNullArg(relation) || !talvorvar::IsTextType(relation.m_vt)) return SetNullResult(result);
    if (relation.m_lpszValue == nullptr || relation.m_nStrLen < kRelationKey) return SetNullResult(result);
    unsigned long long ull = 0;
    for (int i = kNodeIdBytes - 1; i >= 0; --i) ull = (ull << 8) | (BYTE)relation.m_lpszValue[nOffset + i];
    return SetInt(result, (long long)ull);
}

} // namespace

int CBaseFunManager::GetUUID(CTalvorBufferPool* pool, VARDATA& result)
{
    uuid_t uu;
    uuid_generate(uu);
    LPBYTE lpBuf = pool == nullptr ? nullptr : pool->AllocBuffer(kUuidBuffer);
    if (lpBuf == nullptr) {
        result.SetNull();
        return TALVOR_VARDATA_NO_MEMORY;
    }
    uuid_unparse_lower(uu, (char*)lpBuf);
    result.AttachString((char*)lpBuf, kUuidChars, TALVOR_VT_TEXT);
    return 0;
}

int CBaseFunManager::TalvorSleep(CTalvorBufferPool*, VARDATA& seconds, VARDATA& result)
{
    if (IsNullArg(seconds)) return SetNullResult(result);
    double d = seconds.GetCompatibleDouble();
    if (std::isfinite(d) && d > 0) {
        double dMicro = d * 1e6;
        while (dMicro >= 1) {
            useconds_t n = dMicro > kSleepStep ? kSleepStep : (useconds_t)dMicro;
            usleep(n);
            dMicro -= n;
        }
    }
    result.SetData(0);
    return 0;
}

int CBaseFunManager::Md5(CTalvorBufferPool* pool, VARDATA& str, VARDATA& result)
{
    if (IsNullArg(str)) return SetNullResult(result);
    TextView t;
    ReadText(str, t);
    MD5 md5;
    md5.MD5Update(t.p, t.n);
    char sz[MD5_HEX_BYTES];
    md5.MD5Final(sz);
    return SetText(pool, sz, MD5_HEX_BYTES - 1, result);
}

int CBaseFunManager::CRC32(CTalvorBufferPool*, VARDATA& str, VARDATA& result)
{
    if (IsNullArg(str)) return SetNullResult(result);
    TextView t;
    ReadText(str, t);
    while (t.n > 0 && t.p[t.n - 1] == 0) --t.n;
    CTalvorKeywordParse* pParse = CTalvorKeywordParse::instance();
    if (pParse == nullptr) {
        result.SetNull();
        return TALVOR_VARDATA_NO_MEMORY;
    }
    return SetInt(result, (long long)pParse->CRC32Encrypt(t.p, t.n));
}

int CBaseFunManager::Inet_aton(CTalvorBufferPool*, VARDATA& str, VARDATA& result)
{
    if (IsNullArg(str)) return SetNullResult(result);
    TextView t;
    ReadText(str, t);
    unsigned long long ull = 0;
    int nPart = 0, nDots = 0;
    char ch = '.';
    for (int i = 0; i < t.n; ++i) {
        ch = t.p[i];
        if (ch >= '0' && ch <= '9') {
            nPart = nPart * 10 + (ch - '0');
            if (nPart > 255) return SetNullResult(result);
        } else if (ch == '.' && nDots < 3) {
            ++nDots;
            ull = (ull << 8) + (unsigned long long)nPart;
            nPart = 0;
        } else {
            return SetNullResult(result);
        }
    }
    // A number ending in a dot, or the empty text, names no address.
    if (ch == '.') return SetNullResult(result);
    // The last part fills the bytes the missing parts leave: a.b is a.0.0.b.
    if (nDots == 1) ull <<= 16;
    if (nDots == 2) ull <<= 8;
    return SetInt(result, (long long)((ull << 8) + (unsigned long long)nPart));
}

int CBaseFunManager::Inet_ntoa(CTalvorBufferPool* pool, VARDATA& n, VARDATA& result)
{
    if (IsNullArg(n)) return SetNullResult(result);
    long long ll = IntArg(n);
    if (ll < 0 || ll > kMaxIpv4) return SetNullResult(result);
    char sz[16];
    int nLen = snprintf(sz, sizeof(sz), "%d.%d.%d.%d", (int)(ll >> 24) & 255, (int)(ll >> 16) & 255,
                        (int)(ll >> 8) & 255, (int)ll & 255);
    return SetText(pool, sz, nLen, result);
}

int CBaseFunManager::StartNodeID(CTalvorBufferPool*, VARDATA& relation, VARDATA& result)
{
    return NodeId(relation, 0, result);
}

int CBaseFunManager::EndNodeID(CTalvorBufferPool*, VARDATA& relation, VARDATA& result)
{
    return NodeId(relation, kNodeIdBytes, result);
}
