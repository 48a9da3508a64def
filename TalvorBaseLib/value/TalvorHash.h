// TalvorHash.h — the keyless hashes of the value library, the CRC-32 of the
// SQL function CRC32, the per-request data token and the scrambling of key
// material shared with the engine.
//
// All arithmetic is unsigned with wrap-around; none of these is a keyed or
// cryptographic hash. Values that are stored or exchanged with the engine
// (CalcSQLHash, BKDRHash, CalcKeyHash, TalvorCRC32, Encryption) must never
// change between builds.
//
// Thread-safety: every function is pure over constant tables, apart from
// CreateDataToken, which reads the clock; all may run on any thread.
#pragma once

#include "TypeDef.h"

// The standard (reflected, polynomial 0x04C11DB7) CRC-32 of nLen bytes: start
// at 0xFFFFFFFF, complement at the end. A length below 1 gives 0, without the
// complement. This is the computation behind the keyword parser's
// CRC32Encrypt.
UINT TalvorCRC32(const void* lpData, int nLen);

// Sum over the text's whole 4-byte little-endian words, word i rotated left
// by (i modulo 30). A text under 4 bytes is one word padded with zeros; in a
// longer text the 1 to 3 bytes behind the last whole word don't count. A null
// text or a length below 1 gives 0.
UINT CalcSQLHash(const char* lpszText, int nLen);

// BKDR hash, seed 131, over signed bytes, ANDed with 0x7FFFFFFF. A null text
// or a length below 1 gives 0.
UINT BKDRHash(const char* lpszText, int nLen);

// Bucket, from 0 to nCount - 1, of a NUL-terminated key: digits and letters
// enter as base-37 digits, other bytes by 131; the 64-bit sum is spread over
// the buckets by the rule of the 64-bit integer map. nCount below 1 or a null
// text gives 0. Never negative.
int CalcKeyHash(const char* lpszText, int nCount);

// A 16-bit token from the clock: (microseconds since 1970 modulo 32765) + 1,
// so 1 to 32765.
USHORT CreateDataToken();

// Scrambles 16 bytes in place under the database number usDBGuid. A
// bijection for every usDBGuid. Null is a no-op.
void EncrpytKey(BYTE* lpBuffer, USHORT usDBGuid);

// Derives 16 bytes into pDest from 24 bytes at pSrc and a database number:
// the overlapping blocks 0..15 and 8..23 are scrambled under two fixed
// numbers, XORed together, and the sum scrambled under usDBGuid. Null
// arguments are a no-op.
void Encryption(const BYTE* pSrc, USHORT usDBGuid, BYTE* pDest);
