// The device's folder on Windows: what the system reads into names, and what it asks for where a
// file is open, read-only or in the way.
#include "agent_host.h"

#include "platform/types.h"

namespace fs = std::filesystem;

namespace {

using agent::CDevicePath;
using agent::COpenMode;
using agent::EResult;

class CFolderTest : public testing::Test {
  protected:
    CFolderTest() { Open({}); }

    void Open(std::optional<std::uint64_t> qwQuota) {
        pFolder.reset();
        std::string strError;
        pFolder = agent::CDeviceFolder::Open((base / "root").string(), {}, strError);
        ASSERT_TRUE(pFolder) << strError;
        ASSERT_TRUE(pFolder->AddStorage("Card", (base / "root" / "in" / "card").string(), strError))
            << strError;
        pFolder->RemoveLeftovers();
        if (qwQuota) {
            pFolder->SetQuota(*qwQuota);
        }
    }
    ~CFolderTest() override {
        Open({});
        // Also what is read-only, or too deep for the standard library.
        EXPECT_EQ(pFolder->Format(Path(u"Card")), EResult::SUCCESS);
        EXPECT_EQ(pFolder->Format(Path(u"")), EResult::SUCCESS);
        pFolder.reset();
        fs::remove_all(base);
    }

    static CDevicePath Path(std::u16string_view strPath) {
        return CDevicePath::Parse(strPath).value();
    }

    EResult Put(std::u16string_view strPath, const Bytes& data, agent::CFileTimes times = {}) {
        std::unique_ptr<agent::CPartFile> pPart;
        EResult eResult = pFolder->BeginPart(Path(strPath), data.size(), pPart);
        if (eResult == EResult::SUCCESS) {
            eResult = pPart->Write(data);
        }
        return eResult == EResult::SUCCESS ? pPart->Complete(times) : eResult;
    }

