// An application with a window: copies the files of a host folder, and of all folders below it, to
// a folder of the device, shows how far the copy is, and lets it be cancelled.
//
//   copy_window pictures \Pictures
//
// The window takes the place that a queue has in copy_folder.cpp. Every call here is made by the
// window's thread; the job runs on a thread of the library, which tells its end with one message.
#include "link/dak_vorn.h"

#include <commctrl.h>
#include <shellapi.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <system_error>

namespace fs = std::filesystem;

namespace {

constexpr wchar_t TITLE[] = L"Copy to the device";
constexpr wchar_t USAGE[] = L"Usage: copy_window HOST_FOLDER DEVICE_FOLDER";
constexpr UINT WM_START = WM_APP;
constexpr UINT_PTR STATUS_TIMER = 1;
constexpr UINT STATUS_INTERVAL_MS = 200;

// Paths of the host are narrow text for the library. With the manifest that this program has, its
// code page is UTF-8, which holds everything; before Windows 10, version 1903, it is that of the
// system's language, and nothing comes of a name that it cannot hold.
std::optional<std::string> ToNarrow(const std::wstring& strWide) {
    BOOL bReplaced = FALSE;
    BOOL* const lpReplaced = ::GetACP() == CP_UTF8 ? nullptr : &bReplaced;
    const DWORD dwFlags = lpReplaced == nullptr ? 0 : WC_NO_BEST_FIT_CHARS;
    char szNarrow[4 * MAX_PATH];
    const int nBytes = ::WideCharToMultiByte(CP_ACP, dwFlags, strWide.c_str(), -1, szNarrow,
                                             sizeof(szNarrow), nullptr, lpReplaced);
    return nBytes > 0 && bReplaced == FALSE ? std::optional<std::string>(szNarrow) : std::nullopt;
}

std::wstring ToWide(const char* lpszNarrow) {
    wchar_t szWide[MAX_PATH];
    return ::MultiByteToWideChar(CP_ACP, 0, lpszNarrow, -1, szWide, MAX_PATH) > 0 ? szWide : L"";
}

std::wstring Failure(DWORD dwResult) {
    switch (dwResult) {
    case DAKERROR_CANCELLED:
        return L"Cancelled. The files that were whole stay.";
    case DAKERROR_NO_SPACE:
        return L"The device has no room left.";
    case DAKERROR_BUSY:
        return L"Another program is using the device.";
    case DAKERROR_NO_DEVICE:
        return L"No device is attached, or it went away.";
    default:
        wchar_t szText[64];
        ::wsprintfW(szText, L"The copy broke off: result 0x%X (link/result.h).", dwResult);
        return szText;
    }
}

class CCopyWindow {
  public:
    CCopyWindow(fs::path source, std::wstring strDest)
        : m_source(std::move(source)), m_strDest(std::move(strDest)) {}

    bool Create(HINSTANCE hInstance);
    int Run();

  private:
    static LRESULT CALLBACK WindowProc(HWND hWnd, UINT uMessage, WPARAM wParam, LPARAM lParam);
    LRESULT OnMessage(UINT uMessage, WPARAM wParam, LPARAM lParam);
    HWND AddControl(const wchar_t* lpszClass, const wchar_t* lpszText, DWORD dwStyle, RECT place,
                    int nId);
    std::error_code CollectFiles();
    void OnCreate();
    void OnStart();
    void OnTimer();
    void OnEnd();
    void OnClose();
    void Cancel();
    void ShowOutcome(DWORD dwResult);
    void ShowEnd(std::wstring strText, bool bWhole);

