// BaseFunXml.cpp — EXTRACTVALUE over a small path language: element names
// joined by "/" or "//", "*" for any name, and an optional final "/text()".
// The document is walked once with a stack of open elements; a text run
// directly inside a matching element is part of the answer.
#include "BaseFunInternal.h"

#include <cstring>

using namespace talvorfun;

namespace {

// Deepest nesting and longest path the walk keeps; deeper input is refused.
const int kMaxDepth = 64;

struct Step {
    const char* p;
    int n;
    bool bDescendant;  // "//": any ancestors may stand between
};

struct Name {
    const char* p;
    int n;
};

bool IsNameChar(char ch)
{
    return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') || ch == '_' ||
           ch == '-' || ch == '.' || ch == ':' || (unsigned char)ch >= 0x80;
}

// Splits the path into steps. Result: the count, or -1 for a path it cannot read.
int ParsePath(const char* p, int n, Step* lpSteps)
{
    static const char kText[] = "/text()";
    const int nText = (int)sizeof(kText) - 1;
    if (n >= nText && memcmp(p + n - nText, kText, nText) == 0) n -= nText;
    int nSteps = 0, i = 0;
    if (n == 0 || p[0] != '/') return -1;
    while (i < n) {
        if (p[i] != '/') return -1;
        bool bDesc = i + 1 < n && p[i + 1] == '/';
        i += bDesc ? 2 : 1;
        int nStart = i;
        if (i < n && p[i] == '*') ++i;
        else
            while (i < n && IsNameChar(p[i])) ++i;
        if (i == nStart || nSteps == kMaxDepth) return -1;
        lpSteps[nSteps++] = {p + nStart, i - nStart, bDesc};
    }
    return nSteps;
}

bool NameMatches(const Step& s, const Name& e)
{
    return (s.n == 1 && s.p[0] == '*') || (s.n == e.n && memcmp(s.p, e.p, (size_t)e.n) == 0);
}

bool PathMatches(const Step* lpSteps, int nSteps, int si, const Name* lpStack, int nDepth, int di)
{
    if (si == nSteps) return di == nDepth;
    const Step& s = lpSteps[si];
    if (!s.bDescendant) {
        return di < nDepth && NameMatches(s, lpStack[di]) &&
               PathMatches(lpSteps, nSteps, si + 1, lpStack, nDepth, di + 1);
    }
    for (int k = di; k < nDepth; ++k) {
        if (NameMatches(s, lpStack[k]) && PathMatches(lpSteps, nSteps, si + 1, lpStack, nDepth, k + 1)) return true;
    }
    return false;
}

// The walk: collects matching text into lpOut (null: only measures).
// Result: the bytes, or -1 for a document it cannot read.
long long Walk(const TextView& x, const Step* lpSteps, int nSteps, char* lpOut)
{
    Name stack[kMaxDepth];
    int nDepth = 0;
    long long nOut = 0;
    int nParts = 0;
    for (int i = 0; i < x.n;) {
        if (x.p[i] != '<') {
            int nStart = i;
            while (i < x.n && x.p[i] != '<') ++i;
            if (nDepth > 0 && PathMatches(lpSteps, nSteps, 0, stack, nDepth, 0)) {
                if (nParts++ > 0 && lpOut != nullptr) lpOut[nOut] = ' ';
                if (nParts > 1) ++nOut;
                if (lpOut != nullptr) memcpy(lpOut + nOut, x.p + nStart, (size_t)(i - nStart));
                nOut += i - nStart;
            }
            continue;
        }
        const char* lpEnd = (const char*)memchr(x.p + i, '>', (size_t)(x.n - i));
        if (lpEnd == nullptr) return -1;
        int nClose = (int)(lpEnd - x.p);
        bool bEnd = i + 1 < x.n && x.p[i + 1] == '/';
        bool bSpecial = i + 1 < x.n && (x.p[i + 1] == '?' || x.p[i + 1] == '!');
        int nName = i + (bEnd ? 2 : 1), nNameEnd = nName;
        while (nNameEnd < nClose && IsNameChar(x.p[nNameEnd])) ++nNameEnd;
        if (bSpecial) {
        } else if (bEnd) {
            if (nDepth == 0 || stack[nDepth - 1].n != nNameEnd - nName ||
                memcmp(stack[nDepth - 1].p, x.p + nName, (size_t)(nNameEnd - nName)) != 0)
                return -1;
            --nDepth;
        } else {
            if (nNameEnd == nName || nDepth == kMaxDepth) return -1;
            bool bSelfClosed = x.p[nClose - 1] == '/';
            if (!bSelfClosed) stack[nDepth++] = {x.p + nName, nNameEnd - nName};
        }
        i = nClose + 1;
    }
    return nDepth == 0 ? nOut : -1;
}

} // namespace

int CBaseFunManager::Xml_Extract(CTalvorBufferPool* pool, VARDATA& xml, VARDATA& path, VARDATA& result)
{
    if (IsNullArg(xml) || IsNullArg(path)) return SetNullResult(result);
    TextView x, p;
    ReadText(xml, x);
    ReadText(path, p);
    Step steps[kMaxDepth];
    int nSteps = ParsePath(p.p, p.n, steps);
    if (nSteps < 0) return SetNullResult(result);
    long long nLen = Walk(x, steps, nSteps, nullptr);
    if (nLen < 0) return SetNullResult(result);
    char* lpOut = nullptr;
    int nRet = NewText(pool, nLen, result, lpOut);
    if (lpOut != nullptr) Walk(x, steps, nSteps, lpOut);
    return nRet;
}
