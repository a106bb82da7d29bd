// Files by handle, paths, and folder listings.

#include "tests/library/test_access.h"
#include "tests/sim/scripted_device.h"

#include "platform/thread.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using sim::Bytes;
using sim::Control;
using sim::Text;
using sim::U32;

void* const FILE_HANDLE = reinterpret_cast<void*>(std::uintptr_t{0xFFFFFFFE});
constexpr std::size_t DATA = DAK_DATA_SIZE;

Bytes Data(std::uint32_t dwWord, std::uint16_t code, const Bytes& bytes) {
    return sim::DataPackage(dwWord, code, bytes);
}

struct CRun {
    sim::CWorld world;
    sim::CScriptedDevice device{world};
    CDAKVorn dak;
    DWORD dwCount = 77;
    Bytes buffer; // one byte longer than what a read asks for

    // The command for dwBytes, acknowledged at 320 ms.
    sim::CScriptedDevice& Expect(std::uint16_t code, std::size_t dwBytes) {
        buffer = code == DAK_FUNC_READ_FILE ? Bytes(dwBytes + 1, 0xEE) : sim::Pattern(dwBytes);
        device.ExpectCommand(code, U32(0xFFFFFFFE), U32(static_cast<DWORD>(dwBytes))).At(310);
        return device.Reply(sim::Ack()).Do([this] { EXPECT_TRUE(dak.IsTransmitting()); });
    }
    void Check(DWORD dwReturned, DWORD dwResult, DWORD dwError, std::size_t dwExpected) {
        EXPECT_EQ(dwReturned, dwResult);
        EXPECT_EQ(dak.GetLastError(), dwError);
        EXPECT_EQ(dwCount, dwExpected);
        EXPECT_FALSE(dak.IsTransmitting());
        EXPECT_EQ(world.Open().size(), 1u);
        EXPECT_EQ(device.PendingPackages(), 0u);
    }
    void Read(DWORD dwResult, DWORD dwError, std::size_t dwExpected) {
        const auto dwAsked = static_cast<DWORD>(buffer.size() - 1);
        Check(dak.DAKReadFile(FILE_HANDLE, buffer.data(), dwAsked, &dwCount), dwResult, dwError,
              dwExpected);
        EXPECT_EQ(buffer[dwCount], 0xEE) << "nothing is written behind what was delivered";
    }
    void Write(DWORD dwResult, DWORD dwError, std::size_t dwExpected) {
        const auto dwBytes = static_cast<DWORD>(buffer.size());
        buffer.push_back(0);
        Check(dak.DAKWriteFile(FILE_HANDLE, buffer.data(), dwBytes, &dwCount), dwResult, dwError,
              dwExpected);
    }
};

std::vector<Bytes> ReadPackages(const Bytes& data, DWORD dwAnnounced) {
    return sim::StreamPackages(DAK_FUNC_READ_FILE, sim::Join(U32(dwAnnounced), data),
                               DAK_REPLY_PACKAGE, DAK_LAST_REPLY, false);
}

TEST(FileHandles, ReadsOfAllSizesInTheirTime) {
    for (const std::size_t dwSize : {std::size_t{0}, std::size_t{1}, DATA - 4, DATA - 3, DATA,
                                     DATA + 1, 50 * DATA - 4, 50 * DATA - 3, 100 * DATA - 4}) {
        SCOPED_TRACE(dwSize);
        CRun run;
        run.Expect(DAK_FUNC_READ_FILE, dwSize);
        const Bytes data = sim::Pattern(dwSize);
        const auto packages = ReadPackages(data, static_cast<DWORD>(dwSize));
        std::uint64_t qwMs = 320;
        for (std::size_t i = 1; i <= packages.size(); ++i) {
            run.device.Reply(packages[i - 1]);
            qwMs += 20; // head and body
            if (i % 50 == 0 || i == packages.size()) {
                run.device.Expect(sim::Ack()).At(qwMs);
                qwMs += 500;
            }
        }
        run.Read(dwSize == 0 ? DAKERROR_FAIL : 0, 0, dwSize);
        EXPECT_EQ(run.world.NowMs(), qwMs + 10);
        run.buffer.pop_back();
        EXPECT_TRUE(run.buffer == data);
    }
}

