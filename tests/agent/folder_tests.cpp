// The device's folder on a POSIX file system, by its contract; and what only a file system shows:
// permissions, links, what killed agents leave, full disks, another file system.
#include "tests/agent/folder_world.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <random>
#include <sys/syscall.h>

extern "C" int mkdirat(int fd, const char* lpszPath, mode_t mode) {
    if (g_faults["full"] == 0) {
        return static_cast<int>(::syscall(SYS_mkdirat, fd, lpszPath, mode));
    }
    --g_faults["full"];
    errno = ENOSPC;
    return -1;
}
extern "C" int renameat2(int fdOld, const char* lpszOld, int fdNew, const char* lpszNew,
                         unsigned nFlags) {
    struct stat status {};
    ::fstatat(fdOld, lpszOld, &status, AT_SYMLINK_NOFOLLOW);
    if ((g_faults["plain"] != 0 && S_ISDIR(status.st_mode) && (status.st_mode & 0200) == 0) ||
        (status.st_ino != 0 && status.st_ino == g_faults["fixed"])) {
        errno = EACCES;
        return -1;
    }
    return static_cast<int>(::syscall(SYS_renameat2, fdOld, lpszOld, fdNew, lpszNew, nFlags));
}
extern "C" dirent* readdir(DIR* lpDir) {
    static const auto s_lpReal =
        reinterpret_cast<decltype(&::readdir)>(::dlsym(RTLD_NEXT, "readdir"));
    errno = g_faults["broken"] != 0 ? EIO : errno;
    return g_faults["broken"] != 0 ? nullptr : s_lpReal(lpDir);
}
extern "C" int statx(int fd, const char* lpszPath, int nFlags, unsigned nMask,
                     struct statx* lpStatus) {
    const long nResult = ::syscall(SYS_statx, fd, lpszPath, nFlags, nMask, lpStatus);
    if (lpStatus->stx_ino == g_faults["mounted"]) {
        lpStatus->stx_attributes |= STATX_ATTR_MOUNT_ROOT;
    }
    if (g_faults["old"] != 0) {
        lpStatus->stx_attributes_mask &= ~std::uint64_t{STATX_ATTR_MOUNT_ROOT};
    }
    return static_cast<int>(nResult);
}

