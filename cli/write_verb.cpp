#include "cli/console.h"
#include "cli/description.h"
#include "cli/device_file.h"
#include "cli/device_path.h"
#include "cli/host_claim.h"
#include "cli/patience.h"
#include "cli/text.h"
#include "cli/verbs.h"
#include "cli/verdict.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/App.hpp>
#include <nlohmann/json.hpp>

namespace cli {
namespace {

// As many writes at a time have names that a later one has again.
constexpr unsigned MOST_CLAIMS = 64;
constexpr unsigned FIRST_RANDOM = 0x80000000;

// Whether a name is of the form of a part's, to a device that takes letters of either case for the
// same.
bool IsPartName(std::string_view strName) {
    return std::ranges::equal(strName, std::string_view("~dak########.tmp"), [](BYTE ch, char ch2) {
        return ch2 == '#' ? std::isxdigit(ch) != 0 : std::tolower(ch) == ch2;
    });
}

// Standard input on its way to a file of the device. It grows under a name of its own beside the
// target, so that a file that was there survives a write that fails.
class CWriting {
  public:
    CWriting(CONTEXT& context, std::string strPath);

    void Run();

  private:
    MEANING WriteAll();
    MEANING SendInput();
    MEANING Place();
    MEANING Explained(Action action, DWORD dwResult);
    bool Remove(); // takes the part away
    std::string Leftover() const;

