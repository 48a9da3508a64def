// TalvorHash.cpp — CRC-32, the keyless hashes, the data token and the key
// scrambling.

#include "TalvorHash.h"

#include <cstring>
#include <sys/time.h>

#if defined(__x86_64__)
#include <immintrin.h>
#define TALVOR_CRC_CLMUL 1
#endif

namespace {

// --- CRC-32 -------------------------------------------------------------------

constexpr UINT kCrcPolynomialReflected = 0xEDB88320u;  // 0x04C11DB7 bit-reversed
constexpr UINT kCrcStart = 0xFFFFFFFFu;
constexpr int kCrcSlices = 8;

// Slice k maps a byte that still has k bytes to travel through the register
// to its contribution, so eight bytes fold in with eight independent lookups
// instead of a chain of eight dependent ones.
struct CrcTables {
    UINT m_arSlice[kCrcSlices][256];
    constexpr CrcTables() : m_arSlice() {
        for (UINT i = 0; i < 256; ++i) {
            UINT uCrc = i;
            for (int j = 0; j < 8; ++j) uCrc = (uCrc >> 1) ^ ((uCrc & 1) ? kCrcPolynomialReflected : 0);
            m_arSlice[0][i] = uCrc;
        }
        for (int k = 1; k < kCrcSlices; ++k) {
            for (int i = 0; i < 256; ++i) {
                const UINT uPrev = m_arSlice[k - 1][i];
                m_arSlice[k][i] = (uPrev >> 8) ^ m_arSlice[0][uPrev & 0xFF];
            }
        }
    }
};
constexpr CrcTables g_crc{};

UINT CrcBytes(UINT uCrc, const BYTE* p, size_t n) {
    while (n--) uCrc = (uCrc >> 8) ^ g_crc.m_arSlice[0][(uCrc ^ *p++) & 0xFF];
    return uCrc;
}

UINT CrcSlices(UINT uCrc, const BYTE* p, size_t n) {
    const auto& t = g_crc.m_arSlice;
    while (n >= 8) {
        UINT uLow, uHigh;
        memcpy(&uLow, p, 4);
        memcpy(&uHigh, p + 4, 4);
        uLow ^= uCrc;
        uCrc = t[7][uLow & 0xFF] ^ t[6][(uLow >> 8) & 0xFF] ^ t[5][(uLow >> 16) & 0xFF] ^
               t[4][uLow >> 24] ^ t[3][uHigh & 0xFF] ^ t[2][(uHigh >> 8) & 0xFF] ^
               t[1][(uHigh >> 16) & 0xFF] ^ t[0][uHigh >> 24];
        p += 8;
        n -= 8;
    }
    return CrcBytes(uCrc, p, n);
}

#if TALVOR_CRC_CLMUL
// Carry-less multiplication folds 64 bytes a step: four 128-bit lanes are
// each multiplied by x^(512+-64) mod P and added to the next 64 bytes, then
// the lanes fold into one, that one to 64 bits, and a Barrett reduction gives
// the 32-bit remainder. The constants are powers of x modulo the reflected
// polynomial (and its Barrett quotient); nLen must be a multiple of 16 and at
// least 64. Takes and gives the register value, not the complement.
constexpr int kClmulMinimum = 64;
alignas(16) constexpr unsigned long long kFold4[2] = {0x0154442bd4ull, 0x01c6e41596ull};
alignas(16) constexpr unsigned long long kFold1[2] = {0x01751997d0ull, 0x00ccaa009eull};
alignas(16) constexpr unsigned long long kFold64[2] = {0x0163cd6124ull, 0};
alignas(16) constexpr unsigned long long kBarrett[2] = {0x01db710641ull, 0x01f7011641ull};

__attribute__((target("pclmul,sse4.1"))) __m128i FoldLane(__m128i x, __m128i k, __m128i next) {
    const __m128i lo = _mm_clmulepi64_si128(x, k, 0x00);
    const __m128i hi = _mm_clmulepi64_si128(x, k, 0x11);
    return _mm_xor_si128(_mm_xor_si128(hi, lo), next);
}

__attribute__((target("pclmul,sse4.1"))) UINT CrcClmul(UINT uCrc, const BYTE* p, size_t n) {
    __m128i x1 = _mm_loadu_si128((const __m128i*)(p + 0x00));
    __m128i x2 = _mm_loadu_si128((const __m128i*)(p + 0x10));
    __m128i x3 = _mm_loadu_si128((const __m128i*)(p + 0x20));
    __m128i x4 = _mm_loadu_si128((const __m128i*)(p + 0x30));
    x1 = _mm_xor_si128(x1, _mm_cvtsi32_si128((int)uCrc));
    __m128i k = _mm_load_si128((const __m128i*)kFold4);
    p += kClmulMinimum;
    n -= kClmulMinimum;
    for (; n >= 64; p += 64, n -= 64) {
        x1 = FoldLane(x1, k, _mm_loadu_si128((const __m128i*)(p + 0x00)));
        x2 = FoldLane(x2, k, _mm_loadu_si128((const __m128i*)(p + 0x10)));
        x3 = FoldLane(x3, k, _mm_loadu_si128((const __m128i*)(p + 0x20)));
        x4 = FoldLane(x4, k, _mm_loadu_si128((const __m128i*)(p + 0x30)));
    }
    k = _mm_load_si128((const __m128i*)kFold1);
    x1 = FoldLane(x1, k, x2);
    x1 = FoldLane(x1, k, x3);
    x1 = FoldLane(x1, k, x4);
    for (; n >= 16; p += 16, n -= 16) x1 = FoldLane(x1, k, _mm_loadu_si128((const __m128i*)p));
    // 128 bits to 64.
    const __m128i mask32 = _mm_setr_epi32(~0, 0, ~0, 0);
    __m128i x2b = _mm_clmulepi64_si128(x1, k, 0x10);
    x1 = _mm_xor_si128(_mm_srli_si128(x1, 8), x2b);
    k = _mm_loadl_epi64((const __m128i*)kFold64);
    x2b = _mm_srli_si128(x1, 4);
    x1 = _mm_xor_si128(_mm_clmulepi64_si128(_mm_and_si128(x1, mask32), k, 0x00), x2b);
    // Barrett reduction to 32 bits.
    k = _mm_load_si128((const __m128i*)kBarrett);
    x2b = _mm_clmulepi64_si128(_mm_and_si128(x1, mask32), k, 0x10);
    x2b = _mm_clmulepi64_si128(_mm_and_si128(x2b, mask32), k, 0x00);
    x1 = _mm_xor_si128(x1, x2b);
    return (UINT)_mm_extract_epi32(x1, 1);
}

bool HaveClmul() {
    static const bool s_bHave = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
    return s_bHave;
}
#endif

// --- Key scrambling -----------------------------------------------------------

constexpr int kKeyBytes = 16;

// The substitution of the scrambler: a permutation of the 256 byte values, so
// the whole routine stays invertible. Shared with the engine: never change.
constexpr BYTE kSubstitution[256] = {
    0xF0, 0x1C, 0xEB, 0x6C, 0x68, 0x5A, 0xDB, 0x3F, 0x1D, 0x51, 0x86, 0xC6, 0x2E, 0xAB, 0xD4, 0x7C,
    0x42, 0xE0, 0x08, 0xCE, 0x58, 0x64, 0x6E, 0x83, 0x13, 0x45, 0xAE, 0xAA, 0xE3, 0xA3, 0x8C, 0x3A,
    0xBF, 0x26, 0xBC, 0xF5, 0xF2, 0x23, 0xB4, 0x6F, 0x3B, 0x72, 0x5D, 0x4D, 0x8E, 0x17, 0x2F, 0xC7,
    0xF9, 0x89, 0x19, 0x9B, 0xA4, 0x0D, 0x40, 0xD3, 0x5F, 0x6D, 0xD0, 0x48, 0xF8, 0x78, 0x2C, 0x90,
    0x0E, 0xF4, 0x4C, 0xB3, 0xD5, 0xDA, 0x6B, 0xFB, 0x10, 0x70, 0xEE, 0x52, 0x2D, 0xA5, 0x39, 0x9A,
    0x5B, 0x3E, 0x9D, 0xC2, 0x62, 0x00, 0xC0, 0xE6, 0x99, 0xBA, 0x11, 0x85, 0x84, 0x47, 0xFC, 0x41,
    0x38, 0x4E, 0xCB, 0x0A, 0x1B, 0x7D, 0xFA, 0x79, 0x29, 0xD1, 0x8D, 0xD7, 0x82, 0xEC, 0x1E, 0xCF,
    0xE2, 0x1A, 0x35, 0x71, 0xA2, 0x66, 0x07, 0x43, 0x74, 0xCA, 0xDF, 0x5E, 0x0F, 0xE9, 0x92, 0xCC,
    0x14, 0x63, 0x67, 0xE4, 0x7E, 0xE8, 0x25, 0x22, 0xED, 0x61, 0xC8, 0xD6, 0x6A, 0x1F, 0x33, 0x15,
    0xB1, 0x57, 0xFD, 0x65, 0xBE, 0xC5, 0x36, 0x96, 0x16, 0x75, 0x77, 0x9E, 0xC4, 0x20, 0x31, 0x53,
    0x4B, 0x49, 0x03, 0x76, 0x7F, 0x05, 0x09, 0x04, 0xA6, 0x02, 0xF6, 0x54, 0x9C, 0x94, 0x46, 0x60,
    0xAD, 0x56, 0x34, 0x98, 0x06, 0xB7, 0xFF, 0xC3, 0xB8, 0x44, 0x95, 0xBD, 0x3C, 0xD2, 0x2A, 0xF3,
    0x55, 0xEF, 0xFE, 0x7B, 0xD9, 0xC9, 0xB9, 0xDD, 0x5C, 0x4A, 0x28, 0x50, 0xC1, 0x69, 0x4F, 0xBB,
    0x8F, 0xEA, 0x21, 0xF7, 0xA1, 0x73, 0x30, 0x2B, 0x59, 0x93, 0xE7, 0xDE, 0xE5, 0x9F, 0x0B, 0x0C,
    0x87, 0x24, 0xB0, 0xAC, 0x81, 0xA0, 0x37, 0x7A, 0xA9, 0xB6, 0xDC, 0xB2, 0x3D, 0xB5, 0x88, 0x32,
    0xF1, 0x80, 0xE1, 0xA8, 0x97, 0x18, 0x01, 0xA7, 0x12, 0x8A, 0x27, 0x8B, 0xD8, 0xCD, 0xAF, 0x91,
};

// The order in which the second substitution reads the bytes.
constexpr BYTE kSecondOrder[kKeyBytes] = {6, 5, 15, 10, 4, 8, 11, 1, 3, 12, 7, 13, 14, 9, 0, 2};

// The small numbers the working key grows from; the key itself is never
// stored, so it doesn't stand in the binary as one piece.
constexpr BYTE kKeySeed[kKeyBytes] = {3, 41, 17, 29, 11, 53, 7, 37, 23, 5, 47, 13, 31, 19, 43, 2};
constexpr int kKeySeedFactor = 7;
constexpr int kKeyIndexFactor = 13;

// Steps from one bit position to the next, picked by the bit count modulo 5.
// All are odd, so eight rounds visit all eight positions.
constexpr int kBitSteps[5] = {1, 3, 5, 7, 9};
constexpr int kBitRounds = 8;
constexpr int kRingSize = 15;

// The two fixed numbers that the overlapping blocks of Encryption are
// scrambled under. Shared with the engine: never change.
constexpr USHORT kFirstBlockGuid = 0x5A3C;
constexpr USHORT kSecondBlockGuid = 0x1E97;
constexpr int kEncryptionSourceBytes = 24;
constexpr int kSecondBlockOffset = 8;

struct BitCounts {
    BYTE m_arCount[256];
    constexpr BitCounts() : m_arCount() {
        for (int i = 1; i < 256; ++i) m_arCount[i] = (BYTE)(m_arCount[i >> 1] + (i & 1));
    }
};
constexpr BitCounts g_bits{};

void BuildWorkingKey(USHORT usDBGuid, BYTE* lpKey) {
    for (int i = 0; i < kKeyBytes; ++i) {
        const BYTE bGuid = (i & 1) ? (BYTE)(usDBGuid >> 8) : (BYTE)usDBGuid;
        lpKey[i] = (BYTE)(kKeySeed[i] * kKeySeedFactor + i * kKeyIndexFactor + bGuid);
    }
}

void XorKey(BYTE* lpBuffer, const BYTE* lpKey) {
    for (int i = 0; i < kKeyBytes; ++i) lpBuffer[i] ^= lpKey[i];
}

// Each byte takes the bit at nPos from the byte nDistance further on in the
// ring of 16: a transposition of bits between bytes, which keeps the count.
void ExchangeBit(BYTE* lpBuffer, int nPos, int nDistance) {
    BYTE arCopy[kKeyBytes];
    memcpy(arCopy, lpBuffer, kKeyBytes);
    const BYTE bMask = (BYTE)(1u << nPos);
    for (int i = 0; i < kKeyBytes; ++i) {
        const BYTE bOther = arCopy[(i + nDistance) % kKeyBytes];
        lpBuffer[i] = (BYTE)((arCopy[i] & ~bMask) | (bOther & bMask));
    }
}

}  // namespace

