// Queues and maps driven by random operation sequences side by side
// with the standard library's containers, plus the behaviour that differs
// from them on purpose (slot reads, cut keys).
#include "CommonDataDef.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

TEST(Queue, MatchesStdDequeAndReadsSlotsOnlyInsideTheStore) {
    std::mt19937 rng(11);
    CTalvorQueueUINT q;
    std::deque<UINT> model;
    for (int i = 0; i < 40000; ++i) {
        const unsigned op = rng() % 100;
        if (op < 55) {
            const UINT v = rng();
            q.push(v);
            model.push_back(v);
        } else if (op < 97) {
            q.pop();
            if (!model.empty()) model.pop_front();
        } else if (op < 98) {
            q.free();
            model.clear();
        }
        ASSERT_EQ(q.size(), (int)model.size());
        ASSERT_TRUE(q.front() == (model.empty() ? 0u : model.front()) && q.back() == (model.empty() ? 0u : model.back()));
        if (i % 64) continue;
        // Every element in order, across the wrap and growth.
        std::vector<UINT> got(q.size());
        q.copy(got.data());
        ASSERT_EQ(got, std::vector<UINT>(model.begin(), model.end()));
    }
    CTalvorQueueUINT s;
    for (UINT i = 1; i <= 3; ++i) s.push(i * 10);
    EXPECT_TRUE(s.get(2) == 30u && s.get(3) == 0u && s.get(-1) == 0u) << "the free slot behind the last element reads 0";
    CTalvorQueueUINT full;
    for (UINT i = 1; i <= 63; ++i) full.push(i);
    EXPECT_EQ(full.get(63), 0u) << "reading slot size() stays inside the store";
}

std::string RandomKey(std::mt19937& rng) {
    static const char arAlphabet[] = "abcXYZ_09\x80\xff";
    const size_t nLen = rng() % 10 == 0 ? 50 + rng() % 30 : 1 + rng() % 4;
    std::string s;
    for (size_t i = 0; i < nLen; ++i) s += arAlphabet[rng() % (sizeof(arAlphabet) - 1)];
    return s;
}

// Every entry a walk of the map gives, each once, with the node it sits in.
template <typename V, typename M>
std::map<std::string, V> Walk(const M& m, std::map<std::string, LPVOID>* pNodes = nullptr) {
    std::map<std::string, V> seen;
    int nGuard = 0;
    for (LPVOID pos = m.GetHeadPosition(); pos != nullptr && nGuard++ < 100000;) {
        LPVOID node = pos;
        char* lpKey = nullptr;
        V value{};
        m.GetNext(pos, lpKey, value);
        EXPECT_TRUE(seen.emplace(lpKey, value).second) << "a walk gives an entry once";
        if (pNodes) (*pNodes)[lpKey] = node;
    }
    return seen;
}

TEST(MapString, MatchesStdMapUnderRandomOperations) {
    std::mt19937 rng(31);
    CTalvorMapString m;
    std::map<std::string, UINT> model;
    for (int i = 0; i < 20000; ++i) {
        const std::string key = RandomKey(rng), stored = key.substr(0, TALVOR_MAPSTRING_NAME - 1);
        const bool bFound = key.size() < TALVOR_MAPSTRING_NAME && model.count(key);
        const unsigned op = rng() % 100;
        if (op < 50) {
            const UINT v = rng();
            ASSERT_EQ(m.Set(key.c_str(), v), model.count(stored) ? TALVOR_MAP_REPLACED : TALVOR_MAP_NEW);
            model[stored] = v;
        } else if (op < 80) {
            UINT v = 12345;
            ASSERT_EQ(m.Get(key.c_str(), v), bFound ? 0 : TALVOR_MAP_ABSENT);
            ASSERT_EQ(v, bFound ? model[key] : 12345u);
        } else if (op < 99) {
            ASSERT_EQ(m.Remove(key.c_str()), bFound ? model[key] : 0u);
            if (bFound) model.erase(key);
        } else {
            rng() % 2 ? m.Clear() : m.Free();
            model.clear();
        }
        ASSERT_EQ(m.Count(), (int)model.size());
        if (i % 500 == 0 || i == 19999) {
            ASSERT_EQ(Walk<UINT>(m), model);
        }
    }
    EXPECT_EQ(m.Set("", 1), TALVOR_MAP_NO_MEMORY) << "an empty name would look like a free node";

    // A node freed by Remove is taken again by the next key of its chain, so
    // a map that sees keys come and go does not grow without end.
    m.Free();
    for (int i = 0; i < 100; ++i) m.Set(("key" + std::to_string(i)).c_str(), i);
    std::map<std::string, LPVOID> before, after;
    Walk<UINT>(m, &before);
    EXPECT_EQ(m.Remove("key80"), 80u);
    EXPECT_EQ(m.Remove("key80"), 0u);
    EXPECT_EQ(m.Set("key80", 81), TALVOR_MAP_NEW);
    Walk<UINT>(m, &after);
    EXPECT_EQ(after["key80"], before["key80"]) << "the node left by Remove is taken again";
}

// Bytes whose signed, shifted sum is INT_MIN: 23 bytes and their negations
// 24 places later cancel, and two 0x80 bytes at shift 23 give -2^31. As a
// signed remainder of 1000 the bucket would be -648, in front of the table.
TEST(MapString, KeyWhoseHashIsIntMinStaysInTheTable) {
    std::string key(48, '\0');
    for (int i = 0; i < 23; ++i) key[i] = 'A', key[24 + i] = (char)(0 - 'A');
    key[23] = key[47] = (char)0x80;
    CTalvorMapString m;
    EXPECT_EQ(m.Set(key.c_str(), 5), TALVOR_MAP_NEW);
    UINT v = 0;
    EXPECT_EQ(m.Get(key.c_str(), v), 0);
    EXPECT_EQ(v, 5u);
    CTalvorMapCache c(1000);
    BYTE* pValue = new BYTE[4];
    EXPECT_EQ(c.Set(&key[0], pValue), 0);
    EXPECT_EQ(c.Get(key.c_str()), pValue);
    delete[] static_cast<BYTE*>(c.Remove(key.c_str()));
}

TEST(MapCache, AReplacedEntryKeepsTheNewKeyAndGivesTheOldValueBack) {
    CTalvorMapCache m(7);
    // A replaced entry keeps the new key pointer: the old one is the caller's
    // and may be gone.
    char szFirst[] = "name", szSecond[] = "name";
    ASSERT_EQ(m.Set(szFirst, new BYTE[1]), 0);
    BYTE* pNew = new BYTE[1];
    ASSERT_EQ(m.Set(szSecond, pNew), 0);  // the first block is given back here
    LPVOID pos = m.GetHeadPosition(), pValue = nullptr;
    char* lpKey = nullptr;
    m.GetNext(pos, lpKey, pValue);
    EXPECT_EQ(lpKey, szSecond);
    EXPECT_EQ(pValue, pNew);
    EXPECT_EQ(pos, nullptr);
    delete[] static_cast<BYTE*>(m.Remove("name"));
}

}  // namespace
