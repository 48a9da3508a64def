// ConfigHelperFile.cpp — the disk side of the configuration: reading the ini
// file whole, splicing one changed line into it, replacing it safely, and the
// file-direct GetPrivateProfile* / WritePrivateProfileString family.
//
// The engine rewrites the same file in place. Every read here holds a shared
// flock on it and every read-and-replace an exclusive one, which the engine
// takes too; so neither side sees the other's rewrite half done, and no
// rewrite falls between the other side's read and its replacement.
#include "ConfigHelper.h"

#include "ConfigIniSyntax.h"
#include "TalvorDecimal.h"
#include "TalvorFileIO.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

inline bool HasBom(const char* lpText, size_t nLen)
{
    return nLen >= 3 && (BYTE)lpText[0] == 0xEF && (BYTE)lpText[1] == 0xBB && (BYTE)lpText[2] == 0xBF;
}

// How often a read that finds the ini empty, or changing while it is read, is
// made again before the file is taken to be what it is, and the pause between
// two reads. Only a writer that does not take the lock can be caught in the
// middle of a rewrite; the pauses give it time to finish.
constexpr useconds_t INI_READ_PAUSE_US = 5000;
// How often the lock is taken again because the path was given a new file
// while we waited for it. Each retry means a replacement finished, so running
// out takes a writer replacing the file without end.
constexpr int INI_RELOCK_TRIES = 100;

// An advisory flock on the ini for a scope. The daemon replaces the file by
// renaming a new one over it, so a lock won on a descriptor opened before the
// rename protects a file that is no longer the ini: after the lock is had,
// the path must still name the locked file, or it is opened and locked anew.
// The engine rewrites the file in place under the same lock.
class CIniFileLock {
public:
    CIniFileLock() : m_fd(-1) {}
    ~CIniFileLock() { Release(); }
    CIniFileLock(const CIniFileLock&) = delete;
    CIniFileLock& operator=(const CIniFileLock&) = delete;

    // Opens lpPath with nFlags and takes nLockOp (LOCK_SH or LOCK_EX), waiting
    // as long as another holder keeps it. Result 0, or the errno of what
    // failed (EAGAIN when the file kept being replaced). Any thread; the
    // caller holds no ini lock of its own on the file.
    int Acquire(const char* lpPath, int nFlags, int nLockOp)
    {
        Release();
        CTalvorFileIO* pIO = CTalvorFileIO::Current();
        for (int nTry = 0; nTry < INI_RELOCK_TRIES; nTry++) {
            int fd = pIO->Open(lpPath, nFlags | O_CLOEXEC, 0666);
            if (fd < 0) return errno;
            int nResult;
            do {
                nResult = pIO->Flock(fd, nLockOp);
            } while (nResult != 0 && errno == EINTR);
            if (nResult != 0) {
                int nErr = errno;
                pIO->Close(fd);
                return nErr;
            }
            struct stat stLocked;
            struct stat stNamed;
            if (pIO->FStat(fd, &stLocked) == 0 && pIO->Stat(lpPath, &stNamed) == 0 && stLocked.st_dev == stNamed.st_dev &&
                stLocked.st_ino == stNamed.st_ino) {
                m_fd = fd;
                return 0;
            }
            pIO->Close(fd);
        }
        return EAGAIN;
    }
    // Closing the descriptor gives the lock back.
    void Release()
    {
        if (m_fd >= 0) CTalvorFileIO::Current()->Close(m_fd);
        m_fd = -1;
    }
    int Fd() const { return m_fd; }

private:
    int m_fd;
};

