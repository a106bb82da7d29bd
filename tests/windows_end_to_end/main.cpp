// The tests, and the part of another process of theirs: with arguments of its own the program uses
// the library as one more application.
#include "tests/windows_end_to_end/world.h"

namespace windows_end_to_end {

// "connect", or "push" with a folder and a file of it.
int RunOtherProcess(const std::vector<std::wstring>& arguments) {
    CDAKVorn dak;
    DWORD dwResult = dak.ConnectDevice();
    if (arguments[0] == L"push" && dwResult == DAKERROR_NONE) {
        CStringArray list;
        list.Add(Narrow(fs::path(arguments[1]) / arguments[2]).c_str());
        HWND hWnd = platform::CreateMessageWindow();
        platform::WINDOWMESSAGE message{};
        dwResult =
            dak.DAKTransmitFiles(DAK_TO_DEVICE, arguments[1].c_str(), L"\\Docs", &list, hWnd);
        platform::WaitWindowMessage(hWnd, BOUND_MS, &message);
    }
    return static_cast<int>(dwResult >> 16);
}

} // namespace windows_end_to_end

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (argc == 1) {
        return RUN_ALL_TESTS();
    }
    std::vector<std::wstring> arguments;
    for (int i = 1; i < argc; ++i) {
        wchar_t szArgument[MAX_PATH] = {};
        ::MultiByteToWideChar(CP_ACP, 0, argv[i], -1, szArgument, MAX_PATH);
        arguments.emplace_back(szArgument);
    }
    return windows_end_to_end::RunOtherProcess(arguments);
}
