// The exported entry points on an emulated television: every outcome of the
// decision sequence, with its answer, the report that reached the daemon,
// the exact log lines, and which parts of the device were looked at.

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "daemon.h"
#include "device.h"
#include "kZOLUser.h"

using namespace kzol_test;

namespace {

const std::string c_script = "#!/bin/sh\necho 'from the user area'\n";

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : m_fd(fd) {}
    ~FileDescriptor()
    {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

std::string changed(std::string text, std::size_t at)
{
    text[at] ^= 1;
    return text;
}
// Files in a user-writable area (under /tmp) and outside (under /var/tmp).
struct Files {
    const TempDir areaDir{"/tmp"}, outsideDir{"/var/tmp"};
    const std::string area = std::filesystem::canonical(areaDir.path()), outside = outsideDir.path();
    const std::string signedOne = area + "/signed.sh", unsignedOne = area + "/unsigned.sh",
                      tampered = area + "/tampered.sh", typeL = area + "/type-l.sh", outsider = outside + "/outside.sh";
    Files()
    {
        const std::string good = signedFile(c_script, "P50", devPrivateKey('5'));
        writeFile(signedOne, good);
        writeFile(unsignedOne, c_script);
        writeFile(tampered, changed(good, 5));
        writeFile(typeL, signedFile(c_script, "L50", devPrivateKey('5')));
        writeFile(outsider, c_script);
    }
};

// What the policy reads on a television: the modules, a USB walk over
// `mounts` devices, the identifier when `id`, then `rest`.
std::string tvTrace(int mounts = 0, bool id = false,
                    const std::string& rest = "getuid\ngeteuid\nfopen /proc/self/zone\n")
{
    std::string trace = "fopen /proc/modules\nusb_device_init\nusb_mass_storage_foreach\n";
    for (int i = 0; i < mounts; ++i) {
        trace += "usb_device_get_mountpath\n";
    }
    return trace + "usb_device_fini\n" + (id ? "vconf_get_str db/comss/hwduid\n" : "") + rest;
}

}  // namespace

TEST(Policy, Outcomes)
{
    const Files f;
    const std::string missing = f.area + "/missing.sh", viaLink = f.area + "/via-link.sh";
    ASSERT_EQ(symlink(f.unsignedOne.c_str(), viaLink.c_str()), 0);
    // Certificates for this device, for another, and one changed before its block.
    const std::string valid = certificate(DeviceProfile::c_deviceId, "P60", devPrivateKey('6'));
    const std::string otherDevice = certificate("DUID-OTHER", "P60", devPrivateKey('6'));
    const std::string validChanged = changed(valid, 0);
    const std::string id = "vconf/db/comss/hwduid";
    // Files of the device profile; a certificate on stick a or b ("@" in the
    // expected lines stands for the sticks' directory).
    using Set = std::pair<std::string, const char*>;
    const Set isolated{"zone", "2 1\n"};
    const Set certA{"usb/a/RTZOLOFF.cer", valid.c_str()};
    const Set otherA{certA.first, otherDevice.c_str()};
    const Set certB{"usb/b/RTZOLOFF.cer", valid.c_str()};
    const Set otherB{certB.first, otherDevice.c_str()};
    const Set noMount{"usb/z.nomount", ""};
    const Set walkFails{"usb/.foreach-result", "-1"};
    const auto found = &certificateFoundLine;
    const char* const ns = "BS_NOT_SIGNED";
    const std::string a = "@/a/RTZOLOFF.cer";
    const std::string b = "@/b/RTZOLOFF.cer";
    // Traces: the full walk without a certificate, and one stick whose certificate switches the check off.
    const std::string tv = tvTrace();
    const std::string offTrace = tvTrace(1, true, "");
    const std::string noIdErr = "BSContext::verifyFileWithDeviceId(): error during signature check\n";
    const std::string notSigned = checkLine("Not Signed", f.unsignedOne);
    const std::string correct = checkLine("Correct Signed", f.signedOne);
    const std::string yesA = checkLine("DUID Correct Signed", a);
    const std::string noA = checkLine("DUID Incorrect Signed", a);
    const std::string yesB = checkLine("DUID Correct Signed", b);
    const std::string noB = checkLine("DUID Incorrect Signed", b);
    const std::string disabled =
        infoLine("main.cpp", "verifyFileWihtoutKey", "[zol][loader] : \033[1;35mDisable Script ZOL\033[0m");
    const Lines noId = {found(a), c_noDeviceIdLine,
                        errorLine("verify_context.cpp", "update", "VerifyContext::update(): data is empty"), notSigned};
    const Lines off = {found(a), yesA, disabled};  // the certificate on a switches the check off
    struct Case {
        const char* name;
        std::vector<Set> device;
        int answer;
        std::string result;  // the result the refusal report names; empty: no report
        Lines log;
        std::string trace, file = {};  // empty: the unsigned file
        const char* caller = "loader";
        std::string err = {};
    };
    const std::vector<Case> cases = {
        {"missing file",
         {},
         0,
         "",
         {errorLine("main.cpp", "verifyFileWihtoutKey", missing + " does not exist;")},
         "",
         missing},
        {"outside the areas", {}, 1, "", {}, "", f.outsider},
        {"not a television", {{"modules", "sdp 1 0 - Live 0x0\nxmicom 1 0\n"}}, 1, "", {}, "fopen /proc/modules\n"},
        {"isolated container", {isolated}, 1, "", {isolatedLine(2)}, tv},
        {"root, isolated", {isolated, {"uid", "0 5000\n"}}, 0, ns, {notSigned}, tvTrace(0, false, "getuid\n")},
        {"correctly signed", {}, 1, "", {correct}, tv, f.signedOne},
        {"unsigned", {}, 0, ns, {notSigned}, tv},
        {"tampered", {}, 0, "BS_SIGNATURE_INCORRECT", {checkLine("Incorrect Signed", f.tampered)}, tv, f.tampered},
        {"type L selects no key", {}, 0, "BS_ERROR", {}, tv, f.typeL},
        {"through .. and a link, null caller",
         {},
         0,
         ns,
         {checkLine("Not Signed", f.unsignedOne, "NULL")},
         tv,
         f.outside + "/../../.." + viaLink,
         nullptr},
        {"no USB service",
         {{"usb", nullptr}},
         1,
         "",
         {c_noUsbLine, correct},
         "fopen /proc/modules\nusb_device_init\ngetuid\ngeteuid\nfopen /proc/self/zone\n",
         f.signedOne},
        // The disable certificate, checked before the container step.
        {"certificate, isolated container", {isolated, certA}, 1, "", off, offTrace},
        {"certificate, a byte before its block changed", {{certA.first, validChanged.c_str()}}, 1, "", off, offTrace},
        {"certificate of another device", {otherA}, 0, ns, {found(a), noA, notSigned}, tvTrace(1, true)},
        {"empty identifier", {{id, ""}, certA}, 0, ns, noId, tvTrace(1, true), "", "loader", noIdErr},
        {"no identifier", {{id, nullptr}, certA}, 0, ns, noId, tvTrace(1, true), "", "loader", noIdErr},
        {"certificate in a subdirectory", {{"usb/a/sub/RTZOLOFF.cer", valid.c_str()}}, 0, ns, {notSigned}, tvTrace(1)},
        {"certificate under another name", {{"usb/a/rtzoloff.cer", valid.c_str()}}, 0, ns, {notSigned}, tvTrace(1)},
        {"two sticks, b valid", {otherA, certB}, 1, "", {found(a), found(b), yesB, disabled}, tvTrace(2, true, "")},
        {"two sticks, b for another", {certA, otherB}, 0, ns, {found(a), found(b), noB, notSigned}, tvTrace(2, true)},
        {"no-mount device after it, walk answers 0", {certA, noMount}, 1, "", off, tvTrace(2, true, "")},
        {"no-mount device after it, walk fails", {certA, noMount, walkFails}, 0, ns, {found(a), notSigned}, tvTrace(2)},
        {"walk fails after finding it", {certA, walkFails}, 1, "", off, offTrace},
    };
    DaemonListener daemon;
    // Each case through both entry points: the descriptor one, given the file
    // open with its offset at the end, answers, logs and reports as the path one.
    for (const auto& c : cases) {
        for (const bool byDescriptor : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (byDescriptor ? ", by descriptor" : ", by path"));
            DeviceProfile device;
            for (const auto& [file, content] : c.device) {
                device.set(file, content);
            }
            const std::string file = c.file.empty() ? f.unsignedOne : c.file;
            const FileDescriptor fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
            const off_t end = fd.get() >= 0 ? lseek(fd.get(), 0, SEEK_END) : -1;
            clearLog();
            StderrCapture err;
            EXPECT_EQ(byDescriptor ? verifyFileDescriptor(fd.get(), file.c_str(), c.caller)
                                   : verifyFileWihtoutKey(file.c_str(), c.caller),
                      c.answer);
            EXPECT_EQ(fd.get() >= 0 ? lseek(fd.get(), 0, SEEK_CUR) : -1, end);  // the caller's offset stays
            Lines log = c.log;
            for (auto& line : log) {
                for (auto at = line.find('@'); at != std::string::npos; at = line.find('@')) {
                    line.replace(at, 1, device.path() + "/usb");
                }
            }
            EXPECT_EQ(loggedLines(), log);
            EXPECT_EQ(device.takeTrace(), c.trace);
            const std::string caller = c.caller ? c.caller : "NULL",
                              path = c.result.empty() ? "" : std::filesystem::canonical(file).string(),
                              description = "ver:\"1\",subject:\"" + path + "\",object:\"" + caller + "\",result:\"";
            EXPECT_EQ(daemon.drain(),
                      c.result.empty()
                          ? Lines{}
                          : Lines{frame(reportText(1, caller, "SCRIPT", description + c.result + "\",", path))});
            EXPECT_EQ(err.finish(), c.err);
        }
    }
    daemon.stop();
    const DeviceProfile device;
    clearLog();
    EXPECT_EQ(verifyFile(nullptr, f.unsignedOne.c_str(), "loader"), 0);  // the first argument is never read
    const std::string failed = errorLine("main.cpp", "verifyFileWihtoutKey",
                                         "[zol][loader]! : \033[1;31mSendRequest Notification Error\033[0m");
    EXPECT_EQ(loggedLines(), (Lines{notSigned, c_noDaemonLines[0], c_noDaemonLines[1], failed}));
}

