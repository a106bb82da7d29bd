// The folder that the agent serves as the device's file system. This header is the contract; the
// implementation is decided where the program is linked.
//
// No path leads out of the folder, also not through a symbolic link: a link that stays inside is
// followed, any other is as if it were not there to be opened. Names are compared as the file
// system below compares them. A storage is a folder elsewhere on the system that is seen as a
// folder of its name in the root, in front of whatever the root holds under that name; it can be
// neither deleted nor replaced. All calls come from one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "agent/device_path.h"
#include "agent/work_slice.h"

namespace agent {

class CFd; // a descriptor of the system's

enum class EResult {
    SUCCESS,
    NO_SPACE, // the disk is full, or the quota is used up
    REFUSED,  // anything else: not there, not allowed, in the way, a broken disk
};

// FILETIME values, 100 ns since 1601; 0: not known.
struct CFileTimes {
    std::uint64_t ftCreation = 0;
    std::uint64_t ftLastWrite = 0;
};

struct CEntryInfo {
    bool bFolder = false; // neither folder nor file is never reported
    std::uint64_t qwSize = 0;
    CFileTimes times;
    bool bReadOnly = false;
    std::uint64_t ftLastAccess = 0; // as in CFileTimes
    // Differs for another entry, and for one whose content has been written since.
    std::uint64_t qwIdentity = 0;
};

// Bytes.
struct CSpace {
    std::uint64_t qwTotal = 0;
    std::uint64_t qwFree = 0;
};

// The longest name of a storage, in UTF-16 units.
inline constexpr std::size_t MAX_STORAGE_NAME = 51;

// A file that arrives under a name of the agent's own, beside its target.
class CPartFile {
  public:
    CPartFile() = default;
    // Not completed: nothing is left of it, and the target is as it was.
    virtual ~CPartFile() = default;
    CPartFile(const CPartFile&) = delete;
    CPartFile& operator=(const CPartFile&) = delete;

    virtual EResult Write(std::span<const std::uint8_t> data) = 0;

    // Sets the times and gives the file its target's name in one step. A file that is replaced
    // hands on its permissions.
    virtual EResult Complete(const CFileTimes& times) = 0;
};

// A file open for reading from its first byte to its last.
class CSourceFile {
  public:
    CSourceFile() = default;
    virtual ~CSourceFile() = default;
    CSourceFile(const CSourceFile&) = delete;
    CSourceFile& operator=(const CSourceFile&) = delete;

    // The next bytes; fewer than data holds only at the end of the file or on an error.
    virtual std::size_t Read(std::span<std::uint8_t> data) = 0;

    // That of its CEntryInfo, as it would be now. Nothing when the file does not tell.
    virtual std::optional<std::uint64_t> Identity() const = 0;
};

// A copy, a move or a format in work.
class CFolderWork {
  public:
    CFolderWork() = default;
    // Not done: source and target are as they were.
    virtual ~CFolderWork() = default;
    CFolderWork(const CFolderWork&) = delete;
    CFolderWork& operator=(const CFolderWork&) = delete;

    // Goes on for a slice. Nothing when there is more to do; not called again behind a result.
    virtual std::optional<EResult> Step(CWorkSlice slice) = 0;
};

// One pass over the entries of a folder, in the order of the file system.
class CFolderScan {
  public:
    enum class ENext {
        NAME,
        LINK,    // the same, but a link to a folder, which can lead round in circles
        SKIPPED, // an entry that the host cannot be told or may not open
        END,
        FAILED, // the rest cannot be read
    };

    CFolderScan() = default;
    virtual ~CFolderScan() = default;
    CFolderScan(const CFolderScan&) = delete;
    CFolderScan& operator=(const CFolderScan&) = delete;

    virtual ENext Next(std::string& strName) = 0;

    // Whether names that differ in letters alone are one, told by one of the names. Nothing when
    // that name cannot tell.
    virtual std::optional<bool> FoldsCase(const std::string& strName) = 0;
};

// How a file is opened by handle.
struct COpenMode {
    enum class EMissing { REFUSE, MAKE };
    enum class EExisting { KEEP, EMPTY, REFUSE };

    bool bRead = false;
    bool bWrite = false;
    // What other handles of the same file may do as long as this one is open.
    bool bShareRead = false;
    bool bShareWrite = false;
    EMissing eMissing = EMissing::REFUSE;
    EExisting eExisting = EExisting::KEEP;
};

// A file that is open by handle. It is the file that was opened, wherever a move takes it; when it
// is deleted or replaced it can still be read, and refuses to be written.
class COpenFile {
  public:
    struct CState {
        std::uint64_t qwSize = 0;
        std::uint64_t qwLastWrite = 0; // moves with every write, by whomever
        bool operator==(const CState&) const = default;
    };

    COpenFile() = default;
    virtual ~COpenFile() = default;
    COpenFile(const COpenFile&) = delete;
    COpenFile& operator=(const COpenFile&) = delete;

    // Whether the file is as its opening wants it: to empty a large one takes a while, and nothing
    // is told until it is over. The first call; behind a failure it is the last.
    virtual std::optional<EResult> Opened() const { return EResult::SUCCESS; }

    // Nothing when the file may not be read, or does not tell.
    virtual std::optional<CState> StateForReading() const = 0;

    // How many bytes there were from qwAt on: fewer than data holds only at the end of the file or
    // on an error.
    virtual std::size_t Read(std::uint64_t qwAt, std::span<std::uint8_t> data) = 0;