    fs::path m_source;
    std::wstring m_strDest;
    HWND m_hWnd = nullptr;
    HWND m_hText = nullptr;
    HWND m_hBar = nullptr;
    HWND m_hButton = nullptr;
    int m_nLeftOut = 0;
    bool m_bRunning = false;
    bool m_bClosing = false;
    bool m_bWhole = false; // every file is on the device
    CStringArray m_list;   // the job reads it: it outlives m_dak, whose end waits for the job
    CDAKVorn m_dak;
};

// Every entry is the source folder, a separator, and the name on the device, whose folders are
// separated by backslashes. A file that cannot be opened would be passed over by the job without a
// word, so that is tried here. The error is that of a folder that cannot be read.
std::error_code CCopyWindow::CollectFiles() {
    std::error_code error;
    for (fs::recursive_directory_iterator it(m_source, error);
         !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
        std::error_code unknown;
        if (!it->is_regular_file(unknown) && !unknown) {
            continue;
        }
        const fs::path name = it->path().lexically_relative(m_source).make_preferred();
        const auto strEntry = ToNarrow(m_source.native() + L"\\" + name.native());
        if (strEntry && strEntry->size() < MAX_PATH && std::ifstream(it->path())) {
            m_list.Add(strEntry->c_str());
        } else {
            ++m_nLeftOut;
        }
    }
    return error;
}

// The device is found in this call, which takes a moment: the window is there by then.
void CCopyWindow::OnStart() {
    if (const std::error_code error = CollectFiles()) {
        ShowEnd(L"The folder, or one in it, cannot be read: error " +
                    std::to_wstring(error.value()) + L".",
                false);
        return;
    }
    if (m_list.GetSize() == 0) {
        ShowEnd(L"The folder has no file to copy.", false);
        return;
    }
    const DWORD dwResult =
        m_dak.DAKTransmitFiles(DAK_TO_DEVICE, m_source.c_str(), m_strDest.c_str(), &m_list, m_hWnd);
    if (dwResult != DAKERROR_NONE) {
        ShowOutcome(dwResult);
        return;
    }
    m_bRunning = true;
    ::EnableWindow(m_hButton, TRUE);
    ::SetTimer(m_hWnd, STATUS_TIMER, STATUS_INTERVAL_MS, nullptr);
}

void CCopyWindow::OnTimer() {
    char szSource[260] = "";
    char szDest[260] = "";
    DWORD dwTotal = 0, dwCopied = 0;
    int nPercent = 0;
    m_dak.GetCopyStatus(szSource, szDest, dwTotal, dwCopied, nPercent);
    ::SetWindowTextW(m_hText, ToWide(szSource).c_str());
    ::SendMessageW(m_hBar, PBM_SETPOS, static_cast<WPARAM>(nPercent), 0);
}

// Waits up to two seconds for the job. Whether it has ended by then or not, its message comes.
void CCopyWindow::Cancel() {
    ::KillTimer(m_hWnd, STATUS_TIMER);
    ::EnableWindow(m_hButton, FALSE);
    ::SetWindowTextW(m_hText, L"Cancelling...");
    ::UpdateWindow(m_hText);
    m_dak.TerminateTransfer();
}

void CCopyWindow::OnEnd() {
    m_bRunning = false;
    ::KillTimer(m_hWnd, STATUS_TIMER);
    ShowOutcome(m_dak.GetLastError());
    if (m_bClosing) {
        ::DestroyWindow(m_hWnd);
    }
}

void CCopyWindow::ShowOutcome(DWORD dwResult) {
    const bool bWhole = dwResult == DAKERROR_NONE;
    ShowEnd(bWhole ? L"Files copied: " + std::to_wstring(m_list.GetSize()) + L"."
                   : Failure(dwResult),
            bWhole);
}

void CCopyWindow::ShowEnd(std::wstring strText, bool bWhole) {
    if (m_nLeftOut > 0) {
        strText +=
            L" Left out, unreadable or by their names: " + std::to_wstring(m_nLeftOut) + L".";
    }
    m_bWhole = bWhole && m_nLeftOut == 0;
    ::SetWindowTextW(m_hText, strText.c_str());
    ::SetWindowTextW(m_hButton, L"Close");
    ::EnableWindow(m_hButton, TRUE);
    ::SendMessageW(m_hBar, PBM_SETPOS, bWhole ? 100 : 0, 0);
}

// A job is cut short first, and the window goes with its message. A device that hangs can hold that
// up for minutes: who then closes the window again is let go at once.
void CCopyWindow::OnClose() {
    if (!m_bRunning) {
        ::DestroyWindow(m_hWnd);
    } else if (!m_bClosing) {
        m_bClosing = true;
        Cancel();
    } else {
        ::ExitProcess(1);
    }
}

HWND CCopyWindow::AddControl(const wchar_t* lpszClass, const wchar_t* lpszText, DWORD dwStyle,
                             RECT place, int nId) {
    return ::CreateWindowExW(0, lpszClass, lpszText, WS_CHILD | WS_VISIBLE | dwStyle, place.left,
                             place.top, place.right - place.left, place.bottom - place.top, m_hWnd,
                             reinterpret_cast<HMENU>(INT_PTR{nId}), nullptr, nullptr);
}

void CCopyWindow::OnCreate() {
    m_hText = AddControl(WC_STATICW, L"Looking for the device...", SS_PATHELLIPSIS,
                         {12, 12, 468, 32}, -1);
    m_hBar = AddControl(PROGRESS_CLASSW, L"", 0, {12, 40, 468, 60}, -1);
    m_hButton =
        AddControl(WC_BUTTONW, L"Cancel", WS_TABSTOP | WS_DISABLED, {378, 74, 468, 100}, IDCANCEL);
    ::PostMessageW(m_hWnd, WM_START, 0, 0);
}

LRESULT CCopyWindow::OnMessage(UINT uMessage, WPARAM wParam, LPARAM lParam) {
    switch (uMessage) {
    case WM_CREATE:
        OnCreate();
        return 0;
    case WM_START:
        OnStart();
        return 0;
    case WM_TIMER:
        OnTimer();
        return 0;
    case WM_DAK_TRANSFER_END:
        OnEnd();
        return 0;
    case WM_COMMAND:
        if (LOWORD(wParam) == IDCANCEL && m_bRunning) {
            Cancel();
        } else if (LOWORD(wParam) == IDCANCEL) {
            OnClose();
        }
        return 0;
    case WM_CLOSE:
        OnClose();
        return 0;
    case WM_DESTROY:
        ::PostQuitMessage(0);
        return 0;
    default:
        return ::DefWindowProcW(m_hWnd, uMessage, wParam, lParam);
    }
}

LRESULT CALLBACK CCopyWindow::WindowProc(HWND hWnd, UINT uMessage, WPARAM wParam, LPARAM lParam) {
    if (uMessage == WM_NCCREATE) {
        auto* pWindow = static_cast<CCopyWindow*>(
            reinterpret_cast<const CREATESTRUCTW*>(lParam)->lpCreateParams);
        pWindow->m_hWnd = hWnd;
        ::SetWindowLongPtrW(hWnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(pWindow));
    }
    auto* const pWindow = reinterpret_cast<CCopyWindow*>(::GetWindowLongPtrW(hWnd, GWLP_USERDATA));
    return pWindow == nullptr ? ::DefWindowProcW(hWnd, uMessage, wParam, lParam)
                              : pWindow->OnMessage(uMessage, wParam, lParam);
}

bool CCopyWindow::Create(HINSTANCE hInstance) {
    WNDCLASSW windowClass{};
    windowClass.lpfnWndProc = WindowProc;
    windowClass.hInstance = hInstance;
    windowClass.hCursor = ::LoadCursorW(nullptr, IDC_ARROW);
    windowClass.hbrBackground = ::GetSysColorBrush(COLOR_3DFACE);
    windowClass.lpszClassName = L"DakCopyWindow";
    constexpr DWORD dwStyle = WS_OVERLAPPED | WS_CAPTION | WS_SYSMENU | WS_MINIMIZEBOX;
    RECT size{0, 0, 480, 112};
    ::AdjustWindowRect(&size, dwStyle, FALSE);
    ::InitCommonControls();
    return ::RegisterClassW(&windowClass) != 0 &&
           ::CreateWindowExW(0, windowClass.lpszClassName, TITLE, dwStyle | WS_VISIBLE,
                             CW_USEDEFAULT, CW_USEDEFAULT, size.right - size.left,
                             size.bottom - size.top, nullptr, nullptr, hInstance, this) != nullptr;
}

int CCopyWindow::Run() {
    MSG message;
    while (::GetMessageW(&message, nullptr, 0, 0) > 0) {
        if (::IsDialogMessageW(m_hWnd, &message) == FALSE) {
            ::TranslateMessage(&message);
            ::DispatchMessageW(&message);
        }
    }
    return m_bWhole ? 0 : 1;
}

} // namespace

int WINAPI wWinMain(HINSTANCE hInstance, HINSTANCE, wchar_t*, int) {
    int nWords = 0;
    wchar_t** const lpWords = ::CommandLineToArgvW(::GetCommandLineW(), &nWords);
    if (nWords != 3) {
        ::MessageBoxW(nullptr, USAGE, TITLE, MB_OK | MB_ICONINFORMATION);
        return 2;
    }
    CCopyWindow window(lpWords[1], lpWords[2]);
    ::LocalFree(lpWords);
    return window.Create(hInstance) ? window.Run() : 1;
}
