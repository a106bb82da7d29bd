#include "platform/posix/device_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace platform::posix {
namespace {

constexpr std::string_view LOCK_SUFFIX = ".lock";

struct FOLDERCHOICE {
    std::string strPath;
    // Nobody has named this folder, so it must prove to be ours.
    bool bByDefault;
};

FOLDERCHOICE ChooseFolder() {
    const char* lpszNamed = std::getenv("DAK_DEVICE_DIR");
    if (lpszNamed != nullptr && *lpszNamed != '\0') {
        return {lpszNamed, false};
    }
    const char* lpszRuntime = std::getenv("XDG_RUNTIME_DIR");
    if (lpszRuntime != nullptr && *lpszRuntime == '/') {
        return {std::string(lpszRuntime) + "/dak", true};
    }
    return {"/tmp/dak-" + std::to_string(::geteuid()), true};
}

// Makes the folder, for this user alone; one that is there is no obstacle. A folder that somebody
// has named is made with those above it.
void MakeFolder(const FOLDERCHOICE& choice) {
    if (::mkdir(choice.strPath.c_str(), 0700) == 0 || errno != ENOENT || choice.bByDefault) {
        return;
    }
    for (std::size_t dwAt = choice.strPath.find('/', 1); dwAt != std::string::npos;
         dwAt = choice.strPath.find('/', dwAt + 1)) {
        ::mkdir(choice.strPath.substr(0, dwAt).c_str(), 0700);
    }
    ::mkdir(choice.strPath.c_str(), 0700);
}

bool IsOurs(int nFolder) {
    struct stat status {};
    if (::fstat(nFolder, &status) != 0) {
        return false;
    }
    if (status.st_uid != ::geteuid()) {
        errno = EACCES;
        return false;
    }
    return true;
}

std::string NameOfClass(const GUID& guid) {
    char szName[40];
    const auto& d = guid.Data4;
    std::snprintf(szName, sizeof(szName), "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                  guid.Data1, guid.Data2, guid.Data3, d[0], d[1], d[2], d[3], d[4], d[5], d[6],
                  d[7]);
    return szName;
}

// A device is attached for as long as its process holds a write lock on the file beside its
// socket. The question asks for a lock without taking it, and sees locks of either sort.
bool IsAttached(int nClassFolder, const std::string& strName) {
    struct stat status {};
    if (::fstatat(nClassFolder, strName.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISSOCK(status.st_mode)) {
        return false;
    }
    const std::string strLock = strName + std::string(LOCK_SUFFIX);
    const CDescriptor lock(::openat(nClassFolder, strLock.c_str(),
                                    O_RDONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW | O_CLOEXEC));
    struct flock question {};
    question.l_type = F_RDLCK;
    question.l_whence = SEEK_SET;
    return lock && ::fcntl(lock.Get(), F_OFD_GETLK, &question) == 0 && question.l_type == F_WRLCK;
}

struct CFolderCloser {
    void operator()(DIR* pFolder) const { ::closedir(pFolder); }
};
using CFolderReader = std::unique_ptr<DIR, CFolderCloser>;

CFolderReader OpenClassFolder(int nDeviceFolder, const std::string& strClass) {
    CDescriptor folder(
        ::openat(nDeviceFolder, strClass.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    CFolderReader pFolder(folder ? ::fdopendir(folder.Get()) : nullptr);
    if (pFolder != nullptr) {
        folder.Release();
    }
    return pFolder;
}

} // namespace

DEVICEFOLDER OpenDeviceFolder(FolderUse use) {
    const FOLDERCHOICE choice = ChooseFolder();
    if (use == FolderUse::MakeIfMissing) {
        MakeFolder(choice);
    }
    CDescriptor folder(::open(choice.strPath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC |
                                                          (choice.bByDefault ? O_NOFOLLOW : 0)));
    if (folder && choice.bByDefault && !IsOurs(folder.Get())) {
        const int nError = errno;
        folder = CDescriptor();
        errno = nError;
    }
    return {std::move(folder), choice.strPath};
}

bool ListAttachedDevices(const GUID& classGuid, std::vector<std::string>& names,
                         std::string& strClassFolder) {
    names.clear();
    const DEVICEFOLDER folder = OpenDeviceFolder(FolderUse::LookOnly);
    if (!folder.descriptor) {
        return errno == ENOENT;
    }
    const std::string strClass = NameOfClass(classGuid);
    strClassFolder = folder.strPath + "/" + strClass;
    const CFolderReader pFolder = OpenClassFolder(folder.descriptor.Get(), strClass);
    if (pFolder == nullptr) {
        return errno == ENOENT;
    }
    while (const dirent* pEntry = ::readdir(pFolder.get())) {
        std::string_view strName = pEntry->d_name;
        if (strName.size() > LOCK_SUFFIX.size() && strName.ends_with(LOCK_SUFFIX)) {
            strName.remove_suffix(LOCK_SUFFIX.size());
            names.emplace_back(strName);
        }
    }
    std::erase_if(names, [&](const std::string& strName) {
        return !IsAttached(::dirfd(pFolder.get()), strName);
    });
    std::sort(names.begin(), names.end());
    return true;
}

} // namespace platform::posix
