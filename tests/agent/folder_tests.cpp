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
    const auto listed = world.Folder().Find(CFolderWorld::At("d/e/f"));
    const auto pSource = world.Folder().OpenSource(CFolderWorld::At("d/e/f"));
    EXPECT_EQ(pSource->Identity(), listed->qwIdentity);
    world.Play("lay root/d/e/f@7");
    EXPECT_NE(pSource->Identity(), listed->qwIdentity) << "the content tells of itself";
    std::string strError;
    for (const std::string& strName : std::vector<std::string>{"", "a/b", "..", ".dak-x", "Card",
                                                               "\xFF", std::string(52, 'n')}) {
        EXPECT_FALSE(world.Folder().AddStorage(strName, world.base.Path("card"), strError))
            << strName;
    }
    EXPECT_FALSE(world.Folder().AddStorage("None", world.base.Path("none"), strError));
}

TEST(Folder, CopiesAndMoves) {
    PlayRows<CFolderWorld>(R"(
- all but the agent's own goes along, in place of a folder too, or nothing does:
    lay root/t/empty/ root/t/link>sub/large root/t/sub/deep/ro=ro:444 root/t/sub/large=x*300000@12;
    lay root/t/sub/deep/:750 root/t/sub/@34 root/t/.dak-foreign=own root/place/more=x; agent 2000000;
    copy t copy; !copynew t copy; copy t place; move place Card/m; lay root/t/sub/fifo|; !copy t copy;
    !copy t x; !there root/x; disk card = m/empty/ m/link>sub/large m/sub/@34 m/sub/deep/:750
    m/sub/deep/ro=ro:444 m/sub/large=x*300000@12; disk root/copy = empty/ link>sub/large sub/@34
    sub/deep/:750 sub/deep/ro=ro:444 sub/large=x*300000@12
- a file that is replaced hands on its permissions, and nothing goes onto itself:
    lay root/d/f=old:640 root/ro=ro:444; put d/f one@12; born d/f = 7; disk root/d = f=one:640@12;
    !copy d/f d/f; !move d/f d/f; !copy d d; !copy d d/x; copy ro d/f; disk root/d = f=ro:640
- what is given up at any moment leaves nothing, however large:
    lay root/huge=h*17000000 root/t/a=a; agent 100000000; used = 17000001; copying t x; leave;
    copying t x; step = -; leave; copying huge x; step = -; leave; copying huge x; step = -; step = -;
    step = -; leave; begin y 9; fill 123; leave; seen = Card/ In/ d/ huge=h*17000000 t/ t/a=a; work;
    used = 17000001; disk root = In/ d/ huge=h*17000000 t/a=a
- a target that may not be replaced any more stays:
    lay root/d/a=a; begin d/a 3; fill 123; lay root/d/a:444; !end; leave; disk root/d = a=a:444
- what a storage is given needs no room in the root:
    lay root/f=f; begin Card/a 3; disk root = In/ d/ f=f; leave; copying f Card/a; step = -;
    disk root = In/ d/ f=f; leave; disk card =
- THERE is: elsewhere card; lay root/t/f=f root/t/sub/x=x*30000 root/t/link>sub/x card/f=f; agent
- STAYED is: work; disk root/t = f=f link>sub/x sub/x=x*30000; seen Card = f=f; used = 30002
- to another file system:
    THERE; !move t/f Card/f; move t/f Card/g; move t Card/t; work; disk root = In/ d/;
    disk card = f=f g=f t/link>sub/x t/sub/x=x*30000; used = 30002; move Card/t/link d/link;
    move d/link Card/t/link; move Card/t back; disk root/back = link>sub/x sub/x=x*30000
- given up on the way: THERE; moving t Card/t; step = -; step = -; leave; STAYED
- with what cannot be copied, X of fifo| .dak-1.part=x:
    THERE; lay root/t/sub/X; !move t Card/t; drop root/t/sub/fifo; drop root/t/sub/.dak-1.part; STAYED
- with a mount, X of t t/sub: THERE; fault mounted root/X; !move t Card/t; STAYED
- written to on the way:
    THERE; moving t Card/t; step = -; lay root/t/late=late; step = -; !step; leave; drop root/t/late; STAYED
)");
}

