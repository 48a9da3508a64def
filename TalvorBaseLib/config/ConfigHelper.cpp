// ConfigHelper.cpp — the settings tree, its parser, the shared update list,
// the singleton and the TalvorConfig* entry points. The file rewriting and the
// file-direct readers live in ConfigHelperFile.cpp.
#include "ConfigHelper.h"

#include "ConfigIniSyntax.h"
#include "ShareMemory.h"
#include "TalvorTrace.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <new>

namespace {

inline bool IsTrimChar(char c) { return c == ' ' || c == '\r' || c == '\n'; }

inline char FoldUpper(char c) { return (c >= 'a' && c <= 'z') ? (char)(c - 'a' + 'A') : c; }

// Bytes for a text of iLen characters: whole 32-byte blocks with room for the
// terminator. -1 when the length cannot be represented.
int RoundedSize(int iLen)
{
    if (iLen < 0 || iLen > INT_MAX - 64) return -1;
    return (iLen / 32) * 32 + 32;
}

} // namespace

// ================================================================= TString

ConfigHelper::TString::TString() : m_pData(nullptr), m_iDataLen(0), m_iTotalLen(0) {}

ConfigHelper::TString::TString(const char* lpText, int iLen) : m_pData(nullptr), m_iDataLen(0), m_iTotalLen(0)
{
    if (lpText == nullptr) return;
    size_t nLen = iLen < 0 ? strlen(lpText) : (size_t)iLen;
    const char* lpStart = lpText;
    const char* lpEnd = lpText + nLen;
    while (lpStart < lpEnd && IsTrimChar(*lpStart)) lpStart++;
    while (lpEnd > lpStart && IsTrimChar(lpEnd[-1])) lpEnd--;
    if (lpEnd - lpStart > INT_MAX - 64) return;
    SetValue(lpStart, (int)(lpEnd - lpStart));
}

ConfigHelper::TString::TString(const TString& other) : m_pData(nullptr), m_iDataLen(0), m_iTotalLen(0)
{
    if (other.m_pData != nullptr) SetValue(other.m_pData, other.m_iDataLen);
}

ConfigHelper::TString& ConfigHelper::TString::operator=(const TString& other)
{
    if (this == &other) return *this;
    if (other.m_pData == nullptr)
        clear();
    else
        SetValue(other.m_pData, other.m_iDataLen);
    return *this;
}

ConfigHelper::TString::~TString() { free(m_pData); }

bool ConfigHelper::TString::SetValue(const char* lpText, int iLen)
{
    if (lpText == nullptr) {
        clear();
        return true;
    }
    if (iLen < 0) {
        size_t n = strlen(lpText);
        if (n > (size_t)(INT_MAX - 64)) return false;
        iLen = (int)n;
    }
    if (iLen >= m_iTotalLen) {
        int iTotal = RoundedSize(iLen);
        if (iTotal < 0) return false;
        char* pNew = (char*)calloc((size_t)iTotal, 1);
        if (pNew == nullptr) return false;
        // The source may lie in our own buffer, so copy before freeing it.
        memcpy(pNew, lpText, (size_t)iLen);
        free(m_pData);
        m_pData = pNew;
        m_iTotalLen = iTotal;
    } else {
        memmove(m_pData, lpText, (size_t)iLen);
        memset(m_pData + iLen, 0, (size_t)(m_iTotalLen - iLen));
    }
    m_iDataLen = iLen;
    return true;
}

void ConfigHelper::TString::trim()
{
    if (m_pData == nullptr) return;
    int iStart = 0;
    int iEnd = m_iDataLen;
    while (iStart < iEnd && IsTrimChar(m_pData[iStart])) iStart++;
    while (iEnd > iStart && IsTrimChar(m_pData[iEnd - 1])) iEnd--;
    if (iStart == 0 && iEnd == m_iDataLen) return;
    memmove(m_pData, m_pData + iStart, (size_t)(iEnd - iStart));
    memset(m_pData + (iEnd - iStart), 0, (size_t)(m_iTotalLen - (iEnd - iStart)));
    m_iDataLen = iEnd - iStart;
}

