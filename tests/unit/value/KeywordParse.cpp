// Keyword lookup: every row and every prefix of every row, random words
// against a std::unordered_map of the same rows, the classes of short and
// quoted tokens.
//
// Tokens are handed over in heap buffers of exactly their length, and the
// output buffers are exactly nLen + 4 bytes, so under AddressSanitizer a read
// behind the token or a write behind the padding fails the test.
#include "TalvorKeywordParse.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

struct Result {
    int nClass;
    std::string strData;  // the token as written back, padding included
};

Result Classify(const std::string& token, BOOL bAnsiQuotes = FALSE)
{
    CTalvorKeywordParse* pParse = CTalvorKeywordParse::instance();
    std::unique_ptr<char[]> out(new char[token.size() + TALVOR_KEYWORD_PAD]);
    memset(out.get(), '#', token.size() + TALVOR_KEYWORD_PAD);
    // A buffer of exactly the token: nothing behind it may be read.
    std::unique_ptr<char[]> tight(new char[token.size() == 0 ? 1 : token.size()]);
    memcpy(tight.get(), token.data(), token.size());
    int nClass = pParse->GetKeyword(tight.get(), (int)token.size(), out.get(), bAnsiQuotes);
    return {nClass, std::string(out.get(), token.size() + TALVOR_KEYWORD_PAD)};
}

int ClassOf(const std::string& token, BOOL bAnsiQuotes = FALSE)
{
    return Classify(token, bAnsiQuotes).nClass;
}

std::unordered_map<std::string, int> ReferenceTable()
{
    std::unordered_map<std::string, int> table;
    for (LPTALVORKEYWORDDATA pRow = CTalvorKeywordParse::GetKeywordTable(); pRow->m_nKeyworkID != 0; ++pRow) {
        table.emplace(pRow->m_lpszKeyword, (int)pRow->m_nKeyworkID);
    }
    return table;
}

std::string Upper(std::string s)
{
    for (char& c : s) {
        if (c >= 'a' && c <= 'z') c = (char)(c - 32);
    }
    return s;
}

TEST(KeywordLookup, EveryKeywordInAnyCaseAndWrittenBackInUpperCase)
{
    std::mt19937 rng(61);
    std::unordered_map<std::string, int> table = ReferenceTable();
    int nRows = 0;
    for (LPTALVORKEYWORDDATA pRow = CTalvorKeywordParse::GetKeywordTable(); pRow->m_nKeyworkID != 0; ++pRow) ++nRows;
    EXPECT_EQ(nRows, (int)table.size()) << "names are unique";
    std::set<int> ids;
    for (const auto& kv : table) {
        ASSERT_TRUE(ids.insert(kv.second).second) << "a second word with the id of " << kv.first;
        std::string mixed = kv.first;
        for (char& c : mixed) {
            if (c >= 'A' && c <= 'Z' && rng() % 2) c = (char)(c + 32);
        }
        Result r = Classify(mixed);
        ASSERT_EQ(r.nClass, kv.second) << mixed;
        ASSERT_EQ(r.strData, kv.first + std::string(TALVOR_KEYWORD_PAD, '\0')) << mixed;
        std::string lower = mixed;
        for (char& c : lower) c = (char)tolower((unsigned char)c);
        ASSERT_EQ(ClassOf(lower), kv.second) << lower;
    }
    for (const char* lpszForm : {"select", "Select", "SELECT"}) {
        Result r = Classify(lpszForm);
        EXPECT_EQ(r.nClass, 100);
        EXPECT_EQ(r.strData, std::string("SELECT\0\0\0\0", 10));
    }
}

// A word compare that stops at the words the token covers finds AUTO as a
// longer keyword of its bucket; each prefix is either a keyword of its own
// or an identifier.
TEST(KeywordLookup, NoPrefixOfAKeywordIsTakenForIt)
{
    std::unordered_map<std::string, int> table = ReferenceTable();
    int nPrefixes = 0;
    for (const auto& kv : table) {
        for (size_t nLen = 2; nLen < kv.first.size(); ++nLen) {
            std::string prefix = kv.first.substr(0, nLen);
            auto it = table.find(prefix);
            ASSERT_EQ(ClassOf(prefix), it == table.end() ? TALVOR_TOKEN_IDENTIFIER : it->second) << prefix;
            ++nPrefixes;
        }
    }
    EXPECT_GT(nPrefixes, 3000);
    EXPECT_EQ(ClassOf("AUTO"), TALVOR_TOKEN_IDENTIFIER);
}

