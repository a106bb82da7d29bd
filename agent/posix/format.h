// Formats served folders: each is empty at once, and what it held is removed in the background.
//
// What the host sees of a folder (its view) is the folder itself. A format makes a fresh folder
// S/.dak-format/.dak-N in the folder S and turns the view to it, which takes no longer however deep
// S is and however it is mounted. What lay in S is written down ahead of that, in .dak-N.list
// beside the fresh folder, and then removed; what has come into S since is not. When that is done
// and no exchange is open, S/.dak-format becomes S/.dak-formatted, what the view holds is moved up
// into S, and the view is S again.
//
// The names tell an agent that starts behind another what to go on with. Below .dak-format the
// fresh folder of the highest number is the view. Its list is what is still to be removed; a list
// .dak-N.left is what could not be removed, which keeps the view where it is and is left alone;
// with neither the view can be moved up. Below .dak-formatted all is to be moved up. A fresh
// folder's name is one that no host can make, so that nothing but a format of an agent is ever gone
// on with. The agent that works on .dak-format holds a lock on it.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "agent/posix/format_list.h"
#include "agent/posix/removal.h"
#include "agent/posix/room.h"
#include "agent/posix/system_file.h"

namespace agent {

class CFormats {
  public:
    CFormats(CRoom& room, std::function<void(const std::string&)> lpLog);

    // A folder that is served through fdView, which is turned to another folder as formats come and
    // end. It outlives this object and does not move.
    void Serve(CFd& fdView);

    // Goes on with what an agent before left: for a moment at once, and then by Work. Nothing is
    // removed unless bMayRemove. Behind the last Serve.
    void TakeUp(bool bMayRemove);

    // Empties the folder served through fdView, except other served folders that lie in it.
    // Refused, with null or by the work, when it may not be written, or is served twice.
    std::unique_ptr<CFolderWork> Begin(const CFd& fdView);

    // Whether the host can still find an open file that it has opened: a format, or what has taken
    // its folder away, may have put it out of sight. True also when the system does not tell.
    bool ShowsFile(int fdFile) const;

    // The folders themselves, wherever their views are.
    std::vector<int> Folders() const;

    // Whether a file is one of those in which formats note what they do.
    static bool IsList(std::string_view strName);

    // Whether Work has something to do; bIdle: nothing is in work for the host.
    bool HasWork(bool bIdle) const;

    void Work(bool bIdle, CWorkSlice& slice);

  private:
    using Clock = std::chrono::steady_clock;

    struct CServed {
        CFd& fdView;
        CFd fdFolder;
        CFd fdMarker; // .dak-format, locked; open while a format is not finished
        CFd fdFresh;  // readable, for what it holds
        std::string strFresh;
        CFormatList list = {};
        std::unique_ptr<CRemoval> pRemoval = nullptr; // of what is listed
        bool bAwaitsIdle = false;                     // removed, but not moved up yet
    };

    class CFormat;

    void Log(const std::string& strLine) const;
    bool MayBeFormatted(const CServed& served) const;
    bool Format(CServed& served, const CFormatList& old);
    CSpared OthersThan(const CServed& served) const;
    bool MakeMarker(CServed& served) const;
    bool MakeRoomFor(const CServed& served, const CFormatList& old, Clock::time_point tEnd,
                     const std::function<bool()>& make) const;
    static CFormatList ListOf(const CServed& served, const CFormatList& old);
    static bool TurnTo(CServed& served, const std::string& strFresh);
    void BeginRemoval(CServed& served, CFormatList list) const;
    bool TakeUpView(CServed& served);
    void TakeUpRemoval(CServed& served, bool bMayRemove) const;
    void FinishMovingUp(const CServed& served) const;
    void StepRemoval(CServed& served) const;
    bool MayMoveUp(const CServed& served, std::size_t nMost) const;
    void MoveUp(CServed& served, std::size_t nMost);

    CRoom& m_room;
    std::function<void(const std::string&)> m_lpLog;
    std::vector<std::unique_ptr<CServed>> m_served;
};

} // namespace agent