TEST(FileHandles, WritesOfAllSizesInTheirTime) {
    for (const std::size_t dwSize : {std::size_t{0}, std::size_t{1}, DATA - 4, DATA, DATA + 1,
                                     50 * DATA, 50 * DATA + 1, 51 * DATA + 1, 101 * DATA + 5}) {
        SCOPED_TRACE(dwSize);
        CRun run;
        run.Expect(DAK_FUNC_WRITE_FILE, dwSize);
        const auto packages = sim::StreamPackages(DAK_FUNC_WRITE_FILE, run.buffer, DAK_PACKAGE,
                                                  DAK_LAST_PACKAGE, false);
        std::uint64_t qwMs = 320;
        for (std::size_t i = 1; i <= packages.size(); ++i) {
            run.device.Expect(packages[i - 1]).At(qwMs);
            if (i % 50 == 1 || i == packages.size()) {
                run.device.Reply(sim::Ack());
                qwMs += 10 + 60; // and the pause of a host of unknown speed
            }
        }
        run.device.Reply(sim::Response(DAK_FUNC_WRITE_FILE, 1));
        run.Write(0, 0, dwSize);
        EXPECT_EQ(run.world.NowMs(), qwMs + 10 + 10);
    }
}

struct CRow {
    const char* lpszName;
    std::function<void(CRun&, sim::CScriptedDevice&)> play;
    DWORD dwResult;
    DWORD dwError;
    std::size_t dwCount;
};

TEST(FileHandles, ReadsThatBreak) {
    const Bytes data = sim::Pattern(20000); // 12270 bytes in its first package
    const auto whole = ReadPackages(data, 20000);
    const Bytes& first = whole[0];
    const Bytes count = Data(DAK_REPLY_PACKAGE, 16, U32(20000));
    const Bytes nothing = Data(DAK_REPLY_PACKAGE, 16, {});
    Bytes bad = whole[1];
    bad[20] ^= 1;
    using D = sim::CScriptedDevice;
    constexpr DWORD F = DAKERROR_FAIL;
    const Bytes leave = sim::Handshake(DAK_DISCONNECT);
    const Bytes five = ReadPackages(Bytes(5, 1), 5)[0];
    const Bytes more = ReadPackages(data, 20001)[0];
    const Bytes abort = Control(DAK_ABORT);
    const auto cancel = [](CRun& run, std::uint64_t qwMs) {
        run.world.At(qwMs, [&] { run.dak.TerminateTransfer(); });
    };
    const CRow rows[] = {
        {"less", [&](CRun&, D& d) { d.Reply(five).Expect(sim::Ack()); }, 0, 0, 5},
        {"more", [&](CRun&, D& d) { d.Reply(more).Expect(abort).At(340); }, F, DAKERROR_PROTOCOL,
         0},
        {"gone", [&](CRun&, D& d) { d.VanishAfter(50); }, F, DAKERROR_NO_DEVICE, 0},
        {"left", [&](CRun&, D& d) { d.Reply(leave); }, F, DAKERROR_NO_DEVICE, 0},
        {"gone later", [&](CRun&, D& d) { d.Reply(first).VanishAfter(500); }, 0, 0, 12270},
        {"a count, then gone", [&](CRun&, D& d) { d.Reply(count).VanishAfter(500); }, F,
         DAKERROR_NO_DEVICE, 0},
        {"no bytes", [&](CRun&, D& d) { d.Reply(first).Reply(nothing).Expect(abort); }, 0, 0,
         12270},
        {"a count alone", [&](CRun&, D& d) { d.Reply(count).Reply(nothing).Expect(abort); }, F,
         DAKERROR_PROTOCOL, 0},
        {"sent again",
         [&](CRun&, D& d) {
             d.Reply(first).Reply(bad).Expect(Control(DAK_RETRANSMIT));
             d.Reply(first).Reply(whole[1]).Expect(sim::Ack());
         },
         0, 0, 20000},
        {"cancelled", [&](CRun& run, D&) { cancel(run, 400); }, F, DAKERROR_PROTOCOL, 0},
        {"cancelled at the end",
         [&](CRun& run, D& d) {
             cancel(run, 345);
             d.Reply(first).Reply(whole[1]).Expect(abort);
         },
         0, 0, 12270},
        {"no memory", [&](CRun& run, D&) { run.world.dwFailAllocationsOf = 12288; }, F, F, 0}};
    for (const CRow& row : rows) {
        SCOPED_TRACE(row.lpszName);
        CRun run;
        row.play(run, run.Expect(DAK_FUNC_READ_FILE, 20000));
        run.Read(row.dwResult, row.dwError, row.dwCount);
        EXPECT_TRUE(run.dwCount <= 5 ||
                    std::equal(data.begin(), data.begin() + run.dwCount, run.buffer.begin()));
    }
}

