// LIKE: the pattern rewrite and the matchers, against SQLite's LIKE and GLOB
// on generated patterns and texts, plus the rules SQLite has no counterpart
// for.
//
// Where the two rule sets part, the generators stay out of the way and the
// cases below pin our side:
// - SQLite's LIKE always folds letters and its GLOB never does; ours takes
//   the choice as an argument, so folded runs meet LIKE and exact runs GLOB.
// - A doubled escape stands for itself only once here; SQLite keeps the
//   escape for the whole pattern. Generated escapes never precede an escape.
// - An escape at the very end is a literal here; SQLite refuses the match.
// - GLOB's [...] classes and the bytes 1 and 2 (our wildcards) are never
//   generated.
// - bSubStr (prefix match) has no SQLite flag: it is checked as LIKE with a
//   "%" appended.

#include "TalvorString.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <numeric>
#include <random>
#include <tuple>
#include <string>
#include <vector>

namespace {

// The text as the engine gives it: rewritten once, matched many times.
struct Pattern { std::string m_strForm; int m_nWords = 0; };

Pattern Prepare(const std::string& strSql, const char* pEscape = nullptr, BOOL bAnsi = TRUE) {
    std::vector<char> buf(strSql.begin(), strSql.end());
    buf.push_back(0);
    int nLen = (int)buf.size();
    StrPretreatment(buf.data(), nLen, pEscape, bAnsi);
    Pattern p;
    p.m_strForm.assign(buf.data(), nLen - 1);
    p.m_nWords = TalvorLikeFixedWords(p.m_strForm.data(), (int)p.m_strForm.size());
    return p;
}

bool Like(const std::string& strText, const Pattern& p, bool bFold, bool bSubStr = false, int nCount = -1) {
    return SubStringMatch(strText.data(), (int)strText.size(), p.m_strForm.data(), (int)p.m_strForm.size(),
                          nCount < 0 ? p.m_nWords : nCount, bFold ? 0 : 1, TRUE, bSubStr ? TRUE : FALSE) ==
           TALVOR_MATCH_YES;
}

const char* const kTextPieces[] = {"a", "b", "A", "B", "c", "\xC3\xA9", "\xC3\x89", "\xE4\xB8\xAD",
                                   "\xF0\x9F\x98\x80", "ab", " "};

struct Generator {
    std::mt19937 m_rng;
    int Below(int n) { return (int)(m_rng() % (unsigned)n); }

    std::vector<std::string> Text(int nMax) {
        std::vector<std::string> pieces(Below(nMax + 1));
        for (std::string& s : pieces) s = kTextPieces[Below(11)];
        return pieces;
    }

    // A pattern made from a text so that matches are common: pieces kept,
    // refolded, replaced by "_", runs replaced by "%", "%" inserted.
    std::string PatternFrom(const std::vector<std::string>& text, bool bEscapes) {
        std::string strPat;
        for (size_t i = 0; i < text.size(); ++i) {
            const int nRoll = Below(10);
            if (nRoll == 0) strPat += '_';
            else if (nRoll == 1) { strPat += '%'; i += Below(3); }
            else if (nRoll == 2) strPat += "%" + text[i];
            else if (nRoll == 3) strPat += kTextPieces[Below(11)];
            else if (nRoll == 4 && bEscapes) strPat += Below(2) ? "!%" : "!_";
            else strPat += text[i];
        }
        if (Below(4) == 0) strPat += '%';
        return strPat;
    }

    static std::string Join(const std::vector<std::string>& v) { return std::accumulate(v.begin(), v.end(), std::string()); }
};

std::string GlobOf(std::string s) {
    for (char& c : s) c = c == '%' ? '*' : c == '_' ? '?' : c;
    return s;
}

}  // namespace

TEST(LikePattern, RewritesWildcardsEscapesAndCountsTheNul) {
    // Pattern, escape, bAnsi and its rewrite: % and _ become the marker
    // bytes, a run of % folds to one; a backslash escapes without bAnsi and
    // is text with it, even beside another escape; a doubled escape stands
    // for itself once, after that the escape is text; an escape at the end
    // has nothing to guard and stays.
    const struct { const char* lpszSql; const char* lpszEscape; BOOL bAnsi; std::string strForm; } arCases[] = {
        {"a%%%b_", nullptr, TRUE, "a\x01" "b\x02"}, {"%", nullptr, TRUE, "\x01"}, {"a\\%b\\x", nullptr, FALSE, "a%bx"},
        {"a\\%b", nullptr, TRUE, "a\\\x01" "b"}, {"\\_!%", "!", FALSE, "_%"}, {"\\_!%", "!", TRUE, "\\\x02%"},
        {"!!a!%", "!", TRUE, "!a!\x01"}, {"!%!!!_", "!", TRUE, "%!!\x02"}, {"ab!", "!", TRUE, "ab!"}};
    for (const auto& c : arCases) EXPECT_EQ(Prepare(c.lpszSql, c.lpszEscape, c.bAnsi).m_strForm, c.strForm) << c.lpszSql;
    // The length in and out counts the closing NUL.
    char szPat[] = "%%", szEmpty[] = "x";
    int nLen = 3, nEmpty = 1;
    const int nRet = StrPretreatment(szPat, nLen, nullptr, TRUE);
    StrPretreatment(szEmpty, nEmpty, nullptr, TRUE);
    EXPECT_EQ(std::make_tuple(nRet, nLen, szPat[1], nEmpty, szEmpty[0]), std::make_tuple(2, 2, '\0', 1, '\0'));
}

