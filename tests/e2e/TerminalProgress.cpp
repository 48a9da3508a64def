// End-to-end: long work shows its progress to a person at a terminal and
// keeps a log or a pipe free of it. The maker writing a large file and the
// inspector's check run once on a pseudo-terminal and once on a pipe.
#include "DatabaseLoadKit.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>

using namespace talvortest;

namespace {

std::string InspectPath() { return std::string(TALVOR_BIN_DIR) + "/talvor-inspect"; }

// Runs the program on a new pseudo-terminal (stdin, stdout and stderr);
// everything it drew, and its exit status in *pnExit (-1 on a time-out).
std::string RunOnTerminal(const std::vector<std::string>& vArgs, int* pnExit)
{
    int fdMaster = -1;
    pid_t pid = forkpty(&fdMaster, nullptr, nullptr, nullptr);
    if (pid == 0) {
        std::vector<char*> argv;
        for (const std::string& s : vArgs) argv.push_back((char*)s.c_str());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    std::string strOut;
    *pnExit = -1;
    if (pid < 0) return strOut;
    long long nDeadline = NowMs() + 60000;
    for (;;) {
        struct pollfd p = {fdMaster, POLLIN, 0};
        int n = poll(&p, 1, 100);
        if (n > 0) {
            char sz[4096];
            ssize_t nRead = read(fdMaster, sz, sizeof(sz));
            if (nRead > 0) {
                strOut.append(sz, (size_t)nRead);
                continue;
            }
            if (nRead < 0 && errno == EINTR) continue;
            break;  // EIO: the program and its terminal are gone
        }
        if (NowMs() > nDeadline) {
            kill(pid, SIGKILL);
            break;
        }
    }
    int nStatus = 0;
    if (waitpid(pid, &nStatus, 0) == pid && WIFEXITED(nStatus) && NowMs() <= nDeadline)
        *pnExit = WEXITSTATUS(nStatus);
    close(fdMaster);
    return strOut;
}

} // namespace

TEST(TerminalProgress, TheMakerAndTheCheckDrawOnATerminalAndStayQuietOnAPipe)
{
    TempTree tree;
    ASSERT_TRUE(tree.Ok());
    int nExit = -1;
    std::string strTerminal =
        RunOnTerminal({MkdbPath(), "--dir", tree.Dir() + "tty", "--data-file", "96", "--redo-size", "1"}, &nExit);
    ASSERT_EQ(0, nExit) << strTerminal;
    EXPECT_NE(std::string::npos, strTerminal.find("100%  96 of 96 MiB  " + tree.Dir() + "tty/Data2.dbf")) << strTerminal;
    EXPECT_NE(std::string::npos, strTerminal.find('\r')) << strTerminal;
    EXPECT_NE(std::string::npos, strTerminal.find("Made database")) << strTerminal;

    std::string strCheck = RunOnTerminal({InspectPath(), "--check", tree.Dir() + "tty"}, &nExit);
    EXPECT_EQ(0, nExit) << strCheck;
    EXPECT_NE(std::string::npos, strCheck.find("100%  2 of 2 files")) << strCheck;

    // The same work into a pipe: results only.
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    std::string strPipe;
    ASSERT_EQ(0, box.Run({MkdbPath(), "--dir", tree.Dir() + "pipe", "--data-file", "96", "--redo-size", "1"}, 60000, &strPipe));
    EXPECT_EQ(std::string::npos, strPipe.find('\r')) << strPipe;
    EXPECT_EQ(std::string::npos, strPipe.find("of 96 MiB")) << strPipe;
    ASSERT_EQ(0, box.Run({InspectPath(), "--check", tree.Dir() + "pipe"}, 60000, &strPipe));
    EXPECT_EQ(std::string::npos, strPipe.find('\r')) << strPipe;
    EXPECT_EQ(std::string::npos, strPipe.find(" files  ")) << strPipe;
}