void ConfigHelper::TString::move(TString& other)
{
    if (this == &other) return;
    free(m_pData);
    m_pData = other.m_pData;
    m_iDataLen = other.m_iDataLen;
    m_iTotalLen = other.m_iTotalLen;
    other.m_pData = nullptr;
    other.m_iDataLen = 0;
    other.m_iTotalLen = 0;
}

void ConfigHelper::TString::swap(TString& other)
{
    char* p = m_pData;
    int iLen = m_iDataLen;
    int iTotal = m_iTotalLen;
    m_pData = other.m_pData;
    m_iDataLen = other.m_iDataLen;
    m_iTotalLen = other.m_iTotalLen;
    other.m_pData = p;
    other.m_iDataLen = iLen;
    other.m_iTotalLen = iTotal;
}

void ConfigHelper::TString::clear()
{
    free(m_pData);
    m_pData = nullptr;
    m_iDataLen = 0;
    m_iTotalLen = 0;
}

int ConfigHelper::TString::CompareNoCase(const char* lpLeft, const char* lpRight)
{
    const unsigned char* a = (const unsigned char*)(lpLeft ? lpLeft : "");
    const unsigned char* b = (const unsigned char*)(lpRight ? lpRight : "");
    for (;; a++, b++) {
        unsigned char ca = (unsigned char)FoldUpper((char)*a);
        unsigned char cb = (unsigned char)FoldUpper((char)*b);
        if (ca != cb) return ca < cb ? -1 : 1;
        if (ca == 0) return 0;
    }
}

// =============================================================== _KeyValue

ConfigHelper::_KeyValue::_KeyValue() : next(nullptr) {}

ConfigHelper::_KeyValue::~_KeyValue() { clear(); }

void ConfigHelper::_KeyValue::clear()
{
    // Iterative, so that a section of many keys does not recurse as deep.
    _KeyValue* p = next;
    next = nullptr;
    while (p != nullptr) {
        _KeyValue* pNext = p->next;
        p->next = nullptr;
        delete p;
        p = pNext;
    }
    m_iData.clear();
    m_iValue.clear();
}

ConfigHelper::_KeyValue* ConfigHelper::_KeyValue::search(const TString& tKey)
{
    for (_KeyValue* p = next; p != nullptr; p = p->next)
        if (p->m_iData == tKey) return p;
    return nullptr;
}

bool ConfigHelper::_KeyValue::insert(TString& tKey, TString& tValue, bool bTake)
{
    _KeyValue* pNode = new (std::nothrow) _KeyValue();
    if (pNode == nullptr) return false;
    if (bTake) {
        pNode->m_iData.move(tKey);
        pNode->m_iValue.move(tValue);
    } else {
        if (!pNode->m_iData.SetValue(tKey.m_pData, tKey.m_iDataLen) ||
            !pNode->m_iValue.SetValue(tValue.m_pData, tValue.m_iDataLen)) {
            delete pNode;
            return false;
        }
    }
    _KeyValue* pTail = this;
    while (pTail->next != nullptr) pTail = pTail->next;
    pTail->next = pNode;
    return true;
}

// ============================================================ ConfigHelper

TALVOR_SECTION ConfigHelper::m_csCriticalSection;
sem_t* ConfigHelper::m_lpSempahore = nullptr;

namespace {
// The latch and the semaphore are process-wide; only the first object made
// sets them up, so a second object cannot re-initialise a latch in use.
bool g_bConfigStaticsReady = false;
} // namespace

ConfigHelper::ConfigHelper(const char* lpFileName)
    : m_iAppNameValuesLen(0), m_iSharedId(0), m_lSharedData(nullptr)
{
    if (lpFileName != nullptr && *lpFileName != 0) {
        m_pFileName.SetValue(lpFileName);
        readAndParse();
    }
    if (!g_bConfigStaticsReady) {
        InitializeCriticalTalvor(&m_csCriticalSection);
        TalvorSetLatchRank(&m_csCriticalSection, LATCHRANK_CONFIG);
    }
    InitSharedMemory();
    if (!g_bConfigStaticsReady) {
        sem_t* pSem = sem_open(SEMNAME_CONFIGHELPER, O_CREAT, 0666, 1);
        m_lpSempahore = pSem == SEM_FAILED ? nullptr : pSem;
        g_bConfigStaticsReady = true;
    }
}