TEST(LikeMatch, AgreesWithSqliteLikeWhenFoldingAndGlobWhenExact) {
    Generator gen{std::mt19937(20240611)};
    int nMatches = 0, nGlobMatches = 0;
    for (int i = 0; i < 40000; ++i) {
        const auto text = gen.Text(10);
        const std::string strText = Generator::Join(text);
        const bool bEscapes = gen.Below(3) == 0;
        const std::string strSql = gen.Below(5) == 0 ? gen.PatternFrom(gen.Text(8), bEscapes)
                                                     : gen.PatternFrom(text, bEscapes);
        const bool bSqlite = sqlite3_strlike(strSql.c_str(), strText.c_str(), bEscapes ? '!' : 0) == 0;
        const Pattern p = Prepare(strSql, bEscapes ? "!" : nullptr);
        ASSERT_EQ(Like(strText, p, true), bSqlite) << "pattern [" << strSql << "] text [" << strText << "]";
        // The word-wise head is only a shortcut: no count, or an
        // overstated one, must not change the answer.
        ASSERT_EQ(Like(strText, p, true, false, 0), bSqlite);
        ASSERT_EQ(Like(strText, p, true, false, 1000), bSqlite);
        // A prefix match is LIKE with a trailing %.
        const bool bPrefix = sqlite3_strlike((strSql + "%").c_str(), strText.c_str(), bEscapes ? '!' : 0) == 0;
        ASSERT_EQ(Like(strText, p, true, true), bPrefix) << "pattern [" << strSql << "] text [" << strText << "]";
        nMatches += bSqlite;
        if (bEscapes) continue;
        const bool bGlob = sqlite3_strglob(GlobOf(strSql).c_str(), strText.c_str()) == 0;
        ASSERT_EQ(Like(strText, p, false), bGlob) << "exact: pattern [" << strSql << "] text [" << strText << "]";
        nGlobMatches += bGlob;
    }
    // The generator must exercise both answers, or the check says little.
    EXPECT_TRUE(nMatches > 4000 && nMatches < 36000 && nGlobMatches > 2000) << nMatches << " " << nGlobMatches;
}

TEST(LikeMatch, PaddingAndManyWildcards) {
    // Trailing NUL bytes are padding.
    EXPECT_TRUE(Like(std::string("abc\0\0", 5), Prepare("abc"), true));
    // A recursion into every % would not finish this before the heat death
    // of the test runner: 40 runs of % against 20000 characters that almost
    // match.
    std::string strSql;
    for (int i = 0; i < 40; ++i) strSql += "%a";
    strSql += "%b";
    const std::string strText(20000, 'a');
    EXPECT_FALSE(Like(strText, Prepare(strSql), true));
    EXPECT_TRUE(Like(strText + "b", Prepare(strSql), true));
}

// Every occurrence replaced, the length asked first, one byte short
// refused, not overrun; trailing NULs of all three are absent.
TEST(CharReplace, LengthsShortBuffersAndTrailingNuls) {
    int nNeed = 0;
    ASSERT_EQ(TalvorCharReplace("aab\xC3" "aab", 7, "aab", 3, "b", 1, nullptr, nNeed), 0);
    std::vector<char> out((size_t)nNeed);
    int nShort = nNeed - 1;
    ASSERT_EQ(TalvorCharReplace("aab\xC3" "aab", 7, "aab", 3, "b", 1, out.data(), nShort), TALVOR_ERROR_BUFFER_TOO_SMALL);
    ASSERT_EQ(TalvorCharReplace("aab\xC3" "aab", 7, "aab", 3, "b", 1, out.data(), nNeed), 0);
    EXPECT_EQ(std::string(out.data(), nNeed), std::string("b\xC3" "b", 4));
    char szOut[16];
    int nLen = sizeof(szOut);
    ASSERT_EQ(TalvorCharReplace("abab\0", 5, "b\0", 2, "XY\0\0", 4, szOut, nLen), 0);
    EXPECT_EQ(std::string(szOut, nLen), std::string("aXYaXY", 7));
}
