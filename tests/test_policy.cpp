// The exported entry points on an emulated television: every outcome of the
// decision sequence, with its answer, the report that reached the daemon,
// the exact log lines, and which parts of the device were looked at.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <functional>
#include <map>
#include <regex>

#include "daemon.h"
#include "device.h"
#include "kZOLUser.h"

using namespace kzol_test;
using Lines = std::vector<std::string>;

namespace {

const std::string c_script = "#!/bin/sh\necho 'from the user area'\n";

std::string policyLine(const std::string& text, bool error = true)
{
    return error ? errorLine("main.cpp", "verifyFileWihtoutKey", text)
                 : infoLine("main.cpp", "verifyFileWihtoutKey", text);
}
// A signature check's line: `function` is "verifyFile" or "verifyFileWithDeviceId".
std::string checkLine(const char* function, const std::string& caller, const std::string& outcome,
                      const std::string& path)
{
    const bool correct = outcome.find("Correct") != std::string::npos;
    const std::string text = "[zol][" + caller + (correct ? "] : \033[1;32m" : "]! : \033[1;31m") + outcome +
                             " [ file_path : " + path + " ]\033[0m";
    return correct ? infoLine("bs_context.cpp", function, text) : errorLine("bs_context.cpp", function, text);
}
std::string put(const std::string& path, const std::string& content)
{
    writeFile(path, content);
    return path;
}
std::string changed(std::string text, std::size_t at)
{
    text[at] ^= 1;
    return text;
}
std::string madeDir(std::string pattern)
{
    char real[4097] = {};
    EXPECT_TRUE(mkdtemp(pattern.data()) != nullptr && realpath(pattern.c_str(), real) != nullptr);
    return real;
}

// Files in a user-writable area (under /tmp) and outside (under /var/tmp).
struct Files {
    std::string area = madeDir("/tmp/kzol-policy-XXXXXX"), outside = madeDir("/var/tmp/kzol-policy-XXXXXX");
    std::string good = signedFile(c_script, "P50", devPrivateKey('5'));
    std::string signedOne = put(area + "/signed.sh", good), unsignedOne = put(area + "/unsigned.sh", c_script),
                tampered = put(area + "/tampered.sh", changed(good, 5)),
                typeL = put(area + "/type-l.sh", signedFile(c_script, "L50", devPrivateKey('5'))),
                outsider = put(outside + "/outside.sh", c_script);
    ~Files() { run("rm -rf '" + area + "' '" + outside + "'"); }
};

// What the policy reads on a television: the modules, a USB walk over
// `mounts` devices, the identifier when `id`, then `rest`.
Lines tvTrace(int mounts, bool id, const Lines& rest = {"getuid", "geteuid", "fopen /proc/self/zone"})
{
    Lines trace = {"fopen /proc/modules", "usb_device_init", "usb_mass_storage_foreach"};
    trace.insert(trace.end(), static_cast<std::size_t>(mounts), "usb_device_get_mountpath");
    trace.push_back("usb_device_fini");
    if (id) {
        trace.push_back("vconf_get_str db/comss/hwduid");
    }
    trace.insert(trace.end(), rest.begin(), rest.end());
    return trace;
}

}  // namespace

