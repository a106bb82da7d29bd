#include "link/pacing.h"

#include "platform/device.h"
#include "platform/thread.h"

namespace {

// 0: the stream reckons it.
constexpr DWORD LengthMs(DevicePause ePause) {
    switch (ePause) {
    case DevicePause::ReadToBeReady:
        return 10;
    case DevicePause::ListingToBegin:
        return 100;
    case DevicePause::LinkToSettle:
        return 300;
    case DevicePause::ListingToBeMade:
    case DevicePause::ProgramToStart:
    case DevicePause::FilesToBeFound:
    case DevicePause::ConfirmationToBeTaken:
        return 500;
    case DevicePause::None:
    case DevicePause::CopyToBegin:
    case DevicePause::WindowToBeStored:
    case DevicePause::WindowToBeRepeated:
    case DevicePause::DeviceToRecover:
        break;
    }
    return 0;
}

} // namespace

bool IsPaced(HANDLE hDevice) {
    return platform::IsPromptDevice(hDevice) == FALSE;
}

void PauseForDevice(HANDLE hDevice, DevicePause ePause) {
    if (ePause != DevicePause::None) {
        PauseForDevice(hDevice, ePause, LengthMs(ePause));
    }
}

void PauseForDevice(HANDLE hDevice, DevicePause /*ePause*/, DWORD dwMs) {
    if (IsPaced(hDevice)) {
        platform::Sleep(dwMs);
    }
}