ConfigHelper::~ConfigHelper()
{
    freeAll();
    // The segment stays for the engine; only our attachment goes.
    DestoryMemory();
    if (s_pInstance.m_ptr == this && m_lpSempahore != nullptr) {
        sem_close(m_lpSempahore);
        m_lpSempahore = nullptr;
        sem_unlink(SEMNAME_CONFIGHELPER);
    }
}

// Built before main, with no file: TalvorConfigInit gives it one.
ConfigHelperPtr ConfigHelper::s_pInstance(new (std::nothrow) ConfigHelper(nullptr));

ConfigHelperPtr::~ConfigHelperPtr()
{
    delete m_ptr;
    m_ptr = nullptr;
}

void ConfigHelper::freeAll()
{
    for (int i = 0; i < CONFIGHELPER_MAX_SECTIONS; i++) m_lpAppNameValues[i].clear();
    m_iAppNameValuesLen = 0;
}

bool ConfigHelper::setPath(const char* lpPath)
{
    freeAll();
    if (!m_pFileName.SetValue(lpPath)) return false;
    return readAndParse();
}

const ConfigHelper::TString& ConfigHelper::getPath() { return m_pFileName; }

int ConfigHelper::findSection(const TString& tName) const
{
    for (int i = 0; i < m_iAppNameValuesLen; i++)
        if (m_lpAppNameValues[i].m_iData == tName) return i;
    return -1;
}

const ConfigHelper::TString* ConfigHelper::findValue(const TString& tApp, const TString& tKey)
{
    int iSection = findSection(tApp);
    if (iSection < 0) return nullptr;
    _KeyValue* pNode = m_lpAppNameValues[iSection].search(tKey);
    return pNode != nullptr ? &pNode->m_iValue : nullptr;
}

void ConfigHelper::trim(const char*& lpStart, const char*& lpEnd)
{
    while (lpStart < lpEnd && IsTrimChar(*lpStart)) lpStart++;
    while (lpEnd > lpStart && IsTrimChar(lpEnd[-1])) lpEnd--;
}

// Lines, comments and heads follow ConfigIniSyntax.h, as every reader of the
// file does. Otherwise the first "=" splits the line; the key is trimmed of
// all white space, the value of space, CR and LF only, and it keeps any later
// "=" and "#". A line with no "=" is skipped. A repeated section or a key
// before the first section makes the file invalid; sections past the seventh
// are ignored.
bool ConfigHelper::readAndParse()
{
    int iLen = 0;
    char* lpText = GetText(&iLen);
    if (lpText == nullptr) return false;

    const char* p = lpText;
    const char* lpEndText = lpText + iLen;
    if (iLen >= 3 && (BYTE)p[0] == 0xEF && (BYTE)p[1] == 0xBB && (BYTE)p[2] == 0xBF) p += 3;

    bool bResult = true;
    _KeyValue* pSection = nullptr;
    while (p < lpEndText) {
        const char* lpNext;
        const char* lpLineEnd = IniLineEnd(p, lpEndText, &lpNext);
        const char* s = p;
        const char* e = lpLineEnd;
        p = lpNext;

        IniTrimBlanks(s, e);
        if (IniIsNothing(s, e)) continue;

        const char* lpName;
        const char* lpNameEnd;
        if (IniHeadName(s, e, lpName, lpNameEnd)) {
            TString tName(lpName, (int)(lpNameEnd - lpName));
            if (findSection(tName) >= 0) {
                bResult = false;
                break;
            }
            if (m_iAppNameValuesLen >= CONFIGHELPER_MAX_FILE_SECTIONS) break;
            pSection = &m_lpAppNameValues[m_iAppNameValuesLen];
            pSection->m_iData.move(tName);
            m_iAppNameValuesLen++;
            continue;
        }

        const char* lpEq;
        IniKeyName(s, e, lpName, lpNameEnd, &lpEq);
        if (lpEq == nullptr) continue;
        if (pSection == nullptr) {
            bResult = false;
            break;
        }
        TString tKey(lpName, (int)(lpNameEnd - lpName));
        // The value is cut from the untrimmed line: a tab around it stays.
        TString tValue(lpEq + 1, (int)(lpLineEnd - lpEq - 1));
        // Out of memory for one line: that line is skipped.
        pSection->insert(tKey, tValue, true);
    }
    delete[] lpText;
    return bResult;
}

