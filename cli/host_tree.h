// What a push sends: the host's files and folders, walked and laid out as the library takes them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace cli {

// A file to send.
struct HOSTENTRY {
    std::string strEntry; // for the library: source folder, separator, name with backslashes
    std::string strName;  // the name it gets below the device folder
    std::uint64_t qwSize;
    std::filesystem::file_time_type timeWritten;
    std::size_t nWireName; // UTF-16 units of the name, without terminator
};

// Something that does not travel, and why.
struct LEFTOUT {
    std::string strPath;
    std::string strReason;
};

// What one job of the library can carry: files below one host folder.
struct PUSHGROUP {
    std::string strSource;
    std::vector<HOSTENTRY> entries;
};

struct HOSTTREE {
    std::vector<PUSHGROUP> groups;
    std::vector<LEFTOUT> leftOut;
    std::vector<std::string> emptyFolders; // not an error: a copy carries files alone

    std::uint64_t Bytes() const;
    std::size_t Files() const;
};

// Walks the sources for a copy into strDeviceFolder, a normal device path. A file goes by its name,
// a folder with its name and all below it; a path that ends in "." or "..", and a root, stands for
// what is in that folder. Sources of the same parent folder form one group, in the order given;
// folders are walked in the byte order of their names. A source that is a link is followed; links
// met on the walk are not, so that no walk leaves its folder or runs in a circle.
HOSTTREE CollectForPush(const std::vector<std::string>& sources,
                        const std::string& strDeviceFolder);

// The files that are no longer as they were when they were collected: gone, unreadable, or of
// another size or time. What the device holds of these is not what the host holds. In the order of
// the group, of which nEntry is the index.
struct CHANGED {
    std::size_t nEntry;
    LEFTOUT leftOut;
};
std::vector<CHANGED> ChangedSince(const PUSHGROUP& group);

// An entry's path, or its name, as the host's own programs write it.
std::string HostPath(const std::string& strEntry);

// How many files of a group, from its first on, the device has confirmed with certainty when
// nCurrent is the file in work and qwCopied of its bytes have been handed to the stream. The device
// confirms whole windows of packages; what lies behind the last confirmed window does not count.
std::size_t ConfirmedFiles(const PUSHGROUP& group, std::size_t nCurrent, std::uint64_t qwCopied);

} // namespace cli
