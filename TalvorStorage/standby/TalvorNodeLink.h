// TalvorNodeLink.h — what every connection of this node to another node
// needs, whether it ships the log to a standby or copies the database to a
// joining node: a fresh token, a connect that gives up in time and sees a
// stop, the hello that opens a connection, the program name it carries.
#pragma once

#include "MemDBNodeDef.h"
#include "TypeDef.h"

#include <cerrno>

// Asked between the slices of a wait: TRUE ends the wait at once.
typedef BOOL (*PFNNODESTOP)(void* lpContext);

// A token that is neither 0 nor bLast. Any thread.
BYTE NodeNewToken(BYTE bLast);

// A TCP connection to ulIP:usPort (host order), made within nTimeoutMs
// (waited for in slices of 100 ms, pfnStop asked between them; null: never
// stopped), with TCP_NODELAY on. The socket; NODECONNECT_NOSOCKET when no
// socket could be made (errno kept); -1 when the connect failed. Nothing
// traced. Any thread.
inline constexpr int NODECONNECT_NOSOCKET = -2;
int NodeConnect(UINT ulIP, USHORT usPort, int nTimeoutMs, PFNNODESTOP pfnStop, void* lpContext);

// The hello that opens a connection: head of version 3, type 4, the guid,
// and MF_CLIENTINFO with bCmdType, this program's name, process and thread,
// and ulIP and usPort (0 for none). Any thread.
void NodeBuildHello(MF_SERVICE_TCP_COMMAND& stHello, BYTE bCmdType, USHORT usDatabaseGuid, UINT ulIP, USHORT usPort);

// Whether errno nErr means the connection is gone for good.
inline bool NodeConnectionLost(int nErr)
{
    return nErr == ECONNRESET || nErr == EPIPE || nErr == ENOTCONN || nErr == ENOTSOCK;
}
