// What a folder of the device holds, with what is below it: found by listings, of which each
// costs one and a half seconds of waiting that the exchange demands.
#pragma once

#include "cli/report.h"

#include "link/dak_vorn.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace cli {

struct DEVICEENTRY {
    std::string strPath; // below the root of the walk: "Docs\a.txt", never leading out of it
    bool bFolder = false;
    std::uint64_t qwSize = 0;
    std::uint64_t qwWritten = 0; // in 100 ns since 1601, UTC; 0 when the device does not tell
    DWORD dwAttributes = 0;
};

// A device path whose content is not in the entries, or not to its end.
struct UNLISTED : LEFTOUT {
    enum class Kind {
        Refused,   // the device does not list it
        BrokenOff, // the entries are those that came
        Beyond,    // too deep, or one folder too many
        Circle,  // it shows what many folders above it show, as a link that leads in a circle does
        BadName, // no entry can have the name that the device tells
    };
    Kind eKind;
};

struct DEVICETREE {
    // A folder stands ahead of what is in it; what is in one folder is in the byte order of names.
    std::vector<DEVICEENTRY> entries;
    std::vector<UNLISTED> unlisted;
    // EXIT_DONE, also where something is unlisted. Else what ended the walk: the link, or a request
    // to end (console::CInterrupts); the entries are those of the folders listed so far.
    MEANING meaning;

    std::size_t Files() const;
    std::uint64_t Bytes() const;
};

enum class Depth { Folder, Tree }; // the folder alone, or with all below it

// Called ahead of each listing with the folder's device path and what has been found so far.
using OnListing = std::function<void(const std::string& strFolder, const DEVICETREE& found)>;

// strRoot is a normal device path that leads to a folder. Where there is none, what comes is the
// device's choice: the root as unlisted, no entry, or for a file an entry that is the file itself.
//
// A link to a folder that does not lead in a circle cannot be told from a folder.
DEVICETREE ListDeviceTree(const CONTEXT& context, CDAKVorn& dak, const std::string& strRoot,
                          Depth eDepth, const OnListing& onListing = {});

} // namespace cli
