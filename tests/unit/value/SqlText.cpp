// The first word of a statement, titles and names cut out of SQL text (by
// their rules: quoting, case, limits at and just past each edge, the plain
// name that reads to its NUL), and the JSON key check.

#include "TalvorKeywordParse.h"
#include "TalvorSqlText.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

namespace {

struct Head {
    int m_nResult;
    std::string m_strWord;
    int m_nBracket;
    int m_nStart;
    int m_nEnd;
    int m_nPos;
    int m_nSqlLen;
};

Head Parse(const std::string& sql, BOOL bComments = TRUE) {
    // The head buffer sits between guards to catch a write past its room.
    struct {
        char m_arHead[TALVOR_SQL_HEAD_ROOM];
        char m_arGuard[8];
    } room;
    memset(&room, 0x5A, sizeof(room));
    // A copy without a NUL, so that reading behind the text is caught by
    // the sanitizer.
    std::unique_ptr<char[]> copy(new char[sql.size() ? sql.size() : 1]);
    memcpy(copy.get(), sql.data(), sql.size());
    Head h{};
    int nLen = 0;
    h.m_nSqlLen = (int)sql.size();
    h.m_nPos = 0;
    h.m_nResult = PraseSqlHead(copy.get(), bComments, h.m_nSqlLen, h.m_nPos, room.m_arHead, nLen, h.m_nBracket,
                               h.m_nStart, h.m_nEnd);
    for (char c : room.m_arGuard) EXPECT_EQ(c, 0x5A) << sql;
    h.m_strWord = room.m_arHead;
    EXPECT_EQ((int)h.m_strWord.size(), nLen);
    return h;
}

}  // namespace

TEST(SqlHead, WordAfterSemicolonsParenthesesAndComments) {
    EXPECT_EQ(Parse("select 1").m_strWord, "select");
    EXPECT_EQ(Parse("SELECT*FROM t").m_strWord, "SELECT");
    EXPECT_EQ(Parse("label: loop").m_strWord, "label");

    Head h = Parse("  ((  select 1 ; ) ) ;;  ");
    EXPECT_EQ(h.m_nResult, 0);
    EXPECT_EQ(h.m_strWord, "select");
    EXPECT_EQ(h.m_nBracket, 0);
    // The parentheses and the semicolon are gone from the statement.
    EXPECT_EQ(h.m_nSqlLen, 14);

    // The first parenthesis closes before the end: it stays, and counts.
    h = Parse("(select 1) union (select 2);");
    EXPECT_EQ(h.m_strWord, "select");
    EXPECT_EQ(h.m_nBracket, 1);
    EXPECT_EQ(h.m_nSqlLen, 27);
    // A parenthesis in a string doesn't pair.
    h = Parse("(select ')') ");
    EXPECT_EQ(h.m_nBracket, 0);
    EXPECT_EQ(h.m_nSqlLen, 11);

    h = Parse("-- note\n# more\n/* block */ update t");
    EXPECT_EQ(h.m_strWord, "update");
    EXPECT_EQ(h.m_nPos, 33);
    EXPECT_EQ(h.m_nStart, 0);
    EXPECT_EQ(Parse("# note\nselect", FALSE).m_nResult, TALVOR_ERROR_HEAD_START_CHARACTER);

    const std::string versioned = "/*!40101 SET NAMES utf8 */ select 1";
    h = Parse(versioned);
    EXPECT_EQ(h.m_nStart, 8);
    EXPECT_EQ(h.m_nEnd, 26);
    EXPECT_EQ(h.m_strWord, "select");
}

TEST(SqlHead, ErrorsAndBounds) {
    EXPECT_EQ(Parse("select(1)").m_nResult, TALVOR_ERROR_HEAD_CHARACTER);
    EXPECT_EQ(Parse("3 + 4").m_nResult, TALVOR_ERROR_HEAD_START_CHARACTER);
    // Twelve letters fit, thirteen don't, and no more than twelve are written.
    EXPECT_EQ(Parse("abcdefghijkl x").m_nResult, 0);
    Head h = Parse("abcdefghijklm x");
    EXPECT_EQ(h.m_nResult, TALVOR_ERROR_HEAD_COMMAND);
    EXPECT_EQ(h.m_strWord, "abcdefghijkl");
    EXPECT_EQ(Parse(std::string(5000, 'a')).m_nResult, TALVOR_ERROR_HEAD_COMMAND);
    // No word at all.
    for (const char* s : {"", "  -- only", "/* never closes", "/*!123", "((("}) {
        h = Parse(s);
        EXPECT_TRUE(h.m_nResult == 0 || h.m_nResult == TALVOR_ERROR_HEAD_START_CHARACTER) << s;
        EXPECT_EQ(h.m_strWord, "") << s;
    }
    EXPECT_EQ(Parse("/*!123").m_nEnd, 6);
    EXPECT_EQ(Parse("(((").m_nBracket, 3);
    // Quotes that never close, inside parentheses that do.
    EXPECT_EQ(Parse("('select)").m_nSqlLen, 9);
}

