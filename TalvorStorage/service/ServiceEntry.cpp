// ServiceEntry.cpp — the process entry: the single-instance lock, the signal
// set-up and the record of who asked the service to stop.
#include "BreltMemStorage.h"

#include "CrashContainment.h"
#include "LogManager.h"
#include "TalvorTrace.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>
#include <utmp.h>

namespace {

const char* const LOCK_FILE_PATH = "/var/run/TalvorStorage";

// What the SIGTERM handler learnt about its sender. The handler fills it with
// async-signal-safe calls only; the main thread logs it once the stop flag is
// seen, so no trace latch is ever taken in signal context.
struct TermSenderRecord {
    volatile sig_atomic_t m_bPending;
    int m_nSignal;
    int m_nPid;
    char m_szTerminal[32];
    int m_nTerminalLen;
    char m_szCmdLine[261];
    int m_nCmdLen;
};
TermSenderRecord g_stTermSender;

int SignalSafeRead(const char* lpPath, char* lpBuf, int nSize)
{
    int fd = open(lpPath, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    int nTotal = 0;
    while (nTotal < nSize) {
        ssize_t n = read(fd, lpBuf + nTotal, (size_t)(nSize - nTotal));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        nTotal += (int)n;
    }
    close(fd);
    return nTotal;
}

// snprintf is not async-signal-safe; "/proc/<pid>/<leaf>" is built by hand.
void SignalSafeProcPath(char* lpBuf, int nPid, const char* lpLeaf)
{
    char szDigits[16];
    int n = 0;
    unsigned int u = (unsigned int)nPid;
    do {
        szDigits[n++] = (char)('0' + u % 10);
        u /= 10;
    } while (u != 0 && n < 15);
    char* p = lpBuf;
    for (const char* s = "/proc/"; *s; s++) *p++ = *s;
    while (n > 0) *p++ = szDigits[--n];
    *p++ = '/';
    for (const char* s = lpLeaf; *s; s++) *p++ = *s;
    *p = '\0';
}

struct SignalStep {
    int m_nSignal;
    void (*m_pHandler)(int, siginfo_t*, void*);
    LONG m_nCode;
    const char* m_lpTextZh;
    const char* m_lpTextEn;
};

} // namespace

void SetupSignalHandler()
{
    static const SignalStep arSteps[] = {
        {SIGPIPE, nullptr, 10009001, "设置SIGPIPE信号处理器失败,错误码:(%d)", "Setting SIGPIPE signal processor failed, error code:(%d)"},
        {SIGXFSZ, nullptr, 10009002, "设置SIGXFSZ信号处理器失败,错误码:(%d)", "Setting SIGXFSZ signal processor failed, error code:(%d)"},
        {SIGINT, nullptr, 10009003, "设置SIGINT信号处理器失败,错误码: (%d)", "Setting SIGINT signal processor failed, error code: (%d)"},
        {SIGTERM, TermHandler, 10009004, "设置SIGTERM信号处理器失败,错误码: (%d)", "Setting SIGTERM signal processor failed, error code: (%d)"},
        {SIGSEGV, CrashHandler, 10009005, "设置SIGSEGV信号处理器失败,错误码: (%d)", "Setting SIGSEGV signal processor failed, error code: (%d)"},
        {SIGFPE, CrashHandler, 10009006, "设置SIGFPE信号处理器失败,错误码: (%d)", "Failed to set SIGFPE signal processor, error code: (%d)"},
        {SIGABRT, CrashHandler, 10009007, "设置SIGABRT信号处理器失败,错误码: (%d)", "Setting SIGABRT signal processor failed, error code: (%d)"},
    };
    for (const SignalStep& step : arSteps) {
        struct sigaction sa;
        memset(&sa, 0, sizeof(sa));
        sigemptyset(&sa.sa_mask);
        if (step.m_pHandler == nullptr) {
            sa.sa_handler = SIG_IGN;
        } else {
            sa.sa_sigaction = step.m_pHandler;
            sa.sa_flags = SA_SIGINFO;
        }
        if (sigaction(step.m_nSignal, &sa, nullptr) != 0) {
            Trace("SetupSignalHandler", 1, step.m_nCode, TALVOR_TEXT(step.m_lpTextZh, step.m_lpTextEn), errno);
            return;
        }
    }
}

void TermHandler(int sig, siginfo_t* senderinfo, void*)
{
    int nSavedErrno = errno;
    TermSenderRecord& rec = g_stTermSender;
    if (!rec.m_bPending) {
        rec.m_nSignal = sig;
        rec.m_nPid = senderinfo != nullptr ? senderinfo->si_pid : 0;
        char szPath[64];
        SignalSafeProcPath(szPath, rec.m_nPid, "fd/0");
        ssize_t n = readlink(szPath, rec.m_szTerminal, 31);
        rec.m_nTerminalLen = n > 0 ? (int)n : 0;
        rec.m_szTerminal[rec.m_nTerminalLen] = '\0';
        SignalSafeProcPath(szPath, rec.m_nPid, "cmdline");
        int nRead = SignalSafeRead(szPath, rec.m_szCmdLine, 260);
        rec.m_nCmdLen = nRead > 0 ? nRead : 0;
        rec.m_szCmdLine[rec.m_nCmdLen] = '\0';
        rec.m_bPending = 1;
    }
    TalvorStoreShared(&g_bEixt, 1);
    CrashWakeMainThread();
    errno = nSavedErrno;
}

void KillerInfo(int pid)
{
    // The record was read in the handler while the sender surely lived.
    TermSenderRecord& rec = g_stTermSender;
    if (rec.m_nPid != pid || rec.m_nCmdLen <= 0) return;
    int nLen = rec.m_nCmdLen;
    if (rec.m_szCmdLine[nLen - 1] == '\n') nLen--;
    rec.m_szCmdLine[nLen] = '\0';
    // Arguments are NUL-separated, so the line shows the program name.
    Trace("KillerInfo", 3, 10002000,
          TALVOR_TEXT("ProcessKiller : ( 进程号=%d 命令=%s )", "ProcessKiller : ( id=%d command=%s )"), pid, rec.m_szCmdLine);
}

void LogTermSignalSender()
{
    TermSenderRecord& rec = g_stTermSender;
    if (!rec.m_bPending) return;
    const char* lpTerminal = rec.m_szTerminal;
    bool bHasTerminal = rec.m_nTerminalLen > 0 && strncmp(lpTerminal, "/dev/", 5) == 0 &&
                        strncmp(lpTerminal, "/dev/null", 9) != 0;
    if (bHasTerminal) lpTerminal += 5;
    KillerInfo(rec.m_nPid);

    setutent();
    struct utmp* pEntry;
    while ((pEntry = getutent()) != nullptr) {
        if (pEntry->ut_type != USER_PROCESS || pEntry->ut_user[0] == '\0') continue;
        char szUser[sizeof(pEntry->ut_user) + 1] = {0};
        char szLine[sizeof(pEntry->ut_line) + 1] = {0};
        char szHost[sizeof(pEntry->ut_host) + 1] = {0};
        memcpy(szUser, pEntry->ut_user, sizeof(pEntry->ut_user));
        memcpy(szLine, pEntry->ut_line, sizeof(pEntry->ut_line));
        memcpy(szHost, pEntry->ut_host, sizeof(pEntry->ut_host));
        if (bHasTerminal) {
            if (strcmp(szLine, lpTerminal) != 0) continue;
            Trace("TermHandler", 3, 10002000,
                  TALVOR_TEXT("收到信号 %d(%s)! ProcessKiller : ( 用户:%s 终端=%s IP:%s )",
                              "Received signal %d(%s)! ProcessKiller : ( user:%s tty=%s IP:%s )"),
                  rec.m_nSignal, strsignal(rec.m_nSignal), szUser, szLine, szHost);
        } else {
            Trace("TermHandler", 3, 10002000,
                  TALVOR_TEXT("收到信号 %d(%s)! CurrentOnline : ( 用户:%s 终端=%s IP:%s )",
                              "Received signal %d(%s)! CurrentOnline : ( user:%s tty=%s IP:%s )"),
                  rec.m_nSignal, strsignal(rec.m_nSignal), szUser, szLine, szHost);
        }
    }
    endutent();
    rec.m_bPending = 0;
}

int RunTalvorStorage()
{
    int fdLock = open(LOCK_FILE_PATH, O_RDWR | O_CREAT | O_CLOEXEC, 07777);
    if (fdLock < 0 || flock(fdLock, LOCK_EX | LOCK_NB) != 0) {
        if (fdLock >= 0) close(fdLock);
        return 0;
    }
    SetupSignalHandler();
    HRESULT hr = _AtlModule.PreMessageLoop(0);
    if (hr != (HRESULT)E_FAIL) _AtlModule.PostMessageLoop();
    // The exit status is 0 whatever happened, so the trace line is the
    // operator's only word on a refused start. Some refusals return before
    // the queue was written, some leave the writer running: either way the
    // queue reaches its file before the process ends.
    FlushLogSystem();
    close(fdLock);
    return 0;
}