    // Whether the file may be written, and may grow to qwEnd bytes.
    virtual EResult JudgeWrite(std::uint64_t qwEnd) const = 0;

    // Puts all of data at qwAt, or says why not; a part of it may then be in the file. What is
    // between the end of the file and qwAt reads as zeroes.
    virtual EResult Write(std::uint64_t qwAt, std::span<const std::uint8_t> data) = 0;

    virtual std::optional<std::uint64_t> Size() const = 0;

    // The last call. A failure says that bytes which were taken before did not reach the disk.
    virtual EResult Close() = 0;
};

class CDeviceFolder {
  public:
    // lpLog may be empty. Null, and the reason in strError, when the folder cannot be served.
    static std::unique_ptr<CDeviceFolder> Open(const std::string& strRoot,
                                               std::function<void(const std::string&)> lpLog,
                                               std::string& strError);

    virtual ~CDeviceFolder() = default;

    // False, and the reason in strError, when the folder cannot be served.
    virtual bool AddStorage(const std::string& strName, const std::string& strFolder,
                            std::string& strError) = 0;

    // Removes what killed agents left of their parts and trash, and goes on with their formats; in
    // the background where it is much. Without bMayFormat what a format has not removed yet stays,
    // out of the host's sight. Called once, behind AddStorage.
    virtual void RemoveLeftovers(bool bMayFormat) = 0;

    // Files below the root and the storages together may not grow over this many bytes. Counts
    // what is there; from then on only what passes through this object is counted.
    virtual void SetQuota(std::uint64_t qwBytes) = 0;

    // Nothing when there is no such file or folder, or it may not be read.
    virtual std::optional<CEntryInfo> Find(const CDevicePath& path) = 0;

    // As Find, but also what may not be read.
    virtual std::optional<CEntryInfo> Describe(const CDevicePath& path) = 0;

    // Null when the folder cannot be read.
    virtual std::unique_ptr<CFolderScan> Scan(const CDevicePath& path) = 0;

    // A file, or a folder with all that it holds, which arrives at target whole or not at all. A
    // file takes the place of a file that is not read-only, a folder that of a folder with all
    // that is in it, but with bFailIfExists nothing takes the place of anything. Refused, with
    // null or by the work: a folder on the way to target that is missing, an entry onto itself, a
    // folder into itself or onto one that it lies in. One such work, or part file, is open at a
    // time.
    virtual std::unique_ptr<CFolderWork>
    BeginCopy(const CDevicePath& source, const CDevicePath& target, bool bFailIfExists) = 0;

    // A file, a folder or a link itself, to a name that is free. On one file system it is one
    // step; to another it is a copy, behind which the source is removed.
    virtual std::unique_ptr<CFolderWork> BeginMove(const CDevicePath& source,
                                                   const CDevicePath& target) = 0;

    // Null when the file cannot be opened.
    virtual std::unique_ptr<CSourceFile> OpenSource(const CDevicePath& path) = 0;

    // What lies at path, to be run or to be the folder that a program starts in, and neither to be
    // read nor written. Not valid when there is nothing.
    virtual CFd OpenProgram(const CDevicePath& path) = 0;

    // Opens a file by handle; it lives no longer than this folder. Refused, and nothing changed:
    // what is no file, one that other handles do not share so, and writing or emptying one that
    // is read-only. Emptying counts as writing.
    virtual EResult OpenFile(const CDevicePath& path, const COpenMode& mode,
                             std::unique_ptr<COpenFile>& pFile) = 0;

    // Begins a file that is to become path, and makes the folders on the way that are missing. One
    // part file is open at a time. Refused at once: a target that is a folder or read-only, and
    // qwSize bytes that the quota has no room for.
    virtual EResult BeginPart(const CDevicePath& path, std::uint64_t qwSize,
                              std::unique_ptr<CPartFile>& pPart) = 0;

    // No part file is open, and none will be for a while.
    virtual void EndParts() = 0;

    // One level; an entry that exists is refused.
    virtual EResult MakeFolder(const CDevicePath& path) = 0;

    // A file that is not read-only, a link itself, or an empty folder.
    virtual EResult Remove(const CDevicePath& path) = 0;

    // The space where a folder lies, or what the quota leaves of it. Nothing when there is no such
    // folder.
    virtual std::optional<CSpace> SpaceOf(const CDevicePath& folder) = 0;

    // In the order in which they were added.
    virtual std::vector<std::string> StorageNames() const = 0;

    // Empties the root or a storage, read-only files included, in a time that does not depend on
    // what lies on it. The root's storages stay as they are wherever their folders lie. What was
    // there can be opened no more from then on; its bytes are given back by Work. No part file is
    // open. Refused, with null or by the work, and nothing is removed but what a full disk forces:
    // any other folder, one that may not be written, and one that is served under two names.
    virtual std::unique_ptr<CFolderWork> BeginFormat(const CDevicePath& storage) = 0;

    // Whether work for the host must wait for what is let go of beside the agent: a second or so.
    // Asked ahead of each slice, and behind each file of a slice with many.
    virtual bool MustWait() { return false; }

    // Whether there is work to be done in the background. bIdle: no exchange is open.
    virtual bool HasWork(bool bIdle) const = 0;

    // Does a slice of it.
    virtual void Work(bool bIdle, CWorkSlice slice) = 0;
};

} // namespace agent