namespace test {
namespace {

// Each on a world of its own.
void Play(const std::vector<std::pair<const char*, std::string>>& rows) {
    for (const auto& [lpszName, strScript] : rows) {
        SCOPED_TRACE(lpszName);
        CFolderWorld().Play(strScript);
    }
}

// What each operation may do at a path, one letter for each that succeeds; what is refused changes
// nothing.
TEST(Folder, PathsAgainstOperations) {
    const std::map<char, const char*> operations = {
        {'i', "find @"},       {'l', "list @"},      {'s', "source @"},    {'$', "space @"},
        {'r', "open 1 @ r"},   {'w', "open 1 @ rw"}, {'e', "open 1 @ re"}, {'n', "open 1 @ rwmx"},
        {'p', "put @ new"},    {'k', "mkdir @"},     {'d', "rm @"},        {'c', "copy @ new"},
        {'C', "copy d/s/x @"}, {'T', "copy d/s @"},  {'m', "move @ new"},  {'M', "move d/s @"},
        {'F', "format @"}};
    std::istringstream rows(
        "/ ilF$ far ilc$ d ilcm$ d/f isrwepdcCm d/s ilcm$ empty ildcTm$ Card ilcF$ Card/c "
        "isrwepdcCm In ilcF$ ro isrcm locked ilcTm$ locked/y isrwedcm locked/z k link isrwepdcCm "
        "same ilpdcCm$ same/f isrwepdcCm out pdCm abs pdCm dangling pdCm up pdCm up/outside.txt - "
        "up/z - fifo - none npkCTM none/z p d/f/z -");
    for (std::string strPath, strMay; rows >> strPath >> strMay;) {
        std::string strDoes;
        std::unique_ptr<CFolderWorld> pWorld;
        for (const auto& [chLetter, lpszOperation] : operations) {
            if (!pWorld) {
                pWorld = std::make_unique<CFolderWorld>();
                pWorld->Play(
                    "lay root/far/; storage Far root/far; agent; lay root/empty/ root/d/f=f "
                    "root/d/s/x=x root/ro=ro:444 root/locked/y=y root/locked/:555 card/c=c "
                    "root/link>d/f root/same>d root/out>../outside.txt root/abs>/etc/passwd "
                    "root/dangling>none root/up>.. root/fifo|");
            }
            const std::string strBefore = pWorld->Do("disk .");
            if (pWorld->Do(std::regex_replace(lpszOperation, std::regex("@"), strPath)) == "y") {
                strDoes += chLetter;
                EXPECT_EQ(ReadBytes(pWorld->base / "outside.txt"), "outside");
                pWorld.reset();
            } else {
                EXPECT_EQ(pWorld->Do("disk ."), strBefore) << strPath << " " << lpszOperation;
            }
        }
        std::sort(strMay.begin(), strMay.end());
        EXPECT_EQ(strDoes.empty() ? "-" : strDoes, strMay) << strPath;
    }
}

TEST(Folder, WalksStayBelowWithTheKernelAndWithout) {
    CFolderWorld world;
    world.Play("lay root/d/e/f=x root/d/link>e/f root/d/out>../../outside.txt root/d/up>../..");
    const agent::CFd fdRoot(
        ::open(world.base.Path("root").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (const auto lpOpen : {agent::OpenBelow, agent::OpenBelowByWalk}) {
        std::string strOpens;
        for (const char* lpszPath : {"", "d/e/f", "d/out", "d/up/outside.txt", "../outside.txt",
                                     "d/../../outside.txt", "d/missing/f"}) {
            strOpens += lpOpen(fdRoot.Get(), lpszPath, O_RDONLY, 0) ? 'y' : 'n';
        }
        EXPECT_EQ(strOpens, "yynnnnn");
    }
    std::string strError;
    for (const std::string strName :
         {"", "a/b", "..", ".dak-x", "Card", "\xFF", std::string(52, 'n').c_str()}) {
        EXPECT_FALSE(world.Folder().AddStorage(strName, world.base.Path("card"), strError))
            << strName;
    }
    EXPECT_FALSE(world.Folder().AddStorage("None", world.base.Path("none"), strError));
}

TEST(Folder, CopiesAndMoves) {
    const std::string strTree = "empty/ link>sub/large sub/@34 sub/deep/:750 sub/deep/ro=ro:444 "
                                "sub/large=x*300000@12";
    const std::string strAll = "lay root/t/empty/ root/t/link>sub/large root/t/sub/deep/ro=ro:444 "
                               "root/t/sub/large=x*300000@12 root/t/sub/deep/:750 root/t/sub/@34; ";
    const std::string strElsewhere = "lay root/t/f=f root/t/sub/x=x*30000 root/t/link>sub/x; "
                                     "elsewhere card; lay card/f=f; agent; ";
    const std::string strAsItWas =
        "work; disk root/t = f=f link>sub/x sub/x=x*30000; seen Card = Card/f=f; used = 30002";
    Play({
        {"all but the agent's own goes along, in place of a folder too, or nothing does",
         strAll +
             "lay root/t/.dak-foreign=own root/place/more=x; agent 2000000; copy t copy;"
             "!copynew t copy; copy t place; move place Card/moved; disk root/copy = " +
             strTree + "; disk card/moved = " + strTree +
             "; lay root/t/sub/fifo|; !copy t copy; !copy t other; !there root/other; disk "
             "root/copy = " +
             strTree},
        {"a file that is replaced hands on its permissions, and nothing goes onto itself",
         "lay root/d/f=old:640 root/ro=ro:444; put d/f one@12; born d/f = 7;"
         "disk root/d = f=one:640@12; !copy d/f d/f; !move d/f d/f; !copy d d; !copy d d/x; copy "
         "ro d/f;"
         "disk root/d = f=ro:640"},
        {"which content a file has can be told",
         "lay root/f=x root/f@5; source f; same; lay root/f@7; !same; source f; same; lay "
         "root/f=yy; !same"},
        {"what is given up at any moment leaves nothing, however large",
         "lay root/huge=h*17000000 root/t/a=a; agent 100000000; used = 17000001;"
         "copying t x; leave; copying t x; step = -; leave; copying huge x; step = -; leave;"
         "copying huge x; step = -; step = -; step = -; leave; begin y 9; fill 123; leave; seen = "
         "Card/ In/ d/ huge=h*17000000 t/ t/a=a;"
         "work; used = 17000001; disk root = In/ d/ huge=h*17000000 t/a=a"},
        {"a target that may not be replaced any more stays",
         "lay root/d/a=a; begin d/a 3; fill 123; lay root/d/a:444; !end; leave; disk root/d = "
         "a=a:444"},
        {"what a storage is given needs no room in the root",
         "lay root/f=f; begin Card/a 3; disk root = In/ d/ f=f; leave; copying f Card/a; step = -;"
         "disk root = In/ d/ f=f; leave; disk card ="},
        {"to another file system",
         strElsewhere +
             "!move t/f Card/f; move t/f Card/g; move t Card/t; work; disk root = In/ d/;"
             "disk card = f=f g=f t/link>sub/x t/sub/x=x*30000; used = 30002; move Card/t/link "
             "d/link;"
             "move d/link Card/t/link; move Card/t back; disk root/back = link>sub/x "
             "sub/x=x*30000"},
        {"to another file system, given up",
         strElsewhere + "moving t Card/t; step = -; step = -; leave; " + strAsItWas},
        {"to another file system, what cannot be copied",
         strElsewhere + "lay root/t/sub/fifo|; !move t Card/t; drop root/t/sub/fifo; " +
             strAsItWas},
        {"to another file system, what is another agent's",
         strElsewhere +
             "lay root/t/sub/.dak-1.part=x; !move t Card/t; drop root/t/sub/.dak-1.part; " +
             strAsItWas},
        {"to another file system, with a mount",
         strElsewhere +
             "fault mounted root/t; !move t Card/t; fault mounted root/t/sub; !move t Card/t; " +
             strAsItWas},
        {"to another file system, and written to on the way",
         strElsewhere +
             "moving t Card/t; step = -; lay root/t/late=late; step = -; step = n; leave; drop "
             "root/t/late; " +
             strAsItWas},
    });
}

TEST(Folder, HandlesAndTheirFiles) {
    // Two handles of one file, by two names of it, and whether both may be.
    std::istringstream shares("r rR n rR rR y rR rW n rR rwRW n rW wR y wR rW y wR rR n wRW wR n "
                              "wR wRW n rwRW rwRW y rR reRW n reRW rR y");
    for (std::string strFirst, strSecond, strBoth; shares >> strFirst >> strSecond >> strBoth;) {
        SCOPED_TRACE(strFirst + " " + strSecond);
        const bool bEmptied = strFirst.find('e') != std::string::npos;
        CFolderWorld().Play("lay root/a=123 root/same+root/a; open 1 a " + strFirst +
                            "; open 2 same " + strSecond + " = " + strBoth + "; disk root = In/ " +
                            (bEmptied ? "a= d/ same=" : "a=123 d/ same=123") +
                            (strBoth == "n" ? "; close 1; open 2 same " + strSecond : ""));
    }
    const std::string strOpen =
        "lay root/d/a=123 root/d/c=new root/In/a=123; agent; open 1 d/a rwRW; ";
    const std::string strLost = "; read 1 = 123; !write 1 3 4";
    Play({{"deleted", strOpen + "rm d/a" + strLost},
          {"replaced", strOpen + "put d/a new" + strLost},
          {"copied over", strOpen + "copy d/c d/a" + strLost},
          {"in the trash",
           strOpen + "lay root/.dak-0-0.trash/; rename root/d/a root/.dak-0-0.trash/b" + strLost},
          {"formatted, and a fresh one is written before and behind its moving up",
           strOpen + "format /" + strLost +
               "; open 2 f wm; write 2 0 1; work; write 2 1 2; disk root = In/a=123 f=12"},
          {"moved",
           strOpen +
               "rename root/d/a root/d/b; read 1 = 123; write 1 3 4; disk root/d = b=1234 c=new"},
          {"in a storage that a format spares",
           strOpen + "open 2 In/a rw; format /; write 2 3 4; read 2 = 1234"},
          {"what nobody can read any more gives its room back",
           strOpen + "open 2 d/c w; rm d/a; rm d/c; size 1 = 3; size 2 = 0"},
          {"bytes with another name do not come back",
           "lay root/a=1234 twin+root/a; agent; used = 4; rm a; used = 4"},
          {"room behind the end", "lay root/a=12; agent 100; open 1 a wrRW; %write 1 90 "
                                  "0123456789ab; write 1 88 0123456789ab; used = 100"}});
}

// What killed agents leave is gone behind the next start, and what a living one has in work is not.
TEST(Folder, LeftoversOfAgents) {
    Play(
        {{"parts by their journals, and trash",
          "lay root/d/kept=1 root/.dak-0123456789abcdef.journal=d^xyz root/.dak-1.journal=d^xyz "
          "root/.dak-3.journal=..^xyz card/.dak-2.journal=^ root/d/.dak-0123456789abcdef.part=part "
          "root/d/.dak-1.part/sub/x=tree card/.dak-2.part=part root/.dak-0-7.trash/1/deep/2=x "
          "card/.dak-0-8.trash=x root/.dak-0-7.trash/out>../.. root/.dak-0-7.trash/1/deep/:0; "
          "agent; work; disk . = card/ outside.txt=outside root/In/ root/d/kept=1"},
         {"formats, killed before they had begun and while they were moved up",
          "lay card/.dak-format/ root/In/.dak-formatted/.dak-3/c/d=while; agent; work;"
          "disk . = card/ outside.txt=outside root/In/c/d=while root/d/"},
         {"what a living agent has in work",
          "begin d/a 3; fill 123; other; end; leave; disk root = In/ d/a=123"},
         {"what no agent has made is no format that was begun",
          "lay card/.dak-format/1/x=x card/c=c; agent; work; seen Card = Card/c=c"}});
}

TEST(Folder, FormatEmptiesAtOnceAndRemovesInTheBackground) {
    // One format in work, and what came behind it; then an agent that goes on.
    const std::string strBegun = "lay card/x/m/kept=kept card/y=y; agent; ";
    const std::string strFormat = "format Card; put Card/host host; seen Card = Card/host=host; ";
    const std::string strNext = "lay card/late=late; agent; work; ";
    const std::string strStuck =
        strFormat + "work; lay card/x/late=late; " + strNext +
        "there card/x/m/kept; there card/x/late; seen Card = Card/host=host; fault mounted 0; "
        "fault old 0; drop card/x; agent; disk card = host=host late=late";
    Play({
        {"all at once, and then the bytes, with links, permissions and other names",
         "lay card/a=a*10000:444 card/dir/.hidden=h card/dir/%deep/ card/link>../root/d "
         "card/hard+outside.txt card/dir/:555 card/:777; agent; used = 10008;"
         "format Card; used = 10008; there card/a; put Card/a new; put Card/dir/b b; mkdir "
         "Card/link; busy;"
         "there card/.dak-format; !there card/hard; work; disk . = card/:777 card/a=new "
         "card/dir/b=b card/link/ outside.txt=outside root/In/ root/d/; used = 11"},
        {"the fresh folder has the permissions of the old",
         "lay card/:777; format Card; rename card/.dak-format/.dak-1 root/x; disk root = In/ d/ "
         "x/:777"},
        {"no other storage, nor the way to it",
         "lay root/way/to/deep/d=d root/way/to/other=o; storage Deep root/way/to/deep; storage "
         "Around .; agent; format /; work;"
         "disk root = In/ way/to/deep/d=d; lay root/In/i=i card/c=c; format Around; work; disk . = "
         "card/c=c root/In/i=i root/way/to/deep/d=d"},
        {"not what is served twice or may not be written",
         "lay twin/x=x; storage Twin twin; storage Twin2 twin; lay card/c=c card/:555; agent; "
         "!format Twin; !format Card; disk . = card/:555 card/c=c outside.txt=outside root/In/ "
         "root/d/ twin/x=x"},
        {"begun, and an entry of a listed name that is another",
         strBegun + strFormat +
             "lay card/z=late; rename card/z card/y; lay card/folder/late=late; " + strNext +
             "disk card = folder/late=late host=host late=late y=late"},
        {"begun, and formats are not allowed any more",
         strBegun + strFormat + "formats off; " + strNext +
             "there card/x/m/kept; seen Card = Card/host=host; formats on; agent; work; disk card "
             "= host=host late=late"},
        {"begun, and more than is moved up with the host there",
         strBegun + strFormat +
             "many card/.dak-format/.dak-1 1000; work; there card/.dak-format; " + strNext +
             "!there card/.dak-format; there card/late; there card/1000; there card/host"},
        {"begun, and something of the owner's in the way",
         strBegun + strFormat + "lay card/host=owner; work; " + strNext +
             "seen Card = Card/host=host; drop card/host; agent; work; disk card = host=host "
             "late=late"},
        {"a mount below, and what came beside it",
         strBegun + "fault mounted card/x/m; " + strStuck},
        {"a system that cannot tell mounts", strBegun + "fault old 1; " + strStuck},
        {"again", strBegun + strFormat + "format Card; seen Card =; put Card/new new; work; " +
                      strNext + "disk card = late=late new=new"},
        {"what cannot be moved keeps the others where they are",
         "format Card; put Card/a a; put Card/ro/b b; lay card/.dak-format/.dak-1/ro/:555; fault "
         "fixed card/.dak-format/.dak-1/ro; work;"
         "seen Card = Card/a=a Card/ro/ Card/ro/b=b; there card/.dak-format; !there "
         "card/.dak-formatted; fault fixed 0; fault plain 1; agent; work; disk card = a=a ro/:555 "
         "ro/b=b"},
    });
    // Where there is no room for a folder the removal begins ahead of the format, and only then.
    for (const auto& [strTimes, strFiles, strDone] :
         {std::tuple<std::string, std::string, std::string>{"1", "card/1=x card/2=x card/3=x", "y"},
          {"3", "card/1=x card/2=x card/3=x", "y"},
          {"1000", "card/1=x card/2=x card/3=x", "n"},
          {"2", "root/d/x=x", "n"}}) {
        SCOPED_TRACE("full " + strTimes);
        CFolderWorld().Play("lay root/other=kept " + strFiles + "; agent; fault full " + strTimes +
                            "; format Card = " + strDone +
                            "; fault full 0; seen Card =; put Card/new new; format Card; work; "
                            "disk card =; there root/other");
    }
}

TEST(Folder, DisksThatAreFullOrBroken) {
    Play({{"full in the middle of a file", "lay root/d/c=old root/large=l*400000; agent 1000000; "
                                           "limit 300000; %put d/c c*400000; %copy large d/c;"
                                           "open 1 d/c w; %write 1 300000 x; limit 0; disk root = "
                                           "In/ d/c=old large=l*400000; used = 400003"},
          {"no room in the quota",
           "lay root/a=a*60001 root/%deep/x=x*30000; agent; used = 90001; %put b b*10000; %copy a "
           "b; put a b*9999; used = 39999"},
          {"a folder that cannot be read looks like no short one",
           "lay root/d/a=a; fault broken 1; !list d; fault broken 0; list d"}});
}

// Random work of all kinds, cut short, in the background and by new agents, beside a model of what
// the host should see.
class Model : public CFolderWorld, public testing::TestWithParam<unsigned> {
  protected:
    bool IsFolder(const std::string& strPath) const {
        return strPath.empty() || model.contains(strPath + "/");
    }
    bool Exists(const std::string& strPath) const {
        return IsFolder(strPath) || model.contains(strPath);
    }
    static std::string Parent(const std::string& strPath) {
        return strPath.substr(0, strPath.find('/') == std::string::npos ? 0 : strPath.rfind('/'));
    }
    static bool Fixed(const std::string& strPath) {
        return strPath.empty() || strPath == "Card" || strPath == "In";
    }
    static bool LiesIn(const std::string& strPath, const std::string& strFolder) {
        return strPath == strFolder || strPath.starts_with(strFolder + "/");
    }
    bool MayPut(const std::string& strPath) const {
        return !Fixed(strPath) && IsFolder(Parent(strPath));
    }
    TREE Below(const std::string& strPath) const {
        TREE below = model;
        std::erase_if(below, [&](const auto& each) { return !LiesIn(each.first, strPath); });
        return below;
    }
    static std::uint64_t Size(const TREE& tree) {
        std::uint64_t qwBytes = 0;
        for (const auto& [strPath, strBytes] : tree) {
            qwBytes += strBytes.size();
        }
        return qwBytes;
    }
    void Drop(const std::string& strPath) {
        std::erase_if(model, [&](const auto& each) { return LiesIn(each.first, strPath); });
    }
    void Take(const std::string& strFrom, const std::string& strTo) {
        const TREE tree = Below(strFrom);
        Drop(strTo);
        for (const auto& [strPath, strBytes] : tree) {
            model[strTo + strPath.substr(strFrom.size())] = strBytes;
        }
    }
    std::string AnyPath() {
        static const std::array<std::string, 3> s_tops = {"", "Card/", "In/"};
        std::string strPath = s_tops[random() % 3];
        for (auto nDepth = random() % 3; nDepth > 0; --nDepth) {
            strPath += random() % 2 == 0 ? "p/" : "q/";
        }
        return random() % 20 == 0 && !strPath.empty() ? strPath.substr(0, strPath.size() - 1)
                                                      : strPath + "abpq"[random() % 4];
    }
    // What they come to, by the model.
    char Put(const std::string& strPath, std::uint64_t qwSize) {
        std::string strAbove = Parent(strPath);
        while (!Exists(strAbove)) {
            strAbove = Parent(strAbove);
        }
        if (Fixed(strPath) || qwSize > qwRoom) {
            return Fixed(strPath) ? 'n' : 'f';
        }
        if (!IsFolder(strAbove) || IsFolder(strPath)) {
            return 'n';
        }
        for (strAbove = Parent(strPath); !strAbove.empty(); strAbove = Parent(strAbove)) {
            model[strAbove + "/"];
        }
        return 'y';
    }
    char Copy(const std::string& strFrom, const std::string& strTo, bool bNew) const {
        const bool bMay = MayPut(strTo) && Exists(strFrom) &&
                          !(IsFolder(strFrom) && LiesIn(strTo, strFrom)) && strTo != strFrom &&
                          (!Exists(strTo) || (!bNew && IsFolder(strTo) == IsFolder(strFrom) &&
                                              !LiesIn(strFrom, strTo)));
        return !bMay ? 'n' : Size(Below(strFrom)) <= qwRoom ? 'y' : 'f';
    }
    void Write(const std::string& strPath, const std::string& strBytes);
    void Step();

    TREE model = {{"Card/", ""}, {"In/", ""}, {"d/", ""}};
    std::mt19937 random{GetParam()};
    std::uint64_t qwRoom = 0;
};

void Model::Write(const std::string& strPath, const std::string& strBytes) {
    const std::string strHow =
        std::array<const char*, 6>{"w", "wm", "wx", "wmx", "rwe", "wme"}[random() % 6];
    const auto is = [&](char ch) { return strHow.find(ch) != std::string::npos; };
    const bool bMay =
        MayPut(strPath) && !IsFolder(strPath) && (Exists(strPath) ? !is('x') : is('m'));
    ASSERT_EQ(Do("open 1 " + strPath + " " + strHow), bMay ? "y" : "n") << strPath << " " << strHow;
    if (bMay) {
        std::string& strNow = model[strPath];
        strNow = is('e') ? "" : strNow;
        qwRoom = QUOTA - Used();
        const std::size_t dwAt = random() % 2000;
        const std::size_t dwEnd = strBytes.empty() ? 0 : dwAt + strBytes.size();
        const bool bRoom = dwEnd <= strNow.size() || dwEnd - strNow.size() <= qwRoom;
        EXPECT_EQ(Do("write 1 " + std::to_string(dwAt) + " " + strBytes), bRoom ? "y" : "f");
        if (bRoom && dwEnd > 0) {
            strNow.resize(std::max(strNow.size(), dwEnd));
            strNow.replace(dwAt, strBytes.size(), strBytes);
        }
        Do("close 1");
    }
}

void Model::Step() {
    const std::string strPath = AnyPath();
    const std::string strTo = AnyPath();
    const std::string strBytes(random() % 4000, static_cast<char>('a' + random() % 26));
    const auto nWhat = random() % 20;
    const bool bSeldom = random() % 4 == 0;
    qwRoom = QUOTA - Used();
    std::string strStep;
    char chWanted = 'y';
    if (nWhat < 5) {
        strStep = (bSeldom ? "cut " : "put ") + strPath + " " + strBytes;
        chWanted = Put(strPath, strBytes.size());
        if (chWanted == 'y' && !bSeldom) {
            model[strPath] = strBytes;
        }
    } else if (nWhat < 8) {
        strStep = "find /";
        Write(strPath, strBytes);
    } else if (nWhat < 10) {
        strStep = "mkdir " + strPath;
        chWanted = MayPut(strPath) && !Exists(strPath) && model.emplace(strPath + "/", "").second
                       ? 'y'
                       : 'n';
    } else if (nWhat < 12) {
        strStep = "rm " + strPath;
        chWanted = !Fixed(strPath) && Exists(strPath) && Below(strPath).size() == 1 ? 'y' : 'n';
        chWanted == 'y' ? Drop(strPath) : void();
    } else if (nWhat < 15) {
        const bool bNew = random() % 3 == 0;
        strStep = (bNew ? "copynew " : "copy ") + strPath + " " + strTo;
        chWanted = Copy(strPath, strTo, bNew);
        if (chWanted == 'y' && bSeldom) {
            Play("copying " + strPath + " " + strTo + "; step = -; leave");
            strStep = "find /";
        } else if (chWanted == 'y') {
            Take(strPath, strTo);
        }
    } else if (nWhat < 17) {
        strStep = "move " + strPath + " " + strTo;
        chWanted = MayPut(strTo) && !Fixed(strPath) && Exists(strPath) && !Exists(strTo) &&
                           !LiesIn(strTo, strPath)
                       ? 'y'
                       : 'n';
        if (chWanted == 'y') {
            Take(strPath, strTo);
            Drop(strPath);
        }
    } else if (nWhat == 17) {
        const std::string strServed = std::array<const char*, 3>{"/", "Card", "In"}[random() % 3];
        strStep = "format " + strServed;
        std::erase_if(model, [&](const auto& each) {
            const std::string strTop = each.first.substr(0, each.first.find('/'));
            return strServed == "/" ? !Fixed(strTop)
                                    : strTop == strServed && each.first != strServed + "/";
        });
    } else {
        strStep = nWhat == 19 ? "agent" : bSeldom ? "busy" : "work";
    }
    ASSERT_EQ(Do(strStep), std::string(1, chWanted)) << strStep.substr(0, 40) << " room " << qwRoom;
    ASSERT_EQ(Seen(), model) << strStep.substr(0, 40);
    ASSERT_GE(Used(), Size(model)) << strStep.substr(0, 40);
    ASSERT_TRUE(HasWork() || Used() == Size(model)) << strStep.substr(0, 40);
}

TEST_P(Model, IsWhatTheHostSees) {
    for (int nStep = 0; nStep < 200 && !HasFatalFailure(); ++nStep) {
        Step();
    }
    Do("work");
    EXPECT_EQ(Do("disk .").find(".dak-"), std::string::npos);
}
INSTANTIATE_TEST_SUITE_P(Seed, Model, testing::Range(1U, 13U));

// Programs of the device: which run, what they inherit, how many, and what is told of them.
TEST(Folder, Programs) {
    CFolderWorld world;
    const std::string strRoot = world.base.Path("root");
    const auto script = [&](const std::string& strPath, const std::string& strText) {
        world.base.Write(strPath, "#!/bin/sh\n" + strText + "\n");
        fs::permissions(world.base / strPath, fs::perms(0755));
    };
    for (const char* lpszPath : {"root/d/tell", "bin2/only2", "bin/tool", "card/carded", "away/far",
                                 "root/both", "root/plain"}) {
        script(lpszPath, "printf '%s|' \"$@\" > out; exit 7");
    }
    script("bin/both", "exit 9");
    script("root/killed", "kill -9 $$");
    script("root/wait", "read x < gate");
    script("bin/note",
           "read x < " + strRoot + "/gate; echo \"$1 $DAK_WPARAM\" > " + strRoot + "/noted");
    script("root/look", "grep -E '^Sig(Blk|Ign)' /proc/$$/status > out; ls -l /proc/$$/fd >> out; "
                        "pwd >> out; cat >> out");
    world.Play("lay root/plain:644 root/gate| root/out1>../away/far bin/alias>tool "
               "bin/outalias>../away/far");
    const agent::CFd fdGate(::open((strRoot + "/gate").c_str(), O_RDWR)); // not closed by exec
    agent::CDeviceOptions options;
    options.system.execPaths = {world.base.Path("bin"), world.base.Path("bin2")};
    options.system.messageCommands = {world.base.Path("bin/note") + " 'a b'"};
    std::vector<std::string> notices;
    options.system.lpNotice = [&](const std::string& strLine) { notices.push_back(strLine); };
    std::string strError;
    const auto pPrograms = agent::CDeviceProcesses::Open(options, world.Folder(), strError);
    ASSERT_TRUE(pPrograms) << strError;
    const auto settle = [&] {
        for (int i = 0; i < 5000 && pPrograms->DueMs(0); ++i) {
            ::usleep(1000);
            pPrograms->Tick(0);
        }
        EXPECT_FALSE(pPrograms->DueMs(0));
    };
    const auto run = [&](const std::string& strPath, bool bBare) {
        world.Do("drop root/out");
        const auto pState = pPrograms->StartProgram(world.At(strPath), bBare, {"a", "b c", ""});
        settle();
        return pState ? std::int64_t{pState->dwStatus} : -1;
    };
    // By a bare name or not, and the status.
    std::istringstream rows(
        "d/tell 0 7 Card/carded 0 7 tool 1 7 only2 1 7 alias 1 7 both 1 7 killed 0 137 "
        "tool 0 -1 outalias 1 -1 out1 0 -1 plain 0 -1 d 0 -1 none 1 -1");
    std::string strPath;
    bool bBare = false;
    for (std::int64_t llStatus = 0; rows >> strPath >> bBare >> llStatus;) {
        EXPECT_EQ(run(strPath, bBare), llStatus) << strPath;
        EXPECT_EQ(ReadBytes(strRoot + "/out"), llStatus == 7 ? "a|b c||" : "") << strPath;
    }
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    const auto lpOld = std::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(run("look", false), 0);
    std::signal(SIGPIPE, lpOld);
    ::pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
    const std::string strLook = ReadBytes(strRoot + "/out");
    EXPECT_TRUE(std::regex_search(strLook, std::regex("^SigBlk:\t0+\nSigIgn:\t0+\n"))) << strLook;
    EXPECT_TRUE(strLook.ends_with(strRoot + "\n")) << strLook;
    EXPECT_NE(strLook.find("0 -> /dev/null"), std::string::npos) << strLook;
    EXPECT_EQ(strLook.find("gate"), std::string::npos) << strLook;
    // Bounded, and free again; commands for messages are counted for themselves.
    for (std::size_t i = 0; i <= agent::CDeviceProcesses::MOST_PROGRAMS; ++i) {
        EXPECT_EQ(pPrograms->StartProgram(world.At("wait"), false, {}) != nullptr,
                  i < agent::CDeviceProcesses::MOST_PROGRAMS);
    }
    for (std::size_t i = 0; i <= agent::CDeviceProcesses::MOST_COMMANDS; ++i) {
        pPrograms->StartMessageCommands({{"DAK_WPARAM", "7"}});
    }
    ASSERT_EQ(notices.size(), 1U);
    EXPECT_NE(notices[0].find("too many"), std::string::npos);
    const std::string strThrough(40, '\n');
    EXPECT_TRUE(agent::WriteWhole(fdGate.Get(), strThrough.data(), strThrough.size()));
    settle();
    EXPECT_EQ(ReadBytes(strRoot + "/noted"), "a b 7\n");
    EXPECT_EQ(run("d/tell", false), 7);
    EXPECT_EQ(world.Do("format /"), "y");
    EXPECT_EQ(run("d/tell", false), -1) << "a format takes programs away";
}

} // namespace
} // namespace test
