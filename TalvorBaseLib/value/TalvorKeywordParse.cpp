// TalvorKeywordParse.cpp — token classes, the keyword hash and CRC-32.
#include "TalvorKeywordParse.h"
#include "TalvorHash.h"

#include <cstdlib>
#include <cstring>
#include <new>

CTalvorKeywordParse* CTalvorKeywordParse::m_pSinstance = nullptr;

namespace {

// Groups of three name bytes follow the first word; bytes from offset 25 on
// take no part in the hash.
const int g_nHashFirstGroup = 4;
const int g_nHashGroupBytes = 3;
const int g_nHashGroups = 7;
const int g_nWordBytes = 4;

bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool HasPoint(const char* lp, int nLen)
{
    return memchr(lp, '.', (size_t)nLen) != nullptr;
}

UINT LoadWord(const char* lp)
{
    UINT n;
    memcpy(&n, lp, sizeof(n));
    return n;
}

UINT LoadLittle(const char* lp, int nBytes)
{
    UINT n = 0;
    for (int i = 0; i < nBytes; ++i) n |= (UINT)(unsigned char)lp[i] << (8 * i);
    return n;
}

int ClassifyOneByte(unsigned char c)
{
    if (c >= '0' && c <= '9') return TALVOR_TOKEN_INTEGER;
    switch (c) {
    case '\0': return TALVOR_TOKEN_NUL;
    case '!': return TALVOR_TOKEN_NOT;
    case '"': return TALVOR_TOKEN_DOUBLE_QUOTE;
    case '$': return TALVOR_TOKEN_DOLLAR;
    case '%': return TALVOR_TOKEN_PERCENT;
    case '&': return TALVOR_TOKEN_AMPERSAND;
    case '\'': return TALVOR_TOKEN_SINGLE_QUOTE;
    case '(': return TALVOR_TOKEN_LPAREN;
    case ')': return TALVOR_TOKEN_RPAREN;
    case '*': return TALVOR_TOKEN_STAR;
    case '+': return TALVOR_TOKEN_PLUS;
    case ',': return TALVOR_TOKEN_COMMA;
    case '-': return TALVOR_TOKEN_MINUS;
    case '.': return TALVOR_TOKEN_POINT;
    case '/': return TALVOR_TOKEN_SLASH;
    case ':': return TALVOR_TOKEN_COLON;
    case ';': return TALVOR_TOKEN_SEMICOLON;
    case '<': return TALVOR_TOKEN_LESS;
    case '=': return TALVOR_TOKEN_EQUAL;
    case '>': return TALVOR_TOKEN_GREATER;
    case '?': return TALVOR_TOKEN_QUESTION;
    case '@': return TALVOR_TOKEN_AT;
    case '[': return TALVOR_TOKEN_LBRACKET;
    case ']': return TALVOR_TOKEN_RBRACKET;
    case '^': return TALVOR_TOKEN_CARET;
    case '`': return TALVOR_TOKEN_BACKQUOTE;
    case '{': return TALVOR_TOKEN_LBRACE;
    case '|': return TALVOR_TOKEN_BAR;
    case '}': return TALVOR_TOKEN_RBRACE;
    case '~': return TALVOR_TOKEN_TILDE;
    default: return TALVOR_TOKEN_IDENTIFIER;
    }
}

struct TwoByteOperator {
    char m_sz[3];
    int m_nClass;
};

const TwoByteOperator g_arTwoByteOperators[] = {
    {"!=", TALVOR_TOKEN_NOT_EQUAL},     {"<>", TALVOR_TOKEN_NOT_EQUAL},  {">=", TALVOR_TOKEN_GREATER_EQUAL},
    {"<=", TALVOR_TOKEN_LESS_EQUAL},    {":=", TALVOR_TOKEN_ASSIGN},     {"->", TALVOR_TOKEN_ARROW},
    {">>", TALVOR_TOKEN_SHIFT_RIGHT},   {"<<", TALVOR_TOKEN_SHIFT_LEFT}, {"||", TALVOR_TOKEN_CONCAT},
    {"&&", TALVOR_TOKEN_AND_AND},       {"<-", TALVOR_TOKEN_LARROW},
};

// Result: the class of a two-byte token settled by its bytes, or 0 when it
// goes on to the general rules.
int ClassifyTwoBytes(const char* lp, BOOL bAnsiQuotes)
{
    for (const TwoByteOperator& op : g_arTwoByteOperators) {
        if (lp[0] == op.m_sz[0] && lp[1] == op.m_sz[1]) return op.m_nClass;
    }
    if (IsDigit(lp[0])) return TALVOR_TOKEN_INTEGER;
    if (lp[0] == '\'' && lp[1] == '\'') return TALVOR_TOKEN_EMPTY;
    if (lp[0] == '"' && lp[1] == '"' && !bAnsiQuotes) return TALVOR_TOKEN_EMPTY;
    return 0;
}

int ClassifyThreeBytes(const char* lp)
{
    if (memcmp(lp, "->>", 3) == 0) return TALVOR_TOKEN_JSON_UNQUOTE;
    if (memcmp(lp, "<=>", 3) == 0) return TALVOR_TOKEN_NULL_SAFE_EQUAL;
    return 0;
}

// b'...' and x'...' literals.
int ClassifyQuotedLiteral(const char* lp, int nLen)
{
    if (lp[1] != '\'' || lp[nLen - 1] != '\'') return 0;
    if (lp[0] == 'b' || lp[0] == 'B') return TALVOR_TOKEN_BIT;
    if (lp[0] == 'x' || lp[0] == 'X') return TALVOR_TOKEN_HEX_X;
    return 0;
}

// 0b... and 0x... literals; 0B is not one.
int ClassifyZeroPrefix(const char* lp)
{
    if (lp[0] != '0') return 0;
    if (lp[1] == 'b') return TALVOR_TOKEN_BIT;
    if (lp[1] == 'x' || lp[1] == 'X') return TALVOR_TOKEN_HEX_0X;
    return 0;
}

int ClassifyNumber(const char* lp, int nLen)
{
    if (lp[0] == '.') return TALVOR_TOKEN_DECIMAL;
    if (!IsDigit(lp[0])) return 0;
    return HasPoint(lp, nLen) ? TALVOR_TOKEN_DECIMAL : TALVOR_TOKEN_INTEGER;
}

}  // namespace