TEST(KeywordLookup, RandomWordsAgreeWithAnUnorderedMap)
{
    std::unordered_map<std::string, int> table = ReferenceTable();
    std::vector<std::string> names;
    for (const auto& kv : table) names.push_back(kv.first);
    std::mt19937 rng(62);
    static const char arTail[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_0123456789$";
    int nFound = 0;
    for (int i = 0; i < 200000; ++i) {
        std::string word;
        switch (rng() % 3) {
        case 0:  // a keyword with a change: a suffix, a cut, a swapped byte
            word = names[rng() % names.size()];
            if (rng() % 2) word += arTail[rng() % 64];
            else word[rng() % word.size()] = arTail[rng() % 64];
            break;
        default:
            word = std::string(1, "ACDEFGHIJKLMNOPQRSTUVWYZ_"[rng() % 25]);
            for (size_t n = 1 + rng() % 26; n > 0; --n) word += arTail[rng() % 64];
            break;
        }
        if (word.size() < 2 || word.size() >= TALVOR_KEYWORD_MAX_TOKEN) continue;
        if (word[0] >= '0' && word[0] <= '9') continue;  // a number, not a word
        auto it = table.find(Upper(word));
        int nExpect = it == table.end() ? TALVOR_TOKEN_IDENTIFIER : it->second;
        ASSERT_EQ(ClassOf(word), nExpect) << word;
        nFound += nExpect != TALVOR_TOKEN_IDENTIFIER;
    }
    EXPECT_GT(nFound, 100);
    for (const char* lpsz : {"SELECTS", "SELEC", "SELECT_", "FROM1", "MEMBER OF", "MEMBEROF", "TALVORX", "NAMEX"}) {
        EXPECT_EQ(ClassOf(lpsz), TALVOR_TOKEN_IDENTIFIER) << lpsz;
    }
    EXPECT_EQ(ClassOf(std::string(30, 'A')), TALVOR_TOKEN_IDENTIFIER);
    EXPECT_EQ(ClassOf("SQL_CALC_FOUND_ROWS_AND_MORE"), TALVOR_TOKEN_IDENTIFIER) << "28 bytes: never looked up";
}

TEST(KeywordClasses, SingleBytesByTheirTable)
{
    const std::map<char, int> table = {
        {'\0', 5}, {'!', 31}, {'"', 12}, {'$', 40}, {'%', 27}, {'&', 44}, {'\'', 11}, {'(', 16}, {')', 17},
        {'*', 25}, {'+', 23}, {',', 14}, {'-', 24}, {'.', 15}, {'/', 26}, {':', 41}, {';', 13}, {'<', 34},
        {'=', 28}, {'>', 33}, {'?', 39}, {'@', 38}, {'[', 18}, {']', 19}, {'^', 45}, {'`', 10}, {'{', 20},
        {'|', 46}, {'}', 21}, {'~', 49},
    };
    for (int c = 0; c < 256; ++c) {
        auto it = table.find((char)c);
        int nExpect = it != table.end() ? it->second : (c >= '0' && c <= '9') ? 3 : 1;
        ASSERT_EQ(ClassOf(std::string(1, (char)c)), nExpect) << c;
    }
}

TEST(KeywordClasses, OperatorsLiteralsNumbersAndQuotes)
{
    const std::map<std::string, int> operators = {
        {"!=", 32}, {"<>", 32}, {">=", 35}, {"<=", 36}, {":=", 37}, {"->", 29}, {">>", 48},
        {"<<", 47}, {"||", 22}, {"&&", 43}, {"<-", 30}, {"->>", 50}, {"<=>", 51},
    };
    for (const auto& kv : operators) EXPECT_EQ(ClassOf(kv.first), kv.second) << kv.first;
    EXPECT_EQ(ClassOf("=>"), TALVOR_TOKEN_IDENTIFIER);
    EXPECT_EQ(ClassOf("<>="), TALVOR_TOKEN_IDENTIFIER);

    EXPECT_EQ(ClassOf(""), TALVOR_TOKEN_EMPTY);
    EXPECT_EQ(CTalvorKeywordParse::instance()->GetKeyword("x", -3, nullptr, FALSE), TALVOR_TOKEN_EMPTY);
    EXPECT_EQ(ClassOf("''"), TALVOR_TOKEN_EMPTY);
    EXPECT_EQ(ClassOf("\"\""), TALVOR_TOKEN_EMPTY);
    EXPECT_EQ(ClassOf("\"\"", TRUE), TALVOR_TOKEN_IDENTIFIER);
    EXPECT_EQ(ClassOf("7a"), TALVOR_TOKEN_INTEGER);

    EXPECT_EQ(ClassOf("0b101"), TALVOR_TOKEN_BIT);
    EXPECT_EQ(ClassOf("b'101'"), TALVOR_TOKEN_BIT);
    EXPECT_EQ(ClassOf("B'1'"), TALVOR_TOKEN_BIT);
    EXPECT_EQ(ClassOf("0X1F"), TALVOR_TOKEN_HEX_0X);
    EXPECT_EQ(ClassOf("x'1F'"), TALVOR_TOKEN_HEX_X);
    EXPECT_EQ(ClassOf("0B101"), TALVOR_TOKEN_INTEGER) << "only a lower-case b makes a bit literal";
    EXPECT_EQ(ClassOf(".5"), TALVOR_TOKEN_DECIMAL);
    EXPECT_EQ(ClassOf("12.5"), TALVOR_TOKEN_DECIMAL);
    EXPECT_EQ(ClassOf("123"), TALVOR_TOKEN_INTEGER);

    for (BOOL bAnsi : {FALSE, TRUE}) {
        EXPECT_EQ(ClassOf("'text'", bAnsi), TALVOR_TOKEN_STRING);
        EXPECT_EQ(ClassOf("\"text\"", bAnsi), bAnsi ? TALVOR_TOKEN_IDENTIFIER : TALVOR_TOKEN_STRING);
        EXPECT_EQ(ClassOf("`select`", bAnsi), TALVOR_TOKEN_IDENTIFIER);
        EXPECT_EQ(ClassOf("`$`", bAnsi), TALVOR_TOKEN_DOLLAR);
        EXPECT_EQ(ClassOf("\"$\"", bAnsi), bAnsi ? TALVOR_TOKEN_DOLLAR : TALVOR_TOKEN_STRING);
    }

    // Tokens of 28 bytes and more go by their first bytes only.
    const std::string tail(30, 'a');
    EXPECT_EQ(ClassOf("b'" + std::string(30, '1') + "'"), TALVOR_TOKEN_BIT);
    EXPECT_EQ(ClassOf("0x" + tail), TALVOR_TOKEN_HEX_0X);
    EXPECT_EQ(ClassOf("`" + tail), TALVOR_TOKEN_IDENTIFIER);
    EXPECT_EQ(ClassOf("'" + tail), TALVOR_TOKEN_STRING);
    EXPECT_EQ(ClassOf("\"" + tail), TALVOR_TOKEN_STRING);
    EXPECT_EQ(ClassOf("\"" + tail, TRUE), TALVOR_TOKEN_IDENTIFIER);
    EXPECT_EQ(ClassOf(std::string(30, '9')), TALVOR_TOKEN_INTEGER);
    EXPECT_EQ(ClassOf(std::string(30, '9') + ".5"), TALVOR_TOKEN_DECIMAL);
}

// The keyword table outlives a destroyed singleton: the next instance
// finds the same words.
TEST(KeywordParse, TheSingletonComesBackAfterDestroy)
{
    CTalvorKeywordParse* pParse = CTalvorKeywordParse::instance();
    ASSERT_NE(pParse, nullptr);
    EXPECT_EQ(pParse->GetKeyword("from", 4, FALSE), 204);
    CTalvorKeywordParse::DestoryInstance();
    pParse = CTalvorKeywordParse::instance();
    ASSERT_NE(pParse, nullptr);
    EXPECT_EQ(pParse->GetKeyword("from", 4, FALSE), 204);
}

}  // namespace