TEST(Folder, HandlesAndTheirFiles) {
    // Two handles of one file, by two names of it, and whether both may be.
    std::istringstream shares("r rR n rR rR y rR rW n rR rwRW n rW wR y wR rW y wR rR n wRW wR n "
                              "wR wRW n rwRW rwRW y rR reRW n reRW rR y");
    for (std::string strFirst, strSecond, strBoth; shares >> strFirst >> strSecond >> strBoth;) {
        SCOPED_TRACE(strFirst + " " + strSecond);
        const std::string strBytes = strFirst == "reRW" ? "" : "123";
        CFolderWorld().Play("lay root/a=123 root/same+root/a; open 1 a " + strFirst +
                            "; open 2 same " + strSecond + " = " + strBoth +
                            "; disk root = In/ a=" + strBytes + " d/ same=" + strBytes +
                            (strBoth == "n" ? "; close 1; open 2 same " + strSecond : ""));
    }
    PlayRows<CFolderWorld>(R"(
- OPENED is: lay root/d/a=123 root/d/c=new root/In/a=123; agent; open 1 d/a rwRW
- LOST is: read 1 = 123; !write 1 3 4
- deleted: OPENED; rm d/a; LOST
- replaced: OPENED; put d/a new; LOST
- copied over: OPENED; copy d/c d/a; LOST
- in the trash: OPENED; lay root/.dak-0-0.trash/; rename root/d/a root/.dak-0-0.trash/b; LOST
- formatted, and a fresh one is written before and behind its moving up:
    OPENED; format /; LOST; open 2 f wm; write 2 0 1; work; write 2 1 2; disk root = In/a=123 f=12
- moved: OPENED; rename root/d/a root/d/b; read 1 = 123; write 1 3 4; disk root/d = b=1234 c=new
- in a storage that a format spares: OPENED; open 2 In/a rw; format /; write 2 3 4; read 2 = 1234
- what nobody can read any more gives its room back:
    OPENED; open 2 d/c w; rm d/a; rm d/c; size 1 = 3; size 2 = 0
- bytes with another name do not come back: lay root/a=1234 twin+root/a; agent; used = 4; rm a; used = 4
)");
}

// What killed agents leave is gone behind the next start, and what a living one has in work is not.
TEST(Folder, LeftoversOfAgents) {
    PlayRows<CFolderWorld>(R"(
- parts by their journals, and trash:
    lay root/d/kept=1 root/.dak-0123456789abcdef.journal=d^xyz root/.dak-1.journal=d^xyz;
    lay root/.dak-3.journal=..^xyz card/.dak-2.journal=^ root/d/.dak-0123456789abcdef.part=part;
    lay root/d/.dak-1.part/sub/x=tree card/.dak-2.part=part root/.dak-0-7.trash/1/deep/2=x;
    lay card/.dak-0-8.trash=x root/.dak-0-7.trash/out>../.. root/.dak-0-7.trash/1/deep/:0; agent; work;
    disk . = card/ outside.txt=outside root/In/ root/d/kept=1
- formats, killed before they had begun and while they were moved up:
    lay card/.dak-format/ root/In/.dak-formatted/.dak-3/c/d=while; agent; work;
    disk . = card/ outside.txt=outside root/In/c/d=while root/d/
- what a living agent has in work: begin d/a 3; fill 123; other; end; leave; disk root = In/ d/a=123
- what no agent has made is no format that was begun:
    lay card/.dak-format/1/x=x card/c=c; agent; work; seen Card = c=c
)");
}

