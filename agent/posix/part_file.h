// A part file in an open folder of the file system.
#pragma once

#include <string>

#include "agent/posix/part_journal.h"
#include "agent/posix/room.h"
#include "agent/posix/system_file.h"

namespace agent {

class CPosixPartFile final : public CPartFile {
  public:
    // Makes the part file, which journal has entered, in fdFolder. Not Open() on failure, errno
    // says why. journal and room outlive it.
    CPosixPartFile(CFd fdFolder, CPartJournal& journal, std::string strTarget, CRoom& room);
    ~CPosixPartFile() override;

    bool Open() const { return static_cast<bool>(m_fd); }

    EResult Write(std::span<const std::uint8_t> data) override;
    EResult Complete(const CFileTimes& times) override;

  private:
    void Remove();

    CFd m_fdFolder;
    CPartJournal& m_journal;
    const std::string m_strPart;
    const std::string m_strTarget;
    CRoom& m_room;
    CFd m_fd;
    std::uint64_t m_qwWritten = 0;
};

// Whether a file may take the name: SUCCESS when there is none or one that may be replaced.
EResult JudgeTarget(int fdFolder, const std::string& strTarget);

} // namespace agent
