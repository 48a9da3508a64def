// The first word of a statement, titles and names cut out of SQL text (by
// their rules: quoting, case, limits at and just past each edge, the plain
// name that reads to its NUL).

#include "TalvorSqlText.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

namespace {

// A copy without a NUL, so that reading behind the text is caught by the
// sanitizer.
std::unique_ptr<char[]> Tight(const std::string& s) {
    std::unique_ptr<char[]> copy(new char[s.size() ? s.size() : 1]);
    memcpy(copy.get(), s.data(), s.size());
    return copy;
}

struct Head { int m_nResult, m_nBracket, m_nStart, m_nEnd, m_nPos, m_nSqlLen; std::string m_strWord; };

Head Parse(const std::string& sql, BOOL bComments = TRUE) {
    // The head buffer sits between guards to catch a write past its room.
    struct { char m_arHead[TALVOR_SQL_HEAD_ROOM]; char m_arGuard[8]; } room;
    memset(&room, 0x5A, sizeof(room));
    std::unique_ptr<char[]> copy = Tight(sql);
    Head h{};
    int nLen = 0;
    h.m_nSqlLen = (int)sql.size();
    h.m_nResult = PraseSqlHead(copy.get(), bComments, h.m_nSqlLen, h.m_nPos, room.m_arHead, nLen, h.m_nBracket,
                               h.m_nStart, h.m_nEnd);
    for (char c : room.m_arGuard) EXPECT_EQ(c, 0x5A) << sql;
    h.m_strWord = room.m_arHead;
    EXPECT_EQ((int)h.m_strWord.size(), nLen);
    return h;
}

}  // namespace

// Each statement head: result, word, and the fields that matter for it (-1:
// not checked): parentheses left, statement length, position, and the span
// of a versioned comment.
TEST(SqlHead, WordsBoundsAndErrors) {
    struct Case { std::string strSql; int nResult; const char* lpszWord; int nBracket, nSqlLen, nPos, nStart, nEnd; };
    const int S = TALVOR_ERROR_HEAD_START_CHARACTER;
    const Case arCases[] = {
        {"SELECT*FROM t", 0, "SELECT", -1, -1, -1, -1, -1},
        // The parentheses and the semicolon are gone from the statement.
        {"  ((  select 1 ; ) ) ;;  ", 0, "select", 0, 14, -1, -1, -1},
        // The first parenthesis closes before the end: it stays, and counts.
        {"(select 1) union (select 2);", 0, "select", 1, 27, -1, -1, -1},
        {"(select ')') ", 0, "select", 0, 11, -1, -1, -1},  // a parenthesis in a string doesn't pair
        {"-- note\n# more\n/* block */ update t", 0, "update", -1, -1, 33, 0, -1},
        {"/*!40101 SET NAMES utf8 */ select 1", 0, "select", -1, -1, -1, 8, 26},
        {"select(1)", TALVOR_ERROR_HEAD_CHARACTER, nullptr, -1, -1, -1, -1, -1},
        // Twelve letters fit, thirteen don't, and no more than twelve are written.
        {"abcdefghijkl x", 0, "abcdefghijkl", -1, -1, -1, -1, -1},
        {"abcdefghijklm x", TALVOR_ERROR_HEAD_COMMAND, "abcdefghijkl", -1, -1, -1, -1, -1},
        {std::string(5000, 'a'), TALVOR_ERROR_HEAD_COMMAND, nullptr, -1, -1, -1, -1, -1},
        // No word at all; quotes that never close inside parentheses that do.
        {"/* never closes", -2, "", -1, -1, -1, -1, -1},
        {"/*!123", -2, "", -1, -1, -1, -1, 6},
        {"(((", -2, "", 3, -1, -1, -1, -1},
        {"('select)", -1, nullptr, -1, 9, -1, -1, -1},
    };
    for (const Case& c : arCases) {
        SCOPED_TRACE(c.strSql.substr(0, 40));
        const Head h = Parse(c.strSql);
        const bool bResult = c.nResult == -2 ? h.m_nResult == 0 || h.m_nResult == S : c.nResult == h.m_nResult;
        EXPECT_TRUE(c.nResult == -1 || bResult) << h.m_nResult;
        EXPECT_EQ(h.m_strWord, c.lpszWord ? c.lpszWord : h.m_strWord);
        const int arGot[] = {h.m_nBracket, h.m_nSqlLen, h.m_nPos, h.m_nStart, h.m_nEnd};
        const int arWant[] = {c.nBracket, c.nSqlLen, c.nPos, c.nStart, c.nEnd};
        for (int k = 0; k < 5; ++k) EXPECT_TRUE(arWant[k] < 0 || arGot[k] == arWant[k]) << k << ": " << arGot[k];
    }
    EXPECT_EQ(Parse("# note\nselect", FALSE).m_nResult, S) << "comments not allowed";
}