TEST(Folder, Formats) {
    PlayRows<CFolderWorld>(R"(
- all at once, and then the bytes, with links, permissions and other names:
    lay card/a=a*10000:444 card/dir/.hidden=h card/dir/%deep/ card/link>../root/d card/hard+outside.txt;
    lay card/dir/:555 card/:777; agent; used = 10008; format Card; used = 10008; there card/a;
    put Card/a new; put Card/dir/b b; mkdir Card/link; busy; there card/.dak-format; !there card/hard;
    work; disk . = card/:777 card/a=new card/dir/b=b card/link/ outside.txt=outside root/In/ root/d/;
    used = 11
- the fresh folder has the permissions of the old:
    lay card/:777; format Card; rename card/.dak-format/.dak-1 root/x; disk root = In/ d/ x/:777
- no other storage, nor the way to it:
    lay root/way/to/deep/d=d root/way/to/other=o; storage Deep root/way/to/deep; storage Around .; agent;
    format /; work; disk root = In/ way/to/deep/d=d; lay root/In/i=i card/c=c; format Around; work;
    disk . = card/c=c root/In/i=i root/way/to/deep/d=d
- not what is served twice or may not be written:
    lay twin/x=x; storage Twin twin; storage Twin2 twin; lay card/c=c card/:555; agent; !format Twin;
    !format Card; disk . = card/:555 card/c=c outside.txt=outside root/In/ root/d/ twin/x=x
- FULL is: lay card/x/m/kept=kept card/y=y; agent
- BEGUN is: format Card; put Card/host host; seen Card = host=host
- NEXT is: lay card/late=late; agent; work
- begun, and an entry of a listed name that is another:
    FULL; BEGUN; lay card/z=late; rename card/z card/y; lay card/folder/late=late; NEXT;
    disk card = folder/late=late host=host late=late y=late
- begun, and formats are not allowed any more:
    FULL; BEGUN; formats off; NEXT; there card/x/m/kept; seen Card = host=host; formats on; agent; work;
    disk card = host=host late=late
- begun, and something of the owner's in the way:
    FULL; BEGUN; lay card/host=owner; work; NEXT; seen Card = host=host; drop card/host; agent; work;
    disk card = host=host late=late
- a mount below or a system that cannot tell, and what came beside it, X of mounted old:
    FULL; fault X card/x/m; BEGUN; work; lay card/x/late=late; NEXT; there card/x/m/kept;
    there card/x/late; seen Card = host=host; fault X 0; drop card/x; agent; disk card = host=host late=late
- again: FULL; BEGUN; format Card; seen Card =; put Card/new n; work; NEXT; disk card = late=late new=n
- what cannot be moved keeps the others where they are:
    format Card; put Card/a a; put Card/ro/b b; lay card/.dak-format/.dak-1/ro/:555;
    fault fixed card/.dak-format/.dak-1/ro; work; seen Card = a=a ro/ ro/b=b; there card/.dak-format;
    !there card/.dak-formatted; fault fixed 0; fault plain 1; agent; work; disk card = a=a ro/:555 ro/b=b
- AGAIN is: fault full 0; seen Card =; put Card/n n; format Card; work; disk card =; there root/other
- with room for its folder behind a removal, X of 1 3:
    lay root/other=kept card/1=x card/2=x card/3=x; agent; fault full X; format Card; AGAIN
- with no room for its folder: lay root/other=kept card/1=x; agent; fault full 1000; !format Card; AGAIN
- with no room, and nothing to remove: lay root/other=x; agent; fault full 2; !format Card; AGAIN
)");
}

TEST(Folder, DisksThatAreFullOrBroken) {
    PlayRows<CFolderWorld>(R"(
- full in the middle of a file:
    lay root/d/c=old root/large=l*400000; agent 1000000; limit 300000; %put d/c c*400000;
    %copy large d/c; open 1 d/c w; %write 1 300000 x; limit 0; disk root = In/ d/c=old large=l*400000;
    used = 400003
- no room in the quota:
    lay root/a=a*60001 root/%deep/x=x*30000; agent; used = 90001; %put b b*10000; %copy a b;
    put a b*9999; used = 39999; open 1 a w; %write 1 0 c*70001; write 1 9990 c*60010; used = 100000
- what a copy replaces gives its room back:
    lay root/a=12 root/b=3456 root/s/x=1 root/t/y=234; agent; copy a b; used = 8; copy s t; work; used = 6
- what is emptied or written anew:
    lay root/a=123; agent; open 1 a we; used = 0; write 1 0 xyz; used = 3; disk root = In/ a=xyz d/
- a folder that cannot be read looks like no short one:
    lay root/d/a=a; fault broken 1; !list d; fault broken 0; list d
)");
}

// Random work of all kinds, cut short, in the background and by new agents. What is done has its
// effect and no other, what is refused has none; the quota loses no byte.
class Model : public CFolderWorld, public testing::TestWithParam<unsigned> {
  protected:
    static bool IsStorage(const std::string& strPath) {
        return strPath == "Card" || strPath == "In";
    }
    // The folders on the way to a path.
    static std::vector<std::string> Above(const std::string& strPath) {
        std::vector<std::string> above;
        for (auto n = strPath.find('/'); n != std::string::npos; n = strPath.find('/', n + 1)) {
            above.push_back(strPath.substr(0, n));
        }
        return above;
    }
    bool MayPut(const std::string& strPath) const {
        const std::vector<std::string> above = Above(strPath);
        return !IsStorage(strPath) && !wanted.contains(strPath + "/") &&
               std::none_of(above.begin(), above.end(),
                            [&](const auto& each) { return wanted.contains(each); });
    }
    // An entry with all that it holds.
    TREE TakeOut(const std::string& strPath) {
        TREE tree;
        std::erase_if(wanted, [&](const auto& each) {
            const bool bIn = each.first == strPath || each.first.starts_with(strPath + "/");
            bIn ? static_cast<void>(tree[each.first.substr(strPath.size())] = each.second) : void();
            return bIn;
        });
        return tree;
    }
    void PutIn(const std::string& strPath, const TREE& tree) {
        for (const auto& [strBelow, strBytes] : tree) {
            wanted[strPath + strBelow] = strBytes;
        }
    }
    std::string AnyPath() {
        std::string strPath = std::array<const char*, 3>{"", "Card/", "In/"}[random() % 3];
        for (auto nDepth = random() % 3; nDepth > 0; --nDepth) {
            strPath += random() % 2 == 0 ? "p/" : "q/";
        }
        return random() % 20 == 0 && !strPath.empty() ? strPath.substr(0, strPath.size() - 1)
                                                      : strPath + "abpq"[random() % 4];
    }
    void Note(const std::string& strVerb, const std::string& strPath, const std::string& strTo);
    void Step();

