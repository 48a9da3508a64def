// The plan buffer: values laid out in the main buffer, in buffer sections
// and in overflow sections must all read back by their address id after the
// buffer has grown and the section tables have moved, and again from the
// byte stream copied to another address; items that spill into a further
// section are marked on both sides; a stream whose offsets point past its
// bytes is refused; a reset plan builds again without new memory.
//
// Every value written carries bytes of its own from a seeded generator, and
// all of them are checked at the end, so a block handed out twice or moved
// without its contents shows even where the counters agree.
#include "BaseBson.h"
#include "PackedValue.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

using talvortest::Val;

namespace {

struct Written {
    UINT nAddr;
    std::vector<BYTE> bytes;
    int nFlagAt = -1;  // the buffer's own byte in an item: may change later
};

bool SameBytes(const BYTE* p, const Written& w)
{
    for (size_t i = 0; i < w.bytes.size(); i++)
        if ((int)i != w.nFlagAt && p[i] != w.bytes[i]) return false;
    return true;
}

// Builds a plan: a head, then values of random sizes in every area the
// plan has, growing the main buffer between rounds.
class PlanBuilder {
public:
    explicit PlanBuilder(CBaseBson& bson, unsigned nSeed) : m_bson(bson), m_rng(nSeed) {}

    std::vector<BYTE> Bytes(size_t n)
    {
        std::vector<BYTE> v(n);
        for (auto& b : v) b = (BYTE)m_rng();
        return v;
    }

    void Head()
    {
        volatile UINT nAddr = 1;
        LPBYTE p = nullptr;
        ASSERT_EQ(0, m_bson.AllocFromBsonBuffer(sizeof(EXECUTEPLANBSON), nAddr, p));
        ASSERT_EQ(0u, nAddr);
    }

    void Main(size_t n)
    {
        volatile UINT nAddr = 0;
        LPBYTE p = nullptr;
        ASSERT_EQ(0, m_bson.AllocFromBsonBuffer((UINT)n, nAddr, p));
        Keep(nAddr, p, n);
    }

    void Section(size_t n)
    {
        UINT nAddr = 0;
        LPBYTE p = nullptr;
        ASSERT_EQ(0, m_bson.AllocFromBufferSection((UINT)n, nAddr, p));
        ASSERT_NE(0u, nAddr >> 16);
        Keep(nAddr, p, n);
    }

    void Record()
    {
        LPRECORDHEAD p = nullptr;
        UINT nAddr = 0;
        ASSERT_EQ(0, m_bson.AllocRecord(p, nAddr));
        // The flag byte belongs to the buffer; the rest is the test's.
        std::vector<BYTE> v = Bytes(sizeof(RECORDHEAD));
        v[2] = p->m_bFlag;
        v[16] = v[17] = v[18] = v[19] = 0;
        v[28] = v[29] = v[30] = v[31] = 0;
        memcpy(p, v.data(), v.size());
        m_written.push_back({nAddr, v, 2});
    }

    void Step()
    {
        LPEXECUTESTEP p = nullptr;
        UINT nAddr = 0;
        ASSERT_EQ(0, m_bson.AllocStep(p, nAddr));
        std::vector<BYTE> v = Bytes(sizeof(EXECUTESTEP));
        v[1] = p->m_bFlag;
        memset(v.data() + 4, 0, 8);  // ids, which the stream check follows
        memcpy(p, v.data(), v.size());
        m_written.push_back({nAddr, v, 1});
    }

    void Keep(UINT nAddr, LPBYTE p, size_t n)
    {
        std::vector<BYTE> v = Bytes(n);
        for (size_t i = 0; i < n; i++) ASSERT_EQ(0, p[i]) << "not zeroed at " << i;
        memcpy(p, v.data(), n);
        m_written.push_back({nAddr, v});
    }

