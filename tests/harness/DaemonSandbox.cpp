// DaemonSandbox.cpp — private trees and namespaces for end-to-end tests.
#include "DaemonSandbox.h"

#include "TestClock.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace talvortest {

namespace {

// Polls of a daemon's trace and of a child's end.
const int TRACE_POLL_MS = 20;
const int EXIT_POLL_MS = 5;

// Forks and execs args with stdout/stderr to strOut (or /dev/null).
pid_t ForkExec(const std::vector<std::string>& args, const std::string& strOut)
{
    std::vector<char*> argv;
    for (const std::string& s : args) argv.push_back(const_cast<char*>(s.c_str()));
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid != 0) return pid;
    int fd = open(strOut.empty() ? "/dev/null" : strOut.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) {
        dup2(fd, 1);
        dup2(fd, 2);
        close(fd);
    }
    int fdNull = open("/dev/null", O_RDONLY);
    if (fdNull >= 0) {
        dup2(fdNull, 0);
        close(fdNull);
    }
    execvp(argv[0], argv.data());
    _exit(127);
}

} // namespace

DaemonSandbox::DaemonSandbox() : m_tree("sandbox")
{
    std::string strDaemon = ReadWholeFile(std::string(TALVOR_BIN_DIR) + "/TalvorStorage");
    if (!m_tree.Ok() || mkdir(BinDir().c_str(), 0755) != 0 || mkdir((Root() + "/Data").c_str(), 0755) != 0 ||
        mkdir(DataDir().c_str(), 0755) != 0 || strDaemon.empty() ||
        !WriteWholeFile(BinDir() + "TalvorStorage", strDaemon) || chmod((BinDir() + "TalvorStorage").c_str(), 0755) != 0)
        return;

    // The holder makes the namespaces and sleeps; it tells us it is ready by
    // closing its end of the pipe after the mounts.
    int arPipe[2];
    if (pipe(arPipe) != 0) return;
    pid_t pid = fork();
    if (pid == 0) {
        close(arPipe[0]);
        dup2(arPipe[1], 3);
        execlp("unshare", "unshare", "--ipc", "--mount", "--propagation", "private", "sh", "-c",
               "mount -t tmpfs -o mode=1777 tmpfs /dev/shm && mount -t tmpfs -o mode=755 tmpfs /var/run && "
               "echo ready >&3 && exec 3>&- && exec sleep 100000",
               (char*)nullptr);
        _exit(127);
    }
    close(arPipe[1]);
    char szBuf[8] = {0};
    ssize_t n = read(arPipe[0], szBuf, sizeof(szBuf) - 1);
    close(arPipe[0]);
    if (pid > 0 && n > 0 && strncmp(szBuf, "ready", 5) == 0) {
        m_nHolderPid = pid;
    } else if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

DaemonSandbox::~DaemonSandbox()
{
    // Only pids not reaped yet: none can name another's process.
    for (pid_t pid : m_vSpawned) kill(pid, SIGKILL);
    for (pid_t pid : m_vSpawned) waitpid(pid, nullptr, 0);
    if (m_nHolderPid > 0) {
        kill(m_nHolderPid, SIGKILL);
        waitpid(m_nHolderPid, nullptr, 0);
    }
}

void DaemonSandbox::WriteIni(const std::string& strText) { WriteWholeFile(IniPath(), strText); }

void DaemonSandbox::WriteDefaultIni()
{
    WriteIni("[System]\r\ndatabasepath=" + DataDir() + "\r\nLanguage=0\r\npersistenceintervals=3\r\n");
}

pid_t DaemonSandbox::Spawn(const std::vector<std::string>& args, const std::string& strOutName)
{
    if (m_nHolderPid <= 0) return -1;
    std::vector<std::string> full = {"nsenter", "-t", std::to_string(m_nHolderPid), "--ipc", "--mount", "--"};
    full.insert(full.end(), args.begin(), args.end());
    pid_t pid = ForkExec(full, strOutName.empty() ? "" : m_tree.Root() + "/" + strOutName + ".out");
    if (pid > 0) m_vSpawned.push_back(pid);
    return pid;
}

void DaemonSandbox::Reaped(pid_t pid)
{
    m_vSpawned.erase(std::remove(m_vSpawned.begin(), m_vSpawned.end(), pid), m_vSpawned.end());
}

int DaemonSandbox::Run(const std::vector<std::string>& args, int nTimeoutMs, std::string* pOutput)
{
    static int s_nRun = 0;
    std::string strName = "run" + std::to_string(++s_nRun);
    pid_t pid = Spawn(args, strName);
    if (pid < 0) return -1;
    int nStatus = WaitExit(pid, nTimeoutMs);
    if (nStatus == -1) {
        Signal(pid, SIGKILL);
        WaitExit(pid, DAEMON_STOP_TIMEOUT_MS);
    }
    if (pOutput != nullptr) *pOutput = ReadWholeFile(m_tree.Root() + "/" + strName + ".out");
    return nStatus;
}

pid_t DaemonSandbox::StartDaemon(const std::string& strTestCrash)
{
    std::vector<std::string> args;
    if (!strTestCrash.empty()) args = {"env", "TALVOR_TEST_CRASH=" + strTestCrash};
    args.push_back(BinDir() + "TalvorStorage");
    return Spawn(args, "daemon");
}

pid_t DaemonSandbox::StartServing(const std::string& strTestCrash, int nTimeoutMs)
{
    size_t nBefore = ReadDaemonTrace().size();
    pid_t pid = StartDaemon(strTestCrash);
    auto fnServing = [&] { return ReadDaemonTrace().find(DAEMON_SERVING_LINE, nBefore) != std::string::npos; };
    return pid > 0 && WaitUntil(fnServing, nTimeoutMs, TRACE_POLL_MS) ? pid : -1;
}

bool DaemonSandbox::WaitForTrace(const std::string& strText, int nTimeoutMs)
{
    return WaitUntil([&] { return ReadDaemonTrace().find(strText) != std::string::npos; }, nTimeoutMs, TRACE_POLL_MS);
}

int DaemonSandbox::WaitExit(pid_t pid, int nTimeoutMs)
{
    int nResult = -1;
    WaitUntil(
        [&] {
            int nStatus = 0;
            pid_t r = waitpid(pid, &nStatus, WNOHANG);
            if (r == 0) return false;
            if (r < 0) {
                nResult = -2;
                return true;
            }
            Reaped(pid);
            nResult = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 128 + WTERMSIG(nStatus);
            return true;
        },
        nTimeoutMs, EXIT_POLL_MS);
    return nResult;
}

bool DaemonSandbox::IsRunning(pid_t pid)
{
    int nStatus = 0;
    pid_t r = waitpid(pid, &nStatus, WNOHANG);
    if (r == pid) Reaped(pid);
    return r == 0;
}

void DaemonSandbox::Signal(pid_t pid, int nSignal)
{
    if (pid > 0 && std::find(m_vSpawned.begin(), m_vSpawned.end(), pid) != m_vSpawned.end()) kill(pid, nSignal);
}

std::string DaemonTraceIn(const std::string& strLogDir)
{
    std::string strAll;
    for (const std::string& strFile : ListFiles(strLogDir, "TalvorStorage")) strAll += ReadWholeFile(strFile);
    return strAll;
}

} // namespace talvortest