bool SameSizeAndTime(const struct stat& a, const struct stat& b)
{
    return a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

enum IniRead { INI_READ_WHOLE, INI_READ_EMPTY, INI_READ_TORN, INI_READ_FAILED };

// One read of the whole locked file into a new[] buffer with a terminator.
// INI_READ_WHOLE sets *ppText and *pLen; INI_READ_FAILED sets *pErr.
IniRead ReadOnce(int fd, char** ppText, size_t* pLen, int* pErr)
{
    *ppText = nullptr;
    *pLen = 0;
    *pErr = 0;
    struct stat stBefore;
    if (CTalvorFileIO::Current()->FStat(fd, &stBefore) != 0) {
        *pErr = errno;
        return INI_READ_FAILED;
    }
    if (stBefore.st_size <= 0) return INI_READ_EMPTY;
    if (stBefore.st_size >= INT_MAX) {
        *pErr = EFBIG;
        return INI_READ_FAILED;
    }
    size_t nSize = (size_t)stBefore.st_size;
    char* lpText = new (std::nothrow) char[nSize + 1];
    if (lpText == nullptr) {
        *pErr = ENOMEM;
        return INI_READ_FAILED;
    }
    CTalvorFileIO* pIO = CTalvorFileIO::Current();
    size_t nRead = 0;
    while (nRead < nSize) {
        ssize_t n = pIO->PRead(fd, lpText + nRead, nSize - nRead, (off_t)nRead);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            *pErr = errno;
            delete[] lpText;
            return INI_READ_FAILED;
        }
        if (n == 0) break;
        nRead += (size_t)n;
    }
    // A file that ended early or grew, or whose time moved, was being written.
    struct stat stAfter;
    if (nRead != nSize || pIO->FStat(fd, &stAfter) != 0 || !SameSizeAndTime(stBefore, stAfter)) {
        delete[] lpText;
        return INI_READ_TORN;
    }
    lpText[nSize] = 0;
    *ppText = lpText;
    *pLen = nSize;
    return INI_READ_WHOLE;
}

// What ReadIniLocked does with a file that is empty at every read.
enum IniEmpty {
    INI_EMPTY_FAILS,   // a failure: the file was made empty and never written
    INI_EMPTY_IS_TEXT, // after the same reads, an empty text to fill
    INI_EMPTY_AT_ONCE, // an empty text at once: the caller has just made the file
};

// Locks the ini (see CIniFileLock) and reads it whole, leaving the lock held
// in lock for the caller, who may then replace the file under it. An empty
// file, or one that changed while it was read, was caught in the middle of a
// rewrite by a writer without the lock: the lock is given back, and after a
// pause the read is made again, up to CONFIG_INI_READ_TRIES reads. So a file
// read short is never taken, nor written back, as the whole. The result is a
// new[] text with a terminator (empty only as nEmpty allows), or null with
// the lock given back and *pErr the errno of the open, lock or read, 0 when
// the file stayed empty or kept changing.
char* ReadIniLocked(const char* lpPath, int nFlags, int nLockOp, IniEmpty nEmpty, CIniFileLock& lock, size_t* pLen,
                    int* pErr)
{
    for (int nTry = 1;; nTry++) {
        *pErr = lock.Acquire(lpPath, nFlags, nLockOp);
        if (*pErr != 0) return nullptr;
        char* lpText = nullptr;
        IniRead nRead = ReadOnce(lock.Fd(), &lpText, pLen, pErr);
        if (nRead == INI_READ_WHOLE) return lpText;
        bool bLastTry = nTry >= CONFIG_INI_READ_TRIES;
        if (nRead == INI_READ_EMPTY && (nEmpty == INI_EMPTY_AT_ONCE || (nEmpty == INI_EMPTY_IS_TEXT && bLastTry))) {
            lpText = new (std::nothrow) char[1];
            if (lpText != nullptr) {
                lpText[0] = 0;
                return lpText;
            }
            *pErr = ENOMEM;
            nRead = INI_READ_FAILED;
        }
        lock.Release();
        if (nRead == INI_READ_FAILED || bLastTry) return nullptr;
        usleep(INI_READ_PAUSE_US);
    }
}

BOOL WriteAndSync(int fd, const char* lpData, size_t nLen)
{
    CTalvorFileIO* pIO = CTalvorFileIO::Current();
    BOOL bOk = TalvorWriteFull(fd, lpData, nLen, 0) && pIO->FSync(fd) == 0;
    if (pIO->Close(fd) != 0) bOk = FALSE;
    return bOk;
}

} // namespace

