// FuzzImage.h — the form in which the file-image targets take their input:
// a size, two tag bytes, then pieces (offset, length, bytes) laid on zeros.
// Database files are mostly zeros, so a real file made by the maker or the
// stand-in becomes a seed of a few KiB (fuzz/make-corpus writes this form),
// and the fuzzer still reaches every offset through the pieces' heads.
//
//   u32 image size | u8 tag A | u8 tag B | { u32 offset | u16 length | bytes }*
//
// A piece that runs past the image is cut at its end; a short tail is
// ignored. All numbers little-endian.
#pragma once

#include "FuzzFiles.h"

#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace talvorfuzz {

struct ImagePiece {
    uint32_t m_nOffset;
    const uint8_t* m_lpBytes;
    uint32_t m_nLength;
};

class CFuzzImage {
public:
    // nMinSize and nMaxSize bound the size the input asks for; the size is
    // then rounded down to nAlign.
    CFuzzImage(const uint8_t* lpData, size_t nSize, uint32_t nMinSize, uint32_t nMaxSize, uint32_t nAlign = 512)
        : m_lpData(lpData), m_nSize(nSize)
    {
        if (nSize < 6) return;
        uint32_t n = Le32(lpData);
        if (n < nMinSize) n = nMinSize;
        if (n > nMaxSize) n = nMaxSize;
        m_nImageSize = n / nAlign * nAlign;
        m_bTagA = lpData[4];
        m_bTagB = lpData[5];
        m_bOk = m_nImageSize >= nMinSize;
    }

    bool Ok() const { return m_bOk; }
    uint32_t ImageSize() const { return m_nImageSize; }
    uint8_t TagA() const { return m_bTagA; }
    uint8_t TagB() const { return m_bTagB; }

    // Calls fn(const ImagePiece&) for every piece, cut to the image.
    template <class F>
    void ForEachPiece(F&& fn) const
    {
        size_t nAt = 6;
        while (nAt + 6 <= m_nSize) {
            uint32_t nOffset = Le32(m_lpData + nAt);
            uint32_t nLength = (uint32_t)m_lpData[nAt + 4] | ((uint32_t)m_lpData[nAt + 5] << 8);
            nAt += 6;
            if (nLength > m_nSize - nAt) nLength = (uint32_t)(m_nSize - nAt);
            if (nOffset < m_nImageSize) {
                uint32_t nFit = m_nImageSize - nOffset < nLength ? m_nImageSize - nOffset : nLength;
                fn(ImagePiece{nOffset, m_lpData + nAt, nFit});
            }
            nAt += nLength;
        }
    }

    // The image into a buffer of ImageSize() bytes.
    void Fill(uint8_t* lpImage) const
    {
        memset(lpImage, 0, m_nImageSize);
        ForEachPiece([&](const ImagePiece& p) { memcpy(lpImage + p.m_nOffset, p.m_lpBytes, p.m_nLength); });
    }

    // The image as a (sparse) file of exactly ImageSize() bytes.
    bool WriteFile(const std::string& strPath) const
    {
        int fd = open(strPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0) return false;
        bool bOk = ftruncate(fd, (off_t)m_nImageSize) == 0;
        ForEachPiece([&](const ImagePiece& p) {
            if (pwrite(fd, p.m_lpBytes, p.m_nLength, (off_t)p.m_nOffset) != (ssize_t)p.m_nLength) bOk = false;
        });
        close(fd);
        return bOk;
    }

private:
    static uint32_t Le32(const uint8_t* p)
    {
        return (uint32_t)p[0] | ((uint32_t)p[1] << 8) | ((uint32_t)p[2] << 16) | ((uint32_t)p[3] << 24);
    }

    const uint8_t* m_lpData;
    size_t m_nSize;
    uint32_t m_nImageSize = 0;
    uint8_t m_bTagA = 0;
    uint8_t m_bTagB = 0;
    bool m_bOk = false;
};

} // namespace talvorfuzz