UINT TalvorCRC32(const void* lpData, int nLen) {
    if (lpData == nullptr || nLen < 1) return 0;
    const BYTE* p = (const BYTE*)lpData;
    size_t n = (size_t)nLen;
    UINT uCrc = kCrcStart;
#if TALVOR_CRC_CLMUL
    if (n >= (size_t)kClmulMinimum && HaveClmul()) {
        const size_t nBulk = n & ~(size_t)15;
        uCrc = CrcClmul(uCrc, p, nBulk);
        p += nBulk;
        n -= nBulk;
    }
#endif
    return ~CrcSlices(uCrc, p, n);
}

UINT CalcSQLHash(const char* lpszText, int nLen) {
    if (lpszText == nullptr || nLen < 1) return 0;
    constexpr int kWord = 4;
    constexpr int kRotations = 30;
    if (nLen < kWord) {
        BYTE arWord[kWord] = {0, 0, 0, 0};
        memcpy(arWord, lpszText, (size_t)nLen);
        return (UINT)arWord[0] | ((UINT)arWord[1] << 8) | ((UINT)arWord[2] << 16) | ((UINT)arWord[3] << 24);
    }
    UINT uHash = 0;
    const BYTE* p = (const BYTE*)lpszText;
    for (int i = 0; i < nLen / kWord; ++i, p += kWord) {
        const UINT uWord = (UINT)p[0] | ((UINT)p[1] << 8) | ((UINT)p[2] << 16) | ((UINT)p[3] << 24);
        const int nRot = i % kRotations;
        uHash += nRot ? (uWord << nRot) | (uWord >> (32 - nRot)) : uWord;
    }
    return uHash;
}

