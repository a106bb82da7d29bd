// Which paths the seam hands to the system. The system reads more into a path than a file's name,
// and a name may come from a device that is not trusted.
#pragma once

namespace platform::windows {

// Whether a path names what it seems to name. Refused, with the error number set, are: streams of a
// file, wildcards and control characters; components that end in a dot or a blank, which the system
// would drop; names that the system gives to devices in every folder; pipes and mailslots; and
// paths in the system's own name spaces.
bool IsPlainPath(const char* lpszPath);

// Whether a path is one that SetupDiGetDeviceInterfaceDetailA gives.
bool IsInterfacePath(const char* lpszPath);

} // namespace platform::windows