TEST(Policy, Outcomes)
{
    const Files f;
    const std::string missing = f.area + "/missing.sh", viaLink = f.area + "/via-link.sh";
    ASSERT_EQ(symlink(f.unsignedOne.c_str(), viaLink.c_str()), 0);
    const std::string valid = certificate(DeviceProfile::c_deviceId, "P60", devPrivateKey('6'));
    const std::string otherDevice = certificate("DUID-OTHER", "P60", devPrivateKey('6'));
    using Setup = std::function<void(DeviceProfile&)>;
    // A certificate on stick `name`; in the expected lines "@" stands for the sticks' directory.
    const auto cert = [](const char* name, const std::string& content, const char* file = "RTZOLOFF.cer") {
        return [=](DeviceProfile& d) { put(d.stick(name) + "/" + file, content); };
    };
    const auto both = [](Setup a, Setup b) { return [=](DeviceProfile& d) { a(d); b(d); }; };
    const auto set = [](const char* file, const char* content) {
        return [=](DeviceProfile& d) { d.set(file, content); };
    };
    const std::string a = "@/a/RTZOLOFF.cer", b = "@/b/RTZOLOFF.cer";
    const std::string notSigned = checkLine("verifyFile", "loader", "Not Signed", f.unsignedOne);
    const std::string disabled = policyLine("[zol][loader] : \033[1;35mDisable Script ZOL\033[0m", false);
    const Lines noId = {certificateFoundLine(a), c_noDeviceIdLine,
                        errorLine("verify_context.cpp", "update", "VerifyContext::update(): data is empty"), notSigned};
    const auto off = [&](const std::string& path) {  // the certificate at `path` switches the check off
        return Lines{certificateFoundLine(path),
                     checkLine("verifyFileWithDeviceId", "loader", "DUID Correct Signed", path), disabled};
    };
    const std::string noIdErr = "BSContext::verifyFileWithDeviceId(): error during signature check\n";
    struct Case {
        const char* name;
        Setup device;
        std::string file;
        const char* caller;
        int answer;
        const char* result;  // the result the refusal report names; null: no report
        Lines log;
        Lines trace;
        std::string err = {};
    };
    const std::vector<Case> cases = {
        {"missing file", {}, missing, "loader", 0, nullptr, {policyLine(missing + " does not exist;")}, {}},
        {"outside the areas", {}, f.outsider, "loader", 1, nullptr, {}, {}},
        {"not a television", set("modules", "sdp_gpio 16384 0 - Live 0x0\nxmicom 1 0\n"), f.unsignedOne, "loader", 1,
         nullptr, {}, {"fopen /proc/modules"}},
        {"no /proc/modules", set("modules", nullptr), f.unsignedOne, "loader", 1, nullptr, {c_noModulesLine},
         {"fopen /proc/modules"}},
        {"isolated container", set("zone", "2 1\n"), f.unsignedOne, "loader", 1, nullptr, {isolatedLine(2)},
         tvTrace(0, false)},
        {"root in an isolated container", both(set("zone", "2 1\n"), set("uid", "0 5000\n")), f.unsignedOne, "loader",
         0, "BS_NOT_SIGNED", {notSigned}, tvTrace(0, false, {"getuid"})},
        {"effective root in an isolated container", both(set("zone", "2 1\n"), set("uid", "5000 0\n")), f.signedOne,
         "loader", 1, nullptr, {checkLine("verifyFile", "loader", "Correct Signed", f.signedOne)},
         tvTrace(0, false, {"getuid", "geteuid"})},
        {"correctly signed", {}, f.signedOne, "loader", 1, nullptr,
         {checkLine("verifyFile", "loader", "Correct Signed", f.signedOne)}, tvTrace(0, false)},
        {"unsigned", {}, f.unsignedOne, "loader", 0, "BS_NOT_SIGNED", {notSigned}, tvTrace(0, false)},
        {"tampered", {}, f.tampered, "loader", 0, "BS_SIGNATURE_INCORRECT",
         {checkLine("verifyFile", "loader", "Incorrect Signed", f.tampered)}, tvTrace(0, false)},
        {"type L selects no key", {}, f.typeL, "loader", 0, "BS_ERROR", {}, tvTrace(0, false)},
        {"through .. and a link, null caller", {}, f.outside + "/../../.." + viaLink, nullptr, 0, "BS_NOT_SIGNED",
         {checkLine("verifyFile", "NULL", "Not Signed", f.unsignedOne)}, tvTrace(0, false)},
        {"no USB service", set("usb", nullptr), f.signedOne, "loader", 1, nullptr,
         {c_noUsbLine, checkLine("verifyFile", "loader", "Correct Signed", f.signedOne)},
         {"fopen /proc/modules", "usb_device_init", "getuid", "geteuid", "fopen /proc/self/zone"}},
        // The disable certificate, checked before the container step.
        {"certificate, isolated container", both(set("zone", "2 1\n"), cert("a", valid)), f.unsignedOne, "loader", 1,
         nullptr, off(a), tvTrace(1, true, {})},
        {"certificate with bytes before the block changed", cert("a", changed(valid, 0)), f.unsignedOne, "loader", 1,
         nullptr, off(a), tvTrace(1, true, {})},
        {"certificate of another device", cert("a", otherDevice), f.unsignedOne, "loader", 0, "BS_NOT_SIGNED",
         {certificateFoundLine(a), checkLine("verifyFileWithDeviceId", "loader", "DUID Incorrect Signed", a),
          notSigned}, tvTrace(1, true)},
        {"empty identifier", both(set("vconf/db/comss/hwduid", ""), cert("a", valid)), f.unsignedOne, "loader", 0,
         "BS_NOT_SIGNED", noId, tvTrace(1, true), noIdErr},
        {"no identifier", both(set("vconf/db/comss/hwduid", nullptr), cert("a", valid)), f.unsignedOne, "loader", 0,
         "BS_NOT_SIGNED", noId, tvTrace(1, true), noIdErr},
        {"certificate in a subdirectory", cert("a/sub", valid), f.unsignedOne,
         "loader", 0, "BS_NOT_SIGNED", {notSigned}, tvTrace(1, false)},
        {"certificate under another name", cert("a", valid, "rtzoloff.cer"), f.unsignedOne, "loader", 0,
         "BS_NOT_SIGNED", {notSigned}, tvTrace(1, false)},
        {"two sticks, the last one valid", both(cert("a", otherDevice), cert("b", valid)), f.unsignedOne, "loader", 1,
         nullptr, {certificateFoundLine(a), certificateFoundLine(b),
                   checkLine("verifyFileWithDeviceId", "loader", "DUID Correct Signed", b), disabled},
         tvTrace(2, true, {})},
        {"two sticks, the last one of another device", both(cert("a", valid), cert("b", otherDevice)), f.unsignedOne,
         "loader", 0, "BS_NOT_SIGNED", {certificateFoundLine(a), certificateFoundLine(b),
                                        checkLine("verifyFileWithDeviceId", "loader", "DUID Incorrect Signed", b),
                                        notSigned}, tvTrace(2, true)},
        {"a device without mount path after the stick, walk answers 0",
         both(cert("a", valid), set("usb/z.nomount", "")), f.unsignedOne, "loader", 1, nullptr, off(a),
         tvTrace(2, true, {})},
        {"a device without mount path after the stick, walk fails",
         both(both(cert("a", valid), set("usb/z.nomount", "")), set("usb/.foreach-result", "-1")), f.unsignedOne,
         "loader", 0, "BS_NOT_SIGNED", {certificateFoundLine(a), notSigned}, tvTrace(2, false)},
        {"walk fails after finding it", both(cert("a", valid), set("usb/.foreach-result", "-1")), f.unsignedOne,
         "loader", 1, nullptr, off(a), tvTrace(1, true, {})},
    };
    DaemonListener daemon;
    for (const auto& c : cases) {
        DeviceProfile device;
        if (c.device) {
            c.device(device);
        }
        device.takeTrace();
        LogRecorder::clear();
        StderrCapture err;
        EXPECT_EQ(verifyFileWihtoutKey(c.file.c_str(), c.caller), c.answer) << c.name;
        Lines log = c.log, received, reports;
        for (auto& line : log) {
            line = std::regex_replace(line, std::regex("@"), device.path() + "/usb");
        }
        EXPECT_EQ(LogRecorder::lines(), log) << c.name;
        EXPECT_EQ(device.takeTrace(), c.trace) << c.name;
        for (const auto& stream : daemon.drain()) {
            received.push_back(unsequenced(stream));
        }
        char real[4097] = {};
        if (c.result != nullptr && realpath(c.file.c_str(), real) != nullptr) {
            const std::string caller = c.caller != nullptr ? c.caller : "NULL", path = real;
            reports.push_back(reportText(1, caller, "SCRIPT", "ver:\"1\",subject:\"" + path + "\",object:\"" + caller +
                                         "\",result:\"" + c.result + "\",", path));
        }
        EXPECT_EQ(received, reports) << c.name;
        // verifyFile answers the same whatever its first argument.
        EXPECT_EQ(verifyFile(nullptr, c.file.c_str(), c.caller), c.answer) << c.name;
        EXPECT_EQ(err.finish(), c.err + c.err) << c.name;
        daemon.drain();
    }
    daemon.stop();
    const DeviceProfile device;
    LogRecorder::clear();
    EXPECT_EQ(verifyFileWihtoutKey(f.unsignedOne.c_str(), "loader"), 0);
    EXPECT_EQ(LogRecorder::lines(),
              (Lines{notSigned, c_noDaemonLines[0], c_noDaemonLines[1],
                     policyLine("[zol][loader]! : \033[1;31mSendRequest Notification Error\033[0m")}));
}

TEST(Policy, ManyThreadsGiveTheSerialAnswers)
{
    const Files f;
    DaemonListener daemon;
    const Lines files = {f.signedOne, f.unsignedOne, f.tampered, f.outsider, f.typeL};
    for (const bool withCertificate : {false, true}) {
        DeviceProfile device;
        unsetenv("KZOL_EMULATE_TRACE");
        if (withCertificate) {
            put(device.stick("a") + "/RTZOLOFF.cer", certificate(DeviceProfile::c_deviceId, "P50", devPrivateKey('5')));
        }
        std::map<std::string, int> serial;
        for (const auto& file : files) {
            serial[file] = verifyFileWihtoutKey(file.c_str(), "serial");
        }
        std::atomic<int> mismatches{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < 20; ++i) {
                    const std::string& file = files[static_cast<std::size_t>(t + i) % files.size()];
                    mismatches += verifyFileWihtoutKey(file.c_str(), "thread") != serial.at(file) ? 1 : 0;
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(mismatches, 0) << (withCertificate ? "with" : "without") << " a certificate";
        EXPECT_EQ(serial[f.unsignedOne], withCertificate ? 1 : 0);
        daemon.drain();
    }
}
