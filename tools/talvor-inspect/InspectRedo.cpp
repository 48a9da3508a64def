// InspectRedo.cpp — the heads of the online redo groups in the database's
// Redo/ directory: which log each holds and in what state. A head that is
// no redo head is said; the daemon makes such a group anew at its start, so
// it is no damage of the database.
#include "InspectReport.h"

#include "MemDBCommonDef.h"
#include "RedoLogFormat.h"
#include "TalvorFileIO.h"

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace talvorinspect {

std::vector<InspectedGroup> ReadRedoGroups(const std::string& strDatabaseDir, const SYSTEMFILEHEAD* h)
{
    std::vector<InspectedGroup> v;
    int nGroups = h->m_nWriteRedoOnlineGroups;
    if (nGroups < REDOGROUP_MIN) nGroups = REDOGROUP_MIN;
    if (nGroups > REDOGROUP_MAX) nGroups = REDOGROUP_MAX;
    for (int g = 0; g < nGroups; g++) {
        InspectedGroup st;
        st.m_nGroup = g;
        st.m_strPath = strDatabaseDir + "Redo/Redo" + std::to_string(g) + ".log";
        int fd = CTalvorFileIO::Current()->Open(st.m_strPath.c_str(), O_RDONLY | O_CLOEXEC, 0);
        if (fd < 0) {
            st.m_strProblem = "missing (made at the next start)";
            v.push_back(st);
            continue;
        }
        struct stat stFile;
        long long nSize = CTalvorFileIO::Current()->FStat(fd, &stFile) == 0 ? (long long)stFile.st_size : 0;
        MF_REDOLOGFILEHEAD stHead;
        memset(&stHead, 0, sizeof(stHead));
        bool bRead = nSize >= (long long)sizeof(stHead) && TalvorReadFull(fd, &stHead, sizeof(stHead), 0);
        CTalvorFileIO::Current()->Close(fd);
        if (!bRead || RedoCheckFileHead(stHead, nSize, nullptr) != REDOHEAD_OK)
            st.m_strProblem = "no redo head (made anew at the next start)";
        else if (stHead.m_usDatabaseGuid != h->m_usDatabaseGuid)
            st.m_strProblem = "the head of another database (made anew at the next start)";
        st.m_nLogNo = stHead.m_nSequenceNO;
        st.m_bState = stHead.m_bState;
        st.m_nEffectiveSize = stHead.m_nEffectiveSize;
        v.push_back(st);
    }
    return v;
}

void PrintRedoGroupWords(const std::vector<InspectedGroup>& v, FILE* pOut)
{
    for (const InspectedGroup& st : v) {
        if (!st.m_strProblem.empty())
            fprintf(pOut, "redo group %d: %s: %s\n", st.m_nGroup, st.m_strPath.c_str(), st.m_strProblem.c_str());
        else
            fprintf(pOut, "redo group %d: log %u, %s, %u bytes that count\n", st.m_nGroup, st.m_nLogNo,
                    RedoGroupStateName(st.m_bState), st.m_nEffectiveSize);
    }
}

} // namespace talvorinspect
