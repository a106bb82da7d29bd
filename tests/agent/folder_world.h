// A device folder on a POSIX file system, and scripts (script.h) of what becomes of it. Refused is
// n, no room f.
//
// Files are written as path=bytes, folders path/, links path>target, other names of a file
// path+path, pipes path|; behind them the permissions :444 where a fresh one has others, and @12,
// seconds of 1970, when it was written. %deep is a hundred folders. Paths of the host's begin in
// the root, those of the owner's above it: the root is root, with the folder In that is a storage,
// and beside it card is the storage Card.
#pragma once

#include <algorithm>
#include <array>
#include <numeric>
#include <set>

#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "agent/device.h"
#include "agent/posix/system_file.h"
#include "tests/agent/script.h"
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

class CFolderWorld : public CScript {
  public:
    static constexpr std::uint64_t QUOTA = 100'000;

    CFolderWorld() {
        ::umask(022);
        Play("lay root/d/ root/In/ card/ outside.txt=outside; agent");
    }
    ~CFolderWorld() override { g_faults.clear(); }

    std::uint64_t Used() { return m_qwQuota - m_pFolder->SpaceOf(At("")).value().qwFree; }
    bool HasWork() const { return m_pFolder->HasWork(true); }
    static agent::CDevicePath At(const std::string& strPath) {
        return agent::CDevicePath::Parse(*agent::ToUtf16(strPath)).value_or(agent::CDevicePath());
    }
    // What a pull would find in a folder. Nothing when it cannot be read to its end.
    std::optional<std::set<std::string>> List(const agent::CDevicePath& path) {
        using enum agent::CFolderScan::ENext;
        const auto pScan = m_pFolder->Scan(path);
        std::set<std::string> names;
        std::string strName;
        for (auto eNext = pScan ? pScan->Next(strName) : FAILED; eNext != END;
             eNext = pScan->Next(strName)) {
            if (eNext == FAILED) {
                return std::nullopt;
            }
            eNext == NAME ? names.insert(strName).second : false;
        }
        return names;
    }
    // By the host; folders with a slash behind.
    TREE Seen(const std::string& strFolder = {}) {
        TREE seen;
        const auto names = List(At(strFolder));
        EXPECT_TRUE(names) << strFolder;
        for (const std::string& strName : names.value_or(std::set<std::string>())) {
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
    using Bytes = std::vector<std::uint8_t>;

    using CScript::Say;
    static std::string Say(EResult eResult) { return {"yfn"[static_cast<int>(eResult)]}; }
    template <class T>
    static std::string Say(const std::unique_ptr<T>& p) {
        return Say(p != nullptr);
    }

    std::string DoWords(const Words& words, const std::string&) override {
        static const std::string s_strDeep =
            std::regex_replace(std::string(100, 'd'), std::regex("d(?!$)"), "d/");
        Words w = words;
        for (std::string& strWord : w) {
            strWord = std::regex_replace(strWord, std::regex("%deep"), s_strDeep);
        }
        const agent::CDevicePath at = At(w[1]);
        const agent::CDevicePath to = At(w[2]);
        const std::string& v = w[0];
        return v == "put"       ? Say(Put(at, w[2]))
               : v == "mkdir"   ? Say(m_pFolder->MakeFolder(at))
               : v == "rm"      ? Say(m_pFolder->Remove(at))
               : v == "format"  ? Say(RunAll(m_pFolder->BeginFormat(at)))
               : v == "copy"    ? Say(RunAll(m_pFolder->BeginCopy(at, to, false)))
               : v == "copynew" ? Say(RunAll(m_pFolder->BeginCopy(at, to, true)))
               : v == "move"    ? Say(RunAll(m_pFolder->BeginMove(at, to)))
               : v == "find"    ? Say(m_pFolder->Find(at).has_value())
               : v == "space"   ? Say(m_pFolder->SpaceOf(at).has_value())
               : v == "list"    ? Say(List(at).has_value())
               : v == "source"  ? Say(m_pFolder->OpenSource(at))
               : v == "born"    ? std::to_string(m_pFolder->Find(at)->times.ftCreation)
               : v == "seen"    ? Show(Seen(w[1]), w[1])
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
               : v == "disk"      ? ShowDisk(w[1])
               : v == "there"     ? Say(fs::exists(base / w[1]))
               : v == "drop"      ? Say(fs::remove_all(base / w[1]) < UINT64_MAX)
               : v == "rename"    ? Say(::rename((base / w[1]).c_str(), (base / w[2]).c_str()) == 0)
               : v == "elsewhere" ? Elsewhere(w[1])
               : v == "fault"     ? Say((g_faults[w[1]] = NumberOf(w[2])) != UINT64_MAX)
               : v == "limit"     ? Limit(std::stoul(w[1]))
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
    std::string OpenOther() const {
        std::string strError;
        agent::CDeviceFolder::Open(base.Path("root"), {}, strError)->RemoveLeftovers(true);
        return "y";
    }
    std::string Work(bool bIdle) {
        for (int i = 0; i < 100'000 && m_pFolder->HasWork(bIdle); ++i) {
            m_pFolder->Work(bIdle, {});
        }
        return Say(!m_pFolder->HasWork(bIdle));
    }
    EResult Put(const agent::CDevicePath& path, const std::string& strText) {
        const std::size_t dwTime = strText.find('@');
        const Bytes bytes = BytesOf(strText.substr(0, dwTime));
        agent::CFileTimes times;
        if (dwTime != std::string::npos) {
            times = {7,
                     116'444'736'000'000'000 + 10'000'000 * std::stoul(strText.substr(dwTime + 1))};
        }
        EResult eResult = m_pFolder->BeginPart(path, bytes.size(), m_pPart);
        eResult = m_pPart ? m_pPart->Write(bytes) : eResult;
        eResult = eResult == EResult::SUCCESS ? m_pPart->Complete(times) : eResult;
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
        const std::optional<EResult> eResult = m_pWork->Step({});
        return eResult ? Say(*eResult) : "-";
    }
    EResult RunAll(std::unique_ptr<agent::CFolderWork> pWork) {
        std::optional<EResult> eResult = pWork ? std::nullopt : std::optional(EResult::REFUSED);
        while (!eResult) {
            eResult = pWork->Step({});
        }
        pWork.reset();
        Leave();
        return *eResult;
    }
    bool OpenHandle(const std::string& strHandle, const agent::CDevicePath& path,
                    const std::string& strHow) {
        const auto is = [&](char ch) { return strHow.find(ch) != std::string::npos; };
        const COpenMode mode{is('r'),
                             is('w'),
                             is('R'),
                             is('W'),
                             static_cast<COpenMode::EMissing>(is('m')),
                             static_cast<COpenMode::EExisting>(is('x')   ? 2
                                                               : is('e') ? 1
                                                                         : 0)};
        std::unique_ptr<agent::COpenFile> pFile;
        const EResult eResult = m_pFolder->OpenFile(path, mode, pFile);
        return eResult == EResult::SUCCESS && (m_handles[strHandle] = std::move(pFile));
    }
    std::string Read(const std::string& strHandle) {
        Bytes bytes(20);
        bytes.resize(m_handles.at(strHandle)->Read(0, bytes));
        return {bytes.begin(), bytes.end()};
    }

    static Bytes BytesOf(const std::string& strText) {
        const std::string strBytes = Long(strText);
        return {strBytes.begin(), strBytes.end()};
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
    std::string ShowDisk(const std::string& strFolder) const {
        std::set<std::string> things;
        for (const auto& entry : fs::recursive_directory_iterator(base / strFolder)) {
            struct stat status {};
            ::lstat(entry.path().c_str(), &status);
            const bool bFolder = entry.is_directory() && !entry.is_symlink();
            const mode_t mode = status.st_mode & 07777;
            const bool bUsual =
                mode == (bFolder ? 0755 : 0644) || S_ISFIFO(status.st_mode) || entry.is_symlink();
            std::ostringstream marks;
            marks << std::oct << (bUsual ? "" : ":");
            bUsual ? marks : marks << mode << std::dec;
            status.st_mtime < 1'000'000 && !entry.is_symlink()
                ? marks << std::dec << "@" << status.st_mtime
                : marks;
            if (!bFolder || !marks.str().empty() || fs::is_empty(entry.path())) {
                things.insert(NameOf(entry.path().lexically_relative(base / strFolder)) +
                              (entry.is_symlink() ? ">" + fs::read_symlink(entry.path()).string()
                               : bFolder          ? "/"
                               : S_ISFIFO(status.st_mode) ? "|"
                                                          : "=" + Short(ReadBytes(entry.path()))) +
                              marks.str());
            }
        }
        return std::accumulate(things.begin(), things.end(), std::string(),
                               [](const auto& strAll, const auto& strThing) {
                                   return strAll + (strAll.empty() ? "" : " ") + strThing;
                               });
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
};

} // namespace test
