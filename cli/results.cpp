#include "cli/results.h"

#include <array>
#include <cstdio>

namespace cli {

const char* const g_lpszExitStatusHelp =
    "Exit status:\n"
    "  0    done, all of it\n"
    "  1    done in part: what was left out, or is missing, has been named\n"
    "  2    the command line is wrong; nothing was done\n"
    "  3    no device is attached, or it does not answer, or it went away\n"
    "  4    another program is using the link\n"
    "  5    the device refused, or gave no good answer\n"
    "  6    no room, on the device or on this computer\n"
    "  7    the device broke the protocol\n"
    "  8    something failed on this computer\n"
    "  9    a program on the device ended with another status than 0\n"
    "  130  ended by Ctrl-C\n"
    "  141  the program that read the output has gone\n";

namespace {

const char* FailSentence(Action action) {
    switch (action) {
    case Action::Push:
        return "the device did not take the copy, or a file could not be read to its end: see "
               "whether the files are still as they were, then repeat the command";
    case Action::Pull:
        return "the device did not take the request, or a file could not be written on this "
               "computer: see whether the destination folder can be written, then repeat the "
               "command";
    case Action::RemoveFile:
        return "the device did not delete it: see that the path is right, and that it is a file "
               "or an empty folder that may be deleted";
    case Action::MakeFolder:
        return "the device did not make the folder: see that the folder above it exists, and that "
               "the name is not taken";
    case Action::Move:
        return "the device did not move it: see that the source is there, that the folder of the "
               "new path exists, and that the new name is not taken";
    case Action::Copy:
        return "the device did not copy it: see that the source is there, that the folder of the "
               "new path exists and may be written, and that there is room; with --no-clobber, "
               "that the new name is not taken";
    case Action::List:
        return "the device did not list it to the end: see that the path is right, then repeat the "
               "command";
    case Action::Describe:
        return "the device knows no such file or folder: see that the path is right; \"dak ls\" "
               "shows what a folder holds";
    case Action::Read:
        return "the device did not give it: see that the path is right, and that it is a file that "
               "may be read";
    case Action::Write:
        return "the device did not take it: see that the folder exists and may be written";
    case Action::Storages:
        return "the device did not tell its storages: repeat the command";
    case Action::Format:
        return "the device did not format it: \"dak storages\" shows the names, and an agent "
               "formats only when it was started with --allow-format";
    case Action::Run:
        return "the device did not start it: see that the program is there, and that the agent was "
               "started with --allow-exec";
    case Action::IoControl:
        return "the device does not know that control code, or refused it: see the code, and the "
               "size of the input";
    case Action::Message:
        return "the device did not take the message: repeat the command";
    case Action::Space:
    case Action::Status:
        break;
    }
    return "the device gave no good answer: repeat the command";
}

const char* NoSpaceSentence(Action action) {
    return action == Action::Pull
               ? "this computer has no room for the next file: free some space, or choose another "
                 "destination folder"
               : "the device has no room left: delete something on it, then repeat the command";
}

} // namespace

MEANING Explain(Action action, Stage stage, DWORD dwState) {
    switch (dwState) {
    case DAKERROR_NONE:
        return {EXIT_DONE, "ok", "done"};
    case DAKERROR_CANCELLED:
        return {EXIT_CANCELLED, "cancelled", "cancelled"};
    case DAKERROR_PROTOCOL:
        return {EXIT_PROTOCOL, "protocol",
                "the device did not answer as it should: detach it and attach it again, or start "
                "its agent anew, then repeat the command"};
    case DAKERROR_NO_SPACE:
        return {EXIT_NO_SPACE, "no_space", NoSpaceSentence(action)};
    case DAKERROR_DEVICE_REFUSED:
        return {EXIT_FAILED, "refused",
                "the device refused the data: the place may not be written; choose another one"};
    case DAKERROR_FOLDER_SPACE:
        return {EXIT_FAILED, "refused",
                "the device does not tell the space of that folder: see that the path is right"};
    case DAKERROR_FAIL:
        return {EXIT_FAILED, "failed", FailSentence(action)};
    case DAKERROR_BUSY:
        return {EXIT_BUSY, "busy",
                "another program is using the link: wait for its end, or end it, then repeat the "
                "command"};
    case DAKERROR_NO_DEVICE:
        return {EXIT_NO_DEVICE, "no_device",
                stage == Stage::Opening
                    ? "the device is not attached, or it does not answer: plug it in, see that "
                      "its agent is running, then repeat the command"
                    : "the link to the device broke: see that it is plugged in and its agent is "
                      "running, then repeat the command"};
    default:
        break;
    }
    std::array<char, 96> szText{};
    std::snprintf(szText.data(), szText.size(),
                  "the library gave the unknown result 0x%X: this is a fault, please report it",
                  static_cast<unsigned>(dwState));
    return {EXIT_FAILED, "unknown", szText.data()};
}

MEANING ExplainOperation(Action action, DWORD dwResult, DWORD dwLastError) {
    // DAKERROR_NO_DEVICE is the result of an operation that found no device and of one that lost
    // it; the sentence for the first serves both.
    if (dwResult != DAKERROR_FAIL) {
        return Explain(action, Stage::Opening, dwResult);
    }
    const bool bFiner = dwLastError != DAKERROR_NONE && dwLastError != dwResult;
    return Explain(action, Stage::Running, bFiner ? dwLastError : dwResult);
}

} // namespace cli
