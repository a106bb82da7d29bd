#include "agent/file_info.h"

#include <algorithm>
#include <utility>

#include "agent/copy_files.h"
#include "agent/device.h"
#include "agent/fields_exchange.h"
#include "agent/operations.h"

namespace agent {

namespace {

constexpr std::uint32_t s_dwReadOnly = 0x01;
constexpr std::uint32_t s_dwHidden = 0x02;
constexpr std::uint32_t s_dwDirectory = 0x10;
constexpr std::uint32_t s_dwArchive = 0x20;

// The record of one file, its offsets and its size.
constexpr std::size_t s_dwPathOffset = 520;
constexpr std::size_t s_dwTypeOffset = 1040;
constexpr std::size_t s_dwAttributesOffset = 1200;
constexpr std::size_t s_dwRecordSize = 1236;

std::u16string Cut(std::u16string strText, std::size_t nChars) {
    if (strText.size() >= nChars) {
        const char16_t unitLast = strText[nChars - 2];
        // Half a pair is no character.
        strText.resize(unitLast >= 0xD800 && unitLast < 0xDC00 ? nChars - 2 : nChars - 1);
    }
    return strText;
}

std::string TypeOf(std::string_view strName) {
    const std::size_t dwDot = strName.rfind('.');
    if (dwDot == std::string_view::npos || dwDot == 0 || dwDot + 1 == strName.size()) {
        return "File";
    }
    std::string strType(strName.substr(dwDot + 1));
    for (char& chNext : strType) {
        chNext = chNext >= 'a' && chNext <= 'z' ? static_cast<char>(chNext - 'a' + 'A') : chNext;
    }
    return strType + " file";
}

void PutText(std::uint8_t* lpField, const std::u16string& strText) {
    for (std::size_t i = 0; i < strText.size(); ++i) {
        DakPutU16(lpField + 2 * i, strText[i]);
    }
}

void PutRecord(std::uint8_t* lpRecord, const CFileFields& fields) {
    PutText(lpRecord, fields.strName);
    PutText(lpRecord + s_dwPathOffset, fields.strPath);
    PutText(lpRecord + s_dwTypeOffset, fields.strType);
    std::uint8_t* lpNumbers = lpRecord + s_dwAttributesOffset;
    DakPutU32(lpNumbers, fields.dwAttributes);
    DakPutU64(lpNumbers + 4, fields.times.ftCreation);
    DakPutU64(lpNumbers + 12, fields.ftLastAccess);
    DakPutU64(lpNumbers + 20, fields.times.ftLastWrite);
    DakPutU32(lpNumbers + 28, static_cast<std::uint32_t>(fields.qwSize >> 32));
    DakPutU32(lpNumbers + 32, static_cast<std::uint32_t>(fields.qwSize));
}

// Zeroes when there is nothing under the path.
std::int32_t TellFile(CDevice& device, const std::u16string& strPath, CFieldBytes& record) {
    const std::optional<CDevicePath> path = CDevicePath::Parse(strPath);
    const std::optional<CEntryInfo> info = path ? device.Folder().Describe(*path) : std::nullopt;
    device.Log("file info " + (path ? path->Text() : "?") + (info ? "" : ": not there"));
    record.resize(s_dwRecordSize);
    if (info) {
        PutRecord(record.data(), FieldsOf(*path, info));
    }
    return info ? 1 : 0;
}

} // namespace

CFileFields FieldsOf(const CDevicePath& path, const std::optional<CEntryInfo>& info) {
    CFileFields fields;
    const std::string_view strLeaf = path.Leaf();
    fields.strPath.push_back(u'\\');
    fields.strPath += path.HostNameIn(CDevicePath()).value_or(u"");
    fields.strName = path.IsRoot() ? fields.strPath : ToUtf16(strLeaf).value_or(u"");
    fields.strPath = Cut(std::move(fields.strPath), FILE_TEXT_CHARS);
    fields.strName = Cut(std::move(fields.strName), FILE_TEXT_CHARS);
    fields.strType =
        Cut(ToUtf16(info && info->bFolder ? "File folder" : TypeOf(strLeaf)).value_or(u""),
            FILE_TYPE_CHARS);
    if (info) {
        fields.dwAttributes = (info->bFolder ? s_dwDirectory : s_dwArchive) |
                              (info->bReadOnly ? s_dwReadOnly : 0) |
                              (strLeaf.starts_with('.') ? s_dwHidden : 0);
        fields.times = info->times;
        fields.ftLastAccess = info->ftLastAccess;
        fields.qwSize = info->qwSize;
    }
    return fields;
}

std::unique_ptr<CExchange> OpenGetFileInfo(CDevice& device, CPayload payload) {
    std::u16string strPath;
    if (!payload.TakeText(strPath, MAX_PATH_CHARS) || !payload.AtEnd()) {
        return nullptr;
    }
    return std::make_unique<CFieldsExchange>(
        DAK_FUNC_GET_FILE_INFO,
        [&device, strPath](CFieldBytes& record) { return TellFile(device, strPath, record); });
}

} // namespace agent