// The descriptor entry point decides on the bytes it can read from the
// descriptor, whatever the path holds by then; the path names the file.
TEST(Policy, DescriptorContentDecides)
{
    const Files f;
    const std::string good = readFile(f.signedOne), target = f.area + "/target.sh";
    struct Case {
        const char* name;
        std::string opened, later;  // what the descriptor was opened on; what the path holds afterwards
        int flags;
        int answer;
        std::string result;  // reported; empty: no report
    };
    const std::vector<Case> cases = {
        {"signed when opened, unsigned by the check", good, c_script, O_RDONLY, 1, ""},
        {"unsigned when opened, signed by the check", c_script, good, O_RDONLY, 0, "BS_NOT_SIGNED"},
        {"descriptor not open for reading", good, good, O_WRONLY, 0, "BS_NOT_SIGNED"},
    };
    const DeviceProfile device;
    DaemonListener daemon;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        writeFile(target, c.opened);
        const FileDescriptor fd(open(target.c_str(), c.flags | O_CLOEXEC));
        ASSERT_GE(fd.get(), 0);
        writeFile(target + ".new", c.later);
        ASSERT_EQ(rename((target + ".new").c_str(), target.c_str()), 0);
        clearLog();
        EXPECT_EQ(verifyFileDescriptor(fd.get(), target.c_str(), "loader"), c.answer);
        const Lines log = loggedLines();
        ASSERT_FALSE(log.empty());
        EXPECT_EQ(log.back(), checkLine(c.answer == 1 ? "Correct Signed" : "Not Signed", target));
        const std::string description = "ver:\"1\",subject:\"" + target + "\",object:\"loader\",result:\"";
        EXPECT_EQ(daemon.drain(),
                  c.result.empty()
                      ? Lines{}
                      : Lines{frame(reportText(1, "loader", "SCRIPT", description + c.result + "\",", target))});
    }
}

