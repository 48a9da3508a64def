// Cluster commands over a loaded database, run as the storage thread runs
// them; the standby slots against a port where no node listens.
#include "LogManager.h"
#include "PersistenceDb.h"
#include "TestClock.h"
#include "TestFiles.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>


using namespace talvortest;

namespace {

const BYTE NOT_WRITTEN = 0x5A;
const UINT LOOPBACK = 0x7F000001;

// A port of 127.0.0.1 where nothing listens: a standby node that is down,
// whose thread keeps its slot while it tries to reach it.
USHORT DeadPort()
{
    int sk = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in stAddr = {};
    stAddr.sin_family = AF_INET;
    socklen_t nLen = sizeof(stAddr);
    USHORT usPort = 0;
    if (bind(sk, (struct sockaddr*)&stAddr, sizeof(stAddr)) == 0 && getsockname(sk, (struct sockaddr*)&stAddr, &nLen) == 0)
        usPort = ntohs(stAddr.sin_port);
    close(sk);
    return usPort;
}

class ClusterCommands : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_db.MakeStartAndSave();
        m_lpCmd = m_db.Module().m_pFlashback->GetClusterCommand();
        m_lpChannel = m_db.Module().m_pFlashback->GetStorageMemHead();
    }
    void TearDown() override { WaitForNoStandby(5000); }
    // Writes the command as the engine does (arguments, then the code) and
    // runs one turn of the storage thread.
    HRESULT Run(BYTE bCommand, BYTE bForbid = 1)
    {
        m_lpCmd->m_bResult = NOT_WRITTEN;
        m_lpCmd->m_bForbidSaveFlag = bForbid;
        if (m_db.Head() != nullptr) m_db.Head()->m_bForbidSaveFlag = bForbid;
        m_lpCmd->m_bCommandType = bCommand;
        return m_db.Module().ClusterCommand(&m_db.m_stCrit, m_lpCmd, m_db.Module().m_pFlashback->GetProgress(),
                                            m_db.m_nRedoLogMaxID);
    }
    // A standby command run to its end; its result.
    BYTE Standby(BYTE bCommand, UINT ulIP, USHORT usPort)
    {
        m_lpCmd->m_ulIP = ulIP;
        m_lpCmd->m_usPort = usPort;
        EXPECT_EQ(S_OK, Run(bCommand, 0));
        EXPECT_EQ(CLUSTERCMD_FINISHED, Val(m_lpCmd->m_bCommandType));
        return m_lpCmd->m_bResult;
    }
    // The slots are read under the module's latch: an object seen in a slot
    // without it may be gone the next moment.
    int SlotsTaken() { return m_db.Module().StandbySlotsTaken(); }
    bool WaitForNoStandby(int nTimeoutMs)
    {
        m_db.Module().StopStandbys();
        return WaitUntil([&] { return SlotsTaken() == 0 && TalvorLoadShared(&m_lpChannel->m_bStandbyThreads) == 0; },
                         nTimeoutMs, 10);
    }
    PersistenceDb m_db;
    LPTALVORCOMMAND m_lpCmd = nullptr;
    LPSTORAGEMEMHEAD m_lpChannel = nullptr;
};

} // namespace

TEST_F(ClusterCommands, AStandbyTakesOneSlotPerAddressUntilItsThreadEnds)
{
    const USHORT usDead = DeadPort();
    EXPECT_EQ(CLUSTERRESULT_OK, Standby(CLUSTERCMD_ADDSTANDBY, LOOPBACK, usDead));
    EXPECT_EQ(1, SlotsTaken());
    EXPECT_EQ(1, TalvorLoadShared(&m_lpChannel->m_bStandbyThreads));
    // The same address again: the live thread takes the reset, no new slot.
    EXPECT_EQ(CLUSTERRESULT_OK, Standby(CLUSTERCMD_ADDSTANDBY, LOOPBACK, usDead));
    EXPECT_EQ(1, SlotsTaken());
    EXPECT_EQ(1, TalvorLoadShared(&m_lpChannel->m_bStandbyThreads));
    // Another port of the same address is another standby.
    EXPECT_EQ(CLUSTERRESULT_OK, Standby(CLUSTERCMD_ADDSTANDBY, LOOPBACK, (USHORT)(usDead + 1)));
    EXPECT_EQ(2, SlotsTaken());
    // Removing one frees its slot once its thread has ended, and only it.
    EXPECT_EQ(CLUSTERRESULT_OK, Standby(CLUSTERCMD_REMOVESTANDBY, LOOPBACK, usDead));
    EXPECT_TRUE(WaitUntil([&] { return SlotsTaken() == 1; }, 3000, 10));
    EXPECT_EQ(1, TalvorLoadShared(&m_lpChannel->m_bStandbyThreads));
    EXPECT_TRUE(WaitForNoStandby(5000));
}

