// TalvorVarDataOps.h — the typed value's operations: the members declared in
// TalvorVarData.h (setting, borrowing, reading, converting, arithmetic, bits,
// compare, logic, hash) and the free compare of one SQL operator.
//
// Arithmetic and conversion follow MySQL's loose rules: text that looks like
// a number acts as one, dates and numbers mix, NULL spreads. What cannot be
// computed is NULL, not an error; results report only a type pair without a
// rule (516) and no memory (3).
//
// Thread safety: values belong to one statement; no function takes a latch
// and none keeps state, so distinct values may be worked on by any thread.
#pragma once

#include "TalvorVarData.h"

// Results.
#define TALVOR_VARDATA_TYPE_ERROR 516
#define TALVOR_VARDATA_NO_MEMORY 3
#define TALVOR_VARDATA_BAD_OPERATOR 1503

// Longest text a value copies: a length from a value or a caller is checked
// against it before any allocation.
#define TALVOR_VARDATA_MAX_TEXT 0x40000000

// Comparison operators of CompareData.
#define TALVOR_OP_SAFE_EQUAL 19
#define TALVOR_OP_EQUAL 20
#define TALVOR_OP_NOT_EQUAL 21
#define TALVOR_OP_GREATER 22
#define TALVOR_OP_GREATER_EQUAL 23
#define TALVOR_OP_LESS 24
#define TALVOR_OP_LESS_EQUAL 25

// Three-valued truth.
#define TALVOR_FALSE 0
#define TALVOR_TRUE 1
#define TALVOR_UNKNOWN 2

// Runs comparison operator bOperator (19 to 25) on a and b. nResult gets 1
// or 0, or 2 when a side is NULL (19, NULL-safe equality, never gives 2).
// Result: 0, or 1503 with nResult untouched for another operator.
int CompareData(const VARDATA& a, const VARDATA& b, BYTE bOperator, int& nResult);