int ConfigHelper::getValueString(const char* lpAppName, const char* lpKeyName, const char* lpDefault,
                                 char* lpReturn, int iSize)
{
    if (lpReturn == nullptr || iSize <= 0) return -1;
    TString tApp(lpAppName);
    TString tKey(lpKeyName);
    TString tDefault(lpDefault);

    const TString* pFound = findValue(tApp, tKey);
    if (pFound == nullptr && lpDefault != nullptr && !tDefault.empty()) pFound = &tDefault;
    if (pFound == nullptr) {
        lpReturn[0] = 0;
        return -1;
    }
    int iCopy = pFound->length() < iSize - 1 ? pFound->length() : iSize - 1;
    memcpy(lpReturn, pFound->c_str(), (size_t)iCopy);
    lpReturn[iCopy] = 0;
    return 0;
}

int ConfigHelper::getValueInt(const char* lpAppName, const char* lpKeyName, int iDefault)
{
    // The value is read whole from the tree rather than through a buffer of
    // 32 bytes: a cut text can read as another number ("1.000...e5" as 1).
    // The default needs no round trip through text: it is an int already.
    TString tApp(lpAppName);
    TString tKey(lpKeyName);
    const TString* pFound = findValue(tApp, tKey);
    return pFound != nullptr ? ConfigValueToInt(pFound->c_str()) : iDefault;
}

bool ConfigHelper::setValueString(const char* lpAppName, const char* lpKeyName, const char* lpValue)
{
    TString tApp(lpAppName);
    TString tKey(lpKeyName);
    TString tValue(lpValue);
    if (tApp.empty() || tKey.empty()) return false;

    // The disk result is not looked at: a failed write leaves the change in
    // memory only, until the next write that succeeds.
    int iSection = findSection(tApp);
    if (iSection < 0) {
        if (m_iAppNameValuesLen >= CONFIGHELPER_MAX_SECTIONS) return false;
        updateDisk(tApp, tKey, tValue, true);
        _KeyValue* pHead = &m_lpAppNameValues[m_iAppNameValuesLen];
        if (!pHead->insert(tKey, tValue, true)) return false;
        pHead->m_iData.move(tApp);
        m_iAppNameValuesLen++;
        return true;
    }

    _KeyValue* pHead = &m_lpAppNameValues[iSection];
    _KeyValue* pNode = pHead->search(tKey);
    updateDisk(tApp, tKey, tValue, false);
    if (pNode != nullptr) {
        pNode->m_iValue.move(tValue);
        return true;
    }
    return pHead->insert(tKey, tValue, true);
}

// ======================================================= Shared update list

bool ConfigHelper::InitSharedMemory()
{
    if (m_lSharedData != nullptr) DestoryMemory();
    BOOL bExists = FALSE;
    MFID nId = CShareMemory::CreateShareMemory((key_t)SHMKEY_CONFIGUPDATE, CONFIGUPDATE_SEGMENT_SIZE,
                                               SEMNAME_CONFIGHELPER, bExists);
    if (nId <= 0) return false;
    void* p = CShareMemory::ShMemAttach(nId, nullptr, 0);
    if (p == nullptr) return false;
    // A list left from an earlier life is dropped, found or new.
    memset(p, 0, sizeof(SharedMemoryUpdate));
    m_iSharedId = nId;
    m_lSharedData = (SharedMemoryUpdate*)p;
    return true;
}

bool ConfigHelper::DestoryMemory()
{
    if (m_lSharedData != nullptr) {
        LPBYTE p = (LPBYTE)m_lSharedData;
        CShareMemory::ShMemDetach(p);
        m_lSharedData = nullptr;
    }
    CShareMemory::CloseShareMemory(m_iSharedId);
    return true;
}

