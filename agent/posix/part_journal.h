// Notes the folder in which a part file lies, in a hidden file of the root or the storage that this
// is part of, so that the next agent can remove what a killed one leaves without looking through
// the whole tree.
//
// The file exists only while parts are in work, and its owner holds a lock on it: a journal that
// can be locked belongs to nobody any more. Its name carries an identity drawn for each agent, and
// the one part file that an agent has open at a time carries the same.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "agent/posix/system_file.h"

namespace agent {

class CPartJournal {
  public:
    // fdTop: the root or the storage.
    explicit CPartJournal(int fdTop);
    ~CPartJournal() { Clear(); }
    CPartJournal(const CPartJournal&) = delete;
    CPartJournal& operator=(const CPartJournal&) = delete;

    // Begins as reserved names do.
    const std::string& Identity() const { return m_strIdentity; }
    const std::string& PartName() const { return m_strPartName; }

    // The part file is about to be made in strFolder, a path below the top. False with errno set.
    bool Enter(const std::string& strFolder);

    // No part file is left.
    void Clear();

    // The part file could not be removed: the journal is left to the next agent, and parts from
    // now on have another name.
    void Abandon();

    // Whether a name in the top is that of a journal, of whichever agent.
    static bool IsJournal(std::string_view strName);

    // Calls remove(folder, name of the part file) for each journal beside this that nobody holds,
    // and removes the journal when that says that the part file is gone.
    void CleanUp(const std::function<bool(const std::string&, const std::string&)>& remove) const;

  private:
    void DrawIdentity();
    bool Make();

    const CFd m_fdTop; // the folder itself, whatever a format turns the host to
    std::string m_strIdentity;
    std::string m_strName;
    std::string m_strPartName;
    std::string m_strFolder;
    CFd m_fd;
};

} // namespace agent
