// The command in a process of its own, with pipes or this program's console at its streams.
#pragma once

#include "platform/types.h"
#include "tests/platform/start_program.h"

#include <gtest/gtest.h>

#include <array>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace windows_cli {

// Far more than anything needs.
inline constexpr DWORD BOUND_MS = 90'000;

struct ENDED {
    DWORD dwExit;
    std::string strOut;
    std::string strError;
};

// A pipe of which one end can be handed to a process.
class CPipe {
  public:
    explicit CPipe(bool bTheirsReads) {
        SECURITY_ATTRIBUTES security{sizeof(security), nullptr, TRUE};
        HANDLE hRead = nullptr;
        HANDLE hWrite = nullptr;
        EXPECT_TRUE(::CreatePipe(&hRead, &hWrite, &security, 0));
        hTheirs = bTheirsReads ? hRead : hWrite;
        hOurs = bTheirsReads ? hWrite : hRead;
        ::SetHandleInformation(hOurs, HANDLE_FLAG_INHERIT, 0);
    }
    ~CPipe() {
        Close(hTheirs);
        Close(hOurs);
    }
    CPipe(const CPipe&) = delete;
    CPipe& operator=(const CPipe&) = delete;

    static void Close(HANDLE& hEnd) {
        if (hEnd != nullptr) {
            ::CloseHandle(std::exchange(hEnd, nullptr));
        }
    }

    HANDLE hTheirs;
    HANDLE hOurs;
};

inline HANDLE OpenConsole(const wchar_t* lpszName) {
    SECURITY_ATTRIBUTES security{sizeof(security), nullptr, TRUE};
    return ::CreateFileW(lpszName, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                         &security, OPEN_EXISTING, 0, nullptr);
}

class CDakProcess {
  public:
    enum class Streams { Pipes, Console };

    // Words without quotes in them. Standard input is strInput or, where there is none, stays open
    // until the command has ended.
    explicit CDakProcess(const std::vector<std::wstring>& words,
                         std::optional<std::string> strInput = std::string(),
                         Streams streams = Streams::Pipes) {
        std::wstring strLine = L"dak.exe";
        for (const std::wstring& strWord : words) {
            strLine += L" \"" + strWord + (strWord.ends_with(L'\\') ? L"\\\"" : L"\"");
        }
        std::array<HANDLE, 2> console{};
        STARTUPINFOW startup{};
        startup.dwFlags = STARTF_USESTDHANDLES;
        if (streams == Streams::Console) {
            console = {OpenConsole(L"CONIN$"), OpenConsole(L"CONOUT$")};
        }
        const bool bPipes = streams == Streams::Pipes;
        startup.hStdInput = bPipes ? m_in.hTheirs : console[0];
        startup.hStdOutput = bPipes ? m_out.hTheirs : console[1];
        startup.hStdError = bPipes ? m_error.hTheirs : console[1];
        EXPECT_TRUE(windows_test::StartProgram(strLine, m_process, startup)) << ::GetLastError();
        for (HANDLE* const lpEnd :
             {&m_in.hTheirs, &m_out.hTheirs, &m_error.hTheirs, &console[0], &console[1]}) {
            CPipe::Close(*lpEnd);
        }
        if (strInput) {
            m_threads[0] = std::thread([this, strBytes = *strInput] {
                DWORD dwWent = 0;
                // Fails where the command does not read it all.
                ::WriteFile(m_in.hOurs, strBytes.data(), static_cast<DWORD>(strBytes.size()),
                            &dwWent, nullptr);
                CPipe::Close(m_in.hOurs);
            });
        }
        m_threads[2] = std::thread([this] { Collect(m_error.hOurs, m_strError); });
    }
    ~CDakProcess() {
        ::TerminateProcess(m_process.hProcess, MAXDWORD);
        CPipe::Close(m_out.hOurs);
        for (std::thread& thread : m_threads) {
            if (thread.joinable()) {
                thread.join();
            }
        }
        ::CloseHandle(m_process.hThread);
        ::CloseHandle(m_process.hProcess);
    }
    CDakProcess(const CDakProcess&) = delete;
    CDakProcess& operator=(const CDakProcess&) = delete;

    // What it has begun to write to standard output, which nobody takes before.
    bool HasWritten() const {
        DWORD dwBytes = 0;
        return ::PeekNamedPipe(m_out.hOurs, nullptr, 0, nullptr, &dwBytes, nullptr) != FALSE &&
               dwBytes > 0;
    }

    // Whether standard error has the text by now.
    bool HasSaid(const std::string& strText) {
        const std::lock_guard hold(m_mutex);
        return m_strError.find(strText) != std::string::npos;
    }

    // The reader of standard output goes.
    void CloseOutput() { CPipe::Close(m_out.hOurs); }

    ENDED End() {
        if (m_out.hOurs != nullptr) {
            m_threads[1] = std::thread([this] { Collect(m_out.hOurs, m_strOut); });
        }
        EXPECT_EQ(::WaitForSingleObject(m_process.hProcess, BOUND_MS), WAIT_OBJECT_0);
        ENDED ended{};
        ::GetExitCodeProcess(m_process.hProcess, &ended.dwExit);
        ::TerminateProcess(m_process.hProcess, MAXDWORD);
        for (std::thread& thread : m_threads) {
            if (thread.joinable()) {
                thread.join();
            }
        }
        ended.strOut = m_strOut;
        ended.strError = m_strError;
        return ended;
    }

  private:
    void Collect(HANDLE hEnd, std::string& strBytes) {
        std::array<char, 65536> bytes;
        for (DWORD dwCame = 0;
             ::ReadFile(hEnd, bytes.data(), DWORD{bytes.size()}, &dwCame, nullptr) != FALSE;) {
            const std::lock_guard hold(m_mutex);
            strBytes.append(bytes.data(), dwCame);
        }
    }

    CPipe m_in{true};
    CPipe m_out{false};
    CPipe m_error{false};
    PROCESS_INFORMATION m_process{};
    std::mutex m_mutex; // of the texts
    std::string m_strOut;
    std::string m_strError;
    std::array<std::thread, 3> m_threads;
};

inline ENDED RunDak(const std::vector<std::wstring>& words, const std::string& strInput = "") {
    return CDakProcess(words, strInput).End();
}

// The text on this program's console.
std::wstring ScreenText();

// Puts keys into this program's console.
void TypeKeys(const std::wstring& strKeys);

} // namespace windows_cli
