#include "cli/console.h"
#include "cli/host_names.h"
#include "cli/patience.h"
#include "cli/text.h"
#include "cli/verbs.h"

#include "link/dak_vorn.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/App.hpp>
#include <nlohmann/json.hpp>

namespace cli {
namespace {

// The library takes both buffers and the command up to 1 MiB together.
constexpr std::size_t MOST_BYTES = (1U << 20) - 64;

struct IOCONTROL {
    std::string strCode;
    std::string strInputFile;
    DWORD nOutSize = 4096;
    bool bRaw = false;
};

// The input of a control; nothing when it cannot be read. More than MOST_BYTES of it is not read to
// its end.
std::optional<std::string> ReadInputFile(const std::string& strFile) {
    std::string strInput(MOST_BYTES + 1, '\0');
    std::size_t nRead = 0;
    if (strFile == "-") {
        const console::Flow flow = console::ReadInput(strInput.data(), strInput.size(), nRead);
        if (flow == console::Flow::Failed) {
            return std::nullopt;
        }
    } else {
        std::ifstream file(ToPath(strFile), std::ios::binary);
        file.read(strInput.data(), static_cast<std::streamsize>(strInput.size()));
        nRead = static_cast<std::size_t>(file.gcount());
        if (!file.eof() && !file.good()) {
            return std::nullopt;
        }
    }
    strInput.resize(nRead);
    return strInput;
}

MEANING UsageMeaning(const std::string& strSentence) {
    return {EXIT_USAGE, "usage", strSentence};
}

// Prints what the device gave; the verb's meaning, or that the output failed.
MEANING GiveOutput(const CONTEXT& context, const MEANING& meaning, const std::string& strOutput,
                   bool bRaw) {
    if (context.output.bJson) {
        return meaning;
    }
    if (!bRaw && strOutput.empty() && meaning.nExit == EXIT_DONE) {
        Say(context, "done; the device gave no bytes");
        return meaning;
    }
    if (!bRaw) {
        console::Print(console::Stream::Out, HexDump(strOutput));
        return meaning;
    }
    const console::Flow flow = console::WriteOutput(strOutput.data(), strOutput.size());
    return flow == console::Flow::Whole
               ? meaning
               : MEANING{EXIT_HOST, "host", "the output could not be written"};
}

void RunIoControl(CONTEXT& context, const IOCONTROL& arguments) {
    const auto qwCode = ParseNumber(arguments.strCode, 0xFFFFFFFF);
    if (!qwCode || *qwCode == 0) {
        Finish(context, "ioctl",
               UsageMeaning("CODE is a number from 1 to 0xFFFFFFFF, decimal or with 0x"),
               nlohmann::json::object());
        return;
    }
    nlohmann::json object = {{"code", *qwCode}};
    std::optional<std::string> strInput = "";
    if (!arguments.strInputFile.empty()) {
        strInput = ReadInputFile(arguments.strInputFile);
    }
    if (!strInput) {
        Finish(context, "ioctl",
               {EXIT_HOST, "host",
                arguments.strInputFile + " could not be read: see that it is there, and a file"},
               std::move(object));
        return;
    }
    if (strInput->size() + arguments.nOutSize > MOST_BYTES) {
        Finish(
            context, "ioctl",
            UsageMeaning("input and output together may have at most " + Count(MOST_BYTES, "byte")),
            std::move(object));
        return;
    }
    CDAKVorn dak;
    std::string strOutput(arguments.nOutSize, '\0');
    DWORD nReturned = 0;
    DWORD dwResult = DAKERROR_NONE;
    {
        const CPatience patience(context);
        dwResult = dak.DAKKernelIoControl(static_cast<DWORD>(*qwCode), strInput->data(),
                                          static_cast<DWORD>(strInput->size()), strOutput.data(),
                                          arguments.nOutSize, &nReturned);
    }
    // A refusal may come with output as well.
    strOutput.resize(std::min<std::size_t>(nReturned, strOutput.size()));
    object["output"] = Base64(strOutput);
    object["bytes_returned"] = strOutput.size();
    const MEANING meaning =
        GiveOutput(context, ExplainOperation(Action::IoControl, dwResult, dak.GetLastError()),
                   strOutput, arguments.bRaw);
    FinishData(context, "ioctl", meaning, std::move(object));
}

void AddIoControlVerb(CLI::App& app, CONTEXT& context) {
    CLI::App* const pVerb = AddVerb(
        app, context, "ioctl", "Pass an I/O control to the device's kernel",
        "CODE is a number, decimal or with 0x; docs/device.md lists those of dak-agent. What the\n"
        "device gives is shown in hexadecimal and as characters, with --raw as it is, with --json\n"
        "as base64.\n\n"
        "Examples:\n"
        "  dak ioctl 4                             ask dak-agent for its uptime\n"
        "  dak ioctl 0x1 --in ping.bin             with the bytes of a file\n"
        "  echo hi | dak ioctl 1 --in - --raw      with those of standard input\n");
    const auto pArguments = std::make_shared<IOCONTROL>();
    pVerb->add_option("--in", pArguments->strInputFile, "The input; - is standard input")
        ->option_text("FILE");
    pVerb
        ->add_option("--out-size", pArguments->nOutSize,
                     "Room for the output, from 1 byte on; 4096 when not given")
        ->option_text("N")
        ->check([](const std::string& strValue) {
            const auto qwValue = ParseNumber(strValue, MOST_BYTES);
            return qwValue && *qwValue > 0
                       ? std::string()
                       : "N is a number from 1 to " + std::to_string(MOST_BYTES);
        });
    pVerb->add_flag("--raw", pArguments->bRaw, "The output's bytes as they are");
    pVerb->add_option("CODE", pArguments->strCode, "the control code")
        ->required()
        ->option_text(" ");
    pVerb->callback([&context, pArguments] { RunIoControl(context, *pArguments); });
}

struct MESSAGEWORDS {
    std::string strMessage;
    std::string strWParam = "0";
    std::string strLParam = "0";
};

// A 32-bit parameter, where -1 and 0xFFFFFFFF are the same.
std::optional<DWORD> ParseParameter(const std::string& strText) {
    const bool bNegative = strText.starts_with('-');
    const auto qwValue = ParseNumber(std::string_view(strText).substr(bNegative ? 1 : 0),
                                     bNegative ? 0x80000000 : 0xFFFFFFFF);
    if (!qwValue) {
        return std::nullopt;
    }
    const auto dwValue = static_cast<DWORD>(*qwValue);
    return bNegative ? 0 - dwValue : dwValue;
}

std::string FormatHex(DWORD dwNumber) {
    std::array<char, 16> szText{};
    std::snprintf(szText.data(), szText.size(), "0x%X", static_cast<unsigned>(dwNumber));
    return szText.data();
}

void RunMessage(CONTEXT& context, const MESSAGEWORDS& words) {
    const auto dwWParam = ParseParameter(words.strWParam);
    const auto dwLParam = ParseParameter(words.strLParam);
    const auto strName = Utf8ToWide(words.strMessage);
    const auto qwNumber = ParseNumber(words.strMessage, 0xFFFFFFFF);
    if (!dwWParam || !dwLParam || !strName || strName->empty() || qwNumber == 0) {
        Finish(context, "message",
               UsageMeaning("give a name or a number from 1 on, and parameters of 32 bits"),
               nlohmann::json::object());
        return;
    }
    CDAKVorn dak;
    DWORD dwNumber = static_cast<DWORD>(qwNumber.value_or(0));
    DWORD dwResult = DAKERROR_NONE;
    {
        const CPatience patience(context);
        if (!qwNumber) {
            dwResult = dak.DAKRegisterWindowMessage(strName->c_str(), &dwNumber);
        }
        if (dwResult == DAKERROR_NONE) {
            dwResult = dak.DAKBroadCastMessage(dwNumber, *dwWParam, static_cast<LONG>(*dwLParam));
        }
    }
    MEANING meaning = ExplainOperation(Action::Message, dwResult, dak.GetLastError());
    nlohmann::json object = {
        {"message_name", qwNumber ? nlohmann::json() : nlohmann::json(words.strMessage)},
        {"number", dwNumber},
        {"wparam", *dwWParam},
        {"lparam", static_cast<LONG>(*dwLParam)}};
    meaning.strSentence = meaning.nExit == EXIT_DONE
                              ? "sent message " + words.strMessage +
                                    (qwNumber ? "" : " (" + FormatHex(dwNumber) + ")")
                              : words.strMessage + ": " + meaning.strSentence;
    Finish(context, "message", meaning, std::move(object));
}

void AddMessageVerb(CLI::App& app, CONTEXT& context) {
    CLI::App* const pVerb = AddVerb(
        app, context, "message", "Send a message out on the device",
        "The message is a number, decimal or with 0x, or a name, for which the device gives a\n"
        "number first. The parameters are numbers of 32 bits, 0 when not given.\n\n"
        "Examples:\n"
        "  dak message Refresh            by name\n"
        "  dak message Refresh 7 -1       with parameters\n"
        "  dak message 0xC001             by number\n");
    const auto pWords = std::make_shared<MESSAGEWORDS>();
    pVerb->add_option("MESSAGE", pWords->strMessage, "a name or a number")
        ->required()
        ->option_text(" ");
    pVerb->add_option("WPARAM", pWords->strWParam, "the first parameter")->option_text(" ");
    pVerb->add_option("LPARAM", pWords->strLParam, "the second parameter")->option_text(" ");
    pVerb->callback([&context, pWords] { RunMessage(context, *pWords); });
}

} // namespace

void AddSystemVerbs(CLI::App& app, CONTEXT& context) {
    AddIoControlVerb(app, context);
    AddMessageVerb(app, context);
}

} // namespace cli