    TREE wanted = {{"Card/", ""}, {"In/", ""}, {"d/", ""}};
    std::mt19937 random{GetParam()};
    std::size_t nDone = 0;
};

// The effect of a step.
void Model::Note(const std::string& strVerb, const std::string& strPath, const std::string& strTo) {
    const auto put = [&](const auto& each) { wanted[each + "/"]; };
    if (strVerb == "put" || strVerb == "begin") {
        const std::vector<std::string> above = Above(strPath);
        std::for_each(above.begin(), above.end(), put);
    } else if (strVerb == "mkdir") {
        put(strPath);
    } else if (strVerb == "rm") {
        TakeOut(strPath);
    } else if (strVerb == "format" && strPath != "/") {
        TakeOut(strPath);
        put(strPath);
    } else if (strVerb == "format") {
        std::erase_if(wanted, [&](const auto& each) {
            return !IsStorage(each.first.substr(0, each.first.find('/')));
        });
    } else if (strVerb == "copy" || strVerb == "copynew" || strVerb == "move") {
        const TREE tree = TakeOut(strPath);
        TakeOut(strTo);
        PutIn(strTo, tree);
        strVerb != "move" ? PutIn(strPath, tree) : void();
    }
}

void Model::Step() {
    static constexpr const char* VERBS[] = {
        "put",  "put",  "put",     "begin",   "mkdir",  "mkdir", "rm",    "rm",  "copy",
        "move", "move", "copynew", "copying", "format", "work",  "agent", "busy"};
    const std::string strVerb = VERBS[random() % std::size(VERBS)];
    const std::string strPath = strVerb == "format"
                                    ? std::array<const char*, 3>{"/", "Card", "In"}[random() % 3]
                                    : AnyPath();
    const std::string strTo = AnyPath();
    const std::string strBytes(random() % 4000, static_cast<char>('a' + random() % 26));
    const bool bRoom = Used() + strBytes.size() <= QUOTA;
    const std::string strMore = strVerb == "put"     ? strBytes
                                : strVerb == "begin" ? std::to_string(strBytes.size())
                                                     : strTo;
    SCOPED_TRACE(strVerb + " " + strPath + " " + strTo);
    const std::string strCame =
        Do(strVerb + (strVerb == "agent" ? "" : " " + strPath + " " + strMore));
    if (strVerb == "put" || strVerb == "begin") {
        EXPECT_EQ(strCame, IsStorage(strPath) ? "n" : !bRoom ? "f" : MayPut(strPath) ? "y" : "n");
    }
    if (strCame == "y") {
        ++nDone;
        Note(strVerb, strPath, strTo);
        strVerb == "put" ? static_cast<void>(wanted[strPath] = strBytes) : void();
        strVerb == "begin" ? static_cast<void>(Do("fill " + strBytes.substr(strBytes.size() / 2)))
                           : void();
        strVerb == "copying" ? static_cast<void>(Do("step")) : void();
        Do("leave");
    }
    std::uint64_t qwBytes = 0;
    for (const auto& [strEach, strAll] : wanted) {
        qwBytes += strAll.size();
    }
    ASSERT_EQ(Seen(), wanted);
    ASSERT_TRUE(Used() == qwBytes || (HasWork() && Used() > qwBytes)) << Used() << " " << qwBytes;
}

TEST_P(Model, IsWhatTheHostSees) {
    for (int nStep = 0; nStep < 200 && !HasFatalFailure(); ++nStep) {
        Step();
    }
    EXPECT_GT(nDone, 60U);
    EXPECT_EQ(Do("work"), "y");
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
    script("root/look", "{ while read -r a b; do case $a in Sig[BI]*) echo $a $b;; esac; done "
                        "< /proc/$$/status; ls -l /proc/$$/fd; cat; pwd; } > out");
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
        for (int i = 0; i < 60'000 && pPrograms->DueMs(0); ++i) {
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
    EXPECT_TRUE(strLook.starts_with("SigBlk: 0000000000000000\nSigIgn: 0000000000000000\n"))
        << strLook;
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
