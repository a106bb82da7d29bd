// The pauses that the library makes for a device's sake. A prompt device (platform/device.h) needs
// none of them, and they are left out for it. What bounds a wait is no such pause: time-outs,
// tries, and the pause behind a read that brought nothing hold for every device.
#pragma once

#include "platform/types.h"

// What is waited for.
enum class DevicePause {
    None,
    ReadToBeReady,         // ahead of each read: the device readies its next transfer
    LinkToSettle,          // behind the opening handshake, whatever came of it
    ListingToBegin,        // ahead of each read of a listing's acknowledgement
    ListingToBeMade,       // behind that acknowledgement
    ProgramToStart,        // behind the acknowledgement of a start that nobody waits for
    FilesToBeFound,        // behind the request of a copy from the device
    CopyToBegin,           // behind the request of a copy to the device
    WindowToBeStored,      // behind the device's confirmation of a window
    ConfirmationToBeTaken, // behind our confirmation of a window
    WindowToBeRepeated,    // behind our request to send again
    DeviceToRecover,       // behind the device's request to send again
};

// Whether the device of an open node is to be given its pauses.
bool IsPaced(HANDLE hDevice);

// Pauses, unless the device is prompt: for the pause's own length, or where that is the stream's to
// reckon (CDAKVorn::m_dwRetryBase and m_dwRetryStep) for dwMs.
void PauseForDevice(HANDLE hDevice, DevicePause ePause);
void PauseForDevice(HANDLE hDevice, DevicePause ePause, DWORD dwMs);
