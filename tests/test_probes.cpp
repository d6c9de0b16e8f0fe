// The device probes on an emulated device: user-writable areas, the
// television test, the zone file, user IDs, readability, the certificate
// search and the device identifier.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <tuple>

#include "bs_context.h"
#include "device.h"
#include "main.h"
#include "securezone_context.h"

using namespace kzol_test;
using Lines = std::vector<std::string>;

namespace {

const std::string c_none = "/proc/self/no-such-dir";

// Directories made for one test anywhere, removed with the parents they needed.
struct MadeDirs {
    std::string removal = "rm -rf";
    ~MadeDirs() { run(removal); }
    // A fresh directory `prefix` + six characters; c_none when it cannot be made.
    std::string operator()(const std::string& prefix)
    {
        std::string top, path = prefix + "XXXXXX";
        for (auto p = prefix.substr(0, prefix.rfind('/')); !p.empty() && access(p.c_str(), F_OK) != 0;
             p = p.substr(0, p.rfind('/'))) {
            top = p;
        }
        if (run("mkdir -p '/" + prefix.substr(0, prefix.rfind('/')) + "'") != 0 || mkdtemp(path.data()) == nullptr) {
            return c_none;
        }
        removal += " '" + (top.empty() ? path : top) + "'";
        return path;
    }
};

std::string file(const std::string& path)
{
    run("mkdir -p \"$(dirname '" + path + "')\"");
    writeFile(path, "x");
    return path;
}
std::string link(const std::string& target, const std::string& path)
{
    return symlink(target.c_str(), path.c_str()) == 0 ? path : "(no link)";
}

}  // namespace

TEST(Probes, UserWritableAreas)
{
    // A prefix rule: "/optX" and "/tmpX" at the root lie in the areas too; the
    // exclusions are matched against the rest after the four characters of
    // the area, so below "/opt-kzol-..." they never match.
    MadeDirs dir;
    const std::string opt = dir("/opt-kzol-"), tmp = dir("/tmp-kzol-"), plain = dir("/kzol-plain-");
    if (opt == c_none || tmp == c_none || plain == c_none || dir("/opt/var/tmp/rpm-tmp/kzol-") == c_none) {
        GTEST_SKIP() << "cannot make directories at / and below /opt";
    }
    struct Case {
        std::string path;
        int answer;
        Lines log = {};
    };
    const std::vector<Case> cases = {
        {file(opt + "/usr/apps/a.sh"), 0},
        {file(tmp + "/run.sh"), 0},
        {file(dir("/Opt-kzol-") + "/x"), -1},
        {file(plain + "/a"), -1},
        {file(opt + "/var/tmp/rpm-tmp/s.sh"), 0},
        {file(tmp + "/data/pebblecove/t.sh"), 0},
        {file(dir("/opt/var/tmp/rpm-tmp/kzol-") + "/s.sh"), -1},
        {file(dir("/opt/var/tmp/rpm-tmpX") + "/s.sh"), -1},
        {file(dir("/opt/var/tmp/other/") + "/s.sh"), 0},
        {file(dir("/tmp/data/pebblecove/kzol-") + "/t.sh"), -1},
        {file(dir("/tmp/data/pebblecoveX") + "/t.sh"), -1},
        {file(dir("/tmp/data/pebble/") + "/t.sh"), 0},
        {"/tmp", 0},
        {link(file(tmp + "/inside.sh"), plain + "/to-inside"), 0},
        {link("/usr/bin/env", tmp + "/to-outside"), -1},
        {tmp + "/missing", -1, {errorLine("bs_context.cpp", "checkFileIsInRWUser",
                                 std::string("realpath() error : ") + std::strerror(ENOENT) + ";")}},
    };
    for (const auto& c : cases) {
        char resolved[4097] = {}, real[4097] = {};
        LogRecorder::clear();
        EXPECT_EQ(BSContext().checkFileIsInRWUser(c.path.c_str(), resolved), c.answer) << c.path;
        EXPECT_EQ(LogRecorder::lines(), c.log) << c.path;
        if (c.answer == 0) {
            EXPECT_STREQ(resolved, realpath(c.path.c_str(), real)) << c.path;
        }
    }
}

