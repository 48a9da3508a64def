// What the rest of the library keeps in a plan buffer: chains of conditions,
// texts of a row value named by offset, field values encoded into the main
// buffer (against Python's struct), and the pages of the buffer pools that
// a plan lends. AddressSanitizer sees a page given back twice or never.
#include "BaseBson.h"
#include "PackedValue.h"
#include "PythonReference.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

using talvortest::Val;

namespace {

CONDITIONITEM ConditionAt(CBaseBson& bson, UINT nAddr)
{
    CONDITIONITEM st = {};
    LPBYTE p = bson.GetAddrFromAddrID(nAddr, sizeof(CONDITIONITEM));
    EXPECT_NE(nullptr, p) << std::hex << nAddr;
    if (p != nullptr) memcpy(&st, p, sizeof(st));
    return st;
}

void ExpectCondition(const CONDITIONITEM& st, BYTE b0, BYTE b1, BYTE b3, UINT nLeft, UINT nRight)
{
    EXPECT_EQ(b0, Val(st.m_bFirst));
    EXPECT_EQ(b1, Val(st.m_bSecond));
    EXPECT_EQ(0, Val(st.m_bReserved));
    EXPECT_EQ(b3, Val(st.m_bLogicOperator));
    EXPECT_EQ(nLeft, Val(st.m_nLeftOffset));
    EXPECT_EQ(nRight, Val(st.m_nRightOffset));
}

TEST(PlanConditions, ChainFillsTheOpenRootThenStacksNewRoots)
{
    CBaseBson bson;
    UINT nRoot = 0;
    ASSERT_EQ(0, AddCondition(&bson, 9, 0, 1, nRoot));
    EXPECT_EQ(0u, nRoot) << "no condition, nothing made";
    EXPECT_EQ(nullptr, bson.m_lpBuffer);

    ASSERT_EQ(0, AddCondition(&bson, 5, 100, 7, nRoot));
    ASSERT_NE(0u, nRoot) << "0 would read as no root";
    EXPECT_EQ(0x20000u - BSON_FRONT_ROOM, bson.m_nBsonBufferSize) << "a buffer for 0x10000 bytes";
    const UINT nFirst = nRoot;
    ExpectCondition(ConditionAt(bson, nFirst), 5, BSON_CONDITION_OPEN, 0, 100, 0);

    ASSERT_EQ(0, AddCondition(&bson, 6, 200, 1, nRoot));
    EXPECT_EQ(nFirst, nRoot) << "the open root is filled in place";
    ExpectCondition(ConditionAt(bson, nFirst), 5, 6, 1, 100, 200);

    ASSERT_EQ(0, AddCondition(&bson, 7, 300, 2, nRoot));
    const UINT nSecond = nRoot;
    ASSERT_NE(nFirst, nSecond);
    ExpectCondition(ConditionAt(bson, nSecond), BSON_CONDITION_JOIN, 7, 2, nFirst, 300);
    ASSERT_EQ(0, AddCondition(&bson, 8, 400, 3, nRoot));
    ExpectCondition(ConditionAt(bson, nRoot), BSON_CONDITION_JOIN, 8, 3, nSecond, 400);
    ExpectCondition(ConditionAt(bson, nFirst), 5, 6, 1, 100, 200);

    UINT nBad = bson.m_nBsonDataSize + 4;
    EXPECT_EQ(BSON_DAMAGED_PLAN, AddCondition(&bson, 8, 400, 3, nBad)) << "a root past the plan's data";
    UINT nNone = 0;
    EXPECT_EQ(BSON_BAD_PARAMETER, AddCondition(nullptr, 8, 400, 3, nNone));
}

TEST(PlanConditions, AFullMainBufferChainsOnInAnOverflowSection)
{
    CBaseBson bson;
    ASSERT_EQ(0, bson.AllocBsonBuffer(nullptr, 100));
    volatile UINT nAddr = 0;
    LPBYTE p = nullptr;
    ASSERT_EQ(0, bson.AllocFromBsonBuffer(bson.m_nBsonBufferSize - 20, nAddr, p));
    UINT nRoot = 0;
    ASSERT_EQ(0, AddCondition(&bson, 5, 100, 0, nRoot));
    ASSERT_EQ(0, AddCondition(&bson, 6, 200, 1, nRoot));
    ASSERT_EQ(0, AddCondition(&bson, 7, 300, 2, nRoot));
    EXPECT_TRUE((nRoot >> 16) & BSON_OVERFLOW_SECTION) << std::hex << nRoot;
    EXPECT_FALSE(bson.m_bAllowBsonSection) << "the plan's own setting is left as it was";
    CONDITIONITEM st = ConditionAt(bson, nRoot);
    EXPECT_EQ(BSON_CONDITION_JOIN, Val(st.m_bFirst));
    ExpectCondition(ConditionAt(bson, Val(st.m_nLeftOffset)), 5, 6, 1, 100, 200);
}

// A row value of four members: text in the plan, a number, text whose end
// lies one byte past the plan's data, text far outside.
TEST(PlanRowValue, TextOffsetsResolveInsideThePlanAndNowhereElse)
{
    CBaseBson bson;
    ASSERT_EQ(0, bson.AllocBsonBuffer(nullptr, 1000));
    ASSERT_TRUE(bson.AppendBuffer("headhello world", 15));
    const UINT nData = bson.m_nBsonDataSize;

    std::vector<BYTE> raw(4 + 4 * sizeof(st_VARDATA), 0);
    auto* pRow = reinterpret_cast<st_MULTIVARDATA*>(raw.data());
    pRow->m_bNum = 4;
    st_VARDATA* v = pRow->m_arrVarData;
    v[0].Init();
    v[0].m_vt = TALVOR_VT_TEXT;
    v[0].m_nStringDataOffset = 4;
    v[0].m_nStrLen = 11;
    v[1].Init();
    v[1].SetData(42);
    v[2].Init();
    v[2].m_vt = TALVOR_VT_VARTEXT;
    v[2].m_nStringDataOffset = 10;
    v[2].m_nStrLen = (int)nData - 10 + 1;
    v[3].Init();
    v[3].m_vt = TALVOR_VT_BINARY;
    v[3].m_nStringDataOffset = 0x7FFFFFF0;
    v[3].m_nStrLen = 0x20;

    EXPECT_EQ(BSON_DAMAGED_PLAN, pRow->GetMultiStringData(&bson));
    ASSERT_EQ(TALVOR_VT_TEXT, Val(v[0].m_vt));
    EXPECT_EQ(reinterpret_cast<char*>(bson.m_lpBuffer + 4), Val(v[0].m_lpszValue));
    EXPECT_EQ(0, memcmp(Val(v[0].m_lpszValue), "hello world", 11));
    EXPECT_EQ(42, Val(v[1].m_nValue));
    EXPECT_EQ(TALVOR_VT_NULL, Val(v[2].m_vt)) << "one byte past the data";
    EXPECT_EQ(TALVOR_VT_NULL, Val(v[3].m_vt));
    EXPECT_EQ(BSON_BAD_PARAMETER, pRow->GetMultiStringData(nullptr));
}

// Each field as Python's struct module lays it out, little-endian.
TEST(PlanFieldData, FieldsEncodeAsStructPacksThem)
{
    const std::string strScript =
        "import struct,sys\n"
        "for line in sys.stdin:\n"
        "    t, f, v = line.split()\n"
        "    t = int(t); f = int(f)\n"
        "    fmt = {1: '<Bi', 2: '<Bq', 3: '<Bd', 4: '<Bd', 80: '<BB', 81: '<Bh'}.get(t)\n"
        "    if fmt: out = struct.pack(fmt, f, float(v) if t in (3, 4) else int(v))\n"
        "    else: b = bytes.fromhex(v) if v != '-' else b''; out = struct.pack('<Bi', f, len(b)) + b\n"
        "    print(out.hex())\n";
    struct Case {
        BYTE bType;
        BYTE bField;
        std::string strValue;
    };
    const std::vector<Case> cases = {{1, 3, "-123456789"}, {2, 250, "-9000000000000000001"}, {3, 7, "0.1"},
                                     {4, 8, "46000.75"},   {80, 1, "200"},                     {81, 2, "-31000"},
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
        if (c.bType == 4) v.SetDateTime(std::stod(c.strValue));
        if (c.bType == 80 || c.bType == 81) {
            v.m_vt = c.bType;
            v.m_nValue = std::stoi(c.strValue);
        }
        if (c.bType >= 5 && c.bType <= 8) {
            for (size_t k = 0; c.strValue != "-" && k < c.strValue.size(); k += 2)
                text.push_back((BYTE)std::stoi(c.strValue.substr(k, 2), nullptr, 16));
            v.AttachString(reinterpret_cast<char*>(text.data()), (int)text.size(), c.bType == 8 ? 6 : c.bType);
        }
        UINT nBefore = bson.m_nBsonDataSize;
        int nWrote = bson.WriteFieldData(c.bType, c.bField, v, nullptr);
        ASSERT_EQ((int)expected[i].size() / 2, nWrote) << i;
        std::string strGot;
        char sz[3];
        for (int k = 0; k < nWrote; k++) {
            snprintf(sz, sizeof(sz), "%02x", bson.m_lpBuffer[nBefore + k]);
            strGot += sz;
        }
        EXPECT_EQ(expected[i], strGot) << "type " << (int)c.bType;
    }
    st_VARDATA vNumber;
    vNumber.Init();
    vNumber.SetData(5);
    UINT nBefore = bson.m_nBsonDataSize;
    EXPECT_EQ(0, bson.WriteFieldData(0, 1, vNumber, nullptr));
    EXPECT_EQ(0, bson.WriteFieldData(12, 1, vNumber, nullptr));
    EXPECT_EQ(0, bson.WriteFieldData(5, 1, vNumber, nullptr)) << "a number has no text to write";
    EXPECT_EQ(nBefore, bson.m_nBsonDataSize);
}

// The pages of a plan's own pool, of a plan that borrows its memory, and of
// an outside pool bound to a plan all come from the lender and go back to
// it: a second round of the same work takes no new memory.
TEST(PlanPoolPages, PagesComeFromTheLenderAndGoBackToIt)
{
    CBaseBson lender;
    ASSERT_EQ(0, lender.AllocBsonBuffer(nullptr, 100));
    auto work = [](CBaseBson& bson) {
        std::vector<std::pair<LPBYTE, BYTE>> got;
        // Some 2 MiB, more than one chunk of the lender's memory pool.
        for (int i = 0; i < 1500; i++) {
            LPBYTE p = nullptr;
            ASSERT_EQ(0, bson.AllocFromBufferPool(1000 + i % 500, p, i % 2));
            memset(p, (BYTE)i, 1000 + i % 500);
            got.push_back({p, (BYTE)i});
        }
        for (size_t i = 0; i < got.size(); i++)
            for (int k = 0; k < 1000 + (int)(i % 500); k++) ASSERT_EQ(got[i].second, got[i].first[k]);
    };
    const long long nLenderStart = lender.m_stMemoryPool.GetTotalSize();
    work(lender);
    EXPECT_GT(lender.m_stMemoryPool.GetTotalSize(), nLenderStart) << "past the temporary buffer, pages";

    {
        CBaseBson borrower;
        ASSERT_EQ(0, borrower.AllocBsonBuffer(&lender, 100));
        EXPECT_EQ(BSON_TEMP_LENT, borrower.m_nTempBufferSize);
        work(borrower);
        EXPECT_EQ(0, borrower.m_stMemoryPool.GetTotalSize()) << "nothing of its own";
        EXPECT_EQ(BSON_BAD_PARAMETER, lender.AllocBsonBuffer(&borrower, 100)) << "lending in a circle";
        EXPECT_NE(nullptr, lender.m_lpBuffer) << "a refused call gives nothing back";
        borrower.Free();
        const long long nAfterOne = lender.m_stMemoryPool.GetTotalSize();
        ASSERT_EQ(0, borrower.AllocBsonBuffer(&lender, 100));
        work(borrower);
        EXPECT_EQ(nAfterOne, lender.m_stMemoryPool.GetTotalSize()) << "the first round's blocks came back";
    }

    CTalvorBufferPoolEx pool;
    pool.SetBson(&lender);
    const long long nBefore = lender.m_stMemoryPool.GetTotalSize();
    // More rounds than the blocks the borrower left could serve unreturned.
    for (int round = 0; round < 20; round++) {
        for (int i = 0; i < 300; i++) ASSERT_NE(nullptr, pool.AllocBufferEx(700));
        pool.Free();
    }
    EXPECT_EQ(nBefore, lender.m_stMemoryPool.GetTotalSize()) << "the outside pool's pages came back too";

    // A cookie the plan never gave means the block isn't its own.
    LPBYTE pBlock = nullptr;
    UINT nSize = 16384;
    void* pCookie = nullptr;
    ASSERT_EQ(0, lender.AllocMemoryBufferPool(pBlock, nSize, pCookie, FALSE));
    EXPECT_EQ(nullptr, pCookie);
    lender.FreeMemoryBufferPool(pBlock, reinterpret_cast<void*>(1));
    LPBYTE pOther = nullptr;
    ASSERT_EQ(0, lender.AllocMemoryBufferPool(pOther, nSize, pCookie, FALSE));
    EXPECT_NE(pBlock, pOther) << "the first block is still in use";
    lender.FreeMemoryBufferPool(pBlock, nullptr);
    LPBYTE pAgain = nullptr;
    ASSERT_EQ(0, lender.AllocMemoryBufferPool(pAgain, nSize, pCookie, FALSE));
    EXPECT_EQ(pBlock, pAgain);
}

}  // namespace
