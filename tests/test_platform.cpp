// The host platform layer and the device emulation: the configuration-store
// and USB-service stand-ins, the emulation library, and the kzol commands
// around them (cert, profile init, emulate).
//
// The stand-ins and the emulation are loaded here with dlopen() and called
// through dlsym(), so that this program's own symbol scope, which the library
// under test resolves its platform calls in, stays as it is.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <usb_device.h>

#include "signature.h"
#include "string_utils.h"
#include "test_support.h"

using kzol_test::readFile;
using kzol_test::run;
using kzol_test::TempDir;
using kzol_test::writeFile;

namespace {

namespace fs = std::filesystem;

// ---- helpers -----------------------------------------------------------------

struct DlClose {
    void operator()(void* handle) const { dlclose(handle); }
};
using Library = std::unique_ptr<void, DlClose>;

Library openLibrary(const char* path)
{
    Library lib(dlopen(path, RTLD_NOW | RTLD_LOCAL));
    EXPECT_TRUE(lib) << path << ": " << dlerror();
    return lib;
}

template <class F>
F symbol(const Library& lib, const char* name)
{
    void* address = lib ? dlsym(lib.get(), name) : nullptr;
    EXPECT_NE(address, nullptr) << name;
    return reinterpret_cast<F>(address);
}

// Sets (or, with nullopt, unsets) an environment variable for its lifetime.
class EnvVar {
public:
    EnvVar(const char* name, const std::optional<std::string>& value) : m_name(name)
    {
        if (const char* old = std::getenv(name)) {
            m_old = old;
        }
        set(value);
    }
    ~EnvVar() { set(m_old); }
    EnvVar(const EnvVar&) = delete;
    EnvVar& operator=(const EnvVar&) = delete;
    void set(const std::optional<std::string>& value)
    {
        if (value) {
            setenv(m_name, value->c_str(), 1);
        } else {
            unsetenv(m_name);
        }
    }

private:
    const char* m_name;
    std::optional<std::string> m_old;
};

std::string q(const std::string& s)
{
    return "'" + s + "'";
}

void makeFile(const std::string& path, const std::string& bytes)
{
    fs::create_directories(fs::path(path).parent_path());
    writeFile(path, bytes);
}

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

bool hasLineStarting(const std::string& text, const std::string& prefix)
{
    for (const std::string& line : linesOf(text)) {
        if (line.rfind(prefix, 0) == 0) {
            return true;
        }
    }
    return false;
}

// A C string from the platform, released with free(); nullopt for NULL.
std::optional<std::string> take(char* value)
{
    if (value == nullptr) {
        return std::nullopt;
    }
    std::string s(value);
    std::free(value);
    return s;
}

// The whole content of a stream, closed after reading; nullopt for NULL.
std::optional<std::string> drain(FILE* file)
{
    if (file == nullptr) {
        return std::nullopt;
    }
    std::string text;
    char buffer[256];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
        text.append(buffer, n);
    }
    std::fclose(file);
    return text;
}

using VconfGetStr = char* (*)(const char*);
using UsbInit = int (*)();
using UsbForeach = int (*)(void (*)(usb_device_s*, void*), void*);
using UsbMountpath = char* (*)(usb_device_s*);
using UsbFini = void (*)();
using Fopen = FILE* (*)(const char*, const char*);
using GetUid = uid_t (*)();

// The USB service of one library, driven as the policy drives it.
struct UsbService {
    UsbInit init;
    UsbForeach foreach;
    UsbMountpath mountpath;
    UsbFini fini;

    explicit UsbService(const Library& lib)
        : init(symbol<UsbInit>(lib, "usb_device_init")),
          foreach(symbol<UsbForeach>(lib, "usb_mass_storage_foreach")),
          mountpath(symbol<UsbMountpath>(lib, "usb_device_get_mountpath")),
          fini(symbol<UsbFini>(lib, "usb_device_fini"))
    {
    }

    struct Walk {
        int result;
        // Mount path of each device visited, in order; "<null>" for none.
        std::vector<std::string> devices;
    };

    Walk walk() const
    {
        struct Context {
            UsbMountpath mountpath;
            std::vector<std::string> devices;
        } context{mountpath, {}};
        const int result = foreach(
            [](usb_device_s* device, void* data) {
                auto* c = static_cast<Context*>(data);
                const char* path = c->mountpath(device);
                c->devices.push_back(path ? path : "<null>");
            },
            &context);
        return {result, context.devices};
    }
};

// ---- configuration store stand-in -------------------------------------------------

