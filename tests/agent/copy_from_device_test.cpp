#include "agent_host.h"

namespace {

// A file that makes the stream of a pull exactly nPackages long, the last one holding dwLast bytes.
Bytes ContentOfPackages(std::size_t nPackages, std::size_t dwLast) {
    const std::size_t dwHead = 8 + 24 + 2 * 6; // with the name a.txt
    return Content((nPackages - 1) * DAK_DATA_SIZE + dwLast - dwHead);
}

TEST(CopyFromDevice, WaitsAtTheEndsOfWindows) {
    for (const std::size_t nPackages :
         std::initializer_list<std::size_t>{1, 2, 49, 50, 51, 100, 101}) {
        for (const std::size_t dwLast : {std::size_t{100}, std::size_t{DAK_DATA_SIZE}}) {
            SCOPED_TRACE(std::to_string(nPackages) + " packages, last " + std::to_string(dwLast));
            CAgentHost host;
            const Bytes data = ContentOfPackages(nPackages, dwLast);
            host.WriteFile("d/a.txt", data);
            host.Put(Command(8, host.PullPayload(u"\\d", {u"a.txt"})));
            ASSERT_EQ(host.TakeWord(), DAK_SUCCESS);
            const std::vector<Bytes> packages = host.TakeStream();
            ASSERT_EQ(packages.size(), nPackages);
            const std::vector<CFileRecord> files = CAgentHost::Parse(packages);
            ASSERT_EQ(files.size(), 1U);
            EXPECT_EQ(files[0].data, data);
            EXPECT_EQ(host.Plain(10, Text(u"\\next")), 1) << "the exchange is over";
        }
    }
}

TEST(CopyFromDevice, SendsAgainFromTheFirstPackage) {
    CAgentHost host;
    host.WriteFile("d/a.txt", ContentOfPackages(130, 77));
    host.WriteFile("d/b.txt", Content(50, 2));
    const Bytes command = Command(8, host.PullPayload(u"\\d", {u"a.txt", u"b.txt"}));
    host.Put(command);
    ASSERT_EQ(host.TakeWord(), DAK_SUCCESS);
    const std::vector<Bytes> all = host.TakeStream();
    ASSERT_EQ(all.size(), 130U);

    // The host has accepted nAccepted packages and finds the next one bad; nAhead more are taken by
    // the pipe before the agent hears of it.
    for (const std::size_t nAccepted :
         std::initializer_list<std::size_t>{0, 6, 49, 56, 99, 120, 129}) {
        SCOPED_TRACE(nAccepted);
        host.Put(command);
        ASSERT_EQ(host.TakeWord(), DAK_SUCCESS);
        for (std::size_t i = 0; i < nAccepted; ++i) {
            ASSERT_EQ(host.TakeData(), all[i]);
            if ((i + 1) % 50 == 0) {
                host.Put(Control(DAK_SUCCESS));
            }
        }
        host.Take(14); // of the bad one; the rest of it is dropped
        for (int nPass = 0; nPass < 2; ++nPass) {
            host.Put(Control(DAK_RETRANSMIT));
            for (std::size_t i = 0; i <= nAccepted; ++i) {
                ASSERT_EQ(host.TakeData(), all[i]) << i;
            }
        }
        for (std::size_t i = nAccepted + 1; i <= all.size(); ++i) {
            if (i % 50 == 0 || i == all.size()) {
                EXPECT_TRUE(host.Take().empty());
                host.Put(Control(DAK_SUCCESS));
            }
            if (i < all.size()) {
                ASSERT_EQ(host.TakeData(), all[i]) << i;
            }
        }
        EXPECT_TRUE(host.Take().empty());
    }
}

TEST(CopyFromDevice, AbortAndHandshakeEndIt) {
    CAgentHost host;
    host.WriteFile("d/a.txt", ContentOfPackages(60, 77));
    for (const std::size_t nTaken : std::initializer_list<std::size_t>{0, 3, 50}) {
        for (const bool bAbort : {false, true}) {
            host.Put(Command(8, host.PullPayload(u"\\d", {u"a.txt"})));
            ASSERT_EQ(host.TakeWord(), DAK_SUCCESS);
            for (std::size_t i = 0; i < nTaken; ++i) {
                ASSERT_TRUE(host.TakeData());
            }
            if (bAbort) {
                host.Take(14);
                host.Put(Control(DAK_ABORT));
                EXPECT_TRUE(host.Take().empty());
                host.Put(Control(DAK_ABORT)); // a second one hits nothing
                EXPECT_EQ(host.Plain(10, Text(u"\\x")), 1);
                EXPECT_EQ(host.Plain(2, Text(u"\\x")), 1);
            } else {
                EXPECT_TRUE(host.Handshake());
            }
        }
    }
}

// Every character of the command's names meets the end of a piece once.
TEST(CopyFromDevice, CommandInPiecesCutAnywhere) {
    CAgentHost host;
    const std::vector<std::u16string> wanted = {u"\u00e4\U0001F600.b", u"x\\y.txt"};
    host.WriteFile("d/\u00e4\U0001F600.b", {1});
    host.WriteFile("d/x/y.txt", {2});
    std::size_t dwNames = 0;
    for (const std::u16string& strName : wanted) {
        dwNames += 2 * (strName.size() + 1);
    }
    const std::size_t dwPiece = DAK_PACKAGE_SIZE - 10;
    const std::size_t dwFixed = host.PullPayload(u"\\d", {}).size();
    // The names stand at odd offsets, so that every cut parts a character.
    for (std::size_t dwCut = 1; dwCut <= dwNames; dwCut += 2) {
        // Names of files that are not there fill the room ahead.
        std::vector<std::u16string> names;
        for (std::size_t dwFiller = 2 * dwPiece - dwFixed - dwCut; dwFiller > 0;) {
            const std::size_t dwTake = dwFiller > 410 ? 400 : dwFiller;
            names.emplace_back(dwTake / 2 - 1, u'n');
            dwFiller -= dwTake;
        }
        names.insert(names.end(), wanted.begin(), wanted.end());
        Bytes payload = host.PullPayload(u"\\d", names);
        std::vector<Bytes> pieces;
        for (std::size_t dwAt = 0; dwAt < payload.size(); dwAt += dwPiece) {
            const auto itAt = payload.begin() + static_cast<std::ptrdiff_t>(dwAt);
            const std::size_t dwSize = std::min(dwPiece, payload.size() - dwAt);
            pieces.push_back(Command(8, Bytes(itAt, itAt + static_cast<std::ptrdiff_t>(dwSize))));
        }
        for (std::size_t i = 0; i < pieces.size(); ++i) {
            if (i + 1 < pieces.size()) {
                DakPutU32(pieces[i].data(), DAK_PACKAGE);
            }
            host.Put(pieces[i]);
            ASSERT_EQ(host.TakeWord(), DAK_SUCCESS) << "piece " << i;
        }
        const std::vector<CFileRecord> files = CAgentHost::Parse(host.TakeStream());
        ASSERT_EQ(files.size(), 2U) << dwCut;
        EXPECT_EQ(files[0].strName, wanted[0]);
        EXPECT_EQ(files[1].strName, wanted[1]);
    }
}

TEST(CopyFromDevice, CommandsThatDoNotHoldTogetherGetSilence) {
    CAgentHost host;
    const Bytes good = host.PullPayload(u"\\d", {u"a"});
    Bytes tooFew = good;
    tooFew.resize(tooFew.size() - 2); // the last terminator
    Bytes tooMany = good;
    tooMany.push_back(0);
    Bytes noCount = good;
    noCount.resize(noCount.size() - 6);
    Bytes direction = good;
    direction[0] = 2;
    for (const Bytes& payload : {tooFew, tooMany, noCount, direction, Bytes{}, Bytes{0}}) {
        host.Put(Command(8, payload));
        EXPECT_TRUE(host.Take().empty());
    }
    // A piece of another command, or of another size, spoils its chain and no other.
    Bytes piece = Command(8, good);
    piece.resize(DAK_PACKAGE_SIZE, 0);
    DakPutHeader(piece.data(), DAK_PACKAGE, DAK_MAXPACKAGELENGTH);
    Bytes foreign = piece;
    foreign[8] = 2;
    host.Put(foreign);
    EXPECT_TRUE(host.Take().empty());
    host.Put(Command(8, good));
    EXPECT_TRUE(host.Take().empty());
    EXPECT_TRUE(host.Handshake());
    host.Put(Command(8, good));
    EXPECT_EQ(host.TakeWord(), DAK_SUCCESS);
    EXPECT_TRUE(host.Handshake());

    // The memory for a chain is bounded: at 16 MiB the agent falls silent.
    std::size_t nPieces = 0;
    for (host.Put(piece); host.TakeWord() == DAK_SUCCESS && nPieces < 5000; host.Put(piece)) {
        ++nPieces;
    }
    EXPECT_EQ(nPieces, (std::size_t{16} << 20) / (DAK_PACKAGE_SIZE - 10));
    EXPECT_TRUE(host.Handshake());
}

TEST(CopyFromDevice, FilesThatChangeOnTheWay) {
    CAgentHost host;
    const Bytes data = ContentOfPackages(20, 100);
    const std::filesystem::path path = host.Root() / "d/a.txt";
    const auto begin = [&] {
        ASSERT_TRUE(host.Handshake());
        host.WriteFile("d/a.txt", data);
        host.Put(Command(8, host.PullPayload(u"\\d", {u"a.txt"})));
        ASSERT_EQ(host.TakeWord(), DAK_SUCCESS);
        for (int i = 0; i < 5; ++i) {
            ASSERT_TRUE(host.TakeData());
        }
    };
    // Grown: what was announced is sent.
    begin();
    std::ofstream(path, std::ios::app) << "more";
    std::size_t nPackages = 5;
    while (host.TakeData()) {
        ++nPackages;
    }
    EXPECT_EQ(nPackages, 20U);
    EXPECT_TRUE(host.Handshake());

    // Shrunk: the stream ends in a word that no host takes for data.
    begin();
    std::filesystem::resize_file(path, 7 * DAK_DATA_SIZE);
    ASSERT_TRUE(host.TakeData());
    ASSERT_TRUE(host.TakeData());
    EXPECT_EQ(host.TakeWord(), DAK_ABORT);
    EXPECT_TRUE(host.Take().empty());

    // Another content when it is given again: the host must not join the two.
    begin();
    std::filesystem::remove(path);
    host.WriteFile("d/a.txt", Content(data.size(), 9));
    host.Put(Control(DAK_RETRANSMIT));
    EXPECT_EQ(host.TakeWord(), DAK_ABORT);
    EXPECT_TRUE(host.Handshake());
}

} // namespace
