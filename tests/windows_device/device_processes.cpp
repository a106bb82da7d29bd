// Programs on Windows, for the tests: what ends in ".exe".
#include "agent/device_processes.h"

#include <algorithm>
#include <array>
#include <map>

#include "agent/command_line.h"
#include "agent/device.h"
#include "tests/windows_device/system_files.h"

namespace windows_device {

namespace {

using agent::CDevicePath;
using agent::CProcessState;

constexpr std::uint64_t s_qwDueMs = 10;

// One argument as a program's own beginning takes it apart again: backslashes count double where
// they stand ahead of a quote.
std::wstring Quoted(const std::wstring& strArgument) {
    if (!strArgument.empty() && strArgument.find_first_of(L" \t\n\"") == std::wstring::npos) {
        return strArgument;
    }
    std::wstring strOut = L"\"";
    std::size_t nBackslashes = 0;
    for (const wchar_t ch : strArgument) {
        nBackslashes = ch == L'\\' ? nBackslashes + 1 : 0;
        if (ch == L'"') {
            const std::size_t nAhead = strOut.size() - strOut.find_last_not_of(L'\\') - 1;
            strOut.append(nAhead + 1, L'\\');
        }
        strOut.push_back(ch);
    }
    return strOut.append(nBackslashes, L'\\') + L"\"";
}

// The agent's environment with some variables set.
std::wstring Environment(const agent::CDeviceProcesses::CVariables& variables) {
    std::wstring strBlock;
    const auto isSet = [&](std::wstring_view strLine) {
        return std::any_of(variables.begin(), variables.end(), [&](const auto& variable) {
            return SameName(strLine.substr(0, strLine.find(L'=')), *ToWide(variable.first));
        });
    };
    wchar_t* lpBlock = ::GetEnvironmentStringsW();
    for (const wchar_t* lpLine = lpBlock; lpLine && *lpLine; lpLine += std::wcslen(lpLine) + 1) {
        if (!isSet(lpLine)) {
            strBlock.append(lpLine).push_back(L'\0');
        }
    }
    ::FreeEnvironmentStringsW(lpBlock);
    for (const auto& [strName, strValue] : variables) {
        strBlock.append(*ToWide(strName) + L"=" + ToWide(strValue).value_or(L""));
        strBlock.push_back(L'\0');
    }
    return strBlock;
}

bool IsProgram(const std::wstring& strPath) {
    const std::optional<CEntry> entry = Look(strPath);
    return entry && !entry->info.bFolder && strPath.size() > 4 &&
           SameName(std::wstring_view(strPath).substr(strPath.size() - 4), L".exe");
}

// The system starts no program, and in no folder, by a path with its own prefix.
std::wstring PlainPath(const std::wstring& strPath) {
    return strPath.starts_with(L"\\\\?\\") ? strPath.substr(4) : strPath;
}

// The two handles that a program gets.
class CChildHandles {
  public:
    CChildHandles()
        : m_null(::CreateFileW(L"NUL", GENERIC_READ, SHARE_ALL, &m_inherit, OPEN_EXISTING, 0,
                               nullptr)) {
        HANDLE hOut = nullptr;
        const HANDLE hError = ::GetStdHandle(STD_ERROR_HANDLE);
        if (!hError || !::DuplicateHandle(::GetCurrentProcess(), hError, ::GetCurrentProcess(),
                                          &hOut, 0, TRUE, DUPLICATE_SAME_ACCESS)) {
            hOut = ::CreateFileW(L"NUL", GENERIC_WRITE, SHARE_ALL, &m_inherit, OPEN_EXISTING, 0,
                                 nullptr);
        }
        m_out = CHandle(hOut);
    }

