// ConfigHelper.h — the settings of both processes: TalvorConfig.ini held as a
// tree in memory, written through to the file on every change, and a small
// list in shared memory by which the daemon and the engine tell each other
// what they changed.
//
// The rest of the system comes in through the TalvorConfig* functions only.
// The forms without a thread record take no lock and are meant for the start,
// before other threads run; the forms with one serialise on the process-wide
// latch and exchange changes with the engine.
//
// GetPrivateProfileString, GetPrivateProfileInt and WritePrivateProfileString
// are a second, file-direct family that needs no singleton; they read the same
// format by their own, slightly different rules.
#pragma once

#include "LinuxCommonAPI.h"
#include "MemDBCommonDef.h"
#include "TypeDef.h"

#include <semaphore.h>

// Sections the tree can hold. A file's sections beyond the seventh are
// ignored on reading so that one slot stays free for a section added at run
// time.
#define CONFIGHELPER_MAX_SECTIONS 8
#define CONFIGHELPER_MAX_FILE_SECTIONS 7

// Reads of the ini that find it empty, or changing while it is read (a writer
// without the lock caught mid-rewrite), before it is taken to be what it is.
inline constexpr int CONFIG_INI_READ_TRIES = 20;

class ConfigHelperPtr;

class ConfigHelper {
public:
    // An owned, growable byte string, always NUL-terminated when it holds a
    // buffer. Comparisons fold ASCII letters only, so names are
    // case-insensitive in ASCII and exact everywhere else.
    class TString {
    public:
        TString();
        // Copies the text and trims space, CR and LF from both ends (a tab
        // stays). iLen -1 means strlen; a null text gives an empty string.
        explicit TString(const char* lpText, int iLen = -1);
        TString(const TString& other);
        TString& operator=(const TString& other);
        ~TString();

        // Replaces the text without trimming. Returns false only when memory
        // could not be had, and the old text then stands.
        bool SetValue(const char* lpText, int iLen = -1);
        void trim();
        void move(TString& other);
        void swap(TString& other);
        void clear();

        const char* c_str() const { return m_pData ? m_pData : ""; }
        int length() const { return m_iDataLen; }
        bool empty() const { return m_iDataLen == 0; }

        // <0, 0, >0 with ASCII letters folded to upper case; null is "".
        static int CompareNoCase(const char* lpLeft, const char* lpRight);

        bool operator==(const TString& o) const { return CompareNoCase(c_str(), o.c_str()) == 0; }
        bool operator!=(const TString& o) const { return CompareNoCase(c_str(), o.c_str()) != 0; }
        bool operator<(const TString& o) const { return CompareNoCase(c_str(), o.c_str()) < 0; }
        bool operator>(const TString& o) const { return CompareNoCase(c_str(), o.c_str()) > 0; }

        char* m_pData;   // malloc'd, zero-filled to m_iTotalLen; null when never set
        int m_iDataLen;  // length without the terminator
        int m_iTotalLen; // bytes allocated: (length / 32) * 32 + 32
    };

    // A node of a section's list. In a section head m_iData is the section's
    // name and next its first key.
    struct _KeyValue {
        _KeyValue();
        ~_KeyValue(); // frees every node behind this one

        _KeyValue(const _KeyValue&) = delete;
        _KeyValue& operator=(const _KeyValue&) = delete;

        // The first node after this one whose key compares equal.
        _KeyValue* search(const TString& tKey);
        // Appends a node at the tail. bTake moves the two strings' buffers
        // into the node; otherwise they are copied. False when out of memory.
        bool insert(TString& tKey, TString& tValue, bool bTake);
        // Frees every node behind this one and empties the name.
        void clear();

        TString m_iData;
        TString m_iValue;
        _KeyValue* next;
    };

    explicit ConfigHelper(const char* lpFileName);

    ConfigHelper(const ConfigHelper&) = delete;
    ConfigHelper& operator=(const ConfigHelper&) = delete;

