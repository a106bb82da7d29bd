// Copies and moves within the device's folder: what may take whose place, and what stays when the
// work is given up.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "agent/device_folder.h"
#include "agent/posix/part_journal.h"
#include "agent/posix/room.h"
#include "agent/posix/system_file.h"
#include "agent/posix/trash.h"

namespace agent {

// An entry by its folder, whether it exists or not.
struct CPlace {
    CFd fdFolder;
    std::string strFolder; // its path below the root or the storage that it is part of
    std::string strName;
    CTrash* lpTrash; // of those
    CPartJournal* lpJournal;
};

// Outlive the work.
struct CFolderParts {
    CRoom& room;
    std::vector<int> served; // the root and the storages, wherever they lie
};

// fdSource: the file or folder, opened for reading.
std::unique_ptr<CFolderWork> MakeCopy(CFd fdSource, CPlace target, bool bFailIfExists,
                                      const CFolderParts& parts);

// fdSource: the same; it is read only when the target lies on another file system, and not valid
// for a link that leads nowhere.
std::unique_ptr<CFolderWork> MakeMove(CFd fdSource, CPlace source, CPlace target,
                                      const CFolderParts& parts);

} // namespace agent
