// What a pull asks the device for, what it may expect of that, and what cannot come.
#pragma once

#include "cli/host_tree.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace cli {

// A file or folder that the device has below a wanted name.
struct PULLENTRY {
    std::string strName = {}; // below the group's folder, with backslashes between the components
    bool bFolder = false;
    std::uint64_t qwSize = 0;
    std::uint64_t qwWritten = 0; // as in DEVICEENTRY
    bool bUnseen = false;        // a folder of which not everything is known
    bool bInTheWay = false;      // it would end a copy of the folder that it is in
    bool bArrived = false;
    std::string strReason = {}; // why it does not come, or did not

    bool IsDue() const { return !bArrived && strReason.empty(); }
};

// What one job of the library can ask for: names in one folder of the device.
struct PULLGROUP {
    std::string strFolder;
    std::vector<std::string> names;

    // A folder ahead of what is in it, in the byte order of names: so the device's agent goes, too.
    std::vector<PULLENTRY> entries;
    std::unordered_map<std::string, std::size_t> indexOf; // by the NameKey of an entry's name

    // An entry whose name is another one's here cannot come.
    void Add(PULLENTRY entry);
    PULLENTRY* Find(const std::string& strName);
    const PULLENTRY* Find(const std::string& strName) const;
    std::string DevicePath(const std::string& strName) const;
};

struct PULLPLAN {
    std::vector<PULLGROUP> groups;
    std::vector<LEFTOUT> missing; // what no group has as an entry
};

// The folder of an entry's name; empty for a wanted name itself.
std::string FolderOf(const std::string& strName);

// Sorts the wanted paths into groups. What cannot be asked for is missing.
PULLPLAN PlanPull(const std::vector<std::string>& sources, const std::string& strDest);

// Gives their reason to the entries that cannot come into a folder of this computer below which a
// path may have so many bytes.
void LeaveOutWhatCannotCome(PULLGROUP& group, std::size_t nMostBytes);

// The names to ask for, so that everything comes that is due and nothing else: a folder by its own
// name, unless something in it is not due.
std::vector<std::string> NamesToAsk(const PULLGROUP& group);

// The folders with nothing in them but such folders.
std::vector<std::string> EmptyFolders(const PULLGROUP& group);

// A name that came, as it was asked for: the device may have its own letters for a wanted one.
// Nothing for a name that does not lie under a wanted one.
std::optional<std::string> AskedName(const PULLGROUP& group, const std::string& strName);

// Adds to the missing what of a group did not come: a folder in the place of all that is in it
// where nothing of it came, but for what has a reason of its own. lpszDefault is the reason of what
// has none of its own.
void AddMissing(const PULLGROUP& group, const char* lpszDefault, std::vector<LEFTOUT>& missing);

// Adds the wanted names under which nothing came.
void AddBarrenWanted(const PULLGROUP& group, const char* lpszReason, std::vector<LEFTOUT>& missing);

} // namespace cli