namespace {

// Copies a text into a fixed field of the shared record. The field is zeroed
// first so that no byte of an earlier, longer text is left behind it.
void PutField(char* lpField, size_t nField, const char* lpText)
{
    memset(lpField, 0, nField);
    if (lpText != nullptr) memcpy(lpField, lpText, strnlen(lpText, nField - 1));
}

// Reads a field written by the other process, which need not have terminated it.
void GetField(char* lpOut, const char* lpField, size_t nField)
{
    size_t n = strnlen(lpField, nField);
    if (n > nField - 1) n = nField - 1;
    memcpy(lpOut, lpField, n);
    lpOut[n] = 0;
}

// The flag is written by the other process: read it as the byte it is, so a
// value other than 0 or 1 cannot make a bool misbehave.
bool ListIsService(const SharedMemoryUpdate* pList)
{
    return __atomic_load_n((const BYTE*)&pList->m_bIsService, __ATOMIC_ACQUIRE) != 0;
}

bool FitsField(const char* lpText, size_t nField)
{
    return lpText == nullptr || strnlen(lpText, nField) < nField;
}

} // namespace

bool ConfigHelper::AddItemToSharedadd(const char* lpModule, const char* lpKey, const char* lpValue, bool bIsService)
{
    SharedMemoryUpdate* pList = m_lSharedData;
    if (pList == nullptr || lpModule == nullptr || lpKey == nullptr) return false;
    // A text too long for its field is not posted at all: a cut path or name
    // would tell the peer something that was never set. The local change
    // still stands; the peer sees it in the file at its next start. The test
    // comes before the take-over so that such an item costs the peer nothing.
    SharedMemoryItem* pItems = pList->m_smpItems;
    if (!FitsField(lpModule, sizeof(pItems->m_lpModule)) || !FitsField(lpKey, sizeof(pItems->m_lpKey)) ||
        !FitsField(lpValue, sizeof(pItems->m_lpValue)))
        return false;

    if (ListIsService(pList) != bIsService) {
        pList->m_bIsService = bIsService;
        pList->m_iLength = 0;
    }
    UINT nIndex = pList->m_iLength;
    if (nIndex >= CONFIGUPDATE_MAX_ITEMS) return false;
    SharedMemoryItem* pItem = &pItems[nIndex];
    PutField(pItem->m_lpModule, sizeof(pItem->m_lpModule), lpModule);
    PutField(pItem->m_lpKey, sizeof(pItem->m_lpKey), lpKey);
    PutField(pItem->m_lpValue, sizeof(pItem->m_lpValue), lpValue);
    pList->m_iLength = nIndex + 1;
    return true;
}

bool ConfigHelper::updateFromShared(bool bIsService)
{
    SharedMemoryUpdate* pList = m_lSharedData;
    if (pList == nullptr) return false;
    if (ListIsService(pList) == bIsService) return false;

    // The count comes from the other process: never walk past the array.
    UINT nCount = pList->m_iLength;
    if (nCount > CONFIGUPDATE_MAX_ITEMS) nCount = CONFIGUPDATE_MAX_ITEMS;
    for (UINT i = 0; i < nCount; i++) {
        const SharedMemoryItem* pItem = &pList->m_smpItems[i];
        char szModule[sizeof(pItem->m_lpModule)];
        char szKey[sizeof(pItem->m_lpKey)];
        char szValue[sizeof(pItem->m_lpValue)];
        GetField(szModule, pItem->m_lpModule, sizeof(szModule));
        GetField(szKey, pItem->m_lpKey, sizeof(szKey));
        GetField(szValue, pItem->m_lpValue, sizeof(szValue));
        setValueString(szModule, szKey, szValue);
    }
    memset(pList, 0, offsetof(SharedMemoryUpdate, m_smpItems));
    return true;
}

// ===================================================== ScopedSemaphorePtr

ScopedSemaphorePtr::ScopedSemaphorePtr(sem_t* pSem, UINT nTimeoutMs) : m_pSem(nullptr), m_bTimedOut(false)
{
    if (pSem == nullptr) return;
    int nResult;
    if (nTimeoutMs == 0) {
        do {
            nResult = sem_trywait(pSem);
        } while (nResult != 0 && errno == EINTR);
        if (nResult == 0) m_pSem = pSem;
        else m_bTimedOut = errno == EAGAIN;
        return;
    }
    struct timespec ts;
    if (clock_gettime(CLOCK_REALTIME, &ts) != 0) return;
    ts.tv_sec += nTimeoutMs / 1000;
    ts.tv_nsec += (long)(nTimeoutMs % 1000) * 1000000L;
    if (ts.tv_nsec >= 1000000000L) {
        ts.tv_sec++;
        ts.tv_nsec -= 1000000000L;
    }
    do {
        nResult = sem_timedwait(pSem, &ts);
    } while (nResult != 0 && errno == EINTR);
    if (nResult == 0) m_pSem = pSem;
    else m_bTimedOut = errno == ETIMEDOUT;
}

