// The device probes on an emulated device: user-writable areas, the zone
// file and readability (the television test is in test_gate_faults).

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <tuple>

#include "bs_context.h"
#include "device.h"
#include "main.h"
#include "securezone_context.h"

using namespace kzol_test;

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
    for (const auto& [path, answer] : cases) {
        char resolved[4097] = {}, real[4097] = {};
        clearLog();
        EXPECT_EQ(BSContext().checkFileIsInRWUser(path.c_str(), resolved), answer) << path;
        EXPECT_STREQ(resolved, answer == 0 ? realpath(path.c_str(), real) : resolved) << path;
        EXPECT_EQ(loggedLines(),
                  path != tmp + "/missing"
                      ? Lines{}
                      : Lines{errorLine("bs_context.cpp", "checkFileIsInRWUser",
                                        std::string("realpath() error : ") + std::strerror(ENOENT) + ";")})
            << path;
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

// The readability probe's line on standard error (the user IDs and the
// certificate search are pinned through the entry points in test_policy).
TEST(Probes, Readability)
{
    const DeviceProfile device;
    StderrCapture err;
    EXPECT_FALSE(isFileExists((device.path() + "/gone").c_str()));
    EXPECT_EQ(err.finish(), "\033[1;31m[zol][" + device.path() + "/gone:" + std::strerror(ENOENT) + "][" +
                                std::to_string(ENOENT) + "];\033[0m\n");
}