UINT BKDRHash(const char* lpszText, int nLen) {
    if (lpszText == nullptr || nLen < 1) return 0;
    constexpr UINT kSeed = 131;
    UINT uHash = 0;
    for (int i = 0; i < nLen; ++i) uHash = uHash * kSeed + (UINT)(int)(signed char)lpszText[i];
    return uHash & 0x7FFFFFFFu;
}

int CalcKeyHash(const char* lpszText, int nCount) {
    if (lpszText == nullptr || nCount < 1) return 0;
    constexpr ULONGLONG kStart = 0xD3202B73ull;
    ULONGLONG ullHash = kStart;
    for (const BYTE* p = (const BYTE*)lpszText; *p; ++p) {
        const BYTE c = *p;
        if (c >= '0' && c <= '9') ullHash = ullHash * 10 + (c - '0');
        else if (c >= 'A' && c <= 'Z') ullHash = ullHash * 37 + (c - 55);
        else if (c >= 'a' && c <= 'z') ullHash = ullHash * 37 + (c - 87);
        else ullHash = ullHash * 131 + c;
    }
    // The bucket rule of the 64-bit integer map, all unsigned, so that no
    // key can come out as a negative bucket.
    const long long llKey = (long long)ullHash;
    constexpr long long kLargeBuckets = 0x1000000;
    if (nCount < kLargeBuckets) {
        const ULONGLONG ullSpread = (ULONGLONG)(llKey & ~(7LL << 60)) + (ULONGLONG)(llKey >> 32);
        return (int)(ullSpread % (ULONGLONG)nCount);
    }
    if ((ullHash >> 31) != 0) {
        const UINT uSpread = (UINT)(ULONGLONG)(llKey + (llKey >> 24) + (llKey >> 48));
        return (int)(uSpread % (UINT)nCount);
    }
    return (int)((UINT)ullHash % (UINT)nCount);
}