ScopedSemaphorePtr::~ScopedSemaphorePtr()
{
    if (m_pSem != nullptr) sem_post(m_pSem);
}

// =============================================================== Functions

namespace {

// The cheap look at the list, outside the semaphore: only a list written by
// the engine is worth taking the semaphore for.
bool PeerHasPosted(const SharedMemoryUpdate* pList)
{
    return pList != nullptr && ListIsService(pList);
}

// Trace codes of the semaphore's watch.
constexpr LONG TRACE_CONFIG_SEMAPHORE_STUCK = 10080001;
constexpr LONG TRACE_CONFIG_SEMAPHORE_FREE = 10080002;

UINT g_nSemaphoreWaitMs = CONFIG_SEMAPHORE_WAIT_MS;
// Set when a wait ran out, cleared when the semaphore is had again. Changed
// only under the configuration latch; atomic for the readers outside it.
bool g_bSemaphoreStuck = false;
ULONG g_nSemaphoreTimeouts = 0;

// The engine's semaphore for one thread-safe call, under the configuration
// latch. While it is taken for stuck, only tried.
class CPeerSemaphore {
public:
    CPeerSemaphore()
        : m_bWasStuck(__atomic_load_n(&g_bSemaphoreStuck, __ATOMIC_ACQUIRE)),
          m_nWaitMs(m_bWasStuck ? 0 : g_nSemaphoreWaitMs), m_sem(ConfigHelper::m_lpSempahore, m_nWaitMs)
    {
        if (m_sem.TimedOut() && m_nWaitMs > 0) __atomic_add_fetch(&g_nSemaphoreTimeouts, 1, __ATOMIC_RELAXED);
        if (m_sem.IsLocked() && m_bWasStuck) {
            __atomic_store_n(&g_bSemaphoreStuck, false, __ATOMIC_RELEASE);
            Trace("ConfigHelper", 3, TRACE_CONFIG_SEMAPHORE_FREE,
                  TALVOR_TEXT("配置信号量 CONFIGHELPER 已再次可用，配置变更重新通知引擎",
                              "The semaphore CONFIGHELPER is free again; configuration changes reach the engine again"));
        } else if (m_sem.TimedOut() && !m_bWasStuck) {
            __atomic_store_n(&g_bSemaphoreStuck, true, __ATOMIC_RELEASE);
            Trace("ConfigHelper", 1, TRACE_CONFIG_SEMAPHORE_STUCK,
                  TALVOR_TEXT("等待配置信号量 CONFIGHELPER 超过 %u 毫秒，视为引擎持有该信号量时已退出；在其再次可用之前，"
                              "配置变更不再通知引擎，也不再等待",
                              "Waited %u ms for the semaphore CONFIGHELPER: the engine is taken to have died holding it; "
                              "until it is free again, configuration changes are not posted to the engine and not "
                              "waited for"),
                  g_nSemaphoreWaitMs);
        }
    }
    bool IsLocked() const { return m_sem.IsLocked(); }

private:
    // In this order: the first two choose m_sem's wait.
    bool m_bWasStuck;
    UINT m_nWaitMs;
    ScopedSemaphorePtr m_sem;
};

void TakeInPeerUpdates(ConfigHelper* pHelper)
{
    if (!PeerHasPosted(pHelper->sharedList())) return;
    CPeerSemaphore sem;
    if (sem.IsLocked()) pHelper->updateFromShared(false);
}

} // namespace

UINT ConfigSetSemaphoreWait(UINT nWaitMs)
{
    UINT nOld = g_nSemaphoreWaitMs;
    g_nSemaphoreWaitMs = nWaitMs;
    return nOld;
}

