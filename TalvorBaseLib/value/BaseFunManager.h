// BaseFunManager.h — the built-in SQL functions on typed values: one member
// per function, each short glue over the decimal, the date and the typed
// value. The SQL layer of the engine calls them; the daemon does not.
//
// Common contract (every member unless it says otherwise):
// - Arguments are read, never changed; the result is set whole. Text of a
//   result lives in the statement's pool (pool), never freed before the
//   statement ends; a result never owns (m_bAutoRelease stays 0).
// - NULL in gives NULL out, unless the function is about NULL. A function
//   that has no answer for its input sets NULL and returns 0.
// - Result: 0, or TALVOR_FUN_BAD_TYPE (a wrong argument kind),
//   TALVOR_FUN_BAD_FUNCTION (a wrong function number), TALVOR_VARDATA_NO_MEMORY
//   (the pool gave nothing), TALVOR_FUN_OUT_OF_RANGE (cot of a zero tangent).
// - Every length taken from a value is bounded before an allocation: a text
//   result above TALVOR_FUN_MAX_RESULT bytes is NULL.
// - Function numbers are the keyword ids the SQL layer found the name under.
//
// Thread safety: the class holds no data; any thread may call any member on
// values and a pool of its own. Rand with a seed and TalvorSleep are the
// only members with effects outside their arguments. No latch is taken.
#pragma once

#include "TalvorBufferPool.h"
#include "TalvorVarDataOps.h"

#define TALVOR_FUN_BAD_TYPE 1501
#define TALVOR_FUN_BAD_FUNCTION 1502
#define TALVOR_FUN_OUT_OF_RANGE 1800

// Longest text result of Space, Repeat and the other growing members.
#define TALVOR_FUN_MAX_RESULT 0x100000

class CBaseFunManager {
public:
    // ---- Text

    // ---- Number as text

    // ---- Math

    // ---- Date and time

    // ---- Null and choice

    // ---- Types

    // ---- System
};
