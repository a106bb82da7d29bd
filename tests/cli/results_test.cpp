#include "cli/results.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace cli {
namespace {

// What the exit statuses and the words for programs promise.
TEST(Results, EveryResultHasItsExitStatusAndKey) {
    const struct {
        DWORD dwState;
        int nExit;
        const char* lpszKey;
    } rows[] = {
        {DAKERROR_NONE, 0, "ok"},
        {DAKERROR_CANCELLED, 130, "cancelled"},
        {DAKERROR_PROTOCOL, 7, "protocol"},
        {DAKERROR_NO_SPACE, 6, "no_space"},
        {DAKERROR_DEVICE_REFUSED, 5, "refused"},
        {DAKERROR_FOLDER_SPACE, 5, "refused"},
        {DAKERROR_FAIL, 5, "failed"},
        {DAKERROR_BUSY, 4, "busy"},
        {DAKERROR_NO_DEVICE, 3, "no_device"},
        {0x4711, 5, "unknown"},
    };
    for (const auto& row : rows) {
        for (int nAction = 0; nAction < ACTION_COUNT; ++nAction) {
            const auto action = static_cast<Action>(nAction);
            const MEANING meaning = Explain(action, Stage::Running, row.dwState);
            EXPECT_EQ(meaning.nExit, row.nExit);
            EXPECT_STREQ(meaning.lpszKey, row.lpszKey);
            EXPECT_FALSE(meaning.strSentence.empty());
        }
        EXPECT_NE(std::string(g_lpszExitStatusHelp).find("  " + std::to_string(row.nExit) + " "),
                  std::string::npos);
    }
}

TEST(Results, TheSameResultAsksForAnotherThing) {
    std::set<std::string> sentences;
    for (int nAction = 0; nAction < ACTION_COUNT; ++nAction) {
        sentences.insert(
            Explain(static_cast<Action>(nAction), Stage::Running, DAKERROR_FAIL).strSentence);
    }
    // Status and Space know nothing better than to try again.
    EXPECT_EQ(sentences.size(), std::size_t{ACTION_COUNT} - 1);
    EXPECT_NE(Explain(Action::Push, Stage::Running, DAKERROR_NO_SPACE).strSentence,
              Explain(Action::Pull, Stage::Running, DAKERROR_NO_SPACE).strSentence);
    EXPECT_NE(Explain(Action::Push, Stage::Opening, DAKERROR_NO_DEVICE).strSentence,
              Explain(Action::Push, Stage::Running, DAKERROR_NO_DEVICE).strSentence);
}

TEST(Results, AFinerStateWinsOverAPlainFailure) {
    const auto key = [](DWORD dwResult, DWORD dwLastError) {
        return std::string(ExplainOperation(Action::RemoveFile, dwResult, dwLastError).lpszKey);
    };
    EXPECT_EQ(key(DAKERROR_NONE, DAKERROR_NONE), "ok");
    EXPECT_EQ(key(DAKERROR_FAIL, DAKERROR_FAIL), "failed");
    EXPECT_EQ(key(DAKERROR_FAIL, DAKERROR_NONE), "failed");
    EXPECT_EQ(key(DAKERROR_FAIL, DAKERROR_NO_SPACE), "no_space");
    EXPECT_EQ(key(DAKERROR_FAIL, DAKERROR_NO_DEVICE), "no_device");
    EXPECT_EQ(key(DAKERROR_BUSY, DAKERROR_BUSY), "busy");
    EXPECT_EQ(key(DAKERROR_NO_DEVICE, DAKERROR_NO_DEVICE), "no_device");
}

} // namespace
} // namespace cli
