// TalvorVarData.h — the byte layout of the typed value st_VARDATA: a 28-byte
// tagged union that plan buffers store as it is, so every offset is pinned.
//
// The record stays trivially copyable: plan buffers and pools hold it as raw
// bytes and copy it with memcpy, so it has no constructor, no destructor and
// no copy of its own. A bitwise copy never owns: only the value that set
// m_bAutoRelease gives its text back, through Free. The operations are
// declared here and defined in TalvorVarData*.cpp, but for the fixed-width
// paths of Compare and CalcHashFactor, inline at the end of this file;
// TalvorVarDataOps.h is the header to include for them.
//
// Thread safety: a value belongs to one statement; no member takes a latch.
#pragma once

#include "TalvorVarDataFixed.h"
#include "TypeDef.h"

class CTalvorBufferPool;
class CBaseBson;

// Type codes of m_vt that the numeric code meets.
#define TALVOR_VT_EMPTY 0
#define TALVOR_VT_INT 1
#define TALVOR_VT_BIGINT 2
#define TALVOR_VT_DOUBLE 3
#define TALVOR_VT_DATETIME 4
#define TALVOR_VT_FIXTEXT 5
#define TALVOR_VT_VARTEXT 6
#define TALVOR_VT_TEXT 7
#define TALVOR_VT_BINARY 8
#define TALVOR_VT_NULL 10
#define TALVOR_VT_TIME 11
#define TALVOR_VT_DATE 12
#define TALVOR_VT_PREFIXTEXT 30
// Markers that pass through every operator as NULL does; the second is true.
#define TALVOR_VT_MARK_UNKNOWN 49
#define TALVOR_VT_MARK_TRUE 50
#define TALVOR_VT_TINY 80
#define TALVOR_VT_SMALL 81
#define TALVOR_VT_HEX 127
#define TALVOR_VT_DECIMAL 240
#define TALVOR_VT_ENUM 247
// m_bValid (the m_bCharset byte) of a text that is a hexadecimal literal.
#define TALVOR_TEXT_HEX_LITERAL 255

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
                USHORT m_enumValue;
                int m_arDecimalData[TALVOR_DECIMAL_LIMBS];
            };
        };
    };
    int m_nDataCount;

    // ---- Setting. Every setter gives back owned text first (Free). A value
    // must have been set once (Init, SetNull or zero bytes) before any member
    // is called on it: the bytes of an unset value are not read as owned.
    // Result of the text setters: 0, or 3 (value NULL) when memory is short
    // or the length is negative or above TALVOR_VARDATA_MAX_TEXT.

    // All bytes zero: empty (m_vt 0), owning nothing.
    void Init();
    // NULL, owning nothing; the flag bytes and m_nDataCount are kept.
    void SetNull();
    // Gives owned text back (delete[]) when m_bAutoRelease is set on a type
    // that may own (6, 8, 127); then the text side points at nothing. A
    // borrowed pointer is never freed.
    void Free();
    void SetData(int nValue);                 // 1
    void SetData(UINT uValue);                // 2: a UINT may pass INT_MAX
    void SetData(long long llValue);          // 2
    void SetData(unsigned long long ullValue);// 2 when it fits, else 240
    void SetData(double dblValue);            // 3
    void SetData(BYTE bValue);                // 80
    void SetData(char chValue);               // 80
    void SetData(short sValue);               // 81
    void SetData(const TALVORDATE& stDate);   // 12
    void SetData(const TALVORTIME& stTime);   // 11
    // A day number as a date and time (4).
    void SetDateTime(double dtValue);
    // An owned copy (new[], NUL behind it) of nLen bytes as type 6.
    int SetData(const char* lpszText, int nLen);
    // A copy of nLen bytes in the pool's memory as type 7, not owned; with
    // a null pool an owned copy as type 6.
    int SetData(CTalvorBufferPool* pPool, const char* lpszText, int nLen);
    // A deep copy of src: text into the pool (owned type 6 without a pool),
    // numbers by their bytes. src may be this value.
    int SetData(CTalvorBufferPool* pPool, const st_VARDATA& src);
    // As SetData(pool, src), then src gives its owned text back.
    int SetDataEx(CTalvorBufferPool* pPool, st_VARDATA& src);

    // ---- Borrowing.
    // Points at the caller's nLen bytes as text of bType (5, 6, 7, 30); the
    // caller keeps them alive and frees them.
    void AttachString(char* lpszText, int nLen, BYTE bType);
    // Points at a buffer of nLen bytes as type 6; with bAutoRelease the value
    // takes it over, and the buffer must come from new[].
    void AttachBuffer(char* lpBuffer, int nLen, BOOL bAutoRelease);
    // The same as binary (8).
    void AttachBinaryData(void* lpData, int nLen, BOOL bAutoRelease);
    // Result: the text pointer; ownership, if any, passes to the caller and
    // the value becomes NULL.
    char* DetachBuffer();
    // An owned copy of nLen bytes as binary (8). Result: as the text setters.
    int SetBinaryData(const void* lpData, int nLen);
    // Result: the bytes of a text or binary value with their count in nLen;
    // null with nLen 0 for any other type.
    const BYTE* GetBinaryData(int& nLen) const;

    // ---- Reading.
    // Result: bytes the value takes stored in a record (the type table).
    int GetDataLen() const;
    static int GetDataLen(unsigned char bType);
    // Numbers of any type: doubles cut towards zero, decimals rounded half
    // away from zero, dates as their day number, text through the decimal
    // parser (0 for text that is no number), all saturated at the range of
    // the result. NULL, markers and empty values give 0.
    int GetCompatibleInt() const;
    long long GetCompatibleBigInt() const;
    double GetCompatibleDouble() const;
    // The value as text into vOut (type 7 in the pool, or owned type 6
    // without one): integers "%d"/"%lld", doubles "%f" with trailing zeros
    // cut, decimals as they print, dates and times by their fixed forms,
    // text as a copy. NULL gives NULL. Result: 0, or 3.
    int GetCompatibleStringValue(CTalvorBufferPool* pPool, st_VARDATA& vOut) const;
    // Result: Unicode characters of a text (UTF-8 lead bytes counted), or
    // the length of the text form for other types.
    int GetCharNum() const;

    // ---- Converting. Result: 0; 516 for a pair without a rule; 3 when
    // memory is short. A value that cannot be computed becomes NULL.
    int ChangeType(CTalvorBufferPool* pPool, BYTE nType);
    int ChangeTypeCore(CTalvorBufferPool* pPool, BYTE nType);
    // The same into vOut, this value unchanged. vOut must be set.
    int GetCompatibleValue(CTalvorBufferPool* pPool, BYTE nType, st_VARDATA& vOut) const;
    // This value's text form in place (GetCompatibleStringValue).
    int Covert2String(CTalvorBufferPool* pPool);
    // Text in place to nType, as ChangeTypeCore; 516 when this is no text.
    int CovertString2Data(CTalvorBufferPool* pPool, BYTE nType);
    // nLen bytes of text, copied, then to nType.
    int CovertString2Data(CTalvorBufferPool* pPool, const char* lpszText, int nLen, BYTE nType);
    // Text in place to the number it stands for (GetCompatibleNumberValue).
    // Result: 0, or 516 when this is no text.
    int CovertStringToNumber();
    // The number this value stands for in arithmetic: integers as 2,
    // doubles as 3, decimals as 240, dates as days (3), text by its form
    // (decimal digits as 240, hexadecimal as 2 or 240, a fraction as 3, no
    // number as 2 of 0, a date text as NULL). NULL and markers stay.
    void GetCompatibleNumberValue(st_VARDATA& vOut) const;

    // ---- Arithmetic. Results are numbers, dates or NULL, never text.
    st_VARDATA operator+(const st_VARDATA& b) const;
    st_VARDATA operator-(const st_VARDATA& b) const;
    st_VARDATA operator*(const st_VARDATA& b) const;
    st_VARDATA operator/(const st_VARDATA& b) const;
    st_VARDATA operator%(const st_VARDATA& b) const;
    // this = a op b; owned text of this is given back first. Result: 0.
    int Add(CTalvorBufferPool* pPool, const st_VARDATA& a, const st_VARDATA& b);
    int Sub(CTalvorBufferPool* pPool, const st_VARDATA& a, const st_VARDATA& b);
    int Mul(CTalvorBufferPool* pPool, const st_VARDATA& a, const st_VARDATA& b);
    int Div(CTalvorBufferPool* pPool, const st_VARDATA& a, const st_VARDATA& b);
    int Mod(CTalvorBufferPool* pPool, const st_VARDATA& a, const st_VARDATA& b);
    // In place on the number this value stands for; NULL stays NULL.
    void Abs();
    void Ceil();
    void Floor();

    // this = this to the power of b, the square root, this cut to nDigits
    // places (negative: digits left of the point become 0), and this (a sum)
    // divided by m_nDataCount. A result that is not a finite number, a
    // negative root or a count of 0 is NULL. Doubles come out of Sqrt and
    // Power; Trunc keeps the type; Avg divides as operator/ does.
    void Power(const st_VARDATA& b);
    void Sqrt();
    void Trunc(int nDigits);
    void Avg();

    // ---- Text, by UTF-8 characters; a value that is not text is taken by
    // its text form. The result replaces this value, in the pool (owned
    // without one); NULL stays NULL. Result: 0, or 3 when memory is short or
    // the result would pass TALVOR_VARDATA_MAX_TEXT (then the value is NULL).
    int Upper(CTalvorBufferPool* pPool);
    int Lower(CTalvorBufferPool* pPool);
    // this followed by b; NULL on either side gives NULL.
    int Link(CTalvorBufferPool* pPool, const st_VARDATA& b);
    // nCount characters from character nStart (1 the first; a negative one
    // counts from the end; 0, or before the start, gives the empty text).
    int SubString(CTalvorBufferPool* pPool, int nStart, int nCount);
    // The last nCount characters, and the first nCount (CharTrunc); a
    // count of 0 or less gives the empty text.
    int Right(CTalvorBufferPool* pPool, int nCount);
    int CharTrunc(CTalvorBufferPool* pPool, int nCount);
    // The characters in reverse order, each kept whole.
    int Reverse(CTalvorBufferPool* pPool);

    // ---- Bits: both sides through GetCompatibleBigInt, result 2; NULL
    // and markers spread as in arithmetic; shifts of 64 or more give 0.
    st_VARDATA operator&(const st_VARDATA& b) const;
    st_VARDATA operator|(const st_VARDATA& b) const;
    st_VARDATA operator^(const st_VARDATA& b) const;
    st_VARDATA operator~() const;
    st_VARDATA operator>>(const st_VARDATA& b) const;
    st_VARDATA operator<<(const st_VARDATA& b) const;

    // ---- Compare. Numbers of two different types compare by their exact
    // values: a long long against a double or a decimal against a double
    // is never rounded, so 2^53 + 1 is not the double 2^53, nor 0.1 the
    // double nearest it; two doubles compare within kDoubleEpsilon.
    // Two NULLs are equal here (grouping relies on it); NULL
    // against a value of another type is false for every operator; text
    // that cannot become the other side's type is false for every operator.
    // Text against text ignores letter case.
    bool operator==(const st_VARDATA& b) const;
    bool operator!=(const st_VARDATA& b) const;
    bool operator<(const st_VARDATA& b) const;
    bool operator<=(const st_VARDATA& b) const;
    bool operator>(const st_VARDATA& b) const;
    bool operator>=(const st_VARDATA& b) const;
    // Result: -1, 0 or 1 by the rules of the operators, with NULL and the
    // markers first, and text that is no number or date after the numbers
    // and dates it cannot be compared with. A total order among NULLs,
    // numbers and dates of every type, and among texts; no order can be
    // total over text and numbers together while text that looks like a
    // number compares as one ("9" < 9.5 < "10" < "9").
    // Inline for two values of one fixed-width type (int, long long,
    // double), out of line through CompareOther, which gives the same
    // result for any pair, for every other pair.
    int Compare(const st_VARDATA& b) const;
    int CompareOther(const st_VARDATA& b) const;
    // Result: 1 equal, 0 not, 2 unknown (either side NULL); bCase compares
    // text with letter case.
    int IsEqual(const st_VARDATA& b, BOOL bCase) const;
    // Result: TRUE when equal, NULL-safe (two NULLs are equal).
    BOOL SafeEqual(const st_VARDATA& b) const;

    // ---- Logic, three-valued: 0 false, 1 true, 2 unknown.
    int IsTrue() const;
    BOOL IsNull() const;
    // TRUE for a text made only of "%" and the any-run byte of a LIKE
    // pattern: it matches every text.
    BOOL IsAllWildcard() const;
    BOOL IsUnknown() const;
    int operator&&(const st_VARDATA& b) const;
    int operator||(const st_VARDATA& b) const;
    int operator!() const;

    // ---- Hash: adds this value's share to h, equal numbers of any type
    // alike, text without regard to letter case: two values that compare
    // equal hash alike, but for two doubles (or dates) apart by less than
    // the compare's tolerance, which no hash can follow. Inline for int,
    // long long and double (talvorfixed); HashOther for every other value.
    void CalcHashFactor(long long& h) const;
    void CalcHashFactorEx(unsigned long long& h) const;
    // Result: h with this value's share added, for any value.
    unsigned long long HashOther(unsigned long long h) const;

    // ---- Moving: exchanges the two values, ownership included.
    void Swap(CTalvorBufferPool* pPool, st_VARDATA& other);
};

