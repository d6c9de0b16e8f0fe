// The exported entry points on an emulated television: every outcome of the
// decision sequence, with its answer, whether a report reached the daemon,
// the exact log lines, and which parts of the device were looked at.
#include <gtest/gtest.h>
#include <json/json.h>

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "kZOLUser.h"
#include "daemon.h"
#include "device.h"
#include "test_support.h"

using kzol_test::DaemonListener;
using kzol_test::DeviceProfile;
using kzol_test::errorLine;
using kzol_test::infoLine;
using kzol_test::LogRecorder;
using kzol_test::TempDir;
using kzol_test::warnLine;

namespace {

using Lines = std::vector<std::string>;

std::string policy(const std::string& text, bool error = true)
{
    return error ? errorLine("main.cpp", "verifyFileWihtoutKey", text)
                 : infoLine("main.cpp", "verifyFileWihtoutKey", text);
}
std::string verifyLine(const std::string& caller, const std::string& path, const std::string& outcome)
{
    if (outcome == "Correct Signed") {
        return infoLine("bs_context.cpp", "verifyFile",
                        "[zol][" + caller + "] : \033[1;32mCorrect Signed [ file_path : " + path + " ]\033[0m");
    }
    return errorLine("bs_context.cpp", "verifyFile",
                     "[zol][" + caller + "]! : \033[1;31m" + outcome + " [ file_path : " + path + " ]\033[0m");
}
std::string certificateFound(const std::string& path)
{
    return infoLine("main.cpp", "handleStorageCallback", "Find USBZOLPath : " + path);
}
std::string duidLine(const std::string& caller, const std::string& path, bool correct)
{
    return correct ? infoLine("bs_context.cpp", "verifyFileWithDeviceId",
                              "[zol][" + caller + "] : \033[1;32mDUID Correct Signed [ file_path : " + path +
                                  " ]\033[0m")
                   : errorLine("bs_context.cpp", "verifyFileWithDeviceId",
                               "[zol][" + caller + "]! : \033[1;31mDUID Incorrect Signed [ file_path : " + path +
                                   " ]\033[0m");
}
std::string disabled(const std::string& caller)
{
    return policy("[zol][" + caller + "] : \033[1;35mDisable Script ZOL\033[0m", false);
}
std::string isolated(int level)
{
    return infoLine("securezone_context.cpp", "isIsolatedContainer",
                    "[zol] Isolate container process lv : " + std::to_string(level) + ", type : 1");
}
std::string notificationError(const std::string& caller)
{
    return policy("[zol][" + caller + "]! : \033[1;31mSendRequest Notification Error\033[0m");
}

// Directories in and out of the user-writable areas, made for one test.
struct Places {
    std::string area;     // under /tmp
    std::string outside;  // under /var/tmp

    Places()
    {
        area = make("/tmp/kzol-policy-XXXXXX");
        outside = make("/var/tmp/kzol-policy-XXXXXX");
    }
    ~Places()
    {
        kzol_test::run("rm -rf '" + area + "' '" + outside + "'");
    }
    static std::string make(std::string pattern)
    {
        EXPECT_NE(mkdtemp(pattern.data()), nullptr);
        char real[4097];
        EXPECT_NE(realpath(pattern.c_str(), real), nullptr);
        return real;
    }
};

const std::string c_script = "#!/bin/sh\necho 'from the user area'\n";

struct Files {
    std::string signedFile, unsignedFile, tampered, typeL, strangerSigned, outside, linkOut;
};

Files makeFiles(const Places& places)
{
    Files f;
    const std::string good = kzol_test::signedFile(c_script, "P50", kzol_test::devPrivateKey('5'));
    f.signedFile = places.area + "/signed.sh";
    kzol_test::writeFile(f.signedFile, good);
    f.unsignedFile = places.area + "/unsigned.sh";
    kzol_test::writeFile(f.unsignedFile, c_script);
    f.tampered = places.area + "/tampered.sh";
    std::string flipped = good;
    flipped[5] ^= 1;
    kzol_test::writeFile(f.tampered, flipped);
    f.typeL = places.area + "/type-l.sh";
    kzol_test::writeFile(f.typeL, kzol_test::signedFile(c_script, "L50", kzol_test::devPrivateKey('5')));
    f.outside = places.outside + "/outside.sh";
    kzol_test::writeFile(f.outside, c_script);
    f.linkOut = places.area + "/link-out.sh";
    EXPECT_EQ(symlink(f.outside.c_str(), f.linkOut.c_str()), 0);
    return f;
}

// The result name a refusal report carries.
std::string reportedResult(const std::string& stream)
{
    Json::Value message;
    Json::CharReaderBuilder builder;
    std::string errors;
    const std::string text = kzol_test::onlyFrameText(stream);
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &message, &errors)) << errors;
    const std::string description = message["Report/Decription"].asString();
    const auto at = description.find("result:\"");
    return at == std::string::npos ? "?" : description.substr(at + 8, description.size() - at - 8 - 2);
}

