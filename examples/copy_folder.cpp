// Copies the files of a host folder, and of all folders below it, to a folder of the device.
//
//   copy_folder pictures "\Pictures"
//
// Narrow text is UTF-8 for the library on every system; on Windows the program's manifest sees to
// that (cli/dak.manifest).
#include "link/dak_vorn.h"
#include "platform/message_window.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace fs = std::filesystem;

static fs::path ToPath(const std::string& strUtf8) {
    return std::u8string(strUtf8.begin(), strUtf8.end());
}

static std::string ToUtf8(const fs::path& path) {
    const std::u8string strText = path.u8string();
    return {strText.begin(), strText.end()};
}

// Every entry is the source folder, a separator, and the name on the device, whose folders are
// separated by backslashes. What cannot travel is named and counted: the job would pass over a file
// that cannot be opened without a word.
static std::error_code CollectFiles(const fs::path& source, CStringArray& list, int& nLeftOut) {
    std::error_code error;
    for (fs::recursive_directory_iterator it(source, error);
         !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
        std::error_code unknown;
        if (!it->is_regular_file(unknown) && !unknown) {
            continue;
        }
        const std::u8string strGeneric = it->path().lexically_relative(source).generic_u8string();
        std::string strName(strGeneric.begin(), strGeneric.end());
        const bool bBackslash = strName.find('\\') != std::string::npos;
        std::replace(strName.begin(), strName.end(), '/', '\\');
        const std::string strEntry = ToUtf8(source) + "/" + strName;
        if (!bBackslash && strEntry.size() < MAX_PATH && std::ifstream(it->path())) {
            list.Add(strEntry.c_str());
        } else {
            std::fprintf(stderr, "left out: %s\n", strEntry.c_str());
            ++nLeftOut;
        }
    }
    return error;
}

static int Fail(const char* lpszWhat, DWORD dwResult) {
    std::fprintf(stderr, "%s: result 0x%X (link/result.h)\n", lpszWhat,
                 static_cast<unsigned>(dwResult));
    return 1;
}

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: copy_folder HOST_FOLDER DEVICE_FOLDER\n");
        return 2;
    }
    const fs::path source = ToPath(argv[1]);
    const std::basic_string<WCHAR> strSource = source.string<WCHAR>();
    const std::basic_string<WCHAR> strDest = ToPath(argv[2]).string<WCHAR>();

    CStringArray list; // stays as it is until the job has ended
    int nLeftOut = 0;
    if (const std::error_code error = CollectFiles(source, list, nLeftOut)) {
        std::fprintf(stderr, "a folder cannot be read: %s\n", error.message().c_str());
        return 1;
    }
    if (list.GetSize() == 0) {
        std::fprintf(stderr, "there is no file to copy\n");
        return 1;
    }

    // The device is found, and the job begins, in this call; it goes on while the program does
    // what it likes. Its end is a message in this queue.
    const HWND hWnd = platform::CreateMessageWindow();
    CDAKVorn dak;
    if (const DWORD dwResult =
            dak.DAKTransmitFiles(DAK_TO_DEVICE, strSource.c_str(), strDest.c_str(), &list, hWnd)) {
        return Fail("the copy did not start", dwResult);
    }
    platform::WINDOWMESSAGE message = {};
    while (!platform::WaitWindowMessage(hWnd, 500, &message)) {
        char szSource[260] = "";
        char szDest[260] = "";
        DWORD dwTotal = 0, dwCopied = 0;
        int nPercent = 0;
        dak.GetCopyStatus(szSource, szDest, dwTotal, dwCopied, nPercent);
        std::printf("%3d%%  %s\n", nPercent, szDest);
    }
    platform::DestroyMessageWindow(hWnd);
    if (const DWORD dwResult = dak.GetLastError()) {
        return Fail("the copy broke off", dwResult);
    }
    std::printf("files copied: %d, left out: %d\n", list.GetSize(), nLeftOut);
    return nLeftOut == 0 ? 0 : 1;
}