CTalvorKeywordParse::CTalvorKeywordParse()
{
    memset(m_arHashData, 0, sizeof(m_arHashData));
}

CTalvorKeywordParse::~CTalvorKeywordParse()
{
    for (stu_Talvor_Keyword_Item& bucket : m_arHashData) {
        stu_Talvor_Keyword_Item* pItem = bucket.m_pNext;
        while (pItem != nullptr) {
            stu_Talvor_Keyword_Item* pNext = pItem->m_pNext;
            free(pItem);
            pItem = pNext;
        }
        bucket.m_pNext = nullptr;
    }
}

CTalvorKeywordParse* CTalvorKeywordParse::instance()
{
    if (m_pSinstance != nullptr) return m_pSinstance;
    CTalvorKeywordParse* pParse = new (std::nothrow) CTalvorKeywordParse();
    if (pParse == nullptr) return nullptr;
    // A table short of a row would take that keyword for an identifier
    // without a word; better no table than that.
    if (!pParse->Initialize()) {
        delete pParse;
        return nullptr;
    }
    m_pSinstance = pParse;
    return m_pSinstance;
}

void CTalvorKeywordParse::DestoryInstance()
{
    delete m_pSinstance;
    m_pSinstance = nullptr;
}

UINT CTalvorKeywordParse::HashKeyword(const char* lpName)
{
    UINT h = LoadLittle(lpName, g_nWordBytes);
    if (lpName[g_nHashFirstGroup] == '\0') return h % TALVOR_KEYWORD_BUCKETS;
    for (int i = 1; i <= g_nHashGroups; ++i) {
        int nAt = g_nHashFirstGroup + g_nHashGroupBytes * (i - 1);
        h += LoadLittle(lpName + nAt, g_nHashGroupBytes) << i;
        if (lpName[nAt + g_nHashGroupBytes] == '\0') break;
    }
    return h % TALVOR_KEYWORD_BUCKETS;
}

// A later row goes right behind the bucket's own, so it stands nearer the
// head of the chain than the rows added before it.
BOOL CTalvorKeywordParse::AddRow(LPTALVORKEYWORDDATA pRow)
{
    stu_Talvor_Keyword_Item& bucket = m_arHashData[HashKeyword(pRow->m_lpszKeyword)];
    if (bucket.m_pKeyword == nullptr) {
        bucket.m_pKeyword = pRow;
        return TRUE;
    }
    auto* pItem = static_cast<stu_Talvor_Keyword_Item*>(malloc(sizeof(stu_Talvor_Keyword_Item)));
    if (pItem == nullptr) return FALSE;
    pItem->m_pKeyword = pRow;
    pItem->m_pNext = bucket.m_pNext;
    bucket.m_pNext = pItem;
    return TRUE;
}

BOOL CTalvorKeywordParse::Initialize()
{
    for (LPTALVORKEYWORDDATA pRow = m_arKeyworData; pRow->m_nKeyworkID != 0; ++pRow) {
        if (!AddRow(pRow)) return FALSE;
    }
    return TRUE;
}

