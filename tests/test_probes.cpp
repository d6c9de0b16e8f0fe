// The device probes on an emulated device: user-writable areas, the
// television test, the zone file, user IDs, readability, the certificate
// search and the device identifier.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "bs_context.h"
#include "device.h"
#include "main.h"
#include "securezone_context.h"
#include "test_support.h"

using kzol_test::DeviceProfile;
using kzol_test::errorLine;
using kzol_test::infoLine;
using kzol_test::LogRecorder;
using kzol_test::warnLine;

namespace {

using Lines = std::vector<std::string>;

// A directory at the root whose name starts with `prefix`, removed afterwards.
struct RootDir {
    std::string path;
    explicit RootDir(const std::string& prefix)
    {
        std::string pattern = "/" + prefix + "XXXXXX";
        if (mkdtemp(pattern.data()) != nullptr) {
            path = pattern;
        }
    }
    ~RootDir()
    {
        if (!path.empty()) {
            kzol_test::run("rm -rf '" + path + "'");
        }
    }
};

// A fresh directory below `parent`; the parent directories it had to make
// are removed afterwards with it.
struct TreeDir {
    std::string path;
    std::string made;  // the top-most directory made here
    explicit TreeDir(const std::string& parent)
    {
        std::string existing = parent;
        while (access(existing.c_str(), F_OK) != 0) {
            made = existing;
            existing = existing.substr(0, existing.rfind('/'));
        }
        if (kzol_test::run("mkdir -p '" + parent + "'") != 0) {
            return;
        }
        std::string pattern = parent + "/kzol-XXXXXX";
        if (mkdtemp(pattern.data()) != nullptr) {
            path = pattern;
        }
    }
    ~TreeDir()
    {
        kzol_test::run("rm -rf '" + (made.empty() ? path : made) + "'");
    }
};

std::string makeFile(const std::string& path)
{
    kzol_test::run("mkdir -p \"$(dirname '" + path + "')\"");
    kzol_test::writeFile(path, "x");
    return path;
}

}  // namespace

TEST(Probes, UserWritableAreas)
{
    // Real paths at the root of the file system; a prefix rule: "/optX" and
    // "/tmpX" lie in the areas too.
    RootDir opt("opt-kzol-"), tmp("tmp-kzol-"), upper("Opt-kzol-"), plain("kzol-plain-");
    RootDir optDir("opt");  // "/optXXXXXX"
    // Directories below the real areas' excluded places, and beside them.
    TreeDir rpm("/opt/var/tmp/rpm-tmp"), rpmX("/opt/var/tmp/rpm-tmpX"), optOther("/opt/var/tmp/other");
    TreeDir pebble("/tmp/data/pebblecove"), pebbleX("/tmp/data/pebblecoveX"), pebbleNot("/tmp/data/pebble");
    if (opt.path.empty() || tmp.path.empty() || rpm.path.empty() || pebble.path.empty()) {
        GTEST_SKIP() << "cannot make directories at / and below /opt";
    }
    struct Case {
        std::string path;
        int answer;
    };
    const std::vector<Case> cases = {
        {makeFile(opt.path + "/usr/apps/a.sh"), 0},
        {makeFile(tmp.path + "/run.sh"), 0},
        {makeFile(optDir.path + "/x"), 0},
        {makeFile(upper.path + "/x"), -1},  // case-sensitive
        {makeFile(plain.path + "/a"), -1},
        // The exclusions are matched against the rest after the four
        // characters of the area: below "/opt-kzol-..." they never match.
        {makeFile(opt.path + "/var/tmp/rpm-tmp/s.sh"), 0},
        {makeFile(tmp.path + "/data/pebblecove/t.sh"), 0},
        {makeFile(rpm.path + "/s.sh"), -1},  // /opt/var/tmp/rpm-tmp/...
        {makeFile(rpmX.path + "/job.sh"), -1},
        {makeFile(optOther.path + "/job.sh"), 0},
        {makeFile(pebble.path + "/t.sh"), -1},  // /tmp/data/pebblecove/...
        {makeFile(pebbleX.path + "/t.sh"), -1},
        {makeFile(pebbleNot.path + "/t.sh"), 0},
        {"/tmp", 0},
        {"/usr/bin", -1},
        {"/opt", 0},
    };
    const BSContext context;
    for (const auto& c : cases) {
        char resolved[4097] = {};
        LogRecorder::clear();
        EXPECT_EQ(context.checkFileIsInRWUser(c.path.c_str(), resolved), c.answer) << c.path;
        EXPECT_TRUE(LogRecorder::lines().empty()) << c.path;
        if (c.answer == 0) {
            char real[4097];
            ASSERT_NE(realpath(c.path.c_str(), real), nullptr);
            EXPECT_STREQ(resolved, real);
        }
    }
    // The rest after the area is what the exclusions are matched against:
    // /var/tmp/rpm-tmp at its own place lies in no area at all.
    char resolved[4097] = {};
    LogRecorder::clear();
    const std::string missing = tmp.path + "/missing";
    EXPECT_EQ(context.checkFileIsInRWUser(missing.c_str(), resolved), -1);
    EXPECT_EQ(LogRecorder::lines(),
              Lines{errorLine("bs_context.cpp", "checkFileIsInRWUser",
                              std::string("realpath() error : ") + std::strerror(ENOENT) + ";")});
    // Symbolic links are resolved first.
    const std::string in = makeFile(tmp.path + "/inside.sh");
    const std::string linkOut = plain.path + "/to-inside", linkIn = tmp.path + "/to-outside";
    ASSERT_EQ(symlink(in.c_str(), linkOut.c_str()), 0);
    ASSERT_EQ(symlink("/usr/bin/env", linkIn.c_str()), 0);
    EXPECT_EQ(context.checkFileIsInRWUser(linkOut.c_str(), resolved), 0);
    EXPECT_EQ(context.checkFileIsInRWUser(linkIn.c_str(), resolved), -1);
}

