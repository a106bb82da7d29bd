// Free space and the storages of the device. What the device reports is passed on; nothing is
// computed from it.

#include "link/command_exchange.h"
#include "link/operation_frame.h"
#include "platform/memory.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr DWORD STORAGE_COUNT_OFFSET = 14;
// Of packageLength: what stands behind the header ahead of the records.
constexpr DWORD STORAGE_HEAD_LENGTH = 10;
constexpr DWORD MAX_STORAGE_LENGTH = 1U << 20;

// The text up to its terminator, the three words, and nothing of the reserved one.
_tagStorageInfo TakeStorage(const BYTE* lpRecord) {
    _tagStorageInfo record;
    std::memcpy(&record, lpRecord, sizeof(record));
    _tagStorageInfo info{};
    constexpr SIZE_T dwChars = sizeof(info.szStorageName) / sizeof(WCHAR);
    for (SIZE_T i = 0; i + 1 < dwChars && record.szStorageName[i] != 0; ++i) {
        info.szStorageName[i] = record.szStorageName[i];
    }
    info.dwValue1 = record.dwValue1;
    info.dwValue2 = record.dwValue2;
    info.dwValue3 = record.dwValue3;
    return info;
}

} // namespace

DWORD CDAKVorn::DAKGetDeviceFreeSpace(DWORD* lpdwWord1, DWORD* lpdwWord2) {
    if (lpdwWord1 == nullptr && lpdwWord2 == nullptr) {
        return EndAtOnce(DAKERROR_NONE);
    }
    return RunOperation(OperationFrame::Common, true,
                        [&] { return CommitGetDeviceFreeSpace(lpdwWord1, lpdwWord2); });
}

DWORD CDAKVorn::DAKGetFolderFreeSpace(const WCHAR* lpPathName, std::uint64_t* lpqwFreeSpace) {
    if (lpqwFreeSpace != nullptr) {
        *lpqwFreeSpace = 0;
    }
    return RunOperation(OperationFrame::Status, lpPathName != nullptr,
                        [&] { return CommitGetFolderFreeSpace(lpPathName, lpqwFreeSpace); });
}

DWORD CDAKVorn::DAKGetStorageInfo(CArray<_tagStorageInfo, _tagStorageInfo>* pStorageList) {
    return RunOperation(OperationFrame::Common, pStorageList != nullptr,
                        [&] { return CommitGetStorageInfo(pStorageList); });
}

DWORD CDAKVorn::DAKFormatPartition(const WCHAR* lpPartitionName) {
    return RunOperation(OperationFrame::Common, IsText(lpPartitionName),
                        [&] { return CommitFormatPartition(lpPartitionName); });
}

void CDAKVorn::ClearStorageList(CArray<_tagStorageInfo, _tagStorageInfo>* pStorageList) {
    pStorageList->RemoveAll();
}

int CDAKVorn::CommitGetDeviceFreeSpace(DWORD* lpdwWord1, DWORD* lpdwWord2) {
    CExchange exchange(*this, DAK_FUNC_GET_DEVICE_FREE_SPACE, 0);
    if (!exchange.SendCommand() || !exchange.AwaitResponse()) {
        return 0;
    }
    if (lpdwWord1 != nullptr) {
        *lpdwWord1 = exchange.FieldAt(DAK_RESPONSE_FIELDS);
    }
    if (lpdwWord2 != nullptr) {
        *lpdwWord2 = exchange.FieldAt(DAK_RESPONSE_FIELDS + sizeof(DWORD));
    }
    return exchange.Result();
}

int CDAKVorn::CommitGetFolderFreeSpace(const WCHAR* lpPathName, std::uint64_t* lpqwFreeSpace) {
    CExchange exchange(*this, DAK_FUNC_GET_FOLDER_FREE_SPACE, CExchange::TextBytes(lpPathName));
    exchange.PutText(lpPathName);
    if (!exchange.SendCommand()) {
        if (exchange.IsAllocated() && !exchange.WasWritten()) {
            StoreShared(m_dwErrCode, DAKERROR_NO_DEVICE);
        }
        return 0;
    }
    if (!exchange.AwaitResponse()) {
        return 0;
    }
    if (lpqwFreeSpace != nullptr) {
        *lpqwFreeSpace =
            exchange.FieldAt(DAK_RESPONSE_FIELDS) |
            (std::uint64_t{exchange.FieldAt(DAK_RESPONSE_FIELDS + sizeof(DWORD))} << 32);
    }
    if (exchange.Result() == 0) {
        StoreShared(m_dwErrCode, DAKERROR_FOLDER_SPACE);
    }
    return exchange.Result();
}

// The records follow their head in a read of their own. They are added whatever the result says;
// only bytes that were read are taken for records.
int CDAKVorn::CommitGetStorageInfo(CArray<_tagStorageInfo, _tagStorageInfo>* pStorageList) {
    CExchange exchange(*this, DAK_FUNC_GET_STORAGE_INFO, 0);
    if (!exchange.SendCommand() || !exchange.AwaitResponse()) {
        return 0;
    }
    const int nResult = exchange.Result();
    const int nRecords = static_cast<int>(exchange.FieldAt(STORAGE_COUNT_OFFSET));
    const DWORD packageLength = exchange.Head().packageLength;
    // Nor are records taken of which there are more than a device can have.
    if (packageLength <= STORAGE_HEAD_LENGTH || packageLength > MAX_STORAGE_LENGTH) {
        return nResult;
    }
    const platform::CLocalBuffer records(packageLength - STORAGE_HEAD_LENGTH);
    DWORD dwBytes = 0;
    if (!records || !ReadUSBData(records.Get(), packageLength - STORAGE_HEAD_LENGTH, &dwBytes, 0)) {
        return nResult;
    }
    DWORD dwOffset = 0;
    for (int i = 0; i < nRecords && dwBytes - dwOffset >= sizeof(_tagStorageInfo); ++i) {
        if (pStorageList->Add(TakeStorage(records.Get() + dwOffset)) < 0) {
            break;
        }
        dwOffset += static_cast<DWORD>(sizeof(_tagStorageInfo));
    }
    return nResult;
}

int CDAKVorn::CommitFormatPartition(const WCHAR* lpPartitionName) {
    CExchange exchange(*this, DAK_FUNC_FORMAT_PARTITION, CExchange::TextBytes(lpPartitionName));
    exchange.PutText(lpPartitionName);
    return exchange.Run();
}
