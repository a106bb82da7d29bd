#include "platform/posix/device_folder.h"

#include "platform/posix/device_place.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <optional>
#include <string_view>

namespace platform::posix {
namespace {

// What the lock file is: the words of the agent that holds it, or the file itself where it has
// none.
std::string IdentityOf(int nLock) {
    std::array<char, device_place::MAX_IDENTITY> szText{};
    const ssize_t nRead = ::pread(nLock, szText.data(), szText.size(), 0);
    if (nRead > 0) {
        return {szText.data(), static_cast<std::size_t>(nRead)};
    }
    struct stat status {};
    ::fstat(nLock, &status);
    return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

// A device is attached for as long as its process holds a write lock on the file beside its
// socket. The question asks for a lock without taking it, and sees locks of either sort. Without an
// answer errno may be that of a process that has no room to ask.
std::optional<ATTACHEDDEVICE> FindAttached(int nClassFolder, const std::string& strName) {
    struct stat status {};
    if (::fstatat(nClassFolder, strName.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISSOCK(status.st_mode)) {
        return std::nullopt;
    }
    const std::string strLock = strName + device_place::LOCK_SUFFIX;
    const CDescriptor lock(::openat(nClassFolder, strLock.c_str(),
                                    O_RDONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW | O_CLOEXEC));
    struct flock question {};
    question.l_type = F_RDLCK;
    question.l_whence = SEEK_SET;
    if (!lock || ::fcntl(lock.Get(), F_OFD_GETLK, &question) != 0 || question.l_type != F_WRLCK) {
        return std::nullopt;
    }
    return ATTACHEDDEVICE{strName, IdentityOf(lock.Get())};
}

struct CFolderCloser {
    void operator()(DIR* pFolder) const { ::closedir(pFolder); }
};
using CFolderReader = std::unique_ptr<DIR, CFolderCloser>;

bool IsLackOfRoom(int nError) {
    return nError == EMFILE || nError == ENFILE || nError == ENOMEM;
}

CFolderReader OpenClassFolder(int nDeviceFolder) {
    CDescriptor folder(::openat(nDeviceFolder, device_place::CLASS_FOLDER,
                                O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    CFolderReader pFolder(folder ? ::fdopendir(folder.Get()) : nullptr);
    if (pFolder != nullptr) {
        folder.Release();
    }
    return pFolder;
}

} // namespace

CDescriptor OpenDeviceFolder(FolderUse use, std::string* lpPath) {
    const device_place::FOLDERCHOICE choice = device_place::ChooseFolder();
    // A name that somebody has given may be mistyped.
    if (use == FolderUse::MakeIfMissing && choice.bByDefault) {
        ::mkdir(choice.strPath.c_str(), 0700);
    }
    if (lpPath != nullptr) {
        *lpPath = choice.strPath;
    }
    return CDescriptor(device_place::OpenFolder(choice));
}

bool ListAttachedDevices(std::vector<ATTACHEDDEVICE>& devices, std::string& strClassFolder) {
    devices.clear();
    const CDescriptor folder = OpenDeviceFolder(FolderUse::LookOnly, &strClassFolder);
    if (!folder) {
        return errno == ENOENT;
    }
    // Where no lock between programs can be made, no device can be worked with.
    if (::faccessat(folder.Get(), ".", W_OK | X_OK, AT_EACCESS) != 0) {
        return false;
    }
    strClassFolder = strClassFolder + "/" + device_place::CLASS_FOLDER;
    const CFolderReader pFolder = OpenClassFolder(folder.Get());
    if (pFolder == nullptr) {
        return errno == ENOENT;
    }
    while (const dirent* pEntry = ::readdir(pFolder.get())) {
        std::string_view strName = pEntry->d_name;
        const std::string_view strSuffix = device_place::LOCK_SUFFIX;
        if (strName.size() > strSuffix.size() && strName.ends_with(strSuffix)) {
            strName.remove_suffix(strSuffix.size());
            errno = 0;
            if (auto device = FindAttached(::dirfd(pFolder.get()), std::string(strName))) {
                devices.push_back(std::move(*device));
            } else if (IsLackOfRoom(errno)) {
                return false;
            }
        }
    }
    std::ranges::sort(devices, {}, &ATTACHEDDEVICE::strName);
    return true;
}

} // namespace platform::posix
