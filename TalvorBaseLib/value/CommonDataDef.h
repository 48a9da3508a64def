// CommonDataDef.h — the value library's own containers: two ring queues, two
// stacks and three hash maps.
//
// Each keeps a small, fixed capacity inside the object, so a container on a
// stack frame costs no heap until it outgrows it; the objects are large for
// that reason and belong on the stack or inside a bigger record. No library
// container is used, no exception is thrown, and a failed allocation is
// reported by a result (maps) or by dropping the value (queues, stacks).
//
// Thread safety, for every class here: none; no latch is taken or expected.
// A container is used by one thread at a time.
#pragma once

#include "TypeDef.h"

#include <climits>
#include <cstring>
#include <new>

// Elements and nodes held inside a queue, stack or string map.
#define TALVOR_CONTAINER_INLINE 64
// A store never grows past this many slots: doubling it again would wrap the
// int that counts them.
#define TALVOR_CONTAINER_MAX_SLOTS (1 << 30)

// Ring queue over a store that doubles when full. One slot always stays free,
// so the inline store holds 63 elements.
template <typename T, bool bClearOnPop>
class CTalvorRingQueue {
public:
    CTalvorRingQueue() { UseInline(); }
    ~CTalvorRingQueue() { DropHeap(); }

    // Result: TRUE when no element is held.
    BOOL empty() const { return m_nBegin == m_nEnd; }
    // Result: number of elements held.
    int size() const
    {
        int n = m_nEnd - m_nBegin;
        return n < 0 ? n + m_nCount : n;
    }
    // Result: the oldest element, or 0 when empty.
    T front() const { return empty() ? T() : m_pData[m_nBegin]; }
    // Result: the newest element, or 0 when empty.
    T back() const
    {
        if (empty()) return T();
        return m_pData[m_nEnd == 0 ? m_nCount - 1 : m_nEnd - 1];
    }
    // Appends; when the store is full and cannot grow the value is dropped
    // and the queue stays as it was.
    void push(T value)
    {
        if (IsFull() && !Grow()) return;
        m_pData[m_nEnd] = value;
        if (++m_nEnd == m_nCount) m_nEnd = 0;
    }
    // Drops the oldest element; nothing on an empty queue.
    void pop()
    {
        if (empty()) return;
        if (bClearOnPop) m_pData[m_nBegin] = T();
        if (++m_nBegin == m_nCount) m_nBegin = 0;
    }
    // Result: slot n of the store, which is element n only while nothing was
    // popped; 0 once anything was popped, or when n is negative or above
    // size(). n equal to size() reads the free slot behind the last element.
    T get(int n) const
    {
        if (n < 0 || n > size() || m_nBegin != 0) return T();
        return m_pData[n];
    }
    // Gives a heap store back and leaves the queue empty on its inline store.
    void free()
    {
        DropHeap();
        UseInline();
    }

protected:
    T m_arData[TALVOR_CONTAINER_INLINE];
    int m_nBegin;
    int m_nEnd;
    T* m_pData;
    int m_nCount;

private:
    BOOL IsFull() const { return m_nEnd + 1 == m_nBegin || m_nEnd + 1 == m_nBegin + m_nCount; }
    void UseInline()
    {
        memset(m_arData, 0, sizeof(m_arData));
        m_pData = m_arData;
        m_nBegin = 0;
        m_nEnd = 0;
        m_nCount = TALVOR_CONTAINER_INLINE;
    }
    void DropHeap()
    {
        if (m_pData != m_arData) delete[] m_pData;
    }
    // Doubles the store, moving the elements to its start in queue order.
    BOOL Grow()
    {
        if (m_nCount > TALVOR_CONTAINER_MAX_SLOTS / 2) return FALSE;
        int nNewCount = m_nCount * 2;
        T* pNew = new (std::nothrow) T[nNewCount];
        if (pNew == nullptr) return FALSE;
        int nSize = size();
        for (int i = 0; i < nSize; ++i) pNew[i] = m_pData[(m_nBegin + i) % m_nCount];
        for (int i = nSize; i < nNewCount; ++i) pNew[i] = T();
        DropHeap();
        m_pData = pNew;
        m_nCount = nNewCount;
        m_nBegin = 0;
        m_nEnd = nSize;
        return TRUE;
    }

    CTalvorRingQueue(const CTalvorRingQueue&) = delete;
    CTalvorRingQueue& operator=(const CTalvorRingQueue&) = delete;
};

class CTalvorQueueUINT : public CTalvorRingQueue<UINT, false> {
public:
    // Writes every element in queue order to p, which has room for size().
    void copy(UINT* p) const
    {
        int nSize = size();
        for (int i = 0; i < nSize; ++i) p[i] = m_pData[(m_nBegin + i) % m_nCount];
    }
};

