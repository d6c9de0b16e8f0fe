// The host platform layer and the device emulation, each on its own: the
// configuration-store and USB-service stand-ins, the emulation library, and
// the kzol commands around them (cert, profile init, emulate). The library
// itself on an emulated device is tested in test_policy, test_probes and
// test_exec.
//
// This program links the emulation ahead of the stand-ins, as the device
// suites do: without KZOL_PROFILE the emulation hands every call on to the
// stand-in behind it.
#include <usb_device.h>
#include <vconf.h>

#include <set>
#include <tuple>

#include "handles.h"
#include "signature.h"
#include "test_support.h"

namespace {

using namespace kzol_test;
namespace fs = std::filesystem;
using Text = std::optional<std::string>;  // nullopt: NULL, or an open that failed

// One walk of the USB service, as the policy makes it: the answers of init
// and of the walk, the mount path of each device visited ("<null>" for none),
// the last device.
struct Walk {
    int init, result;
    Lines devices;
    usb_device_s* last;
};
Walk walk()
{
    Walk w{usb_device_init(), 0, {}, nullptr};
    w.result = usb_mass_storage_foreach(
        [](usb_device_s* device, void* data) {
        auto* walked = static_cast<Walk*>(data);
        const char* path = usb_device_get_mountpath(walked->last = device);
        walked->devices.push_back(path ? path : "<null>");
        },
        &w);
    usb_device_fini();
    return w;
}

TEST(VconfStandIn, ValuesFromTheStoreTheEnvironmentNames)
{
    TempDir store;
    for (const auto& [key, value] : std::map<std::string, std::string>{
             {"db/comss/hwduid", "ABC123\n"}, {"db/two", "x\n\n"}, {"db/plain", "no newline"}, {"etc/passwd", ""}}) {
        writeFile(store.file(key), value);
    }
    const std::string outAndIn = "../" + fs::path(store.path()).filename().string() + "/db/plain";
    const std::vector<std::pair<const char*, Text>> cases = {
        {"db/comss/hwduid", "ABC123"},
        {"db/two", "x\n"},
        {"db/plain", "no newline"},
        {"db/missing", {}},
        // Keys that leave the store or are no plain relative names, though the files exist.
        {nullptr, {}},
        {"", {}},
        {"/etc/passwd", {}},
        {outAndIn.c_str(), {}},
        {"./db/plain", {}},
        {"db//plain", {}}};
    EnvVar env("KZOL_VCONF_STORE", store.path());
    for (const auto& [key, value] : cases) {
        const MallocPtr<char> got(vconf_get_str(key));  // the store's string, released with free()
        EXPECT_EQ(got ? Text(got.get()) : Text(), value) << (key ? key : "(null)");
    }
}

TEST(UsbStandIn, VisitsTheMountsOfUsbBlockDevicesInTableOrder)
{
    // A sysfs tree as the kernel lays it out: dev/block/MAJ:MIN are relative
    // links into devices/..., a USB disk sitting below a usbN bus directory.
    TempDir sysfs, scratch;
    fs::create_directories(sysfs.file("dev/block"));
    for (const auto& [number, device] : std::map<std::string, std::string>{
             // usbmisc: no bus number
             {"8:17", "devices/pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0/host6/block/sdb/sdb1"},
             {"8:2", "devices/pci0000:00/0000:00:17.0/ata1/host0/block/sda/sda2"},
             {"7:0", "devices/usbmisc/loop0"}}) {
        writeFile(sysfs.file(device + "/dev"), number + "\n");
        fs::create_symlink("../../" + device, sysfs.file("dev/block/" + number));
    }
    std::string mountinfo = "47 1 8:17 /\n";  // truncated
    for (const char* mount : {"8:17 / /media/b", "8:2 / /", "8:17 / /media/my\\040stick\\134x", "7:0 / /media/loop",
                              "0:25 / /tmp", "8:17 /sub /srv/bind", "8:17 / /media/a"}) {
        mountinfo += "41 1 " + std::string(mount) + " rw,relatime shared:1 - vfat /dev/sdx1 rw\n";
    }
    writeFile(scratch.file("mountinfo"), mountinfo);
    EnvVar sys("KZOL_USB_SYSFS", sysfs.path()), table("KZOL_USB_MOUNTINFO", scratch.file("mountinfo"));
    const Walk usb = walk();
    EXPECT_EQ(std::make_pair(usb.init, usb.result), std::make_pair(0, 0));
    EXPECT_EQ(usb.devices, (Lines{"/media/b", "/media/my stick\\x", "/media/a"}));  // in table order
}

TEST(Emulation, AnswersFromTheProfile)
{
    TempDir profile;
    const uid_t ruid = getuid(), euid = geteuid();
    EnvVar env("KZOL_PROFILE", profile.path());
    const std::vector<std::tuple<Text, uid_t, uid_t>> uids = {
        // uid file (nullopt: none), getuid, geteuid
        {{}, ruid, euid},     {"", ruid, euid},
        {"root", ruid, euid}, {"1 2 3", ruid, euid},
        {"-1", ruid, euid},   {"4294967295", ruid, euid},
        {"12x", ruid, euid},  // no user IDs: the process's own
        {" 7\n", 7, 7},       {"4294967294", 4294967294u, 4294967294u},
        {"1000 0\n", 1000, 0}};
    for (const auto& [file, uid, effective] : uids) {
        fs::remove(profile.file("uid"));
        if (file)
            writeFile(profile.file("uid"), *file);
        EXPECT_EQ(std::make_pair(getuid(), geteuid()), std::make_pair(uid, effective)) << file.value_or("-");
    }
    const Walk none = walk();  // no usb/
    EXPECT_EQ(std::make_pair(none.init, none.result), std::make_pair(-1, -1));
    const std::string u = profile.file("usb/");
    for (const char* name : {"m", "b-stick", "x", "a-stick", "Z", "k", "0", "a", "c", "y", "b", ".hidden"}) {
        fs::create_directories(u + name);
    }
    for (const char* name : {"B.nomount", "notes.txt", ".x.nomount"})
        writeFile(u + name, "");
    const Lines expected = {u + "0",       "<null>", u + "Z", u + "a", u + "a-stick", u + "b",   // in name order
                            u + "b-stick", u + "c",  u + "k", u + "m", u + "x",       u + "y"};  // "<null>": B.nomount
    // .foreach-result: the walk's answer after visiting; -1 when it holds no number.
    for (const auto& [text, result] : std::map<std::string, int>{{"", 0}, {"-5\n", -5}, {"3", 3}, {"fail", -1}}) {
        if (!text.empty())
            writeFile(profile.file("usb/.foreach-result"), text);
        const Walk usb = walk();
        EXPECT_EQ(std::make_pair(usb.init, usb.result), std::make_pair(0, result)) << text;
        EXPECT_EQ(usb.devices, expected) << text;
        // A device kept past its walk is none the service knows.
        EXPECT_EQ(usb_device_get_mountpath(usb.last), nullptr);
    }
    env.set(std::nullopt);  // without a profile (its uid file says 1000), what stands behind answers
    EXPECT_EQ(getuid(), ruid);
}

// The library's own check of a certificate (a signature over the identifier
// alone) is in test_exec (KzolExec.RunsOnlyWhatTheLibraryAllows).
TEST(KzolCert, WritesTheCertificateOnce)
{
    TempDir scratch;
    const std::string duid = "T-KTM2 SERIAL#0001", key = "cert --key " + shq(devPrivateKey('6')) + " --key-id 6";
    ASSERT_EQ(kzol(key + " --duid " + shq(duid) + " -o " + shq(scratch.path())), 0);  // gets RTZOLOFF.cer
    const std::string cert = scratch.file("RTZOLOFF.cer"), before = readFile(cert);
    Signature block;
    _ZolSigMeta meta{};
    ASSERT_TRUE(block.loadFromFile(cert, meta));
    EXPECT_EQ(before.substr(0, block.offset()), "kZOL disable certificate for device " + duid + "\nP60");
    // Kept without --force, and from an empty identifier.
    EXPECT_EQ(kzol(key + " --duid " + shq(duid) + " -o " + shq(cert)), 1);
    EXPECT_EQ(kzol(key + " --force --duid '' -o " + shq(cert)), 2);
    EXPECT_EQ(readFile(cert), before);
}

TEST(KzolProfile, InitWritesTheLayout)
{
    TempDir scratch;
    const std::string at = scratch.path();
    std::string out;
    ASSERT_EQ(kzol("profile init tv --tv --duid ABC123 --zone 0 1 --uid 5000 0 --usb s1 --usb s0", &out, at), 0);
    EXPECT_EQ(out.substr(0, out.find('\n')), "profile " + scratch.file("tv"));
    std::set<std::string> found;  // "NAME/": a directory; "NAME=CONTENT": a file (of modules, its start)
    for (const auto& entry : fs::recursive_directory_iterator(scratch.file("tv"))) {
        const std::string name = fs::relative(entry.path(), scratch.file("tv"));
        const std::string text = entry.is_directory() ? "" : readFile(entry.path());
        found.insert(entry.is_directory() ? name + "/" : name + "=" + (name == "modules" ? text.substr(0, 6) : text));
    }
    // A television's /proc/modules, and the values asked for.
    EXPECT_EQ(found, (std::set<std::string>{"modules=micom ", "vconf/", "vconf/db/", "vconf/db/comss/",
                                            "vconf/db/comss/hwduid=ABC123\n", "zone=0 1\n", "uid=5000 0\n", "usb/",
                                            "usb/s0/", "usb/s1/"}));
    ASSERT_EQ(kzol("profile init pc --uid 7", nullptr, at), 0);  // a PC's, with only what is asked for
    EXPECT_EQ(readFile(scratch.file("pc/modules")).find("micom"), std::string::npos);
    EXPECT_EQ(readFile(scratch.file("pc/uid")), "7\n");
    EXPECT_EQ(std::distance(fs::directory_iterator(scratch.file("pc")), {}), 2);
    EXPECT_EQ(kzol("profile init tv", nullptr, at), 1);  // only in a new or empty directory, only with valid values
    for (const std::string args :
         {"tv/uid", "new --zone 1", "new --uid 4294967295", "new --usb a/b", "new --usb .x", "new --usb a --usb a"}) {
        EXPECT_EQ(kzol("profile init " + args, nullptr, at), 2) << args;
    }
    EXPECT_FALSE(fs::exists(scratch.file("new")));
}

TEST(KzolEmulate, RunsTheCommandOnTheProfilesDevice)
{
    TempDir scratch;
    const std::string dir = scratch.file("tv"), other = scratch.file("copy.so");
    writeFile(dir + "/modules", "micom 40960 3 - Live 0x0\n");
    writeFile(dir + "/uid", "4321\n");
    fs::copy_file(KZOL_EMULATE_LIB_PATH, other);  // a library that preloads into any program
    const std::vector<std::tuple<std::string, std::string, int, std::string>> cases = {
        // env, args, status, out
        {"", "tv -- sh -c 'id -u; id -ur; sed -n 1p /proc/modules; echo $KZOL_PROFILE'", 0,
         "4321\n4321\nmicom 40960 3 - Live 0x0\n" + dir + "\n"},
        {"", "tv -- sh -c 'exit 7'", 7, ""},
        {"", "tv -- kzol-no-such-command", 127, ""},
        {"LD_PRELOAD=" + other, "tv -- sh -c 'echo $LD_PRELOAD'", 0,
         fs::canonical(KZOL_EMULATE_LIB_PATH).string() + ":" + other + "\n"},
        {"KZOL_EMULATE_LIB=" + other, "tv -- sh -c 'echo $LD_PRELOAD; id -u'", 0, other + "\n4321\n"},
        {"", "tv/modules -- true", 2, ""},
        {"", "none -- true", 2, ""}};
    // The programs the emulation goes into are not built with this build's
    // sanitizers, so the runtime's link-order check stays off.
    for (const auto& [env, args, status, expected] : cases) {
        std::string out;
        EXPECT_EQ(run("cd " + shq(scratch.path()) + " && env ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0 " +
                          env + " " + shq(KZOL_TOOL) + " emulate " + args + " </dev/null 2>/dev/null",
                      &out),
                  status)
            << args;
        EXPECT_EQ(out, expected) << args;
    }
}

}  // namespace
