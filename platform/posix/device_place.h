// Where the devices of this system stand: what the host's half and the agent's must agree on, for
// either to include without the other's code.
//
// In the device folder is a folder of the interface class, and in that, for a device NAME, the
// stream socket NAME and the file NAME.lock. The device is attached as long as its agent holds a
// write lock on that file. What the file says is the agent's own for as long as it runs: another
// agent under the same name says something else.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <string_view>

namespace device_place {

inline constexpr char CLASS_FOLDER[] = "{25DBCE51-6C8F-4A72-8A6D-B54C2B4FC835}";
inline constexpr char LOCK_SUFFIX[] = ".lock";
inline constexpr std::size_t MAX_NAME = 64;     // bytes of a device's name
inline constexpr std::size_t MAX_IDENTITY = 64; // bytes of a lock file that count

inline bool IsName(std::string_view strName) {
    return !strName.empty() && strName.size() <= MAX_NAME && strName.front() != '.' &&
           !strName.ends_with(LOCK_SUFFIX) && std::ranges::all_of(strName, [](char ch) {
               return static_cast<unsigned char>(ch) > 0x20 && ch != 0x7F && ch != '/' &&
                      ch != '\\';
           });
}

struct FOLDERCHOICE {
    std::string strPath;
    // Nobody has named this folder, so it must prove to be ours.
    bool bByDefault;
};

// A folder that somebody has named is taken as it stands, from the working folder where it does not
// begin at the root. A runtime folder that does not is none.
inline FOLDERCHOICE ChooseFolder() {
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

// Whether nobody else can have laid anything into the folder; if not, with errno.
inline bool IsOurs(int nFolder) {
    struct stat status {};
    if (::fstat(nFolder, &status) != 0) {
        return false;
    }
    errno = EACCES;
    return status.st_uid == ::geteuid() && (status.st_mode & 0077) == 0;
}

// Opens the folder for names relative to it (O_PATH). -1 with errno: a default one must be a folder
// and no link (ENOTDIR, ELOOP), this user's, and closed to all others (EACCES).
inline int OpenFolder(const FOLDERCHOICE& choice) {
    const int nFolder = ::open(choice.strPath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC |
                                                           (choice.bByDefault ? O_NOFOLLOW : 0));
    if (nFolder < 0 || !choice.bByDefault || IsOurs(nFolder)) {
        return nFolder;
    }
    const int nError = errno;
    ::close(nFolder);
    errno = nError;
    return -1;
}

} // namespace device_place
