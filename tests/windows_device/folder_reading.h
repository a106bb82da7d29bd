// Reading of files and folders for the host.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/windows_device/system_files.h"

namespace windows_device {

// Null when there is no such file.
std::unique_ptr<agent::CSourceFile> MakeSource(const std::wstring& strPath);

// first: names that are given ahead of the folder's own and hide those. Null when the folder cannot
// be read.
std::unique_ptr<agent::CFolderScan> MakeScan(const std::wstring& strFolder,
                                             std::vector<std::string> first);

} // namespace windows_device