    // Starts a program that inherits these and no other handle.
    CHandle Start(const std::wstring& strProgram, std::wstring strLine,
                  const std::wstring& strFolder, std::wstring strEnvironment) {
        std::array<HANDLE, 2> handles = {m_null.Get(), m_out.Get()};
        std::array<std::byte, 256> buffer{};
        SIZE_T nSize = buffer.size();
        STARTUPINFOEXW startup{};
        startup.StartupInfo.cb = sizeof(startup);
        startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
        startup.StartupInfo.hStdInput = m_null.Get();
        startup.StartupInfo.hStdOutput = m_out.Get();
        startup.StartupInfo.hStdError = m_out.Get();
        startup.lpAttributeList =
            static_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(static_cast<void*>(buffer.data()));
        PROCESS_INFORMATION process{};
        if (!::InitializeProcThreadAttributeList(startup.lpAttributeList, 1, 0, &nSize)) {
            return CHandle();
        }
        const bool bStarted =
            ::UpdateProcThreadAttribute(startup.lpAttributeList, 0,
                                        PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles.data(),
                                        sizeof(handles), nullptr, nullptr) &&
            ::CreateProcessW(strProgram.c_str(), strLine.data(), nullptr, nullptr, TRUE,
                             EXTENDED_STARTUPINFO_PRESENT | CREATE_UNICODE_ENVIRONMENT |
                                 CREATE_NO_WINDOW,
                             strEnvironment.data(), strFolder.empty() ? nullptr : strFolder.c_str(),
                             &startup.StartupInfo, &process);
        const DWORD dwError = ::GetLastError();
        ::DeleteProcThreadAttributeList(startup.lpAttributeList);
        const CHandle thread(process.hThread);
        ::SetLastError(dwError);
        return CHandle(bStarted ? process.hProcess : nullptr);
    }

  private:
    SECURITY_ATTRIBUTES m_inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    CHandle m_null;
    CHandle m_out;
};

class CWindowsProcesses final : public agent::CDeviceProcesses {
  public:
    CWindowsProcesses(agent::CDeviceFolder& folder, const agent::CDeviceOptions& options)
        : m_folder(folder), m_lpLog(options.lpLog), m_lpNotice(options.system.lpNotice) {}

    bool Take(const agent::CSystemOptions& options, std::string& strError);

    std::shared_ptr<const CProcessState>
    StartProgram(const CDevicePath& path, bool bBareName,
                 const std::vector<std::string>& arguments) override;
    void StartMessageCommands(const CVariables& variables) override;
    void Tick(std::uint64_t /*qwNowMs*/) override;
    std::optional<std::uint64_t> DueMs(std::uint64_t qwNowMs) const override {
        return m_children.empty() ? std::nullopt : std::optional(qwNowMs + s_qwDueMs);
    }

  private:
    struct CChild {
        CHandle process;
        std::string strName;
        bool bCommand;
        std::shared_ptr<CProcessState> pState;
    };
    struct CCommand {
        std::wstring strProgram;
        std::vector<std::string> words;
    };

    std::shared_ptr<const CProcessState> Launch(const std::wstring& strProgram, bool bCommand,
                                                const std::vector<std::string>& words,
                                                const CVariables& variables, std::string& strError);

