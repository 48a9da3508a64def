// The name cutters and the JSON key check, by their rules: quoting, case,
// limits at and just past each edge, and the plain name that reads to its NUL.

#include "TalvorSqlText.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct Cut {
    int m_nResult;
    std::string m_strOut;
};

Cut Name(const std::string& s) {
    char szOut[128] = "garbage";
    const int n = CopyNameFromSql(s.c_str(), (int)s.size(), szOut);
    return {n, szOut};
}

}  // namespace

TEST(ObjectNames, QuotingCaseAndLimits) {
    EXPECT_EQ(Name("\"Mixed Case\"").m_nResult, TALVOR_NAME_QUOTED);
    EXPECT_EQ(Name("\"Mixed Case\"").m_strOut, "Mixed Case");
    EXPECT_EQ(Name("`lower`").m_strOut, "LOWER");
    EXPECT_EQ(Name("t_1#$").m_nResult, TALVOR_NAME_PLAIN);
    EXPECT_EQ(Name("t_1#$").m_strOut, "T_1#$");
    EXPECT_EQ(Name("#tmp").m_nResult, TALVOR_NAME_PLAIN);
    EXPECT_EQ(Name("1abc").m_nResult, TALVOR_NAME_BAD);
    EXPECT_EQ(Name("$abc").m_nResult, TALVOR_NAME_BAD);
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
    EXPECT_EQ(CopyPassWordFromSql("ab cd", 5, szOut, 0), TALVOR_NAME_BAD);

    EXPECT_EQ(CopyStringFromSql("'hello'", 7, szOut, 6), 1);
    EXPECT_STREQ(szOut, "hello");
    EXPECT_EQ(CopyStringFromSql("'hello'", 7, szOut, 5), 2);
    EXPECT_EQ(CopyStringFromSql("''", 2, szOut, 1), 1);
    EXPECT_STREQ(szOut, "");
    EXPECT_EQ(CopyStringFromSql("\"x\"", 3, szOut, 8), 0);
    EXPECT_EQ(CopyStringFromSql("'", 1, szOut, 8), 0);
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
    EXPECT_EQ(CheckJsonString("\"\"", 2, nKey, TRUE), TALVOR_ERROR_JSON_KEY_FORMAT);
    EXPECT_EQ(CheckJsonString("'a'", 3, nKey, TRUE), TALVOR_ERROR_JSON_KEY_FORMAT);
    EXPECT_EQ(CheckJsonString("a", 1, nKey, TRUE), TALVOR_ERROR_JSON_KEY_FORMAT);
}
