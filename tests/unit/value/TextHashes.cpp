// The hashes: CRC-32 against zlib, MD5 against OpenSSL.

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

