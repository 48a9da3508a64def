// TalvorTypeMap.cpp — engine, MySQL and index type tables.

#include "TalvorTypeMap.h"

namespace {

// MySQL's wire codes, as the client library numbers them.
constexpr BYTE kMysqlTiny = 1;
constexpr BYTE kMysqlShort = 2;
constexpr BYTE kMysqlLong = 3;
constexpr BYTE kMysqlFloat = 4;
constexpr BYTE kMysqlDouble = 5;
constexpr BYTE kMysqlTimestamp = 7;
constexpr BYTE kMysqlLongLong = 8;
constexpr BYTE kMysqlInt24 = 9;
constexpr BYTE kMysqlDate = 10;
constexpr BYTE kMysqlTime = 11;
constexpr BYTE kMysqlDateTime = 12;
constexpr BYTE kMysqlVarchar = 15;
constexpr BYTE kMysqlNewDecimal = 246;
constexpr BYTE kMysqlEnum = 247;
constexpr BYTE kMysqlBlob = 252;
constexpr BYTE kMysqlVarString = TALVOR_MYSQL_TYPE_VAR_STRING;
constexpr BYTE kMysqlString = 254;

// Engine types.
constexpr BYTE kInt = 1, kBigInt = 2, kDouble = 3, kDateTime = 4;
constexpr BYTE kFixedText = 5, kVarText = 6, kText = 7, kBinary = 8;
constexpr BYTE kTime = 11, kDate = 12, kPrefixedText = 30;
constexpr BYTE kTiny = 80, kSmall = 81, kDecimal = 240, kEnum = 247;
constexpr BYTE kNoType = 0;

struct TypePair {
    BYTE m_bEngine;
    BYTE m_bMysql;
};

// One row per engine type that has a column type; the reverse lookup takes
// the first row of a MySQL type, so the preferred engine type comes first.
constexpr TypePair kTypePairs[] = {
    {kInt, kMysqlLong},          {kBigInt, kMysqlLongLong},  {kDouble, kMysqlDouble},
    {kDateTime, kMysqlDateTime}, {kFixedText, kMysqlString}, {kVarText, kMysqlVarString},
    {kText, kMysqlVarString},    {kBinary, kMysqlBlob},      {kTime, kMysqlTime},
    {kDate, kMysqlDate},         {kPrefixedText, kMysqlVarString},
    {kTiny, kMysqlTiny},         {kSmall, kMysqlShort},      {kDecimal, kMysqlNewDecimal},
    {kEnum, kMysqlEnum},
};

// MySQL types the engine stores in a type of another width or form.
constexpr TypePair kMysqlOnly[] = {
    {kDouble, kMysqlFloat}, {kDateTime, kMysqlTimestamp}, {kInt, kMysqlInt24},
    {kVarText, kMysqlVarchar},
};

constexpr BYTE kFirstSelectivityOperator = 7;
constexpr BYTE kLastSelectivityOperator = 37;
constexpr double kThird = 1.0 / 3.0;
constexpr double kSelective = 0.05;

constexpr double kSelectivity[kLastSelectivityOperator - kFirstSelectivityOperator + 1] = {
    kSelective, kSelective, kThird, kThird, kThird, kThird, kThird,      // 7..13
    kThird, kThird, kThird, kThird, kThird, kThird, kSelective,          // 14..20
    kThird, kThird, kThird, kThird, kThird, kThird,                      // 21..26
    kSelective, kSelective, kSelective, kSelective, kThird, kThird,      // 27..32
    kThird, kSelective, 0.95, 1.0, 0.0,                                  // 33..37
};

// File types.
constexpr BYTE kFileSystem = 1, kFileData = 2, kFileTable = 3, kFileIndex = 4;
constexpr BYTE kFileMemoryIndex = 5, kFileOther = 10, kFileTableEx = 11;

// Index kinds.
constexpr BYTE kIndexTextHash = 25, kIndexTextFull = 18, kIndexText = 28;
constexpr BYTE kUseTextHash = 2, kUseTextFull = 5, kUseIndexFile = 3;

bool IsShortInteger(BYTE b) { return b == kInt || b == kTime || b == kDate || b == kTiny || b == kSmall; }

int TableIndexKind(BYTE bFieldType, BYTE bUseType, BYTE& bIndexType) {
    if (IsShortInteger(bFieldType)) bIndexType = 11;
    else if (bFieldType == kBigInt) bIndexType = 12;
    else if (bFieldType == kDouble || bFieldType == kDateTime) bIndexType = 13;
    else if (bFieldType == kDecimal) bIndexType = 15;
    else if (bFieldType == kFixedText || bFieldType == kVarText || bFieldType == kText) {
        bIndexType = bUseType == kUseTextHash ? kIndexTextHash
                      : bUseType == kUseTextFull ? kIndexTextFull
                                                 : kIndexText;
    } else {
        return TALVOR_ERROR_INDEX_FIELD_TYPE;
    }
    return 0;
}

int IndexFileKind(BYTE bFieldType, BYTE& bIndexType) {
    if (IsShortInteger(bFieldType)) bIndexType = 1;
    else if (bFieldType == kBigInt) bIndexType = 2;
    else if (bFieldType == kFixedText) bIndexType = 4;
    else return TALVOR_ERROR_INDEX_FIELD_TYPE;
    return 0;
}

int MemoryIndexKind(BYTE bFieldType, BYTE& bIndexType) {
    if (IsShortInteger(bFieldType) || bFieldType == kBigInt) bIndexType = 5;
    else if (bFieldType == kFixedText) bIndexType = 6;
    else return TALVOR_ERROR_INDEX_SYSTEM_FILE;
    return 0;
}

BYTE EngineTypeOfMysql(BYTE bMysqlType) {
    for (const TypePair& pair : kTypePairs) {
        if (pair.m_bMysql == bMysqlType) return pair.m_bEngine;
    }
    for (const TypePair& pair : kMysqlOnly) {
        if (pair.m_bMysql == bMysqlType) return pair.m_bEngine;
    }
    return kNoType;
}

}  // namespace

