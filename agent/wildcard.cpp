#include "agent/wildcard.h"

namespace agent {

static char Folded(char chNext) {
    return chNext >= 'A' && chNext <= 'Z' ? static_cast<char>(chNext - 'A' + 'a') : chNext;
}

// Behind the character at dwAt.
static std::size_t NextCharacter(std::string_view strText, std::size_t dwAt) {
    do {
        ++dwAt;
    } while (dwAt < strText.size() && (static_cast<unsigned char>(strText[dwAt]) & 0xC0) == 0x80);
    return dwAt;
}

CWildcard::CWildcard(std::string_view strPattern, bool bFoldCase) : m_bFoldCase(bFoldCase) {
    for (const char chNext : strPattern == "*.*" ? "*" : strPattern) {
        if (chNext != '*' || !m_strPattern.ends_with('*')) {
            m_strPattern.push_back(bFoldCase ? Folded(chNext) : chNext);
        }
    }
}

// On a mismatch the latest * takes one more character; those ahead of it need not be tried again.
bool CWildcard::Matches(std::string_view strName) const {
    std::size_t dwName = 0;
    std::size_t dwPattern = 0;
    std::size_t dwStar = std::string::npos; // behind the latest *
    std::size_t dwStarName = 0;             // from where it does not take any more
    while (dwName < strName.size()) {
        const char chPattern = dwPattern < m_strPattern.size() ? m_strPattern[dwPattern] : '\0';
        const char chName = m_bFoldCase ? Folded(strName[dwName]) : strName[dwName];
        if (chPattern == '*') {
            dwStar = ++dwPattern;
            dwStarName = dwName;
        } else if (chPattern == '?') {
            dwName = NextCharacter(strName, dwName);
            ++dwPattern;
        } else if (chPattern == chName) {
            ++dwName;
            ++dwPattern;
        } else if (dwStar != std::string::npos) {
            dwStarName = NextCharacter(strName, dwStarName);
            dwName = dwStarName;
            dwPattern = dwStar;
        } else {
            return false;
        }
    }
    return dwPattern == m_strPattern.size() ||
           (dwPattern + 1 == m_strPattern.size() && m_strPattern[dwPattern] == '*');
}

} // namespace agent
