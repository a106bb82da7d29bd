// Free space, the storages, and formatting one. Sizes in 32 bits are KiB, and the greatest number
// stands for all that are greater.
#include <algorithm>
#include <limits>
#include <utility>

#include "agent/device.h"
#include "agent/fields_exchange.h"
#include "agent/operations.h"

namespace agent {

namespace {

// The record of one storage: name, total KiB, free KiB, kind, and a reserved word.
constexpr std::size_t s_dwRecordSize = 120;
constexpr std::size_t s_dwTotalOffset = 104;
constexpr std::size_t s_dwFreeOffset = 108;
constexpr std::size_t s_dwKindOffset = 112;

constexpr std::uint32_t s_dwKindRoot = 1;
constexpr std::uint32_t s_dwKindStorage = 2;

std::uint32_t KibOf(std::uint64_t qwBytes) {
    return static_cast<std::uint32_t>(
        std::min<std::uint64_t>(qwBytes / 1024, std::numeric_limits<std::uint32_t>::max()));
}

void AppendRecord(CFieldBytes& fields, std::u16string_view strName, const CSpace& space,
                  std::uint32_t dwKind) {
    fields.resize(fields.size() + s_dwRecordSize);
    std::uint8_t* const lpRecord = fields.data() + fields.size() - s_dwRecordSize;
    for (std::size_t i = 0; i < std::min(strName.size(), MAX_STORAGE_NAME); ++i) {
        DakPutU16(lpRecord + 2 * i, strName[i]);
    }
    DakPutU32(lpRecord + s_dwTotalOffset, KibOf(space.qwTotal));
    DakPutU32(lpRecord + s_dwFreeOffset, KibOf(space.qwFree));
    DakPutU32(lpRecord + s_dwKindOffset, dwKind);
}

std::int32_t TellStorages(CDevice& device, CFieldBytes& fields) {
    const std::vector<std::string> names = device.Folder().StorageNames();
    AppendU32(fields, static_cast<std::uint32_t>(names.size()) + 1);
    const auto spaceOf = [&device](const CDevicePath& path) {
        return device.Folder().SpaceOf(path).value_or(CSpace());
    };
    AppendRecord(fields, u"\\", spaceOf(CDevicePath()), s_dwKindRoot);
    for (const std::string& strName : names) {
        AppendRecord(fields, ToUtf16(strName).value_or(std::u16string()),
                     spaceOf(CDevicePath().Entry(strName)), s_dwKindStorage);
    }
    return 1;
}

// Nothing while it is in work, which goes on with the next call.
std::optional<std::int32_t> Format(CDevice& device, const std::u16string& strName,
                                   std::unique_ptr<CFolderWork>& pWork) {
    // The root only where its name stands: a text that happens to come to nothing must not empty
    // the device.
    const std::optional<CDevicePath> path = CDevicePath::Parse(strName);
    const bool bNamed = path && (!path->IsRoot() || strName == u"\\" || strName == u"/");
    if (!bNamed || !device.AllowsFormat()) {
        device.Log("format " + (path ? "\\" + path->Text() : "?") +
                   (bNamed ? ": not allowed" : ": refused"));
        return 0;
    }
    if (!pWork) {
        pWork = device.Folder().BeginFormat(*path);
    }
    const std::optional<EResult> eResult = pWork ? pWork->Step(device.Slice()) : EResult::REFUSED;
    if (!eResult) {
        return std::nullopt;
    }
    const bool bDone = *eResult == EResult::SUCCESS;
    device.Log("format \\" + path->Text() + (bDone ? "" : ": refused"));
    return bDone ? 1 : 0;
}

} // namespace

std::unique_ptr<CExchange> OpenGetDeviceFreeSpace(CDevice& device, CPayload payload) {
    if (!payload.AtEnd()) {
        return nullptr;
    }
    return std::make_unique<CFieldsExchange>(DAK_FUNC_GET_DEVICE_FREE_SPACE, [&](auto& fields) {
        const std::optional<CSpace> space = device.Folder().SpaceOf(CDevicePath());
        AppendU32(fields, KibOf(space ? space->qwFree : 0));
        AppendU32(fields, KibOf(space ? space->qwTotal : 0));
        return space ? 1 : 0;
    });
}

std::unique_ptr<CExchange> OpenGetFolderFreeSpace(CDevice& device, CPayload payload) {
    std::u16string strPath;
    if (!payload.TakeText(strPath, MAX_PATH_CHARS) || !payload.AtEnd()) {
        return nullptr;
    }
    return std::make_unique<CFieldsExchange>(
        DAK_FUNC_GET_FOLDER_FREE_SPACE, [&device, strPath](auto& fields) {
            const std::optional<CDevicePath> path = CDevicePath::Parse(strPath);
            const std::optional<CSpace> space =
                path ? device.Folder().SpaceOf(*path) : std::optional<CSpace>();
            const std::uint64_t qwFree = space ? space->qwFree : 0;
            AppendU32(fields, static_cast<std::uint32_t>(qwFree));
            AppendU32(fields, static_cast<std::uint32_t>(qwFree >> 32));
            return space ? 1 : 0;
        });
}

std::unique_ptr<CExchange> OpenGetStorageInfo(CDevice& device, CPayload payload) {
    if (!payload.AtEnd()) {
        return nullptr;
    }
    return std::make_unique<CFieldsExchange>(
        DAK_FUNC_GET_STORAGE_INFO, [&](auto& fields) { return TellStorages(device, fields); });
}

std::unique_ptr<CExchange> OpenFormatPartition(CDevice& device, CPayload payload) {
    std::u16string strName;
    if (!payload.TakeText(strName, MAX_PATH_CHARS) || !payload.AtEnd()) {
        return nullptr;
    }
    return std::make_unique<CFieldsExchange>(
        DAK_FUNC_FORMAT_PARTITION,
        [&device, strName, pWork = std::make_shared<std::unique_ptr<CFolderWork>>()](
            CFieldBytes& /*none*/) { return Format(device, strName, *pWork); });
}

} // namespace agent