TEST(VconfStandIn, ValuesFromTheStoreDirectory)
{
    TempDir store;
    makeFile(store.file("db/comss/hwduid"), "ABC123\n");
    makeFile(store.file("db/plain"), "no newline");
    makeFile(store.file("db/two-newlines"), "x\n\n");
    makeFile(store.file("db/crlf"), "v\r\n");
    makeFile(store.file("db/empty"), "");
    makeFile(store.file("db/only-newline"), "\n");
    makeFile(store.file("db/inner"), "a\nb\n");
    makeFile(store.file("etc/passwd"), "inside the store\n");
    fs::create_directories(store.file("db/dir"));
    TempDir outside;
    makeFile(outside.file("secret"), "outside\n");
    const std::string toOutside = "../" + fs::path(outside.path()).filename().string() + "/secret";

    struct Case {
        const char* key;  // nullptr: a NULL key
        std::optional<std::string> value;
    };
    const std::string deepKey = "a/" + std::string(300, 'k') + "/b";
    const std::vector<Case> cases = {
        {"db/comss/hwduid", std::string("ABC123")},
        {"db/plain", std::string("no newline")},
        {"db/two-newlines", std::string("x\n")},
        {"db/crlf", std::string("v\r")},
        {"db/empty", std::string("")},
        {"db/only-newline", std::string("")},
        {"db/inner", std::string("a\nb")},
        {"db/missing", std::nullopt},
        {"db/comss/hwduid/more", std::nullopt},
        {"db/dir", std::nullopt},
        {"db", std::nullopt},
        {deepKey.c_str(), std::nullopt},
        // Keys that leave the store or are not plain relative names.
        {"", std::nullopt},
        {nullptr, std::nullopt},
        {"/etc/passwd", std::nullopt},
        {"db/../db/plain", std::nullopt},
        {"../db/plain", std::nullopt},
        {toOutside.c_str(), std::nullopt},
        {"./db/plain", std::nullopt},
        {"db/./plain", std::nullopt},
        {"db//plain", std::nullopt},
        {"db/plain/", std::nullopt},
        {"..", std::nullopt},
    };

    Library lib = openLibrary(KZOL_VCONF_LIB_PATH);
    auto get = symbol<VconfGetStr>(lib, "vconf_get_str");
    ASSERT_NE(get, nullptr);
    EnvVar env("KZOL_VCONF_STORE", store.path());
    for (const Case& c : cases) {
        EXPECT_EQ(take(get(c.key)), c.value) << (c.key ? c.key : "(null)");
    }
}

TEST(VconfStandIn, EnvironmentSelectsTheStoreAtEveryCall)
{
    TempDir first, second;
    makeFile(first.file("db/comss/hwduid"), "FIRST\n");
    makeFile(second.file("db/comss/hwduid"), "SECOND\n");
    Library lib = openLibrary(KZOL_VCONF_LIB_PATH);
    auto get = symbol<VconfGetStr>(lib, "vconf_get_str");
    ASSERT_NE(get, nullptr);

    struct Step {
        std::function<void(EnvVar&)> change;
        std::optional<std::string> value;
    };
    const std::vector<Step> steps = {
        {[&](EnvVar& e) { e.set(first.path()); }, std::string("FIRST")},
        {[&](EnvVar& e) { e.set(second.path()); }, std::string("SECOND")},
        {[&](EnvVar&) { writeFile(second.file("db/comss/hwduid"), "CHANGED"); }, std::string("CHANGED")},
        {[&](EnvVar&) { fs::remove(second.file("db/comss/hwduid")); }, std::nullopt},
        {[&](EnvVar& e) { e.set(first.path()); }, std::string("FIRST")},
    };
    EnvVar env("KZOL_VCONF_STORE", std::nullopt);
    for (std::size_t i = 0; i < steps.size(); ++i) {
        steps[i].change(env);
        EXPECT_EQ(take(get("db/comss/hwduid")), steps[i].value) << "step " << i;
    }
}

// ---- USB service stand-in -----------------------------------------------------------

// A sysfs tree as the kernel lays it out: dev/block/MAJ:MIN are relative links
// into devices/..., where a USB disk sits below a usbN bus directory.
struct FakeSysfs {
    TempDir dir;
    FakeSysfs()
    {
        link("8:17", "devices/pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0/host6/target6:0:0/6:0:0:0/block/sdb/sdb1");
        link("8:33", "devices/pci0000:00/0000:00:14.0/usb3/3-2/3-2:1.0/host7/target7:0:0/7:0:0:0/block/sdc/sdc1");
        link("8:2", "devices/pci0000:00/0000:00:17.0/ata1/host0/target0:0:0/0:0:0:0/block/sda/sda2");
        link("259:1", "devices/pci0000:00/0000:00:1d.0/0000:3d:00.0/nvme/nvme0/nvme0n1/nvme0n1p1");
        // Not a bus: names that merely begin with "usb".
        link("7:0", "devices/virtual/usbmisc/block/loop0");
        link("7:1", "devices/platform/usb2x/block/loop1");
    }
    void link(const std::string& number, const std::string& device)
    {
        fs::create_directories(dir.file(device));
        fs::create_directories(dir.file("dev/block"));
        fs::create_symlink("../../" + device, dir.file("dev/block/" + number));
    }
};

std::string mountLine(int id, const std::string& number, const std::string& root, const std::string& point)
{
    return std::to_string(id) + " 1 " + number + " " + root + " " + point +
           " rw,relatime shared:1 - vfat /dev/sdx1 rw,fmask=0022\n";
}