// Pops null the slot they leave, so no stale pointer stays in the store.
class CTalvorQueue : public CTalvorRingQueue<void*, true> {
};

// Stack over a store that doubles when full.
template <typename T>
class CTalvorStackBase {
public:
    CTalvorStackBase() { UseInline(); }
    ~CTalvorStackBase() { DropHeap(); }

    // Result: TRUE when no element is held.
    BOOL empty() const { return m_nPos == 0; }
    // Result: number of elements held.
    int size() const { return m_nPos; }
    // Result: the last element pushed, or 0 when empty.
    T top() const { return m_nPos == 0 ? T() : m_pData[m_nPos - 1]; }
    // Pushes; when the store is full and cannot grow the value is dropped.
    void push(T value)
    {
        if (m_nPos == m_nCount && !Grow()) return;
        m_pData[m_nPos++] = value;
    }
    // Drops the last element; nothing on an empty stack.
    void pop()
    {
        if (m_nPos > 0) --m_nPos;
    }
    // Gives a heap store back and leaves the stack empty on its inline store.
    void free()
    {
        DropHeap();
        UseInline();
    }

protected:
    T m_arData[TALVOR_CONTAINER_INLINE];
    int m_nPos;
    T* m_pData;
    int m_nCount;

private:
    void UseInline()
    {
        memset(m_arData, 0, sizeof(m_arData));
        m_pData = m_arData;
        m_nPos = 0;
        m_nCount = TALVOR_CONTAINER_INLINE;
    }
    void DropHeap()
    {
        if (m_pData != m_arData) delete[] m_pData;
    }
    BOOL Grow()
    {
        if (m_nCount > TALVOR_CONTAINER_MAX_SLOTS / 2) return FALSE;
        int nNewCount = m_nCount * 2;
        T* pNew = new (std::nothrow) T[nNewCount];
        if (pNew == nullptr) return FALSE;
        for (int i = 0; i < m_nPos; ++i) pNew[i] = m_pData[i];
        for (int i = m_nPos; i < nNewCount; ++i) pNew[i] = T();
        DropHeap();
        m_pData = pNew;
        m_nCount = nNewCount;
        return TRUE;
    }

    CTalvorStackBase(const CTalvorStackBase&) = delete;
    CTalvorStackBase& operator=(const CTalvorStackBase&) = delete;
};

class CTalvorStack : public CTalvorStackBase<void*> {
public:
    // Result: element n from the bottom, or null when n is out of range.
    void* at(int n) const { return n < 0 || n >= m_nPos ? nullptr : m_pData[n]; }
};

class CTalvorStackInt64 : public CTalvorStackBase<long long> {
};

// Results of the maps' Set.
#define TALVOR_MAP_NEW 0
#define TALVOR_MAP_REPLACED 3
#define TALVOR_MAP_NO_MEMORY 3
// Result of CTalvorMapString::Get for an absent key.
#define TALVOR_MAP_ABSENT (-1)

#define TALVOR_MAPSTRING_BUCKETS 128
#define TALVOR_MAPSTRING_NAME 64
#define TALVOR_MAPINT64_BUCKETS 257

struct stu_MapString_BaseData {
    char m_lpszDataID[TALVOR_MAPSTRING_NAME];  // empty: a free node
    UINT m_nData;
    stu_MapString_BaseData* m_lpNext;
};

// Text keys, copied into the node and cut to 63 bytes, with UINT values. The
// first 64 entries use nodes inside the object; a removed entry leaves its
// node in its chain for the next key of that bucket.
class CTalvorMapString {
public:
    CTalvorMapString();
    virtual ~CTalvorMapString();

    // Result: TALVOR_MAP_NEW for a new key; TALVOR_MAP_REPLACED when the key
    // was there and its value is replaced, and also (same number) when no
    // node could be had, a null or empty key included, and nothing changed.
    int Set(const char* lpKey, UINT nValue);
    // Result: 0 with the value in nValue; TALVOR_MAP_ABSENT when the key is
    // absent, nValue untouched. A key longer than 63 bytes is never found:
    // only its cut form was stored.
    int Get(const char* lpKey, UINT& nValue) const;
    // Result: the value that was stored, or 0 when the key is absent.
    UINT Remove(const char* lpKey);
    // Result: the position of the first entry in bucket order, or null.
    LPVOID GetHeadPosition() const;
    // Gives the entry at pos (its name inside the map, its value) and moves
    // pos to the next entry, null at the end. A null pos gives null and 0.
    // Set and Remove between calls may skip or repeat entries.
    void GetNext(LPVOID& pos, char*& lpKey, UINT& nValue) const;
    // Result: entries held, counted by walking every bucket.
    int Count() const;
    // Empties the map and gives its heap nodes back.
    void Clear();
    // The same as Clear: the map stays usable.
    void Free();

private:
    int GetPos(const char* lpKey) const;
    stu_MapString_BaseData* FindNamed(const char* lpKey) const;
    stu_MapString_BaseData* FindFreeInChain(int nPos) const;
    stu_MapString_BaseData* NewNode(int nPos);
    BOOL IsInline(const stu_MapString_BaseData* pNode) const;
    void DeleteHeapNodes();
    stu_MapString_BaseData* FirstNamedFrom(int nBucket) const;