    // Rounds of values in every area, the main buffer grown between them.
    void Build(int nRounds)
    {
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

void ExpectAllLive(CBaseBson& bson, const std::vector<Written>& written)
{
    for (const Written& w : written) {
        LPBYTE p = bson.GetAddrFromAddrID(w.nAddr, (UINT)w.bytes.size());
        ASSERT_NE(nullptr, p) << std::hex << w.nAddr;
        ASSERT_TRUE(SameBytes(p, w)) << std::hex << w.nAddr;
    }
}

std::vector<BYTE> StreamOf(CBaseBson& bson)
{
    std::vector<BYTE> v(bson.GetExecutePlanDataSize() + 64);
    UINT n = bson.CopyExecutePlan(v.data(), (UINT)v.size());
    EXPECT_EQ(bson.GetExecutePlanDataSize(), n) << "the counted size is the stream's";
    v.resize(n);
    return v;
}

TEST(PlanBufferLayout, ValuesInEveryAreaSurviveGrowthAndACopyOfTheStream)
{
    CBaseBson bson;
    PlanBuilder builder(bson, 7);
    builder.Build(6);
    ASSERT_GT(bson.m_nBufferSectionNum, BSON_INLINE_SECTIONS) << "the section table has moved to the arena";
    ExpectAllLive(bson, builder.m_written);

    std::vector<BYTE> stream = StreamOf(bson);
    // Elsewhere, with nothing of the plan object behind it.
    std::vector<BYTE> moved(stream.size() + 3);
    memcpy(moved.data() + 3, stream.data(), stream.size());
    bson.Free();
    CPlanStreamView view;
    ASSERT_EQ(0, view.Attach(moved.data() + 3, (UINT)stream.size()));
    for (const Written& w : builder.m_written) {
        const BYTE* p = view.Resolve(w.nAddr, (UINT)w.bytes.size());
        ASSERT_NE(nullptr, p) << std::hex << w.nAddr;
        ASSERT_TRUE(SameBytes(p, w)) << std::hex << w.nAddr;
    }
}

TEST(PlanBufferLayout, MainBufferSizesAndEmptyRequests)
{
    CBaseBson bson;
    volatile UINT nAddr = 77;
    LPBYTE p = nullptr;
    EXPECT_EQ(0, bson.AllocFromBsonBuffer(0, nAddr, p));
    EXPECT_EQ(0u, nAddr);
    EXPECT_EQ(nullptr, bson.m_lpBuffer) << "a request of nothing takes no buffer";
    EXPECT_EQ(nullptr, bson.ConvertOffset2Addr(0));

    ASSERT_EQ(0, bson.AllocFromBsonBuffer(65424, nAddr, p));
    EXPECT_EQ(0x20000u - BSON_FRONT_ROOM, bson.m_nBsonBufferSize);
    EXPECT_EQ(bson.m_lpBuf + BSON_FRONT_ROOM, bson.m_lpBuffer);
    EXPECT_EQ(nullptr, bson.ConvertOffset2Addr(0));
    EXPECT_EQ(bson.m_lpBuffer + 5, bson.ConvertOffset2Addr(5));
    EXPECT_EQ(nullptr, bson.ConvertOffset2Addr(bson.m_nBsonBufferSize)) << "past the buffer";

    // Extending a block in the middle keeps the blocks behind it.
    LPBYTE pFirst = p;
    LPBYTE pSecond = nullptr;
    ASSERT_EQ(0, bson.AllocFromBsonBuffer(8, nAddr, pSecond));
    memset(pSecond, 0xAB, 8);
    UINT nData = bson.m_nBsonDataSize;
    ASSERT_EQ(0, bson.AllocFromBsonBuffer(16, nAddr, pFirst));
    EXPECT_EQ(nData, bson.m_nBsonDataSize);
    EXPECT_EQ(0xAB, pSecond[7]);
    LPBYTE pPast = bson.m_lpBuffer + bson.m_nBsonBufferSize - 4;
    EXPECT_EQ(BSON_PAST_END, bson.AllocFromBsonBuffer(8, nAddr, pPast));
    BYTE arOutside[8];
    LPBYTE pOutside = arOutside;
    EXPECT_EQ(BSON_PAST_END, bson.AllocFromBsonBuffer(8, nAddr, pOutside));
}

TEST(PlanBufferLayout, AlignedBlocksAndScratchMemoryKeepTheirBoundaries)
{
    CBaseBson bson;
    ASSERT_EQ(0, bson.AllocBsonBuffer(nullptr, 100));
    volatile UINT nAddr = 0;
    LPBYTE p = nullptr;
    ASSERT_EQ(0, bson.AllocFromBsonBuffer(5, nAddr, p));
    UINT nEx = 0;
    LPBYTE pEx = nullptr;
    ASSERT_EQ(0, bson.AllocFromBsonBufferEx(6, nEx, pEx));
    EXPECT_EQ(8u, nEx);
    EXPECT_EQ(bson.m_lpBuffer + 8, pEx);
    EXPECT_EQ(14u, bson.m_nBsonDataSize);
    EXPECT_EQ(14u, bson.GetExecutePlanDataSize());

    LPBYTE pA = nullptr, pB = nullptr;
    ASSERT_EQ(0, bson.AllocFromBufferPool(5, pA, TRUE));
    ASSERT_EQ(0, bson.AllocFromBufferPool(5, pB, TRUE));
    EXPECT_EQ(pA + 8, pB) << "the temporary buffer moves on by whole words";
    EXPECT_EQ(bson.m_lpTempBuffer, pA);
}

// A buffer the plan was given is the caller's: growth copies it and leaves
// it alone, and neither Free nor the destructor gives it back (ASan would
// see a free of memory that the pool never handed out).
TEST(PlanBufferLayout, AForeignBufferIsCopiedOnGrowthAndNeverGivenBack)
{
    std::vector<BYTE> mine(1000, 0x5A);
    {
        CBaseBson bson;
        ASSERT_EQ(0, bson.SetBuffer(mine.data(), 1000, 100));
        EXPECT_EQ(BSON_BUFFER_FOREIGN, bson.m_nAutoRelease);
        EXPECT_EQ(BSON_BAD_PARAMETER, bson.SetBuffer(mine.data(), 100, 101));
        ASSERT_EQ(0, bson.ReAllocBsonBuffer(5000));
        EXPECT_EQ(BSON_BUFFER_OWNED, bson.m_nAutoRelease);
        EXPECT_EQ(0x5A, bson.m_lpBuffer[999]);
        EXPECT_EQ(100u, bson.m_nBsonDataSize);
        memset(bson.m_lpBuffer, 0, 1000);
        EXPECT_EQ(0x5A, mine[0]) << "the old buffer is not written";
        ASSERT_EQ(0, bson.SetBuffer(mine.data(), 1000, 0));
    }
    EXPECT_EQ(0x5A, mine[500]);
}

TEST(PlanBufferLayout, FullMainBufferRefusesOrOverflowsWithTheTopBit)
{
    CBaseBson bson;
    ASSERT_EQ(0, bson.AllocBsonBuffer(nullptr, 1000));
    UINT nRoom = bson.m_nBsonBufferSize;
    volatile UINT nAddr = 0;
    LPBYTE p = nullptr;
    ASSERT_EQ(0, bson.AllocFromBsonBuffer(nRoom - 10, nAddr, p));
    UINT nData = bson.m_nBsonDataSize, nPlan = bson.m_nExecutePlanDataSize, nFree = bson.m_nFreeBufferSize;
    p = nullptr;
    EXPECT_EQ(BSON_NO_MEMORY, bson.AllocFromBsonBuffer(11, nAddr, p));
    EXPECT_EQ(nData, bson.m_nBsonDataSize);
    EXPECT_EQ(nPlan, bson.m_nExecutePlanDataSize);
    EXPECT_EQ(nFree, bson.m_nFreeBufferSize);
    BYTE arEleven[11] = {};
    EXPECT_FALSE(bson.AppendBuffer(arEleven, 11)) << "an append that doesn't fit writes nothing";
    EXPECT_EQ(nData, bson.m_nBsonDataSize);

    bson.m_bAllowBsonSection = TRUE;
    std::mt19937 rng(3);
    std::vector<Written> written;
    UINT nLastSection = 0;
    for (int i = 0; i < 200; i++) {
        size_t n = i == 100 ? 0x30000 : 1 + rng() % 9000;  // one larger than a section
        p = nullptr;
        ASSERT_EQ(0, bson.AllocFromBsonBuffer((UINT)n, nAddr, p));
        UINT nSection = nAddr >> 16;
        ASSERT_TRUE(nSection & BSON_OVERFLOW_SECTION) << std::hex << nAddr;
        ASSERT_GE(nSection, nLastSection);
        nLastSection = nSection;
        std::vector<BYTE> v(n);
        for (auto& b : v) b = (BYTE)rng();
        memcpy(p, v.data(), n);
        written.push_back({nAddr, v});
    }
    EXPECT_GT(bson.m_nBsonSectionArrayCount, BSON_OVERFLOW_FIRST_ARRAY) << "the overflow array doubled";
    EXPECT_EQ(nData, bson.m_nBsonDataSize) << "overflow leaves the main buffer alone";
    ExpectAllLive(bson, written);
}

// A main buffer larger than an id's 16 bits of offset goes on in overflow
// sections, so that no two blocks share an id.
TEST(PlanBufferLayout, IdsStayDistinctPastSixtyFourKilobytesOfMainBuffer)
{
    CBaseBson bson;
    ASSERT_EQ(0, bson.AllocBsonBuffer(nullptr, 0x100000));
    bson.m_bAllowBsonSection = TRUE;
    PlanBuilder builder(bson, 11);
    for (int i = 0; i < 300; i++) builder.Main(1000);
    ASSERT_LT(bson.m_nBsonDataSize, 0x10000u + 1000);
    std::vector<UINT> ids;
    for (const Written& w : builder.m_written) ids.push_back(w.nAddr);
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(ids.end(), std::adjacent_find(ids.begin(), ids.end()));
    ExpectAllLive(bson, builder.m_written);
}

TEST(PlanBufferItems, ItemsThatSpillMarkBothSidesAndChainTheSections)
{
    CBaseBson bson;
    const UINT nRecordsFit = (BSON_DEFAULT_SECTION_SIZE - 16) / sizeof(RECORDHEAD);
    std::vector<LPRECORDHEAD> records;
    std::vector<UINT> addrs;
    for (UINT i = 0; i <= nRecordsFit; i++) {
        LPRECORDHEAD p = nullptr;
        UINT nAddr = 0;
        ASSERT_EQ(0, bson.AllocRecord(p, nAddr));
        records.push_back(p);
        addrs.push_back(nAddr);
    }
    EXPECT_EQ((1u << 16) | 16u, addrs[0]);
    EXPECT_EQ(BSON_ITEM_CONTINUED, Val(records[nRecordsFit - 1]->m_bFlag));
    EXPECT_EQ(0, Val(records[nRecordsFit]->m_bFlag));
    EXPECT_EQ((2u << 16) | 16u, addrs[nRecordsFit]);
    auto* pFirst = reinterpret_cast<LPBUFFERSECTIONHEAD>(bson.m_lpBufferSectionArray[0]);
    auto* pSecond = reinterpret_cast<LPBUFFERSECTIONHEAD>(bson.m_lpBufferSectionArray[1]);
    EXPECT_EQ(16u + nRecordsFit * 48, Val(pFirst->m_nSectionDataSize));
    EXPECT_EQ(2, Val(reinterpret_cast<RECORDSECTIONHEAD*>(pFirst + 1)->m_sNextSectionNo));
    EXPECT_EQ(1, Val(reinterpret_cast<RECORDSECTIONHEAD*>(pSecond + 1)->m_sPreSectionNo));

    const UINT nStepsFit = (BSON_DEFAULT_SECTION_SIZE - 16) / sizeof(EXECUTESTEP);
    LPEXECUTESTEP pLastOld = nullptr, pStep = nullptr;
    UINT nAddr = 0;
    for (UINT i = 0; i <= nStepsFit; i++) {
        pLastOld = pStep;
        ASSERT_EQ(0, bson.AllocStep(pStep, nAddr));
    }
    EXPECT_EQ(BSON_ITEM_CONTINUED, Val(pLastOld->m_bFlag));
    EXPECT_EQ(BSON_ITEM_CONTINUES, Val(pStep->m_bFlag));
    EXPECT_EQ((4u << 16) | 16u, nAddr) << "sections are numbered in the order they open, any kind";

    const UINT nInfosFit = (BSON_DEFAULT_SECTION_SIZE - 12) / sizeof(BLOCKINFO);
    LPBLOCKINFO pOld = nullptr, pInfo = nullptr;
    for (UINT i = 0; i <= nInfosFit; i++) {
        pOld = pInfo;
        ASSERT_EQ(0, bson.AllocBlockInfo(pInfo, nAddr));
    }
    EXPECT_EQ(BSON_ITEM_CONTINUED, Val(pOld->m_bFlag));
    EXPECT_EQ(BSON_ITEM_CONTINUES, Val(pInfo->m_bFlag));
    EXPECT_TRUE(bson.m_bChangeSection);
    EXPECT_EQ(6u, bson.m_nBufferSectionNum);
}

// The stream of a real plan, and one field of it at a time moved out of
// reach: each must be refused, and nothing resolves in a refused view.
TEST(PlanBufferStream, OffsetsPastTheBytesAreRefused)
{
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
    size_t nLastHead = nTotal;
    {
        // The last section's head, found by walking the links.
        UINT nOff = nMain;
        for (UINT i = 0; i + 1 < nSections; i++) memcpy(&nOff, good.data() + nOff + 8, 4);
        nLastHead = nOff;
    }
    struct Forged {
        size_t nOffset;
        UINT nValue;
        const char* lpWhat;
    };
    const Forged arForged[] = {
        {0, nTotal + 1, "total past the bytes"},
        {24, nTotal + 1, "main data past the total"},
        {36, nMain + 12, "first section not behind the main data"},
        {nMain + 8, nTotal + 100, "next section past the end"},
        {nMain + 8, nMain, "a section that links back to itself"},
        {nLastHead + 4, nTotal - (UINT)nLastHead + 1, "last section longer than the stream"},
        {84, nMain, "command offset past the main data"},
        {80, (UINT)(nSections + 1) << 16 | 16, "next plan in a section that isn't there"}};
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

    // The record's id, in whichever section it fell.
    size_t nRecordAt = 0;
    {
        UINT nOff = nMain;
        for (UINT i = 1; i < (nRecord >> 16); i++) memcpy(&nOff, good.data() + nOff + 8, 4);
        nRecordAt = nOff + (nRecord & 0xFFFF);
    }
    const Forged arRecord[] = {
        {nRecordAt + 16, (UINT)(nSections + 5) << 16, "record data in a section that isn't there"},
        {nRecordAt + 16, nMain + 1, "record data past the main data"},
        {nRecordAt + 16, 0x80010010u, "record data in an overflow section, which never travels"}};
    for (const Forged& f : arRecord) {
        v = good;
        at(v, f.nOffset, f.nValue);
        refused(v, f.lpWhat);
    }
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

TEST(PlanBufferReset, ABuildAfterResetGivesTheSameIdsWithoutNewMemory)
{
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
    UINT nArenaPos = bson.m_nBsonMetaPos;
    UINT nOverflow = bson.m_nBsonSectionNum;
    ASSERT_GT(nOverflow, 4u);

    ASSERT_EQ(0, bson.ResetOriginState());
    EXPECT_EQ(origin, StreamOf(bson)) << "the plan is what it was";
    ExpectAllLive(bson, base.m_written);
    std::vector<Written> second = build(2);
    ASSERT_EQ(first.size(), second.size());
    for (size_t i = 0; i < first.size(); i++) ASSERT_EQ(first[i].nAddr, second[i].nAddr) << i;
    EXPECT_EQ(lpArena, bson.m_lpBsonMetaBuf) << "overflow blocks and arrays were reused";
    EXPECT_EQ(nArenaPos, bson.m_nBsonMetaPos);
    ExpectAllLive(bson, second);
    ExpectAllLive(bson, base.m_written);

    bson.Free();
    EXPECT_EQ(bson.m_lpBsonMetaSpace, bson.m_lpBsonMetaBuf);
    EXPECT_EQ(BSON_META_LINK, bson.m_nBsonMetaPos);
    EXPECT_EQ(0u, bson.m_nBufferSectionNum);
    EXPECT_EQ(BSON_BAD_PARAMETER, bson.ResetOriginState()) << "Free forgets the state";
}

}  // namespace
