// Keyword lookup: every row and every prefix of every row against a
// std::unordered_map of the same rows, the classes of short and quoted
// tokens.
//
// Tokens are handed over in heap buffers of exactly their length, and the
// output buffers are exactly nLen + 4 bytes, so under AddressSanitizer a read
// behind the token or a write behind the padding fails the test.
#include "TalvorKeywordParse.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

// strData: the token as written back, padding included.
struct Result { int nClass; std::string strData; };

Result Classify(const std::string& token, BOOL bAnsiQuotes = FALSE) {
    std::unique_ptr<char[]> out(new char[token.size() + TALVOR_KEYWORD_PAD]);
    memset(out.get(), '#', token.size() + TALVOR_KEYWORD_PAD);
    // A buffer of exactly the token: nothing behind it may be read.
    std::unique_ptr<char[]> tight(new char[token.size() == 0 ? 1 : token.size()]);
    memcpy(tight.get(), token.data(), token.size());
    const int nClass = CTalvorKeywordParse::instance()->GetKeyword(tight.get(), (int)token.size(), out.get(), bAnsiQuotes);
    return {nClass, std::string(out.get(), token.size() + TALVOR_KEYWORD_PAD)};
}

int ClassOf(const std::string& token, BOOL bAnsiQuotes = FALSE) { return Classify(token, bAnsiQuotes).nClass; }

std::unordered_map<std::string, int> ReferenceTable() {
    std::unordered_map<std::string, int> table;
    for (LPTALVORKEYWORDDATA pRow = CTalvorKeywordParse::GetKeywordTable(); pRow->m_nKeyworkID != 0; ++pRow)
        table.emplace(pRow->m_lpszKeyword, (int)pRow->m_nKeyworkID);
    return table;
}

// Each word near a keyword is either a keyword of its own or an identifier:
// a word compare that stops at the words the token covers finds AUTO as a
// longer keyword of its bucket.
TEST(KeywordLookup, EveryKeywordInAnyCaseWrittenBackInUpperCaseAndNoPrefixTakenForIt) {
    std::mt19937 rng(61);
    std::unordered_map<std::string, int> table = ReferenceTable();
    int nPrefixes = 0;
    for (const auto& kv : table) {
        std::string mixed = kv.first;
        for (char& c : mixed) c = c >= 'A' && c <= 'Z' && rng() % 2 ? (char)(c + 32) : c;
        Result r = Classify(mixed);
        ASSERT_EQ(r.nClass, kv.second) << mixed;
        ASSERT_EQ(r.strData, kv.first + std::string(TALVOR_KEYWORD_PAD, '\0')) << mixed;
        // Its prefixes, and the word with a byte changed or added.
        std::vector<std::string> vNear = {kv.first + "Q", kv.first.substr(0, kv.first.size() - 1) + "_"};
        for (size_t nLen = 2; nLen < kv.first.size(); ++nLen, ++nPrefixes) vNear.push_back(kv.first.substr(0, nLen));
        for (const std::string& near : vNear) {
            auto it = table.find(near);
            ASSERT_EQ(ClassOf(near), it == table.end() ? TALVOR_TOKEN_IDENTIFIER : it->second) << near;
        }
    }
    EXPECT_GT(nPrefixes, 3000);
    EXPECT_EQ(ClassOf("AUTO"), TALVOR_TOKEN_IDENTIFIER);
    EXPECT_EQ(ClassOf("SQL_CALC_FOUND_ROWS_AND_MORE"), TALVOR_TOKEN_IDENTIFIER) << "28 bytes: never looked up";
}

TEST(KeywordClasses, OperatorsLiteralsNumbersAndQuotes) {
    const std::string tail(30, 'a'), nines(30, '9');
    struct Case { std::string strToken; BOOL bAnsi; int nClass; };
    const int ID = TALVOR_TOKEN_IDENTIFIER, STR = TALVOR_TOKEN_STRING, BIT = TALVOR_TOKEN_BIT;
    const Case arCases[] = {
        {"<>", 0, 32}, {"->>", 0, 50}, {"<=>", 0, 51}, {"<>=", 0, ID}, {"", 0, TALVOR_TOKEN_EMPTY}, {"''", 0, TALVOR_TOKEN_EMPTY},
        {"\"\"", 1, ID}, {"7a", 0, TALVOR_TOKEN_INTEGER}, {"0b101", 0, BIT}, {"B'1'", 0, BIT}, {"0X1F", 0, TALVOR_TOKEN_HEX_0X},
        {"x'1F'", 0, TALVOR_TOKEN_HEX_X}, {".5", 0, TALVOR_TOKEN_DECIMAL},
        // Only a lower-case b makes a bit literal.
        {"0B101", 0, TALVOR_TOKEN_INTEGER},
        // Double quotes quote a name under ANSI quotes, a string otherwise.
        {"'text'", 1, STR}, {"\"text\"", 0, STR}, {"\"text\"", 1, ID}, {"`select`", 0, ID},
        {"`$`", 0, TALVOR_TOKEN_DOLLAR}, {"\"$\"", 0, STR}, {"\"$\"", 1, TALVOR_TOKEN_DOLLAR},
        // Tokens of 28 bytes and more go by their first bytes only.
        {"b'" + std::string(30, '1') + "'", 0, BIT}, {"0x" + tail, 0, TALVOR_TOKEN_HEX_0X}, {"`" + tail, 0, ID},
        {"'" + tail, 0, STR}, {"\"" + tail, 0, STR}, {"\"" + tail, 1, ID}, {nines, 0, TALVOR_TOKEN_INTEGER},
        {nines + ".5", 0, TALVOR_TOKEN_DECIMAL},
    };
    for (const Case& c : arCases) EXPECT_EQ(ClassOf(c.strToken, c.bAnsi), c.nClass) << c.strToken << " " << c.bAnsi;
    EXPECT_EQ(CTalvorKeywordParse::instance()->GetKeyword("x", -3, nullptr, FALSE), TALVOR_TOKEN_EMPTY);
}

}  // namespace