TEST(FileHandles, WritesThatBreak) {
    using D = sim::CScriptedDevice;
    constexpr DWORD F = DAKERROR_FAIL;
    constexpr DWORD GONE = DAKERROR_NO_DEVICE;
    const auto any = [](const Bytes&) {};
    const auto confirmed = [&](D& d) -> D& {
        return d.ExpectThat(any).Reply(sim::Ack()).ExpectThat(any);
    };
    const auto closing = [&](const Bytes& response) {
        return [=](CRun&, D& d) { confirmed(d).Reply(sim::Ack()).Reply(response); };
    };
    const auto aborted = [](const Bytes& package) {
        EXPECT_EQ(package.size(), DAK_PACKAGE_SIZE);
        EXPECT_EQ(Bytes(package.begin(), package.begin() + 8), Control(DAK_ABORT));
    };
    const CRow rows[] = {
        {"no space", closing(sim::Response(17, -1)), F, DAKERROR_NO_SPACE, 20000},
        {"refused", closing(sim::Response(17, -2)), F, DAKERROR_DEVICE_REFUSED, 20000},
        {"result 2", closing(sim::Response(17, 2)), F, 0, 20000},
        {"full: gone", [&](CRun&, D& d) { d.ExpectThat(any).VanishAfter(100); }, F, GONE, 0},
        {"full: refused", [&](CRun&, D& d) { d.ExpectThat(any).Reply(Control(DAK_ABORT)); }, F,
         GONE, 0},
        {"full: cancelled",
         [&](CRun& run, D& d) {
             run.world.At(315, [&] { run.dak.TerminateTransfer(); });
             d.ExpectThat(aborted);
         },
         F, GONE, 0},
        {"final: gone", [&](CRun&, D& d) { confirmed(d).VanishAfter(100); }, F, GONE, DATA},
        {"final: refused", [&](CRun&, D& d) { confirmed(d).Reply(Control(DAK_DISCONNECT)); }, F,
         DAKERROR_PROTOCOL, DATA},
        {"no memory", [&](CRun& run, D&) { run.world.dwFailAllocationsOf = 12288; }, F, F, 0}};
    for (const CRow& row : rows) {
        SCOPED_TRACE(row.lpszName);
        CRun run;
        row.play(run, run.Expect(DAK_FUNC_WRITE_FILE, 20000));
        run.Write(row.dwResult, row.dwError, row.dwCount);
    }
}

