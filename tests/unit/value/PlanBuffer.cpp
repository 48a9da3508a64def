// The plan buffer: values in the main buffer and in buffer and overflow
// sections read back by their id after growth and from a copy of the stream;
// spilled items are marked; a stream pointing past its bytes is refused; a
// reset plan builds again without new memory. Every value carries bytes of
// its own, all checked, so a block handed out twice or moved without its
// contents shows even where the counters agree. Then what the rest of the
// library keeps in a plan: chains of conditions, row values named by offset,
// field values (against Python's struct), and the pages a plan lends (under
// AddressSanitizer a page given back twice or never fails).
#include "BaseBson.h"
#include "PackedValue.h"
#include "PythonReference.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

using talvortest::Val;

namespace {

// nFlagAt: the buffer's own byte in an item, which may change later.
struct Written { UINT nAddr; std::vector<BYTE> bytes; int nFlagAt = -1; };

bool SameBytes(const BYTE* p, const Written& w) {
    for (size_t i = 0; i < w.bytes.size(); i++)
        if ((int)i != w.nFlagAt && p[i] != w.bytes[i]) return false;
    return true;
}

// Builds a plan: a head, then values of random sizes in every area the
// plan has, growing the main buffer between rounds.
class PlanBuilder {
public:
    explicit PlanBuilder(CBaseBson& bson, unsigned nSeed) : m_bson(bson), m_rng(nSeed) {}

    std::vector<BYTE> Bytes(size_t n) {
        std::vector<BYTE> v(n);
        for (auto& b : v) b = (BYTE)m_rng();
        return v;
    }
    void Head() {
        volatile UINT nAddr = 1;
        LPBYTE p = nullptr;
        ASSERT_EQ(0, m_bson.AllocFromBsonBuffer(sizeof(EXECUTEPLANBSON), nAddr, p));
        ASSERT_EQ(0u, nAddr);
    }

    void Main(size_t n) {
        volatile UINT nAddr = 0;
        LPBYTE p = nullptr;
        ASSERT_EQ(0, m_bson.AllocFromBsonBuffer((UINT)n, nAddr, p));
        Keep(nAddr, p, n);
    }
    void Section(size_t n) {
        UINT nAddr = 0;
        LPBYTE p = nullptr;
        ASSERT_EQ(0, m_bson.AllocFromBufferSection((UINT)n, nAddr, p));
        ASSERT_NE(0u, nAddr >> 16);
        Keep(nAddr, p, n);
    }

    // The flag byte belongs to the buffer, the ids (which the stream check
    // follows) are zero; the rest is the test's.
    template <class T>
    void Item(int (CBaseBson::*alloc)(T*&, UINT&), int nFlagAt, std::initializer_list<std::pair<int, int>> zeros) {
        T* p = nullptr;
        UINT nAddr = 0;
        ASSERT_EQ(0, (m_bson.*alloc)(p, nAddr));
        std::vector<BYTE> v = Bytes(sizeof(T));
        v[nFlagAt] = reinterpret_cast<BYTE*>(p)[nFlagAt];
        for (auto z : zeros) memset(v.data() + z.first, 0, z.second);
        memcpy(p, v.data(), v.size());
        m_written.push_back({nAddr, v, nFlagAt});
    }
    void Record() { Item(&CBaseBson::AllocRecord, 2, {{16, 4}, {28, 4}}); }
    void Step() { Item(&CBaseBson::AllocStep, 1, {{4, 8}}); }
    void Keep(UINT nAddr, LPBYTE p, size_t n) {
        std::vector<BYTE> v = Bytes(n);
        for (size_t i = 0; i < n; i++) ASSERT_EQ(0, p[i]) << "not zeroed at " << i;
        memcpy(p, v.data(), n);
        m_written.push_back({nAddr, v});
    }
    void Build(int nRounds) {
        Head();
        for (int r = 0; r < nRounds; r++) {
            for (int i = 0; i < 40; i++) Main(1 + m_rng() % 200);
            for (int i = 0; i < 60; i++) Section(1 + m_rng() % 3000);
            for (int i = 0; i < 400; i++) Record();
            for (int i = 0; i < 300; i++) Step();
            ASSERT_EQ(0, m_bson.ReAllocBsonBuffer(m_bson.m_nBsonBufferSize + 0x10000));
        }
    }

