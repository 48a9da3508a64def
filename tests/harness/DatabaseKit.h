// DatabaseKit.h — what the tests of memory files, the system file and the
// undo cache share: a private database directory with an ini and a trace
// log, database files made through the same layout the maker uses, and a
// sweep of image segments between tests.
//
// Each test binary runs in its own IPC namespace, so the fixed image keys
// are the test's own; the sweep only guards one test from the next.
#pragma once

#include "ConfigHelper.h"
#include "DbFileLayout.h"
#include "FaultFileIO.h"
#include "LogManager.h"
#include "MemDBCommonDef.h"
#include "PackedValue.h"
#include "TempTree.h"
#include "TestFiles.h"

#include <gtest/gtest.h>

#include <string>

namespace talvortest {

// Removes the image segments of every file number.
void RemoveImageSegments();
bool SegmentExists(BYTE bFileNo);

// A temporary tree with TalvorConfig.ini naming it as the database
// directory (English messages), and a fresh trace log in its Log/. The log
// and the configuration are closed and the tree removed at the end.
class DatabaseDir {
public:
    explicit DatabaseDir(const std::string& strExtraIni = "");
    ~DatabaseDir();
    DatabaseDir(const DatabaseDir&) = delete;
    DatabaseDir& operator=(const DatabaseDir&) = delete;

    // False when the tree, the ini or the log could not be made.
    bool Ok() const { return m_tree.Ok() && m_bIniRead && m_bLogUp; }
    // With a trailing "/"; Root() without.
    std::string Dir() const { return m_tree.Dir(); }
    const std::string& Root() const { return m_tree.Root(); }
    std::string IniPath() const { return Dir() + "TalvorConfig.ini"; }
    std::string LogDir() const { return Dir() + "Log/"; }
    // The usual ini ([System] databasepath, Language=0) and strExtra after
    // it, read in as the configuration; false when it could not be.
    bool WriteIni(const std::string& strExtra);
    // strText as the whole ini, read in afresh.
    bool UseIni(const std::string& strText);
    // Everything traced so far: the log is closed (which writes what is
    // queued) and opened again.
    std::string Trace() const;
    bool Traced(const std::string& strText) const { return Trace().find(strText) != std::string::npos; }

private:
    TempTree m_tree;
    int m_nLanguage;
    bool m_bIniRead = false;
    bool m_bLogUp = false;
};

// A byte that depends on the offset, never 0, so that a shifted or missing
// piece shows.
inline BYTE PatternByte(long long nOffset, BYTE bSeed)
{
    return (BYTE)(((nOffset * 131) >> 9) + (nOffset >> 17) + bSeed) | 1;
}

// A memory-mode file as the maker makes it, then filled with the pattern
// from the end of block 1 to nFreeOffset (moved there), and with nJunkFrom
// on (if above 0) with the pattern too, bytes a load must not read.
std::string MakeFileBytes(BYTE bFileType, BYTE bFileNo, long long nSize, long long nFreeOffset,
                          long long nJunkFrom = 0, BYTE bSeed = 7);

} // namespace talvortest