USHORT CreateDataToken() {
    constexpr unsigned long long kTokenRange = 32765;
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    const unsigned long long ullMicros = (unsigned long long)tv.tv_sec * 1000000ull + (unsigned long long)tv.tv_usec;
    return (USHORT)(ullMicros % kTokenRange + 1);
}

void EncrpytKey(BYTE* lpBuffer, USHORT usDBGuid) {
    if (lpBuffer == nullptr) return;
    BYTE arKey[kKeyBytes];
    BuildWorkingKey(usDBGuid, arKey);
    XorKey(lpBuffer, arKey);
    int nBits = 0;
    for (int i = 0; i < kKeyBytes; ++i) {
        lpBuffer[i] = kSubstitution[lpBuffer[i]];
        nBits += g_bits.m_arCount[lpBuffer[i]];
    }
    int nPos = nBits & 7;
    const int nStep = kBitSteps[nBits % 5];
    for (int nRound = 0; nRound < kBitRounds; ++nRound) {
        // Distance 1 to 15: never a byte's own bit.
        const int nDistance = ((usDBGuid & 7) + nPos + 1) % kRingSize + 1;
        ExchangeBit(lpBuffer, nPos, nDistance);
        nPos = (nPos + nStep) & 7;
    }
    BYTE arCopy[kKeyBytes];
    memcpy(arCopy, lpBuffer, kKeyBytes);
    for (int i = 0; i < kKeyBytes; ++i) lpBuffer[i] = kSubstitution[arCopy[kSecondOrder[i]]];
    XorKey(lpBuffer, arKey);
}

void Encryption(const BYTE* pSrc, USHORT usDBGuid, BYTE* pDest) {
    if (pSrc == nullptr || pDest == nullptr) return;
    static_assert(kSecondBlockOffset + kKeyBytes == kEncryptionSourceBytes, "blocks cover the source");
    BYTE arFirst[kKeyBytes], arSecond[kKeyBytes];
    memcpy(arFirst, pSrc, kKeyBytes);
    memcpy(arSecond, pSrc + kSecondBlockOffset, kKeyBytes);
    EncrpytKey(arFirst, kFirstBlockGuid);
    EncrpytKey(arSecond, kSecondBlockGuid);
    for (int i = 0; i < kKeyBytes; ++i) pDest[i] = arFirst[i] ^ arSecond[i];
    EncrpytKey(pDest, usDBGuid);
}
