// BaseBson.h — the buffer in which an execution plan is built: a head, a
// block of plan data, and numbered side sections for records, steps and
// other data, all named by a 32-bit address id so that the plan stays valid
// when it is moved or shipped as bytes.
//
// The daemon builds no plans. It holds the class for AddCondition, for
// st_MULTIVARDATA::GetMultiStringData and as the page source of the buffer
// pools; the engine subclasses it and supplies the real address conversion.
// The records below are the engine's layouts too, read as they stand.
//
// Address ids: (section number << 16) | (offset in the section, 16 bits).
// Section 0 is the main buffer, whose ids are plain offsets less
// m_nBsonStartOffset. Buffer sections are numbered from 1; overflow sections
// carry BSON_OVERFLOW_SECTION in their number. Because the offset has only
// 16 bits, a block gets an id only where it starts below BSON_ID_OFFSET_LIMIT
// of its area: a larger offset would name a block of another section.
//
// The byte stream of a plan is the main data, then every buffer section in
// number order (SetSectionOffset links them). Overflow sections are not part
// of it. A stream that comes from another process is checked whole by
// CPlanStreamView before any offset in it is followed.
//
// Thread safety: a plan belongs to the one thread that builds it; no member
// takes a latch and none may be held for it.
#pragma once

#include "TalvorBufferPool.h"
#include "TalvorVarData.h"
#include "TypeDef.h"

#include <cstddef>

// Results. Success, no memory or a full table, an extension past the end of
// the main buffer, an argument that cannot be right, a plan whose offsets
// or sizes don't fit its bytes.
#define BSON_OK 0
#define BSON_NO_MEMORY 3
#define BSON_PAST_END 25
#define BSON_BAD_PARAMETER 48
#define BSON_DAMAGED_PLAN 70

// Free bytes in front of the plan in an owned main buffer.
#define BSON_FRONT_ROOM 112
// Main buffers are whole multiples of this.
#define BSON_GROW_STEP 0x10000u
#define BSON_DEFAULT_SECTION_SIZE 0x10000u
// Offsets an id can carry; see the head of this file.
#define BSON_ID_OFFSET_LIMIT 0x10000u
#define BSON_OVERFLOW_SECTION 0x8000u
#define BSON_MAX_OVERFLOW_SECTIONS 32767u
#define BSON_OVERFLOW_FIRST_ARRAY 4u
#define BSON_OVERFLOW_MAX_ARRAY 32768u
#define BSON_OVERFLOW_ROUND 8192u
// Buffer section numbers must stay clear of BSON_OVERFLOW_SECTION, or an id
// of one would read as an overflow section's.
#define BSON_MAX_BUFFER_SECTIONS 32767u
#define BSON_INLINE_SECTIONS 8u
#define BSON_META_SPACE 1024u
// Every arena block starts with the pointer to the block before it.
#define BSON_META_LINK 8u
#define BSON_META_STEP 0x10000u
#define BSON_POOL_PAGE 16384
#define BSON_TEMP_OWN 0x20000u
#define BSON_TEMP_LENT 16384u
// Chains of masters or of lenders longer than this are taken for loops.
#define BSON_MAX_CHAIN 1024

// Kinds of buffer section.
#define BSON_SECTION_DATA 1
#define BSON_SECTION_RECORDS 2
#define BSON_SECTION_STEPS 3

// Values of m_nAutoRelease.
#define BSON_BUFFER_FOREIGN 0
#define BSON_BUFFER_OWNED 2

// Flags of items that open a further section.
#define BSON_ITEM_CONTINUED 2
#define BSON_ITEM_CONTINUES 1
// Second byte of a condition record that still waits for its right side.
#define BSON_CONDITION_OPEN 3
#define BSON_CONDITION_JOIN 1

#pragma pack(push, 1)

struct BUFFERSECTIONHEAD {
    BYTE m_bSectionType;
    BYTE m_bReserved[3];
    UINT m_nSectionDataSize;    // bytes in use, head included
    UINT m_nNextSectionOffset;  // in the byte stream; 0 in the last
};
typedef BUFFERSECTIONHEAD* LPBUFFERSECTIONHEAD;

// Behind the head in sections of records and of steps.
struct RECORDSECTIONHEAD {
    USHORT m_sPreSectionNo;
    USHORT m_sNextSectionNo;
};
typedef RECORDSECTIONHEAD STEPSECTIONHEAD;

