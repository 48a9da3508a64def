// TalvorVarData.h — the byte layout of the typed value st_VARDATA: a 28-byte
// tagged union that plan buffers store as it is, so every offset is pinned.
//
// Only the record lives here; the operators of the typed value build on it.
// Thread safety: a plain record; it belongs to its caller.
#pragma once

#include "TypeDef.h"

// Type codes of m_vt that the numeric code meets.
#define TALVOR_VT_EMPTY 0
#define TALVOR_VT_INT 1
#define TALVOR_VT_BIGINT 2
#define TALVOR_VT_DOUBLE 3
#define TALVOR_VT_DATETIME 4
#define TALVOR_VT_TEXT 7
#define TALVOR_VT_NULL 10
#define TALVOR_VT_TIME 11
#define TALVOR_VT_DATE 12
#define TALVOR_VT_DECIMAL 240

// Limbs of a decimal inside the value union.
#define TALVOR_DECIMAL_LIMBS 4

#pragma pack(push, 1)

// Stored form of a date column.
struct TALVORDATE {
    BYTE m_bDay;
    BYTE m_bMonth;
    USHORT m_sYear;
};

// Stored form of a time column; m_nDay lets a time pass 24 hours or go below 0.
struct TALVORTIME {
    BYTE m_bSecond;
    BYTE m_bMintue;
    BYTE m_bHour;
    signed char m_nDay;
};

struct st_VARDATA {
    BYTE m_vt;
    BYTE m_bHide;
    BYTE m_bAvg;
    BYTE m_bCommonIndex;
    union {
        struct {
            BYTE m_bPercentSym;
            BYTE m_bProcessWildcard;
            BYTE m_bCharset;
            BYTE m_bAutoRelease;
            union {
                char* m_lpszValue;
                void* m_lpValue;
                long long m_llSymbolic;
            };
            int m_nStrLen;
            int m_nStringDataOffset;
        };
        struct {
            BYTE m_bSign;
            signed char m_bScale;
            BYTE m_bValid;
            BYTE m_bPrecison;
            union {
                int m_nValue;
                UINT m_uValue;
                TALVORDATE m_stDate;
                TALVORTIME m_stTime;
                double m_dblValue;
                long long m_llValue;
                unsigned long long m_ullValue;
                int m_arDecimalData[TALVOR_DECIMAL_LIMBS];
            };
        };
    };
    int m_nDataCount;
};

#pragma pack(pop)

typedef st_VARDATA VARDATA;

static_assert(sizeof(TALVORDATE) == 4, "TALVORDATE is 4 bytes");
static_assert(sizeof(TALVORTIME) == 4, "TALVORTIME is 4 bytes");
static_assert(sizeof(st_VARDATA) == 28, "st_VARDATA is 28 bytes");
static_assert(offsetof(st_VARDATA, m_bSign) == 4, "number side starts at 4");
static_assert(offsetof(st_VARDATA, m_arDecimalData) == 8, "limbs start at 8");
static_assert(offsetof(st_VARDATA, m_lpszValue) == 8, "text pointer at 8");
static_assert(offsetof(st_VARDATA, m_nDataCount) == 24, "count at 24");
