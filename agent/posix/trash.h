// Entries that are to go, however much lies in them: set aside in one step, removed in slices when
// the agent has time.
//
// The trash of a root or a storage lies in its topmost folder under reserved names, so that the
// next agent finds what a killed one left; only what cannot be brought there, from a file system
// that is mounted below, is set aside where it is. Trash has no owner: agents that share a folder
// may remove each other's.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>

#include "agent/posix/directory.h"
#include "agent/posix/room.h"

namespace agent {

class CTrash {
  public:
    // fdTop: the root or the storage. room outlives the object; strIdentity begins as reserved
    // names do.
    CTrash(int fdTop, std::string strIdentity, CRoom& room)
        : m_fdTop(OpenBelow(fdTop, "", O_PATH | O_DIRECTORY)),
          m_strIdentity(std::move(strIdentity)), m_room(room) {}

    // Takes an entry of a folder away, in one step. False with errno set, and the entry is as it
    // was.
    bool TakeIn(int fdFolder, const std::string& strName);

    // Takes over what agents before have left.
    void Adopt();

    bool Empty() const { return m_qwNext == m_qwEnd && m_elsewhere.empty(); }

    // Removes about one entry.
    void Step();

  private:
    std::string Name(std::uint64_t qwItem) const;
    bool Move(int fdFolder, const std::string& strName);
    bool Open();
    bool RemoveEntry(const char* lpszName);
    bool Unlink(int fdFolder, const char* lpszName, bool& bFolder);
    void StepOwn();

    const CFd m_fdTop; // the folder itself, whatever a format turns the host to
    const std::string m_strIdentity;
    CRoom& m_room;
    // Items are numbered; those from next to end are there still. What a folder among them holds
    // in folders becomes items too, so that no depth needs a stack.
    std::uint64_t m_qwNext = 0;
    std::uint64_t m_qwEnd = 0;
    std::unique_ptr<CDirectory> m_pOpen; // of the next item
    bool m_bProgress = false;            // something has been removed from it
    // For entries that are set aside in a folder of their own.
    std::vector<std::unique_ptr<CTrash>> m_elsewhere;
    unsigned m_nElsewhere = 0; // that there have been
};

} // namespace agent
