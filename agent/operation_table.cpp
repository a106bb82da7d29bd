#include "agent/operations.h"

#include "link/wire.h"

namespace agent {

static constexpr COperation s_operations[] = {
    {DAK_FUNC_MOVE_FILE, OpenMoveFile},
    {DAK_FUNC_DELETE_FILE, OpenDeleteFile},
    {DAK_FUNC_GET_FOLDER_CONTENT, OpenGetFolderContent},
    {DAK_FUNC_TRANSMIT_FILES, OpenTransmitFiles},
    {DAK_FUNC_CREATE_DIRECTORY, OpenCreateDirectory},
    {DAK_FUNC_GET_DEVICE_FREE_SPACE, OpenGetDeviceFreeSpace},
    {DAK_FUNC_GET_STORAGE_INFO, OpenGetStorageInfo},
    {DAK_FUNC_FORMAT_PARTITION, OpenFormatPartition},
    {DAK_FUNC_GET_FOLDER_FREE_SPACE, OpenGetFolderFreeSpace},
    {DAK_FUNC_GET_FILE_INFO, OpenGetFileInfo},
    {DAK_FUNC_COPY_FILE, OpenCopyFile},
    {DAK_FUNC_CREATE_PROCESS, OpenCreateProcess},
    {DAK_FUNC_KERNEL_IO_CONTROL, OpenKernelIoControl},
    {DAK_FUNC_REGISTER_WINDOW_MESSAGE, OpenRegisterWindowMessage},
    {DAK_FUNC_BROADCAST_MESSAGE, OpenBroadcastMessage},
    {DAK_FUNC_CREATE_FILE, OpenCreateFile},
    {DAK_FUNC_READ_FILE, OpenReadFile},
    {DAK_FUNC_WRITE_FILE, OpenWriteFile},
    {DAK_FUNC_SET_FILE_POINTER, OpenSetFilePointer},
    {DAK_FUNC_CLOSE_FILE, OpenCloseFile},
};

const COperation* FindOperation(std::uint16_t codeFunc) {
    for (const COperation& operation : s_operations) {
        if (operation.codeFunc == codeFunc) {
            return &operation;
        }
    }
    return nullptr;
}

} // namespace agent
