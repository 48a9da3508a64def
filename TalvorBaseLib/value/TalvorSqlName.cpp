// TalvorSqlName.cpp — the name cutters.

#include "TalvorSqlText.h"

#include "TalvorKeywordParse.h"

#include <cstring>
#include <initializer_list>

namespace {

constexpr int kQuotedMax = 63;
constexpr int kPlainNameMax = 64;
constexpr int kDatabaseNameMax = 63;
constexpr int kTitleMaxTalvor = 31;
constexpr int kTitleMax = 63;
constexpr int kFirstNoWordClass = TALVOR_TOKEN_NUL;
constexpr int kLastNoWordClass = TALVOR_TOKEN_EMPTY;
constexpr int kTitleNotAWord = 0;

bool IsLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool IsNameFirst(char c) { return IsLetter(c) || c == '_' || c == '#'; }
bool IsNameChar(char c) { return IsNameFirst(c) || (c >= '0' && c <= '9') || c == '$'; }
char Upper(char c) { return (c >= 'a' && c <= 'z') ? (char)(c - 32) : c; }

// Whether the text is closed by the quote it opens with.
bool QuotedBy(const char* p, int nLen, char chQuote) {
    return nLen >= 2 && p[0] == chQuote && p[nLen - 1] == chQuote;
}

void CopyInner(const char* p, int nLen, char* lpszOut, bool bUpper) {
    for (int i = 0; i < nLen - 2; ++i) lpszOut[i] = bUpper ? Upper(p[i + 1]) : p[i + 1];
    lpszOut[nLen - 2] = 0;
}

// Quoted name of 1 to 63 bytes between its quotes.
int CopyQuoted(const char* p, int nLen, char* lpszOut, bool bUpper) {
    if (nLen < 3 || nLen - 2 > kQuotedMax) return TALVOR_NAME_BAD;
    CopyInner(p, nLen, lpszOut, bUpper);
    return TALVOR_NAME_QUOTED;
}

// The length of the run of name characters at p, read to the NUL or to
// nLimit + 1 bytes, whichever comes first: enough to tell a name over the
// limit without reading further. -1 when a byte that isn't a name
// character stops it.
int PlainRun(const char* p, int nLimit, bool (*fnFirst)(char)) {
    if (!fnFirst(p[0])) return -1;
    int n = 1;
    while (n <= nLimit && p[n] != 0) {
        if (!IsNameChar(p[n])) return -1;
        ++n;
    }
    return n;
}

// Copies up to nMax of nLen bytes and closes them with a NUL.
void CopyCut(const char* p, int nLen, int nMax, char* lpszOut, bool bUpper) {
    const int n = nLen < nMax ? nLen : nMax;
    for (int i = 0; i < n; ++i) lpszOut[i] = bUpper ? Upper(p[i]) : p[i];
    lpszOut[n] = 0;
}

}  // namespace

int CopyNameFromSql(const char* lpszText, int nLen, char* lpszOut) {
    if (lpszText == nullptr || lpszOut == nullptr) return TALVOR_NAME_BAD;
    lpszOut[0] = 0;
    if (QuotedBy(lpszText, nLen, '"')) return CopyQuoted(lpszText, nLen, lpszOut, false);
    if (QuotedBy(lpszText, nLen, '`')) return CopyQuoted(lpszText, nLen, lpszOut, true);
    const int nRun = PlainRun(lpszText, kPlainNameMax, IsNameFirst);
    if (nRun < 0 || nRun > kPlainNameMax) return TALVOR_NAME_BAD;
    for (int i = 0; i < nRun; ++i) lpszOut[i] = Upper(lpszText[i]);
    lpszOut[nRun] = 0;
    return TALVOR_NAME_PLAIN;
}

int CopyUserNameFromSql(const char* lpszText, int nLen, char* lpszOut) {
    if (lpszText == nullptr || lpszOut == nullptr || nLen <= 0) return TALVOR_NAME_BAD;
    lpszOut[0] = 0;
    for (char chQuote : {'"', '`', '\''}) {
        if (QuotedBy(lpszText, nLen, chQuote)) return CopyQuoted(lpszText, nLen, lpszOut, false);
    }
    if (!IsLetter(lpszText[0])) return TALVOR_NAME_BAD;
    int n = 0;
    for (; n < nLen && lpszText[n] != 0; ++n) {
        if (!IsNameChar(lpszText[n])) return TALVOR_NAME_BAD;
    }
    if (n > kPlainNameMax) n = kPlainNameMax;
    memcpy(lpszOut, lpszText, (size_t)n);
    lpszOut[n] = 0;
    return TALVOR_NAME_PLAIN;
}

