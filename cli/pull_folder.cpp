#include "cli/pull_folder.h"

#include "cli/host_names.h"

#include "platform/types.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <random>
#include <string_view>
#include <utility>

namespace fs = std::filesystem;

namespace cli {
namespace {

// ".dak-pull-" and four hexadecimal digits. In it: a file that is held as long as the pull lives,
// and the folder that the library writes into. Paths are short of room, and so are these names.
constexpr std::string_view FOLDER_BEGIN = ".dak-pull-";
constexpr std::size_t FOLDER_DIGITS = 4;
constexpr const char* HELD_NAME = "pull";
constexpr const char* LANDING_NAME = "i";

std::string RandomName() {
    static std::random_device random;
    std::array<char, FOLDER_DIGITS + 1> szDigits{};
    std::snprintf(szDigits.data(), szDigits.size(), "%04x", random() & 0xFFFFU);
    return std::string(FOLDER_BEGIN) + szDigits.data();
}

bool IsPullName(std::string_view strName) {
    return strName.size() == FOLDER_BEGIN.size() + FOLDER_DIGITS &&
           strName.starts_with(FOLDER_BEGIN) &&
           strName.find_first_not_of("0123456789abcdef", FOLDER_BEGIN.size()) == strName.npos;
}

bool IsFolder(const fs::directory_entry& entry) {
    std::error_code error;
    return !IsLink(entry.path()) && fs::is_directory(entry.symlink_status(error));
}

// Calls take for what is in a folder, deepest first. A folder is entered, a link is not.
template <class TAKE>
void ForEachBelow(const fs::path& folder, TAKE take) {
    std::error_code error;
    std::vector<fs::directory_entry> entries;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
        entries.push_back(*it);
    }
    for (const fs::directory_entry& entry : entries) {
        if (IsFolder(entry)) {
            ForEachBelow(entry.path(), take);
        }
        take(entry);
    }
}

void RemoveBelow(const fs::path& folder) {
    ForEachBelow(folder, [](const fs::directory_entry& entry) {
        std::error_code error;
        fs::remove(entry.path(), error);
    });
}

// What a pull has made, and nothing else.
void RemoveOwn(const fs::path& folder, std::unique_ptr<CHeldFile> pHeld) {
    std::error_code error;
    RemoveBelow(folder / LANDING_NAME);
    fs::remove(folder / LANDING_NAME, error);
    pHeld.reset();
    fs::remove(folder / HELD_NAME, error);
    fs::remove(folder, error);
}

} // namespace

std::size_t MostNameBytes(const std::string& strLibraryPath) {
    constexpr std::size_t nMost = MAX_PATH - 1;
    return nMost - std::min(nMost, strLibraryPath.size() + 1);
}

fs::path BelowPath(const std::string& strName) {
    std::string strPath = strName;
    std::ranges::replace(strPath, '\\', '/');
    return ToPath(strPath);
}

CPullFolder::~CPullFolder() {
    if (!m_folder.empty()) {
        RemoveOwn(m_folder, std::move(m_pHeld));
    }
}

fs::path CPullFolder::Landing() const {
    return m_folder / LANDING_NAME;
}

void CPullFolder::ClearDead() const {
    std::error_code error;
    std::vector<fs::path> folders;
    for (fs::directory_iterator it(m_dest, error), end; !error && it != end; it.increment(error)) {
        if (IsPullName(PathText(it->path().filename())) && IsOwnFolder(it->path())) {
            folders.push_back(it->path());
        }
    }
    for (const fs::path& folder : folders) {
        auto pHeld = std::make_unique<CHeldFile>(folder / HELD_NAME, CHeldFile::How::Existing);
        if (pHeld->Held()) {
            RemoveOwn(folder, std::move(pHeld));
        } else {
            fs::remove(folder, error); // one that was killed at its very beginning is empty
        }
    }
}

std::error_code CPullFolder::Make() {
    constexpr int nTries = 10;
    std::error_code error;
    for (int nTry = 1; nTry <= nTries; ++nTry) {
        const fs::path folder = m_dest / RandomName();
        error = MakeOwnFolder(folder);
        if (error == std::errc::file_exists) {
            continue;
        }
        if (error) {
            break;
        }
        auto pHeld = std::make_unique<CHeldFile>(folder / HELD_NAME, CHeldFile::How::New);
        fs::create_directory(folder / LANDING_NAME, error);
        // Another pull may have taken it for a dead one's before it was held. Where nothing can be
        // held, no pull clears anything.
        const bool bOurs = pHeld->Held() ? pHeld->IsAt(folder / HELD_NAME) : nTry == nTries;
        if (!error && bOurs) {
            m_folder = folder;
            m_pHeld = std::move(pHeld);
            m_pShort = std::make_unique<CShortPath>(Landing());
            return {};
        }
        RemoveOwn(folder, std::move(pHeld));
    }
    return error ? error : std::make_error_code(std::errc::device_or_resource_busy);
}

std::vector<LANDED> CPullFolder::Look() const {
    std::vector<LANDED> landed;
    const fs::path folder = Landing();
    ForEachBelow(folder, [&](const fs::directory_entry& entry) {
        std::error_code error;
        if (IsLink(entry.path()) || !fs::is_regular_file(entry.symlink_status(error))) {
            return;
        }
        std::string strName = PathText(entry.path().lexically_relative(folder));
        std::replace_if(strName.begin(), strName.end(), IsHostSeparator, '\\');
        const std::uint64_t qwSize = entry.file_size(error);
        landed.push_back({std::move(strName), error ? 0 : qwSize});
    });
    std::ranges::sort(landed, {}, &LANDED::strName);
    return landed;
}

std::string CPullFolder::Place(const std::string& strName, const std::string& strTarget) const {
    const fs::path from = Landing() / BelowPath(strName);
    const fs::path to = m_dest / BelowPath(strTarget);
    std::error_code error;
    fs::create_directories(to.parent_path(), error);
    if (!fs::is_directory(to.parent_path(), error)) {
        return "its folder cannot be made here: " +
               (error ? error : std::make_error_code(std::errc::not_a_directory)).message();
    }
    if (fs::is_directory(to, error) && !IsLink(to)) {
        return "there is a folder of that name here";
    }
    error = MoveOver(from, to);
    if (error == std::errc::cross_device_link) {
        error = CopyOver(from, to);
    }
    return error ? "it came, but cannot be put into its place: " + error.message() : "";
}

// To another file system, by way of a folder of a pull's own there: the name is taken in one step
// as well.
std::error_code CPullFolder::CopyOver(const fs::path& from, const fs::path& to) {
    CPullFolder beside(to.parent_path());
    beside.ClearDead();
    std::error_code error = beside.Make();
    const fs::path part = beside.Landing() / LANDING_NAME;
    if (error || !fs::copy_file(from, part, error)) {
        return error;
    }
    // Without its time it is better than not at all.
    fs::last_write_time(part, fs::last_write_time(from, error), error);
    return MoveOver(part, to);
}

void CPullFolder::Empty() const {
    RemoveBelow(Landing());
}

} // namespace cli
