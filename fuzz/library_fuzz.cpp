// The library against any device, in the simulated host: the input chooses an operation, and then
// says for each read what the device gives. Where it ends, the device is gone: the operation must
// end with it, in bounded virtual time, with nothing left open and nothing written outside of its
// folder.

#include "link/dak_vorn.h"
#include "platform/thread.h"
#include "tests/sim/world.h"

#include <gtest/gtest.h>

#include <fuzzer/FuzzedDataProvider.h>

namespace {

class CFuzzedPeer final : public sim::IPeer {
  public:
    CFuzzedPeer(sim::CWorld& world, FuzzedDataProvider& data) : m_world(world), m_data(data) {
        m_world.Plug(*this);
    }
    void SetTime(std::uint64_t /*qwNowMs*/) override {}
    bool TakePackage(std::span<const std::uint8_t> package) override {
        if (package.size() >= DAK_COMMAND_PAYLOAD_OFFSET) {
            m_dwWord = DakGetU32(package.data());
            m_codeFunc = DakGetU16(package.data() + DAK_OFFSET_CODE);
        }
        m_rest.clear();
        return true;
    }
    std::optional<std::size_t> GiveBytes(std::span<std::uint8_t> buffer) override {
        if (m_rest.empty()) {
            if (m_data.remaining_bytes() == 0) {
                m_world.Unplug();
                return {};
            }
            m_rest = Next();
        }
        if (m_rest.empty()) {
            return {};
        }
        const std::size_t dwCount = std::min(buffer.size(), m_rest.size());
        std::copy_n(m_rest.begin(), dwCount, buffer.begin());
        m_rest.erase(m_rest.begin(), m_rest.begin() + static_cast<std::ptrdiff_t>(dwCount));
        return dwCount;
    }

  private:
    test::Bytes Some() {
        return m_data.ConsumeBytes<std::uint8_t>(m_data.ConsumeIntegral<std::uint8_t>());
    }
    // What a device might answer, or nothing.
    test::Bytes Next() {
        switch (m_data.ConsumeIntegralInRange(0, 7)) {
        case 0:
            return {};
        case 1:
            return Some();
        case 2:
            return test::Response(m_codeFunc, m_data.ConsumeIntegralInRange(-2, 1), Some());
        case 3: {
            test::Bytes data = Some();
            data.resize(m_data.ConsumeBool() ? DAK_DATA_SIZE : data.size());
            return test::DataPackage(m_data.ConsumeBool() ? DAK_REPLY_PACKAGE : DAK_LAST_REPLY,
                                     m_codeFunc, data);
        }
        case 4:
            return test::Control(
                m_data.PickValueInArray({DAK_RETRANSMIT, DAK_ABORT, DAK_LAST_REPLY}));
        default:
            return m_dwWord == DAK_CONNECT || m_dwWord == DAK_DISCONNECT
                       ? test::Handshake(std::exchange(m_dwWord, 0))
                       : test::Ack();
        }
    }

    sim::CWorld& m_world;
    FuzzedDataProvider& m_data;
    std::uint32_t m_dwWord = 0;
    std::uint16_t m_codeFunc = 0;
    test::Bytes m_rest;
};

void Operate(CDAKVorn& dak, sim::CWorld& world, std::size_t nOperation) {
    std::vector<BYTE> buffer(30'000);
    const auto dwBytes = static_cast<DWORD>(buffer.size());
    DWORD dwWord = 0;
    std::uint64_t qwSpace = 0;
    void* hFile = reinterpret_cast<void*>(std::uintptr_t{1});
    _tagFileInfo info{};
    CArray<_tagFileInfo, _tagFileInfo> files;
    CArray<_tagStorageInfo, _tagStorageInfo> storages;
    CStringArray list;
    const auto job = [&](UINT nDirection, const WCHAR* lpszFrom, const WCHAR* lpszTo) {
        list.Add(nDirection == DAK_TO_DEVICE ? "C:\\s\\a" : "a");
        dak.DAKTransmitFiles(nDirection, lpszFrom, lpszTo, &list, nullptr);
        while (world.LiveThreads() > 0 && !world.HasFailed()) {
            platform::Sleep(1000);
        }
        dak.TerminateTransfer();
    };
    const std::function<void()> OPERATIONS[] = {
        [&] { job(DAK_FROM_DEVICE, DAK_WIDE("\\d"), DAK_WIDE("C:\\r")); },
        [&] { job(DAK_TO_DEVICE, DAK_WIDE("C:\\s"), DAK_WIDE("\\d")); },
        [&] { dak.DAKGetFolderContent(DAK_WIDE("\\d"), &files); },
        [&] { dak.DAKGetStorageInfo(&storages); },
        [&] { dak.DAKReadFile(hFile, buffer.data(), dwBytes, &dwWord); },
        [&] { dak.DAKWriteFile(hFile, buffer.data(), dwBytes, &dwWord); },
        [&] { dak.DAKKernelIoControl(1, buffer.data(), 10, buffer.data(), dwBytes, &dwWord); },
        [&] { dak.DAKGetFileInfo(DAK_WIDE("\\a"), &info); },
        [&] { dak.DAKCreateProcess(DAK_WIDE("a"), nullptr, &dwWord); },
        [&] { dak.DAKSetFilePointer(hFile, 5, 0, &dwWord); },
        [&] { dak.DAKGetFolderFreeSpace(DAK_WIDE("\\"), &qwSpace); },
        [&] { dak.DAKCreateFile(DAK_WIDE("\\a"), 1, 2, 3, &hFile); },
        [&] { dak.DAKMoveFile(DAK_WIDE("\\a"), DAK_WIDE("\\b")); }};
    OPERATIONS[nOperation % std::size(OPERATIONS)]();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* lpData, std::size_t dwSize) {
    GTEST_FLAG_SET(break_on_failure, true);
    FuzzedDataProvider data(lpData, dwSize);
    const auto nOperation = data.ConsumeIntegral<std::uint8_t>();
    sim::CWorld world;
    world.bTrace = false;
    world.WriteHostFile("C:/s/a", sim::Pattern(700'000));
    world.MakeHostFolder("C:/r");
    const std::size_t nOutside = world.HostFiles("C:/").size();
    {
        CDAKVorn dak;
        CFuzzedPeer peer(world, data);
        Operate(dak, world, nOperation);
        world.Unplug(peer);
    }
    // Every byte of the input may stand for one read without an answer, and one read may wait for
    // a megabyte.
    if (world.NowMs() > 600'000 + 1'100'000 * dwSize || !world.Open().empty() ||
        world.HostFiles("C:/").size() - world.HostFiles("C:/r").size() != nOutside) {
        std::abort();
    }
    return 0;
}
