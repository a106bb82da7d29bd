// Scripts of tests: steps with a semicolon between them, each with what it comes to.
//
//   put d/a new; !copy d/a d/a; disk root/d = a=new
//
// That is what stands behind " = ", behind ! an n, behind % an f, and else a y.
#pragma once

#include <algorithm>
#include <map>
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
            const std::string strWanted =
                (*it)[3].matched ? std::regex_replace(it->str(4), std::regex("\\s+"), " ")
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

// A table of rows, each played in a world of its own: "- name: script". "X of 1 2" in a name plays
// the script with each of these in the place of X; "- X is: steps" gives a name to steps.
template <class CWorld>
void PlayRows(const std::string& strRows) {
    static const std::regex s_row(R"(- ((?:[^:]|:\S)*):\s+([\s\S]*?)(?=\n *- |\n$|$))");
    static const std::regex s_each(R"(\b([A-Z]+) of ([^,]*))");
    const auto put = [](std::string& strScript, const std::string& strName,
                        const std::string& strFor) {
        strScript = std::regex_replace(strScript, std::regex("\\b" + strName + "\\b"), strFor);
    };
    std::vector<std::pair<std::string, std::string>> names;
    std::string strRest = strRows; // that no row has taken
    for (std::sregex_iterator row(strRows.begin(), strRows.end(), s_row), end; row != end; ++row) {
        EXPECT_EQ(row->prefix().str().find_first_not_of(" \n"), std::string::npos) << row->prefix();
        strRest = row->suffix();
        const std::string strName = row->str(1);
        std::vector<std::string> scripts = {row->str(2)};
        for (const auto& [strEach, strSteps] : names) {
            put(scripts[0], strEach, strSteps);
        }
        if (strName.ends_with(" is")) {
            names.emplace_back(strName.substr(0, strName.size() - 3), scripts[0]);
            continue;
        }
        for (std::sregex_iterator each(strName.begin(), strName.end(), s_each); each != end;
             ++each) {
            std::vector<std::string> more;
            for (const std::string& strScript : scripts) {
                std::istringstream values(each->str(2));
                for (std::string strValue; values >> strValue;) {
                    put(more.emplace_back(strScript), each->str(1), strValue);
                }
            }
            scripts = more;
        }
        for (const std::string& strScript : scripts) {
            SCOPED_TRACE(strName + ": " + strScript);
            CWorld().Play(strScript);
        }
    }
    EXPECT_EQ(strRest.find_first_not_of(" \n"), std::string::npos) << strRest;
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
// Files of a folder as name=bytes, folders as name/.
inline std::string Show(const std::map<std::string, std::string>& tree,
                        const std::string& strFolder = {}) {
    std::string strAll;
    for (const auto& [strName, strBytes] : tree) {
        strAll += (strAll.empty() ? "" : " ") +
                  strName.substr(strFolder.empty() ? 0 : strFolder.size() + 1) +
                  (strName.ends_with("/") ? "" : "=" + Short(strBytes));
    }
    return strAll;
}

} // namespace test