    CBaseBson& m_bson;
    std::mt19937 m_rng;
    std::vector<Written> m_written;
};

// Every value by its id, with its bytes; by default through the plan itself.
template <class R>
void ExpectAllLive(const std::vector<Written>& written, R resolve) {
    for (const Written& w : written) {
        const BYTE* p = resolve(w.nAddr, (UINT)w.bytes.size());
        ASSERT_NE(nullptr, p) << std::hex << w.nAddr;
        ASSERT_TRUE(SameBytes(p, w)) << std::hex << w.nAddr;
    }
}
void ExpectAllLive(CBaseBson& bson, const std::vector<Written>& written) {
    ExpectAllLive(written, [&](UINT a, UINT n) { return bson.GetAddrFromAddrID(a, n); });
}

std::vector<BYTE> StreamOf(CBaseBson& bson) {
    std::vector<BYTE> v(bson.GetExecutePlanDataSize() + 64);
    UINT n = bson.CopyExecutePlan(v.data(), (UINT)v.size());
    EXPECT_EQ(bson.GetExecutePlanDataSize(), n) << "the counted size is the stream's";
    v.resize(n);
    return v;
}

TEST(PlanBufferLayout, ValuesInEveryAreaSurviveGrowthAndACopyOfTheStream) {
    CBaseBson bson;
    PlanBuilder builder(bson, 7);
    builder.Build(6);
    ASSERT_GT(bson.m_nBufferSectionNum, BSON_INLINE_SECTIONS) << "the section table has moved to the arena";
    ExpectAllLive(bson, builder.m_written);

    std::vector<BYTE> stream = StreamOf(bson);
    // Elsewhere, with no plan object behind it.
    std::vector<BYTE> moved(stream.size() + 3);
    memcpy(moved.data() + 3, stream.data(), stream.size());
    bson.Free();
    CPlanStreamView view;
    ASSERT_EQ(0, view.Attach(moved.data() + 3, (UINT)stream.size()));
    ExpectAllLive(builder.m_written, [&](UINT a, UINT n) { return view.Resolve(a, n); });
}

TEST(PlanBufferLayout, MainBufferBoundsEmptyRequestsAndAlignedBlocks) {
    CBaseBson bson;
    volatile UINT nAddr = 77;
    LPBYTE p = nullptr;
    EXPECT_EQ(0, bson.AllocFromBsonBuffer(0, nAddr, p));
    EXPECT_EQ(0u, nAddr);

    ASSERT_EQ(0, bson.AllocFromBsonBuffer(65424, nAddr, p));
    EXPECT_EQ(nullptr, bson.ConvertOffset2Addr(0));
    EXPECT_EQ(bson.m_lpBuffer + 5, bson.ConvertOffset2Addr(5));
    EXPECT_EQ(nullptr, bson.ConvertOffset2Addr(bson.m_nBsonBufferSize)) << "past the buffer";

    // Extending a block in the middle keeps the blocks behind it.
    LPBYTE pFirst = p, pSecond = nullptr;
    ASSERT_EQ(0, bson.AllocFromBsonBuffer(8, nAddr, pSecond));
    memset(pSecond, 0xAB, 8);
    const UINT nData = bson.m_nBsonDataSize;
    ASSERT_EQ(0, bson.AllocFromBsonBuffer(16, nAddr, pFirst));
    EXPECT_TRUE(nData == bson.m_nBsonDataSize && pSecond[7] == 0xAB);
    LPBYTE pPast = bson.m_lpBuffer + bson.m_nBsonBufferSize - 4;
    EXPECT_EQ(BSON_PAST_END, bson.AllocFromBsonBuffer(8, nAddr, pPast));
    BYTE arOutside[8];
    EXPECT_EQ(BSON_PAST_END, bson.AllocFromBsonBuffer(8, nAddr, pPast = arOutside));

    // A word-aligned block behind an odd one.
    bson.Free();
    ASSERT_EQ(0, bson.AllocBsonBuffer(nullptr, 100));
    p = nullptr;
    ASSERT_EQ(0, bson.AllocFromBsonBuffer(5, nAddr, p));
    UINT nEx = 0;
    LPBYTE pEx = nullptr;
    ASSERT_EQ(0, bson.AllocFromBsonBufferEx(6, nEx, pEx));
    EXPECT_TRUE(nEx == 8u && pEx == bson.m_lpBuffer + 8);
    EXPECT_EQ(14u, bson.GetExecutePlanDataSize());

    // Scratch memory is handed out on word boundaries: a caller lays
    // integers into it.
    LPBYTE pA = nullptr, pB = nullptr;
    ASSERT_TRUE(bson.AllocFromBufferPool(5, pA, TRUE) == 0 && bson.AllocFromBufferPool(5, pB, TRUE) == 0);
    EXPECT_TRUE(pA == bson.m_lpTempBuffer && pB == pA + 8) << "the temporary buffer moves on by whole words";
}

TEST(PlanBufferLayout, FullMainBufferRefusesOrOverflowsWithTheTopBit) {
    CBaseBson bson;
    ASSERT_EQ(0, bson.AllocBsonBuffer(nullptr, 1000));
    UINT nRoom = bson.m_nBsonBufferSize;
    volatile UINT nAddr = 0;
    LPBYTE p = nullptr;
    ASSERT_EQ(0, bson.AllocFromBsonBuffer(nRoom - 10, nAddr, p));
    const UINT nData = bson.m_nBsonDataSize, nPlan = bson.m_nExecutePlanDataSize, nFree = bson.m_nFreeBufferSize;
    p = nullptr;
    EXPECT_EQ(BSON_NO_MEMORY, bson.AllocFromBsonBuffer(11, nAddr, p));
    EXPECT_TRUE(nData == bson.m_nBsonDataSize && nPlan == bson.m_nExecutePlanDataSize && nFree == bson.m_nFreeBufferSize);
    BYTE arEleven[11] = {};
    EXPECT_FALSE(bson.AppendBuffer(arEleven, 11)) << "an append that doesn't fit writes nothing";
    EXPECT_EQ(nData, bson.m_nBsonDataSize);

    bson.m_bAllowBsonSection = TRUE;
    PlanBuilder builder(bson, 3);
    for (UINT i = 0; i < 200; i++) {
        builder.Main(i == 100 ? 0x30000 : 1 + builder.m_rng() % 9000);  // one larger than a section
        ASSERT_TRUE((builder.m_written.back().nAddr >> 16) & BSON_OVERFLOW_SECTION);
    }
    EXPECT_EQ(nData, bson.m_nBsonDataSize) << "overflow leaves the main buffer alone";
    ExpectAllLive(bson, builder.m_written);
}

TEST(PlanBufferItems, ItemsThatSpillMarkBothSidesAndChainTheSections) {
    CBaseBson bson;
    // Records until one spills into a new section.
    const size_t nFit = (BSON_DEFAULT_SECTION_SIZE - 16) / sizeof(RECORDHEAD);
    std::vector<LPRECORDHEAD> records(nFit + 1);
    std::vector<UINT> addrs(nFit + 1);
    for (size_t i = 0; i <= nFit; i++) ASSERT_EQ(0, bson.AllocRecord(records[i], addrs[i]));
    EXPECT_EQ((1u << 16) | 16u, addrs[0]);
    EXPECT_EQ(BSON_ITEM_CONTINUED, Val(records[nFit - 1]->m_bFlag));
    EXPECT_EQ(0, Val(records[nFit]->m_bFlag));
    EXPECT_EQ((2u << 16) | 16u, addrs[nFit]);
    auto* pFirst = reinterpret_cast<LPBUFFERSECTIONHEAD>(bson.m_lpBufferSectionArray[0]),
          *pSecond = reinterpret_cast<LPBUFFERSECTIONHEAD>(bson.m_lpBufferSectionArray[1]);
    EXPECT_EQ(16u + nFit * 48, Val(pFirst->m_nSectionDataSize));
    EXPECT_EQ(2, Val(reinterpret_cast<RECORDSECTIONHEAD*>(pFirst + 1)->m_sNextSectionNo));
    EXPECT_EQ(1, Val(reinterpret_cast<RECORDSECTIONHEAD*>(pSecond + 1)->m_sPreSectionNo));
}

// The stream of a real plan, and one field of it at a time moved out of
// reach: each must be refused, and nothing resolves in a refused view.
TEST(PlanBufferStream, OffsetsPastTheBytesAreRefused) {
    CBaseBson bson;
    PlanBuilder builder(bson, 5);
    builder.Build(1);
    LPRECORDHEAD pRecord = nullptr;
    UINT nRecord = 0;
    ASSERT_EQ(0, bson.AllocRecord(pRecord, nRecord));
    pRecord->m_nFieldDataAddrID = builder.m_written[1].nAddr;
    std::vector<BYTE> good = StreamOf(bson);
    CPlanStreamView view;
    ASSERT_EQ(0, view.Attach(good.data(), (UINT)good.size()));
    const UINT nSections = view.GetSectionNum();
    ASSERT_GE(nSections, 3u);
    const UINT nMain = view.GetMainSize();

    auto at = [&](std::vector<BYTE>& v, size_t nOffset, UINT nValue) { memcpy(v.data() + nOffset, &nValue, 4); };
    auto refused = [&](std::vector<BYTE> v, const char* lpWhat) {
        CPlanStreamView bad;
        EXPECT_EQ(BSON_DAMAGED_PLAN, bad.Attach(v.data(), (UINT)v.size())) << lpWhat;
        EXPECT_EQ(nullptr, bad.Resolve(builder.m_written[1].nAddr, 1)) << lpWhat;
    };
    const UINT nTotal = (UINT)good.size();
    // The head of a section, found by walking the links.
    auto head = [&](UINT nSection) {
        UINT nOff = nMain;
        for (UINT i = 1; i < nSection; i++) memcpy(&nOff, good.data() + nOff + 8, 4);
        return (size_t)nOff;
    };
    const size_t nLastHead = head(nSections);
    const size_t nRecordAt = head(nRecord >> 16) + (nRecord & 0xFFFF);  // the record's id
    struct Forged { size_t nOffset; UINT nValue; const char* lpWhat; };
    const Forged arForged[] = {
        {0, nTotal + 1, "total past the bytes"},
        {24, nTotal + 1, "main data past the total"},
        {36, nMain + 12, "first section not behind the main data"},
        {nMain + 8, nTotal + 100, "next section past the end"},
        {nMain + 8, nMain, "a section that links back to itself"},
        {nLastHead + 4, nTotal - (UINT)nLastHead + 1, "last section longer than the stream"},
        {84, nMain, "command offset past the main data"},
        {80, (UINT)(nSections + 1) << 16 | 16, "next plan in a section that isn't there"},
        {nRecordAt + 16, (UINT)(nSections + 5) << 16, "record data in a section that isn't there"},
        {nRecordAt + 16, nMain + 1, "record data past the main data"},
        {nRecordAt + 16, 0x80010010u, "record data in an overflow section, which never travels"}};
    std::vector<BYTE> v;
    for (const Forged& f : arForged) {
        v = good;
        at(v, f.nOffset, f.nValue);
        refused(v, f.lpWhat);
    }
    {
        // A length that wraps 32 bits lands its end on a forged section in
        // the main data, which closes the stream as a sound one would; the
        // first section would then reach gigabytes past the bytes.
        const UINT nForged = sizeof(EXECUTEPLANBSON) + 8;
        ASSERT_LE(nForged + sizeof(BUFFERSECTIONHEAD), nMain);
        v = good;
        v[nForged] = BSON_SECTION_DATA;
        at(v, nForged + 4, nTotal - nForged);
        at(v, nForged + 8, 0);
        v[nMain] = BSON_SECTION_DATA;
        at(v, nMain + 4, 0u - (nMain - nForged));
        at(v, nMain + 8, nForged);
        refused(v, "a section length that wraps back into the main data");
    }
    refused(std::vector<BYTE>(good.begin(), good.end() - 1), "stream cut short by a byte");
    refused(std::vector<BYTE>(good.begin(), good.begin() + 40), "stream shorter than a head");

    // A section's last used byte is its own; the byte behind it belongs to
    // the next section, however much stream follows.
    UINT nFirstUsed = 0;
    memcpy(&nFirstUsed, good.data() + nMain + 4, 4);
    ASSERT_LT(nFirstUsed, 0x10000u);
    v = good;
    at(v, nRecordAt + 16, 1u << 16 | (nFirstUsed - 1));
    CPlanStreamView edge;
    EXPECT_EQ(0, edge.Attach(v.data(), (UINT)v.size())) << "record data on the last byte of its section";
    at(v, nRecordAt + 16, 1u << 16 | nFirstUsed);
    refused(v, "record data just past the bytes of its section");
}

TEST(PlanBufferReset, ABuildAfterResetGivesTheSameIdsWithoutNewMemory) {
    CBaseBson bson;
    bson.m_bAllowBsonSection = TRUE;
    ASSERT_EQ(0, bson.AllocBsonBuffer(nullptr, 4000));
    PlanBuilder base(bson, 21);
    base.Head();
    for (int i = 0; i < 5; i++) base.Record();
    for (int i = 0; i < 5; i++) base.Section(100);
    bson.SetOriginState();
    std::vector<BYTE> origin = StreamOf(bson);

    auto build = [&](unsigned nSeed) {
        PlanBuilder more(bson, nSeed);
        for (int i = 0; i < 3000; i++) more.Record();
        for (int i = 0; i < 40; i++) more.Section(5000);
        for (int i = 0; i < 150; i++) more.Main(3000);  // spills into overflow sections
        return more.m_written;
    };
    std::vector<Written> first = build(1);
    LPBYTE lpArena = bson.m_lpBsonMetaBuf;
    const UINT nArenaPos = bson.m_nBsonMetaPos;
    ASSERT_GT(bson.m_nBsonSectionNum, 4u);

    ASSERT_EQ(0, bson.ResetOriginState());
    EXPECT_EQ(origin, StreamOf(bson)) << "the plan is what it was";
    ExpectAllLive(bson, base.m_written);
    std::vector<Written> second = build(2);
    ASSERT_EQ(first.size(), second.size());
    for (size_t i = 0; i < first.size(); i++) ASSERT_EQ(first[i].nAddr, second[i].nAddr) << i;
    EXPECT_TRUE(lpArena == bson.m_lpBsonMetaBuf && nArenaPos == bson.m_nBsonMetaPos) << "overflow blocks reused";
    ExpectAllLive(bson, second);
    ExpectAllLive(bson, base.m_written);
}

CONDITIONITEM ConditionAt(CBaseBson& bson, UINT nAddr) {
    CONDITIONITEM st = {};
    LPBYTE p = bson.GetAddrFromAddrID(nAddr, sizeof(CONDITIONITEM));
    EXPECT_NE(nullptr, p) << std::hex << nAddr;
    return p != nullptr ? *reinterpret_cast<CONDITIONITEM*>(p) : st;
}

// The item's bytes as the engine reads them.
void ExpectCondition(const CONDITIONITEM& st, BYTE b0, BYTE b1, BYTE b3, UINT nLeft, UINT nRight) {
    CONDITIONITEM w = {};
    w.m_bFirst = b0, w.m_bSecond = b1, w.m_bLogicOperator = b3, w.m_nLeftOffset = nLeft, w.m_nRightOffset = nRight;
    EXPECT_EQ(0, memcmp(&w, &st, sizeof(st))) << (int)b0 << " " << (int)b1 << " " << nLeft << " " << nRight;
}

TEST(PlanConditions, ChainFillsTheOpenRootThenStacksNewRoots) {
    CBaseBson bson;
    UINT nRoot = 0;
    ASSERT_EQ(0, AddCondition(&bson, 9, 0, 1, nRoot));
    EXPECT_EQ(0u, nRoot) << "no condition, nothing made";

    ASSERT_EQ(0, AddCondition(&bson, 5, 100, 7, nRoot));
    ASSERT_NE(0u, nRoot) << "0 would read as no root";
    const UINT nFirst = nRoot;
    ExpectCondition(ConditionAt(bson, nFirst), 5, BSON_CONDITION_OPEN, 0, 100, 0);

    ASSERT_EQ(0, AddCondition(&bson, 6, 200, 1, nRoot));
    EXPECT_EQ(nFirst, nRoot) << "the open root is filled in place";
    ExpectCondition(ConditionAt(bson, nFirst), 5, 6, 1, 100, 200);

    ASSERT_EQ(0, AddCondition(&bson, 7, 300, 2, nRoot));
    ASSERT_NE(nFirst, nRoot);
    ExpectCondition(ConditionAt(bson, nRoot), BSON_CONDITION_JOIN, 7, 2, nFirst, 300);
    ExpectCondition(ConditionAt(bson, nFirst), 5, 6, 1, 100, 200);

    UINT nBad = bson.m_nBsonDataSize + 4;
    EXPECT_EQ(BSON_DAMAGED_PLAN, AddCondition(&bson, 8, 400, 3, nBad)) << "a root past the plan's data";
}

// A row value of four members: text in the plan, a number, text whose end
// lies one byte past the plan's data, text far outside.
TEST(PlanRowValue, TextOffsetsResolveInsideThePlanAndNowhereElse) {
    CBaseBson bson;
    ASSERT_EQ(0, bson.AllocBsonBuffer(nullptr, 1000));
    ASSERT_TRUE(bson.AppendBuffer("headhello world", 15));
    const UINT nData = bson.m_nBsonDataSize;

    std::vector<BYTE> raw(4 + 4 * sizeof(st_VARDATA), 0);
    auto* pRow = reinterpret_cast<st_MULTIVARDATA*>(raw.data());
    pRow->m_bNum = 4;
    st_VARDATA* v = pRow->m_arrVarData;
    const int arText[4][3] = {{TALVOR_VT_TEXT, 4, 11}, {0}, {TALVOR_VT_VARTEXT, 10, (int)nData - 10 + 1},
                              {TALVOR_VT_BINARY, 0x7FFFFFF0, 0x20}};
    for (int i = 0; i < 4; i++) {
        v[i].Init();
        v[i].m_vt = (BYTE)arText[i][0], v[i].m_nStringDataOffset = arText[i][1], v[i].m_nStrLen = arText[i][2];
    }
    v[1].SetData(42);

    EXPECT_EQ(BSON_DAMAGED_PLAN, pRow->GetMultiStringData(&bson));
    ASSERT_EQ(TALVOR_VT_TEXT, Val(v[0].m_vt));
    EXPECT_EQ(reinterpret_cast<char*>(bson.m_lpBuffer + 4), Val(v[0].m_lpszValue));
    EXPECT_EQ(0, memcmp(Val(v[0].m_lpszValue), "hello world", 11));
    EXPECT_EQ(42, Val(v[1].m_nValue));
    EXPECT_TRUE(v[2].m_vt == TALVOR_VT_NULL && v[3].m_vt == TALVOR_VT_NULL) << "one byte past the data, and far";
}

// Each field as Python's struct module lays it out, little-endian.
TEST(PlanFieldData, FieldsEncodeAsStructPacksThem) {
    const std::string strScript =
        "import struct,sys\n"
        "for line in sys.stdin:\n"
        "    t, f, v = line.split()\n"
        "    t = int(t); f = int(f)\n"
        "    fmt = {1: '<Bi', 2: '<Bq', 3: '<Bd', 4: '<Bd', 80: '<BB', 81: '<Bh'}.get(t)\n"
        "    if fmt: out = struct.pack(fmt, f, float(v) if t in (3, 4) else int(v))\n"
        "    else: b = bytes.fromhex(v) if v != '-' else b''; out = struct.pack('<Bi', f, len(b)) + b\n"
        "    print(out.hex())\n";
    struct Case { BYTE bType, bField; std::string strValue; };
    const std::vector<Case> cases = {{1, 3, "-123456789"}, {2, 250, "-9000000000000000001"}, {3, 7, "0.1"}, {80, 1, "200"},                     {81, 2, "-31000"},
                                     {5, 4, "616263"},     {8, 9, "00ff00"},                   {7, 5, "-"}};
    std::vector<std::string> lines;
    for (const Case& c : cases) lines.push_back(std::to_string(c.bType) + " " + std::to_string(c.bField) + " " + c.strValue);
    std::vector<std::string> expected = talvortest::RunPythonReference(strScript, lines);
    ASSERT_EQ(cases.size(), expected.size());
    CBaseBson bson;
    for (size_t i = 0; i < cases.size(); i++) {
        const Case& c = cases[i];
        st_VARDATA v;
        v.Init();
        std::vector<BYTE> text;
        if (c.bType == 1) v.SetData((int)std::stol(c.strValue));
        if (c.bType == 2) v.SetData((long long)std::stoll(c.strValue));
        if (c.bType == 3) v.SetData(std::stod(c.strValue));
        if (c.bType >= 80) v.m_vt = c.bType, v.m_nValue = std::stoi(c.strValue);
        for (size_t k = 0; c.bType >= 5 && c.bType <= 8 && c.strValue != "-" && k < c.strValue.size(); k += 2)
            text.push_back((BYTE)std::stoi(c.strValue.substr(k, 2), nullptr, 16));
        if (c.bType >= 5 && c.bType <= 8)
            v.AttachString(reinterpret_cast<char*>(text.data()), (int)text.size(), c.bType == 8 ? 6 : c.bType);
        const UINT nBefore = bson.m_nBsonDataSize;
        const int nWrote = bson.WriteFieldData(c.bType, c.bField, v, nullptr);
        ASSERT_EQ((int)expected[i].size() / 2, nWrote) << i;
        EXPECT_EQ(expected[i], talvortest::HexOf(std::string((const char*)bson.m_lpBuffer + nBefore, nWrote))) << (int)c.bType;
    }
}

}  // namespace
