// Puts a device of the interface class into the system's lists, for tests on a system that has no
// driver for one. The path that the lists give leads to a named pipe of this process.
#pragma once

#include "platform/types.h"

namespace device_test {

// A test without its device proves nothing: ends the program, saying what could not be done.
void Require(bool bDone, const char* lpszWhat);

// One at a time in the system. It is absent until it is said to be present, and ends absent.
class CDeviceRegistration {
  public:
    CDeviceRegistration();
    ~CDeviceRegistration();
    CDeviceRegistration(const CDeviceRegistration&) = delete;
    CDeviceRegistration& operator=(const CDeviceRegistration&) = delete;

    void SetPresent(bool bPresent);

    // A further instance of the pipe that the device's path leads to, for overlapped calls.
    static HANDLE MakePipe();

  private:
    HANDLE m_hLink;
};

} // namespace device_test
