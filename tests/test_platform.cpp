// The host platform layer and the device emulation, each on its own: the
// configuration-store and USB-service stand-ins, the emulation library, and
// the kzol commands around them (cert, profile init, emulate). The library
// itself on an emulated device is tested in test_policy, test_probes and
// test_kzol_device.
//
// The stand-ins and the emulation are loaded with dlopen() and called through
// dlsym(), so that this program's own symbol scope, which the library under
// test resolves its platform calls in, stays as it is.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <usb_device.h>

#include "signature.h"
#include "string_utils.h"
#include "test_support.h"

namespace {

using namespace kzol_test;

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;
using Text = std::optional<std::string>;  // nullopt: NULL, or an open that failed

// One platform library, loaded on its own, and its functions by name.
struct Library {
    std::unique_ptr<void, int (*)(void*)> handle;
    explicit Library(const char* path) : handle(dlopen(path, RTLD_NOW | RTLD_LOCAL), &dlclose) { EXPECT_TRUE(handle); }
    template <class F> F get(const char* name) const { return reinterpret_cast<F>(dlsym(handle.get(), name)); }
};

// Sets (nullopt: unsets) an environment variable until the end of the scope.
struct EnvVar {
    const char* name;
    Text old;
    EnvVar(const char* n, const Text& value) : name(n), old(getenv(n) ? Text(getenv(n)) : Text()) { set(value); }
    ~EnvVar() { set(old); }
    void set(const Text& value) const { value ? setenv(name, value->c_str(), 1) : unsetenv(name); }
};

void makeFile(const std::string& path, const std::string& bytes = "")
{
    fs::create_directories(fs::path(path).parent_path());
    writeFile(path, bytes);
}

Strings linesOf(const std::string& text)
{
    Strings lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// A string from the platform, released with free().
Text take(char* value) { const Text text = value ? Text(value) : Text(); std::free(value); return text; }

Text drain(FILE* file)  // the whole stream, closed after reading
{
    std::string text;
    for (int c; file && (c = std::fgetc(file)) != EOF;) text += static_cast<char>(c);
    return file && std::fclose(file) == 0 ? Text(text) : Text();
}

// The USB service of one library, driven as the policy drives it.
struct Usb {
    const Library& lib;
    int (*init)() = lib.get<int (*)()>("usb_device_init");
    int (*foreach)(void (*)(usb_device_s*, void*), void*) = lib.get<decltype(foreach)>("usb_mass_storage_foreach");
    char* (*mountpath)(usb_device_s*) = lib.get<decltype(mountpath)>("usb_device_get_mountpath");
    void (*fini)() = lib.get<void (*)()>("usb_device_fini");
    // The mount path of each device visited, in order ("<null>" for none), the last device, the answer.
    struct Walk { const Usb* usb; Strings devices; usb_device_s* last; int result; };
    Walk walk() const
    {
        Walk w{this, {}, nullptr, 0};
        w.result = foreach([](usb_device_s* device, void* data) {
            auto* w = static_cast<Walk*>(data);
            const char* path = w->usb->mountpath(w->last = device);
            w->devices.push_back(path ? path : "<null>");
        }, &w);
        return w;
    }
};

struct Emulation {
    Library lib{KZOL_EMULATE_LIB_PATH};
    FILE* (*fopen)(const char*, const char*) = lib.get<decltype(fopen)>("fopen");
    FILE* (*fopen64)(const char*, const char*) = lib.get<decltype(fopen)>("fopen64");
    uid_t (*getuid)() = lib.get<decltype(getuid)>("getuid");
    uid_t (*geteuid)() = lib.get<decltype(getuid)>("geteuid");
    char* (*vconf)(const char*) = lib.get<decltype(vconf)>("vconf_get_str");
    Usb usb{lib};
};

TEST(VconfStandIn, ValuesFromTheStoreTheEnvironmentNames)
{
    TempDir store;
    for (const auto& [key, value] : std::map<std::string, std::string>{
             {"db/comss/hwduid", "ABC123\n"}, {"db/two", "x\n\n"}, {"db/plain", "no newline"}, {"etc/passwd", ""}}) {
        makeFile(store.file(key), value);
    }
    const std::string outAndIn = "../" + fs::path(store.path()).filename().string() + "/db/plain";
    const std::vector<std::pair<const char*, Text>> cases = {
        {"db/comss/hwduid", "ABC123"}, {"db/two", "x\n"}, {"db/plain", "no newline"}, {"db/missing", {}},
        // Keys that leave the store or are no plain relative names, though the files exist.
        {nullptr, {}}, {"", {}}, {"/etc/passwd", {}}, {outAndIn.c_str(), {}}, {"./db/plain", {}}, {"db//plain", {}}};
    Library lib(KZOL_VCONF_LIB_PATH);
    const auto get = lib.get<char* (*)(const char*)>("vconf_get_str");
    EnvVar env("KZOL_VCONF_STORE", store.path());
    for (const auto& [key, value] : cases) EXPECT_EQ(take(get(key)), value) << (key ? key : "(null)");
}

TEST(UsbStandIn, VisitsTheMountsOfUsbBlockDevicesInTableOrder)
{
    // A sysfs tree as the kernel lays it out: dev/block/MAJ:MIN are relative
    // links into devices/..., a USB disk sitting below a usbN bus directory.
    TempDir sysfs, scratch;
    fs::create_directories(sysfs.file("dev/block"));
    for (const auto& [number, device] : std::map<std::string, std::string>{  // usbmisc: no bus number
             {"8:17", "devices/pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0/host6/block/sdb/sdb1"},
             {"8:2", "devices/pci0000:00/0000:00:17.0/ata1/host0/block/sda/sda2"}, {"7:0", "devices/usbmisc/loop0"}}) {
        makeFile(sysfs.file(device + "/dev"), number + "\n");
        fs::create_symlink("../../" + device, sysfs.file("dev/block/" + number));
    }
    std::string mountinfo = "47 1 8:17 /\n";  // truncated
    for (const char* mount : {"8:17 / /media/b", "8:2 / /", "8:17 / /media/my\\040stick\\134x", "7:0 / /media/loop",
                              "0:25 / /tmp", "8:17 /sub /srv/bind", "8:17 / /media/a"}) {
        mountinfo += "41 1 " + std::string(mount) + " rw,relatime shared:1 - vfat /dev/sdx1 rw\n";
    }
    writeFile(scratch.file("mountinfo"), mountinfo);
    Library lib(KZOL_USB_DEVICE_LIB_PATH);
    const Usb usb{lib};
    EnvVar sys("KZOL_USB_SYSFS", sysfs.path()), table("KZOL_USB_MOUNTINFO", scratch.file("mountinfo"));
    ASSERT_EQ(usb.init(), 0);
    const Usb::Walk walk = usb.walk();
    usb.fini();
    EXPECT_EQ(walk.result, 0);
    EXPECT_EQ(walk.devices, (Strings{"/media/b", "/media/my stick\\x", "/media/a"}));  // in table order
}

TEST(Emulation, AnswersFromTheProfile)
{
    TempDir profile;
    makeFile(profile.file("vconf/db/comss/hwduid"), "ABC123\n");
    Emulation emu;
    EnvVar env("KZOL_PROFILE", profile.path());
    for (const bool tv : {true, false}) {  // the profile is read at every call
        fs::remove(profile.file(tv ? "zone" : "modules"));
        writeFile(profile.file(tv ? "modules" : "zone"), tv ? "micom 1 0\n" : "0 1\n");
        const std::map<std::string, Text> cases = {{"/proc/modules", tv ? Text("micom 1 0\n") : Text()},
                                                   {"/proc/self/zone", tv ? Text() : Text("0 1\n")},
                                                   {profile.file("vconf/db/comss/hwduid"), "ABC123\n"},
                                                   {profile.file("missing"), {}}};  // nullopt: ENOENT
        for (const auto open : {emu.fopen, emu.fopen64}) {
            for (const auto& [path, content] : cases) {
                errno = 0;
                FILE* file = open(path.c_str(), "r");
                EXPECT_EQ(file ? 0 : errno, content ? 0 : ENOENT) << path;
                EXPECT_EQ(drain(file), content) << path;
            }
        }
    }
    EXPECT_EQ(take(emu.vconf("db/comss/hwduid")), Text("ABC123"));

    const uid_t ruid = ::getuid(), euid = ::geteuid();
    const std::vector<std::tuple<Text, uid_t, uid_t>> uids = {  // uid file (nullopt: none), getuid, geteuid
        {{}, ruid, euid}, {"", ruid, euid}, {"root", ruid, euid}, {"1 2 3", ruid, euid}, {"-1", ruid, euid},
        {"4294967295", ruid, euid}, {"12x", ruid, euid},  // no user IDs: the process's own
        {" 7\n", 7, 7}, {"4294967294", 4294967294u, 4294967294u}, {"1000 0\n", 1000, 0}};
    for (const auto& [file, uid, effective] : uids) {
        fs::remove(profile.file("uid"));
        if (file) writeFile(profile.file("uid"), *file);
        EXPECT_EQ(emu.getuid(), uid) << file.value_or("no uid file");
        EXPECT_EQ(emu.geteuid(), effective) << file.value_or("no uid file");
    }

    EXPECT_EQ(emu.usb.init(), -1);  // no usb/
    EXPECT_EQ(emu.usb.walk().result, -1);
    const std::string u = profile.file("usb/");
    for (const char* name : {"m", "b-stick", "x", "a-stick", "Z", "k", "0", "a", "c", "y", "b", ".hidden"}) {
        fs::create_directories(u + name);
    }
    for (const char* name : {"B.nomount", "notes.txt", ".x.nomount"}) writeFile(u + name, "");
    const Strings expected = {u + "0", "<null>", u + "Z", u + "a", u + "a-stick", u + "b",  // in name order
                              u + "b-stick", u + "c", u + "k", u + "m", u + "x", u + "y"};  // "<null>": B.nomount
    // .foreach-result: the walk's answer after visiting; -1 when it holds no number.
    for (const auto& [text, result] : std::map<std::string, int>{{"", 0}, {"-5\n", -5}, {"3", 3}, {"fail", -1}}) {
        if (!text.empty()) writeFile(profile.file("usb/.foreach-result"), text);
        EXPECT_EQ(emu.usb.init(), 0);
        const Usb::Walk walk = emu.usb.walk();
        emu.usb.fini();
        EXPECT_EQ(walk.result, result) << text;
        EXPECT_EQ(walk.devices, expected) << text;
        EXPECT_EQ(emu.usb.mountpath(walk.last), nullptr);  // a device kept past its walk is none the service knows
    }
    env.set(std::nullopt);  // without a profile (its uid file says 1000), what stands behind answers
    EXPECT_EQ(emu.getuid(), ruid);
}

// Each call the emulation answers appends one whole line to the trace, as it
// begins; threads at once get their own answers and walks.
TEST(Emulation, TraceAndThreads)
{
    TempDir profile, scratch;
    makeFile(profile.file("modules"), "micom 1 0\n");
    makeFile(profile.file("uid"), "100 200\n");
    makeFile(profile.file("vconf/db/comss/hwduid"), "DUID-42\n");
    makeFile(profile.file("usb/b/.keep"));
    makeFile(profile.file("usb/a.nomount"));
    Emulation emu;
    EnvVar env("KZOL_PROFILE", profile.path()), trace("KZOL_EMULATE_TRACE", scratch.file("trace"));
    std::atomic<int> wrong{0};
    const auto round = [&]() {
        wrong += drain(emu.fopen64("/proc/self/zone", "r")) || emu.getuid() != 100 || emu.geteuid() != 200 ||
                 drain(emu.fopen("/proc/modules", "r")) != Text("micom 1 0\n") ||
                 take(emu.vconf("db/comss/hwduid")) != Text("DUID-42") || emu.usb.init() != 0 ||
                 emu.usb.walk().devices != Strings{"<null>", profile.file("usb/b")};
        emu.usb.fini();
    };
    round();
    const Strings calls = {"fopen /proc/self/zone", "getuid", "geteuid", "fopen /proc/modules",
                           "vconf_get_str db/comss/hwduid", "usb_device_init", "usb_mass_storage_foreach",
                           "usb_device_get_mountpath", "usb_device_get_mountpath", "usb_device_fini"};
    EXPECT_EQ(linesOf(readFile(scratch.file("trace"))), calls);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) threads.emplace_back([&]() { for (int i = 0; i < 50; ++i) round(); });
    for (auto& t : threads) t.join();
    EXPECT_EQ(wrong.load(), 0);
    std::map<std::string, int> counts, expected;
    for (const std::string& line : linesOf(readFile(scratch.file("trace")))) ++counts[line];
    for (const std::string& line : calls) expected[line] += 401;
    EXPECT_EQ(counts, expected);
}

std::string q(const std::string& s) { return "'" + s + "'"; }

// `kzol ARGS` in `cwd` with the environment assignments `env`: exit status and
// standard output. The programs the emulation goes into are not built with
// this build's sanitizers, so the runtime's link-order check stays off.
int kzol(const std::string& cwd, const std::string& args, std::string* out = nullptr, const std::string& env = "")
{
    return run("cd " + q(cwd) + " && env ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0 " + env + " " +
               q(KZOL_TOOL) + " " + args + " </dev/null 2>/dev/null", out);
}

TEST(KzolCert, SignsTheDeviceIdentifierOnly)
{
    for (const auto& [keyId, duid] : std::map<char, std::string>{{'5', "ABC123"}, {'6', "T-KTM2 SERIAL#0001"}}) {
        TempDir scratch;
        const std::string key = "cert --key " + q(devPrivateKey(keyId)) + " --key-id " + keyId;
        ASSERT_EQ(kzol(".", key + " --duid " + q(duid) + " -o " + q(scratch.path())), 0);  // gets RTZOLOFF.cer
        const std::string cert = scratch.file("RTZOLOFF.cer"), header = "kZOL disable certificate for device " + duid;
        Signature block;
        _ZolSigMeta meta{};
        ASSERT_TRUE(block.loadFromFile(cert, meta)) << duid;
        EXPECT_EQ(std::string({meta.sigType, meta.keyId}), std::string({'P', keyId}));
        EXPECT_EQ(readFile(cert).substr(0, block.offset()), header + "\nP" + keyId + "0");  // a line for people
        ByteBuffer raw;
        ASSERT_TRUE(fromMPIString(block, raw));
        writeFile(scratch.file("sig"), std::string(raw.begin(), raw.end()));
        const std::string verify = "openssl dgst -sha256 -verify " + q(devPublicKey(keyId)) + " -signature ";
        for (const std::string& data : {duid, duid + "\n", header + "\n" + duid}) {
            writeFile(scratch.file("data"), data);
            const int status = run(verify + q(scratch.file("sig")) + " " + q(scratch.file("data")) + " >/dev/null");
            EXPECT_EQ(status, data == duid ? 0 : 1) << "over \"" << data << "\"";
        }
        const std::string before = readFile(cert);  // kept without --force, and from an empty identifier
        EXPECT_EQ(kzol(".", key + " --duid " + q(duid) + " -o " + q(cert)), 1);
        EXPECT_EQ(kzol(".", key + " --force --duid '' -o " + q(cert)), 2);
        EXPECT_EQ(readFile(cert), before);
    }
}

TEST(KzolProfile, InitWritesTheLayout)
{
    TempDir scratch;
    const std::string at = scratch.path();
    std::string out;
    ASSERT_EQ(kzol(at, "profile init tv --tv --duid ABC123 --zone 0 1 --uid 5000 0 --usb s1 --usb s0", &out), 0);
    EXPECT_EQ(linesOf(out).at(0), "profile " + scratch.file("tv"));
    std::map<std::string, std::string> found;  // "/": a directory
    for (const auto& entry : fs::recursive_directory_iterator(scratch.file("tv"))) {
        found[fs::relative(entry.path(), scratch.file("tv"))] = entry.is_directory() ? "/" : readFile(entry.path());
    }
    EXPECT_EQ(found["modules"].rfind("micom ", 0), 0u);  // a television's /proc/modules
    found.erase("modules");
    EXPECT_EQ(found, (std::map<std::string, std::string>{
                         {"vconf", "/"}, {"vconf/db", "/"}, {"vconf/db/comss", "/"},
                         {"vconf/db/comss/hwduid", "ABC123\n"}, {"zone", "0 1\n"}, {"uid", "5000 0\n"}, {"usb", "/"},
                         {"usb/s0", "/"}, {"usb/s1", "/"}}));
    ASSERT_EQ(kzol(at, "profile init pc --uid 7"), 0);  // a PC's, with only what is asked for
    EXPECT_EQ(readFile(scratch.file("pc/modules")).find("micom"), std::string::npos);
    EXPECT_EQ(readFile(scratch.file("pc/uid")), "7\n");
    EXPECT_EQ(std::distance(fs::directory_iterator(scratch.file("pc")), {}), 2);
    EXPECT_EQ(kzol(at, "profile init tv"), 1);  // only in a new or empty directory, only with valid values
    for (const std::string args :
         {"pc/uid", "new --zone 1", "new --uid 4294967295", "new --usb a/b", "new --usb .x", "new --usb a --usb a"}) {
        EXPECT_EQ(kzol(at, "profile init " + args), 2) << args;
    }
    EXPECT_FALSE(fs::exists(scratch.file("new")));
}

TEST(KzolEmulate, RunsTheCommandOnTheProfilesDevice)
{
    TempDir scratch;
    const std::string dir = scratch.file("tv"), other = scratch.file("copy.so");
    makeFile(dir + "/modules", "micom 40960 3 - Live 0x0\n");
    makeFile(dir + "/uid", "4321\n");
    fs::copy_file(KZOL_EMULATE_LIB_PATH, other);  // a library that preloads into any program
    const std::vector<std::tuple<std::string, std::string, int, std::string>> cases = {  // args, env, status, out
        {"tv -- sh -c 'id -u; id -ur; sed -n 1p /proc/modules; echo $KZOL_PROFILE'", "", 0,
         "4321\n4321\nmicom 40960 3 - Live 0x0\n" + dir + "\n"},
        {"tv -- sh -c 'exit 7'", "", 7, ""}, {"tv -- kzol-no-such-command", "", 127, ""},
        {"tv -- sh -c 'echo $LD_PRELOAD'", "LD_PRELOAD=" + other, 0,
         fs::canonical(KZOL_EMULATE_LIB_PATH).string() + ":" + other + "\n"},
        {"tv -- sh -c 'echo $LD_PRELOAD; id -u'", "KZOL_EMULATE_LIB=" + other, 0, other + "\n4321\n"},
        {"tv/modules -- true", "", 2, ""}, {"none -- true", "", 2, ""}};
    for (const auto& [args, env, status, expected] : cases) {
        std::string out;
        EXPECT_EQ(kzol(scratch.path(), "emulate " + args, &out, env), status) << args;
        EXPECT_EQ(out, expected) << args;
    }
}

}  // namespace