struct RECORDHEAD {
    BYTE m_bOperationType;
    BYTE m_bFieldNum;
    BYTE m_bFlag;
    BYTE m_bReserved2;
    long long m_nDataID;
    UINT m_nRecordLen;
    UINT m_nFieldDataAddrID;
    UINT m_nRsFieldOffset;
    UINT m_nOldRecordLen;
    UINT m_nOldRecordAddrID;
    union {
        long long m_nOldTimestamp;
        long long m_nInsertPlanIndex;
    };
    long long m_nRemoveDataID;
};
typedef RECORDHEAD* LPRECORDHEAD;

struct EXECUTESTEP {
    BYTE m_bStepType;
    BYTE m_bFlag;
    USHORT m_bReserved;
    UINT m_nRecordAddrID;
    UINT m_nNextPlanAddrID;
    union {
        long long m_nStartNodeDataID;
        long long m_nRemoveDataID;
        long long m_nIndexPlanOffset;
    };
    long long m_nEndNodeDataID;
};
typedef EXECUTESTEP* LPEXECUTESTEP;

struct BLOCKINFO {
    UINT m_nBlockNo;
    UINT m_nBlockSize;
    UINT m_nFreeSize;
    union {
        UINT m_nMergeBlockNo;
        UINT m_nBlockFreeSize;
    };
    BYTE m_bObjectType;
    BYTE m_bSource;
    BYTE m_bBlockRound;
    BYTE m_bFlag;
    BYTE m_bRecordLock;
    BYTE m_bUnLock;
    BYTE m_bUse;
    BYTE m_bReserved;
    UINT m_nNextAddrID;
};
typedef BLOCKINFO* LPBLOCKINFO;

struct EXECUTEPLANBSON {
    UINT m_nTotalDataSize;
    UINT m_nDataFlag;
    BYTE m_nType;
    BYTE m_bVersion;
    BYTE m_bWriteLog;
    BYTE m_bDatabaseNo;
    USHORT m_usTransactionNo;
    BYTE m_bObjectMapNum;
    BYTE m_bImplementClass;
    long long m_nTimestamp;
    UINT m_nBsonDataSize;
    UINT m_nObjectMapOffset;
    UINT m_nFreeSectionAddrID;
    UINT m_nSectionStartOffset;
    UINT m_nClientSectionNum;
    UINT m_nClientBsonDataSize;
    DWORD m_dwClientIP;
    DWORD m_dwHashID;
    UINT m_nExetendedParamOffset;
    BYTE m_nSqlOffset;
    BYTE m_bExecuteParam;
    BYTE m_bProtocolType;
    BYTE m_bSessionDatabaseNo;
    UINT m_nUserID;
    UINT m_nReserved2;
    union {
        UINT m_nInsertRecordNum;
        UINT m_nParamKeyword;
    };
    UINT m_nPrivateDataOffset;
    UINT m_nNextPlanAddrID;
    UINT m_nCommandOffset;
};
typedef EXECUTEPLANBSON* LPEXECUTEPLANBSON;

// One link of a chain of conditions (AddCondition).
struct CONDITIONITEM {
    BYTE m_bFirst;
    BYTE m_bSecond;
    BYTE m_bReserved;
    BYTE m_bLogicOperator;
    UINT m_nLeftOffset;
    UINT m_nRightOffset;
};

#pragma pack(pop)