// The storage thread resets a standby whose thread ends meanwhile (its
// node says it leaves): the object it is resetting must outlive the reset,
// and the add then gives the address a new standby. Under a sanitizer, an
// object destroyed under the reset is a use after free.
TEST_F(ClusterCommands, AStandbyWhoseThreadEndsDuringItsResetOutlivesTheReset)
{
    // A standby thread waits for a redo service before it connects; one that
    // was never started is enough to talk to the node. Its threads end
    // before it goes (and no trace is read meanwhile: that would take the
    // log manager, and this object with it, away under them).
    struct RedoStandIn {
        explicit RedoStandIn(CBreltMemStorageModule& module) : m_module(module)
        {
            CLogManager::instance().m_pTalvorRedoLog = m_pRedo;
        }
        ~RedoStandIn()
        {
            m_module.StopStandbys();
            CLogManager::instance().m_pTalvorRedoLog = nullptr;
            delete m_pRedo;
        }
        CBreltMemStorageModule& m_module;
        CTalvorRedoLog* m_pRedo = new CTalvorRedoLog();
    };
    std::unique_ptr<RedoStandIn> pRedo(new RedoStandIn(m_db.Module()));
    // The node: a listener on 127.0.0.1 at a port of the kernel's choice.
    int skListen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in stAddr = {};
    stAddr.sin_family = AF_INET;
    stAddr.sin_addr.s_addr = htonl(LOOPBACK);
    socklen_t nLen = sizeof(stAddr);
    ASSERT_EQ(0, bind(skListen, (struct sockaddr*)&stAddr, sizeof(stAddr)));
    ASSERT_EQ(0, listen(skListen, 4));
    ASSERT_EQ(0, getsockname(skListen, (struct sockaddr*)&stAddr, &nLen));
    const USHORT usPort = ntohs(stAddr.sin_port);
    ASSERT_EQ(CLUSTERRESULT_OK, Standby(CLUSTERCMD_ADDSTANDBY, LOOPBACK, usPort));
    // The node takes the connection, the hello and the position request,
    // and keeps the thread waiting for the answer.
    struct pollfd stPoll = {skListen, POLLIN, 0};
    ASSERT_EQ(1, poll(&stPoll, 1, 10000));
    int skNode = accept4(skListen, nullptr, nullptr, SOCK_CLOEXEC);
    close(skListen);
    ASSERT_GE(skNode, 0);
    struct timeval tv = {5, 0};
    setsockopt(skNode, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    MF_SERVICE_TCP_COMMAND stIn;
    for (BYTE bType : {NODEMSG_HELLO, NODEMSG_POSITION}) {
        ASSERT_EQ((ssize_t)sizeof(stIn), recv(skNode, &stIn, sizeof(stIn), MSG_WAITALL));
        ASSERT_EQ(bType, stIn.m_bType);
    }
    // While the storage thread polls for the reset, the node leaves and the
    // thread ends, well before the reset gives up.
    std::atomic<bool> bResetting(false);
    std::thread node([&] {
        WaitUntil([&] { return bResetting.load(); }, 10000);
        usleep(300000);
        MF_SERVICE_TCP_COMMAND stLeave;
        memset(&stLeave, 0, sizeof(stLeave));
        stLeave.m_bVersion = NODEMSG_VERSION;
        stLeave.m_bType = NODEMSG_FAILURE;
        stLeave.m_lDigitalData = NODEMSG_LEAVING;
        send(skNode, &stLeave, sizeof(stLeave), MSG_NOSIGNAL);
    });
    bResetting = true;
    EXPECT_EQ(CLUSTERRESULT_OK, Standby(CLUSTERCMD_ADDSTANDBY, LOOPBACK, usPort));
    node.join();
    close(skNode);
    // The address got a new standby in the slot the old one left.
    EXPECT_EQ(1, SlotsTaken());
    EXPECT_EQ(1, TalvorLoadShared(&m_lpChannel->m_bStandbyThreads));
    EXPECT_TRUE(WaitForNoStandby(10000));
}
