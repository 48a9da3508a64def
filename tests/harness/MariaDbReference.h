// MariaDbReference.h — SQL functions checked against a server no one here
// wrote: Debian's MariaDB, started for the test in a temporary tree, reached
// through a unix socket only (no network), stopped and removed at the end.
#pragma once

#include "TempTree.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace talvortest {

// What the server gave for one expression.
struct SqlAnswer {
    bool bError = true;  // the statement failed (or the server gave no row)
    bool bNull = false;  // the value is SQL NULL
    std::string strText; // the value as the client shows it (CONCAT of it), bytes exact
};

class MariaDbReference {
public:
    MariaDbReference() = default;
    ~MariaDbReference();
    MariaDbReference(const MariaDbReference&) = delete;
    MariaDbReference& operator=(const MariaDbReference&) = delete;

    // Makes a data directory and starts mariadbd on it; false (with the
    // reason in Error()) when the server is not installed or does not come
    // up within 30 s. Sessions use utf8mb4 with a binary collation and the
    // time zone +00:00.
    bool Start();
    const std::string& Error() const { return m_strError; }
    // True once Start has brought the server up.
    bool Started() const { return m_nServerPid > 0; }

    // Evaluates every expression as "SELECT expr" in one client session and
    // gives one answer per expression, in order. The expression is evaluated
    // twice (for its NULL test and its text), so RAND(), UUID() and SLEEP()
    // have no use here. False when the client could not run at all.
    bool Eval(const std::vector<std::string>& vExprs, std::vector<SqlAnswer>& vOut);

private:
    void Stop();

    TempTree m_tree{"mariadb"};
    pid_t m_nServerPid = -1;
    std::string m_strSocket;
    std::string m_strError;
    const std::string m_strSessionSql = "SET NAMES utf8mb4 COLLATE utf8mb4_bin; SET time_zone='+00:00';";
};

// Text of a string as a SQL literal: X'..' so that any byte passes unharmed.
std::string SqlHexLiteral(const std::string& strBytes);

} // namespace talvortest
