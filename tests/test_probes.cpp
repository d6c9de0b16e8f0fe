// The device probes on an emulated device: user-writable areas and the zone
// file (the readability probe's line is pinned by HostileFiles.DefiniteAnswers);
// and the television test and the two policy steps that fail open under
// faults: a /proc/modules that exists but cannot be opened or read, and an
// existing file whose real path cannot be resolved.
// The default build keeps the described answers (the file runs unchecked);
// the KZOL_FAIL_CLOSED build holds the gate. Every row states both answers.

#include <tuple>

#include "bs_context.h"
#include "daemon.h"
#include "device.h"
#include "handles.h"
#include "kZOLUser.h"
#include "main.h"
#include "securezone_context.h"

using namespace kzol_test;

namespace {

constexpr bool c_failClosed = KZOL_FAIL_CLOSED != 0;
const std::string c_script = "#!/bin/sh\necho unsigned\n";

}  // namespace

// Files made for one test anywhere, removed with the directories made for them.
struct MadeFiles {
    std::string removal = "rm -rf";
    ~MadeFiles() { run(removal); }
    // A file at `path`, or a link to `target` when one is given.
    std::string operator()(const std::string& path, const std::string& target = {})
    {
        std::string top = path;  // the outermost of the things made
        while (top.rfind('/') > 0 && access(top.substr(0, top.rfind('/')).c_str(), F_OK) != 0) {
            top.erase(top.rfind('/'));
        }
        removal += " " + shq(top);
        writeFile(path, "x");
        if (!target.empty()) {
            EXPECT_EQ(unlink(path.c_str()), 0) << path;
            EXPECT_EQ(symlink(target.c_str(), path.c_str()), 0) << path;
        }
        return path;
    }
};

TEST(Probes, UserWritableAreas)
{
    if (access("/", W_OK) != 0) {
        GTEST_SKIP() << "cannot make directories at / and below /opt";
    }
    // A prefix rule: "/optX" and "/tmpX" at the root lie in the areas too; the
    // exclusions are matched against the rest after the four characters of
    // the area, so below "/opt-kzol-..." they never match.
    MadeFiles made;
    const std::string id = "kzol-" + std::to_string(getpid()), opt = "/opt-" + id, tmp = "/tmp-" + id;
    const std::vector<std::tuple<std::string, int>> cases = {
        {made(opt + "/usr/apps/a.sh"), 0},
        {made("/Opt-" + id + "/x"), -1},
        {made(opt + "/var/tmp/rpm-tmp/s.sh"), 0},
        {made("/opt/var/tmp/rpm-tmp/" + id + "/s.sh"), -1},
        {made("/opt/var/tmp/rpm-tmpX" + id + "/s.sh"), -1},
        {made("/opt/var/tmp/" + id + "/s.sh"), 0},
        {made("/tmp/data/pebblecove/" + id + "/t.sh"), -1},
        {"/tmp", 0},
        {made("/Opt-" + id + "/to-inside", made(tmp + "/inside.sh")), 0},
        {made(tmp + "/to-outside", "/usr/bin/env"), -1},
        {tmp + "/missing", -1},
    };
    const Lines missing = {errorLine("bs_context.cpp", "checkFileIsInRWUser",
                                     std::string("realpath() error : ") + std::strerror(ENOENT) + ";")};
    for (const auto& [path, answer] : cases) {
        char resolved[4097] = {}, real[4097] = {};
        clearLog();
        EXPECT_EQ(BSContext().checkFileIsInRWUser(path.c_str(), resolved), answer) << path;
        EXPECT_STREQ(resolved, answer == 0 ? realpath(path.c_str(), real) : resolved) << path;
        EXPECT_EQ(loggedLines(), path == tmp + "/missing" ? missing : Lines{}) << path;
    }
}

