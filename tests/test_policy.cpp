// The exported entry points on an emulated television: every outcome of the
// decision sequence, with its answer, the step that decided it, the report
// that reached the daemon, the exact log lines, and which parts of the device
// were looked at.

#include <atomic>

#include "bs_context.h"
#include "daemon.h"
#include "device.h"
#include "kZOLUser.h"

using namespace kzol_test;

namespace {

const std::string c_script = "#!/bin/sh\necho 'from the user area'\n";

std::string changed(std::string text, std::size_t at)
{
    text[at] ^= 1;
    return text;
}
// Files in a user-writable area (under /tmp) and outside (under /var/tmp).
struct Files {
    UserArea user;  // and the device profile of the tests that keep one throughout
    const TempDir outsideDir{"/var/tmp"};
    const std::string area = user.path, outside = outsideDir.path();
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
    const std::string validChanged = changed(valid, 0);  // a byte before the block
    const std::string id = "vconf/db/comss/hwduid";
    // Files of the device profile; a certificate on stick a or b ("@" in the
    // expected lines stands for the sticks' directory).
    using Set = std::pair<std::string, const char*>;
    const Set isolated{"zone", "2 1\n"};
    const Set certA{"usb/a/RTZOLOFF.cer", valid.c_str()}, otherA{certA.first, otherDevice.c_str()};
    const Set certB{"usb/b/RTZOLOFF.cer", valid.c_str()}, otherB{certB.first, otherDevice.c_str()};
    const Set changedA{certA.first, validChanged.c_str()}, noMount{"usb/z.nomount", ""};
    const Set inSubdir{"usb/a/sub/RTZOLOFF.cer", valid.c_str()}, lowerCase{"usb/a/rtzoloff.cer", valid.c_str()};
    const Set walkFails{"usb/.foreach-result", "-1"};
    const Set pc{"modules", "sdp 1 0 - Live 0x0\nxmicom 1 0\n"}, noUsb{"usb", nullptr};
    const auto found = &certificateFoundLine;
    // The steps that decide, and the results of the signature step.
    const int sig = KZOL_STEP_SIGNATURE, off = KZOL_STEP_DISABLE_CERTIFICATE;
    const int ns = BS_NOT_SIGNED, ok = BS_SIGNATURE_CORRECT;
    const std::string a = "@/a/RTZOLOFF.cer", b = "@/b/RTZOLOFF.cer";
    // Traces: the full walk without a certificate, and one stick whose certificate switches the check off.
    const std::string tv = tvTrace();
    const std::string offTrace = tvTrace(1, true, "");
    const std::string rootTrace = tvTrace(0, false, "getuid\ngeteuid\n");
    const std::string noUsbTrace = "fopen /proc/modules\nusb_device_init\ngetuid\ngeteuid\nfopen /proc/self/zone\n";
    const std::string noIdErr = "BSContext::verifyFileWithDeviceId(): error during signature check\n";
    const std::string notSigned = checkLine("Not Signed", f.unsignedOne);
    const std::string nullCaller = checkLine("Not Signed", f.unsignedOne, "NULL"),
                      dotted = f.outside + "/../../.." + viaLink;
    const Lines missingLog = {errorLine("main.cpp", "verifyFileWihtoutKey", missing + " does not exist;")};
    const std::string correct = checkLine("Correct Signed", f.signedOne);
    const std::string yesA = checkLine("DUID Correct Signed", a), noA = checkLine("DUID Incorrect Signed", a);
    const std::string yesB = checkLine("DUID Correct Signed", b), noB = checkLine("DUID Incorrect Signed", b);
    const std::string disabled =
        infoLine("main.cpp", "verifyFileWihtoutKey", "[zol][loader] : \033[1;35mDisable Script ZOL\033[0m");
    const Lines noId = {found(a), c_noDeviceIdLine,
                        errorLine("verify_context.cpp", "update", "VerifyContext::update(): data is empty"), notSigned};
    const Lines offLog = {found(a), yesA, disabled};  // the certificate on a switches the check off
    struct Case {
        const char* name;
        std::vector<Set> device;
        int answer, step, result;  // a refusal by the signature step is reported with its result
        Lines log;
        std::string trace, file = {};  // empty: the unsigned file
        const char* caller = "loader";
        std::string err = {};
    };
    const std::vector<Case> cases = {
        {"missing file", {}, 0, KZOL_STEP_MISSING, 0, missingLog, "", missing},
        {"outside the areas", {}, 1, KZOL_STEP_OUTSIDE_AREAS, 0, {}, "", f.outsider},
        {"not a television", {pc}, 1, KZOL_STEP_NOT_TELEVISION, 0, {}, "fopen /proc/modules\n"},
        {"isolated container", {isolated}, 1, KZOL_STEP_ISOLATED_CONTAINER, 0, {isolatedLine(2)}, tv},
        // A root process is checked wherever it runs; the effective ID is asked only when the real one is not 0.
        {"root, isolated", {isolated, {"uid", "0 5000\n"}}, 0, sig, ns, {notSigned}, tvTrace(0, false, "getuid\n")},
        {"effective root, isolated", {isolated, {"uid", "5000 0\n"}}, 0, sig, ns, {notSigned}, rootTrace},
        {"correctly signed", {}, 1, sig, ok, {correct}, tv, f.signedOne},
        {"unsigned", {}, 0, sig, ns, {notSigned}, tv},
        {"tampered", {}, 0, sig, BS_SIGNATURE_INCORRECT, {checkLine("Incorrect Signed", f.tampered)}, tv, f.tampered},
        {"type L selects no key", {}, 0, sig, BS_ERROR, {}, tv, f.typeL},
        {"through .. and a link, null caller", {}, 0, sig, ns, {nullCaller}, tv, dotted, nullptr},
        {"no USB service", {noUsb}, 1, sig, ok, {c_noUsbLine, correct}, noUsbTrace, f.signedOne},
        // The disable certificate, checked before the container step.
        {"certificate, isolated container", {isolated, certA}, 1, off, 0, offLog, offTrace},
        {"certificate, a byte before its block changed", {changedA}, 1, off, 0, offLog, offTrace},
        {"certificate of another device", {otherA}, 0, sig, ns, {found(a), noA, notSigned}, tvTrace(1, true)},
        {"empty identifier", {{id, ""}, certA}, 0, sig, ns, noId, tvTrace(1, true), "", "loader", noIdErr},
        {"no identifier", {{id, nullptr}, certA}, 0, sig, ns, noId, tvTrace(1, true), "", "loader", noIdErr},
        {"certificate in a subdirectory", {inSubdir}, 0, sig, ns, {notSigned}, tvTrace(1)},
        {"certificate under another name", {lowerCase}, 0, sig, ns, {notSigned}, tvTrace(1)},
        {"two sticks, b valid", {otherA, certB}, 1, off, 0, {found(a), found(b), yesB, disabled}, tvTrace(2, true, "")},
        {"two sticks, b other", {certA, otherB}, 0, sig, ns, {found(a), found(b), noB, notSigned}, tvTrace(2, true)},
        {"no-mount after it, walk answers 0", {certA, noMount}, 1, off, 0, offLog, tvTrace(2, true, "")},
        {"no-mount after it, walk fails", {certA, noMount, walkFails}, 0, sig, ns, {found(a), notSigned}, tvTrace(2)},
        {"walk fails after finding it", {certA, walkFails}, 1, off, 0, offLog, offTrace},
    };
    const char* const resultNames[] = {"BS_ERROR", "", "", "", "BS_NOT_SIGNED", "", "BS_SIGNATURE_INCORRECT"};
    const char* const entries[] = {"by path", "by verifyFile", "by descriptor", "explained", "explained, no decision"};
    DaemonListener daemon;
    // Each case through every path entry point and the descriptor one, given
    // the file open with its offset at the end: the same answer, log and report.
    for (const auto& c : cases) {
        for (int entry = 0; entry < 5; ++entry) {
            SCOPED_TRACE(std::string(c.name) + ", " + entries[entry]);
            DeviceProfile device;
            for (const auto& [file, content] : c.device) {
                device.set(file, content);
            }
            const std::string file = c.file.empty() ? f.unsignedOne : c.file;
            const UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
            const off_t end = fd ? lseek(fd.get(), 0, SEEK_END) : -1;
            kzol_decision decision{-1, -1};
            clearLog();
            StderrCapture err;
            EXPECT_EQ(entry == 0   ? verifyFileWihtoutKey(file.c_str(), c.caller)
                      : entry == 1 ? verifyFile(nullptr, file.c_str(), c.caller)
                      : entry == 2 ? verifyFileDescriptor(fd.get(), file.c_str(), c.caller)
                                   : verifyFileExplained(file.c_str(), c.caller, entry == 3 ? &decision : nullptr),
                      c.answer);
            const auto explained = entry == 3 ? std::make_pair(c.step, c.result) : std::make_pair(-1, -1);
            EXPECT_EQ(std::make_pair(decision.step, decision.result), explained);  // the step that decided
            EXPECT_EQ(fd ? lseek(fd.get(), 0, SEEK_CUR) : -1, end);                // the caller's offset stays
            Lines log = c.log;
            for (auto& line : log) {
                for (auto at = line.find('@'); at != std::string::npos; at = line.find('@')) {
                    line.replace(at, 1, device.path() + "/usb");
                }
            }
            EXPECT_EQ(loggedLines(), log);
            EXPECT_EQ(device.takeTrace(), c.trace);
            const bool reported = c.answer == 0 && c.step == sig;
            EXPECT_EQ(daemon.drain(), reported
                                          ? Lines{refusalFrame(std::filesystem::canonical(file), resultNames[c.result],
                                                               c.caller ? c.caller : "NULL")}
                                          : Lines{});
            EXPECT_EQ(err.finish(), c.err);
        }
    }
    daemon.stop();  // the area's own device profile is in force again
    clearLog();
    EXPECT_EQ(verifyFileWihtoutKey(f.unsignedOne.c_str(), "loader"), 0);
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
        int answer;  // a refusal is reported
    };
    const std::vector<Case> cases = {
        {"signed when opened, unsigned by the check", good, c_script, O_RDONLY, 1},
        {"unsigned when opened, signed by the check", c_script, good, O_RDONLY, 0},
        {"descriptor not open for reading", good, good, O_WRONLY, 0},
    };
    DaemonListener daemon;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        writeFile(target, c.opened);
        const UniqueFd fd(open(target.c_str(), c.flags | O_CLOEXEC));
        ASSERT_GE(fd.get(), 0);
        writeFile(target + ".new", c.later);
        ASSERT_EQ(rename((target + ".new").c_str(), target.c_str()), 0);
        clearLog();
        EXPECT_EQ(verifyFileDescriptor(fd.get(), target.c_str(), "loader"), c.answer);
        const Lines log = loggedLines();
        ASSERT_FALSE(log.empty());
        EXPECT_EQ(log.back(), checkLine(c.answer == 1 ? "Correct Signed" : "Not Signed", target));
        EXPECT_EQ(daemon.drain(), c.answer == 1 ? Lines{} : Lines{refusalFrame(target)});
    }
}

// Threads at once through the certificate step (with a certificate for
// another device) and the reports, for ThreadSanitizer to watch: each file
// gets its answer, each refusal its report, each component's report its two.
TEST(Policy, ManyThreadsAtOnce)
{
    Files f;
    f.user.device.set("usb/a/RTZOLOFF.cer", certificate("DUID-OTHER", "P50", devPrivateKey('5')).c_str());
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