TEST(FileHandles, ValuesAsTheDeviceGivesThem) {
    CRun run;
    const auto answer = [&](std::uint16_t code, const Bytes& response) {
        run.device.ExpectThat([code](const Bytes& package) {
            EXPECT_EQ(DakGetU16(package.data() + DAK_OFFSET_CODE), code);
        });
        run.device.Reply(sim::Ack()).Reply(response);
    };
    void* hFile = nullptr;
    answer(15, sim::Response(15, 0, U32(0x80000001)));
    EXPECT_EQ(run.dak.DAKCreateFile(DAK_WIDE("a"), 0, 0, 0, &hFile), DAKERROR_FAIL);
    EXPECT_EQ(hFile, reinterpret_cast<void*>(std::uintptr_t{0x80000001})) << "stored all the same";
    for (const DWORD dwPosition : {0u, 0x80000000u, 0xFFFFFFFFu}) {
        answer(18, sim::Response(18, static_cast<int>(dwPosition)));
        EXPECT_EQ(run.dak.DAKSetFilePointer(FILE_HANDLE, 0, 0, &run.dwCount),
                  dwPosition == 0xFFFFFFFF ? DAKERROR_FAIL : 0);
        EXPECT_EQ(run.dwCount, dwPosition);
    }
    answer(18, sim::Response(19, 5));
    EXPECT_EQ(run.dak.DAKSetFilePointer(FILE_HANDLE, 0, 0, &run.dwCount), DAKERROR_FAIL);
    EXPECT_EQ(run.dwCount, 0xFFFFFFFF);

    // The record comes whatever the result says, but only whole.
    const Bytes record = sim::Pattern(1236);
    _tagFileInfo info{};
    answer(14, sim::Response(14, 1, Bytes(record.begin(), record.end() - 1)));
    EXPECT_EQ(run.dak.DAKGetFileInfo(DAK_WIDE("a"), &info), DAKERROR_FAIL);
    EXPECT_EQ(info.szText1[0], 0);
    answer(14, sim::Response(14, 0, record));
    EXPECT_EQ(run.dak.DAKGetFileInfo(DAK_WIDE("a"), &info), DAKERROR_FAIL);
    EXPECT_EQ(std::memcmp(&info, record.data(), 1236), 0);
    // A folder's attributes go nowhere.
    int nAttributes = 0;
    run.device.ExpectCommand(10, Text(DAK_WIDE("a"))).Reply(sim::Ack()).Reply(sim::Response(10, 2));
    EXPECT_EQ(run.dak.DAKCreateDirectory(DAK_WIDE("a"),
                                         reinterpret_cast<_SECURITY_ATTRIBUTES*>(&nAttributes)),
              0u);
}

// Listings.

// An entry as it is to come out, with numbers of its own.
_tagFileInfo Info(DWORD dwSeed, std::basic_string_view<WCHAR> text1 = DAK_WIDE("a"),
                  std::basic_string_view<WCHAR> text2 = DAK_WIDE("bc"),
                  std::basic_string_view<WCHAR> text3 = DAK_WIDE("def")) {
    _tagFileInfo info{};
    info.dwFileAttributes = dwSeed;
    text1.copy(info.szText1, 260);
    text2.copy(info.szText2, 260);
    text3.copy(info.szText3, 80);
    const Bytes numbers = sim::Pattern(32, dwSeed);
    std::memcpy(&info.ftCreationTime, numbers.data(), 8);
    std::memcpy(&info.ftLastWriteTime, numbers.data() + 8, 8);
    std::memcpy(&info.ftLastAccessTime, numbers.data() + 16, 8);
    std::memcpy(&info.nFileSizeHigh, numbers.data() + 24, 8);
    return info;
}
Bytes Entry(DWORD dwSeed, std::basic_string_view<WCHAR> text1 = DAK_WIDE("a"),
            std::basic_string_view<WCHAR> text2 = DAK_WIDE("bc"),
            std::basic_string_view<WCHAR> text3 = DAK_WIDE("def")) {
    return sim::Join(U32(dwSeed), Text(text1), Text(text2), Text(text3), sim::Pattern(32, dwSeed));
}
void ExpectEntry(const _tagFileInfo& got, const _tagFileInfo& expected) {
    EXPECT_EQ(std::memcmp(&got, &expected, sizeof(got)), 0);
}

Bytes First(bool bLast, DWORD dwEntries, const Bytes& bytes) {
    return sim::Package(bLast ? DAK_LAST_REPLY : DAK_REPLY_PACKAGE,
                        sim::Join(sim::U16(7), U32(0), U32(dwEntries), bytes));
}
Bytes Later(bool bLast, const Bytes& bytes) {
    return sim::Package(bLast ? DAK_LAST_REPLY : DAK_REPLY_PACKAGE, sim::Join(sim::U16(7), bytes));
}