static_assert(sizeof(BUFFERSECTIONHEAD) == 12, "section head is 12 bytes");
static_assert(offsetof(BUFFERSECTIONHEAD, m_nNextSectionOffset) == 8, "next offset at 8");
static_assert(sizeof(RECORDSECTIONHEAD) == 4, "chain head is 4 bytes");
static_assert(sizeof(RECORDHEAD) == 48, "RECORDHEAD is 48 bytes");
static_assert(offsetof(RECORDHEAD, m_nDataID) == 4, "m_nDataID at 4");
static_assert(offsetof(RECORDHEAD, m_nFieldDataAddrID) == 16, "m_nFieldDataAddrID at 16");
static_assert(offsetof(RECORDHEAD, m_nOldRecordAddrID) == 28, "m_nOldRecordAddrID at 28");
static_assert(offsetof(RECORDHEAD, m_nRemoveDataID) == 40, "m_nRemoveDataID at 40");
static_assert(sizeof(EXECUTESTEP) == 28, "EXECUTESTEP is 28 bytes");
static_assert(offsetof(EXECUTESTEP, m_nNextPlanAddrID) == 8, "m_nNextPlanAddrID at 8");
static_assert(offsetof(EXECUTESTEP, m_nEndNodeDataID) == 20, "m_nEndNodeDataID at 20");
static_assert(sizeof(BLOCKINFO) == 28, "BLOCKINFO is 28 bytes");
static_assert(offsetof(BLOCKINFO, m_bObjectType) == 16, "m_bObjectType at 16");
static_assert(offsetof(BLOCKINFO, m_nNextAddrID) == 24, "m_nNextAddrID at 24");
static_assert(sizeof(EXECUTEPLANBSON) == 88, "plan head is 88 bytes");
static_assert(offsetof(EXECUTEPLANBSON, m_nTimestamp) == 16, "m_nTimestamp at 16");
static_assert(offsetof(EXECUTEPLANBSON, m_nBsonDataSize) == 24, "m_nBsonDataSize at 24");
static_assert(offsetof(EXECUTEPLANBSON, m_nSectionStartOffset) == 36, "m_nSectionStartOffset at 36");
static_assert(offsetof(EXECUTEPLANBSON, m_nSqlOffset) == 60, "m_nSqlOffset at 60");
static_assert(offsetof(EXECUTEPLANBSON, m_nUserID) == 64, "m_nUserID at 64");
static_assert(offsetof(EXECUTEPLANBSON, m_nCommandOffset) == 84, "m_nCommandOffset at 84");
static_assert(sizeof(CONDITIONITEM) == 12, "condition record is 12 bytes");

class CBaseBson;

// Lends a plan's memory to a page pool (TalvorBufferPool.h) without putting
// the pool's interface in front of the plan's own virtual table.
class CBsonPageSource : public ITalvorPageSource {
public:
    explicit CBsonPageSource(CBaseBson* pOwner) : m_pOwner(pOwner) {}
    int AllocMemoryBufferPool(LPBYTE& lpBuffer, UINT& nSize, void*& pCookie, BOOL bBufferPool) override;
    void FreeMemoryBufferPool(LPBYTE lpBuffer, void* pCookie) override;

private:
    CBaseBson* m_pOwner;
};

class CBaseBson {
public:
    CBaseBson();
    // Gives back owned buffers, sections and pool pages.
    virtual ~CBaseBson();

    // ---- The virtual table, in the engine's order.

    // Back to the state after construction: owned buffers given back, both
    // pools emptied, the arena down to its inline space, all counters 0,
    // m_nDefaultBufferSectionSize 0x10000. The settings the owner made
    // (m_pMasterBson, m_pMemoryBson, m_bAllowBsonSection,
    // m_bNoneExecutePlan, m_nBsonStartOffset) stay.
    virtual void Free();
    // Result: 0, the main buffer now in an owned block of the size rule
    // for nSize with the plan copied over (a size that would not make the
    // buffer larger changes nothing); 3 when memory is out, the plan as it
    // was. Pointers into the old buffer are invalid after a move.
    virtual int ReAllocBsonBuffer(UINT nSize);
    // Result: 0 and lpSection at a new buffer section of nSize bytes (at
    // least a head) with its head zeroed; 3 when memory is out or the table
    // is full. Sections are numbered from 1 in the order made.
    virtual int AllocBufferSection(UINT nSize, LPBYTE& lpSection);
    // Result: bytes of the plan's byte stream, less m_nBsonStartOffset.
    virtual UINT GetExecutePlanDataSize();
    // The engine's conversion; here result 1 and lpAddr null.
    virtual int ConvertAddrID2Addr(UINT nAddrID, LPBYTE& lpAddr);
    // The engine's conversion; here nothing.
    virtual void GetSectionBufferAddr(UINT nSectionNo, LPBYTE& lpAddr);
    // Writes every section head's data size and the offset of the next
    // section in the byte stream, and the stream's sizes into the plan head.
    virtual void SetSectionOffset();
    // Result: the main buffer at nOffset + m_nBsonStartOffset; null when
    // that is 0, 0xFFFFFFFF or more, past the buffer, or there is no buffer.
    virtual LPBYTE ConvertOffset2Addr(UINT nOffset);
    // Result: the plan head; null with m_bNoneExecutePlan or no buffer.
    virtual LPEXECUTEPLANBSON GetExecutePlan();
    // Memory for this plan and its pools: from m_pMemoryBson when set, else
    // from m_stMemoryPool with a null cookie. nSize may come back raised.
    // Result: 0, or the source's failure (3 here).
    virtual int AllocMemoryBufferPool(LPBYTE& lpBuffer, UINT& nSize, void*& pCookie, BOOL bBufferPool);
    // Takes back what AllocMemoryBufferPool gave. Without m_pMemoryBson a
    // non-null cookie is not this plan's and nothing is freed.
    virtual void FreeMemoryBufferPool(LPBYTE lpBuffer, void* pCookie);

