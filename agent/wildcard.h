// Patterns of a listing: * stands for any characters or none, ? for one character.
#pragma once

#include <string>
#include <string_view>

namespace agent {

inline bool IsPattern(std::string_view strName) {
    return strName.find_first_of("*?") != std::string_view::npos;
}

// A pattern taken apart once, for many names.
class CWildcard {
  public:
    // UTF-8. "*.*" stands for all names, with or without a dot. bFoldCase: ASCII letters match in
    // either case.
    CWildcard(std::string_view strPattern, bool bFoldCase);

    bool Matches(std::string_view strName) const;

  private:
    std::string m_strPattern; // folded if it folds, runs of * made one
    bool m_bFoldCase;
};

} // namespace agent