    int m_nIndex;       // inline nodes handed out
    int m_nDataCount;   // buckets
    int m_nDataNum;     // live entries
    stu_MapString_BaseData** m_lpBaseData;
    stu_MapString_BaseData* m_arData[TALVOR_MAPSTRING_BUCKETS];
    stu_MapString_BaseData m_arTempData[TALVOR_CONTAINER_INLINE];

    CTalvorMapString(const CTalvorMapString&) = delete;
    CTalvorMapString& operator=(const CTalvorMapString&) = delete;
};

struct stu_Map_BaseData {
    long long m_nData;  // 0 in a head node: free
    stu_Map_BaseData* m_lpNext;
};

// A set of 64-bit keys; one key a bucket costs no allocation.
//
// 0 marks a free head, so the key 0 is seen as present while the head of its
// bucket is free, and a Set(0) on a free head stores nothing.
class CTalvorMapInt64 {
public:
    CTalvorMapInt64();
    virtual ~CTalvorMapInt64();

    // Result: 0, also when the key was there; TALVOR_MAP_NO_MEMORY when no
    // node could be had, and nothing changed.
    int Set(long long nKey);
    // Result: 1 when present, 0 when not.
    int Find(long long nKey) const;
    // Empties the set and gives its chain nodes back.
    void Clear();

private:
    int GetPos(long long nKey) const;
    void DeleteChains();

    BOOL m_bAllocMemory;
    int m_nDataCount;
    stu_Map_BaseData* m_lpBaseData;
    stu_Map_BaseData m_arData[TALVOR_MAPINT64_BUCKETS];

    CTalvorMapInt64(const CTalvorMapInt64&) = delete;
    CTalvorMapInt64& operator=(const CTalvorMapInt64&) = delete;
};

struct stu_MapCache_BaseData {
    char* m_lpszData;   // the caller's key text; null: a free node
    LPVOID m_lpData;
    long long m_nTime;  // FILETIME of the last Set of this key
    stu_MapCache_BaseData* m_lpNext;
};

// Text keys held by the caller's pointer (not copied), with values the map
// owns: blocks from new[] of bytes, given back with delete[] when a Set
// replaces them. Remove hands a value back to the caller; Clear and the
// destructor give back neither keys nor values.
//
// A key's text must not change while the map holds it: positions walk on by
// hashing it again.
class CTalvorMapCache {
public:
    // A table of nCount head nodes; if it cannot be had (or nCount is not
    // positive) the map is unusable: IsUsable is FALSE, Set gives
    // TALVOR_MAP_NO_MEMORY and the rest find nothing.
    explicit CTalvorMapCache(int nCount);
    virtual ~CTalvorMapCache();

    // Result: TRUE when the bucket table exists.
    BOOL IsUsable() const { return m_lpBaseData != nullptr; }
    // Result: 0 for a new key and for a replaced one; a replaced value is
    // given back, and the key pointer is lpKey from now on.
    // TALVOR_MAP_NO_MEMORY when no node could be had or lpKey is null.
    int Set(char* lpKey, LPVOID lpValue);
    // Result: the stored value, or null when the key is absent.
    LPVOID Get(const char* lpKey) const;
    // Result: the stored value, now the caller's; null when absent.
    LPVOID Remove(const char* lpKey);
    // Result: the position of the first entry in bucket order, or null.
    LPVOID GetHeadPosition() const;
    // Gives the entry at pos and moves pos on, null at the end; a null pos
    // gives null key and value.
    void GetNext(LPVOID& pos, char*& lpKey, LPVOID& lpValue) const;
    // Result: entries held, counted by walking every bucket.
    int Count() const;
    // Empties the map; keys and values are not given back.
    void Clear();

private:
    int GetPos(const char* lpKey) const;
    stu_MapCache_BaseData* FindNode(const char* lpKey) const;
    stu_MapCache_BaseData* FirstUsedFrom(int nBucket) const;
    void DeleteChains();

    int m_nDataCount;
    int m_nDataNum;
    stu_MapCache_BaseData* m_lpBaseData;

    CTalvorMapCache(const CTalvorMapCache&) = delete;
    CTalvorMapCache& operator=(const CTalvorMapCache&) = delete;
};