using FileList = CArray<_tagFileInfo, _tagFileInfo>;

// The head of the reply is read at 1458 ms.
sim::CScriptedDevice& ExpectListing(CRun& run) {
    run.device.ExpectCommand(7, Text(DAK_WIDE("\\"))).At(828);
    return run.device.Reply(sim::Ack());
}

TEST(Listing, CutAtEveryByte) {
    const Bytes entries =
        sim::Join(Entry(1), Entry(2, DAK_WIDE(""), DAK_WIDE(""), DAK_WIDE("")), Entry(3));
    for (std::size_t dwCut = 1; dwCut <= entries.size(); ++dwCut) {
        SCOPED_TRACE(dwCut);
        CRun run;
        const auto middle = entries.begin() + static_cast<int>(dwCut);
        const bool bOne = middle == entries.end();
        ExpectListing(run).Reply(First(bOne, 3, Bytes(entries.begin(), middle)));
        if (!bOne) {
            run.device.Reply(Later(true, Bytes(middle, entries.end()))).Expect(sim::Ack()).At(1478);
        }
        FileList list;
        EXPECT_EQ(run.dak.DAKGetFolderContent(DAK_WIDE("\\"), &list), 0u);
        ASSERT_EQ(list.GetSize(), 3);
        ExpectEntry(list[0], Info(1));
        ExpectEntry(list[1], Info(2, DAK_WIDE(""), DAK_WIDE(""), DAK_WIDE("")));
        ExpectEntry(list[2], Info(3));
        EXPECT_EQ(run.world.NowMs(), bOne ? 1468u : 1488u);
    }
}

TEST(Listing, WindowsOfPackages) {
    for (const DWORD dwPackages : {1u, 2u, 49u, 50u, 51u, 100u, 101u}) {
        SCOPED_TRACE(dwPackages);
        CRun run;
        ExpectListing(run).Reply(First(dwPackages == 1, dwPackages, Entry(1)));
        std::uint64_t qwMs = 1458;
        for (DWORD i = 2; i <= dwPackages; ++i) {
            run.device.Reply(Later(i == dwPackages, Entry(i)));
            qwMs += 20;
            if (i % 50 == 0 || i == dwPackages) {
                run.device.Expect(sim::Ack()).At(qwMs);
            }
        }
        FileList list;
        list.Add({});
        EXPECT_EQ(run.dak.DAKGetFolderContent(DAK_WIDE("\\"), &list), 0u);
        EXPECT_EQ(run.world.NowMs(), qwMs + 10);
        ASSERT_EQ(list.GetSize(), static_cast<int>(dwPackages) + 1) << "behind what was there";
        ExpectEntry(list[static_cast<int>(dwPackages)], Info(dwPackages));
        run.dak.ClearFileList(&list);
        EXPECT_EQ(list.GetSize(), 0);
        EXPECT_EQ(list.GetData(), nullptr);
        run.dak.ClearFileList(&list);
    }
}

TEST(Listing, FullPackagesAndLongTexts) {
    const std::basic_string<WCHAR> t260(259, DAK_WIDE('x'));
    const std::basic_string<WCHAR> t80(79, DAK_WIDE('y'));
    Bytes stream;
    for (DWORD i = 1; i <= 30; ++i) {
        const Bytes entry = i % 2 != 0 ? Entry(i, t260, t260, t80) : Entry(i);
        stream.insert(stream.end(), entry.begin(), entry.end());
    }
    ASSERT_GT(stream.size(), 12270u);
    CRun run;
    // What somebody left in the pipe is drained, 8 bytes at a time.
    run.world.At(320, [&] { run.device.Give(Bytes(20, 1)); });
    run.device.ExpectCommand(7, Text(DAK_WIDE("\\"))).At(858).Reply(sim::Ack());
    const auto middle = stream.begin() + 12270;
    run.device.Reply(First(false, 30, Bytes(stream.begin(), middle)));
    run.device.Reply(Later(true, Bytes(middle, stream.end()))).Expect(sim::Ack());
    FileList list;
    EXPECT_EQ(run.dak.DAKGetFolderContent(DAK_WIDE("\\"), &list), 0u);
    ASSERT_EQ(list.GetSize(), 30);
    ExpectEntry(list[28], Info(29, t260, t260, t80));
    ExpectEntry(list[29], Info(30));
}

