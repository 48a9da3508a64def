// Type tables, checked against the rows written out by hand here rather than
// through the implementation's own tables.

#include "TalvorTypeMap.h"

#include <gtest/gtest.h>

namespace {

// The index kind the column table gives, or -1 for "doesn't fit".
int ExpectedKind(int nFile, int nField, int nUse) {
    const bool bShortInt = nField == 1 || nField == 11 || nField == 12 || nField == 80 || nField == 81;
    if (nFile == 3 || nFile == 11) {
        if (nField >= 5 && nField <= 7) return nUse == 2 ? 25 : nUse == 5 ? 18 : 28;
        return bShortInt ? 11 : nField == 2 ? 12 : nField == 3 || nField == 4 ? 13 : nField == 240 ? 15 : -1;
    }
    if (nFile == 4) return bShortInt ? 1 : nField == 2 ? 2 : nField == 5 ? 4 : -1;
    if (nFile == 5) return bShortInt || nField == 2 ? 5 : nField == 5 ? 6 : -1;
    return -1;
}

}  // namespace

TEST(TypeMap, IndexKindForEveryFileFieldAndUse) {
    for (int nFile = 0; nFile < 256; ++nFile) {
        // The refusal names what was wrong: the column, a system file, or the file kind.
        const int nRefusal = nFile == 3 || nFile == 11 || nFile == 4                            ? 318
                             : nFile == 5 || nFile == 1 || nFile == 2 || nFile == 10 ? 319
                                                                                     : 320;
        for (int nField = 0; nField < 256; ++nField)
            for (int nUse : {0, 2, 3, 5}) {
                BYTE bKind = 0xEE;
                const int nExpected = ExpectedKind(nFile, nField, nUse);
                ASSERT_EQ(GetIndexType((BYTE)nFile, (BYTE)nField, (BYTE)nUse, bKind), nExpected < 0 ? nRefusal : 0)
                    << nFile << " " << nField;
                ASSERT_EQ(bKind, nExpected < 0 ? 0xEE : nExpected) << nFile << " " << nField << " " << nUse;
            }
    }
}
