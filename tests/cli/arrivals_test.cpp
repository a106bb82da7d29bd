#include "cli/arrivals.h"
#include "tests/cli/temp_folder.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace cli {
namespace {

TEST(Arrivals, NewAndReplacedFilesArriveAndOthersDoNot) {
    const CTempFolder folder;
    folder.Write("old", "1");
    folder.Write("replaced", "1");
    folder.Write("dir/kept", "1");
    folder.Write("dir/replaced", "1");
    const CArrivals arrivals(folder.Path(),
                             {"new", "old", "replaced", "dir", "newdir", "absent", "emptydir"});
    EXPECT_TRUE(arrivals.Arrived().empty());

    // The same bytes and times under the same name, as a second pull of the same file brings them.
    const auto replace = [&](const char* lpszName) {
        const auto time = fs::last_write_time(folder.Path(lpszName));
        folder.Write("part", "1");
        fs::last_write_time(folder.Path("part"), time);
        fs::rename(folder.Path("part"), folder.Path(lpszName));
    };
    replace("replaced");
    replace("dir/replaced");
    folder.Write("new", "123");
    folder.Write("newdir/s/a", "12");
    folder.Write("unwanted", "1");
    fs::create_directory(folder.Path("emptydir"));

    std::vector<std::string> paths;
    std::uint64_t qwBytes = 0;
    for (const ARRIVAL& file : arrivals.Arrived()) {
        paths.push_back(file.strPath);
        qwBytes += file.qwSize;
    }
    EXPECT_EQ(paths,
              (std::vector<std::string>{folder.Path("dir/replaced"), folder.Path("new"),
                                        folder.Path("newdir/s/a"), folder.Path("replaced")}));
    EXPECT_EQ(qwBytes, 7U);
    EXPECT_EQ(arrivals.Missing(), (std::vector<std::string>{"old", "absent", "emptydir"}));
}

} // namespace
} // namespace cli
