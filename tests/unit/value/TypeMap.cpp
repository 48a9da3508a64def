// Type tables, checked against the rows written out by hand here rather than
// through the implementation's own tables.

#include "TalvorTypeMap.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

TEST(TypeMap, MysqlFieldTypeOfEveryByte) {
    const std::map<int, int> expected = {
        {1, 3},    {2, 8},   {3, 5},   {4, 12},  {5, 254}, {6, 253}, {7, 253},  {8, 252},
        {11, 11},  {12, 10}, {30, 253}, {80, 1}, {81, 2},  {240, 246}, {247, 247},
    };
    for (int b = 0; b < 256; ++b) {
        auto it = expected.find(b);
        EXPECT_EQ(GetMysqlFieldType((BYTE)b), it == expected.end() ? 253 : it->second) << b;
    }
}

namespace {

// The index kind the column table gives, or -1 for "doesn't fit".
int ExpectedKind(int nFile, int nField, int nUse) {
    const std::set<int> shortInts = {1, 11, 12, 80, 81};
    if (nFile == 3 || nFile == 11) {
        if (shortInts.count(nField)) return 11;
        if (nField == 2) return 12;
        if (nField == 3 || nField == 4) return 13;
        if (nField == 240) return 15;
        if (nField >= 5 && nField <= 7) return nUse == 2 ? 25 : nUse == 5 ? 18 : 28;
        return -1;
    }
    if (nFile == 4) {
        if (shortInts.count(nField)) return 1;
        if (nField == 2) return 2;
        if (nField == 5) return 4;
        return -1;
    }
    if (nFile == 5) {
        if (shortInts.count(nField) || nField == 2) return 5;
        if (nField == 5) return 6;
    }
    return -1;
}

int ExpectedRefusal(int nFile) {
    if (nFile == 3 || nFile == 11 || nFile == 4) return 318;
    if (nFile == 5 || nFile == 1 || nFile == 2 || nFile == 10) return 319;
    return 320;
}

}  // namespace

TEST(TypeMap, IndexKindForEveryFileFieldAndUse) {
    for (int nFile = 0; nFile < 256; ++nFile) {
        for (int nField = 0; nField < 256; ++nField) {
            for (int nUse : {0, 2, 3, 5}) {
                BYTE bKind = 0xEE;
                const int nResult = GetIndexType((BYTE)nFile, (BYTE)nField, (BYTE)nUse, bKind);
                const int nExpected = ExpectedKind(nFile, nField, nUse);
                if (nExpected < 0) {
                    ASSERT_EQ(nResult, ExpectedRefusal(nFile)) << nFile << " " << nField;
                    ASSERT_EQ(bKind, 0xEE);
                } else {
                    ASSERT_EQ(nResult, 0) << nFile << " " << nField;
                    ASSERT_EQ(bKind, nExpected) << nFile << " " << nField << " " << nUse;
                }
            }
        }
    }
}

TEST(TypeMap, MysqlIndexTypeChoosesTheFileAndMapsColumnTypes) {
    // File kind asked (0: choose), column type, use; result, file and kind given.
    struct Case {
        BYTE bFile, bType, bUse;
        int nResult;
        BYTE bFileOut, bKind;
    };
    const Case arCases[] = {
        {0, 3 /* LONG */, 3, 0, 4, 1},          {0, 253 /* VAR_STRING */, 2, 0, 11, 25},
        {0, 246 /* NEWDECIMAL */, 0, 0, 11, 15}, {0, 1 /* TINY */, 0, 0, 11, 11},
        {4, 5 /* DOUBLE */, 0, 318, 4, 0},       {5, 8 /* LONGLONG */, 0, 0, 5, 5},
        {0, 6 /* NULL */, 0, 318, 11, 0},        {2, 3, 0, 319, 2, 0},
        {9, 3, 0, 320, 9, 0}};
    for (const Case& c : arCases) {
        BYTE bFile = c.bFile, bKind = 0;
        EXPECT_EQ(GetMysqlIndexType(bFile, c.bType, c.bUse, bKind), c.nResult) << (int)c.bType;
        if (c.nResult != 0) continue;
        EXPECT_EQ(bFile, c.bFileOut) << (int)c.bType;
        EXPECT_EQ(bKind, c.bKind) << (int)c.bType;
    }
    // Every engine type with a column type comes back to an index kind as the
    // engine type itself would.
    for (int nType : {1, 2, 3, 4, 5, 6, 7, 11, 12, 80, 81, 240}) {
        BYTE bViaMysql = 0, bDirect = 0, bFile = 11;
        ASSERT_EQ(GetMysqlIndexType(bFile, GetMysqlFieldType((BYTE)nType), 0, bViaMysql), 0) << nType;
        ASSERT_EQ(GetIndexType(11, (BYTE)nType, 0, bDirect), 0);
        EXPECT_EQ(bViaMysql, bDirect) << nType;
    }
}

TEST(TypeMap, AllowNullAndScaleShareAByteWithoutTouchingEachOther) {
    for (int nFlag = 0; nFlag < 256; ++nFlag) {
        for (int nScale = 0; nScale < 64; ++nScale) {
            for (BOOL bNull : {FALSE, TRUE}) {
                BYTE b = SetDecimalScale(SetAllowNull((BYTE)nFlag, bNull), (BYTE)nScale);
                ASSERT_EQ(GetAllowNull(b), bNull);
                ASSERT_EQ(GetDecimalScale(b), nScale);
                b = SetAllowNull(SetDecimalScale((BYTE)nFlag, (BYTE)nScale), bNull);
                ASSERT_EQ(GetAllowNull(b), bNull);
                ASSERT_EQ(GetDecimalScale(b), nScale);
            }
        }
    }
}
