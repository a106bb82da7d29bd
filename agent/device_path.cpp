#include "agent/device_path.h"

#include <algorithm>
#include <cstdint>

namespace agent {

static void AppendUtf8(std::string& strOut, std::uint32_t dwCode) {
    const auto put = [&strOut](std::uint32_t dwByte) {
        strOut.push_back(static_cast<char>(static_cast<unsigned char>(dwByte)));
    };
    if (dwCode < 0x80) {
        put(dwCode);
    } else if (dwCode < 0x800) {
        put(0xC0 | (dwCode >> 6));
        put(0x80 | (dwCode & 0x3F));
    } else if (dwCode < 0x10000) {
        put(0xE0 | (dwCode >> 12));
        put(0x80 | ((dwCode >> 6) & 0x3F));
        put(0x80 | (dwCode & 0x3F));
    } else {
        put(0xF0 | (dwCode >> 18));
        put(0x80 | ((dwCode >> 12) & 0x3F));
        put(0x80 | ((dwCode >> 6) & 0x3F));
        put(0x80 | (dwCode & 0x3F));
    }
}

std::optional<std::string> ToUtf8(std::u16string_view strText) {
    std::string strOut;
    strOut.reserve(strText.size());
    for (std::size_t i = 0; i < strText.size(); ++i) {
        std::uint32_t dwCode = strText[i];
        if (dwCode >= 0xDC00 && dwCode < 0xE000) {
            return std::nullopt;
        }
        if (dwCode >= 0xD800 && dwCode < 0xDC00) {
            if (i + 1 == strText.size() || strText[i + 1] < 0xDC00 || strText[i + 1] > 0xDFFF) {
                return std::nullopt;
            }
            dwCode = 0x10000 + ((dwCode - 0xD800) << 10) + (strText[++i] - 0xDC00U);
        }
        AppendUtf8(strOut, dwCode);
    }
    return strOut;
}

std::optional<std::u16string> ToUtf16(std::string_view strText) {
    std::u16string strOut;
    strOut.reserve(strText.size());
    for (std::size_t i = 0; i < strText.size();) {
        const auto byLead = static_cast<unsigned char>(strText[i]);
        const std::size_t nMore = byLead < 0x80             ? 0
                                  : (byLead & 0xE0) == 0xC0 ? 1
                                  : (byLead & 0xF0) == 0xE0 ? 2
                                  : (byLead & 0xF8) == 0xF0 ? 3
                                                            : strText.size();
        if (nMore >= strText.size() - i) {
            return std::nullopt;
        }
        std::uint32_t dwCode = nMore == 0 ? byLead : byLead & (0x3FU >> nMore);
        for (std::size_t j = 1; j <= nMore; ++j) {
            const auto byNext = static_cast<unsigned char>(strText[i + j]);
            if ((byNext & 0xC0) != 0x80) {
                return std::nullopt;
            }
            dwCode = (dwCode << 6) | (byNext & 0x3FU);
        }
        static constexpr std::uint32_t s_least[] = {0, 0x80, 0x800, 0x10000};
        if (dwCode < s_least[nMore] || dwCode > 0x10FFFF || (dwCode >= 0xD800 && dwCode < 0xE000)) {
            return std::nullopt;
        }
        if (dwCode >= 0x10000) {
            strOut.push_back(static_cast<char16_t>(0xD800 + ((dwCode - 0x10000) >> 10)));
            strOut.push_back(static_cast<char16_t>(0xDC00 + ((dwCode - 0x10000) & 0x3FF)));
        } else {
            strOut.push_back(static_cast<char16_t>(dwCode));
        }
        i += nMore + 1;
    }
    return strOut;
}

bool IsReserved(std::string_view strName) {
    return strName.size() >= RESERVED_PREFIX.size() &&
           std::equal(RESERVED_PREFIX.begin(), RESERVED_PREFIX.end(), strName.begin(),
                      [](char chReserved, char ch) {
                          return chReserved == (ch >= 'A' && ch <= 'Z' ? ch - 'A' + 'a' : ch);
                      });
}

static bool IsSeparator(char16_t unit) {
    return unit == u'\\' || unit == u'/';
}

static bool IsDrive(std::u16string_view strText) {
    return strText.size() >= 2 && strText[1] == u':' &&
           ((strText[0] >= u'A' && strText[0] <= u'Z') ||
            (strText[0] >= u'a' && strText[0] <= u'z'));
}

std::optional<CDevicePath> CDevicePath::Parse(std::u16string_view strPath) {
    while (!strPath.empty() && IsSeparator(strPath.front())) {
        strPath.remove_prefix(1);
    }
    return CDevicePath().Below(strPath);
}

std::optional<CDevicePath> CDevicePath::Below(std::u16string_view strName) const {
    if (IsDrive(strName) || (!strName.empty() && IsSeparator(strName.front()))) {
        return std::nullopt;
    }
    CDevicePath path = *this;
    while (!strName.empty()) {
        const auto itEnd = std::find_if(strName.begin(), strName.end(), IsSeparator);
        const auto nLength = static_cast<std::size_t>(itEnd - strName.begin());
        const std::u16string_view strComponent = strName.substr(0, nLength);
        strName.remove_prefix(std::min(nLength + 1, strName.size()));
        if (strComponent.empty() || strComponent == u".") {
            continue;
        }
        const std::optional<std::string> strUtf8 = ToUtf8(strComponent);
        if (!strUtf8 || *strUtf8 == ".." || IsReserved(*strUtf8) ||
            strUtf8->find('\0') != std::string::npos) {
            return std::nullopt;
        }
        path = path.Entry(*strUtf8);
    }
    return path;
}

CDevicePath CDevicePath::Entry(std::string_view strName) const {
    CDevicePath path = *this;
    if (!path.m_strPath.empty()) {
        path.m_strPath.push_back('/');
    }
    path.m_strPath.append(strName);
    return path;
}

CDevicePath CDevicePath::Parent() const {
    CDevicePath path;
    const std::size_t dwSlash = m_strPath.rfind('/');
    if (dwSlash != std::string::npos) {
        path.m_strPath = m_strPath.substr(0, dwSlash);
    }
    return path;
}

std::string_view CDevicePath::Leaf() const {
    const std::size_t dwSlash = m_strPath.rfind('/');
    return std::string_view(m_strPath).substr(dwSlash == std::string::npos ? 0 : dwSlash + 1);
}

std::string_view CDevicePath::FirstComponent() const {
    return std::string_view(m_strPath).substr(0, m_strPath.find('/'));
}

std::optional<std::u16string> CDevicePath::HostNameIn(const CDevicePath& folder) const {
    std::string_view strRest = m_strPath;
    strRest.remove_prefix(std::min(strRest.size(), folder.m_strPath.size()));
    if (!strRest.empty() && strRest.front() == '/') {
        strRest.remove_prefix(1);
    }
    std::optional<std::u16string> strName = ToUtf16(strRest);
    if (strName) {
        std::replace(strName->begin(), strName->end(), u'/', u'\\');
    }
    return strName;
}

bool IsNameForHost(std::string_view strName) {
    return strName.find('\\') == std::string_view::npos && !IsReserved(strName) &&
           ToUtf16(strName).has_value();
}

} // namespace agent
