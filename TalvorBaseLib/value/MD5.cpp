// MD5.cpp — RFC 1321. The round functions are written in the forms that
// need the fewest dependent operations (G as two independent additions), which
// is what lets plain C keep pace with hand-written assembly.

#include "MD5.h"

#include <cstring>

const char TalvorMD5hexchars[17] = "0123456789abcdef";

namespace {

constexpr int kBlockBytes = 64;
constexpr int kLengthOffset = 56;

inline UINT RotateLeft(UINT x, int n) { return (x << n) | (x >> (32 - n)); }

inline UINT LoadLittle(const BYTE* p) {
    return (UINT)p[0] | ((UINT)p[1] << 8) | ((UINT)p[2] << 16) | ((UINT)p[3] << 24);
}

inline void StoreLittle(BYTE* p, UINT x) {
    p[0] = (BYTE)x;
    p[1] = (BYTE)(x >> 8);
    p[2] = (BYTE)(x >> 16);
    p[3] = (BYTE)(x >> 24);
}

}  // namespace

#define MD5_F(a, b, c, d, x, t, s) \
    a += ((d) ^ ((b) & ((c) ^ (d)))) + (x) + (t); a = RotateLeft(a, s) + (b)
#define MD5_G(a, b, c, d, x, t, s) \
    a += (x) + (t) + ((c) & ~(d)); a += (b) & (d); a = RotateLeft(a, s) + (b)
#define MD5_H(a, b, c, d, x, t, s) \
    a += ((b) ^ (c) ^ (d)) + (x) + (t); a = RotateLeft(a, s) + (b)
#define MD5_I(a, b, c, d, x, t, s) \
    a += ((c) ^ ((b) | ~(d))) + (x) + (t); a = RotateLeft(a, s) + (b)

void MD5::MD5Init() {
    m_arState[0] = 0x67452301u;
    m_arState[1] = 0xEFCDAB89u;
    m_arState[2] = 0x98BADCFEu;
    m_arState[3] = 0x10325476u;
    m_ullBytes = 0;
}

void MD5::MD5Transform(const BYTE* lpBlock) {
    UINT x[16];
    for (int i = 0; i < 16; ++i) x[i] = LoadLittle(lpBlock + 4 * i);
    UINT a = m_arState[0], b = m_arState[1], c = m_arState[2], d = m_arState[3];

    MD5_F(a, b, c, d, x[0], 0xd76aa478, 7);   MD5_F(d, a, b, c, x[1], 0xe8c7b756, 12);
    MD5_F(c, d, a, b, x[2], 0x242070db, 17);  MD5_F(b, c, d, a, x[3], 0xc1bdceee, 22);
    MD5_F(a, b, c, d, x[4], 0xf57c0faf, 7);   MD5_F(d, a, b, c, x[5], 0x4787c62a, 12);
    MD5_F(c, d, a, b, x[6], 0xa8304613, 17);  MD5_F(b, c, d, a, x[7], 0xfd469501, 22);
    MD5_F(a, b, c, d, x[8], 0x698098d8, 7);   MD5_F(d, a, b, c, x[9], 0x8b44f7af, 12);
    MD5_F(c, d, a, b, x[10], 0xffff5bb1, 17); MD5_F(b, c, d, a, x[11], 0x895cd7be, 22);
    MD5_F(a, b, c, d, x[12], 0x6b901122, 7);  MD5_F(d, a, b, c, x[13], 0xfd987193, 12);
    MD5_F(c, d, a, b, x[14], 0xa679438e, 17); MD5_F(b, c, d, a, x[15], 0x49b40821, 22);

    MD5_G(a, b, c, d, x[1], 0xf61e2562, 5);   MD5_G(d, a, b, c, x[6], 0xc040b340, 9);
    MD5_G(c, d, a, b, x[11], 0x265e5a51, 14); MD5_G(b, c, d, a, x[0], 0xe9b6c7aa, 20);
    MD5_G(a, b, c, d, x[5], 0xd62f105d, 5);   MD5_G(d, a, b, c, x[10], 0x02441453, 9);
    MD5_G(c, d, a, b, x[15], 0xd8a1e681, 14); MD5_G(b, c, d, a, x[4], 0xe7d3fbc8, 20);
    MD5_G(a, b, c, d, x[9], 0x21e1cde6, 5);   MD5_G(d, a, b, c, x[14], 0xc33707d6, 9);
    MD5_G(c, d, a, b, x[3], 0xf4d50d87, 14);  MD5_G(b, c, d, a, x[8], 0x455a14ed, 20);
    MD5_G(a, b, c, d, x[13], 0xa9e3e905, 5);  MD5_G(d, a, b, c, x[2], 0xfcefa3f8, 9);
    MD5_G(c, d, a, b, x[7], 0x676f02d9, 14);  MD5_G(b, c, d, a, x[12], 0x8d2a4c8a, 20);

    MD5_H(a, b, c, d, x[5], 0xfffa3942, 4);   MD5_H(d, a, b, c, x[8], 0x8771f681, 11);
    MD5_H(c, d, a, b, x[11], 0x6d9d6122, 16); MD5_H(b, c, d, a, x[14], 0xfde5380c, 23);
    MD5_H(a, b, c, d, x[1], 0xa4beea44, 4);   MD5_H(d, a, b, c, x[4], 0x4bdecfa9, 11);
    MD5_H(c, d, a, b, x[7], 0xf6bb4b60, 16);  MD5_H(b, c, d, a, x[10], 0xbebfbc70, 23);
    MD5_H(a, b, c, d, x[13], 0x289b7ec6, 4);  MD5_H(d, a, b, c, x[0], 0xeaa127fa, 11);
    MD5_H(c, d, a, b, x[3], 0xd4ef3085, 16);  MD5_H(b, c, d, a, x[6], 0x04881d05, 23);
    MD5_H(a, b, c, d, x[9], 0xd9d4d039, 4);   MD5_H(d, a, b, c, x[12], 0xe6db99e5, 11);
    MD5_H(c, d, a, b, x[15], 0x1fa27cf8, 16); MD5_H(b, c, d, a, x[2], 0xc4ac5665, 23);

    MD5_I(a, b, c, d, x[0], 0xf4292244, 6);   MD5_I(d, a, b, c, x[7], 0x432aff97, 10);
    MD5_I(c, d, a, b, x[14], 0xab9423a7, 15); MD5_I(b, c, d, a, x[5], 0xfc93a039, 21);
    MD5_I(a, b, c, d, x[12], 0x655b59c3, 6);  MD5_I(d, a, b, c, x[3], 0x8f0ccc92, 10);
    MD5_I(c, d, a, b, x[10], 0xffeff47d, 15); MD5_I(b, c, d, a, x[1], 0x85845dd1, 21);
    MD5_I(a, b, c, d, x[8], 0x6fa87e4f, 6);   MD5_I(d, a, b, c, x[15], 0xfe2ce6e0, 10);
    MD5_I(c, d, a, b, x[6], 0xa3014314, 15);  MD5_I(b, c, d, a, x[13], 0x4e0811a1, 21);
    MD5_I(a, b, c, d, x[4], 0xf7537e82, 6);   MD5_I(d, a, b, c, x[11], 0xbd3af235, 10);
    MD5_I(c, d, a, b, x[2], 0x2ad7d2bb, 15);  MD5_I(b, c, d, a, x[9], 0xeb86d391, 21);

    m_arState[0] += a;
    m_arState[1] += b;
    m_arState[2] += c;
    m_arState[3] += d;
}