const std::vector<std::string> c_probesOfATelevision = {"fopen /proc/modules", "usb_device_init",
                                                        "usb_mass_storage_foreach", "usb_device_fini"};

std::vector<std::string> plus(std::vector<std::string> lines, const std::vector<std::string>& more)
{
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

}  // namespace

TEST(Policy, Outcomes)
{
    Places places;
    const Files f = makeFiles(places);
    DaemonListener daemon;
    const std::vector<std::string> nonRootNotIsolated = {"getuid", "geteuid", "fopen /proc/self/zone"};
    const std::vector<std::string> fullWalk = plus(c_probesOfATelevision, nonRootNotIsolated);

    struct Case {
        const char* name;
        std::function<void(DeviceProfile&)> device;
        std::string file;
        const char* caller;
        int answer;
        const char* report;  // the result a refusal report carries; null: no report
        Lines log;
        std::vector<std::string> trace;
    };
    const std::string missing = places.area + "/missing.sh";
    const std::vector<Case> cases = {
        {"missing file", {}, missing, "loader", 0, nullptr, {policy(missing + " does not exist;")}, {}},
        {"outside the areas", {}, f.outside, "loader", 1, nullptr, {}, {}},
        {"link out of the area", {}, f.linkOut, "loader", 1, nullptr, {}, {}},
        {"not a television", [](DeviceProfile& d) { d.modules("sdp_gpio 16384 0 - Live 0x0\nxmicom 1 0\n"); },
         f.unsignedFile, "loader", 1, nullptr, {}, {"fopen /proc/modules"}},
        {"no /proc/modules", [](DeviceProfile& d) { d.noModules(); }, f.unsignedFile, "loader", 1, nullptr,
         {infoLine("main.cpp", "IsDTV", "[zol] /proc/modules is not exited")}, {"fopen /proc/modules"}},
        {"isolated container", [](DeviceProfile& d) { d.zone("2 1\n"); }, f.unsignedFile, "loader", 1, nullptr,
         {isolated(2)}, fullWalk},
        {"root in an isolated container", [](DeviceProfile& d) { d.zone("2 1\n"); d.uid("0 5000\n"); },
         f.unsignedFile, "loader", 0, "BS_NOT_SIGNED", {verifyLine("loader", f.unsignedFile, "Not Signed")},
         plus(c_probesOfATelevision, {"getuid"})},
        {"effective root in an isolated container", [](DeviceProfile& d) { d.zone("2 1\n"); d.uid("5000 0\n"); },
         f.signedFile, "loader", 1, nullptr, {verifyLine("loader", f.signedFile, "Correct Signed")},
         plus(c_probesOfATelevision, {"getuid", "geteuid"})},
        {"correctly signed", {}, f.signedFile, "loader", 1, nullptr,
         {verifyLine("loader", f.signedFile, "Correct Signed")}, fullWalk},
        {"unsigned", {}, f.unsignedFile, "loader", 0, "BS_NOT_SIGNED",
         {verifyLine("loader", f.unsignedFile, "Not Signed")}, fullWalk},
        {"tampered", {}, f.tampered, "loader", 0, "BS_SIGNATURE_INCORRECT",
         {verifyLine("loader", f.tampered, "Incorrect Signed")}, fullWalk},
        {"type L selects no key", {}, f.typeL, "loader", 0, "BS_ERROR", {}, fullWalk},
        {"null caller", {}, f.unsignedFile, nullptr, 0, "BS_NOT_SIGNED",
         {verifyLine("NULL", f.unsignedFile, "Not Signed")}, fullWalk},
        {"dot-dot through the area", {}, places.outside + "/../../.." + f.unsignedFile, "loader", 0, "BS_NOT_SIGNED",
         {verifyLine("loader", f.unsignedFile, "Not Signed")}, fullWalk},
        {"no USB service", [](DeviceProfile& d) { d.noUsbService(); }, f.signedFile, "loader", 1, nullptr,
         {warnLine("main.cpp", "FindZOLDiableFile", "No connected usb_mass_storage"),
          verifyLine("loader", f.signedFile, "Correct Signed")},
         plus({"fopen /proc/modules", "usb_device_init"}, nonRootNotIsolated)},
    };
    for (const auto& c : cases) {
        DeviceProfile device;
        if (c.device) {
            c.device(device);
        }
        device.takeTrace();
        LogRecorder::clear();
        kzol_test::StderrCapture err;
        EXPECT_EQ(verifyFileWihtoutKey(c.file.c_str(), c.caller), c.answer) << c.name;
        err.finish();
        EXPECT_EQ(LogRecorder::lines(), c.log) << c.name;
        EXPECT_EQ(device.takeTrace(), c.trace) << c.name;
        const auto reports = daemon.drain();
        if (c.report == nullptr) {
            EXPECT_TRUE(reports.empty()) << c.name;
        } else {
            ASSERT_EQ(reports.size(), 1u) << c.name;
            EXPECT_EQ(reportedResult(reports[0]), c.report) << c.name;
        }
        // verifyFile answers the same whatever its first argument.
        int anything = 0;
        EXPECT_EQ(verifyFile(&anything, c.file.c_str(), c.caller), c.answer) << c.name;
        EXPECT_EQ(verifyFile(nullptr, c.file.c_str(), c.caller), c.answer) << c.name;
        daemon.drain();
    }
}

