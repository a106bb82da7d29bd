// The one key of the registry: the host's processor.
#include "platform/registry.h"

#include "platform/posix/descriptors.h"
#include "platform/posix/handles.h"

#include <fcntl.h>
#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <string_view>

namespace platform {
namespace posix {
namespace {

constexpr char PROCESSOR_KEY[] = "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0";
constexpr char SPEED_VALUE[] = "~MHZ";

class CRegistryKey final : public CObject {
  public:
    bool IsForCloseHandle() const override { return false; }
};

// The whole number at the text's beginning, bounded to 32 bits; 0 is no speed.
std::optional<DWORD> LeadingNumber(std::string_view strText, DWORD dwDivisor) {
    std::uint64_t qwNumber = 0;
    const auto [lpEnd, error] =
        std::from_chars(strText.data(), strText.data() + strText.size(), qwNumber);
    if (error == std::errc::result_out_of_range) {
        return std::numeric_limits<DWORD>::max();
    }
    qwNumber /= dwDivisor;
    if (error != std::errc() || qwNumber == 0) {
        return std::nullopt;
    }
    return static_cast<DWORD>(std::min<std::uint64_t>(qwNumber, std::numeric_limits<DWORD>::max()));
}

std::string_view ReadStart(const char* lpszPath, char (&szBuffer)[4096]) {
    const CDescriptor file(::open(lpszPath, O_RDONLY | O_CLOEXEC));
    const ssize_t nRead = file ? ::read(file.Get(), szBuffer, sizeof(szBuffer)) : 0;
    return {szBuffer, nRead > 0 ? static_cast<std::size_t>(nRead) : 0};
}

std::optional<DWORD> SpeedFromKernel() {
    char szBuffer[4096];
    for (const char* lpszPath : {"/sys/devices/system/cpu/cpu0/cpufreq/base_frequency",
                                 "/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq"}) {
        if (const auto dwMHz = LeadingNumber(ReadStart(lpszPath, szBuffer), 1000)) {
            return dwMHz;
        }
    }
    const std::string_view strInfo = ReadStart("/proc/cpuinfo", szBuffer);
    std::size_t dwAt = strInfo.find("\ncpu MHz");
    dwAt = dwAt == std::string_view::npos ? dwAt : strInfo.find(':', dwAt);
    if (dwAt == std::string_view::npos) {
        return std::nullopt;
    }
    dwAt = strInfo.find_first_not_of(": \t", dwAt);
    return dwAt == std::string_view::npos ? std::nullopt : LeadingNumber(strInfo.substr(dwAt), 1);
}

std::optional<DWORD> ProcessorSpeed() {
    const char* lpszNamed = std::getenv("DAK_CPU_MHZ");
    if (lpszNamed != nullptr && *lpszNamed != '\0' &&
        std::strspn(lpszNamed, "0123456789") == std::strlen(lpszNamed)) {
        const auto dwNamed = LeadingNumber(lpszNamed, 1);
        return dwNamed ? dwNamed : DWORD{0};
    }
    // Asked once: the number stands for the machine, not for what its governor does just now.
    static const std::optional<DWORD> dwKernel = SpeedFromKernel();
    return dwKernel;
}

} // namespace
} // namespace posix

LONG RegOpenKeyExA(HKEY hKey, const char* lpSubKey, DWORD /*ulOptions*/, DWORD samDesired,
                   HKEY* phkResult) {
    if (hKey != HKEY_LOCAL_MACHINE || lpSubKey == nullptr || phkResult == nullptr) {
        return static_cast<LONG>(ERROR_INVALID_PARAMETER);
    }
    if (::strcasecmp(lpSubKey, posix::PROCESSOR_KEY) != 0) {
        return static_cast<LONG>(ERROR_FILE_NOT_FOUND);
    }
    if ((samDesired & ~KEY_READ) != 0) {
        return static_cast<LONG>(ERROR_ACCESS_DENIED);
    }
    HANDLE hOpened = posix::WithMemory<HANDLE>(
        nullptr, [] { return posix::AddHandle(std::make_shared<posix::CRegistryKey>()); });
    if (hOpened == nullptr) {
        return static_cast<LONG>(ERROR_NOT_ENOUGH_MEMORY);
    }
    *phkResult = static_cast<HKEY>(hOpened);
    return static_cast<LONG>(ERROR_SUCCESS);
}

LONG RegQueryValueExA(HKEY hKey, const char* lpValueName, DWORD* /*lpReserved*/, DWORD* lpType,
                      BYTE* lpData, DWORD* lpcbData) {
    if (posix::FindObject<posix::CRegistryKey>(hKey) == nullptr) {
        return static_cast<LONG>(ERROR_INVALID_HANDLE);
    }
    if (lpData != nullptr && lpcbData == nullptr) {
        return static_cast<LONG>(ERROR_INVALID_PARAMETER);
    }
    const bool bSpeed =
        lpValueName != nullptr && ::strcasecmp(lpValueName, posix::SPEED_VALUE) == 0;
    const std::optional<DWORD> dwMHz = bSpeed ? posix::ProcessorSpeed() : std::nullopt;
    if (!dwMHz) {
        return static_cast<LONG>(ERROR_FILE_NOT_FOUND);
    }
    const DWORD dwRoom = lpcbData == nullptr ? 0 : *lpcbData;
    if (lpcbData != nullptr) {
        *lpcbData = sizeof(*dwMHz);
    }
    if (lpType != nullptr) {
        *lpType = REG_DWORD;
    }
    if (lpData != nullptr) {
        if (dwRoom < sizeof(*dwMHz)) {
            return static_cast<LONG>(ERROR_MORE_DATA);
        }
        std::memcpy(lpData, &*dwMHz, sizeof(*dwMHz));
    }
    return static_cast<LONG>(ERROR_SUCCESS);
}

LONG RegCloseKey(HKEY hKey) {
    return static_cast<LONG>(posix::CloseObject<posix::CRegistryKey>(hKey) ? ERROR_SUCCESS
                                                                           : ERROR_INVALID_HANDLE);
}

} // namespace platform
