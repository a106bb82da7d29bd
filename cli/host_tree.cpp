#include "cli/host_tree.h"

#include "cli/device_path.h"
#include "cli/host_names.h"
#include "cli/text.h"
#include "link/wire.h"

#include <algorithm>
#include <fstream>
#include <optional>
#include <set>
#include <system_error>
#include <utility>

namespace fs = std::filesystem;

namespace cli {
namespace {

// Longest path of the host and of the device, in bytes without terminator.
constexpr std::size_t MAX_PATH_BYTES = DAK_MAX_NAME - 1;
constexpr std::uint64_t MAX_FILE_BYTES = 0xFFFFFFFF;

// Whether a backslash stands in a name of this host. The library would take it for a separator.
bool HasBackslashInNames(const std::string& strText) {
    return !IsHostSeparator('\\') && strText.find('\\') != std::string::npos;
}

// A source cut into the folder that the library is given and the name below it; an empty name
// stands for all that is in the folder.
struct SOURCEPATH {
    std::string strFolder;
    std::string strName;
};

void TrimSeparators(std::string& strPath) {
    while (strPath.size() > 1 && IsHostSeparator(strPath.back())) {
        strPath.pop_back();
    }
}

SOURCEPATH SplitBelowDrive(std::string strPath) {
    TrimSeparators(strPath);
    const auto itLast = std::find_if(strPath.rbegin(), strPath.rend(), IsHostSeparator);
    const std::string strName(itLast.base(), strPath.end());
    if (strName.empty() || strName == "..") {
        return {strPath, ""};
    }
    const std::string strBelow = strName == "." ? "" : strName;
    if (itLast == strPath.rend()) {
        return {".", strBelow};
    }
    std::string strFolder(strPath.begin(), itLast.base());
    TrimSeparators(strFolder);
    return {strFolder, strBelow};
}

SOURCEPATH SplitSource(const std::string& strPath) {
    const std::string strDrive = PathText(ToPath(strPath).root_name());
    if (strDrive.empty()) {
        return SplitBelowDrive(strPath);
    }
    const std::string strBelow = strPath.substr(strDrive.size());
    const bool bFromRoot = !strBelow.empty() && IsHostSeparator(strBelow.front());
    // "C:a" lies in the drive's current folder, "C:.".
    SOURCEPATH path = SplitBelowDrive(bFromRoot ? strBelow : "./" + strBelow);
    path.strFolder =
        strDrive + (IsHostSeparator(path.strFolder.front()) && path.strFolder.size() == 1
                        ? std::string()
                        : path.strFolder);
    return path;
}

// A drive alone, which is no path to every call of the system, as the drive's current folder.
fs::path AsFolder(const fs::path& path) {
    return path.has_root_name() && path == path.root_name() ? fs::path(path) += fs::path(".")
                                                            : path;
}

// One walk for one push.
class CWalk {
  public:
    explicit CWalk(std::string strDeviceFolder) : m_strDeviceFolder(std::move(strDeviceFolder)) {}

    void AddSource(const std::string& strSource) {
        const SOURCEPATH path = SplitSource(strSource);
        const fs::path hostPath = AsFolder(ToPath(strSource));
        if (HasBackslashInNames(path.strFolder)) {
            LeaveOut(hostPath, "the folder's name contains a backslash, which separates folders "
                               "in a copy: rename it");
            return;
        }
        m_pGroup = &GroupOf(path.strFolder);
        std::error_code error;
        const fs::file_status status = fs::status(hostPath, error);
        if (!fs::exists(status)) {
            LeaveOut(hostPath, fs::status_known(status) ? "there is no such file or folder"
                                                        : error.message());
        } else if (path.strName.empty()) {
            AddFolderContents(hostPath, "");
        } else {
            AddEntry(hostPath, status, "", path.strName);
        }
    }

    HOSTTREE Take() {
        std::erase_if(m_tree.groups, [](const PUSHGROUP& group) { return group.entries.empty(); });
        return std::move(m_tree);
    }

  private:
    void LeaveOut(const fs::path& path, std::string strReason) {
        m_tree.leftOut.push_back({PathText(path), std::move(strReason)});
    }