void MD5::MD5Update(const void* lpInput, int nLen) {
    if (lpInput == nullptr || nLen < 1) return;
    const BYTE* p = (const BYTE*)lpInput;
    size_t nLeft = (size_t)nLen;
    size_t nHave = (size_t)(m_ullBytes % kBlockBytes);
    m_ullBytes += nLeft;
    if (nHave > 0) {
        const size_t nTake = kBlockBytes - nHave < nLeft ? kBlockBytes - nHave : nLeft;
        memcpy(m_arBuffer + nHave, p, nTake);
        p += nTake;
        nLeft -= nTake;
        if (nHave + nTake < (size_t)kBlockBytes) return;
        MD5Transform(m_arBuffer);
    }
    // Whole blocks straight from the caller's memory: no copy.
    for (; nLeft >= (size_t)kBlockBytes; p += kBlockBytes, nLeft -= kBlockBytes) MD5Transform(p);
    if (nLeft > 0) memcpy(m_arBuffer, p, nLeft);
}

void MD5::MD5Final(BYTE* lpDigest) {
    const ULONGLONG ullBits = m_ullBytes * 8;
    const size_t nHave = (size_t)(m_ullBytes % kBlockBytes);
    m_arBuffer[nHave] = 0x80;
    if (nHave + 1 > (size_t)kLengthOffset) {
        memset(m_arBuffer + nHave + 1, 0, kBlockBytes - nHave - 1);
        MD5Transform(m_arBuffer);
        memset(m_arBuffer, 0, kLengthOffset);
    } else {
        memset(m_arBuffer + nHave + 1, 0, kLengthOffset - nHave - 1);
    }
    StoreLittle(m_arBuffer + kLengthOffset, (UINT)ullBits);
    StoreLittle(m_arBuffer + kLengthOffset + 4, (UINT)(ullBits >> 32));
    MD5Transform(m_arBuffer);
    if (lpDigest != nullptr) {
        for (int i = 0; i < 4; ++i) StoreLittle(lpDigest + 4 * i, m_arState[i]);
    }
}

void MD5::MD5Final(char* lpszHex) {
    BYTE arDigest[MD5_DIGEST_BYTES];
    MD5Final(arDigest);
    if (lpszHex == nullptr) return;
    for (int i = 0; i < MD5_DIGEST_BYTES; ++i) {
        lpszHex[2 * i] = TalvorMD5hexchars[arDigest[i] >> 4];
        lpszHex[2 * i + 1] = TalvorMD5hexchars[arDigest[i] & 15];
    }
    lpszHex[2 * MD5_DIGEST_BYTES] = 0;
}
