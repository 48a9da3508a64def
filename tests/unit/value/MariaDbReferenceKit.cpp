// The MariaDB reference itself: an answer must keep NULL apart from the text
// "NULL", carry tabs, newlines and any byte whole, and leave a failing
// statement as an error without shifting the answers behind it — otherwise
// every function test that leans on it compares against the wrong row.
#include "MariaDbReference.h"

#include <gtest/gtest.h>

using talvortest::MariaDbReference;
using talvortest::SqlAnswer;
using talvortest::SqlHexLiteral;

TEST(MariaDbReferenceKit, AnswersKeepNullBytesAndOrderAcrossAFailingStatement)
{
    MariaDbReference db;
    ASSERT_TRUE(db.Start()) << db.Error();
    std::string strOdd("a\tb\nc\0\xff", 7);
    std::vector<SqlAnswer> v;
    ASSERT_TRUE(db.Eval({"NULL", "'NULL'", SqlHexLiteral(strOdd), "no_such_function(1)", "ROUND(1234, -2)",
                         "CONCAT('x', NULL)"},
                        v));
    ASSERT_EQ(v.size(), 6u);
    EXPECT_FALSE(v[0].bError);
    EXPECT_TRUE(v[0].bNull);
    EXPECT_FALSE(v[1].bNull);
    EXPECT_EQ(v[1].strText, "NULL");
    EXPECT_EQ(v[2].strText, strOdd);
    EXPECT_TRUE(v[3].bError);
    EXPECT_FALSE(v[4].bError);
    EXPECT_EQ(v[4].strText, "1200");
    EXPECT_TRUE(v[5].bNull);
}
