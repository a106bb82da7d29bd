#include "cli/device_choice.h"

#include "cli/verbs.h"

#include "platform/device_choice.h"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include <CLI/App.hpp>
#include <nlohmann/json.hpp>

namespace cli {
namespace {

struct DEVICES {
    DWORD dwError = ERROR_SUCCESS;
    std::vector<std::string> names;
};

DEVICES ListDevices() {
    DEVICES devices;
    std::string strNames;
    DWORD dwSize = 0;
    do {
        strNames.resize(dwSize);
        devices.dwError = platform::ListDevices(strNames.data(), &dwSize);
    } while (devices.dwError == ERROR_MORE_DATA);
    for (std::size_t nAt = 0; devices.dwError == ERROR_SUCCESS && strNames[nAt] != '\0';
         nAt += devices.names.back().size() + 1) {
        devices.names.emplace_back(strNames.c_str() + nAt);
    }
    return devices;
}

MEANING ExplainError(DWORD dwError) {
    if (dwError == ERROR_ACCESS_DENIED || dwError == ERROR_PATH_NOT_FOUND) {
        return {
            EXIT_HOST, "host",
            "devices cannot be looked for: the device folder is no folder or cannot be written, "
            "or it is the default one and belongs to another user or is open to others; "
            "\"man dak\" tells where it lies, and DAK_DEVICE_DIR names another one"};
    }
    if (dwError == ERROR_TOO_MANY_OPEN_FILES) {
        return {EXIT_HOST, "host",
                "devices cannot be looked for: this process or the system has too many files open"};
    }
    return {EXIT_HOST, "host",
            "devices cannot be looked for: the system gives error " + std::to_string(dwError)};
}

// "a, b and c".
std::string Enumeration(const std::vector<std::string>& names) {
    std::string strList;
    for (std::size_t i = 0; i < names.size(); ++i) {
        strList += i == 0 ? "" : i + 1 < names.size() ? ", " : " and ";
        strList += names[i];
    }
    return strList;
}

// The one that is wanted, or the only one there is; empty where there is none. Otherwise what is in
// the way.
MEANING Select(const DEVICES& devices, const std::string& strWanted, std::string& strDevice) {
    if (devices.dwError != ERROR_SUCCESS) {
        return ExplainError(devices.dwError);
    }
    if (strWanted.empty() && devices.names.size() > 1) {
        return {EXIT_USAGE, "usage",
                std::to_string(devices.names.size()) + " devices are attached, " +
                    Enumeration(devices.names) + ": choose one with -d NAME"};
    }
    if (!strWanted.empty() && std::ranges::count(devices.names, strWanted) == 0) {
        return {EXIT_NO_DEVICE, "no_device",
                "no device " + strWanted + " is attached" +
                    (devices.names.empty() ? "" : ", but " + Enumeration(devices.names)) +
                    ": see that its agent is running, then repeat the command"};
    }
    strDevice = strWanted;
    if (strWanted.empty() && !devices.names.empty()) {
        strDevice = devices.names.front();
    }
    return {EXIT_DONE, "ok", ""};
}

void RunDevices(CONTEXT& context) {
    const DEVICES devices = ListDevices();
    for (const std::string& strName : devices.names) {
        PrintData(context, strName);
    }
    MEANING meaning{EXIT_DONE, "ok", "done"};
    if (devices.dwError != ERROR_SUCCESS) {
        meaning = ExplainError(devices.dwError);
    } else if (devices.names.empty()) {
        meaning = {EXIT_NO_DEVICE, "no_device", "no device is attached"};
    }
    FinishData(context, "devices", meaning, {{"devices", devices.names}});
}

} // namespace

bool FindDevice(CONTEXT& context, const char* lpszVerb) {
    std::string strWanted = context.strWanted;
    if (const char* lpszNamed = std::getenv("DAK_DEVICE"); strWanted.empty() && lpszNamed) {
        strWanted = lpszNamed;
    }
    const MEANING meaning = Select(ListDevices(), strWanted, context.strDevice);
    if (meaning.nExit != EXIT_DONE) {
        Finish(context, lpszVerb, meaning, nlohmann::json::object());
        return false;
    }
    // One that has gone since then is none: the first operation will find that out.
    platform::ChooseDevice(context.strDevice.c_str());
    return true;
}

void AddDevicesVerb(CLI::App& app, CONTEXT& context) {
    CLI::App* const pVerb =
        AddVerb(app, context, "devices", "List the devices that are attached",
                "The names that -d takes, one in a line: all of them, whatever -d says.\n\n"
                "Examples:\n"
                "  dak devices                  what is there?\n"
                "  dak -d handheld ls           the one to work with\n"
                "  DAK_DEVICE=handheld dak ls   the same\n");
    pVerb->callback([&context] { RunDevices(context); });
}

} // namespace cli
