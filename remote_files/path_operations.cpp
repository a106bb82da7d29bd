// Operations on named paths of the device, each one command exchange.

#include "link/command_exchange.h"
#include "link/debug_trace.h"
#include "link/operation_frame.h"

#include <cstring>

DWORD CDAKVorn::DAKCreateDirectory(const WCHAR* lpPathName,
                                   _SECURITY_ATTRIBUTES* lpSecurityAttributes) {
    return RunOperation(OperationFrame::Common, IsText(lpPathName),
                        [&] { return CommitCreateDirectory(lpPathName, lpSecurityAttributes); });
}

DWORD CDAKVorn::DAKDeleteFile(const WCHAR* lpFileName) {
    return RunOperation(OperationFrame::Availability, IsText(lpFileName),
                        [&] { return CommitDeleteFile(lpFileName); });
}

DWORD CDAKVorn::DAKMoveFile(const WCHAR* lpExistingFileName, const WCHAR* lpNewFileName) {
    return RunOperation(OperationFrame::Common, IsText(lpExistingFileName) && IsText(lpNewFileName),
                        [&] { return CommitMoveFile(lpExistingFileName, lpNewFileName); });
}

DWORD CDAKVorn::DAKCopyFile(const WCHAR* lpExistingFileName, const WCHAR* lpNewFileName,
                            int bFailIfExists) {
    return RunOperation(
        OperationFrame::Common, IsText(lpExistingFileName) && IsText(lpNewFileName),
        [&] { return CommitCopyFile(lpExistingFileName, lpNewFileName, bFailIfExists); });
}

DWORD CDAKVorn::DAKGetFileInfo(const WCHAR* lpFileName, _tagFileInfo* lpFileInfo) {
    return RunOperation(OperationFrame::Common, IsText(lpFileName),
                        [&] { return CommitGetFileInfo(lpFileName, lpFileInfo); });
}

int CDAKVorn::CommitCreateDirectory(const WCHAR* lpPathName,
                                    [[maybe_unused]] _SECURITY_ATTRIBUTES* lpSecurityAttributes) {
    CExchange exchange(*this, DAK_FUNC_CREATE_DIRECTORY, CExchange::TextBytes(lpPathName));
    exchange.PutText(lpPathName);
    return exchange.Run();
}

int CDAKVorn::CommitDeleteFile(const WCHAR* lpFileName) {
    CExchange exchange(*this, DAK_FUNC_DELETE_FILE, CExchange::TextBytes(lpFileName));
    exchange.PutText(lpFileName);
    return exchange.Run();
}

int CDAKVorn::CommitMoveFile(const WCHAR* lpExistingFileName, const WCHAR* lpNewFileName) {
    CExchange exchange(*this, DAK_FUNC_MOVE_FILE,
                       CExchange::TextBytes(lpExistingFileName) +
                           CExchange::TextBytes(lpNewFileName));
    exchange.PutText(lpExistingFileName);
    exchange.PutText(lpNewFileName);
    if (!exchange.SendCommand()) {
        return 0;
    }
    TraceLine("read pass\n");
    return exchange.AwaitResponse() ? exchange.Result() : 0;
}

int CDAKVorn::CommitCopyFile(const WCHAR* lpExistingFileName, const WCHAR* lpNewFileName,
                             int bFailIfExists) {
    CExchange exchange(*this, DAK_FUNC_COPY_FILE,
                       CExchange::TextBytes(lpExistingFileName) +
                           CExchange::TextBytes(lpNewFileName) + sizeof(DWORD));
    exchange.PutText(lpExistingFileName);
    exchange.PutText(lpNewFileName);
    exchange.PutU32(static_cast<DWORD>(bFailIfExists));
    return exchange.Run();
}

int CDAKVorn::CommitGetFileInfo(const WCHAR* lpFileName, _tagFileInfo* lpFileInfo) {
    CExchange exchange(*this, DAK_FUNC_GET_FILE_INFO, CExchange::TextBytes(lpFileName));
    exchange.PutText(lpFileName);
    if (!exchange.SendCommand() || !exchange.AwaitResponse()) {
        return 0;
    }
    // Whatever the result says: the caller sees what the device filled in.
    std::memcpy(lpFileInfo, exchange.Response() + DAK_RESPONSE_FIELDS, sizeof(*lpFileInfo));
    return exchange.Result();
}
