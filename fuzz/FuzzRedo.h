// FuzzRedo.h — a redo object on group files of its own in the fuzz
// directory, as the daemon's start makes it, and the writer's passes over
// the ring it is given, bounded as the stop bounds them.
#pragma once

#include "FuzzFiles.h"
#include "FuzzQuiet.h"
#include "TalvorRedoLog.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace talvorfuzz {

inline constexpr int FUZZ_REDO_GROUPS = 3;
inline constexpr int FUZZ_REDO_MAX_SIZE = 4096;
inline constexpr USHORT FUZZ_REDO_GUID = 0x77;

inline std::string RedoDir()
{
    static std::string s_strDir = [] {
        // Group files and archive copies are synced at every seal and copy
        // and never opened for direct I/O: tmpfs keeps the runs quick.
        std::string strDir = RamDir() + "redo/";
        std::string strCmd = "mkdir -p " + strDir;
        if (system(strCmd.c_str()) != 0) abort();
        return strDir;
    }();
    return s_strDir;
}

inline std::string GroupFilePath(int nGroup) { return RedoDir() + "Redo" + std::to_string(nGroup) + ".log"; }

// Each input starts on no group files at all.
inline void RemoveGroupFiles()
{
    for (int g = 0; g < REDOGROUP_MAX && g < 8; g++) unlink(GroupFilePath(g).c_str());
}

class CFuzzRedo {
public:
    CFuzzRedo()
    {
        QuietTrace();
        memset(&m_stHead, 0, sizeof(m_stHead));
        m_stHead.m_usDatabaseGuid = FUZZ_REDO_GUID;
        m_stHead.m_nWriteRedoOnlineGroups = FUZZ_REDO_GROUPS;
        m_stHead.m_nWriteRedoMaxSize = FUZZ_REDO_MAX_SIZE;
        m_stHead.m_nWriteUndoDelayTime = 1;
        m_stHead.m_nRedoLogMaxID = 1;
        InitThreadCritSection(&m_stCrit);
    }
    ~CFuzzRedo() { delete m_pRedo; }

    SYSTEMFILEHEAD& Head() { return m_stHead; }
    CTalvorRedoLog* Redo() { return m_pRedo; }

    bool Init(LPBYTE lpRing, int nRingSize)
    {
        m_pRedo = new CTalvorRedoLog();
        m_pRedo->SetRingSize(nRingSize);
        std::string strDir = RedoDir();
        snprintf(m_szDir, sizeof(m_szDir), "%s", strDir.c_str());
        return m_pRedo->Init(&m_stHead, 0, &m_bExit, m_szDir, (char*)lpRing, nullptr, nullptr, FALSE, nullptr);
    }

    // nPasses passes, then the stop: passes until the writer ends, at most
    // nStopPasses of them.
    void Run(int nPasses, int nStopPasses)
    {
        memset(&m_st, 0, sizeof(m_st));
        m_pRedo->StartWriter(m_st);
        for (int i = 0; i < nPasses; i++)
            if (m_pRedo->WritePass(m_st, &m_stCrit)) return;
        m_bExit = TRUE;
        for (int i = 0; i < nStopPasses; i++)
            if (m_pRedo->WritePass(m_st, &m_stCrit)) return;
    }

private:
    SYSTEMFILEHEAD m_stHead;
    TALVORCRITICALSECTION m_stCrit;
    BOOL m_bExit = FALSE;
    char m_szDir[MAX_PATH];
    CTalvorRedoLog* m_pRedo = nullptr;
    REDOWRITERSTATE m_st;
};

} // namespace talvorfuzz