int CopyDatabaseNameFromSql(const char* lpszText, int nLen, char* lpszOut) {
    if (lpszText == nullptr || lpszOut == nullptr || nLen <= 0) return TALVOR_NAME_BAD;
    lpszOut[0] = 0;
    for (char chQuote : {'"', '`', '\''}) {
        if (QuotedBy(lpszText, nLen, chQuote)) {
            if (nLen < 3) return TALVOR_NAME_BAD;
            CopyInner(lpszText, nLen, lpszOut, false);
            return TALVOR_NAME_PLAIN;
        }
    }
    if (!IsNameFirst(lpszText[0])) return TALVOR_NAME_BAD;
    int n = 0;
    for (; n < nLen && lpszText[n] != 0; ++n) {
        if (!IsNameChar(lpszText[n])) return TALVOR_NAME_BAD;
    }
    if (n > kDatabaseNameMax) return TALVOR_NAME_BAD;
    memcpy(lpszOut, lpszText, (size_t)n);
    lpszOut[n] = 0;
    return TALVOR_NAME_PLAIN;
}

int CopyPassWordFromSql(const char* lpszText, int nLen, char* lpszOut, int nMax) {
    if (lpszText == nullptr || lpszOut == nullptr || nLen <= 0) return TALVOR_NAME_BAD;
    lpszOut[0] = 0;
    if (QuotedBy(lpszText, nLen, '\'') || QuotedBy(lpszText, nLen, '"')) {
        if (nMax > 0 && nLen - 2 > nMax) return TALVOR_NAME_BAD;
        CopyInner(lpszText, nLen, lpszOut, false);
        return TALVOR_NAME_QUOTED;
    }
    int n = 0;
    for (; n < nLen && lpszText[n] != 0; ++n) {
        if (!IsNameChar(lpszText[n])) return TALVOR_NAME_BAD;
    }
    if (nMax > 0 && n > nMax) n = nMax;
    memcpy(lpszOut, lpszText, (size_t)n);
    lpszOut[n] = 0;
    return TALVOR_NAME_PLAIN;
}

int CopyStringFromSql(const char* lpszText, int nLen, char* lpszOut, int nOutSize) {
    constexpr int kCopied = 1, kNoRoom = 2;
    if (lpszText == nullptr || lpszOut == nullptr || !QuotedBy(lpszText, nLen, '\'')) return TALVOR_NAME_BAD;
    if (nLen - 2 + 1 > nOutSize) return kNoRoom;
    CopyInner(lpszText, nLen, lpszOut, false);
    return kCopied;
}

int CheckJsonString(const char* lpszData, int nDataLen, int& nKeyLen, BOOL bDoubleQuote) {
    nKeyLen = 0;
    if (lpszData == nullptr || nDataLen < 0) return TALVOR_ERROR_JSON_KEY_FORMAT;
    if (bDoubleQuote) {
        if (nDataLen < 3 || !QuotedBy(lpszData, nDataLen, '"')) return TALVOR_ERROR_JSON_KEY_FORMAT;
        nKeyLen = nDataLen - 2;
        return 0;
    }
    if (QuotedBy(lpszData, nDataLen, '"') || QuotedBy(lpszData, nDataLen, '\'')) {
        if (nDataLen == 2) return TALVOR_ERROR_JSON_KEY_FORMAT;
        nKeyLen = nDataLen - 2;
        return 0;
    }
    nKeyLen = nDataLen;
    return 0;
}

int CopyTitleFromSql(const char* pData, int nDataLen, char* lpszTitle, BOOL bTalvor) {
    if (lpszTitle == nullptr) return kTitleNotAWord;
    lpszTitle[0] = 0;
    if (pData == nullptr || nDataLen <= 0) return kTitleNotAWord;
    const int nMax = bTalvor ? kTitleMaxTalvor : kTitleMax;
    for (char chQuote : {'"', '`', '\''}) {
        if (QuotedBy(pData, nDataLen, chQuote)) {
            CopyCut(pData + 1, nDataLen - 2, nMax, lpszTitle, bTalvor && chQuote == '`');
            return TALVOR_NAME_QUOTED;
        }
    }
    const CTalvorKeywordParse* pParse = CTalvorKeywordParse::instance();
    const int nClass = pParse != nullptr ? pParse->GetKeyword(pData, nDataLen, TRUE) : TALVOR_TOKEN_IDENTIFIER;
    CopyCut(pData, nDataLen, nMax, lpszTitle, false);
    if (nClass >= kFirstNoWordClass && nClass <= kLastNoWordClass) return kTitleNotAWord;
    return TALVOR_NAME_PLAIN;
}
