// The private members of CDAKVorn, for the tests that look at them.
#pragma once

#include "link/dak_vorn.h"

#define ACCESS_MEMBER(name)                                                                        \
    static auto& name(CDAKVorn& dak) {                                                             \
        return dak.name;                                                                           \
    }
#define ACCESS_CALL(name)                                                                          \
    template <class... TArguments>                                                                 \
    static auto name(CDAKVorn& dak, TArguments&&... arguments) {                                   \
        return dak.name(static_cast<TArguments&&>(arguments)...);                                  \
    }

struct CDAKVornTestAccess {
    ACCESS_MEMBER(m_dwRecvPackages)
    ACCESS_MEMBER(m_dwSentPackages)
    ACCESS_MEMBER(m_lpResendBuf)
    ACCESS_MEMBER(m_nResendCount)
    ACCESS_MEMBER(m_dwRetryStep)
    ACCESS_MEMBER(m_dwRetryBase)
    ACCESS_MEMBER(m_hDevice)
    ACCESS_MEMBER(m_dwErrCode)
    ACCESS_MEMBER(m_dwDeviceVersion)
    ACCESS_MEMBER(m_bCopying)
    ACCESS_MEMBER(m_hCommitThread)
    ACCESS_MEMBER(m_dwSizeCopied)
    ACCESS_MEMBER(m_dwSizeTotal)
    ACCESS_MEMBER(m_szPartPath)
    ACCESS_CALL(Initial)
    ACCESS_CALL(DeInitial)
    ACCESS_CALL(OpenDevice)
    ACCESS_CALL(Connect)
    ACCESS_CALL(DisConnect)
    ACCESS_CALL(ReadUSBData)
    ACCESS_CALL(SendDataPackage)
    ACCESS_CALL(ReceiveDataPackage)
};

#undef ACCESS_MEMBER
#undef ACCESS_CALL
