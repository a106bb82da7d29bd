// Formats served folders: each is empty at once, and what it held is removed in the background.
//
// What the host sees of a folder (its view) is the folder itself. A format makes a fresh folder
// S/.dak-format/.dak-N in the folder S and turns the view to it, which takes one call however much
// S holds and however S is mounted. Then everything else in S is removed. When that is done and no
// exchange is open, S/.dak-format becomes S/.dak-formatted, what the view holds is moved up into S,
// and the view is S again.
//
// The two names tell an agent that starts behind a killed one what to go on with: below
// .dak-format the fresh folder of the highest number is the view, and all else is to be removed;
// below .dak-formatted all is to be moved up. A fresh folder's name is one that no host can make,
// so that nothing but a format of an agent is ever gone on with. The agent that works on
// .dak-format holds a lock on it.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/posix/removal.h"
#include "agent/posix/system_file.h"
#include "agent/quota.h"

namespace agent {

class CFormats {
  public:
    CFormats(CQuota& quota, std::function<void(const std::string&)> lpLog);

    // A folder that is served through fdView, which is turned to another folder as formats come and
    // end. It outlives this object and does not move.
    void Serve(CFd& fdView);

    // Goes on with what an agent before left: for a moment at once, and then by Work. Behind the
    // last Serve.
    void TakeUp();

    // Empties the folder served through fdView, except other served folders that lie in it. False
    // when it is not empty behind that: it may not be written, or is served twice.
    bool Format(const CFd& fdView);

    // Whether the host can still find an open file that it has opened: a format, or what has taken
    // its folder away, may have put it out of sight. True also when the system does not tell.
    bool ShowsFile(int fdFile) const;

    // The folders themselves, wherever their views are.
    std::vector<int> Folders() const;

    // Whether Work has something to do; bIdle: nothing is in work for the host.
    bool HasWork(bool bIdle) const;

    // Works for a few milliseconds.
    void Work(bool bIdle);

  private:
    using Clock = std::chrono::steady_clock;

    struct CServed {
        CFd& fdView;
        CFd fdFolder;
        CFd fdMarker; // .dak-format, locked; open while a format is not finished
        CFd fdFresh;  // readable, for what it holds
        std::string strFresh;
        std::unique_ptr<CRemoval> pRemoval = nullptr;
        bool bAwaitsIdle = false; // removed, but not moved up yet
    };

    void Log(const std::string& strLine) const;
    CSpared OthersThan(const CServed& served) const;
    bool MakeMarker(CServed& served, Clock::time_point tEnd) const;
    bool MakeRoomFor(CServed& served, Clock::time_point tEnd,
                     const std::function<bool()>& make) const;
    bool TurnTo(CServed& served, const std::string& strFresh);
    void TakeUp(CServed& served);
    void StepRemoval(CServed& served) const;
    bool MayMoveUp(const CServed& served, std::size_t nMost) const;
    void MoveUp(CServed& served, std::size_t nMost);

    CQuota& m_quota;
    std::function<void(const std::string&)> m_lpLog;
    std::vector<std::unique_ptr<CServed>> m_served;
};

} // namespace agent
