// A device folder on a POSIX file system, and scripts of what becomes of it: steps with a semicolon
// between them, each with what it comes to.
//
//   put d/a new; !copy d/a d/a; disk root/d = a=new
//
// A step comes to y, done; behind ! to n, refused; behind % to f, no room; else to what stands
// behind " = ". Files are written as path=bytes, folders path/, links path>target, other names of a
// file path+path, pipes path|; behind them the permissions :444 where a fresh one has others, and
// @12, seconds of 1970, when it was written. In bytes a*5 is aaaaa and ^ a zero; %deep is a hundred
// folders. Paths of the host's begin in the root, those of the owner's above it: the root is root,
// with the folder In that is a storage, and beside it card is the storage Card.
#pragma once

#include <algorithm>
#include <array>
#include <regex>
#include <set>
#include <sstream>

#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "agent/device.h"
#include "agent/posix/system_file.h"
#include "tests/support/temp_folder.h"

// What the system's own calls do that no test could count on making: full (folders that find no
// room), broken (folders that cannot be read), mounted and fixed (inodes of a mount's root, and of
// what nobody can move), plain (a folder that may not be written keeps its parent), old (a kernel
// that cannot tell a mount's root).
inline std::map<std::string, std::uint64_t> g_faults;

namespace test {

namespace fs = std::filesystem;
using agent::COpenMode;
using agent::EResult;

class CFolderWorld {
  public:
    static constexpr std::uint64_t QUOTA = 100'000;

    CFolderWorld() {
        ::umask(022);
        Play("lay root/d/ root/In/ card/ outside.txt=outside; agent");
    }
    ~CFolderWorld() { g_faults.clear(); }

