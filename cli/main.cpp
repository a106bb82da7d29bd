#include "cli/console.h"
#include "cli/device_choice.h"
#include "cli/text.h"
#include "cli/verbs.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

namespace {

// The line of use, with the positionals of a verb in their order.
class CHelpFormatter : public CLI::Formatter {
  public:
    std::string make_usage(const CLI::App* pApp, std::string strName) const override {
        std::string strUsage = "\nUsage: " + strName;
        if (!pApp->get_subcommands([](const CLI::App*) { return true; }).empty()) {
            return strUsage + " VERB ...\n";
        }
        strUsage += " [OPTIONS]";
        if (pApp->get_prefix_command()) {
            strUsage += " IMAGE [ARGS...]";
        }
        for (const CLI::Option* pOption :
             pApp->get_options([](const CLI::Option* p) { return p->get_positional(); })) {
            const std::string strText = pOption->get_option_text();
            strUsage += " " + pOption->get_name(true) + (strText == " " ? "" : strText);
        }
        return strUsage + "\n";
    }
};

// The first word from itWord on that is neither an option nor the value of one: a verb, an operand,
// or "--".
template <class TIterator>
TIterator SkipOptions(TIterator itWord, TIterator itEnd) {
    for (; itWord != itEnd && itWord->starts_with('-') && *itWord != "--"; ++itWord) {
        // -d NAME and --device NAME, -d also as the last of several letters.
        const bool bTakesNext = *itWord == "--device" || (!itWord->starts_with("--") &&
                                                          itWord->find('d') + 1 == itWord->size());
        if (bTakesNext && itWord + 1 != itEnd) {
            ++itWord;
        }
    }
    return itWord;
}

// Says what is wrong with the command line.
int Refuse(const CLI::App& app, const std::vector<std::string>& words,
           const CLI::ParseError& error) {
    const auto verbs = app.get_subcommands();
    const std::string strVerb = verbs.empty() ? "" : " " + verbs.front()->get_name();
    std::string strFault = error.what();
    if (verbs.empty() && error.get_name() == "RequiredError") {
        const auto itWord = SkipOptions(words.begin(), words.end());
        strFault =
            itWord == words.end() ? "say what to do: give a verb" : "there is no verb " + *itWord;
    }
    console::Print(console::Stream::Error, "dak: " + cli::Printable(strFault) + "\n\"dak" +
                                               strVerb + " --help\" shows how it is used\n");
    return cli::EXIT_USAGE;
}

// The words of the command line, the last first, as CLI11 wants them. It does not know "--" ahead
// of the words that it leaves to "run": there it is taken out.
std::vector<std::string> ForParser(std::vector<std::string> words) {
    const auto itVerb = SkipOptions(words.begin(), words.end());
    if (itVerb != words.end() && *itVerb == "run") {
        const auto itMark = SkipOptions(itVerb + 1, words.end());
        if (itMark != words.end() && *itMark == "--") {
            words.erase(itMark);
        }
    }
    std::reverse(words.begin(), words.end());
    return words;
}

int ParseAndRun(const std::vector<std::string>& words, cli::CONTEXT& context) {
    CLI::App app{"dak works on a handheld device attached by USB: it copies files to the device\n"
                 "and back, and works on the files there.",
                 "dak"};
    app.formatter(std::make_shared<CHelpFormatter>());
    app.allow_windows_style_options(false); // "/Docs" is a path
    app.require_subcommand(1);
    app.footer("Paths of the device start at its root and take / or \\ between folders; in a\n"
               "shell, / spares the quotes. \"dak VERB --help\" shows each verb by example.\n\n"
               "Examples:\n"
               "  dak status                   is a device there?\n"
               "  dak -d handheld status       the one of several that is meant\n"
               "  dak push photos /Pictures    copy a folder to the device\n"
               "  dak ls -l /Pictures          what is there, with sizes and times\n"
               "  dak pull /Pictures backup    copy it back\n"
               "  date | dak write /now.txt    write a file from standard input\n"
               "  dak cat /now.txt             read it\n"
               "  dak rm /Pictures/old.jpg     delete a file there\n"
               "  dak storages                 the device's storages, with their room\n\n" +
               std::string(cli::g_lpszExitStatusHelp));
    cli::AddCommonOptions(app, context);
    // Ahead of the verb's own callback.
    app.parse_complete_callback([&app, &context] {
        const std::string strVerb = app.get_subcommands().front()->get_name();
        if (strVerb != "devices" && !cli::FindDevice(context, strVerb.c_str())) {
            throw CLI::RuntimeError(context.nExit);
        }
    });
    cli::AddDevicesVerb(app, context);
    cli::AddStatusVerb(app, context);
    cli::AddCopyVerbs(app, context);
    cli::AddListVerbs(app, context);
    cli::AddReadVerb(app, context);
    cli::AddWriteVerb(app, context);
    cli::AddPathVerbs(app, context);
    cli::AddStorageVerbs(app, context);
    cli::AddRunVerb(app, context);
    cli::AddSystemVerbs(app, context);
    try {
        app.parse(ForParser(words));
    } catch (const CLI::RuntimeError&) {
        return context.nExit; // it has been said why
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() != 0) {
            return Refuse(app, words, error);
        }
        std::ostringstream help;
        app.exit(error, help, help);
        console::Print(console::Stream::Out, help.str());
    }
    return context.nExit;
}

} // namespace

int main(int argc, char** argv) {
    cli::CONTEXT context;
    int nExit = cli::EXIT_HOST;
    try {
        nExit = ParseAndRun(console::Words(argc, argv), context);
    } catch (const std::exception& error) {
        console::Print(console::Stream::Error, std::string("dak: ") + error.what() + "\n");
    }
    if (!console::Flush()) {
        console::Print(console::Stream::Error, "dak: the output could not be written\n");
        nExit = nExit == cli::EXIT_DONE ? int{cli::EXIT_HOST} : nExit;
    }
    if (context.bAbandoned) {
        std::_Exit(nExit);
    }
    return nExit;
}