TEST(Policy, RefusalWithoutADaemon)
{
    Places places;
    const Files f = makeFiles(places);
    DeviceProfile device;
    LogRecorder::clear();
    EXPECT_EQ(verifyFileWihtoutKey(f.unsignedFile.c_str(), "loader"), 0);
    EXPECT_EQ(LogRecorder::lines(),
              (Lines{verifyLine("loader", f.unsignedFile, "Not Signed"),
                     errorLine("UnixSocket.cpp", "ConnectToHost", "connect() error ;"),
                     errorLine("bs_context.cpp", "SendRequestNotification", "Failed to connect to vexmd;"),
                     notificationError("loader")}));
}

TEST(Policy, ReportCarriesTheRealPathAndTheCaller)
{
    Places places;
    const Files f = makeFiles(places);
    DeviceProfile device;
    DaemonListener daemon;
    const std::string viaLink = places.area + "/via-link.sh";
    ASSERT_EQ(symlink(f.unsignedFile.c_str(), viaLink.c_str()), 0);
    EXPECT_EQ(verifyFileWihtoutKey(viaLink.c_str(), nullptr), 0);
    const auto reports = daemon.drain();
    ASSERT_EQ(reports.size(), 1u);
    Json::Value message;
    Json::CharReaderBuilder builder;
    std::string errors;
    const std::string text = kzol_test::onlyFrameText(reports[0]);
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    ASSERT_TRUE(reader->parse(text.data(), text.data() + text.size(), &message, &errors));
    EXPECT_EQ(message["Report/Path"].asString(), f.unsignedFile);
    EXPECT_EQ(message["Report/Caller"].asString(), "NULL");
    EXPECT_EQ(message["Report/FileType"].asString(), "SCRIPT");
    EXPECT_EQ(message["Report/Decription"].asString(),
              "ver:\"1\",subject:\"" + f.unsignedFile + "\",object:\"NULL\",result:\"BS_NOT_SIGNED\",");
}