    // ---- The main buffer.

    // Gives back owned buffers and sections, empties the pools, then takes
    // a main buffer for nSize bytes (zeroed) and a temporary buffer from
    // pMemory's memory, or this plan's with pMemory null. pMemory must
    // outlive what it lends. Result: 0; 3; 48, with nothing given back,
    // when pMemory draws its memory from this plan.
    int AllocBsonBuffer(CBaseBson* pMemory, UINT nSize);
    // nSize zeroed bytes at addr/ptr: in the main buffer while the block
    // fits and starts below BSON_ID_OFFSET_LIMIT, else (when
    // m_bAllowBsonSection) in an overflow section. A non-null ptr in the
    // main buffer extends the block that starts there to nSize bytes, its
    // bytes kept; the end of the data never moves back. Result: 0; 3 when
    // there is no room; 25 for an extension past the buffer's end or a ptr
    // outside it. nSize 0 gives addr 0 and 0 and takes no buffer.
    int AllocFromBsonBuffer(UINT nSize, volatile UINT& addr, LPBYTE& ptr);
    // nSize bytes, not zeroed, on a 4-byte boundary of the main buffer only.
    // Result: 0 or 3.
    int AllocFromBsonBufferEx(UINT nSize, UINT& addr, LPBYTE& ptr);
    // nSize zeroed bytes in an overflow section. Result: 0; 3 when sections
    // are not allowed, memory is out or nSize is negative.
    int AllocFromBsonBufferSection(int nSize, LPBYTE& ptr, volatile UINT& addr);
    // Opens the next overflow section, for at least nSize bytes. Result: 0
    // or 3.
    int AllocBsonBufferSection(UINT nSize);
    // Appends at m_nBsonDataSize. Result: TRUE, or FALSE with nothing
    // written when the main buffer is missing or full.
    BOOL AppendByte(BYTE bValue);
    BOOL AppendShort(short sValue);
    BOOL AppendInt32(int nValue);
    BOOL AppendInt64(long long llValue);
    BOOL AppendDouble(double dblValue);
    BOOL AppendBuffer(const void* lpData, UINT nLen);
    // Encodes field nFieldNo of bType from vValue at lpPos (extending the
    // block there) or at the end of the main buffer. Result: bytes written;
    // 0 for a type without a layout, a text that doesn't fit, or no room.
    int WriteFieldData(BYTE bType, BYTE bFieldNo, VARDATA& vValue, LPBYTE lpPos);
    // Attaches the caller's buffer (it stays the caller's). Result: 0, or
    // 48 for sizes that don't fit each other.
    int SetBuffer(LPBYTE lpBuffer, int nSize, int nDataSize);
    // Result: the plan start; the plan forgets its main buffer. Memory of
    // an owned buffer stays the memory source's and lives as long as it.
    LPBYTE DetachBuffer();

    // ---- Buffer sections, on the root of m_pMasterBson.

    // nSize zeroed bytes in the open data section. Result: 0 or 3.
    int AllocFromBufferSection(UINT nSize, UINT& addr, LPBYTE& ptr);
    // One zeroed item each. Result: 0 or 3.
    int AllocRecord(LPRECORDHEAD& lpRecord, UINT& addr);
    int AllocStep(LPEXECUTESTEP& lpStep, UINT& addr);
    int AllocBlockInfo(LPBLOCKINFO& lpBlockInfo, UINT& addr);
    // The plan that section allocations go to.
    CBaseBson* GetRootBson();

    // ---- Scratch memory and the arena.

    // nSize bytes that are not part of the plan, from the temporary buffer
    // or m_stBufferPool; zeroed with bZero. Result: 0 or 3.
    int AllocFromBufferPool(UINT nSize, LPBYTE& ptr, BOOL bZero);
    // nCount zeroed pointers from the meta arena, valid until Free.
    // Result: 0 or 3.
    int AllocBsonMetaData(int nCount, LPBYTE*& ptr);

    // ---- Ids, the byte stream, a former state.

