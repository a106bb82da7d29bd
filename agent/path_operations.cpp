// Operations on one path: the result word is 1 for success and 0 for failure.
#include "agent/device.h"
#include "agent/operations.h"

namespace agent {

// The command holds one path and nothing else; lpWork does what is asked with it.
static std::unique_ptr<CExchange>
OpenOnePath(CDevice& device, CPayload payload, std::uint16_t codeFunc, const char* lpszVerb,
            EResult (CDeviceFolder::*lpWork)(const CDevicePath&)) {
    std::u16string strPath;
    if (!payload.TakeText(strPath, MAX_PATH_CHARS) || !payload.AtEnd()) {
        return nullptr;
    }
    return std::make_unique<CPlainExchange>(codeFunc, [&device, strPath, lpszVerb, lpWork] {
        const std::optional<CDevicePath> path = CDevicePath::Parse(strPath);
        const bool bDone = path && (device.Folder().*lpWork)(*path) == EResult::SUCCESS;
        device.Log(std::string(lpszVerb) + " " + (path ? path->Text() : "?") +
                   (bDone ? "" : ": refused"));
        return bDone ? 1 : 0;
    });
}

std::unique_ptr<CExchange> OpenDeleteFile(CDevice& device, CPayload payload) {
    return OpenOnePath(device, payload, DAK_FUNC_DELETE_FILE, "delete", &CDeviceFolder::Remove);
}

std::unique_ptr<CExchange> OpenCreateDirectory(CDevice& device, CPayload payload) {
    return OpenOnePath(device, payload, DAK_FUNC_CREATE_DIRECTORY, "make folder",
                       &CDeviceFolder::MakeFolder);
}

} // namespace agent
