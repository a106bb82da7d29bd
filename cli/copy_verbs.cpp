#include "cli/verbs.h"

#include "cli/console.h"
#include "cli/copy.h"
#include "cli/text.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <memory>

#include <CLI/App.hpp>
#include <nlohmann/json.hpp>

namespace cli {
namespace {

using RunCopy = std::function<void(std::vector<std::string> paths)>;

CLI::App* AddCopyVerb(CLI::App& app, CONTEXT& context, const char* lpszName,
                      const char* lpszSummary, const char* lpszPathHelp, const char* lpszHelp,
                      RunCopy run) {
    CLI::App* const pVerb = AddVerb(app, context, lpszName, lpszSummary, lpszHelp);
    const auto pPaths = std::make_shared<std::vector<std::string>>();
    // Source and destination are one list, for a list takes every word that is left.
    pVerb->add_option("SRC", *pPaths, lpszPathHelp)
        ->required()
        ->expected(1, CLI::detail::expected_max_vector_size)
        ->option_text("... DEST");
    pVerb->callback([&context, pPaths, run = std::move(run), lpszName] {
        if (pPaths->size() < 2) {
            Finish(context, lpszName, {EXIT_USAGE, "usage", "give a source and a destination"}, {});
            return;
        }
        run(*pPaths);
    });
    return pVerb;
}

} // namespace

void AddCopyVerbs(CLI::App& app, CONTEXT& context) {
    const auto pNoVerify = std::make_shared<bool>(false);
    CLI::App* const pPush = AddCopyVerb(
        app, context, "push", "Copy files and folders to the device",
        "files and folders of this computer, then a folder of the device",
        "A folder is copied with all that is in it; FOLDER/. stands for what is in it. Folders\n"
        "are made on the device as files need them; empty ones are not copied. What a copy cannot\n"
        "carry is named, and the rest is copied: links inside folders, special files, names that\n"
        "are not UTF-8 or contain a backslash, files of 4 GiB and more, paths of 260 bytes and\n"
        "more. Sources from several folders are copied folder by folder.\n\n"
        "The device is asked ahead for room, and behind the copy for a listing of each folder "
        "that\n"
        "got files: what is not there with its size and time is named. With a device that needs\n"
        "pauses that takes one and a half seconds a folder; --no-verify leaves out both.\n\n"
        "Examples:\n"
        "  dak push notes.txt /Docs           gives \\Docs\\notes.txt\n"
        "  dak push photos notes.txt /        gives \\photos\\... and \\notes.txt\n"
        "  dak push photos/. /Pictures        gives \\Pictures\\... without a folder \"photos\"\n"
        "  dak push --json *.txt /Docs        tells a program what became of it\n",
        [&context, pNoVerify](std::vector<std::string> paths) {
            RunPush(context, std::move(paths), !*pNoVerify);
        });
    pPush->add_flag("--no-verify", *pNoVerify,
                    "Ask the device neither for room nor for what has arrived");
    const auto pNoLook = std::make_shared<bool>(false);
    CLI::App* const pPull = AddCopyVerb(
        app, context, "pull", "Copy files and folders from the device",
        "files and folders of the device, then a folder of this computer",
        "A folder is copied with all that is in it. DEST is made if it is missing. A file that is\n"
        "already there is replaced when the new one is whole. What the device has and what did\n"
        "not come is named, with the reason, and the rest is copied: files of 4 GiB and more,\n"
        "paths that are too long, names that no file here can have, links, what cannot be read,\n"
        "and what changes on the device meanwhile.\n\n"
        "For that the device is asked for a listing of each folder ahead of the copy. With a "
        "device\n"
        "that needs pauses that takes one and a half seconds a folder; with --no-verify it is not\n"
        "asked, and what did not come is not known.\n\n"
        "Examples:\n"
        "  dak pull /Docs/notes.txt .         gives ./notes.txt\n"
        "  dak pull /Docs /Pictures backup    gives backup/Docs/... and backup/Pictures/...\n"
        "  dak pull \"\\Docs\\notes.txt\" .       backslashes work too, in quotes\n",
        [&context, pNoLook](std::vector<std::string> paths) {
            RunPull(context, std::move(paths), !*pNoLook);
        });
    pPull->add_flag("--no-verify", *pNoLook, "Do not ask the device first for what there is");
}

void EndSession(CONTEXT& context, std::unique_ptr<COPYSESSION> session, const JOBOUTCOME& outcome) {
    if (outcome.bAbandoned) {
        context.bAbandoned = true;
        // The worker still reads it.
        static_cast<void>(session.release());
    }
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
    const std::chrono::duration<double> span = std::chrono::steady_clock::now() - start;
    return std::round(span.count() * 10) / 10;
}

std::string FormatAmount(std::size_t nFiles, std::uint64_t qwBytes, double dSeconds) {
    std::array<char, 32> szSeconds{};
    std::snprintf(szSeconds.data(), szSeconds.size(), "%.1f s", dSeconds);
    std::string strAmount =
        Count(nFiles, "file") + " (" + FormatBytes(qwBytes) + ") in " + szSeconds.data();
    // For little data it is the fixed cost of a job that would show.
    constexpr std::uint64_t qwRateBytes = 100'000;
    if (qwBytes >= qwRateBytes && dSeconds > 0) {
        const double dRate = static_cast<double>(qwBytes) / dSeconds;
        strAmount += " (" + FormatBytes(static_cast<std::uint64_t>(dRate)) + "/s)";
    }
    return strAmount;
}

std::string FormatSome(const std::vector<std::string>& names) {
    constexpr std::size_t nMost = 5;
    std::string strText;
    for (std::size_t i = 0; i < names.size() && i < nMost; ++i) {
        strText += (i == 0 ? "" : ", ") + names[i];
    }
    return names.size() > nMost ? strText + " and " + std::to_string(names.size() - nMost) + " more"
                                : strText;
}

void SayCancelling(const CONTEXT& context) {
    // Where the reader has gone nobody has pressed it.
    if (!console::ReaderGone()) {
        Complain(context, "cancelling; press Ctrl-C again to end at once");
    }
}

CAnswersInterrupts::CAnswersInterrupts(const CONTEXT& context) {
    m_thread = std::thread([this, &context] {
        constexpr std::chrono::milliseconds look{100};
        std::unique_lock hold(m_mutex);
        while (!m_ended.wait_for(hold, look, [this] { return m_bEnded; })) {
            if (console::CInterrupts::Requested()) {
                SayCancelling(context);
                return;
            }
        }
    });
}

CAnswersInterrupts::~CAnswersInterrupts() {
    {
        const std::lock_guard hold(m_mutex);
        m_bEnded = true;
    }
    m_ended.notify_one();
    m_thread.join();
}

} // namespace cli