    // Result: the nBytes at nAddrID, in the main buffer of this plan or a
    // section of the root; null when the id names nothing or the bytes
    // don't lie inside what is in use there.
    LPBYTE GetAddrFromAddrID(UINT nAddrID, UINT nBytes);
    // Result: nBytes of the main buffer at nOffset (ConvertOffset2Addr),
    // null unless they lie inside its data.
    LPBYTE GetDataAt(UINT nOffset, UINT nBytes);
    // Closes the sections (SetSectionOffset) and copies the byte stream to
    // lpOut. Result: bytes written, 0 when nRoom is short or there is no
    // main buffer.
    UINT CopyExecutePlan(LPBYTE lpOut, UINT nRoom);
    // Remembers the present state; ResetOriginState goes back to it. Free,
    // AllocBsonBuffer, SetBuffer and DetachBuffer forget it.
    void SetOriginState();
    // Sections opened since are given back or kept for reuse, sizes and
    // open sections are as they were. Result: 0, or 48 when no state was
    // remembered.
    int ResetOriginState();

    // ---- Fields. The engine's subclasses read and write them directly.
    LPBYTE m_lpBuf;
    void* m_lpBufPtr;
    LPBYTE m_lpBuffer;
    CBaseBson* m_pMasterBson;
    CBaseBson* m_pMemoryBson;
    UINT m_nFreeBufferSize, m_nOriginFreeBufferSize;
    UINT m_nExecutePlanDataSize, m_nOriginExecutePlanDataSize;
    UINT m_nBsonStartOffset;
    int m_nAutoRelease;
    UINT m_nDefaultBufferSectionSize;
    UINT m_nBsonBufferSize, m_nOriginBsonBufferSize;
    UINT m_nBsonDataSize, m_nOriginBsonDataSize;

    LPBYTE* m_lpBsonSectionArray;
    UINT m_nBsonSectionArrayCount;
    UINT m_nBsonSectionNum, m_nOriginBsonSectionNum;
    LPBYTE m_lpBsonCurrentSection, m_lpOriginBsonCurrentSection;
    UINT m_nBsonCurrentDataSize, m_nOriginBsonCurrentDataSize;
    UINT m_nBsonCurrentSectionNo, m_nOriginBsonCurrentSectionNo;
    UINT m_nBsonCurrentSectionSize, m_nOriginBsonCurrentSectionSize;
    BOOL m_bAllowBsonSection;

    LPBUFFERSECTIONHEAD m_lpCurrentSection, m_lpOriginCurrentSection;
    UINT m_nCurrentDataSize, m_nOriginCurrentDataSize;
    UINT m_nCurrentSectionSize, m_nOriginCurrentSectionSize;
    UINT m_nCurrentSectionNo, m_nOriginCurrentSectionNo;

    LPBUFFERSECTIONHEAD m_lpRecordSection, m_lpOriginRecordSection;
    UINT m_nCurrentRecordDataSize, m_nOriginCurrentRecordDataSize;
    UINT m_nCurrentRecordSectionSize, m_nOriginCurrentRecordSectionSize;
    UINT m_nCurrentRecordSectionNo, m_nOriginCurrentRecordSectionNo;

    LPBUFFERSECTIONHEAD m_lpStepSection, m_lpOriginStepSection;
    UINT m_nCurrentStepDataSize, m_nOriginCurrentStepDataSize;
    UINT m_nCurrentStepSectionSize, m_nOriginCurrentStepSectionSize;
    UINT m_nCurrentStepSectionNo, m_nOriginCurrentStepSectionNo;

    LPBYTE m_arrBufferSection[BSON_INLINE_SECTIONS];
    LPBYTE* m_lpBufferSectionArray;
    UINT m_nSectionArrayCount;
    UINT m_nBufferSectionNum, m_nOriginBufferSectionNum;
    UINT m_nSectionStartOffset;
    BOOL m_bChangeSection, m_bOriginChangeSection;
    BOOL m_bNoneExecutePlan;
    BOOL m_bHasOrigin;

    UINT m_nBsonMetaPos;
    UINT m_nBsonMetaSize;
    LPBYTE m_lpBsonMetaBuf;
    alignas(8) BYTE m_lpBsonMetaSpace[BSON_META_SPACE];

    LPRECORDHEAD m_lpPreRecordHead, m_lpOriginPreRecordHead;
    LPEXECUTESTEP m_lpPreExecuteStep, m_lpOriginPreExecuteStep;
    LPBLOCKINFO m_lpPreBlockInfo, m_lpOriginPreBlockInfo;
    BYTE m_bOriginPreRecordFlag, m_bOriginPreStepFlag, m_bOriginPreBlockFlag;

