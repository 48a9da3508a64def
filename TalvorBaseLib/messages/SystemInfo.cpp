// SystemInfo.cpp — the language switch, the error lookup, character
// conversion, the /proc readers, the debugger stack helpers and a few small
// functions of the base library.
//
// Files under /proc are read like any other input: through bounded buffers,
// one line at a time, numbers parsed with range checks. A file of the wrong
// shape yields zeros, never a crash or a read past a buffer.
#include "TalvorError.h"

#include "ConfigHelper.h"
#include "LinuxCommonAPI.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iconv.h>
#include <limits.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

// ---------------------------------------------------------------------------
// Line and number parsing shared by the readers.
// ---------------------------------------------------------------------------

namespace {

// Room for any line of the files read here; longer lines are cut, and the
// rest of such a line is skipped so that positions stay line-based.
const size_t kLineSize = 512;
const size_t kTokenSize = 64;

// Reads one line without its newline into lpLine. FALSE at end of file with
// nothing read. An embedded NUL only shortens what the caller sees.
BOOL ReadBoundedLine(FILE* fp, char* lpLine, size_t nSize)
{
    size_t nLen = 0;
    int c = fgetc(fp);
    if (c == EOF) return FALSE;
    while (c != EOF && c != '\n') {
        if (nLen + 1 < nSize) lpLine[nLen++] = (char)c;
        c = fgetc(fp);
    }
    lpLine[nLen] = '\0';
    return TRUE;
}

const char* SkipSpace(const char* p)
{
    while (*p == ' ' || *p == '\t' || *p == '\r') ++p;
    return p;
}

// Copies the first whitespace-delimited token. FALSE when there is none or it
// does not fit.
BOOL ReadToken(const char*& p, char* lpToken, size_t nSize)
{
    p = SkipSpace(p);
    size_t nLen = 0;
    while (*p != '\0' && *p != ' ' && *p != '\t' && *p != '\r') {
        if (nLen + 1 >= nSize) return FALSE;
        lpToken[nLen++] = *p++;
    }
    lpToken[nLen] = '\0';
    return nLen > 0;
}

// A decimal number, possibly signed. FALSE when there are no digits or the
// value does not fit.
BOOL ReadSigned(const char*& p, long long& nValue)
{
    p = SkipSpace(p);
    char* pEnd = nullptr;
    errno = 0;
    long long n = strtoll(p, &pEnd, 10);
    if (pEnd == p || errno == ERANGE) return FALSE;
    p = pEnd;
    nValue = n;
    return TRUE;
}

// An unsigned counter; a sign is refused (strtoull would wrap "-1").
BOOL ReadUnsigned(const char*& p, unsigned long long& nValue)
{
    p = SkipSpace(p);
    if (*p < '0' || *p > '9') return FALSE;
    char* pEnd = nullptr;
    errno = 0;
    unsigned long long n = strtoull(p, &pEnd, 10);
    if (pEnd == p || errno == ERANGE) return FALSE;
    p = pEnd;
    nValue = n;
    return TRUE;
}

// TRUE when the token is the label, with or without its colon.
BOOL TokenIsLabel(const char* lpToken, const char* lpLabel)
{
    size_t nLabel = strlen(lpLabel);
    if (strncmp(lpToken, lpLabel, nLabel) != 0) return FALSE;
    return lpToken[nLabel] == '\0' || (lpToken[nLabel] == ':' && lpToken[nLabel + 1] == '\0');
}

// The number behind the label of a "Label:  1234 kB" line; 0 when the line
// carries another label, no number, or a negative one.
long long LabelledValue(const char* lpLine, const char* lpLabel)
{
    char szToken[kTokenSize];
    const char* p = lpLine;
    long long nValue = 0;
    if (!ReadToken(p, szToken, sizeof szToken) || !TokenIsLabel(szToken, lpLabel)) return 0;
    if (!ReadSigned(p, nValue) || nValue < 0) return 0;
    return nValue;
}

} // namespace

