// Paths and names of the device. A path that exists as a CDevicePath has been judged: it is rooted
// at the device's root, holds no parent component and no name that the agent keeps for itself.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace agent {

// Names that begin so are the agent's own (part files, journals): hidden from the host.
inline constexpr std::string_view RESERVED_PREFIX = ".dak-";

// Whether a name begins so, in whichever case: the file system may take one for the other.
bool IsReserved(std::string_view strName);

// UTF-16 to UTF-8 and back. Nothing when a surrogate stands alone or the UTF-8 is malformed: a
// replacement character would let two names fall together.
std::optional<std::string> ToUtf8(std::u16string_view strText);
std::optional<std::u16string> ToUtf16(std::string_view strText);

class CDevicePath {
  public:
    // The root.
    CDevicePath() = default;

    // A path of a command. Both \ and / separate; a leading separator, empty components and "."
    // change nothing. Refused: "..", drive paths, reserved names, malformed text.
    static std::optional<CDevicePath> Parse(std::u16string_view strPath);

    // A path below this one by a name that comes from the host: as Parse, but a name that is
    // rooted is refused.
    std::optional<CDevicePath> Below(std::u16string_view strName) const;

    // The entry strName (one component) of this folder.
    CDevicePath Entry(std::string_view strName) const;

    bool IsRoot() const { return m_strPath.empty(); }
    CDevicePath Parent() const;
    std::string_view Leaf() const;
    std::string_view FirstComponent() const;

    // UTF-8, components separated by '/', without a separator ahead or behind; empty for the root.
    const std::string& Text() const { return m_strPath; }

    // The path as the host knows it: separated by '\', relative to pFolder, which it lies in or is.
    std::optional<std::u16string> HostNameIn(const CDevicePath& folder) const;

    bool operator==(const CDevicePath&) const = default;

  private:
    std::string m_strPath;
};

// Whether a name found on the disk can be told to the host at all.
bool IsNameForHost(std::string_view strName);

} // namespace agent