// Several values in one slot, as a row value: m_bNum members, declared with
// one and laid out behind each other. Text members held in a plan buffer
// keep offsets there until they are resolved to pointers.
struct st_MULTIVARDATA {
    BYTE m_bNum;
    BYTE m_bReserved[3];
    st_VARDATA m_arrVarData[1];

    // Points every borrowed text member (5, 6, 7, 8, 30) at its bytes in
    // the main buffer of pBson, from the offset in m_nStringDataOffset; the
    // record must hold m_bNum members. Result: 0; 70 when a text's offset
    // and length don't lie inside the plan's data (that member becomes
    // NULL, the others are still resolved); 48 for a null plan.
    int GetMultiStringData(CBaseBson* pBson);
};

#pragma pack(pop)

typedef st_VARDATA VARDATA;

// The fixed-width paths below are forced inline: a caller's loop over rows
// is where they pay, and the compiler's size limit would keep them out.

__attribute__((always_inline)) inline int st_VARDATA::Compare(const st_VARDATA& b) const
{
    // Rows of one column meet values of one type: those go straight.
    if (__builtin_expect(m_vt == b.m_vt, 1)) {
        if (m_vt == TALVOR_VT_DOUBLE) return talvorfixed::DoubleOrder(m_dblValue, b.m_dblValue);
        if (m_vt == TALVOR_VT_BIGINT) return talvorfixed::IntegerOrder(m_llValue, b.m_llValue);
        if (m_vt == TALVOR_VT_INT) return talvorfixed::IntegerOrder(m_nValue, b.m_nValue);
    }
    return CompareOther(b);
}

