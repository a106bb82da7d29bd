#include "transfer/copy_to_device.h"

#include "link/command_exchange.h"
#include "link/dak_vorn.h"
#include "link/shared_word.h"
#include "platform/file.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "transfer/copy_job.h"
#include "transfer/io_buf.h"
#include "transfer/read_ahead.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr int READ_AHEAD_BYTES = 0x140000;
constexpr DWORD CONTENTS_BUFFER_BYTES = 12280;

// Of the final reply, read in two pieces: what follows the header under DAK_LAST_REPLY, and where
// the result stands in it; and the same under DAK_ABORT, where a whole response follows.
constexpr DWORD REPLY_REST_BYTES = 6;
constexpr DWORD REPLY_REST_RESULT = 2;
constexpr DWORD ABORT_REST_BYTES = 14;
constexpr DWORD ABORT_REST_RESULT = DAK_OFFSET_RESULT;

CString WithoutTrailingBackslashes(CString strPath) {
    strPath.TrimRight('\\');
    return strPath;
}

} // namespace

CCopyToDevice::CCopyToDevice(CDAKVorn& owner, const WCHAR* lpSource, const WCHAR* lpDest,
                             const CStringArray& fileList)
    : m_owner(owner), m_lpSource(lpSource), m_lpDest(lpDest), m_fileList(fileList) {
    bool bExact = false;
    m_strSource = NarrowText(lpSource, bExact);
    m_strDest = WithoutTrailingBackslashes(NarrowText(lpDest, bExact));
    SetReadAheadWait(IsPaced(owner.m_hDevice) ? ReadAheadWait::Poll : ReadAheadWait::Event);
}

bool CCopyToDevice::Run() {
    if (!SendRequest() || !OpenStream()) {
        return true;
    }
    for (int i = 0; i < m_fileList.GetSize(); ++i) {
        const FileOutcome eOutcome = SendFile(m_fileList.GetAt(i));
        if (eOutcome == FileOutcome::LinkLost) {
            ReplaceDeviceHandle();
            return false;
        }
        if (eOutcome == FileOutcome::StreamFailed) {
            m_dwFirstFailure = LoadShared(m_owner.m_dwErrCode);
            break;
        }
    }
    CloseStream();
    return true;
}

bool CCopyToDevice::SendRequest() {
    m_owner.m_nResendCount = 0;
    m_owner.m_dwLastPackageSize = 0;
    if (m_owner.m_lpResendBuf == nullptr) {
        return false;
    }
    CExchange exchange(m_owner, DAK_FUNC_TRANSMIT_FILES,
                       1 + CExchange::TextBytes(m_lpSource) + CExchange::TextBytes(m_lpDest));
    if (!exchange.IsAllocated()) {
        return false;
    }
    exchange.PutByte(DAK_TO_DEVICE);
    exchange.PutText(m_lpSource);
    exchange.PutText(m_lpDest);
    if (!exchange.SendCommand()) {
        StoreShared(m_owner.m_dwErrCode,
                    exchange.WasWritten() ? DAKERROR_FAIL : DAKERROR_NO_DEVICE);
        return false;
    }
    PauseForDevice(m_owner.m_hDevice, DevicePause::CopyToBegin,
                   static_cast<DWORD>(m_owner.m_dwRetryBase));
    return true;
}

bool CCopyToDevice::OpenStream() {
    if (!m_package.Allocate(DAK_PACKAGE_SIZE)) {
        StoreShared(m_owner.m_dwErrCode, DAKERROR_FAIL);
        return false;
    }
    BYTE* const lpPackage = m_package.Get();
    DakPutHeader(lpPackage, DAK_PACKAGE, DAK_MAXPACKAGELENGTH);
    DakPutU16(lpPackage + DAK_OFFSET_DATA_CODE, DAK_FUNC_TRANSMIT_FILES);
    DakPutU32(lpPackage + DAK_DATA_OFFSET, static_cast<DWORD>(m_fileList.GetSize()));
    m_dwCursor = DAK_DATA_OFFSET + 4;
    m_owner.m_dwSentPackages = 1;
    return true;
}

// One entry of the list. A file that cannot be opened is left out, though it has been counted: the
// device takes a stream with fewer records than announced.
CCopyToDevice::FileOutcome CCopyToDevice::SendFile(const char* lpszEntry) {
    SetPathText(m_owner.m_szSourcePath, lpszEntry);
    StoreShared(m_owner.m_dwSizeCopied, std::uint64_t{0});
    StoreShared(m_owner.m_dwSizeTotal, std::uint64_t{0});
    if (!g_IoBuf.InitIoBuf(READ_AHEAD_BYTES, lpszEntry)) {
        return FileOutcome::Done;
    }
    if (!SendRecord(lpszEntry)) {
        return FileOutcome::StreamFailed;
    }
    if (m_qwLeft == 0) {
        return FileOutcome::Done;
    }
    const FileOutcome eOutcome = SendContents();
    if (eOutcome == FileOutcome::Done) {
        g_IoBuf.DeinitIoBuf();
    }
    return eOutcome;
}

