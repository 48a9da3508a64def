// TalvorTypeMap.h — small conversions between the engine's value types, the
// MySQL column types of the wire protocol and the index kinds of the
// storage; the planner's default selectivity; the packing of a column's
// allow-null flag and decimal scale into one byte.
//
// Thread-safety: every function is pure over constant tables and may run on
// any thread.
#pragma once

#include "TypeDef.h"

// MySQL column type for every engine type without a column of its own.
#define TALVOR_MYSQL_TYPE_VAR_STRING 253

// Results of the index-kind choice.
#define TALVOR_ERROR_INDEX_FIELD_TYPE 318   // field type doesn't fit the file type
#define TALVOR_ERROR_INDEX_SYSTEM_FILE 319  // a system or data file has no index
#define TALVOR_ERROR_INDEX_FILE_TYPE 320    // file type not supported

// Bits of the column flag byte: the allow-null flag is the top bit, the
// decimal scale the low six (MySQL's scale never exceeds 30).
#define TALVOR_FLAG_ALLOW_NULL 0x80
#define TALVOR_FLAG_SCALE_MASK 0x3F

// Result: the MySQL column type of engine type bType (TINY 1 for 80, LONG 3
// for 1, NEWDECIMAL 246 for 240, ...); 253 for any type without one.
BYTE GetMysqlFieldType(BYTE bType);

// Result: the planner's estimate of the share of rows operator bOperator
// lets through: 0.05 for the selective operators (7, 8, 20, 27 to 30, 34),
// 0.95 for 35, 1.0 for 36, 0.0 for 37, 1/3 for every other. bIndex does not
// change the estimate.
double GetDefalutSelectivity(BYTE bOperator, BYTE bIndex);

// Picks the index kind of a column of engine type bFieldType in a file of
// type bFileType; bUseType 2 and 5 choose the text index kinds 25 and 18.
// Result: 0 with bIndexType set; 318 when the field type doesn't fit file
// types 3, 11 or 4; 319 for file type 5 with a field that doesn't fit and for
// file types 1, 2 and 10; 320 for every other file type. bIndexType is left
// alone on failure.
int GetIndexType(BYTE bFileType, BYTE bFieldType, BYTE bUseType, BYTE& bIndexType);

// As GetIndexType, from a MySQL column type. A bFileType of 0 is chosen
// first, and written back: 4 with bUseType 3, 11 otherwise. A MySQL type
// with no engine type gives 318 (or the file type's own refusal).
int GetMysqlIndexType(BYTE& bFileType, BYTE bMysqlType, BYTE bUseType, BYTE& bIndexType);

// Result: bFlag with the allow-null bit set or cleared; the scale bits kept.
BYTE SetAllowNull(BYTE bFlag, BOOL bAllowNull);
// Result: TRUE when the allow-null bit of bFlag is set.
BOOL GetAllowNull(BYTE bFlag);
// Result: bFlag with the scale bits replaced by bScale (cut to its low six
// bits); the allow-null bit kept.
BYTE SetDecimalScale(BYTE bFlag, BYTE bScale);
// Result: the scale held in bFlag, 0 to 63.
BYTE GetDecimalScale(BYTE bFlag);