TEST(Probes, TelevisionTestReadsFiveCharacterPieces)
{
    // The modules (null: no /proc/modules), whether that makes a television.
    const std::vector<std::pair<const char*, bool>> cases = {
        {"micom_drv 16384 2 - Live 0xffffffffc0a00000\n", true},  // the name at position 0
        {"sdp_gpio 16384 0 - Live 0x0\nmicom 1236992 0 - Live 0x0\n", true},
        {"ab micom 1 0\n", false},  // position 3
        {"1234micom\n", false},
        {"abcdemicom 1 0\n", true},
        {"0123456789micom\n", true},
        {"xmicom 16384 0 - Live 0x0\n", false},
        {"sdp 1 1 micom, Live 0x0\n", false},
        {nullptr, false},
    };
    for (const auto& [modules, television] : cases) {
        DeviceProfile device;
        device.set("modules", modules);
        LogRecorder::clear();
        EXPECT_EQ(IsDTV(), television) << (modules ? modules : "none");
        EXPECT_EQ(LogRecorder::lines(), modules ? Lines{} : Lines{c_noModulesLine});
    }
}

TEST(Probes, ZoneFile)
{
    struct Case {
        const char* zone;  // null: no zone file
        bool read;
        int level = 0, type = 0;
    };
    for (const Case& c : std::vector<Case>{{"0 1\n", true, 0, 1}, {"  7\n\t1 trailing", true, 7, 1}, {"3 0\n", true, 3, 0},
                                           {"x", false}, {"", false}, {"5\n", false}, {nullptr, false}}) {
        DeviceProfile device;
        device.set("zone", c.zone);
        SecureZoneContext zone("/proc/self/zone");
        SecureZoneContext::ContainerContent content{-9, -9};
        const char* name = c.zone != nullptr ? c.zone : "none";
        EXPECT_EQ(zone.getContainerInformation(content), c.read) << name;
        if (c.read) {
            EXPECT_EQ(content.level, c.level) << name;
            EXPECT_EQ(content.type, c.type) << name;
        }
        const auto failed = [](const char* text) { return errorLine("securezone_context.cpp", "getContainerInformation", text); };
        LogRecorder::clear();
        EXPECT_EQ(zone.isIsolatedContainer(), c.read && c.type == 1) << name;
        EXPECT_EQ(LogRecorder::lines(), !c.zone ? Lines{failed("Failed to open zone file")}
                                        : !c.read ? Lines{failed("Failed to read zone file")}
                                        : c.type == 1 ? Lines{isolatedLine(c.level)} : Lines{}) << name;
    }
}

TEST(Probes, RootUserIds)
{
    // The user IDs, whether they are root's, what was asked.
    for (const auto& [ids, root, trace] : std::vector<std::tuple<const char*, bool, Lines>>{
             {"0 1000", true, {"getuid"}},  // the effective ID is not asked
             {"1000 0", true, {"getuid", "geteuid"}},
             {"1000 1000", false, {"getuid", "geteuid"}}}) {
        DeviceProfile device;
        device.set("uid", ids);
        device.takeTrace();
        EXPECT_EQ(SecureZoneContext("/proc/self/zone").isRootUID(), root) << ids;
        EXPECT_EQ(device.takeTrace(), trace) << ids;
    }
}

TEST(Probes, ReadabilityLineOnStandardError)
{
    TempDir dir;
    EXPECT_TRUE(isFileExists(file(dir.file("there")).c_str()));
    StderrCapture err;
    EXPECT_FALSE(isFileExists(dir.file("gone").c_str()));
    EXPECT_EQ(err.finish(), "\033[1;31m[zol][" + dir.file("gone") + ":" + std::strerror(ENOENT) + "][" +
                                std::to_string(ENOENT) + "];\033[0m\n");
}

TEST(Probes, CertificateSearchAndDeviceId)
{
    DeviceProfile device;
    EXPECT_FALSE(FindZOLDiableFile());
    writeFile(device.stick("s") + "/RTZOLOFF.cer", "any content");
    EXPECT_TRUE(FindZOLDiableFile());
    EXPECT_EQ(GetDUID(), DeviceProfile::c_deviceId);
    // The signed data is the identifier's bytes and nothing else.
    ByteBuffer bytes;
    EXPECT_TRUE(BSContext().readDeviceId(bytes, "ABC123"));
    EXPECT_EQ(bytes, (ByteBuffer{0x41, 0x42, 0x43, 0x31, 0x32, 0x33}));
}
