// Scripts of tests: steps with a semicolon between them, each with what it comes to.
//
//   put d/a new; !copy d/a d/a; disk root/d = a=new
//
// That is what stands behind " = ", behind ! an n, behind % an f, and else a y.
#pragma once

#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace test {

class CScript {
  public:
    CScript() = default;
    virtual ~CScript() = default;
    CScript(const CScript&) = delete;
    CScript& operator=(const CScript&) = delete;

    void Play(const std::string& strScript) {
        static const std::regex s_step(R"(\s*([!%]?)([^;]*?)( =(?: ([^;]*?))?)?\s*(;|$))");
        for (std::sregex_iterator it(strScript.begin(), strScript.end(), s_step), end; it != end;
             ++it) {
            const std::string strMark = it->str(1);
            const std::string strWanted = (*it)[3].matched ? it->str(4)
                                          : strMark == "!" ? "n"
                                          : strMark == "%" ? "f"
                                                           : "y";
            if (!it->str(2).empty()) {
                EXPECT_EQ(Do(it->str(2), strWanted), strWanted) << it->str(2);
            }
        }
    }
    // What a step comes to.
    std::string Do(const std::string& strStep, const std::string& strWanted = {}) {
        std::istringstream text(strStep);
        Words words((std::istream_iterator<std::string>(text)), {});
        words.resize(std::max(words.size(), std::size_t{4}));
        return DoWords(words, strWanted);
    }

  protected:
    using Words = std::vector<std::string>;
    virtual std::string DoWords(const Words& w, const std::string& strWanted) = 0;
    static std::string Say(bool bYes) { return bYes ? "y" : "n"; }
};

// Rows by their names, each in a world of its own.
template <class CWorld>
void PlayRows(const std::vector<std::pair<const char*, std::string>>& rows) {
    for (const auto& [lpszName, strScript] : rows) {
        SCOPED_TRACE(lpszName);
        CWorld().Play(strScript);
    }
}

// Bytes as scripts write them: x*300 is one letter again and again, ^ a zero.
inline std::string Long(std::string strText) {
    std::replace(strText.begin(), strText.end(), '^', '\0');
    return strText.find('*') == 1 ? std::string(std::stoul(strText.substr(2)), strText[0])
                                  : strText;
}
inline std::string Short(const std::string& strBytes) {
    const bool bSame = strBytes.find_first_not_of(strBytes[0]) == std::string::npos;
    return strBytes.size() < 300 && (!bSame || strBytes.size() < 20)
               ? strBytes
               : (bSame ? strBytes.substr(0, 1) : "?") + "*" + std::to_string(strBytes.size());
}
inline std::string JoinThings(const std::map<std::string, std::string>& things) {
    std::string strAll;
    for (const auto& [strName, strRest] : things) {
        strAll += (strAll.empty() ? "" : " ") + strName + strRest;
    }
    return strAll;
}

} // namespace test