    agent::CDeviceFolder& m_folder;
    const std::function<void(const std::string&)> m_lpLog;
    const std::function<void(const std::string&)> m_lpNotice;
    std::vector<std::wstring> m_execPaths;
    std::vector<CCommand> m_commands;
    std::vector<CChild> m_children;
};

bool CWindowsProcesses::Take(const agent::CSystemOptions& options, std::string& strError) {
    for (const std::string& strFolder : options.execPaths) {
        m_execPaths.push_back(ToWide(strFolder).value_or(L""));
        const std::optional<CEntry> entry = Look(m_execPaths.back());
        if (!entry || !entry->info.bFolder) {
            strError = strFolder + ": no such folder";
            return false;
        }
    }
    for (const std::string& strLine : options.messageCommands) {
        const std::optional<std::vector<std::string>> words = agent::SplitCommandLine(strLine);
        std::wstring strFound(32768, L'\0');
        const std::optional<std::wstring> strWord =
            words && !words->empty() ? ToWide(words->front()) : std::nullopt;
        strFound.resize(strWord ? ::SearchPathW(nullptr, strWord->c_str(), L".exe", 32768,
                                                strFound.data(), nullptr)
                                : 0);
        if (!IsProgram(strFound)) {
            strError = "\"" + strLine +
                       "\": " + (words ? "no such command" : "a quote or backslash is left open");
            return false;
        }
        m_commands.push_back({strFound, *words});
    }
    return true;
}

std::shared_ptr<const CProcessState>
CWindowsProcesses::Launch(const std::wstring& strProgram, bool bCommand,
                          const std::vector<std::string>& words, const CVariables& variables,
                          std::string& strError) {
    Tick(0);
    const auto nRunning = static_cast<std::size_t>(
        std::count_if(m_children.begin(), m_children.end(),
                      [&](const CChild& child) { return child.bCommand == bCommand; }));
    if (nRunning >= (bCommand ? MOST_COMMANDS : MOST_PROGRAMS)) {
        strError = "too many are running";
        return nullptr;
    }
    std::wstring strLine;
    for (const std::string& strWord : words) {
        strLine += (strLine.empty() ? L"" : L" ") + Quoted(ToWide(strWord).value_or(L""));
    }
    CHandle process = CChildHandles().Start(
        PlainPath(strProgram), strLine,
        bCommand ? L"" : PlainPath(m_folder.OpenProgram(CDevicePath()).Path()),
        Environment(variables));
    if (!process) {
        strError = "error " + std::to_string(::GetLastError());
        return nullptr;
    }
    m_children.push_back(
        {std::move(process), words.front(), bCommand, std::make_shared<CProcessState>()});
    return m_children.back().pState;
}

std::shared_ptr<const CProcessState>
CWindowsProcesses::StartProgram(const CDevicePath& path, bool bBareName,
                                const std::vector<std::string>& arguments) {
    std::vector<std::string> words = {path.Text()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::wstring strProgram = m_folder.OpenProgram(path).Path();
    const std::optional<std::wstring> strName = ToWide(path.Text());
    for (const std::wstring& strFolder : m_execPaths) {
        if (strProgram.empty() && bBareName && strName && IsPlainName(*strName) &&
            Look(strFolder + L"\\" + *strName)) {
            strProgram = strFolder + L"\\" + *strName;
        }
    }
    std::string strError = "no program there";
    std::shared_ptr<const CProcessState> pState;
    if (IsProgram(strProgram)) {
        pState = Launch(strProgram, false, words, {}, strError);
    }
    if (m_lpLog) {
        m_lpLog("start " + path.Text() + (pState ? "" : ": " + strError));
    }
    return pState;
}

void CWindowsProcesses::StartMessageCommands(const CVariables& variables) {
    for (const CCommand& command : m_commands) {
        std::string strError;
        if (!Launch(command.strProgram, true, command.words, variables, strError) && m_lpNotice) {
            m_lpNotice("message command " + command.words.front() + ": " + strError);
        }
    }
}

void CWindowsProcesses::Tick(std::uint64_t /*qwNowMs*/) {
    std::erase_if(m_children, [this](CChild& child) {
        DWORD dwStatus = 0;
        if (::WaitForSingleObject(child.process.Get(), 0) != WAIT_OBJECT_0 ||
            !::GetExitCodeProcess(child.process.Get(), &dwStatus)) {
            return false;
        }
        *child.pState = {true, dwStatus};
        if (m_lpLog) {
            m_lpLog(child.strName + " ended with " + std::to_string(dwStatus));
        }
        return true;
    });
}

} // namespace

} // namespace windows_device

std::shared_ptr<agent::CDeviceProcesses>
agent::CDeviceProcesses::Open(const CDeviceOptions& options, CDeviceFolder& folder,
                              std::string& strError) {
    auto pProcesses = std::make_shared<windows_device::CWindowsProcesses>(folder, options);
    return pProcesses->Take(options.system, strError) ? pProcesses : nullptr;
}