BYTE GetMysqlFieldType(BYTE bType) {
    for (const TypePair& pair : kTypePairs) {
        if (pair.m_bEngine == bType) return pair.m_bMysql;
    }
    return kMysqlVarString;
}

double GetDefalutSelectivity(BYTE bOperator, BYTE /*bIndex*/) {
    if (bOperator < kFirstSelectivityOperator || bOperator > kLastSelectivityOperator) return kThird;
    return kSelectivity[bOperator - kFirstSelectivityOperator];
}

int GetIndexType(BYTE bFileType, BYTE bFieldType, BYTE bUseType, BYTE& bIndexType) {
    switch (bFileType) {
    case kFileTable:
    case kFileTableEx:
        return TableIndexKind(bFieldType, bUseType, bIndexType);
    case kFileIndex:
        return IndexFileKind(bFieldType, bIndexType);
    case kFileMemoryIndex:
        return MemoryIndexKind(bFieldType, bIndexType);
    case kFileSystem:
    case kFileData:
    case kFileOther:
        return TALVOR_ERROR_INDEX_SYSTEM_FILE;
    default:
        return TALVOR_ERROR_INDEX_FILE_TYPE;
    }
}

int GetMysqlIndexType(BYTE& bFileType, BYTE bMysqlType, BYTE bUseType, BYTE& bIndexType) {
    if (bFileType == 0) bFileType = bUseType == kUseIndexFile ? kFileIndex : kFileTableEx;
    return GetIndexType(bFileType, EngineTypeOfMysql(bMysqlType), bUseType, bIndexType);
}

BYTE SetAllowNull(BYTE bFlag, BOOL bAllowNull) {
    return bAllowNull ? (BYTE)(bFlag | TALVOR_FLAG_ALLOW_NULL) : (BYTE)(bFlag & ~TALVOR_FLAG_ALLOW_NULL);
}

BOOL GetAllowNull(BYTE bFlag) { return (bFlag & TALVOR_FLAG_ALLOW_NULL) ? TRUE : FALSE; }

BYTE SetDecimalScale(BYTE bFlag, BYTE bScale) {
    return (BYTE)((bFlag & ~TALVOR_FLAG_SCALE_MASK) | (bScale & TALVOR_FLAG_SCALE_MASK));
}

BYTE GetDecimalScale(BYTE bFlag) { return (BYTE)(bFlag & TALVOR_FLAG_SCALE_MASK); }