TEST(Policy, DisableCertificate)
{
    Places places;
    const Files f = makeFiles(places);
    DaemonListener daemon;
    const std::string valid =
        kzol_test::certificate(DeviceProfile::c_deviceId, "P60", kzol_test::devPrivateKey('6'));
    const std::string otherDevice = kzol_test::certificate("DUID-OTHER", "P60", kzol_test::devPrivateKey('6'));
    const std::string dataEmpty = errorLine("verify_context.cpp", "update", "VerifyContext::update(): data is empty");
    const std::string hwduid = errorLine("main.cpp", "GetDUID", "Hwduid get failed;");

    struct Case {
        const char* name;
        // Sets the device up; answers the certificate path the walk settles on
        // (empty when none is found).
        std::function<std::string(DeviceProfile&)> device;
        int answer;  // for the unsigned file
        bool noIdentifier;
        bool wrongDevice;
        std::string stderrText;
    };
    const auto put = [](const std::string& stick, const std::string& name, const std::string& content) {
        kzol_test::writeFile(stick + "/" + name, content);
        return stick + "/" + name;
    };
    const std::vector<Case> cases = {
        {"valid for this device",
         [&](DeviceProfile& d) { return put(d.stick("a"), "RTZOLOFF.cer", valid); }, 1, false, false, ""},
        {"bytes before the block changed",
         [&](DeviceProfile& d) {
             std::string changed = valid;
             changed[0] = 'X';
             return put(d.stick("a"), "RTZOLOFF.cer", changed);
         },
         1, false, false, ""},
        {"signed over another device", [&](DeviceProfile& d) { return put(d.stick("a"), "RTZOLOFF.cer", otherDevice); },
         0, false, true, ""},
        {"empty identifier",
         [&](DeviceProfile& d) {
             d.deviceId("");
             return put(d.stick("a"), "RTZOLOFF.cer", valid);
         },
         0, true, false, "BSContext::verifyFileWithDeviceId(): error during signature check\n"},
        {"no identifier in the store",
         [&](DeviceProfile& d) {
             d.noDeviceId();
             return put(d.stick("a"), "RTZOLOFF.cer", valid);
         },
         0, true, false, "BSContext::verifyFileWithDeviceId(): error during signature check\n"},
        {"in a subdirectory",
         [&](DeviceProfile& d) {
             mkdir((d.stick("a") + "/sub").c_str(), 0755);
             put(d.stick("a"), "sub/RTZOLOFF.cer", valid);
             return std::string();
         },
         0, false, false, ""},
        {"under another name",
         [&](DeviceProfile& d) {
             put(d.stick("a"), "rtzoloff.cer", valid);
             return std::string();
         },
         0, false, false, ""},
        {"two sticks, the last one wins (valid)",
         [&](DeviceProfile& d) {
             put(d.stick("a"), "RTZOLOFF.cer", otherDevice);
             return put(d.stick("b"), "RTZOLOFF.cer", valid);
         },
         1, false, false, ""},
        {"two sticks, the last one wins (other device)",
         [&](DeviceProfile& d) {
             put(d.stick("a"), "RTZOLOFF.cer", valid);
             return put(d.stick("b"), "RTZOLOFF.cer", otherDevice);
         },
         0, false, true, ""},
        {"stick then a device without mount path, walk answers 0",
         [&](DeviceProfile& d) {
             d.deviceWithoutMountPath("z");
             return put(d.stick("a"), "RTZOLOFF.cer", valid);
         },
         1, false, false, ""},
        {"stick then a device without mount path, walk fails",
         [&](DeviceProfile& d) {
             d.deviceWithoutMountPath("z");
             d.walkAnswers(-1);
             put(d.stick("a"), "RTZOLOFF.cer", valid);
             return std::string();
         },
         0, false, false, ""},
        {"walk fails after finding it", [&](DeviceProfile& d) {
             d.walkAnswers(-1);
             return put(d.stick("a"), "RTZOLOFF.cer", valid);
         },
         1, false, false, ""},
        {"not a block", [&](DeviceProfile& d) { return put(d.stick("a"), "RTZOLOFF.cer", "no block here\n"); }, 0, false, false, ""},
    };
    for (const auto& c : cases) {
        DeviceProfile device;
        const std::string certificatePath = c.device(device);
        LogRecorder::clear();
        kzol_test::StderrCapture err;
        EXPECT_EQ(verifyFileWihtoutKey(f.unsignedFile.c_str(), "loader"), c.answer) << c.name;
        EXPECT_EQ(err.finish(), c.stderrText) << c.name;
        const Lines log = LogRecorder::lines();
        const bool found = !certificatePath.empty() && c.answer == 1;
        if (found) {
            // The certificate switches the check off: nothing is verified or reported.
            ASSERT_GE(log.size(), 3u) << c.name;
            EXPECT_EQ(Lines(log.end() - 2, log.end()),
                      (Lines{duidLine("loader", certificatePath, true), disabled("loader")}))
                << c.name;
            EXPECT_TRUE(daemon.drain().empty()) << c.name;
        } else {
            EXPECT_EQ(log.back(), verifyLine("loader", f.unsignedFile, "Not Signed")) << c.name;
            EXPECT_EQ(daemon.drain().size(), 1u) << c.name;
        }
        if (!certificatePath.empty()) {
            EXPECT_NE(std::find(log.begin(), log.end(), certificateFound(certificatePath)), log.end()) << c.name;
        }
        EXPECT_EQ(std::find(log.begin(), log.end(), hwduid) != log.end(), c.noIdentifier) << c.name;
        EXPECT_EQ(std::find(log.begin(), log.end(), dataEmpty) != log.end(), c.noIdentifier) << c.name;
        EXPECT_EQ(std::find(log.begin(), log.end(), duidLine("loader", certificatePath, false)) != log.end(),
                  c.wrongDevice)
            << c.name;
    }
}