__attribute__((always_inline)) inline void st_VARDATA::CalcHashFactorEx(unsigned long long& h) const
{
    if (m_vt == TALVOR_VT_DOUBLE) h += talvorfixed::HashOfDouble(m_dblValue);
    else if (m_vt == TALVOR_VT_BIGINT) h += talvorfixed::HashOfWhole(m_llValue);
    else if (m_vt == TALVOR_VT_INT) h += talvorfixed::HashOfWhole(m_nValue);
    else h = HashOther(h);
}

__attribute__((always_inline)) inline void st_VARDATA::CalcHashFactor(long long& h) const
{
    unsigned long long u = (unsigned long long)h;
    CalcHashFactorEx(u);
    h = (long long)u;
}

static_assert(sizeof(TALVORDATE) == 4, "TALVORDATE is 4 bytes");
static_assert(sizeof(TALVORTIME) == 4, "TALVORTIME is 4 bytes");
static_assert(sizeof(st_VARDATA) == 28, "st_VARDATA is 28 bytes");
static_assert(offsetof(st_VARDATA, m_bSign) == 4, "number side starts at 4");
static_assert(offsetof(st_VARDATA, m_arDecimalData) == 8, "limbs start at 8");
static_assert(offsetof(st_VARDATA, m_lpszValue) == 8, "text pointer at 8");
static_assert(offsetof(st_VARDATA, m_nDataCount) == 24, "count at 24");
static_assert(offsetof(st_MULTIVARDATA, m_arrVarData) == 4, "members start at 4");
