// Configuration integers: the tree and the file-direct reader read a value as
// the decimal parser reads SQL text, and agree with Python's decimal module.
#include "ConfigHelper.h"
#include "PythonReference.h"
#include "TempTree.h"
#include "TestFiles.h"

#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <string>
#include <vector>

using namespace talvortest;

namespace {

// Both readers over one file of [S] k0=..., k1=..., ...; the singleton is
// closed afterwards so that no other test sees this tree.
class ConfigIntegers : public ::testing::Test {
protected:
    void TearDown() override { TalvorConfigClose(); }
    // Writes the values and loads the file into the tree.
    void Load(const std::vector<std::string>& vValues)
    {
        ASSERT_TRUE(m_tree.Ok());
        std::string strText = "[S]\n";
        for (size_t i = 0; i < vValues.size(); ++i) strText += Key(i) + "=" + vValues[i] + "\n";
        ASSERT_TRUE(WriteWholeFile(m_strPath, strText));
        ASSERT_TRUE(TalvorConfigInit(m_strPath.c_str()));
    }
    static std::string Key(size_t i) { return "k" + std::to_string(i); }
    int Tree(size_t i) { return TalvorConfigGetValueInt("S", Key(i).c_str(), -5); }
    int File(size_t i) { return GetPrivateProfileInt("S", Key(i).c_str(), -5, m_strPath.c_str()); }

    TempTree m_tree{"cfgint"};
    const std::string m_strPath = m_tree.Root() + "/TalvorConfig.ini";
};

struct IntCase {
    const char* m_lpszValue;
    int m_nValue;
};

// The tree keeps a "#" and a tab in a value where the file-direct reader
// cuts and trims; an integer reads the same through both all the same.
// strtol read "1e3" as 1 and "12abc" as 12.
const IntCase g_arCases[] = {
    // A fraction is cut, not rounded.
    {"+42", 42}, {"  17  ", 17}, {"\t17", 17}, {"-12.9", -12}, {"-0.9", 0},
    {"1e3", 1000}, {"0x1F", 31}, {"-0x10", -16}, {"b'101'", 5},
    {"2147483647", INT_MAX}, {"2147483648", INT_MAX}, {"-2147483648", INT_MIN}, {"-2147483649", INT_MIN},
    {"99999999999999999999999999999999999999999", INT_MAX},  // held at the limit, never wrapped
    {"12abc", 0}, {"", 0}, {"- 5", 0}, {"1 2", 0},
    {"12 # port", 12}, {"# 12", 0}, {"1#2", 1},  // a comment is no part of a number
};

// Values longer than any fixed buffer are read whole: cut, each would read
// as another number (1, 0, 0 and 12).
TEST_F(ConfigIntegers, BothReadersReadLikeTheDecimalParser)
{
    const std::string strZeros(100, '0');
    std::vector<std::pair<std::string, int>> vCases = {
        {"1." + strZeros + "e5", 100000}, {strZeros + strZeros + "7", 7}, {"-" + strZeros + "123", -123},
        {"12" + std::string(80, ' ') + "x", 0}};
    for (const IntCase& c : g_arCases) vCases.push_back({c.m_lpszValue, c.m_nValue});
    std::vector<std::string> vValues;
    for (const auto& c : vCases) vValues.push_back(c.first);
    Load(vValues);
    for (size_t i = 0; i < vCases.size(); ++i) {
        EXPECT_EQ(Tree(i), vCases[i].second) << "[" << vCases[i].first << "]";
        EXPECT_EQ(File(i), vCases[i].second) << "[" << vCases[i].first << "]";
    }
}

// Generated numbers (signs, blanks, fractions, exponents, values past the
// range) against int(Decimal(text)) held at the int limits.
TEST_F(ConfigIntegers, GeneratedNumbersAgainstPythonDecimal)
{
    const char* const kReference = R"PY(
import sys
from decimal import Decimal
for line in sys.stdin:
    v = int(Decimal(line.strip()))
    print(max(-2**31, min(2**31 - 1, v)))
)PY";
    std::mt19937_64 rng(8021);
    std::vector<std::string> vValues;
    for (int i = 0; i < 600; ++i) {
        std::string s;
        if (rng() % 3 == 0) s += rng() % 2 ? "-" : "+";
        int nDigits = 1 + (int)(rng() % 14);
        for (int d = 0; d < nDigits; ++d) s += (char)('0' + rng() % 10);
        if (rng() % 3 == 0) {
            s += ".";
            for (int d = (int)(rng() % 5); d >= 0; --d) s += (char)('0' + rng() % 10);
        }
        if (rng() % 4 == 0) s += "e" + std::string(rng() % 2 ? "-" : "") + std::to_string(rng() % 12);
        vValues.push_back(std::string(rng() % 3, ' ') + s + std::string(rng() % 3, ' '));
    }
    std::vector<std::string> vRef = RunPythonReference(kReference, vValues);
    ASSERT_EQ(vRef.size(), vValues.size());
    Load(vValues);
    for (size_t i = 0; i < vValues.size(); ++i) {
        int nRef = std::stoi(vRef[i]);
        EXPECT_EQ(Tree(i), nRef) << "[" << vValues[i] << "]";
        EXPECT_EQ(File(i), nRef) << "[" << vValues[i] << "]";
    }
}

}  // namespace
