// DAK.dll as an application sees it: what it exports, and that it works without a device.
#include "link/dak_vorn.h"
#include "platform/message_window.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>

namespace {

// The names in the export table of a loaded library.
std::set<std::string> ExportedNames(const char* lpszLibrary) {
    std::set<std::string> names;
    const HMODULE hModule = ::LoadLibraryA(lpszLibrary);
    if (hModule == nullptr) {
        return names;
    }
    const auto* lpImage = reinterpret_cast<const BYTE*>(hModule);
    const auto at = [&](DWORD dwOffset) { return static_cast<const void*>(lpImage + dwOffset); };
    const auto* lpDos = static_cast<const IMAGE_DOS_HEADER*>(at(0));
    const auto* lpHeaders =
        static_cast<const IMAGE_NT_HEADERS*>(at(static_cast<DWORD>(lpDos->e_lfanew)));
    const auto* lpExports = static_cast<const IMAGE_EXPORT_DIRECTORY*>(
        at(lpHeaders->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress));
    const auto* lpNames = static_cast<const DWORD*>(at(lpExports->AddressOfNames));
    for (DWORD i = 0; i < lpExports->NumberOfNames; ++i) {
        names.insert(static_cast<const char*>(at(lpNames[i])));
    }
    ::FreeLibrary(hModule);
    return names;
}

// The member's name as it stands in the names that this compiler makes of it.
bool HasMember(const std::set<std::string>& names, const char* lpszClass,
               const std::string& strMember) {
    const std::string strClass = lpszClass;
    const std::string strPart =
        std::to_string(strClass.size()) + strClass + std::to_string(strMember.size()) + strMember;
    for (const std::string& strName : names) {
        if (strName.find(strPart + "E") != std::string::npos) {
            return true;
        }
    }
    return false;
}

TEST(DakDll, ExportsTheClassesWholeAndNothingBeside) {
    const std::set<std::string> names = ExportedNames("DAK.dll");
    for (const char* lpszMember :
         {"ConnectDevice", "GetLastError", "DAKGetVersionNumber", "DAKTransmitFiles",
          "GetCopyStatus", "IsTransmitting", "TerminateTransfer", "DAKCreateFile", "DAKReadFile",
          "DAKWriteFile", "DAKSetFilePointer", "DAKCloseFile", "DAKCreateDirectory",
          "DAKDeleteFile", "DAKMoveFile", "DAKCopyFile", "DAKGetFileInfo", "DAKGetFolderContent",
          "ClearFileList", "DAKCreateProcess", "DAKKernelIoControl", "DAKRegisterWindowMessage",
          "DAKBroadCastMessage", "DAKGetDeviceFreeSpace", "DAKGetFolderFreeSpace",
          "DAKGetStorageInfo", "DAKFormatPartition", "ClearStorageList", "Commit_Thread",
          // Private ones are exported too.
          "Initial", "DeInitial", "OpenDevice", "IsDeviceAvailable", "IsDeviceConnected",
          "TerminateActiveSync", "Connect", "DisConnect", "ReadUSBData", "WriteUSBData",
          "ReadUSBThread", "WriteUSBThread", "SendDataPackage", "ReceiveDataPackage", "AddBuffData",
          "GetBuffData", "GetBuffString", "CommitCopyMultiFiles", "CommitCreateFile",
          "CommitReadFile", "CommitWriteFile", "CommitSetFilePointer", "CommitCloseFile",
          "CommitCreateDirectory", "CommitDeleteFile", "CommitMoveFile", "CommitCopyFile",
          "CommitGetFileInfo", "CommitGetFolderContent", "CommitCreateProcess",
          "CommitKernelIoControl", "CommitRegisterWindowMessage", "CommitBroadCastMessage",
          "CommitGetDeviceFreeSpace", "CommitGetFolderFreeSpace", "CommitGetStorageInfo",
          "CommitFormatPartition", "StartJob", "EndJob", "DrainPipe", "BringLinkUp",
          "LeaveOperation", "FetchPackage", "WriteControl"}) {
        EXPECT_TRUE(HasMember(names, "CDAKVorn", lpszMember)) << lpszMember;
    }
    for (const char* lpszMember :
         {"InitIoBuf", "ReadIoBuf", "DeinitIoBuf", "ReadFileData", "ReadDataToBufferThread",
          "IoGetFileSize", "IoGetFileTime", "FillBuffers", "StopFill"}) {
        EXPECT_TRUE(HasMember(names, "CIoBuf", lpszMember)) << lpszMember;
    }
    // Constructors, destructors, the copy, and what one finds the class by at run time.
    for (const char* lpszName :
         {"_ZN8CDAKVornC1Ev", "_ZN8CDAKVornC1ERKS_", "_ZN8CDAKVornD1Ev", "_ZN8CDAKVornaSERKS_",
          "_ZTV8CDAKVorn", "_ZN6CIoBufC1Ev", "_ZN8CDAKVornnwEy", "_ZN8CDAKVorndlEPv"}) {
        EXPECT_EQ(names.count(lpszName), 1U) << lpszName;
    }
    const std::set<std::string> globals = {"g_IoBuf", "g_bAbortPending", "g_hDeviceMutex"};
    for (const std::string& strGlobal : globals) {
        EXPECT_EQ(names.count(strGlobal), 1U) << strGlobal;
    }
    for (const std::string& strName : names) {
        const bool bExpected = globals.count(strName) != 0 ||
                               strName.find("8CDAKVorn") != std::string::npos ||
                               strName.find("6CIoBuf") != std::string::npos ||
                               strName.find("MessageWindow") != std::string::npos ||
                               strName.find("WindowMessage") != std::string::npos;
        EXPECT_TRUE(bExpected) << strName;
    }
}

TEST(DakDll, WorksWithoutADevice) {
    CDAKVorn dak;
    DWORD dwVersion1 = 0;
    DWORD dwVersion2 = 0;
    dak.DAKGetVersionNumber(&dwVersion1, &dwVersion2);
    EXPECT_EQ(dwVersion1, 26869961U);
    EXPECT_EQ(dwVersion2, 65541U);
    EXPECT_EQ(dak.ConnectDevice(), DWORD{DAKERROR_NO_DEVICE});
    EXPECT_EQ(dak.DAKDeleteFile(L"\\a"), DWORD{DAKERROR_NO_DEVICE});
    EXPECT_EQ(dak.GetLastError(), DWORD{DAKERROR_NO_DEVICE});

    HWND hWnd = platform::CreateMessageWindow();
    platform::WINDOWMESSAGE message{};
    EXPECT_NE(hWnd, nullptr);
    EXPECT_FALSE(platform::WaitWindowMessage(hWnd, 0, &message));
    EXPECT_TRUE(platform::DestroyMessageWindow(hWnd));
}

} // namespace