namespace {

struct Title {
    int m_nResult;
    std::string m_strTitle;
};

Title Cut(const std::string& s, BOOL bTalvor) {
    char szTitle[64 + 8];
    memset(szTitle, 0x5A, sizeof(szTitle));
    std::unique_ptr<char[]> copy(new char[s.size() ? s.size() : 1]);
    memcpy(copy.get(), s.data(), s.size());
    Title t{CopyTitleFromSql(copy.get(), (int)s.size(), szTitle, bTalvor), ""};
    const int nRoom = bTalvor ? 32 : 64;
    for (int i = nRoom; i < (int)sizeof(szTitle); ++i) EXPECT_EQ(szTitle[i], 0x5A) << s;
    t.m_strTitle = szTitle;
    return t;
}

}  // namespace

TEST(SqlTitle, QuotedPlainAndTokens) {
    EXPECT_EQ(Cut("\"My Title\"", FALSE).m_nResult, TALVOR_NAME_QUOTED);
    EXPECT_EQ(Cut("'it'", TRUE).m_strTitle, "it");
    EXPECT_EQ(Cut("`mixed`", TRUE).m_strTitle, "MIXED");
    EXPECT_EQ(Cut("`mixed`", FALSE).m_strTitle, "mixed");
    EXPECT_EQ(Cut("\"mixed\"", TRUE).m_strTitle, "mixed");

    const std::string quoted = "\"" + std::string(80, 'q') + "\"";
    EXPECT_EQ(Cut(quoted, TRUE).m_strTitle, std::string(31, 'q'));
    EXPECT_EQ(Cut(quoted, FALSE).m_strTitle, std::string(63, 'q'));
    EXPECT_EQ(Cut(std::string(80, 'w'), TRUE).m_strTitle, std::string(31, 'w'));
    EXPECT_EQ(Cut(std::string(80, 'w'), FALSE).m_nResult, TALVOR_NAME_PLAIN);
    EXPECT_EQ(Cut(std::string(80, 'w'), FALSE).m_strTitle, std::string(63, 'w'));

    // Words, keywords included, are titles; tokens of the no-word classes
    // are copied but answer 0.
    EXPECT_EQ(Cut("from", FALSE).m_nResult, TALVOR_NAME_PLAIN);
    EXPECT_EQ(Cut("42", FALSE).m_nResult, TALVOR_NAME_PLAIN);
    for (const char* s : {"(", ",", "<=", "=", "*", "?", "@", "NULL"}) {
        CTalvorKeywordParse* pParse = CTalvorKeywordParse::instance();
        ASSERT_NE(pParse, nullptr);
        const int nClass = pParse->GetKeyword(s, (int)strlen(s), TRUE);
        const Title t = Cut(s, FALSE);
        EXPECT_EQ(t.m_nResult, nClass >= 5 && nClass <= 42 ? 0 : TALVOR_NAME_PLAIN) << s << " " << nClass;
        EXPECT_EQ(t.m_strTitle, s);
    }
    EXPECT_EQ(Cut("", FALSE).m_nResult, 0);
    EXPECT_EQ(Cut("", FALSE).m_strTitle, "");
}

namespace {

struct NameCut {
    int m_nResult;
    std::string m_strOut;
};

NameCut Name(const std::string& s) {
    char szOut[128] = "garbage";
    const int n = CopyNameFromSql(s.c_str(), (int)s.size(), szOut);
    return {n, szOut};
}

}  // namespace

TEST(ObjectNames, QuotingCaseAndLimits) {
    EXPECT_EQ(Name("\"Mixed Case\"").m_strOut, "Mixed Case");
    EXPECT_EQ(Name("`lower`").m_strOut, "LOWER");
    EXPECT_EQ(Name("t_1#$").m_nResult, TALVOR_NAME_PLAIN);
    EXPECT_EQ(Name("t_1#$").m_strOut, "T_1#$");
    EXPECT_EQ(Name("#tmp").m_nResult, TALVOR_NAME_PLAIN);
    EXPECT_EQ(Name("1abc").m_nResult, TALVOR_NAME_BAD);
    EXPECT_EQ(Name("a-b").m_nResult, TALVOR_NAME_BAD);
    EXPECT_EQ(Name("\"\"").m_nResult, TALVOR_NAME_BAD);
    EXPECT_EQ(Name("\"" + std::string(63, 'x') + "\"").m_nResult, TALVOR_NAME_QUOTED);
    EXPECT_EQ(Name("\"" + std::string(64, 'x') + "\"").m_nResult, TALVOR_NAME_BAD);
    EXPECT_EQ(Name(std::string(64, 'x')).m_nResult, TALVOR_NAME_PLAIN);
    EXPECT_EQ(Name(std::string(65, 'x')).m_nResult, TALVOR_NAME_BAD);
    // A plain name runs to its NUL whatever nLen says.
    char szOut[80];
    EXPECT_EQ(CopyNameFromSql("abc def", 3, szOut), TALVOR_NAME_BAD);
    EXPECT_EQ(CopyNameFromSql("abcdef", 3, szOut), TALVOR_NAME_PLAIN);
    EXPECT_STREQ(szOut, "ABCDEF");
}