// Threads at once through the certificate step (with a certificate for
// another device) and the reports, for ThreadSanitizer to watch: each file
// gets its answer, each refusal its report, each component's report its two.
TEST(Policy, ManyThreadsAtOnce)
{
    const Files f;
    DeviceProfile device;
    device.set("usb/a/RTZOLOFF.cer", certificate("DUID-OTHER", "P50", devPrivateKey('5')).c_str());
    DaemonListener daemon;
    const Lines files = {f.signedOne, f.unsignedOne, f.tampered, f.outsider, f.typeL};
    std::atomic<int> allowed{0}, failed{0};
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (std::size_t i = 0; i < 20; ++i) {
                allowed += verifyFileWihtoutKey(files[(t + i) % files.size()].c_str(), "thread");
                failed += SendSecurityReport("thread", "t", "/p", "d", 3);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(allowed, 2 * 32);  // each file 32 times: the signed one and the one outside run
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(daemon.drain().size(), 3u * 32 + 2 * 160);
}

// verifyFileExplained: the same answer as verifyFileWihtoutKey, and the step
// that decided it (with the verification result when the signature did).
TEST(Policy, ExplainedDecisions)
{
    const Files f;
    const std::string valid = certificate(DeviceProfile::c_deviceId, "P60", devPrivateKey('6'));
    struct Case {
        const char* name;
        std::vector<std::pair<std::string, const char*>> device;
        std::string file;
        int answer, step, result;
    };
    const std::vector<Case> cases = {
        {"missing file", {}, f.area + "/missing.sh", 0, KZOL_STEP_MISSING, 0},
        {"outside the areas", {}, f.outsider, 1, KZOL_STEP_OUTSIDE_AREAS, 0},
        {"not a television", {{"modules", "sdp 1 0 - Live 0x0\n"}}, f.unsignedOne, 1, KZOL_STEP_NOT_TELEVISION, 0},
        {"disable certificate",
         {{"usb/a/RTZOLOFF.cer", valid.c_str()}},
         f.unsignedOne,
         1,
         KZOL_STEP_DISABLE_CERTIFICATE,
         0},
        {"isolated container", {{"zone", "2 1\n"}}, f.unsignedOne, 1, KZOL_STEP_ISOLATED_CONTAINER, 0},
        {"correctly signed", {}, f.signedOne, 1, KZOL_STEP_SIGNATURE, 5},
        {"unsigned", {}, f.unsignedOne, 0, KZOL_STEP_SIGNATURE, 4},
        {"tampered", {}, f.tampered, 0, KZOL_STEP_SIGNATURE, 6},
        {"type L", {}, f.typeL, 0, KZOL_STEP_SIGNATURE, 0},
    };
    DaemonListener daemon;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        DeviceProfile device;
        for (const auto& [file, content] : c.device) {
            device.set(file, content);
        }
        const StderrCapture quiet;
        kzol_decision decision{-1, -1};
        EXPECT_EQ(verifyFileExplained(c.file.c_str(), "loader", &decision), c.answer);
        EXPECT_EQ(decision.step, c.step);
        EXPECT_EQ(decision.result, c.result);
        EXPECT_EQ(verifyFileExplained(c.file.c_str(), "loader", nullptr), c.answer);
    }
    daemon.stop();
}