// ---------------------------------------------------------------------------
// Language and thread stack.
// ---------------------------------------------------------------------------

BOOL IsLocalZoneUtcPlus8()
{
    struct tm tmLocal;
    memset(&tmLocal, 0, sizeof tmLocal);
    tmLocal.tm_year = 2017 - 1900;
    tmLocal.tm_mon = 0;
    tmLocal.tm_mday = 1;
    tmLocal.tm_isdst = 0;
    time_t t = mktime(&tmLocal);
    if (t == (time_t)-1) return FALSE;

    // The same instant's UTC wall clock, read back as if it were local time:
    // the difference is the zone's offset.
    struct tm tmUtc;
    if (gmtime_r(&t, &tmUtc) == nullptr) return FALSE;
    tmUtc.tm_isdst = 0;
    time_t u = mktime(&tmUtc);
    if (u == (time_t)-1) return FALSE;
    return (t - u) / 60 == 480 ? TRUE : FALSE;
}

void ApplyLanguageSetting(int nLanguage, int nStackSizeMiB)
{
    if (nStackSizeMiB > 0) {
        int nMiB = nStackSizeMiB > TALVOR_MAX_THREAD_STACK_MIB ? TALVOR_MAX_THREAD_STACK_MIB : nStackSizeMiB;
        g_nThreadStackSize = nMiB * 0x100000;
    } else {
        g_nThreadStackSize = TALVOR_DEFAULT_THREAD_STACK;
    }

    if (nLanguage != TALVOR_CONFIG_UNSET) g_nLanguage_Chinese = nLanguage;
    else g_nLanguage_Chinese = IsLocalZoneUtcPlus8() ? 1 : 0;
}