BOOL ConfigReplaceFileContent(const char* lpPath, const char* lpData, size_t nLen)
{
    if (lpPath == nullptr || *lpPath == 0) return FALSE;
    // Replace what the link points at, not a symbolic link itself.
    char szReal[PATH_MAX];
    const char* lpTarget = realpath(lpPath, szReal) != nullptr ? szReal : lpPath;

    char szTemp[PATH_MAX + 32];
    static unsigned s_nSerial = 0;
    unsigned nSerial = __atomic_add_fetch(&s_nSerial, 1, __ATOMIC_RELAXED);
    int nWritten = snprintf(szTemp, sizeof(szTemp), "%s.tmp%d.%u", lpTarget, (int)getpid(), nSerial);
    if (nWritten < 0 || (size_t)nWritten >= sizeof(szTemp)) return FALSE;

    CTalvorFileIO* pIO = CTalvorFileIO::Current();
    int fd = pIO->Open(szTemp, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) {
        // No room for a temporary beside the file (a directory we may not
        // write): rewrite in place, as a plain truncating write would.
        fd = pIO->Open(lpTarget, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (fd < 0) return FALSE;
        return WriteAndSync(fd, lpData, nLen);
    }
    // The new file takes the old one's place, so it takes its mode too.
    struct stat st;
    if (pIO->Stat(lpTarget, &st) == 0) pIO->FChmod(fd, st.st_mode & 07777);
    if (!WriteAndSync(fd, lpData, nLen) || pIO->Rename(szTemp, lpTarget) != 0) {
        pIO->Unlink(szTemp);
        return FALSE;
    }
    // Makes the rename durable; a failure only weakens durability, not the text.
    TalvorSyncParentDirectory(lpTarget);
    return TRUE;
}

// ============================================================ ConfigHelper

char* ConfigHelper::GetText(int* pLen)
{
    int iDummy = 0;
    if (pLen == nullptr) pLen = &iDummy;
    if (m_pFileName.empty()) {
        *pLen = -1;
        return nullptr;
    }
    size_t nLen = 0;
    int nErr = 0;
    // Opened for reading and writing: a file we could not write back counts
    // as unreadable.
    CIniFileLock lock;
    char* lpText = ReadIniLocked(m_pFileName.c_str(), O_RDWR, LOCK_SH, INI_EMPTY_FAILS, lock, &nLen, &nErr);
    if (lpText == nullptr) {
        *pLen = nErr != 0 ? -1 : -2;
        return nullptr;
    }
    *pLen = (int)nLen;
    return lpText;
}

// Rewrites the file with one line changed, keeping every other byte: the
// byte-order mark, comments, blank lines and the order of lines. Lines, heads
// and key names are found by the rules the readers use (ConfigIniSyntax.h),
// so the line changed is the one they read. The text is put together as
//   before + separator + key=value + line end + after
// A: the key's line is replaced: before is up to the line, with the line end
//    in front of it; no separator; line end CR LF when the old line had a
//    line end; after is what followed that line end.
// B: the section has no such key: the line goes in front of the next section
//    head: before is up to that head, no separator, line end CR LF, after is
//    from the head on.
// C: the section is the last one: the whole file, CR LF, the line, nothing.
// A section missing from the file is not written at all.
bool ConfigHelper::updateDisk(const TString& tStrAppName, const TString& tStrKeyName, const TString& tStrValue,
                              bool bIsAdd)
{
    (void)bIsAdd;
    if (m_pFileName.empty()) return false;
    // The lock is held from the read to the replacement, so that no rewrite
    // by the engine falls between them and is lost.
    CIniFileLock lock;
    size_t nLen = 0;
    int nErr = 0;
    char* lpText = ReadIniLocked(m_pFileName.c_str(), O_RDWR, LOCK_EX, INI_EMPTY_FAILS, lock, &nLen, &nErr);
    if (lpText == nullptr) return false;
    size_t nStart = HasBom(lpText, nLen) ? 3 : 0;
    if (nStart == nLen) {
        delete[] lpText;
        return false;
    }

    bool bFound = false;
    bool bPlaced = false;
    size_t nBefore = nLen;   // bytes of the text kept in front
    size_t nAfter = nLen;    // offset where the kept tail begins
    const char* lpSeparator = "\r\n";
    const char* lpLineEnd = "";
    size_t nPos = nStart;
    while (nPos < nLen && !bPlaced) {
        size_t nLineStart = nPos;
        const char* lpNext;
        const char* e = IniLineEnd(lpText + nPos, lpText + nLen, &lpNext);
        bool bEnded = lpNext > e;
        nPos = (size_t)(lpNext - lpText);

        const char* s = lpText + nLineStart;
        IniTrimBlanks(s, e);
        if (IniIsNothing(s, e)) continue;

        // Both cuts are at the start of a line: a key line or a head is only
        // reached after the section's own head, so a line end stands in front.
        const char* lpName;
        const char* lpNameEnd;
        if (IniHeadName(s, e, lpName, lpNameEnd)) {
            if (bFound) {
                nBefore = nLineStart;
                nAfter = nLineStart;
                lpSeparator = "";
                lpLineEnd = "\r\n";
                bPlaced = true;
            } else {
                TString tName(lpName, (int)(lpNameEnd - lpName));
                bFound = tName == tStrAppName;
            }
            continue;
        }
        if (!bFound) continue;
        const char* lpEq;
        IniKeyName(s, e, lpName, lpNameEnd, &lpEq);
        TString tKey(lpName, (int)(lpNameEnd - lpName));
        if (tKey == tStrKeyName) {
            nBefore = nLineStart;
            nAfter = nPos;
            lpSeparator = "";
            lpLineEnd = bEnded ? "\r\n" : "";
            bPlaced = true;
        }
    }
    if (!bFound) {
        delete[] lpText;
        return false;
    }

    size_t nSep = strlen(lpSeparator);
    size_t nKey = (size_t)tStrKeyName.length();
    size_t nValue = (size_t)tStrValue.length();
    size_t nEnd = strlen(lpLineEnd);
    size_t nTail = nLen - nAfter;
    size_t nTotal = nBefore + nSep + nKey + 1 + nValue + nEnd + nTail;
    char* lpNew = new (std::nothrow) char[nTotal];
    if (lpNew == nullptr) {
        delete[] lpText;
        return false;
    }
    char* p = lpNew;
    memcpy(p, lpText, nBefore);
    p += nBefore;
    memcpy(p, lpSeparator, nSep);
    p += nSep;
    memcpy(p, tStrKeyName.c_str(), nKey);
    p += nKey;
    *p++ = '=';
    memcpy(p, tStrValue.c_str(), nValue);
    p += nValue;
    memcpy(p, lpLineEnd, nEnd);
    p += nEnd;
    memcpy(p, lpText + nAfter, nTail);

    bool bResult = ConfigReplaceFileContent(m_pFileName.c_str(), lpNew, nTotal) != FALSE;
    delete[] lpNew;
    delete[] lpText;
    return bResult;
}

// ====================================================== File-direct family

namespace {

inline bool IsBlank(char c) { return IniIsBlank(c); }

inline void TrimBlanks(const char*& s, const char*& e) { IniTrimBlanks(s, e); }

// One line of the file (ConfigIniSyntax.h). [s, e) is the line trimmed of
// white space; nNext is where the next line begins; bTerminated tells that
// the line has a line end.
struct ProfileLine {
    size_t nStart;
    size_t nNext;
    bool bTerminated;
    const char* s;
    const char* e;
};

bool NextProfileLine(const char* lpText, size_t nLen, size_t& nPos, ProfileLine& line)
{
    if (nPos >= nLen) return false;
    const char* lpNext;
    line.nStart = nPos;
    line.s = lpText + nPos;
    line.e = IniLineEnd(line.s, lpText + nLen, &lpNext);
    line.bTerminated = lpNext > line.e;
    line.nNext = (size_t)(lpNext - lpText);
    TrimBlanks(line.s, line.e);
    nPos = line.nNext;
    return true;
}

// Folded compare of the wanted name's length; the file's name must end there.
bool NameEquals(const char* s, const char* e, const char* lpWant, size_t nWant)
{
    if ((size_t)(e - s) != nWant) return false;
    for (size_t i = 0; i < nWant; i++)
        if (tolower((unsigned char)s[i]) != tolower((unsigned char)lpWant[i])) return false;
    return true;
}

// The name of a head line "[name]...", or false when the line is no head.
bool HeadName(const ProfileLine& line, const char*& s, const char*& e) { return IniHeadName(line.s, line.e, s, e); }

// Appends a name and its NUL to a list; whole names only.
void AppendName(char* lpOut, DWORD nSize, DWORD& nPos, const char* s, const char* e)
{
    size_t n = (size_t)(e - s);
    if (nPos + n + 1 > nSize - 1) return; // full: later names are dropped
    memcpy(lpOut + nPos, s, n);
    nPos += (DWORD)n;
    lpOut[nPos++] = 0;
}

DWORD CopyOut(char* lpOut, DWORD nSize, const char* s, size_t n)
{
    if (n > nSize - 1) n = nSize - 1;
    memcpy(lpOut, s, n);
    lpOut[n] = 0;
    return (DWORD)n;
}

DWORD CopyDefault(char* lpOut, DWORD nSize, const char* lpDefault)
{
    if (lpDefault == nullptr) lpDefault = "";
    const char* s = lpDefault;
    const char* e = s + strlen(s);
    while (e > s && IsBlank(e[-1])) e--;
    return CopyOut(lpOut, nSize, s, (size_t)(e - s));
}

// Wanted names are trimmed of white space like the file's.
void WantedName(const char* lpName, const char*& s, size_t& n)
{
    const char* e = lpName + strlen(lpName);
    s = lpName;
    TrimBlanks(s, e);
    n = (size_t)(e - s);
}

} // namespace

DWORD GetPrivateProfileString(LPCTSTR lpAppName, LPCTSTR lpKeyName, LPCTSTR lpDefault, LPTSTR lpReturnedString,
                              DWORD nSize, LPCTSTR lpFileName)
{
    if (lpReturnedString == nullptr || nSize == 0) return 0;
    if (nSize == 1) {
        lpReturnedString[0] = 0;
        return 0;
    }
    if (lpFileName == nullptr || *lpFileName == 0) return CopyDefault(lpReturnedString, nSize, lpDefault);
    size_t nLen = 0;
    int nErr = 0;
    CIniFileLock lock;
    char* lpText = ReadIniLocked(lpFileName, O_RDWR, LOCK_SH, INI_EMPTY_FAILS, lock, &nLen, &nErr);
    lock.Release();
    if (lpText == nullptr) return CopyDefault(lpReturnedString, nSize, lpDefault);

    const char* lpApp = nullptr;
    const char* lpKey = nullptr;
    size_t nApp = 0;
    size_t nKey = 0;
    if (lpAppName != nullptr) WantedName(lpAppName, lpApp, nApp);
    if (lpKeyName != nullptr) WantedName(lpKeyName, lpKey, nKey);

    DWORD nList = 0;
    bool bInSection = false;
    bool bSectionSeen = false;
    size_t nPos = HasBom(lpText, nLen) ? 3 : 0;
    ProfileLine line;
    while (NextProfileLine(lpText, nLen, nPos, line)) {
        if (IniIsNothing(line.s, line.e)) continue;
        const char* s;
        const char* e;
        if (HeadName(line, s, e)) {
            if (lpAppName == nullptr) {
                AppendName(lpReturnedString, nSize, nList, s, e);
                continue;
            }
            bInSection = NameEquals(s, e, lpApp, nApp);
            bSectionSeen = bSectionSeen || bInSection;
            continue;
        }
        if (!bInSection) continue;
        const char* lpEq = (const char*)memchr(line.s, '=', (size_t)(line.e - line.s));
        if (lpEq == nullptr) continue;
        s = line.s;
        e = lpEq;
        TrimBlanks(s, e);
        if (lpKeyName == nullptr) {
            AppendName(lpReturnedString, nSize, nList, s, e);
            continue;
        }
        if (!NameEquals(s, e, lpKey, nKey)) continue;
        // The value ends at its first "#", and the blanks in front of it go.
        const char* v = lpEq + 1;
        const char* ve = line.e;
        const char* lpHash = (const char*)memchr(v, '#', (size_t)(ve - v));
        if (lpHash != nullptr) ve = lpHash;
        TrimBlanks(v, ve);
        DWORD nResult = CopyOut(lpReturnedString, nSize, v, (size_t)(ve - v));
        delete[] lpText;
        return nResult;
    }
    delete[] lpText;
    if (lpAppName == nullptr || (lpKeyName == nullptr && bSectionSeen)) {
        lpReturnedString[nList] = 0;
        return nList;
    }
    return CopyDefault(lpReturnedString, nSize, lpDefault);
}

namespace {

bool HasAny(const char* s, const char* e, const char* lpChars)
{
    for (; s < e; s++)
        if (*s != 0 && strchr(lpChars, *s) != nullptr) return true;
    return false;
}

} // namespace

int ConfigValueToInt(const char* lpszValue)
{
    if (lpszValue == nullptr) return 0;
    // The tree keeps a "#" in a value and the file-direct reader cuts the
    // value there; a number never holds one, so both read what stands in
    // front of it, and "3 # seconds" is 3 to the daemon, the language
    // setting and the engine alike.
    const char* lpHash = strchr(lpszValue, '#');
    return StringToInt(lpszValue, lpHash != nullptr ? (int)(lpHash - lpszValue) : (int)strlen(lpszValue));
}

int GetPrivateProfileInt(LPCTSTR lpAppName, LPCTSTR lpKeyName, int nDefault, LPCTSTR lpFileName)
{
    char szDefault[32];
    snprintf(szDefault, sizeof(szDefault), "%d", nDefault);
    // Most values fit the first buffer; a longer one is read again whole,
    // since a cut text can read as another number.
    const DWORD FIRST_SIZE = 64, GROWTH = 8;
    char szFirst[FIRST_SIZE];
    char* lpValue = szFirst;
    DWORD nSize = FIRST_SIZE;
    int nResult = nDefault;
    for (;;) {
        DWORD n = GetPrivateProfileString(lpAppName, lpKeyName, szDefault, lpValue, nSize, lpFileName);
        if (n + 1 < nSize) {
            nResult = ConfigValueToInt(lpValue);
            break;
        }
        if (lpValue != szFirst) delete[] lpValue;
        if (nSize > UINT_MAX / GROWTH) return nDefault;
        nSize *= GROWTH;
        lpValue = new (std::nothrow) char[nSize];
        // Without memory the value can't be read: as if the file lacked it.
        if (lpValue == nullptr) return nDefault;
    }
    if (lpValue != szFirst) delete[] lpValue;
    return nResult;
}

BOOL WritePrivateProfileString(LPCTSTR lpAppName, LPCTSTR lpKeyName, LPCTSTR lpString, LPCTSTR lpFileName)
{
    if (lpAppName == nullptr || lpKeyName == nullptr || lpString == nullptr || lpFileName == nullptr ||
        *lpFileName == 0)
        return FALSE;
    const char* lpApp;
    const char* lpKey;
    size_t nApp;
    size_t nKey;
    WantedName(lpAppName, lpApp, nApp);
    WantedName(lpKeyName, lpKey, nKey);
    size_t nValue = strlen(lpString);
    // Names and values that would break the line structure are refused
    // rather than written in a form that reads back differently.
    if (nApp == 0 || nKey == 0 || HasAny(lpApp, lpApp + nApp, "]\r\n") || HasAny(lpKey, lpKey + nKey, "=\r\n") ||
        *lpKey == '[' || *lpKey == '#' || HasAny(lpString, lpString + nValue, "\r\n"))
        return FALSE;

    // The file is locked from the read to the replacement; a missing file is
    // made empty first, so that there is something to lock.
    CTalvorFileIO* pIO = CTalvorFileIO::Current();
    int fdNew = pIO->Open(lpFileName, O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    bool bCreated = fdNew >= 0;
    if (bCreated) pIO->Close(fdNew);
    size_t nLen = 0;
    int nErr = 0;
    CIniFileLock lock;
    char* lpText = ReadIniLocked(lpFileName, O_RDONLY, LOCK_EX, bCreated ? INI_EMPTY_AT_ONCE : INI_EMPTY_IS_TEXT, lock,
                                 &nLen, &nErr);
    if (lpText == nullptr) {
        if (bCreated) CTalvorFileIO::Current()->Unlink(lpFileName);
        return FALSE;
    }

    // Where the new text goes: [nCutFrom, nCutTo) of the old text is replaced
    // by the prefix, "key=value" and the suffix.
    size_t nCutFrom = nLen;
    size_t nCutTo = nLen;
    const char* lpPrefix = "";
    const char* lpSuffix = "\n";
    bool bSectionFound = false;
    bool bPlaced = false;
    size_t nInsertAt = 0;        // behind the section's last non-blank line
    bool bInsertNeedsLf = false; // that line had no line end
    {
        size_t nPos = HasBom(lpText, nLen) ? 3 : 0;
        bool bInSection = false;
        ProfileLine line;
        while (!bPlaced && NextProfileLine(lpText, nLen, nPos, line)) {
            const char* s;
            const char* e;
            if (HeadName(line, s, e)) {
                if (bSectionFound && bInSection) break;
                bInSection = NameEquals(s, e, lpApp, nApp);
                if (bInSection) {
                    bSectionFound = true;
                    nInsertAt = line.nNext;
                    bInsertNeedsLf = !line.bTerminated;
                }
                continue;
            }
            if (!bInSection || line.s == line.e) continue;
            nInsertAt = line.nNext;
            bInsertNeedsLf = !line.bTerminated;
            if (*line.s == '#') continue;
            const char* lpEq = (const char*)memchr(line.s, '=', (size_t)(line.e - line.s));
            if (lpEq == nullptr) continue;
            s = line.s;
            e = lpEq;
            TrimBlanks(s, e);
            if (NameEquals(s, e, lpKey, nKey)) {
                // Only the trimmed text changes: indentation and line end stay.
                nCutFrom = (size_t)(line.s - lpText);
                nCutTo = (size_t)(line.e - lpText);
                lpSuffix = "";
                bPlaced = true;
            }
        }
        if (!bPlaced && bSectionFound) {
            nCutFrom = nCutTo = nInsertAt;
            lpPrefix = bInsertNeedsLf ? "\n" : "";
            bPlaced = true;
        }
    }

    // A new section goes at the end, on a line of its own.
    size_t nHead = 0;
    char* lpHead = nullptr;
    if (!bPlaced) {
        size_t nBom = HasBom(lpText, nLen) ? 3 : 0;
        bool bNeedLf = nLen > nBom && lpText[nLen - 1] != '\n' && lpText[nLen - 1] != '\r';
        lpHead = new (std::nothrow) char[nApp + 5];
        if (lpHead == nullptr) {
            delete[] lpText;
            if (bCreated) CTalvorFileIO::Current()->Unlink(lpFileName);
            return FALSE;
        }
        nHead = (size_t)sprintf(lpHead, "%s[%.*s]\n", bNeedLf ? "\n" : "", (int)nApp, lpApp);
    }

    size_t nPrefix = strlen(lpPrefix);
    size_t nSuffix = strlen(lpSuffix);
    size_t nTotal = nCutFrom + nHead + nPrefix + nKey + 1 + nValue + nSuffix + (nLen - nCutTo);
    char* lpNew = new (std::nothrow) char[nTotal + 1];
    BOOL bResult = FALSE;
    if (lpNew != nullptr) {
        char* p = lpNew;
        if (nCutFrom > 0) memcpy(p, lpText, nCutFrom);
        p += nCutFrom;
        if (nHead > 0) memcpy(p, lpHead, nHead);
        p += nHead;
        memcpy(p, lpPrefix, nPrefix);
        p += nPrefix;
        memcpy(p, lpKey, nKey);
        p += nKey;
        *p++ = '=';
        memcpy(p, lpString, nValue);
        p += nValue;
        memcpy(p, lpSuffix, nSuffix);
        p += nSuffix;
        if (nLen > nCutTo) memcpy(p, lpText + nCutTo, nLen - nCutTo);
        bResult = ConfigReplaceFileContent(lpFileName, lpNew, nTotal);
        delete[] lpNew;
    }
    delete[] lpHead;
    delete[] lpText;
    // A file made only to be locked goes again when nothing reached it.
    if (!bResult && bCreated) CTalvorFileIO::Current()->Unlink(lpFileName);
    return bResult;
}
