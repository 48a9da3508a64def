// MD5.h — the MD5 message digest (RFC 1321), for the SQL function MD5 and for
// fingerprints of stored text. Not for secrets.
//
// Use: MD5Init, any number of MD5Update, one MD5Final. A fresh object is
// already initialised. After MD5Final the object must be initialised again
// before it is reused.
//
// Thread-safety: one object belongs to one thread at a time; distinct objects
// are independent.
#pragma once

#include "TypeDef.h"

#define MD5_DIGEST_BYTES 16
#define MD5_HEX_BYTES 33  // 32 hexadecimal digits and a NUL

class MD5 {
public:
    MD5() { MD5Init(); }

    // Starts a new digest. Result: none.
    void MD5Init();

    // Adds nLen bytes. A null pointer or a length below 1 adds nothing.
    void MD5Update(const void* lpInput, int nLen);

    // Pads, finishes and writes the 16 digest bytes. Null is a no-op but
    // still finishes the digest.
    void MD5Final(BYTE* lpDigest);

    // Same, as 32 lower-case hexadecimal digits and a NUL (MD5_HEX_BYTES).
    void MD5Final(char* lpszHex);

    // Runs the compression function over one 64-byte block. Exposed for
    // callers that feed whole blocks; normally reached through MD5Update.
    void MD5Transform(const BYTE* lpBlock);

private:
    UINT m_arState[4];
    ULONGLONG m_ullBytes;
    BYTE m_arBuffer[64];
};

// The lower-case hexadecimal digits the digest is written with.
extern const char TalvorMD5hexchars[17];
