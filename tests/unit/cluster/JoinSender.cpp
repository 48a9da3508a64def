// The sending side of a join against a node played by the test on
// loopback.
#include "PackedValue.h"
#include "TalvorClusterFiletransfer.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

const long long MIB = 1048576;

using talvortest::Val;

// A file whose bytes live in a string; only what a join reads is served.
class FakeFile : public IVirtualStorageFile {
public:
    FakeFile(long long nSize, long long nFree) : m_strData((size_t)nSize, '\0'), m_nFree(nFree)
    {
        for (size_t i = 0; i < m_strData.size(); i++) m_strData[i] = (char)((i * 2654435761u) >> 13);
    }
    int Release() override { return 0; }
    int Initialize(LPTALVORCRITICALSECTION, LPFILEINFO, long long, CTalvorFlashback*, LPTALVORPROGRESS, long long,
                   BYTE) override { return 1; }
    int SaveChange2File(LPTALVORCRITICALSECTION, LPFILEINFO, long long, long long, LPBYTE, LPBYTE, BOOL,
                        BOOL&) override { return 1; }
    int ChangeFileSize(LPTALVORCRITICALSECTION, LPFILEINFO, long long, long long, LPBYTE, LPBYTE, long long, int,
                       LPTALVORPROGRESS) override { return 1; }
    int NewFile(LPTALVORCRITICALSECTION, LPFILEINFO, LPBYTE&, int&, USHORT, CTalvorFlashback*, LPTALVORPROGRESS,
                BYTE) override { return 1; }
    int Save2File(LPFILEINFO, BOOL, LPTALVORPROGRESS) override { return 1; }
    int LoadBlock(LPTALVORCRITICALSECTION, BYTE, UINT, long long&, int, LPBYTE) override { return 1; }
    int FlushBlock(LPTALVORCRITICALSECTION, stu_CacheFlush*, LPBYTE) override { return 1; }
    int ChangeFilePath(LPTALVORCRITICALSECTION, LPFILEINFO, char*, LPBYTE, int, LPTALVORPROGRESS, BYTE) override
    {
        return 1;
    }
    long long GetFreeMemoryOffset(LPFILEINFO) override { return m_nFree; }
    int OpenFile(LPTALVORCRITICALSECTION, LPFILEINFO, BYTE) override { return 1; }
    int GetHeadSize(LPFILEINFO) override { return 0; }
    int ReadBlock(LPTALVORCRITICALSECTION, long long llPos, LPBYTE lpBuf, int nSize) override
    {
        if (llPos < 0 || nSize <= 0 || llPos + nSize > (long long)m_strData.size()) return 1;
        memcpy(lpBuf, m_strData.data() + llPos, (size_t)nSize);
        return 0;
    }
    long long GetFileTimestamp(LPFILEINFO) override { return 0; }
    BOOL CheckSpace(LPFILEINFO) override { return TRUE; }
    void TestSpeed(LPTALVORCRITICALSECTION, LPBYTE, int, int) override {}
    BOOL CheckFlush() override { return FALSE; }
    int FlushBuffer(LPTALVORCRITICALSECTION) override { return -1; }

    std::string m_strData;
    long long m_nFree;
};

class FakeSource : public ITalvorJoinSource {
public:
    LPFILEINFO JoinFileInfo(int nFileNo) override { return nFileNo >= 0 && nFileNo < 256 ? m_ar[nFileNo] : nullptr; }
    USHORT JoinDatabaseGuid() override { return 0x1234; }
    BOOL JoinStopAsked() override { return FALSE; }
    LPFILEINFO m_ar[256] = {nullptr};
};

// One message the node took.
struct Taken {
    MF_SERVICE_TCP_COMMAND m_stHead;
    MF_CLUSTER_FILETRANSFER m_stParam;
    std::string m_strPayload;
};

// The joining node: answers as a node must (one reply for each message
// that has one, two for a file), optionally with a foreign reply carrying a
// payload before each of its own, the second reply of an empty file after
// a pause.
class FakeNode {
public:
    explicit FakeNode(bool bForeign = false) : m_bForeign(bForeign)
    {
        m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_in sa = {};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t nLen = sizeof(sa);
        if (bind(m_fd, (struct sockaddr*)&sa, sizeof(sa)) == 0 && listen(m_fd, 4) == 0 &&
            getsockname(m_fd, (struct sockaddr*)&sa, &nLen) == 0)
            m_nPort = ntohs(sa.sin_port);
        m_thread = std::thread([this] { Serve(); });
    }
    ~FakeNode()
    {
        m_bStop = true;
        m_thread.join();
        close(m_fd);
    }
    USHORT Port() const { return (USHORT)m_nPort; }
    std::vector<Taken> Messages()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_vTaken;
    }
    std::atomic<int> m_nRepliesSent{0};

