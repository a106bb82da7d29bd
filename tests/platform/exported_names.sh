#!/usr/bin/env bash
# Whether the shared library exports what applications link against, by name, and nothing beside its
# own. Called with the library, and objdump and nm for its format.
set -euo pipefail

MEMBERS='
    CDAKVorn::CDAKVorn CDAKVorn::~CDAKVorn CDAKVorn::operator= CDAKVorn::operator_new
    CDAKVorn::operator_delete vtable_for_CDAKVorn
    ConnectDevice GetLastError DAKGetVersionNumber DAKTransmitFiles GetCopyStatus IsTransmitting
    TerminateTransfer DAKCreateFile DAKReadFile DAKWriteFile DAKSetFilePointer DAKCloseFile
    DAKCreateDirectory DAKDeleteFile DAKMoveFile DAKCopyFile DAKGetFileInfo DAKGetFolderContent
    ClearFileList DAKCreateProcess DAKKernelIoControl DAKRegisterWindowMessage DAKBroadCastMessage
    DAKGetDeviceFreeSpace DAKGetFolderFreeSpace DAKGetStorageInfo DAKFormatPartition
    ClearStorageList Commit_Thread
    Initial DeInitial OpenDevice IsDeviceAvailable IsDeviceConnected TerminateActiveSync Connect
    DisConnect ReadUSBData WriteUSBData ReadUSBThread WriteUSBThread SendDataPackage
    ReceiveDataPackage AddBuffData GetBuffData GetBuffString CommitCopyMultiFiles CommitCreateFile
    CommitReadFile CommitWriteFile CommitSetFilePointer CommitCloseFile CommitCreateDirectory
    CommitDeleteFile CommitMoveFile CommitCopyFile CommitGetFileInfo CommitGetFolderContent
    CommitCreateProcess CommitKernelIoControl CommitRegisterWindowMessage CommitBroadCastMessage
    CommitGetDeviceFreeSpace CommitGetFolderFreeSpace CommitGetStorageInfo CommitFormatPartition
    CIoBuf::CIoBuf CIoBuf::~CIoBuf CIoBuf::operator= CIoBuf::InitIoBuf CIoBuf::ReadIoBuf
    CIoBuf::DeinitIoBuf CIoBuf::ReadFileData CIoBuf::ReadDataToBufferThread CIoBuf::IoGetFileSize
    CIoBuf::IoGetFileTime
    platform::ListDevices platform::ChooseDevice
    platform::CreateMessageWindow platform::WaitWindowMessage
    platform::GetMessageWindowDescriptor platform::DestroyMessageWindow
    g_IoBuf g_bAbortPending g_hDeviceMutex'

library=$1 objdump=$2 nm=$3
case $library in
*.dll) "$objdump" -p "$library" | sed -n '/^\[Ordinal\/Name Pointer\]/,/^$/s/^\s\+\[.*\] //p' ;;
*) "$nm" -D --defined-only "$library" | cut -d ' ' -f 3 ;;
esac | sed 's/^.* //' | c++filt | sed 's/(.*//; s/ /_/g' | sort -u >"${library##*/}.names"

for member in $MEMBERS; do
    case $member in
    *::* | g_* | vtable*) echo "$member" ;;
    *) echo "CDAKVorn::$member" ;;
    esac
done | sort -u >"${library##*/}.wanted"

comm -13 "${library##*/}.names" "${library##*/}.wanted" | sed 's/^/not exported: /' | (! grep .)
# The classes' own helpers come with them, and pieces of the standard library.
comm -23 "${library##*/}.names" "${library##*/}.wanted" |
    sed -E '/^(vtable_for_|typeinfo_(name_)?for_)?(CDAKVorn|CIoBuf)(::|$)/d; /^(.*_for_)?std::/d
        s/^/exported beside: /' | (! grep .)