TEST(Probes, TelevisionTestReadsFiveCharacterPieces)
{
    struct Case {
        const char* name;
        std::string modules;
        bool television;
    };
    const std::vector<Case> cases = {
        {"micom_drv first", "micom_drv 16384 2 - Live 0xffffffffc0a00000\n", true},
        {"micom on a later line", "sdp_gpio 16384 0 - Live 0x0\nmicom 1236992 0 - Live 0x0\n", true},
        {"name at position 3", "ab micom 1 0\n", false},
        {"name at position 5", "abcdemicom 1 0\n", true},
        {"name at position 10", "0123456789micom\n", true},
        {"name at position 4", "1234micom\n", false},
        {"xmicom", "xmicom 16384 0 - Live 0x0\n", false},
        {"short line before", "ab\nmicom\n", true},
        {"used by micom", "sdp 1 1 micom, Live 0x0\n", false},
        {"no line feed at the end", "micom", true},
        {"empty", "", false},
    };
    for (const auto& c : cases) {
        DeviceProfile device;
        device.modules(c.modules);
        LogRecorder::clear();
        EXPECT_EQ(IsDTV(), c.television) << c.name;
        EXPECT_TRUE(LogRecorder::lines().empty()) << c.name;
    }
    DeviceProfile device;
    device.noModules();
    LogRecorder::clear();
    EXPECT_FALSE(IsDTV());
    EXPECT_EQ(LogRecorder::lines(), Lines{infoLine("main.cpp", "IsDTV", "[zol] /proc/modules is not exited")});
}

TEST(Probes, ZoneFile)
{
    const std::string cannotRead = errorLine("securezone_context.cpp", "getContainerInformation",
                                             "Failed to read zone file");
    const std::string cannotOpen = errorLine("securezone_context.cpp", "getContainerInformation",
                                             "Failed to open zone file");
    struct Case {
        const char* zone;  // null: no zone file
        bool read;
        int level, type;
        bool isolated;
        Lines log;
    };
    const std::vector<Case> cases = {
        {"0 1\n", true, 0, 1, true,
         {infoLine("securezone_context.cpp", "isIsolatedContainer", "[zol] Isolate container process lv : 0, type : 1")}},
        {"2 1", true, 2, 1, true,
         {infoLine("securezone_context.cpp", "isIsolatedContainer", "[zol] Isolate container process lv : 2, type : 1")}},
        {"3 0\n", true, 3, 0, false, {}},
        {"  7\n\t1 trailing", true, 7, 1, true,
         {infoLine("securezone_context.cpp", "isIsolatedContainer", "[zol] Isolate container process lv : 7, type : 1")}},
        {"x", false, 0, 0, false, {cannotRead}},
        {"", false, 0, 0, false, {cannotRead}},      // ends before the first number
        {"5\n", false, 0, 0, false, {cannotRead}},   // one number: the type was never read
        {"5 x", false, 0, 0, false, {cannotRead}},
        {nullptr, false, 0, 0, false, {cannotOpen}},
    };
    for (const auto& c : cases) {
        DeviceProfile device;
        if (c.zone != nullptr) {
            device.zone(c.zone);
        } else {
            device.noZone();
        }
        SecureZoneContext zone("/proc/self/zone");
        SecureZoneContext::ContainerContent content{-9, -9};
        LogRecorder::clear();
        EXPECT_EQ(zone.getContainerInformation(content), c.read) << (c.zone ? c.zone : "none");
        if (c.read) {
            EXPECT_EQ(content.level, c.level);
            EXPECT_EQ(content.type, c.type);
        }
        LogRecorder::clear();
        EXPECT_EQ(zone.isIsolatedContainer(), c.isolated) << (c.zone ? c.zone : "none");
        EXPECT_EQ(LogRecorder::lines(), c.log) << (c.zone ? c.zone : "none");
    }
}

