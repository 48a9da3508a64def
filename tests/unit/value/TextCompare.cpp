// The collation compare and the case fold, against SQLite's byte-wise and
// NOCASE compares on generated UTF-8 text. The two part only where one text
// is a prefix of the other: there the longer text sorts first here, and last
// in SQLite; the generator keeps such pairs and checks our rule on them.

#include "TalvorString.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstring>
#include <random>
#include <string>

namespace {

int Sign(int n) { return (n > 0) - (n < 0); }

std::string RandomText(std::mt19937& rng, int nMax) {
    static const char* const kPieces[] = {"a", "A", "b", "Z", "_", "~", "\xC3\xA9", "\xC3\x89",
                                          "\xE4\xB8\xAD", "\xE4\xB8\x81", "\xF0\x9F\x98\x80", "\x7F"};
    std::string s;
    for (int n = 1 + (int)(rng() % (unsigned)nMax); n > 0; --n) s += kPieces[rng() % 12];
    return s;
}

}  // namespace

TEST(TalvorCompare, AgreesWithSqliteOrderUnlessAPrefix) {
    std::mt19937 rng(31337);
    int nPrefixPairs = 0;
    for (int i = 0; i < 100000; ++i) {
        std::string a = RandomText(rng, 12);
        std::string b = (i % 3 == 0) ? a.substr(0, rng() % (a.size() + 1)) + RandomText(rng, 4) : RandomText(rng, 12);
        if (i % 7 == 0) b = a;
        for (int bCase = 0; bCase < 2; ++bCase) {
            const int nOurs = TalvorCompare(a.data(), (int)a.size(), b.data(), (int)b.size(), bCase);
            ASSERT_EQ(Sign(nOurs), -Sign(TalvorCompare(b.data(), (int)b.size(), a.data(), (int)a.size(), bCase)))
                << a << " | " << b;
            const size_t nCommon = std::min(a.size(), b.size());
            const int nPrefix = bCase ? memcmp(a.data(), b.data(), nCommon)
                                      : sqlite3_strnicmp(a.data(), b.data(), (int)nCommon);
            // A text that is a prefix of the other sorts after it.
            const int nReference = nPrefix == 0 ? (int)b.size() - (int)a.size()
                                   : bCase      ? strcmp(a.c_str(), b.c_str())
                                                : sqlite3_stricmp(a.c_str(), b.c_str());
            nPrefixPairs += nPrefix == 0;
            ASSERT_EQ(Sign(nOurs), Sign(nReference)) << a << " | " << b << " case " << bCase;
        }
    }
    EXPECT_GT(nPrefixPairs, 10000);
}

// Only the sign of a compare is ever used.
TEST(TalvorCompare, Rules) {
    const struct { const char* a; int na; const char* b; int nb; BOOL bCase; int nSign; } arCases[] = {
        // Trailing NULs are absent; 0 means strlen.
        {"abc", 0, "abc\0\0", 5, TRUE, 0},
        // The prefix sorts after, an embedded NUL next too; a null side loses to any text.
        {"abc", 3, "abc\0d", 5, TRUE, 1}, {nullptr, 0, "b", 1, TRUE, -1}, {nullptr, 0, nullptr, 0, TRUE, 0},
        // Folded only where asked, to lower case, so "_" sorts below letters.
        {"A", 1, "_", 1, FALSE, 1}, {"A", 1, "_", 1, TRUE, -1},
        // Inside multi-byte characters by code point, also when the first differing byte is a continuation byte.
        {"x\xE4\xB8\xAD", 4, "x\xE4\xB8\x81", 4, TRUE, 1}, {"\xC3\xA9", 2, "\xE4\xB8\xAD", 3, TRUE, -1},
        // Multi-byte against ASCII: the bytes. A sequence cut by the length is bytes, nothing past it read.
        {"\xC3\xA9", 2, "z", 1, TRUE, 1}, {"\xE4\xB8", 2, "\xE4\xB9", 2, TRUE, -1},
        // Differences past the first 8-byte word, in either half of a word.
        {"0123456789abcdefA", 17, "0123456789abcdefB", 17, TRUE, -1},
        {"0123456789ABCDEFg", 17, "0123456789abcdefG", 17, FALSE, 0}};
    for (const auto& c : arCases)
        EXPECT_EQ(Sign(TalvorCompare(c.a, c.na, c.b, c.nb, c.bCase)), c.nSign) << (c.a ? c.a : "null") << " | " << (c.b ? c.b : "null");
}

TEST(CaseFold, NoCaseCompareAndInPlaceFold) {
    EXPECT_EQ(TalvorCompareNoCase("a", nullptr, 1), -1);
    // Only ASCII letters fold: the bytes around them stay.
    char szText[] = "@AZ[`az{\xC3\x89";
    TalvorMakeLower(szText, -1);
    EXPECT_STREQ(szText, "@az[`az{\xC3\x89");
    TalvorMakeUpper(szText, 3);
    EXPECT_STREQ(szText, "@AZ[`az{\xC3\x89");
    // Every byte value against the reference fold of SQLite.
    for (int c = 1; c < 256; ++c)
        for (int d = 1; d < 256; ++d) {
            const char a[2] = {(char)c, 0}, b[2] = {(char)d, 0};
            ASSERT_EQ(Sign(TalvorCompareNoCase(a, b, 1)), Sign(sqlite3_stricmp(a, b))) << c << " " << d;
        }
}
