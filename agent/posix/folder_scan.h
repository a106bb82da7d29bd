// One pass over a folder's entries for the host.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/device_folder.h"
#include "agent/posix/system_file.h"

namespace agent {

// Opens a path of the device.
using OpenPath = std::function<CFd(const CDevicePath& path, int nFlags)>;

// fdFolder: the folder, open for reading. first: names that are given ahead of the folder's own
// and hide those. Null when the folder cannot be read.
std::unique_ptr<CFolderScan> MakeScan(CFd fdFolder, const CDevicePath& folder,
                                      std::vector<std::string> first, OpenPath open);

} // namespace agent
