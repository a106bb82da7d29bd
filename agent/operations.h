// The operations of the device, by function code. Each group stands in a file of its own and is
// entered in the table of operation_table.cpp; the core knows the table and nothing else of them.
#pragma once

#include <cstdint>
#include <memory>

#include "agent/exchange.h"
#include "agent/payload.h"

namespace agent {

class CDevice;

struct COperation {
    std::uint16_t codeFunc;

    // Takes the fields of the command and opens its exchange. Null when the fields are not those
    // of the command: the host then gets silence.
    std::unique_ptr<CExchange> (*lpOpen)(CDevice& device, CPayload payload);
};

// Null when the device does not know the function code.
const COperation* FindOperation(std::uint16_t codeFunc);

// path_operations.cpp
std::unique_ptr<CExchange> OpenDeleteFile(CDevice& device, CPayload payload);
std::unique_ptr<CExchange> OpenCreateDirectory(CDevice& device, CPayload payload);

// copy_move.cpp
std::unique_ptr<CExchange> OpenMoveFile(CDevice& device, CPayload payload);
std::unique_ptr<CExchange> OpenCopyFile(CDevice& device, CPayload payload);

// file_info.cpp
std::unique_ptr<CExchange> OpenGetFileInfo(CDevice& device, CPayload payload);

// folder_content.cpp
std::unique_ptr<CExchange> OpenGetFolderContent(CDevice& device, CPayload payload);

// create_process.cpp
std::unique_ptr<CExchange> OpenCreateProcess(CDevice& device, CPayload payload);

// kernel_io_control.cpp
std::unique_ptr<CExchange> OpenKernelIoControl(CDevice& device, CPayload payload);

// window_messages.cpp
std::unique_ptr<CExchange> OpenRegisterWindowMessage(CDevice& device, CPayload payload);
std::unique_ptr<CExchange> OpenBroadcastMessage(CDevice& device, CPayload payload);

// copy_files.cpp
std::unique_ptr<CExchange> OpenTransmitFiles(CDevice& device, CPayload payload);

// storages.cpp
std::unique_ptr<CExchange> OpenGetDeviceFreeSpace(CDevice& device, CPayload payload);
std::unique_ptr<CExchange> OpenGetStorageInfo(CDevice& device, CPayload payload);
std::unique_ptr<CExchange> OpenFormatPartition(CDevice& device, CPayload payload);
std::unique_ptr<CExchange> OpenGetFolderFreeSpace(CDevice& device, CPayload payload);

// file_handles.cpp
std::unique_ptr<CExchange> OpenCreateFile(CDevice& device, CPayload payload);
std::unique_ptr<CExchange> OpenSetFilePointer(CDevice& device, CPayload payload);
std::unique_ptr<CExchange> OpenCloseFile(CDevice& device, CPayload payload);

// file_streams.cpp
std::unique_ptr<CExchange> OpenReadFile(CDevice& device, CPayload payload);
std::unique_ptr<CExchange> OpenWriteFile(CDevice& device, CPayload payload);

} // namespace agent
