// A plan's byte stream from another process: the check of its head, section
// links, chains and item ids, then every id of the records and steps it let
// through resolved and read; and the same bytes as the main buffer of a
// plan whose row value names texts in it by offset. The bytes lie in a
// private copy with nothing behind it, so any read past them is seen.
#include "BaseBson.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

volatile BYTE g_bSink;

void Touch(const BYTE* p, UINT n)
{
    BYTE b = 0;
    for (UINT i = 0; i < n; i++) b ^= p[i];
    g_bSink = b;
}

UINT ReadUint(const BYTE* p)
{
    UINT n;
    memcpy(&n, p, 4);
    return n;
}

// Every item of every record and step section, and the ids inside them.
void WalkItems(const CPlanStreamView& view)
{
    for (UINT nNo = 1; nNo <= view.GetSectionNum(); nNo++) {
        const BYTE* lpHead = view.Resolve((nNo << 16) | sizeof(BUFFERSECTIONHEAD), 0);
        if (lpHead == nullptr) continue;
        lpHead -= sizeof(BUFFERSECTIONHEAD);
        BYTE bType = lpHead[0];
        UINT nUsed = ReadUint(lpHead + 4);
        if (bType == BSON_SECTION_DATA) {
            if (view.Resolve((nNo << 16) | sizeof(BUFFERSECTIONHEAD), nUsed - sizeof(BUFFERSECTIONHEAD)) == nullptr)
                abort();
            continue;
        }
        UINT nItem = bType == BSON_SECTION_RECORDS ? sizeof(RECORDHEAD) : sizeof(EXECUTESTEP);
        for (UINT nPos = 16; nPos + nItem <= nUsed; nPos += nItem) {
            const BYTE* lpItem = view.Resolve((nNo << 16) | nPos, nItem);
            if (lpItem == nullptr) abort();
            UINT nFirst = ReadUint(lpItem + (bType == BSON_SECTION_RECORDS ? 16 : 4));
            UINT nSecond = ReadUint(lpItem + (bType == BSON_SECTION_RECORDS ? 28 : 8));
            // The check promised that a non-zero id names a byte in the stream.
            if (nFirst != 0 && view.Resolve(nFirst, 1) == nullptr) abort();
            if (nSecond != 0 && view.Resolve(nSecond, 1) == nullptr) abort();
            if (nFirst != 0) Touch(view.Resolve(nFirst, 1), 1);
        }
    }
}

// The first bytes as a row value, the whole input as a plan's main data.
void ResolveRowValue(BYTE* lpData, UINT nSize)
{
    if (nSize < 4) return;
    UINT nNum = lpData[0];
    std::vector<BYTE> row(4 + (size_t)(nNum ? nNum : 1) * sizeof(st_VARDATA), 0);
    memcpy(row.data(), lpData, nSize < row.size() ? nSize : row.size());
    auto* pRow = reinterpret_cast<st_MULTIVARDATA*>(row.data());
    st_VARDATA* pValues = pRow->m_arrVarData;
    // Only offsets come from outside: a text that owns its bytes is the
    // process's own and never arrives this way.
    for (UINT i = 0; i < nNum; i++) pValues[i].m_bAutoRelease = 0;
    CBaseBson bson;
    if (bson.SetBuffer(lpData, (int)nSize, (int)nSize) != BSON_OK) abort();
    pRow->GetMultiStringData(&bson);
    for (UINT i = 0; i < nNum; i++) {
        const st_VARDATA& v = pValues[i];
        BOOL bText = v.m_vt == 5 || v.m_vt == 6 || v.m_vt == 7 || v.m_vt == 8 || v.m_vt == 30;
        if (bText && v.m_nStrLen > 0) Touch(reinterpret_cast<const BYTE*>(v.m_lpszValue), (UINT)v.m_nStrLen);
    }
    bson.DetachBuffer();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* lpInput, size_t nSize)
{
    if (nSize > 65536) return 0;
    BYTE* lpData = (BYTE*)malloc(nSize ? nSize : 1);
    if (lpData == nullptr) return 0;
    memcpy(lpData, lpInput, nSize);
    CPlanStreamView view;
    if (view.Attach(lpData, (UINT)nSize) == BSON_OK) {
        Touch(lpData, view.GetMainSize());
        WalkItems(view);
    }
    ResolveRowValue(lpData, (UINT)nSize);
    free(lpData);
    return 0;
}
