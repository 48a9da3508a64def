// TalvorCollation.cpp — classification of text by encoding, and collation
// and character-set names.
//
// The names arrive as SQL tokens. A plain token that the keyword parser
// would class as punctuation, an operator or a literal never starts with one
// of the letters the rules below look at, so it falls to the default without
// being classified first.

#include "TalvorCharset.h"
#include "TalvorTextInternal.h"

#include <cstring>

using namespace talvor_text;

namespace {

constexpr int kNameLimit = 31;

struct NamedId {
    const char* m_lpszName;
    int m_nId;
};

constexpr NamedId kCollations[] = {
    {"utf8_general_ci", 33},    {"utf8_unicode_ci", 33},     {"utf8mb4_general_ci", 45},
    {"utf8mb4_unicode_ci", 224}, {"utf8_bin", 83},           {"utf8mb4_bin", 46},
    {"gbk_chinese_ci", 28},     {"gb2312_chinese_ci", 24},   {"gb18030_chinese_ci", 248},
    {"gb2312_bin", 86},         {"gbk_bin", 87},             {"gb18030_bin", 249},
    {"latin1_german1_ci", 5},   {"latin1_swedish_ci", 8},    {"latin1_danish_ci", 15},
    {"latin1_german2_ci", 31},  {"latin1_spanish_ci", 94},   {"latin1_bin", 47},
    {"latin1_general_ci", 48},
};

constexpr NamedId kCharacterSets[] = {
    {"utf8", 33}, {"utf8mb4", 45}, {"gb2312", 24}, {"gbk", 28}, {"gb18030", 248}, {"binary", 63},
};

constexpr int kUnknownLatinCollation = 49;
constexpr int kAsciiCaseInsensitive = 48;
constexpr int kAsciiOther = 49;
constexpr int kLatinCharacterSet = 8;

// The name inside its quotes (single, double or back), cut to 31 bytes.
void NameOf(const char* lpszData, int nDataLen, const char*& lpName, int& nName) {
    lpName = lpszData;
    nName = nDataLen;
    if (nName >= 2) {
        const char chFirst = lpName[0];
        if ((chFirst == '\'' || chFirst == '"' || chFirst == '`') && lpName[nName - 1] == chFirst) {
            ++lpName;
            nName -= 2;
        }
    }
    if (nName > kNameLimit) nName = kNameLimit;
}

bool SameName(const char* lpName, int nName, const char* lpszKnown) {
    return (int)strlen(lpszKnown) == nName && TalvorEqualNoCase(lpName, lpszKnown, nName);
}

bool StartsWith(const char* lpName, int nName, const char* lpszHead) {
    const int nHead = (int)strlen(lpszHead);
    return nName >= nHead && TalvorEqualNoCase(lpName, lpszHead, nHead);
}

bool EndsWith(const char* lpName, int nName, const char* lpszTail) {
    const int nTail = (int)strlen(lpszTail);
    return nName >= nTail && TalvorEqualNoCase(lpName + nName - nTail, lpszTail, nTail);
}

// --- Encodings --------------------------------------------------------------------

// 6 ASCII, 7 valid UTF-8 (forms of up to 6 bytes), 0 not UTF-8.
int ScanUtf8(const BYTE* p, int nLen) {
    bool bWide = false;
    for (int i = 0; i < nLen;) {
        if (p[i] < 0x80) {
            ++i;
            continue;
        }
        int nBytes = 0;
        DecodeBounded(p + i, nLen - i, nBytes);
        if (nBytes < 2) return 0;
        bWide = true;
        i += nBytes;
    }
    return bWide ? TALVOR_TEXT_UTF8 : TALVOR_TEXT_ASCII;
}

bool IsGbkLead(BYTE b) { return b >= 0x81 && b <= 0xFE; }
bool IsDigitByte(BYTE b) { return b >= '0' && b <= '9'; }

// 6 ASCII, 8 valid GBK / GB18030, 0 neither.
int ScanDoubleByte(const BYTE* p, int nLen) {
    bool bWide = false;
    for (int i = 0; i < nLen;) {
        if (p[i] < 0x80) {
            ++i;
            continue;
        }
        if (!IsGbkLead(p[i]) || i + 1 >= nLen) return 0;
        const BYTE bSecond = p[i + 1];
        if (bSecond >= 0x40 && bSecond <= 0xFE) {
            i += 2;
        } else if (IsDigitByte(bSecond) && i + 3 < nLen && IsGbkLead(p[i + 2]) && IsDigitByte(p[i + 3])) {
            i += 4;
        } else {
            return 0;
        }
        bWide = true;
    }
    return bWide ? TALVOR_TEXT_DOUBLE_BYTE : TALVOR_TEXT_ASCII;
}

}  // namespace

bool TalvorEqualNoCase(const char* lpLeft, const char* lpRight, int nLen) {
    for (int i = 0; i < nLen; ++i) {
        if (ToLower((BYTE)lpLeft[i]) != ToLower((BYTE)lpRight[i])) return false;
    }
    return true;
}

int GetCharacterCodetype(int nCharacterSet, const char* lpszData, int nLen) {
    constexpr int kUtf8Set = 33, kUtf8Mb4Set = 45;
    if (lpszData == nullptr || nLen <= 0) return TALVOR_TEXT_ASCII;
    const BYTE* p = (const BYTE*)lpszData;
    int nType = 0;
    if (nCharacterSet == kUtf8Set || nCharacterSet == kUtf8Mb4Set) {
        nType = ScanUtf8(p, nLen);
        if (nType == 0) nType = ScanDoubleByte(p, nLen);
    } else {
        nType = ScanDoubleByte(p, nLen);
        if (nType == 0) nType = ScanUtf8(p, nLen);
    }
    return nType ? nType : TALVOR_TEXT_UNKNOWN;
}

int GetCollationType(const char* lpszData, int nDataLen) {
    if (lpszData == nullptr || nDataLen <= 0) return TALVOR_COLLATION_DEFAULT;
    const char* lpName;
    int nName;
    NameOf(lpszData, nDataLen, lpName, nName);
    for (const NamedId& known : kCollations) {
        if (SameName(lpName, nName, known.m_lpszName)) return known.m_nId;
    }
    if (nName > 0 && ToLower((BYTE)lpName[0]) == 'l') return kUnknownLatinCollation;
    if (StartsWith(lpName, nName, "ascii")) return EndsWith(lpName, nName, "ci") ? kAsciiCaseInsensitive : kAsciiOther;
    return TALVOR_COLLATION_DEFAULT;
}

int GetCharacterset(const char* lpszData, int nDataLen) {
    if (lpszData == nullptr || nDataLen <= 0) return TALVOR_COLLATION_DEFAULT;
    const char* lpName;
    int nName;
    NameOf(lpszData, nDataLen, lpName, nName);
    for (const NamedId& known : kCharacterSets) {
        if (SameName(lpName, nName, known.m_lpszName)) return known.m_nId;
    }
    if (StartsWith(lpName, nName, "latin")) return kLatinCharacterSet;
    return TALVOR_COLLATION_DEFAULT;
}