// The SQL function CRC32 and the value library must never disagree, so there
// is one CRC in the library, the one of TalvorHash.
UINT CTalvorKeywordParse::CRC32Encrypt(const char* lpData, int nLen) const
{
    return TalvorCRC32(lpData, nLen);
}

int CTalvorKeywordParse::ClassifyLong(const char* lp, int nLen, BOOL bAnsiQuotes) const
{
    int nClass = ClassifyQuotedLiteral(lp, nLen);
    if (nClass == 0) nClass = ClassifyZeroPrefix(lp);
    if (nClass != 0) return nClass;
    if (lp[0] == '`') return TALVOR_TOKEN_IDENTIFIER;
    if (lp[0] == '\'') return TALVOR_TOKEN_STRING;
    if (lp[0] == '"') return bAnsiQuotes ? TALVOR_TOKEN_IDENTIFIER : TALVOR_TOKEN_STRING;
    nClass = ClassifyNumber(lp, nLen);
    return nClass != 0 ? nClass : TALVOR_TOKEN_IDENTIFIER;
}

// The name is compared through its terminating NUL: comparing only the words
// the token's bytes cover would let "SELE" match SELECT, or any prefix of a
// keyword match it when the prefix hashes to that keyword's bucket.
int CTalvorKeywordParse::Lookup(const char* lp, int nLen, char* lpszData) const
{
    char szLocal[TALVOR_KEYWORD_MAX_TOKEN + TALVOR_KEYWORD_PAD];
    char* lpszToken = lpszData != nullptr ? lpszData : szLocal;
    for (int i = 0; i < nLen; ++i) {
        char c = lp[i];
        lpszToken[i] = (c >= 'a' && c <= 'z') ? (char)(c - ('a' - 'A')) : c;
    }
    memset(lpszToken + nLen, 0, TALVOR_KEYWORD_PAD);
    const stu_Talvor_Keyword_Item* pItem = &m_arHashData[HashKeyword(lpszToken)];
    if (pItem->m_pKeyword == nullptr) return TALVOR_TOKEN_IDENTIFIER;
    int nWords = nLen / g_nWordBytes + 1;
    for (; pItem != nullptr; pItem = pItem->m_pNext) {
        const char* lpszRow = pItem->m_pKeyword->m_lpszKeyword;
        int w = 0;
        while (w < nWords && LoadWord(lpszRow + w * g_nWordBytes) == LoadWord(lpszToken + w * g_nWordBytes)) ++w;
        if (w == nWords) return (int)pItem->m_pKeyword->m_nKeyworkID;
    }
    return TALVOR_TOKEN_IDENTIFIER;
}

int CTalvorKeywordParse::ClassifyOther(const char* lp, int nLen, BOOL bAnsiQuotes) const
{
    int nClass = ClassifyQuotedLiteral(lp, nLen);
    if (nClass == 0) nClass = ClassifyZeroPrefix(lp);
    if (nClass != 0) return nClass;
    if (lp[0] == '\'') return TALVOR_TOKEN_STRING;
    if (lp[0] == '"' && !bAnsiQuotes) return TALVOR_TOKEN_STRING;
    if (lp[0] == '`' || lp[0] == '"') {
        return nLen == 3 && lp[1] == '$' ? TALVOR_TOKEN_DOLLAR : TALVOR_TOKEN_IDENTIFIER;
    }
    return ClassifyNumber(lp, nLen);
}

int CTalvorKeywordParse::GetKeyword(const char* lpKeyword, int nLen, char* lpszData, BOOL bAnsiQuotes) const
{
    if (nLen <= 0 || lpKeyword == nullptr) return TALVOR_TOKEN_EMPTY;
    if (nLen >= TALVOR_KEYWORD_MAX_TOKEN) return ClassifyLong(lpKeyword, nLen, bAnsiQuotes);
    if (nLen == 1) return ClassifyOneByte((unsigned char)lpKeyword[0]);
    int nClass = 0;
    if (nLen == 2) nClass = ClassifyTwoBytes(lpKeyword, bAnsiQuotes);
    else if (nLen == 3) nClass = ClassifyThreeBytes(lpKeyword);
    if (nClass == 0) nClass = ClassifyOther(lpKeyword, nLen, bAnsiQuotes);
    return nClass != 0 ? nClass : Lookup(lpKeyword, nLen, lpszData);
}

int CTalvorKeywordParse::GetKeyword(const char* lpKeyword, int nLen, BOOL bAnsiQuotes) const
{
    return GetKeyword(lpKeyword, nLen, nullptr, bAnsiQuotes);
}
