// Queues, stacks and maps driven by random operation sequences side by side
// with the standard library's containers, plus the behaviour that differs
// from them on purpose (slot reads, cut keys, the free-head marker).
#include "CommonDataDef.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <cstdint>
#include <deque>
#include <map>
#include <random>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

namespace {

template <typename Q>
struct CQueueProbe : public Q {
    int Slots() const { return this->m_nCount; }
    bool OnInline() const { return this->m_pData == this->m_arData; }
};

template <typename Queue, typename T, typename MakeValue>
void DriveQueue(unsigned nSeed, MakeValue make)
{
    std::mt19937 rng(nSeed);
    CQueueProbe<Queue> q;
    std::deque<T> model;
    for (int i = 0; i < 40000; ++i) {
        unsigned op = rng() % 100;
        if (op < 55) {
            T v = make(rng());
            q.push(v);
            model.push_back(v);
        } else if (op < 97) {
            q.pop();
            if (!model.empty()) model.pop_front();
        } else if (op < 98) {
            q.free();
            model.clear();
            ASSERT_TRUE(q.OnInline());
        }
        ASSERT_EQ(q.size(), (int)model.size());
        ASSERT_EQ(q.empty(), model.empty() ? TRUE : FALSE);
        ASSERT_EQ(q.front(), model.empty() ? T() : model.front());
        ASSERT_EQ(q.back(), model.empty() ? T() : model.back());
        ASSERT_LT(q.size(), q.Slots()) << "one slot always stays free";
        if constexpr (std::is_same<T, UINT>::value) {
            // Every element in order, across the wrap and growth.
            if (i % 100 == 0) {
                std::vector<UINT> got(q.size());
                q.copy(got.data());
                ASSERT_EQ(got, std::vector<UINT>(model.begin(), model.end()));
            }
        }
    }
}

TEST(Queue, MatchesStdDequeUnderRandomOperations)
{
    DriveQueue<CTalvorQueueUINT, UINT>(11, [](unsigned r) { return (UINT)r; });
    DriveQueue<CTalvorQueue, void*>(12, [](unsigned r) { return reinterpret_cast<void*>((uintptr_t)r | 1); });
}

TEST(Queue, GetReadsSlotsOnlyBeforeTheFirstPop)
{
    CTalvorQueueUINT q;
    for (UINT i = 1; i <= 3; ++i) q.push(i * 10);
    EXPECT_EQ(q.get(2), 30u);
    EXPECT_EQ(q.get(3), 0u) << "the free slot behind the last element";
    EXPECT_EQ(q.get(-1), 0u) << "a negative slot reads nothing";
    q.pop();
    EXPECT_EQ(q.get(0), 0u) << "after a pop, slots are not elements";
    CTalvorQueueUINT full;
    for (UINT i = 1; i <= 63; ++i) full.push(i);
    EXPECT_EQ(full.get(63), 0u) << "reading slot size() stays inside the store";
}

template <typename Stack, typename T>
void DriveStack(unsigned nSeed)
{
    std::mt19937 rng(nSeed);
    Stack s;
    std::vector<T> model;
    for (int i = 0; i < 30000; ++i) {
        unsigned op = rng() % 100;
        if (op < 52) {
            T v = (T)((uintptr_t)rng() | 1);
            s.push(v);
            model.push_back(v);
        } else if (op < 99) {
            s.pop();
            if (!model.empty()) model.pop_back();
        } else {
            s.free();
            model.clear();
        }
        ASSERT_EQ(s.size(), (int)model.size());
        ASSERT_EQ(s.empty(), model.empty() ? TRUE : FALSE);
        ASSERT_EQ(s.top(), model.empty() ? T() : model.back());
        if constexpr (std::is_same<Stack, CTalvorStack>::value) {
            // Any element by its index; nothing outside them.
            if (!model.empty()) {
                const size_t k = rng() % model.size();
                ASSERT_EQ(s.at((int)k), model[k]);
            }
            ASSERT_EQ(s.at((int)model.size()), nullptr);
            ASSERT_EQ(s.at(-1), nullptr);
        }
    }
}

TEST(Stack, MatchesStdVectorUnderRandomOperations)
{
    DriveStack<CTalvorStack, void*>(21);
    DriveStack<CTalvorStackInt64, long long>(22);
}

std::string RandomKey(std::mt19937& rng)
{
    static const char arAlphabet[] = "abcXYZ_09\x80\xff";
    size_t nLen = rng() % 10 == 0 ? 50 + rng() % 30 : 1 + rng() % 4;
    std::string s;
    for (size_t i = 0; i < nLen; ++i) s += arAlphabet[rng() % (sizeof(arAlphabet) - 1)];
    return s;
}

// Every entry a walk of the map gives, each once.
template <typename V, typename M>
std::map<std::string, V> Walk(const M& m)
{
    std::map<std::string, V> seen;
    int nGuard = 0;
    for (LPVOID pos = m.GetHeadPosition(); pos != nullptr && nGuard++ < 100000;) {
        char* lpKey = nullptr;
        V value{};
        m.GetNext(pos, lpKey, value);
        EXPECT_TRUE(seen.emplace(lpKey, value).second) << "a walk gives an entry once";
    }
    return seen;
}

TEST(MapString, MatchesStdMapUnderRandomOperations)
{
    std::mt19937 rng(31);
    CTalvorMapString m;
    std::map<std::string, UINT> model;
    for (int i = 0; i < 20000; ++i) {
        std::string key = RandomKey(rng);
        std::string stored = key.substr(0, TALVOR_MAPSTRING_NAME - 1);
        const bool bFound = key.size() < TALVOR_MAPSTRING_NAME && model.count(key);
        unsigned op = rng() % 100;
        if (op < 50) {
            UINT v = rng();
            int nExpect = model.count(stored) ? TALVOR_MAP_REPLACED : TALVOR_MAP_NEW;
            ASSERT_EQ(m.Set(key.c_str(), v), nExpect);
            model[stored] = v;
        } else if (op < 80) {
            UINT v = 12345;
            ASSERT_EQ(m.Get(key.c_str(), v), bFound ? 0 : TALVOR_MAP_ABSENT);
            ASSERT_EQ(v, bFound ? model[key] : 12345u);
        } else if (op < 99) {
            ASSERT_EQ(m.Remove(key.c_str()), bFound ? model[key] : 0u);
            if (bFound) model.erase(key);
        } else {
            if (rng() % 2) m.Clear();
            else m.Free();
            model.clear();
        }
        ASSERT_EQ(m.Count(), (int)model.size());
        if (i % 500 == 0 || i == 19999) {
            ASSERT_EQ(Walk<UINT>(m), model);
        }
    }
    EXPECT_EQ(m.Set("", 1), TALVOR_MAP_NO_MEMORY) << "an empty name would look like a free node";
}

// A node freed by Remove is taken again by the next key of its chain, so a
// map that sees keys come and go does not grow without end.
TEST(MapString, RemovedNodesAreReused)
{
    CTalvorMapString m;
    for (int i = 0; i < 100; ++i) m.Set(("key" + std::to_string(i)).c_str(), i);
    auto nodeOf = [&](const char* lpWanted) -> LPVOID {
        for (LPVOID pos = m.GetHeadPosition(); pos != nullptr;) {
            LPVOID here = pos;
            char* lpKey;
            UINT n;
            m.GetNext(pos, lpKey, n);
            if (strcmp(lpKey, lpWanted) == 0) return here;
        }
        return nullptr;
    };
    LPVOID before = nodeOf("key80");
    ASSERT_NE(before, nullptr);
    EXPECT_EQ(m.Remove("key80"), 80u);
    EXPECT_EQ(m.Remove("key80"), 0u);
    EXPECT_EQ(m.Set("key80", 81), TALVOR_MAP_NEW);
    EXPECT_EQ(nodeOf("key80"), before) << "the node left by Remove is taken again";
}

// Bytes whose signed, shifted sum is INT_MIN: 23 bytes and their negations
// 24 places later cancel, and two 0x80 bytes at shift 23 give -2^31.
std::string KeyHashingToIntMin()
{
    std::string s(48, '\0');
    for (int i = 0; i < 23; ++i) {
        s[i] = 'A';
        s[24 + i] = (char)(0 - 'A');
    }
    s[23] = (char)0x80;
    s[47] = (char)0x80;
    return s;
}

TEST(MapString, KeyWhoseHashIsIntMinStaysInTheTable)
{
    std::string key = KeyHashingToIntMin();
    CTalvorMapString m;
    EXPECT_EQ(m.Set(key.c_str(), 5), TALVOR_MAP_NEW);
    UINT v = 0;
    EXPECT_EQ(m.Get(key.c_str(), v), 0);
    EXPECT_EQ(v, 5u);

    // 2^31 is not a multiple of 1000: as a signed remainder the bucket would
    // be -648, in front of the table.
    CTalvorMapCache c(1000);
    BYTE* pValue = new BYTE[4];
    EXPECT_EQ(c.Set(&key[0], pValue), 0);
    EXPECT_EQ(c.Get(key.c_str()), pValue);
    delete[] static_cast<BYTE*>(c.Remove(key.c_str()));
}

TEST(MapInt64, MatchesStdSetUnderRandomOperations)
{
    std::mt19937_64 rng(41);
    CTalvorMapInt64 m;
    std::set<long long> model;
    for (int i = 0; i < 30000; ++i) {
        long long nKey;
        switch (rng() % 4) {
        case 0: nKey = (long long)(rng() % 2000) * 257; break;  // one bucket
        case 1: nKey = (long long)rng(); break;
        case 2: nKey = -(long long)(rng() % 100000); break;
        default: nKey = (long long)(rng() % 5000); break;
        }
        if (nKey == 0) continue;
        if (rng() % 2) {
            ASSERT_EQ(m.Set(nKey), 0);
            model.insert(nKey);
        }
        ASSERT_EQ(m.Find(nKey), model.count(nKey) ? 1 : 0) << nKey;
        if (i == 20000) {
            m.Clear();
            for (long long k : model) ASSERT_EQ(m.Find(k), 0);
            model.clear();
        }
    }
}

TEST(MapInt64, ZeroIsPresentWhileItsHeadIsFree)
{
    CTalvorMapInt64 m;
    m.Set(5);
    EXPECT_EQ(m.Find(0), 1);
    m.Set(257);  // bucket 0
    EXPECT_EQ(m.Find(0), 0);
    m.Set(0);
    EXPECT_EQ(m.Find(0), 1);
    m.Clear();
    EXPECT_EQ(m.Find(257), 0);
    EXPECT_EQ(m.Find(0), 1);
}

TEST(MapCache, MatchesStdMapUnderRandomOperationsAndOwnsValues)
{
    std::mt19937 rng(51);
    std::vector<std::vector<char>> keys;
    for (int i = 0; i < 200; ++i) {
        std::string s = "k" + std::to_string(i * 7919);
        keys.emplace_back(s.begin(), s.end());
        keys.back().push_back('\0');
    }
    CTalvorMapCache m(7);
    std::map<std::string, BYTE*> model;
    for (int i = 0; i < 20000; ++i) {
        char* lpKey = keys[rng() % keys.size()].data();
        unsigned op = rng() % 100;
        if (op < 45) {
            BYTE* pValue = model.count(lpKey) && rng() % 4 == 0 ? model[lpKey] : new BYTE[8];
            ASSERT_EQ(m.Set(lpKey, pValue), 0);
            model[lpKey] = pValue;  // a replaced block was the map's to give back
        } else if (op < 75) {
            ASSERT_EQ(m.Get(lpKey), model.count(lpKey) ? model[lpKey] : nullptr);
        } else {
            LPVOID pValue = m.Remove(lpKey);
            ASSERT_EQ(pValue, model.count(lpKey) ? model[lpKey] : nullptr);
            delete[] static_cast<BYTE*>(pValue);
            model.erase(lpKey);
        }
        ASSERT_EQ(m.Count(), (int)model.size());
    }
    const std::map<std::string, LPVOID> expected(model.begin(), model.end());
    ASSERT_EQ(Walk<LPVOID>(m), expected);
    for (auto& kv : model) delete[] kv.second;
    m.Clear();
    EXPECT_EQ(m.Count(), 0);
}

TEST(MapCache, ReplacingKeepsOneEntryAndTheNewKeyPointer)
{
    char szFirst[] = "name";
    char szSecond[] = "name";
    CTalvorMapCache m(16);
    BYTE* pOld = new BYTE[1];
    BYTE* pNew = new BYTE[1];
    EXPECT_EQ(m.Set(szFirst, pOld), 0);
    EXPECT_EQ(m.Set(szSecond, pNew), 0);  // pOld is given back here
    EXPECT_EQ(m.Count(), 1);
    LPVOID pos = m.GetHeadPosition();
    char* lpKey = nullptr;
    LPVOID pValue = nullptr;
    m.GetNext(pos, lpKey, pValue);
    EXPECT_EQ(lpKey, szSecond);
    EXPECT_EQ(pValue, pNew);
    EXPECT_EQ(pos, nullptr);
    delete[] static_cast<BYTE*>(m.Remove("name"));

    CTalvorMapCache none(0);
    EXPECT_EQ(none.Set(szFirst, nullptr), TALVOR_MAP_NO_MEMORY);
    EXPECT_EQ(none.Get("name"), nullptr);
}

}  // namespace
