// A device in a folder of its own, for a whole run of a fuzzer.
#pragma once

#include "agent/device.h"
#include "tests/support/temp_folder.h"

#include <cstdio>
#include <cstdlib>

inline agent::CDevice& FuzzDevice() {
    static const test::CTempFolder s_folder;
    static const std::unique_ptr<agent::CDevice> s_pDevice = [] {
        agent::CDeviceOptions options;
        options.strRoot = s_folder.Path();
        options.qwQuota = std::uint64_t{64} << 20;
        options.bAllowFormat = true;
        std::string strError;
        auto pDevice = agent::CDevice::Open(options, strError);
        if (!pDevice) {
            std::fprintf(stderr, "%s\n", strError.c_str());
            std::abort();
        }
        return pDevice;
    }();
    return *s_pDevice;
}