TEST(Probes, ZoneFile)
{
    const auto failed = [](const char* text) {
        return errorLine("securezone_context.cpp", "getContainerInformation", text);
    };
    // The zone file (null: none), whether it is read, the level and type read.
    for (const auto& [zone, read, level, type] :
         std::vector<std::tuple<const char*, bool, int, int>>{{"0 1\n", true, 0, 1},
                                                              {"  7\n\t1 trailing", true, 7, 1},
                                                              {"3 0\n", true, 3, 0},
                                                              {"x", false, -9, -9},
                                                              {"", false, -9, -9},
                                                              {"5\n", false, 5, -9},
                                                              {nullptr, false, -9, -9}}) {
        DeviceProfile device;
        device.set("zone", zone);
        SecureZoneContext context("/proc/self/zone");
        SecureZoneContext::ContainerContent content{-9, -9};
        const char* name = zone != nullptr ? zone : "none";
        EXPECT_EQ(context.getContainerInformation(content), read) << name;
        EXPECT_EQ(std::make_pair(content.level, content.type), std::make_pair(level, type)) << name;
        clearLog();
        EXPECT_EQ(context.isIsolatedContainer(), read && type == 1) << name;
        EXPECT_EQ(loggedLines(), !zone       ? Lines{failed("Failed to open zone file")}
                                 : !read     ? Lines{failed("Failed to read zone file")}
                                 : type == 1 ? Lines{isolatedLine(level)}
                                             : Lines{})
            << name;
    }
}

// The television test reads /proc/modules in five-character pieces; one that
// exists but cannot be opened or read fails open in the default build.
TEST(GateFaults, ModulesFile)
{
    const UserArea area;  // each row's own device profile stands in for the area's
    const std::string file = area.file("unsigned.sh");
    writeFile(file, c_script);
    struct Row {
        const char* name;
        const char* modules;  // null: none, or made by `make` (a link to itself fails to open for root too)
        bool television;      // IsDTV's answer, and whether the file is then checked
        Lines lines;          // IsDTV's lines
        int (*make)(const char* path) = nullptr;
    };
    const auto selfLink = [](const char* m) { return symlink(m, m); };
    const auto directory = [](const char* m) { return mkdir(m, 0700); };
    const Row rows[] = {
        {"a name that begins so", "sdp_gpio 16384 0 - Live 0x0\nmicom_drv 1236992 0 - Live 0x0\n", true, {}},
        {"at position 4", "1234micom\n", false, {}},
        {"at position 5", "abcdemicom 1 0\n", true, {}},
        {"no /proc/modules: not a television in both builds", nullptr, false, {c_noModulesLine}},
        {"cannot be opened (ELOOP)", nullptr, c_failClosed, {c_noModulesLine}, selfLink},
        {"opened, every read fails (EISDIR)", nullptr, c_failClosed, {}, directory},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        DeviceProfile device;
        device.set("modules", row.modules);
        ASSERT_EQ(row.make ? row.make((device.path() + "/modules").c_str()) : 0, 0);
        clearLog();
        EXPECT_EQ(IsDTV(), row.television);
        EXPECT_EQ(loggedLines(), row.lines);

        DaemonListener daemon;
        EXPECT_EQ(verifyFileWihtoutKey(file.c_str(), "loader"), row.television ? 0 : 1);
        EXPECT_EQ(daemon.drain(), row.television ? Lines{refusalFrame(file)} : Lines{});
    }
}

// A real path longer than the platform's longest path cannot be resolved;
// the file is reached through a short relative name.
TEST(GateFaults, RealPathBeyondTheLongestPath)
{
    UserArea area;
    const std::string component(200, 'd');
    const UniqueFd start(open(".", O_RDONLY | O_DIRECTORY));
    ASSERT_TRUE(start);
    ASSERT_EQ(chdir(area.path.c_str()), 0);
    for (int depth = 0; depth < 25; ++depth) {
        ASSERT_EQ(mkdir(component.c_str(), 0700), 0);
        ASSERT_EQ(chdir(component.c_str()), 0);
    }
    // Unsigned, it runs unchecked in the default build; the hardened build
    // checks it, refuses it and reports it.
    for (const bool isSigned : {false, true}) {
        SCOPED_TRACE(isSigned ? "signed" : "unsigned");
        writeFile("./run.sh", isSigned ? signedFile(c_script, "P50", devPrivateKey('5')) : c_script);
        const bool refused = c_failClosed && !isSigned;
        DaemonListener daemon;
        clearLog();
        EXPECT_EQ(verifyFileWihtoutKey("run.sh", "loader"), refused ? 0 : 1);
        EXPECT_EQ(loggedLines().at(0),
                  errorLine("bs_context.cpp", "checkFileIsInRWUser", "realpath() error : File name too long;"));
        EXPECT_EQ(daemon.drain(), refused ? Lines{refusalFrame("run.sh")} : Lines{});
        // The default build asks nothing of the device about such a file.
        EXPECT_EQ(area.device.takeTrace().empty(), !c_failClosed);
    }
    // Back by descriptor: the tree's whole name is too long to use.
    ASSERT_EQ(fchdir(start.get()), 0);
}