private:
    bool RecvAll(int sk, void* p, size_t n)
    {
        size_t nGot = 0;
        while (nGot < n && !m_bStop) {
            struct pollfd stPoll = {sk, POLLIN, 0};
            if (poll(&stPoll, 1, 50) != 1) continue;
            ssize_t r = recv(sk, (char*)p + nGot, n - nGot, 0);
            if (r <= 0) return false;
            nGot += (size_t)r;
        }
        return nGot == n;
    }
    static void Send(int sk, BYTE bType, BYTE bToken, int nPayload = 0)
    {
        MF_SERVICE_TCP_COMMAND st;
        memset(&st, 0, sizeof(st));
        st.m_bVersion = NODEMSG_VERSION;
        st.m_bType = bType;
        st.m_bToken = bToken;
        st.m_lDataLength = nPayload;
        send(sk, &st, sizeof(st), MSG_NOSIGNAL);
        send(sk, std::string((size_t)nPayload, '\x01').data(), (size_t)nPayload, MSG_NOSIGNAL);
    }
    void Answer(int sk, const MF_SERVICE_TCP_COMMAND& stAsk)
    {
        if (m_bForeign) Send(sk, NODEMSG_FAILURE, (BYTE)(stAsk.m_bToken ^ 0x55), 300);
        Send(sk, NODEMSG_SUCCESS, stAsk.m_bToken);
        m_nRepliesSent++;
    }
    void Serve()
    {
        int sk = -1;
        while (!m_bStop && sk < 0) {
            struct pollfd stPoll = {m_fd, POLLIN, 0};
            if (poll(&stPoll, 1, 50) == 1) sk = accept(m_fd, nullptr, nullptr);
        }
        for (;;) {
            Taken t;
            if (sk < 0 || !RecvAll(sk, &t.m_stHead, sizeof(t.m_stHead))) break;
            memcpy(&t.m_stParam, t.m_stHead.m_lpszParam, sizeof(t.m_stParam));
            t.m_strPayload.resize(t.m_stHead.m_lDataLength);
            if (!t.m_strPayload.empty() && !RecvAll(sk, &t.m_strPayload[0], t.m_strPayload.size())) break;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_vTaken.push_back(t);
            }
            BYTE bType = t.m_stHead.m_bType;
            if (bType == NODEMSG_HELLO) continue;
            if (bType != NODEMSG_FILETRANSFER || t.m_stParam.m_bDataType == FILETRANSFER_LAST) {
                Answer(sk, t.m_stHead);
                continue;
            }
            if (t.m_stParam.m_bDataType != FILETRANSFER_INFO) continue;
            Answer(sk, t.m_stHead);
            MF_MASTERSLAVE_FILEINFO stInfo;
            memcpy(&stInfo, t.m_strPayload.data(), sizeof(stInfo));
            if (stInfo.m_nFileFreeMemoryOffset == 0) {
                // A sender that did not wait for this one would be gone.
                usleep(300000);
                Answer(sk, t.m_stHead);
            }
        }
        if (sk >= 0) close(sk);
    }
    bool m_bForeign;
    int m_fd = -1;
    int m_nPort = 0;
    std::atomic<bool> m_bStop{false};
    std::mutex m_mutex;
    std::vector<Taken> m_vTaken;
    std::thread m_thread;
};