TEST(Listing, RepliesThatAreNone) {
    const Bytes one = Entry(1);
    const Bytes two = sim::Join(one, Entry(2));
    const auto part = [&](int nFrom, int nTo) {
        return Bytes(two.begin() + nFrom, two.begin() + nTo);
    };
    const auto patch = [](Bytes package, std::size_t dwOffset, DWORD dwValue) {
        DakPutU32(package.data() + dwOffset, dwValue);
        return package;
    };
    const auto packages = [](const auto&... all) { return std::vector<Bytes>{all...}; };
    const Bytes first = First(false, 2, one);
    const Bytes later = Later(true, two);
    const Bytes foreign = sim::Package(DAK_LAST_REPLY, sim::Join(sim::U16(8), two));
    const Bytes none;
    const int nTwo = static_cast<int>(two.size());
    const std::basic_string<WCHAR> t260(260, DAK_WIDE('x'));
    struct {
        const char* lpszName;
        std::vector<Bytes> packages;
        bool bAcknowledged;
        DWORD dwResult;
        int nEntries;
    } const rows[] = {
        {"no entries, more bytes", packages(First(true, 0, one)), false, 0, 0},
        {"L of 10", packages(First(true, 3, none)), false, 0, 0},
        {"fewer wanted than sent", packages(First(true, 1, two)), false, 0, 1},
        {"cut three times",
         packages(First(false, 2, part(0, 2)), Later(false, part(2, 3)), Later(false, part(3, 5)),
                  Later(true, part(5, nTwo))),
         true, 0, 2},
        {"L of 9", packages(patch(First(true, 1, one), 4, 9)), false, DAKERROR_FAIL, 0},
        {"L of 12281", packages(patch(First(true, 1, one), 4, 12281)), false, DAKERROR_FAIL, 0},
        {"more counted", packages(First(true, 0xFFFFFFFF, two)), false, DAKERROR_FAIL, 2},
        {"last from the first on", packages(First(true, 9, one), Later(false, Entry(2))), true,
         DAKERROR_FAIL, 2},
        {"without bytes", packages(first, Later(false, none), later), false, DAKERROR_FAIL, 1},
        {"another code", packages(first, foreign), true, DAKERROR_FAIL, 1},
        {"another word", packages(first, patch(later, 0, DAK_PACKAGE)), false, DAKERROR_FAIL, 1},
        {"later L of 1", packages(first, patch(later, 4, 1)), false, DAKERROR_FAIL, 1},
        {"later L of 12281", packages(first, patch(later, 4, 12281)), false, DAKERROR_FAIL, 1},
        {"no end of a text", packages(First(true, 1, Entry(1, DAK_WIDE(""), t260))), false,
         DAKERROR_FAIL, 0},
        {"nor of the third",
         packages(First(true, 1, Entry(1, DAK_WIDE(""), DAK_WIDE(""), t260.substr(180)))), false,
         DAKERROR_FAIL, 0}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.lpszName);
        CRun run;
        ExpectListing(run);
        for (const Bytes& package : row.packages) {
            run.device.Reply(package);
        }
        if (row.bAcknowledged) {
            run.device.Expect(sim::Ack());
        }
        FileList list;
        EXPECT_EQ(run.dak.DAKGetFolderContent(DAK_WIDE("\\"), &list), row.dwResult);
        EXPECT_EQ(run.dak.GetLastError(), row.dwResult);
        EXPECT_EQ(list.GetSize(), row.nEntries);
        EXPECT_LT(run.world.NowMs(), 20'000u);
    }
}

} // namespace