    // The order of the virtual operations is part of the object's shape and
    // is kept as the engine's copy of this class has it.
    virtual int getValueInt(const char* lpAppName, const char* lpKeyName, int iDefault);
    virtual int getValueString(const char* lpAppName, const char* lpKeyName, const char* lpDefault, char* lpReturn,
                               int iSize);
    virtual bool setValueString(const char* lpAppName, const char* lpKeyName, const char* lpValue);
    virtual bool setPath(const char* lpPath);
    virtual const TString& getPath();
    virtual bool updateFromShared(bool bIsService);
    virtual bool InitSharedMemory();
    virtual bool DestoryMemory();
    virtual bool AddItemToSharedadd(const char* lpModule, const char* lpKey, const char* lpValue, bool bIsService);
    virtual ~ConfigHelper();
    // The whole file in a new[] buffer with a terminator; the caller frees it.
    // Read under a shared flock on the file; an empty file or one that
    // changes while it is read is read again (CONFIG_INI_READ_TRIES reads in
    // all). Null with *pLen -1 when there is no file or it cannot be opened
    // for reading and writing or locked, -2 when it stayed empty or kept
    // changing. Blocks while another process, or another thread here, holds
    // the exclusive lock.
    virtual char* GetText(int* pLen);

protected:
    // Splices one line into the file under an exclusive flock held from the
    // read to the replacement. False, with the file untouched, when it could
    // not be read whole, or the section is not in it, or the write failed.
    virtual bool updateDisk(const TString& tStrAppName, const TString& tStrKeyName, const TString& tStrValue,
                            bool bIsAdd);
    virtual bool readAndParse();

public:
    // Moves the pair inward over space, CR and LF.
    virtual void trim(const char*& lpStart, const char*& lpEnd);

    // Drops every section and key; the file name stays.
    void freeAll();
    int sectionCount() const { return m_iAppNameValuesLen; }
    SharedMemoryUpdate* sharedList() const { return m_lSharedData; }

    static ConfigHelperPtr s_pInstance;
    static TALVOR_SECTION m_csCriticalSection;
    static sem_t* m_lpSempahore;

protected:
    // Index of the section with this name, or -1.
    int findSection(const TString& tName) const;
    // The value of the first key tKey of section tApp, or null; valid until
    // the tree next changes. Caller: as for the getters, the configuration
    // latch held or no other thread running.
    const TString* findValue(const TString& tApp, const TString& tKey);

    TString m_pFileName;
    int m_iAppNameValuesLen;
    _KeyValue m_lpAppNameValues[CONFIGHELPER_MAX_SECTIONS];
    MFID m_iSharedId;
    SharedMemoryUpdate* m_lSharedData;
};

// Owner of the singleton: destroying it at exit runs the object's destructor.
class ConfigHelperPtr {
public:
    explicit ConfigHelperPtr(ConfigHelper* p) : m_ptr(p) {}
    ~ConfigHelperPtr();
    ConfigHelper* operator->() const { return m_ptr; }
    ConfigHelper& operator*() const { return *m_ptr; }
    ConfigHelper* get() const { return m_ptr; }

    ConfigHelperPtr(const ConfigHelperPtr&) = delete;
    ConfigHelperPtr& operator=(const ConfigHelperPtr&) = delete;

    ConfigHelper* m_ptr;
};

// How long a thread-safe call waits for the semaphore "CONFIGHELPER" before it
// takes the engine for dead while holding it.
inline constexpr UINT CONFIG_SEMAPHORE_WAIT_MS = 5000;

// Holds the named semaphore for a scope. The wait is bounded: a peer that died
// holding the semaphore must not stop this process's configuration for good.
// nTimeoutMs 0 only tries, without waiting. When the wait fails IsLocked() is
// false, nothing is posted on leaving, and the caller leaves the shared list
// alone; TimedOut() tells that the semaphore stayed taken for the whole wait.
class ScopedSemaphorePtr {
public:
    explicit ScopedSemaphorePtr(sem_t* pSem, UINT nTimeoutMs = CONFIG_SEMAPHORE_WAIT_MS);
    ~ScopedSemaphorePtr();
    bool IsLocked() const { return m_pSem != nullptr; }
    bool TimedOut() const { return m_bTimedOut; }

    ScopedSemaphorePtr(const ScopedSemaphorePtr&) = delete;
    ScopedSemaphorePtr& operator=(const ScopedSemaphorePtr&) = delete;

private:
    sem_t* m_pSem;
    bool m_bTimedOut;
};

bool TalvorConfigInit(const char* lpPath);
void TalvorConfigClose();