    PUSHGROUP& GroupOf(const std::string& strFolder) {
        for (PUSHGROUP& group : m_tree.groups) {
            if (group.strSource == strFolder) {
                return group;
            }
        }
        m_tree.groups.push_back({strFolder, {}});
        return m_tree.groups.back();
    }

    // The name's own fault that keeps an entry from travelling, or nothing.
    std::optional<std::string> NameFault(const std::string& strLastName,
                                         const std::string& strName) const {
        if (HasBackslashInNames(strLastName)) {
            return "its name contains a backslash, which separates folders on the device: "
                   "rename it";
        }
        if (!Utf8ToWide(strLastName)) {
            return "its name is not valid UTF-8: rename it";
        }
        if (const char* const lpszFault = DevicePathFault(strName)) {
            return lpszFault + std::string(": rename it");
        }
        if (!ToLibraryText(m_pGroup->strSource + "/" + strName)) {
            return "its path has characters that this system's code page lacks: rename it";
        }
        if (m_pGroup->strSource.size() + 1 + strName.size() > MAX_PATH_BYTES) {
            return "its path is longer than 259 bytes: start from a folder nearer to it, or "
                   "shorten it";
        }
        if (JoinDevicePath(m_strDeviceFolder, strName).size() > MAX_PATH_BYTES) {
            return "its path on the device would be longer than 259 bytes: choose a destination "
                   "with a shorter path";
        }
        return std::nullopt;
    }

    // strParent is the name of the folder below the device folder, empty for that folder itself.
    void AddEntry(const fs::path& path, const fs::file_status& status, const std::string& strParent,
                  const std::string& strLastName) {
        const std::string strName =
            strParent.empty() ? strLastName : strParent + "\\" + strLastName;
        if (const auto strFault = NameFault(strLastName, strName)) {
            LeaveOut(path, *strFault);
        } else if (fs::is_directory(status)) {
            AddFolderContents(path, strName);
        } else if (fs::is_regular_file(status)) {
            AddFile(path, strName);
        } else if (fs::is_symlink(status)) {
            LeaveOut(path, "it is a link; links inside a folder are not followed");
        } else {
            LeaveOut(path, "it is not a regular file");
        }
    }

    void AddFile(const fs::path& path, const std::string& strName) {
        std::error_code error;
        const std::uint64_t qwSize = fs::file_size(path, error);
        const fs::file_time_type timeWritten =
            error ? fs::file_time_type{} : fs::last_write_time(path, error);
        if (error) {
            LeaveOut(path, "it cannot be read: " + error.message());
        } else if (qwSize > MAX_FILE_BYTES) {
            LeaveOut(path, "it has 4 GiB or more, which a copy cannot carry");
        } else if (!std::ifstream(path, std::ios::binary)) {
            LeaveOut(path, "it cannot be read: may you read it?");
        } else if (!m_names.insert(strName).second) {
            LeaveOut(path, "another source already goes to " +
                               JoinDevicePath(m_strDeviceFolder, strName));
        } else {
            m_pGroup->entries.push_back({m_pGroup->strSource + "/" + strName, strName, qwSize,
                                         timeWritten, Utf8ToWide(strName)->size()});
        }
    }

    void AddFolderContents(const fs::path& folder, const std::string& strName) {
        std::error_code error;
        std::vector<fs::directory_entry> entries;
        for (fs::directory_iterator it(folder, error), itEnd; !error && it != itEnd;
             it.increment(error)) {
            entries.push_back(*it);
        }
        if (error) {
            LeaveOut(folder, "the folder cannot be read: " + error.message());
            return;
        }
        if (entries.empty()) {
            m_tree.emptyFolders.push_back(PathText(folder));
        }
        std::sort(entries.begin(), entries.end(), [](const auto& left, const auto& right) {
            return left.path().native() < right.path().native();
        });
        for (const fs::directory_entry& entry : entries) {
            const fs::file_status status = IsLink(entry.path())
                                               ? fs::file_status(fs::file_type::symlink)
                                               : entry.symlink_status(error);
            if (error) {
                LeaveOut(entry.path(), "it cannot be read: " + error.message());
                continue;
            }
            AddEntry(entry.path(), status, strName, PathText(entry.path().filename()));
        }
    }