    void Play(const std::string& strScript) {
        static const std::regex s_step(R"(\s*([!%]?)([^;]*?)( =(?: ([^;]*?))?)?\s*(;|$))");
        for (std::sregex_iterator it(strScript.begin(), strScript.end(), s_step), end; it != end;
             ++it) {
            const std::smatch& step = *it;
            if (!step.str(2).empty()) {
                EXPECT_EQ(Do(step.str(2)), step[3].matched      ? step.str(4)
                                           : step.str(1) == "!" ? "n"
                                           : step.str(1) == "%" ? "f"
                                                                : "y")
                    << step.str(2);
            }
        }
    }
    // What a step comes to.
    std::string Do(const std::string& strStep) {
        static const std::string s_strDeep =
            std::regex_replace(std::string(99, '/'), std::regex("/"), "d/") + "d";
        std::istringstream text(std::regex_replace(strStep, std::regex("%deep"), s_strDeep));
        std::vector<std::string> words((std::istream_iterator<std::string>(text)), {});
        words.resize(std::max(words.size(), std::size_t{4}));
        return DoOfHost(words);
    }
    std::uint64_t Used() { return m_qwQuota - m_pFolder->SpaceOf(At("")).value().qwFree; }
    bool HasWork() const { return m_pFolder->HasWork(true); }
    static agent::CDevicePath At(const std::string& strPath) {
        return agent::CDevicePath::Parse(*agent::ToUtf16(strPath)).value_or(agent::CDevicePath());
    }
    // By the host; folders with a slash behind.
    TREE Seen(const std::string& strFolder = {}) {
        TREE seen;
        const auto names = m_pFolder->List(At(strFolder), 10'000);
        EXPECT_TRUE(names) << strFolder;
        for (const std::string& strName : names.value_or(std::vector<std::string>())) {
            const std::string strPath = strFolder.empty() ? strName : strFolder + "/" + strName;
            const auto info = m_pFolder->Find(At(strPath));
            if (info && info->bFolder) {
                seen[strPath + "/"];
                seen.merge(Seen(strPath));
            } else if (const auto pSource = m_pFolder->OpenSource(At(strPath))) {
                Bytes bytes(info->qwSize + 1);
                bytes.resize(pSource->Read(bytes));
                seen[strPath] = {bytes.begin(), bytes.end()};
            }
        }
        return seen;
    }
    agent::CDeviceFolder& Folder() { return *m_pFolder; }
    const CTempFolder base;

  private:
    using Words = std::vector<std::string>;
    using Bytes = std::vector<std::uint8_t>;

    static std::string Say(bool bYes) { return bYes ? "y" : "n"; }
    static std::string Say(EResult eResult) { return {"yfn"[static_cast<int>(eResult)]}; }
    template <class T>
    static std::string Say(const std::unique_ptr<T>& p) {
        return Say(p != nullptr);
    }

    std::string DoOfHost(const Words& w) {
        const agent::CDevicePath at = At(w[1]);
        const agent::CDevicePath to = At(w[2]);
        const std::string& v = w[0];
        return v == "put"       ? Say(Put(w[1], w[2], 2))
               : v == "cut"     ? Say(Put(w[1], w[2], 1)) // short, in the middle
               : v == "mkdir"   ? Say(m_pFolder->MakeFolder(at))
               : v == "rm"      ? Say(m_pFolder->Remove(at))
               : v == "format"  ? Say(m_pFolder->Format(at))
               : v == "copy"    ? Say(RunAll(m_pFolder->BeginCopy(at, to, false)))
               : v == "copynew" ? Say(RunAll(m_pFolder->BeginCopy(at, to, true)))
               : v == "move"    ? Say(RunAll(m_pFolder->BeginMove(at, to)))
               : v == "find"    ? Say(m_pFolder->Find(at).has_value())
               : v == "space"   ? Say(m_pFolder->SpaceOf(at).has_value())
               : v == "list"    ? Say(m_pFolder->Scan(at) && m_pFolder->List(at, 100))
               : v == "source"  ? Source(at)
               : v == "same"    ? Say(m_pSource->Identity() == m_qwListed)
               : v == "born"    ? std::to_string(m_pFolder->Find(at)->times.ftCreation)
               : v == "seen"    ? ShowSeen(w[1])
               : v == "used"    ? std::to_string(Used())
               // Handle, path, and how: rw, what others may RW, that it is made (m), emptied (e),
               // or must be new (x).
               : v == "open"  ? Say(OpenHandle(w[1], to, w[3]))
               : v == "read"  ? Read(w[1])
               : v == "write" ? Say(m_handles.at(w[1])->Write(std::stoul(w[2]), BytesOf(w[3])))
               : v == "size"  ? std::to_string(m_handles.at(w[1])->Size().value())
               : v == "close" ? Say(m_handles.erase(w[1]) == 1)
               // What takes its time, until it is left.
               : v == "begin"   ? Say(m_pFolder->BeginPart(at, std::stoul(w[2]), m_pPart))
               : v == "fill"    ? Say(m_pPart->Write(BytesOf(w[1])))
               : v == "end"     ? Say(m_pPart->Complete({}))
               : v == "copying" ? Say(m_pWork = m_pFolder->BeginCopy(at, to, false))
               : v == "moving"  ? Say(m_pWork = m_pFolder->BeginMove(at, to))
               : v == "step"    ? Step()
               : v == "leave"   ? Leave()
                                : DoOfOwner(w);
    }
    // What the owner and the system do, and the agent: a new one, with another quota; one more;
    // what it does in the background.
    std::string DoOfOwner(const Words& w) {
        const std::string& v = w[0];
        return v == "agent"       ? Open(w[1].empty() ? m_qwQuota : std::stoul(w[1]))
               : v == "other"     ? OpenOther()
               : v == "formats"   ? Say((m_bMayFormat = w[1] == "on") || true)
               : v == "work"      ? Work(true)
               : v == "busy"      ? Work(false)
               : v == "storage"   ? Say(!m_storages.emplace_back(w[1], w[2]).first.empty())
               : v == "disk"      ? Show(w[1])
               : v == "there"     ? Say(fs::exists(base / w[1]))
               : v == "drop"      ? Say(fs::remove_all(base / w[1]) > 0)
               : v == "rename"    ? Say(::rename((base / w[1]).c_str(), (base / w[2]).c_str()) == 0)
               : v == "elsewhere" ? Elsewhere(w[1])
               : v == "fault"     ? Say((g_faults[w[1]] = NumberOf(w[2])) != UINT64_MAX)
               : v == "limit"     ? Limit(std::stoul(w[1]))
               : v == "many"      ? Many(w[1], std::stoul(w[2]))
               : v == "lay"       ? Lay(w)
                                  : v + " is no step";
    }

    std::string Open(std::uint64_t qwQuota) {
        m_handles.clear();
        m_pFolder.reset();
        std::string strError;
        m_pFolder = agent::CDeviceFolder::Open(base.Path("root"), {}, strError);
        for (const auto& [strName, strFolder] : m_storages) {
            EXPECT_TRUE(m_pFolder->AddStorage(strName, base.Path(strFolder), strError)) << strError;
        }
        m_pFolder->RemoveLeftovers(m_bMayFormat);
        m_pFolder->SetQuota(m_qwQuota = qwQuota);
        return "y";
    }
    std::string OpenOther() {
        std::string strError;
        agent::CDeviceFolder::Open(base.Path("root"), {}, strError)->RemoveLeftovers(true);
        return "y";
    }
    std::string Work(bool bIdle) {
        for (int i = 0; i < 100'000 && m_pFolder->HasWork(bIdle); ++i) {
            m_pFolder->Work(bIdle);
        }
        return Say(!m_pFolder->HasWork(bIdle));
    }
    EResult Put(const std::string& strPath, const std::string& strText, std::size_t nHalves) {
        const std::size_t dwTime = strText.find('@');
        const std::string strBytes = Long(strText.substr(0, dwTime));
        const agent::CFileTimes times{7, 116'444'736'000'000'000 +
                                             10'000'000 * NumberOf(strText.substr(dwTime + 1))};
        EResult eResult = m_pFolder->BeginPart(At(strPath), strBytes.size(), m_pPart);
        for (std::size_t i = 0; i < nHalves && eResult == EResult::SUCCESS; ++i) {
            const std::size_t dwHalf = strBytes.size() / 2;
            eResult = m_pPart->Write(
                BytesOf(i == 0 ? strBytes.substr(0, dwHalf) : strBytes.substr(dwHalf)));
        }
        if (eResult == EResult::SUCCESS && nHalves == 2) {
            eResult = m_pPart->Complete(dwTime == std::string::npos ? agent::CFileTimes() : times);
        }
        Leave();
        return eResult;
    }
    std::string Leave() {
        m_pPart.reset();
        m_pWork.reset();
        m_pFolder->EndParts();
        return "y";
    }
    std::string Step() {
        const std::optional<EResult> eResult = m_pWork->Step();
        return eResult ? Say(*eResult) : "-";
    }
    EResult RunAll(std::unique_ptr<agent::CFolderWork> pWork) {
        std::optional<EResult> eResult = pWork ? std::nullopt : std::optional(EResult::REFUSED);
        while (!eResult) {
            eResult = pWork->Step();
        }
        pWork.reset();
        m_pFolder->EndParts();
        return *eResult;
    }
    bool OpenHandle(const std::string& strHandle, const agent::CDevicePath& path,
                    const std::string& strHow) {
        const auto is = [&](char ch) { return strHow.find(ch) != std::string::npos; };
        const COpenMode mode{.bRead = is('r'),
                             .bWrite = is('w'),
                             .bShareRead = is('R'),
                             .bShareWrite = is('W'),
                             .eMissing = static_cast<COpenMode::EMissing>(is('m')),
                             .eExisting = is('x')   ? COpenMode::EExisting::REFUSE
                                          : is('e') ? COpenMode::EExisting::EMPTY
                                                    : COpenMode::EExisting::KEEP};
        std::unique_ptr<agent::COpenFile> pFile;
        const EResult eResult = m_pFolder->OpenFile(path, mode, pFile);
        if (pFile) {
            m_handles[strHandle] = std::move(pFile);
        }
        return eResult == EResult::SUCCESS;
    }
    std::string Read(const std::string& strHandle) {
        Bytes bytes(20);
        bytes.resize(m_handles.at(strHandle)->Read(0, bytes));
        return {bytes.begin(), bytes.end()};
    }

    std::string Source(const agent::CDevicePath& path) {
        m_pSource = m_pFolder->OpenSource(path);
        m_qwListed = m_pSource ? m_pFolder->Find(path)->qwIdentity : 0;
        return Say(m_pSource != nullptr);
    }

    // Bytes as scripts write them, and back.
    static std::string Long(std::string strText) {
        std::replace(strText.begin(), strText.end(), '^', '\0');
        return strText.find('*') != 1 ? strText
                                      : std::string(std::stoul(strText.substr(2)), strText[0]);
    }
    static Bytes BytesOf(const std::string& strText) {
        const std::string strBytes = Long(strText);
        return {strBytes.begin(), strBytes.end()};
    }
    static std::string Short(const std::string& strBytes) {
        const bool bLong =
            strBytes.size() > 20 && strBytes.find_first_not_of(strBytes[0]) == std::string::npos;
        return bLong ? strBytes.substr(0, 1) + "*" + std::to_string(strBytes.size()) : strBytes;
    }
    // A number, or the inode of what is there.
    std::uint64_t NumberOf(const std::string& strText) const {
        struct stat status {};
        return ::stat((base / strText).c_str(), &status) == 0 && !strText.empty()
                   ? status.st_ino
                   : std::strtoul(strText.c_str(), nullptr, 10);
    }

    std::string Lay(const Words& w) const {
        static const std::regex s_thing(
            "([^=>+|:@]*)([=>+|]?)([^:@]*)(?::([0-7]+))?(?:@([0-9]+))?");
        std::smatch m;
        for (std::size_t i = 1; i < w.size() && std::regex_match(w[i], m, s_thing); ++i) {
            const std::string strKind = m.str(2);
            const fs::path path = base / m.str(1);
            fs::create_directories(path.parent_path());
            strKind == "="   ? base.Write(m.str(1), Long(m.str(3)))
            : strKind == ">" ? fs::create_symlink(m.str(3), path)
            : strKind == "+" ? fs::create_hard_link(base / m.str(3), path)
            : strKind == "|" ? static_cast<void>(::mkfifo(path.c_str(), 0600))
                             : void();
            if (m[4].matched) {
                fs::permissions(path, static_cast<fs::perms>(std::stoul(m.str(4), nullptr, 8)));
            }
            const timespec time{std::strtol(m.str(5).c_str(), nullptr, 10),
                                m[5].matched ? 0 : UTIME_OMIT};
            const timespec times[] = {time, time};
            EXPECT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
        }
        return "y";
    }
    // As Lay takes them; of folders those that are empty, or have marks.
    std::string Show(const std::string& strFolder) const {
        std::set<std::string> things;
        for (const auto& entry : fs::recursive_directory_iterator(base / strFolder)) {
            struct stat status {};
            ::lstat(entry.path().c_str(), &status);
            const char chKind = entry.is_symlink()     ? '>'
                                : entry.is_directory() ? '/'
                                : entry.is_fifo()      ? '|'
                                                       : '=';
            const mode_t mode = status.st_mode & 07777;
            std::ostringstream marks;
            if (chKind == '/' ? mode != 0755 : chKind == '=' && mode != 0644) {
                marks << ":" << std::oct << mode << std::dec;
            }
            if (chKind != '>' && status.st_mtime < 1'000'000) {
                marks << "@" << status.st_mtime;
            }
            if (chKind != '/' || !marks.str().empty() || fs::is_empty(entry.path())) {
                things.insert(NameOf(entry.path().lexically_relative(base / strFolder)) + chKind +
                              (chKind == '>'   ? fs::read_symlink(entry.path()).string()
                               : chKind == '=' ? Short(ReadBytes(entry.path()))
                                               : "") +
                              marks.str());
            }
        }
        return Join(things);
    }
    std::string ShowSeen(const std::string& strFolder) {
        std::set<std::string> things;
        for (const auto& [strPath, strBytes] : Seen(strFolder)) {
            things.insert(strPath + (strPath.ends_with("/") ? "" : "=" + Short(strBytes)));
        }
        return Join(things);
    }
    static std::string Join(const std::set<std::string>& things) {
        std::string strAll;
        for (const std::string& strThing : things) {
            strAll += (strAll.empty() ? "" : " ") + strThing;
        }
        return strAll;
    }
    std::string Many(const std::string& strFolder, std::size_t nFiles) const {
        for (; nFiles > 0; --nFiles) {
            base.Write(strFolder + "/" + std::to_string(nFiles), "");
        }
        return "y";
    }
    std::string Elsewhere(const std::string& strPath) {
        m_pElsewhere = std::make_unique<CTempFolder>("/dev/shm");
        fs::remove(base / strPath);
        fs::create_directory_symlink(m_pElsewhere->Folder(), base / strPath);
        return "y";
    }
    // What the system allows a file stands for a disk that runs full in the middle; 0 for all.
    static std::string Limit(rlim_t nBytes) {
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{};
        ::getrlimit(RLIMIT_FSIZE, &limit);
        limit.rlim_cur = nBytes == 0 ? limit.rlim_max : nBytes;
        return Say(::setrlimit(RLIMIT_FSIZE, &limit) == 0);
    }

    std::unique_ptr<CTempFolder> m_pElsewhere; // on another file system
    std::vector<std::pair<std::string, std::string>> m_storages = {{"Card", "card"},
                                                                   {"In", "root/In"}};
    std::uint64_t m_qwQuota = QUOTA;
    bool m_bMayFormat = true;
    std::unique_ptr<agent::CDeviceFolder> m_pFolder;
    std::map<std::string, std::unique_ptr<agent::COpenFile>> m_handles;
    std::unique_ptr<agent::CPartFile> m_pPart;
    std::unique_ptr<agent::CFolderWork> m_pWork;
    std::unique_ptr<agent::CSourceFile> m_pSource;
    std::uint64_t m_qwListed = 0; // what identified it
};

} // namespace test