class JoinSender : public ::testing::Test {
protected:
    // Sends one file of nSize bytes (nUsed used) to a node that answers as
    // a node must (bForeign: with a foreign reply before each); the messages
    // the node took, the file's bytes in *pstrData. Nothing may be left
    // unread on the socket once the node has answered all it will.
    std::vector<Taken> SendFile(BYTE bFileNo, long long nSize, long long nUsed, const char* lpPath,
                                std::string* pstrData = nullptr, bool bForeign = false)
    {
        FakeNode node(bForeign);
        FakeFile file(nSize, nUsed);
        stu_FILEINFO st;
        memset(&st, 0, sizeof(st));
        st.m_bFileNo = bFileNo;
        st.m_bFileType = FILETYPE_DATA;
        st.m_liFileSize = nSize;
        st.m_pStorageFile = &file;
        strncpy(st.m_lpszFilePath, lpPath, sizeof(st.m_lpszFilePath) - 1);
        m_xfer.m_pStorage = &m_source;
        int sk = m_xfer.ConnectSlaveService(0x7F000001, node.Port());
        EXPECT_GE(sk, 0);
        if (sk < 0) return {};
        long long nTotal = 0;
        EXPECT_EQ(JOINFILE_DONE, m_xfer.SendFileDataToNewNode(nullptr, &m_stProgress, &st, m_vBuffer.data(),
                                                              JOIN_BUFFER_SIZE, sk, 0x7F000001, node.Port(),
                                                              0x7F000001, nTotal));
        EXPECT_EQ(nSize, nTotal) << "the progress total";
        usleep(400000);
        char c;
        EXPECT_TRUE(recv(sk, &c, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN) << "a reply was left unread";
        // Read after the pause: the node counts a reply once it is sent.
        m_nRepliesSent = node.m_nRepliesSent;
        close(sk);
        if (pstrData != nullptr) *pstrData = file.m_strData;
        return node.Messages();
    }
    int m_nRepliesSent = 0;
    FakeSource m_source;
    CTalvorClusterFiletransfer m_xfer;
    TALVORPROGRESS m_stProgress = {};
    std::vector<char> m_vBuffer = std::vector<char>(JOIN_BUFFER_SIZE);
};

} // namespace

TEST_F(JoinSender, AFileWithNoUsedBytesSendsOnlyItsInformationAndWaitsForBothReplies)
{
    std::vector<Taken> v = SendFile(2, MIB, 0, "/db/Empty.dbf");
    EXPECT_EQ(2, m_nRepliesSent);
    ASSERT_EQ(2u, v.size()); // the hello and the information
    EXPECT_EQ(NODEMSG_FILETRANSFER, v[1].m_stHead.m_bType);
    EXPECT_EQ(FILETRANSFER_INFO, v[1].m_stParam.m_bDataType);
    EXPECT_EQ(sizeof(MF_MASTERSLAVE_FILEINFO), v[1].m_strPayload.size());
    EXPECT_EQ(0x1234, Val(v[1].m_stHead.m_lDigitalData));
}

TEST_F(JoinSender, AFileOfAnExactMultipleOfTheBufferEndsWithAFullLastPieceAndArrivesWhole)
{
    const long long nUsed = 2LL * JOIN_BUFFER_SIZE;
    std::string strData;
    std::vector<Taken> v = SendFile(3, nUsed + MIB, nUsed, "/db/Data3.dbf", &strData);
    ASSERT_EQ(4u, v.size());
    MF_MASTERSLAVE_FILEINFO stInfo;
    memcpy(&stInfo, v[1].m_strPayload.data(), sizeof(stInfo));
    EXPECT_EQ(3, stInfo.m_bFileNo);
    EXPECT_EQ(nUsed + MIB, Val(stInfo.m_nFileSize));
    EXPECT_EQ(nUsed, Val(stInfo.m_nFileFreeMemoryOffset));
    EXPECT_STREQ("/db/Data3.dbf", stInfo.m_lpszFilePath);
    EXPECT_EQ(FILETRANSFER_DATA, v[2].m_stParam.m_bDataType);
    EXPECT_EQ(0, Val(v[2].m_stParam.m_llFileOffset));
    EXPECT_EQ(FILETRANSFER_LAST, v[3].m_stParam.m_bDataType);
    EXPECT_EQ((long long)JOIN_BUFFER_SIZE, Val(v[3].m_stParam.m_llFileOffset));
    // Every piece carries the file's token, and the bytes are the file's.
    EXPECT_EQ(v[1].m_stHead.m_bToken, v[2].m_stHead.m_bToken);
    EXPECT_EQ(v[1].m_stHead.m_bToken, v[3].m_stHead.m_bToken);
    EXPECT_TRUE(v[2].m_strPayload + v[3].m_strPayload == strData.substr(0, (size_t)nUsed));
}

// The node puts a foreign reply with a payload before each of its own: each
// is read off whole and the wait goes on. The last piece is not a whole
// sector and is still read and sent whole.
TEST_F(JoinSender, ForeignRepliesAreReadOffAndALastPieceShortOfASectorIsSentWhole)
{
    std::string strData;
    std::vector<Taken> v = SendFile(4, MIB, 5000, "/db/KV4.dbf", &strData, true);
    ASSERT_EQ(3u, v.size());
    EXPECT_TRUE(v[2].m_strPayload == strData.substr(0, 5000));
}