TEST(OtherNames, UserDatabasePasswordString) {
    char szOut[128];
    EXPECT_EQ(CopyUserNameFromSql("'root'", 6, szOut), TALVOR_NAME_QUOTED);
    EXPECT_STREQ(szOut, "root");
    EXPECT_EQ(CopyUserNameFromSql("`Ad Min`", 8, szOut), TALVOR_NAME_QUOTED);
    EXPECT_STREQ(szOut, "Ad Min");
    EXPECT_EQ(CopyUserNameFromSql("Admin1", 6, szOut), TALVOR_NAME_PLAIN);
    EXPECT_STREQ(szOut, "Admin1");
    EXPECT_EQ(CopyUserNameFromSql("_x", 2, szOut), TALVOR_NAME_BAD);
    const std::string strLong(70, 'u');
    EXPECT_EQ(CopyUserNameFromSql(strLong.c_str(), 70, szOut), TALVOR_NAME_PLAIN);
    EXPECT_EQ(std::string(szOut), std::string(64, 'u'));

    EXPECT_EQ(CopyDatabaseNameFromSql("'My DB'", 7, szOut), TALVOR_NAME_PLAIN);
    EXPECT_STREQ(szOut, "My DB");
    const std::string strQuoted = "`" + std::string(100, 'd') + "`";
    EXPECT_EQ(CopyDatabaseNameFromSql(strQuoted.c_str(), (int)strQuoted.size(), szOut), TALVOR_NAME_PLAIN);
    EXPECT_EQ(std::string(szOut).size(), 100u);
    EXPECT_EQ(CopyDatabaseNameFromSql(std::string(63, 'd').c_str(), 63, szOut), TALVOR_NAME_PLAIN);
    EXPECT_EQ(CopyDatabaseNameFromSql(std::string(64, 'd').c_str(), 64, szOut), TALVOR_NAME_BAD);

    EXPECT_EQ(CopyPassWordFromSql("'s3cr3t!'", 9, szOut, 0), TALVOR_NAME_QUOTED);
    EXPECT_STREQ(szOut, "s3cr3t!");
    EXPECT_EQ(CopyPassWordFromSql("'s3cr3t!'", 9, szOut, 6), TALVOR_NAME_BAD);
    EXPECT_EQ(CopyPassWordFromSql("abcdefgh", 8, szOut, 4), TALVOR_NAME_PLAIN);
    EXPECT_STREQ(szOut, "abcd");

    EXPECT_EQ(CopyStringFromSql("'hello'", 7, szOut, 6), 1);
    EXPECT_STREQ(szOut, "hello");
    EXPECT_EQ(CopyStringFromSql("'hello'", 7, szOut, 5), 2);
    EXPECT_EQ(CopyStringFromSql("''", 2, szOut, 1), 1);
    EXPECT_STREQ(szOut, "");
    EXPECT_EQ(CopyStringFromSql("\"x\"", 3, szOut, 8), 0);
}

TEST(JsonKey, QuotesAndStrictForm) {
    int nKey = -1;
    EXPECT_EQ(CheckJsonString("\"ab\"", 4, nKey, FALSE), 0);
    EXPECT_EQ(nKey, 2);
    EXPECT_EQ(CheckJsonString("'ab'", 4, nKey, FALSE), 0);
    EXPECT_EQ(nKey, 2);
    EXPECT_EQ(CheckJsonString("ab", 2, nKey, FALSE), 0);
    EXPECT_EQ(nKey, 2);
    EXPECT_EQ(CheckJsonString("\"\"", 2, nKey, FALSE), TALVOR_ERROR_JSON_KEY_FORMAT);
    EXPECT_EQ(CheckJsonString("\"a\"", 3, nKey, TRUE), 0);
    EXPECT_EQ(nKey, 1);
    EXPECT_EQ(CheckJsonString("'a'", 3, nKey, TRUE), TALVOR_ERROR_JSON_KEY_FORMAT);
}
