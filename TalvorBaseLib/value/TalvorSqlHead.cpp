// TalvorSqlHead.cpp — the first word of a statement, behind its comments and
// brackets.

#include "TalvorSqlText.h"

namespace {

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v'; }
bool IsLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsQuote(char c) { return c == '\'' || c == '"' || c == '`'; }

// Position behind the quoted text opened at nPos, a doubled or backslashed
// quote inside it included; nEnd when it never closes.
int SkipQuoted(const char* p, int nPos, int nEnd) {
    const char chQuote = p[nPos++];
    while (nPos < nEnd) {
        if (p[nPos] == '\\' && chQuote != '`') {
            nPos += 2;
            continue;
        }
        if (p[nPos++] == chQuote) {
            if (nPos < nEnd && p[nPos] == chQuote) {
                ++nPos;
                continue;
            }
            return nPos;
        }
    }
    return nEnd;
}

// The position of the ")" that closes the "(" at nOpen, or -1.
int MatchingParen(const char* p, int nOpen, int nEnd) {
    int nDepth = 0;
    for (int i = nOpen; i < nEnd;) {
        const char c = p[i];
        if (IsQuote(c)) {
            i = SkipQuoted(p, i, nEnd);
            continue;
        }
        if (c == '(') ++nDepth;
        if (c == ')' && --nDepth == 0) return i;
        ++i;
    }
    return -1;
}

void TrimTail(const char* p, int nPos, int& nEnd) {
    while (nEnd > nPos && (IsSpace(p[nEnd - 1]) || p[nEnd - 1] == ';')) --nEnd;
}

void TrimHead(const char* p, int& nPos, int nEnd) {
    while (nPos < nEnd && IsSpace(p[nPos])) ++nPos;
}

// Takes off semicolons and enclosing parentheses until neither is left.
void Unwrap(const char* p, int& nPos, int& nEnd) {
    for (;;) {
        TrimTail(p, nPos, nEnd);
        TrimHead(p, nPos, nEnd);
        if (nPos >= nEnd || p[nPos] != '(' || MatchingParen(p, nPos, nEnd) != nEnd - 1) return;
        ++nPos;
        --nEnd;
    }
}

int LineEnd(const char* p, int nPos, int nEnd) {
    while (nPos < nEnd && p[nPos] != '\n') ++nPos;
    return nPos;
}

// Position behind the "*/" that closes the comment whose body starts at
// nPos, or nEnd.
int BlockEnd(const char* p, int nPos, int nEnd) {
    for (; nPos + 1 < nEnd; ++nPos) {
        if (p[nPos] == '*' && p[nPos + 1] == '/') return nPos + 2;
    }
    return nEnd;
}

// Skips the comment at nPos, if one starts there; false when none does.
bool SkipComment(const char* p, int& nPos, int nEnd, BOOL bComments, int& nStartPos, int& nEndPos) {
    const bool bTwo = nPos + 1 < nEnd;
    if (bTwo && p[nPos] == '-' && p[nPos + 1] == '-') {
        nPos = LineEnd(p, nPos, nEnd);
        return true;
    }
    if (bComments && p[nPos] == '#') {
        nPos = LineEnd(p, nPos, nEnd);
        return true;
    }
    if (!bTwo || p[nPos] != '/' || p[nPos + 1] != '*') return false;
    int nBody = nPos + 2;
    if (nBody < nEnd && p[nBody] == '!' && nBody + 1 < nEnd && IsDigit(p[nBody + 1])) {
        ++nBody;
        while (nBody < nEnd && IsDigit(p[nBody])) ++nBody;
        nStartPos = nBody;
        nPos = BlockEnd(p, nBody, nEnd);
        nEndPos = nPos;
        return true;
    }
    nPos = BlockEnd(p, nBody, nEnd);
    return true;
}

bool EndsWord(char c) { return IsSpace(c) || c == '*' || c == ':'; }

}  // namespace

int PraseSqlHead(const char* lpszSql, BOOL bComments, int& nSqlLen, int& nPos, char* pCommandHead, int& nLen,
                 int& nBracket, int& nStartPos, int& nEndPos) {
    nLen = 0;
    nBracket = 0;
    nStartPos = 0;
    nEndPos = 0;
    if (pCommandHead != nullptr) pCommandHead[0] = 0;
    if (lpszSql == nullptr || pCommandHead == nullptr || nPos < 0 || nPos >= nSqlLen) return 0;
    Unwrap(lpszSql, nPos, nSqlLen);
    int i = nPos;
    while (i < nSqlLen && !IsLetter(lpszSql[i])) {
        if (IsSpace(lpszSql[i])) {
            ++i;
        } else if (lpszSql[i] == '(') {
            ++nBracket;
            ++i;
        } else if (!SkipComment(lpszSql, i, nSqlLen, bComments, nStartPos, nEndPos)) {
            nPos = i;
            return TALVOR_ERROR_HEAD_START_CHARACTER;
        }
    }
    for (; i < nSqlLen && IsLetter(lpszSql[i]); ++i) {
        if (nLen == TALVOR_SQL_HEAD_MAX) {
            pCommandHead[nLen] = 0;
            nPos = i;
            return TALVOR_ERROR_HEAD_COMMAND;
        }
        pCommandHead[nLen++] = lpszSql[i];
    }
    pCommandHead[nLen] = 0;
    nPos = i;
    if (i < nSqlLen && !EndsWord(lpszSql[i])) return TALVOR_ERROR_HEAD_CHARACTER;
    return 0;
}
