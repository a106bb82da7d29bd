#include "agent/copy_files.h"

#include "agent/operations.h"

namespace agent {

std::unique_ptr<CExchange> OpenTransmitFiles(CDevice& device, CPayload payload) {
    std::uint8_t bDirection = 0;
    std::u16string strSource;
    std::u16string strDest;
    if (!payload.TakeU8(bDirection) || !payload.TakeText(strSource, DAK_MAX_NAME) ||
        !payload.TakeText(strDest, DAK_MAX_NAME)) {
        return nullptr;
    }
    if (bDirection == DAK_FROM_DEVICE) {
        return OpenCopyFromDevice(device, strSource, payload);
    }
    return bDirection == DAK_TO_DEVICE && payload.AtEnd() ? OpenCopyToDevice(device, strDest)
                                                          : nullptr;
}

} // namespace agent
