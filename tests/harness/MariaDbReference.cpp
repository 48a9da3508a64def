// MariaDbReference.cpp — the server as a child process, the client in batch
// mode with one row per expression: its index, the NULL test and the value
// in hexadecimal, so tabs and newlines inside a value cannot shift the rows.
#include "MariaDbReference.h"

#include "PythonReference.h"
#include "TestClock.h"
#include "TestFiles.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace talvortest {

namespace {

const int SERVER_START_MS = 30000;
const int SERVER_STOP_MS = 10000;
const int SERVER_POLL_MS = 100;

bool IsSocket(const std::string& strPath) { struct stat st; return stat(strPath.c_str(), &st) == 0 && S_ISSOCK(st.st_mode); }

// One row "index\tisnull\thex" of the batch output into its answer.
void ReadRow(const std::string& strLine, std::vector<SqlAnswer>& vOut)
{
    size_t nTab1 = strLine.find('\t'), nTab2 = strLine.find('\t', nTab1 + 1);
    char* pEnd = nullptr;
    unsigned long nIndex = strtoul(strLine.c_str(), &pEnd, 10);
    if (nTab2 == std::string::npos || pEnd != strLine.c_str() + nTab1 || nIndex >= vOut.size()) return;
    SqlAnswer& answer = vOut[nIndex];
    answer.bNull = strLine.compare(nTab1 + 1, nTab2 - nTab1 - 1, "1") == 0;
    std::string strHex = strLine.substr(nTab2 + 1);
    answer.bError = !answer.bNull && (strHex.size() % 2 != 0 ||
                                      strHex.find_first_not_of("0123456789ABCDEFabcdef") != std::string::npos);
    answer.strText.clear();
    for (size_t i = 0; !answer.bNull && !answer.bError && i < strHex.size(); i += 2)
        answer.strText += static_cast<char>(std::stoi(strHex.substr(i, 2), nullptr, 16));
}

} // namespace

std::string SqlHexLiteral(const std::string& strBytes) { return "X'" + HexOf(strBytes) + "'"; }

MariaDbReference::~MariaDbReference() { Stop(); }

bool MariaDbReference::Start()
{
    auto Fail = [&](const std::string& strWhy) { return (m_strError = strWhy, false); };
    if (!m_tree.Ok()) return Fail("no temporary tree");
    if (access("/usr/sbin/mariadbd", X_OK) != 0 || access("/usr/bin/mariadb", X_OK) != 0)
        return Fail("mariadbd or mariadb is not installed (scripts/install-deps installs them)");
    std::string strData = m_tree.Path("data");
    m_strSocket = m_tree.Path("sock");
    // A temporary directory of its own: the server names its temporary
    // tables by its process id, and two of them started in their own pid
    // namespaces (tests/isolate.sh) can share an id and would take each
    // other's files out of a common /tmp.
    std::string strTmp = m_tree.Path("tmp");
    std::string strTmpArg = "--tmpdir=" + strTmp;
    std::string strInstall = "mkdir -p '" + strTmp + "' && mariadb-install-db --no-defaults --user=root --skip-test-db --datadir='" +
                             strData + "' '" + strTmpArg + "' >'" + m_tree.Path("install.log") + "' 2>&1";
    // On a loaded machine the installer has been seen to fail once and
    // succeed on a second try in a fresh directory.
    bool bInstalled = system(strInstall.c_str()) == 0;
    if (!bInstalled) {
        std::string strRetry = "rm -rf '" + strData + "' && " + strInstall;
        bInstalled = system(strRetry.c_str()) == 0;
    }
    if (!bInstalled) return Fail("mariadb-install-db failed: " + ReadWholeFile(m_tree.Path("install.log")));
    std::string strDataArg = "--datadir=" + strData, strSocketArg = "--socket=" + m_strSocket,
                strLogArg = "--log-error=" + m_tree.Path("error.log"), strPidArg = "--pid-file=" + m_tree.Path("pid");
    pid_t nParent = getpid();
    pid_t nPid = fork();
    if (nPid < 0) return Fail("fork failed");
    if (nPid == 0) {
        // The server dies with the test, however the test ends: a test
        // killed by its time-out must not leave a server running.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != nParent) _exit(127);
        execl("/usr/sbin/mariadbd", "mariadbd", "--no-defaults", strDataArg.c_str(), strSocketArg.c_str(),
              strTmpArg.c_str(), "--skip-networking", "--user=root", "--skip-grant-tables", "--innodb-buffer-pool-size=8M",
              "--character-set-server=utf8mb4", "--collation-server=utf8mb4_bin", strLogArg.c_str(),
              strPidArg.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    m_nServerPid = nPid;
    bool bEnded = false;
    if (WaitUntil([&] { return IsSocket(m_strSocket) || (bEnded = waitpid(nPid, nullptr, WNOHANG) == nPid); },
                  SERVER_START_MS, SERVER_POLL_MS) && !bEnded)
        return true;
    if (bEnded) m_nServerPid = -1;
    m_strError = "mariadbd did not come up: " + ReadWholeFile(m_tree.Path("error.log"));
    Stop();
    return false;
}

void MariaDbReference::Stop()
{
    if (m_nServerPid <= 0) return;
    kill(m_nServerPid, SIGTERM);
    pid_t nPid = m_nServerPid;
    if (!WaitUntil([&] { return waitpid(nPid, nullptr, WNOHANG) == nPid; }, SERVER_STOP_MS, SERVER_POLL_MS)) {
        kill(nPid, SIGKILL);
        waitpid(nPid, nullptr, 0);
    }
    m_nServerPid = -1;
}

bool MariaDbReference::Eval(const std::vector<std::string>& vExprs, std::vector<SqlAnswer>& vOut)
{
    vOut.assign(vExprs.size(), SqlAnswer());
    if (m_nServerPid <= 0) return false;
    std::string strSql = m_strSessionSql + "\n";
    for (size_t i = 0; i < vExprs.size(); i++) {
        const std::string& e = vExprs[i];
        strSql += "SELECT " + std::to_string(i) + ", (" + e + ") IS NULL, HEX(CONCAT((" + e + ")));\n";
    }
    std::string strInput = m_tree.File("input.sql", strSql);
    // --force goes on after a failing statement; its row is simply missing.
    std::string strCommand = "mariadb --no-defaults --force --batch --raw --skip-column-names -u root -S '" +
                             m_strSocket + "' < '" + strInput + "' 2>'" + m_tree.Path("client.log") + "'";
    for (const std::string& strLine : RunForLines(strCommand)) ReadRow(strLine, vOut);
    return true;
}

} // namespace talvortest