// What stands ahead of the contents: size, times, name.
bool CCopyToDevice::SendRecord(const char* lpszEntry) {
    DWORD dwSizeHigh = 0;
    const DWORD dwSizeLow = g_IoBuf.IoGetFileSize(&dwSizeHigh);
    m_qwLeft = (std::uint64_t{dwSizeHigh} << 32) | dwSizeLow;
    StoreShared(m_owner.m_dwSizeTotal, m_qwLeft);
    BYTE sizes[8];
    DakPutU32(sizes, dwSizeLow);
    DakPutU32(sizes + 4, dwSizeHigh);
    if (!AddField(sizes, 4) || !AddField(sizes + 4, 4)) {
        return false;
    }
    FILETIME ftCreation{};
    FILETIME ftLastWrite{};
    g_IoBuf.IoGetFileTime(&ftCreation, &ftLastWrite);
    if (!AddField(&ftCreation, sizeof(ftCreation)) ||
        !AddField(&ftLastWrite, sizeof(ftLastWrite))) {
        return false;
    }
    const CString strName = RelativeName(lpszEntry);
    CString strDest = m_strDest;
    strDest += "\\";
    strDest += strName;
    SetPathText(m_owner.m_szDestPath, strDest);
    WCHAR szName[DAK_MAX_NAME] = {};
    const int nChars = platform::MultiByteToWideChar(CP_ACP, 0, strName, -1, szName, DAK_MAX_NAME);
    if (nChars <= 0) {
        StoreShared(m_owner.m_dwErrCode, DAKERROR_FAIL);
        return false;
    }
    return AddField(szName, static_cast<DWORD>(nChars) * 2);
}

// The entry without the source folder and one separator, as the device separates.
CString CCopyToDevice::RelativeName(const CString& strEntry) const {
    return WithBackslashes(strEntry.Right(strEntry.GetLength() - m_strSource.GetLength() - 1));
}

// The file's bytes, each read asking for exactly the room left in the package, so that a full
// package goes out in the call that fills it.
CCopyToDevice::FileOutcome CCopyToDevice::SendContents() {
    const platform::CLocalBuffer data(CONTENTS_BUFFER_BYTES);
    if (!data) {
        StoreShared(m_owner.m_dwErrCode, DAKERROR_FAIL);
        return FileOutcome::LinkLost;
    }
    while (m_qwLeft != 0) {
        // What a file has gained since it was opened stays behind: its size has gone out already.
        const DWORD dwRead = static_cast<DWORD>(std::min<std::uint64_t>(
            static_cast<DWORD>(
                g_IoBuf.ReadIoBuf(data.Get(), static_cast<int>(DAK_PACKAGE_SIZE - m_dwCursor))),
            m_qwLeft));
        if (!AddField(data.Get(), dwRead)) {
            if (dwRead == 0) {
                // A read error, or the file has become shorter since it was opened.
                StoreShared(m_owner.m_dwErrCode, DAKERROR_FAIL);
            }
            return FileOutcome::LinkLost;
        }
        std::atomic_ref<std::uint64_t>(m_owner.m_dwSizeCopied).fetch_add(dwRead);
        m_qwLeft -= dwRead;
    }
    return FileOutcome::Done;
}

bool CCopyToDevice::AddField(const void* lpData, DWORD dwBytes) {
    return m_owner.AddBuffData(m_package.Get(), static_cast<const BYTE*>(lpData), dwBytes,
                               m_dwCursor, DAK_PACKAGE_SIZE, DAK_FUNC_TRANSMIT_FILES) != 0;
}

// The final package, also behind a record that failed: the device is to hear the end of its stream.
void CCopyToDevice::CloseStream() {
    DakPutHeader(m_package.Get(), DAK_LAST_PACKAGE, m_dwCursor - DAK_HEADER_SIZE);
    m_owner.SendDataPackage(m_package.Get(), m_dwCursor, 1);
    if (LoadShared(m_owner.m_dwErrCode) != DAKERROR_NO_DEVICE) {
        TakeFinalReply();
    }
    if (m_dwFirstFailure != DAKERROR_NONE) {
        StoreShared(m_owner.m_dwErrCode, m_dwFirstFailure);
        m_bRet = 0;
    }
}

void CCopyToDevice::TakeFinalReply() {
    if (!ReadReply(DAK_HEADER_SIZE)) {
        return;
    }
    const DWORD wCommand = DakGetHeader(m_package.Get()).wCommand;
    if (wCommand == DAK_LAST_REPLY && ReadReply(REPLY_REST_BYTES)) {
        JudgeResult(static_cast<int>(DakGetU32(m_package.Get() + REPLY_REST_RESULT)), false);
    } else if (wCommand == DAK_ABORT && ReadReply(ABORT_REST_BYTES)) {
        JudgeResult(static_cast<int>(DakGetU32(m_package.Get() + ABORT_REST_RESULT)), true);
    }
}

bool CCopyToDevice::ReadReply(DWORD dwBytes) {
    return CExchange::FirstReadWait(m_owner, {m_package.Get(), dwBytes, dwBytes}) == dwBytes;
}

void CCopyToDevice::JudgeResult(int nResult, bool bFromAbort) {
    m_owner.m_nCopyResult = nResult;
    if (nResult == DAK_RESULT_REFUSED) {
        StoreShared(m_owner.m_dwErrCode, DAKERROR_DEVICE_REFUSED);
    } else if (nResult == DAK_RESULT_NO_SPACE && !bFromAbort) {
        StoreShared(m_owner.m_dwErrCode, DAKERROR_NO_SPACE);
    } else if (nResult == 1 && !bFromAbort) {
        StoreShared(m_owner.m_dwErrCode, DAKERROR_NONE);
        m_bRet = 1;
    }
}

// A failed send may come from a write that had to be stopped. The stream stays open; the closing
// handshake ends it on the device.
void CCopyToDevice::ReplaceDeviceHandle() {
    platform::CloseHandle(m_owner.m_hDevice);
    m_owner.m_hDevice = INVALID_HANDLE_VALUE;
    m_owner.OpenDevice();
}