BOOL GetConfigPathBesideExe(char* lpszPath, size_t nSize)
{
    static const char kFileName[] = "TalvorConfig.ini";
    if (lpszPath == nullptr || nSize == 0) return FALSE;
    lpszPath[0] = '\0';

    char szExe[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", szExe, sizeof szExe);
    // A result that fills the buffer may have been cut: refuse it rather than
    // look for the file in a wrong directory.
    if (n <= 0 || (size_t)n >= sizeof szExe) return FALSE;
    szExe[n] = '\0';

    char* pSlash = strrchr(szExe, '/');
    if (pSlash == nullptr) return FALSE;
    size_t nDir = (size_t)(pSlash - szExe) + 1;
    if (nDir + sizeof kFileName > nSize) return FALSE;
    memcpy(lpszPath, szExe, nDir);
    memcpy(lpszPath + nDir, kFileName, sizeof kFileName);
    return TRUE;
}

void InitLanguageSettingFromFile(const char* lpszIniPath)
{
    int nLanguage = GetPrivateProfileInt("System", "Language", TALVOR_CONFIG_UNSET, lpszIniPath);
    int nStackSize = GetPrivateProfileInt("System", "threadstacksize", 1, lpszIniPath);
    ApplyLanguageSetting(nLanguage, nStackSize);
}

void InitLanguageSetting(BOOL bService)
{
    if (bService) {
        int nLanguage = TalvorConfigGetValueInt("System", "Language", TALVOR_CONFIG_UNSET);
        int nStackSize = TalvorConfigGetValueInt("System", "threadstacksize", 1);
        ApplyLanguageSetting(nLanguage, nStackSize);
        return;
    }
    char szPath[PATH_MAX];
    if (!GetConfigPathBesideExe(szPath, sizeof szPath)) {
        // No file to read: every key takes its default.
        ApplyLanguageSetting(TALVOR_CONFIG_UNSET, 1);
        return;
    }
    InitLanguageSettingFromFile(szPath);
}

// ---------------------------------------------------------------------------
// Error lookup.
// ---------------------------------------------------------------------------

static const char* FindErrorText(const TALVORERROR_DEF* pTable, int nErrorNO, const char* lpszUnknown)
{
    int nLow = 0;
    int nHigh = TALVOR_ERROR_COUNT - 1;
    while (nLow <= nHigh) {
        int nMid = (nLow + nHigh) / 2;
        int nCode = pTable[nMid].nErrorNO;
        if (nCode == nErrorNO) return pTable[nMid].lpszDescription;
        if (nCode < nErrorNO) nLow = nMid + 1;
        else nHigh = nMid - 1;
    }
    return lpszUnknown;
}

const char* GetErrorDescription(int nErrorNO)
{
    return FindErrorText(g_pTalvorErrorDef, nErrorNO, TALVOR_UNKNOWN_ERROR_ZH);
}

const char* GetErrorDescriptionE(int nErrorNO)
{
    return FindErrorText(g_pTalvorErrorDefE, nErrorNO, TALVOR_UNKNOWN_ERROR_EN);
}

// ---------------------------------------------------------------------------
// Character conversion.
// ---------------------------------------------------------------------------

int CodeConvert(const char* pSrcCode, const char* pDestCode, char* pSrcBuf, size_t nSrcLen, char* pDestBuf,
                size_t nDestLen)
{
    if (pSrcCode == nullptr || pDestCode == nullptr || pDestBuf == nullptr || nDestLen == 0) return 1;
    memset(pDestBuf, 0, nDestLen);
    if (pSrcBuf == nullptr && nSrcLen != 0) return 1;

    iconv_t cd = iconv_open(pDestCode, pSrcCode);
    if (cd == (iconv_t)-1) return 1;

    char* pIn = pSrcBuf;
    size_t nInLeft = nSrcLen;
    char* pOut = pDestBuf;
    // The last byte stays 0 so that the result is always a terminated text.
    size_t nOutLeft = nDestLen - 1;
    int nResult = 0;
    if (nInLeft != 0 && iconv(cd, &pIn, &nInLeft, &pOut, &nOutLeft) == (size_t)-1) nResult = 1;
    // Stateful encodings end with a shift back to the initial state.
    else if (iconv(cd, nullptr, nullptr, &pOut, &nOutLeft) == (size_t)-1) nResult = 1;
    iconv_close(cd);
    return nResult;
}

char* UTF8ConvertAnsi(char* pSrc)
{
    if (pSrc == nullptr) return nullptr;
    size_t nLen = strlen(pSrc);
    if (nLen > (SIZE_MAX - 1) / 2) return nullptr;
    size_t nDestLen = nLen * 2 + 1;
    char* pDest = new (std::nothrow) char[nDestLen];
    if (pDest == nullptr) return nullptr;
    memset(pDest, 0, nDestLen);
    if (CodeConvert("utf-8", "gb2312", pSrc, nLen, pDest, nDestLen) != 0) {
        delete[] pDest;
        return nullptr;
    }
    return pDest;
}

// ---------------------------------------------------------------------------
// Memory and processor facts.
// ---------------------------------------------------------------------------

void get_mem_info_from(const char* lpszPath, long long& nTotal, long long& nAvailable, long long& nMaxAvailable)
{
    // All three start at 0, so that no caller ever reads a stale or
    // uninitialised value after a failure.
    nTotal = 0;
    nAvailable = 0;
    nMaxAvailable = 0;
    if (lpszPath == nullptr) return;
    FILE* fp = fopen(lpszPath, "r");
    if (fp == nullptr) return;

    // Each value is taken only from the line in its own position: a file
    // whose lines are missing or out of order yields 0 for those.
    static const char* const kLabels[3] = {"MemTotal", "MemFree", "MemAvailable"};
    long long* pValues[3] = {&nTotal, &nAvailable, &nMaxAvailable};
    char szLine[kLineSize];
    for (int i = 0; i < 3; ++i) {
        if (!ReadBoundedLine(fp, szLine, sizeof szLine)) break;
        *pValues[i] = LabelledValue(szLine, kLabels[i]);
    }
    fclose(fp);
}

void get_mem_info(long long& nTotal, long long& nAvailable, long long& nMaxAvailable)
{
    get_mem_info_from("/proc/meminfo", nTotal, nAvailable, nMaxAvailable);
}

BOOL read_cpu_sample_from(const char* lpszPath, TALVORCPUSAMPLE* pSample)
{
    if (lpszPath == nullptr || pSample == nullptr) return FALSE;
    pSample->ullTotal = 0;
    pSample->ullIdle = 0;
    FILE* fp = fopen(lpszPath, "r");
    if (fp == nullptr) return FALSE;

    char szLine[kLineSize];
    BOOL bFound = FALSE;
    while (ReadBoundedLine(fp, szLine, sizeof szLine)) {
        if (strstr(szLine, "cpu") != nullptr) {
            bFound = TRUE;
            break;
        }
    }
    fclose(fp);
    if (!bFound) return FALSE;

    // user, nice, system, idle, iowait, irq, softirq
    const char* p = szLine;
    char szToken[kTokenSize];
    if (!ReadToken(p, szToken, sizeof szToken)) return FALSE;
    unsigned long long ullCounters[7];
    unsigned long long ullSum = 0;
    for (int i = 0; i < 7; ++i) {
        if (!ReadUnsigned(p, ullCounters[i])) return FALSE;
        if (__builtin_add_overflow(ullSum, ullCounters[i], &ullSum)) return FALSE;
    }
    pSample->ullTotal = ullSum;
    pSample->ullIdle = ullCounters[3];
    return TRUE;
}

int cpu_rate_between(const TALVORCPUSAMPLE& first, const TALVORCPUSAMPLE& second)
{
    // Counters that went backwards (a reset, or two unrelated files) give no
    // meaningful rate.
    if (second.ullTotal <= first.ullTotal || second.ullIdle < first.ullIdle) return 0;
    unsigned long long ullTotal = second.ullTotal - first.ullTotal;
    unsigned long long ullIdle = second.ullIdle - first.ullIdle;
    float fRate = 100.0f - (float)ullIdle * 100.0f / (float)ullTotal;
    int nRate = (int)(fRate + 0.5f);
    if (nRate < 0) return 0;
    if (nRate > 100) return 100;
    return nRate;
}

void get_cpu_info(int& nCpuRate)
{
    nCpuRate = 0;
    TALVORCPUSAMPLE first;
    TALVORCPUSAMPLE second;
    if (!read_cpu_sample_from("/proc/stat", &first)) return;
    sleep(1);
    if (!read_cpu_sample_from("/proc/stat", &second)) return;
    nCpuRate = cpu_rate_between(first, second);
}

void get_processmem_info_from(const char* lpszStatusPath, const char* lpszStatmPath, long long& virtotalmem,
                              long long& virpeakmem, long long& phytotalmem, long long& phypeakmem,
                              long long& dirtypage)
{
    virtotalmem = 0;
    virpeakmem = 0;
    phytotalmem = 0;
    phypeakmem = 0;
    dirtypage = 0;

    static const char* const kLabels[4] = {"VmSize", "VmPeak", "VmRSS", "VmHWM"};
    long long* pValues[4] = {&virtotalmem, &virpeakmem, &phytotalmem, &phypeakmem};
    FILE* fp = lpszStatusPath ? fopen(lpszStatusPath, "r") : nullptr;
    if (fp != nullptr) {
        BOOL bSeen[4] = {FALSE, FALSE, FALSE, FALSE};
        char szLine[kLineSize];
        char szToken[kTokenSize];
        while (ReadBoundedLine(fp, szLine, sizeof szLine)) {
            const char* p = szLine;
            if (!ReadToken(p, szToken, sizeof szToken)) continue;
            for (int i = 0; i < 4; ++i) {
                // The first line of a label counts; a repeated one is ignored.
                if (bSeen[i] || !TokenIsLabel(szToken, kLabels[i])) continue;
                bSeen[i] = TRUE;
                *pValues[i] = LabelledValue(szLine, kLabels[i]);
            }
        }
        fclose(fp);
    }

    fp = lpszStatmPath ? fopen(lpszStatmPath, "r") : nullptr;
    if (fp != nullptr) {
        char szLine[kLineSize];
        if (ReadBoundedLine(fp, szLine, sizeof szLine)) {
            const char* p = szLine;
            long long nValue = 0;
            int nRead = 0;
            while (nRead < 7 && ReadSigned(p, nValue)) ++nRead;
            if (nRead == 7 && nValue >= 0) dirtypage = nValue;
        }
        fclose(fp);
    }
}

void get_processmem_info(long long& virtotalmem, long long& virpeakmem, long long& phytotalmem,
                         long long& phypeakmem, long long& dirtypage)
{
    char szStatus[64];
    char szStatm[64];
    int nPid = (int)getpid();
    snprintf(szStatus, sizeof szStatus, "/proc/%d/status", nPid);
    snprintf(szStatm, sizeof szStatm, "/proc/%d/statm", nPid);
    get_processmem_info_from(szStatus, szStatm, virtotalmem, virpeakmem, phytotalmem, phypeakmem, dirtypage);
}

// ---------------------------------------------------------------------------
// Stacks by the debugger.
// ---------------------------------------------------------------------------

namespace {

const char kDebuggerProbe[] = "gdb --version |\nif [ $? -ne 0 ]\nthen\necho 'failed'\nelse\necho 'success'\nfi";

const char kThreadStackScript[] = "gdb --quiet -nx %s %d <<EOF 2>&1 |\nset width 0\nset height 0\n"
                                  "set pagination no\nbt\nEOF\n"
                                  "sed -n -e 's/^\\((gdb) \\)*//' -e '/^#/p' -e '/^Thread/p'";

const char kProcessStackScript[] = "PID=`pidof %s`\ngdb --quiet -nx %s $PID <<EOF 2>&1 |\nset width 0\n"
                                   "set height 0\nset pagination no\nthread apply all bt\nEOF\n"
                                   "sed -n -e 's/^\\((gdb) \\)*//' -e '/^#/p' -e '/^Thread/p'";

// Text spliced into a shell script must not be able to end a word or start a
// command: only characters that the shell takes literally are let through.
BOOL IsShellSafe(const char* lpsz)
{
    if (lpsz == nullptr || *lpsz == '\0') return FALSE;
    for (const char* p = lpsz; *p != '\0'; ++p) {
        char c = *p;
        bool bOk = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                   c == '/' || c == '_' || c == '-' || c == '+';
        if (!bOk) return FALSE;
    }
    return TRUE;
}

// The probe script cannot see gdb's exit status (the status it tests is the
// one before the pipeline), so an executable "gdb" on PATH is looked for
// first: without it no script is started at all.
BOOL IsGdbOnPath()
{
    const char* lpszPath = getenv("PATH");
    if (lpszPath == nullptr) lpszPath = "/usr/local/bin:/usr/bin:/bin";
    const char* p = lpszPath;
    while (true) {
        const char* pEnd = strchr(p, ':');
        size_t nDir = pEnd ? (size_t)(pEnd - p) : strlen(p);
        char szCandidate[PATH_MAX];
        int n = nDir == 0 ? snprintf(szCandidate, sizeof szCandidate, "./gdb")
                          : snprintf(szCandidate, sizeof szCandidate, "%.*s/gdb", (int)nDir, p);
        struct stat st;
        if (n > 0 && (size_t)n < sizeof szCandidate && stat(szCandidate, &st) == 0 && S_ISREG(st.st_mode) &&
            access(szCandidate, X_OK) == 0)
            return TRUE;
        if (pEnd == nullptr) return FALSE;
        p = pEnd + 1;
    }
}

void ClearBuffer(char* lpBuffer, int nBufferSize)
{
    if (lpBuffer != nullptr && nBufferSize > 0) lpBuffer[0] = '\0';
}

} // namespace

BOOL is_debugger_available()
{
    if (!IsGdbOnPath()) return FALSE;
    FILE* fp = popen(kDebuggerProbe, "r");
    if (fp == nullptr) return FALSE;
    char szLine[64];
    BOOL bOk = FALSE;
    if (fgets(szLine, sizeof szLine, fp) != nullptr) {
        szLine[strcspn(szLine, "\r\n")] = '\0';
        bOk = strcmp(szLine, "success") == 0 ? TRUE : FALSE;
    }
    // Drain so that the probe never blocks on a full pipe before pclose.
    while (fgets(szLine, sizeof szLine, fp) != nullptr) {
    }
    pclose(fp);
    return bOk;
}

int run_script_into_buffer(const char* lpszScript, char* lpBuffer, int nBufferSize)
{
    if (lpBuffer == nullptr || nBufferSize <= 0) return 0;
    lpBuffer[0] = '\0';
    if (lpszScript == nullptr) return 0;
    FILE* fp = popen(lpszScript, "r");
    if (fp == nullptr) return 0;

    size_t nLen = 0;
    size_t nCapacity = (size_t)nBufferSize - 1;
    char szLine[1024];
    while (nLen < nCapacity && fgets(szLine, sizeof szLine, fp) != nullptr) {
        size_t nLine = strlen(szLine);
        size_t nCopy = nLine < nCapacity - nLen ? nLine : nCapacity - nLen;
        memcpy(lpBuffer + nLen, szLine, nCopy);
        nLen += nCopy;
    }
    lpBuffer[nLen] = '\0';
    // Closing our end first lets a script that still writes die of SIGPIPE
    // instead of blocking pclose's wait.
    pclose(fp);
    return (int)nLen;
}

int get_specified_thread_stacktrace_of_current_process(int thread_id, char* backtrace_buffer, int buffer_size)
{
    ClearBuffer(backtrace_buffer, buffer_size);
    if (backtrace_buffer == nullptr || buffer_size <= 0) return 0;
    if (!is_debugger_available()) return 0;

    char szExe[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", szExe, sizeof szExe);
    if (n <= 0 || (size_t)n >= sizeof szExe) return 0;
    szExe[n] = '\0';
    if (!IsShellSafe(szExe)) return 0;

    char szScript[PATH_MAX + sizeof kThreadStackScript + 16];
    int nScript = snprintf(szScript, sizeof szScript, kThreadStackScript, szExe, thread_id);
    if (nScript <= 0 || (size_t)nScript >= sizeof szScript) return 0;
    return run_script_into_buffer(szScript, backtrace_buffer, buffer_size);
}

int get_all_thread_stacktrace_of_specified_process(char* process_name, char* backtrace_buffer, int buffer_size)
{
    ClearBuffer(backtrace_buffer, buffer_size);
    if (backtrace_buffer == nullptr || buffer_size <= 0) return 0;
    if (!IsShellSafe(process_name) || strlen(process_name) >= PATH_MAX) return 0;
    if (!is_debugger_available()) return 0;

    char szScript[2 * PATH_MAX + sizeof kProcessStackScript];
    int nScript = snprintf(szScript, sizeof szScript, kProcessStackScript, process_name, process_name);
    if (nScript <= 0 || (size_t)nScript >= sizeof szScript) return 0;
    return run_script_into_buffer(szScript, backtrace_buffer, buffer_size);
}

// ---------------------------------------------------------------------------
// Small functions.
// ---------------------------------------------------------------------------

char* strupr(char* lpsz)
{
    if (lpsz == nullptr) return nullptr;
    for (char* p = lpsz; *p != '\0'; ++p) {
        if (*p >= 'a' && *p <= 'z') *p = (char)(*p - 'a' + 'A');
    }
    return lpsz;
}

long long _abs64(long long nValue)
{
    if (nValue == LLONG_MIN) return LLONG_MAX;
    return nValue < 0 ? -nValue : nValue;
}

BOOL IsCharacter(char c)
{
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')) return TRUE;
    // '.', '/' and the digits are one stretch of ASCII.
    if (c >= '.' && c <= '9') return TRUE;
    return c == '_' ? TRUE : FALSE;
}
