// End-to-end: talvor-redodump over the groups and archives a real daemon
// wrote while the engine stand-in committed records. The dump must list every
// record the stand-in wrote, in order, with its size, type, timestamp and
// transaction, and nothing else.
#include "DatabaseLoadKit.h"

#include <tuple>

using namespace talvortest;

namespace {

struct DumpedRecord { long long m_nLogNo, m_nOffset, m_nSize, m_nTimestamp; int m_nType; unsigned m_nTransaction; };

std::vector<DumpedRecord> RecordLines(const std::string& strOut)
{
    std::vector<DumpedRecord> v;
    std::istringstream in(strOut);
    std::string strLine;
    while (std::getline(in, strLine)) {
        DumpedRecord r;
        if (sscanf(strLine.c_str(), "  log %lld at %lld: size %lld, type %d, timestamp %lld, transaction %u", &r.m_nLogNo,
                   &r.m_nOffset, &r.m_nSize, &r.m_nType, &r.m_nTimestamp, &r.m_nTransaction) == 6)
            v.push_back(r);
    }
    return v;
}

// The records of the stand-in's stream file, read by their own heads.
std::vector<BASEEXECUTEPLANHEAD> StreamRecords(const std::string& strStream)
{
    std::vector<BASEEXECUTEPLANHEAD> v;
    for (size_t nPos = 0; nPos + sizeof(BASEEXECUTEPLANHEAD) <= strStream.size();) {
        BASEEXECUTEPLANHEAD h;
        memcpy(&h, strStream.data() + nPos, sizeof(h));
        if (h.m_nTotalDataSize < sizeof(h)) break;
        v.push_back(h);
        nPos += h.m_nTotalDataSize;
    }
    return v;
}

} // namespace

TEST(RedoDumpTool, TheDumpOfARealDaemonsGroupsAndArchivesListsEveryRecordInOrder)
{
    DaemonSandbox box;
    std::string strArchive = box.Root() + "/arch/";
    pid_t pid = StartDb(box, {"--redo-groups", "3"}, "archivetype=1\r\narchivedespath=" + strArchive + "\r\n");
    ASSERT_GT(pid, 0);
    // Seals asked every 200 records make seven logs or more in three groups:
    // the groups wrap, so the early logs live on in the archive only.
    std::string strStream = box.Root() + "/stream.bin";
    std::string strOut;
    ASSERT_EQ(0, Peer(box, {"redo", "--records", "1200", "--max-size", "60000", "--seed", "13", "--seal-at",
                            "200,400,600,800,1000", "--out", strStream, "--timeout", "120000"}, &strOut))
        << strOut << box.ReadDaemonTrace();
    ASSERT_TRUE(StopDaemon(box, pid));

    std::vector<BASEEXECUTEPLANHEAD> vWritten = StreamRecords(ReadWholeFile(strStream));
    ASSERT_EQ(1200u, vWritten.size());
    EXPECT_EQ(0, box.Run({ToolPath("talvor-redodump"), box.DataDir(), strArchive}, 60000, &strOut)) << strOut;
    std::vector<DumpedRecord> vDumped = RecordLines(strOut);
    ASSERT_EQ(vWritten.size(), vDumped.size()) << strOut.substr(0, 4000);
    long long nLogs = 0, nPrevLog = 0, nNext = REDOLOGFILE_HEAD_SIZE;
    for (size_t i = 0; i < vWritten.size(); i++) {
        const DumpedRecord& d = vDumped[i];
        if (d.m_nLogNo != nPrevLog) {
            ASSERT_GT(d.m_nLogNo, nPrevLog) << "record " << i;
            nPrevLog = d.m_nLogNo;
            nNext = REDOLOGFILE_HEAD_SIZE;
            nLogs++;
        }
        const BASEEXECUTEPLANHEAD& w = vWritten[i];
        ASSERT_EQ(std::make_tuple(nNext, (long long)w.m_nTotalDataSize, (int)w.m_nType, (long long)w.m_nTimestamp,
                                  (unsigned)w.m_usTransactionNo),
                  std::make_tuple(d.m_nOffset, d.m_nSize, d.m_nType, d.m_nTimestamp, d.m_nTransaction))
            << "record " << i << " (offset, size, type, timestamp, transaction)";
        nNext = d.m_nOffset + d.m_nSize;
    }
    EXPECT_GT(nLogs, 5) << "the groups never wrapped";
}
