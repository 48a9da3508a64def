// End-to-end: talvor-redodump over the groups and archives a real daemon
// wrote while the engine stand-in committed records. The dump must list every
// record the stand-in wrote, in order, with its size, type, timestamp and
// transaction, and nothing else; a damaged file must be refused at the
// offset of the damage, whatever part of it is damaged.
#include "DatabaseLoadKit.h"

#include <tuple>

using namespace talvortest;

namespace {

std::string DumpPath() { return ToolPath("talvor-redodump"); }

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

// A record as the engine frames it: head, body, and the trailer where its
// type carries one.
std::string MakeRecord(UINT nSize, BYTE bType, long long nTimestamp)
{
    std::string s(nSize, '\x5A');
    BASEEXECUTEPLANHEAD h;
    memset(&h, 0, sizeof(h));
    h.m_nTotalDataSize = nSize;
    h.m_nDataFlag = EXECUTEPLAN_DATAFLAG;
    h.m_nType = bType;
    h.m_nTimestamp = nTimestamp;
    memcpy(&s[0], &h, sizeof(h));
    if (RedoRecordHasTrailer(bType)) {
        UINT nTrailer = REDORECORD_TRAILER;
        memcpy(&s[nSize - 4], &nTrailer, 4);
    }
    return s;
}

// A log of three records at 50, 150 and 230; 2000 bytes in all. Sealed, or
// still open (no sealed size, no end).
std::string MakeLog(bool bOpen = false)
{
    std::string strBody = MakeRecord(100, 3, 11) + MakeRecord(80, 12, 0) + MakeRecord(64, 5, 12);
    MF_REDOLOGFILEHEAD h;
    memset(&h, 0, sizeof(h));
    memcpy(h.m_lpszFileFlag, REDOLOGFILE_FLAG, sizeof(REDOLOGFILE_FLAG));
    h.m_nEffectiveSize = bOpen ? 0 : (UINT)(REDOLOGFILE_HEAD_SIZE + strBody.size());
    h.m_usDatabaseGuid = 99;
    h.m_nSequenceNO = 4;
    h.m_nVersion = REDOLOGFILE_VERSION;
    h.m_bState = bOpen ? REDOGROUP_WRITING : REDOGROUP_SEALED;
    h.m_nBeginTimestamp = 11;
    h.m_nEndTimestamp = bOpen ? 0 : 12;
    std::string s((const char*)&h, sizeof(h));
    s += strBody;
    s.resize(2000, '\0');
    return s;
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
    EXPECT_EQ(0, box.Run({DumpPath(), box.DataDir(), strArchive}, 60000, &strOut)) << strOut;
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

TEST(RedoDumpTool, ADamagedLogIsRefusedAtTheDamageAndAnOpenOneEndsAtItsLastRecord)
{
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    std::string strPath = box.Root() + "/Log4.log";
    std::string strSound = MakeLog();
    ASSERT_TRUE(WriteWholeFile(strPath, strSound));
    std::string strOut;
    ASSERT_EQ(0, box.Run({DumpPath(), strPath}, 30000, &strOut)) << strOut;
    std::vector<DumpedRecord> v = RecordLines(strOut);
    ASSERT_EQ(3u, v.size()) << strOut;
    EXPECT_EQ(150, v[1].m_nOffset);
    EXPECT_EQ(12, v[1].m_nType);
    EXPECT_EQ(0, v[1].m_nTimestamp);
    EXPECT_EQ(230, v[2].m_nOffset);

    struct Damage { const char* m_lpWhat; long long m_nAt; std::string m_strBytes; long long m_nRefusedAt; };
    UINT nPastEnd = 5000;
    const Damage arDamages[] = {
        {"the mark of the second record", 154, std::string(4, '\0'), 150},
        {"the trailer of the first record", 146, "XXXX", 50},
        {"the size of the third record, past the seal", 230, std::string((const char*)&nPastEnd, 4), 230},
        {"the file's flag", 0, "B", 0},
        {"the sealed size, past the file", 10, std::string((const char*)&nPastEnd, 4), 10},
    };
    for (const Damage& d : arDamages) {
        std::string strBad = strSound;
        strBad.replace((size_t)d.m_nAt, d.m_strBytes.size(), d.m_strBytes);
        ASSERT_TRUE(WriteWholeFile(strPath, strBad));
        EXPECT_EQ(1, box.Run({DumpPath(), strPath}, 30000, &strOut)) << d.m_lpWhat << "\n" << strOut;
        EXPECT_NE(std::string::npos, strOut.find("refused: " + strPath + " at offset " + std::to_string(d.m_nRefusedAt) + ":"))
            << d.m_lpWhat << "\n" << strOut;
    }

    // The same log still open: it ends at its last record, no refusal.
    std::string s = MakeLog(true);
    strPath = box.Root() + "/Redo1.log";
    ASSERT_TRUE(WriteWholeFile(strPath, s));
    EXPECT_EQ(0, box.Run({DumpPath(), strPath}, 30000, &strOut)) << strOut;
    EXPECT_EQ(3u, RecordLines(strOut).size()) << strOut;

    // Cut behind the record without timestamp: nothing after it proves it
    // this log's (a stale record of the group's previous log looks the
    // same), so it is not listed as one.
    s.replace(230, 64, std::string(64, '\0'));
    ASSERT_TRUE(WriteWholeFile(strPath, s));
    EXPECT_EQ(0, box.Run({DumpPath(), strPath}, 30000, &strOut)) << strOut;
    v = RecordLines(strOut);
    ASSERT_EQ(1u, v.size()) << strOut;
    EXPECT_EQ(50, v[0].m_nOffset);
}
