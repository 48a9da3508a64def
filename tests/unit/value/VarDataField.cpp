// Field buffers of typed values: their sizes by type, reading each type back
// from an unaligned buffer, text borrowed from the buffer and binary copied,
// and a buffer from outside whose lengths pass its end refused.

#include "PackedValue.h"
#include "TalvorVarDataOps.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using talvortest::Val;

namespace {

TEST(VarDataField, SizesByType) {
    struct Row { BYTE m_bType, m_bCharLen; int m_nLen, m_nExpected; };
    const Row arRows[] = {
        {10, 0, 0, 0}, {1, 0, 0, 5}, {2, 0, 0, 9}, {80, 0, 0, 2}, {81, 0, 0, 3}, {247, 0, 0, 3}, {5, 0, 0, 2},
        {6, 0, 249, 251}, {7, 0, 250, 256}, {8, 0, 100000, 100006}, {30, 0, 300, 301}, {240, 255, 0, 19},
        {240, 9, 0, 7}, {240, 10, 0, 11}, {240, 18, 0, 11}, {240, 19, 0, 15}, {240, 36, 0, 19},
    };
    for (const Row& r : arRows) {
        int n = -1;
        EXPECT_EQ(GetFieldBufferLen(r.m_bType, r.m_bCharLen, r.m_nLen, n), 0) << (int)r.m_bType;
        EXPECT_EQ(n, r.m_nExpected) << (int)r.m_bType << " " << (int)r.m_bCharLen << " " << r.m_nLen;
    }
    // Types without a size, a negative length, and one whose size would wrap.
    for (auto [bType, nLen] : {std::pair<BYTE, int>{0, 0}, {9, 0}, {49, 0}, {127, 0}, {6, -1}, {6, 0x7FFFFFFD}}) {
        int n = 77;
        EXPECT_EQ(GetFieldBufferLen(bType, 0, nLen, n), TALVOR_VARDATA_BAD_TYPE) << (int)bType << " " << nLen;
        EXPECT_EQ(n, 77);
    }
}

// A field buffer at an odd address, as fields lie in a record.
struct Field {
    std::vector<BYTE> m_v;
    const BYTE* Data() const { return m_v.data() + 1; }
    int Len() const { return (int)m_v.size() - 1; }
};

template <class T>
Field NumberField(T x) {
    Field f;
    f.m_v.assign(2 + sizeof(T), 0);
    memcpy(f.m_v.data() + 2, &x, sizeof(T));
    return f;
}

Field TextField(const std::string& s) {
    Field f;
    f.m_v.assign(2, 0);
    if (s.size() > TALVOR_FIELD_SHORT_TEXT) {
        int n = (int)s.size();
        f.m_v.push_back(TALVOR_FIELD_LONG_TEXT);
        f.m_v.insert(f.m_v.end(), (const BYTE*)&n, (const BYTE*)&n + sizeof(n));
    } else f.m_v.push_back((BYTE)s.size());
    f.m_v.insert(f.m_v.end(), s.begin(), s.end());
    return f;
}

// Reads a number field of bType holding x into v, whose member pm must then
// hold x; the result is the type v comes back as.
template <class T, class M>
BYTE ReadNumber(BYTE bType, T x, M st_VARDATA::*pm, st_VARDATA& v) {
    Field f = NumberField<T>(x);
    EXPECT_EQ(GetValueFromFieldBuffer(bType, f.Data(), f.Len(), v), 0) << (int)bType;
    const M want = x, got = v.*pm;
    EXPECT_EQ(0, memcmp(&want, &got, sizeof(M))) << (int)bType;
    return v.m_vt;
}

TEST(VarDataField, EachTypeReadsBack) {
    st_VARDATA v;
    v.Init();
    ASSERT_EQ(v.SetData("owned before", 12), 0);  // given back by the first read, or the leak checker fails
    EXPECT_EQ(ReadNumber<int>(1, -123456789, &st_VARDATA::m_nValue, v), 1);
    EXPECT_EQ(ReadNumber<long long>(2, -1234567890123LL, &st_VARDATA::m_llValue, v), 2);
    EXPECT_EQ(ReadNumber<double>(3, -2.5e-300, &st_VARDATA::m_dblValue, v), 3);
    EXPECT_EQ(ReadNumber(11, TALVORTIME{5, 6, 7, -2}, &st_VARDATA::m_stTime, v), 11);
    EXPECT_EQ(ReadNumber<short>(81, -300, &st_VARDATA::m_nValue, v), 1);
    // Text is borrowed from the buffer, in both length forms; binary is
    // copied and owned (the leak checker sees it given back).
    for (const std::string& s : {std::string("short text"), std::string(300, 'L'), std::string()})
        for (BYTE bType : {(BYTE)5, (BYTE)6, (BYTE)7, (BYTE)8}) {
            Field t = TextField(s);
            ASSERT_EQ(GetValueFromFieldBuffer(bType, t.Data(), t.Len(), v), 0);
            EXPECT_EQ(Val(v.m_vt), bType == 8 ? TALVOR_VT_BINARY : TALVOR_VT_VARTEXT);
            if (bType != 8) {
                EXPECT_TRUE(v.m_lpszValue == (char*)t.Data() + (s.size() > 249 ? 6 : 2) && v.m_nStrLen == (int)s.size());
                v.Free();  // must not free the buffer
                continue;
            }
            int nLen = 0;
            const BYTE* p = v.GetBinaryData(nLen);
            memset(t.m_v.data(), 0, t.m_v.size());
            EXPECT_EQ(std::string((const char*)p, (size_t)nLen), s) << "a copy, not the buffer";
        }
    v.Free();
}

TEST(VarDataField, LengthsPastTheBufferAreRefused) {
    st_VARDATA v;
    v.Init();
    Field t = TextField(std::string(300, 'x'));
    // The 32-bit length claims more than the buffer holds.
    for (int nClaim : {100000, -4}) {
        memcpy(t.m_v.data() + 1 + 2, &nClaim, sizeof(nClaim));
        EXPECT_EQ(GetValueFromFieldBuffer(nClaim < 0 ? 6 : 8, t.Data(), t.Len(), v), TALVOR_VARDATA_BAD_TYPE) << nClaim;
        EXPECT_EQ(Val(v.m_vt), TALVOR_VT_NULL);
    }
    // One byte short of the text, of the long head, of a number.
    Field s = TextField("abc");
    EXPECT_EQ(GetValueFromFieldBuffer(6, s.Data(), s.Len() - 1, v), TALVOR_VARDATA_BAD_TYPE);
    EXPECT_EQ(GetValueFromFieldBuffer(6, s.Data(), s.Len(), v), 0);
    EXPECT_EQ(GetValueFromFieldBuffer(6, t.Data(), 5, v), TALVOR_VARDATA_BAD_TYPE);
    Field n = NumberField<long long>(1);
    EXPECT_EQ(GetValueFromFieldBuffer(2, n.Data(), n.Len() - 1, v), TALVOR_VARDATA_BAD_TYPE);
    EXPECT_EQ(GetValueFromFieldBuffer(2, nullptr, 9, v), TALVOR_VARDATA_BAD_TYPE);
    EXPECT_EQ(GetValueFromFieldBuffer(2, n.Data(), n.Len(), v), 0);
    EXPECT_EQ(Val(v.m_llValue), 1);
}

} // namespace