// A title cut into room of 32 or 64 bytes, guarded behind: its answer and text.
static std::pair<int, std::string> Cut(const std::string& s, BOOL bTalvor) {
    char szTitle[64 + 8];
    memset(szTitle, 0x5A, sizeof(szTitle));
    const int n = CopyTitleFromSql(Tight(s).get(), (int)s.size(), szTitle, bTalvor);
    for (int i = bTalvor ? 32 : 64; i < (int)sizeof(szTitle); ++i) EXPECT_EQ(szTitle[i], 0x5A) << s;
    return {n, szTitle};
}

TEST(SqlTitle, QuotedPlainAndTokens) {
    using R = std::pair<int, std::string>;
    EXPECT_EQ(Cut("`mixed`", TRUE), R(TALVOR_NAME_QUOTED, "MIXED"));
    EXPECT_EQ(Cut("\"mixed\"", TRUE), R(TALVOR_NAME_QUOTED, "mixed"));
    // Cut to the room, quoted or plain; keywords are titles; punctuation is copied but answers 0.
    EXPECT_EQ(Cut("\"" + std::string(80, 'q') + "\"", TRUE).second, std::string(31, 'q'));
    EXPECT_EQ(Cut(std::string(80, 'w'), FALSE), R(TALVOR_NAME_PLAIN, std::string(63, 'w')));
    EXPECT_EQ(Cut("from", FALSE).first, TALVOR_NAME_PLAIN);
    EXPECT_EQ(Cut("<=", FALSE).first, 0);
}

// Each name copier on one input: its answer and what it wrote ("-": not
// checked). A plain object name runs to its NUL whatever nLen says.
TEST(SqlNames, QuotingCaseAndLimits) {
    enum { OBJECT, USER, DATABASE, PASSWORD, STRING };
    // nLen -1: the whole input.
    struct Case { int nWhich; std::string strIn; int nLen, nRoom, nResult; std::string strOut; };
    const std::string x63(63, 'x'), x64(64, 'x'), d63(63, 'd'), d64(64, 'd');
    const int Q = TALVOR_NAME_QUOTED, P = TALVOR_NAME_PLAIN, B = TALVOR_NAME_BAD;
    const Case arCases[] = {
        {OBJECT, "\"Mixed Case\"", -1, 0, Q, "Mixed Case"}, {OBJECT, "`lower`", -1, 0, Q, "LOWER"},
        {OBJECT, "1abc", -1, 0, B, "-"}, {OBJECT, "\"\"", -1, 0, B, "-"}, {OBJECT, "\"" + x63 + "\"", -1, 0, Q, "-"},
        {OBJECT, "\"" + x64 + "\"", -1, 0, B, "-"}, {OBJECT, x64, -1, 0, P, "-"}, {OBJECT, x64 + "x", -1, 0, B, "-"},
        {OBJECT, "abc def", 3, 0, B, "-"}, {OBJECT, "abcdef", 3, 0, P, "ABCDEF"},
        {USER, "`Ad Min`", -1, 0, Q, "Ad Min"}, {USER, "_x", -1, 0, B, "-"}, {USER, std::string(70, 'u'), -1, 0, P, std::string(64, 'u')},
        {DATABASE, "`" + std::string(100, 'd') + "`", -1, 0, P, std::string(100, 'd')},
        {DATABASE, d63, -1, 0, P, "-"}, {DATABASE, d64, -1, 0, B, "-"},
        {PASSWORD, "'s3cr3t!'", -1, 0, Q, "s3cr3t!"}, {PASSWORD, "'s3cr3t!'", -1, 6, B, "-"}, {PASSWORD, "abcdefgh", -1, 4, P, "abcd"},
        {STRING, "'hello'", -1, 6, 1, "hello"}, {STRING, "'hello'", -1, 5, 2, "-"}, {STRING, "\"x\"", -1, 8, 0, "-"},
    };
    for (const Case& c : arCases) {
        char szOut[128] = "garbage";
        const char* p = c.strIn.c_str();
        const int nLen = c.nLen < 0 ? (int)c.strIn.size() : c.nLen;
        const int n = c.nWhich == OBJECT     ? CopyNameFromSql(p, nLen, szOut)
                      : c.nWhich == USER     ? CopyUserNameFromSql(p, nLen, szOut)
                      : c.nWhich == DATABASE ? CopyDatabaseNameFromSql(p, nLen, szOut)
                      : c.nWhich == PASSWORD ? CopyPassWordFromSql(p, nLen, szOut, c.nRoom)
                                             : CopyStringFromSql(p, nLen, szOut, c.nRoom);
        EXPECT_EQ(n, c.nResult) << c.nWhich << " " << c.strIn;
        EXPECT_TRUE(c.strOut == "-" || c.strOut == szOut) << c.nWhich << " " << c.strIn << ": " << szOut;
    }
}