// The default of "databasepath": the directory one level above the
// executable's, plus "Data/Talvor/" (/a/b/bin/prog gives /a/b/Data/Talvor/).
void TalvorDefaultDatabaseDir(char* lpDir, size_t nSize);

// Lock-free forms, for the main thread before other threads run. The setter
// tells the engine nothing. An integer is its value by ConfigValueToInt, the
// default when the key is absent.
int TalvorConfigGetValueInt(const char* lpAppName, const char* lpKeyName, int iDefault);
int TalvorConfigGetValueString(const char* lpAppName, const char* lpKeyName, const char* lpDefault, char* lpReturn,
                               int iSize);
bool TalvorConfigSetValueString(const char* lpAppName, const char* lpKeyName, const char* lpValue);

// Thread-safe forms: reads first take in the engine's pending changes, the
// setter also posts its change to the engine. Each takes the configuration
// latch for the whole call, and under it the semaphore "CONFIGHELPER"; the
// ini's flock comes last, under both, and the engine keeps the same order.
//
// An engine that dies holding the semaphore would cost every call the whole
// wait, under the latch. So the first wait that runs out is traced and
// remembered: from then on the calls only try the semaphore, and leave the
// list alone while it is taken (the engine is not told of changes, which it
// reads in the file at its next start). The first call that gets it again
// traces so and waits as before.
int TalvorConfigGetValueInt(const char* lpAppName, const char* lpKeyName, int iDefault,
                            LPTALVORCRITICALSECTION lpCritSection);
int TalvorConfigGetValueString(const char* lpAppName, const char* lpKeyName, const char* lpDefault, char* lpReturn,
                               int iSize, LPTALVORCRITICALSECTION lpCritSection);
bool TalvorConfigSetValueString(const char* lpAppName, const char* lpKeyName, const char* lpValue,
                                LPTALVORCRITICALSECTION lpCritSection);

// The wait of the thread-safe calls for the semaphore; tests shorten it.
// Returns the wait in force before. Call it with no thread-safe call running.
UINT ConfigSetSemaphoreWait(UINT nWaitMs);
// Waits for the semaphore that ran out since the process started. Any thread.
ULONG ConfigSemaphoreTimeouts();

// File-direct reader. Null lpAppName lists the section names, null lpKeyName
// the keys of a section, each followed by a NUL. Returns the characters
// placed, at most nSize - 1. Reads under a shared flock, as GetText does.
DWORD GetPrivateProfileString(LPCTSTR lpAppName, LPCTSTR lpKeyName, LPCTSTR lpDefault, LPTSTR lpReturnedString,
                              DWORD nSize, LPCTSTR lpFileName);
// The integer of a key by ConfigValueToInt; nDefault where
// GetPrivateProfileString would give the default. The whole value is read,
// however long, so no cut can turn it into another number.
int GetPrivateProfileInt(LPCTSTR lpAppName, LPCTSTR lpKeyName, int nDefault, LPCTSTR lpFileName);

// The one reading of an integer value for every reader of the ini: the text
// in front of the first "#" (a comment to the file-direct reader, and never
// part of a number) by the decimal parser, as SQL text is read (blanks
// around, a sign, a fraction cut off, an exponent, 0x and bit literals),
// held at the int limits beyond them; 0 for text that is no number or null.
// Any thread, no latch.
int ConfigValueToInt(const char* lpszValue);
// Sets one key, replacing its line or adding it (and its section) to the file;
// a missing or empty file gets "[section]\nkey=value\n". Null or malformed
// names or values are refused. Holds an exclusive flock on the file from the
// read to the replacement; a file that stays empty over every read is
// filled, one that keeps changing is left alone (FALSE).
BOOL WritePrivateProfileString(LPCTSTR lpAppName, LPCTSTR lpKeyName, LPCTSTR lpString, LPCTSTR lpFileName);

// Replaces a file's content so that a crash leaves either the old or the new
// text: a temporary file beside it, synced, renamed over. Where no temporary
// can be made beside it, the file is rewritten in place. TRUE when every
// byte was written. Takes no lock: the callers hold the ini's exclusive flock
// around their read and this call.
BOOL ConfigReplaceFileContent(const char* lpPath, const char* lpData, size_t nLen);
