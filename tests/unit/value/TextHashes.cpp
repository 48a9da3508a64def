// The hashes: CRC-32 against zlib, MD5 against OpenSSL, and the
// program's own hashes and scrambler by their rules and pinned values.

#include "MD5.h"
#include "PythonReference.h"
#include "TalvorHash.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <zlib.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

std::vector<BYTE> RandomBytes(std::mt19937& rng, size_t n) {
    std::vector<BYTE> v(n);
    for (auto& b : v) b = (BYTE)rng();
    return v;
}

std::string Hex(const BYTE* p, size_t n) { return talvortest::HexOf(std::string((const char*)p, n)); }

}  // namespace

TEST(Crc32, AgreesWithZlibAtEveryLengthAndAlignment) {
    std::mt19937 rng(1);
    const std::vector<BYTE> data = RandomBytes(rng, 4096 + 16);
    for (int nOffset = 0; nOffset < 8; ++nOffset) {
        for (int nLen = 1; nLen <= 300; ++nLen) {
            ASSERT_EQ(TalvorCRC32(data.data() + nOffset, nLen), (UINT)crc32(0, data.data() + nOffset, (uInt)nLen))
                << nOffset << " " << nLen;
        }
    }
    // A length below 1 is 0, not the complement of the start value.
    EXPECT_EQ(TalvorCRC32("x", 0) | TalvorCRC32(nullptr, 5), 0u);
}

TEST(Md5, AgreesWithOpensslInAnyChunking) {
    std::mt19937 rng(2);
    for (int i = 0; i < 400; ++i) {
        // Lengths around the padding edges (55, 56, 63, 64) are the ones
        // that break a finish step.
        const size_t nLen = i < 200 ? (size_t)i : rng() % 5000;
        const std::vector<BYTE> data = RandomBytes(rng, nLen);
        MD5 md5;
        for (size_t nDone = 0, nChunk; nDone < nLen; nDone += nChunk) {
            nChunk = std::min(nLen - nDone, (size_t)(rng() % 130));
            md5.MD5Update(data.data() + nDone, (int)nChunk);
        }
        char szHex[MD5_HEX_BYTES];
        md5.MD5Final(szHex);
        unsigned char arRef[EVP_MAX_MD_SIZE];
        unsigned int nRef = 0;
        EVP_Digest(data.data(), nLen, arRef, &nRef, EVP_md5(), nullptr);
        ASSERT_EQ(std::string(szHex), Hex(arRef, nRef)) << nLen;
    }
}

TEST(SqlHash, WordsRotatedByIndexAndTailIgnored) {
    // One word padded with zeros under 4 bytes.
    EXPECT_EQ(CalcSQLHash("ab", 2), 0x6261u);
    // The fifth byte doesn't count.
    EXPECT_EQ(CalcSQLHash("abcdX", 5), 0x64636261u);
    // Word i is rotated by i mod 30: 31 words of 0x80000000 set bit 31 and
    // bits 0..28 once each, then bit 31 again, which carries out.
    std::string s;
    for (int i = 0; i < 31; ++i) s += std::string("\0\0\0\x80", 4);
    EXPECT_EQ(CalcSQLHash(s.data(), (int)s.size()), 0x1FFFFFFFu);
}

TEST(BkdrHash, SignedBytesAndMask) {
    EXPECT_EQ(BKDRHash("ab", 2), 97u * 131 + 98);
    // A byte above 127 enters as a negative number.
    EXPECT_EQ(BKDRHash("a\xFF", 2), (97u * 131 - 1) & 0x7FFFFFFFu);
    EXPECT_EQ(BKDRHash("abc", 0), 0u);
}

TEST(KeyHash, BucketsAreInRangeForAnyKey) {
    // A value shared with the engine: the bucket of one key must never move.
    EXPECT_EQ(CalcKeyHash("a7-", 257), 35);
    // Letters of either case are the same base-37 digit.
    EXPECT_EQ(CalcKeyHash("ABC", 1021), CalcKeyHash("abc", 1021));
    // Long keys reach every sign and size; a bucket is never negative.
    std::mt19937 rng(4);
    for (int i = 0; i < 20000; ++i) {
        std::string s;
        for (int n = 1 + rng() % 40; n > 0; --n) s += (char)(1 + rng() % 255);
        const int nCount = (i % 2) ? 257 : 0x1000000 + (int)(rng() % 1000);
        const int nBucket = CalcKeyHash(s.c_str(), nCount);
        ASSERT_TRUE(nBucket >= 0 && nBucket < nCount) << nBucket;
    }
}

TEST(Encryption, StableValues) {
    // Values shared with the engine: these bytes must never change.
    BYTE arSrc[24];
    for (int i = 0; i < 24; ++i) arSrc[i] = (BYTE)(i * 11 + 1);
    BYTE arOut[16];
    Encryption(arSrc, 0x1234, arOut);
    EXPECT_EQ(Hex(arOut, 16), "a198f52d1289d134f74b4610f69cf004");
}
