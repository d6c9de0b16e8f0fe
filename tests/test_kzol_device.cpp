// The whole job through the shipped tools on an emulated television: a signed
// script is allowed, an unsigned one refused and reported to the listener, and
// a disable certificate for this device lets the unsigned one run.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "test_support.h"

namespace {

const std::string c_kzol = KZOL_TOOL;

std::string shq(const std::string& s)
{
    return "'" + s + "'";
}

// Runs `kzol emulate PROFILE -- kzol ARGS` and answers its exit status.
int onDevice(const std::string& profile, const std::string& args, std::string* out)
{
    return kzol_test::run(c_kzol + " emulate " + shq(profile) + " -- " + c_kzol + " " + args + " 2>/dev/null", out);
}

}  // namespace

TEST(KzolDevice, SignCheckReportAndDisableCertificate)
{
    // An ASan-built tool takes the preloaded emulation after its runtime.
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0", 1);
    std::string work = "/tmp/kzol-device-XXXXXX";
    ASSERT_NE(mkdtemp(work.data()), nullptr);
    const kzol_test::TempDir profiles;
    const std::string tv = profiles.file("tv");
    ASSERT_EQ(kzol_test::run(c_kzol + " profile init " + shq(tv) + " --tv --duid TV-0042 --usb stick >/dev/null"), 0);

    const std::string signedScript = work + "/signed.sh", unsignedScript = work + "/unsigned.sh";
    kzol_test::writeFile(signedScript, "#!/bin/sh\necho signed\n");
    kzol_test::writeFile(unsignedScript, "#!/bin/sh\necho unsigned\n");
    ASSERT_EQ(kzol_test::run(c_kzol + " sign --key " + shq(kzol_test::devPrivateKey('6')) + " --key-id 6 " +
                             shq(signedScript) + " >/dev/null"),
              0);

    std::string out;
    EXPECT_EQ(onDevice(tv, "check " + shq(signedScript), &out), 0);
    EXPECT_EQ(out, "allowed (BS_SIGNATURE_CORRECT)\n");

    // The refusal reaches a listener as one report.
    const std::string reports = work + "/reports";
    ASSERT_EQ(std::system((c_kzol + " listen --once --json-lines > " + shq(reports) + " 2>/dev/null & echo $! > " +
                           shq(work + "/pid"))
                              .c_str()),
              0);
    kzol_test::run("for i in $(seq 50); do grep -q SfDaemon/UserMsg /proc/net/unix && break; sleep 0.1; done");
    EXPECT_EQ(onDevice(tv, "check --caller loader " + shq(unsignedScript), &out), 1);
    EXPECT_EQ(out, "refused (BS_NOT_SIGNED)\n");
    kzol_test::run("for i in $(seq 50); do kill -0 $(cat " + shq(work + "/pid") +
                   ") 2>/dev/null || break; sleep 0.1; done");
    const std::string report = kzol_test::readFile(reports);
    EXPECT_NE(report.find("\"Report/Caller\":\"loader\""), std::string::npos) << report;
    EXPECT_NE(report.find("result:\\\"BS_NOT_SIGNED\\\""), std::string::npos) << report;
    EXPECT_NE(report.find("\"Report/Path\":\"" + unsignedScript + "\""), std::string::npos) << report;

    // A certificate for another device changes nothing; one for this device
    // switches the check off.
    const std::string certificate = tv + "/usb/stick/RTZOLOFF.cer";
    ASSERT_EQ(kzol_test::run(c_kzol + " cert --key " + shq(kzol_test::devPrivateKey('5')) +
                             " --key-id 5 --duid TV-0043 -o " + shq(certificate) + " >/dev/null"),
              0);
    EXPECT_EQ(onDevice(tv, "check " + shq(unsignedScript), &out), 1);
    ASSERT_EQ(kzol_test::run(c_kzol + " cert --force --key " + shq(kzol_test::devPrivateKey('5')) +
                             " --key-id 5 --duid TV-0042 -o " + shq(certificate) + " >/dev/null"),
              0);
    EXPECT_EQ(onDevice(tv, "check " + shq(unsignedScript), &out), 0);
    EXPECT_EQ(out, "allowed (disable certificate)\n");
    kzol_test::run("rm -rf " + shq(work));
}