TEST(UsbStandIn, VisitsMountsOfUsbBlockDevices)
{
    FakeSysfs sysfs;
    struct Case {
        const char* what;
        std::string line;
        std::vector<std::string> visited;
    };
    const std::vector<Case> cases = {
        {"USB stick", mountLine(41, "8:17", "/", "/media/STICK"), {"/media/STICK"}},
        {"SATA disk", mountLine(22, "8:2", "/", "/"), {}},
        {"NVMe disk", mountLine(23, "259:1", "/", "/home"), {}},
        {"tmpfs (no block device)", mountLine(30, "0:25", "/", "/tmp"), {}},
        {"unknown block device", mountLine(31, "8:99", "/", "/media/gone"), {}},
        {"component usbmisc", mountLine(32, "7:0", "/", "/media/loop0"), {}},
        {"component usb2x", mountLine(33, "7:1", "/", "/media/loop1"), {}},
        {"space in the mount point", mountLine(43, "8:33", "/", "/media/my\\040stick"), {"/media/my stick"}},
        {"tab, newline, backslash",
         mountLine(44, "8:33", "/", "/media/a\\011b\\012c\\134d"),
         {"/media/a\tb\nc\\d"}},
        {"bind mount of a subdirectory", mountLine(45, "8:17", "/sub", "/srv/bind"), {}},
        {"no optional fields", "46 1 8:17 / /media/plain rw - vfat /dev/sdb1 rw\n", {"/media/plain"}},
        {"truncated line", "47 1 8:17 /\n", {}},
        {"malformed device number", mountLine(48, "8-17", "/", "/media/x"), {}},
    };

    Library lib = openLibrary(KZOL_USB_DEVICE_LIB_PATH);
    UsbService usb(lib);
    EnvVar sys("KZOL_USB_SYSFS", sysfs.dir.path());
    TempDir scratch;
    EnvVar table("KZOL_USB_MOUNTINFO", scratch.file("mountinfo"));

    std::string all;
    std::vector<std::string> allVisited;
    for (const Case& c : cases) {
        writeFile(scratch.file("mountinfo"), c.line);
        ASSERT_EQ(usb.init(), 0) << c.what;
        const UsbService::Walk walk = usb.walk();
        usb.fini();
        EXPECT_EQ(walk.result, 0) << c.what;
        EXPECT_EQ(walk.devices, c.visited) << c.what;
        all += c.line;
        allVisited.insert(allVisited.end(), c.visited.begin(), c.visited.end());
    }

    // All lines in one table: the mounts in table order.
    writeFile(scratch.file("mountinfo"), all);
    ASSERT_EQ(usb.init(), 0);
    const UsbService::Walk walk = usb.walk();
    usb.fini();
    EXPECT_EQ(walk.result, 0);
    EXPECT_EQ(walk.devices, allVisited);
}

TEST(UsbStandIn, MountTableThatCannotBeRead)
{
    Library lib = openLibrary(KZOL_USB_DEVICE_LIB_PATH);
    UsbService usb(lib);
    TempDir scratch;
    EnvVar table("KZOL_USB_MOUNTINFO", scratch.file("no-such-mountinfo"));
    EXPECT_NE(usb.init(), 0);
    const UsbService::Walk walk = usb.walk();
    EXPECT_NE(walk.result, 0);
    EXPECT_TRUE(walk.devices.empty());
}

TEST(UsbStandIn, WalksThisMachine)
{
    // The real mount table and /sys: whatever is attached, the walk succeeds
    // and every mount path it reports is a mounted directory.
    Library lib = openLibrary(KZOL_USB_DEVICE_LIB_PATH);
    UsbService usb(lib);
    EnvVar table("KZOL_USB_MOUNTINFO", std::nullopt);
    EnvVar sys("KZOL_USB_SYSFS", std::nullopt);
    ASSERT_EQ(usb.init(), 0);
    const UsbService::Walk walk = usb.walk();
    usb.fini();
    EXPECT_EQ(walk.result, 0);
    for (const std::string& path : walk.devices) {
        EXPECT_TRUE(fs::is_directory(path)) << path;
    }
}

// ---- device emulation, in this process ------------------------------------------------

struct Emulation {
    Library lib = openLibrary(KZOL_EMULATE_LIB_PATH);
    Fopen fopen = symbol<Fopen>(lib, "fopen");
    Fopen fopen64 = symbol<Fopen>(lib, "fopen64");
    GetUid getuid = symbol<GetUid>(lib, "getuid");
    GetUid geteuid = symbol<GetUid>(lib, "geteuid");
    VconfGetStr vconf = symbol<VconfGetStr>(lib, "vconf_get_str");
    UsbService usb{lib};
};

