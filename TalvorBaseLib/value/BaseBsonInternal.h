// BaseBsonInternal.h — what the sources of CBaseBson share and nobody else
// needs: the head of an overflow section's block.
#pragma once

#include "BaseBson.h"

// In front of every overflow section's bytes. The block is an arena block,
// so it starts with the arena's link; the section's slot points behind
// this head.
struct BSONOVERFLOWHEAD {
    LPBYTE m_lpNextBlock;
    UINT m_nCapacity;  // bytes the section may hold
    UINT m_nUsed;      // bytes handed out
};
static_assert(sizeof(BSONOVERFLOWHEAD) == 16, "overflow head keeps the data 8-aligned");

inline BSONOVERFLOWHEAD* OverflowHead(LPBYTE lpSection)
{
    return reinterpret_cast<BSONOVERFLOWHEAD*>(lpSection - sizeof(BSONOVERFLOWHEAD));
}

inline UINT& OverflowUsed(LPBYTE lpSection)
{
    return OverflowHead(lpSection)->m_nUsed;
}
