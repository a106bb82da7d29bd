#include "cli/console.h"
#include "cli/description.h"
#include "cli/device_file.h"
#include "cli/patience.h"
#include "cli/text.h"
#include "cli/verbs.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <CLI/App.hpp>
#include <nlohmann/json.hpp>

namespace cli {
namespace {

// A file on its way to standard output, or with --json into the object.
class CReading {
  public:
    CReading(CONTEXT& context, std::string strPath)
        : m_context(context), m_strPath(std::move(strPath)) {}

    void Run();

  private:
    MEANING ReadAll();
    MEANING ReadBytes(CDeviceFile& file, std::uint64_t qwSize);
    MEANING LookAgain(const FILEFACTS& before);
    MEANING Put(const std::vector<char>& bytes);
    MEANING Explained(DWORD dwResult);

    CONTEXT& m_context;
    std::string m_strPath;
    CDAKVorn m_dak;
    std::uint64_t m_qwGiven = 0;
    std::string m_strKept; // for the object
};

MEANING CReading::Explained(DWORD dwResult) {
    MEANING meaning = ExplainOperation(Action::Read, dwResult, m_dak.GetLastError());
    meaning.strSentence = m_strPath + ": " + meaning.strSentence;
    if (m_qwGiven > 0) {
        meaning.strSentence += ". " + Count(m_qwGiven, "byte") + " had come";
    }
    return meaning;
}

MEANING CReading::Put(const std::vector<char>& bytes) {
    if (m_context.output.bJson) {
        m_strKept.append(bytes.begin(), bytes.end());
        return {EXIT_DONE, "ok", ""};
    }
    switch (console::WriteOutput(bytes.data(), bytes.size())) {
    case console::Flow::Whole:
        return {EXIT_DONE, "ok", ""};
    case console::Flow::ReaderGone:
        return {EXIT_NO_READER, "no_reader", ""};
    case console::Flow::Interrupted:
        return Explain(Action::Read, Stage::Running, DAKERROR_CANCELLED);
    default:
        return {EXIT_HOST, "host", "the output could not be written: see whether its disk is full"};
    }
}

MEANING CReading::ReadBytes(CDeviceFile& file, std::uint64_t qwSize) {
    std::vector<char> bytes;
    while (m_qwGiven < qwSize) {
        DWORD dwResult = DAKERROR_NONE;
        {
            const CPatience patience(m_context);
            dwResult = file.Read(bytes, static_cast<std::size_t>(std::min<std::uint64_t>(
                                            qwSize - m_qwGiven, FILE_BLOCK_BYTES)));
        }
        if (console::CInterrupts::Requested()) {
            return Explain(Action::Read, Stage::Running, DAKERROR_CANCELLED);
        }
        if (dwResult != DAKERROR_NONE) {
            return Explained(dwResult);
        }
        if (bytes.empty()) {
            return {EXIT_PARTIAL, "partial",
                    m_strPath + ": it ended after " + std::to_string(m_qwGiven) + " of " +
                        Count(qwSize, "byte") +
                        ", for it was changed meanwhile: repeat the command"};
        }
        if (MEANING meaning = Put(bytes); meaning.nExit != EXIT_DONE) {
            return meaning;
        }
        m_qwGiven += bytes.size();
    }
    return {EXIT_DONE, "ok", ""};
}

MEANING CReading::ReadAll() {
    const DESCRIPTION description = Describe(m_context, m_dak, m_strPath);
    if (description.meaning.nExit != EXIT_DONE) {
        return description.meaning;
    }
    if (description.facts.IsFolder()) {
        return {EXIT_FAILED, "failed",
                m_strPath + " is a folder: \"dak ls\" lists it, \"dak pull\" copies it"};
    }
    CDeviceFile file(m_dak);
    DWORD dwResult = DAKERROR_NONE;
    {
        const CPatience patience(m_context);
        dwResult = file.OpenToRead(m_strPath);
    }
    if (dwResult != DAKERROR_NONE) {
        return Explained(dwResult);
    }
    {
        const CCutShort cutShort(m_dak);
        const MEANING meaning = ReadBytes(file, description.facts.qwSize);
        if (meaning.nExit != EXIT_DONE) {
            return meaning;
        }
    }
    return LookAgain(description.facts);
}

// What was given may be of two contents when the file is not as it was ahead.
MEANING CReading::LookAgain(const FILEFACTS& before) {
    const DESCRIPTION now = DescribeForCertain(m_context, m_dak, m_strPath);
    if (now.meaning.nExit != EXIT_DONE && now.meaning.nExit != EXIT_FAILED) {
        return now.meaning;
    }
    if (now.meaning.nExit == EXIT_FAILED || now.facts.qwSize != before.qwSize ||
        now.facts.qwWritten != before.qwWritten) {
        return {EXIT_PARTIAL, "partial",
                m_strPath + ": it was changed while it was read, and what was given may be a part "
                            "of each: repeat the command"};
    }
    return {EXIT_DONE, "ok", m_strPath + ": " + Count(m_qwGiven, "byte")};
}

void CReading::Run() {
    const console::CInterrupts interrupts;
    const MEANING meaning = ReadAll();
    if (meaning.nExit == EXIT_NO_READER && !m_context.output.bJson) {
        m_context.nExit = meaning.nExit; // nobody is there to be told
        return;
    }
    nlohmann::json object = {{"path", m_strPath}, {"bytes", m_qwGiven}};
    if (m_context.output.bJson) {
        object["base64"] = Base64(m_strKept);
    }
    FinishData(m_context, "cat", meaning, std::move(object));
}

} // namespace

void AddReadVerb(CLI::App& app, CONTEXT& context) {
    CLI::App* const pVerb = AddVerb(
        app, context, "cat", "Give the bytes of a file of the device",
        "The bytes go to standard output as they are. With --json they are in the object, as\n"
        "base64.\n\n"
        "Examples:\n"
        "  dak cat /Docs/notes.txt               read it here\n"
        "  dak cat /Docs/data.bin > data.bin     keep it here\n"
        "  dak cat /Logs/today.log | grep oops   look for something in it\n");
    const auto pPath = std::make_shared<std::string>();
    pVerb->add_option("PATH", *pPath, "a file of the device")->required()->option_text(" ");
    pVerb->callback([&context, pPath] {
        if (const auto strPath = TakeDevicePath(context, "cat", "PATH", *pPath)) {
            CReading(context, *strPath).Run();
        }
    });
}

} // namespace cli