ULONG ConfigSemaphoreTimeouts() { return __atomic_load_n(&g_nSemaphoreTimeouts, __ATOMIC_RELAXED); }

void TalvorDefaultDatabaseDir(char* lpDir, size_t nSize)
{
    char szExe[MAX_PATH] = {0};
    GetModuleFileName(nullptr, szExe, sizeof(szExe));
    for (int i = 0; i < 2; i++) {
        char* pSlash = strrchr(szExe, '/');
        if (pSlash != nullptr) *pSlash = '\0';
    }
    snprintf(lpDir, nSize, "%s/Data/Talvor/", szExe);
}

bool TalvorConfigInit(const char* lpPath)
{
    ConfigHelper* p = ConfigHelper::s_pInstance.get();
    return p != nullptr && p->setPath(lpPath);
}

void TalvorConfigClose()
{
    ConfigHelper* p = ConfigHelper::s_pInstance.get();
    if (p != nullptr) p->freeAll();
}

int TalvorConfigGetValueInt(const char* lpAppName, const char* lpKeyName, int iDefault)
{
    ConfigHelper* p = ConfigHelper::s_pInstance.get();
    return p != nullptr ? p->getValueInt(lpAppName, lpKeyName, iDefault) : iDefault;
}

int TalvorConfigGetValueString(const char* lpAppName, const char* lpKeyName, const char* lpDefault, char* lpReturn,
                               int iSize)
{
    ConfigHelper* p = ConfigHelper::s_pInstance.get();
    if (p == nullptr) {
        if (lpReturn != nullptr && iSize > 0) lpReturn[0] = 0;
        return -1;
    }
    return p->getValueString(lpAppName, lpKeyName, lpDefault, lpReturn, iSize);
}

bool TalvorConfigSetValueString(const char* lpAppName, const char* lpKeyName, const char* lpValue)
{
    ConfigHelper* p = ConfigHelper::s_pInstance.get();
    return p != nullptr && p->setValueString(lpAppName, lpKeyName, lpValue);
}

int TalvorConfigGetValueInt(const char* lpAppName, const char* lpKeyName, int iDefault,
                            LPTALVORCRITICALSECTION lpCritSection)
{
    ConfigHelper* p = ConfigHelper::s_pInstance.get();
    if (p == nullptr) return iDefault;
    CTalvorCriticalSectionPtr guard(&ConfigHelper::m_csCriticalSection, lpCritSection);
    TakeInPeerUpdates(p);
    return p->getValueInt(lpAppName, lpKeyName, iDefault);
}

int TalvorConfigGetValueString(const char* lpAppName, const char* lpKeyName, const char* lpDefault, char* lpReturn,
                               int iSize, LPTALVORCRITICALSECTION lpCritSection)
{
    ConfigHelper* p = ConfigHelper::s_pInstance.get();
    if (p == nullptr) return TalvorConfigGetValueString(lpAppName, lpKeyName, lpDefault, lpReturn, iSize);
    CTalvorCriticalSectionPtr guard(&ConfigHelper::m_csCriticalSection, lpCritSection);
    TakeInPeerUpdates(p);
    return p->getValueString(lpAppName, lpKeyName, lpDefault, lpReturn, iSize);
}

bool TalvorConfigSetValueString(const char* lpAppName, const char* lpKeyName, const char* lpValue,
                                LPTALVORCRITICALSECTION lpCritSection)
{
    ConfigHelper* p = ConfigHelper::s_pInstance.get();
    if (p == nullptr) return false;
    CTalvorCriticalSectionPtr guard(&ConfigHelper::m_csCriticalSection, lpCritSection);
    if (p->sharedList() != nullptr) {
        CPeerSemaphore sem;
        if (sem.IsLocked()) {
            // Posting takes the list over from the engine; whatever it posted
            // and we have not taken in yet is taken in first, or our tree
            // would miss it and later writes of ours could put the old value
            // back into the file.
            if (PeerHasPosted(p->sharedList())) p->updateFromShared(false);
            // With 80 items waiting the engine simply is not told.
            p->AddItemToSharedadd(lpAppName, lpKeyName, lpValue, false);
        }
    }
    return p->setValueString(lpAppName, lpKeyName, lpValue);
}