    std::string m_strDeviceFolder;
    HOSTTREE m_tree;
    PUSHGROUP* m_pGroup = nullptr; // of the source in work
    std::set<std::string> m_names; // taken so far, below the device folder
};

// Bytes of a file's record in the stream ahead of its contents: size, two times, name.
std::uint64_t RecordHead(const HOSTENTRY& entry) {
    return 8 + 16 + 2 * (static_cast<std::uint64_t>(entry.nWireName) + 1);
}

} // namespace

std::uint64_t HOSTTREE::Bytes() const {
    std::uint64_t qwBytes = 0;
    for (const PUSHGROUP& group : groups) {
        for (const HOSTENTRY& entry : group.entries) {
            qwBytes += entry.qwSize;
        }
    }
    return qwBytes;
}

std::size_t HOSTTREE::Files() const {
    std::size_t nFiles = 0;
    for (const PUSHGROUP& group : groups) {
        nFiles += group.entries.size();
    }
    return nFiles;
}

HOSTTREE CollectForPush(const std::vector<std::string>& sources,
                        const std::string& strDeviceFolder) {
    CWalk walk(strDeviceFolder);
    for (const std::string& strSource : sources) {
        walk.AddSource(strSource);
    }
    return walk.Take();
}

std::string HostPath(const std::string& strEntry) {
    std::string strPath = strEntry.starts_with("./") ? strEntry.substr(2) : strEntry;
    const bool bBackslash = IsHostSeparator('\\');
    std::replace(strPath.begin(), strPath.end(), bBackslash ? '/' : '\\', bBackslash ? '\\' : '/');
    return strPath;
}

std::vector<CHANGED> ChangedSince(const PUSHGROUP& group) {
    std::vector<CHANGED> changed;
    for (std::size_t i = 0; i < group.entries.size(); ++i) {
        const HOSTENTRY& entry = group.entries[i];
        const std::string strPath = HostPath(entry.strEntry);
        const fs::path path = ToPath(strPath);
        std::error_code error;
        const std::uint64_t qwSize = fs::file_size(path, error);
        const fs::file_time_type timeWritten =
            error ? fs::file_time_type{} : fs::last_write_time(path, error);
        if (error || !std::ifstream(path, std::ios::binary)) {
            changed.push_back({i, {strPath, "it could no longer be read during the copy"}});
        } else if (qwSize != entry.qwSize || timeWritten != entry.timeWritten) {
            changed.push_back({i, {strPath, "it changed during the copy: push it again"}});
        }
    }
    return changed;
}

std::size_t ConfirmedFiles(const PUSHGROUP& group, std::size_t nCurrent, std::uint64_t qwCopied) {
    // Behind the count of files, the stream is the records one behind the other.
    constexpr std::uint64_t qwStreamHead = 4;
    std::uint64_t qwHandedOver = qwStreamHead;
    for (std::size_t i = 0; i < nCurrent && i < group.entries.size(); ++i) {
        qwHandedOver += RecordHead(group.entries[i]) + group.entries[i].qwSize;
    }
    if (qwCopied > 0 && nCurrent < group.entries.size()) {
        qwHandedOver += RecordHead(group.entries[nCurrent]) + qwCopied;
    }
    // The first window is one package, every further one DAK_WINDOW_PACKAGES.
    const std::uint64_t qwPackages = qwHandedOver / DAK_DATA_SIZE;
    const std::uint64_t qwConfirmed =
        qwPackages == 0 ? 0 : 1 + (qwPackages - 1) / DAK_WINDOW_PACKAGES * DAK_WINDOW_PACKAGES;
    std::uint64_t qwEnd = qwStreamHead;
    std::size_t nFiles = 0;
    for (const HOSTENTRY& entry : group.entries) {
        qwEnd += RecordHead(entry) + entry.qwSize;
        if (qwEnd > qwConfirmed * DAK_DATA_SIZE) {
            break;
        }
        ++nFiles;
    }
    return nFiles;
}

} // namespace cli