    LPBYTE m_lpTempBuffer;
    void* m_lpTempBufferPtr;
    UINT m_nTempBufferSize;
    UINT m_nTempDataSize;

    CBsonPageSource m_stPageSource;
    CTalvorBufferPoolEx2 m_stBufferPool;
    CTalvorMemoryPool m_stMemoryPool;

private:
    void ClearState();
    void ReleaseAreas();
    void ReleaseMeta();
    void ForgetOrigin();
    int TakeZeroedBlock(UINT nBlock, LPBYTE& lpBlock, void*& pCookie);
    void UseMainBlock(LPBYTE lpBlock, void* pCookie, UINT nBlock);
    int TakeMainBuffer(UINT nSize);
    int TakeTempBuffer(BOOL bLent);
    BOOL LendsBack(const CBaseBson* pMemory) const;
    void GiveBack(LPBYTE& lpBlock, void*& pCookie);
    UINT MainIdRoom(UINT nSize) const;
    int AllocFromOverflow(UINT nSize, LPBYTE& ptr, volatile UINT& addr);
    int ExtendInMain(UINT nSize, volatile UINT& addr, LPBYTE& ptr);
    int AllocOverflowBlock(UINT nCapacity, LPBYTE& lpBlock);
    int GrowOverflowArray();
    int GrowSectionTable();
    BOOL AppendRaw(const void* lpData, UINT nLen);
    int OpenSection(BYTE bType, UINT nSize, LPBUFFERSECTIONHEAD& lpHead, UINT& nSectionNo);
    int OpenChainSection(BYTE bType, LPBUFFERSECTIONHEAD& lpSection, UINT& nDataSize, UINT& nSectionSize,
                         UINT& nSectionNo);
    int AllocItem(BYTE bType, UINT nItemSize, LPBYTE& lpItem, UINT& addr, BOOL& bNewSection);
    UINT OpenSectionDataSize(UINT nSectionNo, BYTE bType) const;
    UINT SectionUsed(UINT nSectionNo) const;
    LPBYTE OverflowAddr(UINT nSection, UINT nOffset, UINT nBytes) const;
    void ReopenOriginSections();

    CBaseBson(const CBaseBson&) = delete;
    CBaseBson& operator=(const CBaseBson&) = delete;
};

// A plan's byte stream from another process, checked before use: the head,
// every section head and its chain, every offset in the head and every id
// in a record or step. Nothing of the stream is followed unless Attach
// accepted it, and Resolve checks each access again.
class CPlanStreamView {
public:
    CPlanStreamView();
    ~CPlanStreamView();

    // Result: 0 when the nSize bytes at lpData hold a whole plan stream,
    // 70 when an offset or size in them points past them or the layout
    // doesn't hold, 3 when memory is out. The bytes are not copied and must
    // outlive the view; they are only read.
    int Attach(const BYTE* lpData, UINT nSize);
    // Result: the nBytes at nAddrID in the attached stream, or null.
    const BYTE* Resolve(UINT nAddrID, UINT nBytes) const;
    UINT GetSectionNum() const { return m_nSectionNum; }
    UINT GetMainSize() const { return m_nMainSize; }

private:
    void Reset();
    int ReadSections(UINT nStart, UINT nTotal);
    int KeepSection(UINT nOffset);
    int CheckHead() const;
    int CheckChains() const;
    int CheckItems() const;
    BOOL IdIsSound(UINT nAddrID) const;
    const BUFFERSECTIONHEAD* SectionHead(UINT nSectionNo) const;

    const BYTE* m_lpData;
    UINT m_nSize;
    UINT m_nMainSize;
    UINT m_nSectionNum;
    UINT m_nSectionRoom;
    UINT* m_pSectionOffset;

    CPlanStreamView(const CPlanStreamView&) = delete;
    CPlanStreamView& operator=(const CPlanStreamView&) = delete;
};

// Chains condition nConditionOffset into the tree whose root is at
// nRootOffset (0: none yet) with bLogicOperator, in 12-byte records of the
// plan's main buffer (an overflow section when it is full); nRootOffset
// comes back as the new root. Result: 0; 3 when there is no room; 70 when
// nRootOffset doesn't name a record of the plan; 48 for a null plan.
int AddCondition(CBaseBson* pBson, BYTE bConditionType, UINT nConditionOffset, BYTE bLogicOperator,
                 UINT& nRootOffset);
