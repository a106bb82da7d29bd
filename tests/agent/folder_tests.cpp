// The device's folder on a POSIX file system, by its contract; and what only a file system shows:
// permissions, links, what killed agents leave, full disks, another file system.
#include <array>
#include <random>
#include <set>
#include <sstream>

#include <csignal>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "agent/device.h"
#include "agent/posix/system_file.h"
#include "tests/support/temp_folder.h"

// The system's own calls, with a full disk and a mount that no test could count on making.
static int s_nFullFor = 0;        // folders that find no room
static ino_t s_mounted = 0;       // seems to be a mount's root
static bool s_bOldKernel = false; // which cannot tell a mount's root
extern "C" int mkdirat(int fd, const char* lpszPath, mode_t mode) {
    if (s_nFullFor > 0) {
        --s_nFullFor;
        errno = ENOSPC;
        return -1;
    }
    return static_cast<int>(::syscall(SYS_mkdirat, fd, lpszPath, mode));
}
static bool s_bPlainUser = false; // folders that may not be written keep their parent
static ino_t s_fixed = 0;         // can be moved by nobody
extern "C" int renameat2(int fdOld, const char* lpszOld, int fdNew, const char* lpszNew,
                         unsigned nFlags) {
    struct stat status {};
    const bool bThere = ::fstatat(fdOld, lpszOld, &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (bThere && ((s_bPlainUser && S_ISDIR(status.st_mode) && (status.st_mode & 0200) == 0) ||
                   status.st_ino == s_fixed)) {
        errno = EACCES;
        return -1;
    }
    return static_cast<int>(::syscall(SYS_renameat2, fdOld, lpszOld, fdNew, lpszNew, nFlags));
}
static bool s_bReadFails = false; // of folders
extern "C" dirent* readdir(DIR* lpDir) {
    static const auto s_lpReal =
        reinterpret_cast<decltype(&::readdir)>(::dlsym(RTLD_NEXT, "readdir"));
    errno = s_bReadFails ? EIO : errno;
    return s_bReadFails ? nullptr : s_lpReal(lpDir);
}
extern "C" int statx(int fd, const char* lpszPath, int nFlags, unsigned nMask,
                     struct statx* lpStatus) {
    const auto nResult =
        static_cast<int>(::syscall(SYS_statx, fd, lpszPath, nFlags, nMask, lpStatus));
    if (nResult == 0 && s_mounted != 0 && lpStatus->stx_ino == s_mounted) {
        lpStatus->stx_attributes |= STATX_ATTR_MOUNT_ROOT;
    }
    if (nResult == 0 && s_bOldKernel) {
        lpStatus->stx_attributes &= ~std::uint64_t{STATX_ATTR_MOUNT_ROOT};
        lpStatus->stx_attributes_mask &= ~std::uint64_t{STATX_ATTR_MOUNT_ROOT};
    }
    return nResult;
}

namespace test {
namespace {

namespace fs = std::filesystem;
using agent::COpenMode;
using agent::EResult;
constexpr std::uint64_t QUOTA = 100'000;

agent::CDevicePath At(const std::string& strPath) {
    return *agent::CDevicePath::Parse(*agent::ToUtf16(strPath));
}
std::span<const std::uint8_t> BytesOf(const std::string& strText) {
    return {reinterpret_cast<const std::uint8_t*>(strText.data()), strText.size()};
}

struct CWorld {
    CWorld() {
        fs::create_directories(root / "d");
        fs::create_directories(root / "In");
        fs::create_directories(base / "card");
        base.Write("outside.txt", "outside");
        Open();
    }

    // A new agent on the same files.
    void Open(std::optional<std::uint64_t> qwQuota = QUOTA) {
        pFolder.reset();
        std::string strError;
        pFolder = agent::CDeviceFolder::Open(root.string(), {}, strError);
        ASSERT_TRUE(pFolder) << strError;
        for (const auto& [strName, strFolder] : storages) {
            ASSERT_TRUE(pFolder->AddStorage(strName, base.Path(strFolder), strError)) << strError;
        }
        pFolder->RemoveLeftovers(bMayFormat);
        if (qwQuota) {
            pFolder->SetQuota(*qwQuota);
        }
    }
    void Work(bool bIdle = true) {
        for (int i = 0; i < 100'000 && pFolder->HasWork(bIdle); ++i) {
            pFolder->Work(bIdle, {});
        }
        EXPECT_FALSE(pFolder->HasWork(bIdle));
    }
    static EResult RunAll(std::unique_ptr<agent::CFolderWork> pWork) {
        std::optional<EResult> eResult = pWork ? std::nullopt : std::optional(EResult::REFUSED);
        while (!eResult) {
            eResult = pWork->Step({});
        }
        return *eResult;
    }
    EResult Copy(const std::string& strFrom, const std::string& strTo, bool bFailIfExists = false) {
        return RunAll(pFolder->BeginCopy(At(strFrom), At(strTo), bFailIfExists));
    }
    EResult Move(const std::string& strFrom, const std::string& strTo) {
        return RunAll(pFolder->BeginMove(At(strFrom), At(strTo)));
    }
    EResult Put(const std::string& strPath, const std::string& strBytes,
                const agent::CFileTimes& times = {}) {
        std::unique_ptr<agent::CPartFile> pPart;
        EResult eResult = pFolder->BeginPart(At(strPath), strBytes.size(), pPart);
        eResult = pPart ? pPart->Write(BytesOf(strBytes)) : eResult;
        eResult = eResult == EResult::SUCCESS ? pPart->Complete(times) : eResult;
        pPart.reset();
        pFolder->EndParts();
        return eResult;
    }
    // Verbs and their paths, one behind the other; for each y (done), f (no space) or n (refused).
    std::string Do(const std::string& strScript) {
        std::istringstream words(strScript);
        std::string strDid;
        for (std::string strVerb, strA, strB; words >> strVerb >> strA;) {
            const bool bTwo = strVerb != "mkdir" && strVerb != "rm" && strVerb != "format";
            bTwo ? words >> strB : words;
            strA = strA == "/" ? "" : strA;
            const EResult eResult = strVerb == "put"       ? Put(strA, strB)
                                    : strVerb == "copy"    ? Copy(strA, strB)
                                    : strVerb == "copynew" ? Copy(strA, strB, true)
                                    : strVerb == "move"    ? Move(strA, strB)
                                    : strVerb == "mkdir"   ? pFolder->MakeFolder(At(strA))
                                    : strVerb == "rm"      ? pFolder->Remove(At(strA))
                                                           : RunAll(pFolder->BeginFormat(At(strA)));
            strDid += "yfn"[static_cast<int>(eResult)];
        }
        return strDid;
    }
    // Files ("path=bytes"), folders ("path/"), links ("path>target") and permissions ("path:444").
    void Lay(const std::string& strThings) const {
        std::istringstream words(strThings);
        for (std::string strWord; words >> strWord;) {
            const std::size_t dwMark = strWord.find_first_of("=>:");
            const fs::path path = base / strWord.substr(0, dwMark);
            const std::string strRest =
                dwMark == std::string::npos ? "" : strWord.substr(dwMark + 1);
            if (dwMark == std::string::npos) {
                fs::create_directories(path);
            } else if (strWord[dwMark] == '=') {
                base.Write(strWord.substr(0, dwMark), strRest);
            } else if (strWord[dwMark] == '>') {
                fs::create_symlink(strRest, path);
            } else {
                fs::permissions(path, static_cast<fs::perms>(std::stoul(strRest, nullptr, 8)));
            }
        }
    }
    std::unique_ptr<agent::COpenFile> Handle(const std::string& strPath, const COpenMode& mode) {
        std::unique_ptr<agent::COpenFile> pFile;
        const EResult eResult = pFolder->OpenFile(At(strPath), mode, pFile);
        EXPECT_EQ(eResult == EResult::SUCCESS, pFile != nullptr);
        return pFile;
    }
    std::uint64_t Free() { return pFolder->SpaceOf(At("")).value().qwFree; }

    // What a pull would find in a folder, sorted. Nothing when it cannot be read to its end.
    std::optional<std::vector<std::string>> List(const agent::CDevicePath& path) {
        using enum agent::CFolderScan::ENext;
        const auto pScan = pFolder->Scan(path);
        std::set<std::string> names;
        std::string strName;
        for (auto eNext = pScan ? pScan->Next(strName) : FAILED; eNext != END;
             eNext = pScan->Next(strName)) {
            if (eNext == FAILED) {
                return std::nullopt;
            }
            eNext == NAME ? names.insert(strName).second : false;
        }
        return std::vector(names.begin(), names.end());
    }
    // What the host sees below a folder: files with their bytes, folders with a slash behind.
    void See(const std::string& strFolder, TREE& seen) {
        const auto names = List(At(strFolder));
        ASSERT_TRUE(names) << strFolder;
        for (const std::string& strName : *names) {
            const std::string strPath = strFolder.empty() ? strName : strFolder + "/" + strName;
            const auto info = pFolder->Find(At(strPath));
            if (info && info->bFolder) {
                seen[strPath + "/"];
                See(strPath, seen);
            } else if (const auto pSource = pFolder->OpenSource(At(strPath))) {
                std::string strBytes(info->qwSize + 1, '\0');
                strBytes.resize(pSource->Read(
                    {reinterpret_cast<std::uint8_t*>(strBytes.data()), strBytes.size()}));
                seen[strPath] = strBytes;
            }
        }
    }
    TREE Seen() {
        TREE seen;
        See("", seen);
        return seen;
    }
    // What lies on the disk, links as what they say.
    TREE Disk(const std::string& strBelow = {}) const {
        TREE disk;
        const fs::path folder = strBelow.empty() ? base.Folder() : base / strBelow;
        for (const auto& entry : fs::recursive_directory_iterator(folder)) {
            disk[NameOf(entry.path().lexically_relative(folder))] =
                entry.is_symlink()        ? "-> " + fs::read_symlink(entry.path()).string()
                : entry.is_regular_file() ? ReadBytes(entry.path())
                                          : "/";
        }
        return disk;
    }
    void ExpectNothingOwn() const {
        for (const auto& [strPath, strBytes] : Disk()) {
            EXPECT_EQ(strPath.find(".dak-"), std::string::npos) << strPath;
        }
    }

    const CTempFolder base;
    const fs::path root = base / "root";
    std::vector<std::pair<std::string, std::string>> storages = {{"Card", "card"},
                                                                 {"In", "root/In"}};
    bool bMayFormat = true;
    std::unique_ptr<agent::CDeviceFolder> pFolder;
};

class Folder : public CWorld, public testing::Test {};

// Random work of all kinds, cut short, in the background and by new agents, beside a model of what
// the host should see.
class Model : public CWorld, public testing::TestWithParam<unsigned> {
  protected:
    bool IsFolder(const std::string& strPath) const {
        return strPath.empty() || model.contains(strPath + "/");
    }
    bool Exists(const std::string& strPath) const {
        return IsFolder(strPath) || model.contains(strPath);
    }
    static std::string Parent(const std::string& strPath) {
        return strPath.substr(0, strPath.find('/') == std::string::npos ? 0 : strPath.rfind('/'));
    }
    static bool Fixed(const std::string& strPath) {
        return strPath.empty() || strPath == "Card" || strPath == "In";
    }
    static bool LiesIn(const std::string& strPath, const std::string& strFolder) {
        return strPath == strFolder || strPath.starts_with(strFolder + "/");
    }
    bool MayPut(const std::string& strPath) const {
        return !Fixed(strPath) && IsFolder(Parent(strPath));
    }
    TREE Below(const std::string& strPath) const {
        TREE below;
        for (const auto& each : model) {
            if (LiesIn(each.first, strPath)) {
                below.insert(each);
            }
        }
        return below;
    }
    static std::uint64_t Bytes(const TREE& tree) {
        std::uint64_t qwBytes = 0;
        for (const auto& [strPath, strBytes] : tree) {
            qwBytes += strBytes.size();
        }
        return qwBytes;
    }
    void Take(const std::string& strFrom, const std::string& strTo, bool bMove) {
        const TREE tree = Below(strFrom);
        Drop(strTo);
        if (bMove) {
            Drop(strFrom);
        }
        for (const auto& [strPath, strBytes] : tree) {
            model[strTo + strPath.substr(strFrom.size())] = strBytes;
        }
    }
    void Drop(const std::string& strPath) {
        std::erase_if(model, [&](const auto& each) { return LiesIn(each.first, strPath); });
    }
    std::string AnyPath() {
        static const std::array<std::string, 3> s_tops = {"", "Card/", "In/"};
        static const std::array<std::string, 4> s_names = {"a", "b", "p", "q"};
        std::string strPath = s_tops[random() % 3];
        for (auto nDepth = random() % 3; nDepth > 0; --nDepth) {
            strPath += s_names[2 + random() % 2] + "/";
        }
        return random() % 20 == 0 && strPath.size() > 2 ? strPath.substr(0, strPath.size() - 1)
                                                        : strPath + s_names[random() % 4];
    }
    void Step();

    TREE model = {{"Card/", ""}, {"In/", ""}, {"d/", ""}};
    std::mt19937 random;
};

void Model::Step() {
    const std::string strPath = AnyPath();
    const std::string strTo = AnyPath();
    const std::uint64_t qwFree = Free();
    const std::string strBytes(random() % 4000, static_cast<char>('a' + random() % 26));
    const bool bFile = Exists(strPath) && !IsFolder(strPath);
    EResult eWanted = EResult::REFUSED;
    EResult eResult = EResult::REFUSED;
    const auto nWhat = random() % 20;
    if (nWhat < 5) {
        std::string strAbove = Parent(strPath);
        while (!Exists(strAbove)) {
            strAbove = Parent(strAbove);
        }
        if (!Fixed(strPath) && IsFolder(strAbove) && !IsFolder(strPath)) {
            eWanted = strBytes.size() <= qwFree ? EResult::SUCCESS : EResult::NO_SPACE;
        } else if (!Fixed(strPath) && strBytes.size() > qwFree) {
            eWanted = EResult::NO_SPACE;
        }
        std::unique_ptr<agent::CPartFile> pPart;
        eResult = pFolder->BeginPart(At(strPath), strBytes.size(), pPart);
        if (pPart && eResult == EResult::SUCCESS) {
            for (std::string strNext = Parent(strPath); !strNext.empty();
                 strNext = Parent(strNext)) {
                model[strNext + "/"];
            }
            const std::size_t dwFirst = random() % (strBytes.size() + 1);
            EXPECT_EQ(pPart->Write(BytesOf(strBytes.substr(0, dwFirst))), EResult::SUCCESS);
            if (random() % 4 != 0) {
                EXPECT_EQ(pPart->Write(BytesOf(strBytes.substr(dwFirst))), EResult::SUCCESS);
                EXPECT_EQ(pPart->Complete({}), EResult::SUCCESS);
                model[strPath] = strBytes;
            }
        }
        pPart.reset();
        pFolder->EndParts();
    } else if (nWhat < 8) {
        COpenMode mode{.bRead = random() % 2 == 0,
                       .bWrite = true,
                       .bShareRead = false,
                       .bShareWrite = false,
                       .eMissing = static_cast<COpenMode::EMissing>(random() % 2),
                       .eExisting = static_cast<COpenMode::EExisting>(random() % 3)};
        if (MayPut(strPath) && !IsFolder(strPath) &&
            (bFile ? mode.eExisting != COpenMode::EExisting::REFUSE
                   : mode.eMissing == COpenMode::EMissing::MAKE)) {
            eWanted = EResult::SUCCESS;
        }
        std::unique_ptr<agent::COpenFile> pFile;
        eResult = pFolder->OpenFile(At(strPath), mode, pFile);
        if (pFile && eResult == EResult::SUCCESS) {
            std::string& strNow = model[strPath];
            strNow = mode.eExisting == COpenMode::EExisting::EMPTY ? "" : strNow;
            const std::size_t dwAt = random() % 2000;
            const std::size_t dwEnd = strBytes.empty() ? 0 : dwAt + strBytes.size();
            const bool bRoom = dwEnd <= strNow.size() || dwEnd - strNow.size() <= Free();
            EXPECT_EQ(pFile->Write(dwAt, BytesOf(strBytes)),
                      bRoom ? EResult::SUCCESS : EResult::NO_SPACE);
            if (bRoom && dwEnd > 0) {
                strNow.resize(std::max(strNow.size(), dwEnd));
                strNow.replace(dwAt, strBytes.size(), strBytes);
            }
            EXPECT_EQ(pFile->Size(), strNow.size());
            EXPECT_EQ(pFile->Close(), EResult::SUCCESS);
        }
    } else if (nWhat < 10) {
        eResult = pFolder->MakeFolder(At(strPath));
        if (MayPut(strPath) && !Exists(strPath)) {
            eWanted = EResult::SUCCESS;
            model[strPath + "/"];
        }
    } else if (nWhat < 12) {
        eResult = pFolder->Remove(At(strPath));
        if (!Fixed(strPath) && Exists(strPath) && Below(strPath).size() == 1) {
            eWanted = EResult::SUCCESS;
            Drop(strPath);
        }
    } else if (nWhat < 15) {
        const bool bFail = random() % 3 == 0;
        const bool bGivesUp = random() % 5 == 0;
        if (MayPut(strTo) && Exists(strPath) && !(IsFolder(strPath) && LiesIn(strTo, strPath)) &&
            strTo != strPath &&
            (!Exists(strTo) ||
             (!bFail && IsFolder(strTo) == IsFolder(strPath) && !LiesIn(strPath, strTo)))) {
            eWanted = Bytes(Below(strPath)) <= qwFree ? EResult::SUCCESS : EResult::NO_SPACE;
        }
        auto pWork = pFolder->BeginCopy(At(strPath), At(strTo), bFail);
        if (bGivesUp && pWork && eWanted == EResult::SUCCESS) {
            EXPECT_EQ(pWork->Step({}), std::nullopt);
            pWork.reset();
            eResult = eWanted;
        } else {
            eResult = RunAll(std::move(pWork));
            if (eResult == EResult::SUCCESS) {
                Take(strPath, strTo, false);
            }
        }
        pFolder->EndParts();
    } else if (nWhat < 17) {
        eResult = Move(strPath, strTo);
        if (MayPut(strTo) && !Fixed(strPath) && Exists(strPath) && !Exists(strTo) &&
            !LiesIn(strTo, strPath)) {
            eWanted = EResult::SUCCESS;
            Take(strPath, strTo, true);
        }
    } else if (nWhat == 17) {
        const std::array<std::string, 3> served = {"", "Card", "In"};
        const std::string& strServed = served[random() % 3];
        eResult = RunAll(pFolder->BeginFormat(At(strServed)));
        eWanted = EResult::SUCCESS;
        std::erase_if(model, [&](const auto& each) {
            const std::string strTop = each.first.substr(0, each.first.find('/'));
            return strServed.empty()
                       ? !Fixed(strTop)
                       : LiesIn(each.first, strServed) && each.first != strServed + "/";
        });
    } else {
        eResult = eWanted;
        if (nWhat == 18) {
            pFolder->Work(random() % 2 == 0, {});
        } else {
            Open();
        }
    }
    ASSERT_EQ(eResult, eWanted) << nWhat << " " << strPath << " " << strTo << " " << strBytes.size()
                                << " of " << qwFree;
    ASSERT_EQ(Seen(), model) << nWhat << " " << strPath << " " << strTo;
    ASSERT_LE(Free(), QUOTA - Bytes(model)) << nWhat << " " << strPath << " " << strTo;
    ASSERT_TRUE(pFolder->HasWork(true) || Free() == QUOTA - Bytes(model))
        << nWhat << " " << strPath << " " << strTo;
}

TEST_P(Model, IsWhatTheHostSees) {
    random.seed(GetParam());
    for (int nStep = 0; nStep < 200 && !HasFatalFailure(); ++nStep) {
        Step();
    }
    Work();
    ExpectNothingOwn();
}
INSTANTIATE_TEST_SUITE_P(Seed, Model, testing::Range(1U, 13U));

// What each operation may do at a path, one letter for each that succeeds; what is refused changes
// nothing.
TEST(FolderPaths, AgainstOperations) {
    struct CPaths : CWorld {
        CPaths() {
            Lay("root/far/");
            storages.push_back({"Far", "root/far"});
            Open();
            Lay("root/d/f=f root/d/sub/x=x root/ro=ro root/ro:444 root/locked/y=y root/locked:555 "
                "root/.dak-x=own "
                "card/c=c root/empty/ root/link>d/f root/same>d root/out>../outside.txt "
                "root/abs>/etc/passwd "
                "root/dangling>none root/up>..");
            EXPECT_EQ(::mkfifo((root / "fifo").c_str(), 0600), 0);
        }
        bool Does(char chWhat, const std::string& strPath) {
            const agent::CDevicePath path = At(strPath);
            const auto does = [&](const std::string& strVerb) {
                std::string strScript = strVerb;
                return Do(strScript.replace(strScript.find('@'), 1,
                                            strPath.empty() ? "/" : strPath)) == "y";
            };
            const auto opens = [&](bool bWrite, COpenMode::EMissing eMissing,
                                   COpenMode::EExisting eExisting) {
                COpenMode mode{.bRead = true, .bWrite = bWrite};
                mode.eMissing = eMissing;
                mode.eExisting = eExisting;
                return Handle(strPath, mode) != nullptr;
            };
            using M = COpenMode::EMissing;
            using E = COpenMode::EExisting;
            return chWhat == 'i'   ? pFolder->Find(path).has_value()
                   : chWhat == 'l' ? pFolder->Scan(path) && List(path)
                   : chWhat == 's' ? pFolder->OpenSource(path) != nullptr
                   : chWhat == '$' ? pFolder->SpaceOf(path).has_value()
                   : chWhat == 'r' ? opens(false, M::REFUSE, E::KEEP)
                   : chWhat == 'w' ? opens(true, M::REFUSE, E::KEEP)
                   : chWhat == 'e' ? opens(false, M::REFUSE, E::EMPTY)
                   : chWhat == 'n' ? opens(true, M::MAKE, E::REFUSE)
                   : chWhat == 'p' ? does("put @ new")
                   : chWhat == 'k' ? does("mkdir @")
                   : chWhat == 'd' ? does("rm @")
                   : chWhat == 'c' ? does("copy @ new")
                   : chWhat == 'C' ? does("copy d/sub/x @")
                   : chWhat == 'T' ? does("copy d/sub @")
                   : chWhat == 'm' ? does("move @ new")
                   : chWhat == 'M' ? does("move d/sub @")
                                   : does("format @");
        }
    };
    std::istringstream rows(
        "/ il$X far il$c d il$cm d/f isrwepdcCm d/sub il$cm empty il$dcTm Card il$cX Card/c "
        "isrwepdcCm "
        "In il$cX ro isrcm locked il$cTm locked/y isrwedcm locked/z k link isrwepdcCm "
        "same il$pdcCm same/f isrwepdcCm out pdCm abs pdCm dangling pdCm up pdCm "
        "up/outside.txt - up/z - fifo - none npkCTM none/z p d/f/z -");
    for (std::string strPath, strMay; rows >> strPath >> strMay;) {
        std::string strDoes;
        auto pWorld = std::make_unique<CPaths>();
        const TREE before = pWorld->Disk();
        for (const char chWhat : std::string("ils$rwenpkdcCTmMX")) {
            if (pWorld->Does(chWhat, strPath == "/" ? "" : strPath)) {
                strDoes += chWhat;
                EXPECT_EQ(ReadBytes(pWorld->base / "outside.txt"), "outside");
                pWorld = std::make_unique<CPaths>();
            } else {
                EXPECT_EQ(pWorld->Disk(), before) << strPath << " " << chWhat;
            }
        }
        EXPECT_EQ(strDoes.empty() ? "-" : strDoes, strMay) << strPath;
    }
}

// What travels with a file or folder: times, permissions, links.
TEST_F(Folder, WhatAFileBringsAndHandsOn) {
    base.Write("root/t/sub/large", std::string(300'000, 'x'));
    base.Write("root/huge", std::string(17 << 20, 'h'));
    Lay("root/t/sub/deep/ro=ro root/t/.dak-foreign=own root/d/old=old root/t/empty/ "
        "root/t/link>sub/large "
        "root/t/sub/deep/ro:444 root/t/sub/deep:750 root/d/old:640 root/place/more/than/this=x");
    const auto tTime = fs::file_time_type(std::chrono::seconds(12345));
    fs::last_write_time(root / "t/sub/large", tTime);
    fs::last_write_time(root / "t/sub", tTime);
    Open({});
    TREE tree = Disk("root/t");
    tree.erase(".dak-foreign");
    EXPECT_EQ(Do("copy t copy copynew t place copy t place move place Card/moved"), "ynyy");
    for (const std::string strBelow : {"root/copy", "card/moved"}) {
        EXPECT_TRUE(Disk(strBelow) == tree) << strBelow;
        EXPECT_EQ(fs::status(base / strBelow / "sub/deep/ro").permissions(), fs::perms(0444));
        EXPECT_EQ(fs::status(base / strBelow / "sub/deep").permissions(), fs::perms(0750));
        EXPECT_EQ(fs::last_write_time(base / strBelow / "sub/large"), tTime);
        EXPECT_EQ(fs::last_write_time(base / strBelow / "sub"), tTime);
    }
    // Times of a part, and its target's permissions; those go on to a copy.
    const agent::CFileTimes times{131'000'000'000'000'001, 132'000'000'001'234'567};
    EXPECT_EQ(Put("d/old", "one", times), EResult::SUCCESS);
    EXPECT_EQ(pFolder->Find(At("d/old"))->times.ftLastWrite, times.ftLastWrite);
    EXPECT_EQ(pFolder->Find(At("d/old"))->times.ftCreation, times.ftCreation);
    EXPECT_EQ(fs::status(root / "d/old").permissions(), fs::perms(0640));
    EXPECT_EQ(Do("copy t/sub/deep/ro d/old copy d/old d/old copy t t move d/old d/old"), "ynnn");
    EXPECT_EQ(fs::status(root / "d/old").permissions(), fs::perms(0640));
    // Which content a file has, as it was listed and as it is.
    const auto pSource = pFolder->OpenSource(At("d/old"));
    for (const bool bWritten : {false, true}) {
        const auto listed = pFolder->Find(At("d/old"));
        EXPECT_EQ(pSource->Identity(), listed->qwIdentity);
        fs::last_write_time(root / "d/old", bWritten ? fs::file_time_type::clock::now() : tTime);
        EXPECT_NE(pSource->Identity(), listed->qwIdentity);
    }
    // What cannot be copied ends the whole copy; one that is given up at any moment leaves nothing,
    // however large what there is of it.
    EXPECT_EQ(::mkfifo((root / "t/sub/fifo").c_str(), 0600), 0);
    EXPECT_EQ(Do("copy t copy copy t other"), "nn");
    EXPECT_TRUE(Disk("root/copy") == tree);
    fs::remove(root / "t/sub/fifo");
    fs::remove(root / "t/.dak-foreign");
    const auto before = List(At(""));
    for (const auto& [lpszFrom, nMost] : {std::pair{"t", 1}, {"huge", 3}}) {
        for (int nSteps = 0; nSteps <= nMost; ++nSteps) {
            auto pWork = pFolder->BeginCopy(At(lpszFrom), At("x"), true);
            for (int i = 0; i < nSteps; ++i) {
                EXPECT_FALSE(pWork->Step({}));
            }
        }
    }
    Work();
    EXPECT_EQ(List(At("")), before);
    ExpectNothingOwn();
}

// Handles of one file, also by another name of it; and files whose names are taken away.
TEST_F(Folder, HandlesAndTheirFiles) {
    base.Write("root/d/a", "123");
    fs::create_hard_link(root / "d/a", root / "d/same");
    constexpr COpenMode r{.bRead = true};
    constexpr COpenMode rShareR{.bRead = true, .bShareRead = true};
    constexpr COpenMode rShareW{.bRead = true, .bShareWrite = true};
    constexpr COpenMode wShareR{.bWrite = true, .bShareRead = true};
    constexpr COpenMode wShareAll{.bWrite = true, .bShareRead = true, .bShareWrite = true};
    constexpr COpenMode all{.bRead = true, .bWrite = true, .bShareRead = true, .bShareWrite = true};
    constexpr COpenMode empties{.bRead = true,
                                .bShareRead = true,
                                .bShareWrite = true,
                                .eExisting = COpenMode::EExisting::EMPTY};
    const struct {
        COpenMode first, second;
        bool bBoth;
    } rows[] = {{r, rShareR, false},       {rShareR, rShareR, true},    {rShareR, rShareW, false},
                {rShareR, all, false},     {rShareW, wShareR, true},    {wShareR, rShareW, true},
                {wShareR, rShareR, false}, {wShareAll, wShareR, false}, {wShareR, wShareAll, false},
                {all, all, true},          {rShareR, empties, false},   {empties, rShareR, true}};
    for (const auto& row : rows) {
        base.Write("root/d/a", "123");
        const auto pFirst = Handle("d/a", row.first);
        ASSERT_TRUE(pFirst);
        EXPECT_EQ(Handle("d/same", row.second) != nullptr, row.bBoth) << &row - rows;
        EXPECT_EQ(ReadBytes(root / "d/a").empty(), &row + 1 == std::end(rows)) << &row - rows;
    }
    fs::remove(root / "d/same");
    pFolder->SetQuota(QUOTA);
    std::array<std::uint8_t, 10> data{};
    for (const std::string strEnd :
         {"deleted", "replaced", "copied over", "moved", "trash", "formatted", "still in"}) {
        base.Write("root/d/a", "123");
        base.Write("root/d/c", "new");
        base.Write("root/In/a", "123");
        const auto pFile = Handle(strEnd == "still in" ? "In/a" : "d/a", all);
        ASSERT_TRUE(pFile);
        if (strEnd == "moved" || strEnd == "trash") {
            fs::create_directory(root / ".dak-0-0.trash");
            fs::rename(root / "d/a", root / (strEnd == "moved" ? "d/b" : ".dak-0-0.trash/b"));
        } else {
            EXPECT_EQ(strEnd == "deleted"       ? pFolder->Remove(At("d/a"))
                      : strEnd == "replaced"    ? Put("d/a", "new")
                      : strEnd == "copied over" ? Copy("d/c", "d/a")
                                                : RunAll(pFolder->BeginFormat(At(""))),
                      EResult::SUCCESS);
        }
        EXPECT_EQ(pFile->Read(0, data), 3U) << strEnd;
        EXPECT_EQ(data[2], '3');
        const bool bWrites = strEnd == "moved" || strEnd == "still in";
        EXPECT_EQ(pFile->Write(3, BytesOf("4")), bWrites ? EResult::SUCCESS : EResult::REFUSED)
            << strEnd;
        if (strEnd == "formatted") {
            // A fresh file is written before and behind its moving up.
            const auto pFresh =
                Handle("f", {.bWrite = true, .eMissing = COpenMode::EMissing::MAKE});
            EXPECT_EQ(pFresh->Write(0, BytesOf("1")), EResult::SUCCESS);
            Work();
            EXPECT_EQ(pFresh->Write(1, BytesOf("2")), EResult::SUCCESS);
            EXPECT_EQ(ReadBytes(root / "f"), "12");
        }
        Work();
    }
    // What no handle can read any more gives its room back, whatever becomes of the handle.
    for (const bool bReads : {true, false}) {
        base.Write("root/d/a", "123");
        const agent::CFd fdFile(::open((root / "d/a").c_str(), O_RDONLY | O_CLOEXEC));
        const auto pFile = Handle("d/a", {.bRead = bReads, .bWrite = true});
        EXPECT_EQ(pFolder->Remove(At("d/a")), EResult::SUCCESS);
        struct stat status {};
        EXPECT_EQ(::fstat(fdFile.Get(), &status), 0);
        EXPECT_EQ(status.st_size, bReads ? 3 : 0);
    }
    // The bytes of a file that has another name do not come back.
    pFolder->SetQuota(QUOTA);
    const std::uint64_t qwFree = Free();
    base.Write("root/d/a", "1234");
    pFolder->SetQuota(QUOTA);
    fs::create_hard_link(root / "d/a", base / "twin");
    EXPECT_EQ(pFolder->Remove(At("d/a")), EResult::SUCCESS);
    EXPECT_EQ(Free(), qwFree - 4);
}

TEST_F(Folder, WalksStayBelowWithTheKernelAndWithout) {
    base.Write("root/d/e/file", "x");
    fs::create_symlink("e/file", root / "d/link");
    fs::create_symlink("../../outside.txt", root / "d/out");
    fs::create_directory_symlink(base.Folder(), root / "d/up");
    const agent::CFd fdRoot(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (const auto lpOpen : {agent::OpenBelow, agent::OpenBelowByWalk}) {
        std::string strOpens;
        for (const char* lpszPath : {"", "d/e/file", "d/out", "d/up/outside.txt", "../outside.txt",
                                     "d/../../outside.txt", "d/missing/file"}) {
            strOpens += lpOpen(fdRoot.Get(), lpszPath, O_RDONLY, 0) ? 'y' : 'n';
        }
        EXPECT_EQ(strOpens, "yynnnnn");
    }
    std::string strError;
    for (const char* lpszName : {"", "a/b", "..", ".dak-x", "Card", "\xFF"}) {
        EXPECT_FALSE(pFolder->AddStorage(lpszName, base.Path("card"), strError)) << lpszName;
    }
    EXPECT_FALSE(pFolder->AddStorage(std::string(52, 'n'), base.Path("card"), strError));
    EXPECT_TRUE(pFolder->AddStorage(std::string(51, 'n'), base.Path("card"), strError));
    EXPECT_FALSE(pFolder->AddStorage("None", base.Path("none"), strError));
}

// What killed agents leave is gone behind the next start, and what a living one has in work is not.
TEST_F(Folder, LeftoversOfAgents) {
    base.Write("root/d/kept", "1");
    const TREE before = Disk();
    for (const auto& [lpszJournal, lpszFolder] :
         {std::pair{"0123456789abcdef", "d"}, {"1", "d"}, {"3", ".."}}) {
        base.Write(std::string("root/.dak-") + lpszJournal + ".journal",
                   lpszFolder + std::string("\0xyz", 4));
    }
    base.Write("card/.dak-2.journal", std::string(1, '\0'));
    // The last two: killed before a format had begun, and while it was moved up.
    Lay("root/d/.dak-0123456789abcdef.part=part root/d/.dak-1.part/sub/x=tree "
        "card/.dak-2.part=part "
        "root/.dak-0-7.trash/1/deep/2=x card/.dak-0-8.trash=x root/.dak-0-7.trash/1/deep:0 "
        "root/.dak-0-7.trash/out>../.. card/.dak-format/ root/In/.dak-formatted/.dak-3/c/d=while");
    Open();
    Work();
    TREE after = before;
    after.merge(TREE{{"root/In/c", "/"}, {"root/In/c/d", "while"}});
    EXPECT_EQ(Disk(), after);
    std::unique_ptr<agent::CPartFile> pPart;
    EXPECT_EQ(pFolder->BeginPart(At("d/a"), 3, pPart), EResult::SUCCESS);
    const TREE working = Disk();
    EXPECT_EQ(working.size(), after.size() + 2);
    std::string strError;
    agent::CDeviceFolder::Open(root.string(), {}, strError)->RemoveLeftovers(true);
    EXPECT_EQ(Disk(), working);
    EXPECT_EQ(pPart->Write(BytesOf("123")), EResult::SUCCESS);
    EXPECT_EQ(pPart->Complete({}), EResult::SUCCESS);
    pFolder->EndParts();
    EXPECT_EQ(ReadBytes(root / "d/a"), "123");
    ExpectNothingOwn();
    // What a storage is given needs no room in the root.
    const TREE rootBefore = Disk("root");
    EXPECT_EQ(pFolder->BeginPart(At("Card/a"), 3, pPart), EResult::SUCCESS);
    EXPECT_EQ(Disk("root"), rootBefore);
    pPart.reset();
    pFolder->EndParts();
    auto pCopy = pFolder->BeginCopy(At("d/a"), At("Card/a"), true);
    EXPECT_FALSE(pCopy->Step({}));
    EXPECT_EQ(Disk("root"), rootBefore);
    pCopy.reset();
    // A part that cannot be removed is left to the next agent, and a target that may not be
    // replaced any more stays.
    for (const bool bStuck : {true, false}) {
        EXPECT_EQ(pFolder->BeginPart(At("d/a"), 3, pPart), EResult::SUCCESS);
        for (const auto& [strPath, strBytes] : Disk("root/d")) {
            if (bStuck && strPath.ends_with(".part")) {
                fs::remove(root / "d" / strPath);
                base.Write("root/d/" + strPath + "/x", "");
            }
        }
        fs::permissions(root / "d/a", fs::perms(0444));
        EXPECT_EQ(pPart->Complete({}), EResult::REFUSED);
        fs::permissions(root / "d/a", fs::perms(0644));
        pPart.reset();
        pFolder->EndParts();
        EXPECT_EQ(Disk("root").size() - rootBefore.size(), bStuck ? 3U : 0U) << "with a journal";
        Open();
        Work();
        EXPECT_EQ(Disk("root"), rootBefore);
    }
    // What no agent has made is no format that was begun.
    base.Write("card/.dak-format/1/x", "x");
    base.Write("card/c", "c");
    Open();
    EXPECT_EQ(Seen().count("Card/c"), 1U);
}

TEST_F(Folder, FormatEmptiesAtOnceAndRemovesInTheBackground) {
    storages.push_back({"Twin", "twin"});
    storages.push_back({"Twin2", "twin"});
    storages.push_back({"Around", "."});
    storages.push_back({"Deep", "root/way/to/deep"});
    Lay("twin/x=x root/way/to/deep/d=d root/way/to/other=o root/.dak-0123.journal= "
        "card/dir/.hidden=h");
    base.Write("card/a", std::string(10'000, 'a'));
    fs::path deep = base / "card/dir";
    for (int i = 0; i < 100; ++i) { // deeper than descriptors are spent on
        fs::create_directory(deep /= "d");
    }
    fs::create_hard_link(base / "outside.txt", base / "card/hard");
    Lay("card/link>../root/d card/a:444 card/dir:555 card:777"); // more than the umask gives
    Open();
    fs::remove(root / ".dak-0123.journal");
    const std::uint64_t qwFree = Free();
    EXPECT_EQ(Do("format Twin format Card"), "ny");
    EXPECT_EQ(Free(), qwFree);
    EXPECT_TRUE(fs::exists(base / "card/a")) << "nothing has been removed yet";
    EXPECT_EQ(fs::status(base / "card/.dak-format/.dak-1").permissions(), fs::perms(0777));
    EXPECT_EQ(Do("put Card/a new put Card/dir/b b mkdir Card/link"), "yyy");
    Work(false); // what the host writes stays where it is as long as an exchange is open
    EXPECT_TRUE(fs::exists(base / "card/.dak-format"));
    EXPECT_FALSE(fs::exists(base / "card/hard"));
    Work();
    EXPECT_EQ(Disk("card"), (TREE{{"a", "new"}, {"dir", "/"}, {"dir/b", "b"}, {"link", "/"}}));
    EXPECT_EQ(fs::status(base / "card").permissions(), fs::perms(0777));
    EXPECT_EQ(Free(), qwFree + 10'000 + 1 - 4) << "the file with another name has not gone";
    // No other storage is touched, nor the way to it.
    EXPECT_EQ(Do("format /"), "y");
    Work();
    EXPECT_EQ(Disk("root"), (TREE{{"In", "/"},
                                  {"way", "/"},
                                  {"way/to", "/"},
                                  {"way/to/deep", "/"},
                                  {"way/to/deep/d", "d"}}));
    EXPECT_EQ(Do("format Around"), "y");
    Work();
    EXPECT_EQ(Disk("root").size(), 5U);
    EXPECT_EQ(Disk("card").size(), 4U);
    EXPECT_FALSE(fs::exists(base / "outside.txt"));
    // With the host there no more than some are moved up, the others at the next start.
    EXPECT_EQ(Do("format Card"), "y");
    for (int i = 0; i <= 1000; ++i) {
        base.Write("card/.dak-format/.dak-1/" + std::to_string(i), "");
    }
    Work();
    EXPECT_EQ(Disk("card").size(), 1003U);
    Open();
    Work();
    EXPECT_EQ(Disk("card").size(), 1001U);
    fs::permissions(base / "card", fs::perms(0555));
    EXPECT_EQ(Do("format Card"), "n");
}

// What has come into a formatted folder behind the format is nobody's to remove, however far the
// format has come when the next agent starts.
TEST_F(Folder, FormatRemovesWhatWasThereAndNothingElse) {
    base.Write("root/In/way", "");
    for (const std::string strWhat :
         {"at once", "not allowed", "many", "in the way", "mount", "old kernel", "again"}) {
        fs::remove_all(base / "card");
        base.Write("card/x/m/kept", "kept");
        base.Write("card/y", "y");
        bMayFormat = true;
        Open();
        struct stat status {};
        ASSERT_EQ(::stat((base / "card/x/m").c_str(), &status), 0);
        s_mounted = strWhat == "mount" ? status.st_ino : 0;
        s_bOldKernel = strWhat == "old kernel";
        const bool bStuck = s_mounted != 0 || s_bOldKernel;
        ASSERT_EQ(RunAll(pFolder->BeginFormat(At("Card"))), EResult::SUCCESS);
        EXPECT_EQ(Put("Card/host", "host"), EResult::SUCCESS);
        for (int i = 0; i < (strWhat == "many" ? 1001 : 0); ++i) {
            base.Write("card/.dak-format/.dak-1/" + std::to_string(i), "");
        }
        if (strWhat == "in the way") {
            base.Write("card/host", "owner");
        }
        if (strWhat != "at once" && strWhat != "not allowed") {
            Work();
        }
        if (strWhat == "again") {
            EXPECT_EQ(RunAll(pFolder->BeginFormat(At("Card"))), EResult::SUCCESS);
        }
        base.Write("card/late", "late");
        base.Write("card/folder/late", "late");
        if (bStuck) { // what could not be removed is not tried again
            base.Write("card/x/late", "late");
        }
        if (strWhat == "at once") { // under a name that is listed
            fs::rename(base / "card/folder/late", base / "card/z");
            fs::rename(base / "card/z", base / "card/y");
        }
        bMayFormat = strWhat != "not allowed";
        Open();
        Work();
        const bool bStays = strWhat == "not allowed" || strWhat == "in the way" || bStuck;
        EXPECT_EQ(ReadBytes(base / "card/late"), "late") << strWhat;
        EXPECT_EQ(ReadBytes(base / (strWhat == "at once" ? "card/y" : "card/folder/late")), "late")
            << strWhat;
        EXPECT_EQ(fs::exists(base / "card/x/m/kept"), bStuck || !bMayFormat) << strWhat;
        EXPECT_EQ(fs::exists(base / "card/x/late"), bStuck) << strWhat;
        EXPECT_EQ(fs::exists(base / "card/.dak-format"), bStays) << strWhat;
        TREE seen = Seen();
        EXPECT_EQ(seen.count("Card/late"), bStays ? 0U : 1U) << strWhat;
        EXPECT_EQ(seen.count("Card/x/") + seen.count("Card/x/m/kept"), 0U) << strWhat;
        EXPECT_EQ(seen["Card/host"], strWhat == "again" ? "" : "host") << strWhat;
        s_mounted = 0;
        s_bOldKernel = false;
        if (bStuck) { // gone with its mount: the view can be moved up
            fs::remove_all(base / "card/x");
            Open();
            EXPECT_FALSE(fs::exists(base / "card/.dak-format"));
        }
    }
    // What no move may take to another folder is seen by the host before and behind the moving up:
    // a folder that is not writable is moved all the same, and what cannot be moved keeps the
    // others.
    fs::remove_all(base / "card");
    fs::create_directory(base / "card");
    Open();
    s_bPlainUser = true;
    for (const bool bFixed : {true, false}) {
        ASSERT_EQ(RunAll(pFolder->BeginFormat(At("Card"))), EResult::SUCCESS);
        EXPECT_EQ(Put("Card/a", "a"), EResult::SUCCESS);
        EXPECT_EQ(Put("Card/ro/b", "b"), EResult::SUCCESS);
        const fs::path view =
            base / (bFixed ? "card/.dak-format/.dak-1" : "card/.dak-format/.dak-2");
        fs::permissions(view / "ro", fs::perms(0555));
        struct stat status {};
        ASSERT_EQ(::stat((view / "ro").c_str(), &status), 0);
        s_fixed = bFixed ? status.st_ino : 0;
        Work();
        TREE seen = Seen();
        EXPECT_EQ(seen["Card/a"] + seen["Card/ro/b"], "ab");
        EXPECT_EQ(fs::exists(base / "card/.dak-format"), bFixed);
        EXPECT_FALSE(fs::exists(base / "card/.dak-formatted"));
        EXPECT_EQ(fs::status((bFixed ? view : base / "card") / "ro").permissions(),
                  fs::perms(0555));
    }
    s_bPlainUser = false;
}

// A disk without room for a folder: the removal begins ahead of the format, and only then; where
// that frees nothing in time, the format is refused.
TEST_F(Folder, FullDisks) {
    for (const auto& [nFullFor, nFiles, bDone] :
         {std::tuple{1, 3, true}, {2, 3, true}, {3, 3, true}, {1000, 3, false}, {2, 0, false}}) {
        Open();
        Work();
        fs::remove_all(base / "card");
        base.Write("root/other", "kept");
        fs::create_directories(base / "card");
        for (int i = 0; i < nFiles; ++i) {
            base.Write("card/" + std::to_string(i), "x");
        }
        Open();
        const TREE before = Disk("card");
        s_nFullFor = nFullFor;
        EXPECT_EQ(RunAll(pFolder->BeginFormat(At("Card"))),
                  bDone ? EResult::SUCCESS : EResult::REFUSED)
            << nFullFor;
        s_nFullFor = 0;
        EXPECT_EQ(List(At("Card"))->size(), 0U) << nFullFor;
        EXPECT_EQ(Put("Card/new", "new"), EResult::SUCCESS);
        EXPECT_EQ(RunAll(pFolder->BeginFormat(At("Card"))), EResult::SUCCESS) << "again, with room";
        Work();
        EXPECT_EQ(Disk("card"), TREE{}) << nFullFor;
        EXPECT_EQ(ReadBytes(root / "other"), "kept");
    }
    // The fresh folder has no room, behind one of an earlier format, or none.
    for (const bool bTwice : {false, true}) {
        base.Write("card/x", "x");
        Open();
        EXPECT_TRUE(!bTwice || RunAll(pFolder->BeginFormat(At("Card"))) == EResult::SUCCESS);
        fs::create_directories(base / "card/.dak-format");
        s_nFullFor = 1000;
        EXPECT_EQ(RunAll(pFolder->BeginFormat(At("Card"))),
                  bTwice ? EResult::REFUSED : EResult::REFUSED);
        s_nFullFor = 0;
        Work();
        ExpectNothingOwn();
    }
    // The limit that the system sets on a file stands for a disk that runs full in the middle.
    base.Write("root/d/c", "old");
    base.Write("root/large", std::string(400'000, 'l'));
    Open(10'000'000);
    const TREE before = Disk();
    const std::uint64_t qwFree = Free();
    const auto lpOldHandler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit old{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
    const rlimit small{300'000, old.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const EResult eFull = EResult::NO_SPACE;
    EXPECT_EQ(Put("d/c", std::string(400'000, 'c')), eFull);
    EXPECT_EQ(Copy("large", "d/c"), eFull);
    auto pFile = Handle("d/c", {.bWrite = true});
    EXPECT_EQ(pFile->Write(300'000, BytesOf("x")), eFull);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &old), 0);
    std::signal(SIGXFSZ, lpOldHandler);
    EXPECT_EQ(Disk(), before);
    EXPECT_EQ(Free(), qwFree);
    // Neither depth nor a small number of descriptors hides anything from the quota.
    std::string strDeep = "root/deep";
    for (int i = 0; i < 100; ++i) {
        strDeep += "/d";
    }
    base.Write(strDeep + "/x", std::string(1000, 'x'));
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
    const rlimit few{64, old.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    pFolder->SetQuota(10'000'000);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &old), 0);
    EXPECT_EQ(Free(), qwFree - 1000);
    s_bReadFails = true;
    EXPECT_FALSE(List(At("d"))) << "a folder that cannot be read looks like a short one";
    s_bReadFails = false;
    EXPECT_EQ(List(At("d"))->size(), 1U);
}

TEST_F(Folder, AnotherFileSystem) {
    char szOther[] = "/dev/shm/dak-XXXXXX";
    ASSERT_TRUE(::mkdtemp(szOther));
    fs::remove(base / "card");
    fs::create_directory_symlink(szOther, base / "card");
    base.Write("root/t/sub/x", std::string(30'000, 'x'));
    Lay("root/t/empty/ root/t/link>sub/x root/d/f=f");
    Open();
    const TREE tree = Disk("root/t");
    EXPECT_EQ(Do("copy d/f Card/f move d/f Card/f move d/f Card/g move t Card/t"), "ynyy");
    Work();
    EXPECT_EQ(Disk("root"), (TREE{{"In", "/"}, {"d", "/"}}));
    EXPECT_EQ(Do("move Card/t/link d/link move d/link Card/t/link move Card/t back"), "yyy");
    EXPECT_EQ(Disk("root/back"), tree);
    Work();
    EXPECT_EQ(Disk(szOther), (TREE{{"f", "f"}, {"g", "f"}}));
    EXPECT_EQ(Free(), QUOTA - 30'002) << "the quota has not lost count";
    // Given up, refused, and written to on the way: the source is where it was.
    for (const std::string strWhat :
         {"given up", "fifo", "own", "mount", "mount inside", "changed"}) {
        struct stat status {};
        EXPECT_EQ(::stat((root / (strWhat == "mount" ? "back" : "back/sub")).c_str(), &status), 0);
        s_mounted = strWhat.starts_with("mount") ? status.st_ino : 0;
        EXPECT_TRUE(strWhat != "fifo" || ::mkfifo((root / "back/sub/fifo").c_str(), 0600) == 0);
        if (strWhat == "own") { // of another agent
            base.Write("root/back/sub/.dak-1.part", "part");
        }
        auto pWork = pFolder->BeginMove(At("back"), At("Card/t"));
        ASSERT_TRUE(pWork);
        if (strWhat == "changed") {
            EXPECT_FALSE(pWork->Step({}));
            base.Write("root/back/late", "late");
        }
        if (strWhat != "given up") {
            EXPECT_EQ(RunAll(std::move(pWork)), EResult::REFUSED) << strWhat;
        } else {
            EXPECT_FALSE(pWork->Step({}));
            EXPECT_FALSE(pWork->Step({}));
        }
        s_mounted = 0;
        pWork.reset();
        fs::remove(root / "back/sub/fifo");
        EXPECT_EQ(fs::remove(root / "back/sub/.dak-1.part"), strWhat == "own");
        Work();
        EXPECT_EQ(Disk(szOther), (TREE{{"f", "f"}, {"g", "f"}})) << strWhat;
    }
    TREE late = tree;
    late["late"] = "late";
    EXPECT_EQ(Disk("root/back"), late);
    ExpectNothingOwn();
    fs::remove_all(szOther);
}

// Programs of the device: which run, what they inherit, how many, and what is told of them.
TEST_F(Folder, Programs) {
    const auto script = [&](const std::string& strPath, const std::string& strText,
                            unsigned nMode = 0755) {
        base.Write(strPath, "#!/bin/sh\n" + strText + "\n");
        fs::permissions(base / strPath, fs::perms(nMode));
    };
    std::vector<std::string> notices;
    for (const char* lpszPath :
         {"root/d/tell", "bin2/only2", "bin/tool", "card/carded", "away/far", "root/both"}) {
        script(lpszPath, "printf '%s|' \"$@\" > out; exit 7");
    }
    script("bin/both", "exit 9");
    script("root/plain", "exit 1", 0644);
    script("root/killed", "kill -9 $$");
    script("root/wait", "read x < gate");
    script("bin/note", "read x < " + root.string() + "/gate; echo \"$1 $DAK_WPARAM\" > " +
                           root.string() + "/noted");
    script(
        "root/look",
        "{ while read -r a b; do case $a in Sig[BI]*) echo $a $b;; esac; done < /proc/$$/status; "
        "ls -l /proc/$$/fd; cat; pwd; } > out");
    fs::create_symlink("../away/far", root / "out1");
    fs::create_symlink("tool", base / "bin/alias");
    fs::create_symlink("../away/far", base / "bin/outalias");
    ASSERT_EQ(::mkfifo((root / "gate").c_str(), 0600), 0);
    const agent::CFd fdGate(::open((root / "gate").c_str(), O_RDWR)); // not closed by exec
    agent::CDeviceOptions options;
    options.system.execPaths = {base.Path("bin"), base.Path("bin2")};
    options.system.messageCommands = {base.Path("bin/note") + " 'a b'"};
    options.system.lpNotice = [&](const std::string& strLine) { notices.push_back(strLine); };
    std::string strError;
    const auto pPrograms = agent::CDeviceProcesses::Open(options, *pFolder, strError);
    ASSERT_TRUE(pPrograms) << strError;
    const auto settle = [&] {
        for (int i = 0; i < 5000 && pPrograms->DueMs(0); ++i) {
            ::usleep(1000);
            pPrograms->Tick(0);
        }
        EXPECT_FALSE(pPrograms->DueMs(0));
    };
    const auto run = [&](const std::string& strPath, bool bBare) -> std::int64_t {
        fs::remove(root / "out");
        const auto pState = pPrograms->StartProgram(At(strPath), bBare, {"a", "b c", ""});
        settle();
        return pState ? std::int64_t{pState->dwStatus} : -1;
    };
    const struct {
        const char* lpszPath;
        bool bBare;
        std::int64_t llStatus;
    } rows[] = {{"d/tell", false, 7},   {"Card/carded", false, 7}, {"tool", true, 7},
                {"only2", true, 7},     {"alias", true, 7},        {"both", true, 7},
                {"killed", false, 137}, {"tool", false, -1},       {"outalias", true, -1},
                {"out1", false, -1},    {"plain", false, -1},      {"d", false, -1},
                {"", false, -1},        {"none", true, -1}};
    for (const auto& row : rows) {
        EXPECT_EQ(run(row.lpszPath, row.bBare), row.llStatus) << row.lpszPath;
        EXPECT_EQ(ReadBytes(root / "out"), row.llStatus == 7 ? "a|b c||" : "") << row.lpszPath;
    }
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const auto lpOld = std::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(run("look", false), 0);
    std::signal(SIGPIPE, lpOld);
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    const std::string strLook = ReadBytes(root / "out");
    EXPECT_TRUE(strLook.starts_with("SigBlk: 0000000000000000\nSigIgn: 0000000000000000\n"))
        << strLook;
    EXPECT_TRUE(strLook.ends_with(root.string() + "\n")) << strLook;
    EXPECT_NE(strLook.find("0 -> /dev/null"), std::string::npos) << strLook;
    EXPECT_EQ(strLook.find("gate"), std::string::npos) << strLook;
    // Bounded, and free again; commands for messages are counted for themselves.
    const std::string strThrough(40, '\n');
    for (std::size_t i = 0; i <= agent::CDeviceProcesses::MOST_PROGRAMS; ++i) {
        EXPECT_EQ(pPrograms->StartProgram(At("wait"), false, {}) != nullptr,
                  i < agent::CDeviceProcesses::MOST_PROGRAMS);
    }
    for (std::size_t i = 0; i <= agent::CDeviceProcesses::MOST_COMMANDS; ++i) {
        pPrograms->StartMessageCommands({{"DAK_WPARAM", "7"}});
    }
    ASSERT_EQ(notices.size(), 1U);
    EXPECT_NE(notices[0].find("too many"), std::string::npos);
    EXPECT_TRUE(agent::WriteWhole(fdGate.Get(), strThrough.data(), strThrough.size()));
    settle();
    EXPECT_EQ(ReadBytes(root / "noted"), "a b 7\n");
    EXPECT_EQ(run("d/tell", false), 7);
    EXPECT_EQ(Do("format /"), "y");
    EXPECT_EQ(run("d/tell", false), -1) << "a format takes programs away";
    for (const char* lpszLine : {"no-such-command-anywhere", "true 'open"}) {
        options.system.messageCommands = {lpszLine};
        EXPECT_FALSE(agent::CDeviceProcesses::Open(options, *pFolder, strError));
    }
    options.system = {};
    options.system.execPaths = {base.Path("none")};
    EXPECT_FALSE(agent::CDeviceProcesses::Open(options, *pFolder, strError));
}

} // namespace
} // namespace test