    CONTEXT& m_context;
    std::string m_strPath;
    // The name under which the input arrives is this computer's for as long as the process lives.
    // The next write gets it again, and takes away what one left that was ended at once.
    std::unique_ptr<CHostClaim> m_pClaim;
    std::string m_strPart;
    CDAKVorn m_dak;
    bool m_bReplaces = false;
    std::uint64_t m_qwTaken = 0; // bytes that the device has
};

CWriting::CWriting(CONTEXT& context, std::string strPath)
    : m_context(context), m_strPath(std::move(strPath)) {
    unsigned dwPart = 0;
    while (!m_pClaim && dwPart < MOST_CLAIMS) {
        auto pClaim = std::make_unique<CHostClaim>("dak-write-" + std::to_string(++dwPart));
        m_pClaim = pClaim->Holds() ? std::move(pClaim) : nullptr;
    }
    std::array<char, 32> szName{};
    std::snprintf(szName.data(), szName.size(), "~dak%08x.tmp",
                  m_pClaim ? dwPart : std::random_device()() | FIRST_RANDOM);
    m_strPart = JoinDevicePath(SplitDevicePath(m_strPath).strFolder, szName.data());
}

MEANING CWriting::Explained(Action action, DWORD dwResult) {
    MEANING meaning = JudgeOperation(m_context, m_dak, action, dwResult);
    meaning.strSentence = m_strPath + ": " + meaning.strSentence;
    if (meaning.nExit == EXIT_NO_SPACE && m_bReplaces) {
        meaning.strSentence +=
            " (the old file stays until the new one is whole, and both need room)";
    }
    return meaning;
}

MEANING CWriting::SendInput() {
    CDeviceFile file(m_dak);
    DWORD dwResult = DAKERROR_NONE;
    {
        const CPatience patience(m_context);
        dwResult = file.OpenNew(m_strPart);
        if (dwResult == DAKERROR_FAIL && m_pClaim && Remove()) {
            dwResult = file.OpenNew(m_strPart);
        }
    }
    if (dwResult != DAKERROR_NONE) {
        m_strPart.clear();
        return Explained(Action::Write, dwResult);
    }
    const CCutShort cutShort(m_dak);
    std::vector<char> block(FILE_BLOCK_BYTES);
    for (auto flow = console::Flow::Whole; flow == console::Flow::Whole;) {
        std::size_t nRead = 0;
        flow = console::ReadInput(block.data(), block.size(), nRead);
        if (flow == console::Flow::Failed) {
            return {EXIT_HOST, "host", "standard input could not be read"};
        }
        const CPatience patience(m_context);
        if (flow != console::Flow::Interrupted && nRead > 0) {
            dwResult = file.Write(block.data(), nRead);
        }
        if (console::CInterrupts::Requested()) {
            return Explain(Action::Write, Stage::Running, DAKERROR_CANCELLED);
        }
        if (dwResult != DAKERROR_NONE) {
            return Explained(Action::Write, dwResult);
        }
        m_qwTaken += nRead;
    }
    const CPatience patience(m_context);
    dwResult = file.Close();
    return dwResult == DAKERROR_NONE ? MEANING{EXIT_DONE, "ok", ""}
                                     : Explained(Action::Write, dwResult);
}

// A move takes no name that is in use; a copy does, when it is whole.
MEANING CWriting::Place() {
    const CPatience patience(m_context);
    const WideText strPart = *Utf8ToWide(m_strPart);
    const WideText strPath = *Utf8ToWide(m_strPath);
    const DWORD dwResult = m_bReplaces ? m_dak.DAKCopyFile(strPart.c_str(), strPath.c_str(), 0)
                                       : m_dak.DAKMoveFile(strPart.c_str(), strPath.c_str());
    if (dwResult != DAKERROR_NONE) {
        return Explained(Action::Write, dwResult);
    }
    MEANING meaning{EXIT_DONE, "ok", "wrote " + Count(m_qwTaken, "byte") + " to " + m_strPath};
    if (m_bReplaces && !Remove()) {
        meaning.strSentence += "; a second copy may still be there as " + Leftover();
    }
    return meaning;
}

bool CWriting::Remove() {
    const CPatience patience(m_context);
    return m_dak.DAKDeleteFile(Utf8ToWide(m_strPart)->c_str()) == DAKERROR_NONE;
}

// A part that could not be taken away, and what becomes of it.
std::string CWriting::Leftover() const {
    return m_strPart + (m_pClaim ? ", until the next \"dak write\" into that folder deletes it"
                                 : ": delete it");
}

MEANING CWriting::WriteAll() {
    const DESCRIPTION old = Describe(m_context, m_dak, m_strPath);
    m_bReplaces = old.meaning.nExit == EXIT_DONE;
    if (!m_bReplaces && old.dwResult != DAKERROR_FAIL) {
        m_strPart.clear();
        return old.meaning;
    }
    if (m_bReplaces && (old.facts.IsFolder() || old.facts.IsReadOnly())) {
        m_strPart.clear();
        return {EXIT_FAILED, "failed",
                m_strPath + (old.facts.IsFolder() ? " is a folder: give the path of a file"
                                                  : " is read-only: choose another name")};
    }
    const MEANING meaning = SendInput();
    return meaning.nExit == EXIT_DONE ? Place() : meaning;
}

void CWriting::Run() {
    const console::CInterrupts interrupts;
    MEANING meaning = WriteAll();
    if (meaning.nExit != EXIT_DONE && !m_strPart.empty()) {
        meaning.strSentence += ". The device had taken " + Count(m_qwTaken, "byte") + "; ";
        meaning.strSentence += Remove() ? "nothing of it is kept"
                                        : "what had come may still be there as " + Leftover();
        meaning.strSentence += m_bReplaces ? ". The old file is as it was" : "";
    }
    Finish(m_context, "write", meaning, {{"path", m_strPath}, {"bytes_taken", m_qwTaken}});
}

} // namespace

void AddWriteVerb(CLI::App& app, CONTEXT& context) {
    CLI::App* const pVerb = AddVerb(
        app, context, "write", "Write standard input to a file of the device",
        "A file that is there is replaced when all of the input has arrived, and stays as it is\n"
        "when the write fails. The folder must exist.\n\n"
        "Examples:\n"
        "  dak write /Docs/notes.txt < notes.txt\n"
        "  date | dak write /Docs/today.txt\n");
    const auto pPath = std::make_shared<std::string>();
    pVerb->add_option("PATH", *pPath, "the file of the device")->required()->option_text(" ");
    pVerb->callback([&context, pPath] {
        const auto strPath = TakeDevicePath(context, "write", "PATH", *pPath);
        const char* const lpszFault =
            NamesFolder(*pPath) ? "PATH names a folder: give the path of a file"
            : strPath && IsPartName(SplitDevicePath(*strPath).strName)
                ? "PATH has a name that \"dak write\" uses while it writes, and deletes: choose "
                  "another one"
                : nullptr;
        if (strPath && lpszFault != nullptr) {
            Finish(context, "write", {EXIT_USAGE, "usage", lpszFault}, {{"path", *strPath}});
        } else if (strPath) {
            CWriting(context, *strPath).Run();
        }
    });
}

} // namespace cli