    std::optional<Bytes> Get(std::u16string_view strPath) {
        const auto pSource = pFolder->OpenSource(Path(strPath));
        if (!pSource) {
            return std::nullopt;
        }
        Bytes data(100'000);
        data.resize(pSource->Read(data));
        return data;
    }

    static EResult Do(std::unique_ptr<agent::CFolderWork> pWork) {
        return pWork ? pWork->Step().value() : EResult::REFUSED;
    }
    EResult Copy(std::u16string_view strFrom, std::u16string_view strTo, bool bFail = false) {
        return Do(pFolder->BeginCopy(Path(strFrom), Path(strTo), bFail));
    }
    EResult Move(std::u16string_view strFrom, std::u16string_view strTo) {
        return Do(pFolder->BeginMove(Path(strFrom), Path(strTo)));
    }

    // With forward slashes, below the root.
    std::vector<std::string> Tree() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::recursive_directory_iterator(base / "root")) {
            names.push_back(NameOf(entry.path().lexically_relative(base / "root")));
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    const fs::path base = [] {
        const fs::path path = MakeTemporaryFolder("dak-folder-test-");
        fs::create_directories(path / "root" / "in" / "card");
        return path;
    }();
    std::unique_ptr<agent::CDeviceFolder> pFolder;
};

using Names = std::vector<std::string>;

TEST_F(CFolderTest, NamesThatAreMoreThanNames) {
    ASSERT_EQ(Put(u"f", {1}), EResult::SUCCESS);
    const std::u16string_view names[] = {
        u"ff:s",      u"ff::$DATA", u"f.",     u"f ",     u"f. .",  u"NUL",    u"nul.txt", u"com1",
        u"COM\u00b9", u"lpt9.a.b",  u"con .x", u"CONIN$", u"a?",    u"a*",     u"a<b",     u"a>",
        u"a|b",       u"a\"b",      u"a\x01",  u"in./x",  u"aux/x", u"ff:s/x", u"in /x"};
    for (const std::u16string_view strName : names) {
        SCOPED_TRACE(agent::ToUtf8(strName).value());
        std::unique_ptr<agent::COpenFile> pFile;
        COpenMode mode;
        mode.bWrite = true;
        mode.eMissing = COpenMode::EMissing::MAKE;
        EXPECT_EQ(Put(strName, {2}), EResult::REFUSED);
        EXPECT_EQ(pFolder->MakeFolder(Path(strName)), EResult::REFUSED);
        EXPECT_EQ(pFolder->OpenFile(Path(strName), mode, pFile), EResult::REFUSED);
        EXPECT_EQ(Copy(u"f", strName), EResult::REFUSED);
        EXPECT_EQ(Move(u"f", strName), EResult::REFUSED);
        EXPECT_EQ(pFolder->Remove(Path(strName)), EResult::REFUSED);
        EXPECT_FALSE(pFolder->Find(Path(strName)));
        EXPECT_FALSE(Get(strName));
    }
    std::string strError;
    for (const char* lpszName : {"nul", "a:b", "card", "x.", "a/b", ""}) {
        EXPECT_FALSE(pFolder->AddStorage(lpszName, (base / "root").string(), strError)) << lpszName;
    }
    EXPECT_EQ(Tree(), (Names{"f", "in", "in/card"}));

    // Further than the system's short paths reach, and beyond the code page.
    const std::u16string strLong(120, u'\u00e4');
    const std::u16string strDeep = strLong + u"/" + strLong + u"/" + strLong + u"/\U0001F600.b";
    ASSERT_EQ(Put(strDeep, {3}), EResult::SUCCESS);
    EXPECT_EQ(Get(strDeep), Bytes{3});
    EXPECT_EQ(pFolder->List(Path(strLong + u"/" + strLong + u"/" + strLong), 1),
              Names{"\xf0\x9f\x98\x80.b"});
    EXPECT_EQ(Copy(strLong, u"copy"), EResult::SUCCESS);
    EXPECT_EQ(Get(u"copy/" + strLong + u"/" + strLong + u"/\U0001F600.b"), Bytes{3});
}

TEST_F(CFolderTest, AFileArrivesWholeWithItsTimes) {
    const agent::CFileTimes times = {131'000'000'000'000'010, 132'000'000'001'234'567};
    ASSERT_EQ(Put(u"new/d/a.txt", {1, 2}, times), EResult::SUCCESS);
    EXPECT_EQ(pFolder->Find(Path(u"NEW\\D\\A.TXT"))->times.ftLastWrite, times.ftLastWrite);
    {
        std::unique_ptr<agent::CPartFile> pPart;
        ASSERT_EQ(pFolder->BeginPart(Path(u"new/d/a.txt"), 9, pPart), EResult::SUCCESS);
        ASSERT_EQ(pPart->Write(Bytes(9)), EResult::SUCCESS);
        EXPECT_EQ(pFolder->List(Path(u"new/d"), 9), Names{"a.txt"}) << "the part is hidden";
        // Another agent's clean-up leaves what is in work.
        std::string strError;
        agent::CDeviceFolder::Open((base / "root").string(), {}, strError)->RemoveLeftovers();
        EXPECT_EQ(pPart->Write(Bytes(1)), EResult::SUCCESS);
        EXPECT_EQ(Tree().size(), 6U);
    }
    EXPECT_EQ(Get(u"new/d/a.txt"), (Bytes{1, 2})) << "given up, the old file stays";
    EXPECT_EQ(Tree(), (Names{"in", "in/card", "new", "new/d", "new/d/a.txt"}));

    // Read-only, a folder, or a storage in the way.
    fs::permissions(base / "root/new/d/a.txt", fs::perms::owner_read);
    for (const char16_t* lpszTarget : {u"new/d/a.txt", u"new/d", u"Card", u"new/d/a.txt/x", u""}) {
        EXPECT_EQ(Put(lpszTarget, {3}), EResult::REFUSED);
    }
    EXPECT_TRUE(pFolder->Find(Path(u"new/d/a.txt"))->bReadOnly);
    EXPECT_EQ(pFolder->Remove(Path(u"new/d/a.txt")), EResult::REFUSED);

    // What was left behind goes, wherever it lies, and nothing else.
    fs::create_directory(base / "root/in/card/.dak-9.part");
    std::ofstream(base / "root/in/card/.dak-9.part/x") << "x";
    std::ofstream(base / "root/new/.DAK-8.part") << "x";
    Open({});
    EXPECT_EQ(Tree(), (Names{"in", "in/card", "new", "new/d", "new/d/a.txt"}));
}

TEST_F(CFolderTest, CopiesAndMoves) {
    ASSERT_EQ(Put(u"t/a", {1}, {0, 132'000'000'001'234'567}), EResult::SUCCESS);
    ASSERT_EQ(Put(u"t/s/b", {2}), EResult::SUCCESS);
    ASSERT_EQ(Put(u"f", {3}), EResult::SUCCESS);
    ASSERT_EQ(Put(u"ro", {4}), EResult::SUCCESS);
    fs::permissions(base / "root/ro", fs::perms::owner_read);
    struct CStep {
        bool bMove;
        const char16_t* lpszFrom;
        const char16_t* lpszTo;
        bool bDone;
    };
    const CStep steps[] = {
        {false, u"t", u"T", false}, // onto itself, in other letters
        {false, u"t", u"t/s/in", false}, {false, u"t/s", u"t", false},
        {false, u"t", u"f", false},      {false, u"f", u"t", false},
        {false, u"f", u"ro", false},     {false, u"f", u"none/x", false},
        {false, u"none", u"x", false},   {false, u"f", u"Card", false},
        {false, u"t", u"in", false}, // holds a storage
        {true, u"in", u"out", false},    {true, u"Card", u"x", false},
        {true, u"t", u"t/s/in", false},  {true, u"f", u"f", false},
        {true, u"f", u"ro", false},      {true, u"f", u"none/x", false},
        {true, u"f", u"F", true},        {false, u"ro", u"c", true},
        {false, u"t", u"Card/t", true},  {true, u"t/s", u"s", true},
        {false, u"t", u"Card/t", true}, // in place of the folder with all that is in it
        {true, u"Card/t", u"u", true},
    };
    for (const CStep& step : steps) {
        EXPECT_EQ(step.bMove ? Move(step.lpszFrom, step.lpszTo) : Copy(step.lpszFrom, step.lpszTo),
                  step.bDone ? EResult::SUCCESS : EResult::REFUSED)
            << agent::ToUtf8(step.lpszFrom).value() << " to " << agent::ToUtf8(step.lpszTo).value();
    }
    EXPECT_EQ(Copy(u"f", u"s/b", true), EResult::REFUSED);
    EXPECT_EQ(Tree(), (Names{"F", "c", "in", "in/card", "ro", "s", "s/b", "t", "t/a", "u", "u/a"}));
    EXPECT_TRUE(pFolder->Find(Path(u"c"))->bReadOnly);
    EXPECT_EQ(pFolder->Find(Path(u"u/a"))->times.ftLastWrite, 132'000'000'001'234'567U);
    EXPECT_EQ(Get(u"s/b"), Bytes{2});
}

TEST_F(CFolderTest, HandlesOpenAndShareAsTheirModesSay) {
    using EExisting = COpenMode::EExisting;
    using EMissing = COpenMode::EMissing;
    ASSERT_EQ(Put(u"ro", {1, 2}), EResult::SUCCESS);
    fs::permissions(base / "root/ro", fs::perms::owner_read);
    const struct {
        const char16_t* lpszPath;
        bool bWrite;
        EMissing eMissing;
        EExisting eExisting;
        std::optional<std::uint64_t> qwSize; // nothing: refused
    } opens[] = {
        {u"f", false, EMissing::REFUSE, EExisting::KEEP, {}},
        {u"f", true, EMissing::MAKE, EExisting::REFUSE, 0},
        {u"f", true, EMissing::MAKE, EExisting::REFUSE, {}},
        {u"f", false, EMissing::REFUSE, EExisting::KEEP, 2}, // what each open for writing writes
        {u"f", false, EMissing::REFUSE, EExisting::EMPTY, 0},
        {u"ro", false, EMissing::REFUSE, EExisting::KEEP, 2},
        {u"ro", true, EMissing::REFUSE, EExisting::KEEP, {}},
        {u"ro", false, EMissing::REFUSE, EExisting::EMPTY, {}},
        {u"in", false, EMissing::MAKE, EExisting::KEEP, {}},
        {u"Card", false, EMissing::MAKE, EExisting::KEEP, {}},
        {u"none/f", true, EMissing::MAKE, EExisting::KEEP, {}},
    };
    for (const auto& open : opens) {
        SCOPED_TRACE(&open - opens);
        std::unique_ptr<agent::COpenFile> pFile;
        const COpenMode mode = {.bRead = true,
                                .bWrite = open.bWrite,
                                .eMissing = open.eMissing,
                                .eExisting = open.eExisting};
        EXPECT_EQ(pFolder->OpenFile(Path(open.lpszPath), mode, pFile),
                  open.qwSize ? EResult::SUCCESS : EResult::REFUSED);
        EXPECT_EQ(pFile ? pFile->Size() : std::nullopt, open.qwSize);
        EXPECT_EQ(pFile ? pFile->Write(0, Bytes{1, 2}) : EResult::SUCCESS,
                  pFile && !open.bWrite ? EResult::REFUSED : EResult::SUCCESS);
    }
    // Each kind of use and of sharing against each.
    for (unsigned nBits = 0; nBits < 256; ++nBits) {
        const auto mode = [nBits](unsigned n) {
            return COpenMode{.bRead = (nBits >> n & 1) != 0,
                             .bWrite = (nBits >> n & 2) != 0,
                             .bShareRead = (nBits >> n & 4) != 0,
                             .bShareWrite = (nBits >> n & 8) != 0};
        };
        const COpenMode a = mode(0);
        const COpenMode b = mode(4);
        std::unique_ptr<agent::COpenFile> pFirst;
        std::unique_ptr<agent::COpenFile> pSecond;
        ASSERT_EQ(pFolder->OpenFile(Path(u"f"), a, pFirst), EResult::SUCCESS);
        const bool bAllowed = (!b.bRead || a.bShareRead) && (!b.bWrite || a.bShareWrite) &&
                              (!a.bRead || b.bShareRead) && (!a.bWrite || b.bShareWrite);
        EXPECT_EQ(pFolder->OpenFile(Path(u"F"), b, pSecond),
                  bAllowed ? EResult::SUCCESS : EResult::REFUSED)
            << nBits;
        EXPECT_TRUE(Get(u"f")) << "what is not open by handle is not held off";
    }
    // A hole counts, and reads as zeroes.
    Open(100);
    std::unique_ptr<agent::COpenFile> pFile;
    ASSERT_EQ(pFolder->OpenFile(Path(u"f"), {.bRead = true, .bWrite = true}, pFile),
              EResult::SUCCESS);
    EXPECT_EQ(pFile->Write(98, Bytes{1}), EResult::NO_SPACE);
    EXPECT_EQ(pFile->Size(), 0U);
    EXPECT_EQ(pFile->Write(97, Bytes{1}), EResult::SUCCESS);
    Bytes data(200, 7);
    EXPECT_EQ(pFile->Read(0, data), 98U);
    EXPECT_EQ(std::count(data.begin(), data.begin() + 97, 0), 97);
    EXPECT_EQ(Put(u"g", {1}), EResult::NO_SPACE);
    EXPECT_EQ(Copy(u"ro", u"g"), EResult::NO_SPACE);
    EXPECT_EQ(Tree(), (Names{"f", "in", "in/card", "ro"}));
}

// The system neither deletes nor replaces a file that is open; the device does.
TEST_F(CFolderTest, OpenFilesThatAreTakenAway) {
    COpenMode mode;
    mode.bRead = mode.bWrite = mode.bShareRead = mode.bShareWrite = true;
    const std::function<EResult()> ways[] = {
        [this] { return pFolder->Remove(Path(u"Card/f")); },
        [this] {
            return Put(u"Card/f", {9, 9});
        },
        [this] { return Copy(u"g", u"Card/f"); },
        [this] { return pFolder->Format(Path(u"Card")); },
    };
    for (const std::function<EResult()>& lpTakeAway : ways) {
        ASSERT_EQ(Put(u"g", {9, 9}), EResult::SUCCESS);
        ASSERT_EQ(Put(u"Card/f", {1, 2, 3}), EResult::SUCCESS);
        Open(100);
        const std::uint64_t qwFree = pFolder->SpaceOf(Path(u""))->qwFree;
        std::unique_ptr<agent::COpenFile> pFile;
        ASSERT_EQ(pFolder->OpenFile(Path(u"Card/f"), mode, pFile), EResult::SUCCESS);
        ASSERT_EQ(lpTakeAway(), EResult::SUCCESS);
        EXPECT_NE(Get(u"Card/f"), (Bytes{1, 2, 3}));
        Bytes data(9);
        EXPECT_EQ(pFile->Read(1, data), 2U);
        EXPECT_EQ(pFile->Write(0, Bytes{7}), EResult::REFUSED);
        EXPECT_EQ(pFile->Close(), EResult::SUCCESS);
        EXPECT_EQ(pFolder->SpaceOf(Path(u""))->qwFree,
                  qwFree + 3 - Get(u"Card/f").value_or(Bytes()).size());
        pFile.reset();
        EXPECT_EQ(Tree().size(), Get(u"Card/f") ? 4U : 3U) << "it went with its handle";
    }
}

TEST_F(CFolderTest, AFormatLeavesStoragesAndTakesTheRest) {
    ASSERT_EQ(Put(u"in/x/y", {1}), EResult::SUCCESS);
    ASSERT_EQ(Put(u"ro", {1}), EResult::SUCCESS);
    ASSERT_EQ(Put(u"Card/f", {1}), EResult::SUCCESS);
    fs::permissions(base / "root/ro", fs::perms::owner_read);
    for (const char16_t* lpszOther : {u"in", u"ro", u"none", u"in/card"}) {
        EXPECT_EQ(pFolder->Format(Path(lpszOther)), EResult::REFUSED);
    }
    EXPECT_EQ(pFolder->Format(Path(u"")), EResult::SUCCESS);
    EXPECT_EQ(Tree(), (Names{"in", "in/card", "in/card/f"}));
    EXPECT_EQ(pFolder->Format(Path(u"card")), EResult::SUCCESS);
    EXPECT_EQ(Tree(), (Names{"in", "in/card"}));
    std::string strError;
    ASSERT_TRUE(pFolder->AddStorage("Twice", (base / "root").string(), strError));
    EXPECT_EQ(pFolder->Format(Path(u"")), EResult::REFUSED) << "served under two names";
}

TEST_F(CFolderTest, ProgramsRunInTheRoot) {
    char szSystem[MAX_PATH];
    ASSERT_NE(::GetSystemDirectoryA(szSystem, MAX_PATH), 0U);
    agent::CDeviceOptions options;
    options.system.execPaths = {szSystem};
    options.system.messageCommands = {"cmd /c echo %DAK_MESSAGE_NAME%>'" +
                                      (base / "root" / "said").string() + "'"};
    std::string strError;
    const auto pPrograms = agent::CDeviceProcesses::Open(options, *pFolder, strError);
    ASSERT_TRUE(pPrograms) << strError;
    const auto statusOf = [&](std::u16string_view strPath, bool bBareName,
                              const std::vector<std::string>& arguments) {
        const auto pState = pPrograms->StartProgram(Path(strPath), bBareName, arguments);
        for (int i = 0; pState && !pState->bEnded && i < 2000; ++i) {
            ::Sleep(10);
            pPrograms->Tick(0);
        }
        return pState && pState->bEnded ? std::optional(pState->dwStatus) : std::nullopt;
    };
    EXPECT_EQ(statusOf(u"cmd.exe", true, {"/c", "exit", "7"}), 7U);
    EXPECT_EQ(statusOf(u"cmd.exe", true, {"/c", "echo", "x>told"}), 0U);
    EXPECT_EQ(Tree(), (Names{"in", "in/card", "told"})) << "the root is its folder";
    EXPECT_FALSE(pPrograms->DueMs(0)) << "none is left";
    pPrograms->StartMessageCommands({{"DAK_MESSAGE_NAME", "first"}});
    for (int i = 0; pPrograms->DueMs(0) && i < 2000; ++i) {
        ::Sleep(10);
        pPrograms->Tick(0);
    }
    EXPECT_EQ(Get(u"said").value_or(Bytes()), (Bytes{'f', 'i', 'r', 's', 't', '\r', '\n'}));
    EXPECT_FALSE(statusOf(u"cmd.exe", false, {}));
    EXPECT_FALSE(statusOf(u"told", true, {}));
    EXPECT_FALSE(statusOf(u"none.exe", true, {}));
}

} // namespace