TEST(Emulation, ProcFilesFromTheProfile)
{
    TempDir profile;
    makeFile(profile.file("modules"), "micom 40960 3 - Live 0x0\n");
    TempDir elsewhere;
    makeFile(elsewhere.file("plain"), "an ordinary file\n");

    struct Case {
        std::string path;
        std::optional<std::string> content;  // nullopt: fails with ENOENT
    };
    const std::vector<Case> cases = {
        {"/proc/modules", std::string("micom 40960 3 - Live 0x0\n")},
        {"/proc/self/zone", std::nullopt},  // no zone file in the profile
        {elsewhere.file("plain"), std::string("an ordinary file\n")},
        {elsewhere.file("missing"), std::nullopt},
        // Only the exact names are the device's files.
        {"/proc/self/../modules-not", std::nullopt},
        {profile.file("modules"), std::string("micom 40960 3 - Live 0x0\n")},
    };

    Emulation emu;
    ASSERT_TRUE(emu.lib);
    EnvVar env("KZOL_PROFILE", profile.path());
    for (Fopen open : {emu.fopen, emu.fopen64}) {
        for (const Case& c : cases) {
            errno = 0;
            FILE* file = open(c.path.c_str(), "r");
            const int err = errno;
            EXPECT_EQ(drain(file), c.content) << c.path;
            if (!c.content) {
                EXPECT_EQ(err, ENOENT) << c.path;
            }
        }
    }

    // The profile is read at every call.
    writeFile(profile.file("zone"), "0 1\n");
    EXPECT_EQ(drain(emu.fopen("/proc/self/zone", "r")), std::string("0 1\n"));
    writeFile(profile.file("zone"), "3 0\n");
    EXPECT_EQ(drain(emu.fopen64("/proc/self/zone", "r")), std::string("3 0\n"));
    fs::remove(profile.file("modules"));
    errno = 0;
    EXPECT_EQ(emu.fopen("/proc/modules", "r"), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST(Emulation, UserIdsFromTheProfile)
{
    const uid_t realUid = ::getuid();
    const uid_t realEuid = ::geteuid();
    struct Case {
        std::optional<std::string> file;  // nullopt: no uid file
        uid_t uid;
        uid_t euid;
    };
    const std::vector<Case> cases = {
        {std::string("1000 0\n"), 1000, 0},
        {std::string("0 1000"), 0, 1000},
        {std::string("7\n"), 7, 7},
        {std::string("  42 \t 43 \n"), 42, 43},
        {std::string("4294967294"), 4294967294u, 4294967294u},
        {std::nullopt, realUid, realEuid},
        // Not user IDs: the process's own.
        {std::string(""), realUid, realEuid},
        {std::string("root"), realUid, realEuid},
        {std::string("1 2 3"), realUid, realEuid},
        {std::string("-1"), realUid, realEuid},
        {std::string("4294967295"), realUid, realEuid},
        {std::string("12x"), realUid, realEuid},
    };

    Emulation emu;
    ASSERT_TRUE(emu.lib);
    TempDir profile;
    EnvVar env("KZOL_PROFILE", profile.path());
    for (const Case& c : cases) {
        fs::remove(profile.file("uid"));
        if (c.file) {
            writeFile(profile.file("uid"), *c.file);
        }
        const std::string what = c.file ? "\"" + *c.file + "\"" : "no uid file";
        EXPECT_EQ(emu.getuid(), c.uid) << what;
        EXPECT_EQ(emu.geteuid(), c.euid) << what;
    }
}

TEST(Emulation, ConfigurationStoreFromTheProfile)
{
    TempDir profile;
    makeFile(profile.file("vconf/db/comss/hwduid"), "ABC123\n");
    makeFile(profile.file("vconf/db/empty"), "\n");
    makeFile(profile.file("secret"), "not in the store\n");
    struct Case {
        const char* key;
        std::optional<std::string> value;
    };
    const std::vector<Case> cases = {
        {"db/comss/hwduid", std::string("ABC123")},
        {"db/empty", std::string("")},
        {"db/comss/other", std::nullopt},
        {"../secret", std::nullopt},
        {"/etc/hostname", std::nullopt},
        {"", std::nullopt},
        {nullptr, std::nullopt},
    };
    Emulation emu;
    ASSERT_TRUE(emu.lib);
    EnvVar env("KZOL_PROFILE", profile.path());
    for (const Case& c : cases) {
        EXPECT_EQ(take(emu.vconf(c.key)), c.value) << (c.key ? c.key : "(null)");
    }
}

TEST(Emulation, UsbDevicesFromTheProfile)
{
    struct Case {
        const char* what;
        std::function<void(const TempDir&)> make;
        int init;
        int result;
        std::vector<std::string> devices;  // relative to the profile; "<null>": no mount path
    };
    const std::vector<Case> cases = {
        {"no usb directory", [](const TempDir&) {}, -1, -1, {}},
        {"usb is a file", [](const TempDir& p) { writeFile(p.file("usb"), ""); }, -1, -1, {}},
        {"no device", [](const TempDir& p) { fs::create_directories(p.file("usb")); }, 0, 0, {}},
        {"sticks in name order, a device without mount path, no hidden entries",
         [](const TempDir& p) {
             for (const char* name : {"m", "b-stick", "x", "a-stick", "Z", "k", "0", "a", "c", "y", "b"}) {
                 fs::create_directories(p.file("usb/") + name);
             }
             fs::create_directories(p.file("usb/.hidden"));
             writeFile(p.file("usb/B.nomount"), "");
             writeFile(p.file("usb/notes.txt"), "");
             writeFile(p.file("usb/.x.nomount"), "");
         },
         0,
         0,
         {"usb/0", "<null>", "usb/Z", "usb/a", "usb/a-stick", "usb/b", "usb/b-stick", "usb/c", "usb/k", "usb/m",
          "usb/x", "usb/y"}},
        {"walk answers a failure after visiting",
         [](const TempDir& p) {
             fs::create_directories(p.file("usb/s"));
             writeFile(p.file("usb/.foreach-result"), "-5\n");
         },
         0,
         -5,
         {"usb/s"}},
        {"walk answers a number",
         [](const TempDir& p) {
             fs::create_directories(p.file("usb"));
             writeFile(p.file("usb/.foreach-result"), "3");
         },
         0,
         3,
         {}},
        {"walk result that is no number",
         [](const TempDir& p) {
             fs::create_directories(p.file("usb/s"));
             writeFile(p.file("usb/.foreach-result"), "fail");
         },
         0,
         -1,
         {"usb/s"}},
    };

    Emulation emu;
    ASSERT_TRUE(emu.lib);
    for (const Case& c : cases) {
        TempDir profile;
        c.make(profile);
        EnvVar env("KZOL_PROFILE", profile.path());
        std::vector<std::string> expected;
        for (const std::string& d : c.devices) {
            expected.push_back(d == "<null>" ? d : profile.file(d));
        }
        EXPECT_EQ(emu.usb.init(), c.init) << c.what;
        const UsbService::Walk walk = emu.usb.walk();
        emu.usb.fini();
        EXPECT_EQ(walk.result, c.result) << c.what;
        EXPECT_EQ(walk.devices, expected) << c.what;
    }
}

TEST(Emulation, DeviceHandleOutsideAWalkHasNoMountPath)
{
    TempDir profile;
    fs::create_directories(profile.file("usb/s"));
    Emulation emu;
    ASSERT_TRUE(emu.lib);
    EnvVar env("KZOL_PROFILE", profile.path());
    usb_device_s* kept = nullptr;
    emu.usb.foreach([](usb_device_s* device, void* data) { *static_cast<usb_device_s**>(data) = device; }, &kept);
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(emu.usb.mountpath(kept), nullptr);
}

TEST(Emulation, TraceShowsTheOrderOfAccesses)
{
    TempDir profile;
    makeFile(profile.file("modules"), "micom 1 0 - Live 0x0\n");
    makeFile(profile.file("uid"), "5000 0\n");
    makeFile(profile.file("vconf/db/comss/hwduid"), "ABC\n");
    fs::create_directories(profile.file("usb/one"));
    writeFile(profile.file("usb/two.nomount"), "");
    TempDir scratch;
    makeFile(scratch.file("plain"), "x");

    Emulation emu;
    ASSERT_TRUE(emu.lib);
    EnvVar env("KZOL_PROFILE", profile.path());
    EnvVar trace("KZOL_EMULATE_TRACE", scratch.file("trace"));

    drain(emu.fopen(scratch.file("plain").c_str(), "r"));  // not the device's: no line
    emu.getuid();
    emu.geteuid();
    drain(emu.fopen("/proc/modules", "r"));
    drain(emu.fopen64("/proc/self/zone", "r"));  // missing, still answered
    take(emu.vconf("db/comss/hwduid"));
    take(emu.vconf("db/none"));
    emu.usb.init();
    emu.usb.walk();
    emu.usb.fini();

    const std::vector<std::string> expected = {
        "getuid",
        "geteuid",
        "fopen /proc/modules",
        "fopen /proc/self/zone",
        "vconf_get_str db/comss/hwduid",
        "vconf_get_str db/none",
        "usb_device_init",
        "usb_mass_storage_foreach",
        "usb_device_get_mountpath",
        "usb_device_get_mountpath",
        "usb_device_fini",
    };
    EXPECT_EQ(linesOf(readFile(scratch.file("trace"))), expected);

    // Without a profile nothing is answered and nothing traced.
    fs::remove(scratch.file("trace"));
    EnvVar off("KZOL_PROFILE", std::nullopt);
    EXPECT_EQ(emu.getuid(), ::getuid());
    drain(emu.fopen("/proc/modules", "r"));
    EXPECT_FALSE(fs::exists(scratch.file("trace")));
}

TEST(Emulation, WithoutProfileTheRealFunctionsAnswer)
{
    Emulation emu;
    ASSERT_TRUE(emu.lib);
    EnvVar env("KZOL_PROFILE", std::nullopt);
    for (const char* path : {"/proc/modules", "/proc/self/zone", "/proc/self/status"}) {
        errno = 0;
        const std::optional<std::string> mine = drain(emu.fopen(path, "r"));
        const int myErr = errno;
        errno = 0;
        const std::optional<std::string> real = drain(std::fopen(path, "r"));
        EXPECT_EQ(mine.has_value(), real.has_value()) << path;
        if (!real) {
            EXPECT_EQ(myErr, errno) << path;
        }
    }
    EXPECT_EQ(emu.getuid(), ::getuid());
    EXPECT_EQ(emu.geteuid(), ::geteuid());
}

TEST(Emulation, ManyThreadsAtOnce)
{
    TempDir profile;
    makeFile(profile.file("modules"), "micom 1 0 - Live 0x0\n");
    makeFile(profile.file("uid"), "100 200\n");
    makeFile(profile.file("vconf/db/comss/hwduid"), "DUID-42\n");
    fs::create_directories(profile.file("usb/a"));
    fs::create_directories(profile.file("usb/b"));
    TempDir scratch;

    Emulation emu;
    ASSERT_TRUE(emu.lib);
    EnvVar env("KZOL_PROFILE", profile.path());
    EnvVar trace("KZOL_EMULATE_TRACE", scratch.file("trace"));

    constexpr int c_threads = 8;
    constexpr int c_rounds = 50;
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < c_threads; ++t) {
        threads.emplace_back([&]() {
            for (int i = 0; i < c_rounds; ++i) {
                if (drain(emu.fopen("/proc/modules", "r")) != std::string("micom 1 0 - Live 0x0\n") ||
                    emu.getuid() != 100 || take(emu.vconf("db/comss/hwduid")) != std::string("DUID-42") ||
                    emu.usb.walk().devices != std::vector<std::string>{profile.file("usb/a"), profile.file("usb/b")}) {
                    ++wrong;
                }
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(wrong.load(), 0);

    // Each call left one whole line: no line lost, none torn.
    std::map<std::string, int> counts;
    for (const std::string& line : linesOf(readFile(scratch.file("trace")))) {
        ++counts[line];
    }
    const int calls = c_threads * c_rounds;
    const std::map<std::string, int> expected = {
        {"fopen /proc/modules", calls},
        {"getuid", calls},
        {"vconf_get_str db/comss/hwduid", calls},
        {"usb_mass_storage_foreach", calls},
        {"usb_device_get_mountpath", 2 * calls},
    };
    EXPECT_EQ(counts, expected);
}

// ---- kzol commands -------------------------------------------------------------------

struct Outcome {
    int status;
    std::string out;
    std::string err;
};

// Runs `kzol ARGS` in `cwd` with the environment assignments `env`. Programs
// that the emulation is preloaded into are not built with this build's
// sanitizers, so the runtime's link-order check and leak report stay off.
Outcome kzol(const TempDir& scratch, const std::string& args, const std::string& env = "",
             const std::string& cwd = ".")
{
    Outcome o;
    o.status = run("cd " + q(cwd) + " && env ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0 " + env + " " +
                       q(KZOL_TOOL) + " " + args + " </dev/null 2>" + q(scratch.file("stderr")),
                   &o.out);
    o.err = readFile(scratch.file("stderr"));
    return o;
}

// Verifies `signature` over `data` with the openssl command.
bool opensslVerifies(const TempDir& scratch, const ByteBuffer& signature, const std::string& data,
                     const std::string& publicKey)
{
    writeFile(scratch.file("sig.bin"), std::string(signature.begin(), signature.end()));
    writeFile(scratch.file("data.bin"), data);
    std::string out;
    const int rc = run("openssl dgst -sha256 -verify " + q(publicKey) + " -signature " + q(scratch.file("sig.bin")) +
                           " " + q(scratch.file("data.bin")) + " 2>&1",
                       &out);
    return rc == 0 && out.find("Verified OK") != std::string::npos;
}

TEST(KzolCert, SignsTheDeviceIdentifierOnly)
{
    struct Case {
        char keyId;
        std::string duid;
    };
    const std::vector<Case> cases = {
        {'5', "ABC123"},
        {'6', "T-KTM2AKUC-1000.5 SERIAL#0001"},
    };
    for (const Case& c : cases) {
        TempDir scratch;
        const std::string cert = scratch.file("RTZOLOFF.cer");
        const Outcome o = kzol(scratch, "cert --key " + q(kzol_test::devPrivateKey(c.keyId)) + " --key-id " +
                                            std::string(1, c.keyId) + " --duid " + q(c.duid) + " -o " + q(cert));
        ASSERT_EQ(o.status, 0) << o.err;

        Signature block;
        _ZolSigMeta meta{};
        ASSERT_TRUE(block.loadFromFile(cert, meta)) << c.duid;
        EXPECT_EQ(meta.sigType, 'P');
        EXPECT_EQ(meta.keyId, c.keyId);
        const std::string header = "kZOL disable certificate for device " + c.duid + "\n";
        EXPECT_EQ(readFile(cert).substr(0, header.size()), header);
        EXPECT_EQ(block.offset(), header.size() + 3);

        ByteBuffer raw;
        ASSERT_TRUE(fromMPIString(block, raw));
        const std::string otherKey = kzol_test::devPublicKey(c.keyId == '5' ? '6' : '5');
        struct Check {
            std::string data;
            std::string key;
            bool verifies;
        };
        const std::vector<Check> checks = {
            {c.duid, kzol_test::devPublicKey(c.keyId), true},
            {c.duid + "\n", kzol_test::devPublicKey(c.keyId), false},
            {c.duid + std::string(1, '\0'), kzol_test::devPublicKey(c.keyId), false},
            {c.duid.substr(0, c.duid.size() - 1), kzol_test::devPublicKey(c.keyId), false},
            {header + c.duid, kzol_test::devPublicKey(c.keyId), false},
            {c.duid, otherKey, false},
        };
        for (const Check& check : checks) {
            EXPECT_EQ(opensslVerifies(scratch, raw, check.data, check.key), check.verifies)
                << c.duid << " over \"" << check.data << "\"";
        }
    }
}

TEST(KzolCert, RefusalsAndDestinations)
{
    const std::string key5 = q(kzol_test::devPrivateKey('5'));
    struct Case {
        const char* what;
        std::function<void(const TempDir&)> before;
        std::string args;  // "@" stands for the scratch directory
        int status;
        std::string written;  // file expected to hold a certificate for ABC123 afterwards, "" for none
        std::string untouched;  // file expected to keep the content "old", "" for none
    };
    const std::vector<Case> cases = {
        {"new file", {}, "--duid ABC123 -o @/RTZOLOFF.cer", 0, "RTZOLOFF.cer", ""},
        {"directory gets RTZOLOFF.cer", {}, "--duid ABC123 -o @", 0, "RTZOLOFF.cer", ""},
        {"existing file kept",
         [](const TempDir& s) { writeFile(s.file("RTZOLOFF.cer"), "old"); },
         "--duid ABC123 -o @/RTZOLOFF.cer",
         1,
         "",
         "RTZOLOFF.cer"},
        {"existing file in a directory kept",
         [](const TempDir& s) { writeFile(s.file("RTZOLOFF.cer"), "old"); },
         "--duid ABC123 -o @",
         1,
         "",
         "RTZOLOFF.cer"},
        {"existing file replaced with --force",
         [](const TempDir& s) { writeFile(s.file("RTZOLOFF.cer"), "old"); },
         "--duid ABC123 -o @/RTZOLOFF.cer --force",
         0,
         "RTZOLOFF.cer",
         ""},
        {"other file name", {}, "--duid ABC123 -o @/device.cer", 0, "device.cer", ""},
        {"empty identifier", {}, "--duid '' -o @/RTZOLOFF.cer", 2, "", ""},
        {"identifier with a newline", {}, "--duid 'ABC\n' -o @/RTZOLOFF.cer", 2, "", ""},
        {"missing directory", {}, "--duid ABC123 -o @/no/RTZOLOFF.cer", 2, "", ""},
    };
    for (const Case& c : cases) {
        TempDir scratch;
        if (c.before) {
            c.before(scratch);
        }
        std::string args = c.args;
        for (std::size_t at; (at = args.find('@')) != std::string::npos;) {
            args.replace(at, 1, q(scratch.path()));
        }
        const Outcome o = kzol(scratch, "cert --key " + key5 + " --key-id 5 " + args);
        EXPECT_EQ(o.status, c.status) << c.what << ": " << o.err;
        if (!c.written.empty()) {
            Signature block;
            _ZolSigMeta meta{};
            EXPECT_TRUE(block.loadFromFile(scratch.file(c.written), meta)) << c.what;
            EXPECT_EQ(readFile(scratch.file(c.written)).rfind("kZOL disable certificate for device ABC123\n", 0), 0u)
                << c.what;
        }
        if (!c.untouched.empty()) {
            EXPECT_EQ(readFile(scratch.file(c.untouched)), "old") << c.what;
        }
        // No temporary file is left behind, whatever happened.
        for (const auto& entry : fs::directory_iterator(scratch.path())) {
            EXPECT_EQ(entry.path().filename().string().find(".kzol-"), std::string::npos)
                << c.what << ": " << entry.path();
        }
    }
}

TEST(KzolProfile, InitWritesTheLayout)
{
    struct Case {
        std::string args;
        std::map<std::string, std::string> files;  // relative path -> content; "/" for a directory
        bool tv;
    };
    const std::vector<Case> cases = {
        {"--tv --duid ABC123 --zone 0 1 --uid 5000 0 --usb s1 --usb s0",
         {{"vconf/db/comss/hwduid", "ABC123\n"},
          {"zone", "0 1\n"},
          {"uid", "5000 0\n"},
          {"usb", "/"},
          {"usb/s0", "/"},
          {"usb/s1", "/"}},
         true},
        {"", {}, false},
        {"--uid 7 --zone 3 0", {{"uid", "7\n"}, {"zone", "3 0\n"}}, false},
        {"--duid ''", {{"vconf/db/comss/hwduid", "\n"}}, false},
        {"--tv --usb only", {{"usb", "/"}, {"usb/only", "/"}}, true},
    };
    for (const Case& c : cases) {
        TempDir scratch;
        const std::string dir = scratch.file("profiles/p");
        const Outcome o = kzol(scratch, "profile init " + q(dir) + " " + c.args);
        ASSERT_EQ(o.status, 0) << c.args << ": " << o.err;
        EXPECT_EQ(linesOf(o.out).at(0), "profile " + dir) << c.args;

        std::map<std::string, std::string> found;
        for (const auto& entry : fs::recursive_directory_iterator(dir)) {
            const std::string rel = fs::relative(entry.path(), dir).string();
            if (rel == "modules" || rel == "vconf" || rel == "vconf/db" || rel == "vconf/db/comss") {
                continue;
            }
            found[rel] = entry.is_directory() ? "/" : readFile(entry.path().string());
        }
        EXPECT_EQ(found, c.files) << c.args;

        // modules: lines of /proc/modules, micom among them only for a television.
        const std::vector<std::string> modules = linesOf(readFile(dir + "/modules"));
        EXPECT_GE(modules.size(), 3u) << c.args;
        for (const std::string& line : modules) {
            std::istringstream fields(line);
            std::string name, size, uses, deps, state, address;
            EXPECT_TRUE(fields >> name >> size >> uses >> deps >> state >> address) << line;
            EXPECT_EQ(size.find_first_not_of("0123456789"), std::string::npos) << line;
        }
        EXPECT_EQ(hasLineStarting(readFile(dir + "/modules"), "micom "), c.tv) << c.args;
        if (!c.tv) {
            EXPECT_EQ(readFile(dir + "/modules").find("micom"), std::string::npos);
        }
    }
}

TEST(KzolProfile, InitRefusals)
{
    struct Case {
        std::string args;  // "@" stands for the profile directory
        int status;
    };
    const std::vector<Case> cases = {
        {"@/used", 1},  // not empty
        {"@/used/modules", 2},  // a file
        {"@/new --zone 1", 2},
        {"@/new --uid x", 2},
        {"@/new --uid 1 2 3", 2},
        {"@/new --uid 4294967295", 2},
        {"@/new --usb .hidden", 2},
        {"@/new --usb a/b", 2},
        {"@/new --usb a --usb a", 2},
    };
    for (const Case& c : cases) {
        TempDir scratch;
        makeFile(scratch.file("used/modules"), "keep");
        std::string args = c.args;
        args.replace(args.find('@'), 1, q(scratch.path()));
        const Outcome o = kzol(scratch, "profile init " + args);
        EXPECT_EQ(o.status, c.status) << c.args << ": " << o.out << o.err;
        EXPECT_EQ(readFile(scratch.file("used/modules")), "keep");
        EXPECT_FALSE(fs::exists(scratch.file("new/modules"))) << c.args;
    }
}

TEST(KzolProfile, EmulationAnswersFromAnInitialisedProfile)
{
    TempDir scratch;
    const std::string dir = scratch.file("tv");
    const Outcome o = kzol(scratch, "profile init " + q(dir) + " --tv --duid SN-77 --zone 2 1 --uid 0 --usb stick");
    ASSERT_EQ(o.status, 0) << o.err;

    Emulation emu;
    ASSERT_TRUE(emu.lib);
    EnvVar env("KZOL_PROFILE", dir);
    const std::optional<std::string> modules = drain(emu.fopen("/proc/modules", "r"));
    ASSERT_TRUE(modules);
    EXPECT_TRUE(hasLineStarting(*modules, "micom ")) << *modules;
    EXPECT_EQ(drain(emu.fopen("/proc/self/zone", "r")), std::string("2 1\n"));
    EXPECT_EQ(take(emu.vconf("db/comss/hwduid")), std::string("SN-77"));
    EXPECT_EQ(emu.getuid(), 0u);
    EXPECT_EQ(emu.geteuid(), 0u);
    EXPECT_EQ(emu.usb.init(), 0);
    EXPECT_EQ(emu.usb.walk().devices, std::vector<std::string>{dir + "/usb/stick"});
}

TEST(KzolEmulate, RunsTheCommandOnTheProfilesDevice)
{
    TempDir scratch;
    const std::string dir = scratch.file("tv");
    makeFile(dir + "/modules", "micom 40960 3 - Live 0x0\n");
    makeFile(dir + "/uid", "4321\n");
    makeFile(dir + "/zone", "0 0\n");
    TempDir libCopy;
    fs::copy_file(KZOL_EMULATE_LIB_PATH, libCopy.file("copy.so"));
    const std::string emulationLib = fs::canonical(KZOL_EMULATE_LIB_PATH).string();
    // Already preloaded: a library that loads into any program (a copy of the
    // emulation, which is built without sanitizers).
    const std::string otherLib = libCopy.file("copy.so");

    struct Case {
        const char* what;
        std::string env;
        std::string cwd;
        std::string args;
        int status;
        std::string out;
    };
    const std::vector<Case> cases = {
        {"probes answered from the profile",
         "",
         ".",
         q(dir) + " -- sh -c 'id -u; id -ur; sed -n 1p /proc/modules'",
         0,
         "4321\n4321\nmicom 40960 3 - Live 0x0\n"},
        {"the command's exit status", "", ".", q(dir) + " -- sh -c 'exit 7'", 7, ""},
        {"absolute profile path", "", scratch.path(), "tv -- sh -c 'echo $KZOL_PROFILE'", 0, dir + "\n"},
        {"emulation preloaded ahead of others",
         "LD_PRELOAD=" + otherLib,
         ".",
         q(dir) + " -- sh -c 'echo $LD_PRELOAD'",
         0,
         emulationLib + ":" + otherLib + "\n"},
        {"KZOL_EMULATE_LIB names the library",
         "KZOL_EMULATE_LIB=" + libCopy.file("copy.so"),
         ".",
         q(dir) + " -- sh -c 'echo $LD_PRELOAD; id -u'",
         0,
         libCopy.file("copy.so") + "\n4321\n"},
        {"a missing emulation library", "KZOL_EMULATE_LIB=" + libCopy.file("none.so"), ".", q(dir) + " -- true", 2, ""},
        {"profile that is a file", "", ".", q(dir + "/modules") + " -- true", 2, ""},
        {"profile that does not exist", "", ".", q(dir + "/none") + " -- true", 2, ""},
        {"command not found", "", ".", q(dir) + " -- kzol-no-such-command", 127, ""},
    };
    for (const Case& c : cases) {
        const Outcome o = kzol(scratch, "emulate " + c.args, c.env, c.cwd);
        EXPECT_EQ(o.status, c.status) << c.what << ": " << o.err;
        EXPECT_EQ(o.out, c.out) << c.what;
    }

    // The trace of the child shows the accesses the emulation answered.
    const Outcome o = kzol(scratch, "emulate " + q(dir) + " -- sed -n 1p /proc/modules /proc/self/zone",
                           "KZOL_EMULATE_TRACE=" + scratch.file("trace"));
    EXPECT_EQ(o.status, 0) << o.err;
    const std::vector<std::string> trace = linesOf(readFile(scratch.file("trace")));
    const std::set<std::string> seen(trace.begin(), trace.end());
    EXPECT_EQ(seen.count("fopen /proc/modules"), 1u);
    EXPECT_EQ(seen.count("fopen /proc/self/zone"), 1u);
}

}  // namespace
