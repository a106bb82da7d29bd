// Files by handle: open, set the pointer, close.
#include <array>

#include "agent/device.h"
#include "agent/fields_exchange.h"
#include "agent/operations.h"

namespace agent {

namespace {

// The words of the open command. Bits and dispositions beside these are refused, as is a handle
// that may neither read nor write.
constexpr std::uint32_t s_dwAccessRead = 0x8000'0000;
constexpr std::uint32_t s_dwAccessWrite = 0x4000'0000;
constexpr std::uint32_t s_dwShareRead = 1;
constexpr std::uint32_t s_dwShareWrite = 2;
constexpr std::uint32_t s_dwShareDelete = 4; // names can always be taken away

struct CDisposition {
    COpenMode::EMissing eMissing;
    COpenMode::EExisting eExisting;
    bool bMustWrite;
};
using enum COpenMode::EMissing;
using E = COpenMode::EExisting;
constexpr std::array<CDisposition, 6> s_dispositions = {{
    {REFUSE, E::REFUSE, false}, // no such
    {MAKE, E::REFUSE, false},   // create new
    {MAKE, E::EMPTY, false},    // create always
    {REFUSE, E::KEEP, false},   // open existing
    {MAKE, E::KEEP, false},     // open always
    {REFUSE, E::EMPTY, true},   // truncate existing
}};

// What a failed open gives in place of a handle, and a failed move in place of a position.
constexpr std::uint32_t s_dwNone = 0xFFFF'FFFF;

enum : std::uint32_t { MOVE_FROM_BEGIN = 0, MOVE_FROM_CURRENT = 1, MOVE_FROM_END = 2 };

std::optional<COpenMode> ModeOf(std::uint32_t dwAccess, std::uint32_t dwShare,
                                std::uint32_t dwDisposition) {
    const bool bKnown = (dwAccess & ~(s_dwAccessRead | s_dwAccessWrite)) == 0 && dwAccess != 0 &&
                        (dwShare & ~(s_dwShareRead | s_dwShareWrite | s_dwShareDelete)) == 0 &&
                        dwDisposition > 0 && dwDisposition < s_dispositions.size();
    if (!bKnown) {
        return std::nullopt;
    }
    const CDisposition& disposition = s_dispositions[dwDisposition];
    COpenMode mode;
    mode.bRead = (dwAccess & s_dwAccessRead) != 0;
    mode.bWrite = (dwAccess & s_dwAccessWrite) != 0;
    mode.bShareRead = (dwShare & s_dwShareRead) != 0;
    mode.bShareWrite = (dwShare & s_dwShareWrite) != 0;
    mode.eMissing = disposition.eMissing;
    mode.eExisting = disposition.eExisting;
    return mode.bWrite || !disposition.bMustWrite ? std::optional(mode) : std::nullopt;
}

// The handle, or s_dwNone. Nothing while the file is being opened, which goes on with the next
// call.
std::optional<std::uint32_t> OpenHandle(CDevice& device, const std::u16string& strPath,
                                        const std::optional<COpenMode>& mode, CFileHandle& file) {
    COpenFiles& files = device.OpenFiles();
    const std::optional<CDevicePath> path = CDevicePath::Parse(strPath);
    const std::string strWhat = "open " + (path ? path->Text() : "?");
    if (!files.HasRoom() && files.Forgotten() == 0) {
        device.Log(strWhat + ": as many files are open as may be");
        return s_dwNone;
    }
    const bool bOpen =
        file.pFile ||
        (path && mode && device.Folder().OpenFile(*path, *mode, file.pFile) == EResult::SUCCESS);
    const std::optional<EResult> eOpened = bOpen ? file.pFile->Opened() : EResult::REFUSED;
    if (!eOpened) {
        return std::nullopt;
    }
    if (*eOpened != EResult::SUCCESS) {
        device.Log(strWhat + ": refused");
        return s_dwNone;
    }
    if (!files.HasRoom()) {
        const std::uint32_t dwForgotten = files.Forgotten();
        device.Log("close handle " + std::to_string(dwForgotten) + ": nobody uses it");
        files.Close(dwForgotten);
    }
    file.strPath = path->Text();
    const std::uint32_t dwHandle = files.Add(std::move(file));
    device.Log(strWhat + ": handle " + std::to_string(dwHandle));
    return dwHandle;
}

// The new position, or s_dwNone with the position as it was. A position that the response cannot
// tell is refused; only reading and writing lead there.
std::uint32_t MovePointer(CFileHandle* pFile, std::int32_t lDistance, std::uint32_t dwMethod) {
    if (!pFile || dwMethod > MOVE_FROM_END) {
        return s_dwNone;
    }
    const std::optional<std::uint64_t> qwBase = dwMethod == MOVE_FROM_BEGIN ? 0
                                                : dwMethod == MOVE_FROM_CURRENT
                                                    ? pFile->qwPosition
                                                    : pFile->pFile->Size();
    // Sizes and positions are those of files: far below 2^63.
    const std::int64_t llTarget =
        qwBase ? static_cast<std::int64_t>(*qwBase) + lDistance : std::int64_t{-1};
    if (llTarget < 0 || llTarget >= std::int64_t{s_dwNone}) {
        return s_dwNone;
    }
    pFile->qwPosition = static_cast<std::uint64_t>(llTarget);
    return static_cast<std::uint32_t>(llTarget);
}

} // namespace

std::unique_ptr<CExchange> OpenCreateFile(CDevice& device, CPayload payload) {
    std::u16string strPath;
    std::uint32_t dwAccess = 0;
    std::uint32_t dwShare = 0;
    std::uint32_t dwDisposition = 0;
    if (!payload.TakeText(strPath, MAX_PATH_CHARS) || !payload.TakeU32(dwAccess) ||
        !payload.TakeU32(dwShare) || !payload.TakeU32(dwDisposition) || !payload.AtEnd()) {
        return nullptr;
    }
    return std::make_unique<CFieldsExchange>(
        DAK_FUNC_CREATE_FILE,
        [=, &device, pFile = std::make_shared<CFileHandle>()](
            CFieldBytes& fields) -> std::optional<std::int32_t> {
            const std::optional<std::uint32_t> dwHandle =
                OpenHandle(device, strPath, ModeOf(dwAccess, dwShare, dwDisposition), *pFile);
            if (!dwHandle) {
                return std::nullopt;
            }
            AppendU32(fields, *dwHandle);
            return *dwHandle == s_dwNone ? 0 : 1;
        });
}

std::unique_ptr<CExchange> OpenSetFilePointer(CDevice& device, CPayload payload) {
    std::uint32_t dwHandle = 0;
    std::uint32_t dwDistance = 0;
    std::uint32_t dwMethod = 0;
    if (!payload.TakeU32(dwHandle) || !payload.TakeU32(dwDistance) || !payload.TakeU32(dwMethod) ||
        !payload.AtEnd()) {
        return nullptr;
    }
    return std::make_unique<CPlainExchange>(DAK_FUNC_SET_FILE_POINTER, [=, &device] {
        return static_cast<std::int32_t>(MovePointer(
            device.OpenFiles().Find(dwHandle), static_cast<std::int32_t>(dwDistance), dwMethod));
    });
}

std::unique_ptr<CExchange> OpenCloseFile(CDevice& device, CPayload payload) {
    std::uint32_t dwHandle = 0;
    if (!payload.TakeU32(dwHandle) || !payload.AtEnd()) {
        return nullptr;
    }
    return std::make_unique<CPlainExchange>(DAK_FUNC_CLOSE_FILE, [=, &device] {
        const bool bDone = device.OpenFiles().Close(dwHandle) == EResult::SUCCESS;
        device.Log("close handle " + std::to_string(dwHandle) + (bDone ? "" : ": refused"));
        return bDone ? 1 : 0;
    });
}

} // namespace agent