TEST(Probes, RootUserIds)
{
    struct Case {
        const char* ids;
        bool root;
        std::vector<std::string> trace;
    };
    const std::vector<Case> cases = {
        {"0 1000", true, {"getuid"}},  // the effective ID is not asked
        {"0 0", true, {"getuid"}},
        {"1000 0", true, {"getuid", "geteuid"}},
        {"1000 1000", false, {"getuid", "geteuid"}},
    };
    for (const auto& c : cases) {
        DeviceProfile device;
        device.uid(c.ids);
        device.takeTrace();
        EXPECT_EQ(SecureZoneContext("/proc/self/zone").isRootUID(), c.root) << c.ids;
        EXPECT_EQ(device.takeTrace(), c.trace) << c.ids;
    }
}

TEST(Probes, ReadabilityLineOnStandardError)
{
    kzol_test::TempDir dir;
    kzol_test::writeFile(dir.file("there"), "x");
    EXPECT_TRUE(isFileExists(dir.file("there").c_str()));
    kzol_test::StderrCapture err;
    EXPECT_FALSE(isFileExists(dir.file("gone").c_str()));
    EXPECT_EQ(err.finish(), "\033[1;31m[zol][" + dir.file("gone") + ":" + std::strerror(ENOENT) + "][" +
                                std::to_string(ENOENT) + "];\033[0m\n");
}

TEST(Probes, CertificateSearchAndDeviceId)
{
    const std::string noUsb = warnLine("main.cpp", "FindZOLDiableFile", "No connected usb_mass_storage");
    {
        DeviceProfile device;
        device.noUsbService();
        LogRecorder::clear();
        EXPECT_FALSE(FindZOLDiableFile());
        EXPECT_EQ(LogRecorder::lines(), Lines{noUsb});
        device.takeTrace();
    }
    {
        DeviceProfile device;  // service up, nothing attached: no message
        LogRecorder::clear();
        EXPECT_FALSE(FindZOLDiableFile());
        EXPECT_TRUE(LogRecorder::lines().empty());
        EXPECT_EQ(device.takeTrace(),
                  (std::vector<std::string>{"usb_device_init", "usb_mass_storage_foreach", "usb_device_fini"}));
    }
    {
        DeviceProfile device;
        const std::string cert = device.stick("s") + "/RTZOLOFF.cer";
        kzol_test::writeFile(cert, "any content");
        LogRecorder::clear();
        EXPECT_TRUE(FindZOLDiableFile());
        EXPECT_EQ(LogRecorder::lines(), Lines{infoLine("main.cpp", "handleStorageCallback", "Find USBZOLPath : " + cert)});
    }
    struct IdCase {
        const char* stored;  // null: no value
        std::string answer;
        bool logged;
    };
    for (const IdCase& c : std::vector<IdCase>{{"ABC123", "ABC123", false}, {"ABC123\n", "ABC123", false},
                                                {"", "", true}, {nullptr, "", true}}) {
        DeviceProfile device;
        if (c.stored != nullptr) {
            device.deviceId(c.stored);
        } else {
            device.noDeviceId();
        }
        LogRecorder::clear();
        EXPECT_EQ(GetDUID(), c.answer);
        EXPECT_EQ(LogRecorder::lines(),
                  c.logged ? Lines{errorLine("main.cpp", "GetDUID", "Hwduid get failed;")} : Lines{});
    }
    // The signed data is the identifier's bytes and nothing else.
    ByteBuffer bytes;
    EXPECT_TRUE(BSContext().readDeviceId(bytes, "ABC123"));
    EXPECT_EQ(bytes, (ByteBuffer{0x41, 0x42, 0x43, 0x31, 0x32, 0x33}));
}
