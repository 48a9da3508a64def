// NodeReply.h — a node's reply head, as a peer on the cluster port sends it.
#pragma once

#include "MemDBNodeDef.h"

#include <cstring>

namespace talvortest {

inline MF_SERVICE_TCP_COMMAND NodeReply(BYTE bType, BYTE bToken, int nCode = 0, int nPayload = 0,
                                        BYTE bVersion = NODEMSG_VERSION)
{
    MF_SERVICE_TCP_COMMAND st;
    memset(&st, 0, sizeof(st));
    st.m_bVersion = bVersion;
    st.m_bType = bType;
    st.m_bToken = bToken;
    st.m_lDigitalData = nCode;
    st.m_lDataLength = nPayload;
    return st;
}

} // namespace talvortest