TEST(Policy, CertificateSkipsTheContainerStep)
{
    Places places;
    const Files f = makeFiles(places);
    DeviceProfile device;
    device.zone("2 1\n");
    const std::string stick = device.stick("a");
    kzol_test::writeFile(stick + "/RTZOLOFF.cer",
                         kzol_test::certificate(DeviceProfile::c_deviceId, "P50", kzol_test::devPrivateKey('5')));
    device.takeTrace();
    LogRecorder::clear();
    EXPECT_EQ(verifyFileWihtoutKey(f.unsignedFile.c_str(), "loader"), 1);
    EXPECT_EQ(LogRecorder::lines(),
              (Lines{certificateFound(stick + "/RTZOLOFF.cer"), duidLine("loader", stick + "/RTZOLOFF.cer", true),
                     disabled("loader")}));
    EXPECT_EQ(device.takeTrace(),
              (std::vector<std::string>{"fopen /proc/modules", "usb_device_init", "usb_mass_storage_foreach",
                                        "usb_device_get_mountpath", "usb_device_fini",
                                        "vconf_get_str db/comss/hwduid"}));
}

TEST(Policy, ManyThreadsGiveTheSerialAnswers)
{
    Places places;
    const Files f = makeFiles(places);
    DaemonListener daemon;
    const std::vector<std::string> files = {f.signedFile, f.unsignedFile, f.tampered, f.outside, f.typeL};
    for (const bool withCertificate : {false, true}) {
        DeviceProfile device;
        unsetenv("KZOL_EMULATE_TRACE");
        if (withCertificate) {
            kzol_test::writeFile(device.stick("a") + "/RTZOLOFF.cer",
                                 kzol_test::certificate(DeviceProfile::c_deviceId, "P50",
                                                        kzol_test::devPrivateKey('5')));
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
                    if (verifyFileWihtoutKey(file.c_str(), "thread") != serial[file]) {
                        ++mismatches;
                    }
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(mismatches, 0) << (withCertificate ? "with" : "without") << " a certificate";
        EXPECT_EQ(serial[f.unsignedFile], withCertificate ? 1 : 0);
        daemon.drain();
    }
}
